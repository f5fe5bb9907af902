// Host system properties: a `key=value` file named by TALMEM_PROPERTIES, with
// in-process overrides for tests and tools.

#include "talmem_properties.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace {

std::mutex& OverrideLock()
{
    static std::mutex lock;
    return lock;
}

std::map<std::string, std::string>& Overrides()
{
    static std::map<std::string, std::string> values;
    return values;
}

std::string Trim(const std::string& text)
{
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return "";
    }
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

// Looks `key` up in the properties file; the last line that sets it wins.
bool ReadFromFile(const char* key, std::string& out)
{
    const char* path = getenv("TALMEM_PROPERTIES");
    if (path == nullptr || path[0] == '\0') {
        return false;
    }
    FILE* fp = fopen(path, "re");
    if (fp == nullptr) {
        return false;
    }
    bool found = false;
    char line[1024];
    while (fgets(line, sizeof(line), fp) != nullptr) {
        std::string text = Trim(line);
        if (text.empty() || text[0] == '#') {
            continue;
        }
        size_t eq = text.find('=');
        if (eq != std::string::npos && Trim(text.substr(0, eq)) == key) {
            out = Trim(text.substr(eq + 1));
            found = true;
        }
    }
    fclose(fp);
    return found;
}

} // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value)
{
    if (value == nullptr) {
        return 0;
    }
    std::string result;
    bool found = false;
    if (key != nullptr) {
        std::lock_guard<std::mutex> guard(OverrideLock());
        auto it = Overrides().find(key);
        if (it != Overrides().end()) {
            result = it->second;
            found = true;
        }
    }
    if (!found && key != nullptr) {
        found = ReadFromFile(key, result);
    }
    if (!found) {
        result = (default_value != nullptr) ? default_value : "";
    }
    size_t len = result.size() < PROPERTY_VALUE_MAX - 1 ? result.size() : PROPERTY_VALUE_MAX - 1;
    memcpy(value, result.data(), len);
    value[len] = '\0';
    return static_cast<int>(len);
}

void TalHostSetProperty(const char* key, const char* value)
{
    if (key == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> guard(OverrideLock());
    if (value == nullptr) {
        Overrides().erase(key);
    } else {
        Overrides()[key] = value;
    }
}

void TalHostClearProperties()
{
    std::lock_guard<std::mutex> guard(OverrideLock());
    Overrides().clear();
}
