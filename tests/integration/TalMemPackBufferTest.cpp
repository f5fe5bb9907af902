// The exported pack buffer ends the pool allocation of the camera buffer it
// holds when it is destroyed; the camera buffer lives on with its other owners.

#include "TalTestSupport.h"

#include <memory>

#include "CameraBufferInterface.h"
#include "talmem/TalMemPackBuffer.h"

using qv::TalMemPool;
using talmem_test::LogCapture;

namespace {

class TalMemPackBufferTest : public talmem_test::TalTest {};

TEST_F(TalMemPackBufferTest, Destruction_EndsThePoolAllocationButNotTheCameraBuffer)
{
    TalMemPool::NewPool();
    auto held = TalMemPool::Malloc(qv::MallocInfo{1024, 512, 257, 0x3}, "packNode");
    ASSERT_TRUE(held);
    void* addr = held->GetCpuAddr();
    const long owners = held.use_count(); // this test and the pool's chunk
    LogCapture::Clear();
    ZoSit::TalMemPackBuffer(nullptr).GetBuffer();
    EXPECT_TRUE(LogCapture::Lines().empty()) << "because an empty wrapper calls nothing";
    ASSERT_NE(TalMemPool::GetIBuf(addr), nullptr);

    auto pack = std::make_unique<ZoSit::TalMemPackBuffer>(held);
    EXPECT_EQ(pack->GetBuffer(), held);
    EXPECT_EQ(held.use_count(), owners + 1) << "because the wrapper is one more owner";
    pack.reset();
    EXPECT_EQ(TalMemPool::GetIBuf(addr), nullptr) << "because the wrapper freed the allocation";
    EXPECT_EQ(held.use_count(), 1) << "because the pool's chunk went with the allocation";
    held.reset();
    TalMemPool::DeletePool();
}

} // namespace
