#ifndef TALMEM_POOL_TALMEMPOOLIMPL_H
#define TALMEM_POOL_TALMEMPOOLIMPL_H

// The pool manager: owns the pool backing chunks, every direct allocation,
// the usage monitor, the configuration loader and the in-pool allocator, and
// routes each request to a pool or to a direct allocation from the
// camera-buffer service.
//
// Threading: the pool manager takes no lock. Every call comes from the
// service object (TalMemPoolThread) under its mImplLock, so all members are
// touched by one thread at a time.
//
// Addresses are process addresses held as uintptr_t (32-bit on the device);
// 0 means failure. Sizes are 32-bit byte counts.

#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>

#include "config/TalMemConfig.h"
#include "inpool/TalMem.h"
#include "monitor/TalMemPoolMonitor.h"
#include "talmem/TalMemControl.h"
#include "talmem/TalMemPool.h"
#include "talmem/qva_ibuf.h"

namespace qv {

class TalMemChunk;

// The pool manager's record of one direct allocation request.
struct SysAllocInfo {
    int32_t allocateType; // the caller's allocation type; 1 means preview
    uint32_t callerData;  // word 1 of the caller's hint, handed to the failure report
    int32_t forceFromSys; // 1 when the hint demands memory outside the pools
};

// Optional hint passed as the untyped `owner` pointer of Malloc by size.
struct AllocHint {
    uint32_t version;      // 0, 1, 2; any other value is treated as "no hint"
    uint32_t callerData;   // used by versions 0 and 1
    uint32_t requestUsage; // used by version 2; only the low 12 bits count
};

// Address -> chunk maps of the pool manager. The monitor binds to two of them.
using TalChunkMap = std::unordered_map<void*, TalMemChunk*>;

class TalMemPoolImpl {
public:
    TalMemPoolImpl();
    ~TalMemPoolImpl();
    TalMemPoolImpl(const TalMemPoolImpl&) = delete;
    TalMemPoolImpl& operator=(const TalMemPoolImpl&) = delete;

    // --- Requests and releases (core, direct allocation) ---------------------
    // A buffer of `size` bytes (rounded up to 4096) from a pool, the preview
    // reuse set or a direct allocation; `allocHint` is an optional AllocHint.
    uintptr_t Alloc(uint32_t size, const std::string& name, const void* allocHint,
                    const std::string& algoName, int32_t allocateType);
    // An image buffer, always a direct allocation; `allocHint` is ignored.
    uintptr_t Alloc(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                    const std::string& name, const void* allocHint, const std::string& algoName,
                    int32_t allocateType);
    // A free preallocated chunk of the same geometry, else a new direct chunk.
    uintptr_t Alloc(const MallocInfo& mallocInfo, const std::string& algoName);

    uintptr_t SysAlloc(uint32_t size, const std::string& name, const std::string& algoName,
                       const SysAllocInfo& sysAllocInfo, uint64_t requestUsage,
                       int32_t previewReuse);
    uintptr_t SysAlloc(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                       const std::string& name, const std::string& algoName,
                       const SysAllocInfo& sysAllocInfo);
    uintptr_t SysAlloc(const MallocInfo& mallocInfo, const std::string& chunkName, bool preAlloc);

    // A created and initialised chunk, or null (nothing is logged here).
    TalMemChunk* NewMemChunk(uint32_t size, int32_t allocNow, uint64_t usage,
                             const std::string& chunkName, int32_t chunkFlag);
    TalMemChunk* NewMemChunk(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                             const std::string& chunkName);
    void DelMemChunk(TalMemChunk* chunk);

    void Free(uintptr_t address);
    void SysFree(uintptr_t address);
    // The descriptor of a live allocation, or null. Valid until it is freed.
    const qva_ibuf* GetIBuf(uintptr_t address);
    const qva_ibuf* GetReuseIBuf(uintptr_t address);

    // --- Pool set and lifecycle ----------------------------------------------
    int32_t PoolInit();
    int32_t PoolInitTest(const std::string& name, uint32_t size);
    int32_t PoolUpdate(uint32_t peakSize);
    void UpdateMultiPools(uint32_t peakSize);
    int32_t PoolCreate(uint32_t size, int32_t poolId, const std::string& name, bool release);
    int32_t PoolCreateImpl(uint32_t size, int32_t poolId, const std::string& name);
    bool NeedDelPool(int32_t poolId, int32_t usedNum, int32_t sizeDiff, bool release);
    void PoolDestroyImpl(int32_t poolId);
    // Clears every idle pool; the monitor calls it when the last allocator leaves.
    int32_t ClearAll();
    void CameraClose();

    // --- Pool allocation -----------------------------------------------------
    uintptr_t PoolAlloc(uint32_t size, const std::string& name, const std::string& algoName,
                        int32_t allocateType);
    uintptr_t PrevAlloc(uint32_t size, const std::string& name, const std::string& algoName,
                        const SysAllocInfo& sysAllocInfo);
    bool PrevCheckMemRatio(uint32_t size, uint32_t chunkSize);
    void PrevForceFree();
    void PreAllocPool(const MallocInfo& mallocInfo, const std::string& algoName);
    void ReleasePool(const MallocInfo& mallocInfo);

    // --- Peak-size learning and resolution -----------------------------------
    void SetResolution(const TalMemResolution& res);
    std::string GetResolution(const std::string& algoName);
    void UpdatePeakSize();
    uint32_t GetMaxPeakSize(const std::list<std::string>& algos);
    void CheckShortageSize(const std::string& algoName, uint32_t maxPeak);
    void SetShortageSize(uint32_t size, uint32_t maxFreeSize, int32_t poolId);
    uint32_t LimitAlgoSize(const std::string& algoName, const std::string& resolution,
                           uint32_t oldPeak, uint32_t newPeak);
    uint32_t LimitNewInsertPeak(const std::string& algoName, const std::string& resolution,
                                uint32_t peak);

    // --- Stream events, post-processing state, control commands --------------
    void OnSos();
    void OnFrame();
    void OnEos();
    void UpdatePPState(int32_t ppType, int32_t state);
    void UpdatePPCrossing(int32_t ppUpdateType);
    void ClearPPState(int32_t ppType);
    void MemPoolCtrl(int32_t cmd, const void* input);
    int32_t MemPoolCtrl(int32_t cmd, const void* input, void* output);
    int32_t MemPoolCacheSync(int32_t cmd, uintptr_t address, uint32_t size);
    int32_t SysAllocCacheSync(int32_t cmd, uintptr_t address, uint32_t size);
    int32_t CacheSync(TalMemChunk* chunk, int32_t cmd, uintptr_t address, uint32_t size);

    // --- Monitor forwarding ----------------------------------------------------
    void RegisterAllocatorRef(int32_t allocateType, const std::string& moduleName);
    void UnregisterAllocatorRef(int32_t allocateType, const std::string& moduleName);
    // The monitor's dump block for `type` as a 32-bit value (its address on the
    // device, 0 when the monitor has none).
    int32_t GetMemDumpInfo(int32_t type);

    // --- Data, in declaration order (read by the monitor and by tests) --------
    uint32_t streamState = 0;
    bool ppCrossing = false;
    std::list<TalMemChunk*> poolChunkList;
    TalChunkMap sysPrevMcMap;
    TalChunkMap sysMcMap;
    TalChunkMap poolMcMap;
    TalChunkMap preAllocPoolMcMap;
    TalAlgoPeakMap algoPeakMap;
    TalMem talMem;
    TalMemPoolMonitor monitor;
    TalMemConfig config;
    uint32_t maxMemSize = 0;
    uint32_t basePoolSize = kDefaultBasePoolSize;
    uint32_t multiPoolSize = kDefaultMultiPoolSize;
    uint32_t reserved = 0;
    uint32_t shortageSize = 0;
    uint32_t shortageLimit;
    bool shortagePending = false;
    int32_t shortagePoolId = 0;
    bool printPoolInfo = false;
    bool needClearPools = false;
    uint8_t ppState[4] = {0, 0, 0, 0};
    std::string shortageAlgo;
    uint32_t shortagePeak = 0;
    uint32_t prevAll = 0;
    uint32_t prevAllNeed = 0;
    uint32_t prevAllNeedPeak = 0;
    std::string resolution;
    std::string ppAlgoResolution;

    static constexpr uint32_t kDefaultBasePoolSize = 0x0A000000;  // 160 MiB
    static constexpr uint32_t kDefaultMultiPoolSize = 0x0DC00000; // 220 MiB
    static constexpr uint32_t kDefaultUpperLimit = 0x1C200000;    // 450 MiB
    static constexpr uint32_t kDefaultPrevRatioLimit = 75;        // percent
    static constexpr uint32_t kMinMaxMemSize = 0x40000000;        // 1 GiB
    static constexpr uint32_t kPrevReuseMinSize = 0x100000;       // 1 MiB

    // Process-wide limits, written by PoolInit from the configuration.
    static uint32_t upperLimit;
    static uint32_t prevRatioLimit;

private:
    void ComputeMaxMemSize();
    // Stamps a freshly created direct chunk with the request's attributes.
    void MarkDirectChunk(TalMemChunk* chunk, const std::string& name,
                         const std::string& algoName, const SysAllocInfo& info);
    // The pool whose range holds `address` (base < address < base + size), or null.
    TalMemChunk* FindPoolChunk(uintptr_t address) const;
    // The allocation record the in-pool allocator keeps for `address` inside
    // `pool`, or null.
    TalMemChunk* PoolRecordOf(TalMemChunk* pool, uintptr_t address);
    // What one of the reuse maps holds at an address.
    enum class ReuseLookup { kAbsent, kNullChunk, kInUse };
    static ReuseLookup LookupReuseMap(TalChunkMap& map, uintptr_t address, TalMemChunk*& chunk);
    // True when `entry` holds a null chunk: it is logged for SysFree and
    // erased (a null entry owns nothing), so the caller stops there.
    static bool DropNullEntry(TalChunkMap& map, TalChunkMap::iterator entry, const char* mapName);
    static void DestroyMap(TalChunkMap& map);
    // Folds one algorithm's stream peak into the learnt table.
    void LearnPeak(const std::string& name, uint32_t peak);
};

} // namespace qv

#endif // TALMEM_POOL_TALMEMPOOLIMPL_H
