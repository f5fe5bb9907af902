// The pool configuration: which file is loaded, what a file sets or why it is
// refused, the learnt table written back, and the allocator type recorded.

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "TalTestSupport.h"
#include "config/TalMemConfig.h"
#include "descriptor/QvaAlgoMemAllocatorManager.h"

namespace talmem_test {
namespace {

using Manager = qv::QvaAlgoMemAllocatorManager;
using Lines = std::vector<std::pair<int, std::string>>;
constexpr int kE = ANDROID_LOG_ERROR, kW = ANDROID_LOG_WARN, kI = ANDROID_LOG_INFO, kD = ANDROID_LOG_DEBUG;

// A document: root text, AllocType `type`, BasePoolSize `base`, then `rest`.
std::string Cfg(const std::string& rest, const std::string& type = "1", const std::string& base = "1000",
                const std::string& text = "root text")
{
    return "<TalMemPoolConfig>" + text + "<AllocType>" + type + "</AllocType><BasePoolSize>" + base +
           "</BasePoolSize>" + rest + "</TalMemPoolConfig>";
}

// The same with the three optional limits before `algos`.
std::string WithLimits(const std::string& algos, const std::string& type = "1", const char* algoLimit = "471859200",
                       const char* ratio = "75", const char* multi = "230686720", const char* base = "1000")
{
    return Cfg(std::string("<AlgoSizeLimit>") + algoLimit + "</AlgoSizeLimit><PrevRatioLimit>" + ratio +
               "</PrevRatioLimit><MultiPoolSize>" + multi + "</MultiPoolSize>" + algos, type, base);
}

// "name resolution=size ...;" per algorithm, in map order.
std::string Describe(const qv::TalAlgoPeakMap& table)
{
    std::string out;
    for (const auto& algo : table) {
        out += algo.first;
        for (const auto& e : algo.second) { out += " " + e.resolution + "=" + std::to_string(e.algoSize); }
        out += ";";
    }
    return out;
}

std::vector<int> Record(const qv::TalMemConfig& c)
{
    return {c.allocateType, c.basePoolSize, c.algoSizeLimit, c.prevRatioLimit, c.multiPoolSize};
}

class ConfigTest : public TalTest {
protected:
    std::string FilterFile() const { return DevicePath("/data/vendor/camera/talmempoolfilter.xml"); }
    int LoadText(const std::string& xml)
    {
        WriteFile(DevicePath("/odm/etc/camera/x.xml"), xml);
        return config.LoadTalMemConfig(DevicePath("/odm/etc/camera/x.xml"), table);
    }

    qv::TalMemConfig config;
    qv::TalAlgoPeakMap table;
};

// Each accepted file: 0, the record, the table, the allocate type handed to
// the manager, and each listed line exactly once.
TEST_F(ConfigTest, Load_AcceptedFilesSetTheRecordTableAndAllocatorType)
{
    const std::string lv = "LoadVariableElement ", mp = "LoadMultiPoolSize ", ex = " exceeds limit, set default!\n";
    const std::string a = "<Algo name=\"a\" value=\"1\"/>";
    const std::vector<int> defaults = {1, 1000, 471859200, 75, 0xDC00000};
    const struct { std::string xml; std::vector<int> record; std::string table; Lines lines; } cases[] = {
        {WithLimits(a, "1", "524288000", "20%", "104857600", "4096abc"), {1, 4096, 524288000, 20, 104857600},
         "a default=1;", {{kI, "BasePoolSize  4096abc 4096\n"}, {kI, " PrevRatioLimit  20% 20\n"}}},
        // AllocType 0: the pool configuration is not in force, nothing more is read.
        {Cfg("<AlgoSizeLimit>1000</AlgoSizeLimit>" + a, "0"), {0, 0, 471859200, 75, 0xDC00000}, "", {}},
        {Cfg(a), defaults, "a default=1;", {{kW, lv + "AlgoSizeLimit is missing!\n"},
         {kW, lv + "PrevRatioLimit is missing!\n"}, {kW, mp + "MultiPoolSize is missing!\n"}}},
        {WithLimits(a, "1", "524288001", "101", "104857599"), defaults, "a default=1;",
         {{kE, lv + "algoSizeLimit:524288001" + ex}, {kE, mp + "multiPoolSize:104857599" + ex}}},
        {WithLimits(a, "1", "-1", "19", "262144001"), defaults, "a default=1;", {{kE, lv + "prevRatioLimit:19" + ex}}},
        // Elements of one algorithm merge in file order, whatever their name; sizes are capped.
        {Cfg("<AlgoSizeLimit>1000</AlgoSizeLimit><Algo name=\"m\" value=\"10\" resolution=\"19x10p\"/><O name=\"h\" "
             "value=\"1001\"/><A name=\"e\"/><Algo name=\"m\" value=\"0\" resolution=\"8x6\" value1=\"2\" resolution1="
             "\"2x2\" value2=\"3\" resolution2=\"3x3\" value3=\"4\" resolution3=\"4x4\"/>"),
         {1, 1000, 1000, 75, 0xDC00000}, "h default=1000;m 19x10p=10 8x6=0 2x2=2 3x3=3 4x4=4;",
         {{kE, "CheckAlgoSize algosize:1001 exceeds limit:1000, set default!\n"},
          {kW, "talmempoolcfg ParseAlgoInfo algolist is NULL\n"},
          {kW, "talmempoolcfg ParseAlgoSize resolution num:3 exceeds the limit:2\n"}}},
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
    }
}

// Each refused file: -1, `errors` ERROR lines in all, each listed one once.
TEST_F(ConfigTest, Load_EachRejectionFailsWithItsLines)
{
    const std::string var = "LoadTalMemConfig load variable element or algo fail!\n", n31(31, 'n'), na = "name=\"a\" ";
    const std::string fmt = "talmempoolcfg CheckResolutionFormat resolution format error! str=";
    const std::string attr = "CheckAttribute check XMLAttribute:", lv = "LoadVariableElement check ";
    const std::string rng = "CheckValueRange check limit fail! ", fix = "CheckFixedElement check ";
    const std::string res = "talmempoolcfg ParseAlgoSize resolution format error!\n", inv = " parameter is invalid!\n";
    const std::string el = "CheckElementName check XMLElement:", sz = "ParseAlgoSize check algo size fail!\n";
    auto a = [](const std::string& attributes) { return WithLimits("<Algo " + attributes + "/>"); };
    auto root = [](const std::string& inner) { return "<TalMemPoolConfig>x" + inner + "</TalMemPoolConfig>"; };
    const struct { std::string xml; int errors; std::vector<std::string> lines; } cases[] = {
        {"\x01\x02 <<", 1, {"talmempoolcfg LoadFile " + DevicePath("/odm/etc/camera/x.xml") + " fail!\n"}},
        {Cfg("", "1", "1", ""), 1, {"CheckElementValue" + inv}},
        {Cfg("", "1", "1", n31), 1, {"CheckElementValue fail! value=" + n31 + " len=31\n"}},
        {"<Other>x</Other>", 1, {el + "TalMemPoolConfig fail! Other\n"}},
        {root(""), 1, {"talmempoolcfg get allocateType fail!\n"}},
        {root("<BasePoolSize>1</BasePoolSize>"), 2, {el + "AllocType fail! BasePoolSize\n", fix + "AllocType fail!\n"}},
        {Cfg("", "2"), 2, {rng + "2  0  1\n", fix + "AllocType value range fail!\n"}},
        {Cfg("", " 1"), 2, {"CheckElementValue fail! value= 1 len=2\n"}},
        {root("<AllocType>1</AllocType>"), 2, {"CheckElementName" + inv, fix + "BasePoolSize fail!\n"}},
        {Cfg("", "1", "209715201"), 2, {rng + "209715201  0  209715200\n"}},
        {Cfg("", "1", "-1"), 2, {rng + "-1  0  209715200\n", fix + "BasePoolSize value range fail!\n"}},
        {Cfg("<AlgoSizeLimit>1000000000</AlgoSizeLimit>"), 2, {lv + "AlgoSizeLimit fail!\n", var}},
        {Cfg("<AlgoSizeLimit></AlgoSizeLimit>"), 2, {lv + "AlgoSizeLimit fail!\n"}},
        {Cfg("<PrevRatioLimit>1000</PrevRatioLimit>"), 3, {lv + "PrevRatioLimit fail!\n"}},
        {Cfg("<MultiPoolSize>0104857600</MultiPoolSize>"), 4, {"LoadMultiPoolSize check MultiPoolSize fail!\n"}},
        {WithLimits(""), 1, {var}}, // ends after MultiPoolSize: no line of its own
        {a(na + "value=\"-1\""), 5, {"CheckAlgoSize algosize:-1 is lower than limit:0\n", sz}},
        {a(na + "value=\"abc\""), 5, {"CheckAlgoSize algosize is not integer! value  abc\n", sz}},
        {a(na + "value=\"1234567890\""), 5, {attr + "value fail! len=10\n"}},
        {a(na + "value=\"1\" resolution=\"1920*1080\""), 5, {fmt + "1920*1080 width=1920 height=0 ret=1\n", res}},
        {a(na + "value=\"1\" resolution=\"0x1080\""), 5, {fmt + "0x1080 width=0 height=1080 ret=2\n", res}},
        {a(na + "value=\"1\" resolution=\"123456789012x12345678\""), 5, {attr + "resolution fail! len=21\n"}},
        {a(na + "value=\"1\" value1=\"2\" resolution1=\"1x1\""), 5, {attr + "resolution fail! value1\n"}},
        {a(na + "value=\"1\" resolution=\"1x1\" value2=\"2\""), 5, {attr + "value1 fail! value2\n"}},
        {a(""), 4, {"CheckAttribute XMLAttribute is NULL!\n", "LoadVariableElement parse algo failed!\n"}},
        {a("value=\"1\" " + na), 4, {attr + "name fail! value\n", "ParseAlgoInfo check attribute name fail!\n"}},
        {a("name=\"" + n31 + "\" value=\"1\""), 4, {attr + "name fail! len=31\n"}},
        {a(na + "value=\"1\"/><Algo " + na + "value=\"2\" resolution=\"1x1\""), 4,
         {"CheckDefaultResolution algoName:a deafult resolution, but size is 2\n",
          "talmempoolcfg ParseAlgoInfo deafult resolution contains more than one algoSize!\n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xml);
        LogCapture::Clear();
        EXPECT_EQ(LoadText(c.xml), -1);
        for (const std::string& m : c.lines) {
            EXPECT_EQ(LogCapture::Count(kE, m), 1) << m << LogCapture::Dump();
        }
        EXPECT_EQ(LogCapture::CountContaining("[ERROR  ] "), c.errors) << LogCapture::Dump();
    }
}

// The filter file if it loads with AllocType 1 (else the table is emptied), then the small-memory file
// on a device of at most 4 GiB, then the normal one; the priority directory before the device directory.
TEST_F(ConfigTest, LoadAlgoPeakMem_ChoosesTheFileInOrder)
{
    const std::string D = "/odm/etc/camera/talmempoolcfg.xml", P = "/odm/etc/camera/AlgoConfig/talmempoolcfg.xml";
    const std::string S = "/odm/etc/camera/talmempoolcfg_ram4g.xml", F = "/data/vendor/camera/talmempoolfilter.xml";
    const std::string at = "LoadAlgoPeakMem talmempoolcfg path is ", fn = "LoadAlgoPeakMem ";
    using Probe = qv::TalMemConfig::TotalMemoryProbe;
    using Files = std::vector<std::pair<std::string, std::string>>; // path, its only algorithm
    const Probe k8G = [] { return 8 << 20; }, k4G = [] { return 0x400000; };
    const struct { Files files; Probe probe; int result; std::string table; int prio; std::string line; } cases[] = {
        {{{D, "dev"}, {F, "learnt"}}, k8G, 0, "learnt", kD, fn + "LoadAlgoPeakMem cfg_filter success\n"},
        {{{D, "dev"}, {F, "broken"}}, k8G, 0, "dev", kE, fn + "loadTalMemConfig cfg_filter error\n"},
        {{{D, "dev"}, {F, "0"}}, k8G, 0, "dev", kE, "get AllocType fail, fileName:" + DevicePath(F) + ", type:0\n"},
        {{{D, "dev"}, {P, "pri"}}, k8G, 0, "pri", kI, at + DevicePath(P) + "\n"},
        {{{D, "dev"}, {S, "small"}}, [] { return -1; }, 0, "small", kI, at + DevicePath(S) + "\n"},
        {{{D, "dev"}, {S, "small"}}, [] { return 0x400001; }, 0, "dev", kI, at + DevicePath(D) + "\n"},
        {{{D, "dev"}}, k4G, 0, "dev", kI, at + DevicePath(D) + "\n"},
        {{{P, "pri"}, {S, "small"}}, k4G, 0, "small", kI, at + DevicePath(S) + "\n"},
        {{}, k8G, -1, "", kE, at + "NULL\n"},
        {{{D, "garbage"}}, k8G, -1, "", kE, fn + "loadTalMemConfig tal_mem_config error\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        for (const auto& f : c.files) { // "broken" fails after its first algorithm entered the table
            const std::string& n = f.second;
            WriteFile(DevicePath(f.first), n == "garbage" ? "\x01\x02 <<"
                      : n == "broken" ? WithLimits("<A name=\"learnt\" value=\"5\"/><A name=\"b\" value=\"-1\"/>")
                      : WithLimits("<A name=\"" + n + "\" value=\"1\" resolution=\"4x3\"/>", n == "0" ? "0" : "1"));
        }
        LogCapture::Clear();
        table.clear();
        EXPECT_EQ(config.LoadAlgoPeakMem(table, c.probe), c.result) << LogCapture::Dump();
        EXPECT_EQ(Describe(table), c.table.empty() ? "" : c.table + " 4x3=1;");
        EXPECT_EQ(LogCapture::Count(c.prio, c.line), 1) << LogCapture::Dump();
        RemoveTree(DevicePath("/odm/etc/camera/"));
        unlink(DevicePath(F).c_str());
    }
}

TEST_F(ConfigTest, ShippedSamplesLoadWithoutWarnings)
{
    const std::string here = __FILE__, dir = here.substr(0, here.rfind("/tests/")) + "/samples/device/odm/etc/camera/";
    for (const auto& s : {std::make_pair("talmempoolcfg.xml", 8u), std::make_pair("talmempoolcfg_ram4g.xml", 7u)}) {
        table.clear();
        EXPECT_EQ(config.LoadTalMemConfig(dir + s.first, table), 0) << LogCapture::Dump();
        EXPECT_EQ(table.size(), s.second) << "the 4 GiB variant has no super resolution";
    }
    EXPECT_EQ(LogCapture::CountContaining("[WARN"), 0) << LogCapture::Dump();
}

// The learnt table is written whole or not at all: a full disk (a file-size limit below the new file's
// size) or a missing directory leaves the previous file byte for byte and no temporary beside it.
TEST_F(ConfigTest, Write_LayoutAndAtomicReplacementOfTheFilterFile)
{
    config.allocateType = 1; // the writer runs with the pool configuration in force
    table = {{"b", {{"4x3", 10}, {"2x1", 20}, {"3x3", 30}, {"5x5", 40}}},
             {"a", {{"default", 5}}}, {"c", {{"1x1", 1}, {"default", 2}}}, {"empty", {}}};
    ASSERT_EQ(config.UploadAlgoPeakMem(table), 0);
    const std::string written =
        "<?<?xml version=\"1.0\" encoding=\"GB2312\" standalone=\"\"?>?>\n"
        "<TalMemPoolConfig>list algorithm peak size<AllocType>1</AllocType>\n"
        "    <BasePoolSize>0</BasePoolSize>\n    <AlgoSizeLimit>471859200</AlgoSizeLimit>\n"
        "    <PrevRatioLimit>75</PrevRatioLimit>\n    <MultiPoolSize>230686720</MultiPoolSize>\n"
        "    <Algo name=\"a\" value=\"5\"></Algo>\n"
        "    <Algo name=\"b\" value=\"10\" resolution=\"4x3\" value1=\"20\" resolution1=\"2x1\" value2=\"30\" "
        "resolution2=\"3x3\"></Algo>\n"
        "    <Algo name=\"b\" value=\"40\" resolution=\"5x5\"></Algo>\n"
        "    <Algo name=\"c\" value=\"1\" resolution=\"1x1\" value1=\"2\" resolution1=\"default\"></Algo>\n"
        "</TalMemPoolConfig>\n";
    EXPECT_EQ(ReadFile(FilterFile()), written);
    table["d"] = {{"8x8", 8}};
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    const struct rlimit small = {256, saved.rlim_max};
    signal(SIGXFSZ, SIG_IGN); // a write past the limit then fails instead of ending the process
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_EQ(config.UploadAlgoPeakMem(table), -1);
    setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_EQ(ReadFile(FilterFile()), written);
    const std::filesystem::directory_iterator dir(DevicePath("/data/vendor/camera/"));
    EXPECT_EQ(std::distance(dir, std::filesystem::directory_iterator()), 1) << "because the temporary is gone";
    RemoveTree(DevicePath("/data/vendor/camera/"));
    EXPECT_EQ(config.UploadAlgoPeakMem(table), -1);
    EXPECT_EQ(LogCapture::Count(kE, "write_to_file " + FilterFile() + " failed !\n"), 2);
}

// Lists of one entry (any resolution) or of real resolutions only, up to ten entries (so several
// elements per algorithm), come back exactly, and so do the limits, each at one end of its range.
TEST_F(ConfigTest, Write_GeneratedTablesRoundTripThroughTheFilterFile)
{
    static const char kNameChars[] = "abcXYZ019_-. &<>\"'";
    ASSERT_EQ(LoadText(WithLimits("<A name=\"x\"/>", "1", "524288000", "20", "104857600", "209715200")), 0);
    for (unsigned seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        auto pick = [&rng](uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(rng); };
        table.clear();
        for (int a = pick(1, 6); a > 0; --a) {
            std::string name(pick(1, 30), ' ');
            for (char& ch : name) { ch = kNameChars[pick(0, sizeof(kNameChars) - 2)]; }
            const int entries = pick(1, 3) == 1 ? 1 : pick(2, 10);
            for (int i = 0; i < entries; ++i) {
                std::string res = std::to_string(pick(1, 99999)) + "x" + std::to_string(pick(1, 9999));
                table[name].push_back({entries == 1 && pick(0, 2) == 0 ? "default" : res,
                                       pick(0, config.algoSizeLimit)});
            }
        }
        ASSERT_EQ(config.UploadAlgoPeakMem(table), 0);
        qv::TalMemConfig back; // a fresh reader and table
        qv::TalAlgoPeakMap read;
        ASSERT_EQ(back.LoadTalMemConfig(FilterFile(), read), 0) << ReadFile(FilterFile());
        EXPECT_TRUE(read == table) << Describe(table) << "\n" << Describe(read);
        EXPECT_EQ(Record(back), Record(config));
    }
}

} // namespace
} // namespace talmem_test
