#ifndef TALMEM_TESTS_INPOOL_INPOOLCHECKER_H
#define TALMEM_TESTS_INPOOL_INPOOLCHECKER_H

// Test support for the in-pool allocator: the pool consistency check, an mmap
// region, and a fixture whose Alloc and Free run the check after every call.

#include "TalTestSupport.h"

#include <cstring>
#include <memory>
#include <string>

#include "common/TalLog.h"
#include "inpool/TalList.h"
#include "inpool/TalMemImpl.h"

namespace talmem_test {

// The number of broken invariants of a pool, each described in *why: nodes
// tile [first node, end node], prevNode links agree, no two free nodes are
// adjacent, every free node is on its class's list and no other, and the
// header counters equal the sums of the walk.
int CheckPool(uintptr_t pool, std::string* why);

#define EXPECT_POOL_SOUND(pool)                                      \
    do {                                                             \
        std::string why_;                                            \
        EXPECT_EQ(talmem_test::CheckPool((pool), &why_), 0) << why_; \
    } while (0)

std::string Fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));

// An anonymous mapping, unmapped (and the unmap asserted) at scope end.
struct MappedRegion {
    explicit MappedRegion(size_t size);
    ~MappedRegion();
    uintptr_t addr() const { return reinterpret_cast<uintptr_t>(mBase); }
    qv::TalMemPoolInfo* info() const { return qv::TalPoolOf(addr()); }
    void* mBase;
    size_t mSize;
};

class InpoolTest : public TalTest {
protected:
    static constexpr uint32_t kPoolSize = 64u << 20;

    void SetUp() override;
    qv::TalMemPoolInfo* info() const { return qv::TalPoolOf(pool); }
    static uint32_t NodeSizeFor(uint32_t size) // the node that a request takes
    {
        uint32_t align = qv::kTalNodeAlign;
        return (size + qv::kTalAllocSlack + qv::kTalNodeHeadSize + align - 1) & ~(align - 1);
    }
    static qv::TalMemDynNode* NodeOf(uintptr_t a) { return qv::TalNodeAt(qv::TalNodeAddrOfAddress(a)); }
    // Allocation and free, each followed by the pool check until something is trampled.
    uintptr_t Alloc(uint32_t size) { return Checked(impl.TalMemAlloc(pool, size)); }
    int Free(uintptr_t address) { return Checked(impl.TalMemFree(pool, address)); }
    template <typename T>
    T Checked(T result)
    {
        EXPECT_EQ(sound ? CheckPool(pool, &why) : 0, 0) << why;
        return result;
    }
    // A payload overrun into `node`'s header: the pool check is off from then on.
    void Trample(qv::TalMemDynNode* node, size_t bytes = 16)
    {
        memset(static_cast<void*>(node), 0x5A, bytes);
        sound = false;
    }
    static int Errors(const std::string& message) { return LogCapture::Count(ANDROID_LOG_ERROR, message); }

    qv::TalMemImpl impl;
    std::unique_ptr<MappedRegion> region;
    uintptr_t pool = 0;
    bool sound = true;
    std::string why;
};

} // namespace talmem_test

#endif // TALMEM_TESTS_INPOOL_INPOOLCHECKER_H
