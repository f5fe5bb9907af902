#ifndef TALMEM_TESTS_SIM_SIMTESTUTIL_H
#define TALMEM_TESTS_SIM_SIMTESTUTIL_H

// A small device tree and scenario for the simulator's tests, and a runner
// of the talmem_sim program that returns its exit status and output.

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "TalTestSupport.h"

namespace talmem_test {

constexpr uint32_t kMiB = 1024 * 1024;

// Base pool 32 MiB, multi pools 100 MiB, an 8 GiB device's normal file; one
// unrelated algorithm (the loader needs at least one algorithm element).
inline void WriteSmallTree(const std::string& tree)
{
    MakeDirs(tree + "/odm/etc/camera");
    MakeDirs(tree + "/data/vendor/camera");
    WriteFile(tree + "/odm/etc/camera/talmempoolcfg.xml",
              "<TalMemPoolConfig>list algorithm peak size\n"
              "  <AllocType>1</AllocType>\n"
              "  <BasePoolSize>33554432</BasePoolSize>\n"
              "  <AlgoSizeLimit>471859200</AlgoSizeLimit>\n"
              "  <PrevRatioLimit>75</PrevRatioLimit>\n"
              "  <MultiPoolSize>104857600</MultiPoolSize>\n"
              "  <Algo name=\"otherAlgo\" value=\"1048576\"/>\n"
              "</TalMemPoolConfig>\n");
}

// Three sessions of one capture of algoA at 1920x1080 (four 10 MiB frames
// and an 8 MiB working buffer), the third after a process restart.
inline std::string SmallScenario(const std::string& tree)
{
    const std::string capture =
        "{\"name\": \"s\", \"resolution\": [1920, 1080], \"algorithms\": [\"algoA\"],"
        " \"captures\": [{\"algo\": \"algoA\", \"frames\": 4, \"frame_bytes\": 10485760,"
        " \"work_bytes\": [8388608]}]";
    return "{\"name\": \"small\", \"device\": {\"tree\": \"" + tree +
           "\", \"mem_total_kb\": 7654312},\n"
           " \"timing\": {\"frame_ms\": 1, \"clear_delay_ms\": 50, \"process_ms\": 1, \"idle_ms\": 10},\n"
           " \"sessions\": [" + capture + ", \"repeat\": 2}, " + capture +
           ", \"restart_before\": true}]}\n";
}

struct ProgramResult {
    int status = -1;
    std::string out; // stdout and stderr together
};

inline ProgramResult RunSim(const std::string& args)
{
    ProgramResult r;
    const std::string cmd = std::string(TALMEM_SIM_BIN) + " " + args + " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) {
        r.out.append(buf, n);
    }
    const int raw = pclose(p);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}

} // namespace talmem_test

#endif // TALMEM_TESTS_SIM_SIMTESTUTIL_H
