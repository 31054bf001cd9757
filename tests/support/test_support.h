// Helpers the tests share: files, waiting, the system log, a private card
// emulator, and booted sandboxes driven from outside.
#ifndef ORV_TESTS_SUPPORT_TEST_SUPPORT_H
#define ORV_TESTS_SUPPORT_TEST_SUPPORT_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "card.pb.h"
#include "emu/host/host_link.h"
#include "emu/sandbox/sandbox_client.h"
#include "tests/support/build_kind.h"

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
void InjectFault(const std::string& controlSocket, const std::string& call, int32_t code,
                 uint32_t count);
// The text of orv-emu-ctl's listing of groups, the app monitor or processes.
std::string ShowGroups(const std::string& controlSocket);
std::string ShowAppmon(const std::string& controlSocket);

// The control socket of the sandbox a test runs in.
std::string InsideControlSocket();

using emu::SpawnDetached;

// A booted sandbox in a temporary state directory, kept for inspection when
// the test failed.
class SandboxRun : public emu::SandboxClient {
  public:
    SandboxRun();
    ~SandboxRun();

    bool Boot(const std::vector<std::string>& args, std::chrono::milliseconds timeout = 30s) {
        return SandboxClient::Boot(args, timeout);
    }
    LogCapture Log() const { return LogCapture(LogPath(), true); }
};

// A Unix datagram socket that receives service notifications, as systemd's
// does: bound at a path, or at an abstract name given as "@name".
class NotifyListener {
  public:
    explicit NotifyListener(const std::string& name);
    ~NotifyListener();
    NotifyListener(const NotifyListener&) = delete;
    NotifyListener& operator=(const NotifyListener&) = delete;

    bool Bound() const { return fd_ >= 0; }
    // The next datagram, or nullopt when none comes within `timeout`.
    std::optional<std::string> Receive(std::chrono::milliseconds timeout);

  private:
    std::string path_;
    int fd_ = -1;
};

using emu::DescriptorCount;
using emu::PeakResidentKb;
using emu::ProcessesInNamespace;
using emu::ResidentKb;
using emu::RunProgram;
using emu::StandinRecord;
using emu::StillInNamespace;
using emu::ThreadCount;

// orv-host and orv-emu-ctl against a sandbox.
int Host(const SandboxRun& sandbox, const std::vector<std::string>& args,
         std::string* output = nullptr, const std::string& input = "");
int EmuCtl(const SandboxRun& sandbox, const std::vector<std::string>& args,
           std::string* output = nullptr);

// A host link to `device`, held by the test for as long as it needs the
// host's session (a session ends with its link); null, with a failure
// recorded, when it cannot connect.
std::unique_ptr<host::HostLink> HoldLink(const SandboxRun& sandbox, uint32_t device = 0);

std::vector<StandinRecord> StandinRecords(const SandboxRun& sandbox);
std::vector<StandinRecord> StandinRecordsOfKind(const SandboxRun& sandbox, uint32_t kind);

// The daemon's outer pid from sandbox.env.
inline pid_t DaemonPid(const SandboxRun& sandbox) {
    return sandbox.DaemonPid();
}

}  // namespace orv::test

#endif  // ORV_TESTS_SUPPORT_TEST_SUPPORT_H
