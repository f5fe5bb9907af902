// Host camera buffers: a whole buffer owns its CamMemory; a split buffer is a
// view of its parent's memory at an offset and keeps the parent alive.

#include "CameraBufferInterface.h"

#include "CameraBufferFaults.h"
#include "CameraBufferHost.h"

#include <new>
#include <utility>

namespace QvCamera {
namespace host {
namespace {

struct CamBufferDesc {
    uint32_t offset; // from the start of the whole buffer
    uint32_t size;
    uint32_t stride;
    uint32_t sliceHeight;
    uint32_t format;
    uint64_t usage;
};

class HostCameraBuffer final : public ICameraBuffer {
public:
    HostCameraBuffer(std::shared_ptr<CamMemory> memory, std::shared_ptr<ICameraBuffer> parent,
                     const CamBufferDesc& desc)
        : mMemory(std::move(memory)), mParent(std::move(parent)), mDesc(desc)
    {
    }

    uint32_t GetSize() const override { return mDesc.size; }
    uint32_t GetStride() const override { return mDesc.stride; }
    uint32_t GetSliceHeight() const override { return mDesc.sliceHeight; }
    uint64_t GetUsage() const override { return mDesc.usage; }
    uint32_t GetFormat() const override { return mDesc.format; }
    int32_t GetShareFd() const override { return mMemory->Fd(); }
    void* GetCpuAddr() const override { return mMemory->Addr() + mDesc.offset; }
    uint32_t GetOffset() const override { return mDesc.offset; }
    uint64_t GetPoolSize() const override { return IsSplit() ? mMemory->Size() : 0; }

    uint64_t GetIova(uint32_t devType, uint32_t /*flags*/) const override
    {
        uint64_t base = IovaForDevice(mMemory->IovaStart(), devType);
        return base == 0 ? 0 : base + mDesc.offset;
    }

    int32_t InvalidateCache() override { return mMemory->Sync(false); }
    int32_t FlushCache() override { return mMemory->Sync(true); }
    int32_t InvalidateCacheRange(uint32_t length, uint32_t offset) override
    {
        return SyncRange(length, offset, false);
    }
    int32_t FlushCacheRange(uint32_t length, uint32_t offset) override
    {
        return SyncRange(length, offset, true);
    }

    const std::shared_ptr<CamMemory>& Memory() const { return mMemory; }

private:
    bool IsSplit() const { return mParent != nullptr; }

    // The range is relative to the whole buffer. A DMA-BUF has no ranged
    // sync, so a valid range syncs the whole buffer.
    int32_t SyncRange(uint32_t length, uint32_t offset, bool flush) const
    {
        if (static_cast<uint64_t>(offset) + length > mMemory->Size()) {
            return -1;
        }
        return mMemory->Sync(flush);
    }

    std::shared_ptr<CamMemory> mMemory;
    std::shared_ptr<ICameraBuffer> mParent; // null for a whole buffer
    CamBufferDesc mDesc;
};

} // namespace
} // namespace host

std::shared_ptr<ICameraBuffer> CameraBufferInterface::AllocCamBuffer(uint32_t width,
                                                                     uint32_t height,
                                                                     uint32_t format,
                                                                     uint64_t usage,
                                                                     std::string name)
{
    host::CamLayout layout{};
    if (!host::CamLayoutFor(width, height, format, &layout) ||
        host::CamFaultShouldFail(host::CamFaultOp::kAlloc)) {
        return nullptr;
    }
    try {
        std::shared_ptr<host::CamMemory> memory = host::CamMemory::Create(layout.size, name);
        if (memory == nullptr) {
            return nullptr;
        }
        host::CamBufferDesc desc{0, layout.size, layout.stride, layout.sliceHeight, format, usage};
        return std::make_shared<host::HostCameraBuffer>(std::move(memory), nullptr, desc);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::shared_ptr<ICameraBuffer> CameraBufferInterface::SplitCamBuffer(
    std::shared_ptr<ICameraBuffer> parent, InputBufInfo info, std::string name)
{
    auto* hostParent = dynamic_cast<host::HostCameraBuffer*>(parent.get());
    // The offset is checked on its own first so that offset + size cannot wrap.
    if (hostParent == nullptr || info.size == 0 || info.offset > hostParent->GetSize() ||
        info.offset + info.size > hostParent->GetSize() ||
        host::CamFaultShouldFail(host::CamFaultOp::kSplit)) {
        return nullptr;
    }
    host::CamBufferDesc desc{hostParent->GetOffset() + static_cast<uint32_t>(info.offset),
                             info.size,
                             static_cast<uint32_t>(info.stride),
                             static_cast<uint32_t>(info.sliceHeight),
                             info.format,
                             info.usage};
    try {
        return std::make_shared<host::HostCameraBuffer>(hostParent->Memory(), std::move(parent),
                                                        desc);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

uint64_t CameraBufferInterface::GetHeldBytes()
{
    return host::HeldBytes();
}

} // namespace QvCamera
