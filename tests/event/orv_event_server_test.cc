// Runs inside a sandbox, against its card emulator's event scheduler.
#include "event/orv_event_server.h"

#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/orv_drv_manager.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::InjectFault;
using test::InsideControlSocket;

class OrvEventServerTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(OrvDrvManager::GetInstance()->Init(), 0u); }
    void TearDown() override { server_->Destroy(); }
    OrvEventServer* server_ = OrvEventServer::GetInstance();
};

TEST_F(OrvEventServerTest, EachDeviceGetsAWorkerWithAGroupOfItsOwn) {
    test::LogCapture log;
    ASSERT_EQ(server_->Init(3), 0u);
    for (int group = 0; group < 3; ++group) {
        EXPECT_TRUE(log.WaitFor(
            "[OrvEventServer] subscribe event on dev[0] group[" + std::to_string(group) + "]", 5s));
    }
    EXPECT_TRUE(log.Contains("Dev[0] begin subscribe event mask[524288][19]."));
    server_->Destroy();
    EXPECT_FALSE(server_->IsRunning());
    EXPECT_EQ(log.Count("The loop of getting event is exit in dev[0]"), 3u);
}

TEST_F(OrvEventServerTest, AWorkerGivesUpOnlyOnTheSchedulersFatalCodes) {
    test::LogCapture log;
    InjectFault(InsideControlSocket(), "halEschedWaitEvent", 5, 1);
    ASSERT_EQ(server_->Init(1), 0u);
    EXPECT_TRUE(log.WaitFor(
        "Failed to call halEschedWaitEvent, error code[5], deviceId[0], groupId[0]", 5s));
    InjectFault(InsideControlSocket(), "halEschedWaitEvent", 42, 1);
    EXPECT_TRUE(log.WaitFor(
        "Failed to call halEschedWaitEvent, error code=42, deviceId[0], groupId[0]", 10s));
    EXPECT_TRUE(log.WaitFor("[OrvEventServer] Exit wait event thread on dev[0] group[0]", 5s));
    EXPECT_TRUE(server_->IsRunning()) << "a worker that ends does not stop the server";
    EXPECT_FALSE(log.Contains("error code[16]")) << "time-outs are quiet";
}

TEST_F(OrvEventServerTest, AFailedRegistrationUndoesTheAttachAndStartsNoWorker) {
    test::LogCapture log;
    InjectFault(InsideControlSocket(), "halRegisterVmngClient", 3, 1);
    EXPECT_EQ(server_->Init(1), 1u);
    EXPECT_TRUE(log.Contains("halRegisterVmngClient dev[0] failed, result[3]."));
    emu::CardRequest request;
    request.mutable_show_events();
    EXPECT_THAT(test::Control(InsideControlSocket(), request).text(),
                ::testing::HasSubstr("detach pid"));
    EXPECT_FALSE(log.Contains("OrvEventServer begin start thread"));
}

// A worker whose group cannot be made, or whose subscription fails, ends
// alone; the other serves its device. Each case runs in a card of its own.
class OrvEventServerSetUpFaultTest
    : public OrvEventServerTest,
      public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(OrvEventServerSetUpFaultTest, AWorkerThatCannotSetUpEndsAlone) {
    test::LogCapture log;
    InjectFault(InsideControlSocket(), GetParam().first, 5, 1);
    ASSERT_EQ(server_->Init(2), 0u);
    EXPECT_TRUE(log.WaitFor(GetParam().second, 5s));
    EXPECT_TRUE(log.WaitFor("[OrvEventServer] subscribe event on dev[0] group[", 5s))
        << "the other worker";
    EXPECT_EQ(log.Count("[OrvEventServer] subscribe event on dev[0] group["), 1u);
    EXPECT_TRUE(server_->IsRunning());
}

INSTANTIATE_TEST_SUITE_P(
    Calls, OrvEventServerSetUpFaultTest,
    ::testing::Values(
        std::make_pair("halEschedCreateGrp", "type[2] failed, result[5]."),
        std::make_pair("halEschedSubscribeEvent",
                       "[OrvEventServer] subscribe EVENT_CCPU_CTRL_MSG failed in dev[0] group[")),
    [](const auto& info) { return std::string(info.param.first); });

// A detach the driver refuses at a worker's end changes nothing.
TEST_F(OrvEventServerTest, ARefusedDetachAtTheEndChangesNothing) {
    ASSERT_EQ(server_->Init(2), 0u);
    InjectFault(InsideControlSocket(), "halEschedDettachDevice", 5, 2);
    server_->Destroy();
    EXPECT_FALSE(server_->IsRunning());
    emu::CardRequest request;
    request.mutable_list_faults();
    EXPECT_EQ(test::Control(InsideControlSocket(), request).text(), "") << "each worker met one";
}

TEST_F(OrvEventServerTest, OnlyControlEventsOfTheRightLengthGoOn) {
    test::LogCapture log;
    event_info event;
    std::memset(&event, 0, sizeof(event));
    event.event_id = 4;
    server_->ProcessEvent(event);
    EXPECT_TRUE(log.Contains("Unknown event type, event_id[4]."));
    event.event_id = EVENT_CCPU_CTRL_MSG;
    event.subevent_id = 0;
    for (uint32_t length : {127u, 129u, 0u}) {
        event.msg_len = length;
        EXPECT_EQ(server_->ProcessEvent(event), 1u);
        EXPECT_TRUE(log.Contains("Incorrect msg length[" + std::to_string(length) +
                                 "], correct msg length[128]"));
    }
    // A driver notice is checked against its own length, 16.
    event.subevent_id = ORV_SUB_EVENT_VF_CREATE;
    event.msg_len = 128;
    EXPECT_EQ(server_->ProcessDrvEvent(event, ORV_SUB_EVENT_VF_CREATE), 1u);
    EXPECT_TRUE(log.Contains("Incorrect driver msg length[128], correct msg length[16]."));
}

TEST_F(OrvEventServerTest, ExistingVfsAreFoundFromTheirCustomPrograms) {
    for (const char* name :
         {"aicpu_custom_runner0", "aicpu_custom_runner17", "aicpu_custom_runner12",
          "aicpu_custom_runner2", "aicpu_custom_runner2.bak"}) {
        test::WriteFile(std::string("/var/") + name, "");
    }
    std::vector<int> vfs;
    EXPECT_TRUE(server_->CheckExistVf(vfs));
    EXPECT_THAT(vfs, ::testing::ElementsAre(12, 2)) << "in the order ls lists them";
}

// The driver's notices run the VF scripts on a thread of their own, in order:
// a worker hands them over and goes on; beyond the bound of those waiting, a
// notice is answered -1 at once.
TEST_F(OrvEventServerTest, DriverNoticesWaitOnAThreadOfTheirOwnWithinABound) {
    test::LogCapture log;
    ASSERT_EQ(server_->Init(1), 0u);
    event_info notice;
    std::memset(&notice, 0, sizeof(notice));
    notice.event_id = EVENT_CCPU_CTRL_MSG;
    notice.subevent_id = ORV_SUB_EVENT_VF_CREATE;
    notice.msg_len = 16;
    const uint32_t vf = 1;
    std::memcpy(notice.msg + 4, &vf, sizeof(vf));
    size_t refused = 0;
    for (int i = 0; i < 100; ++i) {
        refused += server_->ProcessEvent(notice) != 0 ? 1 : 0;
    }
    EXPECT_GE(refused, 100u - 64u - 2u);
    EXPECT_TRUE(log.Contains("notices wait already; answered -1"));
    EXPECT_TRUE(log.WaitFor("create_vf_config.sh 1", 5s)) << "none was handled";
    EXPECT_TRUE(server_->VfExists(0));
}

// The VF listing is read for a bounded number of lines.
TEST_F(OrvEventServerTest, TheVfListingIsReadForABoundedNumberOfLines) {
    for (int i = 0; i < 4100; ++i) {
        test::WriteFile("/var/aicpu_custom_runner" + std::to_string(100 + i), "");
    }
    test::LogCapture log;
    std::vector<int> vfs;
    EXPECT_TRUE(server_->CheckExistVf(vfs));
    EXPECT_TRUE(log.Contains("The VF listing has more than 4096 lines: the rest is not read"));
}
}  // namespace
}  // namespace orv
