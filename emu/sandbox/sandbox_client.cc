#include "emu/sandbox/sandbox_client.h"

#include "emu/sandbox/sandbox_paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <thread>

namespace orv::emu {

namespace {

std::vector<char*> CStrings(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (const std::string& s : strings) {
        out.push_back(const_cast<char*>(s.c_str()));
    }
    out.push_back(nullptr);
    return out;
}

int ExitStatusOf(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

// Waits for `pid` up to `timeout`; its exit status, or -1.
int WaitChild(pid_t pid, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) != pid) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return ExitStatusOf(status);
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

size_t EntriesIn(const std::string& dir) {
    size_t count = 0;
    DIR* handle = ::opendir(dir.c_str());
    while (dirent* entry = handle != nullptr ? ::readdir(handle) : nullptr) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    if (handle != nullptr) {
        ::closedir(handle);
    }
    return count;
}

}  // namespace

int RunProgram(const std::vector<std::string>& argv, std::string* output, const std::string& input,
               std::chrono::milliseconds timeout) {
    int out[2];
    int in[2];
    if (::pipe(out) != 0) {
        return -1;
    }
    if (::pipe(in) != 0) {
        ::close(out[0]);
        ::close(out[1]);
        return -1;
    }
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(out[1], STDERR_FILENO);
        for (int fd : {in[0], in[1], out[0], out[1]}) {
            ::close(fd);
        }
        std::vector<char*> cargv = CStrings(argv);
        ::execv(cargv[0], cargv.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    if (!input.empty()) {
        ssize_t ignored = ::write(in[1], input.data(), input.size());
        (void)ignored;
    }
    ::close(in[1]);
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(out[0], buffer, sizeof(buffer))) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    int status = WaitChild(pid, timeout);
    if (status < 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    if (output != nullptr) {
        *output = text;
    }
    return status;
}

std::string ProgramDir() {
    char path[PATH_MAX] = {0};
    ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    std::string self = n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string(".");
    return self.substr(0, self.find_last_of('/'));
}

pid_t SpawnDetached(const std::vector<std::string>& argv) {
    int channel[2];
    if (::pipe2(channel, O_CLOEXEC) != 0) {
        return -1;
    }
    pid_t child = ::fork();
    if (child == 0) {
        ::setsid();
        pid_t grandchild = ::fork();
        if (grandchild == 0) {
            std::vector<char*> cargv = CStrings(argv);
            ::execv(cargv[0], cargv.data());
            ::_exit(127);
        }
        ssize_t ignored = ::write(channel[1], &grandchild, sizeof(grandchild));
        (void)ignored;
        ::_exit(0);
    }
    ::close(channel[1]);
    pid_t pid = -1;
    if (child < 0 || ::read(channel[0], &pid, sizeof(pid)) != sizeof(pid)) {
        pid = -1;
    }
    ::close(channel[0]);
    if (child > 0) {
        ::waitpid(child, nullptr, 0);
    }
    return pid;
}

SandboxClient::SandboxClient(std::string binDir, std::string stateDir)
    : binDir_(std::move(binDir)), state_(std::move(stateDir)) {}

SandboxClient::~SandboxClient() {
    if (pid_ > 0) {
        Stop();
    }
}

bool SandboxClient::Boot(const std::vector<std::string>& args, std::chrono::milliseconds timeout) {
    std::vector<std::string> argv = {binDir_ + "/orv-sandbox", "--state", state_, "--boot"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out = state_ + ".out";
    pid_ = ::fork();
    if (pid_ == 0) {
        int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(fd, STDOUT_FILENO);
        ::dup2(fd, STDERR_FILENO);
        std::vector<char*> cargv = CStrings(argv);
        ::execv(cargv[0], cargv.data());
        ::_exit(127);
    }
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (Env().count("ORV_DAEMON_PID") == 0) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            exitStatus_ = ExitStatusOf(status);
            pid_ = -1;
            return false;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    char link[PATH_MAX] = {0};
    std::string nsPath = "/proc/" + Env()["ORV_SANDBOX_PID"] + "/ns/pid";
    if (::readlink(nsPath.c_str(), link, sizeof(link) - 1) > 0) {
        pidNamespace_ = link;
    }
    return true;
}

int SandboxClient::Stop(std::chrono::milliseconds timeout) {
    if (pid_ <= 0) {
        return exitStatus_;
    }
    ::kill(pid_, SIGTERM);
    return WaitExit(timeout);
}

int SandboxClient::WaitExit(std::chrono::milliseconds timeout) {
    if (pid_ <= 0) {
        return exitStatus_;
    }
    int status = WaitChild(pid_, timeout);
    if (status >= 0) {
        pid_ = -1;
        exitStatus_ = status;
    }
    return status;
}

int SandboxClient::Enter(const std::vector<std::string>& command, std::string* output,
                         bool detach) const {
    std::vector<std::string> argv = {binDir_ + "/orv-sandbox", "--state", state_, "--enter"};
    if (detach) {
        argv.push_back("--detach");
    }
    argv.push_back("--");
    argv.insert(argv.end(), command.begin(), command.end());
    return RunProgram(argv, output);
}

std::map<std::string, std::string> SandboxClient::Env() const {
    std::map<std::string, std::string> env;
    std::ifstream in(state_ + "/sandbox.env");
    for (std::string line; std::getline(in, line);) {
        size_t eq = line.find('=');
        if (eq != std::string::npos) {
            env[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    return env;
}

std::string SandboxClient::SanitizerReport() const {
    static const char* const kMarkers[] = {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer",
                                           "WARNING: ThreadSanitizer", "runtime error:"};
    for (const std::string& path : {state_ + kDaemonOutput, state_ + kCardLog, state_ + ".out"}) {
        std::ifstream in(path);
        for (std::string line; std::getline(in, line);) {
            for (const char* marker : kMarkers) {
                if (line.find(marker) != std::string::npos) {
                    return path + ": " + line;
                }
            }
        }
    }
    return std::string();
}

pid_t SandboxClient::DaemonPid() const {
    std::map<std::string, std::string> env = Env();
    return env.count("ORV_DAEMON_PID") != 0 ? static_cast<pid_t>(std::stol(env["ORV_DAEMON_PID"]))
                                            : -1;
}

bool StandinRecord::Has(const std::string& prefix) const {
    return Count(prefix) > 0;
}

size_t StandinRecord::Count(const std::string& prefix) const {
    return static_cast<size_t>(std::count_if(
        notes.begin(), notes.end(),
        [&](const std::string& note) { return note.compare(0, prefix.size(), prefix) == 0; }));
}

std::vector<StandinRecord> ReadStandinRecords(const std::string& stateDir) {
    std::vector<StandinRecord> records;
    std::string dir = stateDir + "/run/orv-stub";
    DIR* handle = ::opendir(dir.c_str());
    while (dirent* entry = handle != nullptr ? ::readdir(handle) : nullptr) {
        std::string name = entry->d_name;
        if (name.size() < 5 || name.compare(name.size() - 4, 4, ".txt") != 0) {
            continue;
        }
        StandinRecord record;
        std::istringstream lines(ReadWholeFile(dir + "/" + name));
        for (std::string line; std::getline(lines, line);) {
            std::string key = line.substr(0, line.find(' '));
            std::string value =
                line.size() > key.size() ? line.substr(key.size() + 1) : std::string();
            if (key == "pid") {
                record.pid = static_cast<pid_t>(std::stol(value));
            } else if (key == "kind") {
                record.kind = static_cast<uint32_t>(std::stoul(value));
            } else if (key == "argv") {
                record.argv.push_back(value);
            } else if (key == "env") {
                record.env.push_back(value);
            } else if (key == "affinity") {
                record.affinity.push_back(std::stoi(value));
            } else if (key == "group") {
                record.groups.push_back(value);
            } else if (key == "inherited") {
                record.inherited.push_back(value);
            } else if (key != "ppid" && key != "exe") {
                record.notes.push_back(line);
            }
        }
        records.push_back(record);
    }
    if (handle != nullptr) {
        ::closedir(handle);
    }
    std::sort(records.begin(), records.end(),
              [](const StandinRecord& a, const StandinRecord& b) { return a.pid < b.pid; });
    return records;
}

std::vector<pid_t> ProcessesInNamespace(const std::string& ns) {
    std::vector<pid_t> pids;
    if (ns.empty()) {
        return pids;
    }
    DIR* proc = ::opendir("/proc");
    while (dirent* entry = proc != nullptr ? ::readdir(proc) : nullptr) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0') {
            continue;
        }
        char link[PATH_MAX] = {0};
        std::string path = std::string("/proc/") + entry->d_name + "/ns/pid";
        if (::readlink(path.c_str(), link, sizeof(link) - 1) > 0 && ns == link) {
            pids.push_back(static_cast<pid_t>(pid));
        }
    }
    if (proc != nullptr) {
        ::closedir(proc);
    }
    return pids;
}

std::vector<pid_t> StillInNamespace(const std::string& ns, const std::vector<pid_t>& before) {
    std::vector<pid_t> left;
    for (pid_t pid : ProcessesInNamespace(ns)) {
        if (std::find(before.begin(), before.end(), pid) != before.end()) {
            left.push_back(pid);
        }
    }
    return left;
}

std::vector<SandboxProcess> ProcessStates(const std::string& ns) {
    std::vector<SandboxProcess> processes;
    for (pid_t pid : ProcessesInNamespace(ns)) {
        std::ifstream status("/proc/" + std::to_string(pid) + "/status");
        SandboxProcess process;
        process.outer = pid;
        bool complete = false;
        for (std::string line; std::getline(status, line);) {
            if (line.compare(0, 6, "State:") == 0) {
                std::istringstream(line.substr(6)) >> process.state;
            } else if (line.compare(0, 6, "NSpid:") == 0) {
                // Outermost first, the sandbox's own last.
                std::istringstream ids(line.substr(6));
                for (pid_t id; ids >> id;) {
                    process.inner = id;
                }
                complete = true;
            }
        }
        if (complete) {
            processes.push_back(process);
        }
    }
    return processes;
}

size_t ThreadCount(pid_t pid) {
    return EntriesIn("/proc/" + std::to_string(pid) + "/task");
}

size_t DescriptorCount(pid_t pid) {
    return EntriesIn("/proc/" + std::to_string(pid) + "/fd");
}

namespace {

// A "Name:  N kB" line of /proc/<pid>/status.
size_t StatusKb(pid_t pid, const std::string& name) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.size(), name) == 0) {
            return std::stoul(line.substr(name.size()));
        }
    }
    return 0;
}

}  // namespace

size_t ResidentKb(pid_t pid) {
    return StatusKb(pid, "VmRSS:");
}

size_t PeakResidentKb(pid_t pid) {
    return StatusKb(pid, "VmHWM:");
}

}  // namespace orv::emu
