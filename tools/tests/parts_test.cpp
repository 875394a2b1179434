// Unit tests of the host program's own parts: argument parsing, the codecs
// on the system's libraries, output files, the progress line and the
// synthetic scene. The commands themselves are tested by running the program.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <tuple>

#include "args.hpp"
#include "image.hpp"
#include "outfile.hpp"
#include "progress.hpp"
#include "scene.hpp"

namespace fs = std::filesystem;
using namespace olhdr;

namespace {
const std::string kTiffs = OL_SOURCE_DIR "/tests/fixtures/olhdr_tiff/";

struct Scratch {
    fs::path dir;
    Scratch() {
        char t[] = "/tmp/olhdr-parts-XXXXXX";
        dir = mkdtemp(t);
    }
    ~Scratch() { fs::remove_all(dir); }
    std::string file(const std::string& n) const { return (dir / n).string(); }
};

Image gradient(int w, int h, int bps) {
    Image img{w, h, 3, bps, {}, {}, {}};
    img.pixels.resize(img.byteCount());
    for (std::size_t i = 0; i < img.pixels.size() / (bps / 8); ++i) {  // sample i: pixel i / 3, colour i % 3
        const std::size_t x = i / 3 % w, y = i / 3 / w, c = i % 3;
        const unsigned v = (x * 37 + y * 11 + c * 101) * (bps == 16 ? 257u : 1u) & (bps == 16 ? 0xFFFF : 0xFF);
        if (bps == 8) img.pixels[i] = static_cast<std::uint8_t>(v);
        else img.pixels[2 * i] = static_cast<std::uint8_t>(v & 0xFF), img.pixels[2 * i + 1] = static_cast<std::uint8_t>(v >> 8);
    }
    return img;
}

// The exit code of the failure a call throws, 0 when it throws none.
int codeOf(const std::function<void()>& call) {
    try {
        call();
        return 0;
    } catch (const Failure& f) {
        return f.code();
    }
}

int usageCode(const std::vector<std::string>& argv, const std::vector<OptionSpec>& specs) {
    return codeOf([&] {
        Args a(argv, specs);
        a.number("n", 0, 0, 10);
        a.integer("k", 0, 1, 5);
    });
}
}  // namespace

TEST(Args, ParsesLongShortInlineAndPositional) {
    const std::vector<OptionSpec> specs = {{"out", 'o', true}, {"quiet", 'q', false}, {"n", 0, true}};
    Args a({"a.jpg", "-o", "x.hdr", "--n=2.5", "-q", "--", "-b.jpg"}, specs);
    EXPECT_EQ(a.text("out", ""), "x.hdr");
    EXPECT_TRUE(a.has("quiet"));
    EXPECT_DOUBLE_EQ(a.number("n", 0, 0, 10), 2.5);
    EXPECT_EQ(a.positional(), (std::vector<std::string>{"a.jpg", "-b.jpg"}));
    EXPECT_EQ(a.text("missing", "dflt"), "dflt");
}

// Unknown option, value missing, trailing junk, not a number, out of range on
// either side, not whole, a flag with a value, bundled short options; the
// bounds themselves are inclusive.
TEST(Args, RefusesBadInputAsUsageErrors) {
    const std::vector<OptionSpec> specs = {{"n", 0, true}, {"k", 0, true}, {"flag", 0, false}};
    const std::vector<std::pair<std::vector<std::string>, int>> rows = {
        {{"--unknown"}, kExitUsage},   {{"--n"}, kExitUsage},        {{"--n", "3x"}, kExitUsage},
        {{"--n", "nan"}, kExitUsage},  {{"--n", "11"}, kExitUsage},  {{"--n", "-1e-3"}, kExitUsage},
        {{"--k", "2.5"}, kExitUsage},  {{"--flag=1"}, kExitUsage},   {{"-nk"}, kExitUsage},
        {{"--n", "10", "--k", "5"}, 0}};
    for (const auto& [argv, code] : rows) EXPECT_EQ(usageCode(argv, specs), code) << argv.back();
}

TEST(Args, ParsesSizes) {
    int w = 0, h = 0;
    parseSize("size", "640x480", 8, 1000, w, h);
    EXPECT_EQ(std::make_pair(w, h), std::make_pair(640, 480));
    for (const char* bad : {"640", "x480", "640x", "64ax4", "4x480", "640x4800"})
        EXPECT_THROW(parseSize("size", bad, 8, 1000, w, h), Failure) << bad;
}

// Frames read back as written: PNG both depths with profile and Exif, JPEG
// near (flat, so it keeps the level; the 16-bit input keeps its high bytes),
// and TIFF frames that libtiff wrote in the layouts a camera or an editor may
// produce (tests/fixtures/olhdr_tiff, 37x21 so that tiles are cut at the edges).
TEST(Codecs, FramesReadBackAsWritten) {
    Scratch s;
    const std::vector<std::uint8_t> exif = {'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0}, icc = syntheticProfile();
    Image flat = gradient(40, 24, 8), deep = gradient(16, 16, 16), grey = gradient(9, 4, 16);
    std::fill(flat.pixels.begin(), flat.pixels.end(), 128);
    for (std::size_t i = 0; i < deep.pixels.size(); i += 2) deep.pixels[i] = 0xFF, deep.pixels[i + 1] = 200;
    Image spread = grey;  // the grey file holds the first 36 samples; each comes back thrice
    for (std::size_t i = 0; i < 108; ++i) std::memcpy(&spread.pixels[2 * i], &grey.pixels[2 * (i / 3)], 2);
    writePng(s.file("g8.png"), gradient(33, 17, 8), exif, icc);
    writePng(s.file("g16.png"), gradient(33, 17, 16), exif, icc);
    writeJpeg(s.file("flat.jpg"), flat, 95, {}, icc);
    writeJpeg(s.file("deep.jpg"), deep, 100, {}, {});
    struct Row {
        std::string file;
        Image want;
        int tolerance;
        bool meta;  // carries the profile and Exif
    };
    std::vector<Row> rows = {{s.file("g8.png"), gradient(33, 17, 8), 0, true},
                             {s.file("g16.png"), gradient(33, 17, 16), 0, true},
                             {s.file("flat.jpg"), flat, 2, false},
                             {s.file("deep.jpg"), to8Bit(deep), 2, false},
                             {kTiffs + "grey16.tif", spread, 0, false}};
    for (const char* layout : {"strips", "big_endian", "tiled", "planes", "lzw"})
        for (int bps : {8, 16}) rows.push_back({kTiffs + layout + std::to_string(bps) + ".tif", gradient(37, 21, bps), 0, false});
    for (const Row& r : rows) {
        SCOPED_TRACE(r.file);
        const FileKind kind = sniff(r.file);
        const Image back = kind == FileKind::Png ? readPng(r.file) : kind == FileKind::Jpeg ? readJpeg(r.file) : readTiff(r.file);
        EXPECT_EQ(std::tie(back.width, back.height, back.spp, back.bps), std::tie(r.want.width, r.want.height, r.want.spp, r.want.bps));
        ASSERT_EQ(back.pixels.size(), r.want.pixels.size());
        for (std::size_t i = 0; i < back.pixels.size(); ++i) ASSERT_NEAR(back.pixels[i], r.want.pixels[i], r.tolerance) << i;
        if (r.meta) EXPECT_EQ(std::tie(back.icc, back.exifTiff), std::tie(icc, exif));
    }
    EXPECT_EQ(readJpeg(s.file("flat.jpg")).icc, icc);
}

// Damaged and missing files, and a file sniffed by its content rather than
// its name, are rows of the command transcript (cli_commands_test.cpp).
TEST(Codecs, ToRgbSpreadsGreyAndDropsAlpha) {
    EXPECT_EQ(toRgb(Image{2, 1, 2, 8, {10, 255, 20, 0}}).pixels, (std::vector<std::uint8_t>{10, 10, 10, 20, 20, 20}));
    EXPECT_EQ(toRgb(Image{1, 1, 4, 8, {1, 2, 3, 4}}).pixels, (std::vector<std::uint8_t>{1, 2, 3}));
}

TEST(OutputFile, LeavesNothingBehindUnlessCommitted) {
    Scratch s;
    const std::string target = s.file("out.bin");
    {  // not committed: a failure path
        OutputFile out(target);
        std::ofstream(out.temp()) << "partial";
        EXPECT_TRUE(fs::exists(out.temp()));
    }
    EXPECT_TRUE(fs::is_empty(s.dir));
    writeAtomically(target, [](const std::string& temp) { std::ofstream(temp) << "done"; });
    EXPECT_EQ(codeOf([&] {
                  writeAtomically(target, [](const std::string& temp) {
                      std::ofstream(temp) << "new";
                      throw Failure(kExitOutput, "disk full");
                  });
              }),
              kExitOutput);
    std::string content;
    std::ifstream(target) >> content;
    EXPECT_EQ(content, "done");  // the old file stands
    EXPECT_EQ(std::distance(fs::directory_iterator(s.dir), fs::directory_iterator()), 1);
}

// (Outputs that cannot be written are rows of the command transcript.)
TEST(OutputFile, ExtensionIsLowerCase) {
    EXPECT_EQ(extensionOf("a/b.Tiff"), "tiff");
    EXPECT_EQ(extensionOf("noext"), "");
}

// The whole line at 60 columns: the name padded, the bar filling the rest,
// percent and seconds; the fraction clamped, NaN counted as 0.
TEST(Progress, LineShowsFractionAndFitsWidth) {
    EXPECT_EQ(progressLine("fusing", 0.5, 1.25, 60), "fusing                   [##########...........]  50%   1.2s");
    EXPECT_EQ(progressLine("x", 7.0, 0, 60), "x                        [#####################] 100%   0.0s");
    EXPECT_EQ(progressLine("x", std::nan(""), 0, 60), "x                        [.....................]   0%   0.0s");
}

// The scene covers the range a bracket is for, at both depths alike. (The
// exposure times and the frames' exact content are pinned through the
// command transcript of cli_commands_test.cpp.)
TEST(Scene, BracketCoversTheRangeAtBothDepths) {
    BracketSpec spec;
    spec.width = 240, spec.height = 160, spec.frames = 3;
    const auto frames = renderBracket(spec);
    ASSERT_EQ(frames.size(), 3u);
    double m[3], c[3], b[3];  // mean, share clipped, share near black
    for (int k = 0; k < 3; ++k) {
        const auto& px = frames[k].image.pixels;
        m[k] = std::accumulate(px.begin(), px.end(), 0.0) / px.size();
        c[k] = std::count_if(px.begin(), px.end(), [](int v) { return v >= 254; }) / double(px.size());
        b[k] = std::count_if(px.begin(), px.end(), [](int v) { return v <= 2; }) / double(px.size());
    }
    EXPECT_LT(m[0], m[1]);
    EXPECT_LT(m[1], m[2]);
    EXPECT_GT(c[0], 0.0);       // the sun is clipped even in the darkest frame
    EXPECT_GT(c[2], c[0] * 5);  // the bright frame clips much more
    EXPECT_GT(b[0], 0.01);      // the dark frame has near-black shadows
    spec.bits = 16;
    const Image deep = renderBracket(spec)[1].image, &a = frames[1].image;
    ASSERT_EQ(deep.byteCount(), a.byteCount() * 2);
    for (std::size_t i = 0; i < a.pixels.size(); ++i) ASSERT_NEAR(deep.sample16(i) / 257.0, a.pixels[i], 1.0) << i;
}
