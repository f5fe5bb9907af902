// Reading of the algorithm elements into the peak-size table.

#include "ConfigTestSupport.h"

namespace talmem_test {
namespace {

constexpr int kE = ANDROID_LOG_ERROR;
constexpr int kW = ANDROID_LOG_WARN;

using Entries = std::vector<std::pair<std::string, uint32_t>>;

class AlgoTableTest : public ConfigTest {
protected:
    Entries EntriesOf(const std::string& algo)
    {
        Entries out;
        for (const auto& e : table[algo]) {
            out.emplace_back(e.resolution, e.algoSize);
        }
        return out;
    }
    // Loads one element and expects the whole load to fail with `messages`.
    void ExpectRejected(const std::string& element, const std::vector<std::string>& messages)
    {
        SCOPED_TRACE(element);
        LogCapture::Clear();
        table.clear();
        EXPECT_EQ(LoadText(ConfigWithAlgos(element)), -1);
        for (const std::string& m : messages) {
            EXPECT_EQ(LogCapture::Count(kE, m), 1) << m << LogCapture::Dump();
        }
        EXPECT_EQ(LogCapture::Count(kE, "LoadVariableElement parse algo failed!\n"), 1);
    }
};

TEST_F(AlgoTableTest, ElementsOfOneAlgorithmAreMergedInFileOrder)
{
    ASSERT_EQ(LoadText(ConfigWithAlgos(
                  "<Algo name=\"mfnr\" value=\"10\" resolution=\"4096x3072\" value1=\"20\" "
                  "resolution1=\"1920x1080\"/>"
                  "<Other name=\"hdr\" value=\"5\"/>"
                  "<Algo name=\"mfnr\" value=\"30\" resolution=\"8192x6144\"/>")),
              0)
        << LogCapture::Dump();
    EXPECT_EQ(EntriesOf("mfnr"),
              (Entries{{"4096x3072", 10}, {"1920x1080", 20}, {"8192x6144", 30}}));
    EXPECT_EQ(EntriesOf("hdr"), (Entries{{"default", 5}}))
        << "because the element name is not checked and a lone value reads as default";
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "name=[mfnr]\n"), 2);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, "resolution1=[1920x1080]\n"), 1);
}

TEST_F(AlgoTableTest, FourPairsAreAllKeptWithOneWarning)
{
    ASSERT_EQ(LoadText(ConfigWithAlgos(
                  "<Algo name=\"a\" value=\"1\" resolution=\"1x1\" value1=\"2\" resolution1=\"2x2\" "
                  "value2=\"3\" resolution2=\"3x3\" value3=\"4\" resolution3=\"4x4\"/>")),
              0);
    EXPECT_EQ(EntriesOf("a"), (Entries{{"1x1", 1}, {"2x2", 2}, {"3x3", 3}, {"4x4", 4}}));
    EXPECT_EQ(
        LogCapture::Count(kW, "talmempoolcfg ParseAlgoSize resolution num:3 exceeds the limit:2\n"),
        1);
}

TEST_F(AlgoTableTest, SizesAreCheckedAgainstZeroAndTheAlgoSizeLimit)
{
    ASSERT_EQ(LoadText(ConfigXml(FixedElements() +
                                 "<Algo name=\"zero\" value=\"0\" resolution=\"1x1\"/>"
                                 "<Algo name=\"big\" value=\"600000000\"/>")),
              0);
    EXPECT_EQ(EntriesOf("zero"), (Entries{{"1x1", 0}}));
    EXPECT_EQ(EntriesOf("big"), (Entries{{"default", 471859200}}));
    EXPECT_EQ(LogCapture::Count(
                  kE, "CheckAlgoSize algosize:600000000 exceeds limit:471859200, set default!\n"),
              1);

    // The cap is the file's own AlgoSizeLimit, read before the algorithms.
    qv::TalMemConfig capped;
    qv::TalAlgoPeakMap cappedTable;
    WriteFile(DeviceFile("cap.xml"),
              ConfigXml("<AllocType>1</AllocType><BasePoolSize>0</BasePoolSize>"
                        "<AlgoSizeLimit>1000</AlgoSizeLimit><Algo name=\"a\" value=\"1001\"/>"));
    ASSERT_EQ(capped.LoadTalMemConfig(DeviceFile("cap.xml"), cappedTable), 0);
    EXPECT_EQ(cappedTable["a"].front().algoSize, 1000u);

    ExpectRejected("<Algo name=\"neg\" value=\"-1\"/>",
                   {"CheckAlgoSize algosize:-1 is lower than limit:0\n",
                    "ParseAlgoSize check algo size fail!\n", "ParseAlgoInfo parse Algo Size fail!\n"});
    ExpectRejected("<Algo name=\"txt\" value=\"abc\"/>",
                   {"CheckAlgoSize algosize is not integer! value  abc\n"});
    ExpectRejected("<Algo name=\"long\" value=\"1234567890\"/>",
                   {"CheckAttribute check XMLAttribute:value fail! len=10\n",
                    "ParseAlgoSize check attribute value fail!\n"});
}

TEST_F(AlgoTableTest, ResolutionFormatIsWidthXHeightBothPositive)
{
    ASSERT_EQ(LoadText(ConfigWithAlgos("<Algo name=\"a\" value=\"1\" resolution=\"1920x1080p\"/>")),
              0);
    EXPECT_EQ(EntriesOf("a"), (Entries{{"1920x1080p", 1}}))
        << "because characters after the height are ignored but kept in the key";

    ExpectRejected("<Algo name=\"a\" value=\"1\" resolution=\"1920*1080\"/>",
                   {"talmempoolcfg CheckResolutionFormat resolution format error! str=1920*1080 "
                    "width=1920 height=0 ret=1\n",
                    "talmempoolcfg ParseAlgoSize resolution format error!\n"});
    ExpectRejected("<Algo name=\"a\" value=\"1\" resolution=\"0x1080\"/>",
                   {"talmempoolcfg CheckResolutionFormat resolution format error! str=0x1080 "
                    "width=0 height=1080 ret=2\n"});
    ExpectRejected("<Algo name=\"a\" value=\"1\" resolution=\"default\"/>",
                   {"talmempoolcfg CheckResolutionFormat resolution format error! str=default "
                    "width=0 height=0 ret=0\n"});
    ExpectRejected("<Algo name=\"a\" value=\"1\" resolution=\"123456789012x12345678\"/>",
                   {"CheckAttribute check XMLAttribute:resolution fail! len=21\n",
                    "ParseAlgoSize check attribute resolution fail!\n"});
}

TEST_F(AlgoTableTest, DefaultMayOnlyStandAlone)
{
    ExpectRejected("<Algo name=\"a\" value=\"1\"/><Algo name=\"a\" value=\"2\" resolution=\"1x1\"/>",
                   {"CheckDefaultResolution algoName:a deafult resolution, but size is 2\n",
                    "talmempoolcfg ParseAlgoInfo deafult resolution contains more than one "
                    "algoSize!\n"});
    // The resolution may be left out only in the last pair of an element.
    ExpectRejected("<Algo name=\"a\" value=\"1\" value1=\"2\" resolution1=\"1x1\"/>",
                   {"CheckAttribute check XMLAttribute:resolution fail! value1\n",
                    "ParseAlgoSize check attribute resolution fail!\n"});
}

TEST_F(AlgoTableTest, AttributeNamesAndOrderAreChecked)
{
    ExpectRejected("<Algo value=\"1\" name=\"a\"/>",
                   {"CheckAttribute check XMLAttribute:name fail! value\n",
                    "ParseAlgoInfo check attribute name fail!\n"});
    ExpectRejected("<Algo/>", {"CheckAttribute XMLAttribute is NULL!\n"});
    ExpectRejected("<Algo name=\"0123456789012345678901234567890\" value=\"1\"/>",
                   {"CheckAttribute check XMLAttribute:name fail! len=31\n"});
    ExpectRejected("<Algo name=\"a\" resolution=\"1x1\" value=\"1\"/>",
                   {"CheckAttribute check XMLAttribute:value fail! resolution\n"});
    ExpectRejected("<Algo name=\"a\" value=\"1\" resolution=\"1x1\" value2=\"2\"/>",
                   {"CheckAttribute check XMLAttribute:value1 fail! value2\n"});
}

TEST_F(AlgoTableTest, ElementWithoutValuesAddsNothing)
{
    ASSERT_EQ(LoadText(ConfigWithAlgos("<Algo name=\"empty\"/><Algo name=\"b\" value=\"3\"/>")), 0);
    EXPECT_EQ(table.count("empty"), 0u);
    EXPECT_EQ(table.size(), 1u);
    EXPECT_EQ(LogCapture::Count(kW, "talmempoolcfg ParseAlgoInfo algolist is NULL\n"), 1);
}

TEST_F(AlgoTableTest, HelpersRejectNullInput)
{
    unsigned int size = 9;
    EXPECT_EQ(config.CheckAlgoSize(nullptr, size), -1);
    EXPECT_EQ(size, 9u);
    EXPECT_EQ(LogCapture::Count(kE, "CheckAlgoSize parameter is invalid!\n"), 1);
    EXPECT_EQ(config.CheckResolutionFormat(nullptr), -1);
    EXPECT_EQ(LogCapture::Count(kE, "talmempoolcfg CheckResolutionFormat input error!\n"), 1);
    EXPECT_EQ(config.ParseAlgoInfo(nullptr, table), -1);
    EXPECT_EQ(LogCapture::Count(kE, "ParseAlgoInfo algo XMLElement is invalid!\n"), 1);
    EXPECT_EQ(config.CheckDefaultResolution("absent", table), 0);
}

} // namespace
} // namespace talmem_test
