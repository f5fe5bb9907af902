#ifndef TALMEM_TESTS_SERVICECOUNTERS_H
#define TALMEM_TESTS_SERVICECOUNTERS_H

// The running service's monitor counters of memory in use, read under the
// service's lock: all zero once every allocation has been freed.

#include <vector>

#include "../monitor/MonitorTestUtil.h"
#include "interface/TalMemPoolThread.h"
#include "talmem/TalMemPool.h"

namespace qv {

struct TalMemPoolThreadTestPeer {
    template <typename Fn>
    static auto WithImpl(TalMemPoolThread& s, Fn fn)
    {
        android::AutoMutex _l(s.mImplLock);
        return fn(*s.memPoolImpl);
    }
    static bool LooperReady(TalMemPoolThread& s)
    {
        android::AutoMutex _l(s.mImplLock);
        return s.m_spMemLooper != nullptr && s.memHandler != nullptr;
    }
    static uint32_t PeakSize(TalMemPoolThread& s) { return s.mPeakSize; } // the caller's thread only
};

} // namespace qv

namespace talmem_test {

// allSize, SysSize, allNum, SysNum, the three per-type sizes in use and the
// number of chunks on the leak list.
inline std::vector<unsigned int> CountersInUse()
{
    return qv::TalMemPoolThreadTestPeer::WithImpl(*qv::TalMemPool::poolThread, [](qv::TalMemPoolImpl& impl) {
        qv::TalMemPoolMonitorPeer monitor(impl.monitor);
        std::vector<unsigned int> out = monitor.pool();
        out.pop_back(); // the peak is history, not use
        for (unsigned int used : monitor.usedByType()) {
            out.push_back(used);
        }
        out.push_back(static_cast<unsigned int>(monitor.leakList().size()));
        return out;
    });
}

const std::vector<unsigned int> kNothingInUse(8, 0u);

} // namespace talmem_test

#endif // TALMEM_TESTS_SERVICECOUNTERS_H
