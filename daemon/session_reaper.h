// SessionReaper: lets go of sessions on a thread of its own. A session's
// teardown joins the session's threads and ends its sub-processes, which can
// take seconds; the event workers and the monitor hand it the sessions they
// drop, so that their own work for every other session goes on meanwhile.
#ifndef ORV_DAEMON_SESSION_REAPER_H
#define ORV_DAEMON_SESSION_REAPER_H

#include <memory>
#include <thread>
#include <vector>

#include "platform/mutex.h"
#include "session/orv_common.h"

namespace orv {

class SessionReaper {
  public:
    SessionReaper() = default;
    ~SessionReaper() { Stop(); }
    SessionReaper(const SessionReaper&) = delete;
    SessionReaper& operator=(const SessionReaper&) = delete;

    // Starts the thread; false when it cannot be started (sessions are then
    // let go of at once, by the caller of Release).
    bool Start() LOCKS_EXCLUDED(mutex_);

    // Lets go of `sessions` on the reaper's thread.
    void Release(std::vector<std::shared_ptr<OrvImpl>> sessions) LOCKS_EXCLUDED(mutex_);
    // The same for one session. (A braced list would copy it, and the
    // caller's copy could then be the last.)
    void Release(std::shared_ptr<OrvImpl> session) LOCKS_EXCLUDED(mutex_);

    // Lets go of what is left, then ends the thread.
    void Stop() LOCKS_EXCLUDED(mutex_);

  private:
    void Run() LOCKS_EXCLUDED(mutex_);

    Mutex mutex_;
    CondVar changed_{&mutex_};
    std::vector<std::shared_ptr<OrvImpl>> pending_ GUARDED_BY(mutex_);
    bool running_ GUARDED_BY(mutex_) = false;
    bool stopping_ GUARDED_BY(mutex_) = false;
    std::thread thread_;  // Start and Stop only
};

}  // namespace orv

#endif  // ORV_DAEMON_SESSION_REAPER_H
