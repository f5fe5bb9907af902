// The run's work folder (see Workspace.h).

#include "Workspace.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <tinyxml2.h>

#include "SimCall.h"
#include "talmem_properties.h"

namespace talsim {

namespace fs = std::filesystem;

namespace {

const char* const kConfigNames[] = {"talmempoolcfg.xml", "talmempoolcfg_ram4g.xml"};

void SetText(tinyxml2::XMLElement* root, const char* name, int64_t value)
{
    tinyxml2::XMLElement* e = root->FirstChildElement(name);
    if (e != nullptr) {
        e->SetText(std::to_string(value).c_str());
    }
}

} // namespace

Workspace::Workspace(const std::string& work, const std::string& tree, int64_t memTotalKb)
    : mWork(fs::absolute(work).string()), mStartDir(fs::current_path().string())
{
    std::error_code ec;
    fs::remove_all(mWork, ec);
    fs::create_directories(mWork + "/proc");
    fs::copy(tree, DeviceDir(), fs::copy_options::recursive);
    fs::create_directories(DeviceDir() + "/data/vendor/camera");
    fs::remove(TracePath(), ec);
    // The probe reads the first line of proc/meminfo (relative) for the total.
    std::ofstream meminfo(mWork + "/proc/meminfo");
    meminfo << "MemTotal:       " << memTotalKb << " kB\n"
            << "MemFree:        " << memTotalKb / 4 << " kB\n"
            << "Cached:         " << memTotalKb / 4 << " kB\n";
    if (!meminfo) {
        throw InputError(mWork + ": cannot write the work folder");
    }
}

void Workspace::Enter(bool record) const
{
    setenv("TALMEM_ROOT", DeviceDir().c_str(), 1);
    unsetenv("TALMEM_PROPERTIES");
    TalHostClearProperties();
    TalHostSetProperty("persist.vendor.talmem.record", record ? "1" : "0");
    if (chdir(mWork.c_str()) != 0) {
        throw InputError(mWork + ": cannot enter the work folder");
    }
}

void Workspace::Leave() const
{
    if (chdir(mStartDir.c_str()) != 0) {
        perror(mStartDir.c_str());
    }
}

void Workspace::SetPoolSizes(int64_t basePoolSize, int64_t multiPoolSize) const
{
    for (const char* name : kConfigNames) {
        const std::string path = DeviceDir() + "/odm/etc/camera/" + name;
        tinyxml2::XMLDocument doc;
        if (doc.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS || doc.RootElement() == nullptr) {
            continue;
        }
        SetText(doc.RootElement(), "BasePoolSize", basePoolSize);
        SetText(doc.RootElement(), "MultiPoolSize", multiPoolSize);
        doc.SaveFile(path.c_str());
    }
}

LearntTable ReadLearnt(const std::string& path)
{
    LearntTable table;
    tinyxml2::XMLDocument doc;
    if (doc.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS || doc.RootElement() == nullptr) {
        return table;
    }
    for (auto* e = doc.RootElement()->FirstChildElement("Algo"); e != nullptr;
         e = e->NextSiblingElement("Algo")) {
        const char* name = e->Attribute("name");
        for (int i = 0; name != nullptr; ++i) {
            const std::string suffix = i == 0 ? "" : std::to_string(i);
            const char* value = e->Attribute(("value" + suffix).c_str());
            if (value == nullptr) {
                break;
            }
            const char* res = e->Attribute(("resolution" + suffix).c_str());
            table[name][res != nullptr ? res : "default"] = strtoull(value, nullptr, 10);
        }
    }
    return table;
}

} // namespace talsim
