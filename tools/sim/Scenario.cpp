// Scenario files: reading, checking and expanding into calls.

#include "Scenario.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "JsonCheck.h"

namespace talsim {

namespace {

constexpr int kControl = 1;
constexpr int kPreview = 2;
constexpr int kCapture = 3;
constexpr int kVideo = 4;
constexpr int64_t kMaxBytes = 0xFFFFFFFFll;

// Calls are made per stream with times in ms, then merged by time; handles
// stand for allocations until the merge gives them ids in call order.
class Builder {
public:
    SimCall& Add(double ms, int thread, const std::string& entry)
    {
        Item item;
        item.call.atUs = static_cast<int64_t>(ms * 1000.0);
        item.call.thread = thread;
        item.call.entry = entry;
        item.seq = mItems.size();
        mItems.push_back(item);
        return mItems.back().call;
    }
    int64_t Malloc(double ms, int thread, int64_t bytes, const std::string& module,
                   const std::string& algo, int type)
    {
        SimCall& c = Add(ms, thread, "Malloc");
        c.Set("size", bytes);
        c.Set("name", module);
        c.Set("hint", "~");
        c.Set("algo", algo);
        c.Set("type", type);
        return Handle(ms, thread);
    }
    int64_t MallocGeo(double ms, int thread, const int64_t geo[4], const std::string& module,
                      const std::string& algo, int type)
    {
        SimCall& c = Add(ms, thread, "MallocGeo");
        c.Set("w", geo[0]);
        c.Set("h", geo[1]);
        c.Set("format", geo[2]);
        c.Set("usage", geo[3]);
        c.Set("name", module);
        c.Set("algo", algo);
        c.Set("type", type);
        return Handle(ms, thread);
    }
    void Free(double ms, int thread, int64_t handle, const std::string& module)
    {
        SimCall& c = Add(ms, thread, "Free");
        c.Set("id", "h" + std::to_string(handle));
        c.Set("name", module);
    }
    std::vector<SimCall> Finish();
    // Annotates the last allocation or release made (not its GetIBuf).
    void MarkLast(const std::string& mark)
    {
        for (auto it = mItems.rbegin(); it != mItems.rend(); ++it) {
            if (it->call.entry != "GetIBuf") {
                it->call.mark = mark;
                return;
            }
        }
    }

private:
    struct Item {
        SimCall call;
        size_t seq;
    };
    int64_t Handle(double ms, int thread)
    {
        const int64_t h = ++mHandles;
        mItems.back().call.result = "h" + std::to_string(h);
        SimCall& get = Add(ms, thread, "GetIBuf"); // what a camera node does next
        get.Set("id", "h" + std::to_string(h));
        return h;
    }
    std::vector<Item> mItems;
    int64_t mHandles = 0;
};

std::vector<SimCall> Builder::Finish()
{
    std::stable_sort(mItems.begin(), mItems.end(), [](const Item& a, const Item& b) {
        return a.call.atUs < b.call.atUs;
    });
    std::map<std::string, std::string> ids;
    uint64_t next = 1;
    std::vector<SimCall> calls;
    for (Item& item : mItems) {
        SimCall& c = item.call;
        if (c.result.compare(0, 1, "h") == 0) {
            ids[c.result] = std::to_string(next);
            c.result = "id=" + std::to_string(next++);
        } else if (c.entry == "GetIBuf") {
            c.result = "ok";
        }
        for (auto& kv : c.args) {
            if (kv.first == "id") {
                kv.second = ids.at(kv.second);
            }
        }
        calls.push_back(c);
    }
    return calls;
}

struct Timing {
    double frameMs = 33;
    double clearDelayMs = 1000;
    double processMs = 150;
    double idleMs = 500;
};

struct Context {
    Builder& b;
    const Timing& timing;
    int64_t maxBytes;
};

int64_t Bytes(const JsonField& f, const Context& cx)
{
    return f.Int(1, cx.maxBytes);
}

std::vector<std::string> Names(const JsonField& f)
{
    std::vector<std::string> names;
    for (size_t i = 0; i < f.Size(); ++i) {
        names.push_back(f.Item(i).Text());
    }
    return names;
}

std::string Resolution(const JsonField& f)
{
    if (f.Size() != 2) {
        f.Fail("[width, height]");
    }
    return std::to_string(f.Item(0).Int(1, 65535)) + "x" + std::to_string(f.Item(1).Int(1, 65535));
}

std::string AlgoText(const std::vector<std::string>& algos)
{
    std::string text;
    for (const std::string& a : algos) {
        text += (text.empty() ? "" : ",") + a;
    }
    return text.empty() ? "-" : text;
}

void PoolUpdate(Context& cx, double ms, const std::vector<std::string>& algos,
                const std::string& res, const std::string& mark)
{
    SimCall& c = cx.b.Add(ms, kControl, "PoolUpdate");
    c.Set("algos", AlgoText(algos));
    c.Set("res", res);
    c.Set("async", 0);
    c.Set("delay", 0);
    c.result = "0";
    c.mark = mark;
}

// One capture request of an algorithm; returns when the next may start.
double Capture(Context& cx, const JsonField& f, double t)
{
    f.Object({"algo", "module", "count", "frames", "frame_bytes", "frame", "work_bytes",
              "output_bytes", "events"});
    const std::string algo = f.At("algo").Text();
    const std::string module = f.Has("module") ? f.At("module").Text() : algo + "Node";
    const int64_t frames = f.IntOr("frames", 1, 1, 64);
    const bool events = f.Has("events") ? f.At("events").Bool() : true;
    int64_t geo[4] = {0, 0, 0, 0};
    int64_t frameBytes = 0;
    if (f.Has("frame") == f.Has("frame_bytes")) {
        f.Fail("exactly one of frame_bytes or frame {width, height, format, usage}");
    }
    if (f.Has("frame")) {
        JsonField g = f.At("frame");
        g.Object({"width", "height", "format", "usage"});
        geo[0] = g.At("width").Int(1, 65535);
        geo[1] = g.At("height").Int(1, 65535);
        geo[2] = g.At("format").Int(0, 0x7FFFFFFF);
        geo[3] = g.IntOr("usage", 0, 0, INT64_MAX);
    } else {
        frameBytes = Bytes(f.At("frame_bytes"), cx);
    }
    std::vector<int64_t> work;
    if (f.Has("work_bytes")) {
        JsonField w = f.At("work_bytes");
        for (size_t i = 0; i < w.Size(); ++i) {
            work.push_back(Bytes(w.Item(i), cx));
        }
    }
    const int64_t output = f.Has("output_bytes") ? Bytes(f.At("output_bytes"), cx) : 0;
    for (int64_t n = f.IntOr("count", 1, 1, 1000); n > 0; --n) {
        if (events) {
            cx.b.Add(t, kCapture, "OnSos").mark = "capture:" + algo;
        }
        std::vector<int64_t> held;
        for (int64_t i = 0; i < frames; ++i) {
            const double at = t + 1 + i * cx.timing.frameMs;
            held.push_back(frameBytes != 0 ? cx.b.Malloc(at, kCapture, frameBytes, module, algo, 0)
                                           : cx.b.MallocGeo(at, kCapture, geo, module, algo, 0));
        }
        t += 1 + frames * cx.timing.frameMs;
        if (events) {
            cx.b.Add(t, kCapture, "OnFrame");
        }
        std::vector<int64_t> scratch;
        for (int64_t bytes : work) {
            scratch.push_back(cx.b.Malloc(t += 1, kCapture, bytes, module, algo, 0));
        }
        const int64_t out = output != 0 ? cx.b.Malloc(t += 1, kCapture, output, module, algo, 0) : 0;
        t += cx.timing.processMs;
        for (auto it = scratch.rbegin(); it != scratch.rend(); ++it) {
            cx.b.Free(t, kCapture, *it, module);
        }
        for (int64_t h : held) {
            cx.b.Free(t, kCapture, h, module);
        }
        if (out != 0) {
            cx.b.Free(t += 5, kCapture, out, module); // after encoding
        }
        if (events) {
            cx.b.Add(t += 1, kCapture, "OnEos");
        }
        t += cx.timing.processMs;
    }
    return t;
}

// Video recording: its own algorithms and resolution, stabilisation buffers
// for the stream, encoder buffers per frame.
double Video(Context& cx, const JsonField& f, double t)
{
    f.Object({"algorithms", "resolution", "module", "algo", "frames", "buffer_bytes", "buffers",
              "eis_bytes", "eis_buffers"});
    const std::vector<std::string> algos = Names(f.At("algorithms"));
    const std::string module = f.Has("module") ? f.At("module").Text() : "videoNode";
    const std::string algo = f.Has("algo") ? f.At("algo").Text() : algos.front();
    const int64_t frames = f.At("frames").Int(1, 100000);
    const int64_t bytes = Bytes(f.At("buffer_bytes"), cx);
    const int64_t buffers = f.IntOr("buffers", 8, 1, 64);
    const int64_t eis = f.Has("eis_bytes") ? Bytes(f.At("eis_bytes"), cx) : 0;
    const int64_t eisBuffers = f.IntOr("eis_buffers", 1, 1, 64);
    PoolUpdate(cx, t, algos, Resolution(f.At("resolution")), "");
    cx.b.Add(t += 1, kVideo, "OnSos").mark = "stream-begin:video";
    std::vector<int64_t> scratch;
    for (int64_t i = 0; eis != 0 && i < eisBuffers; ++i) {
        scratch.push_back(cx.b.Malloc(t += 1, kVideo, eis, module, algo, 2));
    }
    cx.b.Add(t += 1, kVideo, "OnFrame");
    std::vector<int64_t> queue;
    for (int64_t i = 0; i < frames; ++i) {
        queue.push_back(cx.b.Malloc(t += cx.timing.frameMs, kVideo, bytes, module, algo + "Enc", 1));
        if (static_cast<int64_t>(queue.size()) > buffers) {
            cx.b.Free(t, kVideo, queue.front(), module);
            queue.erase(queue.begin());
        }
    }
    for (int64_t h : queue) {
        cx.b.Free(t += 1, kVideo, h, module);
    }
    for (int64_t h : scratch) {
        cx.b.Free(t += 1, kVideo, h, module);
    }
    cx.b.Add(t += 1, kVideo, "OnEos").mark = "stream-end:video";
    return t + cx.timing.processMs;
}

struct Allocator {
    int64_t type;
    std::string module;
};

std::vector<Allocator> Allocators(const JsonField& s)
{
    std::vector<Allocator> list;
    if (!s.Has("allocators")) {
        return {{0, "captureNode"}, {1, "previewNode"}, {2, "otherNode"}};
    }
    JsonField f = s.At("allocators");
    for (size_t i = 0; i < f.Size(); ++i) {
        JsonField a = f.Item(i);
        a.Object({"type", "module"});
        list.push_back({a.At("type").Int(0, 2), a.At("module").Text()});
    }
    return list;
}

std::vector<std::pair<int64_t, int64_t>> PPStates(const JsonField& s)
{
    if (!s.Has("pp_states")) {
        return {{0, 1}};
    }
    std::vector<std::pair<int64_t, int64_t>> states;
    JsonField f = s.At("pp_states");
    for (size_t i = 0; i < f.Size(); ++i) {
        JsonField p = f.Item(i);
        if (p.Size() != 2) {
            p.Fail("[post-processing type 0..3, state 1..5]");
        }
        states.emplace_back(p.Item(0).Int(0, 3), p.Item(1).Int(1, 5));
    }
    return states;
}

// The preview stream from `begin` to `end`: a queue of `buffers` buffers.
void Preview(Context& cx, const JsonField& f, double begin, double end)
{
    f.Object({"module", "algo", "bytes", "buffers"});
    const std::string module = f.Has("module") ? f.At("module").Text() : "previewNode";
    const std::string algo = f.Has("algo") ? f.At("algo").Text() : "previewAlgo";
    const int64_t bytes = Bytes(f.At("bytes"), cx);
    const int64_t buffers = f.IntOr("buffers", 6, 1, 64);
    std::vector<int64_t> queue;
    double t = begin;
    for (; t < end; t += cx.timing.frameMs) {
        queue.push_back(cx.b.Malloc(t, kPreview, bytes, module, algo, 1));
        if (t == begin) {
            cx.b.MarkLast("stream-begin:preview");
        }
        if (static_cast<int64_t>(queue.size()) > buffers) {
            cx.b.Free(t, kPreview, queue.front(), module);
            queue.erase(queue.begin());
        }
    }
    for (int64_t h : queue) {
        cx.b.Free(t, kPreview, h, module);
    }
    cx.b.MarkLast("stream-end:preview");
}

double OneSession(Context& cx, const JsonField& s, const std::string& name, double t, bool restart)
{
    if (restart) {
        cx.b.Add(t, kControl, "DeletePool");
        cx.b.Add(t += 1, kControl, "NewPool");
    }
    const std::vector<Allocator> allocators = Allocators(s);
    const auto pp = PPStates(s);
    for (const Allocator& a : allocators) {
        SimCall& c = cx.b.Add(t, kControl, "RegisterAllocatorRef");
        c.Set("type", a.type);
        c.Set("name", a.module);
    }
    for (const auto& p : pp) {
        SimCall& c = cx.b.Add(t, kControl, "UpdatePPState");
        c.Set("pp", p.first);
        c.Set("state", p.second);
    }
    const std::string res = Resolution(s.At("resolution"));
    const std::string ppRes = s.Has("pp_resolution") ? Resolution(s.At("pp_resolution")) : res;
    PoolUpdate(cx, t, Names(s.At("algorithms")), res + "," + ppRes, "session:" + name);
    double tc = t + 10 * cx.timing.frameMs;
    if (s.Has("captures")) {
        JsonField caps = s.At("captures");
        for (size_t i = 0; i < caps.Size(); ++i) {
            tc = Capture(cx, caps.Item(i), tc);
        }
    }
    if (s.Has("video")) {
        tc = Video(cx, s.At("video"), tc);
    }
    const double end = tc + 5 * cx.timing.frameMs;
    if (s.Has("preview")) {
        Preview(cx, s.At("preview"), t + 1, end);
    }
    // Closing: the provider tells the pool the camera is closing, then tears
    // the pipeline down. Each node unregisters its allocator as it is
    // destroyed; when the last one leaves, the library clears the pools (the
    // camera has closed and nothing is in use) and writes the learnt table.
    // The service's delayed ClearAll follows as its safety net.
    double tclose = end + cx.timing.frameMs;
    cx.b.Add(tclose, kControl, "CameraClose");
    tclose += 1;
    for (const Allocator& a : allocators) {
        SimCall& c = cx.b.Add(tclose, kControl, "UnregisterAllocatorRef");
        c.Set("type", a.type);
        c.Set("name", a.module);
    }
    for (const auto& p : pp) {
        cx.b.Add(tclose, kControl, "ClearPPState").Set("pp", p.first);
    }
    SimCall& clear = cx.b.Add(tclose += 1, kControl, "ClearAll");
    clear.Set("mode", 1);
    clear.Set("delay", static_cast<int64_t>(cx.timing.clearDelayMs));
    clear.result = "0";
    return tclose + cx.timing.clearDelayMs + cx.timing.idleMs;
}

Checks ReadChecks(const JsonField& f)
{
    f.Object({"from_session", "max_capture_fallbacks", "max_reserved_over_live",
              "max_failed_mallocs", "learnt_written"});
    Checks c;
    c.fromSession = static_cast<int>(f.IntOr("from_session", 2, 1, 100000));
    c.maxCaptureFallbacks = f.IntOr("max_capture_fallbacks", -1, 0, INT64_MAX);
    c.maxReservedOverLive = f.Has("max_reserved_over_live")
                                ? f.At("max_reserved_over_live").Number(1.0, 1000.0)
                                : 0;
    c.maxFailedMallocs = f.IntOr("max_failed_mallocs", -1, 0, INT64_MAX);
    c.learntWritten = f.Has("learnt_written") && f.At("learnt_written").Bool();
    return c;
}

void ReadDevice(const JsonField& d, const std::string& path, Scenario& sc)
{
    d.Object({"name", "tree", "mem_total_kb"});
    namespace fs = std::filesystem;
    fs::path tree = d.At("tree").Text();
    if (tree.is_relative()) {
        tree = fs::absolute(fs::path(path).parent_path() / tree);
    }
    if (!fs::is_directory(tree / "odm/etc/camera")) {
        d.At("tree").Fail("a device tree folder with odm/etc/camera/ (" + tree.string() +
                          " has none)");
    }
    sc.deviceTree = fs::weakly_canonical(tree).string();
    sc.memTotalKb = d.At("mem_total_kb").Int(65536, 0x7FFFFFFF);
}

} // namespace

Scenario ParseScenario(const std::string& text, const std::string& path, int64_t clearDelayMs)
{
    nlohmann::json doc;
    try {
        doc = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& e) {
        throw InputError(path + ": not valid JSON: " + e.what());
    }
    JsonField root(doc, path, "");
    root.Object({"name", "device", "timing", "checks", "sessions"});
    Scenario sc;
    sc.name = root.Has("name") ? root.At("name").Text() : "scenario";
    ReadDevice(root.At("device"), path, sc);
    Timing timing;
    if (root.Has("timing")) {
        JsonField f = root.At("timing");
        f.Object({"frame_ms", "clear_delay_ms", "process_ms", "idle_ms"});
        timing.frameMs = static_cast<double>(f.IntOr("frame_ms", 33, 1, 1000));
        timing.clearDelayMs = static_cast<double>(f.IntOr("clear_delay_ms", 1000, 0, 60000));
        timing.processMs = static_cast<double>(f.IntOr("process_ms", 150, 0, 60000));
        timing.idleMs = static_cast<double>(f.IntOr("idle_ms", 500, 0, 3600000));
    }
    if (clearDelayMs >= 0) {
        timing.clearDelayMs = static_cast<double>(clearDelayMs);
    }
    if (root.Has("checks")) {
        sc.checks = ReadChecks(root.At("checks"));
    }
    Builder builder;
    Context cx{builder, timing, std::min<int64_t>(kMaxBytes, sc.memTotalKb * 1024)};
    double t = 0;
    builder.Add(t, kControl, "NewPool");
    JsonField sessions = root.At("sessions");
    if (sessions.Size() == 0) {
        sessions.Fail("at least one session");
    }
    for (size_t i = 0; i < sessions.Size(); ++i) {
        JsonField s = sessions.Item(i);
        s.Object({"name", "repeat", "restart_before", "resolution", "pp_resolution", "algorithms",
                  "pp_states", "allocators", "preview", "captures", "video"});
        const std::string name = s.Has("name") ? s.At("name").Text() : "session" + std::to_string(i + 1);
        const int64_t repeat = s.IntOr("repeat", 1, 1, 1000);
        const bool restart = s.Has("restart_before") && s.At("restart_before").Bool();
        for (int64_t r = 0; r < repeat; ++r) {
            const std::string label = repeat > 1 ? name + "#" + std::to_string(r + 1) : name;
            sc.sessionNames.push_back(label);
            t = OneSession(cx, s, label, t, restart && r == 0 && i > 0);
        }
    }
    builder.Add(t, kControl, "DeletePool");
    sc.calls = builder.Finish();
    return sc;
}

Scenario LoadScenario(const std::string& path, int64_t clearDelayMs)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw InputError(path + ": cannot open the scenario");
    }
    std::ostringstream text;
    text << in.rdbuf();
    return ParseScenario(text.str(), path, clearDelayMs);
}

} // namespace talsim
