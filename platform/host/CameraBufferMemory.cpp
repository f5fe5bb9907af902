// The backing memory of one whole camera buffer and the process-wide count
// of bytes the service holds.

#include "CameraBufferHost.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <new>

namespace QvCamera {
namespace host {
namespace {

std::atomic<uint64_t> gHeldBytes{0};

// A device heap hands out memory that is already backed; MAP_POPULATE gives
// the host the same behaviour (and cost) at allocation time.
uint8_t* MapShared(int fd, uint32_t size)
{
    void* addr = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
    return addr == MAP_FAILED ? nullptr : static_cast<uint8_t*>(addr);
}

int AllocateFd(uint32_t size, const std::string& name, bool* dmaBuf)
{
    int fd = DmaHeapAllocate(size, dmaBuf);
    if (*dmaBuf) {
        return fd;
    }
    return MemfdAllocate(size, name);
}

} // namespace

std::shared_ptr<CamMemory> CamMemory::Create(uint32_t size, const std::string& name)
{
    if (size == 0) {
        return nullptr;
    }
    bool dmaBuf = false;
    int fd = AllocateFd(size, name, &dmaBuf);
    if (fd < 0) {
        return nullptr;
    }
    uint8_t* addr = MapShared(fd, size);
    uint64_t iova = addr != nullptr ? IovaReserve(size) : 0;
    if (iova == 0) {
        if (addr != nullptr) {
            munmap(addr, size);
        }
        close(fd);
        return nullptr;
    }
    std::shared_ptr<CamMemory> memory(new (std::nothrow) CamMemory(fd, addr, size, dmaBuf, iova));
    if (memory == nullptr) {
        // The constructor never ran, so undo by hand what it would own.
        IovaRelease(iova);
        munmap(addr, size);
        close(fd);
        return nullptr;
    }
    return memory;
}

CamMemory::CamMemory(int fd, uint8_t* addr, uint32_t size, bool dmaBuf, uint64_t iovaStart)
    : mFd(fd), mAddr(addr), mSize(size), mDmaBuf(dmaBuf), mIovaStart(iovaStart)
{
    gHeldBytes.fetch_add(size);
}

CamMemory::~CamMemory()
{
    munmap(mAddr, mSize);
    close(mFd);
    IovaRelease(mIovaStart);
    gHeldBytes.fetch_sub(mSize);
}

int32_t CamMemory::Sync(bool flush) const
{
    return mDmaBuf ? DmaBufSync(mFd, flush) : 0;
}

uint64_t HeldBytes()
{
    return gHeldBytes.load();
}

} // namespace host
} // namespace QvCamera
