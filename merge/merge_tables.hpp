// Tables and passes shared by the three merges (the plain weighted merge, the
// consistency-checked merge and the variance-blended merge): the gamma lut,
// the per-frame weight curve, log2 rounded to float, and the pass that
// replaces the dark and burnt-out markers.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "frame/rgbe.hpp"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace ol {

inline constexpr int kMergeLevels = 65536;

// lut[i] = pow(i/size, gamma) * scale for i from 1 to entries-1, with i/size
// in float and the power and the product in double, stored as float; then
// lut[0] = lut[1], so that black is not exactly zero.
inline void fillGammaLut(float* lut, int entries, float size, float gamma, double scale = 1.0) noexcept {
    for (int i = 1; i < entries; ++i)
        lut[i] = static_cast<float>(
            std::pow(static_cast<double>(static_cast<float>(i) / size), static_cast<double>(gamma)) * scale);
    lut[0] = lut[1];
}

// The upper curvature of the weight curve for a saturation level:
// 1 / (0.5 - sat/65535)^2, with the quotient and the square in float and the
// subtraction and the division in double, rounded to float.
inline float weightBeta(int saturation) noexcept {
    const float q = static_cast<float>(saturation) / 65535.0f;
    const float d = static_cast<float>(0.5 - static_cast<double>(q));
    return static_cast<float>(1.0 / static_cast<double>(d * d));
}

// One weight table over the 65536 levels: v = 1 - a*(t-0.5)^2 squared, with
// t = i/65536, a = 4 up to and including `lowerTop` and `beta` above it; 0
// above the saturation level. With saturation 65535 and lowerTop 65535 this is
// the plain hat (1 - 4*(t-0.5)^2)^2.
inline void fillWeightTable(int saturation, float beta, float* w, int lowerTop = 32768) noexcept {
    for (int i = 0; i < kMergeLevels; ++i) {
        if (i > saturation) {
            w[i] = 0.0f;
            continue;
        }
        const float a = i <= lowerTop ? 4.0f : beta;
        const float t = static_cast<float>(i) * (1.0f / 65536.0f);
        const float d = t - 0.5f;
        const float v = 1.0f - a * (d * d);
        w[i] = v * v;
    }
}

// log2 of an exposure as the merges take it: the natural logarithm divided by
// that of 2, in double, rounded to float.
inline float log2AsFloat(float v) noexcept {
    return static_cast<float>(std::log(static_cast<double>(v)) / std::log(2.0));
}

// The spans of rows where pass 1 left markers, recorded by a kernel that
// knows them, so that the marker pass visits only those: `y`, and pixels
// [x0, x1). A kernel that runs out of room sets `overflow`, and the pass
// then scans every row.
struct MarkerSpan {
    int y, x0, x1;
};
struct MarkerSpans {
    MarkerSpan* at = nullptr;
    std::size_t capacity = 0;
    std::size_t count = 0;
    bool overflow = false;

    void add(int y, int x0, int x1) noexcept {
        if (count < capacity)
            at[count++] = {y, x0, x1};
        else
            overflow = true;
    }
};

// Replaces the markers left by pass 1: burnt-out pixels (exponent byte 255)
// become neutral grey at the largest luminance, dead-dark ones (exponent byte
// 0) neutral grey at the smallest. The grey is encoded without the zero
// guard, so a value of 0 gives a NaN scale: mantissas 0 and exponent byte 128.
// The exponent run is scanned 16 bytes at a time, and a group holding markers
// is rewritten by masks in its four runs. With `spans` (not overflowed) only
// those are visited: no marker lies outside them.
inline void replaceMarkers(int width, int height, float minLum, float maxLum, RgbeForm form,
                           std::uint8_t* rgbe, const MarkerSpans* spans = nullptr) noexcept {
    const RgbePixel bright = encodeRgbe(maxLum, maxLum, maxLum, form, ZeroGuard::Off);
    const RgbePixel dark = encodeRgbe(minLum, minLum, minLum, form, ZeroGuard::Off);
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128(), ones = _mm_set1_epi8(-1);
    const __m128i brightR = _mm_set1_epi8(static_cast<char>(bright.r)), darkR = _mm_set1_epi8(static_cast<char>(dark.r));
    const __m128i brightG = _mm_set1_epi8(static_cast<char>(bright.g)), darkG = _mm_set1_epi8(static_cast<char>(dark.g));
    const __m128i brightB = _mm_set1_epi8(static_cast<char>(bright.b)), darkB = _mm_set1_epi8(static_cast<char>(dark.b));
    const __m128i brightE = _mm_set1_epi8(static_cast<char>(bright.e)), darkE = _mm_set1_epi8(static_cast<char>(dark.e));
#endif
    auto span = [&](int y, int x, int x1) {
        const RgbeRow row = rgbeRow(rgbe, width, y);
#if defined(__SSE2__)
        for (; x + 16 <= x1; x += 16) {
            auto* pe = reinterpret_cast<__m128i*>(row.e + x);
            const __m128i e = _mm_loadu_si128(pe);
            const __m128i isBright = _mm_cmpeq_epi8(e, ones);
            const __m128i isDark = _mm_cmpeq_epi8(e, zero);
            const __m128i marked = _mm_or_si128(isBright, isDark);
            if (_mm_movemask_epi8(marked) == 0) continue;
            auto put = [&](std::uint8_t* plane, __m128i b, __m128i d) {
                auto* p = reinterpret_cast<__m128i*>(plane + x);
                const __m128i keep = _mm_andnot_si128(marked, _mm_loadu_si128(p));
                _mm_storeu_si128(p, _mm_or_si128(keep, _mm_or_si128(_mm_and_si128(isBright, b),
                                                                     _mm_and_si128(isDark, d))));
            };
            put(row.r, brightR, darkR);
            put(row.g, brightG, darkG);
            put(row.b, brightB, darkB);
            put(row.e, brightE, darkE);
        }
#endif
        for (; x < x1; ++x) {
            const std::uint8_t e = row.e[x];
            if (e == 255)
                storeRgbe(row, x, bright);
            else if (e == 0)
                storeRgbe(row, x, dark);
        }
    };
    if (spans && !spans->overflow) {
        for (std::size_t i = 0; i < spans->count; ++i) span(spans->at[i].y, spans->at[i].x0, spans->at[i].x1);
        return;
    }
    for (int y = 0; y < height; ++y) span(y, 0, width);
}

}  // namespace ol
