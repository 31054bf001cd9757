#include "event/orv_event_server.h"

#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include <bounds_checked.h>
#include <osal.h>

#include "daemon/orvdaemon.h"
#include "package/inotify_watcher.h"
#include "package/internal_api.h"
#include "package/package_worker.h"
#include "platform/log.h"
#include "platform/orv_codes.h"
#include "platform/orv_drv_manager.h"
#include "platform/orv_limits.h"
#include "platform/scope_guard.h"
#include "session/process_util.h"

namespace orv {

namespace {

constexpr uint32_t kEventDevice = 0;
constexpr int32_t kWaitTimeoutMs = 3000;
// The sub-processes' receiving group.
constexpr uint32_t kSubProcessGroup = 30;
constexpr uint32_t kDriverMsgLength = 16;
// An event the server sends its own workers to end their waits at its stop;
// no sub-process or driver event has this sub-event id.
constexpr uint32_t kWakeSubEvent = 0xffff;
// The sender of the driver's own notices: no process.
constexpr int32_t kDriverSender = 0;
constexpr size_t kDriverMsgVfOffset = 4;
constexpr size_t kVfListLineSize = 128;

}  // namespace

// ---- OrvEventInterface --------------------------------------------------------------

uint32_t OrvEventInterface::SubscribeEvent(uint32_t devId, uint32_t groupId, int32_t threadIndex) {
    ORV_LOG(ORV_INFO, "Dev[%u] begin subscribe event mask[%u][%d].", devId,
            static_cast<uint32_t>(kEventCcpuCtrlMask), static_cast<int32_t>(kEventCcpuCtrlMsg));
    drvError_t ret = halEschedSubscribeEvent(devId, groupId, static_cast<uint32_t>(threadIndex),
                                             kEventCcpuCtrlMask);
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR,
                "halEschedSubscribeEvent failed, deviceId[%u], groupId[%u], threadIndex[%u] "
                "eventBitmap[%llu].",
                devId, groupId, static_cast<uint32_t>(threadIndex),
                static_cast<unsigned long long>(kEventCcpuCtrlMask));
        return 1;
    }
    ORV_LOG(ORV_INFO,
            "halEschedSubscribeEvent success, deviceId[%u], groupId[%u], threadIndex[%u] "
            "eventBitmap[%llu].",
            devId, groupId, static_cast<uint32_t>(threadIndex),
            static_cast<unsigned long long>(kEventCcpuCtrlMask));
    return 0;
}

uint32_t OrvEventInterface::WaitAndProcessEvent(uint32_t devId, uint32_t groupId,
                                                int32_t threadIndex) {
    event_info event;
    (void)memset_s(&event, sizeof(event), 0, sizeof(event));
    drvError_t ret = halEschedWaitEvent(devId, groupId, static_cast<uint32_t>(threadIndex),
                                        kWaitTimeoutMs, &event);
    switch (ret) {
        case DRV_ERROR_NONE:
            if (event.subevent_id == kWakeSubEvent && event.src_pid == getpid()) {
                // The server's own stop: the worker's loop looks at its flag.
                return 0;
            }
            ORV_LOG(ORV_INFO, "Begin process event msg.");
            (void)ProcessEvent(event);
            return 0;
        case DRV_ERROR_WAIT_TIMEOUT:
            return 0;
        case DRV_ERROR_NO_SUBSCRIBE:
        case DRV_ERROR_PROCESS_EXIT:
            ORV_LOG(ORV_ERROR,
                    "Failed to call halEschedWaitEvent, error code=%d, deviceId[%u], groupId[%u], "
                    "threadIndex[%u]",
                    ret, devId, groupId, static_cast<uint32_t>(threadIndex));
            return 1;
        default:
            ORV_LOG(ORV_ERROR,
                    "Failed to call halEschedWaitEvent, error code[%d], deviceId[%u], groupId[%u], "
                    "threadIndex[%u]",
                    ret, devId, groupId, static_cast<uint32_t>(threadIndex));
            return 0;
    }
}

// ---- OrvEventServer -----------------------------------------------------------------

OrvEventServer* OrvEventServer::GetInstance() {
    static OrvEventServer instance;
    return &instance;
}

OrvEventServer::OrvEventServer() {
    (void)ORVLog::GetInstance();
}

uint32_t OrvEventServer::Init(uint32_t devNum) {
    ORV_LOG(ORV_INFO, "Begin init OrvEventSever devNum[%u]", devNum);
    // The daemon always attaches device 0, whatever the device count.
    drvError_t ret = halEschedAttachDevice(kEventDevice);
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "halEschedAttachDevice dev[%u] failed, result[%d].", kEventDevice, ret);
        return 1;
    }
    ORV_LOG(ORV_INFO, "halEschedAttachDevice dev[%u] success.", kEventDevice);
    ret = halRegisterVmngClient();
    if (ret != DRV_ERROR_NONE) {
        (void)halEschedDettachDevice(kEventDevice);
        ORV_LOG(ORV_ERROR, "halRegisterVmngClient dev[%u] failed, result[%d].", kEventDevice, ret);
        return 1;
    }
    ORV_LOG(ORV_INFO, "halRegisterVmngClient dev[%u] success.", kEventDevice);
    try {
        vfThread_ = std::thread([this] { RunVfNotices(); });
        MutexLock lock(&vfQueueMutex_);
        vfThreadRunning_ = true;
    } catch (const std::exception& e) {
        ORV_LOG(ORV_ERROR, "create the VF notice thread failed, %s", e.what());
        return 1;
    }
    for (uint32_t i = 0; i < devNum; ++i) {
        try {
            workers_.emplace_back([this, i] { Work(i); });
        } catch (const std::exception& e) {
            ORV_LOG(ORV_ERROR, "create orv event worker[%u] failed, %s", i, e.what());
            return 1;
        }
    }
    return 0;
}

void OrvEventServer::Work(uint32_t groupId) {
    ScopeGuard detach([] { (void)halEschedDettachDevice(kEventDevice); });
    ORV_LOG(ORV_EVENT, "OrvEventServer begin start thread %u", groupId);
    std::vector<uint32_t> cpus;
    OrvDrvManager::GetInstance()->GetCtrlCpus(0, cpus);
    (void)ProcessUtil::SetThreadAffinity(pthread_self(), cpus);
    drvError_t ret = halEschedCreateGrp(kEventDevice, groupId, GRP_TYPE_BIND_CP_CPU);
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "halEschedCreateGrp dev[%u] group[%u] type[%d] failed, result[%d].",
                kEventDevice, groupId, GRP_TYPE_BIND_CP_CPU, ret);
        return;
    }
    ORV_LOG(ORV_INFO, "halEschedCreateGrp dev[%u] group[%u] type[%d] success.", kEventDevice,
            groupId, GRP_TYPE_BIND_CP_CPU);
    const int32_t threadIndex = 0;
    uint32_t tid = static_cast<uint32_t>(mmGetTid());
    if (SubscribeEvent(kEventDevice, groupId, threadIndex) != 0) {
        ORV_LOG(
            ORV_ERROR,
            "[OrvEventServer] subscribe EVENT_CCPU_CTRL_MSG failed in dev[%u] group[%u] tid[%u]",
            kEventDevice, groupId, tid);
        return;
    }
    ORV_LOG(ORV_EVENT, "[OrvEventServer] subscribe event on dev[%u] group[%u] tid[%u] success",
            kEventDevice, groupId, tid);
    while (IsRunning()) {
        if (WaitAndProcessEvent(kEventDevice, groupId, threadIndex) != 0) {
            ORV_LOG(ORV_ERROR,
                    "[OrvEventServer] Exit wait event thread on dev[%u] group[%u] tid[%u]",
                    kEventDevice, groupId, tid);
            break;
        }
    }
    ORV_LOG(ORV_INFO, "The loop of getting event is exit in dev[%u] group[%u] tid[%u].",
            kEventDevice, groupId, tid);
}

uint32_t OrvEventServer::ProcessEvent(event_info& event) {
    ORV_LOG(ORV_EVENT, "Begin to process orv event");
    if (event.event_id != kEventCcpuCtrlMsg) {
        ORV_LOG(ORV_ERROR, "Unknown event type, event_id[%d].",
                static_cast<int32_t>(event.event_id));
        return 1;
    }
    uint32_t subEventId = event.subevent_id;
    if (subEventId == ORV_SUB_EVENT_VF_CREATE || subEventId == ORV_SUB_EVENT_VF_DESTROY) {
        // The scheduler stamps each event with its submitter; the driver's own
        // notices carry no process at all.
        if (event.src_pid != kDriverSender) {
            ORV_LOG(ORV_ERROR,
                    "[OrvEventServer] driver notice sub-event[%u] from pid[%d] refused: only the "
                    "driver "
                    "sends it",
                    subEventId, event.src_pid);
            return 1;
        }
        if (!QueueDriverEvent(event, subEventId)) {
            return 1;
        }
        return 0;
    }
    if (event.msg_len != kOrvEventRecordLength) {
        if (subEventId == ORV_SUB_EVENT_CUST_START) {
            ORV_LOG(ORV_ERROR,
                    "[OrvEventServer] Incorrect msg length[%u],correct msg length[%u] for "
                    "OrvCustStartEventInfo",
                    event.msg_len, kOrvEventRecordLength);
        } else {
            ORV_LOG(ORV_ERROR, "[OrvEventServer] Incorrect msg length[%u], correct msg length[%u]",
                    event.msg_len, kOrvEventRecordLength);
        }
        return 1;
    }
    // The record names its sender; it must be the process that submitted it.
    uint32_t claimed = 0;
    (void)memcpy_s(&claimed, sizeof(claimed), event.msg + offsetof(OrvSubEventInfo, srcPid),
                   sizeof(claimed));
    if (event.src_pid == kDriverSender || claimed != static_cast<uint32_t>(event.src_pid)) {
        ORV_LOG(ORV_ERROR,
                "[OrvEventServer] record of sub-event[%u] names sender[%u] but comes from pid[%d], "
                "dropped",
                subEventId, claimed, event.src_pid);
        return 1;
    }
    OrvDaemon::GetInstance()->ProcessEventServerInfo(event.msg, subEventId);
    ORV_LOG(ORV_INFO, "End to process orv event");
    return 0;
}

uint32_t OrvEventServer::SubmitOrvEvent(OrvSubEventInfo& record) const {
    event_summary summary;
    (void)memset_s(&summary, sizeof(summary), 0, sizeof(summary));
    summary.dst_pid = static_cast<int32_t>(record.dstPid);
    summary.grp_id = kSubProcessGroup;
    summary.event_id = kEventCcpuCtrlMsg;
    summary.subevent_id = record.eventType;
    summary.msg = reinterpret_cast<const char*>(&record);
    summary.msg_len = kOrvEventRecordLength;
    summary.dst_engine = EVENT_DST_ENGINE_CCPU;
    drvError_t ret = halEschedSubmitEvent(record.deviceId, &summary);
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(
            ORV_ERROR,
            "[OrvEventServer] halEschedSubmitEvent to dev[%u] pid[%u] type[%d] failed, ret = %d",
            record.deviceId, record.dstPid, static_cast<int32_t>(record.eventType), ret);
        return 1;
    }
    ORV_LOG(ORV_INFO, "[OrvEventServer] Submit event to dev[%u] pid[%u] type[%d] succ",
            record.deviceId, record.dstPid, static_cast<int32_t>(record.eventType));
    return 0;
}

void OrvEventServer::Destroy() {
    ORV_LOG(ORV_EVENT, "[OrvEventServer] Destroy begin.");
    SetRunningFlag(false);
    // Each worker would see the flag only when its current wait of up to 3 s
    // ends: an event of this process's own ends the wait at once.
    for (uint32_t groupId = 0; groupId < workers_.size(); ++groupId) {
        event_summary wake;
        (void)memset_s(&wake, sizeof(wake), 0, sizeof(wake));
        wake.dst_pid = getpid();
        wake.grp_id = groupId;
        wake.event_id = kEventCcpuCtrlMsg;
        wake.subevent_id = kWakeSubEvent;
        wake.dst_engine = EVENT_DST_ENGINE_CCPU;
        (void)halEschedSubmitEvent(kEventDevice, &wake);
    }
    for (std::thread& worker : workers_) {
        if (worker.joinable()) {
            worker.join();
        }
    }
    workers_.clear();
    StopVfThread();
    ORV_LOG(ORV_INFO, "[OrvEventServer] Destroy end.");
}

// ---- The VF thread ------------------------------------------------------------------

bool OrvEventServer::QueueDriverEvent(const event_info& event, uint32_t subEventId) {
    size_t waiting = 0;
    {
        MutexLock lock(&vfQueueMutex_);
        if (vfThreadRunning_ && vfQueue_.size() < limits::kMaxQueuedVfNotices) {
            vfQueue_.push_back(VfNotice{event, subEventId});
            vfQueueChanged_.Signal();
            return true;
        }
        waiting = vfThreadRunning_ ? vfQueue_.size() : 0;
    }
    if (waiting != 0) {
        // The driver waits for an answer to each notice it sent.
        ORV_LOG(ORV_ERROR,
                "[OrvEventServer] driver notice sub-event[%u] refused: %zu notices wait already; "
                "answered -1",
                subEventId, waiting);
        int32_t ack = -1;
        (void)halEschedAckEvent(kEventDevice, kEventCcpuCtrlMsg, subEventId,
                                reinterpret_cast<char*>(&ack), sizeof(ack));
        return false;
    }
    // No VF thread yet (ProcessEvent called before Init): at once.
    event_info copy = event;
    HandleDriverEvent(copy, subEventId);
    return true;
}

void OrvEventServer::HandleDriverEvent(event_info& event, uint32_t subEventId) {
    if (ProcessDrvEvent(event, subEventId) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvEventServer] Process driver event failed.");
    } else {
        ORV_LOG(ORV_EVENT, "[OrvEVENT] Process driver event sucess.");
    }
}

void OrvEventServer::RunVfNotices() {
    for (;;) {
        VfNotice notice{};
        {
            MutexLock lock(&vfQueueMutex_);
            while (vfQueue_.empty() && !vfThreadStopping_) {
                vfQueueChanged_.Wait();
            }
            if (vfThreadStopping_) {
                // The daemon stops: what still waits is not handled.
                return;
            }
            notice = vfQueue_.front();
            vfQueue_.pop_front();
        }
        HandleDriverEvent(notice.event, notice.subEventId);
    }
}

void OrvEventServer::StopVfThread() {
    {
        MutexLock lock(&vfQueueMutex_);
        vfThreadStopping_ = true;
        vfQueueChanged_.SignalAll();
    }
    if (vfThread_.joinable()) {
        vfThread_.join();
    }
    MutexLock lock(&vfQueueMutex_);
    vfThreadRunning_ = false;
    vfThreadStopping_ = false;
}

bool OrvEventServer::VfExists(int32_t vfId) {
    if (vfId == 0) {
        return true;
    }
    MutexLock lock(&vfSetMutex_);
    return existingVfs_.count(vfId) != 0;
}

void OrvEventServer::SetVfExists(int32_t vfId, bool exists) {
    MutexLock lock(&vfSetMutex_);
    if (exists) {
        existingVfs_.insert(vfId);
    } else {
        existingVfs_.erase(vfId);
    }
}

// ---- Driver and VF notices ----------------------------------------------------------

uint32_t OrvEventServer::ProcessDrvEvent(event_info& event, uint32_t subEventId) {
    ORV_LOG(ORV_EVENT, "[OrvEventServer] Begin to process driver event.");
    if (OrvDaemon::GetInstance()->GetZebFlag()) {
        return 0;
    }
    if (event.msg_len != kDriverMsgLength) {
        ORV_LOG(ORV_ERROR,
                "[OrvEventServer] Incorrect driver msg length[%u], correct msg length[%u].",
                event.msg_len, kDriverMsgLength);
        return 1;
    }
    uint32_t vfWord = 0;
    (void)memcpy_s(&vfWord, sizeof(vfWord), event.msg + kDriverMsgVfOffset, sizeof(vfWord));
    int vfId = static_cast<int>(vfWord);
    if (vfWord < 1 || vfWord > kMaxVfId) {
        ORV_LOG(ORV_ERROR, "Got invalid vfid[%d].", vfId);
        return 1;
    }
    int result = 0;
    if (subEventId == ORV_SUB_EVENT_VF_CREATE) {
        result = ProcessCreatVfEvent(vfId);
    } else if (subEventId == ORV_SUB_EVENT_VF_DESTROY) {
        result = ProcessDestoryVfEvevt(vfId);
    }
    int32_t ack = result != 0 ? -1 : 0;
    ORV_LOG(ORV_INFO, "[OrvEventServer] Send ack[%d] to driver.", ack);
    if (halEschedAckEvent(kEventDevice, kEventCcpuCtrlMsg, subEventId,
                          reinterpret_cast<char*>(&ack), sizeof(ack)) != DRV_ERROR_NONE) {
        ORV_LOG(ORV_WARN, "[OrvEventServer] Send ack to driver failed.");
    } else {
        ORV_LOG(ORV_INFO, "[OrvEventServer] Send ack to driver success.");
    }
    return static_cast<uint32_t>(result);
}

int OrvEventServer::ProcessCreatVfEvent(int vfId) {
    MutexLock lock(&vfMutex_);
    std::string command = "cd /var && sudo /var/create_vf_config.sh " + std::to_string(vfId);
    ORV_LOG(ORV_INFO, "PackSystem command: [%s].", command.c_str());
    if (PackSystem(command.c_str()) != 0) {
        ORV_LOG(ORV_ERROR, "ProcessCreatVfEvent failed, command: [%s]", command.c_str());
        return 1;
    }
    RemoveFile(vfId);
    if (CreatInotifyWatcher(vfId) == 0) {
        SetVfExists(vfId, true);
        ORV_LOG(ORV_INFO, "Creat inotify watcher by vfid[%d] succ.", vfId);
        return 0;
    }
    ORV_LOG(ORV_ERROR, "Creat inotify watcher by vfid[%d] failed", vfId);
    std::string undo = "cd /var && sudo /var/destroy_vf_config.sh " + std::to_string(vfId);
    ORV_LOG(ORV_INFO, "PackSystem command: [%s]", undo.c_str());
    if (PackSystem(undo.c_str()) != 0) {
        ORV_LOG(ORV_ERROR, "ProcessDestoryVfEvevt failed, command: [%s]", undo.c_str());
    }
    return 1;
}

int OrvEventServer::ProcessDestoryVfEvevt(int vfId) {
    MutexLock lock(&vfMutex_);
    // Gone for new starts from the driver's word on, whatever its clean-up.
    SetVfExists(vfId, false);
    RemoveFile(vfId);
    std::string command = "cd /var && sudo /var/destroy_vf_config.sh " + std::to_string(vfId);
    ORV_LOG(ORV_INFO, "PackSystem command: [%s].", command.c_str());
    if (PackSystem(command.c_str()) != 0) {
        ORV_LOG(ORV_ERROR, "ProcessDestoryVfEvevt failed, command: [%s]", command.c_str());
        return 1;
    }
    std::shared_ptr<InotifyWatcher> watcher = InotifyWatcher::FindInstance(vfId);
    if (watcher != nullptr) {
        watcher->Destory();
        // Written at the error level on purpose: it must always reach the log.
        ORV_LOG(ORV_ERROR, "Destroy inotify watcher in vfid[%d] success", vfId);
    } else {
        ORV_LOG(ORV_INFO, "Inotify watcher in vfid[%d] is nullptr, skip destroy", vfId);
    }
    return 0;
}

void OrvEventServer::RemoveFile(int vfId) const {
    // The VF's check code goes with the kernels it describes.
    PackageWorker::KernelsRemoval removal(vfId);
    std::string kernels = "/usr/lib64/aicpu_kernels/" + std::to_string(vfId);
    std::string command = "rm -rf " + kernels;
    if (PackSystem(command.c_str()) != 0) {
        ORV_LOG(ORV_ERROR, "Delete file in path[%s] failed", kernels.c_str());
        return;
    }
    ORV_LOG(ORV_INFO, "Delete file in path[%s] success.", kernels.c_str());
    std::string userFiles = "/home/CustAiCpuUser" + std::to_string(vfId) + "/*";
    command = "rm -rf " + userFiles;
    if (PackSystem(command.c_str()) != 0) {
        ORV_LOG(ORV_ERROR, "Delete file in path[%s] failed.", userFiles.c_str());
        return;
    }
    ORV_LOG(ORV_INFO, "Delete file in path[%s] success.", userFiles.c_str());
}

uint32_t OrvEventServer::CreatInotifyWatcher(int vfId) const {
    std::shared_ptr<InotifyWatcher> watcher = InotifyWatcher::GetInstance(vfId);
    if (watcher == nullptr) {
        ORV_LOG(ORV_ERROR, "Get inotify watcher instance in vfId[%d] failed", vfId);
        return 1;
    }
    return watcher->Init(OrvDaemon::GetInstance()->GetDeviceNum());
}

bool OrvEventServer::CheckExistVf(std::vector<int>& vfIds) const {
    FILE* stream = popen("ls /var |grep \"aicpu_custom_runner[1-9][0-9]*$\"", "re");
    if (stream == nullptr) {
        ORV_LOG(ORV_ERROR, "Popen cmd failed");
        return false;
    }
    ScopeGuard close([stream] { pclose(stream); });
    char line[kVfListLineSize] = {0};
    for (size_t lines = 0; fgets(line, sizeof(line), stream) != nullptr; ++lines) {
        if (lines == limits::kMaxCommandOutputLines) {
            ORV_LOG(ORV_ERROR,
                    "[OrvEventServer] The VF listing has more than %zu lines: the rest "
                    "is not read",
                    limits::kMaxCommandOutputLines);
            break;
        }
        // Every character of the program's name is a separator, as strtok_r
        // takes its second argument; the first token is the VF number.
        char* save = nullptr;
        char* token = strtok_r(line, kCustomComputeName, &save);
        if (token == nullptr) {
            continue;
        }
        int vfId = 0;
        try {
            vfId = std::stoi(token);
        } catch (const std::exception&) {
            ORV_LOG(ORV_EVENT, "Transfer string:%s to vfid failed", line);
            return false;
        }
        if (vfId >= 1 && vfId <= static_cast<int32_t>(kMaxVfId)) {
            vfIds.push_back(vfId);
        }
    }
    return true;
}

}  // namespace orv
