// Request checks and routing, release through the maps, the largest request.

#include "PoolTestUtil.h"

#include <unistd.h>

using namespace pool_test;

namespace {

constexpr uint32_t kYuv420 = 35;

using TalMemPoolImplTest = PoolTest;

TEST_F(TalMemPoolImplTest, AllocBySize_RoundsToPagesSplitsPreviewAt1MiBAndStopsAtMaxMemSize)
{
    uintptr_t addr = AllocSize(1);
    ASSERT_NE(Chunk(impl.sysMcMap, addr), nullptr);
    const qva_ibuf* ibuf = impl.GetIBuf(addr);
    EXPECT_EQ(ibuf->getSize(ibuf), 4096u);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem SysAlloc, type 0 algo(modul: mod) apva 0x" + Hex(addr) +
                                              "(iova 0x" + Hex(ibuf->getIOVA(ibuf)) + ") size 4096 previewReuse 0\n"));
    impl.Free(addr);

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
    EXPECT_EQ(impl.sysMcMap.size(), 2u);
}

TEST_F(TalMemPoolImplTest, WithAPool_GeometryIsServedDirectlyAndFreeOfItsBaseGoesToTheMaps)
{
    ASSERT_EQ(impl.PoolCreateImpl(4 * kMiB, 1, "PP:BASE_POOL"), 0);
    impl.maxMemSize = 0x100000;
    auto alloc = [this](uint32_t w, uint32_t h) { return impl.Alloc(w, h, kYuv420, 0, "mod", nullptr, "algo", 2); };
    EXPECT_EQ(alloc(65536, 65536), 0u) << "because the product wraps to 0";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Alloc, ERROR! can not alloc w(65536) h(65536) maxMemSize(1048576)\n"));
    EXPECT_EQ(alloc(1025, 1024), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, " Alloc QvCamMem Alloc w 1025 h 1024 format 35 name mod algoName algo "
                                         "allocateType 2\n\n"));
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
    const struct {
        qv::AllocHint hint;
        bool inPool;
        uint64_t usageHigh; // high word of a direct chunk's usage: the heap the low 12 bits select
    } cases[] = {
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
    // Without a DDR size the probe reads "proc/meminfo" relative to the
    // working directory, so each case runs in a prepared folder.
    if (access("/proc/ddr_info", R_OK) == 0) {
        GTEST_SKIP() << "the kernel reports a DDR size, which the probe prefers";
    }
    const std::pair<const char*, uint32_t> cases[] = {
        {"3000000", 0xC0000000u}, // 3 GiB
        {"7500000", 0x40000000u}, // 8 GiB wraps to 0, raised to 1 GiB
    };
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    talmem_test::MakeDirs(root_ + "/proc");
    for (const auto& c : cases) {
        talmem_test::WriteFile(root_ + "/proc/meminfo", std::string("MemTotal:       ") + c.first + " kB\n");
        ASSERT_EQ(chdir(root_.c_str()), 0);
        TalMemPoolImpl probed;
        ASSERT_EQ(chdir(cwd), 0);
        EXPECT_EQ(probed.maxMemSize, c.second) << c.first;
    }
}

TEST_F(TalMemPoolImplTest, MallocInfo_PreallocatedChunkIsReusedAndReleasePendingDestroysIt)
{
    qv::MallocInfo info{640, 480, kYuv420, 0x3};
    impl.PreAllocPool(info, "algo");
    ASSERT_EQ(impl.preAllocPoolMcMap.size(), 1u);
    TalMemChunk* pre = impl.preAllocPoolMcMap.begin()->second;
    const uintptr_t preAddr = AddrOf(pre);
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

} // namespace
