#include "InpoolChecker.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdarg>
#include <map>

namespace talmem_test {

using namespace qv;

int CheckPool(uintptr_t pool, std::string* why)
{
    TalMemPoolInfo* p = TalPoolOf(pool);
    int failures = 0;
    auto fail = [&](const std::string& text, const void* at) {
        *why += text + " at +" + std::to_string(TalAddrOf(at) - pool) + "\n";
        return ++failures;
    };
    if (p->magic != kTalMemMagic || p->pool != pool || p->poolCreate != 1) {
        return fail("pool header not formatted", p);
    }
    uint32_t used = 0, free = 0, maxFree = 0, usedNum = 0, freeNum = 0;
    std::map<const void*, int> onLists; // free node -> lists it is on
    const TalMemDynNode* end = TalEndNode(p);
    const TalMemDynNode* prev = nullptr;
    for (const TalMemDynNode* node = TalFirstNode(p); node != end; prev = node, node = TalNextNode(node)) {
        uint32_t size = TalNodeSize(node);
        if (!TalNodeMagicOk(node) || size < kTalNodeHeadSize || size % kTalNodeAlign || TalNextNode(node) > end) {
            return fail("broken node", node);
        }
        if (node->prevNode != prev) {
            fail("wrong prevNode", node);
        }
        if (TalNodeIsFree(node) && prev != nullptr && TalNodeIsFree(prev)) {
            fail("adjacent free nodes", node);
        }
        if (!TalNodeIsFree(node) && (!TalHasUsedMark(node) || node->listNode.nextLink != TalUsedMarkNext())) {
            fail("used node without the used mark", node);
        }
        if (TalNodeIsFree(node)) {
            onLists[node] = 0;
            maxFree = std::max(maxFree, size);
        }
        (TalNodeIsFree(node) ? free : used) += size;
        (TalNodeIsFree(node) ? freeNum : usedNum) += 1;
    }
    if (!TalNodeMagicOk(end) || end->nodeSize != (kTalNodeUsedFlag | kTalNodeHeadSize) || !TalHasUsedMark(end) ||
        end->prevNode != prev || strcmp(end->algoName, "sentinel") != 0) {
        fail("end node broken", end);
    }
    for (uint32_t i = 0; i < kTalMultiHeadNum; ++i) {
        size_t steps = 0;
        for (TalDlList* link = p->multiHead[i].nextLink; link != &p->multiHead[i]; link = link->nextLink) {
            auto it = onLists.find(TalNodeOfLink(link));
            if (link->nextLink->prevLink != link || it == onLists.end() || ++steps > onLists.size()) {
                return fail("broken list " + std::to_string(i), link);
            }
            it->second += TalDLinkMultiHead::HeadIndex(TalNodeSize(TalNodeOfLink(link))) == i ? 1 : 100;
        }
    }
    for (const auto& entry : onLists) {
        if (entry.second != 1) {
            fail("free node on the wrong lists (" + std::to_string(entry.second) + ")", entry.first);
        }
    }
    const uint32_t counters[][2] = {{p->usedSize, used}, {p->freeSize, free}, {p->usedNodeNum, usedNum},
                                    {p->freeNodeNum, freeNum}, {p->maxFreeNodeSize, maxFree},
                                    {p->useRatio, TalUseRatio(p)}, {p->poolSize - kTalPoolOverhead, used + free}};
    for (const auto& c : counters) {
        if (c[0] != c[1]) {
            fail("counter " + std::to_string(&c - counters) + " is " + std::to_string(c[0]) + ", not " +
                     std::to_string(c[1]), p);
        }
    }
    return failures;
}

std::string Fmt(const char* format, ...)
{
    char buf[512];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof(buf), format, args);
    va_end(args);
    return buf;
}

MappedRegion::MappedRegion(size_t size) : mSize(size)
{
    mBase = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    EXPECT_NE(mBase, MAP_FAILED) << "mmap of " << size << " bytes";
}

MappedRegion::~MappedRegion()
{
    EXPECT_EQ(munmap(mBase, mSize), 0);
}

void InpoolTest::SetUp()
{
    TalTest::SetUp();
    region = std::make_unique<MappedRegion>(kPoolSize);
    pool = region->addr();
    ASSERT_EQ(impl.TalMemInit(pool, kPoolSize), 0);
    LogCapture::Clear();
}

} // namespace talmem_test
