// Peak-size learning and resolution keys.
//
// Learning is not built yet: no peak is ever recorded, so the peak asked for
// is 0 and no pool is sized from it. The resolution keys are kept already.

#include "pool/TalMemPoolImpl.h"

#include <algorithm>

#include "common/TalLog.h"

namespace qv {

namespace {
constexpr const char* kPpAlgoName = "casioBeautyPpAlgo";

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

uint32_t TalMemPoolImpl::GetMaxPeakSize(const std::list<std::string>& /*algos*/)
{
    return 0; // nothing learnt yet
}

void TalMemPoolImpl::CheckShortageSize(const std::string& /*algoName*/, uint32_t /*maxPeak*/) {}

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

uint32_t TalMemPoolImpl::LimitNewInsertPeak(const std::string& /*algoName*/,
                                            const std::string& /*resolution*/, uint32_t peak)
{
    return std::min(peak, upperLimit);
}

} // namespace qv
