// Bounds-checked string and memory functions, with the platform library's
// results: 0 on success, non-zero on error; snprintf_s -1 on truncation.

#include "securec.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {
constexpr size_t kSecureMaxLen = 0x7FFFFFFFu;
}

extern "C" errno_t memset_s(void* dest, size_t destMax, int c, size_t count)
{
    if (dest == nullptr || destMax == 0 || destMax > kSecureMaxLen) {
        return EINVAL;
    }
    if (count > destMax) {
        // Like the platform library: fill what fits, report the overflow.
        memset(dest, c, destMax);
        return ERANGE;
    }
    memset(dest, c, count);
    return 0;
}

extern "C" int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
{
    if (dest == nullptr || format == nullptr || destMax == 0 || destMax > kSecureMaxLen) {
        return -1;
    }
    va_list args;
    va_start(args, format);
    int written = vsnprintf(dest, destMax, format, args);
    va_end(args);
    if (written < 0) {
        dest[0] = '\0';
        return -1;
    }
    size_t limit = count < destMax - 1 ? count : destMax - 1;
    if (static_cast<size_t>(written) > limit) {
        // Truncated: keep the first `limit` characters, report failure.
        dest[limit] = '\0';
        return -1;
    }
    return written;
}

extern "C" errno_t strncpy_s(char* dest, size_t destMax, const char* src, size_t count)
{
    if (dest == nullptr || destMax == 0 || destMax > kSecureMaxLen) {
        return EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return EINVAL;
    }
    size_t len = strnlen(src, count);
    if (len >= destMax) {
        dest[0] = '\0';
        return ERANGE;
    }
    memcpy(dest, src, len);
    dest[len] = '\0';
    return 0;
}

extern "C" int sscanf_s(const char* buffer, const char* format, ...)
{
    if (buffer == nullptr || format == nullptr) {
        return -1;
    }
    va_list args;
    va_start(args, format);
    int result = vsscanf(buffer, format, args);
    va_end(args);
    return result;
}
