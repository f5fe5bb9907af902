#ifndef TALMEM_QVA_IBUF_H
#define TALMEM_QVA_IBUF_H

// Buffer descriptor handed to camera nodes: accessor functions plus two data
// words. Call the accessors with the descriptor itself: ibuf->getAddr(ibuf).
// The descriptor owns nothing; it stays valid while its allocation lives.

#include <cstdint>

namespace QvCamera {
class ICameraBuffer;
}

// Devices whose IOMMU address can be asked for (values 0 to 14);
// BUF_DEV_TYPE_INVALID (15) marks a value out of range.
enum BufDevType : uint32_t {
    BUF_DEV_TYPE_ISP = 0,
    BUF_DEV_TYPE_IPE = 1,
    BUF_DEV_TYPE_BPS = 2,
    BUF_DEV_TYPE_JPEG = 3,
    BUF_DEV_TYPE_GPU = 4,
    BUF_DEV_TYPE_DSP = 5,
    BUF_DEV_TYPE_NPU = 6,
    BUF_DEV_TYPE_VPU = 7,
    BUF_DEV_TYPE_DPU = 8,
    BUF_DEV_TYPE_CVP = 9,
    BUF_DEV_TYPE_LRME = 10,
    BUF_DEV_TYPE_FD = 11,
    BUF_DEV_TYPE_EVA = 12,
    BUF_DEV_TYPE_VENC = 13,
    BUF_DEV_TYPE_VDEC = 14,
    BUF_DEV_TYPE_INVALID = 15,
};

struct qva_ibuf {
    void* (*getAddr)(const qva_ibuf* ibuf);            // CPU address
    uint64_t (*getIOVA)(const qva_ibuf* ibuf);          // device address, default device
    uint32_t (*getSize)(const qva_ibuf* ibuf);          // byte size
    int32_t (*getShareFD)(const qva_ibuf* ibuf);        // share fd, owned by the buffer
    int32_t (*invalidateCache)(const qva_ibuf* ibuf);   // 1 done, 0 error
    int32_t (*flushCache)(const qva_ibuf* ibuf);        // 1 done, 0 error
    void* (*getGraphicBuf)(const qva_ibuf* ibuf);       // the raw camera buffer
    QvCamera::ICameraBuffer* graphicBuf;                // not owning
    void* priv;                                         // the library's chunk record
    uint32_t (*getOffset)(const qva_ibuf* ibuf);        // offset inside the pool chunk
    uint32_t (*getPoolSize)(const qva_ibuf* ibuf);      // size of the whole pool chunk
    int32_t (*getBufId)(const qva_ibuf* ibuf);          // buffer id
    uint64_t (*getDevIOVA)(const qva_ibuf* ibuf, BufDevType type); // device address for type
    uint32_t (*getStride)(const qva_ibuf* ibuf);
    uint32_t (*getSliceHeight)(const qva_ibuf* ibuf);
};

#endif // TALMEM_QVA_IBUF_H
