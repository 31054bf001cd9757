// The launch table: what each kind of sub-process is started with, for the
// inputs that change it (the kind, VF or physical function, the ZEB flag, the
// profiling mode, buffer groups, environment values).
#include "session/launch_table.h"

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace orv {
namespace {

using Strings = std::vector<std::string>;

const char kVf3Env[] =
    "LD_LIBRARY_PATH=/usr/lib64/aicpu_kernels/3/aicpu_kernels_device/:"
    "/usr/lib64/aicpu_kernels/3/aicpu_kernels_device/sand_box/:";
const char kPhysicalEnv[] =
    "LD_LIBRARY_PATH=/usr/lib64/aicpu_kernels/0/aicpu_kernels_device/:"
    "/usr/lib64/aicpu_kernels/0/aicpu_kernels_device/sand_box/:";

// A session of host process 80 on VF 3 with a value for every kind set,
// so that a kind that takes a value it should not shows in its row.
LaunchInputs Inputs(OrvSubProcessType type, const std::string& path, const std::string& name) {
    LaunchInputs in;
    in.type = type;
    in.path = path;
    in.name = name;
    in.chipId = 0;
    in.hostPid = 80;
    in.pidSign = "SIG80";
    in.profilingMode = 2;
    in.logLevel = "104";
    in.vfId = 3;
    in.deviceMode = 0;
    in.zebFlag = false;
    in.ctrlCpus = {0, 1};
    in.groupNum = 1;
    in.groupName = "HOSTGRP";
    in.hostGroups = {"HOSTGRP"};
    in.dataMasterRunMode = "0";
    in.computePid = 4242;
    in.reschedInterval = "7";
    in.qsGroupName = "QSGRP";
    return in;
}

LaunchInputs Compute() {
    return Inputs(COMPUTE, kComputePath, kComputeName);
}
LaunchInputs Zarn() {
    return Inputs(ZARN, kZarnPath, kZarnName);
}
LaunchInputs Custom() {
    return Inputs(CUSTOM_COMPUTE, kCustomComputePath, kCustomComputeName);
}
LaunchInputs Queue() {
    return Inputs(QUEUE_SCHEDULE, kQueuePath, kQueueName);
}

struct Row {
    const char* name;
    std::function<LaunchInputs()> inputs;
    Strings argv;
    Strings env;
    Strings groups;
    bool useExecv;
    std::string iamName;
    bool iamNameTakesPid;
};

const Row kRows[] = {
    {"ComputeOnAVfGetsItsVfKernelsAndHostGroups",
     Compute,
     {"aicpu_runner", "--deviceId=0", "--pid=80", "--pidSign=SIG80", "--profilingMode=2",
      "--vfId=3", "--logLevelInPid=104", "--deviceMode=0", "--groupNameList=HOSTGRP",
      "--groupNameNum=1"},
     {kVf3Env, "DATAMASTER_RUN_MODE=0"},
     {"HOSTGRP"},
     false,
     "aicpu_rn_",
     true},
    {"ComputeOnThePhysicalFunctionWithoutGroupsOrRunMode",
     [] {
         LaunchInputs in = Compute();
         in.vfId = 0;
         in.chipId = 5;
         in.deviceMode = 1;
         in.profilingMode = 0;
         in.groupNum = 0;
         in.groupName.clear();
         in.hostGroups.clear();
         in.dataMasterRunMode.clear();
         return in;
     },
     {"aicpu_runner", "--deviceId=5", "--pid=80", "--pidSign=SIG80", "--profilingMode=0",
      "--vfId=0", "--logLevelInPid=104", "--deviceMode=1", "--groupNameList=", "--groupNameNum=0"},
     {kPhysicalEnv, "DATAMASTER_RUN_MODE="},
     {},
     false,
     "aicpu_rn_",
     true},
    {"ComputeIsGrantedEveryHostGroup",
     [] {
         LaunchInputs in = Compute();
         in.groupNum = 2;
         in.groupName = "G1,G2";
         in.hostGroups = {"G1", "G2"};
         return in;
     },
     {"aicpu_runner", "--deviceId=0", "--pid=80", "--pidSign=SIG80", "--profilingMode=2",
      "--vfId=3", "--logLevelInPid=104", "--deviceMode=0", "--groupNameList=G1,G2",
      "--groupNameNum=2"},
     {kVf3Env, "DATAMASTER_RUN_MODE=0"},
     {"G1", "G2"},
     false,
     "aicpu_rn_",
     true},
    {"ComputeOnZebKeepsTheDaemonsEnvironment",
     [] {
         LaunchInputs in = Compute();
         in.zebFlag = true;
         return in;
     },
     {"aicpu_runner", "--deviceId=0", "--pid=80", "--pidSign=SIG80", "--profilingMode=2",
      "--vfId=3", "--logLevelInPid=104", "--deviceMode=0", "--groupNameList=HOSTGRP",
      "--groupNameNum=1"},
     {kVf3Env, "DATAMASTER_RUN_MODE=0"},
     {"HOSTGRP"},
     true,
     "aicpu_rn_",
     true},
    {"ZarnTakesNeitherProfilingVfGroupsNorEnvironment",
     [] {
         LaunchInputs in = Zarn();
         in.hostPid = 81;
         in.pidSign = "SIG81";
         in.logLevel = "103";
         return in;
     },
     {"zarn_service.bin", "--deviceId=0", "--pid=81", "--pidSign=SIG81", "--logLevelInPid=103"},
     {},
     {},
     false,
     "",
     false},
    {"CustomIsToldTheComputePidAndNoGroupIsGranted",
     Custom,
     {"aicpu_custom_runner", "--deviceId=0", "--pid=80", "--pidSign=SIG80", "--profilingMode=2",
      "--custSoPath=", "--aicpuPid=4242", "--logLevelInPid=104", "--vfId=3",
      "--groupNameList=", "--groupNameNum=0"},
     {},
     {},
     false,
     "aicpu_rn_",
     true},
    {"CustomNamesTheRequestsGroupsAndAMissingComputeProcess",
     [] {
         LaunchInputs in = Custom();
         in.custSoPath = "/so";
         in.custGroupNameList = "G1,G2";
         in.custGroupNum = 2;
         in.computePid = -1;
         in.profilingMode = 4;
         in.zebFlag = true;
         return in;
     },
     {"aicpu_custom_runner", "--deviceId=0", "--pid=80", "--pidSign=SIG80", "--profilingMode=4",
      "--custSoPath=/so", "--aicpuPid=-1", "--logLevelInPid=104", "--vfId=3",
      "--groupNameList=G1,G2", "--groupNameNum=2"},
     {},
     {},
     true,
     "aicpu_rn_",
     true},
    {"QueueJoinsItsGroupAndRegistersWithItsPid",
     [] {
         LaunchInputs in = Queue();
         in.hostPid = 82;
         in.pidSign.clear();
         in.vfId = 0;
         return in;
     },
     {"queue_runner", "--deployMode=1", "--reschedInterval=7", "--deviceId=0", "--vfId=0",
      "--pidSign=", "--qsInitGroupName=QSGRP", "--pid=82"},
     {},
     {"QSGRP"},
     false,
     "queue_runner_",
     true},
    {"QueueOnZebWithoutGroupRegistersByItsBareName",
     [] {
         LaunchInputs in = Queue();
         in.zebFlag = true;
         in.qsGroupName.clear();
         in.reschedInterval.clear();
         return in;
     },
     {"queue_runner", "--deployMode=1", "--reschedInterval=", "--deviceId=0", "--vfId=3",
      "--pidSign=SIG80", "--qsInitGroupName=", "--pid=80"},
     {},
     {},
     true,
     "queue_runner",
     false},
};

// Names the row in the test's listing instead of dumping its bytes.
void PrintTo(const Row& row, std::ostream* os) {
    *os << row.name;
}

class LaunchTableTest : public ::testing::TestWithParam<Row> {};

TEST_P(LaunchTableTest, StartsTheKindAsItsRowSays) {
    const Row& row = GetParam();
    const LaunchInputs in = row.inputs();
    const LaunchPlan plan = PlanLaunch(in);
    EXPECT_EQ(plan.path, in.path);
    EXPECT_EQ(plan.argv, row.argv);
    EXPECT_EQ(plan.env, row.env);
    EXPECT_EQ(plan.groups, row.groups);
    EXPECT_EQ(plan.cpus, in.ctrlCpus);
    EXPECT_EQ(plan.useExecv, row.useExecv);
    EXPECT_EQ(plan.iamName, row.iamName);
    EXPECT_EQ(plan.iamNameTakesPid, row.iamNameTakesPid);
}

INSTANTIATE_TEST_SUITE_P(Rows, LaunchTableTest, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return info.param.name; });

TEST(LaunchTable, AnUnknownKindGetsNoCommandLine) {
    LaunchInputs in = Compute();
    in.type = static_cast<OrvSubProcessType>(4);
    const LaunchPlan plan = PlanLaunch(in);
    EXPECT_TRUE(plan.argv.empty());
}

}  // namespace
}  // namespace orv
