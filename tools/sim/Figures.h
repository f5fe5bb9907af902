#ifndef TALMEM_TOOLS_SIM_FIGURES_H
#define TALMEM_TOOLS_SIM_FIGURES_H

// The figures of a run, per session and in total, gathered from the calls'
// results, the library's own lines (LogTap) and the camera-buffer service's
// held bytes. Sessions are cut from the call stream itself: a PoolUpdate
// after a CameraClose starts the next one, so a run and the replay of its
// trace cut the same sessions.

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "LogTap.h"
#include "SimCall.h"

namespace talsim {

static constexpr int kTypes = 3;  // Capture, Preview, Others
static constexpr int kPaths = 5;  // Path values, kNone (failed) first

struct LatencySet {
    std::vector<double> us;
    double Median() const;
    double P99() const;
};

struct SessionFigures {
    int index = 0;
    std::string label;
    uint64_t requests[kTypes][kPaths] = {};
    uint64_t requestBytes[kTypes][kPaths] = {};
    uint64_t captureFallbacks = 0;      // capture requests by size that could use a pool, served directly
    uint64_t captureFallbackBytes = 0;
    uint64_t captureDirectByRule = 0;   // capture requests that never try a pool (geometry, forced hint)
    uint64_t peakLive[kTypes] = {};
    uint64_t peakLiveTotal = 0;
    uint64_t peakReserved = 0;
    uint64_t reservedAtLivePeak = 0;
    PoolEvents pools;
    std::map<std::string, std::map<std::string, uint64_t>> learntAfter;
    LatencySet latency[kPaths];
    double startMs = 0;
    double endMs = 0;

    double Ratio() const
    {
        return peakLiveTotal == 0 ? 0.0 : static_cast<double>(peakReserved) / peakLiveTotal;
    }
};

// One sample of the timeline.
struct TimelineRow {
    double ms = 0;
    uint64_t reserved = 0;
    std::map<int, std::pair<uint64_t, uint64_t>> pools; // id -> reserved, used
    uint64_t direct = 0;
    uint64_t live[kTypes] = {};
    std::string phase;
};

// A slice for the Perfetto trace: a session, a stream or a capture.
struct Slice {
    std::string name;
    std::string track;
    double beginMs = 0;
    double endMs = 0;
};

using LearntTable = std::map<std::string, std::map<std::string, uint64_t>>;

struct RunFigures {
    std::vector<SessionFigures> sessions;
    SessionFigures total;
    std::vector<TimelineRow> timeline;
    std::vector<Slice> slices;
    LearntTable learntBefore;
    LearntTable learntAfter;
    uint64_t failedMallocs = 0;
    uint64_t resultMismatches = 0; // replay: results that differ from the recorded ones
    uint64_t errorLines = 0;
};

// Reads the learnt file (algorithm -> resolution -> bytes); empty if absent.
LearntTable ReadLearnt(const std::string& path);

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_FIGURES_H
