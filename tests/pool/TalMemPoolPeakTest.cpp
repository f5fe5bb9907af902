// Peak learning at stream end.

#include "PoolTestUtil.h"

#include <algorithm>

using namespace pool_test;

namespace {

class TalMemPoolPeakTest : public PoolTest {
protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        impl.algoPeakMap = {{"algoA", {{"1920x1080", 50 * kMiB}, {"4000x3000", 80 * kMiB}}},
                            {"algoB", {{"default", 8 * kMiB}}},
                            {"casioBeautyPpAlgo", {{"1280x720", 10 * kMiB}, {"640x480", 90 * kMiB}}}};
    }
    uint32_t Learnt(const std::string& algo, const std::string& res)
    {
        const qv::TalAlgoSizeList& list = impl.algoPeakMap[algo];
        auto it = std::find_if(list.begin(), list.end(), [&res](const auto& e) { return e.resolution == res; });
        return it == list.end() ? 0 : it->algoSize;
    }
};

TEST_F(TalMemPoolPeakTest, LimitAlgoSize_MovesAQuarterWayUnlessTheJumpIs40MiBAndCapsAtTheLimit)
{
    const uint32_t cases[][3] = { // old peak, new peak, stored
        {100 * kMiB, 60 * kMiB, 60 * kMiB}, // 40 MiB: five 8 MiB units, taken as is
        {100 * kMiB, 61 * kMiB, 94633984},  // (300 + 61) / 4 MiB, rounded down
        {8 * kMiB, 0, 6 * kMiB},
        {440 * kMiB, 470 * kMiB, 469237760}, // 447.5 MiB, below the limit; warned all the same
        {10 * kMiB, 500 * kMiB, 450 * kMiB},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(impl.LimitAlgoSize("algoA", "4000x3000", c[0], c[1]), c[2]) << c[0] << " -> " << c[1];
    }
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "algo filter:algoA resolution=4000x3000 peakSize 63963136->filterPeakSize "
                                          "94633984 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "algo filter:algoA resolution=4000x3000 peakSize 524288000(out of limit "
                                         "471859200)->filterPeakSize 471859200 \n"));
    EXPECT_EQ(LogCapture::CountContaining("out of limit"), 2);
}

TEST_F(TalMemPoolPeakTest, UpdatePeakSize_FoldsTheStreamPeaksIntoTheTable)
{
    impl.SetResolution(qv::TalMemResolution{3840, 2160, 1280, 720});
    impl.OnSos();
    for (const char* algo : {"algoB", "algoA", "casioBeautyPpAlgo"}) {
        AllocSize(kMiB, 0, algo);
    }
    AllocSize(3 * kMiB, 2, "newAlgo");
    AllocSize(5 * kMiB, 0, "algoB");
    impl.Free(AllocSize(4 * kMiB, 0, "algoA")); // algoA peaks at 5 MiB and ends the stream at 1 MiB
    impl.OnEos();

    EXPECT_EQ(impl.algoPeakMap["algoB"].size(), 1u) << "because a default entry absorbs all";
    EXPECT_EQ(Learnt("algoB", "default"), (24 + 6) * kMiB / 4);
    EXPECT_EQ(impl.algoPeakMap["algoA"].back().resolution, "3840x2160") << "because a new one is appended";
    EXPECT_EQ(Learnt("algoA", "3840x2160"), 5 * kMiB);
    EXPECT_EQ(Learnt("newAlgo", "3840x2160"), 3 * kMiB);
    EXPECT_EQ(Learnt("casioBeautyPpAlgo", "1280x720"), (30 + 1) * kMiB / 4) << "because it follows the second pair";
    EXPECT_EQ(impl.shortagePeak, 6 * kMiB) << "because algoB had the largest known peak";
    EXPECT_EQ(impl.shortageAlgo, "algoB");
}

} // namespace
