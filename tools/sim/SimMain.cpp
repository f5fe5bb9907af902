// talmem_sim: the camera-session simulator, call-trace replayer, reporter
// and tuner of the memory pool library. Exit status: 0 done, 1 ran but a
// check of the scenario failed, 2 bad input.

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include <CLI/CLI.hpp>

#include "Scenario.h"
#include "SimRun.h"
#include "SimTune.h"
#include "Outputs.h"

namespace {

using namespace talsim;

struct Common {
    std::string out;
    bool record = false;
    bool verbose = false;
    double timeScale = -1;
};

void AddCommon(CLI::App* cmd, Common& c, const char* scaleHelp)
{
    cmd->add_option("-o,--out", c.out, "output folder (created; its work/ subfolder is replaced)");
    cmd->add_flag("--record", c.record,
                  "switch the library's call recorder on; the trace is left as calls.trace");
    cmd->add_flag("-v,--verbose", c.verbose, "echo every log line of the library on stderr");
    cmd->add_option("--time-scale", c.timeScale, scaleHelp)->check(CLI::Range(0.0, 100.0));
}

void PrintPaths(const std::string& out, bool record)
{
    printf("\noutputs in %s: report.json timeline.csv trace.json timeline.png talmem.log%s\n",
           std::filesystem::absolute(out).c_str(), record ? " calls.trace" : "");
}

int Finish(const RunResult& result, const Checks* checks)
{
    PrintSummary(stdout, result.figures);
    if (checks == nullptr) {
        return 0;
    }
    const std::vector<std::string> failed = FailedChecks(*checks, result.figures);
    for (const std::string& line : failed) {
        fprintf(stderr, "talmem_sim: check failed: %s\n", line.c_str());
    }
    return failed.empty() ? 0 : 1;
}

int Run(const std::string& path, const Common& c)
{
    Scenario sc = LoadScenario(path);
    RunRequest r;
    r.calls = sc.calls;
    r.tree = sc.deviceTree;
    r.memTotalKb = sc.memTotalKb;
    r.outDir = c.out.empty() ? "talmem-sim-out/" + sc.name : c.out;
    r.source = path;
    r.record = c.record;
    r.verbose = c.verbose;
    r.progress = isatty(STDERR_FILENO) != 0;
    r.timeScale = c.timeScale < 0 ? 0 : c.timeScale;
    RunResult result = RunCalls(r);
    const int status = Finish(result, &sc.checks);
    PrintPaths(r.outDir, c.record);
    return status;
}

int Replay(const std::string& path, const Common& c, const std::string& scenario,
           const std::string& tree, int64_t memTotalKb)
{
    RunRequest r;
    r.calls = ReadTrace(path);
    if (!scenario.empty()) {
        Scenario sc = LoadScenario(scenario);
        r.tree = sc.deviceTree;
        r.memTotalKb = sc.memTotalKb;
    }
    if (!tree.empty()) {
        r.tree = std::filesystem::absolute(tree).string();
    }
    if (memTotalKb > 0) {
        r.memTotalKb = memTotalKb;
    }
    if (r.tree.empty() || r.memTotalKb <= 0) {
        throw InputError("replay: expected --scenario FILE, or --tree DIR and --mem-total-kb N");
    }
    if (!std::filesystem::is_directory(r.tree + "/odm/etc/camera")) {
        throw InputError(r.tree + ": --tree: expected a device tree with odm/etc/camera/");
    }
    r.outDir = c.out.empty() ? "talmem-sim-out/replay" : c.out;
    r.source = path;
    r.record = c.record;
    r.verbose = c.verbose;
    r.progress = isatty(STDERR_FILENO) != 0;
    r.timeScale = c.timeScale < 0 ? 1.0 : c.timeScale;
    const int status = Finish(RunCalls(r), nullptr);
    PrintPaths(r.outDir, c.record);
    return status;
}

const char* const kDescription =
    "Camera-session simulator of the memory pool library. It runs a camera day (a scenario) or a\n"
    "recorded call trace through the library's public entries, in this process, on a fresh copy\n"
    "of a device tree, and reports what the pools did: requests by path, capture requests served\n"
    "directly, peak reserved and live memory, pool changes, learnt peaks, Malloc latency.\n"
    "Exit status: 0 done, 1 a check of the scenario failed, 2 bad input.";

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{kDescription, "talmem_sim"};
    app.require_subcommand(1);
    Common c;
    std::string scenario, trace, tree, write;
    int64_t memTotalKb = 0;
    TuneOptions tune;

    CLI::App* run = app.add_subcommand(
        "run", "expand SCENARIO (JSON, see README) into calls and run them; prints one row per "
               "session and writes report.json, timeline.csv, trace.json, timeline.png, talmem.log");
    run->add_option("SCENARIO", scenario, "scenario file")->required();
    AddCommon(run, c, "wait this factor of the scenario's time between calls (default 0: only the "
                      "library's own delays are waited for)");

    CLI::App* replay = app.add_subcommand(
        "replay", "replay TRACE (a call trace recorded by the library, from a device or from "
                  "run --record) in its order and threads, and report as run does");
    replay->add_option("TRACE", trace, "trace file")->required();
    replay->add_option("--scenario", scenario, "take the device tree and memory from this scenario");
    replay->add_option("--tree", tree, "device tree folder (configuration and learnt file)");
    replay->add_option("--mem-total-kb", memTotalKb, "MemTotal of the device in kB")
        ->check(CLI::Range(int64_t{65536}, int64_t{0x7FFFFFFF}));
    AddCommon(replay, c, "factor on the recorded gaps between calls (default 1)");

    CLI::App* tuneCmd = app.add_subcommand(
        "tune", "run SCENARIO under candidate BasePoolSize and MultiPoolSize values and list the "
                "ones that keep capture requests out of direct allocation from session 2 on, "
                "least peak reserved memory first");
    tuneCmd->add_option("SCENARIO", scenario, "scenario file")->required();
    tuneCmd->add_option("-o,--out", c.out, "output folder (tune.json and the work folder)");
    tuneCmd->add_option("--base-mib", tune.baseMib, "candidate base pool sizes in MiB (0..200)")
        ->check(CLI::Range(0, 200));
    tuneCmd->add_option("--multi-mib", tune.multiMib, "candidate multi pool sizes in MiB (100..250)")
        ->check(CLI::Range(100, 250));
    tuneCmd->add_option("--write", write, "save the best candidate as a configuration file here");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;
    }
    try {
        if (*run) {
            return Run(scenario, c);
        }
        if (*replay) {
            return Replay(trace, c, scenario, tree, memTotalKb);
        }
        tune.out = c.out.empty() ? "talmem-sim-out/tune" : c.out;
        tune.write = write;
        return Tune(scenario, tune);
    } catch (const InputError& e) {
        fprintf(stderr, "talmem_sim: %s\n", e.what());
        return 2;
    } catch (const std::exception& e) {
        fprintf(stderr, "talmem_sim: %s\n", e.what());
        return 2;
    }
}
