// Dumps and debug properties: the three print switches, GetMemDumpInfo and
// the printers of the report lists.

// One concern of TalMemPoolMonitor: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemPoolMonitor.cpp"

#include "monitor/TalMemPoolMonitor.h"

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"
#include "securec.h"
#include "talmem_properties.h"

namespace qv {

namespace {
constexpr int kDumpError = 0;
constexpr int kDumpRealtime = 1;
constexpr int kDumpPoolChunks = 2;

struct PropertySwitch {
    const char* key;
    bool TalMemPoolMonitor::*flag;
    const char* name; // the switch's name as its "enabled" line shows it
};
} // namespace

void TalMemPoolMonitor::ReadProperties()
{
    const PropertySwitch switches[] = {
        {"persist.vendor.talmem.prt.rtalgoinfo", &TalMemPoolMonitor::printRealtimeAlgoInfo,
         "printRealtimeAlgoInfo"},
        {"persist.vendor.talmem.prt.rtpoolstatus", &TalMemPoolMonitor::printRealtimePoolStatus,
         "printRealtimePoolStatus"},
        {"persist.vendor.talmem.prt.pksizemclist", &TalMemPoolMonitor::printPeakSizeMemChunkList,
         "printPeakSizeMemChunkList"},
    };
    for (const PropertySwitch& sw : switches) {
        char value[PROPERTY_VALUE_MAX];
        (void)memset_s(value, sizeof(value), 0, sizeof(value));
        (void)property_get(sw.key, value, "0");
        if (value[0] == '1') {
            this->*sw.flag = true;
            TAL_LOGD("QvCamMem %s %s enabled\n", __func__, sw.name);
        }
    }
}

void* TalMemPoolMonitor::GetMemDumpInfo(int dumpType)
{
    switch (dumpType) {
        case kDumpError:
            DumpMemErrorInfo();
            return &memDumpInfo;
        case kDumpRealtime:
            DumpMemRealtimeInfo();
            return &memRealtimeInfo;
        case kDumpPoolChunks:
            break;
        default:
            TAL_LOGE("QvCamMem %s() error: dumpType %d no define\n", __func__, dumpType);
            return nullptr;
    }
    // Type 2 only logs the pool chunks: leaked ones first, then live ones.
    if (InCrossing()) {
        TAL_LOGD("in crossing state don't need to print pool chunk info\n");
        return nullptr;
    }
    for (TalMemChunk* chunk : leakChunkList) {
        if (chunk->GetPoolId() != 0) {
            TAL_LOGD("poolLeakChunk: poolId %d addr 0x%lx size %zu algoName %s\n",
                     chunk->GetPoolId(), TalMaskAddr(chunk->GetAddr()),
                     static_cast<size_t>(chunk->GetSize()), chunk->GetAlgoName().c_str());
        }
    }
    for (auto& entry : inPoolChunkMap) {
        TalMemChunk* chunk = entry.second;
        TAL_LOGD("poolChunk: poolId %d addr 0x%lx size %zu algoName %s\n", chunk->GetPoolId(),
                 TalMaskAddr(chunk->GetAddr()), static_cast<size_t>(chunk->GetSize()),
                 chunk->GetAlgoName().c_str());
    }
    return nullptr;
}

void TalMemPoolMonitor::DumpMemRealtimeInfo()
{
    std::list<TalMemPoolAlgoInfo>* lists[kAllocTypeNum] = {
        &memRealtimeInfo.captureList, &memRealtimeInfo.previewList, &memRealtimeInfo.othersList};
    for (int t = 0; t < kAllocTypeNum; ++t) {
        lists[t]->clear();
        for (const AlgoMemInfo& info : algoInfoList[t]) {
            TalMemPoolAlgoInfo record;
            record.algoName = info.algoName;
            record.usedSizeCurrent = static_cast<int>(info.usedSizeCurrent);
            record.peakUsedSize = static_cast<int>(info.usedSizePeak);
            lists[t]->push_back(record);
        }
    }
    TalMemPoolRealtimeInfo& rt = memRealtimeInfo;
    FillSizeWords(rt);
    rt.captureSize = 0;
    GetAllCaptureSize(rt.captureSize);
    rt.previewSize = 0;
    GetAllPreviewSize(rt.previewSize);
    TAL_LOGD("QvCamMem %s(): captureStatus:(%s) poolSize(%zu), outPoolSize(%zu), inPoolUsed(%zu), "
             "outPoolUsed(%zu)\n",
             __func__, CaptureStatus2str(CaptureStatus()), static_cast<size_t>(rt.poolSize),
             static_cast<size_t>(rt.outPoolSize), static_cast<size_t>(rt.inPoolUsed),
             static_cast<size_t>(rt.outPoolUsed));
    TAL_LOGD("QvCamMem %s(): captureSize:(%zu), previewSize(%zu), captureUsed(%zu), "
             "previewUsed(%zu), othersUsed(%zu)\n",
             __func__, static_cast<size_t>(rt.captureSize), static_cast<size_t>(rt.previewSize),
             static_cast<size_t>(rt.captureUsed), static_cast<size_t>(rt.previewUsed),
             static_cast<size_t>(rt.othersUsed));
    PrintAlgoInfoList(rt.captureList, "memRealtimeInfo.captureList");
    PrintAlgoInfoList(rt.previewList, "memRealtimeInfo.previewList");
    PrintAlgoInfoList(rt.othersList, "memRealtimeInfo.othersList");
}

void TalMemPoolMonitor::GetChunkInfo(ChunkMap& chunks, TalMemPoolDumpInfo& info)
{
    for (auto& entry : chunks) {
        TalMemPoolChunkInfo record = MakeChunkInfo(entry.second, entry.second->GetSize());
        switch (record.allocateType) {
            case 0:
                info.captureList.push_back(record);
                break;
            case 1:
                info.previewList.push_back(record);
                break;
            default:
                info.othersList.push_back(record);
                break;
        }
    }
}

void TalMemPoolMonitor::PrintChunkInfoList(std::list<TalMemPoolChunkInfo>& list,
                                           std::string title)
{
    int number = 0;
    for (const TalMemPoolChunkInfo& info : list) {
        TAL_LOGD("QvCamMem %s [%d/%d]: algoName(%s), moduleName(%s), allocateType(%d), "
                 "addr(0x%lx), size(%zu), usedAgeInMs(%d)\n",
                 title.c_str(), ++number, static_cast<int>(list.size()), info.algoName.c_str(),
                 info.moduleName.c_str(), info.allocateType,
                 TalMaskAddr(static_cast<uintptr_t>(info.addr)), info.size, info.usedAgeInMs);
    }
}

void TalMemPoolMonitor::PrintAlgoInfoList(std::list<TalMemPoolAlgoInfo>& list, std::string title)
{
    int number = 0;
    for (const TalMemPoolAlgoInfo& info : list) {
        TAL_LOGD("QvCamMem %s [%d/%d]: algoName:%-20s\t usedSizeCurrent:%-10d\t "
                 "peakUsedSize:%-10d\t\n",
                 title.c_str(), ++number, static_cast<int>(list.size()), info.algoName.c_str(),
                 info.usedSizeCurrent, info.peakUsedSize);
    }
}

} // namespace qv
