#include "platform/log.h"

#include <cstdarg>
#include <sstream>
#include <system_error>

#include <bounds_checked.h>
#include <osal.h>
#include <slog.h>

namespace orv {

namespace {

// This file's name as the system log shows it in front of every line.
constexpr char kLogFileName[] = "log.cc";

// Line numbers passed with each level (the positions of the library calls).
constexpr int kDebugLine = 42;
constexpr int kInfoLine = 48;
constexpr int kWarnLine = 37;
constexpr int kErrorLine = 40;
constexpr int kEventLine = 44;
constexpr int kTraceLine = 46;

// More than this many kept error lines makes the next one push the oldest out.
constexpr size_t kErrorMsgThreshold = 10;

// Room for the position suffix that follows the message on a line.
constexpr size_t kLineSuffixRoom = 512;

class PthreadLock {
  public:
    explicit PthreadLock(pthread_mutex_t* mutex) : mutex_(mutex) {
        int rc = pthread_mutex_lock(mutex_);
        if (rc != 0) {
            throw std::system_error(rc, std::generic_category(), "ORVLog mutex");
        }
    }
    ~PthreadLock() { pthread_mutex_unlock(mutex_); }
    PthreadLock(const PthreadLock&) = delete;
    PthreadLock& operator=(const PthreadLock&) = delete;

  private:
    pthread_mutex_t* mutex_;
};

}  // namespace

ORVLog& ORVLog::GetInstance() {
    static ORVLog instance;
    return instance;
}

void ORVLog::OrvImplLog(const char* func, const char* file, int32_t line, const Log& log,
                        const char* fmt, ...) const {
    if (func == nullptr || file == nullptr) {
        return;
    }
    char message[kOrvLogMaxMessage + 2];
    (void)memset_s(message, sizeof(message), 0, sizeof(message));
    va_list args;
    va_start(args, fmt);
    int ret = vsnprintf_s(message, kOrvLogMaxMessage + 1, kOrvLogMaxMessage, fmt, args);
    va_end(args);
    if (ret <= 0) {
        return;
    }
    char composed[kOrvLogMaxMessage + 2 + kLineSuffixRoom];
    (void)memset_s(composed, sizeof(composed), 0, sizeof(composed));
    ret = sprintf_s(composed, sizeof(composed) - 1, "%s,[%s:%d:%s]%d\n", message, file, line, func,
                    mmGetTid());
    if (ret <= 0) {
        return;
    }
    GetInstance().PrintLog(log, composed);
}

void ORVLog::PrintLog(const Log& log, const char* text) {
    if (text == nullptr) {
        return;
    }
    switch (log.level) {
        case ORV_DEBUG:
            if (CheckLogLevel(kOrvLogModuleId, DLOG_DEBUG) == 1) {
                DlogDebugInner(kOrvLogModuleId, "[%s:%d]%s", kLogFileName, kDebugLine, text);
            }
            break;
        case ORV_WARN:
            if (CheckLogLevel(kOrvLogModuleId, DLOG_WARN) == 1) {
                DlogWarnInner(kOrvLogModuleId, "[%s:%d]%s", kLogFileName, kWarnLine, text);
            }
            break;
        case ORV_ERROR:
            RestoreErrorMsg(text);
            DlogErrorInner(kOrvLogModuleId, "[%s:%d]%s", kLogFileName, kErrorLine, text);
            break;
        case ORV_EVENT:
            DlogEventInner(kOrvLogModuleId, "[%s:%d]%s", kLogFileName, kEventLine, text);
            break;
        case ORV_TRACE:
            if (CheckLogLevel(kOrvLogModuleId, DLOG_TRACE) == 1) {
                DlogInner(kOrvLogModuleId, DLOG_TRACE, "[%s:%d]%s", kLogFileName, kTraceLine, text);
            }
            break;
        default:
            if (CheckLogLevel(kOrvLogModuleId, DLOG_INFO) == 1) {
                DlogInfoInner(kOrvLogModuleId, "[%s:%d]%s", kLogFileName, kInfoLine, text);
            }
            break;
    }
}

void ORVLog::RestoreErrorMsg(const char* text) {
    PthreadLock lock(&mutex_);
    if (errorMsgs_.size() > kErrorMsgThreshold) {
        errorMsgs_.pop_front();
    }
    errorMsgs_.emplace_back(text);
}

std::string ORVLog::GetErrorMsg() {
    PthreadLock lock(&mutex_);
    std::ostringstream joined;
    while (!errorMsgs_.empty()) {
        joined << errorMsgs_.front();
        errorMsgs_.pop_front();
    }
    return joined.str();
}

}  // namespace orv
