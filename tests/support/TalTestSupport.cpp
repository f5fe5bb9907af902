#include "TalTestSupport.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>

#include "talmem_properties.h"

namespace talmem_test {
namespace {

std::mutex gLock;
std::vector<LogLine> gLines;
std::set<std::string> gSourceFiles; // never cleared: every file named since the start
bool gEcho = false;

// "file" of "[LEVEL  ] file:line func() ", or "" for a line without the prefix.
std::string SourceFileOf(const std::string& text)
{
    const size_t start = sizeof("[ERROR  ] ") - 1;
    if (text.size() <= start || text[0] != '[' || text.compare(start - 2, 2, "] ") != 0) {
        return std::string();
    }
    const size_t colon = text.find(':', start);
    return colon == std::string::npos ? std::string() : text.substr(start, colon - start);
}

void CaptureLogger(const struct __android_logger_data* data, const char* message)
{
    LogLine line{data->priority, message ? message : "", ""};
    line.message = StripPrefix(line.text);
    if (gEcho) {
        fprintf(stderr, "%d %s%s", line.priority, line.text.c_str(),
                (!line.text.empty() && line.text.back() == '\n') ? "" : "\n");
    }
    std::string file = SourceFileOf(line.text);
    std::lock_guard<std::mutex> guard(gLock);
    gSourceFiles.insert(std::move(file));
    gLines.push_back(std::move(line));
}

} // namespace

void LogCapture::Install()
{
    const char* echo = getenv("TALMEM_TEST_ECHO_LOG");
    gEcho = echo != nullptr && echo[0] == '1';
    __android_log_set_logger(CaptureLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> guard(gLock);
    gLines.clear();
}

std::vector<LogLine> LogCapture::Lines()
{
    std::lock_guard<std::mutex> guard(gLock);
    return gLines;
}

int LogCapture::Count(int priority, const std::string& message)
{
    auto lines = Lines();
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& l) {
        return l.priority == priority && l.message == message;
    }));
}

int LogCapture::CountContaining(const std::string& fragment)
{
    auto lines = Lines();
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& l) {
        return l.text.find(fragment) != std::string::npos;
    }));
}

std::set<std::string> LogCapture::SourceFiles()
{
    std::lock_guard<std::mutex> guard(gLock);
    return gSourceFiles;
}

std::string LogCapture::Where(const std::string& message)
{
    for (const LogLine& line : Lines()) {
        if (line.message == message) {
            static const std::regex prefix(R"(^\[[A-Z ]{7}\] ([^ :]+):[0-9]+ ([^ ]*)\(\) )");
            std::smatch m;
            return std::regex_search(line.text, m, prefix) ? m[1].str() + " " + m[2].str() : "";
        }
    }
    return "";
}

std::string LogCapture::Dump()
{
    std::lock_guard<std::mutex> guard(gLock);
    std::string out;
    for (const auto& line : gLines) {
        out += std::to_string(line.priority) + " " + line.text;
        if (out.empty() || out.back() != '\n') {
            out += '\n';
        }
    }
    return out;
}

std::string StripPrefix(const std::string& text)
{
    static const std::regex prefix(R"(^\[(ERROR  |WARN   |INFO   |DEBUG  )\] [^ :]+:[0-9]+ [^ ]*\(\) )");
    std::smatch m;
    if (std::regex_search(text, m, prefix)) {
        return text.substr(m.length(0));
    }
    return text;
}

std::string MakeTempDir(const std::string& tag)
{
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base ? base : "/tmp") + "/talmem-" + tag + "-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed for " << pattern;
        return "/tmp";
    }
    return std::string(buf.data());
}

void RemoveTree(const std::string& path)
{
    namespace fs = std::filesystem;
    std::error_code ec;
    // Tests may leave read-only folders behind; open them up before removing.
    for (auto it = fs::recursive_directory_iterator(path, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        if (it->is_directory(ec)) {
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
        }
    }
    fs::remove_all(path, ec);
}

void MakeDirs(const std::string& path)
{
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
}

void WriteFile(const std::string& path, const std::string& content)
{
    MakeDirs(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    ASSERT_TRUE(out.good()) << "could not write " << path;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void TalTest::SetUp()
{
    LogCapture::Clear();
    root_ = MakeTempDir("root");
    MakeDirs(root_ + "/odm/etc/camera");
    MakeDirs(root_ + "/data/vendor/camera");
    setenv("TALMEM_ROOT", root_.c_str(), 1);
    unsetenv("TALMEM_PROPERTIES");
    TalHostClearProperties();
}

void TalTest::TearDown()
{
    TalHostClearProperties();
    unsetenv("TALMEM_ROOT");
    RemoveTree(root_);
}

} // namespace talmem_test
