#include "TalTestSupport.h"

#include "CameraBufferInterface.h"
#include "memtrack.h"
#include "monitor/MemUtils.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

using QvCamera::CameraBufferInterface;
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

// Feeds `text` through a FILE* as the kernel's files are read.
template <typename Body>
void WithFile(std::string text, Body body)
{
    FILE* fp = fmemopen(&text[0], text.size(), "r");
    ASSERT_NE(fp, nullptr);
    body(fp);
    EXPECT_EQ(fclose(fp), 0);
}

TEST_F(MemUtilsTest, ParseFreeMemory_SumsMemFreeAndCachedWithTheirQuirks)
{
    const std::pair<const char*, unsigned int> cases[] = {
        {"MemTotal: 8000000 kB\nMemFree:     1000 kB\nBuffers:  10 kB\nCached:  500 kB\nSwapCached: 99 kB\n", 1500},
        {"MemFree: 1000 kB\nBuffers: 10 kB\n", 1000},                       // no Cached line
        {"SwapCached: 77 kB\nMemFree:\t\t20 kB\n", 20},                     // SwapCached does not count
        {"Cached: 2 kB\nCached: 3 kB\n", 3},                                // the later value wins
        {"MemFree: 1 kB\nCached: 2 kB\nMemFree: 5 kB\nCached: 7 kB\n", 7},  // stops after the third match
        {" MemFree: 9 kB\nmemfree: 9 kB\n", 0},                             // a key must start the line
        {"MemFree: 12abc 99\nCached: x5\nMemFree: 6 kB", 6},                // digits end at a non-digit
        {"", 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(MemUtils::parseFreeMemory(c.first), c.second) << c.first;
    }
}

TEST_F(MemUtilsTest, TotalMemory_GiBRoundUpAddsAWholeGiBAndDdrReadsOneDigit)
{
    EXPECT_EQ(MemUtils::parseTotalMemory("MemTotal:        5800000 kB\n"), 6291456);
    EXPECT_EQ(MemUtils::parseTotalMemory("MemTotal:        4194304 kB\n"), 5242880) << "a whole GiB gains one";
    EXPECT_EQ(MemUtils::parseTotalMemory("MemTotal: 4194303 kB\n"), 4194304);
    EXPECT_EQ(MemUtils::parseTotalMemory(""), 1048576) << "because no digits read as 0";
    const std::pair<const char*, int> ddr[] = {{"8GB\n", 8388608}, {"12GB\n", 2097152} /* last digit only */,
                                               {"16GB", 1048576} /* no newline shifts it */, {"8GB", -1}, {"", -1}};
    for (const auto& c : ddr) {
        std::string line = c.first;
        EXPECT_EQ(MemUtils::parseDdrInfoLine(&line[0]), c.second) << c.first;
    }
    WithFile("ddr_type: LPDDR5\nvendor: x\n6GB\n", [](FILE* fp) {
        char buffer[256] = {0};
        EXPECT_EQ(MemUtils::readLastLine(fp, buffer, sizeof(buffer)), 4);
        EXPECT_EQ(MemUtils::parseDdrInfoLine(buffer), 6291456);
    });
    WithFile(std::string(300, 'a') + "\n", [](FILE* fp) {
        char buffer[256] = {0};
        EXPECT_EQ(MemUtils::readLastLine(fp, buffer, sizeof(buffer)), 301 - 255) << "read 255 characters at a time";
    });
    WithFile("Size: 328 kB\nPss:                 10 kB\nPss_Dirty:  7 kB\nSwapPss: 100 kB\n x\nPss:   5 kB\n",
             [](FILE* fp) { EXPECT_EQ(MemUtils::sumPssLines(fp), 15); });
}

TEST_F(MemUtilsTest, GetTotalMemory_ReadsRelativeProcMeminfoWhenThereIsNoDdrInfo)
{
    if (access("/proc/ddr_info", F_OK) == 0) {
        GTEST_SKIP() << "this machine reports its DDR size";
    }
    char saved[PATH_MAX];
    ASSERT_NE(getcwd(saved, sizeof(saved)), nullptr);
    talmem_test::MakeDirs(root_ + "/proc");
    talmem_test::WriteFile(root_ + "/proc/meminfo", "MemTotal:        5800000 kB\nMemFree: 1 kB\n");
    ASSERT_EQ(chdir(root_.c_str()), 0);
    EXPECT_EQ(MemUtils::getTotalMemory(), 6291456);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "failed to open proc/ddr_info\n\n"), 1);
    ASSERT_EQ(chdir("proc"), 0);
    EXPECT_EQ(MemUtils::getTotalMemory(), -1) << "because proc/meminfo is relative";
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "failed to Open proc/meminfo\n\n"), 1);
    EXPECT_GT(MemUtils::getFreeMemorySize(), 0u) << "because the free-memory probe reads /proc/meminfo";
    ASSERT_EQ(chdir(saved), 0);
    EXPECT_EQ(LogCapture::Lines().size(), 3u) << LogCapture::Dump();
}

TEST_F(MemUtilsTest, Memtrack_HeldBufferBytesInKBAndEachFailureWithItsMessage)
{
    auto buf = CameraBufferInterface::AllocCamBuffer(4 << 20, 1, 257, 0, "probe");
    ASSERT_NE(buf, nullptr);
    qv::graphics_memory_pss pss = {1, 2, 3};
    EXPECT_EQ(qv::read_memtrack_memory_(getpid(), &pss), 0);
    EXPECT_TRUE(pss.graphics == CameraBufferInterface::GetHeldBytes() >> 10 && pss.gl == 0 && pss.other == 0);
    EXPECT_EQ(MemUtils::countGraphicMem(), pss.graphics);
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();

    struct Case { TalMemtrackStep step; int result; int pid; const char* message; } cases[] = {
        {TAL_MEMTRACK_OK, 0, getpid() + 1, "failed to get memory consumption info: -3\n"},
        {TAL_MEMTRACK_NEW, -1, getpid(), "failed to create memtrack_proc\n"},
        {TAL_MEMTRACK_GRAPHICS, -5, getpid(), "failed to get graphics pss: -5\n"},
        {TAL_MEMTRACK_GL, -4, getpid(), "failed to get gl pss: -4\n"},
        {TAL_MEMTRACK_OTHER, -9, getpid(), "failed to get other pss: -9\n"}};
    static_assert(ESRCH == 3, "the other-pid message carries -ESRCH");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        TalHostSetMemtrackFault(c.step, c.result);
        pss = {0, 55, 66};
        EXPECT_EQ(qv::read_memtrack_memory_(c.pid, &pss), c.step == TAL_MEMTRACK_OK ? -ESRCH : c.result);
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_WARN, c.message), 1) << LogCapture::Dump();
        bool graphicsRead = c.step >= TAL_MEMTRACK_GL;
        EXPECT_EQ(pss.graphics, graphicsRead ? CameraBufferInterface::GetHeldBytes() >> 10 : 0u);
        EXPECT_EQ(pss.gl, c.step == TAL_MEMTRACK_OTHER ? 0u : 55u) << "because values read before a failure stay";
    }
    TalHostSetMemtrackFault(TAL_MEMTRACK_NEW, 0);
    EXPECT_EQ(MemUtils::countGraphicMem(), 0u);
    int smapsOnly = MemUtils::countPss();
    TalHostSetMemtrackFault(TAL_MEMTRACK_OK, 0);
    EXPECT_TRUE(smapsOnly > 0 && smapsOnly + 3 * 1024 < MemUtils::countPss()) << "because only smaps was counted";
}

} // namespace
