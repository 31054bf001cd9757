#include "platform/orv_drv_manager.h"

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace orv {
namespace {

using test::CardEmulatorProcess;
using test::LogCapture;

std::vector<uint32_t> CtrlCpus(uint32_t deviceId) {
    std::vector<uint32_t> cpus = {999};
    OrvDrvManager::GetInstance()->GetCtrlCpus(deviceId, cpus);
    return cpus;
}

TEST(OrvDrvManagerTest, ControlCpusAreNumberedAcrossDevicesControlCpusFirst) {
    CardEmulatorProcess card({"--devices", "2", "--device-cpus", "0=ai:4:1,ctrl:1:1,data:3:1",
                              "--device-cpus", "1=ai:4:1,ctrl:1:1,data:3:1"});
    card.UseAsDriver();
    ASSERT_EQ(OrvDrvManager::GetInstance()->Init(), 0u);
    EXPECT_EQ(OrvDrvManager::GetInstance()->GetDeviceNum(), 2u);
    EXPECT_EQ(CtrlCpus(0), std::vector<uint32_t>({0}));
    EXPECT_EQ(CtrlCpus(1), std::vector<uint32_t>({8}));
}

TEST(OrvDrvManagerTest, CoresTheOsDoesNotScheduleTakeNoNumbers) {
    // The emulated card's default: AI and data cores are not OS-scheduled,
    // so device D's single control CPU is CPU D.
    CardEmulatorProcess card({"--devices", "4", "--device-cpus", "2=ai:4:0,ctrl:2:1,data:3:0"});
    card.UseAsDriver();
    ASSERT_EQ(OrvDrvManager::GetInstance()->Init(), 0u);
    EXPECT_EQ(CtrlCpus(0), std::vector<uint32_t>({0}));
    EXPECT_EQ(CtrlCpus(1), std::vector<uint32_t>({1}));
    EXPECT_EQ(CtrlCpus(2), std::vector<uint32_t>({2, 3}));
    EXPECT_EQ(CtrlCpus(3), std::vector<uint32_t>({4}));
}

TEST(OrvDrvManagerTest, DeviceWhoseControlCpusAreNotOsScheduledGetsNoEntry) {
    CardEmulatorProcess card({"--devices", "2", "--device-cpus", "0=ai:4:1,ctrl:1:0,data:3:1"});
    card.UseAsDriver();
    ASSERT_EQ(OrvDrvManager::GetInstance()->Init(), 0u);
    EXPECT_EQ(CtrlCpus(0), std::vector<uint32_t>({999})) << "the caller's list is left alone";
    // Device 0's seven scheduled AI and data cores still take numbers.
    EXPECT_EQ(CtrlCpus(1), std::vector<uint32_t>({7}));
}

TEST(OrvDrvManagerTest, ScheduledControlCpusOfCountZeroGiveAnEmptyEntry) {
    CardEmulatorProcess card({"--devices", "1", "--device-cpus", "0=ctrl:0:1"});
    card.UseAsDriver();
    ASSERT_EQ(OrvDrvManager::GetInstance()->Init(), 0u);
    EXPECT_TRUE(CtrlCpus(0).empty());
}

TEST(OrvDrvManagerTest, FiveDevicesAreRefusedBeforeAnyCpuIsRead) {
    LogCapture log;
    CardEmulatorProcess card({"--devices", "5"});
    card.UseAsDriver();
    EXPECT_EQ(OrvDrvManager::GetInstance()->Init(), 1u);
    EXPECT_TRUE(log.Contains("Invalid device nums[5]"));
    EXPECT_EQ(CtrlCpus(0), std::vector<uint32_t>({999}));
}

TEST(OrvDrvManagerTest, DeviceCountTheDriverCannotGiveFailsInit) {
    LogCapture log;
    CardEmulatorProcess card({"--devices", "1"});
    card.UseAsDriver();
    test::InjectFault(card.ControlSocket(), "drvGetDevNum", 5, 1);
    EXPECT_EQ(OrvDrvManager::GetInstance()->Init(), 1u);
    EXPECT_TRUE(log.Contains("Failed to drvGetDevNum, ret=5"));
}

TEST(OrvDrvManagerTest, AValueTheDriverCannotGiveCountsAsZeroAndShiftsLaterDevices) {
    LogCapture log;
    CardEmulatorProcess card({"--devices", "2", "--device-cpus", "0=ai:4:1,ctrl:1:1,data:3:1",
                              "--device-cpus", "1=ai:4:1,ctrl:1:1,data:3:1"});
    card.UseAsDriver();
    // The first value asked for is device 0's AI core count.
    test::InjectFault(card.ControlSocket(), "halGetDeviceInfo", 3, 1);
    ASSERT_EQ(OrvDrvManager::GetInstance()->Init(), 0u);
    EXPECT_TRUE(log.Contains("halGetDeviceInfo get aicpu num fail in device[0]"));
    EXPECT_EQ(CtrlCpus(0), std::vector<uint32_t>({0}));
    EXPECT_EQ(CtrlCpus(1), std::vector<uint32_t>({4}));
}

}  // namespace
}  // namespace orv
