// The monitor as a camera node meets it through the public entries: every
// allocation, release, stream event, allocator registration and dump request
// reaches it, and its lines say so.

#include "TalTestSupport.h"

#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "talmem/TalMemPool.h"
#include "talmem_properties.h"

using qv::TalMemPool;
using talmem_test::LogCapture;
using talmem_test::TalTest;

namespace {

constexpr int32_t kPreview = 1;
constexpr int32_t kOthers = 2;

class MonitorWiringTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        // The switches are read once, when the service initialises the monitor.
        TalHostSetProperty("persist.vendor.talmem.prt.rtpoolstatus", "1");
        TalMemPool::NewPool();
        ASSERT_NE(TalMemPool::poolThread, nullptr);
        LogCapture::Clear();
    }
    void TearDown() override
    {
        if (TalMemPool::poolThread != nullptr) {
            TalMemPool::DeletePool();
        }
        TalTest::TearDown();
    }

    static int Debug(const std::string& message)
    {
        return LogCapture::Count(ANDROID_LOG_DEBUG, message);
    }
};

TEST_F(MonitorWiringTest, MallocAndFree_ReachTheMonitorAsSysAllocAndSysFree)
{
    void* addr = TalMemPool::Malloc(8000, "modP", nullptr, "algoP", kPreview);
    ASSERT_NE(nullptr, addr);
    EXPECT_EQ(1, Debug("QvCamMem PoolStatus SysAlloc  \t algoName:algoP          \t "
                       "algoSize:+8192      \t allSize:8192      \tallNum:1\t "
                       "allSizePeak:8192      \t SysSize:8192      \t SysNum:1\t \n"))
        << LogCapture::Dump();

    TalMemPool::Free(addr, "modP", nullptr);
    EXPECT_EQ(1, Debug("QvCamMem PoolStatus SysFree   \t algoName:algoP          \t "
                       "algoSize:-8192      \t allSize:0         \tallNum:0\t "
                       "allSizePeak:8192      \t SysSize:0         \t SysNum:0\t \n"))
        << LogCapture::Dump();
}

TEST_F(MonitorWiringTest, StreamEvents_PrintTheSnapshotLines)
{
    TalMemPool::OnSos();
    EXPECT_EQ(1, Debug("QvCamMem PoolStatus SOS       \t totalCaptureUsed:0         \t "
                       "captureUsed:0         \t allSize:0         \t allNum:0\t "
                       "SysSize:0         \t SysNum:0\t\n"))
        << LogCapture::Dump();
    TalMemPool::OnFrame();
    void* addr = TalMemPool::Malloc(4096, "modC", nullptr, "algoC", 0);
    ASSERT_NE(nullptr, addr);
    EXPECT_EQ(1, Debug("QvCamMem SnapShotStatus SysAlloc  \t algoName:algoC          \t "
                       "algoSize:+4096      \t totalSize:4096      \t totalNum:1  \t "
                       "SysSize:4096      \t SysNum:1  \t peakSize:4096      \t "
                       "peakSizeRatio:0\t \n"))
        << LogCapture::Dump();
    TalMemPool::Free(addr, "modC", nullptr);
    TalMemPool::OnEos();
    EXPECT_EQ(1, Debug("QvCamMem SnapShotStatus EOS       \t totalSize:0         \t "
                       "totalNum:0  \t SysSize:0         \t SysNum:0  \t "
                       "snapSizeSos2Frame:0         \t sysSizePeak:4096      \t "
                       "peakSizeRatio:0\t\n"))
        << LogCapture::Dump();
    EXPECT_EQ(1, LogCapture::CountContaining("DumpAlgoMemInfo algoName: algoC"));
}

TEST_F(MonitorWiringTest, UnregisterWithLiveChunk_ReportsTheLeakAndClearsTheManager)
{
    TalMemPool::RegisterAllocatorRef(kPreview, "modP");
    EXPECT_EQ(1, Debug("QvCamMem in RegisterAllocatorRef(), allocatorRef[Preview]=1, modP +\n"))
        << LogCapture::Dump();
    void* addr = TalMemPool::Malloc(8192, "modP", nullptr, "algoP", kPreview);
    ASSERT_NE(nullptr, addr);

    TalMemPool::UnregisterAllocatorRef(kPreview, "modP");
    EXPECT_EQ(1, Debug("QvCamMem in UnregisterAllocatorRef(), allocatorRef[Preview]=0, modP -\n"));
    EXPECT_EQ(1, Debug("QvCamMem CheckMemChunkLeak() error! mem leak detected! allocateType = 1 "
                       "leakSizeByType = 8192\n"))
        << LogCapture::Dump();
    EXPECT_EQ(1, LogCapture::CountContaining("QvCamMem MemLeakInfo [1/1]: algoName(algoP), "
                                             "moduleName(modP), allocateType(1)"));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_INFO, "QvCamMem enter ClearAll\n"))
        << "because the last allocator of every kind has left";
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_WARN, "ClearAll Failed!\n"))
        << "because the camera was not closed";

    TalMemPool::UnregisterAllocatorRef(kPreview, "modP");
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem UnregisterAllocatorRef(), module referance error. "
                                   "allocatorRef[1]=0, modP\n"));

    // The leaked chunk is still the caller's; freeing it settles the books.
    TalMemPool::Free(addr, "modP", nullptr);
    LogCapture::Clear();
    EXPECT_NE(0, TalMemPool::GetMemDumpInfo(0));
    EXPECT_EQ(1, Debug("QvCamMem DumpMemErrorInfo(): poolSize(0), outPoolSize(0), inPoolUsed(0), "
                       "outPoolUsed(0), captureUsed(0), previewUsed(0), othersUsed(0)\n"))
        << LogCapture::Dump();
}

TEST_F(MonitorWiringTest, DumpRequests_ReachTheMonitorForEveryType)
{
    void* addr = TalMemPool::Malloc(4096, "modO", nullptr, "algoO", kOthers);
    ASSERT_NE(nullptr, addr);
    EXPECT_NE(0, TalMemPool::GetMemDumpInfo(1));
    EXPECT_EQ(1, LogCapture::CountContaining("QvCamMem memRealtimeInfo.othersList [1/1]: "
                                             "algoName:algoO"));
    EXPECT_EQ(0, TalMemPool::GetMemDumpInfo(2));
    EXPECT_EQ(0, TalMemPool::GetMemDumpInfo(5));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem GetMemDumpInfo() error: dumpType 5 no define\n"));
    TalMemPool::Free(addr, "modO", nullptr);
}

TEST_F(MonitorWiringTest, ClearAll_AsksForThePoolChunkDump)
{
    // During a post-processing crossing the pool chunk dump says why it is silent.
    TalMemPool::UpdatePPState(0, 2);
    TalMemPool::UpdatePPState(1, 2);
    TalMemPool::CameraClose();
    LogCapture::Clear();
    EXPECT_EQ(0, TalMemPool::ClearAll(0, 0));
    EXPECT_EQ(1, Debug("in crossing state don't need to print pool chunk info\n"))
        << LogCapture::Dump();
}

TEST_F(MonitorWiringTest, BadAllocateType_IsValidatedBeforeAnyPerTypeCounter)
{
    void* addr = TalMemPool::Malloc(4096, "modX", nullptr, "algoX", 7);
    ASSERT_NE(nullptr, addr);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem UpdateMemoryStatus(), allocatetype = 7 error.\n"))
        << LogCapture::Dump();
    TalMemPool::RegisterAllocatorRef(-5, "modX");
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem RegisterAllocatorRef(), allocateType=-5 error.\n"));
    TalMemPool::Free(addr, "modX", nullptr);
    EXPECT_EQ(2, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem UpdateMemoryStatus(), allocatetype = 7 error.\n"));
}

TEST_F(MonitorWiringTest, FailedDirectAllocation_IsReportedWithTheSystemState)
{
    // With no file descriptor left the camera-buffer service cannot allocate.
    rlimit saved{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    const int next = dup(0);
    ASSERT_GE(next, 0);
    close(next);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(next);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    void* addr = TalMemPool::Malloc(8192, "modF", nullptr, "algoF", kOthers);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));

    EXPECT_EQ(nullptr, addr);
    const std::string tail = "),usedDevice(CPU), algoName(algoF), allocateType(2)\n";
    bool found = false;
    for (const auto& line : LogCapture::Lines()) {
        const std::string& m = line.message;
        if (line.priority == ANDROID_LOG_INFO &&
            m.rfind("QvCamMem ReportMemAllocFail() allocSize(8192), sysTotalSizeInKB(", 0) == 0 &&
            m.find(", cameraGraphicSizeInKB(") != std::string::npos &&
            m.size() > tail.size() &&
            m.compare(m.size() - tail.size(), tail.size(), tail) == 0) {
            found = true;
        }
    }
    EXPECT_TRUE(found) << LogCapture::Dump();
    EXPECT_EQ(1, LogCapture::CountContaining("QvCamMem DumpMemErrorInfo(): poolSize(0)"));
}

TEST_F(MonitorWiringTest, DeletePool_DestroysTheMonitor)
{
    TalMemPool::DeletePool();
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_INFO, "enter ~TalMemPoolMonitor()\n"))
        << LogCapture::Dump();
}

} // namespace
