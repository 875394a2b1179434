// Unit tests of the host program's own parts: argument parsing, the codecs
// on the system's libraries, output files, the progress line and the
// synthetic scene. The commands themselves are tested by running the program.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <tuple>

#include <tiffio.h>

#include "args.hpp"
#include "image.hpp"
#include "outfile.hpp"
#include "progress.hpp"
#include "scene.hpp"

namespace fs = std::filesystem;
using namespace olhdr;

namespace {
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
    Image img;
    img.width = w;
    img.height = h;
    img.spp = 3;
    img.bps = bps;
    img.pixels.resize(img.byteCount());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) {
                const unsigned v = (x * 37 + y * 11 + c * 101) * (bps == 16 ? 257u : 1u) & (bps == 16 ? 0xFFFF : 0xFF);
                const std::size_t i = (static_cast<std::size_t>(y) * w + x) * 3 + c;
                if (bps == 8)
                    img.pixels[i] = static_cast<std::uint8_t>(v);
                else {
                    img.pixels[2 * i] = static_cast<std::uint8_t>(v & 0xFF);
                    img.pixels[2 * i + 1] = static_cast<std::uint8_t>(v >> 8);
                }
            }
    return img;
}

int usageCode(const std::vector<std::string>& argv, const std::vector<OptionSpec>& specs) {
    try {
        Args a(argv, specs);
        a.number("n", 0, 0, 10);
        a.integer("k", 0, 1, 5);
        return 0;
    } catch (const Failure& f) {
        return f.code();
    }
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

TEST(Args, RefusesBadInputAsUsageErrors) {
    const std::vector<OptionSpec> specs = {{"n", 0, true}, {"k", 0, true}, {"flag", 0, false}};
    EXPECT_EQ(usageCode({"--unknown"}, specs), kExitUsage);
    EXPECT_EQ(usageCode({"--n"}, specs), kExitUsage);            // value missing
    EXPECT_EQ(usageCode({"--n", "3x"}, specs), kExitUsage);      // trailing junk
    EXPECT_EQ(usageCode({"--n", "nan"}, specs), kExitUsage);
    EXPECT_EQ(usageCode({"--n", "11"}, specs), kExitUsage);      // out of range
    EXPECT_EQ(usageCode({"--k", "2.5"}, specs), kExitUsage);     // not whole
    EXPECT_EQ(usageCode({"--flag=1"}, specs), kExitUsage);       // a flag takes no value
    EXPECT_EQ(usageCode({"-nk"}, specs), kExitUsage);
    EXPECT_EQ(usageCode({"--n", "-1e-3"}, specs), kExitUsage);
    EXPECT_EQ(usageCode({"--n", "10", "--k", "5"}, specs), 0);  // bounds are inclusive
}

TEST(Args, ParsesSizes) {
    int w = 0, h = 0;
    parseSize("size", "640x480", 8, 1000, w, h);
    EXPECT_EQ(w, 640);
    EXPECT_EQ(h, 480);
    for (const char* bad : {"640", "x480", "640x", "64ax4", "4x480", "640x4800"})
        EXPECT_THROW(parseSize("size", bad, 8, 1000, w, h), Failure) << bad;
}

TEST(Codecs, PngRoundTripsEightAndSixteenBitsWithProfileAndExif) {
    Scratch s;
    for (int bps : {8, 16}) {
        const Image img = gradient(33, 17, bps);
        const std::vector<std::uint8_t> exif = {'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        const std::vector<std::uint8_t> icc = syntheticProfile();
        const std::string path = s.file("g" + std::to_string(bps) + ".png");
        writePng(path, img, exif, icc);
        EXPECT_EQ(sniff(path), FileKind::Png);
        const Image back = readPng(path);
        EXPECT_EQ(back.width, 33);
        EXPECT_EQ(back.height, 17);
        EXPECT_EQ(back.bps, bps);
        EXPECT_EQ(back.pixels, img.pixels);  // little-endian words both ways
        EXPECT_EQ(back.icc, icc);
        EXPECT_EQ(back.exifTiff, exif);
    }
}

TEST(Codecs, JpegKeepsSizeProfileAndApproximatePixels) {
    Scratch s;
    Image img = gradient(40, 24, 8);
    for (auto& p : img.pixels) p = 128;  // flat: JPEG keeps it nearly exactly
    const std::string path = s.file("g.jpg");
    writeJpeg(path, img, 95, {}, syntheticProfile());
    EXPECT_EQ(sniff(path), FileKind::Jpeg);
    const Image back = readJpeg(path);
    ASSERT_EQ(back.byteCount(), img.byteCount());
    for (std::size_t i = 0; i < img.pixels.size(); ++i) EXPECT_NEAR(back.pixels[i], 128, 2);
    EXPECT_EQ(back.icc, syntheticProfile());
}

TEST(Codecs, SixteenBitJpegOutputKeepsHighBytes) {
    Scratch s;
    Image img = gradient(16, 16, 16);
    for (std::size_t i = 0; i < img.pixels.size(); i += 2) {
        img.pixels[i] = 0xFF;      // low byte: must be dropped
        img.pixels[i + 1] = 200;   // high byte: kept
    }
    writeJpeg(s.file("h.jpg"), img, 100, {}, {});
    const Image back = readJpeg(s.file("h.jpg"));
    for (auto v : back.pixels) EXPECT_NEAR(v, 200, 2);
}

TEST(Codecs, DamagedFilesGiveOneLineInputErrors) {
    Scratch s;
    const Image img = gradient(64, 64, 8);
    writePng(s.file("ok.png"), img, {}, {});
    writeJpeg(s.file("ok.jpg"), img, 90, {}, {});
    for (const char* name : {"ok.png", "ok.jpg"}) {
        // Cut the file in half: the decoder must report, not crash.
        const auto size = fs::file_size(s.file(name));
        fs::resize_file(s.file(name), size / 2);
    }
    std::ofstream(s.file("text.tif")) << "II*\0 this is not really a TIFF";
    for (auto [reader, name] : std::vector<std::pair<Image (*)(const std::string&), const char*>>{
             {readPng, "ok.png"}, {readJpeg, "ok.jpg"}, {readTiff, "text.tif"}, {readPng, "none.png"},
             {readTiff, "none.tif"}, {readJpeg, "none.jpg"}}) {
        try {
            reader(s.file(name));
            ADD_FAILURE() << name << " was accepted";
        } catch (const Failure& f) {
            EXPECT_EQ(f.code(), kExitInput) << name;
            const std::string what = f.what();
            EXPECT_NE(what.find(name), std::string::npos) << what;
            EXPECT_EQ(what.find('\n'), std::string::npos) << what;
        }
    }
}

// Writes `img` through libtiff in one of the layouts a camera or an editor
// may produce, so that every branch of the reader meets real files.
enum class TiffLayout { Strips, BigEndian, Tiled, Planes, Lzw };
void writeTiffAs(const std::string& path, const Image& img, TiffLayout layout) {
    TIFF* t = TIFFOpen(path.c_str(), layout == TiffLayout::BigEndian ? "wb" : "wl");
    ASSERT_NE(t, nullptr);
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, img.width);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, img.height);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, img.spp);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, img.bps);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, img.spp >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    TIFFSetField(t, TIFFTAG_COMPRESSION, layout == TiffLayout::Lzw ? COMPRESSION_LZW : COMPRESSION_NONE);
    const bool planes = layout == TiffLayout::Planes;
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, planes ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    const std::size_t bs = img.bps / 8;
    if (layout == TiffLayout::Tiled) {
        TIFFSetField(t, TIFFTAG_TILEWIDTH, 16);
        TIFFSetField(t, TIFFTAG_TILELENGTH, 16);
        std::vector<std::uint8_t> tile(16 * 16 * img.spp * bs, 0);
        for (int ty = 0; ty < img.height; ty += 16)
            for (int tx = 0; tx < img.width; tx += 16) {
                std::fill(tile.begin(), tile.end(), 0);
                for (int y = 0; y < 16 && ty + y < img.height; ++y)
                    for (int x = 0; x < 16 && tx + x < img.width; ++x)
                        std::memcpy(&tile[(y * 16 + x) * img.spp * bs],
                                    &img.pixels[((ty + y) * img.width + tx + x) * img.spp * bs], img.spp * bs);
                TIFFWriteTile(t, tile.data(), tx, ty, 0, 0);
            }
    } else if (planes) {
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 5);
        std::vector<std::uint8_t> row(img.width * bs);
        for (int c = 0; c < img.spp; ++c)
            for (int y = 0; y < img.height; ++y) {
                for (int x = 0; x < img.width; ++x)
                    std::memcpy(&row[x * bs], &img.pixels[((y * img.width + x) * img.spp + c) * bs], bs);
                TIFFWriteScanline(t, row.data(), y, c);
            }
    } else {
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 7);
        for (int y = 0; y < img.height; ++y) {
            std::vector<std::uint8_t> row(img.pixels.begin() + y * img.rowBytes(),
                                          img.pixels.begin() + (y + 1) * img.rowBytes());
            TIFFWriteScanline(t, row.data(), y, 0);
        }
    }
    TIFFClose(t);
}

TEST(Codecs, TiffFramesOfEveryLayoutReadAlike) {
    Scratch s;
    for (int bps : {8, 16})
        for (TiffLayout layout : {TiffLayout::Strips, TiffLayout::BigEndian, TiffLayout::Tiled, TiffLayout::Planes,
                                  TiffLayout::Lzw}) {
            SCOPED_TRACE(std::to_string(bps) + " bits, layout " + std::to_string(static_cast<int>(layout)));
            const Image img = gradient(37, 21, bps);  // not a multiple of the tile size
            const std::string path = s.file("t.tif");
            writeTiffAs(path, img, layout);
            const Image back = readTiff(path);
            EXPECT_EQ(back.width, 37);
            EXPECT_EQ(back.height, 21);
            EXPECT_EQ(back.bps, bps);
            EXPECT_EQ(back.pixels, img.pixels);
        }
    // Grey is spread to three samples.
    Image grey = gradient(9, 4, 16);
    grey.spp = 1;
    grey.pixels.resize(grey.byteCount());
    writeTiffAs(s.file("g.tif"), grey, TiffLayout::Strips);
    const Image rgb = readTiff(s.file("g.tif"));
    ASSERT_EQ(rgb.spp, 3);
    for (std::size_t i = 0; i < 36; ++i)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(rgb.sample16(i * 3 + c), grey.sample16(i));
}

TEST(Codecs, SniffLooksAtContentNotName) {
    Scratch s;
    writePng(s.file("really-png.jpg"), gradient(8, 8, 8), {}, {});
    const std::vector<std::tuple<const char*, const char*, FileKind>> rows = {
        {"a.hdr", "#?RADIANCE\n", FileKind::Radiance}, {"a.psd", "8BPS", FileKind::Psd},
        {"a.txt", "hello", FileKind::Unknown},        {"really-png.jpg", nullptr, FileKind::Png},
        {"nothing", nullptr, FileKind::Missing},      {"", nullptr, FileKind::Directory}};
    for (const auto& [name, content, kind] : rows) {
        if (content) std::ofstream(s.file(name)) << content;
        EXPECT_EQ(sniff(*name ? s.file(name) : s.dir.string()), kind) << name;
    }
}

TEST(Codecs, ToRgbSpreadsGreyAndDropsAlpha) {
    Image grey;
    grey.width = 2;
    grey.height = 1;
    grey.spp = 2;  // grey + alpha
    grey.bps = 8;
    grey.pixels = {10, 255, 20, 0};
    const Image rgb = toRgb(grey);
    EXPECT_EQ(rgb.pixels, (std::vector<std::uint8_t>{10, 10, 10, 20, 20, 20}));
    Image rgba = grey;
    rgba.spp = 4;
    rgba.width = 1;
    rgba.pixels = {1, 2, 3, 4};
    EXPECT_EQ(toRgb(rgba).pixels, (std::vector<std::uint8_t>{1, 2, 3}));
}

TEST(OutputFile, LeavesNothingBehindUnlessCommitted) {
    Scratch s;
    const std::string target = s.file("out.bin");
    {
        OutputFile out(target);
        std::ofstream(out.temp()) << "partial";
        EXPECT_TRUE(fs::exists(out.temp()));
    }  // not committed: a failure path
    EXPECT_FALSE(fs::exists(target));
    EXPECT_TRUE(fs::is_empty(s.dir));
    writeAtomically(target, [](const std::string& temp) { std::ofstream(temp) << "done"; });
    EXPECT_TRUE(fs::exists(target));
    EXPECT_THROW(writeAtomically(target, [](const std::string& temp) {
                     std::ofstream(temp) << "new";
                     throw Failure(kExitOutput, "disk full");
                 }),
                 Failure);
    std::ifstream in(target);
    std::string content;
    in >> content;
    EXPECT_EQ(content, "done");  // the old file stands
    EXPECT_EQ(std::distance(fs::directory_iterator(s.dir), fs::directory_iterator()), 1);
}

TEST(OutputFile, CheckWritableNamesTheProblem) {
    Scratch s;
    EXPECT_NO_THROW(checkWritable(s.file("x.hdr")));
    try {
        checkWritable(s.file("no/such/folder/x.hdr"));
        FAIL();
    } catch (const Failure& f) {
        EXPECT_EQ(f.code(), kExitOutput);
    }
    EXPECT_THROW(checkWritable(s.dir.string()), Failure);  // a folder is not a file name
    if (geteuid() != 0) {
        fs::permissions(s.dir, fs::perms::owner_read | fs::perms::owner_exec);
        EXPECT_THROW(checkWritable(s.file("x.hdr")), Failure);
        fs::permissions(s.dir, fs::perms::owner_all);
    }
    EXPECT_EQ(extensionOf("a/b.Tiff"), "tiff");
    EXPECT_EQ(extensionOf("noext"), "");
}

TEST(Progress, LineShowsFractionAndFitsWidth) {
    const std::string half = progressLine("fusing", 0.5, 1.25, 60);
    EXPECT_NE(half.find(" 50%"), std::string::npos) << half;
    EXPECT_NE(half.find("1.2s"), std::string::npos) << half;
    EXPECT_LE(half.size(), 60u);
    const std::string over = progressLine("x", 7.0, 0, 60);  // clamped
    EXPECT_NE(over.find("100%"), std::string::npos);
    EXPECT_EQ(over.find('.'), over.find("0.0s") + 1);        // no empty cells left
    const std::string nan = progressLine("x", std::nan(""), 0, 60);
    EXPECT_NE(nan.find("  0%"), std::string::npos);
}

TEST(Scene, BracketIsOrderedAndCoversTheRange) {
    BracketSpec spec;
    spec.width = 240;
    spec.height = 160;
    spec.frames = 3;
    const auto frames = renderBracket(spec);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[0].exposureNum, 1);
    EXPECT_EQ(frames[0].exposureDen, 240);
    EXPECT_EQ(frames[1].exposureDen, 60);
    EXPECT_EQ(frames[2].exposureDen, 15);
    auto stats = [](const Image& img, double& mean, double& clipped, double& black) {
        mean = clipped = black = 0;
        for (auto v : img.pixels) {
            mean += v;
            clipped += v >= 254;
            black += v <= 2;
        }
        mean /= img.pixels.size();
        clipped /= img.pixels.size();
        black /= img.pixels.size();
    };
    double m[3], c[3], b[3];
    for (int k = 0; k < 3; ++k) stats(frames[k].image, m[k], c[k], b[k]);
    EXPECT_LT(m[0], m[1]);
    EXPECT_LT(m[1], m[2]);
    EXPECT_GT(c[0], 0.0);       // the sun is clipped even in the darkest frame
    EXPECT_GT(c[2], c[0] * 5);  // the bright frame clips much more
    EXPECT_GT(b[0], 0.01);      // the dark frame has near-black shadows
    // The same seed renders the same frames; another seed changes the noise.
    EXPECT_EQ(renderBracket(spec)[1].image.pixels, frames[1].image.pixels);
    spec.seed = 2;
    EXPECT_NE(renderBracket(spec)[1].image.pixels, frames[1].image.pixels);
}

TEST(Scene, SixteenBitFramesFollowTheEightBitOnes) {
    BracketSpec spec;
    spec.width = 64;
    spec.height = 48;
    spec.frames = 1;
    const Image a = renderBracket(spec)[0].image;
    spec.bits = 16;
    const Image b = renderBracket(spec)[0].image;
    ASSERT_EQ(b.byteCount(), a.byteCount() * 2);
    for (std::size_t i = 0; i < a.pixels.size(); ++i) EXPECT_NEAR(b.sample16(i) / 257.0, a.pixels[i], 1.0);
}
