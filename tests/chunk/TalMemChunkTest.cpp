#include <fcntl.h>

#include <cstring>

#include "FakeCameraBuffer.h"
#include "chunk/TalMemChunk.h"
#include "interface/TalIbufImpl.h"

using QvCamera::CameraBufferInterface;
using qv::TalMemChunk;
using talmem_test::LogCapture;
using Calls = std::vector<std::string>;

namespace qv {
// Swaps a chunk's buffer for a recording fake at the same CPU address and size.
struct TalMemChunkTestPeer {
    static std::shared_ptr<talmem_test::FakeCameraBuffer> Record(TalMemChunk& chunk)
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
int32_t gFirstId = -1; // id of the process's first chunk, taken before any test runs
struct FirstIdEnv : ::testing::Environment {
    void SetUp() override
    {
        TalMemChunk chunk(kPage, 1, 0, 0, "first", 1);
        gFirstId = chunk.Init() == 0 ? chunk.GetUniqueId() : -1;
    }
};
::testing::Environment* const gEnv = ::testing::AddGlobalTestEnvironment(new FirstIdEnv);

std::unique_ptr<TalMemChunk> Whole(uint32_t size)
{
    auto chunk = std::make_unique<TalMemChunk>(size, 1, 0, 0, "whole", 1);
    EXPECT_EQ(chunk->Init(), 0);
    return chunk;
}

// A record carved out of `parent` as the pool manager makes one.
std::unique_ptr<TalMemChunk> Carve(TalMemChunk& parent, uint32_t offset, uint32_t size)
{
    auto chunk = std::make_unique<TalMemChunk>(size, 0, 0, 0, "carved", 1);
    EXPECT_EQ(chunk->Init(), 0);
    chunk->CfgMemChunk(parent.GetIBuf(), offset, size, "algo");
    return chunk;
}

using TalMemChunkTest = talmem_test::TalTest;

TEST_F(TalMemChunkTest, Constructors_InitialStateAndUsageFromLow12BitsOfSelector)
{
    for (const auto& c : {std::make_pair(0ull, 0x1000400801ull), {1ull, 0x1400400801ull},
                          {0xFFFF00000002ull, 0x1800400801ull}, {0x1001ull, 0x1400400801ull}}) {
        EXPECT_EQ(TalMemChunk(100, 0, c.first, 0, "n", 7).GetUsage(), c.second) << c.first;
    }
    TalMemChunk s(5000, 1, 0, 0, "a", 3), f(640, 480, 35, 0x33, "b");
    EXPECT_EQ(std::vector<uint64_t>({s.GetWidth(), s.GetHeight(), s.GetFormat(), s.GetUsedSize(), s.inUse,
                                     f.GetWidth(), f.GetHeight(), f.GetFormat(), f.GetUsage(), f.GetSize(), f.inUse}),
              std::vector<uint64_t>({5000, 1, 257, 5000, 1, 640, 480, 35, 0x33, 0, 0}));
    EXPECT_EQ(s.GetAlgoName() + s.GetModuleName() + f.GetAlgoName(), "unknownunknownunknown");
    EXPECT_TRUE(s.GetAddr() == nullptr && f.GetAddr() == nullptr) << "because the descriptor is empty";
}

TEST_F(TalMemChunkTest, UniqueIds_FromOneSharedBySplitsRenewedOnlyAtOffsetZero)
{
    EXPECT_EQ(gFirstId, 1) << "because the counter is incremented before it is read";
    auto parent = Whole(4 * kPage);
    auto other = Whole(kPage);
    auto inside = Carve(*parent, 2 * kPage, kPage);
    int32_t old = parent->GetUniqueId();
    EXPECT_EQ(other->GetUniqueId(), old + 1);
    EXPECT_EQ(inside->GetIBuf()->getBufId(inside->GetIBuf()), old) << "because a split shares the id";
    parent->ReCfgUniqueId();
    inside->ReCfgUniqueId();
    EXPECT_TRUE(parent->GetUniqueId() == old + 2 && inside->GetUniqueId() == old);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "ReCfgUniqueId: uniqueId " + std::to_string(old + 2) + "\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "ReCfgUniqueId: offset 8192 not support\n"));
}

TEST_F(TalMemChunkTest, Accessors_WholeAndCarvedThenReleaseWithTheLastOwner)
{
    uint64_t held = CameraBufferInterface::GetHeldBytes();
    auto pool = Whole(5 * kPage - 100);
    auto carved = Carve(*pool, 2 * kPage, 2 * kPage);
    const qva_ibuf* p = pool->GetIBuf();
    const qva_ibuf* c = carved->GetIBuf();
    auto* buf = static_cast<QvCamera::ICameraBuffer*>(p->getGraphicBuf(p));
    ASSERT_TRUE(buf != nullptr && c->graphicBuf != nullptr && c->graphicBuf != buf);
    auto* base = static_cast<uint8_t*>(pool->GetAddr());
    EXPECT_TRUE(base == buf->GetCpuAddr() && carved->GetAddr() == base + 2 * kPage);
    EXPECT_EQ(std::vector<uint64_t>({pool->GetSize(), p->getSize(p), p->getPoolSize(p), p->getOffset(p),
                                     c->getSize(c), c->getPoolSize(c), c->getOffset(c)}),
              std::vector<uint64_t>({5 * kPage - 100, 5 * kPage, 5 * kPage, 0, 2 * kPage, 5 * kPage, 2 * kPage}));
    EXPECT_EQ(std::vector<uint64_t>({(uint64_t)p->getShareFD(p), (uint64_t)c->getShareFD(c), p->getIOVA(p),
                                     c->getIOVA(c), c->getDevIOVA(c, BUF_DEV_TYPE_NPU), p->getStride(p),
                                     p->getSliceHeight(p), c->getStride(c), c->getSliceHeight(c)}),
              std::vector<uint64_t>({(uint64_t)buf->GetShareFd(), (uint64_t)buf->GetShareFd(), buf->GetIova(0x100, 0),
                                     buf->GetIova(0x100, 0) + 2 * kPage, buf->GetIova(6, 0) + 2 * kPage,
                                     buf->GetStride(), buf->GetSliceHeight(), 2 * kPage, 0}));
    memset(carved->GetAddr(), 0x5A, 2 * kPage);
    EXPECT_EQ(base[2 * kPage - 1] * 256 + base[2 * kPage], 0x5A) << "because a split is a view";
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();

    int fd = p->getShareFD(p);
    auto callerCopy = static_cast<qv::MemChunkInfo*>(p->priv)->buffer;
    carved.reset();
    pool.reset();
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), held + 5 * kPage) << "because a caller holds a copy";
    callerCopy.reset();
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), held);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "because the last owner closes the share fd";
}

TEST_F(TalMemChunkTest, HeapAndEmptyChunks_NoDescriptorNoIdAndInitFailures)
{
    TalMemChunk heap(100, 1, 0, 1, "heap", 1), empty(kPage, 0, 0, 0, "carved", 1);
    ASSERT_TRUE(heap.Init() == 0 && empty.Init() == 0);
    memset(heap.GetAddr(), 0xA5, 100); // the sanitizer checks the block has 100 bytes
    EXPECT_TRUE(heap.GetIBuf() == nullptr && heap.GetUniqueId() == 0);
    EXPECT_EQ(heap.FlushCacheLocal(reinterpret_cast<uintptr_t>(heap.GetAddr()), 1), -1);
    empty.CfgMemChunk(nullptr, 0, kPage, "algo");
    EXPECT_EQ(empty.GetAddr(), nullptr);
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << "because both are silent";

    EXPECT_EQ(TalMemChunk(0, 1, 0, 1, "heap", 1).Init() + TalMemChunk(0, 0, 257, 0, "image").Init(), -2);
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "MemMalloc failed\n"));
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "Init malloc error memAllocType = 1 size = 0\n"));
    EXPECT_EQ(talmem_test::CountNumbered("Alloc,line = ", ",alloc GraphicBuffer fail, return NULL!\n"), 1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "Init malloc error memAllocType = 0 size = 0\n"));
    EXPECT_EQ(LogCapture::Lines().size(), 4u) << LogCapture::Dump();
}

// Requests relative to the chunk's own start, widened to pages: the call made
// ("flush" + suffix, "invalidate" + suffix), or both rejection messages and no
// call at all.
TEST_F(TalMemChunkTest, CacheLocal_RoundsToPagesPicksWholeOrRangeCallOrRejects)
{
    auto pool = Whole(4 * kPage);
    auto whole = Whole(2 * kPage);
    auto atZero = Carve(*pool, 0, kPage);
    auto carved = Carve(*pool, kPage, 2 * kPage);
    struct Case {
        TalMemChunk* chunk;
        uint32_t rel, size;
        const char* call; // null: rejected with the two messages below
        const char *flush = nullptr, *invalidate = nullptr;
    };
    const Case cases[] = {
        {whole.get(), 0, 8192, ""},   {whole.get(), 0, 100, "Range(4096,0)"},
        {whole.get(), 4000, 200, ""}, {whole.get(), 4096, 4096, "Range(4096,4096)"},
        {atZero.get(), 0, 1, ""},     {carved.get(), 0, 1, "Range(4096,4096)"},
        {carved.get(), 0, 8192, "Range(8192,4096)"},
        {whole.get(), 0, 8193, nullptr, "FlushCacheLocal: invalid size 8193 memSize 8192 \n",
         "InvalidateCacheLocal: invalid size 8193 memSize 8192 \n"},
        {whole.get(), 4096, 5000, nullptr,
         "FlushCacheLocal: out of range cacheOffset 4096 cacheSize 8192 memSize 8192 \n",
         "InvalidateCacheLocal: out of range cacheOffset 4096 cacheSize8192 memSize 8192 \n"},
        {whole.get(), 0, 0, nullptr, "FlushCacheLocal: out of range cacheOffset 0 cacheSize 0 memSize 8192 \n",
         "InvalidateCacheLocal: out of range cacheOffset 0 cacheSize0 memSize 8192 \n"},
        {carved.get(), 100, 8192, nullptr,
         "FlushCacheLocal: out of range cacheOffset 4096 cacheSize 12288 memSize 8192 \n",
         "InvalidateCacheLocal: out of range cacheOffset 4096 cacheSize12288 memSize 8192 \n"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.rel << "+" << c.size);
        LogCapture::Clear();
        auto fake = qv::TalMemChunkTestPeer::Record(*c.chunk);
        uintptr_t vaddr = reinterpret_cast<uintptr_t>(c.chunk->GetAddr()) + c.rel;
        EXPECT_EQ(c.chunk->FlushCacheLocal(vaddr, c.size) + c.chunk->InvalidateCacheLocal(vaddr, c.size),
                  c.call ? 0 : -2);
        std::string call = c.call ? c.call : "";
        EXPECT_EQ(fake->calls, c.call ? Calls({"flush" + call, "invalidate" + call}) : Calls());
        auto lines = LogCapture::Lines();
        ASSERT_EQ(lines.size(), c.call ? 0u : 2u) << LogCapture::Dump();
        if (!c.call) {
            EXPECT_NE(lines[0].text.find(" FlushCacheLocal() "), std::string::npos) << lines[0].text;
            EXPECT_NE(lines[1].text.find(" InvalidateCacheLocal() "), std::string::npos) << lines[1].text;
        }
        EXPECT_TRUE(c.call || (Logged(ANDROID_LOG_ERROR, c.flush) && Logged(ANDROID_LOG_ERROR, c.invalidate)));
    }
    // The descriptor's own calls: the record's offset, not its size, picks
    // the whole-buffer call; a carved record reports its own size.
    for (TalMemChunk* chunk : {atZero.get(), carved.get()}) {
        auto fake = qv::TalMemChunkTestPeer::Record(*chunk);
        fake->size = 3 * kPage; // more than was carved
        const qva_ibuf* ib = chunk->GetIBuf();
        bool atOffset = chunk == carved.get();
        EXPECT_EQ(ib->flushCache(ib) + ib->invalidateCache(ib), 2);
        EXPECT_EQ(ib->getSize(ib), atOffset ? 2 * kPage : 3 * kPage);
        EXPECT_EQ(fake->calls, atOffset ? Calls({"flushRange(8192,4096)", "invalidateRange(8192,4096)"})
                                        : Calls({"flush", "invalidate"}));
    }
}

} // namespace
