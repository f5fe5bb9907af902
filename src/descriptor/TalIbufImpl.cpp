#include "descriptor/TalIbufImpl.h"

#include "common/TalLog.h"

namespace qv {

namespace {

const MemChunkInfo* RecordOf(const qva_ibuf* ibuf)
{
    return ibuf == nullptr ? nullptr : static_cast<const MemChunkInfo*>(ibuf->priv);
}

QvCamera::ICameraBuffer* BufferOf(const qva_ibuf* ibuf)
{
    const MemChunkInfo* info = RecordOf(ibuf);
    return info == nullptr ? nullptr : info->buffer.get();
}

// Buffer of the whole chunk a record was cut from.
QvCamera::ICameraBuffer* BaseBufferOf(const qva_ibuf* ibuf)
{
    const MemChunkInfo* info = RecordOf(ibuf);
    if (info == nullptr || info->buffer == nullptr || info->base == nullptr) {
        return nullptr;
    }
    return info->base->buffer.get();
}

using WholeCacheCall = int32_t (QvCamera::ICameraBuffer::*)();
using RangeCacheCall = int32_t (QvCamera::ICameraBuffer::*)(uint32_t length, uint32_t offset);

// A record at offset 0 covers its buffer from the start, so the whole-buffer
// call serves it; any other record syncs its own size at its offset. The
// library's result is not examined: the accessors report 1.
int32_t SyncRecord(QvCamera::ICameraBuffer& buf, const MemChunkInfo& info, WholeCacheCall whole,
                   RangeCacheCall range)
{
    if (info.offset == 0) {
        (buf.*whole)();
    } else {
        (buf.*range)(info.size, info.offset);
    }
    return 1;
}

} // namespace

// Logs with the accessor's own name and line, then returns `failValue`.
#define TAL_CHECK_VALID(ok, failValue)                                   \
    do {                                                                 \
        if (!(ok)) {                                                     \
            TAL_LOGE("%s(%d): CHECK_VALID error\n", __func__, __LINE__); \
            return (failValue);                                          \
        }                                                                \
    } while (0)

int GetCameraBufDevType(BufDevType type)
{
    if (static_cast<uint32_t>(type) < BUF_DEV_TYPE_INVALID) {
        return static_cast<int>(type);
    }
    TAL_LOGE("%s(%d): input devType(%d) is invalid\n", __func__, __LINE__,
             static_cast<int>(type));
    return BUF_DEV_TYPE_INVALID;
}

void* TalGetAddr(const qva_ibuf* ibuf)
{
    QvCamera::ICameraBuffer* buf = BufferOf(ibuf);
    TAL_CHECK_VALID(buf != nullptr, nullptr);
    return buf->GetCpuAddr();
}

uint64_t TalGetIOVA(const qva_ibuf* ibuf)
{
    QvCamera::ICameraBuffer* buf = BufferOf(ibuf);
    TAL_CHECK_VALID(buf != nullptr, 0);
    return buf->GetIova(kTalDefaultDevType, 0);
}

uint32_t TalGetSize(const qva_ibuf* ibuf)
{
    QvCamera::ICameraBuffer* buf = BufferOf(ibuf);
    TAL_CHECK_VALID(buf != nullptr, 0);
    // A carved record's own size is what the caller asked for; the split
    // buffer may report more.
    const MemChunkInfo* info = RecordOf(ibuf);
    return info->offset == 0 ? buf->GetSize() : info->size;
}

int32_t TalGetShareFD(const qva_ibuf* ibuf)
{
    QvCamera::ICameraBuffer* buf = BufferOf(ibuf);
    TAL_CHECK_VALID(buf != nullptr, -1);
    return buf->GetShareFd();
}

int32_t TalInvalidateCache(const qva_ibuf* ibuf)
{
    QvCamera::ICameraBuffer* buf = BufferOf(ibuf);
    TAL_CHECK_VALID(buf != nullptr, 0);
    return SyncRecord(*buf, *RecordOf(ibuf), &QvCamera::ICameraBuffer::InvalidateCache,
                      &QvCamera::ICameraBuffer::InvalidateCacheRange);
}

int32_t TalFlushCache(const qva_ibuf* ibuf)
{
    QvCamera::ICameraBuffer* buf = BufferOf(ibuf);
    TAL_CHECK_VALID(buf != nullptr, 0);
    return SyncRecord(*buf, *RecordOf(ibuf), &QvCamera::ICameraBuffer::FlushCache,
                      &QvCamera::ICameraBuffer::FlushCacheRange);
}

void* TalGetGraphicBuf(const qva_ibuf* ibuf)
{
    const MemChunkInfo* info = RecordOf(ibuf);
    TAL_CHECK_VALID(info != nullptr, nullptr);
    return info->buffer.get();
}

uint32_t TalGetOffset(const qva_ibuf* ibuf)
{
    const MemChunkInfo* info = RecordOf(ibuf);
    TAL_CHECK_VALID(info != nullptr, 0);
    return info->offset;
}

uint32_t TalGetPoolSize(const qva_ibuf* ibuf)
{
    QvCamera::ICameraBuffer* baseBuf = BaseBufferOf(ibuf);
    TAL_CHECK_VALID(baseBuf != nullptr, 0);
    return baseBuf->GetSize();
}

int32_t TalGetBufId(const qva_ibuf* ibuf)
{
    const MemChunkInfo* info = RecordOf(ibuf);
    TAL_CHECK_VALID(info != nullptr, 0);
    return info->uniqueId;
}

uint64_t TalGetDevIOVA(const qva_ibuf* ibuf, BufDevType type)
{
    QvCamera::ICameraBuffer* buf = BufferOf(ibuf);
    TAL_CHECK_VALID(buf != nullptr, 0);
    int devType = GetCameraBufDevType(type);
    TAL_CHECK_VALID(static_cast<uint32_t>(devType) < BUF_DEV_TYPE_INVALID, 0);
    return buf->GetIova(static_cast<uint32_t>(devType), 0);
}

uint32_t TalGetStride(const qva_ibuf* ibuf)
{
    QvCamera::ICameraBuffer* buf = BufferOf(ibuf);
    TAL_CHECK_VALID(buf != nullptr, 0);
    return buf->GetStride();
}

uint32_t TalGetSliceHeight(const qva_ibuf* ibuf)
{
    QvCamera::ICameraBuffer* buf = BufferOf(ibuf);
    TAL_CHECK_VALID(buf != nullptr, 0);
    return buf->GetSliceHeight();
}

void TalConvert2IBuf(qva_ibuf& ibuf, MemChunkInfo& info)
{
    ibuf.getAddr = TalGetAddr;
    ibuf.getIOVA = TalGetIOVA;
    ibuf.getSize = TalGetSize;
    ibuf.getShareFD = TalGetShareFD;
    ibuf.invalidateCache = TalInvalidateCache;
    ibuf.flushCache = TalFlushCache;
    ibuf.getGraphicBuf = TalGetGraphicBuf;
    ibuf.graphicBuf = info.buffer.get();
    ibuf.priv = &info;
    ibuf.getOffset = TalGetOffset;
    ibuf.getPoolSize = TalGetPoolSize;
    ibuf.getBufId = TalGetBufId;
    ibuf.getDevIOVA = TalGetDevIOVA;
    ibuf.getStride = TalGetStride;
    ibuf.getSliceHeight = TalGetSliceHeight;
}

} // namespace qv
