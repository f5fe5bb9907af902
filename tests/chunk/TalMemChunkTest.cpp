#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "CameraBufferInterface.h"
#include "FakeCameraBuffer.h"
#include "TalTestSupport.h"
#include "chunk/TalMemChunk.h"
#include "interface/TalIbufImpl.h"

using talmem_test::CacheCall;
using talmem_test::CountFuncLineErrors;
using talmem_test::FakeCameraBuffer;
using talmem_test::LogCapture;
using qv::TalMemChunk;

namespace qv {

// Replaces a chunk's buffer with a recording fake that starts at the same CPU
// address, keeping the chunk's size and offset, so the cache tests can see
// which operation was chosen.
struct TalMemChunkTestPeer {
    static std::shared_ptr<talmem_test::FakeCameraBuffer> RecordCacheCalls(TalMemChunk& chunk)
    {
        auto fake = std::make_shared<talmem_test::FakeCameraBuffer>();
        fake->cpuAddr = reinterpret_cast<uintptr_t>(chunk.info.buffer->GetCpuAddr());
        fake->size = chunk.info.buffer->GetSize();
        chunk.info.buffer = fake;
        TalConvert2IBuf(chunk.ibuf, chunk.info);
        return fake;
    }
};

} // namespace qv

namespace {

constexpr uint32_t kPage = 4096;

// The id of the first chunk the process allocates, taken before any test
// runs so that test order and filters do not matter.
int32_t gFirstIssuedId = -1;

class FirstIdEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        TalMemChunk chunk(kPage, 1, 0, 0, "first", 1);
        if (chunk.Init() == 0) {
            gFirstIssuedId = chunk.GetUniqueId();
        }
    }
};
::testing::Environment* const gFirstIdEnv =
    ::testing::AddGlobalTestEnvironment(new FirstIdEnvironment);

class TalMemChunkTest : public talmem_test::TalTest {
protected:
    // A whole camera-buffer chunk of `size` bytes, initialised.
    static std::unique_ptr<TalMemChunk> Whole(uint32_t size)
    {
        auto chunk = std::make_unique<TalMemChunk>(size, 1, 0, 0, "whole", 1);
        EXPECT_EQ(chunk->Init(), 0);
        return chunk;
    }
    // A record carved out of `parent` as the pool manager makes one.
    static std::unique_ptr<TalMemChunk> Carve(TalMemChunk& parent, uint32_t offset, uint32_t size)
    {
        auto chunk = std::make_unique<TalMemChunk>(size, 0, 0, 0, "carved", 1);
        EXPECT_EQ(chunk->Init(), 0);
        chunk->CfgMemChunk(parent.GetIBuf(), offset, size, "algo");
        return chunk;
    }
};

TEST_F(TalMemChunkTest, BySize_EncodesUsageFromLow12BitsOfSelector)
{
    struct Case {
        uint64_t sel;
        uint64_t usage;
    } cases[] = {{0, 0x1000400801ull},          {1, 0x1400400801ull},
                 {2, 0x1800400801ull},         {3, 0x1000400801ull},
                 {0x1001, 0x1400400801ull},    {0xFFFF00000002ull, 0x1800400801ull},
                 {0x1000, 0x1000400801ull}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sel);
        TalMemChunk chunk(100, 0, c.sel, 0, "n", 7);
        EXPECT_EQ(chunk.GetUsage(), c.usage);
    }
}

TEST_F(TalMemChunkTest, Constructors_InitialState)
{
    TalMemChunk bySize(5000, 1, 0, 0, "a", 3);
    EXPECT_EQ(bySize.GetWidth(), 5000u);
    EXPECT_EQ(bySize.GetHeight(), 1u);
    EXPECT_EQ(bySize.GetFormat(), 257u);
    EXPECT_EQ(bySize.GetUsedSize(), 5000u);
    EXPECT_EQ(bySize.inUse, 1u);

    TalMemChunk byFormat(640, 480, 35, 0x33, "b");
    EXPECT_EQ(byFormat.GetUsage(), 0x33u) << "because the geometry constructor keeps usage";
    EXPECT_EQ(byFormat.GetSize(), 0u);
    EXPECT_EQ(byFormat.GetUsedSize(), 0u);
    EXPECT_EQ(byFormat.inUse, 0u);

    for (TalMemChunk* c : {&bySize, &byFormat}) {
        EXPECT_EQ(c->GetAlgoName(), "unknown");
        EXPECT_EQ(c->GetModuleName(), "unknown");
        EXPECT_EQ(c->GetAddr(), nullptr) << "because the descriptor is not filled yet";
        ASSERT_NE(c->GetIBuf(), nullptr);
        EXPECT_EQ(c->GetIBuf()->priv, nullptr);
    }
}

TEST_F(TalMemChunkTest, UniqueIds_StartAtOneAndIncrementPerWholeBuffer)
{
    EXPECT_EQ(gFirstIssuedId, 1) << "because the counter starts at 0 and is incremented first";
    auto a = Whole(kPage);
    auto b = Whole(kPage);
    EXPECT_GT(a->GetUniqueId(), 1);
    EXPECT_EQ(b->GetUniqueId(), a->GetUniqueId() + 1);
    EXPECT_EQ(b->GetIBuf()->getBufId(b->GetIBuf()), b->GetUniqueId());
}

TEST_F(TalMemChunkTest, ReCfgUniqueId_WholeTakesNextIdSplitWithOffsetKeepsIt)
{
    auto parent = Whole(4 * kPage);
    auto atZero = Carve(*parent, 0, kPage);
    auto inside = Carve(*parent, 2 * kPage, kPage);
    int32_t parentId = parent->GetUniqueId();
    EXPECT_EQ(atZero->GetUniqueId(), parentId) << "because a split shares its parent's id";
    EXPECT_EQ(inside->GetUniqueId(), parentId);

    auto other = Whole(kPage);
    parent->ReCfgUniqueId();
    EXPECT_EQ(parent->GetUniqueId(), other->GetUniqueId() + 1);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO,
                       "ReCfgUniqueId: uniqueId " + std::to_string(parent->GetUniqueId()) + "\n"));

    inside->ReCfgUniqueId();
    EXPECT_EQ(inside->GetUniqueId(), parentId);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "ReCfgUniqueId: offset 8192 not support\n"));
}

TEST_F(TalMemChunkTest, WholeChunk_AccessorsReportTheLibrarysBuffer)
{
    auto chunk = Whole(5000);
    const qva_ibuf* ib = chunk->GetIBuf();
    ASSERT_NE(ib, nullptr);
    auto* buf = static_cast<QvCamera::ICameraBuffer*>(ib->getGraphicBuf(ib));
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(ib->graphicBuf, buf);
    EXPECT_EQ(chunk->GetAddr(), buf->GetCpuAddr());
    EXPECT_EQ(ib->getAddr(ib), buf->GetCpuAddr());
    EXPECT_EQ(chunk->GetSize(), 5000u) << "because the request is kept";
    EXPECT_EQ(ib->getSize(ib), 8192u) << "because the descriptor reports the page-rounded buffer";
    EXPECT_EQ(ib->getPoolSize(ib), 8192u);
    EXPECT_EQ(ib->getOffset(ib), 0u);
    EXPECT_EQ(ib->getShareFD(ib), buf->GetShareFd());
    EXPECT_NE(fcntl(ib->getShareFD(ib), F_GETFD), -1) << "because the share fd is open";
    EXPECT_EQ(ib->getIOVA(ib), buf->GetIova(0x100, 0));
    EXPECT_NE(ib->getIOVA(ib), 0u);
    EXPECT_EQ(ib->getDevIOVA(ib, BUF_DEV_TYPE_NPU), buf->GetIova(6, 0));
    EXPECT_EQ(ib->getStride(ib), buf->GetStride());
    EXPECT_EQ(ib->getSliceHeight(ib), buf->GetSliceHeight());
    EXPECT_NE(buf->GetStride(), buf->GetSliceHeight()) << "precondition: the two are told apart";
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();
}

TEST_F(TalMemChunkTest, CarvedChunk_AccessorsDescribeTheRangeInsideThePool)
{
    auto pool = Whole(16 * kPage);
    auto carved = Carve(*pool, 2 * kPage, 3 * kPage);
    const qva_ibuf* pib = pool->GetIBuf();
    const qva_ibuf* ib = carved->GetIBuf();
    ASSERT_NE(ib->graphicBuf, nullptr) << "because the split succeeded";
    EXPECT_NE(ib->graphicBuf, pib->graphicBuf);
    EXPECT_EQ(ib->priv != nullptr ? static_cast<qv::MemChunkInfo*>(ib->priv)->base : nullptr,
              pib->priv) << "because a split points at its parent's record";

    auto* poolAddr = static_cast<uint8_t*>(pool->GetAddr());
    EXPECT_EQ(carved->GetAddr(), poolAddr + 2 * kPage);
    EXPECT_EQ(ib->getSize(ib), 3 * kPage);
    EXPECT_EQ(ib->getPoolSize(ib), 16 * kPage);
    EXPECT_EQ(ib->getOffset(ib), 2 * kPage);
    EXPECT_EQ(ib->getShareFD(ib), pib->getShareFD(pib));
    EXPECT_EQ(ib->getBufId(ib), pib->getBufId(pib));
    EXPECT_EQ(ib->getIOVA(ib), pib->getIOVA(pib) + 2 * kPage);
    EXPECT_EQ(ib->getDevIOVA(ib, BUF_DEV_TYPE_ISP), pib->getDevIOVA(pib, BUF_DEV_TYPE_ISP) + 2 * kPage);
    EXPECT_EQ(ib->getStride(ib), ib->graphicBuf->GetStride());
    EXPECT_EQ(ib->getSliceHeight(ib), ib->graphicBuf->GetSliceHeight());

    memset(carved->GetAddr(), 0x5A, 3 * kPage);
    EXPECT_EQ(poolAddr[2 * kPage], 0x5A) << "because a split is a view of the pool";
    EXPECT_EQ(poolAddr[2 * kPage - 1], 0);
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();
}

TEST_F(TalMemChunkTest, NoAllocAndNullParent_LeaveTheChunkWithoutMemory)
{
    uint64_t held = QvCamera::CameraBufferInterface::GetHeldBytes();
    TalMemChunk chunk(kPage, 0, 0, 0, "carved", 1);
    ASSERT_EQ(chunk.Init(), 0);
    EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), held);
    chunk.CfgMemChunk(nullptr, 0, kPage, "algo");
    EXPECT_EQ(chunk.GetAddr(), nullptr);
    EXPECT_EQ(chunk.GetIBuf()->priv, nullptr);
    EXPECT_EQ(chunk.FlushCacheLocal(0, 1), -1);
    EXPECT_EQ(LogCapture::Lines().size(), 0u);
}

TEST_F(TalMemChunkTest, HeapChunk_HasNoDescriptorAndNoId)
{
    TalMemChunk chunk(100, 1, 0, 1, "heap", 1);
    ASSERT_EQ(chunk.Init(), 0);
    ASSERT_NE(chunk.GetAddr(), nullptr);
    memset(chunk.GetAddr(), 0xA5, 100); // the sanitizer checks the block really has 100 bytes
    EXPECT_EQ(chunk.GetIBuf(), nullptr);
    EXPECT_EQ(chunk.GetUniqueId(), 0);
    EXPECT_EQ(chunk.FlushCacheLocal(reinterpret_cast<uintptr_t>(chunk.GetAddr()), 1), -1)
        << "because a heap block has no buffer";
    EXPECT_EQ(LogCapture::Lines().size(), 0u);
}

TEST_F(TalMemChunkTest, Init_FailuresLogAndReturnMinusOne)
{
    TalMemChunk heap(0, 1, 0, 1, "heap", 1);
    EXPECT_EQ(heap.Init(), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "MemMalloc failed\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "Init malloc error memAllocType = 1 size = 0\n"));

    LogCapture::Clear();
    TalMemChunk image(0, 0, 257, 0, "image");
    EXPECT_EQ(image.Init(), -1);
    int allocLines = talmem_test::CountErrorsWithNumber(
        "Alloc,line = ", ",alloc GraphicBuffer fail, return NULL!\n");
    EXPECT_EQ(allocLines, 1) << LogCapture::Dump();
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "Init malloc error memAllocType = 0 size = 0\n"));
    EXPECT_EQ(image.GetAddr(), nullptr);
    EXPECT_EQ(image.GetUniqueId(), 0);
}

TEST_F(TalMemChunkTest, Destruction_ReleasesTheBufferOnceTheLastOwnerGoes)
{
    uint64_t held = QvCamera::CameraBufferInterface::GetHeldBytes();
    auto pool = Whole(16 * kPage);
    EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), held + 16 * kPage);
    auto carved = Carve(*pool, kPage, kPage);
    EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), held + 16 * kPage)
        << "because a split holds no memory of its own";

    int fd = pool->GetIBuf()->getShareFD(pool->GetIBuf());
    std::shared_ptr<QvCamera::ICameraBuffer> callerCopy =
        static_cast<qv::MemChunkInfo*>(pool->GetIBuf()->priv)->buffer;
    carved.reset();
    pool.reset();
    EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), held + 16 * kPage)
        << "because a caller still holds a copy of the buffer";
    callerCopy.reset();
    EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), held);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "because the last owner closes the share fd";
}

// Cache maintenance widened to whole pages. Each case names the chunk, the
// request relative to the chunk's own start, and the call expected.
TEST_F(TalMemChunkTest, CacheLocal_RoundsToPagesAndPicksWholeOrRangeCall)
{
    auto pool = Whole(4 * kPage);
    auto whole = Whole(2 * kPage);
    auto carvedAtZero = Carve(*pool, 0, kPage);
    auto carved = Carve(*pool, kPage, 2 * kPage);
    struct Case {
        const char* what;
        TalMemChunk* chunk;
        uint32_t rel;
        uint32_t size;
        const char* op; // flush op; the invalidate op is derived
        uint32_t len;
        uint32_t start;
    } cases[] = {
        {"whole buffer, all of it", whole.get(), 0, 8192, "", 0, 0},
        {"whole buffer, 100 bytes", whole.get(), 0, 100, "Range", 4096, 0},
        {"whole buffer, widened to all of it", whole.get(), 4000, 200, "", 0, 0},
        {"whole buffer, second page", whole.get(), 4096, 4096, "Range", 4096, 4096},
        {"carved at offset 0, all of it", carvedAtZero.get(), 0, 4096, "", 0, 0},
        {"carved at offset 0, one byte", carvedAtZero.get(), 0, 1, "", 0, 0},
        {"carved at 4096, one byte", carved.get(), 0, 1, "Range", 4096, 4096},
        {"carved at 4096, all of it", carved.get(), 0, 8192, "Range", 8192, 4096},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto fake = qv::TalMemChunkTestPeer::RecordCacheCalls(*c.chunk);
        uintptr_t vaddr = reinterpret_cast<uintptr_t>(c.chunk->GetAddr()) + c.rel;
        EXPECT_EQ(c.chunk->FlushCacheLocal(vaddr, c.size), 0);
        EXPECT_EQ(c.chunk->InvalidateCacheLocal(vaddr, c.size), 0);
        std::string range = c.op;
        std::vector<CacheCall> expected = {{"flush" + range, c.len, c.start},
                                           {"invalidate" + range, c.len, c.start}};
        EXPECT_EQ(fake->calls, expected);
    }
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();
}

TEST_F(TalMemChunkTest, CacheLocal_RejectsOversizeAndOutOfRangeWithExactMessages)
{
    auto whole = Whole(2 * kPage);
    auto fake = qv::TalMemChunkTestPeer::RecordCacheCalls(*whole);
    uintptr_t base = reinterpret_cast<uintptr_t>(whole->GetAddr());

    EXPECT_EQ(whole->FlushCacheLocal(base, 8193), -1);
    EXPECT_EQ(whole->InvalidateCacheLocal(base, 8193), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "FlushCacheLocal: invalid size 8193 memSize 8192 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "InvalidateCacheLocal: invalid size 8193 memSize 8192 \n"));

    EXPECT_EQ(whole->FlushCacheLocal(base + 4096, 5000), -1);
    EXPECT_EQ(whole->InvalidateCacheLocal(base + 4096, 5000), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       "FlushCacheLocal: out of range cacheOffset 4096 cacheSize 8192 memSize 8192 \n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       "InvalidateCacheLocal: out of range cacheOffset 4096 cacheSize8192 memSize 8192 \n"))
        << "because the invalidate message has no blank before its size";

    EXPECT_EQ(whole->FlushCacheLocal(base, 0), -1) << "because an empty range is rejected";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       "FlushCacheLocal: out of range cacheOffset 0 cacheSize 0 memSize 8192 \n"));
    EXPECT_EQ(LogCapture::Lines().size(), 5u);
    EXPECT_TRUE(fake->calls.empty()) << "because nothing is done on rejection";
}

TEST_F(TalMemChunkTest, CacheLocal_CarvedRangeMayNotPassItsOwnEnd)
{
    auto pool = Whole(4 * kPage);
    auto carved = Carve(*pool, kPage, kPage);
    auto fake = qv::TalMemChunkTestPeer::RecordCacheCalls(*carved);
    uintptr_t start = reinterpret_cast<uintptr_t>(carved->GetAddr());
    EXPECT_EQ(carved->FlushCacheLocal(start + 100, 4096), -1)
        << "because the widened range ends at 12288, past offset + size 8192";
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR,
                       "FlushCacheLocal: out of range cacheOffset 4096 cacheSize 8192 memSize 4096 \n"));
    EXPECT_TRUE(fake->calls.empty());
}

} // namespace
