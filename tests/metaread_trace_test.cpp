// Diagnostic lines of the metadata readers, with every switch on.
#include <cstring>
#include <string>

#include "meta_bytes.hpp"

using namespace metatest;
using oltest::TempDir;

namespace {

TEST(MetareadTrace, PsdInfoAndRleLoad) {
    PsdSpec s;
    s.width = 3;
    s.height = 2;
    s.compression = 1;
    s.image = Bytes(2 * 3 * 2, 0);
    for (int c = 0; c < 3; ++c) s.image.insert(s.image.end(), {0xFB, static_cast<std::uint8_t>(c)});
    TempDir dir;
    const std::string p = dir.file("t.psd");
    oltest::writeFile(p, buildPsd(s));
    PsdInfo info{};
    oltest::CaptureFd err(2);
    ASSERT_EQ(getPsdInfo(p.c_str(), &info), 34);
    std::uint8_t out[18];
    ASSERT_EQ(load_psd(1, p.c_str(), &info, 9, out), 2);
    EXPECT_EQ(err.finish(),
              "getPsdInfo - channels:3 \n"
              "getPsdInfo - h:2 \n"
              "getPsdInfo - w:3 \n"
              "getPsdInfo - bps:8 \n"
              "getPsdInfo - mode:3 \n"
              "color mode:0 \n"
              "getPsdInfo - start data:34 \n"
              "psd info - w:3 h:2  bps:8  res=0  lProfil=0\n"
              "layer info starts at: 34 22   compression:1\n"
              "debut: 52  34     RLE data: 6  6\n"
              "dataSize: 6    colorPlaneSize: 6  imageSize: 18\n"
              "fin decoding channel 0 -  positRle: 2  of dataSize: 6   -  positKleur: 6 of colorPlaneSize: 6 \n"
              "fin decoding channel 1 -  positRle: 4  of dataSize: 6   -  positKleur: 6 of colorPlaneSize: 6 \n"
              "fin decoding channel 2 -  positRle: 6  of dataSize: 6   -  positKleur: 6 of colorPlaneSize: 6 \n");
}

TEST(MetareadTrace, ExifGpsXmpAndPhotoshopBlocks) {
    TiffSpec t;
    t.ifds = {{rawE(700, 1, 16, 0x20)}};
    t.exif = {rationalE(33434, 1, 125), asciiE(36867, "2024:05:06 07:08:09"), rationalE(37386, 50, 1),
              rationalE(41486, 4000, 3), shortE(41488, 3), shortE(41989, 75)};
    t.gps = {bytesE(1, 2, std::string("N\0", 2)), rationalsE(2, {48, 1, 51, 1, 24, 1}), rationalE(6, 35, 1)};
    const Bytes tiff = buildTiff(t);
    Bytes iptc = kIptcVersion;
    iptc.resize(30, 0);
    const Bytes res = cat({resource8bim(0x0404, iptc), resource8bim(0x0425, Bytes(16, 1))});
    oltest::CaptureFd out(1);
    readExifBytes(jpegWith({{0xE1, exifPayload(tiff)}, {0xED, app13Payload(res)}}), 1);
    const std::string text = out.finish();
    // Layout: IFD0 (3 entries) at 8, the Exif IFD at 50, the GPS IFD at 128,
    // their data from 170 on.
    const std::size_t app13 = 2 + 4 + 6 + tiff.size();
    const std::string iptcAt = std::to_string(app13 + 4 + 14 + 12);
    EXPECT_EQ(text,
              "getExifData - XMP len: 16  val:32  20\n"
              "parseExif  entries:6\n"
              " Parse Exif tag:829a  type:5  len:1  val:170  valx aa\n"
              "exp. time - numer=1   denom=125\n"
              " Parse Exif tag:9003  type:2  len:20  val:178  valx b2\n"
              "Date_time: 2024:05:06 07:08:09\n"
              " Parse Exif tag:920a  type:5  len:1  val:198  valx c6\n"
              "focalLegnth 50.00\n"
              " Parse Exif tag:a20e  type:5  len:1  val:206  valx ce\n"
              "FP XRes=4000/3  -  1333.33\n"
              " Parse Exif tag:a210  type:3  len:1  val:3  valx 3\n"
              "Unit=3\n"
              " Parse Exif tag:a405  type:3  len:1  val:75  valx 4b\n"
              "focal35=75\n"
              " Parse GPS tag:1  type:2  len:2   val: 78 4e\n"
              "latitude_ref: N\n"
              " Parse GPS tag:2  type:5  len:3   val: 214 d6\n"
              "Latitude: 48/1 51/1 24/1\n"
              " Parse GPS tag:6  type:5  len:1   val: 238 ee\n"
              "Altitude: 35/1\n"
              "8BIM entries at 0   44\n"
              "IPTC len: 30  offset: " + iptcAt + "\n"
              "8BIM entries at 42   425\n");
}

}  // namespace
