// Helpers the tests share: files, waiting, the system log, a private card
// emulator, and booted sandboxes driven from outside.
#ifndef ORV_TESTS_SUPPORT_TEST_SUPPORT_H
#define ORV_TESTS_SUPPORT_TEST_SUPPORT_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "card.pb.h"

namespace orv::test {

using namespace std::chrono_literals;

// Where the build put the programs.
std::string BinDir();

std::string MakeTempDir(const std::string& prefix);
void RemoveTree(const std::string& path);
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);

// Polls `condition` until it holds or `timeout` passes.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
             std::chrono::milliseconds poll = 20ms);

// The system log from a point on: lines written after construction.
class LogCapture {
public:
    // Uses the log file the environment names (inside a sandbox), or points
    // the emulated system log at a fresh file of its own.
    explicit LogCapture(const std::string& level = "info");
    LogCapture(std::string path, bool fromStart);

    std::vector<std::string> Lines() const;
    // Lines containing `text`.
    std::vector<std::string> Matching(const std::string& text) const;
    size_t Count(const std::string& text) const;
    bool Contains(const std::string& text) const { return Count(text) > 0; }
    // True when every text appears, each on a later line than the one before.
    bool InOrder(const std::vector<std::string>& texts, std::string* missing = nullptr) const;
    bool WaitFor(const std::string& text, std::chrono::milliseconds timeout) const;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
    size_t offset_ = 0;
};

// An orv-card-emu process on private sockets, stopped on destruction.
class CardEmulatorProcess {
public:
    explicit CardEmulatorProcess(const std::vector<std::string>& args);
    ~CardEmulatorProcess();
    CardEmulatorProcess(const CardEmulatorProcess&) = delete;
    CardEmulatorProcess& operator=(const CardEmulatorProcess&) = delete;

    bool Running() const { return pid_ > 0; }
    const std::string& DriverSocket() const { return driverSocket_; }
    const std::string& ControlSocket() const { return controlSocket_; }
    const std::string& AppmonSocket() const { return appmonSocket_; }

    // Points this process's emulated driver at this card. Call before the
    // first driver call.
    void UseAsDriver() const;

private:
    std::string dir_;
    std::string driverSocket_;
    std::string controlSocket_;
    std::string appmonSocket_;
    pid_t pid_ = -1;
};

// Sends one control request; fails the test when the card cannot be reached.
emu::CardReply Control(const std::string& controlSocket, const emu::CardRequest& request);
// "next `count` calls of `call` return `code`".
void InjectFault(const std::string& controlSocket, const std::string& call, int32_t code, uint32_t count);
// The text of orv-emu-ctl's listing of groups, the app monitor or processes.
std::string ShowGroups(const std::string& controlSocket);
std::string ShowAppmon(const std::string& controlSocket);

// The control socket of the sandbox a test runs in.
std::string InsideControlSocket();

// Starts a program so that it is not this process's child (it is reaped by
// whoever adopts it); returns its pid, or -1.
pid_t SpawnDetached(const std::vector<std::string>& argv);

// An orv-sandbox run from outside: --boot, or a command.
class SandboxRun {
public:
    SandboxRun();
    ~SandboxRun();
    SandboxRun(const SandboxRun&) = delete;
    SandboxRun& operator=(const SandboxRun&) = delete;

    // Starts `orv-sandbox --state DIR --boot ARGS...`. True once the daemon is
    // ready (sandbox.env published); false when the sandbox exited first.
    bool Boot(const std::vector<std::string>& args, std::chrono::milliseconds timeout = 30s);

    // Sends SIGTERM and waits; returns the exit status, -1 on time-out.
    int Stop(std::chrono::milliseconds timeout = 60s);
    // Waits for the sandbox to exit by itself; returns its status, -1 on time-out.
    int WaitExit(std::chrono::milliseconds timeout);

    // Runs a command inside (--enter); returns its exit status and, when
    // asked, its standard output. A detached command is left running.
    int Enter(const std::vector<std::string>& command, std::string* output = nullptr, bool detach = false) const;

    // sandbox.env as a map.
    std::map<std::string, std::string> Env() const;
    const std::string& StateDir() const { return state_; }
    std::string LogPath() const { return state_ + "/var/log/orv/system.log"; }
    LogCapture Log() const { return LogCapture(LogPath(), true); }
    std::string ControlSocket() const { return state_ + "/run/orv-card/control.sock"; }
    // The PID namespace's identity (readlink of ns/pid), while it runs.
    const std::string& PidNamespace() const { return pidNamespace_; }

private:
    std::string state_;
    pid_t pid_ = -1;
    int exitStatus_ = -1;
    std::string pidNamespace_;
};

// Processes (outer pids) that live in the PID namespace `ns`.
std::vector<pid_t> ProcessesInNamespace(const std::string& ns);

// Runs a program to its end; its exit status, and its standard output (and
// error, merged) when asked. `input` goes to its standard input.
int RunProgram(const std::vector<std::string>& argv, std::string* output = nullptr, const std::string& input = "");

// orv-host and orv-emu-ctl against a sandbox.
int Host(const SandboxRun& sandbox, const std::vector<std::string>& args, std::string* output = nullptr,
         const std::string& input = "");
int EmuCtl(const SandboxRun& sandbox, const std::vector<std::string>& args, std::string* output = nullptr);

// What a sub-process stand-in recorded (run/orv-stub/<pid>.txt).
struct StandinRecord {
    pid_t pid = 0;  // inside the sandbox
    uint32_t kind = 0;
    std::vector<std::string> argv;
    std::vector<std::string> env;
    std::vector<int> affinity;
    std::vector<std::string> groups;  // "NAME PERMISSIONS"
    std::vector<std::string> notes;   // everything it noted afterwards, in order
    bool Has(const std::string& prefix) const;
    size_t Count(const std::string& prefix) const;
};
std::vector<StandinRecord> StandinRecords(const SandboxRun& sandbox);
std::vector<StandinRecord> StandinRecordsOfKind(const SandboxRun& sandbox, uint32_t kind);

// Threads and open descriptors of a process (outer pid).
size_t ThreadCount(pid_t pid);
size_t DescriptorCount(pid_t pid);

// The daemon's outer pid from sandbox.env.
pid_t DaemonPid(const SandboxRun& sandbox);

}  // namespace orv::test

#endif  // ORV_TESTS_SUPPORT_TEST_SUPPORT_H
