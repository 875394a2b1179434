// Pass 1 of calc_hdr and hdr_unghost, 8 pixels a step with AVX2.
//
// Every lane does the float operations of the plain code in the same order
// (gathers from the same tables, separate multiplies and adds, the same
// divisions, the luminance in double), so the bytes are identical. Where the
// plain code leaves a pixel's frame loop early (hdr_unghost), a lane is
// masked off and its sums stay as they were. The statistics are fed from the
// 8 lanes in pixel order. hdr_unghost's reference values, carried from pixel
// to pixel, are resolved lane by lane in pixel order.
#include "merge/motion_kernel.hpp"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <cfloat>
#include <cstring>

#include "merge/lanes_avx2.hpp"

namespace ol {
namespace {

using namespace lanes;

struct Rgb {
    __m256 r, g, b;
};

// Luminance, statistics, markers and wrapped encoding of 8 pixels, as
// finishMotionPixel does one. A lane whose largest value is infinite (the
// exponent bits alone do not give its frexp form) sends the 8 pixels through
// the plain code.
OL_TARGET_AVX2 inline void finishLanes(Rgb v, bool firstIsBlue, MergeStats& st, __m256& vmax, __m256& vmin,
                                       const RgbeRow& row, int x) noexcept {
    const __m256 m = _mm256_max_ps(v.b, _mm256_max_ps(v.g, v.r));
    const __m256 notDark = _mm256_cmp_ps(m, _mm256_set1_ps(1e-32f), _CMP_GE_OQ);
    if (_mm256_movemask_ps(_mm256_and_ps(notDark, _mm256_cmp_ps(m, _mm256_set1_ps(FLT_MAX), _CMP_GT_OQ)))) {
        alignas(32) float r[8], g[8], b[8];
        _mm256_store_ps(r, v.r);
        _mm256_store_ps(g, v.g);
        _mm256_store_ps(b, v.b);
        for (int l = 0; l < 8; ++l) finishMotionPixel(r[l], g[l], b[l], firstIsBlue, st, row, x + l);
        return;
    }
    const __m256 lum = lumLanes(v.r, v.g, v.b, _mm256_set1_pd(0.3), _mm256_set1_pd(0.6), _mm256_set1_pd(0.1));
    addStatLanes(lum, st, vmax, vmin);
    const __m256i burnt = _mm256_castps_si256(_mm256_cmp_ps(lum, _mm256_set1_ps(1e9f), _CMP_GE_OQ));
    const __m256i e = _mm256_sub_epi32(_mm256_srli_epi32(_mm256_castps_si256(m), 23), _mm256_set1_epi32(126));
    const __m256 scale =
        _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_sub_epi32(_mm256_set1_epi32(135), e), 23));
    const __m256i byte = _mm256_set1_epi32(0xFF);
    auto byteOf = [&](__m256i q) OL_TARGET_AVX2 {
        q = _mm256_and_si256(q, byte);  // wrapped: the low 8 bits
        q = _mm256_blendv_epi8(q, byte, burnt);
        return _mm256_and_si256(q, _mm256_castps_si256(notDark));
    };
    __m256i mr = byteOf(_mm256_cvttps_epi32(_mm256_mul_ps(v.r, scale)));
    const __m256i mg = byteOf(_mm256_cvttps_epi32(_mm256_mul_ps(v.g, scale)));
    __m256i mb = byteOf(_mm256_cvttps_epi32(_mm256_mul_ps(v.b, scale)));
    const __m256i me = byteOf(_mm256_add_epi32(e, _mm256_set1_epi32(128)));
    if (firstIsBlue) std::swap(mr, mb);
    const __m256i bytes = _mm256_permutevar8x32_epi32(
        _mm256_packus_epi16(_mm256_packs_epi32(mr, mg), _mm256_packs_epi32(mb, me)),
        _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
    alignas(32) std::uint8_t out[32];
    _mm256_store_si256(reinterpret_cast<__m256i*>(out), bytes);
    std::memcpy(row.r + x, out, 8);
    std::memcpy(row.g + x, out + 8, 8);
    std::memcpy(row.b + x, out + 16, 8);
    std::memcpy(row.e + x, out + 24, 8);
}

template <class T, int Kind>
OL_TARGET_AVX2 inline Lanes loadAt(const void* frame, std::size_t at, int stride, int mid, int last) noexcept {
    return loadLanes<T, Kind>(static_cast<const T*>(frame) + at, stride, mid, last);
}

template <class T>
OL_TARGET_AVX2 inline __m256i levelLanes(const Lanes& s) noexcept {
    __m256i a = s.a, b = s.b, c = s.c;
    if constexpr (sizeof(T) == 2) {
        a = _mm256_srli_epi32(a, 8);
        b = _mm256_srli_epi32(b, 8);
        c = _mm256_srli_epi32(c, 8);
    }
    return _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(a, _mm256_set1_epi32(54)),
                                             _mm256_mullo_epi32(b, _mm256_set1_epi32(183))),
                            _mm256_mullo_epi32(c, _mm256_set1_epi32(19)));
}

OL_TARGET_AVX2 inline __m256 sel(__m256 mask, __m256 yes, __m256 no) noexcept { return _mm256_blendv_ps(no, yes, mask); }

// Kind: 3 or 1 for a fixed spp with its own loads, 0 for any other.
template <class T, int Kind, bool Coherence>
OL_TARGET_AVX2 void calcRowsT(const CalcJob& job, MergeStats& stats) noexcept {
    MergeStats st = stats;
    const int n = job.nPhotos, stride = job.spp;
    const MotionPositions pos = motionPositions(stride);
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
    const __m256 threshold = _mm256_set1_ps(job.threshold), count = _mm256_set1_ps(static_cast<float>(n));
    __m256 vmax = _mm256_set1_ps(st.maxLum), vmin = _mm256_set1_ps(st.minLum);
    for (int y = 0; y < job.height; ++y) {
        const RgbeRow row = rgbeRow(job.rgbe, job.width, y);
        const std::size_t rowStart = static_cast<std::size_t>(y) * job.width * stride;
        int x = 0;
        for (; x + 8 <= job.width; x += 8) {
            const std::size_t at = rowStart + static_cast<std::size_t>(x) * stride;
            __m256 sW = zero, sR = zero, sG = zero, sB = zero, sErr = zero;
            __m256i nSat = _mm256_setzero_si256(), prev = _mm256_setzero_si256();
            for (int j = 0; j < n; ++j) {
                const CalcVisit& f = job.visits[j];
                const Lanes s = loadAt<T, Kind>(f.samples, at, stride, pos.middle, pos.last);
                const __m256i ival = levelLanes<T>(s);
                const __m256i sat = _mm256_cmpgt_epi32(ival, _mm256_set1_epi32(f.saturation));
                nSat = _mm256_sub_epi32(nSat, sat);
                const __m256 reset = _mm256_castsi256_ps(
                    _mm256_andnot_si256(sat, _mm256_cmpgt_epi32(_mm256_set1_epi32(kMotionDarkLevel), ival)));
                sW = _mm256_andnot_ps(reset, sW);
                sR = _mm256_andnot_ps(reset, sR);
                sG = _mm256_andnot_ps(reset, sG);
                sB = _mm256_andnot_ps(reset, sB);
                if constexpr (Coherence) {
                    if (j > 0) {
                        const __m256i m = _mm256_srli_epi32(_mm256_add_epi32(ival, prev), 1);
                        const __m256 slope =
                            _mm256_i32gather_ps(job.slope, _mm256_max_epi32(m, _mm256_set1_epi32(1)), 4);
                        const __m256 rise = _mm256_div_ps(_mm256_cvtepi32_ps(_mm256_sub_epi32(ival, prev)),
                                                          _mm256_set1_ps(f.dEV));
                        const __m256 e = _mm256_sub_ps(slope, rise);
                        sErr = _mm256_add_ps(sErr, _mm256_mul_ps(_mm256_mul_ps(e, e), _mm256_i32gather_ps(job.hat, m, 4)));
                    }
                    prev = ival;
                }
                const __m256 w = _mm256_i32gather_ps(f.weight, ival, 4);
                sW = _mm256_add_ps(sW, w);
                const __m256 wT = _mm256_mul_ps(w, _mm256_set1_ps(f.invT));
                sR = _mm256_add_ps(sR, _mm256_mul_ps(wT, _mm256_i32gather_ps(job.lut, s.a, 4)));
                sG = _mm256_add_ps(sG, _mm256_mul_ps(wT, _mm256_i32gather_ps(job.lut, s.b, 4)));
                sB = _mm256_add_ps(sB, _mm256_mul_ps(wT, _mm256_i32gather_ps(job.lut, s.c, 4)));
            }
            const __m256 allSat = _mm256_castsi256_ps(_mm256_cmpeq_epi32(nSat, _mm256_set1_epi32(n)));
            const __m256 burnt = _mm256_set1_ps(1e9f);
            sW = sel(allSat, one, sW);
            sR = sel(allSat, burnt, sR);
            sG = sel(allSat, burnt, sG);
            sB = sel(allSat, burnt, sB);
            const __m256 valid = _mm256_or_ps(allSat, _mm256_cmp_ps(sW, zero, _CMP_GT_OQ));
            if constexpr (Coherence) {
                const __m256 odd =
                    _mm256_and_ps(valid, _mm256_cmp_ps(_mm256_div_ps(sErr, count), threshold, _CMP_GT_OQ));
                if (_mm256_movemask_ps(odd)) {
                    // The plain mean of all frames, in frame order.
                    __m256 pR = zero, pG = zero, pB = zero;
                    for (int k = 0; k < n; ++k) {
                        const Lanes s = loadAt<T, Kind>(job.photos + static_cast<std::size_t>(k) * job.frameBytes,
                                                        at, stride, pos.middle, pos.last);
                        const __m256 inv = _mm256_set1_ps(job.invT[k]);
                        pR = _mm256_add_ps(pR, _mm256_mul_ps(inv, _mm256_i32gather_ps(job.lut, s.a, 4)));
                        pG = _mm256_add_ps(pG, _mm256_mul_ps(inv, _mm256_i32gather_ps(job.lut, s.b, 4)));
                        pB = _mm256_add_ps(pB, _mm256_mul_ps(inv, _mm256_i32gather_ps(job.lut, s.c, 4)));
                    }
                    sW = sel(odd, count, sW);
                    sR = sel(odd, pR, sR);
                    sG = sel(odd, pG, sG);
                    sB = sel(odd, pB, sB);
                }
            }
            const Rgb v{_mm256_and_ps(_mm256_div_ps(sR, sW), valid), _mm256_and_ps(_mm256_div_ps(sG, sW), valid),
                        _mm256_and_ps(_mm256_div_ps(sB, sW), valid)};
            finishLanes(v, job.firstIsBlue, st, vmax, vmin, row, x);
        }
        for (; x < job.width; ++x)
            calcPixel<T, Coherence>(job, rowStart + static_cast<std::size_t>(x) * stride, pos.middle, pos.last, x, y,
                                    st, row);
    }
    finishStatLanes(st, vmax, vmin);
    stats = st;
}

// (sumSq*sumW)/(sum*sum) - 1 where sum is above 0.0001, else 0.
OL_TARGET_AVX2 inline __m256 spreadLanes(__m256 sumSq, __m256 sumW, __m256 sum) noexcept {
    const __m256 t = _mm256_sub_ps(_mm256_div_ps(_mm256_mul_ps(sumSq, sumW), _mm256_mul_ps(sum, sum)),
                                   _mm256_set1_ps(1.0f));
    return _mm256_and_ps(t, _mm256_cmp_ps(sum, _mm256_set1_ps(0.0001f), _CMP_GT_OQ));
}

template <class T, int Kind, bool PerChannel>
OL_TARGET_AVX2 void unghostRowsT(const UnghostJob& job, Reference& ref, MergeStats& stats) noexcept {
    MergeStats st = stats;
    const int n = job.nPhotos, stride = job.spp;
    const MotionPositions pos = motionPositions(stride);
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f), big = _mm256_set1_ps(1e9f);
    const __m256 threshold = _mm256_set1_ps(job.threshold);
    const __m256 allOn = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    __m256 vmax = _mm256_set1_ps(st.maxLum), vmin = _mm256_set1_ps(st.minLum);
    for (int y = 0; y < job.height; ++y) {
        const RgbeRow row = rgbeRow(job.rgbe, job.width, y);
        const std::size_t rowStart = static_cast<std::size_t>(y) * job.width * stride;
        int x = 0;
        for (; x + 8 <= job.width; x += 8) {
            const std::size_t at = rowStart + static_cast<std::size_t>(x) * stride;
            __m256 sW = zero, sR = zero, sG = zero, sB = zero, sY = zero;
            __m256 sYY = zero, sRR = zero, sGG = zero, sBB = zero;
            __m256 active = allOn, black = zero, reached = zero, refR = zero, refG = zero, refB = zero;
            __m256i prev = _mm256_setzero_si256();
            for (int j = 0; j < n && _mm256_movemask_ps(active); ++j) {
                const UnghostVisit& f = job.visits[j];
                const Lanes s = loadAt<T, Kind>(f.samples, at, stride, pos.middle, pos.last);
                const __m256i ival = levelLanes<T>(s);
                const __m256 sat = _mm256_and_ps(
                    active, _mm256_castsi256_ps(_mm256_cmpgt_epi32(ival, _mm256_set1_epi32(kUnghostSaturation))));
                if (j == 0) {
                    // Saturated in the shortest exposure: burnt out, done.
                    sW = sel(sat, one, sW);
                    sR = sel(sat, big, sR);
                    sG = sel(sat, big, sG);
                    sB = sel(sat, big, sB);
                    sY = sel(sat, big, sY);
                    active = _mm256_andnot_ps(sat, active);
                } else {
                    // Saturated: stop unless it rises 52000 levels or more.
                    const __m256i small =
                        _mm256_cmpgt_epi32(_mm256_set1_epi32(kUnghostRise), _mm256_sub_epi32(ival, prev));
                    active = _mm256_andnot_ps(_mm256_and_ps(sat, _mm256_castsi256_ps(small)), active);
                }
                const __m256 dark = _mm256_and_ps(
                    _mm256_andnot_ps(sat, active),
                    _mm256_castsi256_ps(_mm256_cmpgt_epi32(_mm256_set1_epi32(kMotionDarkLevel), ival)));
                sW = _mm256_andnot_ps(dark, sW);
                sR = _mm256_andnot_ps(dark, sR);
                sG = _mm256_andnot_ps(dark, sG);
                sB = _mm256_andnot_ps(dark, sB);
                sY = _mm256_andnot_ps(dark, sY);
                if (j == n - 1) {
                    black = dark;
                    active = _mm256_andnot_ps(dark, active);
                }
                const __m256 w = _mm256_i32gather_ps(job.hat, ival, 4);
                const __m256 inv = _mm256_set1_ps(f.invT);
                const __m256i yIndex = sizeof(T) == 2 ? ival : _mm256_srli_epi32(ival, 8);
                const __m256 yv = _mm256_mul_ps(inv, _mm256_i32gather_ps(job.lut, yIndex, 4));
                sW = sel(active, _mm256_add_ps(sW, w), sW);
                sY = sel(active, _mm256_add_ps(sY, _mm256_mul_ps(w, yv)), sY);
                const __m256 la = _mm256_i32gather_ps(job.lut, s.a, 4);
                const __m256 lb = _mm256_i32gather_ps(job.lut, s.b, 4);
                const __m256 lc = _mm256_i32gather_ps(job.lut, s.c, 4);
                sR = sel(active, _mm256_add_ps(sR, _mm256_mul_ps(_mm256_mul_ps(la, w), inv)), sR);
                sG = sel(active, _mm256_add_ps(sG, _mm256_mul_ps(_mm256_mul_ps(lb, w), inv)), sG);
                sB = sel(active, _mm256_add_ps(sB, _mm256_mul_ps(_mm256_mul_ps(lc, w), inv)), sB);
                const __m256 vr = _mm256_mul_ps(la, inv), vg = _mm256_mul_ps(lb, inv), vb = _mm256_mul_ps(lc, inv);
                if (j == job.ref) {
                    reached = active;
                    refR = vr;
                    refG = vg;
                    refB = vb;
                }
                if constexpr (PerChannel) {
                    sRR = sel(active, _mm256_add_ps(sRR, _mm256_mul_ps(_mm256_mul_ps(w, vr), vr)), sRR);
                    sGG = sel(active, _mm256_add_ps(sGG, _mm256_mul_ps(_mm256_mul_ps(w, vg), vg)), sGG);
                    sBB = sel(active, _mm256_add_ps(sBB, _mm256_mul_ps(_mm256_mul_ps(w, vb), vb)), sBB);
                } else {
                    sYY = sel(active, _mm256_add_ps(sYY, _mm256_mul_ps(_mm256_mul_ps(w, yv), yv)), sYY);
                }
                prev = ival;
            }
            // Reference values in pixel order: a lane that did not reach the
            // reference frame keeps the values of the pixel before it.
            alignas(32) float rr[8], rg[8], rb[8];
            const int hit = _mm256_movemask_ps(reached);
            _mm256_store_ps(rr, refR);
            _mm256_store_ps(rg, refG);
            _mm256_store_ps(rb, refB);
            for (int l = 0; l < 8; ++l) {
                if (hit >> l & 1) ref = {rr[l], rg[l], rb[l]};
                rr[l] = ref.r;
                rg[l] = ref.g;
                rb[l] = ref.b;
            }
            const __m256 valid = _mm256_andnot_ps(black, _mm256_cmp_ps(sW, zero, _CMP_GT_OQ));
            __m256 d;
            if constexpr (PerChannel)
                d = _mm256_add_ps(_mm256_add_ps(spreadLanes(sRR, sW, sR), spreadLanes(sGG, sW, sG)),
                                  spreadLanes(sBB, sW, sB));
            else
                d = spreadLanes(sYY, sW, sY);
            __m256 c = _mm256_div_ps(d, threshold);
            c = sel(_mm256_cmp_ps(c, zero, _CMP_LT_OQ), zero, c);
            c = sel(_mm256_cmp_ps(c, one, _CMP_GT_OQ), one, c);
            const __m256 keep = _mm256_sub_ps(one, c);
            auto blend = [&](__m256 sum, const float* r) OL_TARGET_AVX2 {
                const __m256 mean = _mm256_div_ps(sum, sW);
                const __m256 v = _mm256_add_ps(_mm256_mul_ps(mean, keep), _mm256_mul_ps(_mm256_load_ps(r), c));
                return _mm256_and_ps(v, valid);
            };
            finishLanes({blend(sR, rr), blend(sG, rg), blend(sB, rb)}, job.firstIsBlue, st, vmax, vmin, row, x);
        }
        for (; x < job.width; ++x)
            unghostPixel<T, PerChannel>(job, rowStart + static_cast<std::size_t>(x) * stride, pos.middle, pos.last, x,
                                        y, ref, st, row);
    }
    finishStatLanes(st, vmax, vmin);
    stats = st;
}

template <class T, bool Flag>
OL_TARGET_AVX2 void calcBySpp(const CalcJob& job, MergeStats& st) noexcept {
    if (job.spp == 3) calcRowsT<T, 3, Flag>(job, st);
    else if (job.spp == 1 && sizeof(T) == 1) calcRowsT<T, 1, Flag>(job, st);
    else calcRowsT<T, 0, Flag>(job, st);
}

template <class T, bool Flag>
OL_TARGET_AVX2 void unghostBySpp(const UnghostJob& job, Reference& ref, MergeStats& st) noexcept {
    if (job.spp == 3) unghostRowsT<T, 3, Flag>(job, ref, st);
    else if (job.spp == 1 && sizeof(T) == 1) unghostRowsT<T, 1, Flag>(job, ref, st);
    else unghostRowsT<T, 0, Flag>(job, ref, st);
}

}  // namespace

bool calcRowsAvx2(const CalcJob& job, int bps, bool coherence, MergeStats& st) noexcept {
    if (!__builtin_cpu_supports("avx2")) return false;
    if (bps == 8)
        coherence ? calcBySpp<std::uint8_t, true>(job, st) : calcBySpp<std::uint8_t, false>(job, st);
    else
        coherence ? calcBySpp<std::uint16_t, true>(job, st) : calcBySpp<std::uint16_t, false>(job, st);
    return true;
}

bool unghostRowsAvx2(const UnghostJob& job, int bps, bool perChannel, Reference& ref, MergeStats& st) noexcept {
    if (!__builtin_cpu_supports("avx2")) return false;
    if (bps == 8)
        perChannel ? unghostBySpp<std::uint8_t, true>(job, ref, st) : unghostBySpp<std::uint8_t, false>(job, ref, st);
    else
        perChannel ? unghostBySpp<std::uint16_t, true>(job, ref, st)
                   : unghostBySpp<std::uint16_t, false>(job, ref, st);
    return true;
}

}  // namespace ol

#else

namespace ol {
bool calcRowsAvx2(const CalcJob&, int, bool, MergeStats&) noexcept { return false; }
bool unghostRowsAvx2(const UnghostJob&, int, bool, Reference&, MergeStats&) noexcept { return false; }
}  // namespace ol

#endif
