// Metadata readers: the kept seeds in every container and byte order, then the
// quirks that files from other programs do not show (those are compared with
// exiftool in metadata_read_interop_test.cpp and with the shared real files in
// metadata_testdata_test.cpp): tag sources and their order, the IFD chain,
// JPEG and Photoshop scans, image descriptions, read_iptc and constant_exif.
// Last, malformed input: randomly damaged copies of the seeds (the hand-made
// damaged files are in crashers_test.cpp) and self-referencing IFDs. Every
// reader must return (its failure code or a silent stop), never crash, hang
// or touch memory it does not own; the sanitizer build checks the last.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

#include "metadata/exif_reader.hpp"
#include "support/metadata_bytes.hpp"

using namespace metatest;
using oltest::fixture;
using oltest::TempDir;

namespace {

// Well-formed files of every kind the readers take (tests/fixtures/seeds: a
// TIFF in both byte orders with Exif, GPS, description, IPTC and thumbnail
// entries, a JPEG carrying it with a Photoshop block, flat PSDs of 8, 16 and
// 32 bits raw and PackBits with resources, a BMP header and an ICC profile).
const oltest::fs::path kSeeds = oltest::fs::path(OL_SOURCE_DIR) / "tests" / "fixtures" / "seeds";
std::string seed(const char* name) { return (kSeeds / name).string(); }

}  // namespace

// The seeds carry one TIFF block: a description "... 1/8s, R1, G2, B3", a
// 4-byte Model stored inline (so its value is taken as an offset and nothing
// is read), Orientation 6, ExposureTime 1/60 before a ShutterSpeedValue,
// FNumber 8, ISO 100 before an ExposureIndex, GPS S 1 2 3 with a date, an IFD1
// thumbnail at 8 and an IPTC tag at 8.
TEST(MetareadExif, SeedsGiveOneRecordInEveryContainerAndOrder) {
    const struct {
        const char* file;
        int type, mark, thumbOffset, thumbLen, iptcOffset, iptcLen;
    } rows[] = {
        {"tiff_ii.tif", 0, 2, 8, 20, 8, 20},  // the description is parsed in a TIFF only
        {"tiff_mm.tif", 0, 2, 8, 20, 8, 20},
        {"tiff_ii.tif", 5, 0, 8, 20, 8, 20},  // other types read a TIFF, without the description
        {"psd8_raw.psd", 2, 0, 134, 20, 8, 20},  // the TIFF base (126) added to the thumbnail alone
        // IPTC from the APP13 block; its thumbnail resource is too short to pin.
        {"jpeg_app1_app13.jpg", 1, 0, -1, -1, 422, 23},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(r.file) + " as " + std::to_string(r.type));
        const Records got = readExif(seed(r.file), r.type);
        const ExifRecord& e = got.exif;
        const GpsRecord& g = got.gps;
        EXPECT_EQ((std::vector<long>{got.result, e.exposureNum, e.exposureDen, e.apertureNum, e.apertureDen, e.iso,
                                     e.orientation, e.descriptionMark, e.iptcOffset, e.iptcLen, g.lat_ref}),
                  (std::vector<long>{100, 100, 6000, 800, 100, 100, 6, r.mark, r.iptcOffset, r.iptcLen, 'S'}));
        if (r.thumbLen >= 0) { EXPECT_EQ(std::make_pair(e.thumbOffset, e.thumbLen), std::make_pair(r.thumbOffset, r.thumbLen)); }
        EXPECT_EQ(field(e.camera, 64) + "|" + field(e.date, 20) + "|" + field(g.datestamp, 11),
                  "|2024:01:01 00:00:00|2024:01:01");
        const std::uint32_t lat[6] = {1, 1, 2, 1, 3, 1};
        EXPECT_EQ(0, std::memcmp(g.latitude, lat, sizeof lat));
    }
    // A JPEG read as a TIFF has no byte-order mark: nothing.
    EXPECT_EQ(readExif(seed("jpeg_app1_app13.jpg"), 0).exif.iso, 0);
}

TEST(MetareadRational, TwoDecimalsOfScale) {
    const struct {
        float t;
        int num, den;
    } cases[] = {{1.0f / 125, 100, 12500}, {2.5f, 250, 100},     {1.0f, 100, 100},   {0.5f, 100, 200},
                 {5.6f, 560, 100},        {1.0f / 3, 100, 300}, {1.0f / 4000, 100, 400000}, {30.0f, 3000, 100},
                 {0.999f, 100, 100},      {1.0f / 180, 100, 18000}, {14506.667f, 1450666, 100}, {0.29f, 100, 344},
                 // whole values past 2^23 once scaled are not pushed up
                 {1048576.0f, 104857600, 100}, {100000.0f, 10000000, 100}};
    for (const auto& c : cases) {
        std::int32_t n = -1, d = -1;
        ASSERT_TRUE(ol::floatToRational(c.t, n, d)) << c.t;
        EXPECT_EQ(std::make_pair(n, d), std::make_pair(c.num, c.den)) << c.t;
    }
    std::int32_t n = 7, d = 9;  // 0 and below leave the words untouched
    EXPECT_FALSE(ol::floatToRational(0.0f, n, d) || ol::floatToRational(-2.0f, n, d));
    EXPECT_EQ(std::make_pair(n, d), std::make_pair(7, 9));
}

// One value of the record read from a crafted file: which tag wins, which
// types and IFDs count, where the JPEG scans stop and what they print then.
// (ExposureTime before a Tv and ISO before an ExposureIndex: the seeds.)
TEST(MetareadExif, TagSourcesOrderAndChain) {
    std::vector<Entry> big(254, longE(0x9999, 0));  // with the orientation, an IFD of 255 entries
    big.push_back(shortE(tag::kOrientation, 5));
    std::vector<Entry> bigger = big;
    bigger.push_back(longE(0x9998, 0));
    const Bytes thumbs = buildTiff({.ifds = {{longE(tag::kThumbOffset, 1000), longE(tag::kThumbLength, 50)},
                                 {longE(tag::kThumbOffset, 2000), longE(tag::kThumbLength, 60)}}});
    const auto orient = [](int v) { return std::vector<Entry>{shortE(tag::kOrientation, static_cast<std::uint32_t>(v))}; };
    const Bytes isoApp1 = exifPayload(buildTiff({.exif = {shortE(tag::kIso, 400)}}));
    const auto isoJpeg = [&](int ffs) {  // ISO 400 in an APP1 with `ffs` bytes 0xFF before its marker
        Bytes b = jpegWith({{0xE1, isoApp1}});
        b.erase(b.begin() + 2);
        b.insert(b.begin() + 2, static_cast<std::size_t>(ffs), 0xFF);
        return b;
    };
    const struct {
        const char* what;
        Bytes file;
        int type;
        std::int32_t ExifRecord::*field;
        std::int32_t want;
        std::string printed = "";
    } rows[] = {
        {"ExposureTime wins over an earlier Tv", buildTiff({.exif = {srationalE(tag::kShutterSpeed, 7, 1), rationalE(tag::kExposureTime, 1, 50)}}), 0, &ExifRecord::exposureDen, 5000},
        {"Tv 7 alone is 2^-7 s", buildTiff({.exif = {srationalE(tag::kShutterSpeed, 7, 1)}}), 0, &ExifRecord::exposureDen, 12800},
        {"a negative Tv is 2^2 s", buildTiff({.exif = {srationalE(tag::kShutterSpeed, -2, 1)}}), 0, &ExifRecord::exposureNum, 400},
        {"Tv over 0 gives no exposure", buildTiff({.exif = {srationalE(tag::kShutterSpeed, 7, 0)}}), 0, &ExifRecord::exposureNum, 0},
        {"ApertureValue does not replace FNumber", buildTiff({.exif = {rationalE(tag::kFNumber, 4, 1), rationalE(tag::kAperture, 56, 10)}}), 0, &ExifRecord::apertureNum, 400},
        {"ApertureValue alone, no APEX conversion", buildTiff({.exif = {rationalE(tag::kAperture, 56, 10)}}), 0, &ExifRecord::apertureNum, 560},
        {"MaxApertureValue first wins", buildTiff({.exif = {rationalE(tag::kMaxAperture, 3, 1), rationalE(tag::kAperture, 8, 1)}}), 0, &ExifRecord::apertureNum, 300},
        {"ExposureIndex after a zero ISO", buildTiff({.exif = {shortE(tag::kIso, 0), rationalE(tag::kExposureIndex, 800, 2)}}), 0, &ExifRecord::iso, 400},
        {"ExposureIndex over 0: its numerator", buildTiff({.exif = {rationalE(tag::kExposureIndex, 640, 0)}}), 0, &ExifRecord::iso, 640},
        {"ExposureIndex before a zero ISO", buildTiff({.exif = {rationalE(tag::kExposureIndex, 800, 1), shortE(tag::kIso, 0)}}), 0, &ExifRecord::iso, 0},
        {"Orientation from a LONG: no", buildTiff({.ifds = {{longE(tag::kOrientation, 3)}}}), 0, &ExifRecord::orientation, 0},
        {"XMP count", buildTiff({.ifds = {{rawE(tag::kXmp, 1, 4321, 900)}}}), 0, &ExifRecord::xmpLen, 4321},
        {"XMP offset as stored", buildTiff({.ifds = {{rawE(tag::kXmp, 1, 4321, 900)}}}), 0, &ExifRecord::xmpOffset, 900},
        {"IPTC offset as stored", buildTiff({.ifds = {{rawE(tag::kIptc, 4, 10, 1234)}}}), 0, &ExifRecord::iptcOffset, 1234},
        {"IPTC LONGs: 4 bytes each", buildTiff({.ifds = {{rawE(tag::kIptc, 4, 10, 1234)}}}), 0, &ExifRecord::iptcLen, 40},
        {"IPTC UNDEFINED: bytes", buildTiff({.ifds = {{rawE(tag::kIptc, 7, 10, 1234)}}}), 0, &ExifRecord::iptcLen, 10},
        {"IPTC of another type: no length", buildTiff({.ifds = {{rawE(tag::kIptc, 3, 10, 1234)}}}), 0, &ExifRecord::iptcLen, 0},
        {"the thumbnail of the last IFD", thumbs, 0, &ExifRecord::thumbOffset, 2000},
        {"its length", thumbs, 0, &ExifRecord::thumbLen, 60},
        {"in a JPEG the TIFF base is added", jpegWith({{0xE1, exifPayload(thumbs)}}), 1, &ExifRecord::thumbOffset, 2000 + 12},
        {"a third IFD is read, a fourth not", buildTiff({.ifds = {orient(1), orient(2), orient(3), orient(4)}}), 0, &ExifRecord::orientation, 3},
        {"a loop in the chain ends it", buildTiff({.ifds = {orient(1), orient(2)}, .loopTo = 0}), 0, &ExifRecord::orientation, 1},
        {"an IFD of 255 entries ends the chain", buildTiff({.ifds = {big, orient(7)}}), 0, &ExifRecord::orientation, 5},
        {"one of 256 does not", buildTiff({.ifds = {bigger, orient(7)}}), 0, &ExifRecord::orientation, 7},
        // Photoshop resources in APP13 (tests/fixtures/README.md): IPTC, then
        // a thumbnail resource, which ends the scan.
        {"APP13: the IPTC length", fixture("metadata/app13_iptc_thumb.jpg"), 1, &ExifRecord::iptcLen, 26},
        {"the thumbnail behind its 28-byte header", fixture("metadata/app13_iptc_thumb.jpg"), 1, &ExifRecord::thumbOffset, 122},
        {"the thumbnail length", fixture("metadata/app13_iptc_thumb.jpg"), 1, &ExifRecord::thumbLen, 333},
        {"a small IPTC block alone: the scan still finds it", fixture("metadata/app13_small_iptc.jpg"), 1, &ExifRecord::iptcLen, 8},
        {"at its offset", fixture("metadata/app13_small_iptc.jpg"), 1, &ExifRecord::iptcOffset, 56},
        {"no APP13 without an Exif APP1", fixture("metadata/app13_without_app1.jpg"), 1, &ExifRecord::iptcLen, 0},
        {"the second pass needs one 0xFF before each marker", fixture("metadata/app13_padded.jpg"), 1, &ExifRecord::iptcLen, 0},
        {"JPEG: four 0xFF of padding", isoJpeg(4), 1, &ExifRecord::iso, 400},
        {"a fifth stops the scan", isoJpeg(5), 1, &ExifRecord::iso, 0, "too many padding bytes\n"},
        {"the 0xFF itself is not required", isoJpeg(0), 1, &ExifRecord::iso, 400},
        {"a length below 2", {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x01}, 1, &ExifRecord::iso, 0, "invalid marker\n"},
        {"an APP1 without the Exif header stops the scan", jpegWith({{0xE1, Bytes{'h', 't', 't', 'p', ':', '/', '/'}}, {0xE1, isoApp1}}), 1,
         &ExifRecord::iso, 0, "APP1 does not contain valid Exif header\n"},
        {"no SOI", {0xFF, 0xD9}, 1, &ExifRecord::iso, 0},
        {"the scan ends at SOS", jpegWith({{0xE0, Bytes(14, 0)}}), 1, &ExifRecord::iso, 0},
    };
    for (const auto& r : rows) {
        std::optional<oltest::CaptureFd> out;  // only the JPEG scans print
        if (r.type == 1) out.emplace(1);
        EXPECT_EQ(readExifBytes(r.file, r.type).exif.*r.field, r.want) << r.what;
        if (out) { EXPECT_EQ(out->finish(), r.printed) << r.what; }
    }
    // Model is a line read: at most 63 characters, up to a newline.
    EXPECT_EQ(field(readExifBytes(buildTiff({.ifds = {{asciiE(tag::kModel, std::string(80, 'M'))}}}), 0).exif.camera, 64), std::string(63, 'M'));
    EXPECT_EQ(field(readExifBytes(buildTiff({.ifds = {{asciiE(tag::kModel, "Line one\nLine two")}}}), 0).exif.camera, 64), "Line one\n");
}

TEST(MetareadExif, WorkingRecordIsClearedButAbsentRationalsAreLeft) {
    ExifRecord e;
    GpsRecord g;
    std::memset(&e, 0x55, sizeof e);
    std::memset(&g, 0x55, sizeof g);
    TempDir dir;
    oltest::writeFile(dir.file("t.tif"), buildTiff(TiffSpec{}));
    get_exif_data(dir.file("t.tif").c_str(), 0, &e, &g);
    // No exposure or aperture: their words untouched; colorSpace is not the reader's.
    EXPECT_EQ((std::vector<int>{e.exposureNum, e.apertureDen, e.colorSpace}), std::vector<int>(3, 0x55555555));
    EXPECT_EQ((std::vector<long>{e.iso, e.orientation, e.xmpLen, e.xmpOffset, e.camera[0], e.date[0], g.lat_ref,
                                 g.latitude[0]}),
              std::vector<long>(8, 0));
    // A missing file gives the same cleared values.
    std::memset(&e, 0x55, sizeof e);
    EXPECT_EQ(get_exif_data(dir.file("none.tif").c_str(), 0, &e, &g), 0x55555555);
    EXPECT_EQ(e.iso, 0);
}

TEST(MetareadDescription, FieldsRefusalsAndWrappedIso) {
    const struct {
        const char* text;
        float exposure;
        std::int32_t iso;
        int mark;
    } cases[] = {
        // m = trunc((512 + 300) / 2) = 406: iso = 200 * trunc(2^(406/30)).
        {"f1, f2, f3, f4, f5, f6, f7, 1/250s, R345, G300, B512", 0.004f, 200 * 11856, 2},
        // A whole number of seconds (m = 30: 2^1); a '.' ends the conversion;
        // a last colour of 0 is not marked.
        {"a, b, c, d, e, f, g, 2s, R30, G30, B30", 2.0f, 400, 2},
        {"a, b, c, d, e, f, g, 1/8.5s, R0, G0, B0", 0.125f, 200, 0},
        // A missing colour stores nothing at all.
        {"a, b, c, d, e, f, g, 1/60s, R30, G30, X30", 0.0f, 0, 0},
        // More than six characters abandon the exposure; the colours still count.
        {"a, b, c, d, e, f, g, 1234567/2s, R60, G60, B60", 0.0f, 800, 0},
        // A numerator of 99999 is not marked.
        {"a, b, c, d, e, f, g, 99999/1s, R1, G1, B1", 99999.0f, 200, 0},
        // No separator at all.
        {"R1 G1 B1", 0.0f, 0, 0},
        // m = 750: 200 * 2^25 leaves 32 bits and keeps its low 32.
        {"a, b, c, d, e, f, g, 1/60s, R750, G750, B750", 1.0f / 60, static_cast<std::int32_t>(200u * 33554432u), 2},
        // m = 1000: 2^33.3 is no 32-bit integer (0x80000000), times 200 is 0.
        {"a, b, c, d, e, f, g, 1/60s, R1000, G1000, B1000", 1.0f / 60, 0, 2},
    };
    for (const auto& c : cases) {
        ol::RawExif r;
        std::memset(&r, 0, sizeof r);
        ol::parseDescription(c.text, std::strlen(c.text), r);
        EXPECT_EQ((std::tuple{r.exposure, r.iso, r.mark}), (std::tuple{c.exposure, c.iso, c.mark})) << c.text;
    }
}

TEST(MetareadIptc, ReadCodes) {
    TempDir dir;
    const std::string p = dir.file("f.bin");
    oltest::writeFile(p, patched(patched(Bytes(100, 0), 10, {0x1C}), 20, {0x33}));
    oltest::writeFile(dir.file("empty"), {});
    const struct {
        std::string path;
        int len, offset, result, first;  // first: the byte read into dest, -1 not looked at
    } rows[] = {
        {p, 20, 10, 20, 0x1C},
        {p, 20, 20, -2, 0x33},  // not 0x1C: dest is filled anyway
        {p, 100, 0, 0, -1},  // the range test compares len with the file size, whatever the offset
        {p, 99, 0, -2, -1},
        {p, 95, 10, -1, -1},  // a short read behind a 0x1C
        {p, 95, 20, -2, -1},  // a short read whose first byte is wrong: -2 first
        {p, 10, -200, -1, -1},  // an offset before the start fails the first seek
        {dir.file("missing"), 10, 0, -1, -1},
        {dir.file("empty"), 1, 0, -1, -1},
    };
    for (const auto& r : rows) {
        unsigned char buf[128] = {};
        EXPECT_EQ(read_iptc(r.path.c_str(), r.len, r.offset, buf), r.result) << r.len << " at " << r.offset;
        if (r.first >= 0) { EXPECT_EQ(buf[0], r.first); }
    }
}

TEST(MetareadConstant, KeepsWhatAllPhotosShare) {
    ExifRecord a = shotExif(100, 200, 560, 100, 100, 5000, 100), b = shotExif(100, 200, 560, 100, 100, 2400, 100);
    std::strcpy(a.camera, "A");
    std::strcpy(b.camera, "B");
    ExifRecord kept = a;
    EXPECT_EQ(constant_exif(&kept, &b), 1);
    EXPECT_EQ(0, std::memcmp(&kept, &a, sizeof a));  // focal and camera of the first stand
    b.exposureDen = 400;  // a differing denominator alone clears the rational
    b.apertureNum = 800;
    b.iso = 200;
    EXPECT_EQ(constant_exif(&kept, &b), 1);
    EXPECT_EQ((std::vector<int>{kept.exposureNum, kept.exposureDen, kept.apertureNum, kept.apertureDen, kept.iso, kept.focalNum}),
              (std::vector<int>{0, 0, 0, 0, 0, 5000}));
}

TEST(MetadataCrashers, RandomlyDamagedFilesAreSurvived) {
    oltest::TempDir dir;
    const std::string path = dir.file("damaged.bin");
    std::vector<oltest::fs::path> files(oltest::fs::directory_iterator{kSeeds}, {});
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files.size(), 10u);
    std::uint32_t noiseSeed = 1;
    for (const auto& file : files) {
        const Bytes good = oltest::readFile(file.string());
        for (int round = 0; round < 150; ++round, ++noiseSeed) {
            Bytes b = good;
            const std::vector<std::uint8_t> noise = oltest::randomBytes(16, noiseSeed);
            if (round % 3 == 0) {  // a few bytes overwritten
                for (int k = 0; k < 4; ++k) b[noise[2 * k] * b.size() / 256] = noise[2 * k + 1];
            } else if (round % 3 == 1) {  // cut short
                b.resize((noise[0] | (noise[1] << 8)) % b.size());
            } else {  // a 32-bit field set to an extreme value
                const std::size_t at = (noise[0] * b.size() / 256) & ~std::size_t{1};
                for (std::size_t k = at; k < at + 4 && k < b.size(); ++k)
                    b[k] = k == at ? (noise[1] & 1 ? 0xFF : 0x7F) : 0xFF;
            }
            oltest::writeFile(path, b);
            runAllReaders(path);
        }
    }
    SUCCEED();
}

// An IFD of 65535 entries that all point back at the IFD itself (or at the
// whole file as a Photoshop block or a description): taken literally, the
// walk would visit billions of entries or read the file tens of thousands of
// times.
TEST(MetadataCrashers, SelfReferencingHugeIfdsEndQuickly) {
    for (std::uint16_t t : {tag::kExifIfd, tag::kGpsIfd, tag::kPhotoshop, tag::kImageDescription}) {
        const bool text = t == tag::kImageDescription, whole = text || t == tag::kPhotoshop;
        // The IFD at 8, then nothing: the file is 8 + 2 + 65535 * 12 + 4 bytes.
        const Entry e = rawE(t, text ? ol::kTiffAscii : ol::kTiffLong, whole ? 8 + 2 + 65535u * 12 + 4 : 1, 8);
        const Bytes file = buildTiff({.ifds = {std::vector<Entry>(65535, e)}});
        const auto start = std::chrono::steady_clock::now();
        readExifBytes(file, 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << t;
    }
}
