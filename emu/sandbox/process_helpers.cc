#include "emu/sandbox/process_helpers.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <thread>

extern char** environ;

namespace orv::emu {

namespace {

std::vector<char*> CStrings(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    out.reserve(strings.size() + 1);
    for (const std::string& s : strings) {
        out.push_back(const_cast<char*>(s.c_str()));
    }
    out.push_back(nullptr);
    return out;
}

// `name` looked up in the PATH of `env` (execvpe would use this process's own).
std::string SearchPath(const std::string& name, const std::vector<std::string>& env) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    std::string path = "/usr/bin:/bin";
    for (const std::string& entry : env) {
        if (entry.compare(0, 5, "PATH=") == 0) {
            path = entry.substr(5);
        }
    }
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find(':', start);
        std::string dir =
            path.substr(start, end == std::string::npos ? std::string::npos : end - start);
        std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return name;
}

}  // namespace

pid_t Spawn(const SpawnSpec& spec) {
    if (spec.argv.empty()) {
        return -1;
    }
    pid_t pid = ::fork();
    if (pid == 0) {
        ExecInChild(spec);
    }
    return pid;
}

void ExecInChild(const SpawnSpec& spec) {
    std::vector<char*> argv = CStrings(spec.argv);
    std::vector<char*> envp = CStrings(spec.env);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig : {SIGPIPE, SIGTERM, SIGINT, SIGCHLD, SIGHUP}) {
        ::signal(sig, SIG_DFL);
    }
    if (spec.stdinFd >= 0) {
        ::dup2(spec.stdinFd, STDIN_FILENO);
    }
    if (spec.stdoutFd >= 0) {
        ::dup2(spec.stdoutFd, STDOUT_FILENO);
    }
    if (spec.stderrFd >= 0) {
        ::dup2(spec.stderrFd, STDERR_FILENO);
    }
    for (int fd : spec.keepFds) {
        ::fcntl(fd, F_SETFD, 0);
    }
    if (!spec.cwd.empty() && ::chdir(spec.cwd.c_str()) != 0) {
        ::_exit(126);
    }
    std::string program = spec.searchPath ? SearchPath(spec.argv[0], spec.env) : spec.argv[0];
    ::execve(program.c_str(), argv.data(), envp.data());
    std::fprintf(stderr, "orv-sandbox: cannot execute %s: %s\n", argv[0], std::strerror(errno));
    ::_exit(127);
}

std::vector<pid_t> PidsNamed(const std::string& name) {
    std::vector<pid_t> pids;
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) {
        return pids;
    }
    while (dirent* entry = ::readdir(proc)) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0') {
            continue;
        }
        std::ifstream comm(std::string("/proc/") + entry->d_name + "/comm");
        std::string comm_name;
        if (std::getline(comm, comm_name) && comm_name == name) {
            pids.push_back(static_cast<pid_t>(pid));
        }
    }
    ::closedir(proc);
    return pids;
}

bool WaitGone(pid_t pid, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        ReapChildren([](pid_t, int) {});
        if (::kill(pid, 0) != 0 && errno == ESRCH) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool TerminateProcess(pid_t pid, std::chrono::milliseconds grace) {
    if (::kill(pid, SIGTERM) != 0) {
        return true;
    }
    if (WaitGone(pid, grace)) {
        return true;
    }
    ::kill(pid, SIGKILL);
    WaitGone(pid, std::chrono::seconds(5));
    return false;
}

std::vector<std::string> CurrentEnvironment() {
    std::vector<std::string> env;
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        env.emplace_back(*e);
    }
    return env;
}

void SetEnv(std::vector<std::string>* env, const std::string& name, const std::string& value) {
    const std::string prefix = name + "=";
    for (std::string& entry : *env) {
        if (entry.compare(0, prefix.size(), prefix) == 0) {
            entry = prefix + value;
            return;
        }
    }
    env->push_back(prefix + value);
}

void RemoveEnvPrefix(std::vector<std::string>* env, const std::string& prefix) {
    std::vector<std::string> kept;
    for (std::string& entry : *env) {
        if (entry.compare(0, prefix.size(), prefix) != 0) {
            kept.push_back(std::move(entry));
        }
    }
    env->swap(kept);
}

bool SendNotice(const std::string& socketPath, const std::string& message) {
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof(addr.sun_path)) {
        ::close(fd);
        return false;
    }
    std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
    ssize_t n = ::sendto(fd, message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&addr),
                         sizeof(addr));
    ::close(fd);
    return n == static_cast<ssize_t>(message.size());
}

}  // namespace orv::emu
