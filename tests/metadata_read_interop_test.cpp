// The metadata readers on files written by real tools: JPEG, TIFF and PSD
// tagged by exiftool, and PSD composites written by ImageMagick, compared with
// what ImageMagick reads back from them (the order of samples is pinned in
// metadata_psd_test.cpp).
#include <map>
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
// orders, with XMP) and a PSD made by ImageMagick (tests/interop/metadata_read.txt);
// the reader gives back what was tagged, and the IPTC block it points at
// holds the keywords.
TEST(MetareadInterop, WhatExiftoolWroteComesBack) {
    if (!haveTools()) GTEST_SKIP() << "needs ImageMagick convert and exiftool";
    TempDir dir;
    const std::string thumb = dir.file("th.jpg");
    run("convert -size 16x12 xc:green " + thumb);
    const auto files = interopSections("metadata_read.txt");
    ASSERT_EQ(files.size(), 5u);
    for (const auto& [head, lines] : files) {
        SCOPED_TRACE(head);
        std::map<std::string, std::string> r;  // make, tags, record, keyword
        for (const auto& l : lines) r[l.substr(0, l.find(':'))] = l.substr(l.find(':') + 2);
        const std::string name = head.substr(0, head.find(' ')), f = dir.file(name);
        const int type = std::stoi(head.substr(head.find(' ') + 1));
        std::string tags = r["tags"];
        if (const auto at = tags.find("{thumb}"); at != std::string::npos) tags.replace(at, 7, thumb);
        run("convert " + r["make"] + " " + f);
        run("exiftool -q -overwrite_original " + tags + " " + f);
        const std::string all = oltest::readText(f);  // substr throws, failing the test, outside the file
        std::string order = all.substr(0, 2), xmp;  // a TIFF's own; a JPEG's from exiftool
        if (type == 1) oltest::runCommand("exiftool -s3 -n -ExifByteOrder " + f, &order);
        const Records got = readExif(f, type);
        EXPECT_EQ(describe(got), r["record"]);
        const std::string iptc = iptcBlock(f, got.exif);
        EXPECT_TRUE(r["keyword"] == "-" ? iptc.empty() : iptc[0] == 0x1C && iptc.find(r["keyword"]) != std::string::npos)
            << iptc;
        if (type == 1) {
            // The embedded thumbnail; the XMP of a JPEG lives in its own
            // APP1 segment, which the walk never sees.
            const auto th = oltest::readFile(thumb);
            EXPECT_EQ(all.substr(got.exif.thumbOffset, got.exif.thumbLen), std::string(th.begin(), th.end()));
            EXPECT_EQ(got.exif.xmpLen, 0);
        } else if (type == 0) {
            oltest::runCommand("exiftool -b -XMP " + f, &xmp);
            EXPECT_EQ(all.substr(got.exif.xmpOffset, got.exif.xmpLen), xmp);  // the packet exiftool reports
        } else {
            PsdInfo info{};  // getPsdInfo finds the same TIFF block
            ASSERT_GT(getPsdInfo(f.c_str(), &info), 0);
            order = all.substr(info.exifStart, 2);
        }
        EXPECT_EQ(order.substr(0, 2), name.substr(0, 2));  // a PSD gets exiftool's default, MM
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
