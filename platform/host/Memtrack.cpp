// Host memtrack: the graphics memory of the own process is what the
// camera-buffer service holds for it; the host has no gl or other tracker.

#include "memtrack.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <new>

#include "CameraBufferInterface.h"

struct memtrack_proc {
    bool valid = false;
    ssize_t graphics = 0;
};

namespace {

// Test-only fault injection (TalHostSetMemtrackFault); packed in one word so
// that readers on other threads always see a matching step and result.
std::atomic<uint64_t> gFault{0};

bool FaultAt(TalMemtrackStep step, int* result)
{
    uint64_t fault = gFault.load();
    if (static_cast<uint32_t>(fault >> 32) != static_cast<uint32_t>(step)) {
        return false;
    }
    *result = static_cast<int>(static_cast<uint32_t>(fault));
    return true;
}

// Each pss query: -EINVAL for a null or unread handle, else `value`.
ssize_t Pss(const memtrack_proc* p, TalMemtrackStep step, ssize_t value)
{
    int result = 0;
    if (FaultAt(step, &result)) {
        return result;
    }
    if (p == nullptr || !p->valid) {
        return -EINVAL;
    }
    return value;
}

} // namespace

extern "C" struct memtrack_proc* memtrack_proc_new(void)
{
    int unused = 0;
    if (FaultAt(TAL_MEMTRACK_NEW, &unused)) {
        return nullptr;
    }
    return new (std::nothrow) memtrack_proc();
}

extern "C" void memtrack_proc_destroy(struct memtrack_proc* p)
{
    delete p;
}

extern "C" int memtrack_proc_get(struct memtrack_proc* p, pid_t pid)
{
    int result = 0;
    if (FaultAt(TAL_MEMTRACK_GET, &result)) {
        return result;
    }
    if (p == nullptr) {
        return -EINVAL;
    }
    if (pid != getpid()) {
        return -ESRCH;
    }
    uint64_t held = QvCamera::CameraBufferInterface::GetHeldBytes();
    const uint64_t maxPss = static_cast<uint64_t>(std::numeric_limits<ssize_t>::max());
    p->graphics = static_cast<ssize_t>(held < maxPss ? held : maxPss);
    p->valid = true;
    return 0;
}

extern "C" ssize_t memtrack_proc_graphics_pss(struct memtrack_proc* p)
{
    return Pss(p, TAL_MEMTRACK_GRAPHICS, p != nullptr ? p->graphics : 0);
}

extern "C" ssize_t memtrack_proc_gl_pss(struct memtrack_proc* p)
{
    return Pss(p, TAL_MEMTRACK_GL, 0);
}

extern "C" ssize_t memtrack_proc_other_pss(struct memtrack_proc* p)
{
    return Pss(p, TAL_MEMTRACK_OTHER, 0);
}

void TalHostSetMemtrackFault(TalMemtrackStep step, int result)
{
    gFault.store((static_cast<uint64_t>(step) << 32) | static_cast<uint32_t>(result));
}
