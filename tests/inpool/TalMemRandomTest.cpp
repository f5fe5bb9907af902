#include "InpoolChecker.h"

#include <cmath>
#include <map>
#include <random>

namespace {

using namespace qv;
using TalMemRandomTest = talmem_test::InpoolTest;

// Stamps (write) or checks the first and the last 64 bytes of an allocation.
bool Stamp(uintptr_t addr, uint32_t size, bool write)
{
    bool intact = true;
    for (uint32_t i = 0; i < 64; ++i) {
        auto byte = static_cast<uint8_t>((addr >> 12) ^ (size >> 12) ^ i);
        for (auto* q : {reinterpret_cast<uint8_t*>(addr) + i, reinterpret_cast<uint8_t*>(addr) + size - 1 - i}) {
            intact = intact && (write ? (*q = byte) : *q) == byte;
        }
    }
    return intact;
}

// Thousands of allocations and frees of page multiples, log-uniform from 4 KiB to 64 MiB, against a
// model of the live ranges; the fixture checks the pool after every step.
TEST_F(TalMemRandomTest, Sequence_FixedSeedsKeepAllocationsAlignedDisjointAndIntact)
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
        int failed = 0;
        for (int op = 0; op < 3000 && !HasFailure(); ++op) {
            if (!live.empty() && rng() % 100 >= 55) {
                auto it = std::next(live.begin(), rng() % live.size());
                EXPECT_TRUE(Stamp(it->first, it->second, false)) << "payload overwritten before its free";
                EXPECT_EQ(Free(it->first), 0);
                live.erase(it);
                continue;
            }
            uint32_t size = std::max(1u, static_cast<uint32_t>(std::exp(logSize(rng)) / 4096)) * 4096;
            uint32_t maxFree = impl.TalMemGetMaxFreeSize(pool);
            uintptr_t addr = Alloc(size);
            auto next = live.lower_bound(addr);
            if (addr == 0) {
                EXPECT_GT(NodeSizeFor(size), maxFree) << "a request that fits the largest free node failed";
                ++failed;
            } else {
                EXPECT_EQ(addr % 4096, 0u);
                EXPECT_GE(addr, pool + kTalPoolHeadSize + kTalNodeHeadSize);
                EXPECT_LE(addr + size, TalAddrOf(TalEndNode(info())));
                EXPECT_TRUE(next == live.end() || addr + size <= next->first) << "overlaps the next one";
                EXPECT_TRUE(next == live.begin() || std::prev(next)->first + std::prev(next)->second <= addr);
                Stamp(addr, size, true);
                live[addr] = size;
            }
            ASSERT_EQ(impl.TalMemGetUsedNum(pool), static_cast<int>(live.size()));
        }
        for (const auto& entry : live) {
            EXPECT_TRUE(Stamp(entry.first, entry.second, false));
            EXPECT_EQ(Free(entry.first), 0);
        }
        EXPECT_EQ(info()->freeNodeNum, 1u);
        EXPECT_EQ(TalNodeSize(TalFirstNode(info())), kBigPool - kTalPoolOverhead) << "because all merged back";
        EXPECT_GT(failed, 0) << "because the sequence should also reach a full pool";
    }
}

} // namespace
