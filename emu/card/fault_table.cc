#include "emu/card/fault_table.h"

#include <sstream>

namespace orv::emu {

void FaultTable::Inject(const std::string& call, int32_t code, uint32_t count) {
    MutexLock lock(&mutex_);
    if (count == 0) {
        faults_.erase(call);
    } else {
        faults_[call] = Fault{code, count};
    }
    NoteArmed();
}

bool FaultTable::Take(const std::string& call, int32_t* code) {
    MutexLock lock(&mutex_);
    auto it = faults_.find(call);
    if (it == faults_.end()) {
        return false;
    }
    *code = it->second.code;
    if (--it->second.remaining == 0) {
        faults_.erase(it);
        NoteArmed();
    }
    return true;
}

void FaultTable::InjectDelay(const std::string& call, uint32_t delayMs, uint32_t count) {
    MutexLock lock(&mutex_);
    if (count == 0) {
        delays_.erase(call);
    } else {
        delays_[call] = Delay{delayMs, count};
    }
    NoteArmed();
}

bool FaultTable::TakeDelay(const std::string& call, uint32_t* delayMs) {
    MutexLock lock(&mutex_);
    auto it = delays_.find(call);
    if (it == delays_.end()) {
        return false;
    }
    *delayMs = it->second.delayMs;
    if (--it->second.remaining == 0) {
        delays_.erase(it);
        NoteArmed();
    }
    return true;
}

void FaultTable::Clear() {
    MutexLock lock(&mutex_);
    faults_.clear();
    delays_.clear();
    NoteArmed();
}

std::string FaultTable::Describe() const {
    MutexLock lock(&mutex_);
    std::ostringstream out;
    for (const auto& [call, fault] : faults_) {
        out << call << " code " << fault.code << " remaining " << fault.remaining << "\n";
    }
    for (const auto& [call, delay] : delays_) {
        out << call << " delay_ms " << delay.delayMs << " remaining " << delay.remaining << "\n";
    }
    return out.str();
}

}  // namespace orv::emu
