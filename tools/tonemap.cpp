#include "tonemap.hpp"

#include <algorithm>
#include <cmath>

namespace olhdr {

namespace {
// One channel of an rgbe pixel: mantissa / 256 * 2^(E - 128); exponent 0
// (and the zero marker) is black.
float decode(std::uint8_t m, std::uint8_t e) {
    return e == 0 ? 0.0f : std::ldexp(static_cast<float>(m), static_cast<int>(e) - 136);
}

std::uint8_t srgb(float v) {
    v = std::clamp(v, 0.0f, 1.0f);
    const float s = v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1.0f / 2.4f) - 0.055f;
    return static_cast<std::uint8_t>(std::lround(s * 255.0f));
}
}  // namespace

Image photographicPreview(const std::vector<std::uint8_t>& planes, int w, int h) {
    const std::size_t n = static_cast<std::size_t>(w) * h;
    std::vector<float> rgb(n * 3);
    double logSum = 0;
    std::size_t lit = 0;
    for (int y = 0; y < h; ++y) {
        const std::uint8_t* row = planes.data() + static_cast<std::size_t>(y) * w * 4;
        for (int x = 0; x < w; ++x) {
            float* p = &rgb[(static_cast<std::size_t>(y) * w + x) * 3];
            const std::uint8_t e = row[3 * w + x];
            for (int c = 0; c < 3; ++c) p[c] = decode(row[c * w + x], e);
            const float lum = 0.2126f * p[0] + 0.7152f * p[1] + 0.0722f * p[2];
            if (lum > 0) {
                logSum += std::log(static_cast<double>(lum));
                ++lit;
            }
        }
    }
    const double key = lit ? std::exp(logSum / static_cast<double>(lit)) : 1.0;
    const float scale = static_cast<float>(0.18 / key);
    // sRGB encoding through a table over 4096 linear steps is plenty for 8 bits.
    std::vector<std::uint8_t> table(4097);
    for (int i = 0; i <= 4096; ++i) table[i] = srgb(static_cast<float>(i) / 4096.0f);
    Image out;
    out.width = w;
    out.height = h;
    out.spp = 3;
    out.bps = 8;
    out.pixels.resize(n * 3);
    for (std::size_t i = 0; i < n; ++i) {
        const float* p = &rgb[i * 3];
        const float lum = 0.2126f * p[0] + 0.7152f * p[1] + 0.0722f * p[2];
        const float l = lum * scale;
        const float gain = lum > 0 ? (l / (1.0f + l)) / lum : 0.0f;
        for (int c = 0; c < 3; ++c) {
            const float v = std::min(1.0f, p[c] * gain);
            out.pixels[i * 3 + c] = table[static_cast<std::size_t>(std::lround(std::max(0.0f, v) * 4096.0f))];
        }
    }
    return out;
}

}  // namespace olhdr
