// Location of the configuration files and the choice of the file to load.

// One concern of TalMemConfig: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemConfig.cpp"

#include "config/TalMemConfig.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "common/TalLog.h"
#include "securec.h"
#include "talmem_platform.h"

namespace qv {

namespace {

constexpr unsigned int kCfgPathBufLen = 256;
constexpr size_t kMaxRealPathLen = 4096;
static_assert(PATH_MAX <= kMaxRealPathLen, "realpath needs PATH_MAX bytes");

bool PathExists(const char* path)
{
    return access(path, F_OK) == 0;
}

// The small-memory file on a device of at most 4 GiB (or when the probe
// fails and reports -1), else or when it is absent the normal file.
char* FindDeviceCfgFile(char* buf, unsigned int bufLen, TalMemConfig::TotalMemoryProbe probe)
{
    const std::string dir1 = TalCfgPriorityDir1Path();
    const std::string dir2 = TalCfgDeviceDirPath();
    int totalKb = probe != nullptr ? probe() : -1;
    if (totalKb <= TalMemConfig::kSmallMemoryKb) {
        char* path = GetOneCfgFile(dir1.c_str(), dir2.c_str(), nullptr, kTalCfgRam4gFileName, buf,
                                   bufLen, nullptr);
        if (path != nullptr) {
            return path;
        }
    }
    return GetOneCfgFile(dir1.c_str(), dir2.c_str(), nullptr, kTalCfgFileName, buf, bufLen,
                         nullptr);
}

} // namespace

std::string TalCfgFilterFilePath()
{
    return TalDevicePath(kTalCfgWritableDir) + kTalCfgFilterFileName;
}

std::string TalCfgDeviceDirPath()
{
    return TalDevicePath(kTalCfgDeviceDir);
}

std::string TalCfgPriorityDir1Path()
{
    return TalCfgDeviceDirPath() + kTalCfgPriorityDirSuffix;
}

char* GetOneCfgFile(const char* priorityDir1, const char* priorityDir2, const char* extendDir,
                    const char* fileName, char* buf, unsigned int bufLen, const char* defaultPath)
{
    if (fileName == nullptr || bufLen == 0) {
        TAL_LOGE("%s() fileName or bufLen is invalid\n", __func__);
        return nullptr;
    }
    if (priorityDir1 == nullptr && priorityDir2 == nullptr) {
        TAL_LOGE("%s() PriorityDir NULL\n", __func__);
        return nullptr;
    }
    // A null first directory ends the search: the second is only a fallback.
    for (const char* dir : {priorityDir1, priorityDir2}) {
        if (dir == nullptr) {
            break;
        }
        if (extendDir != nullptr && extendDir[0] != '\0') {
            if (snprintf_s(buf, bufLen, bufLen - 1, "%s%s/%s", dir, extendDir, fileName) < 0) {
                TAL_LOGE_RAW("%s %s snprintf_s failed", __func__,
                             "snprintf_s(buf, bufLen, bufLen - 1, \"%s%s/%s\", dir, extendDir, "
                             "fileName)");
            }
            if (PathExists(buf)) {
                return buf;
            }
        }
        if (snprintf_s(buf, bufLen, bufLen - 1, "%s%s", dir, fileName) < 0) {
            TAL_LOGE_RAW("%s %s snprintf_s failed", __func__,
                         "snprintf_s(buf, bufLen, bufLen - 1, \"%s%s\", dir, fileName)");
        }
        if (PathExists(buf)) {
            return buf;
        }
    }
    if (defaultPath == nullptr) {
        return nullptr;
    }
    if (snprintf_s(buf, bufLen, bufLen - 1, "%s%s", defaultPath, fileName) < 0) {
        TAL_LOGE_RAW("%s %s snprintf_s failed", __func__,
                     "snprintf_s(buf, bufLen, bufLen - 1, \"%s%s\", defaultPath, fileName)");
    }
    TAL_LOGI("%s() not found, use default\n", __func__);
    return buf;
}

int TalMemConfig::LoadFilterFile(TalAlgoPeakMap& algoPeakMap)
{
    const std::string filterFile = TalCfgFilterFilePath();
    FILE* fp = fopen(filterFile.c_str(), "r");
    if (fp == nullptr) {
        return 1; // nothing learnt yet: the usual case on a first start
    }
    fclose(fp);
    return LoadTalMemConfig(filterFile, algoPeakMap);
}

int TalMemConfig::LoadAlgoPeakMem(TalAlgoPeakMap& algoPeakMap, TotalMemoryProbe totalMemoryKb)
{
    int filter = LoadFilterFile(algoPeakMap);
    if (filter == 0) {
        TAL_LOGD("%s LoadAlgoPeakMem cfg_filter success\n", __func__);
        return 0;
    }
    if (filter < 0) {
        // A broken learnt file must not leave half a table behind.
        algoPeakMap.clear();
        TAL_LOGE("%s loadTalMemConfig cfg_filter error\n", __func__);
    }
    char buf[kCfgPathBufLen] = {};
    const char* path = FindDeviceCfgFile(buf, sizeof(buf), totalMemoryKb);
    if (path == nullptr) {
        TAL_LOGE("%s talmempoolcfg path is NULL\n", __func__);
        return -1;
    }
    TAL_LOGI("%s talmempoolcfg path is %s\n", __func__, path);
    char realPath[kMaxRealPathLen] = {};
    if (strlen(path) > kMaxRealPathLen || realpath(path, realPath) == nullptr) {
        TAL_LOGE("%s get talmempoolcfg path error\n", __func__);
        return -1;
    }
    FILE* fp = fopen(realPath, "r");
    if (fp == nullptr) {
        TAL_LOGE("%s fopen talmempoolcfg error\n", __func__);
        return -1;
    }
    fclose(fp);
    if (LoadTalMemConfig(realPath, algoPeakMap) != 0) {
        TAL_LOGE("%s loadTalMemConfig tal_mem_config error\n", __func__);
        return -1;
    }
    return 0;
}

} // namespace qv
