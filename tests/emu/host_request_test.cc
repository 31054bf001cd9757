// orv-host's requests as its command line and session steps name them. The
// plain commands are driven against the daemon by the end-to-end tests; here,
// what those leave out.
#include "emu/host/host_request.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace orv::host {
namespace {

Request Build(const std::vector<std::string>& words, uint32_t device = 0) {
    return BuildRequest(words[0], {words.begin() + 1, words.end()}, device);
}

// A type number, or send --type, awaits the reply of its type if it has one,
// else whatever comes, unless told; a link test carries this host's version
// information however named.
TEST(HostRequestTest, ARequestAwaitsItsReplyAndALinkTestCarriesTheVersion) {
    struct Case {
        std::vector<std::string> words;
        int type;
        int waitType;
    };
    const Case cases[] = {
        {{"start-qs"}, HDCMessage::ORV_START_QS_MSG, HDCMessage::ORV_START_PROC_RSP},
        {{"8"}, HDCMessage::ORV_START_PROC_RSP, -1},
        {{"send", "--type", "7"}, HDCMessage::ORV_CLOSE_PROC_MSG, HDCMessage::ORV_CLOSE_PROC_RSP},
        {{"send", "--type", "999"}, 999, -1},
        {{"start", "--wait", "36"}, HDCMessage::ORV_START_PROC_MSG, 36},
        {{"32"}, HDCMessage::TEST_HDC_SEND, HDCMessage::TEST_HDC_RSP},
        {{"send", "--type", "32"}, HDCMessage::TEST_HDC_SEND, HDCMessage::TEST_HDC_RSP},
    };
    for (const Case& c : cases) {
        Request request = Build(c.words);
        EXPECT_EQ(request.msg.type(), c.type) << c.words.back();
        EXPECT_EQ(request.waitType, c.waitType) << c.words.back();
        EXPECT_EQ(request.msg.version_info().feature_list_size() > 0,
                  c.type == HDCMessage::TEST_HDC_SEND)
            << c.words.back();
    }
}

// The fields a session of the end-to-end tests never sends.
TEST(HostRequestTest, FieldsGoOutAsGivenOutOfRangeValuesIncluded) {
    Request request = Build({"start", "--pid", "4294967295", "--vf", "-3", "--rank-size", "2",
                             "--device-mode", "2", "--no-wait", "--drop"},
                            3);
    EXPECT_EQ(request.msg.device_id(), 3u);
    EXPECT_EQ(request.msg.proc_sign_pid().proc_pid(), 4294967295u);
    EXPECT_EQ(request.msg.vf_id(), -3);
    EXPECT_EQ(request.msg.rank_size(), 2u);
    EXPECT_EQ(request.msg.device_mode(), 2u);
    EXPECT_TRUE(request.noWait && request.drop);
}

TEST(HostRequestTest, BadUsageNamesWhatIsWrong) {
    struct Case {
        std::vector<std::string> words;
        std::string what;
    };
    const Case cases[] = {
        {{"send", "--pid", "1"}, "send needs --type N"},
        {{"start", "--pid"}, "--pid needs a value"},
        {{"start", "--pid", "12x"}, "--pid takes a number, got '12x'"},
        {{"start", "--pid", ""}, "--pid takes a number, got ''"},
        {{"start", "--pid", "99999999999999999999"},
         "--pid takes a number, got '99999999999999999999'"},
        {{"start", "--bogus"}, "unknown field --bogus"},
        {{"frobnicate"}, "a request takes a number, got 'frobnicate'"},
    };
    for (const Case& c : cases) {
        try {
            Build(c.words);
            ADD_FAILURE() << c.what << ": accepted";
        } catch (const UsageError& error) {
            EXPECT_EQ(error.what, c.what);
        }
    }
}

// An option without a value is not one; a value that is no number is bad usage.
TEST(HostRequestTest, SessionStepsGiveUpTheirOptionsWithTheirValues) {
    std::vector<std::string> words = Words("  expect a\t8  --code 0 --timeout");
    EXPECT_EQ(TakeOption(&words, "--code", -1), 0);
    EXPECT_EQ(TakeOption(&words, "--timeout", 5000), 5000);
    EXPECT_EQ(words, (std::vector<std::string>{"expect", "a", "8", "--timeout"}));
    words = Words("open a --device one");
    EXPECT_THROW(TakeOption(&words, "--device", 0), UsageError);
}

}  // namespace
}  // namespace orv::host
