#include "platform/log.h"

#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

using test::LogCapture;

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

class OrvLogTest : public ::testing::Test {
  protected:
    void SetUp() override { (void)ORVLog::GetInstance().GetErrorMsg(); }
};

TEST_F(OrvLogTest, ErrorBufferKeepsTheElevenNewestLinesOldestFirstAndDrainsOnce) {
    LogCapture log;
    for (int i = 1; i <= 12; ++i) {
        ORV_LOG(ORV_ERROR, "error number %d", i);
    }
    std::vector<std::string> kept = SplitLines(ORVLog::GetInstance().GetErrorMsg());
    ASSERT_EQ(kept.size(), 11u);
    for (int i = 0; i < 11; ++i) {
        EXPECT_EQ(kept[i].rfind("error number " + std::to_string(i + 2) + ",[log_test.cc:", 0), 0u)
            << kept[i];
    }
    EXPECT_EQ(ORVLog::GetInstance().GetErrorMsg(), "");
    EXPECT_EQ(log.Count("error number "), 12u);
}

TEST_F(OrvLogTest, OnlyErrorLinesAreKeptForTheHost) {
    LogCapture log("debug");
    ORV_LOG(ORV_DEBUG, "a debug line");
    ORV_LOG(ORV_INFO, "an info line");
    ORV_LOG(ORV_WARN, "a warning line");
    ORV_LOG(ORV_EVENT, "an event line");
    ORV_LOG(ORV_TRACE, "a trace line");
    ORV_LOG(ORV_ERROR, "the error line");
    std::vector<std::string> kept = SplitLines(ORVLog::GetInstance().GetErrorMsg());
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_NE(kept[0].find("the error line"), std::string::npos);
}

TEST_F(OrvLogTest, MessageOfTheLimitIsWrittenWholeAndALongerOneIsDroppedWhole) {
    LogCapture log;
    const std::string longest(kOrvLogMaxMessage, 'a');
    const std::string tooLong(kOrvLogMaxMessage + 1, 'b');
    ORV_LOG(ORV_EVENT, "%s", longest.c_str());
    ORV_LOG(ORV_ERROR, "%s", tooLong.c_str());
    ORV_LOG(ORV_EVENT, "after the long ones");

    EXPECT_EQ(log.Count(longest + ",[log_test.cc:"), 1u);
    EXPECT_EQ(log.Count("bbbb"), 0u);
    EXPECT_EQ(ORVLog::GetInstance().GetErrorMsg(), "");
    EXPECT_TRUE(log.Contains("after the long ones"));
}

TEST_F(OrvLogTest, EmptyMessagesAndMissingPositionsProduceNothing) {
    LogCapture log;
    ORV_LOG(ORV_EVENT, "%s", "");
    ORVLog::GetInstance().OrvImplLog(nullptr, "file.cc", 1, Log{ORV_ERROR}, "no function");
    ORVLog::GetInstance().OrvImplLog("Function", nullptr, 1, Log{ORV_ERROR}, "no file");
    ORV_LOG(ORV_EVENT, "marker");
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(ORVLog::GetInstance().GetErrorMsg(), "");
}

TEST_F(OrvLogTest, LineShowsTheLoggerPositionThenMessageCallerAndThread) {
    LogCapture log;
    int line = __LINE__ + 1;
    ORV_LOG(ORV_EVENT, "[OrvDaemon] hello %d", 7);
    std::vector<std::string> lines = log.Matching("hello 7");
    ASSERT_EQ(lines.size(), 1u);
    std::string expected =
        "[log.cc:44][OrvDaemon] hello 7,[log_test.cc:" + std::to_string(line) + ":TestBody]";
    EXPECT_NE(lines[0].find(expected), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find(" EVENT "), std::string::npos);
}

// Which statement levels reach the log at each library threshold, and at
// which level the library writes them.
TEST_F(OrvLogTest, LevelDispatchFollowsTheLibraryThreshold) {
    struct Case {
        uint32_t level;
        const char* written;  // level the library writes it at
        int gate;             // highest threshold index that still lets it through; 4 = always
    };
    // Threshold indices: 0 debug, 1 info, 2 warning, 3 error.
    const Case cases[] = {
        {ORV_DEBUG, "DEBUG", 0}, {ORV_INFO, "INFO", 1}, {ORV_WARN, "WARNING", 2},
        {ORV_ERROR, "ERROR", 4}, {4, "INFO", 1},        {ORV_EVENT, "EVENT", 4},
        {ORV_TRACE, "TRACE", 4}, {7, "INFO", 1},        {1000, "INFO", 1},
    };
    const char* thresholds[] = {"debug", "info", "warning", "error"};
    for (int t = 0; t < 4; ++t) {
        LogCapture log(thresholds[t]);
        for (const Case& c : cases) {
            std::string text = "level " + std::to_string(c.level) + " at " + thresholds[t];
            ORVLog::GetInstance().OrvImplLog("Dispatch", "log_test.cc", 1, Log{c.level}, "%s",
                                             text.c_str());
            std::vector<std::string> lines = log.Matching(text + ",");
            bool expected = c.gate == 4 || t <= c.gate;
            ASSERT_EQ(lines.size(), expected ? 1u : 0u) << text;
            if (expected) {
                EXPECT_NE(lines[0].find(std::string(" ") + c.written + " "), std::string::npos)
                    << lines[0];
            }
        }
    }
    (void)ORVLog::GetInstance().GetErrorMsg();
}

}  // namespace
}  // namespace orv
