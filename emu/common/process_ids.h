// The calling process's and thread's ids, without a system call each time.
// On this kernel's virtual machines getpid and gettid cost a microsecond
// each, and the platform libraries ask on every log line and driver call.
// The ids are cached, and forgotten in the child of fork() (through
// pthread_atfork). Not for a child made by a bare clone system call, which runs
// no fork handlers and, with CLONE_VM, would even write the parent's cache.
#ifndef ORV_EMU_COMMON_PROCESS_IDS_H
#define ORV_EMU_COMMON_PROCESS_IDS_H

#include <sys/types.h>

namespace orv::emu {

pid_t CurrentPid();
pid_t CurrentTid();

}  // namespace orv::emu

#endif  // ORV_EMU_COMMON_PROCESS_IDS_H
