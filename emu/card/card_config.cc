#include "emu/card/card_config.h"

#include <cstdio>
#include <sstream>

namespace orv::emu {

namespace {

bool ParseInt(const std::string& text, int64_t* value) {
    if (text.empty()) {
        return false;
    }
    size_t used = 0;
    try {
        *value = std::stoll(text, &used, 10);
    } catch (const std::exception&) {
        return false;
    }
    return used == text.size();
}

// Splits "D=rest" and checks that D names a device of `config`.
bool SplitDevice(const CardConfig& config, const std::string& spec, size_t* device,
                 std::string* rest, std::string* error) {
    size_t eq = spec.find('=');
    int64_t index = 0;
    if (eq == std::string::npos || !ParseInt(spec.substr(0, eq), &index)) {
        *error = "expected DEVICE=..., got '" + spec + "'";
        return false;
    }
    if (index < 0 || static_cast<size_t>(index) >= config.devices.size()) {
        *error = "device " + std::to_string(index) + " is not on this card";
        return false;
    }
    *device = static_cast<size_t>(index);
    *rest = spec.substr(eq + 1);
    return true;
}

}  // namespace

CardConfig CardConfig::WithDevices(uint32_t count) {
    CardConfig config;
    config.devices.resize(count);
    for (uint32_t i = 0; i < count; ++i) {
        config.devices[i].chipId = static_cast<int32_t>(i);
    }
    return config;
}

bool CardConfig::ApplyDeviceCpus(const std::string& spec, std::string* error) {
    size_t device = 0;
    std::string rest;
    if (!SplitDevice(*this, spec, &device, &rest, error)) {
        return false;
    }
    std::stringstream items(rest);
    std::string item;
    while (std::getline(items, item, ',')) {
        std::stringstream fields(item);
        std::string kind, count, sched;
        int64_t n = 0;
        int64_t flag = 0;
        if (!std::getline(fields, kind, ':') || !std::getline(fields, count, ':') ||
            !std::getline(fields, sched, ':') || !ParseInt(count, &n) || !ParseInt(sched, &flag) ||
            n < 0) {
            *error = "expected KIND:COUNT:SCHED, got '" + item + "'";
            return false;
        }
        CpuGroup* group = kind == "ai"     ? &devices[device].ai
                          : kind == "ctrl" ? &devices[device].ctrl
                          : kind == "data" ? &devices[device].data
                                           : nullptr;
        if (group == nullptr) {
            *error = "unknown CPU kind '" + kind + "' (ai, ctrl or data)";
            return false;
        }
        *group = CpuGroup{n, flag};
    }
    return true;
}

bool CardConfig::ApplyChipId(const std::string& spec, std::string* error) {
    size_t device = 0;
    std::string rest;
    int64_t chip = 0;
    if (!SplitDevice(*this, spec, &device, &rest, error)) {
        return false;
    }
    if (!ParseInt(rest, &chip)) {
        *error = "expected DEVICE=CHIP_ID, got '" + spec + "'";
        return false;
    }
    devices[device].chipId = static_cast<int32_t>(chip);
    return true;
}

std::vector<uint32_t> CardConfig::ControlCpus(uint32_t index) const {
    int64_t base = 0;
    for (uint32_t i = 0; i < index && i < devices.size(); ++i) {
        const DeviceConfig& d = devices[i];
        base += d.ai.count * d.ai.osSched + d.data.count * d.data.osSched +
                d.ctrl.count * d.ctrl.osSched;
    }
    std::vector<uint32_t> cpus;
    if (index < devices.size() && devices[index].ctrl.osSched >= 1) {
        for (int64_t i = 0; i < devices[index].ctrl.count; ++i) {
            cpus.push_back(static_cast<uint32_t>(base + i));
        }
    }
    return cpus;
}

std::string CardConfig::Describe() const {
    std::ostringstream out;
    out << "devices " << devices.size() << "\n";
    char version[32];
    std::snprintf(version, sizeof(version), "0x%llx",
                  static_cast<unsigned long long>(HardwareVersion()));
    out << "hardware_version " << version << " chip_type " << chipType << "\n";
    for (size_t i = 0; i < devices.size(); ++i) {
        const DeviceConfig& d = devices[i];
        out << "dev " << i << " chip " << d.chipId << " ai " << d.ai.count << ":" << d.ai.osSched
            << " ctrl " << d.ctrl.count << ":" << d.ctrl.osSched << " data " << d.data.count << ":"
            << d.data.osSched << "\n";
    }
    return out.str();
}

}  // namespace orv::emu
