// The emulated card's hardware description: devices, their CPUs, chip ids and
// the hardware version. Fixed for the life of the emulator, like real hardware.
#ifndef ORV_EMU_CARD_CARD_CONFIG_H
#define ORV_EMU_CARD_CARD_CONFIG_H

#include <cstdint>
#include <string>
#include <vector>

namespace orv::emu {

// Chip types reported in bits 8..15 of the hardware version.
inline constexpr int32_t kChipTypeStandard = 1;
inline constexpr int32_t kChipTypeZeb = 2;

// Devices one emulator may describe (the daemon itself accepts at most four).
inline constexpr uint32_t kMaxEmulatedDevices = 64;

struct CpuGroup {
    int64_t count = 0;
    int64_t osSched = 0;  // 1 when the OS schedules these cores
};

struct DeviceConfig {
    CpuGroup ai{4, 0};
    CpuGroup ctrl{1, 1};
    CpuGroup data{3, 0};
    int32_t chipId = 0;
};

// Where hosts drop files for device D: "<root>/dev<D>".
inline constexpr char kDefaultTrustedRoot[] = "/home/hdc-trusted";

struct CardConfig {
    std::vector<DeviceConfig> devices;
    int32_t chipType = kChipTypeStandard;
    std::string trustedRoot = kDefaultTrustedRoot;

    // Bits 8..15 carry the chip type.
    int64_t HardwareVersion() const { return (int64_t{chipType} << 8) | 0x10; }

    // `count` devices with the default CPU table and chip id = device index.
    static CardConfig WithDevices(uint32_t count);

    // Applies "D=ai:N:F,ctrl:N:F,data:N:F" (any subset of the three kinds) to
    // device D. False, with a reason, when the text is malformed or D is not a
    // device of this card.
    bool ApplyDeviceCpus(const std::string& spec, std::string* error);

    // Applies "D=ID" as device D's chip id.
    bool ApplyChipId(const std::string& spec, std::string* error);

    // The Linux CPU ids of device `index`'s control CPUs, numbered as the
    // platform numbers them: each device's OS-scheduled CPUs follow the
    // previous device's, control CPUs first. Empty when they are not
    // OS-scheduled.
    std::vector<uint32_t> ControlCpus(uint32_t index) const;

    // One line per device, for orv-emu-ctl.
    std::string Describe() const;
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_CARD_CONFIG_H
