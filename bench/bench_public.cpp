// What a camera node pays for a buffer: Malloc+Free pairs through the public
// entries, served from a pool that the library made the documented way (a
// device configuration of the benchmark's own and PoolUpdate), against the
// raw in-pool pair on the same kind of memory (a camera buffer of the same
// size from the camera-buffer service), against direct pairs, and under
// contention. The ratios are printed at the end, from the same run.
//
// Log lines that the library prints go to a logger that counts and drops
// them: liblog still formats every line that its minimum priority lets
// through, so their cost is measured, without flooding the console.
// TALMEM_BENCH_LOG=debug lowers the minimum priority to DEBUG.

#include <benchmark/benchmark.h>

#include <android/log.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "CameraBufferInterface.h"
#include "inpool/TalMem.h"
#include "pool/TalMemPoolImpl.h"
#include "public/PublicFixture.h"
#include "public/RatioReporter.h"
#include "talmem/TalMemPool.h"

namespace {

using namespace talmem_bench;
using qv::TalMemPool;

constexpr uint32_t kBlobFormat = 257; // plain bytes: width x height

void BM_PublicPooledPair(benchmark::State& state)
{
    const Mix& mix = kMixes[state.range(0)];
    Service& service = Service::Get();
    LiveSet set(mix, static_cast<size_t>(state.range(1)), 7);
    if (!service.ok() || !set.FitsPool(kBasePool, mix.max)) {
        state.SkipWithError(service.ok() ? set.TooLarge().c_str() : service.error().c_str());
        return;
    }
    if (!FillPublic(set)) {
        ReleasePublic(set);
        state.SkipWithError("the live set was not served from the pool");
        return;
    }
    const uint64_t linesBefore = gLogLines.load();
    size_t step = 0;
    for (auto _ : state) {
        if (!PublicStep(set, step++ & (kSteps - 1), service)) {
            state.SkipWithError("a pair was not served from the pool");
            break;
        }
    }
    ReleasePublic(set);
    state.counters["log_lines_per_pair"] =
        static_cast<double>(gLogLines.load() - linesBefore) / std::max<double>(1, step);
    state.SetLabel(mix.name);
}

// A camera buffer of the base pool's size, formatted by its own in-pool
// allocator: the same memory and the same carving as the library's pool.
class RawPool {
public:
    static RawPool& Get()
    {
        static RawPool pool;
        return pool;
    }
    bool ok() const { return mBase != 0; }
    uintptr_t Alloc(uint32_t size) { return mMem.Alloc(mBase, size); }
    int Free(uintptr_t addr) { return mMem.Free(mBase, addr); }
    void Release() { mBuffer.reset(); mBase = 0; }

private:
    RawPool()
    {
        mBuffer = QvCamera::CameraBufferInterface::AllocCamBuffer(kBasePool, 1, kBlobFormat, 0, "benchRaw");
        uintptr_t base = mBuffer != nullptr ? reinterpret_cast<uintptr_t>(mBuffer->GetCpuAddr()) : 0;
        if (base != 0 && mMem.TalMemInit() == 0 && mMem.Init(base, kBasePool) == 0) {
            mBase = base;
        }
    }
    std::shared_ptr<QvCamera::ICameraBuffer> mBuffer;
    qv::TalMem mMem;
    uintptr_t mBase = 0;
};

void BM_RawInpoolPair(benchmark::State& state)
{
    const Mix& mix = kMixes[state.range(0)];
    RawPool& pool = RawPool::Get();
    LiveSet set(mix, static_cast<size_t>(state.range(1)), 7);
    if (!pool.ok() || !set.FitsPool(kBasePool, mix.max)) {
        state.SkipWithError(pool.ok() ? set.TooLarge().c_str() : "no camera buffer for the pool");
        return;
    }
    std::vector<uintptr_t> addr(set.live, 0);
    bool ok = true;
    for (size_t i = 0; i < set.live && ok; ++i) {
        ok = (addr[i] = pool.Alloc(set.sizes[i])) != 0;
    }
    size_t step = 0;
    for (auto _ : state) {
        if (!ok) {
            break;
        }
        const size_t k = step++ & (kSteps - 1);
        const size_t slot = set.victims[k];
        ok = pool.Free(addr[slot]) == 0 && (addr[slot] = pool.Alloc(set.sizes[set.live + k])) != 0;
    }
    for (uintptr_t a : addr) {
        if (a != 0) {
            pool.Free(a);
        }
    }
    if (!ok) {
        state.SkipWithError("a raw pair failed");
    }
    state.SetLabel(mix.name);
}

const int64_t kPairSizes[] = {64 * kKiB, 1 * kMiB, 16 * kMiB, 64 * kMiB};

// A pooled pair of one size beside 16 live buffers of the small mix.
void BM_PublicPooledSize(benchmark::State& state)
{
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    Service& service = Service::Get();
    LiveSet set(kMixes[1], 16, 9);
    if (!service.ok() || !FillPublic(set)) {
        ReleasePublic(set);
        state.SkipWithError("no pool to serve from");
        return;
    }
    for (auto _ : state) {
        void* p = TalMemPool::Malloc(size, "benchNode", nullptr, "benchAlgo", 0);
        if (!service.InPool(p)) {
            state.SkipWithError("the pair was not served from the pool");
            break;
        }
        TalMemPool::Free(p, "benchNode", nullptr);
    }
    ReleasePublic(set);
}

// A direct pair: the version-1 hint asks for memory outside the pools.
void BM_PublicDirectPair(benchmark::State& state)
{
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    const qv::AllocHint direct{1, 0, 0};
    Service& service = Service::Get();
    for (auto _ : state) {
        void* p = TalMemPool::Malloc(size, "benchNode", &direct, "benchAlgo", 0);
        if (p == nullptr || service.InPool(p)) {
            state.SkipWithError("the pair was not a direct allocation");
            break;
        }
        TalMemPool::Free(p, "benchNode", nullptr);
    }
}

void RegisterPairBenchmarks()
{
    for (int mix = 0; mix < 2; ++mix) {
        for (int live : {16, 256, 1024}) {
            benchmark::RegisterBenchmark("BM_PublicPooledPair", BM_PublicPooledPair)->Args({mix, live});
            benchmark::RegisterBenchmark("BM_RawInpoolPair", BM_RawInpoolPair)->Args({mix, live});
        }
    }
    for (int64_t size : kPairSizes) {
        benchmark::RegisterBenchmark("BM_PublicPooledSize", BM_PublicPooledSize)->Arg(size);
        benchmark::RegisterBenchmark("BM_PublicDirectPair", BM_PublicDirectPair)
            ->Arg(size)
            ->Unit(benchmark::kMicrosecond);
    }
}

} // namespace

int main(int argc, char** argv)
{
    __android_log_set_logger(CountingLogger);
    const char* level = getenv("TALMEM_BENCH_LOG");
    if (level != nullptr && std::string(level) == "debug") {
        __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RegisterPairBenchmarks();
    RegisterPublicThreadBenchmarks();
    talmem_bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintSummary();
    RawPool::Get().Release();
    Service::Get().Stop();
    benchmark::Shutdown();
    return 0;
}
