// Construction, start orchestration and the answers to the host: which
// sub-processes a start asks for, the start workers that launch them
// (orv_launch.cc), their start reports, the start time-out, and the kinds'
// running flags and pids.
#include "session/orv_common.h"

#include <unistd.h>

#include <cstdint>
#include <functional>
#include <system_error>

#include <osal.h>

#include "daemon/orvdaemon.h"
#include "package/internal_api.h"
#include "package/package_worker.h"
#include "platform/log.h"
#include "platform/orv_limits.h"

namespace orv {

namespace {

constexpr uint32_t kStartTimeoutTicks = 25;
constexpr uint32_t kFpgaStartTimeoutTicks = 2500;
constexpr uint32_t kForkTaskPolls = 30;
constexpr uint32_t kForkTaskPollMs = 200;

// Threads of a session that may be at work at once, of each list: far more
// than honest traffic ever needs (a handful of reports and requests).
using limits::kMaxSessionThreads;

// Joins the finished threads of `threads`, then starts `work` on a new one.
// False, with the reason in `why`, when kMaxSessionThreads are still at work
// or no thread can be started.
bool SpawnSessionThread(std::list<SessionThread>* threads, std::function<void()> work,
                        std::string* why) {
    for (auto it = threads->begin(); it != threads->end();) {
        if (it->done->load()) {
            it->thread.Join();
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
    SessionThread entry{PooledThread(), done};
    if (!entry.thread.Start(
            [work = std::move(work), done] {
                work();
                done->store(true);
            },
            why)) {
        return false;
    }
    threads->push_back(std::move(entry));
    return true;
}

}  // namespace

OrvImpl::OrvImpl(uint32_t deviceIdInOs, uint32_t sessionId, uint32_t rankSize,
                 uint32_t realDeviceId, uint32_t fmkPid, uint32_t profilingMode,
                 std::string pidSign, uint32_t checkCode, std::string logLevelInPid, int32_t vfId,
                 uint32_t deviceMode, std::string qsGroupName)
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
            ORV_LOG(ORV_INFO,
                    "[OrvDaemon] os[%u] sessId[%u] fmkPid[%u] vfid[%d] skip run zarn process",
                    deviceIdInOs_, sessionId_, fmkPid_, vfId_);
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
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] set start status input invalid StartQs[%d],StartCp[%d],StartZarn[%d]",
            static_cast<int>(startQs), static_cast<int>(startZarn), static_cast<int>(startCp));
    if (SendRspMsgToFmk(RCV_FMK_START, 1, "") != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] StartRspProc send msg failed");
    }
}

void OrvImpl::StartSubProcess() {
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d]",
            deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
    std::vector<ProcessConfig> configs;
    SaveProcessConfig(configs);
    for (const ProcessConfig& config : configs) {
        if (access(config.path.c_str(), X_OK) != 0) {
            ORV_LOG(ORV_ERROR,
                    "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] "
                    "vfId[%d] Permission denied for the process %s.",
                    deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_,
                    config.name.c_str());
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
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] cannot start the worker of "
            "%s: %s",
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
    ORV_LOG(ORV_ERROR, "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] %s dropped: %s",
            deviceIdInOs_, sessionId_, fmkPid_, what, why.c_str());
    return false;
}

void OrvImpl::SaveProcessConfig(std::vector<ProcessConfig>& configs) {
    if (startZarn_ && zarnStartedOnce_.fetch_add(1) == 0) {
        configs.push_back({kZarnPath, kZarnName, ZARN});
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] "
                "the ZARN will be start",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
    }
    if (startCompute_ && computeStartedOnce_.fetch_add(1) == 0) {
        // Buffers left by an earlier host process of the same pid go first.
        OrvDaemon::CleanResource(fmkPid_, vfId_);
        ORV_LOG(ORV_INFO, "[OrvDaemon] begin check aicpu package in os[%u] vfId[%d] checkCode[%u].",
                deviceIdInOs_, vfId_, checkCode_.load());
        {
            MutexLock lock(&startStatusMutex_);
            startStatus_ = START_STATUS_CHECKING_PACKAGE;
        }
        std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(vfId_);
        if (worker == nullptr) {
            return;
        }
        if (worker->CheckSum(checkCode_) != 0) {
            // Nothing further starts; the start time-out tells the host.
            ORV_LOG(ORV_ERROR, "[OrvDaemon] checksum aicpu package failed");
            return;
        }
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] check aicpu package in os[%u] vfId[%d] checkCode[%u] success",
                deviceIdInOs_, vfId_, checkCode_.load());
        {
            MutexLock lock(&startStatusMutex_);
            startStatus_ = START_STATUS_PACKAGE_CHECKED;
        }
        configs.push_back({kComputePath, kComputeName, COMPUTE});
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] "
                "the CP will be start.",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
    }
    if (startQueue_ && queueStartedOnce_.fetch_add(1) == 0) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] begin construct QS config.");
        configs.push_back({kQueuePath, kQueueName, QUEUE_SCHEDULE});
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] "
                "the QS will be start.",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
    }
}

uint32_t OrvImpl::StartRspProc(uint32_t subPid, uint32_t procType) {
    ORV_LOG(
        ORV_INFO,
        "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] StartRspProc() [subProcPid=%u]"
        "[procType=%u(0:ZARN,1:COMPUTE,2:CUSTOM_COMPUTE,3.QUEUE_SCHEDULE)]",
        deviceIdInOs_, sessionId_, fmkPid_, subPid, procType);
    const bool askedFor = procType == ZARN             ? startZarn_.load()
                          : procType == COMPUTE        ? startCompute_.load()
                          : procType == QUEUE_SCHEDULE ? startQueue_.load()
                                                       : true;
    if (!askedFor) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] start report of "
                "subPid[%u] for procType[%u], which was not asked for, dropped",
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
                    "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] StartRspProc() "
                    "[subProcPid=%u]"
                    "[procType=%u(0:ZARN,1:COMPUTE,2:CUSTOM_COMPUTE,3.QUEUE_SCHEDULE)], but "
                    "timeout occurred",
                    deviceIdInOs_, sessionId_, fmkPid_, subPid, procType);
            return 0;
        }
        if (!startAnswerPending_) {
            ORV_LOG(ORV_ERROR,
                    "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] start report of "
                    "subPid[%u] answers no start request, no second answer",
                    deviceIdInOs_, sessionId_, fmkPid_, subPid);
            return 0;
        }
        startAnswerPending_ = false;
        statusBefore = startStatus_;
        startStatus_ = START_STATUS_ANSWERED;
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

uint32_t OrvImpl::SendRspMsgToFmk(RcvFmkFlg flag, uint32_t rspCode, const std::string& errMsg) {
    HDCMessage msg;
    msg.set_device_id(deviceIdInOs_);
    msg.set_real_device_id(realDeviceId_);
    msg.set_orv_rsp_code(rspCode);
    msg.set_rank_size(rankSize_);
    if (!errMsg.empty()) {
        msg.mutable_error_info()->set_message(errMsg);
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d] SendRspMsgToFmk",
            deviceIdInOs_, sessionId_, fmkPid_, vfId_);
    switch (flag) {
        case RCV_FMK_START:
            msg.set_type(HDCMessage::ORV_START_PROC_RSP);
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### Start Rsp ORV->FMK device index in os[%u] sessionID[%u] "
                    "realDeviceId[%u] vfId[%d]####",
                    deviceIdInOs_, sessionId_, realDeviceId_, vfId_);
            break;
        case RCV_FMK_CLOSE:
            msg.set_type(HDCMessage::ORV_CLOSE_PROC_RSP);
            for (std::atomic<bool>* flagOf :
                 {&zarnRunning_, &computeRunning_, &customComputeRunning_, &queueRunning_,
                  &startZarn_, &startCompute_, &startCustomCompute_, &startQueue_}) {
                *flagOf = false;
            }
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### Close Rsp ORV->FMK device index in os[%u] sessionID[%u] "
                    "realDeviceId[%u] vfId[%d]####",
                    deviceIdInOs_, sessionId_, realDeviceId_, vfId_);
            break;
        case RCV_FMK_UPDATE_PROFILING:
            msg.set_type(HDCMessage::ORV_UPDATE_PROIFILING_RSP);
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### Update Profiling Rsp ORV->FMK device index in os[%u] "
                    "sessionID[%u] realDeviceId[%u] vfId[%d]####",
                    deviceIdInOs_, sessionId_, realDeviceId_, vfId_);
            break;
        default:
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### Unknown Rsp ORV->FMK device index in os[%u] sessionID[%u] "
                    "realDeviceId[%u] vfId[%d]####",
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
    if (IsAllSubProcRunRegular() || status == START_STATUS_TIMEOUT ||
        status == START_STATUS_ANSWERED) {
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
        reason += ", device[" + std::to_string(deviceIdInOs_) + "], host pid[" +
                  std::to_string(fmkPid_) + "]";
        startStatus_ = START_STATUS_TIMEOUT;
        startAnswerPending_ = false;
        ORV_LOG(ORV_ERROR, "[OrvDaemon] %s", reason.c_str());
        // The monitor never writes to a host: a host that stopped reading
        // would hold up every session's supervision.
        if (!StartEventThread([this, reason] { SendTimeoutRsp(reason); },
                              "the start time-out answer")) {
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

// ---- Running flags and pids ---------------------------------------------------

bool OrvImpl::IsAllSubProcRunRegular() const {
    return computeRunning_ == startCompute_ && zarnRunning_ == startZarn_ &&
           queueRunning_ == startQueue_;
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
    pidMutex_.AssertHeld();
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

}  // namespace orv
