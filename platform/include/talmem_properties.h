#ifndef TALMEM_PLATFORM_PROPERTIES_H
#define TALMEM_PLATFORM_PROPERTIES_H

// System properties, with the signature and semantics of Android's
// property_get: copies the value of `key` (or default_value when unset) into
// `value` (PROPERTY_VALUE_MAX bytes) and returns its length.
//
// Host: values come from `key=value` lines of the file named by the
// environment variable TALMEM_PROPERTIES (read on each call); values set with
// TalHostSetProperty override the file.

#ifndef PROPERTY_VALUE_MAX
#define PROPERTY_VALUE_MAX 92
#endif
#ifndef PROPERTY_KEY_MAX
#define PROPERTY_KEY_MAX 32
#endif

extern "C" int property_get(const char* key, char* value, const char* default_value);

// Host-only helpers for tests and tools.
void TalHostSetProperty(const char* key, const char* value);
void TalHostClearProperties();

#endif // TALMEM_PLATFORM_PROPERTIES_H
