// Two-image combination: two exposures of a stack blended in one pass under a
// blurred mask of the darker one. Where the darker image is bright the result
// leans to it (highlights from the short exposure); elsewhere it takes the
// brighter one (shadows from the long exposure).
//
// Steps: which image is brighter (a grid of about 2500 points), the mask of
// the dark image in the first byte of each target pixel, a clipped box mean
// of 20 columns (x-10..x+9) into a work buffer and of 21 rows (y-10..y+10)
// back into the target, and the blend a = mask / 256 per pixel.
#include <cstddef>
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/box_mean.hpp"
#include "frame/compressor_mask.hpp"
#include "frame/grid_sampling.hpp"
#include "frame/levels.hpp"
#include "frame/numeric.hpp"

namespace ol {
namespace {

struct TwoImages {
    long w, h, spp, rowStride;
    bool swap;
    ColourPositions pos;
};

// Grid step of the brightness comparison: every pixel of a dimension of at
// most 50, otherwise size / 50 + 1.
int brightnessStep(int size) noexcept { return size <= 50 ? 1 : gridStep(size); }

// Sum of the levels of first, middle and last over the grid, divided by
// spp * 2500 (a fixed divisor: the value only serves the comparison).
template <class T>
unsigned gridBrightness(const T* img, const TwoImages& j) noexcept {
    unsigned sum = 0;
    const int w = static_cast<int>(j.w), h = static_cast<int>(j.h);
    forEachGridPoint(w, h, brightnessStep(w), brightnessStep(h), [&](int x, int y) {
        const T* p = img + (static_cast<std::size_t>(y) * j.w + x) * j.spp;
        sum += static_cast<unsigned>(highByte(p[0]) + highByte(p[j.pos.middle]) + highByte(p[j.pos.last]));
    });
    return sum / (static_cast<unsigned>(j.spp) * 2500u);
}

// The mask of the dark image, one byte a pixel in the mask plane.
template <class T>
void maskPass(const T* dark, const TwoImages& j, BytePlane mask) noexcept {
    const std::uint8_t* table = compressorMaskTables().ofLevelSum;
    for (long y = 0; y < j.h; ++y) {
        const T* p = dark + static_cast<std::size_t>(y) * j.w * j.spp;
        std::uint8_t* m = mask.base + y * mask.rowStep;
        for (long x = 0; x < j.w; ++x, p += j.spp, m += mask.pixelStep)
            *m = table[highByte(p[0]) + highByte(p[j.pos.middle]) + highByte(p[j.pos.last])];
    }
}

// Writes a pixel's three results: offset 0, then the middle, then the last
// offset (with one or two samples a pixel, later writes win).
template <class O>
inline void writePixel(O* d, const TwoImages& j, std::int32_t first, std::int32_t mid, std::int32_t last) noexcept {
    d[0] = static_cast<O>(j.swap ? last : first);
    d[j.pos.middle] = static_cast<O>(mid);
    d[j.pos.last] = static_cast<O>(j.swap ? first : last);
}

// 8-bit source. With a = m / 256 and b = 1 - a both exact in float, the float
// sum bright * b + dark * a is exactly (bright (256 - m) + dark m) / 256, so
// its truncation (and that of the exact double product by 255) is an integer
// shift, already inside the target's range.
template <int SPP, class O>
void blend8(const std::uint8_t* bright, const std::uint8_t* dark, const TwoImages& j, ConstBytePlane mask,
            O* out) noexcept {
    const long spp = SPP ? SPP : j.spp;
    const int c1 = SPP ? (SPP - 1) / 2 : j.pos.middle, c2 = SPP ? SPP - 1 : j.pos.last;
    for (long y = 0; y < j.h; ++y) {
        const std::size_t srow = static_cast<std::size_t>(y) * j.w * spp;
        const std::uint8_t* pb = bright + srow;
        const std::uint8_t* pd = dark + srow;
        O* d = out + static_cast<std::size_t>(y) * j.rowStride;
        const std::uint8_t* m = mask.base + y * mask.rowStep;
        const std::ptrdiff_t ms = mask.pixelStep;
        auto v = [](std::uint32_t b, std::uint32_t dk, std::uint32_t a) {
            const std::uint32_t num = b * (256 - a) + dk * a;
            return static_cast<O>(sizeof(O) == 1 ? num >> 8 : (num * 255u) >> 8);
        };
        for (long x = 0; x < j.w; ++x) {
            const std::uint32_t a = m[x * ms];
            const long i = x * spp;
            const O first = v(pb[i], pd[i], a), mid = v(pb[i + c1], pd[i + c1], a), last = v(pb[i + c2], pd[i + c2], a);
            d[i] = j.swap ? last : first;
            d[i + c1] = mid;
            d[i + c2] = j.swap ? first : last;
        }
    }
}

template <class O>
void blend8(const std::uint8_t* bright, const std::uint8_t* dark, const TwoImages& j, ConstBytePlane mask,
            O* out) noexcept {
    if (j.spp == 3)
        blend8<3>(bright, dark, j, mask, out);
    else if (j.spp == 4)
        blend8<4>(bright, dark, j, mask, out);
    else
        blend8<0>(bright, dark, j, mask, out);
}

// 16-bit source: float products as written, 16-bit samples out. The mask is
// read just before its pixel is written: with an 8-bit mask spacing the
// 16-bit writes reach the mask bytes of later pixels, and they then read what
// was written there.
void blend16(const std::uint16_t* bright, const std::uint16_t* dark, const TwoImages& j, ConstBytePlane mask,
             std::uint16_t* out) noexcept {
    const int c[3] = {0, j.pos.middle, j.pos.last};
    for (long y = 0; y < j.h; ++y) {
        const std::size_t srow = static_cast<std::size_t>(y) * j.w * j.spp;
        std::uint16_t* d = out + static_cast<std::size_t>(y) * j.rowStride;
        const std::uint8_t* m = mask.base + y * mask.rowStep;
        for (long x = 0; x < j.w; ++x, d += j.spp, m += mask.pixelStep) {
            const float a = static_cast<float>(*m * 0.00390625);
            const float b = static_cast<float>(1.0 - a);
            const std::uint16_t* pb = bright + srow + x * j.spp;
            const std::uint16_t* pd = dark + srow + x * j.spp;
            std::int32_t v[3];
            for (int k = 0; k < 3; ++k) {
                const float f = static_cast<float>(pb[c[k]]) * b + static_cast<float>(pd[c[k]]) * a;
                const std::int32_t t = truncToInt(f);
                v[k] = t < 0 ? 0 : (t > 65535 ? 65535 : t);
            }
            writePixel(d, j, v[0], v[1], v[2]);
        }
    }
}

template <class T>
int combine(int ia, int ib, const TwoImages& j, int bpsIn, int bpsOut, const void* images, void* dst) noexcept {
    const T* stack = static_cast<const T*>(images);
    const std::size_t frame = static_cast<std::size_t>(j.w) * j.h * j.spp;
    const bool work = bpsIn == 8 || bpsIn == 16;
    // The larger grid brightness is the bright image; a tie (or a depth that
    // skips the comparison) makes ib the bright one.
    int bright = ib, dark = ia;
    if (work && gridBrightness(stack + ia * frame, j) > gridBrightness(stack + ib * frame, j)) bright = ia, dark = ib;

    const long outBytes = bpsOut / 8;
    const BytePlane mask{static_cast<std::uint8_t*>(dst), j.spp * outBytes, j.rowStride * outBytes};
    const int w = static_cast<int>(j.w), h = static_cast<int>(j.h);
    const std::size_t plane = static_cast<std::size_t>(j.w) * j.h;
    // Where the blend overwrites every mask byte of the target (the mask sits
    // in sample 0 of its own pixel), the mask and its blur run on a packed
    // plane of the work allocation instead: the same bytes, in less memory
    // traffic. A 16-bit source with the 8-bit spacing (whose blend reads mask
    // bytes that earlier pixels overwrote) and a depth without a blend keep
    // the mask in the target.
    const bool packed = work && !(sizeof(T) == 2 && bpsOut == 8);
    Owned<std::uint8_t> buf = makeOwnedZeroed<std::uint8_t>(packed ? 2 * plane : plane);
    if (!buf) {
        if (work) maskPass(stack + dark * frame, j, mask);
        return -4;
    }
    const BytePlane blurred = packed ? BytePlane{buf.get() + plane, 1, j.w} : mask;
    if (work) maskPass(stack + dark * frame, j, blurred);
    clippedBoxMeanRows(blurred, {buf.get(), 1, j.w}, w, h, 10, 9);
    clippedBoxMeanColumns({buf.get(), 1, j.w}, blurred, w, h, 10, 10);

    if (!work) return h;
    const T* pb = stack + bright * frame;
    const T* pd = stack + dark * frame;
    if constexpr (sizeof(T) == 2) {
        blend16(pb, pd, j, blurred, static_cast<std::uint16_t*>(dst));
    } else if (bpsOut == 8) {
        blend8(pb, pd, j, blurred, static_cast<std::uint8_t*>(dst));
    } else {
        blend8(pb, pd, j, blurred, static_cast<std::uint16_t*>(dst));
    }
    return h;
}

}  // namespace
}  // namespace ol

extern "C" {

// Returns height when done, -4 when the work buffer can't be allocated (the
// target then holds the unblurred mask).
//
// Arguments that would take the literal reading outside the buffers are
// refused with 0 and nothing touched: a size below 1, a negative image index,
// spp below 1, a stride shorter than a row, a target depth other than 8 or 16
// (the mask spacing is bpsOut / 8 bytes a sample) and null buffers. A width or
// height of 1 leaves box windows without a position: their mean is taken as
// 0, so such an image comes out as the bright image.
OL_API int ol_combi_2images(int unused, int ia, int ib, int width, int height, int rowStride, int swap, int bpsIn,
                            int bpsOut, int spp, const void* images, void* dst) {
    (void)unused;
    if (width < 1 || height < 1 || spp < 1 || ia < 0 || ib < 0 || !dst) return 0;
    if (bpsOut != 8 && bpsOut != 16) return 0;
    if (static_cast<long long>(rowStride) < static_cast<long long>(width) * spp) return 0;
    const bool work = bpsIn == 8 || bpsIn == 16;
    if (work && !images) return 0;
    const ol::TwoImages j{width, height, spp, rowStride, swap != 0, ol::colourPositions(spp)};
    if (bpsIn == 16) return ol::combine<std::uint16_t>(ia, ib, j, bpsIn, bpsOut, images, dst);
    return ol::combine<std::uint8_t>(ia, ib, j, bpsIn, bpsOut, images, dst);
}

}  // extern "C"
