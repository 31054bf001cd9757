// Command line of orv-sandbox.
#ifndef ORV_EMU_SANDBOX_SANDBOX_OPTIONS_H
#define ORV_EMU_SANDBOX_SANDBOX_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace orv::emu {

enum class SandboxMode {
    kCommand,  // run a command inside a fresh sandbox with the card up
    kBoot,     // card and daemon, in the foreground
    kEnter,    // a command inside the sandbox already booted on the state directory
};

struct SandboxOptions {
    SandboxMode mode = SandboxMode::kCommand;
    std::string stateDir;
    bool tempState = false;  // --state-tmp: a fresh directory, removed after a clean exit
    std::vector<std::string> command;

    uint32_t devices = 1;
    std::vector<std::string> deviceCpus;  // passed on to orv-card-emu
    std::vector<std::string> chipIds;
    bool zeb = false;
    std::vector<uint32_t> vfs;
    std::vector<std::string> env;  // NAME=VALUE for the daemon (and the command)
    uint64_t vfMemoryLimit = 4294967296ULL;
    uint64_t vfMemoryUsage = 1073741824ULL;
    std::string envScript;
    std::string logLevel = "info";
    bool logStderr = false;
    bool detach = false;  // --enter: leave the command running in the sandbox
    std::string daemonPath;
};

// Parses argv. On failure returns false with a message for the user.
bool ParseSandboxOptions(int argc, char** argv, SandboxOptions* options, std::string* error);

const char* SandboxUsage();

}  // namespace orv::emu

#endif  // ORV_EMU_SANDBOX_SANDBOX_OPTIONS_H
