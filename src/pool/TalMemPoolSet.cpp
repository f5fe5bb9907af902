// Pool set and lifecycle: initialisation, pool creation and release, sizing
// from the learnt peak, clearing after the camera closes.
//
// Pools are not built yet: no operation here creates one, so every request
// is served by a direct allocation. What is done already is the part that
// needs no pool: initialising the in-pool allocator and the monitor, the
// camera-close flag and the clear of an empty pool set. Loading the
// configuration and the learnt peak table comes with the pools.

#include "pool/TalMemPoolImpl.h"

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"

namespace qv {

int32_t TalMemPoolImpl::PoolInit()
{
    talMem.TalMemInit();
    monitor.PoolMonitorInit(poolChunkList, sysPrevMcMap);
    return 0;
}

int32_t TalMemPoolImpl::PoolInitTest(const std::string& /*name*/, uint32_t /*size*/)
{
    return -1; // no test pool can be made yet
}

int32_t TalMemPoolImpl::PoolUpdate(uint32_t /*peakSize*/)
{
    needClearPools = false;
    return 0;
}

void TalMemPoolImpl::UpdateMultiPools(uint32_t /*peakSize*/) {}

int32_t TalMemPoolImpl::PoolCreate(uint32_t /*size*/, int32_t /*poolId*/,
                                   const std::string& /*name*/, bool /*release*/)
{
    return -1;
}

int32_t TalMemPoolImpl::PoolCreateImpl(uint32_t /*size*/, int32_t /*poolId*/,
                                       const std::string& /*name*/)
{
    return -1;
}

bool TalMemPoolImpl::NeedDelPool(int32_t /*poolId*/, int32_t /*usedNum*/, int32_t /*sizeDiff*/,
                                 bool /*release*/)
{
    return false;
}

void TalMemPoolImpl::PoolDestroyImpl(int32_t /*poolId*/) {}

int32_t TalMemPoolImpl::ClearAll()
{
    TAL_LOGI("QvCamMem enter %s\n", __func__);
    PrevForceFree();
    prevAllNeedPeak = prevAllNeed;
    if (!needClearPools) {
        TAL_LOGW("QvCamMem %s stopped because needClearPools is false\n", __func__);
        return -1;
    }
    // No pool exists yet, so the set is already empty.
    monitor.GetMemDumpInfo(2);
    needClearPools = false;
    TAL_LOGI("QvCamMem  %s free all pool success\n", __func__);
    return 0;
}

void TalMemPoolImpl::CameraClose()
{
    TAL_LOGD("QvCamMem enter %s\n", __func__);
    needClearPools = true;
}

} // namespace qv
