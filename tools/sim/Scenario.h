#ifndef TALMEM_TOOLS_SIM_SCENARIO_H
#define TALMEM_TOOLS_SIM_SCENARIO_H

// A scenario file (JSON, schema in the README): a device, its device tree and
// a camera day as a list of sessions, expanded into the public entry calls a
// camera provider would make.

#include <cstdint>
#include <string>
#include <vector>

#include "SimCall.h"

namespace talsim {

struct Checks {
    int fromSession = 2;
    int64_t maxCaptureFallbacks = -1;   // -1: not checked
    double maxReservedOverLive = 0;     // 0: not checked
    int64_t maxFailedMallocs = -1;
    bool learntWritten = false;         // the learnt file exists at the end
};

struct Scenario {
    std::string name;
    std::string deviceTree;   // absolute path of the device tree to copy
    int64_t memTotalKb = 0;   // MemTotal the device's kernel reports
    Checks checks;
    std::vector<SimCall> calls;
    std::vector<std::string> sessionNames;
};

// Reads and expands a scenario; throws InputError naming the file and field.
// `clearDelayMs` >= 0 replaces the scenario's delay of the clear after a
// close (tune uses a short one: the executor waits for the clear anyway).
Scenario LoadScenario(const std::string& path, int64_t clearDelayMs = -1);
Scenario ParseScenario(const std::string& text, const std::string& path, int64_t clearDelayMs = -1);

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_SCENARIO_H
