// Files that load: the record, the optional limits, the table and the
// allocate type handed to the allocator-type manager.

#include "ConfigTestSupport.h"
#include "interface/QvaAlgoMemAllocatorManager.h"

namespace talmem_test {
namespace {

constexpr int kE = ANDROID_LOG_ERROR;
constexpr int kW = ANDROID_LOG_WARN;
constexpr int kI = ANDROID_LOG_INFO;

using Manager = qv::QvaAlgoMemAllocatorManager;
using Entries = std::vector<std::pair<std::string, uint32_t>>;

class ConfigLoadTest : public ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        // The manager is process-wide: start every test from a type no file sets.
        Manager::getSingleton()->setAlgoAllocatorType(Manager::ALGO_ALLOCATOR_EXTERNAL);
        LogCapture::Clear();
    }
    Entries EntriesOf(const std::string& algo)
    {
        Entries out;
        for (const auto& e : table[algo]) {
            out.emplace_back(e.resolution, e.algoSize);
        }
        return out;
    }
    static std::string Limits(const std::string& limits)
    {
        return ConfigXml("<AllocType>1</AllocType><BasePoolSize>1000</BasePoolSize>" + limits +
                         "<Algo name=\"a\" value=\"1\"/>");
    }
    static void ExpectDefaultLimits(const qv::TalMemConfig& c)
    {
        EXPECT_EQ(c.algoSizeLimit, 471859200);
        EXPECT_EQ(c.prevRatioLimit, 75);
        EXPECT_EQ(c.multiPoolSize, 0xDC00000);
    }
};

TEST_F(ConfigLoadTest, ValidFileFillsTheRecordAndLogsEachValue)
{
    ExpectDefaultLimits(config);
    ASSERT_EQ(LoadText(ConfigXml("<AllocType>1</AllocType><BasePoolSize>209715200</BasePoolSize>"
                                 "<AlgoSizeLimit>524288000</AlgoSizeLimit>"
                                 "<PrevRatioLimit>20</PrevRatioLimit>"
                                 "<MultiPoolSize>104857600</MultiPoolSize>"
                                 "<Algo name=\"a\" value=\"7\"/>")),
              0)
        << LogCapture::Dump();
    EXPECT_EQ(config.allocateType, 1);
    EXPECT_EQ(config.basePoolSize, 209715200);
    EXPECT_EQ(config.algoSizeLimit, 524288000);
    EXPECT_EQ(config.prevRatioLimit, 20);
    EXPECT_EQ(config.multiPoolSize, 104857600);
    EXPECT_EQ(Manager::getSingleton()->getAlgoAllocatorType(), 1);
    EXPECT_EQ(LogCapture::Count(kI, "AllocType  1 1\n"), 1);
    EXPECT_EQ(LogCapture::Count(kI, "BasePoolSize  209715200 209715200\n"), 1);
    EXPECT_EQ(LogCapture::Count(kI, " AlgoSizeLimit  524288000 524288000\n"), 1);
    EXPECT_EQ(LogCapture::Count(kI, " PrevRatioLimit  20 20\n"), 1);
    EXPECT_EQ(LogCapture::Count(kI, " MultiPoolSize  104857600 104857600\n"), 1);
    EXPECT_EQ(EntriesOf("a"), (Entries{{"default", 7}}));
}

TEST_F(ConfigLoadTest, AllocTypeZeroInDeviceFileStopsBeforeLimitsAndTable)
{
    ASSERT_EQ(LoadText(ConfigXml("<AllocType>0</AllocType><BasePoolSize>1000</BasePoolSize>"
                                 "<AlgoSizeLimit>1000</AlgoSizeLimit><Algo name=\"a\" value=\"7\"/>")),
              0);
    EXPECT_EQ(config.allocateType, 0);
    EXPECT_EQ(config.basePoolSize, 0);
    ExpectDefaultLimits(config);
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(Manager::getSingleton()->getAlgoAllocatorType(), 0)
        << "because the device file's type goes to the allocator-type manager";

    // In the learnt file the same type is refused before it reaches the manager.
    Manager::getSingleton()->setAlgoAllocatorType(Manager::ALGO_ALLOCATOR_EXTERNAL);
    WriteFile(FilterFile(), ConfigXml(FixedElements("0")));
    EXPECT_EQ(config.LoadTalMemConfig(FilterFile(), table), -1);
    EXPECT_EQ(LogCapture::Count(kE, "get AllocType fail, fileName:" + FilterFile() + ", type:0\n"),
              1);
    EXPECT_EQ(Manager::getSingleton()->getAlgoAllocatorType(), 2);
}

TEST_F(ConfigLoadTest, NumbersReadTheirLeadingDigitsOnly)
{
    ASSERT_EQ(LoadText(ConfigXml("<AllocType>1</AllocType><BasePoolSize>4096abc</BasePoolSize>"
                                 "<PrevRatioLimit>50%</PrevRatioLimit><Algo name=\"a\" value=\"1\"/>")),
              0);
    EXPECT_EQ(config.basePoolSize, 4096);
    EXPECT_EQ(config.prevRatioLimit, 50);
}

TEST_F(ConfigLoadTest, MissingOptionalLimitsWarnAndKeepDefaults)
{
    ASSERT_EQ(LoadText(Limits("")), 0) << LogCapture::Dump();
    ExpectDefaultLimits(config);
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
    for (const std::string limits : {"<AlgoSizeLimit>524288001</AlgoSizeLimit><PrevRatioLimit>101"
                                     "</PrevRatioLimit><MultiPoolSize>104857599</MultiPoolSize>",
                                     "<AlgoSizeLimit>-1</AlgoSizeLimit><PrevRatioLimit>19"
                                     "</PrevRatioLimit><MultiPoolSize>262144001</MultiPoolSize>"}) {
        SCOPED_TRACE(limits);
        qv::TalMemConfig fresh;
        qv::TalAlgoPeakMap freshTable;
        LogCapture::Clear();
        WriteFile(DeviceFile("limits.xml"), Limits(limits));
        ASSERT_EQ(fresh.LoadTalMemConfig(DeviceFile("limits.xml"), freshTable), 0);
        ExpectDefaultLimits(fresh);
        EXPECT_EQ(LogCapture::CountContaining("exceeds limit, set default!"), 3);
    }
    EXPECT_EQ(LogCapture::Count(kE, "LoadVariableElement prevRatioLimit:19 exceeds limit, set "
                                    "default!\n"),
              1);
    EXPECT_EQ(LogCapture::Count(kE, "LoadMultiPoolSize multiPoolSize:262144001 exceeds limit, set "
                                    "default!\n"),
              1);
}

TEST_F(ConfigLoadTest, ElementsOfOneAlgorithmMergeInFileOrderAndKeepExtraPairs)
{
    ASSERT_EQ(LoadText(ConfigWithAlgos(
                  "<Algo name=\"mfnr\" value=\"10\" resolution=\"4096x3072\" value1=\"20\" "
                  "resolution1=\"1920x1080p\"/>"
                  "<Other name=\"hdr\" value=\"5\"/><Algo name=\"empty\"/>"
                  "<Algo name=\"mfnr\" value=\"0\" resolution=\"8192x6144\" value1=\"2\" "
                  "resolution1=\"2x2\" value2=\"3\" resolution2=\"3x3\" value3=\"4\" "
                  "resolution3=\"4x4\"/>")),
              0)
        << LogCapture::Dump();
    EXPECT_EQ(EntriesOf("mfnr"), (Entries{{"4096x3072", 10}, {"1920x1080p", 20}, {"8192x6144", 0},
                                          {"2x2", 2}, {"3x3", 3}, {"4x4", 4}}));
    EXPECT_EQ(EntriesOf("hdr"), (Entries{{"default", 5}}))
        << "because the element name is not checked and a lone value reads as default";
    EXPECT_EQ(table.count("empty"), 0u);
    EXPECT_EQ(LogCapture::Count(kW, "talmempoolcfg ParseAlgoInfo algolist is NULL\n"), 1);
    EXPECT_EQ(
        LogCapture::Count(kW, "talmempoolcfg ParseAlgoSize resolution num:3 exceeds the limit:2\n"),
        1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "name=[mfnr]\n"), 2);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "resolution1=[1920x1080p]\n"), 1);
}

TEST_F(ConfigLoadTest, SizesAboveTheFilesAlgoSizeLimitAreCapped)
{
    ASSERT_EQ(LoadText(ConfigWithAlgos("<Algo name=\"big\" value=\"600000000\"/>")), 0);
    EXPECT_EQ(EntriesOf("big"), (Entries{{"default", 471859200}}));
    EXPECT_EQ(LogCapture::Count(
                  kE, "CheckAlgoSize algosize:600000000 exceeds limit:471859200, set default!\n"),
              1);

    table.clear();
    ASSERT_EQ(LoadText(ConfigXml("<AllocType>1</AllocType><BasePoolSize>0</BasePoolSize>"
                                 "<AlgoSizeLimit>1000</AlgoSizeLimit>"
                                 "<Algo name=\"a\" value=\"1001\"/>")),
              0);
    EXPECT_EQ(EntriesOf("a"), (Entries{{"default", 1000}}));
}

} // namespace
} // namespace talmem_test
