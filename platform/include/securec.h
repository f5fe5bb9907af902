#ifndef TALMEM_PLATFORM_SECUREC_H
#define TALMEM_PLATFORM_SECUREC_H

// Bounds-checked string and memory functions of the platform. Each returns
// 0 on success and non-zero on error, except snprintf_s, which returns the
// number of characters written, or -1 on truncation or error.

#include <cstddef>

extern "C" {
typedef int errno_t;

// Fills `count` bytes of dest with c. Fails with EINVAL (nothing written) for
// a null dest or a zero destMax; when count exceeds destMax it fills destMax
// bytes and fails with ERANGE.
errno_t memset_s(void* dest, size_t destMax, int c, size_t count);

// Formats at most `count` characters (and a terminator) into dest of
// destMax bytes; -1 when the output would not fit or the arguments are bad.
int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Copies at most `count` characters of src and a terminator; fails when the
// result does not fit in destMax bytes. On failure dest holds "".
errno_t strncpy_s(char* dest, size_t destMax, const char* src, size_t count);

// sscanf with the same conversions for the numeric formats used here.
int sscanf_s(const char* buffer, const char* format, ...);
}

#endif // TALMEM_PLATFORM_SECUREC_H
