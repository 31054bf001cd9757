#include "session/launch_table.h"

namespace orv {

namespace {

// Both compute processes register under this prefix, the custom one included.
constexpr char kComputeIamPrefix[] = "aicpu_rn_";

// The pieces every kind draws on, and those of `in.type`.
ProcessInfo PiecesOf(const LaunchInputs& in) {
    const std::string kernelsPath =
        kKernelsRoot + std::to_string(in.vfId) + "/aicpu_kernels_device/";
    ProcessInfo info;
    info.deviceIdArg = "--deviceId=" + std::to_string(static_cast<int32_t>(in.chipId));
    info.pidArg = "--pid=" + std::to_string(in.hostPid);
    info.pidSignArg = "--pidSign=" + in.pidSign;
    info.profilingModeArg = "--profilingMode=" + std::to_string(in.profilingMode);
    info.logLevelArg = "--logLevelInPid=" + in.logLevel;
    info.vfIdArg = "--vfId=" + std::to_string(in.vfId);
    info.kernelsPath = kernelsPath;
    info.sandboxPath = kernelsPath + "sand_box" + "/";
    info.ldLibraryPathEnv = "LD_LIBRARY_PATH=" + info.kernelsPath + ":" + info.sandboxPath + ":";
    switch (in.type) {
        case COMPUTE:
            info.groupNum = in.groupNum;
            info.groupName = in.groupName;
            info.groupNameListArg = "--groupNameList=" + in.groupName;
            info.groupNameNumArg = "--groupNameNum=" + std::to_string(in.groupNum);
            info.dataMasterRunModeEnv = "DATAMASTER_RUN_MODE=" + in.dataMasterRunMode;
            info.deviceModeArg = "--deviceMode=" + std::to_string(in.deviceMode);
            break;
        case CUSTOM_COMPUTE:
            info.custSoPathArg = "--custSoPath=" + in.custSoPath;
            info.aicpuPidArg = "--aicpuPid=" + std::to_string(in.computePid);
            info.groupNameListArg = "--groupNameList=" + in.custGroupNameList;
            info.groupNameNumArg = "--groupNameNum=" + std::to_string(in.custGroupNum);
            break;
        case QUEUE_SCHEDULE:
            info.deployModeArg = "--deployMode=1";
            info.reschedIntervalArg = "--reschedInterval=" + in.reschedInterval;
            info.qsInitGroupNameArg = "--qsInitGroupName=" + in.qsGroupName;
            break;
        default:
            break;
    }
    return info;
}

}  // namespace

LaunchPlan PlanLaunch(const LaunchInputs& in) {
    const ProcessInfo info = PiecesOf(in);
    LaunchPlan plan;
    plan.path = in.path;
    plan.useExecv = in.zebFlag;
    plan.cpus = in.ctrlCpus;
    std::vector<std::string>& argv = plan.argv;
    argv = {in.name};
    switch (in.type) {
        case COMPUTE:
            argv.insert(argv.end(),
                        {info.deviceIdArg, info.pidArg, info.pidSignArg, info.profilingModeArg,
                         info.vfIdArg, info.logLevelArg, info.deviceModeArg, info.groupNameListArg,
                         info.groupNameNumArg});
            plan.env = {info.ldLibraryPathEnv, info.dataMasterRunModeEnv};
            plan.groups = in.hostGroups;
            plan.iamName = kComputeIamPrefix;
            plan.iamNameTakesPid = true;
            break;
        case ZARN:
            argv.insert(argv.end(),
                        {info.deviceIdArg, info.pidArg, info.pidSignArg, info.logLevelArg});
            break;
        case CUSTOM_COMPUTE:
            argv.insert(argv.end(),
                        {info.deviceIdArg, info.pidArg, info.pidSignArg, info.profilingModeArg,
                         info.custSoPathArg, info.aicpuPidArg, info.logLevelArg, info.vfIdArg,
                         info.groupNameListArg, info.groupNameNumArg});
            plan.iamName = kComputeIamPrefix;
            plan.iamNameTakesPid = true;
            break;
        case QUEUE_SCHEDULE:
            argv.insert(argv.end(),
                        {info.deployModeArg, info.reschedIntervalArg, info.deviceIdArg,
                         info.vfIdArg, info.pidSignArg, info.qsInitGroupNameArg, info.pidArg});
            if (!in.qsGroupName.empty()) {
                plan.groups.push_back(in.qsGroupName);
            }
            // On the ZEB platform the identity service knows the scheduler by
            // its bare name.
            if (in.zebFlag) {
                plan.iamName = kQueueName;
            } else {
                plan.iamName = std::string(kQueueName) + "_";
                plan.iamNameTakesPid = true;
            }
            break;
        default:
            argv.clear();
            break;
    }
    return plan;
}

}  // namespace orv
