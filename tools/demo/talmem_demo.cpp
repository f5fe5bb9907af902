// talmem_demo: uses libtalmemorypool_zoeis the way a camera node does.
//
// Starts the pool, asks for buffers by byte size and by image geometry,
// reads every accessor of each buffer descriptor, writes a pattern through
// the CPU address and reads it back through a second mapping of the share
// fd, flushes and invalidates the cache, frees everything and stops the pool.
// A table goes to stdout; the library's log lines go to stderr. Exit status 0
// when every check passed.
//
// Only the public headers and POSIX are used here.

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "talmem/TalMemPool.h"
#include "talmem/qva_ibuf.h"

namespace {

constexpr uint32_t kFormatYuv420 = 35; // YCbCr 4:2:0
constexpr int32_t kAllocCapture = 0;
constexpr const char* kModule = "DemoNode";

struct Request {
    const char* label;
    uint32_t size;   // by size when non-zero
    uint32_t width;  // by geometry otherwise
    uint32_t height;
};

struct Outcome {
    bool pattern = false;
    int32_t flush = 0;
    int32_t invalidate = 0;
};

unsigned long Mask(uint64_t addr)
{
    return static_cast<unsigned long>(addr & 0xFFFFFFu); // never print a whole address
}

uint8_t PatternByte(uint32_t offset, int salt)
{
    return static_cast<uint8_t>((offset * 131u + static_cast<uint32_t>(salt)) >> 3);
}

// Writes through the CPU address, reads through a second mapping of the fd.
bool CheckThroughShareFd(const qva_ibuf* ibuf, int salt)
{
    uint32_t size = ibuf->getSize(ibuf);
    auto* cpu = static_cast<uint8_t*>(ibuf->getAddr(ibuf));
    for (uint32_t i = 0; i < size; i += 509) {
        cpu[i] = PatternByte(i, salt);
    }
    void* second = mmap(nullptr, size, PROT_READ, MAP_SHARED, ibuf->getShareFD(ibuf), 0);
    if (second == MAP_FAILED) {
        fprintf(stderr, "talmem_demo: mmap of fd %d failed: %s\n", ibuf->getShareFD(ibuf),
                strerror(errno));
        return false;
    }
    const auto* view = static_cast<const uint8_t*>(second);
    bool same = true;
    for (uint32_t i = 0; i < size && same; i += 509) {
        same = view[i] == PatternByte(i, salt);
    }
    return munmap(second, size) == 0 && same;
}

void* Allocate(const Request& req)
{
    if (req.size != 0) {
        return qv::TalMemPool::Malloc(req.size, kModule, nullptr, "DemoAlgo", kAllocCapture);
    }
    return qv::TalMemPool::Malloc(req.width, req.height, kFormatYuv420, 0, kModule, nullptr,
                                  "DemoAlgo", kAllocCapture);
}

void PrintHeader()
{
    printf("%-22s %-8s %-8s %10s %4s %8s %6s %10s %4s %-7s %5s %5s\n", "buffer", "addr", "iova",
           "size", "fd", "stride", "slice", "pool size", "id", "pattern", "flush", "inval");
    printf("%s\n", std::string(109, '-').c_str());
}

void PrintRow(const Request& req, const qva_ibuf* ibuf, const Outcome& out)
{
    printf("%-22s %06lx   %06lx   %10" PRIu32 " %4" PRId32 " %8" PRIu32 " %6" PRIu32
           " %10" PRIu32 " %4" PRId32 " %-7s %5" PRId32 " %5" PRId32 "\n",
           req.label, Mask(reinterpret_cast<uintptr_t>(ibuf->getAddr(ibuf))),
           Mask(ibuf->getIOVA(ibuf)), ibuf->getSize(ibuf), ibuf->getShareFD(ibuf),
           ibuf->getStride(ibuf), ibuf->getSliceHeight(ibuf), ibuf->getPoolSize(ibuf),
           ibuf->getBufId(ibuf), out.pattern ? "ok" : "FAILED", out.flush, out.invalidate);
}

} // namespace

int main()
{
    const Request requests[] = {
        {"64 KiB by size", 64 * 1024, 0, 0},
        {"1 MiB + 1 by size", 1024 * 1024 + 1, 0, 0},
        {"4000x3000 YUV420", 0, 4000, 3000},
        {"1920x1080 YUV420", 0, 1920, 1080},
    };
    qv::TalMemPool::NewPool();
    printf("libtalmemorypool_zoeis demo: every request is a direct allocation\n\n");
    PrintHeader();

    int failures = 0;
    std::vector<void*> buffers;
    int salt = 0;
    for (const Request& req : requests) {
        void* addr = Allocate(req);
        const qva_ibuf* ibuf = addr != nullptr ? qv::TalMemPool::GetIBuf(addr) : nullptr;
        if (ibuf == nullptr) {
            printf("%-22s allocation FAILED\n", req.label);
            ++failures;
            continue;
        }
        buffers.push_back(addr);
        Outcome out;
        out.pattern = CheckThroughShareFd(ibuf, ++salt);
        out.flush = ibuf->flushCache(ibuf);
        out.invalidate = ibuf->invalidateCache(ibuf);
        PrintRow(req, ibuf, out);
        failures += (out.pattern && out.flush == 1 && out.invalidate == 1) ? 0 : 1;
    }

    for (void* addr : buffers) {
        qv::TalMemPool::Free(addr, kModule, nullptr);
    }
    qv::TalMemPool::DeletePool();
    printf("\n%zu buffers allocated, checked and freed; %d check(s) failed\n", buffers.size(),
           failures);
    return failures == 0 ? 0 : 1;
}
