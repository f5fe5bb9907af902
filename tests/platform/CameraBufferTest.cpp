#include "TalTestSupport.h"

#include "CameraBufferInterface.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

using QvCamera::CameraBufferInterface;
using QvCamera::ICameraBuffer;
using QvCamera::InputBufInfo;

namespace {

constexpr uint32_t kBytes = 257;
constexpr uint32_t kNv21 = 17;
constexpr uint32_t kYuv420 = 35;
constexpr uint32_t kDefaultDevice = 256;

class CameraBufferTest : public talmem_test::TalTest {};

std::shared_ptr<ICameraBuffer> AllocBytes(uint32_t size, const char* name = "test")
{
    return CameraBufferInterface::AllocCamBuffer(size, 1, kBytes, 0x400801, name);
}

InputBufInfo SplitInfo(const ICameraBuffer& parent, uint32_t offset, uint32_t size)
{
    InputBufInfo info{};
    info.size = size;
    info.planeCount = 1;
    info.format = parent.GetFormat();
    info.usage = parent.GetUsage();
    info.planeSize = size;
    info.offset = offset;
    info.stride = size;
    info.sliceHeight = 0;
    return info;
}

bool FdIsOpen(int fd)
{
    errno = 0;
    return fcntl(fd, F_GETFD) != -1 || errno != EBADF;
}

TEST_F(CameraBufferTest, Alloc_SizesStridesAndSliceHeightsFollowTheFormat)
{
    struct Case {
        uint32_t width, height, format;
        uint32_t stride, slice, size;
    };
    const Case cases[] = {
        {1, 1, kBytes, 1, 1, 4096},
        {4096, 1, kBytes, 4096, 1, 4096},
        {4097, 1, kBytes, 4097, 1, 8192},
        {1000, 3, kBytes, 1000, 3, 4096},
        {1920, 1080, kYuv420, 1920, 1088, 3133440},
        {4000, 3000, kYuv420, 4032, 3008, 18194432},
        {641, 479, kNv21, 704, 480, 507904},
        {100, 10, 1 /* RGBA_8888 */, 128, 10, 8192},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " fmt " << c.format);
        auto buf = CameraBufferInterface::AllocCamBuffer(c.width, c.height, c.format, 7, "fmt");
        ASSERT_NE(buf, nullptr);
        EXPECT_EQ(buf->GetStride(), c.stride);
        EXPECT_EQ(buf->GetSliceHeight(), c.slice);
        EXPECT_EQ(buf->GetSize(), c.size);
        EXPECT_EQ(buf->GetSize() % 4096, 0u);
        EXPECT_EQ(buf->GetFormat(), c.format);
        EXPECT_EQ(buf->GetUsage(), 7u);
        EXPECT_EQ(buf->GetOffset(), 0u);
        EXPECT_EQ(buf->GetPoolSize(), 0u) << "because a whole buffer has no pool";
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buf->GetCpuAddr()) % 4096, 0u);
    }
}

TEST_F(CameraBufferTest, Alloc_RejectsZeroUnknownAndOversizedGeometry)
{
    EXPECT_EQ(CameraBufferInterface::AllocCamBuffer(0, 10, kBytes, 0, "z"), nullptr);
    EXPECT_EQ(CameraBufferInterface::AllocCamBuffer(10, 0, kYuv420, 0, "z"), nullptr);
    EXPECT_EQ(CameraBufferInterface::AllocCamBuffer(64, 64, 0x7777, 0, "unknown"), nullptr);
    // 65536 x 65536 wraps to 0 in 32 bits; the layout works in 64 bits.
    EXPECT_EQ(CameraBufferInterface::AllocCamBuffer(65536, 65536, kBytes, 0, "wrap"), nullptr);
    EXPECT_EQ(CameraBufferInterface::AllocCamBuffer(0xFFFFFFFF, 2, kYuv420, 0, "big"), nullptr);
    EXPECT_EQ(CameraBufferInterface::AllocCamBuffer(0xFFFFF001, 1, kBytes, 0, "edge"), nullptr);
}

TEST_F(CameraBufferTest, ShareFd_SecondMappingSeesTheSameBytesBothWays)
{
    for (uint32_t size : {4096u, 65536u, 1u << 20}) {
        SCOPED_TRACE(size);
        auto buf = AllocBytes(size);
        ASSERT_NE(buf, nullptr);
        auto* cpu = static_cast<uint8_t*>(buf->GetCpuAddr());
        for (uint32_t i = 0; i < size; i += 997) {
            cpu[i] = static_cast<uint8_t>(i * 31 + 5);
        }
        void* second = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, buf->GetShareFd(), 0);
        ASSERT_NE(second, MAP_FAILED);
        auto* view = static_cast<uint8_t*>(second);
        EXPECT_NE(view, cpu) << "because it is a second, independent mapping";
        for (uint32_t i = 0; i < size; i += 997) {
            ASSERT_EQ(view[i], static_cast<uint8_t>(i * 31 + 5)) << "at " << i;
        }
        view[size - 1] = 0xA5;
        EXPECT_EQ(cpu[size - 1], 0xA5);
        EXPECT_EQ(munmap(second, size), 0);
    }
}

TEST_F(CameraBufferTest, Release_LastOwnerClosesFdAndHeldBytesReturn)
{
    const uint64_t start = CameraBufferInterface::GetHeldBytes();
    auto buf = AllocBytes(3 * 4096);
    ASSERT_NE(buf, nullptr);
    const int fd = buf->GetShareFd();
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), start + 3 * 4096);
    auto split = CameraBufferInterface::SplitCamBuffer(buf, SplitInfo(*buf, 4096, 4096), "s");
    ASSERT_NE(split, nullptr);
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), start + 3 * 4096)
        << "because a split holds no memory of its own";
    std::shared_ptr<ICameraBuffer> copy = buf;
    buf.reset();
    copy.reset();
    EXPECT_TRUE(FdIsOpen(fd)) << "because the split still keeps its parent alive";
    EXPECT_EQ(static_cast<uint8_t*>(split->GetCpuAddr())[0], 0) << "memory still mapped";
    split.reset();
    EXPECT_FALSE(FdIsOpen(fd)) << "because the last owner closed the share fd";
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), start);
}

TEST_F(CameraBufferTest, Split_IsAViewOfItsParent)
{
    auto parent = AllocBytes(4 * 4096);
    ASSERT_NE(parent, nullptr);
    auto split = CameraBufferInterface::SplitCamBuffer(parent, SplitInfo(*parent, 4096, 8192), "s");
    ASSERT_NE(split, nullptr);
    EXPECT_EQ(split->GetShareFd(), parent->GetShareFd());
    EXPECT_EQ(static_cast<uint8_t*>(split->GetCpuAddr()),
              static_cast<uint8_t*>(parent->GetCpuAddr()) + 4096);
    EXPECT_EQ(split->GetOffset(), 4096u);
    EXPECT_EQ(split->GetSize(), 8192u);
    EXPECT_EQ(split->GetPoolSize(), 4u * 4096);
    EXPECT_EQ(split->GetStride(), 8192u);
    EXPECT_EQ(split->GetSliceHeight(), 0u);
    EXPECT_EQ(split->GetFormat(), kBytes);
    EXPECT_EQ(split->GetUsage(), parent->GetUsage());
    memset(split->GetCpuAddr(), 0x5C, 8192);
    auto* base = static_cast<uint8_t*>(parent->GetCpuAddr());
    EXPECT_EQ(base[4095], 0) << "because the split starts at 4096";
    EXPECT_EQ(base[4096], 0x5C);
    EXPECT_EQ(base[4096 + 8191], 0x5C);
    EXPECT_EQ(base[3 * 4096], 0);
    EXPECT_EQ(split->GetIova(kDefaultDevice, 0), parent->GetIova(kDefaultDevice, 0) + 4096);
    EXPECT_EQ(split->GetIova(3, 0), parent->GetIova(3, 0) + 4096);

    // A split of a split counts its offset from the whole buffer.
    auto inner = CameraBufferInterface::SplitCamBuffer(split, SplitInfo(*split, 100, 50), "i");
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->GetOffset(), 4196u);
    EXPECT_EQ(static_cast<uint8_t*>(inner->GetCpuAddr()), base + 4196);
    EXPECT_EQ(inner->GetPoolSize(), 4u * 4096);
}

TEST_F(CameraBufferTest, Split_RejectsRangesOutsideTheParent)
{
    auto parent = AllocBytes(8192);
    ASSERT_NE(parent, nullptr);
    EXPECT_EQ(CameraBufferInterface::SplitCamBuffer(nullptr, InputBufInfo{}, "n"), nullptr);
    EXPECT_EQ(CameraBufferInterface::SplitCamBuffer(parent, SplitInfo(*parent, 0, 0), "z"), nullptr);
    EXPECT_EQ(CameraBufferInterface::SplitCamBuffer(parent, SplitInfo(*parent, 4096, 4097), "o"),
              nullptr);
    InputBufInfo wrap = SplitInfo(*parent, 0, 4096);
    wrap.offset = ~0ull - 100; // offset + size wraps in 64 bits
    EXPECT_EQ(CameraBufferInterface::SplitCamBuffer(parent, wrap, "w"), nullptr);
    EXPECT_NE(CameraBufferInterface::SplitCamBuffer(parent, SplitInfo(*parent, 4096, 4096), "f"),
              nullptr) << "because a range ending exactly at the parent's end fits";
}

TEST_F(CameraBufferTest, Iova_PageAlignedUniquePerDeviceAndZeroForUnknownDevices)
{
    std::vector<std::shared_ptr<ICameraBuffer>> bufs;
    for (uint32_t i = 0; i < 8; ++i) {
        bufs.push_back(AllocBytes((i + 1) * 5000));
        ASSERT_NE(bufs.back(), nullptr);
    }
    std::vector<uint32_t> devices;
    for (uint32_t dev = 0; dev < 15; ++dev) {
        devices.push_back(dev);
    }
    devices.push_back(kDefaultDevice);
    for (uint32_t dev : devices) {
        SCOPED_TRACE(dev);
        std::vector<std::pair<uint64_t, uint64_t>> seen; // [start, end)
        for (const auto& buf : bufs) {
            uint64_t iova = buf->GetIova(dev, 0);
            EXPECT_NE(iova, 0u);
            EXPECT_EQ(iova % 4096, 0u);
            for (const auto& range : seen) {
                EXPECT_TRUE(range.second <= iova || iova + buf->GetSize() <= range.first)
                    << "because live buffers never share device addresses";
            }
            seen.emplace_back(iova, iova + buf->GetSize());
        }
    }
    EXPECT_EQ(bufs[0]->GetIova(15, 0), 0u);
    EXPECT_EQ(bufs[0]->GetIova(255, 0), 0u);
    EXPECT_EQ(bufs[0]->GetIova(257, 0), 0u);
    EXPECT_NE(bufs[0]->GetIova(0, 0), bufs[0]->GetIova(1, 0))
        << "because each device type has its own address window";
}

TEST_F(CameraBufferTest, Cache_WholeAndRangeOperationsCheckTheRange)
{
    auto parent = AllocBytes(4 * 4096);
    ASSERT_NE(parent, nullptr);
    auto split = CameraBufferInterface::SplitCamBuffer(parent, SplitInfo(*parent, 4096, 4096), "s");
    ASSERT_NE(split, nullptr);
    for (ICameraBuffer* buf : {parent.get(), split.get()}) {
        EXPECT_EQ(buf->FlushCache(), 0);
        EXPECT_EQ(buf->InvalidateCache(), 0);
        EXPECT_EQ(buf->FlushCacheRange(4096, 4096), 0);
        EXPECT_EQ(buf->InvalidateCacheRange(4 * 4096, 0), 0) << "the whole base buffer";
        EXPECT_EQ(buf->FlushCacheRange(4096, 3 * 4096 + 1), -1);
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
            uint32_t size = 4096u * static_cast<uint32_t>(1 + (seed * 7 + i) % 9);
            auto buf = AllocBytes(size, "thread");
            if (buf == nullptr) {
                failures++;
                continue;
            }
            auto* cpu = static_cast<uint8_t*>(buf->GetCpuAddr());
            cpu[0] = static_cast<uint8_t>(seed);
            cpu[size - 1] = static_cast<uint8_t>(i);
            auto split = CameraBufferInterface::SplitCamBuffer(buf, SplitInfo(*buf, 0, 4096), "t");
            if (split == nullptr || static_cast<uint8_t*>(split->GetCpuAddr())[0] != seed ||
                cpu[size - 1] != static_cast<uint8_t>(i)) {
                failures++;
            }
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back(worker, t);
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), start);
}

} // namespace
