// Reading of the algorithm elements into the peak-size table.

// One concern of TalMemConfig: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemConfig.cpp"

#include "config/TalMemConfig.h"

#include <tinyxml2.h>

#include <cstring>

#include "common/TalLog.h"
#include "securec.h"

namespace qv {

using tinyxml2::XMLAttribute;
using tinyxml2::XMLElement;

namespace {

constexpr unsigned int kAlgoNameMaxLen = 30;
constexpr unsigned int kAlgoValueMaxLen = 9;
constexpr unsigned int kResolutionMaxLen = 20;
// More pairs than this per element are kept but reported.
constexpr int kMaxPairsReported = 2;

// "value"/"resolution" for the first pair of an element, then "value1" ...
std::string PairAttributeName(const char* base, int count)
{
    return count == 0 ? std::string(base) : std::string(base) + std::to_string(count);
}

} // namespace

int TalMemConfig::ParseAlgoInfo(const XMLElement* element, TalAlgoPeakMap& algoPeakMap)
{
    if (element == nullptr) {
        TAL_LOGE("%s algo XMLElement is invalid!\n", __func__);
        return -1;
    }
    for (const XMLElement* cur = element; cur != nullptr; cur = cur->NextSiblingElement()) {
        const XMLAttribute* nameAttr = cur->FirstAttribute();
        if (CheckAttribute(nameAttr, "name", kAlgoNameMaxLen) != 0) {
            TAL_LOGE("%s check attribute name fail!\n", __func__);
            return -1;
        }
        TAL_LOGD("%s=[%s]\n", nameAttr->Name(), nameAttr->Value());
        TalAlgoSizeList list;
        int count = 0;
        if (ParseAlgoSize(nameAttr->Next(), list, count) != 0) {
            TAL_LOGE("%s parse Algo Size fail!\n", __func__);
            return -1;
        }
        if (count == 0) {
            TAL_LOGW("talmempoolcfg %s algolist is NULL\n", __func__);
            continue;
        }
        // Several elements may carry one algorithm: their entries are merged in order.
        const std::string algoName = nameAttr->Value();
        TalAlgoSizeList& entries = algoPeakMap[algoName];
        entries.splice(entries.end(), list);
        if (CheckDefaultResolution(algoName, algoPeakMap) != 0) {
            TAL_LOGE("talmempoolcfg %s deafult resolution contains more than one algoSize!\n",
                     __func__);
            return -1;
        }
    }
    return 0;
}

int TalMemConfig::ParseAlgoSize(const XMLAttribute* attribute, TalAlgoSizeList& list, int& count)
{
    while (attribute != nullptr) {
        const std::string valueName = PairAttributeName("value", count);
        const std::string resolutionName = PairAttributeName("resolution", count);
        if (CheckAttribute(attribute, valueName.c_str(), kAlgoValueMaxLen) != 0) {
            TAL_LOGE("%s check attribute value fail!\n", __func__);
            return -1;
        }
        TAL_LOGD("%s=[%s]\n", attribute->Name(), attribute->Value());
        unsigned int size = 0;
        if (CheckAlgoSize(attribute, size) != 0) {
            TAL_LOGE("%s check algo size fail!\n", __func__);
            return -1;
        }
        // Only the last pair of an element may leave its resolution out.
        std::string resolution = kTalCfgDefaultResolution;
        attribute = attribute->Next();
        if (attribute != nullptr) {
            if (CheckAttribute(attribute, resolutionName.c_str(), kResolutionMaxLen) != 0) {
                TAL_LOGE("%s check attribute resolution fail!\n", __func__);
                return -1;
            }
            resolution = attribute->Value();
            TAL_LOGD("%s=[%s]\n", attribute->Name(), attribute->Value());
            if (CheckResolutionFormat(attribute) != 0) {
                TAL_LOGE("talmempoolcfg %s resolution format error!\n", __func__);
                return -1;
            }
            attribute = attribute->Next();
        }
        list.push_back({resolution, size});
        if (count > kMaxPairsReported) {
            TAL_LOGW("talmempoolcfg %s resolution num:%d exceeds the limit:%d\n", __func__, count,
                     kMaxPairsReported);
        }
        ++count;
    }
    return 0;
}

int TalMemConfig::CheckAlgoSize(const XMLAttribute* attribute, unsigned int& size)
{
    if (attribute == nullptr) {
        TAL_LOGE("%s parameter is invalid!\n", __func__);
        return -1;
    }
    int value = 0;
    if (attribute->QueryIntValue(&value) != tinyxml2::XML_SUCCESS) {
        TAL_LOGE("%s algosize is not integer! %s  %s\n", __func__, attribute->Name(),
                 attribute->Value());
        return -1;
    }
    if (value > algoSizeLimit) {
        TAL_LOGE("%s algosize:%d exceeds limit:%d, set default!\n", __func__, value,
                 algoSizeLimit);
        size = static_cast<unsigned int>(algoSizeLimit);
        return 0;
    }
    if (value < 0) {
        TAL_LOGE("%s algosize:%d is lower than limit:%d\n", __func__, value, 0);
        return -1;
    }
    size = static_cast<unsigned int>(value);
    return 0;
}

int TalMemConfig::CheckResolutionFormat(const XMLAttribute* attribute)
{
    if (attribute == nullptr || attribute->Value() == nullptr) {
        TAL_LOGE("talmempoolcfg %s input error!\n", __func__);
        return -1;
    }
    int width = 0;
    int height = 0;
    // Characters after the height ("1920x1080p") are allowed.
    int ret = sscanf_s(attribute->Value(), "%dx%d", &width, &height);
    if (ret == 2 && width >= 1 && height >= 1) {
        return 0;
    }
    TAL_LOGE("talmempoolcfg %s resolution format error! str=%s width=%d height=%d ret=%d\n",
             __func__, attribute->Value(), width, height, ret);
    return -1;
}

int TalMemConfig::CheckDefaultResolution(std::string algoName, const TalAlgoPeakMap& algoPeakMap)
{
    auto it = algoPeakMap.find(algoName);
    if (it == algoPeakMap.end() || it->second.size() < 2) {
        return 0;
    }
    for (const TalMemResoluAlgoSize& entry : it->second) {
        if (entry.resolution == kTalCfgDefaultResolution) {
            TAL_LOGE("%s algoName:%s deafult resolution, but size is %zu\n", __func__,
                     algoName.c_str(), it->second.size());
            return -1;
        }
    }
    return 0;
}

} // namespace qv
