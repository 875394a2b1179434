// Turning pixels upright from an Exif/TIFF orientation (1..8), on the host
// side, for outputs that carry no orientation tag (Radiance pictures and
// their previews).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace olhdr {

// Where the stored pixel (x, y) of a w x h picture lands in the upright
// picture; orientations 5 to 8 swap the sides.
void uprightPosition(int orientation, int w, int h, int x, int y, int& ux, int& uy);

// The upright picture of interleaved pixels of `pixelBytes` bytes (w and h
// become the upright size). `inverse` goes the other way: from an upright
// picture to the stored form a camera would write with that tag.
std::vector<std::uint8_t> orientPixels(const std::vector<std::uint8_t>& src, int& w, int& h,
                                       std::size_t pixelBytes, int orientation, bool inverse);

// The same for rgbe planes (per row: all red mantissas, green, blue, exponents).
std::vector<std::uint8_t> orientRgbePlanes(const std::vector<std::uint8_t>& planes, int& w, int& h,
                                           int orientation);

// "rotated 90 degrees clockwise", "mirrored left to right", ... ("" for 1).
std::string orientationText(int orientation);

}  // namespace olhdr
