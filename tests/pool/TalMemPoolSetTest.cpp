// The pool set: configuration, sizing from a peak, resizing and clearing.

#include "PoolTestUtil.h"

#include <unistd.h>

#include "talmem_properties.h"

using namespace pool_test;

namespace {

using TalMemPoolSetTest = PoolTest;

TEST_F(TalMemPoolSetTest, PoolInit_ClampsTheConfiguredSizesToTheAlgorithmLimit)
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

TEST_F(TalMemPoolSetTest, PoolUpdate_BasePoolAbove20MiBAndMultiPoolsForOneActiveSnapshot)
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

TEST_F(TalMemPoolSetTest, PoolCreate_KeepsAMultiPoolInUseOrWithinTwoMiB)
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

TEST_F(TalMemPoolSetTest, ClearAll_AfterCameraCloseWithNoPoolInUse_SavesTheLearntTable)
{
    impl.algoPeakMap["algoB"] = {{"default", kMiB}};
    ASSERT_EQ(impl.PoolCreateImpl(2 * kMiB, 1, "PP:BASE_POOL"), 0);
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 2, "PP:MULTI_POOL"), 0);
    const uintptr_t inPool = AllocSize(8192);
    impl.CameraClose();
    EXPECT_EQ(impl.ClearAll(), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem ClearAll, ERROR! pool 2 is still in use or error happened "
                                          "(usedNum 1)\n"));
    EXPECT_EQ(PoolIds(), "2 ") << "because the idle pool went all the same";
    EXPECT_TRUE(impl.needClearPools);
    const std::string filter = DevicePath("/data/vendor/camera/talmempoolfilter.xml");
    EXPECT_EQ(access(filter.c_str(), F_OK), -1) << "because a failed clear saves nothing";

    impl.Free(inPool);
    EXPECT_EQ(impl.ClearAll(), 0);
    EXPECT_EQ(PoolIds(), "");
    EXPECT_FALSE(impl.needClearPools);
    EXPECT_NE(talmem_test::ReadFile(filter).find("<Algo name=\"algoB\" value=\"1048576\""), std::string::npos);
}

} // namespace
