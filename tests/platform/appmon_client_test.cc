// Runs inside a sandbox: the client talks to the card emulator's app monitor
// on /var/driver/appmon.socket. Each heartbeat step sleeps the daemon's fixed
// period (10 s; 3 s after a failed registration).
#include "platform/appmon_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;

using test::InjectFault;
using test::InsideControlSocket;
using test::LogCapture;
using test::ShowAppmon;
using ::testing::HasSubstr;
using ::testing::Not;

OrvRegistAppmonStatus Status() {
    return AppmonClient::GetInstance()->GetRegistAppmonStatus();
}

TEST(AppmonClientTest, RegistersBeatsAndDeregistersWithTheMonitor) {
    LogCapture log;
    AppmonClient* client = AppmonClient::GetInstance();
    client->Init(false);
    EXPECT_EQ(Status(), ORV_APPMON_CONNECTED);
    EXPECT_TRUE(client->IsOrvInitAppmonSuccess());
    EXPECT_FALSE(client->IsOrvRegistAppmonSuccess());

    uint32_t attempts = 0;
    EXPECT_TRUE(client->SendHeartbeat(attempts));
    EXPECT_EQ(attempts, 0u);
    EXPECT_EQ(Status(), ORV_APPMON_HEARTBEAT_SENT);
    std::string monitor = ShowAppmon(InsideControlSocket());
    EXPECT_THAT(monitor, HasSubstr("state registered timeout_ms 30000 heartbeats 1"));
    EXPECT_THAT(monitor, HasSubstr("command '/var/orvdaemon_monitor.sh'"));
    EXPECT_TRUE(log.Contains("[OrvEVENT] register to appmon success"));

    client->ClearOrvRegistAppmonInfo();
    EXPECT_EQ(Status(), ORV_APPMON_NOT_CONNECTED);
    EXPECT_TRUE(test::WaitFor(
        [] { return ShowAppmon(InsideControlSocket()).find("state closed") != std::string::npos; },
        5s));
    EXPECT_THAT(ShowAppmon(InsideControlSocket()),
                HasSubstr("deregister_reason 'orvdaemon monitor exit.'"));
    EXPECT_TRUE(log.InOrder({"[OrvEVENT] deregister to appmon", "[OrvEVENT] exit to appmon"}));
}

TEST(AppmonClientTest, ZebPlatformSkipsTheMonitorEntirely) {
    LogCapture log;
    AppmonClient* client = AppmonClient::GetInstance();
    client->Init(true);
    uint32_t attempts = 0;
    EXPECT_FALSE(client->SendHeartbeat(attempts));
    client->ClearOrvRegistAppmonInfo();
    EXPECT_EQ(Status(), ORV_APPMON_NOT_CONNECTED);
    EXPECT_EQ(ShowAppmon(InsideControlSocket()), "");
    EXPECT_TRUE(log.InOrder({"[OrvDaemon] set zeb flag : true", "[OrvDaemon] skip init appmon",
                             "[OrvDaemon] skip deregister appmon"}));
}

TEST(AppmonClientTest, AfterTenFailedRegistrationsTheClientStopsTryingButKeepsBeating) {
    LogCapture log;
    InjectFault(InsideControlSocket(), "appmon_client_register", 7, 10);
    AppmonClient* client = AppmonClient::GetInstance();
    client->Init(false);
    uint32_t attempts = 0;
    for (uint32_t i = 1; i <= 10; ++i) {
        EXPECT_FALSE(client->SendHeartbeat(attempts));
        EXPECT_EQ(attempts, i);
        EXPECT_EQ(Status(), ORV_APPMON_REGISTER_FAILED);
    }
    // The monitor would now accept a registration, but none is attempted.
    EXPECT_TRUE(client->SendHeartbeat(attempts));
    EXPECT_EQ(attempts, 10u);
    EXPECT_EQ(Status(), ORV_APPMON_REGISTER_FAILED);
    EXPECT_EQ(log.Count("[OrvDaemon] begin to register to appmon"), 10u);
    EXPECT_EQ(log.Count("[OrvDaemon]send orv heartbeat to appmon failed, try more"), 10u);
    EXPECT_THAT(ShowAppmon(InsideControlSocket()),
                HasSubstr("state connected timeout_ms 0 heartbeats 0"));
}

TEST(AppmonClientTest, FailedHeartbeatKeepsTheRegistration) {
    LogCapture log;
    AppmonClient* client = AppmonClient::GetInstance();
    client->Init(false);
    uint32_t attempts = 0;
    ASSERT_TRUE(client->SendHeartbeat(attempts));
    InjectFault(InsideControlSocket(), "appmon_client_heartbeat", 9, 1);
    EXPECT_TRUE(client->SendHeartbeat(attempts));
    EXPECT_EQ(Status(), ORV_APPMON_HEARTBEAT_FAILED);
    EXPECT_TRUE(client->IsOrvRegistAppmonSuccess());
    EXPECT_TRUE(log.Contains("[OrvDaemon]send heartbeat to appmon failed"));
    EXPECT_TRUE(client->SendHeartbeat(attempts));
    EXPECT_EQ(Status(), ORV_APPMON_HEARTBEAT_SENT);
    EXPECT_EQ(log.Count("[OrvDaemon] begin to register to appmon"), 1u);
    EXPECT_THAT(ShowAppmon(InsideControlSocket()),
                HasSubstr("state registered timeout_ms 30000 heartbeats 2"));
}

TEST(AppmonClientTest, UnreachableMonitorLeavesTheClientSleeping) {
    LogCapture log;
    InjectFault(InsideControlSocket(), "appmon_client_init", 4, 1);
    AppmonClient* client = AppmonClient::GetInstance();
    client->Init(false);
    EXPECT_EQ(Status(), ORV_APPMON_CONNECT_FAILED);
    EXPECT_TRUE(log.Contains("[OrvDaemon]init to appmon failed"));
    uint32_t attempts = 0;
    EXPECT_TRUE(client->SendHeartbeat(attempts));
    EXPECT_EQ(attempts, 0u);
    EXPECT_FALSE(log.Contains("begin to register to appmon"));
    EXPECT_THAT(ShowAppmon(InsideControlSocket()), Not(HasSubstr("registered")));
}

TEST(AppmonClientTest, FailedDeregistrationLeavesTheConnectionOpen) {
    LogCapture log;
    AppmonClient* client = AppmonClient::GetInstance();
    client->Init(false);
    uint32_t attempts = 0;
    ASSERT_TRUE(client->SendHeartbeat(attempts));
    InjectFault(InsideControlSocket(), "appmon_client_deregister", 2, 1);
    client->ClearOrvRegistAppmonInfo();
    EXPECT_TRUE(log.Contains("[OrvDaemon] appmon client deregister failed"));
    EXPECT_FALSE(log.Contains("[OrvEVENT] exit to appmon"));
    EXPECT_EQ(Status(), ORV_APPMON_HEARTBEAT_SENT);
    // Still connected: a second attempt goes through.
    client->ClearOrvRegistAppmonInfo();
    EXPECT_EQ(Status(), ORV_APPMON_NOT_CONNECTED);
}

}  // namespace
}  // namespace orv
