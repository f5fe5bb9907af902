// Host resolution of the device's fixed directories and the heap purge.

#include "talmem_platform.h"

#include <malloc.h>

#include <cstdlib>

namespace qv {

void TalPurgeHeap()
{
    malloc_trim(0);
}

std::string TalDevicePath(const std::string& fixedPath)
{
    const char* root = getenv("TALMEM_ROOT");
    if (root == nullptr || root[0] == '\0') {
        return fixedPath;
    }
    std::string prefix(root);
    while (!prefix.empty() && prefix.back() == '/') {
        prefix.pop_back();
    }
    return prefix + fixedPath;
}

} // namespace qv
