#ifndef TALMEM_DESCRIPTOR_QVAALGOMEMALLOCATORMANAGER_H
#define TALMEM_DESCRIPTOR_QVAALGOMEMALLOCATORMANAGER_H

// Process-wide record of the allocator that the camera algorithms are to use.
// The configuration loader sets the type; code outside this library fills
// the per-type tables, which are only zeroed here. Internal to the library.

#include <cstdint>

#include <utils/Mutex.h>

namespace qv {

class QvaAlgoMemAllocatorManager {
public:
    // Allocator types; kAllocatorTypeCount bounds the range check.
    enum AlgoAllocatorType : int32_t {
        ALGO_ALLOCATOR_DEFAULT = 0,
        ALGO_ALLOCATOR_TALMEM_POOL = 1,
        ALGO_ALLOCATOR_EXTERNAL = 2,
    };
    static constexpr int32_t kAllocatorTypeCount = 3;

    // The one instance, created on first use (any thread). Aborts the
    // process when it cannot be allocated.
    static QvaAlgoMemAllocatorManager* getSingleton();

    virtual ~QvaAlgoMemAllocatorManager();

    // Stores `type`; -1 (type unchanged) when it is kAllocatorTypeCount or
    // more. The comparison is signed: a negative type is accepted and stored.
    int32_t setAlgoAllocatorType(AlgoAllocatorType type);
    // The type last stored (0 after construction).
    int32_t getAlgoAllocatorType();

    QvaAlgoMemAllocatorManager(const QvaAlgoMemAllocatorManager&) = delete;
    QvaAlgoMemAllocatorManager& operator=(const QvaAlgoMemAllocatorManager&) = delete;

private:
    static constexpr int kAllocatorWords = 4;

    QvaAlgoMemAllocatorManager();

    int32_t mAllocatorType;
    android::Mutex mLock; // held by no operation here; kept for the table owners
    bool mAllocatorRegistered[kAllocatorTypeCount];
    uint32_t mAllocator[kAllocatorTypeCount][kAllocatorWords];
    uint32_t mMemPoolCtrl[kAllocatorTypeCount];
    uint32_t mIoctl[kAllocatorTypeCount];

    static android::Mutex sLock;
    static QvaAlgoMemAllocatorManager* sInstance;
};

} // namespace qv

#endif // TALMEM_DESCRIPTOR_QVAALGOMEMALLOCATORMANAGER_H
