// Crash safety of the learnt table: a child process rewrites the filter file
// in a loop, alternating two complete tables, and is killed with SIGKILL at
// random moments. After every kill the file must hold one of the two tables
// whole, load with "cfg_filter success", and the next load must leave no
// temporary beside it.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "TalTestSupport.h"
#include "config/TalMemConfig.h"

namespace talmem_test {
namespace {

constexpr int kKills = 200;
constexpr int kEightGiBInKb = 8 * 1024 * 1024;
const std::string kFilterLoaded = "LoadAlgoPeakMem LoadAlgoPeakMem cfg_filter success\n";

int EightGiB()
{
    return kEightGiBInKb;
}

// Two complete tables that differ in every algorithm, so a mix of both is visible.
qv::TalAlgoPeakMap Table(int version)
{
    qv::TalAlgoPeakMap table;
    for (int a = 0; a < 12; ++a) {
        auto& list = table["algo" + std::to_string(a)];
        for (int r = 0; r < 4; ++r) {
            list.push_back({std::to_string(640 * (r + 1)) + "x480", static_cast<uint32_t>(1000 * version + 10 * a + r)});
        }
    }
    return table;
}

void Configure(qv::TalMemConfig& config)
{
    config.allocateType = 1;
    config.basePoolSize = 8 << 20;
}

// The child: rewrites the file as fast as it can until it is killed, second
// table first, and tells the parent through `done` after each whole write.
[[noreturn]] void RewriteForever(int done)
{
    qv::TalMemConfig config;
    Configure(config);
    const qv::TalAlgoPeakMap tables[2] = {Table(2), Table(1)};
    for (unsigned i = 0;; ++i) {
        if (config.UploadAlgoPeakMem(tables[i % 2]) == 0 && write(done, "w", 1) < 0) {
            _exit(1);
        }
    }
}

std::vector<std::string> FolderEntries(const std::string& dir)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

class FilterCrashTest : public TalTest {};

TEST_F(FilterCrashTest, WriterKilledAtRandomMoments_FileAlwaysWholeAndLoadable_NoTemporaryLeft)
{
    const std::string dir = DevicePath("/data/vendor/camera/");
    {
        qv::TalMemConfig first;
        Configure(first);
        ASSERT_EQ(first.UploadAlgoPeakMem(Table(1)), 0);
    }
    const qv::TalAlgoPeakMap one = Table(1), two = Table(2);
    std::mt19937 rng(20261124);
    int leftovers = 0, sawNew = 0;
    for (int kill = 0; kill < kKills; ++kill) {
        SCOPED_TRACE(kill);
        fflush(nullptr);
        int pipeFds[2];
        ASSERT_EQ(pipe(pipeFds), 0);
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(pipeFds[0]);
            RewriteForever(pipeFds[1]);
        }
        close(pipeFds[1]);
        // Once the first write is whole (slow under sanitizers), kill it some time into the next ones.
        char mark = 0;
        ASSERT_EQ(read(pipeFds[0], &mark, 1), 1) << "because the writer completes its first write";
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(rng)));
        ASSERT_EQ(::kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        close(pipeFds[0]);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "because the writer never stops by itself";
        leftovers += static_cast<int>(FolderEntries(dir).size()) - 1;

        LogCapture::Clear();
        qv::TalMemConfig reader;
        qv::TalAlgoPeakMap read;
        ASSERT_EQ(reader.LoadAlgoPeakMem(read, &EightGiB), 0) << LogCapture::Dump();
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, kFilterLoaded), 1) << LogCapture::Dump();
        ASSERT_TRUE(read == one || read == two) << "because the file holds one whole table";
        sawNew += read == two ? 1 : 0;
        EXPECT_EQ(FolderEntries(dir), std::vector<std::string>{"talmempoolfilter.xml"})
            << "because the load removed any temporary the killed writer left";
    }
    printf("filter crash: %d kills, %d left a temporary, %d found the second table\n", kKills, leftovers, sawNew);
    EXPECT_GT(leftovers, 0) << "because some kills must land in the middle of a write";
}

TEST_F(FilterCrashTest, LoadRemovesOnlyTheWritersTemporaries_UserFilesBesideTheTableStay)
{
    const std::string dir = DevicePath("/data/vendor/camera/");
    qv::TalMemConfig config;
    Configure(config);
    ASSERT_EQ(config.UploadAlgoPeakMem(Table(1)), 0);
    for (const char* name : {"talmempoolfilter.xml.tmp-a1B2c3", "talmempoolfilter.xml.backup", "talmempoolfilter.xml.tmp-1"}) {
        std::FILE* f = std::fopen((dir + name).c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fclose(f);
    }
    LogCapture::Clear();
    qv::TalAlgoPeakMap read;
    ASSERT_EQ(config.LoadAlgoPeakMem(read, &EightGiB), 0) << LogCapture::Dump();
    EXPECT_EQ(LogCapture::CountContaining("removed unfinished"), 1) << LogCapture::Dump();
    auto names = FolderEntries(dir);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"talmempoolfilter.xml", "talmempoolfilter.xml.backup",
                                               "talmempoolfilter.xml.tmp-1"}))
        << "because only a writer's temporary (six characters after .tmp-) is removed";
}

} // namespace
} // namespace talmem_test
