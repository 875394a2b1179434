// Conversions into and out of rgbe planes, each against a plain per-pixel
// reading of its rule on random pictures whose values crowd the boundaries,
// plus pins for the quirks: from an 8 or 16-bit picture through a table, and
// from and to a float TIFF.
#include <algorithm>
#include <cstring>
#include <random>

#include "frame/bytes.hpp"
#include "support/radiance.hpp"

using namespace radtest;

namespace {

void setPixel(Bytes& planes, int width, int x, int y, const ol::RgbePixel& p) {
    std::uint8_t* row = planes.data() + static_cast<std::size_t>(y) * 4 * width;
    row[x] = p.r, row[width + x] = p.g, row[2 * width + x] = p.b, row[3 * width + x] = p.e;
}

// convert_to_rgbe read plainly: level, markers, the table, and the markers
// turned to grey at the extremes of the luminance.
template <class S>
Bytes referenceConvert(int w, int h, int spp, int stride, int swapped, const std::vector<float>& lut,
                       const std::vector<S>& src) {
    Bytes out(4u * w * h);
    float maxLum = 0.0f, minLum = 1e11f;
    const int red = swapped ? spp - 1 : 0, blue = swapped ? 0 : spp - 1, middle = (spp - 1) / 2;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const S* p = &src[static_cast<std::size_t>(y) * stride + static_cast<std::size_t>(x) * spp];
            const unsigned r = p[red], g = p[middle], b = p[blue];
            const unsigned level = sizeof(S) == 1 ? (183 * g + 54 * r + 19 * b) >> 8
                                                  : (183 * (g >> 8) + 54 * (r >> 8) + 19 * (b > 8)) >> 8;
            ol::RgbePixel v = level < 5 ? ol::kRgbeDark : ol::kRgbeBurnt;
            if (level >= 5 && level <= 253) {
                const float lum = static_cast<float>(0.3 * lut[r] + 0.6 * lut[g] + 0.1 * lut[b]);
                maxLum = std::max(maxLum, lum);
                if (lum > 0.0f) minLum = std::min(minLum, lum);
                v = ol::encodeRgbe(lut[r], lut[g], lut[b], ol::RgbeForm::Wrapped, ol::ZeroGuard::Off);
            }
            setPixel(out, w, x, y, v);
        }
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const std::uint8_t e = pixelAt(out, w, x, y)[3];
            const float grey = e == 255 ? maxLum : minLum;
            if (e == 255 || e == 0)
                setPixel(out, w, x, y, ol::encodeRgbe(grey, grey, grey, ol::RgbeForm::Wrapped, ol::ZeroGuard::Off));
        }
    return out;
}

// Samples that crowd the level boundaries (8 bits: a grey's level is its
// value; 16 bits: high bytes 5 and 6, blue words 8 and 9), and random ones.
template <class S>
std::vector<S> edgySamples(std::size_t n, std::mt19937& rng) {
    const std::vector<unsigned> edges = sizeof(S) == 1 ? std::vector<unsigned>{0, 3, 4, 5, 6, 128, 252, 253, 254, 255}
                                                       : std::vector<unsigned>{0, 8, 9, 0x05FF, 0x0600, 0x8080, 0xFDFF,
                                                                               0xFE00, 0xFEFF, 0xFFFF};
    std::vector<S> v(n);
    for (S& s : v) s = static_cast<S>(rng() % 3 ? edges[rng() % edges.size()] : rng());
    return v;
}

}  // namespace

TEST(RadianceConvert, MatchesThePlainRuleOnEdgyPictures) {
    std::mt19937 rng(11);
    const auto check = [&rng](auto sample, int spp, int swapped) {
        using S = decltype(sample);
        const int w = 23, h = 9, stride = w * spp + 3, bps = 8 * static_cast<int>(sizeof(S));
        std::vector<float> lut(std::size_t(1) << bps);
        for (std::size_t i = 0; i < lut.size(); ++i)  // a few zeros: an unguarded scale
            lut[i] = rng() % 50 ? static_cast<float>(i) / static_cast<float>(lut.size() - 1) * (0.5f + rng() % 100 / 50.0f)
                                : 0.0f;
        const std::vector<S> src = edgySamples<S>(static_cast<std::size_t>(stride) * h, rng);
        Bytes out(4u * w * h, 0xAA);
        ASSERT_EQ(convert_to_rgbe(bps, w, h, spp, stride, swapped, lut.data(), src.data(), out.data()), h);
        EXPECT_EQ(out, referenceConvert(w, h, spp, stride, swapped, lut, src)) << bps << " bits, spp " << spp;
    };
    for (int round = 0; round < 2; ++round)
        for (int spp : {1, 3, 4})
            for (int swapped : {0, 1}) {
                check(std::uint8_t{}, spp, swapped);
                check(std::uint16_t{}, spp, swapped);
            }
}

// The quirks by hand: the first pixel of small pictures through a ramp table.
TEST(RadianceConvert, Quirks) {
    struct Row {
        const char* what;
        int bps;
        std::vector<std::uint16_t> samples;  // RGB pixels
        std::array<std::uint8_t, 4> first;
    };
    const Row rows[] = {
        // The minimum stays 1e11 = 0.7276 * 2^37.
        {"all dark: grey at the starting minimum", 8, std::vector<std::uint16_t>(15, 3), {186, 186, 186, 165}},
        {"all white: the maximum stays 0, a scale that is not a number", 8, std::vector<std::uint16_t>(12, 254), {0, 0, 0, 128}},
        {"8-bit pure blue has level 18 and is encoded", 8, {0, 0, 255, 128, 128, 128}, {0, 0, 128, 129}},
        // Level 19 >> 8 = 0: dark marker, then grey at the grey pixel's 0x8080/65535.
        {"16-bit pure blue is dark", 16, {0, 0, 65535, 0x8080, 0x8080, 0x8080}, {128, 128, 128, 128}},
    };
    std::vector<float> lut8(256), lut16(65536);
    for (int i = 0; i < 65536; ++i) lut16[i] = static_cast<float>(i) / 65535.0f;
    for (int i = 0; i < 256; ++i) lut8[i] = static_cast<float>(i) / 255.0f;
    for (const Row& r : rows) {
        const int w = static_cast<int>(r.samples.size() / 3);
        const Bytes eight(r.samples.begin(), r.samples.end());
        Bytes out(4u * w, 0xAA);
        ASSERT_EQ(convert_to_rgbe(r.bps, w, 1, 3, 3 * w, 0, r.bps == 8 ? lut8.data() : lut16.data(),
                                  r.bps == 8 ? static_cast<const void*>(eight.data()) : r.samples.data(), out.data()), 1);
        EXPECT_EQ(pixelAt(out, w, 0, 0), r.first) << r.what;
    }
    Bytes untouched(4, 0x5A);
    EXPECT_EQ(convert_to_rgbe(8, 1, 0, 1, 1, 0, lut8.data(), lut8.data(), untouched.data()), 0);
    EXPECT_EQ(untouched, Bytes(4, 0x5A));
}

namespace {

// fp2rgbe read plainly: pixels of 12 bytes from `offset`, a pixel cut by the
// end of the file keeping the bytes of the one before; stats of the
// luminance.
Bytes referenceFp2rgbe(const Bytes& file, std::size_t offset, int w, int h, float stats[3]) {
    Bytes out(4u * w * h);
    std::uint8_t px[12] = {};
    float minLum = 1e11f, maxLum = 0.0f;
    double sum = 0.0;
    for (int i = 0; i < w * h; ++i) {
        for (std::size_t k = 0; k < 12; ++k)
            if (offset + 12u * i + k < file.size()) px[k] = file[offset + 12u * i + k];
        const float r = ol::getF32LE(px), g = ol::getF32LE(px + 4), b = ol::getF32LE(px + 8);
        const float lum = static_cast<float>(0.3 * r + 0.6 * g + 0.1 * b);
        maxLum = std::max(maxLum, lum);
        if (lum > 0.0f) minLum = std::min(minLum, lum);
        sum += lum;
        setPixel(out, w, i % w, i / w, ol::encodeRgbe(r, g, b, ol::RgbeForm::Wrapped));
    }
    stats[0] = 256.0f * minLum, stats[1] = 256.0f * maxLum;
    stats[2] = static_cast<float>(256.0 * sum / (w * h));
    return out;
}

}  // namespace

TEST(RadianceFloatTiff, ReadsWhereTheDirectorySays) {
    oltest::TempDir dir;
    const std::string path = dir.file("f.tif");
    struct Row {
        const char* what;
        Bytes file;
        int w, h, result;
        std::size_t offset;  // where the pixels are read from
    };
    const Bytes loop = oltest::fixture("float_tiff/read_loop.tif");
    const Row rows[] = {
        {"StripOffsets as a LONG", oltest::fixture("float_tiff/read_strip_long.tif"), 6, 4, 4, 8},
        {"no StripOffsets: from offset `width`", oltest::fixture("float_tiff/read_no_strip.tif"), 5, 4, 4, 5},
        {"a SHORT offset of count below 3 uses the low two bytes", oltest::fixture("float_tiff/read_strip_short.tif"), 6, 4, 4, 8},
        {"a directory chain that loops ends", loop, 6, 4, 4, 8},
        {"the end of the file repeats the last pixel", oltest::fixture("float_tiff/read_directory_first.tif"), 6, 5, 5, 26},
        {"big-endian", {'M', 'M', 42, 0}, 6, 4, -3, 0},
        {"a magic number of 43", {'I', 'I', 43, 0}, 6, 4, -4, 0},
        {"one byte", {'I'}, 6, 4, -3, 0},
        {"no rows", loop, 6, 0, 0, 0},
    };
    for (const Row& r : rows) {
        oltest::writeFile(path, r.file);
        Bytes out(4u * r.w * r.h, 0xAA);
        float stats[3] = {-1, -1, -1}, want[3];
        ASSERT_EQ(fp2rgbe(path.c_str(), r.w, r.h, stats, out.data()), r.result) << r.what;
        if (r.result <= 0) continue;
        EXPECT_EQ(out, referenceFp2rgbe(r.file, r.offset, r.w, r.h, want)) << r.what;
        EXPECT_EQ(Bytes(reinterpret_cast<std::uint8_t*>(stats), reinterpret_cast<std::uint8_t*>(stats + 3)),
                  Bytes(reinterpret_cast<std::uint8_t*>(want), reinterpret_cast<std::uint8_t*>(want + 3)))
            << r.what;
    }
    float stats[3];
    EXPECT_EQ(fp2rgbe(dir.file("absent.tif").c_str(), 1, 1, stats, nullptr), -1);
}

TEST(RadianceFloatTiff, SaveWritesTheKeptFile) {
    oltest::TempDir dir;
    const std::string path = dir.file("s.tif");
    const int W = 3, H = 2;
    Bytes planes(4 * W * H, 0);
    // Pixel (0,0): 128, 64, 32 at E 129 -> 256, 128, 64. Pixel (1,0) black
    // by E 0 whatever its mantissas.
    planes[0] = 128, planes[W] = 64, planes[2 * W] = 32, planes[3 * W] = 129, planes[1] = 200;
    ASSERT_EQ(fp_save(path.c_str(), W, H, planes.data()), H);
    EXPECT_TRUE(oltest::matchesFixture("float_tiff/save_3x2.tif", oltest::readFile(path)));
    // (Its write failures, -2, are in write_failure_test.)
}
