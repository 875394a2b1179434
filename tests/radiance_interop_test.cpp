// Radiance pictures and float TIFFs exchanged with other programs: files the
// library writes are read by OpenCV, vips and ImageMagick with the values the
// library's own decoding gives (which is 256 times theirs), and files those
// programs write are read by the library with the values they hold. A case
// whose program is missing is skipped.
#include <cmath>
#include <cstring>
#include <fstream>

#include "frame/bytes.hpp"
#include "frame/rgbe.hpp"
#include "support/radiance.hpp"

using namespace radtest;

namespace {

class Interop : public ::testing::Test {
protected:
    bool havePython(const char* module) {
        return oltest::fs::exists(oltest::systemPython()) && oltest::havePythonModule(module);
    }
    bool py(const std::string& args) {
        return oltest::runCommand(oltest::systemPython() + " " + oltest::shellQuote(helper_) + " " + args + " 2>/dev/null") == 0;
    }
    static bool sh(const std::string& cmd) { return oltest::runCommand(cmd + " >/dev/null 2>&1") == 0; }
    std::vector<float> readF32(const std::string& path) {
        const Bytes b = oltest::readFile(path);
        std::vector<float> v(b.size() / 4);
        for (std::size_t i = 0; i < v.size(); ++i) v[i] = ol::getF32LE(b.data() + 4 * i);
        return v;
    }
    // Interleaved RGB floats written to `out` by the helper's cv2write or
    // tiffwrite.
    bool writeWith(const std::string& cmd, const std::vector<float>& rgb, int w, int h, const std::string& out) {
        Bytes b(rgb.size() * 4);
        for (std::size_t i = 0; i < rgb.size(); ++i) ol::putF32LE(b.data() + 4 * i, rgb[i]);
        oltest::writeFile(file("in.f32"), b);
        return py(cmd + " " + file("in.f32") + " " + std::to_string(w) + " " + std::to_string(h) + " " + out);
    }
    // ImageMagick's float TIFF of a picture; false when it wrote none.
    bool magickFloatTiff(const std::string& src, const std::string& tif) {
        sh("convert " + src + " -define quantum:format=floating-point -depth 32 " + tif);
        return oltest::fs::exists(tif);
    }
    std::string file(const std::string& name) const { return dir_.file(name); }

    oltest::TempDir dir_;
    const std::string helper_ = std::string(OL_SOURCE_DIR) + "/tests/interop/radiance_helper.py";
};

// Planes with mantissas 128..255 and exponents spread over a range, as the
// encoder makes them, with runs for the coder.
Bytes variedPlanes(int width, int height, int eMin, int eMax) {
    Bytes p = photoPlanes(width, height, 9);
    for (int y = 0; y < height; ++y) {
        std::uint8_t* e = p.data() + (static_cast<std::size_t>(y) * 4 + 3) * width;
        for (int x = 0; x < width; ++x) e[x] = static_cast<std::uint8_t>(eMin + (x / 7 + y) % (eMax - eMin + 1));
    }
    return p;
}

// The library's own decoding of a file it can read.
Bytes decodeWithLibrary(const std::string& path, int width, int height) {
    Bytes a(4u * width * height), b(a.size());
    EXPECT_EQ(decodeRle(path, width, height, a), height);
    EXPECT_EQ(decodeStream(path, width, height, b), height);
    EXPECT_EQ(a, b);
    return a;
}

long countDifferences(const std::vector<float>& a, const std::vector<float>& b, double tolerance = 0.0) {
    if (a.size() != b.size()) return -1;
    long n = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::fabs(static_cast<double>(a[i]) - b[i]) > tolerance) ++n;
    return n;
}

ExifRecord someExif() {
    ExifRecord e = shotExif(1, 125, 0, 0, 100, 0, 0);
    std::strcpy(e.camera, "Interop Camera");
    std::strcpy(e.date, "2023:03:04 05:06:07");
    return e;
}

}  // namespace

TEST_F(Interop, LibraryFilesReadByOpenCV) {
    if (!havePython("cv2")) GTEST_SKIP() << "no OpenCV for the system python";
    const ExifRecord e = someExif();
    // Widths below 8: the library codes them run-length too, but readers in
    // the Radiance tradition (OpenCV and vips among them) take such rows as
    // flat, so only widths from 8 up are exchanged.
    for (auto [width, height] : {std::pair{300, 50}, {8, 60}, {32768, 2}}) {
        SCOPED_TRACE(width);
        const Bytes planes = variedPlanes(width, height, 100, 160);
        const std::string hdr = file("lib.hdr"), raw = file("cv.f32");
        ASSERT_EQ(ol_io_rgbe_write(hdr.c_str(), width, height, &e, nullptr, "sRGB", planes.data()), height);
        ASSERT_TRUE(py("cv2read " + hdr + " " + raw));
        const Bytes own = decodeWithLibrary(hdr, width, height);
        EXPECT_EQ(own, planes);
        EXPECT_EQ(countDifferences(readF32(raw), decodedRgb(own, width, height)), 0);
    }
    // The strip writer's file as well.
    const int W = 120, H = 30;
    const Bytes planes = variedPlanes(W, H, 90, 200);
    const std::string hdr = file("strips.hdr"), raw = file("cv.f32");
    for (int s = 0; s < 4; ++s)
        ASSERT_GT(ol_write_strip_rgbe(hdr.c_str(), s, 8, W, H, nullptr, planes.data() + 4u * W * 8 * s), 0);
    ASSERT_TRUE(py("cv2read " + hdr + " " + raw));
    EXPECT_EQ(countDifferences(readF32(raw), decodedRgb(planes, W, H)), 0);
}

TEST_F(Interop, LibraryFilesReadByVips) {
    if (!oltest::haveProgram("vips") || !havePython("tifffile")) GTEST_SKIP() << "no vips or tifffile";
    const ExifRecord e = someExif();
    const int W = 257, H = 40;
    const Bytes planes = variedPlanes(W, H, 110, 150);
    const std::string hdr = file("lib.hdr"), tif = file("v.tif"), raw = file("v.f32");
    ASSERT_EQ(ol_io_rgbe_write(hdr.c_str(), W, H, &e, nullptr, "Adobe RGB (1998)", planes.data()), H);
    ASSERT_TRUE(sh("vips rad2float " + hdr + " " + tif));
    ASSERT_TRUE(py("tiffread " + tif + " " + raw));
    // vips decodes with half a mantissa step added.
    EXPECT_EQ(countDifferences(readF32(raw), decodedRgb(planes, W, H, 0.5)), 0);
}

TEST_F(Interop, LibraryFilesReadByImageMagick) {
    if (!oltest::haveProgram("convert") || !havePython("tifffile")) GTEST_SKIP() << "no ImageMagick or tifffile";
    // A 16-bit integer build of ImageMagick holds values up to 1 in steps
    // of 1/65535: keep exponents at or below 128.
    const int W = 200, H = 20;
    const Bytes planes = variedPlanes(W, H, 118, 128);
    const ExifRecord e = someExif();
    const std::string hdr = file("lib.hdr"), tif = file("im.tif"), raw = file("im.f32");
    ASSERT_EQ(ol_io_rgbe_write(hdr.c_str(), W, H, &e, nullptr, "", planes.data()), H);
    if (!magickFloatTiff(hdr, tif)) GTEST_SKIP() << "ImageMagick did not convert";
    ASSERT_TRUE(py("tiffread " + tif + " " + raw));
    EXPECT_EQ(countDifferences(readF32(raw), decodedRgb(planes, W, H), 1.0 / 65535 + 1e-6), 0);
}

TEST_F(Interop, OpenCVFilesReadByTheLibrary) {
    if (!havePython("cv2")) GTEST_SKIP() << "no OpenCV for the system python";
    // 256 wide (run-length), and 5 wide, which OpenCV writes flat.
    for (auto [W, H] : {std::pair{256, 160}, {5, 400}}) {
        SCOPED_TRACE(W);
        std::vector<float> rgb(3u * W * H);
        const Bytes noise = oltest::randomBytes(rgb.size(), 5);
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x)
                for (int c = 0; c < 3; ++c) {
                    const std::size_t i = (static_cast<std::size_t>(y) * W + x) * 3 + c;
                    rgb[i] = std::ldexp(0.5f + x / float(W), y / 20 - 4) * (1.0f + c) + noise[i] / 4096.0f;
                }
        rgb[0] = 0.0f;
        const std::string hdr = file("cv.hdr"), back = file("back.f32");
        ASSERT_TRUE(writeWith("cv2write", rgb, W, H, hdr));
        ASSERT_TRUE(py("cv2read " + hdr + " " + back));
        float prim[8];
        int dims[7] = {};
        EXPECT_GE(rgbe_dim(hdr.c_str(), prim, dims), 0);
        EXPECT_EQ(dims[0], W);
        EXPECT_EQ(dims[1], H);
        const Bytes own = decodeWithLibrary(hdr, W, H);
        EXPECT_EQ(countDifferences(readF32(back), decodedRgb(own, W, H)), 0);
        if (oltest::fs::file_size(hdr) >= 16640) {
            Bytes prev(own.size());
            EXPECT_EQ(ol_io_read_preview_rgbe(W, H, W, H, hdr.c_str(), prev.data()), H + 1);
            EXPECT_EQ(prev, own);
        }
    }
}

TEST_F(Interop, VipsAndImageMagickFilesReadByTheLibrary) {
    if (!havePython("tifffile")) GTEST_SKIP() << "no tifffile";
    const int W = 180, H = 120;
    std::vector<float> rgb(3u * W * H);
    for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = 0.05f + 0.9f * static_cast<float>((i * 7919) % 1000) / 1000.0f;
    const std::string src = file("src.tif");
    ASSERT_TRUE(writeWith("tiffwrite", rgb, W, H, src));
    int tried = 0;
    if (oltest::haveProgram("vips")) {
        SCOPED_TRACE("vips");
        ++tried;
        const std::string hdr = file("v.hdr"), tif = file("v.tif"), raw = file("v.f32");
        ASSERT_TRUE(sh("vips copy " + src + " " + hdr));
        const Bytes own = decodeWithLibrary(hdr, W, H);
        ASSERT_TRUE(sh("vips rad2float " + hdr + " " + tif));
        ASSERT_TRUE(py("tiffread " + tif + " " + raw));
        EXPECT_EQ(countDifferences(readF32(raw), decodedRgb(own, W, H, 0.5)), 0);
        Bytes prev(4u * 60 * 40);
        EXPECT_EQ(ol_io_read_preview_rgbe(W, H, 60, 40, hdr.c_str(), prev.data()), H + 1);
        EXPECT_EQ(prev[0], own[0]);
        EXPECT_EQ(prev[59], own[177]);
    }
    if (oltest::haveProgram("convert")) {
        SCOPED_TRACE("ImageMagick");
        ++tried;
        const std::string hdr = file("im.hdr"), tif = file("im.tif"), raw = file("im.f32");
        ASSERT_TRUE(sh("convert " + src + " " + hdr));
        float prim[8];
        int dims[7] = {};
        EXPECT_GE(rgbe_dim(hdr.c_str(), prim, dims), 0);
        EXPECT_EQ(dims[6], 32) << "ImageMagick writes a PRIMARIES line";
        EXPECT_FLOAT_EQ(prim[0], 0.64f);
        const Bytes own = decodeWithLibrary(hdr, W, H);
        ASSERT_TRUE(magickFloatTiff(hdr, tif));
        ASSERT_TRUE(py("tiffread " + tif + " " + raw));
        EXPECT_EQ(countDifferences(readF32(raw), decodedRgb(own, W, H), 1.0 / 65535 + 1e-6), 0);
    }
    if (!tried) GTEST_SKIP() << "neither vips nor ImageMagick";
}

TEST_F(Interop, FloatTiffsOfOtherProgramsReadByFp2rgbe) {
    if (!havePython("tifffile")) GTEST_SKIP() << "no tifffile";
    const int W = 50, H = 30;  // one strip for each writer
    std::vector<float> rgb(3u * W * H);
    for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<float>((i * 104729) % 997) / 1000.0f;
    rgb[3] = rgb[4] = rgb[5] = 0.0f;
    const std::string tf = file("tf.tif");
    ASSERT_TRUE(writeWith("tiffwrite", rgb, W, H, tf));
    std::vector<std::string> files = {tf};
    if (oltest::haveProgram("vips") && sh("vips copy " + tf + " " + file("vips.tif"))) files.push_back(file("vips.tif"));
    if (oltest::haveProgram("convert") && magickFloatTiff(tf, file("im.tif"))) files.push_back(file("im.tif"));
    for (const std::string& f : files) {
        SCOPED_TRACE(f);
        const std::string raw = file("held.f32");
        ASSERT_TRUE(py("tiffread " + f + " " + raw));
        const std::vector<float> held = readF32(raw);
        ASSERT_EQ(held.size(), rgb.size());
        Bytes planes(4u * W * H);
        float stats[3];
        ASSERT_EQ(fp2rgbe(f.c_str(), W, H, stats, planes.data()), H);
        EXPECT_EQ(encodingMismatches(planes, W, H, held), 0);
    }
}

TEST_F(Interop, FpSaveFilesReadByTiffinfoAndTifffile) {
    if (!havePython("tifffile")) GTEST_SKIP() << "no tifffile";
    const int W = 41, H = 17;
    Bytes planes = variedPlanes(W, H, 100, 170);
    planes[3 * W + 2] = 0;  // a black pixel
    const std::string tif = file("save.tif"), raw = file("save.f32");
    ASSERT_EQ(fp_save(tif.c_str(), W, H, planes.data()), H);
    ASSERT_TRUE(py("tiffread " + tif + " " + raw));
    // tifffile holds the library's decoded values: 256 times the others'.
    std::vector<float> want = decodedRgb(planes, W, H);
    for (float& v : want) v *= 256.0f;
    EXPECT_EQ(countDifferences(readF32(raw), want), 0);
    if (oltest::haveProgram("tiffinfo")) {
        std::string out;
        EXPECT_EQ(oltest::runCommand("tiffinfo " + tif + " 2>&1", &out), 0);
        EXPECT_NE(out.find("Image Width: 41 Image Length: 17"), std::string::npos) << out;
        EXPECT_NE(out.find("Bits/Sample: 32"), std::string::npos);
        EXPECT_NE(out.find("Sample Format: IEEE floating point"), std::string::npos);
        EXPECT_NE(out.find("Samples/Pixel: 3"), std::string::npos);
        EXPECT_NE(out.find("Rows/Strip: 17"), std::string::npos);
        EXPECT_EQ(out.find("rror"), std::string::npos) << out;
    }
}
