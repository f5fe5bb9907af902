#ifndef TALMEM_BENCH_PUBLIC_RATIOREPORTER_H
#define TALMEM_BENCH_PUBLIC_RATIOREPORTER_H

// Console reporter of bench_public that keeps every run's figures, so that
// the ratios printed at the end come from the same run as the table above.

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace talmem_bench {

struct RunFigure {
    std::string function;
    std::string args;
    int64_t threads = 1;
    bool error = false;
    std::string errorMessage;
    double nsPerIter = 0;    // wall time
    double cpuNsPerIter = 0; // the calling thread's processor time
    std::map<std::string, double> counters;
};

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override;
    // Ratios, growth with the live count, contention, each with its target.
    void PrintSummary() const;

private:
    const RunFigure* Find(const std::string& function, const std::string& args, int64_t threads = 1) const;
    void PrintPublicVsRaw() const;
    void PrintGrowth() const;
    void PrintDirectVsPooled() const;
    void PrintContention() const;

    std::vector<RunFigure> mRuns;
};

} // namespace talmem_bench

#endif // TALMEM_BENCH_PUBLIC_RATIOREPORTER_H
