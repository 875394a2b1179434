// TIFF writer with metadata: layout, offsets, pixel paths and the profile
// rule, as whole files. Its failure codes are in write_failure_test.cpp.
#include <cstring>
#include <numeric>

#include "support/metadata_bytes.hpp"

using namespace metatest;
using oltest::readFile;
using oltest::TempDir;

// Records are described with designated initializers; the members left out
// are zero, as meant.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

struct Written {
    int result;
    Bytes bytes;
};

// What goes beside the pixels; nothing by default.
struct Extras {
    const Bytes* profile = nullptr;
    const ExifRecord* exif = nullptr;
    const GpsRecord* gps = nullptr;
    const Bytes* iptc = nullptr;
    int tmMethod = 0;
    const float* tm = nullptr;
};

Written write(const void* data, const tif_info& info, int stride, const Extras& x = {}) {
    TempDir dir;
    const std::string path = dir.file("out.tif");
    tif_info ti = info;
    ti.lProfil = x.profile ? static_cast<int>(x.profile->size()) : 0;
    const int r = buf2tifOld(data, &ti, stride, x.profile ? x.profile->data() : nullptr, x.exif, x.gps,
                             x.iptc ? static_cast<int>(x.iptc->size()) : 0, x.iptc ? x.iptc->data() : nullptr,
                             x.tmMethod, x.tm, path.c_str());
    return {r, readFile(path)};
}

// A file of one RGB pixel, whose IFD starts at 11.
Written onePixel(const Extras& x = {}, int orientation = 1) {
    const std::uint8_t px[3] = {1, 2, 3};
    tif_info info = makeInfo(1, 1, 3, 8);
    info.orientation = orientation;
    return write(px, info, 3, x);
}

}  // namespace

// Whole written files against the kept ones (tests/fixtures/README.md says
// what each pins: entry order, offsets, padding, texts, pixel paths).
TEST(MetawriteTiff, WrittenFilesMatchTheKeptOnes) {
    const ExifRecord ex0 = emptyExif(), exFull = fullExif();
    const GpsRecord gps0 = emptyGps(), gpsFull = fullGps();
    const auto icc = iccHeader("RGB "), gray = iccHeader("GRAY");
    const Bytes p21 = patched(Bytes(21, 0), 16, {'R', 'G', 'B'}), p21x = patched(p21, 18, {'X'}), p20(20, 0x55);
    const Bytes iptcFull = {0x1C, 2, 0, 0, 2, 0, 4, 0x1C, 2, 0x19, 0, 5, 'a', 'l', 'p', 'h', 'a',
                            0x1C, 2, 0x19, 0, 4, 'b', 'e', 't', 'a', 0x1C};  // 27 bytes, padded to 28
    const Bytes iptc5 = {0x1C, 2, 0, 0, 0};
    const float tm[15] = {1, 2, 3, 0.5f, 0.1f, 2, 3, 4, 25, 5, 6, 7, 8, 9, 10}, tm0[15] = {};
    // A short date (the GPS date copies 8 bytes of it), a date alone, a camera
    // that fits the value field yet is written at an offset, rationals that
    // each miss a part or have a negative one.
    const ExifRecord shortDate{.date = "2024:05"}, dated{.date = "2024:01:01 00:00:00"}, eos{.camera = "EOS"},
        badRationals{.exposureNum = 1, .apertureDen = 10, .iso = -100, .focalNum = -35, .focalDen = 1};
    ExifRecord full = ex0;
    std::memset(full.camera, 'C', sizeof full.camera);
    std::memset(full.date, 'D', sizeof full.date);
    // References are signed bytes; zero parts count as missing.
    const GpsRecord latRefOnly{
        .latitude = {10}, .timestamp = {0, 1}, .lat_ref = 'S', .long_ref = static_cast<char>(0xC5)};
    Bytes seq(16);
    std::iota(seq.begin(), seq.end(), 0);
    const Bytes four = {1, 2, 3, 4, 5, 6, 7, 8, 90, 91, 11, 12, 13, 14, 15, 16, 17, 18, 92, 93};
    const Bytes two = {10, 20, 11, 21, 12, 22, 99};
    const Bytes strided = {1, 2, 3, 4, 5, 6, 0xEE, 0xEE, 7, 8, 9, 10, 11, 12, 0xEE, 0xEE};
    const Bytes words = {0x01, 0x11, 0x02, 0x22, 0xFF, 0xFF, 0x03, 0x33, 0x04, 0x44, 0xFF, 0xFF};
    Bytes px(4 * 3 * 3 * 2);  // a ramp of step 7
    for (std::size_t i = 0; i < px.size(); ++i) px[i] = static_cast<std::uint8_t>(i * 7 + 1);
    tif_info orient0 = makeInfo(2, 2, 3, 8);
    orient0.orientation = 0;
    struct Row {
        const char* file;
        int result;
        Written w;
    };
    // The plain build prints nothing, on any path.
    oltest::CaptureFd out(1);
    oltest::CaptureFd err(2);
    Bytes block(1024, 0);
    exifBlockInto(exFull, gpsFull, 1, block.data());
    const Row rows[] = {
        {"minimal_rgb.tif", 184, write(px.data(), orient0, 6, {.exif = &ex0, .gps = &gps0})},
        {"rgb16.tif", 184, write(px.data(), makeInfo(3, 2, 3, 16), 18, {.exif = &ex0, .gps = &gps0})},
        {"gray.tif", 178, write(px.data(), makeInfo(5, 2, 1, 8), 5)},
        {"full_layout.tif", 230 + embed_xmp(0, nullptr, 1, tm) + 1 + 10 + 205 + 110 + 28 + 6 + 132 + 20,
         write(px.data(), makeInfo(4, 3, 3, 8), 12, {&icc, &exFull, &gpsFull, &iptcFull, 1, tm})},
        {"gps_short_exif_date.tif", 439, onePixel({.exif = &shortDate, .gps = &gpsFull})},
        {"gps_no_exif_date.tif", 401, onePixel({.exif = &ex0, .gps = &gpsFull})},
        {"no_exif_from_bad_rationals.tif", 184, onePixel({.exif = &badRationals, .gps = &gps0})},
        {"exif_date_alone.tif", 234, onePixel({.exif = &dated, .gps = &gps0})},
        {"gps_lat_ref_only.tif", 226, onePixel({.exif = &ex0, .gps = &latRefOnly})},
        {"iptc_padded.tif", 184 + 12 + 8, onePixel({.iptc = &iptc5})},
        {"xmp_method3.tif", 475, onePixel({.tmMethod = 3, .tm = tm0})},
        {"one_pixel_bare.tif", 184, onePixel({.tmMethod = -1, .tm = tm0})},
        {"one_pixel_bare.tif", 184, onePixel({.profile = &gray})},
        {"one_pixel_bare.tif", 184, onePixel({.profile = &p21x})},
        {"one_pixel_bare.tif", 184, onePixel({}, 9)},
        {"one_pixel_bare.tif", 184, onePixel({}, -3)},
        {"orientation8.tif", 184, onePixel({}, 8)},
        {"profile21_rgb.tif", 184 + 12 + 21, onePixel({.profile = &p21})},
        {"profile20_unexamined.tif", 184 + 12 + 20, onePixel({.profile = &p20})},
        {"model_eos.tif", 2 + 14 * 12 + 4 + 6 + 4 + 16, onePixel({.exif = &eos})},
        {"full_camera_and_date.tif", 312, onePixel({.exif = &full})},
        {"four_samples.tif", 184, write(four.data(), makeInfo(2, 2, 4, 8), 10)},
        {"two_samples.tif", 178, write(two.data(), makeInfo(3, 1, 2, 8), 7)},
        {"four_samples16.tif", 184, write(seq.data(), makeInfo(2, 1, 4, 16), 16)},
        {"stride.tif", 184, write(strided.data(), makeInfo(2, 2, 3, 8), 8)},
        {"mode1_high_bytes.tif", 178, write(words.data(), makeInfo(2, 2, 1, 8, 1), 3)},
        {"mode2_no_pixels.tif", 184, write(px.data(), makeInfo(2, 2, 3, 8, 2), 6)},
        {"size_cut_to_16_bits.tif", 178, write(nullptr, makeInfo(70000, 65539, 1, 8, 2), 70000)},
    };
    EXPECT_EQ(err.finish(), "");
    EXPECT_EQ(out.finish(), "");
    for (const Row& r : rows) {
        SCOPED_TRACE(r.file);
        EXPECT_EQ(r.w.result, r.result);
        EXPECT_TRUE(oltest::matchesFixture(std::string("tiff/") + r.file, r.w.bytes));
    }
}
