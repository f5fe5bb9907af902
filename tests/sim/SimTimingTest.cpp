// The figures of a run depend on the calls and on the library's results, not
// on when the library's looper thread gets the CPU or when its log lines are
// read.

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "LooperWatch.h"
#include "SimRun.h"
#include "SimTestUtil.h"

namespace talmem_test {
namespace {

using talsim::SimCall;

SimCall Call(int64_t atMs, const std::string& entry,
             std::vector<std::pair<std::string, std::string>> args = {})
{
    SimCall c;
    c.atUs = atMs * 1000;
    c.thread = 1;
    c.entry = entry;
    c.args = std::move(args);
    return c;
}

// Two sessions. The first opens with an async PoolUpdate that the looper runs
// 20 ms later; the second opens (and starts a new session in the figures) at
// 100 ms, after that update is due. algoA's configured peak is 48 MiB, above
// the 20 MiB threshold, so the looper's update creates the 32 MiB base pool:
// it belongs to session 1. Without post-processing states no multi pool is
// made, and session 2's synchronous update finds the base pool already there.
std::vector<SimCall> AsyncOpenThenReopen()
{
    const std::string res = "1920x1080,1920x1080";
    return {
        Call(0, "NewPool"),
        Call(1, "PoolUpdate", {{"algos", "algoA"}, {"res", res}, {"async", "1"}, {"delay", "20"}}),
        Call(2, "CameraClose"),
        Call(100, "PoolUpdate", {{"algos", "algoA"}, {"res", res}, {"async", "0"}, {"delay", "0"}}),
        Call(101, "CameraClose"),
        Call(102, "ClearAll", {{"mode", "0"}, {"delay", "0"}}),
        Call(103, "DeletePool"),
    };
}

class SimTimingTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        dir_ = MakeTempDir("simtiming");
        MakeDirs(dir_ + "/tree/odm/etc/camera");
        MakeDirs(dir_ + "/tree/data/vendor/camera");
        WriteFile(dir_ + "/tree/odm/etc/camera/talmempoolcfg.xml",
                  "<TalMemPoolConfig>list algorithm peak size\n"
                  "  <AllocType>1</AllocType>\n"
                  "  <BasePoolSize>33554432</BasePoolSize>\n"
                  "  <AlgoSizeLimit>471859200</AlgoSizeLimit>\n"
                  "  <PrevRatioLimit>75</PrevRatioLimit>\n"
                  "  <MultiPoolSize>104857600</MultiPoolSize>\n"
                  "  <Algo name=\"algoA\" value=\"50331648\"/>\n"
                  "</TalMemPoolConfig>\n");
    }
    void TearDown() override
    {
        RemoveTree(dir_);
        TalTest::TearDown();
    }
    talsim::RunFigures Run(int64_t looperLogDelayMs) const
    {
        talsim::RunRequest request;
        request.calls = AsyncOpenThenReopen();
        request.tree = dir_ + "/tree";
        request.memTotalKb = 7654312;
        request.outDir = dir_ + "/out";
        request.writeFiles = false;
        request.offWorkerLogDelayMs = looperLogDelayMs;
        return talsim::RunCalls(request).figures;
    }
    std::string dir_;
};

TEST_F(SimTimingTest, AsyncPoolUpdate_CountsInItsSessionHoweverLateItsLinesCome)
{
    // 0: lines read at once; 150: each of the looper's lines waits 150 ms, so
    // its update takes far longer than any fixed grace after its due time.
    for (int64_t delayMs : {0, 150}) {
        SCOPED_TRACE(delayMs);
        const talsim::RunFigures f = Run(delayMs);
        ASSERT_EQ(f.sessions.size(), 2u);
        EXPECT_EQ(f.sessions[0].pools.created, 1u)
            << "because the looper's update made the base pool before session 2 opened";
        EXPECT_EQ(f.sessions[1].pools.created, 0u)
            << "because session 2's update finds the base pool in place";
        EXPECT_EQ(f.sessions[1].pools.released, 1u) << "because the synchronous clear frees it";
        EXPECT_EQ(f.sessions[0].peakReserved, 32u * kMiB)
            << "because the base pool was reserved before session 1 ended";
        EXPECT_EQ(f.total.pools.created, 1u);
    }
}

// The watch sees a thread that sleeps in epoll_wait, as the library's looper
// does between messages, and stops seeing it once that thread has woken.
TEST(LooperWatchTest, Polling_TrueOnlyWhileAThreadSleepsInEpollWait)
{
    using Clock = std::chrono::steady_clock;
    ASSERT_FALSE(talsim::LooperPolling()) << "because no service is running in this test";
    EXPECT_FALSE(talsim::WaitForLooperAfter(Clock::now(), Clock::now() + std::chrono::milliseconds(50)))
        << "because the wait ends at its limit when nothing polls";

    const int ep = epoll_create1(EPOLL_CLOEXEC);
    const int ev = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(ep, 0);
    ASSERT_GE(ev, 0);
    epoll_event want{};
    want.events = EPOLLIN;
    ASSERT_EQ(epoll_ctl(ep, EPOLL_CTL_ADD, ev, &want), 0);
    std::thread poller([ep] {
        epoll_event got{};
        epoll_wait(ep, &got, 1, -1);
    });
    EXPECT_TRUE(talsim::WaitForLooperAfter(Clock::now(), Clock::now() + std::chrono::seconds(10)))
        << "because the thread sleeps in epoll_wait";
    const uint64_t one = 1;
    ASSERT_EQ(write(ev, &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
    poller.join();
    EXPECT_FALSE(talsim::LooperPolling()) << "because the polling thread has returned";
    EXPECT_EQ(close(ev), 0);
    EXPECT_EQ(close(ep), 0);
}

} // namespace
} // namespace talmem_test
