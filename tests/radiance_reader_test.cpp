// Radiance reading: the size query, the two decoders, the preview reader and
// the header values, against crafted files for every failure they report.
#include <cmath>
#include <cstring>

#include "support/radiance.hpp"

using namespace radtest;

namespace {

const std::string kHead = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n";

struct Decoded {
    int rle, stream, preview;
};

// A 64x80 picture coded as literal packets: 264 bytes a row, 21120 in all,
// large enough for the preview reader. Row y starts at rowOffset(y).
struct Crafted {
    static constexpr int kWidth = 64, kHeight = 80;
    Bytes planes = photoPlanes(kWidth, kHeight, 11);
    Bytes file = radianceFile(kHead + resolution(kWidth, kHeight), literalRows(planes, kWidth, kHeight));
    std::size_t rowOffset(int y) const {
        return kHead.size() + resolution(kWidth, kHeight).size() + static_cast<std::size_t>(y) * 264;
    }
};

Decoded decodeAll(const oltest::TempDir& dir, const Bytes& file, int width, int height,
                  Bytes* out = nullptr) {
    const std::string path = dir.file("f.hdr");
    oltest::writeFile(path, file);
    Bytes a(4u * width * height, 0xEE), b(a.size(), 0xEE), p(a.size(), 0xEE);
    Decoded d{decodeRle(path, width, height, a), decodeStream(path, width, height, b),
              ol_io_read_preview_rgbe(width, height, width, height, path.c_str(), p.data())};
    if (out) *out = a;
    return d;
}

void expectCodes(const Decoded& d, int rle, int stream, int preview) {
    EXPECT_EQ(d.rle, rle) << "decomp_rle";
    EXPECT_EQ(d.stream, stream) << "decomp2";
    EXPECT_EQ(d.preview, preview) << "ol_io_read_preview_rgbe";
}

// Exposure, aperture and focal length as fractions, then the ISO.
std::array<int, 7> fractions(const ExifRecord& e) {
    return {e.exposureNum, e.exposureDen, e.apertureNum, e.apertureDen, e.focalNum, e.focalDen, e.iso};
}

// The crafted file written to `dir`, its path returned.
std::string writeCrafted(const oltest::TempDir& dir, const Crafted& c = Crafted()) {
    const std::string path = dir.file("f.hdr");
    oltest::writeFile(path, c.file);
    return path;
}

}  // namespace

TEST(RadianceReader, CraftedFileDecodesEverywhere) {
    oltest::TempDir dir;
    Crafted c;
    Bytes out;
    expectCodes(decodeAll(dir, c.file, c.kWidth, c.kHeight, &out), 80, 80, 81);
    EXPECT_EQ(out, c.planes);
}

TEST(RadianceReader, FailureTable) {
    oltest::TempDir dir;
    const int W = Crafted::kWidth, H = Crafted::kHeight;
    {
        SCOPED_TRACE("size differs from the caller's");
        Crafted c;
        expectCodes(decodeAll(dir, c.file, W, H - 1), -3, -3, -200);
        expectCodes(decodeAll(dir, c.file, W + 1, H), -3, -3, -200);
    }
    struct Case {
        const char* what;
        int row, at, value;  // the byte set; value -1 cuts the file there instead
        int rle, stream, preview;
    };
    const Case cases[] = {
        {"width field of a later row header differs", 1, 3, W - 1, -4, -4, -4},
        // The in-memory decoder does not look at it but the width field is off.
        {"third byte of a later row header is 128 or more", 1, 2, 0x80, -4, -6, -201},
        {"a run would pass the end of the row", 1, 4 + 65, 128 + 65, -5, -5, -202},  // green component
        {"an empty literal", 2, 4, 0, -6, -6, -202},
        {"a literal that would pass the end of the row", 2, 4, 65, -6, -6, -202},
        {"end of file inside a row", H - 1, 100, -1, -2, -1, -1},
        {"end of file at a row header", H - 1, 2, -1, -2, -2, -1},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        Crafted c;
        if (k.value < 0)
            c.file.resize(c.rowOffset(k.row) + k.at);
        else
            c.file[c.rowOffset(k.row) + k.at] = static_cast<std::uint8_t>(k.value);
        expectCodes(decodeAll(dir, c.file, W, H), k.rle, k.stream, k.preview);
    }
    {
        SCOPED_TRACE("first two bytes of later rows are not checked");
        Crafted c;
        c.file[c.rowOffset(1)] = c.file[c.rowOffset(1) + 1] = 9;
        expectCodes(decodeAll(dir, c.file, W, H), H, H, H + 1);
    }
    {
        SCOPED_TRACE("a file that does not open");
        Bytes out(4u * W * H);
        const std::string path = dir.file("absent.hdr");
        EXPECT_EQ(decodeRle(path, W, H, out, 30000), -1);
        EXPECT_EQ(decodeStream(path, W, H, out, 30000), -1);
        EXPECT_EQ(ol_io_read_preview_rgbe(W, H, 8, 8, path.c_str(), out.data()), -1);
        float prim[8];
        int dims[7] = {};
        EXPECT_EQ(rgbe_dim(path.c_str(), prim, dims), -1);
        ExifRecord e;
        EXPECT_EQ(extract_rgbe_exif(path.c_str(), &e), -1);
    }
}

// A file larger than the in-memory decoder's 512 KiB read window: faults in
// the last rows, reached after the window has slid, give the codes they give
// early in a file, and the intact file decodes whole. 600 pixels a row in five
// literals a component: 2424 bytes a row, 727200 in all.
TEST(RadianceReader, FaultsPastTheFirstWindow) {
    oltest::TempDir dir;
    const int W = 600, H = 300;
    const Bytes planes = photoPlanes(W, H, 5);
    const Bytes intact = radianceFile(kHead + resolution(W, H), literalRows(planes, W, H));
    const std::size_t row = kHead.size() + resolution(W, H).size() + std::size_t(H - 1) * 2424;
    const std::string path = dir.file("big.hdr");
    struct Case { std::size_t at; int value, rle, stream; };  // value -1 cuts the file there
    const Case cases[] = {{0, -2, H, H},                       // untouched
                          {row - 2424 + 3, 7, -4, -4},        // a row header of another width
                          {row + 4 + 4 * 128, 255, -5, -5},   // a run past the end of the row
                          {row + 4, 0, -6, -6},               // an empty literal
                          {row + 1000, -1, -2, -1}};          // end of file inside the last row
    for (const Case& k : cases) {
        SCOPED_TRACE(k.at);
        Bytes f = intact;
        if (k.value == -1) f.resize(k.at);
        else if (k.value >= 0) f[k.at] = static_cast<std::uint8_t>(k.value);
        oltest::writeFile(path, f);
        Bytes a(planes.size(), 0xEE), b(planes.size(), 0xEE);
        EXPECT_EQ(decodeRle(path, W, H, a), k.rle);
        EXPECT_EQ(decodeStream(path, W, H, b), k.stream);
        if (k.rle == H) EXPECT_TRUE(a == planes && b == planes);
    }
}

TEST(RadianceReader, ShortReadsAndMissingLines) {
    oltest::TempDir dir;
    Crafted c;
    const std::string path = writeCrafted(dir, c);
    Bytes out(c.planes.size());
    // The caller's file size claims more than the file holds: the in-memory
    // read falls short; the streaming decoder runs out of header lines.
    EXPECT_EQ(decodeRle(path, Crafted::kWidth, Crafted::kHeight, out, static_cast<int>(c.file.size()) + 1), -2);
    const std::string noRes = dir.file("nores.hdr");
    oltest::writeText(noRes, "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n");
    EXPECT_EQ(decodeStream(noRes, 4, 4, out, 100000), -2);
    // Within its budget but no resolution line: a mismatch.
    EXPECT_EQ(decodeStream(noRes, 4, 4, out, 300), -3);
    EXPECT_EQ(decodeRle(noRes, 4, 4, out, 300), -2);
    EXPECT_EQ(decodeRle(noRes, 4, 4, out, 35), -3);

    // The resolution line with fewer than 4 bytes behind it.
    const std::string cut = dir.file("cut.hdr");
    oltest::writeText(cut, kHead + "-Y 1 +X 1\n\x02\x02");
    EXPECT_EQ(decodeStream(cut, 1, 1, out, 1000), -2);
    EXPECT_EQ(decodeRle(cut, 1, 1, out, static_cast<int>(kHead.size()) + 12), -2);
}

TEST(RadianceReader, FailedAllocationsGiveMinusFour) {
    oltest::TempDir dir;
    const std::string path = writeCrafted(dir);
    Bytes out(4u * 64 * 80);
    const auto failingAt = [](long n, auto call) {
        oltest::FailAllocation f(n);
        return call();
    };
    const auto expectFailures = [&](std::initializer_list<long> nths, bool rle) {
        for (long n : nths) {
            SCOPED_TRACE(n);
            if (rle) {
                EXPECT_EQ(failingAt(n, [&] { return decodeRle(path, 64, 80, out); }), -4);
            }
            EXPECT_EQ(failingAt(n, [&] { return decodeStream(path, 64, 80, out); }), -4);
            EXPECT_EQ(failingAt(n, [&] { return ol_io_read_preview_rgbe(64, 80, 16, 16, path.c_str(), out.data()); }),
                      -4);
        }
    };
    expectFailures({1}, true);
    // Flat form: the row buffer is the second allocation.
    Bytes flat;
    for (int i = 0; i < 64 * 80; ++i) flat.insert(flat.end(), {100, 110, 120, 130});
    oltest::writeFile(path, radianceFile(kHead + resolution(64, 80), flat));
    expectFailures({1, 2}, false);
    EXPECT_EQ(decodeStream(path, 64, 80, out), 80);
    EXPECT_EQ(out[0], 100);
    EXPECT_EQ(out[64 * 3], 130);
}

TEST(RadianceReader, FormIsDecidedByTheFirstRowAlone) {
    oltest::TempDir dir;
    const int W = 40, H = 20;  // large enough for the line budget
    // Flat pixels whose first pixel starts 2, 2: taken for a run-length row.
    Bytes data;
    for (int i = 0; i < W * H; ++i) data.insert(data.end(), {2, 2, 5, 9});
    const std::string path = dir.file("f.hdr");
    oltest::writeFile(path, radianceFile(kHead + resolution(W, H), data));
    Bytes out(4u * W * H);
    EXPECT_EQ(decodeRle(path, W, H, out), -4);  // width field 5*256+9
    EXPECT_EQ(decodeStream(path, W, H, out), -4);
    // A third byte of 128 or more keeps the flat form.
    data[2] = 200;
    oltest::writeFile(path, radianceFile(kHead + resolution(W, H), data));
    EXPECT_EQ(decodeRle(path, W, H, out), H);
    EXPECT_EQ(decodeStream(path, W, H, out), H);
    EXPECT_EQ(out[2 * W], 200);
    EXPECT_EQ(out[2 * W + 1], 5);
}

TEST(RadianceReader, BlankLineAfterTheResolutionLine) {
    oltest::TempDir dir;
    const int W = 20, H = 60;
    Bytes data = {'\n'};
    for (int y = 0; y < H; ++y) {
        data.insert(data.end(), {2, 2, 0, W});
        for (int c = 0; c < 4; ++c) data.insert(data.end(), {128 + W, 130});
    }
    const std::string path = dir.file("f.hdr");
    oltest::writeFile(path, radianceFile(kHead + resolution(W, H), data));
    Bytes out(4u * W * H);
    // The in-memory decoder passes over one blank line; the streaming one
    // takes the data right after the resolution line, here as flat pixels.
    EXPECT_EQ(decodeRle(path, W, H, out), H);
    EXPECT_EQ(out, Bytes(4u * W * H, 130));
    EXPECT_EQ(decodeStream(path, W, H, out), -2);
}

TEST(RadianceReader, SizeQueryAndItsLineBudget) {
    oltest::TempDir dir;
    const std::string path = dir.file("f.hdr");
    float prim[8];
    int dims[7] = {};
    const auto dimOf = [&](const std::string& text) {
        oltest::writeText(path, text);
        return rgbe_dim(path.c_str(), prim, dims);
    };
    // Under 128 bytes there is no line to read.
    EXPECT_EQ(dimOf("#?RADIANCE\n\n-Y 1 +X 1\n\x80\x80\x80\x80"), -3);
    // 128 bytes give one line.
    EXPECT_EQ(dimOf("-Y 2 +X 3\n" + std::string(128 - 10, 'x')), 0);
    EXPECT_EQ(dims[0], 3);
    EXPECT_EQ(dims[1], 2);
    EXPECT_EQ(dims[2], 128);
    // Zero numbers are no resolution line.
    EXPECT_EQ(dimOf("-Y 0 +X 3\n" + std::string(200, 'x')), -3);

    // At most 100 lines however large the file; a long line counts as
    // several reads of 127 bytes.
    auto withLines = [&](int lines) {
        std::string s;
        for (int i = 0; i < lines; ++i) s += "# comment\n";
        return s + "-Y 5 +X 7\n" + std::string(13000, 'z');
    };
    EXPECT_EQ(dimOf(withLines(99)), 99);
    EXPECT_EQ(dimOf(withLines(100)), -3);
    EXPECT_EQ(dimOf(std::string(127 * 3, 'L') + "\n-Y 5 +X 7\n" + std::string(13000, 'z')), 4);

    // Primaries are returned when the line has all eight numbers.
    const std::string rest = "\n-Y 5 +X 7\n" + std::string(400, 'z');
    dims[6] = 0;
    EXPECT_EQ(dimOf("#?RADIANCE\nPRIMARIES= 0.64 0.33 0.3 0.6 0.15 0.06 0.3127 0.329" + rest), 2);
    EXPECT_EQ(dims[6], 32);
    EXPECT_FLOAT_EQ(prim[0], 0.64f);
    EXPECT_FLOAT_EQ(prim[7], 0.329f);
    dims[6] = 5;
    std::fill(prim, prim + 8, 9.0f);
    EXPECT_EQ(dimOf("#?RADIANCE\nPRIMARIES= 0.64 0.33 0.3 0.6 0.15 0.06 0.3127" + rest), 2);
    EXPECT_EQ(dims[6], 5) << "left as the caller put it";
    EXPECT_EQ(prim[0], 0.0f);
}

TEST(RadiancePreview, DecimatesByNearestNeighbour) {
    oltest::TempDir dir;
    Crafted c;
    const std::string path = writeCrafted(dir, c);
    const int W = Crafted::kWidth, H = Crafted::kHeight;
    for (auto [pw, ph] : {std::pair{W, H}, {32, 40}, {20, 30}, {7, 3}, {1, 1}}) {
        SCOPED_TRACE(std::to_string(pw) + "x" + std::to_string(ph));
        Bytes out(4u * pw * ph, 0xEE);
        EXPECT_EQ(ol_io_read_preview_rgbe(W, H, pw, ph, path.c_str(), out.data()), H + 1);
        const float xr = static_cast<float>(W) / static_cast<float>(pw);
        const float yr = static_cast<float>(H) / static_cast<float>(ph);
        for (int j = 0; j < ph; ++j)
            for (int c4 = 0; c4 < 4; ++c4)
                for (int i = 0; i < pw; ++i) {
                    const int sy = static_cast<int>(static_cast<float>(j) * yr);
                    const int sx = static_cast<int>(static_cast<float>(i) * xr);
                    ASSERT_EQ(out[(static_cast<std::size_t>(j) * 4 + c4) * pw + i],
                              c.planes[(static_cast<std::size_t>(sy) * 4 + c4) * W + sx]);
                }
    }
}

TEST(RadiancePreview, TallerPreviewRunsOutOfRows) {
    oltest::TempDir dir;
    Crafted c;
    const std::string path = writeCrafted(dir, c);
    const int W = Crafted::kWidth, H = Crafted::kHeight;
    // Twice as tall: output rows 0 and 1 both want source row 0, which is
    // decoded once, so only output row 0 is stored and the file runs out.
    Bytes out(4u * W * 2 * H, 0xEE);
    EXPECT_EQ(ol_io_read_preview_rgbe(W, H, W, 2 * H, path.c_str(), out.data()), H);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 4 * W), Bytes(c.planes.begin(), c.planes.begin() + 4 * W));
    EXPECT_EQ(out[4 * W], 0xEE);
    // A preview of no size stores nothing and reads the whole file.
    Bytes none(16, 0xEE);
    EXPECT_EQ(ol_io_read_preview_rgbe(W, H, 0, 0, path.c_str(), none.data()), H);
    EXPECT_EQ(none, Bytes(16, 0xEE));
}

TEST(RadiancePreview, FlatFormAndTheBudget) {
    oltest::TempDir dir;
    const int W = 64, H = 80;
    Bytes planes = photoPlanes(W, H, 12);
    Bytes data;
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x)
            for (int k = 0; k < 4; ++k) data.push_back(planes[(static_cast<std::size_t>(y) * 4 + k) * W + x]);
    const std::string path = dir.file("flat.hdr");
    Bytes out(4u * 10 * 10, 0xEE);
    const auto preview = [&](const Bytes& file, int w, int h, int pw, int ph) {
        oltest::writeFile(path, file);
        return ol_io_read_preview_rgbe(w, h, pw, ph, path.c_str(), out.data());
    };
    EXPECT_EQ(preview(radianceFile(kHead + resolution(W, H), data), W, H, 10, 10), H + 1);
    EXPECT_EQ(out[(3 * 4 + 2) * 10 + 7], planes[(static_cast<std::size_t>(24) * 4 + 2) * W + 44]);

    // A file below 16640 bytes has no preview; at 16640 the budget is 2.
    Bytes small = radianceFile("#?RADIANCE\n" + resolution(4, 4), Bytes(16640 - 11 - 10, 7));
    ASSERT_EQ(small.size(), 16640u);
    EXPECT_EQ(preview(small, 4, 4, 2, 2), 5);
    small.pop_back();
    EXPECT_EQ(preview(small, 4, 4, 2, 2), -1);
    // The resolution line on the third line is beyond a budget of 2.
    EXPECT_EQ(preview(radianceFile("#?RADIANCE\n\n" + resolution(4, 4), Bytes(16640, 7)), 4, 4, 2, 2), -200);

    // A picture of no width in flat form has no column to take: the rows are
    // counted and the output is left alone.
    out.assign(out.size(), 0xEE);
    EXPECT_EQ(preview(radianceFile("#?RADIANCE\n" + resolution(0, 2), Bytes(16640, 7)), 0, 2, 4, 2), 3);
    EXPECT_EQ(out, Bytes(4u * 10 * 10, 0xEE));
}

TEST(RadianceHeader, ExtractsValuesAsFractions) {
    oltest::TempDir dir;
    const std::string path = dir.file("f.hdr");
    ExifRecord e = emptyExif();
    const auto extract = [&](const std::string& text) {
        oltest::writeText(path, text);
        return extract_rgbe_exif(path.c_str(), &e);
    };
    e.focal35 = 11;
    EXPECT_EQ(extract("#?RADIANCE\nCAMERA=" + std::string(70, 'K') + "\nCAPDATE=2019:12:31 23:59:59\n"
                      "ICC_PROFILE=Adobe RGB (1998)\nSHUTTER=0.004000\nAPERTURE=2.80\nISO=400\n"
                      "FOCAL_LENGTH=18.50\n35MM_EQUIV=28\nFOCAL_PLANE_XRESOLUTION=1.00\n"
                      "FORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 1\n\x80\x80\x80\x80"),
              12);
    EXPECT_EQ(std::string(e.camera, 64), std::string(64, 'K'));
    EXPECT_EQ(std::string(e.date), "2019:12:31 23:59:59");
    EXPECT_EQ(e.colorSpace, 1);
    // 100/0.004f is 24999.998 in float arithmetic.
    EXPECT_EQ(fractions(e), (std::array<int, 7>{100, 24999, 280, 100, 1850, 100, 400}));
    EXPECT_EQ(e.focal35, 11) << "not read back";
    EXPECT_EQ(e.planeResNum, 0);

    // Values of 0 or below are dropped; an empty camera is not stored; the
    // colour space is matched by the start of the name only.
    e = emptyExif();
    std::strcpy(e.camera, "kept");
    e.exposureNum = 3;
    EXPECT_EQ(extract("#?RADIANCE\nCAMERA=\nSHUTTER=0\nAPERTURE=-2\nFOCAL_LENGTH=1\n"
                      "ICC_PROFILE=ProPhoto RGB v4\n-Y 1 +X 1\n"),
              6);
    EXPECT_STREQ(e.camera, "kept");
    EXPECT_EQ(fractions(e), (std::array<int, 7>{3, 0, 0, 0, 100, 100, 0}));
    EXPECT_EQ(e.colorSpace, 2);
    for (auto [name, cs] : {std::pair{"sRGB IEC61966-2.1", 0}, {"Display P3", -1}, {"adobe rgb", -1}}) {
        e.colorSpace = 7;
        EXPECT_EQ(extract(std::string("ICC_PROFILE=") + name + "\n-Y 1 +X 1\n"), 1);
        EXPECT_EQ(e.colorSpace, cs) << name;
    }

    // No resolution line in the first 100 lines: 100. A file that ends
    // before: -1.
    std::string many;
    for (int i = 0; i < 120; ++i) many += "#\n";
    EXPECT_EQ(extract(many), 100);
    EXPECT_EQ(extract("#?RADIANCE\nISO=5\n"), -1);
    EXPECT_EQ(e.iso, 5);
}

TEST(RadianceHeader, WrittenValuesReadBack) {
    oltest::TempDir dir;
    ExifRecord in = shotExif(1, 60, 56, 10, 1600, 35, 1);
    std::memset(in.camera, 'M', 64);
    std::memcpy(in.date, "2022:02:02 02:02:02\n", 20);
    const Bytes px = photoPlanes(4, 4, 3);
    const std::string path = dir.file("f.hdr");
    ASSERT_EQ(ol_io_rgbe_write(path.c_str(), 4, 4, &in, nullptr, "ProPhoto RGB", px.data()), 4);
    ExifRecord out = emptyExif();
    EXPECT_EQ(extract_rgbe_exif(path.c_str(), &out), 11);
    EXPECT_EQ(std::string(out.camera, 64), std::string(64, 'M'));
    EXPECT_EQ(std::string(out.date), "2022:02:02 02:02:02");
    EXPECT_EQ(out.colorSpace, 2);
    // 1/60 is written as 0.016667 and comes back as 100/6000 (5999 in float).
    EXPECT_EQ(fractions(out), (std::array<int, 7>{100, 5999, 560, 100, 3500, 100, 1600}));
}

TEST(RadianceReader, WriterOutputRoundTripsAtManyWidths) {
    oltest::TempDir dir;
    const ExifRecord e = emptyExif();
    for (int width : {1, 2, 3, 5, 127, 128, 129, 255, 256, 257, 1000}) {
        const int height = 7 + 800 / width;  // files long enough for the line budget
        Bytes px = photoPlanes(width, height, static_cast<std::uint32_t>(width));
        // Long runs and short ones side by side.
        for (int x = 0; x < width / 3; ++x) px[static_cast<std::size_t>(width) * 4 + x] = 9;
        const std::string path = dir.file("w.hdr");
        ASSERT_EQ(ol_io_rgbe_write(path.c_str(), width, height, &e, nullptr, "", px.data()), height);
        Bytes a(px.size()), b(px.size());
        EXPECT_EQ(decodeRle(path, width, height, a), height) << width;
        EXPECT_EQ(decodeStream(path, width, height, b), height) << width;
        EXPECT_EQ(a, px) << width;
        EXPECT_EQ(b, px) << width;
    }
}
