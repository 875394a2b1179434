// ol_ghost_detect: the ghost mask of a stack of photos.
//
// Every photo is reduced to the coarsest level of an 8-bit pyramid (one
// pyramid buffer reused for all photos, only the coarsest levels kept), the
// places are compared there, and the coarse mask is expanded back through a
// one-channel pyramid in the same buffer and packed into bits.
#include <bit>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "frame/trace.hpp"
#include "fusion/photo_stats.hpp"
#include "fusion/pyramid.hpp"
#include "ghost/ghost.hpp"
#include "merge/exposure.hpp"

namespace ol {
namespace {

constexpr int kMaxLevels = 6;

// Sizes and offsets (in pixels) of the levels 0 .. nivo.
struct Levels {
    int nivo = 0;
    int w[kMaxLevels + 1] = {};
    int h[kMaxLevels + 1] = {};
    std::int64_t at[kMaxLevels + 2] = {};  // at[k]: first pixel of level k; at[nivo + 1]: total
};

Levels ghostGeometry(int width, int height) noexcept {
    Levels L;
    L.nivo = ghostLevels(width, height);
    L.w[0] = width;
    L.h[0] = height;
    for (int k = 0; k <= L.nivo; ++k) {
        if (k > 0) {
            L.w[k] = halveUp(L.w[k - 1]);
            L.h[k] = halveUp(L.h[k - 1]);
        }
        L.at[k + 1] = L.at[k] + static_cast<std::int64_t>(L.w[k]) * L.h[k];
    }
    return L;
}

// Photo p of `images` into level 0 of `pyr` as 8-bit samples: the high byte
// of 16-bit samples.
void copyPhoto(const void* images, int bps, std::size_t p, std::size_t samples,
               std::uint8_t* pyr) noexcept {
    if (bps == 8) {
        std::memcpy(pyr, static_cast<const std::uint8_t*>(images) + p * samples, samples);
        return;
    }
    const std::uint16_t* src = static_cast<const std::uint16_t*>(images) + p * samples;
    for (std::size_t i = 0; i < samples; ++i) pyr[i] = static_cast<std::uint8_t>(src[i] >> 8);
}

// Sets the bit of every non-zero byte of `level0` in the first `bytes` bytes
// of `mask` (pixel i in byte i >> 3 under 0x80 >> (i & 7)). Eight bytes are
// tested at once: the high bit of each byte of t says "non-zero", and the
// multiplication gathers the eight high bits, the first byte in the top bit.
void packBits(const std::uint8_t* level0, std::size_t bytes, unsigned char* mask) noexcept {
    constexpr std::uint64_t kLow7 = 0x7f7f7f7f7f7f7f7full, kHigh = 0x8080808080808080ull;
    for (std::size_t b = 0; b < bytes; ++b) {
        const std::uint8_t* q = level0 + 8 * b;
        unsigned v;
        if constexpr (std::endian::native == std::endian::little) {
            std::uint64_t x;
            std::memcpy(&x, q, 8);
            const std::uint64_t t = (x | ((x & kLow7) + kLow7)) & kHigh;
            v = static_cast<unsigned>(((t >> 7) * 0x8040201008040201ull) >> 56);
        } else {
            v = 0;
            for (int k = 0; k < 8; ++k) v |= (q[k] != 0 ? 0x80u : 0u) >> k;
        }
        if (v) mask[b] = static_cast<unsigned char>(mask[b] | v);
    }
}

}  // namespace
}  // namespace ol

extern "C" int ol_ghost_detect(float* settings, int nbPhotos, int width, int height, int channels,
                               int bps, float evStep, float* deltaT, void* images,
                               unsigned char* ghostMask) {
    using namespace ol;
    if (bps != 8 && bps != 16) return -2;
    // Sizes that cannot describe a stack, and missing buffers, are missing
    // input. No photo at all leaves nothing to compare.
    if (!settings || nbPhotos < 0 || width < 0 || height < 0 || channels < 1) return -1;
    if (nbPhotos == 0) return 0;
    if (!deltaT || !images || !ghostMask) return -1;

    const int seuil = truncToInt(settings[0]);
    const Levels L = ghostGeometry(width, height);
    const int nivo = L.nivo;
    const std::int64_t pyrSamples = L.at[nivo + 1] * channels;
    // The reduce step takes 32-bit sample offsets: a pyramid beyond them
    // cannot be built, which counts as a buffer that cannot be had.
    if (pyrSamples > INT_MAX) return -4;
    const int wC = L.w[nivo], hC = L.h[nivo];
    const std::size_t coarsePixels = static_cast<std::size_t>(wC) * hC;
    const std::size_t slot = coarsePixels * channels;
    const std::size_t photoSamples = static_cast<std::size_t>(width) * height * channels;

    if constexpr (traceFlow) {
        const int initCoarse = static_cast<int>(L.at[nivo] * channels);
        const int coarseStride = static_cast<int>(slot);
        const int lenPyram = static_cast<int>(pyrSamples);
        std::fprintf(stderr, "ol_ghost_detect - %d x %d   %d x %d    nivoMax: %d \n", width, height, wC,
                     hC, nivo);
        std::fprintf(stderr, "  initCoarse: %d    initCoarse+coarseStride: %d    lenPyram: %d    diff: %d\n",
                     initCoarse, initCoarse + coarseStride, lenPyram, lenPyram - (initCoarse + coarseStride));
    }

    // Per-photo arrays in one block: the statistics, the places and their
    // limits, the scratch of guess_ev, and the table of predictions.
    const std::size_t n = static_cast<std::size_t>(nbPhotos);
    Owned<std::int32_t> perPhoto =
        makeOwned<std::int32_t>(n * (9 + kGuessEvScratchPerFrame) + n * 256);
    // The pyramid has 8 bytes to spare: the last mask byte reads up to seven
    // bytes past level 0, which for a tiny picture lie beyond the pyramid.
    Owned<std::uint8_t> pyr(allocateZeroedArray<std::uint8_t>(static_cast<std::size_t>(pyrSamples) + 8));
    Owned<std::uint8_t> stack = makeOwned<std::uint8_t>(n * slot);
    Owned<std::uint8_t> coarseMask = makeOwned<std::uint8_t>(coarsePixels);
    if (!perPhoto || !pyr || !stack || !coarseMask) return -4;
    std::int32_t* a = perPhoto.get();
    int* percNoisy = a;
    int* percSat = a + n;
    int* surexNivo = a + 2 * n;
    int* medianLevel = a + 3 * n;
    int* photoOrder = a + 4 * n;
    GhostPlaces places{a + 5 * n, a + 6 * n, a + 7 * n, reinterpret_cast<float*>(a + 8 * n)};
    void* guessScratch = a + 9 * n;
    std::int32_t* expected = a + (9 + kGuessEvScratchPerFrame) * n;

    // Coarsest level of every photo. 8-bit photos are reduced where they lie
    // instead of being copied to level 0 first, unless the picture is so
    // small that the last mask byte reads past the one-channel pyramid, into
    // what the copy leaves there.
    const bool inPlace = bps == 8 && L.at[nivo + 1] - L.at[1] >= 7;
    for (int p = 0; p < nbPhotos; ++p) {
        const std::uint8_t* photo = static_cast<const std::uint8_t*>(images) + p * photoSamples;
        if (!inPlace) copyPhoto(images, bps, static_cast<std::size_t>(p), photoSamples, pyr.get());
        for (int k = 0; k < nivo; ++k) {
            const int positFine = static_cast<int>(L.at[k] * channels);
            const int positCoarse = static_cast<int>(L.at[k + 1] * channels);
            if constexpr (traceFlow)
                std::fprintf(stderr, "down%d  from %d x %d  to  %d x %d  -   positCoarse: %d   positFine: %d \n", k,
                             L.w[k], L.h[k], L.w[k + 1], L.h[k + 1], positCoarse, positFine);
            fusion21aFrom(inPlace && k == 0 ? photo : nullptr, L.w[k], L.h[k], L.w[k + 1], L.h[k + 1], channels, 8,
                          0, positFine, positCoarse, pyr.get(), "deghost21a");
        }
        std::memcpy(stack.get() + p * slot, pyr.get() + L.at[nivo] * channels, slot);
    }

    if (photo_stats(nbPhotos, width, height, channels, bps, images, percNoisy, percSat, surexNivo,
                    medianLevel, photoOrder) < 0)
        return -4;
    if (evStep > -0.5f) guessEvCore(0, nbPhotos, evStep, medianLevel, deltaT, guessScratch);
    ghostPlaces(nbPhotos, photoOrder, deltaT, places);
    const int result =
        ghostCompare(nbPhotos, wC, hC, channels, seuil, places, stack.get(), expected, coarseMask.get());
    stack.reset();

    // The coarse mask becomes the last level of a one-channel pyramid and is
    // expanded level by level. Averages of 0 and 255 lie between them and
    // only 0 is clear, so each level grows the region: the mask is dilated.
    std::uint8_t* m = pyr.get();
    std::memcpy(m + L.at[nivo], coarseMask.get(), coarsePixels);
    for (int k = nivo - 1; k >= 0; --k)
        expand_level(L.w[k], L.h[k], L.w[k + 1], L.h[k + 1], 1, 8, 0, static_cast<int>(L.at[k]),
                     static_cast<int>(L.at[k + 1]), m, m);

    const std::int64_t pixels = static_cast<std::int64_t>(width) * height;
    // ((pixels - 1) >> 3) + 1 whole bytes; none for an empty picture.
    const std::size_t bytes = pixels > 0 ? static_cast<std::size_t>(((pixels - 1) >> 3) + 1) : 0;
    packBits(m, bytes, ghostMask);
    if constexpr (traceStats)
        for (int y = 0; y < height; y += 100)
            for (int x = 0; x < width; x += 100) {
                const std::size_t i = static_cast<std::size_t>(y) * width + x;
                std::fprintf(stderr, "%d,%d      ghostMask: %d   %d\n", x, y, m[i],
                             (ghostMask[i >> 3] >> (7 - (i & 7))) & 1);
            }
    return result;
}
