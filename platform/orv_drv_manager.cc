#include "platform/orv_drv_manager.h"

#include <driver_hal.h>
#include "platform/log.h"

namespace orv {

namespace {

// One value of the device table; false when the driver does not give it.
bool ReadCpuInfo(uint32_t deviceId, int32_t moduleType, int32_t infoType, int64_t* value) {
    int64_t read = 0;
    if (halGetDeviceInfo(deviceId, moduleType, infoType, &read) != DRV_ERROR_NONE) {
        return false;
    }
    *value = read;
    return true;
}

}  // namespace

OrvDrvManager* OrvDrvManager::GetInstance() {
    static OrvDrvManager instance;
    return &instance;
}

OrvDrvManager::OrvDrvManager() {
    // Logging must outlive this singleton.
    (void)ORVLog::GetInstance();
}

uint32_t OrvDrvManager::Init() {
    MutexLock lock(&mutex_);
    drvError_t ret = drvGetDevNum(&deviceNum_);
    if (ret != DRV_ERROR_NONE) {
        ORV_LOG(ORV_ERROR, "Failed to drvGetDevNum, ret=%d", ret);
        return 1;
    }
    ORV_LOG(ORV_INFO, "Get device num success, deviceNum=%d", static_cast<int>(deviceNum_));
    if (deviceNum_ > MAX_DEVNUM_PER_OS) {
        ORV_LOG(ORV_ERROR, "Invalid device nums[%u]", deviceNum_);
        return 1;
    }
    uint32_t saved = SaveCtrlCpus();
    if (saved != 0) {
        ORV_LOG(ORV_ERROR, "Get control cpu id from drv fail.");
        return saved;
    }
    return 0;
}

void OrvDrvManager::GetCtrlCpus(uint32_t deviceId, std::vector<uint32_t>& cpus) {
    MutexLock lock(&mutex_);
    auto it = ctrlCpus_.find(deviceId);
    if (it != ctrlCpus_.end()) {
        cpus = it->second;
    }
}

uint32_t OrvDrvManager::SaveCtrlCpus() {
    struct CpuQuery {
        int32_t moduleType;
        int32_t infoType;
        const char* failure;
    };
    // In the order the driver is asked.
    static const CpuQuery kQueries[] = {
        {MODULE_TYPE_AICPU, INFO_TYPE_CORE_NUM,
         "halGetDeviceInfo get aicpu num fail in device[%d]"},
        {MODULE_TYPE_AICPU, INFO_TYPE_OS_SCHED,
         "halGetDeviceInfo get aicpu sched fail in device[%d]"},
        {MODULE_TYPE_CCPU, INFO_TYPE_CORE_NUM, "halGetDeviceInfo get ccpu num fail in device[%d]"},
        {MODULE_TYPE_CCPU, INFO_TYPE_OS_SCHED,
         "halGetDeviceInfo get ccpu sched fail in device[%d]"},
        {MODULE_TYPE_DCPU, INFO_TYPE_CORE_NUM, "halGetDeviceInfo get dcpu num fail in device[%d]"},
        {MODULE_TYPE_DCPU, INFO_TYPE_OS_SCHED,
         "halGetDeviceInfo get dcpu sched fail in device[%d]"},
    };
    int64_t base = 0;
    for (uint32_t deviceId = 0; deviceId < deviceNum_; ++deviceId) {
        int64_t values[6] = {0, 0, 0, 0, 0, 0};
        for (size_t i = 0; i < 6; ++i) {
            if (!ReadCpuInfo(deviceId, kQueries[i].moduleType, kQueries[i].infoType, &values[i])) {
                ORV_LOG(ORV_ERROR, kQueries[i].failure, static_cast<int>(deviceId));
            }
        }
        const int64_t aiNum = values[0], aiSched = values[1];
        const int64_t ctrlNum = values[2], ctrlSched = values[3];
        const int64_t dataNum = values[4], dataSched = values[5];
        if (ctrlSched >= 1) {
            std::vector<uint32_t> cpus;
            for (int64_t i = 0; i < ctrlNum; ++i) {
                cpus.push_back(static_cast<uint32_t>(base + i));
            }
            ctrlCpus_.emplace(deviceId, std::move(cpus));
        }
        base += aiNum * aiSched + dataNum * dataSched + ctrlNum * ctrlSched;
    }
    return 0;
}

}  // namespace orv
