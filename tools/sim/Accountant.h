#ifndef TALMEM_TOOLS_SIM_ACCOUNTANT_H
#define TALMEM_TOOLS_SIM_ACCOUNTANT_H

// Turns each executed call and what it left behind into the run's figures.
// Called by one worker at a time (the executor's turnstile serialises them).

#include <map>
#include <string>

#include "Figures.h"
#include "LogTap.h"
#include "SimCall.h"

namespace talsim {

struct CallOutcome {
    const SimCall* call = nullptr;
    CallLines lines;
    bool allocation = false; // a Malloc entry
    bool ok = false;         // allocation succeeded
    uint64_t size = 0;       // bytes the descriptor reports
    int type = 0;            // allocate type
    bool poolEligible = false; // a request by size that may use a pool
    double latencyUs = 0;
    double ms = 0;           // time since the run started
};

class Accountant {
public:
    Accountant(LogTap& tap, RunFigures& figures, std::string learntPath);

    void Begin();
    // Before a call runs: a PoolUpdate after a close opens the next session,
    // so that the pools it makes count there.
    void Before(const SimCall& call, double ms);
    void After(const CallOutcome& outcome);
    // The library's delayed work (a ClearAll or PoolUpdate on its looper)
    // has finished at its place in the timeline: what it reserved or gave
    // back counts there, in the session open at that place.
    void DelayedWorkDone(double ms);
    void Finish(double ms);

private:
    void CutSession(const SimCall& call, double ms);
    void CloseSession(double ms);
    void Track(const CallOutcome& outcome);
    void Sample(double ms);
    void Slices(const SimCall& call, double ms);
    void AddTo(SessionFigures& s, const CallOutcome& outcome);

    LogTap& mTap;
    RunFigures& mFigures;
    std::string mLearntPath;
    SessionFigures mCurrent;
    bool mStarted = false;
    bool mClosed = false;
    PoolEvents mEventsAtStart;
    struct Live {
        int type;
        uint64_t size;
        int poolId;
    };
    std::map<uint64_t, Live> mLive;
    std::string mPhase = "idle";
    std::map<std::string, double> mOpenSlices;
    std::string mCaptureName;
    TimelineRow mLast;
};

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_ACCOUNTANT_H
