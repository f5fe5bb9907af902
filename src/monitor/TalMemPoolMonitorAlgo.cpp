// Per-algorithm accounting: one list of AlgoMemInfo records per allocate
// type, updated by allocations, releases and stream events, summarised and
// pruned at end of stream, erased and checked when allocators leave.

// One concern of TalMemPoolMonitor: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemPoolMonitor.cpp"

#include "monitor/TalMemPoolMonitor.h"

#include <cstring>

#include "common/TalLog.h"
#include "securec.h"

namespace qv {

namespace {
// Names are compared over the characters a record can hold.
constexpr size_t kNameCompareLen = AlgoMemInfo::kNameSize - 1;

inline bool NameMatches(const AlgoMemInfo& info, const std::string& name)
{
    return strncmp(info.algoName, name.c_str(), kNameCompareLen) == 0;
}
inline void RaiseTo(uint32_t& peak, uint32_t value)
{
    peak = value > peak ? value : peak;
}
inline void SubClamped(uint32_t& value, uint32_t amount)
{
    value = value < amount ? 0 : value - amount;
}
} // namespace

std::list<AlgoMemInfo>& TalMemPoolMonitor::AlgoList(int allocateType, const char* func)
{
    CheckTypeIndex(allocateType, func);
    return algoInfoList[allocateType];
}

AlgoMemInfo* TalMemPoolMonitor::FindAlgo(int allocateType, const std::string& algoName,
                                         const char* func)
{
    for (AlgoMemInfo& info : AlgoList(allocateType, func)) {
        if (NameMatches(info, algoName)) {
            return &info;
        }
    }
    return nullptr;
}

void TalMemPoolMonitor::UpdateAlgoMemInfo(TAL_MEM_MONITOR_TYPE type, int allocateType,
                                          std::string algoName, unsigned int size,
                                          int forceFromSys)
{
    switch (type) {
        case TAL_MEM_MONITOR_POOL_ALLOC:
        case TAL_MEM_MONITOR_SYS_ALLOC:
            AllocUpdateAlgoInfo(allocateType, algoName, size, forceFromSys);
            break;
        case TAL_MEM_MONITOR_POOL_FREE:
        case TAL_MEM_MONITOR_SYS_FREE:
            FreeUpdateAlgoInfo(allocateType, algoName, size, forceFromSys);
            break;
        case TAL_MEM_MONITOR_SOS:
            SosUpdateAlgoInfo();
            break;
        case TAL_MEM_MONITOR_FRAME:
            FrameUpdateAlgoInfo();
            break;
        case TAL_MEM_MONITOR_EOS:
            DumpAlgoMemInfo(TAL_MEM_COUNT_EOS);
            break;
        case TAL_MEM_MONITOR_RELEASE:
            ReleaseUpdateAlgoInfo(allocateType, algoName);
            break;
        case TAL_MEM_MONITOR_CLEAR:
            AlgoList(allocateType, __func__).clear();
            break;
        case TAL_MEM_MONITOR_CHECK:
            CheckUpdateAlgoInfo(allocateType);
            break;
        default:
            TAL_LOGE("QvCamMem %s() error: countType %d no define\n", __func__,
                     static_cast<int>(type));
            break;
    }
}

void TalMemPoolMonitor::InitAlgoInfo(AlgoMemInfo& info, const std::string& algoName,
                                     unsigned int size, int forceFromSys)
{
    // Longer names are cut to what the record holds.
    if (strncpy_s(info.algoName, sizeof(info.algoName), algoName.c_str(), kNameCompareLen) != 0) {
        TAL_LOGE("%s:strncpy_s data failed\n", __func__);
    }
    info.algoName[AlgoMemInfo::kNameSize - 1] = '\0';
    info.usedSizeCurrent = size;
    info.usedChunkNum = 1;
    info.usedSizePeak = size;
    info.sizeOnSos = 0;
    info.sizeOnFrame = 0;
    info.allocNumFrame = 1;
    info.freeNumFrame = 0;
    info.sizeFrame2Eos = size;
    info.peakSizeFrame2Eos = size;
    info.sizeSos2Eos = size;
    info.peakSizeSos2Eos = size;
    info.poolSizeFrame2Eos = forceFromSys == 0 ? size : 0;
    info.poolPeakFrame2Eos = info.poolSizeFrame2Eos;
    info.keepOnEos = 0;
}

void TalMemPoolMonitor::AllocUpdateAlgoInfo(int allocateType, const std::string& algoName,
                                            unsigned int size, int forceFromSys)
{
    AlgoMemInfo* info = FindAlgo(allocateType, algoName, __func__);
    if (info != nullptr) {
        info->usedSizeCurrent += size;
        info->usedChunkNum += 1;
        RaiseTo(info->usedSizePeak, info->usedSizeCurrent);
        if (forceFromSys == 0) {
            info->poolSizeFrame2Eos += size;
            RaiseTo(info->poolPeakFrame2Eos, info->poolSizeFrame2Eos);
        }
        info->allocNumFrame += 1;
        info->sizeFrame2Eos += size;
        RaiseTo(info->peakSizeFrame2Eos, info->sizeFrame2Eos);
        info->sizeSos2Eos += size;
        RaiseTo(info->peakSizeSos2Eos, info->sizeSos2Eos);
    } else {
        AlgoMemInfo record;
        InitAlgoInfo(record, algoName, size, forceFromSys);
        algoInfoList[allocateType].push_back(record);
    }
    if (printRealtimeAlgoInfo) {
        DumpAlgoMemInfo(TAL_MEM_COUNT_REALTIME);
    }
}

void TalMemPoolMonitor::FreeUpdateAlgoInfo(int allocateType, const std::string& algoName,
                                           unsigned int size, int forceFromSys)
{
    AlgoMemInfo* info = FindAlgo(allocateType, algoName, __func__);
    if (info == nullptr) {
        TAL_LOGE("QvCamMem dumpMemInfo %s, case COUNT_FREE: not found in AlgoMemInfo list. "
                 "algoName=%s size=%zu\n",
                 __func__, algoName.c_str(), static_cast<size_t>(size));
        return;
    }
    // Current use wraps on an unbalanced release so that it shows in the logs.
    info->usedSizeCurrent -= size;
    info->usedChunkNum -= 1;
    if (forceFromSys == 0) {
        SubClamped(info->poolSizeFrame2Eos, size);
    }
    info->freeNumFrame += 1;
    SubClamped(info->sizeFrame2Eos, size);
    SubClamped(info->sizeSos2Eos, size);
    if (printRealtimeAlgoInfo) {
        DumpAlgoMemInfo(TAL_MEM_COUNT_REALTIME);
    }
}

void TalMemPoolMonitor::SosUpdateAlgoInfo()
{
    for (auto& list : algoInfoList) {
        for (AlgoMemInfo& info : list) {
            info.sizeSos2Eos = 0;
            info.peakSizeSos2Eos = 0;
            info.sizeOnSos = info.usedSizeCurrent;
        }
    }
}

void TalMemPoolMonitor::FrameUpdateAlgoInfo()
{
    for (auto& list : algoInfoList) {
        for (AlgoMemInfo& info : list) {
            info.poolSizeFrame2Eos = 0;
            info.poolPeakFrame2Eos = 0;
            info.keepOnEos = 0;
            info.allocNumFrame = 0;
            info.freeNumFrame = 0;
            info.sizeFrame2Eos = 0;
            info.peakSizeFrame2Eos = 0;
            info.sizeOnFrame = info.usedSizeCurrent;
            info.usedSizePeak = info.usedSizeCurrent;
        }
    }
}

void TalMemPoolMonitor::DumpAlgoMemInfo(TAL_MEM_COUNT_TYPE type)
{
    if (type != TAL_MEM_COUNT_REALTIME && type != TAL_MEM_COUNT_EOS) {
        TAL_LOGE("QvCamMem %s() error: dumpAlgoType %d no define\n", __func__,
                 static_cast<int>(type));
        return;
    }
    for (int t = 0; t < kAllocTypeNum; ++t) {
        const char* typeName = AllocateType2str(t);
        auto& list = algoInfoList[t];
        for (auto it = list.begin(); it != list.end();) {
            if (type == TAL_MEM_COUNT_REALTIME) {
                TAL_LOGD("QvCamMem %s, algoName=%s allocateType:%s usedSizeCurrent=%zu "
                         "usedChunkNum=%zu usedSizePeak=%zu\n",
                         __func__, it->algoName, typeName,
                         static_cast<size_t>(it->usedSizeCurrent),
                         static_cast<size_t>(it->usedChunkNum),
                         static_cast<size_t>(it->usedSizePeak));
                ++it;
                continue;
            }
            TAL_LOGD("QvCamMem %s algoName: %-20s\t allocateType: %-10s\t peakSizeFrame2Eos:%-10zu\t "
                     "realTimeSizeOnEos: %-10zu\t peakSizeSos2Eos: %-10zu\t usedSizePeak:%-10zu\t \n",
                     __func__, it->algoName, typeName, static_cast<size_t>(it->peakSizeFrame2Eos),
                     static_cast<size_t>(it->usedSizeCurrent),
                     static_cast<size_t>(it->peakSizeSos2Eos),
                     static_cast<size_t>(it->usedSizePeak));
            // Algorithms that hold nothing at the end of a stream are forgotten.
            if (it->usedSizeCurrent != 0) {
                it->keepOnEos = 1;
                ++it;
            } else {
                it = list.erase(it);
            }
        }
    }
}

void TalMemPoolMonitor::ReleaseUpdateAlgoInfo(int allocateType, const std::string& algoName)
{
    auto& list = AlgoList(allocateType, __func__);
    for (auto it = list.begin(); it != list.end();) {
        if (NameMatches(*it, algoName)) {
            TAL_LOGD("QvCamMem %s() IPP_RELEASE: erase %s\n", __func__, it->algoName);
            it = list.erase(it);
        } else {
            ++it;
        }
    }
}

void TalMemPoolMonitor::CheckUpdateAlgoInfo(int allocateType)
{
    auto& list = AlgoList(allocateType, __func__);
    for (auto it = list.begin(); it != list.end();) {
        if (it->usedSizeCurrent != 0) {
            TAL_LOGE("QvCamMem %s() CHECK error: algoName(%s), current(%zu), peak(%zu), "
                     "chunkNum(%zu)\n",
                     __func__, it->algoName, static_cast<size_t>(it->usedSizeCurrent),
                     static_cast<size_t>(it->usedSizePeak), static_cast<size_t>(it->usedChunkNum));
            ++it;
        } else if (it->keepOnEos != 0) {
            it = list.erase(it);
        } else {
            ++it;
        }
    }
}

void TalMemPoolMonitor::ClearAlgoInfo()
{
    for (auto& list : algoInfoList) {
        list.clear();
    }
    totalSize = 0;
    peakSize = 0;
    peakSizeRatio = 0;
    snapInPoolSize = 0;
    snapSysSize = 0;
    sysSizePeak = 0;
    snapSysNum = 0;
    totalNum = 0;
    sosAllSize = 0;
    sosAllNum = 0;
    frameAllSize = 0;
    frameAllNum = 0;
    snapSizeSos2Frame = 0;
    snapSysSizeSos2Frame = 0;
}

} // namespace qv
