// Runs a program for the daemon and waits for exactly that program, whatever
// the daemon's SIGCHLD disposition is and whatever other threads do meanwhile.
//
// The daemon ignores SIGCHLD with SA_NOCLDWAIT, so the kernel reaps its
// ordinary children at once and their status is lost; switching the
// disposition around each command races with every other thread. Instead the
// daemon's direct child is started with no exit signal at all: the reaping
// rule applies to SIGCHLD children only, so the kernel keeps it until it is
// waited for, and its pid cannot be reused meanwhile. That child never
// executes anything (an exec would give it SIGCHLD as exit signal again); it
// starts the program as its own child, with SIGCHLD at the default, waits for
// it and hands the status up through a pipe, holding none of the daemon's
// other descriptors meanwhile. The process-wide disposition is never touched.
#ifndef ORV_PACKAGE_CHILD_PROCESS_H
#define ORV_PACKAGE_CHILD_PROCESS_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace orv {

// Descriptors the child gets as its standard input and output; -1 leaves the
// daemon's own.
struct ChildStdio {
    int input = -1;
    int output = -1;
};

// How a program runs beyond its command line.
struct ChildOptions {
    ChildStdio stdio;
    // A directory (open descriptor) the program starts in; -1: "/", the
    // daemon's own.
    int cwd = -1;
    // The largest file the program may write (RLIMIT_FSIZE); 0: no bound of
    // its own. A program that writes past it dies of SIGXFSZ.
    uint64_t maxFileBytes = 0;
    // Looked at while the program runs: once it is set the program is killed
    // and the run ends with kChildCancelled.
    const std::atomic<bool>* cancel = nullptr;
};

// What a run gives instead of a wait status.
inline constexpr int32_t kChildNotStarted = -1;
inline constexpr int32_t kChildCancelled = -2;
inline constexpr int32_t kChildOutputTooLong = -3;

// Runs `argv` (argv[0] is looked up in PATH when it holds no "/") with the
// daemon's environment, SIGCHLD at its default in the child, and waits for it.
// Returns the raw wait status as system() does (exit code times 256, or the
// terminating signal), 127 times 256 when the program could not be executed,
// and kChildNotStarted when no child could be started.
int32_t RunChild(const std::vector<std::string>& argv, const ChildStdio& stdio = {});
int32_t RunChild(const std::vector<std::string>& argv, const ChildOptions& options);

// As RunChild, collecting the child's standard output into `output`. Once
// more than `maxOutput` bytes arrive the child is killed and
// kChildOutputTooLong is returned.
int32_t RunChildForOutput(const std::vector<std::string>& argv, const ChildOptions& options,
                          std::string* output, size_t maxOutput);

}  // namespace orv

#endif  // ORV_PACKAGE_CHILD_PROCESS_H
