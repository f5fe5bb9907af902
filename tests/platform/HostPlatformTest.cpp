#include "TalTestSupport.h"

#include "securec.h"
#include "talmem_platform.h"
#include "talmem_properties.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

class HostPlatformTest : public talmem_test::TalTest {};

TEST_F(HostPlatformTest, PropertyGet_FileRulesDefaultsAndTruncation)
{
    char value[PROPERTY_VALUE_MAX];
    std::string file = root_ + "/props";
    talmem_test::WriteFile(file, "a.b=1\nno equals sign\n  a.b  =  2  \n\nlong=" +
                                     std::string(200, 'x') + "\nempty=\n");
    setenv("TALMEM_PROPERTIES", file.c_str(), 1);

    EXPECT_EQ(property_get("a.b", value, "d"), 1);
    EXPECT_STREQ(value, "2") << "because the last line that sets a key wins, trimmed";
    EXPECT_EQ(property_get("long", value, ""), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(std::string(value), std::string(PROPERTY_VALUE_MAX - 1, 'x'));
    EXPECT_EQ(property_get("empty", value, "d"), 0) << "because a set empty value is a value";
    EXPECT_STREQ(value, "");
    EXPECT_EQ(property_get("missing", value, nullptr), 0);
    EXPECT_STREQ(value, "");
    EXPECT_EQ(property_get(nullptr, value, "dd"), 2);
    EXPECT_STREQ(value, "dd");
    EXPECT_EQ(property_get("a.b", nullptr, "d"), 0);

    TalHostSetProperty("a.b", "7");
    property_get("a.b", value, "d");
    EXPECT_STREQ(value, "7");
    TalHostSetProperty("a.b", nullptr);
    property_get("a.b", value, "d");
    EXPECT_STREQ(value, "2") << "because removing the override uncovers the file";

    setenv("TALMEM_PROPERTIES", (root_ + "/absent").c_str(), 1);
    EXPECT_EQ(property_get("a.b", value, "def"), 3);
    EXPECT_STREQ(value, "def");
}

TEST_F(HostPlatformTest, DevicePath_TrailingSlashesOfRootAndEmptyRoot)
{
    std::string saved = getenv("TALMEM_ROOT") ? getenv("TALMEM_ROOT") : "";
    setenv("TALMEM_ROOT", "/tmp/dev//", 1);
    EXPECT_EQ(qv::TalDevicePath("/data/vendor/camera/"), "/tmp/dev/data/vendor/camera/");
    setenv("TALMEM_ROOT", "", 1);
    EXPECT_EQ(qv::TalDevicePath("/data/vendor/camera/"), "/data/vendor/camera/");
    setenv("TALMEM_ROOT", saved.c_str(), 1);
}

TEST_F(HostPlatformTest, SecureFunctions_PartialResultsOnFailure)
{
    char buf[8];
    memset(buf, 'z', sizeof(buf));
    EXPECT_EQ(memset_s(buf, 4, 'q', 6), ERANGE);
    EXPECT_EQ(std::string(buf, 8), "qqqqzzzz") << "because only destMax bytes are filled";
    EXPECT_EQ(memset_s(buf, 0, 0, 0), EINVAL);
    EXPECT_EQ(memset_s(buf, sizeof(buf), 'k', 0), 0);
    EXPECT_EQ(buf[0], 'q');

    EXPECT_EQ(snprintf_s(buf, sizeof(buf), sizeof(buf) - 1, "%s", "abcdefghij"), -1);
    EXPECT_STREQ(buf, "abcdefg") << "because a truncated result keeps what fits";
    EXPECT_EQ(snprintf_s(buf, sizeof(buf), 7, "%d", 1234567), 7);
    EXPECT_EQ(snprintf_s(nullptr, 8, 7, "x"), -1);

    EXPECT_EQ(strncpy_s(buf, sizeof(buf), "abcdef", 3), 0);
    EXPECT_STREQ(buf, "abc") << "because count limits the copy";
    EXPECT_EQ(strncpy_s(buf, sizeof(buf), "abcdefgh", 8), ERANGE) << "no room for the NUL";
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(strncpy_s(buf, sizeof(buf), "abcdefg", 7), 0);
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_NE(strncpy_s(buf, sizeof(buf), nullptr, 3), 0);
    EXPECT_STREQ(buf, "");

    int a = 0;
    unsigned int b = 0;
    EXPECT_EQ(sscanf_s("w=12 h=34", "w=%d h=%u", &a, &b), 2);
    EXPECT_EQ(a, 12);
    EXPECT_EQ(b, 34u);
    EXPECT_EQ(sscanf_s(nullptr, "%d", &a), -1);
}

} // namespace
