// Allocator references and leak detection: per-type counts, the leak check
// when the last allocator of a type leaves, the leak list, the reports and
// the final clear of the pool manager.

#include "MonitorTestUtil.h"

#include <cstdio>

#include "monitor/MemUtils.h"

namespace monitor_test {
namespace {

using qv::TalMemChunk;
using talmem_test::LogCapture;

TEST_F(MonitorTest, Leak_RegisterTwiceUnregisterTwice_OnlyTheLastRunsTheCheck)
{
    Bind();
    monitor().RegisterAllocatorRef(kPreview, "modA");
    monitor().RegisterAllocatorRef(kPreview, "modB");
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem in RegisterAllocatorRef(), allocatorRef[Preview]=2, "
                                   "modB +\n"));
    monitor().UnregisterAllocatorRef(kPreview, "modA");
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem in UnregisterAllocatorRef(), allocatorRef[Preview]=1, "
                                   "modA -\n"));
    EXPECT_EQ(0, LogCapture::CountContaining("CheckMemChunkLeak"));

    monitor().UnregisterAllocatorRef(kPreview, "modB");
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem CheckMemChunkLeak() usedSizeByType[1] = 0 "
                                   "mLeakedSizeByType = 0, but no chunk leaked!\n"))
        << LogCapture::Dump();
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem exit CheckMemChunkLeak(), allocateType=1, "
                                   "isMemLeaked=0\n"));
}

TEST_F(MonitorTest, Leak_BadTypesUnderflowAndOverflow_AreLoggedAndIgnored)
{
    Bind();
    for (int bad : {-1, 3, 0x7FFFFFFF}) {
        SCOPED_TRACE(bad);
        LogCapture::Clear();
        monitor().RegisterAllocatorRef(bad, "m");
        monitor().UnregisterAllocatorRef(bad, "m");
        const std::string reg = "QvCamMem RegisterAllocatorRef(), allocateType=" +
                                std::to_string(bad) + " error.\n";
        const std::string unreg = "QvCamMem UnregisterAllocatorRef(), allocateType=" +
                                  std::to_string(bad) + " error.\n";
        EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR, reg));
        EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR, unreg));
    }

    LogCapture::Clear();
    monitor().UnregisterAllocatorRef(kOthers, "ghost");
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem UnregisterAllocatorRef(), module referance error. "
                                   "allocatorRef[2]=0, ghost\n"));
    EXPECT_EQ(0, peer().allocatorRef(kOthers));

    auto p = peer();
    p.allocatorRef(kCapture) = 0x7FFFFFFF;
    LogCapture::Clear();
    monitor().RegisterAllocatorRef(kCapture, "many");
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem RegisterAllocatorRef(), allocateType=0 error.\n"));
    EXPECT_EQ(0x7FFFFFFF, p.allocatorRef(kCapture)) << "because the count must not overflow";
    p.allocatorRef(kCapture) = 0;
}

TEST_F(MonitorTest, Leak_PreviewChunkAliveAtLastUnregister_MovesToLeakListUntilFreed)
{
    Bind();
    TalMemChunk* pool = CameraPool(kMiB, 2);
    TalMemChunk* leakedPool = Carved(pool, 0, 65536, kPreview, "prevAlgo", "prevMod");
    TalMemChunk* leakedSys = Direct(8192, kPreview, "prevAlgo", true, "prevMod");
    TalMemChunk* capture = Direct(4096, kCapture, "capAlgo", true, "capMod");
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, leakedPool);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, leakedSys);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, capture);
    monitor().RegisterAllocatorRef(kPreview, "prevMod");
    monitor().RegisterAllocatorRef(kCapture, "capMod");

    LogCapture::Clear();
    monitor().UnregisterAllocatorRef(kPreview, "prevMod");
    auto p = peer();
    ASSERT_EQ(2u, p.leakList().size());
    EXPECT_EQ(leakedSys, p.leakList().front()) << "because the newest record comes first";
    EXPECT_FALSE(p.inPoolMapHas(leakedPool));
    EXPECT_FALSE(p.outPoolMapHas(leakedSys));
    EXPECT_TRUE(p.outPoolMapHas(capture)) << "because only the leaving type is checked";
    EXPECT_EQ(65536u + 8192u, p.leakedSizeByType(kPreview));
    EXPECT_EQ(65536u + 8192u, p.usedSizeByType(kPreview)) << "because a leak is not a release";
    EXPECT_TRUE(p.algoList(kPreview).empty());
    EXPECT_EQ(0u, p.leakedNumOnce()) << "because the leak report took the records";

    char line[320];
    snprintf(line, sizeof(line),
             "QvCamMem AddChunkLeakRecord(), add mc 0x%lx to leak record, addr=0x%lx "
             "mLeakedNumOnce = 1\n",
             Masked(leakedPool), Masked(leakedPool->GetAddr()));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG, line)) << LogCapture::Dump();
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem CheckMemChunkLeak() error! mem leak detected! "
                                   "allocateType = 1 leakSizeByType = 73728\n"));
    snprintf(line, sizeof(line),
             "QvCamMem MemLeakInfo [1/2]: algoName(prevAlgo), moduleName(prevMod), "
             "allocateType(1), addr(0x%lx), size(8192), usedAgeInMs(0)\n",
             Masked(leakedSys->GetAddr()));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG, line));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem DumpMemErrorInfo(): poolSize(0), outPoolSize(4096), "
                                   "inPoolUsed(0), outPoolUsed(4096), captureUsed(4096), "
                                   "previewUsed(73728), othersUsed(0)\n"));
    EXPECT_EQ(1, LogCapture::CountContaining("memDumpInfo.captureList [1/1]: algoName(capAlgo)"));
    EXPECT_EQ(0, LogCapture::CountContaining("ClearAll")) << "because capture is still registered";

    // A second check of the same type finds nothing new.
    LogCapture::Clear();
    EXPECT_FALSE(monitor().CheckMemChunkLeak(kPreview));
    EXPECT_EQ(2u, p.leakList().size());

    // Freeing the leaked chunks later takes them off the leak list.
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, leakedSys);
    Event(qv::TAL_MEM_MONITOR_POOL_FREE, leakedPool);
    EXPECT_TRUE(p.leakList().empty());
    EXPECT_EQ(0u, p.usedSizeByType(kPreview));
}

TEST_F(MonitorTest, Leak_SameChunkOfferedTwice_IsRecordedOnce)
{
    Bind();
    TalMemChunk* chunk = Direct(4096, kOthers, "o");
    EXPECT_TRUE(monitor().AddChunkLeakRecord(chunk));
    EXPECT_FALSE(monitor().AddChunkLeakRecord(chunk));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem AddChunkLeakRecord(), record existed already\n"));
    EXPECT_EQ(1u, peer().leakList().size());
    EXPECT_EQ(1u, peer().leakedNumOnce());

    // The leak report carries the count and the listed chunks, then resets it.
    monitor().DumpMemLeakInfo();
    qv::talMemPoolLeakErrorReportInfo report;
    peer().FillLeakReport(report);
    EXPECT_EQ(1u, report.leakedNum);
    ASSERT_EQ(1u, report.leakList.size());
    EXPECT_EQ(4096u, report.leakList.front().size);
    monitor().ReportMemLeak();
    EXPECT_EQ(0u, peer().leakedNumOnce());
}

TEST_F(MonitorTest, Leak_LastAllocatorOfEveryType_ClearsTheManagerOnce)
{
    Bind();
    monitor().RegisterAllocatorRef(kCapture, "c");
    monitor().RegisterAllocatorRef(kPreview, "p");
    monitor().RegisterAllocatorRef(kOthers, "o");
    monitor().UnregisterAllocatorRef(kCapture, "c");
    monitor().UnregisterAllocatorRef(kPreview, "p");
    EXPECT_EQ(0, LogCapture::CountContaining("ClearAll"));
    monitor().UnregisterAllocatorRef(kOthers, "o");
    // The manager was never told that the camera closed, so its ClearAll refuses.
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_INFO, "QvCamMem enter ClearAll\n"))
        << LogCapture::Dump();
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_WARN, "ClearAll Failed!\n"));

    LogCapture::Clear();
    impl_->CameraClose();
    monitor().RegisterAllocatorRef(kOthers, "o");
    monitor().UnregisterAllocatorRef(kOthers, "o");
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_INFO, "QvCamMem enter ClearAll\n"));
    EXPECT_EQ(0, LogCapture::Count(ANDROID_LOG_WARN, "ClearAll Failed!\n"))
        << "because an empty manager clears successfully after the camera closed";
}

TEST_F(MonitorTest, Leak_Others_ReleaseErasesTheModulesRecordsCaptureKeepsThem)
{
    Bind();
    TalMemChunk* o = Direct(4096, kOthers, "modO");
    TalMemChunk* c = Direct(4096, kCapture, "modC");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, o);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, c);
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, o);
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, c);
    monitor().RegisterAllocatorRef(kOthers, "modO");
    monitor().RegisterAllocatorRef(kOthers, "x");
    monitor().RegisterAllocatorRef(kCapture, "modC");
    monitor().RegisterAllocatorRef(kCapture, "y");
    monitor().UnregisterAllocatorRef(kOthers, "modO");
    monitor().UnregisterAllocatorRef(kCapture, "modC");
    EXPECT_EQ(nullptr, peer().algo(kOthers, "modO"));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem ReleaseUpdateAlgoInfo() IPP_RELEASE: erase modO\n"));
    EXPECT_NE(nullptr, peer().algo(kCapture, "modC"));
}

TEST_F(MonitorTest, AllocFail_ReportCarriesSystemFiguresWithTheTwoLabelsCrossed)
{
    Bind();
    TalMemChunk* chunk = Direct(8192, kPreview, "prevAlgo", true, "prevMod");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, chunk);

    LogCapture::Clear();
    monitor().ReportMemAllocFail(123456, "failAlgo", kPreview, 3);
    const int total = qv::MemUtils::getTotalMemory();
    const std::string* found = nullptr;
    std::vector<talmem_test::LogLine> lines = LogCapture::Lines();
    for (const auto& l : lines) {
        if (l.priority == ANDROID_LOG_INFO &&
            l.message.rfind("QvCamMem ReportMemAllocFail() allocSize(123456), ", 0) == 0) {
            found = &l.message;
        }
    }
    ASSERT_NE(nullptr, found) << LogCapture::Dump();
    int shownTotal = -2;
    int shownFree = -2;
    int graphic = -2;
    ASSERT_EQ(3, sscanf(found->c_str(),
                        "QvCamMem ReportMemAllocFail() allocSize(123456), sysTotalSizeInKB(%d), "
                        "sysFreeSizeInKB(%d), cameraGraphicSizeInKB(%d),",
                        &shownTotal, &shownFree, &graphic))
        << *found;
    EXPECT_EQ(total, shownFree) << "because the total is printed under the free label";
    EXPECT_NE(std::string::npos, found->find("),usedDevice(), algoName(failAlgo), allocateType(1)\n"))
        << "because device 3 has no name";
    EXPECT_EQ(1, LogCapture::CountContaining("memDumpInfo.previewList [1/1]: algoName(prevAlgo)"));

    qv::talMemPoolAllocFailErrorReportInfo report;
    peer().FillAllocFailReport(report, 4096, "a", kCapture, 1);
    EXPECT_EQ("GPU", report.usedDevice);
    EXPECT_EQ(total, report.sysTotalSizeInKB);
    EXPECT_EQ(4096, report.allocSize);
    EXPECT_EQ(1u, report.dump.previewList.size());
    EXPECT_EQ(8192u, report.dump.previewUsed);
    EXPECT_EQ(0u, report.dump.previewSize) << "because the error dump leaves the sizes at 0";
}

} // namespace
} // namespace monitor_test
