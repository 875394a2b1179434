// Brightness scores of images, so that a host can rank a stack and pick a
// reference image.
#include <cstdint>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/grid_sampling.hpp"
#include "frame/numeric.hpp"
#include "response/stack_levels.hpp"

namespace {

using ol::response::NamedSamples;

// Histogram of the luminance level (54 first + 183 mid + 19 last) >> 8 over
// `pixels` consecutive pixels from `data`. Four interleaved counter sets keep
// neighbouring pixels of one level from waiting on each other's increment.
template <int Bytes>
void levelHistogram(const std::uint8_t* data, std::size_t pixels, int spp, std::uint32_t* hist) {
    const NamedSamples named(spp);
    // Byte offsets of the level byte (the high byte of a 16-bit word).
    const std::size_t hi = Bytes - 1;
    const std::size_t f = static_cast<std::size_t>(named.first) * Bytes + hi;
    const std::size_t m = static_cast<std::size_t>(named.mid) * Bytes + hi;
    const std::size_t l = static_cast<std::size_t>(named.last) * Bytes + hi;
    const std::size_t pixelBytes = static_cast<std::size_t>(spp) * Bytes;
    // The level never exceeds (255 * 256) >> 8 = 255, so no limit is needed.
    auto level = [&](const std::uint8_t* px) { return (px[m] * 183 + px[f] * 54 + px[l] * 19) >> 8; };
    std::uint32_t sets[4][256] = {};
    std::size_t p = 0;
    for (; p + 4 <= pixels; p += 4, data += 4 * pixelBytes) {
        ++sets[0][level(data)];
        ++sets[1][level(data + pixelBytes)];
        ++sets[2][level(data + 2 * pixelBytes)];
        ++sets[3][level(data + 3 * pixelBytes)];
    }
    for (; p < pixels; ++p, data += pixelBytes) ++sets[0][level(data)];
    for (int v = 0; v < 256; ++v) hist[v] += sets[0][v] + sets[1][v] + sets[2][v] + sets[3][v];
}

// The first level at which the running sum of the counters exceeds `limit`;
// 256 when it never does.
int levelAbove(const std::uint32_t* hist, long long limit) {
    long long sum = 0;
    for (int level = 0; level < 256; ++level) {
        sum += hist[level];
        if (sum > limit) return level;
    }
    return 256;
}

}  // namespace

extern "C" {

// One score an image from its histogram: the median level shifted left by 8,
// or, for an image whose median is below 5, its 95th percentile unshifted, so
// nearly black images rank below every other and among themselves by their
// highlights.
OL_API int moy_images(int n, int width, int height, int rowStride, int spp, int bps,
                      const std::uint8_t* images, int* out) {
    // Nothing to do without images or pixels, or without a level to take.
    if (n < 1 || width < 1 || height < 1 || spp < 1 || (bps != 8 && bps != 16)) return 0;
    // Sizes that describe a block too large to address are refused the same way.
    const unsigned long long stride = rowStride < 0 ? 0ull - static_cast<unsigned long long>(rowStride) : rowStride;
    if (!ol::response::blockFits({static_cast<unsigned>(n), static_cast<unsigned>(height), stride + 1,
                                  static_cast<unsigned>(bps / 8)}) ||
        !ol::response::blockFits({static_cast<unsigned>(width), static_cast<unsigned>(height),
                                  static_cast<unsigned>(spp), static_cast<unsigned>(bps / 8)}))
        return 0;
    const long long pixels = static_cast<long long>(width) * height;
    const long long half = pixels >> 1;
    const auto p95 = static_cast<long long>(static_cast<double>(static_cast<float>(pixels)) * 0.95);
    // The pixels of image i are the w*h consecutive ones from i*h*rowStride.
    // A stride below a row would take the last images past the end of the
    // block (n*h*rowStride samples): only the pixels inside it are counted.
    const long long blockEnd = static_cast<long long>(n) * height * rowStride;
    const int bytes = bps / 8;
    for (int i = 0; i < n; ++i) {
        std::uint32_t hist[256];
        std::memset(hist, 0, sizeof hist);
        const long long start = static_cast<long long>(i) * height * rowStride;
        long long count = 0;
        if (start >= 0 && blockEnd > start) {
            count = (blockEnd - start) / spp;
            if (count > pixels) count = pixels;
        }
        if (count > 0) {
            const std::uint8_t* data = images + static_cast<std::size_t>(start) * bytes;
            if (bps == 8)
                levelHistogram<1>(data, static_cast<std::size_t>(count), spp, hist);
            else
                levelHistogram<2>(data, static_cast<std::size_t>(count), spp, hist);
        }
        const int median = levelAbove(hist, half);
        out[i] = median >= 5 ? median << 8 : levelAbove(hist, p95);
    }
    return static_cast<int>(half);
}

// Mean level of samples 0, 1 and 2 over the statistics grid.
OL_API int moy_image(int width, int height, int rowStride, int spp, int bps, const std::uint8_t* image) {
    if (bps != 8 && bps != 16) return 0;
    // Samples 0..2 are read whatever spp is: with fewer than three samples a
    // pixel the last grid point reaches past the image; samples outside the
    // image ((h-1)*rowStride + w*spp samples) count as level 0.
    const long long end = static_cast<long long>(height - 1) * rowStride + static_cast<long long>(width) * spp;
    float sum = 0.0f;
    int count = 0;
    ol::forEachGridPoint(width, height, [&](int x, int y) {
        const long long base = static_cast<long long>(y) * rowStride + static_cast<long long>(x) * spp;
        for (int s = 0; s < 3; ++s) {
            const long long at = base + s;
            const int level = at >= 0 && at < end ? ol::response::sampleLevel(image, static_cast<std::size_t>(at), bps) : 0;
            sum += static_cast<float>(level);
        }
        ++count;
    });
    if (count == 0) return 0;
    return ol::truncToInt(sum / static_cast<float>(3 * count));
}

// The image at the middle position of the descending order of values.
OL_API int mid_im(int n, const int* values) {
    if (n < 1) return 0;  // no image to pick
    int middle = 0;
    const int position = n / 2;
    ol::response::descendingScan(n, values, position + 1, [&](int k, int image) {
        middle = image;
        return k < position;
    });
    return middle;
}

}  // extern "C"
