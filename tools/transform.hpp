// --crop X,Y,W,H and --rotate 90|180|270 for the outputs of merge and fuse,
// done by the library's crop and quarter-turn routines. The crop comes first,
// in the coordinates of the picture as it would be written without them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image.hpp"

namespace olhdr {

class Args;

struct Transform {
    bool crop = false;
    int x = 0, y = 0, w = 0, h = 0;
    int rotate = 0;  // 0, 90, 180 or 270 degrees clockwise

    bool any() const { return crop || rotate != 0; }
    // Throws Failure(kExitUsage) when the crop does not lie inside a
    // width x height picture.
    void check(int width, int height) const;
    // "cropped to 100x80 at 10,20, rotated 90 degrees clockwise" ("" for none).
    std::string text() const;
};

// Reads --crop and --rotate; a malformed value is a usage error.
Transform parseTransform(const Args& args);

// Applies the transform to interleaved 8/16-bit pixels (spp 3).
void transformImage(const Transform& t, Image& img);
// ... and to rgbe planes of w x h (w and h become the new size).
void transformRgbe(const Transform& t, std::vector<std::uint8_t>& planes, int& w, int& h);

}  // namespace olhdr
