// Radiance pictures and float TIFFs exchanged with other programs, one check
// per program and direction: files the library writes are read by OpenCV,
// vips and ImageMagick with the values the library's own decoding gives (256
// times theirs), and files those programs write are read by the library with
// the values they hold. A case whose program is missing is skipped.
#include <cmath>
#include <cstring>
#include <map>

#include "frame/bytes.hpp"
#include "support/radiance.hpp"

using namespace radtest;

namespace {

class Interop : public ::testing::Test {
protected:
    // Asked once a run: each question starts a Python.
    static bool have(const std::string& program, const std::string& module) {
        static std::map<std::string, bool> known;
        const auto [it, added] = known.try_emplace(program + " " + module);
        if (added) it->second = (program.empty() || oltest::haveProgram(program)) && oltest::havePythonModule(module.c_str());
        return it->second;
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
    // Interleaved RGB floats written to `out` by the helper's cv2write or tiffwrite.
    bool writeWith(const std::string& cmd, const std::vector<float>& rgb, int w, int h, const std::string& out) {
        Bytes b(rgb.size() * 4);
        for (std::size_t i = 0; i < rgb.size(); ++i) ol::putF32LE(b.data() + 4 * i, rgb[i]);
        oltest::writeFile(file("in.f32"), b);
        return py(cmd + " " + file("in.f32") + " " + std::to_string(w) + " " + std::to_string(h) + " " + out);
    }
    // A picture as the program decodes it, as raw floats: OpenCV and tifffile
    // directly, the others through their float TIFF read by tifffile.
    std::vector<float> theirs(const std::string& program, const std::string& pic) {
        const std::string tif = program == "tifffile" ? pic : file("their.tif"), raw = file("their.f32");
        if (program != "tifffile") oltest::fs::remove(tif);
        if (program == "vips") sh("vips rad2float " + pic + " " + tif);
        if (program == "convert") sh("convert " + pic + " -define quantum:format=floating-point -depth 32 " + tif);
        const bool ok = program.empty() ? py("cv2read " + pic + " " + raw) : py("tiffread " + tif + " " + raw);
        return ok ? readF32(raw) : std::vector<float>{};
    }
    std::string file(const std::string& name) const { return dir_.file(name); }

    oltest::TempDir dir_;
    const std::string helper_ = std::string(OL_SOURCE_DIR) + "/tests/interop/radiance_helper.py";
};

// vips decodes with half a mantissa step added; a 16-bit integer build of
// ImageMagick holds values up to 1 in steps of 1/65535.
struct Program {
    const char* name;  // "" for OpenCV
    const char* module;
    double offset, tolerance;
};
const Program kPrograms[] = {{"", "cv2", 0.0, 0.0}, {"vips", "tifffile", 0.5, 0.0}, {"convert", "tifffile", 0.0, 1.0 / 65535 + 1e-6}};

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

long countDifferences(const std::vector<float>& a, const std::vector<float>& b, double tolerance) {
    if (a.size() != b.size()) return -1;
    long n = 0;
    for (std::size_t i = 0; i < a.size(); ++i) n += std::fabs(static_cast<double>(a[i]) - b[i]) > tolerance;
    return n;
}

}  // namespace

// Library files read by each program: widths from 8 up (below 8 the library
// codes rows run-length too, but readers in the Radiance tradition take such
// rows as flat); 32768 is flat. Their files read by the library: OpenCV's from
// floats at 256 wide (run-length) and 5 wide (which it writes flat), vips's
// and ImageMagick's from a float TIFF.
TEST_F(Interop, RadianceFilesBothWays) {
    ExifRecord e = shotExif(1, 125, 0, 0, 100, 0, 0);
    std::strcpy(e.camera, "Interop Camera");
    struct Row { Program p; bool library; int w, h, eMin = 100, eMax = 160; bool strips = false; };
    const Row rows[] = {{kPrograms[0], true, 300, 50}, {kPrograms[0], true, 8, 60}, {kPrograms[0], true, 32768, 2},
                        {kPrograms[0], true, 120, 32, 90, 200, true}, {kPrograms[1], true, 257, 40, 110, 150},
                        {kPrograms[2], true, 200, 20, 118, 128},
                        {kPrograms[0], false, 256, 160}, {kPrograms[0], false, 5, 400}, {kPrograms[1], false, 180, 120},
                        {kPrograms[2], false, 180, 120}};
    std::string missing;
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(r.p.name) + (r.library ? " reads " : " writes ") + std::to_string(r.w));
        if (!have(r.p.name, r.p.module) || (*r.p.name && !have("", "tifffile"))) {
            missing += std::string(" ") + (*r.p.name ? r.p.name : "OpenCV");
            continue;
        }
        const std::string hdr = file("pic.hdr"), src = file("src.tif");
        Bytes planes = variedPlanes(r.w, r.h, r.eMin, r.eMax);
        if (r.library) {
            for (int s = 0; r.strips && s < 4; ++s)
                ASSERT_EQ(ol_write_strip_rgbe(hdr.c_str(), s, 8, r.w, r.h, nullptr, planes.data() + 4u * r.w * 8 * s), 8);
            if (!r.strips) { ASSERT_EQ(ol_io_rgbe_write(hdr.c_str(), r.w, r.h, &e, nullptr, "sRGB", planes.data()), r.h); }
        } else {
            std::vector<float> rgb(3u * r.w * r.h);
            const Bytes noise = oltest::randomBytes(rgb.size(), 5);
            for (std::size_t i = 0; i < rgb.size(); ++i)
                rgb[i] = *r.p.name ? 0.05f + 0.9f * static_cast<float>((i * 7919) % 1000) / 1000.0f
                                   : std::ldexp(0.5f + (i / 3 % r.w) / float(r.w), static_cast<int>(i / 3 / r.w / 20) - 4) *
                                             (1.0f + i % 3) + noise[i] / 4096.0f;
            rgb[0] = 0.0f;
            if (*r.p.name) {
                ASSERT_TRUE(writeWith("tiffwrite", rgb, r.w, r.h, src));
                ASSERT_TRUE(sh(std::string(r.p.name) + (*r.p.name == 'v' ? " copy " : " ") + src + " " + hdr));
            } else {
                ASSERT_TRUE(writeWith("cv2write", rgb, r.w, r.h, hdr));
            }
            float prim[8];
            int dims[7] = {};
            EXPECT_GE(rgbe_dim(hdr.c_str(), prim, dims), 0);
            EXPECT_TRUE(dims[0] == r.w && dims[1] == r.h);
            if (*r.p.name == 'c') { EXPECT_TRUE(dims[6] == 32 && prim[0] == 0.64f) << "ImageMagick writes a PRIMARIES line"; }
            planes = decodeAll(hdr, r.w, r.h);
        }
        EXPECT_EQ(countDifferences(theirs(r.p.name, hdr), decodedRgb(planes, r.w, r.h, r.p.offset), r.p.tolerance), 0);
    }
    if (!missing.empty()) GTEST_SKIP() << "rows skipped, program missing:" << missing;
}

// Float TIFFs: fp_save's file read by tifffile (which holds the library's
// decoded values, 256 times the others') and described by tiffinfo; files of
// tifffile, vips and ImageMagick read by fp2rgbe as the values tifffile finds.
TEST_F(Interop, FloatTiffsBothWays) {
    if (!have("", "tifffile")) GTEST_SKIP() << "no tifffile";
    const int W = 41, H = 17;
    Bytes planes = variedPlanes(W, H, 100, 170);
    planes[3 * W + 2] = 0;  // a black pixel
    const std::string tif = file("save.tif");
    ASSERT_EQ(fp_save(tif.c_str(), W, H, planes.data()), H);
    std::vector<float> want = decodedRgb(planes, W, H);
    for (float& v : want) v *= 256.0f;
    EXPECT_EQ(countDifferences(theirs("tifffile", tif), want, 0.0), 0);
    if (oltest::haveProgram("tiffinfo")) {
        std::string out;
        EXPECT_EQ(oltest::runCommand("tiffinfo " + tif + " 2>&1", &out), 0);
        for (const char* line : {"Image Width: 41 Image Length: 17", "Bits/Sample: 32", "Sample Format: IEEE floating point",
                                 "Samples/Pixel: 3", "Rows/Strip: 17"})
            EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
        EXPECT_EQ(out.find("rror"), std::string::npos) << out;
    }
    const int w = 50, h = 30;  // one strip for each writer
    std::vector<float> rgb(3u * w * h);
    for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<float>((i * 104729) % 997) / 1000.0f;
    rgb[3] = rgb[4] = rgb[5] = 0.0f;
    const std::string tf = file("tf.tif");
    ASSERT_TRUE(writeWith("tiffwrite", rgb, w, h, tf));
    std::vector<std::string> files = {tf};
    if (oltest::haveProgram("vips") && sh("vips copy " + tf + " " + file("vips.tif"))) files.push_back(file("vips.tif"));
    if (oltest::haveProgram("convert") && sh("convert " + tf + " -define quantum:format=floating-point -depth 32 " + file("im.tif")))
        files.push_back(file("im.tif"));
    for (const std::string& f : files) {
        SCOPED_TRACE(f);
        const std::vector<float> held = theirs("tifffile", f);
        ASSERT_EQ(held.size(), rgb.size());
        Bytes back(4u * w * h);
        float stats[3];
        ASSERT_EQ(fp2rgbe(f.c_str(), w, h, stats, back.data()), h);
        EXPECT_EQ(encodingMismatches(back, w, h, held), 0);
    }
}
