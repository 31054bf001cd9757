// Where the emulated card's pieces find each other. Inside the sandbox every
// default holds; outside it, the environment variables point elsewhere.
#ifndef ORV_EMU_COMMON_EMU_PATHS_H
#define ORV_EMU_COMMON_EMU_PATHS_H

#include <cstdlib>
#include <string>

namespace orv::emu {

// The card emulator's driver socket (driver HAL calls).
inline constexpr char kCardSocketEnv[] = "ORV_EMU_CARD_SOCKET";
inline constexpr char kDefaultCardSocket[] = "/run/orv-card/card.sock";

// The card emulator's control socket (orv-emu-ctl).
inline constexpr char kControlSocketEnv[] = "ORV_EMU_CONTROL";
inline constexpr char kDefaultControlSocket[] = "/run/orv-card/control.sock";

// Directory of the HDC servers' sockets, one "dev<N>.sock" per device.
inline constexpr char kHdcDirEnv[] = "ORV_EMU_HDC_DIR";
inline constexpr char kDefaultHdcDir[] = "/run/orv-hdc";

// System log: file, threshold, copy to standard error.
inline constexpr char kLogFileEnv[] = "ORV_EMU_LOG_FILE";
inline constexpr char kLogLevelEnv[] = "ORV_EMU_LOG_LEVEL";
inline constexpr char kLogStderrEnv[] = "ORV_EMU_LOG_STDERR";
inline constexpr char kSandboxLogFile[] = "/var/log/orv/system.log";

// The HDC transport's link time-outs in milliseconds, shorter than the
// limits table's for tests that watch a link being ended.
inline constexpr char kHdcFirstFrameMsEnv[] = "ORV_EMU_HDC_FIRST_FRAME_MS";
inline constexpr char kHdcPartialFrameMsEnv[] = "ORV_EMU_HDC_PARTIAL_FRAME_MS";

// The app monitor's socket, as the daemon names it.
inline constexpr char kAppmonSocket[] = "/var/driver/appmon.socket";

// The value of environment variable `name`, or `fallback` when unset or empty.
inline std::string EnvOr(const char* name, const char* fallback) {
    const char* value = std::getenv(name);
    return (value != nullptr && *value != '\0') ? std::string(value) : std::string(fallback);
}

// The stand-ins' behaviour table the card publishes beside its driver socket.
inline std::string StandinBoardOfDriverSocket(const std::string& driverSocket) {
    return driverSocket.substr(0, driverSocket.find_last_of('/') + 1) + "standins";
}

}  // namespace orv::emu

#endif  // ORV_EMU_COMMON_EMU_PATHS_H
