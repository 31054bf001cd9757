#include "session/process_util.h"

#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

#include <driver_hal.h>

#include "platform/log.h"
#include "platform/pooled_thread.h"

namespace orv {

namespace {
constexpr uint32_t kMaxCpuId = 1024;
constexpr uint32_t kAllPermissions = 15;
// Group grants the driver reports as already in place or not offered.
constexpr drvError_t kGrantedAlready = 10;
constexpr drvError_t kGrantNotSupported = 65534;
}  // namespace

// ---- The start gate ---------------------------------------------------------------

namespace {

// The child's answers on the gate: it waits for its go, or its exec failed.
constexpr char kChildWaits = 'w';
constexpr char kExecFailed = 'f';
constexpr char kGo = 'g';
constexpr std::chrono::milliseconds kChildEndWait(2000);

// Sanitizers keep state per thread that a child sharing the daemon's memory
// would share too: sanitized builds fork.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kShareMemoryUntilExec = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kShareMemoryUntilExec = false;
#else
constexpr bool kShareMemoryUntilExec = true;
#endif
#else
constexpr bool kShareMemoryUntilExec = true;
#endif

ssize_t ReadByte(int fd, char* byte) {
    ssize_t got;
    do {
        got = read(fd, byte, 1);
    } while (got < 0 && errno == EINTR);
    return got;
}

}  // namespace

struct StartGate::Launch {
    // Copies: the child reads them at its exec, after the launch's caller
    // has moved on.
    std::string path;
    std::vector<std::string> args;
    std::vector<std::string> envs;
    bool keepEnvironment = false;
    std::vector<char*> argv;
    std::vector<char*> envp;
    std::function<void()> callback;
    sigset_t mask;  // the launching thread's, for the program
    int childFd = -1;
    int parentFd = -1;  // the launching thread's end, which the child must not hold
    void* stack = nullptr;

    // The stack the child runs on until its exec (the callback and, when the
    // exec fails, one log line), from the pool of the daemon's threads.
    ~Launch() { StackPool::Instance().Give(stack); }

    // The child, between the start and the exec.
    static int Run(void* arg) {
        Launch* launch = static_cast<Launch*>(arg);
        close(launch->parentFd);
        // Signals stay blocked until the exec; a handler of the daemon's must
        // never run here, so each goes back to the default first (ignored
        // ones stay ignored, as across an exec).
        for (int sig = 1; sig < NSIG; ++sig) {
            struct sigaction action {};
            if (sig != SIGKILL && sig != SIGSTOP && sigaction(sig, nullptr, &action) == 0 &&
                action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN) {
                action.sa_handler = SIG_DFL;
                action.sa_flags = 0;
                (void)sigaction(sig, &action, nullptr);
            }
        }
        if (launch->callback) {
            launch->callback();
        }
        char byte = kChildWaits;
        char go = 0;
        if (write(launch->childFd, &byte, 1) != 1 || ReadByte(launch->childFd, &go) != 1 ||
            go != kGo) {
            _exit(EXIT_FAILURE);
        }
        sigprocmask(SIG_SETMASK, &launch->mask, nullptr);
        if (launch->keepEnvironment) {
            execv(launch->path.c_str(), launch->argv.data());
        } else {
            execve(launch->path.c_str(), launch->argv.data(), launch->envp.data());
        }
        // The launching thread logs it: a child that shares the daemon's
        // memory takes none of its locks.
        byte = kExecFailed;
        (void)!write(launch->childFd, &byte, 1);
        _exit(EXIT_FAILURE);
    }
};

StartGate::StartGate() = default;

StartGate::~StartGate() {
    Finish();
}

int32_t StartGate::Start(const std::string& path, char* const argv[], char* const envp[],
                         bool useExecv, const std::function<void()>& callback) {
    launch_ = std::make_unique<Launch>();
    Launch& launch = *launch_;
    launch.path = path;
    for (char* const* arg = argv; arg != nullptr && *arg != nullptr; ++arg) {
        launch.args.emplace_back(*arg);
    }
    for (char* const* env = envp; env != nullptr && *env != nullptr; ++env) {
        launch.envs.emplace_back(*env);
    }
    for (std::string& arg : launch.args) {
        launch.argv.push_back(arg.data());
    }
    launch.argv.push_back(nullptr);
    for (std::string& env : launch.envs) {
        launch.envp.push_back(env.data());
    }
    launch.envp.push_back(nullptr);
    launch.keepEnvironment = useExecv;
    launch.callback = callback;
    // A socket pair rather than a pipe: answering a child that was killed
    // meanwhile raises no SIGPIPE. The child's end closes at its exec.
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        return -1;
    }
    launch.childFd = fds[0];
    launch.parentFd = fds[1];
    parentFd_ = fds[1];

    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &launch.mask);
    int pidfd = -1;
    pid_t pid = -1;
    if (kShareMemoryUntilExec) {
        launch.stack = StackPool::Instance().Take();
        if (launch.stack != nullptr) {
            void* top = static_cast<char*>(launch.stack) + StackPool::kStackSize;
            pid = clone(&Launch::Run, top, CLONE_VM | CLONE_PIDFD | SIGCHLD, &launch, &pidfd);
            if (pid < 0 && errno == EINVAL) {
                // A kernel without pidfds from clone.
                pid = clone(&Launch::Run, top, CLONE_VM | SIGCHLD, &launch);
            }
        }
    } else {
        pid = fork();
        if (pid == 0) {
            _exit(Launch::Run(&launch));
        }
    }
    int startError = errno;
    pthread_sigmask(SIG_SETMASK, &launch.mask, nullptr);
    // The child has a descriptor table of its own; `launch` is shared with it
    // and stays as it is.
    close(launch.childFd);
    if (pid < 0) {
        errno = startError;
        return -1;
    }
    child_ = pid;
    // Back once the child has run its callback and waits: from here on it
    // only runs when let go.
    char byte = 0;
    bool waits = ReadByte(parentFd_, &byte) == 1 && byte == kChildWaits;
    if (pidfd >= 0) {
        handle_ = ProcessHandle::Adopt(pid, pidfd);
    } else {
        handle_ = ProcessHandle::ForChild(pid);
    }
    if (!waits) {
        // Killed by someone else before its exec.
        handle_.reset();
    }
    return pid;
}

bool StartGate::Release() {
    if (parentFd_ < 0 || released_) {
        return true;
    }
    released_ = true;
    const char go = kGo;
    bool execFailed = false;
    if (send(parentFd_, &go, 1, MSG_NOSIGNAL) == 1) {
        // End of stream once the exec closed the child's end; a byte when
        // the exec failed.
        char byte = 0;
        execFailed = ReadByte(parentFd_, &byte) == 1 && byte == kExecFailed;
    }
    if (execFailed) {
        ORV_LOG(ORV_ERROR, "[ProcessUtil] StartSubProcess() execl compute process wrong.");
    }
    Finish();
    return !execFailed;
}

void StartGate::Finish() {
    if (parentFd_ >= 0) {
        // A child never let go reads the end of the stream and ends.
        close(parentFd_);
        parentFd_ = -1;
    }
    if (launch_ == nullptr) {
        return;
    }
    // The child may run on what the launch holds until its exec or its end.
    bool done = released_ || child_ <= 0;
    if (!done && handle_ != nullptr) {
        done = handle_->WaitExit(kChildEndWait);
    }
    if (!done && child_ > 0 && handle_ == nullptr) {
        // Gone already (killed before it waited): nothing runs on the stack.
        done = true;
    }
    if (done) {
        launch_.reset();
    } else {
        // Still running on it, against all odds: better kept than freed.
        (void)launch_.release();
    }
}

uint32_t ProcessUtil::SetThreadAffinity(pthread_t threadId, const std::vector<uint32_t>& cpus) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (uint32_t cpu : cpus) {
        ORV_LOG(ORV_INFO, "prepare bind threadId=%lu to cpuId=%u",
                static_cast<unsigned long>(threadId), cpu);
        if (cpu < kMaxCpuId) {
            CPU_SET(cpu, &set);
        }
    }
    ORV_LOG(ORV_INFO, "begin call pthread_setaffinity_np threadId=%lu",
            static_cast<unsigned long>(threadId));
    int ret = pthread_setaffinity_np(threadId, sizeof(set), &set);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "BindCpu threadId=%lu setaffinity failed, ret=%d",
                static_cast<unsigned long>(threadId), ret);
        return 1;
    }
    CPU_ZERO(&set);
    ret = pthread_getaffinity_np(threadId, sizeof(set), &set);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "BindCpu threadId=%lu getaffinity failed, ret=%d",
                static_cast<unsigned long>(threadId), ret);
        return 1;
    }
    for (uint32_t cpu = 0; cpu < kMaxCpuId; ++cpu) {
        if (CPU_ISSET(cpu, &set)) {
            ORV_LOG(ORV_INFO, "BindCpu threadId=%lu to cpuId=%d success",
                    static_cast<unsigned long>(threadId), static_cast<int>(cpu));
        }
    }
    return 0;
}

uint32_t ProcessUtil::SaveThreadAffinity(pthread_t threadId, cpu_set_t& saved) {
    CPU_ZERO(&saved);
    return pthread_getaffinity_np(threadId, sizeof(saved), &saved) == 0 ? 0 : 1;
}

uint32_t ProcessUtil::RestoreThreadAffinity(pthread_t threadId, const cpu_set_t& saved) {
    return pthread_setaffinity_np(threadId, sizeof(saved), &saved) == 0 ? 0 : 1;
}

int32_t ProcessUtil::StartAndBindSubProcess(
    const std::string& path, const std::vector<uint32_t>& ctrlCpus, char* const argv[],
    char* const envp[], const bool& useExecv, const std::vector<std::string>& groups,
    const std::function<void()>& callback, StartGate* gate) {
    pthread_t tid = pthread_self();
    cpu_set_t saved;
    if (SaveThreadAffinity(tid, saved) != 0) {
        ORV_LOG(ORV_ERROR, "SaveThreadAffinity failed on threadId[%lu]",
                static_cast<unsigned long>(tid));
        return -1;
    }
    if (SetThreadAffinity(tid, ctrlCpus) != 0) {
        ORV_LOG(ORV_ERROR, "SetThreadAffinity failed on threadId[%lu]",
                static_cast<unsigned long>(tid));
        return -1;
    }
    // Forked while bound: the child inherits the control CPUs.
    int32_t pid = StartSubProcess(path, argv, envp, useExecv, groups, callback, gate);
    if (RestoreThreadAffinity(tid, saved) != 0) {
        ORV_LOG(ORV_ERROR, "RestoreThreadAffinity failed on threadId[%lu]",
                static_cast<unsigned long>(tid));
        return -1;
    }
    return pid;
}

int32_t ProcessUtil::StartSubProcess(const std::string& path, char* const argv[],
                                     char* const envp[], const bool& useExecv,
                                     const std::vector<std::string>& groups,
                                     const std::function<void()>& callback, StartGate* gate) {
    if (callback) {
        ORV_LOG(ORV_INFO, "[ProcessUtil] excute callback.");
    } else {
        ORV_LOG(ORV_INFO, "[ProcessUtil] will not excute callback");
    }
    ORV_LOG(ORV_INFO, "[ProcessUtil] execve path:%s.", path.c_str());
    StartGate ownGate;
    StartGate& startGate = gate != nullptr ? *gate : ownGate;
    int32_t pid = startGate.Start(path, argv, envp, useExecv, callback);
    if (pid < 0) {
        ORV_LOG(ORV_ERROR,
                "[ProcessUtil] StartSubProcess() process num > process max threshold or out of "
                "memory [pid=%d],"
                "[errno=%d]",
                pid, errno);
        perror("[ProcessUtil] ############### StartSubProcess fork() error: ##################");
        return -1;
    }
    uint32_t granted = AddSubProcessToGroups(pid, groups);
    if (gate == nullptr && !ownGate.Release()) {
        return -1;
    }
    return granted == 0 ? pid : -1;
}

uint32_t ProcessUtil::AddSubProcessToGroups(int32_t pid, const std::vector<std::string>& groups) {
    for (const std::string& name : groups) {
        drvError_t ret = halGrpAddProc(name.c_str(), pid, kAllPermissions);
        if (ret != DRV_ERROR_NONE && ret != kGrantedAlready && ret != kGrantNotSupported) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon]Fail to add dstPid[%d] in group[%s] ret[%d]", pid,
                    name.c_str(), ret);
            return 1;
        }
        ORV_LOG(ORV_INFO, "[ProcessUtil] Add group[%s] authority to subProcPid[%d] end",
                name.c_str(), pid);
    }
    return 0;
}

}  // namespace orv
