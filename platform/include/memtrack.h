#ifndef TALMEM_PLATFORM_MEMTRACK_H
#define TALMEM_PLATFORM_MEMTRACK_H

// Android's memory-tracking library: memory a process holds outside its own
// heap. The pss values are in bytes; negative values mean failure.
// Host: graphics memory is the bytes the camera-buffer service holds for this
// process; gl and other are 0.

#include <sys/types.h>

extern "C" {
struct memtrack_proc;

struct memtrack_proc* memtrack_proc_new(void);
void memtrack_proc_destroy(struct memtrack_proc* p);
int memtrack_proc_get(struct memtrack_proc* p, pid_t pid);
ssize_t memtrack_proc_graphics_pss(struct memtrack_proc* p);
ssize_t memtrack_proc_gl_pss(struct memtrack_proc* p);
ssize_t memtrack_proc_other_pss(struct memtrack_proc* p);
}

#endif // TALMEM_PLATFORM_MEMTRACK_H
