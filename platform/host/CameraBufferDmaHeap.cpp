// Camera-buffer memory from the system DMA-BUF heap, used when the machine
// has one; cache maintenance then goes through DMA_BUF_IOCTL_SYNC.

#include "CameraBufferHost.h"

#include <fcntl.h>
#include <linux/dma-buf.h>
#include <linux/dma-heap.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

namespace QvCamera {
namespace host {
namespace {

static constexpr const char* kSystemHeap = "/dev/dma_heap/system";

// Opened once for the life of the process; -1 when there is no heap.
int HeapFd()
{
    static const int fd = open(kSystemHeap, O_RDONLY | O_CLOEXEC);
    return fd;
}

} // namespace

int DmaHeapAllocate(uint32_t size, bool* heapPresent)
{
    int heap = HeapFd();
    *heapPresent = heap >= 0;
    if (heap < 0) {
        return -1;
    }
    struct dma_heap_allocation_data data = {};
    data.len = size;
    data.fd_flags = O_RDWR | O_CLOEXEC;
    if (ioctl(heap, DMA_HEAP_IOCTL_ALLOC, &data) != 0) {
        return -1;
    }
    return static_cast<int>(data.fd);
}

int32_t DmaBufSync(int fd, bool flush)
{
    struct dma_buf_sync sync = {};
    sync.flags = (flush ? DMA_BUF_SYNC_END : DMA_BUF_SYNC_START) | DMA_BUF_SYNC_RW;
    int rc;
    do {
        rc = ioctl(fd, DMA_BUF_IOCTL_SYNC, &sync);
    } while (rc != 0 && (errno == EINTR || errno == EAGAIN));
    return rc == 0 ? 0 : -errno;
}

} // namespace host
} // namespace QvCamera
