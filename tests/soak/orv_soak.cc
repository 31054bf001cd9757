// orv-soak: a long run of start/close cycles from several host processes at
// once on a two-device card, with sub-process crashes and dropped links mixed
// in, and hostile peers: records forged by a process that is none of the
// daemon's children, hosts that never read their replies, links that start
// several host processes and drop, package queries for VFs that do not
// exist; then one sub-process floods its session with reports. Afterwards the
// daemon must be back where it was at rest: its threads, descriptors and
// memory, no session left in its registry, and no zombie or stray sub-process
// in the sandbox. Exits non-zero when any cycle went wrong or anything leaked.
//
//   orv-soak [--cycles 10000] [--hosts 6] [--devices 2] [--limit 16] [--seed 1]
//            [--flood 100000]
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <limits.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "emu/driver/card_client.h"
#include "emu/host/host_link.h"
#include "emu/sandbox/sandbox_client.h"
#include "tests/support/build_kind.h"

namespace {

using namespace std::chrono_literals;
using orv::HDCMessage;
using orv::emu::SandboxClient;
using orv::host::HostLink;
using orv::host::Received;
using Clock = std::chrono::steady_clock;

constexpr auto kReplyTimeout = 30s;
// Crash detection runs on the daemon's one-second monitor tick.
constexpr auto kCrashNoticeTimeout = 15s;
constexpr uint32_t kFirstSoakHostPid = 100000;
// Host pids of one link's further host processes lie this far apart.
constexpr uint32_t kHostPidStride = 1000000;
constexpr uint32_t kFirstFloodHostPid = 950000;
constexpr auto kFloodTimeout = 600s;
constexpr uint32_t kFirstLimitHostPid = 900000;
constexpr uint32_t kWarmUpIndex = 400000;
constexpr size_t kMaxReportedFailures = 20;
// Memory the daemon may keep after the run beyond its level at rest (the
// allocator keeps some of what the peak used): a quarter, and at least 4 MiB.
constexpr double kRssGrowthFraction = 0.25;
constexpr size_t kRssGrowthFloorKb = 4096;

// In a sanitized build (the daemon then is too) the sanitizer's own leak
// check at the daemon's exit stands in for the bound on its resident size.
using orv::test::kResidentSizeMeaningful;

enum class Cycle {
    kClose,
    kDropMidStart,
    kDropAfterStart,
    kCrashCollective,
    kCrashCompute,
    kForgedRecords,
    kDeafHost,
    kManyHostsOneLink,
    kMissingVfQuery,
};

const char* CycleName(Cycle cycle) {
    switch (cycle) {
        case Cycle::kClose:
            return "start and close";
        case Cycle::kDropMidStart:
            return "link dropped mid-start";
        case Cycle::kDropAfterStart:
            return "link dropped after start";
        case Cycle::kCrashCollective:
            return "collective service killed";
        case Cycle::kCrashCompute:
            return "compute process killed";
        case Cycle::kForgedRecords:
            return "forged records";
        case Cycle::kDeafHost:
            return "host that never reads";
        case Cycle::kManyHostsOneLink:
            return "several hosts on one dropped link";
        case Cycle::kMissingVfQuery:
            return "package query for a missing VF";
    }
    return "?";
}

constexpr Cycle kAllCycles[] = {
    Cycle::kClose,           Cycle::kDropMidStart,     Cycle::kDropAfterStart,
    Cycle::kCrashCollective, Cycle::kCrashCompute,     Cycle::kForgedRecords,
    Cycle::kDeafHost,        Cycle::kManyHostsOneLink, Cycle::kMissingVfQuery};
constexpr size_t kCycleKinds = sizeof(kAllCycles) / sizeof(kAllCycles[0]);

// Over half the cycles start and close; the rest drop their link, lose a
// sub-process or play a hostile peer. Fixed by the cycle's number and the
// seed, so a failing run can be repeated.
Cycle CycleOf(uint32_t index, uint32_t seed) {
    std::mt19937 rng(seed * 1000003u + index);
    switch (rng() % 40) {
        case 0:
        case 1:
        case 2:
        case 3:
            return Cycle::kDropMidStart;
        case 4:
        case 5:
            return Cycle::kDropAfterStart;
        case 6:
        case 7:
        case 8:
        case 9:
            return Cycle::kCrashCollective;
        case 10:
        case 11:
            return Cycle::kCrashCompute;
        case 12:
        case 13:
            return Cycle::kForgedRecords;
        case 14:
            return Cycle::kDeafHost;
        case 15:
        case 16:
            return Cycle::kManyHostsOneLink;
        case 17:
        case 18:
            return Cycle::kMissingVfQuery;
        default:
            return Cycle::kClose;
    }
}

// A raw link that sends and never reads.
class DeafLink {
  public:
    explicit DeafLink(const std::string& path) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~DeafLink() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    bool Open() const { return fd_ >= 0; }

    // Sends `msg` until the daemon takes no more or `limit` went.
    void Flood(const HDCMessage& msg, size_t limit) {
        std::string payload = msg.SerializeAsString();
        uint32_t length = htonl(static_cast<uint32_t>(payload.size()));
        std::string frame(reinterpret_cast<const char*>(&length), sizeof(length));
        frame += payload;
        (void)::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
        for (size_t sent = 0, idle = 0; sent < limit && idle < 10;) {
            ssize_t n = ::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL);
            if (n == static_cast<ssize_t>(frame.size())) {
                ++sent;
                idle = 0;
            } else if (n < 0 && errno == EAGAIN) {
                ++idle;
                std::this_thread::sleep_for(20ms);
            } else {
                return;
            }
        }
    }

    // True once the daemon has ended the link, within `timeout`.
    bool EndedWithin(std::chrono::milliseconds timeout) const {
        pollfd pfd{fd_, POLLRDHUP, 0};
        return ::poll(&pfd, 1, static_cast<int>(timeout.count())) > 0 &&
               (pfd.revents & (POLLRDHUP | POLLHUP)) != 0;
    }

  private:
    int fd_ = -1;
};

struct Options {
    uint32_t cycles = 10000;
    uint32_t hosts = 6;
    uint32_t devices = 2;
    uint32_t limit = 16;
    uint32_t seed = 1;
    uint32_t flood = 100000;
};

struct Levels {
    size_t threads = 0;
    size_t descriptors = 0;
    size_t rssKb = 0;
    size_t processes = 0;
};

class Soak {
  public:
    Soak(const std::string& binDir, Options options)
        : options_(options), sandbox_(binDir, "/tmp/orv-soak." + std::to_string(getpid())) {}

    int Run();

  private:
    bool Boot();
    Levels Measure() const;
    bool RunCycle(uint32_t index, Cycle cycle, std::string* why);
    orv::emu::SandboxProcess FindSubProcess(uint32_t hostPid, const std::string& program) const;
    bool KillSubProcess(uint32_t hostPid, const std::string& program, std::string* why) const;
    void Worker();
    bool StandinsGone() const;
    bool Settle(const Levels& rest, Levels* now) const;
    bool CheckNoSessionLeft(uint32_t device, std::string* why);
    bool Standin(const std::string& kind, const std::string& behaviour, uint32_t delay) const;
    // Submits a record as a process of the card that is none of the daemon's
    // children; what orv-emu-submit said in `output`.
    bool Forge(const std::vector<std::string>& args, std::string* output) const;
    bool Flood(std::string* why);
    bool HostileCycle(uint32_t index, Cycle cycle, uint32_t device, uint32_t hostPid,
                      std::string* why);
    void Failure(const std::string& text);

    const Options options_;
    SandboxClient sandbox_;
    std::vector<std::string> sockets_;
    pid_t daemon_ = -1;

    std::atomic<uint32_t> next_{0};
    std::atomic<uint32_t> done_{0};
    std::atomic<uint32_t> counts_[kCycleKinds] = {};
    std::atomic<uint32_t> failed_{0};
    std::mutex failuresMutex_;
    std::vector<std::string> failures_;
    size_t peakThreads_ = 0;
    size_t peakRssKb_ = 0;
};

void Soak::Failure(const std::string& text) {
    failed_.fetch_add(1);
    std::lock_guard<std::mutex> lock(failuresMutex_);
    if (failures_.size() < kMaxReportedFailures) {
        failures_.push_back(text);
        std::fprintf(stderr, "orv-soak: %s\n", text.c_str());
    }
}

bool Soak::Boot() {
    std::vector<std::string> args = {"--devices", std::to_string(options_.devices), "--env",
                                     "AICPU_MAX_NUM=" + std::to_string(options_.limit)};
    if (!sandbox_.Boot(args, 60s)) {
        std::fprintf(stderr, "orv-soak: the sandbox did not boot; see %s.out\n",
                     sandbox_.StateDir().c_str());
        return false;
    }
    auto env = sandbox_.Env();
    for (uint32_t device = 0; device < options_.devices; ++device) {
        sockets_.push_back(env["ORV_HDC_SOCKET_" + std::to_string(device)]);
    }
    daemon_ = sandbox_.DaemonPid();
    return daemon_ > 0;
}

Levels Soak::Measure() const {
    Levels levels;
    levels.threads = orv::emu::ThreadCount(daemon_);
    levels.descriptors = orv::emu::DescriptorCount(daemon_);
    levels.rssKb = orv::emu::ResidentKb(daemon_);
    levels.processes = orv::emu::ProcessStates(sandbox_.PidNamespace()).size();
    return levels;
}

// The live sub-process `program` that the daemon started for `hostPid`,
// found among the sandbox's processes (not the records of every stand-in the
// run has started); its inner pid 0 when there is none.
orv::emu::SandboxProcess Soak::FindSubProcess(uint32_t hostPid, const std::string& program) const {
    const std::string pidArg = "--pid=" + std::to_string(hostPid);
    for (const auto& process : orv::emu::ProcessStates(sandbox_.PidNamespace())) {
        if (process.state == 'Z') {
            continue;
        }
        std::ifstream cmdline("/proc/" + std::to_string(process.outer) + "/cmdline");
        std::vector<std::string> argv;
        for (std::string arg; std::getline(cmdline, arg, '\0');) {
            argv.push_back(arg);
        }
        if (!argv.empty() && argv[0] == program &&
            std::find(argv.begin(), argv.end(), pidArg) != argv.end()) {
            return process;
        }
    }
    return orv::emu::SandboxProcess();
}

// Kills, from outside, the sub-process `program` that the daemon started for
// `hostPid`, as a crash would end it.
bool Soak::KillSubProcess(uint32_t hostPid, const std::string& program, std::string* why) const {
    orv::emu::SandboxProcess process = FindSubProcess(hostPid, program);
    if (process.inner == 0) {
        *why = program + " of host " + std::to_string(hostPid) + " not found running";
        return false;
    }
    return ::kill(process.outer, SIGKILL) == 0;
}

bool Soak::Standin(const std::string& kind, const std::string& behaviour, uint32_t delay) const {
    return orv::emu::RunProgram({sandbox_.BinDir() + "/orv-emu-ctl", "--state", sandbox_.StateDir(),
                                 "standin", kind, behaviour, std::to_string(delay)}) == 0;
}

// Submits a record from a process of the sandbox that is none of the daemon's
// children.
bool Soak::Forge(const std::vector<std::string>& args, std::string* output) const {
    std::vector<std::string> command = {sandbox_.BinDir() + "/orv-emu-submit"};
    command.insert(command.end(), args.begin(), args.end());
    int status = sandbox_.Enter(command, output);
    if (status != 0) {
        *output = "exit " + std::to_string(status) + ": " + *output;
    }
    return status == 0;
}

// The cycles that play a hostile peer; each leaves nothing behind when the
// daemon does its part.
bool Soak::HostileCycle(uint32_t index, Cycle cycle, uint32_t device, uint32_t hostPid,
                        std::string* why) {
    switch (cycle) {
        case Cycle::kDeafHost: {
            // A host that starts, then sends and never reads: its link ends,
            // and its session with it.
            DeafLink deaf(sockets_[device]);
            HDCMessage request;
            request.set_type(HDCMessage::ORV_START_PROC_MSG);
            request.set_device_id(device);
            request.mutable_proc_sign_pid()->set_proc_pid(hostPid);
            request.set_start_cp(true);
            if (!deaf.Open()) {
                *why = "connect";
                return false;
            }
            deaf.Flood(request, 1);
            request.set_type(HDCMessage::ORV_UPDATE_PROIFILING_MSG);
            request.mutable_proc_sign_pid()->set_proc_sign(std::string(100, 's'));
            deaf.Flood(request, 100000);
            if (!deaf.EndedWithin(kReplyTimeout)) {
                *why = "the link of a host that never reads was not ended";
                return false;
            }
            return true;
        }
        case Cycle::kManyHostsOneLink: {
            // One link starts three host processes, then drops: all three end.
            std::string error;
            std::unique_ptr<HostLink> link = HostLink::Connect(sockets_[device], &error);
            if (link == nullptr) {
                *why = "connect: " + error;
                return false;
            }
            for (uint32_t offset = 0; offset < 3; ++offset) {
                HDCMessage request;
                request.set_type(HDCMessage::ORV_START_PROC_MSG);
                request.set_device_id(device);
                request.mutable_proc_sign_pid()->set_proc_pid(hostPid + offset * kHostPidStride);
                request.set_start_cp(true);
                HDCMessage reply;
                if (!link->Send(request) ||
                    link->Await(HDCMessage::ORV_START_PROC_RSP, &reply, kReplyTimeout) !=
                        Received::kMessage ||
                    reply.orv_rsp_code() != 0) {
                    *why = "start of host " + std::to_string(offset + 1) +
                           " of 3 not answered with success";
                    return false;
                }
            }
            link->Drop();
            return true;
        }
        case Cycle::kMissingVfQuery: {
            // A package query for a VF id no device has: no answer, and
            // nothing kept for it.
            std::string error;
            std::unique_ptr<HostLink> link = HostLink::Connect(sockets_[device], &error);
            HDCMessage request;
            request.set_type(HDCMessage::ORV_CHECK_PACKAGE);
            request.set_device_id(device);
            request.set_vf_id(static_cast<int32_t>(100 + index));
            if (link == nullptr || !link->Send(request)) {
                *why = "query not sent";
                return false;
            }
            HDCMessage reply;
            link->Next(&reply, 50ms);
            return true;
        }
        default:
            *why = "not a hostile cycle";
            return false;
    }
}

bool Soak::RunCycle(uint32_t index, Cycle cycle, std::string* why) {
    const uint32_t device = index % options_.devices;
    const uint32_t hostPid = kFirstSoakHostPid + index;
    if (cycle == Cycle::kDeafHost || cycle == Cycle::kManyHostsOneLink ||
        cycle == Cycle::kMissingVfQuery) {
        return HostileCycle(index, cycle, device, hostPid, why);
    }
    std::string error;
    std::unique_ptr<HostLink> link = HostLink::Connect(sockets_[device], &error);
    if (link == nullptr) {
        *why = "connect: " + error;
        return false;
    }
    HDCMessage request;
    request.set_type(HDCMessage::ORV_START_PROC_MSG);
    request.set_device_id(device);
    request.mutable_proc_sign_pid()->set_proc_pid(hostPid);
    request.set_start_cp(true);
    request.set_start_zarn(cycle == Cycle::kCrashCollective || index % 2 == 0);
    if (!link->Send(request)) {
        *why = "start not sent";
        return false;
    }
    if (cycle == Cycle::kDropMidStart) {
        std::this_thread::sleep_for(std::chrono::milliseconds(index % 7));
        link->Drop();
        return true;
    }
    HDCMessage reply;
    if (link->Await(HDCMessage::ORV_START_PROC_RSP, &reply, kReplyTimeout) != Received::kMessage ||
        reply.orv_rsp_code() != 0) {
        *why = "start not answered with success";
        return false;
    }
    switch (cycle) {
        case Cycle::kDropAfterStart:
            link->Drop();
            return true;
        case Cycle::kForgedRecords: {
            // A stranger claims this session's kernel time-out and its close,
            // and tells the daemon a VF went away: nothing changes, and the
            // close below is answered as always.
            const std::string host = std::to_string(hostPid);
            const std::string dev = std::to_string(device);
            std::string said;
            if (!Forge(
                    {"0", "--group", dev, "--device", dev, "--host-pid", host, "--event-type", "4"},
                    &said) ||
                !Forge({"1", "--group", dev, "--device", dev, "--host-pid", host}, &said) ||
                !Forge({"101", "--length", "16", "--word4", "1"}, &said)) {
                *why = "a forged record could not be submitted (" + said + ")";
                return false;
            }
            break;
        }
        case Cycle::kCrashCollective:
        case Cycle::kCrashCompute: {
            const char* program =
                cycle == Cycle::kCrashCollective ? "zarn_service.bin" : "aicpu_runner";
            if (!KillSubProcess(hostPid, program, why)) {
                return false;
            }
            // The daemon notices at its next monitor tick and drops the link.
            if (link->Await(HDCMessage::ORV_CLOSE_PROC_RSP, &reply, kCrashNoticeTimeout) !=
                Received::kClosed) {
                *why = std::string("link not dropped after ") + program + " was killed";
                return false;
            }
            return true;
        }
        default:
            break;
    }
    request.set_type(HDCMessage::ORV_CLOSE_PROC_MSG);
    if (!link->Send(request) ||
        link->Await(HDCMessage::ORV_CLOSE_PROC_RSP, &reply, kReplyTimeout) != Received::kMessage) {
        *why = "close not answered";
        return false;
    }
    if (link->Await(HDCMessage::ORV_START_PROC_RSP, &reply, kReplyTimeout) != Received::kClosed) {
        *why = "link not ended after the close";
        return false;
    }
    return true;
}

void Soak::Worker() {
    for (uint32_t index = next_.fetch_add(1); index < options_.cycles; index = next_.fetch_add(1)) {
        Cycle cycle = CycleOf(index, options_.seed);
        std::string why;
        if (!RunCycle(index, cycle, &why)) {
            Failure("cycle " + std::to_string(index) + " (" + CycleName(cycle) + "): " + why);
        }
        counts_[static_cast<int>(cycle)].fetch_add(1);
        done_.fetch_add(1);
    }
}

// One compute process sends its session `options_.flood` start reports; the
// daemon handles them without growing, answers nothing twice, and the
// session still closes.
bool Soak::Flood(std::string* why) {
    if (!Standin("compute", "flood", options_.flood)) {
        *why = "stand-in behaviour not set";
        return false;
    }
    const uint32_t hostPid = kFirstFloodHostPid;
    std::string error;
    std::unique_ptr<HostLink> link = HostLink::Connect(sockets_[0], &error);
    HDCMessage request;
    request.set_type(HDCMessage::ORV_START_PROC_MSG);
    request.mutable_proc_sign_pid()->set_proc_pid(hostPid);
    request.set_start_cp(true);
    HDCMessage reply;
    bool started =
        link != nullptr && link->Send(request) &&
        link->Await(HDCMessage::ORV_START_PROC_RSP, &reply, kReplyTimeout) == Received::kMessage;
    Standin("compute", "normal", 0);
    if (!started) {
        *why = "start not answered";
        return false;
    }
    orv::emu::SandboxProcess flooder = FindSubProcess(hostPid, "aicpu_runner");
    if (flooder.inner == 0) {
        *why = "the flooding compute process is not running";
        return false;
    }
    // Its own record only: the run has left thousands.
    const std::string record =
        sandbox_.Env()["ORV_STANDIN_RECORDS"] + "/" + std::to_string(flooder.inner) + ".txt";
    auto deadline = Clock::now() + kFloodTimeout;
    for (bool flooded = false; !flooded;) {
        if (Clock::now() >= deadline) {
            *why = "the flood did not end in time";
            return false;
        }
        std::this_thread::sleep_for(250ms);
        peakThreads_ = std::max(peakThreads_, orv::emu::ThreadCount(daemon_));
        std::ifstream in(record);
        for (std::string line; !flooded && std::getline(in, line);) {
            flooded = line.compare(0, 8, "flooded ") == 0;
        }
    }
    std::printf("flood: %u reports to one session; peak %zu threads\n", options_.flood,
                peakThreads_);
    request.set_type(HDCMessage::ORV_CLOSE_PROC_MSG);
    if (!link->Send(request) ||
        link->Await(HDCMessage::ORV_CLOSE_PROC_RSP, &reply, kReplyTimeout) != Received::kMessage) {
        *why = "close not answered after the flood (or a second start answer came first)";
        return false;
    }
    return true;
}

// Waits up to 30 s for every sub-process the daemon started to end.
bool Soak::StandinsGone() const {
    auto deadline = Clock::now() + 30s;
    for (;;) {
        std::set<pid_t> standins;
        for (const auto& record : orv::emu::ReadStandinRecords(sandbox_.StateDir())) {
            standins.insert(record.pid);
        }
        bool running = false;
        for (const auto& process : orv::emu::ProcessStates(sandbox_.PidNamespace())) {
            running = running || standins.count(process.inner) != 0;
        }
        if (!running || Clock::now() >= deadline) {
            return !running;
        }
        std::this_thread::sleep_for(200ms);
    }
}

// Waits for the daemon and the sandbox to come back to their levels at rest;
// `now` gets the levels at the end of the wait.
bool Soak::Settle(const Levels& rest, Levels* now) const {
    auto deadline = Clock::now() + 30s;
    for (;;) {
        *now = Measure();
        // The emulated driver may keep a few more idle connections to the
        // card than it had at rest: never more than kMaxIdle, where a leak
        // grows with the cycles.
        bool settled = now->threads <= rest.threads &&
                       now->descriptors <= rest.descriptors + orv::emu::CardClient::kMaxIdle &&
                       now->processes <= rest.processes;
        if (settled || Clock::now() >= deadline) {
            return settled;
        }
        std::this_thread::sleep_for(200ms);
    }
}

// Fills device `device` up to the session limit with new hosts, then asks for
// one more: it must be refused, and the refusal's list of live sessions must
// hold exactly the new hosts. A session the run left behind would take a place.
bool Soak::CheckNoSessionLeft(uint32_t device, std::string* why) {
    std::vector<std::unique_ptr<HostLink>> links;
    std::set<uint32_t> expected;
    bool ok = true;
    for (uint32_t i = 0; i <= options_.limit && ok; ++i) {
        const uint32_t hostPid = kFirstLimitHostPid + device * 1000 + i;
        std::string error;
        links.push_back(HostLink::Connect(sockets_[device], &error));
        HDCMessage request;
        request.set_type(HDCMessage::ORV_START_PROC_MSG);
        request.set_device_id(device);
        request.mutable_proc_sign_pid()->set_proc_pid(hostPid);
        request.set_start_cp(true);
        HDCMessage reply;
        if (links.back() == nullptr || !links.back()->Send(request) ||
            links.back()->Await(HDCMessage::ORV_START_PROC_RSP, &reply, kReplyTimeout) !=
                Received::kMessage) {
            *why = "no answer to host " + std::to_string(hostPid);
            return false;
        }
        const bool last = i == options_.limit;
        if ((reply.orv_rsp_code() == 0) == last) {
            *why = last ? "a start beyond the session limit was accepted"
                        : "host " + std::to_string(hostPid) + " refused below the session limit";
            ok = false;
        }
        if (!last) {
            expected.insert(hostPid);
        }
    }
    if (!ok) {
        return false;
    }
    // The refusal names the sessions that fill the device.
    const std::string line = "reach max aicpu-runner per device " + std::to_string(options_.limit);
    std::string log;
    orv::emu::RunProgram({"/bin/grep", "-F", line, sandbox_.LogPath()}, &log);
    std::string lastLine = log.substr(log.rfind('\n', log.size() - 2) + 1);
    std::string listed = lastLine.substr(lastLine.find("hostPids[") + 9);
    listed = listed.substr(0, listed.find(']'));
    std::replace(listed.begin(), listed.end(), ',', ' ');
    std::set<uint32_t> held;
    std::istringstream pids(listed);
    for (uint32_t pid; pids >> pid;) {
        held.insert(pid);
    }
    if (held != expected) {
        *why = "device " + std::to_string(device) + " holds sessions of hosts [" + listed +
               "], expected only the " + std::to_string(expected.size()) + " just started";
        return false;
    }
    for (uint32_t i = 0; i < options_.limit; ++i) {
        HDCMessage close;
        close.set_type(HDCMessage::ORV_CLOSE_PROC_MSG);
        close.set_device_id(device);
        close.mutable_proc_sign_pid()->set_proc_pid(kFirstLimitHostPid + device * 1000 + i);
        HDCMessage reply;
        if (!links[i]->Send(close) || links[i]->Await(HDCMessage::ORV_CLOSE_PROC_RSP, &reply,
                                                      kReplyTimeout) != Received::kMessage) {
            *why = "a session of the limit check did not close";
            return false;
        }
    }
    return true;
}

int Soak::Run() {
    std::printf("orv-soak: %u cycles from %u hosts at once on %u devices (seed %u); state in %s\n",
                options_.cycles, options_.hosts, options_.devices, options_.seed,
                sandbox_.StateDir().c_str());
    if (!Boot()) {
        return 1;
    }
    // One cycle of every kind on every device first, so that the levels at
    // rest include what the daemon keeps once it has done each thing once.
    // Cycle numbers past the run's own, each falling on `device`.
    const uint32_t warmUpBase = (kWarmUpIndex / options_.devices) * options_.devices;
    for (uint32_t device = 0; device < options_.devices; ++device) {
        for (Cycle cycle : kAllCycles) {
            std::string why;
            uint32_t index = warmUpBase + static_cast<uint32_t>(cycle) * options_.devices + device;
            if (!RunCycle(index, cycle, &why)) {
                Failure(std::string("warm-up (") + CycleName(cycle) + "): " + why);
            }
        }
    }
    if (!StandinsGone()) {
        Failure("warm-up: sub-processes still running");
    }
    std::this_thread::sleep_for(1s);
    const Levels rest = Measure();
    std::printf(
        "at rest: %zu threads, %zu descriptors, %zu KiB resident; %zu processes in the sandbox\n",
        rest.threads, rest.descriptors, rest.rssKb, rest.processes);

    auto start = Clock::now();
    std::vector<std::thread> hosts;
    for (uint32_t i = 0; i < options_.hosts; ++i) {
        hosts.emplace_back([this] { Worker(); });
    }
    for (uint32_t reported = 0; done_.load() < options_.cycles;) {
        std::this_thread::sleep_for(250ms);
        peakThreads_ = std::max(peakThreads_, orv::emu::ThreadCount(daemon_));
        peakRssKb_ = std::max(peakRssKb_, orv::emu::ResidentKb(daemon_));
        uint32_t done = done_.load();
        if (done >= reported + options_.cycles / 10 || done == options_.cycles) {
            reported = done;
            std::printf("  %4u/%u cycles, %u failed, %.0f s\n", done, options_.cycles,
                        failed_.load(),
                        std::chrono::duration<double>(Clock::now() - start).count());
            std::fflush(stdout);
        }
    }
    for (auto& host : hosts) {
        host.join();
    }
    double took = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("%u cycles in %.1f s:", options_.cycles, took);
    for (Cycle cycle : kAllCycles) {
        std::printf(" %u %s;", counts_[static_cast<int>(cycle)].load(), CycleName(cycle));
    }
    std::printf("\npeak: %zu threads, %zu KiB resident\n", peakThreads_, peakRssKb_);

    if (options_.flood != 0) {
        std::string why;
        if (!Flood(&why)) {
            Failure("flood: " + why);
        }
    }

    bool leaked = false;
    Levels now;
    if (!Settle(rest, &now)) {
        std::printf(
            "LEAK: %zu threads, %zu descriptors, %zu processes against %zu, %zu, %zu at rest\n",
            now.threads, now.descriptors, now.processes, rest.threads, rest.descriptors,
            rest.processes);
        leaked = true;
    }
    size_t allowedRss = rest.rssKb + std::max(kRssGrowthFloorKb,
                                              static_cast<size_t>(rest.rssKb * kRssGrowthFraction));
    if (!kResidentSizeMeaningful) {
        std::printf(
            "resident size not bounded in a sanitized build (%zu KiB at rest, %zu KiB after)\n",
            rest.rssKb, now.rssKb);
    } else if (now.rssKb > allowedRss) {
        std::printf("LEAK: %zu KiB resident against %zu KiB at rest (at most %zu allowed)\n",
                    now.rssKb, rest.rssKb, allowedRss);
        leaked = true;
    }
    size_t zombies = 0;
    for (const auto& process : orv::emu::ProcessStates(sandbox_.PidNamespace())) {
        zombies += process.state == 'Z' ? 1 : 0;
    }
    if (zombies != 0) {
        std::printf("LEAK: %zu zombie process(es) in the sandbox\n", zombies);
        leaked = true;
    }
    for (uint32_t device = 0; device < options_.devices; ++device) {
        std::string why;
        if (!CheckNoSessionLeft(device, &why)) {
            std::printf("LEAK: %s\n", why.c_str());
            leaked = true;
        }
    }
    std::printf(
        "after: %zu threads, %zu descriptors, %zu KiB resident, %zu processes, %zu zombies; "
        "no session left on any device: %s\n",
        now.threads, now.descriptors, now.rssKb, now.processes, zombies,
        leaked ? "see above" : "yes");
    int stopped = sandbox_.Stop();
    if (stopped != 0) {
        std::printf("the sandbox stopped with status %d\n", stopped);
    }
    std::string report = sandbox_.SanitizerReport();
    if (!report.empty()) {
        std::printf("sanitizer report: %s\n", report.c_str());
    }
    bool ok = failed_.load() == 0 && !leaked && stopped == 0 && report.empty();
    std::printf("orv-soak: %s\n", ok ? "passed" : "FAILED");
    if (ok) {
        orv::emu::RunProgram({"/bin/rm", "-rf", sandbox_.StateDir(), sandbox_.StateDir() + ".out"});
    } else {
        std::printf("state kept in %s\n", sandbox_.StateDir().c_str());
    }
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        uint32_t value = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
        if (std::strcmp(argv[i], "--cycles") == 0) {
            options.cycles = value;
        } else if (std::strcmp(argv[i], "--hosts") == 0) {
            options.hosts = std::max(1u, value);
        } else if (std::strcmp(argv[i], "--devices") == 0) {
            options.devices = std::max(1u, value);
        } else if (std::strcmp(argv[i], "--limit") == 0) {
            options.limit = std::max(1u, value);
        } else if (std::strcmp(argv[i], "--seed") == 0) {
            options.seed = value;
        } else if (std::strcmp(argv[i], "--flood") == 0) {
            options.flood = value;
        } else {
            std::fprintf(
                stderr,
                "usage: orv-soak [--cycles N] [--hosts N] [--devices N] [--limit N] [--seed N] "
                "[--flood N]\n");
            return 2;
        }
    }
    if (options.cycles >= kWarmUpIndex) {
        std::fprintf(stderr, "orv-soak: at most %u cycles\n", kWarmUpIndex - 1);
        return 2;
    }
    if (argc % 2 == 0) {
        std::fprintf(stderr, "orv-soak: %s needs a value\n", argv[argc - 1]);
        return 2;
    }
    ::signal(SIGPIPE, SIG_IGN);
    return Soak(orv::emu::ProgramDir(), options).Run();
}
