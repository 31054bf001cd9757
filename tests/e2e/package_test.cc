// Kernel packages, VFs and start-up housekeeping, driven from outside as the
// host framework and the driver would: packages delivered with orv-host
// send-package, VF changes with orv-emu-ctl.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using test::EmuCtl;
using test::Host;
using test::SandboxRun;

constexpr char kPackageName[] = "5_Velkan512-aicpu_syskernels.tar.gz";

class PackageTest : public ::testing::Test {
protected:
    void SetUp() override { work_ = test::MakeTempDir("orv-pkg"); }
    void TearDown() override { test::RemoveTree(work_); }

    void Boot(const std::vector<std::string>& args = {}) { ASSERT_TRUE(sandbox_.Boot(args)); }

    // Builds a package in the test's own directory; its path.
    std::string MakePackage(const std::string& name, const std::vector<std::string>& options = {}) {
        std::string path = work_ + "/" + name;
        std::vector<std::string> argv = {test::BinDir() + "/orv-emu-mkpkg", "--out", path};
        argv.insert(argv.end(), options.begin(), options.end());
        std::string output;
        EXPECT_EQ(test::RunProgram(argv, &output), 0) << output;
        return path;
    }

    void Deliver(const std::string& package, const std::vector<std::string>& options = {}) {
        std::vector<std::string> args = {"send-package", package};
        args.insert(args.end(), options.begin(), options.end());
        std::string output;
        ASSERT_EQ(Host(sandbox_, args, &output), 0) << output;
    }

    // The check code the daemon reports for a VF.
    uint32_t CheckCode(int vf = 0) {
        std::string output;
        EXPECT_EQ(Host(sandbox_, {"--json", "check-package", "--vf", std::to_string(vf)}, &output), 0) << output;
        size_t at = output.find("\"check_code\":");
        return at == std::string::npos ? 0 : static_cast<uint32_t>(std::stoul(output.substr(at + 13)));
    }

    std::string Inside(const std::string& path) const { return sandbox_.StateDir() + path; }
    // /usr/lib64 inside is an overlay whose changes live here.
    std::string InstalledPath(const std::string& rest) const {
        return sandbox_.StateDir() + "/lib64/upper/aicpu_kernels/" + rest;
    }
    bool Exists(const std::string& path) const { return access(path.c_str(), F_OK) == 0; }
    static size_t SizeOf(const std::string& path) {
        struct stat st {};
        return stat(path.c_str(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
    }

    std::string work_;
    SandboxRun sandbox_;
};

TEST_F(PackageTest, ADeliveredPackageIsInstalledAndItsCheckCodeReported) {
    Boot();
    std::string package = MakePackage(kPackageName, {"--sandbox-so", "libsb_a.so,libsb_b.so"});
    Deliver(package);
    uint32_t size = static_cast<uint32_t>(SizeOf(package));
    ASSERT_TRUE(test::WaitFor([&] { return CheckCode() == size; }, 10s));
    EXPECT_TRUE(Exists(InstalledPath("0/aicpu_kernels_device/version.info")));
    EXPECT_TRUE(Exists(InstalledPath("0/aicpu_kernels_device/sand_box/libsb_a.so")));
    EXPECT_TRUE(Exists(InstalledPath("0/aicpu_kernels_device/sand_box/libsb_b.so")));
    EXPECT_FALSE(Exists(InstalledPath("0/aicpu_kernels_device/libsb_a.so")));
    EXPECT_FALSE(Exists(Inside("/home/hdc-trusted/dev0/") + kPackageName));
    EXPECT_FALSE(Exists(Inside("/home/QelvarUser/aicpu_kernels/vf0_") + kPackageName)) << "the staging file is gone";

    // The same package again is removed without being unpacked.
    size_t unpacks = sandbox_.Log().Count("Unzip_cmd is");
    Deliver(package);
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "Package checkcode is [" + std::to_string(size) + "], current env checkcode is [" + std::to_string(size), 5s));
    EXPECT_TRUE(test::WaitFor([&] { return !Exists(Inside("/home/hdc-trusted/dev0/") + kPackageName); }, 5s));
    EXPECT_EQ(sandbox_.Log().Count("Unzip_cmd is"), unpacks);
}

// Every device's trusted directory feeds the one worker of its vf. The host
// tool finds the card from sandbox.env's names in its environment as well as
// from --state, and takes its link options after the command.
TEST_F(PackageTest, APackageSentThroughAnotherDevicesTrustedDirectoryIsInstalled) {
    Boot({"--devices", "2"});
    std::string package = MakePackage(kPackageName);
    Deliver(package, {"--device", "1"});
    uint32_t size = static_cast<uint32_t>(SizeOf(package));
    std::map<std::string, std::string> env = sandbox_.Env();
    std::vector<std::string> query = {"/usr/bin/env", "ORV_HDC_SOCKET_1=" + env["ORV_HDC_SOCKET_1"],
                                      test::BinDir() + "/orv-host", "check-package", "--device", "1", "--json"};
    std::string output;
    ASSERT_TRUE(test::WaitFor(
        [&] {
            return test::RunProgram(query, &output) == 0 &&
                   output.find("\"check_code\":" + std::to_string(size) + ",") != std::string::npos;
        },
        10s))
        << output;
    EXPECT_EQ(CheckCode(), size);
    EXPECT_TRUE(Exists(InstalledPath("0/aicpu_kernels_device/version.info")));
    EXPECT_TRUE(sandbox_.Log().Contains("get inotify path[/home/hdc-trusted/dev1] map to wd["));
    EXPECT_FALSE(Exists(Inside("/home/hdc-trusted/dev1/") + kPackageName));
}

TEST_F(PackageTest, AStartWaitsForTheInstalledCheckCode) {
    Boot();
    std::string package = MakePackage(kPackageName);
    Deliver(package);
    uint32_t size = static_cast<uint32_t>(SizeOf(package));
    ASSERT_TRUE(test::WaitFor([&] { return CheckCode() == size; }, 10s));
    std::string output;
    const std::string script = "open good\nsend good start --pid 20 --cp --check-code " + std::to_string(size) +
                               "\nexpect good 8 --code 0 --timeout 10000\n"
                               "open bad\nsend bad start --pid 21 --cp --check-code " +
                               std::to_string(size + 1) + "\nexpect bad 8 --code 1 --timeout 40000\n";
    EXPECT_EQ(Host(sandbox_, {"session"}, &output, script), 0) << output;
    EXPECT_THAT(output, HasSubstr("message: \"load aicpu ops package failed, device[0], host pid[21]\""));
    EXPECT_TRUE(sandbox_.Log().Contains("Check sum wait 5 second timeout. host check code[" +
                                        std::to_string(size + 1) + "], device check code[" + std::to_string(size) +
                                        "]"));
}

TEST_F(PackageTest, BadPackagesAreRefusedAndTheInstalledOneStays) {
    Boot();
    std::string good = MakePackage(kPackageName);
    Deliver(good);
    uint32_t size = static_cast<uint32_t>(SizeOf(good));
    ASSERT_TRUE(test::WaitFor([&] { return CheckCode() == size; }, 10s));

    // The check code is the package's size, and a package of the installed
    // one's size is taken for it and dropped unread: each bad package below
    // is given a size of its own.
    std::string tampered = MakePackage("6_Velkan512-aicpu_syskernels.tar.gz", {"--pad-bytes", "100"});
    {
        std::fstream file(tampered, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(SizeOf(tampered) - 20));
        file.put('\x5a');
    }
    std::string truncated = MakePackage("7_Velkan512-aicpu_syskernels.tar.gz");
    ASSERT_EQ(truncate(truncated.c_str(), static_cast<off_t>(SizeOf(truncated) - 100)), 0);
    struct Case {
        std::string package;
        const char* logged;
    };
    const Case cases[] = {
        {MakePackage("8_Velkan512-aicpu_syskernels.tar.gz", {"--unsigned"}), "Check head tag failed"},
        {tampered, "Check head tag failed"},
        {truncated, "Check head tag failed"},
        {MakePackage("9_Velkan512-aicpu_syskernels.tar.gz",
                     {"--inner-name", "Velkan999-aicpu_syskernels.tar.gz", "--pad-bytes", "200"}),
         "Do clean_cmd failed, packageNames not found"},
    };
    for (const Case& c : cases) {
        size_t before = sandbox_.Log().Count(c.logged);
        Deliver(c.package);
        std::string name = c.package.substr(c.package.find_last_of('/') + 1);
        EXPECT_TRUE(test::WaitFor([&] { return sandbox_.Log().Count(c.logged) > before; }, 10s)) << name;
        EXPECT_TRUE(test::WaitFor([&] { return !Exists(Inside("/home/QelvarUser/aicpu_kernels/vf0_") + name); }, 5s))
            << "the package file goes: " << name;
        EXPECT_EQ(CheckCode(), size) << name;
    }
    // Refused before the unpack: the installed kernels are untouched.
    EXPECT_TRUE(Exists(InstalledPath("0/aicpu_kernels_device/libaicpu_demo_kernels.so")));

    // A sound package that the card's verification refuses once is refused,
    // and installed when it comes again.
    std::string sound = MakePackage("10_Velkan512-aicpu_syskernels.tar.gz", {"--pad-bytes", "300"});
    std::string output;
    ASSERT_EQ(test::EmuCtl(sandbox_, {"fail", "halVerifyImg", "7", "1"}, &output), 0) << output;
    size_t refusals = sandbox_.Log().Count("Check head tag failed");
    Deliver(sound);
    EXPECT_TRUE(test::WaitFor([&] { return sandbox_.Log().Count("Check head tag failed") > refusals; }, 10s));
    EXPECT_EQ(CheckCode(), size);
    EXPECT_EQ(test::EmuCtl(sandbox_, {"faults"}, &output), 0);
    EXPECT_EQ(output, "") << "the fault was used";
    Deliver(sound);
    EXPECT_TRUE(test::WaitFor([&] { return CheckCode() == SizeOf(sound); }, 10s));

    // A name that does not have a package's form is not even looked at.
    std::string stray = MakePackage("Velkan512-aicpu_syskernels.tar.gz");
    Deliver(stray);
    EXPECT_TRUE(sandbox_.Log().WaitFor("file[Velkan512-aicpu_syskernels.tar.gz] not correct, skip", 5s));
    EXPECT_TRUE(Exists(Inside("/home/hdc-trusted/dev0/Velkan512-aicpu_syskernels.tar.gz")));
}

TEST_F(PackageTest, AVfGetsItsConfigurationAndWatcherAndIsAcknowledged) {
    Boot();
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "create", "2"}, &output), 0) << output;
    EXPECT_EQ(output.substr(output.find_last_of('\n', output.size() - 2) + 1), "0\n");
    EXPECT_TRUE(Exists(Inside("/home/hdc-trusted/dev0/vfid2")));
    EXPECT_TRUE(Exists(Inside("/var/aicpu_custom_runner2")));
    EXPECT_TRUE(sandbox_.Log().Contains("PackSystem command: [cd /var && sudo /var/create_vf_config.sh 2]."));
    EXPECT_TRUE(sandbox_.Log().Contains("Creat inotify watcher by vfid[2] succ."));

    // Its watcher installs packages for it, under memory-limit control.
    std::string package = MakePackage(kPackageName);
    Deliver(package, {"--vf", "2"});
    uint32_t size = static_cast<uint32_t>(SizeOf(package));
    ASSERT_TRUE(test::WaitFor([&] { return CheckCode(2) == size; }, 10s));
    EXPECT_TRUE(Exists(InstalledPath("2/aicpu_kernels_device/version.info")));
    std::string limit = test::ReadFile(Inside("/cgroup/memory/usermemory/vf2/memory.limit_in_bytes"));
    EXPECT_LT(std::stoull(limit), 4294967296ULL) << "the limit gave up the installed size";
    EXPECT_TRUE(sandbox_.Log().Contains("SetMemoryControlValue command: [cd /var && sudo "
                                        "/var/orvdaemon_modify_usermemory.sh 2 " +
                                        std::to_string(std::stoull(limit)) + "]"));

    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "destroy", "2"}, &output), 0) << output;
    EXPECT_EQ(output, "0\n");
    EXPECT_TRUE(sandbox_.Log().Contains("Destroy inotify watcher in vfid[2] success"));
    EXPECT_FALSE(Exists(Inside("/home/hdc-trusted/dev0/vfid2")));
}

TEST_F(PackageTest, AFailingVfScriptIsAcknowledgedWithMinusOneAndLeavesNoWatcher) {
    Boot();
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"vf-script-faults", "create"}, &output), 0);
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "create", "4"}, &output), 0) << output;
    EXPECT_EQ(output, "-1\n");
    EXPECT_TRUE(sandbox_.Log().Contains("ProcessCreatVfEvent failed, command: [cd /var && sudo /var/create_vf_config.sh 4]"));
    ASSERT_EQ(EmuCtl(sandbox_, {"vf-script-faults"}, &output), 0);
    // No watcher was made: destroying the VF finds none.
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "destroy", "4"}, &output), 0) << output;
    EXPECT_TRUE(sandbox_.Log().Contains("Inotify watcher in vfid[4] is nullptr, skip destroy"));
}

TEST_F(PackageTest, MalformedVfNoticesAreRefusedWithoutAcknowledgement) {
    Boot();
    struct Case {
        std::vector<std::string> args;
        const char* logged;
    };
    const Case cases[] = {
        {{"vf", "create", "0", "--timeout", "1500"}, "Got invalid vfid[0]."},
        {{"vf", "create", "17", "--timeout", "1500"}, "Got invalid vfid[17]."},
        {{"vf", "create", "3", "--length", "15", "--timeout", "1500"},
         "Incorrect driver msg length[15], correct msg length[16]."},
        {{"vf", "destroy", "3", "--length", "17", "--timeout", "1500"},
         "Incorrect driver msg length[17], correct msg length[16]."},
    };
    for (const Case& c : cases) {
        std::string output;
        EXPECT_EQ(EmuCtl(sandbox_, c.args, &output), 1) << output;
        EXPECT_THAT(output, HasSubstr("no acknowledgement"));
        EXPECT_TRUE(sandbox_.Log().Contains(c.logged)) << c.logged;
    }
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "create", "16"}, &output), 0) << output;
    EXPECT_EQ(output, "0\n");
}

TEST_F(PackageTest, AVfWithoutMemoryRoomRefusesAFirstInstall) {
    // 100 MiB of room below the limit: less than a first install needs.
    Boot({"--vfs", "3", "--vf-memory-limit", "1000000000", "--vf-memory-usage", "895142400"});
    std::string package = MakePackage(kPackageName);
    Deliver(package, {"--vf", "3"});
    EXPECT_TRUE(sandbox_.Log().WaitFor("[OrvDaemon] vfid[3] has no enough space(less than 150M), max:[1000000000] "
                                       "byte, used:[895142400] byte.",
                                       10s));
    EXPECT_TRUE(sandbox_.Log().Contains("[OrvDaemon] Set or check memory limit failed"));
    EXPECT_EQ(CheckCode(3), 0u);
    EXPECT_FALSE(Exists(InstalledPath("3")));
    EXPECT_TRUE(test::WaitFor([&] { return !Exists(Inside("/home/QelvarUser/aicpu_kernels/vf3_") + kPackageName); }, 5s));
    EXPECT_EQ(test::ReadFile(Inside("/cgroup/memory/usermemory/vf3/memory.limit_in_bytes")), "1000000000\n");
}

TEST_F(PackageTest, VfsPresentAtStartGetTheirWatchersThenAndTheirOldKernelsCleared) {
    Boot({"--vfs", "1,12"});
    EXPECT_TRUE(sandbox_.Log().Contains("Creat physical inotify watcher success."));
    EXPECT_TRUE(sandbox_.Log().Contains("Inoitfy path on vfid[1] is /home/hdc-trusted/dev0/vfid1"));
    EXPECT_TRUE(sandbox_.Log().Contains("Inoitfy path on vfid[12] is /home/hdc-trusted/dev0/vfid12"));
    EXPECT_TRUE(sandbox_.Log().Contains("Delete file in path[/usr/lib64/aicpu_kernels/12] success."));
    EXPECT_EQ(sandbox_.Stop(), 0);
    EXPECT_EQ(sandbox_.Log().Count("is nullptr, skip destroy"), 14u);
}

TEST_F(PackageTest, TheEnvironmentScriptReachesTheDaemonAndItsSubProcesses) {
    std::string script = work_ + "/env.sh";
    test::WriteFile(script,
                    "# set by the platform\n"
                    "export DATAMASTER_RUN_MODE = 0 \n"
                    "QS_RESCHED_INTEVAL=9\n"
                    "export QS_RESCHED_INTEVAL=5\n");
    Boot({"--env-script", script, "--env", "STARTUP_QS=1"});
    EXPECT_TRUE(sandbox_.Log().Contains("[OrvDaemon] Set [DATAMASTER_RUN_MODE] to [0]."));
    std::string output;
    EXPECT_EQ(Host(sandbox_, {"session"}, &output, "open a\nsend a start-qs --pid 5\nexpect a 8 --code 0 --timeout 10000\n"),
              0)
        << output;
    std::vector<test::StandinRecord> queues = test::StandinRecordsOfKind(sandbox_, 3);
    ASSERT_EQ(queues.size(), 1u);
    EXPECT_THAT(queues[0].argv, ::testing::Contains("--reschedInterval=5"));
}

// Strings a host controls end up in command lines, logs and driver calls, but
// never in a shell: each carries a command that would leave a mark.
TEST_F(PackageTest, NoStringFromAHostReachesAShell) {
    Boot({"--env", "STARTUP_QS=1"});
    // Blank-free, so that each is one word of the host's script; the log
    // level and the group name are short enough to be taken.
    const std::string evil =
        "x;touch${IFS}/run/pwned_a;$(touch${IFS}/run/pwned_b)`touch${IFS}/run/pwned_c`|tee${IFS}/run/pwned_d&&";
    const std::string evilLevel = "$(touch${IFS}/run/pwned_l)";
    const std::string evilGroup = "`touch${IFS}/run/pwned_g`";
    std::string script = "open a\n";
    for (const char* request : {"start", "start-qs", "profiling", "close", "check-package", "test"}) {
        for (const char* vf : {"0", "1"}) {
            script += std::string("send a ") + request + " --pid 7 --vf " + vf + " --cp --zarn --sign " + evil +
                      " --log-level " + evilLevel + " --group " + evilGroup + "\nsleep 200\n";
        }
    }
    std::string output;
    Host(sandbox_, {"session"}, &output, script);
    std::this_thread::sleep_for(2s);
    std::string leftovers;
    ASSERT_EQ(sandbox_.Enter({"sh", "-c", "ls /run | grep pwned || true"}, &leftovers), 0);
    EXPECT_EQ(leftovers, "");
    // They did reach the daemon.
    EXPECT_TRUE(sandbox_.Log().Contains(evilLevel));
    EXPECT_TRUE(sandbox_.Log().Contains(evilGroup));
}

}  // namespace
}  // namespace orv
