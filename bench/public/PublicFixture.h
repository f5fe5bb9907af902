#ifndef TALMEM_BENCH_PUBLIC_PUBLICFIXTURE_H
#define TALMEM_BENCH_PUBLIC_PUBLICFIXTURE_H

// Shared pieces of bench_public: the library's service with a base pool made
// the documented way, live sets of camera-like sizes, and the log counter.

#include <android/log.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace talmem_bench {

constexpr uint32_t kKiB = 1u << 10;
constexpr uint32_t kMiB = 1u << 20;
// The largest base pool the configuration accepts (BasePoolSize <= 200 MiB).
constexpr uint32_t kBasePool = 200 * kMiB;
constexpr size_t kSteps = 1u << 16; // precomputed replacement steps, a power of two

// Page multiples, log-uniform between min and max.
struct Mix {
    const char* name;
    uint32_t min;
    uint32_t max;
};
constexpr Mix kMixes[] = {{"4KiB-16MiB", 4 * kKiB, 16 * kMiB}, {"4KiB-64KiB", 4 * kKiB, 64 * kKiB}};

// Lines the library logged, counted by a logger that drops them; liblog has
// formatted each of them before handing it over.
extern std::atomic<uint64_t> gLogLines;
void CountingLogger(const __android_logger_data* data, const char* message);

// `live` buffers held at once; step k frees slot victims[k] and allocates
// sizes[live + k] in its place. Every slot keeps its algorithm and module.
struct LiveSet {
    LiveSet(const Mix& mix, size_t live, unsigned seed);
    // The live set, room for the largest replacement and a quarter more for
    // the holes of a best-fit pool must fit a pool of `poolSize`.
    bool FitsPool(uint32_t poolSize, uint32_t maxSize) const;
    // Why it does not.
    std::string TooLarge() const;
    static const char* Algo(size_t slot);
    static const char* Node(size_t slot);

    size_t live;
    std::vector<uint32_t> sizes;
    std::vector<size_t> victims;
    std::vector<void*> slots;
};

// The library's service with its base pool, made once per process: a device
// tree with the pool configuration, NewPool, PoolUpdate, then a stream at its
// frames, as during a capture.
class Service {
public:
    static Service& Get();
    bool ok() const { return mError.empty(); }
    const std::string& error() const { return mError; }
    // True for an address carved from the base pool.
    bool InPool(const void* p) const
    {
        uintptr_t a = reinterpret_cast<uintptr_t>(p);
        return a > mPoolBase && a < mPoolBase + mPoolSize;
    }
    // Ends the service and removes the device tree.
    void Stop();

private:
    Service();
    bool WriteDeviceTree();
    bool FindPool();

    std::string mRoot;
    std::string mError;
    uintptr_t mPoolBase = 0;
    uint32_t mPoolSize = 0;
};

// Fills the live set through the public entries; false when a buffer did not
// come from the pool.
bool FillPublic(LiveSet& set);
void ReleasePublic(LiveSet& set);

// One public pair at step `k`; false when the new buffer is not from the pool.
bool PublicStep(LiveSet& set, size_t k, const Service& service);

// Contention and the control-traffic variant (PublicThreads.cpp).
void RegisterPublicThreadBenchmarks();

} // namespace talmem_bench

#endif // TALMEM_BENCH_PUBLIC_PUBLICFIXTURE_H
