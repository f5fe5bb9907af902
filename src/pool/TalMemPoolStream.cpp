// Stream events, post-processing state and control commands: learning at
// stream end, pool checks, release commands and cache maintenance.

// One concern of TalMemPoolImpl: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemPoolImpl.cpp"

#include "pool/TalMemPoolImpl.h"

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"
#include "interface/Adapter.h"

namespace qv {

namespace {

constexpr int32_t kPpTypeNum = 4;
constexpr int32_t kPpStateMin = 1;
constexpr int32_t kPpStateMax = 5;
constexpr int32_t kPpUpdateLeave = 1; // a type left the crossing state
constexpr int32_t kPpUpdateEnter = 2; // a type entered it
constexpr int32_t kCtrlReleaseMultiPools = TAL_MEM_IOCTL_RELEASE_MULTI_POOLS;
constexpr int32_t kCtrlPrevForceFree = TAL_MEM_IOCTL_PREVIEW_FORCE_FREE;
constexpr int32_t kCtrlVideoState = TAL_MEM_IOCTL_VIDEO_STATE;
constexpr int32_t kCtrlFillIBuf = TAL_MEM_CTRL_FILL_IBUF;
constexpr int32_t kCacheFlush = TAL_MEM_CTRL_CACHE_FLUSH;
constexpr int32_t kCacheInvalidate = TAL_MEM_CTRL_CACHE_INVALIDATE;

// Chunk of `map` whose range holds `address` (inclusive at its base), or null.
TalMemChunk* FindContaining(TalChunkMap& map, uintptr_t address)
{
    for (auto& entry : map) {
        uintptr_t base = reinterpret_cast<uintptr_t>(entry.first);
        TalMemChunk* chunk = entry.second;
        // Measured by the buffer itself: a chunk made by geometry has GetSize() 0.
        if (chunk != nullptr && base <= address && address - base < chunk->GetBufferSize()) {
            return chunk;
        }
    }
    return nullptr;
}

} // namespace

void TalMemPoolImpl::OnSos()
{
    streamState = 1;
    monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_SOS, nullptr);
    PrevForceFree();
}

void TalMemPoolImpl::OnFrame()
{
    streamState = 2;
    monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_FRAME, nullptr);
}

void TalMemPoolImpl::OnEos()
{
    UpdatePeakSize();
    monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_EOS, nullptr);
    streamState = 3;
    for (TalMemChunk* pool : poolChunkList) {
        talMem.CheckFatalAddr(reinterpret_cast<uintptr_t>(pool->GetAddr()));
    }
}

void TalMemPoolImpl::UpdatePPState(int32_t ppType, int32_t state)
{
    if (state < kPpStateMin || state > kPpStateMax) {
        TAL_LOGE("QvCamMem %s, ERROR! ppType %d \n", __func__, state);
        return;
    }
    if (ppType < 0 || ppType >= kPpTypeNum) {
        TAL_LOGE("QvCamMem %s, ERROR! ppType %d \n", __func__, ppType);
        return;
    }
    ppState[ppType] = static_cast<uint8_t>(state);
    if (state == kPpUpdateLeave || state == kPpUpdateEnter) {
        UpdatePPCrossing(state);
    }
}

void TalMemPoolImpl::UpdatePPCrossing(int32_t ppUpdateType)
{
    int twos = 0;
    for (uint8_t s : ppState) {
        twos += (s == 2) ? 1 : 0;
    }
    if (ppUpdateType == kPpUpdateLeave) {
        if (ppCrossing && twos == 0) {
            ppCrossing = false;
            TAL_LOGD("QvCamMem %s ppCrossing changed to %d\n", __func__, ppCrossing ? 1 : 0);
        }
    } else if (ppUpdateType == kPpUpdateEnter) {
        if (!ppCrossing && twos >= 2) {
            ppCrossing = true;
            monitor.ClearAlgoInfo();
            TAL_LOGD("QvCamMem %s ppCrossing changed to %d\n", __func__, ppCrossing ? 1 : 0);
        }
    } else {
        TAL_LOGE("QvCamMem %s unsupported parameter ppUpdateType:%d\n", __func__, ppUpdateType);
    }
}

void TalMemPoolImpl::ClearPPState(int32_t ppType)
{
    // Types are paired on purpose: 0 with 2, 1 with 3.
    if (ppType == 0 || ppType == 2) {
        ppState[0] = 0;
        ppState[2] = 0;
    } else if (ppType == 1 || ppType == 3) {
        ppState[1] = 0;
        ppState[3] = 0;
    } else {
        TAL_LOGE("QvCamMem %s unsupported ppType:%d\n", __func__, ppType);
    }
}

void TalMemPoolImpl::MemPoolCtrl(int32_t cmd, const void* input)
{
    if (cmd == kCtrlVideoState) {
        int32_t videState = input != nullptr ? *static_cast<const int32_t*>(input) : 0;
        TAL_LOGD("QvCamMem %s, videState %d\n", __func__, videState);
        if (videState == 0) {
            return;
        }
        // Ids are tried by the count of pools at the command, not by the ids present.
        const int32_t count = static_cast<int32_t>(poolChunkList.size());
        for (int32_t id = 1; id <= count; ++id) {
            PoolDestroyImpl(id);
        }
        TAL_LOGD("QvCamMem %s, release allPools done\n", __func__);
    } else if (cmd == kCtrlPrevForceFree) {
        TAL_LOGD("QvCamMem %s, prevForceFree  \n", __func__);
        PrevForceFree();
        prevAllNeedPeak = prevAllNeed;
    } else if (cmd == kCtrlReleaseMultiPools) {
        TAL_LOGD("QvCamMem %s, release MultiPools\n", __func__);
        const int32_t count = static_cast<int32_t>(poolChunkList.size());
        for (int32_t id = 2; id <= count; ++id) {
            PoolDestroyImpl(id);
        }
        TAL_LOGD("QvCamMem %s, release MultiPools done\n", __func__);
    } else {
        TAL_LOGE("unsupport cmd: %d 0x%lx\n", cmd, TalMaskAddr(input));
    }
}

int32_t TalMemPoolImpl::MemPoolCtrl(int32_t cmd, const void* input, void* output)
{
    if (cmd == kCacheFlush || cmd == kCacheInvalidate) {
        if (input == nullptr) {
            TAL_LOGE("%s ERROR. input 0x%lx\n", __func__, TalMaskAddr(input));
            return -1;
        }
        const TalCacheRange* range = static_cast<const TalCacheRange*>(input);
        return MemPoolCacheSync(cmd, range->address, range->size);
    }
    if (cmd == kCtrlFillIBuf) {
        if (input == nullptr || output == nullptr) {
            TAL_LOGE("%s ERROR. input 0x%lx, output 0x%lx\n", __func__, TalMaskAddr(input),
                     TalMaskAddr(output));
            return -1;
        }
        convert2IBuf(static_cast<qva_ibuf*>(output), const_cast<void*>(input));
        return 0;
    }
    TAL_LOGE("%s ERROR. unsupport cmd: %d \n", __func__, cmd);
    return -1;
}

int32_t TalMemPoolImpl::MemPoolCacheSync(int32_t cmd, uintptr_t address, uint32_t size)
{
    if (address == 0 || size == 0) {
        TAL_LOGE("QvCamMem enter %s(%d) cmd %d pAddr 0x%lx size %d \n", __func__, 1, cmd,
                 TalMaskAddr(address), static_cast<int>(size));
        return -1;
    }
    for (TalMemChunk* pool : poolChunkList) {
        uintptr_t base = reinterpret_cast<uintptr_t>(pool->GetAddr());
        if (base <= address && address < base + pool->GetSize()) {
            return CacheSync(pool, cmd, address, size);
        }
    }
    return SysAllocCacheSync(cmd, address, size);
}

int32_t TalMemPoolImpl::SysAllocCacheSync(int32_t cmd, uintptr_t address, uint32_t size)
{
    TalMemChunk* chunk = FindContaining(sysMcMap, address);
    if (chunk != nullptr) {
        return CacheSync(chunk, cmd, address, size);
    }
    int site = 2;
    for (TalChunkMap* map : {&sysPrevMcMap, &preAllocPoolMcMap}) {
        chunk = FindContaining(*map, address);
        if (chunk == nullptr) {
            ++site;
            continue;
        }
        if (chunk->inUse == 1) {
            return CacheSync(chunk, cmd, address, size);
        }
        TAL_LOGE("QvCamMem enter %s(%d) cmd %d pAddr 0x%lx had been released\n", __func__, site,
                 cmd, TalMaskAddr(address));
        return -1;
    }
    TAL_LOGW("QvCamMem enter %s(%d) cmd %d invalid pAddr 0x%lx size %d \n", __func__, 4, cmd,
             TalMaskAddr(address), static_cast<int>(size));
    return -1;
}

int32_t TalMemPoolImpl::CacheSync(TalMemChunk* chunk, int32_t cmd, uintptr_t address,
                                  uint32_t size)
{
    if (cmd == kCacheInvalidate) {
        return chunk->InvalidateCacheLocal(address, size);
    }
    if (cmd == kCacheFlush) {
        return chunk->FlushCacheLocal(address, size);
    }
    return -1;
}

} // namespace qv
