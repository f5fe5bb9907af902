// The public path's log record: a fixed camera session (pooled, direct and
// preview buffers, every stream event, a leak, the clear) run with every
// status switch on. Its log lines carry the monitor's figures (totals, peaks,
// per-algorithm sizes), so comparing them with a run recorded from an earlier
// build proves that speed-ups above the in-pool allocator changed no line and
// no figure. A second test proves that whatever minimum log priority is set,
// exactly the lines at or above it are printed, with the same text.
//
// TALMEM_UPDATE_GOLDEN=1 rewrites the recorded file instead of comparing.

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <regex>
#include <thread>

#include "../monitor/MonitorTestUtil.h"
#include "CameraBufferInterface.h"
#include "interface/TalMemPoolThread.h"
#include "pool/TalMemPoolImpl.h"
#include "talmem/TalMemPool.h"

using qv::TalMemPool;
using namespace monitor_test;

namespace {

constexpr uint32_t kKiB = 1u << 10;
const qv::TalMemResolution kFullHd{1920, 1080, 1920, 1080};

// One line as compared: priority, function and message. File names and line
// numbers are left out (they move when code moves); addresses, the device
// root and timings are replaced, since they differ from run to run.
struct Record {
    int priority;
    std::string text;
    bool operator==(const Record& o) const { return priority == o.priority && text == o.text; }
};

std::string Normalise(const std::string& text, const std::string& root)
{
    static const std::regex prefix(R"(^(\[[A-Z ]+\]) [^ :]+:[0-9]+ )");
    static const std::regex hex(R"(0x[0-9a-fA-F]+)");
    static const std::regex cost(R"(cost:-?[0-9]+ms)");
    std::string out = std::regex_replace(text, prefix, "$1 ");
    for (size_t at = out.find(root); !root.empty() && at != std::string::npos; at = out.find(root)) {
        out.replace(at, root.size(), "<root>");
    }
    out = std::regex_replace(out, hex, "0x#");
    out = std::regex_replace(out, cost, "cost:#ms");
    while (!out.empty() && out.back() == '\n') {
        out.pop_back();
    }
    return out;
}

// Runs of lines printed by one loop over an unordered map come in an order
// that follows the addresses; each run is sorted so that only content counts.
void SortMapRuns(std::vector<Record>& records)
{
    auto key = [](const Record& r) {
        size_t end = r.text.find(':', r.text.find("() "));
        return std::to_string(r.priority) + r.text.substr(0, end);
    };
    for (size_t i = 0; i < records.size();) {
        size_t j = i + 1;
        while (j < records.size() && key(records[j]) == key(records[i])) {
            ++j;
        }
        std::sort(records.begin() + i, records.begin() + j,
                  [](const Record& a, const Record& b) { return a.text < b.text; });
        i = j;
    }
}

bool WaitFor(const std::function<bool()>& done)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return done();
}

std::string GoldenPath()
{
    // Header sizes of the in-pool allocator follow the pointer width, and
    // its lines carry them.
    const char* abi = sizeof(void*) == 8 ? "lp64" : "ilp32";
    return (std::filesystem::path(__FILE__).parent_path() / "golden" /
            (std::string("public_session.") + abi + ".txt"))
        .string();
}

class PublicPathRecordTest : public talmem_test::TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        ASSERT_EQ(TalMemPool::poolThread, nullptr) << "because every test leaves no service";
        talmem_test::WriteFile(DevicePath("/odm/etc/camera/talmempoolcfg.xml"),
                               Fmt("<TalMemPoolConfig>list algorithm peak size\n"
                                   "  <AllocType>1</AllocType>\n  <BasePoolSize>%u</BasePoolSize>\n"
                                   "  <AlgoSizeLimit>%u</AlgoSizeLimit>\n  <PrevRatioLimit>75</PrevRatioLimit>\n"
                                   "  <MultiPoolSize>104857600</MultiPoolSize>\n"
                                   "  <Algo name=\"mfnrAlgo\" value=\"%u\" resolution=\"1920x1080\"/>\n"
                                   "</TalMemPoolConfig>\n", 8 * kMiB, 64 * kMiB, 24 * kMiB));
        for (const char* key : {"persist.vendor.talmem.prt.rtpoolstatus", "persist.vendor.talmem.prt.rtalgoinfo",
                                "persist.vendor.talmem.prt.pksizemclist"}) {
            TalHostSetProperty(key, "1");
        }
    }
    void TearDown() override
    {
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        while (TalMemPool::reference > 0) {
            TalMemPool::DeletePool();
        }
        TalTest::TearDown();
    }

    // The session; returns the captured lines, normalised.
    std::vector<Record> RunSession()
    {
        const uint64_t heldBefore = QvCamera::CameraBufferInterface::GetHeldBytes();
        // Every run starts without the peaks that the previous one learnt.
        std::filesystem::remove(DevicePath("/data/vendor/camera/talmempoolfilter.xml"));
        LogCapture::Clear();
        TalMemPool::NewPool();
        bool updated = false;
        EXPECT_TRUE(WaitFor([&] { return updated = updated || TalMemPool::PoolUpdate({"mfnrAlgo"}, kFullHd, 0, 0) == 0; }));
        Session();
        // The last DeletePool destroys the service, and logs its lines, before
        // it returns.
        TalMemPool::DeletePool();
        EXPECT_EQ(QvCamera::CameraBufferInterface::GetHeldBytes(), heldBefore) << "because nothing is kept";
        std::vector<Record> out;
        for (const auto& line : LogCapture::Lines()) {
            // How often PoolUpdate is refused before the looper runs is timing.
            if (line.message != "QvCamMem enter PoolUpdate m_spMemLooper is not set\n") {
                out.push_back({line.priority, Normalise(line.text, root_)});
            }
        }
        SortMapRuns(out);
        return out;
    }

    void Session()
    {
        const qv::AllocHint direct{1, 7, 0}; // asks for memory outside the pools
        TalMemPool::RegisterAllocatorRef(0, "mfnrNode");
        TalMemPool::RegisterAllocatorRef(1, "prevNode");
        TalMemPool::OnSos();
        void* a = TalMemPool::Malloc(3 * kMiB, "mfnrNode", nullptr, "mfnrAlgo", 0);
        void* b = TalMemPool::Malloc(kMiB - 100, "mfnrNode", nullptr, "hdrAlgo", 0);
        void* d = TalMemPool::Malloc(64 * kKiB, "mfnrNode", &direct, "mfnrAlgo", 0);
        void* p = TalMemPool::Malloc(2 * kMiB, "prevNode", nullptr, "prevAlgo", 1);
        ASSERT_TRUE(a && b && d && p);
        ASSERT_NE(TalMemPool::GetIBuf(a), nullptr);
        TalMemPool::OnFrame();
        TalMemPool::Free(b, "mfnrNode", nullptr);
        void* c = TalMemPool::Malloc(512 * kKiB, "mfnrNode", nullptr, "hdrAlgo", 0);
        TalMemPool::Free(p, "prevNode", nullptr);
        void* p2 = TalMemPool::Malloc(2 * kMiB, "prevNode", nullptr, "prevAlgo", 1);
        EXPECT_EQ(p2, p) << "because the free preview chunk is reused";
        TalMemPool::Free(p2, "prevNode", nullptr);
        void* e = TalMemPool::Malloc(200 * kKiB, "mfnrNode", &direct, "mfnrAlgo", 2);
        TalMemPool::Free(d, "mfnrNode", nullptr);
        TalMemPool::OnEos();
        TalMemPool::Free(a, "mfnrNode", nullptr);
        TalMemPool::Free(c, "mfnrNode", nullptr);
        TalMemPool::Free(c, "mfnrNode", nullptr); // a second free: the pool's checks report it
        TalMemPool::UnregisterAllocatorRef(1, "prevNode");
        TalMemPool::RegisterAllocatorRef(2, "otherNode");
        TalMemPool::UnregisterAllocatorRef(0, "mfnrNode");
        TalMemPool::UnregisterAllocatorRef(2, "otherNode"); // e is still alive: a leak
        TalMemPool::Free(e, "mfnrNode", nullptr);
        TalMemPool::CameraClose();
        EXPECT_EQ(0, TalMemPool::ClearAll(0, 0));
    }
};

std::string Join(const std::vector<Record>& records)
{
    std::string out;
    for (const Record& r : records) {
        out += std::to_string(r.priority) + " " + r.text + "\n";
    }
    return out;
}

TEST_F(PublicPathRecordTest, FixedSession_LogLinesAndFiguresMatchTheRecordedRun)
{
    std::vector<Record> got = RunSession();
    ASSERT_FALSE(HasFailure()) << LogCapture::Dump();
    const std::string text = Join(got);
    if (getenv("TALMEM_UPDATE_GOLDEN") != nullptr) {
        talmem_test::MakeDirs(std::filesystem::path(GoldenPath()).parent_path());
        talmem_test::WriteFile(GoldenPath(), text);
        GTEST_SKIP() << "recorded " << got.size() << " lines in " << GoldenPath();
    }
    const std::string want = talmem_test::ReadFile(GoldenPath());
    ASSERT_FALSE(want.empty()) << "because the recorded run exists: " << GoldenPath();
    EXPECT_EQ(text, want);
}

TEST_F(PublicPathRecordTest, FixedSession_AtEachMinimumPriority_PrintsExactlyTheLinesAtOrAboveIt)
{
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    const std::vector<Record> all = RunSession();
    ASSERT_GT(std::count_if(all.begin(), all.end(), [](const Record& r) { return r.priority == ANDROID_LOG_DEBUG; }), 50)
        << "because the session prints many debug lines";
    for (int min : {ANDROID_LOG_DEBUG, ANDROID_LOG_INFO, ANDROID_LOG_WARN, ANDROID_LOG_ERROR}) {
        SCOPED_TRACE(min);
        std::vector<Record> want;
        std::copy_if(all.begin(), all.end(), std::back_inserter(want), [&](const Record& r) { return r.priority >= min; });
        __android_log_set_minimum_priority(min);
        const std::vector<Record> got = RunSession();
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
        EXPECT_EQ(Join(got), Join(want));
    }
}

} // namespace
