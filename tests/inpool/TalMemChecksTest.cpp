#include "InpoolChecker.h"

#include <vector>

#include "talmem_properties.h"

namespace {

using namespace qv;
using talmem_test::Fmt;
using talmem_test::LogCapture;

// Three adjacent allocations; A, tagged, is the owner whose overrun hits B.
class TalMemChecksTest : public talmem_test::InpoolTest {
protected:
    void SetUp() override
    {
        InpoolTest::SetUp();
        a = Alloc(8192), b = Alloc(8192), c = Alloc(8192);
        ASSERT_EQ(impl.TalMemSetMcInfo(a, &record, "algoA", "modA"), 0);
        LogCapture::Clear();
    }
    uintptr_t a = 0, b = 0, c = 0;
    int record = 0;
};

TEST_F(TalMemChecksTest, BadInput_EachAddressGetsItsMessageAndCode)
{
    talmem_test::MappedRegion raw(65536);
    ASSERT_EQ(Free(c), 0);
    const char* kRange = "OsMemIsNodeValid(201): OS_MEM_MIDDLE_ADDR check error\n";
    const char* kMagic = "OsMemIsNodeValid(202): MAGIC_CHECK error\n";
    const char* kNull = "TalMemFree(141):mem free pool address NUll or node null\n\n";
    const struct { uintptr_t pool, address; int code; const char* message; } cases[] = {
        {0, a, -1, kNull}, {pool, 0, -1, kNull},
        {raw.addr(), raw.addr() + 8192, -2, "TalMemFree(142):control check magic error 0x0\n\n"},
        {pool, a + 4096, -100, kMagic}, {pool, pool + kPoolSize + 4096, -100, kRange},
        {pool, TalAddrOf(NodeOf(b)->algoName) + 8, -100, kMagic}, // inside a header
        {pool, b + 1, -100, kMagic},
        {pool, c, -100, "OsMemCheckUsedNode(211): Node not in used\n"}};
    for (const auto& k : cases) {
        SCOPED_TRACE(std::to_string(&k - cases) + ": " + k.message);
        LogCapture::Clear();
        EXPECT_EQ(impl.TalMemFree(k.pool, k.address), k.code);
        EXPECT_EQ(Errors(k.message), 1);
    }
    ASSERT_EQ(Free(b), 0);
    EXPECT_EQ(impl.TalMemSetMcInfo(b, &record, "x", "y"), -100);
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, b), nullptr);
    EXPECT_EQ(Errors("TalMemSetMcInfo(153):check free error\n"), 1);
    EXPECT_EQ(Errors("TalMemGetMcInfo(164):check free error\n"), 1);
    ASSERT_EQ(Free(a), 0);
    LogCapture::Clear();
    EXPECT_EQ(Free(b), -100) << "because b merged into a and its header was wiped";
    EXPECT_EQ(impl.TalMemSetMcInfo(b, &record, "x", "y"), -2);
    EXPECT_EQ(Errors(kMagic), 1);
    EXPECT_EQ(Errors("TalMemSetMcInfo(152):MAGIC_CHECK error 0x0\n\n"), 1);
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, pool + kTalNodeHeadSize), nullptr);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_WARN, Fmt("TalMemGetMcInfo(162):pool addr: 0x%lx, ptr addr: 0x%lx "
                  "invalid\n\n", TalMaskAddr(pool), TalMaskAddr(pool + kTalNodeHeadSize))), 1);
    EXPECT_EQ(info()->fatalInfo.fatalAddr, 0u) << "because bad addresses are no corruption";
    info()->poolCreate = 0;
    EXPECT_EQ(impl.TalMemFree(pool, a), -100);
    EXPECT_EQ(Errors("TalMemFree(143):poolCreate not create\n\n"), 1);
}

TEST_F(TalMemChecksTest, Status_CountsTheEndNodeAndOneMoreAndPrintsThreeLines)
{
    // The end node counts as used, and the used count is one more than the used nodes walked.
    uint32_t used = kTalNodeHeadSize + 3 * NodeSizeFor(8192);
    uint32_t free = kPoolSize - kTalPoolOverhead - used + kTalNodeHeadSize;
    EXPECT_EQ(impl.TalMemDumpInfo(pool), 0);
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message, "pool addr    pool size    used size     free size    max free node size  "
                                "used node num   free node num\n\n");
    EXPECT_EQ(lines[1].message, "---------    --------     -------       --------     --------------      "
                                "-------------   ------------\n\n");
    EXPECT_EQ(lines[2].message, Fmt("0x%-8lx   0x%-8x   0x%-8x    0x%-8x   0x%-16x   0x%-13x    0x%-13x\n",
                                    TalMaskAddr(pool), kPoolSize, used, free, free, 5u, 1u));
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_INFO);
}

TEST_F(TalMemChecksTest, CheckUsedNode_NeighboursMustAgreeExceptBeforeTheFirstNode)
{
    TalMemDynNode *first = NodeOf(a), *nodeB = NodeOf(b), *nodeC = NodeOf(c), *end = TalEndNode(info());
    first->prevNode = TalNodeAt(pool + 64);
    EXPECT_EQ(impl.OsMemCheckUsedNode(info(), first), 0) << "because the first node's prevNode is not read";
    nodeC->prevNode = first;
    EXPECT_EQ(impl.OsMemCheckUsedNode(info(), nodeB), -100);
    EXPECT_EQ(Errors(Fmt("OsMemCheckUsedNode(212): other error  node 0x%lx nextNode->prevNode 0x%lx\n",
                         TalMaskAddr(nodeB), TalMaskAddr(first))), 1);
    nodeC->prevNode = nodeB;
    nodeB->prevNode = nodeC;
    EXPECT_EQ(impl.OsMemCheckUsedNode(info(), nodeB), -100);
    EXPECT_EQ(Errors(Fmt("OsMemCheckUsedNode(213): other error  node 0x%lx prevNode->nextnode 0x%lx\n",
                         TalMaskAddr(nodeB), TalMaskAddr(TalNextNode(nodeC)))), 1);
    uintptr_t lo = pool, hi = pool + kPoolSize;
    EXPECT_EQ(TalMemImpl::OsMemIsNodeValid(end, first, end, lo, hi), 1) << "because the end node is in range";
    TalMemDynNode* tail = TalNextNode(nodeC);
    tail->listNode.prevLink = reinterpret_cast<TalDlList*>(hi);
    EXPECT_EQ(TalMemImpl::OsMemIsNodeValid(tail, first, end, lo, hi), 0) << "because the pool end is open";
    nodeB->listNode.prevLink = nullptr;
    EXPECT_EQ(TalMemImpl::OsMemIsNodeValid(nodeB, first, end, lo, hi), 0) << "because the used mark is gone";
    EXPECT_EQ(Errors("OsMemIsNodeValid(203): OS_MEM_MIDDLE_ADDR_OPEN_END check error\n"), 1);
    EXPECT_EQ(Errors("OsMemIsNodeValid(204): MAGIC_CHECK error\n"), 1);
}

TEST_F(TalMemChecksTest, Overrun_FreeFailsTheFirstCorruptionIsRecordedOnceAndThePoolKeepsAnswering)
{
    std::vector<char> saved(reinterpret_cast<char*>(NodeOf(b)), reinterpret_cast<char*>(NodeOf(b)) + 64);
    Trample(NodeOf(b));
    EXPECT_EQ(Free(b), -100);
    EXPECT_EQ(info()->fatalInfo.fatalAddr, a) << "because A's buffer precedes the broken header";
    std::string fatal = Fmt("fatalAddr 0x%lx algoName algoA moduleName modA \n", TalMaskAddr(a));
    EXPECT_EQ(Errors(fatal), 1);
    EXPECT_EQ(Errors(Fmt("magicWord error 0x5a5a5a5a node 0x%lx pAddr 0x%lx nodeSize %d\n\n",
                         TalMaskAddr(NodeOf(b)), TalMaskAddr(b), static_cast<int>(TalNodeSize(NodeOf(b))))), 1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, Fmt("0x%lx\t\t%8d\t\t0\t\t\n", TalMaskAddr(NodeOf(a)),
                                                       static_cast<int>(NodeSizeFor(8192)))), 1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "node_addr\t\tnode_size\t\tfree\t\t\n"), 1)
        << "because the dump stops at the broken node";
    EXPECT_EQ(Free(a), -100) << "because A's successor is broken";
    EXPECT_EQ(Free(Alloc(8192)), 0) << "because the free lists are intact";
    EXPECT_EQ(impl.TalMemGetUsedNum(pool), 3);

    memcpy(NodeOf(b), saved.data(), saved.size());
    ASSERT_EQ(impl.TalMemSetMcInfo(b, &record, "algoB", "modB"), 0);
    Trample(NodeOf(c));
    LogCapture::Clear();
    EXPECT_EQ(Free(c), -100);
    EXPECT_EQ(Errors(fatal), 1) << "because a second corruption keeps the first record";
    impl.TalMemCheckFatalAddr(pool);
    EXPECT_EQ(Errors("TalMemCheckFatalAddr " + fatal), 1);

    Trample(TalEndNode(info()), kTalNodeHeadSize);
    LogCapture::Clear();
    TalMemPoolStatus status{};
    EXPECT_EQ(impl.OsMemInfoGet(info(), &status), -2);
    EXPECT_EQ(impl.TalMemGetUsedNum(pool), 0);
    EXPECT_EQ(impl.TalMemGetMaxFreeSize(pool), 0u);
    EXPECT_EQ(Errors(Fmt("wrong mem pool addr: 0x%lx, line:222\n\n", TalMaskAddr(pool))), 1);
    EXPECT_EQ(Errors("TalMemGetUsedNum(171): MAGIC_CHECK error\n"), 1);
    EXPECT_EQ(Errors("TalMemGetMaxFreeSize(181): MAGIC_CHECK error\n"), 1);
}

TEST_F(TalMemChecksTest, NodeDump_BrokenFirstNodeRecordsNothingAndABrokenRecordStopsTheDump)
{
    EXPECT_EQ(impl.OsMemNodeDump(nullptr), -1);
    Trample(TalFirstNode(info()));
    EXPECT_EQ(impl.OsMemNodeDump(info()), -2);
    impl.TalMemCheckFatalAddr(pool);
    EXPECT_EQ(LogCapture::CountContaining("TalMemCheckFatalAddr fatalAddr"), 0) << "because nothing was recorded";
    info()->fatalInfo.magic = 0x1234;
    EXPECT_EQ(impl.OsMemNodeDump(info()), -2);
    impl.TalMemCheckFatalAddr(pool);
    for (const char* line : {"OsMemNodeDump(231):wrong mem pool addr: 0x0\n\n",
                             "fatalAddr 0x0 algoName  moduleName  \n",
                             "OsMemNodeDump(232):control check magic error 0x1234\n\n",
                             "TalMemCheckFatalAddr(251):control MAGIC_CHECK error 0x1234\n\n"}) {
        EXPECT_EQ(Errors(line), 1) << line;
    }
}

using TalMemChecksDeathTest = TalMemChecksTest;

TEST_F(TalMemChecksDeathTest, Overrun_AbortsTheProcessWhenFatalExitIsSet)
{
    TalHostSetProperty("persist.vendor.talMemfatal.exit", "1");
    ASSERT_EQ(impl.TalMemImplInit(), 0);
    Trample(NodeOf(b));
    EXPECT_DEATH(Free(b), "") << "because a confirmed corruption ends the process";
}

// The straightforward refresh: for each head, walk every list from it to the
// last; a broken node logs, dumps and yields 0 for that head.
uint32_t ReferenceMaxFree(TalMemImpl& impl, TalMemPoolInfo* pool)
{
    uint32_t best = 0;
    for (uint32_t h = 0; h < kTalMultiHeadNum; ++h) {
        uint32_t result = 0;
        for (uint32_t i = h; i < kTalMultiHeadNum && result != UINT32_MAX; ++i) {
            TalDlList* head = &pool->multiHead[i];
            for (TalDlList* link = head->nextLink; link != head; link = link->nextLink) {
                if (TalNodeOfLink(link)->magic != kTalMemMagic) {
                    TAL_LOGE("%s(%d): MAGIC_CHECK error\n", "OsMemGetMaxFreeNodeSize", 301);
                    impl.OsMemNodeDump(pool);
                    result = UINT32_MAX;
                    break;
                }
                result = std::max(result, TalNodeOfLink(link)->nodeSize);
            }
        }
        best = std::max(best, result == UINT32_MAX ? 0 : result);
    }
    return best;
}

TEST_F(TalMemChecksTest, MaxFreeRefresh_MatchesThePerHeadWalkOnHealthyAndBrokenLists)
{
    std::vector<TalMemDynNode*> nodes; // free nodes of doubling sizes, each fenced by a used one
    for (uint32_t size = 4096; size <= (8u << 20); size *= 2) {
        nodes.push_back(NodeOf(Alloc(size)));
        c = Alloc(4096);
    }
    for (TalMemDynNode* node : nodes) {
        ASSERT_EQ(Free(TalNodeHandedOut(node)), 0);
    }
    TalMemDynNode* tail = TalNextNode(NodeOf(c));
    auto messages = [] {
        std::string out;
        for (const auto& line : LogCapture::Lines()) {
            out += std::to_string(line.priority) + " " + line.message;
        }
        return out;
    };
    auto compare = [&](const char* label, uint32_t expectMax, TalMemDynNode* topBroken) {
        SCOPED_TRACE(label);
        impl.OsMemNodeDump(info()); // records the corruption before both runs
        LogCapture::Clear();
        impl.OsMemMaxFreeNodeSizeUpdate(info());
        auto fastLines = messages();
        LogCapture::Clear();
        EXPECT_EQ(ReferenceMaxFree(impl, info()), expectMax);
        EXPECT_EQ(info()->maxFreeNodeSize, expectMax);
        EXPECT_EQ(fastLines, messages());
        uint32_t heads = topBroken ? TalDLinkMultiHead::HeadIndex(TalNodeSize(topBroken)) + 1 : 0;
        EXPECT_EQ(Errors("OsMemGetMaxFreeNodeSize(301): MAGIC_CHECK error\n"), static_cast<int>(heads));
    };
    compare("healthy", TalNodeSize(tail), nullptr);
    sound = false;
    nodes[4]->magic = 0xDEAD;
    compare("one broken in a middle class", TalNodeSize(tail), nodes[4]);
    nodes[1]->magic = tail->magic = 0xBEEF;
    compare("broken in three classes, the top one included", 0, tail);
    nodes[1]->magic = nodes[4]->magic = tail->magic = kTalMemMagic;
    nodes.back()->magic = 0xAB;
    compare("the second largest broken", TalNodeSize(tail), nodes.back());
}

} // namespace
