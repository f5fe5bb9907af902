#ifndef TALMEM_INPOOL_TALMEMIMPL_H
#define TALMEM_INPOOL_TALMEMIMPL_H

// Best-fit allocator whose bookkeeping lives inside each pool it manages.
// A pool is any memory region formatted by TalMemInit; its start address is
// its whole handle, so one object serves any number of pools. Every address
// handed out is aligned to 4096 bytes.
//
// No operation locks: all calls for one pool must be serialised by the
// caller. No operation uses the heap.

#include <cstdint>

#include "inpool/TalMemFormat.h"

namespace qv {

// Totals of one walk over a pool (see OsMemInfoGet).
struct TalMemPoolStatus {
    uint32_t usedSize;
    uint32_t freeSize;
    uint32_t maxFreeNodeSize;
    uint32_t usedNodeNum;
    uint32_t freeNodeNum;
};

// Receives each failure of TalMemCheckPool: what is wrong and where, as an
// offset from the pool start.
using TalMemCheckReport = void (*)(const char* what, uintptr_t offset, void* user);

class TalMemImpl {
public:
    TalMemImpl() = default;
    TalMemImpl(const TalMemImpl&) = delete;
    TalMemImpl& operator=(const TalMemImpl&) = delete;

    // Reads "persist.vendor.talMemfatal.exit": a value starting with '1'
    // makes a confirmed corruption abort the process. 0, or -100 when the
    // property buffer cannot be cleared.
    int TalMemImplInit();

    // Formats [pool, pool + size) as an empty pool. 0; -1 for a null pool;
    // -3 when size cannot hold the headers and one byte; -100 when the
    // first node has no size class. The first node takes size minus the
    // headers; the end node takes the last header-sized bytes.
    int TalMemInit(uintptr_t pool, uint32_t size);

    // A 4096-aligned address with at least `size` usable bytes, or 0.
    uintptr_t TalMemAlloc(uintptr_t pool, uint32_t size);

    // Frees an address handed out by TalMemAlloc. 0; -1 null argument;
    // -2 unformatted pool; -100 a node that fails the checks (after a dump).
    int TalMemFree(uintptr_t pool, uintptr_t address);

    // Attaches an opaque owner record and names to a used node. 0; -1 null
    // argument; -2 wrong magic; -100 a free node.
    int TalMemSetMcInfo(uintptr_t address, void* mcInfo, const char* algoName,
                        const char* moduleName);

    // The owner record of a used node, or null.
    void* TalMemGetMcInfo(uintptr_t pool, uintptr_t address);

    // Number of used nodes; -1 for a null pool, 0 for a broken pool.
    int TalMemGetUsedNum(uintptr_t pool);

    // Size of the largest free node, header included; 0 for a broken pool.
    uint32_t TalMemGetMaxFreeSize(uintptr_t pool);

    // Prints the pool's status; -1 for a null pool, else OsMemInfoPrint.
    int TalMemDumpInfo(uintptr_t pool);

    // Reports the first corruption recorded in the pool, if any.
    void TalMemCheckFatalAddr(uintptr_t pool);

    bool FatalErrorExit() const { return mFatalErrorExit; }

    static constexpr const char* kFatalExitProperty = "persist.vendor.talMemfatal.exit";

    // Number of broken invariants of a formatted pool: the nodes must tile
    // the space from the first node to the end node with agreeing prevNode
    // links, no two free nodes may be adjacent, every free node must be on
    // the list of its size class and on no other, and the header counters
    // must equal the sums of the walk. Logs nothing; each failure goes to
    // `report` when given. Stops at a header it cannot step over.
    static int TalMemCheckPool(const TalMemPoolInfo* pool, TalMemCheckReport report = nullptr,
                               void* user = nullptr);

    // ---- internal steps, public so that tests can drive them one by one ----

    // Takes a node of at least size + header bytes off the free lists and
    // returns its payload start, or 0.
    uintptr_t OsMemAllocWithCheck(TalMemPoolInfo* pool, uint32_t size);
    // The first free node of at least allocSize bytes, searching from the
    // class of allocSize upwards; most recently freed first within a class.
    TalMemDynNode* OsMemFindSuitableFreeBlock(TalMemPoolInfo* pool, uint32_t allocSize);
    // Splits the tail of `node` beyond allocSize off as a new free node.
    void OsMemSpitNode(TalMemPoolInfo* pool, TalMemDynNode* node, uint32_t allocSize);
    // Folds `node` into its physical predecessor and wipes its header.
    static void OsMemMergeNode(TalMemDynNode* node);
    // Returns a checked used node to the free lists, merging free neighbours.
    void OsMemFreeNode(TalMemDynNode* node, TalMemPoolInfo* pool);
    // Sets the owner names (null means "default").
    static void OsMemNodeNameSet(TalMemDynNode* node, const char* algoName,
                                 const char* moduleName);
    // Refreshes maxFreeNodeSize from one walk of the free lists.
    void OsMemMaxFreeNodeSizeUpdate(TalMemPoolInfo* pool);

    // 1 when `node` lies in [startNode, endNode] with a sound header, else 0.
    static int OsMemIsNodeValid(const TalMemDynNode* node, const TalMemDynNode* startNode,
                                const TalMemDynNode* endNode, uintptr_t startPool,
                                uintptr_t endPool);
    // 0 when `node` is a used node whose neighbours agree with it, else -100.
    int OsMemCheckUsedNode(TalMemPoolInfo* pool, TalMemDynNode* node);
    // Walks the pool into `status`. 0; -1 bad arguments; -2 a broken pool.
    int OsMemInfoGet(TalMemPoolInfo* pool, TalMemPoolStatus* status);
    // Logs the pool's status table; returns the OsMemInfoGet result.
    int OsMemInfoPrint(TalMemPoolInfo* pool);
    // Logs every node; on a corruption records it, logs it and, when the
    // fatal exit is enabled, aborts. 0; -1 null pool; -2 broken.
    int OsMemNodeDump(TalMemPoolInfo* pool);
    static void OsMemRecordFatalInfo(TalMemPoolInfo* info, uintptr_t fatalAddr,
                                     const char* algoName, const char* moduleName);
    static void OsMemFatalLog(TalMemPoolInfo* info, TalMemDynNode* node);

private:
    // Largest free node in each list, and whether the walk of that list
    // stopped at a node with a wrong magic.
    struct FreeListScan {
        uint32_t maxSize[kTalMultiHeadNum];
        bool broken[kTalMultiHeadNum];
    };
    static void ScanFreeLists(TalMemPoolInfo* pool, FreeListScan* scan);
    // `dest` is a name field of kTalNameLen bytes.
    static void CopyName(char* dest, const char* src, const char* func);
    static void WriteEndNode(TalMemPoolInfo* pool, TalMemDynNode* first);
    static int CheckPoolHeader(const TalMemPoolInfo* pool, const char* func, int site);
    static TalMemDynNode* NodeOfAddress(const TalMemPoolInfo* pool, uintptr_t address);
    bool PoolAndEndNodeOk(TalMemPoolInfo* pool, const char* func, int site);
    static void MarkNodeUsed(TalMemDynNode* node);
    void CountAllocated(TalMemPoolInfo* pool, uint32_t size);
    void CountFreed(TalMemPoolInfo* pool, uint32_t size);
    static TalMemDynNode* WalkToBreak(TalMemPoolInfo* pool, TalMemDynNode** lastGood);
    void ReportCorruption(TalMemPoolInfo* pool, TalMemDynNode* lastGood, TalMemDynNode* broken);

    bool mFatalErrorExit = false;
};

} // namespace qv

#endif // TALMEM_INPOOL_TALMEMIMPL_H
