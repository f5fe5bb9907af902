// Usage and per-algorithm accounting: pool status counters, chunk indexes,
// the snapshot account of a stream with its peak and ratio, status lines,
// and the per-algorithm records with their summaries.

#include "MonitorTestUtil.h"

namespace monitor_test {
namespace {

using qv::AlgoMemInfo;
using qv::TalMemPoolMonitor;
constexpr unsigned M = kMiB;

// One stream with the realtime pool status and algorithm table on: every event
// prints exactly one status line, and the snapshot account moves with it.
TEST_F(MonitorTest, Stream_PrintsOneStatusLinePerEventAndKeepsTheSnapshot)
{
    TalHostSetProperty("persist.vendor.talmem.prt.rtalgoinfo", "1");
    Reset("persist.vendor.talmem.prt.rtpoolstatus");
    AddPool(100 * M);
    monitor().UpdateRecipOfPoolSize();
    TalMemChunk* a = Direct(8 * M, kCapture, "algoA");
    Stream(1);
    TalMemChunk* b = Direct(2 * M, kCapture, "algoB");
    TalMemChunk* c = Direct(50 * M, kCapture, "algoC", false, "mod", 1); // a pool chunk
    Stream(2);
    TalMemChunk* d = Direct(4 * M, kCapture, "algoD");
    Stream(3);
    TalMemChunk* f = Direct(M, kOthers, "algoF");
    // total, peak, ratio, snapInPool, snapSys, sysPeak, snapSysNum, totalNum,
    // sosAllSize, sosAllNum, frameAllSize, frameAllNum, sos2Frame, sysSos2Frame.
    const Counters eos = {0, 4 * M, 50, 0, 0, 4 * M, 0, 0, 8 * M, 1, 60 * M, 3, 0, 2 * M};
    struct Step {
        uint32_t state;
        qv::TAL_MEM_MONITOR_TYPE type;
        TalMemChunk* chunk;
        std::string line;
        Counters snap; // empty: not checked
    } steps[] = {
        {0, kSysAlloc, a, PoolLine("SysAlloc", "algoA", "+", 8 * M, 8 * M, 1, 8 * M, 8 * M, 1), Counters(14, 0)},
        {1, kSos, nullptr, SosLine(8 * M, 8 * M, 8 * M, 1, 8 * M, 1), {0, 0, 0, 0, 0, 0, 0, 0, 8 * M, 1, 0, 0, 0, 0}},
        {1, kSysAlloc, b, PoolLine("SysAlloc", "algoB", "+", 2 * M, 10 * M, 2, 10 * M, 10 * M, 2),
         {0, 0, 0, 0, 0, 0, 0, 0, 8 * M, 1, 0, 0, 2 * M, 2 * M}},
        {1, kPoolAlloc, c, PoolLine("PoolAlloc", "algoC", "+", 50 * M, 60 * M, 3, 60 * M, 10 * M, 2),
         {50 * M, 50 * M, 50, 50 * M, 0, 0, 0, 1, 8 * M, 1, 0, 0, 2 * M, 2 * M}},
        {2, kFrame, nullptr, StreamLine("Frame", 0, 0, 0, 0, 2 * M, 0, 50),
         {0, 0, 50, 50 * M, 0, 0, 0, 0, 8 * M, 1, 60 * M, 3, 2 * M, 2 * M}},
        {2, kSysAlloc, d, SnapLine("SysAlloc", "algoD", "+", 4 * M, 4 * M, 1, 4 * M, 1, 4 * M, 50),
         {4 * M, 4 * M, 50, 50 * M, 4 * M, 4 * M, 1, 1, 8 * M, 1, 60 * M, 3, 2 * M, 2 * M}},
        // Releases stop at zero; b was allocated before the frame.
        {2, kPoolFree, c, SnapLine("PoolFree", "algoC", "-", 50 * M, 0, 0, 4 * M, 1), {}},
        {2, kSysFree, b, SnapLine("SysFree", "algoB", "-", 2 * M, 0, 0, 4 * M, 1), {}},
        {2, kSysFree, d, SnapLine("SysFree", "algoD", "-", 4 * M, 0, 0, 0, 0), {}},
        {2, kSysAlloc, d, SnapLine("SysAlloc", "algoD", "+", 4 * M, 4 * M, 1, 4 * M, 1), {}}, // equal: no new peak
        {2, kSysFree, d, SnapLine("SysFree", "algoD", "-", 4 * M, 0, 0, 0, 0), {}},
        {2, kEos, nullptr, StreamLine("EOS", 0, 0, 0, 0, 0, 4 * M, 50), eos},
        {3, kSysAlloc, f, PoolLine("SysAlloc", "algoF", "+", M, 9 * M, 2, 64 * M, 9 * M, 2), eos},
    };
    int algoLines = 0;
    for (const Step& s : steps) {
        SCOPED_TRACE(s.line);
        LogCapture::Clear();
        Stream(s.state);
        Event(s.type, s.chunk);
        EXPECT_TRUE(Once(s.line));
        EXPECT_EQ(1, LogCapture::CountContaining("Status ")) << "because one line per event";
        EXPECT_TRUE(s.snap.empty() || s.snap == peer().snap()) << ::testing::PrintToString(peer().snap());
        algoLines += LogCapture::CountContaining("DumpAlgoMemInfo, algoName=algoA");
    }
    EXPECT_EQ(10, algoLines) << "because the table is printed after every change";
    EXPECT_TRUE(Once("QvCamMem DumpAlgoMemInfo, algoName=algoF allocateType:Others usedSizeCurrent=1048576 "
                     "usedChunkNum=1 usedSizePeak=1048576\n"));
    EXPECT_EQ(Counters({9 * M, 9 * M, 2, 2, 64 * M}), peer().pool());
    EXPECT_EQ(Counters({8 * M, 0, M}), Counters({peer().used(0), peer().used(1), peer().used(2)}));

    // A post-processing crossing counts the pool status only, with its own line.
    impl_->ppCrossing = true;
    LogCapture::Clear();
    Free({f});
    EXPECT_TRUE(Once(PoolLine("SysFree", "algoF", "-", M, 8 * M, 1, 64 * M, 8 * M, 1, true)));
    EXPECT_EQ(1u, LogCapture::Lines().size()) << "because no snapshot or algorithm accounting";
    EXPECT_EQ(eos, peer().snap());
    EXPECT_EQ(M, peer().algo(kOthers, "algoF")->usedSizeCurrent);
}

TEST_F(MonitorTest, Ratio_IsTheNearestPercentOfThePoolsAndZeroBelowOneMiB)
{
    const struct {
        std::vector<uint32_t> pools;
        uint32_t inPool;
        unsigned ratio;
    } cases[] = {{{0xFFFFF}, 0x80000, 0}, {{M}, 0x80000, 50}, {{60 * M, 40 * M}, 50 * M, 50},
                 {{100 * M}, 25 * M + M / 2, 26}, {{100 * M}, 26000 * 1024, 25}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.inPool);
        Reset();
        std::for_each(c.pools.begin(), c.pools.end(), [this](uint32_t size) { AddPool(size); });
        monitor().UpdateRecipOfPoolSize();
        Alloc({Direct(c.inPool, kCapture, "r", false, "m", 1)});
        Stream(2);
        Event(kFrame);
        EXPECT_TRUE(Once(StreamLine("Frame", 0, 0, 0, 0, 0, 0, c.ratio)));
    }
}

TEST_F(MonitorTest, BadInput_IsLoggedAndNeverCorruptsTheCounters)
{
    EXPECT_EQ("Check Unknown Unknown Unknown", Fmt("%s %s %s %s", TalMemPoolMonitor::MonitorType2str(9),
        TalMemPoolMonitor::MonitorType2str(-1), TalMemPoolMonitor::MonitorType2str(10),
        TalMemPoolMonitor::AllocateType2str(3)));
    EXPECT_DEATH(monitor().CheckUpdateAlgoInfo(3), "") << "because the per-type arrays have three entries";
    EXPECT_DEATH(monitor().UpdateAlgoMemInfo(qv::TAL_MEM_MONITOR_CLEAR, -1, "x", 0, 0), "");
    for (int bad : {-1, 3, 1000}) { // counted as Capture
        Alloc({Direct(4096, bad, "algoBad")});
        EXPECT_TRUE(Once(Fmt("QvCamMem UpdateMemoryStatus(), allocatetype = %d error.\n", bad), ANDROID_LOG_ERROR));
    }
    EXPECT_EQ(Counters({3 * 4096, 3 * 4096}),
              Counters({peer().used(kCapture), peer().algo(kCapture, "algoBad")->usedSizeCurrent}));
    const Counters pool = peer().pool();
    Event(static_cast<qv::TAL_MEM_MONITOR_TYPE>(12), Direct(4096, kCapture, "algoBad"));
    EXPECT_EQ(2, LogCapture::Count(ANDROID_LOG_DEBUG, "QvCamMem unknow monitor type 12\n")) << "map and snapshot";
    EXPECT_TRUE(Once("QvCamMem UpdateAlgoMemInfo() error: countType 12 no define\n", ANDROID_LOG_ERROR));
    EXPECT_EQ(pool, peer().pool());
    EXPECT_EQ(0u, monitor().GetPoolSize(static_cast<qv::TAL_MEM_GETSIZE_TYPE>(3)));
    EXPECT_TRUE(Once("QvCamMem GetPoolSize() error: getSizeType 3 no define\n", ANDROID_LOG_ERROR));

    // Releases never allocated (or of another type): the pool status wraps, the
    // snapshot stops at zero, the algorithm list does not know the name.
    Reset();
    Alloc({Direct(4096, kCapture, "known")});
    StartStream();
    Free({Direct(8192, kCapture, "stranger"), Direct(4096, kPreview, "known")});
    EXPECT_EQ(Counters({0u - 8192, 0u - 8192, 0u - 1, 0u - 1, 4096}), peer().pool());
    EXPECT_EQ(Counters({0, 0, 0, 0, 0, 0, 0, 0, 4096, 1, 4096, 1, 0, 0}), peer().snap());
    for (const char* what : {"stranger size=8192", "known size=4096"}) {
        EXPECT_TRUE(Once(std::string("QvCamMem dumpMemInfo FreeUpdateAlgoInfo, case COUNT_FREE: not found in "
                                     "AlgoMemInfo list. algoName=") + what + "\n", ANDROID_LOG_ERROR));
    }
    EXPECT_TRUE(peer().algo(kCapture, "known")->usedSizeCurrent == 4096 && peer().algoList(kPreview).empty());
}

// Every counter of a record, in declaration order.
Counters Fields(const AlgoMemInfo* i)
{
    return {i->keepOnEos,   i->usedSizeCurrent, i->usedChunkNum,  i->usedSizePeak,      i->sizeOnSos,
            i->sizeOnFrame, i->allocNumFrame,   i->freeNumFrame,  i->sizeFrame2Eos,     i->peakSizeFrame2Eos,
            i->sizeSos2Eos, i->peakSizeSos2Eos, i->poolSizeFrame2Eos, i->poolPeakFrame2Eos};
}

TEST_F(MonitorTest, Algo_AllocationsReleasesAndStreamEvents_MoveEveryCounter)
{
    StartStream();
    const unsigned K = 4096;
    TalMemChunk* ten = Direct(10 * K, kCapture, "algoA");
    TalMemChunk* five = Direct(5 * K, kCapture, "algoA");
    five->SetForceFromSys(1); // not pool use
    Alloc({ten, five});
    Free({ten});
    const AlgoMemInfo* info = peer().algo(kCapture, "algoA");
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(Counters({0, 5 * K, 1, 15 * K, 0, 0, 2, 1, 5 * K, 15 * K, 5 * K, 15 * K, 0, 10 * K}), Fields(info));
    Event(kFrame);
    EXPECT_EQ(Counters({0, 5 * K, 1, 5 * K, 0, 5 * K, 0, 0, 0, 0, 5 * K, 15 * K, 0, 0}), Fields(info));
    Event(kSos);
    EXPECT_EQ(Counters({0, 5 * K, 1, 5 * K, 5 * K, 5 * K, 0, 0, 0, 0, 0, 0, 0, 0}), Fields(info));
    Free({five, five}); // balances stop at zero; the current use and chunk count wrap
    EXPECT_EQ(Counters({0, 0u - 5 * K, 0u - 1, 5 * K, 5 * K, 5 * K, 0, 2, 0, 0, 0, 0, 0, 0}), Fields(info));

    const std::string base(127, 'n'); // names match over 127 characters, per allocate type
    Alloc({Direct(4096, kPreview, base + "A"), Direct(8192, kPreview, base + "B"), Direct(4096, kOthers, base + "A")});
    ASSERT_EQ(1u, peer().algoList(kPreview).size()) << "because both names share 127 characters";
    EXPECT_EQ(base, std::string(peer().algoList(kPreview).front().algoName)) << "cut at 127";
    EXPECT_EQ(12288u, peer().algoList(kPreview).front().usedSizeCurrent);
    EXPECT_EQ(1u, peer().algoList(kOthers).size());
}

TEST_F(MonitorTest, Algo_EosSummaryForgetsIdleRecords_CheckErasesKeptOnes_ClearEmptiesAll)
{
    StartStream();
    TalMemChunk* wasHeld = Direct(4096, kOthers, "wasHeld");
    TalMemChunk* leaver = Direct(4096, kPreview, "leaver");
    TalMemChunk* idle = Direct(4096, kOthers, "idleNotKept");
    Alloc({wasHeld, Direct(8192, kOthers, "stillHeld"), leaver});
    Free({leaver});
    const char* kLine = "QvCamMem DumpAlgoMemInfo algoName: %-20s\t allocateType: %-10s\t peakSizeFrame2Eos:%-10d\t "
                        "realTimeSizeOnEos: %-10d\t peakSizeSos2Eos: %-10d\t usedSizePeak:%-10d\t \n";
    Event(kEos);
    EXPECT_TRUE(Once(Fmt(kLine, "stillHeld", "Others", 8192, 8192, 8192, 8192)));
    EXPECT_TRUE(Once(Fmt(kLine, "leaver", "Preview", 4096, 0, 4096, 4096)));
    EXPECT_EQ(nullptr, peer().algo(kPreview, "leaver")) << "because it held nothing";
    EXPECT_EQ(1u, peer().algo(kOthers, "wasHeld")->keepOnEos);
    Event(kEos);
    EXPECT_EQ(1, LogCapture::CountContaining("leaver")) << "because it was printed once";
    Free({wasHeld});
    Alloc({idle});
    Free({idle});
    LogCapture::Clear();
    monitor().CheckUpdateAlgoInfo(kOthers);
    EXPECT_EQ(nullptr, peer().algo(kOthers, "wasHeld"));
    EXPECT_NE(nullptr, peer().algo(kOthers, "idleNotKept")) << "because no summary kept it";
    EXPECT_TRUE(Once("QvCamMem CheckUpdateAlgoInfo() CHECK error: algoName(stillHeld), current(8192), peak(8192), "
                     "chunkNum(1)\n", ANDROID_LOG_ERROR));
    EXPECT_EQ(1u, LogCapture::Lines().size());

    // ClearAlgoInfo empties the lists and the snapshot, and keeps the pool status.
    AddPool(100 * M);
    monitor().UpdateRecipOfPoolSize();
    Alloc({Direct(8 * M, kCapture, "pool", false, "mod", 1)});
    StartStream();
    ASSERT_NE(Counters(14, 0), peer().snap());
    const Counters pool = peer().pool();
    monitor().ClearAlgoInfo();
    EXPECT_TRUE(peer().algoList(kCapture).empty() && peer().algoList(kOthers).empty());
    EXPECT_EQ(Counters(14, 0), peer().snap());
    EXPECT_EQ(pool, peer().pool());
}

} // namespace
} // namespace monitor_test
