// The sandbox's init: process 1 of its PID namespace. It makes the private
// mounts, lays out the platform's files, starts the card emulator and then the
// daemon or the user's command, reaps every orphan, and on SIGTERM stops the
// daemon before the card. When it exits the kernel ends whatever is left.
#ifndef ORV_EMU_SANDBOX_SANDBOX_INIT_H
#define ORV_EMU_SANDBOX_SANDBOX_INIT_H

#include "emu/sandbox/sandbox_plan.h"

namespace orv::emu {

// Runs as process 1 of a new PID namespace; returns the sandbox's exit status.
int RunSandboxInit(const SandboxPlan& plan);

}  // namespace orv::emu

#endif  // ORV_EMU_SANDBOX_SANDBOX_INIT_H
