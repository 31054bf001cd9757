#include "daemon/session_reaper.h"

#include <system_error>

namespace orv {

bool SessionReaper::Start() {
    {
        MutexLock lock(&mutex_);
        if (running_) {
            return true;
        }
        stopping_ = false;
    }
    try {
        thread_ = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        return false;
    }
    MutexLock lock(&mutex_);
    running_ = true;
    return true;
}

void SessionReaper::Release(std::vector<std::shared_ptr<OrvImpl>> sessions) {
    {
        MutexLock lock(&mutex_);
        if (running_ && !stopping_) {
            pending_.insert(pending_.end(), std::make_move_iterator(sessions.begin()),
                            std::make_move_iterator(sessions.end()));
            changed_.Signal();
            return;
        }
    }
    // No reaper thread: the caller lets go of them itself.
    sessions.clear();
}

void SessionReaper::Release(std::shared_ptr<OrvImpl> session) {
    std::vector<std::shared_ptr<OrvImpl>> sessions;
    sessions.push_back(std::move(session));
    Release(std::move(sessions));
}

void SessionReaper::Stop() {
    {
        MutexLock lock(&mutex_);
        if (!running_) {
            return;
        }
        stopping_ = true;
        changed_.Signal();
    }
    thread_.join();
    MutexLock lock(&mutex_);
    running_ = false;
}

void SessionReaper::Run() {
    for (;;) {
        std::vector<std::shared_ptr<OrvImpl>> batch;
        {
            MutexLock lock(&mutex_);
            while (pending_.empty() && !stopping_) {
                changed_.Wait();
            }
            if (pending_.empty()) {
                return;
            }
            batch.swap(pending_);
        }
        // The last references, as a rule: the sessions' teardowns run here.
        batch.clear();
    }
}

}  // namespace orv
