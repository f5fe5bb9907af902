// Pool set and lifecycle: initialisation from the configuration and the
// learnt table, creation, resizing and release of the base and multi pools,
// sizing from a learnt peak, and the clear after the camera closes.

// One concern of TalMemPoolImpl: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemPoolImpl.cpp"

#include "pool/TalMemPoolImpl.h"

#include <cstdlib>

#include <utils/Timers.h>

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"
#include "pool/TalMemPoolUtil.h"
#include "talmem_properties.h"

namespace qv {

using poolutil::AddrOf;

namespace {

constexpr int32_t kBasePoolId = 1;
constexpr int32_t kFirstMultiPoolId = 2;
constexpr int32_t kLastMultiPoolId = 5;
constexpr int32_t kTestPoolId = 10;
constexpr const char* kBasePoolName = "PP:BASE_POOL";
constexpr const char* kMultiPoolName = "PP:MULTI_POOL";
constexpr const char* kTestChunkName = "Unknown";
constexpr const char* kPoolInfoProperty = "persist.vendor.poolInfo.dump";
constexpr uint32_t kBasePoolMinPeak = 0x1400000; // a base pool only for peaks above 20 MiB
constexpr uint32_t kResizeTolerance = 0x200000;  // multi pools within 2 MiB are kept
constexpr uint32_t kTestStreamState = 2;
constexpr int32_t kPoolCreateAllocType = 3; // allocate type reported for a failed pool

// A post-processing state that counts as an active snapshot instance.
bool IsActiveSnap(uint8_t state)
{
    return state != 0 && state != 4 && state != 5;
}

} // namespace

int32_t TalMemPoolImpl::PoolInit()
{
    talMem.TalMemInit();
    // One load fills both the configuration record and the learnt table (the
    // learnt filter file first, else the device file); without a file the
    // record keeps its defaults.
    config.LoadAlgoPeakMem(algoPeakMap);
    monitor.PoolMonitorInit(poolChunkList, sysPrevMcMap);

    basePoolSize = config.basePoolSize < 1 ? kDefaultBasePoolSize
                                           : static_cast<uint32_t>(config.basePoolSize);
    upperLimit = static_cast<uint32_t>(config.algoSizeLimit);
    if (basePoolSize > upperLimit) {
        basePoolSize = upperLimit;
    }
    const bool multiOk = config.multiPoolSize >= 1 &&
                         static_cast<uint32_t>(config.multiPoolSize) <= upperLimit;
    multiPoolSize = multiOk ? static_cast<uint32_t>(config.multiPoolSize) : upperLimit;
    shortageLimit = 100 * (upperLimit / 1024);
    prevRatioLimit = static_cast<uint32_t>(config.prevRatioLimit);
    TAL_LOGD("%s basePoolSize:%zu multiPoolSize:%zu upperLimit:%zu prevRatioLimit:%zu "
             "shortageLimit:%zu\n",
             __func__, static_cast<size_t>(basePoolSize), static_cast<size_t>(multiPoolSize),
             static_cast<size_t>(upperLimit), static_cast<size_t>(prevRatioLimit),
             static_cast<size_t>(shortageLimit));

    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kPoolInfoProperty, value, "0");
    if (value[0] == '1') {
        printPoolInfo = true;
        TAL_LOGD("QvCamMem %s printPoolInfo enabled\n", __func__);
    }
    return 0;
}

int32_t TalMemPoolImpl::PoolInitTest(const std::string& name, uint32_t size)
{
    if (size == 0) {
        TAL_LOGE("QvCamMem %s, ERROR! can not alloc size(%zu)\n", __func__,
                 static_cast<size_t>(size));
        return -1;
    }
    TalMemChunk* chunk = NewMemChunk(size, 1, 0, kTestChunkName, 1); // size not rounded
    if (chunk == nullptr) {
        TAL_LOGE("newMemChunk fail \n");
        return -1;
    }
    if (talMem.Init(AddrOf(chunk), size) != 0) {
        TAL_LOGE("QvCamMem %s memManager init fail, size %zu\n", __func__,
                 static_cast<size_t>(size));
        DelMemChunk(chunk);
        return -1;
    }
    streamState = kTestStreamState;
    chunk->poolId = kTestPoolId;
    chunk->streamState = kTestStreamState;
    chunk->SetModuleName(name);
    poolChunkList.push_back(chunk);
    return 0;
}

int32_t TalMemPoolImpl::PoolUpdate(uint32_t peakSize)
{
    if (peakSize > kBasePoolMinPeak &&
        PoolCreate(basePoolSize, kBasePoolId, kBasePoolName, false) != 0) {
        TAL_LOGW("PoolCreate Failed!\n");
    }
    int snapCount = 0;
    for (uint8_t state : ppState) {
        snapCount += IsActiveSnap(state) ? 1 : 0;
    }
    // Multi pools follow one snapshot instance; with several at once the
    // learnt peak of one says nothing about the sum.
    if (snapCount != 1) {
        TAL_LOGI("QvCamMem %s, do not update multiPools with multi snap_instance(snapCount %d)\n",
                 __func__, snapCount);
    } else {
        UpdateMultiPools(peakSize);
    }
    needClearPools = false;
    return 0;
}

void TalMemPoolImpl::UpdateMultiPools(uint32_t peakSize)
{
    if (peakSize == 0) {
        return;
    }
    // Need about 5 % above the peak; the base pool covers the first part.
    const uint32_t need = peakSize + 51 * (peakSize / 1024);
    uint32_t remaining = need < basePoolSize ? 0 : need - basePoolSize;
    const uint32_t step = 25 * (peakSize / 1024);
    const uint32_t lastShare = multiPoolSize + 100 * (multiPoolSize / 1024);
    const uint32_t count = static_cast<uint32_t>(poolChunkList.size());
    uint32_t extra = 0;
    for (int32_t id = kFirstMultiPoolId; id <= kLastMultiPoolId; ++id) {
        if (static_cast<uint32_t>(id) > count && remaining == 0) {
            break;
        }
        uint32_t size = multiPoolSize;
        if (remaining <= lastShare) {
            // This pool takes the rest, with a growing margin from the third on.
            size = remaining;
            if (id > kFirstMultiPoolId && remaining != 0) {
                remaining += extra;
                size = remaining;
            }
        }
        TAL_LOGD("%s poolId:%d poolsize:%d\n", __func__, id, static_cast<int>(size));
        uint32_t carry = remaining;
        if (shortagePending && id == shortagePoolId && shortageSize < shortageLimit) {
            TAL_LOGD("%s addShortageSize:%zu\n", __func__, static_cast<size_t>(shortageSize));
            carry += shortageSize;
            size += shortageSize;
        }
        if (PoolCreate(size, id, kMultiPoolName, remaining == 0) != 0) {
            TAL_LOGW("PoolCreate Failed!\n");
        }
        remaining = carry < size ? 0 : carry - size;
        extra += step;
    }
}

int32_t TalMemPoolImpl::PoolCreate(uint32_t size, int32_t poolId, const std::string& name,
                                   bool release)
{
    TAL_LOGD("QvCamMem enter %s poolId:%d poolName:%s\n", __func__, poolId, name.c_str());
    for (auto it = poolChunkList.begin(); it != poolChunkList.end();) {
        TalMemChunk* pool = *it;
        if (pool->poolId != poolId) {
            ++it;
            continue;
        }
        if (poolId == kBasePoolId) {
            TAL_LOGI("QvCamMem %s,  BASE_POOL has been created\n", __func__);
            return 0;
        }
        const int32_t sizeDiff = static_cast<int32_t>(size - pool->GetSize());
        const int32_t usedNum = talMem.GetUsedNum(AddrOf(pool));
        if (!NeedDelPool(poolId, usedNum, sizeDiff, release)) {
            TAL_LOGI("QvCamMem %s,  tolerance %d usedNum %d, no need to update multiPool\n",
                     __func__, sizeDiff, usedNum);
            return 0;
        }
        DelMemChunk(pool);
        it = poolChunkList.erase(it);
        TAL_LOGD("QvCamMem %s, release:%d tolerance %d usedNum %d release multiPool\n", __func__,
                 release ? 1 : 0, sizeDiff, usedNum);
    }
    if (size == 0) {
        TAL_LOGW("QvCamMem %s, invalid poolSize(%zu) when create poolId %d\n", __func__,
                 static_cast<size_t>(size), poolId);
        monitor.UpdateRecipOfPoolSize();
        return -1;
    }
    if (PoolCreateImpl(poolutil::RoundToPage(size), poolId, name) != 0) {
        TAL_LOGW("PoolCreateImpl Failed!\n");
    }
    monitor.UpdateRecipOfPoolSize();
    return 0;
}

bool TalMemPoolImpl::NeedDelPool(int32_t poolId, int32_t usedNum, int32_t sizeDiff, bool release)
{
    if (usedNum != 0) {
        return false; // live allocations pin the pool
    }
    if (shortagePending && shortagePoolId == poolId) {
        shortagePending = false; // recreated with the shortage added
        return true;
    }
    if (release) {
        return true;
    }
    const uint32_t magnitude = sizeDiff < 0 ? 0u - static_cast<uint32_t>(sizeDiff)
                                            : static_cast<uint32_t>(sizeDiff);
    const bool within = magnitude <= kResizeTolerance;
    if (static_cast<int32_t>(poolChunkList.size()) != poolId) {
        return !within;
    }
    if (within) {
        return false;
    }
    shortagePending = false;
    return true;
}

int32_t TalMemPoolImpl::PoolCreateImpl(uint32_t size, int32_t poolId, const std::string& name)
{
    TAL_LOGD("QvCamMem enter %s, size %zu poolId %d\n", __func__, static_cast<size_t>(size),
             poolId);
    const nsecs_t start = systemTime(SYSTEM_TIME_MONOTONIC);
    TalMemChunk* chunk = NewMemChunk(size, 1, 0, name, 1);
    TAL_LOGD("QvCamMem NewMemChunk cost:%lldms.\n",
             static_cast<long long>((systemTime(SYSTEM_TIME_MONOTONIC) - start) / 1000000));
    if (chunk == nullptr) {
        monitor.ReportMemAllocFail(static_cast<int>(size), "PoolUpdate", kPoolCreateAllocType, 0);
        return -1;
    }
    const uintptr_t base = AddrOf(chunk);
    if (base == 0) {
        TAL_LOGE("QvCamMem %s fail, size %zu poolId %d\n", __func__, static_cast<size_t>(size),
                 poolId);
        DelMemChunk(chunk);
        return -1;
    }
    if (talMem.Init(base, size) != 0) {
        TAL_LOGE("QvCamMem %s memManager init fail, size %zu poolId %d\n", __func__,
                 static_cast<size_t>(size), poolId);
        DelMemChunk(chunk);
        return -1;
    }
    chunk->poolId = poolId;
    chunk->streamState = streamState;
    chunk->SetModuleName(name);
    for (TalMemChunk* pool : poolChunkList) {
        if (pool->GetUniqueId() == chunk->GetUniqueId()) {
            chunk->ReCfgUniqueId();
            break;
        }
    }
    // Smaller pools in front: lookups and carving meet them first.
    if (size > basePoolSize) {
        poolChunkList.push_back(chunk);
    } else {
        poolChunkList.push_front(chunk);
    }
    TAL_LOGD("QvCamMem exit %s, size %zu poolId %d\n", __func__, static_cast<size_t>(size),
             poolId);
    return 0;
}

void TalMemPoolImpl::PoolDestroyImpl(int32_t poolId)
{
    TAL_LOGD("QvCamMem %s, poolId:%d enter\n", __func__, poolId);
    for (auto it = poolChunkList.begin(); it != poolChunkList.end();) {
        TalMemChunk* pool = *it;
        if (pool->poolId == poolId && talMem.GetUsedNum(AddrOf(pool)) == 0) {
            TAL_LOGD("QvCamMem %s, release poolId %d\n", __func__, poolId);
            DelMemChunk(pool);
            it = poolChunkList.erase(it);
        } else {
            ++it;
        }
    }
    monitor.UpdateRecipOfPoolSize();
}

int32_t TalMemPoolImpl::ClearAll()
{
    TAL_LOGI("QvCamMem enter %s\n", __func__);
    PrevForceFree();
    prevAllNeedPeak = prevAllNeed;
    if (!needClearPools) {
        TAL_LOGW("QvCamMem %s stopped because needClearPools is false\n", __func__);
        return -1;
    }
    for (auto it = poolChunkList.begin(); it != poolChunkList.end();) {
        TalMemChunk* pool = *it;
        const int32_t usedNum = talMem.GetUsedNum(AddrOf(pool));
        if (usedNum != 0) {
            TAL_LOGE("QvCamMem %s, ERROR! pool %d is still in use or error happened "
                     "(usedNum %d)\n",
                     __func__, pool->poolId, usedNum);
            ++it;
            continue;
        }
        TAL_LOGI("QvCamMem free poolId(%d) size=%zu\n", pool->poolId,
                 static_cast<size_t>(pool->GetSize()));
        DelMemChunk(pool);
        it = poolChunkList.erase(it);
    }
    monitor.GetMemDumpInfo(2);
    if (!poolChunkList.empty()) {
        TAL_LOGE("QvCamMem  %s failed\n", __func__);
        return -1;
    }
    needClearPools = false;
    // The learnt peaks survive the camera session in the filter file.
    config.UploadAlgoPeakMem(algoPeakMap);
    TAL_LOGI("QvCamMem  %s free all pool success\n", __func__);
    return 0;
}

void TalMemPoolImpl::CameraClose()
{
    TAL_LOGD("QvCamMem enter %s\n", __func__);
    needClearPools = true;
}

} // namespace qv
