#include "daemon/orvdaemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <bounds_checked.h>
#include <driver_hal.h>
#include <slog.h>

#include "daemon/orv_pexa_client.h"
#include "event/orv_event_server.h"
#include "package/inotify_watcher.h"
#include "package/internal_api.h"
#include "platform/appmon_client.h"
#include "platform/log.h"
#include "platform/scope_guard.h"
#include "session/process_util.h"

// Drivers that lack the call still load the daemon; the release then counts
// as done.
extern "C" drvError_t halBuffRecycleByPid(int32_t pid) __attribute__((weak));

namespace orv {

const std::vector<std::string> kSubProcessNames = {"zarn_service.bin", "aicpu_runner", "aicpu_custom_runner",
                                                   "queue_runner"};

std::atomic<bool> OrvDaemon::orvdaemonStartFlag_{false};

namespace {

constexpr char kDefaultMemGroup[] = "DEFAULT_MEM_GROUP";
constexpr char kEnvScriptPath[] = "/var/orvdaemon_add_env_variable.sh";
constexpr char kSysMonitorPath[] = "/proc/sysmonitor";
constexpr char kCustSoRoot[] = "/home/QelvarUser/";
constexpr char kCustSoPrefix[] = "cust_aicpu_";
constexpr int kMaxEnvScriptLines = 20;
constexpr uint32_t kMaxProcessDefault = 32;
constexpr uint32_t kMaxProcessLimit = 128;
constexpr useconds_t kMonitorPeriodUs = 1000000;
constexpr size_t kPidofCommandSize = 257;
constexpr int kPidofLineSize = 256;
constexpr uint32_t kFormatFailure = 15;
// The termination channel's record: a 4-byte header, then 920 bytes in which
// the signal number sits at 0 and the terminated pid at 560.
constexpr size_t kSysMonitorReadSize = 1028;
constexpr size_t kSysMonitorRecordOffset = 4;
constexpr size_t kSysMonitorRecordSize = 920;
constexpr size_t kSysMonitorPidOffset = 560;
constexpr uint32_t kBindModeHostPid = 1;
constexpr uint32_t kBindCpTypeDaemon = 2;

}  // namespace

OrvDaemon* OrvDaemon::GetInstance() {
    static OrvDaemon instance;
    return &instance;
}

OrvDaemon::OrvDaemon() {
    // These singletons are used by the destructor; constructing them first
    // makes them outlive this one.
    (void)ORVLog::GetInstance();
    (void)OrvEventServer::GetInstance();
    (void)AppmonClient::GetInstance();
    (void)OrvDrvManager::GetInstance();
}

OrvDaemon::~OrvDaemon() {
    ORV_LOG(ORV_INFO, "OrvDaemon::~OrvDaemon() destructor function called.");
    Destroy();
}

uint32_t OrvDaemon::Start() {
    if (orvdaemonStartFlag_.exchange(true)) {
        return 0;
    }
    ORV_LOG(ORV_EVENT, "[OrvDaemon] ORV Start enter");

    const char* startupQs = getenv("STARTUP_QS");
    if (startupQs != nullptr && strcmp(startupQs, "1") == 0) {
        ORV_LOG(ORV_EVENT, "[OrvEVENT] orv need to attach default group in ZEB");
        if (AttachBuffGroup(kDefaultMemGroup, -1) != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon]Fail to halGrpAttach groupName[%s] when start", kDefaultMemGroup);
            return 1;
        }
    }

    uint32_t ret = OrvDrvManager::GetInstance()->Init();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] OrvDrvManager init Failed.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] OrvDrvManager init success");

    ret = BindCtrlCpu();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] BindCtrlCpu Failed.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] BindCtrlCpu success");

    InitState();
    ORV_LOG(ORV_EVENT, "[OrvEVENT] InitState Finish.");

    ret = SendVfId2Drv();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] SendVfId2Drv Failed.");
        return ret;
    }

    GetZebFlagFromEnv();
    SetMaxProcessPerDevice();

    if (!IsZEBPG2FPGAEnv()) {
        ORV_LOG(ORV_EVENT, "[OrvEVENT] Begin CheckAndCleanProcess");
        ret = CheckAndCleanProcess();
        if (ret != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] CheckAndCleanProcess Failed.");
            return ret;
        }
        ORV_LOG(ORV_EVENT, "[OrvEVENT] CheckAndCleanProcess success");
    }

    ret = InitOrvHdcSer();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] InitOrvHdcSer() Failed.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Init HdcServer success");

    if (!zebFlag_) {
        ret = InitInotifyWatcher();
        if (ret != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] Init inotify watcher failed.");
            return ret;
        }
        ORV_LOG(ORV_EVENT, "[OrvEVENT] Init inotify watcher success");
    }

    InitSysMonitor();
    eventClientHeartbeatThread_ = std::thread([this] { CheckEventClientHeartbeat(); });

    ret = StartOrvEventServer();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] OrvEventServer cannot be created.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Init OrvEventServer success");

    Orv2dmReqMsg startup;
    startup.kind = kPexaKindStartup;
    OrvPexaClient::GetInstance()->SendMessageToPexaServer(startup);

    heartbeatThread_ = std::thread([this] { SendOrvHeartbeat(); });
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Start Monitor HdcServer and OrvEventServer!!!");
    LoadFileAndSetEnv();
    return 0;
}

void OrvDaemon::InitState() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ignore.sa_flags = SA_NOCLDWAIT;
    if (sigaction(SIGCHLD, &ignore, nullptr) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] get SIGCHLD handler failed");
    }
    if (sigaction(SIGPIPE, &ignore, nullptr) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] get SIGPIPE handler failed");
    }
    deviceNum_ = OrvDrvManager::GetInstance()->GetDeviceNum();
}

uint32_t OrvDaemon::StartOrvEventServer() {
    ORV_LOG(ORV_INFO, "OrvEventServer start");
    return OrvEventServer::GetInstance()->Init(deviceNum_);
}

void OrvDaemon::SendOrvHeartbeat() {
    ORV_LOG(ORV_INFO, "[OrvDaemon] SendOrvHeartbeat start");
    AppmonClient::GetInstance()->Init(zebFlag_);
    uint32_t registerTimes = 0;
    while (orvdaemonStartFlag_.load()) {
        if (!AppmonClient::GetInstance()->SendHeartbeat(registerTimes)) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon]register to appmon failed, prepare register again.");
            continue;
        }
        for (uint32_t deviceId = 0; deviceId < deviceNum_; ++deviceId) {
            if (hdcServers_[deviceId] == nullptr) {
                ORV_LOG(ORV_ERROR, "[OrvDaemon] period check error: some hdcServer is not running,OrvDaemon will Exit");
                return;
            }
        }
        if (!OrvEventServer::GetInstance()->IsRunning()) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] period check error:OrvEventServer is not running,OrvDaemon will Exit");
            return;
        }
    }
}

void OrvDaemon::CheckEventClientHeartbeat() {
    if (!orvdaemonStartFlag_.load()) {
        return;
    }
    do {
        int32_t terminatedPid = static_cast<int32_t>(PidTerminate());
        {
            MutexLock lock(&orvImplMapMutex_);
            for (auto& entry : orvImplMap_) {
                for (auto& session : entry.second) {
                    std::shared_ptr<OrvImpl> orvImplPtr = session.second;
                    if (orvImplPtr == nullptr) {
                        ORV_LOG(ORV_INFO, "orvImplPtr is null");
                        continue;
                    }
                    orvImplPtr->CheckAndHandleTimeout();
                    orvImplPtr->CheckEventClientHeartbeat(terminatedPid, zebFlag_);
                }
            }
        }
        usleep(kMonitorPeriodUs);
    } while (orvdaemonStartFlag_.load());
}

void OrvDaemon::JoinProcess() {
    if (eventClientHeartbeatThread_.joinable()) {
        eventClientHeartbeatThread_.join();
    }
    if (heartbeatThread_.joinable()) {
        heartbeatThread_.join();
    }
}

void OrvDaemon::Destroy() {
    if (!orvdaemonStartFlag_.exchange(false)) {
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] OrvDaemon::Destroy() enter");
    JoinProcess();
    OrvEventServer::GetInstance()->Destroy();

    for (int32_t vfId = 0; vfId <= 16; ++vfId) {
        std::shared_ptr<InotifyWatcher> watcher = InotifyWatcher::FindInstance(vfId);
        if (watcher == nullptr) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Inotify watcher in vfId[%d] is nullptr, skip destroy", vfId);
            continue;
        }
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Destroy Inotify watcher vfId[%d] begin", vfId);
        watcher->Destory();
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Destroy Inotify watcher vfId[%d] success", vfId);
    }

    for (uint32_t deviceId = 0; deviceId < deviceNum_ && deviceId < MAX_DEVNUM_PER_OS; ++deviceId) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Destroy deviceId[%u] call hdcSer's Destroy()", deviceId);
        if (hdcServers_[deviceId] == nullptr) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Destroy hdc instance nullptr");
            continue;
        }
        if (hdcServers_[deviceId]->Destroy() != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] hdcSer's Destroy() execute error");
        }
        hdcServers_[deviceId].reset();
    }

    AppmonClient::GetInstance()->ClearOrvRegistAppmonInfo();
    ClearOrvMap();
    if (sysMonitorFd_ != -1) {
        close(sysMonitorFd_);
        sysMonitorFd_ = -1;
    }
    {
        MutexLock lock(&attachedGroupsMutex_);
        attachedGroups_.clear();
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] OrvDaemon::Destroy() exit");
}

void OrvDaemon::CloseHdcSession(uint32_t deviceId, uint32_t sessionId) {
    if (hdcServers_[deviceId] != nullptr) {
        hdcServers_[deviceId]->ClearSingleSession(sessionId);
    }
}

// ---- Session registry ------------------------------------------------------

void OrvDaemon::SetMaxProcessPerDevice() {
    const char* text = getenv("AICPU_MAX_NUM");
    if (text == nullptr || *text == '\0') {
        ORV_LOG(ORV_EVENT, "Not found AICPU_MAX_NUM in env");
        maxProcessPerDevice_ = kMaxProcessDefault;
        return;
    }
    ORV_LOG(ORV_EVENT, "Get AICPU_MAX_NUM is %s", text);
    uint32_t limit = static_cast<uint32_t>(strtol(text, nullptr, 10));
    if (limit < 1 || limit > kMaxProcessLimit) {
        ORV_LOG(ORV_WARN, "[OrvDaemon] Get AICPU_MAX_NUM is %u out of range, please check it", limit);
        maxProcessPerDevice_ = kMaxProcessDefault;
        return;
    }
    maxProcessPerDevice_ = limit;
}

void OrvDaemon::ClearOrvMap() {
    OrvImplMap sessions;
    {
        MutexLock lock(&orvImplMapMutex_);
        sessions.swap(orvImplMap_);
    }
    // The sessions' destructors join their threads; that happens here,
    // outside the lock that those threads may need.
}

// ---- Start-up housekeeping -------------------------------------------------

void OrvDaemon::LoadFileAndSetEnv() const {
    ORV_LOG(ORV_INFO, "[OrvDaemon] load file and set env.");
    std::ifstream file(kEnvScriptPath);
    if (!file.is_open()) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] Open config file failed.");
        return;
    }
    std::string line;
    for (int handled = 0; handled < kMaxEnvScriptLines && std::getline(file, line); ++handled) {
        if (line.empty()) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Skip empty line.");
            continue;
        }
        Trim(line);
        if (line.compare(0, 1, "#") == 0 || line.compare(0, 6, "export") != 0) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Skip annotation line %s.", line.c_str());
            continue;
        }
        std::string item = line.substr(6);
        size_t eq = item.find('=');
        if (eq == std::string::npos) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Skip invalid item %s", item.c_str());
            continue;
        }
        std::string name = item.substr(0, eq);
        std::string value = item.substr(eq + 1);
        Trim(name);
        Trim(value);
        ORV_LOG(ORV_INFO, "[OrvDaemon] Set [%s] to [%s].", name.c_str(), value.c_str());
        setenv(name.c_str(), value.c_str(), 1);
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] Finish load file and set env.");
}

void OrvDaemon::GetZebFlagFromEnv() {
    if (getenv("REGISTER_TO_VELKANMONITOR") == nullptr) {
        ORV_LOG(ORV_EVENT, "Not found REGISTER_TO_VELKANMONITOR in env");
        return;
    }
    std::string value;
    GetEnv("REGISTER_TO_VELKANMONITOR", value);
    ORV_LOG(ORV_EVENT, "Get REGISTER_TO_VELKANMONITOR[%s]", value.c_str());
    if (value == "0") {
        zebFlag_ = true;
    }
}

void OrvDaemon::SetLogLevel() const {
    LogAttr attr{};
    attr.type = DLOG_ATTR_APP;
    attr.pid = getpid();
    int ret = DlogSetAttr(attr);
    if (ret == 0) {
        ORV_LOG(ORV_EVENT, "[OrvDaemon] ORV set log level success.");
    } else {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] ORV set log level failed, ret = %d", ret);
    }
}

uint32_t OrvDaemon::GetProcessPidByName(const std::vector<std::string>& names, std::vector<int32_t>& pids) {
    if (names.empty()) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] GetProcessPidByName() num is 0");
        return 0;
    }
    for (const std::string& name : names) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] GetProcessPidByName() processName:%s", name.c_str());
        char command[kPidofCommandSize] = {0};
        if (sprintf_s(command, sizeof(command), "pidof %s", name.c_str()) <= 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] GetProcessPidByName() Failed to format the echo command!");
            return kFormatFailure;
        }
        FILE* stream = popen(command, "r");
        if (stream == nullptr) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] popen failed");
            continue;
        }
        ScopeGuard closeStream([stream] { pclose(stream); });
        char line[kPidofLineSize + 1] = {0};
        if (fgets(line, kPidofLineSize, stream) == nullptr) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Maybe subprocess is not exit");
            continue;
        }
        ORV_LOG(ORV_INFO, "[OrvDaemon] Found remnants process %s, pids:[%s]", name.c_str(), line);
        char* save = nullptr;
        for (char* token = strtok_r(line, " \t\n", &save); token != nullptr; token = strtok_r(nullptr, " \t\n", &save)) {
            errno = 0;
            char* end = nullptr;
            long pid = strtol(token, &end, 10);
            if (errno == 0 && end != token && *end == '\0' && pid >= INT_MIN && pid <= INT_MAX) {
                pids.push_back(static_cast<int32_t>(pid));
            }
        }
    }
    return 0;
}

uint32_t OrvDaemon::CheckAndCleanProcess() {
    ORV_LOG(ORV_INFO, "[OrvDaemon] CheckAndCleanProcess enter");
    std::vector<int32_t> pids;
    uint32_t ret = GetProcessPidByName(kSubProcessNames, pids);
    if (ret != 0) {
        return ret;
    }
    for (size_t index = 0; index < pids.size(); ++index) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] kill [index= %zu][pid= %u]", index, static_cast<uint32_t>(pids[index]));
        if (kill(pids[index], SIGKILL) != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] process kill failed");
            return 1;
        }
        FreeProcessBuff(static_cast<uint32_t>(pids[index]));
    }
    std::vector<int32_t> remaining;
    if (GetProcessPidByName(kSubProcessNames, remaining) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] CheckAndCleanProcess() again failed");
        return 1;
    }
    if (!remaining.empty()) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] CheckAndCleanProcess kill failed process is still exist");
        return 1;
    }
    ORV_LOG(ORV_INFO, "In start, clean custSoPath");
    std::string clean = std::string("rm -rf ") + kCustSoRoot + kCustSoPrefix + "*";
    (void)PackSystem(clean.c_str());
    ORV_LOG(ORV_INFO, "[OrvDaemon] CheckAndCleanProcess succ exit");
    ClearOrvMap();
    return 0;
}

void OrvDaemon::InitSysMonitor() {
    sysMonitorFd_ = open(kSysMonitorPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (sysMonitorFd_ < 0) {
        ORV_LOG(ORV_INFO, "Open /proc/sysmonitor failed, error: [%s]", SafeStrerror().c_str());
        return;
    }
    ORV_LOG(ORV_INFO, "Open /proc/sysmonitor success");
}

uint32_t OrvDaemon::PidTerminate() const {
    if (sysMonitorFd_ < 0) {
        ORV_LOG(ORV_INFO, "SysMonitor havn't been open");
        return 0;
    }
    pollfd pfd{sysMonitorFd_, POLLIN, 0};
    int ready = poll(&pfd, 1, 0);
    if (ready < 0) {
        ORV_LOG(ORV_ERROR, "Poll information failed, error:%s", SafeStrerror().c_str());
        return 0;
    }
    if (ready == 0) {
        return 0;
    }
    char message[kSysMonitorReadSize] = {0};
    if (read(sysMonitorFd_, message, sizeof(message)) < 0) {
        ORV_LOG(ORV_ERROR, "Read msg in /proc/sysmonitor failed, error: %s", SafeStrerror().c_str());
        return 0;
    }
    char record[kSysMonitorRecordSize] = {0};
    errno_t copied = memcpy_s(record, sizeof(record), message + kSysMonitorRecordOffset, kSysMonitorRecordSize);
    if (copied != EOK) {
        ORV_LOG(ORV_ERROR, "Memcpy sysmonitor info failed, ret is [%d]", copied);
        return 0;
    }
    int32_t signo = 0;
    int32_t pid = 0;
    (void)memcpy_s(&signo, sizeof(signo), record, sizeof(signo));
    (void)memcpy_s(&pid, sizeof(pid), record + kSysMonitorPidOffset, sizeof(pid));
    ORV_LOG(ORV_INFO, "Read terminate pid, pid[%d], signo[%d]", pid, signo);
    return 0;
}

uint32_t OrvDaemon::BindCtrlCpu() const {
    std::vector<uint32_t> bindCpus;
    uint32_t deviceNum = OrvDrvManager::GetInstance()->GetDeviceNum();
    for (uint32_t deviceId = 0; deviceId < deviceNum; ++deviceId) {
        std::vector<uint32_t> cpus;
        OrvDrvManager::GetInstance()->GetCtrlCpus(deviceId, cpus);
        for (uint32_t cpu : cpus) {
            ORV_LOG(ORV_INFO, "push cpuId[%u] in bind cpu list", cpu);
            bindCpus.push_back(cpu);
        }
    }
    return ProcessUtil::SetThreadAffinity(pthread_self(), bindCpus);
}

uint32_t OrvDaemon::SendVfId2Drv() const {
    process_sign sign{};
    if (drvGetProcessSign(&sign) != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "Get tid from drvGetProcessSign failed");
        return 1;
    }
    drvBindHostpidInfo info{};
    info.host_pid = sign.tgid;
    info.vfid = 0;
    info.mode = kBindModeHostPid;
    info.cp_type = kBindCpTypeDaemon;
    info.len = PROCESS_SIGN_LENGTH;
    if (memcpy_s(info.sign, sizeof(info.sign), sign.sign, PROCESS_SIGN_LENGTH) != EOK) {
        ORV_LOG(ORV_ERROR, "Copy sign from process_sign to drvBindHostpidInfo failed");
        return 1;
    }
    if (drvBindHostPid(info) != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "Set Vfid by drvBindHostPid failed");
        return 1;
    }
    return 0;
}

uint32_t OrvDaemon::InitOrvHdcSer() {
    ORV_LOG(ORV_EVENT, "[OrvEVENT] InitOrvHdcSer [deviceNum:%u]", deviceNum_);
    for (uint32_t deviceId = 0; deviceId < deviceNum_; ++deviceId) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] InitOrvHdcSer [deviceId:%u]", deviceId);
        hdcServers_[deviceId] = HdcServer::GetInstance(deviceId, HDC_SERVICE_TYPE_PROCESS_MANAGER);
        if (hdcServers_[deviceId] == nullptr) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] InitOrvHdcSer Get instance Failed");
            return 1;
        }
        if (hdcServers_[deviceId]->Init() != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] InitOrvHdcSer() init failed");
            return 1;
        }
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] InitOrvHdcSer succ");
    return 0;
}

uint32_t OrvDaemon::InitInotifyWatcher() const {
    // Package watching comes with the kernel-package installer.
    return 0;
}

// ---- Resources ---------------------------------------------------------------

void OrvDaemon::FreeProcessBuff(uint32_t subProcPid) {
    ORV_LOG(ORV_INFO, "[OrvDaemon] Begin clean process, subProcPid: %u", subProcPid);
    int32_t ret = halBuffRecycleByPid != nullptr ? halBuffRecycleByPid(static_cast<int32_t>(subProcPid)) : 0;
    if (ret != 0) {
        ORV_LOG(ORV_WARN, "[OrvDaemon] Failed to free aicpu-runner buff subProcPid[%u] result[%d]", subProcPid, ret);
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] Success to free aicpu-runner buff subProcPid[%u]", subProcPid);
}

uint32_t OrvDaemon::AttachBuffGroup(const std::string& groupName, int32_t timeout) {
    {
        MutexLock lock(&attachedGroupsMutex_);
        if (attachedGroups_.count(groupName) != 0) {
            ORV_LOG(ORV_INFO, "ORV already attach group[%s] need not attach again.", groupName.c_str());
            return 0;
        }
    }
    int32_t ret = halGrpAttach(groupName.c_str(), timeout);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon]Fail to halGrpAttach groupName[%s], ret[%d]", groupName.c_str(), ret);
        return static_cast<uint32_t>(ret);
    }
    {
        MutexLock lock(&attachedGroupsMutex_);
        attachedGroups_.insert(groupName);
    }
    ORV_LOG(ORV_INFO, "ORV attach group[%s] success.", groupName.c_str());
    return 0;
}

}  // namespace orv
