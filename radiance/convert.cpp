// An 8 or 16-bit picture into rgbe planes through a linearisation table,
// with the too-dark and burnt-out pixels set to neutral grey at the smallest
// and largest luminance found.
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/rgbe.hpp"

namespace ol::radiance {
namespace {

struct Extremes {
    float maxLum = 0.0f;
    float minLum = 1e11f;
};

// Pass 1 for one depth. `Sample` is the stored sample type.
template <class Sample>
void firstPass(int width, int height, int spp, int rowStride, int swapped, const float* lut,
               const Sample* src, unsigned char* rgbe, Extremes& ext) noexcept {
    const int first = 0;
    const int middle = (spp - 1) / 2;
    const int last = spp - 1;
    const int red = swapped ? last : first;
    const int blue = swapped ? first : last;
    for (int y = 0; y < height; ++y) {
        const Sample* row = src + static_cast<std::ptrdiff_t>(y) * rowStride;
        const RgbeRow out = rgbeRow(rgbe, width, y);
        for (int x = 0; x < width; ++x) {
            const Sample* px = row + static_cast<std::ptrdiff_t>(x) * spp;
            const unsigned r = px[red];
            const unsigned g = px[middle];
            const unsigned b = px[blue];
            unsigned level;
            if constexpr (sizeof(Sample) == 1) {
                level = (183 * g + 54 * r + 19 * b) >> 8;
            } else {
                // The blue term is whether the whole word is above 8, not its
                // high byte, so 16-bit levels come out slightly darker.
                level = (183 * (g >> 8) + 54 * (r >> 8) + 19 * (b > 8 ? 1u : 0u)) >> 8;
            }
            if (level < 5) {
                storeRgbe(out, x, kRgbeDark);
            } else if (level > 253) {
                storeRgbe(out, x, kRgbeBurnt);
            } else {
                const float fr = lut[r];
                const float fg = lut[g];
                const float fb = lut[b];
                const float lum = static_cast<float>(0.3 * fr + 0.6 * fg + 0.1 * fb);
                if (lum > ext.maxLum) ext.maxLum = lum;
                if (lum > 0.0f && lum < ext.minLum) ext.minLum = lum;
                storeRgbe(out, x, encodeRgbe(fr, fg, fb, RgbeForm::Wrapped, ZeroGuard::Off));
            }
        }
    }
}

}  // namespace
}  // namespace ol::radiance

using namespace ol;
using namespace ol::radiance;

extern "C" {

OL_API int convert_to_rgbe(int bps, int width, int height, int spp, int rowStride, int swapped,
                           const float* lut, const void* src, unsigned char* rgbe) {
    if (height < 1) return 0;
    Extremes ext;
    if (bps == 8) {
        firstPass(width, height, spp, rowStride, swapped, lut, static_cast<const std::uint8_t*>(src),
                  rgbe, ext);
    } else if (bps == 16) {
        firstPass(width, height, spp, rowStride, swapped, lut,
                  static_cast<const std::uint16_t*>(src), rgbe, ext);
    }
    // Any other depth reads no samples; the planes keep what they held.

    // Pass 2: markers to neutral grey. Without the zero guard a maximum that
    // stayed 0 gives a scale that is not a number: mantissas 0, exponent 128.
    const RgbePixel bright = encodeRgbe(ext.maxLum, ext.maxLum, ext.maxLum, RgbeForm::Wrapped,
                                        ZeroGuard::Off);
    const RgbePixel dark = encodeRgbe(ext.minLum, ext.minLum, ext.minLum, RgbeForm::Wrapped,
                                      ZeroGuard::Off);
    for (int y = 0; y < height; ++y) {
        const RgbeRow row = rgbeRow(rgbe, width, y);
        for (int x = 0; x < width; ++x) {
            if (row.e[x] == 255)
                storeRgbe(row, x, bright);
            else if (row.e[x] == 0)
                storeRgbe(row, x, dark);
        }
    }
    return height;
}

}  // extern "C"
