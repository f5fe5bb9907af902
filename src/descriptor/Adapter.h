#ifndef TALMEM_DESCRIPTOR_ADAPTER_H
#define TALMEM_DESCRIPTOR_ADAPTER_H

#include "talmem/qva_ibuf.h"

namespace qv {

// Fills `ibuf` with accessors that wrap a camera buffer that did not come
// from the pool (`cameraBuffer` is a QvCamera::ICameraBuffer*, not owned: the
// caller keeps it alive while the descriptor is used). getStride,
// getSliceHeight and priv are left as they were. A null `ibuf` is logged and
// ignored; a null `cameraBuffer` is logged and still stored.
void convert2IBuf(qva_ibuf* ibuf, void* cameraBuffer);

} // namespace qv

#endif // TALMEM_DESCRIPTOR_ADAPTER_H
