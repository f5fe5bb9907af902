#ifndef TALMEM_INTERFACE_TALMEMRECORDER_H
#define TALMEM_INTERFACE_TALMEMRECORDER_H

// The call recorder: when the property "persist.vendor.talmem.record" starts
// with '1' at the creation of the service, every public entry call is
// appended to "talmemtrace.txt" in the learnt file's folder, one line per
// call: time, thread, entry, arguments, result. Addresses become allocation
// ids (1, 2, ... in the order the library handed them out; 0 is null, x an
// address the library never handed out), threads become T1, T2, ... in the
// order they first called. Off, each entry pays one relaxed load and branch.
// Recording never changes a result or a log line; a failed write turns it
// off with one WARN line. Any thread may call every function here.

#include <atomic>
#include <cstdint>
#include <list>
#include <string>

#include "talmem/TalMemPool.h"

namespace qv {

class TalMemRecorder {
public:
    static constexpr int kTraceVersion = 1;
    static constexpr const char* kProperty = "persist.vendor.talmem.record";
    static constexpr const char* kTraceName = "talmemtrace.txt";

    static bool On() { return sOn.load(std::memory_order_relaxed); }
    // Reads the property once and opens the trace; called by NewPool when it
    // creates the service. Later calls while recording do nothing.
    static void StartIfAsked();
    // Closes the trace and forgets ids and threads (tools that run the
    // library several times in one process).
    static void Reset();

    // Escaping of one text token: null is "~"; blank, '%', '~', '=', ','
    // and control characters become %XX.
    static std::string Text(const char* text);
    static std::string Text(const std::string& text) { return Text(text.c_str()); }
    // Id of an address the library handed out (0 for null, "x" unknown).
    static std::string IdOf(const void* addr);
    // Registers a newly handed-out address; returns "id=N" or "null".
    static std::string NewId(const void* addr);
    // Forgets an address (after a Free) and returns its id text.
    static std::string DropId(const void* addr);

    // Appends one line: "<us> T<n> <entry> <args> -> <result>".
    static void Write(int64_t startUs, const char* entry, const std::string& args,
                      const std::string& result);
    static int64_t NowUs();

private:
    static std::atomic<bool> sOn;
};

// One entry call being recorded; the line is written by the destructor so
// that every return path of an entry (including the missing-service one)
// leaves its line. `result` starts as the entry's failure value.
class TalRecCall {
public:
    TalRecCall(const char* entry, const char* failResult)
        : mOn(TalMemRecorder::On()), mEntry(entry), mResult(failResult)
    {
        if (mOn) {
            mStartUs = TalMemRecorder::NowUs();
        }
    }
    ~TalRecCall()
    {
        if (mOn) {
            TalMemRecorder::Write(mStartUs, mEntry, mArgs, mResult);
        }
    }
    TalRecCall(const TalRecCall&) = delete;
    TalRecCall& operator=(const TalRecCall&) = delete;

    bool On() const { return mOn; }
    void Arg(const char* key, const std::string& value);
    void Arg(const char* key, int64_t value) { Arg(key, std::to_string(value)); }
    void Hex(const char* key, uint64_t value);
    void Hint(const void* owner);
    void Info(const MallocInfo& info);
    void Result(const std::string& result) { mResult = result; }
    void Result(int64_t result) { mResult = std::to_string(result); }

private:
    bool mOn;
    const char* mEntry;
    std::string mResult;
    std::string mArgs;
    int64_t mStartUs = 0;
};

} // namespace qv

#endif // TALMEM_INTERFACE_TALMEMRECORDER_H
