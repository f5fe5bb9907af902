#include "InpoolFixture.h"

#include <cstring>

#include "talmem_properties.h"

namespace {

using namespace qv;
using talmem_test::InpoolTest;
using talmem_test::LogCapture;
using talmem_test::MappedRegion;

class TalMemImplTest : public InpoolTest {};

TEST_F(TalMemImplTest, ImplInit_FatalExitFollowsFirstCharacterOfProperty)
{
    const struct {
        const char* value;
        bool fatal;
    } cases[] = {{nullptr, false}, {"0", false}, {"1", true}, {"10", true}, {"01", false}};
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
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG,
                                    "QvCamMem TalMemImplInit mFatalErrorExit enabled\n"),
                  c.fatal ? 1 : 0);
    }
}

TEST_F(TalMemImplTest, Init_RejectsNullAndTooSmallAndFormatsTheSmallestPool)
{
    MappedRegion small(8192);
    EXPECT_EQ(impl.TalMemInit(0, kPoolSize), -1);
    EXPECT_EQ(impl.TalMemInit(small.addr(), kTalMinPoolSize - 1), -3);
    EXPECT_EQ(small.info()->magic, 0u) << "because a refused pool is left unformatted";
    // A first node of 2^31 bytes has no size class; the end node is never reached.
    EXPECT_EQ(impl.TalMemInit(small.addr(), 0x80000000u + kTalPoolOverhead), -100);
    EXPECT_EQ(small.info()->magic, 0u);
    ASSERT_EQ(impl.TalMemInit(small.addr(), kTalMinPoolSize), 0);
    uint32_t usable = kTalMinPoolSize & ~(kTalNodeAlign - 1);
    EXPECT_EQ(small.info()->poolSize, usable);
    EXPECT_EQ(small.info()->freeSize, usable - kTalPoolOverhead);
    EXPECT_EQ(TalNodeSize(TalFirstNode(small.info())), usable - kTalPoolOverhead);
    EXPECT_POOL_SOUND(small.addr());
    EXPECT_EQ(impl.TalMemAlloc(small.addr(), 1), 0u) << "because nothing fits in the smallest pool";
}

TEST_F(TalMemImplTest, Init_FreshPoolHasOneFreeNodeSpanningTheUsableSize)
{
    MappedRegion other(kPoolSize);
    LogCapture::Clear();
    ASSERT_EQ(impl.TalMemInit(other.addr(), kPoolSize), 0);
    TalMemPoolInfo* p = other.info();
    uint32_t whole = kPoolSize - kTalPoolOverhead;
    EXPECT_EQ(p->pool, other.addr());
    EXPECT_EQ(p->poolSize, kPoolSize);
    EXPECT_EQ(p->poolCreate, 1u);
    EXPECT_EQ(p->freeSize, whole);
    EXPECT_EQ(p->freeNodeNum, 1u);
    EXPECT_EQ(p->usedNodeNum, 0u);
    EXPECT_EQ(p->usedSize, 0u);
    EXPECT_EQ(p->maxFreeNodeSize, whole);
    EXPECT_EQ(p->useRatio, 0u);
    EXPECT_EQ(p->ratioFactor, 819200u / 64u);
    EXPECT_EQ(p->fatalInfo.fatalAddr, 0u);
    TalMemDynNode* end = TalEndNode(p);
    EXPECT_EQ(end->nodeSize, 0x80000000u | kTalNodeHeadSize);
    EXPECT_STREQ(end->algoName, "sentinel");
    EXPECT_STREQ(TalFirstNode(p)->moduleName, "default");
    EXPECT_EQ(p->multiHead[TalDLinkMultiHead::HeadIndex(whole)].nextLink,
              &TalFirstNode(p)->listNode);
    EXPECT_POOL_SOUND(other.addr());
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_INFO,
                                "after TalMemInit: usedSize:0,freeSize:" + std::to_string(whole) +
                                    ",usedNodeNum:0,freeNodeNum:1, maxFreeNodeSize: " +
                                    std::to_string(whole) + ", useRatio: 0%\n"),
              1);
}

TEST_F(TalMemImplTest, Alloc_ReturnsPageAlignedAddressWithMarkerAndCountsTheNode)
{
    uintptr_t a = Alloc(1);
    ASSERT_NE(a, 0u);
    EXPECT_EQ(a % 4096, 0u);
    TalMemDynNode* node = TalFirstNode(info());
    uintptr_t payload = TalNodePayload(node);
    EXPECT_EQ(*TalWordBefore(a), static_cast<uint32_t>(a - payload) | 0x40000000u)
        << "because the payload start is not page aligned here";
    EXPECT_EQ(NodeOf(a), node);
    EXPECT_EQ(node->nodeSize, 0x80000000u | NodeSizeFor(1));
    EXPECT_EQ(TalNodeHandedOut(node), a);
    EXPECT_GE(payload + TalNodeSize(node) - kTalNodeHeadSize, a + 1);
    EXPECT_EQ(info()->usedNodeNum, 1u);
    EXPECT_EQ(info()->usedSize, NodeSizeFor(1));
    EXPECT_EQ(info()->freeNodeNum, 1u);
    EXPECT_POOL_SOUND(pool);

    uint32_t sizes[] = {4096, 4097, 1u << 20, 3u << 20};
    for (uint32_t size : sizes) {
        SCOPED_TRACE(size);
        uintptr_t b = Alloc(size);
        ASSERT_NE(b, 0u);
        EXPECT_EQ(b % 4096, 0u);
        EXPECT_LE(b + size, TalAddrOf(TalNextNode(NodeOf(b)))) << "because the request fits the node";
        memset(reinterpret_cast<void*>(b), 0xA5, size);
        EXPECT_POOL_SOUND(pool);
    }
}

TEST_F(TalMemImplTest, Alloc_AlignedPayloadWritesNoMarkerAndStillResolves)
{
    // Make the next node start where its payload is page aligned.
    uintptr_t firstPayload = TalNodePayload(TalFirstNode(info()));
    uintptr_t want = ((firstPayload + 3 * 4096) & ~uintptr_t{4095}) - kTalNodeHeadSize;
    uint32_t fillerNode = static_cast<uint32_t>(want - TalAddrOf(TalFirstNode(info())));
    uint32_t request = fillerNode - kTalAllocSlack - kTalNodeHeadSize;
    ASSERT_EQ(NodeSizeFor(request), fillerNode);
    ASSERT_NE(Alloc(request), 0u);
    uintptr_t b = Alloc(100);
    ASSERT_EQ(b, want + kTalNodeHeadSize);
    EXPECT_EQ(*TalWordBefore(b) & 0x40000000u, 0u);
    EXPECT_EQ(*TalWordBefore(b), TalNodeAt(want)->nodeSize);
    int record = 0;
    EXPECT_EQ(impl.TalMemSetMcInfo(b, &record, "algo", "mod"), 0);
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, b), &record);
    EXPECT_EQ(Free(b), 0);
    EXPECT_POOL_SOUND(pool);
}

TEST_F(TalMemImplTest, Alloc_RejectsBadArgumentsAndUnformattedPools)
{
    EXPECT_EQ(impl.TalMemAlloc(0, 10), 0u);
    EXPECT_EQ(Alloc(0), 0u);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR,
                                "TalMemAlloc(101):poolAddress nullptr or size == 0\n\n"),
              2);
    EXPECT_EQ(Alloc(0x80000000u), 0u);
    EXPECT_EQ(Alloc(0xFFFFFFFFu), 0u);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "TalMemAlloc(102):get size used flag is true\n\n"), 2);

    MappedRegion raw(65536);
    EXPECT_EQ(impl.TalMemAlloc(raw.addr(), 10), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "TalMemAlloc(103):control check magic error 0x0\n\n"));
    info()->poolCreate = 0;
    EXPECT_EQ(Alloc(10), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "TalMemAlloc(104):poolCreate not create\n\n"));
    EXPECT_EQ(info()->usedNodeNum, 0u);
}

TEST_F(TalMemImplTest, Alloc_TooLargeForLargestFreeNodeFailsWithoutTouchingThePool)
{
    ASSERT_NE(Alloc(8192), 0u);
    std::vector<char> before(reinterpret_cast<char*>(pool),
                             reinterpret_cast<char*>(pool) + kTalPoolHeadSize);
    uint32_t request = info()->maxFreeNodeSize;
    EXPECT_EQ(Alloc(request), 0u);
    char expected[128];
    snprintf(expected, sizeof(expected),
             "require node size 0x%x is  larger than maxFreeNodeSize 0x%x\n\n",
             request + kTalAllocSlack, info()->maxFreeNodeSize);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, expected)) << LogCapture::Dump();
    EXPECT_EQ(memcmp(before.data(), reinterpret_cast<void*>(pool), kTalPoolHeadSize), 0)
        << "because a failed allocation leaves the pool header as it was";
    EXPECT_POOL_SOUND(pool);
}

TEST_F(TalMemImplTest, Alloc_NoSuitableBlockPrintsStatusBetweenDashLines)
{
    // A stale maximum lets a request past the first check; the search then fails.
    info()->maxFreeNodeSize = 0x7FFFFFFF;
    EXPECT_EQ(Alloc(0x70000000u), 0u);
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 6u) << LogCapture::Dump();
    EXPECT_EQ(lines[0].message, std::string(97, '-') + "\n");
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(lines[3].priority, ANDROID_LOG_INFO);
    char expected[160];
    snprintf(expected, sizeof(expected),
             "[OsMemAllocWithCheck] No suitable free block, require free node size: 0x%x, "
             "from mempool: 0x%lx\n",
             0x70000000u + kTalAllocSlack, TalMaskAddr(pool));
    EXPECT_EQ(lines[4].message, expected);
    EXPECT_EQ(lines[5].message, lines[0].message);
    EXPECT_EQ(info()->usedNodeNum, 0u);
}

TEST_F(TalMemImplTest, Alloc_SplitsOnlyWhenTheRestHoldsAHeaderAndAWord)
{
    // A freed node of known size, kept apart from the tail by a guard.
    uint32_t request = 64 * 1024;
    uintptr_t a = Alloc(request);
    ASSERT_NE(Alloc(4096), 0u);
    uint32_t nodeSize = TalNodeSize(NodeOf(a));
    ASSERT_EQ(Free(a), 0);
    uint32_t minRest = (kTalSplitMinRest + kTalNodeAlign - 1) & ~(kTalNodeAlign - 1);

    uintptr_t whole = Alloc(request - (minRest - kTalNodeAlign));
    ASSERT_EQ(NodeOf(whole), TalFirstNode(info()));
    EXPECT_EQ(TalNodeSize(NodeOf(whole)), nodeSize) << "because a rest below a header and a word stays";
    EXPECT_EQ(info()->freeNodeNum, 1u);
    EXPECT_POOL_SOUND(pool);
    ASSERT_EQ(Free(whole), 0);

    uintptr_t split = Alloc(request - minRest);
    ASSERT_EQ(NodeOf(split), TalFirstNode(info()));
    EXPECT_EQ(TalNodeSize(NodeOf(split)), nodeSize - minRest);
    TalMemDynNode* rest = TalNextNode(NodeOf(split));
    EXPECT_TRUE(TalNodeIsFree(rest));
    EXPECT_EQ(TalNodeSize(rest), minRest);
    EXPECT_STREQ(rest->algoName, "default");
    EXPECT_EQ(info()->freeNodeNum, 2u);
    EXPECT_POOL_SOUND(pool);
}

TEST_F(TalMemImplTest, Free_MergesWithBothNeighboursIntoOneNode)
{
    uintptr_t a = Alloc(10000);
    uintptr_t b = Alloc(20000);
    uintptr_t c = Alloc(30000);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(info()->usedNodeNum, 3u);
    ASSERT_EQ(Free(a), 0);
    EXPECT_POOL_SOUND(pool);
    ASSERT_EQ(Free(c), 0);
    EXPECT_POOL_SOUND(pool);
    EXPECT_EQ(info()->freeNodeNum, 2u);
    ASSERT_EQ(Free(b), 0);
    EXPECT_POOL_SOUND(pool);
    EXPECT_EQ(info()->freeNodeNum, 1u);
    EXPECT_EQ(info()->usedNodeNum, 0u);
    EXPECT_EQ(TalNodeSize(TalFirstNode(info())), kPoolSize - kTalPoolOverhead);
    EXPECT_EQ(info()->maxFreeNodeSize, kPoolSize - kTalPoolOverhead);
    EXPECT_EQ(info()->usedSize, 0u);
}

TEST_F(TalMemImplTest, Find_TakesMostRecentlyFreedFirstFitNotTheBestFit)
{
    // Same class, different sizes: a small and a large node, each fenced.
    uintptr_t small = Alloc(40 * 1024);
    ASSERT_NE(Alloc(4096), 0u);
    uintptr_t large = Alloc(56 * 1024);
    ASSERT_NE(Alloc(4096), 0u);
    ASSERT_EQ(TalDLinkMultiHead::HeadIndex(NodeSizeFor(40 * 1024)),
              TalDLinkMultiHead::HeadIndex(NodeSizeFor(56 * 1024)));
    ASSERT_EQ(Free(small), 0);
    ASSERT_EQ(Free(large), 0);
    EXPECT_EQ(Alloc(36 * 1024), large) << "because the most recently freed node that fits wins";
    EXPECT_EQ(Alloc(36 * 1024), small);
    EXPECT_POOL_SOUND(pool);

    // A node of the request's class that is too small is passed over.
    ASSERT_EQ(Free(small), 0);
    uintptr_t next = Alloc(44 * 1024);
    EXPECT_NE(next, small);
    EXPECT_GT(next, large) << "because it comes from the tail, a higher class";
    EXPECT_POOL_SOUND(pool);
}

TEST_F(TalMemImplTest, Free_RejectsNullUnformattedForeignAndRepeatedAddresses)
{
    uintptr_t a = Alloc(8192);
    uintptr_t b = Alloc(8192);
    uintptr_t c = Alloc(8192);
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(impl.TalMemFree(0, a), -1);
    EXPECT_EQ(Free(0), -1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR,
                                "TalMemFree(141):mem free pool address NUll or node null\n\n"),
              2);
    MappedRegion raw(65536);
    EXPECT_EQ(impl.TalMemFree(raw.addr(), raw.addr() + 8192), -2);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "TalMemFree(142):control check magic error 0x0\n\n"));

    LogCapture::Clear();
    EXPECT_EQ(Free(a + 4096), -100) << "because that page lies inside a payload";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "OsMemIsNodeValid(202): MAGIC_CHECK error\n"));
    EXPECT_GT(LogCapture::Count(ANDROID_LOG_DEBUG, "node_addr\t\tnode_size\t\tfree\t\t\n"), 0)
        << "because a refused free dumps the nodes";
    EXPECT_EQ(Free(pool + kPoolSize + 4096), -100) << "because it lies beyond the pool";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "OsMemIsNodeValid(201): OS_MEM_MIDDLE_ADDR check error\n"));
    EXPECT_EQ(Free(TalAddrOf(NodeOf(b)) + 8), -100) << "because it points into a header";
    EXPECT_EQ(Free(b + 1), -100) << "because a misaligned address has no node";
    int record = 0;
    EXPECT_EQ(impl.TalMemSetMcInfo(b + 2, &record, "x", "y"), -2);
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, b + 2), nullptr);

    ASSERT_EQ(Free(b), 0);
    LogCapture::Clear();
    EXPECT_EQ(Free(b), -100);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "OsMemCheckUsedNode(211): Node not in used\n"));
    ASSERT_EQ(Free(a), 0) << "because a is still used; b merges into it";
    LogCapture::Clear();
    EXPECT_EQ(Free(b), -100);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "OsMemIsNodeValid(202): MAGIC_CHECK error\n"))
        << "because the merged-away header was wiped";
    EXPECT_EQ(info()->fatalInfo.fatalAddr, 0u) << "because a healthy pool records no corruption";
    EXPECT_EQ(info()->usedNodeNum, 1u);
    EXPECT_POOL_SOUND(pool);
}

TEST_F(TalMemImplTest, McInfo_TagsUsedNodesAndRefusesFreeOnes)
{
    uintptr_t a = Alloc(4096);
    ASSERT_NE(a, 0u);
    int record = 0;
    EXPECT_EQ(impl.TalMemSetMcInfo(0, &record, "x", "y"), -1);
    EXPECT_EQ(impl.TalMemSetMcInfo(a, nullptr, "x", "y"), -1);
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, a), nullptr) << "because a fresh node has no record";
    EXPECT_EQ(impl.TalMemSetMcInfo(a, &record, "algo", nullptr), 0);
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, a), &record);
    EXPECT_STREQ(NodeOf(a)->algoName, "algo");
    EXPECT_STREQ(NodeOf(a)->moduleName, "default") << "because a null name becomes the default";

    std::string longName(300, 'n');
    EXPECT_EQ(impl.TalMemSetMcInfo(a, &record, longName.c_str(), "m"), 0);
    EXPECT_EQ(std::string(NodeOf(a)->algoName), longName.substr(0, 127));

    EXPECT_EQ(impl.TalMemGetMcInfo(0, a), nullptr);
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, 0), nullptr);
    EXPECT_TRUE(LogCapture::Lines().empty()) << "because null arguments are refused silently";

    EXPECT_EQ(impl.TalMemGetMcInfo(pool, pool + kTalNodeHeadSize), nullptr);
    char warn[128];
    snprintf(warn, sizeof(warn), "TalMemGetMcInfo(162):pool addr: 0x%lx, ptr addr: 0x%lx invalid\n\n",
             TalMaskAddr(pool), TalMaskAddr(pool + kTalNodeHeadSize));
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, warn)) << LogCapture::Dump();

    ASSERT_NE(Alloc(4096), 0u);
    ASSERT_EQ(Free(a), 0);
    EXPECT_EQ(impl.TalMemSetMcInfo(a, &record, "x", "y"), -100);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "TalMemSetMcInfo(153):check free error\n"));
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, a), nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "TalMemGetMcInfo(164):check free error\n"));
    EXPECT_EQ(std::string(NodeOf(a)->moduleName), "m") << "because freeing keeps the owner's tags";

    // A page inside a payload, whose preceding word reads 0: no node there.
    uintptr_t c = Alloc(64 * 1024);
    ASSERT_NE(c, 0u);
    uintptr_t inside = c + 8192;
    *TalWordBefore(inside) = 0;
    EXPECT_EQ(impl.TalMemSetMcInfo(inside, &record, "x", "y"), -2);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "TalMemSetMcInfo(152):MAGIC_CHECK error 0x0\n\n"));
    EXPECT_EQ(impl.TalMemGetMcInfo(pool, inside), nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "TalMemGetMcInfo(163):MAGIC_CHECK error 0x0\n\n"));
    EXPECT_POOL_SOUND(pool);
}

TEST_F(TalMemImplTest, Counters_ReportUsedNumAndMaxFreeUntilTheEndNodeBreaks)
{
    EXPECT_EQ(impl.TalMemGetUsedNum(0), -1);
    EXPECT_EQ(impl.TalMemGetMaxFreeSize(0), 0u);
    uintptr_t a = Alloc(1u << 20);
    ASSERT_NE(a, 0u);
    EXPECT_EQ(impl.TalMemGetUsedNum(pool), 1);
    EXPECT_EQ(impl.TalMemGetMaxFreeSize(pool), kPoolSize - kTalPoolOverhead - NodeSizeFor(1u << 20));
    EXPECT_EQ(info()->useRatio, (info()->ratioFactor * (info()->usedSize >> 10) + 0x400000u) >> 23);

    Trample(TalEndNode(info()), kTalNodeHeadSize);
    LogCapture::Clear();
    EXPECT_EQ(impl.TalMemGetUsedNum(pool), 0);
    EXPECT_EQ(impl.TalMemGetMaxFreeSize(pool), 0u);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "TalMemGetUsedNum(171): MAGIC_CHECK error\n"), 1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "TalMemGetMaxFreeSize(181): MAGIC_CHECK error\n"), 1);
    EXPECT_NE(info()->fatalInfo.fatalAddr, 0u) << "because the dump records the broken end node";

    // The pool keeps answering: the node in front of the end node is used now.
    uintptr_t b = Alloc(4096);
    EXPECT_NE(b, 0u);
    EXPECT_EQ(Free(a), 0);
}

} // namespace
