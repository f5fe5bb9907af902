#include "TalTestSupport.h"

#include "CameraBufferInterface.h"
#include "memtrack.h"

#include <unistd.h>

#include <cerrno>

namespace {

class MemtrackTest : public talmem_test::TalTest {
protected:
    void TearDown() override
    {
        TalHostSetMemtrackFault(TAL_MEMTRACK_OK, 0);
        talmem_test::TalTest::TearDown();
    }
};

TEST_F(MemtrackTest, OwnPid_GraphicsFollowsTheBytesTheBufferServiceHolds)
{
    memtrack_proc* p = memtrack_proc_new();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(memtrack_proc_get(p, getpid()), 0);
    const ssize_t before = memtrack_proc_graphics_pss(p);
    EXPECT_EQ(static_cast<uint64_t>(before), QvCamera::CameraBufferInterface::GetHeldBytes());

    auto buf = QvCamera::CameraBufferInterface::AllocCamBuffer(5 * 4096, 1, 257, 0, "mt");
    ASSERT_NE(buf, nullptr);
    EXPECT_EQ(memtrack_proc_graphics_pss(p), before) << "because the values are a snapshot";
    ASSERT_EQ(memtrack_proc_get(p, getpid()), 0);
    EXPECT_EQ(memtrack_proc_graphics_pss(p), before + 5 * 4096);
    EXPECT_EQ(memtrack_proc_gl_pss(p), 0);
    EXPECT_EQ(memtrack_proc_other_pss(p), 0);

    buf.reset();
    ASSERT_EQ(memtrack_proc_get(p, getpid()), 0);
    EXPECT_EQ(memtrack_proc_graphics_pss(p), before);
    memtrack_proc_destroy(p);
}

TEST_F(MemtrackTest, OtherPidOrNullHandle_Fail)
{
    memtrack_proc* p = memtrack_proc_new();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(memtrack_proc_get(p, getpid() + 1), -ESRCH);
    EXPECT_LT(memtrack_proc_graphics_pss(p), 0) << "because nothing was read";
    EXPECT_EQ(memtrack_proc_get(nullptr, getpid()), -EINVAL);
    EXPECT_EQ(memtrack_proc_graphics_pss(nullptr), -EINVAL);
    EXPECT_EQ(memtrack_proc_gl_pss(nullptr), -EINVAL);
    EXPECT_EQ(memtrack_proc_other_pss(nullptr), -EINVAL);
    memtrack_proc_destroy(p);
    memtrack_proc_destroy(nullptr);
}

TEST_F(MemtrackTest, Faults_FailExactlyTheChosenStepUntilCleared)
{
    TalHostSetMemtrackFault(TAL_MEMTRACK_NEW, 0);
    EXPECT_EQ(memtrack_proc_new(), nullptr);
    TalHostSetMemtrackFault(TAL_MEMTRACK_GL, -7);
    memtrack_proc* p = memtrack_proc_new();
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(memtrack_proc_get(p, getpid()), 0);
    EXPECT_GE(memtrack_proc_graphics_pss(p), 0);
    EXPECT_EQ(memtrack_proc_gl_pss(p), -7);
    EXPECT_EQ(memtrack_proc_other_pss(p), 0);
    TalHostSetMemtrackFault(TAL_MEMTRACK_GET, -22);
    EXPECT_EQ(memtrack_proc_get(p, getpid()), -22);
    TalHostSetMemtrackFault(TAL_MEMTRACK_OK, 0);
    EXPECT_EQ(memtrack_proc_get(p, getpid()), 0);
    EXPECT_EQ(memtrack_proc_gl_pss(p), 0);
    memtrack_proc_destroy(p);
}

} // namespace
