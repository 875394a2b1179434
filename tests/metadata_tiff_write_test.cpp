// TIFF writer with metadata: layout, offsets, pixel paths and failure codes.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <numeric>

#include "support/metadata_bytes.hpp"

using namespace metatest;
using oltest::readFile;
using oltest::TempDir;

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

std::vector<IfdEntry> ifd0(const Written& w) { return readIfd(w.bytes, u32(w.bytes, 4)); }

// The `n` bytes the pixels take behind the header.
Bytes pixels(const Written& w, std::size_t n) { return Bytes(w.bytes.begin() + 8, w.bytes.begin() + 8 + n); }

Bytes ramp(std::size_t n, int step = 7) {
    Bytes v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::uint8_t>(i * step + 1);
    return v;
}

const std::vector<int> kBaseTags = {256, 257, 258, 259, 262, 273, 274, 277, 278, 279, 284, 282, 283};

}  // namespace

TEST(MetawriteTiff, MinimalRgbFileHasThirteenEntriesAndExactLayout) {
    const auto px = ramp(2 * 2 * 3);
    const ExifRecord ex = emptyExif();
    const GpsRecord gps = emptyGps();
    tif_info info = makeInfo(2, 2, 3, 8);
    info.orientation = 0;
    const Written w = write(px.data(), info, 6, {.exif = &ex, .gps = &gps});

    // IFD 2 + 13*12, next pointer 4, bits array 6, two resolutions 16.
    ASSERT_EQ(w.result, 184);
    ASSERT_EQ(w.bytes.size(), 8u + 12u + 184u);
    EXPECT_EQ(text(w.bytes, 0, 2), "II");
    EXPECT_EQ(u16(w.bytes, 2), 42);
    EXPECT_EQ(u32(w.bytes, 4), 20u);
    EXPECT_TRUE(std::equal(px.begin(), px.end(), w.bytes.begin() + 8));

    const auto ifd = readIfd(w.bytes, 20);
    EXPECT_EQ(tagsOf(ifd), kBaseTags);
    EXPECT_EQ(find(ifd, 256)->shortValue(), 2);
    EXPECT_EQ(find(ifd, 257)->shortValue(), 2);
    EXPECT_EQ(find(ifd, 258)->count, 3u);
    EXPECT_EQ(find(ifd, 258)->value, 182u);  // ifddebut + IFD length + 4
    EXPECT_EQ(find(ifd, 259)->shortValue(), 1);
    EXPECT_EQ(find(ifd, 262)->shortValue(), 2);
    EXPECT_EQ(find(ifd, 273)->value, 8u);
    EXPECT_EQ(find(ifd, 274)->shortValue(), 1);  // orientation 0 corrected
    EXPECT_EQ(find(ifd, 277)->shortValue(), 3);
    EXPECT_EQ(find(ifd, 278)->shortValue(), 2);
    EXPECT_EQ(find(ifd, 279)->value, 12u);
    EXPECT_EQ(find(ifd, 284)->shortValue(), 1);
    EXPECT_EQ(find(ifd, 282)->value, 188u);
    EXPECT_EQ(find(ifd, 283)->value, 196u);
    EXPECT_EQ(find(ifd, 282)->type, 5);
    EXPECT_EQ(u32(w.bytes, 20 + 158), 0u);  // next IFD
    for (int i = 0; i < 3; ++i) EXPECT_EQ(u16(w.bytes, 182 + 2 * i), 8);
    EXPECT_EQ(u32(w.bytes, 188), 300000u);
    EXPECT_EQ(u32(w.bytes, 192), 1000u);
    EXPECT_EQ(u32(w.bytes, 196), 300000u);
    EXPECT_EQ(u32(w.bytes, 200), 1000u);
}

TEST(MetawriteTiff, EightAndSixteenBitFilesDifferOnlyInBitsStripAndPixels) {
    const ExifRecord ex = emptyExif();
    const GpsRecord gps = emptyGps();
    const auto px8 = ramp(3 * 2 * 3);
    const auto px16 = ramp(3 * 2 * 3 * 2, 11);
    const Written a = write(px8.data(), makeInfo(3, 2, 3, 8), 9, {.exif = &ex, .gps = &gps});
    const Written b = write(px16.data(), makeInfo(3, 2, 3, 16), 18, {.exif = &ex, .gps = &gps});
    ASSERT_EQ(a.result, b.result);
    EXPECT_TRUE(std::equal(px16.begin(), px16.end(), b.bytes.begin() + 8));
    const auto ia = ifd0(a), ib = ifd0(b);
    EXPECT_EQ(find(ia, 279)->value, 18u);
    EXPECT_EQ(find(ib, 279)->value, 36u);
    const std::size_t bitsB = find(ib, 258)->value;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(u16(b.bytes, bitsB + 2 * i), 16);
    // Every offset moves by the 18 extra pixel bytes; nothing else changes.
    for (std::size_t i = 0; i < ia.size(); ++i) {
        EXPECT_EQ(ia[i].tag, ib[i].tag);
        if (ia[i].tag == 258 || ia[i].tag == 282 || ia[i].tag == 283) {
            EXPECT_EQ(ia[i].value + 18, ib[i].value);
        }
    }
}

TEST(MetawriteTiff, OneSampleImageHasInlineBitsAndNoArray) {
    const auto px = ramp(5 * 2);
    const Written w = write(px.data(), makeInfo(5, 2, 1, 8), 5);
    ASSERT_EQ(w.result, 2 + 156 + 4 + 16);
    const auto ifd = readIfd(w.bytes, 18);
    EXPECT_EQ(find(ifd, 258)->count, 1u);
    EXPECT_EQ(find(ifd, 258)->value, 8u);
    EXPECT_EQ(find(ifd, 262)->shortValue(), 1);
    EXPECT_EQ(find(ifd, 282)->value, 18u + 158 + 4);
}

TEST(MetawriteTiff, EveryOffsetOfTheFullLayout) {
    const auto px = ramp(4 * 3 * 3);
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    const auto icc = iccHeader("RGB ");
    const Bytes iptc = {0x1C, 2, 0, 0, 2, 0, 4, 0x1C, 2, 0x19, 0, 5, 'a', 'l', 'p', 'h', 'a',
                                            0x1C, 2, 0x19, 0, 4, 'b', 'e', 't', 'a', 0x1C};  // 27 bytes
    const float tm[15] = {1, 2, 3, 0.5f, 0.1f, 2, 3, 4, 25, 5, 6, 7, 8, 9, 10};
    const int xmp = embed_xmp(0, nullptr, 1, tm) + 1;
    const Written w = write(px.data(), makeInfo(4, 3, 3, 8), 12, {&icc, &ex, &gps, &iptc, 1, tm});

    // Exif: 4 rationals/text (8+8+20+8 = 44 data bytes) and ISO, 5 entries.
    // GPS: 9 entries, 24+24+8+24+11 = 91 data bytes. IFD: 19 entries.
    const int exifBlock = 44 + 60 + 6, gpsBlock = 108 + 6 + 91;
    ASSERT_EQ(w.result, 230 + xmp + 10 + gpsBlock + exifBlock + 28 + 6 + 132 + 20);
    ASSERT_EQ(w.bytes.size(), 44u + static_cast<std::size_t>(w.result));
    ASSERT_EQ(u32(w.bytes, 4), 44u);
    const auto ifd = readIfd(w.bytes, 44);
    EXPECT_EQ(tagsOf(ifd), (std::vector<int>{256, 257, 258, 259, 262, 272, 273, 274, 277, 278, 279, 284, 282, 283,
                                             34675, 700, 33723, 34665, 34853}));
    EXPECT_EQ(find(ifd, 258)->value, 278u);
    EXPECT_EQ(find(ifd, 272)->value, 284u);
    EXPECT_EQ(find(ifd, 272)->count, 10u);
    EXPECT_EQ(text(w.bytes, 284, 10), std::string("TestCam 5\0", 10));
    EXPECT_EQ(find(ifd, 282)->value, 294u);
    EXPECT_EQ(find(ifd, 283)->value, 302u);
    EXPECT_EQ(find(ifd, 34675)->value, 310u);
    EXPECT_EQ(find(ifd, 34675)->type, 7);
    EXPECT_EQ(find(ifd, 34675)->count, 132u);
    EXPECT_TRUE(std::equal(icc.begin(), icc.end(), w.bytes.begin() + 310));
    const std::uint32_t xmpAt = 442, iptcAt = xmpAt + xmp, exifAt = iptcAt + 28, gpsAt = exifAt + exifBlock;
    EXPECT_EQ(find(ifd, 700)->value, xmpAt);
    EXPECT_EQ(find(ifd, 700)->type, 1);
    EXPECT_EQ(find(ifd, 700)->count, static_cast<std::uint32_t>(xmp));
    std::vector<char> packet(static_cast<std::size_t>(xmp));
    embed_xmp(1, packet.data(), 1, tm);
    packet.back() = ' ';
    EXPECT_EQ(text(w.bytes, xmpAt, xmp), std::string(packet.begin(), packet.end()));
    EXPECT_EQ(find(ifd, 33723)->value, iptcAt);
    EXPECT_EQ(find(ifd, 33723)->count, 7u);
    EXPECT_TRUE(std::equal(iptc.begin(), iptc.end(), w.bytes.begin() + iptcAt));
    EXPECT_EQ(w.bytes[iptcAt + 27], 0);
    EXPECT_EQ(find(ifd, 34665)->value, exifAt);
    EXPECT_EQ(find(ifd, 34853)->value, gpsAt);

    const auto eifd = readIfd(w.bytes, exifAt);
    EXPECT_EQ(tagsOf(eifd), (std::vector<int>{33434, 33437, 34855, 36867, 37386}));
    EXPECT_EQ(u32(w.bytes, exifAt + 62), 0u);
    EXPECT_EQ(eifd[0].value, exifAt + 66);
    EXPECT_EQ(eifd[1].value, exifAt + 74);
    EXPECT_EQ(eifd[2].shortValue(), 200);
    EXPECT_EQ(eifd[3].value, exifAt + 82);
    EXPECT_EQ(eifd[3].count, 20u);
    EXPECT_EQ(eifd[4].value, exifAt + 102);
    EXPECT_EQ(u32(w.bytes, exifAt + 66), 1u);
    EXPECT_EQ(u32(w.bytes, exifAt + 70), 125u);
    EXPECT_EQ(u32(w.bytes, exifAt + 74), 56u);
    EXPECT_EQ(u32(w.bytes, exifAt + 78), 10u);
    EXPECT_EQ(text(w.bytes, exifAt + 82, 20), std::string("2024:05:06 07:08:09\0", 20));
    EXPECT_EQ(u32(w.bytes, exifAt + 102), 35u);

    const auto gifd = readIfd(w.bytes, gpsAt);
    EXPECT_EQ(tagsOf(gifd), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 29}));
    EXPECT_EQ(gifd[0].type, 1);
    EXPECT_EQ(gifd[0].value, 0x00000202u);
    EXPECT_EQ(gifd[1].type, 2);
    EXPECT_EQ(gifd[1].value, static_cast<std::uint32_t>('N'));
    EXPECT_EQ(gifd[5].type, 2);  // GPSAltitudeRef as two-byte ASCII
    EXPECT_EQ(gifd[5].count, 2u);
    EXPECT_EQ(gifd[5].value, static_cast<std::uint32_t>('0'));
    EXPECT_EQ(gifd[2].value, gpsAt + 114);
    EXPECT_EQ(gifd[4].value, gpsAt + 138);
    EXPECT_EQ(gifd[6].value, gpsAt + 162);
    EXPECT_EQ(gifd[7].value, gpsAt + 170);
    EXPECT_EQ(gifd[8].value, gpsAt + 194);
    EXPECT_EQ(gifd[8].count, 11u);
    EXPECT_EQ(u32(w.bytes, gpsAt + 114 + 16), 2400u);
    EXPECT_EQ(u32(w.bytes, gpsAt + 162), 3500u);
    EXPECT_EQ(u32(w.bytes, gpsAt + 170 + 16), 9u);
    EXPECT_EQ(text(w.bytes, gpsAt + 194, 11), std::string("2024:05:06\0", 11));
}

TEST(MetawriteTiff, GpsDateTakesTheLengthOfTheExifDate) {
    const GpsRecord gps = fullGps();
    const auto gpsDate = [&](const ExifRecord& ex) {
        const Written w = onePixel({.exif = &ex, .gps = &gps});
        return text(w.bytes, find(readIfd(w.bytes, find(ifd0(w), 34853)->value), 29)->value, 11);
    };
    ExifRecord shortDate = emptyExif();
    std::strcpy(shortDate.date, "2024:05");  // 8 bytes with the terminator
    EXPECT_EQ(gpsDate(shortDate), std::string("2024:05:\0\0\0", 11));
    // No Exif date: tag 29 is there, its 11 bytes stay zero.
    EXPECT_EQ(gpsDate(emptyExif()), std::string(11, '\0'));
}

TEST(MetawriteTiff, TagPresenceRules) {
    const auto ifdsOf = [&](const ExifRecord& ex, const GpsRecord& gps) {
        const Written w = onePixel({.exif = &ex, .gps = &gps});
        const auto ifd = ifd0(w);
        std::vector<int> exifTags, gpsTags;
        if (const auto e = find(ifd, 34665)) exifTags = tagsOf(readIfd(w.bytes, e->value));
        if (const auto e = find(ifd, 34853)) gpsTags = tagsOf(readIfd(w.bytes, e->value));
        return std::make_pair(exifTags, gpsTags);
    };
    // Rationals need both parts at least 1; a negative part counts as missing.
    ExifRecord ex = emptyExif();
    ex.exposureNum = 1;
    ex.apertureDen = 10;
    ex.focalNum = -35;
    ex.focalDen = 1;
    ex.iso = -100;
    EXPECT_TRUE(ifdsOf(ex, emptyGps()).first.empty());
    // A date alone gives a one-entry Exif IFD.
    ExifRecord dated = emptyExif();
    std::strcpy(dated.date, "2024:01:01 00:00:00");
    EXPECT_EQ(ifdsOf(dated, emptyGps()).first, std::vector<int>{36867});
    // References are signed bytes; only lat_ref gives the version and itself.
    GpsRecord g = emptyGps();
    g.lat_ref = 'S';
    g.long_ref = static_cast<char>(0xC5);
    g.latitude[0] = 10;  // denominator 0
    g.timestamp[1] = 1;  // numerator 0
    EXPECT_EQ(ifdsOf(emptyExif(), g).second, (std::vector<int>{0, 1}));
    // An empty GPS record has no GPS IFD at all.
    EXPECT_TRUE(ifdsOf(emptyExif(), emptyGps()).second.empty());
}

TEST(MetawriteTiff, OrientationOutsideOneToEightIsOne) {
    for (const auto& [given, expected] : std::vector<std::pair<int, int>>{{0, 1}, {9, 1}, {-3, 1}, {8, 8}, {1, 1}})
        EXPECT_EQ(find(ifd0(onePixel({}, given)), 274)->shortValue(), expected) << given;
}

TEST(MetawriteTiff, ProfilesOtherThanRgbAreDroppedUnlessShort) {
    const auto profileTag = [&](const Bytes& icc) {
        const Written w = onePixel({.profile = &icc});
        const auto e = find(ifd0(w), 34675);
        return std::make_pair(e ? static_cast<int>(e->count) : 0, w.result);
    };
    EXPECT_EQ(profileTag(iccHeader("RGB ")), std::make_pair(132, 184 + 12 + 132));
    EXPECT_EQ(profileTag(iccHeader("GRAY")), std::make_pair(0, 184));
    EXPECT_EQ(profileTag(iccHeader("CMYK")), std::make_pair(0, 184));
    // 21 bytes is examined; 20 and fewer are not.
    Bytes p21(21, 0);
    std::memcpy(&p21[16], "RGB", 3);
    EXPECT_EQ(profileTag(p21).first, 21);
    p21[18] = 'X';
    EXPECT_EQ(profileTag(p21).first, 0);
    EXPECT_EQ(profileTag(Bytes(20, 0x55)).first, 20);
}

TEST(MetawriteTiff, IptcIsPaddedToWholeLongs) {
    const Bytes iptc = {0x1C, 2, 0, 0, 0};
    const Written w = onePixel({.iptc = &iptc});
    ASSERT_EQ(w.result, 184 + 12 + 8);
    const auto e = find(ifd0(w), 33723);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->type, 4);
    EXPECT_EQ(e->count, 2u);
    EXPECT_EQ(text(w.bytes, e->value, 8), std::string("\x1C\x02\0\0\0\0\0\0", 8));
    EXPECT_EQ(w.bytes.size(), e->value + 8u);
}

TEST(MetawriteTiff, XmpPacketIsSpaceFilledToItsCount) {
    const float tm[15] = {};
    const Written w = onePixel({.tmMethod = 3, .tm = tm});
    const int len = embed_xmp(0, nullptr, 3, tm);
    const auto e = find(ifd0(w), 700);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->count, static_cast<std::uint32_t>(len + 1));
    EXPECT_EQ(w.bytes[e->value + len], ' ');
    EXPECT_EQ(text(w.bytes, e->value + len - 13, 13), "</x:xmpmeta>\n");
    // A method of 0 or below writes no packet.
    EXPECT_FALSE(find(ifd0(onePixel({.tmMethod = -1, .tm = tm})), 700));
}

TEST(MetawriteTiff, ShortModelTextIsStillWrittenAtAnOffset) {
    // "EOS" with its terminator would fit in the value field, yet it is
    // stored behind the IFD like every Model text. Readers that take a short
    // ASCII value inline see four bytes of offset instead; pin the bytes.
    ExifRecord ex = emptyExif();
    std::strcpy(ex.camera, "EOS");
    const Written w = onePixel({.exif = &ex});
    ASSERT_EQ(w.result, 2 + 14 * 12 + 4 + 6 + 4 + 16);
    const Bytes entry(w.bytes.begin() + 11 + 2 + 5 * 12, w.bytes.begin() + 11 + 2 + 6 * 12);
    // Tag 272, ASCII, count 4, offset 11 + 170 + 4 + 6 = 191.
    EXPECT_EQ(entry, (Bytes{0x10, 0x01, 2, 0, 4, 0, 0, 0, 191, 0, 0, 0}));
    EXPECT_EQ(text(w.bytes, 191, 4), std::string("EOS\0", 4));
    EXPECT_EQ(u32(w.bytes, 195), 300000u);
}

TEST(MetawriteTiff, FullCameraAndDateFieldsGetATerminator) {
    ExifRecord ex = emptyExif();
    std::memset(ex.camera, 'C', sizeof ex.camera);
    std::memset(ex.date, 'D', sizeof ex.date);
    const Written w = onePixel({.exif = &ex});
    const auto ifd = ifd0(w);
    ASSERT_EQ(find(ifd, 272)->count, 65u);
    EXPECT_EQ(text(w.bytes, find(ifd, 272)->value, 65), std::string(64, 'C') + std::string(1, '\0'));
    const auto eifd = readIfd(w.bytes, find(ifd, 34665)->value);
    ASSERT_EQ(eifd.size(), 1u);
    EXPECT_EQ(eifd[0].count, 21u);
    EXPECT_EQ(text(w.bytes, eifd[0].value, 21), std::string(20, 'D') + std::string(1, '\0'));
}

TEST(MetawriteTiff, FourAndTwoSampleInputDropsASampleButStatesFullSizes) {
    // 2x2 pixels of four samples, rows padded to 10 bytes.
    const Bytes px = {1, 2, 3, 4, 5, 6, 7, 8, 90, 91, 11, 12, 13, 14, 15, 16, 17, 18, 92, 93};
    const Written w = write(px.data(), makeInfo(2, 2, 4, 8), 10);
    // Header and strip length count four samples a pixel: ifddebut 8 + 16.
    ASSERT_EQ(w.result, 184);
    EXPECT_EQ(u32(w.bytes, 4), 24u);
    EXPECT_EQ(pixels(w, 12), (Bytes{1, 2, 3, 5, 6, 7, 11, 12, 13, 15, 16, 17}));
    // Twelve pixel bytes went out, so the IFD actually starts at 20.
    ASSERT_EQ(w.bytes.size(), 20u + 184u);
    const auto ifd = readIfd(w.bytes, 20);
    EXPECT_EQ(tagsOf(ifd), kBaseTags);
    EXPECT_EQ(find(ifd, 279)->value, 16u);
    EXPECT_EQ(find(ifd, 277)->shortValue(), 3);
    EXPECT_EQ(find(ifd, 258)->value, 24u + 158 + 4);

    const Bytes gray = {10, 20, 11, 21, 12, 22, 99};  // 3x1, padded
    const Written g = write(gray.data(), makeInfo(3, 1, 2, 8), 7);
    EXPECT_EQ(u32(g.bytes, 4), 14u);
    EXPECT_EQ(pixels(g, 3), (Bytes{10, 11, 12}));
    const auto gifd = readIfd(g.bytes, 11);
    EXPECT_EQ(find(gifd, 262)->shortValue(), 1);
    EXPECT_EQ(find(gifd, 279)->value, 6u);
}

TEST(MetawriteTiff, SixteenBitFourSampleInputStepsInBytes) {
    // The sample-dropping path moves `samples` bytes a pixel, so 16-bit
    // pixels overlap: each pixel takes 6 bytes starting 4 bytes apart.
    Bytes px(2 * 4 * 2);
    std::iota(px.begin(), px.end(), 0);
    const Written w = write(px.data(), makeInfo(2, 1, 4, 16), 16);
    EXPECT_EQ(u32(w.bytes, 4), 8u + 16u);
    // pad = 16/2 - 8 = 0.
    EXPECT_EQ(pixels(w, 12), (Bytes{0, 1, 2, 3, 4, 5, 4, 5, 6, 7, 8, 9}));
}

TEST(MetawriteTiff, RowsFollowTheStride) {
    const Bytes px = {1, 2, 3, 4, 5, 6, 0xEE, 0xEE, 7, 8, 9, 10, 11, 12, 0xEE, 0xEE};
    const Written w = write(px.data(), makeInfo(2, 2, 3, 8), 8);
    EXPECT_EQ(pixels(w, 12), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
}

TEST(MetawriteTiff, ModeOneKeepsHighBytesAndSkipsPadSamples) {
    // 2x2 one-sample 16-bit little-endian input, rows of 3 samples.
    const std::vector<std::uint16_t> words = {0x1101, 0x2202, 0xFFFF, 0x3303, 0x4404, 0xFFFF};
    Bytes px;
    for (auto v : words) px.push_back(static_cast<std::uint8_t>(v)), px.push_back(static_cast<std::uint8_t>(v >> 8));
    const Written w = write(px.data(), makeInfo(2, 2, 1, 8, 1), 3);
    EXPECT_EQ(u32(w.bytes, 4), 12u);
    EXPECT_EQ(pixels(w, 4), (Bytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_EQ(w.bytes.size(), 12u + 178u);
}

TEST(MetawriteTiff, OtherModesWriteNoPixels) {
    const auto px = ramp(2 * 2 * 3);
    const Written w = write(px.data(), makeInfo(2, 2, 3, 8, 2), 6);
    ASSERT_EQ(w.result, 184);
    EXPECT_EQ(u32(w.bytes, 4), 20u);  // as stated, though the IFD is at 8
    EXPECT_EQ(w.bytes.size(), 8u + 184u);
    EXPECT_EQ(tagsOf(readIfd(w.bytes, 8)), kBaseTags);
}

TEST(MetawriteTiff, WidthAndHeightAreCutTo16Bits) {
    const Written w = write(nullptr, makeInfo(70000, 65539, 1, 8, 2), 70000);
    const auto ifd = readIfd(w.bytes, 8);
    EXPECT_EQ(find(ifd, 256)->shortValue(), 70000 & 0xFFFF);
    EXPECT_EQ(find(ifd, 257)->shortValue(), 3);
    EXPECT_EQ(find(ifd, 278)->shortValue(), 3);
    EXPECT_EQ(find(ifd, 279)->value, 70000u * 65539u);  // 32-bit, wraps
}

namespace {

// Lowers the file size limit for the scope so that writes past it fail.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        old_ = signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &saved_);
        rlimit l = saved_;
        l.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &l);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &saved_);
        signal(SIGXFSZ, old_);
    }

private:
    rlimit saved_{};
    sighandler_t old_;
};

}  // namespace

TEST(MetawriteTiff, FailureCodesOfEachStage) {
    TempDir dir;
    const auto px = ramp(4 * 4 * 3);
    const tif_info info = makeInfo(4, 4, 3, 8);
    const ExifRecord ex = fullExif();
    const auto call = [&](const std::string& path) {
        return buf2tifOld(px.data(), &info, 12, nullptr, &ex, nullptr, 0, nullptr, 0, nullptr, path.c_str());
    };
    EXPECT_EQ(call(dir.file("missing/folder/out.tif")), -1);
    if (access("/dev/full", W_OK) == 0) {
        EXPECT_EQ(call("/dev/full"), -2);
    }
    {
        FileSizeLimit limit(8);
        EXPECT_EQ(call(dir.file("pixels.tif")), -3);
    }
    EXPECT_EQ(readFile(dir.file("pixels.tif")).size(), 8u);
    {
        FileSizeLimit limit(8 + 48 + 10);
        EXPECT_EQ(call(dir.file("meta.tif")), -12);
    }
    // A failed call leaves its partial file.
    EXPECT_EQ(readFile(dir.file("meta.tif")).size(), 8u + 48u + 10u);
    EXPECT_GT(call(dir.file("ok.tif")), 0);
}

TEST(MetawriteTiff, BlockAllocationFailureGivesMinusOneAfterThePixels) {
    TempDir dir;
    const auto px = ramp(2 * 2 * 3);
    const tif_info info = makeInfo(2, 2, 3, 8);
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    const std::string path = dir.file("a.tif");
    {
        oltest::FailAllocation fail(1);
        EXPECT_EQ(buf2tifOld(px.data(), &info, 6, nullptr, &ex, &gps, 0, nullptr, 0, nullptr, path.c_str()), -1);
    }
    EXPECT_EQ(readFile(path).size(), 8u + 12u);
    EXPECT_EQ(oltest::countAllocations([&] {
                  buf2tifOld(px.data(), &info, 6, nullptr, &ex, &gps, 0, nullptr, 0, nullptr, path.c_str());
              }),
              1);
}

TEST(MetawriteTiff, PlainBuildPrintsNothing) {
    TempDir dir;
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    const Bytes px(2 * 2 * 4, 5);
    const tif_info info = makeInfo(2, 2, 4, 8);
    Bytes block(1024, 0);
    oltest::CaptureFd out(1);
    oltest::CaptureFd err(2);
    exifBlockInto(ex, gps, 1, block.data());
    buf2tifOld(px.data(), &info, 8, nullptr, &ex, &gps, 0, nullptr, 1, nullptr, dir.file("q.tif").c_str());
    EXPECT_EQ(err.finish(), "");
    EXPECT_EQ(out.finish(), "");
}
