#include "emu/common/socket_io.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace orv::emu {

namespace {

bool FillAddress(const std::string& path, sockaddr_un* addr) {
    std::memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr->sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace

UniqueFd ConnectUnix(const std::string& path) {
    sockaddr_un addr;
    if (!FillAddress(path, &addr)) {
        return UniqueFd();
    }
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) {
        return fd;
    }
    int rc;
    do {
        rc = ::connect(fd.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        return UniqueFd();
    }
    return fd;
}

UniqueFd ListenUnix(const std::string& path, int backlog) {
    sockaddr_un addr;
    if (!FillAddress(path, &addr)) {
        return UniqueFd();
    }
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) {
        return fd;
    }
    ::unlink(path.c_str());
    if (::bind(fd.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(fd.Get(), backlog) != 0) {
        return UniqueFd();
    }
    return fd;
}

UniqueFd AcceptUnix(int listenFd) {
    int fd;
    do {
        fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return UniqueFd(fd);
}

bool WriteFull(int fd, const void* data, size_t size) {
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = ::send(fd, p, size, MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK) {
            n = ::write(fd, p, size);
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteFileFull(int fd, const void* data, size_t size) {
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = ::write(fd, p, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool ReadFull(int fd, void* data, size_t size) {
    char* p = static_cast<char*>(data);
    while (size > 0) {
        ssize_t n = ::read(fd, p, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (n == 0) {
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteFrame(int fd, const std::string& payload) {
    if (payload.size() > UINT32_MAX) {
        return false;
    }
    std::string frame(4, '\0');
    uint32_t length = htonl(static_cast<uint32_t>(payload.size()));
    std::memcpy(frame.data(), &length, sizeof(length));
    frame += payload;
    return WriteFull(fd, frame.data(), frame.size());
}

bool WriteFrameWithin(int fd, const std::string& payload, std::chrono::milliseconds limit) {
    if (payload.size() > UINT32_MAX) {
        return false;
    }
    std::string frame(4, '\0');
    uint32_t length = htonl(static_cast<uint32_t>(payload.size()));
    std::memcpy(frame.data(), &length, sizeof(length));
    frame += payload;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const char* p = frame.data();
    size_t left = frame.size();
    while (left > 0) {
        ssize_t n = ::send(fd, p, left, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
            p += n;
            left -= static_cast<size_t>(n);
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            return false;
        }
        auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (remaining.count() <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd pfd{fd, POLLOUT, 0};
        if (::poll(&pfd, 1, static_cast<int>(remaining.count())) < 0 && errno != EINTR) {
            return false;
        }
    }
    return true;
}

namespace {

// A payload grows ahead of what arrived by as much as arrived already, at
// least the first of these and at most the second.
constexpr size_t kFirstReadChunk = 4096;
constexpr size_t kReadChunk = 65536;

enum class Wait { kReady, kTimedOut, kError };

// Waits until `fd` has something to read (its end included) or `deadline`
// passes.
Wait WaitReadable(int fd, Clock::time_point deadline) {
    if (deadline == kNoDeadline) {
        return Wait::kReady;
    }
    for (;;) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return Wait::kTimedOut;
        }
        pollfd pfd{fd, POLLIN, 0};
        int ready = ::poll(&pfd, 1, static_cast<int>(std::min<int64_t>(left.count(), INT32_MAX)));
        if (ready > 0) {
            return Wait::kReady;
        }
        if (ready < 0 && errno != EINTR) {
            return Wait::kError;
        }
    }
}

// One read of at most `size` bytes by `deadline`: the count read (0 at the
// stream's end), or -1 with `status` set.
ssize_t ReadSome(int fd, char* data, size_t size, Clock::time_point deadline, FrameStatus timeout,
                 FrameStatus* status) {
    for (;;) {
        Wait wait = WaitReadable(fd, deadline);
        if (wait != Wait::kReady) {
            *status = wait == Wait::kTimedOut ? timeout : FrameStatus::kError;
            return -1;
        }
        ssize_t n = ::read(fd, data, size);
        if (n >= 0) {
            return n;
        }
        if (errno != EINTR) {
            *status = FrameStatus::kError;
            return -1;
        }
    }
}

}  // namespace

FrameStatus ReadFrame(int fd, std::string* payload, uint32_t maxLength) {
    FrameLimits limits;
    limits.maxLength = maxLength;
    return ReadFrame(fd, payload, limits);
}

FrameStatus ReadFrame(int fd, std::string* payload, const FrameLimits& limits) {
    payload->clear();
    unsigned char header[4];
    size_t got = 0;
    Clock::time_point deadline = limits.startBy;
    FrameStatus status = FrameStatus::kOk;
    while (got < sizeof(header)) {
        ssize_t n =
            ReadSome(fd, reinterpret_cast<char*>(header) + got, sizeof(header) - got, deadline,
                     got == 0 ? FrameStatus::kSilent : FrameStatus::kStalled, &status);
        if (n < 0) {
            return status;
        }
        if (n == 0) {
            return got == 0 ? FrameStatus::kClosed : FrameStatus::kTruncated;
        }
        if (got == 0 && limits.wholeWithin.count() >= 0) {
            deadline = Clock::now() + limits.wholeWithin;
        } else if (got == 0) {
            deadline = kNoDeadline;
        }
        got += static_cast<size_t>(n);
    }
    uint32_t length = (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) |
                      (uint32_t{header[2]} << 8) | uint32_t{header[3]};
    if (length > limits.maxLength) {
        return FrameStatus::kTooLong;
    }
    if (limits.admit && !limits.admit(length, deadline)) {
        return FrameStatus::kNotAdmitted;
    }
    while (payload->size() < length) {
        size_t before = payload->size();
        size_t want =
            std::min<size_t>(length - before, std::clamp(before, kFirstReadChunk, kReadChunk));
        payload->resize(before + want);
        ssize_t n =
            ReadSome(fd, payload->data() + before, want, deadline, FrameStatus::kStalled, &status);
        payload->resize(before + static_cast<size_t>(std::max<ssize_t>(n, 0)));
        if (n < 0) {
            return status;
        }
        if (n == 0) {
            return FrameStatus::kTruncated;
        }
    }
    return FrameStatus::kOk;
}

pid_t PeerPid(int fd) {
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        return -1;
    }
    return cred.pid;
}

}  // namespace orv::emu
