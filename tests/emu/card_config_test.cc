#include "emu/card/card_config.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu/card/fault_table.h"

namespace orv::emu {
namespace {

TEST(CardConfigTest, DefaultDevicesHaveOneScheduledControlCpuAndChipIdOfTheirIndex) {
    CardConfig config = CardConfig::WithDevices(3);
    ASSERT_EQ(config.devices.size(), 3u);
    for (int32_t i = 0; i < 3; ++i) {
        const DeviceConfig& d = config.devices[static_cast<size_t>(i)];
        EXPECT_EQ(d.chipId, i);
        EXPECT_EQ(d.ctrl.count, 1);
        EXPECT_EQ(d.ctrl.osSched, 1);
        EXPECT_EQ(d.ai.osSched, 0);
        EXPECT_EQ(d.data.osSched, 0);
    }
    EXPECT_EQ((config.HardwareVersion() >> 8) & 0xff, kChipTypeStandard);
    config.chipType = kChipTypeZeb;
    EXPECT_EQ((config.HardwareVersion() >> 8) & 0xff, kChipTypeZeb);
}

TEST(CardConfigTest, DeviceCpusChangeOnlyTheKindsNamed) {
    CardConfig config = CardConfig::WithDevices(2);
    std::string error;
    ASSERT_TRUE(config.ApplyDeviceCpus("1=ai:6:1,ctrl:2:0", &error)) << error;
    EXPECT_EQ(config.devices[1].ai.count, 6);
    EXPECT_EQ(config.devices[1].ai.osSched, 1);
    EXPECT_EQ(config.devices[1].ctrl.count, 2);
    EXPECT_EQ(config.devices[1].ctrl.osSched, 0);
    EXPECT_EQ(config.devices[1].data.count, 3);
    EXPECT_EQ(config.devices[0].ai.count, 4);
}

// The numbers the daemon's driver manager gives the same tables
// (tests/platform/orv_drv_manager_test.cc): the status view shows these.
TEST(CardConfigTest, ControlCpusAreNumberedAsThePlatformNumbersThem) {
    struct Case {
        uint32_t devices;
        std::vector<std::string> cpus;
        std::vector<std::vector<uint32_t>> expected;
    };
    const Case cases[] = {
        {2, {"0=ai:4:1,ctrl:1:1,data:3:1", "1=ai:4:1,ctrl:1:1,data:3:1"}, {{0}, {8}}},
        {4, {"2=ai:4:0,ctrl:2:1,data:3:0"}, {{0}, {1}, {2, 3}, {4}}},
        {2, {"0=ai:4:1,ctrl:1:0,data:3:1"}, {{}, {7}}},
    };
    for (const Case& c : cases) {
        CardConfig config = CardConfig::WithDevices(c.devices);
        std::string error;
        for (const std::string& spec : c.cpus) {
            ASSERT_TRUE(config.ApplyDeviceCpus(spec, &error)) << error;
        }
        for (uint32_t d = 0; d < c.devices; ++d) {
            EXPECT_EQ(config.ControlCpus(d), c.expected[d]) << c.cpus[0] << " device " << d;
        }
    }
}

TEST(CardConfigTest, MalformedDescriptionsAreRefusedWithAReason) {
    const char* bad[] = {"ai:1:1", "2=ai:1:1",  "x=ai:1:1",  "0=gpu:1:1",
                         "0=ai:1", "0=ai:-1:1", "0=ai:one:1"};
    for (const char* spec : bad) {
        CardConfig config = CardConfig::WithDevices(2);
        std::string error;
        EXPECT_FALSE(config.ApplyDeviceCpus(spec, &error)) << spec;
        EXPECT_FALSE(error.empty()) << spec;
    }
    CardConfig config = CardConfig::WithDevices(1);
    std::string error;
    EXPECT_TRUE(config.ApplyChipId("0=7", &error));
    EXPECT_EQ(config.devices[0].chipId, 7);
    EXPECT_FALSE(config.ApplyChipId("0=seven", &error));
}

TEST(FaultTableTest, AFaultLastsExactlyItsCountAndCanBeDisarmed) {
    FaultTable faults;
    int32_t code = 0;
    faults.Inject("drvGetDevNum", 5, 2);
    EXPECT_FALSE(faults.Take("halGetDeviceInfo", &code));
    EXPECT_TRUE(faults.Take("drvGetDevNum", &code));
    EXPECT_EQ(code, 5);
    EXPECT_TRUE(faults.Take("drvGetDevNum", &code));
    EXPECT_FALSE(faults.Take("drvGetDevNum", &code));
    faults.Inject("halGrpAttach", 3, 10);
    faults.Inject("halGrpAttach", 3, 0);
    EXPECT_FALSE(faults.Take("halGrpAttach", &code));
}

}  // namespace
}  // namespace orv::emu
