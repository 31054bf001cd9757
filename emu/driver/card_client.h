// The emulated driver's channel to the card emulator: a pool of connections to
// the driver socket, one borrowed per call, so that a thread blocked in a long
// call (an event wait) never holds up another thread's call.
#ifndef ORV_EMU_DRIVER_CARD_CLIENT_H
#define ORV_EMU_DRIVER_CARD_CLIENT_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include <driver_hal.h>
#include "card.pb.h"
#include "emu/common/unique_fd.h"
#include "platform/mutex.h"

namespace orv::emu {

class CardClient {
  public:
    // The process's client of the socket named by ORV_EMU_CARD_SOCKET (or the
    // sandbox's default).
    static CardClient& Instance();

    // Connections kept for the next calls: as many as a process has threads
    // that call at once, as a rule (a stand-in's event loops and its main
    // thread, the daemon's busier threads), so that none connects anew for
    // each call; a burst beyond them leaves no descriptors behind.
    static constexpr size_t kMaxIdle = 4;

    explicit CardClient(std::string socketPath);
    CardClient(const CardClient&) = delete;
    CardClient& operator=(const CardClient&) = delete;

    // Sends one request and waits for its reply. Returns the reply's code, or
    // DRV_ERROR_IOCRL_FAIL when the card cannot be reached.
    drvError_t Call(const CardRequest& request, CardReply* reply);

    // Connects until `count` connections wait for calls (at most kMaxIdle):
    // a process about to start threads that will block in calls at once
    // connects for them now rather than in the middle of its work.
    void Reserve(size_t count);

    // Marks this process's calls as exempt from injected faults (the
    // emulator's stand-ins).
    void ExemptFromFaults() { exempt_ = true; }

  private:
    void ForgetParentsConnections() EXCLUSIVE_LOCKS_REQUIRED(mutex_);
    UniqueFd Borrow();
    void Return(UniqueFd fd);

    const std::string socketPath_;
    std::atomic<bool> exempt_{false};

    Mutex mutex_;
    std::vector<UniqueFd> idle_ GUARDED_BY(mutex_);
    pid_t ownerPid_
        GUARDED_BY(mutex_);  // idle_ belongs to this process; a forked child starts over
};

}  // namespace orv::emu

#endif  // ORV_EMU_DRIVER_CARD_CLIENT_H
