#include "emu/sandbox/sandbox_options.h"

#include <cstdlib>
#include <sstream>

namespace orv::emu {

namespace {

bool ParseUnsigned(const std::string& text, uint64_t* value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    *value = std::strtoull(text.c_str(), nullptr, 10);
    return true;
}

}  // namespace

const char* SandboxUsage() {
    return "Usage:\n"
           "  orv-sandbox (--state DIR | --state-tmp) [options] -- COMMAND...   run COMMAND in a "
           "fresh sandbox\n"
           "  orv-sandbox --state DIR --boot [options]                        card emulator and "
           "daemon\n"
           "  orv-sandbox --state DIR --enter [--detach] [--env N=V] -- COMMAND...\n"
           "                                                    run COMMAND in the sandbox booted "
           "on DIR\n"
           "Options:\n"
           "  --devices N              devices of the card (default 1)\n"
           "  --device-cpus D=ai:N:F,ctrl:N:F,data:N:F\n"
           "                           CPU counts and OS-scheduling flags of device D "
           "(repeatable);\n"
           "                           by default device D's one control CPU is CPU D\n"
           "  --chip-id D=ID           chip id of device D (default D)\n"
           "  --zeb                    the emulated hardware reports the ZEB chip type\n"
           "  --vfs 1,3                VFs present at boot\n"
           "  --env NAME=VALUE         daemon environment (repeatable)\n"
           "  --env-script FILE        installed as /var/orvdaemon_add_env_variable.sh\n"
           "  --vf-memory-limit BYTES  initial memory.limit_in_bytes of each VF (default "
           "4294967296)\n"
           "  --vf-memory-usage BYTES  initial memory.usage_in_bytes of each VF (default "
           "1073741824)\n"
           "  --log-level LEVEL        system log threshold: debug, info, warning, error (default "
           "info)\n"
           "  --log-stderr             also copy the system log and daemon output to standard "
           "error\n"
           "  --daemon PATH            daemon executable (default: orvdaemon beside orv-sandbox)\n";
}

bool ParseSandboxOptions(int argc, char** argv, SandboxOptions* options, std::string* error) {
    bool boot = false;
    bool enter = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--") {
            options->command.assign(argv + i + 1, argv + argc);
            break;
        }
        auto value = [&](std::string* out) {
            if (i + 1 >= argc) {
                *error = arg + " needs a value";
                return false;
            }
            *out = argv[++i];
            return true;
        };
        std::string v;
        uint64_t n = 0;
        if (arg == "--state") {
            if (!value(&options->stateDir)) {
                return false;
            }
        } else if (arg == "--state-tmp") {
            options->tempState = true;
        } else if (arg == "--boot") {
            boot = true;
        } else if (arg == "--enter") {
            enter = true;
        } else if (arg == "--detach") {
            options->detach = true;
        } else if (arg == "--devices") {
            if (!value(&v) || !ParseUnsigned(v, &n) || n > 64) {
                *error = "--devices takes a number from 0 to 64";
                return false;
            }
            options->devices = static_cast<uint32_t>(n);
        } else if (arg == "--device-cpus") {
            if (!value(&v)) {
                return false;
            }
            options->deviceCpus.push_back(v);
        } else if (arg == "--chip-id") {
            if (!value(&v)) {
                return false;
            }
            options->chipIds.push_back(v);
        } else if (arg == "--zeb") {
            options->zeb = true;
        } else if (arg == "--vfs") {
            if (!value(&v)) {
                return false;
            }
            std::stringstream items(v);
            std::string item;
            while (std::getline(items, item, ',')) {
                if (!ParseUnsigned(item, &n) || n < 1 || n > 16) {
                    *error = "--vfs takes VF ids from 1 to 16, got '" + item + "'";
                    return false;
                }
                options->vfs.push_back(static_cast<uint32_t>(n));
            }
        } else if (arg == "--env") {
            if (!value(&v)) {
                return false;
            }
            if (v.find('=') == std::string::npos || v.front() == '=') {
                *error = "--env takes NAME=VALUE, got '" + v + "'";
                return false;
            }
            options->env.push_back(v);
        } else if (arg == "--env-script") {
            if (!value(&options->envScript)) {
                return false;
            }
        } else if (arg == "--vf-memory-limit" || arg == "--vf-memory-usage") {
            if (!value(&v) || !ParseUnsigned(v, &n)) {
                *error = arg + " takes a number of bytes";
                return false;
            }
            (arg == "--vf-memory-limit" ? options->vfMemoryLimit : options->vfMemoryUsage) = n;
        } else if (arg == "--log-level") {
            if (!value(&options->logLevel)) {
                return false;
            }
            if (options->logLevel != "debug" && options->logLevel != "info" &&
                options->logLevel != "warning" && options->logLevel != "error") {
                *error = "--log-level takes debug, info, warning or error";
                return false;
            }
        } else if (arg == "--log-stderr") {
            options->logStderr = true;
        } else if (arg == "--daemon") {
            if (!value(&options->daemonPath)) {
                return false;
            }
        } else {
            *error = "unknown option " + arg;
            return false;
        }
    }

    if (boot && enter) {
        *error = "--boot and --enter exclude each other";
        return false;
    }
    options->mode = boot ? SandboxMode::kBoot : enter ? SandboxMode::kEnter : SandboxMode::kCommand;
    if (options->stateDir.empty() == !options->tempState) {
        *error = "give exactly one of --state DIR and --state-tmp";
        return false;
    }
    if (options->tempState && options->mode != SandboxMode::kCommand) {
        *error = "--state-tmp only goes with -- COMMAND";
        return false;
    }
    if (options->mode == SandboxMode::kBoot && !options->command.empty()) {
        *error = "--boot takes no command";
        return false;
    }
    if (options->mode != SandboxMode::kBoot && options->command.empty()) {
        *error = "no command given after --";
        return false;
    }
    return true;
}

}  // namespace orv::emu
