#include "session/process_handle.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace orv {

namespace {

// Not every C library names these yet: the system calls are used directly.
constexpr idtype_t kByPidfd = static_cast<idtype_t>(3);

int PidfdOpen(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

int PidfdSendSignal(int pidfd, int sig) {
    return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd, sig, nullptr, 0));
}
constexpr std::chrono::milliseconds kExitPollStep(10);

}  // namespace

std::shared_ptr<ProcessHandle> ProcessHandle::ForChild(pid_t pid) {
    if (pid <= 0) {
        return nullptr;
    }
    int pidfd = PidfdOpen(pid);
    if (pidfd < 0) {
        return errno == ENOSYS ? std::shared_ptr<ProcessHandle>(new ProcessHandle(pid, -1))
                               : nullptr;
    }
    // Only a living child of ours can be waited on through the pidfd: should
    // the child have been killed and its pid handed on already, the pidfd
    // names a stranger.
    siginfo_t info{};
    if (waitid(kByPidfd, static_cast<id_t>(pidfd), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        info.si_pid != 0) {
        close(pidfd);
        return nullptr;
    }
    return std::shared_ptr<ProcessHandle>(new ProcessHandle(pid, pidfd));
}

std::shared_ptr<ProcessHandle> ProcessHandle::ForProcess(pid_t pid) {
    if (pid <= 0) {
        return nullptr;
    }
    int pidfd = PidfdOpen(pid);
    if (pidfd < 0) {
        return errno == ENOSYS && kill(pid, 0) == 0
                   ? std::shared_ptr<ProcessHandle>(new ProcessHandle(pid, -1))
                   : nullptr;
    }
    return std::shared_ptr<ProcessHandle>(new ProcessHandle(pid, pidfd));
}

std::shared_ptr<ProcessHandle> ProcessHandle::Adopt(pid_t pid, int pidfd) {
    return std::shared_ptr<ProcessHandle>(new ProcessHandle(pid, pidfd));
}

ProcessHandle::~ProcessHandle() {
    if (pidfd_ >= 0) {
        close(pidfd_);
    }
}

int ProcessHandle::Signal(int sig) const {
    return pidfd_ >= 0 ? PidfdSendSignal(pidfd_, sig) : kill(pid_, sig);
}

bool ProcessHandle::WaitExit(std::chrono::milliseconds timeout) const {
    if (pidfd_ < 0) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (kill(pid_, 0) == 0) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            std::this_thread::sleep_for(kExitPollStep);
        }
        return true;
    }
    pollfd pfd{pidfd_, POLLIN, 0};
    int ready;
    do {
        ready = poll(&pfd, 1, static_cast<int>(timeout.count()));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

pid_t ProcessHandle::TryReap(int* status) const {
    *status = 0;
    if (pidfd_ < 0) {
        return waitpid(pid_, status, WNOHANG);
    }
    siginfo_t info{};
    if (waitid(kByPidfd, static_cast<id_t>(pidfd_), &info, WEXITED | WNOHANG) != 0) {
        return -1;
    }
    if (info.si_pid == 0) {
        return 0;
    }
    // The status word as waitpid packs it.
    *status = info.si_code == CLD_EXITED ? (info.si_status & 0xff) << 8 : info.si_status & 0x7f;
    return pid_;
}

}  // namespace orv
