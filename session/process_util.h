// ProcessUtil: CPU affinity of the daemon's threads and, around it, the
// launching of sub-processes.
#ifndef ORV_SESSION_PROCESS_UTIL_H
#define ORV_SESSION_PROCESS_UTIL_H

#include <pthread.h>
#include <sched.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "session/process_handle.h"

namespace orv {

// Holds a freshly forked child before its exec until the parent lets it go, so
// that the parent records the child before anything the child does can be
// seen. A gate destroyed without Release() ends its child before the exec.
class StartGate {
public:
    StartGate() = default;
    ~StartGate();
    StartGate(const StartGate&) = delete;
    StartGate& operator=(const StartGate&) = delete;

    // The child forked through this gate; 0 before the fork (and in the child).
    int32_t Child() const { return child_; }
    // The handle on the child, taken while it waits; null when it is already
    // gone (killed by someone else before its exec).
    std::shared_ptr<ProcessHandle> TakeHandle() { return std::move(handle_); }
    // Lets the child exec.
    void Release();

private:
    friend class ProcessUtil;
    bool Open();
    // In the child: waits for Release(), or ends when the parent gives up.
    void Pass();
    void Forked(int32_t pid);
    void Close();

    int fds_[2] = {-1, -1};  // [0] the child's end, [1] the parent's
    int32_t child_ = 0;
    std::shared_ptr<ProcessHandle> handle_;
};

class ProcessUtil {
public:
    // Binds thread `threadId` to `cpus` (ids of 1024 and above are skipped; an
    // empty list is applied as it is, which the kernel refuses) and logs the
    // affinity read back. 0 on success.
    static uint32_t SetThreadAffinity(pthread_t threadId, const std::vector<uint32_t>& cpus);

    // Saves and restores a thread's affinity around a temporary binding.
    static uint32_t SaveThreadAffinity(pthread_t threadId, cpu_set_t& saved);
    static uint32_t RestoreThreadAffinity(pthread_t threadId, const cpu_set_t& saved);

    // Binds the calling thread to `ctrlCpus`, starts the sub-process (which
    // inherits the binding) and restores the thread. The child's pid, or -1.
    static int32_t StartAndBindSubProcess(const std::string& path, const std::vector<uint32_t>& ctrlCpus,
                                          char* const argv[], char* const envp[], const bool& useExecv,
                                          const std::vector<std::string>& groups,
                                          const std::function<void()>& callback, StartGate* gate = nullptr);

    // Forks; the child runs `callback` and executes `path` with `argv` and
    // (unless `useExecv`, which keeps the daemon's environment) exactly `envp`.
    // The parent adds the child to `groups` before the child may exec. With a
    // `gate` the child waits for the caller's Release(); without one it goes
    // on once it is in its groups. The child's pid, or -1 (a child may exist
    // even then: `gate` tells).
    static int32_t StartSubProcess(const std::string& path, char* const argv[], char* const envp[],
                                   const bool& useExecv, const std::vector<std::string>& groups,
                                   const std::function<void()>& callback, StartGate* gate = nullptr);

    // Grants `pid` every permission on each group, in order. 0 or 1.
    static uint32_t AddSubProcessToGroups(int32_t pid, const std::vector<std::string>& groups);
};

}  // namespace orv

#endif  // ORV_SESSION_PROCESS_UTIL_H
