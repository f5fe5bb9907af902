// The exported wrapper that gives a pool buffer back when it is destroyed.

#include "talmem/TalMemPackBuffer.h"

#include <utility>

#include "CameraBufferInterface.h"

namespace ZoSit {

TalMemPackBuffer::TalMemPackBuffer(std::shared_ptr<QvCamera::ICameraBuffer> buffer)
    : mBuffer(std::move(buffer))
{
}

TalMemPackBuffer::~TalMemPackBuffer()
{
    if (mBuffer) {
        // Ends the pool allocation; the camera buffer lives on with its other owners.
        qv::TalMemPool::Free(mBuffer->GetCpuAddr(), nullptr, nullptr);
        mBuffer.reset();
    }
}

std::shared_ptr<QvCamera::ICameraBuffer> TalMemPackBuffer::GetBuffer()
{
    return mBuffer;
}

} // namespace ZoSit
