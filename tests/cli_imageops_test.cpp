// olhdr preview, histogram and the --crop/--rotate of merge and fuse, run as
// a user runs them; outputs decoded here (libpng, the library's Radiance
// reader) and checked against a plain reading of what each should hold.
#include <png.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "Ombrelumen40Lib1.h"
#include "support/testsupport.hpp"

namespace fs = std::filesystem;
using oltest::TempDir;

namespace {

const std::string kProgram = std::string(OL_TOOLS_DIR) + "/olhdr";

using Result = oltest::HostRun;
std::string q(const std::string& s) { return oltest::shellQuote(s); }
Result run(const TempDir&, const std::string& args) { return oltest::runOlhdr(args); }

struct Rgb {
    int w = 0, h = 0;
    std::vector<std::uint8_t> px;  // red first
    const std::uint8_t* at(int x, int y) const { return &px[(static_cast<std::size_t>(y) * w + x) * 3]; }
};

Rgb readPng(const std::string& path) {
    png_image img{};
    img.version = PNG_IMAGE_VERSION;
    Rgb r;
    if (!png_image_begin_read_from_file(&img, path.c_str())) return r;
    img.format = PNG_FORMAT_RGB;
    r.w = static_cast<int>(img.width);
    r.h = static_cast<int>(img.height);
    r.px.resize(PNG_IMAGE_SIZE(img));
    png_image_finish_read(&img, nullptr, r.px.data(), 0, nullptr);
    return r;
}

// Rgbe planes of a Radiance file, by the library's reader.
std::vector<std::uint8_t> readHdr(const std::string& path, int& w, int& h) {
    int dims[8] = {};
    float prim[8];
    if (rgbe_dim(path.c_str(), prim, dims) < 0) return {};
    w = dims[0];
    h = dims[1];
    std::vector<std::uint8_t> planes(static_cast<std::size_t>(w) * h * 4);
    decomp2(path.c_str(), dims, planes.data(), nullptr);
    return planes;
}

// The integers of a JSON array named `key` in `text`.
std::vector<long> jsonArray(const std::string& text, const std::string& key) {
    std::vector<long> v;
    const std::size_t at = text.find("\"" + key + "\": [");
    if (at == std::string::npos) return v;
    std::size_t p = text.find('[', at) + 1;
    while (p < text.size() && text[p] != ']') {
        std::size_t used = 0;
        v.push_back(std::stol(text.substr(p), &used));
        p += used;
        if (text[p] == ',') ++p;
    }
    return v;
}

class CliImageOps : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new TempDir;
        // Odd sizes throughout; the first frame is also the photo.
        const Result b = run(*dir_, "bracket -q --size 97x61 --format png -o " + q(dir_->file("br")));
        ASSERT_EQ(b.code, 0) << b.err;
        std::vector<std::string> files;
        for (const auto& e : fs::directory_iterator(dir_->file("br"))) files.push_back(e.path().string());
        std::sort(files.begin(), files.end());
        for (const auto& f : files) frames_ += q(f) + " ";
        fs::copy_file(files[0], dir_->file("photo.png"));
        const Result m = run(*dir_, "merge -q " + frames_ + "-o " + q(dir_->file("base.hdr")));
        ASSERT_EQ(m.code, 0) << m.err;
        const Result f = run(*dir_, "fuse -q " + frames_ + "-o " + q(dir_->file("base.png")));
        ASSERT_EQ(f.code, 0) << f.err;
        ASSERT_EQ(run(*dir_, "merge -q " + frames_ + "--crop 0,0,8,8 -o " + q(dir_->file("tiny.hdr"))).code, 0);
    }
    static void TearDownTestSuite() { delete dir_; }
    static TempDir* dir_;
    static std::string frames_;
};
TempDir* CliImageOps::dir_ = nullptr;
std::string CliImageOps::frames_;

TEST_F(CliImageOps, PreviewSizesAndSampling) {
    struct Row {
        const char* in;
        const char* out;
        int maxSize, w, h;
    } rows[] = {
        {"photo.png", "a.png", 40, 40, 25},    // nearest-neighbour, checked below
        {"photo.png", "b.png", 500, 97, 61},   // never enlarged: a copy
        {"photo.png", "c.jpg", 13, 13, 8},
        {"base.hdr", "d.png", 30, 30, 19},     // halving level 49x31, then resampled
        {"base.hdr", "e.jpg", 49, 49, 31},     // exactly a halving level
        {"base.png", "f.png", 7, 7, 4},
    };
    const Rgb src = readPng(dir_->file("photo.png"));
    for (const Row& row : rows) {
        const Result r = run(*dir_, std::string("preview ") + q(dir_->file(row.in)) + " -o " + q(dir_->file(row.out)) +
                                        " --max-size " + std::to_string(row.maxSize));
        ASSERT_EQ(r.code, 0) << row.out << ": " << r.err;
        EXPECT_NE(r.out.find(std::to_string(row.w) + "x" + std::to_string(row.h) + " preview"), std::string::npos) << r.out;
        if (std::string(row.out).find(".png") == std::string::npos) continue;
        const Rgb out = readPng(dir_->file(row.out));
        ASSERT_EQ(out.w, row.w);
        ASSERT_EQ(out.h, row.h);
        if (std::string(row.in) != "photo.png") continue;
        const float sx = static_cast<float>(src.w) / static_cast<float>(out.w);
        const float sy = static_cast<float>(src.h) / static_cast<float>(out.h);
        for (int y = 0; y < out.h; ++y)
            for (int x = 0; x < out.w; ++x) {
                const int ix = static_cast<int>(static_cast<float>(x) * sx);
                const int iy = std::min(static_cast<int>(static_cast<float>(y) * sy), src.h - 1);
                ASSERT_TRUE(std::equal(out.at(x, y), out.at(x, y) + 3, src.at(ix, iy))) << row.out << " " << x << "," << y;
            }
    }
}

TEST_F(CliImageOps, HistogramCountsMatchAPlainCount) {
    const Result r = run(*dir_, "histogram " + q(dir_->file("photo.png")) + " --json -o " + q(dir_->file("h.png")));
    ASSERT_EQ(r.code, 0) << r.err;
    const Rgb src = readPng(dir_->file("photo.png"));
    std::vector<long> lum(256), red(256), green(256), blue(256);
    for (std::size_t i = 0; i < src.px.size(); i += 3) {
        const int R = src.px[i], G = src.px[i + 1], B = src.px[i + 2];
        ++red[R];
        ++green[G];
        ++blue[B];
        ++lum[(54 * R + 183 * G + 19 * B) >> 8];
    }
    EXPECT_EQ(jsonArray(r.out, "luminance"), lum);
    EXPECT_EQ(jsonArray(r.out, "red"), red);
    EXPECT_EQ(jsonArray(r.out, "green"), green);
    EXPECT_EQ(jsonArray(r.out, "blue"), blue);
    EXPECT_EQ(readPng(dir_->file("h.png")).w, 532);

    // Radiance: every lit pixel is in one of the 512 bins.
    const Result h = run(*dir_, "histogram " + q(dir_->file("base.hdr")) + " --json");
    ASSERT_EQ(h.code, 0) << h.err;
    int w = 0, hh = 0;
    const std::vector<std::uint8_t> planes = readHdr(dir_->file("base.hdr"), w, hh);
    long lit = 0;
    for (int y = 0; y < hh; ++y)
        for (int x = 0; x < w; ++x) lit += planes[(static_cast<std::size_t>(y) * 4 + 3) * w + x] > 0;
    const std::vector<long> bins = jsonArray(h.out, "bins");
    ASSERT_EQ(bins.size(), 512u);
    long sum = 0;
    for (long b : bins) sum += b;
    EXPECT_EQ(sum, lit);
    EXPECT_NE(h.out.find("\"total\": " + std::to_string(lit)), std::string::npos) << h.out;
}

// Where output pixel (x, y) of a crop then a clockwise turn comes from.
void sourceOf(int rotate, int cw, int ch, int x, int y, int& sx, int& sy) {
    switch (rotate) {
        case 90: sx = y; sy = ch - 1 - x; break;
        case 180: sx = cw - 1 - x; sy = ch - 1 - y; break;
        case 270: sx = cw - 1 - y; sy = x; break;
        default: sx = x; sy = y; break;
    }
}

TEST_F(CliImageOps, CropAndRotateOutputs) {
    struct Row {
        bool merge;
        int cx, cy, cw, ch, rotate;
    } rows[] = {
        // Radiance rows stay 30 pixels or more: the reader's header line
        // budget grows with the file size, and tiny pictures are not read back.
        {true, 10, 5, 30, 20, 90}, {true, 0, 0, 97, 61, 180}, {true, 57, 31, 40, 30, 270}, {true, 67, 41, 30, 20, 0},
        {false, 3, 7, 41, 23, 270}, {false, 0, 0, 97, 61, 90}, {false, 56, 0, 41, 61, 180}, {false, 96, 60, 1, 1, 90},
    };
    int bw = 0, bh = 0;
    const std::vector<std::uint8_t> base = readHdr(dir_->file("base.hdr"), bw, bh);
    const Rgb fused = readPng(dir_->file("base.png"));
    for (const Row& row : rows) {
        const std::string out = dir_->file(row.merge ? "t.hdr" : "t.png");
        const std::string crop = std::to_string(row.cx) + "," + std::to_string(row.cy) + "," + std::to_string(row.cw) +
                                 "," + std::to_string(row.ch);
        const Result r = run(*dir_, std::string(row.merge ? "merge -q " : "fuse -q ") + frames_ + "-o " + q(out) +
                                        " --crop " + crop + (row.rotate ? " --rotate " + std::to_string(row.rotate) : ""));
        ASSERT_EQ(r.code, 0) << crop << ": " << r.err;
        const bool swap = row.rotate == 90 || row.rotate == 270;
        const int ow = swap ? row.ch : row.cw, oh = swap ? row.cw : row.ch;
        int w = 0, h = 0;
        std::vector<std::uint8_t> planes;
        Rgb png;
        if (row.merge) {
            planes = readHdr(out, w, h);
        } else {
            png = readPng(out);
            w = png.w;
            h = png.h;
        }
        ASSERT_EQ(w, ow) << crop;
        ASSERT_EQ(h, oh) << crop;
        for (int y = 0; y < oh; ++y)
            for (int x = 0; x < ow; ++x) {
                int sx, sy;
                sourceOf(row.rotate, row.cw, row.ch, x, y, sx, sy);
                sx += row.cx;
                sy += row.cy;
                if (row.merge) {
                    for (int p = 0; p < 4; ++p)
                        ASSERT_EQ(planes[(static_cast<std::size_t>(y) * 4 + p) * ow + x],
                                  base[(static_cast<std::size_t>(sy) * 4 + p) * bw + sx])
                            << crop << " " << x << "," << y;
                } else {
                    ASSERT_TRUE(std::equal(png.at(x, y), png.at(x, y) + 3, fused.at(sx, sy))) << crop << " " << x << "," << y;
                }
            }
    }
}

TEST_F(CliImageOps, BadInputGivesOneLine) {
    struct Row {
        std::string args;
        int code;
        const char* mention;
    } rows[] = {
        {"merge " + frames_ + "-o " + q(dir_->file("x.hdr")) + " --crop 90,0,10,10", 1, "does not lie inside the 97x61"},
        {"fuse " + frames_ + "-o " + q(dir_->file("x.png")) + " --crop 0,60,96,5", 1, "does not lie inside"},
        {"fuse " + frames_ + "-o " + q(dir_->file("x.png")) + " --crop -1,0,5,5", 1, "option --crop"},
        {"merge " + frames_ + "-o " + q(dir_->file("x.hdr")) + " --rotate 45", 1, "option --rotate: 90, 180 or 270"},
        {"fuse " + frames_ + "-o " + q(dir_->file("x.png")) + " --method two --deghost", 1, "--deghost goes with --method pyramid"},
        {"fuse " + frames_ + "-o " + q(dir_->file("x.png")) + " --method blend", 1, "option --method"},
        {"preview " + q(dir_->file("none.jpg")) + " -o " + q(dir_->file("x.jpg")), 2, "none.jpg: no such file"},
        {"histogram " + q(dir_->file("none.hdr")) + " --json", 2, "none.hdr: no such file"},
        // The reader takes one header line per 128 bytes of file: too few for an 8x8 picture.
        {"preview " + q(dir_->file("tiny.hdr")) + " -o " + q(dir_->file("x.jpg")), 2, "too small for the library's Radiance reader"},
        {"preview " + q(dir_->file("photo.png")) + " -o " + q(dir_->file("x.jpg")) + " --max-size 0", 1, "max-size"},
    };
    for (const Row& row : rows) {
        const Result r = run(*dir_, row.args);
        EXPECT_EQ(r.code, row.code) << row.args << "\n" << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(row.mention), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_FALSE(fs::exists(dir_->file("x.hdr")) || fs::exists(dir_->file("x.png")) || fs::exists(dir_->file("x.jpg")));
    }
}

}  // namespace
