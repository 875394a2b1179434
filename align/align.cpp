// align: translation of a bracketed series onto itself by threshold bitmaps.
//
// Frames are ordered from brightest to darkest and each is aligned to its
// neighbour in that order (the two frames of a pair stay close in exposure);
// the second brightest frame is the anchor and the displacements add up
// along the chain. Then every frame is shifted by its displacement and, by
// default, cropped to the rectangle common to all.
#include <algorithm>
#include <cstdint>
#include <utility>

#include "Ombrelumen40Lib1.h"
#include "align/align_internal.hpp"
#include "frame/alloc.hpp"
#include "frame/histogram.hpp"

using namespace ol;
using namespace ol::alignment;

extern "C" {

OL_API int align(int nimages, int width, int height, int samples, int bits, int* dims, void* images) {
    // Defined answers for calls the method has no meaning for: fewer than two
    // frames (the chain needs a pair), negative sizes, fewer than three
    // samples a pixel, a negative depth, missing pointers. Nothing is touched.
    if (nimages < 2 || width < 0 || height < 0 || samples < 3 || bits < 0 || !dims) return 0;
    if (!images && width > 0 && height > 0) return 0;
    const std::size_t n = static_cast<std::size_t>(nimages);
    auto* block = static_cast<std::uint8_t*>(images);

    Frames f;
    f.block = block;
    f.width = width;
    f.height = height;
    f.samples = samples;
    f.bits = bits;
    f.frameBytes = static_cast<std::size_t>(width) * height * samples * static_cast<std::size_t>(bits / 8);

    // Pixel counts of the thresholds.
    const std::int64_t P = static_cast<std::int64_t>(width) * height;
    const auto share = [P](double s) { return static_cast<std::int64_t>(static_cast<double>(P) * s); };
    const std::int64_t count17 = share(0.17), count50 = share(0.5), count90 = share(0.9);

    // Per-frame arrays (a failure here is reported like the others).
    Owned<std::int64_t> allhist = makeOwned<std::int64_t>(256 * n);
    Owned<std::int64_t> target = makeOwned<std::int64_t>(n);
    Owned<int> ints = makeOwnedZeroed<int>(5 * n);
    if (!allhist || !target || !ints) return -4;
    // Luminance planes of all frames, made in the histogram pass, so that the
    // pixels are read once for both.
    const std::size_t planeBytes = static_cast<std::size_t>(P);
    if (planeBytes > SIZE_MAX / n) return -4;
    Owned<std::uint8_t> planes = makeOwned<std::uint8_t>(planeBytes * n);
    if (!planes) return -4;
    const auto plane = [&](int k) { return planes.get() + planeBytes * static_cast<std::size_t>(k); };
    int* key = ints.get();
    int* order = key + n;
    int* work = order + n;
    int* deplX = work + n;
    int* deplY = deplX + n;

    // 1-2. Histograms, count targets and sort keys.
    for (int k = 0; k < nimages; ++k) {
        std::int64_t* hist = allhist.get() + 256 * static_cast<std::size_t>(k);
        luminanceHistogram(f, k, plane(k), hist);
        int m = 0;
        key[k] = brightnessKey(hist, P, &m);
        target[k] = m >= 236 ? count17 : (m < 15 ? count90 : count50);
    }
    // 3. Brightest first, equal keys in frame order.
    orderByFallingKey(nimages, key, work, order);

    // 4. Levels: none below a width of 25, and then nothing moves.
    const Geometry g = geometry(width, height, levelCount(width));
    if (g.levels > 0) {
        Owned<std::uint64_t> A = makeOwnedZeroed<std::uint64_t>(g.bitWords);
        Owned<std::uint64_t> B = makeOwnedZeroed<std::uint64_t>(g.bitWords);
        if (!A || !B) return -4;
        // Reduced levels of the two frames of the pair. The frame of A in a
        // pair is the frame of B in the pair before (or A itself), so its
        // levels are at hand: only a new threshold is applied to them.
        Owned<std::uint8_t> greyOwnA = makeOwnedZeroed<std::uint8_t>(g.greyBytes);
        Owned<std::uint8_t> greyOwnB = makeOwnedZeroed<std::uint8_t>(g.greyBytes);
        if (!greyOwnA || !greyOwnB) return -4;
        std::uint8_t* greyA = greyOwnA.get();
        std::uint8_t* greyB = greyOwnB.get();
        const auto hist = [&](int k) { return allhist.get() + 256 * static_cast<std::size_t>(k); };

        // 5. Count of the first pair.
        std::int64_t c = target[order[0]];
        if (c != count17 && target[order[1]] != count50) c = target[order[1]];
        c = correctedCount(allhist.get(), order[1], c);

        // 6-7. The chain; order[1] is the anchor at (0, 0).
        bitmap_pyram(plane(order[1]), hist(order[1]), g, greyA, A.get(), c);
        bitmap_pyram(plane(order[0]), hist(order[0]), g, greyB, B.get(), c);
        searchPair(g, A.get(), B.get(), &deplX[order[0]], &deplY[order[0]]);
        for (int k = 2; k < nimages; ++k) {
            const int p = order[k - 1], q = order[k];
            std::int64_t t = target[p] != count50 ? target[p] : target[q];
            if (k > 2 || t != c) {
                t = correctedCount(allhist.get(), p, t);
                if (k > 2) std::swap(greyA, greyB);  // p was the B of the pair before
                thresholdPyramid(plane(p), greyA, g, levelPassing(hist(p), t), A.get());
            }
            bitmap_pyram(plane(q), hist(q), g, greyB, B.get(), t);
            c = t;
            int dx = 0, dy = 0;
            searchPair(g, A.get(), B.get(), &dx, &dy);
            deplX[q] = dx + deplX[p];
            deplY[q] = dy + deplY[p];
        }
    }

    // 9. The rectangle common to all frames.
    int minX = 0, maxX = 0, minY = 0, maxY = 0;
    for (std::size_t k = 0; k < n; ++k) {
        minX = std::min(minX, deplX[k]);
        maxX = std::max(maxX, deplX[k]);
        minY = std::min(minY, deplY[k]);
        maxY = std::max(maxY, deplY[k]);
    }
    int newWidth = width, newHeight = height;
    if (dims[0] != 1) {
        // A chain of many frames each at the full reach could in principle
        // move further than the frame is wide: the crop is then empty.
        newWidth = std::max(0, width - maxX + minX);
        newHeight = std::max(0, height - maxY + minY);
    }

    // 10. Shift (and crop) every frame; samples past the third become 0.
    for (std::size_t k = 0; k < n; ++k) {
        deplX[k] -= minX;
        deplY[k] -= minY;
    }
    rearrange(nimages, width, height, samples, bits, deplX, deplY, newWidth, newHeight, block);

    // 11.
    dims[0] = newWidth;
    dims[1] = newHeight;
    return (maxX - minX) + (maxY - minY);
}

}  // extern "C"
