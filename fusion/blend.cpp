// Laplacian blending: each photo is reduced level by level; at every level
// the difference between the level and the expansion of the next coarser one
// is weighted by the photo's weight at that level and added to the fused
// pyramid. The low-pass level is added itself. Nothing is allocated here.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "frame/clones.hpp"
#include "frame/numeric.hpp"
#include "frame/trace.hpp"
#include "fusion/bands.hpp"
#include "fusion/expand.hpp"
#include "fusion/pyramid.hpp"
#include "fusion/scratch.hpp"
#include "fusion/stages.hpp"

namespace ol {
namespace {

// Weights may share storage with samples of another type (disk mode reads
// them into `work`), so they are loaded bytewise.
template <class W>
inline W loadWeight(const void* base, std::size_t i) noexcept {
    W w;
    std::memcpy(&w, static_cast<const unsigned char*>(base) + i * sizeof(W), sizeof(W));
    return w;
}

// mult of a stored weight: the fraction of 2^bitDepthPoids, or the float
// itself at 32 bits.
inline float weightFraction(const void* base, std::size_t i, int bitDepthPoids) noexcept {
    if (bitDepthPoids == 8) return static_cast<float>(loadWeight<std::uint8_t>(base, i)) / 256.0f;
    if (bitDepthPoids == 16) return static_cast<float>(loadWeight<std::uint16_t>(base, i)) / 65536.0f;
    if (bitDepthPoids == 32) return loadWeight<float>(base, i);
    return 0.0f;
}

// The weight fraction of each pixel, once per channel: 8-bit weights from
// `w`, 16-bit ones (any alignment) from the bytes at `w16`.
template <int CH>
inline void spreadCh(const std::uint8_t* w, int n, int ch, float* mult) noexcept {
    const int chn = CH > 0 ? CH : ch;
    for (int x = 0; x < n; ++x) {
        const float m = static_cast<float>(w[x]) * (1.0f / 256.0f);
        for (int c = 0; c < chn; ++c) mult[x * chn + c] = m;
    }
}
template <int CH>
inline void spreadCh(const unsigned char* w16, int n, int ch, float* mult, int) noexcept {
    const int chn = CH > 0 ? CH : ch;
    for (int x = 0; x < n; ++x) {
        const float m = static_cast<float>(loadWeight<std::uint16_t>(w16, static_cast<std::size_t>(x))) *
                        (1.0f / 65536.0f);
        for (int c = 0; c < chn; ++c) mult[x * chn + c] = m;
    }
}
void spreadFractions8(const std::uint8_t* w, int n, int ch, float* mult) noexcept {
    if (ch == 3) spreadCh<3>(w, n, 3, mult);
    else if (ch == 1) spreadCh<1>(w, n, 1, mult);
    else spreadCh<0>(w, n, ch, mult);
}
void spreadFractions16(const unsigned char* w16, int n, int ch, float* mult) noexcept {
    if (ch == 3) spreadCh<3>(w16, n, 3, mult, 0);
    else if (ch == 1) spreadCh<1>(w16, n, 1, mult, 0);
    else spreadCh<0>(w16, n, ch, mult, 0);
}

// fused += trunc(float(sample - up) * mult), clamped to 0..65535, for one
// span. |sample - up| < 65536 and mult < 1: the product converts exactly,
// lane by lane the same at any vector width.
OL_AVX2_CLONES
void blendSpan16(const std::uint16_t* __restrict s, const std::int32_t* __restrict up,
                 const float* __restrict mult, std::uint16_t* __restrict d, int count) noexcept {
    for (int j = 0; j < count; ++j) {
        const std::int32_t diff = static_cast<std::int32_t>(s[j]) - up[j];
        std::int32_t v = static_cast<std::int32_t>(d[j]) +
                         static_cast<std::int32_t>(static_cast<float>(diff) * mult[j]);
        v = v < 0 ? 0 : v;
        v = v > 65535 ? 65535 : v;
        d[j] = static_cast<std::uint16_t>(v);
    }
}

}  // namespace

int fusion22et23(int wFine, int hFine, int wCoarse, int hCoarse, int channels, int bitDepthFusion,
                 int bitDepthPoids, int wrapX, int diskRows, std::FILE* fpPyramPoids,
                 void* rowBuffer, int offPoids, int initFine, int initCoarse, void* scratch,
                 const void* pyrPoids, const void* work, void* fused, int threads, void* block,
                 std::size_t blockBytes) noexcept {
    if constexpr (traceProbe)
        std::fprintf(stderr,
                     "fusion22et23  up %d x %d   to  %d x %d    total coarse: %d  fine: %d  -  initFine: %d  coarse: %d  fromDisk: %d  \n",
                     wCoarse, hCoarse, wFine, hFine, wCoarse * hCoarse, wFine * hFine, initFine,
                     initCoarse, diskRows);
    const bool wrap = wrapX != 0;
    const int wBytes = bitDepthPoids / 8;
    // The multiplier stays 1.0 for float weights: they act only on the
    // low-pass level.
    const std::size_t rowSamples = static_cast<std::size_t>(wFine) * channels;
    if (bitDepthFusion == 16) {
        const auto* w16 = static_cast<const std::uint16_t*>(work);
        auto* f16 = static_cast<std::uint16_t*>(fused);
        const std::uint16_t* coarse = w16 + initCoarse;
        // Rows [y0, y1); each writes only its own row of `fused`. With
        // `held`, the weights of rows from `heldFirst` on stand there,
        // already read from the file.
        auto blendRows = [&](int y0, int y1, const unsigned char* held, int heldFirst) -> int {
        for (int y = y0; y < y1; ++y) {
            const void* wrow = nullptr;
            std::size_t wfirst = 0;
            if (bitDepthPoids == 8 || bitDepthPoids == 16) {
                if (held != nullptr) {
                    wrow = held;
                    wfirst = static_cast<std::size_t>(y - heldFirst) * wFine;
                } else if (diskRows) {
                    const std::int64_t off =
                        (static_cast<std::int64_t>(offPoids) + static_cast<std::int64_t>(y) * wFine) * wBytes;
                    if (!seekScratch(fpPyramPoids, off)) return -3;
                    const std::size_t got = std::fread(rowBuffer, wBytes, wFine, fpPyramPoids);
                    if (got != static_cast<std::size_t>(wFine)) {
                        if constexpr (traceBlend)
                            std::fprintf(stderr, "could not read fpPyramPoids - returned %d instead of %d\n",
                                         static_cast<int>(got), wFine);
                        return -3;
                    }
                    wrow = rowBuffer;
                } else {
                    wrow = pyrPoids;
                    wfirst = static_cast<std::size_t>(offPoids) + static_cast<std::size_t>(y) * wFine;
                }
            }
            const std::size_t rowStart = static_cast<std::size_t>(initFine) + y * rowSamples;
            const std::uint16_t* src = w16 + rowStart;
            std::uint16_t* dst = f16 + rowStart;
            const int span = spanPixels(channels);
            if (span < 2) {
                // Pixels too wide for the span tables: one sample at a time.
                auto blendRow = [&](auto fraction) {
                    expandRow(coarse, y, wFine, hFine, wCoarse, channels, wrap,
                              [&](int x, int c, std::int32_t up) {
                                  const std::size_t f = static_cast<std::size_t>(x) * channels + c;
                                  const std::int32_t d = static_cast<std::int32_t>(src[f]) - up;
                                  const std::int32_t v =
                                      dst[f] + static_cast<std::int32_t>(static_cast<float>(d) * fraction(x));
                                  dst[f] = static_cast<std::uint16_t>(v < 0 ? 0 : (v > 65535 ? 65535 : v));
                              });
                };
                if (wrow == nullptr)
                    blendRow([](int) { return 1.0f; });
                else if (bitDepthPoids == 8)
                    blendRow([&](int x) {
                        return static_cast<float>(loadWeight<std::uint8_t>(wrow, wfirst + x)) * (1.0f / 256.0f);
                    });
                else
                    blendRow([&](int x) {
                        return static_cast<float>(loadWeight<std::uint16_t>(wrow, wfirst + x)) * (1.0f / 65536.0f);
                    });
                continue;
            }
            // A span at a time: the expansion and the per-sample weight
            // fractions go to two small tables, then one straight loop blends.
            std::int32_t up[kSpanSamples];
            float mult[kSpanSamples];
            for (int x0 = 0; x0 < wFine; x0 += span) {
                const int n = wFine - x0 < span ? wFine - x0 : span;
                expandSpan16(coarse, y, wFine, hFine, wCoarse, channels, wrap, x0, n, up);
                const int count = n * channels;
                if (wrow == nullptr) {
                    for (int j = 0; j < count; ++j) mult[j] = 1.0f;
                } else if (bitDepthPoids == 8) {
                    spreadFractions8(static_cast<const std::uint8_t*>(wrow) + wfirst + x0, n, channels, mult);
                } else {
                    spreadFractions16(static_cast<const unsigned char*>(wrow) + (wfirst + x0) * 2, n, channels, mult);
                }
                blendSpan16(src + static_cast<std::size_t>(x0) * channels, up, mult,
                            dst + static_cast<std::size_t>(x0) * channels, count);
            }
        }
        return 0;
        };
        // Weights from the file follow one file position: blocks of rows
        // are read on the calling thread, then blended in bands. What no
        // block holds (a block that cannot be read whole, or no block
        // buffer) is read and blended row by row, where a failed read has
        // its own code and line.
        int y0 = 0;
        if (diskRows && (bitDepthPoids == 8 || bitDepthPoids == 16)) {
            const std::size_t wRowBytes = static_cast<std::size_t>(wFine) * wBytes;
            const std::size_t perBlock = block != nullptr && wRowBytes > 0 ? blockBytes / wRowBytes : 0;
            const int blockRows = perBlock < static_cast<std::size_t>(hFine) ? static_cast<int>(perBlock) : hFine;
            for (; blockRows > 0 && y0 < hFine; y0 += blockRows) {
                const int n = hFine - y0 < blockRows ? hFine - y0 : blockRows;
                const std::int64_t off = (static_cast<std::int64_t>(offPoids) + static_cast<std::int64_t>(y0) * wFine) * wBytes;
                const auto* held = static_cast<const unsigned char*>(block);
                const int got =
                    readScratchBands(fpPyramPoids, off, block, static_cast<std::size_t>(n) * wRowBytes, threads);
                if (got < 0) return -3;
                if (got == 0) break;
                runBands(threads, n, rowSamples, [&](int first, int count) {
                    blendRows(y0 + first, y0 + first + count, held, y0);
                });
            }
            if (blendRows(y0, hFine, nullptr, 0) < 0) return -3;
        } else {
            // Other weight depths read nothing here, from memory or file.
            runBands(threads, hFine, rowSamples,
                     [&](int first, int count) { blendRows(first, first + count, nullptr, 0); });
        }
    } else if (bitDepthFusion == 32) {
        // Float pyramids have no row-wise disk path: without an in-memory
        // weight level the multiplier stays 1.0.
        const auto* wf = static_cast<const float*>(work);
        auto* ff = static_cast<float*>(fused);
        const float* coarse = wf + initCoarse;
        runBands(threads, hFine, rowSamples, [&](int first, int count) {
            for (int y = first; y < first + count; ++y) {
                const std::size_t rowStart = static_cast<std::size_t>(initFine) + y * rowSamples;
                const float* src = wf + rowStart;
                float* dst = ff + rowStart;
                const bool weighted = (bitDepthPoids == 8 || bitDepthPoids == 16) && pyrPoids != nullptr;
                const std::size_t wfirst = static_cast<std::size_t>(offPoids) + static_cast<std::size_t>(y) * wFine;
                expandRow(coarse, y, wFine, hFine, wCoarse, channels, wrap, [&](int x, int c, float up) {
                    const float mult = weighted ? weightFraction(pyrPoids, wfirst + x, bitDepthPoids) : 1.0f;
                    const std::size_t f = static_cast<std::size_t>(x) * channels + c;
                    dst[f] += (src[f] - up) * mult;
                });
            }
        });
    }
    if constexpr (tracePreview) {
        // One sampled sample per level: channel 0 of the centre pixel.
        const int x = wFine / 2, y = hFine / 2;
        const std::size_t f = static_cast<std::size_t>(initFine) + (static_cast<std::size_t>(y) * wFine + x) * channels;
        const std::size_t cpos = static_cast<std::size_t>(initCoarse) +
                                 (static_cast<std::size_t>(y >> 1) * wCoarse + (x >> 1)) * channels;
        const bool weighted = (bitDepthPoids == 8 || bitDepthPoids == 16) && pyrPoids != nullptr && !diskRows;
        const double mult =
            weighted ? weightFraction(pyrPoids, static_cast<std::size_t>(offPoids) + static_cast<std::size_t>(y) * wFine + x,
                                      bitDepthPoids)
                     : 1.0;
        if (bitDepthFusion == 16) {
            const auto* w16 = static_cast<const std::uint16_t*>(work);
            std::int32_t up[2 * 4096];
            if (channels <= 4096)
                expandSpan<0>(w16 + initCoarse, y, wFine, hFine, wCoarse, channels, wrap, x & ~1, (x & 1) + 1, up);
            std::fprintf(stderr, " mult: %1.2f   up:  %d     Coarse: %d   Fine: %d     Res: %d     at %d %d\n", mult,
                         channels <= 4096 ? up[(x & 1) * channels] : 0, w16[cpos], w16[f],
                         static_cast<const std::uint16_t*>(fused)[f], x, y);
        } else if (bitDepthFusion == 32) {
            const auto* wf = static_cast<const float*>(work);
            float up[2 * 4096];
            if (channels <= 4096)
                expandSpan<0>(wf + initCoarse, y, wFine, hFine, wCoarse, channels, wrap, x & ~1, (x & 1) + 1, up);
            std::fprintf(stderr,
                         " mult: %1.2f   up:  %1.2f     Coarse: %1.2f   Fine: %1.2f     Res: %1.2f     at %d %d\n", mult,
                         channels <= 4096 ? static_cast<double>(up[(x & 1) * channels]) : 0.0,
                         static_cast<double>(wf[cpos]), static_cast<double>(wf[f]),
                         static_cast<double>(static_cast<const float*>(fused)[f]), x, y);
        }
    }
    return 0;
}

int fusion22(int nivo, int width, int height, int channels, int bspOut, int bitDepthFusion,
             int bitDepthPoids, int wrapX, const void* pyrPoids, std::FILE* fpPyramPoids,
             void* rowBuffer, void* work, void* fused, int threads, void* block,
             std::size_t blockBytes) noexcept {
    const bool disk = pyrPoids == nullptr;
    if (disk && fpPyramPoids == nullptr) return -1;
    const int wBytes = bitDepthPoids / 8;
    int w = width, h = height;
    int initFine = 0;
    std::int64_t positPoidsPyram = 0;
    for (int k = 0; k < nivo; ++k) {
        const int wc = halveUp(w), hc = halveUp(h);
        const int initCoarse = initFine + w * h * channels;
        if constexpr (traceLevels)
            std::fprintf(stderr, "== lapl nivo%d  nivFine %d x %d   nivCoarse %d x %d  fin: %d %d\n", k,
                         w, h, wc, hc, (w & 1) ? wc - 1 : wc, (h & 1) ? hc - 1 : hc);
        fusion21aFrom(nullptr, w, h, wc, hc, channels, bitDepthFusion, wrapX, initFine, initCoarse, work,
                      "fusion21a", threads);
        const void* levelPoids = pyrPoids;
        int offPoids = static_cast<int>(positPoidsPyram);
        if (disk && k > 0) {
            // Level 0 of the photo is no longer needed: the weights of this
            // level (a quarter of its size at most) go to the start of work.
            // Side by side where it can; else one read, which meets a fault
            // with its own code and line.
            const std::size_t want = static_cast<std::size_t>(w) * h;
            const int inBands = readScratchBands(fpPyramPoids, positPoidsPyram * wBytes, work, want * wBytes, threads);
            if (inBands < 0) return -3;
            if (inBands == 0 && !seekScratch(fpPyramPoids, positPoidsPyram * wBytes)) return -3;
            const std::size_t got = inBands > 0 ? want : std::fread(work, wBytes, want, fpPyramPoids);
            if (got != want) {
                if constexpr (traceBlend)
                    std::fprintf(stderr, "could not read fpPyramPoids fusion22 - returned %d instead of %d\n",
                                 static_cast<int>(got), static_cast<int>(want));
                return -3;
            }
            levelPoids = work;
            offPoids = 0;
        }
        const int r = fusion22et23(w, h, wc, hc, channels, bitDepthFusion, bitDepthPoids, wrapX,
                                   disk && k == 0, fpPyramPoids, rowBuffer, offPoids, initFine,
                                   initCoarse, nullptr, levelPoids, work, fused, threads, block, blockBytes);
        if constexpr (traceBlend) std::fprintf(stderr, "retour fusion22et23: %d\n", r);
        if (r < 0) return r;
        positPoidsPyram += static_cast<std::int64_t>(w) * h;
        initFine = initCoarse;
        w = wc;
        h = hc;
    }

    // Low-pass level: the plain weighted sum.
    const void* lowPoids = pyrPoids;
    std::size_t lowFirst = static_cast<std::size_t>(positPoidsPyram);
    const std::size_t lowPixels = static_cast<std::size_t>(w) * h;
    if (disk) {
        if constexpr (traceBlend) std::fprintf(stderr, "low pass fusion22\n");
        if (!seekScratch(fpPyramPoids, positPoidsPyram * wBytes)) return -3;
        const std::size_t got = std::fread(work, wBytes, lowPixels, fpPyramPoids);
        if constexpr (traceBlend)
            std::fprintf(stderr, "retour fread low pass fusion22  %d\n", static_cast<int>(got));
        if (got != lowPixels) {
            if constexpr (traceBlend)
                std::fprintf(stderr, "could not read fpPyramPoids low pass - returned %d instead of %d\n",
                             static_cast<int>(got), static_cast<int>(lowPixels));
            return -3;
        }
        lowPoids = work;
        lowFirst = 0;
    }
    const int o1 = (channels - 1) / 2, o2 = channels - 1;
    const bool three = channels == 3;
    if (bitDepthFusion == 16) {
        if constexpr (tracePreview)
            std::fprintf(stderr, "low pass fusion 22   %d x %d  -  positPoidsPyram: %d     initCoarse: %d\n", w,
                         h, static_cast<int>(positPoidsPyram), initFine);
        auto* f16 = static_cast<std::uint16_t*>(fused) + initFine;
        for (std::size_t i = 0; i < lowPixels; ++i) {
            const float mult = weightFraction(lowPoids, lowFirst + i, bitDepthPoids);
            // The photo's samples are loaded bytewise too: with no reduction
            // the weights were read over them.
            const std::size_t s = static_cast<std::size_t>(initFine) + i * channels;
            auto blend = [&](int c) {
                const std::uint16_t v = loadWeight<std::uint16_t>(work, s + c);
                std::int32_t t = truncToInt(static_cast<float>(v) * mult);
                if (t < 0) t = 0;
                if (t > 65535) t = 65535;
                // The sum is not saturated: it wraps in 16 bits.
                f16[i * channels + c] = static_cast<std::uint16_t>(f16[i * channels + c] + t);
            };
            blend(0);
            if (three) {
                blend(o1);
                blend(o2);
            }
            if constexpr (tracePreview)
                if (i == 0)
                    std::fprintf(stderr, "lowpass: %d    fmult: %1.2f   %d  %d  %d -->   %d  %d  %d\n",
                                 static_cast<int>(i), static_cast<double>(mult),
                                 loadWeight<std::uint16_t>(work, s), loadWeight<std::uint16_t>(work, s + o1),
                                 loadWeight<std::uint16_t>(work, s + o2), f16[i * channels],
                                 f16[i * channels + o1], f16[i * channels + o2]);
        }
    } else if (bitDepthFusion == 32) {
        auto* ff = static_cast<float*>(fused) + initFine;
        for (std::size_t i = 0; i < lowPixels; ++i) {
            const float mult = weightFraction(lowPoids, lowFirst + i, bitDepthPoids);
            const std::size_t s = static_cast<std::size_t>(initFine) + i * channels;
            auto blend = [&](int c) { ff[i * channels + c] += mult * loadWeight<float>(work, s + c); };
            blend(0);
            if (three) {
                blend(o1);
                blend(o2);
            }
        }
    }
    return 0;
}

}  // namespace ol
