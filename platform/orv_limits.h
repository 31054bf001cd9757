// Every bound the daemon and the emulated card put on what their peers may
// make them hold, read or wait for, in one place. Each has its reason; the
// README's table of limits lists the same rows, and each row has a test that
// shows the bound refusing while everyone else is still served.
//
// A peer learns the bound from the refusal's log line, the operator from the
// table. Values fixed by the daemon's protocol are marked as such: they are
// not ours to tune.
#ifndef ORV_PLATFORM_ORV_LIMITS_H
#define ORV_PLATFORM_ORV_LIMITS_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace orv::limits {

// ---- Host links (HDC transport) ----

// A frame longer than this ends its link (protocol).
inline constexpr uint32_t kMaxFrameBytes = 1048576;
// Links one device serves at once, each on a thread of its own: far above
// what the hosts of one device open (a host process holds one).
inline constexpr size_t kMaxLinksPerDevice = 1024;
// Links one process of the card may hold on one device: a host process
// needs one, a tool driving many host processes a few hundred at most.
// Hosts reaching the emulated card from outside it are bounded by the
// device's total only.
inline constexpr size_t kMaxLinksPerPeer = 256;
// The last slots of a device go only to processes that hold no link on it
// yet, so that the card's processes filling it never lock a new host out.
inline constexpr size_t kLinksReservedForNewPeers = 64;
// A link must send its first whole frame within this; one that sends nothing
// holds a slot and a thread for nothing.
inline constexpr std::chrono::milliseconds kFirstFrameTimeout(30000);
// A frame once begun must be whole within this: honest hosts write a frame
// in one go.
inline constexpr std::chrono::milliseconds kPartialFrameTimeout(10000);
// A reply the host has not taken within this ends its link, so that a host
// that does not read holds up nobody who answers it.
inline constexpr std::chrono::milliseconds kReplyWriteTimeout(2000);
// Frames up to this size are read at once; bigger ones first take their
// length from a process-wide budget, so that many links sending big frames
// at once cannot make the process hold them all. A big frame that finds no
// room ends its link (honest frames are a few hundred bytes).
inline constexpr uint32_t kSmallFrameBytes = 4096;
inline constexpr size_t kFrameBudgetBytes = 16u << 20;
// Fields a frame may hold, nested ones included: each costs a parsed message
// tens of bytes, so a frame of tiny fields would parse into many times its
// size. An honest request holds a few dozen.
inline constexpr size_t kMaxFrameFields = 4096;
// What a link's version handshake may announce; more is not kept. The
// protocol's own list has a dozen entries of a few bytes.
inline constexpr size_t kMaxFeatureEntries = 256;
inline constexpr size_t kMaxFeatureBytes = 16384;

// ---- Host requests ----

// Host strings that reach command lines, driver calls and logs: far longer
// than any honest host sends (a process sign is 48 characters, a log level
// 3; a group name fits the driver's 32 bytes with its end).
inline constexpr size_t kMaxProcSignLength = 128;
inline constexpr size_t kMaxLogLevelLength = 32;
inline constexpr size_t kMaxGroupNameLength = 31;
// Sessions per (device, VF): AICPU_MAX_NUM, within these (protocol).
inline constexpr uint32_t kDefaultSessionsPerVf = 32;
inline constexpr uint32_t kMaxSessionsPerVf = 128;

// ---- Sessions and events ----

// Threads at work in each of a session's two lists (start and close workers;
// event threads); an event beyond is dropped with a log line.
inline constexpr size_t kMaxSessionThreads = 64;
// Events the card's scheduler queues from one sender for one group, as a
// finite driver queue does; a flooding sub-process fills only its own share.
inline constexpr uint32_t kMaxQueuedEventsPerSender = 1024;
// How long the compute process's request for the custom process waits for
// its start report.
inline constexpr std::chrono::seconds kCustomStartWait(30);
// The driver's VF notices run the VF scripts, off the event workers, one at a
// time on a thread of their own; notices beyond this many waiting are
// answered -1 at once. The driver sends one per VF change, and waits for it.
inline constexpr size_t kMaxQueuedVfNotices = 64;

// ---- Kernel packages ----

// A card's kernel packages are tens of megabytes; a file over this (taken
// from its length, before anything is read) is refused. On a VF with a
// memory cgroup the VF's room bounds it further.
inline constexpr uint64_t kMaxPackageBytes = 128ull << 20;
// What a package may uncompress to: its archive, and so what the unpack
// writes, including every member's data.
inline constexpr uint64_t kMaxArchiveBytes = 1ull << 30;
// Members a package may have, and the bytes of their listing (names up to
// PATH_MAX each).
inline constexpr size_t kMaxPackageMembers = 100000;
inline constexpr size_t kMaxListingBytes = 16u << 20;
// version.info is a short key=value file: a line or a file beyond these
// refuses the package.
inline constexpr size_t kMaxVersionInfoLineBytes = 4096;
inline constexpr size_t kMaxVersionInfoLines = 1024;
// An install cut short by a shortage that may pass (descriptors, memory,
// disk) leaves the package in place and tries again, this often at most,
// after a pause that doubles from the first to the last.
inline constexpr uint32_t kMaxInstallAttempts = 8;
inline constexpr std::chrono::milliseconds kFirstRetryPause(1000);
inline constexpr std::chrono::milliseconds kLastRetryPause(30000);
// Packages of one VF waiting for such a retry; beyond, the oldest is left in
// place without one.
inline constexpr size_t kMaxPendingPackagesPerVf = 16;
// One watch thread per VF (0 to 16) installs that VF's packages one at a
// time. An install under way looks this often whether it is to stop (the
// daemon's stop, or its VF's destruction), so that it ends well within the
// second a stop may take.
inline constexpr std::chrono::milliseconds kInstallCancelPoll(50);

// ---- Text and output read from the system ----

// The environment script: its first 20 lines are read (protocol), each of
// at most this many bytes; a longer one is skipped.
inline constexpr int kMaxEnvScriptLines = 20;
inline constexpr size_t kMaxEnvScriptLineBytes = 65536;
// Output of a command the daemon reads (pidof's pid list, the VF listing):
// more is not read.
inline constexpr size_t kMaxCommandOutputBytes = 65536;
inline constexpr size_t kMaxCommandOutputLines = 4096;
// A memory cgroup control file holds one number.
inline constexpr size_t kMaxControlFileLineBytes = 4096;

// ---- The process ----

// Descriptors the daemon may hold: every link of four devices, four pidfds
// for each session the quotas allow, the watchers, installs and the driver,
// with room to spare. The service unit's LimitNOFILE; the daemon raises its
// soft limit to it at start.
inline constexpr uint64_t kMaxDescriptors = 65536;

// ---- The emulated card ----

// Connections one process may hold to the card's driver socket, and in all:
// the emulated driver keeps a few idle ones per process and opens one per
// call under way, and the daemon's threads make a few hundred calls at once
// at most.
inline constexpr size_t kMaxDriverConnectionsPerPeer = 512;
inline constexpr size_t kMaxDriverConnections = 4096;
inline constexpr size_t kDriverConnectionsReservedForNewPeers = 256;
// Connections to the card's control and app-monitor sockets, in all and of
// one process: a few tools and the daemon's one registration use them.
inline constexpr size_t kMaxCardServiceConnections = 256;
inline constexpr size_t kMaxCardServiceConnectionsPerPeer = 64;
// A request to the card, and an answer the card's clients take.
inline constexpr uint32_t kMaxCardRequestBytes = 1u << 20;
inline constexpr uint32_t kMaxCardReplyBytes = 16u << 20;
// What the status view reads of a file (a package's version.info, a
// process's /proc entries): the first bytes only.
inline constexpr size_t kMaxStatusFileBytes = 1u << 20;
// A line of the app-monitor protocol.
inline constexpr size_t kMaxAppmonLineBytes = 4096;

}  // namespace orv::limits

#endif  // ORV_PLATFORM_ORV_LIMITS_H
