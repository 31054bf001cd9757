// StopSignal: pauses of the daemon's periodic loops that its orderly stop cuts
// short. While the daemon runs, a pause lasts its whole period, so the loops
// keep their pace; once Destroy() raises the signal, every pause under way
// ends at once and later ones return at once, until the next start lowers it.
#ifndef ORV_PLATFORM_STOP_SIGNAL_H
#define ORV_PLATFORM_STOP_SIGNAL_H

#include <chrono>

#include "platform/mutex.h"

namespace orv {

class StopSignal {
  public:
    static StopSignal& Instance();

    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    // Sleeps for `period`; returns early, with false, when the signal is or
    // becomes raised.
    bool Pause(std::chrono::microseconds period) LOCKS_EXCLUDED(mutex_);

    void Raise() LOCKS_EXCLUDED(mutex_);
    void Lower() LOCKS_EXCLUDED(mutex_);

  private:
    StopSignal() = default;

    Mutex mutex_;
    CondVar changed_{&mutex_};
    bool raised_ GUARDED_BY(mutex_) = false;
};

}  // namespace orv

#endif  // ORV_PLATFORM_STOP_SIGNAL_H
