// Reading of the pool configuration file: the fixed elements, the optional
// limits and the hand-over of the allocate type.

// One concern of TalMemConfig: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemConfig.cpp"

#include "config/TalMemConfig.h"

#include <tinyxml2.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/TalLog.h"
#include "interface/QvaAlgoMemAllocatorManager.h"

namespace qv {

using tinyxml2::XMLAttribute;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace {

constexpr const char* kRootName = "TalMemPoolConfig";
constexpr unsigned int kRootTextMaxLen = 30;
constexpr unsigned int kAllocTypeMaxLen = 1;
constexpr unsigned int kSizeMaxLen = 9;
constexpr unsigned int kRatioMaxLen = 3;

// Leading decimal digits as an int, trailing characters ignored (the texts
// are at most 9 characters, so the value always fits).
int ParseDecimal(const char* text)
{
    long value = strtol(text, nullptr, 10);
    if (value > INT_MAX) {
        return INT_MAX;
    }
    return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

} // namespace

struct TalMemConfig::LimitRule {
    const char* element; // element name in the file
    const char* field;   // record field, as named in the range message
    unsigned int maxLen;
    int min;
    int max;
    int def;
};

TalMemConfig::TalMemConfig()
    : allocateType(0),
      basePoolSize(0),
      algoSizeLimit(kDefaultAlgoSizeLimit),
      prevRatioLimit(kDefaultPrevRatioLimit),
      multiPoolSize(kDefaultMultiPoolSize)
{
}

int TalMemConfig::LoadTalMemConfig(std::string fileName, TalAlgoPeakMap& algoPeakMap)
{
    TAL_LOGD("talmempoolcfg enter %s() fileName=%s\n", __func__, fileName.c_str());
    // Entities processed, whitespace preserved: texts are length-checked as written.
    XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
    if (doc.LoadFile(fileName.c_str()) != tinyxml2::XML_SUCCESS) {
        TAL_LOGE("talmempoolcfg LoadFile %s fail!\n", fileName.c_str());
        return -1;
    }
    const XMLElement* root = doc.RootElement();
    if (CheckElementName(root, kRootName) != 0 || CheckElementValue(root, kRootTextMaxLen) != 0) {
        return -1;
    }
    const XMLElement* child = root->FirstChildElement();
    if (child == nullptr) {
        TAL_LOGE("talmempoolcfg get allocateType fail!\n");
        return -1;
    }
    int type = 0;
    if (CheckFixedElement(child, "AllocType", kAllocTypeMaxLen, type, 0, 1) != 0 ||
        CheckAllocateType(fileName, type) != 0) {
        return -1;
    }
    if (type != 1) {
        return 0; // the pool configuration is not in force: nothing more to read
    }
    allocateType = 1;
    const XMLElement* base = child->NextSiblingElement();
    if (CheckFixedElement(base, "BasePoolSize", kSizeMaxLen, basePoolSize, 0, kMaxBasePoolSize) !=
        0) {
        return -1;
    }
    if (LoadVariableElement(base->NextSiblingElement(), algoPeakMap) != 0) {
        TAL_LOGE("%s load variable element or algo fail!\n", __func__);
        return -1;
    }
    return 0;
}

int TalMemConfig::CheckElementName(const XMLElement* element, const char* name)
{
    if (element == nullptr || name == nullptr || element->Name() == nullptr) {
        TAL_LOGE("%s parameter is invalid!\n", __func__);
        return -1;
    }
    if (strcmp(element->Name(), name) != 0) {
        TAL_LOGE("%s check XMLElement:%s fail! %s\n", __func__, name, element->Name());
        return -1;
    }
    return 0;
}

int TalMemConfig::CheckElementValue(const XMLElement* element, unsigned int maxLen)
{
    if (element == nullptr || element->GetText() == nullptr) {
        TAL_LOGE("%s parameter is invalid!\n", __func__);
        return -1;
    }
    const char* text = element->GetText();
    size_t len = strlen(text);
    if (len > maxLen) {
        TAL_LOGE("%s fail! value=%s len=%zu\n", __func__, text, len);
        return -1;
    }
    return 0;
}

int TalMemConfig::CheckFixedElement(const XMLElement* element, const char* name,
                                    unsigned int maxLen, int& out, int min, int max)
{
    if (CheckElementName(element, name) != 0 || CheckElementValue(element, maxLen) != 0) {
        TAL_LOGE("%s check %s fail!\n", __func__, name);
        return -1;
    }
    const char* text = element->GetText();
    out = ParseDecimal(text);
    TAL_LOGI("%s  %s %d\n", name, text, out);
    if (CheckValueRange(out, min, max) != 0) {
        TAL_LOGE("%s check %s value range fail!\n", __func__, name);
        return -1;
    }
    return 0;
}

int TalMemConfig::CheckValueRange(int value, int min, int max)
{
    if (value >= min && value <= max) {
        return 0;
    }
    TAL_LOGE("%s check limit fail! %d  %d  %d\n", __func__, value, min, max);
    return -1;
}

int TalMemConfig::CheckAttribute(const XMLAttribute* attribute, const char* name,
                                 unsigned int maxLen)
{
    if (attribute == nullptr || name == nullptr || attribute->Name() == nullptr ||
        attribute->Value() == nullptr) {
        TAL_LOGE("%s XMLAttribute is NULL!\n", __func__);
        return -1;
    }
    if (strcmp(attribute->Name(), name) != 0) {
        TAL_LOGE("%s check XMLAttribute:%s fail! %s\n", __func__, name, attribute->Name());
        return -1;
    }
    size_t len = strlen(attribute->Value());
    if (len > maxLen) {
        TAL_LOGE("%s check XMLAttribute:%s fail! len=%zu\n", __func__, name, len);
        return -1;
    }
    return 0;
}

int TalMemConfig::CheckAllocateType(const std::string& fileName, int type)
{
    // A learnt filter file is only ever written with the pool configuration in force.
    if (fileName == TalCfgFilterFilePath() && type != 1) {
        TAL_LOGE("get AllocType fail, fileName:%s, type:%d\n", fileName.c_str(), type);
        return -1;
    }
    QvaAlgoMemAllocatorManager::getSingleton()->setAlgoAllocatorType(
        static_cast<QvaAlgoMemAllocatorManager::AlgoAllocatorType>(type));
    return 0;
}

int TalMemConfig::LoadOptionalLimit(const char* func, const XMLElement*& element,
                                    const LimitRule& limit, int32_t& out)
{
    if (CheckElementName(element, limit.element) != 0) {
        TAL_LOGW_FOR(func, "%s %s is missing!\n", func, limit.element);
        return 0;
    }
    // An empty element has no text at all: refused like an over-long one.
    const char* text = element->GetText();
    if (text == nullptr || strlen(text) > limit.maxLen) {
        TAL_LOGE_FOR(func, "%s check %s fail!\n", func, limit.element);
        return -1;
    }
    out = ParseDecimal(text);
    TAL_LOGI_FOR(func, " %s  %s %d\n", limit.element, text, out);
    if (out < limit.min || out > limit.max) {
        TAL_LOGE_FOR(func, "%s %s:%d exceeds limit, set default!\n", func, limit.field, out);
        out = limit.def;
    }
    element = element->NextSiblingElement();
    return 0;
}

int TalMemConfig::LoadVariableElement(const XMLElement* element, TalAlgoPeakMap& algoPeakMap)
{
    static constexpr LimitRule kAlgoSizeLimit = {"AlgoSizeLimit", "algoSizeLimit", kSizeMaxLen,
                                                 0, kMaxAlgoSizeLimit, kDefaultAlgoSizeLimit};
    static constexpr LimitRule kPrevRatioLimit = {"PrevRatioLimit", "prevRatioLimit",
                                                  kRatioMaxLen, kMinPrevRatioLimit,
                                                  kMaxPrevRatioLimit, kDefaultPrevRatioLimit};
    const XMLElement* cur = element;
    if (LoadOptionalLimit(__func__, cur, kAlgoSizeLimit, algoSizeLimit) != 0 ||
        LoadOptionalLimit(__func__, cur, kPrevRatioLimit, prevRatioLimit) != 0) {
        return -1;
    }
    cur = LoadMultiPoolSize(cur);
    if (cur == nullptr) {
        return -1;
    }
    if (ParseAlgoInfo(cur, algoPeakMap) != 0) {
        TAL_LOGE("%s parse algo failed!\n", __func__);
        return -1;
    }
    return 0;
}

const XMLElement* TalMemConfig::LoadMultiPoolSize(const XMLElement* element)
{
    static constexpr LimitRule kMultiPoolSize = {"MultiPoolSize", "multiPoolSize", kSizeMaxLen,
                                                 kMinMultiPoolSize, kMaxMultiPoolSize,
                                                 kDefaultMultiPoolSize};
    const XMLElement* cur = element;
    if (LoadOptionalLimit(__func__, cur, kMultiPoolSize, multiPoolSize) != 0) {
        return nullptr;
    }
    // Null when the file ends after "MultiPoolSize": a file without algorithms.
    return cur;
}

} // namespace qv
