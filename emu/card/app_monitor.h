// The card's application monitor: services register with a time-out and a
// command; a service whose heartbeats stop for longer than its time-out gets
// its command run (once per registration).
#ifndef ORV_EMU_CARD_APP_MONITOR_H
#define ORV_EMU_CARD_APP_MONITOR_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <thread>

#include "emu/card/fault_table.h"
#include "platform/mutex.h"

namespace orv::emu {

class AppMonitor {
  public:
    using Clock = std::chrono::steady_clock;

    // `now` tells the time heartbeats are stamped and judged by.
    explicit AppMonitor(FaultTable* faults, std::function<Clock::time_point()> now = Clock::now);
    ~AppMonitor();
    AppMonitor(const AppMonitor&) = delete;
    AppMonitor& operator=(const AppMonitor&) = delete;

    // Starts the supervision thread.
    void Start();
    // Stops it; commands already started keep running on their own.
    void Stop();

    // Serves one client connection until it closes (a UnixServer handler).
    void Serve(int fd, pid_t peer);

    // Expires the registered clients whose heartbeats stopped longer than
    // their time-out ago, running their commands, and reaps the commands that
    // ended. The supervision thread does this every 100 ms.
    void Supervise() LOCKS_EXCLUDED(mutex_);

    // One line per client, newest last: "client <id> pid <pid> state <s>
    // timeout_ms <t> heartbeats <n> script_runs <n> deregister_reason <r>".
    std::string Describe() const;

  private:
    enum class State { kConnected, kRegistered, kDeregistered, kExpired, kClosed };

    struct Client {
        uint64_t id = 0;
        pid_t pid = 0;
        State state = State::kConnected;
        uint64_t timeoutMs = 0;
        std::string command;
        std::string deregisterReason;
        Clock::time_point lastBeat;
        uint64_t heartbeats = 0;
        uint32_t scriptRuns = 0;
    };

    // Answers one request line of client `id`.
    std::string HandleLine(uint64_t id, const std::string& line);
    Client* FindClient(uint64_t id) EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    void SuperviseLoop();
    void ExpireSilentClients() EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    void RunCommand(const std::string& command, pid_t pid);

    FaultTable* const faults_;
    const std::function<Clock::time_point()> now_;
    std::thread superviseThread_;
    std::atomic<bool> running_{false};

    mutable Mutex mutex_;
    CondVar stopCond_{&mutex_};
    bool stopRequested_ GUARDED_BY(mutex_) = false;
    uint64_t nextId_ GUARDED_BY(mutex_) = 1;
    std::deque<Client> clients_ GUARDED_BY(mutex_);
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_APP_MONITOR_H
