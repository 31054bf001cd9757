// The card's driver service, in-process: refusals of out-of-range arguments,
// faults and late answers used up only by their own calls, signatures, and
// the stand-in table the card publishes.
#include "emu/card/driver_service.h"

#include <unistd.h>

#include <chrono>
#include <string>

#include <driver_hal.h>
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv::emu {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr pid_t kCaller = 101;
constexpr pid_t kOther = 102;

// A request as its text: "drv_get_dev_num {}".
CardRequest Call(const std::string& text, bool faultExempt = false) {
    CardRequest request;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &request)) << text;
    request.set_fault_exempt(faultExempt);
    return request;
}

CardRequest GroupQuery(int32_t cmd, const std::string& pid) {
    CardRequest request = Call("hal_grp_query { out_capacity: 360 }");
    request.mutable_hal_grp_query()->set_cmd(cmd);
    request.mutable_hal_grp_query()->set_input(pid);
    return request;
}

class DriverServiceTest : public ::testing::Test {
  protected:
    DriverServiceTest() { config_.trustedRoot = "/trusted"; }

    int32_t Code(pid_t caller, const std::string& text, bool faultExempt = false) {
        return driver_.Handle(caller, Call(text, faultExempt)).code();
    }

    CardConfig config_ = CardConfig::WithDevices(2);
    FaultTable faults_;
    GroupTable groups_;
    ProcessTable processes_;
    EventScheduler scheduler_;
    VerifyLog verified_;
    DriverService driver_{&config_, &faults_, &groups_, &processes_, &scheduler_, &verified_};
};

// Answers in range are what the daemon's own start-up tests rely on; here,
// the edges. Module types: 0 the system, 1 AI CPUs, 2 control CPUs; info
// types: 1 the version, 3 the core count. 65535 is the local node.
TEST_F(DriverServiceTest, OutOfRangeArgumentsAreRefused) {
    const std::string ownPid(reinterpret_cast<const char*>(&kCaller), sizeof(int32_t));
    struct Case {
        CardRequest request;
        int32_t code;
        int64_t value;
    };
    const Case cases[] = {
        {Call("hal_get_device_info { dev_id: 2 module_type: 1 info_type: 3 }"),
         DRV_ERROR_INVALID_DEVICE, 0},
        {Call("hal_get_device_info { module_type: 9 info_type: 3 }"), DRV_ERROR_INVALID_VALUE, 0},
        {Call("hal_get_device_info { module_type: 0 info_type: 3 }"), DRV_ERROR_NOT_SUPPORT, 0},
        {Call("hal_get_device_info { module_type: 2 info_type: 1 }"), DRV_ERROR_NOT_SUPPORT, 0},
        {Call("hal_get_chip_from_device { dev_id: 1 }"), 0, 1},
        {Call("hal_get_chip_from_device { dev_id: -1 }"), DRV_ERROR_INVALID_DEVICE, 0},
        {Call("hal_get_chip_from_device { dev_id: 2 }"), DRV_ERROR_INVALID_DEVICE, 0},
        // "/trusted/dev1" and its NUL take 14 bytes.
        {Call("drv_hdc_get_trusted_base_path { dev_id: 1 peer_node: 65535 path_len: 14 }"), 0, 0},
        {Call("drv_hdc_get_trusted_base_path { dev_id: 1 peer_node: 65535 path_len: 13 }"),
         DRV_ERROR_INVALID_VALUE, 0},
        {Call("drv_hdc_get_trusted_base_path { dev_id: 1 peer_node: 0 path_len: 64 }"),
         DRV_ERROR_INVALID_VALUE, 0},
        {Call("drv_hdc_get_trusted_base_path { dev_id: 2 peer_node: 65535 path_len: 64 }"),
         DRV_ERROR_INVALID_DEVICE, 0},
        {GroupQuery(2, ownPid), DRV_ERROR_INVALID_VALUE, 0},
        {GroupQuery(GRP_QUERY_GROUPS_OF_PROCESS, ownPid.substr(1)), DRV_ERROR_INVALID_VALUE, 0},
        {CardRequest(), DRV_ERROR_NOT_SUPPORT, 0},
    };
    for (const Case& c : cases) {
        CardReply reply = driver_.Handle(kCaller, c.request);
        EXPECT_EQ(reply.code(), c.code) << c.request.ShortDebugString();
        EXPECT_EQ(reply.value(), c.value) << c.request.ShortDebugString();
    }
    EXPECT_EQ(driver_.Handle(kCaller, cases[7].request).text(), "/trusted/dev1");
}

// A control request on the driver socket is refused, and no fault can be
// armed against one.
TEST_F(DriverServiceTest, ControlRequestsAreNeitherDriverCallsNorFaultable) {
    CardRequest control = Call("inject_fault { call: 'drvGetDevNum' count: 1 }");
    EXPECT_FALSE(IsDriverSocketRequest(control));
    EXPECT_EQ(driver_.Handle(kCaller, control).code(), DRV_ERROR_NOT_SUPPORT);
    EXPECT_FALSE(faults_.Armed());
    EXPECT_FALSE(IsFaultableCall("injectFault"));
}

TEST_F(DriverServiceTest, AFaultOrDelayIsUsedUpOnlyByItsOwnCallsAndNeverByAnExemptOne) {
    faults_.Inject("halGrpCreate", DRV_ERROR_BUSY, 2);
    EXPECT_EQ(Code(kCaller, "drv_get_dev_num {}"), DRV_ERROR_NONE);
    // A stand-in's call neither fails nor uses up the daemon's faults.
    EXPECT_EQ(Code(kCaller, "hal_grp_create { name: 'exempt' }", true), DRV_ERROR_NONE);
    EXPECT_EQ(Code(kCaller, "hal_grp_create { name: 'first' }"), DRV_ERROR_BUSY);
    EXPECT_EQ(Code(kOther, "hal_grp_create { name: 'second' }"), DRV_ERROR_BUSY);
    EXPECT_FALSE(faults_.Armed());
    // A failed call did none of its work.
    EXPECT_THAT(groups_.Describe(), Not(HasSubstr("first")));
    EXPECT_EQ(Code(kCaller, "hal_grp_create { name: 'first' }"), DRV_ERROR_NONE);
    EXPECT_THAT(groups_.Describe(), HasSubstr("first"));

    // A late answer comes after its delay, with the work done.
    faults_.InjectDelay("halGrpCreate", 100, 1);
    EXPECT_EQ(Code(kCaller, "hal_grp_create { name: 'exempt-late' }", true), DRV_ERROR_NONE);
    EXPECT_TRUE(faults_.Armed());
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Code(kCaller, "hal_grp_create { name: 'late' }"), DRV_ERROR_NONE);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_THAT(groups_.Describe(), HasSubstr("late"));
    EXPECT_FALSE(faults_.Armed());
}

TEST_F(DriverServiceTest, AProcessBindsWithItsOwnSignatureOnly) {
    CardReply own = driver_.Handle(kCaller, Call("drv_get_process_sign {}"));
    EXPECT_NE(driver_.Handle(kOther, Call("drv_get_process_sign {}")).data(), own.data());
    CardRequest bind = Call("drv_bind_host_pid { host_pid: 4000 vfid: 1 }");
    bind.mutable_drv_bind_host_pid()->set_sign(own.data());
    EXPECT_EQ(driver_.Handle(kOther, bind).code(), DRV_ERROR_NO_PERMISSION);
    EXPECT_EQ(driver_.Handle(kCaller, bind).code(), DRV_ERROR_NONE);
    EXPECT_EQ(processes_.Describe(), "process 101 host_pid 4000 vfid 1 mode 0 cp_type 0\n");
}

TEST(StandinTableTest, OnlyAKnownKindAndBehaviourChangeThePublishedTable) {
    const std::string dir = test::MakeTempDir("orv-standins");
    StandinTable table;
    table.PublishTo(dir + "/standins");
    EXPECT_TRUE(table.Set(1, "crash", 250));
    EXPECT_FALSE(table.Set(StandinTable::kKinds, "crash", 1));
    EXPECT_FALSE(table.Set(0, "explode", 1));
    EXPECT_FALSE(table.Set(0, "", 1));
    EXPECT_EQ(test::ReadFile(dir + "/standins"),
              "0 normal 0\n1 crash 250\n2 normal 0\n3 normal 0\n");
    test::RemoveTree(dir);
}

}  // namespace
}  // namespace orv::emu
