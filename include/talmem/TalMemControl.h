#ifndef TALMEM_TALMEMCONTROL_H
#define TALMEM_TALMEMCONTROL_H

// Commands of TalMemPool::MemPoolIoctl and TalMemPool::MemPoolControl, and
// the input record of the cache commands. Plain data only: including this
// header adds no symbol.

#include <cstddef>
#include <cstdint>

namespace qv {

// TalMemPool::MemPoolIoctl(cmd, arg). The entry returns 0 whenever the
// library is running, also for a command it rejects (the rejection is logged).
enum TalMemIoctlCmd : int32_t {
    // arg ignored: releases the multi pools that hold no allocation.
    TAL_MEM_IOCTL_RELEASE_MULTI_POOLS = 1,
    // arg ignored: frees the preview buffers kept for reuse that are idle.
    TAL_MEM_IOCTL_PREVIEW_FORCE_FREE = 2,
    // arg: const int32_t* video state, or null (read as 0). Non-zero releases
    // every pool that holds no allocation; 0 does nothing.
    TAL_MEM_IOCTL_VIDEO_STATE = 3,
};

// TalMemPool::MemPoolControl(cmd, in, out). Each returns 0 on success, -1 on
// failure (a null `in`, an address that no live buffer holds, a range that
// runs past its buffer, a buffer already released).
enum TalMemControlCmd : int32_t {
    // in: a QvCamera::ICameraBuffer* from another allocator; out: a qva_ibuf
    // that the library fills with accessors for that buffer. The caller keeps
    // ownership of both.
    TAL_MEM_CTRL_FILL_IBUF = 1,
    // in: const TalCacheRange*; out: not read. Writes CPU caches back to
    // memory before a device reads the range.
    TAL_MEM_CTRL_CACHE_FLUSH = 2,
    // in: const TalCacheRange*; out: not read. Discards CPU cache lines so
    // that the CPU sees what a device wrote into the range.
    TAL_MEM_CTRL_CACHE_INVALIDATE = 3,
};

// Input of TAL_MEM_CTRL_CACHE_FLUSH and TAL_MEM_CTRL_CACHE_INVALIDATE: two
// words, in this order, with no padding between them.
//   address  CPU address of the range's first byte, as returned by
//            TalMemPool::Malloc or inside such a buffer; a process address
//            (32 bits on the 32-bit device, 64 bits on a 64-bit host).
//   size     bytes in the range, not 0; 32 bits everywhere.
// On the device the record is 8 bytes: address at offset 0, size at offset 4.
// The operation covers the whole pages that hold the range, and the range
// must end inside the buffer that holds `address`.
struct TalCacheRange {
    uintptr_t address;
    uint32_t size;
};

static_assert(offsetof(TalCacheRange, size) == sizeof(uintptr_t), "size follows address");
static_assert(sizeof(void*) != 4 || sizeof(TalCacheRange) == 8, "two 32-bit words on the device");

} // namespace qv

#endif // TALMEM_TALMEMCONTROL_H
