// Chunks: usage, ids, the descriptor they fill, heap blocks, page-rounded
// cache calls, release.
#include <fcntl.h>


#include "CameraBufferInterface.h"
#include "FakeCameraBuffer.h"
#include "TalTestSupport.h"
#include "chunk/TalMemChunk.h"
#include "descriptor/TalIbufImpl.h"

using qv::TalMemChunk;
using talmem_test::LogCapture;
using talmem_test::Calls;
using talmem_test::Errors;
using talmem_test::FakeCameraBuffer;
using U64s = std::vector<uint64_t>;

namespace qv {
// Swaps a chunk's buffer for a recording fake at the same CPU address and size.
struct TalMemChunkTestPeer {
    template <typename Fake> static std::shared_ptr<Fake> Record(TalMemChunk& chunk)
    {
        auto fake = std::make_shared<Fake>();
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
int32_t gFirstId = -1; // id of the process's first chunk, taken before any test runs
struct FirstIdEnv : ::testing::Environment {
    void SetUp() override { TalMemChunk c(kPage, 1, 0, 0, "first", 1); gFirstId = c.Init() ? -1 : c.GetUniqueId(); }
};
::testing::Environment* const gEnv = ::testing::AddGlobalTestEnvironment(new FirstIdEnv);

// A whole chunk, or with `parent` a record carved out of it as the pool manager makes one.
std::unique_ptr<TalMemChunk> Make(uint32_t size, TalMemChunk* parent = nullptr, uint32_t offset = 0)
{
    auto chunk = std::make_unique<TalMemChunk>(size, parent ? 0 : 1, 0, 0, "chunk", 1);
    EXPECT_EQ(chunk->Init(), 0);
    if (parent != nullptr) { chunk->CfgMemChunk(parent->GetIBuf(), offset, size, "algo"); }
    return chunk;
}

using TalMemChunkTest = talmem_test::TalTest;

// Usage from the low 12 bits of the selector; heap chunks have no descriptor
// and no id; a record carved from nothing has no address; zero sizes fail.
TEST_F(TalMemChunkTest, Construction_UsageInitialStateHeapBlocksAndInitFailures)
{
    for (const U64s& u : std::vector<U64s>{{0, 0x1000400801}, {0x1001, 0x1400400801}, {0xFFFF00000002, 0x1800400801}}) {
        EXPECT_EQ(TalMemChunk(100, 0, u[0], 0, "n", 7).GetUsage(), u[1]) << u[0];
    }
    TalMemChunk s(5000, 1, 0, 0, "a", 3), f(640, 480, 35, 0x33, "b");
    EXPECT_EQ(U64s({s.GetWidth(), s.GetFormat(), s.GetUsedSize(), s.inUse, f.GetWidth(), f.GetUsage(), f.inUse}),
              U64s({5000, 257, 5000, 1, 640, 0x33, 0}));
    TalMemChunk heap(100, 1, 0, 1, "heap", 1), empty(kPage, 0, 0, 0, "carved", 1);
    ASSERT_TRUE(heap.Init() == 0 && empty.Init() == 0);
    memset(heap.GetAddr(), 0xA5, 100); // the sanitizer checks the block has 100 bytes
    EXPECT_TRUE(heap.GetIBuf() == nullptr && heap.GetUniqueId() == 0);
    EXPECT_EQ(heap.FlushCacheLocal(reinterpret_cast<uintptr_t>(heap.GetAddr()), 1), -1);
    empty.CfgMemChunk(nullptr, 0, kPage, "algo");
    EXPECT_EQ(empty.GetAddr(), nullptr);
    EXPECT_EQ(TalMemChunk(0, 1, 0, 1, "heap", 1).Init() + TalMemChunk(0, 0, 257, 0, "image").Init(), -2);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "MemMalloc failed\n"));
    EXPECT_EQ(Errors(), Calls({"Init malloc error memAllocType = 1 size = 0\n",
                               "Alloc,line = ,alloc GraphicBuffer fail, return NULL!\n",
                               "Init malloc error memAllocType = 0 size = 0\n"}));
}

// Ids count from 1 and a carved record shares its parent's; it reports the buffer at its offset, its size as
// stride and no slice height; the last owner's release closes the share fd and returns the bytes.
TEST_F(TalMemChunkTest, WholeAndCarved_IdsAccessorsAndRelease)
{
    EXPECT_EQ(gFirstId, 1) << "because the counter is incremented before it is read";
    const uint64_t held = QvCamera::CameraBufferInterface::GetHeldBytes();
    auto pool = Make(5 * kPage - 100);
    auto carved = Make(2 * kPage, pool.get(), 2 * kPage);
    const int32_t id = pool->GetUniqueId();
    const qva_ibuf *p = pool->GetIBuf(), *c = carved->GetIBuf();
    auto* buf = static_cast<QvCamera::ICameraBuffer*>(p->getGraphicBuf(p));
    ASSERT_TRUE(buf != nullptr && c->graphicBuf != nullptr && c->graphicBuf != buf);
    auto* base = static_cast<uint8_t*>(pool->GetAddr());
    EXPECT_TRUE(base == buf->GetCpuAddr() && carved->GetAddr() == base + 2 * kPage);
    EXPECT_EQ(U64s({pool->GetSize(), p->getSize(p), p->getPoolSize(p), p->getStride(p), p->getSliceHeight(p)}),
              U64s({5 * kPage - 100, 5 * kPage, 5 * kPage, buf->GetStride(), buf->GetSliceHeight()}));
    EXPECT_EQ(U64s({c->getSize(c), c->getPoolSize(c), c->getOffset(c), (uint64_t)c->getBufId(c), c->getStride(c),
                    c->getSliceHeight(c), (uint64_t)c->getShareFD(c), c->getDevIOVA(c, BUF_DEV_TYPE_NPU)}),
              U64s({2 * kPage, 5 * kPage, 2 * kPage, (uint64_t)id, 2 * kPage, 0, (uint64_t)buf->GetShareFd(),
                    buf->GetIova(6, 0) + 2 * kPage}));
    pool->ReCfgUniqueId();
    carved->ReCfgUniqueId();
    EXPECT_TRUE(pool->GetUniqueId() == id + 1 && carved->GetUniqueId() == id) << "renewed only at offset 0";
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "ReCfgUniqueId: uniqueId " + std::to_string(id + 1) + "\n"));
    EXPECT_EQ(Errors(), Calls({"ReCfgUniqueId: offset 8192 not support\n"}));
    const int fd = p->getShareFD(p);
    carved.reset();
    pool.reset();
    EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), held);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "because the last owner closes the share fd";
}

// Requests relative to the chunk's start, widened to pages: the call made ("flush" + suffix, "invalidate" +
// suffix), or no call and both messages (the invalidate one lacks the space after "cacheSize").
TEST_F(TalMemChunkTest, CacheLocal_RoundsToPagesPicksWholeOrRangeCallOrRejects)
{
    auto pool = Make(4 * kPage), whole = Make(2 * kPage);
    auto atZero = Make(kPage, pool.get(), 0), carved = Make(2 * kPage, pool.get(), kPage);
    const std::string range = "out of range cacheOffset ";
    const struct { TalMemChunk* chunk; uint32_t rel, size; const char* call; std::string flush = ""; } cases[] = {
        {whole.get(), 0, 100, "Range(4096,0)"},
        {whole.get(), 4000, 200, ""},
        {atZero.get(), 0, 1, ""},
        {carved.get(), 0, 8192, "Range(8192,4096)"},
        {whole.get(), 0, 8193, nullptr, "invalid size 8193 memSize 8192 \n"},
        {whole.get(), 4096, 5000, nullptr, range + "4096 cacheSize 8192 memSize 8192 \n"},
        {whole.get(), 0, 0, nullptr, range + "0 cacheSize 0 memSize 8192 \n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.rel << "+" << c.size);
        LogCapture::Clear();
        auto fake = qv::TalMemChunkTestPeer::Record<FakeCameraBuffer>(*c.chunk);
        uintptr_t va = reinterpret_cast<uintptr_t>(c.chunk->GetAddr()) + c.rel;
        EXPECT_EQ(c.chunk->FlushCacheLocal(va, c.size) + c.chunk->InvalidateCacheLocal(va, c.size), c.call ? 0 : -2);
        const size_t sp = c.flush.find("cacheSize ");
        const std::string inv = sp == std::string::npos ? c.flush : c.flush.substr(0, sp + 9) + c.flush.substr(sp + 10);
        const std::string call = c.call ? c.call : "";
        EXPECT_EQ(fake->calls, c.call ? Calls({"flush" + call, "invalidate" + call}) : Calls());
        EXPECT_EQ(Errors(), c.call ? Calls() : Calls({"FlushCacheLocal: " + c.flush, "InvalidateCacheLocal: " + inv}));
    }
    // The descriptor's own calls: the record's offset, not its size, picks the whole-buffer call.
    for (TalMemChunk* chunk : {atZero.get(), carved.get()}) {
        auto fake = qv::TalMemChunkTestPeer::Record<FakeCameraBuffer>(*chunk);
        const qva_ibuf* ib = chunk->GetIBuf();
        EXPECT_EQ(ib->flushCache(ib) + ib->invalidateCache(ib), 2);
        EXPECT_EQ(fake->calls, chunk == atZero.get() ? Calls({"flush", "invalidate"})
                                                     : Calls({"flushRange(8192,4096)", "invalidateRange(8192,4096)"}));
    }
}

} // namespace
