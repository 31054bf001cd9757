// Bounds-checked memory and string functions of the card platform.
//
// Each takes the size of the destination (`destMax`) and refuses, with an
// error result, any operation that would write past it; none ever writes
// beyond `destMax` bytes.
#ifndef ORV_SDK_BOUNDS_CHECKED_H
#define ORV_SDK_BOUNDS_CHECKED_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef ORV_ERRNO_T_DEFINED
#define ORV_ERRNO_T_DEFINED
typedef int errno_t;
#endif

#define EOK 0
// Results of the memory functions besides EOK (values as <errno.h> numbers them).
#define BOUNDS_EINVAL 22    // null destination or source, or destMax out of range
#define BOUNDS_ERANGE 34    // count larger than destMax; the destination was zero-filled
#define BOUNDS_EOVERLAP 54  // source and destination overlap; the destination was zero-filled

// Largest destMax any function accepts (a larger one is taken as a bad argument).
#define BOUNDS_MAX_LEN (0x7fffffffUL)

// Copies `count` bytes; the areas must not overlap.
errno_t memcpy_s(void* dest, size_t destMax, const void* src, size_t count);

// Fills `count` bytes with `c`.
errno_t memset_s(void* dest, size_t destMax, int c, size_t count);

// Formats into `strDest`, always NUL-terminating on success. Returns the number
// of characters written (without the NUL), or -1 when the result does not fit
// into destMax - 1 characters or the arguments are bad; on -1 the destination
// holds the empty string (when it could be touched at all).
int sprintf_s(char* strDest, size_t destMax, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Formats at most `count` characters into `strDest` (count < destMax). Returns
// the number written, or -1 when the formatted text is longer than `count` or
// the arguments are bad; on -1 the destination holds the empty string.
int vsnprintf_s(char* strDest, size_t destMax, size_t count, const char* format, va_list argList)
    __attribute__((format(printf, 4, 0)));

#ifdef __cplusplus
}
#endif

#endif  // ORV_SDK_BOUNDS_CHECKED_H
