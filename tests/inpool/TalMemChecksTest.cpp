#include "InpoolFixture.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "talmem_properties.h"

namespace {

using namespace qv;
using talmem_test::InpoolTest;
using talmem_test::LogCapture;
using talmem_test::MappedRegion;

class TalMemChecksTest : public InpoolTest {
protected:
    // Three fenced allocations A, B, C; A tagged as the future culprit.
    void MakeThree()
    {
        a = Alloc(8192);
        b = Alloc(8192);
        c = Alloc(8192);
        ASSERT_TRUE(a && b && c);
        ASSERT_EQ(impl.TalMemSetMcInfo(a, &recordA, "algoA", "modA"), 0);
    }
    // What a payload overrun of A's buffer into B's header looks like.
    void OverrunAIntoB() { Trample(NodeOf(b)); }

    static std::string Fmt(const char* format, ...) __attribute__((format(printf, 1, 2)))
    {
        char buf[256];
        va_list args;
        va_start(args, format);
        vsnprintf(buf, sizeof(buf), format, args);
        va_end(args);
        return buf;
    }

    uintptr_t a = 0, b = 0, c = 0;
    int recordA = 0;
};

TEST_F(TalMemChecksTest, InfoGet_FreshPoolCountsTheEndNodeAndOneMore)
{
    TalMemPoolStatus status{};
    ASSERT_EQ(impl.OsMemInfoGet(info(), &status), 0);
    EXPECT_EQ(status.usedSize, kTalNodeHeadSize) << "because the end node counts as used";
    EXPECT_EQ(status.freeSize, kPoolSize - kTalPoolOverhead);
    EXPECT_EQ(status.maxFreeNodeSize, kPoolSize - kTalPoolOverhead);
    EXPECT_EQ(status.usedNodeNum, 2u);
    EXPECT_EQ(status.freeNodeNum, 1u);

    MakeThree();
    ASSERT_EQ(impl.OsMemInfoGet(info(), &status), 0);
    EXPECT_EQ(status.usedNodeNum, 5u);
    EXPECT_EQ(status.usedSize, kTalNodeHeadSize + 3 * NodeSizeFor(8192));

    LogCapture::Clear();
    EXPECT_EQ(impl.TalMemDumpInfo(pool), 0);
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message, "pool addr    pool size    used size     free size    max free node size  "
                                "used node num   free node num\n\n");
    EXPECT_EQ(lines[1].message, "---------    --------     -------       --------     --------------      "
                                "-------------   ------------\n\n");
    EXPECT_EQ(lines[2].message,
              Fmt("0x%-8lx   0x%-8x   0x%-8x    0x%-8x   0x%-16x   0x%-13x    0x%-13x\n",
                  TalMaskAddr(pool), kPoolSize, status.usedSize, status.freeSize,
                  status.maxFreeNodeSize, 5u, 1u));
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_INFO);
}

TEST_F(TalMemChecksTest, InfoGet_RefusesForeignPoolsNullStatusAndBrokenEndNode)
{
    TalMemPoolStatus status{};
    MappedRegion raw(65536);
    EXPECT_EQ(impl.OsMemInfoGet(raw.info(), &status), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, Fmt("wrong mem pool addr:0x%lx, line:221\n", TalMaskAddr(raw.addr()))));
    EXPECT_EQ(impl.TalMemDumpInfo(raw.addr()), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "TalMemInfoGet fail\n"));
    EXPECT_EQ(impl.TalMemDumpInfo(0), -1);
    EXPECT_EQ(impl.OsMemInfoGet(info(), nullptr), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "can't use NULL addr to save info\n\n"));

    Trample(TalEndNode(info()));
    LogCapture::Clear();
    EXPECT_EQ(impl.OsMemInfoGet(info(), &status), -2);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, Fmt("wrong mem pool addr: 0x%lx, line:222\n\n", TalMaskAddr(pool))));
}

TEST_F(TalMemChecksTest, CheckUsedNode_FirstNodeNeedsNoPredecessorButOthersMustAgree)
{
    MakeThree();
    TalMemDynNode* first = NodeOf(a);
    ASSERT_EQ(first, TalFirstNode(info()));
    first->prevNode = TalNodeAt(pool + 64);
    EXPECT_EQ(impl.OsMemCheckUsedNode(info(), first), 0) << "because the first node's prevNode is not read";

    TalMemDynNode* nodeB = NodeOf(b);
    TalMemDynNode* nodeC = NodeOf(c);
    nodeC->prevNode = first;
    EXPECT_EQ(impl.OsMemCheckUsedNode(info(), nodeB), -100);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       Fmt("OsMemCheckUsedNode(212): other error  node 0x%lx nextNode->prevNode 0x%lx\n",
                           TalMaskAddr(nodeB), TalMaskAddr(first))));
    nodeC->prevNode = nodeB;

    nodeB->prevNode = nodeC;
    EXPECT_EQ(impl.OsMemCheckUsedNode(info(), nodeB), -100);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       Fmt("OsMemCheckUsedNode(213): other error  node 0x%lx prevNode->nextnode 0x%lx\n",
                           TalMaskAddr(nodeB), TalMaskAddr(TalNextNode(nodeC)))));
    nodeB->prevNode = first;
    EXPECT_EQ(impl.OsMemCheckUsedNode(info(), nodeB), 0);
}

TEST_F(TalMemChecksTest, IsNodeValid_ChecksRangeMagicAndTheLinkOfEachState)
{
    MakeThree();
    TalMemDynNode* first = TalFirstNode(info());
    TalMemDynNode* end = TalEndNode(info());
    uintptr_t lo = pool;
    uintptr_t hi = pool + kPoolSize;
    TalMemDynNode* tail = TalNextNode(NodeOf(c));
    ASSERT_TRUE(TalNodeIsFree(tail));
    EXPECT_EQ(TalMemImpl::OsMemIsNodeValid(tail, first, end, lo, hi), 1);
    EXPECT_EQ(TalMemImpl::OsMemIsNodeValid(end, first, end, lo, hi), 1) << "because the end is inclusive";
    TalDlList* saved = tail->listNode.prevLink;
    tail->listNode.prevLink = reinterpret_cast<TalDlList*>(hi);
    EXPECT_EQ(TalMemImpl::OsMemIsNodeValid(tail, first, end, lo, hi), 0)
        << "because the pool end is exclusive";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "OsMemIsNodeValid(203): OS_MEM_MIDDLE_ADDR_OPEN_END check error\n"));
    tail->listNode.prevLink = saved;

    NodeOf(b)->listNode.prevLink = nullptr;
    EXPECT_EQ(TalMemImpl::OsMemIsNodeValid(NodeOf(b), first, end, lo, hi), 0);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "OsMemIsNodeValid(204): MAGIC_CHECK error\n"))
        << "because a used node without its used mark is refused";
    EXPECT_EQ(TalMemImpl::OsMemIsNodeValid(TalNodeAt(TalAddrOf(end) + kTalNodeHeadSize), first, end, lo, hi), 0);
}

TEST_F(TalMemChecksTest, Overrun_FreeFailsRecordsTheCulpritOnceAndThePoolKeepsAnswering)
{
    MakeThree();
    OverrunAIntoB();
    EXPECT_EQ(Free(b), -100);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "OsMemIsNodeValid(202): MAGIC_CHECK error\n"));
    EXPECT_EQ(info()->fatalInfo.fatalAddr, a) << "because A's buffer precedes the broken header";
    EXPECT_STREQ(info()->fatalInfo.algoName, "algoA");
    EXPECT_STREQ(info()->fatalInfo.moduleName, "modA");
    std::string fatalLine = Fmt("fatalAddr 0x%lx algoName algoA moduleName modA \n", TalMaskAddr(a));
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, fatalLine), 1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR,
                                Fmt("magicWord error 0x5a5a5a5a node 0x%lx pAddr 0x%lx nodeSize %d\n\n",
                                    TalMaskAddr(NodeOf(b)), TalMaskAddr(b),
                                    static_cast<int>(TalNodeSize(NodeOf(b))))),
              1);
    // The dump lists the nodes up to the broken one: A only.
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "node_addr\t\tnode_size\t\tfree\t\t\n"), 1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG,
                                Fmt("0x%lx\t\t%8d\t\t%d\t\t\n", TalMaskAddr(NodeOf(a)),
                                    static_cast<int>(NodeSizeFor(8192)), 0)),
              1);

    EXPECT_EQ(Free(a), -100) << "because A's successor is broken";
    EXPECT_EQ(Free(c), -100) << "because C's predecessor is broken";
    uintptr_t d = Alloc(8192);
    EXPECT_NE(d, 0u) << "because the free lists are intact";
    EXPECT_EQ(Free(d), 0);
    EXPECT_EQ(impl.TalMemGetUsedNum(pool), 3);

    LogCapture::Clear();
    impl.TalMemCheckFatalAddr(pool);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR,
                                Fmt("TalMemCheckFatalAddr fatalAddr 0x%lx algoName algoA moduleName modA \n",
                                    TalMaskAddr(a))),
              1);
}

TEST_F(TalMemChecksTest, Overrun_ASecondCorruptionKeepsTheFirstRecord)
{
    MakeThree();
    std::vector<char> saved(reinterpret_cast<char*>(NodeOf(b)),
                            reinterpret_cast<char*>(NodeOf(b)) + kTalNodeHeadSize);
    OverrunAIntoB();
    EXPECT_EQ(Free(b), -100);
    memcpy(NodeOf(b), saved.data(), saved.size()); // B repaired

    int recordB = 0;
    ASSERT_EQ(impl.TalMemSetMcInfo(b, &recordB, "algoB", "modB"), 0);
    Trample(NodeOf(c));
    LogCapture::Clear();
    EXPECT_EQ(Free(c), -100);
    EXPECT_EQ(info()->fatalInfo.fatalAddr, a);
    EXPECT_STREQ(info()->fatalInfo.algoName, "algoA") << "because only the first corruption is kept";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, Fmt("fatalAddr 0x%lx algoName algoA moduleName modA \n", TalMaskAddr(a))));
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "node_addr\t\tnode_size\t\tfree\t\t\n"), 2)
        << "because the walk now passes A and B before C";
}

TEST_F(TalMemChecksTest, NodeDump_BrokenFirstNodeRecordsNoAddressAndBrokenRecordStops)
{
    MakeThree();
    EXPECT_EQ(impl.OsMemNodeDump(nullptr), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "OsMemNodeDump(231):wrong mem pool addr: 0x0\n\n"));
    EXPECT_EQ(impl.OsMemNodeDump(info()), 0) << "because a healthy pool dumps without complaint";
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "node_addr\t\tnode_size\t\tfree\t\t\n"), 5);

    Trample(TalFirstNode(info()));
    LogCapture::Clear();
    EXPECT_EQ(impl.OsMemNodeDump(info()), -2);
    EXPECT_EQ(info()->fatalInfo.fatalAddr, 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "fatalAddr 0x0 algoName  moduleName  \n"));

    impl.TalMemCheckFatalAddr(pool);
    EXPECT_EQ(LogCapture::CountContaining("TalMemCheckFatalAddr fatalAddr"), 0)
        << "because nothing was recorded";
    info()->fatalInfo.magic = 0x1234;
    LogCapture::Clear();
    EXPECT_EQ(impl.OsMemNodeDump(info()), -2);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "OsMemNodeDump(232):control check magic error 0x1234\n\n"));
    impl.TalMemCheckFatalAddr(pool);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "TalMemCheckFatalAddr(251):control MAGIC_CHECK error 0x1234\n\n"));
}

TEST_F(TalMemChecksTest, NodeDump_ASizeLeadingOutOfThePoolIsACorruptionNotACrash)
{
    MakeThree();
    NodeOf(b)->nodeSize = 0x80000000u | 0x7FFFFFF0u;
    TalMemPoolStatus status{};
    EXPECT_EQ(impl.OsMemInfoGet(info(), &status), -2);
    EXPECT_EQ(info()->fatalInfo.fatalAddr, a);
    EXPECT_EQ(Free(c), -100);
}

using TalMemChecksDeathTest = TalMemChecksTest;

TEST_F(TalMemChecksDeathTest, Overrun_AbortsWhenFatalExitIsSet)
{
    TalHostSetProperty("persist.vendor.talMemfatal.exit", "1");
    ASSERT_EQ(impl.TalMemImplInit(), 0);
    MakeThree();
    OverrunAIntoB();
    EXPECT_DEATH(Free(b), "") << "because a confirmed corruption ends the process";
}

// The straightforward refresh: for each head, walk every list from it to
// the last; a broken node logs, dumps and yields 0 for that head.
uint32_t ReferenceMaxFree(TalMemImpl& impl, TalMemPoolInfo* pool)
{
    uint32_t best = 0;
    for (uint32_t h = 0; h < kTalMultiHeadNum; ++h) {
        uint32_t result = 0;
        for (uint32_t i = h; i < kTalMultiHeadNum; ++i) {
            TalDlList* head = &pool->multiHead[i];
            bool broken = false;
            for (TalDlList* link = head->nextLink; link != head; link = link->nextLink) {
                TalMemDynNode* node = TalNodeOfLink(link);
                if (node->magic != kTalMemMagic) {
                    TAL_LOGE("%s(%d): MAGIC_CHECK error\n", "OsMemGetMaxFreeNodeSize", 301);
                    impl.OsMemNodeDump(pool);
                    broken = true;
                    break;
                }
                result = node->nodeSize > result ? node->nodeSize : result;
            }
            if (broken) {
                result = 0;
                break;
            }
        }
        best = result > best ? result : best;
    }
    return best;
}

std::vector<std::string> Messages()
{
    std::vector<std::string> out;
    for (const auto& line : LogCapture::Lines()) {
        out.push_back(std::to_string(line.priority) + " " + line.message);
    }
    return out;
}

TEST_F(TalMemChecksTest, MaxFreeRefresh_MatchesThePerHeadWalkOnHealthyAndBrokenLists)
{
    // Free nodes in many classes: fenced allocations of doubling sizes, then freed.
    std::vector<uintptr_t> freed;
    uintptr_t guard = 0;
    for (uint32_t size = 4096; size <= (8u << 20); size *= 2) {
        freed.push_back(Alloc(size));
        guard = Alloc(4096);
        ASSERT_TRUE(freed.back() && guard);
    }
    std::vector<TalMemDynNode*> nodes;
    for (uintptr_t x : freed) {
        nodes.push_back(NodeOf(x));
        ASSERT_EQ(Free(x), 0);
    }
    EXPECT_POOL_SOUND(pool);
    TalMemDynNode* tail = TalNextNode(NodeOf(guard));

    auto compare = [&](const char* label) {
        SCOPED_TRACE(label);
        impl.OsMemNodeDump(info()); // records a corruption before both runs
        LogCapture::Clear();
        impl.OsMemMaxFreeNodeSizeUpdate(info());
        uint32_t fast = info()->maxFreeNodeSize;
        auto fastLines = Messages();
        LogCapture::Clear();
        uint32_t slow = ReferenceMaxFree(impl, info());
        EXPECT_EQ(fast, slow);
        EXPECT_EQ(fastLines, Messages());
        return std::make_pair(fast, LogCapture::Count(ANDROID_LOG_ERROR,
                                                      "OsMemGetMaxFreeNodeSize(301): MAGIC_CHECK error\n"));
    };
    uint32_t tailClass = TalDLinkMultiHead::HeadIndex(TalNodeSize(tail));
    EXPECT_EQ(compare("healthy"), std::make_pair(TalNodeSize(tail), 0));

    TalMemDynNode* mid = nodes[4];
    uint32_t midClass = TalDLinkMultiHead::HeadIndex(TalNodeSize(mid));
    mid->magic = 0xDEAD;
    EXPECT_EQ(compare("one broken in a middle class"),
              std::make_pair(TalNodeSize(tail), static_cast<int>(midClass) + 1));

    nodes[1]->magic = 0xBEEF;
    tail->magic = 0xF00D;
    EXPECT_EQ(compare("broken in three classes, the top one included"),
              std::make_pair(0u, static_cast<int>(tailClass) + 1));

    mid->magic = kTalMemMagic;
    nodes[1]->magic = kTalMemMagic;
    tail->magic = kTalMemMagic;
    nodes.back()->magic = 0xAB;
    uint32_t topFreedClass = TalDLinkMultiHead::HeadIndex(TalNodeSize(nodes.back()));
    ASSERT_LT(topFreedClass, tailClass);
    EXPECT_EQ(compare("the second largest broken"),
              std::make_pair(TalNodeSize(tail), static_cast<int>(topFreedClass) + 1));
}

} // namespace
