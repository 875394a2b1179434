// Whole-image statistics from a sparse grid of pixels.
//
// Brightness measures that only compare or rank images look at a grid of
// about 50 x 50 points rather than every pixel, so their cost does not grow
// with the picture. The grid starts at (0, 0) and steps size / 50 + 1 pixels
// along each dimension (integer division), which gives at most 50 points a
// dimension and at most 2500 in all. A caller with its own rule for small
// dimensions passes its steps explicitly.
#pragma once

namespace ol {

inline constexpr int kGridMaxPoints = 2500;

// Step of the grid along a dimension of `size` pixels.
inline constexpr int gridStep(int size) noexcept { return size / 50 + 1; }

// Calls visit(x, y) for each grid point, from (0, 0) in row order. Steps
// below 1 are taken as 1, and a dimension below 1 has no points.
template <class Visit>
inline void forEachGridPoint(int width, int height, int stepX, int stepY, Visit&& visit) {
    if (stepX < 1) stepX = 1;
    if (stepY < 1) stepY = 1;
    // 64-bit counters: a step added near INT_MAX must not overflow.
    for (long long y = 0; y < height; y += stepY)
        for (long long x = 0; x < width; x += stepX) visit(static_cast<int>(x), static_cast<int>(y));
}

template <class Visit>
inline void forEachGridPoint(int width, int height, Visit&& visit) {
    forEachGridPoint(width, height, gridStep(width), gridStep(height), static_cast<Visit&&>(visit));
}

}  // namespace ol
