// The emulated card's servers bound what any one process may hold: its own
// share of connections, and none of the last slots once it holds one.
#include "emu/common/unix_server.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/common/socket_io.h"
#include "platform/mutex.h"
#include "tests/support/test_support.h"

namespace orv::emu {
namespace {

using namespace std::chrono_literals;

// True when the server closed `fd` (within a moment of its accept), false
// when it serves it.
bool ClosedByServer(int fd) {
    pollfd pfd{fd, POLLIN, 0};
    char byte;
    return ::poll(&pfd, 1, 300) > 0 && ::recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
}

// In a process of its own (another peer): opens `count` connections and
// reports through `result` how many the server kept, then waits to be killed.
pid_t ConnectFromAnotherProcess(const std::string& path, int count, int result) {
    pid_t child = fork();
    if (child != 0) {
        return child;
    }
    char kept = 0;
    for (int i = 0; i < count; ++i) {
        UniqueFd fd = ConnectUnix(path);
        kept += fd.Valid() && !ClosedByServer(fd.Get()) ? 1 : 0;
        (void)fd.Release();  // held until the process ends
    }
    (void)::write(result, &kept, 1);
    ::pause();
    _exit(0);
}

TEST(UnixServerTest, AProcessHoldsItsShareTheLastSlotsGoToProcessesThatHoldNoneAndNoMore) {
    const std::string dir = test::MakeTempDir("orv-server");
    const std::string path = dir + "/s.sock";
    Mutex mutex;
    std::vector<std::string> refusals;
    ConnectionLimits limits;
    limits.total = 6;
    limits.perPeer = 3;
    limits.reservedForNewPeers = 2;
    limits.refused = [&](pid_t, const std::string& why) {
        MutexLock lock(&mutex);
        refusals.push_back(why);
    };
    UnixServer server(
        path,
        [](int fd, pid_t) {
            char byte;
            while (::read(fd, &byte, 1) > 0) {
            }
        },
        limits);
    ASSERT_TRUE(server.Start());
    std::vector<UniqueFd> mine;
    for (int i = 0; i < 4; ++i) {
        mine.push_back(ConnectUnix(path));
        ASSERT_TRUE(mine.back().Valid());
    }
    EXPECT_FALSE(ClosedByServer(mine[2].Get()));
    EXPECT_TRUE(ClosedByServer(mine[3].Get())) << "a fourth of one process";
    // Three held of six: another process takes its first, but not a second
    // one of the last two slots; a third process takes one of them.
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    std::vector<pid_t> children = {ConnectFromAnotherProcess(path, 2, pipeFds[1])};
    char kept = 0;
    ASSERT_EQ(::read(pipeFds[0], &kept, 1), 1);
    EXPECT_EQ(kept, 1);
    children.push_back(ConnectFromAnotherProcess(path, 1, pipeFds[1]));
    ASSERT_EQ(::read(pipeFds[0], &kept, 1), 1);
    EXPECT_EQ(kept, 1);
    // Five held: a fourth process takes the sixth, and no more.
    children.push_back(ConnectFromAnotherProcess(path, 2, pipeFds[1]));
    ASSERT_EQ(::read(pipeFds[0], &kept, 1), 1);
    EXPECT_EQ(kept, 1);
    for (pid_t child : children) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    MutexLock lock(&mutex);
    EXPECT_THAT(refusals,
                ::testing::ElementsAre("it holds 3 connections, the most one process may",
                                       "it holds 1 connections, and the last 2 are kept for "
                                       "processes that hold none",
                                       "all 6 connections are taken"));
}

}  // namespace
}  // namespace orv::emu
