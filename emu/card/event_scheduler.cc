#include "emu/card/event_scheduler.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sstream>
#include <vector>

#include <driver_hal.h>

#include "emu/card/emu_log.h"
#include "emu/common/process_ids.h"
#include "platform/orv_limits.h"

namespace orv::emu {

namespace {

constexpr size_t kTraceLength = 512;
// The driver's queues are finite: a group holds at most this many events not
// yet taken from any one sender, so a sender gone wrong fills its own share
// and no one else's.
constexpr uint32_t kQueuedPerSender = limits::kMaxQueuedEventsPerSender;
constexpr uint32_t kDefaultVfTimeoutMs = 30000;
// The driver's VF notice: 16 bytes, the VF id at offset 4.
constexpr uint32_t kVfNoticeLength = 16;
constexpr size_t kVfNoticeIdOffset = 4;
constexpr uint32_t kVfCreateSubevent = 100;
constexpr uint32_t kVfDestroySubevent = 101;
constexpr uint32_t kVmngGroup = 0;

// Epoll data of the janitor's stop descriptor; no caller has pid 0.
constexpr uint64_t kWakeData = 0;

bool Gone(pid_t pid) {
    return ::kill(pid, 0) != 0 && errno == ESRCH;
}

bool Ended(const UniqueFd& exited) {
    if (!exited.Valid()) {
        return false;
    }
    pollfd ready{exited.Get(), POLLIN, 0};
    return ::poll(&ready, 1, 0) == 1 && (ready.revents & POLLIN) != 0;
}

}  // namespace

EventScheduler::EventScheduler(std::chrono::milliseconds janitorPeriod)
    : janitorPeriod_(janitorPeriod),
      watch_(::epoll_create1(EPOLL_CLOEXEC)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (::sched_getaffinity(0, sizeof(cardCpus_), &cardCpus_) != 0) {
        CPU_ZERO(&cardCpus_);
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeData;
    ::epoll_ctl(watch_.Get(), EPOLL_CTL_ADD, wake_.Get(), &event);
}

EventScheduler::~EventScheduler() {
    Stop();
}

void EventScheduler::Start() {
    janitor_ = std::thread([this] { ForgetGoneProcesses(); });
}

void EventScheduler::WakeAll(const Process& process) {
    for (const auto& [id, group] : process.groups) {
        group.arrived->SignalAll();
    }
}

void EventScheduler::Stop() {
    {
        MutexLock lock(&mutex_);
        stopping_ = true;
        for (const auto& [pid, process] : processes_) {
            WakeAll(process);
        }
        ackChanged_.SignalAll();
    }
    uint64_t one = 1;
    (void)!::write(wake_.Get(), &one, sizeof(one));
    if (janitor_.joinable()) {
        janitor_.join();
    }
}

EventScheduler::Process& EventScheduler::Known(pid_t pid) {
    auto [it, made] = processes_.try_emplace(pid);
    if (made) {
        // A process the card cannot watch (gone already, or out of
        // descriptors) is left to the janitor's rounds.
        it->second.exited.Reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = static_cast<uint64_t>(pid);
        if (it->second.exited.Valid() &&
            ::epoll_ctl(watch_.Get(), EPOLL_CTL_ADD, it->second.exited.Get(), &event) != 0) {
            it->second.exited.Reset();
        }
    }
    return it->second;
}

std::map<pid_t, EventScheduler::Process>::iterator EventScheduler::Forget(
    std::map<pid_t, Process>::iterator process) {
    // Its waiters learn that it is gone. The card's threads that served them
    // are done with it: they finish, and wait for their next callers, on any
    // of the card's CPUs rather than on those of the process that has gone.
    auto [first, last] = waiters_.equal_range(process->first);
    for (auto waiter = first; waiter != last; ++waiter) {
        ::sched_setaffinity(waiter->second, sizeof(cardCpus_), &cardCpus_);
    }
    WakeAll(process->second);
    Trace("pid " + std::to_string(process->first) + " gone");
    if (vmngClient_ == process->first) {
        vmngClient_ = 0;
    }
    return processes_.erase(process);
}

void EventScheduler::ForgetGoneProcesses() {
    Clock::time_point nextRound = Clock::now() + janitorPeriod_;
    for (;;) {
        epoll_event ready[16];
        auto untilRound =
            std::chrono::duration_cast<std::chrono::milliseconds>(nextRound - Clock::now());
        int count = ::epoll_wait(watch_.Get(), ready, 16,
                                 static_cast<int>(std::max<int64_t>(untilRound.count(), 0)));
        MutexLock lock(&mutex_);
        if (stopping_) {
            return;
        }
        for (int i = 0; i < count; ++i) {
            if (ready[i].data.u64 == kWakeData) {
                continue;
            }
            // The pid may name a newer process by now: its own descriptor says.
            auto process = processes_.find(static_cast<pid_t>(ready[i].data.u64));
            if (process != processes_.end() && Ended(process->second.exited)) {
                Forget(process);
            }
        }
        if (Clock::now() < nextRound) {
            continue;
        }
        nextRound = Clock::now() + janitorPeriod_;
        for (auto it = processes_.begin(); it != processes_.end();) {
            it = Gone(it->first) ? Forget(it) : std::next(it);
        }
        if (vmngClient_ != 0 && Gone(vmngClient_)) {
            vmngClient_ = 0;
        }
    }
}

int32_t EventScheduler::Attach(pid_t pid, uint32_t devId) {
    MutexLock lock(&mutex_);
    ++Known(pid).attachments;
    Trace("attach pid " + std::to_string(pid) + " dev " + std::to_string(devId));
    return DRV_ERROR_NONE;
}

int32_t EventScheduler::Detach(pid_t pid, uint32_t devId) {
    MutexLock lock(&mutex_);
    auto it = processes_.find(pid);
    if (it == processes_.end() || it->second.attachments == 0) {
        return DRV_ERROR_UNINIT;
    }
    --it->second.attachments;
    Trace("detach pid " + std::to_string(pid) + " dev " + std::to_string(devId));
    return DRV_ERROR_NONE;
}

int32_t EventScheduler::CreateGroup(pid_t pid, uint32_t /*devId*/, uint32_t grpId, uint32_t type) {
    MutexLock lock(&mutex_);
    Process& process = Known(pid);
    if (process.groups.count(grpId) != 0) {
        return DRV_ERROR_REPEATED_INIT;
    }
    process.groups.emplace(grpId, Group(&mutex_)).first->second.type = type;
    return DRV_ERROR_NONE;
}

int32_t EventScheduler::Subscribe(pid_t pid, uint32_t /*devId*/, uint32_t grpId, uint32_t threadId,
                                  uint64_t eventBitmap) {
    MutexLock lock(&mutex_);
    auto process = processes_.find(pid);
    if (process == processes_.end() || process->second.groups.count(grpId) == 0) {
        return DRV_ERROR_UNINIT;
    }
    process->second.groups.at(grpId).subscriptions[threadId] = eventBitmap;
    return DRV_ERROR_NONE;
}

int32_t EventScheduler::Wait(pid_t pid, uint32_t /*devId*/, uint32_t grpId, uint32_t threadId,
                             int32_t timeoutMs, EventRecord* out) {
    Clock::time_point deadline =
        Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    MutexLock lock(&mutex_);
    for (;;) {
        if (stopping_) {
            return DRV_ERROR_PROCESS_EXIT;
        }
        auto process = processes_.find(pid);
        if (process == processes_.end()) {
            return DRV_ERROR_PROCESS_EXIT;
        }
        auto group = process->second.groups.find(grpId);
        if (group == process->second.groups.end()) {
            return DRV_ERROR_UNINIT;
        }
        auto subscription = group->second.subscriptions.find(threadId);
        if (subscription == group->second.subscriptions.end()) {
            return DRV_ERROR_NO_SUBSCRIBE;
        }
        std::deque<EventRecord>& queue = group->second.queue;
        for (auto it = queue.begin(); it != queue.end(); ++it) {
            if (it->event_id() < 64 && ((subscription->second >> it->event_id()) & 1) != 0) {
                *out = std::move(*it);
                queue.erase(it);
                auto sender = group->second.queuedFrom.find(out->src_pid());
                if (sender != group->second.queuedFrom.end() && --sender->second == 0) {
                    group->second.queuedFrom.erase(sender);
                }
                return DRV_ERROR_NONE;
            }
        }
        std::shared_ptr<CondVar> arrived = group->second.arrived;
        auto waiting = waiters_.emplace(pid, CurrentTid());
        bool signalled = true;
        if (timeoutMs < 0) {
            arrived->Wait();
        } else {
            signalled = arrived->WaitUntil(deadline);
        }
        waiters_.erase(waiting);
        if (!signalled && Clock::now() >= deadline) {
            return DRV_ERROR_WAIT_TIMEOUT;
        }
    }
}

int32_t EventScheduler::Submit(pid_t pid, const HalEschedSubmitEvent& event) {
    if (event.msg().size() > EVENT_MAX_MSG_LEN || event.event_id() >= EVENT_MAX_NUM) {
        return DRV_ERROR_INVALID_VALUE;
    }
    MutexLock lock(&mutex_);
    return Enqueue(pid, event.dst_pid(), event.grp_id(), event.event_id(), event.subevent_id(),
                   event.msg());
}

int32_t EventScheduler::Enqueue(pid_t src, pid_t dst, uint32_t grpId, uint32_t eventId,
                                uint32_t subeventId, const std::string& msg) {
    auto process = processes_.find(dst);
    std::string what = "event " + std::to_string(eventId) + "/" + std::to_string(subeventId) + " " +
                       std::to_string(src) + " -> " + std::to_string(dst) + " group " +
                       std::to_string(grpId) + " len " + std::to_string(msg.size());
    if (process == processes_.end() || process->second.groups.count(grpId) == 0) {
        Trace(what + " refused: no such group");
        return DRV_ERROR_NOT_EXIST;
    }
    Group& group = process->second.groups.at(grpId);
    uint32_t& queued = group.queuedFrom[src];
    if (queued >= kQueuedPerSender) {
        Trace(what + " refused: queue full");
        return DRV_ERROR_BUSY;
    }
    ++queued;
    EventRecord record;
    record.set_event_id(eventId);
    record.set_subevent_id(subeventId);
    record.set_src_pid(src);
    record.set_grp_id(grpId);
    record.set_msg(msg);
    group.queue.push_back(std::move(record));
    Trace(what);
    group.arrived->SignalAll();
    return DRV_ERROR_NONE;
}

int32_t EventScheduler::Ack(pid_t pid, uint32_t /*devId*/, uint32_t eventId, uint32_t subeventId,
                            const std::string& msg) {
    MutexLock lock(&mutex_);
    Trace("ack " + std::to_string(eventId) + "/" + std::to_string(subeventId) + " from " +
          std::to_string(pid) + " len " + std::to_string(msg.size()));
    if (!ackPending_ || subeventId != ackSubevent_ || pid != vmngClient_) {
        return DRV_ERROR_NOT_EXIST;
    }
    int32_t value = 0;
    std::memcpy(&value, msg.data(), std::min(msg.size(), sizeof(value)));
    ackValue_ = value;
    ackArrived_ = true;
    ackChanged_.SignalAll();
    return DRV_ERROR_NONE;
}

int32_t EventScheduler::RegisterVmngClient(pid_t pid) {
    MutexLock lock(&mutex_);
    vmngClient_ = pid;
    Trace("vmng client " + std::to_string(pid));
    return DRV_ERROR_NONE;
}

int32_t EventScheduler::ChangeVf(const VfChange& change, int32_t* ack) {
    MutexLock serial(&vfChangeMutex_);
    uint32_t subevent = change.create() ? kVfCreateSubevent : kVfDestroySubevent;
    std::string notice(change.msg_len() != 0 ? change.msg_len() : kVfNoticeLength, '\0');
    uint32_t vfWord = static_cast<uint32_t>(change.vf_id());
    if (notice.size() >= kVfNoticeIdOffset + sizeof(vfWord)) {
        std::memcpy(&notice[kVfNoticeIdOffset], &vfWord, sizeof(vfWord));
    }
    uint32_t timeoutMs = change.timeout_ms() != 0 ? change.timeout_ms() : kDefaultVfTimeoutMs;
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);

    MutexLock lock(&mutex_);
    if (vmngClient_ == 0) {
        return DRV_ERROR_NOT_EXIST;
    }
    ackPending_ = true;
    ackSubevent_ = subevent;
    ackArrived_ = false;
    int32_t rc = Enqueue(0, vmngClient_, kVmngGroup, EVENT_CCPU_CTRL_MSG, subevent, notice);
    if (rc != DRV_ERROR_NONE) {
        ackPending_ = false;
        return rc;
    }
    while (!ackArrived_ && !stopping_) {
        if (!ackChanged_.WaitUntil(deadline) && Clock::now() >= deadline) {
            break;
        }
    }
    ackPending_ = false;
    if (!ackArrived_) {
        return DRV_ERROR_WAIT_TIMEOUT;
    }
    *ack = ackValue_;
    return DRV_ERROR_NONE;
}

int32_t EventScheduler::Inject(const InjectEvent& event) {
    // An id no thread can subscribe to would sit in the queue for good.
    if (event.msg().size() > EVENT_MAX_MSG_LEN || event.event_id() >= EVENT_MAX_NUM) {
        return DRV_ERROR_INVALID_VALUE;
    }
    MutexLock lock(&mutex_);
    pid_t dst = event.dst_pid() != 0 ? event.dst_pid() : vmngClient_;
    if (dst == 0) {
        return DRV_ERROR_NOT_EXIST;
    }
    return Enqueue(event.src_pid(), dst, event.grp_id(),
                   event.event_id() != 0 ? event.event_id() : EVENT_CCPU_CTRL_MSG,
                   event.subevent_id(), event.msg());
}

void EventScheduler::Trace(const std::string& line) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char stamp[32];
    std::snprintf(stamp, sizeof(stamp), "%02d:%02d:%02d.%03ld ", local.tm_hour, local.tm_min,
                  local.tm_sec, now.tv_nsec / 1000000);
    trace_.push_back(stamp + line);
    if (trace_.size() > kTraceLength) {
        trace_.pop_front();
    }
}

std::string EventScheduler::DescribeEvents() const {
    MutexLock lock(&mutex_);
    std::ostringstream out;
    for (const std::string& line : trace_) {
        out << line << "\n";
    }
    return out.str();
}

}  // namespace orv::emu
