// The launch table: what a sub-process of each kind is started with (its
// executable, command line, environment, buffer groups and CPUs), worked out
// from plain values. The session gathers those values from its fields, the
// driver and the environment, logging as it goes; what the table makes of them
// depends on nothing else, so that the whole table can be read and tested
// away from the fork.
#ifndef ORV_SESSION_LAUNCH_TABLE_H
#define ORV_SESSION_LAUNCH_TABLE_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/orv_codes.h"

namespace orv {

// The four kinds of sub-process; the same numbers travel in events and alarms.
enum OrvSubProcessType : uint32_t {
    ZARN = 0,            // collective-communication service, /var/zarn_service.bin
    COMPUTE = 1,         // compute scheduler, /var/aicpu_runner
    CUSTOM_COMPUTE = 2,  // custom-kernel compute scheduler, /var/aicpu_custom_runner
    QUEUE_SCHEDULE = 3,  // queue scheduler, /var/queue_runner
};

// The command-line pieces of one launch, each a whole "--flag=value" (or path).
struct ProcessInfo {
    std::string deviceIdArg;
    std::string pidArg;
    std::string pidSignArg;
    std::string profilingModeArg;
    std::string logLevelArg;
    std::string vfIdArg;
    std::string kernelsPath;
    std::string sandboxPath;
    std::string ldLibraryPathEnv;
    std::string groupNameListArg;
    std::string groupNameNumArg;
    std::string dataMasterRunModeEnv;
    std::string deviceModeArg;
    std::string custSoPathArg;
    std::string aicpuPidArg;
    std::string deployModeArg;
    std::string qsInitGroupNameArg;
    std::string groupName;
    std::string reschedIntervalArg;
    uint32_t groupNum = 0;
};

// Everything a launch depends on, as the session read it just before the fork.
// The fields under a kind are read for that kind only.
struct LaunchInputs {
    OrvSubProcessType type = ZARN;
    std::string path;  // the executable
    std::string name;  // argv[0]
    // The chip of the session's device: the device itself unless the device
    // mode maps it to a chip.
    uint32_t chipId = 0;
    uint32_t hostPid = 0;
    std::string pidSign;
    uint32_t profilingMode = 0;
    std::string logLevel;
    int32_t vfId = 0;
    uint32_t deviceMode = 0;
    // The daemon's ZEB flag.
    bool zebFlag = false;
    // The device's control CPUs.
    std::vector<uint32_t> ctrlCpus;

    // COMPUTE: the host's buffer groups as counted and joined by GetGroupInfo,
    // the groups the process is granted, and DATAMASTER_RUN_MODE ("" unset).
    uint32_t groupNum = 0;
    std::string groupName;
    std::vector<std::string> hostGroups;
    std::string dataMasterRunMode;

    // CUSTOM_COMPUTE: what the compute process's request named, and that
    // process's pid (-1 when none runs).
    std::string custSoPath;
    int32_t computePid = -1;
    std::string custGroupNameList;
    uint32_t custGroupNum = 0;

    // QUEUE_SCHEDULE: QS_RESCHED_INTEVAL ("" unset) and the group the
    // scheduler starts with ("" none).
    std::string reschedInterval;
    std::string qsGroupName;
};

// How one sub-process is started.
struct LaunchPlan {
    std::string path;
    // argv[0] is the name; empty for a kind the table does not know.
    std::vector<std::string> argv;
    // The child's whole environment; empty gives it none. Ignored with useExecv.
    std::vector<std::string> env;
    // Exec keeping the daemon's own environment (the ZEB platform).
    bool useExecv = false;
    // Buffer groups the child is granted before its exec.
    std::vector<std::string> groups;
    // CPUs the child starts bound to.
    std::vector<uint32_t> cpus;
    // The name the child registers with the identity service before its exec,
    // with its own pid appended when iamNameTakesPid; empty: it registers none.
    std::string iamName;
    bool iamNameTakesPid = false;
};

// The launch table's entry for `in.type`, filled from `in`.
LaunchPlan PlanLaunch(const LaunchInputs& in);

}  // namespace orv

#endif  // ORV_SESSION_LAUNCH_TABLE_H
