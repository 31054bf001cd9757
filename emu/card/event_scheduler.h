// The card's event scheduler: processes create groups, subscribe threads of a
// group to event ids, and wait; a submitted event is queued for its
// destination process and group and taken by a waiter subscribed to its id.
// The driver's own notices (VF creation and destruction) go to the process
// registered as VF management client, whose acknowledgement is handed back to
// whoever asked for the change.
#ifndef ORV_EMU_CARD_EVENT_SCHEDULER_H
#define ORV_EMU_CARD_EVENT_SCHEDULER_H

#include <sched.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "card.pb.h"
#include "emu/common/unique_fd.h"
#include "platform/mutex.h"

namespace orv::emu {

class EventScheduler {
  public:
    // How often the janitor looks for processes that have gone without
    // telling it (those it could not watch); it hears of the others as they end.
    static constexpr std::chrono::milliseconds kJanitorPeriod{1000};

    explicit EventScheduler(std::chrono::milliseconds janitorPeriod = kJanitorPeriod);
    ~EventScheduler();
    EventScheduler(const EventScheduler&) = delete;
    EventScheduler& operator=(const EventScheduler&) = delete;

    // Starts the thread that forgets processes that have gone.
    void Start();
    // Ends every wait (DRV_ERROR_PROCESS_EXIT) and stops that thread.
    void Stop();

    // Each returns a driver result code; `pid` is the calling process.
    int32_t Attach(pid_t pid, uint32_t devId);
    int32_t Detach(pid_t pid, uint32_t devId);
    int32_t CreateGroup(pid_t pid, uint32_t devId, uint32_t grpId, uint32_t type);
    int32_t Subscribe(pid_t pid, uint32_t devId, uint32_t grpId, uint32_t threadId,
                      uint64_t eventBitmap);
    // Blocks up to `timeoutMs` (-1: no limit) for an event the thread is subscribed to.
    int32_t Wait(pid_t pid, uint32_t devId, uint32_t grpId, uint32_t threadId, int32_t timeoutMs,
                 EventRecord* out);
    int32_t Submit(pid_t pid, const HalEschedSubmitEvent& event);
    int32_t Ack(pid_t pid, uint32_t devId, uint32_t eventId, uint32_t subeventId,
                const std::string& msg);
    int32_t RegisterVmngClient(pid_t pid);

    // Tells the VF management client of a VF change and waits for its
    // acknowledgement. DRV_ERROR_NONE with `ack` set when one came,
    // DRV_ERROR_WAIT_TIMEOUT when none did, DRV_ERROR_NOT_EXIST without a client.
    int32_t ChangeVf(const VfChange& change, int32_t* ack);

    // Queues an event as the control socket asks (to the VF management client
    // unless a destination is given).
    int32_t Inject(const InjectEvent& event);

    // The most recent events, oldest first, one per line.
    std::string DescribeEvents() const;

  private:
    using Clock = std::chrono::steady_clock;

    struct Group {
        explicit Group(Mutex* mutex) : arrived(std::make_shared<CondVar>(mutex)) {}
        uint32_t type = 0;
        std::map<uint32_t, uint64_t> subscriptions;  // thread -> event bitmap
        std::deque<EventRecord> queue;
        std::map<pid_t, uint32_t> queuedFrom;  // sender -> its events in `queue`
        // Wakes this group's waiters only: an event for one process wakes no
        // other. Shared, so that a waiter keeps it while its process is
        // forgotten.
        std::shared_ptr<CondVar> arrived;
    };

    struct Process {
        uint32_t attachments = 0;
        std::map<uint32_t, Group> groups;
        // Readable once the process has ended, zombie or not; watched by the
        // janitor, so that the card's threads blocked in its waits are freed
        // as it ends, as the driver's would be.
        UniqueFd exited;
    };

    // Queues an event for (dst, grp) and wakes the waiters.
    int32_t Enqueue(pid_t src, pid_t dst, uint32_t grpId, uint32_t eventId, uint32_t subeventId,
                    const std::string& msg) EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    void Trace(const std::string& line) EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    // The process's entry, made (and watched) on its first call.
    Process& Known(pid_t pid) EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    // Wakes every waiter of `process`'s groups.
    static void WakeAll(const Process& process);
    // Forgets the process, waking its waiters.
    std::map<pid_t, Process>::iterator Forget(std::map<pid_t, Process>::iterator process)
        EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    void ForgetGoneProcesses();

    const std::chrono::milliseconds janitorPeriod_;
    // The janitor waits on it: the processes' exit descriptors, and `wake_`.
    UniqueFd watch_;
    UniqueFd wake_;  // an eventfd; written to stop the janitor

    mutable Mutex mutex_;
    CondVar ackChanged_{&mutex_};
    bool stopping_ GUARDED_BY(mutex_) = false;
    std::map<pid_t, Process> processes_ GUARDED_BY(mutex_);
    // The card's threads blocked in each process's waits: process -> thread.
    std::multimap<pid_t, pid_t> waiters_ GUARDED_BY(mutex_);
    cpu_set_t cardCpus_;  // where the card's threads may run, before any follows a caller
    pid_t vmngClient_ GUARDED_BY(mutex_) = 0;
    // The acknowledgement a VF change waits for.
    bool ackPending_ GUARDED_BY(mutex_) = false;
    uint32_t ackSubevent_ GUARDED_BY(mutex_) = 0;
    bool ackArrived_ GUARDED_BY(mutex_) = false;
    int32_t ackValue_ GUARDED_BY(mutex_) = 0;
    std::deque<std::string> trace_ GUARDED_BY(mutex_);

    Mutex vfChangeMutex_;  // one VF change at a time
    std::thread janitor_;
};

}  // namespace orv::emu

#endif  // ORV_EMU_CARD_EVENT_SCHEDULER_H
