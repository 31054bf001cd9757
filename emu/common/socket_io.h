// Unix stream sockets and the length-prefixed framing that the emulated card's
// channels use: a 4-byte big-endian unsigned length, then that many bytes.
#ifndef ORV_EMU_COMMON_SOCKET_IO_H
#define ORV_EMU_COMMON_SOCKET_IO_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "emu/common/unique_fd.h"
#include "platform/orv_limits.h"

namespace orv::emu {

// Connects to a listening Unix stream socket; invalid on failure (errno set).
UniqueFd ConnectUnix(const std::string& path);

// Binds and listens on `path`, replacing a stale socket file; invalid on failure.
UniqueFd ListenUnix(const std::string& path, int backlog = 128);

// Accepts one connection (close-on-exec); invalid on failure.
UniqueFd AcceptUnix(int listenFd);

// Writes or reads exactly `size` bytes, retrying on EINTR and short transfers.
// ReadFull returns false on end of stream or error.
bool WriteFull(int fd, const void* data, size_t size);
// The same for a descriptor known not to be a socket (a file opened for
// appending): plain write(2), one call for a whole line as a rule.
bool WriteFileFull(int fd, const void* data, size_t size);
bool ReadFull(int fd, void* data, size_t size);

enum class FrameStatus {
    kOk,
    kClosed,       // the peer closed the stream between frames
    kTruncated,    // the stream ended inside a frame
    kTooLong,      // the announced length exceeds the limit
    kError,        // read error
    kSilent,       // no frame began before its deadline
    kStalled,      // a frame began but was not whole within its time
    kNotAdmitted,  // the frame's admission (FrameLimits::admit) refused it
};

using Clock = std::chrono::steady_clock;
inline constexpr Clock::time_point kNoDeadline = Clock::time_point::max();

// How long a reader waits for a frame, and what it lets in.
struct FrameLimits {
    uint32_t maxLength = 0;
    // The frame's first byte must come by then.
    Clock::time_point startBy = kNoDeadline;
    // Once its first byte came, the frame must be whole within this;
    // negative: no limit.
    std::chrono::milliseconds wholeWithin{-1};
    // Asked, when set, once the length is known and before the payload is
    // read, with the frame's deadline: false refuses the frame.
    std::function<bool(uint32_t length, Clock::time_point deadline)> admit;
};

// Writes one frame in a single write when it fits, so that concurrent writers
// on other descriptors never interleave with it.
bool WriteFrame(int fd, const std::string& payload);

// Writes one frame whole, giving up once `limit` has passed with the peer not
// reading (errno ETIMEDOUT); false on any failure.
bool WriteFrameWithin(int fd, const std::string& payload, std::chrono::milliseconds limit);

// Reads one frame of at most `maxLength` bytes. The payload grows with the
// bytes that arrive, never ahead of them to the length announced.
FrameStatus ReadFrame(int fd, std::string* payload, uint32_t maxLength);
FrameStatus ReadFrame(int fd, std::string* payload, const FrameLimits& limits);

// Pid of the process at the other end of a connected Unix socket, -1 if unknown.
pid_t PeerPid(int fd);

// Longest answer a request-reply exchange accepts.
inline constexpr uint32_t kMaxReplyFrame = limits::kMaxCardReplyBytes;

// One request-reply exchange of protobuf messages in frames. False when the
// request cannot be sent or the answer does not come or does not parse.
template <typename Request, typename Reply>
bool ExchangeMessages(int fd, const Request& request, Reply* reply) {
    std::string payload;
    if (!request.SerializeToString(&payload) || !WriteFrame(fd, payload)) {
        return false;
    }
    std::string answer;
    return ReadFrame(fd, &answer, kMaxReplyFrame) == FrameStatus::kOk &&
           reply->ParseFromString(answer);
}

}  // namespace orv::emu

#endif  // ORV_EMU_COMMON_SOCKET_IO_H
