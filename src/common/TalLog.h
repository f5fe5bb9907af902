#ifndef TALMEM_COMMON_TALLOG_H
#define TALMEM_COMMON_TALLOG_H

#include <android/log.h>

#include <cstdint>

namespace qv {

// Base name of a source path, computed at compile time where possible, so
// log lines carry "TalMemChunk.cpp" rather than the build's full path.
constexpr const char* TalFileBase(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') {
            base = p + 1;
        }
    }
    return base;
}

// Every address or device address that reaches a log line goes through this:
// only the low 24 bits are ever printed. The result suits "%lx".
inline unsigned long TalMaskAddr(uintptr_t addr)
{
    return static_cast<unsigned long>(addr & 0xFFFFFFu);
}
inline unsigned long TalMaskAddr(const void* addr)
{
    return TalMaskAddr(reinterpret_cast<uintptr_t>(addr));
}
inline unsigned long long TalMaskIova(uint64_t iova)
{
    return static_cast<unsigned long long>(iova & 0xFFFFFFu);
}

constexpr const char* kTalLogTag = "ZoEIS";

} // namespace qv

// The source file that log lines name: the file that logs, unless it set
// TAL_LOG_SOURCE before its first include. A class split over several files
// by concern logs under its own source file name, as a device log shows it:
//     #define TAL_LOG_SOURCE "TalMemPoolMonitor.cpp"
#ifndef TAL_LOG_SOURCE
#define TAL_LOG_SOURCE ::qv::TalFileBase(__FILE__)
#endif

// One macro family for the whole library: "[LEVEL  ] file:line func() message".
// The _FOR forms name another function in the prefix: shared helpers use them
// to report on behalf of the public method that called them.
#define TAL_LOG_FUNC_AT(func, prio, label, fmt, ...)                                        \
    __android_log_print((prio), ::qv::kTalLogTag, "[" label "] %s:%d %s() " fmt,            \
                        TAL_LOG_SOURCE, __LINE__, (func), ##__VA_ARGS__)

#define TAL_LOGE_FOR(func, fmt, ...) TAL_LOG_FUNC_AT(func, ANDROID_LOG_ERROR, "ERROR  ", fmt, ##__VA_ARGS__)
#define TAL_LOGW_FOR(func, fmt, ...) TAL_LOG_FUNC_AT(func, ANDROID_LOG_WARN, "WARN   ", fmt, ##__VA_ARGS__)
#define TAL_LOGI_FOR(func, fmt, ...) TAL_LOG_FUNC_AT(func, ANDROID_LOG_INFO, "INFO   ", fmt, ##__VA_ARGS__)
#define TAL_LOGD_FOR(func, fmt, ...) TAL_LOG_FUNC_AT(func, ANDROID_LOG_DEBUG, "DEBUG  ", fmt, ##__VA_ARGS__)

#define TAL_LOGE(fmt, ...) TAL_LOGE_FOR(__func__, fmt, ##__VA_ARGS__)
#define TAL_LOGW(fmt, ...) TAL_LOGW_FOR(__func__, fmt, ##__VA_ARGS__)
#define TAL_LOGI(fmt, ...) TAL_LOGI_FOR(__func__, fmt, ##__VA_ARGS__)
#define TAL_LOGD(fmt, ...) TAL_LOGD_FOR(__func__, fmt, ##__VA_ARGS__)

// A few messages of the system are logged without the usual prefix.
#define TAL_LOGE_RAW(fmt, ...) \
    __android_log_print(ANDROID_LOG_ERROR, ::qv::kTalLogTag, fmt, ##__VA_ARGS__)

#endif // TALMEM_COMMON_TALLOG_H
