// The comparison of the places at the coarsest level: each place predicted
// from the one before it, per channel, and the mean error against seuil.
#include <cstdint>
#include <cstdio>

#include "frame/numeric.hpp"
#include "frame/trace.hpp"
#include "ghost/ghost.hpp"

namespace ol {
namespace {

// |a - b| in 32-bit two's complement, as the machine gives it: the
// difference wraps and the absolute value of INT32_MIN stays INT32_MIN. Only
// a predicted value from a broken exposure ratio ever gets there.
inline std::uint32_t wrappedAbsDiff(std::int32_t a, std::int32_t b) noexcept {
    const std::uint32_t d = static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b);
    return static_cast<std::int32_t>(d) < 0 ? 0u - d : d;
}

inline std::int32_t asInt(std::uint32_t v) noexcept { return static_cast<std::int32_t>(v); }

}  // namespace

int ghostCompare(int nbPhotos, int wCoarse, int hCoarse, int channels, int seuil,
                 const GhostPlaces& places, const std::uint8_t* stack, std::int32_t* expected,
                 std::uint8_t* coarseMask) noexcept {
    // The prediction of every 8-bit value at every place, before the pixels.
    for (int j = 0; j + 1 < nbPhotos; ++j)
        for (int v = 0; v < 256; ++v)
            expected[j * 256 + v] = truncToInt(static_cast<float>(v) * places.evMult[j]);

    const int o1 = (channels - 1) / 2, o2 = channels - 1;
    const std::size_t slot = static_cast<std::size_t>(wCoarse) * hCoarse * channels;
    const int* rising = places.rising;
    const int* noise = places.noiseLevel;
    const int* saturation = places.saturationLevel;
    int y = 0;
    for (; y < hCoarse; ++y) {
        for (int x = 0; x < wCoarse; ++x) {
            const std::size_t pix = static_cast<std::size_t>(y) * wCoarse + x;
            const bool sampled = traceStats && ghostSampled(x, y);
            std::uint32_t diff0 = 0, diff1 = 0, diff2 = 0;
            int count = 0;
            int p0 = 0, p1 = 0, p2 = 0, prevLum = 0;
            for (int j = 0; j < nbPhotos; ++j) {
                const std::uint8_t* s = stack + rising[j] * slot + pix * channels;
                const int c0 = s[0], c1 = s[o1], c2 = s[o2];
                int lum = c1 * 183 + c0 * 54 + c2 * 19;
                if constexpr (traceStats)
                    if (sampled)
                        std::fprintf(stderr, "photo%d:      %d %d %d    lum:  %d\n", rising[j], c0, c1, c2, lum);
                if (j >= 1) {
                    const bool prevDark = prevLum < noise[j - 1];
                    const bool curDark = lum < noise[j];
                    bool compare = true;
                    int a0 = p0, a1 = p1, a2 = p2, b0 = c0, b1 = c1, b2 = c2;
                    if (prevDark && curDark) {
                        compare = false;  // the pair tells nothing
                    } else if (prevDark != curDark) {
                        // One side lies in the noise: luminance only, both
                        // raised to a floor first.
                        if (lum < 512) lum = 512;
                        const int prev = prevLum < 512 ? 512 : prevLum;
                        a0 = a1 = a2 = prev >> 8;
                        b0 = b1 = b2 = lum >> 8;
                    } else if (lum > saturation[j]) {
                        compare = false;  // the brighter photo is clipped here
                    }
                    if (compare) {
                        const std::int32_t* e = expected + (j - 1) * 256;
                        const std::uint32_t d0 = wrappedAbsDiff(b0, e[a0]);
                        const std::uint32_t d1 = wrappedAbsDiff(b1, e[a1]);
                        const std::uint32_t d2 = wrappedAbsDiff(b2, e[a2]);
                        diff0 += d0;
                        diff1 += d1;
                        diff2 += d2;
                        ++count;
                        if constexpr (traceStats)
                            if (sampled) {
                                const float m = places.evMult[j - 1];
                                std::fprintf(stderr,
                                             " %d vs %d   evMult: %1.2f    expected: %1.0f %1.0f %1.0f vs %d %d %d    diff: %d %d %d  ->   %d  vs  seuil: %d \n",
                                             rising[j], rising[j - 1], static_cast<double>(m),
                                             static_cast<double>(static_cast<float>(a0) * m),
                                             static_cast<double>(static_cast<float>(a1) * m),
                                             static_cast<double>(static_cast<float>(a2) * m), b0, b1, b2,
                                             asInt(d0), asInt(d1), asInt(d2),
                                             asInt(d0 + d1 + d2) / 2, seuil);
                            }
                    }
                }
                // The raw samples carry on, and the (possibly raised) lum.
                p0 = c0;
                p1 = c1;
                p2 = c2;
                prevLum = lum;
            }
            std::uint8_t mark = 0;
            if (count > 0) {
                const std::uint32_t avg0 = static_cast<std::uint32_t>(asInt(diff0) / count);
                const std::uint32_t avg1 = static_cast<std::uint32_t>(asInt(diff1) / count);
                const std::uint32_t avg2 = static_cast<std::uint32_t>(asInt(diff2) / count);
                if (asInt(avg0 + avg1 + avg2) / 2 > seuil) mark = 255;
            }
            coarseMask[pix] = mark;
            if constexpr (traceStats)
                if (sampled) std::fprintf(stderr, "-- %d,%d\n", x, y);
        }
    }
    return y;
}

}  // namespace ol
