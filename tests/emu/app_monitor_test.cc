// The card's application monitor, in-process over socket pairs and on a clock
// of the test's own: a registered client expires once its silence outlasts
// its time-out and only then, and nothing else is supervised.
#include "emu/card/app_monitor.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
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
using ::testing::Not;

constexpr pid_t kPeer = 4242;

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

class AppMonitorTest : public ::testing::Test {
  protected:
    // The monitor's time moves only when a test moves it; then it supervises.
    void Pass(int64_t ms) {
        elapsedMs_ += ms;
        monitor_.Supervise();
    }

    std::atomic<int64_t> elapsedMs_{0};
    const AppMonitor::Clock::time_point start_ = AppMonitor::Clock::now();
    FaultTable faults_;
    AppMonitor monitor_{&faults_,
                        [this] { return start_ + std::chrono::milliseconds(elapsedMs_.load()); }};
};

// Each heartbeat restarts the time-out; once a client's silence outlasts it,
// its command runs, told the client's pid, and only once.
TEST_F(AppMonitorTest, AClientExpiresOnceItsSilenceOutlastsItsTimeOutAndOnlyOnce) {
    const std::string ran = test::MakeTempDir("orv-appmon") + "/ran";
    Connection client(&monitor_, kPeer);
    ASSERT_EQ(client.Ask("REGISTER 1000 echo \"$ORV_APPMON_PID\" >> " + ran), "OK");
    for (int beat = 0; beat < 3; ++beat) {
        Pass(900);
        ASSERT_EQ(client.Ask("HEARTBEAT"), "OK");
    }
    Pass(1000);
    EXPECT_THAT(monitor_.Describe(), HasSubstr("client 1 pid 4242 state registered timeout_ms 1000 "
                                               "heartbeats 3 script_runs 0 "));
    Pass(1);
    EXPECT_TRUE(test::WaitFor([&] { return test::ReadFile(ran) == "4242\n"; }, 30s));
    Pass(60000);
    EXPECT_THAT(monitor_.Describe(), HasSubstr("state expired timeout_ms 1000 heartbeats 3 "
                                               "script_runs 1 "));
    // Its registration is over: beats and deregistration come too late.
    EXPECT_EQ(client.Ask("HEARTBEAT"), "ERR 1");
    EXPECT_EQ(client.Ask("DEREGISTER late"), "ERR 1");
    // A new registration is supervised afresh.
    ASSERT_EQ(client.Ask("REGISTER 10"), "OK");
    Pass(11);
    EXPECT_THAT(monitor_.Describe(), HasSubstr("state expired timeout_ms 10 heartbeats 3 "
                                               "script_runs 2 "));
    test::RemoveTree(ran.substr(0, ran.rfind('/')));
}

// A service that died without deregistering stops beating: that is what the
// monitor is for. One that deregistered is left alone.
TEST_F(AppMonitorTest, ARegisteredClientIsSupervisedEvenOnceGoneADeregisteredOneNever) {
    Connection left(&monitor_, kPeer);
    ASSERT_EQ(left.Ask("REGISTER 100 true"), "OK");
    ASSERT_EQ(left.Ask("DEREGISTER service stopped"), "OK");
    EXPECT_EQ(left.Ask("HEARTBEAT"), "ERR 1");
    EXPECT_EQ(left.Ask("DEREGISTER again"), "ERR 1");
    left.Close();
    Connection gone(&monitor_, kPeer + 1);
    ASSERT_EQ(gone.Ask("REGISTER 100 true"), "OK");
    gone.Close();
    Pass(3600 * 1000);
    EXPECT_THAT(monitor_.Describe(), HasSubstr("client 1 pid 4242 state closed timeout_ms 100 "
                                               "heartbeats 0 script_runs 0 command 'true' "
                                               "deregister_reason 'service stopped'"));
    EXPECT_THAT(monitor_.Describe(), HasSubstr("client 2 pid 4243 state expired timeout_ms 100 "
                                               "heartbeats 0 script_runs 1 "));
}

// A client may ask never to time out in earnest; the monitor must not take
// a time-out beyond its clock's range for one already past.
TEST_F(AppMonitorTest, ATimeOutTooLongToCountNeverPasses) {
    for (const char* timeout : {"18446744073709551615", "9223372036854775807"}) {
        Connection client(&monitor_, kPeer);
        ASSERT_EQ(client.Ask(std::string("REGISTER ") + timeout + " true"), "OK");
    }
    Pass(100LL * 365 * 24 * 3600 * 1000);
    EXPECT_THAT(monitor_.Describe(), HasSubstr("client 1 pid 4242 state registered "));
    EXPECT_THAT(monitor_.Describe(), HasSubstr("client 2 pid 4242 state registered "));
}

// Faults in the daemon's calls are held to by its own tests; here, that a
// failed call does nothing: neither registers, nor keeps a client alive.
TEST_F(AppMonitorTest, RefusedAndFailedRequestsChangeNothing) {
    Connection client(&monitor_, kPeer);
    for (const char* line :
         {"REGISTER", "REGISTER 0 true", "REGISTER soon true", "", "register 10", "GOODBYE"}) {
        EXPECT_EQ(client.Ask(line), "ERR 22") << "'" << line << "'";
    }
    EXPECT_EQ(client.Ask("HEARTBEAT"), "ERR 1");
    faults_.Inject("appmon_client_register", 6, 1);
    EXPECT_EQ(client.Ask("REGISTER 100 true"), "ERR 6");
    EXPECT_THAT(monitor_.Describe(), HasSubstr("state connected timeout_ms 0 "));
    ASSERT_EQ(client.Ask("REGISTER 100 true"), "OK");
    Pass(60);
    faults_.Inject("appmon_client_heartbeat", 7, 1);
    EXPECT_EQ(client.Ask("HEARTBEAT"), "ERR 7");
    Pass(41);
    EXPECT_THAT(monitor_.Describe(), HasSubstr("state expired timeout_ms 100 heartbeats 0 "));
}

// A line longer than the protocol's bound ends the connection.
TEST_F(AppMonitorTest, ALineOverItsBoundEndsTheConnection) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    std::thread server([this, &fds] { monitor_.Serve(fds[0], kPeer); });
    EXPECT_TRUE(WriteLine(fds[1], std::string(kAppmonMaxLine + 1, 'x')));
    server.join();
    EXPECT_THAT(monitor_.Describe(), HasSubstr("state closed"));
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST_F(AppMonitorTest, ClosedClientsAreKeptOnlyUpToALimit) {
    for (int i = 0; i < 70; ++i) {
        Connection(&monitor_, kPeer).Close();
    }
    EXPECT_THAT(monitor_.Describe(), Not(HasSubstr("client 6 ")));
    EXPECT_THAT(monitor_.Describe(), HasSubstr("client 7 pid 4242 state closed "));
    EXPECT_THAT(monitor_.Describe(), HasSubstr("client 70 pid 4242 state closed "));
}

}  // namespace
}  // namespace orv::emu
