// The variance-blended merge: a weighted mean of the frames under one hat
// curve, blended toward the middle frame of the exposure order as the frames
// disagree. The spread is the squared coefficient of variation of a pixel's
// radiance across the frames (per channel, or of luminance alone); at the
// variant's threshold the pixel is the reference frame's own value.
//
// A pixel's frame loop stops at the first saturated frame (unless it rises
// 52000 levels or more over the frame before), and the reference values and
// the sums of squares are kept as they are when it stops or restarts: such
// pixels blend from values the current sums do not cover.
#include <cstdint>
#include <cstdio>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"
#include "frame/trace.hpp"
#include "merge/exposure.hpp"
#include "merge/merge_kernel.hpp"
#include "merge/merge_tables.hpp"
#include "merge/motion_merge.hpp"

namespace ol {
namespace {

constexpr int kUnghostSaturation = 64000;
constexpr int kUnghostRise = 52000;

struct UnghostVisit {
    const void* samples;
    float invT;
    int frame;
};

struct UnghostJob {
    int nPhotos, width, height, spp;
    bool firstIsBlue;
    float threshold;
    int ref;  // rank of the reference frame
    const UnghostVisit* visits;
    const float* lut;
    const float* hat;
    std::uint8_t* rgbe;
};

// The reference frame's radiance of the last pixel that reached it.
struct Reference {
    float r = 0.0f, g = 0.0f, b = 0.0f;
};

inline float spreadTerm(float sumSq, float sumW, float sum) noexcept {
    return static_cast<double>(sum) > 0.0001 ? (sumSq * sumW) / (sum * sum) - 1.0f : 0.0f;
}

template <class T, bool PerChannel>
inline void unghostPixel(const UnghostJob& job, std::size_t at, int mid, int last, int x, int y, Reference& ref,
                         MergeStats& st, const RgbeRow& row) noexcept {
    const int n = job.nPhotos;
    const float* lut = job.lut;
    const bool trace = traceFiles != 0 && motionTracePixel(x, y, job.width, job.height);
    float sumW = 0.0f, sumR = 0.0f, sumG = 0.0f, sumB = 0.0f, sumY = 0.0f;
    float sumYY = 0.0f, sumRR = 0.0f, sumGG = 0.0f, sumBB = 0.0f;
    bool black = false;
    int prev = 0;
    for (int j = 0; j < n; ++j) {
        const UnghostVisit& f = job.visits[j];
        const T* p = static_cast<const T*>(f.samples) + at;
        const T a = p[0], b = p[mid], c = p[last];
        const int ival = levelOf(highByte(a), highByte(b), highByte(c));
        if (ival > kUnghostSaturation) {
            if (j == 0) {
                // Saturated in the shortest exposure already.
                sumW = 1.0f;
                sumR = sumG = sumB = sumY = 1e9f;
                break;
            }
            if (ival - prev < kUnghostRise) break;
        } else if (ival < kMotionDarkLevel) {
            sumW = sumR = sumG = sumB = sumY = 0.0f;
            if (j == n - 1) {
                black = true;
                break;
            }
        }
        const float w = job.hat[ival];
        const float yv = f.invT * lut[sizeof(T) == 2 ? ival : ival >> 8];
        sumW += w;
        sumY += w * yv;
        const float la = lut[a], lb = lut[b], lc = lut[c];
        sumR += la * w * f.invT;
        sumG += lb * w * f.invT;
        sumB += lc * w * f.invT;
        const float vr = la * f.invT, vg = lb * f.invT, vb = lc * f.invT;
        if (j == job.ref) {
            ref.r = vr;
            ref.g = vg;
            ref.b = vb;
        }
        if constexpr (PerChannel) {
            sumRR += w * vr * vr;
            sumGG += w * vg * vg;
            sumBB += w * vb * vb;
        } else {
            sumYY += w * yv * yv;
        }
        prev = ival;
        if constexpr (traceFiles != 0)
            if (trace)
                std::fprintf(stdout, "%d,%d deltaT[%d]=%1.4f   pix=%d wpix=%1.3f\n", x, y, f.frame, f.invT, ival,
                             w);
    }
    float R = 0.0f, G = 0.0f, B = 0.0f;
    if (!black && sumW > 0.0f) {
        const float meanR = sumR / sumW, meanG = sumG / sumW, meanB = sumB / sumW;
        if constexpr (traceFiles != 0)
            if (trace)
                std::fprintf(stdout, "---- sumW=%1.3f  sumG=%1.3f    Ergb: %1.3f %1.3f %1.3f   \n", sumW, sumG,
                             meanR, meanG, meanB);
        float d;
        if constexpr (PerChannel)
            d = spreadTerm(sumRR, sumW, sumR) + spreadTerm(sumGG, sumW, sumG) + spreadTerm(sumBB, sumW, sumB);
        else
            d = spreadTerm(sumYY, sumW, sumY);
        float c = d / job.threshold;
        if (c < 0.0f) c = 0.0f;
        if (c > 1.0f) c = 1.0f;
        R = meanR * (1.0f - c) + ref.r * c;
        G = meanG * (1.0f - c) + ref.g * c;
        B = meanB * (1.0f - c) + ref.b * c;
        if constexpr (traceFiles != 0)
            if (trace)
                std::fprintf(stdout, "%d %d  lumv=%1.2f    %1.2f %1.2f %1.2f    %1.2f %1.2f %1.2f \n", x, y, d,
                             ref.r, ref.g, ref.b, R, G, B);
    }
    finishMotionPixel(R, G, B, job.firstIsBlue, st, row, x);
}

template <class T, bool PerChannel>
void unghostRows(const UnghostJob& job, MergeStats& stats) noexcept {
    MergeStats st = stats;
    Reference ref;  // not cleared between pixels
    const MotionPositions pos = motionPositions(job.spp);
    for (int y = 0; y < job.height; ++y) {
        const RgbeRow row = rgbeRow(job.rgbe, job.width, y);
        const std::size_t rowStart = static_cast<std::size_t>(y) * job.width * job.spp;
        for (int x = 0; x < job.width; ++x)
            unghostPixel<T, PerChannel>(job, rowStart + static_cast<std::size_t>(x) * job.spp, pos.middle, pos.last,
                                        x, y, ref, st, row);
    }
    stats = st;
}

}  // namespace
}  // namespace ol

extern "C" {

int hdr_unghost(int mode, int variant, int nPhotos, int width, int height, int spp, int bps, int curveMode,
                float* lut, float midValue, float* deltaT, const void* photos, float* stats,
                unsigned char* rgbe) {
    using namespace ol;
    if (motionMergeRefused(nPhotos, width, height, spp)) return 0;
    const bool perChannel = variant != 2;

    prepareMotionMerge(nPhotos, bps, curveMode, lut, midValue, deltaT);

    const std::size_t n = static_cast<std::size_t>(nPhotos);
    Owned<std::int32_t> small = makeOwned<std::int32_t>(n * (1 + kClassementScratchPerFrame));
    Owned<UnghostVisit> visits = makeOwned<UnghostVisit>(n);
    if (!small || !visits) return -4;
    int* ordre = small.get();
    orderMotionFrames(nPhotos, deltaT, ordre, ordre + n);
    const int kMid = nPhotos / 2;
    if constexpr (traceFiles != 0) std::fprintf(stdout, "kMid=%d  ordre[kMid]=%d\n", kMid, ordre[kMid]);

    Owned<float> hat = makeOwned<float>(kMergeLevels);
    if (!hat) return -4;
    fillWeightTable(65535, 4.0f, hat.get(), 65535);
    invertExposures(nPhotos, deltaT);

    const std::size_t frameBytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) *
                                   static_cast<std::size_t>(spp) * (bps == 16 ? 2 : 1);
    for (int j = 0; j < nPhotos; ++j) {
        const int k = ordre[j];
        visits[j] = {static_cast<const std::uint8_t*>(photos) + static_cast<std::size_t>(k) * frameBytes, deltaT[k],
                     k};
    }

    MergeStats st;
    st.minLum = kMotionMinStart;
    const UnghostJob job{nPhotos, width, height, spp, mode == 0, perChannel ? 0.15f : 0.18f, kMid,
                         visits.get(), lut, hat.get(), rgbe};
    // Any depth but 8 and 16 writes no pixel.
    if (bps == 8) {
        if (perChannel)
            unghostRows<std::uint8_t, true>(job, st);
        else
            unghostRows<std::uint8_t, false>(job, st);
    } else if (bps == 16) {
        if (perChannel)
            unghostRows<std::uint16_t, true>(job, st);
        else
            unghostRows<std::uint16_t, false>(job, st);
    }
    hat.reset();

    writeMotionStats(st, stats);
    replaceMarkers(width, height, st.minLum, st.maxLum, RgbeForm::Wrapped, rgbe);
    return height;
}

}  // extern "C"
