// Pixel loop of the weighted merge (pass 1), shared by the plain and the
// vector kernels. The vector kernel gives the same bytes and statistics: it
// does the same float operations lane by lane, and it feeds the statistics
// pixel by pixel in the same order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "frame/levels.hpp"
#include "frame/rgbe.hpp"
#include "frame/trace.hpp"
#include "merge/merge_encode.hpp"

namespace ol {

// What the pixel loop needs of one frame, in visiting order (shortest
// exposure first).
struct FrameVisit {
    const void* samples;  // first sample of the frame
    const float* weight;  // 65536 entries, by ival
    float invT;
    int saturation;
    int darkLevel;  // the sums are reset when ival is below this
    int frame;      // frame number, for the diagnostic line
    // Upper curvature of the weight curve (fillWeightTable with `saturation`
    // and this beta), for a vector kernel that computes the weights instead of
    // gathering them from the table; see MergeJob::weightCurve.
    float beta = 0.0f;
};

struct MergeStats {
    float minLum = 1e9f;
    float maxLum = 0.0f;
    double sum = 0.0;  // running sum of lum, in pixel order
    long long count = 0;

    void add(float lum) noexcept {
        if (lum < 1e9f) {
            if (lum > maxLum) maxLum = lum;
            sum += lum;
            ++count;
        }
        if (lum > 0.0f && lum < minLum) minLum = lum;
    }
};

struct MarkerSpans;  // merge_tables.hpp

struct MergeJob {
    int nPhotos;
    int width;
    int height;
    int spp;
    const FrameVisit* visits;
    const float* lut;
    std::uint8_t* rgbe;
    // True when every visit's table is fillWeightTable(saturation, beta): the
    // vector kernel then computes the weight from ival with the table's float
    // operations (the same values) instead of a gather from 256 KiB a frame,
    // which misses the cache. The plain kernel always reads the table.
    bool weightCurve = false;
    // Where the vector kernel records the spans of rows that hold markers
    // (none when null); the plain kernel records nothing.
    MarkerSpans* spans = nullptr;
};

// The luminance that goes into the statistics.
inline float mergeLum(float r, float g, float b) noexcept {
    return static_cast<float>(0.2 * r + 0.7 * g + 0.1 * b);
}

// One pixel of pass 1: `at` is the index of its first sample in a frame.
template <class T>
inline void mergePixel(const MergeJob& job, int stride, std::size_t at, int x, int y, bool traceRow,
                       MergeStats& st, const RgbeRow& row) noexcept {
    const int iMiddle = (stride - 1) / 2;
    const int iLast = stride - 1;
    float sumW = 0.0f, sumR = 0.0f, sumG = 0.0f, sumB = 0.0f;
    int nSat = 0;
    for (int j = 0; j < job.nPhotos; ++j) {
        const FrameVisit& f = job.visits[j];
        const T* p = static_cast<const T*>(f.samples) + at;
        const T a = p[0];
        const T b = p[iMiddle];
        const T c = p[iLast];
        const int ival = levelOf(highByte(a), highByte(b), highByte(c));
        nSat += ival > f.saturation;
        if (ival < f.darkLevel) {
            sumW = 0.0f;
            sumR = 0.0f;
            sumG = 0.0f;
            sumB = 0.0f;
        }
        const float w = f.weight[ival];
        sumW += w;
        const float wT = w * f.invT;
        sumR += wT * job.lut[a];
        sumG += wT * job.lut[b];
        sumB += wT * job.lut[c];
        if constexpr (traceMerge != 0) {
            // The sample pixels: x % (width/2) == 100 on rows where
            // y % (height/4) == 50; a period of 0 has none.
            const int periodX = job.width / 2;
            if (traceRow && periodX > 0 && x % periodX == 100)
                std::fprintf(stdout,
                             "dT[%d]=%1.2f   ival: %d    w: %1.2f     %1.2f %1.2f %1.2f"
                             "       %d,%d\n",
                             f.frame, f.invT, ival, w, job.lut[highByte(a)], job.lut[highByte(b)],
                             job.lut[highByte(c)], x, y);
        }
    }
    float R, G, B;
    if (nSat == job.nPhotos) {
        R = G = B = kMergeBurnt;
    } else if (sumW > 0.0f) {
        R = sumR / sumW;
        G = sumG / sumW;
        B = sumB / sumW;
    } else {
        R = G = B = 0.0f;
    }
    st.add(mergeLum(R, G, B));
    storeRgbe(row, x, encodeMergePixel(R, G, B));
}

// Pass 1 over rows [y0, y1) with the plain kernel.
template <class T>
void mergeRowsPlain(const MergeJob& job, int y0, int y1, MergeStats& stats) noexcept {
    MergeStats st = stats;  // kept in registers, away from the output stores
    const int stride = job.spp;
    const int periodY = job.height / 4;
    for (int y = y0; y < y1; ++y) {
        const RgbeRow row = rgbeRow(job.rgbe, job.width, y);
        const std::size_t rowStart = static_cast<std::size_t>(y) * job.width * stride;
        const bool traceRow = traceMerge != 0 && periodY > 0 && y % periodY == 50;
        for (int x = 0; x < job.width; ++x)
            mergePixel<T>(job, stride, rowStart + static_cast<std::size_t>(x) * stride, x, y, traceRow, st,
                          row);
    }
    stats = st;
}

// The same with 8 pixels a step on AVX2. Returns false, having done nothing,
// where the processor or the build lacks it.
bool mergeRowsAvx2(const MergeJob& job, int bps, int y0, int y1, MergeStats& st) noexcept;

}  // namespace ol
