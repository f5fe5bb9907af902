#include "chunk/TalMemChunk.h"

#include <cstdlib>
#include <utility>

#include "common/TalLog.h"
#include "descriptor/TalIbufImpl.h"
#include "securec.h"

namespace qv {

namespace {

constexpr uint32_t kPlainBytesFormat = 0x101;   // format 257: width x height bytes
constexpr uint64_t kUsageLowWord = 0x400801;    // usage bits every by-size chunk carries
constexpr uint64_t kUsageSelMask = 0xFFF;       // part of the selector that picks the heap
constexpr uint64_t kUsageHighDefault = 16;
constexpr uint64_t kUsageHighSel1 = 20;
constexpr uint64_t kUsageHighSel2 = 24;
constexpr uint32_t kCachePage = 4096;
constexpr int32_t kHeapBlock = 1;               // memAllocType of a malloc'ed chunk

const char* const kUnknownName = "unknown";

// Buffer ids of the process; the service lock serialises every issue.
int32_t gUniqueIdCounter = 0;

int32_t NextUniqueId()
{
    // Increment first, so the first id is 1; wrap as the 32-bit counter does.
    gUniqueIdCounter = static_cast<int32_t>(static_cast<uint32_t>(gUniqueIdCounter) + 1u);
    return gUniqueIdCounter;
}

uint64_t UsageFromSelector(uint64_t usageSel)
{
    uint64_t high = kUsageHighDefault;
    if ((usageSel & kUsageSelMask) == 1) {
        high = kUsageHighSel1;
    } else if ((usageSel & kUsageSelMask) == 2) {
        high = kUsageHighSel2;
    }
    return (high << 32) | kUsageLowWord;
}

} // namespace

TalMemChunk::TalMemChunk(uint32_t size, int32_t needAlloc, uint64_t usageSel,
                         int32_t memAllocType, std::string name, int32_t chunkTag)
    : poolId(0), streamState(0), inUse(1), addr(nullptr), preAlloc(false),
      releasePending(false), needAlloc(needAlloc), memAllocType(memAllocType),
      chunkTag(chunkTag), usage(UsageFromSelector(usageSel)), size(size), usedSize(size),
      algoName(kUnknownName), moduleName(kUnknownName), name(std::move(name)), forceFromSys(0),
      allocateType(0), info(), width(size), height(1), format(kPlainBytesFormat)
{
    memset_s(&ibuf, sizeof(ibuf), 0, sizeof(ibuf));
}

TalMemChunk::TalMemChunk(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                         std::string name)
    : poolId(0), streamState(0), inUse(0), addr(nullptr), preAlloc(false),
      releasePending(false), needAlloc(1), memAllocType(0), chunkTag(0), usage(usage), size(0),
      usedSize(0), algoName(kUnknownName), moduleName(kUnknownName), name(std::move(name)),
      forceFromSys(0), allocateType(0), info(), width(width), height(height), format(format)
{
    memset_s(&ibuf, sizeof(ibuf), 0, sizeof(ibuf));
}

TalMemChunk::~TalMemChunk()
{
    size = 0;
    if (needAlloc != 0) {
        if (memAllocType == kHeapBlock) {
            free(addr);
        }
        addr = nullptr;
        spareBuffer.reset();
    }
    // The descriptor must never point at a released buffer, so drop the
    // buffer first and clear the descriptor right after.
    info.buffer.reset();
    memset_s(&ibuf, sizeof(ibuf), 0, sizeof(ibuf));
}

int32_t TalMemChunk::Init()
{
    if (needAlloc == 0) {
        addr = nullptr;
        return 0;
    }
    addr = (memAllocType == kHeapBlock) ? MemMalloc() : Alloc();
    if (addr == nullptr) {
        TAL_LOGE("%s malloc error memAllocType = %d size = %zu\n", __func__, memAllocType,
                 static_cast<size_t>(size));
        return -1;
    }
    return 0;
}

void* TalMemChunk::MemMalloc()
{
    void* block = (size != 0) ? malloc(size) : nullptr;
    if (block == nullptr) {
        TAL_LOGD("MemMalloc failed\n");
    }
    return block;
}

void* TalMemChunk::Alloc()
{
    std::shared_ptr<QvCamera::ICameraBuffer> buffer =
        QvCamera::CameraBufferInterface::AllocCamBuffer(width, height, format, usage, name);
    if (buffer == nullptr) {
        TAL_LOGE("%s,line = %d,alloc GraphicBuffer fail, return NULL!\n", __func__, __LINE__);
        return nullptr;
    }
    info.buffer = std::move(buffer);
    info.shareFd = info.buffer->GetShareFd();
    info.size = info.buffer->GetSize();
    info.offset = 0;
    info.uniqueId = NextUniqueId();
    info.base = &info;
    TalConvert2IBuf(ibuf, info);
    return ibuf.getAddr(&ibuf);
}

void TalMemChunk::CfgMemChunk(const qva_ibuf* parent, uint32_t offset, uint32_t size,
                              const std::string& name)
{
    if (parent == nullptr) {
        return;
    }
    info = MemChunkInfo();
    info.shareFd = parent->getShareFD(parent);

    MemChunkInfo* parentInfo = static_cast<MemChunkInfo*>(parent->priv);
    std::shared_ptr<QvCamera::ICameraBuffer> parentBuffer;
    if (parentInfo != nullptr) {
        parentBuffer = parentInfo->buffer;
    }
    QvCamera::InputBufInfo split = {};
    split.size = this->size;
    split.planeCount = 1;
    // An empty parent yields an empty split, which the accessors report.
    split.format = parentBuffer != nullptr ? parentBuffer->GetFormat() : 0;
    split.reserved = 0;
    split.usage = parentBuffer != nullptr ? parentBuffer->GetUsage() : 0;
    split.planeSize = this->size;
    split.offset = offset;
    split.stride = this->size;
    split.sliceHeight = 0;
    // A failed split is not checked here: the descriptor then has no buffer
    // and its accessors report that.
    info.buffer = QvCamera::CameraBufferInterface::SplitCamBuffer(parentBuffer, split,
                                                                  "PpLocalBuf:" + name);

    info.uniqueId = parent->getBufId(parent);
    info.offset = offset;
    info.size = size;
    info.base = parentInfo;
    TalConvert2IBuf(ibuf, info);
}

void TalMemChunk::ReCfgUniqueId()
{
    if (info.offset != 0) {
        TAL_LOGE("%s: offset %zu not support\n", __func__, static_cast<size_t>(info.offset));
        return;
    }
    info.uniqueId = NextUniqueId();
    TAL_LOGI("%s: uniqueId %d\n", __func__, info.uniqueId);
}

TalMemChunk::CacheSpan TalMemChunk::CacheSpanOf(uintptr_t vaddr, uint32_t size) const
{
    // 32-bit arithmetic on purpose: offsets inside a buffer never exceed it.
    uint32_t rel = static_cast<uint32_t>(vaddr - reinterpret_cast<uintptr_t>(
                                                     info.buffer->GetCpuAddr()));
    CacheSpan span;
    span.start = (rel + info.offset) & ~(kCachePage - 1);
    uint32_t end = (rel + info.offset + size + kCachePage - 1) & ~(kCachePage - 1);
    span.len = end - span.start;
    span.fits = end <= info.size + info.offset && span.len != 0;
    span.whole = info.offset == 0 && span.start == 0 && span.len == info.size;
    return span;
}

// The two cache operations differ only in the buffer calls they make and in
// their rejection messages (the invalidate one lacks a blank before its size).
struct TalMemChunk::CacheOp {
    const char* method;
    int32_t (QvCamera::ICameraBuffer::*whole)();
    int32_t (QvCamera::ICameraBuffer::*range)(uint32_t length, uint32_t offset);
    bool invalidate; // its out-of-range message lacks the blank before the size
};

int32_t TalMemChunk::FlushCacheLocal(uintptr_t vaddr, uint32_t size)
{
    static const CacheOp kFlush = {
        "FlushCacheLocal", &QvCamera::ICameraBuffer::FlushCache,
        &QvCamera::ICameraBuffer::FlushCacheRange, false};
    return CacheLocal(vaddr, size, kFlush);
}

int32_t TalMemChunk::InvalidateCacheLocal(uintptr_t vaddr, uint32_t size)
{
    static const CacheOp kInvalidate = {
        "InvalidateCacheLocal", &QvCamera::ICameraBuffer::InvalidateCache,
        &QvCamera::ICameraBuffer::InvalidateCacheRange, true};
    return CacheLocal(vaddr, size, kInvalidate);
}

int32_t TalMemChunk::CacheLocal(uintptr_t vaddr, uint32_t size, const CacheOp& op)
{
    if (info.buffer == nullptr) {
        return -1;
    }
    // Rejections are reported under the public method's name.
    if (size > info.size) {
        TAL_LOGE_FOR(op.method, "%s: invalid size %d memSize %zu \n", op.method,
                     static_cast<int>(size), static_cast<size_t>(info.size));
        return -1;
    }
    CacheSpan span = CacheSpanOf(vaddr, size);
    if (!span.fits) {
        int start = static_cast<int>(span.start);
        int len = static_cast<int>(span.len);
        size_t memSize = info.size;
        if (op.invalidate) {
            TAL_LOGE_FOR(op.method, "%s: out of range cacheOffset %d cacheSize%d memSize %zu \n",
                         op.method, start, len, memSize);
        } else {
            TAL_LOGE_FOR(op.method, "%s: out of range cacheOffset %d cacheSize %d memSize %zu \n",
                         op.method, start, len, memSize);
        }
        return -1;
    }
    QvCamera::ICameraBuffer& buffer = *info.buffer;
    if (span.whole) {
        (buffer.*op.whole)();
    } else {
        (buffer.*op.range)(span.len, span.start);
    }
    return 0;
}

const qva_ibuf* TalMemChunk::GetIBuf()
{
    return memAllocType == kHeapBlock ? nullptr : &ibuf;
}

void* TalMemChunk::GetAddr()
{
    if (memAllocType == kHeapBlock) {
        return addr;
    }
    return ibuf.getAddr != nullptr ? ibuf.getAddr(&ibuf) : nullptr;
}

} // namespace qv
