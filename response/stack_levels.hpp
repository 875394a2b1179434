// Levels of samples in a stack of 8 or 16-bit frames, and the brightness
// order by repeated scans that the response estimate and the middle-image
// choice share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace ol::response {

// The level of sample `index` (counted in samples from `data`): the byte
// itself at 8 bits, the high byte of the little-endian word at 16 bits, so
// levels run from 0 to 255 at both depths.
inline int sampleLevel(const std::uint8_t* data, std::size_t index, int bps) noexcept {
    return bps == 16 ? data[2 * index + 1] : data[index];
}

// Whether a block of the product of these sizes (each at least 0) could be
// addressed: below 2^62. Arguments that describe a larger block can't match
// a real buffer, and their index arithmetic would overflow.
inline bool blockFits(std::initializer_list<unsigned long long> factors) noexcept {
    constexpr unsigned long long kLimit = 1ull << 62;
    unsigned long long product = 1;
    for (unsigned long long f : factors) {
        if (f != 0 && product > kLimit / f) return false;
        product *= f;
    }
    return true;
}

// The three named samples of a pixel: first, middle and last.
struct NamedSamples {
    int first, mid, last;
    explicit NamedSamples(int spp) noexcept : first(0), mid((spp - 1) / 2), last(spp - 1) {}
};

// Images in order of descending value by repeated scans: each scan takes the
// first image holding the largest value strictly below the previous scan's
// value (255 for the first scan, best starting at 0), so equal values give
// only their first image, and values of 0 or 255 and above are never picked.
// A scan that finds nothing repeats the previous scan's image (image 0 when
// the very first scan finds nothing). Calls take(k, image) for positions 0..
// count-1 and stops early when take returns false.
template <class Take>
inline void descendingScan(int n, const int* values, int count, Take&& take) {
    int limit = 255;
    int pick = 0;
    for (int k = 0; k < count; ++k) {
        int best = 0;
        for (int i = 0; i < n; ++i) {
            if (values[i] < limit && values[i] > best) {
                best = values[i];
                pick = i;
            }
        }
        limit = best;
        if (!take(k, pick)) return;
    }
}

}  // namespace ol::response
