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

// Holds a child just started before its exec until the parent lets it go, so
// that the parent records the child, and grants its buffer groups, before
// anything the child does can be seen. Where it can, the child shares the
// daemon's memory until its exec, as a vfork child does (no copy of the
// daemon's page tables: the start costs a fraction of a fork's), and it only
// runs while the launching thread waits for it or while it waits itself. A
// gate destroyed without Release() ends its child before the exec.
class StartGate {
  public:
    StartGate();
    ~StartGate();
    StartGate(const StartGate&) = delete;
    StartGate& operator=(const StartGate&) = delete;

    // The child started through this gate; 0 before the start.
    int32_t Child() const { return child_; }
    // The handle on the child, taken while it waits; null when it is already
    // gone (killed by someone else before its exec).
    std::shared_ptr<ProcessHandle> TakeHandle() { return handle_; }
    // Lets the child exec and waits until it has: false when the exec failed
    // (the child logged it and ended).
    bool Release();

    // What the child runs with; it must outlive the child's use of it.
    struct Launch;

  private:
    friend class ProcessUtil;
    // Starts the child; its pid, or -1 (errno set).
    int32_t Start(const std::string& path, char* const argv[], char* const envp[], bool useExecv,
                  const std::function<void()>& callback);
    // Ends the child if it never was let go, and frees what it ran on.
    void Finish();

    std::unique_ptr<Launch> launch_;
    int parentFd_ = -1;
    int32_t child_ = 0;
    bool released_ = false;
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
    static int32_t StartAndBindSubProcess(const std::string& path,
                                          const std::vector<uint32_t>& ctrlCpus, char* const argv[],
                                          char* const envp[], const bool& useExecv,
                                          const std::vector<std::string>& groups,
                                          const std::function<void()>& callback,
                                          StartGate* gate = nullptr);

    // Forks; the child runs `callback` and executes `path` with `argv` and
    // (unless `useExecv`, which keeps the daemon's environment) exactly `envp`.
    // The parent adds the child to `groups` before the child may exec. With a
    // `gate` the child waits for the caller's Release(); without one it goes
    // on once it is in its groups. The child's pid, or -1 (a child may exist
    // even then: `gate` tells).
    static int32_t StartSubProcess(const std::string& path, char* const argv[], char* const envp[],
                                   const bool& useExecv, const std::vector<std::string>& groups,
                                   const std::function<void()>& callback,
                                   StartGate* gate = nullptr);

    // Grants `pid` every permission on each group, in order. 0 or 1.
    static uint32_t AddSubProcessToGroups(int32_t pid, const std::vector<std::string>& groups);
};

}  // namespace orv

#endif  // ORV_SESSION_PROCESS_UTIL_H
