// Both accessor sets of the buffer descriptor over a recording fake buffer;
// their values on real buffers are checked through chunks.
#include "FakeCameraBuffer.h"
#include "interface/Adapter.h"
#include "interface/TalIbufImpl.h"

using talmem_test::CountNumbered;
using talmem_test::LogCapture;

namespace {

int CountCheckValid(const std::string& func)
{
    return CountNumbered(func + "(", "): CHECK_VALID error\n");
}

class DescriptorTest : public talmem_test::TalTest {
protected:
    std::shared_ptr<talmem_test::FakeCameraBuffer> fake = std::make_shared<talmem_test::FakeCameraBuffer>();
    qv::MemChunkInfo info{fake, 0, 4096, 0, 0, &info};
    qva_ibuf ibuf = {};
};

// Each pool accessor on a null descriptor, a null record and an empty buffer
// returns its failure value with one CHECK_VALID line, except the three that
// check only the descriptor and record.
TEST_F(DescriptorTest, PoolSet_FailedChecksAndInvalidDevTypesLogWithTheAccessorsName)
{
    const char* names[] = {"TalGetAddr", "TalGetIOVA", "TalGetSize", "TalGetShareFD", "TalInvalidateCache",
                           "TalFlushCache", "TalGetStride", "TalGetSliceHeight", "TalGetDevIOVA",
                           "TalGetPoolSize", "TalGetGraphicBuf", "TalGetOffset", "TalGetBufId"};
    auto call = [](const qva_ibuf* b) {
        return std::vector<int64_t>{!!qv::TalGetAddr(b), (int64_t)qv::TalGetIOVA(b), qv::TalGetSize(b),
            qv::TalGetShareFD(b), qv::TalInvalidateCache(b), qv::TalFlushCache(b), qv::TalGetStride(b),
            qv::TalGetSliceHeight(b), (int64_t)qv::TalGetDevIOVA(b, BUF_DEV_TYPE_ISP),
            qv::TalGetPoolSize(b), !!qv::TalGetGraphicBuf(b), qv::TalGetOffset(b), qv::TalGetBufId(b)};
    };
    qv::MemChunkInfo empty, noBase = info;
    noBase.base = nullptr;
    qva_ibuf noRecord = {}, emptyBuf = {}, noBaseBuf = {};
    qv::TalConvert2IBuf(emptyBuf, empty);
    qv::TalConvert2IBuf(noBaseBuf, noBase);
    std::pair<const qva_ibuf*, size_t> cases[] = {{nullptr, 13}, {&noRecord, 13}, {&emptyBuf, 10}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        LogCapture::Clear();
        EXPECT_EQ(call(c.first), std::vector<int64_t>({0, 0, 0, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        for (size_t i = 0; i < 13; ++i) {
            EXPECT_EQ(CountCheckValid(names[i]), i < c.second ? 1 : 0) << names[i];
        }
        EXPECT_EQ(LogCapture::Lines().size(), c.second) << LogCapture::Dump();
    }
    EXPECT_EQ(qv::TalGetPoolSize(&noBaseBuf), 0u);
    EXPECT_EQ(CountCheckValid("TalGetPoolSize"), 2) << "because the base record is checked too";

    // Device types: 15 and above map to 15 with a message (compared unsigned);
    // the device address then also fails its check, so it logs twice.
    EXPECT_EQ(qv::GetCameraBufDevType(BUF_DEV_TYPE_VDEC) + qv::GetCameraBufDevType((BufDevType)0xFFFFFFFFu), 29);
    EXPECT_EQ(CountNumbered("GetCameraBufDevType(", "): input devType(-1) is invalid\n"), 1);
    qv::TalConvert2IBuf(ibuf, info);
    LogCapture::Clear();
    EXPECT_EQ(ibuf.getDevIOVA(&ibuf, BUF_DEV_TYPE_INVALID), 0u);
    EXPECT_EQ(CountNumbered("GetCameraBufDevType(", "): input devType(15) is invalid\n"), 1);
    EXPECT_EQ(CountCheckValid("TalGetDevIOVA"), 1);
    EXPECT_EQ(LogCapture::Lines().size(), 2u);
}

TEST_F(DescriptorTest, Wrapper_ReadsOnlyTheBufferLeavesStrideSliceAndPrivAndLogsNulls)
{
    qv::TalConvert2IBuf(ibuf, info);
    qva_ibuf w = ibuf;
    fake->offset = 4096;
    fake->poolSize = 65536;
    qv::convert2IBuf(&w, fake.get());
    EXPECT_TRUE(w.getStride == ibuf.getStride && w.getSliceHeight == ibuf.getSliceHeight && w.priv == &info);
    EXPECT_TRUE(w.graphicBuf == fake.get() && w.getGraphicBuf(&w) == fake.get() && w.getAddr(&w) == fake->GetCpuAddr());
    EXPECT_EQ(std::vector<int64_t>({w.getSize(&w), w.getShareFD(&w), w.getOffset(&w), w.getPoolSize(&w),
                                    w.getBufId(&w), w.flushCache(&w), w.invalidateCache(&w)}),
              std::vector<int64_t>({8192, 77, 4096, 65536, 0, 1, 1}));
    EXPECT_EQ(fake->calls, std::vector<std::string>({"flush", "invalidate"})) << "whole even when split";
    EXPECT_TRUE(w.getIOVA(&w) == 0x100100000ull && w.getDevIOVA(&w, BUF_DEV_TYPE_DSP) == 0x100005000ull);
    fake->poolSize = 0;
    EXPECT_EQ(w.getPoolSize(&w), 8192u) << "because a whole buffer is its own pool";
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();
    EXPECT_EQ(w.getDevIOVA(&w, static_cast<BufDevType>(16)), 0u);

    qv::convert2IBuf(nullptr, fake.get());
    qv::convert2IBuf(&w, nullptr);
    EXPECT_EQ(w.getOffset(&w) + w.getPoolSize(&w) + w.getDevIOVA(&w, BUF_DEV_TYPE_ISP), 0u)
        << "because a null buffer is still stored and the set filled";
    EXPECT_EQ(w.getOffset(nullptr) + w.getPoolSize(nullptr) + w.getDevIOVA(nullptr, BUF_DEV_TYPE_ISP), 0u);
    EXPECT_EQ(CountNumbered("GetCameraBufDevType(", "): input devType(16) is invalid\n"), 1);
    for (const char* msg : {"enter GetDevIOVA(), devType is invalid\n", "s_getOffset: cameraBuffer is null\n",
                            "s_getPoolSize: cameraBuffer is null\n", "enter GetDevIOVA(), gbf is nullptr\n",
                            "s_getOffset: invalid input\n", "s_getPoolSize: invalid input\n",
                            "enter GetDevIOVA(), ibuf is nullptr\n"}) {
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, msg), 1) << msg;
    }
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "convert2IBuf() fail, ibuf or grapBuf is NULL!\n"), 2);
    EXPECT_EQ(LogCapture::Lines().size(), 10u) << LogCapture::Dump();
}

} // namespace
