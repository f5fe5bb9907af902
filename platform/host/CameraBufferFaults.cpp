// Fault switch of the host camera-buffer service (see CameraBufferFaults.h).

#include "CameraBufferFaults.h"

#include <atomic>

namespace QvCamera {
namespace host {
namespace {

struct FaultState {
    std::atomic<uint32_t> calls{0};
    std::atomic<uint32_t> failures{0};
    std::atomic<uint32_t> failNth{0}; // 0: disarmed
    std::atomic<bool> failAll{false};
};

// Process-wide by nature: the service it switches is process-wide too.
FaultState gFaults[2];

FaultState& StateOf(CamFaultOp op)
{
    return gFaults[static_cast<uint32_t>(op)];
}

} // namespace

void CamFaultFailNth(CamFaultOp op, uint32_t nth)
{
    FaultState& state = StateOf(op);
    state.calls = 0;
    state.failures = 0;
    state.failNth = nth;
    state.failAll = false;
}

void CamFaultFailAll(CamFaultOp op, bool on)
{
    FaultState& state = StateOf(op);
    state.calls = 0;
    state.failures = 0;
    state.failAll = on;
    state.failNth = 0;
}

void CamFaultReset()
{
    for (FaultState& state : gFaults) {
        state.failAll = false;
        state.failNth = 0;
        state.calls = 0;
        state.failures = 0;
    }
}

uint32_t CamFaultCalls(CamFaultOp op)
{
    return StateOf(op).calls.load();
}

uint32_t CamFaultFailures(CamFaultOp op)
{
    return StateOf(op).failures.load();
}

bool CamFaultShouldFail(CamFaultOp op)
{
    FaultState& state = StateOf(op);
    uint32_t call = state.calls.fetch_add(1) + 1;
    uint32_t nth = state.failNth.load();
    bool fail = state.failAll.load() || (nth != 0 && call == nth);
    if (fail) {
        state.failures.fetch_add(1);
    }
    return fail;
}

} // namespace host
} // namespace QvCamera
