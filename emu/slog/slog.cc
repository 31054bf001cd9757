// Emulated system log library.
//
// Lines go to the file named by ORV_EMU_LOG_FILE (appended, one write per line
// so that concurrent writers never interleave and readers see a line at once)
// and, when ORV_EMU_LOG_STDERR is 1 or the file is not set, to standard error.
// ORV_EMU_LOG_LEVEL (debug, info, warning, error; default info) is the
// threshold that CheckLogLevel answers. The configuration is read once, at the
// first call (and again by OrvEmuSlogReconfigure).
#include <slog.h>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "emu/common/emu_paths.h"
#include "emu/common/process_ids.h"
#include "emu/common/socket_io.h"
#include "emu/slog/slog_emu.h"

namespace {

struct SlogConfig {
    std::atomic<int> fileFd{-1};
    std::atomic<bool> toStderr{false};
    std::atomic<int> threshold{DLOG_INFO};
    std::string processName;
};

int ParseLevel(const std::string& text) {
    if (text == "debug") {
        return DLOG_DEBUG;
    }
    if (text == "warning" || text == "warn") {
        return DLOG_WARN;
    }
    if (text == "error") {
        return DLOG_ERROR;
    }
    return DLOG_INFO;
}

std::string ReadProcessName() {
    char name[64] = {};
    int fd = ::open("/proc/self/comm", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t n = ::read(fd, name, sizeof(name) - 1);
        ::close(fd);
        if (n > 0 && name[n - 1] == '\n') {
            name[n - 1] = '\0';
        }
    }
    return name[0] != '\0' ? std::string(name) : std::string("unknown");
}

void LoadConfig(SlogConfig* c) {
    std::string file = orv::emu::EnvOr(orv::emu::kLogFileEnv, "");
    int fd =
        file.empty() ? -1 : ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int old = c->fileFd.exchange(fd);
    if (old >= 0) {
        ::close(old);
    }
    c->toStderr = fd < 0 || orv::emu::EnvOr(orv::emu::kLogStderrEnv, "0") == "1";
    c->threshold = ParseLevel(orv::emu::EnvOr(orv::emu::kLogLevelEnv, "info"));
}

SlogConfig& Config() {
    static SlogConfig* const config = [] {
        // Never destroyed: other libraries log from their static destructors.
        auto* c = new SlogConfig;
        c->processName = ReadProcessName();
        LoadConfig(c);
        return c;
    }();
    return *config;
}

const char* LevelName(int level) {
    switch (level) {
        case DLOG_DEBUG:
            return "DEBUG";
        case DLOG_INFO:
            return "INFO";
        case DLOG_WARN:
            return "WARNING";
        case DLOG_ERROR:
            return "ERROR";
        case DLOG_EVENT:
            return "EVENT";
        case DLOG_TRACE:
            return "TRACE";
        default:
            return "INFO";
    }
}

// Room for the line's prefix (time, level, process name and pid, module).
constexpr size_t kPrefixRoom = 256;
constexpr size_t kMessageRoom = 16384;

void WriteLine(int moduleId, int level, const char* fmt, va_list args) {
    SlogConfig& config = Config();
    timeval now{};
    ::gettimeofday(&now, nullptr);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    // Composed in place, once: the prefix, the message, one newline.
    char line[kPrefixRoom + kMessageRoom];
    int prefix =
        std::snprintf(line, kPrefixRoom,
                      "%04d-%02d-%02d %02d:%02d:%02d.%06ld %s %s[%d] %d: ", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                      static_cast<long>(now.tv_usec), LevelName(level), config.processName.c_str(),
                      static_cast<int>(orv::emu::CurrentPid()), moduleId);
    if (prefix < 0) {
        return;
    }
    const size_t start = std::min(static_cast<size_t>(prefix), kPrefixRoom - 1);
    int n = std::vsnprintf(line + start, kMessageRoom, fmt, args);
    if (n < 0) {
        return;
    }
    size_t length = start + std::min(static_cast<size_t>(n), kMessageRoom - 1);
    while (length > start && line[length - 1] == '\n') {
        --length;
    }
    line[length++] = '\n';

    int fd = config.fileFd.load();
    if (fd >= 0) {
        orv::emu::WriteFileFull(fd, line, length);
    }
    if (config.toStderr) {
        orv::emu::WriteFull(STDERR_FILENO, line, length);
    }
}

}  // namespace

extern "C" {

int CheckLogLevel(int /*moduleId*/, int level) {
    return level >= Config().threshold ? 1 : 0;
}

#define ORV_SLOG_ENTRY(name, level)                 \
    void name(int moduleId, const char* fmt, ...) { \
        va_list args;                               \
        va_start(args, fmt);                        \
        WriteLine(moduleId, level, fmt, args);      \
        va_end(args);                               \
    }

ORV_SLOG_ENTRY(DlogDebugInner, DLOG_DEBUG)
ORV_SLOG_ENTRY(DlogInfoInner, DLOG_INFO)
ORV_SLOG_ENTRY(DlogWarnInner, DLOG_WARN)
ORV_SLOG_ENTRY(DlogErrorInner, DLOG_ERROR)
ORV_SLOG_ENTRY(DlogEventInner, DLOG_EVENT)

#undef ORV_SLOG_ENTRY

void DlogInner(int moduleId, int level, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    WriteLine(moduleId, level, fmt, args);
    va_end(args);
}

void OrvEmuSlogReconfigure(void) {
    LoadConfig(&Config());
}

int DlogSetAttr(LogAttr logAttr) {
    if (logAttr.type != DLOG_ATTR_SYSTEM && logAttr.type != DLOG_ATTR_APP) {
        return -1;
    }
    return 0;
}

}  // extern "C"
