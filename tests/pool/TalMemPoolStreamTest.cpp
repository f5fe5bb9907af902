// Stream events, post-processing state and control commands of the pool
// manager.

#include "PoolTestUtil.h"

using pool_test::AddrOf;
using pool_test::Hex;
using pool_test::kMiB;
using talmem_test::LogCapture;

namespace {

using TalMemPoolStreamTest = pool_test::PoolTest;

TEST_F(TalMemPoolStreamTest, PPState_CrossingNeedsTwoTypesInStateTwoAndBadValuesChangeNothing)
{
    impl.UpdatePPState(4, 1);
    impl.UpdatePPState(0, 6);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem UpdatePPState, ERROR! ppType 4 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem UpdatePPState, ERROR! ppType 6 \n"))
        << "because the state is checked first and printed with the same text";
    EXPECT_EQ(impl.ppState[0] + impl.ppState[1] + impl.ppState[2] + impl.ppState[3], 0);
    const std::pair<int, bool> steps[] = {{0, false}, {1, true}, {0, true}, {1, false}};
    const int states[] = {2, 2, 1, 1}; // type 1 still in state 2 keeps the crossing
    for (int i = 0; i < 4; ++i) {
        impl.UpdatePPState(steps[i].first, states[i]);
        EXPECT_EQ(impl.ppCrossing, steps[i].second) << "step " << i;
    }
    EXPECT_EQ(LogCapture::CountContaining("UpdatePPCrossing ppCrossing changed to "), 2);
    impl.ClearPPState(2);
    EXPECT_EQ(impl.ppState[0], 0u) << "because types 0 and 2 are cleared together";
    EXPECT_EQ(impl.ppState[1], 1u);
}

TEST_F(TalMemPoolStreamTest, ReleaseCommands_TryPoolIdsByCountAndKeepPoolsInUse)
{
    for (int id : {1, 2, 3}) {
        ASSERT_EQ(impl.PoolCreateImpl(kMiB, id, id == 1 ? "PP:BASE_POOL" : "PP:MULTI_POOL"), 0);
    }
    uintptr_t inPool2 = impl.talMem.Alloc(AddrOf(Pool(2)), 4096);
    ASSERT_NE(inPool2, 0u);
    impl.MemPoolCtrl(3, nullptr);
    EXPECT_EQ(PoolIds(), "3 2 1 ") << "because a video state of 0 releases nothing";
    impl.MemPoolCtrl(1, nullptr);
    EXPECT_EQ(PoolIds(), "2 1 ") << "because pool 2 is in use";
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem PoolDestroyImpl, release poolId 3\n"));
    int32_t video = 1;
    impl.MemPoolCtrl(3, &video);
    EXPECT_EQ(PoolIds(), "2 ");
    impl.talMem.Free(AddrOf(Pool(2)), inPool2);
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 3, "PP:MULTI_POOL"), 0);
    impl.MemPoolCtrl(3, &video);
    EXPECT_EQ(PoolIds(), "3 ") << "because with two pools only ids 1 and 2 are tried";
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 1, "PP:BASE_POOL") + impl.PoolCreateImpl(kMiB, 2, "x"), 0);
    impl.MemPoolCtrl(3, &video);
    EXPECT_EQ(PoolIds(), "") << "because the count is taken before the first release";
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 3, "PP:MULTI_POOL"), 0);

    // The first byte of a pool is the pool's for cache commands.
    const uintptr_t base = AddrOf(Pool(3));
    EXPECT_EQ(impl.MemPoolCacheSync(2, base, 4096), 0);
    uintptr_t prev = AllocSize(2 * kMiB, 1);
    impl.Free(prev);
    EXPECT_EQ(impl.MemPoolCacheSync(3, prev, 4096), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem enter SysAllocCacheSync(2) cmd 3 pAddr 0x" +
                                              Hex(prev & 0xFFFFFF) + " had been released\n"));
}

} // namespace
