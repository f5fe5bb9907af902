#include "InpoolChecker.h"

#include <sys/mman.h>

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "inpool/TalList.h"

namespace talmem_test {

using qv::TalDlList;
using qv::TalMemDynNode;
using qv::TalMemPoolInfo;

namespace {

class Checker {
public:
    Checker(uintptr_t pool, std::string* why) : mPool(qv::TalPoolOf(pool)), mWhy(why) {}

    int Run()
    {
        if (!CheckHeader()) {
            return mFailures;
        }
        if (WalkNodes()) {
            CheckLists();
            CheckCounters();
        }
        return mFailures;
    }

private:
    struct Totals {
        uint32_t usedSize = 0, freeSize = 0, maxFree = 0, usedNum = 0, freeNum = 0;
    };

    void Fail(const std::string& text)
    {
        ++mFailures;
        if (mWhy != nullptr) {
            *mWhy += text + "\n";
        }
    }
    static std::string Hex(uintptr_t v)
    {
        std::ostringstream os;
        os << "0x" << std::hex << v;
        return os.str();
    }
    std::string Off(const void* p) const { return Hex(qv::TalAddrOf(p) - qv::TalAddrOf(mPool)); }

    bool CheckHeader()
    {
        if (mPool->magic != qv::kTalMemMagic || mPool->pool != qv::TalAddrOf(mPool) ||
            mPool->poolCreate != 1) {
            Fail("pool header not formatted");
            return false;
        }
        return true;
    }

    // Walks from the first node to the end node; false when the walk breaks.
    bool WalkNodes()
    {
        const TalMemDynNode* end = qv::TalEndNode(mPool);
        const TalMemDynNode* node = qv::TalFirstNode(mPool);
        const TalMemDynNode* prev = nullptr;
        while (node != end) {
            if (!CheckNode(node, prev, end)) {
                return false;
            }
            prev = node;
            node = qv::TalNextNode(node);
        }
        CheckEndNode(end, prev);
        return true;
    }

    bool CheckNode(const TalMemDynNode* node, const TalMemDynNode* prev, const TalMemDynNode* end)
    {
        uint32_t size = qv::TalNodeSize(node);
        if (node->magic != qv::kTalMemMagic || size < qv::kTalNodeHeadSize ||
            size % qv::kTalNodeAlign != 0 || qv::TalNextNode(node) > end) {
            Fail("broken node at " + Off(node));
            return false;
        }
        if (node->prevNode != prev) {
            Fail("prevNode of " + Off(node) + " is " + Off(node->prevNode));
        }
        if (node->algoName[qv::kTalNameLen - 1] != '\0' ||
            node->moduleName[qv::kTalNameLen - 1] != '\0') {
            Fail("unterminated owner name at " + Off(node));
        }
        if (qv::TalNodeIsFree(node)) {
            if (prev != nullptr && qv::TalNodeIsFree(prev)) {
                Fail("adjacent free nodes at " + Off(prev) + " and " + Off(node));
            }
            mFreeNodes[node] = 0;
            mWalk.freeSize += size;
            mWalk.freeNum += 1;
            mWalk.maxFree = size > mWalk.maxFree ? size : mWalk.maxFree;
        } else {
            if (!qv::TalHasUsedMark(node) || node->listNode.nextLink != qv::TalUsedMarkNext()) {
                Fail("used node without used mark at " + Off(node));
            }
            mWalk.usedSize += size;
            mWalk.usedNum += 1;
        }
        return true;
    }

    void CheckEndNode(const TalMemDynNode* end, const TalMemDynNode* prev)
    {
        if (end->magic != qv::kTalMemMagic || end->nodeSize != (qv::kTalNodeUsedFlag | qv::kTalNodeHeadSize) ||
            !qv::TalHasUsedMark(end) || end->prevNode != prev ||
            std::string(end->algoName) != "sentinel" || std::string(end->moduleName) != "sentinel") {
            Fail("end node broken");
        }
    }

    void CheckLists()
    {
        for (uint32_t i = 0; i < qv::kTalMultiHeadNum; ++i) {
            TalDlList* head = &mPool->multiHead[i];
            size_t steps = 0;
            for (TalDlList* link = head->nextLink; link != head; link = link->nextLink) {
                if (link->nextLink->prevLink != link || link->prevLink->nextLink != link) {
                    Fail("links not mutual in list " + std::to_string(i));
                    return;
                }
                const TalMemDynNode* node = qv::TalNodeOfLink(link);
                auto it = mFreeNodes.find(node);
                if (it == mFreeNodes.end()) {
                    Fail("list " + std::to_string(i) + " holds a non-free node at " + Off(node));
                    return;
                }
                it->second += 1;
                if (qv::TalDLinkMultiHead::HeadIndex(qv::TalNodeSize(node)) != i) {
                    Fail("node " + Off(node) + " on list " + std::to_string(i) + " of another class");
                }
                if (++steps > mFreeNodes.size()) {
                    Fail("list " + std::to_string(i) + " does not close");
                    return;
                }
            }
        }
        for (const auto& entry : mFreeNodes) {
            if (entry.second != 1) {
                Fail("free node " + Off(entry.first) + " is on " + std::to_string(entry.second) +
                     " lists");
            }
        }
    }

    void Expect(const char* name, uint32_t header, uint32_t walked)
    {
        if (header != walked) {
            Fail(std::string(name) + " is " + std::to_string(header) + ", the walk gives " +
                 std::to_string(walked));
        }
    }

    void CheckCounters()
    {
        Expect("usedSize", mPool->usedSize, mWalk.usedSize);
        Expect("freeSize", mPool->freeSize, mWalk.freeSize);
        Expect("usedNodeNum", mPool->usedNodeNum, mWalk.usedNum);
        Expect("freeNodeNum", mPool->freeNodeNum, mWalk.freeNum);
        Expect("maxFreeNodeSize", mPool->maxFreeNodeSize, mWalk.maxFree);
        Expect("useRatio", mPool->useRatio, qv::TalUseRatio(mPool));
        Expect("tiling", mWalk.usedSize + mWalk.freeSize,
               mPool->poolSize - qv::kTalPoolOverhead);
    }

    TalMemPoolInfo* mPool;
    std::string* mWhy;
    int mFailures = 0;
    Totals mWalk;
    std::map<const TalMemDynNode*, int> mFreeNodes;
};

} // namespace

int CheckPool(uintptr_t pool, std::string* why)
{
    return Checker(pool, why).Run();
}

MappedRegion::MappedRegion(size_t size) : mSize(size)
{
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                   -1, 0);
    if (p == MAP_FAILED) {
        ADD_FAILURE() << "mmap of " << size << " bytes failed";
        p = nullptr;
        mSize = 0;
    }
    mBase = p;
}

MappedRegion::~MappedRegion()
{
    if (mBase != nullptr) {
        EXPECT_EQ(munmap(mBase, mSize), 0);
    }
}

} // namespace talmem_test
