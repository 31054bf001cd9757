// Everything a sandbox needs to know to come up: the user's options and the
// programs and files it installs and runs.
#ifndef ORV_EMU_SANDBOX_SANDBOX_PLAN_H
#define ORV_EMU_SANDBOX_SANDBOX_PLAN_H

#include <string>
#include <vector>

#include "emu/sandbox/sandbox_options.h"
#include "emu/sandbox/sandbox_paths.h"

namespace orv::emu {

struct SandboxPlan {
    SandboxOptions options;
    StatePaths state{""};
    std::string cardEmu;    // orv-card-emu
    std::string emuCtl;     // orv-emu-ctl
    std::string host;       // orv-host, for driving the card from inside (may not exist)
    std::string submit;     // orv-emu-submit, a local process that talks to the daemon as itself
    std::string daemon;     // orvdaemon
    std::string standIn;    // the sub-process stand-in (may not exist)
    std::string imgVerify;  // the image verification library (may not exist)
    std::string shareDir;   // platform scripts and the layout script
    std::vector<std::string> keepVisible;  // host directories that must stay reachable inside
    std::string cwd;                       // the caller's working directory
};

// Fills the program paths from the directory orv-sandbox runs from.
bool ResolvePrograms(SandboxPlan* plan, std::string* error);

// Environment of processes started inside: `base` with the sandbox's own
// settings and the user's --env entries (and the entries of `extra`) on top.
std::vector<std::string> InsideEnvironment(std::vector<std::string> base,
                                           const SandboxOptions& options,
                                           const std::vector<std::string>& extra);

// The minimal environment the daemon starts from (sanitizer settings pass through).
std::vector<std::string> DaemonBaseEnvironment();

}  // namespace orv::emu

#endif  // ORV_EMU_SANDBOX_SANDBOX_PLAN_H
