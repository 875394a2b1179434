// Preparation shared by calc_hdr and hdr_unghost: lut, exposures scaled to
// the middle value, order of the frames.
#include "merge/motion_merge.hpp"

#include <cstdio>

#include "frame/trace.hpp"
#include "merge/exposure.hpp"
#include "merge/merge_tables.hpp"

namespace ol {

void prepareMotionMerge(int nPhotos, int bps, int curveMode, float* lut, float midValue,
                        float* deltaT) noexcept {
    if constexpr (traceFiles != 0) std::fprintf(stdout, "calc_hdr deltaT0=%1.3f \n", deltaT[0]);

    const int entries = bps == 16 ? 65536 : 256;
    const float gamma = curveMode == 1 ? lut[0] : curveMode == 2 ? 0.45f : 2.2f;
    fillGammaLut(lut, entries, static_cast<float>(entries), gamma, curveMode == 2 ? 65535.0 : 1.0);

    // The first frame with exactly n/2 smaller exposures is the median.
    float tmid = 1.0f;
    for (int k = 0; k < nPhotos; ++k) {
        int smaller = 0;
        for (int i = 0; i < nPhotos; ++i) smaller += deltaT[i] < deltaT[k];
        if (smaller == nPhotos / 2) {
            tmid = deltaT[k];
            break;
        }
    }
    if constexpr (traceFiles != 0) std::fprintf(stdout, "tmid=%1.3f \n", tmid);
    if (tmid > 0.0f) {
        const float factor = 2.0f * midValue / tmid;
        for (int k = 0; k < nPhotos; ++k) deltaT[k] *= factor;
    }
    if constexpr (traceFiles != 0) {
        std::fprintf(stdout, "--- deltaT ---\n");
        for (int k = 0; k < nPhotos; ++k) std::fprintf(stdout, "%d   %1.3f\n", k, deltaT[k]);
    }
}

void orderMotionFrames(int nPhotos, const float* deltaT, int* ordre, void* scratch) noexcept {
    classementCroissantCore(nPhotos, deltaT, ordre, scratch);
    if constexpr (traceFiles != 0) {
        std::fprintf(stdout, "--- apres classement ---\n");
        for (int j = 0; j < nPhotos; ++j) {
            std::fprintf(stdout, " %d   %1.3f\n", j, deltaT[ordre[j]]);
            std::fprintf(stdout, " %d   ordre=%d\n", j, ordre[j]);
        }
    }
}

}  // namespace ol
