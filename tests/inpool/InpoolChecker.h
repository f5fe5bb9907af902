#ifndef TALMEM_TESTS_INPOOL_INPOOLCHECKER_H
#define TALMEM_TESTS_INPOOL_INPOOLCHECKER_H

// Test support for the in-pool allocator: a consistency check of a whole
// pool, and a page-aligned memory region from mmap to format as a pool.

#include <cstdint>
#include <string>

#include "inpool/TalMemFormat.h"

namespace talmem_test {

// Walks the pool and returns the number of broken invariants, describing each
// in *why: nodes tile the space from the first node to the end node,
// prevNode links agree, no two free nodes are adjacent, every free node is
// on the list of its size class and nowhere else, list links are mutual,
// and the header counters equal the sums of the walk.
int CheckPool(uintptr_t pool, std::string* why);

// Checks the pool and reports every broken invariant as a test failure.
#define EXPECT_POOL_SOUND(pool)                                  \
    do {                                                         \
        std::string why_;                                        \
        EXPECT_EQ(talmem_test::CheckPool((pool), &why_), 0) << why_; \
    } while (0)

// An anonymous private mapping, unmapped (and the unmap asserted) at scope end.
class MappedRegion {
public:
    explicit MappedRegion(size_t size);
    ~MappedRegion();
    MappedRegion(const MappedRegion&) = delete;
    MappedRegion& operator=(const MappedRegion&) = delete;

    uintptr_t addr() const { return reinterpret_cast<uintptr_t>(mBase); }
    size_t size() const { return mSize; }
    qv::TalMemPoolInfo* info() const { return reinterpret_cast<qv::TalMemPoolInfo*>(mBase); }

private:
    void* mBase = nullptr;
    size_t mSize = 0;
};

} // namespace talmem_test

#endif // TALMEM_TESTS_INPOOL_INPOOLCHECKER_H
