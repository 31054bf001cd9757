#include "emu/common/unix_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

#include "emu/common/socket_io.h"

namespace orv::emu {

UnixServer::UnixServer(std::string path, Handler handler, size_t maxConnections)
    : path_(std::move(path)), handler_(std::move(handler)), maxConnections_(maxConnections) {}

UnixServer::~UnixServer() {
    Stop();
}

bool UnixServer::Start() {
    listenFd_ = ListenUnix(path_);
    if (!listenFd_.Valid()) {
        return false;
    }
    wakeFd_ = UniqueFd(::eventfd(0, EFD_CLOEXEC));
    if (!wakeFd_.Valid()) {
        return false;
    }
    try {
        acceptThread_ = std::thread([this] { AcceptLoop(); });
    } catch (const std::system_error&) {
        errno = EAGAIN;
        return false;
    }
    return true;
}

void UnixServer::AcceptLoop() {
    while (!stopping_.load()) {
        pollfd fds[2] = {{listenFd_.Get(), POLLIN, 0}, {wakeFd_.Get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            continue;
        }
        if (fds[1].revents != 0 || stopping_.load()) {
            break;
        }
        if ((fds[0].revents & POLLIN) == 0) {
            continue;
        }
        UniqueFd fd = AcceptUnix(listenFd_.Get());
        if (!fd.Valid()) {
            continue;
        }
        pid_t peer = PeerPid(fd.Get());
        auto connection = std::make_unique<Connection>();
        connection->fd = std::move(fd);
        Connection* raw = connection.get();
        MutexLock lock(&mutex_);
        ReapFinished();
        if (maxConnections_ != 0 && connections_.size() >= maxConnections_) {
            continue;  // closed as `connection` goes
        }
        try {
            raw->thread = std::thread([this, raw, peer] {
                handler_(raw->fd.Get(), peer);
                // The descriptor goes at once; the thread is joined at the
                // next accept or at Stop.
                MutexLock lock(&mutex_);
                raw->fd.Reset();
                raw->done.store(true);
            });
        } catch (const std::system_error&) {
            continue;  // no thread to serve it: closed as `connection` goes
        }
        connections_.push_back(std::move(connection));
    }
}

void UnixServer::ReapFinished() {
    for (auto it = connections_.begin(); it != connections_.end();) {
        if ((*it)->done.load()) {
            (*it)->thread.join();
            it = connections_.erase(it);
        } else {
            ++it;
        }
    }
}

void UnixServer::Stop() {
    if (stopping_.exchange(true)) {
        return;
    }
    if (wakeFd_.Valid()) {
        uint64_t one = 1;
        WriteFull(wakeFd_.Get(), &one, sizeof(one));
    }
    if (acceptThread_.joinable()) {
        acceptThread_.join();
    }
    std::list<std::unique_ptr<Connection>> connections;
    {
        MutexLock lock(&mutex_);
        for (auto& connection : connections_) {
            if (connection->fd.Valid()) {
                ::shutdown(connection->fd.Get(), SHUT_RDWR);
            }
        }
        connections.swap(connections_);
    }
    for (auto& connection : connections) {
        if (connection->thread.joinable()) {
            connection->thread.join();
        }
    }
    listenFd_.Reset();
}

}  // namespace orv::emu
