// Emulated bounds-checked functions. A destination that is too small is an
// error result; nothing is ever written past destMax.
#include <bounds_checked.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

bool DestUsable(const void* dest, size_t destMax) {
    return dest != nullptr && destMax > 0 && destMax <= BOUNDS_MAX_LEN;
}

bool Overlap(const void* a, const void* b, size_t count) {
    auto pa = reinterpret_cast<uintptr_t>(a);
    auto pb = reinterpret_cast<uintptr_t>(b);
    return (pa < pb && pa + count > pb) || (pb < pa && pb + count > pa) || (pa == pb && count > 0);
}

}  // namespace

extern "C" {

errno_t memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (!DestUsable(dest, destMax)) {
        return BOUNDS_EINVAL;
    }
    if (src == nullptr) {
        std::memset(dest, 0, destMax);
        return BOUNDS_EINVAL;
    }
    if (count > destMax) {
        std::memset(dest, 0, destMax);
        return BOUNDS_ERANGE;
    }
    if (Overlap(dest, src, count)) {
        std::memset(dest, 0, destMax);
        return BOUNDS_EOVERLAP;
    }
    if (count > 0) {
        std::memcpy(dest, src, count);
    }
    return EOK;
}

errno_t memset_s(void* dest, size_t destMax, int c, size_t count) {
    if (!DestUsable(dest, destMax)) {
        return BOUNDS_EINVAL;
    }
    if (count > destMax) {
        std::memset(dest, c, destMax);
        return BOUNDS_ERANGE;
    }
    std::memset(dest, c, count);
    return EOK;
}

int vsnprintf_s(char* strDest, size_t destMax, size_t count, const char* format, va_list argList) {
    if (!DestUsable(strDest, destMax)) {
        return -1;
    }
    if (format == nullptr) {
        strDest[0] = '\0';
        return -1;
    }
    size_t limit = count < destMax ? count : destMax - 1;
    int n = std::vsnprintf(strDest, limit + 1, format, argList);
    if (n < 0 || static_cast<size_t>(n) > limit) {
        strDest[0] = '\0';
        return -1;
    }
    return n;
}

int sprintf_s(char* strDest, size_t destMax, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int n = vsnprintf_s(strDest, destMax, destMax - 1, format, args);
    va_end(args);
    return n;
}

}  // extern "C"
