#ifndef TALMEM_TOOLS_SIM_WORKSPACE_H
#define TALMEM_TOOLS_SIM_WORKSPACE_H

// The work folder of a run: a fresh copy of the device tree (the original is
// never written), a proc/meminfo with the device's total memory, and the
// process set up so that the library finds both (TALMEM_ROOT, working
// folder). Also the learnt-file reader and the configuration rewrite of tune.

#include <cstdint>
#include <string>

#include "Figures.h"

namespace talsim {

class Workspace {
public:
    // Copies `tree` into `<work>/device` and writes `<work>/proc/meminfo`.
    Workspace(const std::string& work, const std::string& tree, int64_t memTotalKb);
    // Points the library at the copy and enters the work folder.
    void Enter(bool record) const;
    // Back to the folder the program started in.
    void Leave() const;

    std::string DeviceDir() const { return mWork + "/device"; }
    std::string LearntPath() const { return DeviceDir() + "/data/vendor/camera/talmempoolfilter.xml"; }
    std::string TracePath() const { return DeviceDir() + "/data/vendor/camera/talmemtrace.txt"; }
    // Sets BasePoolSize and MultiPoolSize in every pool configuration of the copy.
    void SetPoolSizes(int64_t basePoolSize, int64_t multiPoolSize) const;

private:
    std::string mWork;
    std::string mStartDir;
};

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_WORKSPACE_H
