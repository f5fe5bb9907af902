// talmem_sim on a small scenario whose figures follow from the pool rules,
// and record then replay of it.

#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "SimTestUtil.h"

namespace talmem_test {
namespace {

using nlohmann::json;

class SimScenarioTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        dir_ = MakeTempDir("sim");
        WriteSmallTree(dir_ + "/tree");
        WriteFile(dir_ + "/small.json", SmallScenario(dir_ + "/tree"));
    }
    void TearDown() override
    {
        RemoveTree(dir_);
        TalTest::TearDown();
    }
    json Report(const std::string& out) const
    {
        std::ifstream in(out + "/report.json");
        return json::parse(in);
    }
    std::string dir_;
};

int CountLines(const std::string& path, const std::string& part)
{
    std::ifstream in(path);
    std::string line;
    int n = 0;
    while (std::getline(in, line)) {
        n += line.find(part) != std::string::npos ? 1 : 0;
    }
    return n;
}

// Session 1: algoA has no learnt peak, GetMaxPeakSize gives 0, so PoolUpdate
// makes no base pool (20 MiB or less) and every capture request is direct:
// 4 x 10 MiB + 8 MiB = 48 MiB (50331648) in 5 fallbacks. OnEos learns 48 MiB
// for 1920x1080. The session closes with CameraClose, then the allocators
// unregister: the last one clears the pools and writes the learnt file.
// Session 2: peak 48 MiB > 20 MiB makes the 32 MiB base pool; with one active
// post-processing state the multi pools follow the peak: need = 50331648 +
// 51 x 49152 = 52838400, less the base pool 33554432 leaves 19283968 for
// pool 2 (a page multiple). Pool 2 is not larger than the base pool, so it is
// searched first: frame 1 and the 8 MiB buffer fit there, frames 2-4 in the
// base pool. Nothing is direct; reserved is exactly the two pools.
// Session 3 (after DeletePool and NewPool, which read the learnt file) does
// the same as session 2.
TEST_F(SimScenarioTest, Run_SmallDay_GivesTheFiguresThePoolRulesPredict)
{
    const std::string out = dir_ + "/out";
    ProgramResult r = RunSim("run " + dir_ + "/small.json -o " + out);
    ASSERT_EQ(r.status, 0) << r.out;
    const json rep = Report(out);
    ASSERT_EQ(rep["sessions"].size(), 3u);
    const json& s1 = rep["sessions"][0];
    EXPECT_EQ(s1["capture_direct_fallbacks"]["count"], 5);
    EXPECT_EQ(s1["capture_direct_fallbacks"]["bytes"], 50331648);
    EXPECT_EQ(s1["requests"]["capture"]["pool"], 0);
    EXPECT_EQ(s1["pools"]["created"], 0) << "because a peak of 0 makes no base pool";
    EXPECT_EQ(s1["peak_reserved_bytes"], 50331648);
    EXPECT_EQ(s1["learnt_after"]["algoA"]["1920x1080"], 50331648)
        << "because the clear at the last unregister wrote the learnt peak";
    EXPECT_TRUE(rep["learnt_before"].empty());
    for (int i : {1, 2}) {
        SCOPED_TRACE(i);
        const json& s = rep["sessions"][i];
        EXPECT_EQ(s["capture_direct_fallbacks"]["count"], 0);
        EXPECT_EQ(s["requests"]["capture"]["pool"], 5);
        EXPECT_EQ(s["requests"]["capture"]["direct"], 0);
        EXPECT_EQ(s["pools"]["created"], 2) << "base pool and one multi pool";
        EXPECT_EQ(s["pools"]["released"], 2) << "both freed by the clear at the last unregister";
        EXPECT_EQ(s["peak_reserved_bytes"], 33554432 + 19283968);
        EXPECT_EQ(s["peak_live_bytes"]["capture"], 50331648);
    }
    EXPECT_EQ(rep["learnt_after"]["algoA"]["1920x1080"], 50331648);
    EXPECT_EQ(rep["failed_mallocs"], 0);
    EXPECT_NE(r.out.find("\n3    s "), std::string::npos) << "one summary row per session:\n" << r.out;
    EXPECT_EQ(r.out.find("ZoEIS"), std::string::npos) << "the library's log stays in talmem.log";
    std::ifstream log(out + "/talmem.log");
    std::string first;
    std::getline(log, first);
    EXPECT_NE(first.find(" ZoEIS   : ["), std::string::npos) << first;
    // Each close: the last unregister clears (the camera has closed), so the
    // service's delayed clear finds nothing to do. The two DeletePool calls
    // (restart, end of day) clear once more on the way out and stop the same way.
    EXPECT_EQ(CountLines(out + "/talmem.log", "ClearAll Failed!"), 0);
    EXPECT_EQ(CountLines(out + "/talmem.log", "QvCamMem  ClearAll free all pool success"), 3);
    EXPECT_EQ(CountLines(out + "/talmem.log", "ClearAll stopped because needClearPools is false"), 3 + 2);
    for (const char* file : {"timeline.csv", "trace.json", "timeline.png"}) {
        EXPECT_GT(std::filesystem::file_size(out + "/" + file), 0u) << file;
    }
}

std::string WithoutTimes(const std::string& path)
{
    std::ifstream in(path);
    std::string line, out;
    while (std::getline(in, line)) {
        out += line.substr(line[0] == '#' ? 0 : line.find(' ') + 1) + "\n";
    }
    return out;
}

// The figures of a recorded run and of its replay agree, and recording the
// replay gives back the same trace, allocation ids and threads included.
TEST_F(SimScenarioTest, RecordThenReplay_SameFiguresAndSameTrace)
{
    ProgramResult run = RunSim("run " + dir_ + "/small.json --record -o " + dir_ + "/a");
    ASSERT_EQ(run.status, 0) << run.out;
    ProgramResult rep = RunSim("replay " + dir_ + "/a/calls.trace --scenario " + dir_ +
                               "/small.json --time-scale 0 --record -o " + dir_ + "/b");
    ASSERT_EQ(rep.status, 0) << rep.out;
    json a = Report(dir_ + "/a");
    json b = Report(dir_ + "/b");
    for (json* r : {&a, &b}) {
        for (json& s : (*r)["sessions"]) {
            s.erase("malloc_latency_us");
            s.erase("start_ms");
            s.erase("end_ms");
            s.erase("label");
        }
        r->erase("total");
        r->erase("source");
    }
    EXPECT_EQ(a.dump(1), b.dump(1));
    EXPECT_EQ(b["result_mismatches"], 0);
    const std::string traceA = WithoutTimes(dir_ + "/a/calls.trace");
    EXPECT_EQ(traceA, WithoutTimes(dir_ + "/b/calls.trace"));
    EXPECT_NE(traceA.find("T2 Malloc size=10485760 name=algoANode hint=~ algo=algoA type=0 -> id=1"),
              std::string::npos) << traceA.substr(0, 600);
}

} // namespace
} // namespace talmem_test
