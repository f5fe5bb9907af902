// Usage accounting: construction, the event entry point, pool status and the
// per-capture snapshot account, the peak chunk list, sizes and status lines.

#include "monitor/TalMemPoolMonitor.h"

#include "common/TalLog.h"

namespace qv {

namespace {
constexpr const char* kMonitorTypeNames[] = {"PoolAlloc", "SysAlloc", "PoolFree", "SysFree",
                                             "SOS",       "Frame",    "EOS",      "Release",
                                             "Clear",     "Check"};
constexpr const char* kAllocateTypeNames[] = {"Capture", "Preview", "Others"};
constexpr const char* kCaptureStatusNames[] = {"STATUS_DEFAULT", "STATUS_SOS", "STATUS_FRAME",
                                               "STATUS_EOS"};
constexpr const char* kUnknownName = "Unknown";
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

int TalMemPoolMonitor::PoolMonitorInit(std::list<TalMemChunk*>& poolChunks, ChunkMap& chunkMap)
{
    poolChunkList = &poolChunks;
    chunkAddrMap = &chunkMap;
    ReadProperties();
    return 0;
}

} // namespace qv
