// Dumps and debug properties: the switches, GetMemDumpInfo of every type,
// the printers, and the masking of every address that a dump line shows.

#include "MonitorTestUtil.h"

#include <cstdio>

namespace monitor_test {
namespace {

using qv::TalMemChunk;
using qv::TalMemPoolDumpInfo;
using qv::TalMemPoolRealtimeInfo;
using talmem_test::LogCapture;

TEST_F(MonitorTest, Properties_OnlyAValueStartingWithOneSwitchesOn)
{
    struct Case {
        const char* value; // null: unset
        bool on;
    };
    const Case cases[] = {{"10", true}, {"1", true}, {"01", false}, {"true", false},
                          {nullptr, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value == nullptr ? "unset" : c.value);
        TalHostClearProperties();
        if (c.value != nullptr) {
            TalHostSetProperty("persist.vendor.talmem.prt.rtalgoinfo", c.value);
            TalHostSetProperty("persist.vendor.talmem.prt.rtpoolstatus", c.value);
            TalHostSetProperty("persist.vendor.talmem.prt.pksizemclist", c.value);
        }
        qv::TalMemPoolMonitor fresh(impl_.get());
        LogCapture::Clear();
        fresh.PoolMonitorInit(impl_->poolChunkList, impl_->sysPrevMcMap);
        qv::TalMemPoolMonitorPeer p(fresh);
        bool pool = false, algo = false, peak = false;
        p.switches(pool, algo, peak);
        EXPECT_EQ(c.on, pool);
        EXPECT_EQ(c.on, algo);
        EXPECT_EQ(c.on, peak);
        EXPECT_EQ(c.on ? 3 : 0, static_cast<int>(LogCapture::Lines().size()));
        if (c.on) {
            // The order of the lines is the order the properties are read in.
            std::vector<talmem_test::LogLine> lines = LogCapture::Lines();
            EXPECT_EQ("QvCamMem ReadProperties printRealtimeAlgoInfo enabled\n", lines[0].message);
            EXPECT_EQ("QvCamMem ReadProperties printRealtimePoolStatus enabled\n",
                      lines[1].message);
            EXPECT_EQ("QvCamMem ReadProperties printPeakSizeMemChunkList enabled\n",
                      lines[2].message);
        }
    }
}

TEST_F(MonitorTest, Dump_RealtimeOnEmptyMonitor_GivesEmptyListsAndTwoHeaderLines)
{
    Bind();
    LogCapture::Clear();
    auto* rt = static_cast<TalMemPoolRealtimeInfo*>(monitor().GetMemDumpInfo(1));
    ASSERT_NE(nullptr, rt);
    EXPECT_TRUE(rt->captureList.empty());
    EXPECT_TRUE(rt->previewList.empty());
    EXPECT_TRUE(rt->othersList.empty());
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem DumpMemRealtimeInfo(): captureStatus:(STATUS_DEFAULT) "
                                   "poolSize(0), outPoolSize(0), inPoolUsed(0), outPoolUsed(0)\n"));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem DumpMemRealtimeInfo(): captureSize:(0), previewSize(0), "
                                   "captureUsed(0), previewUsed(0), othersUsed(0)\n"));
    EXPECT_EQ(0, LogCapture::CountContaining("memRealtimeInfo."));
}

TEST_F(MonitorTest, Dump_Realtime_ListsAlgorithmsAndFiguresOfTheWholeMonitor)
{
    AddPool(2 * kMiB);
    Bind();
    Stream(2);
    TalMemChunk* pool = CameraPool(kMiB);
    TalMemChunk* carved = Carved(pool, 0, 65536, kCapture, "capAlgo");
    TalMemChunk* prev = Direct(8192, kPreview, "prevAlgo", true);
    TalMemChunk* other = Direct(4096, kOthers, "otherAlgo", true);
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, carved);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, prev);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, other);
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, other);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, other);

    LogCapture::Clear();
    auto* rt = static_cast<TalMemPoolRealtimeInfo*>(monitor().GetMemDumpInfo(1));
    ASSERT_NE(nullptr, rt);
    EXPECT_EQ(2 * kMiB, rt->poolSize);
    EXPECT_EQ(8192u + 4096u, rt->outPoolSize);
    EXPECT_EQ(2 * kMiB + 4096u, rt->captureSize) << "because others count with capture";
    EXPECT_EQ(8192u, rt->previewSize);
    EXPECT_EQ(65536u, rt->inPoolUsed);
    EXPECT_EQ(8192u + 4096u, rt->outPoolUsed);
    EXPECT_EQ(65536u, rt->captureUsed);
    EXPECT_EQ(8192u, rt->previewUsed);
    EXPECT_EQ(4096u, rt->othersUsed);
    EXPECT_EQ(0u, rt->othersSize);
    ASSERT_EQ(1u, rt->othersList.size());
    EXPECT_EQ("otherAlgo", rt->othersList.front().algoName);
    EXPECT_EQ(4096, rt->othersList.front().usedSizeCurrent);
    EXPECT_EQ(4096, rt->othersList.front().peakUsedSize);
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem DumpMemRealtimeInfo(): captureStatus:(STATUS_FRAME) "
                                   "poolSize(2097152), outPoolSize(12288), inPoolUsed(65536), "
                                   "outPoolUsed(12288)\n"))
        << LogCapture::Dump();
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "QvCamMem memRealtimeInfo.previewList [1/1]: algoName:" +
                                       L("prevAlgo", 20) + "\t usedSizeCurrent:" + L(8192, 10) +
                                       "\t peakUsedSize:" + L(8192, 10) + "\t\n"));

    // The block is overwritten by the next dump of the same type.
    Event(qv::TAL_MEM_MONITOR_SYS_FREE, prev);
    EXPECT_EQ(rt, monitor().GetMemDumpInfo(1));
    EXPECT_EQ(0u, rt->previewUsed);
    EXPECT_EQ(0, rt->previewList.front().usedSizeCurrent);
}

TEST_F(MonitorTest, Dump_Error_SortsChunksByTypeIntoTheBlock)
{
    Bind();
    TalMemChunk* pool = CameraPool(kMiB);
    TalMemChunk* carved = Carved(pool, 4096, 8192, kCapture, "capAlgo", "capMod");
    TalMemChunk* prev = Direct(4096, kPreview, "prevAlgo", true, "prevMod");
    TalMemChunk* odd = Direct(4096, kOthers, "oddAlgo", true, "oddMod");
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, carved);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, prev);
    Event(qv::TAL_MEM_MONITOR_SYS_ALLOC, odd);
    odd->SetAllocateType(7); // changed after the event: listed with the others

    LogCapture::Clear();
    auto* dump = static_cast<TalMemPoolDumpInfo*>(monitor().GetMemDumpInfo(0));
    ASSERT_NE(nullptr, dump);
    ASSERT_EQ(1u, dump->captureList.size());
    EXPECT_EQ("capAlgo", dump->captureList.front().algoName);
    EXPECT_EQ("capMod", dump->captureList.front().moduleName);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(carved->GetAddr()), dump->captureList.front().addr)
        << "because the block keeps whole addresses; only log lines are masked";
    EXPECT_EQ(8192u, dump->captureList.front().size);
    EXPECT_EQ(0, dump->captureList.front().usedAgeInMs);
    ASSERT_EQ(1u, dump->previewList.size());
    ASSERT_EQ(1u, dump->othersList.size());
    EXPECT_EQ(7, dump->othersList.front().allocateType);
    EXPECT_EQ(8192u, dump->inPoolUsed);
    EXPECT_EQ(8192u, dump->outPoolUsed);
    char line[256];
    snprintf(line, sizeof(line),
             "QvCamMem memDumpInfo.captureList [1/1]: algoName(capAlgo), moduleName(capMod), "
             "allocateType(0), addr(0x%lx), size(8192), usedAgeInMs(0)\n",
             Masked(carved->GetAddr()));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG, line)) << LogCapture::Dump();

    // A second dump rebuilds the lists rather than appending to them.
    EXPECT_EQ(dump, monitor().GetMemDumpInfo(0));
    EXPECT_EQ(1u, dump->captureList.size());
}

TEST_F(MonitorTest, Dump_PoolChunks_ReturnsNullAndListsLeakedAndLivePoolChunks)
{
    Bind();
    TalMemChunk* pool = CameraPool(kMiB, 3);
    TalMemChunk* live = Carved(pool, 0, 8192, kCapture, "liveAlgo");
    TalMemChunk* leaked = Carved(pool, 8192, 4096, kCapture, "leakAlgo");
    TalMemChunk* sysLeak = Direct(4096, kCapture, "sysLeak", true);
    Event(qv::TAL_MEM_MONITOR_POOL_ALLOC, live);
    monitor().AddChunkLeakRecord(leaked);
    monitor().AddChunkLeakRecord(sysLeak);

    LogCapture::Clear();
    EXPECT_EQ(nullptr, monitor().GetMemDumpInfo(2));
    char line[200];
    snprintf(line, sizeof(line), "poolLeakChunk: poolId 3 addr 0x%lx size 4096 algoName leakAlgo\n",
             Masked(leaked->GetAddr()));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG, line)) << LogCapture::Dump();
    snprintf(line, sizeof(line), "poolChunk: poolId 3 addr 0x%lx size 8192 algoName liveAlgo\n",
             Masked(live->GetAddr()));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG, line));
    EXPECT_EQ(2, static_cast<int>(LogCapture::Lines().size()))
        << "because a leaked direct chunk is not a pool chunk";

    impl_->ppCrossing = true;
    LogCapture::Clear();
    EXPECT_EQ(nullptr, monitor().GetMemDumpInfo(2));
    EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_DEBUG,
                                   "in crossing state don't need to print pool chunk info\n"));
    EXPECT_EQ(1, static_cast<int>(LogCapture::Lines().size()));
}

TEST_F(MonitorTest, Dump_UnknownTypes_LogAndReturnNull)
{
    Bind();
    for (int bad : {-1, 3, 1 << 30}) {
        SCOPED_TRACE(bad);
        LogCapture::Clear();
        EXPECT_EQ(nullptr, monitor().GetMemDumpInfo(bad));
        EXPECT_EQ(1, LogCapture::Count(ANDROID_LOG_ERROR, "QvCamMem GetMemDumpInfo() error: dumpType " +
                                                              std::to_string(bad) + " no define\n"));
    }
}

// Every address a dump or leak line shows keeps at most its low 24 bits.
TEST_F(MonitorTest, EveryDumpLine_ShowsAddressesWithAtMostSixHexDigits)
{
    TalHostSetProperty("persist.vendor.talmem.prt.pksizemclist", "1");
    Bind();
    Stream(2);
    TalMemChunk* pool = CameraPool(kMiB, 1);
    std::vector<TalMemChunk*> chunks = {
        Carved(pool, 0, 8192, kCapture, "a"), Carved(pool, 8192, 8192, kPreview, "b"),
        Direct(4096, kCapture, "c", true), Direct(4096, kPreview, "d", true),
        Direct(2 * kMiB, kOthers, "e")};
    bool wide = false;
    for (TalMemChunk* chunk : chunks) {
        wide = wide || reinterpret_cast<uintptr_t>(chunk->GetAddr()) > 0xFFFFFF ||
               reinterpret_cast<uintptr_t>(chunk) > 0xFFFFFF;
        Event(chunk->GetPoolId() != 0 ? qv::TAL_MEM_MONITOR_POOL_ALLOC
                                      : qv::TAL_MEM_MONITOR_SYS_ALLOC,
              chunk);
    }
    ASSERT_TRUE(wide) << "because the check needs addresses wider than 24 bits";

    LogCapture::Clear();
    monitor().GetMemDumpInfo(0);
    monitor().GetMemDumpInfo(1);
    monitor().RegisterAllocatorRef(kPreview, "m");
    monitor().UnregisterAllocatorRef(kPreview, "m"); // leak lines, MemLeakInfo, error dump
    monitor().GetMemDumpInfo(2);
    Event(qv::TAL_MEM_MONITOR_EOS);                   // peak chunk list
    monitor().ReportMemAllocFail(4096, "x", kCapture, 0);

    const std::vector<std::string> hex = HexNumbersIn("");
    EXPECT_GE(hex.size(), 12u) << LogCapture::Dump();
    for (const std::string& h : hex) {
        EXPECT_LE(h.size(), 6u) << "0x" << h;
    }
    for (const char* kind : {"add mc 0x", "MemLeakInfo [", "memDumpInfo.", "poolChunk: ",
                             "poolLeakChunk: ", "printPeakSizeMemChunkList algoName"}) {
        EXPECT_GE(LogCapture::CountContaining(kind), 1) << kind;
    }
}

} // namespace
} // namespace monitor_test
