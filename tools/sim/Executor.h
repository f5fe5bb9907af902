#ifndef TALMEM_TOOLS_SIM_EXECUTOR_H
#define TALMEM_TOOLS_SIM_EXECUTOR_H

// Runs a list of calls through the library's public entries in-process: one
// real thread per trace thread, the calls in their list order (a turnstile
// lets exactly one call run at a time), the gaps between calls scaled by
// the time scale, and the library's delayed work (ClearAll mode 1,
// PoolUpdate async) given its real delay before any call that came after
// it in the original timeline.

#include <string>
#include <vector>

#include "Figures.h"
#include "LogTap.h"
#include "SimCall.h"

namespace talsim {

struct ExecOptions {
    double timeScale = 0.0;  // 0: no waiting beyond the library's own delays
    std::string learntPath;  // the learnt file inside the work folder
    bool progress = false;   // progress on stderr
};

// Runs `calls`; the figures come back in `figures`.
void Execute(const std::vector<SimCall>& calls, const ExecOptions& options, LogTap& tap,
             RunFigures& figures);

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_EXECUTOR_H
