// Driving a sandbox from outside, as tests, the demo and benchmarks do: boot
// it, read its sandbox.env, run commands inside, stop it, and read what the
// sub-process stand-ins recorded.
#ifndef ORV_EMU_SANDBOX_SANDBOX_CLIENT_H
#define ORV_EMU_SANDBOX_SANDBOX_CLIENT_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orv::emu {

// Runs a program to its end; its exit status (128 + signal when killed, -1 on
// time-out), and its standard output and error, merged, when asked.
int RunProgram(const std::vector<std::string>& argv, std::string* output = nullptr,
               const std::string& input = "",
               std::chrono::milliseconds timeout = std::chrono::minutes(2));

// The directory of the running program: for the project's programs, build/bin,
// where orv-sandbox and the rest are too.
std::string ProgramDir();

// Starts a program so that it is not this process's child (whoever adopts it
// reaps it): its pid, or -1.
pid_t SpawnDetached(const std::vector<std::string>& argv);

class SandboxClient {
  public:
    // `binDir` holds orv-sandbox; `stateDir` must be empty or a sandbox's.
    SandboxClient(std::string binDir, std::string stateDir);
    // Stops the sandbox if it still runs.
    ~SandboxClient();
    SandboxClient(const SandboxClient&) = delete;
    SandboxClient& operator=(const SandboxClient&) = delete;

    // Starts `orv-sandbox --state DIR --boot ARGS...`; true once the daemon is
    // ready (sandbox.env published), false when the sandbox ended first or the
    // time ran out. Its output goes to DIR.out.
    bool Boot(const std::vector<std::string>& args, std::chrono::milliseconds timeout);

    // Sends SIGTERM and waits; the exit status, -1 on time-out.
    int Stop(std::chrono::milliseconds timeout = std::chrono::seconds(60));
    // Waits for the sandbox to end by itself; the exit status, -1 on time-out.
    int WaitExit(std::chrono::milliseconds timeout);
    bool Running() const { return pid_ > 0; }

    // Runs a command inside (--enter): its exit status and standard output.
    int Enter(const std::vector<std::string>& command, std::string* output = nullptr,
              bool detach = false) const;

    std::map<std::string, std::string> Env() const;
    const std::string& StateDir() const { return state_; }
    const std::string& BinDir() const { return binDir_; }
    std::string LogPath() const { return state_ + "/var/log/orv/system.log"; }
    std::string ControlSocket() const { return state_ + "/run/orv-card/control.sock"; }
    // The first line of a sanitizer report that a program of the sandbox
    // wrote (the daemon, its sub-processes, the card), with the file it is
    // in; empty when there is none. Sanitized builds count any as a failure.
    std::string SanitizerReport() const;
    // The daemon's pid as seen from outside, -1 when it is not ready.
    pid_t DaemonPid() const;
    // The PID namespace's identity (readlink of ns/pid), while it runs.
    const std::string& PidNamespace() const { return pidNamespace_; }

  private:
    const std::string binDir_;
    const std::string state_;
    pid_t pid_ = -1;
    int exitStatus_ = -1;
    std::string pidNamespace_;
};

// What a sub-process stand-in recorded (run/orv-stub/<pid>.txt).
struct StandinRecord {
    pid_t pid = 0;  // inside the sandbox
    uint32_t kind = 0;
    std::vector<std::string> argv;
    std::vector<std::string> env;
    std::vector<int> affinity;
    std::vector<std::string> groups;     // "NAME PERMISSIONS"
    std::vector<std::string> inherited;  // descriptors beyond 0-2 it started with: "N -> what"
    std::vector<std::string> notes;      // everything it noted afterwards, in order
    bool Has(const std::string& prefix) const;
    size_t Count(const std::string& prefix) const;
};

// Every stand-in record of the sandbox on `stateDir`, by pid.
std::vector<StandinRecord> ReadStandinRecords(const std::string& stateDir);

// Processes (outer pids) that live in the PID namespace `ns`.
std::vector<pid_t> ProcessesInNamespace(const std::string& ns);
// Those of `before`, taken while namespace `ns` lived, that live in it still.
// Once a namespace is gone its name may pass to a new one (another sandbox's),
// so after a sandbox's end only the processes it had can count as left over.
std::vector<pid_t> StillInNamespace(const std::string& ns, const std::vector<pid_t>& before);

// A process of a sandbox: its pid outside and inside, and its state letter
// (R, S, Z, ...).
struct SandboxProcess {
    pid_t outer = 0;
    pid_t inner = 0;
    char state = '?';
};
// The processes of PID namespace `ns`, read from /proc; those that end while
// it reads are left out.
std::vector<SandboxProcess> ProcessStates(const std::string& ns);

// Threads, open descriptors and resident memory (KiB) of a process; 0 when it
// is gone.
size_t ThreadCount(pid_t pid);
size_t DescriptorCount(pid_t pid);
size_t ResidentKb(pid_t pid);
// The most resident memory (KiB) the process has had, as the kernel counts it.
size_t PeakResidentKb(pid_t pid);

}  // namespace orv::emu

#endif  // ORV_EMU_SANDBOX_SANDBOX_CLIENT_H
