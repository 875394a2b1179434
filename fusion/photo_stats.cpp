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

// Photo p's results from its histogram and the running saturated count.
void settlePhoto(int p, const std::int64_t* histo, std::int64_t pixels, std::int64_t saturated, int* percNoisy,
                 int* percSat, int* surexNivo, int* medianLevel) noexcept {
    surexNivo[p] = static_cast<int>(saturated);
    medianLevel[p] = brightnessKey(histo, pixels);
    std::int64_t high = 0, low = 0;
    for (int k = 233; k < 256; ++k) high += histo[k];
    for (int k = 0; k < 16; ++k) low += histo[k];
    percSat[p] = pixels > 0 ? static_cast<int>(100 * high / pixels) : 0;
    percNoisy[p] = pixels > 0 ? static_cast<int>(100 * low / pixels) : 0;
}

// Counts rows [first, first + count) of photo p into histo and saturated.
void countRows(int bps, const void* images, int p, std::size_t photoSamples, std::int64_t first, std::int64_t count,
               int width, int channels, int satLimit, std::int64_t* histo, std::int64_t& saturated) noexcept {
    const std::int64_t start = first * width;
    const std::int64_t n = count * width;
    if (bps == 8)
        countPhoto(static_cast<const std::uint8_t*>(images) + p * photoSamples + start * channels, n, channels,
                   satLimit, histo, saturated);
    else if (bps == 16)
        countPhoto(static_cast<const std::uint16_t*>(images) + p * photoSamples + start * channels, n, channels,
                   satLimit, histo, saturated);
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
                     countRows(bps, images, p, photoSamples, first, count, width, channels, satLimit, sl.histo,
                               sl.saturated);
                 });
        for (const Slice& sl : slice) {
            for (int k = 0; k < 256; ++k) histo[k] += sl.histo[k];
            saturated += sl.saturated;
        }
        settlePhoto(p, histo.get(), pixels, saturated, percNoisy, percSat, surexNivo, medianLevel);
    }

    orderByFallingKey(nbPhotos, medianLevel, remaining.get(), photoOrder);
    return nbPhotos;
}

// A tally: per taker and photo, 256 histogram entries and the saturated count.
constexpr std::size_t kTallyPerPhoto = 257;

std::size_t StatsShare::tallyWords(int nbPhotos, int takers) noexcept {
    return static_cast<std::size_t>(nbPhotos > 0 ? nbPhotos : 1) * static_cast<std::size_t>(takers) * kTallyPerPhoto;
}

StatsShare::StatsShare(int nbPhotos, int width, int height, int channels, int bps, const void* images,
                       std::int64_t* tally, int takers) noexcept
    : nbPhotos_(nbPhotos), width_(width), height_(height), channels_(channels), bps_(bps),
      images_(images), tally_(tally), takers_(takers) {
    if (tally != nullptr) std::memset(tally, 0, tallyWords(nbPhotos, takers) * sizeof(std::int64_t));
}

void StatsShare::take(int taker) noexcept {
    const std::size_t photoSamples = static_cast<std::size_t>(static_cast<std::int64_t>(width_) * height_) * channels_;
    const int satLimit = bps_ == 8 ? 250 : 64000;
    const int rows = height_ > 0 ? height_ : 0;
    const int pieces = (nbPhotos_ > 0 ? nbPhotos_ : 0) * kPiecesPerPhoto;
    for (int k = next_.fetch_add(1); k < pieces; k = next_.fetch_add(1)) {
        const int p = k / kPiecesPerPhoto, piece = k % kPiecesPerPhoto;
        const std::int64_t first = static_cast<std::int64_t>(rows) * piece / kPiecesPerPhoto;
        const std::int64_t end = static_cast<std::int64_t>(rows) * (piece + 1) / kPiecesPerPhoto;
        std::int64_t* t = tally_ + (static_cast<std::size_t>(taker) * nbPhotos_ + p) * kTallyPerPhoto;
        countRows(bps_, images_, p, photoSamples, first, end - first, width_, channels_, satLimit, t, t[256]);
    }
}

int StatsShare::finish(int* percNoisy, int* percSat, int* surexNivo, int* medianLevel, int* photoOrder) noexcept {
    Owned<std::int64_t> histo = makeOwned<std::int64_t>(256);
    Owned<int> remaining = makeOwned<int>(nbPhotos_ > 0 ? static_cast<std::size_t>(nbPhotos_) : 1);
    if (!histo || !remaining) return -4;
    const std::int64_t pixels = static_cast<std::int64_t>(width_) * height_;
    std::int64_t saturated = 0;  // not reset between photos
    for (int p = 0; p < nbPhotos_; ++p) {
        std::memset(histo.get(), 0, 256 * sizeof(std::int64_t));
        for (int taker = 0; taker < takers_; ++taker) {
            const std::int64_t* t = tally_ + (static_cast<std::size_t>(taker) * nbPhotos_ + p) * kTallyPerPhoto;
            for (int k = 0; k < 256; ++k) histo[k] += t[k];
            saturated += t[256];
        }
        settlePhoto(p, histo.get(), pixels, saturated, percNoisy, percSat, surexNivo, medianLevel);
    }
    orderByFallingKey(nbPhotos_, medianLevel, remaining.get(), photoOrder);
    return nbPhotos_;
}

}  // namespace ol
