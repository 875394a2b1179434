#include "fusion/photo_stats.hpp"

#include <cstdint>
#include <cstring>

#include "frame/alloc.hpp"
#include "frame/histogram.hpp"
#include "fusion/bands.hpp"

namespace ol {
namespace {

// Histogram of one photo. Four interleaved histograms break the chain of
// increments on one entry that a smooth image makes; they are added up at
// the end.
template <class T>
void countPhoto(const T* photo, std::int64_t pixels, int channels, int satLimit,
                std::int64_t* histo, std::int64_t& saturated) noexcept {
    const int o1 = (channels - 1) / 2, o2 = channels - 1;
    constexpr int shift = sizeof(T) == 2 ? 8 : 0;
    std::uint32_t part[4][256] = {};
    std::int64_t sat = 0;
    std::int64_t i = 0;
    auto one = [&](std::int64_t k, std::uint32_t* h) {
        const T* p = photo + k * channels;
        const int c0 = p[0], c1 = p[o1], c2 = p[o2];
        sat += (c0 > satLimit) & (c1 > satLimit) & (c2 > satLimit);
        ++h[((c0 >> shift) * 54 + (c1 >> shift) * 183 + (c2 >> shift) * 19) >> 8];
    };
    // The 32-bit counters are emptied every 2^30 pixels.
    while (i < pixels) {
        const std::int64_t stop = pixels - i > (std::int64_t(1) << 30) ? i + (std::int64_t(1) << 30) : pixels;
        for (; i + 4 <= stop; i += 4) {
            one(i, part[0]);
            one(i + 1, part[1]);
            one(i + 2, part[2]);
            one(i + 3, part[3]);
        }
        for (; i < stop; ++i) one(i, part[0]);
        for (int k = 0; k < 256; ++k) {
            histo[k] += static_cast<std::int64_t>(part[0][k]) + part[1][k] + part[2][k] + part[3][k];
            part[0][k] = part[1][k] = part[2][k] = part[3][k] = 0;
        }
    }
    saturated += sat;
}

constexpr int kMaxSlices = 16;
struct Slice {
    std::int64_t histo[256];
    std::int64_t saturated;
};

}  // namespace

int photo_stats(int nbPhotos, int width, int height, int channels, int bps, const void* images,
                int* percNoisy, int* percSat, int* surexNivo, int* medianLevel,
                int* photoOrder, int threads) noexcept {
    Owned<std::int64_t> histo = makeOwned<std::int64_t>(256);
    Owned<int> remaining = makeOwned<int>(nbPhotos > 0 ? static_cast<std::size_t>(nbPhotos) : 1);
    if (!histo || !remaining) return -4;
    const std::int64_t pixels = static_cast<std::int64_t>(width) * height;
    const std::size_t photoSamples = static_cast<std::size_t>(pixels) * channels;
    const int satLimit = bps == 8 ? 250 : 64000;
    std::int64_t saturated = 0;  // not reset between photos
    for (int p = 0; p < nbPhotos; ++p) {
        std::memset(histo.get(), 0, 256 * sizeof(std::int64_t));
        // Slices of rows counted apart and summed: integer counts, the same
        // for any split.
        Slice slice[kMaxSlices] = {};
        const int slices = threads < 1 ? 1 : (threads > kMaxSlices ? kMaxSlices : threads);
        runBandsIndexed(slices, height > 0 ? height : 0, static_cast<std::size_t>(width) * channels,
                 [&](int band, int first, int count) {
                     Slice& sl = slice[band];
                     const std::int64_t start = static_cast<std::int64_t>(first) * width;
                     const std::int64_t n = static_cast<std::int64_t>(count) * width;
                     if (bps == 8)
                         countPhoto(static_cast<const std::uint8_t*>(images) + p * photoSamples + start * channels,
                                    n, channels, satLimit, sl.histo, sl.saturated);
                     else if (bps == 16)
                         countPhoto(static_cast<const std::uint16_t*>(images) + p * photoSamples + start * channels,
                                    n, channels, satLimit, sl.histo, sl.saturated);
                 });
        for (const Slice& sl : slice) {
            for (int k = 0; k < 256; ++k) histo[k] += sl.histo[k];
            saturated += sl.saturated;
        }
        surexNivo[p] = static_cast<int>(saturated);
        medianLevel[p] = brightnessKey(histo.get(), pixels);
        std::int64_t high = 0, low = 0;
        for (int k = 233; k < 256; ++k) high += histo[k];
        for (int k = 0; k < 16; ++k) low += histo[k];
        percSat[p] = pixels > 0 ? static_cast<int>(100 * high / pixels) : 0;
        percNoisy[p] = pixels > 0 ? static_cast<int>(100 * low / pixels) : 0;
    }

    orderByFallingKey(nbPhotos, medianLevel, remaining.get(), photoOrder);
    return nbPhotos;
}

}  // namespace ol
