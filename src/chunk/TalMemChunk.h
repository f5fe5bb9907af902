#ifndef TALMEM_CHUNK_TALMEMCHUNK_H
#define TALMEM_CHUNK_TALMEMCHUNK_H

#include <cstdint>
#include <memory>
#include <string>

#include "CameraBufferInterface.h"
#include "chunk/MemChunkInfo.h"
#include "talmem/qva_ibuf.h"

namespace qv {

// One piece of memory handed out or carved by the pool manager: a whole
// buffer from the camera-buffer service, a split view of another chunk's
// buffer, or a plain heap block (memAllocType 1). The chunk keeps its camera
// buffer alive and fills the caller-visible descriptor from its record.
//
// Not thread-safe: every call comes under the service lock. Created,
// looked up and destroyed only by the pool manager.
class TalMemChunk {
public:
    // Chunk of `size` plain bytes (format 257, width = size, height 1). The
    // low 12 bits of `usageSel` pick the usage handed to the service (1 and 2
    // select the two special heaps, anything else the default); the rest of
    // `usageSel` is ignored. `needAlloc` 0 makes Init leave the chunk empty
    // (a carved record, configured later by CfgMemChunk). `chunkTag` is kept
    // only. The chunk starts in use.
    TalMemChunk(uint32_t size, int32_t needAlloc, uint64_t usageSel, int32_t memAllocType,
                std::string name, int32_t chunkTag);
    // Image buffer of the given geometry; format and usage go to the service
    // unchanged. The chunk starts not in use.
    TalMemChunk(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                std::string name);
    // Frees a heap block, drops the camera buffer (the memory goes when its
    // last owner lets go) and clears the descriptor.
    ~TalMemChunk();

    TalMemChunk(const TalMemChunk&) = delete;
    TalMemChunk& operator=(const TalMemChunk&) = delete;

    // Allocates the chunk's memory; 0 on success (also when needAlloc is 0),
    // -1 on failure, after which the creator destroys the chunk.
    int32_t Init();
    // Heap block of `size` bytes, or null.
    void* MemMalloc();
    // Camera buffer of the chunk's geometry; fills the record and descriptor
    // and returns the CPU address, or null.
    void* Alloc();
    // Makes this chunk describe `size` bytes at `offset` inside the buffer of
    // `parent` (a pool chunk's descriptor): a split view sharing the parent's
    // buffer id. Null `parent` does nothing.
    void CfgMemChunk(const qva_ibuf* parent, uint32_t offset, uint32_t size,
                     const std::string& name);
    // Gives a whole buffer a fresh buffer id; split buffers keep theirs.
    void ReCfgUniqueId();
    // Cache maintenance of `size` bytes from CPU address `vaddr`, widened to
    // whole pages; 0 done, -1 rejected (no buffer, size or range too large).
    int32_t FlushCacheLocal(uintptr_t vaddr, uint32_t size);
    int32_t InvalidateCacheLocal(uintptr_t vaddr, uint32_t size);

    // The descriptor handed to callers; null for heap chunks. Valid while
    // the chunk lives.
    const qva_ibuf* GetIBuf();
    // CPU address: the heap block, or the descriptor's address (null when
    // the descriptor is not filled).
    void* GetAddr();

    uint32_t GetSize() { return size; }
    // Bytes of memory behind the chunk's CPU address: the buffer's real size
    // for a chunk made from a width, height and format (whose GetSize() is 0),
    // the requested size for a heap block or a chunk not yet allocated.
    uint32_t GetBufferSize() const { return info.size != 0 ? info.size : size; }
    uint32_t GetUsedSize() { return usedSize; }
    void SetUsedSize(uint32_t used) { usedSize = used; }
    int32_t GetUniqueId() const { return info.uniqueId; }
    std::string GetAlgoName() { return algoName; }
    void SetAlgoName(const std::string& algo) { algoName = algo; }
    std::string GetModuleName() { return moduleName; }
    void SetModuleName(const std::string& module) { moduleName = module; }
    uint32_t GetWidth() const { return width; }
    uint32_t GetHeight() const { return height; }
    uint32_t GetFormat() const { return format; }
    uint64_t GetUsage() const { return usage; }
    int32_t GetForceFromSys() { return forceFromSys; }
    void SetForceFromSys(int32_t force) { forceFromSys = force; }
    int32_t GetAllocateType() { return allocateType; }
    void SetAllocateType(int32_t type) { allocateType = type; }
    int32_t GetPoolId() { return poolId; }

    // Written directly by the pool manager.
    int32_t poolId;       // 0 direct chunk, 1 base pool, 2-5 multi pools, 10 test pool
    uint32_t streamState; // capture status when handed out (0-3)
    uint32_t inUse;       // 1 while handed out

private:
    void* addr; // CPU address after Init; null before and when nothing was allocated

public:
    bool preAlloc;       // belongs to a pre-allocated set
    bool releasePending; // release asked while in use

private:
    friend struct TalMemChunkTestPeer; // tests swap in a buffer that records cache calls

    // Page-aligned span of a cache request, in offsets of the base buffer.
    struct CacheSpan {
        uint32_t start;
        uint32_t len;
        bool fits;  // ends inside this record and is not empty
        bool whole; // covers the whole (unsplit) buffer
    };
    CacheSpan CacheSpanOf(uintptr_t vaddr, uint32_t size) const;

    struct CacheOp; // buffer calls and messages of one cache operation
    // The body of FlushCacheLocal and InvalidateCacheLocal.
    int32_t CacheLocal(uintptr_t vaddr, uint32_t size, const CacheOp& op);

    std::shared_ptr<QvCamera::ICameraBuffer> spareBuffer; // always empty here
    int32_t needAlloc;
    int32_t memAllocType; // 1 heap block, else camera buffer
    int32_t chunkTag;
    uint64_t usage;
    uint32_t size;
    uint32_t usedSize;
    std::string algoName;
    std::string moduleName;
    std::string name;
    int32_t forceFromSys;
    int32_t allocateType;
    qva_ibuf ibuf;
    MemChunkInfo info;
    uint32_t width;
    uint32_t height;
    uint32_t format;
};

} // namespace qv

#endif // TALMEM_CHUNK_TALMEMCHUNK_H
