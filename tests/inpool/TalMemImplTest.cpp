#include "InpoolTest.h"

#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "inpool/TalMem.h"
#include "talmem_properties.h"

namespace {

using namespace qv;
using talmem_test::Fmt;
using talmem_test::LogCapture;
using TalMemImplTest = talmem_test::InpoolTest;

TEST(TalListTest, MultiHead_MapsSizesToTheClassOfTheirHighestBit)
{
    TalDlList heads[kTalMultiHeadNum];
    TalDLinkMultiHead::OsDLnkInitMultiHead(heads);
    const struct { uint32_t size; int head; } cases[] = {
        {0, 0}, {1, 0}, {31, 0}, {32, 1}, {63, 1}, {64, 2}, {4383, 8}, {4384, 8}, {8192, 9},
        {0x3FFFFFFFu, 25}, {0x40000000u, 26}, {0x7FFFFFFFu, 26}, {0x80000000u, -1}, {0xFFFFFFFFu, -1}};
    for (const auto& c : cases) {
        TalDlList* head = TalDLinkMultiHead::OsDLnkMultiHead(heads, c.size);
        EXPECT_EQ(head == nullptr ? -1 : head - heads, c.head) << c.size;
    }
}

TEST_F(TalMemImplTest, Init_FormatsOneFreeNodeOfTheWholeSize)
{
    if (sizeof(void*) == 4) { // the device's layout: nodeSize is the word before the payload
        EXPECT_EQ(std::tuple(kTalNodeHeadSize, kTalPoolHeadSize, offsetof(TalMemDynNode, nodeSize), NodeSizeFor(1)),
                  std::tuple(280u, 528u, size_t{276}, 4384u));
    }
    talmem_test::MappedRegion small(8192);
    ASSERT_EQ(impl.TalMemInit(small.addr(), kTalMinPoolSize), 0);
    uint32_t least = kTalMinPoolSize - kTalPoolOverhead; // 281 on the device
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_INFO, Fmt("after TalMemInit: usedSize:0,freeSize:%u,usedNodeNum:0,"
                  "freeNodeNum:1, maxFreeNodeSize: %u, useRatio: 0%%\n", least, least)), 1);
    EXPECT_EQ(TalNodeSize(TalFirstNode(small.info())), least);
    EXPECT_EQ(impl.TalMemAlloc(small.addr(), 1), 0u);
    uint32_t whole = kPoolSize - kTalPoolOverhead;
    EXPECT_EQ(info()->ratioFactor, 819200u / 64u);
    EXPECT_STREQ(TalFirstNode(info())->moduleName, "default");
    // A stale largest free size: a failed search between two dash lines around the status table (its
    // heading, then the end node and one more counted as used).
    LogCapture::Clear();
    info()->maxFreeNodeSize = 0x7FFFFFFF;
    EXPECT_EQ(impl.TalMemAlloc(pool, 0x70000000u), 0u);
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0].message + lines[3].message + lines[4].message + lines[5].message, std::string(97, '-') + "\n" +
              Fmt("0x%-8lx   0x%-8x   0x%-8x    0x%-8x   0x%-16x   0x%-13x    0x%-13x\n", TalMaskAddr(pool), kPoolSize,
                  kTalNodeHeadSize, whole, whole, 2u, 1u) +
              Fmt("[OsMemAllocWithCheck] No suitable free block, require free node size: 0x%x, from mempool: 0x%lx\n",
                  0x70000000u + kTalAllocSlack, TalMaskAddr(pool)) + std::string(97, '-') + "\n");
}

// Pool sizes off the header's alignment leave the end node unaligned; every operation that reaches
// it (split, merge, free checks, status walk, node dump) must read it safely.
TEST_F(TalMemImplTest, EveryPoolSize_FromTheSmallestUp_FormatsAllocatesFreesAndDumpsCleanly)
{
    std::vector<uint32_t> sizes = {(2u << 20) + 100, (1u << 20) + 1};
    for (uint32_t k = 0; k <= 15; ++k) {
        sizes.push_back(kTalMinPoolSize + k);
    }
    talmem_test::MappedRegion region((2u << 20) + 8192);
    const uintptr_t at = region.addr();
    auto expectClean = [&](uint32_t usedNodes) {
        TalMemPoolStatus status{};
        EXPECT_EQ(talmem_test::PoolFailures(at), "");
        EXPECT_EQ(impl.TalMemDumpInfo(at), 0);
        EXPECT_EQ(impl.OsMemNodeDump(region.info()), 0);
        EXPECT_EQ(impl.TalMemGetUsedNum(at), static_cast<int>(usedNodes));
        EXPECT_EQ(impl.OsMemInfoGet(region.info(), &status), 0);
        EXPECT_EQ(status.usedNodeNum, usedNodes + 2) << "because the walk counts the end node and one more";
    };
    for (uint32_t size : sizes) {
        SCOPED_TRACE(size);
        memset(region.base, 0xA5, region.size);
        ASSERT_EQ(impl.TalMemInit(at, size), 0);
        const uint32_t whole = size - kTalPoolOverhead;
        expectClean(0);
        EXPECT_EQ(impl.TalMemGetMaxFreeSize(at), whole);
        if (whole < NodeSizeFor(1)) {
            EXPECT_EQ(impl.TalMemAlloc(at, 1), 0u) << "because the single free node is too small";
            expectClean(0);
            continue;
        }
        // A split leaves the rest, of the pool's odd size, next to the end node; the free merges it back.
        const uintptr_t first = impl.TalMemAlloc(at, 1);
        ASSERT_NE(first, 0u);
        expectClean(1);
        ASSERT_EQ(impl.TalMemFree(at, first), 0);
        expectClean(0);
        // The whole node, end and all, to one request just small enough not to split.
        const uint32_t biggest = whole - kTalAllocSlack - kTalNodeHeadSize - kTalNodeAlign;
        const uintptr_t all = impl.TalMemAlloc(at, biggest);
        ASSERT_NE(all, 0u);
        EXPECT_EQ(TalNextNode(NodeOf(all)), TalEndNode(region.info()));
        memset(reinterpret_cast<void*>(all), 0x3C, biggest);
        expectClean(1);
        EXPECT_EQ(impl.TalMemFree(at, all), 0);
        expectClean(0);
        EXPECT_EQ(impl.TalMemGetMaxFreeSize(at), whole) << "because every byte came back";
    }
}

TEST_F(TalMemImplTest, Alloc_ReturnsPageAlignedAddressesResolvedWithOrWithoutMarker)
{
    uintptr_t a = Alloc(1);
    TalMemDynNode* first = TalFirstNode(info());
    ASSERT_EQ(NodeOf(a), first);
    EXPECT_EQ(*TalWordBefore(a), static_cast<uint32_t>(a - TalNodePayload(first)) | 0x40000000u);
    EXPECT_EQ(first->nodeSize, 0x80000000u | NodeSizeFor(1));
    // A filler that makes the next node's payload start on a page: no marker.
    uintptr_t want = ((TalNodePayload(first) + 3 * 4096) & ~uintptr_t{4095}) - kTalNodeHeadSize;
    uint32_t filler = static_cast<uint32_t>(want - TalAddrOf(TalNextNode(first)));
    ASSERT_NE(Alloc(filler - kTalAllocSlack - kTalNodeHeadSize), 0u);
    uintptr_t b = Alloc(100);
    ASSERT_EQ(b, want + kTalNodeHeadSize);
    EXPECT_EQ(*TalWordBefore(b), TalNodeAt(want)->nodeSize) << "because no marker is written";
    EXPECT_EQ(impl.TalMemSetMcInfo(b, &b, std::string(300, 'n').c_str(), nullptr) + Free(b), 0);
    EXPECT_EQ(NodeOf(b)->algoName + std::string(NodeOf(b)->moduleName), std::string(127, 'n') + "default")
        << "because names are cut to 127 characters, null is \"default\" and freeing keeps them";
}

// Merging is covered by the randomized sequence: the pool check refuses adjacent free nodes.
TEST_F(TalMemImplTest, SplitAndFind_SplitOnlyWithRoomForAHeaderAndAWord_MostRecentlyFreedFitFirst)
{
    uint32_t request = 64 * 1024;
    uintptr_t a = Alloc(request);
    ASSERT_NE(Alloc(4096), 0u);
    uint32_t nodeSize = TalNodeSize(NodeOf(a));
    ASSERT_EQ(Free(a), 0);
    uint32_t minRest = (kTalSplitMinRest + kTalNodeAlign - 1) & ~(kTalNodeAlign - 1);
    uintptr_t whole = Alloc(request - (minRest - kTalNodeAlign));
    EXPECT_EQ(TalNodeSize(NodeOf(whole)), nodeSize) << "because a rest below a header and a word stays";
    ASSERT_EQ(Free(whole), 0);
    EXPECT_EQ(TalNodeSize(TalNextNode(NodeOf(Alloc(request - minRest)))), minRest);
    // The search takes the most recently freed fit within a class.
    ASSERT_EQ(impl.TalMemInit(pool, kPoolSize), 0);
    uintptr_t small = Alloc(40 * 1024);
    ASSERT_NE(Alloc(4096), 0u);
    uintptr_t large = Alloc(56 * 1024);
    ASSERT_NE(Alloc(4096), 0u);
    ASSERT_EQ(Free(small) + Free(large), 0);
    EXPECT_EQ(Alloc(36 * 1024), large) << "because the most recently freed fit wins, not the best";
    EXPECT_EQ(Alloc(36 * 1024), small);
    ASSERT_EQ(Free(small), 0);
    EXPECT_GT(Alloc(44 * 1024), large) << "because a node of the class that is too small is passed over";
}

// Stamps (write) or checks the first and the last 64 bytes of an allocation.
bool Stamp(uintptr_t addr, uint32_t size, bool write)
{
    bool intact = true;
    for (uint32_t i = 0; i < 128; ++i) {
        auto* q = reinterpret_cast<uint8_t*>(i < 64 ? addr + i : addr + size - 1 - (i - 64));
        auto byte = static_cast<uint8_t>((addr >> 12) ^ (size >> 12) ^ i);
        intact = intact && (write ? (*q = byte) : *q) == byte;
    }
    return intact;
}

// Allocations and frees of page multiples, log-uniform from 4 KiB to 64 MiB, against a model of the live
// ranges; the fixture checks the pool after every step.
TEST_F(TalMemImplTest, RandomSequence_FixedSeedsKeepAllocationsAlignedDisjointAndIntact)
{
    constexpr uint32_t kBigPool = 320u << 20;
    std::uniform_real_distribution<double> logSize(std::log(4096.0), std::log(64.0 * 1024 * 1024));
    for (unsigned seed : {1u, 77u, 2024u}) {
        SCOPED_TRACE(seed);
        talmem_test::MappedRegion big(kBigPool);
        pool = big.addr();
        ASSERT_EQ(impl.TalMemInit(pool, kBigPool), 0);
        std::mt19937 rng(seed);
        std::map<uintptr_t, uint32_t> live;
        for (int op = 0; op < 3000 && !HasFailure(); ++op) {
            if (!live.empty() && rng() % 100 >= 55) {
                auto it = std::next(live.begin(), rng() % live.size());
                EXPECT_EQ(Stamp(it->first, it->second, false) ? Free(it->first) : -1, 0) << "payload intact and freed";
                live.erase(it);
                continue;
            }
            uint32_t size = std::max(1u, static_cast<uint32_t>(std::exp(logSize(rng)) / 4096)) * 4096;
            uint32_t maxFree = impl.TalMemGetMaxFreeSize(pool);
            uintptr_t addr = Alloc(size);
            if (addr == 0) {
                EXPECT_GT(NodeSizeFor(size), maxFree) << "a request that fits the largest free node failed";
                continue;
            }
            auto next = live.lower_bound(addr);
            EXPECT_TRUE(addr % 4096 == 0 && addr >= TalNodePayload(TalFirstNode(info())) &&
                        addr + size <= TalAddrOf(TalEndNode(info())) &&
                        (next == live.end() || addr + size <= next->first) &&
                        (next == live.begin() || std::prev(next)->first + std::prev(next)->second <= addr))
                << "aligned, inside the pool and clear of every live allocation";
            Stamp(addr, live[addr] = size, true);
        }
        for (const auto& entry : live) {
            EXPECT_EQ(Stamp(entry.first, entry.second, false) ? Free(entry.first) : -1, 0) << "intact and freed";
        }
        EXPECT_EQ(TalNodeSize(TalFirstNode(info())), kBigPool - kTalPoolOverhead) << "because all merged back";
    }
}

TEST_F(TalMemImplTest, FrontEnd_NoObjectAndBadArguments_LogTheirLinesAndReturnTheirColumnValues)
{
    auto CallAll = [&](TalMem& mem, uintptr_t poolAddr, uintptr_t address) { // every operation, into its result
        std::vector<int> codes = {mem.Init(poolAddr, 1 << 20), static_cast<int>(mem.Alloc(poolAddr, 4096)),
            mem.Free(poolAddr, address), mem.DumpInfo(poolAddr), mem.SetMcInfo(address, &pool, "a", "m"),
            mem.GetMcInfo(poolAddr, address) != nullptr, mem.GetUsedNum(poolAddr),
            static_cast<int>(mem.GetMaxFreeSize(poolAddr))};
        return mem.CheckFatalAddr(poolAddr), codes;
    };
    TalMem none; // TalMemInit never called
    EXPECT_EQ(CallAll(none, pool, pool + 8192), (std::vector<int>{-5, 0, -5, -5, -5, 0, -5, 0}));
    EXPECT_EQ(LogCapture::CountContaining(" memImpl invalid\n"), 9) << "one line for each operation";
    EXPECT_EQ(LogCapture::Lines().size(), 9u) << "because nothing else is logged, no ErrorCode either";
    TalMem mem;
    ASSERT_EQ(mem.TalMemInit(), 0);
    LogCapture::Clear();
    EXPECT_EQ(CallAll(mem, 0, 0), (std::vector<int>{-1, 0, -1, -1, -1, 0, -1, 0}));
    for (const char* line : {"Init(401): poolAddr input error\n", "QvCamMem Init ErrorCode:-1\n",
                             "QvCamMem Free ErrorCode:-1 addr 0x0\n", "GetMcInfo(406):  input error\n"}) {
        EXPECT_EQ(Errors(line), 1) << line;
    }
    EXPECT_EQ(LogCapture::CountContaining("): poolAddr input error\n"), 8) << "every operation but GetMcInfo";
    EXPECT_EQ(LogCapture::CountContaining("ErrorCode"), 4) << "because only four operations report codes";
    // The pool's own failure comes back with its code.
    uintptr_t a = mem.Alloc(pool, 4096);
    EXPECT_EQ(mem.Free(pool, a + 4096), -100);
    EXPECT_EQ(Errors("QvCamMem Free ErrorCode:-100 addr 0x" + std::to_string((a + 4096) & 0xFFFFFF) + "\n"), 1)
        << "because the masked address is printed in decimal behind 0x";
}

} // namespace
