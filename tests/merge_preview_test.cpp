// Previews of rgbe planes (rgbe_rep, hdr_rep8) and the local viewer
// (hdr_display) on both of its sources.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include "frame/rgbe.hpp"
#include "support/testsupport.hpp"

namespace {

// rgbe planes with one pixel setter.
struct Planes {
    int width, height;
    std::vector<std::uint8_t> bytes;
    Planes(int w, int h) : width(w), height(h), bytes(4 * static_cast<std::size_t>(w) * h, 0) {}
    void set(int x, int y, int r, int g, int b, int e) {
        std::uint8_t* row = bytes.data() + 4 * static_cast<std::size_t>(y) * width;
        row[x] = static_cast<std::uint8_t>(r);
        row[width + x] = static_cast<std::uint8_t>(g);
        row[2 * width + x] = static_cast<std::uint8_t>(b);
        row[3 * width + x] = static_cast<std::uint8_t>(e);
    }
};

Planes randomPlanes(int w, int h, std::uint32_t seed) {
    Planes p(w, h);
    p.bytes = oltest::randomBytes(p.bytes.size(), seed);
    // Exponents around 128 so that the scale matters; a few zeros.
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            std::uint8_t& e = p.bytes[4 * static_cast<std::size_t>(y) * w + 3 * w + x];
            e = e < 10 ? 0 : static_cast<std::uint8_t>(122 + e % 12);
        }
    return p;
}

// Expected preview bytes of one pixel, from the text of the operation.
void expectedPixel(const Planes& p, int x, int y, float mean, std::uint8_t* out) {
    const std::uint8_t* row = p.bytes.data() + 4 * static_cast<std::size_t>(y) * p.width;
    const int e = row[3 * p.width + x];
    if (e == 0) {
        out[0] = out[1] = out[2] = 0;
        return;
    }
    const float scale = mean > 0 ? 128.0f / mean : 1.0f;
    const float m = scale * static_cast<float>(std::ldexp(1.0, e - 128));
    for (int c = 0; c < 3; ++c) {
        const float v = row[(2 - c) * p.width + x] * m;
        out[c] = static_cast<std::uint8_t>(std::min(v, 255.0f));
    }
}

// Checks outW x outH preview pixels, rows `stride` bytes apart, against
// expectedPixel; output pixel (i, j) shows the source pixel from(i, j).
template <class From>
void expectPreview(const Planes& p, const std::vector<std::uint8_t>& out, int outW, int outH, int stride,
                   float mean, From from) {
    for (int j = 0; j < outH; ++j)
        for (int i = 0; i < outW; ++i) {
            const auto [x, y] = from(i, j);
            std::uint8_t want[3];
            expectedPixel(p, x, y, mean, want);
            ASSERT_EQ(std::memcmp(out.data() + j * stride + 3 * i, want, 3), 0) << i << "," << j << " " << mean;
        }
}

TEST(RgbeRep, MatchesTextOnRandomPlanes) {
    // Black pixels, a raw scale (mean 0 or below), a scale that saturates,
    // rows wider than the picture whose padding stays.
    const Planes p = randomPlanes(33, 17, 11);
    for (float mean : {0.0f, -3.0f, 37.5f, 500.0f, 1e-30f}) {
        std::vector<std::uint8_t> out(17 * 103, 0xEE);
        ASSERT_EQ(rgbe_rep(33, 17, 103, mean, p.bytes.data(), out.data()), 17);
        expectPreview(p, out, 33, 17, 103, mean, [](int x, int y) { return std::pair{x, y}; });
        for (int row = 0; row < 17; ++row)
            for (int i = 99; i < 103; ++i) ASSERT_EQ(out[row * 103 + i], 0xEE) << "padding " << row << " " << i;
    }
    std::uint8_t none[1] = {0xEE};
    EXPECT_EQ(rgbe_rep(33, 0, 103, 1.0f, p.bytes.data(), none), 0);
}

TEST(RgbeRep, FailedTableAllocationGivesMinusFour) {
    // Both previews build their exponent table per call; when it cannot be
    // had they report -4 and leave the output alone.
    const Planes p = randomPlanes(6, 4, 13);
    std::vector<std::uint8_t> out(4 * 18, 0xEE);
    {
        oltest::FailAllocation fail(1);
        EXPECT_EQ(rgbe_rep(6, 4, 18, 10.0f, p.bytes.data(), out.data()), -4);
    }
    {
        oltest::FailAllocation fail(1);
        EXPECT_EQ(hdr_rep8(6, 4, 3, 2, 9, 10.0f, p.bytes.data(), out.data()), -4);
    }
    EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](std::uint8_t b) { return b == 0xEE; }));
    EXPECT_EQ(rgbe_rep(6, 4, 18, 10.0f, p.bytes.data(), out.data()), 4);
    EXPECT_EQ(hdr_rep8(6, 4, 3, 2, 9, 10.0f, p.bytes.data(), out.data()), 2);
}

TEST(HdrRep8, PointSamplingWithOneRatio) {
    const Planes p = randomPlanes(40, 30, 12);
    // Half width: columns and rows 0, 2, 4...; rows past the source are held
    // at the last row.
    const int outW = 20, outH = 18, stride = 3 * outW + 2;
    std::vector<std::uint8_t> out(outH * stride, 0xEE);
    ASSERT_EQ(hdr_rep8(40, 30, outW, outH, stride, 50.0f, p.bytes.data(), out.data()), outH);
    expectPreview(p, out, outW, outH, stride, 50.0f, [](int i, int j) { return std::pair{2 * i, std::min(2 * j, 29)}; });
    for (int j = 0; j < outH; ++j) {
        EXPECT_EQ(out[j * stride + 3 * outW], 0xEE);
        EXPECT_EQ(out[j * stride + 3 * outW + 1], 0xEE);
    }

    // outWidth equal to width: ratio 1 for both axes, so a smaller outHeight
    // shows the top rows, not the whole height.
    std::vector<std::uint8_t> top(10 * 120);
    ASSERT_EQ(hdr_rep8(40, 30, 40, 10, 120, 0.0f, p.bytes.data(), top.data()), 10);
    std::vector<std::uint8_t> full(30 * 120);
    ASSERT_EQ(rgbe_rep(40, 30, 120, 0.0f, p.bytes.data(), full.data()), 30);
    EXPECT_TRUE(std::equal(top.begin(), top.end(), full.begin()));

    // A ratio that is not a whole number truncates: 40/15.
    std::vector<std::uint8_t> odd(8 * 45);
    ASSERT_EQ(hdr_rep8(40, 30, 15, 8, 45, 0.0f, p.bytes.data(), odd.data()), 8);
    const float ratio = 40.0f / 15.0f;
    expectPreview(p, odd, 15, 8, 45, 0.0f, [ratio](int i, int j) {
        return std::pair{static_cast<int>(i * ratio), static_cast<int>(j * ratio)};
    });

    // Upsampling holds both axes at the last column and row.
    std::vector<std::uint8_t> up(70 * 3 * 90);
    ASSERT_EQ(hdr_rep8(40, 30, 90, 70, 270, 0.0f, p.bytes.data(), up.data()), 70);
    std::uint8_t corner[3];
    expectedPixel(p, 39, 29, 0.0f, corner);
    EXPECT_EQ(std::memcmp(up.data() + 69 * 270 + 3 * 89, corner, 3), 0);

    EXPECT_EQ(hdr_rep8(40, 30, 20, 0, stride, 1.0f, p.bytes.data(), out.data()), 0);
    EXPECT_EQ(hdr_rep8(40, 30, 0, 5, stride, 1.0f, p.bytes.data(), out.data()), 0);
}

// ---------------------------------------------------------------------------
// hdr_display

struct Window {
    int x0, y0, mx0, mx1, my0, my1;
};

Window place(int width, int height, int x, int y, int ww, int wh) {
    Window w;
    w.x0 = std::max(x - ww / 2, 0);
    if (w.x0 + ww > width) w.x0 = width - ww;
    w.y0 = std::max(y - wh / 2, 0);
    if (w.y0 + wh > height) w.y0 = height - wh;
    w.mx0 = w.x0 + ww / 4;
    w.mx1 = w.x0 + ww - ww / 4;
    w.my0 = w.y0 + wh / 4;
    w.my1 = w.y0 + wh - wh / 4;
    return w;
}

// `step` is the distance from a pixel's first sample to its second in the
// measurement: `width` as the operation has it, 1 for plain interleaving.
std::vector<std::uint8_t> expected16(const std::vector<std::uint16_t>& s, int width, int height, int x,
                                     int y, int ww, int wh, int step = 0) {
    if (step == 0) step = width;
    const Window w = place(width, height, x, y, ww, wh);
    float mn = 1e7f, mx = 0;
    double sum = 0;
    int count = 0;
    for (int yy = w.my0; yy < w.my1; ++yy)
        for (int xx = w.mx0; xx < w.mx1; ++xx) {
            const std::size_t p = static_cast<std::size_t>(yy) * 3 * width + 3 * xx;
            const int lum = (19 * s[p] + 183 * s[p + step] + 54 * s[p + 2 * step]) >> 8;
            mn = std::min(mn, static_cast<float>(lum));
            mx = std::max(mx, static_cast<float>(lum));
            sum += lum;
            count++;
        }
    const float k = mx > mn ? 1.0f / (mx - mn) : 1.0f;
    const float shown = static_cast<float>(k * 255.0f * (sum / count));
    const float target = static_cast<float>(68 + 0.3 * (shown - 68.0f));
    const float factor = target / shown * k * 255.0f;
    std::vector<std::uint8_t> out;
    for (int r = 0; r < wh; ++r)
        for (int c = 0; c < 3 * ww; ++c) {
            const float v = s[static_cast<std::size_t>(w.y0 + r) * 3 * width + 3 * w.x0 + c] * factor;
            out.push_back(static_cast<std::uint8_t>(std::clamp(v, 0.0f, 255.0f)));
        }
    return out;
}

std::vector<std::uint16_t> image16(int width, int height, std::uint32_t seed) {
    const auto raw = oltest::randomBytes(6 * static_cast<std::size_t>(width) * height, seed);
    std::vector<std::uint16_t> s(3 * static_cast<std::size_t>(width) * height);
    std::memcpy(s.data(), raw.data(), raw.size());
    return s;
}

// Cases of the 16-bit view as rows: the window held inside at corners and
// edges; a measurement that takes a pixel's other two samples `width` and
// `2*width` further on (a window uniform in its own pixels but not at those
// offsets has a contrast); a flat picture (max equals min, k is 1); a cursor
// near the end of the last row, whose readings past the image are 0.
TEST(HdrDisplay, SixteenBitWindowsAsRows) {
    const auto random = image16(48, 36, 21);
    std::vector<std::uint16_t> offsets(3 * 20 * 20, 1000), flat(3 * 20 * 20, 2), last(3 * 10 * 8, 500);
    for (std::size_t i = 0; i < offsets.size(); ++i)
        if ((i % 3) != 0) offsets[i] = static_cast<std::uint16_t>(1000 + 400 * ((i / 7) % 5));
    struct Row {
        const std::vector<std::uint16_t>* s;
        int width, height, x, y, ww, wh;
    };
    const Row rows[] = {
        {&random, 48, 36, 20, 15, 16, 12}, {&random, 48, 36, 0, 0, 16, 12}, {&random, 48, 36, 47, 35, 16, 12},
        {&random, 48, 36, 47, 0, 16, 12},  {&random, 48, 36, 3, 30, 16, 12}, {&offsets, 20, 20, 10, 10, 8, 8},
        {&flat, 20, 20, 10, 10, 8, 8},     {&last, 10, 8, 9, 7, 4, 4},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(::testing::Message() << r.width << "x" << r.height << " at " << r.x << "," << r.y);
        const std::vector<std::uint16_t>& s = *r.s;
        std::vector<std::uint8_t> dst(3 * r.ww * r.wh, 0xEE);
        float info[4] = {9, 9, 9, 9};
        const Window w = place(r.width, r.height, r.x, r.y, r.ww, r.wh);
        EXPECT_EQ(hdr_display(r.width, r.height, 16, r.x, r.y, r.ww, r.wh, info, s.data(), dst.data()), w.my0);
        EXPECT_EQ(dst, expected16(s, r.width, r.height, r.x, r.y, r.ww, r.wh));
        if (r.s == &offsets) {
            EXPECT_NE(dst, expected16(s, r.width, r.height, r.x, r.y, r.ww, r.wh, 1));
        }
        const std::size_t p = static_cast<std::size_t>(r.y) * 3 * r.width + 3 * r.x;
        auto at = [&](std::size_t i) { return i < s.size() ? s[i] : 0; };
        EXPECT_EQ(info[0], static_cast<float>((19 * at(p) + 183 * at(p + r.width) + 54 * at(p + 2 * r.width)) >> 8));
        EXPECT_EQ(info[1], static_cast<float>(at(p + 2 * r.width)));
        EXPECT_EQ(info[2], static_cast<float>(at(p + r.width)));
        EXPECT_EQ(info[3], static_cast<float>(at(p)));
    }
}

std::vector<std::uint8_t> expected32(const Planes& p, const float* table, int x, int y, int ww, int wh) {
    const Window w = place(p.width, p.height, x, y, ww, wh);
    auto at = [&](int xx, int yy, int plane) {
        return p.bytes[4 * static_cast<std::size_t>(yy) * p.width + plane * p.width + xx];
    };
    float mn = 1e7f, mx = 0;
    double sum = 0;
    int count = 0;
    for (int yy = w.my0; yy < w.my1; ++yy)
        for (int xx = w.mx0; xx < w.mx1; ++xx) {
            const float lum = (54 * at(xx, yy, 0) + 183 * at(xx, yy, 1) + 19 * at(xx, yy, 2)) * table[at(xx, yy, 3)];
            mn = std::min(mn, lum);
            mx = std::max(mx, lum);
            sum += lum;
            count++;
        }
    const float k = mx > mn ? 255.0f / (mx - mn) : 1.0f;
    const float shown = static_cast<float>(k * (sum / count));
    const float c = static_cast<float>(0.333 * (1.0f - mn / mx));
    const float target = 68.0f + c * (shown - 68.0f);
    const float g = std::max(target / shown * k, 0.0f);
    const float factor = static_cast<float>(255.0 * std::pow(static_cast<double>(g), 0.6));
    std::vector<std::uint8_t> out;
    for (int r = 0; r < wh; ++r)
        for (int cx = 0; cx < ww; ++cx) {
            const int e = at(w.x0 + cx, w.y0 + r, 3);
            for (int plane = 2; plane >= 0; --plane) {
                if (e == 0) {
                    out.push_back(0);
                    continue;
                }
                const float v = std::max(at(w.x0 + cx, w.y0 + r, plane) * table[e], 0.0f);
                const double o = factor * std::pow(static_cast<double>(v), 0.6);
                out.push_back(static_cast<std::uint8_t>(std::clamp(o, 0.0, 255.0)));
            }
        }
    return out;
}

TEST(HdrDisplay, RgbeWindowAndCursorValues) {
    const Planes p = randomPlanes(40, 30, 31);
    for (auto [x, y] : {std::pair{20, 14}, std::pair{0, 0}, std::pair{39, 29}, std::pair{39, 2}}) {
        std::vector<float> table(256);
        ol::fillRgbeExpTable(table.data());
        const std::vector<float> before = table;
        std::vector<std::uint8_t> dst(3 * 10 * 8, 0xEE);
        const Window w = place(40, 30, x, y, 10, 8);
        EXPECT_EQ(hdr_display(40, 30, 32, x, y, 10, 8, table.data(), p.bytes.data(), dst.data()), w.my0);
        EXPECT_EQ(dst, expected32(p, before.data(), x, y, 10, 8)) << x << "," << y;
        const std::uint8_t* row = p.bytes.data() + 4 * static_cast<std::size_t>(y) * 40;
        const int e = row[120 + x];
        float R = 0, G = 0, B = 0, lum = 0;
        if (e != 0) {
            R = row[x] * 255 * before[e];
            G = row[40 + x] * 255 * before[e];
            B = row[80 + x] * 255 * before[e];
            lum = static_cast<float>(0.21 * R + 0.71 * G + 0.07 * B);
        }
        EXPECT_EQ(table[0], lum);
        EXPECT_EQ(table[1], R);
        EXPECT_EQ(table[2], G);
        EXPECT_EQ(table[3], B);
        EXPECT_TRUE(std::equal(table.begin() + 4, table.end(), before.begin() + 4));
    }
}

TEST(HdrDisplay, RgbeUniformAreaBlackCursorAndOtherDepths) {
    Planes p(12, 12);
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 12; ++x) p.set(x, y, 128, 128, 128, 128);
    p.set(0, 0, 200, 10, 10, 0);  // black whatever the mantissas
    float table[256];
    ol::fillRgbeExpTable(table);
    std::vector<std::uint8_t> dst(3 * 8 * 8);
    EXPECT_EQ(hdr_display(12, 12, 32, 0, 0, 8, 8, table, p.bytes.data(), dst.data()), 2);
    // Uniform: k is 1 and c is 0, so the window mean goes all the way to 68.
    const float shown = 256.0f * 128.0f;
    const float g = 68.0f / shown;
    const float factor = static_cast<float>(255.0 * std::pow(static_cast<double>(g), 0.6));
    const auto grey = static_cast<std::uint8_t>(factor * std::pow(128.0, 0.6));
    EXPECT_EQ(dst[0] | dst[1] | dst[2], 0);
    EXPECT_EQ(dst[3], grey);
    EXPECT_EQ(dst[5], grey);
    EXPECT_EQ(table[0], 0.0f);  // cursor on the black pixel
    EXPECT_EQ(table[1], 0.0f);

    float info[4] = {1, 2, 3, 4};
    std::vector<std::uint8_t> untouched(3 * 8 * 8, 0xEE);
    EXPECT_EQ(hdr_display(12, 12, 8, 5, 5, 8, 8, info, p.bytes.data(), untouched.data()), 3);
    for (float v : info) EXPECT_EQ(v, 0.0f);
    EXPECT_TRUE(std::all_of(untouched.begin(), untouched.end(), [](std::uint8_t b) { return b == 0xEE; }));
}

}  // namespace
