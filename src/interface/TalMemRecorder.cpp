// The call recorder (see TalMemRecorder.h for the line format).

#include "interface/TalMemRecorder.h"

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "common/TalLog.h"
#include "talmem_platform.h"
#include "talmem_properties.h"

namespace qv {

std::atomic<bool> TalMemRecorder::sOn{false};

namespace {

// Everything the recorder owns, behind one mutex.
struct RecorderState {
    std::mutex lock;
    FILE* file = nullptr;
    bool started = false; // property read once per recording
    int64_t originUs = 0;
    uint64_t nextId = 1;
    std::unordered_map<uintptr_t, uint64_t> ids;
    std::map<std::thread::id, int> threads;
};

RecorderState& State()
{
    static RecorderState* state = new RecorderState(); // outlives static destruction
    return *state;
}

int64_t SteadyUs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

bool NeedsEscape(unsigned char c)
{
    return c <= ' ' || c >= 0x7F || c == '%' || c == '~' || c == '=' || c == ',';
}

} // namespace

int64_t TalMemRecorder::NowUs()
{
    return SteadyUs();
}

void TalMemRecorder::StartIfAsked()
{
    RecorderState& s = State();
    std::lock_guard<std::mutex> l(s.lock);
    if (s.started) {
        return;
    }
    s.started = true;
    char value[PROPERTY_VALUE_MAX] = {0};
    property_get(kProperty, value, "0");
    if (value[0] != '1') {
        return;
    }
    const std::string path = TalDevicePath("/data/vendor/camera/") + kTraceName;
    s.file = fopen(path.c_str(), "ae");
    if (s.file == nullptr || fprintf(s.file, "# talmem-trace %d\n", kTraceVersion) < 0 ||
        fflush(s.file) != 0) {
        TAL_LOGW("QvCamMem %s trace %s not writable, call recording off\n", __func__,
                 path.c_str());
        if (s.file != nullptr) {
            fclose(s.file);
            s.file = nullptr;
        }
        return;
    }
    s.originUs = SteadyUs();
    sOn.store(true, std::memory_order_relaxed);
}

void TalMemRecorder::Reset()
{
    RecorderState& s = State();
    std::lock_guard<std::mutex> l(s.lock);
    sOn.store(false, std::memory_order_relaxed);
    if (s.file != nullptr) {
        fclose(s.file);
        s.file = nullptr;
    }
    s.started = false;
    s.nextId = 1;
    s.ids.clear();
    s.threads.clear();
}

std::string TalMemRecorder::Text(const char* text)
{
    if (text == nullptr) {
        return "~";
    }
    std::string out;
    for (const char* p = text; *p != '\0'; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (NeedsEscape(c)) {
            char hex[4];
            snprintf(hex, sizeof(hex), "%%%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out.empty() ? "%00" : out; // an empty name still takes one token
}

std::string TalMemRecorder::IdOf(const void* addr)
{
    if (addr == nullptr) {
        return "0";
    }
    RecorderState& s = State();
    std::lock_guard<std::mutex> l(s.lock);
    auto it = s.ids.find(reinterpret_cast<uintptr_t>(addr));
    return it == s.ids.end() ? "x" : std::to_string(it->second);
}

std::string TalMemRecorder::NewId(const void* addr)
{
    if (addr == nullptr) {
        return "null";
    }
    RecorderState& s = State();
    std::lock_guard<std::mutex> l(s.lock);
    const uint64_t id = s.nextId++;
    s.ids[reinterpret_cast<uintptr_t>(addr)] = id;
    return "id=" + std::to_string(id);
}

std::string TalMemRecorder::DropId(const void* addr)
{
    if (addr == nullptr) {
        return "0";
    }
    RecorderState& s = State();
    std::lock_guard<std::mutex> l(s.lock);
    auto it = s.ids.find(reinterpret_cast<uintptr_t>(addr));
    if (it == s.ids.end()) {
        return "x";
    }
    const uint64_t id = it->second;
    s.ids.erase(it);
    return std::to_string(id);
}

void TalMemRecorder::Write(int64_t startUs, const char* entry, const std::string& args,
                           const std::string& result)
{
    RecorderState& s = State();
    std::lock_guard<std::mutex> l(s.lock);
    if (s.file == nullptr) {
        return; // switched off by another thread meanwhile
    }
    auto inserted = s.threads.emplace(std::this_thread::get_id(),
                                      static_cast<int>(s.threads.size()) + 1);
    const int thread = inserted.first->second;
    const int64_t at = startUs > s.originUs ? startUs - s.originUs : 0;
    int n = fprintf(s.file, "%" PRId64 " T%d %s%s -> %s\n", at, thread, entry, args.c_str(),
                    result.c_str());
    if (n < 0 || fflush(s.file) != 0) {
        fclose(s.file);
        s.file = nullptr;
        sOn.store(false, std::memory_order_relaxed);
        TAL_LOGW("QvCamMem %s trace write failed, call recording off\n", __func__);
    }
}

void TalRecCall::Arg(const char* key, const std::string& value)
{
    mArgs += ' ';
    mArgs += key;
    mArgs += '=';
    mArgs += value;
}

void TalRecCall::Hex(const char* key, uint64_t value)
{
    char text[24];
    snprintf(text, sizeof(text), "0x%" PRIx64, value);
    Arg(key, text);
}

// The allocation hint is read as the pool manager reads it: the version word,
// then only the word that version uses.
void TalRecCall::Hint(const void* owner)
{
    if (owner == nullptr) {
        Arg("hint", "~");
        return;
    }
    const uint32_t* words = static_cast<const uint32_t*>(owner);
    const uint32_t version = words[0];
    uint32_t word = 0;
    if (version == 0 || version == 1) {
        word = words[1];
    } else if (version == 2) {
        word = words[2];
    }
    Arg("hint", std::to_string(version) + "," + std::to_string(word));
}

void TalRecCall::Info(const MallocInfo& info)
{
    Arg("w", info.width);
    Arg("h", info.height);
    Arg("format", info.format);
    Hex("usage", info.usage);
}

} // namespace qv
