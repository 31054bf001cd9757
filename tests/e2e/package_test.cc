// Kernel packages, VFs and start-up housekeeping, driven from outside as the
// host framework and the driver would: packages delivered with orv-host
// send-package, VF changes with orv-emu-ctl.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/host/host_request.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::EmuCtl;
using test::Host;
using test::SandboxRun;
using ::testing::HasSubstr;

constexpr char kPackageName[] = "5_Velkan512-aicpu_syskernels.tar.gz";
constexpr char kArchiveName[] = "Velkan512-aicpu_syskernels.tar.gz";

std::string RandomBytes(size_t count) {
    std::string bytes(count, '\0');
    std::ifstream random("/dev/urandom", std::ios::binary);
    random.read(bytes.data(), static_cast<std::streamsize>(count));
    return bytes;
}

// The tree of a sound package, telling itself apart by `build`; `padBytes`
// of noise give it a size (and so a check code) of its own.
void WriteSoundTree(const std::string& dir, const std::string& build, size_t padBytes) {
    mkdir((dir + "/aicpu_kernels_device").c_str(), 0755);
    test::WriteFile(dir + "/aicpu_kernels_device/version.info",
                    std::string("Name=") + kArchiveName + "\nBuild=" + build + "\n");
    test::WriteFile(dir + "/aicpu_kernels_device/libaicpu_demo_kernels.so", "kernels " + build);
    // A shared object, so that the installed-size walk counts it.
    test::WriteFile(dir + "/aicpu_kernels_device/libpayload.so", RandomBytes(padBytes));
}

// What a tree holds, entry by entry, as lstat and the contents show it: a
// change anywhere below `root` (outside `skipped`) changes the result.
std::map<std::string, std::string> Snapshot(const std::string& root,
                                            const std::vector<std::string>& skipped,
                                            const std::string& rel = "") {
    std::map<std::string, std::string> entries;
    DIR* dir = opendir((root + rel).c_str());
    if (dir == nullptr) {
        return entries;
    }
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        std::string path = rel + "/" + name;
        bool skip = name == "." || name == "..";
        for (const std::string& prefix : skipped) {
            skip = skip || path.compare(0, prefix.size(), prefix) == 0;
        }
        struct stat st {};
        if (skip || lstat((root + path).c_str(), &st) != 0) {
            continue;
        }
        std::string& what = entries[path];
        what = std::to_string(st.st_mode) + " " + std::to_string(st.st_uid) + ":" +
               std::to_string(st.st_gid);
        if (S_ISREG(st.st_mode)) {
            what += " links " + std::to_string(st.st_nlink) + " " +
                    std::to_string(std::hash<std::string>()(test::ReadFile(root + path)));
        } else if (S_ISLNK(st.st_mode)) {
            char target[PATH_MAX] = {0};
            what += " -> " +
                    std::string(target, std::max<ssize_t>(0, readlink((root + path).c_str(), target,
                                                                      sizeof(target) - 1)));
        } else if (S_ISDIR(st.st_mode)) {
            std::map<std::string, std::string> below = Snapshot(root, skipped, path);
            entries.insert(below.begin(), below.end());
        }
    }
    closedir(dir);
    return entries;
}

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
        // A query waits for an install under way, seconds on a loaded machine.
        EXPECT_EQ(
            Host(sandbox_,
                 {"--json", "--timeout", "30000", "check-package", "--vf", std::to_string(vf)},
                 &output),
            0)
            << output;
        size_t at = output.find("\"check_code\":");
        return at == std::string::npos ? 0
                                       : static_cast<uint32_t>(std::stoul(output.substr(at + 13)));
    }

    // A package holding exactly what `fill` puts into a directory, rewritten
    // by tar's --transform expressions; its path.
    std::string MakeFromDir(const std::string& name,
                            const std::function<void(const std::string&)>& fill,
                            const std::vector<std::string>& transforms = {}) {
        std::string dir = work_ + "/" + name + ".d";
        mkdir(dir.c_str(), 0755);
        fill(dir);
        std::vector<std::string> options = {"--from-dir", dir};
        for (const std::string& transform : transforms) {
            options.push_back("--transform");
            options.push_back(transform);
        }
        return MakePackage(name, options);
    }

    // Everything of the sandbox that no package may change: all but the
    // install directory of `vf` (and its staging siblings), where packages
    // arrive and wait, and what the card and the log keep changing.
    std::map<std::string, std::string> Untouchable(int vf = 0) const {
        std::string kernels = "/lib64/upper/aicpu_kernels/";
        return Snapshot(sandbox_.StateDir(),
                        {kernels + std::to_string(vf), kernels + "." + std::to_string(vf) + ".new-",
                         "/lib64/work", "/home/hdc-trusted", "/home/QelvarUser/aicpu_kernels",
                         "/var/log", "/run", "/sandbox.", "/.orv-sandbox",
                         "/cgroup/memory/usermemory/vf" + std::to_string(vf) + "/memory.limit"});
    }

    // A directory outside every install directory that hostile packages aim at.
    void PlantVictim() {
        std::string victim = Inside("/home/victim");
        mkdir(victim.c_str(), 0755);
        mkdir((victim + "/dir").c_str(), 0755);
        test::WriteFile(victim + "/secret", std::string("Name=") + kArchiveName + "\nsecret\n");
        chmod((victim + "/secret").c_str(), 0600);
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
    EXPECT_FALSE(Exists(Inside("/home/QelvarUser/aicpu_kernels/vf0_") + kPackageName))
        << "the staging file is gone";

    // The same package again is removed without being unpacked.
    size_t unpacks = sandbox_.Log().Count("Unzip_cmd is");
    Deliver(package);
    EXPECT_TRUE(sandbox_.Log().WaitFor("Package checkcode is [" + std::to_string(size) +
                                           "], current env checkcode is [" + std::to_string(size),
                                       5s));
    EXPECT_TRUE(test::WaitFor(
        [&] { return !Exists(Inside("/home/hdc-trusted/dev0/") + kPackageName); }, 5s));
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
    std::vector<std::string> query = {"/usr/bin/env",
                                      "ORV_HDC_SOCKET_1=" + env["ORV_HDC_SOCKET_1"],
                                      test::BinDir() + "/orv-host",
                                      "check-package",
                                      "--device",
                                      "1",
                                      "--json"};
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
    const std::string script =
        "open good\nsend good start --pid 20 --cp --check-code " + std::to_string(size) +
        "\nexpect good 8 --code 0 --timeout 10000\n"
        "open bad\nsend bad start --pid 21 --cp --check-code " +
        std::to_string(size + 1) + "\nexpect bad 8 --code 1 --timeout 40000\n";
    EXPECT_EQ(Host(sandbox_, {"session"}, &output, script), 0) << output;
    EXPECT_THAT(output,
                HasSubstr("message: \"load aicpu ops package failed, device[0], host pid[21]\""));
    EXPECT_TRUE(sandbox_.Log().Contains("Check sum wait 5 second timeout. host check code[" +
                                        std::to_string(size + 1) + "], device check code[" +
                                        std::to_string(size) + "]"));
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
    std::string tampered =
        MakePackage("6_Velkan512-aicpu_syskernels.tar.gz", {"--pad-bytes", "100"});
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
        {MakePackage("8_Velkan512-aicpu_syskernels.tar.gz", {"--unsigned"}),
         "Check head tag failed"},
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
        EXPECT_TRUE(test::WaitFor([&] { return sandbox_.Log().Count(c.logged) > before; }, 10s))
            << name;
        EXPECT_TRUE(test::WaitFor(
            [&] { return !Exists(Inside("/home/QelvarUser/aicpu_kernels/vf0_") + name); }, 5s))
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
    EXPECT_TRUE(test::WaitFor(
        [&] { return sandbox_.Log().Count("Check head tag failed") > refusals; }, 10s));
    EXPECT_EQ(CheckCode(), size);
    EXPECT_EQ(test::EmuCtl(sandbox_, {"faults"}, &output), 0);
    EXPECT_EQ(output, "") << "the fault was used";
    Deliver(sound);
    EXPECT_TRUE(test::WaitFor([&] { return CheckCode() == SizeOf(sound); }, 10s));

    // A name that does not have a package's form is not even looked at.
    std::string stray = MakePackage("Velkan512-aicpu_syskernels.tar.gz");
    Deliver(stray);
    EXPECT_TRUE(
        sandbox_.Log().WaitFor("file[Velkan512-aicpu_syskernels.tar.gz] not correct, skip", 5s));
    EXPECT_TRUE(Exists(Inside("/home/hdc-trusted/dev0/Velkan512-aicpu_syskernels.tar.gz")));
}

TEST_F(PackageTest, AVfGetsItsConfigurationAndWatcherAndIsAcknowledged) {
    Boot();
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "create", "2"}, &output), 0) << output;
    EXPECT_EQ(output.substr(output.find_last_of('\n', output.size() - 2) + 1), "0\n");
    EXPECT_TRUE(Exists(Inside("/home/hdc-trusted/dev0/vfid2")));
    EXPECT_TRUE(Exists(Inside("/var/aicpu_custom_runner2")));
    EXPECT_TRUE(sandbox_.Log().Contains(
        "PackSystem command: [cd /var && sudo /var/create_vf_config.sh 2]."));
    EXPECT_TRUE(sandbox_.Log().Contains("Creat inotify watcher by vfid[2] succ."));

    // Its watcher installs packages for it, under memory-limit control.
    std::string package = MakePackage(kPackageName);
    Deliver(package, {"--vf", "2"});
    uint32_t size = static_cast<uint32_t>(SizeOf(package));
    ASSERT_TRUE(test::WaitFor([&] { return CheckCode(2) == size; }, 10s));
    EXPECT_TRUE(Exists(InstalledPath("2/aicpu_kernels_device/version.info")));
    std::string limit =
        test::ReadFile(Inside("/cgroup/memory/usermemory/vf2/memory.limit_in_bytes"));
    EXPECT_LT(std::stoull(limit), 4294967296ULL) << "the limit gave up the installed size";
    EXPECT_TRUE(
        sandbox_.Log().Contains("SetMemoryControlValue command: [cd /var && sudo "
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
    EXPECT_TRUE(sandbox_.Log().Contains(
        "ProcessCreatVfEvent failed, command: [cd /var && sudo /var/create_vf_config.sh 4]"));
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
        EXPECT_TRUE(sandbox_.Log().WaitFor(c.logged, 10s)) << c.logged;
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
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "[OrvDaemon] vfid[3] has no enough space(less than 150M), max:[1000000000] "
        "byte, used:[895142400] byte.",
        10s));
    EXPECT_TRUE(sandbox_.Log().Contains("[OrvDaemon] Set or check memory limit failed"));
    EXPECT_EQ(CheckCode(3), 0u);
    EXPECT_FALSE(Exists(InstalledPath("3")));
    EXPECT_TRUE(test::WaitFor(
        [&] { return !Exists(Inside("/home/QelvarUser/aicpu_kernels/vf3_") + kPackageName); }, 5s));
    EXPECT_EQ(test::ReadFile(Inside("/cgroup/memory/usermemory/vf3/memory.limit_in_bytes")),
              "1000000000\n");
}

TEST_F(PackageTest, VfsPresentAtStartGetTheirWatchersThenAndTheirOldKernelsCleared) {
    Boot({"--vfs", "1,12"});
    EXPECT_TRUE(sandbox_.Log().Contains("Creat physical inotify watcher success."));
    EXPECT_TRUE(sandbox_.Log().Contains("Inoitfy path on vfid[1] is /home/hdc-trusted/dev0/vfid1"));
    EXPECT_TRUE(
        sandbox_.Log().Contains("Inoitfy path on vfid[12] is /home/hdc-trusted/dev0/vfid12"));
    EXPECT_TRUE(
        sandbox_.Log().Contains("Delete file in path[/usr/lib64/aicpu_kernels/12] success."));
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
    EXPECT_EQ(Host(sandbox_, {"session"}, &output,
                   "open a\nsend a start-qs --pid 5\nexpect a 8 --code 0 --timeout 10000\n"),
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
        "x;touch${IFS}/run/pwned_a;$(touch${IFS}/run/pwned_b)`touch${IFS}/run/pwned_c`|tee${IFS}/"
        "run/pwned_d&&";
    const std::string evilLevel = "$(touch${IFS}/run/pwned_l)";
    const std::string evilGroup = "`touch${IFS}/run/pwned_g`";
    std::string script = "open a\n";
    for (const char* request :
         {"start", "start-qs", "profiling", "close", "check-package", "test"}) {
        for (const char* vf : {"0", "1"}) {
            script += std::string("send a ") + request + " --pid 7 --vf " + vf +
                      " --cp --zarn --sign " + evil + " --log-level " + evilLevel + " --group " +
                      evilGroup + "\nsleep 200\n";
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

// A packager can put anything into a signed package; none of it may reach
// outside the install directory, and a package that tries is refused whole:
// the kernels and check code of before stay, and agree with each other.
TEST_F(PackageTest, HostilePackagesAreRefusedWholeAndNothingOutsideTheirDirectoryChanges) {
    Boot();
    PlantVictim();
    std::string good =
        MakeFromDir("1_Velkan512-aicpu_syskernels.tar.gz",
                    [](const std::string& dir) { WriteSoundTree(dir, "good", 100); });
    Deliver(good);
    uint32_t code = static_cast<uint32_t>(SizeOf(good));
    ASSERT_TRUE(test::WaitFor([&] { return CheckCode() == code; }, 10s));
    const std::string installed = InstalledPath("0/aicpu_kernels_device/version.info");
    const std::string goodInfo = test::ReadFile(installed);
    ASSERT_THAT(goodInfo, HasSubstr("Build=good"));
    const std::map<std::string, std::string> before = Untouchable();

    auto device = [](const std::string& dir) { return dir + "/aicpu_kernels_device/"; };
    // Noise of a different length in each, so that none has the installed
    // package's size, which would have it taken for that package and dropped.
    auto soundWith = [&](std::function<void(const std::string&)> more, size_t padBytes) {
        return [more, device, padBytes](const std::string& dir) {
            WriteSoundTree(dir, "hostile", padBytes);
            more(device(dir));
        };
    };
    auto sandBoxLine = [](const std::string& items) {
        return [items](const std::string& dev) {
            test::WriteFile(dev + "version.info", std::string("Name=") + kArchiveName +
                                                      "\nBuild=hostile\nSandBoxSo=" + items + "\n");
            test::WriteFile(dev + "libsb.so", "sand box object");
        };
    };
    struct Case {
        const char* what;
        std::function<void(const std::string&)> fill;  // on aicpu_kernels_device/
        std::vector<std::string> transforms;
        const char* reason;  // of the refusal line, or the line logged instead
    };
    std::vector<Case> cases = {
        {"an absolute member name",
         [](const std::string& dev) { test::WriteFile(dev + "ABS", "planted"); },
         {"s,^aicpu_kernels_device/ABS$,/home/victim/planted,"},
         "has an absolute name"},
        {"a member name that climbs",
         [](const std::string& dev) { test::WriteFile(dev + "UP", "planted"); },
         {"s,^aicpu_kernels_device/UP$,aicpu_kernels_device/../../../../../home/victim/planted,"},
         "climbs out with \"..\""},
        {"a link out, and a member written through it",
         [](const std::string& dev) {
             symlink("/home/victim", (dev + "escape").c_str());
             test::WriteFile(dev + "zthrough", "planted");
         },
         {"s,^aicpu_kernels_device/zthrough$,aicpu_kernels_device/escape/planted,"},
         "tar cannot unpack it"},
        {"a relative link out",
         [](const std::string& dev) {
             symlink("../../../../../home/victim/secret", (dev + "up.so").c_str());
         },
         {},
         "is a symbolic link to [../../../../../home/victim/secret], outside the package"},
        {"a link out through a link in the package",
         [](const std::string& dev) {
             symlink(".", (dev + "self").c_str());
             symlink("self/../..", (dev + "out").c_str());
         },
         {},
         "is a symbolic link to [self/../..], outside the package"},
        {"a hard link to a file outside",
         [](const std::string& dev) {
             test::WriteFile(dev + "a.so", "object");
             link((dev + "a.so").c_str(), (dev + "hard.so").c_str());
         },
         {"s,^aicpu_kernels_device/a.so$,/home/victim/secret,RSh"},
         "tar cannot unpack it"},
        {"a FIFO",
         [](const std::string& dev) { mkfifo((dev + "pipe").c_str(), 0644); },
         {},
         "is a FIFO"},
        {"a sand box that is a link out",
         [&](const std::string& dev) {
             sandBoxLine("libsb.so")(dev);
             symlink("/home/victim/dir", (dev + "sand_box").c_str());
         },
         {},
         "outside the package"},
        {"a sand box that is a link inside",
         [&](const std::string& dev) {
             sandBoxLine("libsb.so")(dev);
             mkdir((dev + "elsewhere").c_str(), 0755);
             symlink("elsewhere", (dev + "sand_box").c_str());
         },
         {},
         "its sand_box is a symbolic link, not a real directory"},
        {"a sand box that is a file",
         [&](const std::string& dev) {
             sandBoxLine("libsb.so")(dev);
             test::WriteFile(dev + "sand_box", "not a directory");
         },
         {},
         "its sand_box is a regular file, not a real directory"},
        {"a sand-box object named with \"..\"",
         sandBoxLine("libsb.so, ../../../../../../home/victim/secret"),
         {},
         "its SandBoxSo= entry [../../../../../../home/victim/secret] is not a plain file name"},
        {"a sand-box object in a subdirectory",
         sandBoxLine("sub/libsb.so"),
         {},
         "its SandBoxSo= entry [sub/libsb.so] is not a plain file name"},
        {"a version.info naming another archive",
         [](const std::string& dev) {
             test::WriteFile(dev + "version.info",
                             "Name=Velkan999-aicpu_syskernels.tar.gz\nBuild=hostile\n");
         },
         {},
         "Do clean_cmd failed, packageNames not found"},
    };
    if (geteuid() == 0) {
        // Only root can make one (and only a root tar unpacks one).
        cases.push_back({"a device",
                         [](const std::string& dev) {
                             mknod((dev + "null").c_str(), S_IFCHR | 0644, makedev(1, 3));
                         },
                         {},
                         "member [aicpu_kernels_device/null] is a character device"});
    }
    int number = 20;
    for (const Case& c : cases) {
        std::string name = std::to_string(number) + "_" + kArchiveName;
        std::string package =
            MakeFromDir(name, soundWith(c.fill, 2000 + 100 * number), c.transforms);
        size_t refusals = sandbox_.Log().Count(c.reason);
        Deliver(package);
        EXPECT_TRUE(test::WaitFor([&] { return sandbox_.Log().Count(c.reason) > refusals; }, 10s))
            << c.what << ": never refused with \"" << c.reason << "\"";
        if (std::string(c.reason).find("Do clean_cmd") == std::string::npos) {
            EXPECT_TRUE(sandbox_.Log().Contains(
                "[PackageWorker] Refused package[/home/QelvarUser/aicpu_kernels/vf0_" + name +
                "]: "))
                << c.what;
        }
        EXPECT_TRUE(test::WaitFor(
            [&] { return !Exists(Inside("/home/QelvarUser/aicpu_kernels/vf0_") + name); }, 5s))
            << c.what;
        EXPECT_EQ(CheckCode(), code) << c.what;
        EXPECT_EQ(test::ReadFile(installed), goodInfo)
            << c.what << ": the installed kernels changed";
        EXPECT_EQ(Untouchable(), before)
            << c.what << ": something outside the install directory changed";
        ++number;
    }
    std::vector<std::string> staged;
    for (const auto& entry : Snapshot(InstalledPath(""), {})) {
        if (entry.first.find(".new-") != std::string::npos) {
            staged.push_back(entry.first);
        }
    }
    EXPECT_THAT(staged, ::testing::IsEmpty()) << "no staging tree is left behind";

    // After all that, a sound package goes in as ever.
    std::string next =
        MakeFromDir("99_Velkan512-aicpu_syskernels.tar.gz",
                    [](const std::string& dir) { WriteSoundTree(dir, "next", 300); });
    Deliver(next);
    EXPECT_TRUE(test::WaitFor([&] { return CheckCode() == SizeOf(next); }, 10s));
    EXPECT_THAT(test::ReadFile(installed), HasSubstr("Build=next"));
    EXPECT_EQ(SizeOf(InstalledPath("0/aicpu_kernels_device/libpayload.so")), 300u);
}

// The installed kernels of a VF change only together with its check code:
// an update its memory limit cannot take leaves the old ones, charged as before.
TEST_F(PackageTest, AnUpdateTheVfsLimitCannotTakeLeavesTheOldKernelsInstalled) {
    Boot({"--vfs", "3"});
    std::string first =
        MakeFromDir("1_Velkan512-aicpu_syskernels.tar.gz",
                    [](const std::string& dir) { WriteSoundTree(dir, "first", 100); });
    Deliver(first, {"--vf", "3"});
    uint32_t code = static_cast<uint32_t>(SizeOf(first));
    ASSERT_TRUE(test::WaitFor([&] { return CheckCode(3) == code; }, 10s));
    // The limit now leaves no room for a package much bigger than the first
    // once unpacked, though its file is small.
    std::string limitFile = Inside("/cgroup/memory/usermemory/vf3/memory.limit_in_bytes");
    test::WriteFile(limitFile, "200000\n");
    std::string bigger =
        MakeFromDir("2_Velkan512-aicpu_syskernels.tar.gz", [](const std::string& dir) {
            WriteSoundTree(dir, "bigger", 100);
            test::WriteFile(dir + "/aicpu_kernels_device/libzeros.so", std::string(400000, '\0'));
        });
    ASSERT_LT(SizeOf(bigger), 200000u);
    Deliver(bigger, {"--vf", "3"});
    EXPECT_TRUE(sandbox_.Log().WaitFor("Set User memory limit failed", 10s));
    EXPECT_EQ(CheckCode(3), code);
    EXPECT_THAT(test::ReadFile(InstalledPath("3/aicpu_kernels_device/version.info")),
                HasSubstr("Build=first"));
    EXPECT_EQ(SizeOf(InstalledPath("3/aicpu_kernels_device/libpayload.so")), 100u);
    EXPECT_EQ(test::ReadFile(limitFile), "200000\n");
}

// A FIFO named like a package, closed after writing, is refused at once:
// it keeps no worker, query, start or shutdown waiting.
TEST_F(PackageTest, AFifoNamedLikeAPackageBlocksNobody) {
    Boot({"--vfs", "2"});
    std::string good = MakePackage(kPackageName);
    Deliver(good);
    uint32_t code = static_cast<uint32_t>(SizeOf(good));
    ASSERT_TRUE(test::WaitFor([&] { return CheckCode() == code; }, 10s));
    for (const std::string& dir :
         {Inside("/home/hdc-trusted/dev0"), Inside("/home/hdc-trusted/dev0/vfid2")}) {
        std::string fifo = dir + "/6_" + kArchiveName;
        ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
        // Opened for reading and writing, so that the open does not wait;
        // the close is a close after writing.
        int fd = open(fifo.c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "/6_Velkan512-aicpu_syskernels.tar.gz]: it is a FIFO, not a regular file.", 10s));
    EXPECT_TRUE(test::WaitFor(
        [&] { return sandbox_.Log().Count("it is a FIFO, not a regular file.") == 2; }, 10s));
    EXPECT_EQ(CheckCode(), code);
    EXPECT_EQ(CheckCode(2), 0u);
    std::string output;
    EXPECT_EQ(Host(sandbox_, {"session"}, &output,
                   "open a\nsend a start --pid 40 --cp --check-code " + std::to_string(code) +
                       "\nexpect a 8 --code 0 --timeout 10000\n"),
              0)
        << output;
    // The package that comes next is installed.
    std::string next = MakePackage("7_Velkan512-aicpu_syskernels.tar.gz", {"--pad-bytes", "200"});
    Deliver(next);
    EXPECT_TRUE(test::WaitFor([&] { return CheckCode() == SizeOf(next); }, 10s));
    EXPECT_EQ(sandbox_.Stop(std::chrono::seconds(30)), 0);
}

// A dropped file is taken as it was opened: replaced by a link (or by another
// name of a file elsewhere) after its close, it is refused, and what the link
// leads to is neither touched nor installed.
TEST_F(PackageTest, AFileSwappedForALinkAfterItsCloseIsRefusedAndItsTargetUntouched) {
    Boot();
    PlantVictim();
    // A sound signed package lies outside the trusted directory.
    std::string elsewhere =
        MakePackage("8_Velkan512-aicpu_syskernels.tar.gz", {"--pad-bytes", "500"});
    ASSERT_EQ(rename(elsewhere.c_str(),
                     Inside("/home/victim/8_Velkan512-aicpu_syskernels.tar.gz").c_str()),
              0);
    const std::map<std::string, std::string> before = Untouchable();

    // The worker is busy with a first package while the others are swapped.
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"slow", "halVerifyImg", "3000", "1"}, &output), 0) << output;
    std::string busy = MakePackage(kPackageName);
    Deliver(busy);
    ASSERT_TRUE(sandbox_.Log().WaitFor("file[" + std::string(kPackageName) + "] to dstFile[", 10s));
    const std::string trusted = Inside("/home/hdc-trusted/dev0/");
    // Each is written and closed, then another name takes its place.
    struct Swap {
        std::string name;
        std::string target;  // of a symbolic link, or (outside) of a hard link
        bool hard;
    };
    const std::vector<Swap> swaps = {
        {"11_" + std::string(kArchiveName), "/home/victim/secret", false},
        {"12_" + std::string(kArchiveName), "/home/victim/8_Velkan512-aicpu_syskernels.tar.gz",
         false},
        {"13_" + std::string(kArchiveName), Inside("/home/victim/secret"), true},
    };
    for (const Swap& swap : swaps) {
        test::WriteFile(trusted + swap.name, "closed after writing");
        int made = swap.hard ? link(swap.target.c_str(), (trusted + "other").c_str())
                             : symlink(swap.target.c_str(), (trusted + "other").c_str());
        ASSERT_EQ(made, 0) << swap.name;
        ASSERT_EQ(rename((trusted + "other").c_str(), (trusted + swap.name).c_str()), 0);
    }
    uint32_t code = static_cast<uint32_t>(SizeOf(busy));
    EXPECT_TRUE(test::WaitFor(
        [&] {
            return sandbox_.Log().Count("it is a symbolic link, not a regular file.") == 2 &&
                   sandbox_.Log().Contains("13_" + std::string(kArchiveName) +
                                           "]: it has 2 names (hard links), not one.");
        },
        15s));
    EXPECT_EQ(CheckCode(), code) << "the first package, not the one the link leads to";
    EXPECT_EQ(Untouchable(), before) << "the links' targets are as they were";
    struct stat st {};
    EXPECT_NE(lstat((trusted + swaps[0].name).c_str(), &st), 0) << "the link is gone";
}

// Shell commands run while other shell commands run: the VF scripts on the
// event worker, the memory script of installs on a VF's watcher. Each gets
// its own command's status, and the daemon's children are still reaped by
// the kernel afterwards.
TEST_F(PackageTest, VfNoticesAndInstallsRunningTogetherAreAnsweredRightAndLeaveNoZombie) {
    Boot({"--vfs", "3"});
    std::atomic<bool> installing{true};
    std::vector<std::string> wrongAcks;
    std::thread notices([&] {
        for (int round = 0; round < 40 && (round < 12 || installing); ++round) {
            for (const char* change : {"create", "destroy"}) {
                std::string output;
                int status = EmuCtl(sandbox_, {"vf", change, "5"}, &output);
                if (status != 0 ||
                    output.substr(output.find_last_of('\n', output.size() - 2) + 1) != "0\n") {
                    wrongAcks.push_back(std::string(change) + ": " + output);
                }
            }
        }
    });
    for (int i = 0; i < 8; ++i) {
        std::string package = MakePackage(std::to_string(10 + i) + "_" + kArchiveName,
                                          {"--pad-bytes", std::to_string(1000 * (i + 1))});
        Deliver(package, {"--vf", "3"});
        EXPECT_TRUE(test::WaitFor([&] { return CheckCode(3) == SizeOf(package); }, 15s))
            << "package " << i;
    }
    installing = false;
    notices.join();
    EXPECT_THAT(wrongAcks, ::testing::IsEmpty());
    EXPECT_EQ(sandbox_.Log().Count("result: [-1]"), 0u) << "no command lost its status";

    // The daemon still has its children reaped: a closed sub-process leaves
    // no zombie behind.
    std::string output;
    ASSERT_EQ(Host(sandbox_, {"session"}, &output,
                   "open a\nsend a start --pid 50 --zarn\nexpect a 8 --code 0 --timeout 10000\n"
                   "send a close --pid 50\nexpect a 9 --code 0 --timeout 10000\n"),
              0)
        << output;
    auto zombies = [&] {
        size_t count = 0;
        for (const emu::SandboxProcess& process : emu::ProcessStates(sandbox_.PidNamespace())) {
            count += process.state == 'Z' ? 1 : 0;
        }
        return count;
    };
    EXPECT_TRUE(test::WaitFor([&] { return zombies() == 0; }, 5s)) << zombies() << " zombies";
}

// Whenever a VF's kernels are removed, its check code goes back to 0: no
// start or query may go on the word of kernels that are gone.
TEST_F(PackageTest, AVfsCheckCodeGoesWithTheKernelsItDescribes) {
    Boot();
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "create", "2"}, &output), 0) << output;
    auto install = [&](const std::string& name, const char* pad) {
        std::string package = MakePackage(name, {"--pad-bytes", pad});
        Deliver(package, {"--vf", "2"});
        EXPECT_TRUE(test::WaitFor([&] { return CheckCode(2) == SizeOf(package); }, 10s)) << name;
    };
    install("1_Velkan512-aicpu_syskernels.tar.gz", "100");

    // A second "created" notice for a VF that has its watcher clears its kernels.
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "create", "2"}, &output), 0) << output;
    EXPECT_EQ(output.substr(output.find_last_of('\n', output.size() - 2) + 1), "0\n");
    EXPECT_FALSE(Exists(InstalledPath("2")));
    EXPECT_EQ(CheckCode(2), 0u);

    // So does a "destroyed" notice whose script fails, though the watcher stays.
    install("2_Velkan512-aicpu_syskernels.tar.gz", "200");
    ASSERT_EQ(EmuCtl(sandbox_, {"vf-script-faults", "destroy"}, &output), 0);
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "destroy", "2"}, &output), 0) << output;
    EXPECT_EQ(output, "-1\n");
    EXPECT_FALSE(Exists(InstalledPath("2")));
    EXPECT_EQ(CheckCode(2), 0u);
    install("3_Velkan512-aicpu_syskernels.tar.gz", "300");
}

// Package workers exist for the VFs that can exist (0 to 16): a query for
// any other id creates nothing and gets no answer.
TEST_F(PackageTest, PackageQueriesForVfIdsThatCannotExistCreateNothingAndGetNoReply) {
    Boot();
    for (const char* vf : {"17", "1000", "-1"}) {
        std::string output;
        EXPECT_EQ(Host(sandbox_, {"check-package", "--vf", vf, "--timeout", "1500"}, &output), 3)
            << "vf " << vf << ": " << output;
        EXPECT_TRUE(sandbox_.Log().WaitFor(
            std::string("[PackageWorker] No package worker for vfId[") + vf + "]", 10s))
            << vf;
    }
    EXPECT_EQ(CheckCode(16), 0u) << "VF 16 has a worker";
}

// The watchers' inotify and epoll descriptors stay in the daemon: the
// sub-processes it starts run user code.
TEST_F(PackageTest, SubProcessesInheritNoDescriptorOfThePackageWatchers) {
    Boot({"--vfs", "1"});
    std::thread host([&] {
        std::string output;
        EXPECT_EQ(Host(sandbox_, {"session"}, &output,
                       "open a\nsend a start --pid 60 --zarn\nexpect a 8 --code 0 --timeout "
                       "10000\nsleep 3000\n"),
                  0)
            << output;
    });
    std::vector<test::StandinRecord> zarns;
    ASSERT_TRUE(test::WaitFor(
        [&] { return !(zarns = test::StandinRecordsOfKind(sandbox_, 0)).empty(); }, 10s));
    std::vector<std::string> inherited;
    for (const emu::SandboxProcess& process : emu::ProcessStates(sandbox_.PidNamespace())) {
        if (process.inner != zarns[0].pid) {
            continue;
        }
        std::string fds = "/proc/" + std::to_string(process.outer) + "/fd";
        DIR* dir = opendir(fds.c_str());
        ASSERT_NE(dir, nullptr);
        while (dirent* entry = readdir(dir)) {
            char target[PATH_MAX] = {0};
            if (readlink((fds + "/" + entry->d_name).c_str(), target, sizeof(target) - 1) > 0 &&
                (std::string(target) == "anon_inode:inotify" ||
                 std::string(target) == "anon_inode:[eventpoll]")) {
                inherited.push_back(std::string(entry->d_name) + " -> " + target);
            }
        }
        closedir(dir);
    }
    host.join();
    EXPECT_THAT(inherited, ::testing::IsEmpty());
}

// A file far longer than any kernel package (3 GiB, sparse) is refused from
// its length: nothing is copied, and its VF's queries and packages go on.
TEST_F(PackageTest, AFileLongerThanAnyPackageIsRefusedBeforeItIsRead) {
    Boot({"--vfs", "1"});
    const std::string name = "7_" + std::string(kArchiveName);
    const std::string path = Inside("/home/hdc-trusted/dev0/vfid1/") + name;
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, off_t{3} << 30), 0);
    close(fd);
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "[PackageWorker] Refused package[/home/hdc-trusted/dev0/vfid1/" + name +
            "]: it is 3221225472 bytes long, more than the " + "134217728 a kernel package may be.",
        10s));
    EXPECT_TRUE(test::WaitFor([&] { return !Exists(path); }, 5s));
    EXPECT_FALSE(Exists(Inside("/home/QelvarUser/aicpu_kernels/vf1_") + name)) << "it was moved";
    EXPECT_EQ(CheckCode(1), 0u);
    std::string package = MakePackage(kPackageName);
    Deliver(package, {"--vf", "1"});
    EXPECT_TRUE(test::WaitFor([&] { return CheckCode(1) == SizeOf(package); }, 10s));
}

// The text a package brings is read within bounds: a line or a version.info
// beyond them refuses the package, and the daemon never holds the excess.
TEST_F(PackageTest, AVersionInfoBeyondItsBoundsRefusesThePackage) {
    Boot();
    const pid_t daemon = test::DaemonPid(sandbox_);
    const size_t peakBefore = test::PeakResidentKb(daemon);
    const std::string nameLine = std::string("Name=") + kArchiveName + "\n";
    std::string manyLines;
    for (int i = 0; i < 2000; ++i) {
        manyLines += "Key" + std::to_string(i) + "=value\n";
    }
    struct Case {
        std::string versionInfo;
        std::string reason;
    };
    const Case cases[] = {
        {nameLine + "Build=" + std::string(64u << 20, 'x') + "\n",
         "in its version.info a line is longer than 4096 bytes."},
        {nameLine + manyLines, "in its version.info it has more than 1024 lines."},
    };
    int number = 8;
    for (const Case& c : cases) {
        const std::string name = std::to_string(number++) + "_" + kArchiveName;
        std::string package = MakeFromDir(name, [&c](const std::string& dir) {
            WriteSoundTree(dir, "bounded", 100);
            test::WriteFile(dir + "/aicpu_kernels_device/version.info", c.versionInfo);
        });
        Deliver(package);
        EXPECT_TRUE(sandbox_.Log().WaitFor(
            "[PackageWorker] Refused package[/home/QelvarUser/aicpu_kernels/vf0_" + name +
                "]: " + c.reason,
            30s))
            << c.reason;
    }
    EXPECT_EQ(CheckCode(), 0u);
    if (test::kResidentSizeMeaningful) {
        EXPECT_LT(test::PeakResidentKb(daemon), peakBefore + 32 * 1024)
            << "the daemon held the text";
    }
}

// Whatever another process plants where a package waits, or in the place of
// the directory where packages wait, is removed: it fails no install.
TEST_F(PackageTest, PathsPlantedWherePackagesWaitBlockNoInstall) {
    Boot();
    PlantVictim();
    const std::string staging = Inside("/home/QelvarUser/aicpu_kernels");
    const std::string waiting = staging + "/vf0_" + kPackageName;
    ASSERT_EQ(mkdir(staging.c_str(), 0750), 0);
    ASSERT_EQ(mkdir(waiting.c_str(), 0755), 0);
    test::WriteFile(waiting + "/inside", "planted");
    std::string first = MakePackage(kPackageName);
    Deliver(first);
    EXPECT_TRUE(test::WaitFor([&] { return CheckCode() == SizeOf(first); }, 10s));
    EXPECT_TRUE(sandbox_.Log().Contains(
        std::string("[PackageWorker] [/home/QelvarUser/aicpu_kernels/vf0_") + kPackageName +
        "] is taken by a directory the daemon did not leave there: it is removed."));

    const std::map<std::string, std::string> before = Untouchable();
    test::RemoveTree(staging);
    ASSERT_EQ(symlink("/home/victim/dir", staging.c_str()), 0);
    std::string second = MakeFromDir("6_" + std::string(kArchiveName), [](const std::string& dir) {
        WriteSoundTree(dir, "second", 300);
    });
    Deliver(second);
    EXPECT_TRUE(test::WaitFor([&] { return CheckCode() == SizeOf(second); }, 10s));
    EXPECT_TRUE(
        sandbox_.Log().Contains("[PackageWorker] Staging directory "
                                "[/home/QelvarUser/aicpu_kernels] is not a directory: it "
                                "is removed and made anew."));
    EXPECT_EQ(Untouchable(), before) << "a package went where the planted link led";
}

// Out of descriptors, an honest package is left where it was dropped; once
// descriptors are there again, it is tried again and installed.
TEST_F(PackageTest, APackageDroppedWhileTheDaemonIsOutOfDescriptorsIsInstalledLater) {
    Boot();
    const pid_t daemon = test::DaemonPid(sandbox_);
    std::string package = MakePackage(kPackageName);
    rlimit saved{};
    ASSERT_EQ(prlimit(daemon, RLIMIT_NOFILE, nullptr, &saved), 0);
    // Every descriptor number a new one could take is past the limit.
    rlimit none{3, saved.rlim_max};
    ASSERT_EQ(prlimit(daemon, RLIMIT_NOFILE, &none, nullptr), 0);
    Deliver(package);
    bool shortage = sandbox_.Log().WaitFor("it stays where it is and is tried again.", 10s);
    ASSERT_EQ(prlimit(daemon, RLIMIT_NOFILE, &saved, nullptr), 0);
    EXPECT_TRUE(shortage);
    EXPECT_TRUE(test::WaitFor([&] { return CheckCode() == SizeOf(package); }, 20s))
        << "the package was lost";
    EXPECT_TRUE(sandbox_.Log().Contains("is tried again in"));
}

// An install holds nothing a query, a start or the daemon's stop needs: they
// get the check code last published while it runs, and the stop ends it,
// leaving the kernels installed before.
TEST_F(PackageTest, QueriesStartsAndTheStopGoOnWhileAnInstallRuns) {
    Boot();
    std::string first = MakeFromDir("1_" + std::string(kArchiveName), [](const std::string& dir) {
        WriteSoundTree(dir, "first", 100);
    });
    Deliver(first);
    const uint32_t code = static_cast<uint32_t>(SizeOf(first));
    ASSERT_TRUE(test::WaitFor([&] { return CheckCode() == code; }, 10s));
    std::string output;
    // The second install's verification answers late, for seconds.
    ASSERT_EQ(EmuCtl(sandbox_, {"slow", "halVerifyImg", "6000", "1"}, &output), 0) << output;
    const size_t installs = sandbox_.Log().Count("Move dynamic link so to sand box success.");
    const std::string secondName = "2_" + std::string(kArchiveName);
    std::string second =
        MakeFromDir(secondName, [](const std::string& dir) { WriteSoundTree(dir, "second", 300); });
    Deliver(second);
    ASSERT_TRUE(sandbox_.Log().WaitFor("file[" + secondName + "] to dstFile", 10s));
    EXPECT_EQ(CheckCode(), code);
    auto link = test::HoldLink(sandbox_);
    ASSERT_NE(link, nullptr);
    ASSERT_TRUE(link->Send(
        host::BuildRequest("start",
                           host::Words("--pid 60 --cp --check-code " + std::to_string(code)), 0)
            .msg));
    HDCMessage reply;
    ASSERT_EQ(link->Await(HDCMessage::ORV_START_PROC_RSP, &reply, 10s), host::Received::kMessage);
    EXPECT_EQ(reply.orv_rsp_code(), 0u);
    EXPECT_EQ(sandbox_.Log().Count("Move dynamic link so to sand box success."), installs)
        << "the install was over before the query and the start were answered";
    link.reset();
    EXPECT_EQ(sandbox_.Stop(30s), 0);
    EXPECT_THAT(test::ReadFile(InstalledPath("0/aicpu_kernels_device/version.info")),
                HasSubstr("Build=first"));
    EXPECT_TRUE(sandbox_.Log().Contains(
        "[PackageWorker] Package[/home/QelvarUser/aicpu_kernels/vf0_" + secondName));
    EXPECT_TRUE(sandbox_.Log().Contains("the install was stopped."));
    EXPECT_TRUE(Exists(Inside("/home/hdc-trusted/dev0/") + secondName))
        << "the package is not back where it was dropped";
    for (const auto& entry : Snapshot(InstalledPath(""), {})) {
        EXPECT_EQ(entry.first.find(".new-"), std::string::npos) << entry.first << " was left";
    }
}

// Packages whose install a shortage cut short wait for another try, a bounded
// number per VF: beyond, the oldest is left where it was dropped, without
// one. None of them is removed.
TEST_F(PackageTest, PackagesWaitingForAnotherTryAreBoundedAndLeftInPlace) {
    Boot();
    // Without its verification library no install can finish, through no
    // fault of the packages.
    ASSERT_EQ(sandbox_.Enter({"rm", "/usr/lib64/libvelkan_imgverify.so"}), 0);
    std::vector<std::string> names;
    for (int i = 0; i < 17; ++i) {
        names.push_back(std::to_string(100 + i) + "_" + kArchiveName);
        Deliver(MakePackage(names.back(), {"--pad-bytes", std::to_string(1000 + i)}));
    }
    EXPECT_TRUE(sandbox_.Log().WaitFor(
        "of vfId[0] is left where it is without another try: 16 packages wait for one already.",
        20s));
    for (const std::string& name : names) {
        EXPECT_TRUE(Exists(Inside("/home/hdc-trusted/dev0/") + name)) << name << " was removed";
    }
    EXPECT_EQ(CheckCode(), 0u);
}
}  // namespace
}  // namespace orv
