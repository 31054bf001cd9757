// A Unix stream server that runs one thread per connection.
#ifndef ORV_EMU_COMMON_UNIX_SERVER_H
#define ORV_EMU_COMMON_UNIX_SERVER_H

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "emu/common/unique_fd.h"
#include "platform/mutex.h"

namespace orv::emu {

class UnixServer {
public:
    // Serves one connection until it returns; `fd` stays owned by the server.
    using Handler = std::function<void(int fd, pid_t peer)>;

    // At most `maxConnections` connections are served at once (0: no limit);
    // one beyond is closed as soon as it is accepted.
    UnixServer(std::string path, Handler handler, size_t maxConnections = 0);
    ~UnixServer();
    UnixServer(const UnixServer&) = delete;
    UnixServer& operator=(const UnixServer&) = delete;

    // Listens on the path and starts accepting. False, with errno set, when the
    // socket cannot be made.
    bool Start();

    // Stops accepting, shuts every connection down so that blocked reads
    // return, and joins every thread. Handlers blocked elsewhere must be woken
    // by their owner first.
    void Stop();

    const std::string& Path() const { return path_; }

private:
    struct Connection {
        UniqueFd fd;  // guarded by mutex_ once the handler runs
        std::thread thread;
        std::atomic<bool> done{false};
    };

    void AcceptLoop();
    // Joins the threads of connections whose handler has returned.
    void ReapFinished() EXCLUSIVE_LOCKS_REQUIRED(mutex_);

    const std::string path_;
    const Handler handler_;
    const size_t maxConnections_;
    UniqueFd listenFd_;
    UniqueFd wakeFd_;  // eventfd that interrupts the accept loop
    std::thread acceptThread_;
    std::atomic<bool> stopping_{false};

    Mutex mutex_;
    std::list<std::unique_ptr<Connection>> connections_ GUARDED_BY(mutex_);
};

}  // namespace orv::emu

#endif  // ORV_EMU_COMMON_UNIX_SERVER_H
