// The metadata readers on files written by real tools: JPEG, TIFF and PSD
// tagged by exiftool, and PSD composites written by ImageMagick, compared with
// what ImageMagick reads back from them (the order of samples is pinned in
// metadata_psd_test.cpp).
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "support/metadata_bytes.hpp"

using namespace metatest;
using oltest::TempDir;

namespace {

bool haveTools() { return oltest::haveProgram("convert") && oltest::haveProgram("exiftool"); }

void run(const std::string& cmd) { ASSERT_EQ(oltest::runCommand(cmd + " 2>/dev/null"), 0) << cmd; }

// The record as one line: rationals as stored, GPS as decimal degrees and
// hours (exiftool's choice of rationals is its own).
std::string describe(const Records& r) {
    const ExifRecord& e = r.exif;
    const GpsRecord& g = r.gps;
    char s[512];
    std::snprintf(s, sizeof s,
                  "exp %d/%d ap %d/%d iso %d focal %d/%d f35 %d plane %d/%d unit %d or %d cam '%s' date '%s' "
                  "lat %c %.6f lon %c %.6f alt %d %.3f time %.6f gpsdate '%s'",
                  e.exposureNum, e.exposureDen, e.apertureNum, e.apertureDen, e.iso, e.focalNum, e.focalDen, e.focal35,
                  e.planeResNum, e.planeResDen, e.planeResUnit, e.orientation, field(e.camera, 64).c_str(),
                  field(e.date, 20).c_str(), g.lat_ref ? g.lat_ref : '-', dms(g.latitude), g.long_ref ? g.long_ref : '-',
                  dms(g.longitude), g.alt_ref, g.altitude[1] ? static_cast<double>(g.altitude[0]) / g.altitude[1] : 0.0,
                  dms(g.timestamp), field(g.datestamp, 11).c_str());
    return s;
}

}  // namespace

// exiftool tags a JPEG (both byte orders, with a thumbnail), a TIFF (both
// orders, with XMP) and a PSD made by ImageMagick; the reader gives back what
// was tagged, and the IPTC block it points at holds the keywords.
TEST(MetareadInterop, WhatExiftoolWroteComesBack) {
    if (!haveTools()) GTEST_SKIP() << "needs ImageMagick convert and exiftool";
    TempDir dir;
    const std::string thumb = dir.file("th.jpg");
    run("convert -size 16x12 xc:green " + thumb);
    const std::string jpeg = "-size 64x48 gradient:red-blue",
                      jpegTags = " -Model='Interop Cam' -ExposureTime=1/250 -FNumber=5.6 -ISO=400"
                                 " '-DateTimeOriginal=2023:04:05 06:07:08' -FocalLength=35 -FocalLengthIn35mmFormat=52"
                                 " -FocalPlaneXResolution=3200.5 -FocalPlaneResolutionUnit#=3 -Orientation#=6"
                                 " -GPSLatitude=48.8583 -GPSLatitudeRef=N -GPSLongitude=2.2945 -GPSLongitudeRef=W"
                                 " -GPSAltitude=35.5 -GPSAltitudeRef#=1 -GPSTimeStamp=10:20:30.5 -GPSDateStamp=2023:04:05"
                                 " -Keywords=alpha -Keywords=beta -XMP-dc:Title=Hello '-ThumbnailImage<=" + thumb + "'",
                      jpegRecord = "exp 100/25000 ap 560/100 iso 400 focal 3500/100 f35 52 plane 320050/100 unit 3 or 6 "
                                   "cam 'Interop Cam' date '2023:04:05 06:07:08' lat N 48.858300 lon W 2.294500 alt 1 "
                                   "35.500 time 10.341806 gpsdate '2023:04:05'";
    // ISO present: ExposureIndex is not used.
    const std::string tiff = "-size 32x24 xc:gray -depth 8 -define tiff:endian=",
                      tiffTags = "-Model='Tiff Cam' -ExposureTime=2.5 -FNumber=11 -ISO=100 -ExposureIndex=250"
                                 " -FocalLength=200 -GPSLatitude=10.5 -GPSLatitudeRef=S -Keywords=gamma -Keywords=delta"
                                 " -XMP-dc:Title=Yo",
                      tiffRecord = "exp 250/100 ap 1100/100 iso 100 focal 20000/100 f35 0 plane 0/0 unit 0 or 1 "
                                   "cam 'Tiff Cam' date '' lat S 10.500000 lon - 0.000000 alt 0 0.000 time 0.000000 gpsdate ''";
    const struct {
        std::string name;
        int type;
        std::string make, tags, record, keyword;
    } rows[] = {
        {"II.jpg", 1, jpeg, "-ExifByteOrder=II" + jpegTags, jpegRecord, "beta"},
        {"MM.jpg", 1, jpeg, "-ExifByteOrder=MM" + jpegTags, jpegRecord, "beta"},
        {"II.tif", 0, tiff + "lsb", tiffTags, tiffRecord, "delta"},
        {"MM.tif", 0, tiff + "msb", tiffTags, tiffRecord, "delta"},
        {"MM.psd", 2, "-size 20x10 gradient:red-blue -depth 8",
         "-Model='Psd Cam' -ExposureTime=1/30 -ISO=800 -Orientation#=3 -FocalLength=24",
         "exp 100/3000 ap 0/0 iso 800 focal 2400/100 f35 0 plane 0/0 unit 0 or 3 cam 'Psd Cam' date '' "
         "lat - 0.000000 lon - 0.000000 alt 0 0.000 time 0.000000 gpsdate ''", ""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        const std::string f = dir.file(r.name);
        run("convert " + r.make + " " + f);
        run("exiftool -q -overwrite_original " + r.tags + " " + f);
        const std::string all = oltest::readText(f);  // substr throws, failing the test, outside the file
        std::string order = all.substr(0, 2), xmp;  // a TIFF's own; a JPEG's from exiftool
        if (r.type == 1) oltest::runCommand("exiftool -s3 -n -ExifByteOrder " + f, &order);
        const Records got = readExif(f, r.type);
        EXPECT_EQ(describe(got), r.record);
        const std::string iptc = iptcBlock(f, got.exif);
        EXPECT_TRUE(r.keyword.empty() ? iptc.empty() : iptc[0] == 0x1C && iptc.find(r.keyword) != std::string::npos) << iptc;
        if (r.type == 1) {
            // The embedded thumbnail; the XMP of a JPEG lives in its own
            // APP1 segment, which the walk never sees.
            const auto th = oltest::readFile(thumb);
            EXPECT_EQ(all.substr(got.exif.thumbOffset, got.exif.thumbLen), std::string(th.begin(), th.end()));
            EXPECT_EQ(got.exif.xmpLen, 0);
        } else if (r.type == 0) {
            oltest::runCommand("exiftool -b -XMP " + f, &xmp);
            EXPECT_EQ(all.substr(got.exif.xmpOffset, got.exif.xmpLen), xmp);  // the packet exiftool reports
        } else {
            PsdInfo info{};  // getPsdInfo finds the same TIFF block
            ASSERT_GT(getPsdInfo(f.c_str(), &info), 0);
            order = all.substr(info.exifStart, 2);
        }
        EXPECT_EQ(order.substr(0, 2), r.name.substr(0, 2));  // a PSD gets exiftool's default, MM
    }
}

// PSD composites written by ImageMagick at both depths, raw and PackBits,
// against ImageMagick's own reading of them.
TEST(MetareadInterop, PsdCompositesMatchImageMagicksReading) {
    if (!haveTools()) GTEST_SKIP() << "needs ImageMagick convert and exiftool";
    TempDir dir;
    const std::string src = dir.file("src.png"), psd = dir.file("a.psd"), raw = dir.file("a.rgb");
    // An odd size, a swirl for varied rows, and in 16 bits noise in the low byte.
    run("convert -size 37x23 gradient:red-blue -swirl 90 -alpha off " + src);
    for (const auto& [depth, compression] : {std::pair{8, "None"}, {8, "RLE"}, {16, "None"}, {16, "RLE"}}) {
        SCOPED_TRACE(std::to_string(depth) + compression);
        const std::string extra = depth == 16 ? " -evaluate add 0.37% +noise Uniform" : "", d = std::to_string(depth);
        run("convert " + src + extra + " -depth " + d + " -compress " + compression + " " + psd);
        run("convert '" + psd + "[0]'" + " -depth " + d + " -endian LSB rgb:" + raw);
        PsdInfo info{};
        ASSERT_GT(getPsdInfo(psd.c_str(), &info), 0);
        EXPECT_EQ((std::vector<int>{info.width, info.height, info.bps}), (std::vector<int>{37, 23, depth}));
        std::vector<std::uint8_t> out(static_cast<std::size_t>(37) * 23 * 3 * (depth / 8), 0);
        ASSERT_EQ(load_psd(1, psd.c_str(), &info, 3 * 37, out.data()), 23);
        EXPECT_TRUE(out == oltest::readFile(raw));
    }
}
