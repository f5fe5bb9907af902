#ifndef TALMEM_TESTS_CONFIG_CONFIGTESTSUPPORT_H
#define TALMEM_TESTS_CONFIG_CONFIGTESTSUPPORT_H

// Helpers shared by the configuration tests: documents, paths under the
// fixture's device root and printable forms of the results.

#include <string>
#include <vector>

#include "TalTestSupport.h"
#include "config/TalMemConfig.h"

namespace talmem_test {

constexpr int kE = ANDROID_LOG_ERROR, kW = ANDROID_LOG_WARN, kI = ANDROID_LOG_INFO;

// A document: root text, AllocType `type`, BasePoolSize `base`, then `rest`.
inline std::string Cfg(const std::string& rest, const std::string& type = "1",
                       const std::string& base = "1000", const std::string& text = "root text")
{
    return "<TalMemPoolConfig>" + text + "<AllocType>" + type + "</AllocType><BasePoolSize>" +
           base + "</BasePoolSize>" + rest + "</TalMemPoolConfig>";
}

// The same with the three optional limits, all valid, before `algos`.
inline std::string WithLimits(const std::string& algos, const std::string& type = "1")
{
    return Cfg("<AlgoSizeLimit>471859200</AlgoSizeLimit><PrevRatioLimit>75</PrevRatioLimit>"
               "<MultiPoolSize>230686720</MultiPoolSize>" + algos, type);
}

// "name[resolution=size ...] ..." in map order.
inline std::string Describe(const qv::TalAlgoPeakMap& table)
{
    std::string out;
    for (const auto& algo : table) {
        out += (out.empty() ? "" : " ") + algo.first + "[";
        for (const auto& e : algo.second) {
            out += (out.back() == '[' ? "" : " ") + e.resolution + "=" + std::to_string(e.algoSize);
        }
        out += "]";
    }
    return out;
}

inline std::vector<int> Record(const qv::TalMemConfig& c)
{
    return {c.allocateType, c.basePoolSize, c.algoSizeLimit, c.prevRatioLimit, c.multiPoolSize};
}

class ConfigTest : public TalTest {
protected:
    std::string DeviceFile(const std::string& name) const { return DevicePath("/odm/etc/camera/" + name); }
    std::string FilterFile() const { return DevicePath("/data/vendor/camera/talmempoolfilter.xml"); }
    int LoadText(const std::string& xml) // writes `xml` to a device file and loads it
    {
        WriteFile(DeviceFile("x.xml"), xml);
        return config.LoadTalMemConfig(DeviceFile("x.xml"), table);
    }

    qv::TalMemConfig config;
    qv::TalAlgoPeakMap table;
};

} // namespace talmem_test

#endif // TALMEM_TESTS_CONFIG_CONFIGTESTSUPPORT_H
