// The driver's view of the processes on the card: each process's signature
// and the host process (and VF) each one was bound to.
#ifndef ORV_EMU_CARD_PROCESS_TABLE_H
#define ORV_EMU_CARD_PROCESS_TABLE_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

#include "platform/mutex.h"

namespace orv::emu {

class ProcessTable {
  public:
    ProcessTable();
    ProcessTable(const ProcessTable&) = delete;
    ProcessTable& operator=(const ProcessTable&) = delete;

    // The signature of `pid`: 48 hexadecimal characters, the same for the
    // life of the emulator.
    std::string SignOf(pid_t pid);

    // Records that `pid` serves `hostPid` on `vfId`. Refused (driver result)
    // when `sign` is not the caller's signature.
    int32_t Bind(pid_t pid, int32_t hostPid, uint32_t vfId, uint32_t mode, uint32_t cpType,
                 const std::string& sign);

    // One line per bound process.
    std::string Describe() const;

  private:
    struct Binding {
        int32_t hostPid;
        uint32_t vfId;
        uint32_t mode;
        uint32_t cpType;
    };

    const uint64_t bootNonce_;
    mutable Mutex mutex_;
    std::map<pid_t, Binding> bindings_ GUARDED_BY(mutex_);
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_PROCESS_TABLE_H
