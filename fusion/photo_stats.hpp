// Per-photo histogram statistics and the order of the photos by brightness,
// used by the fusion weights and by ghost detection.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace ol {

// For each of nbPhotos photos of width x height x channels samples at bps 8
// or 16 (photo p at sample p*width*height*channels of `images`):
//   percNoisy[p]   percent of pixels whose luminance level is 0..15
//   percSat[p]     percent of pixels at levels 233..255
//   surexNivo[p]   running count of saturated pixels over photos 0..p
//   medianLevel[p] median luminance level << 8, or the 95th percentile level
//                  (unshifted) when the median is below 5
//   photoOrder     the photos by falling medianLevel, ties in index order
// The histograms are counted by slices of rows on up to `threads` threads.
// Returns nbPhotos, or -4 when memory runs out.
int photo_stats(int nbPhotos, int width, int height, int channels, int bps, const void* images,
                int* percNoisy, int* percSat, int* surexNivo, int* medianLevel,
                int* photoOrder, int threads = 1) noexcept;

// The same statistics counted by threads that come free at different times:
// the photos' rows go in pieces to whichever taker asks next, and each taker
// adds into a tally of its own (integer counts, so any split gives the same
// sums). `tally` holds tallyWords(nbPhotos, takers) words; the caller owns
// it, so that sharing adds no allocation.
class StatsShare {
public:
    static std::size_t tallyWords(int nbPhotos, int takers) noexcept;
    StatsShare(int nbPhotos, int width, int height, int channels, int bps, const void* images,
               std::int64_t* tally, int takers) noexcept;
    // Counts pieces as taker `taker` (one thread each) until none are left.
    void take(int taker) noexcept;
    // Once every taker has returned: what photo_stats gives, with the same
    // allocations and the same -4.
    int finish(int* percNoisy, int* percSat, int* surexNivo, int* medianLevel, int* photoOrder) noexcept;

private:
    static constexpr int kPiecesPerPhoto = 8;
    int nbPhotos_, width_, height_, channels_, bps_;
    const void* images_;
    std::int64_t* tally_;
    int takers_;
    std::atomic<int> next_{0};
};

}  // namespace ol
