// Previews of rgbe planes at one exposure scale: full size (rgbe_rep) and
// point-sampled to a smaller size (hdr_rep8). Output pixels are blue, green,
// red bytes.
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"

namespace ol {
namespace {

inline std::uint8_t scaledByte(std::uint8_t mantissa, float m) noexcept {
    float v = static_cast<float>(mantissa) * m;
    if (v > 255.0f) v = 255.0f;
    if (v < 0.0f) v = 0.0f;
    // A NaN (a mean so small that the scale is infinite, times 0) gives 0.
    return clampToByte(truncToInt(v));
}

// Writes one preview pixel from column x of a source row.
inline void previewPixel(const RgbeRow& src, int x, float scale, const float* table,
                         std::uint8_t* out) noexcept {
    const std::uint8_t e = src.e[x];
    if (e == 0) {
        out[0] = out[1] = out[2] = 0;
        return;
    }
    const float m = scale * table[e];
    out[0] = scaledByte(src.b[x], m);
    out[1] = scaledByte(src.g[x], m);
    out[2] = scaledByte(src.r[x], m);
}

inline float previewScale(float mean) noexcept { return mean > 0.0f ? 128.0f / mean : 1.0f; }

// The exponent table of one call; empty when it cannot be allocated.
inline Owned<float> previewTable() noexcept {
    Owned<float> table = makeOwned<float>(256);
    if (table) fillRgbeExpTable(table.get());
    return table;
}

}  // namespace
}  // namespace ol

extern "C" {

int rgbe_rep(int width, int height, int dstStride, float mean, const unsigned char* rgbe,
             unsigned char* dst) {
    using namespace ol;
    if (height < 1) return 0;
    const Owned<float> owned = previewTable();
    if (!owned) return -4;
    const float* table = owned.get();
    const float scale = previewScale(mean);
    auto* planes = const_cast<std::uint8_t*>(rgbe);
    for (int y = 0; y < height; ++y) {
        const RgbeRow src = rgbeRow(planes, width, y);
        std::uint8_t* out = dst + static_cast<std::ptrdiff_t>(y) * dstStride;
        for (int x = 0; x < width; ++x) previewPixel(src, x, scale, table, out + 3 * x);
    }
    return height;
}

int hdr_rep8(int width, int height, int outWidth, int outHeight, int dstStride, float mean,
             const unsigned char* rgbe, unsigned char* dst) {
    using namespace ol;
    if (outHeight < 1) return 0;
    // Nothing to sample from, or no column to write.
    if (width < 1 || height < 1 || outWidth < 1) return 0;
    const Owned<float> owned = previewTable();
    if (!owned) return -4;
    const float* table = owned.get();
    const float scale = previewScale(mean);
    // One ratio for both axes, from the widths.
    const float ratio = static_cast<float>(width) / static_cast<float>(outWidth);
    auto* planes = const_cast<std::uint8_t*>(rgbe);
    auto sourceIndex = [ratio](int i, int limit) {
        int s = truncToInt(static_cast<float>(i) * ratio);
        if (s > limit) s = limit;
        if (s < 0) s = 0;  // only an overflowing product gets here
        return s;
    };
    for (int j = 0; j < outHeight; ++j) {
        const RgbeRow src = rgbeRow(planes, width, sourceIndex(j, height - 1));
        std::uint8_t* out = dst + static_cast<std::ptrdiff_t>(j) * dstStride;
        for (int i = 0; i < outWidth; ++i)
            previewPixel(src, sourceIndex(i, width - 1), scale, table, out + 3 * i);
    }
    return outHeight;
}

}  // extern "C"
