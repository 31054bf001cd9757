#include "session/orv_common.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <sstream>
#include <system_error>

#include <bounds_checked.h>
#include <driver_hal.h>
#include <osal.h>

#include "daemon/orv_pexa_client.h"
#include "daemon/orvdaemon.h"
#include "event/orv_event_server.h"
#include "package/internal_api.h"
#include "package/package_worker.h"
#include "platform/log.h"
#include "platform/orv_drv_manager.h"
#include "session/process_util.h"

namespace orv {

const std::string kZarnPath = "/var/zarn_service.bin";
const std::string kComputePath = "/var/aicpu_runner";
const std::string kCustomComputePath = "/var/aicpu_custom_runner";
const std::string kQueuePath = "/var/queue_runner";

namespace {

constexpr char kZarnName[] = "zarn_service.bin";
constexpr char kComputeName[] = "aicpu_runner";
constexpr char kCustomComputeName[] = "aicpu_custom_runner";
constexpr char kQueueName[] = "queue_runner";
constexpr char kKernelsRoot[] = "/usr/lib64/aicpu_kernels/";

constexpr uint32_t kStartTimeoutTicks = 25;
constexpr uint32_t kFpgaStartTimeoutTicks = 2500;
constexpr uint32_t kForkTaskPolls = 30;
constexpr uint32_t kForkTaskPollMs = 200;
constexpr uint32_t kExitPolls = 500;
constexpr std::chrono::milliseconds kExitPollPause(10);
// A process sent SIGKILL ends at once; the bound only keeps a process stuck in
// the kernel from holding up the clean-up for ever.
constexpr std::chrono::milliseconds kKilledExitWait(5000);
constexpr size_t kProcessNameMaxLen = 256;
constexpr uint32_t kInvalidParam = 14;
constexpr int32_t kChipZeb = 2;
constexpr uint32_t kGroupEntrySize = 36;
constexpr uint32_t kGroupEntryMax = 1024;
constexpr uint32_t kGroupQueryProcess = 1;
constexpr uint32_t kProfilingMsgLength = 16;
constexpr uint32_t kSoLoadMsgOffset = 32;
constexpr uint32_t kSoLoadMsgLength = 96;
constexpr uint32_t kProfilingSubEventCompute = 4;
constexpr uint32_t kProfilingSubEventCustom = 12;
constexpr uint32_t kSoLoadSubEvent = 11;

// argv or envp for execve: pointers into `strings`, null-terminated.
std::vector<char*> CStrings(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (const std::string& s : strings) {
        out.push_back(const_cast<char*>(s.c_str()));
    }
    out.push_back(nullptr);
    return out;
}

// Threads of a session that may be at work at once, of each list: far more
// than honest traffic ever needs (a handful of reports and requests).
constexpr size_t kMaxSessionThreads = 64;
// How long the compute process's request waits for the custom process.
constexpr std::chrono::seconds kCustomStartWait(30);

// Joins the finished threads of `threads`, then starts `work` on a new one.
// False, with the reason in `why`, when kMaxSessionThreads are still at work
// or no thread can be started.
bool SpawnSessionThread(std::list<SessionThread>* threads, std::function<void()> work, std::string* why) {
    for (auto it = threads->begin(); it != threads->end();) {
        if (it->done->load()) {
            it->thread.join();
            it = threads->erase(it);
        } else {
            ++it;
        }
    }
    if (threads->size() >= kMaxSessionThreads) {
        *why = std::to_string(threads->size()) + " threads still at work";
        return false;
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    try {
        threads->push_back({std::thread([work = std::move(work), done] {
                                work();
                                done->store(true);
                            }),
                            done});
    } catch (const std::system_error& e) {
        *why = e.what();
        return false;
    }
    return true;
}

std::string ThreadIdText(const std::thread& thread) {
    std::ostringstream text;
    text << thread.get_id();
    return text.str();
}

}  // namespace

OrvImpl::OrvImpl(uint32_t deviceIdInOs, uint32_t sessionId, uint32_t rankSize, uint32_t realDeviceId,
                 uint32_t fmkPid, uint32_t profilingMode, std::string pidSign, uint32_t checkCode,
                 std::string logLevelInPid, int32_t vfId, uint32_t deviceMode, std::string qsGroupName)
    : sessionId_(sessionId),
      deviceIdInOs_(deviceIdInOs),
      rankSize_(rankSize),
      realDeviceId_(realDeviceId),
      fmkPid_(fmkPid),
      profilingMode_(profilingMode),
      pidSign_(std::move(pidSign)),
      checkCode_(checkCode),
      logLevelInPid_(std::move(logLevelInPid)),
      vfId_(vfId),
      deviceMode_(deviceMode),
      qsGroupName_(std::move(qsGroupName)) {}

OrvImpl::~OrvImpl() {
    ORV_LOG(ORV_INFO, "OrvImpl::~OrvImpl() destructor function called");
    Destory();
}

std::string OrvImpl::LogLevel() {
    MutexLock lock(&logLevelMutex_);
    return logLevelInPid_;
}

// ---- Start orchestration and responses --------------------------------------

void OrvImpl::UpdateOrvImpl(uint32_t rankSize, uint32_t profilingMode, uint32_t checkCode,
                            const std::string& logLevelInPid) {
    rankSize_ = rankSize;
    profilingMode_ = profilingMode;
    checkCode_ = checkCode;
    MutexLock lock(&logLevelMutex_);
    logLevelInPid_ = logLevelInPid;
}

void OrvImpl::SetStartStatus(bool startZarn, bool startCp, bool startQs) {
    if (startQs && !startZarn && !startCp) {
        startTick_ = 1;
        startQueue_ = true;
        MutexLock lock(&startStatusMutex_);
        startAnswerPending_ = true;
        return;
    }
    if (!startQs && (startZarn || startCp)) {
        startTick_ = 1;
        startZarn_ = startZarn;
        startCompute_ = startCp;
        if (vfId_ > 0) {
            // The collective-communication service never runs for a VF.
            ORV_LOG(ORV_INFO, "[OrvDaemon] os[%u] sessId[%u] fmkPid[%u] vfid[%d] skip run zarn process", deviceIdInOs_,
                    sessionId_, fmkPid_, vfId_);
            startZarn_ = false;
        }
        if (!IsAllSubProcRunRegular()) {
            MutexLock lock(&startStatusMutex_);
            startAnswerPending_ = true;
            return;
        }
        if (SendRspMsgToFmk(RCV_FMK_START, 0, "") != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] StartRspProc send msg failed");
        }
        return;
    }
    // The second and third values are printed under each other's labels; the
    // order is the log's own.
    ORV_LOG(ORV_ERROR, "[OrvDaemon] set start status input invalid StartQs[%d],StartCp[%d],StartZarn[%d]",
            static_cast<int>(startQs), static_cast<int>(startZarn), static_cast<int>(startCp));
    if (SendRspMsgToFmk(RCV_FMK_START, 1, "") != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] StartRspProc send msg failed");
    }
}

void OrvImpl::StartSubProcess() {
    ORV_LOG(ORV_INFO, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d]", deviceIdInOs_,
            sessionId_, fmkPid_, rankSize_.load(), vfId_);
    std::vector<ProcessConfig> configs;
    SaveProcessConfig(configs);
    for (const ProcessConfig& config : configs) {
        if (access(config.path.c_str(), X_OK) != 0) {
            ORV_LOG(ORV_ERROR,
                    "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] Permission "
                    "denied for the process %s.",
                    deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_, config.name.c_str());
            return;
        }
    }
    for (const ProcessConfig& config : configs) {
        // A worker that cannot start leaves its kind unstarted; the start
        // time-out then tells the host.
        (void)StartForkTask([this, config] { ExecuteStart(config.path, config.name, config.type); },
                            config.name.c_str());
    }
}

bool OrvImpl::StartForkTask(std::function<void()> work, const char* what) {
    std::string why;
    {
        MutexLock lock(&forkTaskMutex_);
        if (SpawnSessionThread(&forkTasks_, std::move(work), &why)) {
            return true;
        }
    }
    ORV_LOG(ORV_ERROR, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] cannot start the worker of %s: %s",
            deviceIdInOs_, sessionId_, fmkPid_, what, why.c_str());
    return false;
}

bool OrvImpl::StartEventThread(std::function<void()> work, const char* what) {
    std::string why;
    {
        MutexLock lock(&eventThreadMutex_);
        if (SpawnSessionThread(&eventThreads_, std::move(work), &why)) {
            return true;
        }
    }
    ORV_LOG(ORV_ERROR, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] %s dropped: %s", deviceIdInOs_,
            sessionId_, fmkPid_, what, why.c_str());
    return false;
}

void OrvImpl::SaveProcessConfig(std::vector<ProcessConfig>& configs) {
    if (startZarn_ && zarnStartedOnce_.fetch_add(1) == 0) {
        configs.push_back({kZarnPath, kZarnName, ZARN});
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] the ZARN will be "
                "start",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
    }
    if (startCompute_ && computeStartedOnce_.fetch_add(1) == 0) {
        // Buffers left by an earlier host process of the same pid go first.
        OrvDaemon::CleanResource(fmkPid_, vfId_);
        ORV_LOG(ORV_INFO, "[OrvDaemon] begin check aicpu package in os[%u] vfId[%d] checkCode[%u].", deviceIdInOs_,
                vfId_, checkCode_.load());
        startStatus_ = START_STATUS_CHECKING_PACKAGE;
        std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(vfId_);
        if (worker == nullptr) {
            return;
        }
        if (worker->CheckSum(checkCode_) != 0) {
            // Nothing further starts; the start time-out tells the host.
            ORV_LOG(ORV_ERROR, "[OrvDaemon] checksum aicpu package failed");
            return;
        }
        ORV_LOG(ORV_INFO, "[OrvDaemon] check aicpu package in os[%u] vfId[%d] checkCode[%u] success", deviceIdInOs_,
                vfId_, checkCode_.load());
        startStatus_ = START_STATUS_PACKAGE_CHECKED;
        configs.push_back({kComputePath, kComputeName, COMPUTE});
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] the CP will be start.",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
    }
    if (startQueue_ && queueStartedOnce_.fetch_add(1) == 0) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] begin construct QS config.");
        configs.push_back({kQueuePath, kQueueName, QUEUE_SCHEDULE});
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] the QS will be start.",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
    }
}

void OrvImpl::ExecuteStart(const std::string& path, const std::string& name, OrvSubProcessType type) {
    const pid_t daemonPid = getpid();
    forkTaskCount_.fetch_add(1);
    struct Done {
        std::atomic<uint32_t>& count;
        ~Done() { count.fetch_sub(1); }
    } done{forkTaskCount_};
    if (GetCloseHandle()) {
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d] ExecuteStart()", deviceIdInOs_,
            sessionId_, fmkPid_, vfId_);
    if (CheckProcessInputParam(path, name) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] ExecuteStart() check processName wrong");
        return;
    }
    std::vector<uint32_t> ctrlCpus;
    OrvDrvManager::GetInstance()->GetCtrlCpus(deviceIdInOs_, ctrlCpus);
    // The child waits before its exec until its pid is recorded: its start
    // report, a close and the clean-up all find it.
    StartGate gate;
    int32_t pid = ForkSubProcess(path, name, type, ctrlCpus, &gate);
    if (pid < 1) {
        // A child whose group grant or affinity restore failed runs on, as it
        // always has; it is tracked like any other, and ends with the session.
        if (gate.Child() > 0 && RecordForkedSubProcess(gate.TakeHandle(), type) && !gate.Release()) {
            SetSubProcPid(-1, type);
        }
        StartFailed(type, pid);
    } else {
        ORV_LOG(ORV_EVENT,
                "[OrvEVENT]#### Start ORV->SubProcess[PROC] Start Msg device index in os[%u] Proc[%s] fmkPid[%u] "
                "vfId[%d] fatherPid[%u] subPid[%u] #### profilingMode is[%d]",
                deviceIdInOs_, name.c_str(), fmkPid_, vfId_, static_cast<uint32_t>(daemonPid),
                static_cast<uint32_t>(pid), static_cast<int32_t>(profilingMode_.load()));
        ORV_LOG(ORV_INFO, "[OrvDaemon] alloc resource {devOS:[%u]} for {device index in os:%u}",
                static_cast<uint32_t>(pid), deviceIdInOs_);
        if (!RecordForkedSubProcess(gate.TakeHandle(), type)) {
            return;
        }
        if (!gate.Release()) {
            // The exec failed and the child has ended: as a failed start.
            SetSubProcPid(-1, type);
            StartFailed(type, -1);
            return;
        }
        std::string procName;
        OrvDaemon::GetInstance()->GetPidAppName(type, static_cast<uint32_t>(pid), procName);
        if (type == QUEUE_SCHEDULE && OrvDaemon::GetInstance()->GetZebFlag()) {
            procName = kQueueName;
        } else if (type == CUSTOM_COMPUTE) {
            procName = "aicpu_rn_" + std::to_string(pid);
        }
        Orv2dmReqMsg record;
        record.text = procName;
        record.kind = kPexaKindProcess;
        record.pid = fmkPid_;
        record.reserved = static_cast<uint32_t>(getgid());
        OrvPexaClient::GetInstance()->SendMessageToPexaServer(record);
        ORV_LOG(ORV_INFO, "[OrvDaemon] get pid[%u], aicpu proc name[%s] ", static_cast<uint32_t>(pid),
                procName.c_str());
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d] ExecuteStart() end",
            deviceIdInOs_, sessionId_, fmkPid_, vfId_);
}

void OrvImpl::StartFailed(OrvSubProcessType type, int32_t pid) {
    OrvDaemon::GetInstance()->GenerateAlarmMessage(type, 0, fmkPid_, ALARM_REASON_FORK_FAILED);
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] ExecuteStart() process num > process max threshold or out of memory [pid=%d],[errno=%d]",
            pid, errno);
    perror("[OrvDaemon] ############### ExecuteStart fork() error: ##################");
}

uint32_t OrvImpl::StartRspProc(uint32_t subPid, uint32_t procType) {
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] StartRspProc() [subProcPid=%u]"
            "[procType=%u(0:ZARN,1:COMPUTE,2:CUSTOM_COMPUTE,3.QUEUE_SCHEDULE)]",
            deviceIdInOs_, sessionId_, fmkPid_, subPid, procType);
    const bool askedFor = procType == ZARN ? startZarn_.load()
                          : procType == COMPUTE ? startCompute_.load()
                          : procType == QUEUE_SCHEDULE ? startQueue_.load()
                                                      : true;
    if (!askedFor) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] start report of subPid[%u] for procType[%u], "
                "which was not asked for, dropped",
                deviceIdInOs_, sessionId_, fmkPid_, subPid, procType);
        return 0;
    }
    switch (procType) {
        case ZARN:
            zarnRunning_ = true;
            break;
        case COMPUTE:
            computeRunning_ = true;
            break;
        case QUEUE_SCHEDULE:
            queueRunning_ = true;
            break;
        case CUSTOM_COMPUTE: {
            // The custom process takes no part in the start response.
            {
                MutexLock lock(&custStartMutex_);
                customComputeRunning_ = true;
            }
            custStartCond_.SignalAll();
            return 0;
        }
        default:
            break;
    }
    if (!IsAllSubProcRunRegular()) {
        return 0;
    }
    uint32_t statusBefore;
    {
        // The answer is decided here and written after: the monitor, which
        // needs this lock, never waits on a host.
        MutexLock lock(&startStatusMutex_);
        if (startStatus_ == START_STATUS_TIMEOUT) {
            ORV_LOG(ORV_INFO,
                    "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] StartRspProc() [subProcPid=%u]"
                    "[procType=%u(0:ZARN,1:COMPUTE,2:CUSTOM_COMPUTE,3.QUEUE_SCHEDULE)], but timeout occurred",
                    deviceIdInOs_, sessionId_, fmkPid_, subPid, procType);
            return 0;
        }
        if (!startAnswerPending_) {
            ORV_LOG(ORV_ERROR,
                    "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] start report of subPid[%u] answers no "
                    "start request, no second answer",
                    deviceIdInOs_, sessionId_, fmkPid_, subPid);
            return 0;
        }
        startAnswerPending_ = false;
        statusBefore = startStatus_.exchange(START_STATUS_ANSWERED);
    }
    uint32_t ret = SendRspMsgToFmk(RCV_FMK_START, 0, "");
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] StartRspProc send msg failed");
        MutexLock lock(&startStatusMutex_);
        startStatus_ = statusBefore;
        startAnswerPending_ = true;
        return ret;
    }
    return 0;
}

uint32_t OrvImpl::CloseRspProc(uint32_t subPid, uint32_t procType) {
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] CloseRspProc() [subPid=%u]"
            "[procType=%u(0:ZARN,1:COMPUTE,2:CUSTOM_COMPUTE,3:QUEUE_SCHEDULE)]",
            deviceIdInOs_, sessionId_, fmkPid_, subPid, procType);
    if (CheckAndWaitSubProcessExit(subPid, procType) != 0) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] CheckAndWaitSubProcessExit() kill "
                "subprocess[%u] by SIGKILL",
                deviceIdInOs_, sessionId_, fmkPid_, subPid);
    }
    SetSubProcPid(-1, procType);
    SetProcessCloseFlag(procType);
    if (IsAllSubProcCloseRegular() && closeRspSent_.fetch_add(1) == 0 &&
        SendRspMsgToFmk(RCV_FMK_CLOSE, 0, "") != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] CloseRspProc send msg failed");
    }
    return 0;
}

uint32_t OrvImpl::SendRspMsgToFmk(RcvFmkFlg flag, uint32_t rspCode, const std::string& errMsg) {
    HDCMessage msg;
    msg.set_device_id(deviceIdInOs_);
    msg.set_real_device_id(realDeviceId_);
    msg.set_orv_rsp_code(rspCode);
    msg.set_rank_size(rankSize_);
    if (!errMsg.empty()) {
        msg.mutable_error_info()->set_message(errMsg);
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d] SendRspMsgToFmk",
            deviceIdInOs_, sessionId_, fmkPid_, vfId_);
    switch (flag) {
        case RCV_FMK_START:
            msg.set_type(HDCMessage::ORV_START_PROC_RSP);
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### Start Rsp ORV->FMK device index in os[%u] sessionID[%u] realDeviceId[%u] "
                    "vfId[%d]####",
                    deviceIdInOs_, sessionId_, realDeviceId_, vfId_);
            break;
        case RCV_FMK_CLOSE:
            msg.set_type(HDCMessage::ORV_CLOSE_PROC_RSP);
            for (std::atomic<bool>* flagOf : {&zarnRunning_, &computeRunning_, &customComputeRunning_,
                                              &queueRunning_, &startZarn_, &startCompute_, &startCustomCompute_,
                                              &startQueue_}) {
                *flagOf = false;
            }
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### Close Rsp ORV->FMK device index in os[%u] sessionID[%u] realDeviceId[%u] "
                    "vfId[%d]####",
                    deviceIdInOs_, sessionId_, realDeviceId_, vfId_);
            break;
        case RCV_FMK_UPDATE_PROFILING:
            msg.set_type(HDCMessage::ORV_UPDATE_PROIFILING_RSP);
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### Update Profiling Rsp ORV->FMK device index in os[%u] sessionID[%u] "
                    "realDeviceId[%u] vfId[%d]####",
                    deviceIdInOs_, sessionId_, realDeviceId_, vfId_);
            break;
        default:
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### Unknown Rsp ORV->FMK device index in os[%u] sessionID[%u] realDeviceId[%u] "
                    "vfId[%d]####",
                    deviceIdInOs_, sessionId_, realDeviceId_, vfId_);
            return 1;
    }
    msg.mutable_error_info()->set_error_log(ORVLog::GetInstance().GetErrorMsg());
    OrvDaemon* daemon = OrvDaemon::GetInstance();
    uint32_t ret = daemon->SendHdcMsg(deviceIdInOs_, sessionId_, msg);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] SendRspMsgToFmk() SendMsg failed");
        return ret;
    }
    if (flag == RCV_FMK_CLOSE) {
        daemon->CloseHdcSession(deviceIdInOs_, sessionId_);
    }
    return 0;
}

void OrvImpl::CheckAndHandleTimeout() {
    MutexLock lock(&startStatusMutex_);
    uint32_t status = startStatus_;
    if (IsAllSubProcRunRegular() || status == START_STATUS_TIMEOUT || status == START_STATUS_ANSWERED) {
        return;
    }
    uint32_t limit = IsZEBPG2FPGAEnv() ? kFpgaStartTimeoutTicks : kStartTimeoutTicks;
    uint32_t tick = startTick_;
    if (tick != 0 && tick >= limit) {
        std::string reason;
        if (status == START_STATUS_CHECKING_PACKAGE) {
            reason = "load aicpu ops package failed";
        } else {
            if (startCompute_ != computeRunning_) {
                reason += " aicpu";
            }
            if (startZarn_ != zarnRunning_) {
                reason += " zarn";
            }
            if (startQueue_ != queueRunning_) {
                reason += " qs";
            }
            reason += " init failed";
        }
        reason += ", device[" + std::to_string(deviceIdInOs_) + "], host pid[" + std::to_string(fmkPid_) + "]";
        startStatus_ = START_STATUS_TIMEOUT;
        startAnswerPending_ = false;
        ORV_LOG(ORV_ERROR, "[OrvDaemon] %s", reason.c_str());
        // The monitor never writes to a host: a host that stopped reading
        // would hold up every session's supervision.
        if (!StartEventThread([this, reason] { SendTimeoutRsp(reason); }, "the start time-out answer")) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] send timeout response to orv client failed");
        }
        return;
    }
    startTick_.fetch_add(1);
}

void OrvImpl::SendTimeoutRsp(const std::string& reason) {
    if (SendRspMsgToFmk(RCV_FMK_START, 1, reason) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] send timeout response to orv client failed");
        return;
    }
    ORV_LOG(ORV_INFO, "send timeout response to orv client success");
}

void OrvImpl::WaitForkTaskDone() {
    for (uint32_t i = 0; i < kForkTaskPolls && forkTaskCount_ != 0; ++i) {
        mmSleep(kForkTaskPollMs);
    }
}

bool OrvImpl::IsAllSubProcRunRegular() const {
    return computeRunning_ == startCompute_ && zarnRunning_ == startZarn_ && queueRunning_ == startQueue_;
}

bool OrvImpl::IsAllSubProcCloseRegular() const {
    return !zarnRunning_ && !computeRunning_ && !customComputeRunning_ && !queueRunning_;
}

void OrvImpl::SetProcessCloseFlag(uint32_t procType) {
    switch (procType) {
        case ZARN:
            zarnRunning_ = false;
            break;
        case COMPUTE:
            computeRunning_ = false;
            break;
        case CUSTOM_COMPUTE:
            customComputeRunning_ = false;
            break;
        case QUEUE_SCHEDULE:
            queueRunning_ = false;
            break;
        default:
            break;
    }
}

int32_t* OrvImpl::SubProcPid(uint32_t procType) {
    switch (procType) {
        case COMPUTE:
            return &computePid_;
        case ZARN:
            return &zarnPid_;
        case CUSTOM_COMPUTE:
            return &customComputePid_;
        case QUEUE_SCHEDULE:
            return &queuePid_;
        default:
            return nullptr;
    }
}

void OrvImpl::SetSubProcPid(int32_t pid, uint32_t procType) {
    MutexLock lock(&pidMutex_);
    if (int32_t* field = SubProcPid(procType)) {
        *field = pid;
    }
}

bool OrvImpl::RecordForkedSubProcess(std::shared_ptr<ProcessHandle> child, uint32_t procType) {
    if (child == nullptr) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] a sub-process of procType[%u] was killed "
                "by someone else before its exec",
                deviceIdInOs_, sessionId_, fmkPid_, procType);
        return false;
    }
    const int32_t pid = child->Pid();
    {
        // Clean-up sets closeHandle before it takes the pids under pidMutex:
        // a pid stored here while closeHandle is clear is one it will find.
        MutexLock lock(&pidMutex_);
        ForgetEndedSubProcesses();
        subProcHandles_[pid] = std::move(child);
        int32_t* field = SubProcPid(procType);
        if (field != nullptr && !GetCloseHandle()) {
            *field = pid;
            return true;
        }
    }
    KillProcess({static_cast<uint32_t>(pid)});
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] closing began during the start of subPid[%d], "
            "killed",
            deviceIdInOs_, sessionId_, fmkPid_, pid);
    return false;
}

void OrvImpl::ForgetEndedSubProcesses() {
    for (auto it = subProcHandles_.begin(); it != subProcHandles_.end();) {
        const int32_t pid = it->first;
        bool recorded = pid == computePid_ || pid == zarnPid_ || pid == queuePid_ || pid == customComputePid_;
        if (!recorded && it->second->Exited()) {
            it = subProcHandles_.erase(it);
        } else {
            ++it;
        }
    }
}

std::shared_ptr<ProcessHandle> OrvImpl::SubProcHandleLocked(int32_t pid) const {
    auto it = subProcHandles_.find(pid);
    return it != subProcHandles_.end() ? it->second : nullptr;
}

std::shared_ptr<ProcessHandle> OrvImpl::SubProcHandle(int32_t pid) const {
    MutexLock lock(&pidMutex_);
    return SubProcHandleLocked(pid);
}

void OrvImpl::SetCloseHandle(bool closeHandle) {
    {
        MutexLock lock(&closeMutex_);
        closeHandle_ = closeHandle;
    }
    // A request for the custom process waits no longer once closing began.
    MutexLock lock(&custStartMutex_);
    custStartCond_.SignalAll();
}

bool OrvImpl::GetCloseHandle() {
    MutexLock lock(&closeMutex_);
    return closeHandle_;
}

bool OrvImpl::IsClose() {
    MutexLock lock(&pidMutex_);
    return GetCloseHandle() && IsAllSubProcCloseRegular();
}

// ---- Sub-process launch ---------------------------------------------------------

uint32_t OrvImpl::CheckProcessInputParam(const std::string& path, const std::string& name) const {
    ORV_LOG(ORV_INFO, "[OrvDaemon] check pathName[%s], pathLen[%u] procName[%s], len[%u], MAX_LEN[%d] ", path.c_str(),
            static_cast<uint32_t>(path.size()), name.c_str(), static_cast<uint32_t>(name.size()),
            static_cast<int>(kProcessNameMaxLen));
    if (path.empty()) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] check error: procPath is empty.");
        return kInvalidParam;
    }
    if (path.size() > kProcessNameMaxLen) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] check error:procPath length > PROCESS_NAME_MAX_LEN");
        return kInvalidParam;
    }
    if (name.empty()) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] check error: processName is empty.");
        return kInvalidParam;
    }
    if (name.size() > kProcessNameMaxLen) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] check error:processName length > PROCESS_NAME_MAX_LEN");
        return kInvalidParam;
    }
    return 0;
}

uint32_t OrvImpl::GetChipId() const {
    if (deviceMode_ != 1) {
        return deviceIdInOs_;
    }
    int32_t chipId = -1;
    drvError_t ret = halGetChipFromDevice(static_cast<int32_t>(deviceIdInOs_), &chipId);
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "driver get chip id from device id failed, chipId[%d], deviceId[%d], drvRet is [%d].", chipId,
                static_cast<int32_t>(deviceIdInOs_), ret);
        return UINT32_MAX;
    }
    return static_cast<uint32_t>(chipId);
}

bool OrvImpl::GetIsZebFlag() {
    int64_t version = 0;
    drvError_t ret = halGetDeviceInfo(0, MODULE_TYPE_SYSTEM, INFO_TYPE_VERSION, &version);
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon]Get hardwareVersion failed, ret[%d]", ret);
        return false;
    }
    int32_t chipType = static_cast<int32_t>((version >> 8) & 0xff);
    bool zeb = chipType == kChipZeb;
    ORV_LOG(ORV_EVENT, "[OrvEVENT] Get CHIP_ZEB[%d] chipType[%d], ZebFlag[%d]", kChipZeb, chipType,
            static_cast<int>(zeb));
    return zeb;
}

int32_t OrvImpl::ForkSubProcess(const std::string& path, const std::string& name, OrvSubProcessType type,
                                const std::vector<uint32_t>& ctrlCpus, StartGate* gate) {
    uint32_t chipId = GetChipId();
    if (chipId == UINT32_MAX) {
        ORV_LOG(ORV_ERROR, "Get chip id from device id failed");
        return -1;
    }
    const std::string kernelsPath = kKernelsRoot + std::to_string(vfId_) + "/aicpu_kernels_device/";
    ProcessInfo info;
    info.deviceIdArg = "--deviceId=" + std::to_string(static_cast<int32_t>(chipId));
    info.pidArg = "--pid=" + std::to_string(fmkPid_);
    info.pidSignArg = "--pidSign=" + pidSign_;
    info.profilingModeArg = "--profilingMode=" + std::to_string(profilingMode_.load());
    info.logLevelArg = "--logLevelInPid=" + LogLevel();
    info.vfIdArg = "--vfId=" + std::to_string(vfId_);
    info.kernelsPath = kernelsPath;
    info.sandboxPath = kernelsPath + "sand_box" + "/";
    info.ldLibraryPathEnv = "LD_LIBRARY_PATH=" + info.kernelsPath + ":" + info.sandboxPath + ":";
    info.groupNum = 0;
    const bool useExecv = OrvDaemon::GetInstance()->GetZebFlag();
    if (GetProcessInfo(info, type) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon]GetProInfoStrInForkSubProcess return error.");
        return -1;
    }

    std::vector<std::string> argv = {name};
    std::vector<std::string> envp;
    std::vector<std::string> groups;
    bool emptyEnvironment = true;
    std::function<void()> callback;
    OrvPexaClient* pexa = OrvPexaClient::GetInstance();
    auto registerAs = [pexa](std::string prefix) {
        return [pexa, prefix] { pexa->SendMessageToIAM(prefix + std::to_string(getpid())); };
    };
    switch (type) {
        case COMPUTE: {
            argv.insert(argv.end(), {info.deviceIdArg, info.pidArg, info.pidSignArg, info.profilingModeArg,
                                     info.vfIdArg, info.logLevelArg, info.deviceModeArg, info.groupNameListArg,
                                     info.groupNameNumArg});
            envp = {info.ldLibraryPathEnv, info.dataMasterRunModeEnv};
            emptyEnvironment = false;
            MutexLock lock(&groupMutex_);
            groups = groupNames_;
            callback = registerAs("aicpu_rn_");
            break;
        }
        case ZARN:
            argv.insert(argv.end(), {info.deviceIdArg, info.pidArg, info.pidSignArg, info.logLevelArg});
            break;
        case CUSTOM_COMPUTE:
            argv.insert(argv.end(), {info.deviceIdArg, info.pidArg, info.pidSignArg, info.profilingModeArg,
                                     info.custSoPathArg, info.aicpuPidArg, info.logLevelArg, info.vfIdArg,
                                     info.groupNameListArg, info.groupNameNumArg});
            callback = registerAs("aicpu_rn_");
            break;
        case QUEUE_SCHEDULE: {
            argv.insert(argv.end(), {info.deployModeArg, info.reschedIntervalArg, info.deviceIdArg, info.vfIdArg,
                                     info.pidSignArg, info.qsInitGroupNameArg, info.pidArg});
            MutexLock lock(&groupMutex_);
            if (!qsGroupName_.empty()) {
                groups.push_back(qsGroupName_);
            }
            if (useExecv) {
                callback = [pexa] { pexa->SendMessageToIAM(kQueueName); };
            } else {
                callback = registerAs(std::string(kQueueName) + "_");
            }
            break;
        }
        default:
            ORV_LOG(ORV_ERROR, "Fork sub process failed, unknown procType[%d]", static_cast<int32_t>(type));
            return -1;
    }
    std::vector<char*> cArgv = CStrings(argv);
    std::vector<char*> cEnvp = CStrings(envp);
    return ProcessUtil::StartAndBindSubProcess(path, ctrlCpus, cArgv.data(),
                                               emptyEnvironment ? nullptr : cEnvp.data(), useExecv, groups, callback,
                                               gate);
}

uint32_t OrvImpl::GetProcessInfo(ProcessInfo& info, OrvSubProcessType type) {
    switch (type) {
        case COMPUTE: {
            if (GetGroupInfo(info.groupNum, info.groupName, type) != 0) {
                ORV_LOG(ORV_ERROR, "[OrvDaemon]GetGroupInfo return error.");
                return 1;
            }
            ORV_LOG(ORV_INFO, "[OrvDaemon] Prepare to start aicpu with groupNum[%u] and groupName[%s]", info.groupNum,
                    info.groupName.c_str());
            info.groupNameListArg = "--groupNameList=" + info.groupName;
            info.groupNameNumArg = "--groupNameNum=" + std::to_string(info.groupNum);
            std::string runMode;
            GetEnv("DATAMASTER_RUN_MODE", runMode);
            info.dataMasterRunModeEnv = "DATAMASTER_RUN_MODE=" + runMode;
            info.deviceModeArg = "--deviceMode=" + std::to_string(deviceMode_);
            return 0;
        }
        case ZARN:
            return 0;
        case CUSTOM_COMPUTE: {
            MutexLock pidLock(&pidMutex_);
            MutexLock groupLock(&groupMutex_);
            info.custSoPathArg = "--custSoPath=" + custSoPath_;
            info.aicpuPidArg = "--aicpuPid=" + std::to_string(computePid_);
            info.groupNameListArg = "--groupNameList=" + custGroupNameList_;
            info.groupNameNumArg = "--groupNameNum=" + std::to_string(custGroupNum_);
            return 0;
        }
        case QUEUE_SCHEDULE: {
            info.deployModeArg = "--deployMode=1";
            std::string interval;
            GetEnv("QS_RESCHED_INTEVAL", interval);
            info.reschedIntervalArg = "--reschedInterval=" + interval;
            if (GetGroupInfo(info.groupNum, info.groupName, type) != 0) {
                ORV_LOG(ORV_ERROR, "[OrvDaemon]GetGroupInfo return error.");
                return 1;
            }
            MutexLock lock(&groupMutex_);
            ORV_LOG(ORV_INFO, "[OrvDaemon] Prepare to start qs with groupName[%s]", qsGroupName_.c_str());
            info.qsInitGroupNameArg = "--qsInitGroupName=" + qsGroupName_;
            return 0;
        }
        default:
            ORV_LOG(ORV_ERROR, "Fork sub process failed, unknown procType[%d]", static_cast<int32_t>(type));
            return 1;
    }
}

// ---- Buffer groups ----------------------------------------------------------------

uint32_t OrvImpl::GetHostGrpName() {
    ORV_LOG(ORV_INFO, "Start get host group name from host[%u]", fmkPid_);
    std::vector<char> output(kGroupEntrySize * kGroupEntryMax, 0);
    uint32_t hostPid = fmkPid_;
    uint32_t outputLength = static_cast<uint32_t>(output.size());
    drvError_t ret = halGrpQuery(kGroupQueryProcess, &hostPid, sizeof(hostPid), output.data(), &outputLength);
    if (ret == DRV_ERROR_NOT_SUPPORT) {
        ORV_LOG(ORV_INFO, "[OrvClient]Current version does not suppoted halGrpQuery");
        return 0;
    }
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon]Fail to query group info for pid[%u], ret[%d]", fmkPid_, ret);
        return 1;
    }
    if (outputLength == 0) {
        ORV_LOG(ORV_INFO, "[OrvDaemon]Current host process does not create group yet.");
        return 0;
    }
    if (outputLength % kGroupEntrySize != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon]GroupInfo outbuff size[%u] is invalid", outputLength);
        return 1;
    }
    for (uint32_t offset = 0; offset < outputLength; offset += kGroupEntrySize) {
        std::string name(&output[offset], strnlen(&output[offset], kGroupEntrySize));
        if (OrvDaemon::GetInstance()->AttachBuffGroup(name, 0) != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon]ORV fail to attach groupName[%s]", name.c_str());
            return 1;
        }
        {
            MutexLock lock(&groupMutex_);
            groupNames_.push_back(name);
        }
        ORV_LOG(ORV_INFO, "Get group[%s] from host[%u] success", name.c_str(), fmkPid_);
    }
    return 0;
}

uint32_t OrvImpl::GetGroupInfo(uint32_t& groupNum, std::string& groupName, OrvSubProcessType type) {
    if (type == COMPUTE) {
        const char* addGroup = getenv("AICPU_ADD_BUFFERGROUP");
        if (addGroup != nullptr && strcmp(addGroup, "1") == 0) {
            ORV_LOG(ORV_INFO, "Get group name of hostpid before aicpu process start");
            if (GetHostGrpName() != 0) {
                ORV_LOG(ORV_ERROR, "[OrvDaemon]GetHostGrpName execute failed.");
                return 1;
            }
            MutexLock lock(&groupMutex_);
            groupNum = static_cast<uint32_t>(groupNames_.size());
            ORV_LOG(ORV_INFO, "[OrvDaemon]GetHostGrpName execute success, get host group number[%u]", groupNum);
        }
        groupName.clear();
        if (groupNum != 0) {
            MutexLock lock(&groupMutex_);
            for (size_t index = 0; index < groupNames_.size(); ++index) {
                groupName += (index == 0 ? "" : ",") + groupNames_[index];
            }
            ORV_LOG(ORV_INFO, "[OrvDaemon] Generate host group name string[%s]", groupName.c_str());
        }
        return 0;
    }
    if (type == QUEUE_SCHEDULE) {
        const char* startupQs = getenv("STARTUP_QS");
        std::string group;
        {
            MutexLock lock(&groupMutex_);
            if (qsGroupName_.empty()) {
                if (startupQs == nullptr || strcmp(startupQs, "1") != 0) {
                    return 0;
                }
                qsGroupName_ = kDefaultMemGroup;
            }
            group = qsGroupName_;
        }
        if (OrvDaemon::GetInstance()->AttachBuffGroup(group, 0) != 0) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon]ORV fail to attach group[%s]", group.c_str());
            return 1;
        }
        return 0;
    }
    ORV_LOG(ORV_ERROR, "ProcType[%d] is not supported", static_cast<int32_t>(type));
    return 1;
}

// ---- Supervision, close and clean-up -------------------------------------------------

void OrvImpl::CloseSubProcess() {
    int32_t zarnPid;
    int32_t computePid;
    int32_t customPid;
    int32_t queuePid;
    {
        MutexLock lock(&pidMutex_);
        zarnPid = zarnPid_;
        computePid = computePid_;
        customPid = customComputePid_;
        queuePid = queuePid_;
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] Begin CloseSubProcess "
            "cpProcPid:%d, zarnProcPid:%d, qsProcPid:%d.",
            deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_, computePid, zarnPid, queuePid);
    // No start worker forks from now on.
    SetCloseHandle(true);
    WaitForkTaskDone();
    {
        MutexLock lock(&pidMutex_);
        zarnPid = zarnPid_;
        computePid = computePid_;
        customPid = customComputePid_;
        queuePid = queuePid_;
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] begin close startZarn_[%u] zarnPid_[%d] startCp_[%u] CpPid_[%d] startCCp_[%u] "
            "CCpPid_[%d]startQs_[%u] QsPid[%d].",
            static_cast<uint32_t>(startZarn_.load()), zarnPid, static_cast<uint32_t>(startCompute_.load()), computePid,
            static_cast<uint32_t>(startCustomCompute_.load()), customPid, static_cast<uint32_t>(startQueue_.load()),
            queuePid);
    if (startZarn_ && zarnPid != -1) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] the ZARN will be "
                "closed",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
        (void)StartForkTask([this, zarnPid] { ExecuteClose(static_cast<uint32_t>(zarnPid), ZARN); }, "a close");
    }
    if (startCompute_ && computePid != -1) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] the Cp will be closed",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
        (void)StartForkTask([this, computePid] { ExecuteClose(static_cast<uint32_t>(computePid), COMPUTE); },
                            "a close");
    }
    if (customPid != -1) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] devId[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] the Custom Cp will be closed",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
        (void)StartForkTask([this, customPid] { ExecuteClose(static_cast<uint32_t>(customPid), CUSTOM_COMPUTE); },
                            "a close");
    }
    if (startQueue_ && queuePid != -1) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] the QS will be closed",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
        (void)StartForkTask([this, queuePid] { ExecuteClose(static_cast<uint32_t>(queuePid), QUEUE_SCHEDULE); },
                            "a close");
    }
}

void OrvImpl::ExecuteClose(uint32_t subPid, OrvSubProcessType type) {
    OrvSubEventInfo event;
    (void)memset_s(&event, sizeof(event), 0, sizeof(event));
    event.deviceId = deviceIdInOs_;
    event.srcPid = static_cast<uint32_t>(getpid());
    event.dstPid = subPid;
    event.hostPid = fmkPid_;
    event.vfId = vfId_;
    event.procType = type;
    event.eventType = ORV_SUB_EVENT_CLOSE_REQ;
    if (OrvEventServer::GetInstance()->SubmitOrvEvent(event) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] ExecuteClose OrvEventServer SendData failed ");
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d]. Begin ExecuteClose subProcPid:%u",
            deviceIdInOs_, sessionId_, fmkPid_, vfId_, subPid);
    ORV_LOG(ORV_TRACE, "free resource {devOS:[%u]} for {dev:%u}", subPid, deviceIdInOs_);
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT] #### Send ORV->SubProcess[EventSer] Close Msg device index in os[%u] SessId[%u] FmkPid[%u] "
            "vfId[%d] proType[%u] ####",
            deviceIdInOs_, sessionId_, fmkPid_, vfId_, static_cast<uint32_t>(type));
    OrvDaemon::FreeProcessBuff(subPid);
}

uint32_t OrvImpl::CheckAndWaitSubProcessExit(uint32_t subPid, uint32_t type) {
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u], CheckAndWaitSubProcessExit subProcessPid[%u] "
            "procType[%d](0:ZARN PROC,1:COMPUTE PROC)",
            deviceIdInOs_, sessionId_, fmkPid_, subPid, static_cast<int32_t>(type));
    if (subPid == 0) {
        return 0;
    }
    // Waits and signals reach only a process this session started.
    std::shared_ptr<ProcessHandle> child =
        subPid <= static_cast<uint32_t>(INT32_MAX) ? SubProcHandle(static_cast<int32_t>(subPid)) : nullptr;
    if (child == nullptr) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] pid[%u] is no sub-process of this session: "
                "not waited on",
                deviceIdInOs_, sessionId_, fmkPid_, subPid);
        return 0;
    }
    for (uint32_t tryTimes = 0; tryTimes < kExitPolls; ++tryTimes) {
        int status = 0;
        pid_t ret = child->TryReap(&status);
        ORV_LOG(ORV_INFO, "[OrvDaemon] waitpid finish. retPid is [%d], subProcPid is [%u], waitStatus is [%d]", ret,
                subPid, status);
        // Reaped, or gone already (children are reaped by the kernel here).
        if (ret != 0) {
            ORV_LOG(ORV_INFO,
                    "[OrvDaemon] SubProcesses[%u] procType[%d](0:ZARN PROC,1:COMPUTE PROC,2:PROCESS_CUSTOM_COMPUTE) "
                    "stop success",
                    subPid, static_cast<int32_t>(type));
            ORV_LOG(ORV_INFO, "[OrvDaemon] SubProcesses exit success on device index in os[%u], tryTimes is %u",
                    deviceIdInOs_, tryTimes);
            return 0;
        }
        // Each pause ends early when the child exits.
        (void)child->WaitExit(kExitPollPause);
    }
    ORV_LOG(ORV_ERROR, "[OrvDaemon] subProcessPid[%u] exit failed on device index in os[%u], need to be killed", subPid,
            deviceIdInOs_);
    int killed = child->Signal(SIGKILL);
    if (type == COMPUTE || type == CUSTOM_COMPUTE || type == QUEUE_SCHEDULE) {
        (void)child->WaitExit(kKilledExitWait);
        int status = 0;
        pid_t ret = child->TryReap(&status);
        // The line's own wording has the conversion "%D", which the C library
        // prints as it stands; the status conversion then shows the pid.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
        ORV_LOG(ORV_INFO, "[OrvDaemon] waitpid finish. waitpid[%D] waitStatus[%d]", ret, status);
#pragma GCC diagnostic pop
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] SubProcesses[%u] procType[%d](0:ZARN PROC,1:COMPUTE PROC,2:PROCESS_CUSTOM_COMPUTE) stop "
                "success",
                subPid, static_cast<int32_t>(type));
        OrvDaemon::FreeProcessBuff(subPid);
        OrvDaemon::GetInstance()->GenerateAlarmMessage(type, subPid, fmkPid_, ALARM_REASON_ABNORMAL_EXIT);
    } else if (killed != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] CheckAndWaitSubProcessExit kill failed");
    }
    return 1;
}

void OrvImpl::KillProcess(const std::vector<uint32_t>& pids) {
    for (uint32_t pid : pids) {
        if (pid == 0 || pid == 1) {
            continue;
        }
        std::shared_ptr<ProcessHandle> child =
            pid <= static_cast<uint32_t>(INT32_MAX) ? SubProcHandle(static_cast<int32_t>(pid)) : nullptr;
        if (child == nullptr) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] pid:%u is no sub-process of this session, not killed", pid);
            continue;
        }
        if (child->Signal(0) != 0) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] find pid:%u is not exist", pid);
            continue;
        }
        ORV_LOG(ORV_INFO, "[OrvDaemon] find pid:%u need to be killed", pid);
        if (child->Signal(SIGKILL) != 0) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] kill pid:%u is not exist", pid);
            continue;
        }
        (void)child->WaitExit(kKilledExitWait);
        int status = 0;
        pid_t ret = child->TryReap(&status);
        ORV_LOG(ORV_INFO, "[OrvDaemon] kill pid:%u success, waitpid[%u] waitStatus[%d]", pid,
                static_cast<uint32_t>(ret), status);
    }
}

void OrvImpl::CheckSubProcessExit(int32_t& pid, uint32_t type) {
    if (pid == -1) {
        return;
    }
    std::shared_ptr<ProcessHandle> child = SubProcHandleLocked(pid);
    int status = 0;
    pid_t ret = child != nullptr ? child->TryReap(&status) : -1;
    if (ret == 0) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] Subproc[%u] type[%u] status[%d]", static_cast<uint32_t>(pid), type, status);
        return;
    }
    if (GetCloseHandle()) {
        // The close path accounts for this one.
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] waitpid finish. waitpid[%u] waitStatus[%d]", static_cast<uint32_t>(ret), status);
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] SubProcesses[%d] procType[%d](0:ZARN PROC,1:COMPUTE PROC,2:PROCESS_CUSTOM_COMPUTE,"
            "3:QUEUEU_SCHEDULE) hostPid[%u] on dev[%u] exit",
            zarnPid_, static_cast<int32_t>(type), fmkPid_, deviceIdInOs_);
    if (type != CUSTOM_COMPUTE && closeRspSent_.fetch_add(1) == 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] subprocess abnormal, close hdc server[%u].", sessionId_);
        OrvDaemon::GetInstance()->CloseHdcSession(deviceIdInOs_, sessionId_);
    }
    ORV_LOG(ORV_ERROR, "[OrvDaemon] custom aicpu subprocess abnormal, close hdc server[%u].", sessionId_);
    OrvDaemon::FreeProcessBuff(static_cast<uint32_t>(pid));
    OrvDaemon::GetInstance()->GenerateAlarmMessage(type, static_cast<uint32_t>(pid), fmkPid_,
                                                   ALARM_REASON_ABNORMAL_EXIT);
    pid = -1;
}

void OrvImpl::CheckAicpuSubProcessExit(const int32_t& pid, bool zebFlag) {
    if (computePid_ == -1) {
        return;
    }
    std::shared_ptr<ProcessHandle> child = SubProcHandleLocked(computePid_);
    if (zebFlag) {
        int status = 0;
        if (child != nullptr && child->TryReap(&status) == 0) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Subproc[%d] type[%d] status[%d]", computePid_, static_cast<int32_t>(COMPUTE),
                    status);
            return;
        }
    } else if (pid != computePid_ && child != nullptr && !child->Exited()) {
        // Neither reported terminated nor gone: still running.
        ORV_LOG(ORV_INFO, "[OrvDaemon] Subproc[%d] type[%d]", computePid_, static_cast<int32_t>(COMPUTE));
        return;
    }
    if (GetCloseHandle()) {
        return;
    }
    ORV_LOG(ORV_ERROR, "[OrvImpl] Aicpu Subprocess[%d] abnormal.", computePid_);
    if (closeRspSent_.fetch_add(1) == 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Subprocess abnormal, close hdc server[%u].", sessionId_);
        OrvDaemon::GetInstance()->CloseHdcSession(deviceIdInOs_, sessionId_);
    }
    if (!zebFlag && child != nullptr) {
        (void)child->WaitExit(kKilledExitWait);
        int status = 0;
        pid_t ret = child->TryReap(&status);
        ORV_LOG(ORV_INFO, "[OrvImpl] pid[%d] wait success, waitpid[%d] waitStatus[%d]", computePid_, ret, status);
    }
    OrvDaemon::FreeProcessBuff(static_cast<uint32_t>(computePid_));
    OrvDaemon::GetInstance()->GenerateAlarmMessage(COMPUTE, static_cast<uint32_t>(computePid_), fmkPid_,
                                                   ALARM_REASON_ABNORMAL_EXIT);
    computePid_ = -1;
}

void OrvImpl::InnerProcClean(bool closeHdc) {
    SetCloseHandle(true);
    if (closeHdc && closeRspSent_.fetch_add(1) == 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] subprocess abnormal, close hdc server[%u].", sessionId_);
        OrvDaemon::GetInstance()->CloseHdcSession(deviceIdInOs_, sessionId_);
    }
    std::vector<uint32_t> doomed;
    int32_t computePid;
    int32_t queuePid;
    {
        MutexLock lock(&pidMutex_);
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u]rankSize[%u] aicpu-rn[%d] zarn[%d] qs[%d].",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), computePid_, zarnPid_, queuePid_);
        computePid = computePid_;
        queuePid = queuePid_;
        for (int32_t* pid : {&computePid_, &zarnPid_, &queuePid_}) {
            if (*pid != -1) {
                doomed.push_back(static_cast<uint32_t>(*pid));
                *pid = -1;
            }
        }
    }
    if (!doomed.empty()) {
        KillProcess(doomed);
        for (auto [pid, type] : {std::pair<int32_t, OrvSubProcessType>{computePid, COMPUTE}, {queuePid, QUEUE_SCHEDULE}}) {
            if (pid != -1) {
                OrvDaemon::FreeProcessBuff(static_cast<uint32_t>(pid));
                OrvDaemon::GetInstance()->GenerateAlarmMessage(type, static_cast<uint32_t>(pid), fmkPid_,
                                                               ALARM_REASON_ABNORMAL_EXIT);
            }
        }
    }
    zarnRunning_ = false;
    computeRunning_ = false;
    queueRunning_ = false;
    ORV_LOG(ORV_INFO, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] InnerProcClean end.",
            deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load());
}

void OrvImpl::CustomProcClean() {
    int32_t customPid;
    {
        MutexLock lock(&pidMutex_);
        customPid = customComputePid_;
        customComputePid_ = -1;
    }
    if (customPid != -1) {
        KillProcess({static_cast<uint32_t>(customPid)});
        OrvDaemon::FreeProcessBuff(static_cast<uint32_t>(customPid));
        OrvDaemon::GetInstance()->GenerateAlarmMessage(CUSTOM_COMPUTE, static_cast<uint32_t>(customPid), fmkPid_,
                                                       ALARM_REASON_ABNORMAL_EXIT);
        ORV_LOG(ORV_INFO, "Clean custSoPath");
        std::string command = std::string("rm -rf ") + kCustSoRoot + kCustSoPrefix + std::to_string(vfId_) + "_" +
                              std::to_string(fmkPid_);
        (void)PackSystem(command.c_str());
    }
    customComputeRunning_ = false;
    ORV_LOG(ORV_INFO, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] CustomProcClean end",
            deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load());
}

void OrvImpl::CleanSubProcResource() {
    InnerProcClean(false);
    CustomProcClean();
}

void OrvImpl::AbnormalMsgProc(bool customOnly, bool closeHdc) {
    WaitForkTaskDone();
    ORV_LOG(ORV_INFO, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] AbnormalMsgProc begin.",
            deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load());
    if (!customOnly) {
        InnerProcClean(closeHdc);
    }
    CustomProcClean();
}

void OrvImpl::CleanOrvRcvEventThreads() {
    std::list<SessionThread> threads;
    {
        MutexLock lock(&eventThreadMutex_);
        threads.swap(eventThreads_);
    }
    uint32_t size = static_cast<uint32_t>(threads.size());
    for (SessionThread& entry : threads) {
        if (entry.thread.joinable()) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] CleanOrvRcvEventThreads() [tid=%s] [threadSize=%u]",
                    ThreadIdText(entry.thread).c_str(), size);
            entry.thread.join();
        }
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device id in os[%u] sessId[%u] fmkPid[%u] CleanOrvRcvEventThreads() exit [threadSize=%u]",
            deviceIdInOs_, sessionId_, fmkPid_, size);
}

void OrvImpl::CleanOrvRcvHdcThreads() {
    std::list<SessionThread> threads;
    {
        MutexLock lock(&forkTaskMutex_);
        threads.swap(forkTasks_);
    }
    uint32_t size = static_cast<uint32_t>(threads.size());
    for (SessionThread& entry : threads) {
        if (entry.thread.joinable()) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] CleanOrvRcvHdcThreads() [tid=%s] [threadSize=%u]",
                    ThreadIdText(entry.thread).c_str(), size);
            entry.thread.join();
        }
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] CleanOrvRcvHdcThreads() exit [threadSize=%u]",
            deviceIdInOs_, sessionId_, fmkPid_, size);
}

void OrvImpl::Destory() {
    // Nothing forks any more, and a request for the custom process stops
    // waiting, so that every thread joined below ends.
    SetCloseHandle(true);
    CleanOrvRcvHdcThreads();
    CleanOrvRcvEventThreads();
    CleanSubProcResource();
    ORV_LOG(ORV_INFO, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] Destory finish",
            deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load());
}

// ---- Event traffic ------------------------------------------------------------------

bool OrvImpl::CheckSubProcPid(uint32_t subPid, uint32_t procType) {
    MutexLock lock(&pidMutex_);
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] CheckSubProcPid: subProcPid[%u] procType[%u], "
            "current aicpu-rn[%d] zarn[%d], custom-aicpu[%d], qs[%d]",
            deviceIdInOs_, sessionId_, fmkPid_, subPid, procType, computePid_, zarnPid_, customComputePid_, queuePid_);
    return procType <= QUEUE_SCHEDULE;
}

bool OrvImpl::IsOwnSubProcess(uint32_t pid, uint32_t procType) {
    if (pid == 0 || pid > static_cast<uint32_t>(INT32_MAX)) {
        return false;
    }
    const int32_t sender = static_cast<int32_t>(pid);
    MutexLock lock(&pidMutex_);
    if (procType != kAnyProcType) {
        const int32_t* field = SubProcPid(procType);
        return field != nullptr && *field == sender;
    }
    return sender == computePid_ || sender == zarnPid_ || sender == queuePid_ || sender == customComputePid_;
}

void OrvImpl::ProcessEventServerInfo(uint32_t subPid, uint32_t eventType, uint32_t procType, const void* payload) {
    if (!CheckSubProcPid(subPid, procType)) {
        ORV_LOG(ORV_INFO, "Check subProcPid fail, skip event server to orv process.");
        return;
    }
    // A sub-process reports its own start and close only.
    if ((eventType == ORV_SUB_EVENT_START || eventType == ORV_SUB_EVENT_CLOSE) && !IsOwnSubProcess(subPid, procType)) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] report type[%u] from subPid[%u] is not "
                "about itself (procType[%u]), dropped",
                deviceIdInOs_, sessionId_, fmkPid_, eventType, subPid, procType);
        return;
    }
    switch (eventType) {
        case ORV_SUB_EVENT_START:
            ORV_LOG(ORV_EVENT, "[OrvEVENT] #### EventSer->ORV RspMsg device index in os[%u] Start Rsp procType[%u] ####",
                    deviceIdInOs_, procType);
            (void)StartEventThread([this, subPid, procType] { StartRspProc(subPid, procType); }, "a start report");
            break;
        case ORV_SUB_EVENT_CLOSE:
            ORV_LOG(ORV_EVENT, "[OrvEVENT] #### EventSer->ORV RspMsg device index in os[%u] Close Rsp procType[%u] ####",
                    deviceIdInOs_, procType);
            (void)StartEventThread([this, subPid, procType] { CloseRspProc(subPid, procType); }, "a close report");
            break;
        case ORV_SUB_EVENT_CUST_START: {
            OrvCustStartEventInfo info;
            (void)memcpy_s(&info, sizeof(info), payload, sizeof(info));
            (void)StartEventThread([this, info] { NotifyAicpuInfoProc(info); }, "a custom-process request");
            break;
        }
        case ORV_SUB_EVENT_LOAD_SO: {
            OrvSubEventInfo info;
            (void)memcpy_s(&info, sizeof(info), payload, sizeof(info));
            (void)StartEventThread([this, info] { NotifySoNameToCustAicpu(info); }, "a shared-object request");
            break;
        }
        default:
            ORV_LOG(ORV_ERROR, "[OrvEvent] Unknown proc[%u] procType[%u] eventType[%u] info", subPid, procType,
                    eventType);
            break;
    }
}

void OrvImpl::NotifyAicpuInfoProc(const OrvCustStartEventInfo& info) {
    MutexLock request(&custStartReqMutex_);
    if (customComputeRunning_) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] cust-aicpu-rn has already run.");
        return;
    }
    startCustomCompute_ = true;
    {
        MutexLock lock(&groupMutex_);
        custGroupNum_ = info.groupNum;
        custGroupNameList_ = std::string(info.groupNameList, strnlen(info.groupNameList, sizeof(info.groupNameList)));
    }
    ExecuteStart(kCustomComputePath, kCustomComputeName, CUSTOM_COMPUTE);
    {
        // Bounded, and cut short by the session's close: a custom process
        // that never reports must not keep this thread, and the session's
        // teardown that joins it, for ever.
        const auto deadline = std::chrono::steady_clock::now() + kCustomStartWait;
        MutexLock lock(&custStartMutex_);
        while (!customComputeRunning_ && !GetCloseHandle() && std::chrono::steady_clock::now() < deadline) {
            (void)custStartCond_.WaitUntil(deadline);
        }
    }
    if (!customComputeRunning_) {
        GiveUpCustomStart();
        return;
    }
    OrvSubEventInfo reply;
    (void)memset_s(&reply, sizeof(reply), 0, sizeof(reply));
    reply.deviceId = deviceIdInOs_;
    reply.srcPid = static_cast<uint32_t>(getpid());
    reply.hostPid = fmkPid_;
    reply.vfId = vfId_;
    reply.procType = COMPUTE;
    reply.eventType = ORV_SUB_EVENT_CUST_STARTED;
    {
        MutexLock lock(&pidMutex_);
        reply.dstPid = static_cast<uint32_t>(computePid_);
        reply.payloadWord = static_cast<uint32_t>(customComputePid_);
    }
    if (OrvEventServer::GetInstance()->SubmitOrvEvent(reply) == 0) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] Create custom aicpu process success.");
    } else {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Response to OrvEventClient failed ");
    }
}

void OrvImpl::GiveUpCustomStart() {
    if (GetCloseHandle()) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] closing began before the custom process "
                "reported its start",
                deviceIdInOs_, sessionId_, fmkPid_);
        return;
    }
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] the custom process did not report its start "
            "within %lld s: it is ended",
            deviceIdInOs_, sessionId_, fmkPid_, static_cast<long long>(kCustomStartWait.count()));
    CustomProcClean();
}

void OrvImpl::NotifySoNameToCustAicpu(const OrvSubEventInfo& info) const {
    if (!customComputeRunning_) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Error cust aicpu rn has not been started yet.");
        return;
    }
    event_summary summary;
    (void)memset_s(&summary, sizeof(summary), 0, sizeof(summary));
    {
        MutexLock lock(&pidMutex_);
        summary.dst_pid = customComputePid_;
    }
    summary.grp_id = 0;
    summary.event_id = EVENT_CPU_TASK_MSG;
    summary.subevent_id = kSoLoadSubEvent;
    summary.msg_len = kSoLoadMsgLength;
    summary.msg = reinterpret_cast<const char*>(&info) + kSoLoadMsgOffset;
    drvError_t ret = halEschedSubmitEvent(deviceIdInOs_, &summary);
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] send open so task to cust-aicpu-rn failed, errcode[%d]", ret);
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] send open so task to cust-aicpu-rn success.");
}

uint32_t OrvImpl::NotifyUpdateProfilingToAicpu(uint32_t pid, uint32_t profilingMode, OrvSubProcessType type) const {
    if (type != COMPUTE && type != CUSTOM_COMPUTE) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] NotifyUpdateProfilingToAicpu: incorrect OrvSubProcessType[%u]",
                static_cast<uint32_t>(type));
        return 1;
    }
    uint32_t message[4] = {0, deviceIdInOs_, fmkPid_, profilingMode};
    static_assert(sizeof(message) == kProfilingMsgLength, "profiling message layout");
    event_summary summary;
    (void)memset_s(&summary, sizeof(summary), 0, sizeof(summary));
    summary.dst_pid = static_cast<int32_t>(pid);
    summary.grp_id = 0;
    summary.event_id = EVENT_CPU_TASK_MSG;
    summary.subevent_id = type == COMPUTE ? kProfilingSubEventCompute : kProfilingSubEventCustom;
    summary.msg_len = kProfilingMsgLength;
    summary.msg = reinterpret_cast<const char*>(message);
    drvError_t ret = halEschedSubmitEvent(deviceIdInOs_, &summary);
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] send update profiling msg dev[%u] hostpid[%u] profiling mode[%u] to proc[%u] failed, "
                "errcode[%d]",
                deviceIdInOs_, fmkPid_, profilingMode, pid, ret);
        return 1;
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] send update profiling msg dev[%u] hostpid[%u] profiling mode[%u] to proc[%u] success",
            deviceIdInOs_, fmkPid_, profilingMode, pid);
    return 0;
}

void OrvImpl::UpdateAicpuProfiling(uint32_t profilingMode) {
    uint32_t code = NotifyProfilingToRunningProcs(profilingMode);
    if (SendRspMsgToFmk(RCV_FMK_UPDATE_PROFILING, code, "") != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Update aicpu profiling SendRspMsgToFmk failed");
    }
}

uint32_t OrvImpl::NotifyProfilingToRunningProcs(uint32_t profilingMode) {
    if (!IsAllSubProcRunRegular()) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d] not running, skip update aicpu "
                "profiling",
                deviceIdInOs_, sessionId_, fmkPid_, vfId_);
        return 1;
    }
    int32_t computePid;
    int32_t customPid;
    {
        MutexLock lock(&pidMutex_);
        computePid = computePid_;
        customPid = customComputePid_;
    }
    struct Target {
        bool running;
        int32_t pid;
        OrvSubProcessType type;
        const char* name;
    };
    const Target targets[] = {{computeRunning_, computePid, COMPUTE, "aicpu_rn"},
                              {customComputeRunning_, customPid, CUSTOM_COMPUTE, "aicpu_cust_rn"}};
    for (const Target& target : targets) {
        if (!target.running || target.pid == -1) {
            continue;
        }
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] notify %s[%d] update "
                "profiling mode[%u]",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_, target.name, target.pid, profilingMode);
        if (NotifyUpdateProfilingToAicpu(static_cast<uint32_t>(target.pid), profilingMode, target.type) != 0) {
            ORV_LOG(ORV_ERROR,
                    "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] notify %s[%d] "
                    "update profiling mode[%u] failed",
                    deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_, target.name, target.pid,
                    profilingMode);
            return 1;
        }
    }
    return 0;
}

void OrvImpl::CheckEventClientHeartbeat(int32_t& pid, bool zebFlag) {
    if (startStatus_ != START_STATUS_ANSWERED) {
        return;
    }
    MutexLock lock(&pidMutex_);
    CheckAicpuSubProcessExit(pid, zebFlag);
    CheckSubProcessExit(zarnPid_, ZARN);
    CheckSubProcessExit(customComputePid_, CUSTOM_COMPUTE);
    CheckSubProcessExit(queuePid_, QUEUE_SCHEDULE);
}

}  // namespace orv
