// The foreground side of a sandbox: prepares the state directory, creates the
// PID namespace whose init runs everything, forwards SIGINT and SIGTERM to it,
// and turns the notices of the card and the daemon into DIR/sandbox.env.
#ifndef ORV_EMU_SANDBOX_SANDBOX_SUPERVISOR_H
#define ORV_EMU_SANDBOX_SANDBOX_SUPERVISOR_H

#include "emu/sandbox/sandbox_plan.h"

namespace orv::emu {

// Runs a sandbox in --boot or -- COMMAND mode; returns the exit status.
int RunSandbox(SandboxPlan plan);

// Runs a command inside the sandbox booted on the plan's state directory.
int EnterSandbox(const SandboxPlan& plan);

}  // namespace orv::emu

#endif  // ORV_EMU_SANDBOX_SANDBOX_SUPERVISOR_H
