// Soak: a seeded random camera workload through the public entries for a
// bounded time. Each session starts the library (reading the table learnt by
// the previous one), streams frames with preview buffers that are reused,
// captures with several algorithms, updates the pools, moves post-processing
// states, closes the camera with a delayed clear and stops. After each
// session the monitor's counters are back to zero and the camera-buffer
// service holds nothing; the learnt file stays loadable.
//
// TALMEM_SOAK_SECONDS sets the run time (default 12), TALMEM_SOAK_SEED the seed
// (default 1); the line printed at the end names both, so a failure can be
// replayed.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "CameraBufferInterface.h"
#include "ServiceCounters.h"
#include "SessionSupport.h"

using qv::TalMemPool;
using QvCamera::CameraBufferInterface;
using namespace talmem_test;

namespace {

constexpr uint32_t kPool = 16 * kMiB;
const char* const kCaptureAlgos[] = {"mfnrAlgo", "hdrAlgo", "nightAlgo", "bokehAlgo"};
const std::string kLearntLoaded = "LoadAlgoPeakMem LoadAlgoPeakMem cfg_filter success\n";

int EnvInt(const char* name, int fallback)
{
    const char* value = getenv(name);
    return value != nullptr && atoi(value) > 0 ? atoi(value) : fallback;
}

struct Buffer {
    void* addr;
    uint32_t size;
    uint32_t seed;
    int framesLeft; // frames until it is freed
};

class Session {
public:
    Session(std::mt19937& rng, std::string filterFile) : mRng(rng), mFilterFile(std::move(filterFile)) {}

    // One camera session from NewPool to the last DeletePool.
    void Run(int frames)
    {
        std::list<std::string> algos{"mfnrAlgo", kCaptureAlgos[Pick(4)]};
        const bool learnt = access(mFilterFile.c_str(), F_OK) == 0;
        ASSERT_TRUE(StartAndUpdate(algos)) << LogCapture::Dump();
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, kLearntLoaded), learnt ? 1 : 0)
            << "because a start reads the table that an earlier session wrote";
        for (int t = 0; t < 3; ++t) {
            TalMemPool::RegisterAllocatorRef(t, "soakNode");
        }
        TalMemPool::OnSos();
        for (int f = 0; f < frames && !::testing::Test::HasFailure(); ++f) {
            Frame();
        }
        while (!mHeld.empty()) {
            Release(mHeld.size() - 1);
        }
        TalMemPool::OnEos();
        ExpectCountersZero();
        for (int t = 0; t < 3; ++t) {
            TalMemPool::UnregisterAllocatorRef(t, "soakNode");
        }
        TalMemPool::CameraClose();
        LogCapture::Clear();
        ASSERT_EQ(TalMemPool::ClearAll(1, static_cast<int32_t>(Pick(20))), 0);
        // A pool update still queued from the session may reopen the camera
        // first; the clear is then refused and the last DeletePool frees all.
        ASSERT_TRUE(WaitFor([this] {
            clearDone = LogCapture::CountContaining("ClearAll free all pool success") > 0;
            return clearDone || LogCapture::CountContaining("ClearAll stopped because needClearPools is false") > 0;
        })) << LogCapture::Dump();
        TalMemPool::DeletePool();
    }

    uint64_t buffers = 0;
    bool clearDone = false; // the delayed clear ran and wrote the learnt table

private:
    uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(mRng); }

    void Frame()
    {
        for (int i = static_cast<int>(Pick(3)); i > 0; --i) { // preview buffers live a frame or two
            Keep(TalMemPool::Malloc(kMiB * (1 + Pick(3)), "prevNode", nullptr, "prevAlgo", 1), 1 + Pick(2));
        }
        if (Pick(4) == 0) { // a capture: several algorithms, buffers held for a few frames
            for (int i = static_cast<int>(1 + Pick(4)); i > 0; --i) {
                Keep(TalMemPool::Malloc(4096 * (1 + Pick(1024)), "capNode", nullptr, kCaptureAlgos[Pick(4)], 0),
                     1 + Pick(6));
            }
            TalMemPool::UpdatePPState(static_cast<int32_t>(Pick(4)), static_cast<int32_t>(1 + Pick(5)));
        }
        if (Pick(10) == 0) {
            Keep(TalMemPool::Malloc(1280, 720, 257, 0, "ppNode", nullptr, "ppAlgo", 2), 1 + Pick(3));
        }
        if (Pick(15) == 0) {
            TalMemPool::PoolUpdate({"mfnrAlgo", kCaptureAlgos[Pick(4)]}, kFullHd, static_cast<int32_t>(Pick(2)), 0);
        }
        if (Pick(20) == 0) {
            TalMemPool::ClearPPState(static_cast<int32_t>(Pick(4)));
        }
        TalMemPool::OnFrame();
        for (size_t i = mHeld.size(); i-- > 0;) {
            if (--mHeld[i].framesLeft <= 0) {
                Release(i);
            }
        }
    }

    void Keep(void* addr, int frames)
    {
        ASSERT_NE(addr, nullptr) << "because the soak stays far below the memory of the machine";
        const qva_ibuf* ibuf = TalMemPool::GetIBuf(addr);
        ASSERT_NE(ibuf, nullptr);
        uint32_t size = ibuf->getSize(ibuf);
        uint32_t seed = static_cast<uint32_t>(++buffers);
        Stamp(addr, size, seed);
        mHeld.push_back({addr, size, seed, frames});
    }

    void Release(size_t index)
    {
        Buffer b = mHeld[index];
        mHeld.erase(mHeld.begin() + static_cast<long>(index));
        EXPECT_TRUE(Intact(b.addr, b.size, b.seed)) << "buffer " << b.seed;
        TalMemPool::Free(b.addr, "node", nullptr);
    }

    static void ExpectCountersZero()
    {
        EXPECT_EQ(CountersInUse(), kNothingInUse) << "because every allocation was freed";
    }

    std::mt19937& mRng;
    std::string mFilterFile;
    std::vector<Buffer> mHeld;
};

class SoakTest : public TalTest {};

TEST_F(SoakTest, SeededCameraSessions_NothingHeldCountersZeroLearntFileLoads)
{
    ASSERT_EQ(TalMemPool::poolThread, nullptr);
    const uint64_t heldBefore = CameraBufferInterface::GetHeldBytes();
    WriteFile(DevicePath("/odm/etc/camera/talmempoolcfg.xml"), DeviceConfig(kPool, "mfnrAlgo", 24 * kMiB));
    const int seconds = EnvInt("TALMEM_SOAK_SECONDS", 12);
    const uint32_t seed = static_cast<uint32_t>(EnvInt("TALMEM_SOAK_SEED", 1));
    std::mt19937 rng(seed);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int sessions = 0, clears = 0;
    uint64_t buffers = 0;
    while (std::chrono::steady_clock::now() < end && !HasFailure()) {
        SCOPED_TRACE("session " + std::to_string(sessions));
        LogCapture::Clear();
        Session session(rng, DevicePath("/data/vendor/camera/talmempoolfilter.xml"));
        session.Run(20 + static_cast<int>(rng() % 60));
        buffers += session.buffers;
        clears += session.clearDone ? 1 : 0;
        ++sessions;
        EXPECT_EQ(TalMemPool::poolThread, nullptr);
        EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), heldBefore) << "because the session is over";
    }
    printf("soak: seed %u, %d s: %d sessions, %llu buffers, %d delayed clears done\n", seed, seconds, sessions,
           static_cast<unsigned long long>(buffers), clears);
    EXPECT_GE(sessions, 2);
    EXPECT_GT(clears, 0) << "because most delayed clears find the camera closed";
    qv::TalMemConfig reader;
    qv::TalAlgoPeakMap table;
    LogCapture::Clear();
    EXPECT_EQ(reader.LoadAlgoPeakMem(table), 0);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_DEBUG, kLearntLoaded), 1) << LogCapture::Dump();
    EXPECT_FALSE(table["mfnrAlgo"].empty()) << "because every session learnt its peaks";
}

} // namespace
