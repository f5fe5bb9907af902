#ifndef TALMEM_INPOOL_TALMEMFORMAT_H
#define TALMEM_INPOOL_TALMEMFORMAT_H

// The in-pool format: every byte of bookkeeping of the best-fit allocator
// lives inside the pool it manages, as the plain structs below.
//
// Pool layout:  [TalMemPoolInfo][node][node]...[node][end node]
//
// Subtleties of TalMemDynNode:
//  - `nodeSize` holds the size of the node, header included, in bits 0-30;
//    bit 31 is the used flag. A node is free exactly when the word, read as a
//    signed 32-bit number, is not negative.
//  - `listNode` is a list link only while the node is free. A used node holds
//    the used mark there instead: prevLink = ~(address of listNode) and
//    nextLink = all ones. The list code never sees a used node.
//  - `prevNode` is the physically preceding node; null for the first node.
//  - `mcInfo` and the two names are owner tags; a freed node keeps its last
//    owner's tags until it is allocated again or merged away.
//  - The end node ("sentinel") occupies the last header-sized bytes of the
//    pool, is marked used and is never handed out or counted.
//
// Widths are the natural ones of the build: on a 32-bit target the headers
// are 280 and 528 bytes; every size below is derived with sizeof/alignof so
// that a 64-bit host build has the same format with wider pointers.

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qv {

// One link of an intrusive, circular, doubly linked list; also a list head.
struct TalDlList {
    TalDlList* prevLink;
    TalDlList* nextLink;
};

static constexpr uint32_t kTalMemMagic = 0xAC14BFE6u;
static constexpr uint32_t kTalNodeUsedFlag = 0x80000000u;
static constexpr uint32_t kTalNodeSizeMask = 0x7FFFFFFFu;
// Set in the word before a handed-out address when it lies past the payload
// start; the low bits then hold the gap.
static constexpr uint32_t kTalAlignMarkFlag = 0x40000000u;
static constexpr uint32_t kTalAlignGapMask = ~kTalAlignMarkFlag;
static constexpr uint32_t kTalMultiHeadNum = 27;
static constexpr uint32_t kTalNameLen = 128;
static constexpr uintptr_t kTalPageSize = 4096;
// Slack added to each request: a page for the alignment, a word for the marker.
static constexpr uint32_t kTalAllocSlack = static_cast<uint32_t>(kTalPageSize) + sizeof(uint32_t);

// First corruption recorded in a pool (fatalAddr 0: nothing recorded).
struct TalMemFatalInfo {
    uint32_t magic;
    uintptr_t fatalAddr;
    char algoName[kTalNameLen];
    char moduleName[kTalNameLen];
};

// Pool header at the pool's first byte. `magic` is written last by the
// initialisation, so a half-formatted pool is never taken for a pool.
struct TalMemPoolInfo {
    uint32_t magic;
    uintptr_t pool;
    uint32_t poolSize;
    TalMemFatalInfo fatalInfo;
    uint32_t poolCreate;
    uint32_t usedSize;
    uint32_t reserved;
    uint32_t freeSize;
    uint32_t maxFreeNodeSize;
    uint32_t usedNodeNum;
    uint32_t freeNodeNum;
    uint32_t ratioFactor;
    uint32_t useRatio;
    TalDlList multiHead[kTalMultiHeadNum];
};

struct TalMemDynNode {
    uint32_t magic;
    TalDlList listNode;
    TalMemDynNode* prevNode;
    void* mcInfo;
    char algoName[kTalNameLen];
    char moduleName[kTalNameLen];
    uint32_t nodeSize;
};

static constexpr uint32_t kTalNodeHeadSize = sizeof(TalMemDynNode);
static constexpr uint32_t kTalPoolHeadSize = sizeof(TalMemPoolInfo);
static constexpr uint32_t kTalNodeAlign = alignof(TalMemDynNode);
// Pool header plus end node: the first node gets the rest of the pool.
static constexpr uint32_t kTalPoolOverhead = kTalPoolHeadSize + kTalNodeHeadSize;
// The smallest pool: the overhead, the first node's header and one byte.
static constexpr uint32_t kTalMinPoolSize = kTalPoolOverhead + kTalNodeHeadSize + 1;
// A split leaves a remainder only when it can hold a header and one word.
static constexpr uint32_t kTalSplitMinRest = kTalNodeHeadSize + sizeof(uint32_t);
// node + kTalPageRoundUp rounded down to a page is the address handed out.
static constexpr uintptr_t kTalPageRoundUp = kTalNodeHeadSize + kTalPageSize - 1;

static_assert(sizeof(void*) != 4 || kTalNodeHeadSize == 280, "node header is 280 bytes on 32 bit");
static_assert(sizeof(void*) != 4 || kTalPoolHeadSize == 528, "pool header is 528 bytes on 32 bit");
static_assert(sizeof(void*) != 4 || kTalPoolOverhead == 808, "pool overhead is 808 on 32 bit");
static_assert(sizeof(void*) != 4 || kTalMinPoolSize == 1089, "smallest pool is 1089 on 32 bit");
static_assert(kTalPoolHeadSize % kTalNodeAlign == 0, "the first node must be aligned");
static_assert(kTalNodeHeadSize % kTalNodeAlign == 0, "node headers tile without gaps");

// ---- tiny helpers: the only code that knows how the words are packed ----
//
// Every node but the end node starts on the header's alignment. The end node
// occupies the last header-sized bytes of the pool, so a pool size off that
// alignment (any odd size; 4 mod 8 with 8-byte pointers) leaves it unaligned.
// Node fields are therefore never read or written as members: the helpers
// below copy them byte-wise at their offsets, which is safe at any address
// and compiles to plain loads and stores where the target allows.

inline TalMemPoolInfo* TalPoolOf(uintptr_t pool)
{
    return reinterpret_cast<TalMemPoolInfo*>(pool);
}
inline uintptr_t TalAddrOf(const void* p)
{
    return reinterpret_cast<uintptr_t>(p);
}
inline TalMemDynNode* TalNodeAt(uintptr_t addr)
{
    return reinterpret_cast<TalMemDynNode*>(addr);
}
template <typename T>
inline T TalLoadAt(uintptr_t addr)
{
    T value;
    memcpy(&value, reinterpret_cast<const void*>(addr), sizeof(value));
    return value;
}
template <typename T>
inline void TalStoreAt(uintptr_t addr, T value)
{
    memcpy(reinterpret_cast<void*>(addr), &value, sizeof(value));
}

#define TAL_NODE_FIELD(node, field) (TalAddrOf(node) + offsetof(TalMemDynNode, field))

inline uint32_t TalNodeMagic(const TalMemDynNode* node)
{
    return TalLoadAt<uint32_t>(TAL_NODE_FIELD(node, magic));
}
inline void TalSetNodeMagic(TalMemDynNode* node, uint32_t magic)
{
    TalStoreAt(TAL_NODE_FIELD(node, magic), magic);
}
// The whole size word: size and used flag.
inline uint32_t TalNodeSizeWord(const TalMemDynNode* node)
{
    return TalLoadAt<uint32_t>(TAL_NODE_FIELD(node, nodeSize));
}
inline void TalSetNodeSizeWord(TalMemDynNode* node, uint32_t word)
{
    TalStoreAt(TAL_NODE_FIELD(node, nodeSize), word);
}
inline TalMemDynNode* TalNodePrev(const TalMemDynNode* node)
{
    return TalLoadAt<TalMemDynNode*>(TAL_NODE_FIELD(node, prevNode));
}
inline void TalSetNodePrev(TalMemDynNode* node, TalMemDynNode* prev)
{
    TalStoreAt(TAL_NODE_FIELD(node, prevNode), prev);
}
inline void* TalNodeMcInfo(const TalMemDynNode* node)
{
    return TalLoadAt<void*>(TAL_NODE_FIELD(node, mcInfo));
}
inline void TalSetNodeMcInfo(TalMemDynNode* node, void* mcInfo)
{
    TalStoreAt(TAL_NODE_FIELD(node, mcInfo), mcInfo);
}
// The node's list link. Only free nodes are linked, and they are aligned.
inline TalDlList* TalNodeLink(TalMemDynNode* node)
{
    return reinterpret_cast<TalDlList*>(TAL_NODE_FIELD(node, listNode));
}
inline TalDlList* TalNodeLinkPrev(const TalMemDynNode* node)
{
    return TalLoadAt<TalDlList*>(TAL_NODE_FIELD(node, listNode) + offsetof(TalDlList, prevLink));
}
inline TalDlList* TalNodeLinkNext(const TalMemDynNode* node)
{
    return TalLoadAt<TalDlList*>(TAL_NODE_FIELD(node, listNode) + offsetof(TalDlList, nextLink));
}
inline char* TalNodeAlgoName(TalMemDynNode* node)
{
    return reinterpret_cast<char*>(TAL_NODE_FIELD(node, algoName));
}
inline char* TalNodeModuleName(TalMemDynNode* node)
{
    return reinterpret_cast<char*>(TAL_NODE_FIELD(node, moduleName));
}
inline const char* TalNodeAlgoName(const TalMemDynNode* node)
{
    return reinterpret_cast<const char*>(TAL_NODE_FIELD(node, algoName));
}
inline const char* TalNodeModuleName(const TalMemDynNode* node)
{
    return reinterpret_cast<const char*>(TAL_NODE_FIELD(node, moduleName));
}

inline uint32_t TalNodeSize(const TalMemDynNode* node)
{
    return TalNodeSizeWord(node) & kTalNodeSizeMask;
}
inline bool TalNodeIsFree(const TalMemDynNode* node)
{
    return static_cast<int32_t>(TalNodeSizeWord(node)) >= 0;
}
inline bool TalNodeMagicOk(const TalMemDynNode* node)
{
    return TalNodeMagic(node) == kTalMemMagic;
}
inline TalMemDynNode* TalNextNode(const TalMemDynNode* node)
{
    return TalNodeAt(TalAddrOf(node) + TalNodeSize(node));
}
inline TalMemDynNode* TalNodeOfLink(const TalDlList* link)
{
    return TalNodeAt(TalAddrOf(link) - offsetof(TalMemDynNode, listNode));
}
inline uintptr_t TalNodePayload(const TalMemDynNode* node)
{
    return TalAddrOf(node) + kTalNodeHeadSize;
}
// The page-aligned address that an allocation of this node handed out.
inline uintptr_t TalNodeHandedOut(const TalMemDynNode* node)
{
    return (TalAddrOf(node) + kTalPageRoundUp) & ~(kTalPageSize - 1);
}
inline TalDlList* TalUsedMarkPrev(const TalMemDynNode* node)
{
    return reinterpret_cast<TalDlList*>(~TAL_NODE_FIELD(node, listNode));
}
inline TalDlList* TalUsedMarkNext()
{
    return reinterpret_cast<TalDlList*>(~uintptr_t{0});
}
inline void TalSetUsedMark(TalMemDynNode* node)
{
    TalStoreAt(TAL_NODE_FIELD(node, listNode) + offsetof(TalDlList, nextLink), TalUsedMarkNext());
    TalStoreAt(TAL_NODE_FIELD(node, listNode) + offsetof(TalDlList, prevLink), TalUsedMarkPrev(node));
}
inline bool TalHasUsedMark(const TalMemDynNode* node)
{
    return TalNodeLinkPrev(node) == TalUsedMarkPrev(node);
}
inline TalMemDynNode* TalFirstNode(const TalMemPoolInfo* pool)
{
    return TalNodeAt(TalAddrOf(pool) + kTalPoolHeadSize);
}
inline TalMemDynNode* TalEndNode(const TalMemPoolInfo* pool)
{
    return TalNodeAt(TalAddrOf(pool) + pool->poolSize - kTalNodeHeadSize);
}
inline uint32_t* TalWordBefore(uintptr_t address)
{
    return reinterpret_cast<uint32_t*>(address - sizeof(uint32_t));
}
// Resolves a handed-out address to its node through the alignment marker.
// The word is loaded without assuming alignment: the address may be bad input.
inline uintptr_t TalNodeAddrOfAddress(uintptr_t address)
{
    const uint32_t word = TalLoadAt<uint32_t>(address - sizeof(uint32_t));
    uintptr_t payload = (word & kTalAlignMarkFlag) != 0 ? address - (word & kTalAlignGapMask) : address;
    return payload - kTalNodeHeadSize;
}
inline bool TalNodeAligned(uintptr_t nodeAddr)
{
    return nodeAddr % kTalNodeAlign == 0;
}
// The first word of a would-be node, loaded without assuming alignment.
inline uint32_t TalLoadMagic(uintptr_t nodeAddr)
{
    return TalNodeMagic(TalNodeAt(nodeAddr));
}
// Used share in percent, in the pool's unsigned 32-bit arithmetic.
inline uint32_t TalUseRatio(const TalMemPoolInfo* pool)
{
    return (pool->ratioFactor * (pool->usedSize >> 10) + 0x400000u) >> 23;
}

} // namespace qv

#undef TAL_NODE_FIELD

#endif // TALMEM_INPOOL_TALMEMFORMAT_H
