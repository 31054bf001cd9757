// Answers the driver HAL calls that processes on the card make.
#ifndef ORV_EMU_CARD_DRIVER_SERVICE_H
#define ORV_EMU_CARD_DRIVER_SERVICE_H

#include <sys/types.h>

#include <string>

#include "card.pb.h"
#include "emu/card/card_config.h"
#include "emu/card/event_scheduler.h"
#include "emu/card/fault_table.h"
#include "emu/card/group_table.h"
#include "emu/card/process_table.h"
#include "emu/card/verify_log.h"

namespace orv::emu {

// The driver HAL name of the call a request carries ("halGetDeviceInfo"), or
// empty for a control request or one of the emulator's own.
std::string DriverCallName(const CardRequest& request);

// True when a request may come on the driver socket (driver calls and the
// stand-ins' own requests).
bool IsDriverSocketRequest(const CardRequest& request);

// How the stand-ins of each kind behave.
class StandinTable {
  public:
    static constexpr uint32_t kKinds = 4;
    static const char* const kBehaviours[];

    // False for an unknown kind or behaviour.
    bool Set(uint32_t kind, const std::string& behaviour, uint32_t delayMs) LOCKS_EXCLUDED(mutex_);
    std::string Describe() const LOCKS_EXCLUDED(mutex_);

    // Keeps the table in file `path` from now on, where each stand-in reads
    // its behaviour when it starts: a file read, where a call to the card
    // would cost a round trip on every start. One line per kind: "KIND
    // BEHAVIOUR DELAY_MS".
    void PublishTo(const std::string& path) LOCKS_EXCLUDED(mutex_);

  private:
    void Publish() const EXCLUSIVE_LOCKS_REQUIRED(mutex_);

    mutable Mutex mutex_;
    std::string board_ GUARDED_BY(mutex_);
    std::string behaviour_[kKinds] GUARDED_BY(mutex_) = {"normal", "normal", "normal", "normal"};
    uint32_t delayMs_[kKinds] GUARDED_BY(mutex_) = {0, 0, 0, 0};
};

// True when `name` is a driver HAL or app-monitor call that faults can target.
bool IsFaultableCall(const std::string& name);
// True when `name` is a driver HAL call.
bool IsDriverCall(const std::string& name);

class DriverService {
  public:
    DriverService(const CardConfig* config, FaultTable* faults, GroupTable* groups,
                  ProcessTable* processes, EventScheduler* scheduler, VerifyLog* verified);
    DriverService(const DriverService&) = delete;
    DriverService& operator=(const DriverService&) = delete;

    // Executes one driver call made by process `caller`.
    CardReply Handle(pid_t caller, const CardRequest& request);

  private:
    CardReply GetDeviceInfo(const HalGetDeviceInfo& call) const;
    CardReply Serve(pid_t caller, const CardRequest& request);
    CardReply EventCall(pid_t caller, const CardRequest& request);

    const CardConfig* const config_;
    FaultTable* const faults_;
    GroupTable* const groups_;
    ProcessTable* const processes_;
    EventScheduler* const scheduler_;
    VerifyLog* const verified_;
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_DRIVER_SERVICE_H
