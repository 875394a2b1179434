// Metadata reader: the TIFF walk in both byte orders, the Exif and GPS
// sub-IFDs, JPEG and PSD containers, Photoshop blocks, image descriptions,
// read_iptc and constant_exif.
#include <cstring>
#include <string>

#include "support/metadata_bytes.hpp"
#include "metadata/exif_reader.hpp"

using namespace metatest;
using oltest::TempDir;

namespace {

// The record read from a TIFF of the given Exif IFD, or of the given IFD0.
ExifRecord withExif(std::vector<Entry> exif) {
    TiffSpec t;
    t.exif = std::move(exif);
    return readExifBytes(buildTiff(t), 0).exif;
}
ExifRecord withIfd0(std::vector<Entry> ifd0) {
    TiffSpec t;
    t.ifds = {std::move(ifd0)};
    return readExifBytes(buildTiff(t), 0).exif;
}

TiffSpec fullSpec(bool little) {
    TiffSpec t;
    t.little = little;
    t.ifds = {{asciiE(tag::kModel, "Camera X100"), shortE(tag::kOrientation, 6)}};
    t.exif = {rationalE(tag::kExposureTime, 1, 125),   rationalE(tag::kFNumber, 28, 10),  shortE(tag::kIso, 400),
              asciiE(tag::kDateTimeOriginal, "2024:05:06 07:08:09"), rationalE(tag::kFocalLength, 35, 1), rationalE(tag::kPlaneXRes, 4000, 3),
              shortE(tag::kPlaneResUnit, 3),          shortE(tag::kFocal35, 52)};
    t.gps = {bytesE(tag::kGpsLatRef, 2, std::string("N\0", 2)),
             rationalsE(tag::kGpsLat, {48, 1, 51, 1, 2400, 100}),
             bytesE(tag::kGpsLongRef, 2, std::string("E\0", 2)),
             rationalsE(tag::kGpsLong, {2, 1, 21, 1, 700, 100}),
             bytesE(tag::kGpsAltRef, 1, std::string("\1", 1)),
             rationalE(tag::kGpsAlt, 3512, 10),
             rationalsE(tag::kGpsTime, {13, 1, 14, 1, 15, 1}),
             asciiE(tag::kGpsDate, "2024:05:06")};
    return t;
}

class ByteOrderTest : public ::testing::TestWithParam<bool> {};

TEST_P(ByteOrderTest, TiffFileGivesEveryHandledValue) {
    const Records r = readExifBytes(buildTiff(fullSpec(GetParam())), 0);
    EXPECT_EQ(r.result, 100);
    EXPECT_EQ(r.exif.exposureNum, 100);
    EXPECT_EQ(r.exif.exposureDen, 12500);
    EXPECT_EQ(r.exif.apertureNum, 280);
    EXPECT_EQ(r.exif.apertureDen, 100);
    EXPECT_EQ(r.exif.iso, 400);
    EXPECT_EQ(r.exif.focalNum, 3500);
    EXPECT_EQ(r.exif.focalDen, 100);
    EXPECT_EQ(r.exif.focal35, 52);
    EXPECT_EQ(r.exif.planeResNum, 133333);  // 1333.33 mm^-1 to two decimals
    EXPECT_EQ(r.exif.planeResDen, 100);
    EXPECT_EQ(r.exif.planeResUnit, 3);
    EXPECT_EQ(r.exif.orientation, 6);
    EXPECT_EQ(field(r.exif.camera, 64), "Camera X100");
    EXPECT_EQ(field(r.exif.date, 20), "2024:05:06 07:08:09");
    EXPECT_EQ(r.exif.descriptionMark, 0);

    EXPECT_EQ(r.gps.lat_ref, 'N');
    EXPECT_EQ(r.gps.long_ref, 'E');
    EXPECT_EQ(r.gps.alt_ref, 1);
    const std::uint32_t lat[6] = {48, 1, 51, 1, 2400, 100};
    const std::uint32_t lon[6] = {2, 1, 21, 1, 700, 100};
    const std::uint32_t ts[6] = {13, 1, 14, 1, 15, 1};
    EXPECT_EQ(0, std::memcmp(r.gps.latitude, lat, sizeof lat));
    EXPECT_EQ(0, std::memcmp(r.gps.longitude, lon, sizeof lon));
    EXPECT_EQ(0, std::memcmp(r.gps.timestamp, ts, sizeof ts));
    EXPECT_EQ(r.gps.altitude[0], 3512u);
    EXPECT_EQ(r.gps.altitude[1], 10u);
    EXPECT_EQ(field(r.gps.datestamp, 11), "2024:05:06");
}

TEST_P(ByteOrderTest, JpegAndPsdCarryTheSameTiffBlock) {
    const Bytes tiff = buildTiff(fullSpec(GetParam()));
    const Records j = readExifBytes(jpegWith({{0xE0, Bytes(14, 0)}, {0xE1, exifPayload(tiff)}}), 1);
    EXPECT_EQ(j.exif.exposureDen, 12500);
    EXPECT_EQ(j.exif.iso, 400);
    EXPECT_EQ(field(j.exif.camera, 64), "Camera X100");
    EXPECT_EQ(j.gps.altitude[0], 3512u);

    PsdSpec s;
    s.resources = cat({resource8bim(1005, Bytes(16, 0)), resource8bim(1058, tiff)});
    s.image = Bytes(12, 7);
    const Records p = readExifBytes(buildPsd(s), 2);
    EXPECT_EQ(p.exif.exposureDen, 12500);
    EXPECT_EQ(p.exif.orientation, 6);
    EXPECT_EQ(field(p.gps.datestamp, 11), "2024:05:06");
}

INSTANTIATE_TEST_SUITE_P(Orders, ByteOrderTest, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "II" : "MM"; });

TEST(MetareadRational, TwoDecimalsOfScale) {
    struct Case {
        float t;
        int num, den;
    } cases[] = {{1.0f / 125, 100, 12500}, {2.5f, 250, 100},   {1.0f, 100, 100},   {0.5f, 100, 200},
                 {5.6f, 560, 100},        {1.0f / 3, 100, 300}, {1.0f / 4000, 100, 400000},
                 {30.0f, 3000, 100},      {0.999f, 100, 100},     {1.0f / 180, 100, 18000},
                 {14506.667f, 1450666, 100}, {0.29f, 100, 344},
                 // whole values past 2^23 once scaled are not pushed up
                 {1048576.0f, 104857600, 100}, {100000.0f, 10000000, 100}};
    for (const auto& c : cases) {
        std::int32_t n = -1, d = -1;
        ASSERT_TRUE(ol::floatToRational(c.t, n, d)) << c.t;
        EXPECT_EQ(n, c.num) << c.t;
        EXPECT_EQ(d, c.den) << c.t;
    }
    std::int32_t n = 7, d = 9;
    EXPECT_FALSE(ol::floatToRational(0.0f, n, d));
    EXPECT_FALSE(ol::floatToRational(-2.0f, n, d));
    EXPECT_EQ(n, 7);
    EXPECT_EQ(d, 9);
}

TEST(MetareadExif, ExposureTimeWinsOverShutterSpeedInEitherOrder) {
    EXPECT_EQ(withExif({srationalE(tag::kShutterSpeed, 7, 1), rationalE(tag::kExposureTime, 1, 50)}).exposureDen, 5000);
    EXPECT_EQ(withExif({rationalE(tag::kExposureTime, 1, 50), srationalE(tag::kShutterSpeed, 7, 1)}).exposureDen, 5000);
    // Alone, Tv 7 gives 2^-7 s.
    EXPECT_EQ(withExif({srationalE(tag::kShutterSpeed, 7, 1)}).exposureDen, 12800);
    // A negative Tv is a long exposure: 2^2 s.
    const ExifRecord r = withExif({srationalE(tag::kShutterSpeed, -2, 1)});
    EXPECT_EQ(r.exposureNum, 400);
    EXPECT_EQ(r.exposureDen, 100);
    // A zero denominator leaves no exposure, and the rational words untouched.
    TiffSpec t;
    t.exif = {srationalE(tag::kShutterSpeed, 7, 0)};
    const Records z = readExifBytes(buildTiff(t), 0);
    EXPECT_EQ(z.exif.exposureNum, 0);
    EXPECT_EQ(z.result, 0);
}

TEST(MetareadExif, ApertureIsoAndOrientationSources) {
    // ApertureValue only fills a missing FNumber, taken as it stands (no
    // APEX conversion); MaxApertureValue likewise.
    EXPECT_EQ(withExif({rationalE(tag::kFNumber, 4, 1), rationalE(tag::kAperture, 56, 10)}).apertureNum, 400);
    EXPECT_EQ(withExif({rationalE(tag::kAperture, 56, 10)}).apertureNum, 560);
    EXPECT_EQ(withExif({rationalE(tag::kMaxAperture, 3, 1), rationalE(tag::kAperture, 8, 1)}).apertureNum, 300);
    // ExposureIndex stands in for a zero ISO (its numerator when the
    // denominator is 0), but only when it comes after the zero ISO.
    EXPECT_EQ(withExif({shortE(tag::kIso, 0), rationalE(tag::kExposureIndex, 800, 2)}).iso, 400);
    EXPECT_EQ(withExif({rationalE(tag::kExposureIndex, 640, 0)}).iso, 640);
    EXPECT_EQ(withExif({shortE(tag::kIso, 200), rationalE(tag::kExposureIndex, 800, 1)}).iso, 200);
    EXPECT_EQ(withExif({rationalE(tag::kExposureIndex, 800, 1), shortE(tag::kIso, 0)}).iso, 0);
    // Orientation only from a SHORT.
    EXPECT_EQ(withIfd0({longE(tag::kOrientation, 3)}).orientation, 0);
    EXPECT_EQ(withIfd0({shortE(tag::kOrientation, 8)}).orientation, 8);
}

TEST(MetareadExif, ThumbnailOnlyFromLaterIfdsAndOnlyThreeIfdsWalked) {
    TiffSpec t;
    t.ifds = {{longE(tag::kThumbOffset, 1000), longE(tag::kThumbLength, 50)}, {longE(tag::kThumbOffset, 2000), longE(tag::kThumbLength, 60)}};
    Bytes tiff = buildTiff(t);
    Records r = readExifBytes(tiff, 0);
    EXPECT_EQ(r.exif.thumbOffset, 2000);
    EXPECT_EQ(r.exif.thumbLen, 60);
    // In a JPEG the offset becomes a file offset: the TIFF base is added.
    r = readExifBytes(jpegWith({{0xE1, exifPayload(tiff)}}), 1);
    EXPECT_EQ(r.exif.thumbOffset, 2000 + 2 + 4 + 6);

    // A third IFD (number 2) is read, a fourth is not.
    t.ifds = {{shortE(tag::kOrientation, 1)}, {shortE(tag::kOrientation, 2)}, {shortE(tag::kOrientation, 3)}, {shortE(tag::kOrientation, 4)}};
    EXPECT_EQ(readExifBytes(buildTiff(t), 0).exif.orientation, 3);
    // A loop in the chain ends there too.
    t.ifds = {{shortE(tag::kOrientation, 1)}, {shortE(tag::kOrientation, 2)}};
    t.loopTo = 0;
    EXPECT_EQ(readExifBytes(buildTiff(t), 0).exif.orientation, 1);
    // An IFD of 255 entries ends the chain; one of 256 does not.
    std::vector<Entry> big(254, longE(0x9999, 0));
    big.push_back(shortE(tag::kOrientation, 5));
    t = TiffSpec{};
    t.ifds = {big, {shortE(tag::kOrientation, 7)}};
    EXPECT_EQ(readExifBytes(buildTiff(t), 0).exif.orientation, 5);
    big.push_back(longE(0x9998, 0));
    t.ifds = {big, {shortE(tag::kOrientation, 7)}};
    EXPECT_EQ(readExifBytes(buildTiff(t), 0).exif.orientation, 7);
}

TEST(MetareadExif, ModelIsALineRead) {
    EXPECT_EQ(field(withIfd0({asciiE(tag::kModel, std::string(80, 'M'))}).camera, 64), std::string(63, 'M'));
    EXPECT_EQ(field(withIfd0({asciiE(tag::kModel, "Line one\nLine two")}).camera, 64), "Line one\n");
}

TEST(MetareadExif, WorkingRecordIsClearedButAbsentRationalsAreLeft) {
    ExifRecord e;
    GpsRecord g;
    std::memset(&e, 0x55, sizeof e);
    std::memset(&g, 0x55, sizeof g);
    TempDir dir;
    oltest::writeFile(dir.file("t.tif"), buildTiff(TiffSpec{}));
    get_exif_data(dir.file("t.tif").c_str(), 0, &e, &g);
    EXPECT_EQ(e.exposureNum, 0x55555555);  // no exposure: words untouched
    EXPECT_EQ(e.apertureDen, 0x55555555);
    EXPECT_EQ(e.iso, 0);
    EXPECT_EQ(e.orientation, 0);
    EXPECT_EQ(e.xmpLen, 0);
    EXPECT_EQ(e.xmpOffset, 0);
    EXPECT_EQ(e.camera[0], 0);
    EXPECT_EQ(e.date[0], 0);
    EXPECT_EQ(e.colorSpace, 0x55555555);  // not the reader's field
    EXPECT_EQ(g.latitude[0], 0u);
    EXPECT_EQ(g.lat_ref, 0);
    // A missing file gives the same cleared values.
    std::memset(&e, 0x55, sizeof e);
    EXPECT_EQ(get_exif_data(dir.file("none.tif").c_str(), 0, &e, &g), 0x55555555);
    EXPECT_EQ(e.iso, 0);
}

TEST(MetareadExif, XmpAndIptcTags) {
    ExifRecord r = withIfd0({rawE(tag::kXmp, 1, 4321, 900), rawE(tag::kIptc, 4, 10, 1234)});
    EXPECT_EQ(r.xmpLen, 4321);
    EXPECT_EQ(r.xmpOffset, 900);
    EXPECT_EQ(r.iptcOffset, 1234);
    EXPECT_EQ(r.iptcLen, 40);
    EXPECT_EQ(withIfd0({rawE(tag::kIptc, 7, 10, 1234)}).iptcLen, 10);
    r = withIfd0({rawE(tag::kIptc, 3, 10, 1234)});  // another type: length unchanged
    EXPECT_EQ(r.iptcOffset, 1234);
    EXPECT_EQ(r.iptcLen, 0);
}

// An IPTC block, optionally a thumbnail resource (28-byte header and 333
// bytes), and a resource behind them.
Bytes photoshopBlocks(const Bytes& iptc, bool withThumb) {
    Bytes th;
    Writer w{false, &th};
    for (std::uint32_t v : {1u, 160u, 120u, 480u, 57600u, 333u}) w.u32(v);
    w.u16(24);
    w.u16(1);
    th.resize(th.size() + 333, 0xAB);
    return cat({resource8bim(0x0404, iptc), withThumb ? resource8bim(0x040C, th) : Bytes{},
                resource8bim(0x0425, Bytes(16, 1))});
}

TEST(MetareadExif, App13BlockGivesIptcAndThumbnail) {
    const Bytes iptc = iptcKeywords({"alpha", "beta"});
    const Bytes tiff = buildTiff(TiffSpec{});
    TempDir dir;
    const std::string p = dir.file("a.jpg");
    oltest::writeFile(p, jpegWith({{0xE1, exifPayload(tiff)}, {0xED, app13Payload(photoshopBlocks(iptc, true))}}));
    const Records r = readExif(p, 1);
    ASSERT_EQ(r.exif.iptcLen, static_cast<int>(iptc.size()));
    const std::size_t app13 = 2 + 4 + 6 + tiff.size();
    EXPECT_EQ(r.exif.iptcOffset, static_cast<int>(app13 + 4 + 14 + 12));
    EXPECT_EQ(r.exif.thumbLen, 333);
    EXPECT_EQ(r.exif.thumbOffset, static_cast<int>(app13 + 4 + 14 + resource8bim(0x0404, iptc).size() + 12 + 28));
    EXPECT_EQ(iptcBlock(p, r.exif), std::string(iptc.begin(), iptc.end()));
}

TEST(MetareadExif, App13BlockIsScannedForItsWholeLengthField) {
    // A small IPTC block as the only resource: the block scan takes as many
    // bytes as the segment's length field, which reaches 16 bytes past the
    // segment, so a resource near the segment's end is still found.
    const Bytes iptc = {0x1C, 2, 0, 0, 2, 0, 4, 0};
    const Bytes tiff = buildTiff(TiffSpec{});
    const Bytes jpg = jpegWith({{0xE1, exifPayload(tiff)}, {0xED, app13Payload(resource8bim(0x0404, iptc))}});
    const Records r = readExifBytes(jpg, 1);
    EXPECT_EQ(r.exif.iptcLen, 8);
    const std::size_t app13 = 2 + 4 + 6 + tiff.size();
    EXPECT_EQ(r.exif.iptcOffset, static_cast<int>(app13 + 4 + 14 + 12));
}

TEST(MetareadExif, App13IsOnlyLookedAtAfterAnExifApp1) {
    const Bytes blocks = photoshopBlocks(iptcKeywords({"alpha", "beta"}), false);
    Records r = readExifBytes(jpegWith({{0xED, app13Payload(blocks)}}), 1);
    EXPECT_EQ(r.exif.iptcLen, 0);
    // The second pass needs exactly one 0xFF before each marker.
    Bytes jpg = jpegWith({{0xE1, exifPayload(buildTiff(TiffSpec{}))}, {0xED, app13Payload(blocks)}});
    EXPECT_GT(readExifBytes(jpg, 1).exif.iptcLen, 0);
    jpg.insert(jpg.begin() + 2, 0xFF);  // padding before the APP1
    EXPECT_EQ(readExifBytes(jpg, 1).exif.iptcLen, 0);
}

TEST(MetareadExif, JpegScanStopsAndSaysWhy) {
    const Bytes tiff = buildTiff(fullSpec(true));
    struct Case {
        Bytes file;
        std::string printed;
        int iso;
    };
    Bytes padded = jpegWith({{0xE1, exifPayload(tiff)}});
    padded.insert(padded.begin() + 2, {0xFF, 0xFF, 0xFF});  // four 0xFF in all
    Bytes overPadded = padded;
    overPadded.insert(overPadded.begin() + 2, 0xFF);  // five
    Bytes noFF = jpegWith({{0xE1, exifPayload(tiff)}});
    noFF.erase(noFF.begin() + 2);  // the marker byte alone
    Bytes shortLen = {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x01};
    Bytes notExif = jpegWith({{0xE1, Bytes{'h', 't', 't', 'p', ':', '/', '/'}}, {0xE1, exifPayload(tiff)}});
    Case cases[] = {
        {padded, "", 400},
        {overPadded, "too many padding bytes\n", 0},
        {noFF, "", 400},
        {shortLen, "invalid marker\n", 0},
        {notExif, "APP1 does not contain valid Exif header\n", 0},
        {Bytes{0xFF, 0xD9}, "", 0},
        {jpegWith({{0xE0, Bytes(14, 0)}}), "", 0},
    };
    for (const auto& c : cases) {
        oltest::CaptureFd out(1);
        const Records r = readExifBytes(c.file, 1);
        EXPECT_EQ(out.finish(), c.printed);
        EXPECT_EQ(r.exif.iso, c.iso);
    }
}

TEST(MetareadExif, DescriptionOnlyParsedInTiff) {
    const std::string desc = "f1, f2, f3, f4, f5, f6, f7, 1/250s, R345, G300, B512";
    TiffSpec t;
    t.ifds = {{asciiE(tag::kImageDescription, desc)}};
    const Bytes tiff = buildTiff(t);
    const Records r = readExifBytes(tiff, 0);
    EXPECT_EQ(r.exif.exposureNum, 100);
    EXPECT_EQ(r.exif.exposureDen, 25000);
    // m = trunc((512 + 300) / 2) = 406, iso = 200 * trunc(2^(406/30)).
    EXPECT_EQ(r.exif.iso, 200 * 11856);
    EXPECT_EQ(r.exif.descriptionMark, 2);
    // Other types read as TIFF (any value but 1 and 2) leave it alone.
    EXPECT_EQ(readExifBytes(tiff, 5).exif.iso, 0);
    const Records j = readExifBytes(jpegWith({{0xE1, exifPayload(tiff)}}), 1);
    EXPECT_EQ(j.exif.iso, 0);
    EXPECT_EQ(j.exif.descriptionMark, 0);
}

TEST(MetareadDescription, FieldsRefusalsAndWrappedIso) {
    constexpr int kAny = -99;  // not looked at
    const struct {
        const char* text;
        float exposure;  // kAny: not looked at
        std::int32_t iso;
        int mark;
    } cases[] = {
        // A whole number of seconds (m = 30: 2^1); a '.' ends the conversion;
        // a last colour of 0 is not marked.
        {"a, b, c, d, e, f, g, 2s, R30, G30, B30", 2.0f, 400, 2},
        {"a, b, c, d, e, f, g, 1/8.5s, R0, G0, B0", 0.125f, 200, 0},
        // A missing colour stores nothing at all.
        {"a, b, c, d, e, f, g, 1/60s, R30, G30, X30", 0.0f, 0, kAny},
        // More than six characters abandon the exposure; the colours still count.
        {"a, b, c, d, e, f, g, 1234567/2s, R60, G60, B60", 0.0f, 800, 0},
        // A numerator of 99999 is not marked.
        {"a, b, c, d, e, f, g, 99999/1s, R1, G1, B1", 99999.0f, kAny, 0},
        // No separator at all.
        {"R1 G1 B1", kAny, 0, kAny},
        // m = 750: 200 * 2^25 leaves 32 bits and keeps its low 32.
        {"a, b, c, d, e, f, g, 1/60s, R750, G750, B750", kAny, static_cast<std::int32_t>(200u * 33554432u), kAny},
        // m = 1000: 2^33.3 is no 32-bit integer (0x80000000), times 200 is 0.
        {"a, b, c, d, e, f, g, 1/60s, R1000, G1000, B1000", kAny, 0, 2},
    };
    for (const auto& c : cases) {
        ol::RawExif r;
        std::memset(&r, 0, sizeof r);
        ol::parseDescription(c.text, std::strlen(c.text), r);
        if (c.exposure != kAny) {
            EXPECT_FLOAT_EQ(r.exposure, c.exposure) << c.text;
        }
        if (c.iso != kAny) {
            EXPECT_EQ(r.iso, c.iso) << c.text;
        }
        if (c.mark != kAny) {
            EXPECT_EQ(r.mark, c.mark) << c.text;
        }
    }
}

TEST(MetareadIptc, ReadCodes) {
    TempDir dir;
    const std::string p = dir.file("f.bin");
    Bytes file(100, 0);
    file[10] = 0x1C;
    file[20] = 0x33;
    oltest::writeFile(p, file);
    unsigned char buf[128] = {};
    EXPECT_EQ(read_iptc(p.c_str(), 20, 10, buf), 20);
    EXPECT_EQ(buf[0], 0x1C);
    EXPECT_EQ(read_iptc(p.c_str(), 20, 20, buf), -2);  // dest is filled anyway
    EXPECT_EQ(buf[0], 0x33);
    // The range test compares len with the file size, whatever the offset.
    EXPECT_EQ(read_iptc(p.c_str(), 100, 0, buf), 0);
    EXPECT_EQ(read_iptc(p.c_str(), 99, 0, buf), -2);
    // Short read behind a 0x1C: -1.
    EXPECT_EQ(read_iptc(p.c_str(), 95, 10, buf), -1);
    // A short read whose first byte is wrong: -2 first.
    EXPECT_EQ(read_iptc(p.c_str(), 95, 20, buf), -2);
    // An offset before the start fails the first seek.
    EXPECT_EQ(read_iptc(p.c_str(), 10, -200, buf), -1);
    EXPECT_EQ(read_iptc(dir.file("missing").c_str(), 10, 0, buf), -1);
    oltest::writeFile(dir.file("empty"), {});
    EXPECT_EQ(read_iptc(dir.file("empty").c_str(), 1, 0, buf), -1);
}

TEST(MetareadConstant, KeepsWhatAllPhotosShare) {
    ExifRecord a{}, b{};
    a.exposureNum = b.exposureNum = 100;
    a.exposureDen = b.exposureDen = 200;
    a.apertureNum = b.apertureNum = 560;
    a.apertureDen = b.apertureDen = 100;
    a.iso = b.iso = 100;
    a.focalNum = 5000;
    b.focalNum = 2400;
    std::strcpy(a.camera, "A");
    std::strcpy(b.camera, "B");
    ExifRecord kept = a;
    EXPECT_EQ(constant_exif(&kept, &b), 1);
    EXPECT_EQ(0, std::memcmp(&kept, &a, sizeof a));  // focal and camera of the first stand
    b.exposureDen = 400;  // a differing denominator alone clears the rational
    b.apertureNum = 800;
    b.iso = 200;
    EXPECT_EQ(constant_exif(&kept, &b), 1);
    EXPECT_EQ(kept.exposureNum, 0);
    EXPECT_EQ(kept.exposureDen, 0);
    EXPECT_EQ(kept.apertureNum, 0);
    EXPECT_EQ(kept.apertureDen, 0);
    EXPECT_EQ(kept.iso, 0);
    EXPECT_EQ(kept.focalNum, 5000);
}

}  // namespace
