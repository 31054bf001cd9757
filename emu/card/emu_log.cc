#include "emu/card/emu_log.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "emu/common/socket_io.h"

namespace orv::emu {

void EmuLog(const char* fmt, ...) {
    char text[2048];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    timeval now{};
    ::gettimeofday(&now, nullptr);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char line[2200];
    int n =
        std::snprintf(line, sizeof(line), "%02d:%02d:%02d.%06ld orv-card-emu: %s\n", local.tm_hour,
                      local.tm_min, local.tm_sec, static_cast<long>(now.tv_usec), text);
    if (n > 0) {
        WriteFull(STDERR_FILENO, line, std::min(static_cast<size_t>(n), sizeof(line) - 1));
    }
}

}  // namespace orv::emu
