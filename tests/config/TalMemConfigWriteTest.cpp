// Writing the learnt table: format, agreement with the reader, and the
// atomic replacement of the filter file.

#include <dirent.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tinyxml2.h>

#include <random>

#include "ConfigTestSupport.h"

namespace talmem_test {
namespace {

constexpr int kE = ANDROID_LOG_ERROR;

// readdir64: a 32-bit process under emulation on a 64-bit file system gets
// EOVERFLOW from plain readdir.
std::vector<std::string> ListDir(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent64* e = readdir64(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") {
                names.push_back(n);
            }
        }
        closedir(d);
    }
    return names;
}

bool SameTable(const qv::TalAlgoPeakMap& a, const qv::TalAlgoPeakMap& b, std::string* why)
{
    if (a.size() != b.size()) {
        *why = "algorithm count " + std::to_string(a.size()) + " vs " + std::to_string(b.size());
        return false;
    }
    for (auto ia = a.begin(), ib = b.begin(); ia != a.end(); ++ia, ++ib) {
        if (ia->first != ib->first || ia->second.size() != ib->second.size()) {
            *why = "algorithm " + ia->first + " vs " + ib->first;
            return false;
        }
        auto ea = ia->second.begin();
        for (const auto& eb : ib->second) {
            if (ea->resolution != eb.resolution || ea->algoSize != eb.algoSize) {
                *why = ia->first + ": " + ea->resolution + "/" + std::to_string(ea->algoSize) +
                       " vs " + eb.resolution + "/" + std::to_string(eb.algoSize);
                return false;
            }
            ++ea;
        }
    }
    return true;
}

class ConfigWriteTest : public ConfigTest {
protected:
    void FillRecord()
    {
        config.allocateType = 1;
        config.basePoolSize = 157286400;
        config.algoSizeLimit = 471859200;
        config.prevRatioLimit = 75;
        config.multiPoolSize = 230686720;
    }
    // Reads the filter file back into a fresh record and table.
    int ReadBack(qv::TalMemConfig& out, qv::TalAlgoPeakMap& outTable)
    {
        return out.LoadTalMemConfig(FilterFile(), outTable);
    }
};

TEST_F(ConfigWriteTest, FileHasTheDoubledDeclarationAndTheDocumentedLayout)
{
    FillRecord();
    table["b"] = {{"4096x3072", 10}, {"1920x1080", 20}};
    table["a"] = {{"default", 5}};
    table["empty"] = {};
    ASSERT_EQ(config.UploadAlgoPeakMem(table), 0);
    EXPECT_EQ(ReadFile(FilterFile()),
              "<?<?xml version=\"1.0\" encoding=\"GB2312\" standalone=\"\"?>?>\n"
              "<TalMemPoolConfig>list algorithm peak size<AllocType>1</AllocType>\n"
              "    <BasePoolSize>157286400</BasePoolSize>\n"
              "    <AlgoSizeLimit>471859200</AlgoSizeLimit>\n"
              "    <PrevRatioLimit>75</PrevRatioLimit>\n"
              "    <MultiPoolSize>230686720</MultiPoolSize>\n"
              "    <Algo name=\"a\" value=\"5\"></Algo>\n"
              "    <Algo name=\"b\" value=\"10\" resolution=\"4096x3072\" value1=\"20\" "
              "resolution1=\"1920x1080\"></Algo>\n"
              "</TalMemPoolConfig>\n");
    EXPECT_EQ(ListDir(DevicePath(kWritableDir)), std::vector<std::string>{"talmempoolfilter.xml"});
    struct stat st;
    ASSERT_EQ(stat(FilterFile().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST_F(ConfigWriteTest, LongListsAreSplitIntoElementsOfThreePairsAndMergedOnRead)
{
    FillRecord();
    for (uint32_t i = 1; i <= 7; ++i) {
        table["seven"].push_back({std::to_string(i * 100) + "x" + std::to_string(i), i});
    }
    ASSERT_EQ(config.UploadAlgoPeakMem(table), 0);

    tinyxml2::XMLDocument doc;
    ASSERT_EQ(doc.LoadFile(FilterFile().c_str()), tinyxml2::XML_SUCCESS);
    std::vector<int> attributeCounts;
    for (auto* e = doc.RootElement()->FirstChildElement("Algo"); e != nullptr;
         e = e->NextSiblingElement("Algo")) {
        int n = 0;
        for (auto* a = e->FirstAttribute(); a != nullptr; a = a->Next()) {
            ++n;
        }
        attributeCounts.push_back(n);
        EXPECT_STREQ(e->Attribute("name"), "seven");
    }
    EXPECT_EQ(attributeCounts, (std::vector<int>{7, 7, 3})) << "name plus 3, 3 and 1 pairs";

    qv::TalMemConfig back;
    qv::TalAlgoPeakMap backTable;
    ASSERT_EQ(ReadBack(back, backTable), 0) << LogCapture::Dump();
    std::string why;
    EXPECT_TRUE(SameTable(table, backTable, &why)) << why;
}

// Tables whose lists are a single entry (any resolution) or real resolutions
// only round-trip exactly, record included.
TEST_F(ConfigWriteTest, GeneratedTablesRoundTripThroughTheFilterFile)
{
    static const char kNameChars[] = "abcXYZ019_-. &<>\"'";
    for (unsigned seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        auto pick = [&rng](uint32_t lo, uint32_t hi) {
            return std::uniform_int_distribution<uint32_t>(lo, hi)(rng);
        };
        qv::TalMemConfig out;
        out.allocateType = 1;
        out.basePoolSize = static_cast<int32_t>(pick(0, 0xC800000));
        out.algoSizeLimit = static_cast<int32_t>(pick(0, 524288000));
        out.prevRatioLimit = static_cast<int32_t>(pick(20, 100));
        out.multiPoolSize = static_cast<int32_t>(pick(0x6400000, 0xFA00000));
        qv::TalAlgoPeakMap written;
        for (uint32_t a = pick(1, 6); a > 0; --a) {
            std::string name;
            for (uint32_t n = pick(1, 30); n > 0; --n) {
                name += kNameChars[pick(0, sizeof(kNameChars) - 2)];
            }
            auto& list = written[name];
            list.clear();
            uint32_t entries = pick(1, 3) == 1 ? 1 : pick(2, 10);
            for (uint32_t i = 0; i < entries; ++i) {
                std::string res = std::to_string(pick(1, 99999)) + "x" + std::to_string(pick(1, 99999));
                if (entries == 1 && pick(0, 2) == 0) {
                    res = "default";
                }
                list.push_back({res, pick(0, static_cast<uint32_t>(out.algoSizeLimit))});
            }
        }
        ASSERT_EQ(out.UploadAlgoPeakMem(written), 0);
        qv::TalMemConfig back;
        qv::TalAlgoPeakMap read;
        ASSERT_EQ(ReadBack(back, read), 0) << ReadFile(FilterFile()) << LogCapture::Dump();
        std::string why;
        EXPECT_TRUE(SameTable(written, read, &why)) << why << "\n" << ReadFile(FilterFile());
        EXPECT_EQ(back.basePoolSize, out.basePoolSize);
        EXPECT_EQ(back.algoSizeLimit, out.algoSizeLimit);
        EXPECT_EQ(back.prevRatioLimit, out.prevRatioLimit);
        EXPECT_EQ(back.multiPoolSize, out.multiPoolSize);
        LogCapture::Clear();
    }
}

TEST_F(ConfigWriteTest, DefaultInsideALongerListIsWrittenButRejectedOnRead)
{
    FillRecord();
    table["a"] = {{"1x1", 1}, {"default", 2}};
    ASSERT_EQ(config.UploadAlgoPeakMem(table), 0);
    EXPECT_NE(ReadFile(FilterFile()).find("resolution1=\"default\""), std::string::npos);
    qv::TalMemConfig back;
    qv::TalAlgoPeakMap read;
    EXPECT_EQ(ReadBack(back, read), -1);
    EXPECT_EQ(LogCapture::Count(kE, "talmempoolcfg CheckResolutionFormat resolution format error! "
                                    "str=default width=0 height=0 ret=0\n"),
              1);

    // A leading default loses its resolution, so the next pair's name no longer fits.
    table["a"] = {{"default", 1}, {"1x1", 2}};
    ASSERT_EQ(config.UploadAlgoPeakMem(table), 0);
    LogCapture::Clear();
    EXPECT_EQ(ReadBack(back, read), -1);
    EXPECT_EQ(LogCapture::Count(kE, "CheckAttribute check XMLAttribute:resolution fail! value1\n"),
              1);
}

TEST_F(ConfigWriteTest, FailedWriteLeavesTheOldFileByteForByteAndNoTemporary)
{
    FillRecord();
    for (int i = 0; i < 20; ++i) {
        table["algo" + std::to_string(i)] = {{"4096x3072", 1000u + i}};
    }
    const std::string old = "<?xml?>\n<TalMemPoolConfig>old learnt table, kept intact\n";
    WriteFile(FilterFile(), old);

    // A full disk, simulated by a file-size limit far below the new file's size.
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    struct rlimit small = saved;
    small.rlim_cur = 256;
    sighandler_t oldHandler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    int result = config.UploadAlgoPeakMem(table);
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, oldHandler);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(LogCapture::Count(kE, "write_to_file " + FilterFile() + " failed !\n"), 1);
    EXPECT_EQ(ReadFile(FilterFile()), old);
    EXPECT_EQ(ListDir(DevicePath(kWritableDir)), std::vector<std::string>{"talmempoolfilter.xml"});

    ASSERT_EQ(config.UploadAlgoPeakMem(table), 0) << "because the limit is lifted again";
    qv::TalMemConfig back;
    qv::TalAlgoPeakMap read;
    ASSERT_EQ(ReadBack(back, read), 0);
    EXPECT_EQ(read.size(), 20u);
}

TEST_F(ConfigWriteTest, EmptyTableIsWrittenButTheNextStartUsesTheDeviceFile)
{
    FillRecord();
    ASSERT_EQ(config.UploadAlgoPeakMem(table), 0);
    WriteFile(DeviceFile("talmempoolcfg.xml"),
              ConfigWithAlgos("<Algo name=\"device\" value=\"1\"/>"));
    qv::TalMemConfig next;
    qv::TalAlgoPeakMap nextTable;
    ASSERT_EQ(next.LoadAlgoPeakMem(nextTable, &Probe8G), 0);
    EXPECT_EQ(nextTable.count("device"), 1u)
        << "because a learnt file without algorithm elements fails to load";
    EXPECT_EQ(LogCapture::Count(kE, "LoadAlgoPeakMem loadTalMemConfig cfg_filter error\n"), 1);
}

TEST_F(ConfigWriteTest, MissingWritableDirectoryFails)
{
    RemoveTree(DevicePath(kWritableDir));
    FillRecord();
    EXPECT_EQ(config.UploadAlgoPeakMem(table), -1);
    EXPECT_EQ(LogCapture::Count(kE, "write_to_file " + FilterFile() + " failed !\n"), 1);
}

TEST_F(ConfigWriteTest, WriterHelpersBuildElementsAndRejectNulls)
{
    tinyxml2::XMLDocument doc;
    tinyxml2::XMLElement* e = config.CreateElement("Algo", "text", doc);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->Name(), "Algo");
    EXPECT_STREQ(e->GetText(), "text");

    config.SetAttributeWithOrder(e, "resolution", 0, "defaultx");
    EXPECT_EQ(e->FirstAttribute(), nullptr) << "because a leading default is left out";
    config.SetAttributeWithOrder(e, "resolution", 2, "default");
    EXPECT_STREQ(e->Attribute("resolution2"), "default");
    config.SetAttributeWithOrder(e, "value", 0, "12");
    EXPECT_STREQ(e->Attribute("value"), "12");

    config.SetAttributeWithOrder(nullptr, "value", 0, "1");
    config.SetAttributeWithOrder(e, nullptr, 0, "1");
    config.SetAttributeWithOrder(e, "value", 0, nullptr);
    EXPECT_EQ(LogCapture::Count(kE, "SetAttributeWithOrder:element is NULL\n"), 3);
    doc.DeleteNode(e);
}

} // namespace
} // namespace talmem_test
