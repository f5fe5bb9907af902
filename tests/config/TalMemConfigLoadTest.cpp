// Reading a configuration file: what an accepted file sets and logs, and
// every way a file is refused, with the lines it logs.

#include "ConfigTestSupport.h"
#include "interface/QvaAlgoMemAllocatorManager.h"

namespace talmem_test {
namespace {

using Manager = qv::QvaAlgoMemAllocatorManager;

// Each accepted file: 0, the record, the table, the allocate type handed to
// the manager, and each of `lines` logged exactly once.
TEST_F(ConfigTest, Load_AcceptedFilesSetTheRecordTableAndAllocatorType)
{
    const std::string lv = "LoadVariableElement ", mp = "LoadMultiPoolSize ";
    const std::string ex = " exceeds limit, set default!\n", algo = "<Algo name=\"a\" value=\"1\"/>";
    const std::vector<int> defaults = {1, 1000, 471859200, 75, 0xDC00000};
    const struct {
        std::string xml;
        std::vector<int> record;
        std::string table;
        std::vector<std::pair<int, std::string>> lines;
    } cases[] = {
        {Cfg("<AlgoSizeLimit>524288000</AlgoSizeLimit><PrevRatioLimit>20%</PrevRatioLimit>"
             "<MultiPoolSize>104857600</MultiPoolSize>" + algo, "1", "4096abc"),
         {1, 4096, 524288000, 20, 104857600}, "a[default=1]",
         {{kI, "AllocType  1 1\n"}, {kI, "BasePoolSize  4096abc 4096\n"},
          {kI, " AlgoSizeLimit  524288000 524288000\n"}, {kI, " PrevRatioLimit  20% 20\n"},
          {kI, " MultiPoolSize  104857600 104857600\n"}}},
        // AllocType 0: the pool configuration is not in force, nothing more is read.
        {Cfg("<AlgoSizeLimit>1000</AlgoSizeLimit>" + algo, "0"), {0, 0, 471859200, 75, 0xDC00000}, "",
         {}},
        {Cfg(algo), defaults, "a[default=1]",
         {{kW, lv + "AlgoSizeLimit is missing!\n"}, {kW, lv + "PrevRatioLimit is missing!\n"},
          {kW, mp + "MultiPoolSize is missing!\n"},
          {kE, "CheckElementName check XMLElement:AlgoSizeLimit fail! Algo\n"}}},
        {Cfg("<AlgoSizeLimit>524288001</AlgoSizeLimit><PrevRatioLimit>101</PrevRatioLimit>"
             "<MultiPoolSize>104857599</MultiPoolSize>" + algo), defaults, "a[default=1]",
         {{kE, lv + "algoSizeLimit:524288001" + ex}, {kE, lv + "prevRatioLimit:101" + ex},
          {kE, mp + "multiPoolSize:104857599" + ex}}},
        {Cfg("<AlgoSizeLimit>-1</AlgoSizeLimit><PrevRatioLimit>19</PrevRatioLimit>"
             "<MultiPoolSize>262144001</MultiPoolSize>" + algo), defaults, "a[default=1]",
         {{kE, lv + "prevRatioLimit:19" + ex}, {kE, mp + "multiPoolSize:262144001" + ex}}},
        // Elements of one algorithm merge in file order, whatever their name; sizes are capped.
        {Cfg("<AlgoSizeLimit>1000</AlgoSizeLimit><Algo name=\"m\" value=\"10\" resolution=\"4x3\" "
             "value1=\"20\" resolution1=\"19x10p\"/><Other name=\"h\" value=\"1001\"/><A name=\"e\"/>"
             "<Algo name=\"m\" value=\"0\" resolution=\"8x6\" value1=\"2\" resolution1=\"2x2\" "
             "value2=\"3\" resolution2=\"3x3\" value3=\"4\" resolution3=\"4x4\"/>"),
         {1, 1000, 1000, 75, 0xDC00000}, "h[default=1000] m[4x3=10 19x10p=20 8x6=0 2x2=2 3x3=3 4x4=4]",
         {{kE, "CheckAlgoSize algosize:1001 exceeds limit:1000, set default!\n"},
          {kW, "talmempoolcfg ParseAlgoInfo algolist is NULL\n"},
          {kW, "talmempoolcfg ParseAlgoSize resolution num:3 exceeds the limit:2\n"},
          {ANDROID_LOG_DEBUG, "name=[h]\n"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xml);
        LogCapture::Clear();
        table.clear();
        config = qv::TalMemConfig();
        Manager::getSingleton()->setAlgoAllocatorType(Manager::ALGO_ALLOCATOR_EXTERNAL);
        ASSERT_EQ(LoadText(c.xml), 0) << LogCapture::Dump();
        EXPECT_EQ(Record(config), c.record);
        EXPECT_EQ(Describe(table), c.table);
        EXPECT_EQ(Manager::getSingleton()->getAlgoAllocatorType(), c.record[0]);
        for (const auto& l : c.lines) {
            EXPECT_EQ(LogCapture::Count(l.first, l.second), 1) << l.second << LogCapture::Dump();
        }
        for (const std::string& f : {lv, mp}) { // the lines carry their function's name
            const std::string named = f.substr(0, f.size() - 1) + "() " + f;
            EXPECT_EQ(LogCapture::CountContaining("() " + f), LogCapture::CountContaining(named));
        }
    }
}

// Each refused file: -1, `errors` ERROR lines in all, each of `lines` once.
TEST_F(ConfigTest, Load_EachRejectionFailsWithItsLines)
{
    const std::string var = "LoadTalMemConfig load variable element or algo fail!\n";
    const std::string fmt = "talmempoolcfg CheckResolutionFormat resolution format error! str=";
    const std::string attr = "CheckAttribute check XMLAttribute:", n31(31, 'n');
    const std::string range = "CheckValueRange check limit fail! ", fixed = "CheckFixedElement check ";
    const std::string lv = "LoadVariableElement check ";
    const std::string res = "talmempoolcfg ParseAlgoSize resolution format error!\n";
    auto a = [](const std::string& attributes) { return WithLimits("<Algo " + attributes + "/>"); };
    const struct { std::string xml; int errors; std::vector<std::string> lines; } cases[] = {
        {"\x01\x02 <<", 1, {"talmempoolcfg LoadFile " + DeviceFile("x.xml") + " fail!\n"}},
        {"<TalMemPoolConfig><AllocType>1</AllocType></TalMemPoolConfig>", 1,
         {"CheckElementValue parameter is invalid!\n"}},
        {Cfg("", "1", "1", n31), 1, {"CheckElementValue fail! value=" + n31 + " len=31\n"}},
        {"<Other>x</Other>", 1, {"CheckElementName check XMLElement:TalMemPoolConfig fail! Other\n"}},
        {"<TalMemPoolConfig>x</TalMemPoolConfig>", 1, {"talmempoolcfg get allocateType fail!\n"}},
        {"<TalMemPoolConfig>x<BasePoolSize>1</BasePoolSize></TalMemPoolConfig>", 2,
         {"CheckElementName check XMLElement:AllocType fail! BasePoolSize\n",
          fixed + "AllocType fail!\n"}},
        {Cfg("", "2"), 2, {range + "2  0  1\n", fixed + "AllocType value range fail!\n"}},
        {Cfg("", " 1"), 2, {"CheckElementValue fail! value= 1 len=2\n"}},
        {"<TalMemPoolConfig>x<AllocType>1</AllocType></TalMemPoolConfig>", 2,
         {"CheckElementName parameter is invalid!\n", fixed + "BasePoolSize fail!\n"}},
        {Cfg("", "1", "209715201"), 2, {range + "209715201  0  209715200\n"}},
        {Cfg("", "1", "-1"), 2, {range + "-1  0  209715200\n", fixed + "BasePoolSize value range fail!\n"}},
        {Cfg("", "1", "1000000000"), 2, {"CheckElementValue fail! value=1000000000 len=10\n"}},
        {Cfg("<AlgoSizeLimit>1000000000</AlgoSizeLimit>"), 2, {lv + "AlgoSizeLimit fail!\n", var}},
        {Cfg("<AlgoSizeLimit></AlgoSizeLimit>"), 2, {lv + "AlgoSizeLimit fail!\n"}},
        {Cfg("<PrevRatioLimit>1000</PrevRatioLimit>"), 3, {lv + "PrevRatioLimit fail!\n"}},
        {Cfg("<MultiPoolSize>0104857600</MultiPoolSize>"), 4, {"LoadMultiPoolSize check MultiPoolSize fail!\n"}},
        {WithLimits(""), 1, {var}}, // ends after MultiPoolSize: no line of its own
        {a("name=\"a\" value=\"-1\""), 5,
         {"CheckAlgoSize algosize:-1 is lower than limit:0\n", "ParseAlgoSize check algo size fail!\n",
          "ParseAlgoInfo parse Algo Size fail!\n", "LoadVariableElement parse algo failed!\n"}},
        {a("name=\"a\" value=\"abc\""), 5, {"CheckAlgoSize algosize is not integer! value  abc\n"}},
        {a("name=\"a\" value=\"1234567890\""), 5,
         {attr + "value fail! len=10\n", "ParseAlgoSize check attribute value fail!\n"}},
        {a("name=\"a\" value=\"1\" resolution=\"1920*1080\""), 5,
         {fmt + "1920*1080 width=1920 height=0 ret=1\n", res}},
        {a("name=\"a\" value=\"1\" resolution=\"0x1080\""), 5,
         {fmt + "0x1080 width=0 height=1080 ret=2\n", res}},
        {a("name=\"a\" value=\"1\" resolution=\"123456789012x12345678\""), 5,
         {attr + "resolution fail! len=21\n", "ParseAlgoSize check attribute resolution fail!\n"}},
        {WithLimits("<Algo name=\"a\" value=\"1\"/><Algo name=\"a\" value=\"2\" resolution=\"1x1\"/>"), 4,
         {"CheckDefaultResolution algoName:a deafult resolution, but size is 2\n",
          "talmempoolcfg ParseAlgoInfo deafult resolution contains more than one algoSize!\n"}},
        {a("name=\"a\" value=\"1\" value1=\"2\" resolution1=\"1x1\""), 5, {attr + "resolution fail! value1\n"}},
        {a("name=\"a\" value=\"1\" resolution=\"1x1\" value2=\"2\""), 5, {attr + "value1 fail! value2\n"}},
        {a("value=\"1\" name=\"a\""), 4,
         {attr + "name fail! value\n", "ParseAlgoInfo check attribute name fail!\n"}},
        {a(""), 4, {"CheckAttribute XMLAttribute is NULL!\n"}},
        {a("name=\"" + n31 + "\" value=\"1\""), 4, {attr + "name fail! len=31\n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xml);
        LogCapture::Clear();
        EXPECT_EQ(LoadText(c.xml), -1);
        for (const std::string& m : c.lines) {
            EXPECT_EQ(LogCapture::Count(kE, m), 1) << m << LogCapture::Dump();
        }
        int errors = 0;
        for (const LogLine& line : LogCapture::Lines()) {
            errors += line.priority == kE ? 1 : 0;
        }
        EXPECT_EQ(errors, c.errors) << LogCapture::Dump();
    }
}

} // namespace
} // namespace talmem_test
