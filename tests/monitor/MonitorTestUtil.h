#ifndef TALMEM_TESTS_MONITOR_MONITORTESTUTIL_H
#define TALMEM_TESTS_MONITOR_MONITORTESTUTIL_H

// Monitor test pieces: read access to its state, status line builders, a fixture with real chunks.

#include <algorithm>
#include <cstdio>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "TalTestSupport.h"
#include "chunk/TalMemChunk.h"
#include "monitor/TalMemPoolMonitor.h"
#include "pool/TalMemPoolImpl.h"
#include "talmem_properties.h"

namespace qv {

class TalMemPoolMonitorPeer {
public:
    explicit TalMemPoolMonitorPeer(TalMemPoolMonitor& monitor) : m(monitor) {}
    // The snapshot account in declaration order.
    std::vector<unsigned int> snap() const
    {
        return {m.totalSize,  m.peakSize, m.peakSizeRatio, m.snapInPoolSize, m.snapSysSize,  m.sysSizePeak,
                m.snapSysNum, m.totalNum, m.sosAllSize,    m.sosAllNum,      m.frameAllSize, m.frameAllNum,
                m.snapSizeSos2Frame, m.snapSysSizeSos2Frame};
    }
    std::vector<unsigned int> pool() const { return {m.allSize, m.SysSize, m.allNum, m.SysNum, m.allSizePeak}; }
    std::vector<unsigned int> usedByType() const { return {m.usedSizeByType[0], m.usedSizeByType[1], m.usedSizeByType[2]}; }
    int& ref(int t) { return m.allocatorRef[t]; }
    const std::list<TalMemChunk*>& leakList() const { return m.leakChunkList; }
    size_t peakListSize() const { return m.peakSizeMemChunkList.size(); }
    const std::list<AlgoMemInfo>& algoList(int t) const { return m.algoInfoList[t]; }
    const AlgoMemInfo* algo(int t, const std::string& name) const
    {
        const auto& l = m.algoInfoList[t];
        auto it = std::find_if(l.begin(), l.end(), [&](const AlgoMemInfo& i) { return name == i.algoName; });
        return it == l.end() ? nullptr : &*it;
    }

private:
    TalMemPoolMonitor& m;
};

} // namespace qv

namespace monitor_test {

using qv::TalMemChunk;
using talmem_test::LogCapture;
using Counters = std::vector<unsigned int>;
using Lines = std::vector<std::string>;
using Chunks = std::initializer_list<TalMemChunk*>;

constexpr uint32_t kMiB = 1u << 20;
constexpr int kCapture = 0, kPreview = 1, kOthers = 2;
constexpr auto kPoolAlloc = qv::TAL_MEM_MONITOR_POOL_ALLOC, kSysAlloc = qv::TAL_MEM_MONITOR_SYS_ALLOC;
constexpr auto kPoolFree = qv::TAL_MEM_MONITOR_POOL_FREE, kSysFree = qv::TAL_MEM_MONITOR_SYS_FREE;
constexpr auto kSos = qv::TAL_MEM_MONITOR_SOS, kFrame = qv::TAL_MEM_MONITOR_FRAME, kEos = qv::TAL_MEM_MONITOR_EOS;

template <typename... Args>
std::string Fmt(const char* fmt, Args... args)
{
    char buf[512]; // the lines under test are far shorter
    snprintf(buf, sizeof(buf), fmt, args...);
    return buf;
}
inline unsigned long Masked(const void* addr) { return reinterpret_cast<uintptr_t>(addr) & 0xFFFFFFu; }
// Exactly one captured line of `prio` is `message`; a failure shows the log.
inline ::testing::AssertionResult Once(const std::string& message, int prio = ANDROID_LOG_DEBUG)
{
    const int n = LogCapture::Count(prio, message);
    return n == 1 ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << n << "x " << LogCapture::Dump();
}
// The captured messages in order; `withPriority` puts the priority in front ("6 QvCamMem ...").
inline Lines Messages(bool withPriority = false)
{
    Lines out;
    for (const auto& l : LogCapture::Lines()) {
        out.push_back(withPriority ? std::to_string(l.priority) + " " + l.message : l.message);
    }
    return out;
}

// The realtime pool status line, or the crossing line, which has a blank
// before "allNum" that the realtime one lacks.
inline std::string PoolLine(const char* type, const char* algo, const char* sign, unsigned size, unsigned all,
                            unsigned num, unsigned peak, unsigned sys, unsigned sysN, bool crossing = false)
{
    return Fmt("QvCamMem %sPoolStatus %-10s\t algoName:%-15s\t algoSize:%s%-10u\t allSize:%-10u\t%sallNum:%u\t "
               "allSizePeak:%-10u\t SysSize:%-10u\t SysNum:%u\t \n",
               crossing ? "Crossing " : "", type, algo, sign, size, all, crossing ? " " : "", num, peak, sys, sysN);
}
// The realtime snapshot line during frames; `peak` < 0: the line without the peak.
inline std::string SnapLine(const char* type, const char* algo, const char* sign, unsigned size, unsigned total,
                            unsigned num, unsigned sys, unsigned sysN, long peak = -1, unsigned ratio = 0)
{
    return Fmt("QvCamMem SnapShotStatus %-10s\t algoName:%-15s\t algoSize:%s%-10u\t totalSize:%-10u\t "
               "totalNum:%-3u\t SysSize:%-10u\t SysNum:%-3u\t %s\n", type, algo, sign, size, total, num, sys, sysN,
               peak < 0 ? "" : Fmt("peakSize:%-10ld\t peakSizeRatio:%u\t ", peak, ratio).c_str());
}
// The Frame and EOS line.
inline std::string StreamLine(const char* type, unsigned total, unsigned num, unsigned sys, unsigned sysN,
                              unsigned sos2Frame, unsigned sysPeak, unsigned ratio)
{
    return Fmt("QvCamMem SnapShotStatus %-10s\t totalSize:%-10u\t totalNum:%-3u\t SysSize:%-10u\t SysNum:%-3u\t "
               "snapSizeSos2Frame:%-10u\t sysSizePeak:%-10u\t peakSizeRatio:%u\t\n",
               type, total, num, sys, sysN, sos2Frame, sysPeak, ratio);
}

// Fixture: a pool manager without pools whose monitor is bound as PoolInit binds it.
class MonitorTest : public talmem_test::TalTest {
protected:
    void SetUp() override { TalTest::SetUp(); Reset(); }
    void TearDown() override { impl_.reset(); owned_.clear(); TalTest::TearDown(); }
    // A fresh manager and monitor; the monitor reads the properties set so far.
    void Reset()
    {
        impl_.reset(new qv::TalMemPoolImpl());
        LogCapture::Clear();
        ASSERT_EQ(0, monitor().PoolMonitorInit(impl_->poolChunkList, impl_->sysPrevMcMap));
    }
    // A chunk as the manager makes one by size: a camera buffer, or a heap
    // block for large sizes. A nonzero `poolId` makes it a pool chunk.
    TalMemChunk* Direct(uint32_t size, int type, const std::string& algo, bool camera = false,
                        const std::string& module = "mod", int32_t poolId = 0)
    {
        owned_.emplace_back(new TalMemChunk(size, 1, 0, camera ? 0 : 1, "PP:" + algo, 1));
        TalMemChunk* c = owned_.back().get();
        EXPECT_EQ(0, c->Init());
        c->poolId = poolId, c->streamState = impl_->streamState, c->inUse = 1;
        c->SetModuleName(module), c->SetAlgoName(algo), c->SetAllocateType(type);
        return c;
    }
    // A pool backing chunk without memory (only its size counts), owned by the manager.
    void AddPool(uint32_t size) { impl_->poolChunkList.push_back(new TalMemChunk(size, 0, 0, 0, "Unknown", 1)); }
    void Event(qv::TAL_MEM_MONITOR_TYPE type, TalMemChunk* c = nullptr) { monitor().UpdateMemoryStatus(type, c); }
    void Alloc(Chunks cs) { for (TalMemChunk* c : cs) { Event(c->GetPoolId() != 0 ? kPoolAlloc : kSysAlloc, c); } }
    void Free(Chunks cs) { for (TalMemChunk* c : cs) { Event(c->GetPoolId() != 0 ? kPoolFree : kSysFree, c); } }
    void Stream(uint32_t state) { impl_->streamState = state; }
    // SOS then Frame, with the capture status the manager sets for each.
    void StartStream() { Stream(1); Event(kSos); Stream(2); Event(kFrame); }
    qv::TalMemPoolMonitor& monitor() { return impl_->monitor; }
    qv::TalMemPoolMonitorPeer peer() { return qv::TalMemPoolMonitorPeer(impl_->monitor); }

    std::unique_ptr<qv::TalMemPoolImpl> impl_;
    std::vector<std::unique_ptr<TalMemChunk>> owned_;
};

} // namespace monitor_test

#endif // TALMEM_TESTS_MONITOR_MONITORTESTUTIL_H
