// A Unix stream server that serves each connection on a thread of its own.
// The threads wait for connections themselves: a few spare ones sit in
// accept, so that a client that connects is served by a thread already
// running, and a thread whose connection ends goes back to waiting while
// spares are missing; otherwise it ends, and a reaper thread joins it.
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
    size_t total = 0;  // 0: no limit
    // Connections of one process (by its credentials); 0: no limit. A process
    // the server cannot name (outside its PID namespace) is bounded by the
    // total only.
    size_t perPeer = 0;
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
    // A thread's last act: it is done, for the reaper to join.
    void Finished(Worker* self) EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    // Body of the reaper thread: joins the threads that have ended as they
    // end, so that their stacks go back at once.
    void Reap() LOCKS_EXCLUDED(mutex_);
    // Moves the threads that have ended out of workers_, to be joined
    // outside the lock (JoinAll).
    void TakeFinished(std::list<std::unique_ptr<Worker>>* finished)
        EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    static void JoinAll(std::list<std::unique_ptr<Worker>>& workers);
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
    // Threads that ended since the reaper last looked.
    size_t finished_ GUARDED_BY(mutex_) = 0;
    bool reaperStopping_ GUARDED_BY(mutex_) = false;
    CondVar finishedChanged_{&mutex_};
    std::thread reaper_;  // Start and Stop only
};

}  // namespace orv::emu

#endif  // ORV_EMU_COMMON_UNIX_SERVER_H
