// Starting, finding and stopping processes from the sandbox's init.
#ifndef ORV_EMU_SANDBOX_PROCESS_HELPERS_H
#define ORV_EMU_SANDBOX_PROCESS_HELPERS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace orv::emu {

struct SpawnSpec {
    std::vector<std::string> argv;
    std::vector<std::string> env;
    int stdinFd = -1;  // -1: inherit
    int stdoutFd = -1;
    int stderrFd = -1;
    std::vector<int> keepFds;  // descriptors the child keeps (close-on-exec cleared)
    std::string cwd;           // empty: inherit
    bool searchPath = false;   // look argv[0] up in the PATH of `env`
};

// Forks and executes; the child starts with no blocked signals and default
// dispositions. Returns the child's pid, or -1.
pid_t Spawn(const SpawnSpec& spec);

// What the child of Spawn does: sets itself up and executes; never returns.
[[noreturn]] void ExecInChild(const SpawnSpec& spec);

// The pids of the processes whose name (comm) is `name`.
std::vector<pid_t> PidsNamed(const std::string& name);

// Reaps every exited child without blocking; calls `onExit(pid, status)` for each.
template <typename Fn>
void ReapChildren(Fn onExit);

// True once `pid` no longer exists, waiting (and reaping, as init) up to `timeout`.
bool WaitGone(pid_t pid, std::chrono::milliseconds timeout);

// Sends SIGTERM, waits up to `grace`, then SIGKILL. Returns true when it went by itself.
bool TerminateProcess(pid_t pid, std::chrono::milliseconds grace);

// "NAME=VALUE" lines of the current environment.
std::vector<std::string> CurrentEnvironment();

// Replaces or adds NAME in a NAME=VALUE list.
void SetEnv(std::vector<std::string>* env, const std::string& name, const std::string& value);

// Removes every entry whose name starts with `prefix`.
void RemoveEnvPrefix(std::vector<std::string>* env, const std::string& prefix);

// Sends one datagram to a Unix datagram socket; false when it could not be sent.
bool SendNotice(const std::string& socketPath, const std::string& message);

}  // namespace orv::emu

#include "emu/sandbox/process_helpers_inl.h"

#endif  // ORV_EMU_SANDBOX_PROCESS_HELPERS_H
