#include "InpoolChecker.h"
#include "TalTestSupport.h"

#include <functional>

#include "common/TalLog.h"
#include "inpool/TalMem.h"
#include "inpool/TalMemFormat.h"

namespace {

using talmem_test::LogCapture;
using talmem_test::MappedRegion;

class TalMemTest : public talmem_test::TalTest {
protected:
    static constexpr uint32_t kPoolSize = 16u << 20;
    static int Error(const std::string& message) { return LogCapture::Count(ANDROID_LOG_ERROR, message); }
};

TEST_F(TalMemTest, NoObject_EveryOperationLogsAndReturnsItsNoObjectValue)
{
    qv::TalMem mem; // TalMemInit never called
    MappedRegion region(1 << 20);
    uintptr_t p = region.addr();
    int record = 0;
    EXPECT_EQ(mem.Init(p, 1 << 20), -5);
    EXPECT_EQ(mem.Alloc(p, 4096), 0u);
    EXPECT_EQ(mem.Free(p, p + 8192), -5);
    EXPECT_EQ(mem.DumpInfo(p), -5);
    EXPECT_EQ(mem.SetMcInfo(p + 8192, &record, "a", "m"), -5);
    EXPECT_EQ(mem.GetMcInfo(p, p + 8192), nullptr);
    EXPECT_EQ(mem.GetUsedNum(p), -5);
    EXPECT_EQ(mem.GetMaxFreeSize(p), 0u);
    mem.CheckFatalAddr(p);
    for (const char* op : {"Init", "Alloc", "Free", "DumpInfo", "SetMcInfo", "GetMcInfo", "GetUsedNum",
                           "GetMaxFreeSize", "CheckFatalAddr"}) {
        SCOPED_TRACE(op);
        EXPECT_EQ(Error(std::string("QvCamMem ") + op + " memImpl invalid\n"), 1);
    }
    EXPECT_EQ(LogCapture::Lines().size(), 9u) << "because nothing else is logged, no ErrorCode either";
    EXPECT_EQ(region.info()->magic, 0u) << "because the memory was never touched";
}

TEST_F(TalMemTest, BadArguments_LogInputErrorAndErrorCodeForInitFreeDumpAndTag)
{
    qv::TalMem mem;
    ASSERT_EQ(mem.TalMemInit(), 0);
    int record = 0;
    EXPECT_EQ(mem.Init(0, kPoolSize), -1);
    EXPECT_EQ(Error("Init(401): poolAddr input error\n"), 1);
    EXPECT_EQ(Error("QvCamMem Init ErrorCode:-1\n"), 1);
    EXPECT_EQ(mem.Alloc(0, 4096), 0u);
    EXPECT_EQ(Error("Alloc(402): poolAddr input error\n"), 1);
    EXPECT_EQ(mem.Free(0, 0x12345678), -1);
    EXPECT_EQ(Error("Free(403): poolAddr input error\n"), 1);
    EXPECT_EQ(Error("QvCamMem Free ErrorCode:-1 addr 0x" + std::to_string(0x345678) + "\n"), 1)
        << "because the masked address is printed in decimal behind 0x";
    EXPECT_EQ(mem.DumpInfo(0), -1);
    EXPECT_EQ(Error("QvCamMem DumpInfo ErrorCode:-1\n"), 1);
    EXPECT_EQ(mem.SetMcInfo(0, &record, "a", "m"), -1);
    EXPECT_EQ(mem.SetMcInfo(0x10000, nullptr, "a", "m"), -1);
    EXPECT_EQ(Error("SetMcInfo(405): poolAddr input error\n"), 2);
    EXPECT_EQ(Error("QvCamMem SetMcInfo ErrorCode:-1\n"), 2);
    EXPECT_EQ(mem.GetMcInfo(0, 0x10000), nullptr);
    EXPECT_EQ(mem.GetMcInfo(0x10000, 0), nullptr);
    EXPECT_EQ(Error("GetMcInfo(406):  input error\n"), 2);
    EXPECT_EQ(mem.GetUsedNum(0), -1);
    EXPECT_EQ(mem.GetMaxFreeSize(0), 0u);
    mem.CheckFatalAddr(0);
    EXPECT_EQ(Error("CheckFatalAddr(409): poolAddr input error\n"), 1);
    EXPECT_EQ(LogCapture::CountContaining("ErrorCode"), 5) << "because only four operations report codes";
}

TEST_F(TalMemTest, ForwardedFailures_CarryThePoolsCodeInTheErrorCodeLine)
{
    qv::TalMem mem;
    ASSERT_EQ(mem.TalMemInit(), 0);
    MappedRegion region(kPoolSize);
    uintptr_t p = region.addr();
    EXPECT_EQ(mem.Init(p, 1000), -3);
    EXPECT_EQ(Error("QvCamMem Init ErrorCode:-3\n"), 1);
    EXPECT_EQ(mem.DumpInfo(p), -1) << "because unformatted memory is not a pool";
    EXPECT_EQ(Error("QvCamMem DumpInfo ErrorCode:-1\n"), 1);
    ASSERT_EQ(mem.Init(p, kPoolSize), 0);
    uintptr_t a = mem.Alloc(p, 4096);
    ASSERT_NE(a, 0u);
    LogCapture::Clear();
    EXPECT_EQ(mem.Free(p, a + 4096), -100);
    EXPECT_EQ(Error("QvCamMem Free ErrorCode:-100 addr 0x" + std::to_string((a + 4096) & 0xFFFFFF) + "\n"), 1);
    EXPECT_EQ(Error("OsMemIsNodeValid(202): MAGIC_CHECK error\n"), 1)
        << "because the pool's own message comes first";
    EXPECT_EQ(mem.Free(p, a), 0);
    int record = 0;
    EXPECT_EQ(mem.SetMcInfo(a, &record, "a", "m"), -100);
    EXPECT_EQ(Error("QvCamMem SetMcInfo ErrorCode:-100\n"), 1);
}

TEST_F(TalMemTest, OneObject_ServesSeveralPoolsByTheirAddress)
{
    qv::TalMem mem;
    ASSERT_EQ(mem.TalMemInit(), 0);
    MappedRegion first(kPoolSize);
    MappedRegion second(kPoolSize / 2);
    ASSERT_EQ(mem.Init(first.addr(), kPoolSize), 0);
    ASSERT_EQ(mem.Init(second.addr(), kPoolSize / 2), 0);
    int recordA = 0;
    int recordB = 0;
    uintptr_t a = mem.Alloc(first.addr(), 3u << 20);
    uintptr_t b = mem.Alloc(second.addr(), 1u << 20);
    ASSERT_TRUE(a && b);
    EXPECT_GT(a, first.addr());
    EXPECT_LT(a, first.addr() + kPoolSize);
    EXPECT_GT(b, second.addr());
    EXPECT_LT(b, second.addr() + kPoolSize / 2);
    EXPECT_EQ(mem.SetMcInfo(a, &recordA, "algoA", "modA"), 0);
    EXPECT_EQ(mem.SetMcInfo(b, &recordB, "algoB", "modB"), 0);
    EXPECT_EQ(mem.GetMcInfo(first.addr(), a), &recordA);
    EXPECT_EQ(mem.GetMcInfo(second.addr(), b), &recordB);
    EXPECT_EQ(mem.GetUsedNum(first.addr()), 1);
    EXPECT_EQ(mem.GetUsedNum(second.addr()), 1);
    EXPECT_EQ(mem.GetMaxFreeSize(second.addr()),
              kPoolSize / 2 - qv::kTalPoolOverhead - qv::TalNodeSize(qv::TalFirstNode(second.info())));
    EXPECT_EQ(mem.DumpInfo(first.addr()), 0);
    EXPECT_EQ(mem.Free(first.addr(), a), 0);
    EXPECT_EQ(mem.Free(second.addr(), b), 0);
    EXPECT_EQ(mem.GetUsedNum(first.addr()), 0) << "because a pool may be destroyed only at 0";
    EXPECT_EQ(mem.GetMaxFreeSize(first.addr()), kPoolSize - qv::kTalPoolOverhead);
    EXPECT_POOL_SOUND(first.addr());
    EXPECT_POOL_SOUND(second.addr());
    mem.CheckFatalAddr(first.addr());
    EXPECT_EQ(LogCapture::CountContaining("fatalAddr"), 0) << "because nothing was corrupted";
}

} // namespace
