#ifndef TALMEM_TOOLS_SIM_SIMTUNE_H
#define TALMEM_TOOLS_SIM_SIMTUNE_H

// talmem_sim tune: the scenario under candidate pool sizes.

#include <string>
#include <vector>

namespace talsim {

struct TuneOptions {
    std::vector<int> baseMib;  // empty: a default grid over 0..200
    std::vector<int> multiMib; // empty: a default grid over 100..250
    std::string out;
    std::string write;
};

// Exit status: 0 when some candidate keeps capture requests out of direct
// allocation from session 2 on, 1 when none does.
int Tune(const std::string& scenarioPath, const TuneOptions& options);

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_SIMTUNE_H
