// Choice of the peak size for a set of algorithms, the resolution keys and
// the shortage bookkeeping that goes with the choice.

#include "TalTestSupport.h"

#include "pool/TalMemPoolImpl.h"

using qv::TalMemPoolImpl;
using qv::TalMemResolution;
using talmem_test::LogCapture;
using talmem_test::TalTest;

namespace {

constexpr uint32_t kMiB = 1024 * 1024;

class TalMemPoolPeakTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        ASSERT_EQ(impl.PoolInit(), 0);
        impl.algoPeakMap.clear();
        impl.algoPeakMap["algoA"] = {{"1920x1080", 50 * kMiB}, {"4000x3000", 80 * kMiB}};
        impl.algoPeakMap["algoB"] = {{"default", 60 * kMiB}};
        impl.algoPeakMap["algoC"] = {{"4000x3000", 60 * kMiB}};
        impl.algoPeakMap["casioBeautyPpAlgo"] = {{"1280x720", 10 * kMiB},
                                                 {"640x480", 90 * kMiB}};
        impl.algoPeakMap["empty"] = {};
        LogCapture::Clear();
    }

    TalMemPoolImpl impl;
};

TEST_F(TalMemPoolPeakTest, GetMaxPeakSize_TakesTheCurrentResolutionElseTheFirstEntry)
{
    impl.SetResolution(TalMemResolution{4000, 3000, 1280, 720});
    EXPECT_EQ(impl.resolution, "4000x3000");
    EXPECT_EQ(impl.ppAlgoResolution, "1280x720");
    EXPECT_EQ(impl.GetMaxPeakSize({"algoA"}), 80 * kMiB);
    impl.SetResolution(TalMemResolution{1280, 960, 640, 480});
    EXPECT_EQ(impl.GetMaxPeakSize({"algoA"}), 50 * kMiB) << "because no entry is for 1280x960";
    EXPECT_EQ(impl.GetMaxPeakSize({"casioBeautyPpAlgo"}), 90 * kMiB)
        << "because the post-processing algorithm follows the second pair";
    EXPECT_EQ(impl.GetResolution("casioBeautyPpAlgo"), "640x480");
    EXPECT_EQ(impl.GetResolution("algoA"), "1280x960");
}

TEST_F(TalMemPoolPeakTest, GetMaxPeakSize_SkipsUnknownAndEmptyAndKeepsTheEarlierOfEqualPeaks)
{
    impl.SetResolution(TalMemResolution{4000, 3000, 1, 1});
    EXPECT_EQ(impl.GetMaxPeakSize({"nobody", "empty", "algoC", "algoB"}), 60 * kMiB);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem GetMaxPeakSize, algoC with max peak 62914560 "
                                         "shortageSize 0 poolInShortage 0\n"))
        << LogCapture::Dump();
    EXPECT_EQ(impl.GetMaxPeakSize({}), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem GetMaxPeakSize, unknown with max peak 0 "
                                         "shortageSize 0 poolInShortage 0\n"));
}

TEST_F(TalMemPoolPeakTest, CheckShortage_SurvivesOnlyForTheSameAlgorithmWithinTwoMiB)
{
    impl.SetResolution(TalMemResolution{1920, 1080, 1, 1});
    auto arm = [this](const char* algo, uint32_t peak) {
        impl.shortagePending = true;
        impl.shortagePoolId = 2;
        impl.shortageSize = kMiB;
        impl.shortageAlgo = algo;
        impl.shortagePeak = peak;
    };
    arm("algoA", 51 * kMiB);
    EXPECT_EQ(impl.GetMaxPeakSize({"algoA"}), 50 * kMiB);
    EXPECT_TRUE(impl.shortagePending);
    EXPECT_EQ(impl.shortageSize, 2 * kMiB) << "because the 1 MiB difference is added";
    EXPECT_EQ(impl.shortagePeak, 0u);
    EXPECT_EQ(impl.shortageAlgo, "unknown");

    arm("algoA", 53 * kMiB);
    impl.GetMaxPeakSize({"algoA"});
    EXPECT_FALSE(impl.shortagePending) << "because 3 MiB is beyond the tolerance";
    EXPECT_EQ(impl.shortageSize, 0u);

    arm("algoB", 50 * kMiB);
    impl.GetMaxPeakSize({"algoA"});
    EXPECT_FALSE(impl.shortagePending) << "because another algorithm is now the largest";

    arm("algoA", 50 * kMiB);
    impl.shortagePending = false;
    impl.GetMaxPeakSize({"algoA"});
    EXPECT_EQ(impl.shortageSize, kMiB) << "because a recorded size is kept while not pending";
}

} // namespace
