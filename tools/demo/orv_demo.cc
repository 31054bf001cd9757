// orv-demo: a stretch of a card's life on the emulated card, played end to end
// and checked as it goes: two devices, the version handshake, a refused
// request, kernel packages, several host processes at once with their
// sub-processes, profiling, the custom compute process, a VF created and
// destroyed, a collective-service crash, a host that drops its link, and an
// orderly shutdown. Prints a timeline and a summary; exits non-zero when
// anything went wrong.
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "card.pb.h"
#include "emu/ctl/control_client.h"
#include "emu/driver/card_client.h"
#include "emu/host/host_link.h"
#include "emu/sandbox/sandbox_client.h"

namespace {

using namespace std::chrono_literals;
using orv::HDCMessage;
using orv::emu::SandboxClient;
using orv::host::HostLink;
using orv::host::Received;
using Clock = std::chrono::steady_clock;

constexpr auto kReplyTimeout = 15s;

// What the demo counts for its summary.
struct Tally {
    int requests = 0;
    int replies = 0;
    int refusals = 0;  // replies with code 1 the demo asked for
    int packagesInstalled = 0;
    int vfsCreated = 0;
    int vfsDestroyed = 0;
    int linksDroppedByDaemon = 0;
    int failures = 0;
};

std::mutex g_mutex;
Tally g_tally;
Clock::time_point g_start;

double Since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

void Line(const char* mark, const std::string& text, double tookMs) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (tookMs >= 0) {
        std::printf("  %8.3fs  %s %-66s %8.1f ms\n", Since(g_start), mark, text.c_str(), tookMs);
    } else {
        std::printf("  %8.3fs  %s %s\n", Since(g_start), mark, text.c_str());
    }
    std::fflush(stdout);
}

void Ok(const std::string& text, double tookMs = -1) {
    Line(" ", text, tookMs);
}

void Fail(const std::string& text) {
    Line("!", "FAILED: " + text, -1);
    std::lock_guard<std::mutex> lock(g_mutex);
    ++g_tally.failures;
}

void Section(const std::string& title) {
    std::lock_guard<std::mutex> lock(g_mutex);
    std::printf("\n  == %s\n", title.c_str());
}

void Count(int Tally::*field, int by = 1) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_tally.*field += by;
}

double Millis(Clock::time_point since) {
    return std::chrono::duration<double, std::milli>(Clock::now() - since).count();
}

class Demo {
  public:
    Demo(std::string binDir, std::string stateDir, std::string workDir)
        : sandbox_(binDir, stateDir), binDir_(std::move(binDir)), work_(std::move(workDir)) {}

    int Run();

  private:
    // One host process's link to one device.
    struct Host {
        std::string name;
        uint32_t device = 0;
        uint32_t pid = 0;
        int32_t vf = 0;
        std::unique_ptr<HostLink> link;
    };

    bool Boot();
    void Handshake(uint32_t device);
    void RefusedRequest();
    uint32_t InstallPackage(const std::string& name, int vf);
    bool Start(Host& host, bool zarn, uint32_t checkCode, bool quiet = false);
    void Profiling(Host& host, uint32_t mode);
    void Close(Host& host);
    void CustomProcess(Host& host);
    void ManyHosts();
    void Vf();
    void Crash();
    void DroppedLink();
    void CheckLeaks();
    void Shutdown();
    void Summary();

    std::unique_ptr<HostLink> Connect(uint32_t device);
    // Sends and waits for the reply of `replyType`; false when none came.
    bool Ask(Host& host, const HDCMessage& request, HDCMessage::MsgType replyType,
             HDCMessage* reply, std::chrono::milliseconds timeout = kReplyTimeout);
    bool Control(const orv::emu::CardRequest& request, orv::emu::CardReply* reply);
    bool Standin(uint32_t kind, const std::string& behaviour, uint32_t delayMs = 0);
    bool Running(const std::string& program) const {
        return sandbox_.Enter({"pidof", program}) == 0;
    }
    bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);
    // The pids, inside the sandbox, of its processes that have not ended.
    std::set<pid_t> AliveInSandbox() const;

    SandboxClient sandbox_;
    const std::string binDir_;
    const std::string work_;
    uint32_t devices_ = 2;
    size_t idleThreads_ = 0;
    size_t idleDescriptors_ = 0;
    uint32_t checkCode_ = 0;
    std::vector<Host> open_;  // hosts closed at the end
    size_t reaped_ = 0;       // stand-ins no longer running at the checks
};

bool Demo::WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

std::set<pid_t> Demo::AliveInSandbox() const {
    std::set<pid_t> alive;
    for (const auto& process : orv::emu::ProcessStates(sandbox_.PidNamespace())) {
        if (process.state != 'Z') {
            alive.insert(process.inner);
        }
    }
    return alive;
}

std::unique_ptr<HostLink> Demo::Connect(uint32_t device) {
    std::string error;
    std::unique_ptr<HostLink> link =
        HostLink::Connect(sandbox_.Env()["ORV_HDC_SOCKET_" + std::to_string(device)], &error);
    if (link == nullptr) {
        Fail(error);
    }
    return link;
}

bool Demo::Ask(Host& host, const HDCMessage& request, HDCMessage::MsgType replyType,
               HDCMessage* reply, std::chrono::milliseconds timeout) {
    Count(&Tally::requests);
    if (host.link == nullptr || !host.link->Send(request)) {
        Fail(host.name + ": cannot send");
        return false;
    }
    if (host.link->Await(replyType, reply, timeout) != Received::kMessage) {
        Fail(host.name + ": no reply of type " + std::to_string(replyType));
        return false;
    }
    Count(&Tally::replies);
    return true;
}

bool Demo::Control(const orv::emu::CardRequest& request, orv::emu::CardReply* reply) {
    std::string error;
    if (!orv::emu::CallControl(sandbox_.ControlSocket(), request, reply, &error)) {
        Fail(error);
        return false;
    }
    return true;
}

bool Demo::Standin(uint32_t kind, const std::string& behaviour, uint32_t delayMs) {
    orv::emu::CardRequest request;
    auto* set = request.mutable_set_standin();
    set->set_kind(kind);
    set->set_behaviour(behaviour);
    set->set_delay_ms(delayMs);
    orv::emu::CardReply reply;
    return Control(request, &reply) && reply.code() == 0;
}

bool Demo::Boot() {
    Section("Boot");
    devices_ = std::thread::hardware_concurrency() >= 2 ? 2 : 1;
    auto t = Clock::now();
    if (!sandbox_.Boot({"--devices", std::to_string(devices_)}, 30s)) {
        Fail("the sandbox did not come up; see " + sandbox_.StateDir() + ".out");
        return false;
    }
    Ok("emulated card with " + std::to_string(devices_) + " device(s) and the daemon up (pid " +
           std::to_string(sandbox_.DaemonPid()) + ")",
       Millis(t));
    Ok("state directory " + sandbox_.StateDir() + ", system log " + sandbox_.LogPath());
    std::this_thread::sleep_for(500ms);
    idleThreads_ = orv::emu::ThreadCount(sandbox_.DaemonPid());
    idleDescriptors_ = orv::emu::DescriptorCount(sandbox_.DaemonPid());
    Ok("daemon at rest: " + std::to_string(idleThreads_) + " threads, " +
       std::to_string(idleDescriptors_) + " open descriptors");
    return true;
}

void Demo::Handshake(uint32_t device) {
    Host host{"host-test", device, 0, 0, Connect(device)};
    HDCMessage request;
    request.set_type(HDCMessage::TEST_HDC_SEND);
    request.set_device_id(device);
    orv::host::SetHostVersionInfo(&request);
    HDCMessage reply;
    auto t = Clock::now();
    if (Ask(host, request, HDCMessage::TEST_HDC_RSP, &reply)) {
        Ok("device " + std::to_string(device) + ": link test answered (33), daemon version " +
               std::to_string(reply.version_info().version()) + " with " +
               std::to_string(reply.version_info().feature_list_size()) + " feature lists",
           Millis(t));
    }
}

void Demo::RefusedRequest() {
    Host host{"host-refused", 0, 3999, 17, Connect(0)};
    HDCMessage request;
    request.set_type(HDCMessage::ORV_START_PROC_MSG);
    request.mutable_proc_sign_pid()->set_proc_pid(host.pid);
    request.set_vf_id(17);
    request.set_start_cp(true);
    HDCMessage reply;
    auto t = Clock::now();
    if (Ask(host, request, HDCMessage::ORV_START_PROC_RSP, &reply)) {
        if (reply.orv_rsp_code() == 1) {
            Count(&Tally::refusals);
            Ok("start on VF 17 refused as it must be: type 8, code 1", Millis(t));
        } else {
            Fail("a start on VF 17 was accepted");
        }
    }
}

uint32_t Demo::InstallPackage(const std::string& name, int vf) {
    std::string package = work_ + "/" + name;
    std::string output;
    if (orv::emu::RunProgram(
            {binDir_ + "/orv-emu-mkpkg", "--out", package, "--sandbox-so", "libdemo_sandbox.so"},
            &output) != 0) {
        Fail("orv-emu-mkpkg: " + output);
        return 0;
    }
    std::ifstream in(package, std::ios::binary | std::ios::ate);
    uint32_t size = static_cast<uint32_t>(in.tellg());
    auto t = Clock::now();
    std::vector<std::string> args = {binDir_ + "/orv-host", "--state", sandbox_.StateDir(),
                                     "send-package", package};
    if (vf != 0) {
        args.insert(args.end(), {"--vf", std::to_string(vf)});
    }
    if (orv::emu::RunProgram(args, &output) != 0) {
        Fail("send-package: " + output);
        return 0;
    }
    uint32_t code = 0;
    bool installed = WaitUntil(
        [&] {
            Host query{"host-query", 0, 0, vf, Connect(0)};
            HDCMessage request;
            request.set_type(HDCMessage::ORV_CHECK_PACKAGE);
            request.set_vf_id(vf);
            HDCMessage reply;
            if (Ask(query, request, HDCMessage::ORV_CHECK_PACKAGE_RSP, &reply)) {
                code = reply.check_code();
            }
            return code == size;
        },
        15s);
    if (!installed) {
        Fail("package " + name + " was not installed (check code " + std::to_string(code) + ")");
        return 0;
    }
    Count(&Tally::packagesInstalled);
    Ok("package " + name + " (" + std::to_string(size) + " bytes) installed" +
           (vf != 0 ? " for VF " + std::to_string(vf) : "") + "; type-36 check code " +
           std::to_string(code),
       Millis(t));
    return code;
}

bool Demo::Start(Host& host, bool zarn, uint32_t checkCode, bool quiet) {
    HDCMessage request;
    request.set_type(HDCMessage::ORV_START_PROC_MSG);
    request.set_device_id(host.device);
    request.set_vf_id(host.vf);
    request.mutable_proc_sign_pid()->set_proc_pid(host.pid);
    request.mutable_proc_sign_pid()->set_proc_sign("sign-" + std::to_string(host.pid));
    request.set_start_cp(true);
    request.set_start_zarn(zarn);
    request.set_check_code(checkCode);
    request.set_rank_size(2);
    HDCMessage reply;
    auto t = Clock::now();
    if (!Ask(host, request, HDCMessage::ORV_START_PROC_RSP, &reply)) {
        return false;
    }
    if (reply.orv_rsp_code() != 0) {
        Fail(host.name + ": start answered " + std::to_string(reply.orv_rsp_code()) + " " +
             reply.error_info().message());
        return false;
    }
    if (!quiet) {
        Ok(host.name + " (pid " + std::to_string(host.pid) + ", device " +
               std::to_string(host.device) + ", VF " + std::to_string(host.vf) + "): compute" +
               (zarn ? " + collective service" : "") + " started",
           Millis(t));
    }
    return true;
}

void Demo::Profiling(Host& host, uint32_t mode) {
    HDCMessage request;
    request.set_type(HDCMessage::ORV_UPDATE_PROIFILING_MSG);
    request.set_device_id(host.device);
    request.set_vf_id(host.vf);
    request.mutable_proc_sign_pid()->set_proc_pid(host.pid);
    request.set_profiling_mode(mode);
    HDCMessage reply;
    auto t = Clock::now();
    if (Ask(host, request, HDCMessage::ORV_UPDATE_PROIFILING_RSP, &reply)) {
        if (reply.orv_rsp_code() == 0) {
            Ok(host.name + ": profiling mode " + std::to_string(mode) +
                   " reached its compute processes",
               Millis(t));
        } else {
            Fail(host.name + ": profiling update answered " + std::to_string(reply.orv_rsp_code()));
        }
    }
}

void Demo::Close(Host& host) {
    HDCMessage request;
    request.set_type(HDCMessage::ORV_CLOSE_PROC_MSG);
    request.set_device_id(host.device);
    request.set_vf_id(host.vf);
    request.mutable_proc_sign_pid()->set_proc_pid(host.pid);
    HDCMessage reply;
    auto t = Clock::now();
    if (!Ask(host, request, HDCMessage::ORV_CLOSE_PROC_RSP, &reply)) {
        return;
    }
    if (reply.orv_rsp_code() != 0) {
        Fail(host.name + ": close answered " + std::to_string(reply.orv_rsp_code()));
        return;
    }
    HDCMessage more;
    if (host.link->Next(&more, 5s) != Received::kClosed) {
        Fail(host.name + ": the link stayed open after the close answer");
    }
    Ok(host.name + ": closed (type 9, code 0), link closed by the daemon", Millis(t));
}

void Demo::CustomProcess(Host& host) {
    size_t before = orv::emu::ReadStandinRecords(sandbox_.StateDir()).size();
    auto t = Clock::now();
    bool started = WaitUntil(
        [&] {
            for (const auto& record : orv::emu::ReadStandinRecords(sandbox_.StateDir())) {
                if (record.kind == 2) {
                    return true;
                }
            }
            return false;
        },
        10s);
    if (!started) {
        Fail(host.name + ": the custom compute process did not start");
        return;
    }
    Ok(host.name + ": its compute process asked for the custom process, which runs (" +
           std::to_string(orv::emu::ReadStandinRecords(sandbox_.StateDir()).size() - before + 1) +
           " record(s))",
       Millis(t));
}

void Demo::ManyHosts() {
    Section("Several host processes at once");
    std::vector<Host> hosts;
    for (uint32_t i = 0; i < 6; ++i) {
        uint32_t device = i % devices_;
        hosts.push_back(Host{"host-" + std::string(1, static_cast<char>('B' + i)), device, 4101 + i,
                             0, Connect(device)});
    }
    auto t = Clock::now();
    std::vector<std::thread> threads;
    std::vector<char> ok(hosts.size(), 0);
    for (size_t i = 0; i < hosts.size(); ++i) {
        threads.emplace_back([&, i] { ok[i] = Start(hosts[i], true, 0, true) ? 1 : 0; });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    int answered = 0;
    for (char done : ok) {
        answered += done;
    }
    Ok(std::to_string(answered) + " of " + std::to_string(hosts.size()) + " hosts on " +
           std::to_string(devices_) + " device(s) started compute + collective service at once",
       Millis(t));
    for (Host& host : hosts) {
        open_.push_back(std::move(host));
    }
}

void Demo::Vf() {
    Section("A virtual function");
    auto t = Clock::now();
    orv::emu::CardRequest request;
    request.mutable_vf_change()->set_create(true);
    request.mutable_vf_change()->set_vf_id(2);
    orv::emu::CardReply reply;
    if (!Control(request, &reply) || reply.code() != 0 || reply.value() != 0) {
        Fail("VF 2 was not created (" + reply.text() + ")");
        return;
    }
    Count(&Tally::vfsCreated);
    Ok("driver created VF 2; the daemon configured it and acknowledged 0", Millis(t));
    std::string limitFile =
        sandbox_.StateDir() + "/cgroup/memory/usermemory/vf2/memory.limit_in_bytes";
    std::string before;
    std::getline(std::ifstream(limitFile) >> std::ws, before);
    uint32_t code = InstallPackage("2_Velkan512-aicpu_syskernels.tar.gz", 2);
    std::string after;
    std::getline(std::ifstream(limitFile) >> std::ws, after);
    Ok("VF 2's memory limit moved from " + before + " to " + after +
       " bytes by the installed size");
    Host host{"host-vf", 0, 4201, 2, Connect(0)};
    if (code != 0 && Start(host, true, code)) {
        Close(host);
    }
    t = Clock::now();
    request.mutable_vf_change()->set_create(false);
    if (!Control(request, &reply) || reply.code() != 0 || reply.value() != 0) {
        Fail("VF 2 was not destroyed (" + reply.text() + ")");
        return;
    }
    Count(&Tally::vfsDestroyed);
    Ok("driver destroyed VF 2; its watcher stopped, acknowledged 0", Millis(t));
}

void Demo::Crash() {
    Section("A collective service crashes");
    Standin(0, "crash", 500);
    Host host{"host-crash", 0, 4301, 0, Connect(0)};
    if (Start(host, true, checkCode_)) {
        auto t = Clock::now();
        HDCMessage more;
        if (host.link->Next(&more, 10s) == Received::kClosed) {
            Count(&Tally::linksDroppedByDaemon);
            Ok("host-crash: its collective service died; the daemon dropped the host's link",
               Millis(t));
        } else {
            Fail("host-crash: the link was not dropped after the crash");
        }
    }
    Standin(0, "normal");
}

void Demo::DroppedLink() {
    Section("A host drops its link mid-start");
    Standin(1, "delay-start", 1500);
    Host host{"host-drop", 1 % devices_, 4401, 0, Connect(1 % devices_)};
    HDCMessage request;
    request.set_type(HDCMessage::ORV_START_PROC_MSG);
    request.set_device_id(host.device);
    request.mutable_proc_sign_pid()->set_proc_pid(host.pid);
    request.set_start_cp(true);
    Count(&Tally::requests);
    host.link->Send(request);
    std::this_thread::sleep_for(300ms);
    auto t = Clock::now();
    host.link->Drop();
    const std::string pidArg = "--pid=" + std::to_string(host.pid);
    bool cleaned = WaitUntil(
        [&] {
            std::set<pid_t> alive = AliveInSandbox();
            for (const auto& record : orv::emu::ReadStandinRecords(sandbox_.StateDir())) {
                bool ofHost =
                    std::find(record.argv.begin(), record.argv.end(), pidArg) != record.argv.end();
                if (ofHost && alive.count(record.pid) != 0) {
                    return false;
                }
            }
            return true;
        },
        15s);
    if (cleaned) {
        Ok("host-drop: link dropped during the start; its sub-processes were cleaned up",
           Millis(t));
    } else {
        Fail("host-drop: sub-processes outlived the dropped link");
    }
    Standin(1, "normal");
}

void Demo::CheckLeaks() {
    Section("Checks");
    pid_t daemon = sandbox_.DaemonPid();
    auto t = Clock::now();
    bool settled = WaitUntil(
        [&] {
            // The emulated driver keeps a few idle connections to the card
            // for its next calls, however many it had when the daemon was new.
            return orv::emu::ThreadCount(daemon) <= idleThreads_ &&
                   orv::emu::DescriptorCount(daemon) <=
                       idleDescriptors_ + orv::emu::CardClient::kMaxIdle;
        },
        15s);
    size_t threads = orv::emu::ThreadCount(daemon);
    size_t descriptors = orv::emu::DescriptorCount(daemon);
    if (settled) {
        Ok("daemon back at rest: " + std::to_string(threads) + " threads, " +
               std::to_string(descriptors) + " descriptors (idle: " + std::to_string(idleThreads_) +
               ", " + std::to_string(idleDescriptors_) + ", and up to " +
               std::to_string(orv::emu::CardClient::kMaxIdle) + " idle driver connections)",
           Millis(t));
    } else {
        Fail("leak: " + std::to_string(threads) + " threads, " + std::to_string(descriptors) +
             " descriptors against " + std::to_string(idleThreads_) + ", " +
             std::to_string(idleDescriptors_) + " (+" +
             std::to_string(orv::emu::CardClient::kMaxIdle) + " idle driver connections)");
    }
    const auto processes = orv::emu::ProcessStates(sandbox_.PidNamespace());
    if (std::any_of(processes.begin(), processes.end(),
                    [](const auto& p) { return p.state == 'Z'; })) {
        Fail("zombie processes in the sandbox");
    } else {
        Ok("no zombie process in the sandbox");
    }
    std::set<pid_t> alive = AliveInSandbox();
    std::vector<orv::emu::StandinRecord> records =
        orv::emu::ReadStandinRecords(sandbox_.StateDir());
    for (const auto& record : records) {
        reaped_ += alive.count(record.pid) == 0 ? 1 : 0;
    }
    if (reaped_ == records.size()) {
        Ok("every one of the " + std::to_string(records.size()) +
           " sub-processes has ended and been reaped");
    } else {
        Fail(std::to_string(records.size() - reaped_) + " sub-process(es) left running");
    }
}

void Demo::Shutdown() {
    Section("Shutdown");
    std::string ns = sandbox_.PidNamespace();
    std::vector<pid_t> inside = orv::emu::ProcessesInNamespace(ns);
    auto t = Clock::now();
    int status = sandbox_.Stop(90s);
    std::vector<pid_t> left = orv::emu::StillInNamespace(ns, inside);
    if (status == 0 && left.empty()) {
        Ok("SIGTERM: the daemon shut down in order, then the card; nothing left behind", Millis(t));
    } else {
        Fail("shutdown: status " + std::to_string(status) + ", " + std::to_string(left.size()) +
             " process(es) of the sandbox left");
    }
    std::ifstream log(sandbox_.LogPath());
    std::string line;
    std::string last;
    while (std::getline(log, line)) {
        if (line.find("orvdaemon[") != std::string::npos) {
            last = line;
        }
    }
    if (last.find("[OrvDaemon] OrvDaemon::Destroy() exit") == std::string::npos) {
        Fail("the daemon's last log line is not its Destroy() exit");
    }
}

void Demo::Summary() {
    std::vector<orv::emu::StandinRecord> records =
        orv::emu::ReadStandinRecords(sandbox_.StateDir());
    int byKind[4] = {0, 0, 0, 0};
    for (const auto& record : records) {
        if (record.kind < 4) {
            ++byKind[record.kind];
        }
    }
    const Tally& t = g_tally;
    std::printf("\n  == Summary (%.1f s)\n", Since(g_start));
    std::printf("  %-44s %8d\n", "requests sent", t.requests);
    std::printf("  %-44s %8d\n", "replies received", t.replies);
    std::printf("  %-44s %8d\n", "  of which refusals asked for", t.refusals);
    std::printf("  %-44s %8zu\n", "sub-processes started", records.size());
    std::printf("  %-44s %8d / %d / %d / %d\n", "  compute / custom / collective / queue",
                byKind[1], byKind[2], byKind[0], byKind[3]);
    std::printf("  %-44s %8zu\n", "sub-processes reaped", reaped_);
    std::printf("  %-44s %8d\n", "packages installed", t.packagesInstalled);
    std::printf("  %-44s %8d / %d\n", "VFs created / destroyed", t.vfsCreated, t.vfsDestroyed);
    std::printf("  %-44s %8d\n", "host links dropped by the daemon", t.linksDroppedByDaemon);
    std::printf("  %-44s %8s\n", "leaks found", t.failures == 0 ? "none" : "see above");
    std::printf("  %-44s %8d\n", "failures", t.failures);
    std::printf("\n  %s\n", t.failures == 0 ? "demo passed" : "demo FAILED");
}

int Demo::Run() {
    g_start = Clock::now();
    std::printf("orvdaemon on the emulated card\n");
    if (!Boot()) {
        Summary();
        return 1;
    }
    Section("The host link");
    for (uint32_t device = 0; device < devices_; ++device) {
        Handshake(device);
    }
    RefusedRequest();

    Section("A kernel package and a host process");
    checkCode_ = InstallPackage("1_Velkan512-aicpu_syskernels.tar.gz", 0);
    Standin(1, "ask-custom", 300);
    Host hostA{"host-A", 0, 4001, 0, Connect(0)};
    if (Start(hostA, true, checkCode_)) {
        CustomProcess(hostA);
        Profiling(hostA, 3);
        open_.push_back(std::move(hostA));
    }
    Standin(1, "normal");

    ManyHosts();
    Vf();
    Crash();
    DroppedLink();

    Section("Closing every host");
    for (Host& host : open_) {
        Close(host);
    }
    CheckLeaks();
    Shutdown();
    Summary();
    return g_tally.failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::string binDir = orv::emu::ProgramDir();
    std::string state = binDir + "/../demo-state";
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::string(argv[i]) == "--state") {
            state = argv[++i];
        }
    }
    char resolved[PATH_MAX];
    std::string parent = state.substr(0, state.find_last_of('/'));
    if (realpath(parent.c_str(), resolved) != nullptr) {
        state = std::string(resolved) + state.substr(state.find_last_of('/'));
    }
    std::string work = state + ".work";
    orv::emu::RunProgram({"/bin/rm", "-rf", work});
    orv::emu::RunProgram({"/bin/mkdir", "-p", work});
    Demo demo(binDir, state, work);
    return demo.Run();
}
