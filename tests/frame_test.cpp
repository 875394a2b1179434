// The shared pieces: RGBE coding at its edges, x86 float-to-int semantics,
// bounded byte reading, the allocation hook, and the buffer helpers.
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>

#include "frame/bytes.hpp"
#include "frame/numeric.hpp"
#include "frame/rgbe.hpp"
#include "support/testsupport.hpp"

using namespace ol;

TEST(Numeric, TruncationFollowsX86ForNaNAndOverflow) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (auto [in, out] : {std::pair{1.9f, 1}, {-1.9f, -1}, {nan, INT32_MIN}, {3e9f, INT32_MIN}, {-3e9f, INT32_MIN},
                           {-2147483648.0f, INT32_MIN}})
        EXPECT_EQ(truncToInt(in), out) << in;
    EXPECT_EQ(truncToInt(2147483647.0), 2147483647);
    EXPECT_EQ(truncToInt(2147483648.0), INT32_MIN);
    EXPECT_EQ((std::array{wrapToByte(INT32_MIN), wrapToByte(300), clampToByte(-5), clampToByte(300)}),
              (std::array<std::uint8_t, 4>{0, 44, 0, 255}));
}

// Pins by hand: frexp(1) = 0.5 * 2^1, the guard against the double 1e-32
// (the float 1e-32f is above it), no guard (a NaN scale: mantissas 0,
// exponent 128), and the largest exponent with a negative channel.
TEST(Rgbe, PinsAtTheEdges) {
    const float below = std::nextafter(1e-32f, 0.0f);
    struct Row { float a, b, c; RgbeForm form; ZeroGuard guard; std::array<std::uint8_t, 4> want; };
    const Row rows[] = {
        {1.0f, 0.5f, 0.25f, RgbeForm::Clamped, ZeroGuard::On, {128, 64, 32, 129}},
        {below, 0.0f, 0.0f, RgbeForm::Wrapped, ZeroGuard::On, {0, 0, 0, 0}},
        {1e-32f, 0.0f, 0.0f, RgbeForm::Wrapped, ZeroGuard::On, {207, 0, 0, 22}},
        {0.0f, 0.0f, 0.0f, RgbeForm::Clamped, ZeroGuard::Off, {0, 0, 0, 128}},
        {1e38f, -1e38f, 0.0f, RgbeForm::Clamped, ZeroGuard::On, {150, 0, 0, 255}},
        {1e38f, -1e38f, 0.0f, RgbeForm::Wrapped, ZeroGuard::On, {150, 106, 0, 255}},  // -150 wraps to 106,
    };
    for (const Row& r : rows) {
        const RgbePixel p = encodeRgbe(r.a, r.b, r.c, r.form, r.guard);
        EXPECT_EQ((std::array{p.r, p.g, p.b, p.e}), r.want) << r.a;
    }
    const float* t = rgbeExpTable().v;
    EXPECT_FLOAT_EQ(decodeRgbeChannel(128, 129, t), 256.0f);
    EXPECT_EQ(decodeRgbeChannel(200, 0, t), 0.0f);
    EXPECT_EQ(t[0], std::ldexp(1.0f, -128));
    EXPECT_EQ(t[255], std::ldexp(1.0f, 127));
}

// The encoder as the format defines it, with frexp and a double division.
RgbePixel referenceEncode(float a, float b, float c, RgbeForm form, ZeroGuard guard) {
    float m = a;
    if (b > m) m = b;
    if (c > m) m = c;
    if (guard == ZeroGuard::On && !(static_cast<double>(m) > 1e-32)) return kRgbeDark;
    int e = 0;
    const float f = std::frexp(m, &e);
    const float s = static_cast<float>(static_cast<double>(f) * 256.0 / static_cast<double>(m));
    const std::int32_t v[4] = {truncToInt(a * s), truncToInt(b * s), truncToInt(c * s), e + 128};
    RgbePixel p;
    std::uint8_t* out[4] = {&p.r, &p.g, &p.b, &p.e};
    for (int i = 0; i < 4; ++i) *out[i] = form == RgbeForm::Clamped ? clampToByte(v[i]) : wrapToByte(v[i]);
    return p;
}

TEST(Rgbe, FastScaleMatchesFrexpOverTheWholeFloatRange) {
    // Every exponent, both signs, specials, with and without the guard.
    std::uint32_t state = 12345;
    auto next = [&] { return state = state * 1664525u + 1013904223u; };
    std::vector<float> values = {0.0f, -0.0f, 1e-32f, std::nextafter(1e-32f, 0.0f), 1e-45f,
                                 std::numeric_limits<float>::min(), std::numeric_limits<float>::max(),
                                 std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                                 std::numeric_limits<float>::quiet_NaN()};
    for (std::uint32_t biased = 0; biased < 256; ++biased)
        for (int k = 0; k < 40; ++k)
            values.push_back(std::bit_cast<float>((biased << 23) | (next() & 0x807FFFFFu)));
    for (std::size_t i = 0; i < values.size(); ++i) {
        const float a = values[i], b = values[(i * 7 + 3) % values.size()], c = values[(i * 13 + 5) % values.size()];
        for (RgbeForm form : {RgbeForm::Clamped, RgbeForm::Wrapped})
            for (ZeroGuard guard : {ZeroGuard::On, ZeroGuard::Off}) {
                const RgbePixel got = encodeRgbe(a, b, c, form, guard);
                const RgbePixel want = referenceEncode(a, b, c, form, guard);
                ASSERT_EQ(std::memcmp(&got, &want, 4), 0) << a << " " << b << " " << c;
            }
    }
}

TEST(ByteCursor, BoundsEveryRead) {
    const std::uint8_t data[] = {0x49, 0x49, 0x2A, 0x00, 0x01, 0x02, 0x03};
    ByteCursor c(data, sizeof data);
    EXPECT_EQ(c.u16(), 0x4949);
    EXPECT_EQ(c.u16(), 42);
    EXPECT_EQ(c.u16(), 0x0201);
    EXPECT_TRUE(c.ok());
    EXPECT_EQ(c.u16(), 0);  // only one byte left
    EXPECT_FALSE(c.ok());
    ByteCursor b(data, sizeof data, ByteOrder::Big);
    EXPECT_EQ(b.u32(), 0x49492A00u);
    EXPECT_FALSE(b.seek(8));
    EXPECT_EQ(getU64BE(std::array<std::uint8_t, 8>{0, 0, 0, 1, 0, 0, 0, 2}.data()), 0x100000002ull);
}

// The test hook fails the nth allocation of its scope only.
TEST(AllocationHook, FailsTheNthAllocation) {
    void* p[4];
    {
        oltest::FailAllocation fail(2);
        for (int i = 0; i < 3; ++i) p[i] = allocate(8);
    }
    p[3] = allocate(8);
    EXPECT_TRUE(p[0] && !p[1] && p[2] && p[3]);
    for (void* q : p) release(q);
}

TEST(Buffers, StripsAndCopies) {
    // Two strips of two rows, 16-bit, 2x1 pixels of 1 sample, source stride 3 samples.
    std::vector<std::uint16_t> src = {1, 2, 99, 3, 4, 99}, dst(8, 0);
    EXPECT_EQ(loadrows(1, 2, 2, 3, 1, 16, src.data(), dst.data()), 2);
    EXPECT_EQ(dst, (std::vector<std::uint16_t>{0, 0, 0, 0, 1, 2, 3, 4}));
    EXPECT_EQ(loadrows(0, 2, 0, 3, 1, 16, src.data(), dst.data()), 0);
    std::vector<std::uint16_t> words = {0x1122, 0x3344, 0xAA55, 0x5566, 0x7788, 0xBB00};
    std::vector<std::uint8_t> eight(8, 0);
    EXPECT_EQ(load16to8(1, 2, 1, 3, 1, words.data(), eight.data()), 1);
    EXPECT_EQ(eight, (std::vector<std::uint8_t>{0, 0, 0x11, 0x33, 0, 0, 0, 0}));
    std::uint8_t buf[] = {10, 20, 30, 40, 50, 60}, out[2];
    EXPECT_EQ(extractbuf(2, 2, buf, out) + loadbuf(0, 2, out, buf) + vkmemcpyint(buf, 5, out, 1, 1), 3);
    EXPECT_EQ(std::vector<std::uint8_t>(buf, buf + 6), (std::vector<std::uint8_t>{50, 60, 30, 40, 50, 60}));
}

TEST(Buffers, SixteenToEightInPlaceTakesOneWordMoreOnOddRows) {
    // rowBytes 3: two words a row, the second one reaching into the next row,
    // so row 0 takes high bytes 1 and 3, row 1 (from offset 3) bytes 4 and 6.
    std::uint8_t buf[] = {0, 11, 0, 12, 13, 0, 14, 0xEE}, src[] = {0, 21, 0, 22}, dst[2] = {};
    EXPECT_EQ(from16to8(0, 2, 0, 3, buf), 2);
    EXPECT_EQ(std::vector<std::uint8_t>(buf, buf + 8), (std::vector<std::uint8_t>{11, 12, 13, 14, 13, 0, 14, 0xEE}));
    EXPECT_EQ(from16to8copy(0, 1, 0, 4, src, dst), 1);
    EXPECT_EQ(dst[0] + 256 * dst[1], 21 + 256 * 22);
    EXPECT_EQ(from16to8copy(0, 0, 0, 4, src, dst), 0);
}

TEST(Buffers, SwapsRedAndBlueAndRowPairs) {
    std::uint8_t px[] = {1, 2, 3, 4, 5, 6, 7, 8, 0xEE};
    EXPECT_EQ(bgr2rgb(2, 1, 9, 4, 8, px), 1);
    EXPECT_EQ(bgr2rgb(2, 1, 9, 4, 32, px), 32);  // other depths: nothing done
    EXPECT_EQ(std::vector<std::uint8_t>(px, px + 9), (std::vector<std::uint8_t>{3, 2, 1, 4, 7, 6, 5, 8, 0xEE}));
    std::uint16_t w[] = {1, 2, 3};
    EXPECT_EQ(bgr2rgb(1, 1, 3, 3, 16, w), 1);
    EXPECT_EQ(w[0], 3);
    std::uint8_t rows[] = {1, 1, 2, 2, 3, 3};
    EXPECT_EQ(renverse(3, 2, 0, rows), 1);
    EXPECT_EQ(renverse(1, 2, 0, rows), 0);
    EXPECT_EQ(std::vector<std::uint8_t>(rows, rows + 6), (std::vector<std::uint8_t>{3, 3, 2, 2, 1, 1}));
}

// The raw dumps read back, and a short read fails. (The folder services and
// the current directory they set are checked by tests/crossplatform/check.c,
// a failed save by write_failure_test.cpp.)
TEST(Buffers, RawDumpsReadBack) {
    oltest::TempDir dir;
    const std::string f = dir.file("data.bin");
    const std::uint8_t bytes[] = {1, 2, 3};
    std::uint8_t back[4] = {};
    EXPECT_EQ(save_buffer(f.c_str(), bytes, 3), 3);
    EXPECT_EQ(load_buffer(f.c_str(), back, 3), 3);
    EXPECT_EQ(std::vector<std::uint8_t>(back, back + 3), std::vector<std::uint8_t>(bytes, bytes + 3));
    EXPECT_EQ(load_buffer(f.c_str(), back, 4), -1);
}
