#ifndef TALMEM_TOOLS_SIM_LOOPERWATCH_H
#define TALMEM_TOOLS_SIM_LOOPERWATCH_H

// Tells when the library's looper thread has handled every message that is
// due: the delayed ClearAll and the async PoolUpdate run there, and the
// simulator must not go on with a later call (nor read the figures) while
// one of them is still running or not yet started.

#include <chrono>

namespace talsim {

// True when a thread of this process sleeps in epoll_wait (read from
// /proc/self/task). The service's looper is the only thread of the simulator
// that polls, and it goes back to the poll only after handling every message
// whose time has come.
bool LooperPolling();

// Waits until `deadline` plus the poll's own rounding has passed and the
// looper is back in its poll, or until `limit`; false when the limit ended it.
bool WaitForLooperAfter(std::chrono::steady_clock::time_point deadline,
                        std::chrono::steady_clock::time_point limit);

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_LOOPERWATCH_H
