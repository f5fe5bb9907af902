#include "PublicFixture.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "talmem/TalMemPool.h"

namespace talmem_bench {

using qv::TalMemPool;

namespace {

const char* const kAlgos[] = {"mfnrAlgo", "hdrFusionAlgo", "nightSceneAlgo", "faceDetectAlgo"};
const char* const kNodes[] = {"mfnrNode", "hdrNode", "nightNode", "faceNode"};
constexpr uint32_t kNodeSlack = 8 * kKiB; // node header and alignment slack per buffer

std::vector<uint32_t> MixSizes(const Mix& mix, size_t count, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> logSize(std::log(static_cast<double>(mix.min)),
                                                   std::log(static_cast<double>(mix.max)));
    std::vector<uint32_t> sizes(count);
    for (uint32_t& size : sizes) {
        uint32_t pages = static_cast<uint32_t>(std::exp(logSize(rng)) / 4096.0);
        size = std::max<uint32_t>(pages, 1) * 4096u;
    }
    return sizes;
}

} // namespace

std::atomic<uint64_t> gLogLines{0};

void CountingLogger(const __android_logger_data* /*data*/, const char* /*message*/)
{
    gLogLines.fetch_add(1, std::memory_order_relaxed);
}

LiveSet::LiveSet(const Mix& mix, size_t live, unsigned seed)
    : live(live), sizes(MixSizes(mix, live + kSteps, seed)), victims(kSteps), slots(live, nullptr)
{
    std::mt19937 rng(seed + 1);
    std::uniform_int_distribution<size_t> pick(0, live - 1);
    for (size_t& v : victims) {
        v = pick(rng);
    }
}

bool LiveSet::FitsPool(uint32_t poolSize, uint32_t maxSize) const
{
    uint64_t bytes = 0;
    for (size_t i = 0; i < live; ++i) {
        bytes += sizes[i] + kNodeSlack;
    }
    return bytes + bytes / 4 + maxSize <= poolSize;
}

std::string LiveSet::TooLarge() const
{
    uint64_t bytes = 0;
    for (size_t i = 0; i < live; ++i) {
        bytes += sizes[i];
    }
    return "live set of " + std::to_string(bytes >> 20) +
           " MiB does not fit the 200 MiB base pool (the largest the configuration accepts)";
}

const char* LiveSet::Algo(size_t slot)
{
    return kAlgos[slot % 4];
}

const char* LiveSet::Node(size_t slot)
{
    return kNodes[slot % 4];
}

Service& Service::Get()
{
    static Service service;
    return service;
}

bool Service::WriteDeviceTree()
{
    char pattern[] = "/tmp/talmem-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        return false;
    }
    mRoot = pattern;
    std::error_code ec;
    std::filesystem::create_directories(mRoot + "/odm/etc/camera", ec);
    std::filesystem::create_directories(mRoot + "/data/vendor/camera", ec);
    for (const char* file : {"talmempoolcfg.xml", "talmempoolcfg_ram4g.xml"}) {
        std::ofstream out(mRoot + "/odm/etc/camera/" + file);
        out << "<TalMemPoolConfig>list algorithm peak size\n  <AllocType>1</AllocType>\n"
            << "  <BasePoolSize>" << kBasePool << "</BasePoolSize>\n"
            << "  <AlgoSizeLimit>524288000</AlgoSizeLimit>\n  <PrevRatioLimit>75</PrevRatioLimit>\n"
            << "  <MultiPoolSize>104857600</MultiPoolSize>\n"
            << "  <Algo name=\"benchAlgo\" value=\"" << kBasePool << "\" resolution=\"4000x3000\"/>\n"
            << "</TalMemPoolConfig>\n";
        if (!out.good()) {
            return false;
        }
    }
    setenv("TALMEM_ROOT", mRoot.c_str(), 1);
    unsetenv("TALMEM_PROPERTIES");
    return true;
}

Service::Service()
{
    if (!WriteDeviceTree()) {
        mError = "could not write the device tree";
        return;
    }
    TalMemPool::NewPool();
    const qv::TalMemResolution res{4000, 3000, 4000, 3000};
    // PoolUpdate is refused until the looper thread has made its looper.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (TalMemPool::PoolUpdate({"benchAlgo"}, res, 0, 0) != 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    TalMemPool::OnSos();
    TalMemPool::OnFrame();
    if (!FindPool()) {
        mError = "PoolUpdate made no base pool";
    }
}

bool Service::FindPool()
{
    // The pool's range, from the descriptor of one carved buffer.
    void* p = TalMemPool::Malloc(4096, "benchNode", nullptr, "benchAlgo", 0);
    const qva_ibuf* ibuf = p != nullptr ? TalMemPool::GetIBuf(p) : nullptr;
    if (ibuf != nullptr && ibuf->getPoolSize(ibuf) != 0) {
        mPoolBase = reinterpret_cast<uintptr_t>(p) - ibuf->getOffset(ibuf);
        mPoolSize = ibuf->getPoolSize(ibuf);
    }
    if (p != nullptr) {
        TalMemPool::Free(p, "benchNode", nullptr);
    }
    return mPoolSize == kBasePool;
}

void Service::Stop()
{
    while (TalMemPool::reference > 0) {
        TalMemPool::DeletePool();
    }
    std::error_code ec;
    std::filesystem::remove_all(mRoot, ec);
}

bool FillPublic(LiveSet& set)
{
    const Service& service = Service::Get();
    for (size_t i = 0; i < set.live; ++i) {
        set.slots[i] = TalMemPool::Malloc(set.sizes[i], LiveSet::Node(i), nullptr, LiveSet::Algo(i), 0);
        if (!service.InPool(set.slots[i])) {
            return false;
        }
    }
    return true;
}

void ReleasePublic(LiveSet& set)
{
    for (size_t i = 0; i < set.live; ++i) {
        if (set.slots[i] != nullptr) {
            TalMemPool::Free(set.slots[i], LiveSet::Node(i), nullptr);
            set.slots[i] = nullptr;
        }
    }
}

bool PublicStep(LiveSet& set, size_t k, const Service& service)
{
    const size_t slot = set.victims[k];
    TalMemPool::Free(set.slots[slot], LiveSet::Node(slot), nullptr);
    set.slots[slot] = TalMemPool::Malloc(set.sizes[set.live + k], LiveSet::Node(slot), nullptr,
                                         LiveSet::Algo(slot), 0);
    return service.InPool(set.slots[slot]);
}

} // namespace talmem_bench
