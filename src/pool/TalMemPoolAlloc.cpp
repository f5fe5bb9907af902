// Pool allocation, preview reuse and preallocated sets: the ways a request is
// served without a new direct chunk of its own.

// One concern of TalMemPoolImpl: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemPoolImpl.cpp"

#include "pool/TalMemPoolImpl.h"

#include <algorithm>

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"
#include "pool/TalMemPoolUtil.h"

namespace qv {

using poolutil::AddrOf;
using poolutil::IovaOf;
using poolutil::Key;

namespace {

constexpr const char* kRecordName = "Unknown";
constexpr uint32_t kNoFit = 0x7FFFFFFF;            // a surplus this large is never taken
constexpr uint32_t kPrevRatioFreeBelow = 0x1400000; // reuse freely while the set is small

bool SameRequest(TalMemChunk* chunk, const MallocInfo& info)
{
    return chunk->GetWidth() == info.width && chunk->GetHeight() == info.height &&
           chunk->GetFormat() == info.format && chunk->GetUsage() == info.usage;
}

} // namespace

uintptr_t TalMemPoolImpl::PoolAlloc(uint32_t size, const std::string& name,
                                    const std::string& algoName, int32_t allocateType)
{
    if (poolChunkList.empty()) {
        return 0;
    }
    TalMemChunk* pool = nullptr;
    uintptr_t addr = 0;
    for (TalMemChunk* candidate : poolChunkList) {
        addr = talMem.Alloc(AddrOf(candidate), size);
        if (addr != 0) {
            pool = candidate;
            break;
        }
        if (printPoolInfo) {
            talMem.DumpInfo(AddrOf(candidate));
        }
    }
    if (pool == nullptr) {
        // Only a multi pool can grow: the next pool update adds the shortage.
        TalMemChunk* last = poolChunkList.back();
        if (last->poolId >= 2) {
            SetShortageSize(size, talMem.GetMaxFreeSize(AddrOf(last)), last->poolId);
        }
        return 0;
    }
    const uintptr_t base = AddrOf(pool);
    TalMemChunk* record = NewMemChunk(size, 0, 0, kRecordName, 1); // describes, owns no memory
    if (record == nullptr) {
        TAL_LOGE("QvCamMem %s, ERROR! newMemChunk fail\n", __func__);
        talMem.Free(base, addr);
        return 0;
    }
    record->CfgMemChunk(pool->GetIBuf(), static_cast<uint32_t>(addr - base), size, algoName);
    record->poolId = pool->poolId;
    record->streamState = streamState;
    record->SetModuleName(name);
    record->SetAlgoName(algoName);
    record->SetAllocateType(allocateType);
    record->SetForceFromSys(0);
    talMem.SetMcInfo(addr, record, record->GetAlgoName().c_str(),
                     record->GetModuleName().c_str());
    poolMcMap[Key(addr)] = record;
    monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_POOL_ALLOC, record);
    TAL_LOGD("QvCamMem %s, type %d %s(modul: %s) apva 0x%lx(iova 0x%lx) size %zu(poolId:%d addr "
             "0x%lx poolSize %zu)\n",
             __func__, allocateType, algoName.c_str(), name.c_str(), TalMaskAddr(addr),
             static_cast<unsigned long>(TalMaskIova(IovaOf(record))), static_cast<size_t>(size),
             pool->poolId, TalMaskAddr(base), static_cast<size_t>(pool->GetSize()));
    return addr;
}

uintptr_t TalMemPoolImpl::PrevAlloc(uint32_t size, const std::string& name,
                                    const std::string& algoName, const SysAllocInfo& sysAllocInfo)
{
    // Best fit among the free preview chunks; ties go to the first met.
    TalMemChunk* best = nullptr;
    uint32_t bestSurplus = kNoFit;
    for (auto& entry : sysPrevMcMap) {
        TalMemChunk* chunk = entry.second;
        if (chunk == nullptr || chunk->inUse != 0 || chunk->GetSize() < size) {
            continue;
        }
        const uint32_t surplus = chunk->GetSize() - size;
        if (surplus < bestSurplus) {
            best = chunk;
            bestSurplus = surplus;
        }
    }
    if (best != nullptr && PrevCheckMemRatio(size, best->GetSize())) {
        prevAllNeed += size;
        prevAllNeedPeak = std::max(prevAllNeedPeak, prevAllNeed);
        best->inUse = 1;
        best->SetUsedSize(size);
        best->SetForceFromSys(sysAllocInfo.forceFromSys);
        best->SetModuleName(name);
        best->SetAlgoName(algoName);
        best->SetAllocateType(sysAllocInfo.allocateType);
        const uintptr_t addr = AddrOf(best);
        TAL_LOGD("QvCamMem %s, prevAllNeed %d(prevAllNeedPeak %d prevAll %d), %s(modul: %s) "
                 "apva 0x%lx size %zu \n",
                 __func__, static_cast<int>(prevAllNeed), static_cast<int>(prevAllNeedPeak),
                 static_cast<int>(prevAll), algoName.c_str(), name.c_str(), TalMaskAddr(addr),
                 static_cast<size_t>(size));
        monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_SYS_ALLOC, best);
        return addr;
    }
    // When even the peak after this request stays below the ratio of the set
    // it would grow into, idle chunks are surplus: drop them first.
    const uint32_t after = prevAllNeed + size;
    const uint32_t peakAfter = std::max(prevAllNeedPeak, after);
    if (peakAfter < 10 * prevRatioLimit * ((prevAll + size) / 1024)) {
        PrevForceFree();
    }
    return SysAlloc(size, name, algoName, sysAllocInfo, 0, 1);
}

bool TalMemPoolImpl::PrevCheckMemRatio(uint32_t size, uint32_t chunkSize)
{
    if (prevAll <= kPrevRatioFreeBelow) {
        return true;
    }
    // 10 / 1024 approximates one percent.
    if (prevAllNeed >= prevRatioLimit * 10 * (prevAll / 1024)) {
        return true;
    }
    return size >= prevRatioLimit * 10 * (chunkSize / 1024);
}

void TalMemPoolImpl::PrevForceFree()
{
    prevAll = 0;
    prevAllNeed = 0;
    uint32_t freeSize = 0;
    for (auto it = sysPrevMcMap.begin(); it != sysPrevMcMap.end();) {
        TalMemChunk* chunk = it->second;
        if (chunk != nullptr && chunk->inUse == 1) {
            prevAll += chunk->GetSize();
            prevAllNeed += chunk->GetUsedSize();
            ++it;
            continue;
        }
        if (chunk != nullptr) {
            freeSize += chunk->GetSize();
            DelMemChunk(chunk);
        }
        it = sysPrevMcMap.erase(it);
    }
    TAL_LOGD("QvCamMem %s, prevAllNeed %d(prevAllNeedPeak %d prevAll %d), freeSize %d\n", __func__,
             static_cast<int>(prevAllNeed), static_cast<int>(prevAllNeedPeak),
             static_cast<int>(prevAll), static_cast<int>(freeSize));
}

void TalMemPoolImpl::PreAllocPool(const MallocInfo& mallocInfo, const std::string& algoName)
{
    SysAlloc(mallocInfo, "PREALLOC:" + algoName, true);
}

void TalMemPoolImpl::ReleasePool(const MallocInfo& mallocInfo)
{
    for (auto it = preAllocPoolMcMap.begin(); it != preAllocPoolMcMap.end();) {
        TalMemChunk* chunk = it->second;
        if (chunk == nullptr || !SameRequest(chunk, mallocInfo) || !chunk->preAlloc) {
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
