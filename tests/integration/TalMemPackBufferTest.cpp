// The exported pack buffer: it holds a camera buffer from the pool and ends
// the pool allocation when it is destroyed; the camera buffer itself lives on
// with its other owners.

#include "TalTestSupport.h"

#include <cstring>
#include <memory>

#include "CameraBufferInterface.h"
#include "talmem/TalMemPackBuffer.h"
#include "talmem/TalMemPool.h"

using qv::TalMemPool;
using talmem_test::LogCapture;
using talmem_test::TalTest;

namespace {

constexpr uint32_t kBlobFormat = 257; // plain bytes: width x height

class TalMemPackBufferTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        TalMemPool::NewPool();
        ASSERT_NE(TalMemPool::poolThread, nullptr);
        LogCapture::Clear();
    }
    void TearDown() override
    {
        TalMemPool::DeletePool();
        TalTest::TearDown();
    }

    const qv::MallocInfo info{1024, 512, kBlobFormat, 0x3};
};

TEST_F(TalMemPackBufferTest, Destruction_EndsThePoolAllocationButNotTheCameraBuffer)
{
    std::shared_ptr<QvCamera::ICameraBuffer> held = TalMemPool::Malloc(info, "packNode");
    ASSERT_TRUE(held);
    void* addr = held->GetCpuAddr();
    ASSERT_NE(TalMemPool::GetIBuf(addr), nullptr);

    const long owners = held.use_count(); // this test and the pool's chunk
    auto pack = std::make_unique<ZoSit::TalMemPackBuffer>(held);
    EXPECT_EQ(held.use_count(), owners + 1);
    {
        std::shared_ptr<QvCamera::ICameraBuffer> copy = pack->GetBuffer();
        EXPECT_EQ(copy, held);
        EXPECT_EQ(held.use_count(), owners + 2) << "because GetBuffer hands out another owner";
    }

    pack.reset();
    EXPECT_EQ(TalMemPool::GetIBuf(addr), nullptr) << "because the wrapper freed the allocation";
    EXPECT_EQ(held.use_count(), 1) << "because the pool's chunk went with the allocation";
    // The memory stays mapped for the last owner.
    memset(held->GetCpuAddr(), 0x5A, held->GetSize());
    EXPECT_EQ(static_cast<unsigned char*>(held->GetCpuAddr())[held->GetSize() - 1], 0x5A);
}

TEST_F(TalMemPackBufferTest, Destruction_ReturnsAPreallocatedBufferForReuse)
{
    TalMemPool::PreAllocPool(info, "packNode", 1);
    void* first = nullptr;
    {
        ZoSit::TalMemPackBuffer pack(TalMemPool::Malloc(info, "packNode"));
        ASSERT_TRUE(pack.GetBuffer());
        first = pack.GetBuffer()->GetCpuAddr();
        EXPECT_NE(TalMemPool::GetIBuf(first), nullptr);
    }
    std::shared_ptr<QvCamera::ICameraBuffer> again = TalMemPool::Malloc(info, "packNode");
    ASSERT_TRUE(again);
    EXPECT_EQ(again->GetCpuAddr(), first)
        << "because the wrapper gave the preallocated buffer back to the pool";
    ZoSit::TalMemPackBuffer last(again);
    TalMemPool::ReleasePool(info);
}

TEST_F(TalMemPackBufferTest, EmptyWrapper_CallsNothing)
{
    std::shared_ptr<QvCamera::ICameraBuffer> held = TalMemPool::Malloc(info, "packNode");
    ASSERT_TRUE(held);
    LogCapture::Clear();
    {
        ZoSit::TalMemPackBuffer empty(nullptr);
        EXPECT_FALSE(empty.GetBuffer());
    }
    EXPECT_TRUE(LogCapture::Lines().empty()) << LogCapture::Dump();
    EXPECT_NE(TalMemPool::GetIBuf(held->GetCpuAddr()), nullptr);
    TalMemPool::Free(held->GetCpuAddr(), "packNode", nullptr);
}

} // namespace
