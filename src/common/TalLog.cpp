#include "common/TalLog.h"

#include <cstdarg>
#include <cstdio>

namespace qv {

void TalLogForFunc(int prio, const char* label, const char* file, int line, const char* func,
                   const char* fmt, ...)
{
    char message[1024];
    va_list args;
    va_start(args, fmt);
    vsnprintf(message, sizeof(message), fmt, args);
    va_end(args);
    __android_log_print(prio, kTalLogTag, "[%s] %s:%d %s() %s", label, TalFileBase(file), line,
                        func, message);
}

} // namespace qv
