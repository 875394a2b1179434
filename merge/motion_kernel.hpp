// Pass 1 of calc_hdr and hdr_unghost: what the pixel loops need, and one
// pixel of each by plain code. The vector kernels give the same bytes and
// statistics, and use these for the pixels left at the end of a row.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "frame/rgbe.hpp"
#include "frame/trace.hpp"
#include "merge/merge_kernel.hpp"
#include "merge/motion_merge.hpp"

namespace ol {

// One frame in visiting order (shortest exposure first).
struct CalcVisit {
    const void* samples;  // first sample of the frame
    const float* weight;  // 65536 entries, by ival
    float invT;
    float dEV;  // stops from the previous rank, times 8192
    int saturation;
    int frame;
};

struct CalcJob {
    int nPhotos, width, height, spp;
    bool firstIsBlue;
    float threshold;
    const CalcVisit* visits;
    const std::uint8_t* photos;  // frame order, for the plain mean
    std::size_t frameBytes;
    const float* invT;  // by frame number
    const float* lut;
    const float* hat;
    const float* slope;
    std::uint8_t* rgbe;
};

template <class T, bool Coherence>
inline void calcPixel(const CalcJob& job, std::size_t at, int mid, int last, int x, int y, MergeStats& st,
                      const RgbeRow& row) noexcept {
    const int n = job.nPhotos;
    const float* lut = job.lut;
    const bool trace = traceFiles != 0 && sizeof(T) == 2 && motionTracePixel(x, y, job.width, job.height);
    float sumW = 0.0f, sumR = 0.0f, sumG = 0.0f, sumB = 0.0f, sumErr = 0.0f;
    int nSat = 0, prev = 0;
    for (int j = 0; j < n; ++j) {
        const CalcVisit& f = job.visits[j];
        const T* p = static_cast<const T*>(f.samples) + at;
        const T a = p[0], b = p[mid], c = p[last];
        const int ival = levelOf(highByte(a), highByte(b), highByte(c));
        if (ival > f.saturation) {
            ++nSat;
        } else if (ival < kMotionDarkLevel) {
            sumW = 0.0f;
            sumR = 0.0f;
            sumG = 0.0f;
            sumB = 0.0f;
        }
        if constexpr (Coherence) {
            if (j > 0) {
                const int m = (ival + prev) >> 1;
                const float e = job.slope[m < 1 ? 1 : m] - static_cast<float>(ival - prev) / f.dEV;
                sumErr += e * e * job.hat[m];
            }
            prev = ival;
        }
        const float w = f.weight[ival];
        sumW += w;
        const float wT = w * f.invT;
        sumR += wT * lut[a];
        sumG += wT * lut[b];
        sumB += wT * lut[c];
        if constexpr (traceFiles != 0)
            if (trace)
                std::fprintf(stdout, "%d,%d deltaT[%d]=%1.4f   pix=%d wpix=%1.3f\n", x, y, f.frame, f.invT, ival,
                             w);
    }
    float R = 0.0f, G = 0.0f, B = 0.0f;
    if (nSat == n) {
        sumW = 1.0f;
        sumR = sumG = sumB = 1e9f;
    }
    if (nSat == n || sumW > 0.0f) {
        if (Coherence && sumErr / static_cast<float>(n) > job.threshold) {
            // Inconsistent: the plain mean of all frames, in frame order.
            sumW = static_cast<float>(n);
            sumR = sumG = sumB = 0.0f;
            for (int k = 0; k < n; ++k) {
                const T* p = reinterpret_cast<const T*>(job.photos + static_cast<std::size_t>(k) * job.frameBytes) + at;
                sumR += job.invT[k] * lut[p[0]];
                sumG += job.invT[k] * lut[p[mid]];
                sumB += job.invT[k] * lut[p[last]];
            }
        }
        R = sumR / sumW;
        G = sumG / sumW;
        B = sumB / sumW;
    }
    if constexpr (traceFiles != 0)
        if (trace)
            std::fprintf(stdout, "---- sumW=%1.3f  sumG=%1.3f    Ergb: %1.3f %1.3f %1.3f   \n", sumW, sumG, R, G,
                         B);
    finishMotionPixel(R, G, B, job.firstIsBlue, st, row, x);
}

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

// Pass 1 over all rows with 8 pixels a step on AVX2 (the pixels at the end
// of a row by the plain code). Return false, having done nothing, where the
// processor or the build lacks it.
bool calcRowsAvx2(const CalcJob& job, int bps, bool coherence, MergeStats& st) noexcept;
bool unghostRowsAvx2(const UnghostJob& job, int bps, bool perChannel, Reference& ref, MergeStats& st) noexcept;

}  // namespace ol
