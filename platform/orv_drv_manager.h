// OrvDrvManager asks the driver once, at start-up, how many devices this OS
// manages and which CPUs are each device's control CPUs, and answers those two
// questions for the rest of the daemon.
#ifndef ORV_PLATFORM_ORV_DRV_MANAGER_H
#define ORV_PLATFORM_ORV_DRV_MANAGER_H

#include <cstdint>
#include <map>
#include <vector>

#include "platform/mutex.h"

namespace orv {

// Devices one operating system may manage.
inline constexpr uint32_t MAX_DEVNUM_PER_OS = 4;

class OrvDrvManager {
  public:
    static OrvDrvManager* GetInstance();

    OrvDrvManager(const OrvDrvManager&) = delete;
    OrvDrvManager& operator=(const OrvDrvManager&) = delete;

    // Reads the device count and the control CPUs. 0 on success, 1 when the
    // count cannot be read or exceeds MAX_DEVNUM_PER_OS.
    uint32_t Init();

    // Device count; 0 before Init succeeds.
    uint32_t GetDeviceNum() const { return deviceNum_; }

    // Replaces `cpus` with device `deviceId`'s control CPUs; leaves it alone
    // for a device without OS-scheduled control CPUs.
    void GetCtrlCpus(uint32_t deviceId, std::vector<uint32_t>& cpus);

    // Numbers every device's CPUs in one sequence, device by device, control
    // CPUs first, and records the control CPUs of each device the OS
    // schedules. Always 0.
    uint32_t SaveCtrlCpus() EXCLUSIVE_LOCKS_REQUIRED(mutex_);

  private:
    OrvDrvManager();

    // Written only by Init, before other threads ask.
    uint32_t deviceNum_ = 0;
    Mutex mutex_;
    std::map<uint32_t, std::vector<uint32_t>> ctrlCpus_ GUARDED_BY(mutex_);
};

}  // namespace orv

#endif  // ORV_PLATFORM_ORV_DRV_MANAGER_H
