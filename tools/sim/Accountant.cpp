// Figures of a run from the executed calls (see Accountant.h).

#include "Accountant.h"

#include <algorithm>
#include <cmath>

#include "CameraBufferInterface.h"
#include "talmem/TalMemPool.h"

namespace talsim {

namespace {

int PathIndex(Path path)
{
    return static_cast<int>(path);
}

PoolEvents Minus(const PoolEvents& a, const PoolEvents& b)
{
    return PoolEvents{a.created - b.created, a.resized - b.resized, a.released - b.released,
                      a.shortages - b.shortages};
}

} // namespace

double LatencySet::Median() const
{
    if (us.empty()) {
        return 0;
    }
    std::vector<double> sorted = us;
    std::sort(sorted.begin(), sorted.end());
    return sorted[(sorted.size() - 1) / 2];
}

double LatencySet::P99() const
{
    if (us.empty()) {
        return 0;
    }
    std::vector<double> sorted = us;
    std::sort(sorted.begin(), sorted.end());
    // Nearest rank: the smallest value with at least 99% of the samples at or below it.
    const size_t rank = static_cast<size_t>(std::ceil(0.99 * sorted.size()));
    return sorted[std::max<size_t>(rank, 1) - 1];
}

Accountant::Accountant(LogTap& tap, RunFigures& figures, std::string learntPath)
    : mTap(tap), mFigures(figures), mLearntPath(std::move(learntPath))
{
}

void Accountant::Begin()
{
    mFigures.learntBefore = ReadLearnt(mLearntPath);
    mCurrent = SessionFigures();
    mCurrent.index = 1;
    mEventsAtStart = mTap.Events();
}

void Accountant::Before(const SimCall& call, double ms)
{
    if (call.entry == "PoolUpdate" && mClosed) {
        CutSession(call, ms);
    }
}

void Accountant::After(const CallOutcome& outcome)
{
    const SimCall& call = *outcome.call;
    if (!mStarted) {
        mStarted = true;
        mCurrent.startMs = outcome.ms;
    }
    if (call.entry == "CameraClose") {
        mClosed = true;
    }
    if (call.entry == "DeletePool" && qv::TalMemPool::reference <= 0) {
        mTap.ServiceGone();
        mLive.clear(); // the service took every allocation with it
    }
    Track(outcome);
    Slices(call, outcome.ms);
    if (outcome.allocation) {
        AddTo(mCurrent, outcome);
        AddTo(mFigures.total, outcome);
        if (!outcome.ok) {
            ++mFigures.failedMallocs;
        }
    }
    Sample(outcome.ms);
}

void Accountant::DelayedWorkDone(double ms)
{
    Sample(ms);
}

void Accountant::AddTo(SessionFigures& s, const CallOutcome& outcome)
{
    const int type = std::min(std::max(outcome.type, 0), kTypes - 1);
    const int path = PathIndex(outcome.ok ? outcome.lines.path : Path::kNone);
    ++s.requests[type][path];
    s.requestBytes[type][path] += outcome.size;
    s.latency[path].us.push_back(outcome.latencyUs);
    if (outcome.ok && type == 0 && outcome.lines.path == Path::kDirect) {
        if (outcome.poolEligible) {
            ++s.captureFallbacks;
            s.captureFallbackBytes += outcome.size;
        } else {
            ++s.captureDirectByRule;
        }
    }
}

void Accountant::Track(const CallOutcome& outcome)
{
    const SimCall& call = *outcome.call;
    if (outcome.allocation && outcome.ok) {
        mLive[ResultId(call)] = Live{outcome.type, outcome.size,
                                     outcome.lines.path == Path::kPool ? outcome.lines.poolId : 0};
    } else if (call.entry == "Free") {
        mLive.erase(static_cast<uint64_t>(call.Int("id")));
    }
    if (call.entry == "OnSos") {
        mPhase = "sos";
    } else if (call.entry == "OnFrame") {
        mPhase = "frame";
    } else if (call.entry == "OnEos") {
        mPhase = "eos";
    } else if (call.entry == "CameraClose") {
        mPhase = "closed";
    } else if (call.entry == "PoolUpdate") {
        mPhase = "open";
    }
}

void Accountant::Sample(double ms)
{
    TimelineRow row;
    row.ms = ms;
    row.reserved = QvCamera::CameraBufferInterface::GetHeldBytes();
    uint64_t poolBytes = 0;
    for (const auto& pool : mTap.Pools()) {
        row.pools[pool.first].first = pool.second;
        poolBytes += pool.second;
    }
    uint64_t liveTotal = 0;
    for (const auto& entry : mLive) {
        row.live[entry.second.type] += entry.second.size;
        liveTotal += entry.second.size;
        if (entry.second.poolId != 0) {
            row.pools[entry.second.poolId].second += entry.second.size;
        }
    }
    row.direct = row.reserved > poolBytes ? row.reserved - poolBytes : 0;
    row.phase = mPhase;
    for (SessionFigures* s : {&mCurrent, &mFigures.total}) {
        for (int t = 0; t < kTypes; ++t) {
            s->peakLive[t] = std::max(s->peakLive[t], row.live[t]);
        }
        if (liveTotal > s->peakLiveTotal) {
            s->peakLiveTotal = liveTotal;
            s->reservedAtLivePeak = row.reserved;
        }
        s->peakReserved = std::max(s->peakReserved, row.reserved);
    }
    const bool same = !mFigures.timeline.empty() && row.reserved == mLast.reserved &&
                      row.pools == mLast.pools && row.phase == mLast.phase &&
                      std::equal(row.live, row.live + kTypes, mLast.live);
    if (!same) {
        mFigures.timeline.push_back(row);
        mLast = row;
    }
}

void Accountant::Slices(const SimCall& call, double ms)
{
    auto open = [&](const std::string& key) { mOpenSlices[key] = ms; };
    auto close = [&](const std::string& key, const std::string& track) {
        auto it = mOpenSlices.find(key);
        if (it != mOpenSlices.end()) {
            mFigures.slices.push_back(Slice{key, track, it->second, ms});
            mOpenSlices.erase(it);
        }
    };
    if (call.entry == "OnSos") {
        mCaptureName = call.mark.compare(0, 8, "capture:") == 0 ? call.mark.substr(8) : "capture";
        open(mCaptureName);
    } else if (call.entry == "OnEos") {
        close(mCaptureName, "captures");
    }
    if (call.mark.compare(0, 8, "session:") == 0) {
        mCurrent.label = call.mark.substr(8);
    } else if (call.mark.compare(0, 13, "stream-begin:") == 0) {
        open(call.mark.substr(13));
    } else if (call.mark.compare(0, 11, "stream-end:") == 0) {
        close(call.mark.substr(11), "streams");
    }
}

void Accountant::CutSession(const SimCall& call, double ms)
{
    CloseSession(ms);
    const int next = mCurrent.index + 1;
    mCurrent = SessionFigures();
    mCurrent.index = next;
    mCurrent.startMs = ms;
    mClosed = false;
    mEventsAtStart = mTap.Events();
    // Peaks start from what is live now (preview buffers kept across sessions).
    Sample(ms);
}

void Accountant::CloseSession(double ms)
{
    mCurrent.endMs = ms;
    mCurrent.pools = Minus(mTap.Events(), mEventsAtStart);
    mCurrent.learntAfter = ReadLearnt(mLearntPath);
    mFigures.slices.push_back(Slice{"session " + std::to_string(mCurrent.index), "sessions",
                                    mCurrent.startMs, ms});
    mFigures.sessions.push_back(mCurrent);
}

void Accountant::Finish(double ms)
{
    CloseSession(ms);
    mFigures.total.index = 0;
    mFigures.total.startMs = 0;
    mFigures.total.endMs = ms;
    mFigures.total.pools = mTap.Events();
    mFigures.learntAfter = ReadLearnt(mLearntPath);
    mFigures.total.learntAfter = mFigures.learntAfter;
    mFigures.errorLines = mTap.ErrorLines();
}

} // namespace talsim
