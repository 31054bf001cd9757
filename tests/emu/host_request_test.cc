// orv-host's requests as its command line and session steps name them, and
// the lines it prints for what comes back.
#include "emu/host/host_request.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/host/host_commands.h"

namespace orv::host {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(HostRequestTest, EachCommandSendsItsTypeAndAwaitsItsReply) {
    struct Case {
        std::string command;
        std::vector<std::string> args;
        int type;
        int waitType;
    };
    const Case cases[] = {
        {"test", {}, HDCMessage::TEST_HDC_SEND, HDCMessage::TEST_HDC_RSP},
        {"start", {}, HDCMessage::ORV_START_PROC_MSG, HDCMessage::ORV_START_PROC_RSP},
        {"start-qs", {}, HDCMessage::ORV_START_QS_MSG, HDCMessage::ORV_START_PROC_RSP},
        {"close", {}, HDCMessage::ORV_CLOSE_PROC_MSG, HDCMessage::ORV_CLOSE_PROC_RSP},
        {"profiling",
         {},
         HDCMessage::ORV_UPDATE_PROIFILING_MSG,
         HDCMessage::ORV_UPDATE_PROIFILING_RSP},
        {"check-package", {}, HDCMessage::ORV_CHECK_PACKAGE, HDCMessage::ORV_CHECK_PACKAGE_RSP},
        // A type number, or send --type, awaits whatever comes, unless told.
        {"8", {}, HDCMessage::ORV_START_PROC_RSP, -1},
        {"send", {"--type", "7"}, HDCMessage::ORV_CLOSE_PROC_MSG, HDCMessage::ORV_CLOSE_PROC_RSP},
        {"send", {"--type", "999"}, 999, -1},
        {"start", {"--wait", "36"}, HDCMessage::ORV_START_PROC_MSG, 36},
    };
    for (const Case& c : cases) {
        Request request = BuildRequest(c.command, c.args, 0);
        EXPECT_EQ(request.msg.type(), c.type) << c.command;
        EXPECT_EQ(request.waitType, c.waitType) << c.command;
        EXPECT_FALSE(request.noWait || request.drop) << c.command;
    }
}

TEST(HostRequestTest, FieldsGoOutAsGivenOutOfRangeValuesIncluded) {
    Request request = BuildRequest(
        "start",
        {"--pid",         "4294967295", "--sign",       "abc",      "--real-device", "128",
         "--vf",          "-3",         "--rank-size",  "2",        "--profiling",   "12",
         "--zarn",        "--cp",       "--check-code", "7",        "--log-level",   "debug",
         "--device-mode", "2",          "--group",      "qs_group", "--no-wait",     "--drop"},
        3);
    const HDCMessage& msg = request.msg;
    EXPECT_EQ(msg.device_id(), 3u);
    EXPECT_EQ(msg.proc_sign_pid().proc_pid(), 4294967295u);
    EXPECT_EQ(msg.proc_sign_pid().proc_sign(), "abc");
    EXPECT_EQ(msg.real_device_id(), 128u);
    EXPECT_EQ(msg.vf_id(), -3);
    EXPECT_EQ(msg.rank_size(), 2u);
    EXPECT_EQ(msg.profiling_mode(), 12u);
    EXPECT_TRUE(msg.start_zarn());
    EXPECT_TRUE(msg.start_cp());
    EXPECT_EQ(msg.check_code(), 7u);
    EXPECT_EQ(msg.log_level().log_level(), "debug");
    EXPECT_EQ(msg.device_mode(), 2u);
    EXPECT_EQ(msg.qs_init_group_name().qs_init_group_name(), "qs_group");
    EXPECT_TRUE(request.noWait);
    EXPECT_TRUE(request.drop);
    EXPECT_FALSE(msg.has_version_info());

    EXPECT_EQ(BuildRequest("close", {"--device-id", "9"}, 3).msg.device_id(), 9u);
}

TEST(HostRequestTest, ALinkTestCarriesThisHostsVersionInformationHoweverNamed) {
    for (const Request& request : {BuildRequest("test", {}, 0), BuildRequest("32", {}, 0),
                                   BuildRequest("send", {"--type", "32"}, 0)}) {
        EXPECT_TRUE(request.msg.has_version_info());
        EXPECT_GT(request.msg.version_info().feature_list_size(), 0);
    }
}

TEST(HostRequestTest, BadUsageNamesWhatIsWrong) {
    struct Case {
        std::string command;
        std::vector<std::string> args;
        std::string what;
    };
    const Case cases[] = {
        {"send", {"--pid", "1"}, "send needs --type N"},
        {"start", {"--pid"}, "--pid needs a value"},
        {"start", {"--pid", "12x"}, "--pid takes a number, got '12x'"},
        {"start", {"--pid", ""}, "--pid takes a number, got ''"},
        {"start",
         {"--pid", "99999999999999999999"},
         "--pid takes a number, got '99999999999999999999'"},
        {"start", {"--bogus"}, "unknown field --bogus"},
        {"frobnicate", {}, "a request takes a number, got 'frobnicate'"},
    };
    for (const Case& c : cases) {
        try {
            BuildRequest(c.command, c.args, 0);
            ADD_FAILURE() << c.what << ": accepted";
        } catch (const UsageError& error) {
            EXPECT_EQ(error.what, c.what);
        }
    }
}

TEST(HostRequestTest, SessionStepsGiveUpTheirOptionsWithTheirValues) {
    std::vector<std::string> words = Words("  expect a\t8  --timeout 100 --code 0 ");
    ASSERT_EQ(words,
              (std::vector<std::string>{"expect", "a", "8", "--timeout", "100", "--code", "0"}));
    EXPECT_EQ(TakeOption(&words, "--timeout", 5000), 100);
    EXPECT_EQ(words, (std::vector<std::string>{"expect", "a", "8", "--code", "0"}));
    EXPECT_EQ(TakeOption(&words, "--timeout", 5000), 5000);
    EXPECT_EQ(TakeOption(&words, "--code", -1), 0);
    EXPECT_EQ(words, (std::vector<std::string>{"expect", "a", "8"}));

    // An option without a value is not one; a value that is no number is bad usage.
    words = Words("expect-none a --timeout");
    EXPECT_EQ(TakeOption(&words, "--timeout", 7), 7);
    EXPECT_EQ(words.size(), 3u);
    words = Words("open a --device one");
    EXPECT_THROW(TakeOption(&words, "--device", 0), UsageError);
}

TEST(HostCommandsTest, WhatComesBackPrintsAsALineForPeopleOrAJsonObject) {
    HDCMessage reply;
    reply.set_type(HDCMessage::ORV_CLOSE_PROC_RSP);
    reply.set_orv_rsp_code(1);
    EXPECT_EQ(MessageLine("a", reply, false),
              "[a] type 9 (ORV_CLOSE_PROC_RSP) type: ORV_CLOSE_PROC_RSP orv_rsp_code: 1");
    std::string json = MessageLine("a", reply, true);
    EXPECT_THAT(json, StartsWith("{\"link\":\"a\",\"event\":\"message\",\"type\":9,\"message\":{"));
    EXPECT_THAT(json, HasSubstr("\"orv_rsp_code\":1"));
    EXPECT_EQ(json.back(), '}');

    EXPECT_EQ(EventLine("link", "no reply", false), "[link] no reply");
    EXPECT_EQ(EventLine("link", "no reply", true), "{\"link\":\"link\",\"event\":\"no reply\"}");
}

}  // namespace
}  // namespace orv::host
