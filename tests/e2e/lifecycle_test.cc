// The daemon's life in a booted sandbox, driven from outside as a user would:
// orv-sandbox, orv-emu-ctl, sandbox.env and the system log.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/orv_limits.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;

using test::SandboxRun;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

using test::EmuCtl;
using test::StandinRecord;

TEST(LifecycleTest, BootRunsTheStartSequenceInOrderAndSigtermLeavesNothingBehind) {
    SandboxRun sandbox;
    ASSERT_TRUE(sandbox.Boot({"--devices", "2"}));
    std::map<std::string, std::string> env = sandbox.Env();
    for (const char* key :
         {"ORV_HDC_SOCKET_0", "ORV_HDC_SOCKET_1", "ORV_LOG_FILE", "ORV_TRUSTED_DIR_0",
          "ORV_TRUSTED_DIR_1", "ORV_EMU_CONTROL", "ORV_DAEMON_PID"}) {
        EXPECT_EQ(env.count(key), 1u) << key;
    }
    EXPECT_EQ(env["ORV_LOG_FILE"], sandbox.LogPath());
    EXPECT_EQ(access(env["ORV_TRUSTED_DIR_1"].c_str(), F_OK), 0);
    pid_t daemon = std::stoi(env["ORV_DAEMON_PID"]);
    EXPECT_EQ(kill(daemon, 0), 0);

    std::string missing;
    EXPECT_TRUE(sandbox.Log().InOrder(
        {"[OrvDaemon] ORV Start enter", "[OrvEVENT] OrvDrvManager init success",
         "[OrvEVENT] BindCtrlCpu success", "[OrvEVENT] InitState Finish.",
         "Not found REGISTER_TO_VELKANMONITOR in env", "Not found AICPU_MAX_NUM in env",
         "[OrvEVENT] Begin CheckAndCleanProcess", "[OrvEVENT] CheckAndCleanProcess success",
         "[OrvEVENT] InitOrvHdcSer [deviceNum:2]", "[OrvEVENT] Init HdcServer success",
         "[OrvEVENT] Init inotify watcher success", "Open /proc/sysmonitor failed",
         "OrvEventServer start", "[OrvEVENT] Init OrvEventServer success",
         "[OrvEVENT] Start Monitor HdcServer and OrvEventServer!!!"},
        &missing))
        << "missing or out of order: " << missing;
    EXPECT_TRUE(sandbox.Log().WaitFor("[OrvEVENT] register to appmon success", 5s));

    std::string ns = sandbox.PidNamespace();
    ASSERT_FALSE(ns.empty());
    std::vector<pid_t> inside = test::ProcessesInNamespace(ns);
    EXPECT_GE(inside.size(), 3u) << "init, card emulator, daemon";
    EXPECT_EQ(sandbox.Stop(), 0);
    EXPECT_TRUE(sandbox.Log().InOrder(
        {"[OrvDaemon] OrvDaemon::Destroy() enter", "[OrvEventServer] Destroy end.",
         "[OrvDaemon] Destroy deviceId[1] call hdcSer's Destroy()",
         "[OrvEVENT] deregister to appmon", "[OrvDaemon] OrvDaemon::Destroy() exit"}));
    // The physical function's package watcher is the only one.
    EXPECT_EQ(sandbox.Log().Count("is nullptr, skip destroy"), 16u);
    EXPECT_TRUE(sandbox.Log().InOrder({"[OrvDaemon] Destroy Inotify watcher vfId[0] begin",
                                       "[OrvDaemon] Destroy Inotify watcher vfId[0] success"}));
    EXPECT_THAT(test::StillInNamespace(ns, inside), IsEmpty());
    EXPECT_NE(kill(daemon, 0), 0);
    EXPECT_NE(access((sandbox.StateDir() + "/sandbox.env").c_str(), F_OK), 0);
}

// The daemon may hold the descriptors its limits need: the service unit asks
// for them, and the daemon raises its own soft limit as far as it may.
TEST(LifecycleTest, TheDaemonMayHoldTheDescriptorsItsLimitsNeed) {
    std::string unit = test::ReadFile(std::string(ORV_SOURCE_DIR) + "/app/orvdaemon.service.in");
    EXPECT_THAT(unit, HasSubstr("\nLimitNOFILE=" + std::to_string(limits::kMaxDescriptors) + "\n"));
    SandboxRun sandbox;
    ASSERT_TRUE(sandbox.Boot({}));
    rlimit limit{};
    ASSERT_EQ(prlimit(test::DaemonPid(sandbox), RLIMIT_NOFILE, nullptr, &limit), 0);
    EXPECT_EQ(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, limits::kMaxDescriptors));
}

TEST(LifecycleTest, TwoSandboxesSeeNeitherTheOthersProcessesNorFiles) {
    SandboxRun first;
    SandboxRun second;
    ASSERT_TRUE(first.Boot({}));
    ASSERT_TRUE(second.Boot({"--devices", "2"}));

    ASSERT_EQ(first.Enter({"sh", "-c", "echo first > /var/marker && touch /home/QelvarUser/first"}),
              0);
    std::string listing;
    EXPECT_EQ(second.Enter({"sh", "-c", "ls /var /home/QelvarUser /home/hdc-trusted"}, &listing),
              0);
    EXPECT_THAT(listing, Not(HasSubstr("marker")));
    EXPECT_THAT(listing, Not(HasSubstr("first")));
    EXPECT_THAT(listing, HasSubstr("dev1"));
    EXPECT_EQ(test::ReadFile(first.StateDir() + "/var/marker"), "first\n");

    std::string processes;
    ASSERT_EQ(first.Enter({"ps", "-eo", "pid=,comm="}, &processes), 0);
    EXPECT_EQ(std::count(processes.begin(), processes.end(), '\n'), 4)
        << processes;  // init, card, daemon, ps
    EXPECT_THAT(processes, HasSubstr(" 1 orv-sandbox"));
    EXPECT_THAT(processes, HasSubstr("orvdaemon"));
    std::string daemons;
    EXPECT_EQ(second.Enter({"pidof", "orvdaemon"}, &daemons), 0);
    EXPECT_EQ(daemons.find(' '), std::string::npos) << "one daemon per sandbox: " << daemons;

    EXPECT_EQ(first.Stop(), 0);
    EXPECT_EQ(second.Enter({"pidof", "orvdaemon"}), 0) << "the other sandbox is unaffected";
    EXPECT_EQ(second.Stop(), 0);
}

TEST(LifecycleTest, FiveDevicesFailTheStartAndTheSandboxExits) {
    SandboxRun sandbox;
    EXPECT_FALSE(sandbox.Boot({"--devices", "5"}));
    EXPECT_EQ(sandbox.WaitExit(30s), 1);
    EXPECT_TRUE(sandbox.Log().InOrder(
        {"Invalid device nums[5]", "[OrvDaemon] OrvDrvManager init Failed."}));
    EXPECT_FALSE(sandbox.Log().Contains("BindCtrlCpu"));
}

TEST(LifecycleTest, DevicesWithoutControlCpusFailTheBinding) {
    SandboxRun sandbox;
    EXPECT_FALSE(sandbox.Boot({"--device-cpus", "0=ctrl:1:0"}));
    EXPECT_EQ(sandbox.WaitExit(30s), 1);
    EXPECT_TRUE(sandbox.Log().InOrder({"setaffinity failed", "[OrvDaemon] BindCtrlCpu Failed."}));
}

TEST(LifecycleTest, ZebSwitchLeavesTheDaemonUnmonitoredAndWithoutWatchers) {
    SandboxRun sandbox;
    ASSERT_TRUE(sandbox.Boot({"--env", "REGISTER_TO_VELKANMONITOR=0"}));
    EXPECT_TRUE(sandbox.Log().WaitFor("[OrvDaemon] skip init appmon", 5s));
    EXPECT_FALSE(sandbox.Log().Contains("Init inotify watcher success"));
    std::string monitor;
    EXPECT_EQ(EmuCtl(sandbox, {"appmon"}, &monitor), 0);
    EXPECT_EQ(monitor, "");
    EXPECT_EQ(sandbox.Stop(), 0);
    EXPECT_EQ(sandbox.Log().Count("is nullptr, skip destroy"), 17u);
    EXPECT_TRUE(sandbox.Log().Contains("[OrvDaemon] skip deregister appmon"));
}

TEST(LifecycleTest, AKilledDaemonIsReportedByTheMonitorAndItsLeftoversGoAtRestart) {
    SandboxRun sandbox;
    ASSERT_TRUE(sandbox.Boot({"--env", "AICPU_MAX_NUM=7"}));
    pid_t first = std::stoi(sandbox.Env()["ORV_DAEMON_PID"]);
    // A compute process the killed daemon would have left behind.
    ASSERT_EQ(sandbox.Enter({"/var/aicpu_runner", "--deviceId=0"}, nullptr, true), 0);
    std::string leftover;
    ASSERT_TRUE(test::WaitFor(
        [&] {
            return sandbox.Enter({"pidof", "aicpu_runner"}, &leftover) == 0;
        },
        5s));
    leftover.erase(leftover.find_last_not_of('\n') + 1);

    ASSERT_EQ(kill(first, SIGKILL), 0);
    // The monitor's time-out is 30 s from the last heartbeat.
    EXPECT_TRUE(sandbox.Log().WaitFor("orvdaemon_monitor.sh ran", 45s));

    ASSERT_EQ(sandbox.Enter({"orvdaemon"}, nullptr, true), 0);
    ASSERT_TRUE(test::WaitFor(
        [&] {
            std::map<std::string, std::string> env = sandbox.Env();
            return env.count("ORV_DAEMON_PID") != 0 &&
                   env["ORV_DAEMON_PID"] != std::to_string(first);
        },
        20s));
    EXPECT_EQ(sandbox.Enter({"pidof", "aicpu_runner"}), 1) << "the leftover was killed";
    EXPECT_TRUE(sandbox.Log().Contains("[OrvDaemon] Found remnants process aicpu_runner, pids:[" +
                                       leftover + "]"));
    EXPECT_EQ(sandbox.Log().Count("[OrvDaemon] kill [index= 0]"), 1u);
    EXPECT_EQ(sandbox.Log().Count("Get AICPU_MAX_NUM is 7"), 2u)
        << "the restart kept the boot environment";
    EXPECT_EQ(sandbox.Stop(), 0);
}

TEST(LifecycleTest, DriverFaultsInjectedWithTheControlToolReachTheDaemon) {
    SandboxRun sandbox;
    ASSERT_TRUE(sandbox.Boot({}));
    std::string output;
    EXPECT_EQ(EmuCtl(sandbox, {"fail", "noSuchCall", "5"}, &output), 1);
    EXPECT_THAT(output, HasSubstr("unknown call 'noSuchCall'"));
    ASSERT_EQ(EmuCtl(sandbox, {"fail", "drvGetDevNum", "5", "1"}, &output), 0);
    EXPECT_THAT(output, HasSubstr("drvGetDevNum code 5 remaining 1"));

    // A daemon started now meets the fault.
    pid_t first = std::stoi(sandbox.Env()["ORV_DAEMON_PID"]);
    ASSERT_EQ(kill(first, SIGKILL), 0);
    std::string out;
    EXPECT_EQ(sandbox.Enter({"orvdaemon"}, &out), 1);
    EXPECT_TRUE(sandbox.Log().InOrder(
        {"Failed to drvGetDevNum, ret=5", "[OrvDaemon] OrvDrvManager init Failed."}));
    EXPECT_EQ(EmuCtl(sandbox, {"faults"}, &output), 0);
    EXPECT_EQ(output, "");
    EXPECT_EQ(sandbox.Stop(), 0);
}

// Notices a systemd-style listener received, one datagram each, until `last`
// came or nothing more came for a while.
std::vector<std::string> NoticesUntil(test::NotifyListener& listener, const std::string& last) {
    std::vector<std::string> notices;
    while (std::optional<std::string> notice = listener.Receive(30s)) {
        notices.push_back(*notice);
        if (notice->find(last) != std::string::npos) {
            break;
        }
    }
    return notices;
}

TEST(LifecycleTest, UnderSystemdTheDaemonIsReadyOnlyAfterItsStartAndSaysWhenItStops) {
    std::string dir = test::MakeTempDir("orv-notify");
    // Outside the sandbox's own directories, so the daemon reaches it as it is.
    test::NotifyListener systemd(dir + "/notify.sock");
    ASSERT_TRUE(systemd.Bound());
    SandboxRun sandbox;
    // The ZEB switch makes sub-processes inherit the daemon's environment.
    ASSERT_TRUE(sandbox.Boot({"--env", "NOTIFY_SOCKET=" + dir + "/notify.sock", "--env",
                              "REGISTER_TO_VELKANMONITOR=0"}));
    std::vector<std::string> started = NoticesUntil(systemd, "READY=1");
    ASSERT_FALSE(started.empty());
    EXPECT_EQ(started.front(), "STATUS=Starting");
    EXPECT_EQ(started.back(), "READY=1\nSTATUS=Serving host requests on 1 device");
    EXPECT_EQ(started.size(), 2u);

    ASSERT_EQ(test::Host(sandbox, {"start", "--pid", "4242", "--cp"}), 0);
    std::vector<StandinRecord> compute = test::StandinRecordsOfKind(sandbox, 1);
    ASSERT_EQ(compute.size(), 1u);
    EXPECT_THAT(compute[0].env, ::testing::Contains("REGISTER_TO_VELKANMONITOR=0"));
    for (const std::string& entry : compute[0].env) {
        EXPECT_THAT(entry, Not(HasSubstr("NOTIFY_SOCKET=")))
            << "a sub-process could speak for the daemon";
    }
    EXPECT_EQ(systemd.Receive(100ms), std::nullopt) << "nothing between ready and stopping";

    EXPECT_EQ(sandbox.Stop(), 0);
    std::vector<std::string> stopped = NoticesUntil(systemd, "STOPPING=1");
    ASSERT_EQ(stopped.size(), 1u);
    EXPECT_EQ(stopped[0], "STOPPING=1\nSTATUS=Stopping: closing sessions and sub-processes");
    EXPECT_TRUE(sandbox.Log().Contains("[OrvDaemon] OrvDaemon::Destroy() exit"));
    test::RemoveTree(dir);
}

TEST(LifecycleTest, UnderSystemdAFailedStartIsNeverReportedReady) {
    std::string dir = test::MakeTempDir("orv-notify");
    test::NotifyListener systemd(dir + "/notify.sock");
    ASSERT_TRUE(systemd.Bound());
    SandboxRun sandbox;
    EXPECT_FALSE(
        sandbox.Boot({"--devices", "5", "--env", "NOTIFY_SOCKET=" + dir + "/notify.sock"}));
    EXPECT_EQ(sandbox.WaitExit(30s), 1);
    std::vector<std::string> notices;
    while (std::optional<std::string> notice = systemd.Receive(100ms)) {
        notices.push_back(*notice);
    }
    EXPECT_EQ(notices,
              (std::vector<std::string>{"STATUS=Starting",
                                        "STATUS=Start failed with code 1; see the system log"}));
    test::RemoveTree(dir);
}

}  // namespace
}  // namespace orv
