// The memory probe: text parsing with its deliberate quirks, fed with
// contents written here, and the memtrack reading with each failure's line.
#include "TalTestSupport.h"

#include "CameraBufferInterface.h"
#include "memtrack.h"
#include "monitor/MemUtils.h"

#include <unistd.h>

#include <cerrno>
#include <climits>

using qv::MemUtils;
using talmem_test::LogCapture;
using Ints = std::vector<int>;

namespace {

using MemUtilsTest = talmem_test::TalTest;

TEST_F(MemUtilsTest, ParseFreeMemory_SumsMemFreeAndCachedWithTheirQuirks)
{
    const std::pair<const char*, unsigned int> cases[] = {
        {"MemTotal: 8000000 kB\nMemFree:     1000 kB\nBuffers:  10 kB\nCached:  500 kB\nSwapCached: 99 kB\n", 1500},
        {"SwapCached: 77 kB\nMemFree:\t\t20 kB\n", 20},                     // SwapCached does not count
        {"Cached: 2 kB\nCached: 3 kB\n", 3},                                // the later value wins
        {"MemFree: 1 kB\nCached: 2 kB\nMemFree: 5 kB\nCached: 7 kB\n", 7},  // stops after the third match
        {" MemFree: 9 kB\nmemfree: 9 kB\n", 0},                             // a key must start the line
        {"MemFree: 12abc 99\nCached: x5\nMemFree: 6 kB", 6}};              // digits end at a non-digit
    for (const auto& c : cases) {
        EXPECT_EQ(MemUtils::parseFreeMemory(c.first), c.second) << c.first;
    }
}

// A whole number of GiB still gains one, no digits read as 0 kB; of ddr_info's last line one digit is read, four
// places from the end: of two digits the last, and a line without its newline shifts it.
TEST_F(MemUtilsTest, TotalMemory_GiBRoundUpAddsAWholeGiBAndDdrReadsOneDigit)
{
    auto total = [](const char* text) { return MemUtils::parseTotalMemory(text); };
    EXPECT_EQ(Ints({total("MemTotal:        5800000 kB\n"), total("MemTotal: 4194304 kB\n"), total("MemTotal: 4194303"),
                    total("")}), Ints({6291456, 5242880, 4194304, 1048576}));
    auto ddr = [](std::string line) { return MemUtils::parseDdrInfoLine(&line[0]); };
    EXPECT_EQ(Ints({ddr("8GB\n"), ddr("12GB\n"), ddr("16GB"), ddr("8GB"), ddr("")}),
              Ints({8388608, 2097152, 1048576, -1, -1}));
    std::string ddrInfo = "type: LPDDR5\nvendor: x\n6GB\n", smaps = "Pss:  10 kB\nPss_Dirty: 7 kB\n x\nPss:   5 kB\n";
    char buffer[256] = {0};
    FILE* fp = fmemopen(&ddrInfo[0], ddrInfo.size(), "r");
    ASSERT_NE(fp, nullptr);
    EXPECT_EQ(MemUtils::readLastLine(fp, buffer, sizeof(buffer)), 4);
    EXPECT_EQ(MemUtils::parseDdrInfoLine(buffer), 6291456);
    EXPECT_EQ(fclose(fp), 0);
    ASSERT_NE(fp = fmemopen(&smaps[0], smaps.size(), "r"), nullptr);
    EXPECT_EQ(MemUtils::sumPssLines(fp), 15) << "because only lines starting with \"Pss:\" count";
    EXPECT_EQ(fclose(fp), 0);
}

// Without /proc/ddr_info the total comes from "proc/meminfo", relative to the
// working directory.
TEST_F(MemUtilsTest, GetTotalMemory_ReadsRelativeProcMeminfoWhenThereIsNoDdrInfo)
{
    if (access("/proc/ddr_info", F_OK) == 0) {
        GTEST_SKIP() << "this machine reports its DDR size";
    }
    char saved[PATH_MAX];
    ASSERT_NE(getcwd(saved, sizeof(saved)), nullptr);
    talmem_test::WriteFile(root_ + "/proc/meminfo", "MemTotal:        5800000 kB\nMemFree: 1 kB\n");
    ASSERT_EQ(chdir(root_.c_str()), 0);
    EXPECT_EQ(MemUtils::getTotalMemory(), 6291456);
    ASSERT_EQ(chdir("proc"), 0);
    EXPECT_EQ(MemUtils::getTotalMemory(), -1);
    ASSERT_EQ(chdir(saved), 0);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "failed to open proc/ddr_info\n\n"), 2);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "failed to Open proc/meminfo\n\n"), 1) << LogCapture::Dump();
}

// Graphics memory in KiB from the held bytes; each failing memtrack step logs its line.
TEST_F(MemUtilsTest, Memtrack_HeldBufferBytesInKBAndEachFailureWithItsMessage)
{
    auto buf = QvCamera::CameraBufferInterface::AllocCamBuffer(4 << 20, 1, 257, 0, "probe");
    qv::graphics_memory_pss pss = {1, 2, 3};
    EXPECT_EQ(qv::read_memtrack_memory_(getpid(), &pss), 0);
    const uint64_t kb = QvCamera::CameraBufferInterface::GetHeldBytes() >> 10;
    EXPECT_TRUE(pss.graphics == kb && kb >= 4096 && pss.gl == 0 && pss.other == 0);
    EXPECT_EQ(MemUtils::countGraphicMem(), kb);
    struct Case { TalMemtrackStep step; int result; int pid; const char* message; } cases[] = {
        {TAL_MEMTRACK_OK, -ESRCH, getpid() + 1, "failed to get memory consumption info: -3\n"},
        {TAL_MEMTRACK_NEW, -1, getpid(), "failed to create memtrack_proc\n"},
        {TAL_MEMTRACK_GRAPHICS, -5, getpid(), "failed to get graphics pss: -5\n"},
        {TAL_MEMTRACK_GL, -4, getpid(), "failed to get gl pss: -4\n"},
        {TAL_MEMTRACK_OTHER, -9, getpid(), "failed to get other pss: -9\n"}};
    for (const Case& c : cases) {
        TalHostSetMemtrackFault(c.step, c.result);
        EXPECT_EQ(qv::read_memtrack_memory_(c.pid, &pss), c.result) << c.message;
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_WARN, c.message), 1) << LogCapture::Dump();
        EXPECT_EQ(LogCapture::Where(c.message), "MemUtils.cpp read_memtrack_memory_");
    }
    EXPECT_EQ(MemUtils::countGraphicMem(), 0u) << "because memtrack still fails";
    TalHostSetMemtrackFault(TAL_MEMTRACK_OK, 0);
}

} // namespace
