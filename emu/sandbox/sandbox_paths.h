// Fixed places inside every sandbox, and where a sandbox's state directory
// keeps them on the host.
#ifndef ORV_EMU_SANDBOX_SANDBOX_PATHS_H
#define ORV_EMU_SANDBOX_SANDBOX_PATHS_H

#include <string>

namespace orv::emu {

// Inside the sandbox.
inline constexpr char kNotifySocket[] = "/run/orv-sandbox/notify";
inline constexpr char kSandboxBinDir[] = "/run/orv-sandbox/bin";
inline constexpr char kBootEnvFile[] = "/run/orv-sandbox/boot.env";
inline constexpr char kDaemonOutput[] = "/var/log/orv/orvdaemon.out";
inline constexpr char kCardLog[] = "/var/log/orv/card-emu.log";
inline constexpr char kDaemonName[] = "orvdaemon";

// Names of the notices sent to the notify socket (one datagram each, "NAME=VALUE").
inline constexpr char kNoticeCardReady[] = "CARD_READY";
inline constexpr char kNoticeReady[] = "READY";
inline constexpr char kNoticeStartFailed[] = "START_FAILED";
inline constexpr char kNoticeDaemonExited[] = "DAEMON_EXITED";

// The parts of a state directory on the host.
struct StatePaths {
    explicit StatePaths(std::string dir) : root(std::move(dir)) {}

    std::string Var() const { return root + "/var"; }
    std::string Home() const { return root + "/home"; }
    std::string Run() const { return root + "/run"; }
    std::string Cgroup() const { return root + "/cgroup"; }
    std::string Lib64Upper() const { return root + "/lib64/upper"; }
    std::string Lib64Work() const { return root + "/lib64/work"; }
    std::string Marker() const { return root + "/.orv-sandbox"; }
    std::string PidFile() const { return root + "/sandbox.pid"; }
    std::string EnvFile() const { return root + "/sandbox.env"; }
    // An inside path as seen from the host: "/var/x" -> "<root>/var/x".
    std::string Outside(const std::string& inside) const;

    std::string root;
};

}  // namespace orv::emu

#endif  // ORV_EMU_SANDBOX_SANDBOX_PATHS_H
