// Supervision, close and clean-up. How a session ends:
//
// Close request. The host's close arrives on its link's HDC receive thread
// (OrvDaemon::OrvCloseProcess) and calls CloseSubProcess: closing begins, so
// no start worker forks any more; the start workers get up to 6 s; then a
// close worker per recorded sub-process (on forkTasks_) sends it the close
// request through the event server. The sub-process reports its close; the
// event server's worker for the device routes the report here
// (ProcessEventServerInfo), and a per-event thread runs CloseRspProc: it waits
// up to 5 s for the exit (then kills), forgets the pid and, once no kind runs,
// sends the one close reply, which closes the link.
//
// Link drop (the host went, or the close reply closed the link). The link's
// HDC receive thread takes every session the link started out of the registry
// (OrvDaemon::HDCAbnormalMsgProc) and, unless closing has begun, runs
// AbnormalMsgProc: the start workers get up to 6 s, then every sub-process is
// killed and, zarn aside, its buffers freed and an alarm raised.
//
// Sub-process death. Once per tick, after a start was answered, the monitor
// thread reaps through CheckEventClientHeartbeat; a death outside a close, of
// any kind but the custom process, closes the link, and a link drop follows.
// A sub-process reporting its own abnormal end gets AbnormalMsgProc on the
// event worker: the custom process's report ends only it; any other's closes
// the link and kills the rest, and the daemon drops the session.
//
// Destruction. The last reference goes with the thread holding it: the HDC
// receive thread of a link drop, an event worker, the daemon's reaper thread
// (sessions the monitor or the event path let go) or the daemon's shutdown.
// ~OrvImpl runs Destory: closing begins, the start and close workers are
// joined, then the per-event threads, and whatever still runs is killed.
#include "session/orv_common.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>

#include <bounds_checked.h>

#include "daemon/orvdaemon.h"
#include "event/orv_event_server.h"
#include "package/internal_api.h"
#include "platform/log.h"

namespace orv {

namespace {

constexpr uint32_t kExitPolls = 500;
constexpr std::chrono::milliseconds kExitPollPause(10);
// A process sent SIGKILL ends at once; the bound only keeps a process stuck in
// the kernel from holding up the clean-up for ever.
constexpr std::chrono::milliseconds kKilledExitWait(5000);

}  // namespace

// ---- Close ---------------------------------------------------------------------------

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
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] Begin "
            "CloseSubProcess cpProcPid:%d, zarnProcPid:%d, qsProcPid:%d.",
            deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_, computePid, zarnPid,
            queuePid);
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
    ORV_LOG(
        ORV_INFO,
        "[OrvDaemon] begin close startZarn_[%u] zarnPid_[%d] startCp_[%u] CpPid_[%d] startCCp_[%u] "
        "CCpPid_[%d]startQs_[%u] QsPid[%d].",
        static_cast<uint32_t>(startZarn_.load()), zarnPid,
        static_cast<uint32_t>(startCompute_.load()), computePid,
        static_cast<uint32_t>(startCustomCompute_.load()), customPid,
        static_cast<uint32_t>(startQueue_.load()), queuePid);
    if (startZarn_ && zarnPid != -1) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] "
                "the ZARN will be closed",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
        (void)StartForkTask([this, zarnPid] { ExecuteClose(static_cast<uint32_t>(zarnPid), ZARN); },
                            "a close");
    }
    if (startCompute_ && computePid != -1) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] "
                "the Cp will be closed",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
        (void)StartForkTask(
            [this, computePid] { ExecuteClose(static_cast<uint32_t>(computePid), COMPUTE); },
            "a close");
    }
    if (customPid != -1) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] devId[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] the Custom Cp "
                "will be closed",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
        (void)StartForkTask(
            [this, customPid] { ExecuteClose(static_cast<uint32_t>(customPid), CUSTOM_COMPUTE); },
            "a close");
    }
    if (startQueue_ && queuePid != -1) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] "
                "the QS will be closed",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_);
        (void)StartForkTask(
            [this, queuePid] { ExecuteClose(static_cast<uint32_t>(queuePid), QUEUE_SCHEDULE); },
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
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d]. Begin ExecuteClose "
            "subProcPid:%u",
            deviceIdInOs_, sessionId_, fmkPid_, vfId_, subPid);
    ORV_LOG(ORV_TRACE, "free resource {devOS:[%u]} for {dev:%u}", subPid, deviceIdInOs_);
    ORV_LOG(ORV_EVENT,
            "[OrvEVENT] #### Send ORV->SubProcess[EventSer] Close Msg device index in os[%u] "
            "SessId[%u] FmkPid[%u] vfId[%d] proType[%u] ####",
            deviceIdInOs_, sessionId_, fmkPid_, vfId_, static_cast<uint32_t>(type));
    OrvDaemon::FreeProcessBuff(subPid);
}

uint32_t OrvImpl::CloseRspProc(uint32_t subPid, uint32_t procType) {
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] CloseRspProc() [subPid=%u]"
            "[procType=%u(0:ZARN,1:COMPUTE,2:CUSTOM_COMPUTE,3:QUEUE_SCHEDULE)]",
            deviceIdInOs_, sessionId_, fmkPid_, subPid, procType);
    if (CheckAndWaitSubProcessExit(subPid, procType) != 0) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] "
                "CheckAndWaitSubProcessExit() kill subprocess[%u] by SIGKILL",
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

uint32_t OrvImpl::CheckAndWaitSubProcessExit(uint32_t subPid, uint32_t type) {
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u], CheckAndWaitSubProcessExit "
            "subProcessPid[%u] procType[%d](0:ZARN PROC,1:COMPUTE PROC)",
            deviceIdInOs_, sessionId_, fmkPid_, subPid, static_cast<int32_t>(type));
    if (subPid == 0) {
        return 0;
    }
    // Waits and signals reach only a process this session started.
    std::shared_ptr<ProcessHandle> child = subPid <= static_cast<uint32_t>(INT32_MAX)
                                               ? SubProcHandle(static_cast<int32_t>(subPid))
                                               : nullptr;
    if (child == nullptr) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] pid[%u] is no "
                "sub-process of this session: not waited on",
                deviceIdInOs_, sessionId_, fmkPid_, subPid);
        return 0;
    }
    for (uint32_t tryTimes = 0; tryTimes < kExitPolls; ++tryTimes) {
        int status = 0;
        pid_t ret = child->TryReap(&status);
        ORV_LOG(
            ORV_INFO,
            "[OrvDaemon] waitpid finish. retPid is [%d], subProcPid is [%u], waitStatus is [%d]",
            ret, subPid, status);
        // Reaped, or gone already (children are reaped by the kernel here).
        if (ret != 0) {
            ORV_LOG(ORV_INFO,
                    "[OrvDaemon] SubProcesses[%u] procType[%d](0:ZARN PROC,1:COMPUTE "
                    "PROC,2:PROCESS_CUSTOM_COMPUTE) stop success",
                    subPid, static_cast<int32_t>(type));
            ORV_LOG(
                ORV_INFO,
                "[OrvDaemon] SubProcesses exit success on device index in os[%u], tryTimes is %u",
                deviceIdInOs_, tryTimes);
            return 0;
        }
        // Each pause ends early when the child exits.
        (void)child->WaitExit(kExitPollPause);
    }
    ORV_LOG(
        ORV_ERROR,
        "[OrvDaemon] subProcessPid[%u] exit failed on device index in os[%u], need to be killed",
        subPid, deviceIdInOs_);
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
                "[OrvDaemon] SubProcesses[%u] procType[%d](0:ZARN PROC,1:COMPUTE "
                "PROC,2:PROCESS_CUSTOM_COMPUTE) stop success",
                subPid, static_cast<int32_t>(type));
        OrvDaemon::FreeProcessBuff(subPid);
        OrvDaemon::GetInstance()->GenerateAlarmMessage(type, subPid, fmkPid_,
                                                       ALARM_REASON_ABNORMAL_EXIT);
    } else if (killed != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] CheckAndWaitSubProcessExit kill failed");
    }
    return 1;
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

// ---- Supervision ---------------------------------------------------------------------

void OrvImpl::CheckEventClientHeartbeat(int32_t& pid, bool zebFlag) {
    {
        MutexLock lock(&startStatusMutex_);
        if (startStatus_ != START_STATUS_ANSWERED) {
            return;
        }
    }
    MutexLock lock(&pidMutex_);
    CheckAicpuSubProcessExit(pid, zebFlag);
    CheckSubProcessExit(zarnPid_, ZARN);
    CheckSubProcessExit(customComputePid_, CUSTOM_COMPUTE);
    CheckSubProcessExit(queuePid_, QUEUE_SCHEDULE);
}

void OrvImpl::CheckSubProcessExit(int32_t& pid, uint32_t type) {
    pidMutex_.AssertHeld();
    if (pid == -1) {
        return;
    }
    std::shared_ptr<ProcessHandle> child = SubProcHandleLocked(pid);
    int status = 0;
    pid_t ret = child != nullptr ? child->TryReap(&status) : -1;
    if (ret == 0) {
        ORV_LOG(ORV_INFO, "[OrvDaemon] Subproc[%u] type[%u] status[%d]", static_cast<uint32_t>(pid),
                type, status);
        return;
    }
    if (GetCloseHandle()) {
        // The close path accounts for this one.
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] waitpid finish. waitpid[%u] waitStatus[%d]",
            static_cast<uint32_t>(ret), status);
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] SubProcesses[%d] procType[%d](0:ZARN PROC,1:COMPUTE "
            "PROC,2:PROCESS_CUSTOM_COMPUTE,3:QUEUEU_SCHEDULE) hostPid[%u] on dev[%u] exit",
            zarnPid_, static_cast<int32_t>(type), fmkPid_, deviceIdInOs_);
    if (type != CUSTOM_COMPUTE && closeRspSent_.fetch_add(1) == 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] subprocess abnormal, close hdc server[%u].", sessionId_);
        OrvDaemon::GetInstance()->CloseHdcSession(deviceIdInOs_, sessionId_);
    }
    ORV_LOG(ORV_ERROR, "[OrvDaemon] custom aicpu subprocess abnormal, close hdc server[%u].",
            sessionId_);
    OrvDaemon::FreeProcessBuff(static_cast<uint32_t>(pid));
    OrvDaemon::GetInstance()->GenerateAlarmMessage(type, static_cast<uint32_t>(pid), fmkPid_,
                                                   ALARM_REASON_ABNORMAL_EXIT);
    pid = -1;
}

void OrvImpl::CheckAicpuSubProcessExit(const int32_t& pid, bool zebFlag) {
    pidMutex_.AssertHeld();
    if (computePid_ == -1) {
        return;
    }
    std::shared_ptr<ProcessHandle> child = SubProcHandleLocked(computePid_);
    if (zebFlag) {
        int status = 0;
        if (child != nullptr && child->TryReap(&status) == 0) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] Subproc[%d] type[%d] status[%d]", computePid_,
                    static_cast<int32_t>(COMPUTE), status);
            return;
        }
    } else if (pid != computePid_ && child != nullptr && !child->Exited()) {
        // Neither reported terminated nor gone: still running.
        ORV_LOG(ORV_INFO, "[OrvDaemon] Subproc[%d] type[%d]", computePid_,
                static_cast<int32_t>(COMPUTE));
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
        ORV_LOG(ORV_INFO, "[OrvImpl] pid[%d] wait success, waitpid[%d] waitStatus[%d]", computePid_,
                ret, status);
    }
    OrvDaemon::FreeProcessBuff(static_cast<uint32_t>(computePid_));
    OrvDaemon::GetInstance()->GenerateAlarmMessage(COMPUTE, static_cast<uint32_t>(computePid_),
                                                   fmkPid_, ALARM_REASON_ABNORMAL_EXIT);
    computePid_ = -1;
}

std::shared_ptr<ProcessHandle> OrvImpl::SubProcHandleLocked(int32_t pid) const {
    pidMutex_.AssertHeld();
    auto it = subProcHandles_.find(pid);
    return it != subProcHandles_.end() ? it->second : nullptr;
}

std::shared_ptr<ProcessHandle> OrvImpl::SubProcHandle(int32_t pid) const {
    MutexLock lock(&pidMutex_);
    return SubProcHandleLocked(pid);
}

void OrvImpl::KillProcess(const std::vector<uint32_t>& pids) {
    for (uint32_t pid : pids) {
        if (pid == 0 || pid == 1) {
            continue;
        }
        std::shared_ptr<ProcessHandle> child = pid <= static_cast<uint32_t>(INT32_MAX)
                                                   ? SubProcHandle(static_cast<int32_t>(pid))
                                                   : nullptr;
        if (child == nullptr) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] pid:%u is no sub-process of this session, not killed",
                    pid);
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

// ---- Clean-up and teardown -----------------------------------------------------------

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
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u]rankSize[%u] aicpu-rn[%d] "
                "zarn[%d] qs[%d].",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), computePid_, zarnPid_,
                queuePid_);
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
        for (auto [pid, type] : {std::pair<int32_t, OrvSubProcessType>{computePid, COMPUTE},
                                 {queuePid, QUEUE_SCHEDULE}}) {
            if (pid != -1) {
                OrvDaemon::FreeProcessBuff(static_cast<uint32_t>(pid));
                OrvDaemon::GetInstance()->GenerateAlarmMessage(type, static_cast<uint32_t>(pid),
                                                               fmkPid_, ALARM_REASON_ABNORMAL_EXIT);
            }
        }
    }
    zarnRunning_ = false;
    computeRunning_ = false;
    queueRunning_ = false;
    ORV_LOG(
        ORV_INFO,
        "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] InnerProcClean end.",
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
        OrvDaemon::GetInstance()->GenerateAlarmMessage(
            CUSTOM_COMPUTE, static_cast<uint32_t>(customPid), fmkPid_, ALARM_REASON_ABNORMAL_EXIT);
        ORV_LOG(ORV_INFO, "Clean custSoPath");
        std::string command = std::string("rm -rf ") + kCustSoRoot + kCustSoPrefix +
                              std::to_string(vfId_) + "_" + std::to_string(fmkPid_);
        (void)PackSystem(command.c_str());
    }
    customComputeRunning_ = false;
    ORV_LOG(
        ORV_INFO,
        "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] CustomProcClean end",
        deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load());
}

void OrvImpl::CleanSubProcResource() {
    InnerProcClean(false);
    CustomProcClean();
}

void OrvImpl::AbnormalMsgProc(bool customOnly, bool closeHdc) {
    WaitForkTaskDone();
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] AbnormalMsgProc "
            "begin.",
            deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load());
    if (!customOnly) {
        InnerProcClean(closeHdc);
    }
    CustomProcClean();
}

void OrvImpl::KernelTimeoutProc(bool customOnly) {
    (void)StartEventThread([this, customOnly] { AbnormalMsgProc(customOnly, true); },
                           "a kernel time-out");
}

void OrvImpl::CleanOrvRcvEventThreads() {
    std::list<SessionThread> threads;
    {
        MutexLock lock(&eventThreadMutex_);
        threads.swap(eventThreads_);
    }
    uint32_t size = static_cast<uint32_t>(threads.size());
    for (SessionThread& entry : threads) {
        if (entry.thread.Joinable()) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] CleanOrvRcvEventThreads() [tid=%s] [threadSize=%u]",
                    entry.thread.IdText().c_str(), size);
            entry.thread.Join();
        }
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device id in os[%u] sessId[%u] fmkPid[%u] CleanOrvRcvEventThreads() exit "
            "[threadSize=%u]",
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
        if (entry.thread.Joinable()) {
            ORV_LOG(ORV_INFO, "[OrvDaemon] CleanOrvRcvHdcThreads() [tid=%s] [threadSize=%u]",
                    entry.thread.IdText().c_str(), size);
            entry.thread.Join();
        }
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] CleanOrvRcvHdcThreads() exit "
            "[threadSize=%u]",
            deviceIdInOs_, sessionId_, fmkPid_, size);
}

OrvImpl::~OrvImpl() {
    ORV_LOG(ORV_INFO, "OrvImpl::~OrvImpl() destructor function called");
    Destory();
}

void OrvImpl::Destory() {
    // Nothing forks any more, and a request for the custom process stops
    // waiting, so that every thread joined below ends.
    SetCloseHandle(true);
    CleanOrvRcvHdcThreads();
    CleanOrvRcvEventThreads();
    CleanSubProcResource();
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] Destory finish",
            deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load());
}

}  // namespace orv
