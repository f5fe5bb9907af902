#ifndef TALMEM_TESTS_POOL_POOLTESTUTIL_H
#define TALMEM_TESTS_POOL_POOLTESTUTIL_H

// Shared fixture of the pool manager tests: an initialised TalMemPoolImpl in
// its own device root, with small pools (memory is real shared memory).

#include "TalTestSupport.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "chunk/TalMemChunk.h"
#include "pool/TalMemPoolImpl.h"

namespace pool_test {

using qv::TalMemChunk;
using talmem_test::LogCapture;

constexpr uint32_t kMiB = 1024 * 1024;

inline std::string Hex(unsigned long long value)
{
    char buf[32];
    snprintf(buf, sizeof(buf), "%llx", value);
    return buf;
}

inline uintptr_t AddrOf(TalMemChunk* chunk)
{
    return reinterpret_cast<uintptr_t>(chunk->GetAddr());
}

class PoolTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        ASSERT_EQ(impl.PoolInit(), 0);
        LogCapture::Clear();
    }

    static TalMemChunk* Chunk(qv::TalChunkMap& map, uintptr_t addr)
    {
        auto it = map.find(reinterpret_cast<void*>(addr));
        return it == map.end() ? nullptr : it->second;
    }

    // The pool with this id, or null; the pool ids front to back.
    TalMemChunk* Pool(int32_t id)
    {
        auto it = std::find_if(impl.poolChunkList.begin(), impl.poolChunkList.end(),
                               [id](TalMemChunk* pool) { return pool->poolId == id; });
        return it == impl.poolChunkList.end() ? nullptr : *it;
    }
    std::string PoolIds()
    {
        std::string ids;
        for (TalMemChunk* pool : impl.poolChunkList) {
            ids += std::to_string(pool->poolId) + " ";
        }
        return ids;
    }

    uintptr_t AllocSize(uint32_t size, int32_t type = 0, const std::string& algo = "algo")
    {
        return impl.Alloc(size, "mod", nullptr, algo, type);
    }

    int UsedNum(int32_t id) { return impl.talMem.GetUsedNum(AddrOf(Pool(id))); }

    qv::TalMemPoolImpl impl;
};

} // namespace pool_test

#endif // TALMEM_TESTS_POOL_POOLTESTUTIL_H
