// What OrvDaemon does for sessions and the event server beyond one session's
// reach: routing sub-process events, alarms, buffer groups and the release of
// a process's buffers and custom kernels.
#include "daemon/orvdaemon.h"

#include <unistd.h>

#include <bounds_checked.h>
#include <driver_hal.h>

#include "event/orv_event_server.h"
#include "package/internal_api.h"
#include "platform/log.h"
#include "platform/scope_guard.h"

// Drivers that lack the call still load the daemon; the release then counts
// as done.
extern "C" drvError_t halBuffRecycleByPid(int32_t pid) __attribute__((weak));

namespace orv {

namespace {

constexpr char kAlarmUnknownApp[] = "unknow_proc";
constexpr uint32_t kAlarmLevel = 2;

}  // namespace

void OrvDaemon::FreeProcessBuff(uint32_t subProcPid) {
    ORV_LOG(ORV_INFO, "[OrvDaemon] Begin clean process, subProcPid: %u", subProcPid);
    int32_t ret =
        halBuffRecycleByPid != nullptr ? halBuffRecycleByPid(static_cast<int32_t>(subProcPid)) : 0;
    if (ret != 0) {
        ORV_LOG(ORV_WARN, "[OrvDaemon] Failed to free aicpu-runner buff subProcPid[%u] result[%d]",
                subProcPid, ret);
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
    // Whatever removes the session meanwhile (its link's end, its kernel
    // time-out below), it ends on the reaper's thread, never on this worker.
    ScopeGuard release([this, &session] {
        if (session != nullptr) {
            reaper_.Release(std::move(session));
        }
    });
    if (session == nullptr) {
        ORV_LOG(ORV_INFO,
                "[OrvDaemon] Get OrvImpl in deviceId[%u] hostPid[%u] vfId[%d] is nullptr, skip "
                "ProcessEventServerInfo",
                event.deviceId, event.hostPid, event.vfId);
        return;
    }
    // The event server has checked that srcPid is the record's true sender;
    // only the session's own sub-processes speak for it.
    if (!session->IsOwnSubProcess(event.srcPid)) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] record type[%u] from pid[%u] for deviceId[%u] hostPid[%u] vfId[%d] "
                "comes from none of "
                "that session's sub-processes, dropped",
                event.eventType, event.srcPid, event.deviceId, event.hostPid, event.vfId);
        return;
    }
    ORV_LOG(ORV_EVENT, "[ProcessEventServerInfo] deviceId[%u] srcPid[%u] type[%u]", event.deviceId,
            event.srcPid, event.eventType);
    if (event.eventType != ORV_SUB_EVENT_ABNORMAL) {
        session->ProcessEventServerInfo(event.srcPid, event.eventType, event.procType, info);
        return;
    }
    // The sub-process reports its own abnormal end; its process type word
    // carries the status, and 2 (the custom process) ends only that one.
    bool customOnly = event.procType == CUSTOM_COMPUTE;
    session->KernelTimeoutProc(customOnly);
    if (!customOnly) {
        ORV_LOG(ORV_ERROR, "Subprocess[%u] kernel execute time out.", event.srcPid);
        DeleteOrvImpl(event.deviceId, event.vfId, event.hostPid);
    }
}

void OrvDaemon::CleanResource(uint32_t hostPid, int32_t vfId) {
    ORV_LOG(ORV_INFO, "normal, clean custSoPath");
    std::string path = std::string(kCustSoRoot) + kCustSoPrefix + std::to_string(vfId) + "_" +
                       std::to_string(hostPid);
    if (access(path.c_str(), F_OK) != 0) {
        ORV_LOG(ORV_INFO, "custSoPath[%s] is invalid, skip clean", path.c_str());
        return;
    }
    std::string command = "rm -rf " + path;
    (void)PackSystem(command.c_str());
}

void OrvDaemon::GenerateAlarmMessage(uint32_t procType, uint32_t pid, uint32_t deviceId,
                                     AlarmReason reason) const {
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
    static const std::map<uint32_t, std::string> kPrefixes = {{ZARN, "zarn_"},
                                                              {COMPUTE, "aicpu_rn_"},
                                                              {CUSTOM_COMPUTE, "aicpu_cust_rn_"},
                                                              {QUEUE_SCHEDULE, "queue_runner_"}};
    auto prefix = kPrefixes.find(procType);
    appName = prefix == kPrefixes.end() ? std::string(kAlarmUnknownApp)
                                        : prefix->second + std::to_string(pid);
}

uint32_t OrvDaemon::AttachBuffGroup(const std::string& groupName, int32_t timeout) {
    {
        MutexLock lock(&attachedGroupsMutex_);
        if (attachedGroups_.count(groupName) != 0) {
            ORV_LOG(ORV_INFO, "ORV already attach group[%s] need not attach again.",
                    groupName.c_str());
            return 0;
        }
    }
    int32_t ret = halGrpAttach(groupName.c_str(), timeout);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon]Fail to halGrpAttach groupName[%s], ret[%d]",
                groupName.c_str(), ret);
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
