// The picture-changing commands of olhdr (preview, histogram) and the crop
// and rotation of merge and fuse, run as a user runs them on a generated
// bracket: what they write, checked against a plain reading of what the
// outputs should hold (decoded by libpng and the library's Radiance reader).
// What the other single-image commands print, and their errors, are rows of
// cli_commands_test.cpp.
#include <png.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <numeric>
#include <sstream>

#include "support/json.hpp"
#include "support/testsupport.hpp"

namespace fs = std::filesystem;

namespace {

std::string q(const std::string& s) { return oltest::shellQuote(s); }
oltest::HostRun run(const std::string& args) { return oltest::runOlhdr(args); }

// Pixels interleaved, red first: three samples a pixel from a PNG, four
// (mantissas and exponent) from a Radiance picture.
struct Rgb {
    int w = 0, h = 0, n = 3;
    std::vector<std::uint8_t> px;
    const std::uint8_t* at(int x, int y) const { return &px[(std::size_t(y) * w + x) * n]; }
};

Rgb readPng(const std::string& path) {
    png_image img{};
    img.version = PNG_IMAGE_VERSION;
    Rgb r;
    if (!png_image_begin_read_from_file(&img, path.c_str())) return r;
    img.format = PNG_FORMAT_RGB, r.w = static_cast<int>(img.width), r.h = static_cast<int>(img.height);
    r.px.resize(PNG_IMAGE_SIZE(img));
    png_image_finish_read(&img, nullptr, r.px.data(), 0, nullptr);
    return r;
}

// A Radiance file by the library's reader, its planes interleaved.
Rgb readHdr(const std::string& path) {
    int dims[8] = {};
    float prim[8];
    Rgb r{0, 0, 4, {}};
    if (rgbe_dim(path.c_str(), prim, dims) < 0) return r;
    std::vector<std::uint8_t> planes(static_cast<std::size_t>(dims[0]) * dims[1] * 4);
    decomp2(path.c_str(), dims, planes.data(), nullptr);
    r.w = dims[0];
    r.h = dims[1];
    for (std::size_t i = 0; i < planes.size(); ++i) r.px.push_back(planes[(i / 4 / r.w * 4 + i % 4) * r.w + i / 4 % r.w]);
    return r;
}

// The integers of the JSON array named `key` in the object `text`.
std::vector<long> jsonArray(const std::string& text, const std::string& key) {
    std::string items = oltest::JsonParser(text).firstObject().str(key);
    std::replace(items.begin(), items.end(), '\x1f', ' ');
    std::istringstream in(items);
    return {std::istream_iterator<long>(in), std::istream_iterator<long>()};
}

class CliImageOps : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new oltest::TempDir;
        // Odd sizes throughout; the first frame is also the photo.
        ASSERT_EQ(run("bracket -q --size 97x61 --format png -o " + q(dir_->file("br"))).code, 0);
        for (int k = 1; k <= 3; ++k) frames_ += q(dir_->file("br/frame-" + std::to_string(k) + ".png")) + " ";
        fs::copy_file(dir_->file("br/frame-1.png"), dir_->file("photo.png"));
        for (auto [cmd, out] : {std::pair{"merge -q ", "base.hdr"}, {"fuse -q ", "base.png"}}) {
            const auto r = run(cmd + frames_ + "-o " + q(dir_->file(out)));
            ASSERT_EQ(r.code, 0) << cmd << r.err;
        }
    }
    static void TearDownTestSuite() { delete dir_; }
    static inline oltest::TempDir* dir_ = nullptr;
    static inline std::string frames_;
};

// The sizes the host picks; the pixels are the library's resampling, tested
// there. A picture no larger than the size asked for comes out unchanged.
TEST_F(CliImageOps, PreviewSizes) {
    const struct { const char *in, *out; int maxSize, w, h; } rows[] = {
        {"photo.png", "a.png", 40, 40, 25}, {"photo.png", "b.png", 500, 97, 61}, {"photo.png", "c.jpg", 13, 13, 8},
        {"base.hdr", "d.png", 30, 30, 19},  // halving level 49x31, then resampled
        {"base.hdr", "e.jpg", 49, 49, 31},  // exactly a halving level
        {"base.png", "f.png", 7, 7, 4}};
    for (const auto& row : rows) {
        const auto r = run(std::string("preview ") + q(dir_->file(row.in)) + " -o " + q(dir_->file(row.out)) + " --max-size " + std::to_string(row.maxSize));
        ASSERT_EQ(r.code, 0) << row.out << ": " << r.err;
        EXPECT_NE(r.out.find(std::to_string(row.w) + "x" + std::to_string(row.h) + " preview"), std::string::npos) << r.out;
        if (std::string(row.out).find(".png") == std::string::npos) continue;
        const Rgb out = readPng(dir_->file(row.out));
        EXPECT_EQ(std::pair(out.w, out.h), std::pair(row.w, row.h)) << row.out;
        if (row.maxSize == 500) { EXPECT_EQ(out.px, readPng(dir_->file("photo.png")).px); }
    }
}

// Which count goes under which name; the Radiance bins and their total.
TEST_F(CliImageOps, HistogramCountsMatchAPlainCount) {
    const auto r = run("histogram " + q(dir_->file("photo.png")) + " --json -o " + q(dir_->file("h.png")));
    ASSERT_EQ(r.code, 0) << r.err;
    const Rgb src = readPng(dir_->file("photo.png"));
    std::vector<std::vector<long>> want(4, std::vector<long>(256));  // red, green, blue, luminance
    for (std::size_t i = 0; i < src.px.size(); i += 3)
        ++want[0][src.px[i]], ++want[1][src.px[i + 1]], ++want[2][src.px[i + 2]], ++want[3][(54 * src.px[i] + 183 * src.px[i + 1] + 19 * src.px[i + 2]) >> 8];
    for (int k = 0; k < 4; ++k) EXPECT_EQ(jsonArray(r.out, std::array{"red", "green", "blue", "luminance"}[k]), want[k]) << k;
    EXPECT_EQ(readPng(dir_->file("h.png")).w, 532);
    // Radiance: 512 bins and their total.
    const auto h = run("histogram " + q(dir_->file("base.hdr")) + " --json");
    ASSERT_EQ(h.code, 0) << h.err;
    const std::vector<long> bins = jsonArray(h.out, "bins");
    const long lit = std::accumulate(bins.begin(), bins.end(), 0L);
    EXPECT_EQ(bins.size(), 512u);
    EXPECT_GT(lit, 97 * 61 / 2);
    EXPECT_NE(h.out.find("\"total\": " + std::to_string(lit)), std::string::npos) << h.out;
}

TEST_F(CliImageOps, CropAndRotateOutputs) {
    const struct { bool merge; int cx, cy, cw, ch, rotate; } rows[] = {
        // Radiance rows stay 30 pixels or more: the reader's header line
        // budget grows with the file size, and tiny pictures are not read back.
        {true, 10, 5, 30, 20, 90}, {true, 0, 0, 97, 61, 180}, {true, 57, 31, 40, 30, 270}, {true, 67, 41, 30, 20, 0},
        {false, 3, 7, 41, 23, 270}, {false, 0, 0, 97, 61, 90}, {false, 56, 0, 41, 61, 180}, {false, 96, 60, 1, 1, 90}};
    const Rgb base = readHdr(dir_->file("base.hdr")), fused = readPng(dir_->file("base.png"));
    for (const auto& row : rows) {
        const std::string out = dir_->file(row.merge ? "t.hdr" : "t.png");
        const std::string crop = std::to_string(row.cx) + "," + std::to_string(row.cy) + "," + std::to_string(row.cw) + "," + std::to_string(row.ch);
        const auto r = run(std::string(row.merge ? "merge -q " : "fuse -q ") + frames_ + "-o " + q(out) + " --crop " + crop +
                                        (row.rotate ? " --rotate " + std::to_string(row.rotate) : ""));
        ASSERT_EQ(r.code, 0) << crop << ": " << r.err;
        const int ow = row.rotate % 180 ? row.ch : row.cw, oh = row.rotate % 180 ? row.cw : row.ch;  // a quarter turn swaps the sides
        const Rgb got = row.merge ? readHdr(out) : readPng(out), &src = row.merge ? base : fused;
        ASSERT_EQ(std::pair(got.w, got.h), std::pair(ow, oh)) << crop;
        for (int y = 0; y < oh; ++y)
            for (int x = 0; x < ow; ++x) {  // the crop's pixel turned clockwise to (x, y)
                const int sx = row.cx + (row.rotate == 90 ? y : row.rotate == 180 ? row.cw - 1 - x : row.rotate == 270 ? row.cw - 1 - y : x);
                const int sy = row.cy + (row.rotate == 90 ? row.ch - 1 - x : row.rotate == 180 ? row.ch - 1 - y : row.rotate == 270 ? x : y);
                ASSERT_TRUE(std::equal(got.at(x, y), got.at(x, y) + got.n, src.at(sx, sy))) << crop << " " << x << "," << y;
            }
    }
}

}  // namespace
