#include "emu/card/process_table.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <sstream>

#include <driver_hal.h>

namespace orv::emu {

namespace {

uint64_t Mix(uint64_t x) {
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    x *= 0xc4ceb9fe1a85ec53ULL;
    x ^= x >> 33;
    return x;
}

}  // namespace

ProcessTable::ProcessTable()
    : bootNonce_(
          Mix(static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
              static_cast<uint64_t>(::getpid()))) {}

std::string ProcessTable::SignOf(pid_t pid) {
    char sign[PROCESS_SIGN_LENGTH] = {};
    uint64_t a = Mix(bootNonce_ ^ static_cast<uint64_t>(pid));
    uint64_t b = Mix(a + 1);
    uint64_t c = Mix(b + 1);
    std::snprintf(sign, sizeof(sign), "%016llx%016llx%016llx", static_cast<unsigned long long>(a),
                  static_cast<unsigned long long>(b), static_cast<unsigned long long>(c));
    return sign;
}

int32_t ProcessTable::Bind(pid_t pid, int32_t hostPid, uint32_t vfId, uint32_t mode,
                           uint32_t cpType, const std::string& sign) {
    if (sign != SignOf(pid)) {
        return DRV_ERROR_NO_PERMISSION;
    }
    MutexLock lock(&mutex_);
    bindings_[pid] = Binding{hostPid, vfId, mode, cpType};
    return DRV_ERROR_NONE;
}

std::string ProcessTable::Describe() const {
    MutexLock lock(&mutex_);
    std::ostringstream out;
    for (const auto& [pid, binding] : bindings_) {
        out << "process " << pid << " host_pid " << binding.hostPid << " vfid " << binding.vfId
            << " mode " << binding.mode << " cp_type " << binding.cpType << "\n";
    }
    return out.str();
}

}  // namespace orv::emu
