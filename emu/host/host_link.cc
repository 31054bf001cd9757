#include "emu/host/host_link.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <google/protobuf/util/json_util.h>

#include "emu/common/socket_io.h"
#include "platform/orv_limits.h"

namespace orv::host {

namespace {
// The daemon never sends more than this in one frame.
constexpr uint32_t kMaxFrame = limits::kMaxFrameBytes;
constexpr uint32_t kHostVersion = 1;
}  // namespace

std::unique_ptr<HostLink> HostLink::Connect(const std::string& socketPath, std::string* error) {
    emu::UniqueFd fd = emu::ConnectUnix(socketPath);
    if (!fd.Valid()) {
        *error = "cannot connect to " + socketPath + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<HostLink>(new HostLink(std::move(fd)));
}

bool HostLink::Send(const HDCMessage& msg) {
    std::string payload;
    return msg.SerializeToString(&payload) && SendFrame(payload);
}

bool HostLink::SendFrame(const std::string& payload) {
    return fd_.Valid() && emu::WriteFrame(fd_.Get(), payload);
}

bool HostLink::SendRaw(const std::string& bytes) {
    return fd_.Valid() && emu::WriteFull(fd_.Get(), bytes.data(), bytes.size());
}

Received HostLink::Next(HDCMessage* msg, std::chrono::milliseconds timeout) {
    if (!fd_.Valid()) {
        return Received::kClosed;
    }
    pollfd pfd{fd_.Get(), POLLIN, 0};
    int ready = ::poll(&pfd, 1, static_cast<int>(timeout.count()));
    if (ready == 0) {
        return Received::kTimeout;
    }
    if (ready < 0) {
        return Received::kError;
    }
    std::string payload;
    switch (emu::ReadFrame(fd_.Get(), &payload, kMaxFrame)) {
        case emu::FrameStatus::kOk:
            return msg->ParseFromString(payload) ? Received::kMessage : Received::kError;
        case emu::FrameStatus::kClosed:
            fd_.Reset();
            return Received::kClosed;
        default:
            fd_.Reset();
            return Received::kError;
    }
}

Received HostLink::Await(HDCMessage::MsgType type, HDCMessage* msg,
                         std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        Received received = Next(msg, std::max(left, std::chrono::milliseconds(0)));
        if (received != Received::kMessage || msg->type() == type) {
            return received;
        }
    }
}

void HostLink::Drop() {
    fd_.Reset();
}

void SetHostVersionInfo(HDCMessage* msg) {
    HDCMessage_VersionInfo* info = msg->mutable_version_info();
    info->set_version(kHostVersion);
    auto* start = info->add_feature_list();
    start->set_msg_type(HDCMessage::ORV_START_PROC_MSG);
    start->add_feature("start_zarn");
    start->add_feature("start_cp");
    auto* check = info->add_feature_list();
    check->set_msg_type(HDCMessage::ORV_CHECK_PACKAGE);
    check->add_feature("check_code");
}

std::string Describe(const HDCMessage& msg) {
    std::string text = "type " + std::to_string(static_cast<int>(msg.type())) + " (" +
                       HDCMessage::MsgType_Name(msg.type()) + ")";
    std::string fields = msg.ShortDebugString();
    return fields.empty() ? text : text + " " + fields;
}

std::string ToJson(const HDCMessage& msg) {
    google::protobuf::util::JsonPrintOptions options;
    options.always_print_primitive_fields = true;
    options.always_print_enums_as_ints = true;
    options.preserve_proto_field_names = true;
    std::string json;
    if (!google::protobuf::util::MessageToJsonString(msg, &json, options).ok()) {
        return "{}";
    }
    return json;
}

}  // namespace orv::host
