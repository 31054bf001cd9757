// The card's driver service, in-process: answers from the card's description,
// refusals of out-of-range arguments, faults and late answers from the fault
// table, event calls made as the calling process, and the stand-in table the
// card publishes.
#include "emu/card/driver_service.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include <driver_hal.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv::emu {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr pid_t kCaller = 101;
constexpr pid_t kOther = 102;

CardRequest DeviceInfo(uint32_t dev, int32_t module, int32_t info) {
    CardRequest request;
    HalGetDeviceInfo* call = request.mutable_hal_get_device_info();
    call->set_dev_id(dev);
    call->set_module_type(module);
    call->set_info_type(info);
    return request;
}

CardRequest ChipOf(int32_t dev) {
    CardRequest request;
    request.mutable_hal_get_chip_from_device()->set_dev_id(dev);
    return request;
}

CardRequest TrustedPath(uint32_t dev, uint32_t peerNode, uint32_t pathLen) {
    CardRequest request;
    DrvHdcGetTrustedBasePath* call = request.mutable_drv_hdc_get_trusted_base_path();
    call->set_dev_id(dev);
    call->set_peer_node(peerNode);
    call->set_path_len(pathLen);
    return request;
}

CardRequest GroupQuery(int32_t cmd, const std::string& input) {
    CardRequest request;
    HalGrpQuery* call = request.mutable_hal_grp_query();
    call->set_cmd(cmd);
    call->set_input(input);
    call->set_out_capacity(360);
    return request;
}

CardRequest GroupCreate(const std::string& name) {
    CardRequest request;
    request.mutable_hal_grp_create()->set_name(name);
    request.mutable_hal_grp_create()->set_mem_size(4096);
    return request;
}

CardRequest DevNum() {
    CardRequest request;
    request.mutable_drv_get_dev_num();
    return request;
}

// As the emulator's own stand-ins call.
CardRequest Exempt(CardRequest request) {
    request.set_fault_exempt(true);
    return request;
}

class DriverServiceTest : public ::testing::Test {
  protected:
    DriverServiceTest() { config_.trustedRoot = "/trusted"; }

    CardConfig config_ = CardConfig::WithDevices(2);
    FaultTable faults_;
    GroupTable groups_;
    ProcessTable processes_;
    EventScheduler scheduler_;
    VerifyLog verified_;
    DriverService driver_{&config_, &faults_, &groups_, &processes_, &scheduler_, &verified_};
};

TEST_F(DriverServiceTest, AnswersComeFromTheCardAndOutOfRangeArgumentsAreRefused) {
    const std::string ownPid(reinterpret_cast<const char*>(&kCaller), sizeof(int32_t));
    struct Case {
        const char* what;
        CardRequest request;
        int32_t code;
        int64_t value;
    };
    const Case cases[] = {
        {"device count", DevNum(), DRV_ERROR_NONE, 2},
        {"ai cores", DeviceInfo(1, MODULE_TYPE_AICPU, INFO_TYPE_CORE_NUM), DRV_ERROR_NONE, 4},
        {"ctrl scheduled", DeviceInfo(0, MODULE_TYPE_CCPU, INFO_TYPE_OS_SCHED), DRV_ERROR_NONE, 1},
        {"data cores", DeviceInfo(0, MODULE_TYPE_DCPU, INFO_TYPE_CORE_NUM), DRV_ERROR_NONE, 3},
        {"hardware version", DeviceInfo(1, MODULE_TYPE_SYSTEM, INFO_TYPE_VERSION), DRV_ERROR_NONE,
         config_.HardwareVersion()},
        {"device past the last", DeviceInfo(2, MODULE_TYPE_AICPU, INFO_TYPE_CORE_NUM),
         DRV_ERROR_INVALID_DEVICE, 0},
        {"unknown module", DeviceInfo(0, 9, INFO_TYPE_CORE_NUM), DRV_ERROR_INVALID_VALUE, 0},
        {"system core count", DeviceInfo(0, MODULE_TYPE_SYSTEM, INFO_TYPE_CORE_NUM),
         DRV_ERROR_NOT_SUPPORT, 0},
        {"cpu version", DeviceInfo(0, MODULE_TYPE_CCPU, INFO_TYPE_VERSION), DRV_ERROR_NOT_SUPPORT,
         0},
        {"chip of device 1", ChipOf(1), DRV_ERROR_NONE, 1},
        {"chip of device -1", ChipOf(-1), DRV_ERROR_INVALID_DEVICE, 0},
        {"chip of device 2", ChipOf(2), DRV_ERROR_INVALID_DEVICE, 0},
        {"trusted path, room for its NUL", TrustedPath(1, HDC_LOCAL_PEER_NODE, 14), DRV_ERROR_NONE,
         0},
        {"trusted path, no room for its NUL", TrustedPath(1, HDC_LOCAL_PEER_NODE, 13),
         DRV_ERROR_INVALID_VALUE, 0},
        {"trusted path of a remote node", TrustedPath(1, 0, 64), DRV_ERROR_INVALID_VALUE, 0},
        {"trusted path of device 2", TrustedPath(2, HDC_LOCAL_PEER_NODE, 64),
         DRV_ERROR_INVALID_DEVICE, 0},
        {"group query", GroupQuery(GRP_QUERY_GROUPS_OF_PROCESS, ownPid), DRV_ERROR_NONE, 0},
        {"group query of another kind", GroupQuery(2, ownPid), DRV_ERROR_INVALID_VALUE, 0},
        {"group query, short pid", GroupQuery(GRP_QUERY_GROUPS_OF_PROCESS, ownPid.substr(1)),
         DRV_ERROR_INVALID_VALUE, 0},
        {"no call", CardRequest(), DRV_ERROR_NOT_SUPPORT, 0},
    };
    for (const Case& c : cases) {
        CardReply reply = driver_.Handle(kCaller, c.request);
        EXPECT_EQ(reply.code(), c.code) << c.what;
        EXPECT_EQ(reply.value(), c.value) << c.what;
    }
    EXPECT_EQ(driver_.Handle(kCaller, TrustedPath(1, HDC_LOCAL_PEER_NODE, 14)).text(),
              "/trusted/dev1");
}

TEST_F(DriverServiceTest, ControlRequestsAreNotDriverCalls) {
    CardRequest request;
    request.mutable_inject_fault()->set_call("drvGetDevNum");
    request.mutable_inject_fault()->set_count(1);
    EXPECT_FALSE(IsDriverSocketRequest(request));
    EXPECT_EQ(driver_.Handle(kCaller, request).code(), DRV_ERROR_NOT_SUPPORT);
    EXPECT_EQ(faults_.Describe(), "");
    EXPECT_TRUE(IsDriverSocketRequest(DevNum()));
    EXPECT_FALSE(IsDriverSocketRequest(CardRequest()));
}

// The fault table knows calls by these names: the card's control socket
// accepts them, and the driver service looks them up.
TEST(DriverCallNameTest, CallsAreNamedAsTheirHalFunctions) {
    CardRequest detach;
    detach.mutable_hal_esched_dettach_device();
    EXPECT_EQ(DriverCallName(detach), "halEschedDettachDevice");
    EXPECT_EQ(DriverCallName(DevNum()), "drvGetDevNum");
    CardRequest control;
    control.mutable_list_faults();
    EXPECT_EQ(DriverCallName(control), "");
    EXPECT_EQ(DriverCallName(CardRequest()), "");

    struct Case {
        const char* name;
        bool driver;
        bool faultable;
    };
    const Case cases[] = {
        {"halEschedDettachDevice", true, true},
        {"drvHdcGetTrustedBasePath", true, true},
        {"appmon_client_heartbeat", false, true},
        {"hal_grp_create", false, false},
        {"injectFault", false, false},
        {"", false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(IsDriverCall(c.name), c.driver) << c.name;
        EXPECT_EQ(IsFaultableCall(c.name), c.faultable) << c.name;
    }
}

TEST_F(DriverServiceTest, AnInjectedFaultFailsTheCallWithoutDoingItsWork) {
    faults_.Inject("halGrpCreate", DRV_ERROR_BUSY, 1);
    EXPECT_EQ(driver_.Handle(kCaller, GroupCreate("first")).code(), DRV_ERROR_BUSY);
    EXPECT_THAT(groups_.Describe(), Not(HasSubstr("first")));
    EXPECT_EQ(driver_.Handle(kCaller, GroupCreate("first")).code(), DRV_ERROR_NONE);
    EXPECT_THAT(groups_.Describe(), HasSubstr("first"));
}

TEST_F(DriverServiceTest, AFaultHitsOnlyItsOwnCallAndNeverAnExemptCaller) {
    faults_.Inject("drvGetDevNum", DRV_ERROR_IOCRL_FAIL, 2);
    EXPECT_EQ(driver_.Handle(kCaller, DeviceInfo(0, MODULE_TYPE_AICPU, INFO_TYPE_CORE_NUM)).code(),
              DRV_ERROR_NONE);
    // A stand-in's call neither fails nor uses up the daemon's faults.
    EXPECT_EQ(driver_.Handle(kCaller, Exempt(DevNum())).code(), DRV_ERROR_NONE);
    EXPECT_EQ(driver_.Handle(kCaller, DevNum()).code(), DRV_ERROR_IOCRL_FAIL);
    EXPECT_EQ(driver_.Handle(kOther, DevNum()).code(), DRV_ERROR_IOCRL_FAIL);
    EXPECT_EQ(driver_.Handle(kCaller, DevNum()).code(), DRV_ERROR_NONE);
    EXPECT_FALSE(faults_.Armed());
}

TEST_F(DriverServiceTest, ALateAnswerComesOnlyAfterTheDelayWithTheWorkDone) {
    constexpr uint32_t kDelayMs = 100;
    faults_.InjectDelay("halGrpCreate", kDelayMs, 1);
    // An exempt call does not use the delay up.
    EXPECT_EQ(driver_.Handle(kCaller, Exempt(GroupCreate("exempt"))).code(), DRV_ERROR_NONE);
    EXPECT_THAT(faults_.Describe(), HasSubstr("halGrpCreate delay_ms 100 remaining 1"));

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(driver_.Handle(kCaller, GroupCreate("late")).code(), DRV_ERROR_NONE);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kDelayMs));
    EXPECT_THAT(groups_.Describe(), HasSubstr("late"));
    EXPECT_FALSE(faults_.Armed());
}

TEST_F(DriverServiceTest, EventCallsActAsTheCallingProcess) {
    CardRequest create;
    create.mutable_hal_esched_create_grp()->set_grp_id(3);
    CardRequest subscribe;
    subscribe.mutable_hal_esched_subscribe_event()->set_grp_id(3);
    subscribe.mutable_hal_esched_subscribe_event()->set_event_bitmap(1ULL << EVENT_CCPU_CTRL_MSG);
    ASSERT_EQ(driver_.Handle(kCaller, create).code(), DRV_ERROR_NONE);
    ASSERT_EQ(driver_.Handle(kCaller, subscribe).code(), DRV_ERROR_NONE);

    CardRequest submit;
    HalEschedSubmitEvent* event = submit.mutable_hal_esched_submit_event();
    event->set_dst_pid(kCaller);
    event->set_grp_id(3);
    event->set_event_id(EVENT_CCPU_CTRL_MSG);
    event->set_msg("hello");
    ASSERT_EQ(driver_.Handle(kOther, submit).code(), DRV_ERROR_NONE);

    CardRequest wait;
    wait.mutable_hal_esched_wait_event()->set_grp_id(3);
    // Another process's wait on the same ids is its own, and finds nothing.
    EXPECT_EQ(driver_.Handle(kOther, wait).code(), DRV_ERROR_PROCESS_EXIT);
    CardReply reply = driver_.Handle(kCaller, wait);
    ASSERT_EQ(reply.code(), DRV_ERROR_NONE);
    EXPECT_EQ(reply.event().src_pid(), kOther);
    EXPECT_EQ(reply.event().msg(), "hello");
}

TEST_F(DriverServiceTest, AProcessBindsWithItsOwnSignatureOnly) {
    CardRequest sign;
    sign.mutable_drv_get_process_sign();
    CardReply own = driver_.Handle(kCaller, sign);
    ASSERT_EQ(own.code(), DRV_ERROR_NONE);
    EXPECT_EQ(own.value(), kCaller);
    EXPECT_EQ(own.data().size(), 48u);
    EXPECT_NE(driver_.Handle(kOther, sign).data(), own.data());

    CardRequest bind;
    DrvBindHostPid* call = bind.mutable_drv_bind_host_pid();
    call->set_host_pid(4000);
    call->set_vfid(1);
    call->set_sign(own.data());
    EXPECT_EQ(driver_.Handle(kOther, bind).code(), DRV_ERROR_NO_PERMISSION);
    EXPECT_EQ(driver_.Handle(kCaller, bind).code(), DRV_ERROR_NONE);
    EXPECT_EQ(processes_.Describe(), "process 101 host_pid 4000 vfid 1 mode 0 cp_type 0\n");
}

class StandinTableTest : public ::testing::Test {
  protected:
    void SetUp() override { dir_ = test::MakeTempDir("orv-standins"); }
    void TearDown() override { test::RemoveTree(dir_); }

    std::string dir_;
    StandinTable table_;
};

TEST_F(StandinTableTest, ThePublishedTableFollowsEveryAcceptedChangeOnly) {
    const std::string board = dir_ + "/standins";
    table_.PublishTo(board);
    EXPECT_EQ(test::ReadFile(board), "0 normal 0\n1 normal 0\n2 normal 0\n3 normal 0\n");

    EXPECT_TRUE(table_.Set(1, "crash", 250));
    EXPECT_TRUE(table_.Set(3, "flood", 1000));
    EXPECT_FALSE(table_.Set(StandinTable::kKinds, "crash", 1));
    EXPECT_FALSE(table_.Set(0, "explode", 1));
    EXPECT_FALSE(table_.Set(0, "", 1));
    EXPECT_EQ(test::ReadFile(board), "0 normal 0\n1 crash 250\n2 normal 0\n3 flood 1000\n");
    EXPECT_NE(::access((board + ".tmp").c_str(), F_OK), 0);

    std::string behaviour;
    uint32_t delayMs = 0;
    table_.Get(1, &behaviour, &delayMs);
    EXPECT_EQ(behaviour, "crash");
    EXPECT_EQ(delayMs, 250u);
    table_.Get(StandinTable::kKinds, &behaviour, &delayMs);
    EXPECT_EQ(behaviour, "normal");
    EXPECT_EQ(delayMs, 0u);
    EXPECT_THAT(table_.Describe(), HasSubstr("standin queue flood delay_ms 1000\n"));
}

}  // namespace
}  // namespace orv::emu
