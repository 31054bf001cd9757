// A mutex and condition variable that clang's thread-safety analysis
// understands. Locking failures throw std::system_error, as std::mutex does.
#ifndef ORV_PLATFORM_MUTEX_H
#define ORV_PLATFORM_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "platform/thread_annotations.h"

namespace orv {

class CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() ACQUIRE() { mu_.lock(); }
    void Unlock() RELEASE() { mu_.unlock(); }
    // Tells the analysis that the caller holds the mutex.
    void AssertHeld() ASSERT_EXCLUSIVE_LOCK() {}

  private:
    friend class CondVar;
    std::mutex mu_;
};

// Holds a mutex for the lifetime of the object.
class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex* mu) ACQUIRE(mu) : mu_(mu) { mu_->Lock(); }
    ~MutexLock() RELEASE() { mu_->Unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex* const mu_;
};

// Condition variable bound to one Mutex. Wait and WaitUntil require holding
// that mutex (the analysis cannot tie it to the caller's lock, so it is not
// annotated).
class CondVar {
  public:
    explicit CondVar(Mutex* mu) : mu_(mu) {}
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    void Wait() {
        std::unique_lock<std::mutex> lock(mu_->mu_, std::adopt_lock);
        cv_.wait(lock);
        lock.release();
    }

    // Returns false when the deadline passed.
    template <typename Clock, typename Duration>
    bool WaitUntil(const std::chrono::time_point<Clock, Duration>& deadline) {
        std::unique_lock<std::mutex> lock(mu_->mu_, std::adopt_lock);
        std::cv_status status = cv_.wait_until(lock, deadline);
        lock.release();
        return status == std::cv_status::no_timeout;
    }

    void Signal() { cv_.notify_one(); }
    void SignalAll() { cv_.notify_all(); }

  private:
    Mutex* const mu_;
    std::condition_variable cv_;
};

}  // namespace orv

#endif  // ORV_PLATFORM_MUTEX_H
