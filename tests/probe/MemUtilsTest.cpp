#include "TalTestSupport.h"

#include "CameraBufferInterface.h"
#include "memtrack.h"
#include "monitor/MemUtils.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using qv::MemUtils;
using talmem_test::LogCapture;

namespace {

class MemUtilsTest : public talmem_test::TalTest {
protected:
    void TearDown() override
    {
        TalHostSetMemtrackFault(TAL_MEMTRACK_OK, 0);
        talmem_test::TalTest::TearDown();
    }
};

bool HasDdrInfo()
{
    return access("/proc/ddr_info", F_OK) == 0;
}

// Runs `body` with the working directory set to `dir`, restoring it after.
template <typename Body>
void InDirectory(const std::string& dir, Body body)
{
    char saved[PATH_MAX];
    ASSERT_NE(getcwd(saved, sizeof(saved)), nullptr);
    ASSERT_EQ(chdir(dir.c_str()), 0);
    body();
    ASSERT_EQ(chdir(saved), 0);
}

// Feeds `text` through a FILE* as the kernel's files would be read.
template <typename Body>
void WithFile(const std::string& text, Body body)
{
    std::string copy = text;
    FILE* fp = fmemopen(copy.empty() ? nullptr : &copy[0], copy.size(), "r");
    ASSERT_NE(fp, nullptr);
    body(fp);
    EXPECT_EQ(fclose(fp), 0);
}

TEST_F(MemUtilsTest, ParseFreeMemory_SumsMemFreeAndCachedWithTheirQuirks)
{
    struct Case {
        const char* text;
        unsigned int expected;
        const char* why;
    };
    const Case cases[] = {
        {"MemTotal:  8000000 kB\nMemFree:     1000 kB\nMemAvailable: 3000 kB\n"
         "Buffers:  10 kB\nCached:  500 kB\nSwapCached:  99 kB\n",
         1500, "both keys"},
        {"MemFree: 1000 kB\nBuffers: 10 kB\n", 1000, "no Cached line"},
        {"SwapCached: 77 kB\nMemFree:\t\t20 kB\n", 20, "SwapCached does not count"},
        {"Cached: 2 kB\nCached: 3 kB\n", 3, "the later value wins"},
        {"MemFree: 1 kB\nCached: 2 kB\nMemFree: 5 kB\nCached: 7 kB\n", 7,
         "the walk stops after the third match"},
        {" MemFree: 9 kB\nmemfree: 9 kB\n", 0, "a key must start the line"},
        {"MemFree: 12abc 99\nCached: x5\n", 12, "digits up to the first non-digit"},
        {"MemFree: 6 kB", 6, "no final newline"},
        {"", 0, "empty text"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(MemUtils::parseFreeMemory(c.text), c.expected);
    }
}

TEST_F(MemUtilsTest, ParseTotalMemory_RoundsUpToGiBAndAddsOneForWholeGiB)
{
    EXPECT_EQ(MemUtils::parseTotalMemory("MemTotal:        5800000 kB\n"), 6291456);
    EXPECT_EQ(MemUtils::parseTotalMemory("MemTotal:        4194304 kB\n"), 5242880)
        << "because the full GiB is added even to a whole number of GiB";
    EXPECT_EQ(MemUtils::parseTotalMemory("MemTotal: 4194303 kB\n"), 4194304);
    EXPECT_EQ(MemUtils::parseTotalMemory("MemTotal: 1 kB 2"), 1048576);
    EXPECT_EQ(MemUtils::parseTotalMemory(""), 1048576) << "no digits reads as 0";
}

TEST_F(MemUtilsTest, DdrInfo_LastLineGivesOneDigitOfGiB)
{
    std::vector<char> line;
    auto parse = [&line](const char* text) {
        line.assign(text, text + strlen(text) + 1);
        return MemUtils::parseDdrInfoLine(line.data());
    };
    EXPECT_EQ(parse("8GB\n"), 8388608);
    EXPECT_EQ(parse("12GB\n"), 2097152) << "because only the last digit is read";
    EXPECT_EQ(parse("16GB"), 1048576) << "without a newline the digit shifts";
    EXPECT_EQ(parse("8GB"), -1);
    EXPECT_EQ(parse("GB\n"), -1);
    EXPECT_EQ(parse(""), -1);

    WithFile("ddr_type: LPDDR5\nvendor: x\n6GB\n", [](FILE* fp) {
        char buffer[256] = {0};
        EXPECT_EQ(MemUtils::readLastLine(fp, buffer, sizeof(buffer)), 4);
        EXPECT_STREQ(buffer, "6GB\n");
        EXPECT_EQ(MemUtils::parseDdrInfoLine(buffer), 6291456);
    });
    WithFile(std::string(300, 'a') + "\n", [](FILE* fp) {
        char buffer[256] = {0};
        EXPECT_EQ(MemUtils::readLastLine(fp, buffer, sizeof(buffer)), 301 - 255)
            << "because a long line is read 255 characters at a time";
    });
}

TEST_F(MemUtilsTest, SumPssLines_CountsOnlyLinesStartingWithPss)
{
    WithFile("00400000-00452000 r-xp 00000000 08:02 173521 /bin/x\n"
             "Size:                328 kB\nRss:  200 kB\nPss:                 10 kB\n"
             "Pss_Dirty:  7 kB\nSwapPss:  100 kB\n"
             "7f00-7f01 rw-p 0 0 0\nPss:   5 kB\n",
             [](FILE* fp) { EXPECT_EQ(MemUtils::sumPssLines(fp), 15); });
    WithFile("Rss: 4 kB\n", [](FILE* fp) { EXPECT_EQ(MemUtils::sumPssLines(fp), 0); });
}

TEST_F(MemUtilsTest, GetTotalMemory_ReadsRelativeProcMeminfoFromTheWorkingDirectory)
{
    if (HasDdrInfo()) {
        GTEST_SKIP() << "this machine reports its DDR size";
    }
    std::string dir = talmem_test::MakeTempDir("probe");
    talmem_test::MakeDirs(dir + "/proc");
    talmem_test::WriteFile(dir + "/proc/meminfo", "MemTotal:        5800000 kB\nMemFree: 1 kB\n");
    InDirectory(dir, [] {
        EXPECT_EQ(MemUtils::getTotalMemory(), 6291456);
        EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "failed to open proc/ddr_info\n\n"));
        EXPECT_EQ(MemUtils::getTotalMemoryFromDDRInfo(), -1);
    });
    LogCapture::Clear();
    InDirectory(dir + "/proc", [] {
        EXPECT_EQ(MemUtils::getTotalMemory(), -1) << "because proc/meminfo is relative";
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "failed to Open proc/meminfo\n\n"), 1);
    });
    talmem_test::RemoveTree(dir);
}

TEST_F(MemUtilsTest, GetFreeMemorySize_ReadsTheKernelsMeminfo)
{
    unsigned int freeKb = MemUtils::getFreeMemorySize();
    EXPECT_GT(freeKb, 0u);
    FILE* fp = fopen("/proc/meminfo", "r");
    ASSERT_NE(fp, nullptr);
    char text[1024] = {0};
    size_t len = fread(text, 1, sizeof(text) - 1, fp);
    fclose(fp);
    ASSERT_GT(len, 0u);
    unsigned int total = static_cast<unsigned int>(MemUtils::parseTotalMemory(text));
    EXPECT_LT(freeKb, total) << "because free memory is below the rounded-up total";
    EXPECT_TRUE(LogCapture::Lines().empty()) << LogCapture::Dump();
}

TEST_F(MemUtilsTest, ReadMemtrack_ReportsTheHeldBufferBytesInKB)
{
    auto buf = QvCamera::CameraBufferInterface::AllocCamBuffer(1 << 20, 1, 257, 0, "probe");
    ASSERT_NE(buf, nullptr);
    qv::graphics_memory_pss pss = {1, 2, 3};
    EXPECT_EQ(qv::read_memtrack_memory_(getpid(), &pss), 0);
    EXPECT_EQ(pss.graphics, QvCamera::CameraBufferInterface::GetHeldBytes() >> 10);
    EXPECT_GE(pss.graphics, 1024u);
    EXPECT_EQ(pss.gl, 0u);
    EXPECT_EQ(pss.other, 0u);
    EXPECT_EQ(MemUtils::countGraphicMem(), pss.graphics);
    int pss1 = MemUtils::countPss();
    EXPECT_GT(pss1, static_cast<int>(pss.graphics)) << "graphics plus the smaps walk";
    buf.reset();
    EXPECT_EQ(MemUtils::countGraphicMem() + 1024, pss.graphics);
    EXPECT_TRUE(LogCapture::Lines().empty()) << LogCapture::Dump();
}

TEST_F(MemUtilsTest, ReadMemtrack_EachFailureHasItsMessageAndResult)
{
    qv::graphics_memory_pss pss = {0, 0, 0};
    EXPECT_EQ(qv::read_memtrack_memory_(getpid() + 1, &pss), -ESRCH);
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN,
                       "failed to get memory consumption info: " + std::to_string(-ESRCH) + "\n"));

    TalHostSetMemtrackFault(TAL_MEMTRACK_NEW, 0);
    EXPECT_EQ(qv::read_memtrack_memory_(getpid(), &pss), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "failed to create memtrack_proc\n"));

    TalHostSetMemtrackFault(TAL_MEMTRACK_GRAPHICS, -3);
    EXPECT_EQ(qv::read_memtrack_memory_(getpid(), &pss), -3);
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "failed to get graphics pss: -3\n"));

    // A later step fails: values stored before it stay.
    auto buf = QvCamera::CameraBufferInterface::AllocCamBuffer(8192, 1, 257, 0, "probe");
    ASSERT_NE(buf, nullptr);
    pss = {0, 55, 66};
    TalHostSetMemtrackFault(TAL_MEMTRACK_GL, -4);
    EXPECT_EQ(qv::read_memtrack_memory_(getpid(), &pss), -4);
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "failed to get gl pss: -4\n"));
    EXPECT_EQ(pss.graphics, QvCamera::CameraBufferInterface::GetHeldBytes() >> 10);
    EXPECT_EQ(pss.gl, 55u);
    EXPECT_EQ(pss.other, 66u);

    TalHostSetMemtrackFault(TAL_MEMTRACK_OTHER, -9);
    EXPECT_EQ(qv::read_memtrack_memory_(getpid(), &pss), -9);
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN, "failed to get other pss: -9\n"));
    EXPECT_EQ(pss.gl, 0u);
}

TEST_F(MemUtilsTest, MemtrackUnavailable_GraphicsIsZeroAndPssCountsOnlySmaps)
{
    auto buf = QvCamera::CameraBufferInterface::AllocCamBuffer(4 << 20, 1, 257, 0, "probe");
    ASSERT_NE(buf, nullptr);
    TalHostSetMemtrackFault(TAL_MEMTRACK_NEW, 0);
    EXPECT_EQ(MemUtils::countGraphicMem(), 0u);
    int smapsOnly = MemUtils::countPss();
    EXPECT_GT(smapsOnly, 0) << "because smaps still reads";
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_WARN, "failed to create memtrack_proc\n"), 2);
    TalHostSetMemtrackFault(TAL_MEMTRACK_OK, 0);
    EXPECT_GT(MemUtils::countPss(), smapsOnly + 3 * 1024)
        << "because the 4 MiB of graphics memory are added again";
}

} // namespace
