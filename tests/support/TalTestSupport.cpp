#include "TalTestSupport.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <regex>
#include <sstream>

#include "talmem_properties.h"

namespace talmem_test {
namespace {

std::mutex gLock;
std::vector<LogLine> gLines;
bool gEcho = false;

void CaptureLogger(const struct __android_logger_data* data, const char* message)
{
    LogLine line{data->priority, message ? message : "", ""};
    line.message = StripPrefix(line.text);
    if (gEcho) {
        fprintf(stderr, "%d %s%s", line.priority, line.text.c_str(),
                (!line.text.empty() && line.text.back() == '\n') ? "" : "\n");
    }
    std::lock_guard<std::mutex> guard(gLock);
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
    std::lock_guard<std::mutex> guard(gLock);
    int n = 0;
    for (const auto& line : gLines) {
        n += (line.priority == priority && line.message == message) ? 1 : 0;
    }
    return n;
}

int LogCapture::CountContaining(const std::string& fragment)
{
    std::lock_guard<std::mutex> guard(gLock);
    int n = 0;
    for (const auto& line : gLines) {
        n += line.text.find(fragment) != std::string::npos ? 1 : 0;
    }
    return n;
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
    DIR* dir = opendir(path.c_str());
    if (dir != nullptr) {
        while (struct dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name == "." || name == "..") {
                continue;
            }
            std::string child = path + "/" + name;
            struct stat st;
            if (lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
                chmod(child.c_str(), 0700);
                RemoveTree(child);
            } else {
                unlink(child.c_str());
            }
        }
        closedir(dir);
    }
    rmdir(path.c_str());
}

void MakeDirs(const std::string& path)
{
    std::string partial;
    std::stringstream ss(path);
    std::string piece;
    if (!path.empty() && path[0] == '/') {
        partial = "/";
    }
    while (std::getline(ss, piece, '/')) {
        if (piece.empty()) {
            continue;
        }
        partial += piece + "/";
        mkdir(partial.c_str(), 0755);
    }
}

void WriteFile(const std::string& path, const std::string& content)
{
    size_t slash = path.rfind('/');
    if (slash != std::string::npos) {
        MakeDirs(path.substr(0, slash));
    }
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
