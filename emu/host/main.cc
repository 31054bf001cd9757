// orv-host: plays a host framework process against the daemon on the emulated
// card. It sends any request with any field values, waits for and prints the
// replies, runs the version handshake, drops links on purpose, feeds the
// transport malformed frames, and delivers kernel packages.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "emu/host/host_commands.h"
#include "orv_version.h"

namespace {

using orv::host::HostCommands;
using orv::host::kExitFailure;
using orv::host::kExitOk;
using orv::host::kExitUsage;
using orv::host::Number;
using orv::host::Settings;
using orv::host::UsageError;

const char kUsage[] =
    R"(Usage: orv-host [--state DIR | --socket PATH] [--device D] [--json] [--timeout MS] COMMAND [ARGS]

The options above may also follow the command. Without --state or --socket, the device's socket
and trusted directory come from ORV_HDC_SOCKET_<D> and ORV_TRUSTED_DIR_<D> in the environment
(the names of DIR/sandbox.env), or, inside the sandbox, from where the sandbox lays them out.

Requests (each on a link of its own; the matching reply is awaited and printed):
  test                        link test with this host's version information (32, answered by 33)
  start [FIELDS]              start sub-processes (6, answered by 8)
  start-qs [FIELDS]           start the queue scheduler (37, answered by 8)
  close [FIELDS]              close them (7, answered by 9)
  profiling [FIELDS]          change the profiling mode (30, answered by 31)
  check-package [FIELDS]      ask for the installed package's check code (35, answered by 36)
  send --type N [FIELDS]      a message of any type; prints whatever comes back
Malformed input:
  frame --declare N [--send K]  a frame header announcing N bytes, then K bytes (default N) of zeros
  frame --garbage N             a frame of N random bytes
  links COUNT [--declare N] [--send K] [--hold MS]
                              COUNT links at once, each sending the first K bytes of a frame
                              announcing N bytes (nothing without --declare), held MS ms (0: until
                              the daemon ends them); prints how many it refused and how many it ended
Several links:
  session [FILE]              run the steps of FILE (or standard input), one per line:
                                open NAME [--device D]
                                send NAME REQUEST [FIELDS]     (REQUEST: a request above, or a type number)
                                expect NAME TYPE [--code C] [--timeout MS]
                                expect-none NAME [--timeout MS]
                                expect-closed NAME [--timeout MS]
                                drop NAME
                                sleep MS
Packages:
  send-package FILE [--device D] [--vf N] [--trusted-dir DIR]
                              write FILE into the device's (or VF N's) trusted directory under its own
                              name, then close it, as the host framework does

FIELDS: --pid N --sign TEXT --device-id N --real-device N --vf N --rank-size N --profiling N
        --zarn --cp --check-code N --log-level TEXT --device-mode N --group NAME
        Values go out as given, out-of-range ones included; --device-id defaults to --device.
Waiting: --wait TYPE waits for that type instead; --no-wait only sends; --drop drops the link right
        after sending.
Exit status: 0 a reply came (or the request went out, with --no-wait or --drop); 3 no reply in time;
        4 the daemon closed the link first; 1 other failures; 2 bad usage.
)";

// Runs `command` with its own arguments `rest`.
int Dispatch(HostCommands& commands, const std::string& command,
             const std::vector<std::string>& rest) {
    if (command == "frame") {
        return commands.RunFrame(rest);
    }
    if (command == "links") {
        return commands.RunLinks(rest);
    }
    if (command == "session") {
        if (rest.empty() || rest[0] == "-") {
            return commands.RunSession(std::cin);
        }
        std::ifstream script(rest[0]);
        if (!script.is_open()) {
            std::fprintf(stderr, "orv-host: cannot read %s\n", rest[0].c_str());
            return kExitFailure;
        }
        return commands.RunSession(script);
    }
    if (command == "send-package") {
        return commands.SendPackage(rest);
    }
    return commands.RunRequest(command, rest);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        // The link options may stand before or after the command; what is
        // left is the command and its own arguments.
        Settings settings;
        std::vector<std::string> args;
        for (int i = 1; i < argc; ++i) {
            const std::string arg = argv[i];
            bool hasValue = i + 1 < argc;
            if (arg == "--state" && hasValue) {
                settings.stateDir = argv[++i];
            } else if (arg == "--socket" && hasValue) {
                settings.socket = argv[++i];
            } else if (arg == "--trusted-dir" && hasValue) {
                settings.trustedDir = argv[++i];
            } else if (arg == "--device" && hasValue) {
                settings.device = static_cast<uint32_t>(Number(argv[++i], arg));
            } else if (arg == "--timeout" && hasValue) {
                settings.timeoutMs = static_cast<int>(Number(argv[++i], arg));
            } else if (arg == "--json") {
                settings.json = true;
            } else if (arg == "--help" || arg == "-h") {
                std::fputs(kUsage, stdout);
                return kExitOk;
            } else if (arg == "--version") {
                std::printf("orv-host %s\n", ORV_VERSION);
                return kExitOk;
            } else {
                args.push_back(arg);
            }
        }
        if (args.empty()) {
            throw UsageError{"no command"};
        }
        HostCommands commands(settings);
        return Dispatch(commands, args[0], std::vector<std::string>(args.begin() + 1, args.end()));
    } catch (const UsageError& error) {
        std::fprintf(stderr, "orv-host: %s\n\n%s", error.what.c_str(), kUsage);
        return kExitUsage;
    }
}
