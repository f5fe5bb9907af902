#ifndef TALMEM_MONITOR_MEMUTILS_H
#define TALMEM_MONITOR_MEMUTILS_H

// Probes of the device's and the own process's memory. All results are in
// kilobytes (1024 bytes). Any thread may call them; one process-wide mutex
// makes the four public probes mutually exclusive.

#include <sys/types.h>

namespace qv {

struct graphics_memory_pss {
    unsigned int graphics;
    unsigned int gl;
    unsigned int other;
};

// Reads the graphics, gl and other pss of `pid` from memtrack into `out`
// (KB). 0 on success, otherwise the failing memtrack result or -1.
int read_memtrack_memory_(int pid, graphics_memory_pss* out);

class MemUtils {
public:
    // MemFree + Cached from /proc/meminfo; 0 on failure.
    static unsigned int getFreeMemorySize();
    // Total memory rounded to GiB (DDR size when the kernel reports it); -1 on failure.
    static int getTotalMemory();
    // DDR size from /proc/ddr_info; -1 on failure.
    static int getTotalMemoryFromDDRInfo();
    // graphics + gl + other of the own process; 0 on failure.
    static unsigned int countGraphicMem();
    // graphics total plus the "Pss:" lines of the own process's smaps.
    static int countPss();
};

} // namespace qv

#endif // TALMEM_MONITOR_MEMUTILS_H
