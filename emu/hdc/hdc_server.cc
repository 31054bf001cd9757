// Emulated HDC server library.
//
// Server objects exist per (device, service type) from GetInstance on, for
// every device the card has. This build does not carry the transport yet:
// Init succeeds without listening, and no session ever exists.
#include <hdc_server.h>

#include <driver_hal.h>

#include <map>
#include <mutex>

namespace orv {

class HdcServer::Impl {
public:
    Impl(uint32_t deviceId, HDCServiceType type) : deviceId_(deviceId), type_(type) {}

    const uint32_t deviceId_;
    const HDCServiceType type_;
    bool initialized_ = false;
};

namespace {

std::mutex& RegistryMutex() {
    static std::mutex mutex;
    return mutex;
}

std::map<std::pair<uint32_t, uint32_t>, std::shared_ptr<HdcServer>>& Registry() {
    static std::map<std::pair<uint32_t, uint32_t>, std::shared_ptr<HdcServer>> registry;
    return registry;
}

}  // namespace

std::shared_ptr<HdcServer> HdcServer::GetInstance(uint32_t deviceId, HDCServiceType type) {
    uint32_t deviceNum = 0;
    if (drvGetDevNum(&deviceNum) != DRV_ERROR_NONE || deviceId >= deviceNum) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(RegistryMutex());
    auto& slot = Registry()[{deviceId, type}];
    if (slot == nullptr) {
        slot.reset(new HdcServer(std::make_unique<Impl>(deviceId, type)));
    }
    return slot;
}

HdcServer::HdcServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

HdcServer::~HdcServer() = default;

uint32_t HdcServer::Init() {
    impl_->initialized_ = true;
    return 0;
}

uint32_t HdcServer::Destroy() {
    impl_->initialized_ = false;
    std::lock_guard<std::mutex> lock(RegistryMutex());
    Registry().erase({impl_->deviceId_, impl_->type_});
    return 0;
}

uint32_t HdcServer::ClearSingleSession(uint32_t /*sessionId*/) {
    return 1;  // no such session
}

std::shared_ptr<VersionVerify> HdcServer::GetVersionVerify(uint32_t /*sessionId*/) {
    return nullptr;
}

uint32_t HdcServer::GetDeviceId() const {
    return impl_->deviceId_;
}

}  // namespace orv
