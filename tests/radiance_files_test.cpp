// Real files from other programs, kept crashers, and damaged input: every
// file decodes to the values its truth file holds or gets the failure code
// the reading rules give it, and nothing crashes or hangs.
#include <cmath>
#include <cstring>
#include <random>

#include "frame/rgbe.hpp"
#include "support/json.hpp"
#include "support/radiance.hpp"

using namespace radtest;
namespace fs = oltest::fs;

namespace {

using oltest::Npy;

// What the rules give each Radiance file of the shared test data.
struct HdrCase {
    const char* name;
    int dim;      // rgbe_dim: -3 when the resolution line is beyond the budget
    int decoded;  // decomp_rle and decomp2 (height when they decode)
    int stream;   // decomp2 alone, where it differs
    int preview;  // same-size preview (height+1 when it decodes)
};
// Budgets: fileSize/128 lines (at most 100); the preview reader fileSize/128
// - 128, refusing files under 16640 bytes. Old-style run-length files are
// taken for flat data (their first row does not start 2, 2) and run out of
// bytes: -2 for the decoders, -1 for the preview reader.
const HdrCase kHdrCases[] = {
    // 587 bytes: 4 lines of budget, 12 reads to the resolution line. The
    // in-memory decoder looks for the line in the whole file.
    {"exiftool_Radiance.hdr", -3, 1, -3, -1},
    {"imagers_old-rle.hdr", 0, -2, -2, -1},
    {"imagers_scale.hdr", 0, 8, 8, -1},  // flat 256x8, under 16640 bytes
    {"nrel_false.hdr", 0, 544, 544, 545},  // 97 reads within the cap of 100
    {"nrel_inst_fish.hdr", 0, 124, 124, 125},
    {"nrel_mixtex_def.hdr", 0, 72, 72, 73},
    {"nrel_psign.hdr", 0, 680, 680, 681},
    {"tm_memorial_o876.hdr", 0, 768, 768, 769},
    {"nrel2003_cabin.pic", 0, -2, -2, -1},
    {"nrel2003_gamma.pic", 0, -2, -2, -1},
    {"nrel2003_rgbw.pic", 0, 100, 100, -1},  // 4175 bytes: no preview
    {"nrel2003_summercab.pic", 0, 143, 143, 144},
};

}  // namespace

TEST(RadianceRealFiles, EachFileDecodesOrFailsByTheRules) {
    OL_REQUIRE_TESTDATA();
    for (const HdrCase& c : kHdrCases) {
        SCOPED_TRACE(c.name);
        const fs::path file = oltest::testdataDir() / "hdr" / c.name;
        const std::string path = file.string();
        const oltest::Json json = oltest::loadJson(path + ".truth.json");
        const int width = static_cast<int>(*json.num("width")), height = static_cast<int>(*json.num("height"));
        const int reads = static_cast<int>(*json.num("line_reads_127_through_resolution_line")) - 1;
        float prim[8];
        int dims[7] = {};
        EXPECT_EQ(rgbe_dim(path.c_str(), prim, dims), c.dim == 0 ? reads : c.dim);
        if (c.dim == 0) {
            EXPECT_EQ((std::array{dims[0], dims[1], dims[2]}), (std::array{width, height, static_cast<int>(fs::file_size(file))}));
            if (json.str("primaries_line") != "null") { EXPECT_TRUE(dims[6] == 32 && prim[0] > 0.0f); }
        }
        Bytes a(4u * width * height), b(a.size()), p(a.size());
        EXPECT_EQ(decodeRle(path, width, height, a), c.decoded);
        EXPECT_EQ(decodeStream(path, width, height, b), c.stream);
        EXPECT_EQ(ol_io_read_preview_rgbe(width, height, width, height, path.c_str(), p.data()), c.preview);
        if (c.decoded == height) {  // the truth: float32 RGB, mantissa * 2^(E-136), and the raw bytes
            const Npy truth = oltest::readNpy(path + ".truth.npy"), raw = oltest::readNpy(path + ".rgbe.npy");
            const std::vector<float> rgb = decodedRgb(a, width, height);
            ASSERT_TRUE(truth.count() == rgb.size() && raw.count() == 4u * width * height);
            long mismatches = 0;
            for (std::size_t i = 0; i < rgb.size(); ++i) mismatches += truth.f32(i) != rgb[i];
            EXPECT_EQ(mismatches, 0);
            EXPECT_TRUE(std::equal(raw.data.begin(), raw.data.end(), interleave(a, width, height).begin()));
        }
        if (c.stream == height) { EXPECT_EQ(a, b); }
        if (c.preview == height + 1) { EXPECT_EQ(a, p); }
        ExifRecord e = emptyExif();
        EXPECT_EQ(extract_rgbe_exif(path.c_str(), &e), reads);
    }
}

TEST(RadianceRealFiles, FloatTiffsByTheReadingRules) {
    OL_REQUIRE_TESTDATA();
    // Only a little-endian, uncompressed, contiguous RGB float file in one
    // strip holds the pixels where the rules look (compared with its truth);
    // the others are read from wherever their directory points; the
    // big-endian file is refused.
    for (auto [name, code] : {std::pair{"imagers_rgb32f_color.tiff", 1}, {"tm_floatingpoint-32bit.tif", -3},
                              {"imagers_image1.hdr.tiff", 0}, {"itiff_cmyk-3c-32b-float.tiff", 0},
                              {"itiff_predictor-3-rgb-f32.tif", 0}, {"ltn_tiger-rgb-float-strip-contig-16.tif", 0}, {"ltn_tiger-rgb-float-strip-contig-32.tif", 0},
                              {"ltn_tiger-rgb-float-strip-planar-32.tif", 0}, {"tm_shapes_lzw_predictor3.tif", 0},
                              {"ltn_tiger-rgb-float-tile-contig-32.tif_converted_lzw_3.tif", 0}}) {
        SCOPED_TRACE(name);
        const std::string path = (oltest::testdataDir() / "floattiff" / name).string();
        const Npy truth = oltest::readNpy(path + ".truth.npy");
        ASSERT_GE(truth.shape.size(), 3u);
        const int height = static_cast<int>(truth.shape[0]), width = static_cast<int>(truth.shape[1]);
        Bytes planes(4u * width * height);
        float stats[3] = {0, 0, 0};
        const int r = fp2rgbe(path.c_str(), width, height, stats, planes.data());
        EXPECT_EQ(r, code < 0 ? code : height);
        if (code != 1) continue;
        std::vector<float> rgb(3u * width * height);
        float maxLum = 0.0f;
        for (std::size_t i = 0; i < rgb.size() / 3; ++i) {
            for (int k = 0; k < 3; ++k) rgb[3 * i + k] = truth.f32(i * truth.shape[2] + k);
            maxLum = std::max(maxLum, static_cast<float>(0.3 * rgb[3 * i] + 0.6 * rgb[3 * i + 1] + 0.1 * rgb[3 * i + 2]));
        }
        EXPECT_EQ(encodingMismatches(planes, width, height, rgb), 0);
        EXPECT_EQ(stats[1], 256.0f * maxLum);
    }
}

TEST(RadianceDamaged, CutAndScrambledFilesReturn) {
    oltest::TempDir dir;
    const int W = 96, H = 200;
    const Bytes px = photoPlanes(W, H, 5);
    const ExifRecord e = emptyExif();
    const std::string good = dir.file("good.hdr");
    ASSERT_EQ(ol_io_rgbe_write(good.c_str(), W, H, &e, nullptr, "sRGB", px.data()), H);
    const Bytes file = oltest::readFile(good);
    const std::string path = dir.file("bad.hdr");
    std::mt19937 rng(3);
    // Cut copies, copies with bytes changed, and random bytes of growing length.
    for (int round = 0; round < 80; ++round) {
        SCOPED_TRACE(round);
        Bytes b = round < 60 ? file : oltest::randomBytes(1 + (round - 60) * 997, static_cast<std::uint32_t>(round));
        const bool cut = round < 60 && round % 3 == 0;
        if (cut) b.resize(rng() % file.size());
        for (int i = 0, flips = 1 + static_cast<int>(rng() % 20); round < 60 && !cut && i < flips; ++i)
            b[rng() % b.size()] = static_cast<std::uint8_t>(rng());
        oltest::writeFile(path, b);
        runAllReaders(path);
        Bytes out(px.size());
        if (cut) { EXPECT_TRUE(decodeRle(path, W, H, out) < 0 && decodeStream(path, W, H, out) < 0) << "a cut file is never read whole"; }
    }
    // fp_save's kept 3x2 float TIFF cut at every length up to past its directory.
    const Bytes t = oltest::fixture("float_tiff/save_3x2.tif");
    for (std::size_t n = 0; n <= t.size(); n += 3) {
        oltest::writeFile(path, Bytes(t.begin(), t.begin() + static_cast<long>(n)));
        Bytes planes(4 * 3 * 2);
        float stats[3];
        const int r = fp2rgbe(path.c_str(), 3, 2, stats, planes.data());
        EXPECT_TRUE(r == 2 || r == -3 || r == -4) << n;
    }
}
