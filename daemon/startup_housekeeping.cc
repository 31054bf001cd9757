// The steps of OrvDaemon::Start that prepare the process and the card: the
// environment, leftovers of an earlier daemon, CPU binding, the driver
// identity, the HDC servers, the package watchers and the termination channel.
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

#include <bounds_checked.h>
#include <driver_hal.h>
#include <slog.h>

#include "event/orv_event_server.h"
#include "message/message_parse_interface.h"
#include "package/internal_api.h"
#include "platform/bounded_lines.h"
#include "platform/log.h"
#include "platform/orv_codes.h"
#include "platform/orv_limits.h"
#include "platform/scope_guard.h"
#include "session/process_handle.h"
#include "session/process_util.h"

namespace orv {

namespace {

constexpr char kEnvScriptPath[] = "/var/orvdaemon_add_env_variable.sh";
constexpr char kSysMonitorPath[] = "/proc/sysmonitor";
constexpr size_t kPidofCommandSize = 257;
// A leftover sent SIGKILL ends at once; the bound only keeps one stuck in the
// kernel from holding up the start.
constexpr std::chrono::milliseconds kLeftoverExitWait(2000);
// The termination channel's record: a 4-byte header, then 920 bytes in which
// the signal number sits at 0 and the terminated pid at 560.
constexpr size_t kSysMonitorReadSize = 1028;
constexpr size_t kSysMonitorRecordOffset = 4;
constexpr size_t kSysMonitorRecordSize = 920;
constexpr size_t kSysMonitorPidOffset = 560;
constexpr uint32_t kBindModeHostPid = 1;
constexpr uint32_t kBindCpTypeDaemon = 2;

// The environment script: its first 20 lines, each of a bounded length.
constexpr LineBounds kEnvScriptBounds{limits::kMaxEnvScriptLineBytes,
                                      static_cast<size_t>(limits::kMaxEnvScriptLines)};
// pidof prints its pids on one line.
constexpr LineBounds kPidofBounds{limits::kMaxCommandOutputBytes, 1};

}  // namespace

void OrvDaemon::LoadFileAndSetEnv() const {
    ORV_LOG(ORV_INFO, "[OrvDaemon] load file and set env.");
    // Close-on-exec: sub-processes may be launched meanwhile.
    FILE* file = fopen(kEnvScriptPath, "re");
    if (file == nullptr) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] Open config file failed.");
        return;
    }
    ScopeGuard closeFile([file] { fclose(file); });
    (void)ForEachBoundedLine(file, kEnvScriptBounds, [](std::string line, bool cut) {
        if (cut) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] Skip a line of %s longer than %zu bytes.",
                    kEnvScriptPath, kEnvScriptBounds.maxLineBytes);
            return true;
        }
        if (line.empty()) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Skip empty line.");
            return true;
        }
        Trim(line);
        if (line.compare(0, 1, "#") == 0 || line.compare(0, 6, "export") != 0) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Skip annotation line %s.", line.c_str());
            return true;
        }
        std::string item = line.substr(6);
        size_t eq = item.find('=');
        if (eq == std::string::npos) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Skip invalid item %s", item.c_str());
            return true;
        }
        std::string name = item.substr(0, eq);
        std::string value = item.substr(eq + 1);
        Trim(name);
        Trim(value);
        ORV_LOG(ORV_INFO, "[OrvDaemon] Set [%s] to [%s].", name.c_str(), value.c_str());
        setenv(name.c_str(), value.c_str(), 1);
        return true;
    });
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

uint32_t OrvDaemon::GetProcessPidByName(const std::vector<std::string>& names,
                                        std::vector<int32_t>& pids) {
    if (names.empty()) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] GetProcessPidByName() num is 0");
        return 0;
    }
    for (const std::string& name : names) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] GetProcessPidByName() processName:%s", name.c_str());
        char command[kPidofCommandSize] = {0};
        if (sprintf_s(command, sizeof(command), "pidof %s", name.c_str()) <= 0) {
            ORV_LOG(ORV_ERROR,
                    "[OrvDaemon] GetProcessPidByName() Failed to format the echo command!");
            return kFormatFailure;
        }
        FILE* stream = popen(command, "re");
        if (stream == nullptr) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] popen failed");
            continue;
        }
        ScopeGuard closeStream([stream] { pclose(stream); });
        std::string line;
        bool cut = false;
        bool got = false;
        (void)ForEachBoundedLine(stream, kPidofBounds, [&](const std::string& first, bool tooLong) {
            line = first;
            cut = tooLong;
            got = true;
            return false;
        });
        if (!got) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Maybe subprocess is not exit");
            continue;
        }
        if (cut) {
            // A pid cut off at the bound would name another process.
            size_t lastWhole = line.find_last_of(" \t");
            line.erase(lastWhole == std::string::npos ? 0 : lastWhole);
            ORV_LOG(ORV_ERROR,
                    "[OrvDaemon] pidof %s printed more than %zu bytes: the pids beyond are not "
                    "taken",
                    name.c_str(), kPidofBounds.maxLineBytes);
        }
        ORV_LOG(ORV_INFO, "[OrvDaemon] Found remnants process %s, pids:[%s]", name.c_str(),
                line.c_str());
        char* save = nullptr;
        for (char* token = strtok_r(line.data(), " \t\n", &save); token != nullptr;
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
    if (program.size() > replaced.size() &&
        program.compare(program.size() - replaced.size(), replaced.size(), replaced) == 0) {
        program.resize(program.size() - replaced.size());
    }
    for (const std::string* known : {&kZarnPath, &kComputePath, &kCustomComputePath, &kQueuePath}) {
        if (*known == program) {
            return process;
        }
    }
    ORV_LOG(ORV_ERROR, "[OrvDaemon] pid[%d] is named like a sub-process but runs %s: left alone",
            pid, exe);
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
        ORV_LOG(ORV_ERROR, "Read msg in /proc/sysmonitor failed, error: %s",
                SafeStrerror().c_str());
        return 0;
    }
    char record[kSysMonitorRecordSize] = {0};
    errno_t copied =
        memcpy_s(record, sizeof(record), message + kSysMonitorRecordOffset, kSysMonitorRecordSize);
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
            ORV_LOG(ORV_ERROR, "[OrvDaemon] Creat inotify watcher by vfid[%u] failed",
                    static_cast<uint32_t>(vfId));
            return 1;
        }
        server->SetVfExists(vfId, true);
    }
    return 0;
}

void OrvDaemon::NoteExistingVfs() const {
    OrvEventServer* server = OrvEventServer::GetInstance();
    std::vector<int> vfIds;
    if (!server->CheckExistVf(vfIds)) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] ORV check exist vf failed");
        return;
    }
    for (int vfId : vfIds) {
        server->SetVfExists(vfId, true);
    }
}

}  // namespace orv
