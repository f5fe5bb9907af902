// Where configuration files are looked for and which one is loaded.

#include <unistd.h>

#include "ConfigTestSupport.h"

namespace talmem_test {
namespace {

using qv::GetOneCfgFile;

constexpr int kE = ANDROID_LOG_ERROR;

class GetOneCfgFileTest : public ConfigTest {
protected:
    char* Find(const char* dir1, const char* dir2, const char* extendDir, const char* name,
               const char* defaultPath = nullptr)
    {
        return GetOneCfgFile(dir1, dir2, extendDir, name, buf, sizeof(buf), defaultPath);
    }
    std::string Dir1() const { return DevicePath(kDeviceDir) + "AlgoConfig/"; }
    std::string Dir2() const { return DevicePath(kDeviceDir); }

    char buf[256] = {};
};

TEST_F(GetOneCfgFileTest, FirstPriorityDirectoryWinsOverSecond)
{
    WriteFile(PriorityFile("a.xml"), "1");
    WriteFile(DeviceFile("a.xml"), "2");
    ASSERT_EQ(Find(Dir1().c_str(), Dir2().c_str(), nullptr, "a.xml"), buf);
    EXPECT_EQ(std::string(buf), PriorityFile("a.xml"));

    unlink(PriorityFile("a.xml").c_str());
    ASSERT_EQ(Find(Dir1().c_str(), Dir2().c_str(), nullptr, "a.xml"), buf)
        << "because the second directory is the fallback";
    EXPECT_EQ(std::string(buf), DeviceFile("a.xml"));
}

TEST_F(GetOneCfgFileTest, ExtendDirectoryIsTriedFirstInEachDirectory)
{
    WriteFile(Dir1() + "a.xml", "1");
    WriteFile(Dir2() + "ext/a.xml", "2");
    WriteFile(Dir1() + "ext/a.xml", "3");
    ASSERT_NE(Find(Dir1().c_str(), Dir2().c_str(), "ext", "a.xml"), nullptr);
    EXPECT_EQ(std::string(buf), Dir1() + "ext/a.xml");

    unlink((Dir1() + "ext/a.xml").c_str());
    ASSERT_NE(Find(Dir1().c_str(), Dir2().c_str(), "ext", "a.xml"), nullptr);
    EXPECT_EQ(std::string(buf), Dir1() + "a.xml")
        << "because the plain name in the first directory precedes the second directory";

    ASSERT_NE(Find(Dir1().c_str(), Dir2().c_str(), "", "a.xml"), nullptr);
    EXPECT_EQ(std::string(buf), Dir1() + "a.xml") << "because an empty extendDir is ignored";
}

TEST_F(GetOneCfgFileTest, NullFirstDirectoryEndsTheSearchAtOnce)
{
    WriteFile(DeviceFile("a.xml"), "1");
    EXPECT_EQ(Find(nullptr, Dir2().c_str(), nullptr, "a.xml"), nullptr);
    EXPECT_EQ(Find(Dir1().c_str(), nullptr, nullptr, "a.xml"), nullptr);
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();
}

TEST_F(GetOneCfgFileTest, ExistenceNotReadabilityDecides)
{
    // A directory carrying the file's name "exists" for the search.
    MakeDirs(DeviceFile("a.xml"));
    ASSERT_NE(Find(Dir1().c_str(), Dir2().c_str(), nullptr, "a.xml"), nullptr);
    EXPECT_EQ(std::string(buf), DeviceFile("a.xml"));
}

TEST_F(GetOneCfgFileTest, InvalidArgumentsReturnNullWithTheirMessage)
{
    EXPECT_EQ(Find(Dir1().c_str(), Dir2().c_str(), nullptr, nullptr), nullptr);
    EXPECT_EQ(GetOneCfgFile(Dir1().c_str(), nullptr, nullptr, "a.xml", buf, 0, nullptr), nullptr);
    EXPECT_EQ(LogCapture::Count(kE, "GetOneCfgFile() fileName or bufLen is invalid\n"), 2);
    EXPECT_EQ(Find(nullptr, nullptr, nullptr, "a.xml", "/x/"), nullptr);
    EXPECT_EQ(LogCapture::Count(kE, "GetOneCfgFile() PriorityDir NULL\n"), 1);
}

TEST_F(GetOneCfgFileTest, NothingFoundUsesDefaultPathUnchecked)
{
    EXPECT_EQ(Find(Dir1().c_str(), Dir2().c_str(), nullptr, "a.xml"), nullptr);
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();

    ASSERT_EQ(Find(Dir1().c_str(), Dir2().c_str(), nullptr, "a.xml", "/nowhere/"), buf);
    EXPECT_STREQ(buf, "/nowhere/a.xml");
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_INFO, "GetOneCfgFile() not found, use default\n"), 1);
}

TEST_F(GetOneCfgFileTest, TruncatedPathIsReportedAndNotFound)
{
    WriteFile(DeviceFile("a.xml"), "1");
    char small[8];
    EXPECT_EQ(GetOneCfgFile(Dir1().c_str(), Dir2().c_str(), nullptr, "a.xml", small,
                            sizeof(small), nullptr),
              nullptr);
    EXPECT_EQ(LogCapture::Count(kE, "GetOneCfgFile snprintf_s(buf, bufLen, bufLen - 1, "
                                    "\"%s%s\", dir, fileName) snprintf_s failed"),
              2)
        << LogCapture::Dump();
}

// --- choice of the file at the start of LoadAlgoPeakMem ----------------------

std::string DeviceConfig(const std::string& basePoolSize, const std::string& algo)
{
    return ConfigXml(FixedElements("1", basePoolSize) + "<Algo name=\"" + algo +
                     "\" value=\"1048576\" resolution=\"4096x3072\"/>");
}

class ConfigChoiceTest : public ConfigTest {
protected:
    int Load(qv::TalMemConfig::TotalMemoryProbe probe = &Probe8G)
    {
        return config.LoadAlgoPeakMem(table, probe);
    }
    std::string LoadedAlgo() const { return table.size() == 1 ? table.begin()->first : "?"; }
};

TEST_F(ConfigChoiceTest, FilterFileIsPreferredOverDeviceFile)
{
    WriteFile(DeviceFile("talmempoolcfg.xml"), DeviceConfig("1000", "deviceAlgo"));
    WriteFile(FilterFile(), DeviceConfig("2000", "learntAlgo"));
    ASSERT_EQ(Load(), 0);
    EXPECT_EQ(config.basePoolSize, 2000);
    EXPECT_EQ(LoadedAlgo(), "learntAlgo");
    EXPECT_TRUE(Logged(ANDROID_LOG_DEBUG, "LoadAlgoPeakMem LoadAlgoPeakMem cfg_filter success\n"));
}

TEST_F(ConfigChoiceTest, BrokenFilterFileFallsBackToDeviceFileWithEmptiedTable)
{
    WriteFile(DeviceFile("talmempoolcfg.xml"), DeviceConfig("1000", "deviceAlgo"));
    // The first element is read into the table before the second one fails.
    WriteFile(FilterFile(), ConfigWithAlgos("<Algo name=\"learntAlgo\" value=\"5\"/>"
                                            "<Algo name=\"bad\" value=\"-1\"/>"));
    ASSERT_EQ(Load(), 0);
    EXPECT_EQ(LoadedAlgo(), "deviceAlgo") << "because the half-read filter table is emptied";
    EXPECT_EQ(config.basePoolSize, 1000);
    EXPECT_EQ(LogCapture::Count(kE, "LoadAlgoPeakMem loadTalMemConfig cfg_filter error\n"), 1);
}

TEST_F(ConfigChoiceTest, FilterFileWithAllocTypeZeroIsRejected)
{
    WriteFile(DeviceFile("talmempoolcfg.xml"), DeviceConfig("1000", "deviceAlgo"));
    WriteFile(FilterFile(), ConfigXml(FixedElements("0")));
    ASSERT_EQ(Load(), 0);
    EXPECT_EQ(LoadedAlgo(), "deviceAlgo");
    EXPECT_EQ(LogCapture::Count(kE, "get AllocType fail, fileName:" + FilterFile() + ", type:0\n"),
              1);
}

TEST_F(ConfigChoiceTest, SmallMemoryFileIsChosenUpToFourGiBOrWhenTheProbeFails)
{
    WriteFile(DeviceFile("talmempoolcfg.xml"), DeviceConfig("1000", "normalAlgo"));
    WriteFile(DeviceFile("talmempoolcfg_ram4g.xml"), DeviceConfig("500", "smallAlgo"));
    struct Case {
        qv::TalMemConfig::TotalMemoryProbe probe;
        const char* expected;
    } cases[] = {{&Probe4G, "smallAlgo"},
                 {&ProbeFailed, "smallAlgo"},
                 {&ProbeJustOver4G, "normalAlgo"},
                 {&Probe8G, "normalAlgo"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        table.clear();
        ASSERT_EQ(Load(c.probe), 0);
        EXPECT_EQ(LoadedAlgo(), c.expected);
    }
}

TEST_F(ConfigChoiceTest, SmallDeviceWithoutSmallMemoryFileUsesNormalFile)
{
    WriteFile(DeviceFile("talmempoolcfg.xml"), DeviceConfig("1000", "normalAlgo"));
    ASSERT_EQ(Load(&Probe4G), 0);
    EXPECT_EQ(LoadedAlgo(), "normalAlgo");
}

TEST_F(ConfigChoiceTest, PriorityDirectoryWinsAndSmallMemorySearchComesFirst)
{
    WriteFile(DeviceFile("talmempoolcfg.xml"), DeviceConfig("1000", "deviceAlgo"));
    WriteFile(PriorityFile("talmempoolcfg.xml"), DeviceConfig("1000", "priorityAlgo"));
    ASSERT_EQ(Load(&Probe8G), 0);
    EXPECT_EQ(LoadedAlgo(), "priorityAlgo");
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_INFO, "LoadAlgoPeakMem talmempoolcfg path is " +
                                                      PriorityFile("talmempoolcfg.xml") + "\n"),
              1);

    WriteFile(DeviceFile("talmempoolcfg_ram4g.xml"), DeviceConfig("500", "smallAlgo"));
    table.clear();
    ASSERT_EQ(Load(&Probe4G), 0);
    EXPECT_EQ(LoadedAlgo(), "smallAlgo")
        << "because the small-memory name is searched in both directories first";
}

TEST_F(ConfigChoiceTest, NoConfigurationFileFailsWithDefaultsKept)
{
    EXPECT_EQ(Load(), -1);
    EXPECT_EQ(LogCapture::Count(kE, "LoadAlgoPeakMem talmempoolcfg path is NULL\n"), 1);
    EXPECT_EQ(config.allocateType, 0);
    EXPECT_EQ(config.algoSizeLimit, 471859200);
    EXPECT_TRUE(table.empty());
}

TEST_F(ConfigChoiceTest, SymbolicLinkIsLoadedThroughItsCanonicalPath)
{
    std::string target = DevicePath("/vendor/talmem/real.xml");
    WriteFile(target, DeviceConfig("3000", "linkedAlgo"));
    ASSERT_EQ(symlink(target.c_str(), DeviceFile("talmempoolcfg.xml").c_str()), 0);
    ASSERT_EQ(Load(), 0);
    EXPECT_EQ(LoadedAlgo(), "linkedAlgo");
    char real[4096];
    ASSERT_NE(realpath(target.c_str(), real), nullptr);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, std::string("talmempoolcfg enter "
                                                               "LoadTalMemConfig() fileName=") +
                                                       real + "\n"),
              1);
}

TEST_F(ConfigChoiceTest, UnloadableDeviceFileFailsTheLoad)
{
    WriteFile(DeviceFile("talmempoolcfg.xml"), "\x01\x02 not xml <<<");
    EXPECT_EQ(Load(), -1);
    EXPECT_EQ(LogCapture::Count(kE, "LoadAlgoPeakMem loadTalMemConfig tal_mem_config error\n"), 1);

    // A directory passes the existence test but cannot be parsed either.
    unlink(DeviceFile("talmempoolcfg.xml").c_str());
    MakeDirs(DeviceFile("talmempoolcfg.xml"));
    EXPECT_EQ(Load(), -1);
    EXPECT_EQ(LogCapture::Count(kE, "LoadAlgoPeakMem loadTalMemConfig tal_mem_config error\n"), 2);
}

TEST_F(ConfigChoiceTest, ShippedSamplesLoadOnBothKindsOfDevice)
{
    // Copies, so that a learnt file left in the sample tree by a demo run does not interfere.
    std::string here = __FILE__;
    std::string samples = here.substr(0, here.rfind("/tests/")) + "/samples/device" + kDeviceDir;
    for (const char* name : {"talmempoolcfg.xml", "talmempoolcfg_ram4g.xml"}) {
        std::string text = ReadFile(samples + name);
        ASSERT_FALSE(text.empty()) << samples + name;
        WriteFile(DeviceFile(name), text);
    }
    qv::TalMemConfig small;
    qv::TalAlgoPeakMap smallTable;
    ASSERT_EQ(small.LoadAlgoPeakMem(smallTable, &Probe4G), 0) << LogCapture::Dump();
    ASSERT_EQ(Load(&Probe8G), 0) << LogCapture::Dump();

    EXPECT_EQ(config.allocateType, 1);
    EXPECT_LT(small.basePoolSize, config.basePoolSize);
    EXPECT_LT(small.algoSizeLimit, config.algoSizeLimit);
    ASSERT_EQ(table.count("mfnrAlgo"), 1u);
    EXPECT_EQ(table["mfnrAlgo"].size(), 3u);
    EXPECT_EQ(table["superResolutionAlgo"].front().resolution, "8192x6144");
    EXPECT_EQ(smallTable.count("superResolutionAlgo"), 0u);
    EXPECT_EQ(LogCapture::CountContaining("WARN"), 0) << LogCapture::Dump();
}

} // namespace
} // namespace talmem_test
