#include "InpoolChecker.h"

#include <cstring>
#include <tuple>
#include <vector>

#include "talmem_properties.h"

namespace {

using namespace qv;
using talmem_test::Fmt;
using talmem_test::LogCapture;
using talmem_test::MappedRegion;

class TalMemImplTest : public talmem_test::InpoolTest {};

TEST(TalListTest, MultiHead_MapsSizesToTheClassOfTheirHighestBitAndStopsAfterTheLast)
{
    TalDlList heads[qv::kTalMultiHeadNum];
    TalDLinkMultiHead::OsDLnkInitMultiHead(heads);
    const struct { uint32_t size; int head; } cases[] = {
        {0, 0}, {1, 0}, {31, 0}, {32, 1}, {63, 1}, {64, 2}, {4383, 8}, {4384, 8}, {8192, 9},
        {0x3FFFFFFFu, 25}, {0x40000000u, 26}, {0x7FFFFFFFu, 26}, {0x80000000u, -1}, {0xFFFFFFFFu, -1}};
    for (const auto& c : cases) {
        TalDlList* head = TalDLinkMultiHead::OsDLnkMultiHead(heads, c.size);
        EXPECT_EQ(head == nullptr ? -1 : head - heads, c.head) << c.size;
    }
    EXPECT_EQ(TalDLinkMultiHead::OsDLnkNextMultiHead(heads, &heads[25]), &heads[26]);
    EXPECT_EQ(TalDLinkMultiHead::OsDLnkNextMultiHead(heads, &heads[26]), nullptr);
    EXPECT_EQ(heads[26].nextLink, &heads[26]) << "because every head starts as an empty circle";
}

TEST(TalListTest, List_AddGoesToTheFrontTailInsertToTheBackDeleteClearsTheLinks)
{
    TalDlList head, a{}, b{}, c{};
    TalList::TalListInit(&head);
    TalList::TalListAdd(&head, &a);
    TalList::TalListTailInsert(&head, &b);
    TalList::TalListAdd(&head, &c);
    const TalDlList* order[] = {&head, &c, &a, &b, &head};
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(order[i]->nextLink == order[i + 1] && order[i + 1]->prevLink == order[i]) << i;
    }
    TalList::TalListDelete(&a);
    EXPECT_TRUE(a.prevLink == nullptr && a.nextLink == nullptr && c.nextLink == &b && b.prevLink == &c);
    TalList::TalListDelete(&c);
    TalList::TalListDelete(&b);
    EXPECT_TRUE(head.nextLink == &head && head.prevLink == &head) << "because the list is empty again";
}

TEST_F(TalMemImplTest, ImplInit_FatalExitFollowsTheFirstCharacterOfTheProperty)
{
    const struct { const char* value; bool fatal; } cases[] = {
        {nullptr, false}, {"0", false}, {"1", true}, {"10", true}, {"01", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value ? c.value : "(unset)");
        TalHostClearProperties();
        if (c.value != nullptr) {
            TalHostSetProperty("persist.vendor.talMemfatal.exit", c.value);
        }
        LogCapture::Clear();
        TalMemImpl fresh;
        EXPECT_EQ(fresh.TalMemImplInit(), 0);
        EXPECT_EQ(fresh.FatalErrorExit(), c.fatal);
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "QvCamMem TalMemImplInit mFatalErrorExit enabled\n"),
                  c.fatal ? 1 : 0);
    }
}

TEST_F(TalMemImplTest, Init_RefusesBadInputAndFormatsOneFreeNodeOfTheWholeSize)
{
    if (sizeof(void*) == 4) { // the device's header sizes
        EXPECT_EQ(std::make_tuple(kTalNodeHeadSize, kTalPoolHeadSize, kTalPoolOverhead, kTalMinPoolSize),
                  std::make_tuple(280u, 528u, 808u, 1089u));
        EXPECT_EQ(offsetof(TalMemDynNode, nodeSize), 276u) << "because nodeSize is the word before the payload";
        EXPECT_EQ(NodeSizeFor(1), 4384u);
    }
    MappedRegion small(8192);
    EXPECT_EQ(impl.TalMemInit(0, kPoolSize), -1);
    EXPECT_EQ(impl.TalMemInit(small.addr(), kTalMinPoolSize - 1), -3);
    EXPECT_EQ(impl.TalMemInit(small.addr(), 0x80000000u + kTalPoolOverhead), -100) << "because 2^31 has no class";
    EXPECT_EQ(small.info()->magic, 0u) << "because a refused pool stays unformatted";
    ASSERT_EQ(impl.TalMemInit(small.addr(), kTalMinPoolSize), 0);
    EXPECT_EQ(small.info()->poolSize, kTalMinPoolSize);
    EXPECT_EQ(TalNodeSize(TalFirstNode(small.info())), kTalMinPoolSize - kTalPoolOverhead) << "281 on the device";
    EXPECT_EQ(impl.TalMemAlloc(small.addr(), 1), 0u);
    if (sizeof(void*) == 4) { // an unaligned end node is read natively on the target only
        EXPECT_EQ(impl.TalMemDumpInfo(small.addr()), 0) << "because a last node of 281 bytes is no corruption";
    }

    uint32_t whole = kPoolSize - kTalPoolOverhead;
    EXPECT_EQ(info()->ratioFactor, 819200u / 64u);
    EXPECT_EQ(info()->multiHead[TalDLinkMultiHead::HeadIndex(whole)].nextLink, &TalFirstNode(info())->listNode);
    EXPECT_STREQ(TalFirstNode(info())->moduleName, "default");
    EXPECT_POOL_SOUND(pool);
    LogCapture::Clear();
    ASSERT_EQ(impl.TalMemInit(pool, kPoolSize), 0);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_INFO, Fmt("after TalMemInit: usedSize:0,freeSize:%u,usedNodeNum:0,"
                  "freeNodeNum:1, maxFreeNodeSize: %u, useRatio: 0%%\n", whole, whole)), 1);
}

TEST_F(TalMemImplTest, Alloc_ReturnsPageAlignedAddressesResolvedWithOrWithoutMarker)
{
    uintptr_t a = Alloc(1);
    TalMemDynNode* first = TalFirstNode(info());
    ASSERT_EQ(NodeOf(a), first);
    EXPECT_EQ(a % 4096, 0u);
    EXPECT_EQ(*TalWordBefore(a), static_cast<uint32_t>(a - TalNodePayload(first)) | 0x40000000u);
    EXPECT_EQ(first->nodeSize, 0x80000000u | NodeSizeFor(1));
    EXPECT_EQ(info()->usedSize, NodeSizeFor(1));
    // A filler that makes the next node's payload start on a page: no marker.
    uintptr_t want = ((TalNodePayload(first) + 3 * 4096) & ~uintptr_t{4095}) - kTalNodeHeadSize;
    uint32_t filler = static_cast<uint32_t>(want - TalAddrOf(TalNextNode(first)));
    ASSERT_NE(Alloc(filler - kTalAllocSlack - kTalNodeHeadSize), 0u);
    uintptr_t b = Alloc(100);
    ASSERT_EQ(b, want + kTalNodeHeadSize);
    EXPECT_EQ(*TalWordBefore(b), TalNodeAt(want)->nodeSize) << "because no marker is written";
    int record = 0;
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, b), nullptr) << "because a fresh node has no record";
    EXPECT_EQ(impl.TalMemSetMcInfo(b, nullptr, "x", "y"), -1);
    EXPECT_TRUE(impl.TalMemGetMcInfo(0, b) == nullptr && impl.TalMemGetMcInfo(pool, 0) == nullptr);
    EXPECT_TRUE(LogCapture::Lines().empty()) << "because null arguments are refused silently";
    EXPECT_EQ(impl.TalMemSetMcInfo(b, &record, std::string(300, 'n').c_str(), nullptr), 0);
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, b), &record);
    EXPECT_EQ(Free(b), 0);
    EXPECT_EQ(NodeOf(b)->algoName + std::string(NodeOf(b)->moduleName), std::string(127, 'n') + "default")
        << "because names are cut to 127 characters, null is \"default\" and freeing keeps them";
}

TEST_F(TalMemImplTest, Alloc_FailuresLogTheirReasonAndLeaveThePoolUnchanged)
{
    MappedRegion raw(65536);
    const std::string kNull = "TalMemAlloc(101):poolAddress nullptr or size == 0\n\n";
    const struct { uintptr_t pool; uint32_t size; std::string message; } cases[] = {
        {0, 10, kNull}, {pool, 0, kNull}, {pool, 0x80000000u, "TalMemAlloc(102):get size used flag is true\n\n"},
        {raw.addr(), 10, "TalMemAlloc(103):control check magic error 0x0\n\n"},
        {pool, kPoolSize, Fmt("require node size 0x%x is  larger than maxFreeNodeSize 0x%x\n\n",
                              kPoolSize + kTalAllocSlack, kPoolSize - kTalPoolOverhead)}};
    std::vector<char> before(reinterpret_cast<char*>(pool), reinterpret_cast<char*>(pool) + 4096);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        LogCapture::Clear();
        EXPECT_EQ(impl.TalMemAlloc(c.pool, c.size), 0u);
        EXPECT_EQ(Errors(c.message), 1);
    }
    EXPECT_EQ(memcmp(before.data(), reinterpret_cast<void*>(pool), before.size()), 0);
    info()->poolCreate = 0;
    EXPECT_EQ(impl.TalMemAlloc(pool, 10) + Errors("TalMemAlloc(104):poolCreate not create\n\n"), 1u);
    info()->poolCreate = 1;

    info()->maxFreeNodeSize = 0x7FFFFFFF; // stale: the search itself must fail
    LogCapture::Clear();
    EXPECT_EQ(impl.TalMemAlloc(pool, 0x70000000u), 0u);
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 6u) << "because the status table comes between the dash lines";
    EXPECT_EQ(lines[0].message + lines[5].message, std::string(97, '-') + "\n" + std::string(97, '-') + "\n");
    EXPECT_EQ(lines[4].message, Fmt("[OsMemAllocWithCheck] No suitable free block, require free node size: 0x%x, "
                                    "from mempool: 0x%lx\n", 0x70000000u + kTalAllocSlack, TalMaskAddr(pool)));
}

// Merging is covered by the randomized sequence: the pool check refuses adjacent free nodes.
TEST_F(TalMemImplTest, Split_OnlyWhenTheRestHoldsAHeaderAndAWord)
{
    uint32_t request = 64 * 1024;
    uintptr_t a = Alloc(request);
    ASSERT_NE(Alloc(4096), 0u);
    uint32_t nodeSize = TalNodeSize(NodeOf(a));
    ASSERT_EQ(Free(a), 0);
    uint32_t minRest = (kTalSplitMinRest + kTalNodeAlign - 1) & ~(kTalNodeAlign - 1);
    uintptr_t whole = Alloc(request - (minRest - kTalNodeAlign));
    EXPECT_EQ(TalNodeSize(NodeOf(whole)), nodeSize) << "because a rest below a header and a word stays";
    ASSERT_EQ(Free(whole), 0);
    uintptr_t split = Alloc(request - minRest);
    EXPECT_EQ(TalNodeSize(TalNextNode(NodeOf(split))), minRest);
    EXPECT_EQ(info()->freeNodeNum, 2u);
}

TEST_F(TalMemImplTest, Find_TakesTheMostRecentlyFreedFitWithinAClass)
{
    uintptr_t small = Alloc(40 * 1024);
    ASSERT_NE(Alloc(4096), 0u);
    uintptr_t large = Alloc(56 * 1024);
    ASSERT_NE(Alloc(4096), 0u);
    ASSERT_EQ(TalDLinkMultiHead::HeadIndex(NodeSizeFor(40 << 10)),
              TalDLinkMultiHead::HeadIndex(NodeSizeFor(56 << 10)));
    ASSERT_EQ(Free(small) + Free(large), 0);
    EXPECT_EQ(Alloc(36 * 1024), large) << "because the most recently freed fit wins, not the best";
    EXPECT_EQ(Alloc(36 * 1024), small);
    ASSERT_EQ(Free(small), 0);
    EXPECT_GT(Alloc(44 * 1024), large) << "because a node of the class that is too small is passed over";
}

} // namespace
