#include "TalTestSupport.h"

#include "CameraBufferInterface.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

using QvCamera::CameraBufferInterface;
using QvCamera::ICameraBuffer;
using QvCamera::InputBufInfo;

namespace {

constexpr uint32_t kBytes = 257;
constexpr uint32_t kYuv420 = 35;
using CameraBufferTest = talmem_test::TalTest;

std::shared_ptr<ICameraBuffer> AllocBytes(uint32_t size)
{
    return CameraBufferInterface::AllocCamBuffer(size, 1, kBytes, 0x400801, "test");
}

// A split of `size` bytes at `offset`, filled as the chunk code fills it.
std::shared_ptr<ICameraBuffer> Split(std::shared_ptr<ICameraBuffer> parent, uint64_t offset, uint32_t size)
{
    InputBufInfo info{size, 1, parent ? parent->GetFormat() : 0, 0, parent ? parent->GetUsage() : 0,
                      size, offset, size, 0};
    return CameraBufferInterface::SplitCamBuffer(parent, info, "split");
}

// Size 0 marks a geometry that must be refused.
TEST_F(CameraBufferTest, Alloc_SizesStridesAndSliceHeightsFollowTheFormat)
{
    struct Case { uint32_t width, height, format, stride, slice, size; } cases[] = {
        {1, 1, kBytes, 1, 1, 4096},          {4097, 1, kBytes, 4097, 1, 8192},
        {1000, 3, kBytes, 1000, 3, 4096},    {1920, 1080, kYuv420, 1920, 1088, 3133440},
        {4000, 3000, kYuv420, 4032, 3008, 18194432}, {641, 479, 17 /* NV21 */, 704, 480, 507904},
        {100, 10, 1 /* RGBA */, 128, 10, 8192},
        {0, 10, kBytes, 0, 0, 0},            {10, 0, kYuv420, 0, 0, 0},
        {64, 64, 0x7777, 0, 0, 0},           {65536, 65536, kBytes, 0, 0, 0} /* wraps in 32 bits */,
        {0xFFFFFFFF, 2, kYuv420, 0, 0, 0},   {0xFFFFF001, 1, kBytes, 0, 0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " fmt " << c.format);
        auto buf = CameraBufferInterface::AllocCamBuffer(c.width, c.height, c.format, 7, "fmt");
        if (c.size == 0) {
            EXPECT_EQ(buf, nullptr);
            continue;
        }
        ASSERT_NE(buf, nullptr);
        EXPECT_EQ(std::vector<uint64_t>({buf->GetStride(), buf->GetSliceHeight(), buf->GetSize(), buf->GetFormat(),
                                         buf->GetUsage(), buf->GetOffset(), buf->GetPoolSize()}),
                  std::vector<uint64_t>({c.stride, c.slice, c.size, c.format, 7, 0, 0}));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buf->GetCpuAddr()) % 4096, 0u);
    }
}

TEST_F(CameraBufferTest, ShareFd_SecondMappingSeesTheSameBytesBothWays)
{
    const uint32_t size = 1u << 20;
    auto buf = AllocBytes(size);
    ASSERT_NE(buf, nullptr);
    auto* cpu = static_cast<uint8_t*>(buf->GetCpuAddr());
    for (uint32_t i = 0; i < size; i += 997) {
        cpu[i] = static_cast<uint8_t>(i * 31 + 5);
    }
    auto* view = static_cast<uint8_t*>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, buf->GetShareFd(), 0));
    ASSERT_NE(view, MAP_FAILED);
    EXPECT_NE(view, cpu) << "because it is a second, independent mapping";
    for (uint32_t i = 0; i < size; i += 997) {
        ASSERT_EQ(view[i], static_cast<uint8_t>(i * 31 + 5)) << "at " << i;
    }
    view[size - 1] = 0xA5;
    EXPECT_EQ(cpu[size - 1], 0xA5);
    EXPECT_EQ(munmap(view, size), 0);
}

TEST_F(CameraBufferTest, Split_IsAViewOfItsParentAndMustFitInIt)
{
    auto parent = AllocBytes(4 * 4096);
    auto split = Split(parent, 4096, 8192);
    ASSERT_TRUE(parent != nullptr && split != nullptr);
    auto* base = static_cast<uint8_t*>(parent->GetCpuAddr());
    EXPECT_TRUE(split->GetShareFd() == parent->GetShareFd() && split->GetCpuAddr() == base + 4096);
    EXPECT_EQ(std::vector<uint64_t>({split->GetOffset(), split->GetSize(), split->GetPoolSize(), split->GetStride(),
                                     split->GetSliceHeight(), split->GetFormat(), split->GetUsage()}),
              std::vector<uint64_t>({4096, 8192, 4 * 4096, 8192, 0, kBytes, 0x400801}));
    memset(split->GetCpuAddr(), 0x5C, 8192);
    EXPECT_EQ(std::vector<int>({base[4095], base[4096], base[4096 + 8191], base[3 * 4096]}),
              std::vector<int>({0, 0x5C, 0x5C, 0})) << "because writes through the split land in the parent";
    EXPECT_EQ(split->GetIova(256, 0), parent->GetIova(256, 0) + 4096);
    EXPECT_EQ(split->GetIova(3, 0), parent->GetIova(3, 0) + 4096);
    auto inner = Split(split, 100, 50);
    ASSERT_NE(inner, nullptr);
    EXPECT_TRUE(inner->GetOffset() == 4196 && inner->GetCpuAddr() == base + 4196 && inner->GetPoolSize() == 4 * 4096)
        << "because a split of a split counts from the whole buffer";

    EXPECT_TRUE(Split(nullptr, 0, 4096) == nullptr && Split(parent, 0, 0) == nullptr);
    EXPECT_EQ(Split(parent, 12288, 4097), nullptr);
    EXPECT_EQ(Split(parent, ~0ull - 100, 4096), nullptr) << "because offset + size may not wrap";
    EXPECT_NE(Split(parent, 12288, 4096), nullptr) << "because a range ending at the parent's end fits";
}

TEST_F(CameraBufferTest, Release_LastOwnerClosesFdAndHeldBytesReturn)
{
    const uint64_t start = CameraBufferInterface::GetHeldBytes();
    auto buf = AllocBytes(3 * 4096);
    ASSERT_NE(buf, nullptr);
    const int fd = buf->GetShareFd();
    auto split = Split(buf, 4096, 4096);
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), start + 3 * 4096) << "because a split holds nothing itself";
    buf.reset();
    EXPECT_NE(fcntl(fd, F_GETFD), -1) << "because the split still keeps its parent alive";
    EXPECT_EQ(static_cast<uint8_t*>(split->GetCpuAddr())[0], 0) << "memory still mapped";
    split.reset();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "because the last owner closed the share fd";
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), start);
}

TEST_F(CameraBufferTest, Iova_PageAlignedUniquePerDeviceAndZeroForUnknownDevices)
{
    std::vector<std::shared_ptr<ICameraBuffer>> bufs;
    for (uint32_t i = 1; i <= 8; ++i) {
        bufs.push_back(AllocBytes(i * 5000));
        ASSERT_NE(bufs.back(), nullptr);
    }
    for (uint32_t dev = 0; dev <= 15; ++dev) {
        uint32_t type = dev < 15 ? dev : 256;
        SCOPED_TRACE(type);
        std::vector<std::pair<uint64_t, uint64_t>> seen; // [start, end)
        for (const auto& buf : bufs) {
            uint64_t iova = buf->GetIova(type, 0);
            EXPECT_TRUE(iova != 0 && iova % 4096 == 0);
            for (const auto& range : seen) {
                EXPECT_TRUE(range.second <= iova || iova + buf->GetSize() <= range.first) << "live buffers overlap";
            }
            seen.emplace_back(iova, iova + buf->GetSize());
        }
    }
    EXPECT_EQ(bufs[0]->GetIova(15, 0) + bufs[0]->GetIova(255, 0) + bufs[0]->GetIova(257, 0), 0u);
    EXPECT_NE(bufs[0]->GetIova(0, 0), bufs[0]->GetIova(1, 0)) << "because each device has its own window";
}

TEST_F(CameraBufferTest, Cache_WholeAndRangeOperationsCheckTheRange)
{
    auto parent = AllocBytes(4 * 4096);
    auto split = Split(parent, 4096, 4096);
    for (ICameraBuffer* buf : {parent.get(), split.get()}) {
        EXPECT_EQ(buf->FlushCache() + buf->InvalidateCache(), 0);
        EXPECT_EQ(buf->FlushCacheRange(4096, 4096) + buf->InvalidateCacheRange(4 * 4096, 0), 0)
            << "because ranges are relative to the whole buffer";
        EXPECT_LT(buf->FlushCacheRange(4096, 3 * 4096 + 1), 0);
        EXPECT_LT(buf->InvalidateCacheRange(4 * 4096 + 1, 0), 0);
        EXPECT_LT(buf->FlushCacheRange(0xFFFFFFFF, 0xFFFFFFFF), 0) << "no 32-bit wrap";
    }
}

TEST_F(CameraBufferTest, Threads_ConcurrentAllocSplitAndFreeKeepTheCountExact)
{
    const uint64_t start = CameraBufferInterface::GetHeldBytes();
    std::atomic<int> failures{0};
    auto worker = [&failures](int seed) {
        for (int i = 0; i < 50; ++i) {
            auto buf = AllocBytes(4096u * static_cast<uint32_t>(1 + (seed * 7 + i) % 9));
            auto split = buf ? Split(buf, 0, 4096) : nullptr;
            if (split != nullptr) {
                static_cast<uint8_t*>(buf->GetCpuAddr())[0] = static_cast<uint8_t>(seed);
            }
            failures += split == nullptr || static_cast<uint8_t*>(split->GetCpuAddr())[0] != seed;
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back(worker, t);
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), start);
}

} // namespace
