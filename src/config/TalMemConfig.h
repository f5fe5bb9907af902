#ifndef TALMEM_CONFIG_TALMEMCONFIG_H
#define TALMEM_CONFIG_TALMEMCONFIG_H

// Pool configuration and the learnt per-algorithm peak-size table.
//
// The pool manager owns one TalMemConfig, calls LoadAlgoPeakMem at pool
// initialisation and UploadAlgoPeakMem when every pool has been cleared, and
// reads the record fields in between. Nothing here takes a lock: the caller
// serialises (the service mutex). Files live in the device's fixed
// directories, resolved through qv::TalDevicePath (TALMEM_ROOT on a host).

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "monitor/MemUtils.h"

namespace tinyxml2 {
class XMLAttribute;
class XMLDocument;
class XMLElement;
} // namespace tinyxml2

namespace qv {

// Names of the configuration files and their fixed directories (device form).
constexpr const char* kTalCfgFileName = "talmempoolcfg.xml";
constexpr const char* kTalCfgRam4gFileName = "talmempoolcfg_ram4g.xml";
constexpr const char* kTalCfgWritableDir = "/data/vendor/camera/";
constexpr const char* kTalCfgFilterFileName = "talmempoolfilter.xml";
constexpr const char* kTalCfgDeviceDir = "/odm/etc/camera/";
constexpr const char* kTalCfgPriorityDirSuffix = "AlgoConfig/";
// Resolution key of an entry that serves any resolution.
constexpr const char* kTalCfgDefaultResolution = "default";

// The fixed locations as this process sees them (under TALMEM_ROOT on a host).
std::string TalCfgFilterFilePath();    // writable directory + "talmempoolfilter.xml"
std::string TalCfgDeviceDirPath();     // "/odm/etc/camera/"
std::string TalCfgPriorityDir1Path();  // device directory + "AlgoConfig/"

// Looks for `fileName` in priorityDir1, then priorityDir2 (stopping at the
// first null directory), each time first under `extendDir` when one is given.
// Fills `buf` (bufLen bytes) with the first existing path and returns `buf`;
// when nothing exists returns `buf` holding defaultPath + fileName (not
// checked), or null without a defaultPath or on bad arguments.
char* GetOneCfgFile(const char* priorityDir1, const char* priorityDir2, const char* extendDir,
                    const char* fileName, char* buf, unsigned int bufLen, const char* defaultPath);

// One learnt peak: the resolution ("<width>x<height>" or "default") and the
// peak size in bytes.
struct TalMemResoluAlgoSize {
    std::string resolution;
    uint32_t algoSize;
};

// Entries are equal when both fields are; whole tables then compare with ==.
inline bool operator==(const TalMemResoluAlgoSize& a, const TalMemResoluAlgoSize& b)
{
    return a.resolution == b.resolution && a.algoSize == b.algoSize;
}

// Algorithm name -> its learnt peaks in the order read or learnt. A list of
// two or more entries never holds a "default" entry.
using TalAlgoSizeList = std::list<TalMemResoluAlgoSize>;
using TalAlgoPeakMap = std::map<std::string, TalAlgoSizeList>;

class TalMemConfig {
public:
    // Returns the device's total memory in KiB, or -1 when it cannot be read.
    using TotalMemoryProbe = int (*)();

    static constexpr int32_t kDefaultAlgoSizeLimit = 471859200; // 450 MiB
    static constexpr int32_t kMaxAlgoSizeLimit = 524288000;     // 500 MiB
    static constexpr int32_t kMaxBasePoolSize = 0xC800000;      // 200 MiB
    static constexpr int32_t kDefaultPrevRatioLimit = 75;
    static constexpr int32_t kMinPrevRatioLimit = 20;
    static constexpr int32_t kMaxPrevRatioLimit = 100;
    static constexpr int32_t kDefaultMultiPoolSize = 0xDC00000; // 220 MiB
    static constexpr int32_t kMinMultiPoolSize = 0x6400000;     // 100 MiB
    static constexpr int32_t kMaxMultiPoolSize = 0xFA00000;     // 250 MiB
    static constexpr int kSmallMemoryKb = 0x400000;             // 4 GiB

    TalMemConfig();

    // Configuration record. allocateType is 1 when the pool configuration is
    // in force; sizes in bytes, prevRatioLimit in percent.
    int32_t allocateType;
    int32_t basePoolSize;
    int32_t algoSizeLimit;
    int32_t prevRatioLimit;
    int32_t multiPoolSize;

    // Chooses the configuration (the learnt filter file first, then the
    // small-memory or normal device file) and loads it into the record and
    // `algoPeakMap`. 0 on success, -1 when no file could be loaded (the record
    // keeps what was read so far). `totalMemoryKb` is the memory probe.
    int LoadAlgoPeakMem(TalAlgoPeakMap& algoPeakMap,
                        TotalMemoryProbe totalMemoryKb = &MemUtils::getTotalMemory);
    // Writes the record and `algoPeakMap` to the filter file, replacing the
    // previous one atomically. 0 on success, -1 on failure (old file intact).
    int UploadAlgoPeakMem(const TalAlgoPeakMap& algoPeakMap);
    // Deletes the temporaries that a writer ended mid-way (a killed process)
    // left beside the filter file, logging each one; the filter file itself is
    // never touched. Called before the filter file is read.
    static void RemoveFilterTemporaries();

    // Loads one configuration file; algorithm entries are merged into
    // `algoPeakMap`. 0 or -1.
    int LoadTalMemConfig(std::string fileName, TalAlgoPeakMap& algoPeakMap);

    // Reader steps, 0 on success or -1 with their log line.
    int CheckElementName(const tinyxml2::XMLElement* element, const char* name);
    int CheckElementValue(const tinyxml2::XMLElement* element, unsigned int maxLen);
    int CheckFixedElement(const tinyxml2::XMLElement* element, const char* name,
                          unsigned int maxLen, int& out, int min, int max);
    int CheckValueRange(int value, int min, int max);
    int CheckAttribute(const tinyxml2::XMLAttribute* attribute, const char* name,
                       unsigned int maxLen);
    int CheckAllocateType(const std::string& fileName, int type);
    int LoadVariableElement(const tinyxml2::XMLElement* element, TalAlgoPeakMap& algoPeakMap);
    // The element after "MultiPoolSize" (or `element` itself when it is not
    // "MultiPoolSize"); null on failure.
    const tinyxml2::XMLElement* LoadMultiPoolSize(const tinyxml2::XMLElement* element);

    int ParseAlgoInfo(const tinyxml2::XMLElement* element, TalAlgoPeakMap& algoPeakMap);
    int ParseAlgoSize(const tinyxml2::XMLAttribute* attribute, TalAlgoSizeList& list, int& count);
    int CheckAlgoSize(const tinyxml2::XMLAttribute* attribute, unsigned int& size);
    int CheckResolutionFormat(const tinyxml2::XMLAttribute* attribute);
    int CheckDefaultResolution(std::string algoName, const TalAlgoPeakMap& algoPeakMap);

    // Writer steps.
    int AddBaseElement(tinyxml2::XMLElement* root, tinyxml2::XMLDocument& doc);
    int AddAlgoPeakSizeElement(tinyxml2::XMLElement* root, tinyxml2::XMLDocument& doc,
                               const TalAlgoPeakMap& algoPeakMap);
    tinyxml2::XMLElement* CreateElement(std::string name, std::string text,
                                        tinyxml2::XMLDocument& doc);
    void SetAttributeWithOrder(tinyxml2::XMLElement* element, const char* name, int index,
                               const char* value);

private:
    // Loads the learnt filter file: 0 loaded, -1 present but not loadable,
    // 1 absent or unreadable.
    int LoadFilterFile(TalAlgoPeakMap& algoPeakMap);
    struct LimitRule;
    // Reads one optional limit element when `element` is the one named by
    // `limit` and moves `element` past it; -1 only for an over-long or empty
    // text. Lines are logged under the name `func`.
    int LoadOptionalLimit(const char* func, const tinyxml2::XMLElement*& element,
                          const LimitRule& limit, int32_t& out);
};

} // namespace qv

#endif // TALMEM_CONFIG_TALMEMCONFIG_H
