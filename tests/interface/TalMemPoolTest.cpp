// The public entries and their service: missing service or pool manager, reference counting,
// bad input, direct buffers end to end, delayed work on the looper thread, the idle summary.

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <regex>
#include <thread>

#include "CameraBufferInterface.h"
#include "ServiceCounters.h"
#include "TalTestSupport.h"
#include "common/TalLog.h"
#include "interface/TalMemPoolThread.h"
#include "pool/TalMemPoolImpl.h"
#include "talmem/TalMemPool.h"


using qv::TalMemPool;
using qv::TalMemPoolThread;
using Peer = qv::TalMemPoolThreadTestPeer;
using namespace talmem_test;

namespace {

using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
constexpr uint32_t kMiB = 1024 * 1024;
const std::string kClearDone = "QvCamMem  ClearAll free all pool success\n";

// Every captured line as "<priority> <message without prefix>", in order.
Lines Captured()
{
    Lines out;
    for (const LogLine& line : LogCapture::Lines()) {
        out.push_back(std::to_string(line.priority) + " " + line.message);
    }
    return out;
}
std::string Err(const std::string& message) { return "6 " + message; }
std::string Invalid(const std::string& method) { return "QvCamMem " + method + " memPoolImpl invalid\n"; }

// True once `done` holds; false after 20 s (generous for qemu and sanitizers).
bool WaitFor(const std::function<bool()>& done)
{
    auto end = Clock::now() + std::chrono::seconds(20);
    while (!done() && Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

// A second mapping of the share fd sees the bytes of the CPU address and back.
void CheckSharedMemory(const qva_ibuf* ibuf)
{
    uint32_t size = ibuf->getSize(ibuf);
    auto* cpu = static_cast<uint8_t*>(ibuf->getAddr(ibuf));
    for (uint32_t i = 0; i < size; i += 61) {
        cpu[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    EXPECT_EQ(ibuf->flushCache(ibuf), 1);
    auto* view = static_cast<uint8_t*>(
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, ibuf->getShareFD(ibuf), 0));
    ASSERT_NE(view, MAP_FAILED) << strerror(errno);
    EXPECT_TRUE(view != cpu && memcmp(view, cpu, size) == 0) << "because a second mapping sees the same bytes";
    view[size - 1] = 0xA5;
    EXPECT_EQ(ibuf->invalidateCache(ibuf), 1);
    EXPECT_EQ(cpu[size - 1], 0xA5);
    EXPECT_EQ(munmap(view, size), 0);
}

bool FdClosed(int fd) { return fcntl(fd, F_GETFD) == -1 && errno == EBADF; }

class TalMemPoolTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        heldBefore = QvCamera::CameraBufferInterface::GetHeldBytes();
    }
    void TearDown() override
    {
        while (TalMemPool::reference > 0) {
            TalMemPool::DeletePool();
        }
        TalMemPool::reference = 0; // undo a deliberately unmatched DeletePool
        EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), heldBefore)
            << "because the last DeletePool destroys the service and every buffer with it";
        TalTest::TearDown();
    }

    uint64_t heldBefore = 0;
};

TEST_F(TalMemPoolTest, EveryEntry_WithoutServiceOrPoolManager_LogsAndReturnsItsFailureValue)
{
    qv::MallocInfo info{64, 64, 35, 0};
    // serviceLine: logged by a service without pool manager ("" for none); call: the result widened.
    struct Row { const char* entry; std::string serviceLine; std::function<long long()> call; long long failure; };
    const Row rows[] = {
        {"Malloc", Invalid("Alloc"), [] { return (long long)TalMemPool::Malloc(4096, "m", nullptr, "a", 0); }, 0},
        {"Malloc", Invalid("Alloc"), [] { return (long long)TalMemPool::Malloc(8, 8, 35, 0, "m", nullptr, "a", 0); }, 0},
        {"Malloc", Invalid("Alloc"), [&] { return (long long)(TalMemPool::Malloc(info, "a") != nullptr); }, 0},
        {"Free", Invalid("Free"), [&] { TalMemPool::Free(&info, "m", nullptr); return 0LL; }, 0},
        {"GetIBuf", Invalid("GetIBuf"), [&] { return (long long)TalMemPool::GetIBuf(&info); }, 0},
        {"PreAllocPool", Invalid("PreAllocPool"), [&] { TalMemPool::PreAllocPool(info, "a", 2); return 0LL; }, 0},
        {"ReleasePool", Invalid("ReleasePool"), [&] { TalMemPool::ReleasePool(info); return 0LL; }, 0},
        {"ClearAll", "", [] { return (long long)TalMemPool::ClearAll(0, 0); }, -1},
        {"CameraClose", Invalid("CameraClose"), [] { TalMemPool::CameraClose(); return 0LL; }, 0},
        {"OnSos", Invalid("OnSos"), [] { TalMemPool::OnSos(); return 0LL; }, 0},
        {"OnFrame", Invalid("OnFrame"), [] { TalMemPool::OnFrame(); return 0LL; }, 0},
        {"OnEos", Invalid("OnEos"), [] { TalMemPool::OnEos(); return 0LL; }, 0},
        {"UpdatePPState", Invalid("UpdatePPState"), [] { TalMemPool::UpdatePPState(0, 1); return 0LL; }, 0},
        {"ClearPPState", Invalid("ClearPPState"), [] { TalMemPool::ClearPPState(0); return 0LL; }, 0},
        {"PoolInitTest", Invalid("PoolInitTest"), [] { return (long long)TalMemPool::PoolInitTest("t", 4096); }, -1},
        {"PoolUpdate", "QvCamMem enter PoolUpdate m_spMemLooper is not set\n",
         [] { return (long long)TalMemPool::PoolUpdate({"a"}, {1, 1, 1, 1}, 0, 0); }, -1},
        {"RegisterAllocatorRef", Invalid("RegisterAllocatorRef"), [] { TalMemPool::RegisterAllocatorRef(0, "m"); return 0LL; }, 0},
        {"UnregisterAllocatorRef", Invalid("UnregisterAllocatorRef"), [] { TalMemPool::UnregisterAllocatorRef(0, "m"); return 0LL; }, 0},
        {"GetMemDumpInfo", Invalid("GetMemDumpInfo"), [] { return (long long)TalMemPool::GetMemDumpInfo(0); }, 0},
        {"MemPoolIoctl", Invalid("MemPoolIoctl"), [] { return (long long)TalMemPool::MemPoolIoctl(2, nullptr); }, -1},
        {"MemPoolControl", Invalid("MemPoolCtrl"), [] { return (long long)TalMemPool::MemPoolControl(1, nullptr, nullptr); }, -1},
    };
    // Never initialised nor started: it has neither pool manager nor looper.
    android::sp<qv::TalMemPoolThread> bare = new qv::TalMemPoolThread();
    for (bool withService : {false, true}) {
        TalMemPool::poolThread = withService ? bare : nullptr;
        for (const Row& row : rows) {
            SCOPED_TRACE(std::string(row.entry) + (withService ? " without pool manager" : ""));
            LogCapture::Clear();
            EXPECT_EQ(row.call(), row.failure);
            std::string line = withService ? row.serviceLine : "QvCamMem " + std::string(row.entry) + " ERROR! poolThread is not create!\n";
            EXPECT_EQ(Captured(), line.empty() ? Lines{} : Lines{Err(line)});
        }
    }
    LogCapture::Clear(); // null addresses are refused by the entry before the service is asked
    TalMemPool::Free(nullptr, "m", nullptr);
    EXPECT_EQ(TalMemPool::GetIBuf(nullptr), nullptr);
    EXPECT_EQ(bare->ClearAllSync(), -1) << "because the handler's work needs the pool manager too";
    EXPECT_EQ(bare->PoolUpdateSync(), -1);
    EXPECT_EQ(Captured(), (Lines{Err("QvCamMem Free, vaddr=0x0 return\n"), Err("QvCamMem GetIBuf, vaddr=0x0 return\n"),
                                 Err(Invalid("ClearAllSync")), Err(Invalid("PoolUpdateSync"))}));
    ASSERT_EQ(bare->PoolInit(), 0); // now a pool manager, but still no looper for delayed work
    LogCapture::Clear();
    EXPECT_EQ(bare->ClearAll(1, 10), -1);
    EXPECT_EQ(Captured(), Lines{Err("QvCamMem enter ClearAllAsync memLooper is not set\n")});
    TalMemPool::NewPool();
    EXPECT_TRUE(TalMemPool::reference == 1 && TalMemPool::poolThread == bare) << "because a service already set is only counted";
    bare.clear();
    TalMemPool::DeletePool();
}

TEST_F(TalMemPoolTest, ReferenceCount_LastDeleteStopsAndDestroysTheServiceAndAnUnmatchedOneIsNotUndone)
{
    TalMemPool::NewPool();
    TalMemPoolThread* service = TalMemPool::poolThread.get();
    ASSERT_NE(service, nullptr);
    android::wp<TalMemPoolThread> weak(service);
    TalMemPool::NewPool();
    TalMemPool::DeletePool();
    EXPECT_EQ(TalMemPool::reference, 1);
    EXPECT_TRUE(TalMemPool::poolThread == service && service->isRunning()) << "because only the last DeletePool stops it";

    LogCapture::Clear();
    TalMemPool::DeletePool();
    EXPECT_EQ(TalMemPool::poolThread, nullptr);
    EXPECT_EQ(weak.promote(), nullptr) << "because the service is destroyed before DeletePool returns";
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_INFO, "QvCamMem enter ClearAll\n"), 1) << "because destroying it clears all pools";
    TalMemPool::DeletePool(); // unmatched: the count goes below 0
    EXPECT_EQ(TalMemPool::reference, -1);
    TalMemPool::NewPool();
    EXPECT_EQ(TalMemPool::reference, 0) << "because the count only climbs back";
    EXPECT_EQ(TalMemPool::poolThread, nullptr) << "because no service is created below 1";
}

// The looper thread holds the service for a moment after join() wakes; the last DeletePool must
// still destroy it, and release every pool chunk, before it returns, whatever the timing.
TEST_F(TalMemPoolTest, LastDeletePool_AfterManyCycles_AlwaysReturnsWithTheServiceDestroyedAndNoByteHeld)
{
    constexpr int kCycles = 60;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        SCOPED_TRACE(cycle);
        TalMemPool::NewPool();
        ASSERT_NE(TalMemPool::poolThread, nullptr);
        ASSERT_TRUE(WaitFor([] { return Peer::LooperReady(*TalMemPool::poolThread); }));
        if (cycle % 2 == 0) {
            ASSERT_EQ(TalMemPool::PoolInitTest("cycle", 2 * kMiB + 100), 0);
        } else { // a learnt peak above 20 MiB makes the base pool
            Peer::WithImpl(*TalMemPool::poolThread, [](qv::TalMemPoolImpl& impl) {
                return impl.algoPeakMap = {{"algo", {{"default", 24 * kMiB}}}};
            });
            ASSERT_EQ(TalMemPool::PoolUpdate({"algo"}, {4000, 3000, 1, 1}, 0, 0), 0);
        }
        void* carved = TalMemPool::Malloc(64 * 1024, "node", nullptr, "algo", 0);
        ASSERT_NE(carved, nullptr);
        EXPECT_NE(QvCamera::CameraBufferInterface::GetHeldBytes(), heldBefore) << "because a pool was made";
        LogCapture::Clear();
        TalMemPool::DeletePool(); // the carved buffer is left for the destructor to release
        EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), heldBefore)
            << "because every pool chunk is released before DeletePool returns";
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_INFO, "enter ~TalMemPoolMonitor()\n"), 1)
            << "because the destructor ran on the caller's thread";
        EXPECT_EQ(LogCapture::CountContaining("service still referenced"), 0);
    }
}

TEST_F(TalMemPoolTest, BadInput_IsRefusedOrRenamedWithItsMessage_AndPreAllocAndControlCallThePoolManager)
{
    TalMemPool::NewPool();
    LogCapture::Clear();
    EXPECT_EQ(TalMemPool::Malloc(0, "m", nullptr, "a", 0), nullptr);
    EXPECT_EQ(TalMemPool::Malloc(0xFFFFFFFFu, "m", nullptr, "a", 0), nullptr);
    EXPECT_EQ(TalMemPool::Malloc(65536, 65536, 35, 0, "m", nullptr, "a", 0), nullptr) << "because w x h wraps to 0";
    EXPECT_EQ(LogCapture::CountContaining("ERROR! can not alloc size(0) maxMemSize("), 1);
    EXPECT_EQ(LogCapture::CountContaining("ERROR! can not alloc size(4294967295) maxMemSize("), 1);
    EXPECT_EQ(LogCapture::CountContaining("ERROR! can not alloc w(65536) h(65536) maxMemSize("), 1);

    void* bySize = TalMemPool::Malloc(4096, nullptr, nullptr, nullptr, 0);
    void* byGeometry = TalMemPool::Malloc(64, 64, 35, 0, nullptr, nullptr, nullptr, 2);
    EXPECT_EQ(LogCapture::CountContaining("type 0 unknown(modul: unknown) apva"), 1) << "because null names are \"unknown\"";
    EXPECT_EQ(LogCapture::CountContaining("type 2 unknown(modul: unknown) apva"), 1);
    TalMemPool::RegisterAllocatorRef(0, nullptr);
    EXPECT_EQ(LogCapture::CountContaining("allocatorRef[Capture]=1, unknown +\n"), 1);

    TalMemPool::Free(byGeometry, "m", nullptr);
    TalMemPool::Free(bySize, "m", nullptr);
    LogCapture::Clear();
    TalMemPool::Free(bySize, "m", nullptr);
    char at[16];
    snprintf(at, sizeof at, "0x%lx \n", qv::TalMaskAddr(bySize));
    EXPECT_EQ(Captured(), Lines{"3 QvCamMem Free, addr " + std::string(at)}) << "because a second Free finds nothing";

    LogCapture::Clear();
    TalMemPool::PreAllocPool({320, 240, 35, 0}, "algo", 0);
    EXPECT_EQ(Captured(), Lines{Err("QvCamMem PreAllocPool ERROR! blockNum is zero!\n")});
    TalMemPool::PreAllocPool({320, 240, 35, 0}, "algo", 3);
    EXPECT_EQ(LogCapture::CountContaining("QvCamMem SysAlloc, (modul: "), 3) << "because each block is one";
    LogCapture::Clear();
    EXPECT_EQ(TalMemPool::MemPoolIoctl(99, nullptr), 0) << "because a rejected command still reports 0";
    EXPECT_EQ(Captured(), Lines{Err("unsupport cmd: 99 0x0\n")});
    EXPECT_EQ(TalMemPool::MemPoolControl(99, nullptr, nullptr), -1);
}

// A running service whose looper thread has made its looper, and so its fds:
// a share fd closed later cannot be reused by them.
class TalMemPoolThreadTest : public TalMemPoolTest {
protected:
    void SetUp() override
    {
        TalMemPoolTest::SetUp();
        TalMemPool::NewPool();
        ASSERT_NE(TalMemPool::poolThread, nullptr);
        service = TalMemPool::poolThread.get();
        ASSERT_TRUE(WaitFor([this] { return Peer::LooperReady(*service); }));
        LogCapture::Clear();
    }
    bool NeedClearPools() { return Peer::WithImpl(*service, [](auto& impl) { return impl.needClearPools; }); }

    TalMemPoolThread* service = nullptr;
};

TEST_F(TalMemPoolThreadTest, MallocBySizeGeometryAndInfo_DescriptorAndMemoryWorkEndToEnd)
{
    struct Request { uint32_t size, width, height, stride, slice, bytes; }; // by size when size is not 0
    const Request requests[] = {
        {0x100001, 0, 0, 0x101000, 1, 0x101000},
        {0, 4000, 3000, 4032, 3008, 18194432}, // YUV 4:2:0: 64-pixel stride, 32-row slices
    };
    int32_t previousId = 0;
    for (const Request& r : requests) {
        SCOPED_TRACE(r.size != 0 ? r.size : r.width);
        void* p = r.size != 0 ? TalMemPool::Malloc(r.size, "node", nullptr, "algo", 0)
                              : TalMemPool::Malloc(r.width, r.height, 35, 0, "node", nullptr, "algo", 0);
        ASSERT_NE(p, nullptr);
        const qva_ibuf* ibuf = TalMemPool::GetIBuf(p);
        ASSERT_NE(ibuf, nullptr);
        EXPECT_EQ(ibuf->getAddr(ibuf), p);
        EXPECT_EQ(ibuf->getSize(ibuf), r.bytes);
        EXPECT_EQ(ibuf->getPoolSize(ibuf), r.bytes) << "because a direct chunk is its own base";
        EXPECT_EQ(ibuf->getOffset(ibuf), 0u);
        EXPECT_EQ(ibuf->getStride(ibuf), r.stride);
        EXPECT_EQ(ibuf->getSliceHeight(ibuf), r.slice);
        EXPECT_GT(ibuf->getBufId(ibuf), previousId) << "because buffer ids are unique and rising";
        previousId = ibuf->getBufId(ibuf);
        EXPECT_TRUE(ibuf->getIOVA(ibuf) != 0 && ibuf->getIOVA(ibuf) % 4096 == 0) << ibuf->getIOVA(ibuf);
        EXPECT_NE(ibuf->getDevIOVA(ibuf, BUF_DEV_TYPE_ISP), 0u);
        EXPECT_EQ(ibuf->getDevIOVA(ibuf, BUF_DEV_TYPE_INVALID), 0u);
        EXPECT_TRUE(ibuf->graphicBuf != nullptr && ibuf->getGraphicBuf(ibuf) == ibuf->graphicBuf);
        int fd = ibuf->getShareFD(ibuf);
        CheckSharedMemory(ibuf); // maps fd
        qv::TalCacheRange inside{uintptr_t(p) + 100, 200}, tooLong{uintptr_t(p), r.bytes + 4096};
        EXPECT_EQ(TalMemPool::MemPoolControl(2, &inside, nullptr), 0);
        EXPECT_EQ(TalMemPool::MemPoolControl(3, &tooLong, nullptr), -1);

        TalMemPool::Free(p, "node", nullptr);
        EXPECT_TRUE(FdClosed(fd)) << "because the last owner closed the share fd";
        EXPECT_EQ(TalMemPool::GetIBuf(p), nullptr) << "because the buffer is gone";
    }
    // By MallocInfo the caller shares the camera buffer, which outlives Free.
    std::shared_ptr<QvCamera::ICameraBuffer> buf = TalMemPool::Malloc(qv::MallocInfo{1920, 1080, 35, 0}, "algo");
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(buf.use_count(), 2) << "because the chunk and the caller own it";
    auto* cpu = static_cast<uint8_t*>(buf->GetCpuAddr());
    const qva_ibuf* ibuf = TalMemPool::GetIBuf(cpu);
    ASSERT_NE(ibuf, nullptr);
    EXPECT_EQ(ibuf->graphicBuf, buf.get());
    CheckSharedMemory(ibuf);
    uint32_t last = ibuf->getSize(ibuf) - 1;
    TalMemPool::Free(cpu, "algo", nullptr);
    EXPECT_EQ(buf.use_count(), 1);
    EXPECT_EQ(cpu[last], 0xA5) << "because the caller's reference keeps the memory mapped";
}

TEST_F(TalMemPoolThreadTest, ClearAllAndPoolUpdate_ImmediateRunAtOnceDelayedRunLaterOnTheLooper)
{
    TalMemPool::CameraClose();
    EXPECT_EQ(TalMemPool::ClearAll(0, 100000), 0) << "because mode 0 ignores the delay";
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_INFO, kClearDone), 1);

    TalMemPool::CameraClose();
    auto start = Clock::now();
    EXPECT_EQ(TalMemPool::ClearAll(1, 500), 0);
    ASSERT_TRUE(WaitFor([] { return LogCapture::Count(ANDROID_LOG_INFO, kClearDone) == 2; })) << LogCapture::Dump();
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(490)) << "because the message waits 500 ms";

    // PoolUpdate takes the peak of the resolution at once and updates the pools later.
    Peer::WithImpl(*service, [](qv::TalMemPoolImpl& impl) {
        return impl.algoPeakMap = {{"algoA", {{"4000x3000", 16 * kMiB}, {"1920x1080", 10 * kMiB}}},
                                   {"algoB", {{"default", 12 * kMiB}}}};
    });
    TalMemPool::CameraClose();
    EXPECT_EQ(TalMemPool::PoolUpdate({"algoA", "none"}, {1920, 1080, 1, 1}, 1, 400), 0);
    EXPECT_EQ(Peer::PeakSize(*service), 10 * kMiB) << "because the caller takes the peak of the resolution at once";
    EXPECT_EQ(TalMemPool::PoolUpdate({"algoB"}, {4000, 3000, 1, 1}, 1, 400), 0);
    EXPECT_TRUE(NeedClearPools()) << "because neither delayed update has run yet";
    EXPECT_TRUE(WaitFor([this] { return !NeedClearPools(); }));
    EXPECT_EQ(Peer::PeakSize(*service), 12 * kMiB) << "because the latest peak is kept for both messages";
}

TEST_F(TalMemPoolThreadTest, IdleSummary_IsLoggedOnce3000msAfterTheLastActivity)
{
    TalMemPool::ClearAll(0, 0); // pool work re-arms the summary; the only test of the fixed delay
    auto summaries = [] { return LogCapture::CountContaining("mTimeOutCount="); };
    // Activity every 250 ms for longer than the delay: each call restarts it.
    for (int i = 0; i < 14; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        TalMemPool::ReleasePool(qv::MallocInfo{64, 64, 35, 0});
    }
    EXPECT_EQ(summaries(), 0) << "because the library was never idle for 3000 ms";
    auto start = Clock::now();
    ASSERT_TRUE(WaitFor([&] { return summaries() > 0; })) << LogCapture::Dump();
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(2900)) << "because it needs 3000 ms of idleness";
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    ASSERT_EQ(summaries(), 1) << "because the looper then waits without limit";
    const std::regex summary("4 QvCamMem mempoolcfg DumpMemInfo Free=-?[0-9]+, Total=-?[0-9]+, Pss=-?[0-9]+ mTimeOutCount=1\n");
    EXPECT_TRUE(std::regex_match(Captured().back(), summary)) << LogCapture::Dump();
}

} // namespace
