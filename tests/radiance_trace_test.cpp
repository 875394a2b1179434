// The Radiance diagnostic lines, byte for byte, with every switch on.
#include <cstring>

#include "radiance_helpers.hpp"

using namespace radtest;

TEST(RadianceTrace, DecoderStages) {
    oltest::TempDir dir;
    const int W = 30, H = 40;
    const Bytes px = photoPlanes(W, H, 1);
    ExifRecord e = zeroExif();
    const std::string path = dir.file("a.hdr");
    {
        oltest::CaptureFd out(1);
        ASSERT_EQ(ol_io_rgbe_write(path.c_str(), W, H, &e, nullptr, "", px.data()), H);
        EXPECT_EQ(out.finish(), "") << "the whole writer prints nothing when it succeeds";
    }
    const int size = static_cast<int>(oltest::readFile(path).size());
    Bytes buf(px.size());
    {
        oltest::CaptureFd out(1);
        EXPECT_EQ(decodeRle(path, W, H, buf), H);
        EXPECT_EQ(decodeStream(path, W, H, buf), H);
        EXPECT_EQ(out.finish(), "in decomp-rle, infos=30,40," + std::to_string(size) +
                                    "\nin decomp2-0\nin decomp2-1\nin decomp2-2\nin decomp2-3\n"
                                    "in decomp2-3-7\n");
    }
    {
        // A size mismatch stops after the first stage.
        oltest::CaptureFd out(1);
        EXPECT_EQ(decodeStream(path, W, H + 1, buf), -3);
        EXPECT_EQ(out.finish(), "in decomp2-0\n");
    }
    {
        // The other readers print nothing.
        oltest::CaptureFd out(1);
        float prim[8];
        int d[7] = {};
        rgbe_dim(path.c_str(), prim, d);
        ExifRecord x = zeroExif();
        extract_rgbe_exif(path.c_str(), &x);
        Bytes prev(4 * 10 * 10);
        ol_io_read_preview_rgbe(W, H, 10, 10, path.c_str(), prev.data());
        EXPECT_EQ(out.finish(), "");
    }
}

TEST(RadianceTrace, FlatRowsReportEachQuarter) {
    oltest::TempDir dir;
    const int W = 6, H = 9;
    const std::string head = resolution(W, H);  // a budget of one line
    Bytes data(4u * W * H, 200);
    const std::string path = dir.file("f.hdr");
    oltest::writeFile(path, radianceFile(head, data));
    Bytes buf(data.size());
    oltest::CaptureFd out(1);
    EXPECT_EQ(decodeStream(path, W, H, buf), H);
    EXPECT_EQ(out.finish(), "in decomp2-0\nin decomp2-1\nin decomp2-2\nin decomp2-3\n"
                            "ligne=0\nligne=2\nligne=4\nligne=6\nligne=8\nin decomp2-3-7\n");
}

TEST(RadianceTrace, StripWriterLines) {
    oltest::TempDir dir;
    const int W = 8, H = 5;
    Bytes px = photoPlanes(W, H, 2);
    // Three exponent bytes of 255 in the first strip, one in the last.
    px[3 * W] = px[3 * W + 1] = 255;
    px[4 * W + 3 * W + 5] = 255;
    px[4 * 4 * W + 3 * W] = 255;
    const std::string path = dir.file("s.hdr");
    oltest::CaptureFd out(1);
    EXPECT_EQ(ol_write_strip_rgbe(path.c_str(), 0, 3, W, H, nullptr, px.data()), 3);
    EXPECT_EQ(ol_write_strip_rgbe(path.c_str(), 1, 3, W, H, nullptr, px.data() + 4 * 3 * W), 2);
    EXPECT_EQ(out.finish(), "write_strip_rgbe   linesToWrite=3\nwrite_strip_rgbe  cntMax: 3\n"
                            "write_strip_rgbe   linesToWrite=2\nwrite_strip_rgbe  cntMax: 1\n");
}

TEST(RadianceTrace, FlatWriteFailureMessage) {
    if (!oltest::fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    const int W = 40000;
    const Bytes px = photoPlanes(W, 1, 3);
    ExifRecord e = zeroExif();
    oltest::CaptureFd out(1);
    EXPECT_EQ(ol_io_rgbe_write("/dev/full", W, 1, &e, nullptr, "", px.data()), -2);
    EXPECT_EQ(ol_write_strip_rgbe("/dev/full", 0, 1, W, 1, nullptr, px.data()), -2);
    EXPECT_EQ(out.finish(), "ol_io_rgbe_write uncompressed failed on line 0\n"
                            "write_strip_rgbe   linesToWrite=1\n"
                            "ol_io_rgbe_write uncompressed failed on line 0\n");
}
