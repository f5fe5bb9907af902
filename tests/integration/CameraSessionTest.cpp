// One camera session through the public entries: the device configuration
// sizes a small base pool, capture buffers are carved from it and reported to
// the monitor, the stream's peaks are learnt at its end, the clear after the
// camera closes writes them to the learnt file, and the next start reads them.

#include <chrono>
#include <functional>
#include <set>
#include <thread>

#include "../monitor/MonitorTestUtil.h"
#include "CameraBufferInterface.h"
#include "talmem/TalMemPool.h"

using qv::TalMemPool;
using namespace monitor_test;

namespace {

constexpr uint32_t kPool = 8 * kMiB;
constexpr uint32_t kConfiguredPeak = 24 * kMiB; // above 20 MiB, so PoolUpdate creates the base pool
const qv::TalMemResolution kFullHd{1920, 1080, 1920, 1080};

// True once `done` holds; false after 20 s (generous for qemu and sanitizers).
bool WaitFor(const std::function<bool()>& done)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

std::string PeakLine(const char* algo, uint32_t peak)
{
    return Fmt("QvCamMem GetMaxPeakSize, %s with max peak %u shortageSize 0 poolInShortage 0\n", algo, peak);
}

class CameraSessionTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        ASSERT_EQ(TalMemPool::poolThread, nullptr) << "because every test leaves no service";
        heldBefore = QvCamera::CameraBufferInterface::GetHeldBytes();
        talmem_test::WriteFile(DevicePath("/odm/etc/camera/talmempoolcfg.xml"),
                               Fmt("<TalMemPoolConfig>list algorithm peak size\n"
                                   "  <AllocType>1</AllocType>\n  <BasePoolSize>%u</BasePoolSize>\n"
                                   "  <AlgoSizeLimit>%u</AlgoSizeLimit>\n  <PrevRatioLimit>75</PrevRatioLimit>\n"
                                   "  <MultiPoolSize>104857600</MultiPoolSize>\n"
                                   "  <Algo name=\"mfnrAlgo\" value=\"%u\" resolution=\"1920x1080\"/>\n"
                                   "</TalMemPoolConfig>\n", kPool, 64 * kMiB, kConfiguredPeak));
        TalHostSetProperty("persist.vendor.talmem.prt.rtpoolstatus", "1"); // read when the service starts
    }
    void TearDown() override
    {
        while (TalMemPool::reference > 0) {
            TalMemPool::DeletePool();
        }
        TalTest::TearDown();
    }
    // NewPool, then a synchronous PoolUpdate once the looper thread has made its looper.
    void Start(const std::list<std::string>& algos)
    {
        TalMemPool::NewPool();
        bool updated = false; // the update is refused until the looper exists, and must run only once
        ASSERT_TRUE(WaitFor([&] { return updated = updated || TalMemPool::PoolUpdate(algos, kFullHd, 0, 0) == 0; }))
            << LogCapture::Dump();
    }

    uint64_t heldBefore = 0;
};

TEST_F(CameraSessionTest, PoolsFromConfiguration_CarveAndReport_PeaksLearntSavedAndReadOnTheNextStart)
{
    ASSERT_NO_FATAL_FAILURE(Start({"mfnrAlgo"}));
    EXPECT_TRUE(Once(PeakLine("mfnrAlgo", kConfiguredPeak), ANDROID_LOG_INFO)) << "because the device file was read";
    EXPECT_TRUE(Once(Fmt("QvCamMem exit PoolCreateImpl, size %u poolId 1\n", kPool)));

    TalMemPool::OnSos();
    void* a = TalMemPool::Malloc(3 * kMiB, "mfnrNode", nullptr, "mfnrAlgo", 0);
    void* b = TalMemPool::Malloc(kMiB - 100, "mfnrNode", nullptr, "mfnrAlgo", 0);
    ASSERT_TRUE(a != nullptr && b != nullptr);
    for (auto [addr, size] : {std::pair{a, 3 * kMiB}, {b, kMiB}}) {
        const qva_ibuf* ibuf = TalMemPool::GetIBuf(addr);
        ASSERT_NE(ibuf, nullptr);
        EXPECT_EQ(ibuf->getAddr(ibuf), addr);
        EXPECT_EQ(ibuf->getSize(ibuf), size) << "because the carved size is rounded to 4096";
        EXPECT_EQ(ibuf->getPoolSize(ibuf), kPool) << "because it was carved from the base pool";
        EXPECT_NE(ibuf->getOffset(ibuf), 0u) << "because the pool keeps its bookkeeping in front";
        EXPECT_LE(ibuf->getOffset(ibuf) + size, kPool);
    }
    EXPECT_TRUE(Once(PoolLine("PoolAlloc", "mfnrAlgo", "+", 3 * kMiB, 3 * kMiB, 1, 3 * kMiB, 0, 0)));
    EXPECT_TRUE(Once(PoolLine("PoolAlloc", "mfnrAlgo", "+", kMiB, 4 * kMiB, 2, 4 * kMiB, 0, 0)));

    // A preview buffer of 1 MiB or more never comes from a pool: it is kept for reuse.
    void* p = TalMemPool::Malloc(2 * kMiB, "prevNode", nullptr, "prevAlgo", 1);
    const qva_ibuf* prev = TalMemPool::GetIBuf(p);
    ASSERT_NE(prev, nullptr);
    EXPECT_EQ(prev->getSize(prev), 2 * kMiB);
    EXPECT_EQ(prev->getOffset(prev), 0u);
    EXPECT_TRUE(Once(PoolLine("SysAlloc", "prevAlgo", "+", 2 * kMiB, 6 * kMiB, 3, 6 * kMiB, 2 * kMiB, 1)));

    TalMemPool::OnFrame(); // 4 MiB of the 8 MiB pool in use: 50 percent
    EXPECT_TRUE(Once(StreamLine("Frame", 0, 0, 0, 0, 2 * kMiB, 0, 50)));
    void* c = TalMemPool::Malloc(2 * kMiB, "mfnrNode", nullptr, "mfnrAlgo", 0);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(TalMemPool::GetIBuf(c)->getPoolSize(TalMemPool::GetIBuf(c)), kPool);
    EXPECT_TRUE(Once(SnapLine("PoolAlloc", "mfnrAlgo", "+", 2 * kMiB, 2 * kMiB, 1, 0, 0, 2 * kMiB, 75)));

    TalMemPool::Free(c, "mfnrNode", nullptr);
    TalMemPool::Free(a, "mfnrNode", nullptr);
    TalMemPool::Free(b, "mfnrNode", nullptr);
    TalMemPool::Free(p, "prevNode", nullptr);
    EXPECT_EQ(TalMemPool::GetIBuf(a), nullptr);
    EXPECT_TRUE(Once(SnapLine("PoolFree", "mfnrAlgo", "-", 2 * kMiB, 0, 0, 0, 0)));
    EXPECT_TRUE(Once(SnapLine("PoolFree", "mfnrAlgo", "-", 3 * kMiB, 0, 0, 0, 0)));
    EXPECT_TRUE(Once(SnapLine("PoolFree", "mfnrAlgo", "-", kMiB, 0, 0, 0, 0)));
    EXPECT_TRUE(Once(SnapLine("SysFree", "prevAlgo", "-", 2 * kMiB, 0, 0, 0, 0)));
    TalMemPool::OnEos(); // mfnrAlgo peaked at 6 MiB: a quarter of the way from 24 MiB is 19.5 MiB
    constexpr uint32_t kLearnt = (3 * kConfiguredPeak + 6 * kMiB) / 4;

    EXPECT_EQ(TalMemPool::ClearAll(0, 0), -1) << "because the camera is still open";
    TalMemPool::CameraClose();
    LogCapture::Clear();
    const std::string filter = DevicePath("/data/vendor/camera/talmempoolfilter.xml");
    EXPECT_EQ(TalMemPool::ClearAll(0, 0), 0);
    EXPECT_TRUE(Once("QvCamMem  ClearAll free all pool success\n", ANDROID_LOG_INFO));
    EXPECT_TRUE(Once(Fmt("QvCamMem free poolId(1) size=%u\n", kPool), ANDROID_LOG_INFO));
    EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), heldBefore)
        << "because the pool and the idle preview buffer are both released";
    const std::string saved = talmem_test::ReadFile(filter);
    EXPECT_NE(saved.find("<BasePoolSize>8388608</BasePoolSize>"), std::string::npos) << saved;
    EXPECT_NE(saved.find(Fmt("<Algo name=\"mfnrAlgo\" value=\"%u\" resolution=\"1920x1080\"", kLearnt)),
              std::string::npos) << saved;
    EXPECT_NE(saved.find(Fmt("<Algo name=\"prevAlgo\" value=\"%u\" resolution=\"1920x1080\"", 2 * kMiB)),
              std::string::npos) << "because a new algorithm enters with its own peak\n" << saved;
    TalMemPool::DeletePool();

    // The next start prefers the learnt file: the peak is the learnt one, now too small for a pool.
    LogCapture::Clear();
    ASSERT_NO_FATAL_FAILURE(Start({"prevAlgo", "mfnrAlgo"}));
    EXPECT_TRUE(Once("LoadAlgoPeakMem LoadAlgoPeakMem cfg_filter success\n"));
    EXPECT_TRUE(Once(PeakLine("mfnrAlgo", kLearnt), ANDROID_LOG_INFO)) << LogCapture::Dump();
    EXPECT_EQ(LogCapture::CountContaining("PoolCreateImpl"), 0);
    TalMemPool::DeletePool();
    EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), heldBefore);
    // Classes split over several files by concern still log under their own source file.
    const std::set<std::string> classSources = {"TalMemPool.cpp", "TalMemPoolThread.cpp", "TalMemChunk.cpp",
        "TalMemPoolImpl.cpp", "TalMemPoolMonitor.cpp", "MemUtils.cpp", "TalMemConfig.cpp", "TalMem.cpp",
        "TalMemImpl.cpp", "TalIbufImpl.cpp"};
    for (const std::string& file : LogCapture::SourceFiles()) {
        EXPECT_EQ(classSources.count(file), 1u) << file << " is no class's source file";
    }
}

} // namespace
