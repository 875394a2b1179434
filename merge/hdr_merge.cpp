// The plain weighted merge of a bracketed photo block into rgbe planes.
//
// Each frame gets a weight table over the luminance level ival (a squared
// parabola that reaches 0 at the frame's saturation level), and a pixel is the
// weighted mean of the linearised samples divided by the frame's exposure.
// Frames are visited from the shortest exposure to the longest; a longer
// exposure that is still dark throws away what the shorter ones contributed.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"
#include "frame/trace.hpp"
#include "merge/exposure.hpp"
#include "merge/merge_encode.hpp"
#include "merge/merge_kernel.hpp"
#include "merge/merge_tables.hpp"

namespace ol {
namespace {

constexpr int kLevels = kMergeLevels;
constexpr int kDarkLevel = 2560;      // 10 on the 8-bit scale
constexpr int kLastDarkLevel = 1280;  // 5 on the 8-bit scale, for the longest exposure

}  // namespace
}  // namespace ol

extern "C" {

int ol_hdr_merge(int mode, int nPhotos, int width, int height, int spp, int bps, int gammaGiven,
                 float* lut, float evStep, float* deltaT, const void* photos, float* stats,
                 unsigned char* rgbe) {
    using namespace ol;
    if (height < 1 || nPhotos < 1) return 0;
    // Any other depth would leave the samples unread (and the table of 2^bps
    // entries unbounded): the call does nothing.
    if (bps != 8 && bps != 16) return 0;
    if (width < 0 || spp < 1) return 0;

    const int inputMax = static_cast<int>(std::pow(2.0, bps)) - 1;
    const float max = static_cast<float>(std::pow(2.0, bps));
    if constexpr (traceMerge != 0)
        std::fprintf(stdout,
                     "ol_hdr_merge: %d photos  %d x %d  spp: %d   bps: %d   inputMax: %d  max: %1.0f\n",
                     nPhotos, width, height, spp, bps, inputMax, max);

    const float gamma = gammaGiven == 1 ? lut[0] : 2.2f;
    fillGammaLut(lut, inputMax + 1, max, gamma);

    // Small per-frame arrays in one block: ordre, saturation, noise, invT,
    // the zero means for guess_ev, and the scratch of the two rankings.
    const std::size_t n = static_cast<std::size_t>(nPhotos);
    const std::size_t scratchWords =
        n * (kGuessEvScratchPerFrame > kClassementScratchPerFrame ? kGuessEvScratchPerFrame
                                                                  : kClassementScratchPerFrame);
    Owned<std::int32_t> small = makeOwnedZeroed<std::int32_t>(5 * n + scratchWords);
    if (!small) return -4;
    int* ordre = small.get();
    int* saturationLevel = ordre + n;
    int* noiseLevel = saturationLevel + n;
    float* invT = reinterpret_cast<float*>(noiseLevel + n);
    int* zeros = reinterpret_cast<int*>(invT + n);
    void* scratch = zeros + n;
    FrameVisit visitsLocal[16];
    Owned<FrameVisit> visitsHeap;
    FrameVisit* visits = visitsLocal;
    if (n > 16) {
        visitsHeap = makeOwned<FrameVisit>(n);
        if (!visitsHeap) return -4;
        visits = visitsHeap.get();
    }

    if (evStep > -0.5f) guessEvCore(0, nPhotos, evStep, zeros, deltaT, scratch);
    classementCroissantCore(nPhotos, deltaT, ordre, scratch);
    for (int k = 0; k < nPhotos; ++k) invT[k] = 1.0f / deltaT[k];

    const double ln2 = std::log(2.0);
    const float minT = static_cast<float>(std::log(static_cast<double>(deltaT[ordre[0]])) / ln2);
    const float maxT =
        static_cast<float>(std::log(static_cast<double>(deltaT[ordre[nPhotos - 1]])) / ln2);
    for (int k = 0; k < nPhotos; ++k) {
        // Rounded to float like minT and maxT, so that x is exactly 0 for the
        // shortest exposure and 1 for the longest.
        const float curT = static_cast<float>(std::log(static_cast<double>(deltaT[k])) / ln2);
        if (maxT > minT) {
            const float x = (curT - minT) / (maxT - minT);
            // In float, like x: a regular bracket then gets levels that step
            // evenly from 64000 to 60160 (x = 1/3 gives 62720 exactly).
            saturationLevel[k] = truncToInt(64000.0f - 3840.0f * x);
            noiseLevel[k] = truncToInt(3072.0f - 512.0f * x);
        } else {
            saturationLevel[k] = 64000;
            noiseLevel[k] = 3072;
        }
        if constexpr (traceMerge != 0)
            std::fprintf(stdout,
                         "%d  minT: %1.2f maxT: %1.2f  curT: %1.2f      saturationLevel: %d  %d   "
                         "noiseLevel: %d\n",
                         k, minT, maxT, curT, saturationLevel[k], saturationLevel[k] >> 8,
                         noiseLevel[k] >> 8);
    }

    // The weight tables, and behind them room for the spans of rows that
    // hold markers, which the vector kernel records for the marker pass.
    const std::size_t spanCapacity = 4 * static_cast<std::size_t>(height) + 1024;
    const std::size_t spanFloats = (spanCapacity * sizeof(MarkerSpan) + sizeof(float) - 1) / sizeof(float);
    Owned<float> weight = makeOwned<float>(n * kLevels + spanFloats);
    if (!weight) return -4;
    MarkerSpans spans;
    spans.at = reinterpret_cast<MarkerSpan*>(weight.get() + n * kLevels);
    spans.capacity = spanCapacity;
    for (int k = 0; k < nPhotos; ++k) {
        const int sat = saturationLevel[k];
        const float beta = weightBeta(sat);
        if constexpr (traceMerge != 0)
            std::fprintf(stdout, "photo%d   saturationLevel: %d     beta:  %1.2f\n", k, sat, beta);
        // Frames with the same level share the same table.
        int same = -1;
        for (int q2 = 0; q2 < k && same < 0; ++q2)
            if (saturationLevel[q2] == sat) same = q2;
        float* table = weight.get() + static_cast<std::size_t>(k) * kLevels;
        if (same >= 0)
            std::memcpy(table, weight.get() + static_cast<std::size_t>(same) * kLevels,
                        sizeof(float) * kLevels);
        else
            fillWeightTable(sat, beta, table);
    }

    const std::size_t frameSamples =
        static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * static_cast<std::size_t>(spp);
    const std::size_t sampleBytes = bps == 16 ? 2 : 1;
    for (int j = 0; j < nPhotos; ++j) {
        const int k = ordre[j];
        visits[j].samples =
            static_cast<const std::uint8_t*>(photos) + static_cast<std::size_t>(k) * frameSamples * sampleBytes;
        visits[j].weight = weight.get() + static_cast<std::size_t>(k) * kLevels;
        visits[j].invT = invT[k];
        visits[j].saturation = saturationLevel[k];
        visits[j].darkLevel = j == nPhotos - 1 ? kLastDarkLevel : kDarkLevel;
        visits[j].frame = k;
        visits[j].beta = weightBeta(saturationLevel[k]);
    }

    MergeStats st;
    const MergeJob job{nPhotos, width, height, spp, visits, lut, rgbe, true, &spans};
    // The diagnostic line is printed from the plain kernel only.
    const bool vector = traceMerge == 0 && mergeRowsAvx2(job, bps, 0, height, st);
    if (!vector) {
        if (bps == 8)
            mergeRowsPlain<std::uint8_t>(job, 0, height, st);
        else
            mergeRowsPlain<std::uint16_t>(job, 0, height, st);
    }

    float mean = 0.0f;
    if (st.count > 0) mean = static_cast<float>(st.sum / static_cast<double>(st.count));
    stats[0] = 256.0f * st.minLum;
    stats[1] = 256.0f * st.maxLum;
    stats[2] = 256.0f * mean;
    if (mode == 2) return height;

    replaceMarkers(width, height, st.minLum, st.maxLum, RgbeForm::Clamped, rgbe, vector ? &spans : nullptr);
    return height;
}

}  // extern "C"
