#include "emu/appmon/appmon_protocol.h"

#include <errno.h>
#include <unistd.h>

#include "emu/common/socket_io.h"

namespace orv::emu {

bool ReadLine(int fd, std::string* line) {
    line->clear();
    char c;
    for (;;) {
        ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        if (c == '\n') {
            return true;
        }
        if (line->size() >= kAppmonMaxLine) {
            return false;
        }
        line->push_back(c);
    }
}

bool WriteLine(int fd, const std::string& line) {
    std::string data = line + '\n';
    return WriteFull(fd, data.data(), data.size());
}

}  // namespace orv::emu
