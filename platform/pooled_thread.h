// Stacks for the daemon's short-lived threads and for the children it starts,
// kept and reused rather than given back to the kernel.
//
// Giving a stack back, whether glibc does it as a thread ends (an madvise
// over the whole stack) or the daemon does (munmap), flushes the daemon's
// TLB entries on every CPU where its threads run, and on a virtual machine
// that flush waits for each of those CPUs to answer. A session starts a
// thread per close worker and per sub-process report and a child per
// sub-process, so the stacks of finished ones are kept for the next.
#ifndef ORV_PLATFORM_POOLED_THREAD_H
#define ORV_PLATFORM_POOLED_THREAD_H

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "platform/mutex.h"

namespace orv {

class StackPool {
  public:
    // Room for the deepest of the daemon's threads (its log line alone takes
    // some 35 KiB) several times over; only the pages a thread touched are
    // ever backed by memory.
    static constexpr size_t kStackSize = 1024 * 1024;
    // Stacks kept at most; beyond, a returned stack is unmapped.
    static constexpr size_t kKeptStacks = 64;

    static StackPool& Instance();

    // The lowest address of a stack of kStackSize bytes, with an inaccessible
    // page below it; null when none could be mapped.
    void* Take();
    // A stack from Take that nothing runs on any more.
    void Give(void* stack);

    // How many are kept now.
    size_t Kept();

  private:
    StackPool() = default;

    Mutex mutex_;
    std::vector<void*> kept_ GUARDED_BY(mutex_);
};

// A thread on a pooled stack, for work that ends soon: what std::thread is,
// but its stack goes back to the pool when it is joined.
class PooledThread {
  public:
    PooledThread() = default;
    // Joins a thread still joinable.
    ~PooledThread();
    PooledThread(PooledThread&& other) noexcept;
    PooledThread& operator=(PooledThread&& other) = delete;
    PooledThread(const PooledThread&) = delete;
    PooledThread& operator=(const PooledThread&) = delete;

    // Starts `work`. False, with the reason in `why`, when no stack or no
    // thread could be had.
    bool Start(std::function<void()> work, std::string* why);

    bool Joinable() const { return joinable_; }
    void Join();

    // The thread's id as std::thread prints its own.
    std::string IdText() const;

  private:
    pthread_t thread_{};
    void* stack_ = nullptr;
    bool joinable_ = false;
};

}  // namespace orv

#endif  // ORV_PLATFORM_POOLED_THREAD_H
