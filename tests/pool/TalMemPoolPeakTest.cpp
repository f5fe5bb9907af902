// Peak learning at stream end, the choice of the peak size for a set of
// algorithms, the resolution keys and the shortage bookkeeping.

#include "PoolTestUtil.h"

#include <algorithm>
#include <vector>

using pool_test::kMiB;
using qv::TalMemResolution;
using talmem_test::LogCapture;

namespace {

class TalMemPoolPeakTest : public pool_test::PoolTest {
protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        impl.algoPeakMap.clear();
        impl.algoPeakMap["algoA"] = {{"1920x1080", 50 * kMiB}, {"4000x3000", 80 * kMiB}};
        impl.algoPeakMap["algoB"] = {{"default", 60 * kMiB}};
        impl.algoPeakMap["algoC"] = {{"4000x3000", 60 * kMiB}};
        impl.algoPeakMap["casioBeautyPpAlgo"] = {{"1280x720", 10 * kMiB}, {"640x480", 90 * kMiB}};
        impl.algoPeakMap["empty"] = {};
        LogCapture::Clear();
    }

    uint32_t Learnt(const std::string& algo, const std::string& res)
    {
        const qv::TalAlgoSizeList& list = impl.algoPeakMap[algo];
        auto it = std::find_if(list.begin(), list.end(),
                               [&res](const auto& e) { return e.resolution == res; });
        return it == list.end() ? 0 : it->algoSize;
    }
};

TEST_F(TalMemPoolPeakTest, LimitAlgoSize_MovesAQuarterWayUnlessTheJumpIs40MiBAndCapsAtTheLimit)
{
    const struct {
        uint32_t oldPeak, newPeak, expected;
    } cases[] = {
        {100 * kMiB, 60 * kMiB, 60 * kMiB},       // 40 MiB: five 8 MiB units, taken as is
        {100 * kMiB, 61 * kMiB, 94633984},        // (300 + 61) / 4 MiB, rounded down
        {8 * kMiB, 0, 6 * kMiB},
        {440 * kMiB, 470 * kMiB, 469237760},      // 447.5 MiB, below the limit; warned all the same
        {10 * kMiB, 500 * kMiB, 450 * kMiB},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.oldPeak << " -> " << c.newPeak);
        EXPECT_EQ(impl.LimitAlgoSize("algoA", "4000x3000", c.oldPeak, c.newPeak), c.expected);
    }
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "algo filter:algoA resolution=4000x3000 peakSize "
                                          "63963136->filterPeakSize 94633984 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "algo filter:algoA resolution=4000x3000 peakSize "
                                         "524288000(out of limit 471859200)->filterPeakSize "
                                         "471859200 \n"));
    EXPECT_EQ(LogCapture::CountContaining("out of limit"), 2);
}

TEST_F(TalMemPoolPeakTest, UpdatePeakSize_FoldsTheStreamPeaksIntoTheTable)
{
    impl.algoPeakMap["algoB"] = {{"default", 8 * kMiB}};
    impl.algoPeakMap["algoC"] = {{"3840x2160", 4 * kMiB}};
    impl.SetResolution(TalMemResolution{3840, 2160, 1280, 720});
    impl.OnSos();
    impl.OnFrame();
    std::vector<uintptr_t> held;
    for (const char* algo : {"algoB", "algoA", "casioBeautyPpAlgo", "algoC"}) {
        held.push_back(AllocSize(kMiB, 0, algo));
    }
    held.push_back(AllocSize(3 * kMiB, 2, "newAlgo"));
    held.push_back(AllocSize(5 * kMiB, 0, "algoB"));
    held.push_back(AllocSize(kMiB, 0, "algoC"));
    uintptr_t gone = AllocSize(4 * kMiB, 0, "algoA");
    impl.Free(gone); // algoA peaks at 5 MiB and ends the stream at 1 MiB
    impl.OnEos();

    EXPECT_EQ(impl.algoPeakMap["algoB"].size(), 1u) << "because a default entry absorbs all";
    EXPECT_EQ(Learnt("algoB", "default"), (24 + 6) * kMiB / 4);
    EXPECT_EQ(impl.algoPeakMap["algoA"].size(), 3u);
    EXPECT_EQ(impl.algoPeakMap["algoA"].back().resolution, "3840x2160") << "because it is new";
    EXPECT_EQ(Learnt("algoA", "3840x2160"), 5 * kMiB);
    EXPECT_EQ(Learnt("algoC", "3840x2160"), (12 + 2) * kMiB / 4);
    EXPECT_EQ(Learnt("newAlgo", "3840x2160"), 3 * kMiB);
    EXPECT_EQ(Learnt("casioBeautyPpAlgo", "1280x720"), (30 + 1) * kMiB / 4)
        << "because the post-processing algorithm uses the second pair";
    EXPECT_EQ(impl.shortagePeak, 6 * kMiB) << "because algoB had the largest known peak";
    EXPECT_EQ(impl.shortageAlgo, "algoB");
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "algo insert new peakSize, algoName:newAlgo "
                                          "resolution:3840x2160, peakSize 3145728 filterPeakSize "
                                          "3145728\n"));
    for (uintptr_t addr : held) {
        impl.Free(addr);
    }
}

TEST_F(TalMemPoolPeakTest, GetMaxPeakSize_TakesTheCurrentResolutionElseTheFirstEntry)
{
    impl.SetResolution(TalMemResolution{4000, 3000, 1280, 720});
    EXPECT_EQ(impl.GetMaxPeakSize({"algoA"}), 80 * kMiB);
    EXPECT_EQ(impl.GetMaxPeakSize({"nobody", "empty", "algoC", "algoB"}), 60 * kMiB);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem GetMaxPeakSize, algoC with max peak 62914560 "
                                         "shortageSize 0 poolInShortage 0\n"))
        << "because unknown and empty names are skipped and ties keep the earlier name";
    impl.SetResolution(TalMemResolution{1280, 960, 640, 480});
    EXPECT_EQ(impl.GetMaxPeakSize({"algoA"}), 50 * kMiB) << "because no entry is for 1280x960";
    EXPECT_EQ(impl.GetMaxPeakSize({"casioBeautyPpAlgo"}), 90 * kMiB)
        << "because the post-processing algorithm follows the second pair";
    EXPECT_EQ(impl.GetMaxPeakSize({}), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem GetMaxPeakSize, unknown with max peak 0 "
                                         "shortageSize 0 poolInShortage 0\n"));
}

TEST_F(TalMemPoolPeakTest, CheckShortage_SurvivesOnlyForTheSameAlgorithmWithinTwoMiB)
{
    impl.SetResolution(TalMemResolution{1920, 1080, 1, 1}); // algoA's peak is 50 MiB
    const struct {
        const char* algo;
        uint32_t peak, size;
        bool pending, pendingAfter;
        uint32_t sizeAfter;
    } cases[] = {
        {"algoA", 51 * kMiB, kMiB, true, true, 2 * kMiB}, // the 1 MiB difference is added
        {"algoA", 53 * kMiB, kMiB, true, false, 0},       // 3 MiB is beyond the tolerance
        {"algoB", 50 * kMiB, kMiB, true, false, 0},       // another algorithm is the largest
        {"algoA", 50 * kMiB, kMiB, false, false, kMiB},   // kept while not pending
        {"algoA", 50 * kMiB, 5 * kMiB, true, false, 0},   // above a tenth of the peak
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.algo << " " << c.peak << " " << c.size);
        impl.shortagePending = c.pending;
        impl.shortageSize = c.size;
        impl.shortageAlgo = c.algo;
        impl.shortagePeak = c.peak;
        EXPECT_EQ(impl.GetMaxPeakSize({"algoA"}), 50 * kMiB);
        EXPECT_EQ(impl.shortagePending, c.pendingAfter);
        EXPECT_EQ(impl.shortageSize, c.sizeAfter);
        EXPECT_EQ(impl.shortagePeak, 0u);
        EXPECT_EQ(impl.shortageAlgo, "unknown");
    }
}

} // namespace
