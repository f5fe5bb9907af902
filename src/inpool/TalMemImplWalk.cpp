// The pool consistency check: one walk of the nodes and one of the free
// lists, compared with each other and with the header counters. It only
// reads, logs nothing and uses no heap, so it can run after every operation.

#include "inpool/TalMemImpl.h"

#include <cstring>

#include "inpool/TalList.h"

namespace qv {

int TalMemImpl::TalMemCheckPool(const TalMemPoolInfo* pool, TalMemCheckReport report, void* user)
{
    int failures = 0;
    auto fail = [&](const char* what, const void* at) {
        if (report != nullptr) {
            report(what, TalAddrOf(at) - TalAddrOf(pool), user);
        }
        return ++failures;
    };
    if (pool == nullptr || pool->magic != kTalMemMagic || pool->pool != TalAddrOf(pool) || pool->poolCreate != 1) {
        return fail("pool header not formatted", pool);
    }
    const TalMemDynNode* first = TalFirstNode(pool);
    const TalMemDynNode* end = TalEndNode(pool);
    auto inWalk = [&](const TalMemDynNode* node) {
        return node >= first && node < end && TalNodeAligned(TalAddrOf(node));
    };
    // Index 0 sums the used nodes, index 1 the free ones.
    uint32_t bytes[2] = {0, 0};
    uint32_t nodes[2] = {0, 0};
    uint32_t maxFree = 0;
    const TalMemDynNode* prev = nullptr;
    for (const TalMemDynNode* node = first; node != end; prev = node, node = TalNextNode(node)) {
        uint32_t size = TalNodeSize(node);
        bool free = TalNodeIsFree(node);
        // Only the node before the end node may end off the alignment.
        if (!TalNodeMagicOk(node) || size < kTalNodeHeadSize || size > TalAddrOf(end) - TalAddrOf(node) ||
            (size % kTalNodeAlign != 0 && TalNextNode(node) != end)) {
            return fail("broken node", node);
        }
        if (TalNodePrev(node) != prev) {
            fail("wrong prevNode", node);
        }
        if (free && prev != nullptr && TalNodeIsFree(prev)) {
            fail("adjacent free nodes", node);
        }
        if (!free && (!TalHasUsedMark(node) || TalNodeLinkNext(node) != TalUsedMarkNext())) {
            fail("used node without the used mark", node);
        }
        bytes[free] += size;
        nodes[free] += 1;
        maxFree = free && size > maxFree ? size : maxFree;
    }
    if (!TalNodeMagicOk(end) || TalNodeSizeWord(end) != (kTalNodeUsedFlag | kTalNodeHeadSize) ||
        !TalHasUsedMark(end) || TalNodePrev(end) != prev || strcmp(TalNodeAlgoName(end), "sentinel") != 0) {
        fail("end node broken", end);
    }
    // Every list entry must be a free node of the walk in the list's class;
    // entries are distinct as the prevLink chain is checked step by step, so
    // as many entries as free nodes means each free node is on one list.
    uint32_t listed = 0;
    for (uint32_t i = 0; i < kTalMultiHeadNum; ++i) {
        const TalDlList* head = &pool->multiHead[i];
        const TalDlList* from = head;
        for (const TalDlList* link = head->nextLink; link != head; from = link, link = link->nextLink) {
            const TalMemDynNode* node = TalNodeOfLink(link);
            if (!inWalk(node) || !TalNodeMagicOk(node) || !TalNodeIsFree(node) || link->prevLink != from ||
                ++listed > nodes[1]) {
                return fail("broken free list", head);
            }
            const TalMemDynNode* before = TalNodePrev(node);
            if (before == nullptr ? node != first : !inWalk(before) || TalNextNode(before) != node) {
                fail("listed node not in the walk", node);
            }
            if (TalDLinkMultiHead::HeadIndex(TalNodeSize(node)) != i) {
                fail("free node on the list of another class", node);
            }
        }
        if (head->prevLink != from) {
            fail("list head's prevLink", head);
        }
    }
    if (listed != nodes[1]) {
        fail("free node on no list", pool);
    }
    const struct { const char* name; uint32_t header, walk; } counters[] = {
        {"usedSize", pool->usedSize, bytes[0]}, {"freeSize", pool->freeSize, bytes[1]},
        {"usedNodeNum", pool->usedNodeNum, nodes[0]}, {"freeNodeNum", pool->freeNodeNum, nodes[1]},
        {"maxFreeNodeSize", pool->maxFreeNodeSize, maxFree}, {"useRatio", pool->useRatio, TalUseRatio(pool)},
        {"poolSize", pool->poolSize - kTalPoolOverhead, bytes[0] + bytes[1]}};
    for (const auto& counter : counters) {
        if (counter.header != counter.walk) {
            fail(counter.name, pool);
        }
    }
    return failures;
}

} // namespace qv
