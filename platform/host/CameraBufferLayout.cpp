// Stride, slice height and size of the pixel formats the host service knows.
// The alignments are listed in CameraBufferInterface.h.

#include "CameraBufferHost.h"

namespace QvCamera {
namespace host {
namespace {

struct FormatRule {
    uint32_t format;
    uint32_t strideAlign; // pixels
    uint32_t sliceAlign;  // rows
    uint32_t bytesNum;    // bytes per pixel over all planes = bytesNum / bytesDen
    uint32_t bytesDen;
};

static constexpr FormatRule kRules[] = {
    {257, 1, 1, 1, 1},         // plain bytes: width x height
    {0x21, 1, 1, 1, 1},        // BLOB
    {0x11, 64, 32, 3, 2},      // YCrCb_420_SP (NV21)
    {0x23, 64, 32, 3, 2},      // YCbCr_420_888
    {0x22, 64, 32, 3, 2},      // IMPLEMENTATION_DEFINED, laid out as YUV 4:2:0
    {0x32315659, 64, 32, 3, 2}, // YV12
    {0x10, 64, 32, 2, 1},      // YCbCr_422_SP (NV16)
    {0x14, 64, 32, 2, 1},      // YCbCr_422_I (YUY2)
    {0x1, 64, 1, 4, 1},        // RGBA_8888
    {0x2, 64, 1, 4, 1},        // RGBX_8888
    {0x5, 64, 1, 4, 1},        // BGRA_8888
    {0x3, 64, 1, 3, 1},        // RGB_888
    {0x4, 64, 1, 2, 1},        // RGB_565
    {0x20, 16, 1, 2, 1},       // RAW16
    {0x20203859, 64, 1, 1, 1}, // Y8
    {0x20363159, 64, 1, 2, 1}, // Y16
};

static constexpr uint64_t kMaxRawSize = 0x100000000ull - kPageSize;

uint64_t AlignUp(uint64_t value, uint64_t align)
{
    return (value + align - 1) / align * align;
}

const FormatRule* FindRule(uint32_t format)
{
    for (const FormatRule& rule : kRules) {
        if (rule.format == format) {
            return &rule;
        }
    }
    return nullptr;
}

} // namespace

bool CamLayoutFor(uint32_t width, uint32_t height, uint32_t format, CamLayout* out)
{
    const FormatRule* rule = FindRule(format);
    if (rule == nullptr || width == 0 || height == 0 || out == nullptr) {
        return false;
    }
    // 64-bit arithmetic: a 32-bit product of large geometries would wrap.
    uint64_t stride = AlignUp(width, rule->strideAlign);
    uint64_t slice = AlignUp(height, rule->sliceAlign);
    uint64_t raw = stride * slice * rule->bytesNum / rule->bytesDen;
    if (stride > UINT32_MAX || slice > UINT32_MAX || raw == 0 || raw > kMaxRawSize) {
        return false;
    }
    out->stride = static_cast<uint32_t>(stride);
    out->sliceHeight = static_cast<uint32_t>(slice);
    out->size = static_cast<uint32_t>(AlignUp(raw, kPageSize));
    return true;
}

} // namespace host
} // namespace QvCamera
