// The simulator's logger (see LogTap.h).

#include "LogTap.h"

#include <android/log.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <thread>

namespace talsim {

namespace {

LogTap* gTap = nullptr; // the one tap installed; the logger callback has no context
thread_local CallLines* tCall = nullptr;
thread_local bool tWorker = false;

void TapLogger(const struct __android_logger_data* data, const char* message)
{
    if (gTap != nullptr && data != nullptr) {
        gTap->OnLine(data->priority, data->tag, message);
    }
}

char PriorityLetter(int priority)
{
    static const char kLetters[] = "??VDIWEF";
    return (priority >= 0 && priority < 8) ? kLetters[priority] : '?';
}

bool Has(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

int NumberAfter(const std::string& text, const char* key)
{
    const size_t at = text.find(key);
    return at == std::string::npos ? 0 : atoi(text.c_str() + at + strlen(key));
}

unsigned long long SizeAfter(const std::string& text, const char* key)
{
    const size_t at = text.find(key);
    return at == std::string::npos ? 0 : strtoull(text.c_str() + at + strlen(key), nullptr, 10);
}

// Which allocation path a pool manager line reports, if any.
void ReadCallLine(const std::string& text, CallLines* call)
{
    if (Has(text, "QvCamMem PoolAlloc, type ")) {
        call->path = Path::kPool;
        call->poolId = NumberAfter(text, "(poolId:");
    } else if (Has(text, "QvCamMem PrevAlloc, prevAllNeed ")) {
        call->path = Path::kPreviewReuse;
    } else if (Has(text, "QvCamMem SysAlloc, ")) {
        call->path = Path::kDirect;
        call->directChunkLine = true;
    }
}

} // namespace

const char* PathName(Path path)
{
    switch (path) {
    case Path::kPool: return "pool";
    case Path::kPreviewReuse: return "preview_reuse";
    case Path::kPreallocated: return "preallocated";
    case Path::kDirect: return "direct";
    default: return "failed";
    }
}

LogTap::LogTap(const std::string& logPath, bool echo) : mEcho(echo)
{
    mFile = fopen(logPath.c_str(), "we");
    gTap = this;
    __android_log_set_logger(TapLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

LogTap::~LogTap()
{
    __android_log_set_logger(__android_log_stderr_logger);
    gTap = nullptr;
    if (mFile != nullptr) {
        fclose(mFile);
    }
}

void LogTap::BeginCall(CallLines* lines) { tCall = lines; }
void LogTap::EndCall() { tCall = nullptr; }
void LogTap::MarkWorker() { tWorker = true; }

void LogTap::OnLine(int priority, const char* tag, const char* message)
{
    if (!tWorker && mOffWorkerDelay.count() > 0) {
        std::this_thread::sleep_for(mOffWorkerDelay);
    }
    std::string text = message != nullptr ? message : "";
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm parts;
    localtime_r(&now.tv_sec, &parts);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &parts);
    char line[64];
    snprintf(line, sizeof(line), "%s.%03d %5d %5d %c ", stamp, static_cast<int>(now.tv_usec / 1000),
             getpid(), gettid(), PriorityLetter(priority));
    char tagText[32];
    snprintf(tagText, sizeof(tagText), "%-8s: ", tag != nullptr ? tag : "");
    const std::string full = std::string(line) + tagText + text + "\n";
    if (tCall != nullptr) {
        ReadCallLine(text, tCall);
    }
    std::lock_guard<std::mutex> l(mLock);
    if (priority >= ANDROID_LOG_ERROR) {
        ++mErrors;
    }
    if (mFile != nullptr) {
        fputs(full.c_str(), mFile);
    }
    if (mEcho) {
        fputs(full.c_str(), stderr);
    }
    ReadPoolLine(text);
}

// Pool set changes, in the order the pool manager logs them under its lock.
void LogTap::ReadPoolLine(const std::string& text)
{
    if (Has(text, "QvCamMem enter PoolCreate poolId:")) {
        mLastCreateId = NumberAfter(text, "poolId:");
    } else if (Has(text, "QvCamMem exit PoolCreateImpl, size ")) {
        mPools[NumberAfter(text, "poolId ")] = SizeAfter(text, "size ");
        if (!mResizing) {
            ++mEvents.created;
        }
        mResizing = false;
    } else if (Has(text, " release multiPool")) {
        mPools.erase(mLastCreateId);
        if (NumberAfter(text, "release:") == 0) {
            ++mEvents.resized; // released to be created again at another size
            mResizing = true;
        } else {
            ++mEvents.released;
        }
    } else if (Has(text, "QvCamMem PoolDestroyImpl, release poolId ")) {
        mPools.erase(NumberAfter(text, "release poolId "));
        ++mEvents.released;
    } else if (Has(text, "QvCamMem free poolId(")) {
        mPools.erase(NumberAfter(text, "poolId("));
        ++mEvents.released;
    } else if (Has(text, "exit SetShortageSize, shortageSize:")) {
        ++mEvents.shortages;
    } else if (Has(text, "PoolCreateImpl Failed!") || Has(text, "invalid poolSize(")) {
        mResizing = false;
    }
    if (Has(text, "enter ~TalMemPoolMonitor()")) {
        ++mDestroyed;
    }
}

std::map<int, uint64_t> LogTap::Pools()
{
    std::lock_guard<std::mutex> l(mLock);
    return mPools;
}

PoolEvents LogTap::Events()
{
    std::lock_guard<std::mutex> l(mLock);
    return mEvents;
}

uint64_t LogTap::ServicesDestroyed()
{
    std::lock_guard<std::mutex> l(mLock);
    return mDestroyed;
}

uint64_t LogTap::ErrorLines()
{
    std::lock_guard<std::mutex> l(mLock);
    return mErrors;
}

void LogTap::ServiceGone()
{
    std::lock_guard<std::mutex> l(mLock);
    mEvents.released += mPools.size();
    mPools.clear();
}

} // namespace talsim
