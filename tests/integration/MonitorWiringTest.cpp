// The monitor as a camera node meets it through the public entries: every
// allocation, release, stream event, allocator registration and dump request
// reaches it, and its lines say so.

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "../monitor/MonitorTestUtil.h"
#include "talmem/TalMemPool.h"

using qv::TalMemPool;
using namespace monitor_test;

namespace {

// Waits (generously) until `done` holds, for work of the looper thread.
template <typename Done>
bool WaitFor(Done done)
{
    for (int i = 0; i < 5000 && !done(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

class MonitorWiringTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        TalHostSetProperty("persist.vendor.talmem.prt.rtpoolstatus", "1"); // read when the service starts
        TalMemPool::NewPool();
        LogCapture::Clear();
    }
    void TearDown() override
    {
        if (TalMemPool::poolThread != nullptr) {
            TalMemPool::DeletePool();
        }
        TalTest::TearDown();
    }
};

TEST_F(MonitorWiringTest, AllocationsStreamEventsRegistrationsAndDumps_ReachTheMonitor)
{
    void* addr = TalMemPool::Malloc(8000, "modP", nullptr, "algoP", 1);
    EXPECT_TRUE(Once(PoolLine("SysAlloc", "algoP", "+", 8192, 8192, 1, 8192, 8192, 1)));
    TalMemPool::Free(addr, "modP", nullptr);
    EXPECT_TRUE(Once(PoolLine("SysFree", "algoP", "-", 8192, 0, 0, 8192, 0, 0)));
    TalMemPool::OnSos();
    EXPECT_TRUE(Once(SosLine(0, 0, 0, 0, 0, 0)));
    TalMemPool::OnFrame();
    TalMemPool::RegisterAllocatorRef(0, "modX");
    TalMemPool::RegisterAllocatorRef(-5, "modX");
    EXPECT_TRUE(Once("QvCamMem RegisterAllocatorRef(), allocateType=-5 error.\n", ANDROID_LOG_ERROR));
    addr = TalMemPool::Malloc(4096, "modX", nullptr, "algoX", 0);
    EXPECT_TRUE(Once(SnapLine("SysAlloc", "algoX", "+", 4096, 4096, 1, 4096, 1, 4096, 0)));
    TalMemPool::Free(TalMemPool::Malloc(4096, "modX", nullptr, "algoBad", 7), "modX", nullptr);
    EXPECT_EQ(2, LogCapture::Count(ANDROID_LOG_ERROR, "QvCamMem UpdateMemoryStatus(), allocatetype = 7 error.\n"));
    EXPECT_NE(0, TalMemPool::GetMemDumpInfo(1));
    EXPECT_EQ(1, LogCapture::CountContaining("QvCamMem memRealtimeInfo.captureList [2/2]: algoName:algoBad"))
        << "because a bad type counts as Capture";
    TalMemPool::UnregisterAllocatorRef(0, "modX");
    EXPECT_TRUE(Once("QvCamMem CheckMemChunkLeak() error! mem leak detected! allocateType = 0 "
                     "leakSizeByType = 4096\n"));
    EXPECT_TRUE(Once("ClearAll Failed!\n", ANDROID_LOG_WARN)) << "because the last allocator left, camera open";
    EXPECT_NE(0, TalMemPool::GetMemDumpInfo(0));
    EXPECT_EQ(0, TalMemPool::GetMemDumpInfo(5));
    EXPECT_TRUE(Once("QvCamMem GetMemDumpInfo() error: dumpType 5 no define\n", ANDROID_LOG_ERROR));
    TalMemPool::Free(addr, "modX", nullptr);
    TalMemPool::OnEos();
    EXPECT_TRUE(Once(StreamLine("EOS", 0, 0, 0, 0, 0, 8192, 0)));
    TalMemPool::DeletePool();
    // The looper thread may drop the last reference to the service just after join.
    EXPECT_TRUE(WaitFor([] { return LogCapture::Count(ANDROID_LOG_INFO, "enter ~TalMemPoolMonitor()\n") == 1; }));
}

TEST_F(MonitorWiringTest, FailedDirectAllocation_IsReportedWithTheSystemState)
{
    // The looper thread makes its descriptors after NewPool returns; it takes
    // a delayed clear (due long after this test) only once it has them.
    ASSERT_TRUE(WaitFor([] { return TalMemPool::ClearAll(1, 3600 * 1000) == 0; }));
    // With no file descriptor left the camera-buffer service cannot allocate.
    rlimit saved{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    const int next = dup(0);
    close(next);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(next);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    void* addr = TalMemPool::Malloc(8192, "modF", nullptr, "algoF", 2);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    EXPECT_EQ(nullptr, addr);
    EXPECT_EQ(1, LogCapture::CountContaining("QvCamMem ReportMemAllocFail() allocSize(8192), sysTotalSizeInKB("));
    EXPECT_EQ(1, LogCapture::CountContaining("),usedDevice(CPU), algoName(algoF), allocateType(2)"));
    EXPECT_EQ(1, LogCapture::CountContaining("QvCamMem DumpMemErrorInfo(): poolSize(0)")) << LogCapture::Dump();
}

} // namespace
