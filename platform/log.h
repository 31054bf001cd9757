// ORVLog: the daemon's one logging facility.
//
// Every log statement goes through ORV_LOG, which stamps the message with the
// bare function name, the source file's base name, the line and the thread id,
// and hands the line to the system log library at its level. Error lines are
// also kept, the eleven most recent, so that a failed request can be answered
// with the errors that led to it (GetErrorMsg).
#ifndef ORV_PLATFORM_LOG_H
#define ORV_PLATFORM_LOG_H

#include <pthread.h>

#include <cstdint>
#include <deque>
#include <string>

namespace orv {

// Levels of a log statement.
enum OrvLogLevel : uint32_t {
    ORV_DEBUG = 0,
    ORV_INFO = 1,
    ORV_WARN = 2,
    ORV_ERROR = 3,  // always written, and kept for GetErrorMsg
    ORV_EVENT = 5,  // start/stop milestones and normal progress; always written
    ORV_TRACE = 6,  // handed to the library at its own level 6
};

// The level descriptor of one statement. Levels outside the table are info.
struct Log {
    uint32_t level;
};

// System log module id of the daemon.
inline constexpr int kOrvLogModuleId = 38;

// Longest message a statement may format; a longer one is dropped whole.
inline constexpr size_t kOrvLogMaxMessage = 8191;

class ORVLog {
  public:
    static ORVLog& GetInstance();

    ORVLog(const ORVLog&) = delete;
    ORVLog& operator=(const ORVLog&) = delete;

    // Formats and writes one statement. Does nothing when `func` or `file` is
    // null, and drops a message that formats to nothing or to more than
    // kOrvLogMaxMessage characters.
    void OrvImplLog(const char* func, const char* file, int32_t line, const Log& log,
                    const char* fmt, ...) const __attribute__((format(printf, 6, 7)));

    // Hands one finished line to the system log library at `log`'s level.
    void PrintLog(const Log& log, const char* text);

    // Appends an error line, dropping the oldest when more than ten are kept.
    void RestoreErrorMsg(const char* text);

    // Drains the kept error lines, oldest first, joined.
    std::string GetErrorMsg();

  private:
    ORVLog() = default;
    ~ORVLog() = default;

    // Plain and statically initialised so that logging works from the first
    // static constructor to the last static destructor.
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::deque<std::string> errorMsgs_;  // guarded by mutex_
};

}  // namespace orv

#if defined(__FILE_NAME__)
#define ORV_FILE_BASENAME __FILE_NAME__
#else
#define ORV_FILE_BASENAME \
    (__builtin_strrchr(__FILE__, '/') ? __builtin_strrchr(__FILE__, '/') + 1 : __FILE__)
#endif

// The one logging statement: ORV_LOG(ORV_INFO, "[OrvDaemon] ...", ...).
#define ORV_LOG(level, fmt, ...)                                                   \
    ::orv::ORVLog::GetInstance().OrvImplLog(__func__, ORV_FILE_BASENAME, __LINE__, \
                                            ::orv::Log{(level)}, fmt, ##__VA_ARGS__)

#endif  // ORV_PLATFORM_LOG_H
