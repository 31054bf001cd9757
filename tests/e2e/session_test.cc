// Sessions and their sub-processes, driven through orv-host against a booted
// sandbox: what starts, with which command line, environment, affinity and
// groups; the answers the host gets; supervision, close and clean-up; and
// the stand-ins' misbehaviours chosen through orv-emu-ctl.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/driver/card_client.h"
#include "emu/host/host_link.h"
#include "emu/host/host_request.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::EmuCtl;
using test::Host;
using test::SandboxRun;
using test::StandinRecord;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t kZarn = 0;
constexpr uint32_t kCompute = 1;
constexpr uint32_t kCustom = 2;
constexpr uint32_t kQueue = 3;

class SessionTest : public ::testing::Test {
  protected:
    void Boot(const std::vector<std::string>& args = {}) { ASSERT_TRUE(sandbox_.Boot(args)); }

    // Runs a session script; fails the test when a step's expectation fails.
    std::string Session(const std::string& script) {
        std::string output;
        EXPECT_EQ(Host(sandbox_, {"session"}, &output, script), 0) << output;
        return output;
    }

    void Standin(const std::string& kind, const std::string& behaviour, int delayMs = 0) {
        std::string output;
        ASSERT_EQ(EmuCtl(sandbox_, {"standin", kind, behaviour, std::to_string(delayMs)}, &output),
                  0)
            << output;
    }

    std::vector<StandinRecord> OfKind(uint32_t kind) {
        return test::StandinRecordsOfKind(sandbox_, kind);
    }

    bool Running(const std::string& name) { return sandbox_.Enter({"pidof", name}) == 0; }

    std::unique_ptr<host::HostLink> Hold() { return test::HoldLink(sandbox_); }

    // Sends a request on a held link and waits for the reply of `replyType`.
    static HDCMessage Ask(host::HostLink& link, HDCMessage::MsgType type, uint32_t hostPid, bool cp,
                          HDCMessage::MsgType replyType, std::chrono::milliseconds timeout = 10s) {
        HDCMessage request;
        request.set_type(type);
        request.mutable_proc_sign_pid()->set_proc_pid(hostPid);
        request.set_start_cp(cp);
        EXPECT_TRUE(link.Send(request));
        HDCMessage reply;
        if (link.Await(replyType, &reply, timeout) != host::Received::kMessage) {
            ADD_FAILURE() << "no reply of type " << replyType;
            return HDCMessage();
        }
        return reply;
    }

    SandboxRun sandbox_;
};

TEST_F(SessionTest, ComputeAloneOnAVfStartsOnlyComputeAndItsReportAnswers) {
    Boot({"--vfs", "1"});
    std::string output = Session(
        "open a\n"
        "send a start --pid 50 --vf 1 --cp --zarn\n"
        "expect a 8 --code 0 --timeout 10000\n"
        "expect-none a --timeout 1000\n");
    EXPECT_EQ(OfKind(kCompute).size(), 1u);
    EXPECT_THAT(OfKind(kZarn), IsEmpty());
    EXPECT_TRUE(sandbox_.Log().Contains("vfid[1] skip run zarn process"));
}

TEST_F(SessionTest, ComputeAndCollectiveServiceAreAnsweredOnceBothReported) {
    Boot();
    Standin("zarn", "delay-start", 1500);
    Session(
        "open a\n"
        "send a start --pid 51 --cp --zarn\n"
        "expect a 8 --code 0 --timeout 10000\n"
        "expect-none a --timeout 1000\n");
    ASSERT_EQ(OfKind(kZarn).size(), 1u);
    ASSERT_EQ(OfKind(kCompute).size(), 1u);
    EXPECT_TRUE(
        sandbox_.Log().InOrder({"EventSer->ORV RspMsg device index in os[0] Start Rsp procType[1]",
                                "EventSer->ORV RspMsg device index in os[0] Start Rsp procType[0]",
                                "[OrvEVENT] #### Start Rsp ORV->FMK device index in os[0]"}));
    EXPECT_EQ(sandbox_.Log().Count("[OrvEVENT] #### Start Rsp ORV->FMK"), 1u);
}

// The stand-in listens for control events from its start on, but answers a
// close only once it has reported its start, as before it listened early.
TEST_F(SessionTest, ACloseDuringASlowStartFollowsTheStartAnswer) {
    Boot();
    Standin("compute", "delay-start", 1500);
    auto link = Hold();
    HDCMessage start;
    start.set_type(HDCMessage::ORV_START_PROC_MSG);
    start.mutable_proc_sign_pid()->set_proc_pid(52);
    start.set_start_cp(true);
    ASSERT_TRUE(link->Send(start));
    // The close comes while the compute process listens but has not reported;
    // sent any sooner, the scheduler would refuse it, as the card's does.
    ASSERT_TRUE(test::WaitFor(
        [&] { return OfKind(kCompute).size() == 1 && OfKind(kCompute)[0].Has("listening"); }, 30s));
    HDCMessage close;
    close.set_type(HDCMessage::ORV_CLOSE_PROC_MSG);
    close.mutable_proc_sign_pid()->set_proc_pid(52);
    ASSERT_TRUE(link->Send(close));
    std::vector<int> answers;
    HDCMessage reply;
    while (answers.size() < 2 && link->Next(&reply, 30s) == host::Received::kMessage) {
        answers.push_back(reply.type());
        EXPECT_EQ(reply.orv_rsp_code(), 0u);
    }
    EXPECT_THAT(answers,
                ElementsAre(HDCMessage::ORV_START_PROC_RSP, HDCMessage::ORV_CLOSE_PROC_RSP));
    std::vector<std::string> notes = OfKind(kCompute)[0].notes;
    auto started = std::find(notes.begin(), notes.end(), "sent 0 rc 0");  // the start report
    auto closing = std::find(notes.begin(), notes.end(), "close_request");
    ASSERT_NE(started, notes.end());
    ASSERT_NE(closing, notes.end());
    EXPECT_LT(started, closing) << ::testing::PrintToString(notes);
}

TEST_F(SessionTest, QueueStartRunsOnlyTheQueueRunnerInTheDefaultGroup) {
    Boot({"--env", "STARTUP_QS=1"});
    Session(
        "open a\n"
        "send a start-qs --pid 60 --cp --zarn\n"
        "expect a 8 --code 0 --timeout 10000\n");
    std::vector<StandinRecord> queues = OfKind(kQueue);
    ASSERT_EQ(queues.size(), 1u);
    EXPECT_THAT(queues[0].argv, ::testing::Contains("--qsInitGroupName=DEFAULT_MEM_GROUP"));
    EXPECT_THAT(queues[0].groups, ElementsAre("DEFAULT_MEM_GROUP 15"));
    EXPECT_THAT(OfKind(kCompute), IsEmpty());
    EXPECT_THAT(OfKind(kZarn), IsEmpty());
}

TEST_F(SessionTest, ARepeatedStartIsAnsweredAtOnceWithoutASecondCompute) {
    Boot();
    Session(
        "open a\n"
        "send a start --pid 52 --cp\n"
        "expect a 8 --code 0 --timeout 10000\n"
        "send a start --pid 52 --cp\n"
        "expect a 8 --code 0 --timeout 2000\n");
    EXPECT_EQ(OfKind(kCompute).size(), 1u);
    EXPECT_TRUE(sandbox_.Log().Contains("hostPid[52] has already exist!"));
}

TEST_F(SessionTest, AStartNotReportedInTimeIsAnsweredOnceWithWhatIsMissing) {
    Boot();
    // Reports, but only after the start has timed out.
    Standin("compute", "delay-start", 28000);
    auto link = Hold();
    auto started = std::chrono::steady_clock::now();
    HDCMessage reply =
        Ask(*link, HDCMessage::ORV_START_PROC_MSG, 70, true, HDCMessage::ORV_START_PROC_RSP, 40s);
    auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(reply.orv_rsp_code(), 1u);
    EXPECT_EQ(reply.error_info().message(), " aicpu init failed, device[0], host pid[70]");
    EXPECT_GE(waited, 20s) << "answered on the 25th monitor tick, not before";
    EXPECT_TRUE(sandbox_.Log().WaitFor("], but timeout occurred", 15s));
    HDCMessage late;
    EXPECT_EQ(link->Next(&late, 1s), host::Received::kTimeout) << "no second answer";
    EXPECT_EQ(sandbox_.Log().Count("[OrvEVENT] #### Start Rsp ORV->FMK"), 1u);
}

TEST_F(SessionTest, EveryKindIsLaunchedAsTheLaunchTableSays) {
    Boot({"--env", "AICPU_ADD_BUFFERGROUP=1", "--env", "DATAMASTER_RUN_MODE=0", "--env",
          "QS_RESCHED_INTEVAL=7", "--vfs", "3"});
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"group", "create", "HOSTGRP"}, &output), 0) << output;
    ASSERT_EQ(EmuCtl(sandbox_, {"group", "add", "HOSTGRP", "80"}, &output), 0) << output;
    Standin("compute", "ask-custom", 200);
    // Each session lives as long as its link: all three are held until the
    // compute process's custom process has run.
    std::vector<std::unique_ptr<host::HostLink>> links;
    for (const auto& [command, fields] : std::vector<std::pair<std::string, std::string>>{
             {"start",
              "--pid 80 --vf 3 --cp --sign SIG80 --profiling 2 --log-level 104 "
              "--device-mode 0"},
             {"start", "--pid 81 --zarn --sign SIG81"},
             {"start-qs", "--pid 82 --group HOSTGRP"}}) {
        links.push_back(Hold());
        ASSERT_TRUE(links.back()->Send(host::BuildRequest(command, host::Words(fields), 0).msg));
        HDCMessage reply;
        ASSERT_EQ(links.back()->Await(HDCMessage::ORV_START_PROC_RSP, &reply, 10s),
                  host::Received::kMessage)
            << command << " " << fields;
        EXPECT_EQ(reply.orv_rsp_code(), 0u) << command << " " << fields;
    }
    ASSERT_TRUE(test::WaitFor([&] { return OfKind(kCustom).size() == 1; }, 30s));

    std::vector<StandinRecord> computes = OfKind(kCompute);
    ASSERT_EQ(computes.size(), 1u);
    const StandinRecord& compute = computes[0];
    EXPECT_THAT(compute.argv,
                ElementsAre("aicpu_runner", "--deviceId=0", "--pid=80", "--pidSign=SIG80",
                            "--profilingMode=2", "--vfId=3", "--logLevelInPid=104",
                            "--deviceMode=0", "--groupNameList=HOSTGRP", "--groupNameNum=1"));
    EXPECT_THAT(compute.env,
                ElementsAre("LD_LIBRARY_PATH=/usr/lib64/aicpu_kernels/3/aicpu_kernels_device/:"
                            "/usr/lib64/aicpu_kernels/3/aicpu_kernels_device/sand_box/:",
                            "DATAMASTER_RUN_MODE=0"));
    EXPECT_THAT(compute.affinity, ElementsAre(0));
    EXPECT_THAT(compute.groups, ElementsAre("HOSTGRP 15"));

    std::vector<StandinRecord> zarns = OfKind(kZarn);
    ASSERT_EQ(zarns.size(), 1u);
    EXPECT_THAT(zarns[0].argv, ElementsAre("zarn_service.bin", "--deviceId=0", "--pid=81",
                                           "--pidSign=SIG81", "--logLevelInPid=103"));
    EXPECT_THAT(zarns[0].env, IsEmpty());
    EXPECT_THAT(zarns[0].affinity, ElementsAre(0));

    std::vector<StandinRecord> queues = OfKind(kQueue);
    ASSERT_EQ(queues.size(), 1u);
    EXPECT_THAT(queues[0].argv,
                ElementsAre("queue_runner", "--deployMode=1", "--reschedInterval=7", "--deviceId=0",
                            "--vfId=0", "--pidSign=", "--qsInitGroupName=HOSTGRP", "--pid=82"));
    EXPECT_THAT(queues[0].env, IsEmpty());
    EXPECT_THAT(queues[0].groups, ElementsAre("HOSTGRP 15"));

    std::vector<StandinRecord> customs = OfKind(kCustom);
    ASSERT_EQ(customs.size(), 1u);
    EXPECT_THAT(customs[0].argv,
                ElementsAre("aicpu_custom_runner", "--deviceId=0", "--pid=80", "--pidSign=SIG80",
                            "--profilingMode=2", "--custSoPath=",
                            "--aicpuPid=" + std::to_string(compute.pid), "--logLevelInPid=104",
                            "--vfId=3", "--groupNameList=", "--groupNameNum=0"));
    EXPECT_THAT(customs[0].env, IsEmpty());
    EXPECT_THAT(customs[0].affinity, ElementsAre(0));
}

TEST_F(SessionTest, WithoutTheBufferGroupSwitchTheHostsGroupsAreNotAsked) {
    Boot();
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"group", "create", "HOSTGRP"}, &output), 0) << output;
    ASSERT_EQ(EmuCtl(sandbox_, {"group", "add", "HOSTGRP", "83"}, &output), 0) << output;
    Session("open a\nsend a start --pid 83 --cp\nexpect a 8 --code 0 --timeout 10000\n");
    std::vector<StandinRecord> computes = OfKind(kCompute);
    ASSERT_EQ(computes.size(), 1u);
    EXPECT_THAT(computes[0].argv, ::testing::Contains("--groupNameList="));
    EXPECT_THAT(computes[0].argv, ::testing::Contains("--groupNameNum=0"));
    EXPECT_THAT(computes[0].groups, IsEmpty());
    EXPECT_THAT(computes[0].env, ::testing::Contains("DATAMASTER_RUN_MODE="));
}

TEST_F(SessionTest, CloseIsAnsweredOnceAndEndsTheLinkAndTheProcesses) {
    Boot();
    Session(
        "open a\n"
        "send a start --pid 53 --cp --zarn\n"
        "expect a 8 --code 0 --timeout 10000\n"
        "send a close --pid 53\n"
        "expect a 9 --code 0 --timeout 10000\n"
        "expect-closed a\n");
    EXPECT_EQ(sandbox_.Log().Count("[OrvEVENT] #### Close Rsp ORV->FMK"), 1u);
    for (uint32_t kind : {kZarn, kCompute}) {
        std::vector<StandinRecord> records = OfKind(kind);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_TRUE(records[0].Has("close_request"));
    }
    EXPECT_FALSE(Running("aicpu_runner"));
    EXPECT_FALSE(Running("zarn_service.bin"));
}

// A sub-process execs only once the daemon has recorded it. Here every grant
// of a buffer group answers the daemon late (the grant itself is in effect at
// once), so a process that did not wait could report, and the host be
// answered, while its start worker still waited to record it; the close sent
// the moment the start is answered would then find no process to close.
TEST_F(SessionTest, ACloseSentTheMomentTheStartIsAnsweredIsAnswered) {
    Boot({"--env", "AICPU_ADD_BUFFERGROUP=1", "--env", "STARTUP_QS=1"});
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"group", "create", "HOSTGRP"}, &output), 0) << output;
    for (int cycle = 0; cycle < 8; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        const std::string pid = std::to_string(300 + cycle);
        const std::string start = cycle % 2 == 0 ? "start --cp" : "start-qs";
        ASSERT_EQ(EmuCtl(sandbox_, {"group", "add", "HOSTGRP", pid}, &output), 0) << output;
        ASSERT_EQ(EmuCtl(sandbox_, {"slow", "halGrpAddProc", "400"}, &output), 0) << output;
        Session(
            "open a\n"
            "send a " +
            start + " --pid " + pid +
            "\n"
            "expect a 8 --code 0 --timeout 10000\n"
            "send a close --pid " +
            pid +
            "\n"
            "expect a 9 --code 0 --timeout 8000\n"
            "expect-closed a\n");
    }
    EXPECT_FALSE(sandbox_.Log().Contains("closing began during the start"));
    EXPECT_TRUE(
        test::WaitFor([&] { return !Running("aicpu_runner") && !Running("queue_runner"); }, 5s));
    for (uint32_t kind : {kCompute, kQueue}) {
        for (const StandinRecord& record : OfKind(kind)) {
            EXPECT_THAT(record.groups, ::testing::Contains(::testing::StartsWith(
                                           kind == kCompute ? "HOSTGRP " : "DEFAULT_MEM_GROUP ")))
                << "granted before it ran";
        }
    }
}

// A driver fault is the daemon's to meet: the stand-ins' start reports pass,
// and the daemon's close request is the submit that fails. The close then
// waits for a report that cannot come, until the host gives up on the link;
// the clean-up kills the process that never heard of the close.
TEST_F(SessionTest, AnInjectedSubmitFaultFailsTheDaemonsCloseRequestNotTheStartReport) {
    Boot();
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"fail", "halEschedSubmitEvent", "5", "1"}, &output), 0) << output;
    Session(
        "open a\n"
        "send a start --pid 57 --cp\n"
        "expect a 8 --code 0 --timeout 10000\n"
        "send a close --pid 57\n"
        "expect-none a --timeout 7000\n"
        "drop a\n");
    EXPECT_TRUE(sandbox_.Log().Contains("[OrvDaemon] ExecuteClose OrvEventServer SendData failed"));
    EXPECT_TRUE(sandbox_.Log().Contains("halEschedSubmitEvent to dev[0] pid["));
    EXPECT_TRUE(test::WaitFor([&] { return !Running("aicpu_runner"); }, 10s));
    std::vector<StandinRecord> computes = OfKind(kCompute);
    ASSERT_EQ(computes.size(), 1u);
    EXPECT_FALSE(computes[0].Has("close_request"));
}

TEST_F(SessionTest, TheCustomProcessStartsOnceOnTheComputeProcessesRequest) {
    Boot();
    Standin("compute", "ask-custom", 200);
    auto link = Hold();
    EXPECT_EQ(Ask(*link, HDCMessage::ORV_START_PROC_MSG, 54, true, HDCMessage::ORV_START_PROC_RSP)
                  .orv_rsp_code(),
              0u);
    // The compute process asks once, and once more when the custom process runs.
    ASSERT_TRUE(test::WaitFor(
        [&] { return OfKind(kCustom).size() == 1 && !OfKind(kCustom)[0].notes.empty(); }, 10s));
    ASSERT_TRUE(test::WaitFor(
        [&] {
            std::vector<StandinRecord> computes = OfKind(kCompute);
            return computes.size() == 1 && computes[0].Count("asked for custom") == 2;
        },
        10s));
    EXPECT_TRUE(sandbox_.Log().WaitFor("[OrvDaemon] cust-aicpu-rn has already run.", 5s));
    HDCMessage profiling;
    profiling.set_type(HDCMessage::ORV_UPDATE_PROIFILING_MSG);
    profiling.mutable_proc_sign_pid()->set_proc_pid(54);
    profiling.set_profiling_mode(9);
    HDCMessage reply;
    ASSERT_TRUE(link->Send(profiling));
    ASSERT_EQ(link->Await(HDCMessage::ORV_UPDATE_PROIFILING_RSP, &reply, 10s),
              host::Received::kMessage);
    EXPECT_EQ(reply.orv_rsp_code(), 0u);
    // Each process notes the profiling change when it reads it.
    EXPECT_TRUE(test::WaitFor(
        [&] { return OfKind(kCompute)[0].Has("profiling 9 host_pid 54 sub 4"); }, 5s));
    EXPECT_TRUE(test::WaitFor(
        [&] { return OfKind(kCustom)[0].Has("profiling 9 host_pid 54 sub 12"); }, 5s));
    StandinRecord compute = OfKind(kCompute)[0];
    StandinRecord custom = OfKind(kCustom)[0];
    EXPECT_EQ(compute.Count("custom_started " + std::to_string(custom.pid)), 1u)
        << "the second request brings no second reply";
    EXPECT_TRUE(test::WaitFor([&] { return OfKind(kCustom)[0].Has("load_so libcust_op.so"); }, 5s));
}

TEST_F(SessionTest, ProfilingBeforeEverythingReportedIsRefusedAndReachesNobody) {
    Boot();
    Standin("compute", "no-start");
    // The session lives as long as this link: dropped before the daemon had
    // forked, it would take the compute process's start with it.
    auto link = Hold();
    ASSERT_TRUE(link->Send(host::BuildRequest("start", host::Words("--pid 55 --cp"), 0).msg));
    ASSERT_TRUE(test::WaitFor(
        [&] { return OfKind(kCompute).size() == 1 && OfKind(kCompute)[0].Has("listening"); }, 30s));
    ASSERT_TRUE(
        link->Send(host::BuildRequest("profiling", host::Words("--pid 55 --profiling 4"), 0).msg));
    HDCMessage reply;
    ASSERT_EQ(link->Await(HDCMessage::ORV_UPDATE_PROIFILING_RSP, &reply, 10s),
              host::Received::kMessage);
    EXPECT_EQ(reply.orv_rsp_code(), 1u);
    link.reset();
    ASSERT_TRUE(test::WaitFor([&] { return !Running("aicpu_runner"); }, 10s));
    EXPECT_FALSE(OfKind(kCompute)[0].Has("profiling"));
}

TEST_F(SessionTest, AKernelTimeOutOfTheCustomProcessEndsOnlyIt) {
    Boot();
    Standin("compute", "ask-custom", 200);
    Standin("custom", "kernel-timeout", 300);
    auto link = Hold();
    EXPECT_EQ(Ask(*link, HDCMessage::ORV_START_PROC_MSG, 56, true, HDCMessage::ORV_START_PROC_RSP)
                  .orv_rsp_code(),
              0u);
    ASSERT_TRUE(test::WaitFor([&] { return OfKind(kCustom).size() == 1; }, 5s));
    EXPECT_TRUE(test::WaitFor([&] { return !Running("aicpu_custom_runner"); }, 5s));
    EXPECT_TRUE(Running("aicpu_runner"));
    EXPECT_EQ(Ask(*link, HDCMessage::ORV_UPDATE_PROIFILING_MSG, 56, false,
                  HDCMessage::ORV_UPDATE_PROIFILING_RSP)
                  .orv_rsp_code(),
              0u)
        << "the session is still there";
    EXPECT_FALSE(sandbox_.Log().Contains("kernel execute time out"));
}

TEST_F(SessionTest, AKernelTimeOutOfTheComputeProcessEndsTheSession) {
    Boot();
    Standin("compute", "kernel-timeout", 500);
    Session(
        "open a\n"
        "send a start --pid 57 --cp --zarn\n"
        "expect a 8 --code 0 --timeout 10000\n"
        "expect-closed a --timeout 5000\n");
    // Both lines follow the clean-up, which the host may see end before them.
    EXPECT_TRUE(sandbox_.Log().WaitFor("kernel execute time out.", 5s));
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "[OrvDaemon] Success to delete OrvImpl with deviceId[0] vfId[0] hostPid[57].", 5s));
    EXPECT_TRUE(test::WaitFor(
        [&] { return !Running("aicpu_runner") && !Running("zarn_service.bin"); }, 5s));
    // The session is gone: the host pid is unknown now.
    Session(
        "open b\n"
        "send b profiling --pid 57 --profiling 1\n"
        "expect b 31 --code 1\n");
}

// Records the compute process could send, put in the daemon's queue by the
// card on its behalf: malformed, for no session, or of no known kind.
TEST_F(SessionTest, MalformedAndStrayRecordsAreDroppedWithTheirLogLines) {
    Boot();
    auto link = Hold();
    EXPECT_EQ(Ask(*link, HDCMessage::ORV_START_PROC_MSG, 100, true, HDCMessage::ORV_START_PROC_RSP)
                  .orv_rsp_code(),
              0u);
    ASSERT_EQ(OfKind(kCompute).size(), 1u);
    const std::string compute = std::to_string(OfKind(kCompute)[0].pid);
    struct Case {
        std::vector<std::string> event;
        const char* logged;
    };
    const Case cases[] = {
        {{"0", "--length", "127", "--host-pid", "100"},
         "Incorrect msg length[127], correct msg length[128]"},
        {{"1", "--length", "129", "--host-pid", "100"},
         "Incorrect msg length[129], correct msg length[128]"},
        {{"2", "--length", "127", "--host-pid", "100"},
         "Incorrect msg length[127],correct msg length[128] for OrvCustStartEventInfo"},
        {{"0", "--host-pid", "999"},
         "Get OrvImpl in deviceId[0] hostPid[999] vfId[0] is nullptr, skip"},
        {{"0", "--host-pid", "100", "--proc-type", "4"},
         "Check subProcPid fail, skip event server to orv process."},
        {{"3", "--host-pid", "100"}, "[OrvDaemon] Error invalid subEvnetid[3] recieved."},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"inject-event", "--src-pid", compute};
        args.insert(args.begin() + 1, c.event.begin(), c.event.end());
        std::string output;
        ASSERT_EQ(EmuCtl(sandbox_, args, &output), 0) << output;
        EXPECT_TRUE(sandbox_.Log().WaitFor(c.logged, 5s)) << c.logged;
    }
    EXPECT_EQ(sandbox_.Log().Count("[OrvEVENT] #### Start Rsp ORV->FMK"), 1u)
        << "nothing was answered again";
}

// A close report's pid is the sub-process's word; one that is no process's
// (as a pid_t it would mean every process) comes from no sub-process of the
// session: nothing is waited on, killed or answered.
TEST_F(SessionTest, ACloseReportWithAnImpossiblePidSignalsNothing) {
    Boot();
    auto link = Hold();
    EXPECT_EQ(Ask(*link, HDCMessage::ORV_START_PROC_MSG, 100, true, HDCMessage::ORV_START_PROC_RSP)
                  .orv_rsp_code(),
              0u);
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_,
                     {"inject-event", "1", "--host-pid", "100", "--proc-type", "1", "--src-pid",
                      "4294967295"},
                     &output),
              0)
        << output;
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "from pid[4294967295] for deviceId[0] hostPid[100] vfId[0] comes from none", 5s));
    HDCMessage reply;
    EXPECT_EQ(link->Next(&reply, 1s), host::Received::kTimeout)
        << "answered: " << reply.ShortDebugString();
    EXPECT_EQ(EmuCtl(sandbox_, {"devices"}, &output), 0)
        << "the card emulator was killed: " << output;
    EXPECT_FALSE(sandbox_.Log().Contains("need to be killed"));
    EXPECT_TRUE(Running("aicpu_runner"));
}

TEST_F(SessionTest, AProcessThatReportsClosedButStaysIsKilled) {
    Boot();
    Standin("compute", "stay-after-close");
    Session(
        "open a\n"
        "send a start --pid 58 --cp\n"
        "expect a 8 --code 0 --timeout 10000\n"
        "send a close --pid 58\n"
        "expect a 9 --code 0 --timeout 15000\n");
    EXPECT_TRUE(sandbox_.Log().Contains("exit failed on device index in os[0], need to be killed"));
    EXPECT_TRUE(sandbox_.Log().Contains("CheckAndWaitSubProcessExit() kill subprocess"));
    EXPECT_FALSE(Running("aicpu_runner"));
}

TEST_F(SessionTest, ACrashedCollectiveServiceDropsTheLinkOnceAndFreesItsBuffers) {
    Boot();
    Standin("zarn", "crash", 1000);
    Session(
        "open a\n"
        "send a start --pid 59 --cp --zarn\n"
        "expect a 8 --code 0 --timeout 10000\n"
        "expect-closed a --timeout 10000\n");
    std::vector<StandinRecord> zarns = OfKind(kZarn);
    ASSERT_EQ(zarns.size(), 1u);
    EXPECT_EQ(sandbox_.Log().Count("[OrvDaemon] subprocess abnormal, close hdc server["), 1u);
    // The buffers are released after the link is dropped.
    const std::string recycled = "recycled " + std::to_string(zarns[0].pid) + " times";
    EXPECT_TRUE(test::WaitFor(
        [&] {
            return test::ShowGroups(sandbox_.ControlSocket()).find(recycled) != std::string::npos;
        },
        5s))
        << test::ShowGroups(sandbox_.ControlSocket());
    // The dropped link ends the session: the compute process goes too.
    EXPECT_TRUE(test::WaitFor([&] { return !Running("aicpu_runner"); }, 10s));
}

TEST_F(SessionTest, AHostThatDropsItsLinkMidStartLeavesNoSubProcess) {
    Boot();
    Standin("compute", "delay-start", 2000);
    Session(
        "open a\n"
        "send a start --pid 61 --cp --zarn\n"
        "sleep 300\n"
        "drop a\n");
    EXPECT_TRUE(test::WaitFor(
        [&] { return !Running("aicpu_runner") && !Running("zarn_service.bin"); }, 10s));
    EXPECT_TRUE(sandbox_.Log().Contains("AbnormalMsgProc begin."));
}

TEST_F(SessionTest, ManyStartsAndClosesLeaveNoZombieThreadOrDescriptorBehind) {
    Boot();
    pid_t daemon = test::DaemonPid(sandbox_);
    Session(
        "open a\nsend a start --pid 1 --cp --zarn\nexpect a 8 --code 0 --timeout 10000\n"
        "send a close --pid 1\nexpect a 9 --timeout 10000\nexpect-closed a\n");
    std::this_thread::sleep_for(500ms);
    size_t threads = test::ThreadCount(daemon);
    size_t descriptors = test::DescriptorCount(daemon);
    std::string script;
    // Patient: a sanitized daemon's fork of its whole address space stalls it
    // for seconds on a loaded machine.
    for (int i = 0; i < 20; ++i) {
        std::string link = "l" + std::to_string(i);
        std::string pid = std::to_string(1000 + i);
        script += "open " + link + "\nsend " + link + " start --pid " + pid +
                  " --cp --zarn\nexpect " + link + " 8 --code 0 --timeout 30000\nsend " + link +
                  " close --pid " + pid + "\nexpect " + link +
                  " 9 --code 0 --timeout 30000\nexpect-closed " + link + "\n";
    }
    Session(script);
    // Besides, the emulated driver may keep a few more idle connections to the
    // card than it happened to have before: never more than kMaxIdle, where a
    // leak would grow with the twenty sessions.
    EXPECT_TRUE(test::WaitFor(
        [&] {
            return test::ThreadCount(daemon) <= threads &&
                   test::DescriptorCount(daemon) <= descriptors + emu::CardClient::kMaxIdle;
        },
        10s))
        << "threads " << test::ThreadCount(daemon) << " (were " << threads << "), descriptors "
        << test::DescriptorCount(daemon) << " (were " << descriptors << ")";
    std::string states;
    ASSERT_EQ(sandbox_.Enter({"ps", "-eo", "stat="}, &states), 0);
    EXPECT_EQ(states.find('Z'), std::string::npos) << states;
    EXPECT_FALSE(Running("aicpu_runner"));
}

}  // namespace
}  // namespace orv
