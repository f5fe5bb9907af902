// Probes of the device's memory (/proc/meminfo, /proc/ddr_info) and of the
// own process (memtrack, /proc/<pid>/smaps), in kilobytes.

#include "monitor/MemUtils.h"

#include <fcntl.h>
#include <unistd.h>

#include <utils/Mutex.h>

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/TalLog.h"
#include "memtrack.h"
#include "securec.h"

namespace qv {
namespace {

// Serialises the four public probes; lives for the whole process.
android::Mutex gMemUtilsLock;

static constexpr size_t kMeminfoBufSize = 1024;
static constexpr int kLineBufSize = 256;
static constexpr int kSmapsLineSize = 1024;
static constexpr int kMatchesToRead = 3;
static constexpr int64_t kGiBInKB = 0x100000;

const char* SkipBlanks(const char* p)
{
    while (*p == ' ' || *p == '\t') {
        ++p;
    }
    return p;
}

const char* FirstDigit(const char* p)
{
    while (*p != '\0' && !isdigit(static_cast<unsigned char>(*p))) {
        ++p;
    }
    return p;
}

// Digits up to the first non-digit, as the 64-bit value they spell.
uint64_t ReadDigits64(const char* p)
{
    uint64_t value = 0;
    for (; isdigit(static_cast<unsigned char>(*p)); ++p) {
        value = value * 10 + static_cast<uint64_t>(*p - '0');
    }
    return value;
}

// The same as an int, held at INT_MAX instead of overflowing.
int ReadDigitsInt(const char* p)
{
    int64_t value = 0;
    for (; isdigit(static_cast<unsigned char>(*p)); ++p) {
        value = value * 10 + (*p - '0');
        if (value > INT_MAX) {
            return INT_MAX;
        }
    }
    return static_cast<int>(value);
}

// graphics + gl + other of the own process, 0 when memtrack fails. `caller`
// names the probe in the message of a failing clear.
unsigned int GraphicsSum(const char* caller)
{
    graphics_memory_pss graphics_mem;
    if (memset_s(&graphics_mem, sizeof(graphics_mem), 0, sizeof(struct graphics_memory_pss)) != 0) {
        TAL_LOGE_FOR(caller, "%s %s failed", caller,
                 "memset_s(&graphics_mem, sizeof(graphics_mem), 0, sizeof(struct graphics_memory_pss))");
    }
    if (read_memtrack_memory_(getpid(), &graphics_mem) != 0) {
        return 0;
    }
    return graphics_mem.graphics + graphics_mem.gl + graphics_mem.other;
}

// One memtrack pss query of read_memtrack_memory_, which its failure line
// names: stores value >> 10 (bytes to KB) or logs `what`.
bool ReadPss(ssize_t value, const char* what, unsigned int* out, int* result)
{
    if (value < 0) {
        TAL_LOGW_FOR("read_memtrack_memory_", "failed to get %s pss: %d\n", what,
                     static_cast<int>(value));
        *result = static_cast<int>(value);
        return false;
    }
    *out = static_cast<unsigned int>(value >> 10);
    return true;
}

} // namespace

int read_memtrack_memory_(int pid, graphics_memory_pss* out)
{
    memtrack_proc* p = memtrack_proc_new();
    if (p == nullptr) {
        TAL_LOGW("failed to create memtrack_proc\n");
        return -1;
    }
    int result = memtrack_proc_get(p, pid);
    if (result != 0) {
        TAL_LOGW("failed to get memory consumption info: %d\n", result);
        memtrack_proc_destroy(p);
        return result;
    }
    if (ReadPss(memtrack_proc_graphics_pss(p), "graphics", &out->graphics, &result) &&
        ReadPss(memtrack_proc_gl_pss(p), "gl", &out->gl, &result)) {
        ReadPss(memtrack_proc_other_pss(p), "other", &out->other, &result);
    }
    memtrack_proc_destroy(p);
    return result;
}

unsigned int MemUtils::parseFreeMemory(const char* text)
{
    static constexpr const char* kKeys[] = {"MemFree:", "Cached:"};
    uint64_t slots[2] = {0, 0};
    int matches = 0;
    for (const char* line = text; line != nullptr && *line != '\0' && matches < kMatchesToRead;) {
        for (int k = 0; k < 2; ++k) {
            size_t keyLen = strlen(kKeys[k]);
            if (strncmp(line, kKeys[k], keyLen) == 0) {
                slots[k] = ReadDigits64(SkipBlanks(line + keyLen));
                ++matches;
                break;
            }
        }
        line = strchr(line, '\n');
        if (line != nullptr) {
            ++line;
        }
    }
    return static_cast<unsigned int>(slots[0] + slots[1]);
}

int MemUtils::parseTotalMemory(const char* firstLine)
{
    int64_t n = ReadDigitsInt(FirstDigit(firstLine));
    // The full GiB is added, so a whole number of GiB gains one more; this is
    // deliberate and kept. The result wraps like 32-bit signed arithmetic.
    int64_t gib = (n + kGiBInKB) / kGiBInKB;
    return static_cast<int>(static_cast<uint32_t>(gib << 20));
}

int MemUtils::readLastLine(FILE* fp, char* buffer, int size)
{
    while (fgets(buffer, size, fp) != nullptr) {
    }
    return static_cast<int>(strlen(buffer));
}

int MemUtils::parseDdrInfoLine(char* line)
{
    int len = static_cast<int>(strlen(line));
    if (len <= 3) {
        return -1;
    }
    // The kernel writes the size as "<n>GB\n": the digit sits four places
    // from the end. Only that one digit is read.
    line[len - 3] = '\0';
    return atoi(line + len - 4) << 20;
}

int MemUtils::sumPssLines(FILE* fp)
{
    char line[kSmapsLineSize];
    unsigned int total = 0;
    while (fgets(line, sizeof(line), fp) != nullptr) {
        if (strncmp(line, "Pss:", 4) == 0) {
            total += static_cast<unsigned int>(ReadDigitsInt(FirstDigit(line)));
        }
    }
    return static_cast<int>(total);
}

unsigned int MemUtils::getFreeMemorySize()
{
    android::AutoMutex _l(gMemUtilsLock);
    int fd = open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        TAL_LOGW("Unable to open /proc/meminfo\n");
        return 0;
    }
    char buffer[kMeminfoBufSize] = {0};
    ssize_t len = read(fd, buffer, sizeof(buffer) - 1);
    close(fd);
    if (len < 0) {
        TAL_LOGW("Empty /proc/meminfo\n");
        return 0;
    }
    if (len == 0) {
        return 0;
    }
    buffer[len] = '\0';
    return parseFreeMemory(buffer);
}

int MemUtils::getTotalMemory()
{
    android::AutoMutex _l(gMemUtilsLock);
    int ddr = getTotalMemoryFromDDRInfo();
    if (ddr > 0) {
        return ddr;
    }
    // Relative path, without the leading slash: it has always been read this
    // way and is kept as it stands.
    FILE* fp = fopen("proc/meminfo", "re");
    if (fp == nullptr) {
        TAL_LOGE("failed to Open proc/meminfo\n\n");
        return -1;
    }
    char line[kLineBufSize] = {0};
    if (fgets(line, sizeof(line), fp) == nullptr) {
        line[0] = '\0';
    }
    fclose(fp);
    return parseTotalMemory(line);
}

int MemUtils::getTotalMemoryFromDDRInfo()
{
    char buffer[kLineBufSize];
    if (memset_s(buffer, sizeof(buffer), 0x00, sizeof(buffer)) != 0) {
        TAL_LOGE("%s %s failed", __func__, "memset_s(buffer, sizeof(buffer), 0x00, sizeof(buffer))");
    }
    FILE* fp = fopen("/proc/ddr_info", "re");
    if (fp == nullptr) {
        TAL_LOGE("failed to open proc/ddr_info\n\n");
        return -1;
    }
    int len = readLastLine(fp, buffer, sizeof(buffer));
    fclose(fp);
    if (len <= 3) {
        TAL_LOGE("%s, buffer len[%d] is less than 4!!\n", __func__, len);
        return -1;
    }
    return parseDdrInfoLine(buffer);
}

unsigned int MemUtils::countGraphicMem()
{
    android::AutoMutex _l(gMemUtilsLock);
    return GraphicsSum(__func__);
}

int MemUtils::countPss()
{
    android::AutoMutex _l(gMemUtilsLock);
    int total = static_cast<int>(GraphicsSum(__func__));
    char tmp[128] = {0};
    int pid = getpid();
    if (snprintf_s(tmp, sizeof(tmp), sizeof(tmp) - 1, "/proc/%d/smaps", pid) < 0) {
        TAL_LOGE("%s %s snprintf_s failed", __func__,
                 "snprintf_s(tmp, sizeof(tmp), sizeof(tmp) - 1, \"/proc/%d/smaps\", pid)");
    }
    FILE* fp = fopen(tmp, "re");
    if (fp != nullptr) {
        total = static_cast<int>(static_cast<unsigned int>(total) +
                                 static_cast<unsigned int>(sumPssLines(fp)));
        fclose(fp);
    }
    return total;
}

} // namespace qv
