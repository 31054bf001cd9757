// What the units of the package worker share: where a VF's memory cgroup
// lives, a line reader that cannot be made to wait or follow a link, and the
// one way a dropped package is opened.
#ifndef ORV_PACKAGE_PACKAGE_WORKER_INTERNAL_H
#define ORV_PACKAGE_PACKAGE_WORKER_INTERNAL_H

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/scope_guard.h"

namespace orv {
namespace package_internal {

// The memory cgroup directory of a VF.
std::string CgroupDir(int32_t vfId);

// Opens a dropped package once, for every later step to use: without
// following a link, without waiting on a FIFO or device, and only when it is
// a regular file. Its descriptor, or -1 with the reason.
int OpenPackageFile(const std::string& path, off_t* size, std::string* reason);

// Calls `onLine` with each line of a file (without its new line) until it
// returns false. The file is opened close-on-exec, without following a link in
// its last component and without waiting on a FIFO; false when it cannot be.
template <typename OnLine>
bool ForEachLine(const std::string& path, OnLine onLine) {
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    FILE* file = fd >= 0 ? fdopen(fd, "r") : nullptr;
    if (file == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return false;
    }
    ScopeGuard closeFile([file] { fclose(file); });
    char* buffer = nullptr;
    size_t capacity = 0;
    ScopeGuard freeBuffer([&buffer] { free(buffer); });
    ssize_t length;
    while ((length = getline(&buffer, &capacity, file)) >= 0) {
        std::string line(buffer, static_cast<size_t>(length));
        if (!line.empty() && line.back() == '\n') {
            line.pop_back();
        }
        if (!onLine(line)) {
            break;
        }
    }
    return true;
}

}  // namespace package_internal
}  // namespace orv

#endif  // ORV_PACKAGE_PACKAGE_WORKER_INTERNAL_H
