#include "emu/common/unix_server.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "emu/common/socket_io.h"

namespace orv::emu {

namespace {

// A pause after an accept that failed for want of descriptors or memory, so
// that the thread does not spin while the shortage lasts.
constexpr std::chrono::milliseconds kShortagePause(10);

}  // namespace

UnixServer::UnixServer(std::string path, Handler handler, ConnectionLimits limits, size_t spares)
    : path_(std::move(path)),
      handler_(std::move(handler)),
      limits_(std::move(limits)),
      spares_(std::max<size_t>(spares, 1)) {}

UnixServer::~UnixServer() {
    Stop();
}

bool UnixServer::Start() {
    listenFd_ = ListenUnix(path_);
    if (!listenFd_.Valid()) {
        return false;
    }
    try {
        reaper_ = std::thread([this] { Reap(); });
    } catch (const std::system_error&) {
        errno = EAGAIN;
        return false;
    }
    MutexLock lock(&mutex_);
    for (size_t i = 0; i < spares_; ++i) {
        if (!Spawn() && i == 0) {
            errno = EAGAIN;
            return false;
        }
    }
    return true;
}

bool UnixServer::Spawn() {
    auto worker = std::make_unique<Worker>();
    Worker* raw = worker.get();
    try {
        worker->thread = std::thread([this, raw] { Work(raw); });
    } catch (const std::system_error&) {
        return false;
    }
    workers_.push_back(std::move(worker));
    ++waiting_;
    return true;
}

void UnixServer::Work(Worker* self) {
    for (;;) {
        UniqueFd fd = AcceptUnix(listenFd_.Get());
        if (!fd.Valid()) {
            if (stopping_.load()) {
                break;
            }
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                std::this_thread::sleep_for(kShortagePause);
            }
            continue;
        }
        pid_t peer = PeerPid(fd.Get());
        std::string refusal;
        {
            MutexLock lock(&mutex_);
            if (stopping_.load()) {
                break;
            }
            refusal = Refusal(peer);
            // The last waiting thread serves only once another waits in its
            // place; without one, the connection is refused rather than
            // leaving the server deaf.
            if (refusal.empty() && waiting_ == 1 && !Spawn()) {
                continue;
            }
            if (refusal.empty()) {
                --waiting_;
                ++serving_;
                ++servingByPeer_[peer];
                self->fd = std::move(fd);
            }
        }
        if (!refusal.empty()) {
            // Said outside the lock; the connection closes as `fd` goes.
            if (limits_.refused) {
                limits_.refused(peer, refusal);
            }
            continue;
        }
        handler_(self->fd.Get(), peer);
        MutexLock lock(&mutex_);
        self->fd.Reset();
        --serving_;
        if (--servingByPeer_[peer] == 0) {
            servingByPeer_.erase(peer);
        }
        if (stopping_.load() || waiting_ >= spares_) {
            Finished(self);
            return;
        }
        ++waiting_;
    }
    MutexLock lock(&mutex_);
    --waiting_;
    Finished(self);
}

void UnixServer::Finished(Worker* self) {
    self->done.store(true);
    ++finished_;
    finishedChanged_.Signal();
}

void UnixServer::Reap() {
    for (;;) {
        std::list<std::unique_ptr<Worker>> finished;
        {
            MutexLock lock(&mutex_);
            while (finished_ == 0 && !reaperStopping_) {
                finishedChanged_.Wait();
            }
            if (finished_ == 0) {
                return;
            }
            TakeFinished(&finished);
            finished_ = 0;
        }
        // Outside the lock: a thread that ended may still be on its way out.
        JoinAll(finished);
    }
}

std::string UnixServer::Refusal(pid_t peer) const {
    if (limits_.total != 0 && serving_ >= limits_.total) {
        return "all " + std::to_string(limits_.total) + " connections are taken";
    }
    if (peer <= 0) {
        // A process the server cannot name, outside its PID namespace: on
        // the emulated card, a host on the PC. Hosts are bounded by the total
        // only; the shares and the reserve are against the card's own.
        return "";
    }
    auto held = servingByPeer_.find(peer);
    size_t own = held != servingByPeer_.end() ? held->second : 0;
    if (limits_.perPeer != 0 && own >= limits_.perPeer) {
        return "it holds " + std::to_string(own) + " connections, the most one process may";
    }
    if (limits_.total != 0 && own > 0 && serving_ + limits_.reservedForNewPeers >= limits_.total) {
        return "it holds " + std::to_string(own) + " connections, and the last " +
               std::to_string(limits_.reservedForNewPeers) +
               " are kept for processes that hold none";
    }
    return "";
}

void UnixServer::TakeFinished(std::list<std::unique_ptr<Worker>>* finished) {
    for (auto it = workers_.begin(); it != workers_.end();) {
        auto next = std::next(it);
        if ((*it)->done.load()) {
            finished->splice(finished->end(), workers_, it);
        }
        it = next;
    }
}

void UnixServer::JoinAll(std::list<std::unique_ptr<Worker>>& workers) {
    for (auto& worker : workers) {
        if (worker->thread.joinable()) {
            worker->thread.join();
        }
    }
}

void UnixServer::Stop() {
    if (stopping_.exchange(true)) {
        return;
    }
    std::list<std::unique_ptr<Worker>> workers;
    {
        MutexLock lock(&mutex_);
        // Wakes the threads blocked in accept; the accepts fail from now on.
        if (listenFd_.Valid()) {
            ::shutdown(listenFd_.Get(), SHUT_RDWR);
        }
        for (auto& worker : workers_) {
            if (worker->fd.Valid()) {
                ::shutdown(worker->fd.Get(), SHUT_RDWR);
            }
        }
        workers.swap(workers_);
        reaperStopping_ = true;
        finishedChanged_.Signal();
    }
    if (reaper_.joinable()) {
        reaper_.join();
    }
    JoinAll(workers);
    listenFd_.Reset();
}

}  // namespace orv::emu
