// The in-pool allocator's use of its size-class lists: the best-fit search
// and the refresh of the largest free node.
//
// Site numbers of "%s(%d)" in this file are 3xx.

// One concern of TalMemImpl: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemImpl.cpp"

#include "inpool/TalMemImpl.h"

#include "common/TalLog.h"
#include "inpool/TalList.h"

namespace qv {

namespace {

// The refresh reports a broken free node under this operation name.
constexpr const char* kMaxFreeScanName = "OsMemGetMaxFreeNodeSize";

// The addresses where a list link may lie in one pool: its size-class heads,
// or the list link of an aligned header inside the node area. The links of a
// smashed header are garbage, and following them would leave the pool. The
// bounds are plain integers taken once per walk.
struct LinkBounds {
    explicit LinkBounds(const TalMemPoolInfo* pool)
        : headsStart(TalAddrOf(pool->multiHead)),
          headsEnd(headsStart + sizeof(pool->multiHead)),
          nodesStart(TalAddrOf(TalFirstNode(pool))),
          nodesEnd(TalAddrOf(TalEndNode(pool))),
          maxSteps(pool->poolSize / kTalNodeHeadSize + kTalMultiHeadNum)
    {
    }
    bool Holds(const TalDlList* link) const
    {
        const uintptr_t at = TalAddrOf(link);
        if (at >= headsStart && at < headsEnd) {
            return (at - headsStart) % sizeof(TalDlList) == 0;
        }
        const uintptr_t node = at - offsetof(TalMemDynNode, listNode);
        return node >= nodesStart && node < nodesEnd && TalNodeAligned(node);
    }

    uintptr_t headsStart;
    uintptr_t headsEnd;
    uintptr_t nodesStart;
    uintptr_t nodesEnd;
    uint32_t maxSteps; // more steps than nodes and heads: a smashed link closed a cycle
};

// The largest node on the free list of `head` into *best; false when the
// walk meets a header with a wrong magic or a link that leaves the pool, or
// takes more steps than the pool has nodes.
bool LargestOnList(const LinkBounds& bounds, const TalDlList* head, uint32_t* best)
{
    uint32_t largest = 0;
    uint32_t steps = bounds.maxSteps;
    bool sound = true;
    for (const TalDlList* link = head->nextLink; link != head; link = link->nextLink) {
        const TalMemDynNode* node = TalNodeOfLink(link);
        if (steps == 0 || !bounds.Holds(link) || !TalNodeMagicOk(node)) {
            sound = false;
            break;
        }
        --steps;
        largest = TalNodeSizeWord(node) > largest ? TalNodeSizeWord(node) : largest;
    }
    *best = largest;
    return sound;
}

} // namespace

// First fit by size alone: the magic word is the caller's to check, on the
// node found, so a smashed node too small for the request is passed over
// instead of failing every request of its class. A walk stops at a link that
// leaves the pool, and after more steps than the pool has nodes (a smashed
// link may close a cycle).
TalMemDynNode* TalMemImpl::OsMemFindSuitableFreeBlock(TalMemPoolInfo* pool, uint32_t allocSize)
{
    TalDlList* heads = pool->multiHead;
    const LinkBounds bounds(pool);
    uint32_t steps = bounds.maxSteps;
    for (TalDlList* head = TalDLinkMultiHead::OsDLnkMultiHead(heads, allocSize); head != nullptr;
         head = TalDLinkMultiHead::OsDLnkNextMultiHead(heads, head)) {
        for (TalDlList* link = head->nextLink; link != head && bounds.Holds(link) && steps > 0;
             link = link->nextLink, --steps) {
            TalMemDynNode* node = TalNodeOfLink(link);
            if (TalNodeSizeWord(node) >= allocSize) {
                return node;
            }
        }
    }
    return nullptr;
}

void TalMemImpl::ScanFreeLists(TalMemPoolInfo* pool, FreeListScan* scan)
{
    const LinkBounds bounds(pool);
    for (uint32_t i = 0; i < kTalMultiHeadNum; ++i) {
        scan->broken[i] = !LargestOnList(bounds, &pool->multiHead[i], &scan->maxSize[i]);
    }
}

// The largest free node is defined head by head: for each head h, the
// largest node on the lists h..26, or 0 (with an error line and a node dump)
// when that walk meets a broken node. A broken node on list b thus spoils
// the heads 0..b, each reporting it once, and the heads above b still
// count. One walk of every list gives all 27 results.
void TalMemImpl::OsMemMaxFreeNodeSizeUpdate(TalMemPoolInfo* pool)
{
    FreeListScan scan;
    ScanFreeLists(pool, &scan);
    int lastBroken = -1;
    for (uint32_t i = 0; i < kTalMultiHeadNum; ++i) {
        lastBroken = scan.broken[i] ? static_cast<int>(i) : lastBroken;
    }
    uint32_t best = 0;
    for (uint32_t i = static_cast<uint32_t>(lastBroken + 1); i < kTalMultiHeadNum; ++i) {
        best = scan.maxSize[i] > best ? scan.maxSize[i] : best;
    }
    for (int h = 0; h <= lastBroken; ++h) {
        TAL_LOGE_FOR(kMaxFreeScanName, "%s(%d): MAGIC_CHECK error\n", kMaxFreeScanName, 301);
        OsMemNodeDump(pool);
    }
    pool->maxFreeNodeSize = best;
}

} // namespace qv
