#ifndef TALMEM_TESTS_CONFIG_CONFIGTESTSUPPORT_H
#define TALMEM_TESTS_CONFIG_CONFIGTESTSUPPORT_H

// Helpers shared by the configuration tests: XML texts, the device paths of
// the fixture's root and fixed memory probes.

#include <string>

#include "TalTestSupport.h"
#include "config/TalMemConfig.h"

namespace talmem_test {

constexpr const char* kRootText = "list algorithm peak size";
constexpr const char* kDeviceDir = "/odm/etc/camera/";
constexpr const char* kWritableDir = "/data/vendor/camera/";

// Probes of an 8 GiB device, a 4 GiB device and a failed probe (KiB).
inline int Probe8G() { return 8 * 1024 * 1024; }
inline int Probe4G() { return 0x400000; }
inline int ProbeJustOver4G() { return 0x400001; }
inline int ProbeFailed() { return -1; }

// The five fixed elements with the given AllocType and BasePoolSize.
inline std::string FixedElements(const std::string& allocType = "1",
                                 const std::string& basePoolSize = "104857600")
{
    return "<AllocType>" + allocType + "</AllocType><BasePoolSize>" + basePoolSize +
           "</BasePoolSize><AlgoSizeLimit>471859200</AlgoSizeLimit>"
           "<PrevRatioLimit>75</PrevRatioLimit><MultiPoolSize>230686720</MultiPoolSize>";
}

// A whole configuration document around `body` (everything after the root text).
inline std::string ConfigXml(const std::string& body, const std::string& rootText = kRootText)
{
    return "<?xml version=\"1.0\"?>\n<TalMemPoolConfig>" + rootText + body +
           "</TalMemPoolConfig>\n";
}

// A valid configuration with the given algorithm elements.
inline std::string ConfigWithAlgos(const std::string& algos)
{
    return ConfigXml(FixedElements() + algos);
}

class ConfigTest : public TalTest {
protected:
    std::string DeviceFile(const std::string& name) const { return DevicePath(kDeviceDir) + name; }
    std::string PriorityFile(const std::string& name) const
    {
        return DevicePath(kDeviceDir) + "AlgoConfig/" + name;
    }
    std::string FilterFile() const { return DevicePath(kWritableDir) + "talmempoolfilter.xml"; }

    // Writes `xml` to a scratch file and loads it as a device configuration.
    int LoadText(const std::string& xml)
    {
        std::string path = DeviceFile("scratch.xml");
        WriteFile(path, xml);
        return config.LoadTalMemConfig(path, table);
    }

    qv::TalMemConfig config;
    qv::TalAlgoPeakMap table;
};

} // namespace talmem_test

#endif // TALMEM_TESTS_CONFIG_CONFIGTESTSUPPORT_H
