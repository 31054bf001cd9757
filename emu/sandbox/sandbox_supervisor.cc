#include "emu/sandbox/sandbox_supervisor.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "emu/common/unique_fd.h"
#include "emu/sandbox/process_helpers.h"
#include "emu/sandbox/sandbox_init.h"

namespace orv::emu {

namespace {

int RemoveEntry(const char* path, const struct stat*, int, FTW*) {
    return ::remove(path);
}

bool RemoveTree(const std::string& path) {
    if (::access(path.c_str(), F_OK) != 0) {
        return true;
    }
    return ::nftw(path.c_str(), RemoveEntry, 32, FTW_DEPTH | FTW_PHYS) == 0;
}

bool DirectoryEmpty(const std::string& path) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
    if (!dir) {
        return true;
    }
    while (dirent* entry = ::readdir(dir.get())) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            return false;
        }
    }
    return true;
}

pid_t ReadPidFile(const std::string& path) {
    std::ifstream in(path);
    long pid = 0;
    return (in >> pid) ? static_cast<pid_t>(pid) : -1;
}

bool Alive(pid_t pid) {
    return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

// Makes DIR a fresh, empty sandbox state directory. Refuses a directory that
// holds anything but an earlier sandbox's state, and one whose sandbox runs.
bool PrepareState(StatePaths* state, std::string* error) {
    if (::mkdir(state->root.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "cannot create " + state->root + ": " + std::strerror(errno);
        return false;
    }
    char resolved[PATH_MAX];
    if (::realpath(state->root.c_str(), resolved) == nullptr) {
        *error = "cannot resolve " + state->root;
        return false;
    }
    state->root = resolved;
    if (::access(state->Marker().c_str(), F_OK) != 0 && !DirectoryEmpty(state->root)) {
        *error = state->root + " is not empty and is not a sandbox state directory";
        return false;
    }
    if (Alive(ReadPidFile(state->PidFile()))) {
        *error = "a sandbox is already running on " + state->root;
        return false;
    }
    for (const std::string& part : {state->Var(), state->Home(), state->Run(), state->Cgroup(),
                                    state->root + "/lib64", state->EnvFile(), state->PidFile()}) {
        if (!RemoveTree(part)) {
            *error = "cannot clear " + part + ": " + std::strerror(errno);
            return false;
        }
    }
    for (const std::string& dir :
         {state->Var(), state->Home(), state->Run(), state->Run() + "/orv-sandbox", state->Cgroup(),
          state->root + "/lib64", state->Lib64Upper(), state->Lib64Work()}) {
        if (::mkdir(dir.c_str(), 0755) != 0) {
            *error = "cannot create " + dir + ": " + std::strerror(errno);
            return false;
        }
    }
    std::ofstream(state->Marker()) << "orv-sandbox state directory\n";
    return true;
}

UniqueFd BindNotifySocket(const std::string& path, std::string* error) {
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        *error = "state directory path too long for a socket: " + path;
        return UniqueFd();
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int on = 1;
    if (!fd.Valid() || ::bind(fd.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::setsockopt(fd.Get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0) {
        *error = "cannot bind " + path + ": " + std::strerror(errno);
        return UniqueFd();
    }
    return fd;
}

bool WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

// An unprivileged user gets root inside a user namespace of its own.
bool EnterUserNamespaceIfNeeded(std::string* error) {
    if (::geteuid() == 0) {
        return true;
    }
    uid_t uid = ::geteuid();
    gid_t gid = ::getegid();
    if (::unshare(CLONE_NEWUSER) != 0) {
        *error = std::string("cannot create a user namespace: ") + std::strerror(errno);
        return false;
    }
    if (!WriteFile("/proc/self/setgroups", "deny") ||
        !WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
        *error = "cannot map the user into its namespace";
        return false;
    }
    return true;
}

std::string EnvFileText(const SandboxPlan& plan, pid_t sandboxPid, pid_t daemonPid) {
    const StatePaths& s = plan.state;
    std::ostringstream out;
    out << "ORV_SANDBOX_STATE=" << s.root << "\n";
    out << "ORV_SANDBOX_PID=" << sandboxPid << "\n";
    out << "ORV_DEVICES=" << plan.options.devices << "\n";
    for (uint32_t d = 0; d < plan.options.devices; ++d) {
        out << "ORV_HDC_SOCKET_" << d << "="
            << s.Outside("/run/orv-hdc/dev" + std::to_string(d) + ".sock") << "\n";
        out << "ORV_TRUSTED_DIR_" << d << "="
            << s.Outside("/home/hdc-trusted/dev" + std::to_string(d)) << "\n";
    }
    out << "ORV_LOG_FILE=" << s.Outside("/var/log/orv/system.log") << "\n";
    out << "ORV_EMU_CONTROL=" << s.Outside("/run/orv-card/control.sock") << "\n";
    out << "ORV_CARD_LOG=" << s.Outside(kCardLog) << "\n";
    out << "ORV_DAEMON_OUTPUT=" << s.Outside(kDaemonOutput) << "\n";
    out << "ORV_STANDIN_RECORDS=" << s.Outside("/run/orv-stub") << "\n";
    if (daemonPid > 0) {
        out << "ORV_DAEMON_PID=" << daemonPid << "\n";
    }
    return out.str();
}

// Replaces sandbox.env in one rename, so that a reader never sees half of it.
void PublishEnv(const SandboxPlan& plan, pid_t sandboxPid, pid_t daemonPid) {
    std::string tmp = plan.state.EnvFile() + ".tmp";
    if (WriteFile(tmp, EnvFileText(plan, sandboxPid, daemonPid))) {
        ::rename(tmp.c_str(), plan.state.EnvFile().c_str());
    }
}

struct Notice {
    std::string name;
    std::string value;
    pid_t sender = 0;  // as seen from this (the host's) PID namespace
};

bool ReadNotice(int fd, Notice* notice) {
    char data[256];
    char control[CMSG_SPACE(sizeof(ucred))];
    iovec iov{data, sizeof(data) - 1};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    ssize_t n = ::recvmsg(fd, &msg, MSG_DONTWAIT);
    if (n <= 0) {
        return false;
    }
    std::string text(data, static_cast<size_t>(n));
    size_t eq = text.find('=');
    notice->name = text.substr(0, eq);
    notice->value = eq == std::string::npos ? std::string() : text.substr(eq + 1);
    notice->sender = 0;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) {
            ucred cred;
            std::memcpy(&cred, CMSG_DATA(c), sizeof(cred));
            notice->sender = cred.pid;
        }
    }
    return true;
}

int ExitStatusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : 1;
}

}  // namespace

int RunSandbox(SandboxPlan plan) {
    std::string error;
    if (plan.options.tempState) {
        char dir[] = "/tmp/orv-sandbox.XXXXXX";
        if (::mkdtemp(dir) == nullptr) {
            std::fprintf(stderr, "orv-sandbox: cannot make a temporary state directory\n");
            return 1;
        }
        plan.state = StatePaths(dir);
    }
    if (!PrepareState(&plan.state, &error)) {
        std::fprintf(stderr, "orv-sandbox: %s\n", error.c_str());
        return 1;
    }
    UniqueFd notify = BindNotifySocket(plan.state.Outside(kNotifySocket), &error);
    if (!notify.Valid() || !EnterUserNamespaceIfNeeded(&error)) {
        std::fprintf(stderr, "orv-sandbox: %s\n", error.c_str());
        return 1;
    }

    sigset_t handled;
    sigemptyset(&handled);
    for (int sig : {SIGTERM, SIGINT, SIGCHLD, SIGHUP}) {
        sigaddset(&handled, sig);
    }
    ::sigprocmask(SIG_BLOCK, &handled, nullptr);
    // Only the init goes into the new PID namespace; afterwards this process's
    // children (a leak checker's tracer, say) are made in its own again.
    UniqueFd ownPidNamespace(::open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC));
    if (::unshare(CLONE_NEWPID) != 0) {
        std::fprintf(stderr, "orv-sandbox: cannot create a PID namespace: %s\n",
                     std::strerror(errno));
        return 1;
    }
    pid_t init = ::fork();
    if (init < 0) {
        std::fprintf(stderr, "orv-sandbox: fork: %s\n", std::strerror(errno));
        return 1;
    }
    if (init == 0) {
        notify.Reset();
        ::_exit(RunSandboxInit(plan));
    }
    if (ownPidNamespace.Valid()) {
        // Refused in a user namespace of our own; nothing here needs it then.
        (void)::setns(ownPidNamespace.Get(), CLONE_NEWPID);
    }
    WriteFile(plan.state.PidFile(), std::to_string(init) + "\n");

    UniqueFd signals(::signalfd(-1, &handled, SFD_CLOEXEC));
    bool boot = plan.options.mode == SandboxMode::kBoot;
    bool everReady = false;
    bool startFailed = false;
    int initStatus = 0;
    for (;;) {
        pollfd fds[2] = {{signals.Get(), POLLIN, 0}, {notify.Get(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            continue;
        }
        if (fds[1].revents & POLLIN) {
            Notice notice;
            while (ReadNotice(notify.Get(), &notice)) {
                if (notice.name == kNoticeCardReady && !boot) {
                    PublishEnv(plan, init, 0);
                } else if (notice.name == kNoticeReady) {
                    everReady = true;
                    PublishEnv(plan, init, notice.sender);
                    std::fprintf(stderr, "orv-sandbox: daemon ready (pid %d); %s\n", notice.sender,
                                 plan.state.EnvFile().c_str());
                } else if (notice.name == kNoticeStartFailed) {
                    std::fprintf(stderr, "orv-sandbox: daemon start failed (code %s)\n",
                                 notice.value.c_str());
                    if (!everReady) {
                        startFailed = true;
                        ::kill(init, SIGTERM);
                    }
                } else if (notice.name == kNoticeDaemonExited) {
                    std::fprintf(stderr, "orv-sandbox: daemon exited (status %s)\n",
                                 notice.value.c_str());
                    if (everReady) {
                        // Left up, so that a daemon can be started again with --enter.
                        PublishEnv(plan, init, 0);
                    } else if (!startFailed) {
                        // It died before it could say how start-up went.
                        startFailed = true;
                        ::kill(init, SIGTERM);
                    }
                }
            }
        }
        if (fds[0].revents & POLLIN) {
            signalfd_siginfo info{};
            if (::read(signals.Get(), &info, sizeof(info)) != sizeof(info)) {
                continue;
            }
            if (info.ssi_signo != SIGCHLD) {
                ::kill(init, SIGTERM);
                continue;
            }
            int status = 0;
            if (::waitpid(init, &status, WNOHANG) == init) {
                initStatus = ExitStatusOf(status);
                break;
            }
        }
    }

    ::unlink(plan.state.EnvFile().c_str());
    ::unlink(plan.state.PidFile().c_str());
    int exitStatus = boot ? (startFailed ? 1 : initStatus) : initStatus;
    if (plan.options.tempState) {
        if (exitStatus == 0) {
            RemoveTree(plan.state.root);
        } else {
            std::fprintf(stderr, "orv-sandbox: state kept in %s\n", plan.state.root.c_str());
        }
    }
    return exitStatus;
}

int EnterSandbox(const SandboxPlan& plan) {
    const StatePaths& state = plan.state;
    pid_t init = ReadPidFile(state.PidFile());
    if (!Alive(init)) {
        std::fprintf(stderr, "orv-sandbox: no sandbox is running on %s\n", state.root.c_str());
        return 1;
    }
    std::string ns = "/proc/" + std::to_string(init) + "/ns/";
    struct stat mine {};
    struct stat theirs {};
    bool joinUser = ::stat("/proc/self/ns/user", &mine) == 0 &&
                    ::stat((ns + "user").c_str(), &theirs) == 0 && mine.st_ino != theirs.st_ino;
    UniqueFd user(joinUser ? ::open((ns + "user").c_str(), O_RDONLY | O_CLOEXEC) : -1);
    UniqueFd mnt(::open((ns + "mnt").c_str(), O_RDONLY | O_CLOEXEC));
    UniqueFd pid(::open((ns + "pid").c_str(), O_RDONLY | O_CLOEXEC));
    if ((joinUser && !user.Valid()) || !mnt.Valid() || !pid.Valid()) {
        std::fprintf(stderr, "orv-sandbox: cannot open the sandbox's namespaces: %s\n",
                     std::strerror(errno));
        return 1;
    }

    // The command gets what the booted daemon got, then this call's --env.
    SpawnSpec spec;
    spec.argv = plan.options.command;
    spec.env = InsideEnvironment(CurrentEnvironment(), plan.options, {});
    std::ifstream boot(state.Outside(kBootEnvFile));
    for (std::string line; std::getline(boot, line);) {
        size_t eq = line.find('=');
        if (eq == std::string::npos) {
            continue;
        }
        bool overridden = false;
        for (const std::string& entry : plan.options.env) {
            overridden = overridden || entry.compare(0, eq + 1, line, 0, eq + 1) == 0;
        }
        if (!overridden) {
            SetEnv(&spec.env, line.substr(0, eq), line.substr(eq + 1));
        }
    }
    spec.cwd = "/";
    spec.searchPath = true;

    // Only a child joins the namespaces: this process stays whole in its own
    // (its /proc, its children), and the command is the child's child, the
    // first process made inside the sandbox's PID namespace.
    pid_t child = ::fork();
    if (child < 0) {
        return 1;
    }
    if (child == 0) {
        if ((joinUser && ::setns(user.Get(), CLONE_NEWUSER) != 0) ||
            ::setns(mnt.Get(), CLONE_NEWNS) != 0 || ::setns(pid.Get(), CLONE_NEWPID) != 0) {
            std::fprintf(stderr, "orv-sandbox: cannot join the sandbox's namespaces: %s\n",
                         std::strerror(errno));
            ::_exit(1);
        }
        UniqueFd devNull(::open("/dev/null", O_RDWR | O_CLOEXEC));
        if (plan.options.detach) {
            // Left to the sandbox's init, which adopts and reaps it.
            spec.stdinFd = devNull.Get();
            spec.stdoutFd = devNull.Get();
            spec.stderrFd = devNull.Get();
        }
        pid_t command = ::fork();
        if (command == 0) {
            if (plan.options.detach) {
                ::setsid();
            }
            ExecInChild(spec);
        }
        if (command < 0 || plan.options.detach) {
            ::_exit(command < 0 ? 1 : 0);
        }
        int status = 0;
        ::waitpid(command, &status, 0);
        ::_exit(ExitStatusOf(status));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return ExitStatusOf(status);
}

}  // namespace orv::emu
