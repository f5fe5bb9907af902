#ifndef TALMEM_TOOLS_SIM_LOGTAP_H
#define TALMEM_TOOLS_SIM_LOGTAP_H

// Receives every log line of the library (through __android_log_set_logger):
// writes it to talmem.log in logcat's threadtime form, optionally echoes it,
// and reads the library's own lines for what the public entries do not
// return: which path served an allocation, and which pools were created,
// resized and released.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>

namespace talsim {

// How one allocation was served, from the pool manager's own debug line.
enum class Path { kNone, kPool, kPreviewReuse, kPreallocated, kDirect };
const char* PathName(Path path);

// What the lines logged on the calling thread during one entry call said.
struct CallLines {
    Path path = Path::kNone;
    int poolId = 0;
    bool directChunkLine = false; // a direct chunk was made (by size, geometry or info)
};

struct PoolEvents {
    uint64_t created = 0;
    uint64_t resized = 0;
    uint64_t released = 0;
    uint64_t shortages = 0;
};

class LogTap {
public:
    // Opens `logPath` (truncating it) and becomes the library's logger.
    LogTap(const std::string& logPath, bool echo);
    ~LogTap();
    LogTap(const LogTap&) = delete;
    LogTap& operator=(const LogTap&) = delete;

    bool ok() const { return mFile != nullptr; }
    // Every line logged off the simulator's workers (the library's looper)
    // waits this long before it is read, as behind a slow log consumer.
    // Tests use it to prove that no figure depends on when those lines come.
    void SetOffWorkerDelay(std::chrono::milliseconds delay) { mOffWorkerDelay = delay; }

    // The lines of the current thread go to `lines` until EndCall.
    static void BeginCall(CallLines* lines);
    static void EndCall();
    // Marks the current thread as a simulator worker (its clears are its own).
    static void MarkWorker();

    // Pool sizes by pool id as the library logged their creation, less the
    // released ones.
    std::map<int, uint64_t> Pools();
    PoolEvents Events();
    // The service was destroyed: its pools went with it, without a line.
    void ServiceGone();
    uint64_t ErrorLines();
    // Services fully taken down: the pool manager's monitor logs its
    // destructor as the last step of a service's destruction.
    uint64_t ServicesDestroyed();

    // Entry point of the logger (public for the C callback).
    void OnLine(int priority, const char* tag, const char* message);

private:
    void ReadPoolLine(const std::string& text);

    std::mutex mLock;
    FILE* mFile = nullptr;
    bool mEcho = false;
    std::chrono::milliseconds mOffWorkerDelay{0};
    std::map<int, uint64_t> mPools;
    PoolEvents mEvents;
    int mLastCreateId = 0;
    bool mResizing = false;
    uint64_t mErrors = 0;
    uint64_t mDestroyed = 0;
};

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_LOGTAP_H
