// The metadata readers against real files from other programs and cameras,
// with what independent tools read from them beside each file.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "frame/rgbe.hpp"
#include "support/json.hpp"
#include "support/metadata_bytes.hpp"

using namespace metatest;
namespace fs = std::filesystem;

namespace {

using oltest::Json;
using oltest::loadJson;
using oltest::readText;

std::vector<fs::path> filesIn(const fs::path& dir, const std::vector<std::string>& exts) {
    std::vector<fs::path> out;
    if (!fs::exists(dir)) return out;
    for (const auto& e : fs::directory_iterator(dir)) {
        std::string ext = e.path().extension().string();
        std::transform(ext.begin(), ext.end(), ext.begin(), ::tolower);
        if (std::find(exts.begin(), exts.end(), ext) != exts.end()) out.push_back(e.path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

// Damaged files: surviving every reader is enough.
const std::set<std::string> kDamaged = {
    "exiv2_exiv2-bug1247.jpg", "exiv2_2018-01-09-exiv2-crash-002.tiff",
    "exiv2_exiv2_0-26_exiv2_uncontrolled-recursion_printIFDStructure.tif", "exiv2_exiv2-bug495.jpg",
    "pillow_psd-oob-write-x.psd", "pillow_timeout-598843abc37fc080ec36a2699ebbd44f795d3a6f.psd"};

// True when the JPEG scan reaches an Exif APP1: the first APP1 in the
// segment list (from the structure dump) holds Exif.
bool jpegExifReachable(const fs::path& file) {
    std::istringstream in(readText(fs::path(file.string() + ".exiv2-structure.txt")));
    std::string line;
    while (std::getline(in, line)) {
        if (line.find("SOS") != std::string::npos) return false;
        if (line.find("APP1 ") != std::string::npos) return line.find("Exif") != std::string::npos;
    }
    return false;
}

// The count and offset of the TIFF XMLPacket entry in the structure dump.
std::optional<std::pair<long, long>> xmpEntry(const fs::path& file) {
    std::istringstream in(readText(fs::path(file.string() + ".exiv2-structure.txt")));
    std::string line;
    while (std::getline(in, line)) {
        if (line.find("0x02bc XMLPacket") == std::string::npos) continue;
        long count = 0, offset = 0;  // the fourth and fifth columns
        if (std::sscanf(line.c_str(), "%*[^|]|%*[^|]|%*[^|]|%ld |%ld", &count, &offset) != 2) return std::nullopt;
        return std::make_pair(count, offset);
    }
    return std::nullopt;
}

// The rational form of the decimal value the tool prints: two decimals of
// scale (so 1/125 s gives 100/12500).
void checkRational(const char* what, std::int32_t num, std::int32_t den, double t, long slack = 0) {
    const double scaled = (t >= 1.0 ? t * 100.0 : 100.0 / t) * (1 + 1e-9);
    const long n = t >= 1.0 ? static_cast<long>(std::floor(scaled)) : 100, d = t >= 1.0 ? 100 : static_cast<long>(std::floor(scaled));
    EXPECT_TRUE(std::abs(num - n) <= slack && std::abs(den - d) <= slack) << what << " " << t << ": " << num << "/" << den;
}

std::string trimRight(std::string s) {
    while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.pop_back();
    return s;
}

TEST(MetareadTestdata, ExifValuesAgreeWithTheTool) {
    OL_REQUIRE_TESTDATA();
    const fs::path dir = oltest::testdataDir() / "exif";
    int checked = 0;
    for (const auto& file : filesIn(dir, {".jpg", ".tif", ".tiff"})) {
        SCOPED_TRACE(file.filename().string());
        const bool jpeg = file.extension() == ".jpg";
        Records rec;
        {
            oltest::CaptureFd quiet(1);
            rec = readExif(file, jpeg ? 1 : 0);
        }
        const ExifRecord& e = rec.exif;
        const GpsRecord& g = rec.gps;
        if (kDamaged.count(file.filename().string())) {
            runAllReaders(file.string(), 1 << 24);
            continue;
        }
        if (jpeg && !jpegExifReachable(file)) {
            EXPECT_EQ((std::vector<int>{e.exposureNum, e.camera[0], e.iptcLen}), std::vector<int>(3, 0));
            continue;
        }
        const Json j = loadJson(fs::path(file.string() + ".exiftool.json"));
        ++checked;

        if (j.has("IFD0:Model")) {
            EXPECT_EQ(trimRight(field(e.camera, 64)), trimRight(j.str("IFD0:Model").substr(0, 63)));
        }
        if (j.has("ExifIFD:DateTimeOriginal")) {
            EXPECT_EQ(field(e.date, 20), j.str("ExifIFD:DateTimeOriginal").substr(0, 19));
        }

        // Rationals in the tool's decimal form (the exposure from Tv, one off
        // allowed, when the time is missing), then whole numbers.
        const bool tv = j.num("ExifIFD:ExposureTime").value_or(0) <= 0;
        const std::tuple<const char*, std::int32_t, std::int32_t, long> rationals[] = {
            {tv ? "ExifIFD:ShutterSpeedValue" : "ExifIFD:ExposureTime", e.exposureNum, e.exposureDen, tv ? 1 : 0},
            {"ExifIFD:FNumber", e.apertureNum, e.apertureDen, 0},
            {"ExifIFD:FocalLength", e.focalNum, e.focalDen, 0},
            {"ExifIFD:FocalPlaneXResolution", e.planeResNum, e.planeResDen, 0}};
        for (const auto& [key, num, den, slack] : rationals)
            if (auto t = j.num(key); t && *t > 0) checkRational(key, num, den, *t, slack);
        const auto whole = [&](const char* key) { return static_cast<int>(j.num(key).value_or(0)); };
        EXPECT_EQ(e.planeResUnit, whole("ExifIFD:FocalPlaneResolutionUnit"));
        EXPECT_EQ(e.focal35, whole("ExifIFD:FocalLengthIn35mmFormat"));
        EXPECT_EQ(e.iso, whole("ExifIFD:ISO") != 0 ? whole("ExifIFD:ISO") : whole("ExifIFD:ExposureIndex"));
        // The last IFD of the chain that has one wins.
        EXPECT_EQ(e.orientation, j.num("IFD1:Orientation") ? whole("IFD1:Orientation") : whole("IFD0:Orientation"));
        if (j.has("IFD1:ThumbnailOffset") && !j.has("Photoshop:PhotoshopThumbnail")) {
            EXPECT_EQ(std::make_pair(e.thumbOffset, e.thumbLen),
                      std::make_pair(whole("IFD1:ThumbnailOffset"), whole("IFD1:ThumbnailLength")));
        }

        // GPS, compared as the decimal degrees and seconds the tool prints.
        if (j.has("GPS:GPSLatitude")) {
            EXPECT_EQ(g.lat_ref, j.str("GPS:GPSLatitudeRef")[0]);
            EXPECT_NEAR(dms(g.latitude), *j.num("GPS:GPSLatitude"), 1e-6);
            EXPECT_EQ(g.long_ref, j.str("GPS:GPSLongitudeRef")[0]);
            EXPECT_NEAR(dms(g.longitude), *j.num("GPS:GPSLongitude"), 1e-6);
        }
        if (j.has("GPS:GPSAltitude")) {
            ASSERT_NE(g.altitude[1], 0u);
            EXPECT_NEAR(static_cast<double>(g.altitude[0]) / g.altitude[1], *j.num("GPS:GPSAltitude"), 1e-6);
            EXPECT_EQ(g.alt_ref, static_cast<char>(j.num("GPS:GPSAltitudeRef").value_or(0)));
        }
        if (j.has("GPS:GPSTimeStamp")) {
            double h = 0, m = 0, s = 0;
            std::sscanf(j.str("GPS:GPSTimeStamp").c_str(), "%lf:%lf:%lf", &h, &m, &s);
            EXPECT_NEAR(dms(g.timestamp), h + m / 60.0 + s / 3600.0, 1e-7);
        }
        if (j.has("GPS:GPSDateStamp")) {
            EXPECT_EQ(field(g.datestamp, 11), j.str("GPS:GPSDateStamp").substr(0, 10));
        }

        // IPTC: the block the reader points at holds the tool's keywords.
        bool hasIptc = false;
        for (const auto& [k, v] : j.values) hasIptc |= k.rfind("IPTC:", 0) == 0;
        if (hasIptc) {
            ASSERT_GT(e.iptcLen, 0);
            const std::string text = iptcBlock(file, e);
            std::istringstream kw(j.str("IPTC:Keywords"));
            std::string word;
            while (std::getline(kw, word, '\x1f')) EXPECT_NE(text.find(word), std::string::npos) << word;
        } else {
            EXPECT_EQ(e.iptcLen, 0);
        }
        if (!jpeg) {
            EXPECT_EQ((std::pair<long, long>(e.xmpLen, e.xmpOffset)), xmpEntry(file).value_or(std::pair<long, long>(0, 0)));
        }
    }
    EXPECT_GE(checked, 12);
}

// ---- PSD composites -------------------------------------------------------

TEST(MetareadTestdata, PsdCompositesMatchTheTruth) {
    OL_REQUIRE_TESTDATA();
    const fs::path dir = oltest::testdataDir() / "psd";
    int loaded = 0;
    for (const auto& file : filesIn(dir, {".psd", ".psb"})) {
        SCOPED_TRACE(file.filename().string());
        if (kDamaged.count(file.filename().string())) runAllReaders(file.string(), 1 << 24);
        const Json truth = loadJson(fs::path(file.string() + ".truth.json"));
        const auto num = [&](const char* key) { return static_cast<int>(truth.num(key).value_or(-1)); };
        PsdInfo info{};
        const int start = getPsdInfo(file.c_str(), &info);
        if (num("channels") < 3 || num("color_mode") != 3) {
            EXPECT_EQ(start, -3);
            continue;
        }
        ASSERT_EQ(start, num("data_start"));
        EXPECT_EQ((std::vector<int>{info.width, info.height, info.bps, info.channels}),
                  (std::vector<int>{num("width"), num("height"), num("depth"), num("channels")}));
        // The walk's findings, unless it had to stop early.
        if (truth.str("resource_walk_stopped") != "true") {
            EXPECT_EQ(info.lProfil, static_cast<int>(truth.num("icc_profile_length").value_or(0)));
            const std::string res = truth.str("resolution_whole");
            EXPECT_EQ(info.resH, res.empty() || res == "null" ? 0 : std::stoi(res.substr(0, res.find('\x1f'))));
        }
        if (info.lProfil > 0) {
            std::vector<unsigned char> prof(static_cast<std::size_t>(info.lProfil));
            EXPECT_EQ(psd_profile(file.c_str(), prof.data()), info.lProfil);
            EXPECT_EQ(prof[36], 'a');  // "acsp" signature of the ICC header
        }

        const fs::path npyPath(file.string() + ".truth.npy");
        if (!fs::exists(npyPath)) continue;
        const oltest::Npy npy = oltest::readNpy(npyPath.string());
        ASSERT_EQ(npy.shape.size(), 3u);
        const int w = info.width, h = info.height, nc = static_cast<int>(npy.shape[2]);
        const std::size_t bytes = info.bps / 8;  // 4: floats in, rgbe planes out
        std::vector<std::uint8_t> out(static_cast<std::size_t>(w) * h * (bytes == 4 ? 4 : 3 * bytes)), want(out.size());
        int r;
        {
            oltest::CaptureFd quiet(2);
            r = load_psd(1, file.c_str(), &info, 3 * w, out.data());
        }
        if (kDamaged.count(file.filename().string())) continue;
        ASSERT_EQ(r, h);
        ++loaded;
        // The truth in the reader's layout: the samples as stored (16-bit
        // little-endian), or rgbe planes of the values at half.
        for (std::size_t px = 0; px < static_cast<std::size_t>(w) * h; ++px) {
            const std::uint8_t* stored = &npy.data[px * nc * bytes];
            if (bytes < 4) {
                std::memcpy(&want[3 * px * bytes], stored, 3 * bytes);
                continue;
            }
            float v[3];
            std::memcpy(v, stored, sizeof v);
            const ol::RgbePixel e = ol::encodeRgbe(v[0] / 2, v[1] / 2, v[2] / 2, ol::RgbeForm::Wrapped);
            const std::size_t row = 4 * static_cast<std::size_t>(w) * (px / w), x = px % w;
            for (const auto& [k, b] : {std::pair{0, e.r}, {1, e.g}, {2, e.b}, {3, e.e}}) want[row + k * w + x] = b;
        }
        EXPECT_TRUE(out == want) << "first difference at "
                                 << std::mismatch(out.begin(), out.end(), want.begin()).first - out.begin();
    }
    EXPECT_GE(loaded, 12);
}

TEST(MetareadTestdata, ProfileNamesFollowTheDescription) {
    OL_REQUIRE_TESTDATA();
    const fs::path dir = oltest::testdataDir() / "icc";
    int named = 0;
    for (const auto& file : filesIn(dir, {".icc", ".icm"})) {
        SCOPED_TRACE(file.filename().string());
        const Json truth = loadJson(fs::path(file.string() + ".truth.json"));
        const long size = static_cast<long>(*truth.num("file_size"));
        std::vector<unsigned char> prof(static_cast<std::size_t>(size) + 64, 0);
        ASSERT_EQ(extract_profile(file.c_str(), prof.data()), static_cast<int>(*truth.num("header_size_field")));
        char name[32];
        const int r = get_profile_name(static_cast<int>(size), prof.data(), name);
        const long descAt = static_cast<long>(truth.num("first_raw_desc_type_offset").value_or(-1));
        if (descAt < 0) {
            EXPECT_EQ(r, -1);
            EXPECT_EQ(std::string(name, 32), std::string(32, '\0'));
            continue;
        }
        ++named;
        // The naming rule, on the tool's text: the first position at which
        // one of the known names stands, names tried in order; otherwise the
        // text itself.
        std::istringstream fields(truth.str("description"));  // type, count, text, offset
        std::string descText;
        for (int k = 0; k < 3; ++k) std::getline(fields, descText, '\x1f');
        const long count = static_cast<long>(prof[static_cast<std::size_t>(descAt) + 11]);
        std::string known;
        for (long k = 0; k < count && known.empty(); ++k)
            for (const char* n : {"sRGB", "Adobe RGB", "ProPhoto RGB"})
                if (known.empty() && descText.compare(static_cast<std::size_t>(k), std::strlen(n), n) == 0) known = n;
        const std::string want = known.empty() ? descText.substr(0, 32) : known;
        EXPECT_EQ(r, known.empty() ? 32 : static_cast<int>(known.size()));
        EXPECT_EQ(std::string(name, want.size()), want);
    }
    EXPECT_GE(named, 8);
}

}  // namespace
