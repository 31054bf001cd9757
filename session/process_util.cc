#include "session/process_util.h"

#include "platform/log.h"

namespace orv {

namespace {
constexpr uint32_t kMaxCpuId = 1024;
}  // namespace

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

}  // namespace orv
