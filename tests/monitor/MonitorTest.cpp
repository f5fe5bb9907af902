// The monitor: a stream's status lines and accounts, leaks per kind of use, the
// debug switches, the dumps (addresses cut to six hex digits) and bad input.

#include <cstring>
#include <functional>

#include "MonitorTestUtil.h"

namespace monitor_test {
namespace {

constexpr unsigned M = kMiB;

// A stream with the realtime status and algorithm table on (a value starting with '1'):
// one status line per event, and the snapshot and algorithm accounts move with it.
TEST_F(MonitorTest, Stream_PrintsOneStatusLinePerEventAndKeepsTheAccounts)
{
    TalHostSetProperty("persist.vendor.talmem.prt.rtalgoinfo", "10");
    TalHostSetProperty("persist.vendor.talmem.prt.rtpoolstatus", "1");
    Reset();
    EXPECT_EQ(Lines({"QvCamMem ReadProperties printRealtimeAlgoInfo enabled\n",
                     "QvCamMem ReadProperties printRealtimePoolStatus enabled\n"}), Messages());
    AddPool(100 * M);
    monitor().UpdateRecipOfPoolSize();
    TalMemChunk* a = Direct(8 * M, kCapture, "algoA");
    Stream(1);
    TalMemChunk* b = Direct(2 * M, kCapture, "algoB");
    TalMemChunk* c = Direct(50 * M, kCapture, "algoC", false, "mod", 1); // a pool chunk
    Stream(2);
    TalMemChunk* d = Direct(4 * M, kCapture, "algoD");
    TalMemChunk* d2 = Direct(2 * M, kCapture, "algoD");
    TalMemChunk* f = Direct(M, kOthers, "algoF");
    const std::string sos = Fmt("QvCamMem PoolStatus SOS       \t totalCaptureUsed:%-10u\t captureUsed:%-10u\t "
                                "allSize:%-10u\t allNum:1\t SysSize:%-10u\t SysNum:1\t\n", 8 * M, 8 * M, 8 * M, 8 * M);
    // total, peak, ratio, snapInPool, snapSys, sysPeak, snapSysNum, totalNum,
    // sosAllSize, sosAllNum, frameAllSize, frameAllNum, sos2Frame, sysSos2Frame.
    const Counters inSos = {50 * M, 50 * M, 50, 50 * M, 0, 0, 0, 1, 8 * M, 1, 0, 0, 2 * M, 2 * M};
    const Counters eos = {2 * M, 4 * M, 50, 0, 2 * M, 4 * M, 1, 1, 8 * M, 1, 60 * M, 3, 0, 2 * M};
    const struct { // the snapshot is checked after the event unless null
        uint32_t state; qv::TAL_MEM_MONITOR_TYPE type; TalMemChunk* chunk; std::string line; const Counters* snap;
    } steps[] = {
        {0, kSysAlloc, a, PoolLine("SysAlloc", "algoA", "+", 8 * M, 8 * M, 1, 8 * M, 8 * M, 1), nullptr},
        {1, kSos, nullptr, sos, nullptr},
        {1, kSysAlloc, b, PoolLine("SysAlloc", "algoB", "+", 2 * M, 10 * M, 2, 10 * M, 10 * M, 2), nullptr},
        {1, kPoolAlloc, c, PoolLine("PoolAlloc", "algoC", "+", 50 * M, 60 * M, 3, 60 * M, 10 * M, 2), &inSos},
        {2, kFrame, nullptr, StreamLine("Frame", 0, 0, 0, 0, 2 * M, 0, 50), nullptr},
        {2, kSysAlloc, d, SnapLine("SysAlloc", "algoD", "+", 4 * M, 4 * M, 1, 4 * M, 1, 4 * M, 50), nullptr},
        // Releases stop at zero; b was allocated before the frame.
        {2, kPoolFree, c, SnapLine("PoolFree", "algoC", "-", 50 * M, 0, 0, 4 * M, 1), nullptr},
        {2, kSysFree, b, SnapLine("SysFree", "algoB", "-", 2 * M, 0, 0, 4 * M, 1), nullptr},
        {2, kSysFree, d, SnapLine("SysFree", "algoD", "-", 4 * M, 0, 0, 0, 0), nullptr},
        {2, kSysAlloc, d2, SnapLine("SysAlloc", "algoD", "+", 2 * M, 2 * M, 1, 2 * M, 1), nullptr}, // below the peak
        {2, kEos, nullptr, StreamLine("EOS", 2 * M, 1, 2 * M, 1, 0, 4 * M, 50), &eos},
        {3, kSysAlloc, f, PoolLine("SysAlloc", "algoF", "+", M, 11 * M, 3, 64 * M, 11 * M, 3), nullptr},
    };
    const std::string summary = Fmt("QvCamMem DumpAlgoMemInfo algoName: %-20s\t allocateType: %-10s\t "
                                    "peakSizeFrame2Eos:%-10d\t realTimeSizeOnEos: %-10d\t peakSizeSos2Eos: %-10d\t "
                                    "usedSizePeak:%-10d\t \n", "algoC", "Capture", 0, 0, 50 * M, 50 * M);
    int algoLines = 0, summaries = 0;
    for (const auto& s : steps) {
        SCOPED_TRACE(s.line);
        LogCapture::Clear();
        Stream(s.state);
        Event(s.type, s.chunk);
        EXPECT_TRUE(Once(s.line));
        EXPECT_EQ(1, LogCapture::CountContaining("Status ")) << "because one line per event";
        EXPECT_TRUE(s.snap == nullptr || *s.snap == peer().snap()) << ::testing::PrintToString(peer().snap());
        algoLines += LogCapture::CountContaining("DumpAlgoMemInfo, algoName=algoA");
        summaries += LogCapture::Count(ANDROID_LOG_DEBUG, summary);
    }
    EXPECT_EQ(9, algoLines) << "because the table is printed after every allocation and release";
    EXPECT_TRUE(Once("QvCamMem DumpAlgoMemInfo, algoName=algoF allocateType:Others usedSizeCurrent=1048576 "
                     "usedChunkNum=1 usedSizePeak=1048576\n"));
    // The end-of-stream summary forgets the records that hold nothing and keeps the others.
    EXPECT_TRUE(summaries == 1 && !peer().algo(kCapture, "algoB") && !peer().algo(kCapture, "algoC")) << summaries;

    // The check erases idle records that a summary kept and reports those still holding memory.
    TalMemChunk* e = Direct(M, kCapture, "algoE"); // idle, but never kept by a summary
    Free({d2});
    Alloc({e});
    Free({e});
    LogCapture::Clear();
    monitor().CheckUpdateAlgoInfo(kCapture);
    EXPECT_EQ(Lines{"6 QvCamMem CheckUpdateAlgoInfo() CHECK error: algoName(algoA), current(8388608), "
                    "peak(8388608), chunkNum(1)\n"}, Messages(true));
    EXPECT_TRUE(!peer().algo(kCapture, "algoD") && peer().algo(kCapture, "algoE") && peer().algo(kCapture, "algoA"));

    // ClearAlgoInfo, the manager's step into a post-processing crossing, empties the lists and the
    // snapshot; in the crossing only the pool status counts, with its own line.
    monitor().ClearAlgoInfo();
    impl_->ppCrossing = true;
    Stream(2);
    LogCapture::Clear();
    Alloc({Direct(M, kOthers, "algoG")});
    EXPECT_EQ(Lines{PoolLine("SysAlloc", "algoG", "+", M, 10 * M, 3, 64 * M, 10 * M, 3, true)}, Messages());
    EXPECT_TRUE(peer().algoList(kCapture).empty() && peer().algoList(kOthers).empty());
    EXPECT_EQ(Counters(14, 0), peer().snap());
}

TEST_F(MonitorTest, Ratio_IsTheNearestPercentOfThePoolsAndZeroBelowOneMiB)
{
    for (const Counters& c : std::vector<Counters>{
             {0xFFFFF, 0x80000, 0}, {M, 0x80000, 50}, {100 * M, 25 * M + M / 2, 26}, {100 * M, 26000 * 1024, 25}}) {
        Reset();
        AddPool(c[0]);
        monitor().UpdateRecipOfPoolSize();
        Alloc({Direct(c[1], kCapture, "r", false, "m", 1)});
        Event(kFrame);
        EXPECT_TRUE(Once(StreamLine("Frame", 0, 0, 0, 0, 0, 0, c[2]))) << c[1];
    }
}


TEST_F(MonitorTest, Leak_PerKind_LastUnregisterMovesLiveChunksToTheLeakListUntilFreed)
{
    const char* const kNames[] = {"Capture", "Preview", "Others"};
    for (int t : {kCapture, kPreview, kOthers}) {
        monitor().RegisterAllocatorRef(t, "modA"), monitor().RegisterAllocatorRef(t, "modB");
    }
    for (int t : {kCapture, kPreview, kOthers}) {
        SCOPED_TRACE(t);
        const int other = (t + 1) % 3;
        TalMemChunk* pooled = Direct(65536, t, "modA", true, "modA", 2);
        TalMemChunk* direct = Direct(8192, t, "modB", true, "modB");
        TalMemChunk* alive = Direct(4096, other, "o", true);
        Alloc({pooled, direct, alive});
        LogCapture::Clear();
        monitor().UnregisterAllocatorRef(t, "modA"); // Preview and Others drop the module's records at once
        EXPECT_TRUE(Once(Fmt("QvCamMem in UnregisterAllocatorRef(), allocatorRef[%s]=1, modA -\n", kNames[t])));
        EXPECT_EQ(t == kCapture, peer().algo(t, "modA") != nullptr) << "because Capture keeps them for the leak check";
        LogCapture::Clear();
        monitor().UnregisterAllocatorRef(t, "modB");
        EXPECT_EQ(std::list<TalMemChunk*>({direct, pooled}), peer().leakList()) << "newest first";
        EXPECT_TRUE(peer().algoList(t).empty());
        EXPECT_TRUE(Once(Fmt("QvCamMem AddChunkLeakRecord(), add mc 0x%lx to leak record, addr=0x%lx "
                             "mLeakedNumOnce = 1\n", Masked(pooled), Masked(pooled->GetAddr()))))
            << "because each leak report starts the count again";
        EXPECT_TRUE(Once(Fmt("QvCamMem CheckMemChunkLeak() error! mem leak detected! allocateType = %d "
                             "leakSizeByType = 73728\n", t)));
        EXPECT_TRUE(Once(Fmt("QvCamMem MemLeakInfo [1/2]: algoName(modB), moduleName(modB), allocateType(%d), "
                             "addr(0x%lx), size(8192), usedAgeInMs(0)\n", t, Masked(direct->GetAddr()))));
        auto used = [&](int kind) { return kind == t ? 73728u : kind == other ? 4096u : 0u; };
        EXPECT_TRUE(Once(Fmt("QvCamMem DumpMemErrorInfo(): poolSize(0), outPoolSize(4096), inPoolUsed(0), outPoolUsed"
                             "(4096), captureUsed(%u), previewUsed(%u), othersUsed(%u)\n", used(0), used(1), used(2))))
            << "because leaked chunks leave the maps";
        EXPECT_EQ(t == kOthers ? 1 : 0, LogCapture::Count(ANDROID_LOG_WARN, "ClearAll Failed!\n"))
            << "because the manager is cleared when every kind has left, and the camera is open";

        EXPECT_FALSE(monitor().AddChunkLeakRecord(direct)) << "because it is recorded already";
        EXPECT_TRUE(Once("QvCamMem AddChunkLeakRecord(), record existed already\n"));
        EXPECT_FALSE(monitor().CheckMemChunkLeak(t)) << "because nothing new is alive";
        Free({direct, pooled, alive});
        EXPECT_TRUE(peer().leakList().empty()) << "because released chunks leave the leak list";
    }
}

// Every dump over one set of chunks; every address in every line at most six hex digits.
TEST_F(MonitorTest, Dumps_ReportTheChunksAndEveryLineShowsAddressesOfAtMostSixHexDigits)
{
    TalHostSetProperty("persist.vendor.talmem.prt.pksizemclist", "1");
    Reset();
    AddPool(4 * M);
    AddPool(2 * M);
    // Preview-reuse chunks owned by the manager: only idle ones count.
    impl_->sysPrevMcMap[reinterpret_cast<void*>(0x1000)] = new TalMemChunk(12288, 0, 0, 1, "idle", 1);
    impl_->sysPrevMcMap[reinterpret_cast<void*>(0x2000)] = new TalMemChunk(20480, 0, 0, 1, "busy", 1);
    impl_->sysPrevMcMap[reinterpret_cast<void*>(0x1000)]->inUse = 0;
    StartStream();
    TalMemChunk* a = Direct(16384, kCapture, "a", true, "modA", 3);
    TalMemChunk* b = Direct(8192, kPreview, "b", true, "mod", 3);
    TalMemChunk* c = Direct(8192, kCapture, "c", true);
    TalMemChunk* d = Direct(4096, kPreview, "d", true, "modD");
    TalMemChunk* e = Direct(2 * M, kOthers, "e");
    c->SetUsedSize(4096), d->SetUsedSize(2048);
    Alloc({a, b, c, d, e});
    ASSERT_GT(reinterpret_cast<uintptr_t>(e->GetAddr()), 0xFFFFFFu) << "because the check needs wide addresses";
    Free({d});             // no new peak: the peak list stays
    e->SetAllocateType(7); // changed after the event: listed with the others
    LogCapture::Clear();
    auto* dump = static_cast<qv::TalMemPoolDumpInfo*>(monitor().GetMemDumpInfo(0));
    ASSERT_EQ(Fmt("2 1 1 7 %lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(e->GetAddr()))),
              Fmt("%zu %zu %zu %d %lx", dump->captureList.size(), dump->previewList.size(), dump->othersList.size(),
                  dump->othersList.front().allocateType, dump->othersList.front().addr)) << "with whole addresses";
    monitor().GetMemDumpInfo(1);
    EXPECT_TRUE(Once("QvCamMem DumpMemRealtimeInfo(): captureStatus:(STATUS_FRAME) poolSize(6291456), "
                     "outPoolSize(2117632), inPoolUsed(24576), outPoolUsed(2101248)\n"));
    EXPECT_TRUE(Once("QvCamMem DumpMemRealtimeInfo(): captureSize:(8396800), previewSize(12288), captureUsed(20480), "
                     "previewUsed(8192), othersUsed(2097152)\n"));
    EXPECT_TRUE(Once(Fmt("QvCamMem memRealtimeInfo.previewList [2/2]: algoName:%-20s\t usedSizeCurrent:%-10d\t "
                         "peakUsedSize:%-10d\t\n", "d", 0, 2048)));

    monitor().RegisterAllocatorRef(kCapture, "keep"); // the manager is not cleared
    monitor().RegisterAllocatorRef(kPreview, "m");
    monitor().UnregisterAllocatorRef(kPreview, "m"); // b leaks: leak records, MemLeakInfo, error dump
    monitor().AddChunkLeakRecord(c);                 // a leaked direct chunk is no pool chunk
    EXPECT_EQ(nullptr, monitor().GetMemDumpInfo(2));
    EXPECT_TRUE(Once(Fmt("poolLeakChunk: poolId 3 addr 0x%lx size 8192 algoName b\n", Masked(b->GetAddr()))));
    EXPECT_TRUE(Once(Fmt("poolChunk: poolId 3 addr 0x%lx size 16384 algoName a\n", Masked(a->GetAddr()))));
    EXPECT_EQ(2, LogCapture::CountContaining("oolChunk: ") + LogCapture::CountContaining("oolLeakChunk: "));
    Event(kEos);
    const char* kLine = "CamMem EOS printPeakSizeMemChunkList algoName:%s moduleName:%s allocateType:%d addr:0x%lx "
                        "size:%d\n";
    EXPECT_TRUE(Once(Fmt(kLine, "a", "modA", 0, Masked(a->GetAddr()), 16384)));
    EXPECT_TRUE(Once(Fmt(kLine, "d", "modD", 1, Masked(d->GetAddr()), 2048))) << "direct chunks: used size";
    EXPECT_EQ(5, LogCapture::CountContaining("printPeakSizeMemChunkList"));
    size_t numbers = 0;
    for (const std::string& line : Messages()) {
        for (size_t at = line.find("0x"); at != std::string::npos; at = line.find("0x", at + 2), ++numbers) {
            EXPECT_LE(strspn(line.c_str() + at + 2, "0123456789abcdefABCDEF"), 6u) << line;
        }
    }
    EXPECT_LE(19u, numbers) << LogCapture::Dump();
}

// Bad input with every switch off: exactly its lines (priority first), and sound accounts.
TEST_F(MonitorTest, BadInput_LogsItsMessageAndNeverCorruptsTheAccounts)
{
    TalHostSetProperty("persist.vendor.talmem.prt.rtalgoinfo", "01");
    TalHostSetProperty("persist.vendor.talmem.prt.rtpoolstatus", "true");
    TalHostSetProperty("persist.vendor.talmem.prt.pksizemclist", "0");
    Reset();
    EXPECT_EQ(Lines(), Messages()) << "because only a value starting with '1' switches on";
    Alloc({Direct(4096, kCapture, "known")});
    StartStream();
    qv::TalMemPoolMonitor& m = monitor();
    const auto E = [](const std::string& line) { return "6 QvCamMem " + line + "\n"; };
    const std::string notFound = "dumpMemInfo FreeUpdateAlgoInfo, case COUNT_FREE: not found in AlgoMemInfo list. ";
    const struct { std::function<void()> act; Lines lines; } rows[] = {
        {[&] { Alloc({Direct(4096, -1, "algoBad"), Direct(4096, 3, "algoBad")}); },
         {E("UpdateMemoryStatus(), allocatetype = -1 error."), E("UpdateMemoryStatus(), allocatetype = 3 error.")}},
        {[&] { Event(static_cast<qv::TAL_MEM_MONITOR_TYPE>(12), Direct(4096, kCapture, "algoBad")); },
         {"3 QvCamMem unknow monitor type 12\n", "3 QvCamMem unknow monitor type 12\n",
          E("UpdateAlgoMemInfo() error: countType 12 no define")}},
        {[&] { EXPECT_TRUE(m.GetMemDumpInfo(-1) == nullptr && m.GetMemDumpInfo(3) == nullptr); },
         {E("GetMemDumpInfo() error: dumpType -1 no define"), E("GetMemDumpInfo() error: dumpType 3 no define")}},
        {[&] { m.RegisterAllocatorRef(-1, ""), m.UnregisterAllocatorRef(3, ""), m.RegisterAllocatorRef(1 << 30, ""); },
         {E("RegisterAllocatorRef(), allocateType=-1 error."), E("UnregisterAllocatorRef(), allocateType=3 error."),
          E("RegisterAllocatorRef(), allocateType=1073741824 error.")}},
        {[&] { m.UnregisterAllocatorRef(kOthers, "ghost"); }, {E("UnregisterAllocatorRef(), module referance error. "
                                                                 "allocatorRef[2]=0, ghost")}},
        {[&] { peer().ref(kCapture) = 0x7FFFFFFF; m.RegisterAllocatorRef(kCapture, "many"); },
         {E("RegisterAllocatorRef(), allocateType=0 error.")}},
        {[&] { Free({Direct(16384, kCapture, "stranger"), Direct(4096, kPreview, "known")}); }, // known as Capture
         {E(notFound + "algoName=stranger size=16384"), E(notFound + "algoName=known size=4096")}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lines.back());
        LogCapture::Clear();
        row.act();
        EXPECT_EQ(row.lines, Messages(true));
    }
    EXPECT_EQ(8192u, peer().algo(kCapture, "algoBad")->usedSizeCurrent) << "because a bad type counts as Capture";
    EXPECT_TRUE(peer().algo(kCapture, "known")->usedSizeCurrent == 4096 && peer().algoList(kPreview).empty());
    EXPECT_EQ(0u, peer().peakListSize()) << "because the peak chunk list is off";
    EXPECT_TRUE(peer().ref(kCapture) == 0x7FFFFFFF && peer().ref(kPreview) == 0 && peer().ref(kOthers) == 0);
    // The pool status wraps on releases never allocated; the snapshot stops at zero.
    EXPECT_EQ(Counters({0u - 8192, 0u - 8192, 1, 1, 12288}), peer().pool());
    EXPECT_EQ(Counters({0, 8192, 0, 0, 0, 8192, 0, 0, 4096, 1, 4096, 1, 0, 0}), peer().snap());
    // A caller that bypasses the type check aborts rather than index past the per-type arrays,
    // saying why (the child prints its log to stderr, where the death test looks).
    EXPECT_DEATH((__android_log_set_logger(__android_log_stderr_logger), monitor().CheckUpdateAlgoInfo(3)),
                 "CheckUpdateAlgoInfo\\(\\) QvCamMem CheckUpdateAlgoInfo, ERROR! allocateType 3 out of range \\[0, 3\\), abort");
}

} // namespace
} // namespace monitor_test
