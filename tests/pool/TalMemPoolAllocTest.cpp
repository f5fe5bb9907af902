// Carving requests from the pools, the shortage a full multi pool records,
// and the reuse of idle preview chunks with its ratio rule.

#include "PoolTestUtil.h"

#include <vector>

using pool_test::AddrOf;
using pool_test::Hex;
using pool_test::kMiB;
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
        const qva_ibuf* ibuf = impl.GetIBuf(addr);
        ASSERT_EQ(ibuf, record->GetIBuf());
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
                           " poolSize 1048576)\n"));
    unsigned int inPoolUsed = 0;
    impl.monitor.GetInPoolUsedSize(inPoolUsed);
    EXPECT_EQ(inPoolUsed, kMiB / 2 + 7 * kMiB) << "because each carve is reported as PoolAlloc";

    const uint32_t maxFree = impl.talMem.GetMaxFreeSize(AddrOf(Pool(3)));
    uintptr_t direct = AllocSize(8 * kMiB);
    EXPECT_NE(Chunk(impl.sysMcMap, direct), nullptr) << "because a failed carve goes direct";
    EXPECT_TRUE(impl.shortagePending);
    EXPECT_EQ(impl.shortagePoolId, 3);
    EXPECT_EQ(impl.shortageSize, 8 * kMiB - maxFree);
    for (uintptr_t addr : addrs) {
        impl.Free(addr);
    }
    EXPECT_TRUE(impl.poolMcMap.empty());

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
    EXPECT_EQ(PoolIds(), "1 ");
    direct = AllocSize(8 * kMiB);
    EXPECT_FALSE(impl.shortagePending) << "because the base pool cannot grow";
    impl.Free(direct);
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
    // Above 20 MiB a request must fill 75 x 10 / 1024 of the chunk: 3072000 of 4 MiB.
    uintptr_t below = AllocSize(3072000 - 4096, 1);
    EXPECT_NE(below, chunks[0]) << "because one page less makes a new chunk";
    EXPECT_EQ(AllocSize(3072000, 1), chunks[0]);
    const uint32_t needNow = 6 * kMiB + 3072000 + 3067904;
    EXPECT_EQ(impl.prevAllNeed, needNow);

    EXPECT_EQ(impl.sysPrevMcMap.size(), 6u) << "because idle chunks stay while the peak is high";
    // With a low peak the idle chunks are dropped before the next new chunk.
    impl.prevAllNeedPeak = 0;
    uintptr_t small = AllocSize(kMiB, 1);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "QvCamMem PrevForceFree, prevAllNeed 12431360("
                                          "prevAllNeedPeak 0 prevAll 13553664), freeSize "
                                          "12582912\n"));
    EXPECT_EQ(impl.sysPrevMcMap.size(), 5u);
    EXPECT_EQ(impl.prevAll, 14602240u);

    // A stream start drops idle chunks, recounts the set and keeps the peak.
    impl.Free(below);
    impl.OnSos();
    EXPECT_EQ(impl.sysPrevMcMap.size(), 4u);
    EXPECT_EQ(impl.prevAll, 11 * kMiB);
    EXPECT_EQ(impl.prevAllNeed, 7 * kMiB + 3072000);
    EXPECT_EQ(impl.prevAllNeedPeak, needNow + kMiB);
    impl.MemPoolCtrl(2, nullptr);
    EXPECT_EQ(impl.prevAllNeedPeak, impl.prevAllNeed) << "because the command resets the peak";
    for (uintptr_t addr : {firstTwin, secondTwin, chunks[0], small}) {
        impl.Free(addr);
    }
    EXPECT_EQ(impl.prevAllNeed, 0u);
}

} // namespace
