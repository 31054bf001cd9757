#include "emu/hdc/session_board.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <system_error>

#include "emu/common/emu_paths.h"

namespace orv::emu {

namespace {

// How long the board's thread lets changes gather before it writes them: at
// most ten tables a second, however fast links come and go (a new file each
// costs the file system more the more recently others were deleted), and
// soon enough for a view that redraws every second.
constexpr std::chrono::milliseconds kSettle(100);

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The board is the emulator's bookkeeping, not the card's: its writing runs
// on whichever CPU is free rather than on the control CPUs the daemon binds
// its threads (and so this one) to.
void LeaveControlCpus() {
    const long cpus = ::sysconf(_SC_NPROCESSORS_CONF);
    cpu_set_t all;
    CPU_ZERO(&all);
    for (long cpu = 0; cpu < cpus && cpu < CPU_SETSIZE; ++cpu) {
        CPU_SET(cpu, &all);
    }
    (void)::pthread_setaffinity_np(::pthread_self(), sizeof(all), &all);
}

}  // namespace

std::string SessionBoardPath(const std::string& hdcDir) {
    return hdcDir + "/sessions";
}

SessionBoard& SessionBoard::Instance() {
    // Never destroyed: receive threads may still report while the process exits.
    static SessionBoard* const board =
        new SessionBoard(SessionBoardPath(EnvOr(kHdcDirEnv, kDefaultHdcDir)));
    return *board;
}

SessionBoard::SessionBoard(std::string path) : path_(std::move(path)) {}

SessionBoard::~SessionBoard() {
    std::thread publisher;
    {
        MutexLock lock(&mutex_);
        stopping_ = true;
        changed_.SignalAll();
        publisher.swap(publisher_);
    }
    if (publisher.joinable()) {
        publisher.join();
    }
    Flush();
}

void SessionBoard::Opened(uint32_t sessionId, uint32_t deviceId) {
    MutexLock lock(&mutex_);
    Entry& entry = sessions_[sessionId];
    entry.deviceId = deviceId;
    entry.openedMs = NowMs();
    Changed();
}

void SessionBoard::Request(uint32_t sessionId, uint32_t deviceId, int32_t vfId, uint32_t hostPid,
                           int32_t type) {
    MutexLock lock(&mutex_);
    auto it = sessions_.find(sessionId);
    if (it == sessions_.end()) {
        return;
    }
    Entry& entry = it->second;
    // Only a change is published: a host repeating its request costs nothing.
    if (entry.sinceMs != 0 && entry.deviceId == deviceId && entry.vfId == vfId &&
        entry.hostPid == hostPid && entry.lastType == type) {
        return;
    }
    if (entry.sinceMs == 0) {
        entry.sinceMs = NowMs();
    }
    entry.deviceId = deviceId;
    entry.vfId = vfId;
    entry.hostPid = hostPid;
    entry.lastType = type;
    Changed();
}

void SessionBoard::Closed(uint32_t sessionId) {
    MutexLock lock(&mutex_);
    if (sessions_.erase(sessionId) != 0) {
        Changed();
    }
}

void SessionBoard::Start() {
    MutexLock lock(&mutex_);
    StartPublisher();
}

void SessionBoard::Changed() {
    dirty_ = true;
    changed_.Signal();
    StartPublisher();
}

void SessionBoard::StartPublisher() {
    if (publisher_.joinable() || stopping_) {
        return;
    }
    try {
        publisher_ = std::thread([this] { PublishLoop(); });
    } catch (const std::system_error&) {
        // No thread: the change is written with the next one that gets one,
        // or at Flush.
    }
}

void SessionBoard::PublishLoop() {
    LeaveControlCpus();
    for (;;) {
        {
            MutexLock lock(&mutex_);
            while (!dirty_ && !stopping_) {
                changed_.Wait();
            }
            if (stopping_) {
                return;
            }
            auto settled = std::chrono::steady_clock::now() + kSettle;
            while (!stopping_ && std::chrono::steady_clock::now() < settled) {
                changed_.WaitUntil(settled);
            }
        }
        Flush();
    }
}

void SessionBoard::Flush() {
    MutexLock writing(&writeMutex_);
    std::string text;
    {
        MutexLock lock(&mutex_);
        if (!dirty_) {
            return;
        }
        dirty_ = false;
        char line[256];
        for (const auto& [id, e] : sessions_) {
            std::snprintf(line, sizeof(line),
                          "session %u device %u vf %d host_pid %u opened_ms %lld since_ms %lld "
                          "last_type %d\n",
                          id, e.deviceId, e.vfId, e.hostPid, static_cast<long long>(e.openedMs),
                          static_cast<long long>(e.sinceMs), e.lastType);
            text += line;
        }
    }
    // Best effort: a board that cannot be written leaves the sessions alone.
    std::string tmp = path_ + ".tmp";
    FILE* out = std::fopen(tmp.c_str(), "we");
    if (out == nullptr) {
        return;
    }
    bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
    written = std::fclose(out) == 0 && written;
    if (!written || std::rename(tmp.c_str(), path_.c_str()) != 0) {
        ::unlink(tmp.c_str());
    }
}

}  // namespace orv::emu
