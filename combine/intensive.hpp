// Intensive combination: the per-image weight of one row of pixels, shared by
// the plain and the vector kernels.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ol::intensive {

// The window of one row: the badness plane of one image, the tables and the
// limits that every pixel of the row shares.
struct RowWindow {
    const std::uint8_t* plane;  // badness of the image, w * h bytes
    std::ptrdiff_t limit;       // bytes from plane to the end of the whole badness table
    long w, h, y;
    long r, step;
    long dyLo, dyHi;             // row limits of this row
    const float* range;          // 256 entries
    const float* spatial;        // one entry a window position
};

// acc of the pixels [x0, x1) whose column limits are -r..+r and whose window
// lies inside the plane, 8 at a time; returns the first pixel not done.
// Only called where the CPU has AVX2.
long interiorAccAvx2(const RowWindow& win, long x0, long x1, float* acc) noexcept;
bool haveAvx2() noexcept;

}  // namespace ol::intensive
