// Writing of the learnt peak-size table to the filter file.

// One concern of TalMemConfig: its lines are logged under the class's own source.
#define TAL_LOG_SOURCE "TalMemConfig.cpp"

#include "config/TalMemConfig.h"

#include <tinyxml2.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/TalLog.h"

namespace qv {

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace {

// The declaration's text is itself a whole declaration, so the file starts
// with it wrapped once more in "<?" and "?>"; readers skip it.
constexpr const char* kDeclaration =
    "<?xml version=\"1.0\" encoding=\"GB2312\" standalone=\"\"?>";
constexpr const char* kRootName = "TalMemPoolConfig";
constexpr const char* kRootText = "list algorithm peak size";
constexpr const char* kAlgoElementName = "Algo";
constexpr int kPairsPerElement = 3;
constexpr mode_t kFilterFileMode = 0644;

bool WriteAll(int fd, const char* data, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, data, len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Makes the rename itself durable; a failure here loses nothing already written.
void SyncDirectoryOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

// Temporaries are named after the file with this suffix, X replaced by
// mkostemp; the ".tmp-" part keeps a user's own "talmempoolfilter.xml.backup"
// from ever being taken for one.
constexpr const char kTemporaryMark[] = ".tmp-";
constexpr const char kTemporarySuffix[] = ".tmp-XXXXXX";

// Replaces `path` by `data` so that a crash or a full disk at any moment
// leaves either the old file or the new one, never a truncated one: the data
// goes to a temporary file beside it, reaches the disk, and is renamed over.
int ReplaceFileAtomically(const std::string& path, const char* data, size_t len)
{
    std::string pattern = path + kTemporarySuffix;
    std::vector<char> tmpName(pattern.begin(), pattern.end());
    tmpName.push_back('\0');
    int fd = mkostemp(tmpName.data(), O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    bool ok = fchmod(fd, kFilterFileMode) == 0 && WriteAll(fd, data, len) && fsync(fd) == 0;
    ok = (close(fd) == 0) && ok;
    ok = ok && rename(tmpName.data(), path.c_str()) == 0;
    if (!ok) {
        unlink(tmpName.data());
        return -1;
    }
    SyncDirectoryOf(path);
    return 0;
}

// True for "<base>.tmp-XXXXXX" with any six characters in place of the X.
bool IsTemporaryOf(const char* entry, const std::string& base)
{
    const size_t suffixLen = sizeof(kTemporarySuffix) - 1;
    return strlen(entry) == base.size() + suffixLen && strncmp(entry, base.c_str(), base.size()) == 0 &&
           strncmp(entry + base.size(), kTemporaryMark, sizeof(kTemporaryMark) - 1) == 0;
}

} // namespace

void TalMemConfig::RemoveFilterTemporaries()
{
    const std::string path = TalCfgFilterFilePath();
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return; // no writable directory: nothing was ever written
    }
    while (const struct dirent* entry = readdir(d)) {
        if (IsTemporaryOf(entry->d_name, base)) {
            std::string leftover = dir + entry->d_name;
            int rc = unlink(leftover.c_str());
            TAL_LOGW("%s removed unfinished %s (%d)\n", __func__, leftover.c_str(), rc);
        }
    }
    closedir(d);
}

int TalMemConfig::UploadAlgoPeakMem(const TalAlgoPeakMap& algoPeakMap)
{
    XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
    tinyxml2::XMLDeclaration* declaration = doc.NewDeclaration(kDeclaration);
    if (declaration == nullptr) {
        return -1;
    }
    doc.InsertEndChild(declaration);
    XMLElement* root = CreateElement(kRootName, kRootText, doc);
    if (root == nullptr) {
        return -1;
    }
    doc.InsertEndChild(root);
    if (AddBaseElement(root, doc) != 0 || AddAlgoPeakSizeElement(root, doc, algoPeakMap) != 0) {
        return -1;
    }
    tinyxml2::XMLPrinter printer(nullptr, false); // indented, not compact
    doc.Print(&printer);
    const std::string path = TalCfgFilterFilePath();
    if (ReplaceFileAtomically(path, printer.CStr(), static_cast<size_t>(printer.CStrSize() - 1)) !=
        0) {
        TAL_LOGE("write_to_file %s failed !\n", path.c_str());
        return -1;
    }
    return 0;
}

int TalMemConfig::AddBaseElement(XMLElement* root, XMLDocument& doc)
{
    const std::pair<const char*, int32_t> fields[] = {
        {"AllocType", allocateType},       {"BasePoolSize", basePoolSize},
        {"AlgoSizeLimit", algoSizeLimit},  {"PrevRatioLimit", prevRatioLimit},
        {"MultiPoolSize", multiPoolSize},
    };
    for (const auto& field : fields) {
        XMLElement* element = CreateElement(field.first, std::to_string(field.second), doc);
        if (element == nullptr) {
            return -1;
        }
        root->InsertEndChild(element);
    }
    return 0;
}

int TalMemConfig::AddAlgoPeakSizeElement(XMLElement* root, XMLDocument& doc,
                                         const TalAlgoPeakMap& algoPeakMap)
{
    for (const auto& algo : algoPeakMap) {
        if (algo.second.empty()) {
            continue;
        }
        // Three pairs per element; longer lists continue in further elements
        // of the same name, which the reader merges again.
        XMLElement* element = nullptr;
        int index = 0;
        for (const TalMemResoluAlgoSize& entry : algo.second) {
            if (index % kPairsPerElement == 0) {
                if (index != 0) {
                    root->InsertEndChild(element);
                    index = 0;
                }
                element = CreateElement(kAlgoElementName, "", doc);
                if (element == nullptr) {
                    return -1;
                }
                element->SetAttribute("name", algo.first.c_str());
            }
            SetAttributeWithOrder(element, "value", index, std::to_string(entry.algoSize).c_str());
            SetAttributeWithOrder(element, "resolution", index, entry.resolution.c_str());
            ++index;
        }
        root->InsertEndChild(element);
    }
    return 0;
}

XMLElement* TalMemConfig::CreateElement(std::string name, std::string text, XMLDocument& doc)
{
    XMLElement* element = doc.NewElement(name.c_str());
    if (element == nullptr) {
        return nullptr;
    }
    tinyxml2::XMLText* textNode = doc.NewText(text.c_str());
    if (textNode == nullptr) {
        doc.DeleteNode(element);
        return nullptr;
    }
    element->InsertEndChild(textNode);
    return element;
}

void TalMemConfig::SetAttributeWithOrder(XMLElement* element, const char* name, int index,
                                         const char* value)
{
    if (element == nullptr || name == nullptr || value == nullptr) {
        TAL_LOGE("%s:element is NULL\n", __func__);
        return;
    }
    if (index != 0) {
        element->SetAttribute((std::string(name) + std::to_string(index)).c_str(), value);
        return;
    }
    // A lone "default" entry is written without a resolution and reads back as "default".
    if (strncmp(value, kTalCfgDefaultResolution, strlen(kTalCfgDefaultResolution)) == 0) {
        return;
    }
    element->SetAttribute(name, value);
}

} // namespace qv
