// The consistency-checked merge: the weighted merge with exposures scaled to
// a chosen middle value, channel order from the mode, a dark rule at 5 on the
// 8-bit scale, and a per-pixel test of how the level changes from one
// exposure to the next. A pixel whose levels do not rise as a still scene's
// would (the expected rise per stop is the slope table) is taken as the plain
// mean of all the frames instead of the weighted mean.
//
// The switch of the test arrives in the first byte of the output buffer,
// read before anything is written: 0 off, 2 a threshold of 0.8, any other
// value 1.0.
#include <algorithm>
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
#include "merge/motion_kernel.hpp"
#include "merge/motion_merge.hpp"

namespace ol {
namespace {

// Expected change of level for one stop, in units of 8192 levels.
constexpr int kSlopeKnots = 14;
constexpr int kSlopeLevel[kSlopeKnots] = {0,     10240, 15360, 20480, 23040, 25600, 28160,
                                          46080, 51200, 56320, 58880, 61440, 64000, 65280};
constexpr float kSlopeValue[kSlopeKnots] = {0.4f, 0.5f, 0.75f, 1.0f, 1.1f, 1.25f, 1.333f,
                                            0.1f, 0.0f, 0.0f,  0.0f, 0.0f,  0.0f,  0.0f};

template <class T, bool Coherence>
void calcRows(const CalcJob& job, MergeStats& stats) noexcept {
    MergeStats st = stats;  // kept in registers, away from the output stores
    const MotionPositions pos = motionPositions(job.spp);
    for (int y = 0; y < job.height; ++y) {
        const RgbeRow row = rgbeRow(job.rgbe, job.width, y);
        const std::size_t rowStart = static_cast<std::size_t>(y) * job.width * job.spp;
        for (int x = 0; x < job.width; ++x)
            calcPixel<T, Coherence>(job, rowStart + static_cast<std::size_t>(x) * job.spp, pos.middle, pos.last, x,
                                    y, st, row);
    }
    stats = st;
}

}  // namespace
}  // namespace ol

extern "C" {

int calc_hdr(int mode, int nPhotos, int width, int height, int spp, int bps, int curveMode, float* lut,
             float midValue, float* deltaT, const void* photos, float* stats, unsigned char* rgbe) {
    using namespace ol;
    if (motionMergeRefused(nPhotos, width, height, spp)) return 0;
    const int coherence = rgbe[0];

    prepareMotionMerge(nPhotos, bps, curveMode, lut, midValue, deltaT);

    // ordre, the saturation levels and the visits; then hat, slope and the
    // weight tables in one block. Either failing gives -4, with the lut
    // filled and the exposures scaled.
    const std::size_t n = static_cast<std::size_t>(nPhotos);
    Owned<std::int32_t> small = makeOwned<std::int32_t>(n * (2 + kClassementScratchPerFrame));
    Owned<CalcVisit> visits = makeOwned<CalcVisit>(n);
    if (!small || !visits) return -4;
    int* ordre = small.get();
    int* saturationLevel = ordre + n;
    orderMotionFrames(nPhotos, deltaT, ordre, saturationLevel + n);

    if (n > (SIZE_MAX / sizeof(float) - 2 * kMergeLevels) / kMergeLevels) return -4;
    Owned<float> tables = makeOwned<float>((2 + n) * kMergeLevels);
    if (!tables) return -4;
    float* hat = tables.get();
    float* slope = hat + kMergeLevels;
    float* weight = slope + kMergeLevels;
    fillWeightTable(65535, 4.0f, hat, 65535);

    invertExposures(nPhotos, deltaT);
    const float threshold = coherence == 2 ? 0.8f : 1.0f;

    // Saturation levels from 64000 (shortest exposure) down to 60160
    // (longest), in float like those of the plain merge, so that the two
    // ends are exactly 64000 and 60160. A NaN or infinite level (a zero or
    // negative exposure) truncates to 0x80000000.
    const float top = log2AsFloat(deltaT[ordre[0]]);
    const float bottom = log2AsFloat(deltaT[ordre[nPhotos - 1]]);
    for (int k = 0; k < nPhotos; ++k) {
        if (top > bottom) {
            const float rise = 3840.0f * (log2AsFloat(deltaT[k]) - bottom);
            saturationLevel[k] = truncToInt(60160.0f + rise / (top - bottom));
        } else {
            saturationLevel[k] = 64000;
        }
    }

    fillKnotTable(kSlopeLevel, kSlopeValue, kSlopeKnots, slope);
    const std::size_t frameSamples =
        static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * static_cast<std::size_t>(spp);
    const std::size_t frameBytes = frameSamples * (bps == 16 ? 2 : 1);
    for (int j = 0; j < nPhotos; ++j) {
        const int k = ordre[j];
        CalcVisit& v = visits[j];
        // The difference in stops between this rank and the one before,
        // from the reciprocals; 0.3 where it is below 0.0001 (ties).
        float dEV = 1.0f;
        if (j > 0) {
            float stops = log2AsFloat(deltaT[ordre[j - 1]]) - log2AsFloat(deltaT[k]);
            if (static_cast<double>(stops) < 0.0001) stops = 0.3f;
            dEV = stops * 8192.0f;
        }
        v.samples = static_cast<const std::uint8_t*>(photos) + static_cast<std::size_t>(k) * frameBytes;
        v.weight = weight + static_cast<std::size_t>(k) * kMergeLevels;
        v.invT = deltaT[k];
        v.dEV = dEV;
        v.saturation = saturationLevel[k];
        v.frame = k;
    }
    // Weight tables by frame; the lower branch of this merge's curve reaches
    // level 32769. Frames with the same level share the same table.
    for (int k = 0; k < nPhotos; ++k) {
        float* table = weight + static_cast<std::size_t>(k) * kMergeLevels;
        int same = -1;
        for (int q = 0; q < k && same < 0; ++q)
            if (saturationLevel[q] == saturationLevel[k]) same = q;
        if (same >= 0)
            std::copy(weight + static_cast<std::size_t>(same) * kMergeLevels,
                      weight + static_cast<std::size_t>(same + 1) * kMergeLevels, table);
        else
            fillWeightTable(saturationLevel[k], weightBeta(saturationLevel[k]), table, 32769);
    }

    MergeStats st;
    st.minLum = kMotionMinStart;
    const CalcJob job{nPhotos,     width,      height,     spp,   mode == 0, threshold,
                      visits.get(), static_cast<const std::uint8_t*>(photos), frameBytes, deltaT,
                      lut,         hat,        slope,      rgbe};
    // Any depth but 8 and 16 writes no pixel. The diagnostic lines are
    // printed from the plain kernel only.
    if ((bps == 8 || bps == 16) && traceFiles == 0 && calcRowsAvx2(job, bps, coherence != 0, st)) {
    } else if (bps == 8) {
        if (coherence != 0)
            calcRows<std::uint8_t, true>(job, st);
        else
            calcRows<std::uint8_t, false>(job, st);
    } else if (bps == 16) {
        if (coherence != 0)
            calcRows<std::uint16_t, true>(job, st);
        else
            calcRows<std::uint16_t, false>(job, st);
    }
    tables.reset();

    writeMotionStats(st, stats);
    if (mode == 2) return height;
    replaceMarkers(width, height, st.minLum, st.maxLum, RgbeForm::Wrapped, rgbe);
    return height;
}

}  // extern "C"
