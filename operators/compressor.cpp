// Luminance-mask compressor: 16-bit samples to 8 bits with the shadows
// lifted. Each sample is a blend of its top byte and a power curve of the
// whole 16-bit value, weighted by a blurred mask of the luminance: bright
// surroundings keep the top byte, dark ones take the curve.
//
// Four passes: the mask (in sample 0 of each target pixel), a 17-tap clipped
// box mean along the rows into a work buffer, the same along the columns back
// into the target, and the blend.
#include <cmath>
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/box_mean.hpp"
#include "frame/compressor_mask.hpp"
#include "frame/numeric.hpp"
#include "operators/geometry.hpp"

namespace ol {
namespace {

struct CompressJob {
    int strength;
    long width, height;
    const std::uint16_t* src;  // first pixel of the area
    long srcStride;
    std::uint8_t* dst;
    long dstStride;
    int spp;
};

// Pass 1: the mask of each pixel's luminance, from the samples' top bytes.
void maskPass(const CompressJob& job) noexcept {
    // The three products of the luminance, by top byte: the same float
    // multiplies as in the pixel loop, done once.
    float tg[256], tr[256], tb[256];
    for (int v = 0; v < 256; ++v) {
        tg[v] = static_cast<float>(v) * 0.6094f;
        tr[v] = static_cast<float>(v) * 0.3086f;
        tb[v] = static_cast<float>(v) * 0.082f;
    }
    const std::uint8_t* mask = compressorMaskTables().ofLuminance;
    const int ig = job.spp > 1 ? 1 : 0, ib = job.spp > 1 ? 2 : 0;
    for (long y = 0; y < job.height; ++y) {
        const std::uint16_t* s = job.src + sizeOf(y) * sizeOf(job.srcStride);
        std::uint8_t* d = job.dst + sizeOf(y) * sizeOf(job.dstStride);
        for (long x = 0; x < job.width; ++x, s += job.spp, d += job.spp) {
            // Y = trunc((G8 * 0.6094 + R8 * 0.3086) + B8 * 0.082), single precision.
            const int Y = static_cast<int>((tg[s[ig] >> 8] + tr[s[0] >> 8]) + tb[s[ib] >> 8]);
            *d = mask[Y > 255 ? 255 : Y];
        }
    }
}

// Pass 4: each colour sample becomes trunc(t + p (1 - a)), t the top byte
// times a = mask / 255 in single precision, p = min(255, trunc(pow(c, g))).
void blendPass(const CompressJob& job, const std::int32_t* powTable) noexcept {
    const double g = job.strength * 0.01 + 0.5;
    float a[256];
    double rest[256];
    for (int m = 0; m < 256; ++m) {
        a[m] = static_cast<float>(m / 255.0);
        rest[m] = 1.0 - static_cast<double>(a[m]);
    }
    auto power = [&](int c) -> std::int32_t {
        if (powTable) return powTable[c];
        const std::int32_t p = truncToInt(std::pow(static_cast<double>(c), g));
        return p > 255 ? 255 : p;
    };
    const int ig = job.spp > 1 ? 1 : 0, ib = job.spp > 1 ? 2 : 0;
    for (long y = 0; y < job.height; ++y) {
        const std::uint16_t* s = job.src + sizeOf(y) * sizeOf(job.srcStride);
        std::uint8_t* d = job.dst + sizeOf(y) * sizeOf(job.dstStride);
        for (long x = 0; x < job.width; ++x, s += job.spp, d += job.spp) {
            // The mask is read before any channel is written (with one sample
            // a pixel it is that sample).
            const int m = d[0];
            const float am = a[m];
            const double ra = rest[m];
            const int idx[3] = {0, ig, ib};
            for (int i : idx) {
                const int c = s[i];
                const double t = static_cast<double>(static_cast<float>(c >> 8) * am);
                const std::int32_t v = truncToInt(t + static_cast<double>(power(c)) * ra);
                d[i] = static_cast<std::uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
            }
        }
    }
}

// 0 on success, -4 when the work buffer can't be allocated (the target then
// holds the unblurred mask).
int compress(const CompressJob& job) noexcept {
    maskPass(job);
    const std::size_t plane = sizeOf(job.width) * sizeOf(job.height);
    // A pow table for the 65536 sample values pays for itself once the image
    // has as many samples; it lives in the one work allocation.
    const bool tabled = plane * 3 >= 65536;
    const std::size_t tableBytes = tabled ? 65536 * sizeof(std::int32_t) : 0;
    Owned<std::uint8_t> work = makeOwned<std::uint8_t>(tableBytes + plane);
    if (!work) return -4;
    std::int32_t* powTable = nullptr;
    if (tabled) {
        powTable = reinterpret_cast<std::int32_t*>(work.get());
        const double g = job.strength * 0.01 + 0.5;
        for (int c = 0; c < 65536; ++c) {
            const std::int32_t p = truncToInt(std::pow(static_cast<double>(c), g));
            powTable[c] = p > 255 ? 255 : p;
        }
    }
    std::uint8_t* buf = work.get() + tableBytes;
    const long w = job.width, h = job.height;
    const BytePlane maskPlane{job.dst, job.spp, job.dstStride};
    clippedBoxMeanRows(maskPlane, {buf, 1, w}, static_cast<int>(w), static_cast<int>(h), 8, 8);
    clippedBoxMeanColumns({buf, 1, w}, maskPlane, static_cast<int>(w), static_cast<int>(h), 8, 8);
    blendPass(job, powTable);
    return 0;
}

// Samples a pixel: 1 (all three colours in sample 0) or at least 3.
bool colourSamples(int spp) noexcept { return spp == 1 || spp >= 3; }

}  // namespace
}  // namespace ol

extern "C" {

OL_API int comp16(int strength, int width, int height, int rowStride, int spp, const std::uint16_t* src,
                  std::uint8_t* dst) {
    if (height < 1) return 0;
    if (!ol::colourSamples(spp) || !ol::rowsFit(width, spp, rowStride) || !src || !dst) return 0;
    const ol::CompressJob job{strength, width, height, src, rowStride, dst, rowStride, spp};
    const int r = ol::compress(job);
    return r < 0 ? r : height;
}

OL_API int comp16qv(int strength, int x0, int y0, int cw, int ch, int srcRowStride, int dstRowStride, int spp,
                    const std::uint16_t* src, std::uint8_t* dst) {
    if (ch < 1) return y0;
    // A rectangle outside the source's rows, or rows that don't fit their
    // strides: nothing done, as for an empty rectangle.
    if (x0 < 0 || y0 < 0 || cw < 0 || !ol::colourSamples(spp) ||
        !ol::rowsFit(static_cast<long>(x0) + cw, spp, srcRowStride) || !ol::rowsFit(cw, spp, dstRowStride) ||
        !src || !dst)
        return y0;
    const std::uint16_t* first =
        src + ol::sizeOf(y0) * ol::sizeOf(srcRowStride) + ol::sizeOf(x0) * ol::sizeOf(spp);
    const ol::CompressJob job{strength, cw, ch, first, srcRowStride, dst, dstRowStride, spp};
    const int r = ol::compress(job);
    return r < 0 ? r : static_cast<int>(static_cast<unsigned>(y0) + static_cast<unsigned>(ch));
}

}  // extern "C"
