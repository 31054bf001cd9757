// A Unix stream server that serves each connection on a thread of its own.
// The threads wait for connections themselves: a few spare ones sit in
// accept, so that a client that connects is served by a thread already
// running, and a thread whose connection ends goes back to waiting while
// spares are missing.
#ifndef ORV_EMU_COMMON_UNIX_SERVER_H
#define ORV_EMU_COMMON_UNIX_SERVER_H

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "emu/common/unique_fd.h"
#include "platform/mutex.h"

namespace orv::emu {

// How many connections a server serves at once, and from whom. A connection
// beyond a bound is closed as soon as it is accepted, and `refused` (when
// set) is told why.
struct ConnectionLimits {
    size_t total = 0;    // 0: no limit
    size_t perPeer = 0;  // connections of one process (by its credentials); 0: no limit
    // Once this few slots are left, only a process holding no connection yet
    // gets one.
    size_t reservedForNewPeers = 0;
    std::function<void(pid_t peer, const std::string& why)> refused;
};

class UnixServer {
  public:
    // Serves one connection until it returns; `fd` stays owned by the server.
    using Handler = std::function<void(int fd, pid_t peer)>;

    // Serves within `limits`. `spares` threads (at least one) wait for the
    // next connections.
    UnixServer(std::string path, Handler handler, ConnectionLimits limits = {}, size_t spares = 1);
    ~UnixServer();
    UnixServer(const UnixServer&) = delete;
    UnixServer& operator=(const UnixServer&) = delete;

    // Listens on the path and starts the waiting threads. False, with errno
    // set, when the socket or the first thread cannot be made.
    bool Start();

    // Stops accepting, shuts every connection down so that blocked reads
    // return, and joins every thread. Handlers blocked elsewhere must be woken
    // by their owner first.
    void Stop();

    const std::string& Path() const { return path_; }

  private:
    struct Worker {
        UniqueFd fd;  // the connection being served; guarded by mutex_
        std::thread thread;
        std::atomic<bool> done{false};
    };

    // Body of every thread: wait for a connection, serve it, and again while
    // spares are missing.
    void Work(Worker* self);
    // Starts one more waiting thread. False when no thread can be made.
    bool Spawn() EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    // Joins the threads that have ended.
    void ReapFinished() EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    // Why a connection of `peer` may not be served now; empty when it may.
    std::string Refusal(pid_t peer) const EXCLUSIVE_LOCKS_REQUIRED(mutex_);

    const std::string path_;
    const Handler handler_;
    const ConnectionLimits limits_;
    const size_t spares_;
    // The waiting threads block in accept on it; the kernel hands each
    // connection to one of them, and shutting it down wakes them all.
    UniqueFd listenFd_;
    std::atomic<bool> stopping_{false};

    Mutex mutex_;
    std::list<std::unique_ptr<Worker>> workers_ GUARDED_BY(mutex_);
    size_t waiting_ GUARDED_BY(mutex_) = 0;
    size_t serving_ GUARDED_BY(mutex_) = 0;
    std::map<pid_t, size_t> servingByPeer_ GUARDED_BY(mutex_);
};

}  // namespace orv::emu

#endif  // ORV_EMU_COMMON_UNIX_SERVER_H
