// Checks and diagnostics of the in-pool allocator: node validity, the status
// walk, the node dump, the fatal record of the first corruption.
//
// Site numbers of "%s(%d)" and "line:%d" in this file are 2xx.

// One concern of TalMemImpl: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemImpl.cpp"

#include "inpool/TalMemImpl.h"

#include <cstdlib>

#include "common/TalLog.h"
#include "securec.h"

namespace qv {

namespace {

// The corruption report runs inside the node dump and speaks in its name.
constexpr const char* kNodeDumpName = "OsMemNodeDump";

// Whether stepping from `node` by its size lands on a node at or before the
// end node. A size that is too small, misaligned or overshooting means the
// header is broken even though its magic is right. Only the node before the
// end node may have a size off the alignment: a pool size off the alignment
// leaves it to that node.
bool StepIsSane(const TalMemDynNode* node, const TalMemDynNode* end)
{
    uint32_t size = TalNodeSize(node);
    const TalMemDynNode* next = TalNextNode(node);
    return size >= kTalNodeHeadSize && (next == end || (size % kTalNodeAlign == 0 && next < end));
}

void LogBrokenNode(const char* op, const TalMemDynNode* node, const char* tail)
{
    TAL_LOGE_FOR(op, "magicWord error 0x%x node 0x%lx pAddr 0x%lx nodeSize %d%s", TalNodeMagic(node),
             TalMaskAddr(node), TalMaskAddr(TalNodeHandedOut(node)),
             static_cast<int>(TalNodeSize(node)), tail);
}

} // namespace

int TalMemImpl::OsMemIsNodeValid(const TalMemDynNode* node, const TalMemDynNode* startNode,
                                 const TalMemDynNode* endNode, uintptr_t startPool,
                                 uintptr_t endPool)
{
    if (node < startNode || node > endNode) {
        TAL_LOGE("%s(%d): OS_MEM_MIDDLE_ADDR check error\n", __func__, 201);
        return 0;
    }
    // Only the end node may sit unaligned (see TalMemInit); any other
    // unaligned address is no node, whatever its first word reads.
    uintptr_t addr = TalAddrOf(node);
    if ((!TalNodeAligned(addr) && node != endNode) || TalLoadMagic(addr) != kTalMemMagic) {
        TAL_LOGE("%s(%d): MAGIC_CHECK error\n", __func__, 202);
        return 0;
    }
    if (TalNodeIsFree(node)) {
        uintptr_t prev = TalAddrOf(TalNodeLinkPrev(node));
        if (prev >= startPool && prev < endPool) {
            return 1;
        }
        TAL_LOGE("%s(%d): OS_MEM_MIDDLE_ADDR_OPEN_END check error\n", __func__, 203);
        return 0;
    }
    if (TalHasUsedMark(node)) {
        return 1;
    }
    TAL_LOGE("%s(%d): MAGIC_CHECK error\n", __func__, 204);
    return 0;
}

int TalMemImpl::OsMemCheckUsedNode(TalMemPoolInfo* pool, TalMemDynNode* node)
{
    const TalMemDynNode* first = TalFirstNode(pool);
    const TalMemDynNode* end = TalEndNode(pool);
    uintptr_t startPool = TalAddrOf(pool);
    uintptr_t endPool = startPool + pool->poolSize;
    if (OsMemIsNodeValid(node, first, end, startPool, endPool) == 0) {
        return -100;
    }
    if (TalNodeIsFree(node)) {
        TAL_LOGE("%s(%d): Node not in used\n", __func__, 211);
        return -100;
    }
    const TalMemDynNode* next = TalNextNode(node);
    if (OsMemIsNodeValid(next, first, end, startPool, endPool) == 0) {
        return -100;
    }
    if (TalNodePrev(next) != node) {
        TAL_LOGE("%s(%d): other error  node 0x%lx nextNode->prevNode 0x%lx\n", __func__, 212,
                 TalMaskAddr(node), TalMaskAddr(TalNodePrev(next)));
        return -100;
    }
    if (node == first) {
        return 0;
    }
    const TalMemDynNode* prev = TalNodePrev(node);
    if (OsMemIsNodeValid(prev, first, end, startPool, endPool) == 0) {
        return -100;
    }
    if (TalNextNode(prev) == node) {
        return 0;
    }
    TAL_LOGE("%s(%d): other error  node 0x%lx prevNode->nextnode 0x%lx\n", __func__, 213,
             TalMaskAddr(node), TalMaskAddr(TalNextNode(prev)));
    return -100;
}

int TalMemImpl::OsMemInfoGet(TalMemPoolInfo* pool, TalMemPoolStatus* status)
{
    if (pool == nullptr || pool->pool != TalAddrOf(pool)) {
        TAL_LOGE("wrong mem pool addr:0x%lx, line:%d\n", TalMaskAddr(pool), 221);
        return -1;
    }
    if (status == nullptr) {
        TAL_LOGE("can't use NULL addr to save info\n\n");
        return -1;
    }
    const TalMemDynNode* end = TalEndNode(pool);
    if (!TalNodeMagicOk(end) || !TalHasUsedMark(end)) {
        TAL_LOGE("wrong mem pool addr: 0x%lx, line:%d\n\n", TalMaskAddr(pool), 222);
        OsMemNodeDump(pool);
        return -2;
    }
    const TalMemDynNode* node = TalFirstNode(pool);
    if (node > end) {
        *status = TalMemPoolStatus{0, 0, 0, 1, 0};
        return 0;
    }
    TalMemPoolStatus sum{0, 0, 0, 0, 0};
    for (;;) {
        if (!TalNodeMagicOk(node) || (node != end && !StepIsSane(node, end))) {
            LogBrokenNode(__func__, node, "\n");
            OsMemNodeDump(pool);
            return -2;
        }
        uint32_t size = TalNodeSize(node);
        if (TalNodeIsFree(node)) {
            sum.freeSize += size;
            sum.freeNodeNum += 1;
            sum.maxFreeNodeSize = size > sum.maxFreeNodeSize ? size : sum.maxFreeNodeSize;
        } else {
            sum.usedSize += size;
            sum.usedNodeNum += 1;
        }
        if (node == end) {
            break;
        }
        node = TalNextNode(node);
    }
    sum.usedNodeNum += 1;
    *status = sum;
    return 0;
}

int TalMemImpl::OsMemInfoPrint(TalMemPoolInfo* pool)
{
    TalMemPoolStatus status{0, 0, 0, 0, 0};
    int ret = OsMemInfoGet(pool, &status);
    if (ret != 0) {
        TAL_LOGI("TalMemInfoGet fail\n");
        return ret;
    }
    TAL_LOGI("pool addr    pool size    used size     free size    max free node size  "
             "used node num   free node num\n\n");
    TAL_LOGI("---------    --------     -------       --------     --------------      "
             "-------------   ------------\n\n");
    TAL_LOGI("0x%-8lx   0x%-8x   0x%-8x    0x%-8x   0x%-16x   0x%-13x    0x%-13x\n",
             TalMaskAddr(pool), pool->poolSize, status.usedSize, status.freeSize,
             status.maxFreeNodeSize, status.usedNodeNum, status.freeNodeNum);
    return ret;
}

// Logs each node from the first one on; returns the first broken node (wrong
// magic, or a size that does not lead to a node) or null when the walk ends
// at a sound end node. *lastGood is the node before the broken one.
TalMemDynNode* TalMemImpl::WalkToBreak(TalMemPoolInfo* pool, TalMemDynNode** lastGood)
{
    TalMemDynNode* end = TalEndNode(pool);
    TalMemDynNode* node = TalFirstNode(pool);
    *lastGood = nullptr;
    for (;;) {
        if (!TalNodeMagicOk(node)) {
            return node;
        }
        TAL_LOGD_FOR(kNodeDumpName, "node_addr\t\tnode_size\t\tfree\t\t\n");
        TAL_LOGD_FOR(kNodeDumpName, "0x%lx\t\t%8d\t\t%d\t\t\n", TalMaskAddr(node),
                    static_cast<int>(TalNodeSize(node)), TalNodeIsFree(node) ? 1 : 0);
        if (node == end) {
            return nullptr;
        }
        if (!StepIsSane(node, end)) {
            return node;
        }
        *lastGood = node;
        node = TalNextNode(node);
    }
}

void TalMemImpl::ReportCorruption(TalMemPoolInfo* pool, TalMemDynNode* lastGood,
                                  TalMemDynNode* broken)
{
    // Only the first corruption of a pool is recorded; the suspect is the
    // node just before the broken one, whose payload most likely overran.
    if (pool->fatalInfo.fatalAddr == 0) {
        if (lastGood != nullptr) {
            OsMemRecordFatalInfo(pool, TalNodeHandedOut(lastGood), TalNodeAlgoName(lastGood),
                                 TalNodeModuleName(lastGood));
        } else {
            OsMemRecordFatalInfo(pool, 0, nullptr, nullptr);
        }
    }
    OsMemFatalLog(pool, broken);
    if (mFatalErrorExit) {
        TAL_LOGE_FOR(kNodeDumpName, "%s(%d): fatal corruption and %s is set, abort\n", kNodeDumpName,
                     233, kFatalExitProperty);
        abort();
    }
}

int TalMemImpl::OsMemNodeDump(TalMemPoolInfo* pool)
{
    if (pool == nullptr) {
        TAL_LOGE("%s(%d):wrong mem pool addr: 0x%lx\n\n", __func__, 231, TalMaskAddr(pool));
        return -1;
    }
    if (pool->fatalInfo.magic != kTalMemMagic) {
        TAL_LOGE("%s(%d):control check magic error 0x%x\n\n", __func__, 232, pool->fatalInfo.magic);
        return -2;
    }
    pool->fatalInfo.algoName[kTalNameLen - 1] = '\0';
    pool->fatalInfo.moduleName[kTalNameLen - 1] = '\0';
    TalMemDynNode* lastGood = nullptr;
    TalMemDynNode* broken = WalkToBreak(pool, &lastGood);
    if (broken == nullptr) {
        return 0;
    }
    ReportCorruption(pool, lastGood, broken);
    return -2;
}

void TalMemImpl::OsMemRecordFatalInfo(TalMemPoolInfo* info, uintptr_t fatalAddr,
                                      const char* algoName, const char* moduleName)
{
    if (info == nullptr) {
        TAL_LOGE("wrong mem pool addr: 0x%lx, line:%d\n\n", TalMaskAddr(info), 241);
        return;
    }
    info->fatalInfo.fatalAddr = fatalAddr;
    if (algoName != nullptr) {
        CopyName(info->fatalInfo.algoName, algoName, __func__);
    }
    if (moduleName != nullptr) {
        CopyName(info->fatalInfo.moduleName, moduleName, __func__);
    }
    info->fatalInfo.algoName[kTalNameLen - 1] = '\0';
    info->fatalInfo.moduleName[kTalNameLen - 1] = '\0';
}

void TalMemImpl::OsMemFatalLog(TalMemPoolInfo* info, TalMemDynNode* node)
{
    TAL_LOGE("fatalAddr 0x%lx algoName %s moduleName %s \n", TalMaskAddr(info->fatalInfo.fatalAddr),
             info->fatalInfo.algoName, info->fatalInfo.moduleName);
    LogBrokenNode(__func__, node, "\n\n");
}

int TalMemImpl::TalMemDumpInfo(uintptr_t poolAddr)
{
    if (poolAddr == 0) {
        return -1;
    }
    return OsMemInfoPrint(TalPoolOf(poolAddr));
}

void TalMemImpl::TalMemCheckFatalAddr(uintptr_t poolAddr)
{
    if (poolAddr == 0) {
        return;
    }
    const TalMemFatalInfo& fatal = TalPoolOf(poolAddr)->fatalInfo;
    if (fatal.magic != kTalMemMagic) {
        TAL_LOGE("%s(%d):control MAGIC_CHECK error 0x%x\n\n", __func__, 251, fatal.magic);
        return;
    }
    if (fatal.fatalAddr != 0) {
        TAL_LOGE("%s fatalAddr 0x%lx algoName %s moduleName %s \n", __func__,
                 TalMaskAddr(fatal.fatalAddr), fatal.algoName, fatal.moduleName);
    }
}

} // namespace qv
