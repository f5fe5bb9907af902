// Sizes and status lines: the pool size and used-size queries over the
// monitor's chunk indexes and the manager's containers, and PrintStatus.

// One concern of TalMemPoolMonitor: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemPoolMonitor.cpp"

#include "monitor/TalMemPoolMonitor.h"

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"

namespace qv {

namespace {
constexpr int kPreviewType = 1;
constexpr unsigned int kStatusFrame = 2;

inline bool IsPreview(TalMemChunk* chunk)
{
    return chunk->GetAllocateType() == kPreviewType;
}
} // namespace

unsigned int TalMemPoolMonitor::IdleAddrMapSize() const
{
    // The manager's reuse map keeps chunks after their release; only the idle
    // ones (third status word 0) are not counted elsewhere.
    unsigned int size = 0;
    if (chunkAddrMap != nullptr) {
        for (auto& entry : *chunkAddrMap) {
            if (entry.second != nullptr && entry.second->inUse == 0) {
                size += entry.second->GetSize();
            }
        }
    }
    return size;
}

unsigned int TalMemPoolMonitor::PoolChunksSize() const
{
    unsigned int size = 0;
    if (poolChunkList != nullptr) {
        for (TalMemChunk* chunk : *poolChunkList) {
            size += chunk->GetSize();
        }
    }
    return size;
}

unsigned int TalMemPoolMonitor::GetPoolSize(TAL_MEM_GETSIZE_TYPE type)
{
    switch (type) {
        case TAL_MEM_GETSIZE_IN_POOL:
            return PoolChunksSize();
        case TAL_MEM_GETSIZE_OUT_POOL:
            return OutPoolSize();
        case TAL_MEM_GETSIZE_ALL:
            return PoolChunksSize() + OutPoolSize();
        default:
            TAL_LOGE("QvCamMem %s() error: getSizeType %d no define\n", __func__,
                     static_cast<int>(type));
            return 0;
    }
}

unsigned int TalMemPoolMonitor::OutPoolSize() const
{
    unsigned int size = 0;
    for (auto& entry : outPoolChunkMap) {
        size += entry.second->GetSize();
    }
    return size + IdleAddrMapSize();
}

void TalMemPoolMonitor::GetInPoolUsedSize(unsigned int& size)
{
    for (auto& entry : inPoolChunkMap) {
        size += entry.second->GetSize();
    }
}

void TalMemPoolMonitor::GetOutPoolUsedSize(unsigned int& size)
{
    for (auto& entry : outPoolChunkMap) {
        size += entry.second->GetUsedSize();
    }
}

void TalMemPoolMonitor::GetCaptureUsedSize(unsigned int& size)
{
    for (const ChunkMap* map : {&inPoolChunkMap, &outPoolChunkMap}) {
        for (auto& entry : *map) {
            if (!IsPreview(entry.second)) {
                size += entry.second->GetSize();
            }
        }
    }
}

void TalMemPoolMonitor::GetAllCaptureSize(unsigned int& size)
{
    size += PoolChunksSize();
    for (auto& entry : outPoolChunkMap) {
        if (!IsPreview(entry.second)) {
            size += entry.second->GetSize();
        }
    }
    // Leaked pool chunks still sit inside the pools counted above.
    unsigned int pooLeakSize = 0;
    unsigned int outPooLeakSize = 0;
    for (TalMemChunk* chunk : leakChunkList) {
        if (chunk->GetPoolId() != 0) {
            pooLeakSize += chunk->GetSize();
        } else {
            outPooLeakSize += chunk->GetSize();
        }
    }
    if (size > pooLeakSize) {
        size -= pooLeakSize;
    }
    TAL_LOGD("QvCamMem pooLeakSize %zu outPooLeakSize %zu\n", static_cast<size_t>(pooLeakSize),
             static_cast<size_t>(outPooLeakSize));
}

void TalMemPoolMonitor::GetAllPreviewSize(unsigned int& size)
{
    for (auto& entry : outPoolChunkMap) {
        if (IsPreview(entry.second)) {
            size += entry.second->GetSize();
        }
    }
    size += IdleAddrMapSize();
}

void TalMemPoolMonitor::FillSizeWords(TalMemPoolSizeWords& words)
{
    words.poolSize = GetPoolSize(TAL_MEM_GETSIZE_IN_POOL);
    words.outPoolSize = GetPoolSize(TAL_MEM_GETSIZE_OUT_POOL);
    words.inPoolUsed = 0;
    GetInPoolUsedSize(words.inPoolUsed);
    words.outPoolUsed = 0;
    GetOutPoolUsedSize(words.outPoolUsed);
    words.captureUsed = usedSizeByType[0];
    words.previewUsed = usedSizeByType[1];
    words.othersUsed = usedSizeByType[2];
}

void TalMemPoolMonitor::PrintStatus(TAL_MEM_MONITOR_TYPE type, const std::string& algoName,
                                    unsigned int size, const char* sign, bool reachPeak)
{
    const char* typeName = MonitorType2str(type);
    const char* algo = algoName.c_str();
    const size_t algoSize = size;
    const size_t all = allSize, num = allNum, peak = allSizePeak, sys = SysSize, sysNum = SysNum;
    const size_t total = totalSize, totalN = totalNum, snapSys = snapSysSize, snapN = snapSysNum;
    if (InCrossing()) {
        TAL_LOGD("QvCamMem Crossing PoolStatus %-10s\t algoName:%-15s\t algoSize:%s%-10zu\t "
                 "allSize:%-10zu\t allNum:%zu\t allSizePeak:%-10zu\t SysSize:%-10zu\t SysNum:%zu\t "
                 "\n",
                 typeName, algo, sign, algoSize, all, num, peak, sys, sysNum);
    } else if (type == TAL_MEM_MONITOR_FRAME || type == TAL_MEM_MONITOR_EOS) {
        TAL_LOGD("QvCamMem SnapShotStatus %-10s\t totalSize:%-10zu\t totalNum:%-3zu\t "
                 "SysSize:%-10zu\t SysNum:%-3zu\t snapSizeSos2Frame:%-10zu\t sysSizePeak:%-10zu\t "
                 "peakSizeRatio:%-zu\t\n",
                 typeName, total, totalN, snapSys, snapN, static_cast<size_t>(snapSizeSos2Frame),
                 static_cast<size_t>(sysSizePeak), static_cast<size_t>(peakSizeRatio));
    } else if (type == TAL_MEM_MONITOR_SOS) {
        unsigned int captureUsed = 0;
        GetCaptureUsedSize(captureUsed);
        TAL_LOGD("QvCamMem PoolStatus %-10s\t totalCaptureUsed:%-10zu\t captureUsed:%-10zu\t "
                 "allSize:%-10zu\t allNum:%zu\t SysSize:%-10zu\t SysNum:%zu\t\n",
                 "SOS", static_cast<size_t>(usedSizeByType[0]), static_cast<size_t>(captureUsed),
                 all, num, sys, sysNum);
    } else if (!printRealtimePoolStatus) {
        return;
    } else if (CaptureStatus() != kStatusFrame) {
        // Outside frames the pool status is the interesting figure.
        TAL_LOGD("QvCamMem PoolStatus %-10s\t algoName:%-15s\t algoSize:%s%-10zu\t "
                 "allSize:%-10zu\tallNum:%zu\t allSizePeak:%-10zu\t SysSize:%-10zu\t SysNum:%zu\t "
                 "\n",
                 typeName, algo, sign, algoSize, all, num, peak, sys, sysNum);
    } else if (reachPeak) {
        TAL_LOGD("QvCamMem SnapShotStatus %-10s\t algoName:%-15s\t algoSize:%s%-10zu\t "
                 "totalSize:%-10zu\t totalNum:%-3zu\t SysSize:%-10zu\t SysNum:%-3zu\t "
                 "peakSize:%-10zu\t peakSizeRatio:%-zu\t \n",
                 typeName, algo, sign, algoSize, total, totalN, snapSys, snapN,
                 static_cast<size_t>(peakSize), static_cast<size_t>(peakSizeRatio));
    } else {
        TAL_LOGD("QvCamMem SnapShotStatus %-10s\t algoName:%-15s\t algoSize:%s%-10zu\t "
                 "totalSize:%-10zu\t totalNum:%-3zu\t SysSize:%-10zu\t SysNum:%-3zu\t \n",
                 typeName, algo, sign, algoSize, total, totalN, snapSys, snapN);
    }
}

} // namespace qv
