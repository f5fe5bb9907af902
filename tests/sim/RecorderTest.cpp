// The library's call recorder: its lines, and a failing write that turns it
// off with one WARN line and changes nothing else.

#include <unistd.h>

#include <regex>

#include "SimCall.h"
#include "SimTestUtil.h"
#include "interface/TalMemRecorder.h"
#include "talmem/TalMemControl.h"
#include "talmem/TalMemPool.h"
#include "talmem_properties.h"

namespace talmem_test {
namespace {

using qv::TalMemPool;

class RecorderTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        LogCapture::Install(); // a simulator run in this process may have replaced it
        qv::TalMemRecorder::Reset();
        WriteSmallTree(root_);
        trace_ = root_ + "/data/vendor/camera/talmemtrace.txt";
    }
    void TearDown() override
    {
        qv::TalMemRecorder::Reset();
        TalTest::TearDown();
    }
    // A short camera node session; returns the log messages it produced
    // (without the addresses, which differ between runs).
    std::vector<std::string> Session()
    {
        LogCapture::Clear();
        TalMemPool::NewPool();
        void* a = TalMemPool::Malloc(3 * kMiB, "node", nullptr, "algoA", 0);
        EXPECT_NE(TalMemPool::GetIBuf(a), nullptr);
        const qv::TalCacheRange range{reinterpret_cast<uintptr_t>(a), 4096};
        TalMemPool::MemPoolControl(2, &range, nullptr);
        TalMemPool::Free(a, "node", nullptr);
        TalMemPool::Free(a, "node", nullptr); // unknown by now
        EXPECT_EQ(TalMemPool::ClearAll(0, 0), -1) << "because the camera never closed";
        TalMemPool::DeletePool();
        std::vector<std::string> lines;
        const std::regex addr("0x[0-9a-f]+");
        for (const LogLine& l : LogCapture::Lines()) {
            if (l.message.find("Free=") == std::string::npos) { // idle summary: timing
                lines.push_back(std::to_string(l.priority) + std::regex_replace(l.message, addr, "0x"));
            }
        }
        return lines;
    }
    std::string trace_;
};

TEST_F(RecorderTest, On_WritesVersionedLinesWithIdsThreadsAndResults)
{
    TalHostSetProperty("persist.vendor.talmem.record", "1");
    Session();
    qv::TalMemRecorder::Reset();
    const std::regex expected(
        "# talmem-trace 1\n"
        "\\d+ T1 NewPool -> \n"
        "\\d+ T1 Malloc size=3145728 name=node hint=~ algo=algoA type=0 -> id=1\n"
        "\\d+ T1 GetIBuf id=1 -> ok\n"
        "\\d+ T1 MemPoolControl cmd=2 id=1 size=4096 -> -?\\d\n"
        "\\d+ T1 Free id=1 name=node -> \n"
        "\\d+ T1 Free id=x name=node -> \n"
        "\\d+ T1 ClearAll mode=0 delay=0 -> -1\n"
        "\\d+ T1 DeletePool -> \n");
    const std::string text = ReadFile(trace_);
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST_F(RecorderTest, FailingWrite_TurnsRecordingOffWithOneWarnAndChangesNothingElse)
{
    const std::vector<std::string> plain = Session();
    ASSERT_EQ(symlink("/dev/full", trace_.c_str()), 0); // every flush fails: no space
    qv::TalMemRecorder::Reset();
    TalHostSetProperty("persist.vendor.talmem.record", "1");
    std::vector<std::string> recorded = Session();
    const std::string warn = "5QvCamMem StartIfAsked trace " + trace_ +
                             " not writable, call recording off\n";
    ASSERT_FALSE(recorded.empty());
    EXPECT_EQ(recorded.front(), warn);
    recorded.erase(recorded.begin());
    EXPECT_EQ(recorded, plain) << "because recording changes no line of the library";
    EXPECT_FALSE(qv::TalMemRecorder::On());
}

// Names with blanks, '=' or ',' and null names survive the trip through the
// trace: the recorder escapes them and the replayer's reader decodes them.
TEST_F(RecorderTest, Texts_AreEscapedByTheRecorderAndDecodedByTheReader)
{
    TalHostSetProperty("persist.vendor.talmem.record", "1");
    TalMemPool::NewPool();
    void* a = TalMemPool::Malloc(4096, "my node", nullptr, "a=b,c%", 2);
    TalMemPool::Free(a, nullptr, nullptr);
    TalMemPool::DeletePool();
    qv::TalMemRecorder::Reset();
    const std::string text = ReadFile(trace_);
    EXPECT_NE(text.find("Malloc size=4096 name=my%20node hint=~ algo=a%3Db%2Cc%25 type=2 -> id=1"),
              std::string::npos) << text;
    const std::vector<talsim::SimCall> calls = talsim::ParseTrace(text, trace_);
    ASSERT_EQ(calls.size(), 4u);
    std::string name, algo;
    ASSERT_TRUE(talsim::DecodeText(calls[1].Arg("name"), &name));
    ASSERT_TRUE(talsim::DecodeText(calls[1].Arg("algo"), &algo));
    EXPECT_EQ(name, "my node");
    EXPECT_EQ(algo, "a=b,c%");
    EXPECT_EQ(calls[2].Arg("name"), "~") << "a null name stays null";
    EXPECT_EQ(calls[2].Arg("id"), "1");
}

} // namespace
} // namespace talmem_test
