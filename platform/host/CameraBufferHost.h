#ifndef TALMEM_PLATFORM_HOST_CAMERABUFFERHOST_H
#define TALMEM_PLATFORM_HOST_CAMERABUFFERHOST_H

// Private pieces of the host camera-buffer service: the backing memory of a
// whole buffer, the two ways to obtain it (DMA-BUF heap, memfd), the layout of
// pixel formats and the simulated device address space.

#include <cstdint>
#include <memory>
#include <string>

namespace QvCamera {
namespace host {

static constexpr uint32_t kPageSize = 4096;

// Stride, slice height and byte size (rounded up to whole pages) of an image.
struct CamLayout {
    uint32_t stride;
    uint32_t sliceHeight;
    uint32_t size;
};

// False for unknown formats, zero geometry, or sizes that do not fit 32 bits.
bool CamLayoutFor(uint32_t width, uint32_t height, uint32_t format, CamLayout* out);

// A share fd of `size` bytes from the system DMA-BUF heap. Returns -1 with
// *heapPresent false when /dev/dma_heap/system cannot be opened, -1 with
// *heapPresent true when the heap refused the allocation.
int DmaHeapAllocate(uint32_t size, bool* heapPresent);
// Cache maintenance of a whole DMA-BUF: a flush ends CPU access, an
// invalidate begins it. 0 or -errno.
int32_t DmaBufSync(int fd, bool flush);

// A sealed-size memfd of `size` bytes named after the buffer; -1 on failure.
int MemfdAllocate(uint32_t size, const std::string& name);

// Simulated device address space, shared by all device types. A reservation
// is page aligned and never overlaps another live one.
uint64_t IovaReserve(uint32_t size); // window offset, 0 when the space is full
void IovaRelease(uint64_t start);
// The device address of a reservation for `devType` (0..14 or 256); 0 for any
// other device type.
uint64_t IovaForDevice(uint64_t start, uint32_t devType);

// Bytes of whole buffers alive in this process.
uint64_t HeldBytes();

// The memory of one whole buffer: a shared, populated mapping of its share fd.
// The last owner unmaps it, closes the fd, gives back the device addresses
// and lowers the held-bytes count.
class CamMemory {
public:
    // DMA-BUF heap when one opens, else memfd. Null on failure.
    static std::shared_ptr<CamMemory> Create(uint32_t size, const std::string& name);
    ~CamMemory();
    CamMemory(const CamMemory&) = delete;
    CamMemory& operator=(const CamMemory&) = delete;

    int Fd() const { return mFd; }
    uint8_t* Addr() const { return mAddr; }
    uint32_t Size() const { return mSize; }
    uint64_t IovaStart() const { return mIovaStart; }
    // Whole-buffer cache maintenance: DMA_BUF_IOCTL_SYNC on a DMA-BUF, nothing
    // on a memfd (coherent memory). 0 or negative.
    int32_t Sync(bool flush) const;

private:
    CamMemory(int fd, uint8_t* addr, uint32_t size, bool dmaBuf, uint64_t iovaStart);

    int mFd;
    uint8_t* mAddr;
    uint32_t mSize;
    bool mDmaBuf;
    uint64_t mIovaStart;
};

} // namespace host
} // namespace QvCamera

#endif // TALMEM_PLATFORM_HOST_CAMERABUFFERHOST_H
