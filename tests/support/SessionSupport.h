#ifndef TALMEM_TESTS_SESSIONSUPPORT_H
#define TALMEM_TESTS_SESSIONSUPPORT_H

// Pieces shared by the suites that drive the library through its public
// entries only (fault injection, stress, soak): a device configuration that
// sizes a base pool, a start that waits for the service's looper, and
// buffers stamped with a pattern that is checked before they are freed.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <list>
#include <string>
#include <thread>

#include "TalTestSupport.h"
#include "talmem/TalMemPool.h"

namespace talmem_test {

constexpr uint32_t kMiB = 1u << 20;
const qv::TalMemResolution kFullHd{1920, 1080, 1920, 1080};

// True once `done` holds; false after `seconds` (generous for sanitizers and qemu).
inline bool WaitFor(const std::function<bool()>& done, int seconds = 20)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return done();
}

// A device file with a base pool of `basePool` bytes and one algorithm whose
// configured peak (above 20 MiB) makes the first PoolUpdate create that pool.
inline std::string DeviceConfig(uint32_t basePool, const std::string& algo, uint32_t peak)
{
    char buf[640];
    snprintf(buf, sizeof(buf),
             "<TalMemPoolConfig>list algorithm peak size\n"
             "  <AllocType>1</AllocType>\n  <BasePoolSize>%u</BasePoolSize>\n"
             "  <AlgoSizeLimit>%u</AlgoSizeLimit>\n  <PrevRatioLimit>75</PrevRatioLimit>\n"
             "  <MultiPoolSize>104857600</MultiPoolSize>\n"
             "  <Algo name=\"%s\" value=\"%u\" resolution=\"1920x1080\"/>\n"
             "</TalMemPoolConfig>\n",
             basePool, 64 * kMiB, algo.c_str(), peak);
    return buf;
}

// NewPool, then one synchronous PoolUpdate as soon as the looper thread has
// made its looper (the update is refused until then). False on time-out.
inline bool StartAndUpdate(const std::list<std::string>& algos)
{
    qv::TalMemPool::NewPool();
    bool updated = false;
    return WaitFor([&] {
        return updated = updated || qv::TalMemPool::PoolUpdate(algos, kFullHd, 0, 0) == 0;
    });
}

// Writes a pattern derived from `seed` over the first and last bytes and a
// stride through the middle; Intact tells whether it is still there.
inline void Stamp(void* addr, uint32_t size, uint32_t seed)
{
    auto* p = static_cast<uint8_t*>(addr);
    for (uint32_t off = 0; off < size; off += 509) {
        p[off] = static_cast<uint8_t>(seed + off / 509);
    }
    memcpy(p + size - sizeof(seed), &seed, sizeof(seed));
}

inline bool Intact(const void* addr, uint32_t size, uint32_t seed)
{
    const auto* p = static_cast<const uint8_t*>(addr);
    for (uint32_t off = 0; off + sizeof(seed) < size; off += 509) {
        if (p[off] != static_cast<uint8_t>(seed + off / 509)) {
            return false;
        }
    }
    uint32_t tail = 0;
    memcpy(&tail, p + size - sizeof(seed), sizeof(seed));
    return tail == seed;
}

} // namespace talmem_test

#endif // TALMEM_TESTS_SESSIONSUPPORT_H
