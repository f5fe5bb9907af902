#ifndef TALMEM_TOOLS_SIM_JSONCHECK_H
#define TALMEM_TOOLS_SIM_JSONCHECK_H

// Checked reading of a JSON document: every error names the file, the field
// (as a path like sessions[2].captures[0].frames) and what was expected.

#include <cstdint>
#include <initializer_list>
#include <string>

#include <nlohmann/json.hpp>

#include "SimCall.h"

namespace talsim {

class JsonField {
public:
    JsonField(const nlohmann::json& value, std::string file, std::string path)
        : mValue(value), mFile(std::move(file)), mPath(std::move(path))
    {
    }

    [[noreturn]] void Fail(const std::string& expected) const
    {
        throw InputError(mFile + ": " + (mPath.empty() ? "(top level)" : mPath) + ": expected " +
                         expected);
    }

    // An object whose keys are all among `known`.
    const JsonField& Object(std::initializer_list<const char*> known) const
    {
        if (!mValue.is_object()) {
            Fail("an object");
        }
        for (auto it = mValue.begin(); it != mValue.end(); ++it) {
            bool found = false;
            for (const char* k : known) {
                found = found || it.key() == k;
            }
            if (!found) {
                JsonField(it.value(), mFile, Child(it.key())).Fail("no such field (unknown field)");
            }
        }
        return *this;
    }

    bool Has(const char* key) const { return mValue.is_object() && mValue.contains(key); }
    JsonField At(const char* key) const
    {
        if (!Has(key)) {
            JsonField(mValue, mFile, Child(key)).Fail("this field (it is missing)");
        }
        return JsonField(mValue.at(key), mFile, Child(key));
    }
    size_t Size() const
    {
        if (!mValue.is_array()) {
            Fail("an array");
        }
        return mValue.size();
    }
    JsonField Item(size_t i) const
    {
        return JsonField(mValue.at(i), mFile, mPath + "[" + std::to_string(i) + "]");
    }

    int64_t Int(int64_t min, int64_t max) const
    {
        if (!mValue.is_number_integer()) {
            Fail("an integer from " + std::to_string(min) + " to " + std::to_string(max));
        }
        const int64_t v = mValue.get<int64_t>();
        if (v < min || v > max) {
            Fail("an integer from " + std::to_string(min) + " to " + std::to_string(max) +
                 ", not " + std::to_string(v));
        }
        return v;
    }
    double Number(double min, double max) const
    {
        if (!mValue.is_number() || mValue.get<double>() < min || mValue.get<double>() > max) {
            Fail("a number from " + std::to_string(min) + " to " + std::to_string(max));
        }
        return mValue.get<double>();
    }
    std::string Text() const
    {
        if (!mValue.is_string() || mValue.get<std::string>().empty()) {
            Fail("a non-empty string");
        }
        return mValue.get<std::string>();
    }
    bool Bool() const
    {
        if (!mValue.is_boolean()) {
            Fail("true or false");
        }
        return mValue.get<bool>();
    }

    int64_t IntOr(const char* key, int64_t fallback, int64_t min, int64_t max) const
    {
        return Has(key) ? At(key).Int(min, max) : fallback;
    }

private:
    std::string Child(const std::string& key) const { return mPath.empty() ? key : mPath + "." + key; }

    const nlohmann::json& mValue;
    std::string mFile;
    std::string mPath;
};

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_JSONCHECK_H
