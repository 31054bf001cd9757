// System log library of the card platform.
//
// Every process on the card writes its diagnostics through these calls. A line
// is tagged with the caller's module id; the library decides, per module and
// level, whether a line is written (CheckLogLevel). Error and event lines are
// always written.
#ifndef ORV_SDK_SLOG_H
#define ORV_SDK_SLOG_H

#ifdef __cplusplus
extern "C" {
#endif

// Levels as the library numbers them.
#define DLOG_DEBUG 0
#define DLOG_INFO 1
#define DLOG_WARN 2
#define DLOG_ERROR 3
#define DLOG_NULL 4
#define DLOG_EVENT 5
#define DLOG_TRACE 6

// Kinds of process a LogAttr may describe.
#define DLOG_ATTR_SYSTEM 0
#define DLOG_ATTR_APP 1

// Identity a process registers with the library.
typedef struct LogAttr {
    int type;      // DLOG_ATTR_SYSTEM or DLOG_ATTR_APP
    int pid;       // the registering process
    int deviceId;  // device the process serves; 0 for the control CPU's own
    char reserved[20];
} LogAttr;

// Returns 1 when lines of `level` for `moduleId` are written, 0 when they are not.
int CheckLogLevel(int moduleId, int level);

// Each writes one line at its level; `fmt` is printf-style.
void DlogDebugInner(int moduleId, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void DlogInfoInner(int moduleId, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void DlogWarnInner(int moduleId, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void DlogErrorInner(int moduleId, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void DlogEventInner(int moduleId, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Writes one line at an explicit level.
void DlogInner(int moduleId, int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Registers the calling process's identity. Returns 0 on success.
int DlogSetAttr(LogAttr logAttr);

#ifdef __cplusplus
}
#endif

#endif  // ORV_SDK_SLOG_H
