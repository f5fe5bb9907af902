#ifndef TALMEM_TOOLS_SIM_SIMCALL_H
#define TALMEM_TOOLS_SIM_SIMCALL_H

// One public entry call as the simulator runs it: the same shape for a call
// expanded from a scenario and for a line of a recorded trace.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace talsim {

// Bad input (scenario, trace, options): the message names the file, the field
// and what was expected. The program exits with status 2.
class InputError : public std::runtime_error {
public:
    explicit InputError(const std::string& what) : std::runtime_error(what) {}
};

struct SimCall {
    int64_t atUs = 0;  // time of the call from the start of the run
    int thread = 1;    // T1, T2, ... one real thread each
    std::string entry; // Malloc, MallocGeo, MallocInfo, Free, ... (trace names)
    std::vector<std::pair<std::string, std::string>> args; // in trace order
    std::string result; // recorded result ("id=3", "null", "0", ""); empty when not known
    int line = 0;       // trace line, for messages
    std::string mark;   // scenario annotation for slices ("capture:nightSceneAlgo"), may be empty

    const std::string& Arg(const std::string& key) const;
    bool Has(const std::string& key) const;
    int64_t Int(const std::string& key) const;
    void Set(const std::string& key, const std::string& value) { args.emplace_back(key, value); }
    void Set(const std::string& key, int64_t value) { Set(key, std::to_string(value)); }
};

// The allocation id a call refers to or produced: 0 for none.
uint64_t ResultId(const SimCall& call);

// Trace text (see README "Call trace format").
static constexpr int kTraceVersion = 1;
std::string FormatTraceLine(const SimCall& call);
// Reads a whole trace; throws InputError naming the file and line.
std::vector<SimCall> ReadTrace(const std::string& path);
// The same from text (tests, and after reading the file).
std::vector<SimCall> ParseTrace(const std::string& text, const std::string& fileName);
// Decodes a recorder text token (%XX escapes, "~" for null).
bool DecodeText(const std::string& token, std::string* out);

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_SIMCALL_H
