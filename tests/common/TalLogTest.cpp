#include "TalTestSupport.h"

#include "common/TalLog.h"
#include "talmem_platform.h"
#include "talmem_properties.h"
#include "securec.h"

#include <cstdlib>

using talmem_test::LogCapture;
using talmem_test::TalTest;

namespace {

class TalLogTest : public TalTest {};

TEST_F(TalLogTest, Macros_PrefixLevelFileLineAndFunction)
{
    int line = __LINE__ + 1;
    TAL_LOGE("QvCamMem %s value %d\n", "x", 7);
    TAL_LOGW("w\n");
    TAL_LOGI("i\n");
    TAL_LOGD("d\n");
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[0].text, "[ERROR  ] TalLogTest.cpp:" + std::to_string(line) +
                                 " TestBody() QvCamMem x value 7\n");
    EXPECT_EQ(lines[0].message, "QvCamMem x value 7\n");
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_WARN);
    EXPECT_EQ(lines[1].text.substr(0, 10), "[WARN   ] ");
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(lines[2].text.substr(0, 10), "[INFO   ] ");
    EXPECT_EQ(lines[3].priority, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[3].text.substr(0, 10), "[DEBUG  ] ");
}

TEST_F(TalLogTest, MaskAddr_KeepsOnlyLow24Bits)
{
    EXPECT_EQ(qv::TalMaskAddr(static_cast<uintptr_t>(0xABCDEF12u)), 0xCDEF12ul);
    EXPECT_EQ(qv::TalMaskIova(0x12345678ABCDEFull), 0xABCDEFull);
    EXPECT_EQ(qv::TalMaskAddr(static_cast<uintptr_t>(0)), 0ul);
}

TEST_F(TalLogTest, Properties_OverrideBeatsFileAndDefaultAppliesWhenUnset)
{
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("persist.vendor.x", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");

    std::string file = root_ + "/props";
    talmem_test::WriteFile(file, "# comment\npersist.vendor.x = 1abc\nother=2\n");
    setenv("TALMEM_PROPERTIES", file.c_str(), 1);
    EXPECT_EQ(property_get("persist.vendor.x", value, "0"), 4);
    EXPECT_STREQ(value, "1abc");

    TalHostSetProperty("persist.vendor.x", "0");
    property_get("persist.vendor.x", value, "");
    EXPECT_STREQ(value, "0") << "because an in-process value overrides the file";
    TalHostClearProperties();
    property_get("persist.vendor.x", value, "");
    EXPECT_STREQ(value, "1abc");
}

TEST_F(TalLogTest, DevicePath_PrefixedWithRootOnlyWhenSet)
{
    EXPECT_EQ(qv::TalDevicePath("/odm/etc/camera/"), root_ + "/odm/etc/camera/");
    unsetenv("TALMEM_ROOT");
    EXPECT_EQ(qv::TalDevicePath("/odm/etc/camera/"), "/odm/etc/camera/");
    setenv("TALMEM_ROOT", root_.c_str(), 1);
}

TEST_F(TalLogTest, SecureFunctions_RejectOverflowAndReportTruncation)
{
    char buf[8];
    EXPECT_EQ(memset_s(buf, sizeof(buf), 'a', sizeof(buf)), 0);
    EXPECT_NE(memset_s(nullptr, 8, 0, 8), 0);
    EXPECT_NE(memset_s(buf, sizeof(buf), 0, sizeof(buf) + 1), 0);
    EXPECT_EQ(snprintf_s(buf, sizeof(buf), sizeof(buf) - 1, "%d", 1234), 4);
    EXPECT_STREQ(buf, "1234");
    EXPECT_EQ(snprintf_s(buf, sizeof(buf), sizeof(buf) - 1, "%s", "123456789"), -1);
    EXPECT_EQ(snprintf_s(buf, sizeof(buf), 3, "%s", "12345"), -1)
        << "because count limits the output below the buffer size";
    EXPECT_EQ(strncpy_s(buf, sizeof(buf), "abc", 3), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_NE(strncpy_s(buf, sizeof(buf), "abcdefghij", 10), 0);
    EXPECT_STREQ(buf, "");
    int v = 0;
    EXPECT_EQ(sscanf_s("42kB", "%d", &v), 1);
    EXPECT_EQ(v, 42);
}

} // namespace
