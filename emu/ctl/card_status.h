// The card as the status view shows it, gathered from outside the daemon
// only: the card emulator's tables (devices, control CPUs, the packages it was
// asked to verify), the HDC library's session board, the sandbox's processes
// (read from /proc of its PID namespace) and its files (trusted directories,
// installed kernels, the emulated memory cgroups), and the kernel's account
// of the daemon's inotify watches. Whatever vanishes while it is read is left
// out: processes end and files are replaced all the time.
#ifndef ORV_EMU_CTL_CARD_STATUS_H
#define ORV_EMU_CTL_CARD_STATUS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orv::emu {

struct SubProcessView {
    std::string kind;     // zarn, compute, custom, queue
    pid_t pid = 0;        // inside the sandbox, as the daemon sees it
    pid_t outerPid = 0;   // as seen from outside
    char state = '?';     // the kernel's letter (R, S, D, Z, T, ...)
    pid_t parentPid = 0;  // inside
    bool orphan = false;  // its parent is not the running daemon
    int64_t sinceMs = 0;  // when it started, ms since the epoch
    uint32_t hostPid = 0;
    int32_t vfId = -1;  // -1 when its command line does not say
    int32_t chipId = -1;
};

struct HostView {
    uint32_t hostPid = 0;
    std::vector<uint32_t> sessions;  // HDC sessions whose last request named it
    int64_t sinceMs = 0;             // its first framework request, else its oldest sub-process
    std::vector<SubProcessView> subProcesses;
    // The kinds of its sub-processes, each once, in the order of their
    // process types (zarn, compute, custom, queue).
    std::vector<std::string> Runs() const;
};

struct PackageView {
    std::string name;                   // the Name= of its version.info
    std::optional<uint32_t> checkCode;  // the package file's size, when the card saw it verified
    int64_t installedMs = 0;
};

struct MemoryView {
    uint64_t limit = 0;
    uint64_t usage = 0;
};

struct VfView {
    int32_t id = 0;
    bool watcher = false;  // the daemon watches this VF's trusted directory on this device
    std::optional<PackageView> package;
    std::optional<MemoryView> memory;
    std::vector<HostView> hosts;
};

struct DeviceView {
    uint32_t index = 0;
    int32_t chipId = 0;
    std::vector<uint32_t> ctrlCpus;
    std::vector<VfView> vfs;
    uint32_t anonymousLinks = 0;  // HDC sessions with no framework request yet
};

struct CardView {
    std::string stateDir;
    int64_t timeMs = 0;
    std::string error;  // why nothing could be read; empty when the card was read
    pid_t sandboxPid = 0;
    pid_t daemonPid = 0;  // inside; 0 when no daemon runs
    pid_t daemonOuterPid = 0;
    int64_t daemonSinceMs = 0;
    int32_t chipType = 0;
    std::vector<DeviceView> devices;
    // Sub-processes whose device or VF matches none shown (leftovers, say).
    std::vector<SubProcessView> unplaced;
};

// Reads the card of the sandbox on `stateDir`.
CardView ReadCardView(const std::string& stateDir);

// The kind of a sub-process program, from its name ("aicpu_runner", or a
// path of it); empty for any other program.
std::string SubProcessKind(const std::string& program);

// The first limits::kMaxStatusFileBytes of a file, the most the view reads of
// one: what it reads was written by others (a package's version.info, a
// process's /proc entries).
std::string ReadStatusFile(const std::string& path);

// What the daemon's inotify descriptors watch: "major:minor:inode" of each
// watched directory, from the kernel's fdinfo text of one descriptor.
std::vector<std::string> InotifyWatches(const std::string& fdinfo);

}  // namespace orv::emu

#endif  // ORV_EMU_CTL_CARD_STATUS_H
