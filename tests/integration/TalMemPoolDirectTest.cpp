// A camera node's road through the public entries with every request served
// by a direct allocation: the descriptor's accessors, the memory seen through
// the CPU address and through a second mapping of the share fd, cache
// maintenance, release of the memory and of the fd.

#include "TalTestSupport.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "CameraBufferInterface.h"
#include "pool/TalMemPoolImpl.h"
#include "talmem/TalMemPool.h"

using qv::MallocInfo;
using qv::TalMemPool;
using talmem_test::LogCapture;
using talmem_test::TalTest;

namespace {

constexpr uint32_t kPage = 4096;
constexpr uint32_t kFormatYuv420 = 35;

class TalMemPoolDirectTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        heldBefore = QvCamera::CameraBufferInterface::GetHeldBytes();
        TalMemPool::NewPool();
        ASSERT_NE(TalMemPool::poolThread, nullptr);
    }
    void TearDown() override
    {
        TalMemPool::DeletePool();
        EXPECT_EQ(TalMemPool::poolThread, nullptr);
        EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), heldBefore)
            << "because every buffer is released with its last owner";
        TalTest::TearDown();
    }

    // Writes a pattern through the CPU address, reads it back through a second
    // mapping of the share fd, and the other way round.
    static void CheckSharedMemory(const qva_ibuf* ibuf)
    {
        uint32_t size = ibuf->getSize(ibuf);
        auto* cpu = static_cast<uint8_t*>(ibuf->getAddr(ibuf));
        for (uint32_t i = 0; i < size; i += 61) {
            cpu[i] = static_cast<uint8_t>(i * 7 + 1);
        }
        EXPECT_EQ(ibuf->flushCache(ibuf), 1);
        void* second = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED,
                            ibuf->getShareFD(ibuf), 0);
        ASSERT_NE(second, MAP_FAILED) << strerror(errno);
        auto* view = static_cast<uint8_t*>(second);
        EXPECT_NE(view, cpu) << "because this is a second mapping";
        uint32_t mismatches = 0;
        for (uint32_t i = 0; i < size; i += 61) {
            mismatches += view[i] != static_cast<uint8_t>(i * 7 + 1) ? 1 : 0;
        }
        EXPECT_EQ(mismatches, 0u);
        view[size - 1] = 0xA5;
        EXPECT_EQ(ibuf->invalidateCache(ibuf), 1);
        EXPECT_EQ(cpu[size - 1], 0xA5);
        EXPECT_EQ(munmap(second, size), 0);
    }

    static void CheckFdClosed(int fd)
    {
        errno = 0;
        EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "because the last owner closed the share fd";
        EXPECT_EQ(errno, EBADF);
    }

    uint64_t heldBefore = 0;
};

TEST_F(TalMemPoolDirectTest, MallocBySize_DescriptorAndMemoryWorkEndToEnd)
{
    int32_t previousId = 0;
    for (uint32_t size : {1u, 4096u, 100000u, 0x100001u}) {
        SCOPED_TRACE(size);
        void* p = TalMemPool::Malloc(size, "node", nullptr, "algo", 0);
        ASSERT_NE(p, nullptr);
        const qva_ibuf* ibuf = TalMemPool::GetIBuf(p);
        ASSERT_NE(ibuf, nullptr);
        uint32_t rounded = (size + kPage - 1) / kPage * kPage;
        EXPECT_EQ(ibuf->getAddr(ibuf), p);
        EXPECT_EQ(ibuf->getSize(ibuf), rounded);
        EXPECT_EQ(ibuf->getPoolSize(ibuf), rounded) << "because a direct chunk is its own base";
        EXPECT_EQ(ibuf->getOffset(ibuf), 0u);
        EXPECT_EQ(ibuf->getStride(ibuf), rounded) << "because plain bytes are one row";
        EXPECT_EQ(ibuf->getSliceHeight(ibuf), 1u);
        EXPECT_GT(ibuf->getBufId(ibuf), previousId) << "because buffer ids are unique and rising";
        previousId = ibuf->getBufId(ibuf);
        EXPECT_NE(ibuf->getIOVA(ibuf), 0u);
        EXPECT_EQ(ibuf->getIOVA(ibuf) % kPage, 0u);
        EXPECT_NE(ibuf->getDevIOVA(ibuf, BUF_DEV_TYPE_ISP), 0u);
        EXPECT_EQ(ibuf->getDevIOVA(ibuf, BUF_DEV_TYPE_INVALID), 0u);
        ASSERT_NE(ibuf->graphicBuf, nullptr);
        EXPECT_EQ(ibuf->getGraphicBuf(ibuf), ibuf->graphicBuf);
        int fd = ibuf->getShareFD(ibuf);
        ASSERT_GE(fd, 0);
        CheckSharedMemory(ibuf);

        TalMemPool::Free(p, "node", nullptr);
        CheckFdClosed(fd);
        LogCapture::Clear();
        EXPECT_EQ(TalMemPool::GetIBuf(p), nullptr) << "because the buffer is gone";
        EXPECT_EQ(LogCapture::CountContaining("ERROR! getIBuf fail addr"), 1);
    }
}

TEST_F(TalMemPoolDirectTest, MallocByGeometry_YuvImagesHaveAlignedStrideAndSliceHeight)
{
    struct Image {
        uint32_t width;
        uint32_t height;
    };
    for (const Image& image : {Image{4000, 3000}, Image{1920, 1080}}) {
        SCOPED_TRACE(image.width);
        void* p = TalMemPool::Malloc(image.width, image.height, kFormatYuv420, 0, "node", nullptr,
                                     "algo", 0);
        ASSERT_NE(p, nullptr);
        const qva_ibuf* ibuf = TalMemPool::GetIBuf(p);
        ASSERT_NE(ibuf, nullptr);
        uint32_t stride = ibuf->getStride(ibuf);
        uint32_t slice = ibuf->getSliceHeight(ibuf);
        EXPECT_GE(stride, image.width);
        EXPECT_GE(slice, image.height);
        EXPECT_GE(ibuf->getSize(ibuf), stride * slice * 3 / 2) << "because 4:2:0 is 1.5 bytes/pixel";
        EXPECT_EQ(ibuf->getSize(ibuf) % kPage, 0u);
        int fd = ibuf->getShareFD(ibuf);
        CheckSharedMemory(ibuf);
        TalMemPool::Free(p, "node", nullptr);
        CheckFdClosed(fd);
    }
}

TEST_F(TalMemPoolDirectTest, MallocInfo_CallerSharesTheBufferBeyondFree)
{
    MallocInfo info{1920, 1080, kFormatYuv420, 0};
    std::shared_ptr<QvCamera::ICameraBuffer> buf = TalMemPool::Malloc(info, "algo");
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(buf.use_count(), 2) << "because the chunk and the caller own it";
    auto* cpu = static_cast<uint8_t*>(buf->GetCpuAddr());
    const qva_ibuf* ibuf = TalMemPool::GetIBuf(cpu);
    ASSERT_NE(ibuf, nullptr);
    EXPECT_EQ(ibuf->graphicBuf, buf.get());
    TalMemPool::Free(cpu, "algo", nullptr);
    EXPECT_EQ(buf.use_count(), 1);
    cpu[0] = 0x5A; // still mapped: the caller's reference keeps it
    EXPECT_EQ(cpu[0], 0x5A);
    int fd = buf->GetShareFd();
    buf.reset();
    CheckFdClosed(fd);
}

TEST_F(TalMemPoolDirectTest, CacheCommands_OnDirectChunksAndFreedAddresses)
{
    void* p = TalMemPool::Malloc(3 * kPage, "node", nullptr, "algo", 0);
    ASSERT_NE(p, nullptr);
    uintptr_t addr = reinterpret_cast<uintptr_t>(p);
    qv::TalCacheRange inside{addr + 100, 200};
    EXPECT_EQ(TalMemPool::MemPoolControl(2, &inside, nullptr), 0);
    EXPECT_EQ(TalMemPool::MemPoolControl(3, &inside, nullptr), 0);
    qv::TalCacheRange tooLong{addr, 4 * kPage};
    EXPECT_EQ(TalMemPool::MemPoolControl(2, &tooLong, nullptr), -1)
        << "because the chunk refuses a size beyond its own";
    EXPECT_EQ(TalMemPool::MemPoolControl(2, nullptr, nullptr), -1);
    TalMemPool::Free(p, "node", nullptr);
    LogCapture::Clear();
    EXPECT_EQ(TalMemPool::MemPoolControl(3, &inside, nullptr), -1);
    EXPECT_EQ(LogCapture::CountContaining("cmd 3 invalid pAddr"), 1) << LogCapture::Dump();
}

} // namespace
