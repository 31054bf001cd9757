// The steps of the daemon's start that prepare the process and the card,
// each run on its own inside a sandbox: the daemon's fixed paths and the card
// emulator are the sandbox's.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "daemon/orvdaemon.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;

using test::InsideControlSocket;
using test::LogCapture;
using ::testing::HasSubstr;

bool Alive(pid_t pid) {
    return kill(pid, 0) == 0;
}

TEST(StartupHousekeepingTest, ZebSwitchIsOnOnlyForExactlyZero) {
    OrvDaemon* daemon = OrvDaemon::GetInstance();
    for (const char* value : {"00", "1", " 0"}) {
        setenv("REGISTER_TO_VELKANMONITOR", value, 1);
        daemon->GetZebFlagFromEnv();
        EXPECT_FALSE(daemon->GetZebFlag()) << value;
    }
    LogCapture log;
    unsetenv("REGISTER_TO_VELKANMONITOR");
    daemon->GetZebFlagFromEnv();
    EXPECT_FALSE(daemon->GetZebFlag());
    EXPECT_TRUE(log.Contains("Not found REGISTER_TO_VELKANMONITOR in env"));
    setenv("REGISTER_TO_VELKANMONITOR", "0", 1);
    daemon->GetZebFlagFromEnv();
    EXPECT_TRUE(daemon->GetZebFlag());
    EXPECT_TRUE(log.Contains("Get REGISTER_TO_VELKANMONITOR[0]"));
}
TEST(StartupHousekeepingTest, EnvironmentScriptSetsOnlyExportLinesOfTheFirstTwenty) {
    std::string script =
        "export A1=one\n"
        "   export   A2  =  two words  \n"
        "\n"
        "# export A3=commented\n"
        "A4=no_export\n"
        "export A5\n"
        "export A6=\"quoted\"\n"
        "export A7=x=y\n";
    // Pad to 20 lines, then lines that must be ignored.
    for (int line = 9; line <= 20; ++line) {
        script += "export PAD" + std::to_string(line) + "=" + std::to_string(line) + "\n";
    }
    for (int line = 21; line <= 25; ++line) {
        script += "export LATE" + std::to_string(line) + "=" + std::to_string(line) + "\n";
    }
    test::WriteFile("/var/orvdaemon_add_env_variable.sh", script);
    LogCapture log;
    OrvDaemon::GetInstance()->LoadFileAndSetEnv();

    auto env = [](const char* name) -> std::string {
        const char* value = getenv(name);
        return value != nullptr ? value : "(unset)";
    };
    EXPECT_EQ(env("A1"), "one");
    EXPECT_EQ(env("A2"), "two words");
    EXPECT_EQ(env("A3"), "(unset)");
    EXPECT_EQ(env("A4"), "(unset)");
    EXPECT_EQ(env("A5"), "(unset)");
    EXPECT_EQ(env("A6"), "\"quoted\"");
    EXPECT_EQ(env("A7"), "x=y");
    EXPECT_EQ(env("PAD20"), "20");
    EXPECT_EQ(env("LATE21"), "(unset)");
    EXPECT_EQ(log.Count("[OrvDaemon] Skip empty line."), 1u);
    EXPECT_TRUE(log.Contains("[OrvDaemon] Skip annotation line # export A3=commented."));
    EXPECT_TRUE(log.Contains("[OrvDaemon] Skip annotation line A4=no_export."));
    EXPECT_TRUE(log.Contains("[OrvDaemon] Skip invalid item  A5"));
    EXPECT_TRUE(log.Contains("[OrvDaemon] Finish load file and set env."));
}

TEST(StartupHousekeepingTest, AnEnvironmentScriptLineOverItsBoundIsSkipped) {
    test::WriteFile("/var/orvdaemon_add_env_variable.sh",
                    "export LONG=" + std::string(70000, 'v') + "\nexport AFTER=yes\n");
    LogCapture log;
    OrvDaemon::GetInstance()->LoadFileAndSetEnv();
    EXPECT_EQ(getenv("LONG"), nullptr);
    EXPECT_STREQ(getenv("AFTER"), "yes");
    EXPECT_TRUE(log.Contains(
        "[OrvDaemon] Skip a line of /var/orvdaemon_add_env_variable.sh longer than 65536 bytes."));
}

// pidof's answer is read within its bound: a pid cut off there, and those
// beyond, are not taken.
TEST(StartupHousekeepingTest, PidofsAnswerIsReadWithinItsBound) {
    std::string dir = test::MakeTempDir("orv-pidof");
    test::WriteFile(dir + "/pidof",
                    "#!/bin/sh\nyes 99999999 | head -c 100000 | tr '\\n' ' '\necho\n");
    ASSERT_EQ(chmod((dir + "/pidof").c_str(), 0755), 0);
    setenv("PATH", (dir + ":" + getenv("PATH")).c_str(), 1);
    LogCapture log;
    EXPECT_EQ(OrvDaemon::GetInstance()->CheckAndCleanProcess(), 0u);
    EXPECT_TRUE(
        log.Contains("[OrvDaemon] pidof aicpu_runner printed more than 65536 bytes: the "
                     "pids beyond are not taken"));
    EXPECT_FALSE(log.Contains("pids:[9 ")) << "a cut pid was taken";
}

TEST(StartupHousekeepingTest, MissingEnvironmentScriptIsNotAnError) {
    LogCapture log;
    unlink("/var/orvdaemon_add_env_variable.sh");
    OrvDaemon::GetInstance()->LoadFileAndSetEnv();
    EXPECT_TRUE(log.Contains("[OrvDaemon] Open config file failed."));
    EXPECT_FALSE(log.Contains("Finish load file"));
}

TEST(StartupHousekeepingTest, LeftoverSubProcessesAreKilledAndTheirBuffersAndKernelsReleased) {
    pid_t runner = test::SpawnDetached({"/var/aicpu_runner", "--left-over"});
    pid_t queue = test::SpawnDetached({"/var/queue_runner"});
    ASSERT_GT(runner, 0);
    ASSERT_GT(queue, 0);
    ASSERT_TRUE(test::WaitFor(
        [&] {
            return access(("/run/orv-stub/" + std::to_string(queue) + ".txt").c_str(), F_OK) == 0;
        },
        5s));
    ASSERT_EQ(mkdir("/home/QelvarUser/cust_aicpu_0_1234", 0750), 0);

    LogCapture log;
    // The second look waits for the killed ones to be gone.
    EXPECT_EQ(OrvDaemon::GetInstance()->CheckAndCleanProcess(), 0u);
    // Gone, but perhaps not yet reaped by the parent they were left to.
    EXPECT_TRUE(test::WaitFor([&] { return !Alive(runner) && !Alive(queue); }, 5s));
    EXPECT_TRUE(log.Contains("[OrvDaemon] Found remnants process aicpu_runner, pids:[" +
                             std::to_string(runner)));
    EXPECT_EQ(log.Count("[OrvDaemon] kill [index= "), 2u);
    EXPECT_NE(access("/home/QelvarUser/cust_aicpu_0_1234", F_OK), 0);
    std::string groups = test::ShowGroups(InsideControlSocket());
    EXPECT_THAT(groups, HasSubstr("recycled " + std::to_string(runner) + " times 1"));
    EXPECT_THAT(groups, HasSubstr("recycled " + std::to_string(queue) + " times 1"));
    EXPECT_TRUE(log.Contains("[OrvDaemon] CheckAndCleanProcess succ exit"));
}

// pidof goes by name: a process of any other program may carry one of the
// four names, and it is none of the daemon's business.
TEST(StartupHousekeepingTest, AProcessMerelyNamedLikeASubProcessIsLeftAlone) {
    ASSERT_EQ(mkdir("/run/impostor", 0755), 0);
    ASSERT_EQ(system("cp /bin/sleep /run/impostor/aicpu_runner"), 0);
    pid_t impostor = test::SpawnDetached({"/run/impostor/aicpu_runner", "60"});
    ASSERT_GT(impostor, 0);
    ASSERT_TRUE(test::WaitFor([&] { return system("pidof aicpu_runner >/dev/null") == 0; }, 5s));

    LogCapture log;
    EXPECT_EQ(OrvDaemon::GetInstance()->CheckAndCleanProcess(), 0u) << "the start goes on";
    EXPECT_TRUE(Alive(impostor));
    EXPECT_TRUE(log.Contains(
        "[OrvDaemon] pid[" + std::to_string(impostor) +
        "] is named like a sub-process but runs /run/impostor/aicpu_runner: left alone"));
    EXPECT_FALSE(log.Contains("[OrvDaemon] kill ["));
    kill(impostor, SIGKILL);
}

TEST(StartupHousekeepingTest, CleanStartWithNothingLeftOverStillClearsCustomKernels) {
    ASSERT_EQ(mkdir("/home/QelvarUser/cust_aicpu_3_99", 0750), 0);
    LogCapture log;
    EXPECT_EQ(OrvDaemon::GetInstance()->CheckAndCleanProcess(), 0u);
    EXPECT_EQ(log.Count("[OrvDaemon] Maybe subprocess is not exit"), 8u);
    EXPECT_FALSE(log.Contains("[OrvDaemon] kill ["));
    EXPECT_NE(access("/home/QelvarUser/cust_aicpu_3_99", F_OK), 0);
}

TEST(StartupHousekeepingTest, DaemonIdentityIsBoundToVfZero) {
    EXPECT_EQ(OrvDaemon::GetInstance()->SendVfId2Drv(), 0u);
    emu::CardRequest request;
    request.mutable_show_processes();
    EXPECT_THAT(test::Control(InsideControlSocket(), request).text(),
                HasSubstr("process " + std::to_string(getpid()) + " host_pid " +
                          std::to_string(getpid()) + " vfid 0 mode 1 cp_type 2"));
}

}  // namespace
}  // namespace orv
