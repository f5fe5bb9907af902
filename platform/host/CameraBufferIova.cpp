// Simulated device (IOMMU) addresses. A host has no IOMMU, so each whole
// buffer reserves a page-aligned range of one address window; every device
// type sees that window at its own base, which keeps addresses unique per
// device type while the buffer lives. Ranges are reused after release.

#include "CameraBufferHost.h"

#include <utils/Mutex.h>

#include <map>

namespace QvCamera {
namespace host {
namespace {

static constexpr uint64_t kWindowSize = 1ull << 36;   // 64 GiB of device space
static constexpr uint64_t kWindowFirst = 0x100000;    // never hand out 0
static constexpr uint64_t kGuard = kPageSize;         // gap between neighbours
static constexpr uint32_t kDeviceTypes = 15;          // 0..14
static constexpr uint32_t kDefaultDevice = 256;       // the library's default device

class IovaSpace {
public:
    uint64_t Reserve(uint64_t length)
    {
        android::AutoMutex _l(mLock);
        uint64_t candidate = kWindowFirst;
        for (const auto& range : mLive) {
            if (candidate + length <= range.first) {
                break;
            }
            candidate = range.first + range.second;
        }
        if (candidate + length > kWindowSize) {
            return 0;
        }
        mLive.emplace(candidate, length);
        return candidate;
    }

    void Release(uint64_t start)
    {
        android::AutoMutex _l(mLock);
        mLive.erase(start);
    }

private:
    android::Mutex mLock;
    std::map<uint64_t, uint64_t> mLive; // start -> length, guard included
};

IovaSpace& Space()
{
    static IovaSpace* space = new IovaSpace(); // lives until exit: buffers may outlive statics
    return *space;
}

} // namespace

uint64_t IovaReserve(uint32_t size)
{
    uint64_t length = (static_cast<uint64_t>(size) + kPageSize - 1) / kPageSize * kPageSize;
    return Space().Reserve(length + kGuard);
}

void IovaRelease(uint64_t start)
{
    if (start != 0) {
        Space().Release(start);
    }
}

uint64_t IovaForDevice(uint64_t start, uint32_t devType)
{
    uint64_t index;
    if (devType < kDeviceTypes) {
        index = devType;
    } else if (devType == kDefaultDevice) {
        index = kDeviceTypes;
    } else {
        return 0;
    }
    return (index + 1) * kWindowSize + start;
}

} // namespace host
} // namespace QvCamera
