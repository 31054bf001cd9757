#include "package/internal_api.h"

#include <fcntl.h>
#include <limits.h>
#include <regex.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "package/child_process.h"
#include "platform/log.h"

namespace orv {

namespace {

// Environment values at least this long are not taken.
constexpr size_t kMaxEnvValueLength = 1048576;
constexpr size_t kMaxPathLength = 4096;
constexpr size_t kStrerrorBufferSize = 256;

}  // namespace

void Trim(std::string& text) {
    if (text.empty()) {
        return;
    }
    size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) {
        text.clear();
        return;
    }
    size_t last = text.find_last_not_of(' ');
    text = text.substr(first, last - first + 1);
}

uint32_t CalFileSize(const std::string& path) {
    // Non-blocking, so that a FIFO does not wait for a writer (it has no end
    // to seek to, and measures 0).
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    off_t size = lseek(fd, 0, SEEK_END);
    close(fd);
    if (size < 0) {
        return 0;
    }
    return static_cast<uint32_t>(static_cast<uint64_t>(size) & 0xFFFFFFFFULL);
}

bool ValidateStr(const std::string& text, const std::string& pattern) {
    regex_t regex;
    if (regcomp(&regex, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
        return false;
    }
    bool matched = regexec(&regex, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&regex);
    return matched;
}

void GetEnv(const char* name, std::string& value) {
    const char* env = getenv(name);
    if (env == nullptr || strnlen(env, kMaxEnvValueLength) >= kMaxEnvValueLength) {
        ORV_LOG(ORV_WARN, "Get env[%s] failed", name);
        return;
    }
    value = env;
}

bool IsZEBPG2FPGAEnv() {
    std::string mode;
    GetEnv("DATAMASTER_RUN_MODE", mode);
    if (mode.empty()) {
        return false;
    }
    ORV_LOG(ORV_EVENT, "Get DATAMASTER_RUN_MODE[%s]", mode.c_str());
    return mode == "1";
}

bool CheckRealPath(const std::string& path) {
    if (path.empty()) {
        ORV_LOG(ORV_EVENT, "Input path is empty");
        return false;
    }
    if (path.size() > kMaxPathLength - 1) {
        ORV_LOG(ORV_EVENT, "Input path must less than [%d]", static_cast<int>(kMaxPathLength));
        return false;
    }
    char resolved[kMaxPathLength] = {0};
    if (realpath(path.c_str(), resolved) == nullptr) {
        ORV_LOG(ORV_EVENT, "Format to realpath failed, inputPath is [%s]", path.c_str());
        return false;
    }
    std::string real(resolved);
    if (real.back() != '/') {
        real += '/';
    }
    if (real.compare(0, path.size(), path) != 0) {
        ORV_LOG(ORV_EVENT, "Invalid path [%s], should be [%s]", path.c_str(), real.c_str());
        return false;
    }
    return true;
}

bool CheckValidatePath(const std::string& path) {
    return ValidateStr(path, "^[0-9a-zA-Z\\/\\_\\.\\-]+$");
}

int32_t PackSystem(const char* command) {
    if (command == nullptr) {
        return -1;
    }
    // The shell is waited for as the one child it is: the daemon's SIGCHLD
    // disposition stays as it is, so calls on several threads cannot undo
    // each other's, and no other child of the daemon is left unreaped.
    int32_t result = RunChild({"/bin/sh", "-c", command});
    ORV_LOG(ORV_INFO, "[OrvDaemon] PackSystem cmd: [%s], result: [%d]", command, result);
    return result;
}

std::string SafeStrerror() {
    int saved = errno;
    char buffer[kStrerrorBufferSize] = {0};
    std::string text = strerror_r(saved, buffer, sizeof(buffer));
    errno = saved;
    return text;
}

bool IsShortage(int err) {
    switch (err) {
        case EMFILE:
        case ENFILE:
        case ENOMEM:
        case ENOBUFS:
        case EAGAIN:
        case ENOSPC:
        case EDQUOT:
            return true;
        default:
            return false;
    }
}

}  // namespace orv
