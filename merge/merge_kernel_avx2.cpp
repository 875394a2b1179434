// Pass 1 of the weighted merge, 8 pixels a step with AVX2.
//
// Every lane does the float operations of the plain kernel in the same order
// (gathers from the same tables, separate multiplies and adds, the same
// divisions, the luminance in double), so the bytes are identical; the
// statistics are fed from the 8 lanes in pixel order by the same code as the
// plain kernel. It leaves out only work whose result is provably thrown away
// or zero (frames cleared by a later reset, saturated frames, groups burnt
// out in every frame; see rowsAvx2 and mergeRowsAvx2). Selected at run time;
// the rest of the library does not need AVX2.
#include "merge/merge_kernel.hpp"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <cmath>
#include <cstring>

#include "merge/lanes_avx2.hpp"
#include "merge/merge_tables.hpp"

namespace ol {
namespace {

using namespace lanes;

// Up to this many frames the loop runs in two stages (levels of every frame
// first, then the sums), which lets it skip the frames that cannot change a
// sum; more frames run in one stage.
constexpr int kStagedFrames = 16;

// Kind: 1, 3 or 4 for a fixed spp with its own loads, 0 for any other.
// Curve: the weights are computed from the curve (MergeJob::weightCurve).
// skipSaturated: bit j set when frame j's saturated lanes add exactly nothing
// (see mergeRowsAvx2).
template <class T, int Kind, bool Curve>
OL_TARGET_AVX2 void rowsAvx2(const MergeJob& job, int y0, int y1, MergeStats& stats,
                             unsigned skipSaturated) noexcept {
    // A local copy stays in registers: the byte stores of the output could
    // otherwise alias it.
    MergeStats st = stats;
    const int stride = job.spp;
    const int iMiddle = (stride - 1) / 2;
    const int iLast = stride - 1;
    const int n = job.nPhotos;
    const bool staged = n <= kStagedFrames;
    const __m256i c54 = _mm256_set1_epi32(54), c183 = _mm256_set1_epi32(183), c19 = _mm256_set1_epi32(19);
    const __m256 zero = _mm256_setzero_ps();
    const __m256 burntValue = _mm256_set1_ps(kMergeBurnt);
    const __m256d k02 = _mm256_set1_pd(0.2), k07 = _mm256_set1_pd(0.7), k01 = _mm256_set1_pd(0.1);
    // m > 1e-32 in double is m >= 1e-32f in float: 1e-32f is the nearest
    // float to 1e-32 and lies just above it.
    const __m256 tiny = _mm256_set1_ps(1e-32f);
    const __m256i allPhotos = _mm256_set1_epi32(n);
    const __m256i i0 = _mm256_setzero_si256(), i255 = _mm256_set1_epi32(255);
    const __m256i i126 = _mm256_set1_epi32(126), i135 = _mm256_set1_epi32(135), i128 = _mm256_set1_epi32(128);
    const __m256i interleave = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    const __m256 levelStep = _mm256_set1_ps(1.0f / 65536.0f), half = _mm256_set1_ps(0.5f);
    const __m256 one = _mm256_set1_ps(1.0f), four = _mm256_set1_ps(4.0f);
    const __m256i lowerTop = _mm256_set1_epi32(32768);
    const float* lut = job.lut;
    __m256 vmax = _mm256_set1_ps(st.maxLum), vmin = _mm256_set1_ps(st.minLum);

    // The samples and levels of 8 pixels in one frame.
    struct Stage {
        Lanes s;
        __m256i ival, saturated;
    };
    auto levels = [&](const FrameVisit& f, std::size_t at) OL_TARGET_AVX2 {
        Stage g;
        const T* p = static_cast<const T*>(f.samples) + at;
        if constexpr (Kind == 3) {
            LanesLevel l;
            if constexpr (sizeof(T) == 1) l = load8x3Level(p);
            else l = load16x3Level(p);
            g.s = l.s;
            g.ival = l.level;
        } else {
            g.s = loadLanes<T, Kind>(p, stride, iMiddle, iLast);
            __m256i ha = g.s.a, hb = g.s.b, hc = g.s.c;
            if constexpr (sizeof(T) == 2) {
                ha = _mm256_srli_epi32(ha, 8);
                hb = _mm256_srli_epi32(hb, 8);
                hc = _mm256_srli_epi32(hc, 8);
            }
            g.ival = _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(ha, c54), _mm256_mullo_epi32(hb, c183)),
                                      _mm256_mullo_epi32(hc, c19));
        }
        g.saturated = _mm256_cmpgt_epi32(g.ival, _mm256_set1_epi32(f.saturation));
        return g;
    };
    // The reset of a frame still dark, then its contribution.
    auto accumulate = [&](const FrameVisit& f, const Stage& g, bool add, __m256& sW, __m256& sR, __m256& sG,
                          __m256& sB) OL_TARGET_AVX2 {
        const __m256 reset = _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_set1_epi32(f.darkLevel), g.ival));
        sW = _mm256_andnot_ps(reset, sW);
        sR = _mm256_andnot_ps(reset, sR);
        sG = _mm256_andnot_ps(reset, sG);
        sB = _mm256_andnot_ps(reset, sB);
        if (!add) return;
        __m256 w;
        if constexpr (Curve) {
            // fillWeightTable's operations: t = ival/65536 and t - 0.5 are
            // exact, then (1 - a*(d*d))^2 rounded step by step; 0 above the
            // saturation level.
            const __m256 d = _mm256_sub_ps(_mm256_mul_ps(_mm256_cvtepi32_ps(g.ival), levelStep), half);
            const __m256 a = _mm256_blendv_ps(four, _mm256_set1_ps(f.beta),
                                              _mm256_castsi256_ps(_mm256_cmpgt_epi32(g.ival, lowerTop)));
            const __m256 v = _mm256_sub_ps(one, _mm256_mul_ps(a, _mm256_mul_ps(d, d)));
            w = _mm256_andnot_ps(_mm256_castsi256_ps(g.saturated), _mm256_mul_ps(v, v));
        } else {
            w = _mm256_i32gather_ps(f.weight, g.ival, 4);
        }
        sW = _mm256_add_ps(sW, w);
        const __m256 wT = _mm256_mul_ps(w, _mm256_set1_ps(f.invT));
        sR = _mm256_add_ps(sR, _mm256_mul_ps(wT, _mm256_i32gather_ps(lut, g.s.a, 4)));
        sG = _mm256_add_ps(sG, _mm256_mul_ps(wT, _mm256_i32gather_ps(lut, g.s.b, 4)));
        sB = _mm256_add_ps(sB, _mm256_mul_ps(wT, _mm256_i32gather_ps(lut, g.s.c, 4)));
    };
    Stage stage[kStagedFrames];

    for (int y = y0; y < y1; ++y) {
        const RgbeRow row = rgbeRow(job.rgbe, job.width, y);
        const std::size_t rowStart = static_cast<std::size_t>(y) * job.width * stride;
        int x = 0;
        // The current span of groups that hold markers, [spanStart, spanEnd).
        int spanStart = -1, spanEnd = 0;
        auto marked = [&](bool any) {
            if (any) {
                if (spanStart < 0) spanStart = x;
                spanEnd = x + 8 < job.width ? x + 8 : job.width;
            } else if (spanStart >= 0) {
                if (job.spans) job.spans->add(y, spanStart, spanEnd);
                spanStart = -1;
            }
        };
        for (; x + 8 <= job.width; x += 8) {
            const std::size_t at = rowStart + static_cast<std::size_t>(x) * stride;
            __m256 sW = zero, sR = zero, sG = zero, sB = zero;
            __m256i nSat = _mm256_setzero_si256();
            if (staged) {
                // Stage 1: levels of every frame, and per lane the last frame
                // whose reset clears the sums (-1 for none): what the frames
                // before it add is thrown away.
                __m256i lastReset = _mm256_set1_epi32(-1);
                for (int j = 0; j < n; ++j) {
                    const FrameVisit& f = job.visits[j];
                    stage[j] = levels(f, at);
                    nSat = _mm256_sub_epi32(nSat, stage[j].saturated);
                    lastReset = _mm256_blendv_epi8(lastReset, _mm256_set1_epi32(j),
                                                   _mm256_cmpgt_epi32(_mm256_set1_epi32(f.darkLevel), stage[j].ival));
                }
                // Every frame saturated in every lane: the burnt-out marker,
                // whatever the sums; its luminance 1e9 changes no statistic.
                if (_mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(nSat, allPhotos))) == 0xFF) {
                    std::memset(row.r + x, 255, 8);
                    std::memset(row.g + x, 255, 8);
                    std::memset(row.b + x, 255, 8);
                    std::memset(row.e + x, 255, 8);
                    marked(true);
                    continue;
                }
                // Stage 2: the sums, in frame order. A frame adds nothing that
                // lasts where a later reset clears the sums, nor (bit j of
                // skipSaturated) where it is saturated; with no lane left, only
                // its reset is applied.
                for (int j = 0; j < n; ++j) {
                    __m256i live = _mm256_cmpgt_epi32(_mm256_set1_epi32(j + 1), lastReset);
                    if (skipSaturated >> j & 1u) live = _mm256_andnot_si256(stage[j].saturated, live);
                    accumulate(job.visits[j], stage[j], !_mm256_testz_si256(live, live), sW, sR, sG, sB);
                }
            } else {
                for (int j = 0; j < n; ++j) {
                    const FrameVisit& f = job.visits[j];
                    const Stage g = levels(f, at);
                    nSat = _mm256_sub_epi32(nSat, g.saturated);
                    accumulate(f, g, true, sW, sR, sG, sB);
                }
            }
            // Resolve: all saturated, a weighted mean, or 0.
            const __m256 allSat = _mm256_castsi256_ps(_mm256_cmpeq_epi32(nSat, allPhotos));
            const __m256 positive = _mm256_cmp_ps(sW, zero, _CMP_GT_OQ);
            __m256 R = _mm256_and_ps(_mm256_div_ps(sR, sW), positive);
            __m256 G = _mm256_and_ps(_mm256_div_ps(sG, sW), positive);
            __m256 B = _mm256_and_ps(_mm256_div_ps(sB, sW), positive);
            R = _mm256_blendv_ps(R, burntValue, allSat);
            G = _mm256_blendv_ps(G, burntValue, allSat);
            B = _mm256_blendv_ps(B, burntValue, allSat);

            // Luminance in double, then the statistics lane by lane.
            // Written out here rather than through lumLanes: the helper call
            // costs this loop about 9% (measured with merge_bench).
            auto lumHalf = [&](__m128 r, __m128 g, __m128 b) OL_TARGET_AVX2 {
                const __m256d l = _mm256_add_pd(
                    _mm256_add_pd(_mm256_mul_pd(k02, _mm256_cvtps_pd(r)), _mm256_mul_pd(k07, _mm256_cvtps_pd(g))),
                    _mm256_mul_pd(k01, _mm256_cvtps_pd(b)));
                return _mm256_cvtpd_ps(l);
            };
            const __m256 lum = _mm256_insertf128_ps(
                _mm256_castps128_ps256(lumHalf(_mm256_castps256_ps128(R), _mm256_castps256_ps128(G),
                                               _mm256_castps256_ps128(B))),
                lumHalf(_mm256_extractf128_ps(R, 1), _mm256_extractf128_ps(G, 1), _mm256_extractf128_ps(B, 1)),
                1);
            addStatLanes(lum, st, vmax, vmin);

            // Encoding: m as the plain kernel picks it (a NaN stays where it
            // was first), the scale 2^(8-e) from the exponent bits.
            const __m256 m = _mm256_max_ps(B, _mm256_max_ps(G, R));
            const __m256i notDark = _mm256_castps_si256(_mm256_cmp_ps(m, tiny, _CMP_GE_OQ));
            const __m256i burnt = _mm256_castps_si256(_mm256_cmp_ps(m, burntValue, _CMP_GE_OQ));
            const __m256i e = _mm256_sub_epi32(_mm256_srli_epi32(_mm256_castps_si256(m), 23), i126);
            const __m256 scale = _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_sub_epi32(i135, e), 23));
            auto byteOf = [&](__m256i v) OL_TARGET_AVX2 {
                v = _mm256_min_epi32(_mm256_max_epi32(v, i0), i255);
                v = _mm256_blendv_epi8(v, i255, burnt);
                return _mm256_and_si256(v, notDark);
            };
            const __m256i mr = byteOf(_mm256_cvttps_epi32(_mm256_mul_ps(R, scale)));
            const __m256i mg = byteOf(_mm256_cvttps_epi32(_mm256_mul_ps(G, scale)));
            const __m256i mb = byteOf(_mm256_cvttps_epi32(_mm256_mul_ps(B, scale)));
            const __m256i me = byteOf(_mm256_add_epi32(e, i128));
            const __m256i rg = _mm256_packs_epi32(mr, mg);
            const __m256i be = _mm256_packs_epi32(mb, me);
            const __m256i bytes = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(rg, be), interleave);
            alignas(32) std::uint8_t out[32];
            _mm256_store_si256(reinterpret_cast<__m256i*>(out), bytes);
            std::memcpy(row.r + x, out, 8);
            std::memcpy(row.g + x, out + 8, 8);
            std::memcpy(row.b + x, out + 16, 8);
            std::memcpy(row.e + x, out + 24, 8);
            const __m256i markers = _mm256_or_si256(_mm256_cmpeq_epi32(me, i0), _mm256_cmpeq_epi32(me, i255));
            marked(!_mm256_testz_si256(markers, markers));
        }
        // The row's tail joins the span whatever it holds; the marker pass
        // looks at every pixel of a span.
        if (x < job.width) marked(true);
        marked(false);
        for (; x < job.width; ++x)
            mergePixel<T>(job, stride, rowStart + static_cast<std::size_t>(x) * stride, x, y, false, st, row);
    }
    finishStatLanes(st, vmax, vmin);
    stats = st;
}

template <class T, bool Curve>
OL_TARGET_AVX2 void dispatchSpp(const MergeJob& job, int y0, int y1, MergeStats& st, unsigned skipSaturated) noexcept {
    switch (job.spp) {
        case 3: rowsAvx2<T, 3, Curve>(job, y0, y1, st, skipSaturated); break;
        case 4: rowsAvx2<T, 4, Curve>(job, y0, y1, st, skipSaturated); break;
        case 1: rowsAvx2<T, 1, Curve>(job, y0, y1, st, skipSaturated); break;
        default: rowsAvx2<T, 0, Curve>(job, y0, y1, st, skipSaturated); break;
    }
}

// True when every entry of the lut is finite.
OL_TARGET_AVX2 bool allFinite(const float* v, int count) noexcept {
    const __m256 magnitude = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
    const __m256 inf = _mm256_set1_ps(INFINITY);
    __m256 bad = _mm256_setzero_ps();
    int i = 0;
    for (; i + 8 <= count; i += 8)  // NaN and infinity fail `< inf`
        bad = _mm256_or_ps(bad, _mm256_cmp_ps(_mm256_and_ps(_mm256_loadu_ps(v + i), magnitude), inf, _CMP_NLT_UQ));
    bool ok = _mm256_movemask_ps(bad) == 0;
    for (; i < count; ++i) ok = ok && std::isfinite(v[i]);
    return ok;
}

}  // namespace

bool mergeRowsAvx2(const MergeJob& job, int bps, int y0, int y1, MergeStats& st) noexcept {
    if (!__builtin_cpu_supports("avx2")) return false;
    // With weights from the curve a saturated lane has weight +0, and it adds
    // exactly nothing when the products stay finite: +0 times a finite invT
    // and lut entry is a zero, and a sum plus a zero is the sum (a sum is
    // never -0: it starts at +0 and is only reset to +0). Such a frame is
    // skipped where all its lanes are saturated.
    unsigned skipSaturated = 0;
    if (job.weightCurve && job.nPhotos <= kStagedFrames && allFinite(job.lut, 1 << bps))
        for (int j = 0; j < job.nPhotos; ++j)
            if (std::isfinite(job.visits[j].invT)) skipSaturated |= 1u << j;
    if (bps == 8) {
        if (job.weightCurve) dispatchSpp<std::uint8_t, true>(job, y0, y1, st, skipSaturated);
        else dispatchSpp<std::uint8_t, false>(job, y0, y1, st, skipSaturated);
    } else {
        if (job.weightCurve) dispatchSpp<std::uint16_t, true>(job, y0, y1, st, skipSaturated);
        else dispatchSpp<std::uint16_t, false>(job, y0, y1, st, skipSaturated);
    }
    return true;
}

}  // namespace ol

#else

namespace ol {
bool mergeRowsAvx2(const MergeJob&, int, int, int, MergeStats&) noexcept { return false; }
}  // namespace ol

#endif
