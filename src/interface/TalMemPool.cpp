#include "talmem/TalMemPool.h"
#include "talmem/TalMemControl.h"

#include <chrono>
#include <new>
#include <thread>

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"
#include "interface/TalMemPoolThread.h"
#include "interface/TalMemRecorder.h"
#include "talmem_platform.h"

namespace qv {

android::sp<TalMemPoolThread> TalMemPool::poolThread;
android::Mutex TalMemPool::memPoolLock;
int32_t TalMemPool::reference = 0;

namespace {

const std::string kUnknownName = "unknown";

inline std::string NameOrUnknown(const char* name)
{
    return name != nullptr ? std::string(name) : kUnknownName;
}

// How long DeletePool waits for the looper thread to drop its own reference.
constexpr auto kReleaseWait = std::chrono::seconds(5);
constexpr auto kReleasePoll = std::chrono::microseconds(200);

// android::Thread's loop keeps a strong reference to the thread object until
// its start routine returns, a moment after join() has woken. Waiting until
// `holder` is the only owner left makes clearing it run the destructor here,
// on the caller's thread. False when another owner outlasts the wait.
bool WaitUntilSoleOwner(const android::sp<TalMemPoolThread>& holder)
{
    auto end = std::chrono::steady_clock::now() + kReleaseWait;
    while (holder->getStrongCount() > 1) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(kReleasePoll);
    }
    return true;
}

} // namespace

// Every entry but NewPool and DeletePool starts like this (Free and GetIBuf
// after refusing a null address): without a service it logs with the entry's
// own name and returns its failure value.
#define TAL_REQUIRE_SERVICE(failValue)                                          \
    do {                                                                        \
        if (poolThread == nullptr) {                                            \
            TAL_LOGE("QvCamMem %s ERROR! poolThread is not create!\n", __func__); \
            return failValue;                                                   \
        }                                                                       \
    } while (0)

void TalMemPool::NewPool()
{
    TalMemRecorder::StartIfAsked(); // before the call's own line, so that NewPool is recorded
    TalRecCall rec("NewPool", "");
    android::AutoMutex _l(memPoolLock);
    if (reference != 0) {
        // Also after an unmatched DeletePool: the count climbs back without a
        // new service, as designed.
        ++reference;
        return;
    }
    if (poolThread != nullptr) {
        reference = 1;
        return;
    }
    poolThread = new (std::nothrow) TalMemPoolThread();
    if (poolThread == nullptr) {
        TAL_LOGE("QvCamMem %s ERROR! poolThread create fail!\n", __func__);
        return;
    }
    if (poolThread->PoolInit() != 0) {
        TAL_LOGW("PoolInit Failed!\n");
    }
    poolThread->run("TalMemPoolThread", 0, 0);
    ++reference;
}

void TalMemPool::DeletePool()
{
    TalRecCall rec("DeletePool", "");
    android::AutoMutex _l(memPoolLock);
    --reference;
    if (reference == 0 && poolThread != nullptr) {
        poolThread->RequestExit();
        poolThread->join();
        if (!WaitUntilSoleOwner(poolThread)) {
            TAL_LOGW("QvCamMem %s service still referenced, destroyed by its last owner\n",
                     __func__);
        }
        poolThread.clear(); // the last strong reference: the service is destroyed
    }
}

void* TalMemPool::Malloc(uint32_t size, const char* name, const void* owner,
                         const char* algoName, int32_t allocateType)
{
    TalRecCall rec("Malloc", "null");
    if (rec.On()) {
        rec.Arg("size", size);
        rec.Arg("name", TalMemRecorder::Text(name));
        rec.Hint(owner);
        rec.Arg("algo", TalMemRecorder::Text(algoName));
        rec.Arg("type", allocateType);
    }
    TAL_REQUIRE_SERVICE(nullptr);
    void* addr = poolThread->Alloc(size, NameOrUnknown(name), owner, NameOrUnknown(algoName),
                                   allocateType);
    if (rec.On()) {
        rec.Result(TalMemRecorder::NewId(addr));
    }
    return addr;
}

void* TalMemPool::Malloc(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                         const char* name, const void* owner, const char* algoName,
                         int32_t allocateType)
{
    TalRecCall rec("MallocGeo", "null");
    if (rec.On()) {
        rec.Info(MallocInfo{width, height, format, usage});
        rec.Arg("name", TalMemRecorder::Text(name));
        rec.Arg("algo", TalMemRecorder::Text(algoName));
        rec.Arg("type", allocateType);
    }
    TAL_REQUIRE_SERVICE(nullptr);
    void* addr = poolThread->Alloc(width, height, format, usage, NameOrUnknown(name), owner,
                                   NameOrUnknown(algoName), allocateType);
    if (rec.On()) {
        rec.Result(TalMemRecorder::NewId(addr));
    }
    return addr;
}

std::shared_ptr<QvCamera::ICameraBuffer> TalMemPool::Malloc(const MallocInfo& info,
                                                            std::string name)
{
    TalRecCall rec("MallocInfo", "null");
    if (rec.On()) {
        rec.Info(info);
        rec.Arg("name", TalMemRecorder::Text(name));
    }
    TAL_REQUIRE_SERVICE(nullptr);
    void* addr = poolThread->Alloc(info, name);
    if (addr == nullptr) {
        return nullptr;
    }
    const qva_ibuf* ibuf = poolThread->GetIBuf(addr);
    if (ibuf == nullptr || ibuf->priv == nullptr) {
        poolThread->Free(addr);
        return nullptr;
    }
    if (rec.On()) {
        rec.Result(TalMemRecorder::NewId(addr));
    }
    // One more owner of the chunk's camera buffer for the caller.
    return static_cast<const MemChunkInfo*>(ibuf->priv)->buffer;
}

void TalMemPool::Free(void* vaddr, const char* name, const void* owner)
{
    TalRecCall rec("Free", "");
    if (rec.On()) {
        rec.Arg("id", TalMemRecorder::DropId(vaddr));
        rec.Arg("name", TalMemRecorder::Text(name));
    }
    if (vaddr == nullptr) {
        TAL_LOGE("QvCamMem %s, vaddr=0x%lx return\n", __func__, 0ul);
        return;
    }
    TAL_REQUIRE_SERVICE();
    poolThread->Free(vaddr);
}

const qva_ibuf* TalMemPool::GetIBuf(const void* vaddr)
{
    TalRecCall rec("GetIBuf", "null");
    if (rec.On()) {
        rec.Arg("id", TalMemRecorder::IdOf(vaddr));
    }
    if (vaddr == nullptr) {
        TAL_LOGE("QvCamMem %s, vaddr=0x%lx return\n", __func__, 0ul);
        return nullptr;
    }
    TAL_REQUIRE_SERVICE(nullptr);
    const qva_ibuf* ibuf = poolThread->GetIBuf(vaddr);
    if (rec.On() && ibuf != nullptr) {
        rec.Result("ok");
    }
    return ibuf;
}

void TalMemPool::PreAllocPool(const MallocInfo& info, std::string name, uint32_t blockNum)
{
    TalRecCall rec("PreAllocPool", "");
    if (rec.On()) {
        rec.Info(info);
        rec.Arg("name", TalMemRecorder::Text(name));
        rec.Arg("blocks", blockNum);
    }
    TAL_REQUIRE_SERVICE();
    if (blockNum == 0) {
        TAL_LOGE("QvCamMem %s ERROR! blockNum is zero!\n", __func__);
        return;
    }
    poolThread->PreAllocPool(info, name, blockNum);
}

void TalMemPool::ReleasePool(const MallocInfo& info)
{
    TalRecCall rec("ReleasePool", "");
    if (rec.On()) {
        rec.Info(info);
    }
    TAL_REQUIRE_SERVICE();
    poolThread->ReleasePool(info);
}

int32_t TalMemPool::ClearAll(int32_t mode, int32_t delayMs)
{
    TalRecCall rec("ClearAll", "-1");
    if (rec.On()) {
        rec.Arg("mode", mode);
        rec.Arg("delay", delayMs);
    }
    TAL_REQUIRE_SERVICE(-1);
    if (poolThread->ClearAll(mode, delayMs) != 0) {
        return -1;
    }
    // In delayed mode this runs when the message is posted, before the clear.
    TalPurgeHeap();
    rec.Result(0);
    return 0;
}

void TalMemPool::CameraClose()
{
    TalRecCall rec("CameraClose", "");
    TAL_REQUIRE_SERVICE();
    poolThread->CameraClose();
}

void TalMemPool::OnSos()
{
    TalRecCall rec("OnSos", "");
    TAL_REQUIRE_SERVICE();
    poolThread->OnSos();
}

void TalMemPool::OnFrame()
{
    TalRecCall rec("OnFrame", "");
    TAL_REQUIRE_SERVICE();
    poolThread->OnFrame();
}

void TalMemPool::OnEos()
{
    TalRecCall rec("OnEos", "");
    TAL_REQUIRE_SERVICE();
    poolThread->OnEos();
}

void TalMemPool::UpdatePPState(int32_t ppType, int32_t state)
{
    TalRecCall rec("UpdatePPState", "");
    if (rec.On()) {
        rec.Arg("pp", ppType);
        rec.Arg("state", state);
    }
    TAL_REQUIRE_SERVICE();
    poolThread->UpdatePPState(ppType, state);
}

void TalMemPool::ClearPPState(int32_t ppType)
{
    TalRecCall rec("ClearPPState", "");
    if (rec.On()) {
        rec.Arg("pp", ppType);
    }
    TAL_REQUIRE_SERVICE();
    poolThread->ClearPPState(ppType);
}

int32_t TalMemPool::PoolInitTest(const char* name, uint32_t count)
{
    TalRecCall rec("PoolInitTest", "-1");
    if (rec.On()) {
        rec.Arg("name", TalMemRecorder::Text(name));
        rec.Arg("size", count);
    }
    TAL_REQUIRE_SERVICE(-1);
    const int32_t result = poolThread->PoolInitTest(NameOrUnknown(name), count) != 0 ? -1 : 0;
    rec.Result(result);
    return result;
}

int32_t TalMemPool::PoolUpdate(const std::list<std::string>& algos, const TalMemResolution& res,
                               int32_t async, int32_t delayMs)
{
    TalRecCall rec("PoolUpdate", "-1");
    if (rec.On()) {
        std::string names;
        for (const std::string& algo : algos) {
            names += (names.empty() ? "" : ",") + TalMemRecorder::Text(algo);
        }
        rec.Arg("algos", names.empty() ? std::string("-") : names);
        rec.Arg("res", std::to_string(res.width) + "x" + std::to_string(res.height) + "," +
                           std::to_string(res.ppWidth) + "x" + std::to_string(res.ppHeight));
        rec.Arg("async", async);
        rec.Arg("delay", delayMs);
    }
    TAL_REQUIRE_SERVICE(-1);
    const int32_t result = poolThread->PoolUpdate(algos, res, async, delayMs) != 0 ? -1 : 0;
    rec.Result(result);
    return result;
}

void TalMemPool::RegisterAllocatorRef(int32_t ref, const char* name)
{
    TalRecCall rec("RegisterAllocatorRef", "");
    if (rec.On()) {
        rec.Arg("type", ref);
        rec.Arg("name", TalMemRecorder::Text(name));
    }
    TAL_REQUIRE_SERVICE();
    poolThread->RegisterAllocatorRef(ref, NameOrUnknown(name));
}

void TalMemPool::UnregisterAllocatorRef(int32_t ref, const char* name)
{
    TalRecCall rec("UnregisterAllocatorRef", "");
    if (rec.On()) {
        rec.Arg("type", ref);
        rec.Arg("name", TalMemRecorder::Text(name));
    }
    TAL_REQUIRE_SERVICE();
    poolThread->UnregisterAllocatorRef(ref, NameOrUnknown(name));
}

int32_t TalMemPool::GetMemDumpInfo(int32_t type)
{
    TalRecCall rec("GetMemDumpInfo", "0");
    if (rec.On()) {
        rec.Arg("type", type);
    }
    TAL_REQUIRE_SERVICE(0);
    const int32_t result = poolThread->GetMemDumpInfo(type);
    // The value is the low half of a block address on a 64-bit host: only
    // whether it is null is worth keeping.
    rec.Result(result == 0 ? "0" : "nonzero");
    return result;
}

int32_t TalMemPool::MemPoolIoctl(int32_t cmd, const void* arg)
{
    TalRecCall rec("MemPoolIoctl", "-1");
    if (rec.On()) {
        rec.Arg("cmd", cmd);
        if (cmd == 3) {
            rec.Arg("video", arg == nullptr ? std::string("~")
                                            : std::to_string(*static_cast<const int32_t*>(arg)));
        }
    }
    TAL_REQUIRE_SERVICE(-1);
    const int32_t result = poolThread->MemPoolIoctl(cmd, arg);
    rec.Result(result);
    return result;
}

int32_t TalMemPool::MemPoolControl(int32_t cmd, const void* in, void* out)
{
    TalRecCall rec("MemPoolControl", "-1");
    if (rec.On()) {
        rec.Arg("cmd", cmd);
        if ((cmd == 2 || cmd == 3) && in != nullptr) {
            // Cache commands: the range as the allocation id of its start, if
            // the start is one, and the size.
            const TalCacheRange* range = static_cast<const TalCacheRange*>(in);
            rec.Arg("id", TalMemRecorder::IdOf(reinterpret_cast<const void*>(range->address)));
            rec.Arg("size", range->size);
        }
    }
    TAL_REQUIRE_SERVICE(-1);
    const int32_t result = poolThread->MemPoolCtrl(cmd, in, out) != 0 ? -1 : 0;
    rec.Result(result);
    return result;
}

} // namespace qv
