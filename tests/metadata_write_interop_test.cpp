// Files and blocks from the metadata writers, read back by outside programs:
// one check a program and format. What each must print, and the only
// warnings accepted (with their causes), are kept as data in
// tests/interop/metadata_write.txt.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "support/metadata_bytes.hpp"

using namespace metatest;
using oltest::haveProgram;
using oltest::runCommand;
using oltest::TempDir;

namespace {

// The sections of the data file, "@ name" lines starting each.
const std::map<std::string, std::vector<std::string>>& expectations() {
    static const auto sections = [] {
        std::map<std::string, std::vector<std::string>> out;
        std::ifstream in(std::string(OL_SOURCE_DIR) + "/tests/interop/metadata_write.txt");
        std::vector<std::string>* cur = nullptr;
        for (std::string l; std::getline(in, l);) {
            if (l.rfind("@ ", 0) == 0) cur = &out[l.substr(2)];
            else if (cur && !l.empty() && l[0] != '#') cur->push_back(l);
        }
        return out;
    }();
    return sections;
}

// A section with its placeholders filled; "rgb: " lines only for `rgb`.
std::vector<std::string> section(const std::string& name, const std::map<std::string, std::string>& values = {},
                                 bool rgb = false) {
    std::vector<std::string> out;
    for (std::string l : expectations().at(name)) {
        if (l.rfind("rgb: ", 0) == 0) {
            if (!rgb) continue;
            l = l.substr(5);
        }
        for (const auto& [key, value] : values)
            for (auto at = l.find(key); at != std::string::npos; at = l.find(key)) l.replace(at, key.size(), value);
        out.push_back(l);
    }
    return out;
}

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

// Every warning line of `output` ("Warning :" from exiftool, "Warning," from
// libtiff; not exiftool's count of "Warnings") holds one of the allowed texts
// of the section.
void expectOnlyAllowedWarnings(const std::string& output, const std::string& section) {
    const auto& allowed = expectations().at(section);
    for (const auto& l : lines(output)) {
        const auto at = l.find("Warning");
        EXPECT_TRUE(at == std::string::npos || l[at + 7] == 's' ||
                    std::any_of(allowed.begin(), allowed.end(), [&](const std::string& w) { return l.find(w) != std::string::npos; }))
            << section << ": " << l;
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
    expectOnlyAllowedWarnings(out, "tiffinfo allowed warnings");
    const std::string bitsList = samples == 1 ? b : b + " " + b + " " + b;
    const std::map<std::string, std::string> fill = {
        {"{b}", b},
        {"{bits}", bitsList},
        {"{n}", samples == 1 ? "1" : "3"},
        {"{strip}", std::to_string(width * height * samples * bytes)},
        {"{photometric}", samples == 1 ? "min-is-black" : "RGB color"}};
    expectLines(out, section("tiffinfo tiff", fill, samples > 1), "tiffinfo");

    // exiftool: validation warnings, then the values.
    ASSERT_EQ(runCommand("exiftool -validate -warning -a -G1 -s '" + path + "' 2>&1", &out), 0) << out;
    expectOnlyAllowedWarnings(out, "exiftool allowed warnings");
    ASSERT_EQ(runCommand("exiftool -n -s2 -a -G1" + kExiftoolTags +
                             " -Keywords -XMP-oltm:Method -XMP-oltm:Gamma -XMP-oltm:Smoothing -BitsPerSample"
                             " -SamplesPerPixel -ImageWidth -ImageHeight -ProfileClass '" +
                             path + "' 2>&1",
                         &out),
              0);
    std::vector<std::string> values = section("exiftool jpeg");
    for (const auto& l : section("exiftool tiff", fill)) values.push_back(l);
    expectLines(out, values, "exiftool");

    // exiv2.
    ASSERT_EQ(runCommand("exiv2 -pa '" + path + "' 2>" + dir.file("exiv2.err"), &out), 0);
    EXPECT_TRUE(oltest::readFile(dir.file("exiv2.err")).empty()) << "exiv2 printed on stderr";
    expectLines(out, section("exiv2 tiff", fill), "exiv2");

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
    expectOnlyAllowedWarnings(out, "exiftool allowed warnings");
    ASSERT_EQ(runCommand("exiftool -n -s2 -a -G1" + kExiftoolTags + " '" + path + "' 2>&1", &out), 0);
    expectLines(out, section("exiftool jpeg"), "exiftool");
    if (haveProgram("exiv2")) {
        ASSERT_EQ(runCommand("exiv2 -pa '" + path + "' 2>/dev/null", &out), 0);
        expectLines(out, section("exiv2 jpeg"), "exiv2");
    }
}
