#ifndef TALMEM_INTERFACE_TALMEMPOOLTHREAD_H
#define TALMEM_INTERFACE_TALMEMPOOLTHREAD_H

// The service object behind the public entries: owns the pool manager,
// serialises every call into it with mImplLock on the caller's own thread,
// and runs a looper thread for delayed work (clearing all pools, updating
// the pools to the learnt peak) and for the idle memory summary.
//
// Lock order: TalMemPool::memPoolLock, then mImplLock, then mTimeOutLock.
// The looper thread takes mTimeOutLock alone (idle summary) and mImplLock
// alone (delayed work).

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include <utils/Looper.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>
#include <utils/Thread.h>
#include <utils/Timers.h>

#include "talmem/TalMemPool.h"
#include "talmem/qva_ibuf.h"

namespace qv {

namespace os {
// The library's thread base: an android::Thread with nothing added.
class Thread : public android::Thread {
public:
    explicit Thread(bool canCallJava) : android::Thread(canCallJava) {}
};
} // namespace os

class TalMemPoolImpl;

class TalMemPoolThread : public os::Thread {
public:
    // Messages understood by the handler.
    static constexpr int kMsgClearAll = 0;
    static constexpr int kMsgPoolUpdate = 1;
    // Idle time after which one memory summary is logged.
    static constexpr int kIdleSummaryMs = 3000;

    class MemHandler : public android::MessageHandler {
    public:
        explicit MemHandler(TalMemPoolThread* owner) : mOwner(owner) {}
        ~MemHandler() override = default;
        void handleMessage(const android::Message& message) override;

    private:
        TalMemPoolThread* mOwner; // not owning; the service outlives its handler
    };

    TalMemPoolThread();
    ~TalMemPoolThread() override;

    // Creates the pool manager and initialises it (on the caller's thread).
    // -1 when it cannot be created; otherwise the pool initialisation result.
    int32_t PoolInit();

    // Forwarders: each takes mImplLock and calls the pool manager; a missing
    // pool manager logs "memPoolImpl invalid" and yields the failure value.
    void* Alloc(uint32_t size, const std::string& name, const void* owner,
                const std::string& algoName, int32_t allocateType);
    void* Alloc(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                const std::string& name, const void* owner, const std::string& algoName,
                int32_t allocateType);
    void* Alloc(const MallocInfo& info, const std::string& name);
    void Free(void* vaddr);
    const qva_ibuf* GetIBuf(const void* vaddr);
    void PreAllocPool(const MallocInfo& info, const std::string& name, uint32_t blockNum);
    void ReleasePool(const MallocInfo& info);
    // mode 1: post kMsgClearAll after delayMs; other modes clear now. 0 or -1.
    int32_t ClearAll(int32_t mode, int32_t delayMs);
    // Clears all pools now; the handler of kMsgClearAll and the destructor.
    int32_t ClearAllSync();
    void CameraClose();
    void OnSos();
    void OnFrame();
    void OnEos();
    void UpdatePPState(int32_t ppType, int32_t state);
    void ClearPPState(int32_t ppType);
    int32_t PoolInitTest(const std::string& name, uint32_t count);
    int32_t PoolUpdate(const std::list<std::string>& algos, const TalMemResolution& res,
                       int32_t async, int32_t delayMs);
    // Applies the peak size stored by the latest PoolUpdate.
    int32_t PoolUpdateSync();
    void RegisterAllocatorRef(int32_t ref, const std::string& name);
    void UnregisterAllocatorRef(int32_t ref, const std::string& name);
    int32_t GetMemDumpInfo(int32_t type);
    int32_t MemPoolIoctl(int32_t cmd, const void* arg);
    int32_t MemPoolCtrl(int32_t cmd, const void* in, void* out);

    // Re-arms the idle summary: resets the idle count and wakes the looper.
    void ForceCheck();
    // Logs free, total and proportional memory and bumps the idle count.
    void DumpMemInfo();
    // Asks the looper thread to stop and wakes it so that it sees the request.
    void RequestExit();
    // True once the looper thread has made its looper and handler; until then
    // delayed work and PoolUpdate fail. Tools that drive the library wait for
    // it after NewPool, as a camera provider's slower start does on a device.
    bool LooperReady();

private:
    friend struct TalMemPoolThreadTestPeer; // tests read the state under mImplLock

    android::status_t readyToRun() override;
    bool threadLoop() override;
    // One timed wait of the looper towards the idle summary; true once
    // kIdleSummaryMs have passed without activity.
    bool WaitForIdle(const android::sp<android::Looper>& looper);
    // Whole milliseconds of idleness still missing; 0 when the time is up.
    int IdleMsLeftLocked() const;
    // Logs "memPoolImpl invalid" on behalf of `func` when there is no pool manager.
    bool ImplValidLocked(const char* func) const;
    // Takes mImplLock and runs `op` on the pool manager; CameraClose and the
    // stream events are this one step with a different operation.
    void Forward(const char* func, void (TalMemPoolImpl::*op)());
    // Posts kMsgClearAll after delayMs; fails while the looper or the handler
    // is missing. Called with mImplLock held.
    int32_t ClearAllAsync(int32_t delayMs);
    int32_t PostLocked(int what, int32_t delayMs);

    uint32_t mPeakSize = 0;
    android::Mutex mImplLock;
    // Written under mTimeOutLock; the looper reads it without the lock to pick
    // its wait (a stale value only changes one wait), so it is atomic.
    std::atomic<int32_t> mTimeOutCount{0};
    android::Mutex mTimeOutLock;
    // Guarded by mTimeOutLock: the time of the last activity, and whether the
    // looper is inside its timed wait (it then measures the idle time from
    // mLastActivity when the wait ends, so activity needs no wake-up).
    nsecs_t mLastActivity = 0;
    bool mInTimedWait = false;
    TalMemPoolImpl* memPoolImpl = nullptr;
    android::sp<android::Looper> m_spMemLooper;
    android::sp<MemHandler> memHandler;
};

} // namespace qv

#endif // TALMEM_INTERFACE_TALMEMPOOLTHREAD_H
