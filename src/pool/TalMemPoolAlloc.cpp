// Pool allocation, preview reuse and preallocated sets.
//
// Carving from pools and reusing preview chunks are not built yet: PoolAlloc
// finds nothing and a preview request becomes an ordinary direct chunk. The
// preallocated sets need no pool and work.

#include "pool/TalMemPoolImpl.h"

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"

namespace qv {

uintptr_t TalMemPoolImpl::PoolAlloc(uint32_t /*size*/, const std::string& /*name*/,
                                    const std::string& /*algoName*/, int32_t /*allocateType*/)
{
    return 0; // no pool to carve from
}

uintptr_t TalMemPoolImpl::PrevAlloc(uint32_t size, const std::string& name,
                                    const std::string& algoName, const SysAllocInfo& sysAllocInfo)
{
    // Without the reuse set the request is served directly and freed for good.
    return SysAlloc(size, name, algoName, sysAllocInfo, 0, 0);
}

bool TalMemPoolImpl::PrevCheckMemRatio(uint32_t /*size*/, uint32_t /*chunkSize*/)
{
    return false;
}

void TalMemPoolImpl::PrevForceFree() {}

void TalMemPoolImpl::PreAllocPool(const MallocInfo& mallocInfo, const std::string& algoName)
{
    SysAlloc(mallocInfo, "PREALLOC:" + algoName, true);
}

static bool SameRequest(TalMemChunk* chunk, const MallocInfo& info)
{
    return chunk->GetWidth() == info.width && chunk->GetHeight() == info.height &&
           chunk->GetFormat() == info.format && chunk->GetUsage() == info.usage;
}

void TalMemPoolImpl::ReleasePool(const MallocInfo& mallocInfo)
{
    for (auto it = preAllocPoolMcMap.begin(); it != preAllocPoolMcMap.end();) {
        TalMemChunk* chunk = it->second;
        if (!SameRequest(chunk, mallocInfo) || !chunk->preAlloc) {
            ++it;
        } else if (chunk->inUse == 0) {
            DelMemChunk(chunk);
            it = preAllocPoolMcMap.erase(it);
        } else {
            chunk->releasePending = true; // destroyed when it comes back
            ++it;
        }
    }
}

} // namespace qv
