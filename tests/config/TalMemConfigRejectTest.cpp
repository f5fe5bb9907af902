// Every way a configuration file is refused, with the exact lines it logs.

#include "ConfigTestSupport.h"

namespace talmem_test {
namespace {

struct Rejection {
    std::string xml;
    std::vector<std::string> errors; // each logged exactly once at ERROR
};

std::string Fixed(const std::string& allocType, const std::string& base)
{
    return "<AllocType>" + allocType + "</AllocType><BasePoolSize>" + base + "</BasePoolSize>";
}

std::string Limits(const std::string& limits)
{
    return ConfigXml(Fixed("1", "1000") + limits + "<Algo name=\"a\" value=\"1\"/>");
}

std::string Algo(const std::string& attributes)
{
    return ConfigWithAlgos("<Algo " + attributes + "/>");
}

const char* const kVariableFail = "LoadTalMemConfig load variable element or algo fail!\n";
const char* const kAlgoFail = "LoadVariableElement parse algo failed!\n";

const std::vector<Rejection>& Rejections()
{
    static const std::vector<Rejection> cases = {
        // The root and its text.
        {"<TalMemPoolConfig><AllocType>1</AllocType></TalMemPoolConfig>",
         {"CheckElementValue parameter is invalid!\n"}},
        {ConfigXml(FixedElements(), "0123456789012345678901234567890"),
         {"CheckElementValue fail! value=0123456789012345678901234567890 len=31\n"}},
        {"<Other>text<AllocType>1</AllocType></Other>",
         {"CheckElementName check XMLElement:TalMemPoolConfig fail! Other\n"}},
        {ConfigXml(""), {"talmempoolcfg get allocateType fail!\n"}},
        // The fixed elements: order, length (whitespace counts) and range.
        {ConfigXml("<BasePoolSize>1</BasePoolSize>"),
         {"CheckElementName check XMLElement:AllocType fail! BasePoolSize\n",
          "CheckFixedElement check AllocType fail!\n"}},
        {ConfigXml("<AllocType>2</AllocType>"),
         {"CheckValueRange check limit fail! 2  0  1\n",
          "CheckFixedElement check AllocType value range fail!\n"}},
        {ConfigXml("<AllocType>11</AllocType>"),
         {"CheckElementValue fail! value=11 len=2\n", "CheckFixedElement check AllocType fail!\n"}},
        {ConfigXml("<AllocType> 1</AllocType>"), {"CheckElementValue fail! value= 1 len=2\n"}},
        {ConfigXml("<AllocType>1</AllocType>"),
         {"CheckElementName parameter is invalid!\n",
          "CheckFixedElement check BasePoolSize fail!\n"}},
        {ConfigXml(Fixed("1", "")), {"CheckElementValue parameter is invalid!\n"}},
        {ConfigXml(Fixed("1", "209715201")),
         {"CheckValueRange check limit fail! 209715201  0  209715200\n",
          "CheckFixedElement check BasePoolSize value range fail!\n"}},
        {ConfigXml(Fixed("1", "-1")), {"CheckValueRange check limit fail! -1  0  209715200\n"}},
        {ConfigXml(Fixed("1", "1000000000")),
         {"CheckElementValue fail! value=1000000000 len=10\n"}},
        // Optional limits: only an over-long (or missing) text fails.
        {Limits("<AlgoSizeLimit>1000000000</AlgoSizeLimit>"),
         {"LoadVariableElement check AlgoSizeLimit fail!\n", kVariableFail}},
        {Limits("<PrevRatioLimit>1000</PrevRatioLimit>"),
         {"LoadVariableElement check PrevRatioLimit fail!\n", kVariableFail}},
        {Limits("<PrevRatioLimit></PrevRatioLimit>"),
         {"LoadVariableElement check PrevRatioLimit fail!\n"}},
        {Limits("<MultiPoolSize>0104857600</MultiPoolSize>"),
         {"LoadMultiPoolSize check MultiPoolSize fail!\n", kVariableFail}},
        // No algorithm element after the limits: fails without a line of its own.
        {ConfigXml(FixedElements()), {kVariableFail}},
        // Algorithm elements.
        {Algo("name=\"neg\" value=\"-1\""),
         {"CheckAlgoSize algosize:-1 is lower than limit:0\n",
          "ParseAlgoSize check algo size fail!\n", "ParseAlgoInfo parse Algo Size fail!\n",
          kAlgoFail, kVariableFail}},
        {Algo("name=\"txt\" value=\"abc\""), {"CheckAlgoSize algosize is not integer! value  abc\n"}},
        {Algo("name=\"long\" value=\"1234567890\""),
         {"CheckAttribute check XMLAttribute:value fail! len=10\n",
          "ParseAlgoSize check attribute value fail!\n"}},
        {Algo("name=\"a\" value=\"1\" resolution=\"1920*1080\""),
         {"talmempoolcfg CheckResolutionFormat resolution format error! str=1920*1080 "
          "width=1920 height=0 ret=1\n",
          "talmempoolcfg ParseAlgoSize resolution format error!\n"}},
        {Algo("name=\"a\" value=\"1\" resolution=\"0x1080\""),
         {"talmempoolcfg CheckResolutionFormat resolution format error! str=0x1080 width=0 "
          "height=1080 ret=2\n"}},
        {Algo("name=\"a\" value=\"1\" resolution=\"default\""),
         {"talmempoolcfg CheckResolutionFormat resolution format error! str=default width=0 "
          "height=0 ret=0\n"}},
        {Algo("name=\"a\" value=\"1\" resolution=\"123456789012x12345678\""),
         {"CheckAttribute check XMLAttribute:resolution fail! len=21\n",
          "ParseAlgoSize check attribute resolution fail!\n"}},
        // "default" may only stand alone, also across merged elements.
        {ConfigWithAlgos("<Algo name=\"a\" value=\"1\"/>"
                         "<Algo name=\"a\" value=\"2\" resolution=\"1x1\"/>"),
         {"CheckDefaultResolution algoName:a deafult resolution, but size is 2\n",
          "talmempoolcfg ParseAlgoInfo deafult resolution contains more than one algoSize!\n"}},
        // Only the last pair may leave its resolution out; names follow the pair count.
        {Algo("name=\"a\" value=\"1\" value1=\"2\" resolution1=\"1x1\""),
         {"CheckAttribute check XMLAttribute:resolution fail! value1\n",
          "ParseAlgoSize check attribute resolution fail!\n"}},
        {Algo("name=\"a\" value=\"1\" resolution=\"1x1\" value2=\"2\""),
         {"CheckAttribute check XMLAttribute:value1 fail! value2\n"}},
        {Algo("value=\"1\" name=\"a\""),
         {"CheckAttribute check XMLAttribute:name fail! value\n",
          "ParseAlgoInfo check attribute name fail!\n"}},
        {Algo(""), {"CheckAttribute XMLAttribute is NULL!\n"}},
        {Algo("name=\"0123456789012345678901234567890\" value=\"1\""),
         {"CheckAttribute check XMLAttribute:name fail! len=31\n"}},
        {Algo("name=\"a\" resolution=\"1x1\" value=\"1\""),
         {"CheckAttribute check XMLAttribute:value fail! resolution\n"}},
    };
    return cases;
}

class ConfigRejectTest : public ConfigTest {};

TEST_F(ConfigRejectTest, EachRejectionFailsTheLoadWithItsLines)
{
    for (const Rejection& c : Rejections()) {
        SCOPED_TRACE(c.xml);
        LogCapture::Clear();
        table.clear();
        EXPECT_EQ(LoadText(c.xml), -1);
        for (const std::string& m : c.errors) {
            EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, m), 1) << m << LogCapture::Dump();
        }
    }
}

TEST_F(ConfigRejectTest, UnreadableFilesFailWithTheLoadFileLine)
{
    std::string garbage(4096, '\0');
    for (size_t i = 0; i < garbage.size(); ++i) {
        garbage[i] = static_cast<char>((i * 131 + 7) & 0xFF);
    }
    const std::string path = DeviceFile("scratch.xml");
    for (const std::string& text : {std::string("<TalMemPoolConfig>x<AllocType>1</AllocType>"),
                                    std::string(), garbage}) {
        LogCapture::Clear();
        EXPECT_EQ(LoadText(text), -1);
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "talmempoolcfg LoadFile " + path + " fail!\n"),
                  1);
    }
    EXPECT_EQ(config.LoadTalMemConfig(DeviceFile("missing.xml"), table), -1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR,
                                "talmempoolcfg LoadFile " + DeviceFile("missing.xml") + " fail!\n"),
              1);
}

} // namespace
} // namespace talmem_test
