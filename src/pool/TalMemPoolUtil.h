#ifndef TALMEM_POOL_TALMEMPOOLUTIL_H
#define TALMEM_POOL_TALMEMPOOLUTIL_H

// Small helpers shared by the pool manager's source files.

#include <cstdint>

#include "chunk/TalMemChunk.h"

namespace qv {
namespace poolutil {

constexpr uint32_t kPageSize = 4096;

// Key of an address in the pool manager's chunk maps.
inline void* Key(uintptr_t address)
{
    return reinterpret_cast<void*>(address);
}

// CPU address of a chunk (a pool's base address for a pool chunk).
inline uintptr_t AddrOf(TalMemChunk* chunk)
{
    return reinterpret_cast<uintptr_t>(chunk->GetAddr());
}

// Device address of a chunk for the log lines; 0 when it has no descriptor.
inline uint64_t IovaOf(TalMemChunk* chunk)
{
    const qva_ibuf* ibuf = chunk->GetIBuf();
    return (ibuf != nullptr && ibuf->getIOVA != nullptr) ? ibuf->getIOVA(ibuf) : 0;
}

// Rounds up to whole pages in 32 bits (the last page of the range wraps to 0).
inline uint32_t RoundToPage(uint32_t size)
{
    return (size + kPageSize - 1) & ~(kPageSize - 1);
}

// |a - b| of two 32-bit sizes.
inline uint32_t AbsDiff(uint32_t a, uint32_t b)
{
    return a > b ? a - b : b - a;
}

} // namespace poolutil
} // namespace qv

#endif // TALMEM_POOL_TALMEMPOOLUTIL_H
