#ifndef TALMEM_TALMEMPOOL_H
#define TALMEM_TALMEMPOOL_H

// Public entry points of the camera memory pool. Every function is static and
// may be called from any thread once NewPool has been called; each is
// serialised inside the library. Call NewPool once per user before anything
// else and DeletePool once per NewPool; do not race DeletePool against other
// calls.

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include <utils/Mutex.h>
#include <utils/StrongPointer.h>

#include "talmem/TalMemControl.h"
#include "talmem/qva_ibuf.h"

#define TALMEM_EXPORT __attribute__((visibility("default")))

namespace qv {

// An allocation request by image geometry.
struct MallocInfo {
    uint32_t width;
    uint32_t height;
    uint32_t format; // pixel format, passed to the camera-buffer service unchanged
    uint64_t usage;  // usage flags, passed unchanged
};

// The stream's resolution, and the one used by the post-processing algorithm
// "casioBeautyPpAlgo".
struct TalMemResolution {
    uint32_t width;
    uint32_t height;
    uint32_t ppWidth;
    uint32_t ppHeight;
};

// Allocate types carried by every request.
enum TalMemAllocateType : int32_t {
    TAL_MEM_ALLOC_CAPTURE = 0,
    TAL_MEM_ALLOC_PREVIEW = 1,
    TAL_MEM_ALLOC_OTHERS = 2,
};

class TalMemPoolThread;

class TALMEM_EXPORT TalMemPool {
public:
    // Reference-counted start of the library; the first call creates the
    // service and its looper thread.
    static void NewPool();
    // Drops one reference; the last one stops the thread and frees every pool.
    static void DeletePool();

    // A buffer of at least `size` bytes (rounded up to 4096). `owner` is an
    // optional allocation hint (see the library's documentation); `name` and
    // `algoName` name the module and the algorithm (null becomes "unknown").
    // Returns the CPU address, null on failure. Release with Free.
    static void* Malloc(uint32_t size, const char* name, const void* owner,
                        const char* algoName, int32_t allocateType);
    // A buffer for an image of the given geometry, always a direct allocation.
    static void* Malloc(uint32_t width, uint32_t height, uint32_t format, uint64_t usage,
                        const char* name, const void* owner, const char* algoName,
                        int32_t allocateType);
    // A buffer for `info`, reusing a free preallocated one when there is one.
    // The caller owns one reference of the returned camera buffer; the pool
    // allocation itself ends with Free of its CPU address.
    static std::shared_ptr<QvCamera::ICameraBuffer> Malloc(const MallocInfo& info,
                                                           std::string name);
    static void Free(void* vaddr, const char* name, const void* owner);
    // The descriptor of an allocation, valid until it is freed; null if unknown.
    static const qva_ibuf* GetIBuf(const void* vaddr);

    static void PreAllocPool(const MallocInfo& info, std::string name, uint32_t blockNum);
    static void ReleasePool(const MallocInfo& info);
    // mode 1: clear all pools after delayMs on the library's thread; other
    // modes clear at once. 0 on success, -1 on failure.
    static int32_t ClearAll(int32_t mode, int32_t delayMs);
    static void CameraClose();
    static void OnSos();
    static void OnFrame();
    static void OnEos();
    static void UpdatePPState(int32_t ppType, int32_t state);
    static void ClearPPState(int32_t ppType);
    static int32_t PoolInitTest(const char* name, uint32_t count);
    static int32_t PoolUpdate(const std::list<std::string>& algos, const TalMemResolution& res,
                              int32_t async, int32_t delayMs);
    static void RegisterAllocatorRef(int32_t ref, const char* name);
    static void UnregisterAllocatorRef(int32_t ref, const char* name);
    static int32_t GetMemDumpInfo(int32_t type);
    // Commands and their inputs: TalMemIoctlCmd and TalMemControlCmd in
    // talmem/TalMemControl.h.
    static int32_t MemPoolIoctl(int32_t cmd, const void* arg);
    static int32_t MemPoolControl(int32_t cmd, const void* in, void* out);

    static android::sp<TalMemPoolThread> poolThread;
    static android::Mutex memPoolLock;
    static int32_t reference;
};

} // namespace qv

#endif // TALMEM_TALMEMPOOL_H
