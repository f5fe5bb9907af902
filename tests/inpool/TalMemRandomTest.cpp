#include "InpoolFixture.h"

#include <cmath>
#include <map>
#include <random>

namespace {

using namespace qv;
using talmem_test::MappedRegion;

// Random allocations and frees of camera-like sizes against a model of the
// live ranges: addresses must be aligned, inside the pool and disjoint, and
// the bytes written into each allocation must survive everything else.
class TalMemRandomTest : public talmem_test::TalTest {
protected:
    static constexpr uint32_t kPoolSize = 320u << 20;
    static constexpr int kOperations = 3000;
    static constexpr size_t kStamp = 64; // bytes stamped at each end of an allocation

    struct Live {
        uint32_t size;
        uint8_t seed;
    };

    uint32_t RandomSize(std::mt19937& rng)
    {
        // Page multiples, log-uniform between 4 KiB and 64 MiB.
        std::uniform_real_distribution<double> logSize(std::log(4096.0), std::log(64.0 * 1024 * 1024));
        double bytes = std::exp(logSize(rng));
        uint32_t pages = static_cast<uint32_t>(bytes / 4096.0);
        return (pages == 0 ? 1 : pages) * 4096u;
    }

    static void Stamp(uintptr_t addr, const Live& live)
    {
        auto* p = reinterpret_cast<uint8_t*>(addr);
        for (size_t i = 0; i < kStamp; ++i) {
            p[i] = static_cast<uint8_t>(live.seed + i);
            p[live.size - 1 - i] = static_cast<uint8_t>(live.seed ^ i);
        }
    }
    static bool StampIntact(uintptr_t addr, const Live& live)
    {
        auto* p = reinterpret_cast<const uint8_t*>(addr);
        for (size_t i = 0; i < kStamp; ++i) {
            if (p[i] != static_cast<uint8_t>(live.seed + i) ||
                p[live.size - 1 - i] != static_cast<uint8_t>(live.seed ^ i)) {
                return false;
            }
        }
        return true;
    }

    void ExpectPlaced(uintptr_t addr, uint32_t size)
    {
        EXPECT_EQ(addr % 4096, 0u);
        EXPECT_GE(addr, pool + kTalPoolHeadSize + kTalNodeHeadSize);
        EXPECT_LE(addr + size, pool + kPoolSize - kTalNodeHeadSize);
        auto next = live.lower_bound(addr);
        if (next != live.end()) {
            EXPECT_LE(addr + size, next->first) << "overlaps the allocation after it";
        }
        if (next != live.begin()) {
            auto prev = std::prev(next);
            EXPECT_LE(prev->first + prev->second.size, addr) << "overlaps the allocation before it";
        }
    }

    void AllocOne(std::mt19937& rng)
    {
        uint32_t size = RandomSize(rng);
        uint32_t maxFree = impl.TalMemGetMaxFreeSize(pool);
        uintptr_t addr = impl.TalMemAlloc(pool, size);
        uint32_t need = (size + kTalAllocSlack + kTalNodeHeadSize + kTalNodeAlign - 1) & ~(kTalNodeAlign - 1);
        if (addr == 0) {
            EXPECT_GT(need, maxFree) << "a request that fits the largest free node failed";
            ++failedAllocs;
            return;
        }
        ExpectPlaced(addr, size);
        Live entry{size, static_cast<uint8_t>(rng())};
        Stamp(addr, entry);
        live[addr] = entry;
    }

    void FreeOne(std::mt19937& rng)
    {
        auto it = live.begin();
        std::advance(it, std::uniform_int_distribution<size_t>(0, live.size() - 1)(rng));
        EXPECT_TRUE(StampIntact(it->first, it->second)) << "payload overwritten before its free";
        EXPECT_EQ(impl.TalMemFree(pool, it->first), 0);
        live.erase(it);
    }

    void RunSeed(unsigned seed)
    {
        MappedRegion region(kPoolSize);
        pool = region.addr();
        ASSERT_EQ(impl.TalMemInit(pool, kPoolSize), 0);
        std::mt19937 rng(seed);
        for (int op = 0; op < kOperations && !HasFailure(); ++op) {
            bool alloc = live.empty() || std::uniform_int_distribution<int>(0, 99)(rng) < 55;
            if (alloc) {
                AllocOne(rng);
            } else {
                FreeOne(rng);
            }
            EXPECT_POOL_SOUND(pool);
            ASSERT_EQ(impl.TalMemGetUsedNum(pool), static_cast<int>(live.size()));
        }
        for (const auto& entry : live) {
            EXPECT_TRUE(StampIntact(entry.first, entry.second));
            EXPECT_EQ(impl.TalMemFree(pool, entry.first), 0);
        }
        live.clear();
        EXPECT_POOL_SOUND(pool);
        TalMemPoolInfo* info = TalPoolOf(pool);
        EXPECT_EQ(info->freeNodeNum, 1u);
        EXPECT_EQ(info->usedNodeNum, 0u);
        EXPECT_EQ(TalNodeSize(TalFirstNode(info)), kPoolSize - kTalPoolOverhead)
            << "because everything merges back into one node";
        EXPECT_GT(failedAllocs, 0) << "because the sequence should also reach a full pool";
    }

    TalMemImpl impl;
    uintptr_t pool = 0;
    std::map<uintptr_t, Live> live;
    int failedAllocs = 0;
};

TEST_F(TalMemRandomTest, Sequence_Seed1_KeepsAllocationsDisjointAndIntact)
{
    RunSeed(1);
}

TEST_F(TalMemRandomTest, Sequence_Seed2024_KeepsAllocationsDisjointAndIntact)
{
    RunSeed(2024);
}

TEST_F(TalMemRandomTest, Sequence_Seed77_KeepsAllocationsDisjointAndIntact)
{
    RunSeed(77);
}

} // namespace
