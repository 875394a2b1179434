// The roads end to end, through the public interface only. A bracketed stack
// merged into rgbe planes, and pictures at the coder's awkward widths, are
// written as Radiance files (whole and in strips) and as a float TIFF; every
// reader gives the same planes back. A TIFF's metadata comes back through the
// reader.
#include <cstring>
#include <vector>

#include "support/metadata_bytes.hpp"
#include "support/radiance.hpp"
#include "support/stacks.hpp"

using namespace metatest;

namespace {

std::vector<std::uint8_t> merge(const std::vector<std::uint8_t>& photos, int n, int w, int h, int spp, int bps) {
    std::vector<float> lut(static_cast<std::size_t>(1) << bps), deltaT(n);
    std::vector<std::uint8_t> rgbe(4u * w * h);
    float stats[3];
    EXPECT_EQ(ol_hdr_merge(0, n, w, h, spp, bps, 0, lut.data(), 2.0f, deltaT.data(), photos.data(), stats, rgbe.data()), h);
    return rgbe;
}

// Planes written as a Radiance file whole and in strips of 64 rows, and as a
// float TIFF: both full decoders give them back, the preview reader too at
// the same size, and the float TIFF holds decoded values (256 times the
// encoded ones), which re-encoded decode to 256 times the planes' values.
void expectRoundTrips(const oltest::TempDir& dir, const std::vector<std::uint8_t>& planes, int w, int h) {
    ExifRecord exif = emptyExif();
    std::strcpy(exif.camera, "Test Camera");
    const std::string whole = dir.file("whole.hdr"), strips = dir.file("strips.hdr"), tif = dir.file("float.tif");
    ASSERT_EQ(ol_io_rgbe_write(whole.c_str(), w, h, &exif, nullptr, "sRGB", planes.data()), h);
    int written = 0;
    for (int strip = 0; strip * 64 < h; ++strip)
        written += ol_write_strip_rgbe(strips.c_str(), strip, 64, w, h, nullptr, planes.data() + 4u * w * 64 * strip);
    EXPECT_EQ(written, h);
    for (const std::string& path : {whole, strips}) {
        float primaries[8];
        int dims[7] = {};
        EXPECT_GT(rgbe_dim(path.c_str(), primaries, dims), 0);
        EXPECT_TRUE(dims[0] == w && dims[1] == h && radtest::decodeAll(path, w, h) == planes) << path;
    }
    ASSERT_EQ(fp_save(tif.c_str(), w, h, planes.data()), h);
    std::vector<std::uint8_t> back(planes.size());
    float backStats[3];
    ASSERT_EQ(fp2rgbe(tif.c_str(), w, h, backStats, back.data()), h);
    std::vector<float> want = radtest::decodedRgb(planes, w, h);
    for (float& v : want) v *= 256.0f;
    EXPECT_EQ(radtest::decodedRgb(back, w, h), want);
}

double ratio(std::int32_t num, std::int32_t den) { return den ? static_cast<double>(num) / den : -1.0; }

}  // namespace

TEST(RoundTrip, MergedPlanesThroughEveryWriterAndReader) {
    oltest::TempDir dir;
    // 300 x 200 is large enough for the preview reader's line budget.
    const int w = 300, h = 200, n = 3;
    for (int bps : {8, 16})
        for (int spp : {3, 4}) {
            SCOPED_TRACE("bps " + std::to_string(bps) + " spp " + std::to_string(spp));
            expectRoundTrips(dir, merge(fustest::makeStack(n, w, h, spp, bps, 7u + bps + spp), n, w, h, spp, bps), w, h);
        }
    // Widths around the coder's limits and the flat form's, long runs and short
    // ones side by side.
    for (int width : {1, 2, 3, 5, 127, 128, 129, 255, 256, 257, 1000, 32767, 32768}) {
        SCOPED_TRACE(width);
        const int height = width > 1000 ? 2 : 7 + 800 / width;
        std::vector<std::uint8_t> px = radtest::photoPlanes(width, height, static_cast<std::uint32_t>(width));
        for (int x = 0; x < width / 3; ++x) px[static_cast<std::size_t>(width) * 4 + x] = 9;
        expectRoundTrips(dir, px, width, height);
    }
}

TEST(RoundTrip, TiffMetadataComesBackThroughTheReader) {
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
                         path.c_str()), 0);
    const auto file = oltest::readFile(path);
    const auto ifd = readIfd(file, u32(file, 4));

    ExifRecord back = emptyExif();
    GpsRecord gback = emptyGps();
    get_exif_data(path.c_str(), 3, &back, &gback);
    for (auto [num, den] : {std::pair{&ExifRecord::exposureNum, &ExifRecord::exposureDen},
                            {&ExifRecord::apertureNum, &ExifRecord::apertureDen}, {&ExifRecord::focalNum, &ExifRecord::focalDen}})
        EXPECT_NEAR(ratio(back.*num, back.*den), ratio(ex.*num, ex.*den), 1e-6);
    EXPECT_EQ((std::array<int, 2>{back.iso, back.orientation}), (std::array<int, 2>{ex.iso, 6}));
    EXPECT_EQ((std::array{field(back.camera, 64), field(back.date, 20)}), (std::array{field(ex.camera, 64), field(ex.date, 20)}));
    ASSERT_TRUE(find(ifd, tag::kIptc) && find(ifd, tag::kXmp));
    EXPECT_EQ((std::array<std::uint32_t, 4>{std::uint32_t(back.iptcLen), std::uint32_t(back.iptcOffset), std::uint32_t(back.xmpLen),
                                            std::uint32_t(back.xmpOffset)}),
              (std::array<std::uint32_t, 4>{16, find(ifd, tag::kIptc)->value, find(ifd, tag::kXmp)->count, find(ifd, tag::kXmp)->value}));

    EXPECT_TRUE(!std::memcmp(gback.latitude, gps.latitude, sizeof gps.latitude) &&
                !std::memcmp(gback.longitude, gps.longitude, sizeof gps.longitude) &&
                !std::memcmp(gback.altitude, gps.altitude, sizeof gps.altitude) &&
                !std::memcmp(gback.timestamp, gps.timestamp, sizeof gps.timestamp));
    EXPECT_EQ(std::string({gback.lat_ref, gback.long_ref}) + std::string(gback.datestamp, 10), "NE2024:05:06");

    std::vector<std::uint8_t> block(static_cast<std::size_t>(back.iptcLen), 0xEE);
    EXPECT_EQ(read_iptc(path.c_str(), back.iptcLen, back.iptcOffset, block.data()), back.iptcLen);
    std::vector<std::uint8_t> padded(iptc);
    padded.push_back(0);
    EXPECT_EQ(block, padded);
}
