// The pool manager's direct-allocation core: request checks and routing,
// the three direct allocators, release through the four maps, descriptor
// lookup and destruction.

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
constexpr uint32_t kFormatUnknown = 0x7777;

using TalMemPoolImplTest = pool_test::PoolTest;

TEST_F(TalMemPoolImplTest, AllocBySize_OneByte_IsRoundedToOnePageAndKeptAsDirectChunk)
{
    uintptr_t addr = AllocSize(1);
    ASSERT_NE(addr, 0u);
    TalMemChunk* chunk = Chunk(impl.sysMcMap, addr);
    ASSERT_NE(chunk, nullptr);
    EXPECT_EQ(chunk->GetSize(), 4096u) << "because sizes are rounded up to 4096";
    EXPECT_EQ(chunk->GetModuleName(), "mod");
    EXPECT_EQ(chunk->GetAlgoName(), "algo");
    EXPECT_EQ(chunk->GetPoolId(), 0);
    EXPECT_EQ(chunk->inUse, 1u);
    const qva_ibuf* ibuf = impl.GetIBuf(addr);
    ASSERT_NE(ibuf, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(ibuf->getAddr(ibuf)), addr);
    EXPECT_EQ(ibuf->getSize(ibuf), 4096u);

    uint64_t iova = ibuf->getIOVA(ibuf);
    std::string expected = "QvCamMem SysAlloc, type 0 algo(modul: mod) apva 0x" +
                           Hex(addr & 0xFFFFFF) + "(iova 0x" + Hex(iova & 0xFFFFFF) +
                           ") size 4096 previewReuse 0\n";
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, expected), 1) << LogCapture::Dump();
    impl.Free(addr);
    EXPECT_TRUE(impl.sysMcMap.empty());
}

TEST_F(TalMemPoolImplTest, AllocBySize_ZeroAndAboveMaxMemSize_AreRefused)
{
    impl.maxMemSize = 0x10000; // a small limit keeps the boundary case cheap
    EXPECT_EQ(AllocSize(0), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       "QvCamMem Alloc, ERROR! can not alloc size(0) maxMemSize(65536)\n"));
    EXPECT_EQ(AllocSize(0x10001), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       "QvCamMem Alloc, ERROR! can not alloc size(65537) maxMemSize(65536)\n"));
    EXPECT_TRUE(impl.sysMcMap.empty());

    uintptr_t addr = AllocSize(0x10000);
    EXPECT_NE(addr, 0u) << "because a request of exactly maxMemSize is accepted";
    impl.Free(addr);

    impl.maxMemSize = 0xFFFFFC00; // what an unreadable total memory gives
    EXPECT_EQ(AllocSize(0xFFFFF001), 0u) << "because the rounded size wraps to 0 and fails";
    EXPECT_TRUE(impl.sysMcMap.empty());
}

TEST_F(TalMemPoolImplTest, AllocByGeometry_WrappingOrOversizedPixelCount_IsRefused)
{
    impl.maxMemSize = 0x100000;
    EXPECT_EQ(impl.Alloc(65536, 65536, kFormatYuv420, 0, "mod", nullptr, "algo", 0), 0u)
        << "because 65536 x 65536 wraps to 0 in 32 bits";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       "QvCamMem Alloc, ERROR! can not alloc w(65536) h(65536) "
                       "maxMemSize(1048576)\n"));
    EXPECT_EQ(impl.Alloc(1025, 1024, kFormatYuv420, 0, "mod", nullptr, "algo", 0), 0u)
        << "because the pixel count is compared with the byte limit";
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, " Alloc QvCamMem Alloc w 1025 h 1024 format 35 name mod "
                                         "algoName algo allocateType 0\n\n"));
    // The pixel count, not the byte size, is limited: 1024 x 1024 YUV needs
    // 1.5 MiB and still passes.
    uintptr_t addr = impl.Alloc(1024, 1024, kFormatYuv420, 0, "mod", nullptr, "algo", 2);
    ASSERT_NE(addr, 0u);
    TalMemChunk* chunk = Chunk(impl.sysMcMap, addr);
    ASSERT_NE(chunk, nullptr);
    EXPECT_EQ(chunk->GetAllocateType(), 2);
    EXPECT_EQ(chunk->GetForceFromSys(), 0);
    impl.Free(addr);
    EXPECT_EQ(impl.Alloc(64, 64, kFormatUnknown, 0, "mod", nullptr, "algo", 0), 0u)
        << "because the service refuses an unknown format";
    EXPECT_TRUE(impl.sysMcMap.empty());
}

TEST_F(TalMemPoolImplTest, AllocHint_Versions_SetForceFromSysAndRequestUsage)
{
    struct Case {
        AllocHint hint;
        int32_t forceFromSys;
        uint64_t usageHigh; // high word of the chunk's usage
    };
    const Case cases[] = {
        {{0, 77, 0x001}, 0, 16}, // version 0: pool allowed, usage word ignored
        {{1, 77, 0x001}, 1, 16}, // version 1: forced out of the pools
        {{2, 77, 0x12001}, 1, 20}, // version 2: low 12 bits 1 select the first heap
        {{2, 77, 0x12002}, 1, 24},
        {{2, 77, 0x12345}, 1, 16},
        {{9, 77, 0x002}, 0, 16}, // unknown version: no hint at all
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.hint.version);
        SCOPED_TRACE(c.hint.requestUsage);
        uintptr_t addr = impl.Alloc(8192, "mod", &c.hint, "algo", 0);
        ASSERT_NE(addr, 0u);
        TalMemChunk* chunk = Chunk(impl.sysMcMap, addr);
        ASSERT_NE(chunk, nullptr);
        EXPECT_EQ(chunk->GetForceFromSys(), c.forceFromSys);
        EXPECT_EQ(chunk->GetUsage(), (c.usageHigh << 32) | 0x400801u);
        impl.Free(addr);
    }
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem Alloc, version:2, requestUsage 345is given\n"))
        << "because only the low 12 bits of the usage word are taken";
}

TEST_F(TalMemPoolImplTest, AllocBySize_CopiesStreamStateAndAllocateType)
{
    impl.OnSos();
    uintptr_t a = AllocSize(4096, 2);
    impl.OnFrame();
    uintptr_t b = AllocSize(0xFF000, 1);
    ASSERT_NE(a, 0u);
    ASSERT_NE(b, 0u);
    EXPECT_EQ(Chunk(impl.sysMcMap, a)->streamState, 1u);
    EXPECT_EQ(Chunk(impl.sysMcMap, b)->streamState, 2u);
    EXPECT_EQ(Chunk(impl.sysMcMap, b)->GetAllocateType(), 1);
    EXPECT_EQ(LogCapture::CountContaining("size 1044480 previewReuse 0\n"), 1)
        << "because a preview request below 1 MiB is served directly without reuse";
    impl.Free(a);
    impl.Free(b);
}

TEST_F(TalMemPoolImplTest, MaxMemSize_IsTotalMemoryInBytesWrappedAndRaisedToOneGiB)
{
    // The probe reads "proc/meminfo" relative to the working directory when
    // the kernel reports no DDR size, so each case runs in a prepared folder.
    struct Case {
        const char* memTotalKb;
        uint32_t expected;
    };
    const Case cases[] = {
        {"700000", 0x40000000u},  // 1 GiB
        {"3000000", 0xC0000000u}, // 3 GiB
        {"4194304", 0x40000000u}, // rounds to 5 GiB, wraps to 1 GiB
        {"7500000", 0x40000000u}, // 8 GiB wraps to 0, raised to 1 GiB
    };
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    if (access("/proc/ddr_info", R_OK) == 0) {
        GTEST_SKIP() << "the kernel reports a DDR size, which the probe prefers";
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.memTotalKb);
        talmem_test::MakeDirs(root_ + "/proc");
        talmem_test::WriteFile(root_ + "/proc/meminfo",
                               std::string("MemTotal:       ") + c.memTotalKb + " kB\n");
        ASSERT_EQ(chdir(root_.c_str()), 0);
        TalMemPoolImpl probed;
        ASSERT_EQ(chdir(cwd), 0);
        EXPECT_EQ(probed.maxMemSize, c.expected);
    }
}

TEST_F(TalMemPoolImplTest, Free_NullUnknownAndDoubleFree_AreHandledQuietly)
{
    impl.Free(0);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Free, ERROR! invalid vaddr\n"));
    uintptr_t addr = AllocSize(4096);
    ASSERT_NE(addr, 0u);
    impl.Free(addr);
    LogCapture::Clear();
    impl.Free(addr);
    impl.Free(0x12345000);
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 2u) << "because an unknown address logs only the debug entry line";
    EXPECT_EQ(lines[0].message, "QvCamMem Free, addr 0x" + Hex(addr & 0xFFFFFF) + " \n");
    EXPECT_EQ(lines[1].message, "QvCamMem Free, addr 0x345000 \n");
}

TEST_F(TalMemPoolImplTest, Free_PoolBaseAddress_IsNotPoolMemory)
{
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 1, "PP:BASE_POOL"), 0);
    uintptr_t base = pool_test::AddrOf(Pool(1));
    impl.Free(base);
    EXPECT_EQ(LogCapture::CountContaining("GetMcInfo fail"), 0)
        << "because the base address goes to the direct path, where it is in no map";
    impl.Free(base + 0x1000);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem Free, ERROR! addr 0x" +
                                              Hex((base + 0x1000) & 0xFFFFFF) +
                                              " GetMcInfo fail\n"))
        << "because an address inside the pool is looked up in the pool";
    impl.Free(base + kMiB);
    EXPECT_EQ(LogCapture::CountContaining("GetMcInfo fail"), 1)
        << "because the pool's end is outside it";
    EXPECT_EQ(impl.poolChunkList.size(), 1u);
}

TEST_F(TalMemPoolImplTest, SysFree_FirstMatchingMapWins)
{
    uintptr_t addr = AllocSize(4096);
    ASSERT_NE(addr, 0u);
    TalMemChunk* other = impl.NewMemChunk(4096, 1, 0, "PP:other", 1);
    ASSERT_NE(other, nullptr);
    impl.sysPrevMcMap[reinterpret_cast<void*>(addr)] = other;
    impl.Free(addr);
    EXPECT_TRUE(impl.sysMcMap.empty());
    ASSERT_EQ(impl.sysPrevMcMap.size(), 1u);
    EXPECT_EQ(other->inUse, 1u) << "because the preview-reuse entry is not reached";
}

TEST_F(TalMemPoolImplTest, MallocInfo_PreallocatedChunkIsReusedAndReleasePendingDestroysIt)
{
    MallocInfo info{640, 480, kFormatYuv420, 0x3};
    impl.PreAllocPool(info, "algo");
    ASSERT_EQ(impl.preAllocPoolMcMap.size(), 1u);
    TalMemChunk* pre = impl.preAllocPoolMcMap.begin()->second;
    EXPECT_TRUE(pre->preAlloc);
    EXPECT_EQ(pre->inUse, 0u);
    EXPECT_EQ(pre->GetModuleName(), "unknown") << "because no names are set on this path";
    uintptr_t preAddr = reinterpret_cast<uintptr_t>(pre->GetAddr());
    EXPECT_EQ(impl.GetIBuf(preAddr), nullptr) << "because a free preallocated chunk is not lent";

    EXPECT_EQ(impl.Alloc(info, "algo"), preAddr);
    EXPECT_EQ(pre->inUse, 1u);
    EXPECT_NE(impl.GetIBuf(preAddr), nullptr);
    MallocInfo other{640, 480, kFormatYuv420, 0x1003};
    uintptr_t fresh = impl.Alloc(other, "algo");
    ASSERT_NE(fresh, 0u);
    EXPECT_NE(fresh, preAddr) << "because the usage differs in its high half";
    EXPECT_EQ(impl.preAllocPoolMcMap.size(), 2u);

    impl.Free(preAddr);
    EXPECT_EQ(pre->inUse, 0u) << "because a preallocated chunk is kept";
    EXPECT_EQ(impl.Alloc(info, "algo"), preAddr);
    impl.ReleasePool(info);
    EXPECT_TRUE(pre->releasePending) << "because it is in use";
    impl.Free(preAddr);
    impl.Free(fresh);
    EXPECT_TRUE(impl.preAllocPoolMcMap.empty());

    impl.PreAllocPool(info, "algo");
    impl.ReleasePool(MallocInfo{640, 481, kFormatYuv420, 0x3});
    EXPECT_EQ(impl.preAllocPoolMcMap.size(), 1u) << "because another geometry is not released";
    impl.ReleasePool(info);
    EXPECT_TRUE(impl.preAllocPoolMcMap.empty()) << "because a free preallocated chunk goes at once";
}

TEST_F(TalMemPoolImplTest, GetIBuf_NullAndBrokenEntries_LogTheirWarnings)
{
    EXPECT_EQ(impl.GetIBuf(0), nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem GetIBuf, ERROR! invalid vaddr\n"));
    impl.sysMcMap[reinterpret_cast<void*>(0x1000)] = nullptr;
    impl.sysPrevMcMap[reinterpret_cast<void*>(0x2000)] = nullptr;
    impl.preAllocPoolMcMap[reinterpret_cast<void*>(0x3000)] = nullptr;
    EXPECT_EQ(impl.GetIBuf(0x1000), nullptr);
    EXPECT_EQ(impl.GetIBuf(0x2000), nullptr);
    EXPECT_EQ(impl.GetIBuf(0x3000), nullptr);
    EXPECT_EQ(impl.GetIBuf(0xABC123000ull & UINTPTR_MAX), nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "QvCamMem GetIBuf, ERROR! sysMcMap getIBuf fail addr "
                                         "0x1000 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "QvCamMem GetReuseIBuf, ERROR! sysPrevMcMap getIBuf "
                                         "fail addr 0x2000 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "QvCamMem GetReuseIBuf, ERROR! preAllocPoolMcMap "
                                         "getIBuf fail addr 0x3000 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "QvCamMem GetReuseIBuf, ERROR! getIBuf fail addr "
                                         "0x123000 \n"))
        << "because addresses are masked to 24 bits";
    impl.sysMcMap.clear();
    impl.sysPrevMcMap.clear();
    impl.preAllocPoolMcMap.clear();
}

TEST_F(TalMemPoolImplTest, Destruction_ReleasesEveryChunkOfEveryMap)
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
