#ifndef TALMEM_PLATFORM_HOST_CAMERABUFFERFAULTS_H
#define TALMEM_PLATFORM_HOST_CAMERABUFFERFAULTS_H

// Host-only test switch of the camera-buffer service: makes chosen buffer
// allocations (AllocCamBuffer) or splits (SplitCamBuffer) fail as a device
// heap does when it runs out, so that tests can walk every failure path of
// the library. The library itself never includes this header; a device build
// has no such switch.
//
// Calls are counted per operation from the last arm or reset. Any thread may
// use the switch; the counters are atomic.

#include <cstdint>

namespace QvCamera {
namespace host {

enum class CamFaultOp : uint32_t { kAlloc = 0, kSplit = 1 };

// The `nth` call of `op` from now on fails (1 is the very next one) and the
// calls after it succeed again; 0 disarms. Replaces a "fail all".
void CamFaultFailNth(CamFaultOp op, uint32_t nth);
// While on, every call of `op` fails. Replaces an "Nth".
void CamFaultFailAll(CamFaultOp op, bool on);
// Disarms both operations and zeroes their counters.
void CamFaultReset();
// Calls of `op` seen since the last arm or reset, and how many of them failed
// on purpose.
uint32_t CamFaultCalls(CamFaultOp op);
uint32_t CamFaultFailures(CamFaultOp op);

// For the service: counts one call of `op` and says whether it must fail.
bool CamFaultShouldFail(CamFaultOp op);

} // namespace host
} // namespace QvCamera

#endif // TALMEM_PLATFORM_HOST_CAMERABUFFERFAULTS_H
