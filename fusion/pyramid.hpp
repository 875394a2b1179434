// Pyramid geometry and the reduce step shared by exposure fusion and ghost
// detection.
//
// A pyramid is one flat run of samples, finest level first, no header. Level
// k+1 halves level k with rounding up; channels are interleaved within a
// level exactly as in an image buffer. `nivo` counts the reductions, so a
// pyramid has nivo + 1 levels and level nivo is the low-pass level.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ol {

// One halving step of a level side: (n >> 1) + (n & 1).
inline int halveUp(int n) noexcept { return (n >> 1) + (n & 1); }

// trunc(float(log(m) / log(2))) - 1 with m the shorter side: the number of
// reductions of a pyramid. A side below 1 has no logarithm; it is treated
// like a side of 1 (result -1) so that no level loop can run away.
int pyramidReductions(int width, int height) noexcept;

// Pixels of levels 0 .. levels-1 of a pyramid whose level 0 is width x height.
std::int64_t pyramidPixels(int width, int height, int levels) noexcept;

// The reduce step: filters level (wFine x hFine) at sample offset initFine of
// `buffer` and writes level (wCoarse x hCoarse) at initCoarse. bps 8, 16
// (unsigned) or 32 (float); any other depth does nothing. `label` is
// "fusion21a" or "deghost21a" and only names the first printed line.
// `scratch` is not read.
void fusion21a(int wFine, int hFine, int wCoarse, int hCoarse, int channels, int bps,
               int wrapX, int initFine, int initCoarse, void* scratch, void* buffer,
               const char* label) noexcept;

// fusion21a with the fine level read from its own buffer `source` (its first
// sample) rather than from `buffer`; initFine only names the printed lines.
// Ghost detection reduces 8-bit photos this way without copying them first.
// The coarse rows are split into bands on up to `threads` threads.
void fusion21aFrom(const void* source, int wFine, int hFine, int wCoarse, int hCoarse,
                   int channels, int bps, int wrapX, int initFine, int initCoarse, void* buffer,
                   const char* label, int threads = 1) noexcept;

// Builds the Gaussian pyramid of the one-channel plane at the start of
// `buffer`, in place, each level on up to `threads` threads. Returns nivo.
int adjust21(int nivo, int width, int height, int bps, int wrapX, void* buffer,
             int threads = 1) noexcept;

}  // namespace ol
