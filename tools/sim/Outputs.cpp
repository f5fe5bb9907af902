// Report files of a run (see Outputs.h and the README's report schema).

#include "Outputs.h"

#include <fstream>
#include <set>

namespace talsim {

namespace {

const char* const kTypeNames[kTypes] = {"capture", "preview", "others"};
constexpr double kMiB = 1024.0 * 1024.0;

nlohmann::json Learnt(const LearntTable& table)
{
    nlohmann::json j = nlohmann::json::object();
    for (const auto& algo : table) {
        for (const auto& res : algo.second) {
            j[algo.first][res.first] = res.second;
        }
    }
    return j;
}

nlohmann::json SessionJson(const SessionFigures& s)
{
    nlohmann::json j;
    j["index"] = s.index;
    j["label"] = s.label;
    j["start_ms"] = s.startMs;
    j["end_ms"] = s.endMs;
    for (int t = 0; t < kTypes; ++t) {
        for (int p = 0; p < kPaths; ++p) {
            j["requests"][kTypeNames[t]][PathName(static_cast<Path>(p))] = s.requests[t][p];
            j["request_bytes"][kTypeNames[t]][PathName(static_cast<Path>(p))] = s.requestBytes[t][p];
        }
        j["peak_live_bytes"][kTypeNames[t]] = s.peakLive[t];
    }
    j["peak_live_bytes"]["total"] = s.peakLiveTotal;
    j["capture_direct_fallbacks"] = {{"count", s.captureFallbacks},
                                     {"bytes", s.captureFallbackBytes}};
    j["capture_direct_by_rule"] = s.captureDirectByRule;
    j["peak_reserved_bytes"] = s.peakReserved;
    j["reserved_at_live_peak_bytes"] = s.reservedAtLivePeak;
    j["reserved_over_live"] = s.Ratio();
    j["pools"] = {{"created", s.pools.created}, {"resized", s.pools.resized},
                  {"released", s.pools.released}, {"shortages", s.pools.shortages}};
    for (int p = 0; p < kPaths; ++p) {
        const LatencySet& l = s.latency[p];
        if (!l.us.empty()) {
            j["malloc_latency_us"][PathName(static_cast<Path>(p))] = {
                {"count", l.us.size()}, {"median", l.Median()}, {"p99", l.P99()}};
        }
    }
    j["learnt_after"] = Learnt(s.learntAfter);
    return j;
}

std::string Mib(uint64_t bytes)
{
    char text[32];
    snprintf(text, sizeof(text), "%.1f", bytes / kMiB);
    return text;
}

} // namespace

nlohmann::json ReportJson(const RunFigures& f, const std::string& source)
{
    nlohmann::json j;
    j["schema"] = "talmem-sim-report";
    j["version"] = 1;
    j["source"] = source;
    j["sessions"] = nlohmann::json::array();
    for (const SessionFigures& s : f.sessions) {
        j["sessions"].push_back(SessionJson(s));
    }
    j["total"] = SessionJson(f.total);
    j["learnt_before"] = Learnt(f.learntBefore);
    j["learnt_after"] = Learnt(f.learntAfter);
    j["failed_mallocs"] = f.failedMallocs;
    j["result_mismatches"] = f.resultMismatches;
    j["error_log_lines"] = f.errorLines;
    return j;
}

void PrintSummary(FILE* out, const RunFigures& f)
{
    fprintf(out, "%-4s %-22s %8s %8s %8s %8s %11s %10s %10s %6s %6s %9s %9s\n", "sess", "label",
            "capture", "pool", "reuse", "direct", "cap.fallbk", "peakRes", "peakLive", "ratio",
            "pools", "p99 pool", "p99 dir");
    fprintf(out, "%-4s %-22s %8s %8s %8s %8s %11s %10s %10s %6s %6s %9s %9s\n", "", "", "reqs",
            "reqs", "reqs", "reqs", "n/MiB", "MiB", "MiB", "", "c/r/x", "us", "us");
    auto row = [&](const SessionFigures& s, const std::string& name, const std::string& label) {
        uint64_t byPath[kPaths] = {};
        for (int t = 0; t < kTypes; ++t) {
            for (int p = 0; p < kPaths; ++p) {
                byPath[p] += s.requests[t][p];
            }
        }
        uint64_t capture = 0;
        for (int p = 0; p < kPaths; ++p) {
            capture += s.requests[0][p];
        }
        const std::string fallbacks = std::to_string(s.captureFallbacks) + "/" +
                                      Mib(s.captureFallbackBytes);
        const std::string pools = std::to_string(s.pools.created) + "/" +
                                  std::to_string(s.pools.resized) + "/" +
                                  std::to_string(s.pools.released);
        fprintf(out, "%-4s %-22.22s %8llu %8llu %8llu %8llu %11s %10s %10s %6.2f %6s %9.0f %9.0f\n",
                name.c_str(), label.c_str(), static_cast<unsigned long long>(capture),
                static_cast<unsigned long long>(byPath[static_cast<int>(Path::kPool)]),
                static_cast<unsigned long long>(byPath[static_cast<int>(Path::kPreviewReuse)]),
                static_cast<unsigned long long>(byPath[static_cast<int>(Path::kDirect)]),
                fallbacks.c_str(), Mib(s.peakReserved).c_str(), Mib(s.peakLiveTotal).c_str(),
                s.Ratio(), pools.c_str(), s.latency[static_cast<int>(Path::kPool)].P99(),
                s.latency[static_cast<int>(Path::kDirect)].P99());
    };
    for (const SessionFigures& s : f.sessions) {
        row(s, std::to_string(s.index), s.label);
    }
    row(f.total, "all", "total");
    if (f.failedMallocs != 0 || f.resultMismatches != 0) {
        fprintf(out, "failed Malloc calls: %llu, results differing from the trace: %llu\n",
                static_cast<unsigned long long>(f.failedMallocs),
                static_cast<unsigned long long>(f.resultMismatches));
    }
}

void WriteTimelineCsv(const std::string& path, const RunFigures& f)
{
    std::set<int> ids;
    for (const TimelineRow& r : f.timeline) {
        for (const auto& p : r.pools) {
            ids.insert(p.first);
        }
    }
    std::ofstream out(path);
    out << "time_ms,reserved_bytes";
    for (int id : ids) {
        out << ",pool" << id << "_reserved_bytes,pool" << id << "_used_bytes";
    }
    out << ",direct_bytes,live_capture_bytes,live_preview_bytes,live_others_bytes,phase\n";
    for (const TimelineRow& r : f.timeline) {
        out << r.ms << "," << r.reserved;
        for (int id : ids) {
            auto it = r.pools.find(id);
            out << "," << (it == r.pools.end() ? 0 : it->second.first) << ","
                << (it == r.pools.end() ? 0 : it->second.second);
        }
        out << "," << r.direct << "," << r.live[0] << "," << r.live[1] << "," << r.live[2] << ","
            << r.phase << "\n";
    }
}

void WriteTraceJson(const std::string& path, const RunFigures& f)
{
    nlohmann::json events = nlohmann::json::array();
    const std::map<std::string, int> tracks = {{"sessions", 1}, {"streams", 2}, {"captures", 3}};
    for (const auto& t : tracks) {
        events.push_back({{"ph", "M"}, {"pid", 1}, {"tid", t.second}, {"name", "thread_name"},
                          {"args", {{"name", t.first}}}});
    }
    for (const Slice& s : f.slices) {
        events.push_back({{"ph", "X"}, {"pid", 1}, {"tid", tracks.at(s.track)}, {"name", s.name},
                          {"ts", s.beginMs * 1000.0}, {"dur", (s.endMs - s.beginMs) * 1000.0}});
    }
    for (const TimelineRow& r : f.timeline) {
        const double ts = r.ms * 1000.0;
        events.push_back({{"ph", "C"}, {"pid", 1}, {"name", "reserved"}, {"ts", ts},
                          {"args", {{"reserved", r.reserved}, {"direct", r.direct}}}});
        events.push_back({{"ph", "C"}, {"pid", 1}, {"name", "live"}, {"ts", ts},
                          {"args", {{"capture", r.live[0]}, {"preview", r.live[1]},
                                    {"others", r.live[2]}}}});
        nlohmann::json pools = nlohmann::json::object();
        for (const auto& p : r.pools) {
            pools["pool" + std::to_string(p.first) + "_reserved"] = p.second.first;
            pools["pool" + std::to_string(p.first) + "_used"] = p.second.second;
        }
        if (!pools.empty()) {
            events.push_back({{"ph", "C"}, {"pid", 1}, {"name", "pools"}, {"ts", ts}, {"args", pools}});
        }
    }
    std::ofstream out(path);
    out << nlohmann::json{{"traceEvents", events}, {"displayTimeUnit", "ms"}}.dump() << "\n";
}

bool DrawTimeline(const std::string& csvPath, const std::string& pngPath, const RunFigures& f)
{
    FILE* gp = popen("gnuplot 2>/dev/null", "w");
    if (gp == nullptr) {
        return false;
    }
    fprintf(gp, "set terminal png noenhanced size 1400,600\nset output '%s'\n", pngPath.c_str());
    fprintf(gp, "set datafile separator ','\nset key autotitle columnhead outside\n"
                "set xlabel 'time (s)'\nset ylabel 'MiB'\nset grid\n");
    fprintf(gp, "set title 'camera memory: reserved (pools + direct chunks) and live by type'\n");
    // Columns: 1 time, 2 reserved, pools..., then direct, live x3, phase.
    std::set<int> ids;
    for (const TimelineRow& r : f.timeline) {
        for (const auto& p : r.pools) {
            ids.insert(p.first);
        }
    }
    const int direct = 3 + 2 * static_cast<int>(ids.size());
    fprintf(gp,
            "plot '%s' using ($1/1000):($2/1048576) with steps lw 2, "
            "'' using ($1/1000):($%d/1048576) with steps, "
            "'' using ($1/1000):(($%d+$%d+$%d)/1048576) with steps lw 2 title 'live (all types)', "
            "'' using ($1/1000):($%d/1048576) with steps\n",
            csvPath.c_str(), direct, direct + 1, direct + 2, direct + 3, direct + 1);
    return pclose(gp) == 0;
}

} // namespace talsim
