// Peak-size learning and resolution keys: each stream's per-algorithm peaks
// are smoothed into the learnt table, the table gives the peak that sizes
// the pools for the next stream, and a pool that proved too small records a
// shortage that the next pool update adds.

// One concern of TalMemPoolImpl: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemPoolImpl.cpp"

#include "pool/TalMemPoolImpl.h"

#include <algorithm>

#include "common/TalLog.h"
#include "pool/TalMemPoolUtil.h"

namespace qv {

namespace {
constexpr const char* kPpAlgoName = "casioBeautyPpAlgo";
constexpr const char* kUnknownAlgo = "unknown";
constexpr const char* kDefaultResolution = "default";
constexpr uint32_t kShortageTolerance = 0x200000; // 2 MiB
constexpr uint32_t kJumpUnit = 0x800000;          // 8 MiB
constexpr uint32_t kJumpUnitsKept = 4;            // a jump of 5 units replaces the value

std::string ResolutionKey(uint32_t width, uint32_t height)
{
    return std::to_string(width) + "x" + std::to_string(height);
}
} // namespace

void TalMemPoolImpl::SetResolution(const TalMemResolution& res)
{
    resolution = ResolutionKey(res.width, res.height);
    ppAlgoResolution = ResolutionKey(res.ppWidth, res.ppHeight);
}

std::string TalMemPoolImpl::GetResolution(const std::string& algoName)
{
    return algoName == kPpAlgoName ? ppAlgoResolution : resolution;
}

void TalMemPoolImpl::UpdatePeakSize()
{
    for (int type = 0; type < TalMemPoolMonitor::kAllocTypeNum; ++type) {
        for (const AlgoMemInfo& record : monitor.GetAlgoInfoList(type)) {
            // The stream's peak: the highest balance between its start and its end.
            const uint32_t peak = record.peakSizeSos2Eos;
            if (peak != 0) {
                LearnPeak(record.algoName, peak);
            }
        }
    }
}

void TalMemPoolImpl::LearnPeak(const std::string& name, uint32_t peak)
{
    const std::string res = GetResolution(name);
    auto found = algoPeakMap.find(name);
    if (found == algoPeakMap.end()) {
        algoPeakMap[name] = {{res, LimitNewInsertPeak(name, res, peak)}};
        return;
    }
    if (shortagePeak < peak) {
        shortagePeak = peak;
        shortageAlgo = name;
    }
    TalAlgoSizeList& list = found->second;
    // A "default" entry stands for every resolution and absorbs them all.
    if (!list.empty() && list.front().resolution == kDefaultResolution) {
        list.front().algoSize =
            LimitAlgoSize(name, kDefaultResolution, list.front().algoSize, peak);
        return;
    }
    for (TalMemResoluAlgoSize& entry : list) {
        if (entry.resolution == res) {
            entry.algoSize = LimitAlgoSize(name, res, entry.algoSize, peak);
            return;
        }
    }
    list.push_back({res, LimitNewInsertPeak(name, res, peak)});
}

uint32_t TalMemPoolImpl::GetMaxPeakSize(const std::list<std::string>& algos)
{
    uint32_t maxPeak = 0;
    std::string maxAlgo = kUnknownAlgo;
    for (const std::string& name : algos) {
        auto found = algoPeakMap.find(name);
        if (found == algoPeakMap.end() || found->second.empty()) {
            continue;
        }
        // The entry of the current resolution, else the list's first one.
        const TalAlgoSizeList& list = found->second;
        const std::string res = GetResolution(name);
        uint32_t peak = list.front().algoSize;
        for (const TalMemResoluAlgoSize& entry : list) {
            if (entry.resolution == res) {
                peak = entry.algoSize;
                break;
            }
        }
        if (peak > maxPeak) { // ties keep the earlier name
            maxPeak = peak;
            maxAlgo = name;
        }
    }
    CheckShortageSize(maxAlgo, maxPeak);
    TAL_LOGI("QvCamMem %s, %s with max peak %zu shortageSize %zu poolInShortage %d\n", __func__,
             maxAlgo.c_str(), static_cast<size_t>(maxPeak), static_cast<size_t>(shortageSize),
             shortagePending ? 1 : 0);
    return maxPeak;
}

void TalMemPoolImpl::CheckShortageSize(const std::string& algoName, uint32_t maxPeak)
{
    uint32_t limit = 100 * (shortagePeak / 1024);
    if (maxPeak != 0 && shortageSize <= limit && algoName == shortageAlgo) {
        uint32_t diff = shortagePeak > maxPeak ? shortagePeak - maxPeak : maxPeak - shortagePeak;
        if (diff <= kShortageTolerance) {
            if (shortagePending) {
                shortageSize += diff;
            }
            if (!shortagePending || shortageSize <= limit) {
                // The same algorithm stays the largest: keep the shortage.
                shortagePeak = 0;
                shortageAlgo = kUnknownAlgo;
                return;
            }
        }
    }
    shortagePending = false;
    shortageSize = 0;
    shortagePeak = 0;
    shortageAlgo = kUnknownAlgo;
}

void TalMemPoolImpl::SetShortageSize(uint32_t size, uint32_t maxFreeSize, int32_t poolId)
{
    shortagePoolId = poolId;
    shortagePending = true;
    if (size > maxFreeSize) {
        shortageSize += size - maxFreeSize;
    }
    TAL_LOGD("exit %s, shortageSize:%zu shortagePoolId:%d\n", __func__,
             static_cast<size_t>(shortageSize), shortagePoolId);
}

uint32_t TalMemPoolImpl::LimitAlgoSize(const std::string& algoName,
                                       const std::string& resolution, uint32_t oldPeak,
                                       uint32_t newPeak)
{
    const uint32_t diff = poolutil::AbsDiff(oldPeak, newPeak);
    uint32_t value;
    if (diff / kJumpUnit > kJumpUnitsKept) {
        // A jump this large is a new situation, not noise: take it as it is.
        TAL_LOGD("tolerance:%d is larger than limit\n", static_cast<int>(diff));
        value = newPeak;
    } else {
        value = (3 * oldPeak + newPeak) / 4; // a quarter of the way to the new peak
    }
    value = std::min(value, upperLimit);
    if (upperLimit < newPeak) {
        TAL_LOGW("algo filter:%s resolution=%s peakSize %zu(out of limit %zu)->filterPeakSize "
                 "%zu \n",
                 algoName.c_str(), resolution.c_str(), static_cast<size_t>(newPeak),
                 static_cast<size_t>(upperLimit), static_cast<size_t>(value));
    } else {
        TAL_LOGD("algo filter:%s resolution=%s peakSize %zu->filterPeakSize %zu \n",
                 algoName.c_str(), resolution.c_str(), static_cast<size_t>(newPeak),
                 static_cast<size_t>(value));
    }
    return value;
}

uint32_t TalMemPoolImpl::LimitNewInsertPeak(const std::string& algoName,
                                            const std::string& resolution, uint32_t peak)
{
    uint32_t limited = std::min(peak, upperLimit);
    TAL_LOGD("algo insert new peakSize, algoName:%s resolution:%s, peakSize %zu filterPeakSize "
             "%zu\n",
             algoName.c_str(), resolution.c_str(), static_cast<size_t>(peak),
             static_cast<size_t>(limited));
    return limited;
}

} // namespace qv
