#ifndef TALMEM_TOOLS_SIM_SIMRUN_H
#define TALMEM_TOOLS_SIM_SIMRUN_H

// One run of calls against the library in a fresh work folder, and the files
// it leaves in the output folder.

#include <cstdint>
#include <string>
#include <vector>

#include "Figures.h"
#include "Scenario.h"
#include "SimCall.h"

namespace talsim {

struct RunRequest {
    std::vector<SimCall> calls;
    std::string tree;
    int64_t memTotalKb = 0;
    std::string outDir;
    std::string source;       // scenario or trace path, for the report
    bool record = false;
    bool verbose = false;
    bool progress = false;
    bool writeFiles = true;   // tune runs keep only the figures
    double timeScale = 0;
    int64_t basePoolSize = -1;  // tune: replaces the configured sizes when >= 0
    int64_t multiPoolSize = -1;
    int64_t offWorkerLogDelayMs = 0; // tests: see LogTap::SetOffWorkerDelay
};

struct RunResult {
    RunFigures figures;
    std::string configPath; // the configuration the library chose (from its log)
};

RunResult RunCalls(const RunRequest& request);

// Checks of a scenario against the figures; one line per failed check.
std::vector<std::string> FailedChecks(const Checks& checks, const RunFigures& figures);

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_SIMRUN_H
