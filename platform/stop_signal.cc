#include "platform/stop_signal.h"

namespace orv {

StopSignal& StopSignal::Instance() {
    static StopSignal instance;
    return instance;
}

bool StopSignal::Pause(std::chrono::microseconds period) {
    const auto deadline = std::chrono::steady_clock::now() + period;
    MutexLock lock(&mutex_);
    while (!raised_) {
        if (!changed_.WaitUntil(deadline) && std::chrono::steady_clock::now() >= deadline) {
            return true;
        }
    }
    return false;
}

void StopSignal::Raise() {
    MutexLock lock(&mutex_);
    raised_ = true;
    changed_.SignalAll();
}

void StopSignal::Lower() {
    MutexLock lock(&mutex_);
    raised_ = false;
}

}  // namespace orv
