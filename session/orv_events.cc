// Event traffic with the sub-processes: their reports, routed here by the
// daemon, and the requests between the compute and the custom process.
#include "session/orv_common.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>

#include <bounds_checked.h>
#include <driver_hal.h>

#include "event/orv_event_server.h"
#include "platform/log.h"
#include "platform/orv_limits.h"

namespace orv {

namespace {

constexpr uint32_t kProfilingMsgLength = 16;
constexpr uint32_t kSoLoadMsgOffset = 32;
constexpr uint32_t kSoLoadMsgLength = 96;
constexpr uint32_t kProfilingSubEventCompute = 4;
constexpr uint32_t kProfilingSubEventCustom = 12;
constexpr uint32_t kSoLoadSubEvent = 11;
// How long the compute process's request waits for the custom process.
using limits::kCustomStartWait;

}  // namespace

bool OrvImpl::CheckSubProcPid(uint32_t subPid, uint32_t procType) {
    MutexLock lock(&pidMutex_);
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] CheckSubProcPid: "
            "subProcPid[%u] procType[%u], current aicpu-rn[%d] zarn[%d], custom-aicpu[%d], qs[%d]",
            deviceIdInOs_, sessionId_, fmkPid_, subPid, procType, computePid_, zarnPid_,
            customComputePid_, queuePid_);
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
    return sender == computePid_ || sender == zarnPid_ || sender == queuePid_ ||
           sender == customComputePid_;
}

void OrvImpl::ProcessEventServerInfo(uint32_t subPid, uint32_t eventType, uint32_t procType,
                                     const void* payload) {
    if (!CheckSubProcPid(subPid, procType)) {
        ORV_LOG(ORV_INFO, "Check subProcPid fail, skip event server to orv process.");
        return;
    }
    // A sub-process reports its own start and close only.
    if ((eventType == ORV_SUB_EVENT_START || eventType == ORV_SUB_EVENT_CLOSE) &&
        !IsOwnSubProcess(subPid, procType)) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] report type[%u] from "
                "subPid[%u] is not about itself (procType[%u]), dropped",
                deviceIdInOs_, sessionId_, fmkPid_, eventType, subPid, procType);
        return;
    }
    switch (eventType) {
        case ORV_SUB_EVENT_START:
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### EventSer->ORV RspMsg device index in os[%u] Start Rsp "
                    "procType[%u] ####",
                    deviceIdInOs_, procType);
            (void)StartEventThread([this, subPid, procType] { StartRspProc(subPid, procType); },
                                   "a start report");
            break;
        case ORV_SUB_EVENT_CLOSE:
            ORV_LOG(ORV_EVENT,
                    "[OrvEVENT] #### EventSer->ORV RspMsg device index in os[%u] Close Rsp "
                    "procType[%u] ####",
                    deviceIdInOs_, procType);
            (void)StartEventThread([this, subPid, procType] { CloseRspProc(subPid, procType); },
                                   "a close report");
            break;
        case ORV_SUB_EVENT_CUST_START: {
            OrvCustStartEventInfo info;
            (void)memcpy_s(&info, sizeof(info), payload, sizeof(info));
            (void)StartEventThread([this, info] { NotifyAicpuInfoProc(info); },
                                   "a custom-process request");
            break;
        }
        case ORV_SUB_EVENT_LOAD_SO: {
            OrvSubEventInfo info;
            (void)memcpy_s(&info, sizeof(info), payload, sizeof(info));
            (void)StartEventThread([this, info] { NotifySoNameToCustAicpu(info); },
                                   "a shared-object request");
            break;
        }
        default:
            ORV_LOG(ORV_ERROR, "[OrvEvent] Unknown proc[%u] procType[%u] eventType[%u] info",
                    subPid, procType, eventType);
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
        custGroupNameList_ = std::string(info.groupNameList,
                                         strnlen(info.groupNameList, sizeof(info.groupNameList)));
    }
    ExecuteStart(kCustomComputePath, kCustomComputeName, CUSTOM_COMPUTE);
    {
        // Bounded, and cut short by the session's close: a custom process
        // that never reports must not keep this thread, and the session's
        // teardown that joins it, for ever.
        const auto deadline = std::chrono::steady_clock::now() + kCustomStartWait;
        MutexLock lock(&custStartMutex_);
        while (!customComputeRunning_ && !GetCloseHandle() &&
               std::chrono::steady_clock::now() < deadline) {
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
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] closing began before the "
                "custom process reported its start",
                deviceIdInOs_, sessionId_, fmkPid_);
        return;
    }
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] the custom process did not "
            "report its start within %lld s: it is ended",
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
        ORV_LOG(ORV_ERROR, "[OrvDaemon] send open so task to cust-aicpu-rn failed, errcode[%d]",
                ret);
        return;
    }
    ORV_LOG(ORV_INFO, "[OrvDaemon] send open so task to cust-aicpu-rn success.");
}

uint32_t OrvImpl::NotifyUpdateProfilingToAicpu(uint32_t pid, uint32_t profilingMode,
                                               OrvSubProcessType type) const {
    if (type != COMPUTE && type != CUSTOM_COMPUTE) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] NotifyUpdateProfilingToAicpu: incorrect OrvSubProcessType[%u]",
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
                "[OrvDaemon] send update profiling msg dev[%u] hostpid[%u] profiling mode[%u] to "
                "proc[%u] failed, errcode[%d]",
                deviceIdInOs_, fmkPid_, profilingMode, pid, ret);
        return 1;
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] send update profiling msg dev[%u] hostpid[%u] profiling mode[%u] to "
            "proc[%u] success",
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
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d] not running, "
                "skip update aicpu profiling",
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
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] vfId[%d] "
                "notify %s[%d] update profiling mode[%u]",
                deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_, target.name,
                target.pid, profilingMode);
        if (NotifyUpdateProfilingToAicpu(static_cast<uint32_t>(target.pid), profilingMode,
                                         target.type) != 0) {
            ORV_LOG(ORV_ERROR,
                    "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] rankSize[%u] "
                    "vfId[%d] notify %s[%d] update profiling mode[%u] failed",
                    deviceIdInOs_, sessionId_, fmkPid_, rankSize_.load(), vfId_, target.name,
                    target.pid, profilingMode);
            return 1;
        }
    }
    return 0;
}

}  // namespace orv
