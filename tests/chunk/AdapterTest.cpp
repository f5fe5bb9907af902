#include <memory>

#include "CameraBufferInterface.h"
#include "FakeCameraBuffer.h"
#include "TalTestSupport.h"
#include "interface/Adapter.h"

using talmem_test::CacheCall;
using talmem_test::CountFuncLineErrors;
using talmem_test::FakeCameraBuffer;
using talmem_test::LogCapture;

namespace {

// Values the wrapper set must leave alone.
uint32_t SentinelStride(const qva_ibuf*)
{
    return 11;
}
uint32_t SentinelSliceHeight(const qva_ibuf*)
{
    return 22;
}
int gSentinelPriv;

class AdapterTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        ibuf.getStride = SentinelStride;
        ibuf.getSliceHeight = SentinelSliceHeight;
        ibuf.priv = &gSentinelPriv;
    }

    qva_ibuf ibuf = {};
};

TEST_F(AdapterTest, RealBuffer_GettersReadTheWrappedBufferAndLeaveTheRestAlone)
{
    auto buf = QvCamera::CameraBufferInterface::AllocCamBuffer(5000, 1, 257, 0, "foreign");
    ASSERT_NE(buf, nullptr);
    qv::convert2IBuf(&ibuf, buf.get());
    EXPECT_EQ(ibuf.graphicBuf, buf.get());
    EXPECT_EQ(ibuf.getGraphicBuf(&ibuf), buf.get());
    EXPECT_EQ(ibuf.getAddr(&ibuf), buf->GetCpuAddr());
    EXPECT_EQ(ibuf.getSize(&ibuf), 8192u);
    EXPECT_EQ(ibuf.getShareFD(&ibuf), buf->GetShareFd());
    EXPECT_EQ(ibuf.getIOVA(&ibuf), buf->GetIova(0x100, 0));
    EXPECT_NE(ibuf.getIOVA(&ibuf), 0u);
    EXPECT_EQ(ibuf.getDevIOVA(&ibuf, BUF_DEV_TYPE_DSP), buf->GetIova(5, 0));
    EXPECT_EQ(ibuf.getOffset(&ibuf), 0u);
    EXPECT_EQ(ibuf.getPoolSize(&ibuf), 8192u) << "because a whole buffer is its own pool";
    EXPECT_EQ(ibuf.getBufId(&ibuf), 0);
    EXPECT_EQ(ibuf.invalidateCache(&ibuf), 1);
    EXPECT_EQ(ibuf.flushCache(&ibuf), 1);

    EXPECT_EQ(ibuf.getStride, &SentinelStride);
    EXPECT_EQ(ibuf.getSliceHeight, &SentinelSliceHeight);
    EXPECT_EQ(ibuf.priv, &gSentinelPriv);
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();
}

TEST_F(AdapterTest, SplitBuffer_OffsetAndPoolSizeFromTheBufferCacheCallsWhole)
{
    FakeCameraBuffer fake;
    fake.offset = 4096;
    fake.poolSize = 65536;
    qv::convert2IBuf(&ibuf, &fake);
    EXPECT_EQ(ibuf.flushCache(&ibuf), 1);
    EXPECT_EQ(ibuf.invalidateCache(&ibuf), 1);
    EXPECT_EQ(fake.calls, (std::vector<CacheCall>{{"flush", 0, 0}, {"invalidate", 0, 0}}));
    EXPECT_EQ(ibuf.getPoolSize(&ibuf), 65536u);
    EXPECT_EQ(ibuf.getOffset(&ibuf), 4096u);
    EXPECT_EQ(ibuf.getSize(&ibuf), 8192u);
}

TEST_F(AdapterTest, NullInputs_LogTheirMessagesAndReturnZero)
{
    FakeCameraBuffer fake;
    qv::convert2IBuf(nullptr, &fake);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "convert2IBuf() fail, ibuf or grapBuf is NULL!\n"), 1);

    LogCapture::Clear();
    qv::convert2IBuf(&ibuf, nullptr);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "convert2IBuf() fail, ibuf or grapBuf is NULL!\n"), 1);
    ASSERT_NE(ibuf.getOffset, nullptr) << "because a null buffer is still stored and the set filled";
    EXPECT_EQ(ibuf.graphicBuf, nullptr);
    EXPECT_EQ(ibuf.getGraphicBuf(&ibuf), nullptr);
    EXPECT_EQ(ibuf.getBufId(&ibuf), 0);

    EXPECT_EQ(ibuf.getOffset(&ibuf), 0u);
    EXPECT_EQ(ibuf.getPoolSize(&ibuf), 0u);
    EXPECT_EQ(ibuf.getDevIOVA(&ibuf, BUF_DEV_TYPE_ISP), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "s_getOffset: cameraBuffer is null\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "s_getPoolSize: cameraBuffer is null\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "enter GetDevIOVA(), gbf is nullptr\n"));

    EXPECT_EQ(ibuf.getOffset(nullptr), 0u);
    EXPECT_EQ(ibuf.getPoolSize(nullptr), 0u);
    EXPECT_EQ(ibuf.getDevIOVA(nullptr, BUF_DEV_TYPE_ISP), 0u);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "s_getOffset: invalid input\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "s_getPoolSize: invalid input\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "enter GetDevIOVA(), ibuf is nullptr\n"));
    EXPECT_EQ(LogCapture::Lines().size(), 7u) << LogCapture::Dump();
}

TEST_F(AdapterTest, DevIova_InvalidTypeLogsMappingAndItsOwnLine)
{
    FakeCameraBuffer fake;
    qv::convert2IBuf(&ibuf, &fake);
    EXPECT_EQ(ibuf.getDevIOVA(&ibuf, static_cast<BufDevType>(16)), 0u);
    EXPECT_EQ(CountFuncLineErrors("GetCameraBufDevType", "input devType(16) is invalid\n"), 1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "enter GetDevIOVA(), devType is invalid\n"));
    EXPECT_TRUE(fake.iovaTypes.empty());
    EXPECT_EQ(ibuf.getIOVA(&ibuf), 0x100000000ull + 0x100 * 0x1000ull);
    EXPECT_EQ(fake.iovaTypes, std::vector<uint32_t>{0x100});
}

} // namespace
