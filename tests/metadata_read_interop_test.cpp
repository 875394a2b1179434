// The metadata readers on files written by real tools: JPEG, TIFF and PSD
// tagged by exiftool in both byte orders, and PSD composites written by
// ImageMagick, compared with what ImageMagick reads back from them.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "support/metadata_bytes.hpp"

using namespace metatest;
using oltest::TempDir;

namespace {

#define REQUIRE_TOOLS()                                                                                   \
    do {                                                                                                  \
        if (!oltest::haveProgram("convert") || !oltest::haveProgram("exiftool"))                          \
            GTEST_SKIP() << "needs ImageMagick convert and exiftool";                                     \
    } while (0)

void run(const std::string& cmd) { ASSERT_EQ(oltest::runCommand(cmd + " 2>/dev/null"), 0) << cmd; }

std::string fileBytes(const std::string& path, long offset, long len) {
    const auto all = oltest::readFile(path);
    if (offset < 0 || len < 0 || static_cast<std::size_t>(offset + len) > all.size()) return {};
    return std::string(all.begin() + offset, all.begin() + offset + len);
}

class JpegOrder : public ::testing::TestWithParam<const char*> {};

TEST_P(JpegOrder, ExiftoolTagsGpsIptcAndThumbnail) {
    REQUIRE_TOOLS();
    TempDir dir;
    const std::string jpg = dir.file("a.jpg"), thumb = dir.file("th.jpg");
    run("convert -size 64x48 gradient:red-blue " + jpg);
    run("convert -size 16x12 xc:green " + thumb);
    run("exiftool -q -overwrite_original -ExifByteOrder=" + std::string(GetParam()) +
        " -Model='Interop Cam' -ExposureTime=1/250 -FNumber=5.6 -ISO=400"
        " '-DateTimeOriginal=2023:04:05 06:07:08' -FocalLength=35 -FocalLengthIn35mmFormat=52"
        " -FocalPlaneXResolution=3200.5 -FocalPlaneResolutionUnit#=3 -Orientation#=6"
        " -GPSLatitude=48.8583 -GPSLatitudeRef=N -GPSLongitude=2.2945 -GPSLongitudeRef=W"
        " -GPSAltitude=35.5 -GPSAltitudeRef#=1 -GPSTimeStamp=10:20:30.5 -GPSDateStamp=2023:04:05"
        " -Keywords=alpha -Keywords=beta -XMP-dc:Title=Hello '-ThumbnailImage<=" + thumb + "' " + jpg);
    std::string order;
    oltest::runCommand("exiftool -s3 -n -ExifByteOrder " + jpg, &order);
    ASSERT_EQ(order.substr(0, 2), GetParam());

    const Records r = readExif(jpg, 1);
    EXPECT_EQ(r.exif.exposureNum, 100);
    EXPECT_EQ(r.exif.exposureDen, 25000);
    EXPECT_EQ(r.exif.apertureNum, 560);
    EXPECT_EQ(r.exif.apertureDen, 100);
    EXPECT_EQ(r.exif.iso, 400);
    EXPECT_EQ(r.exif.focalNum, 3500);
    EXPECT_EQ(r.exif.focal35, 52);
    EXPECT_EQ(r.exif.planeResNum, 320050);
    EXPECT_EQ(r.exif.planeResUnit, 3);
    EXPECT_EQ(r.exif.orientation, 6);
    EXPECT_EQ(field(r.exif.camera, 64), "Interop Cam");
    EXPECT_EQ(field(r.exif.date, 20), "2023:04:05 06:07:08");
    EXPECT_EQ(r.gps.lat_ref, 'N');
    EXPECT_EQ(r.gps.long_ref, 'W');
    EXPECT_EQ(r.gps.alt_ref, 1);
    EXPECT_NEAR(dms(r.gps.latitude), 48.8583, 1e-6);
    EXPECT_NEAR(dms(r.gps.longitude), 2.2945, 1e-6);
    ASSERT_NE(r.gps.altitude[1], 0u);
    EXPECT_DOUBLE_EQ(static_cast<double>(r.gps.altitude[0]) / r.gps.altitude[1], 35.5);
    EXPECT_NEAR(dms(r.gps.timestamp), 10 + 20 / 60.0 + 30.5 / 3600.0, 1e-9);
    EXPECT_EQ(field(r.gps.datestamp, 11), "2023:04:05");

    // The thumbnail the reader points at is the one exiftool embedded.
    const auto th = oltest::readFile(thumb);
    EXPECT_EQ(fileBytes(jpg, r.exif.thumbOffset, r.exif.thumbLen), std::string(th.begin(), th.end()));
    // The IPTC block of the APP13 segment holds both keywords.
    const std::string iptc = iptcBlock(jpg, r.exif);
    ASSERT_FALSE(iptc.empty());
    EXPECT_EQ(static_cast<unsigned char>(iptc[0]), 0x1C);
    EXPECT_NE(iptc.find("alpha"), std::string::npos);
    EXPECT_NE(iptc.find("beta"), std::string::npos);
    // XMP in a JPEG lives in its own APP1 segment, which the walk never sees.
    EXPECT_EQ(r.exif.xmpLen, 0);
}

INSTANTIATE_TEST_SUITE_P(Orders, JpegOrder, ::testing::Values("II", "MM"));

class TiffOrder : public ::testing::TestWithParam<const char*> {};

TEST_P(TiffOrder, ExiftoolTagsXmpAndIptc) {
    REQUIRE_TOOLS();
    TempDir dir;
    const std::string tif = dir.file("a.tif");
    const std::string endian = std::string(GetParam()) == "II" ? "lsb" : "msb";
    run("convert -size 32x24 xc:gray -depth 8 -define tiff:endian=" + endian + " " + tif);
    const auto head = oltest::readFile(tif);
    ASSERT_GE(head.size(), 2u);
    ASSERT_EQ(std::string(head.begin(), head.begin() + 2), GetParam());
    run("exiftool -q -overwrite_original -Model='Tiff Cam' -ExposureTime=2.5 -FNumber=11 -ISO=100"
        " -ExposureIndex=250 -FocalLength=200 -GPSLatitude=10.5 -GPSLatitudeRef=S -Keywords=gamma"
        " -Keywords=delta -XMP-dc:Title=Yo " + tif);

    const Records r = readExif(tif, 0);
    EXPECT_EQ(r.exif.exposureNum, 250);
    EXPECT_EQ(r.exif.exposureDen, 100);
    EXPECT_EQ(r.exif.apertureNum, 1100);
    EXPECT_EQ(r.exif.iso, 100);  // ISO present: ExposureIndex not used
    EXPECT_EQ(r.exif.focalNum, 20000);
    EXPECT_EQ(field(r.exif.camera, 64), "Tiff Cam");
    EXPECT_EQ(r.exif.orientation, 1);
    EXPECT_EQ(r.gps.lat_ref, 'S');
    EXPECT_NEAR(dms(r.gps.latitude), 10.5, 1e-9);

    // The XMP tag: the packet exiftool reports, at the offset the reader gives.
    std::string xmp;
    oltest::runCommand("exiftool -b -XMP " + tif, &xmp);
    ASSERT_GT(r.exif.xmpLen, 0);
    EXPECT_EQ(fileBytes(tif, r.exif.xmpOffset, r.exif.xmpLen), xmp);
    // The IPTC tag: the block with both keywords.
    const std::string iptc = iptcBlock(tif, r.exif);
    EXPECT_NE(iptc.find("gamma"), std::string::npos);
    EXPECT_NE(iptc.find("delta"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Orders, TiffOrder, ::testing::Values("II", "MM"));

TEST(MetareadInterop, ExifInsideAPsd) {
    REQUIRE_TOOLS();
    TempDir dir;
    const std::string psd = dir.file("a.psd");
    run("convert -size 20x10 gradient:red-blue -depth 8 " + psd);
    run("exiftool -q -overwrite_original -Model='Psd Cam' -ExposureTime=1/30 -ISO=800 -Orientation#=3"
        " -FocalLength=24 " + psd);
    const Records r = readExif(psd, 2);
    EXPECT_EQ(field(r.exif.camera, 64), "Psd Cam");
    EXPECT_EQ(r.exif.exposureDen, 3000);
    EXPECT_EQ(r.exif.iso, 800);
    EXPECT_EQ(r.exif.orientation, 3);
    EXPECT_EQ(r.exif.focalNum, 2400);
    PsdInfo info{};
    ASSERT_GT(getPsdInfo(psd.c_str(), &info), 0);
    EXPECT_GT(info.exifStart, 0);
    const std::string tiffHead = fileBytes(psd, info.exifStart, 2);
    EXPECT_TRUE(tiffHead == "II" || tiffHead == "MM");
}

struct PsdCase {
    int depth;
    const char* compression;
};

class ImageMagickPsd : public ::testing::TestWithParam<PsdCase> {};

TEST_P(ImageMagickPsd, CompositeMatchesImageMagicksReading) {
    REQUIRE_TOOLS();
    const PsdCase c = GetParam();
    TempDir dir;
    const std::string src = dir.file("src.png"), psd = dir.file("a.psd"), raw = dir.file("a.rgb");
    // An odd size, a swirl for varied rows, and in 16 bits noise in the low byte.
    run("convert -size 37x23 gradient:red-blue -swirl 90 -alpha off " + src);
    std::string extra = c.depth == 16 ? " -evaluate add 0.37% +noise Uniform" : "";
    run("convert " + src + extra + " -depth " + std::to_string(c.depth) + " -compress " + c.compression + " " + psd);
    run("convert '" + psd + "[0]'" + " -depth " + std::to_string(c.depth) + " -endian LSB rgb:" + raw);
    PsdInfo info{};
    ASSERT_GT(getPsdInfo(psd.c_str(), &info), 0);
    ASSERT_EQ(info.width, 37);
    ASSERT_EQ(info.height, 23);
    ASSERT_EQ(info.bps, c.depth);
    const std::size_t bytes = static_cast<std::size_t>(37) * 23 * 3 * (c.depth / 8);
    std::vector<std::uint8_t> out(bytes, 0);
    ASSERT_EQ(load_psd(1, psd.c_str(), &info, 3 * 37, out.data()), 23);
    const auto want = oltest::readFile(raw);
    ASSERT_EQ(want.size(), bytes);
    EXPECT_TRUE(out == want);
    // Order 0 gives the same pixels with first and last samples swapped.
    std::vector<std::uint8_t> bgr(bytes, 0);
    ASSERT_EQ(load_psd(0, psd.c_str(), &info, 3 * 37, bgr.data()), 23);
    const std::size_t s = static_cast<std::size_t>(c.depth / 8);
    long diff = 0;
    for (std::size_t px = 0; px < bytes / (3 * s); ++px)
        diff += std::memcmp(&bgr[(3 * px) * s], &want[(3 * px + 2) * s], s) != 0 ||
                std::memcmp(&bgr[(3 * px + 1) * s], &want[(3 * px + 1) * s], s) != 0;
    EXPECT_EQ(diff, 0);
}

INSTANTIATE_TEST_SUITE_P(Forms, ImageMagickPsd,
                         ::testing::Values(PsdCase{8, "None"}, PsdCase{8, "RLE"}, PsdCase{16, "None"},
                                           PsdCase{16, "RLE"}),
                         [](const auto& info) {
                             return std::to_string(info.param.depth) + info.param.compression;
                         });

}  // namespace
