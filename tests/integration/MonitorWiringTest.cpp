// The monitor's reports as a camera node meets them through the public entries
// (the status lines are checked by the session test): the leak report when the
// last allocator of a kind leaves, and the allocation failure report.

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
    void SetUp() override { TalTest::SetUp(); TalMemPool::NewPool(); LogCapture::Clear(); }
    void TearDown() override { TalMemPool::DeletePool(); TalTest::TearDown(); }
};

TEST_F(MonitorWiringTest, LeakOnUnregisterAndAllocationFailure_AreReported)
{
    TalMemPool::RegisterAllocatorRef(0, "modX");
    void* addr = TalMemPool::Malloc(4096, "modX", nullptr, "algoX", 0);
    EXPECT_NE(0, TalMemPool::GetMemDumpInfo(1));
    TalMemPool::UnregisterAllocatorRef(0, "modX");
    EXPECT_TRUE(Once(Fmt("QvCamMem MemLeakInfo [1/1]: algoName(algoX), moduleName(modX), allocateType(0), "
                         "addr(0x%lx), size(4096), usedAgeInMs(0)\n", Masked(addr))));
    EXPECT_TRUE(Once("ClearAll Failed!\n", ANDROID_LOG_WARN)) << "because the last allocator left, camera open";
    TalMemPool::Free(addr, "modX", nullptr);

    // The looper makes its descriptors after NewPool returns; once it has them it takes a delayed clear.
    int cleared = -1;
    for (int i = 0; i < 5000 && (cleared = TalMemPool::ClearAll(1, 3600 * 1000)) != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(0, cleared);
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
