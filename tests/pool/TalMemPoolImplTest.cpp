// The pool manager over real shared memory: request routing and release,
// carving and shortage, preview reuse, the pool set, peak learning and the
// control commands. Destroying the manager must give back every buffer.

#include "TalTestSupport.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "CameraBufferInterface.h"
#include "chunk/TalMemChunk.h"
#include "pool/TalMemPoolImpl.h"
#include "talmem_properties.h"

namespace {

using qv::TalMemChunk;
using qv::TalMemPoolImpl;
using talmem_test::LogCapture;

constexpr uint32_t kMiB = 1024 * 1024;
constexpr uint32_t kYuv420 = 35;

std::string Hex(unsigned long long value)
{
    char buf[32];
    snprintf(buf, sizeof(buf), "%llx", value & 0xFFFFFF);
    return buf;
}

uintptr_t AddrOf(TalMemChunk* chunk) { return reinterpret_cast<uintptr_t>(chunk->GetAddr()); }

class TalMemPoolImplTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        ASSERT_EQ(impl.PoolInit(), 0);
        LogCapture::Clear();
    }
    void TearDown() override
    {
        owner_.reset();
        EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), held_) << "because destruction frees all";
        TalTest::TearDown();
    }
    static TalMemChunk* Chunk(qv::TalChunkMap& map, uintptr_t addr)
    {
        auto it = map.find(reinterpret_cast<void*>(addr));
        return it == map.end() ? nullptr : it->second;
    }
    TalMemChunk* Pool(int32_t id)
    {
        auto& list = impl.poolChunkList;
        auto it = std::find_if(list.begin(), list.end(), [id](TalMemChunk* p) { return p->poolId == id; });
        return it == list.end() ? nullptr : *it;
    }
    std::string PoolIds() // front to back
    {
        std::string ids;
        for (TalMemChunk* pool : impl.poolChunkList) {
            ids += std::to_string(pool->poolId) + " ";
        }
        return ids;
    }
    uintptr_t AllocSize(uint32_t size, int32_t type = 0, const std::string& algo = "algo")
    {
        return impl.Alloc(size, "mod", nullptr, algo, type);
    }

    const uint64_t held_ = QvCamera::CameraBufferInterface::GetHeldBytes();
    std::unique_ptr<TalMemPoolImpl> owner_{new TalMemPoolImpl()};
    TalMemPoolImpl& impl = *owner_;
};

TEST_F(TalMemPoolImplTest, AllocBySize_RoundsToPagesSplitsPreviewAt1MiBAndStopsAtMaxMemSize)
{
    const qva_ibuf* one = impl.GetIBuf(AllocSize(1));
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one->getSize(one), 4096u);

    impl.OnSos();
    uintptr_t below = AllocSize(0xFF000, 1);
    EXPECT_EQ(Chunk(impl.sysMcMap, below)->streamState, 1u) << "because it is direct";
    uintptr_t reuse = AllocSize(0xFF001, 1);
    TalMemChunk* prev = Chunk(impl.sysPrevMcMap, reuse);
    ASSERT_NE(prev, nullptr) << "because 0xFF001 rounds to 1 MiB";
    impl.preAllocPoolMcMap[prev->GetAddr()] = prev; // listed in a later map too, which would destroy it
    impl.Free(reuse);
    impl.Free(reuse);
    EXPECT_EQ(impl.prevAllNeed, 0u) << "because a second free of a preview chunk changes nothing";
    EXPECT_EQ(impl.preAllocPoolMcMap.size(), 1u) << "because the first map holding it decides";
    impl.preAllocPoolMcMap.clear();

    impl.maxMemSize = 0x10000;
    EXPECT_EQ(AllocSize(0x10001), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Alloc, ERROR! can not alloc size(65537) maxMemSize(65536)\n"));
    EXPECT_NE(AllocSize(0x10000), 0u) << "because maxMemSize itself fits";
    impl.maxMemSize = 0xFFFFFC00;
    EXPECT_EQ(AllocSize(0xFFFFF001), 0u) << "because the rounded size wraps to 0";
    EXPECT_EQ(impl.sysMcMap.size(), 3u) << "because the refused requests left nothing";
}

TEST_F(TalMemPoolImplTest, WithAPool_GeometryIsServedDirectlyAndFreeOfItsBaseGoesToTheMaps)
{
    ASSERT_EQ(impl.PoolCreateImpl(4 * kMiB, 1, "PP:BASE_POOL"), 0);
    impl.maxMemSize = 0x100000;
    auto alloc = [this](uint32_t w, uint32_t h) { return impl.Alloc(w, h, kYuv420, 0, "mod", nullptr, "algo", 2); };
    EXPECT_EQ(alloc(65536, 65536), 0u) << "because the product wraps to 0";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Alloc, ERROR! can not alloc w(65536) h(65536) maxMemSize(1048576)\n"));
    EXPECT_EQ(alloc(1025, 1024), 0u);
    EXPECT_NE(Chunk(impl.sysMcMap, alloc(1024, 1024)), nullptr) << "because 1 Mi pixels pass, whatever the bytes";

    impl.Free(0);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Free, ERROR! invalid vaddr\n"));
    const uintptr_t base = AddrOf(Pool(1));
    LogCapture::Clear();
    impl.Free(base);
    impl.Free(base + 4 * kMiB);
    EXPECT_EQ(LogCapture::Lines().size(), 2u) << "because both go to the maps silently: " << LogCapture::Dump();
    impl.Free(base + 0x1000);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Free, ERROR! addr 0x" + Hex(base + 0x1000) + " GetMcInfo fail\n"))
        << "because an address inside the pool is looked up in the pool";
}

TEST_F(TalMemPoolImplTest, AllocHint_Versions_DecideThePoolForceFromSysAndRequestUsage)
{
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 1, "PP:BASE_POOL"), 0);
    // usageHigh: the high word of a direct chunk's usage, the heap the low 12 bits select.
    const struct { qv::AllocHint hint; bool inPool; uint64_t usageHigh; } cases[] = {
        {{0, 77, 0x001}, true, 0},   {{1, 77, 0x001}, false, 16}, {{2, 77, 0x12001}, false, 20},
        {{2, 77, 0x12002}, false, 24}, {{2, 77, 0x12345}, false, 16}, {{9, 77, 0x002}, true, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.hint.version << " " << c.hint.requestUsage);
        uintptr_t addr = impl.Alloc(8192, "mod", &c.hint, "algo", 0);
        TalMemChunk* chunk = Chunk(c.inPool ? impl.poolMcMap : impl.sysMcMap, addr);
        ASSERT_NE(chunk, nullptr);
        EXPECT_EQ(chunk->GetForceFromSys(), c.inPool ? 0 : 1);
        if (!c.inPool) {
            EXPECT_EQ(chunk->GetUsage(), (c.usageHigh << 32) | 0x400801u);
        }
        impl.Free(addr);
    }
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem Alloc, version:2, requestUsage 345is given\n"));
}

TEST_F(TalMemPoolImplTest, MaxMemSize_IsTotalMemoryInBytesWrappedAndRaisedToOneGiB)
{
    // Without a DDR size the probe reads "proc/meminfo" relative to the working directory.
    if (access("/proc/ddr_info", R_OK) == 0) {
        GTEST_SKIP() << "the kernel reports a DDR size, which the probe prefers";
    }
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    talmem_test::MakeDirs(root_ + "/proc");
    // 3 GiB; 8 GiB wraps to 0 and is raised to 1 GiB.
    for (auto [kb, expected] : {std::pair{"3000000", 0xC0000000u}, {"7500000", 0x40000000u}}) {
        talmem_test::WriteFile(root_ + "/proc/meminfo", std::string("MemTotal:       ") + kb + " kB\n");
        ASSERT_EQ(chdir(root_.c_str()), 0);
        TalMemPoolImpl probed;
        ASSERT_EQ(chdir(cwd), 0);
        EXPECT_EQ(probed.maxMemSize, expected) << kb;
    }
}

TEST_F(TalMemPoolImplTest, MallocInfo_PreallocatedChunkIsReusedAndReleasePendingDestroysIt)
{
    qv::MallocInfo info{640, 480, kYuv420, 0x3};
    impl.PreAllocPool(info, "algo");
    ASSERT_EQ(impl.preAllocPoolMcMap.size(), 1u);
    const uintptr_t preAddr = AddrOf(impl.preAllocPoolMcMap.begin()->second);
    EXPECT_EQ(impl.GetIBuf(preAddr), nullptr) << "because a free preallocated chunk is not lent";
    EXPECT_EQ(impl.Alloc(info, "algo"), preAddr);
    impl.Free(preAddr);
    EXPECT_EQ(impl.Alloc(info, "algo"), preAddr) << "because a preallocated chunk is kept after its free";
    impl.ReleasePool(info);
    EXPECT_NE(impl.GetIBuf(preAddr), nullptr) << "because it stays usable until its free";
    impl.Free(preAddr);
    EXPECT_TRUE(impl.preAllocPoolMcMap.empty());
    impl.PreAllocPool(info, "algo");
    impl.ReleasePool(info);
    EXPECT_TRUE(impl.preAllocPoolMcMap.empty()) << "because a free preallocated chunk goes at once";
}

TEST_F(TalMemPoolImplTest, PoolAlloc_SmallerPoolsFirstAndShortageOnlyForAMultiPool)
{
    impl.basePoolSize = 4 * kMiB;
    ASSERT_EQ(impl.PoolCreateImpl(4 * kMiB, 1, "PP:BASE_POOL"), 0);
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 2, "PP:MULTI_POOL"), 0);
    ASSERT_EQ(impl.PoolCreateImpl(6 * kMiB, 3, "PP:MULTI_POOL"), 0);
    ASSERT_EQ(PoolIds(), "2 1 3 ") << "because pools above the base size go to the back";
    std::vector<uintptr_t> carved;
    for (auto [size, poolId] : {std::pair{kMiB / 2, 2}, {2 * kMiB, 1}, {5 * kMiB, 3}}) {
        TalMemChunk* record = Chunk(impl.poolMcMap, carved.emplace_back(AllocSize(size, 2)));
        ASSERT_NE(record, nullptr) << size;
        EXPECT_EQ(record->poolId, poolId);
    }
    const uint32_t maxFree = impl.talMem.GetMaxFreeSize(AddrOf(Pool(3)));
    EXPECT_NE(Chunk(impl.sysMcMap, AllocSize(8 * kMiB)), nullptr) << "because a failed carve goes direct";
    EXPECT_TRUE(impl.shortagePending);
    EXPECT_EQ(impl.shortagePoolId, 3);
    EXPECT_EQ(impl.shortageSize, 8 * kMiB - maxFree);

    // The next update enlarges the pool that ran short, whatever the tolerance.
    const uint32_t shortage = impl.shortageSize;
    for (uintptr_t addr : carved) {
        impl.Free(addr);
    }
    impl.multiPoolSize = kMiB;
    impl.UpdateMultiPools(10 * kMiB);
    EXPECT_EQ(Pool(2)->GetSize(), kMiB);
    EXPECT_EQ(Pool(3)->GetSize(), (kMiB + shortage + 4095) & ~4095u);
    EXPECT_FALSE(impl.shortagePending);

    for (int id = 2; id <= 5; ++id) {
        impl.PoolDestroyImpl(id);
    }
    ASSERT_EQ(PoolIds(), "1 ");
    AllocSize(8 * kMiB);
    EXPECT_FALSE(impl.shortagePending) << "because the base pool cannot grow";
}

TEST_F(TalMemPoolImplTest, PrevAlloc_BestFitFirstInMapOrderAndTheRatioAbove20MiB)
{
    std::vector<uintptr_t> chunks;
    for (uint32_t mib : {4u, 2u, 3u, 3u, 10u}) {
        chunks.push_back(AllocSize(mib * kMiB, 1));
    }
    for (uintptr_t addr : chunks) {
        impl.Free(addr);
    }
    auto& map = impl.sysPrevMcMap;
    const uintptr_t firstTwin = AddrOf(
        std::find_if(map.begin(), map.end(), [](auto& e) { return e.second->GetSize() == 3 * kMiB; })->second);
    const uintptr_t secondTwin = firstTwin == chunks[2] ? chunks[3] : chunks[2];
    EXPECT_EQ(AllocSize(3 * kMiB, 1, "algoR"), firstTwin) << "because ties go to map order";
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem PrevAlloc, prevAllNeed 3145728(prevAllNeedPeak 23068672 prevAll "
                                          "23068672), algoR(modul: mod) apva 0x" + Hex(firstTwin) + " size 3145728 \n"));
    EXPECT_EQ(AllocSize(3 * kMiB - 4095, 1), secondTwin);
    // Above 20 MiB a request must fill 75 x 10 / 1024 of the chunk: 3072000 of 4 MiB.
    EXPECT_NE(AllocSize(3072000 - 4096, 1), chunks[0]) << "because one page less makes a new chunk";
    EXPECT_EQ(AllocSize(3072000, 1), chunks[0]);
    EXPECT_EQ(impl.prevAllNeed, 6 * kMiB + 3072000 + 3067904);
    EXPECT_EQ(impl.sysPrevMcMap.size(), 6u) << "because idle chunks stay while the peak is high";
}

TEST_F(TalMemPoolImplTest, PoolInit_ClampsTheConfiguredSizesToTheAlgorithmLimit)
{
    const std::string xml = "<TalMemPoolConfig>list algorithm peak size\n<AllocType>1</AllocType><BasePoolSize>209715200</BasePoolSize>\n"
                            "<AlgoSizeLimit>125829120</AlgoSizeLimit>\n<PrevRatioLimit>60</PrevRatioLimit>\n"
                            "<MultiPoolSize>157286400</MultiPoolSize>\n</TalMemPoolConfig>\n";
    for (const char* name : {"talmempoolcfg.xml", "talmempoolcfg_ram4g.xml"}) { // which one depends on the RAM
        talmem_test::WriteFile(DevicePath("/odm/etc/camera/") + name, xml);
    }
    TalHostSetProperty("persist.vendor.poolInfo.dump", "1");
    TalMemPoolImpl local;
    ASSERT_EQ(local.PoolInit(), 0);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "PoolInit basePoolSize:125829120 multiPoolSize:125829120 upperLimit:125829120 "
                                          "prevRatioLimit:60 shortageLimit:12288000\n"));
    EXPECT_TRUE(local.printPoolInfo);
}

TEST_F(TalMemPoolImplTest, PoolUpdate_BasePoolAbove20MiBAndMultiPoolsForOneActiveSnapshot)
{
    impl.basePoolSize = 4 * kMiB;
    impl.multiPoolSize = 2 * kMiB;
    impl.CameraClose();
    impl.PoolUpdate(0x1400000);
    EXPECT_EQ(PoolIds(), "");
    EXPECT_FALSE(impl.needClearPools) << "because every pool update clears it";
    impl.PoolUpdate(0x1400001);
    impl.PoolUpdate(0x1400001);
    ASSERT_EQ(PoolIds(), "1 ");
    EXPECT_EQ(Pool(1)->GetSize(), 4 * kMiB);

    // need = 10 MiB + 51 x 10240 = 11008000; above the base 6813696 is left:
    // three full 2 MiB pools, then 522240 plus the margin 3 x 256000.
    const uint8_t states[][4] = {{4, 5, 0, 0}, {1, 2, 0, 0}, {0, 0, 6, 5}};
    const char* expected[] = {"1 ", "1 ", "5 4 3 2 1 "};
    for (int i = 0; i < 3; ++i) {
        std::copy(states[i], states[i] + 4, impl.ppState);
        impl.PoolUpdate(10 * kMiB);
        EXPECT_EQ(PoolIds(), expected[i]) << "because only one active state updates them";
    }
    for (int id = 2; id <= 5; ++id) {
        EXPECT_EQ(Pool(id)->GetSize(), id < 5 ? 2 * kMiB : 1290240u);
    }
    impl.UpdateMultiPools(5 * kMiB);
    EXPECT_EQ(PoolIds(), "2 1 ") << "because a smaller peak leaves nothing for pools 3 to 5";
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "QvCamMem PoolCreate, invalid poolSize(0) when create poolId 5\n"));

    impl.PoolDestroyImpl(2);
    impl.basePoolSize = 0x0A000000;
    impl.multiPoolSize = 0x0DC00000;
    impl.UpdateMultiPools(0x0A000000);
    EXPECT_EQ(Pool(2)->GetSize(), 8355840u) << "because 160 MiB needs 51 x 163840 bytes more";
}

TEST_F(TalMemPoolImplTest, PoolCreate_KeepsAMultiPoolInUseOrWithinTwoMiB)
{
    ASSERT_EQ(impl.PoolCreateImpl(0x10000, 2, "PP:MULTI_POOL") + impl.PoolCreateImpl(0x10000, 3, "PP:MULTI_POOL"), 0);
    const int32_t kTol = 0x200000;
    const uintptr_t inUse = impl.talMem.Alloc(AddrOf(Pool(3)), 4096);
    impl.PoolCreate(0x10000 + kTol + 1, 3, "PP:MULTI_POOL", true);
    EXPECT_EQ(Pool(3)->GetSize(), 0x10000u) << "because a pool in use is kept";
    impl.talMem.Free(AddrOf(Pool(3)), inUse);
    impl.PoolCreate(0x10000 + kTol, 3, "PP:MULTI_POOL", false);
    EXPECT_EQ(Pool(3)->GetSize(), 0x10000u) << "because exactly 2 MiB more is tolerated";
    impl.PoolCreate(0x10000 + kTol + 1, 3, "PP:MULTI_POOL", false);
    EXPECT_EQ(Pool(3)->GetSize(), 0x211000u) << "because it was created again, rounded to pages";
}

TEST_F(TalMemPoolImplTest, ClearAll_AfterCameraCloseWithAPoolInUse_FailsKeepsItAndSavesNothing)
{
    ASSERT_EQ(impl.PoolCreateImpl(2 * kMiB, 1, "PP:BASE_POOL") + impl.PoolCreateImpl(kMiB, 2, "PP:MULTI_POOL"), 0);
    const uintptr_t inPool = AllocSize(8192);
    impl.CameraClose();
    EXPECT_EQ(impl.ClearAll(), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem ClearAll, ERROR! pool 2 is still in use or error happened "
                                          "(usedNum 1)\n"));
    EXPECT_EQ(PoolIds(), "2 ") << "because the idle pool went all the same";
    EXPECT_TRUE(impl.needClearPools);
    EXPECT_EQ(access(DevicePath("/data/vendor/camera/talmempoolfilter.xml").c_str(), F_OK), -1);
    impl.Free(inPool);
}

TEST_F(TalMemPoolImplTest, LimitAlgoSize_MovesAQuarterWayUnlessTheJumpIs40MiBAndCapsAtTheLimit)
{
    const uint32_t cases[][3] = { // old peak, new peak, stored
        {100 * kMiB, 60 * kMiB, 60 * kMiB}, // 40 MiB: five 8 MiB units, taken as is
        {100 * kMiB, 61 * kMiB, 94633984},  // (300 + 61) / 4 MiB, rounded down
        {8 * kMiB, 0, 6 * kMiB},
        {440 * kMiB, 470 * kMiB, 469237760}, // 447.5 MiB, below the limit; warned all the same
        {10 * kMiB, 500 * kMiB, 450 * kMiB},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(impl.LimitAlgoSize("algoA", "4000x3000", c[0], c[1]), c[2]) << c[0] << " -> " << c[1];
    }
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "algo filter:algoA resolution=4000x3000 peakSize 63963136->filterPeakSize "
                                          "94633984 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "algo filter:algoA resolution=4000x3000 peakSize 524288000(out of limit "
                                         "471859200)->filterPeakSize 471859200 \n"));
    EXPECT_EQ(LogCapture::CountContaining("out of limit"), 2);
}

TEST_F(TalMemPoolImplTest, UpdatePeakSize_DefaultEntryNewResolutionAndTheSecondPairOfThePreviewAlgorithm)
{
    impl.algoPeakMap = {{"algoA", {{"1920x1080", 50 * kMiB}, {"4000x3000", 80 * kMiB}}},
                        {"algoB", {{"default", 8 * kMiB}}},
                        {"casioBeautyPpAlgo", {{"1280x720", 10 * kMiB}, {"640x480", 90 * kMiB}}}};
    impl.SetResolution(qv::TalMemResolution{3840, 2160, 1280, 720});
    impl.OnSos();
    for (const char* algo : {"algoB", "algoA", "casioBeautyPpAlgo"}) {
        AllocSize(kMiB, 0, algo);
    }
    AllocSize(5 * kMiB, 0, "algoB");
    impl.Free(AllocSize(4 * kMiB, 0, "algoA")); // algoA peaks at 5 MiB and ends the stream at 1 MiB
    impl.OnEos();

    EXPECT_EQ(impl.algoPeakMap["algoB"].size(), 1u) << "because a default entry absorbs all";
    EXPECT_EQ(impl.algoPeakMap["algoB"].front().algoSize, (24 + 6) * kMiB / 4);
    const qv::TalMemResoluAlgoSize& appended = impl.algoPeakMap["algoA"].back();
    EXPECT_EQ(appended.resolution, "3840x2160") << "because a new one is appended";
    EXPECT_EQ(appended.algoSize, 5 * kMiB);
    const qv::TalMemResoluAlgoSize& beauty = impl.algoPeakMap["casioBeautyPpAlgo"].front();
    EXPECT_EQ(beauty.resolution + " " + std::to_string(beauty.algoSize), "1280x720 8126464")
        << "because it follows the second pair: (30 + 1) MiB / 4";
    EXPECT_EQ(impl.shortagePeak, 6 * kMiB) << "because algoB had the largest known peak";
    EXPECT_EQ(impl.shortageAlgo, "algoB");
}

TEST_F(TalMemPoolImplTest, PPState_CrossingNeedsTwoTypesInStateTwoAndBadValuesChangeNothing)
{
    impl.UpdatePPState(4, 1);
    impl.UpdatePPState(0, 6);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem UpdatePPState, ERROR! ppType 4 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem UpdatePPState, ERROR! ppType 6 \n"));
    EXPECT_EQ(impl.ppState[0] + impl.ppState[1] + impl.ppState[2] + impl.ppState[3], 0);
    const int steps[][3] = {{0, 2, false}, {1, 2, true}, {0, 1, true}, {1, 1, false}}; // type, state, crossing
    for (const auto& s : steps) {
        impl.UpdatePPState(s[0], s[1]);
        EXPECT_EQ(impl.ppCrossing, s[2] != 0) << s[0] << " " << s[1];
    }
    EXPECT_EQ(LogCapture::CountContaining("UpdatePPCrossing ppCrossing changed to "), 2);
    impl.ClearPPState(2);
    EXPECT_EQ(impl.ppState[0], 0u) << "because types 0 and 2 are cleared together";
    EXPECT_EQ(impl.ppState[1], 1u);
}

TEST_F(TalMemPoolImplTest, ControlCommands_ReleaseIdlePoolsByIdCountAndIdlePreviewChunks)
{
    // The pools are created in this order; pool 2 holds an allocation when inUse.
    const struct { const char* pools; bool inUse; int32_t cmd, video; const char* left; } cases[] = {
        {"123", false, 3, 0, "3 2 1 "}, {"123", true, 1, 0, "2 1 "}, {"123", true, 3, 1, "2 "},
        {"23", false, 3, 1, "3 "}, // two pools: only ids 1 and 2 are tried
        {"123", false, 3, 1, ""},  // the count is taken before the first release
    };
    for (const auto& c : cases) {
        for (const char* id = c.pools; *id != '\0'; ++id) {
            ASSERT_EQ(impl.PoolCreateImpl(kMiB, *id - '0', "PP:MULTI_POOL"), 0);
        }
        const uintptr_t held = c.inUse ? impl.talMem.Alloc(AddrOf(Pool(2)), 4096) : 0;
        impl.MemPoolCtrl(c.cmd, c.video != 0 ? &c.video : nullptr);
        EXPECT_EQ(PoolIds(), c.left) << c.pools << " cmd " << c.cmd;
        if (held != 0) {
            impl.talMem.Free(AddrOf(Pool(2)), held);
        }
        for (int id = 1; id <= 3; ++id) {
            impl.PoolDestroyImpl(id);
        }
    }

    const uintptr_t prev = AllocSize(kMiB, 1);
    impl.Free(AllocSize(2 * kMiB, 1));
    impl.MemPoolCtrl(2, nullptr);
    EXPECT_EQ(impl.sysPrevMcMap.size(), 1u) << "because only idle preview chunks go";
    EXPECT_EQ(impl.prevAllNeedPeak, kMiB) << "because the command resets the peak";

    // A cache command takes a pool's first byte as the pool's, unlike Free.
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 1, "PP:BASE_POOL"), 0);
    EXPECT_EQ(impl.MemPoolCacheSync(2, AddrOf(Pool(1)), 4096), 0);
    impl.Free(prev);
    EXPECT_EQ(impl.MemPoolCacheSync(3, prev, 4096), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem enter SysAllocCacheSync(2) cmd 3 pAddr 0x" + Hex(prev) +
                                              " had been released\n"));
}

TEST_F(TalMemPoolImplTest, CacheCommands_ReachBuffersMadeByGeometryOverTheirRealSize)
{
    const qv::MallocInfo video{1920, 1080, kYuv420, 0}, still{640, 480, kYuv420, 0};
    impl.PreAllocPool(still, "algo");
    ASSERT_EQ(impl.preAllocPoolMcMap.size(), 1u);
    const uintptr_t spare = reinterpret_cast<uintptr_t>(impl.preAllocPoolMcMap.begin()->first);
    EXPECT_EQ(impl.MemPoolCacheSync(2, spare, 4096), -1) << "because the preallocated chunk is free";
    const std::string released = "QvCamMem enter SysAllocCacheSync(3) cmd 2 pAddr 0x" + Hex(spare) + " had been released\n";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, released));
    EXPECT_EQ(LogCapture::Where(released), "TalMemPoolImpl.cpp SysAllocCacheSync") << "because the class logs as its source";
    const uintptr_t buffers[] = {
        impl.Alloc(1920, 1080, kYuv420, 0, "mod", nullptr, "algo", 0), // sysMcMap
        impl.Alloc(video, "algo"),                                      // preAllocPoolMcMap, in use
        impl.Alloc(still, "algo"),                                      // the preallocated one, now in use
    };
    EXPECT_EQ(buffers[2], spare);
    for (uintptr_t addr : buffers) {
        SCOPED_TRACE(Hex(addr));
        ASSERT_NE(addr, 0u);
        const qva_ibuf* ibuf = impl.GetIBuf(addr);
        ASSERT_NE(ibuf, nullptr);
        const uint32_t size = ibuf->getSize(ibuf);
        ASSERT_GT(size, 4096u);
        LogCapture::Clear();
        EXPECT_EQ(impl.MemPoolCacheSync(2, addr, size), 0) << LogCapture::Dump();
        EXPECT_EQ(impl.MemPoolCacheSync(3, addr + size - 1, 1), 0) << "because the last byte is the buffer's";
        EXPECT_EQ(impl.MemPoolCacheSync(3, addr + size, 4096), -1) << "because the next byte is not";
        EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "QvCamMem enter SysAllocCacheSync(4) cmd 3 invalid pAddr 0x" +
                                                 Hex(addr + size) + " size 4096 \n"));
        impl.Free(addr);
    }
}

TEST_F(TalMemPoolImplTest, NullMapEntries_AreSkippedByEveryLookupAndFreeDropsThemWithOneLine)
{
    const qv::MallocInfo still{640, 480, kYuv420, 0};
    const struct { qv::TalChunkMap* map; const char* name; uintptr_t key; } entries[] = {
        {&impl.sysMcMap, "sysMcMap", 0x11000}, {&impl.sysPrevMcMap, "sysPrevMcMap", 0x22000},
        {&impl.preAllocPoolMcMap, "preAllocPoolMcMap", 0x33000}};
    for (const auto& e : entries) {
        (*e.map)[reinterpret_cast<void*>(e.key)] = nullptr;
    }
    impl.PreAllocPool(still, "algo");
    const uintptr_t reused = impl.Alloc(still, "algo");
    EXPECT_EQ(Chunk(impl.preAllocPoolMcMap, reused)->preAlloc, true) << "because the null entry is passed over";
    impl.Free(reused);
    impl.ReleasePool(still);
    EXPECT_EQ(impl.preAllocPoolMcMap.size(), 1u) << "because only the null entry is left";
    const uintptr_t preview = AllocSize(kMiB, 1);
    EXPECT_NE(Chunk(impl.sysPrevMcMap, preview), nullptr);
    impl.Free(preview);
    EXPECT_EQ(impl.MemPoolCacheSync(2, 0x22000, 4096), -1);
    for (const auto& e : entries) {
        SCOPED_TRACE(e.name);
        EXPECT_EQ(impl.GetIBuf(e.key), nullptr);
        LogCapture::Clear();
        impl.Free(e.key);
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_WARN, "QvCamMem SysFree, ERROR! " + std::string(e.name) +
                                                          " free fail addr 0x" + Hex(e.key) + " \n"), 1)
            << LogCapture::Dump();
        EXPECT_EQ(e.map->count(reinterpret_cast<void*>(e.key)), 0u) << "because a null entry owns nothing";
    }
}

} // namespace
