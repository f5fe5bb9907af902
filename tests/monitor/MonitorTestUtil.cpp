#include "MonitorTestUtil.h"

#include <new>

namespace monitor_test {

using qv::TalMemChunk;

void MonitorTest::SetUp()
{
    TalTest::SetUp();
    impl_.reset(new qv::TalMemPoolImpl());
    talmem_test::LogCapture::Clear();
}

void MonitorTest::TearDown()
{
    impl_.reset();
    // Carved records point into their pool chunk: release newest first.
    while (!owned_.empty()) {
        owned_.pop_back();
    }
    TalTest::TearDown();
}

void MonitorTest::Bind()
{
    ASSERT_EQ(0, monitor().PoolMonitorInit(impl_->poolChunkList, impl_->sysPrevMcMap));
}

TalMemChunk* MonitorTest::Direct(uint32_t size, int allocType, const std::string& algo,
                                 bool camera, const std::string& module)
{
    // Heap chunks (memory type 1) carry the same attributes as camera buffers.
    auto chunk = std::make_unique<TalMemChunk>(size, 1, 0, camera ? 0 : 1, "PP:" + algo, 1);
    EXPECT_EQ(0, chunk->Init());
    chunk->poolId = 0;
    chunk->streamState = impl_->streamState;
    chunk->inUse = 1;
    chunk->SetModuleName(module);
    chunk->SetAlgoName(algo);
    chunk->SetAllocateType(allocType);
    owned_.push_back(std::move(chunk));
    return owned_.back().get();
}

TalMemChunk* MonitorTest::AddPool(uint32_t size, int32_t poolId)
{
    TalMemChunk* chunk = new (std::nothrow) TalMemChunk(size, 0, 0, 0, "Unknown", 1);
    EXPECT_NE(nullptr, chunk);
    EXPECT_EQ(0, chunk->Init());
    chunk->poolId = poolId;
    impl_->poolChunkList.push_back(chunk);
    return chunk;
}

TalMemChunk* MonitorTest::CameraPool(uint32_t size, int32_t poolId)
{
    auto chunk = std::make_unique<TalMemChunk>(size, 1, 0, 0, "Unknown", 1);
    EXPECT_EQ(0, chunk->Init());
    chunk->poolId = poolId;
    owned_.push_back(std::move(chunk));
    return owned_.back().get();
}

TalMemChunk* MonitorTest::Carved(TalMemChunk* pool, uint32_t offset, uint32_t size,
                                 int allocType, const std::string& algo, const std::string& module)
{
    auto chunk = std::make_unique<TalMemChunk>(size, 0, 0, 0, "PP:" + algo, 1);
    EXPECT_EQ(0, chunk->Init());
    chunk->CfgMemChunk(pool->GetIBuf(), offset, size, algo);
    chunk->poolId = pool->poolId;
    chunk->streamState = impl_->streamState;
    chunk->SetModuleName(module);
    chunk->SetAlgoName(algo);
    chunk->SetAllocateType(allocType);
    chunk->SetForceFromSys(0);
    owned_.push_back(std::move(chunk));
    return owned_.back().get();
}

std::vector<std::string> MonitorTest::DebugLinesStartingWith(const std::string& prefix)
{
    std::vector<std::string> out;
    for (const auto& line : talmem_test::LogCapture::Lines()) {
        if (line.priority == ANDROID_LOG_DEBUG && line.message.compare(0, prefix.size(), prefix) == 0) {
            out.push_back(line.message);
        }
    }
    return out;
}

std::vector<std::string> MonitorTest::HexNumbersIn(const std::string& fragment)
{
    static const std::regex kHex("0x([0-9a-fA-F]+)");
    std::vector<std::string> out;
    for (const auto& line : talmem_test::LogCapture::Lines()) {
        if (line.message.find(fragment) == std::string::npos) {
            continue;
        }
        for (std::sregex_iterator it(line.message.begin(), line.message.end(), kHex), end;
             it != end; ++it) {
            out.push_back((*it)[1].str());
        }
    }
    return out;
}

} // namespace monitor_test
