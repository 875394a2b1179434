// Brightness ranking of a bracketed stack and the spacing of its exposures in
// whole stops.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "operators/geometry.hpp"

namespace ol {
namespace {

// The rate at which a ratio of image means turns into stops, by the mean
// level: linear between the knots, all in single precision.
void fillStopRate(float* T) noexcept {
    static constexpr int kx[9] = {0, 8, 14, 60, 90, 125, 160, 190, 255};
    static constexpr float ky[9] = {1.1f, 1.2f, 1.3f, 1.5f, 1.8f, 2.3f, 3.3f, 4.7f, 6.0f};
    for (int s = 0; s < 8; ++s) {
        const float slope = (ky[s + 1] - ky[s]) / static_cast<float>(kx[s + 1] - kx[s]);
        const float intercept = ky[s] - static_cast<float>(kx[s]) * slope;
        for (int i = kx[s]; i < kx[s + 1]; ++i) T[i] = static_cast<float>(i) * slope + intercept;
    }
    T[255] = 6.0f;
}

// Mean level of one image: the sum of samples 0, 1, 2 (sample 0 three times
// at spp 1) over the pixels whose sum lies in 2..763, divided by three times
// their count. With spp 2 the last pixel of the block would read one sample
// past it: that sample counts as 0.
int imageMean(const std::uint8_t* img, long width, long height, long rowStride, int spp,
              std::size_t available) noexcept {
    std::uint64_t sum = 0, count = 0;
    for (long y = 0; y < height; ++y) {
        const std::size_t rowAt = sizeOf(y) * sizeOf(rowStride);
        const std::uint8_t* p = img + rowAt;
        if (spp == 1) {
            for (long x = 0; x < width; ++x) {
                const unsigned t = 3u * p[x];
                const bool in = t >= 2 && t <= 763;
                sum += in ? t : 0;
                count += in;
            }
            continue;
        }
        for (long x = 0; x < width; ++x, p += spp) {
            const std::size_t at = rowAt + sizeOf(x) * sizeOf(spp);
            const unsigned s2 = at + 2 < available ? p[2] : 0u;
            const unsigned t = p[0] + p[1] + s2;
            const bool in = t >= 2 && t <= 763;
            sum += in ? t : 0;
            count += in;
        }
    }
    return count == 0 ? 0 : static_cast<int>(sum / (3 * count));
}

}  // namespace
}  // namespace ol

extern "C" OL_API int rankvig(int n, int width, int height, int rowStride, int spp, const std::uint8_t* images,
                              int* order, int* stops) {
    using ol::sizeOf;
    // No image to rank, or rows that don't fit their stride: nothing written.
    if (n < 1 || order == nullptr || stops == nullptr) return 0;
    if (height > 0 && width > 0 && (!ol::rowsFit(width, spp, rowStride) || images == nullptr)) return 0;

    float T[256];
    ol::fillStopRate(T);
    const float k = static_cast<float>(1.0 / std::log(2.0));

    ol::Owned<int> mean = ol::makeOwned<int>(sizeOf(n));
    ol::Owned<float> e = ol::makeOwned<float>(sizeOf(n));
    ol::Owned<unsigned char> present = ol::makeOwnedZeroed<unsigned char>(sizeOf(n));
    if (!mean || !e || !present) return 0;

    const long h = height > 0 ? height : 0, w = width > 0 ? width : 0;
    const std::size_t frame = sizeOf(h) * sizeOf(rowStride > 0 ? rowStride : 0);
    const std::size_t block = h > 0 && w > 0 ? (sizeOf(n) - 1) * frame + sizeOf(h - 1) * sizeOf(rowStride) +
                                                   sizeOf(w) * sizeOf(spp)
                                             : 0;
    for (int i = 0; i < n; ++i) {
        const std::size_t start = sizeOf(i) * frame;
        mean[i] = h > 0 && w > 0 ? ol::imageMean(images + start, w, h, rowStride, spp, block - start) : 0;
    }

    // Order: each rank takes the largest mean strictly below the last one
    // taken; a scan that finds nothing repeats the previous pick and drops
    // the limit below every mean.
    int limit = 256, pick = 0;
    bool repeats = false;
    for (int r = 0; r < n; ++r) {
        int best = -1;
        for (int i = 0; i < n; ++i)
            if (mean[i] < limit && mean[i] > best) {
                best = mean[i];
                pick = i;
            }
        limit = best;
        order[r] = pick;
        if (r > 0 && order[r] == order[r - 1]) repeats = true;
    }
    // Tie repair: each repeated entry takes the next index absent from the
    // order, ascending, so tied images go to the end in index order.
    if (repeats) {
        for (int r = 0; r < n; ++r) present[order[r]] = 1;
        int nextAbsent = 0;
        int prevBefore = order[0];
        for (int r = 1; r < n; ++r) {
            const int before = order[r];
            if (before == prevBefore) {
                while (nextAbsent < n && present[nextAbsent]) ++nextAbsent;
                if (nextAbsent < n) order[r] = nextAbsent++;
            }
            prevBefore = before;
        }
    }

    const int m = n / 2;
    e[m] = 0.0f;
    auto s = [&](int r) { return static_cast<float>(mean[order[r]]); };
    auto rate = [&](float a, float b) {
        const std::int32_t i = ol::truncToInt((a + b) * 0.5);
        return k * T[i];
    };
    for (int r = m + 1; r < n; ++r) {
        const float a = s(r - 1), b = s(r);
        const double q = std::log(static_cast<double>(a / b));
        e[r] = static_cast<float>(e[r - 1] - q * rate(a, b));
    }
    for (int r = m - 1; r >= 0; --r) {
        const float a = s(r), b = s(r + 1);
        const double q = std::log(static_cast<double>(b / a));
        e[r] = static_cast<float>(e[r + 1] - q * rate(a, b));
    }
    // Whole stops, ties away from zero. A mean of 0 beside a brighter one
    // gives an infinite or undefined log; its truncation is 0x80000000 and
    // the step from there wraps as on the machine.
    for (int r = 0; r < n; ++r) {
        const std::int32_t i = ol::truncToInt(e[r]);
        const float f = e[r] - static_cast<float>(i);
        std::int32_t v = i;
        if (!(std::fabs(f) < 0.5f))
            v = static_cast<std::int32_t>(static_cast<std::uint32_t>(i) + (f > 0.0f ? 1u : 0xFFFFFFFFu));
        stops[r] = ol::truncToInt(static_cast<float>(v));
    }
    return stops[n - 1];
}
