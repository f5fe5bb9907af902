#ifndef TALMEM_PLATFORM_TALMEM_PLATFORM_H
#define TALMEM_PLATFORM_TALMEM_PLATFORM_H

#include <string>

namespace qv {

// Asks the platform allocator to give free heap memory back to the system
// (mallopt(M_PURGE, 0) on a device, malloc_trim(0) on a host).
void TalPurgeHeap();

// Resolves one of the device's fixed directories ("/odm/etc/camera/",
// "/data/vendor/camera/"). Host: prefixed with $TALMEM_ROOT when that is set
// (a folder laid out like a device); otherwise returned unchanged.
std::string TalDevicePath(const std::string& fixedPath);

} // namespace qv

#endif // TALMEM_PLATFORM_TALMEM_PLATFORM_H
