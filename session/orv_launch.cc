// Launch and buffer groups: the start worker's body, the fork of one
// sub-process as the launch table (launch_table.h) says, and the gathering of
// what the table needs from the driver, the environment and the session.
#include "session/orv_common.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>

#include <driver_hal.h>

#include "daemon/orv_pexa_client.h"
#include "daemon/orvdaemon.h"
#include "package/internal_api.h"
#include "platform/log.h"
#include "platform/orv_codes.h"
#include "platform/orv_drv_manager.h"
#include "session/launch_table.h"
#include "session/process_util.h"

namespace orv {

namespace {

constexpr size_t kProcessNameMaxLen = 256;
constexpr int32_t kChipZeb = 2;
constexpr uint32_t kGroupEntrySize = 36;
constexpr uint32_t kGroupEntryMax = 1024;
constexpr uint32_t kGroupQueryProcess = 1;

// argv or envp for execve: pointers into `strings`, null-terminated.
std::vector<char*> CStrings(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (const std::string& s : strings) {
        out.push_back(const_cast<char*>(s.c_str()));
    }
    out.push_back(nullptr);
    return out;
}

}  // namespace

// ---- Start workers ---------------------------------------------------------------

void OrvImpl::ExecuteStart(const std::string& path, const std::string& name,
                           OrvSubProcessType type) {
    const pid_t daemonPid = getpid();
    forkTaskCount_.fetch_add(1);
    struct Done {
        std::atomic<uint32_t>& count;
        ~Done() { count.fetch_sub(1); }
    } done{forkTaskCount_};
    if (GetCloseHandle()) {
        return;
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d] ExecuteStart()",
            deviceIdInOs_, sessionId_, fmkPid_, vfId_);
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
        if (gate.Child() > 0 && RecordForkedSubProcess(gate.TakeHandle(), type) &&
            !gate.Release()) {
            SetSubProcPid(-1, type);
        }
        StartFailed(type, pid);
    } else {
        ORV_LOG(ORV_EVENT,
                "[OrvEVENT]#### Start ORV->SubProcess[PROC] Start Msg device index in os[%u] "
                "Proc[%s] fmkPid[%u] vfId[%d] fatherPid[%u] subPid[%u] #### profilingMode is[%d]",
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
        ORV_LOG(ORV_INFO, "[OrvDaemon] get pid[%u], aicpu proc name[%s] ",
                static_cast<uint32_t>(pid), procName.c_str());
    }
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] vfId[%d] ExecuteStart() end",
            deviceIdInOs_, sessionId_, fmkPid_, vfId_);
}

void OrvImpl::StartFailed(OrvSubProcessType type, int32_t pid) {
    OrvDaemon::GetInstance()->GenerateAlarmMessage(type, 0, fmkPid_, ALARM_REASON_FORK_FAILED);
    ORV_LOG(ORV_ERROR,
            "[OrvDaemon] ExecuteStart() process num > process max threshold or out of memory "
            "[pid=%d],[errno=%d]",
            pid, errno);
    perror("[OrvDaemon] ############### ExecuteStart fork() error: ##################");
}

bool OrvImpl::RecordForkedSubProcess(std::shared_ptr<ProcessHandle> child, uint32_t procType) {
    if (child == nullptr) {
        ORV_LOG(ORV_ERROR,
                "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] a sub-process of "
                "procType[%u] was killed by someone else before its exec",
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
            "[OrvDaemon] device index in os[%u] sessId[%u] fmkPid[%u] closing began during the "
            "start of subPid[%d], killed",
            deviceIdInOs_, sessionId_, fmkPid_, pid);
    return false;
}

void OrvImpl::ForgetEndedSubProcesses() {
    pidMutex_.AssertHeld();
    for (auto it = subProcHandles_.begin(); it != subProcHandles_.end();) {
        const int32_t pid = it->first;
        bool recorded =
            pid == computePid_ || pid == zarnPid_ || pid == queuePid_ || pid == customComputePid_;
        if (!recorded && it->second->Exited()) {
            it = subProcHandles_.erase(it);
        } else {
            ++it;
        }
    }
}

// ---- Sub-process launch ---------------------------------------------------------

uint32_t OrvImpl::CheckProcessInputParam(const std::string& path, const std::string& name) const {
    ORV_LOG(ORV_INFO,
            "[OrvDaemon] check pathName[%s], pathLen[%u] procName[%s], len[%u], MAX_LEN[%d] ",
            path.c_str(), static_cast<uint32_t>(path.size()), name.c_str(),
            static_cast<uint32_t>(name.size()), static_cast<int>(kProcessNameMaxLen));
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
        ORV_LOG(
            ORV_ERROR,
            "driver get chip id from device id failed, chipId[%d], deviceId[%d], drvRet is [%d].",
            chipId, static_cast<int32_t>(deviceIdInOs_), ret);
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

int32_t OrvImpl::ForkSubProcess(const std::string& path, const std::string& name,
                                OrvSubProcessType type, const std::vector<uint32_t>& ctrlCpus,
                                StartGate* gate) {
    uint32_t chipId = GetChipId();
    if (chipId == UINT32_MAX) {
        ORV_LOG(ORV_ERROR, "Get chip id from device id failed");
        return -1;
    }
    LaunchInputs inputs;
    inputs.type = type;
    inputs.path = path;
    inputs.name = name;
    inputs.chipId = chipId;
    inputs.hostPid = fmkPid_;
    inputs.pidSign = pidSign_;
    inputs.profilingMode = profilingMode_.load();
    inputs.logLevel = LogLevel();
    inputs.vfId = vfId_;
    inputs.deviceMode = deviceMode_;
    inputs.zebFlag = OrvDaemon::GetInstance()->GetZebFlag();
    inputs.ctrlCpus = ctrlCpus;
    if (GetProcessInfo(inputs) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon]GetProInfoStrInForkSubProcess return error.");
        return -1;
    }
    const LaunchPlan plan = PlanLaunch(inputs);
    if (plan.argv.empty()) {
        ORV_LOG(ORV_ERROR, "Fork sub process failed, unknown procType[%d]",
                static_cast<int32_t>(type));
        return -1;
    }
    OrvPexaClient* pexa = OrvPexaClient::GetInstance();
    std::function<void()> callback;
    if (!plan.iamName.empty()) {
        callback = [pexa, iamName = plan.iamName, takesPid = plan.iamNameTakesPid] {
            pexa->SendMessageToIAM(takesPid ? iamName + std::to_string(getpid()) : iamName);
        };
    }
    std::vector<char*> cArgv = CStrings(plan.argv);
    std::vector<char*> cEnvp = CStrings(plan.env);
    return ProcessUtil::StartAndBindSubProcess(plan.path, plan.cpus, cArgv.data(),
                                               plan.env.empty() ? nullptr : cEnvp.data(),
                                               plan.useExecv, plan.groups, callback, gate);
}

uint32_t OrvImpl::GetProcessInfo(LaunchInputs& inputs) {
    switch (inputs.type) {
        case COMPUTE: {
            if (GetGroupInfo(inputs.groupNum, inputs.groupName, inputs.type) != 0) {
                ORV_LOG(ORV_ERROR, "[OrvDaemon]GetGroupInfo return error.");
                return 1;
            }
            ORV_LOG(ORV_INFO,
                    "[OrvDaemon] Prepare to start aicpu with groupNum[%u] and groupName[%s]",
                    inputs.groupNum, inputs.groupName.c_str());
            GetEnv("DATAMASTER_RUN_MODE", inputs.dataMasterRunMode);
            MutexLock lock(&groupMutex_);
            inputs.hostGroups = groupNames_;
            return 0;
        }
        case ZARN:
            return 0;
        case CUSTOM_COMPUTE: {
            MutexLock pidLock(&pidMutex_);
            MutexLock groupLock(&groupMutex_);
            inputs.custSoPath = custSoPath_;
            inputs.computePid = computePid_;
            inputs.custGroupNameList = custGroupNameList_;
            inputs.custGroupNum = custGroupNum_;
            return 0;
        }
        case QUEUE_SCHEDULE: {
            GetEnv("QS_RESCHED_INTEVAL", inputs.reschedInterval);
            if (GetGroupInfo(inputs.groupNum, inputs.groupName, inputs.type) != 0) {
                ORV_LOG(ORV_ERROR, "[OrvDaemon]GetGroupInfo return error.");
                return 1;
            }
            MutexLock lock(&groupMutex_);
            ORV_LOG(ORV_INFO, "[OrvDaemon] Prepare to start qs with groupName[%s]",
                    qsGroupName_.c_str());
            inputs.qsGroupName = qsGroupName_;
            return 0;
        }
        default:
            ORV_LOG(ORV_ERROR, "Fork sub process failed, unknown procType[%d]",
                    static_cast<int32_t>(inputs.type));
            return 1;
    }
}

// ---- Buffer groups ----------------------------------------------------------------

uint32_t OrvImpl::GetHostGrpName() {
    ORV_LOG(ORV_INFO, "Start get host group name from host[%u]", fmkPid_);
    std::vector<char> output(kGroupEntrySize * kGroupEntryMax, 0);
    uint32_t hostPid = fmkPid_;
    uint32_t outputLength = static_cast<uint32_t>(output.size());
    drvError_t ret =
        halGrpQuery(kGroupQueryProcess, &hostPid, sizeof(hostPid), output.data(), &outputLength);
    if (ret == DRV_ERROR_NOT_SUPPORT) {
        ORV_LOG(ORV_INFO, "[OrvClient]Current version does not suppoted halGrpQuery");
        return 0;
    }
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon]Fail to query group info for pid[%u], ret[%d]", fmkPid_,
                ret);
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
            ORV_LOG(ORV_INFO,
                    "[OrvDaemon]GetHostGrpName execute success, get host group number[%u]",
                    groupNum);
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

}  // namespace orv
