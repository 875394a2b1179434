#include "orient.hpp"

#include <cstring>
#include <utility>

namespace olhdr {

void uprightPosition(int orientation, int w, int h, int x, int y, int& ux, int& uy) {
    switch (orientation) {
        case 2: ux = w - 1 - x; uy = y; break;
        case 3: ux = w - 1 - x; uy = h - 1 - y; break;
        case 4: ux = x; uy = h - 1 - y; break;
        case 5: ux = y; uy = x; break;
        case 6: ux = h - 1 - y; uy = x; break;
        case 7: ux = h - 1 - y; uy = w - 1 - x; break;
        case 8: ux = y; uy = w - 1 - x; break;
        default: ux = x; uy = y; break;
    }
}

std::vector<std::uint8_t> orientPixels(const std::vector<std::uint8_t>& src, int& w, int& h,
                                       std::size_t pixelBytes, int orientation, bool inverse) {
    if (orientation < 2 || orientation > 8) return src;
    const bool swap = orientation >= 5;
    // (sw, sh): the stored size; (uw, uh): the upright size.
    const int sw = w, sh = h;
    const int uw = swap ? h : w, uh = swap ? w : h;
    const int storedW = inverse ? uw : sw, storedH = inverse ? uh : sh;
    const int uprightW = swap ? storedH : storedW;
    std::vector<std::uint8_t> dst(src.size());
    for (int y = 0; y < storedH; ++y)
        for (int x = 0; x < storedW; ++x) {
            int ux, uy;
            uprightPosition(orientation, storedW, storedH, x, y, ux, uy);
            const std::size_t stored = (static_cast<std::size_t>(y) * storedW + x) * pixelBytes;
            const std::size_t upright = (static_cast<std::size_t>(uy) * uprightW + ux) * pixelBytes;
            if (inverse)
                std::memcpy(&dst[stored], &src[upright], pixelBytes);
            else
                std::memcpy(&dst[upright], &src[stored], pixelBytes);
        }
    w = inverse ? storedW : uw;
    h = inverse ? storedH : uh;
    return dst;
}

std::vector<std::uint8_t> orientRgbePlanes(const std::vector<std::uint8_t>& planes, int& w, int& h,
                                           int orientation) {
    if (orientation < 2 || orientation > 8) return planes;
    std::vector<std::uint8_t> pixels(planes.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 4; ++c)
                pixels[(static_cast<std::size_t>(y) * w + x) * 4 + c] =
                    planes[static_cast<std::size_t>(y) * w * 4 + static_cast<std::size_t>(c) * w + x];
    pixels = orientPixels(pixels, w, h, 4, orientation, false);
    std::vector<std::uint8_t> out(planes.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 4; ++c)
                out[static_cast<std::size_t>(y) * w * 4 + static_cast<std::size_t>(c) * w + x] =
                    pixels[(static_cast<std::size_t>(y) * w + x) * 4 + c];
    return out;
}

std::string orientationText(int orientation) {
    switch (orientation) {
        case 2: return "mirrored left to right";
        case 3: return "rotated 180 degrees";
        case 4: return "mirrored top to bottom";
        case 5: return "mirrored along the main diagonal";
        case 6: return "rotated 90 degrees clockwise";
        case 7: return "mirrored along the other diagonal";
        case 8: return "rotated 90 degrees counter-clockwise";
        default: return "";
    }
}

}  // namespace olhdr
