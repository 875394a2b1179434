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
    std::vector<std::uint8_t> past(1024 - end, 0);
    past.resize(past.size() + 1024, 0xAA);
    EXPECT_EQ(std::vector<std::uint8_t>(out.begin() + end, out.end()), past) << "written past the block";
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

// Whole blocks against the kept ones (tests/fixtures/README.md); the census
// sizes each, and nothing past its end is touched.
TEST(MetawriteExifBuf, BlocksMatchTheKeptOnes) {
    ExifRecord dated = emptyExif(), cam = emptyExif();
    std::strcpy(dated.date, "2024");  // the GPS date is still copied whole
    std::strcpy(cam.camera, "Cam");
    GpsRecord gpsDate = emptyGps(), latRef = emptyGps();
    std::memcpy(gpsDate.datestamp, "2023:12:31", 11);
    latRef.lat_ref = 'N';
    struct Row {
        const char* file;
        ExifRecord ex;
        GpsRecord gps;
        int orientation, result;
    };
    const Row rows[] = {
        {"full.exif", fullExif(), fullGps(), 9, 387},  // orientation 9 counts as 1
        {"gps_date_whole.exif", dated, gpsDate, 1, 114},
        {"camera_only.exif", cam, emptyGps(), 6, 14 + 24 + 4},
        {"gps_only.exif", emptyExif(), latRef, 2, 14 + 24 + 30},  // version and reference, no data
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.file);
        int r = 0;
        const auto b = exifBlock(row.ex, row.gps, row.orientation, &r);
        EXPECT_EQ(r, row.result);
        EXPECT_TRUE(oltest::matchesFixture(std::string("exif/") + row.file, b));
    }
    // Nothing to say: -1, though an orientation was given.
    int r = 0;
    exifBlock(emptyExif(), emptyGps(), 3, &r);
    EXPECT_EQ(r, -1);
    std::vector<std::uint8_t> out(64, 0);
    EXPECT_EQ(write_exif_buf(0, 0, 0, 0, 0, 0, 0, 3, nullptr, nullptr, out.data()), -1);
    EXPECT_EQ(out, std::vector<std::uint8_t>(64, 0));
}
