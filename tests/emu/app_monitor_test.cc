// The card's application monitor, in-process over socket pairs and on a clock
// of the test's own: registration, heartbeats and deregistration, expiry once
// a client's silence outlasts its time-out and only then, the command it
// runs, refusals, and faults from the fault table.
#include "emu/card/app_monitor.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/appmon/appmon_protocol.h"
#include "tests/support/test_support.h"

namespace orv::emu {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Clock = AppMonitor::Clock;

constexpr pid_t kPeer = 4242;

class AppMonitorTest : public ::testing::Test {
  protected:
    // One client connection, served on a thread of its own as the card serves it.
    class Connection {
      public:
        Connection(AppMonitor* monitor, pid_t peer) {
            EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_), 0);
            server_ = std::thread([this, monitor, peer] { monitor->Serve(fds_[0], peer); });
        }
        ~Connection() { Close(); }

        // Sends one request line; the monitor's answer.
        std::string Ask(const std::string& line) {
            std::string answer;
            EXPECT_TRUE(WriteLine(fds_[1], line));
            EXPECT_TRUE(ReadLine(fds_[1], &answer)) << line;
            return answer;
        }
        // Closes the client's end and waits until the monitor has seen it.
        void Close() {
            if (fds_[1] >= 0) {
                ::close(fds_[1]);
                fds_[1] = -1;
                server_.join();
                ::close(fds_[0]);
            }
        }

      private:
        int fds_[2] = {-1, -1};
        std::thread server_;
    };

    // The monitor's time moves only when a test moves it.
    void Advance(int64_t ms) { elapsedMs_ += ms; }

    // The line Describe gives client `id`.
    std::string ClientLine(uint64_t id) const {
        std::istringstream lines(monitor_.Describe());
        const std::string prefix = "client " + std::to_string(id) + " ";
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind(prefix, 0) == 0) {
                return line;
            }
        }
        return "";
    }

    std::atomic<int64_t> elapsedMs_{0};
    const Clock::time_point start_ = Clock::now();
    FaultTable faults_;
    AppMonitor monitor_{&faults_,
                        [this] { return start_ + std::chrono::milliseconds(elapsedMs_.load()); }};
};

TEST_F(AppMonitorTest, AClientExpiresOnceItsSilenceOutlastsItsTimeOutAndOnlyOnce) {
    Connection client(&monitor_, kPeer);
    ASSERT_EQ(client.Ask("HELLO"), "OK");
    ASSERT_EQ(client.Ask("REGISTER 1000"), "OK");

    Advance(1000);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), HasSubstr("state registered"));
    Advance(1);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), StartsWith("client 1 pid 4242 state expired timeout_ms 1000 "
                                          "heartbeats 0 script_runs 1 "));
    Advance(60000);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), HasSubstr("script_runs 1 "));
    // Its registration is over: beats and deregistration come too late.
    EXPECT_EQ(client.Ask("HEARTBEAT"), "ERR 1");
    EXPECT_EQ(client.Ask("DEREGISTER late"), "ERR 1");
    // A new registration is supervised afresh.
    ASSERT_EQ(client.Ask("REGISTER 10"), "OK");
    Advance(11);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), HasSubstr("state expired timeout_ms 10 heartbeats 0 script_runs 2"));
}

TEST_F(AppMonitorTest, EachHeartbeatRestartsTheTimeOut) {
    Connection client(&monitor_, kPeer);
    ASSERT_EQ(client.Ask("REGISTER 1000 true"), "OK");
    for (int beat = 0; beat < 3; ++beat) {
        Advance(900);
        monitor_.Supervise();
        ASSERT_EQ(client.Ask("HEARTBEAT"), "OK");
    }
    Advance(1000);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), HasSubstr("state registered timeout_ms 1000 heartbeats 3 "));
    Advance(1);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), HasSubstr("state expired"));
}

TEST_F(AppMonitorTest, ADeregisteredClientIsNoLongerSupervised) {
    Connection client(&monitor_, kPeer);
    ASSERT_EQ(client.Ask("REGISTER 100 true"), "OK");
    ASSERT_EQ(client.Ask("DEREGISTER service stopped"), "OK");
    EXPECT_EQ(client.Ask("HEARTBEAT"), "ERR 1");
    EXPECT_EQ(client.Ask("DEREGISTER again"), "ERR 1");
    Advance(3600 * 1000);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), HasSubstr("state deregistered"));
    EXPECT_THAT(ClientLine(1), HasSubstr("script_runs 0 "));
    client.Close();
    EXPECT_THAT(ClientLine(1), HasSubstr("state closed"));
    EXPECT_THAT(ClientLine(1), HasSubstr("deregister_reason 'service stopped'"));
}

// A service that died without deregistering stops beating: that is what the
// monitor is for.
TEST_F(AppMonitorTest, AClientGoneWhileRegisteredIsStillSupervised) {
    Connection quiet(&monitor_, kPeer);
    ASSERT_EQ(quiet.Ask("HELLO"), "OK");
    quiet.Close();
    EXPECT_THAT(ClientLine(1), HasSubstr("state closed"));

    Connection gone(&monitor_, kPeer + 1);
    ASSERT_EQ(gone.Ask("REGISTER 100 true"), "OK");
    gone.Close();
    EXPECT_THAT(ClientLine(2), HasSubstr("state registered"));
    Advance(101);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(2), HasSubstr("state expired"));
    EXPECT_THAT(ClientLine(2), HasSubstr("script_runs 1 "));
}

TEST_F(AppMonitorTest, TheCommandRunsWithThePidOfTheSilentClient) {
    const std::string dir = test::MakeTempDir("orv-appmon");
    const std::string ran = dir + "/ran";
    Connection client(&monitor_, kPeer);
    ASSERT_EQ(client.Ask("REGISTER 50 echo \"$ORV_APPMON_PID\" > " + ran), "OK");
    EXPECT_THAT(ClientLine(1), HasSubstr("command 'echo \"$ORV_APPMON_PID\" > " + ran + "'"));
    Advance(51);
    monitor_.Supervise();
    EXPECT_TRUE(test::WaitFor([&] { return test::ReadFile(ran) == "4242\n"; }, 30s))
        << test::ReadFile(ran);
    test::RemoveTree(dir);
}

TEST_F(AppMonitorTest, MalformedRequestsAreRefusedAndLeaveTheClientUnregistered) {
    Connection client(&monitor_, kPeer);
    struct Case {
        const char* line;
        const char* answer;
    };
    const Case cases[] = {
        {"REGISTER", "ERR 22"}, {"REGISTER 0 true", "ERR 22"}, {"REGISTER soon true", "ERR 22"},
        {"", "ERR 22"},         {"register 10", "ERR 22"},     {"GOODBYE", "ERR 22"},
        {"HEARTBEAT", "ERR 1"}, {"DEREGISTER done", "ERR 1"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(client.Ask(c.line), c.answer) << "'" << c.line << "'";
    }
    EXPECT_THAT(ClientLine(1), HasSubstr("state connected timeout_ms 0 heartbeats 0"));
}

// A client may ask never to time out in earnest; the monitor must not take
// a time-out beyond its clock's range for one already past.
TEST_F(AppMonitorTest, ATimeOutTooLongToCountNeverPasses) {
    for (const char* timeout : {"18446744073709551615", "9223372036854775807"}) {
        Connection client(&monitor_, kPeer);
        ASSERT_EQ(client.Ask(std::string("REGISTER ") + timeout + " true"), "OK");
        client.Close();
    }
    Advance(100LL * 365 * 24 * 3600 * 1000);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), HasSubstr("state registered"));
    EXPECT_THAT(ClientLine(2), HasSubstr("state registered"));
}

TEST_F(AppMonitorTest, InjectedFaultsFailOneCallEachAndAFailedCallChangesNothing) {
    Connection client(&monitor_, kPeer);
    faults_.Inject("appmon_client_init", 5, 1);
    EXPECT_EQ(client.Ask("HELLO"), "ERR 5");
    EXPECT_EQ(client.Ask("HELLO"), "OK");

    faults_.Inject("appmon_client_register", 6, 1);
    EXPECT_EQ(client.Ask("REGISTER 100 true"), "ERR 6");
    Advance(1000);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), HasSubstr("state connected"));

    ASSERT_EQ(client.Ask("REGISTER 100 true"), "OK");
    Advance(60);
    // A failed heartbeat does not keep the client alive.
    faults_.Inject("appmon_client_heartbeat", 7, 1);
    EXPECT_EQ(client.Ask("HEARTBEAT"), "ERR 7");
    faults_.Inject("appmon_client_deregister", 8, 1);
    EXPECT_EQ(client.Ask("DEREGISTER bye"), "ERR 8");
    Advance(41);
    monitor_.Supervise();
    EXPECT_THAT(ClientLine(1), HasSubstr("state expired timeout_ms 100 heartbeats 0 "));
    EXPECT_FALSE(faults_.Armed());
}

TEST_F(AppMonitorTest, ClosedClientsAreKeptOnlyUpToALimit) {
    for (int i = 0; i < 70; ++i) {
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        ::close(fds[1]);
        monitor_.Serve(fds[0], kPeer);
        ::close(fds[0]);
    }
    EXPECT_EQ(ClientLine(6), "");
    EXPECT_THAT(ClientLine(7), HasSubstr("state closed"));
    EXPECT_THAT(ClientLine(70), HasSubstr("state closed"));
}

TEST_F(AppMonitorTest, TheSupervisionThreadExpiresClientsOnItsOwn) {
    monitor_.Start();
    Connection client(&monitor_, kPeer);
    ASSERT_EQ(client.Ask("REGISTER 5 true"), "OK");
    Advance(6);
    EXPECT_TRUE(test::WaitFor(
        [&] { return ClientLine(1).find("state expired") != std::string::npos; }, 30s))
        << ClientLine(1);
    monitor_.Stop();
}

}  // namespace
}  // namespace orv::emu
