#include "InpoolChecker.h"

#include "inpool/TalMem.h"

namespace {

using talmem_test::LogCapture;

class TalMemTest : public talmem_test::InpoolTest {
protected:
    // Every operation once; 0 for both arguments takes every bad-argument path.
    std::vector<int> CallAll(qv::TalMem& mem, uintptr_t poolAddr, uintptr_t address)
    {
        std::vector<int> codes = {mem.Init(poolAddr, 1 << 20), static_cast<int>(mem.Alloc(poolAddr, 4096)),
                                  mem.Free(poolAddr, address), mem.DumpInfo(poolAddr),
                                  mem.SetMcInfo(address, &record, "a", "m"),
                                  mem.GetMcInfo(poolAddr, address) != nullptr, mem.GetUsedNum(poolAddr),
                                  static_cast<int>(mem.GetMaxFreeSize(poolAddr))};
        mem.CheckFatalAddr(poolAddr);
        return codes;
    }
    int record = 0;
};

TEST_F(TalMemTest, NoObjectAndBadArguments_LogTheirLinesAndReturnTheirColumnValues)
{
    qv::TalMem none; // TalMemInit never called
    EXPECT_EQ(CallAll(none, pool, pool + 8192), (std::vector<int>{-5, 0, -5, -5, -5, 0, -5, 0}));
    for (const char* op : {"Init", "Alloc", "Free", "DumpInfo", "SetMcInfo", "GetMcInfo", "GetUsedNum",
                           "GetMaxFreeSize", "CheckFatalAddr"}) {
        EXPECT_EQ(Errors(std::string("QvCamMem ") + op + " memImpl invalid\n"), 1) << op;
    }
    EXPECT_EQ(LogCapture::Lines().size(), 9u) << "because nothing else is logged, no ErrorCode either";
    qv::TalMem mem;
    ASSERT_EQ(mem.TalMemInit(), 0);
    LogCapture::Clear();
    EXPECT_EQ(CallAll(mem, 0, 0), (std::vector<int>{-1, 0, -1, -1, -1, 0, -1, 0}));
    for (const char* line : {"Init(401): poolAddr input error\n", "QvCamMem Init ErrorCode:-1\n",
                             "Alloc(402): poolAddr input error\n", "QvCamMem Free ErrorCode:-1 addr 0x0\n",
                             "QvCamMem DumpInfo ErrorCode:-1\n", "SetMcInfo(405): poolAddr input error\n",
                             "QvCamMem SetMcInfo ErrorCode:-1\n", "GetMcInfo(406):  input error\n",
                             "GetUsedNum(407): poolAddr input error\n",
                             "CheckFatalAddr(409): poolAddr input error\n"}) {
        EXPECT_EQ(Errors(line), 1) << line;
    }
    EXPECT_EQ(LogCapture::CountContaining("ErrorCode"), 4) << "because only four operations report codes";
}

TEST_F(TalMemTest, Forwarding_ReturnsThePoolsResultsAndLogsFailuresWithTheirCode)
{
    qv::TalMem mem;
    ASSERT_EQ(mem.TalMemInit(), 0);
    EXPECT_EQ(mem.Init(pool, 1000), -3);
    EXPECT_EQ(Errors("QvCamMem Init ErrorCode:-3\n"), 1);
    ASSERT_EQ(mem.Init(pool, kPoolSize), 0);
    uintptr_t a = mem.Alloc(pool, 4096);
    EXPECT_EQ(mem.SetMcInfo(a, &record, "algo", "mod"), 0);
    EXPECT_EQ(mem.GetMcInfo(pool, a), &record);
    EXPECT_EQ(mem.GetUsedNum(pool), 1);
    EXPECT_EQ(mem.Free(pool, a + 4096), -100);
    EXPECT_EQ(Errors("QvCamMem Free ErrorCode:-100 addr 0x" + std::to_string((a + 4096) & 0xFFFFFF) + "\n"), 1)
        << "because the masked address is printed in decimal behind 0x";
    EXPECT_EQ(mem.Free(pool, a), 0);
    EXPECT_EQ(mem.DumpInfo(pool), 0);
    EXPECT_EQ(mem.GetMaxFreeSize(pool), kPoolSize - qv::kTalPoolOverhead);
}

} // namespace
