#include "daemon/orvdaemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <system_error>

#include <bounds_checked.h>
#include <driver_hal.h>
#include <slog.h>

#include "daemon/orv_pexa_client.h"
#include "event/orv_event_server.h"
#include "message/message_parse_interface.h"
#include "package/inotify_watcher.h"
#include "package/internal_api.h"
#include "package/package_worker.h"
#include "platform/appmon_client.h"
#include "platform/log.h"
#include "platform/scope_guard.h"
#include "platform/stop_signal.h"
#include "session/process_handle.h"
#include "session/process_util.h"

// Drivers that lack the call still load the daemon; the release then counts
// as done.
extern "C" drvError_t halBuffRecycleByPid(int32_t pid) __attribute__((weak));

namespace orv {

std::atomic<bool> OrvDaemon::orvdaemonStartFlag_{false};

namespace {

constexpr char kEnvScriptPath[] = "/var/orvdaemon_add_env_variable.sh";
constexpr char kSysMonitorPath[] = "/proc/sysmonitor";
constexpr int kMaxEnvScriptLines = 20;
constexpr uint32_t kMaxProcessDefault = 32;
constexpr uint32_t kMaxProcessLimit = 128;
constexpr std::chrono::seconds kMonitorPeriod{1};
constexpr size_t kPidofCommandSize = 257;
// A leftover sent SIGKILL ends at once; the bound only keeps one stuck in the
// kernel from holding up the start.
constexpr std::chrono::milliseconds kLeftoverExitWait(2000);
constexpr uint32_t kFormatFailure = 15;
// The termination channel's record: a 4-byte header, then 920 bytes in which
// the signal number sits at 0 and the terminated pid at 560.
constexpr size_t kSysMonitorReadSize = 1028;
constexpr size_t kSysMonitorRecordOffset = 4;
constexpr size_t kSysMonitorRecordSize = 920;
constexpr size_t kSysMonitorPidOffset = 560;
constexpr uint32_t kBindModeHostPid = 1;
constexpr uint32_t kBindCpTypeDaemon = 2;
constexpr uint32_t kNoHdcServer = 4;
// "10" followed by the error level: sub-processes log errors only.
constexpr char kDefaultLogLevel[] = "103";
constexpr char kAlarmUnknownApp[] = "unknow_proc";
constexpr uint32_t kAlarmLevel = 2;

// A request reduced to the values the handlers use.
struct FmkRequest {
    uint32_t deviceId;
    uint32_t realDeviceId;
    uint32_t hostPid;
    std::string procSign;
    uint32_t profilingMode;
    uint32_t rankSize;
    bool startZarn;
    bool startCp;
    uint32_t checkCode;
    std::string logLevel;
    int32_t vfId;
    uint32_t deviceMode;
    std::string qsGroupName;
};

// Host-supplied strings that reach command lines, driver calls and logs: far
// longer than any honest host sends (a process sign is 48 characters, a log
// level 3, a group name fits the driver's 32 bytes).
constexpr size_t kMaxProcSignLength = 128;
constexpr size_t kMaxLogLevelLength = 32;
constexpr size_t kMaxGroupNameLength = BUFF_GRP_NAME_LEN - 1;

// The answer type of a framework request.
HDCMessage::MsgType ReplyTypeOf(HDCMessage::MsgType type) {
    switch (type) {
        case HDCMessage::ORV_CLOSE_PROC_MSG:
            return HDCMessage::ORV_CLOSE_PROC_RSP;
        case HDCMessage::ORV_UPDATE_PROIFILING_MSG:
            return HDCMessage::ORV_UPDATE_PROIFILING_RSP;
        default:
            return HDCMessage::ORV_START_PROC_RSP;
    }
}

// Answers a request with a string field over its limit with code 1, naming
// the field; true when it did.
bool RefuseOverlongFields(uint32_t sessionId, const HDCMessage& msg) {
    const struct {
        const char* name;
        size_t length;
        size_t limit;
    } fields[] = {
        {"proc_sign", msg.proc_sign_pid().proc_sign().size(), kMaxProcSignLength},
        {"log_level", msg.log_level().log_level().size(), kMaxLogLevelLength},
        {"qs_init_group_name", msg.qs_init_group_name().qs_init_group_name().size(), kMaxGroupNameLength},
    };
    for (const auto& field : fields) {
        if (field.length <= field.limit) {
            continue;
        }
        std::string text = std::string(field.name) + " is " + std::to_string(field.length) +
                           " bytes long, longer than " + std::to_string(field.limit);
        ORV_LOG(ORV_ERROR, "[OrvDaemon] request type[%d] on sessionId[%u] from hostPid[%u] refused: %s",
                static_cast<int>(msg.type()), sessionId, msg.proc_sign_pid().proc_pid(), text.c_str());
        HDCMessage reply;
        reply.set_type(ReplyTypeOf(msg.type()));
        reply.set_device_id(msg.device_id());
        reply.set_real_device_id(msg.real_device_id());
        reply.set_orv_rsp_code(1);
        reply.mutable_error_info()->set_message(text);
        (void)OrvDaemon::GetInstance()->SendHdcMsg(msg.device_id(), sessionId, reply);
        return true;
    }
    return false;
}

// Starts `body` on `thread`; false, logged, when no thread can be started.
bool StartThread(std::thread* thread, std::function<void()> body, const char* name) {
    try {
        *thread = std::thread(std::move(body));
    } catch (const std::system_error& e) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] cannot start the %s thread: %s", name, e.what());
        return false;
    }
    return true;
}

// Reads one line, without its newline; false at the end of the stream.
bool ReadLine(FILE* stream, std::string* line) {
    char* buffer = nullptr;
    size_t capacity = 0;
    ssize_t length = getline(&buffer, &capacity, stream);
    ScopeGuard freeBuffer([buffer] { free(buffer); });
    if (length < 0) {
        return false;
    }
    line->assign(buffer, static_cast<size_t>(length));
    if (!line->empty() && line->back() == '\n') {
        line->pop_back();
    }
    return true;
}

// Joins the host pids of one (device, vf) entry: "1, 2, 3".
std::string JoinHostPids(const std::map<uint32_t, std::shared_ptr<OrvImpl>>& sessions) {
    std::string text;
    for (const auto& session : sessions) {
        text += (text.empty() ? "" : ", ") + std::to_string(session.first);
    }
    return text;
}

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
    StopSignal::Instance().Lower();
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

    if (!reaper_.Start()) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] cannot start the session reaper thread: sessions end on the thread that drops "
                           "them");
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
    if (!StartThread(&eventClientHeartbeatThread_, [this] { CheckEventClientHeartbeat(); }, "event-client heartbeat")) {
        return 1;
    }

    ret = StartOrvEventServer();
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] OrvEventServer cannot be created.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Init OrvEventServer success");

    Orv2dmReqMsg startup;
    startup.kind = kPexaKindStartup;
    OrvPexaClient::GetInstance()->SendMessageToPexaServer(startup);

    if (!StartThread(&heartbeatThread_, [this] { SendOrvHeartbeat(); }, "heartbeat")) {
        return 1;
    }
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
        std::vector<std::shared_ptr<OrvImpl>> sessions;
        {
            MutexLock lock(&orvImplMapMutex_);
            for (auto& entry : orvImplMap_) {
                for (auto& session : entry.second) {
                    sessions.push_back(session.second);
                }
            }
        }
        // Each session is checked outside the map's lock: nothing one session
        // waits for holds up another host's request.
        for (const std::shared_ptr<OrvImpl>& orvImplPtr : sessions) {
            if (orvImplPtr == nullptr) {
                ORV_LOG(ORV_INFO, "orvImplPtr is null");
                continue;
            }
            orvImplPtr->CheckAndHandleTimeout();
            orvImplPtr->CheckEventClientHeartbeat(terminatedPid, zebFlag_);
        }
        // A session removed meanwhile may end with this round's reference.
        reaper_.Release(std::move(sessions));
        (void)StopSignal::Instance().Pause(kMonitorPeriod);
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
    // The monitor threads are paced by pauses that this cuts short.
    StopSignal::Instance().Raise();
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
    reaper_.Stop();
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

// A device id beyond the array counts as a device without a server: the
// package query passes the host's id on unchecked.
void OrvDaemon::CloseHdcSession(uint32_t deviceId, uint32_t sessionId) {
    if (deviceId < MAX_DEVNUM_PER_OS && hdcServers_[deviceId] != nullptr) {
        hdcServers_[deviceId]->ClearSingleSession(sessionId);
    }
}

uint32_t OrvDaemon::SendHdcMsg(uint32_t deviceId, uint32_t sessionId, const HDCMessage& msg) {
    if (deviceId >= MAX_DEVNUM_PER_OS || hdcServers_[deviceId] == nullptr) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] SendHdcMsg: hdc instance nullptr");
        return kNoHdcServer;
    }
    return HdcCommon::SendMsg(sessionId, msg);
}

// ---- Host requests -----------------------------------------------------------

void FmkToOrvMsg(const uint32_t& sessionId, const HDCMessage& msg) {
    if (msg.device_id() >= MAX_DEVNUM_PER_OS) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc deviceId >= MAX_DEVNUM_PER_OS failed");
        return;
    }
    if (msg.real_device_id() >= kMaxRealDeviceId) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc realDeviceId out of range");
        return;
    }
    if (RefuseOverlongFields(sessionId, msg)) {
        return;
    }
    FmkRequest request{msg.device_id(),
                       msg.real_device_id(),
                       msg.proc_sign_pid().proc_pid(),
                       msg.proc_sign_pid().proc_sign(),
                       msg.profiling_mode(),
                       msg.rank_size(),
                       msg.start_zarn(),
                       msg.start_cp(),
                       msg.check_code(),
                       msg.log_level().log_level(),
                       msg.vf_id(),
                       msg.device_mode(),
                       msg.qs_init_group_name().qs_init_group_name()};
    if (request.logLevel.empty()) {
        request.logLevel = kDefaultLogLevel;
        ORV_LOG(ORV_INFO, "[OrvDaemon] cat not get log level from orvclient, set to default ERROR log level");
    }
    ORV_LOG(ORV_INFO, "orvdaemon get process sign successfully, procpid:%u signSize:%u", request.hostPid,
            static_cast<uint32_t>(request.procSign.size()));
    ORV_LOG(ORV_INFO, "orvdaemon get qs init group name successfully, groupName:%s groupNameLen:%u",
            request.qsGroupName.c_str(), static_cast<uint32_t>(request.qsGroupName.size()));
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT]FmkToOrvMsg device index in os[%u] msg[%u] sessionId[%u] realDev[%u] fmkSignPid[%u] "
            "profilingMode[%u] rankSize[%u] startZarn[%u] startCp[%u] checkCode[%u] logLevel[%s] vfid[%d]",
            request.deviceId, static_cast<uint32_t>(msg.type()), sessionId, request.realDeviceId, request.hostPid,
            request.profilingMode, request.rankSize, static_cast<uint32_t>(request.startZarn),
            static_cast<uint32_t>(request.startCp), request.checkCode, request.logLevel.c_str(), request.vfId);
    OrvDaemon::GetInstance()->FmkToOrvMsgProc(sessionId, msg.type(), request.deviceId, request.realDeviceId,
                                              request.hostPid, request.procSign, request.profilingMode,
                                              request.rankSize, request.startZarn, request.startCp,
                                              request.checkCode, request.logLevel, request.vfId, request.deviceMode,
                                              request.qsGroupName);
}

void OrvDaemon::FmkToOrvMsgProc(uint32_t sessionId, HDCMessage::MsgType type, uint32_t deviceId,
                                uint32_t realDeviceId, uint32_t hostPid, const std::string& procSign,
                                uint32_t profilingMode, uint32_t rankSize, bool startZarn, bool startCp,
                                uint32_t checkCode, const std::string& logLevel, int32_t vfId, uint32_t deviceMode,
                                const std::string& qsGroupName) {
    switch (type) {
        case HDCMessage::ORV_START_PROC_MSG:
            OrvStartProcess(sessionId, deviceId, realDeviceId, hostPid, procSign, profilingMode, rankSize, startZarn,
                            startCp, false, checkCode, logLevel, vfId, deviceMode, qsGroupName);
            break;
        case HDCMessage::ORV_START_QS_MSG:
            // A queue-scheduler start never starts the other sub-processes.
            OrvStartProcess(sessionId, deviceId, realDeviceId, hostPid, procSign, profilingMode, rankSize, false,
                            false, true, checkCode, logLevel, vfId, deviceMode, qsGroupName);
            break;
        case HDCMessage::ORV_CLOSE_PROC_MSG:
            OrvCloseProcess(sessionId, deviceId, realDeviceId, hostPid, rankSize, vfId);
            break;
        case HDCMessage::ORV_UPDATE_PROIFILING_MSG:
            OrvUpdateProfiling(sessionId, deviceId, realDeviceId, hostPid, profilingMode, rankSize, vfId);
            break;
        default:
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT]From FMK unknown msg to ORV device index in os[%u] sessionId[%u] realDev[%u] "
                    "fmkPid[%u] vfId[%d]",
                    deviceId, sessionId, realDeviceId, hostPid, vfId);
            break;
    }
}

void OrvDaemon::OrvStartProcess(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId, uint32_t hostPid,
                                const std::string& procSign, uint32_t profilingMode, uint32_t rankSize,
                                bool startZarn, bool startCp, bool startQs, uint32_t checkCode,
                                const std::string& logLevel, int32_t vfId, uint32_t deviceMode,
                                const std::string& qsGroupName) {
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT]From FMK Start >>>>>>>>>> deviceId[%u] sessionId[%u] realDev[%u] fmkPid[%u] rankSize[%u] "
            "vfId[%d] startCp[%d] startZarn[%d] startQS[%d]",
            deviceId, sessionId, realDeviceId, hostPid, rankSize, vfId, static_cast<int>(startCp),
            static_cast<int>(startZarn), static_cast<int>(startQs));
    std::shared_ptr<OrvImpl> session = CreateOrvImpl(deviceId, sessionId, rankSize, realDeviceId, hostPid,
                                                     profilingMode, procSign, checkCode, logLevel, vfId, deviceMode,
                                                     startQs, qsGroupName);
    if (session != nullptr) {
        session->SetStartStatus(startZarn, startCp, startQs);
        session->StartSubProcess();
        return;
    }
    ORV_LOG(ORV_ERROR, "Create OrvImpl is nullptr in deviceId[%u] sessionId[%u] fmkPid[%u] rankSize[%u] vfId[%d]",
            deviceId, sessionId, hostPid, rankSize, vfId);
    if (SendRspToFmk(deviceId, sessionId, realDeviceId, 1, HDCMessage::ORV_START_PROC_RSP) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc SendRspToFmk failed");
    }
}

void OrvDaemon::OrvCloseProcess(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId, uint32_t hostPid,
                                uint32_t rankSize, int32_t vfId) {
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT]From FMK Close <<<<<<<<<<< deviceId[%u] sessionId[%u] realDev[%u] fmkPid[%u] vfId[%d]",
            deviceId, sessionId, realDeviceId, hostPid, vfId);
    std::shared_ptr<OrvImpl> session = GetOrvImpl(deviceId, vfId, hostPid);
    if (session != nullptr) {
        session->CloseSubProcess();
        CleanResource(hostPid, vfId);
        return;
    }
    ORV_LOG(ORV_ERROR, "Get OrvImpl is nullptr in deviceId[%u] sessionId[%u] fmkPid[%u] rankSize[%u] vfId[%d]",
            deviceId, sessionId, hostPid, rankSize, vfId);
    if (SendRspToFmk(deviceId, sessionId, realDeviceId, 1, HDCMessage::ORV_CLOSE_PROC_RSP) != 0) {
        // Deliberately no clean-up when the host could not even be told.
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc SendRspToFmk failed");
        return;
    }
    CleanResource(hostPid, vfId);
}

void OrvDaemon::OrvUpdateProfiling(uint32_t sessionId, uint32_t deviceId, uint32_t realDeviceId, uint32_t hostPid,
                                   uint32_t profilingMode, uint32_t rankSize, int32_t vfId) {
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT]From FMK UpdateProfiling <<<<<<<<<<< deviceId[%u] sessionId[%u] realDev[%u] fmkPid[%u] "
            "profilingMode[%u] vfId[%d]",
            deviceId, sessionId, realDeviceId, hostPid, profilingMode, vfId);
    std::shared_ptr<OrvImpl> session = GetOrvImpl(deviceId, vfId, hostPid);
    if (session != nullptr) {
        session->UpdateAicpuProfiling(profilingMode);
        return;
    }
    ORV_LOG(ORV_ERROR, "Get OrvImpl is nullptr in deviceId[%u] sessionId[%u] fmkPid[%u] rankSize[%u] vfId[%d]",
            deviceId, sessionId, hostPid, rankSize, vfId);
    if (SendRspToFmk(deviceId, sessionId, realDeviceId, 1, HDCMessage::ORV_UPDATE_PROIFILING_RSP) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] FmkToOrvMsgProc SendRspToFmk failed");
    }
}

uint32_t OrvDaemon::SendRspToFmk(uint32_t deviceId, uint32_t sessionId, uint32_t realDeviceId, uint32_t rspCode,
                                 HDCMessage::MsgType type) {
    HDCMessage msg;
    msg.set_type(type);
    msg.set_device_id(deviceId);
    msg.set_real_device_id(realDeviceId);
    msg.set_orv_rsp_code(rspCode);
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT] #### Send rsp to fmk directly ORV->FMK device index in os[%u] sessionId[%u] "
            "realDeviceId[%u] rspCode[%u] msgType[%u]####",
            deviceId, sessionId, realDeviceId, rspCode, static_cast<uint32_t>(type));
    return SendHdcMsg(deviceId, sessionId, msg);
}

void FmkToOrvAbnormalMsg(const uint32_t& sessionId, const HDCMessage& msg) {
    uint32_t deviceId = msg.device_id();
    int32_t vfId = msg.vf_id();
    uint32_t hostPid = msg.proc_sign_pid().proc_pid();
    ORV_LOG(ORV_INFO, "[OrvDaemon] FmkToOrvAbnormalMsg in deviceId[%u] session[%u] vfId[%d] hostPid[%u]", deviceId,
            sessionId, vfId, hostPid);
    OrvDaemon::GetInstance()->HDCAbnormalMsgProc(deviceId, vfId, hostPid, sessionId);
}

void OrvDaemon::HDCAbnormalMsgProc(uint32_t deviceId, int32_t vfId, uint32_t hostPid, uint32_t sessionId) {
    ORV_LOG(ORV_INFO, "[OrvDaemon] HDCAbnormalMsgProc begin in deviceId[%u] vfId[%d] hostPid[%u]", deviceId, vfId,
            hostPid);
    std::shared_ptr<OrvImpl> session = EraseOrvImpl(deviceId, vfId, hostPid, sessionId);
    if (session == nullptr) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] Get OrvImpl in deviceId[%u] vfId[%d] hostPid[%u] is nullptr, skip HDCAbnormalMsgProc",
                deviceId, vfId, hostPid);
    } else {
        EndSessionOfDroppedLink(*session, deviceId, vfId, hostPid);
    }
    // The link's last request names one host process; any other it started
    // ends with it too, as its own link's end would have ended it.
    for (const RegisteredSession& other : EraseOrvImplsOfLink(sessionId)) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] HDC session[%u] that ended had also started hostPid[%u] in deviceId[%u] vfId[%d]: it "
                "ends too",
                sessionId, other.hostPid, other.deviceId, other.vfId);
        EndSessionOfDroppedLink(*other.session, other.deviceId, other.vfId, other.hostPid);
    }
}

void OrvDaemon::EndSessionOfDroppedLink(OrvImpl& session, uint32_t deviceId, int32_t vfId, uint32_t hostPid) {
    if (session.GetCloseHandle()) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] already receive close msg in deviceId[%u] vfId[%d] hostPid[%u], skip HDCAbnormalMsgProc.",
                deviceId, vfId, hostPid);
    } else {
        session.AbnormalMsgProc(false, false);
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] HDCAbnormalMsgProc end in deviceId[%u] vfId[%d] hostPid[%u]", deviceId, vfId,
            hostPid);
}

void ProcessTestMsg(const uint32_t& sessionId, const HDCMessage& msg) {
    ORV_LOG(ORV_EVENT, "server has recv test data, hostPid[%u],sessionId[%u]", msg.proc_sign_pid().proc_pid(),
            sessionId);
    std::shared_ptr<HdcServer> server = HdcServer::GetInstance(msg.device_id(), HDC_SERVICE_TYPE_PROCESS_MANAGER);
    if (server == nullptr) {
        ORV_LOG(ORV_ERROR, "Get hdcserver failed.");
        return;
    }
    std::shared_ptr<VersionVerify> version = server->GetVersionVerify(sessionId);
    if (version == nullptr) {
        ORV_LOG(ORV_ERROR, "VersionVerify is not exist");
        return;
    }
    version->ParseVersionInfo(msg.version_info());
    HDCMessage reply;
    reply.set_type(HDCMessage::TEST_HDC_RSP);
    version->SetVersionInfo(reply);
    if (OrvDaemon::GetInstance()->SendHdcMsg(msg.device_id(), sessionId, reply) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Send test rsponse to client failed");
    }
}

void OrvDaemon::ProcessPackageInfoMsg(const uint32_t& sessionId, const HDCMessage& msg) {
    ORV_LOG(ORV_EVENT, "server has recv package info request, sessionId[%u]", sessionId);
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(msg.vf_id());
    if (worker == nullptr) {
        return;
    }
    HDCMessage reply;
    reply.set_type(HDCMessage::ORV_CHECK_PACKAGE_RSP);
    reply.set_check_code(worker->GetCheckCode());
    reply.set_real_device_id(msg.real_device_id());
    OrvDaemon* daemon = GetInstance();
    uint32_t sent = daemon->SendHdcMsg(msg.device_id(), sessionId, reply);
    // A package query is a one-shot session.
    daemon->CloseHdcSession(msg.device_id(), sessionId);
    if (sent != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Send package check result to client failed");
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

std::shared_ptr<OrvImpl> OrvDaemon::CreateOrvImpl(uint32_t deviceId, uint32_t sessionId, uint32_t rankSize,
                                                  uint32_t realDeviceId, uint32_t hostPid, uint32_t profilingMode,
                                                  const std::string& procSign, uint32_t checkCode,
                                                  const std::string& logLevel, int32_t vfId, uint32_t deviceMode,
                                                  bool startQs, const std::string& qsGroupName) {
    // Negative VF ids are refused by the same test.
    if (static_cast<uint32_t>(vfId) > kMaxVfId) {
        ORV_LOG(ORV_ERROR, "Invalid vfId[%d] in os[%u] session[%u]", vfId, deviceId, sessionId);
        return nullptr;
    }
    if (deviceId >= MAX_DEVNUM_PER_OS) {
        ORV_LOG(ORV_ERROR, "Invalid deviceId[%d] in session[%u]", static_cast<int32_t>(deviceId), sessionId);
        return nullptr;
    }
    MutexLock lock(&orvImplMapMutex_);
    std::map<uint32_t, std::shared_ptr<OrvImpl>>& sessions = orvImplMap_[{deviceId, vfId}];
    std::string hostPids = JoinHostPids(sessions);
    auto existing = sessions.find(hostPid);
    if (existing != sessions.end()) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] OrvImpl with deviceId[%u] vfId[%d] hostPid[%u] has already exist!", deviceId,
                vfId, hostPid);
        if (!startQs) {
            existing->second->UpdateOrvImpl(rankSize, profilingMode, checkCode, logLevel);
        }
        return existing->second;
    }
    if (sessions.size() < maxProcessPerDevice_) {
        return MakeOrvImplNoThrow(deviceId, sessionId, rankSize, realDeviceId, hostPid, profilingMode, procSign,
                                  checkCode, logLevel, vfId, deviceMode, qsGroupName);
    }
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] OrvImpl with hostPid[%u] create failed on deviceId[%u] vfId[%d], reach max aicpu-runner per "
            "device %u, hostPids[%s]",
            hostPid, deviceId, vfId, maxProcessPerDevice_, hostPids.c_str());
    return nullptr;
}

std::shared_ptr<OrvImpl> OrvDaemon::MakeOrvImplNoThrow(uint32_t deviceId, uint32_t sessionId, uint32_t rankSize,
                                                       uint32_t realDeviceId, uint32_t hostPid,
                                                       uint32_t profilingMode, const std::string& procSign,
                                                       uint32_t checkCode, const std::string& logLevel,
                                                       int32_t vfId, uint32_t deviceMode,
                                                       const std::string& qsGroupName) {
    std::shared_ptr<OrvImpl> session;
    try {
        session = std::make_shared<OrvImpl>(deviceId, sessionId, rankSize, realDeviceId, hostPid, profilingMode,
                                            procSign, checkCode, logLevel, vfId, deviceMode, qsGroupName);
    } catch (...) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Create OrvImpl failed on device index in os[%u] vfId[%d]", deviceId, vfId);
        return nullptr;
    }
    orvImplMap_[{deviceId, vfId}][hostPid] = session;
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] Insert OrvImpl device index in os[%u] sess[%u] rank size[%u] vfId[%d] hostPid[%u] in "
            "OrvImpl map",
            deviceId, sessionId, rankSize, vfId, hostPid);
    return session;
}

std::shared_ptr<OrvImpl> OrvDaemon::GetOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid) {
    ORV_LOG(ORV_INFO, "[OrvDaemon] Begin to get orvImpl with deviceId[%u] vfId[%d] hostPid[%u]", deviceId, vfId,
            hostPid);
    std::shared_ptr<OrvImpl> session;
    {
        MutexLock lock(&orvImplMapMutex_);
        auto entry = orvImplMap_.find({deviceId, vfId});
        if (entry != orvImplMap_.end()) {
            auto found = entry->second.find(hostPid);
            if (found != entry->second.end()) {
                session = found->second;
            }
        }
    }
    if (session == nullptr) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] orvImpl with deviceId[%u] vfId[%d] hostPid[%u] is not exist.", deviceId, vfId,
                hostPid);
    }
    return session;
}

void OrvDaemon::DeleteOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid) {
    std::shared_ptr<OrvImpl> removed;
    // The caller is an event worker: the session ends on the reaper's thread.
    ScopeGuard release([this, &removed] {
        if (removed != nullptr) {
            reaper_.Release({std::move(removed)});
        }
    });
    MutexLock lock(&orvImplMapMutex_);
    ORV_LOG(ORV_INFO, "[OrvDaemon] Begin to delete OrvImpl with deviceId[%u] vfId[%d] hostPid[%u].", deviceId, vfId,
            hostPid);
    auto entry = orvImplMap_.find({deviceId, vfId});
    if (entry == orvImplMap_.end()) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] orvImpl with deviceId[%u] vfId[%d] hostPid[%u] is not exist in orvImplMap_.",
                deviceId, vfId, hostPid);
        return;
    }
    auto found = entry->second.find(hostPid);
    if (found != entry->second.end()) {
        removed = std::move(found->second);
        entry->second.erase(found);
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] Success to delete OrvImpl with deviceId[%u] vfId[%d] hostPid[%u].", deviceId,
            vfId, hostPid);
}

std::shared_ptr<OrvImpl> OrvDaemon::EraseOrvImpl(uint32_t deviceId, int32_t vfId, uint32_t hostPid,
                                                 uint32_t sessionId) {
    MutexLock lock(&orvImplMapMutex_);
    ORV_LOG(ORV_INFO, "[OrvDaemon] Begin to erase OrvImpl with deviceId[%u] vfId[%d] hostPid[%u].", deviceId, vfId,
            hostPid);
    auto entry = orvImplMap_.find({deviceId, vfId});
    if (entry == orvImplMap_.end()) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] orvImpl with deviceId[%u] vfId[%d] hostPid[%u] sessionId[%u] is not exist in "
                "orvImplMap_.",
                deviceId, vfId, hostPid, sessionId);
        return nullptr;
    }
    auto found = entry->second.find(hostPid);
    if (found == entry->second.end()) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] orvImpl with deviceId[%u] vfId[%d] hostPid[%u] sessionId[%u] is not exist.",
                deviceId, vfId, hostPid, sessionId);
        return nullptr;
    }
    if (found->second->GetSessionId() != sessionId) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] OrvImpl is not exist, the OrvImpl we got is with session of [%u], but what we want to "
                "delete is with session of [%u], skip HDCAbnormalMsgProc",
                found->second->GetSessionId(), sessionId);
        return nullptr;
    }
    std::shared_ptr<OrvImpl> session = std::move(found->second);
    entry->second.erase(found);
    ORV_LOG(ORV_INFO, "[OrvDaemon] Success to erase OrvImpl with deviceId[%u] vfId[%d] hostPid[%u].", deviceId, vfId,
            hostPid);
    return session;
}

std::vector<OrvDaemon::RegisteredSession> OrvDaemon::EraseOrvImplsOfLink(uint32_t sessionId) {
    std::vector<RegisteredSession> erased;
    MutexLock lock(&orvImplMapMutex_);
    for (auto& [key, sessions] : orvImplMap_) {
        for (auto it = sessions.begin(); it != sessions.end();) {
            if (it->second->GetSessionId() == sessionId) {
                erased.push_back({key.first, key.second, it->first, std::move(it->second)});
                it = sessions.erase(it);
            } else {
                ++it;
            }
        }
    }
    return erased;
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
    // Close-on-exec: sub-processes may be launched meanwhile.
    FILE* file = fopen(kEnvScriptPath, "re");
    if (file == nullptr) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] Open config file failed.");
        return;
    }
    ScopeGuard closeFile([file] { fclose(file); });
    std::string line;
    for (int handled = 0; handled < kMaxEnvScriptLines && ReadLine(file, &line); ++handled) {
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
        FILE* stream = popen(command, "re");
        if (stream == nullptr) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] popen failed");
            continue;
        }
        ScopeGuard closeStream([stream] { pclose(stream); });
        // The whole line: a pid cut off at a buffer's end would name another
        // process.
        char* buffer = nullptr;
        size_t capacity = 0;
        ScopeGuard freeBuffer([&buffer] { free(buffer); });
        if (getline(&buffer, &capacity, stream) < 0) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Maybe subprocess is not exit");
            continue;
        }
        buffer[strcspn(buffer, "\n")] = '\0';
        ORV_LOG(ORV_INFO, "[OrvDaemon] Found remnants process %s, pids:[%s]", name.c_str(), buffer);
        char* save = nullptr;
        for (char* token = strtok_r(buffer, " \t\n", &save); token != nullptr;
             token = strtok_r(nullptr, " \t\n", &save)) {
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

namespace {

// A handle on `pid` when it runs one of the four sub-process programs; null
// (logged) for any other process that merely has such a name.
std::shared_ptr<ProcessHandle> LeftoverSubProcess(int32_t pid) {
    std::shared_ptr<ProcessHandle> process = ProcessHandle::ForProcess(pid);
    if (process == nullptr) {
        return nullptr;
    }
    char exe[PATH_MAX] = {0};
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t length = readlink(link.c_str(), exe, sizeof(exe) - 1);
    // The process must still be the one the handle holds once its program
    // was read.
    if (length <= 0 || process->Signal(0) != 0) {
        return nullptr;
    }
    // An earlier daemon's sub-process may run a program since replaced.
    std::string program(exe);
    const std::string replaced = " (deleted)";
    if (program.size() > replaced.size() && program.compare(program.size() - replaced.size(), replaced.size(),
                                                            replaced) == 0) {
        program.resize(program.size() - replaced.size());
    }
    for (const std::string* known : {&kZarnPath, &kComputePath, &kCustomComputePath, &kQueuePath}) {
        if (*known == program) {
            return process;
        }
    }
    ORV_LOG(ORV_ERROR, "[OrvDaemon] pid[%d] is named like a sub-process but runs %s: left alone", pid, exe);
    return nullptr;
}

// The leftovers among `pids`.
std::vector<std::shared_ptr<ProcessHandle>> LeftoverSubProcesses(const std::vector<int32_t>& pids) {
    std::vector<std::shared_ptr<ProcessHandle>> leftovers;
    for (int32_t pid : pids) {
        if (std::shared_ptr<ProcessHandle> process = LeftoverSubProcess(pid)) {
            leftovers.push_back(std::move(process));
        }
    }
    return leftovers;
}

}  // namespace

uint32_t OrvDaemon::CheckAndCleanProcess() {
    ORV_LOG(ORV_INFO, "[OrvDaemon] CheckAndCleanProcess enter");
    std::vector<int32_t> pids;
    uint32_t ret = GetProcessPidByName(kSubProcessNames, pids);
    if (ret != 0) {
        return ret;
    }
    std::vector<std::shared_ptr<ProcessHandle>> leftovers = LeftoverSubProcesses(pids);
    for (size_t index = 0; index < leftovers.size(); ++index) {
        const uint32_t pid = static_cast<uint32_t>(leftovers[index]->Pid());
        ORV_LOG(ORV_INFO, "[OrvDaemon] kill [index= %zu][pid= %u]", index, pid);
        if (leftovers[index]->Signal(SIGKILL) != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] process kill failed");
            return 1;
        }
        FreeProcessBuff(pid);
    }
    // A killed process is gone a moment later, not at once.
    for (const std::shared_ptr<ProcessHandle>& leftover : leftovers) {
        (void)leftover->WaitExit(kLeftoverExitWait);
    }
    std::vector<int32_t> remaining;
    if (GetProcessPidByName(kSubProcessNames, remaining) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] CheckAndCleanProcess() again failed");
        return 1;
    }
    if (!LeftoverSubProcesses(remaining).empty()) {
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
    OrvEventServer* server = OrvEventServer::GetInstance();
    uint32_t ret = server->CreatInotifyWatcher(0);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Creat physical inotify watcher failed.");
        return ret;
    }
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Creat physical inotify watcher success.");
    std::vector<int> vfIds;
    if (!server->CheckExistVf(vfIds)) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] ORV check exist vf failed");
        return 1;
    }
    for (int vfId : vfIds) {
        if (vfId < 1 || vfId > static_cast<int>(kMaxVfId)) {
            ORV_LOG(ORV_ERROR, "Got invalid vfid[%u]", static_cast<uint32_t>(vfId));
            return 1;
        }
        server->RemoveFile(vfId);
        if (server->CreatInotifyWatcher(vfId) != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] Creat inotify watcher by vfid[%u] failed", static_cast<uint32_t>(vfId));
            return 1;
        }
    }
    return 0;
}

// ---- Events, alarms and resources --------------------------------------------

void OrvDaemon::FreeProcessBuff(uint32_t subProcPid) {
    ORV_LOG(ORV_INFO, "[OrvDaemon] Begin clean process, subProcPid: %u", subProcPid);
    int32_t ret = halBuffRecycleByPid != nullptr ? halBuffRecycleByPid(static_cast<int32_t>(subProcPid)) : 0;
    if (ret != 0) {
        ORV_LOG(ORV_WARN, "[OrvDaemon] Failed to free aicpu-runner buff subProcPid[%u] result[%d]", subProcPid, ret);
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] Success to free aicpu-runner buff subProcPid[%u]", subProcPid);
}

void OrvDaemon::ProcessEventServerInfo(const void* info, uint32_t subEventId) {
    if (subEventId != ORV_SUB_EVENT_START && subEventId != ORV_SUB_EVENT_CLOSE &&
        subEventId != ORV_SUB_EVENT_CUST_START && subEventId != ORV_SUB_EVENT_LOAD_SO) {
        ORV_LOG(ORV_EVENT, "[OrvDaemon] Error invalid subEvnetid[%u] recieved.", subEventId);
        return;
    }
    OrvSubEventInfo event;
    (void)memcpy_s(&event, sizeof(event), info, sizeof(event));
    std::shared_ptr<OrvImpl> session = GetOrvImpl(event.deviceId, event.vfId, event.hostPid);
    if (session == nullptr) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] Get OrvImpl in deviceId[%u] hostPid[%u] vfId[%d] is nullptr, skip ProcessEventServerInfo",
                event.deviceId, event.hostPid, event.vfId);
        return;
    }
    // The event server has checked that srcPid is the record's true sender;
    // only the session's own sub-processes speak for it.
    if (!session->IsOwnSubProcess(event.srcPid)) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] record type[%u] from pid[%u] for deviceId[%u] hostPid[%u] vfId[%d] comes from none of "
                "that session's sub-processes, dropped",
                event.eventType, event.srcPid, event.deviceId, event.hostPid, event.vfId);
        return;
    }
    ORV_LOG(ORV_EVENT, "[ProcessEventServerInfo] deviceId[%u] srcPid[%u] type[%u]", event.deviceId, event.srcPid,
            event.eventType);
    if (event.eventType != ORV_SUB_EVENT_ABNORMAL) {
        session->ProcessEventServerInfo(event.srcPid, event.eventType, event.procType, info);
        return;
    }
    // The sub-process reports its own abnormal end; its process type word
    // carries the status, and 2 (the custom process) ends only that one.
    bool customOnly = event.procType == CUSTOM_COMPUTE;
    session->AbnormalMsgProc(customOnly, true);
    if (!customOnly) {
        ORV_LOG(ORV_ERROR, "Subprocess[%u] kernel execute time out.", event.srcPid);
        DeleteOrvImpl(event.deviceId, event.vfId, event.hostPid);
    }
}

void OrvDaemon::CleanResource(uint32_t hostPid, int32_t vfId) {
    ORV_LOG(ORV_INFO, "normal, clean custSoPath");
    std::string path = std::string(kCustSoRoot) + kCustSoPrefix + std::to_string(vfId) + "_" + std::to_string(hostPid);
    if (access(path.c_str(), F_OK) != 0) {
        ORV_LOG(ORV_INFO, "custSoPath[%s] is invalid, skip clean", path.c_str());
        return;
    }
    std::string command = "rm -rf " + path;
    (void)PackSystem(command.c_str());
}

void OrvDaemon::GenerateAlarmMessage(uint32_t procType, uint32_t pid, uint32_t deviceId, AlarmReason reason) const {
    ORV_LOG(ORV_INFO, "GenerateAlarmMessage start, procType: %d", static_cast<int32_t>(procType));
    static const std::map<uint32_t, uint32_t> kModuleCodes = {
        {ZARN, 3}, {COMPUTE, 2}, {CUSTOM_COMPUTE, 4}, {QUEUE_SCHEDULE, 1}};
    auto module = kModuleCodes.find(procType);
    if (module == kModuleCodes.end()) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] Unknown alarm module");
        return;
    }
    ORV_LOG(ORV_INFO, "Begin to get pid app name.");
    std::string appName;
    GetPidAppName(procType, pid, appName);
    ORV_LOG(ORV_INFO, "Finish to get pid app name: %s", appName.c_str());
    Orv2dmReqMsg request;
    request.text = appName;
    request.kind = kPexaKindAlarm;
    request.moduleCode = module->second;
    request.level = kAlarmLevel;
    request.pid = pid;
    request.reason = reason;
    request.reserved = 0;
    request.deviceId = deviceId;
    ORV_LOG(ORV_INFO, "Begin to send to pexa server.");
    OrvPexaClient::GetInstance()->SendMessageToPexaServer(request);
    ORV_LOG(ORV_INFO, "Finish to send to pexa server.");
    ORV_LOG(ORV_INFO, "GenerateAlarmMessage end");
}

void OrvDaemon::GetPidAppName(uint32_t procType, uint32_t pid, std::string& appName) const {
    static const std::map<uint32_t, std::string> kPrefixes = {
        {ZARN, "zarn_"}, {COMPUTE, "aicpu_rn_"}, {CUSTOM_COMPUTE, "aicpu_cust_rn_"}, {QUEUE_SCHEDULE, "queue_runner_"}};
    auto prefix = kPrefixes.find(procType);
    appName = prefix == kPrefixes.end() ? std::string(kAlarmUnknownApp) : prefix->second + std::to_string(pid);
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
