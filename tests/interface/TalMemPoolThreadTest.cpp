// The service object: forwarding without a pool manager, delayed work on the
// looper thread (clear and pool update), the idle summary.

#include "TalTestSupport.h"

#include <chrono>
#include <functional>
#include <regex>
#include <thread>

#include "interface/TalMemPoolThread.h"
#include "pool/TalMemPoolImpl.h"
#include "talmem/TalMemPool.h"

using qv::MallocInfo;
using qv::TalMemPool;
using qv::TalMemPoolThread;
using qv::TalMemResolution;
using talmem_test::LogCapture;
using talmem_test::TalTest;

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kDeadline = std::chrono::seconds(20); // generous: qemu and sanitizers are slow
constexpr uint32_t kMiB = 1024 * 1024;

bool WaitFor(const std::function<bool()>& done)
{
    auto end = Clock::now() + kDeadline;
    while (Clock::now() < end) {
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

long long MsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// A service object that was never initialised or started.
class TalMemPoolThreadBare : public TalTest {};

TEST_F(TalMemPoolThreadBare, EveryForwarder_WithoutPoolManager_LogsAndReturnsItsFailureValue)
{
    android::sp<TalMemPoolThread> service = new TalMemPoolThread();
    MallocInfo info{64, 64, 35, 0};
    int dummy = 0;
    struct Row {
        const char* method;
        std::function<long long()> call;
        long long failure;
    };
    const Row rows[] = {
        {"Alloc", [&] { return (long long)(intptr_t)service->Alloc(4096, "m", nullptr, "a", 0); }, 0},
        {"Alloc", [&] { return (long long)(intptr_t)service->Alloc(8, 8, 35, 0, "m", nullptr, "a", 0); }, 0},
        {"Alloc", [&] { return (long long)(intptr_t)service->Alloc(info, "a"); }, 0},
        {"Free", [&] { service->Free(&dummy); return 0LL; }, 0},
        {"GetIBuf", [&] { return (long long)(intptr_t)service->GetIBuf(&dummy); }, 0},
        {"PreAllocPool", [&] { service->PreAllocPool(info, "a", 2); return 0LL; }, 0},
        {"ReleasePool", [&] { service->ReleasePool(info); return 0LL; }, 0},
        {"ClearAllSync", [&] { return (long long)service->ClearAllSync(); }, -1},
        {"CameraClose", [&] { service->CameraClose(); return 0LL; }, 0},
        {"OnSos", [&] { service->OnSos(); return 0LL; }, 0},
        {"OnFrame", [&] { service->OnFrame(); return 0LL; }, 0},
        {"OnEos", [&] { service->OnEos(); return 0LL; }, 0},
        {"UpdatePPState", [&] { service->UpdatePPState(0, 1); return 0LL; }, 0},
        {"ClearPPState", [&] { service->ClearPPState(0); return 0LL; }, 0},
        {"PoolInitTest", [&] { return (long long)service->PoolInitTest("t", 1); }, -1},
        {"PoolUpdateSync", [&] { return (long long)service->PoolUpdateSync(); }, -1},
        {"RegisterAllocatorRef", [&] { service->RegisterAllocatorRef(0, "m"); return 0LL; }, 0},
        {"UnregisterAllocatorRef", [&] { service->UnregisterAllocatorRef(0, "m"); return 0LL; }, 0},
        {"GetMemDumpInfo", [&] { return (long long)service->GetMemDumpInfo(0); }, 0},
        {"MemPoolIoctl", [&] { return (long long)service->MemPoolIoctl(3, nullptr); }, -1},
        {"MemPoolCtrl", [&] { return (long long)service->MemPoolCtrl(2, nullptr, nullptr); }, -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.method);
        LogCapture::Clear();
        EXPECT_EQ(row.call(), row.failure);
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, std::string("QvCamMem ") + row.method +
                                                           " memPoolImpl invalid\n"),
                  1)
            << LogCapture::Dump();
    }
    LogCapture::Clear();
    EXPECT_EQ(service->ClearAll(0, 0), -1);
    EXPECT_EQ(service->ClearAll(1, 0), -1);
    EXPECT_TRUE(LogCapture::Lines().empty()) << "because ClearAll fails silently here";
    service->Free(nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem Free, vaddr=0x0 return\n"));
    EXPECT_EQ(service->GetIBuf(nullptr), nullptr);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem GetIBuf, vaddr=0x0 return\n"));
}

TEST_F(TalMemPoolThreadBare, DelayedWork_BeforeTheLooperRuns_FailsWithNotSet)
{
    android::sp<TalMemPoolThread> service = new TalMemPoolThread();
    ASSERT_EQ(service->PoolInit(), 0);
    LogCapture::Clear();
    EXPECT_EQ(service->ClearAll(1, 10), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem enter ClearAllAsync memLooper is not set\n"));
    EXPECT_EQ(service->PoolUpdate({"a"}, TalMemResolution{1, 1, 1, 1}, 1, 10), -1);
    EXPECT_TRUE(Logged(ANDROID_LOG_ERROR, "QvCamMem enter PoolUpdate m_spMemLooper is not set\n"));
    EXPECT_EQ(service->PoolUpdate({"a"}, TalMemResolution{1, 1, 1, 1}, 0, 10), -1)
        << "because even an immediate update needs the looper";
}

class TalMemPoolThreadTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        TalMemPool::NewPool();
        ASSERT_NE(TalMemPool::poolThread, nullptr);
        service = TalMemPool::poolThread;
        // Delayed work needs the looper that the new thread makes first.
        ASSERT_TRUE(WaitFor([this] { return service->IsLooperReady(); }));
        LogCapture::Clear();
    }
    void TearDown() override
    {
        service.clear();
        TalMemPool::DeletePool();
        TalTest::TearDown();
    }
    qv::TalMemPoolImpl* Impl() { return service->GetImplForTest(); }
    bool NeedClearPools()
    {
        // The looper thread writes the flag: read it under the service lock.
        return service->WithImplLocked([](qv::TalMemPoolImpl* impl) { return impl->needClearPools; });
    }

    android::sp<TalMemPoolThread> service;
};

TEST_F(TalMemPoolThreadTest, ClearAllImmediate_ClearsAtOnceAndIgnoresTheDelay)
{
    EXPECT_EQ(TalMemPool::ClearAll(0, 100000), -1)
        << "because the pool manager refuses to clear before the camera closed";
    EXPECT_TRUE(Logged(ANDROID_LOG_WARN,
                       "QvCamMem ClearAll stopped because needClearPools is false\n"));
    TalMemPool::CameraClose();
    EXPECT_EQ(TalMemPool::ClearAll(0, 100000), 0);
    EXPECT_TRUE(Logged(ANDROID_LOG_INFO, "QvCamMem  ClearAll free all pool success\n"));
    EXPECT_FALSE(NeedClearPools());
}

TEST_F(TalMemPoolThreadTest, ClearAllDelayed_ReturnsAtOnceAndClearsLaterOnTheLooper)
{
    TalMemPool::CameraClose();
    LogCapture::Clear();
    auto start = Clock::now();
    EXPECT_EQ(TalMemPool::ClearAll(1, 500), 0);
    EXPECT_EQ(LogCapture::CountContaining("QvCamMem enter ClearAll\n"), 0)
        << "because the clear is only posted";
    ASSERT_TRUE(WaitFor([] {
        return LogCapture::Count(ANDROID_LOG_INFO, "QvCamMem  ClearAll free all pool success\n") ==
               1;
    })) << LogCapture::Dump();
    EXPECT_GE(MsSince(start), 490) << "because the message is delayed by 500 ms";
    EXPECT_FALSE(NeedClearPools());
}

TEST_F(TalMemPoolThreadTest, PoolUpdateDelayed_TheLatestPeakIsTheOneApplied)
{
    Impl()->algoPeakMap["algoA"] = {{"default", 30 * kMiB}};
    Impl()->algoPeakMap["algoB"] = {{"default", 70 * kMiB}};
    TalMemResolution res{4000, 3000, 1920, 1080};
    TalMemPool::CameraClose();
    EXPECT_EQ(TalMemPool::PoolUpdate({"algoA"}, res, 1, 400), 0);
    EXPECT_EQ(service->GetPeakSize(), 30 * kMiB);
    EXPECT_EQ(TalMemPool::PoolUpdate({"algoB"}, res, 1, 400), 0);
    EXPECT_EQ(service->GetPeakSize(), 70 * kMiB);
    EXPECT_TRUE(NeedClearPools()) << "because neither update has run yet";
    EXPECT_EQ(Impl()->resolution, "4000x3000");

    ASSERT_TRUE(WaitFor([this] { return !NeedClearPools(); }));
    // Both posted messages read the stored peak when they run.
    EXPECT_EQ(service->GetPeakSize(), 70 * kMiB);
    EXPECT_EQ(service->PoolUpdateSync(), 0);
}

TEST_F(TalMemPoolThreadTest, PoolUpdateImmediate_AppliesAtOnce)
{
    Impl()->algoPeakMap["algoA"] = {{"4000x3000", 25 * kMiB}, {"1920x1080", 10 * kMiB}};
    TalMemPool::CameraClose();
    EXPECT_EQ(TalMemPool::PoolUpdate({"algoA", "none"}, TalMemResolution{1920, 1080, 1, 1}, 0, 0),
              0);
    EXPECT_EQ(service->GetPeakSize(), 10 * kMiB);
    EXPECT_FALSE(NeedClearPools());
}

TEST_F(TalMemPoolThreadTest, IdleSummary_IsLoggedOnce3000msAfterTheLastActivity)
{
    // The single test of the fixed idle delay.
    void* p = TalMemPool::Malloc(4096, "m", nullptr, "a", 0);
    ASSERT_NE(p, nullptr);
    LogCapture::Clear();
    auto start = Clock::now();
    TalMemPool::Free(p, "m", nullptr); // re-arms the summary
    const std::regex summary(
        "QvCamMem mempoolcfg DumpMemInfo Free=-?[0-9]+, Total=-?[0-9]+, Pss=-?[0-9]+ "
        "mTimeOutCount=([0-9]+)\n");
    auto summaries = [&summary] {
        std::vector<std::string> counts;
        for (const auto& line : LogCapture::Lines()) {
            std::smatch m;
            if (line.priority == ANDROID_LOG_INFO && std::regex_match(line.message, m, summary)) {
                counts.push_back(m[1]);
            }
        }
        return counts;
    };
    ASSERT_TRUE(WaitFor([&] { return !summaries().empty(); })) << LogCapture::Dump();
    EXPECT_GE(MsSince(start), 2900) << "because the summary waits for 3000 ms of idleness";
    EXPECT_EQ(summaries(), std::vector<std::string>{"1"});
    EXPECT_EQ(service->GetTimeOutCount(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    EXPECT_EQ(summaries().size(), 1u) << "because the looper now waits without limit";
}

} // namespace
