// Per-algorithm accounting: records per allocate type driven by the events,
// the end-of-stream summary, Release/Clear/Check and ClearAlgoInfo.

#include "MonitorTestUtil.h"

namespace monitor_test {
namespace {

using qv::AlgoMemInfo;
using qv::TalMemChunk;
using talmem_test::LogCapture;

std::string EosLine(const std::string& algo, const std::string& type, unsigned peakF2E,
                    unsigned current, unsigned peakS2E, unsigned peak)
{
    return "QvCamMem DumpAlgoMemInfo algoName: " + L(algo, 20) + "\t allocateType: " +
           L(type, 10) + "\t peakSizeFrame2Eos:" + L(peakF2E, 10) +
           "\t realTimeSizeOnEos: " + L(current, 10) + "\t peakSizeSos2Eos: " + L(peakS2E, 10) +
           "\t usedSizePeak:" + L(peak, 10) + "\t \n";
}

TEST_F(MonitorTest, Algo_FrameAllocAllocFree_KeepsBalancesAndPeaks)
{
    Bind();
    Stream(1);
    Event(qv::TAL_MEM_MONITOR_SOS);
    Stream(2);
    Event(qv::TAL_MEM_MONITOR_FRAME);
    TalMemChunk* ten = Direct(10 * 4096, kCapture, "algoA");
    TalMemChunk* five = Direct(5 * 4096, kCapture, "algoA");
    five->SetForceFromSys(1);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, ten);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, five);
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, ten);

    const AlgoMemInfo* info = peer().algo(kCapture, "algoA");
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(5u * 4096, info->usedSizeCurrent);
    EXPECT_EQ(1u, info->usedChunkNum);
    EXPECT_EQ(15u * 4096, info->usedSizePeak);
    EXPECT_EQ(5u * 4096, info->sizeFrame2Eos);
    EXPECT_EQ(15u * 4096, info->peakSizeFrame2Eos);
    EXPECT_EQ(5u * 4096, info->sizeSos2Eos);
    EXPECT_EQ(15u * 4096, info->peakSizeSos2Eos);
    EXPECT_EQ(0u, info->poolSizeFrame2Eos) << "because the forced chunk is not pool use";
    EXPECT_EQ(10u * 4096, info->poolPeakFrame2Eos);
    EXPECT_EQ(2u, info->allocNumFrame);
    EXPECT_EQ(1u, info->freeNumFrame);

    // The next frame restarts the frame balances at the current use.
    Event(qv::TAL_MEM_MONITOR_FRAME);
    EXPECT_EQ(0u, info->peakSizeFrame2Eos);
    EXPECT_EQ(5u * 4096, info->usedSizePeak);
    EXPECT_EQ(5u * 4096, info->sizeOnFrame);
    EXPECT_EQ(0u, info->allocNumFrame);
    EXPECT_EQ(5u * 4096, info->sizeSos2Eos) << "because only SOS resets the stream balance";
    Event(qv::TAL_MEM_MONITOR_SOS);
    EXPECT_EQ(0u, info->sizeSos2Eos);
    EXPECT_EQ(5u * 4096, info->sizeOnSos);
}

TEST_F(MonitorTest, Algo_RecordsAreKeptPerAllocateTypeAndNamesMatchOver127Chars)
{
    Bind();
    const std::string base(127, 'n');
    TalMemChunk* a = Direct(4096, kPreview, base + "A");
    TalMemChunk* b = Direct(8192, kPreview, base + "B");
    TalMemChunk* other = Direct(4096, kOthers, base + "A");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, a);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, b);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, other);
    ASSERT_EQ(1u, peer().algoList(kPreview).size()) << "because both names share 127 characters";
    const AlgoMemInfo& rec = peer().algoList(kPreview).front();
    EXPECT_EQ(base, std::string(rec.algoName)) << "because the stored name is cut at 127";
    EXPECT_EQ(12288u, rec.usedSizeCurrent);
    EXPECT_EQ(2u, rec.usedChunkNum);
    EXPECT_EQ(1u, peer().algoList(kOthers).size());
    EXPECT_TRUE(peer().algoList(kCapture).empty());
}

TEST_F(MonitorTest, Algo_ReleaseOfUnknownName_LogsCountFreeAndChangesNothing)
{
    Bind();
    TalMemChunk* a = Direct(4096, kCapture, "known");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, a);
    TalMemChunk* stranger = Direct(8192, kCapture, "stranger");
    TalMemChunk* wrongType = Direct(4096, kPreview, "known");
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, stranger);
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, wrongType);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem dumpMemInfo FreeUpdateAlgoInfo, case COUNT_FREE: not "
                                   "found in AlgoMemInfo list. algoName=stranger size=8192\n"));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem dumpMemInfo FreeUpdateAlgoInfo, case COUNT_FREE: not "
                                   "found in AlgoMemInfo list. algoName=known size=4096\n"));
    EXPECT_EQ(4096u, peer().algo(kCapture, "known")->usedSizeCurrent);
    EXPECT_TRUE(peer().algoList(kPreview).empty());
}

TEST_F(MonitorTest, Algo_EosSummary_PrintsEveryRecordOnceAndForgetsIdleOnes)
{
    Bind();
    Stream(1);
    Event(qv::TAL_MEM_MONITOR_SOS);
    Stream(2);
    Event(qv::TAL_MEM_MONITOR_FRAME);
    TalMemChunk* held = Direct(8192, kCapture, "holder");
    TalMemChunk* gone = Direct(4096, kPreview, "leaver");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, held);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, gone);
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, gone);

    LogCapture::Clear();
    Event(qv::TAL_MEM_MONITOR_EOS);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   EosLine("holder", "Capture", 8192, 8192, 8192, 8192)))
        << LogCapture::Dump();
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   EosLine("leaver", "Preview", 4096, 0, 4096, 4096)));
    EXPECT_EQ(nullptr, peer().algo(kPreview, "leaver"));
    ASSERT_NE(nullptr, peer().algo(kCapture, "holder"));
    EXPECT_EQ(1u, peer().algo(kCapture, "holder")->keepOnEos);

    LogCapture::Clear();
    Event(qv::TAL_MEM_MONITOR_EOS);
    EXPECT_EQ(0, LogCapture::CountContaining("leaver")) << "because it was printed once";
}

TEST_F(MonitorTest, Algo_CheckAfterEos_ErasesKeptIdleRecordsAndReportsHolders)
{
    Bind();
    TalMemChunk* a = Direct(4096, kOthers, "wasHeld");
    TalMemChunk* b = Direct(8192, kOthers, "stillHeld");
    TalMemChunk* c = Direct(4096, kOthers, "idleNotKept");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, a);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, b);
    Event(qv::TAL_MEM_MONITOR_EOS); // a and b are kept
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, a);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, c);
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, c);

    LogCapture::Clear();
    monitor().CheckUpdateAlgoInfo(kOthers);
    EXPECT_EQ(nullptr, peer().algo(kOthers, "wasHeld"));
    EXPECT_NE(nullptr, peer().algo(kOthers, "stillHeld"));
    EXPECT_NE(nullptr, peer().algo(kOthers, "idleNotKept")) << "because no summary kept it";
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem CheckUpdateAlgoInfo() CHECK error: algoName(stillHeld), "
                                   "current(8192), peak(8192), chunkNum(1)\n"))
        << LogCapture::Dump();
    EXPECT_EQ(1, static_cast<int>(LogCapture::Lines().size()));
}

TEST_F(MonitorTest, Algo_CommandEvents_ReleaseClearCheckActOnCaptureDefault)
{
    Bind();
    TalMemChunk* def = Direct(4096, kCapture, "default");
    TalMemChunk* keep = Direct(4096, kCapture, "keep");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, def);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, keep);

    Event(qv::TAL_MEM_MONITOR_RELEASE);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem ReleaseUpdateAlgoInfo() IPP_RELEASE: erase default\n"));
    EXPECT_EQ(nullptr, peer().algo(kCapture, "default"));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG, "QvCamMem unknow monitor type 7\n"));

    Event(qv::TAL_MEM_MONITOR_CHECK);
    EXPECT_EQ(1, LogCapture::CountContaining("CHECK error: algoName(keep)"));
    Event(qv::TAL_MEM_MONITOR_CLEAR);
    EXPECT_TRUE(peer().algoList(kCapture).empty());
    EXPECT_EQ(8192u, peer().allSize()) << "because commands do not touch the pool status";

    LogCapture::Clear();
    Event(static_cast<qv::TAL_MEM_MONITOR_TYPE>(12));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem UpdateAlgoMemInfo() error: countType 12 no define\n"));
    monitor().DumpAlgoMemInfo(static_cast<qv::TAL_MEM_COUNT_TYPE>(2));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR,
                                   "QvCamMem DumpAlgoMemInfo() error: dumpAlgoType 2 no define\n"));
}

TEST_F(MonitorTest, Algo_ClearAlgoInfo_EmptiesListsAndSnapshotButKeepsPoolStatus)
{
    AddPool(100 * kMiB);
    Bind();
    monitor().UpdateRecipOfPoolSize();
    Stream(2);
    TalMemChunk* chunk = Direct(8 * kMiB, kCapture, "algo");
    chunk->poolId = 1;
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, chunk);
    TalMemChunk* prev = Direct(4096, kPreview, "prev");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, prev);
    ASSERT_NE(0u, peer().peakSize());

    monitor().ClearAlgoInfo();
    for (int t = 0; t < 3; ++t) {
        EXPECT_TRUE(peer().algoList(t).empty());
    }
    EXPECT_EQ(0u, peer().totalSize());
    EXPECT_EQ(0u, peer().peakSize());
    EXPECT_EQ(0u, peer().peakSizeRatio());
    EXPECT_EQ(0u, peer().snapInPoolSize());
    EXPECT_EQ(8 * kMiB + 4096u, peer().allSize());
    EXPECT_TRUE(peer().inPoolMapHas(chunk));
}

TEST_F(MonitorTest, Algo_RealtimeSwitch_PrintsTheTableAfterEachChange)
{
    TalHostSetProperty("persist.vendor.talmem.prt.rtalgoinfo", "1");
    Bind();
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem ReadProperties printRealtimeAlgoInfo enabled\n"));
    TalMemChunk* a = Direct(4096, kPreview, "prevAlgo");
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, a);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem DumpAlgoMemInfo, algoName=prevAlgo allocateType:Preview "
                                   "usedSizeCurrent=4096 usedChunkNum=1 usedSizePeak=4096\n"));
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, a);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem DumpAlgoMemInfo, algoName=prevAlgo allocateType:Preview "
                                   "usedSizeCurrent=0 usedChunkNum=0 usedSizePeak=4096\n"));
}

} // namespace
} // namespace monitor_test
