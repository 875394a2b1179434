// Conversions into and out of rgbe planes: from an 8 or 16-bit picture
// through a table, and from and to a float TIFF.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "frame/bytes.hpp"
#include "frame/tiff_tags.hpp"
#include "support/radiance.hpp"

using namespace radtest;

namespace {

std::vector<float> rampLut(int levels) {
    std::vector<float> lut(static_cast<std::size_t>(levels));
    for (int i = 0; i < levels; ++i) lut[i] = static_cast<float>(i) / static_cast<float>(levels - 1);
    return lut;
}

using Px = std::array<std::uint8_t, 4>;

float decodeR(const Px& p) {
    return p[3] == 0 ? 0.0f : static_cast<float>(p[0]) * std::ldexp(1.0f, p[3] - 128);
}

}  // namespace

TEST(RadianceConvert, AllDarkGivesGreyAtTheStartingMinimum) {
    const auto lut = rampLut(256);
    Bytes src(5 * 3 * 3, 3);  // level 3
    Bytes out(4 * 5 * 3, 0xAA);
    EXPECT_EQ(convert_to_rgbe(8, 5, 3, 3, 15, 0, lut.data(), src.data(), out.data()), 3);
    // 1e11 = 0.7276 * 2^37: mantissas 186, exponent byte 165.
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x)
            EXPECT_EQ(pixelAt(out, 5, x, y), (Px{186, 186, 186, 165}));
}

TEST(RadianceConvert, AllWhiteGivesNotANumberScale) {
    const auto lut = rampLut(256);
    Bytes src(4 * 2 * 3, 254);
    Bytes out(4 * 4 * 2, 0xAA);
    EXPECT_EQ(convert_to_rgbe(8, 4, 2, 3, 12, 0, lut.data(), src.data(), out.data()), 2);
    for (int x = 0; x < 4; ++x) EXPECT_EQ(pixelAt(out, 4, x, 1), (Px{0, 0, 0, 128}));
}

TEST(RadianceConvert, LevelEdgesAndMarkerReplacement) {
    const auto lut = rampLut(256);
    // Greys: level equals the grey value for 8 bits.
    const std::uint8_t greys[] = {4, 5, 100, 253, 254, 0};
    Bytes src;
    for (std::uint8_t g : greys) src.insert(src.end(), {g, g, g});
    Bytes out(4 * 6);
    ASSERT_EQ(convert_to_rgbe(8, 6, 1, 3, 18, 0, lut.data(), src.data(), out.data()), 1);
    const float lum5 = 256.0f * 5.0f / 255.0f, lum253 = 256.0f * 253.0f / 255.0f;
    // Levels below 5 become grey at the smallest luminance, above 253 at the
    // largest.
    EXPECT_NEAR(decodeR(pixelAt(out, 6, 0, 0)), lum5, lum5 / 100);
    EXPECT_NEAR(decodeR(pixelAt(out, 6, 1, 0)), lum5, lum5 / 100);
    EXPECT_NEAR(decodeR(pixelAt(out, 6, 3, 0)), lum253, lum253 / 100);
    EXPECT_NEAR(decodeR(pixelAt(out, 6, 4, 0)), lum253, lum253 / 100);
    EXPECT_EQ(pixelAt(out, 6, 5, 0), pixelAt(out, 6, 0, 0));
    EXPECT_NEAR(decodeR(pixelAt(out, 6, 2, 0)), 256.0f * 100 / 255, 1.0f);
    // A lut value of 0 is not a minimum: the smallest luminance above 0.
    std::vector<float> lut2 = lut;
    lut2[5] = 0.0f;
    ASSERT_EQ(convert_to_rgbe(8, 6, 1, 3, 18, 0, lut2.data(), src.data(), out.data()), 1);
    EXPECT_NEAR(decodeR(pixelAt(out, 6, 0, 0)), 256.0f * 100 / 255, 1.0f);
    EXPECT_EQ(pixelAt(out, 6, 1, 0), (Px{0, 0, 0, 128})) << "unguarded zero";
}

TEST(RadianceConvert, SixteenBitPureBlueIsDark) {
    const auto lut8 = rampLut(256);
    const auto lut16 = rampLut(65536);
    // 8 bits: pure blue has level 18 and is encoded.
    const std::uint8_t blue8[] = {0, 0, 255, 128, 128, 128};
    Bytes out(8);
    convert_to_rgbe(8, 2, 1, 3, 6, 0, lut8.data(), blue8, out.data());
    EXPECT_EQ(pixelAt(out, 2, 0, 0), (Px{0, 0, 128, 129}));
    // 16 bits: the blue term is 19 * (word > 8), so the level is 0: dark
    // marker, replaced by grey at the minimum (the mid-grey pixel).
    const std::uint16_t blue16[] = {0, 0, 65535, 32896, 32896, 32896};
    convert_to_rgbe(16, 2, 1, 3, 6, 0, lut16.data(), blue16, out.data());
    EXPECT_EQ(pixelAt(out, 2, 0, 0), pixelAt(out, 2, 1, 0));
    // The 16-bit level takes high bytes of red and green: high byte 5 grey
    // with blue 8 (not above 8) has level (183*5+54*5)>>8 = 4: dark.
    const std::uint16_t g16[] = {0x05FF, 0x05FF, 8, 0x0600, 0x0600, 9, 32896, 32896, 32896};
    Bytes out3(12);
    convert_to_rgbe(16, 3, 1, 3, 9, 0, lut16.data(), g16, out3.data());
    // The second has level (183*6+54*6+19)>>8 = 5 and is encoded; its
    // luminance is the minimum, given to the first as grey.
    const auto dark = pixelAt(out3, 3, 0, 0);
    EXPECT_EQ(dark[0], dark[2]);
    const double lumMin = 0.3 * lut16[0x0600] + 0.6 * lut16[0x0600] + 0.1 * lut16[9];
    EXPECT_NEAR(decodeR(dark), 256.0 * lumMin, 256.0 * lumMin / 100);
    // The table is indexed by the whole word.
    EXPECT_NEAR(decodeR(pixelAt(out3, 3, 1, 0)), 256.0f * 0x0600 / 65535.0f, 0.01f);
}

TEST(RadianceConvert, SamplePositionsSwapAndStride) {
    const auto lut = rampLut(256);
    // spp 4: first, middle and last are 0, 1 and 3; sample 2 plays no part.
    // A row stride of 9 leaves a sample of padding after two pixels.
    const std::uint8_t src[] = {40, 100, 7, 200, 40, 100, 250, 200, 99,
                                40, 100, 7, 200, 40, 100, 250, 200, 99};
    Bytes a(16), b(16);
    ASSERT_EQ(convert_to_rgbe(8, 2, 2, 4, 9, 0, lut.data(), src, a.data()), 2);
    EXPECT_EQ(pixelAt(a, 2, 0, 0), pixelAt(a, 2, 1, 1));
    const auto p = pixelAt(a, 2, 0, 0);
    EXPECT_LT(p[0], p[2]) << "red from sample 0, blue from sample 3";
    ASSERT_EQ(convert_to_rgbe(8, 2, 2, 4, 9, 1, lut.data(), src, b.data()), 2);
    const auto q = pixelAt(b, 2, 0, 0);
    EXPECT_EQ(q[0], p[2]);
    EXPECT_EQ(q[1], p[1]);
    EXPECT_EQ(q[2], p[0]);
    // spp 1: one sample gives all three roles.
    Bytes c(4);
    const std::uint8_t grey[] = {128};
    convert_to_rgbe(8, 1, 1, 1, 1, 0, lut.data(), grey, c.data());
    EXPECT_EQ(c[0], c[1]);
    EXPECT_EQ(c[1], c[2]);
    // Nothing to do for no rows.
    Bytes d(4, 0x5A);
    EXPECT_EQ(convert_to_rgbe(8, 1, 0, 1, 1, 0, lut.data(), grey, d.data()), 0);
    EXPECT_EQ(d, Bytes(4, 0x5A));
}

namespace {

// A little-endian float RGB TIFF: pixels at offset 8, then a directory with
// the given entries (tag, type, count, value).
struct Entry {
    std::uint16_t tag, type;
    std::uint32_t count, value;
};
void appendFloats(Bytes& f, const std::vector<float>& values) {
    for (float v : values) {
        f.resize(f.size() + 4);
        ol::putF32LE(f.data() + f.size() - 4, v);
    }
}
// A directory of the given entries with no next one.
void appendDirectory(Bytes& f, const std::vector<Entry>& entries) {
    std::uint8_t b[12];
    ol::putU16LE(b, static_cast<std::uint32_t>(entries.size()));
    f.insert(f.end(), b, b + 2);
    for (const Entry& e : entries) {
        ol::putU16LE(b, e.tag);
        ol::putU16LE(b + 2, e.type);
        ol::putU32LE(b + 4, e.count);
        ol::putU32LE(b + 8, e.value);
        f.insert(f.end(), b, b + 12);
    }
    f.insert(f.end(), {0, 0, 0, 0});
}
Bytes floatTiff(const std::vector<float>& rgb, const std::vector<Entry>& entries) {
    Bytes f = {'I', 'I', 42, 0, 0, 0, 0, 0};
    appendFloats(f, rgb);
    ol::putU32LE(f.data() + 4, static_cast<std::uint32_t>(f.size()));
    appendDirectory(f, entries);
    return f;
}

}  // namespace

TEST(RadianceFloatTiff, ReadsPixelsAndStats) {
    oltest::TempDir dir;
    const std::string path = dir.file("f.tif");
    const std::vector<float> rgb = {1.0f, 0.5f, 0.25f, 0.0f, 0.0f, 0.0f, 1e-33f, 0.0f, 0.0f, 3.0f, 2.0f, 1.0f};
    oltest::writeFile(path, floatTiff(rgb, {{ol::tag::kImageWidth, ol::kTiffShort, 1, 2}, {ol::tag::kStripOffsets, ol::kTiffLong, 1, 8}}));
    Bytes out(4 * 2 * 2, 0xAA);
    float stats[3] = {-1, -1, -1};
    ASSERT_EQ(fp2rgbe(path.c_str(), 2, 2, stats, out.data()), 2);
    EXPECT_EQ(pixelAt(out, 2, 0, 0), (Px{128, 64, 32, 129}));
    EXPECT_EQ(pixelAt(out, 2, 1, 0), (Px{0, 0, 0, 0})) << "black";
    EXPECT_EQ(pixelAt(out, 2, 0, 1), (Px{0, 0, 0, 0})) << "below 1e-32";
    EXPECT_EQ(pixelAt(out, 2, 1, 1), (Px{192, 128, 64, 130}));
    const float lum0 = static_cast<float>(0.3 * 1.0 + 0.6 * 0.5 + 0.1 * 0.25);
    const float lum2 = static_cast<float>(0.3 * 1e-33f);
    const float lum3 = static_cast<float>(0.3 * 3.0 + 0.6 * 2.0 + 0.1 * 1.0);
    EXPECT_EQ(stats[0], 256.0f * lum2);
    EXPECT_EQ(stats[1], 256.0f * lum3);
    EXPECT_FLOAT_EQ(stats[2], static_cast<float>(256.0 * (double(lum0) + lum2 + lum3) / 4));
}

TEST(RadianceFloatTiff, DirectoryRules) {
    oltest::TempDir dir;
    const std::string path = dir.file("f.tif");
    Bytes out(4 * 4);
    float stats[3];
    const auto read = [&](const Bytes& file, int width, int height) {
        oltest::writeFile(path, file);
        return fp2rgbe(path.c_str(), width, height, stats, out.data());
    };
    // No StripOffsets: the pixels are read from offset `width` (here 4,
    // which is the directory offset field and then the floats).
    const Bytes f = floatTiff({1.0f, 1.0f, 1.0f, 2.0f, 2.0f, 2.0f}, {{ol::tag::kImageWidth, ol::kTiffShort, 1, 2}});
    ASSERT_EQ(read(f, 4, 1), 1);
    int e;
    std::frexp(std::max({ol::getF32LE(f.data() + 4), ol::getF32LE(f.data() + 8), ol::getF32LE(f.data() + 12)}), &e);
    EXPECT_EQ(out[3 * 4], static_cast<std::uint8_t>(e + 128));
    // A SHORT offset with fewer than 3 values uses the low two bytes only.
    Bytes g = floatTiff({0.5f, 0.5f, 0.5f}, {{ol::tag::kStripOffsets, ol::kTiffShort, 1, 0xABCD0008u}});
    ASSERT_EQ(read(g, 1, 1), 1);
    EXPECT_EQ(pixelAt(out, 1, 0, 0), (Px{128, 128, 128, 128}));
    // Byte order and magic.
    g[0] = g[1] = 'M';
    EXPECT_EQ(read(g, 1, 1), -3);
    g[0] = g[1] = 'I';
    g[2] = 43;
    EXPECT_EQ(read(g, 1, 1), -4);
    EXPECT_EQ(read({'I'}, 1, 1), -3);
    EXPECT_EQ(fp2rgbe(dir.file("absent.tif").c_str(), 1, 1, stats, out.data()), -1);
    EXPECT_EQ(fp2rgbe(path.c_str(), 1, 0, stats, out.data()), 0);
    // A directory chain that loops ends.
    Bytes loop = floatTiff({0.5f, 0.5f, 0.5f}, {{ol::tag::kStripOffsets, ol::kTiffLong, 1, 8}});
    ol::putU32LE(loop.data() + loop.size() - 4, ol::getU32LE(loop.data() + 4));
    EXPECT_EQ(read(loop, 1, 1), 1);
}

TEST(RadianceFloatTiff, EndOfFileRepeatsTheLastPixel) {
    oltest::TempDir dir;
    const std::string path = dir.file("f.tif");
    // Directory first, pixels last: the file ends after two pixels.
    Bytes f = {'I', 'I', 42, 0, 8, 0, 0, 0};
    appendDirectory(f, {{ol::tag::kStripOffsets, ol::kTiffLong, 1, 8 + 2 + 12 + 4}});
    appendFloats(f, {0.5f, 0.5f, 0.5f, 1.0f, 0.25f, 0.5f});
    oltest::writeFile(path, f);
    Bytes out(4 * 5);
    float stats[3];
    ASSERT_EQ(fp2rgbe(path.c_str(), 5, 1, stats, out.data()), 1);
    for (int x = 1; x < 5; ++x) EXPECT_EQ(pixelAt(out, 5, x, 0), (Px{128, 32, 64, 129}));
}

TEST(RadianceFloatTiff, SaveWritesTheKeptFile) {
    oltest::TempDir dir;
    const std::string path = dir.file("s.tif");
    const int W = 3, H = 2;
    Bytes planes(4 * W * H, 0);
    // Pixel (0,0): 128, 64, 32 at E 129 -> 256, 128, 64. Pixel (1,0) black
    // by E 0 whatever its mantissas.
    planes[0] = 128;
    planes[W] = 64;
    planes[2 * W] = 32;
    planes[3 * W] = 129;
    planes[1] = 200;
    ASSERT_EQ(fp_save(path.c_str(), W, H, planes.data()), H);
    // Floats 256, 128, 64, then 0s; the directory of 11 entries with the
    // bits and sample format arrays behind it.
    EXPECT_TRUE(oltest::matchesFixture("float_tiff/save_3x2.tif", oltest::readFile(path)));

    EXPECT_EQ(fp_save(dir.file("no/such/dir.tif").c_str(), W, H, planes.data()), -2);
    if (oltest::fs::exists("/dev/full")) {
        const Bytes big = photoPlanes(200, 200, 1);
        EXPECT_EQ(fp_save("/dev/full", 200, 200, big.data()), -2);
    }
}

TEST(RadianceFloatTiff, RoundTripMultipliesBy256) {
    oltest::TempDir dir;
    const std::string a = dir.file("a.tif"), b = dir.file("b.tif");
    std::vector<float> rgb;
    for (int i = 0; i < 4 * 3; ++i)
        for (int k = 0; k < 3; ++k) rgb.push_back(0.01f * static_cast<float>((i + 1) * (k + 2)) + 1e-4f * i);
    oltest::writeFile(a, floatTiff(rgb, {{ol::tag::kStripOffsets, ol::kTiffLong, 1, 8}}));
    Bytes planes(4 * 4 * 3);
    float stats[3];
    ASSERT_EQ(fp2rgbe(a.c_str(), 4, 3, stats, planes.data()), 3);
    ASSERT_EQ(fp_save(b.c_str(), 4, 3, planes.data()), 3);
    // (Reading the saved file back, mantissas equal and exponents 8 up, is
    // in roundtrip_test.cpp.)
    const Bytes f = oltest::readFile(b);
    for (std::size_t i = 0; i < rgb.size(); ++i) {
        const float v = ol::getF32LE(f.data() + 8 + 4 * i);
        EXPECT_NEAR(v, 256.0f * rgb[i], 256.0f * rgb[i] / 64) << i;
    }
}
