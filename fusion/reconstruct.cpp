// Reconstruction: the fused pyramid is collapsed in place, coarsest level
// first, and the full-size result is finished (saturation, midtone, black
// and white points) into the output samples.
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "frame/alloc.hpp"
#include "frame/clones.hpp"
#include "frame/numeric.hpp"
#include "frame/trace.hpp"
#include "fusion/bands.hpp"
#include "fusion/expand.hpp"
#include "fusion/pyramid.hpp"
#include "fusion/stages.hpp"

namespace ol {
namespace {

// One span of a 16-bit level: the bias of 32767 removed, the expansion
// added, clamped to 0..65535.
OL_AVX2_CLONES
void collapseSpan16(const std::int32_t* __restrict up, std::uint16_t* __restrict d, int count) noexcept {
    for (int j = 0; j < count; ++j) {
        std::int32_t v = static_cast<std::int32_t>(d[j]) - 32767 + up[j];
        v = v < 0 ? 0 : v;
        v = v > 65535 ? 65535 : v;
        d[j] = static_cast<std::uint16_t>(v);
    }
}

}  // namespace

void fusion31et32(int wFine, int hFine, int wCoarse, int hCoarse, int channels,
                  int bitDepthFusion, int wrapX, int initFine, int initCoarse, void* scratch,
                  void* fused, int threads) noexcept {
    if constexpr (traceStats)
        std::fprintf(stderr,
                     "fusion31et32  up %d x %d   to  %d x %d    total coarse: %d  fine: %d  -  initFine: %d  coarse: %d\n",
                     wCoarse, hCoarse, wFine, hFine, wCoarse * hCoarse, wFine * hFine, initFine,
                     initCoarse);
    const bool wrap = wrapX != 0;
    const std::size_t rowSamples = static_cast<std::size_t>(wFine) * channels;
    if (bitDepthFusion == 16) {
        auto* f16 = static_cast<std::uint16_t*>(fused);
        const std::uint16_t* coarse = f16 + initCoarse;
        const int span = spanPixels(channels);
        runBands(threads, hFine, rowSamples, [&](int first, int count) {
        std::int32_t up[kSpanSamples];
        for (int y = first; y < first + count; ++y) {
            std::uint16_t* dst = f16 + initFine + y * rowSamples;
            // Removing the bias of 32767 leaves the finished level.
            if (span < 2) {
                expandRow(coarse, y, wFine, hFine, wCoarse, channels, wrap,
                          [dst, channels](int x, int c, std::int32_t u) {
                              const std::size_t f = static_cast<std::size_t>(x) * channels + c;
                              const std::int32_t v = static_cast<std::int32_t>(dst[f]) - 32767 + u;
                              dst[f] = static_cast<std::uint16_t>(v < 0 ? 0 : (v > 65535 ? 65535 : v));
                          });
                continue;
            }
            for (int x0 = 0; x0 < wFine; x0 += span) {
                const int n = wFine - x0 < span ? wFine - x0 : span;
                expandSpan16(coarse, y, wFine, hFine, wCoarse, channels, wrap, x0, n, up);
                collapseSpan16(up, dst + static_cast<std::size_t>(x0) * channels, n * channels);
            }
        }
        });
        if constexpr (traceStats) {
            const int x = wFine / 2, y = hFine / 2;
            std::fprintf(stderr, "  up:  %d     Coarse: %d       Res: %d     at %d %d\n", 0,
                         coarse[(static_cast<std::size_t>(y / 2) * wCoarse + x / 2) * channels],
                         f16[initFine + y * rowSamples + static_cast<std::size_t>(x) * channels], x, y);
        }
    } else if (bitDepthFusion == 32) {
        auto* ff = static_cast<float*>(fused);
        const float* coarse = ff + initCoarse;
        runBands(threads, hFine, rowSamples, [&](int first, int count) {
            for (int y = first; y < first + count; ++y) {
                float* dst = ff + initFine + y * rowSamples;
                expandRow(coarse, y, wFine, hFine, wCoarse, channels, wrap,
                          [dst, channels](int x, int c, float up) {
                              dst[static_cast<std::size_t>(x) * channels + c] += up;
                          });
            }
        });
        if constexpr (traceStats) {
            const int o1 = (channels - 1) / 2, o2 = channels - 1;
            const std::size_t i = static_cast<std::size_t>(initFine);
            const std::size_t j = static_cast<std::size_t>(initCoarse);
            std::fprintf(stderr, "   Coarse: %1.2f %1.2f %1.2f     Lapl: %1.2f %1.2f %1.2f     at %d %d\n",
                         static_cast<double>(ff[j]), static_cast<double>(ff[j + o1]),
                         static_cast<double>(ff[j + o2]), static_cast<double>(ff[i]),
                         static_cast<double>(ff[i + o1]), static_cast<double>(ff[i + o2]), 0, 0);
        }
    }
}

// The fractions of a turn are double constants: the shifts, the thresholds
// and the falling branch are taken in double and rounded to float once (the
// rising branch has only whole constants and stays in float).
float hue_to_channel(float p, float q, float t) noexcept {
    if (t < 0.0f) t += 1.0f;
    if (t > 1.0f) t -= 1.0f;
    if (t < 1.0 / 6.0) return p + (q - p) * 6.0f * t;
    if (t < 0.5) return q;
    if (t < 2.0 / 3.0) return static_cast<float>(p + (q - p) * (2.0 / 3.0 - t) * 6.0);
    return p;
}

int rgb_to_hsl(const float* rgb, float* hsl) noexcept {
    const float r = rgb[0], g = rgb[1], b = rgb[2];
    float mx = r, mn = r;
    if (g > mx) mx = g;
    if (b > mx) mx = b;
    if (g < mn) mn = g;
    if (b < mn) mn = b;
    const float l = (mx + mn) * 0.5f;
    float h = 0.0f, s = 0.0f;
    if (mx != mn) {
        const float d = mx - mn;
        s = l < 0.5f ? d / (mx + mn) : d / (2.0f - mx - mn);
        if (mx == r)
            h = (g - b) / d + (g < b ? 6.0f : 0.0f);
        else if (mx == g)
            h = (b - r) / d + 2.0f;
        else
            h = (r - g) / d + 4.0f;
        h /= 6.0f;
    }
    hsl[0] = h;
    hsl[1] = s;
    hsl[2] = l;
    return 1;
}

int hsl_to_rgb(const float* hsl, float* rgb) noexcept {
    const float h = hsl[0], s = hsl[1], l = hsl[2];
    if (s == 0.0f) {
        rgb[0] = rgb[1] = rgb[2] = l;
        return 1;
    }
    const float q = l < 0.5f ? l * (1.0f + s) : l + s - l * s;
    const float p = 2.0f * l - q;
    rgb[0] = hue_to_channel(p, q, static_cast<float>(h + 1.0 / 3.0));
    rgb[1] = hue_to_channel(p, q, h);
    rgb[2] = hue_to_channel(p, q, static_cast<float>(h - 1.0 / 3.0));
    return 1;
}

namespace {

struct Finish {
    float range, inv, black, stretch, gammaExp, satFactor;
    bool toUnit, saturate, gamma, clip;

    // Steps 4 and 5 on one pixel's three values.
    void apply(float* v) const noexcept {
        if (toUnit) {
            for (int c = 0; c < 3; ++c) v[c] *= inv;
            if (saturate) {
                float hsl[3];
                rgb_to_hsl(v, hsl);
                hsl[1] *= satFactor;
                if (hsl[1] > 1.0f) hsl[1] = 1.0f;
                hsl_to_rgb(hsl, v);
            }
            if (gamma)
                for (int c = 0; c < 3; ++c)
                    v[c] = static_cast<float>(std::pow(static_cast<double>(v[c]), static_cast<double>(gammaExp)));
            for (int c = 0; c < 3; ++c) v[c] *= range;
        }
        if (clip)
            for (int c = 0; c < 3; ++c) v[c] = (v[c] - black) * stretch;
    }
    // One value without saturation (the other steps act per channel).
    float applyOne(float x) const noexcept {
        if (toUnit) {
            x *= inv;
            if (gamma) x = static_cast<float>(std::pow(static_cast<double>(x), static_cast<double>(gammaExp)));
            x *= range;
        }
        if (clip) x = (x - black) * stretch;
        return x;
    }
};

template <class O>
inline O toSample(float v, std::int32_t top) noexcept {
    std::int32_t t = truncToInt(v);
    if (t < 0) t = 0;
    if (t > top) t = top;
    return static_cast<O>(t);
}

template <class O>
void finishImage(const Finish& fin, int width, int height, int channels, int bitDepthFusion,
                 int outStride, int outSwap, const void* fused, void* work, int threads) noexcept {
    const int o1 = (channels - 1) / 2, o2 = channels - 1;
    const int d0 = outSwap ? o2 : 0, d2 = outSwap ? 0 : o2;
    const std::int32_t top = sizeof(O) == 1 ? 255 : 65535;
    O* out = static_cast<O*>(work);
    const int sx = width / 2, sy = height / 2;  // the sampled pixel of the probe line
    // Rows that overlap in the output (a stride below the row) are written in
    // row order, the later row winning: they stay on one thread.
    if (static_cast<std::int64_t>(outStride) < static_cast<std::int64_t>(width) * channels) threads = 1;
    if (bitDepthFusion == 16 && !fin.saturate) {
        // Every step acts on one value at a time: one table over all 16-bit
        // fused values, built before the pixel loop.
        static_assert(sizeof(O) <= 2);
        O table[65536];
        for (int v = 0; v < 65536; ++v) {
            const float x = sizeof(O) == 1 ? static_cast<float>(v >> 7) : static_cast<float>(v * 2);
            table[v] = toSample<O>(fin.applyOne(x), top);
        }
        const auto* f16 = static_cast<const std::uint16_t*>(fused);
        runBands(threads, height, static_cast<std::size_t>(width) * channels, [&](int first, int count) {
        for (int y = first; y < first + count; ++y) {
            const std::uint16_t* src = f16 + static_cast<std::size_t>(y) * width * channels;
            O* dst = out + static_cast<std::size_t>(y) * outStride;
            for (int x = 0; x < width; ++x) {
                const std::uint16_t* s = src + static_cast<std::size_t>(x) * channels;
                O* d = dst + static_cast<std::size_t>(x) * channels;
                const O a = table[s[0]], b = table[s[o1]], c = table[s[o2]];
                d[d0] = a;
                d[o1] = b;
                d[d2] = c;
                if constexpr (traceProbe)
                    if (x == sx && y == sy) {
                        const float x0 = sizeof(O) == 1 ? static_cast<float>(s[0] >> 7) : static_cast<float>(s[0] * 2);
                        const float x1 = sizeof(O) == 1 ? static_cast<float>(s[o1] >> 7) : static_cast<float>(s[o1] * 2);
                        const float x2 = sizeof(O) == 1 ? static_cast<float>(s[o2] >> 7) : static_cast<float>(s[o2] * 2);
                        std::fprintf(stderr, "fusion33  %d %d              %1.0f  %1.0f  %1.0f\n", x, y,
                                     static_cast<double>(fin.applyOne(x0)), static_cast<double>(fin.applyOne(x1)),
                                     static_cast<double>(fin.applyOne(x2)));
                    }
            }
        }
        });
        return;
    }
    runBands(threads, height, static_cast<std::size_t>(width) * channels * 8, [&](int first, int count) {
    for (int y = first; y < first + count; ++y) {
        O* dst = out + static_cast<std::size_t>(y) * outStride;
        for (int x = 0; x < width; ++x) {
            const std::size_t s = (static_cast<std::size_t>(y) * width + x) * channels;
            float v[3];
            if (bitDepthFusion == 16) {
                const auto* f16 = static_cast<const std::uint16_t*>(fused);
                const int idx[3] = {0, o1, o2};
                for (int c = 0; c < 3; ++c) {
                    const std::uint16_t u = f16[s + idx[c]];
                    v[c] = sizeof(O) == 1 ? static_cast<float>(u >> 7) : static_cast<float>(u * 2);
                }
            } else {
                const auto* ff = static_cast<const float*>(fused);
                v[0] = ff[s];
                v[1] = ff[s + o1];
                v[2] = ff[s + o2];
            }
            fin.apply(v);
            if constexpr (traceProbe)
                if (x == sx && y == sy)
                    std::fprintf(stderr, "fusion33  %d %d              %1.0f  %1.0f  %1.0f\n", x, y,
                                 static_cast<double>(v[0]), static_cast<double>(v[1]), static_cast<double>(v[2]));
            O* d = dst + static_cast<std::size_t>(x) * channels;
            d[d0] = toSample<O>(v[0], top);
            d[o1] = toSample<O>(v[1], top);
            d[d2] = toSample<O>(v[2], top);
        }
    }
    });
}

}  // namespace

void fusion33(const float* fusionParams, int width, int height, int channels, int bspOut,
              int bitDepthFusion, int outStride, int outSwap, void* scratch, const void* fused,
              void* outFloat, void* work, int threads) noexcept {
    const float colorSaturation = fusionParams[3];
    const float whiteClip = fusionParams[4];
    const float blackClip = fusionParams[5];
    const float midtone = fusionParams[6];
    const float range = static_cast<float>(std::ldexp(1.0, bspOut));
    Finish fin{};
    fin.range = range;
    fin.inv = 1.0f / range;
    fin.black = static_cast<float>(static_cast<double>(range) * blackClip / 100.0);
    // whiteClip + blackClip of 100 divides by zero here: the float quotient
    // is infinite or NaN and the samples then truncate to the indefinite
    // integer, clamped like any other value.
    fin.stretch = static_cast<float>(
        static_cast<double>(range) /
        ((1.0 - static_cast<double>(whiteClip) / 100.0) * static_cast<double>(range) - static_cast<double>(fin.black)));
    fin.gammaExp = static_cast<float>(std::exp(std::log(2.0) * static_cast<double>(midtone) * -0.05));
    fin.satFactor = static_cast<float>(static_cast<double>(colorSaturation) * 0.1 + 1.0);
    fin.saturate = truncToInt(colorSaturation) != 0;
    fin.gamma = truncToInt(midtone) != 0;
    fin.toUnit = fin.saturate || fin.gamma;
    fin.clip = whiteClip > 0.0f || blackClip > 0.0f;
    if (bspOut == 8)
        finishImage<std::uint8_t>(fin, width, height, channels, bitDepthFusion, outStride, outSwap, fused, work, threads);
    else if (bspOut == 16)
        finishImage<std::uint16_t>(fin, width, height, channels, bitDepthFusion, outStride, outSwap, fused, work, threads);
}

int fusion3(const float* fusionParams, int nivo, int width, int height, int channels, int bspOut,
            int bitDepthFusion, int outStride, int outSwap, int wrapX, void* fused,
            void* outFloat, void* work, int threads) noexcept {
    const std::size_t n = nivo + 2 > 0 ? static_cast<std::size_t>(nivo + 2) : 1;
    Owned<int> widths = makeOwned<int>(n);
    Owned<int> heights = makeOwned<int>(n);
    if (!widths || !heights) return -4;
    if (nivo <= 0) return 0;  // nothing to collapse and no output
    widths[0] = width;
    heights[0] = height;
    for (int k = 1; k <= nivo; ++k) {
        widths[k] = halveUp(widths[k - 1]);
        heights[k] = halveUp(heights[k - 1]);
    }
    int initFine = 0;
    for (int k = 0; k < nivo - 1; ++k) initFine += widths[k] * heights[k] * channels;
    int initCoarse = initFine + widths[nivo - 1] * heights[nivo - 1] * channels;
    for (int k = nivo - 1; k >= 0; --k) {
        if constexpr (traceStats)
            std::fprintf(stderr, "Reconstruction nivo%d  Fine: %d  %d x %d  Coarse: %d   %d x %d\n", k,
                         initFine, widths[k], heights[k], initCoarse, widths[k + 1], heights[k + 1]);
        fusion31et32(widths[k], heights[k], widths[k + 1], heights[k + 1], channels, bitDepthFusion,
                     wrapX, initFine, initCoarse, nullptr, fused, threads);
        initCoarse = initFine;
        if (k > 0) initFine -= widths[k - 1] * heights[k - 1] * channels;
    }
    fusion33(fusionParams, width, height, channels, bspOut, bitDepthFusion, outStride, outSwap,
             nullptr, fused, outFloat, work, threads);
    return width * height * channels;
}

}  // namespace ol
