// Faults injected through the control socket: "the next N calls of X return C",
// and "the next N calls of X answer M ms late".
#ifndef ORV_EMU_CARD_FAULT_TABLE_H
#define ORV_EMU_CARD_FAULT_TABLE_H

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "platform/mutex.h"

namespace orv::emu {

class FaultTable {
  public:
    FaultTable() = default;
    FaultTable(const FaultTable&) = delete;
    FaultTable& operator=(const FaultTable&) = delete;

    // Arms `count` failures of `call` with `code`, replacing what was armed; a
    // count of 0 disarms it.
    void Inject(const std::string& call, int32_t code, uint32_t count);

    // When `call` is armed, uses up one failure and stores its code.
    bool Take(const std::string& call, int32_t* code);

    // Arms `count` late answers of `call`, each `delayMs` late, replacing what
    // was armed; a count of 0 disarms it.
    void InjectDelay(const std::string& call, uint32_t delayMs, uint32_t count);

    // When `call` has a late answer armed, uses it up and stores the delay.
    bool TakeDelay(const std::string& call, uint32_t* delayMs);

    void Clear();

    // Whether anything is armed: the common case, nothing, is answered
    // without naming the call or taking the lock.
    bool Armed() const { return armed_.load(std::memory_order_acquire); }

    // One line per armed call: "<call> code <C> remaining <N>", or
    // "<call> delay_ms <M> remaining <N>".
    std::string Describe() const;

  private:
    struct Fault {
        int32_t code;
        uint32_t remaining;
    };

    struct Delay {
        uint32_t delayMs;
        uint32_t remaining;
    };

    mutable Mutex mutex_;
    std::map<std::string, Fault> faults_ GUARDED_BY(mutex_);
    std::map<std::string, Delay> delays_ GUARDED_BY(mutex_);
    std::atomic<bool> armed_{false};

    // After a change of either map.
    void NoteArmed() EXCLUSIVE_LOCKS_REQUIRED(mutex_) {
        armed_.store(!faults_.empty() || !delays_.empty());
    }
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_FAULT_TABLE_H
