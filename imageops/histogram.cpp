// Histograms for the host's display: histcolors, histlum and hist16 on an
// `ldr image`, getHisto32 and hist32info on `rgbe planes`.
//
// Counts go first into local tables (two copies for alternating pixels, so
// that neighbouring equal samples don't wait on each other's stores) and are
// added to the caller's counters at the end, in 32-bit unsigned arithmetic:
// a counter wraps rather than overflows. The sums are the same whatever the
// order of adding.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "frame/clones.hpp"
#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"
#include "imageops/layout.hpp"

namespace ol::imageops {
namespace {

inline void addCounts(std::int32_t* hist, const std::uint32_t* counts, int n) noexcept {
    for (int i = 0; i < n; ++i)
        hist[i] = static_cast<std::int32_t>(static_cast<std::uint32_t>(hist[i]) + counts[i]);
}

inline int level8(std::uint8_t v) noexcept { return v; }
inline int level8(std::uint16_t v) noexcept { return v >> 8; }

// A walk over the pixels of an image whose rows start `rowStep` samples
// apart. With two samples a pixel, sample 2 is the next pixel's first: a
// read of it past the image's last sample counts as 0.
template <class T, class PerPixel>
void walkPixels(int width, int height, std::int64_t rowStep, int spp, const T* data,
                PerPixel&& perPixel) noexcept {
    const Positions pos = fixed012(spp);
    const std::int64_t end = extentOf(height, rowStep, static_cast<std::int64_t>(width) * spp);
    for (int y = 0; y < height; ++y) {
        const std::int64_t row = y * rowStep;
        const T* p = data + row;
        int n = width;
        if (spp == 2 && width > 0 && row + 2 * static_cast<std::int64_t>(width) >= end) --n;  // below
        if (spp == 1) {
            for (int x = 0; x < n; ++x) perPixel(p[x], p[x], p[x], x);
        } else if (spp == 3) {
            for (int x = 0; x < n; ++x, p += 3) perPixel(p[0], p[1], p[2], x);
        } else {
            for (int x = 0; x < n; ++x, p += spp) perPixel(p[pos.p0], p[pos.p1], p[pos.p2], x);
        }
        if (n < width) {
            const std::int64_t i = row + static_cast<std::int64_t>(n) * spp;
            const T third = i + 2 < end ? data[i + 2] : T(0);
            perPixel(data[i], data[i + 1], third, n);
        }
    }
}

template <class T>
void countColours(int width, int height, std::int64_t rowStep, int spp, const T* data,
                  std::int32_t* hist2, std::int32_t* hist1, std::int32_t* hist0) noexcept {
    std::uint32_t c[2][3][256];
    std::memset(c, 0, sizeof c);
    walkPixels(width, height, rowStep, spp, data, [&](T s0, T s1, T s2, int x) {
        std::uint32_t(*t)[256] = c[x & 1];
        ++t[0][level8(s0)];
        ++t[1][level8(s1)];
        ++t[2][level8(s2)];
    });
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < 256; ++i) c[0][k][i] += c[1][k][i];
    addCounts(hist0, c[0][0], 256);
    addCounts(hist1, c[0][1], 256);
    addCounts(hist2, c[0][2], 256);
}

// The level loop of three-sample pixels: plain integer arithmetic, so every
// instruction set gives the same bytes; where the compiler can build it, a
// second copy for AVX2 (chosen at load time) handles 32 pixels a step.
#define OL_WIDE_CLONES OL_AVX2_CLONES
OL_WIDE_CLONES void levels3(const std::uint8_t* p, int n, std::uint8_t* lv) noexcept {
    for (int i = 0; i < n; ++i)
        lv[i] = static_cast<std::uint8_t>((54 * p[3 * i + 2] + 183 * p[3 * i + 1] + 19 * p[3 * i]) >> 8);
}
// hist16's bins (s >> 15) and running luminance range (s >> 8) of n pixels.
OL_WIDE_CLONES void sums16(const std::uint16_t* p, int n, std::uint16_t* bin, std::uint32_t* lo,
                           std::uint32_t* hi) noexcept {
    std::uint32_t a = *lo, b = *hi;
    for (int i = 0; i < n; ++i) {
        const std::uint32_t s = 54u * p[3 * i + 2] + 183u * p[3 * i + 1] + 19u * p[3 * i];
        bin[i] = static_cast<std::uint16_t>(s >> 15);
        a = std::min(a, s >> 8);
        b = std::max(b, s >> 8);
    }
    *lo = a;
    *hi = b;
}
// getHisto32's levels from the three mantissa runs of a row.
OL_WIDE_CLONES void levelsPlanes(const std::uint8_t* r, const std::uint8_t* g, const std::uint8_t* b, int n,
                                 std::uint8_t* lv) noexcept {
    for (int i = 0; i < n; ++i) lv[i] = static_cast<std::uint8_t>((54 * r[i] + 183 * g[i] + 19 * b[i]) >> 8);
}
void levels3(const std::uint16_t* p, int n, std::uint8_t* lv) noexcept {
    for (int i = 0; i < n; ++i)
        lv[i] = static_cast<std::uint8_t>((54 * (p[3 * i + 2] >> 8) + 183 * (p[3 * i + 1] >> 8) + 19 * (p[3 * i] >> 8)) >> 8);
}

template <class T>
void countLuminance(int width, int height, std::int64_t rowStep, int spp, const T* data,
                    std::int32_t* hist) noexcept {
    std::uint32_t c[4][256];
    std::memset(c, 0, sizeof c);
    if (spp == 3) {
        // Levels of a run of pixels first (a loop without stores to the
        // counters), then the counting, four pixels to four tables.
        constexpr int kRun = 1024;
        std::uint8_t lv[kRun];
        for (int y = 0; y < height; ++y)
            for (int x0 = 0; x0 < width; x0 += kRun) {
                const int n = std::min(kRun, width - x0);
                const T* p = data + y * rowStep + static_cast<std::int64_t>(x0) * 3;
                levels3(p, n, lv);
                int i = 0;
                for (; i + 4 <= n; i += 4) ++c[0][lv[i]], ++c[1][lv[i + 1]], ++c[2][lv[i + 2]], ++c[3][lv[i + 3]];
                for (; i < n; ++i) ++c[0][lv[i]];
            }
    } else {
        walkPixels(width, height, rowStep, spp, data, [&](T s0, T s1, T s2, int x) {
            ++c[x & 3][(54 * level8(s2) + 183 * level8(s1) + 19 * level8(s0)) >> 8];
        });
    }
    for (int i = 0; i < 256; ++i) c[0][i] += c[1][i] + c[2][i] + c[3][i];
    addCounts(hist, c[0], 256);
}

// Bin of a radiance level (0..255) under exponent byte e (1..255).
inline int radianceBin(int level, int e, const float* table, float logMin, float scale) noexcept {
    const float value = static_cast<float>(level) * table[e];
    const std::int32_t bin =
        truncToInt((std::log(static_cast<double>(value)) - static_cast<double>(logMin)) * static_cast<double>(scale));
    return bin < 0 ? 0 : (bin >= 512 ? 511 : bin);
}

}  // namespace
}  // namespace ol::imageops

using namespace ol::imageops;

extern "C" {

int histcolors(int width, int height, int rowStride, int spp, int bps, const void* data,
               int32_t* hist2, int32_t* hist1, int32_t* hist0) {
    if (height < 1) return 0;
    if (bps != 8 && bps != 16) return spp;
    if (spp < 1 || rowStride < 0) return 0;
    if (width < 0) width = 0;
    // Spare samples are skipped only when the stride is longer than a row.
    const std::int64_t row = static_cast<std::int64_t>(width) * spp;
    const std::int64_t step = row < rowStride ? rowStride : row;
    if (bps == 8)
        countColours(width, height, step, spp, static_cast<const std::uint8_t*>(data), hist2, hist1, hist0);
    else
        countColours(width, height, step, spp, static_cast<const std::uint16_t*>(data), hist2, hist1, hist0);
    return height;
}

int histlum(int width, int height, int rowStride, int spp, int bps, const void* data, int32_t* hist) {
    if (height < 1) return 0;
    if (bps != 8 && bps != 16) return bps;
    if (spp < 1 || rowStride < 0) return 0;
    if (width < 0) width = 0;
    // Rows start rowStride samples apart in every case.
    if (bps == 8)
        countLuminance(width, height, rowStride, spp, static_cast<const std::uint8_t*>(data), hist);
    else
        countLuminance(width, height, rowStride, spp, static_cast<const std::uint16_t*>(data), hist);
    return height;
}

int hist16(uint32_t width, uint32_t height, uint32_t rowStride, int spp, const uint16_t* data,
           float* range, int32_t* hist) {
    std::uint32_t lo = 65535, hi = 0;
    if (height > 0 && width > 0) {
        if (spp < 1 || width > INT32_MAX || height > INT32_MAX) return 0;
        const std::int64_t row = static_cast<std::int64_t>(width) * spp;
        const std::int64_t step = row < static_cast<std::int64_t>(rowStride) ? rowStride : row;
        std::uint32_t c[2][512];
        std::memset(c, 0, sizeof c);
        if (spp == 3) {
            constexpr int kRun = 1024;
            std::uint16_t bin[kRun];
            for (std::int64_t y = 0; y < height; ++y)
                for (std::int64_t x0 = 0; x0 < width; x0 += kRun) {
                    const int n = static_cast<int>(std::min<std::int64_t>(kRun, width - x0));
                    sums16(data + y * step + x0 * 3, n, bin, &lo, &hi);
                    int i = 0;
                    for (; i + 2 <= n; i += 2) ++c[0][bin[i]], ++c[1][bin[i + 1]];
                    for (; i < n; ++i) ++c[0][bin[i]];
                }
        } else
        walkPixels(static_cast<int>(width), static_cast<int>(height), step, spp, data,
                   [&](std::uint16_t s0, std::uint16_t s1, std::uint16_t s2, int x) {
                       const std::uint32_t s = 54u * s2 + 183u * s1 + 19u * s0;
                       const std::uint32_t lum = s >> 8;
                       lo = lum < lo ? lum : lo;
                       hi = lum > hi ? lum : hi;
                       ++c[x & 1][s >> 15];
                   });
        for (int i = 0; i < 512; ++i) c[0][i] += c[1][i];
        addCounts(hist, c[0], 512);
    }
    range[0] = static_cast<float>(lo);
    range[1] = static_cast<float>(hi);
    return static_cast<int>(height);
}

int getHisto32(int width, int height, const unsigned char* rgbe, const float* range, int32_t* hist) {
    if (height < 1) return 0;
    if (width < 1) return width < 0 ? 0 : height;
    const float* table = ol::rgbeExpTable().v;
    const float logMin = static_cast<float>(std::log(static_cast<double>(range[0])));
    const float logMax = static_cast<float>(std::log(static_cast<double>(range[1])));
    const float scale = 511.0f / (logMax - logMin);
    // The bin depends only on the level and the exponent byte: a table of
    // both, filled for an exponent when it first occurs; exponent 0 points
    // to a 513th counter that is dropped. Without memory for the table,
    // every pixel takes the logarithm itself (same bins).
    ol::Owned<std::uint16_t> bins = ol::makeOwned<std::uint16_t>(256 * 256);
    bool ready[256] = {};
    std::uint32_t c[2][513];
    std::memset(c, 0, sizeof c);
    if (bins) {
        std::fill(bins.get(), bins.get() + 256, std::uint16_t(512));
        ready[0] = true;
    }
    const std::size_t w = static_cast<std::size_t>(width);
    constexpr int kRun = 1024;
    std::uint8_t lv[kRun];
    for (int y = 0; y < height; ++y) {
        const unsigned char* r = rgbe + static_cast<std::size_t>(y) * 4 * w;
        const unsigned char* g = r + w;
        const unsigned char* b = g + w;
        const unsigned char* e = b + w;
        if (!bins) {
            for (std::size_t x = 0; x < w; ++x)
                if (e[x] != 0) ++c[0][radianceBin((54 * r[x] + 183 * g[x] + 19 * b[x]) >> 8, e[x], table, logMin, scale)];
            continue;
        }
        for (std::size_t x = 0; x < w; ++x) {
            const int ex = e[x];
            if (ready[ex]) continue;
            for (int l = 0; l < 256; ++l)
                bins[ex * 256 + l] = static_cast<std::uint16_t>(radianceBin(l, ex, table, logMin, scale));
            ready[ex] = true;
        }
        for (std::size_t x0 = 0; x0 < w; x0 += kRun) {
            const int n = static_cast<int>(std::min<std::size_t>(kRun, w - x0));
            levelsPlanes(r + x0, g + x0, b + x0, n, lv);
            const unsigned char* ex = e + x0;
            int i = 0;
            for (; i + 2 <= n; i += 2) ++c[0][bins[ex[i] * 256 + lv[i]]], ++c[1][bins[ex[i + 1] * 256 + lv[i + 1]]];
            for (; i < n; ++i) ++c[0][bins[ex[i] * 256 + lv[i]]];
        }
    }
    for (int i = 0; i < 512; ++i) c[0][i] += c[1][i];
    addCounts(hist, c[0], 512);
    return height;
}

int hist32info(const float* range, int mode, const int32_t* hist, float* info) {
    float lo, hi;
    if (mode == 16) {
        lo = range[0];
        hi = range[1];
    } else {
        lo = static_cast<float>(std::log(static_cast<double>(range[0])));
        hi = static_cast<float>(std::log(static_cast<double>(range[1])));
    }
    const float span = hi - lo;
    const float binWidth = static_cast<float>(static_cast<double>(span) * 0.001953125);
    const float low = info[0] > 0.0f && static_cast<double>(info[0]) < 100.1 ? info[0] : 0.3f;
    const float high = info[1] > 0.0f && static_cast<double>(info[1]) < 100.1 ? info[1] : 100.0f;
    auto valueAt = [&](int bin) -> float {
        const float v = lo + static_cast<float>(bin) * binWidth;
        return mode == 32 ? static_cast<float>(std::exp(static_cast<double>(v))) : v;
    };
    // Totals in 64 bits: a large picture's sum of bin times count passes 2^31.
    std::int64_t total = 0, weighted = 0;
    std::int32_t largest = 0;
    for (int i = 0; i < 512; ++i) {
        total += hist[i];
        weighted += static_cast<std::int64_t>(i) * hist[i];
        if (hist[i] > largest) largest = hist[i];
    }
    auto firstAbove = [&](std::int64_t threshold) {
        std::int64_t run = 0;
        for (int i = 0; i < 512; ++i) {
            run += hist[i];
            if (run > threshold) return i;
        }
        return 512;
    };
    // The percentile thresholds in float, as total*percent/100.
    const std::int64_t lowCount = ol::truncToInt(static_cast<float>(total) * low / 100.0f);
    const std::int64_t highCount = ol::truncToInt(static_cast<float>(total) * high / 100.0f);
    info[0] = valueAt(128);
    info[1] = valueAt(256);
    info[2] = valueAt(384);
    info[3] = valueAt(512);
    info[4] = total != 0 ? valueAt(static_cast<int>(weighted / total)) : 0.0f;
    info[5] = valueAt(firstAbove(total / 2));
    info[6] = valueAt(firstAbove(lowCount));
    info[7] = valueAt(firstAbove(highCount));
    info[8] = static_cast<float>(largest);
    info[9] = static_cast<float>(static_cast<double>(span) / std::log(2.0));
    return static_cast<int>(static_cast<std::uint32_t>(total));
}

}  // extern "C"
