// Camera-buffer memory from an anonymous memory file: a real, shareable fd
// that a second mmap (in this or another process) sees with the same bytes.

#include "CameraBufferHost.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

namespace QvCamera {
namespace host {
namespace {

// memfd_create accepts names of at most 249 bytes.
static constexpr size_t kMaxMemfdName = 249;

} // namespace

int MemfdAllocate(uint32_t size, const std::string& name)
{
    std::string label = name.empty() ? "CamBuffer" : name.substr(0, kMaxMemfdName);
    int fd = memfd_create(label.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) {
        return -1;
    }
    // Seal the size so no holder of the fd can shrink it under the mapping.
    if (ftruncate(fd, static_cast<off_t>(size)) != 0 ||
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

} // namespace host
} // namespace QvCamera
