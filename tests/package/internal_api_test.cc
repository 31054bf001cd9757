#include "package/internal_api.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

TEST(InternalApiTest, TrimRemovesOnlySpacesAtBothEnds) {
    struct Case {
        std::string in;
        std::string out;
    };
    const Case cases[] = {
        {"", ""},        {"  a b  ", "a b"}, {"    ", ""},
        {"\tx ", "\tx"}, {"x\n", "x\n"},     {"none", "none"},
    };
    for (const Case& c : cases) {
        std::string text = c.in;
        Trim(text);
        EXPECT_EQ(text, c.out) << "'" << c.in << "'";
    }
}

TEST(InternalApiTest, FileSizeIsTheCheckCodeTruncatedTo32Bits) {
    std::string dir = test::MakeTempDir("orv-size");
    EXPECT_EQ(CalFileSize(dir + "/missing"), 0u);
    test::WriteFile(dir + "/small", std::string(1234, 'x'));
    EXPECT_EQ(CalFileSize(dir + "/small"), 1234u);
    // A sparse 5 GiB file: 5 * 2^30 mod 2^32.
    int fd = open((dir + "/big").c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 5LL << 30), 0);
    close(fd);
    EXPECT_EQ(CalFileSize(dir + "/big"), 1073741824u);
    test::RemoveTree(dir);
}

TEST(InternalApiTest, PackageNamePatternMatchesOnlyWholeNames) {
    const std::string pattern = "^[0-9]+_Velkan[0-9]{3}-aicpu_syskernels\\.tar\\.gz$";
    EXPECT_TRUE(ValidateStr("5_Velkan512-aicpu_syskernels.tar.gz", pattern));
    EXPECT_FALSE(ValidateStr("Velkan512-aicpu_syskernels.tar.gz", pattern));
    EXPECT_FALSE(ValidateStr("5_Velkan512-aicpu_syskernels.tar.gz.tmp", pattern));
    EXPECT_FALSE(ValidateStr("5_Velkan51-aicpu_syskernels.tar.gz", pattern));
    EXPECT_FALSE(ValidateStr("anything", "(unclosed"));
}

TEST(InternalApiTest, ValidatePathAcceptsOnlyTheSafeCharacterSet) {
    EXPECT_TRUE(CheckValidatePath("/usr/lib64/aicpu_kernels/"));
    EXPECT_TRUE(CheckValidatePath("/tmp/a\\b"));
    EXPECT_FALSE(CheckValidatePath("/tmp/a b"));
    EXPECT_FALSE(CheckValidatePath("/tmp/a;rm"));
    EXPECT_FALSE(CheckValidatePath("/tmp/$(id)"));
    EXPECT_FALSE(CheckValidatePath(""));
}

TEST(InternalApiTest, RealPathRefusesLinksDotsMissingAndOverlongPaths) {
    std::string dir = test::MakeTempDir("orv-real");
    ASSERT_EQ(mkdir((dir + "/a").c_str(), 0755), 0);
    ASSERT_EQ(symlink((dir + "/a").c_str(), (dir + "/link").c_str()), 0);
    EXPECT_TRUE(CheckRealPath(dir + "/a"));
    EXPECT_TRUE(CheckRealPath(dir + "/a/"));
    EXPECT_FALSE(CheckRealPath(dir + "/link"));
    EXPECT_FALSE(CheckRealPath(dir + "/./a"));
    EXPECT_FALSE(CheckRealPath(dir + "/missing"));
    EXPECT_FALSE(CheckRealPath(""));
    test::LogCapture log;
    EXPECT_FALSE(CheckRealPath("/" + std::string(4095, 'x')));
    EXPECT_TRUE(log.Contains("Input path must less than [4096]"));
    test::RemoveTree(dir);
}

TEST(InternalApiTest, GetEnvLeavesTheValueAloneWhenUnset) {
    test::LogCapture log;
    unsetenv("ORV_TEST_UNSET");
    std::string value = "previous";
    GetEnv("ORV_TEST_UNSET", value);
    EXPECT_EQ(value, "previous");
    EXPECT_TRUE(log.Contains("Get env[ORV_TEST_UNSET] failed"));
    setenv("ORV_TEST_EMPTY", "", 1);
    GetEnv("ORV_TEST_EMPTY", value);
    EXPECT_EQ(value, "");
}

TEST(InternalApiTest, FpgaPrototypeOnlyForRunModeExactlyOne) {
    struct Case {
        const char* value;  // null: unset
        bool fpga;
    };
    const Case cases[] = {
        {"1", true}, {"01", false}, {"true", false}, {"0", false}, {nullptr, false}};
    for (const Case& c : cases) {
        if (c.value == nullptr) {
            unsetenv("DATAMASTER_RUN_MODE");
        } else {
            setenv("DATAMASTER_RUN_MODE", c.value, 1);
        }
        EXPECT_EQ(IsZEBPG2FPGAEnv(), c.fpga) << (c.value != nullptr ? c.value : "(unset)");
    }
    unsetenv("DATAMASTER_RUN_MODE");
}

// Zombies among this process's children.
size_t ZombieChildren() {
    size_t zombies = 0;
    DIR* proc = opendir("/proc");
    while (dirent* entry = proc != nullptr ? readdir(proc) : nullptr) {
        std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
        std::string line;
        if (!std::getline(stat, line) || line.rfind(')') == std::string::npos) {
            continue;
        }
        char state = '?';
        long parent = 0;
        if (sscanf(line.c_str() + line.rfind(')') + 1, " %c %ld", &state, &parent) == 2 &&
            parent == getpid() && state == 'Z') {
            ++zombies;
        }
    }
    if (proc != nullptr) {
        closedir(proc);
    }
    return zombies;
}

// The daemon ignores SIGCHLD (the kernel reaps its children) and runs shell
// commands from several threads at once: each must still get its own
// command's status, and the disposition must stay as the daemon set it.
// A descriptor the daemon holds without close-on-exec (a host link, say)
// never reaches a command: it is closed before the command's process exists.
TEST(InternalApiTest, PackSystemCommandsInheritNoneOfTheDaemonsDescriptors) {
    int held[2];
    ASSERT_EQ(pipe(held), 0);
    std::string command = "test ! -e /proc/$$/fd/" + std::to_string(held[1]);
    EXPECT_EQ(PackSystem(command.c_str()), 0);
    close(held[0]);
    close(held[1]);
}

TEST(InternalApiTest, PackSystemGivesEachCommandItsRawStatusWhileOthersRunWithChildrenIgnored) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ignore.sa_flags = SA_NOCLDWAIT;
    struct sigaction previous {};
    sigaction(SIGCHLD, &ignore, &previous);
    struct Case {
        const char* command;
        int32_t status;
    };
    const Case cases[] = {
        {"true", 0},
        {"exit 3", 768},
        {"kill -9 $$", 9},
        {"sleep 0.05; exit 1", 256},
        {"/nonexistent/program", 127 * 256},
        {"sh -c 'exit 4' & wait $!", 1024},  // the shell collects its own children
        // What waits for the shell holds none of the daemon's descriptors:
        // only its standard three and the pipe the status goes up.
        {"test $(ls /proc/$PPID/fd | wc -l) -eq 4", 0},
    };
    int spare[2];
    ASSERT_EQ(pipe2(spare, O_CLOEXEC), 0);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 10; ++round) {
                const Case& c = cases[(t + round) % (sizeof(cases) / sizeof(cases[0]))];
                if (PackSystem(c.command) != c.status) {
                    ++wrong;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    close(spare[0]);
    close(spare[1]);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(ZombieChildren(), 0u);
    struct sigaction now {};
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN) << "the daemon's disposition is as it set it";
    EXPECT_NE(now.sa_flags & SA_NOCLDWAIT, 0);
    sigaction(SIGCHLD, &previous, nullptr);
}

TEST(InternalApiTest, StrerrorLeavesErrnoAlone) {
    errno = ENOENT;
    EXPECT_EQ(SafeStrerror(), "No such file or directory");
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace orv
