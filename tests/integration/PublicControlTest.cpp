// A camera node drives every control command with the public headers alone: the command
// numbers and the cache range record come from talmem/TalMemControl.h.

#include "TalTestSupport.h"
#include "talmem/TalMemPool.h"

namespace {

using qv::TalCacheRange;
using qv::TalMemPool;
using talmem_test::LogCapture;

using PublicControlTest = talmem_test::TalTest;

TEST_F(PublicControlTest, CacheCommands_OverAnImageBuffer_SucceedInsideItAndFailPastItsEndOrAfterFree)
{
    TalMemPool::NewPool();
    void* image = TalMemPool::Malloc(640, 480, 35, 0, "node", nullptr, "algo", qv::TAL_MEM_ALLOC_CAPTURE);
    ASSERT_NE(image, nullptr);
    const qva_ibuf* ibuf = TalMemPool::GetIBuf(image);
    ASSERT_NE(ibuf, nullptr);
    const uint32_t size = ibuf->getSize(ibuf);
    const uintptr_t base = reinterpret_cast<uintptr_t>(image);

    const TalCacheRange whole{base, size}, lastByte{base + size - 1, 1}, pastEnd{base + 4096, size};
    EXPECT_EQ(TalMemPool::MemPoolControl(qv::TAL_MEM_CTRL_CACHE_FLUSH, &whole, nullptr), 0);
    EXPECT_EQ(TalMemPool::MemPoolControl(qv::TAL_MEM_CTRL_CACHE_INVALIDATE, &lastByte, nullptr), 0);
    EXPECT_EQ(TalMemPool::MemPoolControl(qv::TAL_MEM_CTRL_CACHE_FLUSH, &pastEnd, nullptr), -1)
        << "because the range runs past the buffer";
    EXPECT_EQ(TalMemPool::MemPoolControl(qv::TAL_MEM_CTRL_CACHE_FLUSH, nullptr, nullptr), -1);

    const int32_t videoOn = 1;
    LogCapture::Clear();
    EXPECT_EQ(TalMemPool::MemPoolIoctl(qv::TAL_MEM_IOCTL_VIDEO_STATE, &videoOn), 0);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "QvCamMem MemPoolCtrl, videState 1\n"), 1);

    TalMemPool::Free(image, "node", nullptr);
    EXPECT_EQ(TalMemPool::MemPoolControl(qv::TAL_MEM_CTRL_CACHE_INVALIDATE, &whole, nullptr), -1)
        << "because no live buffer holds the address any more";
    TalMemPool::DeletePool();
}

} // namespace
