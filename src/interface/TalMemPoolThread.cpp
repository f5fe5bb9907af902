#include "interface/TalMemPoolThread.h"

#include <new>

#include "common/TalLog.h"
#include "monitor/MemUtils.h"
#include "pool/TalMemPoolImpl.h"

namespace qv {

namespace {

constexpr int64_t kNsPerMs = 1000000;

} // namespace

using android::AutoMutex;

TalMemPoolThread::TalMemPoolThread() : os::Thread(false) {}

TalMemPoolThread::~TalMemPoolThread()
{
    ClearAllSync();
    m_spMemLooper.clear();
    memHandler.clear();
    delete memPoolImpl;
    memPoolImpl = nullptr;
}

bool TalMemPoolThread::ImplValidLocked(const char* func) const
{
    if (memPoolImpl != nullptr) {
        return true;
    }
    TAL_LOGE_FOR(func, "QvCamMem %s memPoolImpl invalid\n", func);
    return false;
}

int32_t TalMemPoolThread::PoolInit()
{
    AutoMutex _l(mImplLock);
    TalMemPoolImpl* impl = new (std::nothrow) TalMemPoolImpl();
    if (impl == nullptr) {
        TAL_LOGE("QvCamMem %s memPoolImpl new fail\n", __func__);
        return -1;
    }
    // Kept even when its initialisation fails: the service runs on regardless.
    memPoolImpl = impl;
    return memPoolImpl->PoolInit();
}

void* TalMemPoolThread::Alloc(uint32_t size, const std::string& name, const void* owner,
                              const std::string& algoName, int32_t allocateType)
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return nullptr;
    }
    return reinterpret_cast<void*>(
        memPoolImpl->Alloc(size, name, owner, algoName, allocateType));
}

void* TalMemPoolThread::Alloc(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                              const std::string& name, const void* owner,
                              const std::string& algoName, int32_t allocateType)
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return nullptr;
    }
    return reinterpret_cast<void*>(memPoolImpl->Alloc(width, height, format, usage, name, owner,
                                                      algoName, allocateType));
}

void* TalMemPoolThread::Alloc(const MallocInfo& info, const std::string& name)
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return nullptr;
    }
    return reinterpret_cast<void*>(memPoolImpl->Alloc(info, name));
}

void TalMemPoolThread::Free(void* vaddr)
{
    if (vaddr == nullptr) {
        TAL_LOGI("QvCamMem %s, vaddr=0x%lx return\n", __func__, 0ul);
        return;
    }
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return;
    }
    memPoolImpl->Free(reinterpret_cast<uintptr_t>(vaddr));
    ForceCheck();
}

const qva_ibuf* TalMemPoolThread::GetIBuf(const void* vaddr)
{
    if (vaddr == nullptr) {
        TAL_LOGI("QvCamMem %s, vaddr=0x%lx return\n", __func__, 0ul);
        return nullptr;
    }
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return nullptr;
    }
    return memPoolImpl->GetIBuf(reinterpret_cast<uintptr_t>(vaddr));
}

void TalMemPoolThread::PreAllocPool(const MallocInfo& info, const std::string& name,
                                    uint32_t blockNum)
{
    // One lock for the whole batch, so no other call interleaves.
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return;
    }
    for (uint32_t i = 0; i < blockNum; ++i) {
        memPoolImpl->PreAllocPool(info, name);
    }
}

void TalMemPoolThread::ReleasePool(const MallocInfo& info)
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return;
    }
    memPoolImpl->ReleasePool(info);
    ForceCheck();
}

int32_t TalMemPoolThread::ClearAll(int32_t mode, int32_t delayMs)
{
    AutoMutex _l(mImplLock);
    if (memPoolImpl == nullptr) {
        return -1;
    }
    if (mode == 1) {
        return ClearAllAsync(delayMs);
    }
    int32_t ret = memPoolImpl->ClearAll();
    ForceCheck();
    return ret;
}

int32_t TalMemPoolThread::ClearAllAsync(int32_t delayMs)
{
    if (m_spMemLooper == nullptr) {
        TAL_LOGE("QvCamMem enter %s memLooper is not set\n", __func__);
        return -1;
    }
    if (memHandler == nullptr) {
        TAL_LOGE("QvCamMem enter %s memHandler is not set\n", __func__);
        return -1;
    }
    return PostLocked(kMsgClearAll, delayMs);
}

int32_t TalMemPoolThread::PostLocked(int what, int32_t delayMs)
{
    nsecs_t delayNs = static_cast<nsecs_t>(delayMs) * kNsPerMs; // 64-bit product
    m_spMemLooper->sendMessageDelayed(delayNs, memHandler, android::Message(what));
    return 0;
}

int32_t TalMemPoolThread::ClearAllSync()
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return -1;
    }
    int32_t ret = memPoolImpl->ClearAll();
    ForceCheck();
    return ret;
}

void TalMemPoolThread::Forward(const char* func, void (TalMemPoolImpl::*op)())
{
    AutoMutex _l(mImplLock);
    if (ImplValidLocked(func)) {
        (memPoolImpl->*op)();
    }
}

void TalMemPoolThread::CameraClose()
{
    Forward(__func__, &TalMemPoolImpl::CameraClose);
}

void TalMemPoolThread::OnSos()
{
    Forward(__func__, &TalMemPoolImpl::OnSos);
}

void TalMemPoolThread::OnFrame()
{
    Forward(__func__, &TalMemPoolImpl::OnFrame);
}

void TalMemPoolThread::OnEos()
{
    Forward(__func__, &TalMemPoolImpl::OnEos);
}

void TalMemPoolThread::UpdatePPState(int32_t ppType, int32_t state)
{
    AutoMutex _l(mImplLock);
    if (ImplValidLocked(__func__)) {
        memPoolImpl->UpdatePPState(ppType, state);
    }
}

void TalMemPoolThread::ClearPPState(int32_t ppType)
{
    AutoMutex _l(mImplLock);
    if (ImplValidLocked(__func__)) {
        memPoolImpl->ClearPPState(ppType);
    }
}

int32_t TalMemPoolThread::PoolInitTest(const std::string& name, uint32_t count)
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return -1;
    }
    return memPoolImpl->PoolInitTest(name, count);
}

int32_t TalMemPoolThread::PoolUpdate(const std::list<std::string>& algos,
                                     const TalMemResolution& res, int32_t async, int32_t delayMs)
{
    AutoMutex _l(mImplLock);
    if (m_spMemLooper == nullptr) {
        TAL_LOGE("QvCamMem enter %s m_spMemLooper is not set\n", __func__);
        return -1;
    }
    if (!ImplValidLocked(__func__)) {
        return -1;
    }
    memPoolImpl->SetResolution(res);
    mPeakSize = memPoolImpl->GetMaxPeakSize(algos);
    if (async != 1) {
        return memPoolImpl->PoolUpdate(mPeakSize);
    }
    // The handler reads mPeakSize when it runs: a later PoolUpdate wins.
    return PostLocked(kMsgPoolUpdate, delayMs);
}

int32_t TalMemPoolThread::PoolUpdateSync()
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return -1;
    }
    return memPoolImpl->PoolUpdate(mPeakSize);
}

void TalMemPoolThread::RegisterAllocatorRef(int32_t ref, const std::string& name)
{
    AutoMutex _l(mImplLock);
    if (ImplValidLocked(__func__)) {
        memPoolImpl->RegisterAllocatorRef(ref, name);
    }
}

void TalMemPoolThread::UnregisterAllocatorRef(int32_t ref, const std::string& name)
{
    AutoMutex _l(mImplLock);
    if (ImplValidLocked(__func__)) {
        memPoolImpl->UnregisterAllocatorRef(ref, name);
    }
}

int32_t TalMemPoolThread::GetMemDumpInfo(int32_t type)
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return 0;
    }
    return memPoolImpl->GetMemDumpInfo(type);
}

int32_t TalMemPoolThread::MemPoolIoctl(int32_t cmd, const void* arg)
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return -1;
    }
    memPoolImpl->MemPoolCtrl(cmd, arg); // a rejected command still reports 0
    return 0;
}

int32_t TalMemPoolThread::MemPoolCtrl(int32_t cmd, const void* in, void* out)
{
    AutoMutex _l(mImplLock);
    if (!ImplValidLocked(__func__)) {
        return -1;
    }
    return memPoolImpl->MemPoolCtrl(cmd, in, out);
}

void TalMemPoolThread::ForceCheck()
{
    AutoMutex _l(mTimeOutLock);
    mTimeOutCount = 0;
    mLastActivity = systemTime(SYSTEM_TIME_MONOTONIC);
    // A looper in its timed wait counts the idle time from mLastActivity when
    // the wait ends; waking it for every Free cost a thread switch each time.
    // A looper waiting without limit, or between waits, is woken as before.
    if (!mInTimedWait && m_spMemLooper != nullptr) {
        m_spMemLooper->wake();
    }
}

int TalMemPoolThread::IdleMsLeftLocked() const
{
    const nsecs_t left =
        kIdleSummaryMs * kNsPerMs - (systemTime(SYSTEM_TIME_MONOTONIC) - mLastActivity);
    return left <= 0 ? 0 : static_cast<int>((left + kNsPerMs - 1) / kNsPerMs);
}

bool TalMemPoolThread::WaitForIdle(const android::sp<android::Looper>& looper)
{
    int waitMs = 0;
    {
        AutoMutex _l(mTimeOutLock);
        waitMs = IdleMsLeftLocked();
        if (waitMs == 0) {
            return true;
        }
        mInTimedWait = true;
    }
    const int result = looper->pollOnce(waitMs);
    AutoMutex _l(mTimeOutLock);
    mInTimedWait = false;
    if (result != android::Looper::POLL_TIMEOUT) {
        // A message or a wake-up restarts the idle time.
        mLastActivity = systemTime(SYSTEM_TIME_MONOTONIC);
    }
    return false;
}

void TalMemPoolThread::DumpMemInfo()
{
    // The probes have their own lock; no lock of ours is held while they run.
    int freeKb = static_cast<int>(MemUtils::getFreeMemorySize());
    int totalKb = MemUtils::getTotalMemory();
    int pssKb = MemUtils::countPss();
    AutoMutex _l(mTimeOutLock);
    int32_t count = ++mTimeOutCount;
    TAL_LOGI("QvCamMem mempoolcfg %s Free=%d, Total=%d, Pss=%d mTimeOutCount=%d\n", __func__,
             freeKb, totalKb, pssKb, count);
}

void TalMemPoolThread::RequestExit()
{
    requestExit();
    AutoMutex _l(mImplLock);
    if (m_spMemLooper != nullptr) {
        m_spMemLooper->wake();
    }
}

bool TalMemPoolThread::LooperReady()
{
    AutoMutex _l(mImplLock);
    return m_spMemLooper != nullptr && memHandler != nullptr;
}

android::status_t TalMemPoolThread::readyToRun()
{
    android::sp<android::Looper> looper = android::Looper::prepare(0);
    MemHandler* handler = new (std::nothrow) MemHandler(this);
    if (handler == nullptr) {
        TAL_LOGE("QvCamMem %s memHandler new fail\n", __func__);
    }
    {
        AutoMutex _t(mTimeOutLock);
        mLastActivity = systemTime(SYSTEM_TIME_MONOTONIC); // the idle time starts with the thread
    }
    // Published under mImplLock: the forwarders read both under that lock.
    AutoMutex _l(mImplLock);
    m_spMemLooper = looper;
    memHandler = handler;
    return android::NO_ERROR;
}

bool TalMemPoolThread::threadLoop()
{
    android::sp<android::Looper> looper = android::Looper::getForThread();
    if (looper == nullptr) {
        TAL_LOGE("QvCamMem %s, spLooper == nullptr ERROR!\n", __func__);
        return false;
    }
    while (true) {
        // Read without mTimeOutLock: a stale count only picks the other wait once.
        if (mTimeOutCount.load(std::memory_order_relaxed) > 0) {
            looper->pollOnce(-1);
        } else if (WaitForIdle(looper)) {
            DumpMemInfo();
        }
        if (exitPending()) {
            return false;
        }
    }
}

void TalMemPoolThread::MemHandler::handleMessage(const android::Message& message)
{
    if (mOwner == nullptr) {
        TAL_LOGE("QvCamMem %s object invalid\n", __func__);
        return;
    }
    if (message.what == kMsgPoolUpdate) {
        mOwner->PoolUpdateSync();
    } else if (message.what == kMsgClearAll) {
        mOwner->ClearAllSync();
    }
}

} // namespace qv
