#ifndef TALMEM_CHUNK_MEMCHUNKINFO_H
#define TALMEM_CHUNK_MEMCHUNKINFO_H

#include <cstdint>
#include <memory>

#include "CameraBufferInterface.h"

namespace qv {

// Record of the memory one chunk describes; the pool descriptor accessors
// read it through qva_ibuf::priv.
//
// Subtleties:
// - `buffer` is a whole buffer (offset 0, base == this) or a split view of a
//   parent (offset > 0 or a carved range at 0, base == parent's record).
// - `base` points into another chunk for split buffers: a carved record must
//   not outlive the pool chunk it was cut from.
// - Destroying the record drops one owner of `buffer`.
struct MemChunkInfo {
    std::shared_ptr<QvCamera::ICameraBuffer> buffer; // empty for heap chunks and before allocation
    int32_t shareFd = 0;         // the buffer's share fd (owned by the buffer)
    uint32_t size = 0;           // bytes this record describes
    uint32_t offset = 0;         // offset inside the base buffer; 0 for a whole buffer
    int32_t uniqueId = 0;        // buffer id reported to callers
    MemChunkInfo* base = nullptr; // record of the whole buffer that owns the memory
};

} // namespace qv

#endif // TALMEM_CHUNK_MEMCHUNKINFO_H
