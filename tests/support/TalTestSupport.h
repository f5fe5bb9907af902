#ifndef TALMEM_TESTS_TALTESTSUPPORT_H
#define TALMEM_TESTS_TALTESTSUPPORT_H

// Shared test support: every log line of the library is captured as
// (priority, text) so tests can assert exact messages; each test gets its own
// temporary device root (TALMEM_ROOT) and a clean set of properties.

#include <gtest/gtest.h>

#include <android/log.h>

#include <set>
#include <string>
#include <vector>

namespace talmem_test {

struct LogLine {
    int priority;
    std::string text;    // the whole line, prefix included
    std::string message; // the text after "[LEVEL  ] file:line func() ", or the whole text
};

// Process-wide capture of the Android log (installed by the test main).
class LogCapture {
public:
    static void Install();
    static void Clear();
    static std::vector<LogLine> Lines();
    // Lines of exactly this priority whose message (prefix stripped) equals `message`.
    static int Count(int priority, const std::string& message);
    // Lines of any priority whose full text contains `fragment`.
    static int CountContaining(const std::string& fragment);
    // "file function" of the prefix of the first line whose message is `message`; "" if none.
    static std::string Where(const std::string& message);
    // Every source file named by a line since the process started (Clear keeps them).
    static std::set<std::string> SourceFiles();
    // All captured text joined by newlines, for failure messages.
    static std::string Dump();
};

// Removes "[LEVEL  ] file:line func() " from a line; returns it unchanged if
// it has no such prefix.
std::string StripPrefix(const std::string& text);

std::string MakeTempDir(const std::string& tag);
void RemoveTree(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);
void MakeDirs(const std::string& path);

// Fixture: clears the log capture, points TALMEM_ROOT at a fresh folder laid
// out like a device, clears properties and TALMEM_PROPERTIES.
class TalTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The fixed device directory `fixed` ("/odm/etc/camera/") under the root.
    std::string DevicePath(const std::string& fixed) const { return root_ + fixed; }
    static bool Logged(int priority, const std::string& message)
    {
        return LogCapture::Count(priority, message) > 0;
    }

    std::string root_;
};

} // namespace talmem_test

#endif // TALMEM_TESTS_TALTESTSUPPORT_H
