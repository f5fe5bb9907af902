// camera_node: a minimal camera node built against the installed
// libtalmemorypool_zoeis, using nothing but its installed headers.
//
// It starts the pool, takes one buffer by byte size and one by image
// geometry, reads their descriptors, writes to each through its CPU address,
// holds a camera buffer through the shared-pointer Malloc in a pack buffer,
// frees everything and stops the pool. Exit status 0 when every step gave
// what it should, 1 otherwise (the failed step is named on stderr).

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include <talmem/CameraBufferInterface.h>
#include <talmem/TalMemPackBuffer.h>
#include <talmem/TalMemPool.h>
#include <talmem/qva_ibuf.h>

namespace {

constexpr const char* kNode = "ExampleNode";
constexpr const char* kAlgo = "ExampleAlgo";
constexpr uint32_t kFormatYuv420 = 35; // HAL_PIXEL_FORMAT_YCbCr_420_888
constexpr int32_t kCapture = qv::TAL_MEM_ALLOC_CAPTURE;

int gFailures = 0;

bool Check(bool ok, const char* step)
{
    if (!ok) {
        fprintf(stderr, "camera_node: %s failed\n", step);
        ++gFailures;
    }
    return ok;
}

// Reads the descriptor of `addr`, which must cover at least `minSize` bytes
// starting at `addr`, and writes its first and last byte.
void UseBuffer(void* addr, uint32_t minSize, const char* label)
{
    const qva_ibuf* ibuf = qv::TalMemPool::GetIBuf(addr);
    if (!Check(ibuf != nullptr, "GetIBuf of a live buffer")) {
        return;
    }
    const uint32_t size = ibuf->getSize(ibuf);
    Check(ibuf->getAddr(ibuf) == addr, "descriptor address");
    Check(size >= minSize, "descriptor size");
    Check(ibuf->getShareFD(ibuf) >= 0, "descriptor share fd");
    Check(ibuf->getIOVA(ibuf) != 0, "descriptor device address");
    auto* bytes = static_cast<uint8_t*>(addr);
    bytes[0] = 0x5A;
    bytes[size - 1] = 0xA5;
    Check(ibuf->flushCache(ibuf) == 1, "flushCache");
    printf("%-20s %10u bytes  stride %5u  slice height %5u\n", label, size,
           ibuf->getStride(ibuf), ibuf->getSliceHeight(ibuf));
}

void Release(void* addr)
{
    qv::TalMemPool::Free(addr, kNode, nullptr);
    Check(qv::TalMemPool::GetIBuf(addr) == nullptr, "Free (the descriptor is gone)");
}

void UsePackBuffer()
{
    const qv::MallocInfo info{640, 480, kFormatYuv420, 0};
    std::shared_ptr<QvCamera::ICameraBuffer> buffer = qv::TalMemPool::Malloc(info, kNode);
    if (!Check(buffer != nullptr, "Malloc by MallocInfo")) {
        return;
    }
    void* cpu = buffer->GetCpuAddr();
    {
        ZoSit::TalMemPackBuffer pack(buffer);
        Check(pack.GetBuffer() == buffer, "pack buffer GetBuffer");
        Check(qv::TalMemPool::GetIBuf(cpu) != nullptr, "GetIBuf of the packed buffer");
        printf("%-20s %10u bytes  (shared pointer in a pack buffer)\n", "640x480 MallocInfo",
               buffer->GetSize());
    }
    Check(qv::TalMemPool::GetIBuf(cpu) == nullptr, "pack buffer gives the allocation back");
}

} // namespace

int main()
{
    qv::TalMemPool::NewPool();

    const uint32_t bySize = 256 * 1024;
    void* a = qv::TalMemPool::Malloc(bySize, kNode, nullptr, kAlgo, kCapture);
    void* b = qv::TalMemPool::Malloc(1920, 1080, kFormatYuv420, 0, kNode, nullptr, kAlgo,
                                     kCapture);
    if (Check(a != nullptr, "Malloc by size")) {
        UseBuffer(a, bySize, "256 KiB by size");
        Release(a);
    }
    if (Check(b != nullptr, "Malloc by geometry")) {
        UseBuffer(b, 1920 * 1080 * 3 / 2, "1920x1080 YUV420");
        Release(b);
    }
    UsePackBuffer();

    qv::TalMemPool::DeletePool();
    printf("camera_node: %s\n", gFailures == 0 ? "all steps passed" : "FAILED");
    return gFailures == 0 ? 0 : 1;
}
