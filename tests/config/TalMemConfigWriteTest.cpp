// Writing the learnt table: layout, agreement with the reader, and the
// atomic replacement of the filter file.

#include <glob.h>
#include <signal.h>
#include <sys/resource.h>

#include <random>

#include "ConfigTestSupport.h"

namespace talmem_test {
namespace {

// Every entry of a directory, hidden ones included.
std::vector<std::string> ListDir(const std::string& dir)
{
    glob_t g{};
    glob((dir + "{*,.[!.]*}").c_str(), GLOB_BRACE, nullptr, &g);
    std::vector<std::string> names(g.gl_pathv, g.gl_pathv + g.gl_pathc);
    globfree(&g);
    return names;
}

TEST_F(ConfigTest, Write_FileHasTheDoubledDeclarationAndThreePairsPerElement)
{
    config.allocateType = 1; // the writer runs with the pool configuration in force
    table = {{"b", {{"4x3", 10}, {"2x1", 20}, {"3x3", 30}, {"5x5", 40}}},
             {"a", {{"default", 5}}}, {"c", {{"1x1", 1}, {"default", 2}}}, {"empty", {}}};
    ASSERT_EQ(config.UploadAlgoPeakMem(table), 0);
    EXPECT_EQ(ReadFile(FilterFile()),
              "<?<?xml version=\"1.0\" encoding=\"GB2312\" standalone=\"\"?>?>\n"
              "<TalMemPoolConfig>list algorithm peak size<AllocType>1</AllocType>\n"
              "    <BasePoolSize>0</BasePoolSize>\n"
              "    <AlgoSizeLimit>471859200</AlgoSizeLimit>\n"
              "    <PrevRatioLimit>75</PrevRatioLimit>\n"
              "    <MultiPoolSize>230686720</MultiPoolSize>\n"
              "    <Algo name=\"a\" value=\"5\"></Algo>\n"
              "    <Algo name=\"b\" value=\"10\" resolution=\"4x3\" value1=\"20\" resolution1=\"2x1\" "
              "value2=\"30\" resolution2=\"3x3\"></Algo>\n"
              "    <Algo name=\"b\" value=\"40\" resolution=\"5x5\"></Algo>\n"
              "    <Algo name=\"c\" value=\"1\" resolution=\"1x1\" value1=\"2\" "
              "resolution1=\"default\"></Algo>\n"
              "</TalMemPoolConfig>\n");
    table.clear();
    EXPECT_EQ(config.LoadTalMemConfig(FilterFile(), table), -1) << "the reader wants \"default\" alone";
    EXPECT_EQ(LogCapture::Count(kE, "talmempoolcfg CheckResolutionFormat resolution format error! "
                                    "str=default width=0 height=0 ret=0\n"), 1);
}

// Lists of one entry (any resolution) or of real resolutions only, up to ten
// entries (so several elements per algorithm), come back exactly.
TEST_F(ConfigTest, Write_GeneratedTablesRoundTripThroughTheFilterFile)
{
    static const char kNameChars[] = "abcXYZ019_-. &<>\"'";
    config.allocateType = 1;
    for (unsigned seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        auto pick = [&rng](uint32_t lo, uint32_t hi) {
            return static_cast<int32_t>(std::uniform_int_distribution<uint32_t>(lo, hi)(rng));
        };
        config.basePoolSize = pick(0, 0xC800000);
        config.algoSizeLimit = pick(0, 524288000);
        config.prevRatioLimit = pick(20, 100);
        config.multiPoolSize = pick(0x6400000, 0xFA00000);
        table.clear();
        for (int a = pick(1, 6); a > 0; --a) {
            std::string name;
            for (int n = pick(1, 30); n > 0; --n) {
                name += kNameChars[pick(0, sizeof(kNameChars) - 2)];
            }
            const int entries = pick(1, 3) == 1 ? 1 : pick(2, 10);
            for (int i = 0; i < entries; ++i) {
                std::string res = std::to_string(pick(1, 99999)) + "x" + std::to_string(pick(1, 9999));
                table[name].push_back({entries == 1 && pick(0, 2) == 0 ? "default" : res,
                                       static_cast<uint32_t>(pick(0, config.algoSizeLimit))});
            }
        }
        ASSERT_EQ(config.UploadAlgoPeakMem(table), 0);
        qv::TalMemConfig back;
        qv::TalAlgoPeakMap read;
        ASSERT_EQ(back.LoadTalMemConfig(FilterFile(), read), 0) << ReadFile(FilterFile());
        EXPECT_TRUE(read == table) << Describe(table) << "\n" << Describe(read);
        EXPECT_EQ(Record(back), Record(config));
        LogCapture::Clear();
    }
}

TEST_F(ConfigTest, Write_FailedWriteLeavesTheOldFileByteForByteAndNoTemporary)
{
    config.allocateType = 1;
    for (uint32_t i = 0; i < 20; ++i) {
        table["algo" + std::to_string(i)] = {{"4096x3072", 1000 + i}};
    }
    const std::string old = "<?xml?>\n<TalMemPoolConfig>old learnt table, kept intact\n";
    const std::string failed = "write_to_file " + FilterFile() + " failed !\n";
    WriteFile(FilterFile(), old);
    struct rlimit saved, small; // a full disk: a file-size limit below the new file's size
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    small = {256, saved.rlim_max};
    sighandler_t oldHandler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int result = config.UploadAlgoPeakMem(table);
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(LogCapture::Count(kE, failed), 1);
    EXPECT_EQ(ReadFile(FilterFile()), old);
    EXPECT_EQ(ListDir(DevicePath("/data/vendor/camera/")), std::vector<std::string>{FilterFile()});
    RemoveTree(DevicePath("/data/vendor/camera/"));
    EXPECT_EQ(config.UploadAlgoPeakMem(table), -1);
    EXPECT_EQ(LogCapture::Count(kE, failed), 2);
}

} // namespace
} // namespace talmem_test
