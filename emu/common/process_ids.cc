#include "emu/common/process_ids.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace orv::emu {

namespace {

// Bumped in the child of every fork: a thread's cached id from before is stale.
std::atomic<uint64_t> g_forks{0};
std::atomic<pid_t> g_pid{0};

void ForgetInChild() {
    g_pid.store(0, std::memory_order_relaxed);
    g_forks.fetch_add(1, std::memory_order_relaxed);
}

bool Registered() {
    static const bool registered = ::pthread_atfork(nullptr, nullptr, &ForgetInChild) == 0;
    return registered;
}

}  // namespace

pid_t CurrentPid() {
    if (!Registered()) {
        return ::getpid();
    }
    pid_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = ::getpid();
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

pid_t CurrentTid() {
    struct Cached {
        pid_t tid = 0;
        uint64_t forks = 0;
    };
    thread_local Cached cached;
    if (!Registered()) {
        return static_cast<pid_t>(::syscall(SYS_gettid));
    }
    uint64_t forks = g_forks.load(std::memory_order_relaxed);
    if (cached.tid == 0 || cached.forks != forks) {
        cached.tid = static_cast<pid_t>(::syscall(SYS_gettid));
        cached.forks = forks;
    }
    return cached.tid;
}

}  // namespace orv::emu
