// The buffer descriptor: the pool accessor set with its checks, the wrapper
// set for foreign buffers, device types, and the allocator-type record.

#include "FakeCameraBuffer.h"
#include "TalTestSupport.h"
#include "chunk/MemChunkInfo.h"
#include "descriptor/Adapter.h"
#include "descriptor/QvaAlgoMemAllocatorManager.h"
#include "descriptor/TalIbufImpl.h"

namespace {

using talmem_test::Calls;
using talmem_test::Errors;
using talmem_test::FakeCameraBuffer;
using talmem_test::LogCapture;
using Manager = qv::QvaAlgoMemAllocatorManager;

class DescriptorTest : public talmem_test::TalTest {
protected:
    std::shared_ptr<FakeCameraBuffer> fake = std::make_shared<FakeCameraBuffer>();
    qv::MemChunkInfo info{fake, 0, 4096, 0, 0, &info};
    qva_ibuf ibuf = {};
};

// Each pool accessor on a null descriptor, a null record and an empty buffer returns its failure value with
// one CHECK_VALID line, except the three that check only the descriptor and record. Device types 15 and up
// map to 15 with a message (compared unsigned); the device address then fails its check too: two lines.
TEST_F(DescriptorTest, PoolSet_FailedChecksAndInvalidDevTypesLogWithTheAccessorsName)
{
    const char* names[] = {"GetAddr", "GetIOVA", "GetSize", "GetShareFD", "InvalidateCache", "FlushCache", "GetStride",
                           "GetSliceHeight", "GetDevIOVA", "GetPoolSize", "GetGraphicBuf", "GetOffset", "GetBufId"};
    auto call = [](const qva_ibuf* b) {
        return std::vector<int64_t>{!!qv::TalGetAddr(b), (int64_t)qv::TalGetIOVA(b), qv::TalGetSize(b),
            qv::TalGetShareFD(b), qv::TalInvalidateCache(b), qv::TalFlushCache(b), qv::TalGetStride(b),
            qv::TalGetSliceHeight(b), (int64_t)qv::TalGetDevIOVA(b, BUF_DEV_TYPE_ISP), qv::TalGetPoolSize(b),
            !!qv::TalGetGraphicBuf(b), qv::TalGetOffset(b), qv::TalGetBufId(b)};
    };
    qv::MemChunkInfo empty;
    qva_ibuf noRecord = {}, emptyBuf = {};
    qv::TalConvert2IBuf(emptyBuf, empty);
    for (const auto& c : {std::make_pair((const qva_ibuf*)nullptr, 13), {&noRecord, 13}, {&emptyBuf, 10}}) {
        LogCapture::Clear();
        EXPECT_EQ(call(c.first), std::vector<int64_t>({0, 0, 0, -1, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        Calls expected(names, names + c.second);
        for (std::string& e : expected) { e = "Tal" + e + "(): CHECK_VALID error\n"; }
        EXPECT_EQ(Errors(), expected);
    }
    LogCapture::Clear();
    EXPECT_EQ(qv::GetCameraBufDevType(BUF_DEV_TYPE_VDEC) + qv::GetCameraBufDevType((BufDevType)0xFFFFFFFFu), 29);
    qv::TalConvert2IBuf(ibuf, info);
    EXPECT_EQ(ibuf.getDevIOVA(&ibuf, BUF_DEV_TYPE_INVALID), 0u);
    const std::string dev = "GetCameraBufDevType(): input devType(", bad = ") is invalid\n";
    EXPECT_EQ(Errors(), Calls({dev + "-1" + bad, dev + "15" + bad, "TalGetDevIOVA(): CHECK_VALID error\n"}));
}

// The wrapper set reads only the buffer, leaving stride, slice height and record; each null logs its line.
TEST_F(DescriptorTest, Wrapper_ReadsOnlyTheBufferLeavesStrideSliceAndPrivAndLogsNulls)
{
    qv::TalConvert2IBuf(ibuf, info);
    qva_ibuf w = ibuf;
    qv::convert2IBuf(&w, fake.get());
    EXPECT_TRUE(w.getStride == ibuf.getStride && w.getSliceHeight == ibuf.getSliceHeight && w.priv == &info);
    EXPECT_TRUE(w.graphicBuf == fake.get() && w.getGraphicBuf(&w) == fake.get() && w.getAddr(&w) == fake->GetCpuAddr());
    EXPECT_EQ(std::vector<int64_t>({w.getSize(&w), w.getShareFD(&w), w.getOffset(&w), w.getPoolSize(&w),
                                    w.getBufId(&w), w.flushCache(&w), w.invalidateCache(&w),
                                    (int64_t)w.getDevIOVA(&w, BUF_DEV_TYPE_DSP)}),
              std::vector<int64_t>({8192, 77, 4096, 65536, 0, 1, 1, 0x100005000}));
    EXPECT_EQ(fake->calls, Calls({"flush", "invalidate"})) << "whole even when split";
    fake->poolSize = 0;
    EXPECT_EQ(w.getPoolSize(&w), 8192u) << "because a whole buffer is its own pool";
    qv::convert2IBuf(nullptr, fake.get());
    qv::convert2IBuf(&w, nullptr);
    EXPECT_EQ(w.getOffset(&w) + w.getPoolSize(&w) + w.getDevIOVA(&w, BUF_DEV_TYPE_ISP), 0u) << "a null buffer is kept";
    EXPECT_EQ(w.getOffset(nullptr) + w.getPoolSize(nullptr) + w.getDevIOVA(nullptr, BUF_DEV_TYPE_ISP), 0u);
    const std::string conv = "convert2IBuf() fail, ibuf or grapBuf is NULL!\n", dev = "enter GetDevIOVA(), ";
    const std::string null = "cameraBuffer is null\n", bad = "invalid input\n";
    EXPECT_EQ(Errors(), Calls({conv, conv, "s_getOffset: " + null, "s_getPoolSize: " + null, dev + "gbf is nullptr\n",
                               "s_getOffset: " + bad, "s_getPoolSize: " + bad, dev + "ibuf is nullptr\n"}));
}

// The range check is signed on purpose, so negative types pass.
TEST_F(DescriptorTest, AllocatorManager_ChecksOnlyTheUpperBound)
{
    const std::string line = "setAlgoAllocatorType fail, allocator type out of range[0, 3): ";
    for (const auto& c : std::vector<std::vector<int32_t>>{{2, 0, 2}, {3, -1, 2}, {-1, 0, -1}, {0, 0, 0}}) {
        LogCapture::Clear();
        EXPECT_EQ(Manager::getSingleton()->setAlgoAllocatorType(static_cast<Manager::AlgoAllocatorType>(c[0])), c[1]);
        EXPECT_EQ(Manager::getSingleton()->getAlgoAllocatorType(), c[2]) << c[0];
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, line + std::to_string(c[0]) + " \n"), -c[1]) << LogCapture::Dump();
    }
}

} // namespace
