// A local viewer: around a cursor, the image is measured in the central half
// of a window and the whole window is drawn at a contrast adapted to it.
//
// Sources are a 3-sample 16-bit ldr image (bps 16) or rgbe planes (bps 32).
// Reads that would fall outside the source (a cursor on the last rows, or a
// window larger than the image, which a caller must not pass) read 0.
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/numeric.hpp"

namespace ol {
namespace {

struct Window {
    int x0, y0;          // first drawn column and row
    int mx0, mx1;        // measured columns [mx0, mx1)
    int my0, my1;        // measured rows [my0, my1)
};

Window placeWindow(int width, int height, int x, int y, int windowWidth, int windowHeight) noexcept {
    Window w{};
    w.x0 = x - windowWidth / 2;
    if (w.x0 < 0) w.x0 = 0;
    if (w.x0 + windowWidth > width) w.x0 = width - windowWidth;
    w.y0 = y - windowHeight / 2;
    if (w.y0 < 0) w.y0 = 0;
    if (w.y0 + windowHeight > height) w.y0 = height - windowHeight;
    w.mx0 = w.x0 + windowWidth / 4;
    w.mx1 = w.x0 + windowWidth - windowWidth / 4;
    w.my0 = w.y0 + windowHeight / 4;
    w.my1 = w.y0 + windowHeight - windowHeight / 4;
    return w;
}

inline std::uint8_t limitedByte(double v) noexcept {
    if (v > 255.0) v = 255.0;
    if (v < 0.0) v = 0.0;
    return clampToByte(truncToInt(v));
}

// Bounded sample access by flat index.
template <class T>
struct Samples {
    const T* data;
    long long count;
    int operator[](long long i) const noexcept { return i >= 0 && i < count ? data[i] : 0; }
};

void display16(int width, int height, int x, int y, int windowWidth, int windowHeight,
               const Window& win, float* info, const std::uint16_t* src, std::uint8_t* dst) noexcept {
    const Samples<std::uint16_t> s{src, 3LL * width * height};
    const long long w = width;
    // The luminance steps to the next two samples by `width`, not by one:
    // the measurement keeps this stepping, unlike the drawing.
    auto lumAt = [&](long long p) {
        return (19 * s[p] + 183 * s[p + w] + 54 * s[p + 2 * w]) >> 8;
    };
    float mn = 1e7f, mx = 0.0f;
    double sum = 0.0;
    long long count = 0;
    for (int yy = win.my0; yy < win.my1; ++yy)
        for (int xx = win.mx0; xx < win.mx1; ++xx) {
            const float lum = static_cast<float>(lumAt(yy * 3 * w + xx * 3LL));
            if (lum < mn) mn = lum;
            if (lum > mx) mx = lum;
            sum += lum;
            ++count;
        }
    const float k = mx > mn ? 1.0f / (mx - mn) : 1.0f;
    const float shown = static_cast<float>(static_cast<double>(k * 255.0f) *
                                           (sum / static_cast<double>(count)));
    const float target = static_cast<float>(68.0 + 0.3 * static_cast<double>(shown - 68.0f));
    const float factor = target / shown * k * 255.0f;
    for (int r = 0; r < windowHeight; ++r) {
        const long long row = (static_cast<long long>(win.y0) + r) * w * 3;
        std::uint8_t* out = dst + static_cast<std::size_t>(r) * 3 * windowWidth;
        for (int c = 0; c < 3 * windowWidth; ++c) {
            const long long i = row + 3LL * win.x0 + c;
            out[c] = limitedByte(static_cast<float>(s[i]) * factor);
        }
    }
    const long long p = static_cast<long long>(y) * 3 * w + 3LL * x;
    info[0] = static_cast<float>(lumAt(p));
    info[1] = static_cast<float>(s[p + 2 * w]);
    info[2] = static_cast<float>(s[p + w]);
    info[3] = static_cast<float>(s[p]);
}

void display32(int width, int height, int x, int y, int windowWidth, int windowHeight,
               const Window& win, float* info, const std::uint8_t* planes, std::uint8_t* dst) noexcept {
    const Samples<std::uint8_t> s{planes, 4LL * width * height};
    const long long w = width;
    auto at = [&](int xx, int yy, int plane) {
        return s[static_cast<long long>(yy) * 4 * w + plane * w + xx];
    };
    float mn = 1e7f, mx = 0.0f;
    double sum = 0.0;
    long long count = 0;
    for (int yy = win.my0; yy < win.my1; ++yy)
        for (int xx = win.mx0; xx < win.mx1; ++xx) {
            const int level = 54 * at(xx, yy, 0) + 183 * at(xx, yy, 1) + 19 * at(xx, yy, 2);
            const float lum = static_cast<float>(level) * info[at(xx, yy, 3)];
            if (lum < mn) mn = lum;
            if (lum > mx) mx = lum;
            sum += lum;
            ++count;
        }
    const float k = mx > mn ? 255.0f / (mx - mn) : 1.0f;
    const float shown = static_cast<float>(static_cast<double>(k) * (sum / static_cast<double>(count)));
    const float c = static_cast<float>(0.333 * static_cast<double>(1.0f - mn / mx));
    const float target = 68.0f + c * (shown - 68.0f);
    float g = target / shown * k;
    if (g < 0.0f) g = 0.0f;
    const float factor = static_cast<float>(255.0 * std::pow(static_cast<double>(g), 0.6));
    for (int r = 0; r < windowHeight; ++r) {
        const int yy = win.y0 + r;
        std::uint8_t* out = dst + static_cast<std::size_t>(r) * 3 * windowWidth;
        for (int cx = 0; cx < windowWidth; ++cx) {
            const int xx = win.x0 + cx;
            std::uint8_t* o = out + 3 * cx;
            const int e = at(xx, yy, 3);
            if (e == 0) {
                o[0] = o[1] = o[2] = 0;
                continue;
            }
            for (int plane = 0; plane < 3; ++plane) {
                float v = static_cast<float>(at(xx, yy, plane)) * info[e];
                if (v < 0.0f) v = 0.0f;
                o[2 - plane] = limitedByte(static_cast<double>(factor) *
                                           std::pow(static_cast<double>(v), 0.6));
            }
        }
    }
    // All four cursor values are taken before any is stored: the table the
    // host passed in is what they read.
    const int e = at(x, y, 3);
    float R = 0.0f, G = 0.0f, B = 0.0f, lum = 0.0f;
    if (e != 0) {
        R = static_cast<float>(at(x, y, 0) * 255) * info[e];
        G = static_cast<float>(at(x, y, 1) * 255) * info[e];
        B = static_cast<float>(at(x, y, 2) * 255) * info[e];
        lum = static_cast<float>(0.21 * R + 0.71 * G + 0.07 * B);
    }
    info[0] = lum;
    info[1] = R;
    info[2] = G;
    info[3] = B;
}

}  // namespace
}  // namespace ol

extern "C" {

int hdr_display(int width, int height, int bps, int x, int y, int windowWidth, int windowHeight,
                float* info, const void* src, unsigned char* dst) {
    using namespace ol;
    const Window win = placeWindow(width, height, x, y, windowWidth, windowHeight);
    if (bps == 16)
        display16(width, height, x, y, windowWidth, windowHeight, win, info,
                  static_cast<const std::uint16_t*>(src), dst);
    else if (bps == 32)
        display32(width, height, x, y, windowWidth, windowHeight, win, info,
                  static_cast<const std::uint8_t*>(src), dst);
    else
        info[0] = info[1] = info[2] = info[3] = 0.0f;
    return win.my0;
}

}  // extern "C"
