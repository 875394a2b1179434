// Mean of a packed stack (moyenne), and the same mean with shadows opened and
// highlights held by a soft-light blend with its blurred negative (hsauto).
#include <cstdint>
#include <cstdio>

#include "Ombrelumen40Lib1.h"
#include "frame/box_mean.hpp"
#include "frame/levels.hpp"
#include "frame/trace.hpp"
#include "operators/geometry.hpp"

namespace ol {
namespace {

// Unsigned division of a stack sum by the count of images n, through a
// multiply where that is exact: with m = floor(2^32 / n) + 1 the product
// s * m / 2^32 has the integer part s / n while s * n < 2^32 (the error
// m n - 2^32 is at most n). The multiplier then fits 32 bits, so the loops
// over a block of sums run as vector multiplies. Larger stacks divide.
class StackDivider {
public:
    StackDivider(std::uint32_t n, std::uint64_t largestSum) noexcept
        : n_(n), m_(n >= 2 && largestSum * n < (std::uint64_t{1} << 32) ? (std::uint64_t{1} << 32) / n + 1 : 0) {}
    std::uint32_t operator()(std::uint32_t s) const noexcept {
        if (m_) return static_cast<std::uint32_t>((static_cast<std::uint64_t>(s) * m_) >> 32);
        return n_ == 1 ? s : s / n_;
    }
    // Every sum of a block, in place.
    void divide(std::uint32_t* s, long count, std::uint32_t scale, std::uint32_t top) const noexcept {
        if (m_) {
            const std::uint64_t m = m_;
            for (long j = 0; j < count; ++j) {
                const auto q = static_cast<std::uint32_t>((static_cast<std::uint64_t>(s[j] * scale) * m) >> 32);
                s[j] = q < top ? q : top;
            }
        } else {
            for (long j = 0; j < count; ++j) {
                const std::uint32_t q = (*this)(s[j] * scale);
                s[j] = q < top ? q : top;
            }
        }
    }

private:
    std::uint32_t n_;
    std::uint64_t m_;
};

struct MeanJob {
    int n;
    long width, height;
    long rowStride;  // of the target, in samples
    int spp;
    bool swap;
    int scale;  // 256 when 8-bit sums go to 16-bit samples, else 1
    std::uint32_t top;
    std::uint8_t* plane;  // negative level per pixel (hsauto), or null
    int planeShift;
};

// One pixel's three means, stored at the colour positions (first and last
// exchanged on `swap`; on a collision, with 2 samples, the middle is stored
// last) and, for hsauto, the negative of their level.
template <class Out>
inline void storeMeans(const MeanJob& job, const ColourPositions& pos, std::uint32_t a, std::uint32_t b,
                       std::uint32_t c, Out* out, std::size_t pixel) noexcept {
    out[job.swap ? pos.last : pos.first] = static_cast<Out>(a);
    out[job.swap ? pos.first : pos.last] = static_cast<Out>(c);
    out[pos.middle] = static_cast<Out>(b);
    if (job.plane) {
        // Weights 19 for first and 54 for last: first is blue here.
        const int v = 255 - (levelOf(static_cast<int>(c), static_cast<int>(b), static_cast<int>(a)) >> job.planeShift);
        job.plane[pixel] = static_cast<std::uint8_t>(v < 0 ? 0 : v);
    }
}

// The means of every pixel. Each row's samples are summed over the stack a
// block at a time (the sum of whole rows of samples runs as plain vector
// adds), then the three colour positions of each pixel are taken from the
// sums.
template <class In, class Out>
void stackMeans(const MeanJob& job, const In* images, Out* dst) noexcept {
    const ColourPositions pos = colourPositions(job.spp);
    const std::uint64_t largest = (sizeof(In) == 1 ? 255u : 65535u) * static_cast<std::uint64_t>(job.n) * job.scale;
    const StackDivider div(static_cast<std::uint32_t>(job.n), largest);
    const std::size_t frame = sizeOf(job.width) * sizeOf(job.height) * sizeOf(job.spp);
    constexpr long kBlock = 4096;
    std::uint32_t acc[kBlock];
    const long spp = job.spp;
    const long perBlock = spp <= kBlock ? kBlock / spp : 0;
    // Three samples a pixel in their own order: the means are the row's samples.
    const bool straight = spp == 3 && !job.swap && !job.plane;
    for (long y = 0; y < job.height; ++y) {
        const std::size_t rowAt = sizeOf(y) * sizeOf(job.width) * sizeOf(spp);
        const std::size_t pixelAt = sizeOf(y) * sizeOf(job.width);
        Out* out = dst + sizeOf(y) * sizeOf(job.rowStride);
        if (perBlock == 0) {
            // Pixels wider than the block: three sums a pixel.
            for (long x = 0; x < job.width; ++x) {
                const std::size_t at = rowAt + sizeOf(x) * sizeOf(spp);
                std::uint32_t s[3] = {0, 0, 0};
                for (int k = 0; k < job.n; ++k) {
                    const In* p = images + sizeOf(k) * frame + at;
                    s[0] += p[pos.first];
                    s[1] += p[pos.middle];
                    s[2] += p[pos.last];
                }
                div.divide(s, 3, job.scale, job.top);
                storeMeans(job, pos, s[0], s[1], s[2], out + sizeOf(x) * sizeOf(spp), pixelAt + sizeOf(x));
            }
            continue;
        }
        for (long x0 = 0; x0 < job.width; x0 += perBlock) {
            const long np = job.width - x0 < perBlock ? job.width - x0 : perBlock;
            const long ns = np * spp;
            const std::size_t at = rowAt + sizeOf(x0) * sizeOf(spp);
            for (long j = 0; j < ns; ++j) acc[j] = images[at + j];
            for (int k = 1; k < job.n; ++k) {
                const In* p = images + sizeOf(k) * frame + at;
                for (long j = 0; j < ns; ++j) acc[j] += p[j];
            }
            div.divide(acc, ns, job.scale, job.top);
            Out* o = out + sizeOf(x0) * sizeOf(spp);
            if (straight) {
                for (long j = 0; j < ns; ++j) o[j] = static_cast<Out>(acc[j]);
                continue;
            }
            for (long x = 0; x < np; ++x) {
                const std::uint32_t* s = acc + x * spp;
                storeMeans(job, pos, s[pos.first], s[pos.middle], s[pos.last], o + sizeOf(x) * sizeOf(spp),
                           pixelAt + sizeOf(x0 + x));
            }
        }
    }
}

// Runs the mean for the depths given; false when the depths fall through
// every case (nothing written).
bool runMeans(MeanJob job, int bpsIn, int bpsOut, const void* images, void* dst) noexcept {
    if (bpsIn == 16) {
        job.scale = 1;
        job.top = 65535;
        job.planeShift = 16;
        stackMeans(job, static_cast<const std::uint16_t*>(images), static_cast<std::uint16_t*>(dst));
        return true;
    }
    if (bpsIn == 8 && bpsOut == 8) {
        job.scale = 1;
        job.top = 255;
        job.planeShift = 8;
        stackMeans(job, static_cast<const std::uint8_t*>(images), static_cast<std::uint8_t*>(dst));
        return true;
    }
    if (bpsIn == 8 && bpsOut == 16) {
        job.scale = 256;
        job.top = 65535;
        job.planeShift = 16;
        stackMeans(job, static_cast<const std::uint8_t*>(images), static_cast<std::uint16_t*>(dst));
        return true;
    }
    return false;
}

// The soft-light step of hsauto on one target depth; m is the blurred
// negative level of the pixel (high in dark surroundings).
template <class Out>
void softLight(long width, long height, long rowStride, int spp, bool swap, const std::uint8_t* mask,
               Out* dst) noexcept {
    const ColourPositions pos = colourPositions(spp);
    for (long y = 0; y < height; ++y) {
        Out* row = dst + sizeOf(y) * sizeOf(rowStride);
        const std::uint8_t* mrow = mask + sizeOf(y) * sizeOf(width);
        for (long x = 0; x < width; ++x) {
            Out* p = row + sizeOf(x) * sizeOf(spp);
            const int m = mrow[x];
            auto blend = [m](int c) -> Out {
                if constexpr (sizeof(Out) == 1) {
                    const int t = 255 - c;
                    const int hi = 255 - (((255 - m) * t) >> 8);
                    const int lo = (m * c) >> 8;
                    const int v = (hi * c + lo * t) >> 8;
                    return static_cast<Out>(v < 255 ? v : 255);
                } else {
                    const int t = 65535 - c;
                    const int hi = 255 - (((255 - m) * t) >> 16);
                    const int lo = (c * m) >> 16;
                    const int v = (hi * c + lo * t) >> 8;
                    return static_cast<Out>(v < 65535 ? v : 65535);
                }
            };
            const Out a = blend(p[pos.first]), b = blend(p[pos.middle]), c = blend(p[pos.last]);
            p[swap ? pos.last : pos.first] = a;
            p[swap ? pos.first : pos.last] = c;
            p[pos.middle] = b;
        }
    }
}

}  // namespace
}  // namespace ol

extern "C" {

OL_API int moyenne(int n, int width, int height, int rowStride, int swap, int spp, int bpsIn, int bpsOut,
                   const void* images, void* dst) {
    if constexpr (ol::traceFiles)
        std::fprintf(stdout, "moyenne bps=%d %d  spp=%d  reste=%d\n", bpsIn, bpsOut, spp,
                     static_cast<int>(static_cast<unsigned>(rowStride) -
                                      static_cast<unsigned>(width) * static_cast<unsigned>(spp)));
    // No frame or no row: nothing to do (a count of 0 would divide by zero).
    if (height < 1 || n < 1) return 0;
    if (bpsIn != 8 && bpsIn != 16) return width;
    if (!ol::rowsFit(width, spp, rowStride) || images == nullptr || dst == nullptr) return 0;
    ol::MeanJob job{n, width, height, rowStride, spp, swap != 0, 1, 255, nullptr, 8};
    // 8-bit samples to a depth other than 8 or 16 fall through every case,
    // like any depth that is neither: nothing is written.
    ol::runMeans(job, bpsIn, bpsOut, images, dst);
    return height;
}

OL_API int hsauto(int n, int width, int height, int rowStride, int swap, int bpsIn, int bpsOut, int spp,
                  std::uint8_t* scratch, void* images, void* dst) {
    if (height < 1 || n < 1) return 0;
    if (bpsIn != 8 && bpsIn != 16) return width;
    if (!ol::rowsFit(width, spp, rowStride) || images == nullptr || dst == nullptr) return 0;
    // Without scratch the mask's two planes of w * h bytes overwrite the start
    // of the stack: each pixel's bytes are written after every sample of the
    // pixel and of the pixels before it has been read.
    std::uint8_t* plane0 = scratch ? scratch : static_cast<std::uint8_t*>(images);
    ol::MeanJob job{n, width, height, rowStride, spp, false, 1, 255, plane0, 8};
    // 8-bit samples to a depth other than 8 or 16 fall through every case:
    // nothing is written.
    if (!ol::runMeans(job, bpsIn, bpsOut, images, dst)) return height;
    if (spp == 1) return height;

    const std::size_t plane = ol::sizeOf(width) * ol::sizeOf(height);
    std::uint8_t* plane1 = plane0 + plane;
    // The window reaches r = 4n + 2 pixels out; beyond the image's size a
    // longer reach takes the same positions.
    long r = 4L * n + 2;
    const long reachAll = (width > height ? width : height) + 2L;
    if (r > reachAll) r = reachAll;
    const int ri = static_cast<int>(r);
    ol::clippedBoxMeanRows({plane0, 1, width}, {plane1, 1, width}, width, height, ri, ri - 1);
    ol::clippedBoxMeanColumns({plane1, 1, width}, {plane0, 1, width}, width, height, ri, ri);

    if (bpsIn == 8 && bpsOut == 8)
        ol::softLight(width, height, rowStride, spp, swap != 0, plane0, static_cast<std::uint8_t*>(dst));
    else
        ol::softLight(width, height, rowStride, spp, swap != 0, plane0, static_cast<std::uint16_t*>(dst));
    return height;
}

}  // extern "C"
