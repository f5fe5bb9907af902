// Allocator references, leak detection and the reports: per-type counts, the
// leak check when the last allocator of a type leaves, the final clear of the
// manager, the debug switches, GetMemDumpInfo of every type and the masking
// of every address that a report line shows.

#include <cstring>

#include "MonitorTestUtil.h"
#include "monitor/MemUtils.h"

namespace monitor_test {
namespace {

TEST_F(MonitorTest, Leak_PerKind_LastUnregisterMovesLiveChunksToTheLeakListUntilFreed)
{
    const char* const kLists[] = {"captureList", "previewList", "othersList"};
    for (int t : {kCapture, kPreview, kOthers}) { // one monitor for all kinds
        SCOPED_TRACE(t);
        const int other = (t + 1) % 3;
        const char* name = qv::TalMemPoolMonitor::AllocateType2str(t);
        TalMemChunk* pooled = Carved(CameraPool(kMiB, 2), 0, 65536, t, "modA", "modA");
        TalMemChunk* direct = Direct(8192, t, "modB", true, "modB");
        TalMemChunk* alive = Direct(4096, other, "o", true);
        Alloc({pooled, direct, alive});
        monitor().RegisterAllocatorRef(t, "modA");
        monitor().RegisterAllocatorRef(t, "modB");
        EXPECT_TRUE(Once(Fmt("QvCamMem in RegisterAllocatorRef(), allocatorRef[%s]=2, modB +\n", name)));
        LogCapture::Clear();
        monitor().UnregisterAllocatorRef(t, "modA"); // no leak check yet
        std::vector<std::string> expected = {
            Fmt("QvCamMem in UnregisterAllocatorRef(), allocatorRef[%s]=1, modA -\n", name)};
        if (t != kCapture) { // Preview and Others drop the module's records first
            expected.insert(expected.begin(), "QvCamMem ReleaseUpdateAlgoInfo() IPP_RELEASE: erase modA\n");
        }
        EXPECT_EQ(expected, Messages());
        EXPECT_EQ(t == kCapture, peer().algo(t, "modA") != nullptr);

        LogCapture::Clear();
        monitor().UnregisterAllocatorRef(t, "modB");
        auto p = peer();
        EXPECT_EQ(std::list<TalMemChunk*>({direct, pooled}), p.leakList()) << "newest first";
        unsigned int inPool = 0, outPool = 0;
        monitor().GetInPoolUsedSize(inPool);
        monitor().GetOutPoolUsedSize(outPool);
        EXPECT_EQ(Counters({0, 4096}), Counters({inPool, outPool})) << "because leaked chunks leave the maps";
        EXPECT_EQ(Counters({73728, 73728}), Counters({p.leaked(t), p.used(t)})) << "because a leak is no release";
        EXPECT_TRUE(p.algoList(t).empty());
        EXPECT_TRUE(Once(Fmt("QvCamMem AddChunkLeakRecord(), add mc 0x%lx to leak record, addr=0x%lx "
                             "mLeakedNumOnce = 1\n", Masked(pooled), Masked(pooled->GetAddr()))))
            << "because each leak report starts the count again";
        EXPECT_TRUE(Once(Fmt("QvCamMem CheckMemChunkLeak() error! mem leak detected! allocateType = %d "
                             "leakSizeByType = 73728\n", t)));
        EXPECT_TRUE(Once(Fmt("QvCamMem exit CheckMemChunkLeak(), allocateType=%d, isMemLeaked=1\n", t)));
        EXPECT_TRUE(Once(Fmt("QvCamMem MemLeakInfo [1/2]: algoName(modB), moduleName(modB), allocateType(%d), "
                             "addr(0x%lx), size(8192), usedAgeInMs(0)\n", t, Masked(direct->GetAddr()))));
        unsigned used[3] = {};
        used[t] = 73728, used[other] = 4096;
        EXPECT_TRUE(Once(Fmt("QvCamMem DumpMemErrorInfo(): poolSize(0), outPoolSize(4096), inPoolUsed(0), "
                             "outPoolUsed(4096), captureUsed(%u), previewUsed(%u), othersUsed(%u)\n",
                             used[0], used[1], used[2])));
        EXPECT_TRUE(Once(Fmt("QvCamMem memDumpInfo.%s [1/1]: algoName(o), moduleName(mod), allocateType(%d), "
                             "addr(0x%lx), size(4096), usedAgeInMs(0)\n", kLists[other], other,
                             Masked(alive->GetAddr()))));

        EXPECT_FALSE(monitor().AddChunkLeakRecord(direct)) << "because it is recorded already";
        EXPECT_TRUE(Once("QvCamMem AddChunkLeakRecord(), record existed already\n"));
        EXPECT_FALSE(monitor().CheckMemChunkLeak(t)) << "because nothing new is alive";
        EXPECT_TRUE(Once(Fmt("QvCamMem CheckMemChunkLeak() usedSizeByType[%d] = 73728 mLeakedSizeByType = 73728, "
                             "but no chunk leaked!\n", t)));
        Free({direct, pooled, alive});
        EXPECT_TRUE(p.leakList().empty()) << "because released chunks leave the leak list";
        EXPECT_EQ(0u, p.used(t));
    }
}

TEST_F(MonitorTest, Refs_LastAllocatorOfEveryTypeClearsTheManager_BadCountsAreRefused)
{
    for (int t : {kCapture, kPreview, kOthers}) {
        monitor().RegisterAllocatorRef(t, "m");
    }
    monitor().UnregisterAllocatorRef(kCapture, "m");
    monitor().UnregisterAllocatorRef(kPreview, "m");
    EXPECT_EQ(0, LogCapture::CountContaining("ClearAll"));
    monitor().UnregisterAllocatorRef(kOthers, "m");
    EXPECT_TRUE(Once("QvCamMem enter ClearAll\n", ANDROID_LOG_INFO));
    EXPECT_TRUE(Once("ClearAll Failed!\n", ANDROID_LOG_WARN)) << "because the camera is open";

    Reset();
    for (int bad : {-1, 3, 0x7FFFFFFF}) {
        monitor().RegisterAllocatorRef(bad, "m");
        monitor().UnregisterAllocatorRef(bad, "m");
        for (const char* fn : {"RegisterAllocatorRef", "UnregisterAllocatorRef"}) {
            EXPECT_TRUE(Once(Fmt("QvCamMem %s(), allocateType=%d error.\n", fn, bad), ANDROID_LOG_ERROR));
        }
    }
    monitor().UnregisterAllocatorRef(kOthers, "ghost");
    EXPECT_TRUE(Once("QvCamMem UnregisterAllocatorRef(), module referance error. allocatorRef[2]=0, ghost\n",
                     ANDROID_LOG_ERROR));
    EXPECT_EQ(7u, LogCapture::Lines().size()) << "because nothing else happens";
    auto p = peer();
    p.ref(kCapture) = 0x7FFFFFFF;
    monitor().RegisterAllocatorRef(kCapture, "many");
    EXPECT_TRUE(Once("QvCamMem RegisterAllocatorRef(), allocateType=0 error.\n", ANDROID_LOG_ERROR));
    EXPECT_EQ(Counters({0x7FFFFFFF, 0, 0}), Counters({unsigned(p.ref(0)), unsigned(p.ref(1)), unsigned(p.ref(2))}));
}

TEST_F(MonitorTest, AllocFail_LogsTheSystemFiguresWithTheTwoLabelsCrossed)
{
    Alloc({Direct(8192, kPreview, "prevAlgo", true, "prevMod")});
    monitor().ReportMemAllocFail(123456, "failAlgo", kPreview, 3);
    EXPECT_EQ(1, LogCapture::CountContaining("memDumpInfo.previewList [1/1]: algoName(prevAlgo)"));
    int shownTotal = -2, shownFree = -2, graphic = -2;
    char tail[64] = {};
    EXPECT_EQ(4, sscanf(Messages().back().c_str(), "QvCamMem ReportMemAllocFail() allocSize(123456), "
                        "sysTotalSizeInKB(%d), sysFreeSizeInKB(%d), cameraGraphicSizeInKB(%d),%63[^\n]",
                        &shownTotal, &shownFree, &graphic, tail)) << LogCapture::Dump();
    EXPECT_EQ(ANDROID_LOG_INFO, LogCapture::Lines().back().priority);
    EXPECT_EQ(qv::MemUtils::getTotalMemory(), shownFree) << "because the total goes under the free label";
    EXPECT_STREQ("usedDevice(), algoName(failAlgo), allocateType(1)", tail) << "because device 3 has no name";
    monitor().ReportMemAllocFail(4096, "a", kCapture, 1);
    EXPECT_EQ(1, LogCapture::CountContaining("),usedDevice(GPU), algoName(a), allocateType(0)"));
}

TEST_F(MonitorTest, Switches_OnlyAValueStartingWithOneSwitchesOn)
{
    const char* const keys[] = {"persist.vendor.talmem.prt.rtalgoinfo", "persist.vendor.talmem.prt.rtpoolstatus",
                                "persist.vendor.talmem.prt.pksizemclist"};
    const std::vector<std::string> on = {"QvCamMem ReadProperties printRealtimeAlgoInfo enabled\n",
                                         "QvCamMem ReadProperties printRealtimePoolStatus enabled\n",
                                         "QvCamMem ReadProperties printPeakSizeMemChunkList enabled\n"};
    for (const char* value : {"10", "1", "01", "true", ""}) { // "": unset
        SCOPED_TRACE(value);
        TalHostClearProperties();
        for (const char* key : keys) {
            TalHostSetProperty(key, *value != '\0' ? value : nullptr);
        }
        Reset();
        EXPECT_EQ(value[0] == '1' ? on : std::vector<std::string>(), Messages());
    }
    // All off: a stream prints its three stream lines and the summary only.
    StartStream();
    TalMemChunk* chunk = Direct(4096, kPreview, "prevAlgo");
    Alloc({chunk});
    Free({chunk});
    Event(kEos);
    EXPECT_EQ(0u, peer().peakListSize());
    EXPECT_EQ(4u, LogCapture::Lines().size()) << LogCapture::Dump();
    EXPECT_EQ(1, LogCapture::CountContaining("DumpAlgoMemInfo algoName: prevAlgo"));
}

TEST_F(MonitorTest, Dump_Realtime_FiguresOfEverySizeQueryAndTheAlgorithmLists)
{
    auto* rt = static_cast<qv::TalMemPoolRealtimeInfo*>(monitor().GetMemDumpInfo(1));
    EXPECT_EQ(std::vector<std::string>({"QvCamMem pooLeakSize 0 outPooLeakSize 0\n",
                                        "QvCamMem DumpMemRealtimeInfo(): captureStatus:(STATUS_DEFAULT) poolSize(0), "
                                        "outPoolSize(0), inPoolUsed(0), outPoolUsed(0)\n",
                                        "QvCamMem DumpMemRealtimeInfo(): captureSize:(0), previewSize(0), "
                                        "captureUsed(0), previewUsed(0), othersUsed(0)\n"}), Messages());
    AddPool(4 * kMiB);
    AddPool(2 * kMiB);
    // Preview-reuse chunks owned by the manager: only idle ones count.
    impl_->sysPrevMcMap[reinterpret_cast<void*>(0x1000)] = new TalMemChunk(12288, 0, 0, 1, "idle", 1);
    impl_->sysPrevMcMap[reinterpret_cast<void*>(0x2000)] = new TalMemChunk(20480, 0, 0, 1, "busy", 1);
    impl_->sysPrevMcMap[reinterpret_cast<void*>(0x1000)]->inUse = 0;
    Stream(2);
    TalMemChunk* pool = CameraPool(kMiB);
    TalMemChunk* cap = Direct(8192, kCapture, "capAlgo", true);
    TalMemChunk* prev = Direct(8192, kPreview, "prevAlgo", true);
    cap->SetUsedSize(4096);
    // The second chunk at one address does not replace the first in the map.
    Alloc({Carved(pool, 0, 65536, kCapture, "capAlgo"), Carved(pool, 0, 4096, kCapture, "sameAddr"), cap, prev,
           Direct(4096, kOthers, "otherAlgo", true)});
    unsigned int captureUsed = 100;
    monitor().GetCaptureUsedSize(captureUsed);
    EXPECT_EQ(100u + 65536 + 12288, captureUsed) << "because it adds to the caller's value and skips preview";
    auto words = [w = static_cast<qv::TalMemPoolSizeWords*>(rt)] {
        return Counters({w->poolSize, w->outPoolSize, w->inPoolUsed, w->outPoolUsed, w->captureSize, w->captureUsed,
                         w->previewSize, w->previewUsed, w->othersSize, w->othersUsed});
    };
    LogCapture::Clear();
    EXPECT_EQ(rt, monitor().GetMemDumpInfo(1));
    EXPECT_EQ(Counters({6 * kMiB, 32768, 65536, 16384, 6 * kMiB + 12288, 73728, 20480, 8192, 0, 4096}), words());
    EXPECT_EQ("capAlgo sameAddr prevAlgo otherAlgo", rt->captureList.front().algoName + " " +
                  rt->captureList.back().algoName + " " + rt->previewList.front().algoName + " " +
                  rt->othersList.front().algoName);
    EXPECT_TRUE(Once("QvCamMem DumpMemRealtimeInfo(): captureStatus:(STATUS_FRAME) poolSize(6291456), "
                     "outPoolSize(32768), inPoolUsed(65536), outPoolUsed(16384)\n"));
    EXPECT_TRUE(Once(Fmt("QvCamMem memRealtimeInfo.previewList [1/1]: algoName:%-20s\t usedSizeCurrent:%-10d\t "
                         "peakUsedSize:%-10d\t\n", "prevAlgo", 8192, 8192)));
    // Leaked pool chunks come off the capture size, unless it would go below.
    Free({prev});
    ASSERT_TRUE(monitor().CheckMemChunkLeak(kCapture));
    monitor().GetMemDumpInfo(1);
    EXPECT_EQ(Counters({6 * kMiB, 16384, 0, 4096, 6 * kMiB + 4096 - 65536, 73728, 12288, 0, 0, 4096}), words());
    EXPECT_EQ(0, rt->previewList.front().usedSizeCurrent);
    EXPECT_TRUE(Once("QvCamMem pooLeakSize 65536 outPooLeakSize 8192\n"));
    std::for_each(impl_->poolChunkList.begin(), impl_->poolChunkList.end(), [](TalMemChunk* c) { delete c; });
    impl_->poolChunkList.clear();
    monitor().GetMemDumpInfo(1);
    EXPECT_EQ(4096u, rt->captureSize) << "because 4096 is not above the pool leak";
}

// The error and pool chunk dumps, the peak chunk list, and every address in
// every report line cut to six hexadecimal digits.
TEST_F(MonitorTest, Dumps_ListTheChunksAndEveryLineShowsAddressesOfAtMostSixHexDigits)
{
    Reset("persist.vendor.talmem.prt.pksizemclist");
    StartStream();
    TalMemChunk* pool = CameraPool(kMiB, 3);
    TalMemChunk* a = Carved(pool, 0, 16384, kCapture, "a", "modA");
    TalMemChunk* b = Carved(pool, 16384, 8192, kPreview, "b");
    TalMemChunk* c = Direct(4096, kCapture, "c", true);
    TalMemChunk* d = Direct(4096, kPreview, "d", true, "modD");
    TalMemChunk* e = Direct(2 * kMiB, kOthers, "e");
    d->SetUsedSize(2048);
    Alloc({a, b, c, d, e});
    ASSERT_GT(reinterpret_cast<uintptr_t>(e->GetAddr()), 0xFFFFFFu) << "because the check needs wide addresses";
    Free({d});               // no new peak: the peak list stays
    e->SetAllocateType(7); // changed after the event: listed with the others
    LogCapture::Clear();
    auto* dump = static_cast<qv::TalMemPoolDumpInfo*>(monitor().GetMemDumpInfo(0));
    ASSERT_EQ(dump, monitor().GetMemDumpInfo(0)) << "because a dump rebuilds its block";
    ASSERT_EQ(Counters({2, 1, 1}), Counters({unsigned(dump->captureList.size()), unsigned(dump->previewList.size()),
                                             unsigned(dump->othersList.size())}));
    const qv::TalMemPoolChunkInfo& info = dump->othersList.front();
    EXPECT_EQ(Fmt("e/mod/7/2097152/%lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(e->GetAddr()))),
              Fmt("%s/%s/%d/%zu/%lx", info.algoName.c_str(), info.moduleName.c_str(), info.allocateType, info.size,
                  info.addr)) << "because the block keeps whole addresses";
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
    EXPECT_EQ(1, LogCapture::CountContaining("MemLeakInfo [1/1]"));
    EXPECT_LE(20u, numbers) << LogCapture::Dump();
    Event(kFrame);
    EXPECT_EQ(0u, peer().peakListSize()) << "because each frame restarts the peak";

    impl_->ppCrossing = true;
    LogCapture::Clear();
    EXPECT_EQ(nullptr, monitor().GetMemDumpInfo(2));
    EXPECT_TRUE(Once("in crossing state don't need to print pool chunk info\n"));
    for (int bad : {-1, 3, 1 << 30}) {
        EXPECT_EQ(nullptr, monitor().GetMemDumpInfo(bad));
        EXPECT_TRUE(Once(Fmt("QvCamMem GetMemDumpInfo() error: dumpType %d no define\n", bad), ANDROID_LOG_ERROR));
    }
    EXPECT_EQ(4u, LogCapture::Lines().size());
}

} // namespace
} // namespace monitor_test
