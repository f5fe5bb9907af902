// Failure paths of the library when the camera-buffer service refuses an
// allocation or a split, driven through the public entries with the host
// service's fault switch. Every case ends with the service still serving and,
// after the last DeletePool, no byte held by the camera-buffer service.

#include <unistd.h>

#include <vector>

#include "CameraBufferFaults.h"
#include "CameraBufferInterface.h"
#include "ServiceCounters.h"
#include "SessionSupport.h"

using qv::TalMemPool;
using QvCamera::CameraBufferInterface;
using QvCamera::host::CamFaultCalls;
using QvCamera::host::CamFaultFailAll;
using QvCamera::host::CamFaultFailNth;
using QvCamera::host::CamFaultFailures;
using QvCamera::host::CamFaultOp;
using QvCamera::host::CamFaultReset;
using namespace talmem_test;

namespace {

constexpr uint32_t kPool = 8 * kMiB;
const qv::MallocInfo kImage{1920, 1080, 17, 0x33}; // NV21

class CameraBufferFaultTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        CamFaultReset();
        ASSERT_EQ(TalMemPool::poolThread, nullptr) << "because every test leaves no service";
        heldBefore = CameraBufferInterface::GetHeldBytes();
        WriteFile(DevicePath("/odm/etc/camera/talmempoolcfg.xml"),
                  DeviceConfig(kPool, "mfnrAlgo", 24 * kMiB));
    }
    void TearDown() override
    {
        CamFaultReset();
        while (TalMemPool::reference > 0) {
            TalMemPool::DeletePool();
        }
        TalTest::TearDown();
    }

    // With the switch disarmed, one buffer can be had, written and freed.
    static ::testing::AssertionResult StillServing()
    {
        CamFaultReset();
        void* p = TalMemPool::Malloc(kMiB, "checkNode", nullptr, "checkAlgo", 2);
        if (p == nullptr) {
            return ::testing::AssertionFailure() << "no buffer after the fault\n" << LogCapture::Dump();
        }
        Stamp(p, kMiB, 7);
        bool intact = Intact(p, kMiB, 7);
        TalMemPool::Free(p, "checkNode", nullptr);
        return intact ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "buffer not intact";
    }

    // Checks that nothing is in use, closes the camera, clears and stops the
    // service; the camera-buffer service then holds what it held before.
    void StopAndExpectNothingHeld()
    {
        EXPECT_EQ(CountersInUse(), kNothingInUse) << "because every buffer was freed";
        TalMemPool::ReleasePool(kImage);
        TalMemPool::CameraClose();
        EXPECT_EQ(TalMemPool::ClearAll(0, 0), 0) << LogCapture::Dump();
        EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), heldBefore) << "because the clear released everything idle";
        TalMemPool::DeletePool();
        EXPECT_EQ(TalMemPool::poolThread, nullptr);
        EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), heldBefore)
            << "because every chunk is released when the last DeletePool returns";
    }

    static bool ReportedFailure(uint32_t size, const std::string& algo, int type)
    {
        return LogCapture::CountContaining("QvCamMem ReportMemAllocFail() allocSize(" + std::to_string(size) +
                                           "), sysTotalSizeInKB(") == 1 &&
               LogCapture::CountContaining("algoName(" + algo + "), allocateType(" + std::to_string(type) +
                                           ")\n") == 1;
    }

    uint64_t heldBefore = 0;
};

TEST_F(CameraBufferFaultTest, DirectAllocationFails_ReportsWithMemoryStateAndReturnsNull_NthOnlyFailsOnce)
{
    TalMemPool::NewPool(); // no PoolUpdate: every request is a direct allocation
    CamFaultFailAll(CamFaultOp::kAlloc, true);
    EXPECT_EQ(TalMemPool::Malloc(3 * kMiB, "node", nullptr, "algoF", 0), nullptr);
    EXPECT_TRUE(ReportedFailure(3 * kMiB, "algoF", 0)) << LogCapture::Dump();
    EXPECT_EQ(TalMemPool::Malloc(640, 480, 17, 0, "node", nullptr, "algoG", 2), nullptr);
    EXPECT_EQ(LogCapture::CountContaining("algoName(algoG)"), 0)
        << "because a failed allocation by geometry is not reported to the monitor";
    EXPECT_EQ(TalMemPool::Malloc(kImage, "ppNode"), nullptr);
    TalMemPool::PreAllocPool(kImage, "ppNode", 2);
    EXPECT_EQ(CamFaultFailures(CamFaultOp::kAlloc), 5u) << "because every request reached the service";
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), heldBefore);

    CamFaultFailNth(CamFaultOp::kAlloc, 2);
    void* ok1 = TalMemPool::Malloc(kMiB, "node", nullptr, "algoF", 2);
    void* failed = TalMemPool::Malloc(kMiB, "node", nullptr, "algoF", 2);
    void* ok2 = TalMemPool::Malloc(kMiB, "node", nullptr, "algoF", 2);
    EXPECT_NE(ok1, nullptr);
    EXPECT_EQ(failed, nullptr);
    EXPECT_NE(ok2, nullptr);
    TalMemPool::Free(ok1, "node", nullptr);
    TalMemPool::Free(ok2, "node", nullptr);
    EXPECT_TRUE(StillServing());
    StopAndExpectNothingHeld();
}

TEST_F(CameraBufferFaultTest, PoolChunkCannotBeMade_ReportedAsPoolUpdate_RequestsServedDirectly)
{
    CamFaultFailAll(CamFaultOp::kAlloc, true);
    ASSERT_TRUE(StartAndUpdate({"mfnrAlgo"}));
    EXPECT_TRUE(ReportedFailure(kPool, "PoolUpdate", 3)) << LogCapture::Dump();
    CamFaultReset();

    void* direct = TalMemPool::Malloc(2 * kMiB, "mfnrNode", nullptr, "mfnrAlgo", 0);
    ASSERT_NE(direct, nullptr);
    const qva_ibuf* ibuf = TalMemPool::GetIBuf(direct);
    ASSERT_NE(ibuf, nullptr);
    EXPECT_NE(ibuf->getPoolSize(ibuf), kPool) << "because no pool exists: the request was served directly";
    EXPECT_EQ(CamFaultCalls(CamFaultOp::kAlloc), 1u);

    // The next update makes the pool that the first one could not.
    ASSERT_EQ(TalMemPool::PoolUpdate({"mfnrAlgo"}, kFullHd, 0, 0), 0);
    void* carved = TalMemPool::Malloc(2 * kMiB, "mfnrNode", nullptr, "mfnrAlgo", 0);
    ASSERT_NE(carved, nullptr);
    ibuf = TalMemPool::GetIBuf(carved);
    EXPECT_EQ(ibuf->getPoolSize(ibuf), kPool);
    TalMemPool::Free(direct, "mfnrNode", nullptr);
    TalMemPool::Free(carved, "mfnrNode", nullptr);
    EXPECT_TRUE(StillServing());
    StopAndExpectNothingHeld();
}

TEST_F(CameraBufferFaultTest, SplitFails_CarvedRangeStillServedAndGivenBackOnFree)
{
    ASSERT_TRUE(StartAndUpdate({"mfnrAlgo"}));
    CamFaultFailAll(CamFaultOp::kSplit, true);
    void* first = TalMemPool::Malloc(2 * kMiB, "mfnrNode", nullptr, "mfnrAlgo", 0);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(CamFaultFailures(CamFaultOp::kSplit), 1u) << "because a carved record asks for a split";
    Stamp(first, 2 * kMiB, 3);
    EXPECT_TRUE(Intact(first, 2 * kMiB, 3));
    TalMemPool::Free(first, "mfnrNode", nullptr);
    EXPECT_EQ(TalMemPool::GetIBuf(first), nullptr);

    CamFaultReset();
    void* again = TalMemPool::Malloc(2 * kMiB, "mfnrNode", nullptr, "mfnrAlgo", 0);
    EXPECT_EQ(again, first) << "because the range of the failed split went back to the pool";
    const qva_ibuf* ibuf = TalMemPool::GetIBuf(again);
    ASSERT_NE(ibuf, nullptr);
    EXPECT_EQ(ibuf->getPoolSize(ibuf), kPool);
    TalMemPool::Free(again, "mfnrNode", nullptr);
    EXPECT_TRUE(StillServing());
    StopAndExpectNothingHeld();
}

TEST_F(CameraBufferFaultTest, PreviewReuse_ServiceRefusing_FreeChunkReusedLargerRequestNullIdleChunkReleased)
{
    TalMemPool::NewPool();
    void* prev = TalMemPool::Malloc(2 * kMiB, "prevNode", nullptr, "prevAlgo", 1);
    ASSERT_NE(prev, nullptr);
    TalMemPool::Free(prev, "prevNode", nullptr);
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), heldBefore + 2 * kMiB) << "because it is kept for reuse";

    CamFaultFailAll(CamFaultOp::kAlloc, true);
    void* reused = TalMemPool::Malloc(2 * kMiB, "prevNode", nullptr, "prevAlgo", 1);
    EXPECT_EQ(reused, prev) << "because the free preview chunk fits and needs no new buffer";
    EXPECT_EQ(CamFaultCalls(CamFaultOp::kAlloc), 0u);
    TalMemPool::Free(reused, "prevNode", nullptr);

    EXPECT_EQ(TalMemPool::Malloc(4 * kMiB, "prevNode", nullptr, "prevAlgo", 1), nullptr)
        << "because the free chunk is too small and a new one fails";
    EXPECT_TRUE(ReportedFailure(4 * kMiB, "prevAlgo", 1)) << LogCapture::Dump();
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), heldBefore)
        << "because the idle chunk was given back before the new one was asked for";
    EXPECT_TRUE(StillServing());
    StopAndExpectNothingHeld();
}

// One session that reaches the service in every way the library can: pool
// creation, carving (splits), direct requests by size and geometry,
// MallocInfo and preallocation, preview reuse.
struct SessionOutcome {
    int nulls = 0;
    bool intact = true;
};

SessionOutcome RunSession()
{
    SessionOutcome out;
    std::vector<std::pair<void*, uint32_t>> held;
    auto keep = [&](void* p, uint32_t size) {
        if (p == nullptr) {
            ++out.nulls;
            return;
        }
        Stamp(p, size, static_cast<uint32_t>(held.size()) + 11);
        held.emplace_back(p, size);
    };
    TalMemPool::OnSos();
    keep(TalMemPool::Malloc(3 * kMiB, "mfnrNode", nullptr, "mfnrAlgo", 0), 3 * kMiB);
    keep(TalMemPool::Malloc(kMiB, "mfnrNode", nullptr, "mfnrAlgo", 0), kMiB);
    keep(TalMemPool::Malloc(12 * kMiB, "bigNode", nullptr, "bigAlgo", 0), 12 * kMiB);
    keep(TalMemPool::Malloc(1280, 720, 17, 0, "ppNode", nullptr, "ppAlgo", 2), 1280 * 720);
    keep(TalMemPool::Malloc(2 * kMiB, "prevNode", nullptr, "prevAlgo", 1), 2 * kMiB);
    TalMemPool::PreAllocPool(kImage, "ppNode", 2);
    std::shared_ptr<QvCamera::ICameraBuffer> image = TalMemPool::Malloc(kImage, "ppNode");
    keep(image != nullptr ? image->GetCpuAddr() : nullptr, 1920 * 1080);
    TalMemPool::OnFrame();
    for (size_t i = 0; i < held.size(); ++i) {
        out.intact = out.intact && Intact(held[i].first, held[i].second, static_cast<uint32_t>(i) + 11);
        TalMemPool::Free(held[i].first, "node", nullptr);
    }
    image.reset();
    TalMemPool::ReleasePool(kImage);
    TalMemPool::OnEos();
    return out;
}

TEST_F(CameraBufferFaultTest, EveryAllocationAndSplitOfASessionFailsInTurn_NothingLeakedServiceServing)
{
    ASSERT_TRUE(StartAndUpdate({"mfnrAlgo"}));
    CamFaultReset();
    SessionOutcome clean = RunSession();
    ASSERT_EQ(clean.nulls, 0) << LogCapture::Dump();
    const uint32_t allocs = CamFaultCalls(CamFaultOp::kAlloc);
    const uint32_t splits = CamFaultCalls(CamFaultOp::kSplit);
    ASSERT_GE(allocs, 4u);
    ASSERT_GE(splits, 2u);
    StopAndExpectNothingHeld();

    for (CamFaultOp op : {CamFaultOp::kAlloc, CamFaultOp::kSplit}) {
        const uint32_t total = op == CamFaultOp::kAlloc ? allocs + 1 : splits; // +1: the pool itself
        for (uint32_t nth = 1; nth <= total; ++nth) {
            SCOPED_TRACE((op == CamFaultOp::kAlloc ? "allocation " : "split ") + std::to_string(nth));
            LogCapture::Clear();
            // The previous session's learnt peaks would make the pool too small to create.
            unlink(DevicePath("/data/vendor/camera/talmempoolfilter.xml").c_str());
            if (op == CamFaultOp::kAlloc) {
                CamFaultFailNth(op, nth); // the first one is the pool's own chunk
            }
            ASSERT_TRUE(StartAndUpdate({"mfnrAlgo"}));
            if (op == CamFaultOp::kSplit) {
                CamFaultFailNth(op, nth);
            }
            SessionOutcome faulty = RunSession();
            EXPECT_EQ(CamFaultFailures(op), 1u) << "because the session makes the same calls each time";
            EXPECT_TRUE(faulty.intact);
            EXPECT_LE(faulty.nulls, 1) << "because one failed call fails at most one request";
            EXPECT_TRUE(StillServing());
            StopAndExpectNothingHeld();
        }
    }
}

} // namespace
