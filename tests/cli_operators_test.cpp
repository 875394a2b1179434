// The single-image commands of olhdr (response, compress, rank, panorama)
// and the fuse finishing options, run as a user runs them on generated
// brackets: what each prints and writes, and one-line errors on bad input.
#include <algorithm>
#include <regex>

#include "support/testsupport.hpp"

namespace fs = std::filesystem;
using oltest::TempDir;

namespace {

const std::string kProgram = std::string(OL_TOOLS_DIR) + "/olhdr";

using Result = oltest::HostRun;
std::string quote(const std::string& s) { return oltest::shellQuote(s); }
Result run(const std::string& args) { return oltest::runOlhdr(args); }

// A generated bracket of three frames, their names joined for a command line.
std::string bracket(const TempDir& dir, const std::string& name, const std::string& options) {
    const Result r = run("bracket -q --size 96x64 --frames 3 -o " + quote(dir.file(name)) + " " + options);
    EXPECT_EQ(r.code, 0) << r.err;
    std::vector<std::string> files;
    for (const auto& e : fs::directory_iterator(dir.file(name))) files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    std::string s;
    for (const auto& f : files) s += quote(f) + " ";
    return s;
}

}  // namespace

TEST(CliOperators, CommandsPrintAndWriteWhatTheySayAndFailWithOneLine) {
    if (!fs::exists(kProgram)) GTEST_SKIP() << "olhdr not built";
    TempDir dir;
    const std::string jpg = bracket(dir, "j", ""), deep = bracket(dir, "d", "--format png --bits 16");
    auto firstOf = [&](const std::string& sub) { return quote(dir.file(sub) + "/" + fs::directory_iterator(dir.file(sub))->path().filename().string()); };
    const std::string first = firstOf("d"), one = firstOf("j");  // a 16-bit PNG frame and a JPEG frame
    ASSERT_EQ(run("merge -q " + jpg + "-o " + quote(dir.file("m.hdr"))).code, 0);
    const std::string f = dir.file("");
    auto o = [&](const std::string& name) { return " -o " + quote(f + name); };
    struct Case { std::string args, pattern, file; };  // the pattern on stdout; the file written, "" for none
    const std::vector<Case> cases = {
        // The generator's camera is a 2.2 curve with a soft shoulder.
        {"response " + jpg + "--csv " + quote(f + "r.csv") + " --plot " + quote(f + "r.png"),
         "response gamma (1\\.[89]|2\\.[0-5])\\d* from 3 frames \\(8-bit\\), exposures \\(from Exif\\)", "r.csv"},
        {"response --profile " + one, "gamma 2\\.(199|2) \\(profile embedded in the JPEG", ""},
        {"merge " + jpg + "--response auto" + o("auto.hdr"), "wrote .*auto\\.hdr: 96x64 Radiance", "auto.hdr"},
        {"compress " + first + o("c.png") + " --strength 10", "wrote .*c\\.png: 96x64 8-bit PNG from 16 bits", "c.png"},
        {"rank " + deep, "dark to bright by mean level, stops from the middle frame:\n +-\\d+  .*\n +\\+0  .*\n +\\+\\d+  .*\nspacing: ", ""},
        {"panorama " + first + o("p.tif") + " --mode spline16", "wrote .*p\\.tif: 192x64 16-bit TIFF panorama", "p.tif"},
        {"panorama " + quote(f + "m.hdr") + o("p.hdr"), "wrote .*p\\.hdr: 192x64 Radiance panorama", "p.hdr"},
        {"fuse " + deep + "--compress 20 --contrast 0.3 --sharpen 0.5" + o("f.jpg"), "wrote .*f\\.jpg: 96x64 8-bit JPEG", "f.jpg"},
        // The one-pass blends, 16-bit frames to 8 bits and 8 to 16. The third
        // frame is mostly white, and its other pixels rank it below the second.
        {"fuse " + deep + "--method two --rotate 90" + o("two.png"),
         "wrote .*two\\.png: 64x96 8-bit PNG fused from 3 frames \\(two-image blend of frame-1\\.png \\(dark\\) and frame-2\\.png \\(bright", "two.png"},
        {"fuse " + jpg + "--method intensive --bits 16 --crop 0,0,90,60" + o("int.tif"),
         "wrote .*int\\.tif: 90x60 16-bit TIFF fused from 3 frames \\(intensive blend, radius 1 step 1\\)", "int.tif"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const Result r = run(c.args);
        EXPECT_EQ(r.code, 0) << r.err;
        EXPECT_TRUE(std::regex_search(r.out, std::regex(c.pattern))) << r.out;
        if (!c.file.empty()) { EXPECT_TRUE(fs::exists(f + c.file)); }
    }
    // The estimated exponent is what the merge used: the same picture as --gamma.
    std::smatch g;
    const std::string said = run("response " + jpg).out;
    ASSERT_TRUE(std::regex_search(said, g, std::regex("gamma ([0-9.]+)")));
    ASSERT_EQ(run("merge -q " + jpg + "--gamma " + g[1].str() + " -o " + quote(f + "given.hdr")).code, 0);
    EXPECT_EQ(oltest::readFile(f + "given.hdr"), oltest::readFile(f + "auto.hdr"));
    // The table runs from 0 to 1; the plot and the panorama open at their sizes.
    const auto csv = oltest::readFile(f + "r.csv");
    const std::string text(csv.begin(), csv.end());
    EXPECT_EQ(text.rfind("level,value,measured\n0,", 0), 0u);
    EXPECT_NE(text.find("\n255,1,"), std::string::npos);
    for (auto [file, size] : {std::pair{"r.png", "256\nheight +256"}, {"p.hdr", "192\nheight +64"}, {"two.png", "64\nheight +96"}, {"int.tif", "90\nheight +60"}})
        EXPECT_TRUE(std::regex_search(run("info " + quote(f + file)).out, std::regex(std::string("width +") + size))) << file;
    // Bad input: the code, one line on stderr, no output.
    oltest::writeText(dir.file("bad.icc"), "short");
    const std::string out = o("o.png");
    struct Bad { std::string args; int code; std::string mention; };
    const std::vector<Bad> bad = {
        {"compress " + one + out, 2, "has 8-bit samples; compress takes a 16-bit"},
        {"compress " + quote(dir.file("none.tif")) + out, 2, "none.tif: no such file"},
        {"compress " + one + out + " --strength 101", 1, "strength"},
        {"panorama " + quote(dir.file("none.hdr")) + out, 2, "none.hdr: no such file"},
        {"panorama " + one + " -o " + quote(dir.file("o.hdr")), 1, "an 8 or 16-bit ball"},
        {"panorama " + one + out + " --mode cubic", 1, "--mode"},
        {"response " + one, 1, "two or more exposures"},
        {"response --profile " + quote(dir.file("bad.icc")), 2, "bad.icc: not an ICC profile"},
        {"response " + one + " " + one + " --times 1/100,1/100", 2, "too few levels"},
        {"rank " + jpg + quote(dir.file("none.jpg")), 2, "none.jpg: no such file"},
        {"fuse " + jpg + "--sharpen nan" + out, 1, "sharpen"},
        {"merge " + jpg + "--response manual" + out, 1, "--response: auto"},
    };
    for (const auto& c : bad) {
        SCOPED_TRACE(c.args);
        const Result r = run(c.args);
        EXPECT_EQ(r.code, c.code) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(c.mention), std::string::npos) << r.err;
        EXPECT_FALSE(fs::exists(dir.file("o.png")));
    }
}
