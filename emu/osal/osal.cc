// Emulated OS abstraction library: plain POSIX underneath.
#include <osal.h>

#include <dlfcn.h>
#include <errno.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "emu/common/process_ids.h"

extern "C" {

int32_t mmSleep(uint32_t milliSecond) {
    timespec remaining{static_cast<time_t>(milliSecond / 1000),
                       static_cast<long>(milliSecond % 1000) * 1000000L};
    while (::nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
    return EN_OK;
}

int32_t mmGetTid(void) {
    return static_cast<int32_t>(orv::emu::CurrentTid());
}

void* mmDlopen(const char* fileName, int32_t mode) {
    if (fileName == nullptr) {
        return nullptr;
    }
    return ::dlopen(fileName, mode);
}

void* mmDlsym(void* handle, const char* funcName) {
    if (handle == nullptr || funcName == nullptr) {
        return nullptr;
    }
    return ::dlsym(handle, funcName);
}

int32_t mmDlclose(void* handle) {
    if (handle == nullptr) {
        return EN_INVALID_PARAM;
    }
    return ::dlclose(handle) == 0 ? EN_OK : EN_ERR;
}

int32_t mmIsDir(const char* fileName) {
    if (fileName == nullptr) {
        return EN_INVALID_PARAM;
    }
    struct stat st {};
    if (::lstat(fileName, &st) != 0) {
        return EN_ERR;
    }
    return S_ISDIR(st.st_mode) ? EN_OK : EN_ERR;
}

}  // extern "C"
