#include "TalTestSupport.h"

#include "CameraBufferInterface.h"
#include "memtrack.h"
#include "securec.h"
#include "talmem_platform.h"
#include "talmem_properties.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace {

using HostPlatformTest = talmem_test::TalTest;

TEST_F(HostPlatformTest, PropertyGet_LastFileLineWinsOverridesFirstTruncatedToTheMaximum)
{
    char value[PROPERTY_VALUE_MAX];
    std::string file = root_ + "/props";
    talmem_test::WriteFile(file, "a.b=1\nno equals sign\n  a.b  =  2  \nlong=" + std::string(200, 'x') + "\nempty=\n");
    setenv("TALMEM_PROPERTIES", file.c_str(), 1);
    auto get = [&value](const char* key, const char* def) {
        return std::to_string(property_get(key, value, def)) + value; // length, then the value
    };
    EXPECT_EQ(get("a.b", "d"), "12") << "because the last line that sets a key wins, trimmed";
    EXPECT_EQ(get("long", ""), std::to_string(PROPERTY_VALUE_MAX - 1) + std::string(PROPERTY_VALUE_MAX - 1, 'x'));
    EXPECT_EQ(get("empty", "d") + "|" + get("missing", nullptr) + "|" + get(nullptr, "dd"), "0|0|2dd");
    EXPECT_EQ(property_get("a.b", nullptr, "d"), 0);
    TalHostSetProperty("a.b", "7");
    EXPECT_EQ(get("a.b", "d"), "17");
    TalHostSetProperty("a.b", nullptr);
    EXPECT_EQ(get("a.b", "d"), "12") << "because removing the override uncovers the file";
    setenv("TALMEM_PROPERTIES", (root_ + "/absent").c_str(), 1);
    EXPECT_EQ(get("a.b", "def"), "3def");
}

TEST_F(HostPlatformTest, DevicePath_UnderTheRootWithoutDoubleSlashes)
{
    std::string saved = getenv("TALMEM_ROOT");
    setenv("TALMEM_ROOT", "/tmp/dev//", 1);
    EXPECT_EQ(qv::TalDevicePath("/data/vendor/camera/"), "/tmp/dev/data/vendor/camera/");
    setenv("TALMEM_ROOT", "", 1);
    EXPECT_EQ(qv::TalDevicePath("/data/vendor/camera/"), "/data/vendor/camera/");
    setenv("TALMEM_ROOT", saved.c_str(), 1);
}

TEST_F(HostPlatformTest, SecureFunctions_ResultsAndPartialOutputOnFailure)
{
    char buf[9] = "zzzzzzzz";
    EXPECT_EQ(memset_s(buf, 4, 'q', 6), ERANGE);
    EXPECT_STREQ(buf, "qqqqzzzz") << "because only destMax bytes are filled";
    EXPECT_EQ(memset_s(buf, 0, 0, 0) + memset_s(nullptr, 4, 0, 1), 2 * EINVAL);
    EXPECT_TRUE(snprintf_s(buf, 8, 7, "%s", "abcdefghij") == -1 && std::string(buf) == "abcdefg")
        << "because a truncated result keeps what fits";
    EXPECT_EQ(snprintf_s(buf, 8, 7, "%d", 1234567), 7);
    EXPECT_EQ(strncpy_s(buf, 8, "abcdef", 3), 0);
    EXPECT_STREQ(buf, "abc") << "because count limits the copy";
    EXPECT_TRUE(strncpy_s(buf, 8, "abcdefgh", 8) == ERANGE && buf[0] == '\0') << "no room for the NUL";
    int a = 0;
    unsigned int b = 0;
    EXPECT_EQ(sscanf_s("w=12 h=34", "w=%d h=%u", &a, &b), 2);
    EXPECT_TRUE(a == 12 && b == 34u && sscanf_s(nullptr, "%d", &a) == -1);
}

TEST_F(HostPlatformTest, Memtrack_OwnPidSnapshotOfHeldBytesOtherPidAndNullFail)
{
    memtrack_proc* p = memtrack_proc_new();
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(memtrack_proc_get(p, getpid()), 0);
    const ssize_t before = memtrack_proc_graphics_pss(p);
    EXPECT_EQ(static_cast<uint64_t>(before), QvCamera::CameraBufferInterface::GetHeldBytes());
    auto buf = QvCamera::CameraBufferInterface::AllocCamBuffer(5 * 4096, 1, 257, 0, "mt");
    EXPECT_EQ(memtrack_proc_graphics_pss(p), before) << "because the values are a snapshot";
    ASSERT_EQ(memtrack_proc_get(p, getpid()), 0);
    EXPECT_EQ(memtrack_proc_graphics_pss(p), before + 5 * 4096);
    EXPECT_EQ(memtrack_proc_gl_pss(p) + memtrack_proc_other_pss(p), 0);
    EXPECT_EQ(memtrack_proc_get(p, getpid() + 1), -ESRCH);
    EXPECT_EQ(memtrack_proc_get(nullptr, getpid()), -EINVAL);
    EXPECT_EQ(memtrack_proc_graphics_pss(nullptr), -EINVAL);
    memtrack_proc_destroy(p);
}

} // namespace
