#include "pool/TalMemPoolImpl.h"

#include <new>

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"
#include "monitor/MemUtils.h"
#include "pool/TalMemPoolUtil.h"

namespace qv {

using poolutil::AddrOf;
using poolutil::IovaOf;
using poolutil::Key;

namespace {

constexpr const char* kUnknownName = "unknown";
constexpr const char* kDefaultResolution = "default";
constexpr int32_t kCameraBufferMemory = 0; // memory type of a camera-buffer chunk
constexpr uint32_t kHintVersionCallerData = 0;
constexpr uint32_t kHintVersionForceSys = 1;
constexpr uint32_t kHintVersionUsage = 2;
constexpr uint32_t kRequestUsageMask = 0xFFF;

// What the caller's optional hint asks for.
struct HintRequest {
    bool poolAllowed = true;
    bool previewReuseForbidden = false;
    uint64_t requestUsage = 0;
    bool usageGiven = false; // a version-2 hint named the usage
};

HintRequest ReadHint(const void* allocHint, SysAllocInfo& info)
{
    HintRequest req;
    info.callerData = 0;
    info.forceFromSys = 0;
    if (allocHint == nullptr) {
        return req;
    }
    const AllocHint* hint = static_cast<const AllocHint*>(allocHint);
    switch (hint->version) {
    case kHintVersionCallerData:
        info.callerData = hint->callerData;
        break;
    case kHintVersionForceSys:
        req.poolAllowed = false;
        info.forceFromSys = 1;
        info.callerData = hint->callerData;
        break;
    case kHintVersionUsage:
        req.poolAllowed = false;
        req.previewReuseForbidden = true;
        info.forceFromSys = 1;
        req.requestUsage = hint->requestUsage & kRequestUsageMask;
        req.usageGiven = true;
        break;
    default:
        break;
    }
    return req;
}

} // namespace

uint32_t TalMemPoolImpl::upperLimit = TalMemPoolImpl::kDefaultUpperLimit;
uint32_t TalMemPoolImpl::prevRatioLimit = TalMemPoolImpl::kDefaultPrevRatioLimit;

TalMemPoolImpl::TalMemPoolImpl()
    : monitor(this),
      shortageLimit(100 * (upperLimit / 1024)),
      shortageAlgo(kUnknownName),
      resolution(kDefaultResolution),
      ppAlgoResolution(kDefaultResolution)
{
    sysPrevMcMap.max_load_factor(1.0f);
    sysMcMap.max_load_factor(1.0f);
    poolMcMap.max_load_factor(1.0f);
    preAllocPoolMcMap.max_load_factor(1.0f);
    ComputeMaxMemSize();
}

TalMemPoolImpl::~TalMemPoolImpl()
{
    algoPeakMap.clear();
    // Pool allocation records first, then the direct chunks, then the pools
    // they were carved from; no monitor and no in-pool allocator calls here.
    DestroyMap(poolMcMap);
    DestroyMap(sysMcMap);
    DestroyMap(sysPrevMcMap);
    DestroyMap(preAllocPoolMcMap);
    for (TalMemChunk* pool : poolChunkList) {
        delete pool;
    }
    poolChunkList.clear();
}

void TalMemPoolImpl::DestroyMap(TalChunkMap& map)
{
    for (auto& entry : map) {
        delete entry.second;
    }
    map.clear();
}

void TalMemPoolImpl::ComputeMaxMemSize()
{
    // KiB to bytes in 32 bits: wraps on devices with 4 GiB or more, which the
    // 1 GiB floor below then catches.
    uint32_t totalKb = static_cast<uint32_t>(MemUtils::getTotalMemory());
    maxMemSize = totalKb << 10;
    if (maxMemSize < kMinMaxMemSize) {
        maxMemSize = kMinMaxMemSize;
    }
}

uintptr_t TalMemPoolImpl::Alloc(uint32_t size, const std::string& name, const void* allocHint,
                                const std::string& algoName, int32_t allocateType)
{
    if (size == 0 || size > maxMemSize) {
        TAL_LOGE("QvCamMem %s, ERROR! can not alloc size(%zu) maxMemSize(%zu)\n", __func__,
                 static_cast<size_t>(size), static_cast<size_t>(maxMemSize));
        return 0;
    }
    SysAllocInfo info{allocateType, 0, 0};
    HintRequest req = ReadHint(allocHint, info);
    if (req.usageGiven) {
        TAL_LOGD("QvCamMem %s, version:%d, requestUsage %llxis given\n", __func__,
                 static_cast<int>(kHintVersionUsage),
                 static_cast<unsigned long long>(req.requestUsage));
    }
    // 32-bit rounding: with an unreadable total (maxMemSize 0xFFFFFC00) the
    // last page of sizes wraps to 0 and the direct allocation then fails.
    size = poolutil::RoundToPage(size);

    if (allocateType != TAL_MEM_ALLOC_PREVIEW) {
        if (req.poolAllowed) {
            uintptr_t addr = PoolAlloc(size, name, algoName, allocateType);
            if (addr != 0) {
                return addr;
            }
        }
    } else if (size >= kPrevReuseMinSize && !req.previewReuseForbidden &&
               prevRatioLimit <= 99) {
        return PrevAlloc(size, name, algoName, info);
    }
    return SysAlloc(size, name, algoName, info, req.requestUsage, 0);
}

uintptr_t TalMemPoolImpl::Alloc(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                                const std::string& name, const void* /*allocHint*/,
                                const std::string& algoName, int32_t allocateType)
{
    TAL_LOGI(" Alloc QvCamMem %s w %u h %u format %u name %s algoName %s allocateType %d\n\n",
             __func__, width, height, format, name.c_str(), algoName.c_str(), allocateType);
    // The pixel count is compared with the byte limit on purpose; the product
    // wraps in 32 bits, so 65536 x 65536 is refused as 0.
    uint32_t pixels = width * height;
    if (pixels == 0 || pixels > maxMemSize) {
        TAL_LOGE("QvCamMem %s, ERROR! can not alloc w(%u) h(%u) maxMemSize(%zu)\n", __func__,
                 width, height, static_cast<size_t>(maxMemSize));
        return 0;
    }
    SysAllocInfo info{allocateType, 0, 0};
    return SysAlloc(width, height, format, usage, name, algoName, info);
}

uintptr_t TalMemPoolImpl::Alloc(const MallocInfo& mallocInfo, const std::string& algoName)
{
    for (auto& entry : preAllocPoolMcMap) {
        TalMemChunk* chunk = entry.second;
        if (chunk != nullptr && chunk->GetWidth() == mallocInfo.width && chunk->GetHeight() == mallocInfo.height &&
            chunk->GetFormat() == mallocInfo.format && chunk->GetUsage() == mallocInfo.usage &&
            chunk->preAlloc && chunk->inUse == 0) {
            chunk->inUse = 1;
            return AddrOf(chunk);
        }
    }
    return SysAlloc(mallocInfo, "PP:" + algoName, false);
}

void TalMemPoolImpl::MarkDirectChunk(TalMemChunk* chunk, const std::string& name,
                                     const std::string& algoName, const SysAllocInfo& info)
{
    chunk->poolId = 0;
    chunk->streamState = streamState;
    chunk->inUse = 1;
    chunk->SetModuleName(name);
    chunk->SetAlgoName(algoName);
    chunk->SetAllocateType(info.allocateType);
    chunk->SetForceFromSys(info.forceFromSys);
}

uintptr_t TalMemPoolImpl::SysAlloc(uint32_t size, const std::string& name,
                                   const std::string& algoName, const SysAllocInfo& sysAllocInfo,
                                   uint64_t requestUsage, int32_t previewReuse)
{
    TalMemChunk* chunk = NewMemChunk(size, 1, requestUsage, "PP:" + algoName, 1);
    if (chunk == nullptr) {
        monitor.ReportMemAllocFail(static_cast<int>(size), algoName, sysAllocInfo.allocateType,
                                   static_cast<int>(sysAllocInfo.callerData));
        return 0;
    }
    MarkDirectChunk(chunk, name, algoName, sysAllocInfo);
    uintptr_t addr = AddrOf(chunk);
    uint64_t iova = IovaOf(chunk);
    if (addr == 0) {
        TAL_LOGE("QvCamMem %s fail sys alloc_addr 0x%lx size %zu\n", __func__, TalMaskAddr(addr),
                 static_cast<size_t>(size));
        DelMemChunk(chunk);
        return 0;
    }
    if (previewReuse == 1) {
        sysPrevMcMap[Key(addr)] = chunk;
        prevAll += size;
        prevAllNeed += size;
        if (prevAllNeed > prevAllNeedPeak) {
            prevAllNeedPeak = prevAllNeed;
        }
    } else {
        sysMcMap[Key(addr)] = chunk;
    }
    TAL_LOGD("QvCamMem %s, type %d %s(modul: %s) apva 0x%lx(iova 0x%lx) size %zu previewReuse %d\n",
             __func__, sysAllocInfo.allocateType, algoName.c_str(), name.c_str(),
             TalMaskAddr(addr), static_cast<unsigned long>(TalMaskIova(iova)),
             static_cast<size_t>(size), previewReuse);
    monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_SYS_ALLOC, chunk);
    return addr;
}

uintptr_t TalMemPoolImpl::SysAlloc(uint32_t width, uint32_t height, uint32_t format,
                                   uint64_t usage, const std::string& name,
                                   const std::string& algoName, const SysAllocInfo& sysAllocInfo)
{
    TalMemChunk* chunk = NewMemChunk(width, height, format, usage, "PP:" + algoName);
    if (chunk == nullptr) {
        return 0;
    }
    MarkDirectChunk(chunk, name, algoName, sysAllocInfo);
    uintptr_t addr = AddrOf(chunk);
    uint64_t iova = IovaOf(chunk);
    if (addr == 0) {
        TAL_LOGE("QvCamMem %s fail sys alloc_addr 0x%lx w %u, h %u, format %u\n", __func__,
                 TalMaskAddr(addr), width, height, format);
        DelMemChunk(chunk);
        return 0;
    }
    sysMcMap[Key(addr)] = chunk;
    TAL_LOGD("QvCamMem %s, type %d %s(modul: %s) apva 0x%lx(iova 0x%lx) w %u, h %u, format %u\n",
             __func__, sysAllocInfo.allocateType, algoName.c_str(), name.c_str(),
             TalMaskAddr(addr), static_cast<unsigned long>(TalMaskIova(iova)), width, height,
             format);
    monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_SYS_ALLOC, chunk);
    return addr;
}

uintptr_t TalMemPoolImpl::SysAlloc(const MallocInfo& mallocInfo, const std::string& chunkName,
                                   bool preAlloc)
{
    TalMemChunk* chunk = NewMemChunk(mallocInfo.width, mallocInfo.height, mallocInfo.format,
                                     mallocInfo.usage, chunkName);
    if (chunk == nullptr) {
        return 0;
    }
    chunk->preAlloc = preAlloc;
    if (!preAlloc) {
        chunk->inUse = 1; // a preallocated chunk starts free
    }
    uintptr_t addr = AddrOf(chunk);
    uint64_t iova = IovaOf(chunk);
    if (addr == 0) {
        TAL_LOGE("QvCamMem %s fail sys alloc_addr 0x%lx\n", __func__, TalMaskAddr(addr));
        DelMemChunk(chunk);
        return 0;
    }
    preAllocPoolMcMap[Key(addr)] = chunk;
    TAL_LOGD("QvCamMem %s, (modul: %s) apva 0x%lx(iova 0x%lx) width %d height %d \n", __func__,
             chunkName.c_str(), TalMaskAddr(addr), static_cast<unsigned long>(TalMaskIova(iova)),
             static_cast<int>(mallocInfo.width), static_cast<int>(mallocInfo.height));
    return addr;
}

TalMemChunk* TalMemPoolImpl::NewMemChunk(uint32_t size, int32_t allocNow, uint64_t usage,
                                         const std::string& chunkName, int32_t chunkFlag)
{
    TalMemChunk* chunk = new (std::nothrow)
        TalMemChunk(size, allocNow, usage, kCameraBufferMemory, chunkName, chunkFlag);
    if (chunk != nullptr && chunk->Init() != 0) {
        DelMemChunk(chunk);
        chunk = nullptr;
    }
    return chunk;
}

TalMemChunk* TalMemPoolImpl::NewMemChunk(uint32_t width, uint32_t height, uint32_t format,
                                         uint64_t usage, const std::string& chunkName)
{
    TalMemChunk* chunk = new (std::nothrow) TalMemChunk(width, height, format, usage, chunkName);
    if (chunk != nullptr && chunk->Init() != 0) {
        DelMemChunk(chunk);
        chunk = nullptr;
    }
    return chunk;
}

void TalMemPoolImpl::DelMemChunk(TalMemChunk* chunk)
{
    delete chunk; // deleting null is a no-op
}

TalMemChunk* TalMemPoolImpl::FindPoolChunk(uintptr_t address) const
{
    for (TalMemChunk* pool : poolChunkList) {
        uintptr_t base = AddrOf(pool);
        // Strict lower bound: a pool's base address is never pool memory.
        if (base < address && address < base + pool->GetSize()) {
            return pool;
        }
    }
    return nullptr;
}

TalMemChunk* TalMemPoolImpl::PoolRecordOf(TalMemChunk* pool, uintptr_t address)
{
    return static_cast<TalMemChunk*>(talMem.GetMcInfo(AddrOf(pool), address));
}

void TalMemPoolImpl::Free(uintptr_t address)
{
    TAL_LOGD("QvCamMem %s, addr 0x%lx \n", __func__, TalMaskAddr(address));
    if (address == 0) {
        TAL_LOGE("QvCamMem %s, ERROR! invalid vaddr\n", __func__);
        return;
    }
    TalMemChunk* pool = FindPoolChunk(address);
    if (pool == nullptr) {
        SysFree(address);
        return;
    }
    TalMemChunk* record = PoolRecordOf(pool, address);
    if (record == nullptr) {
        TAL_LOGE("QvCamMem %s, ERROR! addr 0x%lx GetMcInfo fail\n", __func__,
                 TalMaskAddr(address));
        return;
    }
    talMem.Free(AddrOf(pool), address);
    monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_POOL_FREE, record);
    DelMemChunk(record);
    poolMcMap.erase(Key(address));
}

void TalMemPoolImpl::SysFree(uintptr_t address)
{
    auto sys = sysMcMap.find(Key(address));
    if (sys != sysMcMap.end()) {
        if (DropNullEntry(sysMcMap, sys, "sysMcMap")) {
            return;
        }
        monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_SYS_FREE, sys->second);
        DelMemChunk(sys->second);
        sysMcMap.erase(sys);
        return;
    }
    auto prev = sysPrevMcMap.find(Key(address));
    if (prev != sysPrevMcMap.end()) {
        TalMemChunk* chunk = prev->second;
        if (DropNullEntry(sysPrevMcMap, prev, "sysPrevMcMap")) {
            return;
        }
        if (chunk->inUse == 1) { // a second free of a reuse chunk changes nothing
            monitor.UpdateMemoryStatus(TAL_MEM_MONITOR_SYS_FREE, chunk);
            prevAllNeed -= chunk->GetUsedSize();
            chunk->inUse = 0;
            chunk->SetUsedSize(0);
        }
        return;
    }
    auto pre = preAllocPoolMcMap.find(Key(address));
    if (pre != preAllocPoolMcMap.end()) {
        TalMemChunk* chunk = pre->second;
        if (DropNullEntry(preAllocPoolMcMap, pre, "preAllocPoolMcMap")) {
            return;
        }
        if (chunk->preAlloc && !chunk->releasePending) {
            chunk->inUse = 0;
        } else {
            DelMemChunk(chunk);
            preAllocPoolMcMap.erase(pre);
        }
    }
}

bool TalMemPoolImpl::DropNullEntry(TalChunkMap& map, TalChunkMap::iterator entry,
                                   const char* mapName)
{
    if (entry->second != nullptr) {
        return false;
    }
    // Nothing to free behind a null entry; it only goes from the map.
    TAL_LOGW_FOR("SysFree", "QvCamMem %s, ERROR! %s free fail addr 0x%lx \n", "SysFree", mapName,
                 TalMaskAddr(entry->first));
    map.erase(entry);
    return true;
}

const qva_ibuf* TalMemPoolImpl::GetIBuf(uintptr_t address)
{
    if (address == 0) {
        TAL_LOGE("QvCamMem %s, ERROR! invalid vaddr\n", __func__);
        return nullptr;
    }
    TalMemChunk* pool = FindPoolChunk(address);
    if (pool != nullptr) {
        TalMemChunk* record = PoolRecordOf(pool, address);
        if (record == nullptr) {
            TAL_LOGW("QvCamMem %s, ERROR! GetMcInfo getIBuf fail addr 0x%lx\n", __func__,
                     TalMaskAddr(address));
            return nullptr;
        }
        return record->GetIBuf();
    }
    auto sys = sysMcMap.find(Key(address));
    if (sys == sysMcMap.end()) {
        return GetReuseIBuf(address);
    }
    if (sys->second == nullptr) {
        TAL_LOGW("QvCamMem %s, ERROR! sysMcMap getIBuf fail addr 0x%lx \n", __func__,
                 TalMaskAddr(address));
        return nullptr;
    }
    return sys->second->GetIBuf();
}

TalMemPoolImpl::ReuseLookup TalMemPoolImpl::LookupReuseMap(TalChunkMap& map, uintptr_t address,
                                                            TalMemChunk*& chunk)
{
    auto it = map.find(Key(address));
    if (it == map.end()) {
        return ReuseLookup::kAbsent;
    }
    chunk = it->second;
    if (chunk == nullptr) {
        return ReuseLookup::kNullChunk;
    }
    // A free chunk falls through to the next map.
    return chunk->inUse == 1 ? ReuseLookup::kInUse : ReuseLookup::kAbsent;
}

const qva_ibuf* TalMemPoolImpl::GetReuseIBuf(uintptr_t address)
{
    TalMemChunk* chunk = nullptr;
    ReuseLookup found = LookupReuseMap(sysPrevMcMap, address, chunk);
    if (found == ReuseLookup::kNullChunk) {
        TAL_LOGW("QvCamMem %s, ERROR! sysPrevMcMap getIBuf fail addr 0x%lx \n", __func__,
                 TalMaskAddr(address));
        return nullptr;
    }
    if (found == ReuseLookup::kAbsent) {
        found = LookupReuseMap(preAllocPoolMcMap, address, chunk);
        if (found == ReuseLookup::kNullChunk) {
            TAL_LOGW("QvCamMem %s, ERROR! preAllocPoolMcMap getIBuf fail addr 0x%lx \n",
                     __func__, TalMaskAddr(address));
            return nullptr;
        }
    }
    if (found == ReuseLookup::kInUse) {
        return chunk->GetIBuf();
    }
    TAL_LOGW("QvCamMem %s, ERROR! getIBuf fail addr 0x%lx \n", __func__, TalMaskAddr(address));
    return nullptr;
}

void TalMemPoolImpl::RegisterAllocatorRef(int32_t allocateType, const std::string& moduleName)
{
    monitor.RegisterAllocatorRef(allocateType, moduleName);
}

void TalMemPoolImpl::UnregisterAllocatorRef(int32_t allocateType, const std::string& moduleName)
{
    monitor.UnregisterAllocatorRef(allocateType, moduleName);
}

int32_t TalMemPoolImpl::GetMemDumpInfo(int32_t type)
{
    // The public entry reports the block as a 32-bit value: its address on the
    // 32-bit device (the low half on a 64-bit host), 0 when there is none.
    void* block = monitor.GetMemDumpInfo(type);
    return static_cast<int32_t>(reinterpret_cast<uintptr_t>(block));
}

} // namespace qv
