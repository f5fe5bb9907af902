#ifndef TALMEM_MONITOR_MEMUTILS_H
#define TALMEM_MONITOR_MEMUTILS_H

// Probes of the device's and the own process's memory. All results are in
// kilobytes (1024 bytes). Any thread may call them; one process-wide mutex
// makes the four public probes mutually exclusive.

#include <sys/types.h>

#include <cstdio>

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

    // The text parsing behind the probes above, on texts that the caller
    // supplies (the probes apply them to the kernel's files). No locks, no logs.

    // MemFree + Cached (KB) of a NUL-terminated meminfo text: lines that begin
    // with "MemFree:" or "Cached:" count, the later of two equal keys wins, and
    // the walk stops after the third matching line. A missing key counts 0.
    static unsigned int parseFreeMemory(const char* text);
    // The first digits of a meminfo first line ("MemTotal: n kB") rounded up
    // to whole GiB in KB; a whole number of GiB still gains one GiB.
    static int parseTotalMemory(const char* firstLine);
    // Reads every line of `fp` into `buffer` (`size` bytes, cleared by the
    // caller) so that it keeps the last line read; returns that text's length.
    static int readLastLine(FILE* fp, char* buffer, int size);
    // The DDR size in KB that the last ddr_info line gives: the one character
    // four places from its end, in GiB. -1 when the line has 3 characters or
    // fewer. Cuts `line` short while converting it.
    static int parseDdrInfoLine(char* line);
    // Sum of the numbers on the lines of `fp` that begin with "Pss:".
    static int sumPssLines(FILE* fp);
};

} // namespace qv

#endif // TALMEM_MONITOR_MEMUTILS_H
