// Stream events and post-processing state of the pool manager.

#include "TalTestSupport.h"

#include "pool/TalMemPoolImpl.h"

using qv::TalMemPoolImpl;
using talmem_test::LogCapture;
using talmem_test::TalTest;

namespace {

class TalMemPoolStreamTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        ASSERT_EQ(impl.PoolInit(), 0);
        LogCapture::Clear();
    }
    TalMemPoolImpl impl;
};

TEST_F(TalMemPoolStreamTest, UpdatePPState_OutOfRangeValuesAreLoggedAndChangeNothing)
{
    impl.UpdatePPState(4, 1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem UpdatePPState, ERROR! ppType 4 \n"));
    impl.UpdatePPState(0, 6);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem UpdatePPState, ERROR! ppType 6 \n"))
        << "because the state is checked first and printed with the same text";
    impl.UpdatePPState(-1, 0);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem UpdatePPState, ERROR! ppType 0 \n"));
    for (uint8_t s : impl.ppState) {
        EXPECT_EQ(s, 0u);
    }
    impl.ClearPPState(7);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem ClearPPState unsupported ppType:7\n"));
}

TEST_F(TalMemPoolStreamTest, Crossing_SetByTwoTypesInStateTwoAndClearedWhenNoneIsLeft)
{
    impl.UpdatePPState(0, 2);
    EXPECT_FALSE(impl.ppCrossing);
    impl.UpdatePPState(1, 2);
    EXPECT_TRUE(impl.ppCrossing);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG,
                                "QvCamMem UpdatePPCrossing ppCrossing changed to 1\n"),
              1);
    impl.UpdatePPState(0, 1);
    EXPECT_TRUE(impl.ppCrossing) << "because type 1 is still in state 2";
    impl.UpdatePPState(1, 1);
    EXPECT_FALSE(impl.ppCrossing);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG,
                                "QvCamMem UpdatePPCrossing ppCrossing changed to 0\n"),
              1);
    impl.UpdatePPCrossing(3);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       "QvCamMem UpdatePPCrossing unsupported parameter ppUpdateType:3\n"));
    impl.ClearPPState(2);
    EXPECT_EQ(impl.ppState[0], 0u) << "because types 0 and 2 are cleared together";
    EXPECT_EQ(impl.ppState[1], 1u);
}

TEST_F(TalMemPoolStreamTest, ControlCommands_WithoutPoolsOnlyLog)
{
    impl.MemPoolCtrl(3, nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem MemPoolCtrl, videState 0\n"));
    EXPECT_EQ(LogCapture::CountContaining("release allPools done"), 0)
        << "because a video state of 0 stops there";
    int32_t video = 1;
    impl.MemPoolCtrl(3, &video);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem MemPoolCtrl, release allPools done\n"));
    EXPECT_EQ(impl.MemPoolCtrl(1, nullptr, nullptr), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "MemPoolCtrl ERROR. input 0x0, output 0x0\n"));
    EXPECT_EQ(impl.MemPoolCacheSync(2, 0, 10), -1);
    EXPECT_EQ(LogCapture::CountContaining("cmd 2 pAddr 0x0 size 10 \n"), 1);
}

} // namespace
