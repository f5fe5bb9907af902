// Allocator references and leak detection: per-type reference counts of the
// modules that allocate, the leak check when the last of a type leaves, the
// leak and allocation-failure reports, and the final clear of the manager.

// One concern of TalMemPoolMonitor: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemPoolMonitor.cpp"

#include "monitor/TalMemPoolMonitor.h"

#include <algorithm>
#include <memory>
#include <new>

#include "chunk/TalMemChunk.h"
#include "common/TalLog.h"
#include "monitor/MemUtils.h"
#include "pool/TalMemPoolImpl.h"

namespace qv {

namespace {
constexpr int kMaxAllocatorRef = 0x7FFFFFFF;
constexpr int kCaptureType = 0;
constexpr const char* kDeviceNames[] = {"CPU", "GPU", "IVP"};
constexpr int kDeviceNum = 3;

inline bool ValidType(int allocateType)
{
    return allocateType >= 0 && allocateType < TalMemPoolMonitor::kAllocTypeNum;
}
} // namespace

int TalMemPoolMonitor::ClearManager()
{
    return poolImpl->ClearAll();
}

void TalMemPoolMonitor::RegisterAllocatorRef(int allocateType, const std::string& moduleName)
{
    if (!ValidType(allocateType) || allocatorRef[allocateType] == kMaxAllocatorRef) {
        TAL_LOGE("QvCamMem %s(), allocateType=%d error.\n", __func__, allocateType);
        return;
    }
    allocatorRef[allocateType] += 1;
    TAL_LOGD("QvCamMem in %s(), allocatorRef[%s]=%d, %s +\n", __func__,
             AllocateType2str(allocateType), allocatorRef[allocateType], moduleName.c_str());
}

void TalMemPoolMonitor::UnregisterAllocatorRef(int allocateType, const std::string& moduleName)
{
    if (!ValidType(allocateType)) {
        TAL_LOGE("QvCamMem %s(), allocateType=%d error.\n", __func__, allocateType);
        return;
    }
    if (allocatorRef[allocateType] == 0) {
        TAL_LOGE("QvCamMem %s(), module referance error. allocatorRef[%d]=%d, %s\n", __func__,
                 allocateType, allocatorRef[allocateType], moduleName.c_str());
        return;
    }
    // Capture records stay until the leak check below; the others go with their module.
    if (allocateType != kCaptureType) {
        ReleaseUpdateAlgoInfo(allocateType, moduleName);
    }
    allocatorRef[allocateType] -= 1;
    TAL_LOGD("QvCamMem in %s(), allocatorRef[%s]=%d, %s -\n", __func__,
             AllocateType2str(allocateType), allocatorRef[allocateType], moduleName.c_str());
    if (allocatorRef[allocateType] > 0) {
        return;
    }
    if (CheckMemChunkLeak(allocateType)) {
        algoInfoList[allocateType].clear();
        DumpMemLeakInfo();
        DumpMemErrorInfo();
        ReportMemLeak();
    } else {
        CheckUpdateAlgoInfo(allocateType);
    }
    const bool allGone = std::all_of(std::begin(allocatorRef), std::end(allocatorRef),
                                     [](int ref) { return ref == 0; });
    if (allGone && poolImpl != nullptr && ClearManager() != 0) {
        TAL_LOGW("ClearAll Failed!\n");
    }
}

void TalMemPoolMonitor::MoveLeakedChunks(ChunkMap& chunks, int allocateType, bool& leaked)
{
    for (auto it = chunks.begin(); it != chunks.end();) {
        TalMemChunk* chunk = it->second;
        if (chunk->GetAllocateType() != allocateType) {
            ++it;
            continue;
        }
        leaked = AddChunkLeakRecord(chunk) || leaked;
        mLeakedSizeByType[allocateType] += chunk->GetSize();
        it = chunks.erase(it);
    }
}

bool TalMemPoolMonitor::CheckMemChunkLeak(int allocateType)
{
    CheckTypeIndex(allocateType, __func__);
    bool leaked = false;
    MoveLeakedChunks(inPoolChunkMap, allocateType, leaked);
    MoveLeakedChunks(outPoolChunkMap, allocateType, leaked);
    if (leaked) {
        TAL_LOGD("QvCamMem %s() error! mem leak detected! allocateType = %d leakSizeByType = "
                 "%zu\n",
                 __func__, allocateType, static_cast<size_t>(mLeakedSizeByType[allocateType]));
    } else {
        TAL_LOGD("QvCamMem %s() usedSizeByType[%d] = %zu mLeakedSizeByType = %zu, but no chunk "
                 "leaked!\n",
                 __func__, allocateType, static_cast<size_t>(usedSizeByType[allocateType]),
                 static_cast<size_t>(mLeakedSizeByType[allocateType]));
    }
    TAL_LOGD("QvCamMem exit %s(), allocateType=%d, isMemLeaked=%d\n", __func__, allocateType,
             leaked ? 1 : 0);
    return leaked;
}

bool TalMemPoolMonitor::AddChunkLeakRecord(TalMemChunk* chunk)
{
    if (std::find(leakChunkList.begin(), leakChunkList.end(), chunk) != leakChunkList.end()) {
        TAL_LOGD("QvCamMem %s(), record existed already\n", __func__);
        return false;
    }
    leakChunkList.push_front(chunk);
    mLeakedNumOnce += 1;
    TAL_LOGD("QvCamMem %s(), add mc 0x%lx to leak record, addr=0x%lx mLeakedNumOnce = %zu\n",
             __func__, TalMaskAddr(chunk), TalMaskAddr(chunk->GetAddr()),
             static_cast<size_t>(mLeakedNumOnce));
    return true;
}

void TalMemPoolMonitor::RemoveLeakRecord(TalMemChunk* chunk)
{
    auto it = std::find(leakChunkList.begin(), leakChunkList.end(), chunk);
    if (it != leakChunkList.end()) {
        leakChunkList.erase(it);
    }
}

void TalMemPoolMonitor::DumpMemLeakInfo()
{
    memLeakInfo.clear();
    for (TalMemChunk* chunk : leakChunkList) {
        memLeakInfo.push_back(MakeChunkInfo(chunk, chunk->GetSize()));
    }
    if (!leakChunkList.empty()) {
        PrintChunkInfoList(memLeakInfo, "MemLeakInfo");
    }
}

void TalMemPoolMonitor::DumpMemErrorInfo()
{
    memDumpInfo.captureList.clear();
    memDumpInfo.previewList.clear();
    memDumpInfo.othersList.clear();
    GetChunkInfo(inPoolChunkMap, memDumpInfo);
    GetChunkInfo(outPoolChunkMap, memDumpInfo);
    FillSizeWords(memDumpInfo); // the three per-type totals stay 0 in this block
    TAL_LOGD("QvCamMem %s(): poolSize(%zu), outPoolSize(%zu), inPoolUsed(%zu), outPoolUsed(%zu), "
             "captureUsed(%zu), previewUsed(%zu), othersUsed(%zu)\n",
             __func__, static_cast<size_t>(memDumpInfo.poolSize),
             static_cast<size_t>(memDumpInfo.outPoolSize),
             static_cast<size_t>(memDumpInfo.inPoolUsed),
             static_cast<size_t>(memDumpInfo.outPoolUsed),
             static_cast<size_t>(memDumpInfo.captureUsed),
             static_cast<size_t>(memDumpInfo.previewUsed),
             static_cast<size_t>(memDumpInfo.othersUsed));
    PrintChunkInfoList(memDumpInfo.captureList, "memDumpInfo.captureList");
    PrintChunkInfoList(memDumpInfo.previewList, "memDumpInfo.previewList");
    PrintChunkInfoList(memDumpInfo.othersList, "memDumpInfo.othersList");
}

void TalMemPoolMonitor::FillLeakReport(talMemPoolLeakErrorReportInfo& report)
{
    report.leakedNum = mLeakedNumOnce;
    report.leakList = memLeakInfo;
    report.dump = memDumpInfo;
}

void TalMemPoolMonitor::ReportMemLeak()
{
    std::unique_ptr<talMemPoolLeakErrorReportInfo> report(
        new (std::nothrow) talMemPoolLeakErrorReportInfo());
    if (report == nullptr) {
        TAL_LOGE("QvCamMem %s() talMemPoolLeakErrorReportInfo new fail\n", __func__);
        return;
    }
    FillLeakReport(*report);
    mLeakedNumOnce = 0;
    // The library has no consumer for the report: it is released here.
}

void TalMemPoolMonitor::FillAllocFailReport(talMemPoolAllocFailErrorReportInfo& report,
                                            int allocSize, const std::string& algoName,
                                            int allocateType, int device)
{
    report.allocSize = allocSize;
    report.sysFreeSizeInKB = static_cast<int>(MemUtils::getFreeMemorySize());
    report.sysTotalSizeInKB = MemUtils::getTotalMemory();
    report.cameraGraphicSizeInKB = static_cast<int>(MemUtils::countGraphicMem());
    if (device >= 0 && device < kDeviceNum) {
        report.usedDevice = kDeviceNames[device];
    }
    report.algoName = algoName;
    report.allocateType = allocateType;
    DumpMemErrorInfo();
    report.dump = memDumpInfo;
}

void TalMemPoolMonitor::ReportMemAllocFail(int allocSize, std::string algoName, int allocateType,
                                           int device)
{
    std::unique_ptr<talMemPoolAllocFailErrorReportInfo> report(
        new (std::nothrow) talMemPoolAllocFailErrorReportInfo());
    if (report == nullptr) {
        TAL_LOGE("QvCamMem %s() talMemPoolAllocFailErrorReportInfo new fail\n", __func__);
        return;
    }
    FillAllocFailReport(*report, allocSize, algoName, allocateType, device);
    // The free size goes under the "sysTotalSizeInKB" label and the total
    // under "sysFreeSizeInKB": existing log readers expect this crossing.
    TAL_LOGI("QvCamMem %s() allocSize(%d), sysTotalSizeInKB(%d), sysFreeSizeInKB(%d), "
             "cameraGraphicSizeInKB(%d),usedDevice(%s), algoName(%s), allocateType(%d)\n",
             __func__, report->allocSize, report->sysFreeSizeInKB, report->sysTotalSizeInKB,
             report->cameraGraphicSizeInKB, report->usedDevice.c_str(), report->algoName.c_str(),
             report->allocateType);
}

} // namespace qv
