// Talking to a card emulator's control socket.
#ifndef ORV_EMU_CTL_CONTROL_CLIENT_H
#define ORV_EMU_CTL_CONTROL_CLIENT_H

#include <string>

#include "card.pb.h"

namespace orv::emu {

// Sends one control request and waits for the reply. False, with the reason,
// when the socket cannot be reached or the answer is garbled.
bool CallControl(const std::string& socketPath, const CardRequest& request, CardReply* reply,
                 std::string* error);

// The control socket of the sandbox whose state directory is `stateDir`: its
// ORV_EMU_CONTROL from sandbox.env when present, else the standard place.
std::string ControlSocketOfState(const std::string& stateDir);

}  // namespace orv::emu

#endif  // ORV_EMU_CTL_CONTROL_CLIENT_H
