#ifndef TALMEM_TESTS_INPOOL_INPOOLTEST_H
#define TALMEM_TESTS_INPOOL_INPOOLTEST_H

// A fixture with a 64 MiB pool whose Alloc and Free check the pool after every call.

#include <sys/mman.h>

#include <functional>
#include <string>

#include "TalTestSupport.h"
#include "common/TalLog.h"
#include "inpool/TalList.h"
#include "inpool/TalMemImpl.h"

namespace talmem_test {

template <typename... Args>
std::string Fmt(const char* format, Args... args)
{
    char buf[512];
    return snprintf(buf, sizeof(buf), format, args...), buf;
}

// The failures of the pool check, one "what at +offset" line each.
inline std::string PoolFailures(uintptr_t pool)
{
    std::string why;
    qv::TalMemImpl::TalMemCheckPool(qv::TalPoolOf(pool), [](const char* what, uintptr_t at, void* out) {
        *static_cast<std::string*>(out) += std::string(what) + " at +" + std::to_string(at) + "\n";
    }, &why);
    return why;
}

struct MappedRegion {
    explicit MappedRegion(size_t bytes) : size(bytes) { EXPECT_NE(base, MAP_FAILED); }
    ~MappedRegion() { EXPECT_EQ(munmap(base, size), 0); }
    uintptr_t addr() const { return reinterpret_cast<uintptr_t>(base); }
    qv::TalMemPoolInfo* info() const { return qv::TalPoolOf(addr()); }
    size_t size;
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
};

class InpoolTest : public TalTest {
protected:
    static constexpr uint32_t kPoolSize = 64u << 20;

    void SetUp() override
    {
        TalTest::SetUp();
        ASSERT_EQ(impl.TalMemInit(pool, kPoolSize), 0);
        LogCapture::Clear();
    }
    qv::TalMemPoolInfo* info() const { return qv::TalPoolOf(pool); }
    static uint32_t NodeSizeFor(uint32_t size) // the node that a request takes
    { return (size + qv::kTalAllocSlack + qv::kTalNodeHeadSize + qv::kTalNodeAlign - 1) & ~(qv::kTalNodeAlign - 1); }
    static qv::TalMemDynNode* NodeOf(uintptr_t a) { return qv::TalNodeAt(qv::TalNodeAddrOfAddress(a)); }
    uintptr_t Alloc(uint32_t size) { return Checked(impl.TalMemAlloc(pool, size)); }
    int Free(uintptr_t address) { return Checked(impl.TalMemFree(pool, address)); }
    template <typename T> T Checked(T result) { EXPECT_EQ(sound ? PoolFailures(pool) : "", ""); return result; }
    // A payload overrun into `node`'s header: the pool check is off from then on.
    void Trample(qv::TalMemDynNode* node, size_t bytes = 16) { sound = false, memset(node, 0x5A, bytes); }
    static int Errors(const std::string& message) { return LogCapture::Count(ANDROID_LOG_ERROR, message); }

    qv::TalMemImpl impl;
    MappedRegion region{kPoolSize};
    uintptr_t pool = region.addr();
    bool sound = true;
};

} // namespace talmem_test

#endif // TALMEM_TESTS_INPOOL_INPOOLTEST_H
