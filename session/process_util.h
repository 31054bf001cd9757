// ProcessUtil: CPU affinity of the daemon's threads and, around it, the
// launching of sub-processes.
#ifndef ORV_SESSION_PROCESS_UTIL_H
#define ORV_SESSION_PROCESS_UTIL_H

#include <pthread.h>
#include <sched.h>

#include <cstdint>
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
};

}  // namespace orv

#endif  // ORV_SESSION_PROCESS_UTIL_H
