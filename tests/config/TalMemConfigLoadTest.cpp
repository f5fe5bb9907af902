// Reading of the configuration record: fixed elements, optional limits,
// rejections and the allocate type handed to the allocator-type manager.

#include "ConfigTestSupport.h"
#include "interface/QvaAlgoMemAllocatorManager.h"

namespace talmem_test {
namespace {

constexpr int kE = ANDROID_LOG_ERROR;
constexpr int kW = ANDROID_LOG_WARN;
constexpr int kI = ANDROID_LOG_INFO;

using Manager = qv::QvaAlgoMemAllocatorManager;

class ConfigLoadTest : public ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        // The manager is process-wide: start every test from a known type.
        Manager::getSingleton()->setAlgoAllocatorType(Manager::ALGO_ALLOCATOR_EXTERNAL);
        LogCapture::Clear();
    }
    static std::string Limits(const std::string& algoLimit, const std::string& ratio,
                              const std::string& multi)
    {
        return "<AllocType>1</AllocType><BasePoolSize>1000</BasePoolSize>" + algoLimit + ratio +
               multi + "<Algo name=\"a\" value=\"1\"/>";
    }
    void ExpectDefaults(const qv::TalMemConfig& c)
    {
        EXPECT_EQ(c.algoSizeLimit, 471859200);
        EXPECT_EQ(c.prevRatioLimit, 75);
        EXPECT_EQ(c.multiPoolSize, 0xDC00000);
    }
};

TEST_F(ConfigLoadTest, ConstructorSetsTheDocumentedDefaults)
{
    EXPECT_EQ(config.allocateType, 0);
    EXPECT_EQ(config.basePoolSize, 0);
    ExpectDefaults(config);
}

TEST_F(ConfigLoadTest, ValidFileFillsRecordLogsEachValueAndSetsPoolAllocator)
{
    ASSERT_EQ(LoadText(ConfigXml("<AllocType>1</AllocType><BasePoolSize>209715200</BasePoolSize>"
                                 "<AlgoSizeLimit>524288000</AlgoSizeLimit>"
                                 "<PrevRatioLimit>20</PrevRatioLimit>"
                                 "<MultiPoolSize>104857600</MultiPoolSize>"
                                 "<Algo name=\"a\" value=\"7\"/>")),
              0)
        << LogCapture::Dump();
    EXPECT_EQ(config.allocateType, 1);
    EXPECT_EQ(config.basePoolSize, 209715200) << "because 200 MiB is inside the range";
    EXPECT_EQ(config.algoSizeLimit, 524288000);
    EXPECT_EQ(config.prevRatioLimit, 20);
    EXPECT_EQ(config.multiPoolSize, 104857600);
    EXPECT_EQ(Manager::getSingleton()->getAlgoAllocatorType(), 1);
    EXPECT_EQ(LogCapture::Count(kI, "AllocType  1 1\n"), 1);
    EXPECT_EQ(LogCapture::Count(kI, "BasePoolSize  209715200 209715200\n"), 1);
    EXPECT_EQ(LogCapture::Count(kI, " AlgoSizeLimit  524288000 524288000\n"), 1);
    EXPECT_EQ(LogCapture::Count(kI, " PrevRatioLimit  20 20\n"), 1);
    EXPECT_EQ(LogCapture::Count(kI, " MultiPoolSize  104857600 104857600\n"), 1);
    ASSERT_EQ(table.size(), 1u);
    EXPECT_EQ(table["a"].front().algoSize, 7u);
}

TEST_F(ConfigLoadTest, AllocTypeZeroInDeviceFileStopsBeforeLimitsAndTable)
{
    ASSERT_EQ(LoadText(ConfigXml("<AllocType>0</AllocType><BasePoolSize>1000</BasePoolSize>"
                                 "<AlgoSizeLimit>1000</AlgoSizeLimit>"
                                 "<Algo name=\"a\" value=\"7\"/>")),
              0);
    EXPECT_EQ(config.allocateType, 0);
    EXPECT_EQ(config.basePoolSize, 0);
    ExpectDefaults(config);
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(Manager::getSingleton()->getAlgoAllocatorType(), 0)
        << "because the device file's type goes to the allocator-type manager";
}

TEST_F(ConfigLoadTest, AllocTypeZeroInFilterFileFailsAndLeavesTheManagerAlone)
{
    WriteFile(FilterFile(), ConfigXml(FixedElements("0")));
    EXPECT_EQ(config.LoadTalMemConfig(FilterFile(), table), -1);
    EXPECT_EQ(LogCapture::Count(kE, "get AllocType fail, fileName:" + FilterFile() + ", type:0\n"),
              1);
    EXPECT_EQ(Manager::getSingleton()->getAlgoAllocatorType(), 2);
}

TEST_F(ConfigLoadTest, RootProblemsFailTheLoad)
{
    struct Case {
        std::string xml;
        std::string message;
    } cases[] = {
        {"<TalMemPoolConfig><AllocType>1</AllocType></TalMemPoolConfig>",
         "CheckElementValue parameter is invalid!\n"},
        {ConfigXml(FixedElements(), "0123456789012345678901234567890"),
         "CheckElementValue fail! value=0123456789012345678901234567890 len=31\n"},
        {"<Other>text<AllocType>1</AllocType></Other>",
         "CheckElementName check XMLElement:TalMemPoolConfig fail! Other\n"},
        {ConfigXml(""), "talmempoolcfg get allocateType fail!\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        LogCapture::Clear();
        EXPECT_EQ(LoadText(c.xml), -1);
        EXPECT_EQ(LogCapture::Count(kE, c.message), 1) << LogCapture::Dump();
    }
    EXPECT_EQ(LoadText(ConfigXml(FixedElements() + "<Algo name=\"a\" value=\"1\"/>",
                                 "012345678901234567890123456789")),
              0)
        << "because a root text of exactly 30 characters is allowed";
}

TEST_F(ConfigLoadTest, UnparsableFilesFailWithLoadFileMessage)
{
    const std::string path = DeviceFile("scratch.xml");
    const std::string message = "talmempoolcfg LoadFile " + path + " fail!\n";
    std::string garbage(4096, '\0');
    for (size_t i = 0; i < garbage.size(); ++i) {
        garbage[i] = static_cast<char>((i * 131 + 7) & 0xFF);
    }
    for (const std::string& text : {std::string("<TalMemPoolConfig>x<AllocType>1</AllocType>"),
                                    std::string(""), garbage}) {
        LogCapture::Clear();
        EXPECT_EQ(LoadText(text), -1);
        EXPECT_EQ(LogCapture::Count(kE, message), 1) << LogCapture::Dump();
    }
    LogCapture::Clear();
    EXPECT_EQ(config.LoadTalMemConfig(DeviceFile("missing.xml"), table), -1);
    EXPECT_EQ(LogCapture::Count(kE, "talmempoolcfg LoadFile " + DeviceFile("missing.xml") +
                                        " fail!\n"),
              1);
}

TEST_F(ConfigLoadTest, FixedElementRejectionsNameTheElement)
{
    struct Case {
        std::string body;
        std::vector<std::string> messages;
    } cases[] = {
        {"<BasePoolSize>1</BasePoolSize>",
         {"CheckElementName check XMLElement:AllocType fail! BasePoolSize\n",
          "CheckFixedElement check AllocType fail!\n"}},
        {"<AllocType>2</AllocType>",
         {"CheckValueRange check limit fail! 2  0  1\n",
          "CheckFixedElement check AllocType value range fail!\n"}},
        {"<AllocType>11</AllocType>",
         {"CheckElementValue fail! value=11 len=2\n", "CheckFixedElement check AllocType fail!\n"}},
        {"<AllocType> 1</AllocType>",
         {"CheckFixedElement check AllocType fail!\n"}}, // whitespace is preserved and counted
        {"<AllocType>1</AllocType>",
         {"CheckElementName parameter is invalid!\n",
          "CheckFixedElement check BasePoolSize fail!\n"}},
        {"<AllocType>1</AllocType><BasePoolSize></BasePoolSize>",
         {"CheckElementValue parameter is invalid!\n",
          "CheckFixedElement check BasePoolSize fail!\n"}},
        {"<AllocType>1</AllocType><BasePoolSize>209715201</BasePoolSize>",
         {"CheckValueRange check limit fail! 209715201  0  209715200\n",
          "CheckFixedElement check BasePoolSize value range fail!\n"}},
        {"<AllocType>1</AllocType><BasePoolSize>-1</BasePoolSize>",
         {"CheckFixedElement check BasePoolSize value range fail!\n"}},
        {"<AllocType>1</AllocType><BasePoolSize>1000000000</BasePoolSize>",
         {"CheckElementValue fail! value=1000000000 len=10\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body);
        LogCapture::Clear();
        EXPECT_EQ(LoadText(ConfigXml(c.body)), -1);
        for (const std::string& m : c.messages) {
            EXPECT_EQ(LogCapture::Count(kE, m), 1) << m << LogCapture::Dump();
        }
    }
}

TEST_F(ConfigLoadTest, NumbersReadTheirLeadingDigitsOnly)
{
    ASSERT_EQ(LoadText(ConfigXml("<AllocType>1</AllocType><BasePoolSize>4096abc</BasePoolSize>"
                                 "<PrevRatioLimit>50%</PrevRatioLimit>"
                                 "<Algo name=\"a\" value=\"1\"/>")),
              0);
    EXPECT_EQ(config.basePoolSize, 4096);
    EXPECT_EQ(config.prevRatioLimit, 50);
}

TEST_F(ConfigLoadTest, MissingOptionalLimitsWarnAndKeepDefaults)
{
    ASSERT_EQ(LoadText(ConfigXml(Limits("", "", ""))), 0) << LogCapture::Dump();
    ExpectDefaults(config);
    EXPECT_EQ(LogCapture::Count(kW, "LoadVariableElement AlgoSizeLimit is missing!\n"), 1);
    EXPECT_EQ(LogCapture::Count(kW, "LoadVariableElement PrevRatioLimit is missing!\n"), 1);
    EXPECT_EQ(LogCapture::Count(kW, "LoadMultiPoolSize MultiPoolSize is missing!\n"), 1);
    EXPECT_EQ(LogCapture::Count(kE, "CheckElementName check XMLElement:AlgoSizeLimit fail! Algo\n"),
              1)
        << "because the name check logs its mismatch before the warning";
    EXPECT_EQ(table.size(), 1u) << "because the algorithm element is still read";
}

TEST_F(ConfigLoadTest, OutOfRangeLimitsFallBackToDefaultsAndTheLoadGoesOn)
{
    ASSERT_EQ(LoadText(ConfigXml(Limits("<AlgoSizeLimit>524288001</AlgoSizeLimit>",
                                        "<PrevRatioLimit>101</PrevRatioLimit>",
                                        "<MultiPoolSize>104857599</MultiPoolSize>"))),
              0);
    ExpectDefaults(config);
    EXPECT_EQ(LogCapture::Count(
                  kE, "LoadVariableElement algoSizeLimit:524288001 exceeds limit, set default!\n"),
              1);
    EXPECT_EQ(LogCapture::Count(kE,
                                "LoadVariableElement prevRatioLimit:101 exceeds limit, set default!\n"),
              1);
    EXPECT_EQ(LogCapture::Count(
                  kE, "LoadMultiPoolSize multiPoolSize:104857599 exceeds limit, set default!\n"),
              1);

    qv::TalMemConfig low;
    qv::TalAlgoPeakMap lowTable;
    LogCapture::Clear();
    WriteFile(DeviceFile("low.xml"),
              ConfigXml(Limits("<AlgoSizeLimit>-1</AlgoSizeLimit>",
                               "<PrevRatioLimit>19</PrevRatioLimit>",
                               "<MultiPoolSize>262144001</MultiPoolSize>")));
    ASSERT_EQ(low.LoadTalMemConfig(DeviceFile("low.xml"), lowTable), 0);
    ExpectDefaults(low);
    EXPECT_EQ(LogCapture::CountContaining("exceeds limit, set default!"), 3);
}

TEST_F(ConfigLoadTest, OverLongLimitTextsFailTheLoad)
{
    struct Case {
        std::string body;
        std::string message;
    } cases[] = {
        {Limits("<AlgoSizeLimit>1000000000</AlgoSizeLimit>", "", ""),
         "LoadVariableElement check AlgoSizeLimit fail!\n"},
        {Limits("", "<PrevRatioLimit>1000</PrevRatioLimit>", ""),
         "LoadVariableElement check PrevRatioLimit fail!\n"},
        {Limits("", "<PrevRatioLimit></PrevRatioLimit>", ""),
         "LoadVariableElement check PrevRatioLimit fail!\n"},
        {Limits("", "", "<MultiPoolSize>0104857600</MultiPoolSize>"),
         "LoadTalMemConfig load variable element or algo fail!\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body);
        LogCapture::Clear();
        EXPECT_EQ(LoadText(ConfigXml(c.body)), -1);
        EXPECT_EQ(LogCapture::Count(kE, c.message), 1) << LogCapture::Dump();
        EXPECT_EQ(LogCapture::Count(kE, "LoadTalMemConfig load variable element or algo fail!\n"),
                  1);
    }
    EXPECT_EQ(LogCapture::Count(kE, "LoadMultiPoolSize check MultiPoolSize fail!\n"), 1);
}

TEST_F(ConfigLoadTest, FileEndingAfterTheLimitsFails)
{
    EXPECT_EQ(LoadText(ConfigXml(FixedElements())), -1);
    EXPECT_EQ(config.multiPoolSize, 230686720) << "because fields are written as they are read";
    EXPECT_EQ(LogCapture::Count(kE, "LoadTalMemConfig load variable element or algo fail!\n"), 1);
    EXPECT_EQ(LogCapture::CountContaining("parse algo failed"), 0)
        << "because the missing algorithm part fails without a line of its own";

    LogCapture::Clear();
    EXPECT_EQ(LoadText(ConfigXml("<AllocType>1</AllocType><BasePoolSize>1</BasePoolSize>")), -1);
    EXPECT_EQ(LogCapture::Count(kW, "LoadMultiPoolSize MultiPoolSize is missing!\n"), 1);
    EXPECT_EQ(LogCapture::Count(kE, "CheckElementName parameter is invalid!\n"), 3);
}

} // namespace
} // namespace talmem_test
