// Exif census and the free-standing Exif block.
#include <cstring>

#include "support/metadata_bytes.hpp"

using namespace metatest;

namespace {

struct Census {
    int result, exifCount, exifLen, gpsCount, gpsLen, modelLen, datetimeLen, gpsDateLen;
    bool operator==(const Census&) const = default;
};

Census census(const ExifRecord& ex, const GpsRecord& gps) {
    Census c{};
    c.result = get_exif_count(&ex, &c.exifCount, &c.exifLen, &gps, &c.gpsCount, &c.gpsLen, &c.modelLen,
                              &c.datetimeLen, &c.gpsDateLen);
    return c;
}

std::ostream& operator<<(std::ostream& o, const Census& c) {
    return o << c.result << ": exif " << c.exifCount << "/" << c.exifLen << " gps " << c.gpsCount << "/"
             << c.gpsLen << " model " << c.modelLen << " date " << c.datetimeLen << " gpsdate " << c.gpsDateLen;
}

// Runs write_exif_buf with the census of the records into a zeroed buffer
// whose tail is marked, and checks that nothing past the result was touched.
std::vector<std::uint8_t> exifBlock(const ExifRecord& ex, const GpsRecord& gps, int orientation, int* result) {
    const Census c = census(ex, gps);
    std::vector<std::uint8_t> out(2048, 0);
    std::fill(out.begin() + 1024, out.end(), 0xAA);
    *result = write_exif_buf(c.exifCount, c.exifLen, c.gpsCount, c.gpsLen, c.modelLen, c.datetimeLen,
                             c.gpsDateLen, orientation, &ex, &gps, out.data());
    const int end = *result > 0 ? *result : 0;
    EXPECT_LE(end, 1024);
    for (int i = end; i < 1024; ++i)
        if (out[i] != 0) ADD_FAILURE() << "byte " << i << " written past the block";
    for (std::size_t i = 1024; i < out.size(); ++i)
        if (out[i] != 0xAA) ADD_FAILURE() << "byte " << i << " written past the block";
    out.resize(static_cast<std::size_t>(end));
    return out;
}

}  // namespace

TEST(MetawriteExifCount, FullRecords) {
    EXPECT_EQ(census(fullExif(), fullGps()), (Census{14, 5, 44, 9, 91, 10, 20, 11}));
    EXPECT_EQ(census(emptyExif(), emptyGps()), (Census{0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(MetawriteExifCount, PresenceRulesAndTextLengths) {
    ExifRecord ex = emptyExif();
    std::memset(ex.camera, 'x', sizeof ex.camera);
    std::memset(ex.date, '1', sizeof ex.date);
    ex.exposureNum = 1;  // denominator 0: absent
    ex.focalNum = 5;
    ex.focalDen = -2;  // negative: absent
    ex.iso = 1;
    // A full camera field reads 64 + 1; a full date 20 + 1, which also counts
    // in the Exif data length. ISO has no data bytes.
    EXPECT_EQ(census(ex, emptyGps()), (Census{2, 2, 21, 0, 0, 65, 21, 0}));

    GpsRecord g = emptyGps();
    g.alt_ref = static_cast<char>(0x81);  // negative as a signed byte
    g.altitude[0] = 12;
    g.altitude[1] = 1;
    g.datestamp[0] = '2';
    // Altitude 8 bytes, date 11 bytes, plus GPSVersionID.
    EXPECT_EQ(census(emptyExif(), g), (Census{3, 0, 0, 3, 19, 0, 0, 11}));
    g = emptyGps();
    g.long_ref = 'W';
    EXPECT_EQ(census(emptyExif(), g).gpsCount, 2);
}

TEST(MetawriteExifBuf, FullBlockLayout) {
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    int r = 0;
    const auto b = exifBlock(ex, gps, 9, &r);
    // n = 4: Model 10 bytes at 62, Exif IFD (110 bytes) at 72, GPS (205) at 182.
    ASSERT_EQ(r, 387);
    EXPECT_EQ(text(b, 0, 2), "II");
    EXPECT_EQ(u16(b, 2), 42);
    EXPECT_EQ(u32(b, 4), 8u);
    const auto ifd = readIfd(b, 8);
    EXPECT_EQ(tagsOf(ifd), (std::vector<int>{272, 274, 34665, 34853}));
    EXPECT_EQ(ifd[0].type, 2);
    EXPECT_EQ(ifd[0].count, 10u);
    EXPECT_EQ(ifd[0].value, 62u);
    EXPECT_EQ(ifd[1].type, 3);
    EXPECT_EQ(ifd[1].value, 1u);  // orientation 9 counts as 1
    EXPECT_EQ(ifd[2].value, 72u);
    EXPECT_EQ(ifd[3].value, 182u);
    EXPECT_EQ(u32(b, 58), 0u);
    EXPECT_EQ(text(b, 62, 10), std::string("TestCam 5\0", 10));

    const auto e = readIfd(b, 72);
    EXPECT_EQ(tagsOf(e), (std::vector<int>{33434, 33437, 34855, 36867, 37386}));
    EXPECT_EQ(e[0].value, 138u);
    EXPECT_EQ(e[1].value, 146u);
    EXPECT_EQ(e[3].value, 154u);
    EXPECT_EQ(e[4].value, 174u);
    EXPECT_EQ(u32(b, 146), 56u);
    EXPECT_EQ(text(b, 154, 20), std::string("2024:05:06 07:08:09\0", 20));
    EXPECT_EQ(u32(b, 174), 35u);
    EXPECT_EQ(u32(b, 178), 1u);

    const auto g = readIfd(b, 182);
    EXPECT_EQ(tagsOf(g), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 29}));
    EXPECT_EQ(g[2].value, 296u);
    EXPECT_EQ(g[4].value, 320u);
    EXPECT_EQ(g[6].value, 344u);
    EXPECT_EQ(g[7].value, 352u);
    EXPECT_EQ(g[8].value, 376u);
    EXPECT_EQ(g[5].type, 2);
    EXPECT_EQ(u32(b, 296 + 16), 2400u);
    EXPECT_EQ(u32(b, 320), 2u);
    EXPECT_EQ(u32(b, 344 + 4), 100u);
    EXPECT_EQ(text(b, 376, 11), std::string("2024:05:06\0", 11));
}

TEST(MetawriteExifBuf, GpsDateIsCopiedInFullWhateverTheExifDate) {
    ExifRecord ex = emptyExif();
    std::strcpy(ex.date, "2024");
    GpsRecord gps = emptyGps();
    std::memcpy(gps.datestamp, "2023:12:31", 11);
    int r = 0;
    const auto b = exifBlock(ex, gps, 1, &r);
    ASSERT_GT(r, 0);
    const auto g = readIfd(b, readIfd(b, 8).at(2).value);
    ASSERT_EQ(tagsOf(g), (std::vector<int>{0, 29}));
    EXPECT_EQ(text(b, g[1].value, 11), std::string("2023:12:31\0", 11));
}

TEST(MetawriteExifBuf, CameraOnlyAndEmpty) {
    ExifRecord ex = emptyExif();
    std::strcpy(ex.camera, "Cam");
    int r = 0;
    const auto b = exifBlock(ex, emptyGps(), 6, &r);
    ASSERT_EQ(r, 14 + 24 + 4);
    const auto ifd = readIfd(b, 8);
    EXPECT_EQ(tagsOf(ifd), (std::vector<int>{272, 274}));
    EXPECT_EQ(ifd[0].value, 38u);
    EXPECT_EQ(ifd[1].value, 6u);
    EXPECT_EQ(text(b, 38, 4), std::string("Cam\0", 4));

    // Nothing to say: -1, though an orientation was given.
    exifBlock(emptyExif(), emptyGps(), 3, &r);
    EXPECT_EQ(r, -1);
    std::vector<std::uint8_t> out(64, 0);
    EXPECT_EQ(write_exif_buf(0, 0, 0, 0, 0, 0, 0, 3, nullptr, nullptr, out.data()), -1);
    EXPECT_EQ(out, std::vector<std::uint8_t>(64, 0));
}

TEST(MetawriteExifBuf, GpsOnly) {
    GpsRecord gps = emptyGps();
    gps.lat_ref = 'N';
    int r = 0;
    const auto b = exifBlock(emptyExif(), gps, 2, &r);
    // Two entries, one GPS IFD of two entries and no data: 14 + 24 + 30.
    ASSERT_EQ(r, 68);
    EXPECT_EQ(tagsOf(readIfd(b, 8)), (std::vector<int>{274, 34853}));
    const auto g = readIfd(b, 38);
    ASSERT_EQ(g.size(), 2u);
    EXPECT_EQ(g[0].value, 0x0202u);
    EXPECT_EQ(g[1].value, static_cast<std::uint32_t>('N'));
}
