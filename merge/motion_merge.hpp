// What the consistency-checked merge (calc_hdr) and the variance-blended
// merge (hdr_unghost) share: the lut by curve mode, the scaling of the
// exposures to the middle value, the ordering with its diagnostic lines, the
// sample positions, and the end of each pixel (luminance for the statistics,
// wrapped encoding, plane order).
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "frame/rgbe.hpp"
#include "merge/merge_kernel.hpp"

namespace ol {

// Dark level of both merges: below 5 on the 8-bit scale the sums restart.
inline constexpr int kMotionDarkLevel = 1280;
// The smallest luminance starts here (the plain merge starts at 1e9).
inline constexpr float kMotionMinStart = 1e11f;

// Nothing to do, or a shape these merges cannot read: 0 with the buffers
// untouched. A width below 1 has no first output byte to read; spp 2 would
// read a third colour sample past the pixel (and, at the last pixel, past
// the block).
inline bool motionMergeRefused(int nPhotos, int width, int height, int spp) noexcept {
    return height < 1 || nPhotos < 1 || width < 1 || spp < 1 || spp == 2;
}

// The first preparation steps of both merges, in order: the lut (entries
// 256, or 65536 for bps 16; gamma 2.2, lut[0] in curve mode 1, 0.45 and
// scale 65535 in curve mode 2), then the scaling of every exposure so that
// the median one becomes 2*midValue. Prints the lines of traceFiles.
void prepareMotionMerge(int nPhotos, int bps, int curveMode, float* lut, float midValue,
                        float* deltaT) noexcept;

// The frames from the smallest exposure to the largest, and their lines.
// `scratch` holds n * kClassementScratchPerFrame words.
void orderMotionFrames(int nPhotos, const float* deltaT, int* ordre, void* scratch) noexcept;

// Each non-zero exposure becomes its reciprocal.
inline void invertExposures(int nPhotos, float* deltaT) noexcept {
    for (int k = 0; k < nPhotos; ++k)
        if (deltaT[k] != 0.0f) deltaT[k] = 1.0f / deltaT[k];
}

// Sample positions of these merges: 0, 1, 2, or 0, 0, 0 for one sample.
struct MotionPositions {
    int middle, last;
};
inline MotionPositions motionPositions(int spp) noexcept {
    return spp > 1 ? MotionPositions{1, 2} : MotionPositions{0, 0};
}

// Luminance for the statistics, with the first sample weighted 0.3 whatever
// colour it is: in double, rounded to float.
inline float motionLum(float first, float middle, float last) noexcept {
    return static_cast<float>(0.3 * first + 0.6 * middle + 0.1 * last);
}

// The end of a pixel of pass 1: statistics, then the dark marker when the
// largest value is not above 1e-32, the burnt-out marker when the luminance
// is 1e9 or more, otherwise the wrapped form; the first sample goes to plane
// 2 when it is blue (mode 0) and to plane 0 otherwise.
inline void finishMotionPixel(float first, float middle, float last, bool firstIsBlue, MergeStats& st,
                              const RgbeRow& row, int x) noexcept {
    const float lum = motionLum(first, middle, last);
    st.add(lum);
    float m = first;
    if (middle > m) m = middle;
    if (last > m) m = last;
    RgbePixel p;
    if (!(static_cast<double>(m) > 1e-32))
        p = kRgbeDark;
    else if (lum >= 1e9f)
        p = kRgbeBurnt;
    else
        p = encodeRgbe(first, middle, last, RgbeForm::Wrapped);
    if (firstIsBlue) std::swap(p.r, p.b);
    storeRgbe(row, x, p);
}

// stats: minimum and maximum times 256, and the mean times 256 only when a
// pixel counted.
inline void writeMotionStats(const MergeStats& st, float* stats) noexcept {
    stats[0] = 256.0f * st.minLum;
    stats[1] = 256.0f * st.maxLum;
    if (st.count > 0) stats[2] = 256.0f * static_cast<float>(st.sum / static_cast<double>(st.count));
}

// Whether a pixel prints its diagnostic lines: x modulo width/2 and y modulo
// height/2 both 10 (a period of 0 has none).
inline bool motionTracePixel(int x, int y, int width, int height) noexcept {
    const int px = width / 2, py = height / 2;
    return px > 0 && py > 0 && x % px == 10 && y % py == 10;
}

}  // namespace ol
