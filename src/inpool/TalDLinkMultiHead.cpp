#include "inpool/TalList.h"

namespace qv {

void TalDLinkMultiHead::OsDLnkInitMultiHead(TalDlList* headArray)
{
    for (uint32_t i = 0; i < kTalMultiHeadNum; ++i) {
        TalList::TalListInit(&headArray[i]);
    }
}

TalDlList* TalDLinkMultiHead::OsDLnkMultiHead(TalDlList* headArray, uint32_t size)
{
    uint32_t index = HeadIndex(size);
    return index < kTalMultiHeadNum ? &headArray[index] : nullptr;
}

TalDlList* TalDLinkMultiHead::OsDLnkNextMultiHead(TalDlList* headArray, TalDlList* head)
{
    return (head + 1 < headArray + kTalMultiHeadNum) ? head + 1 : nullptr;
}

} // namespace qv
