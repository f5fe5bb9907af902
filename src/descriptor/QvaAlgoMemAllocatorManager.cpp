// The process-wide allocator-type record.

#include "descriptor/QvaAlgoMemAllocatorManager.h"

#include <cstdlib>
#include <new>

#include "common/TalLog.h"
#include "securec.h"

namespace qv {

android::Mutex QvaAlgoMemAllocatorManager::sLock;
QvaAlgoMemAllocatorManager* QvaAlgoMemAllocatorManager::sInstance = nullptr;

namespace {
constexpr const char* kClassName = "QvaAlgoMemAllocatorManager";
} // namespace

// Zeroes one table; a failure is reported and construction goes on.
#define TAL_ZERO_TABLE(table)                                                                \
    do {                                                                                     \
        if (memset_s(&(table), sizeof(table), 0x00, sizeof(table)) != 0) {                   \
            TAL_LOGE("%s %s failed", kClassName,                                             \
                     "memset_s(&" #table ", sizeof(" #table "), 0x00, sizeof(" #table "))"); \
        }                                                                                    \
    } while (0)

QvaAlgoMemAllocatorManager::QvaAlgoMemAllocatorManager()
{
    TAL_ZERO_TABLE(mAllocatorRegistered);
    TAL_ZERO_TABLE(mAllocator);
    TAL_ZERO_TABLE(mMemPoolCtrl);
    TAL_ZERO_TABLE(mIoctl);
    mAllocatorType = ALGO_ALLOCATOR_DEFAULT;
}

#undef TAL_ZERO_TABLE

QvaAlgoMemAllocatorManager::~QvaAlgoMemAllocatorManager() = default;

QvaAlgoMemAllocatorManager* QvaAlgoMemAllocatorManager::getSingleton()
{
    android::AutoMutex _l(sLock);
    if (sInstance == nullptr) {
        sInstance = new (std::nothrow) QvaAlgoMemAllocatorManager();
        if (sInstance == nullptr) {
            TAL_LOGE("%s create instance failed\n", kClassName);
            abort();
        }
    }
    return sInstance;
}

int32_t QvaAlgoMemAllocatorManager::setAlgoAllocatorType(AlgoAllocatorType type)
{
    android::AutoMutex _l(sLock);
    // Signed on purpose: only the upper bound is checked.
    if (static_cast<int32_t>(type) >= kAllocatorTypeCount) {
        TAL_LOGE("%s fail, allocator type out of range[0, %d): %d \n", __func__,
                 kAllocatorTypeCount, static_cast<int32_t>(type));
        return -1;
    }
    mAllocatorType = type;
    return 0;
}

int32_t QvaAlgoMemAllocatorManager::getAlgoAllocatorType()
{
    android::AutoMutex _l(sLock);
    return mAllocatorType;
}

} // namespace qv
