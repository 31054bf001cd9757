// ProcessHandle: one process held by a pidfd, so that the signals and waits
// of the daemon reach that process and never a stranger that was later given
// the same pid. On a kernel without pidfds it falls back to the pid.
#ifndef ORV_SESSION_PROCESS_HANDLE_H
#define ORV_SESSION_PROCESS_HANDLE_H

#include <sys/types.h>

#include <chrono>
#include <memory>

namespace orv {

class ProcessHandle {
  public:
    // A handle on child `pid` of this process, taken while the child cannot
    // have exited by itself (it waits at its start gate); null when it is gone
    // already.
    static std::shared_ptr<ProcessHandle> ForChild(pid_t pid);
    // A handle on any process, such as the leftovers of an earlier daemon;
    // null when there is no such process.
    static std::shared_ptr<ProcessHandle> ForProcess(pid_t pid);
    // A handle on child `pid` through `pidfd`, which the clone that made it
    // returned; takes ownership of the descriptor.
    static std::shared_ptr<ProcessHandle> Adopt(pid_t pid, int pidfd);

    ~ProcessHandle();
    ProcessHandle(const ProcessHandle&) = delete;
    ProcessHandle& operator=(const ProcessHandle&) = delete;

    pid_t Pid() const { return pid_; }

    // Sends `sig` (0 only asks whether it lives); 0 on success, else -1 with
    // errno set (ESRCH once it has exited).
    int Signal(int sig) const;

    // Waits up to `timeout` for the process to exit; true when it has.
    bool WaitExit(std::chrono::milliseconds timeout) const;
    bool Exited() const { return WaitExit(std::chrono::milliseconds(0)); }

    // As waitpid(pid, status, WNOHANG) on this very process: 0 while it runs,
    // its pid when it was reaped here, -1 when it is not (or no longer) a
    // child to reap, as when the kernel reaped it at its exit.
    pid_t TryReap(int* status) const;

  private:
    ProcessHandle(pid_t pid, int pidfd) : pid_(pid), pidfd_(pidfd) {}

    const pid_t pid_;
    const int pidfd_;  // -1 on a kernel without pidfds
};

}  // namespace orv

#endif  // ORV_SESSION_PROCESS_HANDLE_H
