// The host side of the HDC channel, as a framework process uses it: one link
// (HDC session) to one device's server, whole HDCMessages in frames.
#ifndef ORV_EMU_HOST_HOST_LINK_H
#define ORV_EMU_HOST_HOST_LINK_H

#include <chrono>
#include <memory>
#include <string>

#include "emu/common/unique_fd.h"
#include "orv_message.pb.h"

namespace orv::host {

enum class Received {
    kMessage,
    kTimeout,  // nothing came in time
    kClosed,   // the daemon closed the link
    kError,    // the link broke, or a frame did not parse
};

class HostLink {
  public:
    // Connects to a device's HDC socket; null, with the reason, on failure.
    static std::unique_ptr<HostLink> Connect(const std::string& socketPath, std::string* error);

    HostLink(const HostLink&) = delete;
    HostLink& operator=(const HostLink&) = delete;

    bool Send(const HDCMessage& msg);
    // A frame of any payload (it need not parse).
    bool SendFrame(const std::string& payload);
    // Bytes as they are, framing included or not.
    bool SendRaw(const std::string& bytes);

    // The next message, waiting up to `timeout`.
    Received Next(HDCMessage* msg, std::chrono::milliseconds timeout);
    // The next message of `type`, passing over others, waiting up to `timeout`
    // in all: kMessage once it came.
    Received Await(HDCMessage::MsgType type, HDCMessage* msg, std::chrono::milliseconds timeout);

    // Closes the link at once, whatever is in flight.
    void Drop();
    bool Open() const { return fd_.Valid(); }

  private:
    explicit HostLink(emu::UniqueFd fd) : fd_(std::move(fd)) {}

    emu::UniqueFd fd_;
};

// The version information this host announces in a link test.
void SetHostVersionInfo(HDCMessage* msg);

// One line for people: "type 8 (ORV_START_PROC_RSP) orv_rsp_code: 1 ...".
std::string Describe(const HDCMessage& msg);

// One JSON object: every field, enums as numbers, proto field names.
std::string ToJson(const HDCMessage& msg);

}  // namespace orv::host

#endif  // ORV_EMU_HOST_HOST_LINK_H
