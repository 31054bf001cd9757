// orv-bench: measures the daemon on the emulated card, each figure against a
// baseline taken in the same run.
//
//   orv-bench latency [--sessions N]     start and close latency against the
//                                        bare floor (fork + exec + one-byte handshake)
//   orv-bench stop [--rounds N]          SIGTERM to the daemon's exit, sessions live
//   orv-bench supervisord [--cycles N]   the same starts against supervisord on the same stand-in
//   orv-bench concurrent [--per-device N] N hosts per device starting at once
//   orv-bench package [--runs N]         package install against tar + signature check
//   orv-bench resources                  RSS and threads, idle and under load
//   orv-bench log-rate                   log statements per second
//   orv-bench suite                      the test suite and the demo, timed
//   orv-bench all                        all of the above, then every figure
//                                        against its target
//
// `orv-bench floor` is the baselines' own half: it runs inside the sandbox.
#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <driver_hal.h>
#include <img_verify.h>

#include "bench/xmlrpc_client.h"
#include "emu/host/host_link.h"
#include "emu/sandbox/sandbox_client.h"
#include "emu/slog/slog_emu.h"
#include "event/orv_event_interface.h"
#include "platform/log.h"

namespace {

using namespace std::chrono_literals;
using orv::HDCMessage;
using orv::bench::XmlRpcClient;
using orv::bench::XmlRpcValue;
using orv::emu::SandboxClient;
using orv::host::HostLink;
using orv::host::Received;
using Clock = std::chrono::steady_clock;

std::string g_binDir;

// One figure against its target, for the summary at the end of `all`.
struct Row {
    std::string what;
    std::string figure;
    std::string target;
    bool met;
};
std::vector<Row> g_rows;

void AddRow(std::string what, std::string figure, std::string target, bool met) {
    g_rows.push_back({std::move(what), std::move(figure), std::move(target), met});
}

std::string Format(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

// Binds the calling thread to CPU `cpu`, as the daemon binds its launching
// thread to the device's control CPU; its children inherit it.
void PinTo(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    (void)pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

double Micros(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

double Percentile(std::vector<double> samples, double p) {
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    size_t index = static_cast<size_t>(p * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[std::min(index, samples.size() - 1)];
}

void Report(const std::string& what, const std::vector<double>& micros) {
    std::printf("  %-52s p50 %9.1f us   p99 %9.1f us   (n=%zu)\n", what.c_str(),
                Percentile(micros, 0.5), Percentile(micros, 0.99), micros.size());
}

std::string MakeState(const std::string& name) {
    std::string dir = "/tmp/orv-bench-" + name + "." + std::to_string(getpid());
    orv::emu::RunProgram({"/bin/rm", "-rf", dir});
    orv::emu::RunProgram({"/bin/mkdir", "-p", dir});
    return dir;
}

void RemoveState(const SandboxClient& sandbox) {
    orv::emu::RunProgram({"/bin/rm", "-rf", sandbox.StateDir(), sandbox.StateDir() + ".out"});
}

// Stops a part's sandbox. Its state directory (logs, stand-in records,
// packages) goes with it when the part went well; otherwise it stays, and
// where is said.
void Finish(SandboxClient& sandbox, bool wentWell) {
    sandbox.Stop();
    if (wentWell) {
        RemoveState(sandbox);
    } else {
        std::fprintf(stderr, "orv-bench: the sandbox's state is kept in %s\n",
                     sandbox.StateDir().c_str());
    }
}

std::unique_ptr<HostLink> Connect(const SandboxClient& sandbox, uint32_t device) {
    std::string error;
    auto link =
        HostLink::Connect(sandbox.Env()["ORV_HDC_SOCKET_" + std::to_string(device)], &error);
    if (link == nullptr) {
        std::fprintf(stderr, "orv-bench: %s\n", error.c_str());
    }
    return link;
}

// Sends a request and waits for its reply; the reply's code, or -1.
int Ask(HostLink& link, HDCMessage::MsgType type, uint32_t device, uint32_t hostPid, bool zarn,
        HDCMessage::MsgType replyType, std::chrono::milliseconds timeout = 30s) {
    HDCMessage request;
    request.set_type(type);
    request.set_device_id(device);
    request.mutable_proc_sign_pid()->set_proc_pid(hostPid);
    request.set_start_cp(true);
    request.set_start_zarn(zarn);
    if (!link.Send(request)) {
        return -1;
    }
    HDCMessage reply;
    auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (link.Next(&reply, left) != Received::kMessage) {
            return -1;
        }
        if (reply.type() == replyType) {
            return static_cast<int>(reply.orv_rsp_code());
        }
    }
    return -1;
}

// ---- The floor, run inside the sandbox -------------------------------------------

// The bare floor: fork, exec of a trivial program, and a one-byte answer on a
// pipe; microseconds, or -1.
double BareStart() {
    int answer[2];
    if (pipe2(answer, O_CLOEXEC) != 0) {
        return -1;
    }
    const std::string child = g_binDir + "/orv-bench-child";
    auto started = Clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(answer[1], 3);
        char* const argv[] = {const_cast<char*>("orv-bench-child"), nullptr};
        char* const envp[] = {nullptr};
        execve(child.c_str(), argv, envp);
        _exit(127);
    }
    close(answer[1]);
    char byte = 0;
    bool answered = pid > 0 && read(answer[0], &byte, 1) == 1;
    auto done = Clock::now();
    close(answer[0]);
    if (pid > 0) {
        waitpid(pid, nullptr, 0);
    }
    return answered ? Micros(done - started) : -1.0;
}

// Forks and executes the compute stand-in and waits for its start report, as
// the daemon does minus everything else; then closes it the same way. Each
// round measures the bare floor too, and both run on the control CPU of
// device 0, where the daemon starts its sub-processes.
int RunFloor(int count) {
    if (halEschedAttachDevice(0) != DRV_ERROR_NONE ||
        halEschedCreateGrp(0, 0, GRP_TYPE_BIND_CP_CPU) != DRV_ERROR_NONE ||
        halEschedSubscribeEvent(0, 0, 0, 1ULL << EVENT_CCPU_CTRL_MSG) != DRV_ERROR_NONE) {
        std::fprintf(stderr, "orv-bench floor: event scheduler set-up failed\n");
        return 1;
    }
    signal(SIGCHLD, SIG_DFL);
    PinTo(0);
    for (int i = 0; i < count; ++i) {
        double bare = BareStart();
        std::string pidArg = "--pid=" + std::to_string(900000 + i);
        auto started = Clock::now();
        pid_t child = fork();
        if (child == 0) {
            char* const argv[] = {
                const_cast<char*>("aicpu_runner"), const_cast<char*>("--deviceId=0"),
                const_cast<char*>(pidArg.c_str()), const_cast<char*>("--vfId=0"), nullptr};
            char* const envp[] = {nullptr};
            execve("/var/aicpu_runner", argv, envp);
            _exit(127);
        }
        event_info event;
        bool reported = false;
        while (!reported && halEschedWaitEvent(0, 0, 0, 10000, &event) == DRV_ERROR_NONE) {
            reported = event.subevent_id == orv::ORV_SUB_EVENT_START && event.src_pid == child;
        }
        auto handshaken = Clock::now();
        orv::OrvSubEventInfo close;
        std::memset(&close, 0, sizeof(close));
        close.srcPid = static_cast<uint32_t>(getpid());
        close.dstPid = static_cast<uint32_t>(child);
        close.procType = 1;
        close.eventType = orv::ORV_SUB_EVENT_CLOSE_REQ;
        event_summary summary{};
        summary.dst_pid = child;
        summary.grp_id = 30;
        summary.event_id = EVENT_CCPU_CTRL_MSG;
        summary.subevent_id = orv::ORV_SUB_EVENT_CLOSE_REQ;
        summary.msg = reinterpret_cast<const char*>(&close);
        summary.msg_len = sizeof(close);
        auto closing = Clock::now();
        halEschedSubmitEvent(0, &summary);
        while (halEschedWaitEvent(0, 0, 0, 10000, &event) == DRV_ERROR_NONE &&
               !(event.subevent_id == orv::ORV_SUB_EVENT_CLOSE && event.src_pid == child)) {
        }
        waitpid(child, nullptr, 0);
        auto closed = Clock::now();
        std::printf("%.1f %.1f %.1f\n", bare, reported ? Micros(handshaken - started) : -1.0,
                    Micros(closed - closing));
    }
    return 0;
}

// ---- Latency ----------------------------------------------------------------------

struct Samples {
    std::vector<double> start;
    std::vector<double> close;
};

struct Floors {
    std::vector<double> bare;  // fork + exec + one-byte handshake of a trivial program
    Samples standin;           // the stand-in's start handshake and close
};

// Runs the floors inside the sandbox: `count` rounds, one after another.
Floors MeasureFloor(const SandboxClient& sandbox, int count) {
    std::string output;
    sandbox.Enter({g_binDir + "/orv-bench", "floor", std::to_string(count)}, &output);
    Floors floors;
    std::istringstream lines(output);
    for (double bare, start, close; lines >> bare >> start >> close;) {
        if (bare >= 0) {
            floors.bare.push_back(bare);
        }
        if (start >= 0) {
            floors.standin.start.push_back(start);
            floors.standin.close.push_back(close);
        }
    }
    return floors;
}

double P50(const std::vector<double>& samples) {
    return Percentile(samples, 0.5);
}

// "a / b" of the p50s.
double Ratio(const std::vector<double>& a, const std::vector<double>& b) {
    return P50(a) / std::max(1.0, P50(b));
}

// `sessions` host processes (pids from `firstHostPid`) one after another on
// device 0, each on a new link: start the compute process (and the collective
// service when `zarn`), then close. Adds to `samples`; the failed sessions.
int MeasureDaemon(const SandboxClient& sandbox, int sessions, bool zarn, uint32_t firstHostPid,
                  Samples* samples) {
    int failures = 0;
    for (int i = 0; i < sessions; ++i) {
        std::unique_ptr<HostLink> link = Connect(sandbox, 0);
        if (link == nullptr) {
            return failures + sessions - i;
        }
        uint32_t hostPid = firstHostPid + static_cast<uint32_t>(i);
        auto t0 = Clock::now();
        int code = Ask(*link, HDCMessage::ORV_START_PROC_MSG, 0, hostPid, zarn,
                       HDCMessage::ORV_START_PROC_RSP);
        auto t1 = Clock::now();
        int closed = Ask(*link, HDCMessage::ORV_CLOSE_PROC_MSG, 0, hostPid, false,
                         HDCMessage::ORV_CLOSE_PROC_RSP);
        auto t2 = Clock::now();
        if (code != 0 || closed != 0) {
            ++failures;
            continue;
        }
        samples->start.push_back(Micros(t1 - t0));
        samples->close.push_back(Micros(t2 - t1));
    }
    return failures;
}

int Latency(int sessions) {
    std::printf(
        "\nStart and close latency (%d sessions of each kind, device 0), against the floors\n",
        sessions);
    SandboxClient sandbox(g_binDir, MakeState("latency"));
    if (!sandbox.Boot({}, 30s)) {
        std::fprintf(stderr, "orv-bench: the sandbox did not come up\n");
        return 1;
    }
    Floors floors = MeasureFloor(sandbox, sessions);
    // Interleaved, so that the machine's other load falls on both alike.
    Samples computeOnly;
    Samples both;
    int failures = 0;
    for (int i = 0; i < sessions; ++i) {
        failures +=
            MeasureDaemon(sandbox, 1, false, 10000 + static_cast<uint32_t>(i), &computeOnly);
        failures += MeasureDaemon(sandbox, 1, true, 20000 + static_cast<uint32_t>(i), &both);
    }
    Finish(sandbox, failures == 0);
    Report("bare floor: fork + exec + one-byte handshake", floors.bare);
    Report("stand-in: fork + exec + start handshake", floors.standin.start);
    Report("stand-in: close request to exit", floors.standin.close);
    Report("daemon start, compute only (-> type-8 reply)", computeOnly.start);
    Report("daemon start, compute + collective service", both.start);
    Report("daemon close, compute only (-> type-9 reply)", computeOnly.close);
    Report("daemon close, compute + collective service", both.close);
    double standin = Ratio(floors.standin.start, floors.bare);
    double one = Ratio(computeOnly.start, floors.bare);
    double two = Ratio(both.start, floors.bare);
    std::printf(
        "  against the bare floor: stand-in handshake %.2fx, start compute only %.2fx, compute + "
        "collective service %.2fx%s\n",
        standin, one, two, failures != 0 ? "; FAILED SESSIONS" : "");
    std::printf(
        "  against the stand-in's handshake: start compute only %.2fx, compute + collective "
        "service %.2fx\n",
        Ratio(computeOnly.start, floors.standin.start), Ratio(both.start, floors.standin.start));
    AddRow("bare floor: fork + exec + one-byte handshake",
           Format("%.2f ms", P50(floors.bare) / 1000), "(the floor)", true);
    AddRow("the stand-in's start handshake", Format("%.2fx the floor", standin),
           "close to the floor (1.5x)", standin <= 1.5);
    AddRow("start, compute only",
           Format("%.2fx the floor", one) + Format(" (%.2f ms)", P50(computeOnly.start) / 1000),
           "2x", one <= 2.0);
    AddRow("start, compute + collective service",
           Format("%.2fx the floor", two) + Format(" (%.2f ms)", P50(both.start) / 1000), "3x",
           two <= 3.0);
    AddRow("close, compute + collective service", Format("%.2f ms", P50(both.close) / 1000), "2 ms",
           P50(both.close) <= 2000);
    return failures == 0 ? 0 : 1;
}

// ---- Stop -------------------------------------------------------------------------------

// SIGTERM to the sandbox (which hands it to the daemon) with sessions live:
// the daemon's exit, and the whole sandbox's.
int StopTimes(int rounds) {
    std::printf("\nSIGTERM with sessions live (%d rounds; 4 hosts, compute + collective service)\n",
                rounds);
    std::vector<double> daemonExit;
    std::vector<double> sandboxDown;
    for (int round = 0; round < rounds; ++round) {
        SandboxClient sandbox(g_binDir, MakeState("stop"));
        if (!sandbox.Boot({}, 30s)) {
            std::fprintf(stderr, "orv-bench: the sandbox did not come up\n");
            return 1;
        }
        std::vector<std::unique_ptr<HostLink>> links;
        for (uint32_t host = 0; host < 4; ++host) {
            links.push_back(Connect(sandbox, 0));
            if (links.back() == nullptr ||
                Ask(*links.back(), HDCMessage::ORV_START_PROC_MSG, 0, 50000 + host, true,
                    HDCMessage::ORV_START_PROC_RSP) != 0) {
                std::fprintf(stderr, "orv-bench: a start failed\n");
                return 1;
            }
        }
        int daemonFd = static_cast<int>(syscall(SYS_pidfd_open, sandbox.DaemonPid(), 0));
        auto asked = Clock::now();
        std::thread stopper([&] { sandbox.Stop(); });
        pollfd exited{daemonFd, POLLIN, 0};
        if (daemonFd >= 0 && poll(&exited, 1, 30000) == 1) {
            daemonExit.push_back(Micros(Clock::now() - asked));
        }
        stopper.join();
        sandboxDown.push_back(Micros(Clock::now() - asked));
        if (daemonFd >= 0) {
            close(daemonFd);
        }
        RemoveState(sandbox);
    }
    Report("SIGTERM -> the daemon's exit", daemonExit);
    Report("SIGTERM -> the whole sandbox down", sandboxDown);
    AddRow("SIGTERM to the daemon's exit, sessions live",
           Format("%.0f ms p50", P50(daemonExit) / 1000), "100 ms",
           !daemonExit.empty() && P50(daemonExit) <= 100000);
    double worst =
        sandboxDown.empty() ? 0 : *std::max_element(sandboxDown.begin(), sandboxDown.end());
    AddRow("SIGTERM to the whole sandbox down", Format("%.0f ms at most", worst / 1000), "1 s",
           !sandboxDown.empty() && worst <= 1000000);
    return 0;
}

// ---- A general-purpose supervisor on the same stand-in --------------------------------

// supervisord's files, inside the sandbox (/var is the state directory's var/).
constexpr char kSupervisordDir[] = "/var/supervisord";
constexpr char kSupervisordProgram[] = "standin";
constexpr char kSupervisordProgramStartsecs[] = "standin-startsecs1";

// supervisord runs the stand-in as the floor does (same program, same
// arguments). It adds its own SUPERVISOR_* variables to an environment it is
// given empty. TERM is the stop signal: the stand-in keeps its default action.
std::string SupervisordConfig() {
    std::string dir = kSupervisordDir;
    std::string program =
        "command=/var/aicpu_runner --deviceId=0 --pid=900000 --vfId=0\n"
        "autostart=false\nautorestart=false\nstartretries=0\n"
        "stopsignal=TERM\nstopwaitsecs=10\nredirect_stderr=true\n"
        "stdout_logfile=" +
        dir + "/standin.out\n";
    return "[unix_http_server]\nfile=" + dir +
           "/supervisor.sock\nchmod=0700\n\n"
           "[supervisord]\nnodaemon=true\nlogfile=" +
           dir + "/supervisord.log\npidfile=" + dir + "/supervisord.pid\nchildlogdir=" + dir +
           "\n\n"
           "[rpcinterface:supervisor]\nsupervisor.rpcinterface_factory = "
           "supervisor.rpcinterface:make_main_rpcinterface\n\n"
           "[program:" +
           kSupervisordProgram + "]\nstartsecs=0\n" + program +
           "\n"
           "[program:" +
           kSupervisordProgramStartsecs + "]\nstartsecs=1\n" + program;
}

// Sees from outside, in the stand-ins' records (run/orv-stub/<pid>.txt), when
// a stand-in has sent its start report through the event scheduler: the
// moment it is as far as a sub-process the daemon declares started.
class StartReportWatch {
  public:
    explicit StartReportWatch(std::string dir) : dir_(std::move(dir)) {
        fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd_ >= 0 &&
            inotify_add_watch(fd_, dir_.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_MODIFY) < 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~StartReportWatch() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    StartReportWatch(const StartReportWatch&) = delete;
    StartReportWatch& operator=(const StartReportWatch&) = delete;

    bool Valid() const { return fd_ >= 0; }

    // Forgets what was written so far.
    void Drain() {
        std::vector<std::string> ignored;
        ReadNames(&ignored);
    }

    // Waits until a stand-in whose record changed since the last Drain() has
    // sent its start report; false at the deadline.
    bool Wait(Clock::time_point deadline) {
        const std::string marker = "\nsent " + std::to_string(orv::ORV_SUB_EVENT_START) + " rc ";
        while (Clock::now() < deadline) {
            std::vector<std::string> names;
            ReadNames(&names);
            for (const std::string& name : names) {
                std::ifstream in(dir_ + "/" + name);
                std::stringstream record;
                record << in.rdbuf();
                if (record.str().find(marker) != std::string::npos) {
                    return true;
                }
            }
            pollfd p{fd_, POLLIN, 0};
            poll(&p, 1, 100);
        }
        return false;
    }

  private:
    void ReadNames(std::vector<std::string>* names) {
        alignas(inotify_event) char buffer[16384];
        for (ssize_t n; (n = read(fd_, buffer, sizeof(buffer))) > 0;) {
            for (ssize_t at = 0; at < n;) {
                auto* event = reinterpret_cast<inotify_event*>(buffer + at);
                std::string name = event->len > 0 ? std::string(event->name) : std::string();
                if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0) {
                    names->push_back(name);
                }
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
    }

    const std::string dir_;
    int fd_ = -1;
};

// Starts supervisord inside the sandbox and waits until it answers RUNNING.
bool StartSupervisord(const SandboxClient& sandbox, XmlRpcClient* rpc) {
    std::string dir = sandbox.StateDir() + kSupervisordDir;
    orv::emu::RunProgram({"/bin/mkdir", "-p", dir});
    {
        std::ofstream config(dir + "/supervisord.conf", std::ios::trunc);
        config << SupervisordConfig();
    }
    // With an empty environment, as the floor gives the stand-in.
    if (sandbox.Enter(
            {"/usr/bin/env", "-i", "/usr/bin/python3", "/usr/bin/supervisord", "--nodaemon",
             "--configuration", std::string(kSupervisordDir) + "/supervisord.conf"},
            nullptr, true) != 0) {
        std::fprintf(stderr, "orv-bench: cannot start supervisord in the sandbox\n");
        return false;
    }
    std::string error;
    auto deadline = Clock::now() + 30s;
    while (Clock::now() < deadline) {
        XmlRpcValue state;
        if (rpc->Call("supervisor.getState", {}, &state, &error) &&
            state.Member("statename").text == "RUNNING") {
            return true;
        }
        rpc->Close();
        std::this_thread::sleep_for(20ms);
    }
    std::fprintf(stderr, "orv-bench: supervisord did not come up (%s; see %s/supervisord.log)\n",
                 error.c_str(), dir.c_str());
    return false;
}

// Starts and stops `program` through supervisord; false on the first fault.
bool SupervisordCycle(XmlRpcClient& rpc, const char* program, StartReportWatch* watch,
                      double* started, double* ready, double* stopped, std::string* error) {
    XmlRpcValue result;
    if (watch != nullptr) {
        watch->Drain();
    }
    auto t0 = Clock::now();
    if (!rpc.Call("supervisor.startProcess",
                  {XmlRpcValue::String(program), XmlRpcValue::Bool(true)}, &result, error)) {
        return false;
    }
    auto t1 = Clock::now();
    if (!result.IsTrue()) {
        *error = "startProcess did not answer true";
        return false;
    }
    if (watch != nullptr && !watch->Wait(t1 + 10s)) {
        *error = "the stand-in did not report its start";
        return false;
    }
    auto t2 = Clock::now();
    if (!rpc.Call("supervisor.stopProcess", {XmlRpcValue::String(program), XmlRpcValue::Bool(true)},
                  &result, error)) {
        return false;
    }
    auto t3 = Clock::now();
    if (!result.IsTrue()) {
        *error = "stopProcess did not answer true";
        return false;
    }
    *started = Micros(t1 - t0);
    *ready = Micros(t2 - t0);
    *stopped = Micros(t3 - t2);
    return true;
}

int Supervisord(int cycles) {
    std::printf(
        "\nAgainst supervisord (XML-RPC over its Unix socket), the same stand-in, %d cycles, "
        "device 0\n",
        cycles);
    SandboxClient sandbox(g_binDir, MakeState("supervisord"));
    if (!sandbox.Boot({}, 30s)) {
        std::fprintf(stderr, "orv-bench: the sandbox did not come up\n");
        return 1;
    }
    XmlRpcClient rpc(sandbox.StateDir() + kSupervisordDir + "/supervisor.sock");
    StartReportWatch watch(sandbox.Env()["ORV_STANDIN_RECORDS"]);
    if (!watch.Valid() || !StartSupervisord(sandbox, &rpc)) {
        return 1;
    }
    Floors floors = MeasureFloor(sandbox, cycles);
    // One session of each kind per round, so that the machine's other load
    // falls on all of them alike.
    Samples daemonOne;
    Samples daemonTwo;
    Samples supervisord;
    std::vector<double> supervisordReady;
    std::vector<double> roundTrip;
    int failures = 0;
    std::string error;
    for (int i = 0; i < cycles && error.empty(); ++i) {
        failures += MeasureDaemon(sandbox, 1, false, 30000 + static_cast<uint32_t>(i), &daemonOne);
        failures += MeasureDaemon(sandbox, 1, true, 40000 + static_cast<uint32_t>(i), &daemonTwo);
        double started = 0;
        double ready = 0;
        double stopped = 0;
        if (SupervisordCycle(rpc, kSupervisordProgram, &watch, &started, &ready, &stopped,
                             &error)) {
            supervisord.start.push_back(started);
            supervisordReady.push_back(ready);
            supervisord.close.push_back(stopped);
        }
        XmlRpcValue state;
        auto t0 = Clock::now();
        if (rpc.Call("supervisor.getState", {}, &state, &error)) {
            roundTrip.push_back(Micros(Clock::now() - t0));
        }
    }
    // supervisord's own readiness rule: RUNNING once the process has lived
    // startsecs. Each cycle lasts over a second, so only a few.
    Samples startsecs;
    for (int i = 0; i < std::max(3, cycles / 20) && error.empty(); ++i) {
        double started = 0;
        double ready = 0;
        double stopped = 0;
        if (SupervisordCycle(rpc, kSupervisordProgramStartsecs, nullptr, &started, &ready, &stopped,
                             &error)) {
            startsecs.start.push_back(started);
            startsecs.close.push_back(stopped);
        }
    }
    XmlRpcValue ignored;
    std::string shutdownError;
    rpc.Call("supervisor.shutdown", {}, &ignored, &shutdownError);
    rpc.Close();
    Finish(sandbox, failures == 0 && error.empty());
    if (!error.empty()) {
        std::fprintf(stderr, "orv-bench: supervisord: %s\n", error.c_str());
    }

    Report("bare floor: fork + exec + one-byte handshake", floors.bare);
    Report("stand-in: fork + exec + start handshake", floors.standin.start);
    Report("stand-in: close request to exit", floors.standin.close);
    Report("daemon start, compute process only (-> type-8 reply)", daemonOne.start);
    Report("daemon start, compute + collective service", daemonTwo.start);
    Report("supervisord startProcess, startsecs=0 (-> RUNNING)", supervisord.start);
    Report("supervisord startProcess + stand-in's start report", supervisordReady);
    Report("supervisord startProcess, startsecs=1 (-> RUNNING)", startsecs.start);
    Report("daemon close, compute process only (-> type-9 reply)", daemonOne.close);
    Report("daemon close, compute + collective service", daemonTwo.close);
    Report("supervisord stopProcess, SIGTERM (-> STOPPED)", supervisord.close);
    Report("supervisord XML-RPC round trip (getState)", roundTrip);
    auto ratio = [](const std::vector<double>& a, const std::vector<double>& b) {
        return Percentile(a, 0.5) / std::max(1.0, Percentile(b, 0.5));
    };
    std::printf(
        "  start p50, daemon / supervisord: compute only %.2fx against RUNNING, %.2fx against the "
        "start "
        "report; compute + collective service %.2fx, %.2fx\n",
        ratio(daemonOne.start, supervisord.start), ratio(daemonOne.start, supervisordReady),
        ratio(daemonTwo.start, supervisord.start), ratio(daemonTwo.start, supervisordReady));
    std::printf(
        "  close p50, daemon / supervisord: compute only %.2fx, compute + collective service "
        "%.2fx%s\n",
        ratio(daemonOne.close, supervisord.close), ratio(daemonTwo.close, supervisord.close),
        failures != 0 || !error.empty() ? "; FAILURES" : "");
    double start = ratio(daemonOne.start, supervisordReady);
    double stop = ratio(daemonOne.close, supervisord.close);
    AddRow("start, compute only, against supervisord's like-for-like start", Format("%.2fx", start),
           "1/3", start <= 1.0 / 3);
    AddRow("close, compute only, against supervisord's stop", Format("%.2fx", stop), "1/2",
           stop <= 0.5);
    return failures == 0 && error.empty() ? 0 : 1;
}

// ---- Concurrency ----------------------------------------------------------------------

struct ResourceSample {
    size_t threads = 0;
    size_t rssKb = 0;
};

ResourceSample Sample(pid_t pid) {
    return ResourceSample{orv::emu::ThreadCount(pid), orv::emu::ResidentKb(pid)};
}

int Concurrent(int perDevice, bool reportResources) {
    uint32_t devices = std::max(1u, std::min(4u, std::thread::hardware_concurrency()));
    std::printf(
        "\n%d host processes on each of %u device(s) starting at once (compute + collective "
        "service)\n",
        perDevice, devices);
    SandboxClient sandbox(g_binDir, MakeState("concurrent"));
    if (!sandbox.Boot({"--devices", std::to_string(devices)}, 30s)) {
        std::fprintf(stderr, "orv-bench: the sandbox did not come up\n");
        return 1;
    }
    pid_t daemon = sandbox.DaemonPid();
    std::this_thread::sleep_for(500ms);
    ResourceSample idle = Sample(daemon);
    int hosts = perDevice * static_cast<int>(devices);
    std::vector<std::unique_ptr<HostLink>> links(static_cast<size_t>(hosts));
    std::vector<double> latency(static_cast<size_t>(hosts), -1);
    std::atomic<int> answered{0};
    std::atomic<bool> sampling{true};
    ResourceSample peak;
    std::thread sampler([&] {
        while (sampling) {
            ResourceSample now = Sample(daemon);
            peak.threads = std::max(peak.threads, now.threads);
            peak.rssKb = std::max(peak.rssKb, now.rssKb);
            std::this_thread::sleep_for(5ms);
        }
    });
    auto t0 = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < hosts; ++i) {
        threads.emplace_back([&, i] {
            uint32_t device = static_cast<uint32_t>(i) % devices;
            links[static_cast<size_t>(i)] = Connect(sandbox, device);
            auto start = Clock::now();
            if (links[static_cast<size_t>(i)] != nullptr &&
                Ask(*links[static_cast<size_t>(i)], HDCMessage::ORV_START_PROC_MSG, device,
                    20000 + static_cast<uint32_t>(i), true, HDCMessage::ORV_START_PROC_RSP,
                    60s) == 0) {
                latency[static_cast<size_t>(i)] = Micros(Clock::now() - start);
                ++answered;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    double all = Micros(Clock::now() - t0);
    sampling = false;
    sampler.join();
    threads.clear();
    for (int i = 0; i < hosts; ++i) {
        threads.emplace_back([&, i] {
            if (links[static_cast<size_t>(i)] != nullptr) {
                Ask(*links[static_cast<size_t>(i)], HDCMessage::ORV_CLOSE_PROC_MSG,
                    static_cast<uint32_t>(i) % devices, 20000 + static_cast<uint32_t>(i), false,
                    HDCMessage::ORV_CLOSE_PROC_RSP, 60s);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    links.clear();
    auto settle = Clock::now() + 30s;
    while (Sample(daemon).threads > idle.threads && Clock::now() < settle) {
        std::this_thread::sleep_for(50ms);
    }
    ResourceSample after = Sample(daemon);
    std::vector<double> answeredLatency;
    for (double l : latency) {
        if (l >= 0) {
            answeredLatency.push_back(l);
        }
    }
    std::printf("  answered %d of %d in %.1f ms\n", answered.load(), hosts, all / 1000.0);
    AddRow(std::to_string(perDevice) + " hosts on each of " + std::to_string(devices) +
               " devices starting at once",
           Format("last answer after %.2f s", all / 1e6) +
               (answered == hosts ? "" : ", NOT ALL ANSWERED"),
           "1 s", answered == hosts && all <= 1e6);
    Report("start latency under that load", answeredLatency);
    std::printf("  daemon threads: idle %zu, peak %zu, after closing %zu (%s)\n", idle.threads,
                peak.threads, after.threads,
                after.threads <= idle.threads ? "back to idle" : "NOT back to idle");
    AddRow("the daemon's threads after the hosts closed",
           Format("%.0f", static_cast<double>(after.threads)),
           Format("idle (%.0f)", static_cast<double>(idle.threads)), after.threads <= idle.threads);
    AddRow("the daemon's resident size at the peak", Format("%.1f MiB", peak.rssKb / 1024.0),
           "64 MiB", peak.rssKb < 64 * 1024);
    if (reportResources) {
        std::printf("\nResources of the daemon\n");
        std::printf("  idle:        RSS %6zu KiB, %3zu threads\n", idle.rssKb, idle.threads);
        std::printf("  under load:  RSS %6zu KiB, %3zu threads (peak while %d hosts started)\n",
                    peak.rssKb, peak.threads, hosts);
        std::printf("  afterwards:  RSS %6zu KiB, %3zu threads\n", after.rssKb, after.threads);
    }
    const bool wentWell = answered == hosts && after.threads <= idle.threads;
    Finish(sandbox, wentWell);
    return wentWell ? 0 : 1;
}

// ---- Packages ---------------------------------------------------------------------------

int32_t VerifyWithLibrary(const std::string& path) {
    static void* library = dlopen((g_binDir + "/../lib/liborv_emu_imgverify.so").c_str(), RTLD_NOW);
    static auto verify = library != nullptr
                             ? reinterpret_cast<HalVerifyImgFunc>(dlsym(library, IMG_VERIFY_SYMBOL))
                             : nullptr;
    return verify != nullptr ? verify(0, 0, path.c_str(), 1) : -1;
}

uint32_t QueryCheckCode(SandboxClient& sandbox) {
    std::unique_ptr<HostLink> link = Connect(sandbox, 0);
    if (link == nullptr) {
        return 0;
    }
    HDCMessage request;
    request.set_type(HDCMessage::ORV_CHECK_PACKAGE);
    HDCMessage reply;
    if (!link->Send(request) || link->Next(&reply, 5s) != Received::kMessage) {
        return 0;
    }
    return reply.check_code();
}

bool CopyInto(const std::string& from, const std::string& to) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    out.close();  // the close after writing is what the watcher reacts to
    return static_cast<bool>(out);
}

int Packages(int runs) {
    std::printf(
        "\nPackage install: close in the trusted directory -> check code published, against\n"
        "tar -xzf of the same package plus its signature check\n");
    SandboxClient sandbox(g_binDir, MakeState("package"));
    if (!sandbox.Boot({}, 30s)) {
        std::fprintf(stderr, "orv-bench: the sandbox did not come up\n");
        return 1;
    }
    std::string work = sandbox.StateDir() + ".work";
    orv::emu::RunProgram({"/bin/mkdir", "-p", work});
    std::string trusted = sandbox.Env()["ORV_TRUSTED_DIR_0"];
    int status = 0;
    struct Size {
        const char* label;
        size_t pad;
        int runs;
    };
    for (const Size& size :
         {Size{"small package", 0, runs * 4}, Size{"50 MB package", 50u << 20, runs}}) {
        // Two packages of different sizes, so that each install changes the check code.
        std::string packages[2];
        for (int v = 0; v < 2; ++v) {
            packages[v] = work + "/v" + std::to_string(v) + "/3_Velkan512-aicpu_syskernels.tar.gz";
            orv::emu::RunProgram({"/bin/mkdir", "-p", work + "/v" + std::to_string(v)});
            orv::emu::RunProgram({g_binDir + "/orv-emu-mkpkg", "--out", packages[v], "--pad-bytes",
                                  std::to_string(size.pad + static_cast<size_t>(v) * 4096)});
        }
        std::vector<double> daemon;
        std::vector<double> baseline;
        for (int i = 0; i < size.runs; ++i) {
            const std::string& package = packages[i % 2];
            std::ifstream in(package, std::ios::binary | std::ios::ate);
            uint32_t code = static_cast<uint32_t>(in.tellg());
            std::string target = trusted + "/3_Velkan512-aicpu_syskernels.tar.gz";
            // Copy under another name first, so that only the final close counts.
            std::string staged = trusted + "/staged.tmp";
            CopyInto(package, staged);
            auto t0 = Clock::now();
            rename(staged.c_str(), target.c_str());
            // A rename is no close after writing: touch the file with one to start the install.
            { std::ofstream(target, std::ios::binary | std::ios::app).close(); }
            while (QueryCheckCode(sandbox) != code && Clock::now() - t0 < 60s) {
                std::this_thread::sleep_for(1ms);
            }
            daemon.push_back(Micros(Clock::now() - t0));

            std::string scratch = work + "/unpack";
            orv::emu::RunProgram({"/bin/rm", "-rf", scratch});
            orv::emu::RunProgram({"/bin/mkdir", "-p", scratch});
            auto b0 = Clock::now();
            bool verified = VerifyWithLibrary(package) == 0;
            int untarred = orv::emu::RunProgram({"/bin/tar", "-xzf", package, "-C", scratch});
            baseline.push_back(Micros(Clock::now() - b0));
            if (!verified || untarred != 0) {
                status = 1;
            }
        }
        Report(std::string(size.label) + ": daemon install", daemon);
        Report(std::string(size.label) + ": tar -xzf + signature check", baseline);
        std::printf("  %s: daemon p50 / baseline p50 = %.2fx%s\n", size.label,
                    Percentile(daemon, 0.5) / std::max(1.0, Percentile(baseline, 0.5)),
                    size.pad != 0 ? " (target: within 1.3x)" : "");
    }
    Finish(sandbox, status == 0);
    orv::emu::RunProgram({"/bin/rm", "-rf", work});
    return status;
}

// ---- Logging --------------------------------------------------------------------------

int LogRate() {
    std::printf("\nLog statements per second (one thread, into a file)\n");
    std::string dir = MakeState("log");
    // Only for this part: the suite, run after it, inherits the environment,
    // and its log tests would write into this removed directory.
    std::vector<std::pair<const char*, std::optional<std::string>>> saved;
    for (const char* name : {"ORV_EMU_LOG_FILE", "ORV_EMU_LOG_LEVEL"}) {
        const char* value = getenv(name);
        saved.emplace_back(name,
                           value != nullptr ? std::optional<std::string>(value) : std::nullopt);
    }
    setenv("ORV_EMU_LOG_FILE", (dir + "/system.log").c_str(), 1);
    setenv("ORV_EMU_LOG_LEVEL", "info", 1);
    OrvEmuSlogReconfigure();
    struct Kind {
        const char* label;
        uint32_t level;
    };
    for (const Kind& kind :
         {Kind{"written (info)", orv::ORV_INFO}, Kind{"gated off (debug)", orv::ORV_DEBUG},
          Kind{"error (kept for the host too)", orv::ORV_ERROR}}) {
        const int count = 100000;
        auto t0 = Clock::now();
        for (int i = 0; i < count; ++i) {
            orv::ORVLog::GetInstance().OrvImplLog("LogRate", "orv_bench.cc", 1,
                                                  orv::Log{kind.level},
                                                  "[OrvDaemon] statement %d of %s", i, kind.label);
        }
        double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        std::printf("  %-32s %10.0f statements/s\n", kind.label, count / seconds);
    }
    (void)orv::ORVLog::GetInstance().GetErrorMsg();
    for (const auto& [name, value] : saved) {
        if (value) {
            setenv(name, value->c_str(), 1);
        } else {
            unsetenv(name);
        }
    }
    OrvEmuSlogReconfigure();
    orv::emu::RunProgram({"/bin/rm", "-rf", dir});
    return 0;
}

// ---- The suite and the demo ----------------------------------------------------------

// Wall time of a program run to its end, in seconds; its status in `status`.
double TimeRun(const std::vector<std::string>& argv, int* status) {
    auto t0 = Clock::now();
    *status = orv::emu::RunProgram(argv, nullptr, "", std::chrono::minutes(30));
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

int Suite() {
    std::printf(
        "\nThe test suite and the demo, as `make test` and `make demo` run them after the build\n");
    const std::string buildDir = g_binDir + "/..";
    int testStatus = 0;
    double test = TimeRun({"/usr/bin/ctest", "--test-dir", buildDir, "-j", "12"}, &testStatus);
    int demoStatus = 0;
    double demo = TimeRun({g_binDir + "/orv-demo"}, &demoStatus);
    std::printf("  test suite: %.1f s (%s); demo: %.1f s (%s)\n", test,
                testStatus == 0 ? "passed" : "FAILED", demo, demoStatus == 0 ? "passed" : "FAILED");
    AddRow("the test suite on 2 cores", Format("%.0f s", test), "60 s",
           testStatus == 0 && test <= 60);
    AddRow("the demo", Format("%.1f s", demo), "5 s", demoStatus == 0 && demo <= 5);
    return testStatus == 0 && demoStatus == 0 ? 0 : 1;
}

// Every figure against its target; non-zero when one missed it.
int Summary() {
    std::printf("\nEvery figure against its target\n");
    bool all = true;
    for (const Row& row : g_rows) {
        std::printf("  %-62s %-34s target %-26s %s\n", row.what.c_str(), row.figure.c_str(),
                    row.target.c_str(), row.met ? "met" : "NOT MET");
        all = all && row.met;
    }
    return all ? 0 : 1;
}

int Option(int argc, char** argv, const char* name, int fallback) {
    for (int i = 2; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) {
            return std::atoi(argv[i + 1]);
        }
    }
    return fallback;
}

}  // namespace

int main(int argc, char** argv) {
    g_binDir = orv::emu::ProgramDir();
    std::string command = argc > 1 ? argv[1] : "all";
    if (command == "floor") {
        return RunFloor(argc > 2 ? std::atoi(argv[2]) : 200);
    }
    if (command == "latency") {
        return Latency(Option(argc, argv, "--sessions", 200)) | Summary();
    }
    if (command == "stop") {
        return StopTimes(Option(argc, argv, "--rounds", 10)) | Summary();
    }
    if (command == "suite") {
        return Suite() | Summary();
    }
    if (command == "supervisord") {
        return Supervisord(Option(argc, argv, "--cycles", 200)) | Summary();
    }
    if (command == "concurrent") {
        return Concurrent(Option(argc, argv, "--per-device", 32), false) | Summary();
    }
    if (command == "resources") {
        return Concurrent(Option(argc, argv, "--per-device", 32), true);
    }
    if (command == "package") {
        return Packages(Option(argc, argv, "--runs", 5));
    }
    if (command == "log-rate") {
        return LogRate();
    }
    if (command == "all") {
        int status = 0;
        status |= Latency(200);
        status |= StopTimes(10);
        status |= Supervisord(200);
        status |= Concurrent(32, true);
        status |= Packages(5);
        status |= LogRate();
        status |= Suite();
        return status | Summary();
    }
    std::fprintf(stderr,
                 "usage: orv-bench "
                 "[latency|stop|supervisord|concurrent|resources|package|log-rate|suite|all]\n");
    return 2;
}
