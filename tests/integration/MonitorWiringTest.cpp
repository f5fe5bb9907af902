// The monitor as a camera node meets it through the public entries: the
// direct path's status lines, the leak report and the allocation failure report.

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "../monitor/MonitorTestUtil.h"
#include "monitor/MemUtils.h"
#include "talmem/TalMemPool.h"

using qv::TalMemPool;
using namespace monitor_test;

namespace {

class MonitorWiringTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        TalHostSetProperty("persist.vendor.talmem.prt.rtpoolstatus", "1"); // read when the service starts
        TalMemPool::NewPool();
        LogCapture::Clear();
    }
    void TearDown() override { TalMemPool::DeletePool(); TalTest::TearDown(); }
};

TEST_F(MonitorWiringTest, AllocationsReleasesRegistrationsAndFailures_ReachTheMonitorAndItsReports)
{
    void* addr = TalMemPool::Malloc(8000, "modP", nullptr, "algoP", 1);
    EXPECT_TRUE(Once(PoolLine("SysAlloc", "algoP", "+", 8192, 8192, 1, 8192, 8192, 1)));
    TalMemPool::Free(addr, "modP", nullptr);
    EXPECT_TRUE(Once(PoolLine("SysFree", "algoP", "-", 8192, 0, 0, 8192, 0, 0)));
    TalMemPool::OnSos();
    TalMemPool::OnFrame();
    TalMemPool::RegisterAllocatorRef(0, "modX");
    addr = TalMemPool::Malloc(4096, "modX", nullptr, "algoX", 0);
    EXPECT_TRUE(Once(SnapLine("SysAlloc", "algoX", "+", 4096, 4096, 1, 4096, 1, 4096, 0))) << "because in a frame";
    TalMemPool::Free(TalMemPool::Malloc(4096, "modX", nullptr, "algoBad", 7), "modX", nullptr);
    EXPECT_EQ(2, LogCapture::Count(ANDROID_LOG_ERROR, "QvCamMem UpdateMemoryStatus(), allocatetype = 7 error.\n"));
    EXPECT_NE(0, TalMemPool::GetMemDumpInfo(1));
    TalMemPool::UnregisterAllocatorRef(0, "modX");
    EXPECT_TRUE(Once(Fmt("QvCamMem MemLeakInfo [1/1]: algoName(algoX), moduleName(modX), allocateType(0), "
                         "addr(0x%lx), size(4096), usedAgeInMs(0)\n", Masked(addr))));
    EXPECT_TRUE(Once("ClearAll Failed!\n", ANDROID_LOG_WARN)) << "because the last allocator left, camera open";
    TalMemPool::Free(addr, "modX", nullptr);

    // The looper makes its descriptors after NewPool returns; once it has them it takes a delayed clear.
    bool ready = false;
    for (int i = 0; i < 5000 && !ready; ++i) {
        ready = TalMemPool::ClearAll(1, 3600 * 1000) == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(ready ? 0 : 1));
    }
    ASSERT_TRUE(ready);
    // With no file descriptor left the camera-buffer service cannot allocate.
    rlimit saved{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(dup(0)); // the lowest free descriptor, closed again at once
    close(static_cast<int>(tight.rlim_cur));
    LogCapture::Clear();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    addr = TalMemPool::Malloc(8192, "modF", nullptr, "algoF", 2);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    EXPECT_EQ(nullptr, addr);
    EXPECT_EQ(1, LogCapture::CountContaining("QvCamMem DumpMemErrorInfo(): poolSize(0)"));
    EXPECT_EQ(1, LogCapture::CountContaining("QvCamMem ReportMemAllocFail() allocSize(8192), sysTotalSizeInKB("));
    EXPECT_EQ(1, LogCapture::CountContaining(Fmt("), sysFreeSizeInKB(%d), ", qv::MemUtils::getTotalMemory())))
        << "because the total goes under the free size's label, and the free size under the total's";
    EXPECT_EQ(1, LogCapture::CountContaining("),usedDevice(CPU), algoName(algoF), allocateType(2)\n"));
}

} // namespace
