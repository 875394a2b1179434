// What buf2tifOld writes, read back by the library's own metadata reader.
#include <cstring>

#include "meta_bytes.hpp"

using namespace metatest;

namespace {

double ratio(std::int32_t num, std::int32_t den) { return den ? static_cast<double>(num) / den : -1.0; }

}  // namespace

TEST(MetawriteRoundTrip, TiffMetadataComesBackThroughTheReader) {
    oltest::TempDir dir;
    const std::string path = dir.file("rt.tif");
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    const std::vector<std::uint8_t> iptc = {0x1C, 2, 0, 0, 2, 0, 4, 0x1C, 2, 0x19, 0, 3, 'o', 'n', 'e'};
    const float tm[15] = {};
    const std::vector<std::uint8_t> px(4 * 2 * 3 * 2, 0x40);
    tif_info info = makeInfo(4, 2, 3, 16);
    info.orientation = 6;
    ASSERT_GT(buf2tifOld(px.data(), &info, 24, nullptr, &ex, &gps, static_cast<int>(iptc.size()), iptc.data(), 2, tm,
                         path.c_str()),
              0);
    const auto file = oltest::readFile(path);
    const auto ifd = readIfd(file, u32(file, 4));

    ExifRecord back = emptyExif();
    GpsRecord gback = emptyGps();
    get_exif_data(path.c_str(), 3, &back, &gback);
    EXPECT_DOUBLE_EQ(ratio(back.exposureNum, back.exposureDen), 1.0 / 125);
    EXPECT_NEAR(ratio(back.apertureNum, back.apertureDen), 5.6, 1e-6);
    EXPECT_EQ(back.iso, 200);
    EXPECT_NEAR(ratio(back.focalNum, back.focalDen), 35.0, 1e-6);
    EXPECT_EQ(std::string(back.camera, strnlen(back.camera, sizeof back.camera)), "TestCam 5");
    EXPECT_EQ(std::string(back.date, strnlen(back.date, sizeof back.date)), "2024:05:06 07:08:09");
    EXPECT_EQ(back.orientation, 6);
    ASSERT_TRUE(find(ifd, 33723));
    EXPECT_EQ(back.iptcLen, 16);
    EXPECT_EQ(static_cast<std::uint32_t>(back.iptcOffset), find(ifd, 33723)->value);
    ASSERT_TRUE(find(ifd, 700));
    EXPECT_EQ(static_cast<std::uint32_t>(back.xmpLen), find(ifd, 700)->count);
    EXPECT_EQ(static_cast<std::uint32_t>(back.xmpOffset), find(ifd, 700)->value);

    EXPECT_EQ(0, std::memcmp(gback.latitude, gps.latitude, sizeof gps.latitude));
    EXPECT_EQ(0, std::memcmp(gback.longitude, gps.longitude, sizeof gps.longitude));
    EXPECT_EQ(0, std::memcmp(gback.altitude, gps.altitude, sizeof gps.altitude));
    EXPECT_EQ(0, std::memcmp(gback.timestamp, gps.timestamp, sizeof gps.timestamp));
    EXPECT_EQ(gback.lat_ref, 'N');
    EXPECT_EQ(gback.long_ref, 'E');
    EXPECT_EQ(std::string(gback.datestamp, 10), "2024:05:06");

    std::vector<std::uint8_t> block(static_cast<std::size_t>(back.iptcLen), 0xEE);
    EXPECT_EQ(read_iptc(path.c_str(), back.iptcLen, back.iptcOffset, block.data()), back.iptcLen);
    std::vector<std::uint8_t> padded(iptc);
    padded.push_back(0);
    EXPECT_EQ(block, padded);
}
