// The host camera-buffer service: sizes by format, shared memory through the
// share fd, splits as views, release, device addresses and cache ranges.
#include "TalTestSupport.h"

#include "CameraBufferInterface.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cstring>
#include <thread>
#include <vector>

using QvCamera::CameraBufferInterface;
using QvCamera::ICameraBuffer;
using U64s = std::vector<uint64_t>;

namespace {

constexpr uint32_t kBytes = 257, kYuv420 = 35, kPage = 4096;
using CameraBufferTest = talmem_test::TalTest;

std::shared_ptr<ICameraBuffer> AllocBytes(uint32_t size)
{
    return CameraBufferInterface::AllocCamBuffer(size, 1, kBytes, 0x400801, "test");
}

// A split of `size` bytes at `offset`, filled as the chunk code fills it.
std::shared_ptr<ICameraBuffer> Split(std::shared_ptr<ICameraBuffer> parent, uint64_t offset, uint32_t size)
{
    QvCamera::InputBufInfo info{size, 1, parent ? parent->GetFormat() : 0, 0, parent ? parent->GetUsage() : 0,
                                size, offset, size, 0};
    return CameraBufferInterface::SplitCamBuffer(parent, info, "split");
}

// Size 0 marks a geometry that must be refused.
TEST_F(CameraBufferTest, Alloc_SizesStridesAndSliceHeightsFollowTheFormat)
{
    struct Case { uint32_t width, height, format, stride, slice, size; } cases[] = {
        {4097, 1, kBytes, 4097, 1, 8192},
        {1000, 3, kBytes, 1000, 3, 4096},
        {4000, 3000, kYuv420, 4032, 3008, 18194432},
        {641, 479, 17 /* NV21 */, 704, 480, 507904},
        {100, 10, 1 /* RGBA */, 128, 10, 8192},
        {10, 0, kYuv420, 0, 0, 0},
        {64, 64, 0x7777, 0, 0, 0},
        {65536, 65536, kBytes, 0, 0, 0}, // the product wraps in 32 bits
        {0xFFFFFFFF, 2, kYuv420, 0, 0, 0},
        {0xFFFFF001, 1, kBytes, 0, 0, 0}}; // rounding to pages wraps
    for (const Case& c : cases) {
        auto buf = CameraBufferInterface::AllocCamBuffer(c.width, c.height, c.format, 7, "fmt");
        ASSERT_EQ(buf == nullptr, c.size == 0) << c.width << "x" << c.height << " format " << c.format;
        if (buf != nullptr) {
            EXPECT_EQ(U64s({buf->GetStride(), buf->GetSliceHeight(), buf->GetSize(), buf->GetFormat(), buf->GetUsage(),
                            buf->GetOffset(), buf->GetPoolSize(), (uintptr_t)buf->GetCpuAddr() % kPage}),
                      U64s({c.stride, c.slice, c.size, c.format, 7, 0, 0, 0})) << c.width << "x" << c.height;
        }
    }
}

// A second mapping of the share fd and a split both see the buffer's bytes; a split of a split counts from
// the whole buffer; a split must fit without wrapping; cache ranges are relative to the whole buffer. The last
// owner's release, split or not, unmaps, closes the fd and returns the bytes; a split holds none itself.
TEST_F(CameraBufferTest, ShareFdAndSplits_AreViewsOfOneBufferReleasedByItsLastOwner)
{
    const uint64_t held = CameraBufferInterface::GetHeldBytes();
    auto parent = AllocBytes(4 * kPage);
    auto split = Split(parent, kPage, 2 * kPage);
    ASSERT_TRUE(parent != nullptr && split != nullptr);
    auto* base = static_cast<uint8_t*>(parent->GetCpuAddr());
    EXPECT_TRUE(split->GetShareFd() == parent->GetShareFd() && split->GetCpuAddr() == base + kPage);
    EXPECT_EQ(U64s({split->GetOffset(), split->GetSize(), split->GetPoolSize(), split->GetStride(),
                    split->GetSliceHeight(), split->GetFormat(), split->GetUsage(), split->GetIova(3, 0)}),
              U64s({kPage, 2 * kPage, 4 * kPage, 2 * kPage, 0, kBytes, 0x400801, parent->GetIova(3, 0) + kPage}));
    memset(split->GetCpuAddr(), 0x5C, 2 * kPage);
    const int fd = parent->GetShareFd();
    auto* view = static_cast<uint8_t*>(mmap(nullptr, 4 * kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    ASSERT_NE(view, MAP_FAILED);
    EXPECT_TRUE(view != base && memcmp(view, base, 4 * kPage) == 0) << "because it maps the same pages";
    EXPECT_EQ(U64s({view[kPage - 1], view[kPage], view[3 * kPage - 1], view[3 * kPage]}), U64s({0, 0x5C, 0x5C, 0}));
    view[4 * kPage - 1] = 0xA5;
    EXPECT_EQ(base[4 * kPage - 1], 0xA5);
    EXPECT_EQ(munmap(view, 4 * kPage), 0);
    auto inner = Split(split, 100, 50);
    ASSERT_NE(inner, nullptr);
    EXPECT_TRUE(inner->GetOffset() == kPage + 100 && inner->GetCpuAddr() == base + kPage + 100);
    EXPECT_TRUE(Split(nullptr, 0, kPage) == nullptr && Split(parent, 0, 0) == nullptr);
    EXPECT_TRUE(Split(parent, 3 * kPage, kPage + 1) == nullptr && Split(parent, ~0ull - 100, kPage) == nullptr);
    EXPECT_NE(Split(parent, 3 * kPage, kPage), nullptr) << "because a range ending at the parent's end fits";
    for (const auto& b : {parent, split}) {
        EXPECT_EQ(b->FlushCache() + b->InvalidateCache() + b->FlushCacheRange(kPage, kPage) +
                  b->InvalidateCacheRange(4 * kPage, 0), 0);
        EXPECT_TRUE(b->FlushCacheRange(kPage, 3 * kPage + 1) < 0 && b->InvalidateCacheRange(4 * kPage + 1, 0) < 0 &&
                    b->FlushCacheRange(0xFFFFFFFF, 0xFFFFFFFF) < 0);
    }
    parent.reset();
    split.reset();
    EXPECT_NE(fcntl(fd, F_GETFD), -1) << "because the inner split still keeps the buffer alive";
    EXPECT_EQ(static_cast<uint8_t*>(inner->GetCpuAddr())[0], 0x5C) << "because the memory stays mapped";
    inner.reset();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "because the last owner closed the share fd";
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), held);
}

TEST_F(CameraBufferTest, Iova_PageAlignedUniquePerDeviceAndZeroForUnknownDevices)
{
    std::vector<std::shared_ptr<ICameraBuffer>> bufs;
    for (uint32_t i = 1; i <= 8; ++i) { bufs.push_back(AllocBytes(i * 5000)); }
    for (uint32_t type = 0; type <= 256; type = type < 14 ? type + 1 : 257) { // devices 0 to 14, and 256
        std::vector<std::pair<uint64_t, uint64_t>> seen; // [start, end)
        for (const auto& buf : bufs) {
            const uint64_t iova = buf->GetIova(type, 0), end = iova + buf->GetSize();
            EXPECT_TRUE(iova != 0 && iova % kPage == 0) << type;
            for (const auto& r : seen) {
                EXPECT_TRUE(r.second <= iova || end <= r.first) << "live buffers overlap on device " << type;
            }
            seen.emplace_back(iova, end);
        }
    }
    EXPECT_EQ(bufs[0]->GetIova(15, 0) + bufs[0]->GetIova(255, 0) + bufs[0]->GetIova(257, 0), 0u);
    EXPECT_NE(bufs[0]->GetIova(0, 0), bufs[0]->GetIova(1, 0)) << "because each device has its own window";
}

// Concurrent allocation, splitting and release keep the count of held bytes exact.
TEST_F(CameraBufferTest, Threads_ConcurrentAllocSplitAndFreeKeepTheCountExact)
{
    const uint64_t start = CameraBufferInterface::GetHeldBytes();
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 6; ++t) {
        threads.emplace_back([t] {
            for (uint32_t i = 0; i < 50; ++i) {
                EXPECT_NE(Split(AllocBytes(kPage * (1 + (t * 7 + i) % 9)), 0, kPage), nullptr);
            }
        });
    }
    for (auto& th : threads) { th.join(); }
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), start);
}

} // namespace
