// Cost of one Malloc + Free pair through the public entries when the request
// is served by a direct allocation from the camera-buffer service: the
// baseline that pool allocation is measured against.

#include <benchmark/benchmark.h>

#include <cstdint>

#include "talmem/TalMemPool.h"

namespace {

void BM_DirectMallocFree(benchmark::State& state)
{
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    qv::TalMemPool::NewPool();
    for (auto _ : state) {
        void* p = qv::TalMemPool::Malloc(size, "bench", nullptr, "bench", 0);
        if (p == nullptr) {
            state.SkipWithError("Malloc failed");
            break;
        }
        benchmark::DoNotOptimize(p);
        qv::TalMemPool::Free(p, "bench", nullptr);
    }
    qv::TalMemPool::DeletePool();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
    state.SetLabel("direct");
}

BENCHMARK(BM_DirectMallocFree)
    ->Arg(64 << 10)
    ->Arg(1 << 20)
    ->Arg(16 << 20)
    ->Arg(64 << 20)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

} // namespace

BENCHMARK_MAIN();
