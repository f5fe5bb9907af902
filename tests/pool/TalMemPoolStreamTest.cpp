// Post-processing state and the control commands of the pool manager.

#include "PoolTestUtil.h"

using namespace pool_test;

namespace {

using TalMemPoolStreamTest = PoolTest;

TEST_F(TalMemPoolStreamTest, PPState_CrossingNeedsTwoTypesInStateTwoAndBadValuesChangeNothing)
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

TEST_F(TalMemPoolStreamTest, ControlCommands_ReleaseIdlePoolsByIdCountAndIdlePreviewChunks)
{
    const struct {
        const char* pools; // created in this order; pool 2 holds an allocation when inUse
        bool inUse;
        int32_t cmd, video;
        const char* left;
    } cases[] = {
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

} // namespace
