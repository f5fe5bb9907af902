#ifndef TALMEM_TESTS_FAKECAMERABUFFER_H
#define TALMEM_TESTS_FAKECAMERABUFFER_H

// A camera buffer with fixed values, shared by the chunk and descriptor tests,
// and the error lines of the capture with their source line numbers cut out.

#include <regex>
#include <string>
#include <vector>

#include "CameraBufferInterface.h"
#include "TalTestSupport.h"

namespace talmem_test {

using Calls = std::vector<std::string>;

// Its device address encodes the device type; it records every cache call
// ("flush", "flushRange(len,off)", ...).
struct FakeCameraBuffer : QvCamera::ICameraBuffer {
    uint32_t size = 8192, offset = 4096;
    uintptr_t cpuAddr = 0x10000000;
    uint64_t poolSize = 65536;
    Calls calls;

    uint32_t GetSize() const override { return size; }
    uint32_t GetStride() const override { return 640; }
    uint32_t GetSliceHeight() const override { return 480; }
    uint64_t GetUsage() const override { return 0x1400801; }
    uint32_t GetFormat() const override { return 0x101; }
    int32_t GetShareFd() const override { return 77; }
    void* GetCpuAddr() const override { return reinterpret_cast<void*>(cpuAddr); }
    uint64_t GetIova(uint32_t type, uint32_t flags) const override { return flags ? 0 : 0x100000000 + type * 0x1000; }
    uint32_t GetOffset() const override { return offset; }
    uint64_t GetPoolSize() const override { return poolSize; }
    int32_t InvalidateCache() override { return Record("invalidate"); }
    int32_t FlushCache() override { return Record("flush"); }
    int32_t InvalidateCacheRange(uint32_t l, uint32_t o) override { return Record("invalidate" + Range(l, o)); }
    int32_t FlushCacheRange(uint32_t l, uint32_t o) override { return Record("flush" + Range(l, o)); }
    std::string Range(uint32_t l, uint32_t o) { return "Range(" + std::to_string(l) + ',' + std::to_string(o) + ')'; }
    int32_t Record(const std::string& call) { calls.push_back(call); return 0; }
};

// ERROR messages with the source line they carry ("Func(123)", "line = 123") cut out.
inline Calls Errors()
{
    Calls out;
    for (const LogLine& line : LogCapture::Lines()) {
        if (line.priority == ANDROID_LOG_ERROR) {
            out.push_back(std::regex_replace(line.message, std::regex("(\\(|line = )\\d+"), "$1",
                                             std::regex_constants::format_first_only));
        }
    }
    return out;
}

} // namespace talmem_test

#endif // TALMEM_TESTS_FAKECAMERABUFFER_H
