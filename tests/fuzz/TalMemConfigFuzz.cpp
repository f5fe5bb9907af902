// libFuzzer target: arbitrary bytes as the device configuration file and as
// the learnt filter file. Besides crashes, leaks and sanitizer reports it
// traps on broken invariants: a loaded table never holds "default" in a list
// of two or more, no size exceeds the limit, a loaded configuration written
// back reads back identically, and a broken filter file never prevents a
// valid device file from loading.

#include <sys/stat.h>
#include <unistd.h>

#include <android/log.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/TalMemConfig.h"

namespace {

std::string gRoot;

const char kDeviceXml[] =
    "<TalMemPoolConfig>list algorithm peak size<AllocType>1</AllocType>"
    "<BasePoolSize>104857600</BasePoolSize><AlgoSizeLimit>471859200</AlgoSizeLimit>"
    "<PrevRatioLimit>75</PrevRatioLimit><MultiPoolSize>230686720</MultiPoolSize>"
    "<Algo name=\"deviceAlgo\" value=\"1048576\" resolution=\"4096x3072\"/></TalMemPoolConfig>";

void Check(bool ok, const char* what)
{
    if (!ok) {
        fprintf(stderr, "invariant broken: %s\n", what);
        __builtin_trap();
    }
}

int Probe8G() { return 8 * 1024 * 1024; }

void NoLog(const struct __android_logger_data*, const char*) {}

std::string CfgPath() { return gRoot + "/odm/etc/camera/talmempoolcfg.xml"; }
std::string FilterPath() { return gRoot + "/data/vendor/camera/talmempoolfilter.xml"; }

void WriteBytes(const std::string& path, const uint8_t* data, size_t size)
{
    FILE* fp = fopen(path.c_str(), "wb");
    Check(fp != nullptr, "scratch file opens");
    if (size > 0) {
        Check(fwrite(data, 1, size, fp) == size, "scratch file written");
    }
    fclose(fp);
}

void CheckTable(const qv::TalMemConfig& config, const qv::TalAlgoPeakMap& table)
{
    for (const auto& algo : table) {
        Check(!algo.second.empty(), "no empty list is inserted");
        for (const auto& entry : algo.second) {
            Check(entry.algoSize <= static_cast<uint32_t>(config.algoSizeLimit), "size capped");
            Check(algo.second.size() < 2 || entry.resolution != "default", "default stands alone");
        }
    }
}

// The parser turns a carriage return into a line feed, so texts holding one
// cannot come back unchanged; everything else must.
bool HasCarriageReturn(const qv::TalAlgoPeakMap& table)
{
    for (const auto& algo : table) {
        if (algo.first.find('\r') != std::string::npos) {
            return true;
        }
        for (const auto& entry : algo.second) {
            if (entry.resolution.find('\r') != std::string::npos) {
                return true;
            }
        }
    }
    return false;
}

void FuzzDeviceFile(const uint8_t* data, size_t size)
{
    unlink(FilterPath().c_str());
    WriteBytes(CfgPath(), data, size);
    qv::TalMemConfig config;
    qv::TalAlgoPeakMap table;
    if (config.LoadAlgoPeakMem(table, &Probe8G) != 0) {
        return;
    }
    CheckTable(config, table);
    if (config.allocateType != 1 || table.empty() || HasCarriageReturn(table)) {
        return;
    }
    Check(config.UploadAlgoPeakMem(table) == 0, "upload succeeds");
    qv::TalMemConfig back;
    qv::TalAlgoPeakMap backTable;
    Check(back.LoadTalMemConfig(FilterPath(), backTable) == 0, "written file reads back");
    Check(table == backTable, "table round-trips");
    Check(back.basePoolSize == config.basePoolSize && back.algoSizeLimit == config.algoSizeLimit &&
              back.prevRatioLimit == config.prevRatioLimit &&
              back.multiPoolSize == config.multiPoolSize,
          "record round-trips");
}

void FuzzFilterFile(const uint8_t* data, size_t size)
{
    WriteBytes(CfgPath(), reinterpret_cast<const uint8_t*>(kDeviceXml), sizeof(kDeviceXml) - 1);
    WriteBytes(FilterPath(), data, size);
    qv::TalMemConfig config;
    qv::TalAlgoPeakMap table;
    Check(config.LoadAlgoPeakMem(table, &Probe8G) == 0, "device file backs a broken filter file");
    CheckTable(config, table);
}

// The scratch root lives in shared memory: leave nothing behind at exit.
void RemoveScratchRoot()
{
    unlink(CfgPath().c_str());
    unlink(FilterPath().c_str());
    for (const char* dir : {"/odm/etc/camera", "/odm/etc", "/odm", "/data/vendor/camera",
                            "/data/vendor", "/data", ""}) {
        rmdir((gRoot + dir).c_str());
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    __android_log_set_logger(NoLog);
    const char* shm = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(shm) + "/talmem-fuzz-XXXXXX";
    Check(mkdtemp(&pattern[0]) != nullptr, "scratch root");
    gRoot = pattern;
    for (const char* dir : {"/odm", "/odm/etc", "/odm/etc/camera", "/data", "/data/vendor",
                            "/data/vendor/camera"}) {
        mkdir((gRoot + dir).c_str(), 0755);
    }
    setenv("TALMEM_ROOT", gRoot.c_str(), 1);
    atexit(RemoveScratchRoot);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzDeviceFile(data, size);
    FuzzFilterFile(data, size);
    return 0;
}
