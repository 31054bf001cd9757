#include "session/process_util.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <driver_hal.h>

#include "platform/log.h"

namespace orv {

namespace {
constexpr uint32_t kMaxCpuId = 1024;
constexpr uint32_t kAllPermissions = 15;
// Group grants the driver reports as already in place or not offered.
constexpr drvError_t kGrantedAlready = 10;
constexpr drvError_t kGrantNotSupported = 65534;
}  // namespace

// A socket pair rather than a pipe, so that releasing a child that was killed
// meanwhile raises no SIGPIPE.
bool StartGate::Open() {
    return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_) == 0;
}

void StartGate::Pass() {
    close(fds_[1]);
    fds_[1] = -1;
    char go = 0;
    ssize_t got;
    do {
        got = read(fds_[0], &go, 1);
    } while (got < 0 && errno == EINTR);
    if (got != 1) {
        _exit(EXIT_FAILURE);
    }
    Close();
}

void StartGate::Forked(int32_t pid) {
    child_ = pid;
    close(fds_[0]);
    fds_[0] = -1;
    handle_ = ProcessHandle::ForChild(pid);
}

void StartGate::Release() {
    if (fds_[1] >= 0) {
        const char go = 1;
        (void)send(fds_[1], &go, 1, MSG_NOSIGNAL);
    }
    Close();
}

void StartGate::Close() {
    for (int& fd : fds_) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
}

StartGate::~StartGate() {
    Close();
}

uint32_t ProcessUtil::SetThreadAffinity(pthread_t threadId, const std::vector<uint32_t>& cpus) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (uint32_t cpu : cpus) {
        ORV_LOG(ORV_INFO, "prepare bind threadId=%lu to cpuId=%u", static_cast<unsigned long>(threadId), cpu);
        if (cpu < kMaxCpuId) {
            CPU_SET(cpu, &set);
        }
    }
    ORV_LOG(ORV_INFO, "begin call pthread_setaffinity_np threadId=%lu", static_cast<unsigned long>(threadId));
    int ret = pthread_setaffinity_np(threadId, sizeof(set), &set);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "BindCpu threadId=%lu setaffinity failed, ret=%d", static_cast<unsigned long>(threadId), ret);
        return 1;
    }
    CPU_ZERO(&set);
    ret = pthread_getaffinity_np(threadId, sizeof(set), &set);
    if (ret != 0) {
        ORV_LOG(ORV_ERROR, "BindCpu threadId=%lu getaffinity failed, ret=%d", static_cast<unsigned long>(threadId), ret);
        return 1;
    }
    for (uint32_t cpu = 0; cpu < kMaxCpuId; ++cpu) {
        if (CPU_ISSET(cpu, &set)) {
            ORV_LOG(ORV_INFO, "BindCpu threadId=%lu to cpuId=%d success", static_cast<unsigned long>(threadId),
                    static_cast<int>(cpu));
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

int32_t ProcessUtil::StartAndBindSubProcess(const std::string& path, const std::vector<uint32_t>& ctrlCpus,
                                            char* const argv[], char* const envp[], const bool& useExecv,
                                            const std::vector<std::string>& groups,
                                            const std::function<void()>& callback, StartGate* gate) {
    pthread_t tid = pthread_self();
    cpu_set_t saved;
    if (SaveThreadAffinity(tid, saved) != 0) {
        ORV_LOG(ORV_ERROR, "SaveThreadAffinity failed on threadId[%lu]", static_cast<unsigned long>(tid));
        return -1;
    }
    if (SetThreadAffinity(tid, ctrlCpus) != 0) {
        ORV_LOG(ORV_ERROR, "SetThreadAffinity failed on threadId[%lu]", static_cast<unsigned long>(tid));
        return -1;
    }
    // Forked while bound: the child inherits the control CPUs.
    int32_t pid = StartSubProcess(path, argv, envp, useExecv, groups, callback, gate);
    if (RestoreThreadAffinity(tid, saved) != 0) {
        ORV_LOG(ORV_ERROR, "RestoreThreadAffinity failed on threadId[%lu]", static_cast<unsigned long>(tid));
        return -1;
    }
    return pid;
}

int32_t ProcessUtil::StartSubProcess(const std::string& path, char* const argv[], char* const envp[],
                                     const bool& useExecv, const std::vector<std::string>& groups,
                                     const std::function<void()>& callback, StartGate* gate) {
    if (callback) {
        ORV_LOG(ORV_INFO, "[ProcessUtil] excute callback.");
    } else {
        ORV_LOG(ORV_INFO, "[ProcessUtil] will not excute callback");
    }
    ORV_LOG(ORV_INFO, "[ProcessUtil] execve path:%s.", path.c_str());
    StartGate ownGate;
    StartGate& startGate = gate != nullptr ? *gate : ownGate;
    if (!startGate.Open()) {
        ORV_LOG(ORV_ERROR, "[ProcessUtil] StartSubProcess() cannot make the start gate, errno[%d]", errno);
        return -1;
    }
    static char* const kEmptyEnvironment[] = {nullptr};
    pid_t pid = fork();
    if (pid == 0) {
        if (callback) {
            callback();
        }
        startGate.Pass();
        if (useExecv) {
            execv(path.c_str(), argv);
        } else {
            execve(path.c_str(), argv, envp != nullptr ? envp : kEmptyEnvironment);
        }
        // The caller's failure path runs in this child, which then ends there.
        ORV_LOG(ORV_ERROR, "[ProcessUtil] StartSubProcess() execl compute process wrong.");
        return -1;
    }
    if (pid < 0) {
        startGate.Close();
        ORV_LOG(ORV_ERROR,
                "[ProcessUtil] StartSubProcess() process num > process max threshold or out of memory [pid=%d],"
                "[errno=%d]",
                pid, errno);
        perror("[ProcessUtil] ############### StartSubProcess fork() error: ##################");
        return -1;
    }
    startGate.Forked(pid);
    uint32_t granted = AddSubProcessToGroups(pid, groups);
    if (gate == nullptr) {
        ownGate.Release();
    }
    return granted == 0 ? pid : -1;
}

uint32_t ProcessUtil::AddSubProcessToGroups(int32_t pid, const std::vector<std::string>& groups) {
    for (const std::string& name : groups) {
        drvError_t ret = halGrpAddProc(name.c_str(), pid, kAllPermissions);
        if (ret != DRV_ERROR_NONE && ret != kGrantedAlready && ret != kGrantNotSupported) {
            ORV_LOG(ORV_ERROR, "[OrvDaemon]Fail to add dstPid[%d] in group[%s] ret[%d]", pid, name.c_str(), ret);
            return 1;
        }
        ORV_LOG(ORV_INFO, "[ProcessUtil] Add group[%s] authority to subProcPid[%d] end", name.c_str(), pid);
    }
    return 0;
}

}  // namespace orv
