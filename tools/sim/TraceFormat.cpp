// Reading and writing the call trace of the library's recorder.

#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "SimCall.h"

namespace talsim {

namespace {

// Keys each entry carries, in the recorder's order.
const std::map<std::string, std::vector<std::string>>& EntryKeys()
{
    static const std::map<std::string, std::vector<std::string>> keys = {
        {"NewPool", {}},
        {"DeletePool", {}},
        {"Malloc", {"size", "name", "hint", "algo", "type"}},
        {"MallocGeo", {"w", "h", "format", "usage", "name", "algo", "type"}},
        {"MallocInfo", {"w", "h", "format", "usage", "name"}},
        {"Free", {"id", "name"}},
        {"GetIBuf", {"id"}},
        {"PreAllocPool", {"w", "h", "format", "usage", "name", "blocks"}},
        {"ReleasePool", {"w", "h", "format", "usage"}},
        {"ClearAll", {"mode", "delay"}},
        {"CameraClose", {}},
        {"OnSos", {}},
        {"OnFrame", {}},
        {"OnEos", {}},
        {"UpdatePPState", {"pp", "state"}},
        {"ClearPPState", {"pp"}},
        {"PoolInitTest", {"name", "size"}},
        {"PoolUpdate", {"algos", "res", "async", "delay"}},
        {"RegisterAllocatorRef", {"type", "name"}},
        {"UnregisterAllocatorRef", {"type", "name"}},
        {"GetMemDumpInfo", {"type"}},
        {"MemPoolIoctl", {"cmd"}},
        {"MemPoolControl", {"cmd"}},
    };
    return keys;
}

// Keys whose value must be a number (decimal, or 0x hex for usage).
bool IsNumericKey(const std::string& key)
{
    static const std::set<std::string> numeric = {"size", "type", "w", "h", "format", "usage",
                                                  "blocks", "mode", "delay", "pp", "state",
                                                  "async", "cmd", "video"};
    return numeric.count(key) != 0;
}

bool IsNumber(const std::string& text)
{
    if (text.empty()) {
        return false;
    }
    size_t i = (text[0] == '-') ? 1 : 0;
    int base = 10;
    if (text.compare(i, 2, "0x") == 0) {
        i += 2;
        base = 16;
    }
    if (i >= text.size()) {
        return false;
    }
    for (; i < text.size(); ++i) {
        if (base == 16 ? !isxdigit(static_cast<unsigned char>(text[i]))
                       : !isdigit(static_cast<unsigned char>(text[i]))) {
            return false;
        }
    }
    return true;
}

[[noreturn]] void Bad(const std::string& file, int line, const std::string& what)
{
    throw InputError(file + ":" + std::to_string(line) + ": " + what);
}

void CheckArgs(const SimCall& call, const std::string& file)
{
    const std::vector<std::string>& keys = EntryKeys().at(call.entry);
    for (const std::string& key : keys) {
        if (!call.Has(key)) {
            Bad(file, call.line, call.entry + " lacks " + key + "=, expected the fields " +
                                     "the recorder writes (truncated line?)");
        }
    }
    for (const auto& kv : call.args) {
        if (IsNumericKey(kv.first) && kv.second != "~" && !IsNumber(kv.second)) {
            Bad(file, call.line, "field " + kv.first + "=" + kv.second + ": expected a number");
        }
        std::string decoded;
        if (!DecodeText(kv.second, &decoded)) {
            Bad(file, call.line, "field " + kv.first + ": bad %XX escape");
        }
    }
}

SimCall ParseLine(const std::string& text, int lineNo, const std::string& file)
{
    std::istringstream in(text);
    std::vector<std::string> tokens;
    std::string token;
    while (in >> token) {
        tokens.push_back(token);
    }
    SimCall call;
    call.line = lineNo;
    if (tokens.size() < 4 || !IsNumber(tokens[0]) || tokens[1].size() < 2 || tokens[1][0] != 'T' ||
        !IsNumber(tokens[1].substr(1))) {
        Bad(file, lineNo, "expected \"<microseconds> T<thread> <entry> [key=value ...] -> "
                          "<result>\"");
    }
    call.atUs = std::stoll(tokens[0]);
    call.thread = std::stoi(tokens[1].substr(1));
    call.entry = tokens[2];
    if (EntryKeys().count(call.entry) == 0) {
        Bad(file, lineNo, "unknown entry \"" + call.entry + "\"");
    }
    size_t i = 3;
    for (; i < tokens.size() && tokens[i] != "->"; ++i) {
        const size_t eq = tokens[i].find('=');
        if (eq == std::string::npos || eq == 0) {
            Bad(file, lineNo, "argument \"" + tokens[i] + "\": expected key=value");
        }
        call.Set(tokens[i].substr(0, eq), tokens[i].substr(eq + 1));
    }
    if (i == tokens.size()) {
        Bad(file, lineNo, "no \"->\" result marker (truncated line?)");
    }
    call.result = (i + 1 < tokens.size()) ? tokens[i + 1] : "";
    CheckArgs(call, file);
    return call;
}

// Ids must be handed out once and freed only while live, as the recorder
// writes them; anything else cannot be replayed.
void CheckIds(const std::vector<SimCall>& calls, const std::string& file)
{
    std::set<uint64_t> live;
    for (const SimCall& call : calls) {
        const uint64_t made = ResultId(call);
        if (made != 0 && !live.insert(made).second) {
            Bad(file, call.line, "id " + std::to_string(made) + " handed out twice");
        }
        if (!call.Has("id")) {
            continue;
        }
        const std::string& id = call.Arg("id");
        if (id == "0") {
            continue;
        }
        if (!IsNumber(id) || live.count(std::stoull(id)) == 0) {
            Bad(file, call.line, call.entry + " of unknown id " + id +
                                     ": expected an id of a live allocation");
        }
        if (call.entry == "Free") {
            live.erase(std::stoull(id));
        }
    }
}

} // namespace

const std::string& SimCall::Arg(const std::string& key) const
{
    static const std::string empty;
    for (const auto& kv : args) {
        if (kv.first == key) {
            return kv.second;
        }
    }
    return empty;
}

bool SimCall::Has(const std::string& key) const
{
    for (const auto& kv : args) {
        if (kv.first == key) {
            return true;
        }
    }
    return false;
}

int64_t SimCall::Int(const std::string& key) const
{
    const std::string& text = Arg(key);
    if (text.empty() || text == "~") {
        return 0;
    }
    return std::stoll(text, nullptr, 0);
}

uint64_t ResultId(const SimCall& call)
{
    if (call.result.compare(0, 3, "id=") != 0) {
        return 0;
    }
    return std::stoull(call.result.substr(3));
}

bool DecodeText(const std::string& token, std::string* out)
{
    out->clear();
    for (size_t i = 0; i < token.size(); ++i) {
        if (token[i] != '%') {
            out->push_back(token[i]);
            continue;
        }
        if (i + 2 >= token.size() || !isxdigit(static_cast<unsigned char>(token[i + 1])) ||
            !isxdigit(static_cast<unsigned char>(token[i + 2]))) {
            return false;
        }
        const char c = static_cast<char>(std::stoi(token.substr(i + 1, 2), nullptr, 16));
        if (c != '\0') {
            out->push_back(c);
        }
        i += 2;
    }
    return true;
}

std::string FormatTraceLine(const SimCall& call)
{
    std::string out = std::to_string(call.atUs) + " T" + std::to_string(call.thread) + " " +
                      call.entry;
    for (const auto& kv : call.args) {
        out += " " + kv.first + "=" + kv.second;
    }
    return out + " -> " + call.result;
}

std::vector<SimCall> ParseTrace(const std::string& text, const std::string& file)
{
    std::istringstream in(text);
    std::string line;
    std::vector<SimCall> calls;
    int lineNo = 0;
    bool header = false;
    const std::string expected = "# talmem-trace " + std::to_string(kTraceVersion);
    if (!text.empty() && text.back() != '\n') {
        Bad(file, static_cast<int>(std::count(text.begin(), text.end(), '\n')) + 1,
            "the last line has no line end (truncated trace?)");
    }
    while (std::getline(in, line)) {
        ++lineNo;
        if (line.compare(0, 15, "# talmem-trace ") == 0) {
            if (line != expected) {
                Bad(file, lineNo, "trace version \"" + line.substr(15) + "\": expected " +
                                      std::to_string(kTraceVersion));
            }
            header = true;
            continue;
        }
        if (!header) {
            Bad(file, lineNo, "expected the header \"" + expected + "\" first");
        }
        if (line.empty() || line[0] == '#') {
            continue;
        }
        calls.push_back(ParseLine(line, lineNo, file));
    }
    if (!header) {
        Bad(file, lineNo, "empty trace: expected the header \"" + expected + "\"");
    }
    CheckIds(calls, file);
    return calls;
}

std::vector<SimCall> ReadTrace(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw InputError(path + ": cannot open the trace");
    }
    std::ostringstream text;
    text << in.rdbuf();
    return ParseTrace(text.str(), path);
}

} // namespace talsim
