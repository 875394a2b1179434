// Files and blocks from the metadata writers, read back by real tools.
//
// The writer's output deviates from the published standards in known ways,
// and the tools say so; these are the only warnings accepted:
//  - the IFD0 tag order (PlanarConfiguration before the resolutions, XMP
//    behind the ICC profile), kept for compatibility with earlier files;
//  - GPSAltitudeRef written as a two-byte ASCII item instead of a BYTE;
//  - the XMP packet without xpacket processing instructions;
//  - no ResolutionUnit in IFD0;
//  - odd offsets: the metadata follows the pixels with no padding;
//  - the tags the writers never produce: ExifVersion, FlashpixVersion,
//    ColorSpace, GPSProcessingMethod, and in a JPEG the IFD0 and Exif tags
//    that belong to the host's own image (resolutions, YCbCrPositioning,
//    ComponentsConfiguration, the Exif image size).
#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>

#include "support/metadata_bytes.hpp"

using namespace metatest;
using oltest::haveProgram;
using oltest::runCommand;
using oltest::TempDir;

namespace {

const std::set<std::string> kAllowedExiftoolWarnings = {
    "Entries in IFD0 are out of order",
    "Tag ID 0x011a XResolution out of sequence in IFD0",
    "Tag ID 0x02bc ApplicationNotes out of sequence in IFD0",
    "[minor] XMP is missing xpacket wrapper",
    "Non-standard format (string) for GPS 0x0005 GPSAltitudeRef",
    "[minor] Unknown value for GPS:GPSAltitudeRef",
    "Missing required TIFF IFD0 tag 0x0128 ResolutionUnit",
    "Missing required TIFF ExifIFD tag 0x9000 ExifVersion",
    "Missing required TIFF ExifIFD tag 0xa000 FlashpixVersion",
    "Missing required TIFF ExifIFD tag 0xa001 ColorSpace",
    "Missing required TIFF GPS tag 0x001b GPSProcessingMethod",
    "Missing required JPEG ExifIFD tag 0x9000 ExifVersion",
    "Missing required JPEG ExifIFD tag 0x9101 ComponentsConfiguration",
    "Missing required JPEG ExifIFD tag 0xa000 FlashpixVersion",
    "Missing required JPEG ExifIFD tag 0xa001 ColorSpace",
    "Missing required JPEG ExifIFD tag 0xa002 ExifImageWidth",
    "Missing required JPEG ExifIFD tag 0xa003 ExifImageHeight",
    "Missing required JPEG IFD0 tag 0x011a XResolution",
    "Missing required JPEG IFD0 tag 0x011b YResolution",
    "Missing required JPEG IFD0 tag 0x0128 ResolutionUnit",
    "Missing required JPEG IFD0 tag 0x0213 YCbCrPositioning",
    "Missing required JPEG GPS tag 0x001b GPSProcessingMethod",
};

// libtiff's complaints, same causes: the tag order and the ASCII altitude reference.
const std::vector<std::string> kAllowedTiffinfoWarnings = {
    "tags are not sorted in ascending order",
    "Wrong data type 2 for \"AltitudeRef\"; tag ignored",
};

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// Collapses runs of blanks, so that column-aligned output compares simply.
std::string squeeze(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == ' ' && !out.empty() && out.back() == ' ') continue;
        out += c;
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

// Every expected line stands in the output, blanks collapsed and leading
// blanks dropped.
void expectLines(const std::string& output, const std::vector<std::string>& expected, const std::string& tool) {
    std::vector<std::string> got;
    for (const auto& l : lines(output)) {
        const auto first = l.find_first_not_of(' ');
        got.push_back(first == std::string::npos ? "" : squeeze(l.substr(first)));
    }
    for (const auto& e : expected)
        EXPECT_NE(std::find(got.begin(), got.end(), squeeze(e)), got.end()) << tool << " lacks: " << e << "\n" << output;
}

void expectOnlyAllowedExiftoolWarnings(const std::string& output) {
    // Lines read "[ExifTool]      Warning        : message".
    for (const auto& l : lines(output)) {
        const auto colon = l.find(" : ");
        if (colon == std::string::npos) continue;
        if (squeeze(l.substr(0, colon)) != "[ExifTool] Warning") continue;
        const std::string message = l.substr(colon + 3);
        // Nothing aligns the metadata to a word boundary: behind an odd
        // number of pixel bytes every offset is odd.
        if (message.rfind("[minor] Odd offset for ", 0) == 0) continue;
        EXPECT_TRUE(kAllowedExiftoolWarnings.count(message)) << "unexpected exiftool warning: " << message;
    }
}

// A small but complete RGB display profile: header and a white point tag.
std::vector<std::uint8_t> rgbProfile() {
    std::vector<std::uint8_t> p = iccHeader("RGB ", 164);
    const std::uint8_t table[] = {0, 0, 0, 1, 'w', 't', 'p', 't', 0, 0, 0, 144, 0, 0, 0, 20};
    std::memcpy(&p[128], table, sizeof table);
    const std::uint8_t xyz[] = {'X', 'Y', 'Z', ' ', 0, 0, 0, 0, 0, 0, 0xF6, 0xD6, 0, 1, 0, 0, 0, 0, 0xD3, 0x2D};
    std::memcpy(&p[144], xyz, sizeof xyz);
    return p;
}

std::vector<std::uint8_t> keywords() {
    std::vector<std::uint8_t> a(64), b(64);
    add_iptc_keyword(0, nullptr, 5, reinterpret_cast<const unsigned char*>("alpha"), a.data());
    add_iptc_keyword(17, a.data(), 4, reinterpret_cast<const unsigned char*>("beta"), b.data());
    b.resize(26);
    return b;
}

const float kTm[15] = {1, 2, 3, 0.5f, 0.1f, 2, 3, 4, 25, 5, 6, 7, 8, 9, 10};

const std::vector<std::string> kExiftoolValues = {
    "[IFD0] Model: TestCam 5",
    "[IFD0] Orientation: 6",
    "[ExifIFD] ExposureTime: 0.008",
    "[ExifIFD] FNumber: 5.6",
    "[ExifIFD] ISO: 200",
    "[ExifIFD] DateTimeOriginal: 2024:05:06 07:08:09",
    "[ExifIFD] FocalLength: 35",
    "[GPS] GPSVersionID: 2 2 0 0",
    "[GPS] GPSLatitudeRef: N",
    "[GPS] GPSLatitude: 48.8566666666667",
    "[GPS] GPSLongitudeRef: E",
    "[GPS] GPSLongitude: 2.35",
    "[GPS] GPSAltitude: 35",
    "[GPS] GPSTimeStamp: 07:08:09",
    "[GPS] GPSDateStamp: 2024:05:06",
};
const std::string kExiftoolTags =
    " -Model -Orientation -ExposureTime -FNumber -ISO -DateTimeOriginal -FocalLength -GPSVersionID"
    " -GPSLatitudeRef -GPSLatitude -GPSLongitudeRef -GPSLongitude -GPSAltitude -GPSTimeStamp -GPSDateStamp";

class MetawriteInterop : public ::testing::TestWithParam<std::pair<int, int>> {};

}  // namespace

TEST_P(MetawriteInterop, TiffReadByTiffinfoExiftoolAndExiv2) {
    const auto [samples, bits] = GetParam();
    if (!haveProgram("tiffinfo") || !haveProgram("exiftool") || !haveProgram("exiv2"))
        GTEST_SKIP() << "tiffinfo, exiftool or exiv2 missing";
    TempDir dir;
    const std::string path = dir.file("meta.tif");
    const int width = 5, height = 3, bytes = bits / 8;
    const std::string b = std::to_string(bits);
    const int stride = width * samples * bytes + 4 * bytes;  // padded rows
    std::vector<std::uint8_t> data(static_cast<std::size_t>(stride) * height);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i * 37 + 11);
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    const auto icc = rgbProfile();
    const auto iptc = keywords();
    tif_info info = makeInfo(width, height, samples, bits);
    info.lProfil = static_cast<int>(icc.size());
    info.orientation = 6;
    ASSERT_GT(buf2tifOld(data.data(), &info, stride, icc.data(), &ex, &gps, static_cast<int>(iptc.size()),
                         iptc.data(), 1, kTm, path.c_str()),
              0);

    // tiffinfo: the image description, metadata and both sub-IFDs.
    std::string out;
    ASSERT_EQ(runCommand("tiffinfo '" + path + "' 2>&1", &out), 0) << out;
    for (const auto& l : lines(out)) {
        if (l.find("Warning") == std::string::npos) continue;
        EXPECT_TRUE(std::any_of(kAllowedTiffinfoWarnings.begin(), kAllowedTiffinfoWarnings.end(),
                                [&](const std::string& w) { return l.find(w) != std::string::npos; }))
            << "unexpected libtiff warning: " << l;
    }
    std::vector<std::string> expected = {
        "Image Width: 5 Image Length: 3",
        "Resolution: 300, 300",
        "Bits/Sample: " + b,
        "Compression Scheme: None",
        samples == 1 ? "Photometric Interpretation: min-is-black" : "Photometric Interpretation: RGB color",
        "Orientation: row 0 rhs, col 0 top",
        "Rows/Strip: 3",
        "Model: TestCam 5",
        "ICC Profile: <present>, 164 bytes",
        "RichTIFFIPTC Data: <present>, 28 bytes",
        "<oltm:Method>Details Enhancer</oltm:Method>",
        "<oltm:Smoothing>Medium </oltm:Smoothing>",
        "<oltm:Gamma>1.4</oltm:Gamma>",
        "ExposureTime: 0.008000",
        "FNumber: 5.600000",
        "ISOSpeedRatings: 200",
        "DateTimeOriginal: 2024:05:06 07:08:09",
        "FocalLength: 35.000000",
        "VersionID: 2,2,0,0",
        "LatitudeRef: N",
        "Latitude: 48.000000,51.000000,24.000000",
        "LongitudeRef: E",
        "Longitude: 2.000000,21.000000,0.000000",
        "Altitude: 35.000000",
        "TimeStamp: 7.000000,8.000000,9.000000",
        "DateStamp: 2024:05:06",
    };
    if (samples > 1) expected.push_back("Samples/Pixel: 3");
    expectLines(out, expected, "tiffinfo");

    // exiftool: validation warnings, then the values.
    ASSERT_EQ(runCommand("exiftool -validate -warning -a -G1 -s '" + path + "' 2>&1", &out), 0) << out;
    expectOnlyAllowedExiftoolWarnings(out);
    ASSERT_EQ(runCommand("exiftool -n -s2 -a -G1" + kExiftoolTags +
                             " -Keywords -XMP-oltm:Method -XMP-oltm:Gamma -XMP-oltm:Smoothing -BitsPerSample"
                             " -SamplesPerPixel -ImageWidth -ImageHeight -ProfileClass '" +
                             path + "' 2>&1",
                         &out),
              0);
    std::vector<std::string> values = kExiftoolValues;
    values.insert(values.end(), {"[IPTC] Keywords: alpha, beta", "[XMP-oltm] Method: Details Enhancer",
                                 "[XMP-oltm] Gamma: 1.4", "[XMP-oltm] Smoothing: Medium", "[IFD0] ImageWidth: 5",
                                 "[IFD0] ImageHeight: 3", "[ICC-header] ProfileClass: mntr",
                                 "[IFD0] BitsPerSample: " + (samples == 1 ? b : b + " " + b + " " + b)});
    expectLines(out, values, "exiftool");

    // exiv2.
    ASSERT_EQ(runCommand("exiv2 -pa '" + path + "' 2>" + dir.file("exiv2.err"), &out), 0);
    EXPECT_TRUE(oltest::readFile(dir.file("exiv2.err")).empty()) << "exiv2 printed on stderr";
    expectLines(out,
                {"Exif.Image.ImageWidth Short 1 5",
                 samples == 1 ? "Exif.Image.BitsPerSample Short 1 " + b
                              : "Exif.Image.BitsPerSample Short 3 " + b + " " + b + " " + b,
                 "Exif.Image.Model Ascii 10 TestCam 5",
                 "Exif.Image.StripByteCounts Long 1 " + std::to_string(width * height * samples * bytes),
                 "Exif.Photo.ExposureTime Rational 1 1/125 s",
                 "Exif.Photo.FNumber Rational 1 F5.6",
                 "Exif.Photo.ISOSpeedRatings Short 1 200",
                 "Exif.Photo.DateTimeOriginal Ascii 20 2024:05:06 07:08:09",
                 "Exif.Photo.FocalLength Rational 1 35.0 mm",
                 "Exif.GPSInfo.GPSVersionID Byte 4 2.2.0.0",
                 "Exif.GPSInfo.GPSLatitudeRef Ascii 2 North",
                 "Exif.GPSInfo.GPSLatitude Rational 3 48deg 51' 24\"",
                 "Exif.GPSInfo.GPSLongitudeRef Ascii 2 East",
                 "Exif.GPSInfo.GPSAltitude Rational 1 35.0 m",
                 "Exif.GPSInfo.GPSTimeStamp Rational 3 07:08:09",
                 "Exif.GPSInfo.GPSDateStamp Ascii 11 2024:05:06",
                 "Iptc.Application2.Keywords String 5 alpha",
                 "Iptc.Application2.Keywords String 4 beta",
                 "Xmp.oltm.Method XmpText 16 Details Enhancer",
                 "Xmp.oltm.WhiteClip XmpText 8 0.500000",
                 "Xmp.oltm.Gamma XmpText 3 1.4"},
                "exiv2");

    // The pixels as a TIFF library decodes them.
    if (oltest::havePythonModule("tifffile")) {
        ASSERT_EQ(runCommand(oltest::systemPython() +
                                 " -c \"import sys,tifffile; sys.stdout.write(tifffile.imread(sys.argv[1]).tobytes().hex())\" '" +
                                 path + "'",
                             &out),
                  0);
        std::string want;
        char hex[3];
        for (int r = 0; r < height; ++r)
            for (int i = 0; i < width * samples * bytes; ++i) {
                std::snprintf(hex, sizeof hex, "%02x", data[static_cast<std::size_t>(r * stride + i)]);
                want += hex;
            }
        EXPECT_EQ(out, want);
    }
}

INSTANTIATE_TEST_SUITE_P(DepthsAndSamples, MetawriteInterop,
                         ::testing::Values(std::make_pair(1, 8), std::make_pair(3, 8), std::make_pair(1, 16),
                                           std::make_pair(3, 16)),
                         [](const auto& info) {
                             return std::to_string(info.param.first) + "x" + std::to_string(info.param.second);
                         });

TEST(MetawriteInteropJpeg, ExifBlockInAnApp1SegmentReadByExiftool) {
    if (!haveProgram("exiftool") || !haveProgram("convert")) GTEST_SKIP() << "exiftool or ImageMagick missing";
    TempDir dir;
    ASSERT_EQ(runCommand("convert -size 8x8 xc:gray50 '" + dir.file("base.jpg") + "'"), 0);
    const auto base = oltest::readFile(dir.file("base.jpg"));
    ASSERT_GT(base.size(), 2u);

    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    std::vector<std::uint8_t> block(1024, 0);
    const int len = exifBlockInto(ex, gps, 6, block.data());
    ASSERT_GT(len, 0);
    block.resize(static_cast<std::size_t>(len));

    // SOI, then APP1 "Exif\0\0" + block, then the rest of the JPEG.
    Bytes jpeg(base.begin(), base.begin() + 2);
    appendSegment(jpeg, 0xE1, exifPayload(block));
    jpeg.insert(jpeg.end(), base.begin() + 2, base.end());
    const std::string path = dir.file("exif.jpg");
    oltest::writeFile(path, jpeg);

    std::string out;
    ASSERT_EQ(runCommand("exiftool -validate -warning -a -G1 -s '" + path + "' 2>&1", &out), 0) << out;
    expectOnlyAllowedExiftoolWarnings(out);
    ASSERT_EQ(runCommand("exiftool -n -s2 -a -G1" + kExiftoolTags + " '" + path + "' 2>&1", &out), 0);
    expectLines(out, kExiftoolValues, "exiftool");
    if (haveProgram("exiv2")) {
        ASSERT_EQ(runCommand("exiv2 -pa '" + path + "' 2>/dev/null", &out), 0);
        expectLines(out,
                    {"Exif.Image.Model Ascii 10 TestCam 5", "Exif.Image.Orientation Short 1 right, top",
                     "Exif.Photo.ExposureTime Rational 1 1/125 s", "Exif.GPSInfo.GPSDateStamp Ascii 11 2024:05:06"},
                    "exiv2");
    }
}
