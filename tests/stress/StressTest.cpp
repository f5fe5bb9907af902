// Concurrency stress through every public entry: worker threads mix
// allocations of every kind and type, descriptor look-ups, writes checked at
// Free, stream events, pool updates, post-processing states, control
// commands, dumps, allocator references, camera closes with delayed clears and
// extra NewPool/DeletePool pairs, for a bounded time. Buffers must stay
// private and intact, and the last DeletePool must leave the camera-buffer
// service holding nothing. Run under ThreadSanitizer and AddressSanitizer too.
//
// TALMEM_STRESS_SECONDS sets the run time (default 3), TALMEM_STRESS_SEED the
// seed of the first thread (default 1).

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "CameraBufferInterface.h"
#include "ServiceCounters.h"
#include "SessionSupport.h"
#include "talmem/TalMemControl.h"

using qv::TalMemPool;
using QvCamera::CameraBufferInterface;
using namespace talmem_test;

namespace {

constexpr int kThreads = 8;
constexpr uint32_t kPool = 16 * kMiB;
const qv::MallocInfo kImages[] = {{640, 480, 17, 0x33}, {1280, 720, 35, 0x33}};

int EnvInt(const char* name, int fallback)
{
    const char* value = getenv(name);
    return value != nullptr && atoi(value) > 0 ? atoi(value) : fallback;
}

struct Held {
    void* addr;
    uint32_t size; // bytes stamped
    uint32_t seed;
    std::shared_ptr<QvCamera::ICameraBuffer> image; // MallocInfo requests only
};

struct Tally {
    std::atomic<uint64_t> ops{0};
    std::atomic<uint64_t> allocs{0};
    std::atomic<uint64_t> corrupt{0};   // buffers not intact at Free
    std::atomic<uint64_t> badIBuf{0};   // descriptor disagreeing with its buffer
};

class Worker {
public:
    Worker(int id, uint32_t seed, Tally& tally) : mId(id), mRng(seed), mTally(tally) {}

    void Run(const std::atomic<bool>& stop)
    {
        while (!stop.load()) {
            Step();
            mTally.ops.fetch_add(1);
        }
        while (!mHeld.empty()) {
            FreeOne(0);
        }
        for (int t = 0; t < 3; ++t) {
            while (mRefs[t] > 0) {
                TalMemPool::UnregisterAllocatorRef(t, "stress");
                --mRefs[t];
            }
        }
    }

private:
    uint32_t Pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(mRng); }

    void Step()
    {
        switch (Pick(20)) {
            case 0: case 1: case 2: case 3: AllocBySize(); break;
            case 4: AllocByGeometry(); break;
            case 5: AllocByInfo(); break;
            case 6: case 7: case 8: case 9:
                if (!mHeld.empty()) {
                    FreeOne(Pick(static_cast<uint32_t>(mHeld.size())));
                }
                break;
            case 10: StreamEvent(); break;
            case 11: UpdatePools(); break;
            case 12: PostProcessing(); break;
            case 13: Control(); break;
            case 14: TalMemPool::GetMemDumpInfo(static_cast<int32_t>(Pick(3))); break;
            case 15: AllocatorRef(); break;
            case 16: CloseAndClearLater(); break;
            case 17: ExtraReference(); break;
            case 18: Prealloc(); break;
            default: LookUp(); break;
        }
    }

    void Keep(void* addr, uint32_t size, std::shared_ptr<QvCamera::ICameraBuffer> image = nullptr)
    {
        if (addr == nullptr) {
            return;
        }
        mTally.allocs.fetch_add(1);
        uint32_t seed = (static_cast<uint32_t>(mId) << 24) ^ ++mSerial;
        Stamp(addr, size, seed);
        mHeld.push_back({addr, size, seed, std::move(image)});
    }

    void AllocBySize()
    {
        uint32_t size = 4096 * (1 + Pick(768)); // up to 3 MiB
        int32_t type = static_cast<int32_t>(Pick(3));
        Keep(TalMemPool::Malloc(size, "stressNode", nullptr, kAlgos[Pick(3)], type), size);
    }

    void AllocByGeometry()
    {
        uint32_t w = 64 * (1 + Pick(20)), h = 16 * (1 + Pick(40));
        Keep(TalMemPool::Malloc(w, h, 257, 0, "stressNode", nullptr, "geoAlgo",
                                static_cast<int32_t>(Pick(3))),
             w * h);
    }

    void AllocByInfo()
    {
        const qv::MallocInfo& info = kImages[Pick(2)];
        std::shared_ptr<QvCamera::ICameraBuffer> image = TalMemPool::Malloc(info, "stressPP");
        if (image != nullptr) {
            Keep(image->GetCpuAddr(), image->GetSize(), image);
        }
    }

    void FreeOne(size_t index)
    {
        Held held = mHeld[index];
        mHeld[index] = mHeld.back();
        mHeld.pop_back();
        if (!Intact(held.addr, held.size, held.seed)) {
            mTally.corrupt.fetch_add(1);
        }
        TalMemPool::Free(held.addr, "stressNode", nullptr);
    }

    void LookUp()
    {
        if (mHeld.empty()) {
            return;
        }
        const Held& held = mHeld[Pick(static_cast<uint32_t>(mHeld.size()))];
        const qva_ibuf* ibuf = TalMemPool::GetIBuf(held.addr);
        if (ibuf == nullptr || ibuf->getAddr(ibuf) != held.addr || ibuf->getSize(ibuf) < held.size) {
            mTally.badIBuf.fetch_add(1);
        }
    }

    void StreamEvent()
    {
        switch (Pick(3)) {
            case 0: TalMemPool::OnSos(); break;
            case 1: TalMemPool::OnFrame(); break;
            default: TalMemPool::OnEos(); break;
        }
    }

    void UpdatePools()
    {
        std::list<std::string> algos{kAlgos[Pick(3)], "mfnrAlgo"};
        TalMemPool::PoolUpdate(algos, kFullHd, static_cast<int32_t>(Pick(2)), static_cast<int32_t>(Pick(5)));
    }

    void PostProcessing()
    {
        if (Pick(4) == 0) {
            TalMemPool::ClearPPState(static_cast<int32_t>(Pick(4)));
        } else {
            TalMemPool::UpdatePPState(static_cast<int32_t>(Pick(4)), static_cast<int32_t>(1 + Pick(5)));
        }
    }

    void Control()
    {
        int32_t videState = static_cast<int32_t>(Pick(2));
        TalMemPool::MemPoolIoctl(static_cast<int32_t>(1 + Pick(3)), &videState);
        if (!mHeld.empty()) {
            const Held& held = mHeld[Pick(static_cast<uint32_t>(mHeld.size()))];
            qv::TalCacheRange range{reinterpret_cast<uintptr_t>(held.addr), held.size};
            TalMemPool::MemPoolControl(static_cast<int32_t>(2 + Pick(2)), &range, nullptr);
            if (held.image != nullptr) { // a descriptor for a camera buffer
                qva_ibuf ibuf{};
                if (TalMemPool::MemPoolControl(qv::TAL_MEM_CTRL_FILL_IBUF, held.image.get(), &ibuf) != 0 ||
                    ibuf.getAddr(&ibuf) != held.addr) {
                    mTally.badIBuf.fetch_add(1);
                }
            }
        }
    }

    void AllocatorRef()
    {
        int t = static_cast<int>(Pick(3));
        if (mRefs[t] > 0 && Pick(2) == 0) {
            TalMemPool::UnregisterAllocatorRef(t, "stress");
            --mRefs[t];
        } else {
            TalMemPool::RegisterAllocatorRef(t, "stress");
            ++mRefs[t];
        }
    }

    void CloseAndClearLater()
    {
        TalMemPool::CameraClose();
        TalMemPool::ClearAll(1, static_cast<int32_t>(Pick(10)));
    }

    // The main thread holds a reference throughout, so the count never reaches 0 here.
    void ExtraReference()
    {
        TalMemPool::NewPool();
        LookUp();
        TalMemPool::DeletePool();
    }

    void Prealloc()
    {
        const qv::MallocInfo& info = kImages[Pick(2)];
        if (Pick(2) == 0) {
            TalMemPool::PreAllocPool(info, "stressPP", 1 + Pick(2));
        } else {
            TalMemPool::ReleasePool(info);
        }
    }

    static constexpr const char* kAlgos[3] = {"mfnrAlgo", "hdrAlgo", "prevAlgo"};

    int mId;
    std::mt19937 mRng;
    Tally& mTally;
    uint32_t mSerial = 0;
    int mRefs[3] = {0, 0, 0};
    std::vector<Held> mHeld;
};

class StressTest : public TalTest {};

TEST_F(StressTest, EightThreadsThroughEveryEntry_BuffersIntact_NothingHeldAfterLastDeletePool)
{
    ASSERT_EQ(TalMemPool::poolThread, nullptr);
    const uint64_t heldBefore = CameraBufferInterface::GetHeldBytes();
    WriteFile(DevicePath("/odm/etc/camera/talmempoolcfg.xml"), DeviceConfig(kPool, "mfnrAlgo", 24 * kMiB));
    ASSERT_TRUE(StartAndUpdate({"mfnrAlgo"})) << LogCapture::Dump();

    const int seconds = EnvInt("TALMEM_STRESS_SECONDS", 3);
    const uint32_t seed = static_cast<uint32_t>(EnvInt("TALMEM_STRESS_SEED", 1));
    Tally tally;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < kThreads; ++i) {
        workers.push_back(std::make_unique<Worker>(i, seed + static_cast<uint32_t>(i), tally));
    }
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&stop, worker = workers[i].get()] { worker->Run(stop); });
    }
    // The log of a few seconds of eight threads is large: keep only the latest.
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        LogCapture::Clear();
    }
    stop = true;
    for (std::thread& t : threads) {
        t.join();
    }
    printf("stress: %d threads, %d s, seed %u: %llu operations, %llu buffers\n", kThreads, seconds, seed,
           static_cast<unsigned long long>(tally.ops.load()), static_cast<unsigned long long>(tally.allocs.load()));
    EXPECT_GE(tally.allocs.load(), static_cast<uint64_t>(kThreads)) << "because the run must have done real work";
    EXPECT_EQ(tally.corrupt.load(), 0u) << "because every buffer is private to its owner";
    EXPECT_EQ(tally.badIBuf.load(), 0u);

    EXPECT_EQ(CountersInUse(), kNothingInUse) << "because every buffer was freed";
    for (const qv::MallocInfo& info : kImages) {
        TalMemPool::ReleasePool(info);
    }
    TalMemPool::CameraClose();
    EXPECT_EQ(TalMemPool::ClearAll(0, 0), 0) << LogCapture::Dump();
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), heldBefore)
        << "because nothing is in use, so the clear releases every pool and idle chunk";
    EXPECT_EQ(TalMemPool::reference, 1);
    TalMemPool::DeletePool();
    EXPECT_EQ(TalMemPool::poolThread, nullptr);
    EXPECT_EQ(CameraBufferInterface::GetHeldBytes(), heldBefore)
        << "because the last DeletePool releases every chunk before it returns";
}

} // namespace
