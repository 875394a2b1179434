// Diagnostic lines of the Exif and TIFF writers, with every switch on.
#include <string>
#include <vector>

#include "meta_bytes.hpp"

using namespace metatest;

namespace {

const std::string kCensusLines =
    "get_exif_count - modelLen=10  datetimeLen=20 \n"
    "get_exif_count - gpsCount: 9  im: 5 gpsDateLen: 11  gpsDataLen: 91 \n";

}  // namespace

TEST(MetawriteTrace, ExifCensusAndBlock) {
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    std::vector<std::uint8_t> out(1024, 0);
    oltest::CaptureFd capture(1);
    const int r = exifBlockInto(ex, gps, 1, out.data());
    const std::string printed = capture.finish();
    EXPECT_EQ(r, 387);
    EXPECT_EQ(printed, kCensusLines +
                           "gpsBuf[0]: 48 \n"
                           "gpsBuf[1]: 1 \n"
                           "gpsBuf[2]: 51 \n"
                           "gpsBuf[3]: 1 \n"
                           "gpsBuf[4]: 2400 \n"
                           "gpsBuf[5]: 100 \n"
                           "write_exif_buf gpsDatestampLen 11 \n"
                           "write_exif_buf ifdtotal: 387   positIfd:387\n");
}

TEST(MetawriteTrace, TiffWriterWithEverything) {
    oltest::TempDir dir;
    const ExifRecord ex = fullExif();
    const GpsRecord gps = fullGps();
    const auto icc = iccHeader("RGB ");
    tif_info info = makeInfo(2, 1, 4, 8);
    info.lProfil = static_cast<int>(icc.size());
    const std::uint8_t px[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const std::uint8_t iptc[5] = {0x1C, 2, 0, 0, 0};
    const float tm[15] = {};
    oltest::CaptureFd capture(1);
    const int r = buf2tifOld(px, &info, 8, icc.data(), &ex, &gps, 5, iptc, 2, tm, dir.file("t.tif").c_str());
    const std::string printed = capture.finish();
    ASSERT_EQ(r, 1332);
    EXPECT_EQ(printed, kCensusLines +
                           "buf2tif - retour get_exif_count: 14\n"
                           "buf2tif - gpsIfdLen: 114  gpsTotalLen: 205\n"
                           "buf2tif - lProfil: 132\n"
                           "buf2tif - lProfil2: 132\n"
                           "buf2tif - tmMethod: 2\n"
                           // This line has always shown the census result.
                           "buf2tif - retour embed_xmp: 14\n"
                           "buf2tif - ifdtotal: 1332  ifdexif: 1083  ifdgps: 1241 ifddebut: 16\n"
                           "avant data write\n"
                           "0,0"
                           "TIME_LEN: 20  GPS0_LEN: 20  sizeofint: 4\n"
                           "buf2tif - modelLen: 10  \n"
                           "buf2tif - apres model\n"
                           "buf2tif - lProfil: 132  \n"
                           "buf2tif - tmMethod2: 2  \n"
                           "buf2tif - iptc_len: 5  ifd: 194\n"
                           "buf2tif - exif_count: 5  ifd: 206\n"
                           "buf2tif - gpsCount: 9  ifd: 218\n"
                           "buf2tif - sppOut: 3  \n"
                           "buf2tif - modelLen2: 10  \n"
                           "buf2tif - dpi: 300  \n"
                           "buf2tif - lProfil3: 132  \n"
                           "buf2tif - tmMethod3: 2  \n"
                           "buf2tif - retour embed_xmp: 610  \n"
                           "buf2tif - iptc_len2: 5  \n"
                           "buf2tif - exifCount: 5  \n"
                           "buf2tif - iso: 200  \n"
                           "buf2tif - datetimeLen: 20  \n"
                           "buf2tif - datetimeLen2: 20  \n"
                           "buf2tif - gpsCount: 9  \n"
                           "buf2tif - lat_ref: 78  \n"
                           "buf2tif - latitude: 48  \n"
                           "buf2tif - long_ref: 69  \n"
                           "buf2tif - longitude: 2  \n"
                           "buf2tif - alt_ref: 48  \n"
                           "buf2tif - altitude: 3500  \n"
                           "buf2tif - timestamp: 7  \n"
                           "buf2tif - datestamp: 50  20\n"
                           "buf2tif - ecriture lat\n"
                           "buf2tif - ecriture long\n"
                           "buf2tif - ecriture alt\n"
                           "buf2tif - ecriture time\n"
                           "buf2tif - ecriture date\n"
                           "buf2tif - avant fwrite metadata: 1332\n"
                           "buf2tif - apres fwrite metadata: 1\n"
                           "buf2tif - apres fclose\n"
                           "buf2tif - apres free ifdbuf\n");
}

TEST(MetawriteTrace, BareFileAndPixelPositions) {
    oltest::TempDir dir;
    // Four samples take the pixel-by-pixel path, which reports every 800th
    // row at every 1000th column.
    const int w = 1001, h = 801;
    const std::vector<std::uint8_t> px(static_cast<std::size_t>(w) * h * 4, 9);
    const tif_info info = makeInfo(w, h, 4, 8);
    oltest::CaptureFd capture(1);
    const int r = buf2tifOld(px.data(), &info, w * 4, nullptr, nullptr, nullptr, 0, nullptr, 0, nullptr,
                             dir.file("t.tif").c_str());
    const std::string printed = capture.finish();
    ASSERT_EQ(r, 184);
    const std::string ifddebut = std::to_string(8 + w * h * 4);
    EXPECT_EQ(printed,
              "get_exif_count - modelLen=0  datetimeLen=0 \n"
              "get_exif_count - gpsCount: 0  im: 0 gpsDateLen: 0  gpsDataLen: 0 \n"
              "buf2tif - retour get_exif_count: 0\n"
              "buf2tif - gpsIfdLen: 6  gpsTotalLen: 0\n"
              "buf2tif - lProfil: 0\n"
              "buf2tif - lProfil2: 0\n"
              "buf2tif - tmMethod: 0\n"
              "buf2tif - ifdtotal: 184  ifdexif: 184  ifdgps: 184 ifddebut: " +
                  ifddebut +
                  "\n"
                  "avant data write\n"
                  "0,00,1000800,0800,1000"
                  "TIME_LEN: 20  GPS0_LEN: 20  sizeofint: 4\n"
                  "buf2tif - modelLen: 0  \n"
                  "buf2tif - apres model\n"
                  "buf2tif - lProfil: 0  \n"
                  "buf2tif - tmMethod2: 0  \n"
                  "buf2tif - iptc_len: 0  ifd: 158\n"
                  "buf2tif - exif_count: 0  ifd: 158\n"
                  "buf2tif - gpsCount: 0  ifd: 158\n"
                  "buf2tif - sppOut: 3  \n"
                  "buf2tif - modelLen2: 0  \n"
                  "buf2tif - dpi: 300  \n"
                  "buf2tif - lProfil3: 0  \n"
                  "buf2tif - tmMethod3: 0  \n"
                  "buf2tif - iptc_len2: 0  \n"
                  "buf2tif - exifCount: 0  \n"
                  "buf2tif - gpsCount: 0  \n"
                  "buf2tif - avant fwrite metadata: 184\n"
                  "buf2tif - apres fwrite metadata: 1\n"
                  "buf2tif - apres fclose\n"
                  "buf2tif - apres free ifdbuf\n");
}
