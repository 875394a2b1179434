// PSD reading (header and resource walk, the composite at 8, 16 and 32 bits,
// raw and PackBits, the large-document form), BMP dimensions and the ICC
// helpers.
#include <cmath>
#include <cstring>
#include <string>

#include "frame/rgbe.hpp"
#include "support/metadata_bytes.hpp"
#include "metadata/psd_reader.hpp"

using namespace metatest;
using oltest::TempDir;

namespace {

// Planar test image: sample (c, y, x) = c*64 + y*8 + x + 1.
std::uint8_t sample8(int c, int y, int x) { return static_cast<std::uint8_t>(c * 64 + y * 8 + x + 1); }
std::uint16_t sample16(int c, int y, int x) { return static_cast<std::uint16_t>(0x0100 * (c * 64 + y * 8 + x + 1) + 0x37); }

Bytes rawPlanes(int channels, int w, int h, int depth) {
    Bytes b;
    for (int c = 0; c < channels; ++c)
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                if (depth == 8) {
                    b.push_back(sample8(c, y, x));
                } else {
                    const std::uint16_t v = sample16(c, y, x);
                    b.push_back(static_cast<std::uint8_t>(v >> 8));
                    b.push_back(static_cast<std::uint8_t>(v));
                }
            }
    return b;
}

// PackBits of every row as literal runs, with the row-length table.
Bytes rlePlanes(int channels, int w, int h, int depth, bool large) {
    const Bytes raw = rawPlanes(channels, w, h, depth);
    const std::size_t rowBytes = static_cast<std::size_t>(w) * (depth / 8);
    Bytes table, data;
    Writer tw{false, &table};
    for (int r = 0; r < channels * h; ++r) {
        const std::uint8_t* row = raw.data() + r * rowBytes;
        Bytes packed;
        for (std::size_t i = 0; i < rowBytes;) {
            const std::size_t n = std::min<std::size_t>(128, rowBytes - i);
            packed.push_back(static_cast<std::uint8_t>(n - 1));
            packed.insert(packed.end(), row + i, row + i + n);
            i += n;
        }
        if (large)
            tw.u32(static_cast<std::uint32_t>(packed.size()));
        else
            tw.u16(static_cast<std::uint32_t>(packed.size()));
        data.insert(data.end(), packed.begin(), packed.end());
    }
    table.insert(table.end(), data.begin(), data.end());
    return table;
}

struct Loaded {
    int info;
    PsdInfo rec;
    int result;
    std::vector<std::uint8_t> out;
};

Loaded loadBytes(const Bytes& file, int order, int rowStride, std::size_t outBytes, int lengthBits = 0) {
    TempDir dir;
    const std::string p = dir.file("x.psd");
    oltest::writeFile(p, file);
    Loaded l;
    std::memset(&l.rec, 0, sizeof l.rec);
    l.rec.lengthBits = lengthBits;
    l.info = getPsdInfo(p.c_str(), &l.rec);
    l.out.assign(outBytes, 0xEE);
    l.result = l.info > 0 ? load_psd(order, p.c_str(), &l.rec, rowStride, l.out.data()) : l.info;
    return l;
}

struct Shape {
    int depth;
    bool rle;
    bool large;
};

class PsdShapeTest : public ::testing::TestWithParam<Shape> {};

TEST_P(PsdShapeTest, CompositeInBothOrdersWithRowSpare) {
    const Shape sh = GetParam();
    const int w = 5, h = 3, channels = 4, stride = 3 * w + 2;
    PsdSpec s;
    s.version = sh.large ? 2 : 1;
    s.channels = channels;
    s.width = w;
    s.height = h;
    s.depth = sh.depth;
    s.layerSection = Bytes(10, 0x5A);
    s.compression = sh.rle ? 1 : 0;
    s.image = sh.rle ? rlePlanes(channels, w, h, sh.depth, sh.large) : rawPlanes(channels, w, h, sh.depth);
    const Bytes file = buildPsd(s);
    const std::size_t bytesPer = static_cast<std::size_t>(sh.depth / 8);
    for (int order : {1, 0}) {
        const Loaded l = loadBytes(file, order, stride, stride * h * bytesPer);
        ASSERT_EQ(l.result, h) << order;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < 3; ++c) {
                    const int slot = order > 0 ? c : 2 - c;
                    const std::size_t at = (static_cast<std::size_t>(y) * stride + 3 * x + slot) * bytesPer;
                    if (sh.depth == 8) {
                        EXPECT_EQ(l.out[at], sample8(c, y, x));
                    } else {
                        EXPECT_EQ(l.out[at] | (l.out[at + 1] << 8), sample16(c, y, x));
                    }
                }
            // The spare samples at each row's end are not written.
            for (std::size_t k = 3 * w * bytesPer; k < stride * bytesPer; ++k)
                EXPECT_EQ(l.out[y * stride * bytesPer + k], 0xEE);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, PsdShapeTest,
                         ::testing::Values(Shape{8, false, false}, Shape{8, true, false}, Shape{16, false, false},
                                           Shape{16, true, false}, Shape{8, true, true}, Shape{16, false, true}),
                         [](const auto& info) {
                             return std::to_string(info.param.depth) + (info.param.rle ? "Rle" : "Raw") +
                                    (info.param.large ? "Large" : "");
                         });

TEST(MetareadPsd, LengthBitsFromTheHostOverridesTheVersion) {
    PsdSpec s;
    s.version = 2;
    s.image = rawPlanes(3, 2, 2, 8);
    const Bytes file = buildPsd(s);
    EXPECT_EQ(loadBytes(file, 1, 6, 12, 0).result, 2);
    EXPECT_EQ(loadBytes(file, 1, 6, 12, 64).result, 2);
    // Read as the 32-bit form, the length's high word (0) is the length and
    // the compression word lands in the real length: the planes come out
    // shifted, here by 4 bytes.
    const Loaded l = loadBytes(file, 1, 6, 12, 32);
    EXPECT_EQ(l.result, 2);
    EXPECT_NE(l.out[0], sample8(0, 0, 0));
}

TEST(MetareadPsd, PackBitsRunsCrossRowsAndStopAtThePlane) {
    // 2x2 planes behind a row table that is not checked.
    struct Case {
        Bytes runs;
        int result;
        Bytes out;
    } cases[] = {
        // One repeat run covering the whole plane for each channel, then a
        // no-op byte (-128) between channels 1 and 2.
        {{0xFD, 10, 0x80, 0xFD, 20, 0x80, 0x01, 30, 31, 0x01, 32, 33}, 2, {10, 20, 30, 10, 20, 31, 10, 20, 32, 10, 20, 33}},
        // A run longer than the plane writes only up to its end; the rest of
        // the run is consumed, so the next channel starts behind it.
        {{0xF9, 10, 0x05, 1, 2, 3, 4, 5, 6, 0xFD, 40}, 2, {10, 1, 40, 10, 2, 40, 10, 3, 40, 10, 4, 40}},
        // Data that ends before the planes are full.
        {{0xFD, 10, 0x07, 1, 2}, -3, {}},
    };
    for (const auto& c : cases) {
        PsdSpec s;
        s.compression = 1;
        s.image = cat({Bytes(2 * 2 * 3, 0), c.runs});
        const Loaded l = loadBytes(buildPsd(s), 1, 6, 12);
        ASSERT_EQ(l.result, c.result);
        if (c.result > 0) {
            EXPECT_EQ(l.out, c.out);
        }
    }
}

TEST(MetareadPsd, MemoryFailuresGiveMinusFour) {
    PsdSpec s;
    s.compression = 1;
    s.image = rlePlanes(3, 2, 2, 8, false);
    TempDir dir;
    const std::string p = dir.file("m.psd");
    oltest::writeFile(p, buildPsd(s));
    PsdInfo info{};
    ASSERT_GT(getPsdInfo(p.c_str(), &info), 0);
    std::uint8_t out[12];
    for (long n : {1L, 2L}) {
        oltest::FailAllocation fail(n);
        EXPECT_EQ(load_psd(1, p.c_str(), &info, 6, out), -4) << n;
    }
}

std::uint32_t bits(float f) {
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

Bytes floatBytes(std::uint32_t u) {
    return {static_cast<std::uint8_t>(u >> 24), static_cast<std::uint8_t>(u >> 16), static_cast<std::uint8_t>(u >> 8),
            static_cast<std::uint8_t>(u)};
}

TEST(MetareadPsd, FloatsAreReadAtHalfTheirValue) {
    auto f = [](std::uint32_t u) {
        const Bytes b = floatBytes(u);
        return ol::psdFloat(b.data());
    };
    EXPECT_EQ(f(bits(1.0f)), 0.5f);
    EXPECT_EQ(f(bits(-3.0f)), -1.5f);
    EXPECT_EQ(f(bits(0.0f)), 0.0f);
    EXPECT_EQ(f(bits(1e-3f)), 5e-4f);
    // No special exponents: a NaN or infinity pattern is a large number, and
    // a subnormal pattern is read with the implicit one.
    EXPECT_EQ(f(0x7F800000u), 0x1p127f);
    EXPECT_EQ(f(0x7FFFFFFFu), 3.4028234663852886e38f);
    EXPECT_EQ(f(0x00000001u), static_cast<float>(std::ldexp(1.0 + std::ldexp(1.0, -23), -128)));
    EXPECT_EQ(f(0x80000000u), -0x1p-128f);  // negative zero is not zero here
}

TEST(MetareadPsd, ThirtyTwoBitCompositeToRgbePlanes) {
    const int w = 3, h = 2;
    PsdSpec s;
    s.depth = 32;
    s.width = w;
    s.height = h;
    const float vals[3][2][3] = {{{1.0f, 0.0f, 4.0f}, {1e-40f, 2.0f, 0.25f}},
                                 {{0.5f, 0.0f, 2.0f}, {1e-40f, 1.0f, 0.25f}},
                                 {{0.25f, 0.0f, 1.0f}, {1e-40f, 0.5f, 0.25f}}};
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const Bytes b = floatBytes(bits(vals[c][y][x]));
                s.image.insert(s.image.end(), b.begin(), b.end());
            }
    const Loaded l = loadBytes(buildPsd(s), 0, 999, 4 * w * h);
    ASSERT_EQ(l.result, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const ol::RgbePixel p = ol::encodeRgbe(vals[0][y][x] / 2, vals[1][y][x] / 2, vals[2][y][x] / 2,
                                                   ol::RgbeForm::Wrapped);
            const std::uint8_t* row = l.out.data() + 4 * w * y;
            EXPECT_EQ(row[x], p.r);
            EXPECT_EQ(row[w + x], p.g);
            EXPECT_EQ(row[2 * w + x], p.b);
            EXPECT_EQ(row[3 * w + x], p.e);
        }
    // 1.0 reads as 0.5: mantissa 128, exponent 128. Zero and subnormal pixels
    // are four zero bytes.
    EXPECT_EQ(l.out[0], 128);
    EXPECT_EQ(l.out[3 * w], 128);
    EXPECT_EQ(l.out[1], 0);
    EXPECT_EQ(l.out[3 * w + 1], 0);
    EXPECT_EQ(l.out[4 * w + 3 * w], 0);

    // Compressed 32-bit data is refused.
    s.compression = 1;
    oltest::CaptureFd err(2);
    EXPECT_EQ(loadBytes(buildPsd(s), 0, 0, 4 * w * h).result, -2);
    EXPECT_EQ(err.finish(), "load_psd rle 1 not supported for 32-bit PSD\n");
    // A short file fails the row read.
    s.compression = 0;
    Bytes cut = buildPsd(s);
    cut.resize(cut.size() - 4);
    EXPECT_EQ(loadBytes(cut, 0, 0, 4 * w * h).result, -1);
}

TEST(MetareadPsd, InfoAndResources) {
    PsdSpec s;
    s.width = 7;
    s.height = 9;
    s.colorData = Bytes(6, 1);
    const Bytes r1 = resource8bim(1005, {0x01, 0x2C, 0x80, 0x00, 0, 1, 0, 1, 0x00, 0x96, 0x40, 0x00, 0, 1, 0, 1});
    const Bytes r2 = resource8bim(1039, Bytes{'p', 'r', 'o', 'f', 'i', 'l', 'e'});
    const Bytes res = cat({r1, r2, resource8bim(1058, Bytes(9, 3))});
    s.resources = res;
    s.image = rawPlanes(3, 7, 9, 8);
    TempDir dir;
    const std::string p = dir.file("i.psd");
    oltest::writeFile(p, buildPsd(s));
    PsdInfo info{};
    const int start = 26 + 4 + 6 + 4 + static_cast<int>(res.size());
    EXPECT_EQ(getPsdInfo(p.c_str(), &info), start);
    EXPECT_EQ(info.dataStart, start);
    EXPECT_EQ(info.width, 7);
    EXPECT_EQ(info.height, 9);
    EXPECT_EQ(info.bps, 8);
    EXPECT_EQ(info.channels, 3);
    EXPECT_EQ(info.resH, 300);
    EXPECT_EQ(info.resV, 150);
    EXPECT_EQ(info.lProfil, 7);
    EXPECT_EQ(info.exifStart, 40 + static_cast<int>(r1.size() + r2.size()) + 12);
    unsigned char prof[16] = {};
    EXPECT_EQ(psd_profile(p.c_str(), prof), 7);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(prof), 7), "profile");

    // No resources: fields the file lacks keep their old contents.
    s.resources.clear();
    oltest::writeFile(p, buildPsd(s));
    std::memset(&info, 0x11, sizeof info);
    EXPECT_EQ(getPsdInfo(p.c_str(), &info), 40);
    EXPECT_EQ(info.resH, 0x11111111);
    EXPECT_EQ(info.lProfil, 0x11111111);
    EXPECT_EQ(info.lengthBits, 0x11111111);  // never written
    // Without a profile resource psd_profile gives the walk's last word as a
    // little-endian number: here the section length field, 0.
    EXPECT_EQ(psd_profile(p.c_str(), prof), 0);
    s.resources = r1;
    oltest::writeFile(p, buildPsd(s));
    EXPECT_EQ(psd_profile(p.c_str(), prof), 0x10000000);  // size 16, big-endian bytes
}

TEST(MetareadPsd, RefusedFiles) {
    TempDir dir;
    const std::string p = dir.file("r.psd");
    PsdInfo info{};
    unsigned char prof[4];
    EXPECT_EQ(getPsdInfo(dir.file("none").c_str(), &info), -1);
    oltest::writeFile(p, {'8', 'B'});
    EXPECT_EQ(getPsdInfo(p.c_str(), &info), -1);
    oltest::writeFile(p, {'8', 'B', 'P', 'X', 0, 0});
    EXPECT_EQ(getPsdInfo(p.c_str(), &info), -2);
    EXPECT_EQ(psd_profile(p.c_str(), prof), -2);
    for (auto [channels, mode] : {std::pair{2, 3}, {1, 3}, {4, 4}, {3, 9}}) {
        PsdSpec s;
        s.channels = channels;
        s.mode = mode;
        oltest::writeFile(p, buildPsd(s));
        EXPECT_EQ(getPsdInfo(p.c_str(), &info), -3) << channels << " " << mode;
        EXPECT_EQ(psd_profile(p.c_str(), prof), -3);
    }
    // load_psd refuses other depths and a failed seek.
    PsdSpec s;
    s.image = rawPlanes(3, 2, 2, 8);
    oltest::writeFile(p, buildPsd(s));
    ASSERT_GT(getPsdInfo(p.c_str(), &info), 0);
    std::uint8_t out[64];
    PsdInfo bad = info;
    bad.bps = 1;
    EXPECT_EQ(load_psd(1, p.c_str(), &bad, 6, out), -1);
    bad = info;
    bad.dataStart = -5;
    oltest::CaptureFd err(2);
    EXPECT_EQ(load_psd(1, p.c_str(), &bad, 6, out), -1);
    EXPECT_EQ(err.finish(), "load_psd fseek -5 failed \n");
    EXPECT_EQ(load_psd(1, dir.file("none").c_str(), &info, 6, out), -1);
    // Planes cut short.
    Bytes cut = buildPsd(s);
    cut.resize(cut.size() - 1);
    oltest::writeFile(p, cut);
    EXPECT_EQ(load_psd(1, p.c_str(), &info, 6, out), -1);
}

Bytes bmpHeader(std::int32_t w, std::int32_t h, int bitCount) {
    Bytes b = {'B', 'M'};
    Writer wr{true, &b};
    wr.u32(54);
    wr.u32(0);
    wr.u32(54);
    wr.u32(40);
    wr.u32(static_cast<std::uint32_t>(w));
    wr.u32(static_cast<std::uint32_t>(h));
    wr.u16(1);
    wr.u16(static_cast<std::uint32_t>(bitCount));
    return b;
}

TEST(MetareadBmp, Dimensions) {
    TempDir dir;
    const std::string p = dir.file("a.bmp");
    int dims[3] = {0, 0, 0};
    oltest::writeFile(p, bmpHeader(640, -480, 24));
    EXPECT_EQ(olbmp_dim(p.c_str(), dims), 8);
    EXPECT_EQ(dims[0], 640);
    EXPECT_EQ(dims[1], -480);
    EXPECT_EQ(dims[2], 3);
    oltest::writeFile(p, bmpHeader(3, 2, 8));
    EXPECT_EQ(olbmp_dim(p.c_str(), dims), 8);
    EXPECT_EQ(dims[2], 1);
    Bytes cut = bmpHeader(3, 2, 24);
    cut.resize(24);
    const std::pair<Bytes, int> refused[] = {{bmpHeader(3, 2, 32), -3}, {{'B', 'X', 0, 0}, -2}, {{'B'}, -1}, {cut, -3}};
    for (const auto& [file, code] : refused) {
        oltest::writeFile(p, file);
        EXPECT_EQ(olbmp_dim(p.c_str(), dims), code);
    }
    EXPECT_EQ(olbmp_dim(dir.file("none").c_str(), dims), -1);
}

// A minimal profile with a text description tag of the given text at 132.
Bytes profileWithDesc(const std::string& text, int countByte = -1) {
    Bytes p(132, 0);
    const Bytes head = {'d', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0,
                        static_cast<std::uint8_t>(countByte >= 0 ? countByte : static_cast<int>(text.size() + 1))};
    p.insert(p.end(), head.begin(), head.end());
    p.insert(p.end(), text.begin(), text.end());
    p.resize(p.size() + 60, 0);
    Writer w{false, &p};
    w.put32(0, static_cast<std::uint32_t>(p.size()));
    return p;
}

std::string nameOf(const Bytes& prof, int* result = nullptr) {
    char name[32];
    std::memset(name, 0x7A, sizeof name);
    const int r = get_profile_name(static_cast<int>(prof.size()), prof.data(), name);
    if (result) *result = r;
    return std::string(name, 32);
}

TEST(MetareadIcc, NamingRule) {
    int r = 0;
    EXPECT_EQ(nameOf(profileWithDesc("Adobe RGB (1998)"), &r), std::string("Adobe RGB") + std::string(23, '\0'));
    EXPECT_EQ(r, 9);
    EXPECT_EQ(nameOf(profileWithDesc("Compatible with sRGB"), &r).substr(0, 5), std::string("sRGB\0", 5));
    EXPECT_EQ(r, 4);
    // An unknown name: the first 32 bytes of the text, past its end.
    EXPECT_EQ(nameOf(profileWithDesc("Mine"), &r), std::string("Mine") + std::string(28, '\0'));
    EXPECT_EQ(r, 32);
    const struct {
        const char* text;
        int countByte;
        int result;
    } cases[] = {
        {"ProPhoto RGB", -1, 12},
        // At each position the names are tried in order: "sRGB" found later
        // in the text still loses to an earlier "Adobe RGB".
        {"xAdobe RGB sRGB", -1, 9},
        // The search covers only the counted length; a count of 0 searches
        // nothing, and the text may be shorter than the name it starts.
        {"sRGB", 0, 32},
        {"sRG", 2, 32},
    };
    for (const auto& c : cases) {
        nameOf(profileWithDesc(c.text, c.countByte), &r);
        EXPECT_EQ(r, c.result) << c.text;
    }
    // Only the first matching "desc" counts, even when a later one names a
    // known space.
    Bytes two = profileWithDesc("Display");
    const Bytes second = {'d', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0, 5, 's', 'R', 'G', 'B', 0};
    std::copy(second.begin(), second.end(), two.begin() + 160);
    EXPECT_EQ(nameOf(two, &r).substr(0, 8), std::string("Display\0", 8));
    EXPECT_EQ(r, 32);
    // A near miss (one of the seven zero bytes set) is passed over.
    Bytes near = profileWithDesc("sRGB");
    near[132 + 8] = 1;
    nameOf(near, &r);
    EXPECT_EQ(r, -1);
}

TEST(MetareadIcc, NoDescription) {
    int r = 0;
    Bytes small(48, 0);
    EXPECT_EQ(nameOf(small, &r), std::string(32, '\0'));
    EXPECT_EQ(r, -1);
    Bytes noDesc(400, 0);
    nameOf(noDesc, &r);
    EXPECT_EQ(r, -1);
    // A "desc" tag table entry (offset and size behind it) is not a match.
    Bytes table(400, 0);
    const Bytes entry = {'d', 'e', 's', 'c', 0, 0, 0, 200, 0, 0, 0, 40};
    std::copy(entry.begin(), entry.end(), table.begin() + 132);
    nameOf(table, &r);
    EXPECT_EQ(r, -1);
    // A description that runs off the profile's end copies what there is.
    Bytes edge(100, 0);
    const Bytes d = {'d', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0, 5, 'a', 'b'};
    std::copy(d.begin(), d.end(), edge.begin() + 80);
    const std::string n = nameOf(edge, &r);
    EXPECT_EQ(r, 32);
    EXPECT_EQ(n, std::string("ab") + std::string(30, '\0'));
}

TEST(MetareadIcc, ExtractProfile) {
    TempDir dir;
    const std::string p = dir.file("p.icc");
    const Bytes prof = profileWithDesc("sRGB");
    oltest::writeFile(p, prof);
    Bytes buf(prof.size() + 8, 0);
    EXPECT_EQ(extract_profile(p.c_str(), buf.data()), static_cast<int>(prof.size()));
    EXPECT_TRUE(std::equal(prof.begin(), prof.end(), buf.begin()));
    EXPECT_EQ(extract_profile(nullptr, buf.data()), -1);
    EXPECT_EQ(extract_profile(dir.file("none").c_str(), buf.data()), -2);
    const std::pair<Bytes, int> refused[] = {
        {{0, 0, 1}, -3}, {{0, 0, 0, 0, 1, 2}, -4}, {{0x80, 0, 0, 0, 1, 2}, -4}, {{0, 0, 0, 9, 1, 2}, -5}};
    for (const auto& [file, code] : refused) {
        oltest::writeFile(p, file);
        EXPECT_EQ(extract_profile(p.c_str(), buf.data()), code);
    }
}

}  // namespace
