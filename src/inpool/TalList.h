#ifndef TALMEM_INPOOL_TALLIST_H
#define TALMEM_INPOOL_TALLIST_H

// Operations on the intrusive circular lists that hold the free nodes of a
// pool. All state lives in the links themselves (inside the pool); nothing
// here allocates or fails. Callers serialise access per pool.

#include <cstdint>

#include "inpool/TalMemFormat.h"

namespace qv {

class TalList {
public:
    // Makes `list` an empty circle: both links point at `list` itself.
    static void TalListInit(TalDlList* list)
    {
        list->prevLink = list;
        list->nextLink = list;
    }

    // Inserts `node` directly after `list`, at the front of its list.
    static void TalListAdd(TalDlList* list, TalDlList* node)
    {
        node->prevLink = list;
        node->nextLink = list->nextLink;
        list->nextLink->prevLink = node;
        list->nextLink = node;
    }

    // Inserts `node` directly before `list`, at the tail of its list.
    static void TalListTailInsert(TalDlList* list, TalDlList* node)
    {
        TalListAdd(list->prevLink, node);
    }

    // Unlinks `node` and clears both of its links.
    static void TalListDelete(TalDlList* node)
    {
        node->nextLink->prevLink = node->prevLink;
        node->prevLink->nextLink = node->nextLink;
        node->prevLink = nullptr;
        node->nextLink = nullptr;
    }
};

// The 27 size-class heads of a pool, passed as the address of the first.
// Head i holds free nodes with floor(log2(size)) == i + 4; head 0 also takes
// every smaller size; sizes of 2^31 and more have no head.
class TalDLinkMultiHead {
public:
    static constexpr uint32_t kMinLog = 4;
    static constexpr uint32_t kMaxLog = kMinLog + kTalMultiHeadNum - 1;

    // Makes all 27 heads empty lists.
    static void OsDLnkInitMultiHead(TalDlList* headArray);

    // The head of `size`'s class, or null when the class is beyond the last head.
    static TalDlList* OsDLnkMultiHead(TalDlList* headArray, uint32_t size);

    // The head after `head`, or null when `head` is the last one.
    static TalDlList* OsDLnkNextMultiHead(TalDlList* headArray, TalDlList* head);

    // Index of `size`'s class, or kTalMultiHeadNum when it has none.
    static uint32_t HeadIndex(uint32_t size)
    {
        uint32_t log = (size == 0) ? 0 : 31 - static_cast<uint32_t>(__builtin_clz(size));
        if (log > kMaxLog) {
            return kTalMultiHeadNum;
        }
        return log > kMinLog ? log - kMinLog : 0;
    }
};

} // namespace qv

#endif // TALMEM_INPOOL_TALLIST_H
