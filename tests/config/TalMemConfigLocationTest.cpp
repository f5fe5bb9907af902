// Where configuration files are looked for and which one is loaded.

#include <unistd.h>

#include "ConfigTestSupport.h"

namespace talmem_test {
namespace {

// The order of directories itself is covered by the choice of file below.
TEST_F(ConfigTest, GetOneCfgFile_TriesTheExtendDirFirstAndFallsBackAsDocumented)
{
    const std::string d1 = DeviceFile("AlgoConfig/"), d2 = DeviceFile("");
    char buf[256];
    WriteFile(d2 + "a.xml", "");
    MakeDirs(d2 + "ext/a.xml"); // exists, though not as a readable file
    EXPECT_EQ(qv::GetOneCfgFile(d1.c_str(), d2.c_str(), "ext", "a.xml", buf, 256, nullptr), buf);
    EXPECT_EQ(buf, d2 + "ext/a.xml");
    EXPECT_EQ(qv::GetOneCfgFile(nullptr, d2.c_str(), nullptr, "a.xml", buf, 256, nullptr), nullptr);
    EXPECT_TRUE(LogCapture::Lines().empty()) << "because a null first directory ends the search";
    EXPECT_EQ(qv::GetOneCfgFile(d1.c_str(), nullptr, nullptr, "a.xml", buf, 256, "/no/"), buf);
    EXPECT_EQ(buf, std::string("/no/a.xml"));
    EXPECT_EQ(LogCapture::Count(kI, "GetOneCfgFile() not found, use default\n"), 1);
    EXPECT_EQ(qv::GetOneCfgFile(d1.c_str(), nullptr, nullptr, "a.xml", buf, 0, "/no/"), nullptr);
    EXPECT_EQ(LogCapture::Count(kE, "GetOneCfgFile() fileName or bufLen is invalid\n"), 1);
    EXPECT_EQ(qv::GetOneCfgFile(nullptr, nullptr, nullptr, "a.xml", buf, 256, "/no/"), nullptr);
    EXPECT_EQ(LogCapture::Count(kE, "GetOneCfgFile() PriorityDir NULL\n"), 1);
    EXPECT_EQ(qv::GetOneCfgFile(d2.c_str(), nullptr, nullptr, "a.xml", buf, 8, nullptr), nullptr);
    EXPECT_EQ(LogCapture::Count(kE, "GetOneCfgFile snprintf_s(buf, bufLen, bufLen - 1, \"%s%s\", "
                                    "dir, fileName) snprintf_s failed"), 1);
}

TEST_F(ConfigTest, LoadAlgoPeakMem_ChoosesTheFileInOrder)
{
    const std::string dev = "/odm/etc/camera/talmempoolcfg.xml";
    const std::string pri = "/odm/etc/camera/AlgoConfig/talmempoolcfg.xml";
    const std::string small = "/odm/etc/camera/talmempoolcfg_ram4g.xml";
    const std::string filter = "/data/vendor/camera/talmempoolfilter.xml";
    const std::string at = "LoadAlgoPeakMem talmempoolcfg path is ";
    using Probe = qv::TalMemConfig::TotalMemoryProbe;
    const Probe k8G = [] { return 8 << 20; }, k4G = [] { return 0x400000; };
    const struct {
        std::vector<std::pair<std::string, std::string>> files; // path, its only algorithm
        Probe probe;
        int result;
        std::string table;
        int prio;
        std::string line;
    } cases[] = {
        {{{dev, "device"}, {filter, "learnt"}}, k8G, 0, "learnt[4x3=1]", ANDROID_LOG_DEBUG,
         "LoadAlgoPeakMem LoadAlgoPeakMem cfg_filter success\n"},
        // A learnt file that fails after its first algorithm entered the table.
        {{{dev, "device"}, {filter, "broken"}}, k8G, 0, "device[4x3=1]", kE,
         "LoadAlgoPeakMem loadTalMemConfig cfg_filter error\n"},
        // A learnt file must carry AllocType 1 (algorithm "0" is written with AllocType 0).
        {{{dev, "device"}, {filter, "0"}}, k8G, 0, "device[4x3=1]", kE,
         "get AllocType fail, fileName:" + DevicePath(filter) + ", type:0\n"},
        {{{dev, "device"}, {pri, "pri"}}, k8G, 0, "pri[4x3=1]", kI, at + DevicePath(pri) + "\n"},
        {{{dev, "normal"}, {small, "small"}}, k4G, 0, "small[4x3=1]", kI, at + DevicePath(small) + "\n"},
        {{{dev, "normal"}, {small, "small"}}, [] { return -1; }, 0, "small[4x3=1]", 0, ""},
        {{{dev, "normal"}, {small, "small"}}, [] { return 0x400001; }, 0, "normal[4x3=1]", 0, ""},
        {{{dev, "normal"}}, k4G, 0, "normal[4x3=1]", 0, ""},
        {{{pri, "pri"}, {small, "small"}}, k4G, 0, "small[4x3=1]", 0, ""},
        {{}, k8G, -1, "", kE, "LoadAlgoPeakMem talmempoolcfg path is NULL\n"},
        {{{dev, "garbage"}}, k8G, -1, "", kE, "LoadAlgoPeakMem loadTalMemConfig tal_mem_config error\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.table + " " + c.line);
        for (const auto& f : c.files) {
            const std::string& n = f.second;
            const std::string algo = "<A name=\"" + n + "\" value=\"1\" resolution=\"4x3\"/>";
            WriteFile(DevicePath(f.first),
                      n == "garbage" ? "\x01\x02 <<"
                      : n == "broken" ? WithLimits("<A name=\"learnt\" value=\"5\"/><A name=\"b\" value=\"-1\"/>")
                                      : WithLimits(algo, n == "0" ? "0" : "1"));
        }
        LogCapture::Clear();
        table.clear();
        EXPECT_EQ(config.LoadAlgoPeakMem(table, c.probe), c.result) << LogCapture::Dump();
        EXPECT_EQ(Describe(table), c.table);
        EXPECT_TRUE(c.line.empty() || LogCapture::Count(c.prio, c.line) == 1) << LogCapture::Dump();
        RemoveTree(DevicePath("/odm/etc/camera/"));
        unlink(DevicePath(filter).c_str());
    }
}

TEST_F(ConfigTest, ShippedSamplesLoadWithoutWarnings)
{
    const std::string here = __FILE__;
    const std::string dir = here.substr(0, here.rfind("/tests/")) + "/samples/device/odm/etc/camera/";
    for (const auto& sample : {std::pair<const char*, size_t>{"talmempoolcfg.xml", 8},
                               std::pair<const char*, size_t>{"talmempoolcfg_ram4g.xml", 7}}) {
        table.clear();
        EXPECT_EQ(config.LoadTalMemConfig(dir + sample.first, table), 0) << LogCapture::Dump();
        EXPECT_EQ(table.size(), sample.second) << "the 4 GiB variant has no super resolution";
    }
    EXPECT_EQ(LogCapture::CountContaining("[WARN"), 0) << LogCapture::Dump();
}

} // namespace
} // namespace talmem_test
