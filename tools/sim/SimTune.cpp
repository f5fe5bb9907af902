// Candidate pool sizes for a scenario (see SimTune.h).

#include "SimTune.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>
#include <tinyxml2.h>

#include "Scenario.h"
#include "SimRun.h"

namespace talsim {

namespace {

constexpr int64_t kMiB = 1024 * 1024;
// The close-to-clear delay of a tune run: the executor waits for the clear
// itself, so a short delay changes nothing but the wall time.
constexpr int64_t kTuneClearDelayMs = 20;

struct Candidate {
    int baseMib;
    int multiMib;
    uint64_t fallbacks = 0;      // capture requests served directly, sessions 2 on
    uint64_t fallbackBytes = 0;
    uint64_t peakReserved = 0;   // sessions 2 on
    double worstRatio = 0;       // sessions 2 on
    uint64_t failed = 0;
    std::string config;
};

void Measure(Candidate& c, const RunResult& result)
{
    for (const SessionFigures& s : result.figures.sessions) {
        if (s.index < 2) {
            continue;
        }
        c.fallbacks += s.captureFallbacks;
        c.fallbackBytes += s.captureFallbackBytes;
        c.peakReserved = std::max(c.peakReserved, s.peakReserved);
        c.worstRatio = std::max(c.worstRatio, s.Ratio());
    }
    c.failed = result.figures.failedMallocs;
    c.config = result.configPath;
}

bool Better(const Candidate& a, const Candidate& b)
{
    if ((a.fallbacks == 0) != (b.fallbacks == 0)) {
        return a.fallbacks == 0;
    }
    if (a.fallbacks != b.fallbacks) {
        return a.fallbacks < b.fallbacks;
    }
    return a.peakReserved < b.peakReserved;
}

void WriteConfig(const Candidate& best, const std::string& path)
{
    tinyxml2::XMLDocument doc;
    if (doc.LoadFile(best.config.c_str()) != tinyxml2::XML_SUCCESS || doc.RootElement() == nullptr) {
        throw InputError(best.config + ": cannot read the configuration the library used");
    }
    doc.RootElement()->FirstChildElement("BasePoolSize")->SetText(
        std::to_string(best.baseMib * kMiB).c_str());
    tinyxml2::XMLElement* multi = doc.RootElement()->FirstChildElement("MultiPoolSize");
    if (multi != nullptr) {
        multi->SetText(std::to_string(best.multiMib * kMiB).c_str());
    }
    if (doc.SaveFile(path.c_str()) != tinyxml2::XML_SUCCESS) {
        throw InputError(path + ": --write: cannot write the configuration");
    }
}

} // namespace

int Tune(const std::string& scenarioPath, const TuneOptions& options)
{
    const Scenario sc = LoadScenario(scenarioPath, kTuneClearDelayMs);
    std::vector<int> bases = options.baseMib.empty() ? std::vector<int>{64, 96, 128, 150, 176, 200}
                                                      : options.baseMib;
    std::vector<int> multis = options.multiMib.empty()
                                  ? std::vector<int>{100, 250}
                                  : options.multiMib;
    std::vector<Candidate> candidates;
    const bool tty = isatty(STDERR_FILENO) != 0;
    for (int base : bases) {
        for (int multi : multis) {
            if (tty) {
                fprintf(stderr, "\rcandidate %zu/%zu", candidates.size() + 1,
                        bases.size() * multis.size());
            }
            RunRequest r;
            r.calls = sc.calls;
            r.tree = sc.deviceTree;
            r.memTotalKb = sc.memTotalKb;
            r.outDir = options.out;
            r.source = scenarioPath;
            r.writeFiles = false;
            r.basePoolSize = base * kMiB;
            r.multiPoolSize = multi * kMiB;
            Candidate c;
            c.baseMib = base;
            c.multiMib = multi;
            Measure(c, RunCalls(r));
            candidates.push_back(c);
        }
    }
    if (tty) {
        fputc('\n', stderr);
    }
    std::stable_sort(candidates.begin(), candidates.end(), Better);
    nlohmann::json j = nlohmann::json::array();
    printf("%8s %9s %14s %16s %12s %8s\n", "base MiB", "multi MiB", "cap.fallbacks", "fallback MiB",
           "peakRes MiB", "ratio");
    for (const Candidate& c : candidates) {
        printf("%8d %9d %14llu %16.1f %12.1f %8.2f\n", c.baseMib, c.multiMib,
               static_cast<unsigned long long>(c.fallbacks), c.fallbackBytes / double(kMiB),
               c.peakReserved / double(kMiB), c.worstRatio);
        j.push_back({{"base_pool_mib", c.baseMib}, {"multi_pool_mib", c.multiMib},
                     {"capture_direct_fallbacks_from_session_2", c.fallbacks},
                     {"capture_direct_fallback_bytes_from_session_2", c.fallbackBytes},
                     {"peak_reserved_bytes_from_session_2", c.peakReserved},
                     {"worst_reserved_over_live_from_session_2", c.worstRatio},
                     {"failed_mallocs", c.failed}});
    }
    std::ofstream(std::filesystem::path(options.out) / "tune.json") << j.dump(2) << "\n";
    const Candidate& best = candidates.front();
    if (!options.write.empty()) {
        WriteConfig(best, options.write);
        printf("best candidate written to %s\n", options.write.c_str());
    }
    return best.fallbacks == 0 ? 0 : 1;
}

} // namespace talsim
