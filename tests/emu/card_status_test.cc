// Pieces of the status view that need no sandbox: what the kernel says the
// daemon's inotify descriptors watch, program names, the HDC session board.
#include "emu/ctl/card_status.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/ctl/status_render.h"
#include "emu/hdc/session_board.h"
#include "platform/orv_limits.h"
#include "tests/support/test_support.h"

namespace orv::emu {
namespace {

using ::testing::Contains;

TEST(CardStatusTest, InotifyWatchesNameTheWatchedDirectoriesAsStatDoes) {
    std::string dir = test::MakeTempDir("orv-status");
    ASSERT_EQ(::mkdir((dir + "/vfid1").c_str(), 0755), 0);
    int fd = ::inotify_init1(IN_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_GE(::inotify_add_watch(fd, dir.c_str(), IN_CLOSE_WRITE), 0);
    ASSERT_GE(::inotify_add_watch(fd, (dir + "/vfid1").c_str(), IN_CLOSE_WRITE), 0);
    std::vector<std::string> watches =
        InotifyWatches(test::ReadFile("/proc/self/fdinfo/" + std::to_string(fd)));
    ::close(fd);
    ASSERT_EQ(watches.size(), 2u);
    for (const std::string& path : {dir, dir + "/vfid1"}) {
        struct stat st {};
        ASSERT_EQ(::stat(path.c_str(), &st), 0);
        EXPECT_THAT(watches,
                    Contains(std::to_string(major(st.st_dev)) + ":" +
                             std::to_string(minor(st.st_dev)) + ":" + std::to_string(st.st_ino)));
    }
    EXPECT_TRUE(InotifyWatches("pos:\t0\nflags:\t02000000\nmnt_id:\t25\n").empty())
        << "not an inotify descriptor";
    test::RemoveTree(dir);
}

TEST(CardStatusTest, SubProcessesAreKnownByTheirProgramNames) {
    const std::pair<const char*, const char*> cases[] = {
        {"/var/zarn_service.bin", "zarn"},
        {"aicpu_runner", "compute"},
        {"/var/aicpu_custom_runner", "custom"},
        {"/var/aicpu_custom_runner3", "custom"},
        {"queue_runner", "queue"},
        {"/var/aicpu_runner_x", ""},
        {"orvdaemon", ""},
        {"", ""},
    };
    for (const auto& [program, kind] : cases) {
        EXPECT_EQ(SubProcessKind(program), kind) << program;
    }
}

TEST(CardStatusTest, SizesAndAgesReadAsPeopleWriteThem) {
    EXPECT_EQ(HumanBytes(900), "900 B");
    EXPECT_EQ(HumanBytes(1536), "1.5 KiB");
    EXPECT_EQ(HumanBytes(4294967296ULL), "4.0 GiB");
    EXPECT_EQ(HumanBytes(4294954931ULL), "4.0 GiB");
    EXPECT_EQ(HumanBytes(300ULL << 20), "300 MiB");
    EXPECT_EQ(HumanAge(-5), "0s");
    EXPECT_EQ(HumanAge(45999), "45s");
    EXPECT_EQ(HumanAge(187000), "3m07s");
    EXPECT_EQ(HumanAge(7500000), "2h05m");
    EXPECT_EQ(HumanAge(3 * 86400000LL + 4 * 3600000LL), "3d04h");
}

TEST(CardStatusTest, TheSessionBoardFollowsEachSessionFromOpenToClose) {
    std::string dir = test::MakeTempDir("orv-board");
    SessionBoard board(SessionBoardPath(dir));
    board.Opened(3, 1);
    // Written by the board's own thread, without a Flush.
    std::string text;
    ASSERT_TRUE(test::WaitFor(
        [&] {
            text = test::ReadFile(dir + "/sessions");
            return !text.empty();
        },
        std::chrono::seconds(5)));
    EXPECT_THAT(text, ::testing::MatchesRegex(
                          "session 3 device 1 vf 0 host_pid 0 opened_ms [0-9]+ since_ms 0 "
                          "last_type 0\n"));
    board.Request(3, 1, 2, 4242, 6);
    board.Opened(4, 0);
    board.Flush();
    text = test::ReadFile(dir + "/sessions");
    EXPECT_THAT(text, ::testing::MatchesRegex(
                          "session 3 device 1 vf 2 host_pid 4242 opened_ms [0-9]+ since_ms "
                          "[1-9][0-9]* last_type 6\nsession 4 device 0 .*\n"));
    board.Request(9, 0, 0, 1, 6);
    board.Flush();
    EXPECT_EQ(test::ReadFile(dir + "/sessions"), text) << "an unknown session changes nothing";
    board.Closed(3);
    board.Closed(4);
    board.Flush();
    EXPECT_EQ(test::ReadFile(dir + "/sessions"), "");
    EXPECT_NE(::access((dir + "/sessions.tmp").c_str(), F_OK), 0) << "replaced by renaming";
    test::RemoveTree(dir);
}

TEST(CardStatusTest, TheSessionBoardWritesItsLastChangesWhenItEnds) {
    std::string dir = test::MakeTempDir("orv-board");
    {
        SessionBoard board(SessionBoardPath(dir));
        board.Opened(5, 0);
        board.Request(5, 0, 0, 99, 7);
    }
    EXPECT_THAT(test::ReadFile(dir + "/sessions"), ::testing::HasSubstr("host_pid 99 "));
    test::RemoveTree(dir);
}

// What others wrote is read only up to the view's bound.
TEST(CardStatusTest, AFileIsReadNoFurtherThanTheViewsBound) {
    std::string dir = test::MakeTempDir("orv-status");
    test::WriteFile(dir + "/big", std::string(3u << 20, 'x'));
    test::WriteFile(dir + "/small", "Name=a\n");
    EXPECT_EQ(ReadStatusFile(dir + "/big").size(), limits::kMaxStatusFileBytes);
    EXPECT_EQ(ReadStatusFile(dir + "/small"), "Name=a\n");
    EXPECT_EQ(ReadStatusFile(dir + "/missing"), "");
    test::RemoveTree(dir);
}
}  // namespace
}  // namespace orv::emu
