// Previews of rgbe planes (rgbe_rep, hdr_rep8) and the local viewer
// (hdr_display) on both of its sources, each against a per-pixel reading of
// its rules. (The failed table allocations of both previews are rows of
// frame_alloc_sweep_test.cpp.)
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "frame/rgbe.hpp"
#include "support/testsupport.hpp"

namespace {

// rgbe planes with one pixel reader.
struct Planes {
    int width, height;
    std::vector<std::uint8_t> bytes;
    int at(int x, int y, int plane) const { return bytes[4 * static_cast<std::size_t>(y) * width + plane * width + x]; }
};

// Random planes with exponents around 128, so that the scale matters, and a
// few zeros.
Planes randomPlanes(int w, int h, std::uint32_t seed) {
    Planes p{w, h, oltest::randomBytes(4 * static_cast<std::size_t>(w) * h, seed)};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            std::uint8_t& e = p.bytes[4 * static_cast<std::size_t>(y) * w + 3 * w + x];
            e = e < 10 ? 0 : static_cast<std::uint8_t>(122 + e % 12);
        }
    return p;
}

// Both previews as rows: the full-size one (outWidth 0 here) and the point
// sampler with one ratio width/outWidth for both axes, held at the last row
// and column: half size; outWidth equal to width with fewer rows (the top
// rows at full scale, not the whole height); a ratio that truncates (40/15);
// enlarging. Every row is padded past 3*outWidth and the padding stays.
TEST(RgbePreview, BothPreviewsAsRows) {
    const Planes p = randomPlanes(40, 30, 12);
    const struct Row {
        int outW, outH, stride;
        float mean;  // 0 or below: the raw scale
    } rows[] = {{0, 0, 123, 0.0f}, {0, 0, 123, -3.0f}, {0, 0, 123, 37.5f}, {0, 0, 123, 500.0f}, {0, 0, 123, 1e-30f},
                {20, 18, 62, 50.0f}, {40, 10, 121, 0.0f}, {15, 8, 47, 0.0f}, {90, 70, 272, 7.0f}};
    for (const Row& r : rows) {
        SCOPED_TRACE(::testing::Message() << r.outW << "x" << r.outH << " mean " << r.mean);
        const int outW = r.outW ? r.outW : 40, outH = r.outH ? r.outH : 30;
        std::vector<std::uint8_t> out(outH * r.stride, 0xEE);
        ASSERT_EQ(r.outW ? hdr_rep8(40, 30, outW, outH, r.stride, r.mean, p.bytes.data(), out.data())
                         : rgbe_rep(40, 30, r.stride, r.mean, p.bytes.data(), out.data()),
                  outH);
        const float ratio = 40.0f / static_cast<float>(outW), scale = r.mean > 0 ? 128.0f / r.mean : 1.0f;
        for (int j = 0; j < outH; ++j)
            for (int i = 0; i < outW; ++i) {
                const int x = std::min(static_cast<int>(i * ratio), 39), y = std::min(static_cast<int>(j * ratio), 29);
                const int e = p.at(x, y, 3);
                const float m = scale * static_cast<float>(std::ldexp(1.0, e - 128));
                for (int c = 0; c < 3; ++c)
                    ASSERT_EQ(out[j * r.stride + 3 * i + c], e == 0 ? 0 : static_cast<int>(std::min(p.at(x, y, 2 - c) * m, 255.0f)))
                        << i << "," << j << " channel " << c;
            }
        for (int j = 0; j < outH; ++j)
            for (int i = 3 * outW; i < r.stride; ++i) ASSERT_EQ(out[j * r.stride + i], 0xEE) << "padding " << j;
    }
    std::uint8_t none[1] = {0xEE};
    EXPECT_EQ(rgbe_rep(40, 0, 123, 1.0f, p.bytes.data(), none), 0);
    EXPECT_EQ(hdr_rep8(40, 30, 20, 0, 62, 1.0f, p.bytes.data(), none), 0);
    EXPECT_EQ(hdr_rep8(40, 30, 0, 5, 62, 1.0f, p.bytes.data(), none), 0);
}

// ---------------------------------------------------------------------------
// hdr_display

struct Window {
    int x0, y0, mx0, mx1, my0, my1;
};

// The window centred on the cursor and held inside; the measured area is its
// central half.
Window place(int width, int height, int x, int y, int ww, int wh) {
    int x0 = std::max(x - ww / 2, 0), y0 = std::max(y - wh / 2, 0);
    if (x0 + ww > width) x0 = width - ww;
    if (y0 + wh > height) y0 = height - wh;
    return {x0, y0, x0 + ww / 4, x0 + ww - ww / 4, y0 + wh / 4, y0 + wh - wh / 4};
}

// Smallest and largest luminance of the measured area, their sum and count.
struct Measured {
    float mn = 1e7f, mx = 0;
    double sum = 0;
    int count = 0;
};
template <class Lum>
Measured measure(const Window& w, Lum lum) {
    Measured m;
    for (int y = w.my0; y < w.my1; ++y)
        for (int x = w.mx0; x < w.mx1; ++x) {
            const float v = lum(x, y);
            m.mn = std::min(m.mn, v), m.mx = std::max(m.mx, v), m.sum += v, m.count++;
        }
    return m;
}

// hdr_display read per pixel: the drawn window and the cursor's values. A
// row's source is 16-bit samples or rgbe planes; `step` is the distance from
// a pixel's first sample to its second in the 16-bit measurement: `width` as
// the operation has it, 1 for plain interleaving. Readings past the image are 0.
struct ViewRow {
    const std::vector<std::uint16_t>* s;  // null: the planes
    const Planes* p;
    int width, height, x, y, ww, wh;
};
struct View {
    std::vector<std::uint8_t> dst;
    std::vector<float> info;
};
View expectedView(const ViewRow& r, const float* table, int step) {
    const Window w = place(r.width, r.height, r.x, r.y, r.ww, r.wh);
    View v;
    if (r.s) {
        auto at = [&](std::size_t i) { return i < r.s->size() ? (*r.s)[i] : 0; };
        auto lum = [&](int xx, int yy) {
            const std::size_t p = static_cast<std::size_t>(yy) * 3 * r.width + 3 * xx;
            return static_cast<float>((19 * at(p) + 183 * at(p + step) + 54 * at(p + 2 * step)) >> 8);
        };
        const auto [mn, mx, sum, count] = measure(w, lum);
        const float k = mx > mn ? 1.0f / (mx - mn) : 1.0f;
        const float shown = static_cast<float>(k * 255.0f * (sum / count));
        const float target = static_cast<float>(68 + 0.3 * (shown - 68.0f));
        const float factor = target / shown * k * 255.0f;
        for (int row = 0; row < r.wh; ++row)
            for (int c = 0; c < 3 * r.ww; ++c) {
                const float o = at(static_cast<std::size_t>(w.y0 + row) * 3 * r.width + 3 * w.x0 + c) * factor;
                v.dst.push_back(static_cast<std::uint8_t>(std::clamp(o, 0.0f, 255.0f)));
            }
        const std::size_t p = static_cast<std::size_t>(r.y) * 3 * r.width + 3 * r.x;
        v.info = {lum(r.x, r.y), static_cast<float>(at(p + 2 * step)), static_cast<float>(at(p + step)),
                  static_cast<float>(at(p))};
        return v;
    }
    const Planes& p = *r.p;
    const auto [mn, mx, sum, count] = measure(w, [&](int xx, int yy) {
        return (54 * p.at(xx, yy, 0) + 183 * p.at(xx, yy, 1) + 19 * p.at(xx, yy, 2)) * table[p.at(xx, yy, 3)];
    });
    const float k = mx > mn ? 255.0f / (mx - mn) : 1.0f;
    const float shown = static_cast<float>(k * (sum / count));
    const float c = static_cast<float>(0.333 * (1.0f - mn / mx));
    const float target = 68.0f + c * (shown - 68.0f);
    const float g = std::max(target / shown * k, 0.0f);
    const float factor = static_cast<float>(255.0 * std::pow(static_cast<double>(g), 0.6));
    for (int row = 0; row < r.wh; ++row)
        for (int cx = 0; cx < r.ww; ++cx) {
            const int e = p.at(w.x0 + cx, w.y0 + row, 3);
            for (int plane = 2; plane >= 0; --plane) {
                const float value = std::max(p.at(w.x0 + cx, w.y0 + row, plane) * table[e], 0.0f);
                const double o = factor * std::pow(static_cast<double>(value), 0.6);
                v.dst.push_back(e == 0 ? 0 : static_cast<std::uint8_t>(std::clamp(o, 0.0, 255.0)));
            }
        }
    const int e = p.at(r.x, r.y, 3);
    float rgb[3];
    for (int q = 0; q < 3; ++q) rgb[q] = e ? p.at(r.x, r.y, q) * 255 * table[e] : 0;
    v.info = {e ? static_cast<float>(0.21 * rgb[0] + 0.71 * rgb[1] + 0.07 * rgb[2]) : 0.0f, rgb[0], rgb[1], rgb[2]};
    return v;
}

// The viewer as rows. 16-bit samples: the window held inside at corners and
// edges; a measurement that takes a pixel's other two samples `width` and
// `2*width` further on (a window uniform in its own pixels but not at those
// offsets has a contrast); a flat picture (max equals min, k is 1); a cursor
// near the end of the last row, whose readings past the image are 0. rgbe
// planes: windows at the centre, corners and an edge of random planes, and a
// uniform area (k is 1 and c is 0, so the mean goes all the way to 68) with
// the cursor on a black pixel whose mantissas are not 0. The cursor's values
// overwrite the first four entries of `info` only (the exponent table of the
// planes).
TEST(HdrDisplay, WindowsOnBothSourcesAsRows) {
    const auto raw = oltest::randomBytes(6 * 48 * 36, 21);
    std::vector<std::uint16_t> random(3 * 48 * 36), offsets(3 * 20 * 20, 1000), flat(3 * 20 * 20, 2), last(3 * 10 * 8, 500);
    std::memcpy(random.data(), raw.data(), raw.size());
    for (std::size_t i = 0; i < offsets.size(); ++i)
        if ((i % 3) != 0) offsets[i] = static_cast<std::uint16_t>(1000 + 400 * ((i / 7) % 5));
    const Planes planes = randomPlanes(40, 30, 31);
    Planes uniform{12, 12, std::vector<std::uint8_t>(4 * 12 * 12, 128)};
    uniform.bytes[0] = 200;
    uniform.bytes[3 * 12] = 0;
    const ViewRow rows[] = {
        {&random, nullptr, 48, 36, 20, 15, 16, 12}, {&random, nullptr, 48, 36, 0, 0, 16, 12},
        {&random, nullptr, 48, 36, 47, 35, 16, 12}, {&random, nullptr, 48, 36, 47, 0, 16, 12},
        {&random, nullptr, 48, 36, 3, 30, 16, 12},  {&offsets, nullptr, 20, 20, 10, 10, 8, 8},
        {&flat, nullptr, 20, 20, 10, 10, 8, 8},     {&last, nullptr, 10, 8, 9, 7, 4, 4},
        {nullptr, &planes, 40, 30, 20, 14, 10, 8},  {nullptr, &planes, 40, 30, 0, 0, 10, 8},
        {nullptr, &planes, 40, 30, 39, 29, 10, 8},  {nullptr, &planes, 40, 30, 39, 2, 10, 8},
        {nullptr, &uniform, 12, 12, 0, 0, 8, 8},
    };
    for (const ViewRow& r : rows) {
        SCOPED_TRACE(::testing::Message() << r.width << "x" << r.height << " at " << r.x << "," << r.y);
        std::vector<float> table(256);
        ol::fillRgbeExpTable(table.data());
        const std::vector<float> before = table;
        std::vector<std::uint8_t> dst(3 * r.ww * r.wh, 0xEE);
        const void* src = r.s ? static_cast<const void*>(r.s->data()) : r.p->bytes.data();
        EXPECT_EQ(hdr_display(r.width, r.height, r.s ? 16 : 32, r.x, r.y, r.ww, r.wh, table.data(), src, dst.data()),
                  place(r.width, r.height, r.x, r.y, r.ww, r.wh).my0);
        const View want = expectedView(r, before.data(), r.width);
        EXPECT_EQ(dst, want.dst);
        EXPECT_EQ(std::vector<float>(table.begin(), table.begin() + 4), want.info);
        EXPECT_TRUE(std::equal(table.begin() + 4, table.end(), before.begin() + 4));
        EXPECT_TRUE(r.s != &offsets || dst != expectedView(r, before.data(), 1).dst) << "the offsets matter";
    }
    // Another depth draws nothing and stores four zeros.
    float info[4] = {1, 2, 3, 4};
    std::vector<std::uint8_t> untouched(3 * 8 * 8, 0xEE);
    EXPECT_EQ(hdr_display(12, 12, 8, 5, 5, 8, 8, info, uniform.bytes.data(), untouched.data()), 3);
    EXPECT_EQ(std::vector<float>(info, info + 4), std::vector<float>(4, 0.0f));
    EXPECT_EQ(untouched, std::vector<std::uint8_t>(3 * 8 * 8, 0xEE));
}

}  // namespace
