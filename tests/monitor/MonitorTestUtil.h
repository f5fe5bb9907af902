#ifndef TALMEM_TESTS_MONITOR_MONITORTESTUTIL_H
#define TALMEM_TESTS_MONITOR_MONITORTESTUTIL_H

// Shared pieces of the monitor tests: read access to the monitor's counters,
// a pool manager whose monitor is bound to its containers, and real chunks
// (camera buffers, splits of a pool chunk, heap blocks) with the attributes
// the pool manager would give them.

#include <cstdint>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "TalTestSupport.h"
#include "chunk/TalMemChunk.h"
#include "monitor/TalMemPoolMonitor.h"
#include "pool/TalMemPoolImpl.h"
#include "talmem_properties.h"

namespace qv {

// Read (and, for bounds tests, write) access to the monitor's private state.
class TalMemPoolMonitorPeer {
public:
    explicit TalMemPoolMonitorPeer(TalMemPoolMonitor& monitor) : m(monitor) {}

    unsigned int allSize() const { return m.allSize; }
    unsigned int allNum() const { return m.allNum; }
    unsigned int sysSize() const { return m.SysSize; }
    unsigned int sysNum() const { return m.SysNum; }
    unsigned int allSizePeak() const { return m.allSizePeak; }
    unsigned int usedSizeByType(int t) const { return m.usedSizeByType[t]; }
    unsigned int leakedSizeByType(int t) const { return m.mLeakedSizeByType[t]; }
    unsigned int leakedNumOnce() const { return m.mLeakedNumOnce; }
    int& allocatorRef(int t) { return m.allocatorRef[t]; }

    unsigned int totalSize() const { return m.totalSize; }
    unsigned int totalNum() const { return m.totalNum; }
    unsigned int peakSize() const { return m.peakSize; }
    unsigned int peakSizeRatio() const { return m.peakSizeRatio; }
    unsigned int snapInPoolSize() const { return m.snapInPoolSize; }
    unsigned int snapSysSize() const { return m.snapSysSize; }
    unsigned int snapSysNum() const { return m.snapSysNum; }
    unsigned int sysSizePeak() const { return m.sysSizePeak; }
    unsigned int sosAllSize() const { return m.sosAllSize; }
    unsigned int frameAllSize() const { return m.frameAllSize; }
    unsigned int snapSizeSos2Frame() const { return m.snapSizeSos2Frame; }
    unsigned int snapSysSizeSos2Frame() const { return m.snapSysSizeSos2Frame; }
    uint32_t recipOfPoolSize() const { return m.recipOfPoolSize; }

    bool inPoolMapHas(TalMemChunk* c) const { return Has(m.inPoolChunkMap, c); }
    bool outPoolMapHas(TalMemChunk* c) const { return Has(m.outPoolChunkMap, c); }
    size_t inPoolMapSize() const { return m.inPoolChunkMap.size(); }
    const std::list<TalMemChunk*>& leakList() const { return m.leakChunkList; }
    const std::list<TalMemPoolChunkInfo>& peakList() const { return m.peakSizeMemChunkList; }
    const std::list<AlgoMemInfo>& algoList(int t) const { return m.algoInfoList[t]; }
    const AlgoMemInfo* algo(int t, const std::string& name) const
    {
        for (const AlgoMemInfo& info : m.algoInfoList[t]) {
            if (name == info.algoName) {
                return &info;
            }
        }
        return nullptr;
    }
    bool switches(bool& pool, bool& algo, bool& peak) const
    {
        pool = m.printRealtimePoolStatus;
        algo = m.printRealtimeAlgoInfo;
        peak = m.printPeakSizeMemChunkList;
        return pool || algo || peak;
    }
    void FillAllocFailReport(talMemPoolAllocFailErrorReportInfo& r, int size,
                             const std::string& algo, int type, int device)
    {
        m.FillAllocFailReport(r, size, algo, type, device);
    }
    void FillLeakReport(talMemPoolLeakErrorReportInfo& r) { m.FillLeakReport(r); }

private:
    static bool Has(const TalMemPoolMonitor::ChunkMap& map, TalMemChunk* c)
    {
        auto it = map.find(c->GetAddr());
        return it != map.end() && it->second == c;
    }
    TalMemPoolMonitor& m;
};

} // namespace qv

namespace monitor_test {

constexpr uint32_t kMiB = 1u << 20;

// `value` left-justified in `width` columns, as "%-Nzu" prints it.
inline std::string L(const std::string& value, size_t width)
{
    return value.size() >= width ? value : value + std::string(width - value.size(), ' ');
}
inline std::string L(unsigned long long value, size_t width)
{
    return L(std::to_string(value), width);
}
constexpr int kCapture = 0;
constexpr int kPreview = 1;
constexpr int kOthers = 2;

// Fixture: a pool manager (not initialised: no configuration, no pools)
// whose monitor is bound to its pool list and preview-reuse map, as PoolInit
// binds it. Chunks made here are owned by the fixture unless handed to the
// manager's containers.
class MonitorTest : public talmem_test::TalTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Binds the monitor (reads the debug properties set so far).
    void Bind();

    // A direct chunk of `size` bytes as the pool manager makes one by size:
    // a camera buffer when `camera` is true, else a heap block (same
    // accounting, no device memory; used for the large sizes).
    qv::TalMemChunk* Direct(uint32_t size, int allocType, const std::string& algo,
                            bool camera = false, const std::string& module = "mod");
    // A pool chunk without memory of its own (only its size counts), put at
    // the back of the manager's pool list; the manager owns it.
    qv::TalMemChunk* AddPool(uint32_t size, int32_t poolId = 1);
    // A carved record of `size` bytes at `offset` of a camera-buffer pool
    // chunk, as PoolAlloc configures one.
    qv::TalMemChunk* Carved(qv::TalMemChunk* pool, uint32_t offset, uint32_t size, int allocType,
                            const std::string& algo, const std::string& module = "mod");
    // A camera-buffer pool chunk of `size` bytes owned by the fixture.
    qv::TalMemChunk* CameraPool(uint32_t size, int32_t poolId = 1);

    void Event(qv::TAL_MEM_MONITOR_TYPE type, qv::TalMemChunk* chunk = nullptr)
    {
        monitor().UpdateMemoryStatus(type, chunk);
    }
    // The manager's capture status, as its stream events set it.
    void Stream(uint32_t state) { impl_->streamState = state; }

    qv::TalMemPoolMonitor& monitor() { return impl_->monitor; }
    qv::TalMemPoolMonitorPeer peer() { return qv::TalMemPoolMonitorPeer(impl_->monitor); }

    // Lines of DEBUG priority whose message starts with `prefix`.
    static std::vector<std::string> DebugLinesStartingWith(const std::string& prefix);
    // Every "0x..." number in every captured line whose message contains
    // `fragment`.
    static std::vector<std::string> HexNumbersIn(const std::string& fragment);
    static unsigned long Masked(const void* addr)
    {
        return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(addr) & 0xFFFFFFu);
    }

    std::unique_ptr<qv::TalMemPoolImpl> impl_;
    std::vector<std::unique_ptr<qv::TalMemChunk>> owned_;
};

} // namespace monitor_test

#endif // TALMEM_TESTS_MONITOR_MONITORTESTUTIL_H
