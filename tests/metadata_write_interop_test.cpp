// Files and blocks from the metadata writers, read back by outside programs:
// one row a program and format. What each must print, and the only warnings
// accepted (with their causes), are kept as data in
// tests/interop/metadata_write.txt.
#include <algorithm>
#include <sstream>

#include "support/metadata_bytes.hpp"

using namespace metatest;
using oltest::haveProgram;
using oltest::runCommand;
using oltest::TempDir;

namespace {

// What each program must print and the warnings it may give.
const auto kExpected = interopSections("metadata_write.txt");

// A line with leading blanks dropped and runs of blanks collapsed, so that
// column-aligned output compares simply.
std::string squeeze(const std::string& s) {
    std::string out;
    for (char c : s)
        if (c != ' ' || (!out.empty() && out.back() != ' ')) out += c;
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

// One written file: its path and the values of the placeholders.
struct Written {
    std::string path;
    std::map<std::string, std::string> fill;
};

const float kTm[15] = {1, 2, 3, 0.5f, 0.1f, 2, 3, 4, 25, 5, 6, 7, 8, 9, 10};

// A TIFF with every block: full records, an RGB display profile, two
// keywords added by add_iptc_keyword, the Details Enhancer packet, padded rows.
Written writeTiff(const TempDir& dir, int samples, int bits) {
    const std::string b = std::to_string(bits), path = dir.file(std::to_string(samples) + "x" + b + ".tif");
    const int width = 5, height = 3, bytes = bits / 8, stride = width * samples * bytes + 4 * bytes;
    const Bytes data =
        oltest::randomBytes(static_cast<std::size_t>(stride) * height, static_cast<std::uint32_t>(bits + samples));
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    const Bytes icc = oltest::fixture("metadata/rgb_display.icc");
    Bytes alpha(17), iptc(26);  // 7 + 5 + 5 bytes, then 4 + 5 more
    add_iptc_keyword(0, nullptr, 5, reinterpret_cast<const unsigned char*>("alpha"), alpha.data());
    add_iptc_keyword(17, alpha.data(), 4, reinterpret_cast<const unsigned char*>("beta"), iptc.data());
    tif_info info = makeInfo(width, height, samples, bits);
    info.lProfil = static_cast<int>(icc.size());
    info.orientation = 6;
    EXPECT_GT(buf2tifOld(data.data(), &info, stride, icc.data(), &ex, &gps, 26, iptc.data(), 1, kTm, path.c_str()), 0);
    std::string pixels;  // the rows without their padding, as hex
    char hex[3];
    for (int r = 0; r < height; ++r)
        for (int i = 0; i < width * samples * bytes; ++i) {
            std::snprintf(hex, sizeof hex, "%02x", data[static_cast<std::size_t>(r * stride + i)]);
            pixels += hex;
        }
    return {path,
            {{"{b}", b},
             {"{bits}", samples == 1 ? b : b + " " + b + " " + b},
             {"{n}", samples == 1 ? "1" : "3"},
             {"{strip}", std::to_string(width * height * samples * bytes)},
             {"{photometric}", samples == 1 ? "min-is-black" : "RGB color"},
             {"{pixels}", pixels}}};
}

// The Exif block of the full records in the APP1 segment of a JPEG (with a
// token scan: the programs read the metadata alone).
Written writeJpeg(const TempDir& dir) {
    Bytes block(1024, 0);
    block.resize(static_cast<std::size_t>(std::max(exifBlockInto(fullExif(), fullGps(), 6, block.data()), 0)));
    oltest::writeFile(dir.file("exif.jpg"), jpegWith({{0xE1, exifPayload(block)}}));
    return {dir.file("exif.jpg"), {}};
}

// Runs the program on the file. Every expected line (placeholders filled)
// must stand in its output; every warning line ("Warning :" from exiftool,
// "Warning," from libtiff; not exiftool's count of "Warnings") must hold one
// of the allowed texts; without an allowed list nothing may go to stderr.
void check(const Written& f, const std::string& command, const std::string& allowedSection,
           const std::vector<std::string>& sections) {
    const std::string errFile = f.path + ".err";
    std::string out;
    ASSERT_EQ(runCommand(command + " '" + f.path + "' 2>'" + errFile + "'", &out), 0) << command;
    const std::string err = oltest::readText(errFile);
    std::vector<std::string> got;
    std::istringstream in(out + err);
    for (std::string l; std::getline(in, l);) got.push_back(squeeze(l));
    if (allowedSection.empty()) { EXPECT_EQ(err, "") << command; }
    const auto& allowed = allowedSection.empty() ? std::vector<std::string>{} : kExpected.at(allowedSection);
    for (const auto& l : got) {
        const auto at = l.find("Warning");
        EXPECT_TRUE(at == std::string::npos || l[at + 7] == 's' ||
                    std::any_of(allowed.begin(), allowed.end(),
                                [&](const std::string& w) { return l.find(squeeze(w)) != std::string::npos; }))
            << command << ": " << l;
    }
    for (const auto& name : sections)
        for (std::string e : kExpected.at(name)) {
            for (const auto& [key, value] : f.fill)
                for (auto at = e.find(key); at != std::string::npos; at = e.find(key)) e.replace(at, key.size(), value);
            EXPECT_NE(std::find(got.begin(), got.end(), squeeze(e)), got.end())
                << command << " lacks: " << e << "\n" << out;
        }
}

}  // namespace

TEST(MetawriteInterop, OutsideProgramsReadWhatTheWritersWrote) {
    const std::string values = "exiftool -n -s2 -a -G1 -Model -Orientation -ExposureTime -FNumber -ISO -DateTimeOriginal"
                               " -FocalLength -GPSVersionID -GPSLatitudeRef -GPSLatitude -GPSLongitudeRef -GPSLongitude"
                               " -GPSAltitude -GPSTimeStamp -GPSDateStamp",
                      validate = "exiftool -validate -warning -a -G1 -s";
    const struct {
        bool tiff;
        const char* program;
        std::string command, allowed;
        std::vector<std::string> sections;
    } rows[] = {
        {true, "tiffinfo", "tiffinfo", "tiffinfo allowed warnings", {"tiffinfo tiff"}},
        {true, "exiftool", validate, "exiftool allowed warnings", {}},
        {true, "exiftool",
         values + " -Keywords -XMP-oltm:Method -XMP-oltm:Gamma -XMP-oltm:Smoothing -BitsPerSample -SamplesPerPixel"
                  " -ImageWidth -ImageHeight -ProfileClass",
         "", {"exiftool jpeg", "exiftool tiff"}},
        {true, "exiv2", "exiv2 -pa", "", {"exiv2 tiff"}},
        // The pixels as a TIFF library decodes them.
        {true, "tifffile",
         oltest::systemPython() + " -c \"import sys,tifffile; sys.stdout.write(tifffile.imread(sys.argv[1]).tobytes().hex())\"",
         "", {"tifffile tiff"}},
        {false, "exiftool", validate, "exiftool allowed warnings", {}},
        {false, "exiftool", values, "", {"exiftool jpeg"}},
        {false, "exiv2", "exiv2 -pa", "", {"exiv2 jpeg"}},
    };
    TempDir dir;
    std::vector<std::pair<bool, Written>> files;
    for (const auto& [samples, bits] : {std::pair{1, 8}, {3, 8}, {1, 16}, {3, 16}})
        files.emplace_back(true, writeTiff(dir, samples, bits));
    files.emplace_back(false, writeJpeg(dir));
    int ran = 0;
    for (const auto& r : rows) {
        if (r.program == std::string("tifffile") ? !oltest::havePythonModule("tifffile") : !haveProgram(r.program))
            continue;
        for (const auto& [tiff, f] : files)
            if (tiff == r.tiff) {
                SCOPED_TRACE(f.path);
                check(f, r.command, r.allowed, r.sections);
                ++ran;
            }
    }
    if (ran == 0) GTEST_SKIP() << "no outside program to read the files";
}
