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
#include "merge/motion_kernel.hpp"
#include "merge/motion_merge.hpp"

namespace ol {
namespace {

template <class T, bool PerChannel>
void unghostRows(const UnghostJob& job, Reference& ref, MergeStats& stats) noexcept {
    MergeStats st = stats;
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
    Reference ref;  // not cleared between pixels
    // Any depth but 8 and 16 writes no pixel. The diagnostic lines are
    // printed from the plain kernel only.
    if ((bps == 8 || bps == 16) && traceFiles == 0 && unghostRowsAvx2(job, bps, perChannel, ref, st)) {
    } else if (bps == 8) {
        if (perChannel)
            unghostRows<std::uint8_t, true>(job, ref, st);
        else
            unghostRows<std::uint8_t, false>(job, ref, st);
    } else if (bps == 16) {
        if (perChannel)
            unghostRows<std::uint16_t, true>(job, ref, st);
        else
            unghostRows<std::uint16_t, false>(job, ref, st);
    }
    hat.reset();

    writeMotionStats(st, stats);
    replaceMarkers(width, height, st.minLum, st.maxLum, RgbeForm::Wrapped, rgbe);
    return height;
}

}  // extern "C"
