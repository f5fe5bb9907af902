#ifndef TALMEM_PLATFORM_MEMTRACK_H
#define TALMEM_PLATFORM_MEMTRACK_H

// Android's memory-tracking library: memory a process holds outside its own
// heap. The pss values are in bytes; negative values mean failure.
// Host: graphics memory is the bytes the camera-buffer service holds for this
// process (a snapshot taken by memtrack_proc_get); gl and other are 0. Only
// the own pid can be read: any other pid makes memtrack_proc_get fail with
// -ESRCH. A null memtrack_proc gives -EINVAL everywhere.

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

// Host only, for tests: makes one memtrack step fail with `result` until
// cleared with TAL_MEMTRACK_OK. TAL_MEMTRACK_NEW makes memtrack_proc_new
// return null (result unused); the others make that call return `result`.
enum TalMemtrackStep {
    TAL_MEMTRACK_OK = 0,
    TAL_MEMTRACK_NEW,
    TAL_MEMTRACK_GET,
    TAL_MEMTRACK_GRAPHICS,
    TAL_MEMTRACK_GL,
    TAL_MEMTRACK_OTHER,
};
void TalHostSetMemtrackFault(TalMemtrackStep step, int result);

#endif // TALMEM_PLATFORM_MEMTRACK_H
