// The pool set: initialisation from the configuration, the base and multi
// pools sized from a peak, their resizing tolerance and the clear after the
// camera closes.

#include "PoolTestUtil.h"

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

#include "talmem_properties.h"

using pool_test::kMiB;
using qv::TalMemChunk;
using qv::TalMemPoolImpl;
using talmem_test::LogCapture;

namespace {

class TalMemPoolSetTest : public pool_test::PoolTest {
protected:
    // The same device file under both names, whatever this machine's memory.
    void WriteDeviceConfig(const std::string& base, const std::string& limit,
                           const std::string& multi)
    {
        const std::string xml =
            "<TalMemPoolConfig>list algorithm peak size\n<AllocType>1</AllocType>\n"
            "<BasePoolSize>" + base + "</BasePoolSize>\n<AlgoSizeLimit>" + limit +
            "</AlgoSizeLimit>\n<PrevRatioLimit>60</PrevRatioLimit>\n<MultiPoolSize>" + multi +
            "</MultiPoolSize>\n<Algo name=\"algoA\" value=\"52428800\" resolution=\"1920x1080\"/>"
            "\n</TalMemPoolConfig>\n";
        for (const char* name : {"talmempoolcfg.xml", "talmempoolcfg_ram4g.xml"}) {
            talmem_test::WriteFile(DevicePath("/odm/etc/camera/") + name, xml);
        }
    }
    std::string FilterPath() { return DevicePath("/data/vendor/camera/talmempoolfilter.xml"); }
};

TEST_F(TalMemPoolSetTest, PoolInit_TakesTheConfiguredSizesWithinTheAlgorithmLimit)
{
    EXPECT_EQ(impl.basePoolSize + impl.multiPoolSize, 0x0A000000u + 0x0DC00000u)
        << "because no configuration file exists here";
    EXPECT_FALSE(impl.printPoolInfo);
    const struct {
        const char *base, *limit, *multi;
        uint32_t expBase, expMulti, expShortageLimit;
    } cases[] = {
        {"157286400", "471859200", "230686720", 157286400, 230686720, 46080000},
        {"0", "471859200", "230686720", 0x0A000000, 230686720, 46080000}, // 0: default base
        {"209715200", "125829120", "157286400", 125829120, 125829120, 12288000}, // clamped
    };
    TalHostSetProperty("persist.vendor.poolInfo.dump", "1");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.base);
        WriteDeviceConfig(c.base, c.limit, c.multi);
        TalMemPoolImpl local;
        ASSERT_EQ(local.PoolInit(), 0);
        EXPECT_EQ(local.basePoolSize, c.expBase);
        EXPECT_EQ(local.multiPoolSize, c.expMulti);
        EXPECT_EQ(TalMemPoolImpl::upperLimit, static_cast<uint32_t>(atoi(c.limit)));
        EXPECT_EQ(local.shortageLimit, c.expShortageLimit);
        EXPECT_EQ(TalMemPoolImpl::prevRatioLimit, 60u);
        EXPECT_TRUE(local.printPoolInfo);
        ASSERT_EQ(local.algoPeakMap["algoA"].size(), 1u) << "because the table is loaded too";
        EXPECT_EQ(local.algoPeakMap["algoA"].front().algoSize, 52428800u);
    }
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "PoolInit basePoolSize:125829120 multiPoolSize:125829120 "
                                          "upperLimit:125829120 prevRatioLimit:60 "
                                          "shortageLimit:12288000\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem PoolInit printPoolInfo enabled\n"));
}

TEST_F(TalMemPoolSetTest, PoolUpdate_BasePoolAbove20MiBAndMultiPoolsForOneActiveSnapshot)
{
    impl.basePoolSize = 4 * kMiB;
    impl.multiPoolSize = 2 * kMiB;
    impl.CameraClose();
    impl.PoolUpdate(0x1400000);
    EXPECT_EQ(PoolIds(), "");
    EXPECT_FALSE(impl.needClearPools) << "because every pool update clears it";
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem PoolUpdate, do not update multiPools with multi "
                                         "snap_instance(snapCount 0)\n"));
    impl.PoolUpdate(0x1400001);
    TalMemChunk* base = impl.poolChunkList.front();
    impl.PoolUpdate(0x1400001);
    ASSERT_EQ(PoolIds(), "1 ");
    EXPECT_EQ(Pool(1), base);
    EXPECT_EQ(base->GetSize(), 4 * kMiB);
    EXPECT_EQ(base->GetModuleName(), "PP:BASE_POOL");
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem PoolCreate,  BASE_POOL has been created\n"));

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
        EXPECT_EQ(Pool(id)->GetModuleName(), "PP:MULTI_POOL");
    }

    // A smaller peak fits pool 2 alone: pools 3 to 5 are asked to release,
    // and pool 4, in use, stays.
    uintptr_t inUse = impl.PoolAlloc(3 * kMiB / 2, "mod", "algo", 0);
    ASSERT_EQ(impl.poolMcMap.begin()->second->poolId, 4) << "because pool 5 is too small";
    impl.UpdateMultiPools(5 * kMiB);
    EXPECT_EQ(PoolIds(), "4 2 1 ");
    EXPECT_EQ(Pool(2)->GetSize(), 2 * kMiB) << "because 1309696 bytes is within 2 MiB of it";
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN,
                       "QvCamMem PoolCreate, invalid poolSize(0) when create poolId 5\n"));
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_WARN, "PoolCreate Failed!\n"), 2);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem PoolCreate,  tolerance -2097152 usedNum 1, no "
                                         "need to update multiPool\n"));
    impl.Free(inUse);

    impl.PoolDestroyImpl(2);
    impl.PoolDestroyImpl(4);
    impl.basePoolSize = 0x0A000000;
    impl.multiPoolSize = 0x0DC00000;
    impl.UpdateMultiPools(0x0A000000);
    EXPECT_EQ(Pool(2)->GetSize(), 8355840u) << "because 160 MiB needs 51 x 163840 bytes more";
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "UpdateMultiPools poolId:2 poolsize:8355840\n"));
}

TEST_F(TalMemPoolSetTest, NeedDelPool_KeepsPoolsInUseAndWithinTwoMiB)
{
    ASSERT_EQ(impl.PoolCreateImpl(0x10000, 2, "PP:MULTI_POOL"), 0);
    ASSERT_EQ(impl.PoolCreateImpl(0x10000, 3, "PP:MULTI_POOL"), 0);
    const int32_t kTol = 0x200000;
    const struct {
        int32_t poolId, usedNum, sizeDiff;
        bool release, pending;
        int32_t pendingId;
        bool expected, pendingAfter;
    } cases[] = {
        {3, 1, kTol + 1, true, true, 3, false, true}, // live allocations pin the pool
        {3, 0, 0, false, true, 3, true, false},       // the shortage pool is recreated
        {3, 0, kTol, false, true, 4, false, true},
        {3, 0, kTol + 1, false, true, 4, true, true},
        {3, 0, -kTol - 1, false, false, 4, true, false},
        {2, 0, -kTol, false, true, 4, false, true}, // two pools: pool 2 counts as the last
        {2, 0, kTol + 1, false, true, 4, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.poolId << " " << c.sizeDiff << " " << c.release);
        impl.shortagePending = c.pending;
        impl.shortagePoolId = c.pendingId;
        EXPECT_EQ(impl.NeedDelPool(c.poolId, c.usedNum, c.sizeDiff, c.release), c.expected);
        EXPECT_EQ(impl.shortagePending, c.pendingAfter);
    }

    LogCapture::Clear();
    impl.PoolCreate(0x10000 + kTol, 3, "PP:MULTI_POOL", false);
    EXPECT_EQ(Pool(3)->GetSize(), 0x10000u) << "because exactly 2 MiB more is tolerated";
    impl.PoolCreate(0x10000 + kTol + 1, 3, "PP:MULTI_POOL", false);
    EXPECT_EQ(Pool(3)->GetSize(), 0x211000u) << "because it was created again, rounded to pages";
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem PoolCreate, release:0 tolerance 2097153 "
                                          "usedNum 0 release multiPool\n"));
}

TEST_F(TalMemPoolSetTest, ClearAll_AfterCameraCloseWithNoPoolInUse_SavesTheLearntTable)
{
    WriteDeviceConfig("4194304", "471859200", "230686720");
    TalMemPoolImpl local;
    ASSERT_EQ(local.PoolInit(), 0);
    local.algoPeakMap["algoB"] = {{"default", kMiB}};
    ASSERT_EQ(local.PoolCreateImpl(2 * kMiB, 1, "PP:BASE_POOL"), 0);
    ASSERT_EQ(local.PoolCreateImpl(kMiB, 2, "PP:MULTI_POOL"), 0);
    uintptr_t inPool = local.Alloc(8192, "mod", nullptr, "algo", 0);
    uintptr_t prev = local.Alloc(2 * kMiB, "mod", nullptr, "algo", 1);
    local.Free(prev);
    LogCapture::Clear();

    EXPECT_EQ(local.ClearAll(), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "QvCamMem ClearAll stopped because needClearPools is "
                                         "false\n"));
    EXPECT_TRUE(local.sysPrevMcMap.empty()) << "because idle preview chunks go first";
    local.CameraClose();
    EXPECT_EQ(local.ClearAll(), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem ClearAll, ERROR! pool 2 is still in use or "
                                          "error happened (usedNum 1)\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem free poolId(1) size=2097152\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem  ClearAll failed\n"));
    EXPECT_TRUE(local.needClearPools);
    EXPECT_EQ(access(FilterPath().c_str(), F_OK), -1) << "because a failed clear saves nothing";

    local.Free(inPool);
    EXPECT_EQ(local.ClearAll(), 0);
    EXPECT_TRUE(local.poolChunkList.empty());
    EXPECT_FALSE(local.needClearPools);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem  ClearAll free all pool success\n"));
    const std::string xml = talmem_test::ReadFile(FilterPath());
    EXPECT_NE(xml.find("<Algo name=\"algoA\" value=\"52428800\" resolution=\"1920x1080\""),
              std::string::npos)
        << xml;
    EXPECT_NE(xml.find("<Algo name=\"algoB\" value=\"1048576\""), std::string::npos);
    TalMemPoolImpl next;
    ASSERT_EQ(next.PoolInit(), 0);
    EXPECT_EQ(next.algoPeakMap.size(), 2u) << "because the next start reads the saved table";
    EXPECT_EQ(next.basePoolSize, 4194304u);
}

TEST_F(TalMemPoolSetTest, PoolInitTest_MakesPoolTenAndServesRequests)
{
    EXPECT_EQ(impl.PoolInitTest("tester", 0), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem PoolInitTest, ERROR! can not alloc size(0)\n"));
    ASSERT_EQ(impl.PoolInitTest("tester", 2 * kMiB), 0);
    ASSERT_EQ(PoolIds(), "10 ");
    EXPECT_EQ(Pool(10)->GetModuleName(), "tester");
    EXPECT_EQ(Pool(10)->streamState + impl.streamState, 4u) << "because both are set to 2";
    uintptr_t addr = AllocSize(4096);
    EXPECT_EQ(Chunk(impl.poolMcMap, addr)->poolId, 10);
    impl.Free(addr);
}

} // namespace
