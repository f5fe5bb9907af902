#ifndef TALMEM_MONITOR_TALMEMPOOLMONITOR_H
#define TALMEM_MONITOR_TALMEMPOOLMONITOR_H

// TalMemPoolMonitor: the bookkeeping companion of the pool manager.
//
// The pool manager owns exactly one monitor and reports every allocation,
// release and stream event to it through UpdateMemoryStatus. The monitor never
// allocates or frees buffer memory: it keeps its own indexes of the live
// chunks, running totals per pool and per allocate type, a per-capture
// snapshot account between start of stream and frames, per-algorithm records,
// allocator reference counts with leak detection, and the dump blocks that
// GetMemDumpInfo hands out.
//
// Threading: no lock of its own. Every call arrives under the service
// object's mutex; the monitor must never be called from two threads at once.

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>

namespace qv {

class TalMemChunk;
class TalMemPoolImpl;

// What happened; the display names come from TalMemPoolMonitor::MonitorType2str.
enum TAL_MEM_MONITOR_TYPE {
    TAL_MEM_MONITOR_POOL_ALLOC = 0, // "PoolAlloc": a chunk was carved from a pool
    TAL_MEM_MONITOR_SYS_ALLOC = 1,  // "SysAlloc": a direct chunk was taken from the system
    TAL_MEM_MONITOR_POOL_FREE = 2,  // "PoolFree"
    TAL_MEM_MONITOR_SYS_FREE = 3,   // "SysFree"
    TAL_MEM_MONITOR_SOS = 4,        // "SOS": start of stream
    TAL_MEM_MONITOR_FRAME = 5,      // "Frame"
    TAL_MEM_MONITOR_EOS = 6,        // "EOS": end of stream
    TAL_MEM_MONITOR_RELEASE = 7,    // "Release": an allocator released its memory
    TAL_MEM_MONITOR_CLEAR = 8,      // "Clear": empty the algorithm list of one allocate type
    TAL_MEM_MONITOR_CHECK = 9,      // "Check": check the algorithm list of one allocate type
};

// Which pool size GetPoolSize sums.
enum TAL_MEM_GETSIZE_TYPE {
    TAL_MEM_GETSIZE_IN_POOL = 0,  // the pool backing chunks
    TAL_MEM_GETSIZE_OUT_POOL = 1, // direct chunks
    TAL_MEM_GETSIZE_ALL = 2,      // both
};

// Which per-algorithm report DumpAlgoMemInfo prints.
enum TAL_MEM_COUNT_TYPE {
    TAL_MEM_COUNT_REALTIME = 0, // current use per algorithm
    TAL_MEM_COUNT_EOS = 1,      // end-of-stream summary (prints and prunes)
};

// One chunk as the report lists show it. `addr` is the whole address here;
// every printer masks it to its low 24 bits.
struct TalMemPoolChunkInfo {
    std::string algoName;
    std::string moduleName;
    int allocateType = 0;
    unsigned long addr = 0;
    size_t size = 0;
    int usedAgeInMs = 0; // always 0: chunk ages are not tracked
};

// One algorithm as the realtime dump shows it.
struct TalMemPoolAlgoInfo {
    std::string algoName;
    int usedSizeCurrent = 0;
    int peakUsedSize = 0;
};

// The ten size words (bytes) that open every dump block.
struct TalMemPoolSizeWords {
    unsigned int poolSize = 0;
    unsigned int outPoolSize = 0;
    unsigned int inPoolUsed = 0;
    unsigned int outPoolUsed = 0;
    unsigned int captureSize = 0;
    unsigned int captureUsed = 0;
    unsigned int previewSize = 0;
    unsigned int previewUsed = 0;
    unsigned int othersSize = 0;
    unsigned int othersUsed = 0;
};

// A dump block: the size words, then one list per allocate type.
template <typename Record>
struct TalMemPoolDumpBlock : TalMemPoolSizeWords {
    std::list<Record> captureList;
    std::list<Record> previewList;
    std::list<Record> othersList;
};

// GetMemDumpInfo(0) returns a TalMemPoolDumpInfo*, GetMemDumpInfo(1) a
// TalMemPoolRealtimeInfo*.
using TalMemPoolDumpInfo = TalMemPoolDumpBlock<TalMemPoolChunkInfo>;
using TalMemPoolRealtimeInfo = TalMemPoolDumpBlock<TalMemPoolAlgoInfo>;

// Report built when the last allocator of a type leaves with chunks alive.
struct talMemPoolLeakErrorReportInfo {
    unsigned int leakedNum = 0;
    std::list<TalMemPoolChunkInfo> leakList;
    TalMemPoolDumpInfo dump;
};

// Report built when an allocation fails; carries the system's memory state.
struct talMemPoolAllocFailErrorReportInfo {
    int allocSize = 0;
    int sysFreeSizeInKB = 0;
    int sysTotalSizeInKB = 0;
    int cameraGraphicSizeInKB = 0;
    std::string usedDevice; // "CPU", "GPU", "IVP", or empty for another device
    std::string algoName;
    int allocateType = 0;
    TalMemPoolDumpInfo dump;
};

// Per-algorithm record of one allocate type.
struct AlgoMemInfo {
    static constexpr size_t kNameSize = 128; // at most 127 characters are kept
    char algoName[kNameSize] = {};
    uint32_t keepOnEos = 0;         // held memory at the last end-of-stream summary
    uint32_t usedSizeCurrent = 0;   // bytes held now
    uint32_t usedChunkNum = 0;      // chunks held now
    uint32_t usedSizePeak = 0;      // highest usedSizeCurrent since the last Frame
    uint32_t sizeOnSos = 0;
    uint32_t sizeOnFrame = 0;
    uint32_t allocNumFrame = 0;
    uint32_t freeNumFrame = 0;
    uint32_t sizeFrame2Eos = 0;     // allocated minus released since the last Frame
    uint32_t peakSizeFrame2Eos = 0;
    uint32_t sizeSos2Eos = 0;       // allocated minus released since the last SOS
    uint32_t peakSizeSos2Eos = 0;
    uint32_t poolSizeFrame2Eos = 0; // as sizeFrame2Eos, chunks not forced out of the pools only
    uint32_t poolPeakFrame2Eos = 0;
};

class TalMemPoolMonitor {
public:
    // Chunks keyed by their CPU address.
    using ChunkMap = std::unordered_map<void*, TalMemChunk*>;

    static constexpr int kAllocTypeNum = 3;

    // `impl` is the owning pool manager (not owned; may be null in which case
    // capture status 0, no crossing and no ClearAll are assumed).
    explicit TalMemPoolMonitor(TalMemPoolImpl* impl);
    ~TalMemPoolMonitor();

    TalMemPoolMonitor(const TalMemPoolMonitor&) = delete;
    TalMemPoolMonitor& operator=(const TalMemPoolMonitor&) = delete;

    // Binds the manager's pool chunk list and its address map (both must
    // outlive the monitor) and reads the debug properties. Returns 0.
    int PoolMonitorInit(std::list<TalMemChunk*>& poolChunks, ChunkMap& chunkMap);

    // The single entry point for events. `chunk` is null for stream events
    // and for the commands Release/Clear/Check. The chunk stays owned by the
    // manager; the monitor only indexes it while it is alive.
    void UpdateMemoryStatus(TAL_MEM_MONITOR_TYPE type, TalMemChunk* chunk);

    // Recomputes the fixed-point reciprocal of the in-pool size; call
    // whenever the set of pool chunks changes.
    void UpdateRecipOfPoolSize();

    // Sum of chunk sizes of the kind asked for; 0 with an error line for an
    // unknown kind.
    unsigned int GetPoolSize(TAL_MEM_GETSIZE_TYPE type);

    // Each ADDS its sum to `size`; callers start from 0.
    void GetInPoolUsedSize(unsigned int& size);
    void GetOutPoolUsedSize(unsigned int& size);
    void GetCaptureUsedSize(unsigned int& size);
    void GetAllCaptureSize(unsigned int& size);
    void GetAllPreviewSize(unsigned int& size);

    // Per-algorithm accounting, one record list per allocate type. The
    // allocateType of these calls indexes the lists and must be 0..2: any
    // other index aborts the process (UpdateMemoryStatus validates first).
    void UpdateAlgoMemInfo(TAL_MEM_MONITOR_TYPE type, int allocateType, std::string algoName,
                           unsigned int size, int forceFromSys);
    void InitAlgoInfo(AlgoMemInfo& info, const std::string& algoName, unsigned int size,
                      int forceFromSys);
    void AllocUpdateAlgoInfo(int allocateType, const std::string& algoName, unsigned int size,
                             int forceFromSys);
    void FreeUpdateAlgoInfo(int allocateType, const std::string& algoName, unsigned int size,
                            int forceFromSys);
    void SosUpdateAlgoInfo();
    void FrameUpdateAlgoInfo();
    void ReleaseUpdateAlgoInfo(int allocateType, const std::string& algoName);
    void CheckUpdateAlgoInfo(int allocateType);
    void DumpAlgoMemInfo(TAL_MEM_COUNT_TYPE type);
    // The per-algorithm records of one allocate type (0..2), read by the pool
    // manager's peak learning at end of stream.
    const std::list<AlgoMemInfo>& GetAlgoInfoList(int allocateType) const
    {
        CheckTypeIndex(allocateType, __func__);
        return algoInfoList[allocateType];
    }
    // Empties every algorithm list and zeroes the snapshot counters; the pool
    // status counters and the chunk maps stay.
    void ClearAlgoInfo();

    // Allocator references and leaks. allocateType 0 Capture, 1 Preview,
    // 2 Others; anything else is logged and ignored. When the last allocator
    // of a type leaves, chunks of that type still alive are recorded as
    // leaked; when the last allocator of every type has left, the manager's
    // ClearAll is called.
    void RegisterAllocatorRef(int allocateType, const std::string& moduleName);
    void UnregisterAllocatorRef(int allocateType, const std::string& moduleName);
    bool CheckMemChunkLeak(int allocateType);
    bool AddChunkLeakRecord(TalMemChunk* chunk);
    void DumpMemLeakInfo();
    void DumpMemErrorInfo();
    void ReportMemLeak();
    // Logs an allocation failure with the system's memory state; `device`
    // 0..2 names "CPU", "GPU", "IVP".
    void ReportMemAllocFail(int allocSize, std::string algoName, int allocateType, int device);

    // Dumps and properties.
    void ReadProperties();
    // 0: TalMemPoolDumpInfo*, 1: TalMemPoolRealtimeInfo* (both owned by the
    // monitor, valid until the next dump of the same type); 2 logs the pool
    // chunks and returns null; other types log an error and return null.
    void* GetMemDumpInfo(int dumpType);
    void DumpMemRealtimeInfo();
    void GetChunkInfo(ChunkMap& chunks, TalMemPoolDumpInfo& info);
    void PrintChunkInfoList(std::list<TalMemPoolChunkInfo>& list, std::string title);
    void PrintAlgoInfoList(std::list<TalMemPoolAlgoInfo>& list, std::string title);

    static const char* MonitorType2str(int type);
    static const char* AllocateType2str(int allocateType);
    static const char* CaptureStatus2str(unsigned int status);

private:
    friend class TalMemPoolMonitorPeer; // test access to the counters

    // Usage accounting steps of UpdateMemoryStatus.
    void MemChunkListUpdate(TAL_MEM_MONITOR_TYPE type, TalMemChunk* chunk);
    void UpdatePoolStatus(TAL_MEM_MONITOR_TYPE type, int allocateType, unsigned int size);
    void UpdateSnapShotStatus(TAL_MEM_MONITOR_TYPE type, unsigned int size,
                              unsigned int captureStatus, bool& reachPeak);
    void AllocUpdate(TAL_MEM_MONITOR_TYPE type, unsigned int size, bool& reachPeak);
    void FreeUpdate(TAL_MEM_MONITOR_TYPE type, unsigned int size, unsigned int chunkStatus);
    void FrameUpdate();
    bool ReachPeak();
    unsigned int Ratio(unsigned int bytes) const;
    void UpdatePeakSizeMemListInfo();
    void PrintPeakSizeMemListInfo();
    void PrintStatus(TAL_MEM_MONITOR_TYPE type, const std::string& algoName, unsigned int size,
                     const char* sign, bool reachPeak);
    unsigned int PoolChunksSize() const;
    unsigned int OutPoolSize() const;
    unsigned int IdleAddrMapSize() const;

    // Aborts when a per-type array index is outside 0..2, after one ERROR
    // line in the name of `func`, the operation that was handed the index.
    static void CheckTypeIndex(int allocateType, const char* func);

    // Manager state read through the back pointer.
    unsigned int CaptureStatus() const;
    bool InCrossing() const;
    int ClearManager();

    // The record list of one allocate type; a bad type aborts in the name of `func`.
    std::list<AlgoMemInfo>& AlgoList(int allocateType, const char* func);
    AlgoMemInfo* FindAlgo(int allocateType, const std::string& algoName, const char* func);
    void MoveLeakedChunks(ChunkMap& chunks, int allocateType, bool& leaked);
    void RemoveLeakRecord(TalMemChunk* chunk);
    static TalMemPoolChunkInfo MakeChunkInfo(TalMemChunk* chunk, size_t size);
    void FillLeakReport(talMemPoolLeakErrorReportInfo& report);
    void FillAllocFailReport(talMemPoolAllocFailErrorReportInfo& report, int allocSize,
                             const std::string& algoName, int allocateType, int device);
    // Pool and direct sizes, the used sizes of both and the per-type use;
    // the three per-type totals are left to the caller.
    void FillSizeWords(TalMemPoolSizeWords& words);

    std::list<AlgoMemInfo> algoInfoList[kAllocTypeNum];
    TalMemPoolImpl* poolImpl;
    std::list<TalMemChunk*>* poolChunkList;
    ChunkMap* chunkAddrMap;
    ChunkMap inPoolChunkMap;
    ChunkMap outPoolChunkMap;
    unsigned int usedSizeByType[kAllocTypeNum];
    unsigned int mLeakedSizeByType[kAllocTypeNum];
    int allocatorRef[kAllocTypeNum];
    std::list<TalMemChunk*> leakChunkList;
    unsigned int mLeakedNumOnce;

    std::list<TalMemPoolChunkInfo> memLeakInfo;
    TalMemPoolDumpInfo memDumpInfo;
    TalMemPoolRealtimeInfo memRealtimeInfo;

    // Pool status: never reset.
    unsigned int allSize;
    unsigned int SysSize;
    unsigned int allNum;
    unsigned int SysNum;
    unsigned int allSizePeak;

    std::list<TalMemPoolChunkInfo> peakSizeMemChunkList;

    // Snapshot account: reset at SOS (the Sos2Frame pair, the ratio) and at
    // each Frame (the rest).
    unsigned int totalSize;
    unsigned int peakSize;
    unsigned int peakSizeRatio;
    unsigned int snapInPoolSize;
    unsigned int snapSysSize;
    unsigned int sysSizePeak;
    unsigned int snapSysNum;
    unsigned int totalNum;
    unsigned int sosAllSize;
    unsigned int sosAllNum;
    unsigned int frameAllSize;
    unsigned int frameAllNum;
    unsigned int snapSizeSos2Frame;
    unsigned int snapSysSizeSos2Frame;

    bool printRealtimePoolStatus;
    bool printRealtimeAlgoInfo;
    bool printPeakSizeMemChunkList;

    uint32_t recipOfPoolSize;
};

} // namespace qv

#endif // TALMEM_MONITOR_TALMEMPOOLMONITOR_H
