// AVX2 pieces shared by the merge kernels: loading the three colour samples
// of 8 pixels as 32-bit lanes, the luminance for the statistics in double,
// and feeding the statistics from 8 lanes in pixel order with the result of
// the plain per-pixel code. Included only by files whose functions carry the
// avx2 target attribute and are selected at run time.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "merge/merge_kernel.hpp"

#define OL_TARGET_AVX2 __attribute__((target("avx2")))

namespace ol {
namespace lanes {

struct Lanes {
    __m256i a, b, c;  // whole samples at the first, middle and last positions
};

// Generic loads: any spp, 8 or 16 bits, samples at 0, iMiddle and iLast.
template <class T>
OL_TARGET_AVX2 inline Lanes loadGeneric(const T* p, int stride, int iMiddle, int iLast) noexcept {
    alignas(32) std::int32_t A[8], B[8], C[8];
    for (int l = 0; l < 8; ++l) {
        const T* q = p + static_cast<std::size_t>(l) * stride;
        A[l] = q[0];
        B[l] = q[iMiddle];
        C[l] = q[iLast];
    }
    return {_mm256_load_si256(reinterpret_cast<const __m256i*>(A)),
            _mm256_load_si256(reinterpret_cast<const __m256i*>(B)),
            _mm256_load_si256(reinterpret_cast<const __m256i*>(C))};
}

// 8-bit, 3 samples: 24 bytes, split with byte shuffles.
OL_TARGET_AVX2 inline Lanes load8x3(const std::uint8_t* p) noexcept {
    const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i hi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + 16));
    const __m128i aLo = _mm_setr_epi8(0, 3, 6, 9, 12, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i aHi = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, 2, 5, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i bLo = _mm_setr_epi8(1, 4, 7, 10, 13, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i bHi = _mm_setr_epi8(-1, -1, -1, -1, -1, 0, 3, 6, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i cLo = _mm_setr_epi8(2, 5, 8, 11, 14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i cHi = _mm_setr_epi8(-1, -1, -1, -1, -1, 1, 4, 7, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i a = _mm_or_si128(_mm_shuffle_epi8(lo, aLo), _mm_shuffle_epi8(hi, aHi));
    const __m128i b = _mm_or_si128(_mm_shuffle_epi8(lo, bLo), _mm_shuffle_epi8(hi, bHi));
    const __m128i c = _mm_or_si128(_mm_shuffle_epi8(lo, cLo), _mm_shuffle_epi8(hi, cHi));
    return {_mm256_cvtepu8_epi32(a), _mm256_cvtepu8_epi32(b), _mm256_cvtepu8_epi32(c)};
}

// 8-bit, 4 samples: positions 0, 1 and 3 of each 32-bit pixel.
OL_TARGET_AVX2 inline Lanes load8x4(const std::uint8_t* p) noexcept {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    const __m256i byte = _mm256_set1_epi32(0xFF);
    return {_mm256_and_si256(v, byte), _mm256_and_si256(_mm256_srli_epi32(v, 8), byte),
            _mm256_srli_epi32(v, 24)};
}

// 8-bit, 1 sample: the one sample is all three.
OL_TARGET_AVX2 inline Lanes load8x1(const std::uint8_t* p) noexcept {
    const __m256i v = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    return {v, v, v};
}

// 16-bit, 3 samples: 48 bytes, words split with shuffles in three 16-byte
// pieces per 128-bit half.
OL_TARGET_AVX2 inline Lanes load16x3(const std::uint16_t* p) noexcept {
    // Pixels 0..3 are words 0..11, pixels 4..7 words 12..23.
    const __m128i w0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));       // words 0..7
    const __m128i w1 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + 8));   // words 8..11
    const __m128i w2 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 12));  // words 12..19
    const __m128i w3 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + 20));  // words 20..23
    // Within one group of 4 pixels (words 0..7 in x, words 8..11 in y),
    // channel k of pixel l is word 3l+k; it goes to word l of the result.
    const __m128i x0 = _mm_setr_epi8(0, 1, 6, 7, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i y0 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, 2, 3, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i x1 = _mm_setr_epi8(2, 3, 8, 9, 14, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i y1 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, 4, 5, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i x2 = _mm_setr_epi8(4, 5, 10, 11, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i y2 = _mm_setr_epi8(-1, -1, -1, -1, 0, 1, 6, 7, -1, -1, -1, -1, -1, -1, -1, -1);
    auto lanes = [&](__m128i mx, __m128i my) OL_TARGET_AVX2 {
        const __m128i lo = _mm_or_si128(_mm_shuffle_epi8(w0, mx), _mm_shuffle_epi8(w1, my));
        const __m128i hi = _mm_or_si128(_mm_shuffle_epi8(w2, mx), _mm_shuffle_epi8(w3, my));
        return _mm256_cvtepu16_epi32(_mm_unpacklo_epi64(lo, hi));
    };
    return {lanes(x0, y0), lanes(x1, y1), lanes(x2, y2)};
}

// The level 54*first + 183*middle + 19*last from 8-bit values held in 32-bit
// lanes: `pair` holds first in its low word and middle in its high word,
// `last` the last value in its low word, so two word multiply-adds give it.
OL_TARGET_AVX2 inline __m256i levelFromPairs(__m256i pair, __m256i last) noexcept {
    return _mm256_add_epi32(_mm256_madd_epi16(pair, _mm256_set1_epi32(54 | 183 << 16)),
                            _mm256_madd_epi16(last, _mm256_set1_epi32(19)));
}

// 3 samples of 8 pixels with their levels, for 8 and 16-bit samples: one
// 256-bit register per source half (4 pixels in each 128-bit half), each
// lane cut out by byte shuffles that also zero-extend it.
struct LanesLevel {
    Lanes s;
    __m256i level;
};

// 8-bit: bytes 0..15 and 8..23 in the two halves; pixel l of a half at byte
// 3l of the low half, 4 + 3l of the high one.
OL_TARGET_AVX2 inline LanesLevel load8x3Level(const std::uint8_t* p) noexcept {
    const __m256i v = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + 8),
                                          reinterpret_cast<const __m128i*>(p));
    const __m256i a = _mm256_shuffle_epi8(v, _mm256_setr_epi8(0, -1, -1, -1, 3, -1, -1, -1, 6, -1, -1, -1, 9, -1, -1, -1,
                                                              4, -1, -1, -1, 7, -1, -1, -1, 10, -1, -1, -1, 13, -1, -1, -1));
    const __m256i b = _mm256_shuffle_epi8(v, _mm256_setr_epi8(1, -1, -1, -1, 4, -1, -1, -1, 7, -1, -1, -1, 10, -1, -1, -1,
                                                              5, -1, -1, -1, 8, -1, -1, -1, 11, -1, -1, -1, 14, -1, -1, -1));
    const __m256i c = _mm256_shuffle_epi8(v, _mm256_setr_epi8(2, -1, -1, -1, 5, -1, -1, -1, 8, -1, -1, -1, 11, -1, -1, -1,
                                                              6, -1, -1, -1, 9, -1, -1, -1, 12, -1, -1, -1, 15, -1, -1, -1));
    const __m256i ab = _mm256_shuffle_epi8(v, _mm256_setr_epi8(0, -1, 1, -1, 3, -1, 4, -1, 6, -1, 7, -1, 9, -1, 10, -1,
                                                               4, -1, 5, -1, 7, -1, 8, -1, 10, -1, 11, -1, 13, -1, 14, -1));
    return {{a, b, c}, levelFromPairs(ab, c)};
}

// 16-bit: bytes 0..15 and 24..39 in one register, 8..23 and 32..47 in the
// other; pixel l, channel k of a half is at byte 6l + 2k of the half's 24.
OL_TARGET_AVX2 inline LanesLevel load16x3Level(const std::uint16_t* p) noexcept {
    const __m256i v0 = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + 12),
                                           reinterpret_cast<const __m128i*>(p));
    const __m256i v1 = _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(p + 16),
                                           reinterpret_cast<const __m128i*>(p + 4));
    auto cut = [&](__m256i m0, __m256i m1) OL_TARGET_AVX2 {
        return _mm256_or_si256(_mm256_shuffle_epi8(v0, m0), _mm256_shuffle_epi8(v1, m1));
    };
    // Channel a: bytes 0, 6, 12 of v0 and 18 (10 of v1); b: 2, 8, 14 and 20
    // (12 of v1); c: 4, 10 and 16, 22 (8, 14 of v1).
    const __m256i a = cut(_mm256_setr_epi8(0, 1, -1, -1, 6, 7, -1, -1, 12, 13, -1, -1, -1, -1, -1, -1,
                                           0, 1, -1, -1, 6, 7, -1, -1, 12, 13, -1, -1, -1, -1, -1, -1),
                          _mm256_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 10, 11, -1, -1,
                                           -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 10, 11, -1, -1));
    const __m256i b = cut(_mm256_setr_epi8(2, 3, -1, -1, 8, 9, -1, -1, 14, 15, -1, -1, -1, -1, -1, -1,
                                           2, 3, -1, -1, 8, 9, -1, -1, 14, 15, -1, -1, -1, -1, -1, -1),
                          _mm256_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 12, 13, -1, -1,
                                           -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 12, 13, -1, -1));
    const __m256i c = cut(_mm256_setr_epi8(4, 5, -1, -1, 10, 11, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                           4, 5, -1, -1, 10, 11, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1),
                          _mm256_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, 8, 9, -1, -1, 14, 15, -1, -1,
                                           -1, -1, -1, -1, -1, -1, -1, -1, 8, 9, -1, -1, 14, 15, -1, -1));
    // High bytes: a's in the low word, b's in the high word of each lane.
    const __m256i ab = cut(_mm256_setr_epi8(1, -1, 3, -1, 7, -1, 9, -1, 13, -1, 15, -1, -1, -1, -1, -1,
                                            1, -1, 3, -1, 7, -1, 9, -1, 13, -1, 15, -1, -1, -1, -1, -1),
                           _mm256_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 11, -1, 13, -1,
                                            -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 11, -1, 13, -1));
    return {{a, b, c}, levelFromPairs(ab, _mm256_srli_epi32(c, 8))};
}

template <class T, int Kind>
OL_TARGET_AVX2 inline Lanes loadLanes(const T* p, int stride, int iMiddle, int iLast) noexcept {
    if constexpr (sizeof(T) == 1 && Kind == 3) return load8x3(p);
    else if constexpr (sizeof(T) == 1 && Kind == 4) return load8x4(p);
    else if constexpr (sizeof(T) == 1 && Kind == 1) return load8x1(p);
    else if constexpr (sizeof(T) == 2 && Kind == 3) return load16x3(p);
    else return loadGeneric(p, stride, iMiddle, iLast);
}

// Luminance k0*R + k1*G + k2*B in double, rounded to float, lane by lane.
OL_TARGET_AVX2 inline __m256 lumLanes(__m256 R, __m256 G, __m256 B, __m256d k0, __m256d k1, __m256d k2) noexcept {
    auto half = [&](__m128 r, __m128 g, __m128 b) OL_TARGET_AVX2 {
        const __m256d l = _mm256_add_pd(
            _mm256_add_pd(_mm256_mul_pd(k0, _mm256_cvtps_pd(r)), _mm256_mul_pd(k1, _mm256_cvtps_pd(g))),
            _mm256_mul_pd(k2, _mm256_cvtps_pd(b)));
        return _mm256_cvtpd_ps(l);
    };
    return _mm256_insertf128_ps(
        _mm256_castps128_ps256(
            half(_mm256_castps256_ps128(R), _mm256_castps256_ps128(G), _mm256_castps256_ps128(B))),
        half(_mm256_extractf128_ps(R, 1), _mm256_extractf128_ps(G, 1), _mm256_extractf128_ps(B, 1)), 1);
}

// MergeStats::add for 8 lanes in pixel order. The smallest positive and the
// largest counted luminance do not depend on order and are kept in vmin and
// vmax; the running sum does, and is added lane by lane. A lane left out adds
// +0.0, which leaves the sum as it is (the sum starts at +0.0 and so is never
// -0.0).
OL_TARGET_AVX2 inline void addStatLanes(__m256 lum, MergeStats& st, __m256& vmax, __m256& vmin) noexcept {
    const __m256 counted = _mm256_cmp_ps(lum, _mm256_set1_ps(1e9f), _CMP_LT_OQ);
    vmax = _mm256_max_ps(_mm256_blendv_ps(vmax, lum, counted), vmax);
    vmin = _mm256_min_ps(_mm256_blendv_ps(vmin, lum, _mm256_cmp_ps(lum, _mm256_setzero_ps(), _CMP_GT_OQ)), vmin);
    st.count += __builtin_popcount(static_cast<unsigned>(_mm256_movemask_ps(counted)));
    const __m256 addends = _mm256_and_ps(lum, counted);
    alignas(32) double d[8];
    _mm256_store_pd(d, _mm256_cvtps_pd(_mm256_castps256_ps128(addends)));
    _mm256_store_pd(d + 4, _mm256_cvtps_pd(_mm256_extractf128_ps(addends, 1)));
    double sum = st.sum;
    for (int l = 0; l < 8; ++l) sum += d[l];
    st.sum = sum;
}

// Folds vmax and vmin into the statistics.
OL_TARGET_AVX2 inline void finishStatLanes(MergeStats& st, __m256 vmax, __m256 vmin) noexcept {
    alignas(32) float v[8];
    _mm256_store_ps(v, vmax);
    for (float x : v)
        if (x > st.maxLum) st.maxLum = x;
    _mm256_store_ps(v, vmin);
    for (float x : v)
        if (x < st.minLum) st.minLum = x;
}

}  // namespace lanes
}  // namespace ol
