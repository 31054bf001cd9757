// Answers the driver HAL calls that processes on the card make.
#ifndef ORV_EMU_CARD_DRIVER_SERVICE_H
#define ORV_EMU_CARD_DRIVER_SERVICE_H

#include <sys/types.h>

#include <string>

#include "card.pb.h"
#include "emu/card/card_config.h"
#include "emu/card/fault_table.h"
#include "emu/card/group_table.h"
#include "emu/card/process_table.h"

namespace orv::emu {

// The driver HAL name of the call a request carries ("halGetDeviceInfo"), or
// empty for a control request.
std::string DriverCallName(const CardRequest& request);

// True when `name` is a driver HAL or app-monitor call that faults can target.
bool IsFaultableCall(const std::string& name);

class DriverService {
public:
    DriverService(const CardConfig* config, FaultTable* faults, GroupTable* groups, ProcessTable* processes);
    DriverService(const DriverService&) = delete;
    DriverService& operator=(const DriverService&) = delete;

    // Executes one driver call made by process `caller`.
    CardReply Handle(pid_t caller, const CardRequest& request);

private:
    CardReply GetDeviceInfo(const HalGetDeviceInfo& call) const;

    const CardConfig* const config_;
    FaultTable* const faults_;
    GroupTable* const groups_;
    ProcessTable* const processes_;
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_DRIVER_SERVICE_H
