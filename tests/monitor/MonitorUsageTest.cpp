// Usage accounting: pool status counters, chunk indexes, the snapshot account
// of a stream with its peak and ratio, size queries and status lines.

#include "MonitorTestUtil.h"

namespace monitor_test {
namespace {

using qv::TalMemChunk;
using qv::TalMemPoolMonitor;
using talmem_test::LogCapture;

TEST(MonitorTypeNames, ValuesOutsideTheTableAreUnknown)
{
    EXPECT_STREQ("Check", TalMemPoolMonitor::MonitorType2str(9));
    EXPECT_STREQ("Unknown", TalMemPoolMonitor::MonitorType2str(-1));
    EXPECT_STREQ("Unknown", TalMemPoolMonitor::MonitorType2str(10));
    EXPECT_STREQ("Unknown", TalMemPoolMonitor::AllocateType2str(3));
    EXPECT_STREQ("Unknown", TalMemPoolMonitor::CaptureStatus2str(4));
}

TEST_F(MonitorTest, PerTypeIndexOutsideTheArrays_Aborts)
{
    Bind();
    EXPECT_DEATH(monitor().CheckUpdateAlgoInfo(3), "");
    EXPECT_DEATH(monitor().AllocUpdateAlgoInfo(-1, "x", 4096, 0), "");
}

TEST_F(MonitorTest, PoolStatus_AllocAndFreeOfBothKinds_CountPerTypeAndKeepPeak)
{
    Bind();
    TalMemChunk* pool = CameraPool(4 * kMiB);
    TalMemChunk* carved = Carved(pool, 0, 8192, kCapture, "algoA");
    TalMemChunk* sysCap = Direct(4096, kCapture, "algoB", true);
    TalMemChunk* sysPrev = Direct(12288, kPreview, "algoC", true);

    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, carved);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, sysCap);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, sysPrev);
    auto p = peer();
    EXPECT_EQ(8192u + 4096u + 12288u, p.allSize());
    EXPECT_EQ(3u, p.allNum());
    EXPECT_EQ(4096u + 12288u, p.sysSize());
    EXPECT_EQ(2u, p.sysNum());
    EXPECT_EQ(8192u + 4096u, p.usedSizeByType(kCapture));
    EXPECT_EQ(12288u, p.usedSizeByType(kPreview));
    EXPECT_TRUE(p.inPoolMapHas(carved));
    EXPECT_TRUE(p.outPoolMapHas(sysCap));

    unsigned int inPool = 100;
    monitor().GetInPoolUsedSize(inPool);
    EXPECT_EQ(100u + 8192u, inPool) << "because the queries add to the caller's value";
    unsigned int outPool = 0;
    monitor().GetOutPoolUsedSize(outPool);
    EXPECT_EQ(4096u + 12288u, outPool);
    unsigned int captureUsed = 0;
    monitor().GetCaptureUsedSize(captureUsed);
    EXPECT_EQ(8192u + 4096u, captureUsed) << "because preview chunks are not capture use";

    Event(qv::TAL_MEM_MONITOR_POOL_FREE, carved);
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, sysPrev);
    EXPECT_EQ(4096u, p.allSize());
    EXPECT_EQ(1u, p.allNum());
    EXPECT_EQ(4096u, p.sysSize());
    EXPECT_EQ(1u, p.sysNum());
    EXPECT_EQ(0u, p.usedSizeByType(kPreview));
    EXPECT_EQ(8192u + 4096u + 12288u, p.allSizePeak()) << "because the peak is never lowered";
    EXPECT_FALSE(p.inPoolMapHas(carved));
    EXPECT_FALSE(p.outPoolMapHas(sysPrev));
}

TEST_F(MonitorTest, UnbalancedRelease_WrapsPoolStatusButClampsSnapshot)
{
    Bind();
    Stream(2);
    TalMemChunk* chunk = Direct(8192, kCapture, "algoA");
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, chunk);
    auto p = peer();
    EXPECT_EQ(0u - 8192u, p.allSize()) << "because pool status counters are not guarded";
    EXPECT_EQ(0u - 1u, p.allNum());
    EXPECT_EQ(0u, p.totalSize()) << "because snapshot counters stop at zero";
    EXPECT_EQ(0u, p.totalNum());
    EXPECT_EQ(0u, p.snapSysSize());
}

TEST_F(MonitorTest, SameAddressTwice_KeepsTheFirstChunkInTheMap)
{
    Bind();
    TalMemChunk* pool = CameraPool(kMiB);
    TalMemChunk* first = Carved(pool, 4096, 4096, kCapture, "algoA");
    TalMemChunk* second = Carved(pool, 4096, 8192, kCapture, "algoA");
    ASSERT_EQ(first->GetAddr(), second->GetAddr());
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, first);
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, second);
    EXPECT_TRUE(peer().inPoolMapHas(first));
    EXPECT_EQ(1u, peer().inPoolMapSize());
    unsigned int inPool = 0;
    monitor().GetInPoolUsedSize(inPool);
    EXPECT_EQ(4096u, inPool);
    EXPECT_EQ(4096u + 8192u, peer().allSize()) << "because the totals count both events";
}

TEST_F(MonitorTest, ChunkWithBadAllocateType_IsLoggedAndCountedAsCapture)
{
    Bind();
    for (int bad : {-1, 3, 1000}) {
        SCOPED_TRACE(bad);
        LogCapture::Clear();
        TalMemChunk* chunk = Direct(4096, bad, "algoBad");
        const unsigned int before = peer().usedSizeByType(kCapture);
        Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, chunk);
        EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR, "QvCamMem UpdateMemoryStatus(), "
                                                          "allocatetype = " +
                                                              std::to_string(bad) + " error.\n"));
        EXPECT_EQ(before + 4096u, peer().usedSizeByType(kCapture));
        EXPECT_NE(nullptr, peer().algo(kCapture, "algoBad"));
    }
}

TEST_F(MonitorTest, Stream_SosFrameEos_SnapshotPeakRatioAndStatusLines)
{
    AddPool(100 * kMiB);
    Bind();
    monitor().UpdateRecipOfPoolSize();
    EXPECT_EQ(8192u, peer().recipOfPoolSize());

    // Before any stream: only the pool status moves.
    TalMemChunk* a = Direct(8 * kMiB, kCapture, "algoA");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, a);
    EXPECT_EQ(0u, peer().totalSize());
    EXPECT_EQ(0u, peer().snapSizeSos2Frame());

    Stream(1);
    Event(qv::TAL_MEM_MONITOR_SOS);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem PoolStatus SOS       \t totalCaptureUsed:8388608   \t "
                                   "captureUsed:8388608   \t allSize:8388608   \t allNum:1\t "
                                   "SysSize:8388608   \t SysNum:1\t\n"))
        << LogCapture::Dump();
    EXPECT_EQ(8 * kMiB, peer().sosAllSize());

    TalMemChunk* b = Direct(2 * kMiB, kCapture, "algoB"); // recorded with status 1
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, b);
    EXPECT_EQ(2 * kMiB, peer().snapSizeSos2Frame());
    EXPECT_EQ(2 * kMiB, peer().snapSysSizeSos2Frame());
    EXPECT_EQ(0u, peer().totalSize()) << "because direct chunks before a frame are not totals";

    TalMemChunk* c = Direct(50 * kMiB, kCapture, "algoC");
    c->poolId = 1;
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, c);
    EXPECT_EQ(50 * kMiB, peer().totalSize()) << "because pool chunks always count";
    EXPECT_EQ(50 * kMiB, peer().peakSize());
    EXPECT_EQ(50u, peer().peakSizeRatio());

    Stream(2);
    LogCapture::Clear();
    Event(qv::TAL_MEM_MONITOR_FRAME);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem SnapShotStatus Frame     \t totalSize:0         \t "
                                   "totalNum:0  \t SysSize:0         \t SysNum:0  \t "
                                   "snapSizeSos2Frame:2097152   \t sysSizePeak:0         \t "
                                   "peakSizeRatio:50\t\n"))
        << LogCapture::Dump();
    EXPECT_EQ(50 * kMiB, peer().snapInPoolSize());
    EXPECT_EQ(60 * kMiB, peer().frameAllSize());

    TalMemChunk* d = Direct(4 * kMiB, kCapture, "algoD"); // status 2
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, d);
    EXPECT_EQ(4 * kMiB, peer().totalSize());
    EXPECT_EQ(1u, peer().snapSysNum());
    EXPECT_EQ(4 * kMiB, peer().sysSizePeak());
    EXPECT_EQ(4 * kMiB, peer().peakSize());
    EXPECT_EQ(50u, peer().peakSizeRatio()) << "because the ratio uses the in-pool snapshot";

    Event(qv::TAL_MEM_MONITOR_POOL_FREE, c);
    EXPECT_EQ(0u, peer().totalSize()) << "because 4 MiB minus 50 MiB stops at zero";
    EXPECT_EQ(0u, peer().snapInPoolSize());
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, b);
    EXPECT_EQ(0u, peer().snapSizeSos2Frame()) << "because b was allocated at status 1";
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, d);
    EXPECT_EQ(0u, peer().snapSysSize());
    EXPECT_EQ(0u, peer().snapSysNum());

    LogCapture::Clear();
    Event(qv::TAL_MEM_MONITOR_EOS);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem SnapShotStatus EOS       \t totalSize:0         \t "
                                   "totalNum:0  \t SysSize:0         \t SysNum:0  \t "
                                   "snapSizeSos2Frame:0         \t sysSizePeak:4194304   \t "
                                   "peakSizeRatio:50\t\n"))
        << LogCapture::Dump();
    EXPECT_EQ(8 * kMiB, peer().allSize());
    EXPECT_EQ(60 * kMiB + 4 * kMiB, peer().allSizePeak());
}

TEST_F(MonitorTest, Ratio_IsTheNearestPercentAndZeroBelowOneMiBOfPools)
{
    AddPool(0xFFFFF);
    Bind();
    monitor().UpdateRecipOfPoolSize();
    EXPECT_EQ(0u, peer().recipOfPoolSize());
    TalMemChunk* c = Direct(0x80000, kCapture, "algoC");
    c->poolId = 1;
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, c);
    Stream(2);
    Event(qv::TAL_MEM_MONITOR_FRAME);
    EXPECT_EQ(0u, peer().peakSizeRatio());

    // One byte more makes the pools exactly 1 MiB: half of it in use is 50 %.
    AddPool(1);
    monitor().UpdateRecipOfPoolSize();
    EXPECT_EQ(819200u, peer().recipOfPoolSize());
    Event(qv::TAL_MEM_MONITOR_FRAME);
    EXPECT_EQ(50u, peer().peakSizeRatio());

    // 25.5 MiB of 100 MiB rounds up to 26.
    AddPool(100 * kMiB - kMiB);
    monitor().UpdateRecipOfPoolSize();
    EXPECT_EQ(8192u, peer().recipOfPoolSize());
    TalMemChunk* d = Direct(25 * kMiB, kCapture, "algoD");
    d->poolId = 1;
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, d);
    Event(qv::TAL_MEM_MONITOR_FRAME);
    EXPECT_EQ(26u, peer().peakSizeRatio());
}

TEST_F(MonitorTest, DirectAllocation_OutsideAStream_ChangesOnlyPoolStatus)
{
    Bind();
    for (uint32_t state : {0u, 3u}) {
        SCOPED_TRACE(state);
        Stream(state);
        TalMemChunk* chunk = Direct(8192, kOthers, "algoO");
        Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, chunk);
        EXPECT_EQ(0u, peer().totalSize());
        EXPECT_EQ(0u, peer().snapSysSize());
        EXPECT_EQ(0u, peer().snapSizeSos2Frame());
        EXPECT_EQ(0u, peer().peakSize());
        Event(qv::TAL_MEM_MONITOR_SYS_FREE, chunk);
        EXPECT_EQ(0u, peer().allSize());
    }
}

TEST_F(MonitorTest, Crossing_PrintsCrossingLineAndSkipsSnapshotAndAlgorithms)
{
    Bind();
    Stream(2);
    impl_->ppCrossing = true;
    TalMemChunk* chunk = Direct(8192, kCapture, "algoX");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, chunk);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem Crossing PoolStatus SysAlloc  \t algoName:algoX          "
                                   "\t algoSize:+8192      \t allSize:8192      \t allNum:1\t "
                                   "allSizePeak:8192      \t SysSize:8192      \t SysNum:1\t \n"))
        << LogCapture::Dump();
    EXPECT_EQ(0u, peer().totalSize());
    EXPECT_EQ(nullptr, peer().algo(kCapture, "algoX"));
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, chunk);
    EXPECT_EQ(1, LogCapture::CountContaining("Crossing PoolStatus SysFree   \t algoName:algoX"));
    EXPECT_EQ(1, LogCapture::CountContaining("algoSize:-8192      \t allSize:0"));
    EXPECT_EQ(0, LogCapture::CountContaining("COUNT_FREE")) << "because no algorithm accounting";
}

TEST_F(MonitorTest, RealtimePoolStatus_PrintsOneOfThreeLinesPerEvent)
{
    TalHostSetProperty("persist.vendor.talmem.prt.rtpoolstatus", "1");
    Bind();
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem ReadProperties printRealtimePoolStatus enabled\n"));
    TalMemChunk* a = Direct(4096, kPreview, "prev");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, a);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem PoolStatus SysAlloc  \t algoName:prev           \t "
                                   "algoSize:+4096      \t allSize:4096      \tallNum:1\t "
                                   "allSizePeak:4096      \t SysSize:4096      \t SysNum:1\t \n"))
        << LogCapture::Dump();

    Stream(2);
    TalMemChunk* b = Direct(8192, kCapture, "cap");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, b);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem SnapShotStatus SysAlloc  \t algoName:cap            \t "
                                   "algoSize:+8192      \t totalSize:8192      \t totalNum:1  \t "
                                   "SysSize:8192      \t SysNum:1  \t peakSize:8192      \t "
                                   "peakSizeRatio:0\t \n"))
        << LogCapture::Dump();
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, b);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem SnapShotStatus SysFree   \t algoName:cap            \t "
                                   "algoSize:-8192      \t totalSize:0         \t totalNum:0  \t "
                                   "SysSize:0         \t SysNum:0  \t \n"))
        << LogCapture::Dump();
}

TEST_F(MonitorTest, RealtimePoolStatusOff_PrintsNothingForAllocations)
{
    Bind();
    TalMemChunk* a = Direct(4096, kPreview, "prev");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, a);
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, a);
    EXPECT_EQ(0, LogCapture::CountContaining("PoolStatus")) << LogCapture::Dump();
    EXPECT_EQ(0, LogCapture::CountContaining("SnapShotStatus"));
}

TEST_F(MonitorTest, PoolSizes_CountPoolsDirectChunksAndIdleReuseChunks)
{
    AddPool(4 * kMiB, 1);
    AddPool(2 * kMiB, 2);
    Bind();
    // Preview-reuse chunks owned by the manager: one idle, one in use.
    TalMemChunk* idle = new TalMemChunk(3 * 4096, 0, 0, 1, "idle", 1);
    idle->inUse = 0;
    impl_->sysPrevMcMap[reinterpret_cast<void*>(0x1000)] = idle;
    TalMemChunk* busy = new TalMemChunk(5 * 4096, 0, 0, 1, "busy", 1);
    busy->inUse = 1;
    impl_->sysPrevMcMap[reinterpret_cast<void*>(0x2000)] = busy;

    TalMemChunk* cap = Direct(8192, kCapture, "cap");
    TalMemChunk* prev = Direct(4096, kPreview, "prev");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, cap);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, prev);

    EXPECT_EQ(6 * kMiB, monitor().GetPoolSize(qv::TAL_MEM_GETSIZE_IN_POOL));
    EXPECT_EQ(8192u + 4096u + 3 * 4096u, monitor().GetPoolSize(qv::TAL_MEM_GETSIZE_OUT_POOL))
        << "because only idle reuse chunks are added";
    EXPECT_EQ(6 * kMiB + 8192u + 4096u + 3 * 4096u,
              monitor().GetPoolSize(qv::TAL_MEM_GETSIZE_ALL));
    EXPECT_EQ(0u, monitor().GetPoolSize(static_cast<qv::TAL_MEM_GETSIZE_TYPE>(3)));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem GetPoolSize() error: getSizeType 3 no define\n"));

    unsigned int preview = 0;
    monitor().GetAllPreviewSize(preview);
    EXPECT_EQ(4096u + 3 * 4096u, preview);
    unsigned int capture = 0;
    monitor().GetAllCaptureSize(capture);
    EXPECT_EQ(6 * kMiB + 8192u, capture);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG, "QvCamMem pooLeakSize 0 outPooLeakSize 0\n"));
}

TEST_F(MonitorTest, AllCaptureSize_SubtractsLeakedPoolChunks)
{
    AddPool(4 * kMiB, 1);
    Bind();
    TalMemChunk* pool = CameraPool(kMiB);
    TalMemChunk* carved = Carved(pool, 0, 65536, kCapture, "cap");
    TalMemChunk* direct = Direct(8192, kCapture, "cap");
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, carved);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, direct);
    monitor().RegisterAllocatorRef(kCapture, "cap");
    monitor().UnregisterAllocatorRef(kCapture, "cap");
    ASSERT_EQ(2u, peer().leakList().size());

    LogCapture::Clear();
    unsigned int capture = 0;
    monitor().GetAllCaptureSize(capture);
    EXPECT_EQ(4 * kMiB - 65536u, capture)
        << "because the leaked direct chunk left the map and the pool leak is subtracted";
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem pooLeakSize 65536 outPooLeakSize 8192\n"));

}

TEST_F(MonitorTest, AllCaptureSize_WithoutPools_DoesNotSubtractBelowZero)
{
    Bind();
    TalMemChunk* pool = CameraPool(kMiB);
    TalMemChunk* carved = Carved(pool, 0, 65536, kCapture, "cap");
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, carved);
    ASSERT_TRUE(monitor().AddChunkLeakRecord(carved));
    unsigned int capture = 0;
    monitor().GetAllCaptureSize(capture);
    EXPECT_EQ(0u, capture) << "because a total not above the pool leak is left as it is";
}

TEST_F(MonitorTest, PeakChunkList_KeptAtEachPeakAndPrintedAtEosWithMaskedAddresses)
{
    TalHostSetProperty("persist.vendor.talmem.prt.pksizemclist", "1");
    Bind();
    Stream(2);
    Event(qv::TAL_MEM_MONITOR_FRAME);
    TalMemChunk* pool = CameraPool(kMiB);
    TalMemChunk* carved = Carved(pool, 8192, 16384, kCapture, "capAlgo", "capMod");
    TalMemChunk* direct = Direct(4096, kPreview, "prevAlgo", true, "prevMod");
    direct->SetUsedSize(2048);
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, carved);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, direct);
    ASSERT_EQ(2u, peer().peakList().size());
    EXPECT_EQ(16384u, peer().peakList().front().size) << "because pool chunks give their size";
    EXPECT_EQ(2048u, peer().peakList().back().size) << "because direct chunks give their use";

    // A release lowers the total: no new peak, the list stays.
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, direct);
    EXPECT_EQ(2u, peer().peakList().size());

    LogCapture::Clear();
    Event(qv::TAL_MEM_MONITOR_EOS);
    char expected[256];
    snprintf(expected, sizeof(expected),
             "CamMem EOS printPeakSizeMemChunkList algoName:capAlgo moduleName:capMod "
             "allocateType:0 addr:0x%lx size:16384\n",
             Masked(carved->GetAddr()));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG, expected)) << LogCapture::Dump();
    snprintf(expected, sizeof(expected),
             "CamMem EOS printPeakSizeMemChunkList algoName:prevAlgo moduleName:prevMod "
             "allocateType:1 addr:0x%lx size:2048\n",
             Masked(direct->GetAddr()));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG, expected)) << LogCapture::Dump();
    for (const std::string& hex : HexNumbersIn("printPeakSizeMemChunkList")) {
        EXPECT_LE(hex.size(), 6u) << hex;
    }

    LogCapture::Clear();
    Event(qv::TAL_MEM_MONITOR_FRAME);
    EXPECT_TRUE(peer().peakList().empty()) << "because each frame restarts the peak";
}

TEST_F(MonitorTest, PeakChunkListOff_KeepsAndPrintsNothing)
{
    Bind();
    Stream(2);
    TalMemChunk* direct = Direct(4096, kPreview, "prevAlgo");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, direct);
    EXPECT_TRUE(peer().peakList().empty());
    Event(qv::TAL_MEM_MONITOR_EOS);
    EXPECT_EQ(0, LogCapture::CountContaining("printPeakSizeMemChunkList"));
}

} // namespace
} // namespace monitor_test
