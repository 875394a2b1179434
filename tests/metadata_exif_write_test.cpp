// Exif census and the free-standing Exif block.
#include <cstring>

#include "support/metadata_bytes.hpp"

using namespace metatest;

// The census of the records: its result, then the seven counts and lengths.
TEST(MetawriteExifCount, PresenceRulesAndTextLengths) {
    ExifRecord full = emptyExif();
    std::memset(full.camera, 'x', sizeof full.camera);
    std::memset(full.date, '1', sizeof full.date);
    full.exposureNum = 1;  // denominator 0: absent
    full.apertureDen = 10;  // numerator 0: absent
    full.focalNum = 5;
    full.focalDen = -2;  // negative: absent
    full.iso = 1;
    GpsRecord altDate = emptyGps(), longRef = emptyGps();
    altDate.alt_ref = static_cast<char>(0x81);  // negative as a signed byte
    altDate.altitude[0] = 12;
    altDate.altitude[1] = 1;
    altDate.datestamp[0] = '2';
    longRef.long_ref = 'W';
    const struct {
        ExifRecord ex;
        GpsRecord gps;
        std::vector<int> census;
    } rows[] = {
        {fullExif(), fullGps(), {14, 5, 44, 9, 91, 10, 20, 11}},
        {emptyExif(), emptyGps(), {0, 0, 0, 0, 0, 0, 0, 0}},
        // A full camera field reads 64 + 1; a full date 20 + 1, which also
        // counts in the Exif data length. ISO has no data bytes.
        {full, emptyGps(), {2, 2, 21, 0, 0, 65, 21, 0}},
        // Altitude 8 bytes, date 11 bytes, plus GPSVersionID.
        {emptyExif(), altDate, {3, 0, 0, 3, 19, 0, 0, 11}},
        {emptyExif(), longRef, {2, 0, 0, 2, 0, 0, 0, 0}},
    };
    for (const auto& r : rows) {
        std::vector<int> c(8);
        c[0] = get_exif_count(&r.ex, &c[1], &c[2], &r.gps, &c[3], &c[4], &c[5], &c[6], &c[7]);
        EXPECT_EQ(c, r.census) << &r - rows;
    }
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
    const struct {
        const char* file;  // nullptr: no block
        ExifRecord ex;
        GpsRecord gps;
        int orientation, result;
    } rows[] = {
        {"full.exif", fullExif(), fullGps(), 9, 387},  // orientation 9 counts as 1
        {"gps_date_whole.exif", dated, gpsDate, 1, 114},
        {"camera_only.exif", cam, emptyGps(), 6, 14 + 24 + 4},
        {"gps_only.exif", emptyExif(), latRef, 2, 14 + 24 + 30},  // version and reference, no data
        {nullptr, emptyExif(), emptyGps(), 3, -1},  // nothing to say, though an orientation was given
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file ? row.file : "empty");
        Bytes out(1024, 0xAA);
        std::fill(out.begin(), out.begin() + 512, 0);
        const int r = exifBlockInto(row.ex, row.gps, row.orientation, out.data());
        EXPECT_EQ(r, row.result);
        const std::size_t end = static_cast<std::size_t>(std::max(r, 0));
        EXPECT_EQ(Bytes(out.begin() + static_cast<std::ptrdiff_t>(end), out.end()), patched(Bytes(1024 - end, 0xAA), 0, Bytes(512 - end, 0)))
            << "written past the block";
        out.resize(end);
        if (row.file) { EXPECT_TRUE(oltest::matchesFixture(std::string("exif/") + row.file, out)); }
    }
    Bytes out(64, 0);  // -1 at once: the records are not even read
    EXPECT_EQ(write_exif_buf(0, 0, 0, 0, 0, 0, 0, 3, nullptr, nullptr, out.data()), -1);
    EXPECT_EQ(out, Bytes(64, 0));
}
