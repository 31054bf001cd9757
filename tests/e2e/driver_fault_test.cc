// Driver calls that fail, injected through the card: each is logged where it
// happens, fails only its own step as the daemon's design says, and leaves
// the daemon serving every other host.
#include <signal.h>

#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/host/host_link.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::EmuCtl;
using test::SandboxRun;
using ::testing::HasSubstr;

class DriverFaultTest : public ::testing::Test {
  protected:
    void Boot(const std::vector<std::string>& args = {}) { ASSERT_TRUE(sandbox_.Boot(args)); }

    void Fail(const std::string& call, int code = 5) {
        std::string output;
        ASSERT_EQ(EmuCtl(sandbox_, {"fail", call, std::to_string(code), "1"}, &output), 0)
            << output;
    }

    static HDCMessage Start(uint32_t hostPid) {
        HDCMessage request;
        request.set_type(HDCMessage::ORV_START_PROC_MSG);
        request.mutable_proc_sign_pid()->set_proc_pid(hostPid);
        request.set_start_cp(true);
        return request;
    }

    bool Running(const std::string& name) { return sandbox_.Enter({"pidof", name}) == 0; }

    SandboxRun sandbox_;
};

// Each start-up step that needs the driver stops the start at its failure.
TEST_F(DriverFaultTest, AFailedStartUpCallEndsTheStartWithItsLines) {
    Boot();
    ASSERT_EQ(kill(test::DaemonPid(sandbox_), SIGKILL), 0);
    struct Case {
        const char* call;
        std::vector<std::string> lines;
    };
    const Case cases[] = {
        {"drvGetProcessSign",
         {"Get tid from drvGetProcessSign failed", "[OrvDaemon] SendVfId2Drv Failed."}},
        {"drvBindHostPid",
         {"Set Vfid by drvBindHostPid failed", "[OrvDaemon] SendVfId2Drv Failed."}},
        {"drvHdcGetTrustedBasePath",
         {"drvHdcGetTrustedBasePath get hdc device path failed, ret = 5",
          "[OrvDaemon] Init inotify watcher failed."}},
        {"halEschedAttachDevice",
         {"halEschedAttachDevice dev[0] failed, result[5].",
          "[OrvDaemon] OrvEventServer cannot be created."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.call);
        test::LogCapture log(sandbox_.LogPath(), false);
        Fail(c.call);
        std::string output;
        EXPECT_EQ(sandbox_.Enter({"orvdaemon"}, &output), 1) << output;
        std::string missing;
        EXPECT_TRUE(log.InOrder(c.lines, &missing)) << missing;
    }
    // With the faults used up, the next start comes up.
    EXPECT_EQ(sandbox_.Enter({"orvdaemon"}, nullptr, true), 0);
    EXPECT_TRUE(
        sandbox_.Log().WaitFor("[OrvEVENT] Start Monitor HdcServer and OrvEventServer!!!", 10s));
}

// Faults met while serving a host fail that host's step only.
TEST_F(DriverFaultTest, AFailedCallWhileServingFailsOnlyItsStep) {
    Boot({"--env", "AICPU_ADD_BUFFERGROUP=1", "--vfs", "1"});

    // The chip of a device in device mode 1: the compute process cannot be
    // given its device, and is not started.
    Fail("halGetChipFromDevice");
    HDCMessage chipStart = Start(10);
    chipStart.set_device_mode(1);
    auto chipLink = test::HoldLink(sandbox_);
    ASSERT_NE(chipLink, nullptr);
    ASSERT_TRUE(chipLink->Send(chipStart));
    EXPECT_TRUE(sandbox_.Log().WaitFor("driver get chip id from device id failed", 5s));
    EXPECT_TRUE(sandbox_.Log().WaitFor("Get chip id from device id failed", 5s));

    // The host's buffer groups cannot be asked for: no compute process either.
    Fail("halGrpQuery");
    auto groupLink = test::HoldLink(sandbox_);
    ASSERT_NE(groupLink, nullptr);
    ASSERT_TRUE(groupLink->Send(Start(11)));
    EXPECT_TRUE(
        sandbox_.Log().WaitFor("[OrvDaemon]Fail to query group info for pid[11], ret[5]", 5s));
    EXPECT_TRUE(sandbox_.Log().WaitFor("[OrvDaemon]GetHostGrpName execute failed.", 5s));
    EXPECT_FALSE(Running("aicpu_runner"));

    // A buffer release that fails is only a warning: the close is answered.
    auto link = test::HoldLink(sandbox_);
    ASSERT_NE(link, nullptr);
    HDCMessage reply;
    ASSERT_TRUE(link->Send(Start(13)));
    ASSERT_EQ(link->Await(HDCMessage::ORV_START_PROC_RSP, &reply, 10s), host::Received::kMessage);
    EXPECT_EQ(reply.orv_rsp_code(), 0u);
    Fail("halBuffRecycleByPid");
    HDCMessage close = Start(13);
    close.set_type(HDCMessage::ORV_CLOSE_PROC_MSG);
    ASSERT_TRUE(link->Send(close));
    ASSERT_EQ(link->Await(HDCMessage::ORV_CLOSE_PROC_RSP, &reply, 10s), host::Received::kMessage);
    EXPECT_EQ(reply.orv_rsp_code(), 0u);
    // The close worker releases the buffers after sending the close; the
    // compute process may report, and the close be answered, before it does.
    EXPECT_TRUE(
        sandbox_.Log().WaitFor("[OrvDaemon] Failed to free aicpu-runner buff subProcPid[", 5s));

    // The driver does not take the acknowledgement of a VF change: the VF
    // is set up all the same, and the next change is acknowledged.
    Fail("halEschedAckEvent");
    std::string output;
    EmuCtl(sandbox_, {"vf", "create", "3", "--timeout", "3000"}, &output);
    EXPECT_THAT(output, HasSubstr("no acknowledgement"));
    // The driver gives up waiting on its own clock: the daemon may still be
    // running the VF's script (seconds on a loaded machine) before it acks.
    EXPECT_TRUE(sandbox_.Log().WaitFor("[OrvEventServer] Send ack to driver failed.", 30s));
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "destroy", "3"}, &output), 0) << output;
    EXPECT_THAT(output, HasSubstr("0\n"));

    // The daemon serves a newcomer from start to close.
    auto newcomer = test::HoldLink(sandbox_);
    ASSERT_NE(newcomer, nullptr);
    ASSERT_TRUE(newcomer->Send(Start(14)));
    ASSERT_EQ(newcomer->Await(HDCMessage::ORV_START_PROC_RSP, &reply, 10s),
              host::Received::kMessage);
    EXPECT_EQ(reply.orv_rsp_code(), 0u);
    close.mutable_proc_sign_pid()->set_proc_pid(14);
    ASSERT_TRUE(newcomer->Send(close));
    ASSERT_EQ(newcomer->Await(HDCMessage::ORV_CLOSE_PROC_RSP, &reply, 10s),
              host::Received::kMessage);
    EXPECT_EQ(reply.orv_rsp_code(), 0u);
}

}  // namespace
}  // namespace orv
