#include "emu/sandbox/sandbox_init.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "emu/common/emu_paths.h"
#include "emu/common/unique_fd.h"
#include "emu/sandbox/process_helpers.h"

namespace orv::emu {

namespace {

constexpr auto kCardStartTimeout = std::chrono::seconds(10);
// The daemon's orderly shutdown waits out its heartbeat period and closes
// every session's sub-processes.
constexpr auto kDaemonStopGrace = std::chrono::seconds(90);
constexpr auto kCommandStopGrace = std::chrono::seconds(10);
constexpr auto kCardStopGrace = std::chrono::seconds(5);

void Say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void Say(const char* fmt, ...) {
    char text[1024];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    std::fprintf(stderr, "orv-sandbox: %s\n", text);
}

std::string FdPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

bool MkdirAll(const std::string& path) {
    std::string partial;
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos == path.size() || path[pos] == '/') {
            partial = path.substr(0, pos);
            if (::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) {
                return false;
            }
        }
    }
    return true;
}

bool Bind(const std::string& source, const std::string& target, std::string* error) {
    if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        *error = "cannot bind " + source + " on " + target + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool UnderHiddenRoot(const std::string& path) {
    for (const char* root : {"/var", "/home", "/run", "/usr/lib64", "/sys/fs/cgroup"}) {
        size_t n = std::strlen(root);
        if (path.compare(0, n, root) == 0 && (path.size() == n || path[n] == '/')) {
            return true;
        }
    }
    return false;
}

// Gives the sandbox its own /var, /home, /run, /usr/lib64 (an overlay over the
// host's), /sys/fs/cgroup and /proc, all from the state directory.
bool SetUpMounts(const SandboxPlan& plan, std::string* error) {
    // Descriptors used as mount sources must refer to this namespace's mounts,
    // so the namespace comes first.
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *error = std::string("cannot make a private mount namespace: ") + std::strerror(errno);
        return false;
    }
    const StatePaths& state = plan.state;
    UniqueFd var(::open(state.Var().c_str(), O_PATH | O_CLOEXEC));
    UniqueFd home(::open(state.Home().c_str(), O_PATH | O_CLOEXEC));
    UniqueFd run(::open(state.Run().c_str(), O_PATH | O_CLOEXEC));
    UniqueFd cgroup(::open(state.Cgroup().c_str(), O_PATH | O_CLOEXEC));
    UniqueFd upper(::open(state.Lib64Upper().c_str(), O_PATH | O_CLOEXEC));
    UniqueFd work(::open(state.Lib64Work().c_str(), O_PATH | O_CLOEXEC));
    for (const UniqueFd* fd : {&var, &home, &run, &cgroup, &upper, &work}) {
        if (!fd->Valid()) {
            *error = "incomplete state directory " + state.root;
            return false;
        }
    }
    // Host directories that the mounts below would hide but that must stay
    // reachable (the build tree, the caller's directory), opened beforehand.
    std::vector<std::pair<std::string, UniqueFd>> kept;
    for (const std::string& path : plan.keepVisible) {
        if (!path.empty() && UnderHiddenRoot(path)) {
            kept.emplace_back(path, UniqueFd(::open(path.c_str(), O_PATH | O_CLOEXEC)));
        }
    }

    if (!Bind(FdPath(var.Get()), "/var", error) || !Bind(FdPath(home.Get()), "/home", error) ||
        !Bind(FdPath(run.Get()), "/run", error) ||
        !Bind(FdPath(cgroup.Get()), "/sys/fs/cgroup", error)) {
        return false;
    }
    std::string overlay =
        "lowerdir=/usr/lib64,upperdir=" + FdPath(upper.Get()) + ",workdir=" + FdPath(work.Get());
    if (::mount("overlay", "/usr/lib64", "overlay", 0, overlay.c_str()) != 0) {
        Say("no overlay on /usr/lib64 (%s); the host's files there are hidden",
            std::strerror(errno));
        if (!Bind(FdPath(upper.Get()), "/usr/lib64", error)) {
            return false;
        }
    }
    for (auto& [path, fd] : kept) {
        if (fd.Valid() && MkdirAll(path) && !Bind(FdPath(fd.Get()), path, error)) {
            return false;
        }
    }
    if (::mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        *error = std::string("cannot mount /proc: ") + std::strerror(errno);
        return false;
    }
    return true;
}

std::string JoinVfs(const std::vector<uint32_t>& vfs) {
    std::string out;
    for (uint32_t vf : vfs) {
        out += (out.empty() ? "" : ",") + std::to_string(vf);
    }
    return out;
}

bool RunLayout(const SandboxPlan& plan, std::string* error) {
    const SandboxOptions& o = plan.options;
    SpawnSpec spec;
    spec.argv = {"/bin/sh", plan.shareDir + "/sandbox_layout.sh"};
    spec.env = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                "ORV_LAYOUT_DEVICES=" + std::to_string(o.devices),
                "ORV_LAYOUT_VFS=" + JoinVfs(o.vfs),
                "ORV_LAYOUT_SHARE=" + plan.shareDir,
                "ORV_LAYOUT_STANDIN=" + plan.standIn,
                "ORV_LAYOUT_PROGRAMS=" + plan.daemon + " " + plan.cardEmu + " " + plan.emuCtl +
                    " " + plan.host + " " + plan.submit,
                "ORV_LAYOUT_IMGVERIFY=" + plan.imgVerify,
                "ORV_LAYOUT_ENV_SCRIPT=" + o.envScript,
                "ORV_LAYOUT_VF_LIMIT=" + std::to_string(o.vfMemoryLimit),
                "ORV_LAYOUT_VF_USAGE=" + std::to_string(o.vfMemoryUsage)};
    pid_t pid = Spawn(spec);
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        *error = "laying out the platform files failed";
        return false;
    }
    return true;
}

// Starts orv-card-emu and waits until it listens.
pid_t StartCard(const SandboxPlan& plan, std::string* error) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) {
        *error = "pipe";
        return -1;
    }
    UniqueFd readEnd(ready[0]);
    UniqueFd writeEnd(ready[1]);
    UniqueFd log(::open(kCardLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    const SandboxOptions& o = plan.options;
    SpawnSpec spec;
    spec.argv = {plan.cardEmu, "--devices", std::to_string(o.devices), "--ready-fd",
                 std::to_string(writeEnd.Get())};
    for (const std::string& cpus : o.deviceCpus) {
        spec.argv.insert(spec.argv.end(), {"--device-cpus", cpus});
    }
    for (const std::string& chip : o.chipIds) {
        spec.argv.insert(spec.argv.end(), {"--chip-id", chip});
    }
    if (o.zeb) {
        spec.argv.push_back("--zeb");
    }
    spec.env = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                std::string(kLogFileEnv) + "=" + kSandboxLogFile};
    spec.stderrFd = log.Get();
    spec.stdoutFd = log.Get();
    spec.keepFds = {writeEnd.Get()};
    pid_t pid = Spawn(spec);
    writeEnd.Reset();
    if (pid < 0) {
        *error = "cannot start " + plan.cardEmu;
        return -1;
    }
    pollfd pfd{readEnd.Get(), POLLIN, 0};
    char byte = 0;
    int waitMs = static_cast<int>(std::chrono::milliseconds(kCardStartTimeout).count());
    if (::poll(&pfd, 1, waitMs) != 1 || ::read(readEnd.Get(), &byte, 1) != 1) {
        *error = "the card emulator did not come up (see " + plan.state.Outside(kCardLog) + ")";
        ::kill(pid, SIGKILL);
        return -1;
    }
    return pid;
}

void WriteBootEnv(const SandboxOptions& o) {
    std::ofstream out(kBootEnvFile, std::ios::trunc);
    out << "ORV_EMU_LOG_LEVEL=" << o.logLevel << "\n";
    if (o.logStderr) {
        out << "ORV_EMU_LOG_STDERR=1\n";
    }
    for (const std::string& entry : o.env) {
        out << entry << "\n";
    }
}

pid_t StartDaemon(const SandboxPlan& plan) {
    UniqueFd devNull(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    UniqueFd out(::open(kDaemonOutput, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    SpawnSpec spec;
    spec.argv = {plan.daemon};
    spec.env = InsideEnvironment(DaemonBaseEnvironment(), plan.options, {});
    spec.stdinFd = devNull.Get();
    if (!plan.options.logStderr) {
        spec.stdoutFd = out.Get();
        spec.stderrFd = out.Get();
    }
    return Spawn(spec);
}

pid_t StartCommand(const SandboxPlan& plan) {
    SpawnSpec spec;
    spec.argv = plan.options.command;
    spec.env = InsideEnvironment(CurrentEnvironment(), plan.options, {});
    spec.cwd = plan.cwd;
    spec.searchPath = true;
    return Spawn(spec);
}

int ExitStatusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : 1;
}

// Stops every daemon (the one booted and any started later through --enter),
// then the card.
void Shutdown(pid_t card) {
    for (pid_t daemon : PidsNamed(kDaemonName)) {
        if (!TerminateProcess(daemon, kDaemonStopGrace)) {
            Say("the daemon (pid %d) did not stop in time and was killed", daemon);
        }
    }
    if (card > 0) {
        TerminateProcess(card, kCardStopGrace);
    }
}

}  // namespace

int RunSandboxInit(const SandboxPlan& plan) {
    // Should the foreground process die, take the sandbox with it.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // A session of its own: a terminal's SIGINT reaches only the foreground
    // supervisor, which stops the sandbox in order (daemon first, then card).
    ::setsid();
    sigset_t handled;
    sigemptyset(&handled);
    for (int sig : {SIGTERM, SIGINT, SIGCHLD, SIGHUP}) {
        sigaddset(&handled, sig);
    }
    ::sigprocmask(SIG_BLOCK, &handled, nullptr);

    std::string error;
    if (!SetUpMounts(plan, &error) || !RunLayout(plan, &error)) {
        Say("%s", error.c_str());
        return 1;
    }
    if (plan.options.mode == SandboxMode::kBoot) {
        WriteBootEnv(plan.options);
    }
    pid_t card = StartCard(plan, &error);
    if (card < 0) {
        Say("%s", error.c_str());
        return 1;
    }
    SendNotice(kNotifySocket, std::string(kNoticeCardReady) + "=1");

    bool boot = plan.options.mode == SandboxMode::kBoot;
    pid_t primary = boot ? StartDaemon(plan) : StartCommand(plan);
    if (primary < 0) {
        Say("cannot start %s", boot ? plan.daemon.c_str() : plan.options.command[0].c_str());
        Shutdown(card);
        return 1;
    }

    int exitStatus = 0;
    bool stopping = false;
    while (!stopping) {
        siginfo_t info{};
        if (::sigwaitinfo(&handled, &info) < 0) {
            continue;
        }
        if (info.si_signo != SIGCHLD) {
            if (!boot) {
                TerminateProcess(primary, kCommandStopGrace);
            }
            stopping = true;
        }
        ReapChildren([&](pid_t pid, int status) {
            if (pid == primary && boot) {
                SendNotice(kNotifySocket, std::string(kNoticeDaemonExited) + "=" +
                                              std::to_string(ExitStatusOf(status)));
            } else if (pid == primary) {
                exitStatus = ExitStatusOf(status);
                stopping = true;
            } else if (pid == card) {
                Say("the card emulator exited (status %d); stopping", ExitStatusOf(status));
                card = -1;
                exitStatus = exitStatus != 0 ? exitStatus : 1;
                stopping = true;
            }
        });
    }
    Shutdown(card);
    return exitStatus;
}

}  // namespace orv::emu
