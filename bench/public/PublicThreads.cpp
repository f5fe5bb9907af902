// Contention on the service lock: 1, 2, 4 and 8 threads each doing pooled
// pairs for a fixed time, with every thread's Malloc latency; and one thread
// allocating while another sends stream events, pool updates and dumps.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "PublicFixture.h"
#include "talmem/TalMemPool.h"

namespace talmem_bench {

namespace {

using qv::TalMemPool;
using Clock = std::chrono::steady_clock;

constexpr size_t kLivePerThread = 16;
constexpr double kRunSeconds = 1.0;

struct Latency {
    double p50 = 0;
    double p99 = 0;
    double max = 0;
};

Latency Summarise(std::vector<uint32_t>& ns)
{
    Latency l;
    if (ns.empty()) {
        return l;
    }
    std::sort(ns.begin(), ns.end());
    l.p50 = ns[ns.size() / 2];
    l.p99 = ns[std::min(ns.size() - 1, ns.size() * 99 / 100)];
    l.max = ns.back();
    return l;
}

// A timed pair: the latency of Malloc alone is recorded.
inline bool TimedStep(LiveSet& set, size_t k, const Service& service, std::vector<uint32_t>& ns)
{
    const size_t slot = set.victims[k];
    TalMemPool::Free(set.slots[slot], LiveSet::Node(slot), nullptr);
    const auto t0 = Clock::now();
    void* p = TalMemPool::Malloc(set.sizes[set.live + k], LiveSet::Node(slot), nullptr, LiveSet::Algo(slot), 0);
    const auto t1 = Clock::now();
    ns.push_back(static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count()));
    set.slots[slot] = p;
    return service.InPool(p);
}

// The worst thread of one run: every thread reports, the last one to report
// publishes the worst figures as counters.
struct Worst {
    std::mutex lock;
    int reported = 0;
    double p99 = 0;
    double max = 0;
};
Worst gWorst;

void ReportThread(benchmark::State& state, const Latency& l)
{
    std::lock_guard<std::mutex> guard(gWorst.lock);
    gWorst.p99 = std::max(gWorst.p99, l.p99);
    gWorst.max = std::max(gWorst.max, l.max);
    if (++gWorst.reported == state.threads()) {
        state.counters["p99_worst_ns"] = gWorst.p99;
        state.counters["max_worst_ns"] = gWorst.max;
    }
}

void SetLatencyCounters(benchmark::State& state, const Latency& l, size_t pairs, double seconds)
{
    using benchmark::Counter;
    state.counters["pairs_per_s"] = pairs / std::max(seconds, 1e-9); // summed over threads
    state.counters["p50_ns"] = Counter(l.p50, Counter::kAvgThreads);
    state.counters["p99_ns"] = Counter(l.p99, Counter::kAvgThreads);
    state.counters["max_ns"] = Counter(l.max, Counter::kAvgThreads);
}

void BM_PublicContention(benchmark::State& state)
{
    Service& service = Service::Get();
    if (state.thread_index() == 0) {
        std::lock_guard<std::mutex> guard(gWorst.lock);
        gWorst.reported = 0;
        gWorst.p99 = 0;
        gWorst.max = 0;
    }
    LiveSet set(kMixes[1], kLivePerThread, 100 + static_cast<unsigned>(state.thread_index()));
    bool ok = service.ok() && FillPublic(set);
    std::vector<uint32_t> ns;
    ns.reserve(1u << 20);
    size_t step = 0;
    Clock::time_point start;
    for (auto _ : state) {
        if (step == 0) {
            start = Clock::now();
        }
        if (!ok || !TimedStep(set, step++ & (kSteps - 1), service, ns)) {
            ok = false;
            break;
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ReleasePublic(set);
    if (!ok) {
        state.SkipWithError("a pair was not served from the pool");
    }
    Latency l = Summarise(ns);
    SetLatencyCounters(state, l, step, seconds);
    ReportThread(state, l);
}

// Stream events, a synchronous pool update and both dumps, over and over.
void ControlTraffic(const std::atomic<bool>& stop, std::atomic<uint64_t>& cycles)
{
    const qv::TalMemResolution res{4000, 3000, 4000, 3000};
    while (!stop.load()) {
        TalMemPool::OnSos();
        TalMemPool::OnFrame();
        TalMemPool::PoolUpdate({"benchAlgo"}, res, 0, 0);
        TalMemPool::GetMemDumpInfo(0);
        TalMemPool::GetMemDumpInfo(1);
        TalMemPool::OnEos();
        cycles.fetch_add(1);
    }
    // Leave the stream at its frames, as the other benchmarks expect.
    TalMemPool::OnSos();
    TalMemPool::OnFrame();
}

void BM_PublicWithControlTraffic(benchmark::State& state)
{
    Service& service = Service::Get();
    LiveSet set(kMixes[1], kLivePerThread, 200);
    bool ok = service.ok() && FillPublic(set);
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> cycles{0};
    std::thread control(ControlTraffic, std::cref(stop), std::ref(cycles));
    std::vector<uint32_t> ns;
    ns.reserve(1u << 20);
    size_t step = 0;
    const auto start = Clock::now();
    for (auto _ : state) {
        if (!ok || !TimedStep(set, step++ & (kSteps - 1), service, ns)) {
            ok = false;
            break;
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    stop = true;
    control.join();
    ReleasePublic(set);
    if (!ok) {
        state.SkipWithError("a pair was not served from the pool");
    }
    SetLatencyCounters(state, Summarise(ns), step, seconds);
    state.counters["control_cycles_per_s"] = cycles.load() / std::max(seconds, 1e-9);
}

} // namespace

void RegisterPublicThreadBenchmarks()
{
    for (int threads : {1, 2, 4, 8}) {
        benchmark::RegisterBenchmark("BM_PublicContention", BM_PublicContention)
            ->Threads(threads)
            ->MinTime(kRunSeconds)
            ->UseRealTime();
    }
    benchmark::RegisterBenchmark("BM_PublicWithControlTraffic", BM_PublicWithControlTraffic)
        ->MinTime(kRunSeconds)
        ->UseRealTime();
}

} // namespace talmem_bench
