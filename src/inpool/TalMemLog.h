#ifndef TALMEM_INPOOL_TALMEMLOG_H
#define TALMEM_INPOOL_TALMEMLOG_H

// Logging on behalf of an operation: the shared helpers of the in-pool
// allocator report with the name of the operation that called them in the
// line's prefix, as if the operation had logged the line itself.

#include "common/TalLog.h"

#define TAL_INPOOL_LOG_AS(prio, label, op, fmt, ...)                                  \
    __android_log_print((prio), ::qv::kTalLogTag, "[" label "] %s:%d %s() " fmt,      \
                        ::qv::TalFileBase(__FILE__), __LINE__, (op), ##__VA_ARGS__)

#define TAL_LOGE_AS(op, fmt, ...) TAL_INPOOL_LOG_AS(ANDROID_LOG_ERROR, "ERROR  ", op, fmt, ##__VA_ARGS__)
#define TAL_LOGD_AS(op, fmt, ...) TAL_INPOOL_LOG_AS(ANDROID_LOG_DEBUG, "DEBUG  ", op, fmt, ##__VA_ARGS__)

#endif // TALMEM_INPOOL_TALMEMLOG_H
