#include "platform/bounded_lines.h"

#include <fcntl.h>
#include <unistd.h>

namespace orv {

LinesEnd ForEachBoundedLine(FILE* stream, const LineBounds& bounds,
                            const std::function<bool(const std::string& line, bool cut)>& onLine) {
    std::string line;
    size_t lines = 0;
    for (;;) {
        line.clear();
        bool cut = false;
        int c = 0;
        while ((c = getc_unlocked(stream)) != EOF && c != '\n') {
            if (line.size() < bounds.maxLineBytes) {
                line.push_back(static_cast<char>(c));
            } else {
                cut = true;
            }
        }
        if (ferror(stream)) {
            return LinesEnd::kUnreadable;
        }
        if (c == EOF && line.empty() && !cut) {
            return LinesEnd::kEnd;
        }
        if (lines == bounds.maxLines) {
            return LinesEnd::kTooManyLines;
        }
        ++lines;
        if (!onLine(line, cut)) {
            return cut ? LinesEnd::kLineTooLong : LinesEnd::kStopped;
        }
        if (c == EOF) {
            return LinesEnd::kEnd;
        }
    }
}

LinesEnd ForEachBoundedLine(const std::string& path, const LineBounds& bounds,
                            const std::function<bool(const std::string& line, bool cut)>& onLine) {
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return LinesEnd::kUnreadable;
    }
    FILE* stream = fdopen(fd, "r");
    if (stream == nullptr) {
        close(fd);
        return LinesEnd::kUnreadable;
    }
    LinesEnd end = ForEachBoundedLine(stream, bounds, onLine);
    fclose(stream);
    return end;
}

std::string DescribeLinesEnd(LinesEnd end, const LineBounds& bounds) {
    switch (end) {
        case LinesEnd::kLineTooLong:
            return "a line is longer than " + std::to_string(bounds.maxLineBytes) + " bytes";
        case LinesEnd::kTooManyLines:
            return "it has more than " + std::to_string(bounds.maxLines) + " lines";
        case LinesEnd::kUnreadable:
            return "it cannot be read";
        default:
            return "it was read";
    }
}

}  // namespace orv
