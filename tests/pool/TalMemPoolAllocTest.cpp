// Carving requests from the pools, the shortage a full multi pool records,
// and the reuse of idle preview chunks with its ratio rule.

#include "PoolTestUtil.h"

#include <vector>

using pool_test::AddrOf;
using pool_test::Hex;
using pool_test::kMiB;
using qv::SysAllocInfo;
using qv::TalMemChunk;
using talmem_test::LogCapture;

namespace {

using TalMemPoolAllocTest = pool_test::PoolTest;

TEST_F(TalMemPoolAllocTest, PoolAlloc_SmallerPoolsFirstAndShortageOnlyForAMultiPool)
{
    impl.basePoolSize = 4 * kMiB;
    ASSERT_EQ(impl.PoolCreateImpl(4 * kMiB, 1, "PP:BASE_POOL"), 0);
    ASSERT_EQ(impl.PoolCreateImpl(kMiB, 2, "PP:MULTI_POOL"), 0);
    ASSERT_EQ(impl.PoolCreateImpl(6 * kMiB, 3, "PP:MULTI_POOL"), 0);
    ASSERT_EQ(PoolIds(), "2 1 3 ") << "because pools above the base size go to the back";
    const struct {
        uint32_t size;
        int32_t poolId;
    } cases[] = {{kMiB / 2, 2}, {2 * kMiB, 1}, {5 * kMiB, 3}};
    std::vector<uintptr_t> addrs;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        uintptr_t addr = AllocSize(c.size, 2);
        TalMemChunk* record = Chunk(impl.poolMcMap, addr);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->poolId, c.poolId);
        EXPECT_EQ(record->GetAllocateType(), 2);
        const qva_ibuf* ibuf = impl.GetIBuf(addr);
        ASSERT_EQ(ibuf, record->GetIBuf());
        EXPECT_EQ(reinterpret_cast<uintptr_t>(ibuf->getAddr(ibuf)), addr);
        EXPECT_EQ(ibuf->getPoolSize(ibuf), Pool(c.poolId)->GetSize());
        EXPECT_EQ(UsedNum(c.poolId), 1);
        addrs.push_back(addr);
    }
    uintptr_t base2 = AddrOf(Pool(2));
    const qva_ibuf* ibuf = impl.GetIBuf(addrs[0]);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG,
                       "QvCamMem PoolAlloc, type 2 algo(modul: mod) apva 0x" +
                           Hex(addrs[0] & 0xFFFFFF) + "(iova 0x" +
                           Hex(ibuf->getIOVA(ibuf) & 0xFFFFFF) +
                           ") size 524288(poolId:2 addr 0x" + Hex(base2 & 0xFFFFFF) +
                           " poolSize 1048576)\n"))
        << LogCapture::Dump();
    unsigned int inPoolUsed = 0;
    impl.monitor.GetInPoolUsedSize(inPoolUsed);
    EXPECT_EQ(inPoolUsed, kMiB / 2 + 7 * kMiB) << "because each carve is reported as PoolAlloc";

    const uint32_t maxFree = impl.talMem.GetMaxFreeSize(AddrOf(Pool(3)));
    uintptr_t direct = AllocSize(8 * kMiB);
    EXPECT_NE(Chunk(impl.sysMcMap, direct), nullptr) << "because a failed carve goes direct";
    EXPECT_TRUE(impl.shortagePending);
    EXPECT_EQ(impl.shortagePoolId, 3);
    EXPECT_EQ(impl.shortageSize, 8 * kMiB - maxFree);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "exit SetShortageSize, shortageSize:" +
                                              std::to_string(8 * kMiB - maxFree) +
                                              " shortagePoolId:3\n"));
    for (uintptr_t addr : addrs) {
        impl.Free(addr);
    }
    EXPECT_TRUE(impl.poolMcMap.empty());
    EXPECT_EQ(UsedNum(3), 0);

    // The next update adds the shortage to the pool that ran short and
    // creates it again, whatever the tolerance.
    const uint32_t shortage = impl.shortageSize;
    impl.multiPoolSize = kMiB;
    impl.UpdateMultiPools(10 * kMiB);
    EXPECT_EQ(Pool(2)->GetSize(), kMiB);
    EXPECT_EQ(Pool(3)->GetSize(), (kMiB + shortage + 4095) & ~4095u);
    EXPECT_FALSE(impl.shortagePending);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG,
                       "UpdateMultiPools addShortageSize:" + std::to_string(shortage) + "\n"));

    impl.Free(direct);
    for (int id = 2; id <= 5; ++id) {
        impl.PoolDestroyImpl(id);
    }
    impl.shortageSize = 0;
    EXPECT_EQ(PoolIds(), "1 ");
    direct = AllocSize(8 * kMiB);
    EXPECT_FALSE(impl.shortagePending) << "because the base pool cannot grow";
    impl.Free(direct);
}

TEST_F(TalMemPoolAllocTest, PrevCheckMemRatio_ReusesFreelyUpTo20MiBThenAskForThreeQuarters)
{
    struct Case {
        uint32_t prevAll, prevAllNeed, size;
        bool expected;
    };
    const uint32_t k20 = 0x1400000;
    const uint32_t needAt24 = 75 * 10 * (24 * kMiB / 1024);
    const Case cases[] = {
        {k20, 0, 4096, true},              // a small set is reused freely
        {k20 + 4096, 0, 3072000, true},    // 75 x 10 x 4096 bytes of a 4 MiB chunk
        {k20 + 4096, 0, 3067904, false},   // one page less
        {24 * kMiB, needAt24, 4096, true}, // the set is used enough already
        {24 * kMiB, needAt24 - 1, 4096, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.prevAll << " " << c.prevAllNeed << " " << c.size);
        impl.prevAll = c.prevAll;
        impl.prevAllNeed = c.prevAllNeed;
        EXPECT_EQ(impl.PrevCheckMemRatio(c.size, 4 * kMiB), c.expected);
    }
    impl.prevAll = 0;
    impl.prevAllNeed = 0;
}

TEST_F(TalMemPoolAllocTest, PrevAlloc_BestFitFirstInMapOrderAndTheRatioAbove20MiB)
{
    std::vector<uintptr_t> chunks;
    for (uint32_t mib : {4u, 2u, 3u, 3u, 10u}) {
        chunks.push_back(AllocSize(mib * kMiB, 1));
        ASSERT_NE(Chunk(impl.sysPrevMcMap, chunks.back()), nullptr);
    }
    EXPECT_EQ(impl.prevAllNeedPeak, 22 * kMiB);
    for (uintptr_t addr : chunks) {
        impl.Free(addr);
    }
    impl.Free(chunks[0]);
    EXPECT_EQ(impl.prevAll, 22 * kMiB);
    EXPECT_EQ(impl.prevAllNeed, 0u) << "because a second free of a reuse chunk changes nothing";
    EXPECT_EQ(impl.GetIBuf(chunks[0]), nullptr) << "because an idle chunk is not lent";

    uintptr_t firstTwin = 0;
    for (auto& entry : impl.sysPrevMcMap) {
        if (firstTwin == 0 && entry.second->GetSize() == 3 * kMiB) {
            firstTwin = AddrOf(entry.second);
        }
    }
    const uintptr_t secondTwin = firstTwin == chunks[2] ? chunks[3] : chunks[2];
    EXPECT_EQ(AllocSize(3 * kMiB, 1, "algoR"), firstTwin) << "because ties go to map order";
    EXPECT_EQ(Chunk(impl.sysPrevMcMap, firstTwin)->GetAlgoName(), "algoR");
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem PrevAlloc, prevAllNeed 3145728(prevAllNeedPeak "
                                          "23068672 prevAll 23068672), algoR(modul: mod) apva 0x" +
                                              Hex(firstTwin & 0xFFFFFF) + " size 3145728 \n"));
    EXPECT_EQ(AllocSize(3 * kMiB - 4095, 1), secondTwin);
    EXPECT_EQ(Chunk(impl.sysPrevMcMap, secondTwin)->GetUsedSize(), 3 * kMiB);
    EXPECT_EQ(AllocSize(3 * kMiB, 1), chunks[0]) << "because 3 MiB fills 75 % of 4 MiB";
    EXPECT_EQ(impl.prevAllNeed, 9 * kMiB);

    // 1 MiB is less than 75 % of the idle 2 MiB chunk: a new chunk is made.
    uintptr_t small = AllocSize(kMiB, 1);
    EXPECT_EQ(Chunk(impl.sysPrevMcMap, small)->GetSize(), kMiB);
    EXPECT_EQ(impl.sysPrevMcMap.size(), 6u) << "because the idle chunks stay while the peak is high";
    // With a low peak the idle chunks are dropped before the next new chunk.
    impl.prevAllNeedPeak = 0;
    uintptr_t small2 = AllocSize(kMiB, 1);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem PrevForceFree, prevAllNeed 10485760("
                                          "prevAllNeedPeak 0 prevAll 11534336), freeSize "
                                          "12582912\n"));
    EXPECT_EQ(impl.sysPrevMcMap.size(), 5u);
    EXPECT_EQ(impl.prevAll, 12 * kMiB);
    for (uintptr_t addr : {firstTwin, secondTwin, chunks[0], small, small2}) {
        impl.Free(addr);
    }
    EXPECT_EQ(impl.prevAllNeed, 0u);
}

TEST_F(TalMemPoolAllocTest, PrevForceFree_KeepsChunksInUseAndRecountsTheSet)
{
    uintptr_t held = AllocSize(2 * kMiB, 1);
    uintptr_t idle = AllocSize(3 * kMiB, 1);
    impl.Free(idle);
    impl.prevAll = 99; // recomputed from the chunks
    impl.OnSos();
    EXPECT_EQ(impl.sysPrevMcMap.size(), 1u);
    EXPECT_NE(Chunk(impl.sysPrevMcMap, held), nullptr);
    EXPECT_EQ(impl.prevAll, 2 * kMiB);
    EXPECT_EQ(impl.prevAllNeed, 2 * kMiB);
    EXPECT_EQ(impl.prevAllNeedPeak, 5 * kMiB) << "because the peak is left alone";
    impl.MemPoolCtrl(2, nullptr);
    EXPECT_EQ(impl.prevAllNeedPeak, 2 * kMiB) << "because the command resets the peak";
    impl.Free(held);
}

} // namespace
