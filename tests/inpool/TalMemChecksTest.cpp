#include "InpoolTest.h"

#include <utility>
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
    }
    uintptr_t a = 0, b = 0, c = 0;
    int record = 0;
};

TEST_F(TalMemChecksTest, BadInput_GetsItsCodeAndItsOneLineAndIsNoCorruption)
{
    talmem_test::MappedRegion raw(65536), half(65536); // never formatted; magic only
    uintptr_t u = raw.addr(), h = half.addr();
    half.info()->magic = kTalMemMagic;
    ASSERT_EQ(Free(c), 0);
    auto usedCheck = [&](TalMemDynNode** link, TalMemDynNode* wrong) { // B checked with one link wrong
        TalMemDynNode* kept = std::exchange(*link, wrong);
        int result = impl.OsMemCheckUsedNode(info(), NodeOf(b));
        return *link = kept, result;
    };
    struct Case { std::function<long()> call; long code; std::string message; int priority = ANDROID_LOG_ERROR; };
    const Case cases[] = {
        {[&] { return impl.TalMemInit(0, kPoolSize); }, -1, ""},
        {[&] { return impl.TalMemInit(u, kTalMinPoolSize - 1); }, -3, ""},
        {[&] { return impl.TalMemInit(u, 0x80000000u + kTalPoolOverhead); }, -100, ""}, // 2^31 has no class
        {[&] { return impl.OsMemNodeDump(nullptr); }, -1, "OsMemNodeDump(231):wrong mem pool addr: 0x0\n\n"},
        {[&] { return impl.TalMemAlloc(0, 10); }, 0, "TalMemAlloc(101):poolAddress nullptr or size == 0\n\n"},
        {[&] { return Alloc(0); }, 0, "TalMemAlloc(101):poolAddress nullptr or size == 0\n\n"},
        {[&] { return Alloc(0x80000000u); }, 0, "TalMemAlloc(102):get size used flag is true\n\n"},
        {[&] { return Alloc(kPoolSize); }, 0, Fmt("require node size 0x%x is  larger than maxFreeNodeSize 0x%x\n\n",
                kPoolSize + kTalAllocSlack, kPoolSize - kTalPoolOverhead - 2 * NodeSizeFor(8192))},
        {[&] { return impl.TalMemAlloc(u, 10); }, 0, "TalMemAlloc(103):control check magic error 0x0\n\n"},
        {[&] { return impl.TalMemAlloc(h, 10); }, 0, "TalMemAlloc(104):poolCreate not create\n\n"},
        {[&] { return impl.TalMemFree(0, a); }, -1, "TalMemFree(141):mem free pool address NUll or node null\n\n"},
        {[&] { return Free(0); }, -1, "TalMemFree(141):mem free pool address NUll or node null\n\n"},
        {[&] { return impl.TalMemFree(u, u + 8192); }, -2, "TalMemFree(142):control check magic error 0x0\n\n"},
        {[&] { return impl.TalMemFree(h, h + 8192); }, -100, "TalMemFree(143):poolCreate not create\n\n"},
        {[&] { return Free(a + 4096); }, -100, "OsMemIsNodeValid(202): MAGIC_CHECK error\n"},
        {[&] { return Free(u + 8192); }, -100, "OsMemIsNodeValid(201): OS_MEM_MIDDLE_ADDR check error\n"},
        {[&] { return Free(TalAddrOf(NodeOf(b)->algoName) + 8); }, -100, "OsMemIsNodeValid(202): MAGIC_CHECK error\n"},
        {[&] { return Free(c); }, -100, "OsMemCheckUsedNode(211): Node not in used\n"},
        {[&] { return usedCheck(&NodeOf(c)->prevNode, NodeOf(a)); }, -100, Fmt("OsMemCheckUsedNode(212): other error  "
         "node 0x%lx nextNode->prevNode 0x%lx\n", TalMaskAddr(NodeOf(b)), TalMaskAddr(NodeOf(a)))},
        {[&] { return usedCheck(&NodeOf(b)->prevNode, NodeOf(c)); }, -100, Fmt("OsMemCheckUsedNode(213): other error  "
         "node 0x%lx prevNode->nextnode 0x%lx\n", TalMaskAddr(NodeOf(b)), TalMaskAddr(TalEndNode(info())))},
        {[&] { return impl.TalMemSetMcInfo(b, nullptr, "x", "y"); }, -1, ""},
        {[&] { return impl.TalMemSetMcInfo(c, &record, "x", "y"); }, -100, "TalMemSetMcInfo(153):check free error\n"},
        {[&] { return TalAddrOf(impl.TalMemGetMcInfo(0, a)) + TalAddrOf(impl.TalMemGetMcInfo(pool, 0)); }, 0, ""},
        {[&] { return TalAddrOf(impl.TalMemGetMcInfo(pool, c)); }, 0, "TalMemGetMcInfo(164):check free error\n"},
        {[&] { return TalAddrOf(impl.TalMemGetMcInfo(pool, pool + 64)); }, 0, Fmt("TalMemGetMcInfo(162):pool addr: "
         "0x%lx, ptr addr: 0x%lx invalid\n\n", TalMaskAddr(pool), TalMaskAddr(pool + 64)), ANDROID_LOG_WARN},
        {[&] { return Free(b) + impl.TalMemSetMcInfo(c, &record, "", ""); }, -2, "TalMemSetMcInfo(152):MAGIC_CHECK "
         "error 0x0\n\n"}, // c merged into b: its header is wiped
        {[&] { return Trample(TalEndNode(info()), kTalNodeHeadSize), impl.TalMemGetUsedNum(pool); }, 0,
         "TalMemGetUsedNum(171): MAGIC_CHECK error\n"},
        {[&] { return impl.TalMemGetMaxFreeSize(pool); }, 0, "TalMemGetMaxFreeSize(181): MAGIC_CHECK error\n"},
        {[&] { return info()->fatalInfo.magic = 0x1234, impl.TalMemCheckFatalAddr(pool), 0; }, 0,
         "TalMemCheckFatalAddr(251):control MAGIC_CHECK error 0x1234\n\n"}};
    for (const auto& k : cases) {
        SCOPED_TRACE(std::to_string(&k - cases) + ": " + k.message);
        LogCapture::Clear();
        EXPECT_EQ(k.call(), k.code);
        EXPECT_TRUE(k.message.empty() ? LogCapture::Lines().empty() : LogCapture::Count(k.priority, k.message) == 1);
        EXPECT_EQ(sound ? info()->fatalInfo.fatalAddr : 0, 0u) << "because bad input is no corruption";
    }
}

TEST_F(TalMemChecksTest, PoolCheck_NamesEachBrokenInvariant)
{
    TalMemDynNode* tail = TalNextNode(NodeOf(c));
    auto at = [&](const void* p) { return " at +" + std::to_string(TalAddrOf(p) - pool) + "\n"; };
    const struct { std::function<void()> breakIt; std::string failures; } cases[] = {
        {[&] { NodeOf(c)->prevNode = NodeOf(a); }, "wrong prevNode" + at(NodeOf(c))},
        {[&] { NodeOf(c)->nodeSize &= kTalNodeSizeMask; },
         "adjacent free nodes" + at(tail) + "free node on no list" + at(info()) + "usedSize" + at(info()) +
             "freeSize" + at(info()) + "usedNodeNum" + at(info()) + "freeNodeNum" + at(info())},
        {[&] { TalList::TalListDelete(&tail->listNode), TalList::TalListAdd(&info()->multiHead[5], &tail->listNode); },
         "free node on the list of another class" + at(tail)},
        {[&] { strcpy(TalEndNode(info())->algoName, "x"); }, "end node broken" + at(TalEndNode(info()))}};
    for (const auto& k : cases) {
        ASSERT_EQ(impl.TalMemInit(pool, kPoolSize), 0);
        a = Alloc(8192), b = Alloc(8192), c = Alloc(8192);
        k.breakIt();
        EXPECT_EQ(talmem_test::PoolFailures(pool), k.failures) << &k - cases;
        EXPECT_EQ(TalMemImpl::TalMemCheckPool(info()), std::count(k.failures.begin(), k.failures.end(), '\n'));
    }
}

TEST_F(TalMemChecksTest, Overrun_FreeFailsTheFirstCorruptionIsRecordedOnceAndThePoolKeepsAnswering)
{
    TalMemDynNode saved = *NodeOf(b);
    Trample(NodeOf(b));
    EXPECT_EQ(Free(b), -100);
    EXPECT_EQ(info()->fatalInfo.fatalAddr, a) << "because A's buffer precedes the broken header";
    std::string fatal = Fmt("fatalAddr 0x%lx algoName algoA moduleName modA \n", TalMaskAddr(a));
    EXPECT_EQ(Errors(fatal), 1);
    EXPECT_EQ(LogCapture::Where(fatal), "TalMemImpl.cpp OsMemFatalLog") << "because the class logs as its source";
    EXPECT_EQ(Errors(Fmt("magicWord error 0x5a5a5a5a node 0x%lx pAddr 0x%lx nodeSize %d\n\n",
                         TalMaskAddr(NodeOf(b)), TalMaskAddr(b), static_cast<int>(TalNodeSize(NodeOf(b))))), 1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, Fmt("0x%lx\t\t%8d\t\t0\t\t\n", TalMaskAddr(NodeOf(a)),
                                                       static_cast<int>(NodeSizeFor(8192)))), 1);
    EXPECT_EQ(Free(a), -100) << "because A's successor is broken";
    EXPECT_EQ(Free(Alloc(8192)), 0) << "because the free lists are intact";
    EXPECT_EQ(impl.TalMemGetUsedNum(pool), 3);

    *NodeOf(b) = saved;
    Trample(NodeOf(c));
    LogCapture::Clear();
    EXPECT_EQ(Free(c), -100);
    EXPECT_EQ(Errors(fatal), 1) << "because a second corruption keeps the first record";
    impl.TalMemCheckFatalAddr(pool);
    EXPECT_EQ(Errors("TalMemCheckFatalAddr " + fatal), 1);
}

// Free nodes of one size class, the smaller most recently freed: the search meets it first.
TEST_F(TalMemChecksTest, Search_PassesOverASmashedNodeTooSmallAndChecksTheMagicOfTheNodeFoundOnly)
{
    const uint32_t smallSize = 40 * 1024, largeSize = 56 * 1024, between = 44 * 1024, below = 36 * 1024;
    for (size_t smashed : {sizeof(uint32_t), offsetof(TalMemDynNode, prevNode)}) { // the magic; the links too
        SCOPED_TRACE(smashed);
        sound = true;
        ASSERT_EQ(impl.TalMemInit(pool, kPoolSize), 0);
        uintptr_t small = Alloc(smallSize), fence1 = Alloc(4096), large = Alloc(largeSize), fence2 = Alloc(4096);
        ASSERT_TRUE(fence1 != 0 && fence2 != 0);
        ASSERT_EQ(Free(large) + Free(small), 0);
        Trample(NodeOf(small), smashed);
        LogCapture::Clear();
        const uintptr_t served = Alloc(between);
        if (smashed == sizeof(uint32_t)) {
            EXPECT_EQ(served, large) << "because the list is still walkable past the smashed node";
        } else {
            EXPECT_GT(served, fence2) << "because the rest of the list is unreachable, so the pool's tail serves";
        }
        EXPECT_EQ(Errors("OsMemAllocWithCheck(111): MAGIC_CHECK error\n"), 0);
        EXPECT_EQ(Alloc(below), 0u) << "because the smashed node is the first fit and fails its check";
        EXPECT_EQ(Errors("OsMemAllocWithCheck(111): MAGIC_CHECK error\n"), 1);
    }
}

using TalMemChecksDeathTest = TalMemChecksTest;

// The property's first character decides; then the overrun ends the process.
TEST_F(TalMemChecksDeathTest, Overrun_AbortsTheProcessWhenFatalExitIsSet)
{
    for (const char* value : {"", "0", "10", "01", "1"}) {
        TalHostSetProperty("persist.vendor.talMemfatal.exit", value);
        TalMemImpl fresh;
        EXPECT_EQ(fresh.TalMemImplInit() + fresh.FatalErrorExit(), value[0] == '1') << value;
    }
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "QvCamMem TalMemImplInit mFatalErrorExit enabled\n"), 2);
    ASSERT_EQ(impl.TalMemImplInit(), 0);
    Trample(NodeOf(b));
    EXPECT_DEATH((__android_log_set_logger(__android_log_stderr_logger), Free(b)),
                 "OsMemNodeDump\\(\\) OsMemNodeDump\\(233\\): fatal corruption and persist.vendor.talMemfatal.exit is set, abort")
        << "because a confirmed corruption ends the process, saying why";
}

// The straightforward refresh: for each head, walk every list from it to the last; a broken node
// logs, dumps and yields 0 for that head.
void ReferenceMaxFree(TalMemImpl& impl, TalMemPoolInfo* pool)
{
    pool->maxFreeNodeSize = 0;
    for (uint32_t h = 0; h < kTalMultiHeadNum; ++h) {
        uint32_t result = 0;
        for (uint32_t i = h; i < kTalMultiHeadNum && result != UINT32_MAX; ++i) {
            for (TalDlList* link = pool->multiHead[i].nextLink; link != &pool->multiHead[i] && result != UINT32_MAX;
                 link = link->nextLink) {
                TalMemDynNode* node = TalNodeOfLink(link);
                if (node->magic != kTalMemMagic) {
                    TAL_LOGE("%s(%d): MAGIC_CHECK error\n", "OsMemGetMaxFreeNodeSize", 301);
                    impl.OsMemNodeDump(pool);
                }
                result = node->magic != kTalMemMagic ? UINT32_MAX : std::max(result, TalNodeSize(node));
            }
        }
        pool->maxFreeNodeSize = std::max(pool->maxFreeNodeSize, result == UINT32_MAX ? 0 : result);
    }
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
    auto run = [&](void (*refresh)(TalMemImpl&, TalMemPoolInfo*)) { // the size found, then the lines logged
        impl.OsMemNodeDump(info()); // records any corruption before both runs
        LogCapture::Clear();
        refresh(impl, info());
        std::string out = std::to_string(info()->maxFreeNodeSize);
        for (const auto& line : LogCapture::Lines()) {
            out += "\n" + std::to_string(line.priority) + " " + line.message;
        }
        return out;
    };
    auto fast = [](TalMemImpl& impl, TalMemPoolInfo* pool) { impl.OsMemMaxFreeNodeSizeUpdate(pool); };
    auto compare = [&](uint32_t expectMax) { // equal outputs begin with equal sizes
        EXPECT_EQ(run(fast), run(ReferenceMaxFree));
        EXPECT_EQ(info()->maxFreeNodeSize, expectMax);
    };
    compare(TalNodeSize(tail));
    sound = false;
    nodes[4]->magic = 0xDEAD; // one broken node in a middle class
    compare(TalNodeSize(tail));
    nodes[1]->magic = tail->magic = 0xBEEF; // broken in three classes, the top one included
    compare(0);
}

} // namespace
