#include "descriptor/Adapter.h"

#include "CameraBufferInterface.h"
#include "common/TalLog.h"
#include "descriptor/TalIbufImpl.h"

// Accessors for camera buffers that did not come from the pool. They read
// only graphicBuf; the plain getters and cache calls trust it to be set.

namespace {

QvCamera::ICameraBuffer* Gbf(const qva_ibuf* ibuf)
{
    return ibuf->graphicBuf;
}

void* s_getAddr(const qva_ibuf* ibuf)
{
    return Gbf(ibuf)->GetCpuAddr();
}

uint64_t s_getIOVA(const qva_ibuf* ibuf)
{
    return Gbf(ibuf)->GetIova(qv::kTalDefaultDevType, 0);
}

uint32_t s_getSize(const qva_ibuf* ibuf)
{
    return Gbf(ibuf)->GetSize();
}

int32_t s_getShareFD(const qva_ibuf* ibuf)
{
    return Gbf(ibuf)->GetShareFd();
}

int32_t InvalidateCache(const qva_ibuf* ibuf)
{
    Gbf(ibuf)->InvalidateCache();
    return 1;
}

int32_t FlushCache(const qva_ibuf* ibuf)
{
    Gbf(ibuf)->FlushCache();
    return 1;
}

void* s_getGraphicBuf(const qva_ibuf* ibuf)
{
    return Gbf(ibuf);
}

// The checked accessors share one shape: a missing descriptor or buffer is
// one ERROR line naming the accessor, and 0.
#define TAL_CHECK_GBF(ibuf, noIbufFmt, noGbfFmt) \
    do {                                         \
        if ((ibuf) == nullptr) {                 \
            TAL_LOGE(noIbufFmt, __func__);       \
            return 0;                            \
        }                                        \
        if ((ibuf)->graphicBuf == nullptr) {     \
            TAL_LOGE(noGbfFmt, __func__);        \
            return 0;                            \
        }                                        \
    } while (0)

uint32_t s_getOffset(const qva_ibuf* ibuf)
{
    TAL_CHECK_GBF(ibuf, "%s: invalid input\n", "%s: cameraBuffer is null\n");
    return ibuf->graphicBuf->GetOffset();
}

uint32_t s_getPoolSize(const qva_ibuf* ibuf)
{
    TAL_CHECK_GBF(ibuf, "%s: invalid input\n", "%s: cameraBuffer is null\n");
    // A whole buffer reports no pool size: it is its own pool.
    uint64_t poolSize = ibuf->graphicBuf->GetPoolSize();
    return poolSize != 0 ? static_cast<uint32_t>(poolSize) : ibuf->graphicBuf->GetSize();
}

int32_t s_getBufId(const qva_ibuf* /*ibuf*/)
{
    return 0;
}

uint64_t GetDevIOVA(const qva_ibuf* ibuf, BufDevType type)
{
    TAL_CHECK_GBF(ibuf, "enter %s(), ibuf is nullptr\n", "enter %s(), gbf is nullptr\n");
    int devType = qv::GetCameraBufDevType(type);
    if (static_cast<uint32_t>(devType) == BUF_DEV_TYPE_INVALID) {
        TAL_LOGE("enter %s(), devType is invalid\n", __func__);
        return 0;
    }
    return ibuf->graphicBuf->GetIova(static_cast<uint32_t>(devType), 0);
}

} // namespace

namespace qv {

void convert2IBuf(qva_ibuf* ibuf, void* cameraBuffer)
{
    if (ibuf == nullptr || cameraBuffer == nullptr) {
        TAL_LOGE("%s() fail, ibuf or grapBuf is NULL!\n", __func__);
        if (ibuf == nullptr) {
            return;
        }
    }
    ibuf->getAddr = s_getAddr;
    ibuf->getIOVA = s_getIOVA;
    ibuf->getSize = s_getSize;
    ibuf->getShareFD = s_getShareFD;
    ibuf->invalidateCache = InvalidateCache;
    ibuf->flushCache = FlushCache;
    ibuf->getGraphicBuf = s_getGraphicBuf;
    ibuf->graphicBuf = static_cast<QvCamera::ICameraBuffer*>(cameraBuffer);
    ibuf->getOffset = s_getOffset;
    ibuf->getPoolSize = s_getPoolSize;
    ibuf->getBufId = s_getBufId;
    ibuf->getDevIOVA = GetDevIOVA;
}

} // namespace qv
