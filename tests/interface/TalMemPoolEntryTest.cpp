// The public entries: missing-service behaviour of every entry, reference
// counting of NewPool/DeletePool, bad input at the entry level, and the
// forwarding of names and results.

#include "TalTestSupport.h"

#include <functional>

#include "chunk/TalMemChunk.h"
#include "interface/TalMemPoolThread.h"
#include "pool/TalMemPoolImpl.h"
#include "talmem/TalMemPool.h"

using qv::MallocInfo;
using qv::TalMemPool;
using qv::TalMemResolution;
using talmem_test::LogCapture;
using talmem_test::TalTest;

namespace {

constexpr uint32_t kFormatYuv420 = 35;

std::string NotCreated(const std::string& entry)
{
    return "QvCamMem " + entry + " ERROR! poolThread is not create!\n";
}

class TalMemPoolEntryTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        ASSERT_EQ(TalMemPool::poolThread, nullptr) << "because every test leaves no service";
        ASSERT_EQ(TalMemPool::reference, 0);
    }
    void TearDown() override
    {
        while (TalMemPool::reference > 0) {
            TalMemPool::DeletePool();
        }
        TalMemPool::reference = 0; // undo a deliberately unmatched DeletePool
        EXPECT_EQ(TalMemPool::poolThread, nullptr);
        TalTest::TearDown();
    }
    static qv::TalMemPoolImpl* Impl() { return TalMemPool::poolThread->GetImplForTest(); }
};

TEST_F(TalMemPoolEntryTest, EveryEntry_WithoutService_LogsItsNameAndReturnsItsFailureValue)
{
    MallocInfo info{64, 64, kFormatYuv420, 0};
    TalMemResolution res{1, 1, 1, 1};
    int dummy = 0;
    struct Row {
        const char* entry;
        std::function<long long()> call; // the entry's result widened, 0 for none
        long long failure;
    };
    const Row rows[] = {
        {"Malloc", [] { return (long long)(intptr_t)TalMemPool::Malloc(4096, "m", nullptr, "a", 0); }, 0},
        {"Malloc", [] { return (long long)(intptr_t)TalMemPool::Malloc(8, 8, 35, 0, "m", nullptr, "a", 0); }, 0},
        {"Malloc", [&] { return (long long)(TalMemPool::Malloc(info, "a") != nullptr); }, 0},
        {"Free", [&] { TalMemPool::Free(&dummy, "m", nullptr); return 0LL; }, 0},
        {"GetIBuf", [&] { return (long long)(intptr_t)TalMemPool::GetIBuf(&dummy); }, 0},
        {"PreAllocPool", [&] { TalMemPool::PreAllocPool(info, "a", 0); return 0LL; }, 0},
        {"ReleasePool", [&] { TalMemPool::ReleasePool(info); return 0LL; }, 0},
        {"ClearAll", [] { return (long long)TalMemPool::ClearAll(0, 0); }, -1},
        {"CameraClose", [] { TalMemPool::CameraClose(); return 0LL; }, 0},
        {"OnSos", [] { TalMemPool::OnSos(); return 0LL; }, 0},
        {"OnFrame", [] { TalMemPool::OnFrame(); return 0LL; }, 0},
        {"OnEos", [] { TalMemPool::OnEos(); return 0LL; }, 0},
        {"UpdatePPState", [] { TalMemPool::UpdatePPState(0, 1); return 0LL; }, 0},
        {"ClearPPState", [] { TalMemPool::ClearPPState(0); return 0LL; }, 0},
        {"PoolInitTest", [] { return (long long)TalMemPool::PoolInitTest("t", 4096); }, -1},
        {"PoolUpdate", [&] { return (long long)TalMemPool::PoolUpdate({"a"}, res, 0, 0); }, -1},
        {"RegisterAllocatorRef", [] { TalMemPool::RegisterAllocatorRef(0, "m"); return 0LL; }, 0},
        {"UnregisterAllocatorRef", [] { TalMemPool::UnregisterAllocatorRef(0, "m"); return 0LL; }, 0},
        {"GetMemDumpInfo", [] { return (long long)TalMemPool::GetMemDumpInfo(0); }, 0},
        {"MemPoolIoctl", [] { return (long long)TalMemPool::MemPoolIoctl(2, nullptr); }, -1},
        {"MemPoolControl", [] { return (long long)TalMemPool::MemPoolControl(1, nullptr, nullptr); }, -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.entry);
        LogCapture::Clear();
        EXPECT_EQ(row.call(), row.failure);
        auto lines = LogCapture::Lines();
        ASSERT_EQ(lines.size(), 1u) << LogCapture::Dump();
        EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
        EXPECT_EQ(lines[0].message, NotCreated(row.entry));
    }
}

TEST_F(TalMemPoolEntryTest, NewPoolTwice_FirstDeleteKeepsServiceSecondStopsAndClearsIt)
{
    TalMemPool::NewPool();
    android::sp<qv::TalMemPoolThread> service = TalMemPool::poolThread;
    ASSERT_NE(service, nullptr);
    TalMemPool::NewPool();
    EXPECT_EQ(TalMemPool::reference, 2);
    EXPECT_EQ(TalMemPool::poolThread, service) << "because later calls only count";

    TalMemPool::DeletePool();
    EXPECT_EQ(TalMemPool::reference, 1);
    ASSERT_NE(TalMemPool::poolThread, nullptr);
    void* p = TalMemPool::Malloc(4096, "m", nullptr, "a", 0);
    EXPECT_NE(p, nullptr);
    TalMemPool::Free(p, "m", nullptr);

    TalMemPool::DeletePool();
    EXPECT_EQ(TalMemPool::reference, 0);
    EXPECT_EQ(TalMemPool::poolThread, nullptr);
    EXPECT_FALSE(service->isRunning()) << "because the looper thread was joined";
    LogCapture::Clear();
    service.clear(); // the test held the last reference: the service goes now
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem enter ClearAll\n"))
        << "because destroying the service clears all pools first";
}

TEST_F(TalMemPoolEntryTest, DeletePoolWithoutNewPool_LeavesMinusOneAndNextNewPoolCreatesNothing)
{
    TalMemPool::DeletePool();
    EXPECT_EQ(TalMemPool::reference, -1);
    TalMemPool::NewPool();
    EXPECT_EQ(TalMemPool::reference, 0);
    EXPECT_EQ(TalMemPool::poolThread, nullptr);
    LogCapture::Clear();
    EXPECT_EQ(TalMemPool::Malloc(4096, "m", nullptr, "a", 0), nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, NotCreated("Malloc")));
}

TEST_F(TalMemPoolEntryTest, NullAddresses_AreRejectedAtTheEntry)
{
    TalMemPool::NewPool();
    LogCapture::Clear();
    TalMemPool::Free(nullptr, "m", nullptr);
    EXPECT_EQ(TalMemPool::GetIBuf(nullptr), nullptr);
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 2u) << LogCapture::Dump();
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[0].message, "QvCamMem Free, vaddr=0x0 return\n");
    EXPECT_EQ(lines[1].message, "QvCamMem GetIBuf, vaddr=0x0 return\n");
}

TEST_F(TalMemPoolEntryTest, NullNames_BecomeUnknown)
{
    TalMemPool::NewPool();
    void* bySize = TalMemPool::Malloc(4096, nullptr, nullptr, nullptr, 0);
    void* byGeometry = TalMemPool::Malloc(64, 64, kFormatYuv420, 0, nullptr, nullptr, nullptr, 2);
    ASSERT_NE(bySize, nullptr);
    ASSERT_NE(byGeometry, nullptr);
    for (void* p : {bySize, byGeometry}) {
        qv::TalMemChunk* chunk = Impl()->sysMcMap.at(p);
        EXPECT_EQ(chunk->GetModuleName(), "unknown");
        EXPECT_EQ(chunk->GetAlgoName(), "unknown");
        TalMemPool::Free(p, nullptr, nullptr);
    }
    LogCapture::Clear();
    TalMemPool::RegisterAllocatorRef(0, nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG,
                       "QvCamMem in RegisterAllocatorRef(), allocatorRef[Capture]=1, unknown +\n"))
        << LogCapture::Dump();
    TalMemPool::UnregisterAllocatorRef(0, nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG,
                       "QvCamMem in UnregisterAllocatorRef(), allocatorRef[Capture]=0, unknown -\n"));
}

TEST_F(TalMemPoolEntryTest, PreAllocPool_ZeroBlocksLogsAndOthersAllocateEachBlock)
{
    TalMemPool::NewPool();
    MallocInfo info{320, 240, kFormatYuv420, 0};
    LogCapture::Clear();
    TalMemPool::PreAllocPool(info, "algo", 0);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem PreAllocPool ERROR! blockNum is zero!\n"));
    EXPECT_TRUE(Impl()->preAllocPoolMcMap.empty());
    TalMemPool::PreAllocPool(info, "algo", 3);
    EXPECT_EQ(Impl()->preAllocPoolMcMap.size(), 3u);

    std::shared_ptr<QvCamera::ICameraBuffer> buf = TalMemPool::Malloc(info, "algo");
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(Impl()->preAllocPoolMcMap.size(), 3u) << "because a preallocated one was reused";
    TalMemPool::ReleasePool(info);
    EXPECT_EQ(Impl()->preAllocPoolMcMap.size(), 1u) << "because the one in use stays";
    TalMemPool::Free(buf->GetCpuAddr(), "algo", nullptr);
    EXPECT_TRUE(Impl()->preAllocPoolMcMap.empty());
}

TEST_F(TalMemPoolEntryTest, ControlEntries_FoldResultsAsDocumented)
{
    TalMemPool::NewPool();
    LogCapture::Clear();
    EXPECT_EQ(TalMemPool::MemPoolIoctl(99, nullptr), 0)
        << "because the ioctl reports 0 even when the command is rejected";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "unsupport cmd: 99 0x0\n"));
    EXPECT_EQ(TalMemPool::MemPoolControl(99, nullptr, nullptr), -1);
    EXPECT_EQ(TalMemPool::GetMemDumpInfo(2), 0) << "because type 2 has no dump block";
    EXPECT_EQ(TalMemPool::PoolInitTest(nullptr, 4096), -1)
        << "because no test pool can be made yet";
}

TEST_F(TalMemPoolEntryTest, StreamAndPostProcessingEvents_ReachThePoolManager)
{
    TalMemPool::NewPool();
    TalMemPool::OnSos();
    EXPECT_EQ(Impl()->streamState, 1u);
    TalMemPool::OnFrame();
    EXPECT_EQ(Impl()->streamState, 2u);
    TalMemPool::OnEos();
    EXPECT_EQ(Impl()->streamState, 3u);
    TalMemPool::UpdatePPState(1, 4);
    EXPECT_EQ(Impl()->ppState[1], 4u);
    TalMemPool::ClearPPState(3);
    EXPECT_EQ(Impl()->ppState[1], 0u) << "because types 1 and 3 are cleared together";
    TalMemPool::CameraClose();
    EXPECT_TRUE(Impl()->needClearPools);
}

} // namespace
