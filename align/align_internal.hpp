// Frame alignment by threshold bitmaps: the pieces of `align`.
//
// Working layouts (private to this folder):
// - luminance planes: one full-size plane per frame (level 0), made in the
//   pass that counts the histogram;
// - reduced pyramid: levels 1 and up of one frame, each densely packed with
//   its own width as row length;
// - bit pyramid: every level's threshold bitmap, rows of 64-bit words, pixel
//   x of a row at bit x % 64 of word x / 64. Only the first 8 * (w / 8)
//   pixels of a row can carry a set bit (the bitmap is filled byte by byte,
//   whole bytes only), and bits past the row end are 0.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ol::alignment {

inline constexpr int kMaxLevels = 40;

struct Level {
    int w = 0, h = 0;
    int words = 0;               // 64-bit words a bitmap row
    std::size_t greyOffset = 0;  // bytes into the reduced pyramid (levels 1 and up)
    std::size_t bitOffset = 0;   // words into the bit pyramid
};

struct Geometry {
    int levels = 0;  // number of levels; 0 when the width gives none
    Level level[kMaxLevels];
    std::size_t greyBytes = 0;  // size of a reduced pyramid
    std::size_t bitWords = 0;   // size of a bit pyramid
};

// Levels: truncation of log(0.08 * width) / log(2), at most kMaxLevels (never
// reached by an int width); sizes halve with truncation at each level.
int levelCount(int width) noexcept;
Geometry geometry(int width, int height, int levels) noexcept;

// Frame layout in the block: `bits` 8 or 16, `samples` at least 3.
struct Frames {
    const std::uint8_t* block = nullptr;
    int width = 0, height = 0, samples = 0, bits = 0;
    std::size_t frameBytes = 0;  // width * height * samples * bits / 8
    const std::uint8_t* frame(int k) const { return block + static_cast<std::size_t>(k) * frameBytes; }
};

// Luminance plane and histogram of frame k in one pass: (54 s0 + 183 s1 +
// 19 s2) >> 8, high bytes of 16-bit samples. Other depths give a plane of 0
// and an empty histogram.
void luminanceHistogram(const Frames& f, int k, std::uint8_t* plane, std::int64_t* hist) noexcept;

// Pixel count correction: while the level passed at c lies above 235, c
// becomes trunc(c * 0.95); while it lies below 15, trunc(c * 1.05).
//
// The plain loop has no end on a histogram that cannot satisfy it: a
// frame whose pixels all lie above level 235 drives c to 0 and stays there,
// an all-black frame swings between growing past the pixel count and
// shrinking below it, and a count below 20 is a fixed point of the 1.05 step.
// The counts of one run depend on c alone, so a run either ends or comes
// back to a count it has already taken; it then stops and returns that count
// (the first one taken twice). A run that ends never repeats a count, so
// every histogram that the loop can satisfy gets the plain loop's answer.
std::int64_t adjust_count(const std::int64_t* allhist, int frame, std::int64_t c) noexcept;

// The correction applied before adjust_count by the pair setup: one step of
// 0.95 above level 235 or of 1.05 below level 15, then adjust_count.
std::int64_t correctedCount(const std::int64_t* allhist, int frame, std::int64_t c) noexcept;

// Levels 1 and up of a luminance plane, each reduced from the one before
// with the 3x3 weights of the method.
void reducePyramid(const std::uint8_t* plane, const Geometry& g, std::uint8_t* reduced) noexcept;

// One level reduction from a w x h plane to (w / 2) x (h / 2).
void reduceLevel(const std::uint8_t* src, int w, int h, std::uint8_t* dst) noexcept;

// Bit pyramid: a bit is set where the grey value is greater than T.
void thresholdPyramid(const std::uint8_t* plane, const std::uint8_t* reduced, const Geometry& g, int T,
                      std::uint64_t* bits) noexcept;

// bitmap_pyram: threshold bitmaps of a frame (its luminance plane and
// histogram) at the level passed by `count`: the reduced levels, then the
// bitmaps of all levels with that one threshold.
void bitmap_pyram(const std::uint8_t* plane, const std::int64_t* hist, const Geometry& g,
                  std::uint8_t* reduced, std::uint64_t* bits, std::int64_t count) noexcept;

// The coarse-to-fine search of one pair: A fixed, B displaced. Returns the
// displacement (dx, dy) of B.
void searchPair(const Geometry& g, const std::uint64_t* A, const std::uint64_t* B, int* dx,
                int* dy) noexcept;

// Mismatch count of one candidate at one level: bits of A that differ from
// B read at (x + ox, y + oy), where B's first row and first column and
// everything outside the level count as 0.
std::int64_t mismatch(const Level& lv, const std::uint64_t* A, const std::uint64_t* B, int ox,
                      int oy) noexcept;

// Rewrites the frames of the block at their displacements (dx, dy already
// made non-negative), cropped to newWidth x newHeight, uncovered pixels white
// and samples past the third cleared. In place, frame after frame.
void rearrange(int nimages, int width, int height, int samples, int bits, const int* dx,
               const int* dy, int newWidth, int newHeight, std::uint8_t* block) noexcept;

}  // namespace ol::alignment
