#ifndef TALMEM_TESTS_POOL_POOLTESTUTIL_H
#define TALMEM_TESTS_POOL_POOLTESTUTIL_H

// Fixture of the pool manager tests: an initialised TalMemPoolImpl over real
// shared memory, whose destruction must give back every buffer it held.

#include "TalTestSupport.h"

#include <algorithm>
#include <memory>

#include "CameraBufferInterface.h"
#include "chunk/TalMemChunk.h"
#include "pool/TalMemPoolImpl.h"

namespace pool_test {

using qv::TalMemChunk;
using qv::TalMemPoolImpl;
using talmem_test::LogCapture;

constexpr uint32_t kMiB = 1024 * 1024;

inline std::string Hex(unsigned long long value)
{
    char buf[32];
    snprintf(buf, sizeof(buf), "%llx", value & 0xFFFFFF);
    return buf;
}

inline uintptr_t AddrOf(TalMemChunk* chunk) { return reinterpret_cast<uintptr_t>(chunk->GetAddr()); }

class PoolTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        ASSERT_EQ(impl.PoolInit(), 0);
        LogCapture::Clear();
    }
    void TearDown() override
    {
        owner_.reset();
        EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), held_) << "because destruction frees all";
        TalTest::TearDown();
    }
    static TalMemChunk* Chunk(qv::TalChunkMap& map, uintptr_t addr)
    {
        auto it = map.find(reinterpret_cast<void*>(addr));
        return it == map.end() ? nullptr : it->second;
    }
    TalMemChunk* Pool(int32_t id)
    {
        auto& list = impl.poolChunkList;
        auto it = std::find_if(list.begin(), list.end(), [id](TalMemChunk* p) { return p->poolId == id; });
        return it == list.end() ? nullptr : *it;
    }
    std::string PoolIds() // front to back
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

    const uint64_t held_ = QvCamera::CameraBufferInterface::GetHeldBytes();
    std::unique_ptr<TalMemPoolImpl> owner_{new TalMemPoolImpl()};
    TalMemPoolImpl& impl = *owner_;
};

} // namespace pool_test

#endif // TALMEM_TESTS_POOL_POOLTESTUTIL_H
