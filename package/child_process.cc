#include "package/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "package/internal_api.h"
#include "platform/log.h"
#include "platform/orv_limits.h"
#include "platform/scope_guard.h"

extern char** environ;

namespace orv {

namespace {

constexpr int kExecFailed = 127;
constexpr char kDefaultPath[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
// Room for the kernel's struct sigaction on every architecture; all zeros is
// SIG_DFL with no flags and an empty mask, whatever the field order.
constexpr size_t kKernelSigactionBytes = 64;
// The kernel's sigset_t: 64 signals.
constexpr size_t kKernelSigsetBytes = 8;
constexpr int kLastSignal = 64;
constexpr size_t kReadChunk = 65536;
// How often a run that may be cancelled looks at its flag.
constexpr int kCancelPollMs = static_cast<int>(limits::kInstallCancelPoll.count());
constexpr unsigned int kCloseFallbackLimit = 4096;

// The processes below begin as copies of the daemon taken while other
// threads may hold any lock (the allocator's, a sanitizer's), so the code
// they run makes system calls and reads plain data only, and no sanitizer
// hooks are compiled into it.
#if defined(__has_attribute)
#if __has_attribute(disable_sanitizer_instrumentation)
#define ORV_COPY_SAFE __attribute__((disable_sanitizer_instrumentation))
#endif
#endif
#ifndef ORV_COPY_SAFE
#define ORV_COPY_SAFE
#endif

// What the copies need, as plain data.
struct ChildRecipe {
    const char* const* programs;  // where argv[0] may be, in order; null-terminated
    char* const* argv;
    char* const* envp;
    int input;
    int output;
    int cwd;
    uint64_t maxFileBytes;
    int statusFd;
};

// The strings a recipe points into, built before the copies exist.
struct ChildPlan {
    std::string name;
    std::vector<std::string> programs;
    std::vector<const char*> programPointers;
    std::vector<std::string> args;
    std::vector<char*> argv;
    ChildRecipe recipe{};

    ChildPlan(const std::vector<std::string>& argvIn, const ChildOptions& options)
        : name(argvIn.front()) {
        if (name.find('/') != std::string::npos) {
            programs.push_back(name);
        } else {
            const char* path = getenv("PATH");
            std::stringstream dirs(path != nullptr && *path != '\0' ? path : kDefaultPath);
            for (std::string dir; std::getline(dirs, dir, ':');) {
                programs.push_back((dir.empty() ? std::string(".") : dir) + "/" + name);
            }
        }
        for (const std::string& program : programs) {
            programPointers.push_back(program.c_str());
        }
        programPointers.push_back(nullptr);
        args = argvIn;
        for (std::string& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        recipe = ChildRecipe{programPointers.data(),
                             argv.data(),
                             environ,
                             options.stdio.input,
                             options.stdio.output,
                             options.cwd,
                             options.maxFileBytes,
                             -1};
    }
    ChildPlan(const ChildPlan&) = delete;
    ChildPlan& operator=(const ChildPlan&) = delete;
};

// Makes `fd` the child's descriptor `target`, inheritable across exec.
ORV_COPY_SAFE bool PlaceDescriptor(int fd, int target) {
    if (fd < 0) {
        return true;
    }
    if (fd == target) {
        return syscall(SYS_fcntl, fd, F_SETFD, 0) == 0;
    }
    return syscall(SYS_dup3, fd, target, 0) == target;
}

ORV_COPY_SAFE void CloseRange(unsigned int first, unsigned int last) {
    if (first > last) {
        return;
    }
#ifdef SYS_close_range
    if (syscall(SYS_close_range, first, last, 0U) == 0) {
        return;
    }
#endif
    // A kernel without close_range: the descriptors a process usually has.
    for (unsigned int fd = first; fd <= last && fd < kCloseFallbackLimit; ++fd) {
        syscall(SYS_close, fd);
    }
}

ORV_COPY_SAFE void SetSignalMask(const uint64_t* mask, uint64_t* previous) {
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, mask, previous, kKernelSigsetBytes);
}

// Closes every descriptor from 3 up but those given (a negative one is none).
ORV_COPY_SAFE void CloseAllBut(int a, int b = -1, int c = -1, int d = -1) {
    int keep[] = {a, b, c, d};
    for (int i = 1; i < 4; ++i) {
        for (int j = i; j > 0 && keep[j - 1] > keep[j]; --j) {
            int swapped = keep[j];
            keep[j] = keep[j - 1];
            keep[j - 1] = swapped;
        }
    }
    unsigned int first = STDERR_FILENO + 1;
    for (int fd : keep) {
        if (fd >= static_cast<int>(first)) {
            CloseRange(first, static_cast<unsigned int>(fd) - 1);
            first = static_cast<unsigned int>(fd) + 1;
        }
    }
    CloseRange(first, ~0U);
}

// The program itself: a child of the intermediate below.
[[noreturn]] ORV_COPY_SAFE void ProgramMain(const ChildRecipe& recipe, pid_t intermediate,
                                            const uint64_t* mask) {
    // It must not outlive an intermediate that was killed.
    syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0UL, 0UL, 0UL);
    if (syscall(SYS_getppid) != intermediate) {
        syscall(SYS_exit_group, kExecFailed);
    }
    // The daemon's handlers are not this program's: a signal arriving before
    // the exec must not run one. The kernel's struct sigaction begins with
    // the handler on every architecture.
    static const unsigned char kDefaultAction[kKernelSigactionBytes] = {};
    for (int sig = 1; sig <= kLastSignal; ++sig) {
        void* action[kKernelSigactionBytes / sizeof(void*)] = {};
        if (syscall(SYS_rt_sigaction, sig, nullptr, action, kKernelSigsetBytes) == 0 &&
            action[0] != reinterpret_cast<void*>(SIG_DFL) &&
            action[0] != reinterpret_cast<void*>(SIG_IGN)) {
            syscall(SYS_rt_sigaction, sig, kDefaultAction, nullptr, kKernelSigsetBytes);
        }
    }
    SetSignalMask(mask, nullptr);
    if (recipe.maxFileBytes != 0) {
        struct rlimit64 {
            uint64_t current;
            uint64_t max;
        } bound = {recipe.maxFileBytes, recipe.maxFileBytes};
        if (syscall(SYS_prlimit64, 0, RLIMIT_FSIZE, &bound, nullptr) != 0) {
            syscall(SYS_exit_group, kExecFailed);
        }
    }
    if (recipe.cwd >= 0 && syscall(SYS_fchdir, recipe.cwd) != 0) {
        syscall(SYS_exit_group, kExecFailed);
    }
    if (PlaceDescriptor(recipe.input, STDIN_FILENO) &&
        PlaceDescriptor(recipe.output, STDOUT_FILENO)) {
        for (const char* const* program = recipe.programs; *program != nullptr; ++program) {
            syscall(SYS_execve, *program, recipe.argv, recipe.envp);
        }
    }
    syscall(SYS_exit_group, kExecFailed);
    __builtin_unreachable();
}

// The daemon's direct child. It never executes anything, so it keeps the
// "no exit signal" it was started with (an exec would turn that back into
// SIGCHLD, and the kernel would reap it and lose its status); it starts the
// program, waits for it with SIGCHLD at the default, and hands its status up.
[[noreturn]] ORV_COPY_SAFE void IntermediateMain(const ChildRecipe& recipe) {
    // A copy of the daemon's handlers lives on here; none may ever run.
    const uint64_t all = ~0ULL;
    uint64_t mask = 0;
    SetSignalMask(&all, &mask);
    // An ignored SIGCHLD would let the kernel reap the program behind this
    // process's back; the default also stays in force for the program, whose
    // shell must collect its own children.
    static const unsigned char kDefaultAction[kKernelSigactionBytes] = {};
    syscall(SYS_rt_sigaction, SIGCHLD, kDefaultAction, nullptr, kKernelSigsetBytes);
    // Whatever else the daemon had open (host links among them) is neither
    // this process's to hold while the program runs nor the program's: gone
    // before the program exists, but for what the program is to be given.
    CloseAllBut(recipe.statusFd, recipe.input, recipe.output, recipe.cwd);
    pid_t self = static_cast<pid_t>(syscall(SYS_getpid));
    long program = syscall(SYS_clone, static_cast<unsigned long>(SIGCHLD), 0UL, 0UL, 0UL, 0UL);
    if (program == 0) {
        ProgramMain(recipe, self, &mask);
    }
    CloseAllBut(recipe.statusFd);
    int status = 0;
    long waited = -1;
    if (program > 0) {
        do {
            waited = syscall(SYS_wait4, program, &status, 0, nullptr);
        } while (waited < 0 && errno == EINTR);
    }
    if (waited > 0) {
        syscall(SYS_write, recipe.statusFd, &status, sizeof(status));
    }
    syscall(SYS_exit_group, 0);
    __builtin_unreachable();
}

// A started program: the intermediate's pid and the pipe its status comes on.
struct StartedChild {
    pid_t intermediate = -1;
    int statusFd = -1;
};

StartedChild StartChild(ChildPlan& plan) {
    StartedChild started;
    int statusPipe[2];
    if (pipe2(statusPipe, O_CLOEXEC) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Start child process [%s] failed, %s", plan.name.c_str(),
                SafeStrerror().c_str());
        return started;
    }
    plan.recipe.statusFd = statusPipe[1];
    // Flags 0: a copy of this process, as fork makes, whose end signals
    // nobody and which the kernel keeps until it is waited for, whatever the
    // daemon's SIGCHLD disposition.
    long pid = syscall(SYS_clone, 0UL, 0UL, 0UL, 0UL, 0UL);
    if (pid == 0) {
        IntermediateMain(plan.recipe);
    }
    close(statusPipe[1]);
    if (pid < 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Start child process [%s] failed, %s", plan.name.c_str(),
                SafeStrerror().c_str());
        close(statusPipe[0]);
        return started;
    }
    started.intermediate = static_cast<pid_t>(pid);
    started.statusFd = statusPipe[0];
    return started;
}

// Reaps the intermediate, which has ended or is ending.
void ReapIntermediate(pid_t intermediate) {
    int ignored = 0;
    // __WALL: a child without an exit signal counts as a "clone" child.
    while (waitpid(intermediate, &ignored, __WALL) < 0) {
        if (errno != EINTR) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon] Wait for child process [%d] failed, %s",
                    static_cast<int>(intermediate), SafeStrerror().c_str());
            break;
        }
    }
}

// Waits until `fd` is readable, `cancel` is set (false) or, without a
// cancel flag, for as long as it takes.
bool WaitReadableUnlessCancelled(int fd, const std::atomic<bool>* cancel) {
    if (cancel == nullptr) {
        return true;
    }
    while (!cancel->load()) {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, kCancelPollMs) > 0) {
            return true;
        }
    }
    return false;
}

// Waits for a started program; its raw wait status, kChildNotStarted when
// it vanished without one, or kChildCancelled.
int32_t WaitForChild(const StartedChild& started, const std::atomic<bool>* cancel) {
    int status = 0;
    size_t got = 0;
    bool cancelled = false;
    while (got < sizeof(status)) {
        if (!WaitReadableUnlessCancelled(started.statusFd, cancel)) {
            // Not waited for yet, so the pid is still the intermediate's; the
            // program dies with it.
            kill(started.intermediate, SIGKILL);
            cancelled = true;
            break;
        }
        ssize_t n =
            read(started.statusFd, reinterpret_cast<char*>(&status) + got, sizeof(status) - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    close(started.statusFd);
    ReapIntermediate(started.intermediate);
    if (cancelled) {
        return kChildCancelled;
    }
    return got == sizeof(status) ? status : kChildNotStarted;
}

}  // namespace

int32_t RunChild(const std::vector<std::string>& argv, const ChildStdio& stdio) {
    ChildOptions options;
    options.stdio = stdio;
    return RunChild(argv, options);
}

int32_t RunChild(const std::vector<std::string>& argv, const ChildOptions& options) {
    if (argv.empty()) {
        return kChildNotStarted;
    }
    ChildPlan plan(argv, options);
    StartedChild started = StartChild(plan);
    return started.intermediate < 0 ? kChildNotStarted : WaitForChild(started, options.cancel);
}

int32_t RunChildForOutput(const std::vector<std::string>& argv, const ChildOptions& options,
                          std::string* output, size_t maxOutput) {
    output->clear();
    if (argv.empty()) {
        return kChildNotStarted;
    }
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        ORV_LOG(ORV_ERROR, "[OrvDaemon] Make a pipe for child process [%s] failed, %s",
                argv.front().c_str(), SafeStrerror().c_str());
        return kChildNotStarted;
    }
    ScopeGuard closeReadEnd([fd = pipeFds[0]] { close(fd); });
    ChildOptions withPipe = options;
    withPipe.stdio.output = pipeFds[1];
    ChildPlan plan(argv, withPipe);
    StartedChild started = StartChild(plan);
    close(pipeFds[1]);
    if (started.intermediate < 0) {
        return kChildNotStarted;
    }
    int32_t verdict = 0;
    char buffer[kReadChunk];
    for (;;) {
        if (!WaitReadableUnlessCancelled(pipeFds[0], options.cancel)) {
            verdict = kChildCancelled;
            break;
        }
        ssize_t n = read(pipeFds[0], buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        if (output->size() + static_cast<size_t>(n) > maxOutput) {
            verdict = kChildOutputTooLong;
            break;
        }
        output->append(buffer, static_cast<size_t>(n));
    }
    if (verdict != 0) {
        // Not waited for yet, so the pid is still the intermediate's; the
        // program dies with it.
        kill(started.intermediate, SIGKILL);
    }
    int32_t status = WaitForChild(started, nullptr);
    return verdict != 0 ? verdict : status;
}

}  // namespace orv
