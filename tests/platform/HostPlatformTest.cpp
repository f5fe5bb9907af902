// Host properties (the shared support's tests cover override, file and
// default) and memtrack over the camera-buffer service.
#include "TalTestSupport.h"

#include "CameraBufferInterface.h"
#include "memtrack.h"
#include "talmem_properties.h"

#include <unistd.h>

#include <cerrno>

namespace {

using HostPlatformTest = talmem_test::TalTest;

// The last file line that sets a key wins, trimmed; values are cut to the maximum.
TEST_F(HostPlatformTest, PropertyGet_LastFileLineWinsTrimmedAndTruncatedToTheMaximum)
{
    char value[PROPERTY_VALUE_MAX];
    talmem_test::WriteFile(root_ + "/p", "a.b=1\nno equals sign\n  a.b  =  2  \nlong=" + std::string(200, 'x') + "\n");
    setenv("TALMEM_PROPERTIES", (root_ + "/p").c_str(), 1);
    auto get = [&value](const char* k, const char* def) { return std::to_string(property_get(k, value, def)) + value; };
    EXPECT_EQ(get("a.b", "d") + "|" + get(nullptr, "dd") + "|" + get("missing", nullptr), "12|2dd|0");
    EXPECT_EQ(get("long", ""), std::to_string(PROPERTY_VALUE_MAX - 1) + std::string(PROPERTY_VALUE_MAX - 1, 'x'));
}

// Graphics memory is the bytes the service holds, read as a snapshot.
TEST_F(HostPlatformTest, Memtrack_OwnPidSnapshotOfHeldBytesOtherPidAndNullFail)
{
    memtrack_proc* p = memtrack_proc_new();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(memtrack_proc_get(p, getpid()), 0);
    const ssize_t before = memtrack_proc_graphics_pss(p);
    auto buf = QvCamera::CameraBufferInterface::AllocCamBuffer(5 * 4096, 1, 257, 0, "mt");
    EXPECT_EQ(memtrack_proc_graphics_pss(p), before) << "because the values are a snapshot";
    ASSERT_EQ(memtrack_proc_get(p, getpid()), 0);
    EXPECT_EQ(memtrack_proc_graphics_pss(p), before + 5 * 4096);
    EXPECT_EQ(memtrack_proc_gl_pss(p) + memtrack_proc_other_pss(p), 0);
    EXPECT_EQ(memtrack_proc_get(p, getpid() + 1), -ESRCH);
    EXPECT_EQ(memtrack_proc_get(nullptr, getpid()) + memtrack_proc_graphics_pss(nullptr), -2 * EINVAL);
    memtrack_proc_destroy(p);
}

} // namespace
