#include "TalTestSupport.h"

#include "common/TalLog.h"


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

TEST_F(TalLogTest, ForMacros_NameTheGivenFunctionInThePrefix)
{
    TAL_LOGW_FOR("FlushCacheLocal", "%s: x\n", "FlushCacheLocal");
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_WARN);
    EXPECT_NE(lines[0].text.find("] TalLogTest.cpp:"), std::string::npos);
    EXPECT_NE(lines[0].text.find(" FlushCacheLocal() FlushCacheLocal: x\n"), std::string::npos)
        << lines[0].text;
}

TEST_F(TalLogTest, BelowTheMinimumPriority_ArgumentsAreNotEvaluatedAndNothingIsPrinted)
{
    int evaluated = 0;
    auto arg = [&evaluated] { return ++evaluated; };
    __android_log_set_minimum_priority(ANDROID_LOG_INFO);
    TAL_LOGD("d %d\n", arg());
    TAL_LOGI("i %d\n", arg());
    __android_log_set_minimum_priority(ANDROID_LOG_ERROR);
    TAL_LOGW_FOR("Other", "w %d\n", arg());
    TAL_LOGE("e %d\n", arg());
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    EXPECT_EQ(evaluated, 2) << "because only the INFO and ERROR lines pass their minimum";
    auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(lines[0].message, "i 1\n");
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[1].message, "e 2\n");
}

} // namespace
