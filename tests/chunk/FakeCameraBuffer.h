#ifndef TALMEM_TESTS_CHUNK_FAKECAMERABUFFER_H
#define TALMEM_TESTS_CHUNK_FAKECAMERABUFFER_H

// A camera buffer that reports fixed values and records every cache call, so
// tests can see which operation (whole or range, with which length and
// offset) the code under test chose.

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "CameraBufferInterface.h"
#include "TalTestSupport.h"

namespace talmem_test {

struct CacheCall {
    std::string op; // "flush", "invalidate", "flushRange", "invalidateRange"
    uint32_t length;
    uint32_t offset;
    bool operator==(const CacheCall& o) const
    {
        return op == o.op && length == o.length && offset == o.offset;
    }
};

inline std::ostream& operator<<(std::ostream& os, const CacheCall& c)
{
    return os << c.op << "(" << c.length << ", " << c.offset << ")";
}

class FakeCameraBuffer : public QvCamera::ICameraBuffer {
public:
    uint32_t size = 8192;
    uint32_t stride = 640;
    uint32_t sliceHeight = 480;
    uint64_t usage = 0x1400801;
    uint32_t format = 0x101;
    int32_t fd = 77;
    uintptr_t cpuAddr = 0x10000000;
    uint32_t offset = 0;
    uint64_t poolSize = 0;
    mutable std::vector<uint32_t> iovaTypes; // device types asked for
    std::vector<CacheCall> calls;

    uint32_t GetSize() const override { return size; }
    uint32_t GetStride() const override { return stride; }
    uint32_t GetSliceHeight() const override { return sliceHeight; }
    uint64_t GetUsage() const override { return usage; }
    uint32_t GetFormat() const override { return format; }
    int32_t GetShareFd() const override { return fd; }
    void* GetCpuAddr() const override { return reinterpret_cast<void*>(cpuAddr); }
    uint64_t GetIova(uint32_t devType, uint32_t flags) const override
    {
        iovaTypes.push_back(devType);
        return flags == 0 ? 0x100000000ull + devType * 0x1000ull : 0;
    }
    uint32_t GetOffset() const override { return offset; }
    uint64_t GetPoolSize() const override { return poolSize; }
    int32_t InvalidateCache() override { return Record("invalidate", 0, 0); }
    int32_t FlushCache() override { return Record("flush", 0, 0); }
    int32_t InvalidateCacheRange(uint32_t l, uint32_t o) override
    {
        return Record("invalidateRange", l, o);
    }
    int32_t FlushCacheRange(uint32_t l, uint32_t o) override { return Record("flushRange", l, o); }

private:
    int32_t Record(const char* op, uint32_t l, uint32_t o)
    {
        calls.push_back({op, l, o});
        return 0;
    }
};

// ERROR lines whose message is `prefix`, a decimal number, then `suffix`:
// the form of messages that carry their own source line.
inline int CountErrorsWithNumber(const std::string& prefix, const std::string& suffix)
{
    int n = 0;
    for (const LogLine& line : LogCapture::Lines()) {
        const std::string& m = line.message;
        if (line.priority != ANDROID_LOG_ERROR || m.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        size_t digitsEnd = m.find_first_not_of("0123456789", prefix.size());
        if (digitsEnd != std::string::npos && digitsEnd > prefix.size() &&
            m.compare(digitsEnd, std::string::npos, suffix) == 0) {
            ++n;
        }
    }
    return n;
}

// "<func>(<line>): <rest>", the form of the accessor checks.
inline int CountFuncLineErrors(const std::string& func, const std::string& rest)
{
    return CountErrorsWithNumber(func + "(", "): " + rest);
}

inline int CountCheckValid(const std::string& func)
{
    return CountFuncLineErrors(func, "CHECK_VALID error\n");
}

} // namespace talmem_test

#endif // TALMEM_TESTS_CHUNK_FAKECAMERABUFFER_H
