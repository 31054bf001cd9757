// Launching through a start gate: the child runs nothing of its program until
// the parent lets it go, and a child the parent gives up never runs it.
#include "session/process_util.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

class StartGateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir_ = test::MakeTempDir("start-gate");
        marker_ = dir_ + "/ran";
        words_ = {"sh", "-c", "echo ran > " + marker_};
        for (std::string& word : words_) {
            argv_.push_back(word.data());
        }
        argv_.push_back(nullptr);
    }
    void TearDown() override { test::RemoveTree(dir_); }

    int32_t Start(StartGate* gate) {
        return ProcessUtil::StartSubProcess("/bin/sh", argv_.data(), nullptr, false, {}, nullptr,
                                            gate);
    }

    // The child's exit status, or -1 when it did not exit normally.
    static int ExitStatus(int32_t pid) {
        int status = 0;
        if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
            return -1;
        }
        return WEXITSTATUS(status);
    }

    std::string dir_;
    std::string marker_;
    std::vector<std::string> words_;
    std::vector<char*> argv_;
};

TEST_F(StartGateTest, AChildRunsItsProgramOnlyOnceReleased) {
    StartGate gate;
    int32_t pid = Start(&gate);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(gate.Child(), pid);
    // Time enough for a child that did not wait to have run its program.
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(Exists(marker_)) << "ran before it was released";
    gate.Release();
    EXPECT_EQ(ExitStatus(pid), 0);
    EXPECT_TRUE(Exists(marker_));
}

TEST_F(StartGateTest, AChildGivenUpEndsWithoutRunningItsProgram) {
    int32_t pid = -1;
    {
        StartGate gate;
        pid = Start(&gate);
        ASSERT_GT(pid, 0);
    }
    EXPECT_EQ(ExitStatus(pid), EXIT_FAILURE);
    EXPECT_FALSE(Exists(marker_));
}

TEST_F(StartGateTest, WithoutAGateTheChildGoesOnByItself) {
    int32_t pid = Start(nullptr);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(ExitStatus(pid), 0);
    EXPECT_TRUE(Exists(marker_));
}

}  // namespace
}  // namespace orv
