#include <memory>

#include "FakeCameraBuffer.h"
#include "TalTestSupport.h"
#include "chunk/MemChunkInfo.h"
#include "interface/TalIbufImpl.h"

using talmem_test::CacheCall;
using talmem_test::CountCheckValid;
using talmem_test::CountFuncLineErrors;
using talmem_test::FakeCameraBuffer;
using talmem_test::LogCapture;

namespace {

// A descriptor over a record whose buffer is a recording fake; `base` is the
// record itself (whole buffer) unless a test points it elsewhere.
class TalIbufImplTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        fake = std::make_shared<FakeCameraBuffer>();
        info.buffer = fake;
        info.size = fake->size;
        info.base = &info;
        qv::TalConvert2IBuf(ibuf, info);
    }

    std::shared_ptr<FakeCameraBuffer> fake;
    qv::MemChunkInfo info;
    qva_ibuf ibuf = {};
};

TEST_F(TalIbufImplTest, Getters_ForwardToTheRightBufferOperation)
{
    info.uniqueId = 42;
    EXPECT_EQ(ibuf.priv, &info);
    EXPECT_EQ(ibuf.graphicBuf, fake.get());
    EXPECT_EQ(ibuf.getAddr(&ibuf), reinterpret_cast<void*>(fake->cpuAddr));
    EXPECT_EQ(ibuf.getShareFD(&ibuf), 77);
    EXPECT_EQ(ibuf.getStride(&ibuf), 640u);
    EXPECT_EQ(ibuf.getSliceHeight(&ibuf), 480u);
    EXPECT_EQ(ibuf.getGraphicBuf(&ibuf), fake.get());
    EXPECT_EQ(ibuf.getBufId(&ibuf), 42);
    EXPECT_EQ(ibuf.getOffset(&ibuf), 0u);
    EXPECT_EQ(ibuf.getIOVA(&ibuf), 0x100000000ull + 0x100 * 0x1000ull);
    EXPECT_EQ(ibuf.getDevIOVA(&ibuf, BUF_DEV_TYPE_GPU), 0x100000000ull + 4 * 0x1000ull);
    EXPECT_EQ(fake->iovaTypes, (std::vector<uint32_t>{0x100, 4}))
        << "because the plain getter always asks for the default device 256";
    EXPECT_EQ(LogCapture::Lines().size(), 0u);
}

TEST_F(TalIbufImplTest, Size_OffsetSelectsBufferSizeOrRecordSize)
{
    info.size = 4096; // what the caller asked for; the buffer reports 8192
    EXPECT_EQ(ibuf.getSize(&ibuf), 8192u) << "because offset 0 reads the buffer's own size";
    info.offset = 4096;
    EXPECT_EQ(ibuf.getSize(&ibuf), 4096u) << "because a carved record reports its own size";
}

TEST_F(TalIbufImplTest, PoolSize_ReadsTheBaseRecordsBuffer)
{
    auto baseFake = std::make_shared<FakeCameraBuffer>();
    baseFake->size = 1 << 20;
    qv::MemChunkInfo baseInfo;
    baseInfo.buffer = baseFake;
    baseInfo.base = &baseInfo;
    info.base = &baseInfo;
    info.offset = 4096;
    EXPECT_EQ(ibuf.getPoolSize(&ibuf), 1u << 20);

    baseInfo.buffer.reset();
    EXPECT_EQ(ibuf.getPoolSize(&ibuf), 0u);
    info.base = nullptr;
    EXPECT_EQ(ibuf.getPoolSize(&ibuf), 0u);
    EXPECT_EQ(CountCheckValid("TalGetPoolSize"), 2);
}

TEST_F(TalIbufImplTest, Cache_OffsetZeroUsesWholeBufferCallElseRangeWithRecord)
{
    info.size = 4096; // a carved range at offset 0 still takes the whole call
    EXPECT_EQ(ibuf.flushCache(&ibuf), 1);
    EXPECT_EQ(ibuf.invalidateCache(&ibuf), 1);
    info.offset = 12288;
    EXPECT_EQ(ibuf.flushCache(&ibuf), 1);
    EXPECT_EQ(ibuf.invalidateCache(&ibuf), 1);
    std::vector<CacheCall> expected = {{"flush", 0, 0},
                                       {"invalidate", 0, 0},
                                       {"flushRange", 4096, 12288},
                                       {"invalidateRange", 4096, 12288}};
    EXPECT_EQ(fake->calls, expected);
}

TEST_F(TalIbufImplTest, NullDescriptorOrRecord_EveryAccessorLogsCheckValidAndFails)
{
    qva_ibuf noRecord = ibuf;
    noRecord.priv = nullptr;
    for (const qva_ibuf* bad : {static_cast<const qva_ibuf*>(nullptr),
                                static_cast<const qva_ibuf*>(&noRecord)}) {
        SCOPED_TRACE(bad == nullptr ? "null descriptor" : "null record");
        LogCapture::Clear();
        EXPECT_EQ(qv::TalGetAddr(bad), nullptr);
        EXPECT_EQ(qv::TalGetIOVA(bad), 0u);
        EXPECT_EQ(qv::TalGetSize(bad), 0u);
        EXPECT_EQ(qv::TalGetShareFD(bad), -1);
        EXPECT_EQ(qv::TalInvalidateCache(bad), 0);
        EXPECT_EQ(qv::TalFlushCache(bad), 0);
        EXPECT_EQ(qv::TalGetGraphicBuf(bad), nullptr);
        EXPECT_EQ(qv::TalGetOffset(bad), 0u);
        EXPECT_EQ(qv::TalGetPoolSize(bad), 0u);
        EXPECT_EQ(qv::TalGetBufId(bad), 0);
        EXPECT_EQ(qv::TalGetDevIOVA(bad, BUF_DEV_TYPE_ISP), 0u);
        EXPECT_EQ(qv::TalGetStride(bad), 0u);
        EXPECT_EQ(qv::TalGetSliceHeight(bad), 0u);
        for (const char* fn : {"TalGetAddr", "TalGetIOVA", "TalGetSize", "TalGetShareFD",
                               "TalInvalidateCache", "TalFlushCache", "TalGetGraphicBuf",
                               "TalGetOffset", "TalGetPoolSize", "TalGetBufId", "TalGetDevIOVA",
                               "TalGetStride", "TalGetSliceHeight"}) {
            EXPECT_EQ(CountCheckValid(fn), 1) << fn << "\n" << LogCapture::Dump();
        }
        EXPECT_EQ(LogCapture::Lines().size(), 13u);
    }
    EXPECT_TRUE(fake->calls.empty());
}

TEST_F(TalIbufImplTest, EmptyBuffer_BufferAccessorsFailButRecordFieldsStillRead)
{
    info.buffer.reset();
    info.offset = 4096;
    info.uniqueId = 9;
    EXPECT_EQ(ibuf.getAddr(&ibuf), nullptr);
    EXPECT_EQ(ibuf.getShareFD(&ibuf), -1);
    EXPECT_EQ(ibuf.flushCache(&ibuf), 0);
    EXPECT_EQ(ibuf.getStride(&ibuf), 0u);
    EXPECT_EQ(ibuf.getPoolSize(&ibuf), 0u);
    EXPECT_EQ(LogCapture::Lines().size(), 5u);
    EXPECT_EQ(ibuf.getOffset(&ibuf), 4096u) << "because only the descriptor and record are checked";
    EXPECT_EQ(ibuf.getBufId(&ibuf), 9);
    EXPECT_EQ(ibuf.getGraphicBuf(&ibuf), nullptr);
    EXPECT_EQ(LogCapture::Lines().size(), 5u);
}

TEST_F(TalIbufImplTest, DevType_BelowFifteenPassesElseLogsAndMapsToFifteen)
{
    EXPECT_EQ(qv::GetCameraBufDevType(BUF_DEV_TYPE_ISP), 0);
    EXPECT_EQ(qv::GetCameraBufDevType(BUF_DEV_TYPE_VDEC), 14);
    EXPECT_EQ(LogCapture::Lines().size(), 0u);
    EXPECT_EQ(qv::GetCameraBufDevType(BUF_DEV_TYPE_INVALID), 15);
    EXPECT_EQ(qv::GetCameraBufDevType(static_cast<BufDevType>(0xFFFFFFFFu)), 15)
        << "because the bound is compared unsigned";
    EXPECT_EQ(CountFuncLineErrors("GetCameraBufDevType", "input devType(15) is invalid\n"), 1);
    EXPECT_EQ(CountFuncLineErrors("GetCameraBufDevType", "input devType(-1) is invalid\n"), 1);
}

TEST_F(TalIbufImplTest, DevIova_InvalidTypeLogsTwiceAndAsksNothing)
{
    EXPECT_EQ(ibuf.getDevIOVA(&ibuf, BUF_DEV_TYPE_INVALID), 0u);
    EXPECT_EQ(CountFuncLineErrors("GetCameraBufDevType", "input devType(15) is invalid\n"), 1);
    EXPECT_EQ(CountCheckValid("TalGetDevIOVA"), 1);
    EXPECT_EQ(LogCapture::Lines().size(), 2u);
    EXPECT_TRUE(fake->iovaTypes.empty());
}

} // namespace
