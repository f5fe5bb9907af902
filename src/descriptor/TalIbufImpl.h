#ifndef TALMEM_DESCRIPTOR_TALIBUFIMPL_H
#define TALMEM_DESCRIPTOR_TALIBUFIMPL_H

#include <cstdint>

#include "chunk/MemChunkInfo.h"
#include "talmem/qva_ibuf.h"

namespace qv {

// Device type the plain IOVA getters ask for: the service's default device.
static constexpr uint32_t kTalDefaultDevType = 0x100;

// Maps a caller's device type to the service's: `type` itself when below
// BUF_DEV_TYPE_INVALID, else an ERROR line and BUF_DEV_TYPE_INVALID.
int GetCameraBufDevType(BufDevType type);

// Fills every field of `ibuf` with the pool accessors below; the descriptor
// points at `info` (priv) and at its buffer (graphicBuf) without owning
// either, so it is valid while the chunk that holds `info` lives.
void TalConvert2IBuf(qva_ibuf& ibuf, MemChunkInfo& info);

// Pool accessors. Each checks the descriptor, its record and the record's
// buffer; a failed check logs "CHECK_VALID error" and returns 0 (-1 for
// TalGetShareFD). Sizes and offsets honour carved sub-buffers.
void* TalGetAddr(const qva_ibuf* ibuf);
uint64_t TalGetIOVA(const qva_ibuf* ibuf);
uint32_t TalGetSize(const qva_ibuf* ibuf);
int32_t TalGetShareFD(const qva_ibuf* ibuf);
int32_t TalInvalidateCache(const qva_ibuf* ibuf);
int32_t TalFlushCache(const qva_ibuf* ibuf);
void* TalGetGraphicBuf(const qva_ibuf* ibuf);
uint32_t TalGetOffset(const qva_ibuf* ibuf);
uint32_t TalGetPoolSize(const qva_ibuf* ibuf);
int32_t TalGetBufId(const qva_ibuf* ibuf);
uint64_t TalGetDevIOVA(const qva_ibuf* ibuf, BufDevType type);
uint32_t TalGetStride(const qva_ibuf* ibuf);
uint32_t TalGetSliceHeight(const qva_ibuf* ibuf);

} // namespace qv

#endif // TALMEM_DESCRIPTOR_TALIBUFIMPL_H
