// Peak-size learning and resolution keys.
//
// Learning at stream end is not built yet: the table holds only what was
// loaded. The resolution keys and the choice of the peak for a set of
// algorithms work.

#include "pool/TalMemPoolImpl.h"

#include <algorithm>

#include "common/TalLog.h"

namespace qv {

namespace {
constexpr const char* kPpAlgoName = "casioBeautyPpAlgo";
constexpr const char* kUnknownAlgo = "unknown";
constexpr uint32_t kShortageTolerance = 0x200000; // 2 MiB

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

void TalMemPoolImpl::UpdatePeakSize() {}

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

void TalMemPoolImpl::SetShortageSize(uint32_t /*size*/, uint32_t /*maxFreeSize*/,
                                     int32_t /*poolId*/)
{
}

uint32_t TalMemPoolImpl::LimitAlgoSize(const std::string& /*algoName*/,
                                       const std::string& /*resolution*/, uint32_t oldPeak,
                                       uint32_t /*newPeak*/)
{
    return oldPeak; // nothing is learnt yet: the stored value stays
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
