// The emulated HDC server library, in-process: framing, the one SOCKET_CLOSED
// of every ended session and what it carries, session ids, closing a session
// from its own receive thread, and Destroy.
#include <hdc_server.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "emu/host/host_link.h"
#include "message/message_parse_interface.h"
#include "platform/mutex.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;

struct Delivery {
    uint32_t sessionId;
    HDCMessage msg;
};

Mutex g_mutex;
std::vector<Delivery> g_deliveries GUARDED_BY(g_mutex);

void Record(const uint32_t& sessionId, const HDCMessage& msg) {
    MutexLock lock(&g_mutex);
    g_deliveries.push_back({sessionId, msg});
}

// Answers a link test with a reply, then closes the session from its own
// receive thread.
void ReplyThenClose(const uint32_t& sessionId, const HDCMessage& msg) {
    Record(sessionId, msg);
    HDCMessage reply;
    reply.set_type(HDCMessage::TEST_HDC_RSP);
    HdcCommon::SendMsg(sessionId, reply);
    HdcServer::GetInstance(0, HDC_SERVICE_TYPE_PROCESS_MANAGER)->ClearSingleSession(sessionId);
}

std::vector<Delivery> Deliveries() {
    MutexLock lock(&g_mutex);
    return g_deliveries;
}

size_t CountOf(HDCMessage::MsgType type) {
    size_t count = 0;
    for (const Delivery& d : Deliveries()) {
        count += d.msg.type() == type ? 1 : 0;
    }
    return count;
}

class HdcTransportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        card_.UseAsDriver();
        hdcDir_ = test::MakeTempDir("orv-hdc");
        setenv("ORV_EMU_HDC_DIR", hdcDir_.c_str(), 1);
        // The test's own handlers stand in for the daemon's.
        MessageParseServer* dispatcher = MessageParseServer::GetInstance();
        for (HDCMessage::MsgType type :
             {HDCMessage::ORV_START_PROC_MSG, HDCMessage::ORV_CLOSE_PROC_MSG,
              HDCMessage::SOCKET_CLOSED, HDCMessage::ORV_CHECK_PACKAGE}) {
            dispatcher->RegisterMsgProcess(type, Record);
        }
        dispatcher->RegisterMsgProcess(HDCMessage::TEST_HDC_SEND, ReplyThenClose);
        for (uint32_t device = 0; device < 2; ++device) {
            servers_[device] = HdcServer::GetInstance(device, HDC_SERVICE_TYPE_PROCESS_MANAGER);
            ASSERT_NE(servers_[device], nullptr);
            ASSERT_EQ(servers_[device]->Init(), 0u);
        }
    }
    void TearDown() override {
        for (auto& server : servers_) {
            server->Destroy();
        }
        test::RemoveTree(hdcDir_);
    }
    std::unique_ptr<host::HostLink> Connect(uint32_t device) {
        std::string error;
        auto link =
            host::HostLink::Connect(hdcDir_ + "/dev" + std::to_string(device) + ".sock", &error);
        EXPECT_NE(link, nullptr) << error;
        return link;
    }

    test::CardEmulatorProcess card_{{"--devices", "2"}};
    std::string hdcDir_;
    std::shared_ptr<HdcServer> servers_[2];
};

HDCMessage Request(HDCMessage::MsgType type, uint32_t device, int32_t vf, uint32_t hostPid) {
    HDCMessage msg;
    msg.set_type(type);
    msg.set_device_id(device);
    msg.set_vf_id(vf);
    msg.mutable_proc_sign_pid()->set_proc_pid(hostPid);
    return msg;
}

TEST_F(HdcTransportTest, ServersExistOnlyForTheCardsDevices) {
    EXPECT_EQ(HdcServer::GetInstance(2, HDC_SERVICE_TYPE_PROCESS_MANAGER), nullptr);
    EXPECT_EQ(servers_[1]->GetDeviceId(), 1u);
}

TEST_F(HdcTransportTest, MessagesArriveInOrderAndEverySessionEndIsReportedOnceWithItsLastRequest) {
    auto link = Connect(1);
    ASSERT_TRUE(link->Send(Request(HDCMessage::ORV_START_PROC_MSG, 1, -3, 500)));
    ASSERT_TRUE(
        link->Send(Request(HDCMessage::ORV_CHECK_PACKAGE, 1, 7, 999)));  // not a framework request
    ASSERT_TRUE(link->Send(Request(HDCMessage::ORV_CLOSE_PROC_MSG, 1, -3, 501)));
    link->Drop();
    ASSERT_TRUE(test::WaitFor([] { return CountOf(HDCMessage::SOCKET_CLOSED) == 1; }, 5s));
    std::vector<Delivery> got = Deliveries();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].msg.type(), HDCMessage::ORV_START_PROC_MSG);
    EXPECT_EQ(got[0].msg.vf_id(), -3) << "a negative VF id survives the wire";
    EXPECT_EQ(got[1].msg.type(), HDCMessage::ORV_CHECK_PACKAGE);
    EXPECT_EQ(got[2].msg.type(), HDCMessage::ORV_CLOSE_PROC_MSG);
    const HDCMessage& closed = got[3].msg;
    EXPECT_EQ(got[3].sessionId, got[0].sessionId);
    EXPECT_EQ(closed.device_id(), 1u);
    EXPECT_EQ(closed.vf_id(), -3);
    EXPECT_EQ(closed.proc_sign_pid().proc_pid(), 501u);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(CountOf(HDCMessage::SOCKET_CLOSED), 1u);
}

TEST_F(HdcTransportTest, ASessionWithoutRequestsReportsItsServersDeviceAndZeros) {
    auto link = Connect(1);
    link->Drop();
    ASSERT_TRUE(test::WaitFor([] { return CountOf(HDCMessage::SOCKET_CLOSED) == 1; }, 5s));
    const HDCMessage closed = Deliveries()[0].msg;
    EXPECT_EQ(closed.device_id(), 1u);
    EXPECT_EQ(closed.vf_id(), 0);
    EXPECT_EQ(closed.proc_sign_pid().proc_pid(), 0u);
}

TEST_F(HdcTransportTest, SessionIdsAreUniqueAcrossDevicesAndCountUp) {
    std::vector<std::unique_ptr<host::HostLink>> links;
    for (uint32_t i = 0; i < 4; ++i) {
        links.push_back(Connect(i % 2));
        ASSERT_TRUE(links.back()->Send(Request(HDCMessage::ORV_START_PROC_MSG, i % 2, 0, i)));
        // One at a time, so that ids follow the order of connection.
        ASSERT_TRUE(test::WaitFor([&] { return Deliveries().size() == i + 1; }, 5s));
    }
    std::vector<Delivery> got = Deliveries();
    for (size_t i = 1; i < got.size(); ++i) {
        EXPECT_EQ(got[i].sessionId, got[i - 1].sessionId + 1);
    }
}

TEST_F(HdcTransportTest, ClosingFromTheReceiveThreadDeliversTheReplyFirst) {
    auto link = Connect(0);
    HDCMessage test;
    test.set_type(HDCMessage::TEST_HDC_SEND);
    ASSERT_TRUE(link->Send(test));
    HDCMessage reply;
    EXPECT_EQ(link->Next(&reply, 5s), host::Received::kMessage);
    EXPECT_EQ(reply.type(), HDCMessage::TEST_HDC_RSP);
    EXPECT_EQ(link->Next(&reply, 5s), host::Received::kClosed);
    ASSERT_TRUE(test::WaitFor([] { return CountOf(HDCMessage::SOCKET_CLOSED) == 1; }, 5s));
    EXPECT_EQ(HdcCommon::SendMsg(Deliveries()[0].sessionId, reply), 1u)
        << "a closed session takes no more";
}

TEST_F(HdcTransportTest, BadFramesEndTheirSessionAndNoOther) {
    auto bystander = Connect(0);
    ASSERT_TRUE(bystander->Send(Request(HDCMessage::ORV_START_PROC_MSG, 0, 0, 1)));
    auto tooLong = Connect(0);
    tooLong->SendRaw(std::string("\x00\x10\x00\x01", 4));  // 1 MiB + 1
    auto garbage = Connect(0);
    garbage->SendFrame(std::string("\xff\xff\xff", 3));
    HDCMessage msg;
    EXPECT_EQ(tooLong->Next(&msg, 5s), host::Received::kClosed);
    EXPECT_EQ(garbage->Next(&msg, 5s), host::Received::kClosed);
    ASSERT_TRUE(test::WaitFor([] { return CountOf(HDCMessage::SOCKET_CLOSED) == 2; }, 5s));
    ASSERT_TRUE(bystander->Send(Request(HDCMessage::ORV_CLOSE_PROC_MSG, 0, 0, 1)));
    EXPECT_TRUE(test::WaitFor([] { return CountOf(HDCMessage::ORV_CLOSE_PROC_MSG) == 1; }, 5s));
}

TEST_F(HdcTransportTest, DestroyEndsSessionsWithoutReportingThem) {
    auto link = Connect(0);
    ASSERT_TRUE(link->Send(Request(HDCMessage::ORV_START_PROC_MSG, 0, 0, 1)));
    ASSERT_TRUE(test::WaitFor([] { return Deliveries().size() == 1; }, 5s));
    EXPECT_EQ(servers_[0]->Destroy(), 0u);
    HDCMessage msg;
    EXPECT_EQ(link->Next(&msg, 5s), host::Received::kClosed);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(CountOf(HDCMessage::SOCKET_CLOSED), 0u);
    // A destroyed server is forgotten; asking again makes a new one.
    EXPECT_NE(HdcServer::GetInstance(0, HDC_SERVICE_TYPE_PROCESS_MANAGER), servers_[0]);
}

}  // namespace
}  // namespace orv
