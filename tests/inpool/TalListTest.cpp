#include "TalTestSupport.h"

#include "inpool/TalList.h"

namespace {

using qv::TalDLinkMultiHead;
using qv::TalDlList;
using qv::TalList;

class TalListTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        TalDLinkMultiHead::OsDLnkInitMultiHead(heads);
    }
    TalDlList* Head(uint32_t size) { return TalDLinkMultiHead::OsDLnkMultiHead(heads, size); }

    TalDlList heads[qv::kTalMultiHeadNum];
};

TEST_F(TalListTest, MultiHead_MapsEachSizeToTheClassOfItsHighestBit)
{
    EXPECT_EQ(Head(0), &heads[0]);
    EXPECT_EQ(Head(1), &heads[0]);
    EXPECT_EQ(Head(31), &heads[0]) << "because head 0 takes every size below 32";
    EXPECT_EQ(Head(32), &heads[1]);
    for (uint32_t log = 5; log <= 30; ++log) {
        SCOPED_TRACE(log);
        uint32_t low = 1u << log;
        EXPECT_EQ(Head(low), &heads[log - 4]);
        EXPECT_EQ(Head(low + (low - 1)), &heads[log - 4]);
        EXPECT_EQ(Head(low - 1), &heads[log - 5]);
    }
    EXPECT_EQ(Head(0x7FFFFFFFu), &heads[26]);
    EXPECT_EQ(Head(0x80000000u), nullptr) << "because sizes of 2^31 and more have no head";
    EXPECT_EQ(Head(0xFFFFFFFFu), nullptr);
}

TEST_F(TalListTest, MultiHead_NextHeadStopsAfterTheLast)
{
    EXPECT_EQ(TalDLinkMultiHead::OsDLnkNextMultiHead(heads, &heads[0]), &heads[1]);
    EXPECT_EQ(TalDLinkMultiHead::OsDLnkNextMultiHead(heads, &heads[25]), &heads[26]);
    EXPECT_EQ(TalDLinkMultiHead::OsDLnkNextMultiHead(heads, &heads[26]), nullptr);
    for (const TalDlList& head : heads) {
        EXPECT_EQ(head.prevLink, &head);
        EXPECT_EQ(head.nextLink, &head) << "because every head starts as an empty circle";
    }
}

TEST_F(TalListTest, List_AddGoesToFrontTailInsertToBackDeleteClearsLinks)
{
    TalDlList* head = &heads[3];
    TalDlList a{}, b{}, c{};
    TalList::TalListAdd(head, &a);
    TalList::TalListTailInsert(head, &b);
    TalList::TalListAdd(head, &c);
    // Expected circle: head -> c -> a -> b -> head.
    EXPECT_EQ(head->nextLink, &c);
    EXPECT_EQ(c.nextLink, &a);
    EXPECT_EQ(a.nextLink, &b);
    EXPECT_EQ(b.nextLink, head);
    EXPECT_EQ(head->prevLink, &b);
    EXPECT_EQ(b.prevLink, &a);
    EXPECT_EQ(a.prevLink, &c);
    EXPECT_EQ(c.prevLink, head);

    TalList::TalListDelete(&a);
    EXPECT_EQ(a.prevLink, nullptr);
    EXPECT_EQ(a.nextLink, nullptr);
    EXPECT_EQ(c.nextLink, &b);
    EXPECT_EQ(b.prevLink, &c);

    TalList::TalListDelete(&c);
    TalList::TalListDelete(&b);
    EXPECT_EQ(head->nextLink, head);
    EXPECT_EQ(head->prevLink, head) << "because removing the last node empties the list";
    EXPECT_EQ(heads[2].nextLink, &heads[2]) << "because neighbouring heads are untouched";
    EXPECT_EQ(heads[4].prevLink, &heads[4]);
}

} // namespace
