// The calling process's and thread's ids, without a system call each time.
// On this kernel's virtual machines getpid and gettid cost a microsecond
// each, and the platform libraries ask on every log line and driver call.
// The ids are cached, and forgotten in the child of a fork. Not for a child
// that shares its parent's memory (clone with CLONE_VM): it would read, and
// write, the parent's cache.
#ifndef ORV_EMU_COMMON_PROCESS_IDS_H
#define ORV_EMU_COMMON_PROCESS_IDS_H

#include <sys/types.h>

namespace orv::emu {

pid_t CurrentPid();
pid_t CurrentTid();

}  // namespace orv::emu

#endif  // ORV_EMU_COMMON_PROCESS_IDS_H
