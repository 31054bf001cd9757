#include "fuzz/fuzz_support.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include <google/protobuf/stubs/logging.h>

#include "daemon/orvdaemon.h"
#include "emu/common/emu_paths.h"
#include "emu/common/socket_io.h"
#include "emu/sandbox/sandbox_client.h"
#include "platform/orv_limits.h"

extern char** environ;

namespace orv::fuzz {

namespace {

// The HDC library's own limit: a longer frame ends the session.
constexpr uint32_t kMaxFrameLength = limits::kMaxFrameBytes;
constexpr size_t kFrameHeaderSize = 4;

std::string RealPathOf(const std::string& path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
}

bool IsDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool UnderAny(const std::string& path, const std::vector<std::string>& roots) {
    for (const std::string& root : roots) {
        if (path == root || (path.compare(0, root.size(), root) == 0 && path[root.size()] == '/')) {
            return true;
        }
    }
    return false;
}

// Mount points as /proc/self/mountinfo lists them (octal escapes undone).
std::vector<std::string> MountPoints() {
    std::ifstream info("/proc/self/mountinfo");
    std::vector<std::string> points;
    std::string line;
    while (std::getline(info, line)) {
        // Fields: id, parent id, major:minor, root, mount point, ...
        size_t start = 0;
        for (int field = 0; field < 4 && start != std::string::npos; ++field) {
            start = line.find(' ', start);
            start = start == std::string::npos ? start : start + 1;
        }
        if (start == std::string::npos) {
            continue;
        }
        std::string escaped = line.substr(start, line.find(' ', start) - start);
        std::string point;
        for (size_t i = 0; i < escaped.size(); ++i) {
            if (escaped[i] == '\\' && i + 3 < escaped.size()) {
                point += static_cast<char>(std::stoi(escaped.substr(i + 1, 3), nullptr, 8));
                i += 3;
            } else {
                point += escaped[i];
            }
        }
        points.push_back(point);
    }
    return points;
}

// The flags a read-only remount must keep (a user namespace locks them).
unsigned long KeptMountFlags(const std::string& point) {
    struct statvfs info {};
    if (::statvfs(point.c_str(), &info) != 0) {
        return 0;
    }
    unsigned long flags = 0;
    const std::pair<unsigned long, unsigned long> kept[] = {
        {ST_NOSUID, MS_NOSUID},   {ST_NODEV, MS_NODEV},           {ST_NOEXEC, MS_NOEXEC},
        {ST_NOATIME, MS_NOATIME}, {ST_NODIRATIME, MS_NODIRATIME}, {ST_RELATIME, MS_RELATIME},
    };
    for (const auto& [statFlag, mountFlag] : kept) {
        if ((info.f_flag & statFlag) != 0) {
            flags |= mountFlag;
        }
    }
    return flags;
}

// Where libFuzzer writes: its corpus directories and where findings go.
std::vector<std::string> FuzzerOutputDirs(int argc, char** argv) {
    std::vector<std::string> dirs;
    bool artifactsNamed = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string dir;
        for (const char* flag : {"-artifact_prefix=", "-exact_artifact_path="}) {
            size_t n = std::strlen(flag);
            if (arg.compare(0, n, flag) == 0) {
                artifactsNamed = true;
                std::string value = arg.substr(n);
                size_t slash = value.rfind('/');
                dir = slash == std::string::npos ? "." : value.substr(0, slash + 1);
            }
        }
        if (dir.empty() && !arg.empty() && arg[0] != '-' && IsDirectory(arg)) {
            dir = arg;
        }
        if (!dir.empty() && !(dir = RealPathOf(dir)).empty()) {
            dirs.push_back(dir);
        }
    }
    if (!artifactsNamed) {
        dirs.push_back(RealPathOf("."));
    }
    return dirs;
}

std::vector<void (*)()>& ExitHooks() {
    static auto* const hooks = new std::vector<void (*)()>;
    return *hooks;
}

}  // namespace

void Fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::fprintf(stderr, "orv-fuzz: ");
    std::vfprintf(stderr, format, args);
    std::fprintf(stderr, "\n");
    va_end(args);
    std::abort();
}

void QuietSystemLog() {
    const char* file = std::getenv("ORV_FUZZ_LOG");
    ::setenv(emu::kLogFileEnv, file != nullptr && *file != '\0' ? file : "/dev/null", 1);
    ::unsetenv(emu::kLogStderrEnv);
    // Protobuf reports every string field that is not UTF-8 on standard error.
    google::protobuf::SetLogHandler([](google::protobuf::LogLevel level, const char* file, int line,
                                       const std::string& message) {
        if (level == google::protobuf::LOGLEVEL_FATAL) {
            std::fprintf(stderr, "[libprotobuf FATAL %s:%d] %s\n", file, line, message.c_str());
        }
    });
}

void BeforeExit(void (*hook)()) {
    ExitHooks().push_back(hook);
}

void StartDaemon() {
    uint32_t ret = OrvDaemon::GetInstance()->Start();
    if (ret != 0) {
        Fail("the daemon did not start (code %u); is this running inside orv-sandbox?", ret);
    }
    BeforeExit([] { OrvDaemon::GetInstance()->Destroy(); });
}

// ---- Bystander ---------------------------------------------------------------

void Bystander::Start() {
    pid_ = emu::SpawnDetached({"/bin/sleep", "infinity"});
    if (pid_ <= 0) {
        Fail("cannot start the bystander process");
    }
}

void Bystander::Check() const {
    // A pidfd turns readable once the process has ended, reaped or not.
    emu::UniqueFd fd(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    pollfd pfd{fd.Get(), POLLIN, 0};
    if (!fd.Valid() || ::poll(&pfd, 1, 0) != 0) {
        Fail("the bystander process %d, which is none of the daemon's sub-processes, was killed",
             pid_);
    }
}

// ---- Host link -------------------------------------------------------------------

std::string HdcSocketPath() {
    return emu::EnvOr(emu::kHdcDirEnv, emu::kDefaultHdcDir) + "/dev0.sock";
}

FrameSplit SplitFrames(const uint8_t* data, size_t size, size_t maxFrames) {
    FrameSplit split;
    size_t& offset = split.consumed;
    while (split.payloads.size() < maxFrames && size - offset >= kFrameHeaderSize) {
        const uint8_t* header = data + offset;
        uint32_t length = (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) |
                          (uint32_t{header[2]} << 8) | uint32_t{header[3]};
        if (length > kMaxFrameLength || length > size - offset - kFrameHeaderSize) {
            break;
        }
        split.payloads.emplace_back(reinterpret_cast<const char*>(header) + kFrameHeaderSize,
                                    length);
        offset += kFrameHeaderSize + length;
    }
    return split;
}

std::string JoinFrames(const std::vector<std::string>& payloads) {
    std::string out;
    for (const std::string& payload : payloads) {
        uint32_t n = static_cast<uint32_t>(payload.size());
        out += {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                static_cast<char>(n)};
        out += payload;
    }
    return out;
}

RawHostLink::RawHostLink(const std::string& socketPath) : fd_(emu::ConnectUnix(socketPath)) {
    if (!fd_.Valid()) {
        Fail("cannot connect to %s: %s", socketPath.c_str(), std::strerror(errno));
    }
    ::fcntl(fd_.Get(), F_SETFL, ::fcntl(fd_.Get(), F_GETFL) | O_NONBLOCK);
}

std::vector<std::string> RawHostLink::Exchange(const uint8_t* data, size_t size) {
    size_t written = 0;
    bool writing = true;
    std::string inbox;
    char buffer[65536];
    for (;;) {
        if (writing && written == size) {
            ::shutdown(fd_.Get(), SHUT_WR);
            writing = false;
        }
        pollfd pfd{fd_.Get(), static_cast<short>(POLLIN | (writing ? POLLOUT : 0)), 0};
        if (::poll(&pfd, 1, -1) < 0) {
            continue;
        }
        if (writing && (pfd.revents & POLLOUT) != 0) {
            ssize_t n = ::send(fd_.Get(), data + written, size - written, MSG_NOSIGNAL);
            if (n > 0) {
                written += static_cast<size_t>(n);
            } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
                // The daemon closed the session before taking everything.
                writing = false;
            }
        }
        if ((pfd.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            ssize_t n = ::read(fd_.Get(), buffer, sizeof(buffer));
            if (n > 0) {
                inbox.append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                break;
            }
        }
    }
    return SplitFrames(reinterpret_cast<const uint8_t*>(inbox.data()), inbox.size()).payloads;
}

// ---- ScratchJail ---------------------------------------------------------------

ScratchJail::ScratchJail(const std::string& scratchDir, int argc, char** argv) : dir_(scratchDir) {
    std::vector<std::string> writable = FuzzerOutputDirs(argc, argv);
    std::error_code ignored;
    std::filesystem::create_directories(dir_, ignored);
    dir_ = RealPathOf(dir_);
    if (dir_.empty()) {
        Fail("cannot make the scratch directory %s", scratchDir.c_str());
    }
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        Fail("cannot make a private mount namespace: %s", std::strerror(errno));
    }
    if (::mount("tmpfs", dir_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=64m,mode=0755") != 0) {
        Fail("cannot mount a tmpfs on %s: %s", dir_.c_str(), std::strerror(errno));
    }
    // Each writable directory becomes a mount of its own, so that the
    // read-only remount of what holds it leaves it alone.
    for (const std::string& dir : writable) {
        if (::mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            Fail("cannot bind %s: %s", dir.c_str(), std::strerror(errno));
        }
    }
    std::vector<std::string> keep = writable;
    keep.insert(keep.end(), {dir_, "/dev", "/proc", "/sys"});
    for (const std::string& point : MountPoints()) {
        if (UnderAny(point, keep)) {
            continue;
        }
        unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY | KeptMountFlags(point);
        if (::mount(nullptr, point.c_str(), nullptr, flags, nullptr) != 0 && errno != ENOENT) {
            Fail("cannot make %s read-only: %s", point.c_str(), std::strerror(errno));
        }
    }
    if (::access("/", W_OK) == 0 || errno != EROFS || ::access(dir_.c_str(), W_OK) != 0) {
        Fail("the jail did not come up: / must be read-only and %s writable", dir_.c_str());
    }
}

void ScratchJail::Clear() const {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(dir_, error)) {
        std::filesystem::remove_all(entry.path(), error);
    }
}

// ---- EnvironmentSnapshot -------------------------------------------------------

EnvironmentSnapshot::EnvironmentSnapshot() {
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        entries_.emplace_back(*entry);
    }
}

void EnvironmentSnapshot::Restore() const {
    std::set<std::string> original;
    for (const std::string& entry : entries_) {
        original.insert(entry.substr(0, entry.find('=')));
    }
    std::vector<std::string> added;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        std::string name(*entry, std::strcspn(*entry, "="));
        if (original.count(name) == 0) {
            added.push_back(name);
        }
    }
    for (const std::string& name : added) {
        ::unsetenv(name.c_str());
    }
    for (const std::string& entry : entries_) {
        size_t eq = entry.find('=');
        if (eq == std::string::npos) {
            continue;
        }
        std::string name = entry.substr(0, eq);
        const char* now = std::getenv(name.c_str());
        if (now == nullptr || entry.compare(eq + 1, std::string::npos, now) != 0) {
            ::setenv(name.c_str(), entry.c_str() + eq + 1, 1);
        }
    }
}

}  // namespace orv::fuzz

// libFuzzer ends a run with exit(). The daemon executable never gets there: it
// shuts the daemon down and _exits. Here the daemon's threads would still run
// while the exit handlers destroy the statics they use (the platform
// libraries' and the daemon's own), so the hooks (the daemon's shutdown among
// them) run first, and only then the C library's exit.
extern "C" void exit(int status) noexcept {
    std::vector<void (*)()>& hooks = orv::fuzz::ExitHooks();
    while (!hooks.empty()) {
        void (*hook)() = hooks.back();
        hooks.pop_back();
        hook();
    }
    using ExitFunction = void (*)(int);
    auto libcExit = reinterpret_cast<ExitFunction>(::dlsym(RTLD_NEXT, "exit"));
    libcExit(status);
    __builtin_unreachable();
}
