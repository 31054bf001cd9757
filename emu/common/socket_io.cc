#include "emu/common/socket_io.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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

FrameStatus ReadFrame(int fd, std::string* payload, uint32_t maxLength) {
    unsigned char header[4];
    size_t got = 0;
    while (got < sizeof(header)) {
        ssize_t n = ::read(fd, header + got, sizeof(header) - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return FrameStatus::kError;
        }
        if (n == 0) {
            return got == 0 ? FrameStatus::kClosed : FrameStatus::kTruncated;
        }
        got += static_cast<size_t>(n);
    }
    uint32_t length = (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) |
                      (uint32_t{header[2]} << 8) | uint32_t{header[3]};
    if (length > maxLength) {
        return FrameStatus::kTooLong;
    }
    payload->resize(length);
    if (length > 0 && !ReadFull(fd, payload->data(), length)) {
        return FrameStatus::kTruncated;
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
