// The diagnostic lines of every subsystem, byte for byte (this test links the
// library built with every diagnostic switch on). Each subsystem runs a short
// script of calls; what each call returns and prints is compared with the
// transcript tests/transcripts/<subsystem>.txt. After a deliberate change of
// the lines, OL_UPDATE_TRANSCRIPTS=1 rewrites the files: review their diff.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/metadata_bytes.hpp"
#include "support/radiance.hpp"
#include "support/stacks.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

class Transcript {
public:
    explicit Transcript(std::string name) : name_(std::move(name)) {}

    // Runs one call; records its title, its result and what it printed on
    // stdout and on stderr.
    template <class F>
    void step(const std::string& title, F&& call) {
        oltest::CaptureFd o(1), e(2);
        const long r = static_cast<long>(call());
        const std::string err = e.finish(), out = o.finish();
        text_ += "### " + title + " -> " + std::to_string(r) + "\n" + out + (err.empty() ? "" : "### stderr\n" + err);
    }

    ~Transcript() {
        const std::string path = std::string(OL_SOURCE_DIR) + "/tests/transcripts/" + name_ + ".txt";
        if (std::getenv("OL_UPDATE_TRANSCRIPTS")) {
            oltest::writeText(path, text_);
            return;
        }
        const Bytes want = oltest::readFile(path);
        EXPECT_EQ(text_, std::string(want.begin(), want.end())) << "transcript " << path;
    }

private:
    std::string name_, text_;
};

// ---- merges of uniform frames of three samples with a zero lut, frame 0 at
// `levels[0]` and the others at `levels[1]` (16 bits: those high bytes over
// `low`): ol_hdr_merge (variant 0, with `evStep`), calc_hdr (-1) and
// hdr_unghost (1 and 2) with 0.5.
int merge(int variant, int w, int h, int n, int bps, std::array<int, 2> levels, int low, std::vector<float> dt,
          float evStep = 0.5f) {
    const std::size_t frame = static_cast<std::size_t>(w) * h * 3 * (bps / 8);
    Bytes photos(n * frame, static_cast<std::uint8_t>(low)), out(4u * w * h, 1);
    for (std::size_t i = bps / 16; i < n * frame; i += bps / 8)
        photos[i] = static_cast<std::uint8_t>(levels[i >= frame]);
    std::vector<float> lut(static_cast<std::size_t>(1) << bps);
    float stats[3], *l = lut.data(), *t = dt.data();
    if (variant == 0) return ol_hdr_merge(0, n, w, h, 3, bps, 0, l, evStep, t, photos.data(), stats, out.data());
    if (variant < 0) return calc_hdr(1, n, w, h, 3, bps, 0, l, evStep, t, photos.data(), stats, out.data());
    return hdr_unghost(1, variant, n, w, h, 3, bps, 0, l, evStep, t, photos.data(), stats, out.data());
}

// Two frames of 210 x 210 (levels 100 and 200); the sample pixels are where
// x % 105 == 100 and y % 52 == 50.
TEST(Trace, Merge) {
    Transcript t("merge");
    t.step("8 bits, exposures 1 and 4", [] { return merge(0, 210, 210, 2, 8, {100, 200}, 0x80, {1, 4}, -1.0f); });
    // The lines show lut at the high byte though the merge reads the word.
    t.step("16 bits", [] { return merge(0, 210, 210, 2, 16, {100, 200}, 0x80, {1, 4}, -1.0f); });
    // Exposures whose log2 is not a float: the ends still get 64000 and 60160.
    t.step("exposures 1 and 3", [] { return merge(0, 210, 210, 2, 8, {100, 200}, 0x80, {1, 3}, -1.0f); });
    // evStep 0 on zero means: both exposures 1; frame 1 is visited first.
    t.step("guessed equal exposures", [] { return merge(0, 210, 210, 2, 8, {100, 200}, 0x80, {5, 5}, 0.0f); });
    // One frame at 128: below 202 x 204 there is no sample pixel, nor at a
    // width of 1 and a height below 4.
    for (auto [w, h] : {std::pair{1, 3}, std::pair{201, 300}, std::pair{300, 203}})
        t.step("one frame " + std::to_string(w) + " x " + std::to_string(h),
               [w = w, h = h] { return merge(0, w, h, 1, 8, {128, 128}, 0x80, {1}, -1.0f); });
    t.step("nothing to do", [] {
        std::vector<float> lut(256), dt = {1.0f};
        float stats[3];
        return ol_hdr_merge(0, 1, 4, 0, 3, 8, 0, lut.data(), -1.0f, dt.data(), nullptr, stats, nullptr);
    });
}

// ---- motion: align, ol_ghost_detect, calc_hdr and hdr_unghost. The merges
// take two frames of 24 x 24, levels 60 and 200, exposures 1 and 4; the sample
// pixels are where x % 12 and y % 12 are both 10.
TEST(Trace, Motion) {
    Transcript t("motion");
    // A bright square on grey, frame 1 seeing it 3 pixels further right and 2 lower.
    t.step("align: frame 1 read from (3, 2)", [] {
        const int w = 64, h = 48;
        Bytes block(2 * w * h * 3, 100);
        for (int k = 0; k < 2; ++k)
            for (int y = 12; y < 32; ++y) std::fill_n(&block[((k * h + y + 2 * k) * w + 20 + 3 * k) * 3], 24 * 3, 200);
        int dims[2] = {0, 0};
        return align(2, w, h, 3, 8, dims, block.data());
    });
    // Two flat photos; the edge kernels take the coarse corner from 100 and 200 to 99 and 199.
    t.step("ol_ghost_detect: two flat photos of 8 x 6", [] {
        Bytes img = fustest::flatStack(8, 6, {100, 200}), mask(6);
        std::vector<float> dt = {1, 2};
        float seuil = 10;
        return ol_ghost_detect(&seuil, 2, 8, 6, 3, 8, -1, dt.data(), img.data(), mask.data());
    });
    // Sample pixels for 16-bit frames only; frame 1's weight is lowered by its saturation level 60160.
    t.step("calc_hdr, 16 bits", [] { return merge(-1, 24, 24, 2, 16, {60, 200}, 0x40, {1, 4}); });
    t.step("calc_hdr, 8 bits", [] { return merge(-1, 24, 24, 2, 8, {60, 200}, 0x40, {1, 4}); });
    // The reference is frame 1; the frames disagree, so the result is its value.
    t.step("hdr_unghost, variant 1, 8 bits", [] { return merge(1, 24, 24, 2, 8, {60, 200}, 0x40, {1, 4}); });
    t.step("hdr_unghost, variant 2, 16 bits", [] { return merge(2, 24, 24, 2, 16, {60, 200}, 0x40, {1, 4}); });
}

// ---- operators and image operations: moyenne prints its depths and the row
// remainder before any check; the preview and crop extraction their sizes.
TEST(Trace, Operators) {
    Transcript t("operators");
    std::vector<std::uint8_t> img(2 * 4 * 3, 10);
    std::vector<std::uint16_t> dst(2 * 14, 0);
    t.step("moyenne", [&] { return moyenne(1, 4, 2, 14, 0, 3, 8, 16, img.data(), dst.data()); });
    t.step("moyenne, no rows", [&] { return moyenne(1, 4, 0, 12, 0, 3, 12, 8, img.data(), dst.data()); });
}

TEST(Trace, ImageOps) {
    Transcript t("imageops");
    const Bytes src(21 * 17 * 3, 9);
    Bytes dst(21 * 17 * 3);
    t.step("extract_basepreview",
           [&] { return extract_basepreview(8, 21, 17, 3, 63, 6, 5, 0, src.data(), nullptr, dst.data()); });
    t.step("extract_crop", [&] { return extract_crop(1, 21, 17, 3, 63, 8, 5, 6, 2, 3, src.data(), dst.data()); });
}

// ---- radiance
TEST(Trace, Radiance) {
    using namespace radtest;
    oltest::TempDir dir;
    Transcript t("radiance");
    const int W = 30, H = 40;
    const Bytes px = photoPlanes(W, H, 1);
    const ExifRecord e = emptyExif();
    const std::string path = dir.file("a.hdr");
    Bytes buf(px.size());
    t.step("write", [&] { return ol_io_rgbe_write(path.c_str(), W, H, &e, nullptr, "", px.data()); });
    t.step("file size", [&] { return oltest::readFile(path).size(); });
    t.step("decomp_rle", [&] { return decodeRle(path, W, H, buf); });
    t.step("decomp2", [&] { return decodeStream(path, W, H, buf); });
    t.step("decomp2, height mismatch", [&] { return decodeStream(path, W, H + 1, buf); });
    t.step("the other readers print nothing", [&] {
        float prim[8];
        int d[7] = {};
        ExifRecord x = emptyExif();
        Bytes prev(4 * 10 * 10);
        return rgbe_dim(path.c_str(), prim, d) + extract_rgbe_exif(path.c_str(), &x) +
               ol_io_read_preview_rgbe(W, H, 10, 10, path.c_str(), prev.data());
    });
    // Flat rows with a budget of one header line report each quarter.
    t.step("flat rows", [&] {
        Bytes b(4u * 6 * 9);
        return decodeStream(std::string(OL_SOURCE_DIR) + "/tests/fixtures/trace/flat_6x9.hdr", 6, 9, b);
    });
    // Three exponent bytes of 255 in the first strip, one in the last.
    Bytes sp = photoPlanes(8, 5, 2);
    sp[3 * 8] = sp[3 * 8 + 1] = 255;
    sp[4 * 8 + 3 * 8 + 5] = 255;
    sp[4 * 4 * 8 + 3 * 8] = 255;
    const std::string strips = dir.file("s.hdr");
    t.step("strip 0", [&] { return ol_write_strip_rgbe(strips.c_str(), 0, 3, 8, 5, nullptr, sp.data()); });
    t.step("strip 1", [&] { return ol_write_strip_rgbe(strips.c_str(), 1, 3, 8, 5, nullptr, sp.data() + 4 * 3 * 8); });
}

// ---- fusion: flat 8-bit photos; nbProc 0 runs one thread, so the lines keep
// their order.
TEST(Trace, Fusion) {
    oltest::TempDir dir;
    Transcript t("fusion");
    const auto stepped = [](int w, int h) { return fustest::flatStack(w, h, {100, 150, 200}); };
    const auto cutAt = [](int w, int h, float highlightCut) {
        auto j = fustest::sized(w, h);
        j.params[2] = highlightCut;
        return j;
    };
    t.step("disk run, every stage", [&] { return fustest::sized(8, 6).onDisk(dir.path().string()).go(stepped(8, 6)); });
    // highlightCut 2 without saturation: powers 2 and 3, multHigh
    // 1 / 0.640625^3; 9x7 -> 5x4 puts the last coarse column and row on the
    // odd borders.
    t.step("odd levels, highlight curve", [&] { return cutAt(9, 7, 2.0f).go(stepped(9, 7)); });
    // Every pixel saturated: powerLow c + 1, powerHigh (c - 1) * 0.5 + 2.
    t.step("saturated stack", [&] { return cutAt(8, 6, 2.0f).go(fustest::flatStack(8, 6, {255, 255, 255})); });
    // A float output makes the sharpening linear, so fval 0 weighs nothing:
    // with highlightCut every curve is 0 at 240.
    t.step("blown pixels weigh zero", [&] {
        auto j = cutAt(8, 6, 1.5f);
        j.bspOut = 32;
        return j.go(fustest::flatStack(8, 6, {240, 240, 240}));
    });
    t.step("ghost mask and sampled pixels", [&] {
        auto j = fustest::sized(8, 6);
        fustest::setMaskBit(j.mask, 8, 6, 0, 0);
        j.fixedExpo = {1, -1, -1};
        return j.go(stepped(8, 6));
    });
    // Exposure times all 1: the bound stays at 32768 * 1^(1/2.2).
    t.step("float stack bound", [&] {
        auto j = fustest::sized(8, 6);
        j.bspIn = j.bspOut = j.bdf = 32;
        return j.go(Bytes(3 * 8 * 6 * 3 * 4, 0));
    });
}

// ---- metadata readers
TEST(Trace, MetadataRead) {
    Transcript t("metadata_read");
    const std::string psd = std::string(OL_SOURCE_DIR) + "/tests/fixtures/trace/psd_rle_3x2.psd";
    PsdInfo info{};
    t.step("getPsdInfo", [&] { return getPsdInfo(psd.c_str(), &info); });
    t.step("load_psd, RLE", [&] {
        std::uint8_t out[18];
        return load_psd(1, psd.c_str(), &info, 9, out);
    });
    t.step("Exif, GPS, XMP and Photoshop blocks", [&] {
        return metatest::readExif(std::string(OL_SOURCE_DIR) + "/tests/fixtures/trace/jpeg_app1_app13.jpg", 1).result;
    });
}

// ---- metadata writers
TEST(Trace, MetadataWrite) {
    using namespace metatest;
    oltest::TempDir dir;
    Transcript t("metadata_write");
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    t.step("Exif census and block", [&] {
        Bytes out(1024, 0);
        return exifBlockInto(ex, gps, 1, out.data());
    });
    t.step("TIFF with everything", [&] {
        const auto icc = iccHeader("RGB ");
        tif_info info = makeInfo(2, 1, 4, 8);
        info.lProfil = static_cast<int>(icc.size());
        const std::uint8_t px[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        const std::uint8_t iptc[5] = {0x1C, 2, 0, 0, 0};
        const float tm[15] = {};
        return buf2tifOld(px, &info, 8, icc.data(), &ex, &gps, 5, iptc, 2, tm, dir.file("t.tif").c_str());
    });
    // Four samples take the pixel-by-pixel path, which reports every 800th
    // row at every 1000th column.
    t.step("bare file, pixel positions", [&] {
        const int w = 1001, h = 801;
        const Bytes px(static_cast<std::size_t>(w) * h * 4, 9);
        const tif_info info = makeInfo(w, h, 4, 8);
        return buf2tifOld(px.data(), &info, w * 4, nullptr, nullptr, nullptr, 0, nullptr, 0, nullptr, dir.file("b.tif").c_str());
    });
}

}  // namespace
