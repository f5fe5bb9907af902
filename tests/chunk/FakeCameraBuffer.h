#ifndef TALMEM_TESTS_CHUNK_FAKECAMERABUFFER_H
#define TALMEM_TESTS_CHUNK_FAKECAMERABUFFER_H

// A camera buffer with fixed values (its device address encodes the device
// type) that records every cache call ("flush", "flushRange(len,off)", ...).

#include <string>
#include <vector>

#include "CameraBufferInterface.h"
#include "TalTestSupport.h"

namespace talmem_test {

struct FakeCameraBuffer : QvCamera::ICameraBuffer {
    uint32_t size = 8192, offset = 0;
    uintptr_t cpuAddr = 0x10000000;
    uint64_t poolSize = 0;
    std::vector<std::string> calls;

    uint32_t GetSize() const override { return size; }
    uint32_t GetStride() const override { return 640; }
    uint32_t GetSliceHeight() const override { return 480; }
    uint64_t GetUsage() const override { return 0x1400801; }
    uint32_t GetFormat() const override { return 0x101; }
    int32_t GetShareFd() const override { return 77; }
    void* GetCpuAddr() const override { return reinterpret_cast<void*>(cpuAddr); }
    uint64_t GetIova(uint32_t type, uint32_t flags) const override
    {
        return flags == 0 ? 0x100000000ull + type * 0x1000ull : 0;
    }
    uint32_t GetOffset() const override { return offset; }
    uint64_t GetPoolSize() const override { return poolSize; }
    int32_t InvalidateCache() override { return Record("invalidate"); }
    int32_t FlushCache() override { return Record("flush"); }
    int32_t InvalidateCacheRange(uint32_t l, uint32_t o) override { return Record("invalidateRange", l, o); }
    int32_t FlushCacheRange(uint32_t l, uint32_t o) override { return Record("flushRange", l, o); }
    int32_t Record(std::string op, uint32_t l = 0, uint32_t o = 0)
    {
        bool range = op.find("Range") != std::string::npos;
        calls.push_back(range ? op + "(" + std::to_string(l) + "," + std::to_string(o) + ")" : op);
        return 0;
    }
};

// ERROR lines reading `pre`, a decimal number (a source line), then `post`.
inline int CountNumbered(const std::string& pre, const std::string& post)
{
    int n = 0;
    for (const LogLine& line : LogCapture::Lines()) {
        const std::string& m = line.message;
        size_t end = m.find_first_not_of("0123456789", pre.size());
        n += line.priority == ANDROID_LOG_ERROR && m.compare(0, pre.size(), pre) == 0 &&
             end != std::string::npos && end > pre.size() && m.compare(end, std::string::npos, post) == 0;
    }
    return n;
}

} // namespace talmem_test

#endif // TALMEM_TESTS_CHUNK_FAKECAMERABUFFER_H
