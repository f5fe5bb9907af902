// Core of the in-pool allocator: formatting, allocation, split, merge, free,
// owner tags and the counters of the pool header.
//
// "%s(%d)" in messages carries the operation and a fixed number of the
// reporting site (1xx in this file).

#include "inpool/TalMemImpl.h"

#include <cstring>

#include "inpool/TalList.h"
#include "common/TalLog.h"
#include "securec.h"
#include "talmem_properties.h"

namespace qv {

namespace {

constexpr const char* kDefaultName = "default";
constexpr const char* kSentinelName = "sentinel";
constexpr uint32_t kLargePoolLimit = 0xFFFFF;
constexpr uint32_t kRatioScale = 819200;
// A separator line of 97 dashes around the "No suitable free block" report.
constexpr char kDashLine[] =
    "-------------------------------------------------------------------------------------------------\n";
static_assert(sizeof(kDashLine) == 97 + 2, "the separator is 97 dashes and a newline");

TalDlList* HeadOf(TalMemPoolInfo* pool, uint32_t size)
{
    return TalDLinkMultiHead::OsDLnkMultiHead(pool->multiHead, size);
}

} // namespace

// The bounded copy of an owner name: at most 127 characters, the last byte
// always NUL; a failed copy is reported in the name of `func`.
void TalMemImpl::CopyName(char* dest, const char* src, const char* func)
{
    if (strncpy_s(dest, kTalNameLen, src, kTalNameLen - 1) != 0) {
        TAL_LOGE_FOR(func, "%s:strncpy_s data failed\n", func);
    }
    dest[kTalNameLen - 1] = '\0';
}

int TalMemImpl::TalMemImplInit()
{
    char value[PROPERTY_VALUE_MAX];
    int ret = memset_s(value, sizeof(value), 0, sizeof(value));
    if (ret != 0) {
        TAL_LOGE("%s:memset is failed ret = %d\n", __func__, ret);
        return -100;
    }
    property_get(kFatalExitProperty, value, "0");
    if (value[0] == '1') {
        mFatalErrorExit = true;
        TAL_LOGD("QvCamMem %s mFatalErrorExit enabled\n", __func__);
    }
    return 0;
}

void TalMemImpl::OsMemNodeNameSet(TalMemDynNode* node, const char* algoName, const char* moduleName)
{
    if (node == nullptr) {
        return;
    }
    CopyName(TalNodeAlgoName(node), algoName != nullptr ? algoName : kDefaultName, __func__);
    CopyName(TalNodeModuleName(node), moduleName != nullptr ? moduleName : kDefaultName, __func__);
}

int TalMemImpl::TalMemInit(uintptr_t poolAddr, uint32_t size)
{
    if (poolAddr == 0) {
        return -1;
    }
    if (size < kTalMinPoolSize) {
        return -3;
    }
    TalMemPoolInfo* pool = TalPoolOf(poolAddr);
    pool->pool = poolAddr;
    pool->poolSize = size;
    pool->ratioFactor = size > kLargePoolLimit ? kRatioScale / (size >> 20) : 0;
    pool->freeNodeNum = 0;
    pool->useRatio = 0;
    pool->poolCreate = 0;
    pool->usedSize = 0;
    pool->reserved = 0;
    pool->freeSize = 0;
    pool->maxFreeNodeSize = 0;
    pool->usedNodeNum = 0;
    TalDLinkMultiHead::OsDLnkInitMultiHead(pool->multiHead);

    uint32_t firstSize = size - kTalPoolOverhead;
    TalMemDynNode* first = TalFirstNode(pool);
    TalSetNodePrev(first, nullptr);
    TalSetNodeMcInfo(first, nullptr);
    TalSetNodeSizeWord(first, firstSize);
    TalSetNodeMagic(first, kTalMemMagic);
    OsMemNodeNameSet(first, kDefaultName, kDefaultName);
    TalDlList* head = HeadOf(pool, firstSize);
    if (head == nullptr) {
        return -100;
    }
    TalList::TalListTailInsert(head, TalNodeLink(first));
    pool->freeSize += firstSize;
    pool->freeNodeNum += 1;

    WriteEndNode(pool, first);

    pool->fatalInfo.moduleName[0] = '\0';
    pool->fatalInfo.algoName[0] = '\0';
    pool->fatalInfo.magic = kTalMemMagic;
    pool->fatalInfo.fatalAddr = 0;
    pool->poolCreate = 1;
    pool->magic = kTalMemMagic;

    OsMemMaxFreeNodeSizeUpdate(pool);
    TAL_LOGI("after TalMemInit: usedSize:%u,freeSize:%u,usedNodeNum:%u,freeNodeNum:%u, "
             "maxFreeNodeSize: %u, useRatio: %u%%\n",
             pool->usedSize, pool->freeSize, pool->usedNodeNum, pool->freeNodeNum,
             pool->maxFreeNodeSize, pool->useRatio);
    return 0;
}

// The end node occupies the pool's last header-sized bytes: unaligned when
// the pool size is off the header's alignment, which the field helpers allow.
void TalMemImpl::WriteEndNode(TalMemPoolInfo* pool, TalMemDynNode* first)
{
    TalMemDynNode* end = TalEndNode(pool);
    memset_s(end, kTalNodeHeadSize, 0, kTalNodeHeadSize);
    TalSetNodePrev(end, first);
    TalSetNodeMcInfo(end, nullptr);
    TalSetNodeMagic(end, kTalMemMagic);
    TalSetNodeSizeWord(end, kTalNodeUsedFlag | kTalNodeHeadSize);
    TalSetUsedMark(end);
    OsMemNodeNameSet(end, kSentinelName, kSentinelName);
}

int TalMemImpl::CheckPoolHeader(const TalMemPoolInfo* pool, const char* func, int site)
{
    if (pool->magic != kTalMemMagic) {
        TAL_LOGE_FOR(func, "%s(%d):control check magic error 0x%x\n\n", func, site, pool->magic);
        return -2;
    }
    if (pool->poolCreate == 0) {
        TAL_LOGE_FOR(func, "%s(%d):poolCreate not create\n\n", func, site + 1);
        return -100;
    }
    return 0;
}

uintptr_t TalMemImpl::TalMemAlloc(uintptr_t poolAddr, uint32_t size)
{
    if (poolAddr == 0 || size == 0) {
        TAL_LOGE("%s(%d):poolAddress nullptr or size == 0\n\n", __func__, 101);
        return 0;
    }
    if ((size & kTalNodeUsedFlag) != 0) {
        TAL_LOGE("%s(%d):get size used flag is true\n\n", __func__, 102);
        return 0;
    }
    TalMemPoolInfo* pool = TalPoolOf(poolAddr);
    if (CheckPoolHeader(pool, __func__, 103) != 0) {
        return 0;
    }
    uintptr_t payload = OsMemAllocWithCheck(pool, size + kTalAllocSlack);
    if (payload == 0) {
        return 0;
    }
    uintptr_t aligned = (payload + kTalPageSize - 1) & ~(kTalPageSize - 1);
    if (aligned == payload) {
        // No marker: the word before must read as the node's size word (on a
        // 64-bit build it is header padding, so write it explicitly).
        *TalWordBefore(payload) = TalNodeSizeWord(TalNodeAt(payload - kTalNodeHeadSize));
        return payload;
    }
    *TalWordBefore(aligned) = static_cast<uint32_t>(aligned - payload) | kTalAlignMarkFlag;
    return aligned;
}

void TalMemImpl::MarkNodeUsed(TalMemDynNode* node)
{
    TalSetUsedMark(node);
    TalSetNodeMagic(node, kTalMemMagic);
    TalSetNodeMcInfo(node, nullptr);
    TalSetNodeSizeWord(node, TalNodeSizeWord(node) | kTalNodeUsedFlag);
    OsMemNodeNameSet(node, kDefaultName, kDefaultName);
}

void TalMemImpl::CountAllocated(TalMemPoolInfo* pool, uint32_t size)
{
    pool->usedNodeNum += 1;
    pool->freeNodeNum -= 1;
    pool->usedSize += size;
    pool->freeSize -= size;
    OsMemMaxFreeNodeSizeUpdate(pool);
    pool->useRatio = TalUseRatio(pool);
}

void TalMemImpl::CountFreed(TalMemPoolInfo* pool, uint32_t size)
{
    pool->freeSize += size;
    pool->usedSize -= size;
    pool->usedNodeNum -= 1;
    pool->freeNodeNum += 1;
    OsMemMaxFreeNodeSizeUpdate(pool);
    pool->useRatio = TalUseRatio(pool);
}

uintptr_t TalMemImpl::OsMemAllocWithCheck(TalMemPoolInfo* pool, uint32_t size)
{
    uint32_t allocSize = (size + kTalNodeHeadSize + kTalNodeAlign - 1) & ~(kTalNodeAlign - 1);
    if (allocSize > pool->maxFreeNodeSize) {
        TAL_LOGE("require node size 0x%zx is  larger than maxFreeNodeSize 0x%x\n\n",
                 static_cast<size_t>(size), pool->maxFreeNodeSize);
        return 0;
    }
    TalMemDynNode* node = OsMemFindSuitableFreeBlock(pool, allocSize);
    if (node == nullptr) {
        TAL_LOGE("%s", kDashLine);
        OsMemInfoPrint(pool);
        TAL_LOGE("[%s] No suitable free block, require free node size: 0x%zx, from mempool: 0x%lx\n",
                 __func__, static_cast<size_t>(size), TalMaskAddr(pool));
        TAL_LOGE("%s", kDashLine);
        return 0;
    }
    if (!TalNodeMagicOk(node)) {
        TAL_LOGE("%s(%d): MAGIC_CHECK error\n", __func__, 111);
        OsMemNodeDump(pool);
        return 0;
    }
    if (allocSize + kTalSplitMinRest <= TalNodeSize(node)) {
        OsMemSpitNode(pool, node, allocSize);
    }
    TalList::TalListDelete(TalNodeLink(node));
    MarkNodeUsed(node);
    CountAllocated(pool, TalNodeSize(node));
    return TalNodePayload(node);
}

void TalMemImpl::OsMemSpitNode(TalMemPoolInfo* pool, TalMemDynNode* node, uint32_t allocSize)
{
    TalMemDynNode* rest = TalNodeAt(TalAddrOf(node) + allocSize);
    TalSetNodePrev(rest, node);
    TalSetNodeSizeWord(rest, TalNodeSize(node) - allocSize);
    TalSetNodeSizeWord(node, allocSize);
    TalSetNodeMagic(rest, kTalMemMagic);
    TalSetNodeMcInfo(rest, nullptr);
    OsMemNodeNameSet(rest, kDefaultName, kDefaultName);

    TalMemDynNode* next = TalNextNode(rest);
    TalSetNodePrev(next, rest);
    // A neighbour with a broken header is never merged: its links are garbage.
    if (TalNodeIsFree(next) && TalNodeMagicOk(next)) {
        TalList::TalListDelete(TalNodeLink(next));
        OsMemMergeNode(next);
    } else {
        pool->freeNodeNum += 1;
    }
    TalDlList* head = HeadOf(pool, TalNodeSize(rest));
    if (head == nullptr) {
        TAL_LOGE("%s %d error\n\n", __func__, 121);
        return;
    }
    TalList::TalListAdd(head, TalNodeLink(rest));
}

void TalMemImpl::OsMemMergeNode(TalMemDynNode* node)
{
    TalMemDynNode* prev = TalNodePrev(node);
    TalSetNodeSizeWord(prev, TalNodeSizeWord(prev) + TalNodeSizeWord(node));
    TalSetNodePrev(TalNextNode(node), prev);
    memset_s(node, kTalNodeHeadSize, 0, kTalNodeHeadSize);
}

void TalMemImpl::OsMemFreeNode(TalMemDynNode* node, TalMemPoolInfo* pool)
{
    uint32_t size = TalNodeSize(node);
    TalSetNodeSizeWord(node, size);
    TalMemDynNode* prev = TalNodePrev(node);
    TalMemDynNode* keep = node;
    if (prev != nullptr && TalNodeIsFree(prev)) {
        OsMemMergeNode(node);
        pool->freeNodeNum -= 1;
        keep = prev;
        TalList::TalListDelete(TalNodeLink(prev));
    }
    TalMemDynNode* next = TalNextNode(keep);
    if (TalNodeIsFree(next)) {
        TalList::TalListDelete(TalNodeLink(next));
        OsMemMergeNode(next);
        pool->freeNodeNum -= 1;
    }
    TalDlList* head = HeadOf(pool, TalNodeSize(keep));
    if (head == nullptr) {
        TAL_LOGE("%s %d\n\n", __func__, keep == prev ? 131 : 132);
        return;
    }
    TalList::TalListAdd(head, TalNodeLink(keep));
    CountFreed(pool, size);
}

// Finds the node of a handed-out address through its alignment marker. The
// marker is read only inside the pool; an address outside yields a node that
// the range checks reject.
TalMemDynNode* TalMemImpl::NodeOfAddress(const TalMemPoolInfo* pool, uintptr_t address)
{
    uintptr_t start = TalAddrOf(pool);
    if (address < start + sizeof(uint32_t) || address - start > pool->poolSize) {
        return TalNodeAt(address - kTalNodeHeadSize);
    }
    return TalNodeAt(TalNodeAddrOfAddress(address));
}

int TalMemImpl::TalMemFree(uintptr_t poolAddr, uintptr_t address)
{
    if (poolAddr == 0 || address == 0) {
        TAL_LOGE("%s(%d):mem free pool address NUll or node null\n\n", __func__, 141);
        return -1;
    }
    TalMemPoolInfo* pool = TalPoolOf(poolAddr);
    int ret = CheckPoolHeader(pool, __func__, 142);
    if (ret != 0) {
        return ret;
    }
    TalMemDynNode* node = NodeOfAddress(pool, address);
    ret = OsMemCheckUsedNode(pool, node);
    if (ret == 0) {
        OsMemFreeNode(node, pool);
        return 0;
    }
    OsMemNodeDump(pool);
    return ret;
}

int TalMemImpl::TalMemSetMcInfo(uintptr_t address, void* mcInfo, const char* algoName,
                                const char* moduleName)
{
    if (address == 0 || mcInfo == nullptr) {
        return -1;
    }
    uintptr_t nodeAddr = TalNodeAddrOfAddress(address);
    if (nodeAddr == 0) {
        TAL_LOGE("%s(%d): MEM_CHECK error\n", __func__, 151);
        return 0;
    }
    TalMemDynNode* node = TalNodeAt(nodeAddr);
    if (!TalNodeAligned(nodeAddr) || !TalNodeMagicOk(node)) {
        TAL_LOGE("%s(%d):MAGIC_CHECK error 0x%x\n\n", __func__, 152, TalLoadMagic(nodeAddr));
        return -2;
    }
    if (TalNodeIsFree(node)) {
        TAL_LOGE("%s(%d):check free error\n", __func__, 153);
        return -100;
    }
    TalSetNodeMcInfo(node, mcInfo);
    OsMemNodeNameSet(node, algoName, moduleName);
    return 0;
}

void* TalMemImpl::TalMemGetMcInfo(uintptr_t poolAddr, uintptr_t address)
{
    if (poolAddr == 0 || address == 0) {
        return nullptr;
    }
    TalMemPoolInfo* pool = TalPoolOf(poolAddr);
    TalMemDynNode* node = NodeOfAddress(pool, address);
    if (TalAddrOf(node) == 0) {
        TAL_LOGE("%s(%d): MEM_CHECK error\n", __func__, 161);
        return nullptr;
    }
    if (TalAddrOf(node) <= poolAddr) {
        TAL_LOGW("%s(%d):pool addr: 0x%lx, ptr addr: 0x%lx invalid\n\n", __func__, 162,
                 TalMaskAddr(poolAddr), TalMaskAddr(address));
        return nullptr;
    }
    if (!TalNodeAligned(TalAddrOf(node)) || !TalNodeMagicOk(node)) {
        TAL_LOGE("%s(%d):MAGIC_CHECK error 0x%x\n\n", __func__, 163, TalLoadMagic(TalAddrOf(node)));
        return nullptr;
    }
    if (TalNodeIsFree(node)) {
        TAL_LOGE("%s(%d):check free error\n", __func__, 164);
        return nullptr;
    }
    return TalNodeMcInfo(node);
}

bool TalMemImpl::PoolAndEndNodeOk(TalMemPoolInfo* pool, const char* func, int site)
{
    if (pool->magic == kTalMemMagic) {
        const TalMemDynNode* end = TalEndNode(pool);
        if (TalNodeMagicOk(end) && TalHasUsedMark(end)) {
            return true;
        }
    }
    TAL_LOGE_FOR(func, "%s(%d): MAGIC_CHECK error\n", func, site);
    OsMemNodeDump(pool);
    return false;
}

int TalMemImpl::TalMemGetUsedNum(uintptr_t poolAddr)
{
    if (poolAddr == 0) {
        return -1;
    }
    TalMemPoolInfo* pool = TalPoolOf(poolAddr);
    return PoolAndEndNodeOk(pool, __func__, 171) ? static_cast<int>(pool->usedNodeNum) : 0;
}

uint32_t TalMemImpl::TalMemGetMaxFreeSize(uintptr_t poolAddr)
{
    if (poolAddr == 0) {
        return 0;
    }
    TalMemPoolInfo* pool = TalPoolOf(poolAddr);
    return PoolAndEndNodeOk(pool, __func__, 181) ? pool->maxFreeNodeSize : 0;
}

} // namespace qv
