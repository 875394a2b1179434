// Camera response exponent from a bracketed stack.
//
// A grid of at most 2500 points, kept where no image clips, gives one
// exponent estimate per pair of neighbouring exposures (exposure ratio over
// level ratio, both in log space); the estimates are averaged with weights
// that favour mid-toned pairs. The points whose linearised values agree
// between two images then fill the table of linear values by level.
#include <cmath>
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/grid_sampling.hpp"
#include "frame/numeric.hpp"
#include "response/stack_levels.hpp"

namespace {

using ol::response::NamedSamples;
using ol::response::sampleLevel;

// Reads the named samples of one pixel of one image.
struct StackReader {
    const std::uint8_t* images;
    std::size_t frameSamples;  // w * h * spp
    int bps;
    NamedSamples named;

    struct Pixel {
        int first, mid, last;
    };
    Pixel at(int image, std::size_t offset) const noexcept {
        const std::size_t base = static_cast<std::size_t>(image) * frameSamples + offset;
        return {sampleLevel(images, base + named.first, bps), sampleLevel(images, base + named.mid, bps),
                sampleLevel(images, base + named.last, bps)};
    }
};

// The weighted level used throughout: mid 0.6, first 0.1, last 0.3.
inline int weightedLevel(const StackReader::Pixel& p) noexcept {
    return static_cast<int>(p.mid * 0.6 + p.first * 0.1 + p.last * 0.3);
}
// The darker image's level of a pair at 8 bits: first and last exchange weights.
inline int weightedLevelSwapped(const StackReader::Pixel& p) noexcept {
    return static_cast<int>(p.mid * 0.6 + p.first * 0.3 + p.last * 0.1);
}

}  // namespace

extern "C" {

OL_API int calc_courbe(int n, int width, int height, int bps, int spp, const float* expo,
                       const std::uint8_t* images, float* curve) {
    using namespace ol;
    // No image: nothing to do, the table stays as it is.
    if (n < 1) return 0;
    // A depth other than 8 or 16 (or no sample a pixel) makes no level, so no
    // grid point is usable: the result of a stack without usable points.
    if ((bps != 8 && bps != 16) || spp < 1) return -1;
    // A stack too large to address holds no usable point either.
    if (width > 0 && height > 0 &&
        !response::blockFits({static_cast<unsigned>(n), static_cast<unsigned>(width), static_cast<unsigned>(height),
                              static_cast<unsigned>(spp), static_cast<unsigned>(bps / 8)}))
        return -1;

    // Five work arrays. Their failure is reported as -4 (no memory) and
    // releases what was taken.
    Owned<std::size_t> offsets = makeOwned<std::size_t>(kGridMaxPoints);
    Owned<int> means = makeOwned<int>(static_cast<std::size_t>(n));
    Owned<int> order = makeOwned<int>(static_cast<std::size_t>(n));
    Owned<float> estimate = makeOwned<float>(static_cast<std::size_t>(n));
    Owned<float> v = makeOwned<float>(static_cast<std::size_t>(n));
    if (!offsets || !means || !order || !estimate || !v) return -4;

    const StackReader stack{images,
                            static_cast<std::size_t>(width > 0 ? width : 0) *
                                static_cast<std::size_t>(height > 0 ? height : 0) * static_cast<std::size_t>(spp),
                            bps, NamedSamples(spp)};

    // 1. Grid points where the weighted level is 1..254 in every image.
    int kept = 0;
    forEachGridPoint(width, height, [&](int x, int y) {
        const std::size_t offset =
            (static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)) *
            static_cast<std::size_t>(spp);
        for (int i = 0; i < n; ++i) {
            const int l = weightedLevel(stack.at(i, offset));
            if (l < 1 || l > 254) return;
        }
        if (kept < kGridMaxPoints) offsets[kept++] = offset;
    });
    // 2. The last kept point is dropped.
    const int N = kept - 1;
    if (N < 1) return -1;

    // 3. Mean of first + mid + last over the points, by integer division.
    for (int i = 0; i < n; ++i) {
        long long sum = 0;
        for (int p = 0; p < N; ++p) {
            const auto px = stack.at(i, offsets[p]);
            sum += px.first + px.mid + px.last;
        }
        means[i] = static_cast<int>(sum / (3LL * N));
    }

    // 4. Descending order of the means.
    response::descendingScan(n, means.get(), n, [&](int k, int image) {
        order[k] = image;
        return true;
    });

    // 5. One estimate a neighbouring pair, a brighter than b.
    for (int i = 0; i + 1 < n; ++i) {
        estimate[i] = 0.0f;
        const int a = order[i];
        const int b = order[i + 1];
        if (expo[b] == 0.0f) continue;
        float sum = 0.0f;
        int rejected = 0;
        int valid = N;
        for (int p = 0; p < N; ++p) {
            const std::size_t offset = offsets[p];
            const int la = weightedLevel(stack.at(a, offset));
            bool reject = la < 65 || la > 191;
            if (!reject) {
                const auto pb = stack.at(b, offset);
                const int lb = bps == 16 ? weightedLevel(pb) : weightedLevelSwapped(pb);
                reject = lb < 65 || lb > 191;
                if (!reject) {
                    const float q = static_cast<float>(la) / static_cast<float>(lb);
                    const float L = static_cast<float>(std::log(static_cast<double>(q)));
                    if (L == 0.0f)
                        reject = true;
                    else
                        sum = static_cast<float>(static_cast<double>(sum) + 1.0 / static_cast<double>(L));
                }
            }
            if (reject) {
                ++rejected;
                --valid;
            }
        }
        if (rejected < N) {
            const double logRatio = std::log(static_cast<double>(expo[a] / expo[b]));
            estimate[i] = static_cast<float>(logRatio * static_cast<double>(sum / static_cast<float>(valid)));
        }
    }

    // 6. Weighted mean of the estimates in (1.0, 3.2); weights favour mid tones.
    float weightSum = 0.0f;
    float valueSum = 0.0f;
    for (int i = 0; i + 1 < n; ++i) {
        const float g = estimate[i];
        if (!(static_cast<double>(g) > 1.0 && static_cast<double>(g) < 3.2)) continue;
        int m0 = means[order[i]];
        if (m0 > 128) m0 = 255 - m0;
        int m1 = means[order[i + 1]];
        if (m1 > 128) m1 = 255 - m1;
        const int weight = static_cast<int>((m0 + m1) * 0.5);
        weightSum += static_cast<float>(weight);
        valueSum += static_cast<float>(weight) * g;
    }
    const float gamma = weightSum == 0.0f ? 0.0f : valueSum / weightSum;

    // 7. Linear values of the levels 37..199 where two images agree.
    int pairs = 0;
    int* level = means.get();  // the means are no longer needed: levels of the point
    for (int p = 0; p < N; ++p) {
        const std::size_t offset = offsets[p];
        for (int i = 0; i < n; ++i) {
            v[i] = 0.0f;
            level[i] = weightedLevel(stack.at(i, offset));
            if (level[i] >= 37 && level[i] <= 199)
                v[i] = static_cast<float>(std::pow(static_cast<double>(level[i]), static_cast<double>(gamma)) /
                                          static_cast<double>(expo[i]));
        }
        for (int i = 0; i < n; ++i) {
            if (!(v[i] > 0.0f)) continue;
            for (int j = i + 1; j < n; ++j) {
                if (!(v[j] > 0.0f)) continue;
                const float d = (v[i] - v[j]) / v[i];
                if (!(std::fabs(static_cast<double>(d)) < 0.2)) continue;
                const float f = static_cast<float>(static_cast<double>(d) + 1.0);
                curve[level[i]] = v[i] * expo[i] * f;
                curve[level[j]] = v[j] * expo[j] * f;
                ++pairs;
            }
        }
    }

    // 8. Header entries and the exponent in thousandths.
    curve[1] = 1.0f;
    curve[0] = static_cast<float>(std::pow(200.0, static_cast<double>(gamma)));
    curve[2] = static_cast<float>(pairs);
    return truncToInt(static_cast<double>(gamma) * 1000.0);
}

}  // extern "C"
