// What the fuzz targets share: a quiet system log, the daemon started once in
// the fuzzer's process, a bystander process the daemon must never signal, a
// host link that writes raw bytes and collects the replies, and a jail that
// keeps file-system side effects inside one scratch directory.
//
// Every target runs inside `orv-sandbox --state-tmp`, which gives the daemon
// its fixed paths and the card emulator.
#ifndef ORV_FUZZ_FUZZ_SUPPORT_H
#define ORV_FUZZ_FUZZ_SUPPORT_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "emu/common/unique_fd.h"

namespace orv::fuzz {

// Prints "orv-fuzz: <message>" and aborts: the harness itself cannot go on,
// or an input broke an invariant the sanitizers do not see.
[[noreturn]] void Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Sends the system log to /dev/null (every line is still formatted), or to
// the file ORV_FUZZ_LOG names, and drops protobuf's complaints about what it
// parses. Call before anything logs.
void QuietSystemLog();

// Runs `hook` when the process ends in exit(), before the exit handlers run;
// hooks run in the reverse order of their registration.
void BeforeExit(void (*hook)());

// Starts the daemon in this process, as the daemon executable would; fails
// when it does not come up. Its orderly shutdown runs before exit.
void StartDaemon();

// A process that is neither this process's child nor one of the daemon's
// sub-processes. The daemon may signal its own sub-processes only, so the
// bystander must outlive every input.
class Bystander {
  public:
    // Starts it; call before the daemon starts (it waits for a child).
    void Start();
    // Fails when it is gone.
    void Check() const;

  private:
    pid_t pid_ = -1;
};

// The HDC socket of device 0, as the emulated HDC server library names it.
std::string HdcSocketPath();

// The whole frames at the start of `data` (at most `maxFrames`), split as the
// HDC library splits them: a 4-byte big-endian length, then the payload. The
// library stops reading at a truncated or over-long frame, so what follows
// one is no frame. `consumed` is the length of the frames' bytes.
struct FrameSplit {
    std::vector<std::string> payloads;
    size_t consumed = 0;
};
FrameSplit SplitFrames(const uint8_t* data, size_t size, size_t maxFrames = SIZE_MAX);

// The payloads as frames.
std::string JoinFrames(const std::vector<std::string>& payloads);

// One host connection to an HDC server that sends arbitrary bytes.
class RawHostLink {
  public:
    // Connects; fails when the server cannot be reached.
    explicit RawHostLink(const std::string& socketPath);

    // Writes `size` bytes while reading whatever the daemon sends, half-closes
    // the connection, and reads on until the daemon has closed its end (after
    // the session's end has been handled). The payloads of the whole frames
    // received are returned in order; a trailing partial frame is dropped.
    std::vector<std::string> Exchange(const uint8_t* data, size_t size);

  private:
    emu::UniqueFd fd_;
};

// A file-system jail for targets whose daemon code renames or writes files
// named by the input: a private mount namespace in which every mount is
// read-only except a fresh tmpfs (the scratch directory), the directories the
// fuzzer writes its corpus and findings to, and /dev, /proc and /sys.
// A rename that leaves the scratch directory then fails (read-only or across
// file systems) instead of touching the host's files.
class ScratchJail {
  public:
    // Sets the jail up for the calling thread; `argc`/`argv` are the fuzzer's,
    // from which the corpus and artifact directories are taken.
    ScratchJail(const std::string& scratchDir, int argc, char** argv);

    const std::string& Dir() const { return dir_; }
    // Empties the scratch directory.
    void Clear() const;

  private:
    std::string dir_;
};

// Restores this process's environment to what it was at construction.
class EnvironmentSnapshot {
  public:
    EnvironmentSnapshot();
    void Restore() const;

  private:
    std::vector<std::string> entries_;
};

}  // namespace orv::fuzz

#endif  // ORV_FUZZ_FUZZ_SUPPORT_H
