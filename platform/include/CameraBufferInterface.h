#ifndef TALMEM_PLATFORM_CAMERABUFFERINTERFACE_H
#define TALMEM_PLATFORM_CAMERABUFFERINTERFACE_H

// The camera-buffer service of the platform: allocation and splitting of
// device-visible buffers. On a device this is the vendor's closed library; a
// host build supplies an implementation in platform/host with the same
// declarations.
//
// Host notes:
// - Memory comes from the DMA-BUF heap /dev/dma_heap/system when it opens,
//   otherwise from a memfd; either way it is mapped MAP_SHARED and populated
//   at allocation, and the share fd is a real fd that another mmap (or
//   process) sees with the same bytes.
// - A host has no IOMMU, so device addresses (GetIova) are simulated per
//   device type (0..14 and the default 256; any other type gives 0): page
//   aligned, unique per device type while the buffer lives, a split buffer
//   reporting its whole buffer's address plus its offset.
// - Cache operations sync a DMA-BUF with DMA_BUF_IOCTL_SYNC (a range syncs the
//   whole buffer after its check); memfd memory is coherent, so they only
//   check the range there.
// - Layout by format (stride alignment in pixels, slice-height alignment in
//   rows, bytes per pixel over all planes); the size is
//   stride x sliceHeight x bytes, rounded up to 4096:
//     257 (plain bytes), 0x21 BLOB         1, 1,  1     (size = width x height)
//     17 NV21, 35 YCbCr_420_888,
//     0x22 IMPLEMENTATION_DEFINED, YV12    64, 32, 3/2
//     16 NV16, 20 YUY2                     64, 32, 2
//     1 RGBA, 2 RGBX, 5 BGRA               64, 1,  4
//     3 RGB_888                            64, 1,  3
//     4 RGB_565                            64, 1,  2
//     0x20 RAW16                           16, 1,  2
//     Y8 (0x20203859), Y16 (0x20363159)    64, 1,  1 and 2
//   Other formats, a zero width or height, or a size above 4 GiB - 4 KiB fail.
// - Nothing here logs: failures are reported by value only.

#include <cstdint>
#include <memory>
#include <string>

namespace QvCamera {

// Request record for SplitCamBuffer: fourteen 32-bit words, the 64-bit
// fields 8-byte aligned.
struct InputBufInfo {
    uint32_t size;        // size of the split buffer
    uint32_t planeCount;  // always 1 here
    uint32_t format;      // parent's pixel format
    uint32_t reserved;    // alignment, 0
    uint64_t usage;       // parent's usage flags
    uint64_t planeSize;   // size of the split buffer
    uint64_t offset;      // byte offset inside the parent
    uint64_t stride;      // size of the split buffer
    uint64_t sliceHeight; // 0
};
static_assert(sizeof(InputBufInfo) == 14 * sizeof(uint32_t), "InputBufInfo is 14 words");

// One device-visible buffer. Owned through std::shared_ptr; the memory is
// released (unmapped, share fd closed) when the last owner lets go. A split
// buffer keeps its parent alive. The getters never change after creation, so
// any thread may call them; cache operations may run on any thread.
class ICameraBuffer {
public:
    virtual ~ICameraBuffer() = default;

    virtual uint32_t GetSize() const = 0;        // byte size of this buffer
    virtual uint32_t GetStride() const = 0;      // row stride in pixels (bytes for format 257)
    virtual uint32_t GetSliceHeight() const = 0; // rows per plane, aligned
    virtual uint64_t GetUsage() const = 0;
    virtual uint32_t GetFormat() const = 0;
    virtual int32_t GetShareFd() const = 0;      // owned by the buffer; do not close
    virtual void* GetCpuAddr() const = 0;        // start of this buffer in the process
    virtual uint64_t GetIova(uint32_t devType, uint32_t flags) const = 0; // 0 on failure
    virtual uint32_t GetOffset() const = 0;      // offset inside the base buffer; 0 when whole
    virtual uint64_t GetPoolSize() const = 0;    // size of the base buffer of a split; 0 when whole

    // Cache maintenance; 0 on success, negative on failure. A range is given
    // as a length and a start offset relative to this buffer's base buffer.
    virtual int32_t InvalidateCache() = 0;
    virtual int32_t FlushCache() = 0;
    virtual int32_t InvalidateCacheRange(uint32_t length, uint32_t offset) = 0;
    virtual int32_t FlushCacheRange(uint32_t length, uint32_t offset) = 0;
};

class CameraBufferInterface {
public:
    // Allocates a buffer of the size that the format and geometry need
    // (format 257 is plain bytes: width x height), rounded up to whole pages.
    // Returns an empty pointer on failure. Thread-safe.
    static std::shared_ptr<ICameraBuffer> AllocCamBuffer(uint32_t width, uint32_t height,
                                                         uint32_t format, uint64_t usage,
                                                         std::string name);

    // A view of `parent` at info.offset of info.size bytes, sharing its memory
    // and share fd. Returns an empty pointer when parent is empty or the range
    // does not fit.
    static std::shared_ptr<ICameraBuffer> SplitCamBuffer(std::shared_ptr<ICameraBuffer> parent,
                                                         InputBufInfo info, std::string name);

    // Host diagnostics: bytes of whole buffers this process holds now (split
    // views add nothing). Any thread may call it.
    static uint64_t GetHeldBytes();
};

} // namespace QvCamera

#endif // TALMEM_PLATFORM_CAMERABUFFERINTERFACE_H
