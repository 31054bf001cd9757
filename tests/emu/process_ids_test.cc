#include "emu/common/process_ids.h"

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

namespace orv::emu {
namespace {

pid_t KernelTid() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

// The ids are cached: a thread must get its own, and the child of a fork its
// own too, although it inherits the forking thread's cache.
TEST(ProcessIdsTest, EachThreadAndEachForkedChildGetsItsOwnIds) {
    ASSERT_EQ(CurrentPid(), getpid());
    ASSERT_EQ(CurrentTid(), KernelTid());
    pid_t otherTid = 0;
    pid_t otherPid = 0;
    std::thread([&] {
        otherTid = CurrentTid();
        otherPid = CurrentPid();
    }).join();
    EXPECT_NE(otherTid, CurrentTid());
    EXPECT_EQ(otherPid, getpid());

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        bool right =
            CurrentPid() == getpid() && CurrentTid() == KernelTid() && CurrentTid() == getpid();
        _exit(right ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(CurrentPid(), getpid());
    EXPECT_EQ(CurrentTid(), KernelTid());
}

}  // namespace
}  // namespace orv::emu
