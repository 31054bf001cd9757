// orv-bench-hostile: honest hosts served while every attack the daemon is
// bounded against runs at once, against the same honest load undisturbed.
//
//   orv-bench-hostile [--seconds N] [--correctness] [--only ATTACK,...]
//
// Honest hosts on both devices (outside the card, as hosts are) run start and
// close cycles, and one drops kernel packages for a VF and waits for each to
// be installed. The attackers meanwhile: local processes of the card holding
// hundreds of half-sent links, sparse files and packages with overlong lines
// in the trusted directories, paths planted where packages wait, version
// handshakes with huge feature lists, starts on a VF that does not exist and
// with another tenant's buffer group, records forged by a stranger, VF
// notices from a stranger, a host that never reads, and sessions ended by
// kernel time-outs.
//
// It reports the honest start latency (p50 and p99, against the undisturbed
// run), the daemon's peak resident size, threads and descriptors, whether
// every honest request was answered and every honest package installed,
// whether the daemon came back to its level at rest, and SIGTERM to exit
// with the attacks running. With --correctness (what CI runs) only the
// undisturbed run is left out and only the correctness half is judged.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

constexpr char kArchiveName[] = "Velkan512-aicpu_syskernels.tar.gz";
// The honest packages' VF, and the attackers' other VF and tenant group.
constexpr int kHonestVf = 1;
constexpr int kOtherVf = 2;
constexpr char kOtherTenantsGroup[] = "VF2GRP";
constexpr int kHostsPerDevice = 2;
constexpr int kDevices = 2;

std::string g_binDir;
// The attacks to run, as ",name,name,"; empty: every one.
std::string g_only;

double Millis(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

double Percentile(std::vector<double> samples, double p) {
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    size_t index = static_cast<size_t>(p * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[std::min(index, samples.size() - 1)];
}

// Writes `bytes` into `path` and closes it: the close after writing is what
// the daemon's watcher takes a package from.
bool WriteClosed(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    return static_cast<bool>(out);
}

std::string ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A package built with orv-emu-mkpkg from `options`; its bytes.
std::string BuildPackage(const std::string& work, const std::string& name,
                         std::vector<std::string> options) {
    std::string path = work + "/" + name;
    options.insert(options.begin(), {g_binDir + "/orv-emu-mkpkg", "--out", path});
    if (orv::emu::RunProgram(options) != 0) {
        std::fprintf(stderr, "orv-bench-hostile: cannot build %s\n", name.c_str());
    }
    return ReadWhole(path);
}

// What one run gathers: the honest load's outcome and the daemon's levels.
struct Outcome {
    std::mutex mutex;
    std::vector<double> startMs;
    std::atomic<int> requests{0};
    std::atomic<int> unanswered{0};
    std::atomic<int> packages{0};
    std::atomic<int> packagesLost{0};
    std::atomic<size_t> mostThreads{0};
    std::atomic<size_t> mostDescriptors{0};
};

// A booted card and what its hosts and attackers reach it by.
class Card {
  public:
    explicit Card(const std::string& name)
        : sandbox_(g_binDir, "/tmp/orv-bench-" + name + "." + std::to_string(getpid())) {
        orv::emu::RunProgram({"/bin/rm", "-rf", sandbox_.StateDir()});
        orv::emu::RunProgram({"/bin/mkdir", "-p", sandbox_.StateDir()});
    }
    ~Card() { orv::emu::RunProgram({"/bin/rm", "-rf", sandbox_.StateDir(), Out()}); }

    bool Boot() {
        if (!sandbox_.Boot({"--devices", std::to_string(kDevices), "--vfs", "1,2"}, 30s)) {
            std::fprintf(stderr, "orv-bench-hostile: the sandbox did not come up (%s)\n",
                         Out().c_str());
            return false;
        }
        env_ = sandbox_.Env();
        return Ctl({"group", "create", kOtherTenantsGroup, "--device", "0", "--vf",
                    std::to_string(kOtherVf)}) &&
               Ctl({"standin", "zarn", "kernel-timeout", "0"});
    }

    bool Ctl(const std::vector<std::string>& args) const {
        std::vector<std::string> argv = {g_binDir + "/orv-emu-ctl", "--state", sandbox_.StateDir()};
        argv.insert(argv.end(), args.begin(), args.end());
        return orv::emu::RunProgram(argv) == 0;
    }

    std::unique_ptr<HostLink> Link(uint32_t device) const {
        std::string error;
        return HostLink::Connect(env_.at("ORV_HDC_SOCKET_" + std::to_string(device)), &error);
    }

    // A device's trusted directory, or a VF's below it.
    std::string Trusted(int vf) const {
        std::string dir = env_.at("ORV_TRUSTED_DIR_0");
        return vf == 0 ? dir : dir + "/vfid" + std::to_string(vf);
    }

    std::string Inside(const std::string& path) const { return sandbox_.StateDir() + path; }
    SandboxClient& Sandbox() { return sandbox_; }

  private:
    std::string Out() const { return sandbox_.StateDir() + ".out"; }

    SandboxClient sandbox_;
    std::map<std::string, std::string> env_;
};

// A request's answer on `link`: its code, or -1 when none came.
int Ask(HostLink& link, const HDCMessage& request, HDCMessage::MsgType replyType,
        std::chrono::milliseconds timeout = 30s) {
    HDCMessage reply;
    if (!link.Send(request) || link.Await(replyType, &reply, timeout) != Received::kMessage) {
        return -1;
    }
    return static_cast<int>(reply.orv_rsp_code());
}

HDCMessage Request(HDCMessage::MsgType type, uint32_t device, uint32_t hostPid) {
    HDCMessage request;
    request.set_type(type);
    request.set_device_id(device);
    request.mutable_proc_sign_pid()->set_proc_pid(hostPid);
    request.set_start_cp(true);
    return request;
}

uint32_t CheckCode(const Card& card, int vf) {
    auto link = card.Link(0);
    HDCMessage query;
    query.set_type(HDCMessage::ORV_CHECK_PACKAGE);
    query.set_vf_id(vf);
    HDCMessage reply;
    if (link == nullptr || !link->Send(query) ||
        link->Await(HDCMessage::ORV_CHECK_PACKAGE_RSP, &reply, 30s) != Received::kMessage) {
        return 0;
    }
    return reply.check_code();
}

// Threads that each repeat their work until told to stop.
class Crew {
  public:
    ~Crew() { Stop(); }
    void Add(std::chrono::milliseconds pause, std::function<void()> work) {
        threads_.emplace_back([this, pause, work = std::move(work)] {
            while (!stop_.load()) {
                work();
                for (auto slept = 0ms; slept < pause && !stop_.load(); slept += 10ms) {
                    std::this_thread::sleep_for(10ms);
                }
            }
        });
    }
    bool Stopping() const { return stop_.load(); }
    void Stop() {
        stop_.store(true);
        for (std::thread& thread : threads_) {
            thread.join();
        }
        threads_.clear();
        stop_.store(false);
    }

  private:
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

// The honest load: start/close cycles on every device, and packages for VF 1.
void AddHonestHosts(const Card& card, Outcome* outcome, Crew* crew,
                    const std::vector<std::string>& packages, std::atomic<int>* packageNumber) {
    static std::atomic<uint32_t> nextHostPid{100000};
    for (uint32_t device = 0; device < kDevices; ++device) {
        for (int host = 0; host < kHostsPerDevice; ++host) {
            crew->Add(0ms, [&card, outcome, device] {
                uint32_t hostPid = nextHostPid++;
                auto link = card.Link(device);
                outcome->requests += 2;
                auto t0 = Clock::now();
                int started =
                    link != nullptr
                        ? Ask(*link, Request(HDCMessage::ORV_START_PROC_MSG, device, hostPid),
                              HDCMessage::ORV_START_PROC_RSP)
                        : -1;
                auto t1 = Clock::now();
                int closed =
                    started == 0
                        ? Ask(*link, Request(HDCMessage::ORV_CLOSE_PROC_MSG, device, hostPid),
                              HDCMessage::ORV_CLOSE_PROC_RSP)
                        : -1;
                if (started != 0 || closed != 0) {
                    outcome->unanswered += started != 0 ? 2 : 1;
                    return;
                }
                std::lock_guard<std::mutex> lock(outcome->mutex);
                outcome->startMs.push_back(Millis(t1 - t0));
            });
        }
    }
    crew->Add(500ms, [&card, outcome, &packages, packageNumber] {
        int number = (*packageNumber)++;
        const std::string& bytes = packages[static_cast<size_t>(number) % packages.size()];
        std::string name = std::to_string(number) + "_" + kArchiveName;
        ++outcome->packages;
        if (!WriteClosed(card.Trusted(kHonestVf) + "/" + name, bytes)) {
            ++outcome->packagesLost;
            return;
        }
        auto deadline = Clock::now() + 60s;
        while (CheckCode(card, kHonestVf) != bytes.size()) {
            if (Clock::now() > deadline) {
                std::fprintf(stderr, "orv-bench-hostile: package %s was not installed\n",
                             name.c_str());
                ++outcome->packagesLost;
                return;
            }
            std::this_thread::sleep_for(50ms);
        }
    });
}

// Every attack, each on a thread of its own (the card's local processes run
// inside the sandbox).
void AddAttackers(Card& card, Crew* crew, const std::string& longLinePackage,
                  const std::string& featureFlood, std::atomic<int>* packageNumber) {
    // Host pids and package numbers of the attackers' own.
    static std::atomic<int> serial{1000000};
    const std::string host = g_binDir + "/orv-host";
    const std::string submit = g_binDir + "/orv-emu-submit";
    auto add = [crew](const char* name, std::chrono::milliseconds pause,
                      std::function<void()> work) {
        if (g_only.empty() || g_only.find("," + std::string(name) + ",") != std::string::npos) {
            crew->Add(pause, std::move(work));
        }
    };
    // Four processes of the card hold 300 links each, 10 s at a time: two
    // leave a 1 MiB frame half sent (the frame budget's case), two a small
    // one (held until the partial-frame time-out).
    for (int attacker = 0; attacker < 4; ++attacker) {
        std::string device = std::to_string(attacker % kDevices);
        std::string declared = attacker < 2 ? "1048576" : "4000";
        add("half-sent-links", 0ms, [&card, host, device, declared] {
            card.Sandbox().Enter({host, "--device", device, "links", "300", "--declare", declared,
                                  "--send", "16", "--hold", "10000"});
        });
    }
    add("sparse-files", 300ms, [&card] {
        std::string path =
            card.Trusted(kOtherVf) + "/" + std::to_string(serial++) + "_" + kArchiveName;
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            (void)ftruncate(fd, off_t{3} << 30);
            close(fd);
        }
    });
    add("long-lines", 1500ms, [&card, &longLinePackage] {
        WriteClosed(card.Trusted(0) + "/" + std::to_string(serial++) + "_" + kArchiveName,
                    longLinePackage);
    });
    add("feature-lists", 200ms, [&card, &featureFlood] {
        auto link = card.Link(0);
        HDCMessage ignored;
        if (link != nullptr && link->SendFrame(featureFlood)) {
            (void)link->Next(&ignored, 5s);
        }
    });
    add("planted-paths", 500ms, [&card, packageNumber] {
        // Directories where the next honest packages will wait.
        std::string staging = card.Inside("/home/QelvarUser/aicpu_kernels");
        int next = packageNumber->load();
        for (int ahead = 0; ahead < 3; ++ahead) {
            std::string planted = staging + "/vf" + std::to_string(kHonestVf) + "_" +
                                  std::to_string(next + ahead) + "_" + kArchiveName;
            mkdir(planted.c_str(), 0755);
        }
    });
    add("other-tenant-group", 200ms, [&card] {
        auto link = card.Link(0);
        HDCMessage start = Request(HDCMessage::ORV_START_QS_MSG, 0, serial++);
        start.set_vf_id(kHonestVf);
        start.mutable_qs_init_group_name()->set_qs_init_group_name(kOtherTenantsGroup);
        if (link != nullptr) {
            (void)Ask(*link, start, HDCMessage::ORV_START_PROC_RSP, 5s);
        }
    });
    add("absent-vf", 200ms, [&card] {
        auto link = card.Link(1);
        HDCMessage start = Request(HDCMessage::ORV_START_PROC_MSG, 1, serial++);
        start.set_vf_id(9);
        if (link != nullptr) {
            (void)Ask(*link, start, HDCMessage::ORV_START_PROC_RSP, 5s);
        }
    });
    add("forged-records", 300ms, [&card, submit] {
        card.Sandbox().Enter({submit, "0", "--host-pid", "100000", "--event-type", "4",
                              "--proc-type", "1", "--count", "20"});
    });
    add("stranger-vf-notices", 1000ms, [&card, submit] {
        card.Sandbox().Enter({submit, "101", "--length", "16", "--word4", "1"});
    });
    add("deaf-host", 0ms, [&card, crew] {
        // A host that starts, then sends and never reads, until its link ends.
        auto link = card.Link(1);
        if (link == nullptr) {
            return;
        }
        HDCMessage profiling = Request(HDCMessage::ORV_UPDATE_PROIFILING_MSG, 1, serial++);
        for (int i = 0; i < 20000 && !crew->Stopping() && link->Send(profiling); ++i) {
        }
    });
    add("kernel-timeouts", 500ms, [&card] {
        // A session whose collective service reports a kernel time-out.
        auto link = card.Link(0);
        HDCMessage start = Request(HDCMessage::ORV_START_PROC_MSG, 0, serial++);
        start.set_start_cp(false);
        start.set_start_zarn(true);
        HDCMessage ignored;
        if (link != nullptr && link->Send(start)) {
            while (link->Next(&ignored, 5s) == Received::kMessage) {
            }
        }
    });
}

// The daemon's threads and descriptors, sampled until stopped.
void AddSampler(pid_t daemon, Outcome* outcome, Crew* crew) {
    crew->Add(100ms, [daemon, outcome] {
        size_t threads = orv::emu::ThreadCount(daemon);
        size_t descriptors = orv::emu::DescriptorCount(daemon);
        outcome->mostThreads = std::max(outcome->mostThreads.load(), threads);
        outcome->mostDescriptors = std::max(outcome->mostDescriptors.load(), descriptors);
    });
}

struct Levels {
    size_t threads;
    size_t descriptors;
};

Levels LevelsOf(pid_t daemon) {
    return {orv::emu::ThreadCount(daemon), orv::emu::DescriptorCount(daemon)};
}

// Waits for the daemon to come back to its level at rest; the emulated driver
// may keep a few more idle connections than it had.
bool BackAtRest(pid_t daemon, const Levels& rest, Levels* now) {
    auto deadline = Clock::now() + 60s;
    do {
        *now = LevelsOf(daemon);
        if (now->threads <= rest.threads &&
            now->descriptors <= rest.descriptors + orv::emu::CardClient::kMaxIdle) {
            return true;
        }
        std::this_thread::sleep_for(200ms);
    } while (Clock::now() < deadline);
    return false;
}

// One run: the honest load for `seconds`, with the attacks when `attacked`.
struct RunResult {
    bool booted = false;
    std::vector<double> startMs;
    int requests = 0;
    int unanswered = 0;
    int packages = 0;
    int packagesLost = 0;
    size_t peakKb = 0;
    size_t mostThreads = 0;
    size_t mostDescriptors = 0;
    bool backAtRest = true;
    Levels rest{};
    Levels after{};
    double stopMs = -1;
};

RunResult Run(const std::string& work, int seconds, bool attacked) {
    RunResult result;
    Card card(attacked ? "hostile" : "undisturbed");
    if (!card.Boot()) {
        return result;
    }
    result.booted = true;
    const pid_t daemon = card.Sandbox().DaemonPid();
    std::vector<std::string> packages = {
        BuildPackage(work, "a_" + std::string(kArchiveName), {"--pad-bytes", "20000"}),
        BuildPackage(work, "b_" + std::string(kArchiveName), {"--pad-bytes", "30000"})};
    std::string longLines = work + "/long";
    orv::emu::RunProgram({"/bin/mkdir", "-p", longLines + "/aicpu_kernels_device"});
    WriteClosed(
        longLines + "/aicpu_kernels_device/version.info",
        std::string("Name=") + kArchiveName + "\nBuild=" + std::string(16u << 20, 'x') + "\n");
    std::string longLinePackage =
        BuildPackage(work, "long_" + std::string(kArchiveName), {"--from-dir", longLines});
    HDCMessage handshake;
    handshake.set_type(HDCMessage::TEST_HDC_SEND);
    auto* list = handshake.mutable_version_info()->add_feature_list();
    for (int i = 0; i < 300000; ++i) {
        list->add_feature("f");
    }
    const std::string featureFlood = handshake.SerializeAsString();

    // Warm: one of each honest thing, then the levels at rest.
    std::atomic<int> packageNumber{1};
    {
        Outcome warm;
        Crew crew;
        AddHonestHosts(card, &warm, &crew, packages, &packageNumber);
        std::this_thread::sleep_for(2s);
    }
    std::this_thread::sleep_for(1s);
    result.rest = LevelsOf(daemon);

    Outcome outcome;
    {
        Crew attackers;
        Crew honest;
        Crew sampler;
        AddSampler(daemon, &outcome, &sampler);
        if (attacked) {
            AddAttackers(card, &attackers, longLinePackage, featureFlood, &packageNumber);
        }
        AddHonestHosts(card, &outcome, &honest, packages, &packageNumber);
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        attackers.Stop();
        honest.Stop();
    }
    result.startMs = outcome.startMs;
    result.requests = outcome.requests;
    result.unanswered = outcome.unanswered;
    result.packages = outcome.packages;
    result.packagesLost = outcome.packagesLost;
    result.mostThreads = outcome.mostThreads;
    result.mostDescriptors = outcome.mostDescriptors;
    result.backAtRest = BackAtRest(daemon, result.rest, &result.after);

    // SIGTERM with the attacks running and an install under way.
    Crew attackers;
    if (attacked) {
        AddAttackers(card, &attackers, longLinePackage, featureFlood, &packageNumber);
        std::this_thread::sleep_for(1s);
    }
    WriteClosed(
        card.Trusted(kHonestVf) + "/" + std::to_string(packageNumber++) + "_" + kArchiveName,
        packages[0] + std::string(1, '\0'));
    result.peakKb = orv::emu::PeakResidentKb(daemon);
    int daemonFd = static_cast<int>(syscall(SYS_pidfd_open, daemon, 0));
    auto asked = Clock::now();
    std::thread stopper([&card] { card.Sandbox().Stop(60s); });
    pollfd exited{daemonFd, POLLIN, 0};
    if (daemonFd >= 0 && poll(&exited, 1, 60000) == 1) {
        result.stopMs = Millis(Clock::now() - asked);
    }
    stopper.join();
    attackers.Stop();
    if (daemonFd >= 0) {
        close(daemonFd);
    }
    return result;
}

int Option(int argc, char** argv, const char* name, int fallback) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) {
            return std::atoi(argv[i + 1]);
        }
    }
    return fallback;
}

bool Flag(int argc, char** argv, const char* name) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) {
            return true;
        }
    }
    return false;
}

void Print(const char* what, const std::string& figure, const char* target, bool met) {
    std::printf("  %-44s %-28s %-26s %s\n", what, figure.c_str(), target,
                target[0] == '\0' ? "" : (met ? "met" : "NOT MET"));
}

std::string Format(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    g_binDir = orv::emu::ProgramDir();
    const bool correctness = Flag(argc, argv, "--correctness");
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--only") == 0) {
            g_only = std::string(",") + argv[i + 1] + ",";
        }
    }
    const int seconds = Option(argc, argv, "--seconds", correctness ? 8 : 60);
    std::string work = "/tmp/orv-bench-hostile-work." + std::to_string(getpid());
    orv::emu::RunProgram({"/bin/mkdir", "-p", work});

    RunResult quiet;
    if (!correctness) {
        std::printf("Undisturbed: %d honest hosts per device, packages for VF %d, %d s\n",
                    kHostsPerDevice, kHonestVf, seconds);
        quiet = Run(work, seconds, false);
    }
    std::printf("Under attack: the same, with every attack at once, %d s\n", seconds);
    RunResult attacked = Run(work, seconds, true);
    orv::emu::RunProgram({"/bin/rm", "-rf", work});
    if (!attacked.booted || (!correctness && !quiet.booted)) {
        return 1;
    }

    bool correct = attacked.unanswered == 0 && attacked.packagesLost == 0 && attacked.backAtRest &&
                   attacked.stopMs >= 0 && !attacked.startMs.empty();
    std::printf("\n");
    Print("honest requests answered",
          std::to_string(attacked.requests - attacked.unanswered) + " of " +
              std::to_string(attacked.requests),
          "all", attacked.unanswered == 0);
    Print("honest packages installed",
          std::to_string(attacked.packages - attacked.packagesLost) + " of " +
              std::to_string(attacked.packages),
          "all", attacked.packagesLost == 0);
    Print("back at rest (threads, descriptors)",
          std::to_string(attacked.after.threads) + ", " +
              std::to_string(attacked.after.descriptors) + " (at rest " +
              std::to_string(attacked.rest.threads) + ", " +
              std::to_string(attacked.rest.descriptors) + ")",
          "yes", attacked.backAtRest);
    Print("most threads, descriptors under attack",
          std::to_string(attacked.mostThreads) + ", " + std::to_string(attacked.mostDescriptors),
          "", true);
    bool timings = true;
    const double p50 = Percentile(attacked.startMs, 0.5);
    const double p99 = Percentile(attacked.startMs, 0.99);
    if (correctness) {
        Print("honest start p50 / p99 under attack",
              Format("%.2f", p50) + Format(" / %.2f ms", p99), "", true);
        Print("peak resident", Format("%.1f MiB", attacked.peakKb / 1024.0), "", true);
        Print("SIGTERM to exit", Format("%.0f ms", attacked.stopMs), "", true);
    } else {
        const double quietP50 = Percentile(quiet.startMs, 0.5);
        const double quietP99 = Percentile(quiet.startMs, 0.99);
        Print("honest start p50, undisturbed / attacked",
              Format("%.2f", quietP50) + Format(" / %.2f ms", p50), "", true);
        Print("honest start p99, undisturbed / attacked",
              Format("%.2f", quietP99) + Format(" / %.2f ms", p99) +
                  Format(" (%.2fx)", p99 / std::max(0.001, quietP99)),
              "within 2x", p99 <= 2 * quietP99);
        Print(
            "honest starts, undisturbed / attacked",
            std::to_string(quiet.startMs.size()) + " / " + std::to_string(attacked.startMs.size()),
            "", true);
        Print("peak resident under attack", Format("%.1f MiB", attacked.peakKb / 1024.0),
              "<= 64 MiB", attacked.peakKb <= 64 * 1024);
        Print("SIGTERM to exit under attack", Format("%.0f ms", attacked.stopMs), "<= 1 s",
              attacked.stopMs >= 0 && attacked.stopMs <= 1000);
        timings = p99 <= 2 * quietP99 && attacked.peakKb <= 64 * 1024 && attacked.stopMs <= 1000 &&
                  quiet.unanswered == 0;
    }
    return correct && timings ? 0 : 1;
}
