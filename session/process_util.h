// ProcessUtil: CPU affinity of the daemon's threads and, around it, the
// launching of sub-processes.
#ifndef ORV_SESSION_PROCESS_UTIL_H
#define ORV_SESSION_PROCESS_UTIL_H

#include <pthread.h>
#include <sched.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace orv {

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
                                          const std::function<void()>& callback);

    // Forks; the child runs `callback` and executes `path` with `argv` and
    // (unless `useExecv`, which keeps the daemon's environment) exactly `envp`.
    // The parent adds the child to `groups`. The child's pid, or -1.
    static int32_t StartSubProcess(const std::string& path, char* const argv[], char* const envp[],
                                   const bool& useExecv, const std::vector<std::string>& groups,
                                   const std::function<void()>& callback);

    // Grants `pid` every permission on each group, in order. 0 or 1.
    static uint32_t AddSubProcessToGroups(int32_t pid, const std::vector<std::string>& groups);
};

}  // namespace orv

#endif  // ORV_SESSION_PROCESS_UTIL_H
