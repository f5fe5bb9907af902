#include "RatioReporter.h"

#include <cstdio>

#include "PublicFixture.h"

namespace talmem_bench {

namespace {

constexpr double kTargetPublicOverRaw = 1.15;  // at 256 live
constexpr double kTargetDirectOverPooled = 1000; // for a 16 MiB buffer
constexpr double kTargetP99OverMedian = 10;    // 4 threads against one
constexpr double kTargetGrowth = 40;           // 1024 live against 16

double ToNs(benchmark::TimeUnit unit)
{
    switch (unit) {
    case benchmark::kSecond: return 1e9;
    case benchmark::kMillisecond: return 1e6;
    case benchmark::kMicrosecond: return 1e3;
    default: return 1.0;
    }
}

const char* Verdict(bool met)
{
    return met ? "met" : "MISSED";
}

std::string MixArgs(int mix, int live)
{
    return std::to_string(mix) + "/" + std::to_string(live);
}

} // namespace

void RatioReporter::ReportRuns(const std::vector<Run>& runs)
{
    for (const Run& run : runs) {
        RunFigure f;
        f.function = run.run_name.function_name;
        f.args = run.run_name.args;
        f.threads = run.threads;
        f.error = run.error_occurred;
        f.errorMessage = run.error_message;
        f.nsPerIter = run.iterations > 0 ? run.GetAdjustedRealTime() * ToNs(run.time_unit) : 0;
        f.cpuNsPerIter = run.iterations > 0 ? run.GetAdjustedCPUTime() * ToNs(run.time_unit) : 0;
        for (const auto& counter : run.counters) {
            f.counters[counter.first] = counter.second.value;
        }
        mRuns.push_back(f);
    }
    ConsoleReporter::ReportRuns(runs);
}

const RunFigure* RatioReporter::Find(const std::string& function, const std::string& args,
                                     int64_t threads) const
{
    for (const RunFigure& f : mRuns) {
        if (f.function == function && f.args == args && f.threads == threads) {
            return f.error ? nullptr : &f;
        }
    }
    return nullptr;
}

void RatioReporter::PrintPublicVsRaw() const
{
    std::printf("\npublic pair / raw in-pool pair, wall ns per pair (target <= %.2f at 256 live);\n"
                "the ratio of processor times, which other load on the machine disturbs less, in brackets\n",
                kTargetPublicOverRaw);
    for (int mix = 0; mix < 2; ++mix) {
        for (int live : {16, 256, 1024}) {
            const RunFigure* pub = Find("BM_PublicPooledPair", MixArgs(mix, live));
            const RunFigure* raw = Find("BM_RawInpoolPair", MixArgs(mix, live));
            if (pub == nullptr || raw == nullptr || raw->nsPerIter <= 0) {
                std::printf("  %-11s %5d live: not measured\n", kMixes[mix].name, live);
                continue;
            }
            const double ratio = pub->nsPerIter / raw->nsPerIter;
            const double cpuRatio = raw->cpuNsPerIter > 0 ? pub->cpuNsPerIter / raw->cpuNsPerIter : 0;
            std::printf("  %-11s %5d live: public %9.0f  raw %9.0f  ratio %.2f (cpu %.2f)%s\n",
                        kMixes[mix].name, live, pub->nsPerIter, raw->nsPerIter, ratio, cpuRatio,
                        live == 256 ? (ratio <= kTargetPublicOverRaw ? "  (target met)"
                                                                     : "  (target MISSED)")
                                    : "");
        }
    }
}

void RatioReporter::PrintGrowth() const
{
    std::printf("\ncost at 1024 live / cost at 16 live, same mix (target <= %.0f)\n", kTargetGrowth);
    for (const char* function : {"BM_PublicPooledPair", "BM_RawInpoolPair"}) {
        for (int mix = 0; mix < 2; ++mix) {
            const RunFigure* lo = Find(function, MixArgs(mix, 16));
            const RunFigure* hi = Find(function, MixArgs(mix, 1024));
            if (lo == nullptr || hi == nullptr || lo->nsPerIter <= 0) {
                std::printf("  %-20s %-11s not measured\n", function, kMixes[mix].name);
                continue;
            }
            const double growth = hi->nsPerIter / lo->nsPerIter;
            std::printf("  %-20s %-11s %.1fx (%s)\n", function, kMixes[mix].name, growth,
                        Verdict(growth <= kTargetGrowth));
        }
    }
}

void RatioReporter::PrintDirectVsPooled() const
{
    std::printf("\ndirect pair / pooled pair, same size (target >= %.0fx at 16 MiB)\n",
                kTargetDirectOverPooled);
    for (int64_t size : {64 * kKiB, 1 * kMiB, 16 * kMiB, 64 * kMiB}) {
        const RunFigure* direct = Find("BM_PublicDirectPair", std::to_string(size));
        const RunFigure* pooled = Find("BM_PublicPooledSize", std::to_string(size));
        if (direct == nullptr || pooled == nullptr || pooled->nsPerIter <= 0) {
            std::printf("  %8lld KiB: not measured\n", static_cast<long long>(size >> 10));
            continue;
        }
        const double ratio = direct->nsPerIter / pooled->nsPerIter;
        std::printf("  %8lld KiB: direct %10.0f ns  pooled %7.0f ns  ratio %.0fx%s\n",
                    static_cast<long long>(size >> 10), direct->nsPerIter, pooled->nsPerIter, ratio,
                    size == 16 * kMiB ? (ratio >= kTargetDirectOverPooled ? "  (target met)"
                                                                          : "  (target MISSED)")
                                      : "");
    }
}

void RatioReporter::PrintContention() const
{
    std::printf("\ncontention: Malloc latency per thread (ns), pairs per second in total\n");
    const RunFigure* single = Find("BM_PublicContention", "", 1);
    for (int threads : {1, 2, 4, 8}) {
        const RunFigure* f = Find("BM_PublicContention", "", threads);
        if (f == nullptr) {
            std::printf("  %d threads: not measured\n", threads);
            continue;
        }
        auto c = [&](const char* name) { return f->counters.count(name) ? f->counters.at(name) : 0.0; };
        std::printf("  %d threads: %9.0f pairs/s  median %6.0f  p99 %7.0f (worst thread %7.0f)  max %8.0f",
                    threads, c("pairs_per_s"), c("p50_ns"), c("p99_ns"), c("p99_worst_ns"), c("max_worst_ns"));
        if (single != nullptr && single->counters.count("p50_ns") && single->counters.at("p50_ns") > 0) {
            const double ratio = c("p99_worst_ns") / single->counters.at("p50_ns");
            std::printf("  worst p99 / 1-thread median %.1f", ratio);
            if (threads == 4) {
                std::printf(" (target <= %.0f %s)", kTargetP99OverMedian, Verdict(ratio <= kTargetP99OverMedian));
            }
        }
        std::printf("\n");
    }
    const RunFigure* traffic = Find("BM_PublicWithControlTraffic", "", 1);
    if (traffic != nullptr) {
        auto c = [&](const char* name) { return traffic->counters.count(name) ? traffic->counters.at(name) : 0.0; };
        std::printf("  with control traffic: median %.0f  p99 %.0f  max %.0f ns; %.0f control cycles/s\n",
                    c("p50_ns"), c("p99_ns"), c("max_ns"), c("control_cycles_per_s"));
    }
}

void RatioReporter::PrintSummary() const
{
    PrintPublicVsRaw();
    PrintGrowth();
    PrintDirectVsPooled();
    PrintContention();
    std::fflush(stdout);
}

} // namespace talmem_bench
