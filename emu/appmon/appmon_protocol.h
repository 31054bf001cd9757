// The line protocol between the app-monitor client library and the card
// emulator's app monitor. Each request is one line; each answer is "OK" or
// "ERR <code>".
//
//   HELLO                        opens a connection (answered ERR when refused)
//   REGISTER <timeout-ms> <cmd>  starts supervision; <cmd> runs when beats stop
//   HEARTBEAT
//   DEREGISTER <reason>          ends supervision
#ifndef ORV_EMU_APPMON_APPMON_PROTOCOL_H
#define ORV_EMU_APPMON_APPMON_PROTOCOL_H

#include <string>

#include "platform/orv_limits.h"

namespace orv::emu {

inline constexpr char kAppmonHello[] = "HELLO";
inline constexpr char kAppmonRegister[] = "REGISTER";
inline constexpr char kAppmonHeartbeat[] = "HEARTBEAT";
inline constexpr char kAppmonDeregister[] = "DEREGISTER";
inline constexpr char kAppmonOk[] = "OK";
inline constexpr char kAppmonErr[] = "ERR";

// Longest line either side accepts.
inline constexpr size_t kAppmonMaxLine = limits::kMaxAppmonLineBytes;

// Reads one '\n'-terminated line (without the '\n'); false on end of stream,
// error, or a line longer than kAppmonMaxLine.
bool ReadLine(int fd, std::string* line);

// Writes `line` followed by '\n'.
bool WriteLine(int fd, const std::string& line);

}  // namespace orv::emu

#endif  // ORV_EMU_APPMON_APPMON_PROTOCOL_H
