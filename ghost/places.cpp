// The places of ghost detection: the photos from dark to bright, the noise
// floor and saturation limit of each place, and the brightness ratio between
// neighbouring places.
#include <cmath>
#include <cstdio>

#include "frame/numeric.hpp"
#include "frame/trace.hpp"
#include "ghost/ghost.hpp"

namespace ol {

int ghostLevels(int width, int height) noexcept {
    const int m = width > height ? width : height;
    if (m < 1000) return 2;
    if (m < 2000) return 3;
    if (m < 4000) return 4;
    if (m < 8000) return 5;
    return 6;
}

void ghostPlaces(int nbPhotos, const int* photoOrder, const float* deltaT,
                 GhostPlaces& places) noexcept {
    // photoOrder runs from bright to dark.
    for (int j = 0; j < nbPhotos; ++j) places.rising[j] = photoOrder[nbPhotos - 1 - j];
    const float minT = static_cast<float>(std::log2(static_cast<double>(deltaT[places.rising[0]])));
    const float maxT =
        static_cast<float>(std::log2(static_cast<double>(deltaT[places.rising[nbPhotos - 1]])));
    for (int j = 0; j < nbPhotos; ++j) {
        const float curT =
            static_cast<float>(std::log2(static_cast<double>(deltaT[places.rising[j]])));
        if (maxT <= minT) {
            places.saturationLevel[j] = 64000;
            places.noiseLevel[j] = 4096;
        } else {
            // Brighter places tolerate more: the noise floor falls from 4096
            // to 2560 and the saturation limit rises from 56320 to 61440. An
            // exposure outside [minT, maxT] (the order is by brightness, not
            // by exposure) extends the lines; a NaN gives 0x80000000.
            const float t = (curT - minT) / (maxT - minT);
            places.saturationLevel[j] = truncToInt(t * 5120.0f + 56320.0f);
            places.noiseLevel[j] = truncToInt(4096.0f - t * 1536.0f);
        }
        if constexpr (traceFlow)
            std::fprintf(stderr,
                         "%d  minT: %1.2f maxT: %1.2f  curT: %1.2f      saturationLevel: %d  %d   noiseLevel: %d\n",
                         j, static_cast<double>(minT), static_cast<double>(maxT),
                         static_cast<double>(curT), places.saturationLevel[j],
                         places.saturationLevel[j] >> 8, places.noiseLevel[j]);
    }
    // The ratio of exposures taken into gamma-encoded samples: one gamma 2.2
    // for every photo.
    constexpr float kInvGamma = 0.45454547f;
    for (int j = 0; j + 1 < nbPhotos; ++j) {
        const float ratio = deltaT[places.rising[j + 1]] / deltaT[places.rising[j]];
        places.evMult[j] = static_cast<float>(
            std::pow(static_cast<double>(ratio), static_cast<double>(kInvGamma)));
    }
}

}  // namespace ol
