// The in-pool allocator's use of its size-class lists: the best-fit search
// and the refresh of the largest free node.
//
// Site numbers of "%s(%d)" in this file are 3xx.

#include "inpool/TalMemImpl.h"

#include "common/TalLog.h"
#include "inpool/TalList.h"

namespace qv {

namespace {

// The refresh reports a broken free node under this operation name.
constexpr const char* kMaxFreeScanName = "OsMemGetMaxFreeNodeSize";

} // namespace

TalMemDynNode* TalMemImpl::OsMemFindSuitableFreeBlock(TalMemPoolInfo* pool, uint32_t allocSize)
{
    TalDlList* heads = pool->multiHead;
    for (TalDlList* head = TalDLinkMultiHead::OsDLnkMultiHead(heads, allocSize); head != nullptr;
         head = TalDLinkMultiHead::OsDLnkNextMultiHead(heads, head)) {
        for (TalDlList* link = head->nextLink; link != head; link = link->nextLink) {
            TalMemDynNode* node = TalNodeOfLink(link);
            // A broken node ends the search: its links cannot be followed,
            // and the caller reports it.
            if (!TalNodeMagicOk(node) || node->nodeSize >= allocSize) {
                return node;
            }
        }
    }
    return nullptr;
}

void TalMemImpl::ScanFreeLists(TalMemPoolInfo* pool, FreeListScan* scan)
{
    for (uint32_t i = 0; i < kTalMultiHeadNum; ++i) {
        TalDlList* head = &pool->multiHead[i];
        uint32_t best = 0;
        bool broken = false;
        for (TalDlList* link = head->nextLink; link != head; link = link->nextLink) {
            const TalMemDynNode* node = TalNodeOfLink(link);
            if (!TalNodeMagicOk(node)) {
                broken = true;
                break;
            }
            best = node->nodeSize > best ? node->nodeSize : best;
        }
        scan->maxSize[i] = best;
        scan->broken[i] = broken;
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
