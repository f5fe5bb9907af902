// The process-wide allocator-type record.

#include <thread>
#include <vector>

#include "TalTestSupport.h"
#include "interface/QvaAlgoMemAllocatorManager.h"

namespace talmem_test {
namespace {

using Manager = qv::QvaAlgoMemAllocatorManager;

Manager::AlgoAllocatorType Type(int32_t value)
{
    return static_cast<Manager::AlgoAllocatorType>(value);
}

class AllocatorManagerTest : public TalTest {};

TEST_F(AllocatorManagerTest, SingletonIsOneObjectForAllThreads)
{
    std::vector<Manager*> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] { seen[i] = Manager::getSingleton(); });
    }
    for (auto& t : threads) {
        t.join();
    }
    for (Manager* m : seen) {
        EXPECT_EQ(m, Manager::getSingleton());
    }
}

TEST_F(AllocatorManagerTest, TypeOutOfRangeIsRefusedAndLeavesTheTypeUnchanged)
{
    Manager* m = Manager::getSingleton();
    ASSERT_EQ(m->setAlgoAllocatorType(Manager::ALGO_ALLOCATOR_EXTERNAL), 0);
    EXPECT_EQ(m->getAlgoAllocatorType(), 2);

    EXPECT_EQ(m->setAlgoAllocatorType(Type(3)), -1);
    EXPECT_EQ(m->setAlgoAllocatorType(Type(0x7FFFFFFF)), -1);
    EXPECT_EQ(m->getAlgoAllocatorType(), 2);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR,
                                "setAlgoAllocatorType fail, allocator type out of range[0, 3): 3 \n"),
              1);
    EXPECT_EQ(LogCapture::Count(ANDROID_LOG_ERROR, "setAlgoAllocatorType fail, allocator type out "
                                                   "of range[0, 3): 2147483647 \n"),
              1);
}

TEST_F(AllocatorManagerTest, NegativeTypePassesTheSignedCheckAndIsStored)
{
    Manager* m = Manager::getSingleton();
    EXPECT_EQ(m->setAlgoAllocatorType(Type(-1)), 0);
    EXPECT_EQ(m->getAlgoAllocatorType(), -1);
    EXPECT_EQ(LogCapture::Lines().size(), 0u) << LogCapture::Dump();
    EXPECT_EQ(m->setAlgoAllocatorType(Manager::ALGO_ALLOCATOR_DEFAULT), 0);
    EXPECT_EQ(m->getAlgoAllocatorType(), 0);
}

} // namespace
} // namespace talmem_test
