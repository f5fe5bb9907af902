// Usage accounting: construction, the event entry point, the pool status
// counters, the per-capture snapshot account with its peak detector, the
// size queries and the status lines.

#include "monitor/TalMemPoolMonitor.h"

#include <cstdlib>

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"
#include "pool/TalMemPoolImpl.h"

namespace qv {

namespace {
constexpr const char* kMonitorTypeNames[] = {"PoolAlloc", "SysAlloc", "PoolFree", "SysFree",
                                             "SOS",       "Frame",    "EOS",      "Release",
                                             "Clear",     "Check"};
constexpr const char* kAllocateTypeNames[] = {"Capture", "Preview", "Others"};
constexpr const char* kCaptureStatusNames[] = {"STATUS_DEFAULT", "STATUS_SOS", "STATUS_FRAME",
                                               "STATUS_EOS"};
constexpr const char* kUnknownName = "Unknown";
// Algorithm name of events that carry no chunk.
const std::string kDefaultAlgoName = "default";

constexpr unsigned int kStatusSos = 1;
constexpr unsigned int kStatusFrame = 2;
// 100 percent times 2^13: with the pool size in MiB and the used size in KiB,
// (KiB * recip) >> 23 is the used share in percent.
constexpr uint32_t kRecipScale = 819200;
constexpr uint32_t kRatioRound = 0x400000;
constexpr uint32_t kRatioShift = 23;
constexpr uint32_t kMinRatioPoolSize = 0xFFFFF;

// Snapshot counters never go below zero.
inline void SubClamped(unsigned int& value, unsigned int amount)
{
    value = value < amount ? 0 : value - amount;
}
inline void DecClamped(unsigned int& count)
{
    if (count > 0) {
        --count;
    }
}
} // namespace

TalMemPoolMonitor::TalMemPoolMonitor(TalMemPoolImpl* impl)
    : poolImpl(impl), poolChunkList(nullptr), chunkAddrMap(nullptr), usedSizeByType{},
      mLeakedSizeByType{}, allocatorRef{}, mLeakedNumOnce(0), allSize(0), SysSize(0), allNum(0),
      SysNum(0), allSizePeak(0), totalSize(0), peakSize(0), peakSizeRatio(0), snapInPoolSize(0),
      snapSysSize(0), sysSizePeak(0), snapSysNum(0), totalNum(0), sosAllSize(0), sosAllNum(0),
      frameAllSize(0), frameAllNum(0), snapSizeSos2Frame(0), snapSysSizeSos2Frame(0),
      printRealtimePoolStatus(false), printRealtimeAlgoInfo(false),
      printPeakSizeMemChunkList(false), recipOfPoolSize(0)
{
    inPoolChunkMap.max_load_factor(1.0f);
    outPoolChunkMap.max_load_factor(1.0f);
}

TalMemPoolMonitor::~TalMemPoolMonitor()
{
    TAL_LOGI("enter %s()\n", "~TalMemPoolMonitor");
}

const char* TalMemPoolMonitor::MonitorType2str(int type)
{
    // Negative values fail the unsigned bound as well.
    if (static_cast<unsigned int>(type) <= static_cast<unsigned int>(TAL_MEM_MONITOR_CHECK)) {
        return kMonitorTypeNames[type];
    }
    return kUnknownName;
}

const char* TalMemPoolMonitor::AllocateType2str(int allocateType)
{
    if (allocateType >= 0 && allocateType < kAllocTypeNum) {
        return kAllocateTypeNames[allocateType];
    }
    return kUnknownName;
}

const char* TalMemPoolMonitor::CaptureStatus2str(unsigned int status)
{
    if (status < sizeof(kCaptureStatusNames) / sizeof(kCaptureStatusNames[0])) {
        return kCaptureStatusNames[status];
    }
    return kUnknownName;
}

void TalMemPoolMonitor::CheckTypeIndex(int allocateType, const char* func)
{
    // The per-type arrays have three entries; callers validate first, so an
    // index outside them is a programming error that must not corrupt memory.
    if (allocateType < 0 || allocateType >= kAllocTypeNum) {
        TAL_LOGE_FOR(func, "QvCamMem %s, ERROR! allocateType %d out of range [0, %d), abort\n",
                     func, allocateType, kAllocTypeNum);
        std::abort();
    }
}

unsigned int TalMemPoolMonitor::CaptureStatus() const
{
    return poolImpl != nullptr ? poolImpl->streamState : 0;
}

bool TalMemPoolMonitor::InCrossing() const
{
    return poolImpl != nullptr && poolImpl->ppCrossing;
}

int TalMemPoolMonitor::PoolMonitorInit(std::list<TalMemChunk*>& poolChunks, ChunkMap& chunkMap)
{
    poolChunkList = &poolChunks;
    chunkAddrMap = &chunkMap;
    ReadProperties();
    return 0;
}

void TalMemPoolMonitor::UpdateMemoryStatus(TAL_MEM_MONITOR_TYPE type, TalMemChunk* chunk)
{
    std::string algoName = kDefaultAlgoName;
    const char* sign =
        (type == TAL_MEM_MONITOR_POOL_FREE || type == TAL_MEM_MONITOR_SYS_FREE) ? "-" : "+";
    unsigned int captureStatus = 0;
    unsigned int size = 0;
    int allocateType = 0;
    int forceFromSys = 0;
    if (chunk != nullptr) {
        captureStatus = chunk->streamState;
        size = chunk->GetUsedSize();
        algoName = chunk->GetAlgoName();
        allocateType = chunk->GetAllocateType();
        forceFromSys = chunk->GetForceFromSys();
        if (allocateType < 0 || allocateType >= kAllocTypeNum) {
            TAL_LOGE("QvCamMem %s(), allocatetype = %d error.\n", __func__, allocateType);
            allocateType = 0;
        }
    }
    MemChunkListUpdate(type, chunk);
    UpdatePoolStatus(type, allocateType, size);
    if (InCrossing()) {
        // A post-processing crossing counts pool totals only.
        PrintStatus(type, algoName, size, sign, false);
        return;
    }
    bool reachPeak = false;
    UpdateSnapShotStatus(type, size, captureStatus, reachPeak);
    UpdateAlgoMemInfo(type, allocateType, algoName, size, forceFromSys);
    PrintStatus(type, algoName, size, sign, reachPeak);
}

void TalMemPoolMonitor::MemChunkListUpdate(TAL_MEM_MONITOR_TYPE type, TalMemChunk* chunk)
{
    if (chunk == nullptr) {
        return;
    }
    switch (type) {
        case TAL_MEM_MONITOR_POOL_ALLOC:
            inPoolChunkMap.emplace(chunk->GetAddr(), chunk); // an existing key is kept
            break;
        case TAL_MEM_MONITOR_SYS_ALLOC:
            outPoolChunkMap.emplace(chunk->GetAddr(), chunk);
            break;
        case TAL_MEM_MONITOR_POOL_FREE:
            inPoolChunkMap.erase(chunk->GetAddr());
            RemoveLeakRecord(chunk);
            break;
        case TAL_MEM_MONITOR_SYS_FREE:
            outPoolChunkMap.erase(chunk->GetAddr());
            RemoveLeakRecord(chunk);
            break;
        default:
            TAL_LOGD("QvCamMem unknow monitor type %d\n", static_cast<int>(type));
            break;
    }
}

void TalMemPoolMonitor::UpdatePoolStatus(TAL_MEM_MONITOR_TYPE type, int allocateType,
                                         unsigned int size)
{
    const bool sys = (type == TAL_MEM_MONITOR_SYS_ALLOC || type == TAL_MEM_MONITOR_SYS_FREE);
    if (type == TAL_MEM_MONITOR_POOL_ALLOC || type == TAL_MEM_MONITOR_SYS_ALLOC) {
        CheckTypeIndex(allocateType, __func__);
        allSize += size;
        allNum += 1;
        usedSizeByType[allocateType] += size;
        allSizePeak = allSize > allSizePeak ? allSize : allSizePeak;
        if (sys) {
            SysSize += size;
            SysNum += 1;
        }
    } else if (type == TAL_MEM_MONITOR_POOL_FREE || type == TAL_MEM_MONITOR_SYS_FREE) {
        // Unguarded on purpose: an unbalanced release shows up as a wrapped total.
        CheckTypeIndex(allocateType, __func__);
        allSize -= size;
        allNum -= 1;
        usedSizeByType[allocateType] -= size;
        if (sys) {
            SysSize -= size;
            SysNum -= 1;
        }
    }
}

void TalMemPoolMonitor::UpdateSnapShotStatus(TAL_MEM_MONITOR_TYPE type, unsigned int size,
                                             unsigned int captureStatus, bool& reachPeak)
{
    switch (type) {
        case TAL_MEM_MONITOR_POOL_ALLOC:
        case TAL_MEM_MONITOR_SYS_ALLOC:
            AllocUpdate(type, size, reachPeak);
            break;
        case TAL_MEM_MONITOR_POOL_FREE:
        case TAL_MEM_MONITOR_SYS_FREE:
            FreeUpdate(type, size, captureStatus);
            break;
        case TAL_MEM_MONITOR_SOS:
            snapSizeSos2Frame = 0;
            snapSysSizeSos2Frame = 0;
            peakSizeRatio = 0;
            sosAllSize = allSize;
            sosAllNum = allNum;
            break;
        case TAL_MEM_MONITOR_FRAME:
            FrameUpdate();
            break;
        case TAL_MEM_MONITOR_EOS:
            PrintPeakSizeMemListInfo();
            break;
        default:
            TAL_LOGD("QvCamMem unknow monitor type %d\n", static_cast<int>(type));
            break;
    }
}

void TalMemPoolMonitor::AllocUpdate(TAL_MEM_MONITOR_TYPE type, unsigned int size, bool& reachPeak)
{
    const unsigned int state = CaptureStatus();
    if (type == TAL_MEM_MONITOR_SYS_ALLOC) {
        if (state == kStatusSos) {
            snapSizeSos2Frame += size;
            snapSysSizeSos2Frame += size;
            return;
        }
        if (state != kStatusFrame) {
            return;
        }
        snapSysNum += 1;
        totalNum += 1;
        totalSize += size;
        snapSysSize += size;
        sysSizePeak = snapSysSize > sysSizePeak ? snapSysSize : sysSizePeak;
        reachPeak = ReachPeak();
    } else if (type == TAL_MEM_MONITOR_POOL_ALLOC) {
        // Pool allocations count whatever the stream state.
        totalSize += size;
        totalNum += 1;
        snapInPoolSize += size;
        reachPeak = ReachPeak();
    } else {
        TAL_LOGD("QvCamMem unknow monitor type %d\n", static_cast<int>(type));
    }
}

void TalMemPoolMonitor::FreeUpdate(TAL_MEM_MONITOR_TYPE type, unsigned int size,
                                   unsigned int chunkStatus)
{
    const unsigned int state = CaptureStatus();
    if (type == TAL_MEM_MONITOR_SYS_FREE) {
        if (state == kStatusSos) {
            SubClamped(snapSizeSos2Frame, size);
            SubClamped(snapSysSizeSos2Frame, size);
            return;
        }
        if (state != kStatusFrame) {
            return;
        }
        // Only a direct release asks when its chunk was allocated.
        if (chunkStatus == kStatusFrame) {
            DecClamped(snapSysNum);
            DecClamped(totalNum);
            SubClamped(totalSize, size);
            SubClamped(snapSysSize, size);
        } else if (chunkStatus == kStatusSos) {
            SubClamped(snapSizeSos2Frame, size);
        }
    } else if (type == TAL_MEM_MONITOR_POOL_FREE) {
        if (state == kStatusSos) {
            SubClamped(snapSizeSos2Frame, size);
        } else if (state == kStatusFrame) {
            DecClamped(totalNum);
            SubClamped(totalSize, size);
            SubClamped(snapInPoolSize, size);
        }
    } else {
        TAL_LOGD("QvCamMem unknow monitor type %d\n", static_cast<int>(type));
    }
}

void TalMemPoolMonitor::FrameUpdate()
{
    peakSizeMemChunkList.clear();
    unsigned int inPool = 0;
    GetInPoolUsedSize(inPool);
    totalSize = 0;
    peakSize = 0;
    snapSysSize = 0;
    sysSizePeak = 0;
    snapSysNum = 0;
    totalNum = 0;
    frameAllSize = allSize;
    frameAllNum = allNum;
    peakSizeRatio = Ratio(inPool);
    snapInPoolSize = inPool;
}

bool TalMemPoolMonitor::ReachPeak()
{
    if (totalSize <= peakSize) {
        return false;
    }
    peakSize = totalSize;
    // The share reported is the in-pool part, not the new peak itself.
    peakSizeRatio = Ratio(snapInPoolSize);
    if (printPeakSizeMemChunkList) {
        UpdatePeakSizeMemListInfo();
    }
    return true;
}

unsigned int TalMemPoolMonitor::Ratio(unsigned int bytes) const
{
    const uint32_t kib = static_cast<uint32_t>(bytes) >> 10;
    return static_cast<unsigned int>((kib * recipOfPoolSize + kRatioRound) >> kRatioShift);
}

void TalMemPoolMonitor::UpdateRecipOfPoolSize()
{
    const uint32_t poolSize = GetPoolSize(TAL_MEM_GETSIZE_IN_POOL);
    recipOfPoolSize = poolSize > kMinRatioPoolSize ? kRecipScale / (poolSize >> 20) : 0;
}

TalMemPoolChunkInfo TalMemPoolMonitor::MakeChunkInfo(TalMemChunk* chunk, size_t size)
{
    TalMemPoolChunkInfo info;
    info.algoName = chunk->GetAlgoName();
    info.moduleName = chunk->GetModuleName();
    info.allocateType = chunk->GetAllocateType();
    info.addr = static_cast<unsigned long>(reinterpret_cast<uintptr_t>(chunk->GetAddr()));
    info.size = size;
    info.usedAgeInMs = 0;
    return info;
}

void TalMemPoolMonitor::UpdatePeakSizeMemListInfo()
{
    peakSizeMemChunkList.clear();
    for (auto& entry : inPoolChunkMap) {
        peakSizeMemChunkList.push_back(MakeChunkInfo(entry.second, entry.second->GetSize()));
    }
    for (auto& entry : outPoolChunkMap) {
        peakSizeMemChunkList.push_back(MakeChunkInfo(entry.second, entry.second->GetUsedSize()));
    }
}

void TalMemPoolMonitor::PrintPeakSizeMemListInfo()
{
    if (!printPeakSizeMemChunkList) {
        return;
    }
    for (const TalMemPoolChunkInfo& info : peakSizeMemChunkList) {
        TAL_LOGD("CamMem EOS printPeakSizeMemChunkList algoName:%s moduleName:%s allocateType:%d "
                 "addr:0x%lx size:%zu\n",
                 info.algoName.c_str(), info.moduleName.c_str(), info.allocateType,
                 TalMaskAddr(static_cast<uintptr_t>(info.addr)), info.size);
    }
}

} // namespace qv
