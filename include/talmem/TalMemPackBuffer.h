#ifndef TALMEM_TALMEMPACKBUFFER_H
#define TALMEM_TALMEMPACKBUFFER_H

#include <memory>

#include "talmem/TalMemPool.h"

namespace ZoSit {

// Holds a camera buffer obtained from the pool (TalMemPool::Malloc with a
// MallocInfo) and gives its pool allocation back when destroyed. The camera
// buffer itself lives until its last owner lets go.
class TALMEM_EXPORT TalMemPackBuffer {
public:
    explicit TalMemPackBuffer(std::shared_ptr<QvCamera::ICameraBuffer> buffer);
    virtual ~TalMemPackBuffer();
    // Another owner of the wrapped buffer.
    virtual std::shared_ptr<QvCamera::ICameraBuffer> GetBuffer();

private:
    std::shared_ptr<QvCamera::ICameraBuffer> mBuffer;
};

} // namespace ZoSit

#endif // TALMEM_TALMEMPACKBUFFER_H
