// Reading text that someone else wrote (a package's version.info, the
// environment script, a command's output, a control file) line by line,
// within bounds: a line is never held longer than its bound, a file is read
// no further than its line bound, so nothing is read whole into memory on
// the say-so of its writer.
#ifndef ORV_PLATFORM_BOUNDED_LINES_H
#define ORV_PLATFORM_BOUNDED_LINES_H

#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>

namespace orv {

// Why a bounded read ended.
enum class LinesEnd {
    kEnd,           // the text ended
    kStopped,       // the reader asked to stop
    kLineTooLong,   // a line passed its bound, and the reader asked to stop there
    kTooManyLines,  // the line bound was reached with more text to come
    kUnreadable,    // the file could not be opened or read
};

// The bounds of one read.
struct LineBounds {
    size_t maxLineBytes;
    size_t maxLines;
};

// Hands each line of `stream` (without its new line) to `onLine`, which
// returns false to stop. A line over `maxLineBytes` is handed over cut to
// its bound with `cut` set, the rest of it skipped; when `onLine` returns
// false for it the read ends with kLineTooLong. Lines are counted as they
// are handed over, cut ones included.
LinesEnd ForEachBoundedLine(FILE* stream, const LineBounds& bounds,
                            const std::function<bool(const std::string& line, bool cut)>& onLine);

// The same for a file, opened close-on-exec, without following a link in its
// last component and without waiting on a FIFO or device.
LinesEnd ForEachBoundedLine(const std::string& path, const LineBounds& bounds,
                            const std::function<bool(const std::string& line, bool cut)>& onLine);

// How a read ended, for a log line ("a line longer than 4096 bytes", ...).
std::string DescribeLinesEnd(LinesEnd end, const LineBounds& bounds);

}  // namespace orv

#endif  // ORV_PLATFORM_BOUNDED_LINES_H
