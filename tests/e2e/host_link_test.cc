// The host link, driven through orv-host against a booted sandbox: requests,
// their refusals and answers, the session registry seen from the host, and
// the transport's behaviour under malformed input.
#include <unistd.h>

#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/host/host_link.h"
#include "emu/host/host_request.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::Host;
using test::SandboxRun;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int kNoReply = 3;
constexpr int kClosed = 4;

// Runs `orv-host ARGS --json`, expecting one reply; its message as JSON text.
std::string JsonReply(const SandboxRun& sandbox, std::vector<std::string> args) {
    args.insert(args.begin(), "--json");
    std::string output;
    EXPECT_EQ(Host(sandbox, args, &output), 0) << output;
    return output;
}

class HostLinkTest : public ::testing::Test {
  protected:
    void Boot(const std::vector<std::string>& args = {}) { ASSERT_TRUE(sandbox_.Boot(args)); }
    std::unique_ptr<host::HostLink> Link() { return test::HoldLink(sandbox_); }
    SandboxRun sandbox_;
};

TEST_F(HostLinkTest, LinkTestIsAnsweredWithTheDaemonsVersionInformation) {
    Boot();
    std::string reply = JsonReply(sandbox_, {"test", "--pid", "42"});
    EXPECT_THAT(reply, HasSubstr("\"type\":33"));
    EXPECT_THAT(reply, HasSubstr("\"version_info\":{\"version\":1"));
    EXPECT_THAT(reply, HasSubstr("\"feature\":[\"start_zarn\",\"start_cp\""));
    EXPECT_TRUE(sandbox_.Log().Contains("server has recv test data, hostPid[42]"));
}

TEST_F(HostLinkTest, OutOfRangeDeviceIdsGetNoReplyWhileTheLastValidOnesAreServed) {
    Boot({"--devices", "4"});
    std::string output;
    EXPECT_EQ(
        Host(sandbox_, {"--timeout", "1000", "close", "--pid", "7", "--device-id", "4"}, &output),
        kNoReply)
        << output;
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "[OrvDaemon] FmkToOrvMsgProc deviceId >= MAX_DEVNUM_PER_OS failed", 10s));
    EXPECT_EQ(Host(sandbox_, {"--timeout", "1000", "close", "--pid", "7", "--real-device", "128"},
                   &output),
              kNoReply)
        << output;
    EXPECT_TRUE(
        sandbox_.Log().WaitFor("[OrvDaemon] FmkToOrvMsgProc realDeviceId out of range", 10s));

    // Device 3 answers through its own server.
    std::string reply =
        JsonReply(sandbox_, {"--device", "3", "close", "--pid", "7", "--real-device", "127"});
    EXPECT_THAT(reply, HasSubstr("\"type\":9"));
    EXPECT_THAT(reply, HasSubstr("\"device_id\":3"));
    EXPECT_THAT(reply, HasSubstr("\"real_device_id\":127"));
    EXPECT_THAT(reply, HasSubstr("\"orv_rsp_code\":1"));
}

TEST_F(HostLinkTest, AResponseTypeFromAHostIsAVersionMismatchAndNothingElse) {
    Boot();
    test::LogCapture before = sandbox_.Log();
    size_t linesBefore = before.Lines().size();
    std::string output;
    EXPECT_EQ(
        Host(sandbox_, {"--timeout", "1000", "send", "--type", "8", "--pid", "5", "--cp"}, &output),
        kNoReply);
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "Version is not matched(message_type:8), you need update the software", 10s));
    for (const std::string& line : sandbox_.Log().Lines()) {
        if (linesBefore-- > 0) {
            continue;
        }
        EXPECT_THAT(line, Not(HasSubstr("FmkToOrvMsg device index"))) << "no handler ran";
        EXPECT_THAT(line, Not(HasSubstr("Insert OrvImpl")));
    }
}

TEST_F(HostLinkTest, RequestsForAnUnknownHostProcessAreAnsweredWithFailure) {
    Boot();
    std::string close = JsonReply(sandbox_, {"close", "--pid", "4321"});
    EXPECT_THAT(close, HasSubstr("\"type\":9"));
    EXPECT_THAT(close, HasSubstr("\"orv_rsp_code\":1"));
    std::string profiling = JsonReply(sandbox_, {"profiling", "--pid", "4321", "--profiling", "3"});
    EXPECT_THAT(profiling, HasSubstr("\"type\":31"));
    EXPECT_THAT(profiling, HasSubstr("\"orv_rsp_code\":1"));
    EXPECT_TRUE(sandbox_.Log().Contains(
        "custSoPath[/home/QelvarUser/cust_aicpu_0_4321] is invalid, skip clean"));
}

TEST_F(HostLinkTest, InvalidStartsAreRefusedWithFailure) {
    Boot();
    struct Case {
        std::vector<std::string> fields;
        const char* logged;
    };
    const Case cases[] = {
        {{"--pid", "10", "--vf", "17", "--cp"}, "Invalid vfId[17] in os[0]"},
        {{"--pid", "11", "--vf", "-1", "--cp"}, "Invalid vfId[-1] in os[0]"},
        {{"--pid", "12"},
         "[OrvDaemon] set start status input invalid StartQs[0],StartCp[0],StartZarn[0]"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"start"};
        args.insert(args.end(), c.fields.begin(), c.fields.end());
        std::string reply = JsonReply(sandbox_, args);
        EXPECT_THAT(reply, HasSubstr("\"type\":8")) << c.logged;
        EXPECT_THAT(reply, HasSubstr("\"orv_rsp_code\":1")) << c.logged;
        EXPECT_TRUE(sandbox_.Log().Contains(c.logged)) << c.logged;
    }
    // The negative VF id arrived as it was sent.
    EXPECT_TRUE(sandbox_.Log().Contains(
        "fmkSignPid[11] profilingMode[0] rankSize[0] startZarn[0] startCp[1] "
        "checkCode[0] logLevel[103] vfid[-1]"));
}

TEST_F(HostLinkTest, SessionLimitRefusesASecondHostOnTheSameVfNamingTheFirst) {
    Boot({"--env", "AICPU_MAX_NUM=1", "--vfs", "1"});
    // Each host keeps its link open: a session ends with its link.
    const std::string script =
        "open first\n"
        "send first start --pid 100 --cp\n"
        "expect first 8 --code 0 --timeout 10000\n"
        "open second\n"
        "send second start --pid 200 --cp\n"
        "expect second 8 --code 1\n"
        "open otherVf\n"
        "send otherVf start --pid 100 --vf 1 --cp\n"
        "expect otherVf 8 --code 0 --timeout 10000\n";
    std::string output;
    EXPECT_EQ(Host(sandbox_, {"session"}, &output, script), 0) << output;
    EXPECT_TRUE(
        sandbox_.Log().Contains("[OrvDaemon] OrvImpl with hostPid[200] create failed on "
                                "deviceId[0] vfId[0], reach max aicpu-runner per "
                                "device 1, hostPids[100]"));
}

TEST_F(HostLinkTest, ASessionAnswersOnItsOwnLinkAndOnlyThatLinksLossEndsIt) {
    Boot();
    // As orv-host sends them.
    auto request = [](const std::string& command, const std::string& fields) {
        return host::BuildRequest(command, host::Words(fields), 0).msg;
    };
    auto answer = [](host::HostLink& link, HDCMessage::MsgType type) {
        HDCMessage reply;
        EXPECT_EQ(link.Await(type, &reply, 10s), host::Received::kMessage) << "type " << type;
        return reply.orv_rsp_code();
    };
    auto computeHas = [&](const std::string& note) {
        std::vector<test::StandinRecord> computes = test::StandinRecordsOfKind(sandbox_, 1);
        return computes.size() == 1 && computes[0].Has(note);
    };
    auto owner = Link();
    ASSERT_TRUE(owner->Send(request("start", "--pid 300 --cp")));
    ASSERT_EQ(answer(*owner, HDCMessage::ORV_START_PROC_RSP), 0u);

    // Another link may ask for the session's profiling change; the answer
    // goes to the session's own link, and losing the other link ends nothing.
    auto other = Link();
    ASSERT_TRUE(other->Send(request("profiling", "--pid 300 --profiling 5")));
    EXPECT_EQ(answer(*owner, HDCMessage::ORV_UPDATE_PROIFILING_RSP), 0u);
    HDCMessage stray;
    EXPECT_EQ(other->Next(&stray, 300ms), host::Received::kTimeout) << host::Describe(stray);
    other->Drop();
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "but what we want to delete is with session of [2], skip HDCAbnormalMsgProc", 10s));
    ASSERT_TRUE(owner->Send(request("profiling", "--pid 300 --profiling 6")));
    EXPECT_EQ(answer(*owner, HDCMessage::ORV_UPDATE_PROIFILING_RSP), 0u);
    // The reply means the record was sent; the compute process notes it when
    // it reads it, and the owner's drop below kills it outright.
    EXPECT_TRUE(test::WaitFor([&] { return computeHas("profiling 6"); }, 10s));
    EXPECT_TRUE(computeHas("profiling 5"));

    // The owner's loss ends the session and takes the compute process with it.
    owner->Drop();
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "[OrvDaemon] Success to erase OrvImpl with deviceId[0] vfId[0] hostPid[300].", 10s));
    auto late = Link();
    ASSERT_TRUE(late->Send(request("profiling", "--pid 300 --profiling 7")));
    EXPECT_EQ(answer(*late, HDCMessage::ORV_UPDATE_PROIFILING_RSP), 1u);
    EXPECT_FALSE(computeHas("profiling 7"));
    EXPECT_TRUE(test::WaitFor([&] { return sandbox_.Enter({"pidof", "aicpu_runner"}) != 0; }, 5s));
}

TEST_F(HostLinkTest, PackageQueryAnswersTheCheckCodeAndClosesTheQuerysLink) {
    Boot();
    std::string output;
    EXPECT_EQ(Host(sandbox_, {"session"}, &output,
                   "open q\nsend q check-package --real-device 9\nexpect q 36\nexpect-closed q\n"),
              0)
        << output;
    EXPECT_THAT(output, HasSubstr("real_device_id: 9"));

    // A query naming a device the daemon cannot have goes unanswered, and the
    // next one is served.
    EXPECT_EQ(
        Host(sandbox_, {"session"}, &output,
             "open bad\nsend bad check-package --device-id 40\nexpect-none bad --timeout 500\n"
             "open good\nsend good check-package\nexpect good 36\n"),
        0)
        << output;
    EXPECT_TRUE(sandbox_.Log().WaitFor("[OrvDaemon] SendHdcMsg: hdc instance nullptr", 10s));
    EXPECT_TRUE(
        sandbox_.Log().WaitFor("[OrvDaemon] Send package check result to client failed", 10s));
}

// Malformed input ends only its own session, which is reported once; the
// daemon keeps serving, and leaks neither threads nor descriptors.
TEST_F(HostLinkTest, MalformedFramesEndOnlyTheirOwnSessionAndLeakNothing) {
    Boot();
    pid_t daemon = test::DaemonPid(sandbox_);
    std::string socket = sandbox_.Env()["ORV_HDC_SOCKET_0"];
    std::string error;
    std::unique_ptr<host::HostLink> bystander = host::HostLink::Connect(socket, &error);
    ASSERT_NE(bystander, nullptr) << error;
    auto linkTest = [&] {
        HDCMessage test;
        test.set_type(HDCMessage::TEST_HDC_SEND);
        HDCMessage reply;
        return bystander->Send(test) && bystander->Next(&reply, 5s) == host::Received::kMessage &&
               reply.type() == HDCMessage::TEST_HDC_RSP;
    };
    ASSERT_TRUE(linkTest());
    // Let start-up's own threads settle before counting.
    std::this_thread::sleep_for(500ms);
    size_t threads = test::ThreadCount(daemon);
    size_t descriptors = test::DescriptorCount(daemon);
    size_t closedBefore = sandbox_.Log().Count("[OrvDaemon] FmkToOrvAbnormalMsg in deviceId[0]");

    struct Case {
        std::vector<std::string> frame;
        int status;
    };
    const Case cases[] = {
        {{"--declare", "1048577", "--send", "0"}, kClosed},  // longer than 1 MiB
        {{"--garbage", "64"}, kClosed},                      // does not parse
        {{"--declare", "100", "--send", "10"}, kNoReply},    // truncated: waits for the rest
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"--timeout", "1000", "frame"};
        args.insert(args.end(), c.frame.begin(), c.frame.end());
        std::string output;
        EXPECT_EQ(Host(sandbox_, args, &output), c.status) << c.frame[0] << ": " << output;
        EXPECT_TRUE(linkTest()) << "after " << c.frame[0];
    }
    // A thousand links opened and dropped, some mid-frame.
    for (int i = 0; i < 1000; ++i) {
        std::unique_ptr<host::HostLink> link = host::HostLink::Connect(socket, &error);
        ASSERT_NE(link, nullptr) << error;
        if (i % 2 == 0) {
            link->SendRaw(std::string("\0\0\0\x20partial", 11));
        }
    }
    EXPECT_TRUE(linkTest());
    const size_t ended = 3 + 1000;
    EXPECT_TRUE(test::WaitFor(
        [&] {
            return sandbox_.Log().Count("[OrvDaemon] FmkToOrvAbnormalMsg in deviceId[0]") ==
                   closedBefore + ended;
        },
        10s))
        << "each ended session is reported once";
    EXPECT_TRUE(test::WaitFor(
        [&] {
            return test::ThreadCount(daemon) <= threads &&
                   test::DescriptorCount(daemon) <= descriptors;
        },
        10s))
        << "threads " << test::ThreadCount(daemon) << " (were " << threads << "), descriptors "
        << test::DescriptorCount(daemon) << " (were " << descriptors << ")";
}

}  // namespace
}  // namespace orv
