// What orv-host's command line and session steps say, as messages: a request
// named by a command (or a type number) and its FIELDS becomes the HDCMessage
// to send and the type of the reply to wait for. Nothing here touches a link.
#ifndef ORV_EMU_HOST_HOST_REQUEST_H
#define ORV_EMU_HOST_HOST_REQUEST_H

#include <cstdint>
#include <string>
#include <vector>

#include "orv_message.pb.h"

namespace orv::host {

// Bad usage: orv-host answers it with the reason and its usage text.
struct UsageError {
    std::string what;
};

// `text` as a decimal number; a UsageError naming `what` when it is not one.
long long Number(const std::string& text, const std::string& what);

// A request and how to wait for its answer.
struct Request {
    HDCMessage msg;
    int waitType = -1;  // -1: any message
    bool noWait = false;
    bool drop = false;
};

// The type of the reply that answers a request of `type`; -1 when none does.
int ResponseTypeOf(HDCMessage::MsgType type);

// Builds a request from its command ("start", ..., "send", or a type number)
// and its FIELDS; `device` is the device id unless --device-id says otherwise.
// Values go out as given, out-of-range ones included. Throws UsageError.
Request BuildRequest(const std::string& command, const std::vector<std::string>& args,
                     uint32_t device);

// The words of a session step, split at white space.
std::vector<std::string> Words(const std::string& line);

// Takes "--name VALUE" out of `words`; `fallback` when absent. Throws
// UsageError when VALUE is not a number.
long long TakeOption(std::vector<std::string>* words, const std::string& name, long long fallback);

}  // namespace orv::host

#endif  // ORV_EMU_HOST_HOST_REQUEST_H
