// Runs inside a sandbox: the package worker's fixed paths (/usr/lib64,
// /sys/fs/cgroup, /home/QelvarUser) are the sandbox's own.
#include "package/package_worker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "package/inotify_watcher.h"
#include "package/internal_api.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;

constexpr char kCgroupRoot[] = "/sys/fs/cgroup/memory/usermemory/vf";

void MakeCgroup(int vf, const std::string& limit, const std::string& usage) {
    std::string dir = kCgroupRoot + std::to_string(vf);
    mkdir(dir.c_str(), 0755);
    test::WriteFile(dir + "/memory.limit_in_bytes", limit);
    test::WriteFile(dir + "/memory.usage_in_bytes", usage);
}

std::string Limit(int vf) {
    return test::ReadFile(kCgroupRoot + std::to_string(vf) + "/memory.limit_in_bytes");
}

TEST(PackageWorkerTest, CheckSumWaitsForTheHostsCodeUnlessItIsZeroOrTheWorkerStops) {
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(0);
    ASSERT_NE(worker, nullptr);
    EXPECT_EQ(worker, PackageWorker::GetInstance(0));
    EXPECT_EQ(worker->GetCheckCode(), 0u);
    EXPECT_EQ(worker->CheckSum(0), 0u);
    test::LogCapture log;
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(worker->CheckSum(1234), 1u);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 4s);
    EXPECT_TRUE(log.Contains(
        "Check sum wait 5 second timeout. host check code[1234], device check code[0]"));
    worker->Stop();
    EXPECT_EQ(worker->CheckSum(7), 1u) << "a stopped worker never waits";
    worker->Destory();
    EXPECT_NE(PackageWorker::GetInstance(0), worker)
        << "a destroyed worker is replaced by a fresh one";
}

// Room for a first install: strictly more than 150 MiB between usage and limit.
TEST(PackageWorkerTest, AFirstInstallNeedsMoreThan150MiBOfRoomAnUpdateNone) {
    struct Case {
        const char* limit;
        const char* usage;
        uint32_t result;
    };
    const Case cases[] = {
        {"1000000000", "842713600", 0},   // exactly 157,286,400 free
        {"1000000000", "842713601", 1},   // one byte less
        {"1000000000", "1000000001", 1},  // usage above the limit
        {"  4294967296\n", "0", 0},       // leading blanks are skipped
        {"", "0", 1},                     // an empty limit file
    };
    int vf = 5;
    for (const Case& c : cases) {
        MakeCgroup(vf, c.limit, c.usage);
        std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(vf);
        EXPECT_EQ(worker->CheckMemoryLimit(), c.result) << c.limit << " / " << c.usage;
        ++vf;
    }
    test::LogCapture log;
    MakeCgroup(3, "1000000000", "999999999");
    mkdir("/usr/lib64/aicpu_kernels/3", 0755);
    EXPECT_EQ(PackageWorker::GetInstance(3)->CheckMemoryLimit(), 0u)
        << "an update replaces charged kernels";
    EXPECT_TRUE(log.Contains("[OrvDaemon] Update aicpu kernel. path[/usr/lib64/aicpu_kernels/3]."));
}

TEST(PackageWorkerTest, TheLimitMovesByTheChangeInInstalledSize) {
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(2);
    MakeCgroup(2, "100", "0");
    EXPECT_EQ(worker->RestoreMemUsage(10, 30), 0u);
    EXPECT_EQ(Limit(2), "80\n");
    test::LogCapture log;
    MakeCgroup(2, "100", "0");
    EXPECT_EQ(worker->RestoreMemUsage(0, 100), 1u);
    EXPECT_TRUE(log.Contains("[OrvDaemon] User memory is not enough."));
    EXPECT_EQ(Limit(2), "100");
    MakeCgroup(2, "18446744073709551615", "0");
    EXPECT_EQ(worker->RestoreMemUsage(0, 0), 1u) << "an unlimited cgroup cannot take more";
    EXPECT_TRUE(log.Contains("userLimitSize add oldSize will overflow."));
}

TEST(PackageWorkerTest, WrittenCheckCodesOverwriteWithoutTruncating) {
    std::string dir = test::MakeTempDir("orv-code");
    std::string path = dir + "/install.info";
    test::WriteFile(path, "123456");
    int fd = open(path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(0);
    EXPECT_TRUE(worker->WriteCheckCode(fd, 99));
    lseek(fd, 0, SEEK_SET);
    uint32_t code = 0;
    EXPECT_TRUE(worker->ReadCheckCode(fd, code));
    EXPECT_EQ(code, 993456u);
    lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(worker->GetSavedCheckCode(fd, code), 0u);
    EXPECT_EQ(code, 993456u);
    close(fd);
    test::WriteFile(path, "-5");
    fd = open(path.c_str(), O_RDONLY);
    EXPECT_TRUE(worker->ReadCheckCode(fd, code));
    EXPECT_EQ(code, 0u) << "values below 1 read as 0";
    close(fd);
    test::RemoveTree(dir);
}

TEST(PackageWorkerTest, TheSandBoxTakesTheNamedObjectsSkippingEmptyPieces) {
    std::string dir = test::MakeTempDir("orv-sandbox-so") + "/";
    for (const char* name : {"a.so", "b.so", "c.so"}) {
        test::WriteFile(dir + name, name);
    }
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(0);
    test::WriteFile(dir + "version.info", "Name=x\nSandBoxSo= a.so , ,b.so,missing.so\n");
    EXPECT_EQ(worker->MoveSoToSandBox(dir), 0u);
    EXPECT_EQ(access((dir + "sand_box/a.so").c_str(), F_OK), 0);
    EXPECT_EQ(access((dir + "sand_box/b.so").c_str(), F_OK), 0);
    EXPECT_EQ(access((dir + "c.so").c_str(), F_OK), 0);
    test::LogCapture log;
    test::WriteFile(dir + "version.info", "Name=x\n");
    EXPECT_EQ(worker->MoveSoToSandBox(dir), 0u);
    EXPECT_TRUE(log.Contains("Sand box so item in version.info is not exist. Please check."));
    test::WriteFile(dir + "version.info", "SandBoxSo=\n");
    EXPECT_EQ(worker->MoveSoToSandBox(dir), 1u);
    EXPECT_EQ(worker->MoveSoToSandBox(dir + "nowhere/"), 1u);
    test::RemoveTree(dir);
}

TEST(PackageWorkerTest, TheArchiveNameComesFromThePathAndTheInnerNameFromVersionInfo) {
    std::string dir = test::MakeTempDir("orv-name");
    mkdir((dir + "/aicpu_kernels_device").c_str(), 0755);
    test::WriteFile(dir + "/aicpu_kernels_device/version.info",
                    "Version=1\nPackageName=Velkan777-aicpu_syskernels.tar.gz\n");
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(0);
    PackageNameMap names;
    EXPECT_EQ(worker->GetPackageName("/x/vf0_3_Velkan777-aicpu_syskernels.tar.gz", dir, names), 0u);
    EXPECT_EQ(names["srcPackageName"], "Velkan777-aicpu_syskernels.tar.gz");
    EXPECT_EQ(names["innerPackageName"], "Velkan777-aicpu_syskernels.tar.gz");
    EXPECT_EQ(worker->GetPackageName("/x/kernels.tar.gz", dir, names), 14u);
    std::string missing = dir + "/missing";
    EXPECT_EQ(worker->GetPackageName("/x/Velkan777-a.tar.gz", missing, names), 1u);
    test::RemoveTree(dir);
}

TEST(PackageWorkerTest, ThreadModeKeepsTheCheckCodeInTheInstallInfoFile) {
    std::string src = test::MakeTempDir("orv-thread") + "/";
    std::string name = "4_Velkan512-aicpu_syskernels.tar.gz";
    std::string output;
    ASSERT_EQ(test::RunProgram({test::BinDir() + "/orv-emu-mkpkg", "--out", src + name}, &output),
              0)
        << output;
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(6);
    std::string dst = test::MakeTempDir("orv-thread-dst") + "/";
    ASSERT_EQ(worker->LoadAICPUPackageForThreadMode(dst, src, name), 0u);
    uint32_t size = CalFileSize(src + name);
    EXPECT_EQ(test::ReadFile("/usr/lib64/aicpu_kernels/aicpu_package_install.info"),
              std::to_string(size));
    EXPECT_EQ(access("/usr/lib64/aicpu_kernels/6/aicpu_kernels_device/version.info", F_OK), 0);
    test::LogCapture log;
    EXPECT_EQ(worker->LoadAICPUPackageForThreadMode(dst, src, name), 0u);
    EXPECT_TRUE(log.Contains("Aicpu kernel so not change. no need to compress"));
    EXPECT_EQ(worker->GetCheckCode(), 0u) << "thread mode leaves the process-mode check code alone";
}

TEST(InotifyWatcherTest, AWatcherNeedsItsDirectoryAndStartsAndStopsOnce) {
    std::shared_ptr<InotifyWatcher> watcher = InotifyWatcher::GetInstance(9);
    test::LogCapture log;
    EXPECT_EQ(watcher->Init(1), 1u);
    EXPECT_TRUE(log.Contains("access path[/home/hdc-trusted/dev0/vfid9] failed"));
    std::shared_ptr<InotifyWatcher> physical = InotifyWatcher::GetInstance(0);
    EXPECT_EQ(physical->Init(1), 0u);
    EXPECT_EQ(physical->Init(1), 0u);
    EXPECT_TRUE(log.Contains("Inotify watcher in fd[0] has been initialized."));
    physical->Stop();
    physical->Stop();
    EXPECT_TRUE(log.Contains("vfId[0] working thread has already stopped"));
    EXPECT_EQ(physical->Destory(), 0u);
    EXPECT_EQ(InotifyWatcher::FindInstance(0), nullptr);
}

TEST(InotifyWatcherTest, OnlyAFileClosedAfterWritingWithAPackagesNameIsPickedUp) {
    std::shared_ptr<InotifyWatcher> watcher = InotifyWatcher::GetInstance(0);
    ASSERT_EQ(watcher->Init(1), 0u);
    test::LogCapture log;
    // On the same mount as the watched directory, so that the file can be moved.
    std::string staging = "/home/staging";
    mkdir(staging.c_str(), 0755);
    test::WriteFile(staging + "/1_Velkan512-aicpu_syskernels.tar.gz", "not a package");
    // Moved in whole: no close after writing happens in the watched directory.
    ASSERT_EQ(rename((staging + "/1_Velkan512-aicpu_syskernels.tar.gz").c_str(),
                     "/home/hdc-trusted/dev0/1_Velkan512-aicpu_syskernels.tar.gz"),
              0);
    test::WriteFile("/home/hdc-trusted/dev0/2_Velkan512-aicpu_syskernels.tar.gz.tmp", "x");
    test::WriteFile("/home/hdc-trusted/dev0/3_Velkan512-aicpu_syskernels.tar.gz",
                    "not a package either");
    EXPECT_TRUE(log.WaitFor("find file[3_Velkan512-aicpu_syskernels.tar.gz], ready to load", 5s));
    EXPECT_TRUE(log.Contains("file[2_Velkan512-aicpu_syskernels.tar.gz.tmp] not correct, skip"));
    EXPECT_FALSE(log.Contains("find file[1_Velkan512"));
    EXPECT_TRUE(log.WaitFor("Verify Aicpu package failed", 5s));
    watcher->Destory();
}

// Hosts may name any VF id; only those that can exist get a worker or a watcher.
TEST(PackageWorkerTest, WorkersAndWatchersExistOnlyForVfIdsZeroTo16) {
    test::LogCapture log;
    for (int32_t vf : {-1, 17, 1000, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(PackageWorker::GetInstance(vf), nullptr) << vf;
        EXPECT_EQ(InotifyWatcher::GetInstance(vf), nullptr) << vf;
        EXPECT_TRUE(
            log.Contains("[PackageWorker] No package worker for vfId[" + std::to_string(vf) + "]"))
            << vf;
        EXPECT_TRUE(log.Contains("[InotifyWatcher] No inotify watcher for vfId[" +
                                 std::to_string(vf) + "]"))
            << vf;
    }
    for (int32_t vf : {0, 16}) {
        EXPECT_NE(PackageWorker::GetInstance(vf), nullptr) << vf;
        EXPECT_NE(InotifyWatcher::GetInstance(vf), nullptr) << vf;
    }
}

// The walk measures what the package holds; a link measures nothing, so
// that a link to a directory cannot make it endless, one to a FIFO cannot
// stop it, and one to a file elsewhere does not count that file.
TEST(PackageWorkerTest, TheInstalledSizeWalkFollowsNoLink) {
    std::string dir = test::MakeTempDir("orv-size");
    std::string outside = test::MakeTempDir("orv-size-outside");
    test::WriteFile(dir + "/a.so", std::string(1000, 'a'));
    test::WriteFile(outside + "/big.so", std::string(1 << 20, 'b'));
    mkfifo((outside + "/pipe").c_str(), 0644);
    symlink((outside + "/big.so").c_str(), (dir + "/big.so").c_str());
    symlink((outside + "/pipe").c_str(), (dir + "/pipe.so").c_str());
    symlink("/", (dir + "/root.so").c_str());
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(0);
    uint64_t size = 0;
    worker->GetPackageSize(dir, size);
    EXPECT_GE(size, 1000u);
    EXPECT_LT(size, 1u << 20) << "the file a link leads to is not the package's";
    test::RemoveTree(dir);
    test::RemoveTree(outside);
}

// A "SandBoxSo=" name that is not a plain file name moves nothing, and a
// sand box that is a link takes nothing.
TEST(PackageWorkerTest, TheSandBoxTakesOnlyPlainNamesAndOnlyAsARealDirectory) {
    std::string root = test::MakeTempDir("orv-sandbox-names");
    std::string dir = root + "/device/";
    std::string elsewhere = root + "/elsewhere/";
    mkdir(dir.c_str(), 0755);
    mkdir(elsewhere.c_str(), 0755);
    mkdir((dir + "sub").c_str(), 0755);
    for (const std::string& path : {dir + "a.so", dir + "sub/c.so", root + "/b.so"}) {
        test::WriteFile(path, "object");
    }
    test::WriteFile(dir + "version.info", "SandBoxSo=a.so,../b.so,sub/c.so,..\n");
    std::shared_ptr<PackageWorker> worker = PackageWorker::GetInstance(0);
    test::LogCapture log;
    EXPECT_EQ(worker->MoveSoToSandBox(dir), 0u);
    EXPECT_EQ(access((dir + "sand_box/a.so").c_str(), F_OK), 0);
    EXPECT_EQ(access((root + "/b.so").c_str(), F_OK), 0);
    EXPECT_EQ(access((dir + "sub/c.so").c_str(), F_OK), 0);
    EXPECT_TRUE(
        log.Contains("[PackageWorker] Sand box so item [../b.so] is not a plain file name, skip."));

    test::RemoveTree(dir + "sand_box");
    symlink(elsewhere.c_str(), (dir + "sand_box").c_str());
    test::WriteFile(dir + "version.info", "SandBoxSo=d.so\n");
    test::WriteFile(dir + "d.so", "object");
    EXPECT_EQ(worker->MoveSoToSandBox(dir), 1u);
    EXPECT_EQ(access((elsewhere + "d.so").c_str(), F_OK), -1);
    EXPECT_EQ(access((dir + "d.so").c_str(), F_OK), 0);
    test::RemoveTree(root);
}

}  // namespace
}  // namespace orv
