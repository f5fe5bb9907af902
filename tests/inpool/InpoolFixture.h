#ifndef TALMEM_TESTS_INPOOL_INPOOLFIXTURE_H
#define TALMEM_TESTS_INPOOL_INPOOLFIXTURE_H

// Fixture for the in-pool allocator tests: one formatted pool in mapped memory.

#include "InpoolChecker.h"
#include "TalTestSupport.h"

#include <cstring>
#include <memory>
#include <string>

#include "common/TalLog.h"
#include "inpool/TalList.h"
#include "inpool/TalMemImpl.h"

namespace talmem_test {

class InpoolTest : public TalTest {
protected:
    static constexpr uint32_t kPoolSize = 64u << 20;

    void SetUp() override
    {
        TalTest::SetUp();
        region = std::make_unique<MappedRegion>(kPoolSize);
        pool = region->addr();
        ASSERT_EQ(impl.TalMemInit(pool, kPoolSize), 0);
        LogCapture::Clear();
    }

    qv::TalMemPoolInfo* info() const { return qv::TalPoolOf(pool); }

    // Node size that a request of `size` bytes takes.
    static uint32_t NodeSizeFor(uint32_t size)
    {
        return (size + qv::kTalAllocSlack + qv::kTalNodeHeadSize + qv::kTalNodeAlign - 1) &
               ~(qv::kTalNodeAlign - 1);
    }
    static qv::TalMemDynNode* NodeOf(uintptr_t address)
    {
        return qv::TalNodeAt(qv::TalNodeAddrOfAddress(address));
    }
    uintptr_t Alloc(uint32_t size) { return impl.TalMemAlloc(pool, size); }
    int Free(uintptr_t address) { return impl.TalMemFree(pool, address); }
    // Overwrites the start of the header of `node`, as an overrun of the
    // preceding payload would.
    static void Trample(qv::TalMemDynNode* node, size_t bytes = 16)
    {
        memset(node, 0x5A, bytes);
    }

    qv::TalMemImpl impl;
    std::unique_ptr<MappedRegion> region;
    uintptr_t pool = 0;
};

} // namespace talmem_test

#endif // TALMEM_TESTS_INPOOL_INPOOLFIXTURE_H
