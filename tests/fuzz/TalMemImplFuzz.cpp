// libFuzzer target: the in-pool allocator under random operations and random
// corruptions of its headers. The pool is a heap block, so AddressSanitizer
// traps any read or write just outside it. It traps on:
//  - any allocation outside the pool, not page aligned, or (while nothing is
//    corrupt) overlapping a live allocation, and any failed free of a live
//    allocation, wrong use count or broken pool check while nothing is corrupt;
//  - an allocation that overlaps a live one before any corruption, and after
//    a corruption a free of a live allocation that fails with no ERROR line
//    logged since the corruption;
//  - a wrong magic word on the walk, or a wrong used mark on a live node, that
//    a status walk plus the free of every live allocation does not report
//    with at least one ERROR line.
//
// Input: a pool size, then a stream of operations of three bytes each.

#include <android/log.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "inpool/TalMem.h"
#include "inpool/TalMemImpl.h"

namespace {

using namespace qv;

constexpr uint32_t kMaxPool = 1u << 20;
uint64_t gErrors = 0; // ERROR lines logged by the allocator so far
bool gTrace = false;  // TALMEM_FUZZ_TRACE=1: each operation on stderr, to study a crash input

void CountErrors(const struct __android_logger_data* data, const char*)
{
    gErrors += data->priority >= ANDROID_LOG_ERROR ? 1 : 0;
}

void Check(bool ok, const char* what)
{
    if (!ok) {
        fprintf(stderr, "invariant broken: %s\n", what);
        __builtin_trap();
    }
}

struct Live {
    uintptr_t addr;
    uint32_t size;
};

// Which header word a corruption hits.
enum Field { kMagic, kUsedMark, kNodeSize, kPrevNode, kFieldCount };

class Harness {
public:
    Harness(uintptr_t pool, uint32_t size) : mPool(pool), mSize(size) {}

    bool Start()
    {
        return mMem.TalMemInit() == 0 && mMem.Init(mPool, mSize) == 0;
    }

    void Step(uint8_t op, uint8_t a, uint8_t b)
    {
        if (gTrace) {
            fprintf(stderr, "op %u %u %u (live %zu, corrupt %d, errors %llu)\n", op % 8, a, b, mLive.size(),
                    mCorrupt, static_cast<unsigned long long>(gErrors));
        }
        switch (op % 8) {
            case 0: case 1: case 2: Alloc(4096u * (a % 48) + b * 17u + 1); break;
            case 3: case 4: FreeLive(a); break;
            case 5: FreeStray((static_cast<uint32_t>(a) << 8 | b) * 16u % mSize); break;
            case 6: Inspect(); break;
            default: Corrupt(a, b); break;
        }
        if (!mCorrupt) {
            Check(TalMemImpl::TalMemCheckPool(TalPoolOf(mPool)) == 0, "a sound pool passes its check");
        }
    }

    // Walks and frees everything; a corrupted magic or used mark must have been reported.
    void Audit()
    {
        const bool mustReport = mCorrupt && VisiblyBroken();
        mMem.DumpInfo(mPool);
        mMem.CheckFatalAddr(mPool);
        while (!mLive.empty()) {
            FreeLive(0);
        }
        if (mustReport) {
            Check(gErrors > mErrorsAtCorruption, "a corrupted magic word or used mark is reported");
        }
        if (!mCorrupt) {
            Check(mMem.GetUsedNum(mPool) == 0, "an emptied pool has no allocation");
        }
    }

private:
    bool Silent() const { return gErrors == mErrorsAtCorruption; }

    bool Overlaps(uintptr_t addr, uint32_t size) const
    {
        for (const Live& l : mLive) {
            if (addr < l.addr + l.size && l.addr < addr + size) {
                return true;
            }
        }
        return false;
    }

    void Alloc(uint32_t size)
    {
        uintptr_t addr = mMem.Alloc(mPool, size);
        if (addr == 0) {
            return;
        }
        Check(addr % 4096 == 0, "allocations are page aligned");
        Check(addr >= mPool + kTalPoolHeadSize && addr + size <= mPool + mSize, "allocations lie in the pool");
        if (Overlaps(addr, size)) {
            // A smashed size word or link is not checked on the way to a free
            // node (the pool keeps answering as its walk allows); the audit at
            // the end must still report what a walk can see.
            Check(mCorrupt, "an overlapping allocation only follows a corruption");
            return; // not kept: its owner would be ambiguous
        }
        if (!mCorrupt) {
            memset(reinterpret_cast<void*>(addr), 0xA5, size); // the payload must not hold any header
        }
        mLive.push_back({addr, size});
    }

    void FreeLive(uint8_t pick)
    {
        if (mLive.empty()) {
            return;
        }
        size_t i = pick % mLive.size();
        Live l = mLive[i];
        mLive.erase(mLive.begin() + static_cast<long>(i));
        int rc = mMem.Free(mPool, l.addr);
        Check(rc == 0 || (mCorrupt && !Silent()), "a live allocation frees unless a reported corruption stops it");
    }

    // An address that is not a live allocation must be refused, with a line.
    void FreeStray(uint32_t offset)
    {
        uintptr_t addr = mPool + offset;
        for (const Live& l : mLive) {
            // The node's own payload start, up to a page and a header before the
            // handed-out address, names the same node (the word before it is the
            // node's size word): a second name of a live allocation, not a stray one.
            if (addr + 4096 + kTalNodeHeadSize >= l.addr && addr < l.addr + l.size) {
                return;
            }
        }
        uint64_t before = gErrors;
        int rc = mMem.Free(mPool, addr);
        if (!mCorrupt) {
            Check(rc != 0 && gErrors > before, "a stray address is refused with an error line");
        }
        if (rc != 0 && !mCorrupt) {
            // A refused free may record a corruption in the header; its own lines report it.
            mCorrupt = true;
            mErrorsAtCorruption = before;
        }
    }

    void Inspect()
    {
        int used = mMem.GetUsedNum(mPool);
        uint32_t maxFree = mMem.GetMaxFreeSize(mPool);
        Check(mCorrupt || used == static_cast<int>(mLive.size()), "the use count matches");
        Check(mCorrupt || maxFree <= mSize, "the largest free node fits the pool");
    }

    // The headers of the nodes as far as a careful walk can step.
    std::vector<TalMemDynNode*> Nodes() const
    {
        std::vector<TalMemDynNode*> nodes;
        uintptr_t at = mPool + kTalPoolHeadSize;
        while (at + kTalNodeHeadSize <= mPool + mSize && nodes.size() < 4096) {
            TalMemDynNode* node = TalNodeAt(at);
            nodes.push_back(node);
            uint32_t size = TalNodeSize(node);
            // The same steps as the allocator's own walk: only the last node may end off the alignment.
            if (!TalNodeMagicOk(node) || TalAddrOf(node) == mPool + mSize - kTalNodeHeadSize ||
                !TalStepIsSane(node, TalEndNode(TalPoolOf(mPool)))) {
                break;
            }
            at += size;
        }
        return nodes;
    }

    void Corrupt(uint8_t which, uint8_t flip)
    {
        std::vector<TalMemDynNode*> nodes = Nodes();
        TalMemDynNode* node = nodes[which % nodes.size()];
        const Field field = static_cast<Field>((which / 16) % kFieldCount);
        const uintptr_t bits = static_cast<uintptr_t>(flip | 1) << ((which / 64) * 8);
        switch (field) {
            case kMagic: TalSetNodeMagic(node, TalNodeMagic(node) ^ static_cast<uint32_t>(bits)); break;
            case kUsedMark:
                if (TalNodeIsFree(node)) {
                    return; // a free node's links are list pointers; the allocator trusts them
                }
                TalStoreAt(TalAddrOf(TalNodeLink(node)) + offsetof(TalDlList, prevLink),
                           TalAddrOf(TalNodeLinkPrev(node)) ^ bits);
                break;
            case kNodeSize: TalSetNodeSizeWord(node, TalNodeSizeWord(node) ^ static_cast<uint32_t>(bits)); break;
            default: TalSetNodePrev(node, TalNodeAt(TalAddrOf(TalNodePrev(node)) ^ bits)); break;
        }
        if (!mCorrupt) {
            mErrorsAtCorruption = gErrors;
        }
        mCorrupt = true;
    }

    // A wrong magic word that the walk reaches, or a wrong used mark on a node
    // that the audit frees: both are checked by the allocator on its way.
    bool VisiblyBroken() const
    {
        for (TalMemDynNode* node : Nodes()) {
            if (!TalNodeMagicOk(node)) {
                return true;
            }
            for (const Live& l : mLive) {
                if (!TalNodeIsFree(node) && TalNodeHandedOut(node) == l.addr &&
                    !TalHasUsedMark(node)) {
                    return true;
                }
            }
        }
        return false;
    }

    TalMem mMem;
    uintptr_t mPool;
    uint32_t mSize;
    std::vector<Live> mLive;
    bool mCorrupt = false;
    uint64_t mErrorsAtCorruption = 0;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    const char* trace = getenv("TALMEM_FUZZ_TRACE");
    gTrace = trace != nullptr && trace[0] == '1';
    __android_log_set_logger(CountErrors);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3) {
        return 0;
    }
    // Any size from the smallest pool up: an odd size leaves the end node unaligned.
    uint32_t poolSize = kTalMinPoolSize + kTalNodeAlign +
                        (static_cast<uint32_t>(data[0]) << 12 | data[1] << 4 | data[2]) % kMaxPool;
    // The block ends exactly at the pool's end, so the redzone after it traps overruns.
    const uint32_t shift = (data[2] % 4) * kTalNodeAlign;
    void* block = nullptr;
    Check(posix_memalign(&block, 4096, shift + poolSize) == 0, "pool memory");
    const uintptr_t pool = reinterpret_cast<uintptr_t>(block) + shift;
    {
        Harness harness(pool, poolSize);
        if (harness.Start()) {
            for (size_t i = 3; i + 3 <= size; i += 3) {
                harness.Step(data[i], data[i + 1], data[i + 2]);
            }
            harness.Audit();
        }
    }
    free(block);
    return 0;
}
