#include "tests/support/test_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "emu/ctl/control_client.h"
#include "emu/slog/slog_emu.h"

namespace orv::test {

namespace {

int RemoveEntry(const char* path, const struct stat*, int, FTW*) {
    return ::remove(path);
}

std::vector<char*> CStrings(const std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (const std::string& s : strings) {
        out.push_back(const_cast<char*>(s.c_str()));
    }
    out.push_back(nullptr);
    return out;
}

size_t FileSize(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<size_t>(st.st_size) : 0;
}

int ExitStatusOf(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

// Waits for `pid` up to `timeout`; its exit status, or -1.
int WaitChild(pid_t pid, std::chrono::milliseconds timeout) {
    int status = 0;
    bool done = WaitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, timeout, 20ms);
    return done ? ExitStatusOf(status) : -1;
}

}  // namespace

std::string BinDir() {
    return ORV_TEST_BIN_DIR;
}

std::string MakeTempDir(const std::string& prefix) {
    std::string pattern = "/tmp/" + prefix + ".XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed";
        return std::string();
    }
    return buffer.data();
}

void RemoveTree(const std::string& path) {
    if (!path.empty()) {
        ::nftw(path.c_str(), RemoveEntry, 32, FTW_DEPTH | FTW_PHYS);
    }
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
             std::chrono::milliseconds poll) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(poll);
    }
}

// ---- LogCapture -------------------------------------------------------------

LogCapture::LogCapture(const std::string& level) {
    const char* file = ::getenv("ORV_EMU_LOG_FILE");
    if (file != nullptr && *file != '\0') {
        path_ = file;
    } else {
        path_ = MakeTempDir("orv-log") + "/system.log";
        ::setenv("ORV_EMU_LOG_FILE", path_.c_str(), 1);
    }
    ::setenv("ORV_EMU_LOG_LEVEL", level.c_str(), 1);
    OrvEmuSlogReconfigure();
    offset_ = FileSize(path_);
}

LogCapture::LogCapture(std::string path, bool fromStart) : path_(std::move(path)) {
    offset_ = fromStart ? 0 : FileSize(path_);
}

std::vector<std::string> LogCapture::Lines() const {
    std::string content = ReadFile(path_);
    std::vector<std::string> lines;
    std::istringstream in(offset_ <= content.size() ? content.substr(offset_) : std::string());
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> LogCapture::Matching(const std::string& text) const {
    std::vector<std::string> matching;
    for (const std::string& line : Lines()) {
        if (line.find(text) != std::string::npos) {
            matching.push_back(line);
        }
    }
    return matching;
}

size_t LogCapture::Count(const std::string& text) const {
    return Matching(text).size();
}

bool LogCapture::InOrder(const std::vector<std::string>& texts, std::string* missing) const {
    std::vector<std::string> lines = Lines();
    size_t next = 0;
    for (const std::string& text : texts) {
        while (next < lines.size() && lines[next].find(text) == std::string::npos) {
            ++next;
        }
        if (next == lines.size()) {
            if (missing != nullptr) {
                *missing = text;
            }
            return false;
        }
        ++next;
    }
    return true;
}

bool LogCapture::WaitFor(const std::string& text, std::chrono::milliseconds timeout) const {
    return orv::test::WaitFor([&] { return Contains(text); }, timeout, 50ms);
}

// ---- Card emulator -----------------------------------------------------------

CardEmulatorProcess::CardEmulatorProcess(const std::vector<std::string>& args) {
    dir_ = MakeTempDir("orv-card");
    driverSocket_ = dir_ + "/card.sock";
    controlSocket_ = dir_ + "/control.sock";
    appmonSocket_ = dir_ + "/appmon.sock";
    int ready[2];
    if (::pipe(ready) != 0) {
        ADD_FAILURE() << "pipe failed";
        return;
    }
    std::vector<std::string> argv = {BinDir() + "/orv-card-emu",
                                     "--driver-socket",
                                     driverSocket_,
                                     "--control-socket",
                                     controlSocket_,
                                     "--appmon-socket",
                                     appmonSocket_,
                                     "--ready-fd",
                                     std::to_string(ready[1])};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string log = dir_ + "/card-emu.log";
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(ready[0]);
        int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(fd, STDERR_FILENO);
        std::vector<char*> cargv = CStrings(argv);
        ::execv(cargv[0], cargv.data());
        ::_exit(127);
    }
    ::close(ready[1]);
    pollfd pfd{ready[0], POLLIN, 0};
    char byte = 0;
    if (pid > 0 && ::poll(&pfd, 1, 10000) == 1 && ::read(ready[0], &byte, 1) == 1) {
        pid_ = pid;
    } else {
        ADD_FAILURE() << "orv-card-emu did not start: " << ReadFile(log);
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    ::close(ready[0]);
}

CardEmulatorProcess::~CardEmulatorProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        if (WaitChild(pid_, 5s) < 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    RemoveTree(dir_);
}

void CardEmulatorProcess::UseAsDriver() const {
    ::setenv("ORV_EMU_CARD_SOCKET", driverSocket_.c_str(), 1);
}

emu::CardReply Control(const std::string& controlSocket, const emu::CardRequest& request) {
    emu::CardReply reply;
    std::string error;
    if (!emu::CallControl(controlSocket, request, &reply, &error)) {
        ADD_FAILURE() << error;
    }
    return reply;
}

void InjectFault(const std::string& controlSocket, const std::string& call, int32_t code,
                 uint32_t count) {
    emu::CardRequest request;
    auto* fault = request.mutable_inject_fault();
    fault->set_call(call);
    fault->set_code(code);
    fault->set_count(count);
    EXPECT_EQ(Control(controlSocket, request).code(), 0) << "fault on " << call << " refused";
}

std::string ShowGroups(const std::string& controlSocket) {
    emu::CardRequest request;
    request.mutable_show_groups();
    return Control(controlSocket, request).text();
}

std::string ShowAppmon(const std::string& controlSocket) {
    emu::CardRequest request;
    request.mutable_show_appmon();
    return Control(controlSocket, request).text();
}

std::string InsideControlSocket() {
    const char* socket = ::getenv("ORV_EMU_CONTROL");
    return socket != nullptr ? socket : "/run/orv-card/control.sock";
}

// ---- SandboxRun ----------------------------------------------------------------

SandboxRun::SandboxRun() : SandboxClient(test::BinDir(), test::MakeTempDir("orv-e2e")) {}

SandboxRun::~SandboxRun() {
    if (Running()) {
        Stop();
    }
    std::string report = SanitizerReport();
    if (!report.empty()) {
        ADD_FAILURE() << "sanitizer report: " << report;
    }
    if (!::testing::Test::HasFailure()) {
        RemoveTree(StateDir());
        ::unlink((StateDir() + ".out").c_str());
    } else {
        std::fprintf(stderr, "sandbox state kept in %s (output in %s.out)\n", StateDir().c_str(),
                     StateDir().c_str());
    }
}

std::unique_ptr<host::HostLink> HoldLink(const SandboxRun& sandbox, uint32_t device) {
    std::string error;
    auto link =
        host::HostLink::Connect(sandbox.Env()["ORV_HDC_SOCKET_" + std::to_string(device)], &error);
    EXPECT_NE(link, nullptr) << error;
    return link;
}

int Host(const SandboxRun& sandbox, const std::vector<std::string>& args, std::string* output,
         const std::string& input) {
    std::vector<std::string> argv = {BinDir() + "/orv-host", "--state", sandbox.StateDir()};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv, output, input);
}

int EmuCtl(const SandboxRun& sandbox, const std::vector<std::string>& args, std::string* output) {
    std::vector<std::string> argv = {BinDir() + "/orv-emu-ctl", "--state", sandbox.StateDir()};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv, output);
}

std::vector<StandinRecord> StandinRecords(const SandboxRun& sandbox) {
    return emu::ReadStandinRecords(sandbox.StateDir());
}

std::vector<StandinRecord> StandinRecordsOfKind(const SandboxRun& sandbox, uint32_t kind) {
    std::vector<StandinRecord> ofKind;
    for (const StandinRecord& record : StandinRecords(sandbox)) {
        if (record.kind == kind) {
            ofKind.push_back(record);
        }
    }
    return ofKind;
}

NotifyListener::NotifyListener(const std::string& name) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name.empty() || name.size() >= sizeof(address.sun_path)) {
        return;
    }
    std::memcpy(address.sun_path, name.data(), name.size());
    socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (name[0] == '@') {
        address.sun_path[0] = '\0';
    } else {
        path_ = name;
        ::unlink(name.c_str());
        length += 1;
    }
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

NotifyListener::~NotifyListener() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    if (!path_.empty()) {
        ::unlink(path_.c_str());
    }
}

std::optional<std::string> NotifyListener::Receive(std::chrono::milliseconds timeout) {
    pollfd pfd{fd_, POLLIN, 0};
    if (fd_ < 0 || ::poll(&pfd, 1, static_cast<int>(timeout.count())) != 1) {
        return std::nullopt;
    }
    char buffer[4096];
    ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
    return n >= 0 ? std::optional<std::string>(std::string(buffer, static_cast<size_t>(n)))
                  : std::nullopt;
}

}  // namespace orv::test
