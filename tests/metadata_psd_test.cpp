// PSD reading (header and resource walk, the composite at 8, 16 and 32 bits,
// raw and PackBits, the large-document form), BMP dimensions and the ICC
// helpers. Composites written by other programs are compared in
// metadata_read_interop_test.cpp and metadata_testdata_test.cpp.
#include <cmath>
#include <cstring>
#include <string>

#include "metadata/psd_reader.hpp"
#include "support/metadata_bytes.hpp"

using namespace metatest;
using oltest::TempDir;

// Files are described with designated initializers of PsdSpec; the byte
// sections left out are empty, as meant (its vectors carry no initializer of
// their own, which this warning would flag).
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

// Planar test image: sample (c, y, x) is c*64 + y*8 + x + 1, at 16 bits
// times 0x100 plus 0x37.
std::uint16_t sample(int c, int y, int x, int depth) {
    const int v = c * 64 + y * 8 + x + 1;
    return static_cast<std::uint16_t>(depth == 8 ? v : 0x100 * v + 0x37);
}

// The planes of the test image, raw or as one PackBits literal run a row
// (rows of at most 128 bytes) behind the row-length table.
Bytes planes(int channels, int w, int h, int depth, bool rle = false, bool large = false) {
    Bytes table, data;
    Writer tw{false, &table};
    for (int c = 0; c < channels; ++c)
        for (int y = 0; y < h; ++y) {
            Bytes row;
            Writer rw{false, &row};
            for (int x = 0; x < w; ++x) depth == 8 ? rw.u8(sample(c, y, x, 8)) : rw.u16(sample(c, y, x, 16));
            if (rle) {
                large ? tw.u32(static_cast<std::uint32_t>(row.size() + 1)) : tw.u16(static_cast<std::uint32_t>(row.size() + 1));
                row.insert(row.begin(), static_cast<std::uint8_t>(row.size() - 1));
            }
            data.insert(data.end(), row.begin(), row.end());
        }
    return cat({table, data});
}

// How load_psd is called on a file: with the record getPsdInfo filled, as
// the host changed it, and the allocation made to fail (0: none).
struct Load {
    int order = 1, rowStride = 6;
    std::size_t outBytes = 12;
    int lengthBits = 0, bps = 0, dataStart = 0;
    long failAllocation = 0;
    bool removeFile = false;
};

struct Loaded {
    int result;
    std::vector<std::uint8_t> out;
};

Loaded loadBytes(const Bytes& file, const Load& how = {}) {
    TempDir dir;
    const std::string p = dir.file("x.psd");
    oltest::writeFile(p, file);
    PsdInfo rec;
    std::memset(&rec, 0, sizeof rec);
    rec.lengthBits = how.lengthBits;
    Loaded l{getPsdInfo(p.c_str(), &rec), std::vector<std::uint8_t>(how.outBytes, 0xEE)};
    rec.bps = how.bps ? how.bps : rec.bps;
    rec.dataStart = how.dataStart ? how.dataStart : rec.dataStart;
    if (how.removeFile) std::remove(p.c_str());
    oltest::FailAllocation fail(how.failAllocation);
    if (l.result > 0) l.result = load_psd(how.order, p.c_str(), &rec, how.rowStride, l.out.data());
    return l;
}

}  // namespace

// Four channels (the alpha plane never read), in both orders, with spare
// samples at each row's end left alone; raw, PackBits and the large form.
TEST(MetareadPsd, CompositeInBothOrdersWithRowSpare) {
    const int w = 5, h = 3, channels = 4, stride = 3 * w + 2;
    const struct {
        int depth;
        bool rle, large;
    } shapes[] = {{8, false, false}, {8, true, false}, {16, false, false}, {16, true, false}, {8, true, true}, {16, false, true}};
    for (const auto& sh : shapes) {
        const Bytes file = buildPsd({.version = sh.large ? 2 : 1, .channels = channels, .width = w, .height = h,
                                     .depth = sh.depth, .layerSection = Bytes(10, 0x5A), .compression = sh.rle ? 1 : 0,
                                     .image = planes(channels, w, h, sh.depth, sh.rle, sh.large)});
        const std::size_t bytesPer = static_cast<std::size_t>(sh.depth / 8);
        for (int order : {1, 0}) {
            SCOPED_TRACE(std::to_string(sh.depth) + (sh.rle ? " rle" : " raw") + (sh.large ? " large" : "") + " order " + std::to_string(order));
            const Loaded l = loadBytes(file, {.order = order, .rowStride = stride, .outBytes = stride * h * bytesPer});
            ASSERT_EQ(l.result, h);
            std::vector<std::uint8_t> want(l.out.size(), 0xEE);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    for (int c = 0; c < 3; ++c) {
                        const std::size_t at = (static_cast<std::size_t>(y) * stride + 3 * x + (order > 0 ? c : 2 - c)) * bytesPer;
                        const std::uint16_t v = sample(c, y, x, sh.depth);
                        want[at] = static_cast<std::uint8_t>(v);
                        if (sh.depth == 16) want[at + 1] = static_cast<std::uint8_t>(v >> 8);
                    }
            EXPECT_EQ(l.out, want);
        }
    }
    // Left at 0, lengthBits follows the version (above); set by the host it
    // decides: read as the 32-bit form, the large length's high word (0) is
    // the length and the planes come out shifted.
    const Bytes large = buildPsd({.version = 2, .image = planes(3, 2, 2, 8)});
    EXPECT_EQ(loadBytes(large, {.lengthBits = 64}).out[0], sample(0, 0, 0, 8));
    const Loaded l = loadBytes(large, {.lengthBits = 32});
    EXPECT_EQ(l.result, 2);
    EXPECT_NE(l.out[0], sample(0, 0, 0, 8));
}

TEST(MetareadPsd, PackBitsRunsCrossRowsAndStopAtThePlane) {
    // 2x2 planes behind a row table that is not checked (data that ends
    // early is a kept crasher).
    const struct {
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
    };
    for (const auto& c : cases) {
        const Loaded l = loadBytes(buildPsd({.compression = 1, .image = cat({Bytes(2 * 2 * 3, 0), c.runs})}));
        ASSERT_EQ(l.result, c.result);
        EXPECT_EQ(l.out, c.out);
    }
}

namespace {

Bytes floatBytes(std::uint32_t u) {
    return {static_cast<std::uint8_t>(u >> 24), static_cast<std::uint8_t>(u >> 16), static_cast<std::uint8_t>(u >> 8),
            static_cast<std::uint8_t>(u)};
}

}  // namespace

TEST(MetareadPsd, FloatsAreReadAtHalfTheirValue) {
    const std::pair<std::uint32_t, float> cases[] = {
        {0x3F800000u, 0.5f}, {0xC0400000u, -1.5f}, {0x00000000u, 0.0f}, {0x3A83126Fu, 5e-4f},  // 1, -3, 0, 1e-3
        // No special exponents: a NaN or infinity pattern is a large number,
        // a subnormal pattern is read with the implicit one, and negative
        // zero is not zero.
        {0x7F800000u, 0x1p127f}, {0x7FFFFFFFu, 3.4028234663852886e38f},
        {0x00000001u, static_cast<float>(std::ldexp(1.0 + std::ldexp(1.0, -23), -128))}, {0x80000000u, -0x1p-128f}};
    for (const auto& [bits, value] : cases) EXPECT_EQ(ol::psdFloat(floatBytes(bits).data()), value) << std::hex << bits;
}

TEST(MetareadPsd, ThirtyTwoBitCompositeToRgbePlanes) {
    const int w = 3, h = 2;
    PsdSpec s{.width = w, .height = h, .depth = 32};
    // Pixels (red, green, blue) row by row, read at half their value.
    const float px[6][3] = {{1.0f, 0.5f, 0.25f}, {0, 0, 0}, {4, 2, 1}, {1e-40f, 1e-40f, 1e-40f}, {2, 1, 0.5f}, {0.25f, 0.25f, 0.25f}};
    for (int c = 0; c < 3; ++c)
        for (const auto& p : px) {
            std::uint32_t u;
            std::memcpy(&u, &p[c], 4);
            s.image = cat({s.image, floatBytes(u)});
        }
    const Loaded l = loadBytes(buildPsd(s), {.order = 0, .rowStride = 999, .outBytes = 4 * w * h});
    ASSERT_EQ(l.result, h);
    // 0.5 is mantissa 128 at exponent 128; zero and subnormal pixels are four
    // zero bytes; order and stride have no effect. Rows of red, green, blue
    // and exponent planes.
    EXPECT_EQ(l.out, (Bytes{128, 0, 128, 64, 0, 64, 32, 0, 32, 128, 0, 130,
                            0, 128, 128, 0, 64, 128, 0, 32, 128, 0, 129, 126}));

    // Compressed 32-bit data is refused.
    s.compression = 1;
    oltest::CaptureFd err(2);
    EXPECT_EQ(loadBytes(buildPsd(s), {.order = 0, .rowStride = 0, .outBytes = 4 * w * h}).result, -2);
    EXPECT_EQ(err.finish(), "load_psd rle 1 not supported for 32-bit PSD\n");  // a short file: a kept crasher
}

TEST(MetareadPsd, InfoAndResources) {
    const Bytes r1 = resource8bim(1005, {0x01, 0x2C, 0x80, 0x00, 0, 1, 0, 1, 0x00, 0x96, 0x40, 0x00, 0, 1, 0, 1});
    const Bytes r2 = resource8bim(1039, Bytes{'p', 'r', 'o', 'f', 'i', 'l', 'e'});
    const Bytes res = cat({r1, r2, resource8bim(1058, Bytes(9, 3))});
    PsdSpec s{.width = 7, .height = 9, .colorData = Bytes(6, 1), .resources = res, .image = planes(3, 7, 9, 8)};
    TempDir dir;
    const std::string p = dir.file("i.psd");
    oltest::writeFile(p, buildPsd(s));
    PsdInfo info{};
    const int start = 26 + 4 + 6 + 4 + static_cast<int>(res.size());
    EXPECT_EQ(getPsdInfo(p.c_str(), &info), start);
    EXPECT_EQ((std::vector<int>{info.dataStart, info.width, info.height, info.bps, info.channels, info.resH, info.resV, info.lProfil, info.exifStart}),
              (std::vector<int>{start, 7, 9, 8, 3, 300, 150, 7, 40 + static_cast<int>(r1.size() + r2.size()) + 12}));
    unsigned char prof[16] = {};
    EXPECT_EQ(psd_profile(p.c_str(), prof), 7);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(prof), 7), "profile");

    // No resources: fields the file lacks keep their old contents, and
    // lengthBits is never written.
    s.resources.clear();
    oltest::writeFile(p, buildPsd(s));
    std::memset(&info, 0x11, sizeof info);
    EXPECT_EQ(getPsdInfo(p.c_str(), &info), 40);
    EXPECT_EQ((std::vector<int>{info.resH, info.lProfil, info.lengthBits}), std::vector<int>(3, 0x11111111));
    // Without a profile resource psd_profile gives the walk's last word as a
    // little-endian number: here the section length field, 0, then a size.
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
    const auto psd = [](int channels, int mode) { return buildPsd({.channels = channels, .mode = mode}); };
    const std::pair<Bytes, int> refused[] = {{{'8', 'B'}, -1}, {{'8', 'B', 'P', 'X', 0, 0}, -2}, {psd(2, 3), -3},
                                             {psd(1, 3), -3},  {psd(4, 4), -3},                 {psd(3, 9), -3}};
    for (const auto& [file, code] : refused) {
        oltest::writeFile(p, file);
        EXPECT_EQ(getPsdInfo(p.c_str(), &info), code);
        EXPECT_EQ(psd_profile(p.c_str(), prof), code);
    }
    EXPECT_EQ(getPsdInfo(dir.file("none").c_str(), &info), -1);
    // load_psd refuses other depths, a failed seek, a missing file and planes
    // cut short, and gives -4 when the plane or the RLE data finds no memory.
    const Bytes good = buildPsd({.image = planes(3, 2, 2, 8)}), cut(good.begin(), good.end() - 1);
    const Bytes rle = buildPsd({.compression = 1, .image = planes(3, 2, 2, 8, true)});
    EXPECT_EQ(loadBytes(good, {.bps = 1}).result, -1);
    EXPECT_EQ(loadBytes(good, {.removeFile = true}).result, -1);
    EXPECT_EQ(loadBytes(cut).result, -1);
    for (long n : {1L, 2L}) EXPECT_EQ(loadBytes(rle, {.failAllocation = n}).result, -4) << n;
    oltest::CaptureFd err(2);
    EXPECT_EQ(loadBytes(good, {.dataStart = -5}).result, -1);
    EXPECT_EQ(err.finish(), "load_psd fseek -5 failed \n");
}

// The kept 4 x 4 24-bit header and variants of it (the damaged ones are in
// tests/crashers).
TEST(MetareadBmp, Dimensions) {
    TempDir dir;
    const std::string p = dir.file("a.bmp");
    const Bytes bmp = oltest::fixture("seeds/bmp24.bmp");
    const struct {
        Bytes file;
        int result;
        std::vector<int> dims;
    } rows[] = {
        {bmp, 8, {4, 4, 3}},
        {patched(bmp, 22, {0x20, 0xFE, 0xFF, 0xFF}), 8, {4, -480, 3}},  // signed height, as stored
        {patched(bmp, 28, {8}), 8, {4, 4, 1}},
        {patched(bmp, 28, {32}), -3, {}},
        {{'B', 'X', 0, 0}, -2, {}},
        {{'B'}, -1, {}},
    };
    for (const auto& r : rows) {
        oltest::writeFile(p, r.file);
        std::vector<int> dims(3, 0);
        EXPECT_EQ(olbmp_dim(p.c_str(), dims.data()), r.result);
        if (r.result > 0) {
            EXPECT_EQ(dims, r.dims);
        }
    }
    int dims[3];
    EXPECT_EQ(olbmp_dim(dir.file("none").c_str(), dims), -1);
}

namespace {

// A minimal profile with a text description tag of the given text at 132.
Bytes profileWithDesc(const std::string& text, int countByte = -1) {
    Bytes p(132, 0);
    const Bytes head = {'d', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0,
                        static_cast<std::uint8_t>(countByte >= 0 ? countByte : static_cast<int>(text.size() + 1))};
    p = cat({p, head, Bytes(text.begin(), text.end()), Bytes(60, 0)});
    ol::putU32BE(p.data(), static_cast<std::uint32_t>(p.size()));
    return p;
}

}  // namespace

TEST(MetareadIcc, NamingRule) {
    const Bytes desc = {'d', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0};
    const struct {
        const char* what;
        Bytes profile;
        int result;
        std::string name;
    } rows[] = {
        {"a known name at the start", profileWithDesc("Adobe RGB (1998)"), 9, "Adobe RGB"},
        {"a known name after other words", profileWithDesc("Compatible with sRGB"), 4, "sRGB"},
        {"the third name", profileWithDesc("ProPhoto RGB"), 12, "ProPhoto RGB"},
        {"the first position wins over the order of names", profileWithDesc("xAdobe RGB sRGB"), 9, "Adobe RGB"},
        {"unknown: 32 bytes of the text, past its end", profileWithDesc("Mine"), 32, "Mine"},
        {"a count of 0 searches nothing", profileWithDesc("sRGB", 0), 32, "sRGB"},
        {"the text may be shorter than the name it starts", profileWithDesc("sRG", 2), 32, "sRG"},
        {"only the first description counts", patched(profileWithDesc("Display"), 180, cat({desc, {5, 's', 'R', 'G', 'B', 0}})), 32, "Display"},
        {"a near miss (one of the seven zeros set)", patched(profileWithDesc("sRGB"), 140, {1}), -1, ""},
        {"48 bytes are too few", Bytes(48, 0), -1, ""},
        {"no description", Bytes(400, 0), -1, ""},
        {"a tag table entry is not a match", patched(Bytes(400, 0), 132, {'d', 'e', 's', 'c', 0, 0, 0, 200, 0, 0, 0, 40}), -1, ""},
        {"a description off the profile's end copies what there is", patched(Bytes(100, 0), 80, cat({desc, {5, 'a', 'b'}})), 32, "ab"},
    };
    for (const auto& r : rows) {
        char name[32];
        std::memset(name, 0x7A, sizeof name);
        EXPECT_EQ(get_profile_name(static_cast<int>(r.profile.size()), r.profile.data(), name), r.result) << r.what;
        EXPECT_EQ(std::string(name, 32), r.name + std::string(32 - r.name.size(), '\0')) << r.what;
    }
}

TEST(MetareadIcc, ExtractProfile) {
    TempDir dir;
    const std::string p = dir.file("p.icc");
    const Bytes prof = oltest::fixture("seeds/icc_desc.icc");
    oltest::writeFile(p, prof);
    Bytes buf(prof.size() + 8, 0);
    EXPECT_EQ(extract_profile(p.c_str(), buf.data()), static_cast<int>(prof.size()));
    EXPECT_TRUE(std::equal(prof.begin(), prof.end(), buf.begin()));
    EXPECT_EQ(extract_profile(nullptr, buf.data()), -1);
    EXPECT_EQ(extract_profile(dir.file("none").c_str(), buf.data()), -2);
    // A size past the end (-5) is a kept crasher.
    const std::pair<Bytes, int> refused[] = {{{0, 0, 1}, -3}, {{0, 0, 0, 0, 1, 2}, -4}, {{0x80, 0, 0, 0, 1, 2}, -4}};
    for (const auto& [file, code] : refused) {
        oltest::writeFile(p, file);
        EXPECT_EQ(extract_profile(p.c_str(), buf.data()), code);
    }
}
