// orv-host's commands: a request on a link of its own, malformed frames, a
// session of several links run from a script, and a package delivered into a
// trusted directory. Each prints what comes back on standard output, one line
// per message or event (as JSON objects with --json), and its failures on
// standard error, and returns orv-host's exit status.
#ifndef ORV_EMU_HOST_HOST_COMMANDS_H
#define ORV_EMU_HOST_HOST_COMMANDS_H

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <vector>

#include "emu/host/host_link.h"
#include "emu/host/host_request.h"

namespace orv::host {

// orv-host's exit status.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitNoReply = 3;
inline constexpr int kExitClosed = 4;

// The options that apply to every command.
struct Settings {
    std::string stateDir;    // a sandbox's state directory; its sandbox.env names the paths
    std::string socket;      // the device's HDC socket, whatever the device
    std::string trustedDir;  // where send-package writes
    uint32_t device = 0;
    bool json = false;
    int timeoutMs = 5000;
};

// The line printed for a message that came on `link`, without its newline.
std::string MessageLine(const std::string& link, const HDCMessage& msg, bool json);

// The line printed for an event of `link` ("no reply", "closed", ...),
// without its newline.
std::string EventLine(const std::string& link, const std::string& event, bool json);

class HostCommands {
  public:
    explicit HostCommands(Settings settings);
    HostCommands(const HostCommands&) = delete;
    HostCommands& operator=(const HostCommands&) = delete;

    // Sends the request `command` with its FIELDS `args` and waits for its
    // reply as they say. Throws UsageError.
    int RunRequest(const std::string& command, const std::vector<std::string>& args);

    // Sends a malformed frame (--declare N [--send K] or --garbage N) and
    // prints what comes back. Throws UsageError.
    int RunFrame(const std::vector<std::string>& args);

    // Opens args[0] links at once, sends on each the first --send K bytes of
    // a frame announcing --declare N bytes (nothing without --declare),
    // holds them --hold MS (0: until the daemon has closed every one), and
    // prints how many the daemon refused at once and how many it ended
    // while they were held. Throws UsageError.
    int RunLinks(const std::vector<std::string>& args);

    // Runs the steps of `script`, one per line, on links it opens by name;
    // stops at the first step that fails. Throws UsageError.
    int RunSession(std::istream& script);

    // Writes the file args[0] into the device's (or --vf N's) trusted
    // directory under its own name, then closes it. Throws UsageError.
    int SendPackage(const std::vector<std::string>& args);

  private:
    // A path that sandbox.env names: from the state directory's file when
    // there is one, else from this process's environment, else (run inside
    // the sandbox) the path as the sandbox lays it out, `inside`.
    std::string SandboxPath(const std::string& name, const std::string& inside,
                            const std::string& option) const;
    std::string SocketFor(uint32_t device) const;
    // A link to `device`'s server; null, with the reason on standard error,
    // when it cannot be opened.
    std::unique_ptr<HostLink> OpenLink(uint32_t device) const;

    void PrintMessage(const std::string& link, const HDCMessage& msg) const;
    void PrintEvent(const std::string& link, const std::string& event) const;
    // Waits for a message of `type` (-1: any), printing every message that comes.
    int Await(HostLink& link, const std::string& name, int type, int timeoutMs,
              HDCMessage* got = nullptr) const;

    const Settings settings_;
};

}  // namespace orv::host

#endif  // ORV_EMU_HOST_HOST_COMMANDS_H
