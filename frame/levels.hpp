// Levels of samples: the colour positions of a pixel, the 8-bit level of a
// sample at either depth, and the weighted luminance level.
#pragma once

#include <cstdint>

namespace ol {

// The three colour roles are found by position: first is sample 0, middle is
// sample (spp-1)/2, last is sample spp-1 (spp 1 gives 0, 0, 0; spp 4 gives
// 0, 1, 3).
struct ColourPositions {
    int first, middle, last;
};
inline ColourPositions colourPositions(int spp) noexcept { return {0, (spp - 1) / 2, spp - 1}; }

// A 16-bit sample counts as its top byte wherever a level is needed.
template <class T>
inline int highByte(T v) noexcept {
    if constexpr (sizeof(T) == 1)
        return v;
    else
        return v >> 8;
}

// The luminance level of a pixel from the 8-bit values of its three colour
// positions (high bytes for 16-bit samples), on a scale up to 65280 (the
// weights add up to 256).
inline int levelOf(int first, int middle, int last) noexcept {
    return 54 * first + 183 * middle + 19 * last;
}

}  // namespace ol
