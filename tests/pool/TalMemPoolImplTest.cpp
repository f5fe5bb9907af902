// The pool manager's core: request checks and routing, the direct allocators,
// release through the maps, descriptor lookup and destruction.

#include "PoolTestUtil.h"

#include <unistd.h>

using pool_test::Hex;
using pool_test::kMiB;
using qv::AllocHint;
using qv::MallocInfo;
using qv::SysAllocInfo;
using qv::TalMemChunk;
using qv::TalMemPoolImpl;
using talmem_test::LogCapture;

namespace {

constexpr uint32_t kFormatYuv420 = 35;

using TalMemPoolImplTest = pool_test::PoolTest;

TEST_F(TalMemPoolImplTest, AllocBySize_RoundsToPagesAndRefusesZeroOrAboveMaxMemSize)
{
    uintptr_t addr = AllocSize(1);
    ASSERT_NE(Chunk(impl.sysMcMap, addr), nullptr);
    const qva_ibuf* ibuf = impl.GetIBuf(addr);
    ASSERT_EQ(ibuf, Chunk(impl.sysMcMap, addr)->GetIBuf());
    EXPECT_EQ(ibuf->getSize(ibuf), 4096u);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem SysAlloc, type 0 algo(modul: mod) apva 0x" +
                                              Hex(addr & 0xFFFFFF) + "(iova 0x" +
                                              Hex(ibuf->getIOVA(ibuf) & 0xFFFFFF) +
                                              ") size 4096 previewReuse 0\n"));
    impl.Free(addr);
    EXPECT_TRUE(impl.sysMcMap.empty());

    impl.OnSos();
    uintptr_t below = AllocSize(0xFF000, 1);
    EXPECT_EQ(Chunk(impl.sysMcMap, below)->streamState, 1u) << "because it is direct";
    uintptr_t reuse = AllocSize(0xFF001, 1);
    EXPECT_NE(Chunk(impl.sysPrevMcMap, reuse), nullptr) << "because 0xFF001 rounds to 1 MiB";
    impl.Free(below);
    impl.Free(reuse);

    impl.maxMemSize = 0x10000; // a small limit keeps the boundary case cheap
    EXPECT_EQ(AllocSize(0) + AllocSize(0x10001), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       "QvCamMem Alloc, ERROR! can not alloc size(65537) maxMemSize(65536)\n"));
    impl.Free(AllocSize(0x10000));
    EXPECT_EQ(LogCapture::CountContaining("can not alloc"), 2) << "because maxMemSize itself fits";
    impl.maxMemSize = 0xFFFFFC00; // what an unreadable total memory gives
    EXPECT_EQ(AllocSize(0xFFFFF001), 0u) << "because the rounded size wraps to 0 and fails";
    EXPECT_TRUE(impl.sysMcMap.empty());
}

TEST_F(TalMemPoolImplTest, AllocByGeometry_LimitsThePixelCountAndNeverUsesAPool)
{
    ASSERT_EQ(impl.PoolCreateImpl(4 * kMiB, 1, "PP:BASE_POOL"), 0);
    impl.maxMemSize = 0x100000;
    EXPECT_EQ(impl.Alloc(65536, 65536, kFormatYuv420, 0, "mod", nullptr, "algo", 0), 0u)
        << "because 65536 x 65536 wraps to 0 in 32 bits";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Alloc, ERROR! can not alloc w(65536) h(65536) "
                                          "maxMemSize(1048576)\n"));
    EXPECT_EQ(impl.Alloc(1025, 1024, kFormatYuv420, 0, "mod", nullptr, "algo", 0), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, " Alloc QvCamMem Alloc w 1025 h 1024 format 35 name mod "
                                         "algoName algo allocateType 0\n\n"));
    // 1024 x 1024 YUV needs 1.5 MiB of bytes but passes on its pixel count.
    uintptr_t addr = impl.Alloc(1024, 1024, kFormatYuv420, 0, "mod", nullptr, "algo", 2);
    ASSERT_NE(Chunk(impl.sysMcMap, addr), nullptr) << "because geometry is served directly";
    impl.Free(addr);
    EXPECT_TRUE(impl.sysMcMap.empty() && impl.poolMcMap.empty());
}

TEST_F(TalMemPoolImplTest, AllocHint_Versions_DecideThePoolForceFromSysAndRequestUsage)
{
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 1, "PP:BASE_POOL"), 0);
    const struct {
        AllocHint hint;
        bool inPool;
        int32_t forceFromSys;
        uint64_t usageHigh; // high word of a direct chunk's usage
    } cases[] = {
        {{0, 77, 0x001}, true, 0, 0},    // version 0: pool allowed
        {{1, 77, 0x001}, false, 1, 16},  // version 1: forced out of the pools
        {{2, 77, 0x12001}, false, 1, 20}, // version 2: low 12 bits 1 select the first heap
        {{2, 77, 0x12002}, false, 1, 24},
        {{2, 77, 0x12345}, false, 1, 16},
        {{9, 77, 0x002}, true, 0, 0},    // unknown version: no hint at all
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.hint.version << " " << c.hint.requestUsage);
        uintptr_t addr = impl.Alloc(8192, "mod", &c.hint, "algo", 0);
        TalMemChunk* chunk = Chunk(c.inPool ? impl.poolMcMap : impl.sysMcMap, addr);
        ASSERT_NE(chunk, nullptr);
        EXPECT_EQ(chunk->GetForceFromSys(), c.forceFromSys);
        if (!c.inPool) {
            EXPECT_EQ(chunk->GetUsage(), (c.usageHigh << 32) | 0x400801u);
        }
        impl.Free(addr);
    }
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem Alloc, version:2, requestUsage 345is given\n"))
        << "because only the low 12 bits of the usage word are taken";
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
        {"4194304", 0x40000000u}, // rounds to 5 GiB, wraps to 1 GiB
        {"7500000", 0x40000000u}, // 8 GiB wraps to 0, raised to 1 GiB
    };
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    talmem_test::MakeDirs(root_ + "/proc");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        talmem_test::WriteFile(root_ + "/proc/meminfo",
                               std::string("MemTotal:       ") + c.first + " kB\n");
        ASSERT_EQ(chdir(root_.c_str()), 0);
        TalMemPoolImpl probed;
        ASSERT_EQ(chdir(cwd), 0);
        EXPECT_EQ(probed.maxMemSize, c.second);
    }
}

TEST_F(TalMemPoolImplTest, Free_NullUnknownDoubleAndPoolBase_ChangeNothing)
{
    impl.Free(0);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Free, ERROR! invalid vaddr\n"));
    uintptr_t addr = AllocSize(4096);
    impl.Free(addr);
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 1, "PP:BASE_POOL"), 0);
    uintptr_t base = pool_test::AddrOf(Pool(1));
    LogCapture::Clear();
    impl.Free(addr);
    impl.Free(0x12345000);
    impl.Free(base);
    impl.Free(base + kMiB);
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 4u) << "because these log only the entry line: " << LogCapture::Dump();
    EXPECT_EQ(lines[1].message, "QvCamMem Free, addr 0x345000 \n");
    impl.Free(base + 0x1000);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Free, ERROR! addr 0x" +
                                              Hex((base + 0x1000) & 0xFFFFFF) +
                                              " GetMcInfo fail\n"))
        << "because an address inside the pool is looked up in the pool";
}

TEST_F(TalMemPoolImplTest, MallocInfo_PreallocatedChunkIsReusedAndReleasePendingDestroysIt)
{
    MallocInfo info{640, 480, kFormatYuv420, 0x3};
    impl.PreAllocPool(info, "algo");
    ASSERT_EQ(impl.preAllocPoolMcMap.size(), 1u);
    TalMemChunk* pre = impl.preAllocPoolMcMap.begin()->second;
    uintptr_t preAddr = pool_test::AddrOf(pre);
    EXPECT_EQ(impl.GetIBuf(preAddr), nullptr) << "because a free preallocated chunk is not lent";
    EXPECT_EQ(impl.Alloc(info, "algo"), preAddr);
    EXPECT_NE(impl.GetIBuf(preAddr), nullptr);
    uintptr_t fresh = impl.Alloc(MallocInfo{640, 480, kFormatYuv420, 0x1003}, "algo");
    EXPECT_NE(fresh, preAddr) << "because the usage differs in its high half";
    impl.Free(preAddr);
    EXPECT_EQ(pre->inUse, 0u) << "because a preallocated chunk is kept";
    EXPECT_EQ(impl.Alloc(info, "algo"), preAddr);
    impl.ReleasePool(info);
    EXPECT_TRUE(pre->releasePending) << "because it is in use";
    EXPECT_NE(impl.GetIBuf(preAddr), nullptr) << "because it stays usable until its free";
    impl.Free(preAddr);
    impl.Free(fresh);
    EXPECT_TRUE(impl.preAllocPoolMcMap.empty());

    impl.PreAllocPool(info, "algo");
    impl.ReleasePool(MallocInfo{640, 481, kFormatYuv420, 0x3});
    EXPECT_EQ(impl.preAllocPoolMcMap.size(), 1u) << "because another geometry is not released";
    impl.ReleasePool(info);
    EXPECT_TRUE(impl.preAllocPoolMcMap.empty()) << "because a free preallocated chunk goes at once";
}

TEST_F(TalMemPoolImplTest, Destruction_ReleasesEveryChunkOfEveryMapAndEveryPool)
{
    uint64_t before = QvCamera::CameraBufferInterface::GetHeldBytes();
    {
        TalMemPoolImpl local;
        ASSERT_EQ(local.PoolInit(), 0);
        SysAllocInfo info{1, 0, 0};
        ASSERT_NE(local.Alloc(4096, "m", nullptr, "a", 0), 0u);
        ASSERT_NE(local.SysAlloc(8192, "m", "a", info, 0, 1), 0u);
        local.PreAllocPool(MallocInfo{64, 64, kFormatYuv420, 0}, "a");
        ASSERT_EQ(local.PoolCreateImpl(kMiB, 1, "PP:BASE_POOL"), 0);
        ASSERT_NE(local.PoolAlloc(8192, "m", "a", 0), 0u);
        EXPECT_GT(QvCamera::CameraBufferInterface::GetHeldBytes(), before);
    }
    EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), before);
}

} // namespace
