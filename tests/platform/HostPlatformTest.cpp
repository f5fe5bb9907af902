// Host properties, device paths, bounds-checked functions, and memtrack over
// the camera-buffer service.
#include "TalTestSupport.h"

#include "CameraBufferInterface.h"
#include "memtrack.h"
#include "securec.h"
#include "talmem_platform.h"
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

// An in-process value hides the file's until it is removed.
TEST_F(HostPlatformTest, PropertyOverride_WinsOverTheFileUntilRemoved)
{
    char value[PROPERTY_VALUE_MAX];
    talmem_test::WriteFile(root_ + "/p", "k=file\n");
    setenv("TALMEM_PROPERTIES", (root_ + "/p").c_str(), 1);
    TalHostSetProperty("k", "mine");
    property_get("k", value, "");
    EXPECT_STREQ(value, "mine");
    TalHostSetProperty("k", nullptr);
    property_get("k", value, "");
    EXPECT_STREQ(value, "file");
}

TEST_F(HostPlatformTest, DevicePathAndBoundedFunctions_BehaveAsThePlatformDoes)
{
    setenv("TALMEM_ROOT", "/tmp/dev//", 1);
    EXPECT_EQ(qv::TalDevicePath("/data/vendor/camera/"), "/tmp/dev/data/vendor/camera/");
    setenv("TALMEM_ROOT", "", 1);
    EXPECT_EQ(qv::TalDevicePath("/odm/etc/camera/"), "/odm/etc/camera/");
    setenv("TALMEM_ROOT", root_.c_str(), 1);

    char buf[9] = "zzzzzzzz";
    EXPECT_EQ(memset_s(buf, 4, 'q', 6), ERANGE);
    EXPECT_STREQ(buf, "qqqqzzzz") << "because only destMax bytes are filled";
    EXPECT_EQ(memset_s(nullptr, 4, 0, 1), EINVAL);
    EXPECT_EQ(snprintf_s(buf, 8, 7, "%s", "abcdefghij"), -1) << "because the output was cut";
    EXPECT_EQ(snprintf_s(buf, 8, 7, "%d", 1234567), 7);
    EXPECT_EQ(strncpy_s(buf, 8, "abcdef", 3), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_TRUE(strncpy_s(buf, 8, "abcdefgh", 8) == ERANGE && buf[0] == '\0');
    int w = 0;
    EXPECT_TRUE(sscanf_s("w=12", "w=%d", &w) == 1 && w == 12);
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
