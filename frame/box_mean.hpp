// The clipped box mean of a byte plane.
//
// Position i of a line of `size` values gets the mean of the window
// [i - before, i + after], taking only the positions p with 1 <= p < size:
// position 0 never enters a window, and the window shrinks at the ends
// instead of wrapping or clamping. The sum is divided by the number of
// positions taken, in integers (truncating). The operators blur their masks
// with it, with windows of their own lengths (17 x 17; 2r by 2r + 1; 20 by
// 21), a pass along the rows and a pass along the columns.
//
// A window with no position at all (a line of 1 value, or of 0) would divide
// by zero; it gives 0 here.
//
// The sums are running sums: each step adds the position entering the window
// and takes away the one leaving it, which gives the same integers as summing
// the window afresh.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ol {

// A plane of one byte a pixel inside some buffer: pixel (x, y) is at
// base + y * rowStep + x * pixelStep (bytes).
struct BytePlane {
    std::uint8_t* base;
    std::ptrdiff_t pixelStep;
    std::ptrdiff_t rowStep;
};
struct ConstBytePlane {
    const std::uint8_t* base;
    std::ptrdiff_t pixelStep;
    std::ptrdiff_t rowStep;
    ConstBytePlane(const std::uint8_t* b, std::ptrdiff_t p, std::ptrdiff_t r) noexcept
        : base(b), pixelStep(p), rowStep(r) {}
    ConstBytePlane(BytePlane p) noexcept : base(p.base), pixelStep(p.pixelStep), rowStep(p.rowStep) {}
};

// Number of positions p with 1 <= p < size in [i - before, i + after].
inline int clippedCount(long i, long size, long before, long after) noexcept {
    long lo = i - before, hi = i + after;
    if (lo < 1) lo = 1;
    if (hi > size - 1) hi = size - 1;
    return hi < lo ? 0 : static_cast<int>(hi - lo + 1);
}

// Unsigned division of a window sum by its count, through a multiply where
// that is exact: with m = floor(2^32 / d) + 1 the product s * m / 2^32 has
// the quotient of s / d as its integer part while s * d < 2^32, which holds
// for sums of bytes (s <= 255 d) up to d = 4103. A count of 0 gives 0.
class WindowDivider {
public:
    explicit WindowDivider(std::uint32_t d = 1) noexcept
        : d_(d), m_(d == 0 || d >= 4096 ? 0 : (std::uint64_t{1} << 32) / d + 1) {}
    std::uint32_t operator()(std::uint32_t s) const noexcept {
        if (m_ != 0) return static_cast<std::uint32_t>((static_cast<std::uint64_t>(s) * m_) >> 32);
        return d_ == 0 ? 0 : s / d_;
    }
    std::uint32_t divisor() const noexcept { return d_; }

private:
    std::uint32_t d_;
    std::uint64_t m_;
};

// Along each row: dst(x, y) = clipped mean of src(c, y), c in [x - before, x + after].
void clippedBoxMeanRows(ConstBytePlane src, BytePlane dst, int width, int height, int before,
                        int after) noexcept;
// Along each column: dst(x, y) = clipped mean of src(x, r), r in [y - before, y + after].
void clippedBoxMeanColumns(ConstBytePlane src, BytePlane dst, int width, int height, int before,
                           int after) noexcept;

}  // namespace ol
