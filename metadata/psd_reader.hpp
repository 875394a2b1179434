// Internal pieces of the flat PSD reader, exposed for the tests.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ol {

// A PSD float sample, read with an exponent bias of 128 instead of the IEEE
// 127, so every value comes out at half of what the file stores. Exponents 0
// and 255 are ordinary exponents here (no subnormals, infinities or NaNs);
// only four zero bytes give 0.
float psdFloat(const std::uint8_t b[4]) noexcept;

// PackBits decoding of one plane from rle[*pos...] into plane[0..planeSize).
// Runs may cross row boundaries. A run that goes past the end of the plane is
// consumed whole from the input but only written up to the plane's end.
// Returns false when the input ends before the plane is full.
bool unpackBitsPlane(const std::uint8_t* rle, std::size_t rleSize, std::size_t* pos,
                     std::uint8_t* plane, std::size_t planeSize, std::size_t* written) noexcept;

}  // namespace ol
