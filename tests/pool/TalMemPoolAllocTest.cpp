// Carving from the pools, the shortage of a full multi pool, preview reuse.

#include "PoolTestUtil.h"

#include <vector>

using namespace pool_test;

namespace {

using TalMemPoolAllocTest = PoolTest;

TEST_F(TalMemPoolAllocTest, PoolAlloc_SmallerPoolsFirstAndShortageOnlyForAMultiPool)
{
    impl.basePoolSize = 4 * kMiB;
    ASSERT_EQ(impl.PoolCreateImpl(4 * kMiB, 1, "PP:BASE_POOL"), 0);
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 2, "PP:MULTI_POOL"), 0);
    ASSERT_EQ(impl.PoolCreateImpl(6 * kMiB, 3, "PP:MULTI_POOL"), 0);
    ASSERT_EQ(PoolIds(), "2 1 3 ") << "because pools above the base size go to the back";
    const std::pair<uint32_t, int32_t> cases[] = {{kMiB / 2, 2}, {2 * kMiB, 1}, {5 * kMiB, 3}};
    std::vector<uintptr_t> carved;
    for (const auto& c : cases) {
        const uintptr_t addr = carved.emplace_back(AllocSize(c.first, 2));
        TalMemChunk* record = Chunk(impl.poolMcMap, addr);
        ASSERT_NE(record, nullptr) << c.first;
        EXPECT_EQ(record->poolId, c.second);
    }
    const qva_ibuf* ibuf = impl.GetIBuf(carved[0]);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem PoolAlloc, type 2 algo(modul: mod) apva 0x" + Hex(carved[0]) + "(iova 0x" +
                                              Hex(ibuf->getIOVA(ibuf)) + ") size 524288(poolId:2 addr 0x" +
                                              Hex(AddrOf(Pool(2))) + " poolSize 1048576)\n"));
    const uint32_t maxFree = impl.talMem.GetMaxFreeSize(AddrOf(Pool(3)));
    EXPECT_NE(Chunk(impl.sysMcMap, AllocSize(8 * kMiB)), nullptr) << "because a failed carve goes direct";
    EXPECT_TRUE(impl.shortagePending);
    EXPECT_EQ(impl.shortagePoolId, 3);
    EXPECT_EQ(impl.shortageSize, 8 * kMiB - maxFree);

    // The next update enlarges the pool that ran short, whatever the tolerance.
    const uint32_t shortage = impl.shortageSize;
    for (uintptr_t addr : carved) {
        impl.Free(addr);
    }
    impl.multiPoolSize = kMiB;
    impl.UpdateMultiPools(10 * kMiB);
    EXPECT_EQ(Pool(2)->GetSize(), kMiB);
    EXPECT_EQ(Pool(3)->GetSize(), (kMiB + shortage + 4095) & ~4095u);
    EXPECT_FALSE(impl.shortagePending);

    for (int id = 2; id <= 5; ++id) {
        impl.PoolDestroyImpl(id);
    }
    ASSERT_EQ(PoolIds(), "1 ");
    AllocSize(8 * kMiB);
    EXPECT_FALSE(impl.shortagePending) << "because the base pool cannot grow";
}

TEST_F(TalMemPoolAllocTest, PrevAlloc_BestFitFirstInMapOrderAndTheRatioAbove20MiB)
{
    std::vector<uintptr_t> chunks;
    for (uint32_t mib : {4u, 2u, 3u, 3u, 10u}) {
        chunks.push_back(AllocSize(mib * kMiB, 1));
    }
    for (uintptr_t addr : chunks) {
        impl.Free(addr);
    }
    auto& map = impl.sysPrevMcMap;
    const uintptr_t firstTwin = AddrOf(
        std::find_if(map.begin(), map.end(), [](auto& e) { return e.second->GetSize() == 3 * kMiB; })->second);
    const uintptr_t secondTwin = firstTwin == chunks[2] ? chunks[3] : chunks[2];
    EXPECT_EQ(AllocSize(3 * kMiB, 1, "algoR"), firstTwin) << "because ties go to map order";
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem PrevAlloc, prevAllNeed 3145728(prevAllNeedPeak 23068672 prevAll "
                                          "23068672), algoR(modul: mod) apva 0x" + Hex(firstTwin) + " size 3145728 \n"));
    EXPECT_EQ(AllocSize(3 * kMiB - 4095, 1), secondTwin);
    // Above 20 MiB a request must fill 75 x 10 / 1024 of the chunk: 3072000 of 4 MiB.
    EXPECT_NE(AllocSize(3072000 - 4096, 1), chunks[0]) << "because one page less makes a new chunk";
    EXPECT_EQ(AllocSize(3072000, 1), chunks[0]);
    EXPECT_EQ(impl.prevAllNeed, 6 * kMiB + 3072000 + 3067904);
    EXPECT_EQ(impl.sysPrevMcMap.size(), 6u) << "because idle chunks stay while the peak is high";
}

} // namespace
