// Cost of the in-pool allocator: allocation+free pairs at several numbers of
// live allocations of camera-like sizes, and one 16 MiB carve+free from a
// pool against a 16 MiB direct allocation+release from the camera-buffer
// service. The carve/direct ratio is printed at the end of the run.

#include <benchmark/benchmark.h>

#include <android/log.h>
#include <sys/mman.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "CameraBufferInterface.h"
#include "inpool/TalMem.h"
#include "inpool/TalMemFormat.h"

namespace {

constexpr uint32_t kMinCamSize = 4096;
constexpr uint32_t kMaxCamSize = 16u << 20;
// A pool's first node must have a size class, so one pool stays below 2 GiB.
constexpr uint32_t kPoolSize = 1u << 30;
constexpr uint32_t kSixteenMiB = 16u << 20;
constexpr uint32_t kBlobFormat = 257; // plain bytes: width x height

// Page multiples, log-uniform between 4 KiB and 16 MiB.
std::vector<uint32_t> CameraSizes(size_t count, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> logSize(std::log(double{kMinCamSize}),
                                                   std::log(double{kMaxCamSize}));
    std::vector<uint32_t> sizes(count);
    for (uint32_t& size : sizes) {
        uint32_t pages = static_cast<uint32_t>(std::exp(logSize(rng)) / 4096.0);
        size = (pages == 0 ? 1 : pages) * 4096u;
    }
    return sizes;
}

// Enough 1 GiB pools, in reserved but untouched memory, for `live` camera
// buffers with room to spare; one TalMem serves them all.
class PoolSet {
public:
    explicit PoolSet(size_t live)
    {
        double meanSize = (kMaxCamSize - kMinCamSize) / std::log(double{kMaxCamSize} / kMinCamSize);
        size_t count = static_cast<size_t>(std::ceil(live * meanSize * 1.6 / kPoolSize));
        mMem.TalMemInit();
        for (size_t i = 0; i < (count == 0 ? 1 : count); ++i) {
            void* p = mmap(nullptr, kPoolSize, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
            if (p == MAP_FAILED || mMem.Init(reinterpret_cast<uintptr_t>(p), kPoolSize) != 0) {
                mOk = false;
                break;
            }
            mPools.push_back(reinterpret_cast<uintptr_t>(p));
        }
    }
    ~PoolSet()
    {
        for (uintptr_t pool : mPools) {
            munmap(reinterpret_cast<void*>(pool), kPoolSize);
        }
    }
    bool ok() const { return mOk; }

    // Carves from the first pool whose largest free node fits, as the pool
    // manager would, without provoking failure reports in the others.
    bool Alloc(uint32_t size, uintptr_t* pool, uintptr_t* addr)
    {
        uint32_t need = size + qv::kTalAllocSlack + qv::kTalNodeHeadSize + qv::kTalNodeAlign;
        for (uintptr_t candidate : mPools) {
            if (mMem.GetMaxFreeSize(candidate) >= need) {
                *addr = mMem.Alloc(candidate, size);
                *pool = candidate;
                return *addr != 0;
            }
        }
        return false;
    }
    int Free(uintptr_t pool, uintptr_t addr) { return mMem.Free(pool, addr); }

private:
    qv::TalMem mMem;
    std::vector<uintptr_t> mPools;
    bool mOk = true;
};

void BM_InpoolPair(benchmark::State& state)
{
    const size_t live = static_cast<size_t>(state.range(0));
    PoolSet pools(live);
    if (!pools.ok()) {
        state.SkipWithError("could not map and format the pools");
        return;
    }
    std::vector<uint32_t> sizes = CameraSizes(live + 65536, 7);
    std::vector<uintptr_t> slotPool(live), slotAddr(live);
    for (size_t i = 0; i < live; ++i) {
        if (!pools.Alloc(sizes[i], &slotPool[i], &slotAddr[i])) {
            state.SkipWithError("the pools could not hold the live set");
            return;
        }
    }
    std::mt19937 rng(11);
    std::vector<uint32_t> victims(65536);
    for (uint32_t& v : victims) {
        v = std::uniform_int_distribution<uint32_t>(0, static_cast<uint32_t>(live - 1))(rng);
    }
    size_t step = 0;
    for (auto _ : state) {
        size_t k = step++ & 0xFFFF;
        size_t slot = victims[k];
        if (pools.Free(slotPool[slot], slotAddr[slot]) != 0 ||
            !pools.Alloc(sizes[live + k], &slotPool[slot], &slotAddr[slot])) {
            state.SkipWithError("a pair failed");
            break;
        }
    }
    for (size_t i = 0; i < live; ++i) {
        pools.Free(slotPool[i], slotAddr[i]);
    }
    state.SetLabel("ns per allocation+free pair");
}
BENCHMARK(BM_InpoolPair)->Arg(16)->Arg(256)->Arg(4096);

void BM_Carve16MiB(benchmark::State& state)
{
    PoolSet pools(16);
    uintptr_t pool = 0;
    uintptr_t addr = 0;
    for (auto _ : state) {
        if (!pools.Alloc(kSixteenMiB, &pool, &addr) || pools.Free(pool, addr) != 0) {
            state.SkipWithError("carve failed");
            break;
        }
        benchmark::DoNotOptimize(addr);
    }
}
BENCHMARK(BM_Carve16MiB);

void BM_Direct16MiB(benchmark::State& state)
{
    for (auto _ : state) {
        auto buffer = QvCamera::CameraBufferInterface::AllocCamBuffer(4096, 4096, kBlobFormat, 0,
                                                                      "bench");
        if (buffer == nullptr) {
            state.SkipWithError("direct allocation failed");
            break;
        }
        benchmark::DoNotOptimize(buffer->GetCpuAddr());
    }
}
BENCHMARK(BM_Direct16MiB)->Unit(benchmark::kMicrosecond);

// Keeps the time per iteration of each run so that the carve/direct ratio
// comes from the same run as the figures printed above it.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (!run.error_occurred && run.iterations > 0) {
                mNsPerIter[run.benchmark_name()] =
                    run.GetAdjustedRealTime() * ToNs(run.time_unit);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void PrintRatio() const
    {
        auto carve = mNsPerIter.find("BM_Carve16MiB");
        auto direct = mNsPerIter.find("BM_Direct16MiB");
        if (carve == mNsPerIter.end() || direct == mNsPerIter.end() || carve->second <= 0) {
            std::printf("carve/direct ratio: not measured in this run\n");
            return;
        }
        std::printf("16 MiB: carve+free %.1f ns, direct alloc+release %.1f ns, direct/carve = %.0fx\n",
                    carve->second, direct->second, direct->second / carve->second);
    }

private:
    static double ToNs(benchmark::TimeUnit unit)
    {
        switch (unit) {
        case benchmark::kSecond: return 1e9;
        case benchmark::kMillisecond: return 1e6;
        case benchmark::kMicrosecond: return 1e3;
        default: return 1.0;
        }
    }
    std::map<std::string, double> mNsPerIter;
};

} // namespace

int main(int argc, char** argv)
{
    // Pool formatting logs at INFO; keep the console to the figures.
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatio();
    benchmark::Shutdown();
    return 0;
}
