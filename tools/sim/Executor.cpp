// Runs calls through the public entries (see Executor.h).

#include "Executor.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <list>
#include <thread>

#include "Accountant.h"
#include "LooperWatch.h"
#include "CameraBufferInterface.h"
#include "interface/TalMemPoolThread.h"
#include "talmem/TalMemControl.h"
#include "talmem/TalMemPool.h"

namespace talsim {

namespace {

using Clock = std::chrono::steady_clock;

// Longest wait for the library's delayed work or for a destroyed service to
// give its memory back; past it the run goes on.
constexpr auto kSettleLimit = std::chrono::seconds(10);

struct Pending {
    int64_t dueUs;            // in the original timeline
    Clock::time_point deadline; // in real time
};

std::string Decoded(const SimCall& call, const std::string& key)
{
    std::string out;
    DecodeText(call.Arg(key), &out);
    return out;
}

// Null-or-text argument: "~" is a null pointer.
struct TextArg {
    TextArg(const SimCall& call, const std::string& key)
        : isNull(call.Arg(key) == "~"), text(Decoded(call, key))
    {
    }
    const char* get() const { return isNull ? nullptr : text.c_str(); }
    bool isNull;
    std::string text;
};

qv::MallocInfo InfoOf(const SimCall& call)
{
    return qv::MallocInfo{static_cast<uint32_t>(call.Int("w")), static_cast<uint32_t>(call.Int("h")),
                          static_cast<uint32_t>(call.Int("format")),
                          static_cast<uint64_t>(call.Int("usage"))};
}

class Runner {
public:
    Runner(const std::vector<SimCall>& calls, const ExecOptions& options, LogTap& tap,
           RunFigures& figures)
        : mCalls(calls), mOptions(options), mTap(tap), mFigures(figures),
          mAccountant(tap, figures, options.learntPath)
    {
    }

    void Run();

private:
    void Worker(int thread);
    void RunOne(const SimCall& call);
    void Pace(const SimCall& call);
    void Issue(const SimCall& call, CallOutcome& out);
    void IssueMalloc(const SimCall& call, CallOutcome& out);
    void IssueOther(const SimCall& call);
    void IssueControl(const SimCall& call);
    void Check(const SimCall& call, int32_t result);
    void* Addr(const SimCall& call) const;
    void Remember(const SimCall& call, void* addr, CallOutcome& out);
    void WaitForServiceGone();
    void WaitForLooper();
    double NowMs() const;

    const std::vector<SimCall>& mCalls;
    ExecOptions mOptions;
    LogTap& mTap;
    RunFigures& mFigures;
    Accountant mAccountant;
    std::mutex mLock;
    std::condition_variable mTurn;
    size_t mNext = 0;
    Clock::time_point mOrigin;
    std::map<uint64_t, void*> mAddrs;
    std::map<uint64_t, std::shared_ptr<QvCamera::ICameraBuffer>> mBuffers;
    std::vector<Pending> mPending;
    bool mServiceDeleted = false;
    uint64_t mServicesCreated = 0;
};

double Runner::NowMs() const
{
    return std::chrono::duration<double, std::milli>(Clock::now() - mOrigin).count();
}

void Runner::Run()
{
    mOrigin = Clock::now();
    mAccountant.Begin();
    std::map<int, std::thread> workers;
    for (const SimCall& call : mCalls) {
        if (workers.count(call.thread) == 0) {
            workers.emplace(call.thread, std::thread(&Runner::Worker, this, call.thread));
        }
    }
    for (auto& worker : workers) {
        worker.second.join();
    }
    if (mServiceDeleted) {
        WaitForServiceGone();
    }
    mAccountant.Finish(NowMs());
}

void Runner::Worker(int thread)
{
    LogTap::MarkWorker();
    for (;;) {
        std::unique_lock<std::mutex> l(mLock);
        mTurn.wait(l, [&] { return mNext >= mCalls.size() || mCalls[mNext].thread == thread; });
        if (mNext >= mCalls.size()) {
            return;
        }
        const SimCall& call = mCalls[mNext];
        l.unlock();
        RunOne(call);
        l.lock();
        ++mNext;
        if (mOptions.progress && (mNext % 500 == 0 || mNext == mCalls.size())) {
            fprintf(stderr, "\r%zu/%zu calls", mNext, mCalls.size());
            if (mNext == mCalls.size()) {
                fputc('\n', stderr);
            }
        }
        mTurn.notify_all();
    }
}

// Waits for the call's time, and for delayed work that had run before this
// call in the original timeline.
void Runner::Pace(const SimCall& call)
{
    if (mOptions.timeScale > 0) {
        const auto due = mOrigin + std::chrono::microseconds(static_cast<int64_t>(
                                       (call.atUs - mCalls.front().atUs) * mOptions.timeScale));
        std::this_thread::sleep_until(due);
    }
    for (auto it = mPending.begin(); it != mPending.end();) {
        if (call.atUs < it->dueUs) {
            ++it;
            continue;
        }
        // Whatever the load, the delayed work has run and logged all its
        // lines before this call: its pools count where the timeline puts
        // them, never where the looper happened to get the CPU.
        if (qv::TalMemPool::poolThread != nullptr &&
            !WaitForLooperAfter(it->deadline, Clock::now() + kSettleLimit)) {
            fprintf(stderr,
                    "talmem_sim: the library's delayed work was still running %lld s after its "
                    "time (before call %zu); the figures may be off\n",
                    static_cast<long long>(kSettleLimit.count()), static_cast<size_t>(&call - mCalls.data()) + 1);
        }
        mAccountant.DelayedWorkDone(NowMs());
        it = mPending.erase(it);
    }
    if (call.entry == "NewPool" && mServiceDeleted) {
        WaitForServiceGone();
    }
}

// The last DeletePool may return while the looper thread still holds the
// service; a new service must not start beside the old one, and the run's
// log must not close before the old one has logged its last line.
void Runner::WaitForServiceGone()
{
    const auto limit = Clock::now() + kSettleLimit;
    while (mTap.ServicesDestroyed() < mServicesCreated && Clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    mServiceDeleted = false;
}

void Runner::WaitForLooper()
{
    android::sp<qv::TalMemPoolThread> service = qv::TalMemPool::poolThread;
    const auto limit = Clock::now() + kSettleLimit;
    while (service != nullptr && !service->LooperReady() && Clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void Runner::RunOne(const SimCall& call)
{
    Pace(call);
    mAccountant.Before(call, NowMs());
    CallOutcome out;
    out.call = &call;
    LogTap::BeginCall(&out.lines);
    Issue(call, out);
    LogTap::EndCall();
    out.ms = NowMs();
    if (call.entry == "ClearAll" && call.Int("mode") == 1 && qv::TalMemPool::poolThread != nullptr) {
        mPending.push_back(Pending{call.atUs + call.Int("delay") * 1000,
                                   Clock::now() + std::chrono::milliseconds(call.Int("delay"))});
    } else if (call.entry == "PoolUpdate" && call.Int("async") == 1) {
        mPending.push_back(Pending{call.atUs + call.Int("delay") * 1000,
                                   Clock::now() + std::chrono::milliseconds(call.Int("delay"))});
    } else if (call.entry == "DeletePool" && qv::TalMemPool::reference <= 0) {
        mServiceDeleted = true;
    }
    mAccountant.After(out);
}

void Runner::Issue(const SimCall& call, CallOutcome& out)
{
    if (call.entry.compare(0, 6, "Malloc") == 0) {
        IssueMalloc(call, out);
        return;
    }
    IssueOther(call);
}

void Runner::IssueMalloc(const SimCall& call, CallOutcome& out)
{
    out.allocation = true;
    const TextArg name(call, "name");
    const auto start = Clock::now();
    void* addr = nullptr;
    if (call.entry == "Malloc") {
        const TextArg algo(call, "algo");
        uint32_t hint[3] = {0, 0, 0};
        const std::string& hintText = call.Arg("hint");
        const bool hasHint = hintText != "~";
        if (hasHint) {
            hint[0] = static_cast<uint32_t>(std::stoul(hintText));
            const uint32_t word = static_cast<uint32_t>(std::stoul(hintText.substr(hintText.find(',') + 1)));
            hint[1] = word;
            hint[2] = word;
        }
        out.type = static_cast<int>(call.Int("type"));
        out.poolEligible = out.type != 1 && (!hasHint || (hint[0] != 1 && hint[0] != 2));
        addr = qv::TalMemPool::Malloc(static_cast<uint32_t>(call.Int("size")), name.get(),
                                      hasHint ? hint : nullptr, algo.get(), out.type);
    } else if (call.entry == "MallocGeo") {
        const TextArg algo(call, "algo");
        out.type = static_cast<int>(call.Int("type"));
        addr = qv::TalMemPool::Malloc(static_cast<uint32_t>(call.Int("w")),
                                      static_cast<uint32_t>(call.Int("h")),
                                      static_cast<uint32_t>(call.Int("format")),
                                      static_cast<uint64_t>(call.Int("usage")), name.get(), nullptr,
                                      algo.get(), out.type);
    } else {
        std::shared_ptr<QvCamera::ICameraBuffer> buffer =
            qv::TalMemPool::Malloc(InfoOf(call), name.text);
        out.type = 0;
        if (buffer != nullptr) {
            addr = buffer->GetCpuAddr();
            mBuffers[ResultId(call)] = buffer;
            if (!out.lines.directChunkLine) {
                out.lines.path = Path::kPreallocated; // handed out without a new chunk
            }
        }
    }
    out.latencyUs = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    Remember(call, addr, out);
}

// Keeps the address under the call's id, with the size its descriptor reports.
void Runner::Remember(const SimCall& call, void* addr, CallOutcome& out)
{
    out.ok = addr != nullptr;
    if (!out.ok) {
        if (!call.result.empty() && call.result != "null") {
            ++mFigures.resultMismatches;
        }
        return;
    }
    if (call.result.compare(0, 3, "id=") != 0) {
        ++mFigures.resultMismatches;
        return;
    }
    mAddrs[ResultId(call)] = addr;
    android::sp<qv::TalMemPoolThread> service = qv::TalMemPool::poolThread;
    const qva_ibuf* ibuf = service != nullptr ? service->GetIBuf(addr) : nullptr;
    out.size = ibuf != nullptr ? ibuf->getSize(ibuf) : 0;
}

void* Runner::Addr(const SimCall& call) const
{
    auto it = mAddrs.find(static_cast<uint64_t>(call.Int("id")));
    return it == mAddrs.end() ? nullptr : it->second;
}

void Runner::IssueOther(const SimCall& call)
{
    const std::string& e = call.entry;
    if (e == "NewPool") {
        const bool none = qv::TalMemPool::poolThread == nullptr;
        qv::TalMemPool::NewPool();
        mServicesCreated += (none && qv::TalMemPool::poolThread != nullptr) ? 1 : 0;
        WaitForLooper();
    } else if (e == "DeletePool") {
        qv::TalMemPool::DeletePool();
    } else if (e == "Free") {
        void* addr = Addr(call);
        const TextArg name(call, "name");
        qv::TalMemPool::Free(addr, name.get(), nullptr);
        mAddrs.erase(static_cast<uint64_t>(call.Int("id")));
        mBuffers.erase(static_cast<uint64_t>(call.Int("id")));
    } else if (e == "GetIBuf") {
        const qva_ibuf* ibuf = qv::TalMemPool::GetIBuf(Addr(call));
        if ((ibuf != nullptr) != (call.result == "ok") && !call.result.empty()) {
            ++mFigures.resultMismatches;
        }
    } else if (e == "PreAllocPool") {
        qv::TalMemPool::PreAllocPool(InfoOf(call), Decoded(call, "name"),
                                     static_cast<uint32_t>(call.Int("blocks")));
    } else if (e == "ReleasePool") {
        qv::TalMemPool::ReleasePool(InfoOf(call));
    } else if (e == "ClearAll") {
        const int32_t r = qv::TalMemPool::ClearAll(static_cast<int32_t>(call.Int("mode")),
                                                   static_cast<int32_t>(call.Int("delay")));
        if (!call.result.empty() && std::to_string(r) != call.result) {
            ++mFigures.resultMismatches;
        }
    } else if (e == "CameraClose") {
        qv::TalMemPool::CameraClose();
    } else if (e == "OnSos") {
        qv::TalMemPool::OnSos();
    } else if (e == "OnFrame") {
        qv::TalMemPool::OnFrame();
    } else if (e == "OnEos") {
        qv::TalMemPool::OnEos();
    } else {
        IssueControl(call);
    }
}

void Runner::Check(const SimCall& call, int32_t result)
{
    if (!call.result.empty() && std::to_string(result) != call.result) {
        ++mFigures.resultMismatches;
    }
}

std::list<std::string> AlgoList(const SimCall& call)
{
    std::list<std::string> algos;
    const std::string& text = call.Arg("algos");
    size_t start = 0;
    while (text != "-" && start <= text.size()) {
        const size_t comma = text.find(',', start);
        std::string name;
        DecodeText(text.substr(start, comma == std::string::npos ? std::string::npos : comma - start),
                   &name);
        algos.push_back(name);
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
    return algos;
}

qv::TalMemResolution ResolutionOf(const SimCall& call)
{
    qv::TalMemResolution res{0, 0, 0, 0};
    sscanf(call.Arg("res").c_str(), "%ux%u,%ux%u", &res.width, &res.height, &res.ppWidth,
           &res.ppHeight);
    return res;
}

void Runner::IssueControl(const SimCall& call)
{
    const std::string& e = call.entry;
    const int32_t a = static_cast<int32_t>(call.Int(call.Has("pp") ? "pp" : "type"));
    if (e == "UpdatePPState") {
        qv::TalMemPool::UpdatePPState(a, static_cast<int32_t>(call.Int("state")));
    } else if (e == "ClearPPState") {
        qv::TalMemPool::ClearPPState(a);
    } else if (e == "PoolInitTest") {
        const TextArg name(call, "name");
        Check(call, qv::TalMemPool::PoolInitTest(name.get(), static_cast<uint32_t>(call.Int("size"))));
    } else if (e == "PoolUpdate") {
        Check(call, qv::TalMemPool::PoolUpdate(AlgoList(call), ResolutionOf(call),
                                               static_cast<int32_t>(call.Int("async")),
                                               static_cast<int32_t>(call.Int("delay"))));
    } else if (e == "RegisterAllocatorRef" || e == "UnregisterAllocatorRef") {
        const TextArg name(call, "name");
        if (e[0] == 'R') {
            qv::TalMemPool::RegisterAllocatorRef(a, name.get());
        } else {
            qv::TalMemPool::UnregisterAllocatorRef(a, name.get());
        }
    } else if (e == "GetMemDumpInfo") {
        const int32_t r = qv::TalMemPool::GetMemDumpInfo(a);
        if (!call.result.empty() && (r == 0) != (call.result == "0")) {
            ++mFigures.resultMismatches;
        }
    } else if (e == "MemPoolIoctl") {
        int32_t video = static_cast<int32_t>(call.Int("video"));
        const bool nullArg = !call.Has("video") || call.Arg("video") == "~";
        Check(call, qv::TalMemPool::MemPoolIoctl(static_cast<int32_t>(call.Int("cmd")),
                                                 nullArg ? nullptr : &video));
    } else if (e == "MemPoolControl") {
        // Cache commands over a whole allocation; a command that needs a
        // foreign buffer of the device cannot be rebuilt here and is skipped.
        const int32_t cmd = static_cast<int32_t>(call.Int("cmd"));
        if ((cmd == 2 || cmd == 3) && call.Has("id")) {
            const qv::TalCacheRange range{reinterpret_cast<uintptr_t>(Addr(call)),
                                          static_cast<uint32_t>(call.Int("size"))};
            Check(call, qv::TalMemPool::MemPoolControl(cmd, &range, nullptr));
        }
    }
}

} // namespace

void Execute(const std::vector<SimCall>& calls, const ExecOptions& options, LogTap& tap,
             RunFigures& figures)
{
    if (calls.empty()) {
        return;
    }
    Runner runner(calls, options, tap, figures);
    runner.Run();
}

} // namespace talsim
