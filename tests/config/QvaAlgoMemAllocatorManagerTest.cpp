// The process-wide allocator-type record.

#include <thread>

#include "TalTestSupport.h"
#include "interface/QvaAlgoMemAllocatorManager.h"

namespace talmem_test {
namespace {

using Manager = qv::QvaAlgoMemAllocatorManager;

TEST_F(TalTest, AllocatorManager_IsOneObjectAndChecksOnlyTheUpperBound)
{
    Manager* m = nullptr;
    std::thread([&m] { m = Manager::getSingleton(); }).join();
    ASSERT_EQ(m, Manager::getSingleton());
    // {type, result, type stored afterwards}: the comparison is signed.
    for (const auto& c : std::vector<std::vector<int32_t>>{
             {2, 0, 2}, {3, -1, 2}, {0x7FFFFFFF, -1, 2}, {-1, 0, -1}, {0, 0, 0}}) {
        SCOPED_TRACE(c[0]);
        LogCapture::Clear();
        EXPECT_EQ(m->setAlgoAllocatorType(static_cast<Manager::AlgoAllocatorType>(c[0])), c[1]);
        EXPECT_EQ(m->getAlgoAllocatorType(), c[2]);
        const std::string line = "setAlgoAllocatorType fail, allocator type out of range[0, 3): ";
        EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, line + std::to_string(c[0]) + " \n"), -c[1]);
        EXPECT_EQ(LogCapture::Lines().size(), static_cast<size_t>(-c[1])) << LogCapture::Dump();
    }
}

} // namespace
} // namespace talmem_test
