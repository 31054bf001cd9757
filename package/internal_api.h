// Small stateless helpers the whole daemon uses: trimming, file sizes, pattern
// matches, environment reads, path checks and shell commands.
#ifndef ORV_PACKAGE_INTERNAL_API_H
#define ORV_PACKAGE_INTERNAL_API_H

#include <cstdint>
#include <string>

namespace orv {

// Removes leading and trailing spaces (0x20 only; tabs and line ends stay).
void Trim(std::string& text);

// Size of a file truncated to 32 bits (a kernel package's check code); 0 when
// it cannot be opened.
uint32_t CalFileSize(const std::string& path);

// True when the POSIX extended regular expression `pattern` matches somewhere
// in `text`; false also when the pattern does not compile.
bool ValidateStr(const std::string& text, const std::string& pattern);

// Copies environment variable `name` into `value`; an unset (or absurdly long)
// variable logs a warning and leaves `value` as it was.
void GetEnv(const char* name, std::string& value);

// True when DATAMASTER_RUN_MODE is exactly "1": the FPGA prototype platform.
bool IsZEBPG2FPGAEnv();

// True when `path` names an existing location reached without symbolic links
// or dot components (its real path begins with it).
bool CheckRealPath(const std::string& path);

// True when `path` holds only letters, digits and / _ . - \ characters.
bool CheckValidatePath(const std::string& path);

// Runs `command` through /bin/sh and waits for it, as system() would but
// without touching the daemon's SIGCHLD disposition. Returns the raw wait
// status (0 when it exited 0, its code times 256, or the terminating signal);
// -1 when no shell could be started.
int32_t PackSystem(const char* command);

// The text of the current errno; errno is left as it was.
std::string SafeStrerror();

// True for an errno that says something ran short for a while (descriptors,
// memory, processes, room on a file system) rather than that what was asked
// for is wrong: the same call may succeed later.
bool IsShortage(int err);

}  // namespace orv

#endif  // ORV_PACKAGE_INTERNAL_API_H
