#ifndef ORV_EMU_SANDBOX_PROCESS_HELPERS_INL_H
#define ORV_EMU_SANDBOX_PROCESS_HELPERS_INL_H

#include <sys/wait.h>

namespace orv::emu {

template <typename Fn>
void ReapChildren(Fn onExit) {
    int status = 0;
    pid_t pid;
    while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
        onExit(pid, status);
    }
}

}  // namespace orv::emu

#endif  // ORV_EMU_SANDBOX_PROCESS_HELPERS_INL_H
