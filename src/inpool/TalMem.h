#ifndef TALMEM_INPOOL_TALMEM_H
#define TALMEM_INPOOL_TALMEM_H

// Front end of the in-pool allocator for the pool manager. A pool is named by
// its start address (a pool chunk's mapped address); no per-pool object
// exists here. Each operation checks its arguments, forwards to the one
// TalMemImpl and logs failed results uniformly.
//
// Not thread-safe: the caller serialises all calls (the pool manager runs
// under the service's lock). Owner records attached with SetMcInfo are
// opaque here and stay owned by the caller.

#include <cstdint>

namespace qv {

class TalMemImpl;

class TalMem {
public:
    TalMem() = default;
    ~TalMem();
    TalMem(const TalMem&) = delete;
    TalMem& operator=(const TalMem&) = delete;

    // Creates the allocator and reads its fatal-exit property. 0 on success;
    // -5 when the allocator cannot be created; else its initialisation result.
    int TalMemInit();

    // Formats [poolAddr, poolAddr + size) as a pool; 0 or a negative code
    // (-1 null pool, -3 too small, -5 no allocator).
    int Init(uintptr_t poolAddr, uint32_t size);

    // A 4096-aligned address of at least `size` bytes carved from the pool, or 0.
    uintptr_t Alloc(uintptr_t poolAddr, uint32_t size);

    // Returns an address from Alloc to its pool. 0; -1 bad argument; -2 not a
    // pool; -5 no allocator; -100 an address the pool rejects.
    int Free(uintptr_t poolAddr, uintptr_t address);

    // Logs the pool's status table; 0 or a negative code.
    int DumpInfo(uintptr_t poolAddr);

    // Attaches the caller's record (a TalMemChunk* for the pool manager) and
    // owner names to an allocated address. 0 or a negative code.
    int SetMcInfo(uintptr_t address, void* record, const char* algoName, const char* moduleName);

    // The record attached to an allocated address, or null.
    void* GetMcInfo(uintptr_t poolAddr, uintptr_t address);

    // Number of allocations live in the pool; negative on bad arguments.
    int GetUsedNum(uintptr_t poolAddr);

    // Size in bytes of the largest free node of the pool, header included.
    uint32_t GetMaxFreeSize(uintptr_t poolAddr);

    // Logs the first corruption recorded in the pool, if any.
    void CheckFatalAddr(uintptr_t poolAddr);

private:
    enum class Gate { kPass, kNoObject, kBadArgument };
    Gate Check(const char* func, int site, bool argsOk) const;
    template <typename Call>
    int ForwardCode(const char* func, int site, bool argsOk, const uintptr_t* address, Call call);

    TalMemImpl* mMemImpl = nullptr;
};

} // namespace qv

#endif // TALMEM_INPOOL_TALMEM_H
