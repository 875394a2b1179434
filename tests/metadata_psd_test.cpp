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
    PsdInfo rec{};
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
}

// load_psd as rows: the file, how the host calls it, the rows done, the
// output (when given) and what standard error gets.
TEST(MetareadPsd, LoadsAsRows) {
    const Bytes good = buildPsd({.image = planes(3, 2, 2, 8)}), cut(good.begin(), good.end() - 1);
    const Bytes rle = buildPsd({.compression = 1, .image = planes(3, 2, 2, 8, true)});
    const Bytes large = buildPsd({.version = 2, .image = planes(3, 2, 2, 8)});
    // 2x2 planes behind a row table that is not checked (data that ends
    // early is a kept crasher).
    const auto runs = [](const Bytes& r) {
        return buildPsd({.compression = 1, .image = cat({Bytes(2 * 2 * 3, 0), r})});
    };
    const Bytes float32 = oltest::fixture("psd/float32_3x2.psd"), float32rle = patched(float32, 39, {1});  // compressed
    const struct {
        const char* what;
        Bytes file;
        Load how;
        int result;
        Bytes out = {};
        std::string err = {};
    } rows[] = {
        // Left at 0, lengthBits follows the version (the test above); set by
        // the host it decides.
        {"the large form by lengthBits 64", large, {.lengthBits = 64}, 2,
         {1, 65, 129, 2, 66, 130, 9, 73, 137, 10, 74, 138}},
        {"read as the 32-bit form, the length's high word (0) is the length: planes 4 bytes early", large,
         {.lengthBits = 32}, 2, {0, 1, 65, 0, 2, 66, 0, 9, 73, 0, 10, 74}},
        {"PackBits: a repeat run a plane, a no-op byte (-128) between channels 1 and 2",
         runs({0xFD, 10, 0x80, 0xFD, 20, 0x80, 0x01, 30, 31, 0x01, 32, 33}), {}, 2,
         {10, 20, 30, 10, 20, 31, 10, 20, 32, 10, 20, 33}},
        {"PackBits: a run past the plane's end is written to it and consumed whole, the next channel behind it",
         runs({0xF9, 10, 0x05, 1, 2, 3, 4, 5, 6, 0xFD, 40}), {}, 2, {10, 1, 40, 10, 2, 40, 10, 3, 40, 10, 4, 40}},
        // The floats (1, 0.5, 0.25), 0, (4, 2, 1), 1e-40, (2, 1, 0.5), 0.25,
        // read at half their value, as rows of red, green, blue and exponent
        // planes: 0.5 is mantissa 128 at exponent 128; zero and subnormal
        // pixels are four zero bytes; order and stride have no effect.
        {"32 bits to rgbe planes", float32, {.order = 0, .rowStride = 999, .outBytes = 24}, 2,
         {128, 0, 128, 64, 0, 64, 32, 0, 32, 128, 0, 130, 0, 128, 128, 0, 64, 128, 0, 32, 128, 0, 129, 126}},
        {"32 bits compressed", float32rle, {.outBytes = 24}, -2, {}, "load_psd rle 1 not supported for 32-bit PSD\n"},
        {"other depths", good, {.bps = 1}, -1},
        {"a missing file", good, {.removeFile = true}, -1},
        {"planes cut short", cut, {}, -1},
        {"no memory for the plane", rle, {.failAllocation = 1}, -4},
        {"no memory for the RLE data", rle, {.failAllocation = 2}, -4},
        {"a failed seek", good, {.dataStart = -5}, -1, {}, "load_psd fseek -5 failed \n"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        oltest::CaptureFd err(2);
        const Loaded l = loadBytes(r.file, r.how);
        EXPECT_EQ(err.finish(), r.err);
        EXPECT_EQ(l.result, r.result);
        if (!r.out.empty()) {
            EXPECT_EQ(l.out, r.out);
        }
    }
}

TEST(MetareadPsd, FloatsAreReadAtHalfTheirValue) {
    const std::pair<std::uint32_t, float> cases[] = {
        {0x3F800000u, 0.5f}, {0xC0400000u, -1.5f}, {0x00000000u, 0.0f}, {0x3A83126Fu, 5e-4f},  // 1, -3, 0, 1e-3
        // No special exponents: a NaN or infinity pattern is a large number,
        // a subnormal pattern is read with the implicit one, and negative
        // zero is not zero.
        {0x7F800000u, 0x1p127f}, {0x7FFFFFFFu, 3.4028234663852886e38f},
        {0x00000001u, static_cast<float>(std::ldexp(1.0 + std::ldexp(1.0, -23), -128))}, {0x80000000u, -0x1p-128f}};
    for (const auto& [bits, value] : cases) {
        std::uint8_t b[4];
        ol::putU32BE(b, bits);
        EXPECT_EQ(ol::psdFloat(b), value) << std::hex << bits;
    }
}

// The header and resource walk as rows: getPsdInfo's result and then its
// record, on a record filled with 0x11 bytes first (fields the file lacks keep
// them, and lengthBits is never written), and psd_profile's result.
TEST(MetareadPsd, HeaderAndResourceWalk) {
    const Bytes r1 = resource8bim(1005, {0x01, 0x2C, 0x80, 0x00, 0, 1, 0, 1, 0x00, 0x96, 0x40, 0x00, 0, 1, 0, 1});
    const Bytes r2 = resource8bim(1039, Bytes{'p', 'r', 'o', 'f', 'i', 'l', 'e'});
    const Bytes res = cat({r1, r2, resource8bim(1058, Bytes(9, 3))});
    const auto psd = [](int channels, int mode, const Bytes& resources) {
        return buildPsd({.channels = channels, .width = 7, .height = 9, .mode = mode, .colorData = Bytes(6, 1),
                         .resources = resources});
    };
    const int start = 40 + static_cast<int>(res.size()), exifAt = 40 + static_cast<int>(r1.size() + r2.size()) + 12;
    const int r1At = 40 + static_cast<int>(r1.size()), o = 0x11111111;
    const struct {
        Bytes file;
        // The result, then dataStart, width, height, bps, channels, resH,
        // resV, lProfil, exifStart and lengthBits.
        std::vector<int> info;
        int profile;
    } rows[] = {
        {psd(3, 3, res), {start, start, 7, 9, 8, 3, 300, 150, 7, exifAt, o}, 7},
        // Without a profile resource psd_profile gives the walk's last word as
        // a little-endian number: the section length field, 0, or a size (16,
        // big-endian bytes).
        {psd(3, 3, {}), {40, 40, 7, 9, 8, 3, o, o, o, o, o}, 0},
        {psd(3, 3, r1), {r1At, r1At, 7, 9, 8, 3, 300, 150, o, o, o}, 0x10000000},
        {{'8', 'B'}, {-1}, -1},
        {{'8', 'B', 'P', 'X', 0, 0}, {-2}, -2},
        {psd(2, 3, {}), {-3}, -3},
        {psd(1, 3, {}), {-3}, -3},
        {psd(4, 4, {}), {-3}, -3},  // CMYK
        {psd(3, 9, {}), {-3}, -3},
    };
    TempDir dir;
    const std::string p = dir.file("h.psd");
    for (const auto& r : rows) {
        oltest::writeFile(p, r.file);
        PsdInfo i;
        std::memset(&i, 0x11, sizeof i);
        std::vector<int> got = {getPsdInfo(p.c_str(), &i)};
        if (got[0] > 0)
            got.insert(got.end(), {i.dataStart, i.width, i.height, i.bps, i.channels, i.resH, i.resV, i.lProfil,
                                   i.exifStart, i.lengthBits});
        EXPECT_EQ(got, r.info);
        unsigned char prof[16] = {};
        EXPECT_EQ(psd_profile(p.c_str(), prof), r.profile);
        EXPECT_TRUE(r.profile != 7 || std::string(reinterpret_cast<char*>(prof), 7) == "profile");
    }
    PsdInfo info{};
    EXPECT_EQ(getPsdInfo(dir.file("none").c_str(), &info), -1);
}

// The kept 4 x 4 24-bit header and variants of it (the damaged ones, a bit
// count of 32 among them, are in tests/crashers).
TEST(MetareadBmp, Dimensions) {
    TempDir dir;
    const std::string p = dir.file("a.bmp");
    const Bytes bmp = oltest::fixture("seeds/bmp24.bmp");
    const std::pair<Bytes, std::vector<int>> rows[] = {  // the result, then width, height and samples
        {bmp, {8, 4, 4, 3}},
        {patched(bmp, 22, {0x20, 0xFE, 0xFF, 0xFF}), {8, 4, -480, 3}},  // signed height, as stored
        {patched(bmp, 28, {8}), {8, 4, 4, 1}},
        {{'B', 'X', 0, 0}, {-2}},
        {{'B'}, {-1}},
    };
    for (const auto& [file, want] : rows) {
        oltest::writeFile(p, file);
        std::vector<int> got(4, 0);
        got[0] = olbmp_dim(p.c_str(), &got[1]);
        got.resize(got[0] > 0 ? 4 : 1);
        EXPECT_EQ(got, want);
    }
    int dims[3];
    EXPECT_EQ(olbmp_dim(dir.file("none").c_str(), dims), -1);
}

namespace {

// A minimal profile with a text description tag of the given text at 132.
Bytes profileWithDesc(const std::string& text, int countByte = -1) {
    const auto count = static_cast<std::uint8_t>(countByte >= 0 ? countByte : static_cast<int>(text.size() + 1));
    Bytes p = cat({Bytes(132, 0), {'d', 'e', 's', 'c', 0, 0, 0, 0, 0, 0, 0, count}, Bytes(text.begin(), text.end()),
                   Bytes(60, 0)});
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
    // A size past the end (-5) is a kept crasher.
    const std::pair<Bytes, int> rows[] = {
        {prof, 200}, {{0, 0, 1}, -3}, {{0, 0, 0, 0, 1, 2}, -4}, {{0x80, 0, 0, 0, 1, 2}, -4}};
    Bytes buf(prof.size(), 0);
    for (const auto& [file, code] : rows) {
        oltest::writeFile(p, file);
        EXPECT_EQ(extract_profile(p.c_str(), buf.data()), code);
        EXPECT_TRUE(code < 0 || buf == file);
    }
    EXPECT_EQ(extract_profile(nullptr, buf.data()), -1);
    EXPECT_EQ(extract_profile(dir.file("none").c_str(), buf.data()), -2);
}
