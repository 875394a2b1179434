// Argument checks shared by the single-image operators.
//
// The operators take the host's geometry as given. Where a literal reading
// of a bad geometry would step outside the buffers (a row stride shorter
// than a row, which the host sized its buffer from, a negative size, fewer
// samples than the three colour positions that are written), the operator
// does nothing and returns its nothing-to-do result instead.
#pragma once

#include <cstddef>

namespace ol {

// Rows of `width` pixels of `spp` samples fit the stride (and every product
// fits a size). A height of 0 or 1 still needs the one row to fit.
inline bool rowsFit(long width, long spp, long rowStride) noexcept {
    return width >= 0 && spp >= 1 && rowStride >= width * spp;
}

inline std::size_t sizeOf(long a) noexcept { return static_cast<std::size_t>(a); }

}  // namespace ol
