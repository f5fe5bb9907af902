// The exported pack buffer ends the pool allocation of the camera buffer it
// holds when it is destroyed; the camera buffer lives on with its other owners.

#include "CameraBufferInterface.h"
#include "TalTestSupport.h"
#include "talmem/TalMemPackBuffer.h"

namespace {

using TalMemPackBufferTest = talmem_test::TalTest;

TEST_F(TalMemPackBufferTest, Destruction_EndsThePoolAllocationButNotTheCameraBuffer)
{
    qv::TalMemPool::NewPool();
    auto held = qv::TalMemPool::Malloc(qv::MallocInfo{1024, 512, 257, 0x3}, "packNode");
    ASSERT_TRUE(held);
    void* addr = held->GetCpuAddr();
    talmem_test::LogCapture::Clear();
    ZoSit::TalMemPackBuffer(nullptr).GetBuffer();
    EXPECT_TRUE(talmem_test::LogCapture::Lines().empty()) << "because an empty wrapper calls nothing";
    ASSERT_NE(qv::TalMemPool::GetIBuf(addr), nullptr);
    auto pack = std::make_unique<ZoSit::TalMemPackBuffer>(held);
    EXPECT_EQ(pack->GetBuffer(), held);
    pack.reset();
    EXPECT_EQ(qv::TalMemPool::GetIBuf(addr), nullptr) << "because the wrapper freed the allocation";
    EXPECT_EQ(held.use_count(), 1) << "because the pool's chunk went with the allocation";
    qv::TalMemPool::DeletePool();
}

} // namespace
