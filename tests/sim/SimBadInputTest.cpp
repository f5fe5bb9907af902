// talmem_sim on bad input: status 2, one message naming the file and the
// field, and no output folder.

#include <filesystem>

#include "SimTestUtil.h"

namespace talmem_test {
namespace {

class SimBadInputTest : public TalTest {
protected:
    void SetUp() override
    {
        TalTest::SetUp();
        dir_ = MakeTempDir("simbad");
        WriteSmallTree(dir_ + "/tree");
    }
    void TearDown() override
    {
        RemoveTree(dir_);
        TalTest::TearDown();
    }
    // Runs `cmd` on `file` (written with `content`) and checks the refusal.
    void ExpectRefused(const std::string& cmd, const std::string& content,
                       const std::string& mentions)
    {
        const std::string file = dir_ + "/input";
        WriteFile(file, content);
        const std::string out = dir_ + "/out";
        ProgramResult r = RunSim(cmd + " " + file + " -o " + out);
        EXPECT_EQ(r.status, 2) << r.out;
        EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << "one message:\n" << r.out;
        EXPECT_NE(r.out.find(file), std::string::npos) << "names the file:\n" << r.out;
        EXPECT_NE(r.out.find(mentions), std::string::npos) << r.out;
        EXPECT_FALSE(std::filesystem::exists(out)) << "because bad input leaves no output";
    }
    std::string Scenario(const std::string& session) const
    {
        return "{\"device\": {\"tree\": \"" + dir_ + "/tree\", \"mem_total_kb\": 7654312},"
               " \"sessions\": [" + session + "]}";
    }
    std::string dir_;
};

TEST_F(SimBadInputTest, Scenario_MalformedUnknownOrOutOfRange_IsRefused)
{
    const std::string ok = "{\"resolution\": [1920, 1080], \"algorithms\": [\"a\"], "
                           "\"captures\": [{\"algo\": \"a\", \"frame_bytes\": ";
    struct Case {
        std::string content;
        std::string mentions;
    } cases[] = {
        {"{\"device\": ", "not valid JSON"},
        {Scenario(ok + "4096, \"colour\": 1}]}"), "sessions[0].captures[0].colour: expected no such field"},
        {Scenario(ok + "-4096}]}"), "sessions[0].captures[0].frame_bytes: expected an integer from 1"},
        {Scenario(ok + "8589934592}]}"), "sessions[0].captures[0].frame_bytes: expected an integer from 1 to 4294967295"},
        {Scenario("{\"resolution\": [1920], \"algorithms\": []}"), "sessions[0].resolution: expected [width, height]"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mentions);
        ExpectRefused("run", c.content, c.mentions);
    }
}

TEST_F(SimBadInputTest, Trace_WrongVersionTruncatedOrUnknownId_IsRefused)
{
    const std::string head = "# talmem-trace 1\n0 T1 NewPool -> \n";
    struct Case {
        std::string content;
        std::string mentions;
    } cases[] = {
        {"# talmem-trace 7\n0 T1 NewPool -> \n", ":1: trace version \"7\": expected 1"},
        {head + "5 T1 Malloc size=4096 name=n hint=~ algo=a type=0 -> id=1\n6 T1 Free id=1 na",
         ":4: the last line has no line end (truncated trace?)"},
        {head + "5 T1 Malloc size=4096 name=n hint=~ algo=a\n", ":3: no \"->\" result marker"},
        {head + "5 T1 Free id=0 -> \n", ":3: Free lacks name="},
        {head + "5 T1 Free id=9 name=n -> \n", ":3: Free of unknown id 9"},
        {head + "5 T1 Malloc size=big name=n hint=~ algo=a type=0 -> id=1\n",
         ":3: field size=big: expected a number"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mentions);
        ExpectRefused("replay --scenario " + dir_ + "/s.json", c.content, c.mentions);
        WriteFile(dir_ + "/s.json", Scenario("{\"resolution\": [1920, 1080], \"algorithms\": []}"));
    }
}

TEST_F(SimBadInputTest, CommandLine_UnknownOptionIsStatus2_HelpIsStatus0)
{
    EXPECT_EQ(RunSim("run --no-such-option x.json").status, 2);
    EXPECT_EQ(RunSim("").status, 2) << "a subcommand is required";
    ProgramResult help = RunSim("--help");
    EXPECT_EQ(help.status, 0);
    for (const char* sub : {"run", "replay", "tune"}) {
        EXPECT_NE(help.out.find(sub), std::string::npos) << help.out;
    }
}

} // namespace
} // namespace talmem_test
