// orv-emu-ctl status: the card as seen from outside the daemon, while hosts
// come and go.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;

using test::SandboxRun;
using ::testing::HasSubstr;
using ::testing::Not;

// An orv-host session whose script is written as the test goes, so that its
// links stay open until the test closes the script.
class HeldHost {
  public:
    explicit HeldHost(const SandboxRun& sandbox) {
        int in[2];
        if (::pipe2(in, O_CLOEXEC) != 0) {
            return;
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(in[0], STDIN_FILENO);
            int devNull = ::open("/dev/null", O_WRONLY);
            ::dup2(devNull, STDOUT_FILENO);
            std::string host = test::BinDir() + "/orv-host";
            ::execl(host.c_str(), host.c_str(), "--state", sandbox.StateDir().c_str(), "session",
                    static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(in[0]);
        script_ = in[1];
    }
    ~HeldHost() {
        Close();
        if (pid_ > 0) {
            ::waitpid(pid_, nullptr, 0);
        }
    }

    void Write(const std::string& lines) {
        ASSERT_EQ(::write(script_, lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
    }
    // Ends the script: orv-host exits and its links drop.
    void Close() {
        if (script_ >= 0) {
            ::close(script_);
            script_ = -1;
        }
    }

  private:
    pid_t pid_ = -1;
    int script_ = -1;
};

std::string Status(const SandboxRun& sandbox, const std::vector<std::string>& options = {}) {
    std::vector<std::string> args = {"status"};
    args.insert(args.end(), options.begin(), options.end());
    std::string output;
    EXPECT_EQ(test::EmuCtl(sandbox, args, &output), 0) << output;
    return output;
}

std::string PidOf(const std::vector<test::StandinRecord>& records) {
    return records.size() == 1 ? std::to_string(records[0].pid) : std::string("?");
}

TEST(StatusTest, ShowsDevicesVfsPackagesAndEachHostWithItsSubProcesses) {
    SandboxRun sandbox;
    ASSERT_TRUE(sandbox.Boot({"--devices", "2", "--vfs", "1"}));
    std::string package = sandbox.StateDir() + ".pkg/5_Velkan512-aicpu_syskernels.tar.gz";
    ASSERT_EQ(::mkdir((sandbox.StateDir() + ".pkg").c_str(), 0755), 0);
    ASSERT_EQ(test::RunProgram(
                  {test::BinDir() + "/orv-emu-mkpkg", "--out", package, "--pad-bytes", "3000"}),
              0);
    std::string checkCode = std::to_string(test::ReadFile(package).size());
    ASSERT_EQ(test::Host(sandbox, {"send-package", package, "--vf", "1"}), 0);

    HeldHost host(sandbox);
    host.Write(
        "open a\nsend a start --pid 4242 --cp --zarn\nexpect a 8 --code 0 --timeout 30000\n"
        "open b --device 1\nsend b start --pid 777 --cp --vf 1 --device-id 1 --check-code " +
        checkCode + "\nexpect b 8 --code 0 --timeout 30000\n");
    std::string tree;
    ASSERT_TRUE(test::WaitFor(
        [&] {
            tree = Status(sandbox);
            return tree.find("runs zarn, compute, since") != std::string::npos &&
                   tree.find("runs compute, since") != std::string::npos &&
                   test::StandinRecordsOfKind(sandbox, 1).size() == 2;
        },
        60s))
        << tree;
    std::string zarn = PidOf(test::StandinRecordsOfKind(sandbox, 0));
    // Which compute process serves which host, from their command lines.
    std::string compute4242;
    std::string compute777;
    for (const test::StandinRecord& record : test::StandinRecordsOfKind(sandbox, 1)) {
        bool first =
            std::find(record.argv.begin(), record.argv.end(), "--pid=4242") != record.argv.end();
        (first ? compute4242 : compute777) = std::to_string(record.pid);
    }

    EXPECT_THAT(tree, HasSubstr("├── device 0 (chip 0), control CPUs 0\n"));
    EXPECT_THAT(tree, HasSubstr("└── device 1 (chip 1), control CPUs 1\n"));
    EXPECT_THAT(tree, HasSubstr("VF 0: watcher yes, no package\n"));
    EXPECT_THAT(
        tree,
        HasSubstr("VF 1: watcher yes, package Velkan512-aicpu_syskernels.tar.gz (check code " +
                  checkCode + ", installed "));
    EXPECT_THAT(tree, HasSubstr("memory 1.0 GiB used of 4.0 GiB\n"));
    // Host 4242 on device 0's physical function, host 777 on device 1's VF 1,
    // each above its own sub-processes.
    size_t device1 = tree.find("device 1 (chip 1)");
    size_t first = tree.find("host 4242: HDC session");
    size_t second = tree.find("host 777: HDC session");
    ASSERT_NE(device1, std::string::npos);
    ASSERT_LT(first, device1);
    ASSERT_GT(second, tree.find("VF 1:", device1));
    EXPECT_THAT(tree.substr(first, tree.find('\n', first) - first),
                HasSubstr("runs zarn, compute, since "));
    EXPECT_THAT(tree.substr(second, tree.find('\n', second) - second),
                HasSubstr("runs compute, since "));
    size_t zarnLine = tree.find("zarn     pid " + zarn + " (outside ");
    size_t firstCompute = tree.find("compute  pid " + compute4242 + " (outside ");
    size_t secondCompute = tree.find("compute  pid " + compute777 + " (outside ");
    EXPECT_GT(zarnLine, first);
    EXPECT_LT(zarnLine, device1);
    EXPECT_GT(firstCompute, first);
    EXPECT_LT(firstCompute, device1);
    EXPECT_NE(secondCompute, std::string::npos);
    EXPECT_GT(secondCompute, second);
    EXPECT_THAT(tree.substr(firstCompute, tree.find('\n', firstCompute) - firstCompute),
                HasSubstr("  sleeping  since "));
    EXPECT_THAT(tree, Not(HasSubstr("not the daemon's child")));
    EXPECT_THAT(tree, Not(HasSubstr("sub-processes of no device")));

    std::string json = Status(sandbox, {"--json"});
    EXPECT_THAT(json, HasSubstr("\"index\":1,\"chip_id\":1,\"ctrl_cpus\":[1]"));
    EXPECT_THAT(json, HasSubstr("\"host_pid\":4242,\"sessions\":["));
    EXPECT_THAT(json, HasSubstr("\"host_pid\":777,\"sessions\":["));
    EXPECT_THAT(json, HasSubstr("\"runs\":[\"zarn\",\"compute\"]"));
    EXPECT_THAT(json, HasSubstr("{\"kind\":\"compute\",\"pid\":" + compute777 + ",\"outer_pid\":"));
    EXPECT_THAT(json,
                HasSubstr("\"state\":\"S\",\"state_name\":\"sleeping\",\"daemon_child\":true"));
    EXPECT_THAT(json, HasSubstr("\"check_code\":" + checkCode));
    // The install moved the VF's limit by the kernels' size: the view reads it as it is now.
    std::string limit =
        test::ReadFile(sandbox.StateDir() + "/cgroup/memory/usermemory/vf1/memory.limit_in_bytes");
    limit.erase(limit.find_last_not_of('\n') + 1);
    EXPECT_THAT(json, HasSubstr("\"memory\":{\"limit\":" + limit + ",\"usage\":1073741824}"));

    // The hosts go; the daemon closes their sub-processes, and the view follows.
    host.Close();
    EXPECT_TRUE(test::WaitFor(
        [&] {
            tree = Status(sandbox);
            return tree.find("host ") == std::string::npos;
        },
        20s))
        << tree;
    EXPECT_EQ(sandbox.Stop(), 0);
    test::RemoveTree(sandbox.StateDir() + ".pkg");
}

TEST(StatusTest, WatchRedrawsUntilInterruptedAndAStoppedCardIsSaidSo) {
    SandboxRun sandbox;
    ASSERT_TRUE(sandbox.Boot({}));
    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    pid_t watcher = ::fork();
    if (watcher == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        std::string ctl = test::BinDir() + "/orv-emu-ctl";
        ::execl(ctl.c_str(), ctl.c_str(), "--state", sandbox.StateDir().c_str(), "status",
                "--watch", "--interval", "100", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    std::string text;
    char buffer[4096];
    // Two whole drawings, each beginning with its card line.
    while (text.find("card ", text.find("card ") + 1) == std::string::npos || text.back() != '\n') {
        ssize_t n = ::read(out[0], buffer, sizeof(buffer));
        ASSERT_GT(n, 0) << text;
        text.append(buffer, static_cast<size_t>(n));
    }
    EXPECT_THAT(text, HasSubstr("└── device 0 (chip 0), control CPUs 0\n"));
    ASSERT_EQ(::kill(watcher, SIGINT), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(watcher, &status, 0), watcher);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    ::close(out[0]);

    EXPECT_EQ(sandbox.Stop(), 0);
    std::string output;
    EXPECT_EQ(test::EmuCtl(sandbox, {"status"}, &output), 1);
    EXPECT_THAT(output, HasSubstr("no sandbox runs on"));
}

}  // namespace
}  // namespace orv
