// The olhdr program run as a user runs it: generated brackets in, files out,
// exit codes and one-line errors checked, and no partial output left behind
// when something goes wrong.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "support/testsupport.hpp"

namespace fs = std::filesystem;
using oltest::TempDir;

namespace {

const std::string kProgram = std::string(OL_TOOLS_DIR) + "/olhdr";

using Result = oltest::HostRun;
using oltest::shellQuote;
std::string quote(const std::string& s) { return shellQuote(s); }

std::string readText(const std::string& path) {
    const std::vector<std::uint8_t> b = oltest::readFile(path);
    return std::string(b.begin(), b.end());
}

Result run(const std::string& args) { return oltest::runOlhdr(args); }

std::string join(const std::vector<std::string>& files) {
    std::string s;
    for (const auto& f : files) s += quote(f) + " ";
    return s;
}

std::vector<std::string> bracket(const TempDir& dir, const std::string& name, const std::string& options) {
    const std::string folder = dir.file(name);
    const Result r = run("bracket -q --size 96x64 -o " + quote(folder) + " " + options);
    EXPECT_EQ(r.code, 0) << r.err;
    std::vector<std::string> files;
    for (const auto& e : fs::directory_iterator(folder)) files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

// A failed run: the expected code, exactly one line on stderr that names
// the program, and nothing on stdout.
void expectCleanFailure(const Result& r, int code, const std::string& mention) {
    EXPECT_EQ(r.code, code) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.err.rfind("olhdr ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(mention), std::string::npos) << "'" << mention << "' not in: " << r.err;
    EXPECT_EQ(r.out, "");
}

std::size_t entries(const std::string& dir) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

// The Radiance header lines (up to the blank line).
std::string radianceHeader(const std::string& path) {
    const std::string s = readText(path);
    return s.substr(0, s.find("\n\n") + 1);
}
// The scanlines behind the resolution line.
std::string radianceData(const std::string& path) {
    const std::string s = readText(path);
    const auto res = s.find("-Y ");
    return s.substr(s.find('\n', res) + 1);
}

class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(kProgram)) GTEST_SKIP() << "olhdr not built";
    }
};

}  // namespace

TEST_F(Cli, DemoWritesEveryFileItLists) {
    TempDir dir;
    const Result r = run("demo --size 240x160 --out " + quote(dir.file("demo")));
    ASSERT_EQ(r.code, 0) << r.err;
    int listed = 0;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("wrote ", 0) != 0) continue;
        const std::string path = line.substr(6, line.find_first_of(": (", 6) - 6);
        EXPECT_TRUE(fs::is_regular_file(path)) << line;
        EXPECT_GT(fs::file_size(path), 1000u) << line;
        ++listed;
    }
    EXPECT_EQ(listed, 7);  // three frames, picture, preview, fused TIFF and JPEG
    EXPECT_NE(r.out.find("exposures (from Exif)"), std::string::npos) << r.out;
    // Nothing but the listed files and the frames folder.
    EXPECT_EQ(entries(dir.file("demo")), 5u);
    EXPECT_EQ(entries(dir.file("demo/frames")), 3u);
}

TEST_F(Cli, MergeWritesSharedMetadataAndIgnoresFrameOrder) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "--frames 3");
    ASSERT_EQ(frames.size(), 3u);
    const Result a = run("merge -q " + join(frames) + " -o " + quote(dir.file("a.hdr")));
    ASSERT_EQ(a.code, 0) << a.err;
    EXPECT_EQ(a.out, "");  // quiet
    const std::string header = radianceHeader(dir.file("a.hdr"));
    EXPECT_EQ(header.rfind("#?RADIANCE\n", 0), 0u);
    // Values the frames share stay; the exposure time differs and is left out.
    for (const char* line : {"CAMERA=olhdr synthetic camera\n", "CAPDATE=2026:06:21 12:00:00\n",
                             "ICC_PROFILE=sRGB\n", "APERTURE=8.00\n", "ISO=100\n", "FOCAL_LENGTH=35.00\n"})
        EXPECT_NE(header.find(line), std::string::npos) << line << " missing in\n" << header;
    EXPECT_EQ(header.find("SHUTTER="), std::string::npos);
    // The merge orders frames by exposure itself: any order gives the same picture.
    const std::vector<std::string> shuffled = {frames[2], frames[0], frames[1]};
    ASSERT_EQ(run("merge -q " + join(shuffled) + " -o " + quote(dir.file("b.hdr"))).code, 0);
    EXPECT_EQ(readText(dir.file("a.hdr")), readText(dir.file("b.hdr")));
}

TEST_F(Cli, MergeExposureSources) {
    TempDir dir;
    const auto bare = bracket(dir, "bare", "--no-metadata --format png");
    const Result inferred = run("merge " + join(bare) + " -o " + quote(dir.file("i.hdr")));
    ASSERT_EQ(inferred.code, 0) << inferred.err;
    EXPECT_NE(inferred.out.find("inferred from brightness"), std::string::npos) << inferred.out;
    const Result stepped = run("merge " + join(bare) + " --ev-step 2 -o " + quote(dir.file("s.hdr")));
    ASSERT_EQ(stepped.code, 0) << stepped.err;
    EXPECT_NE(stepped.out.find("(from --ev-step, 2 EV apart)"), std::string::npos) << stepped.out;
    // Two stops apart: exposures 0.25, 1, 4 by brightness, whatever the order given.
    EXPECT_NE(stepped.out.find(": 0.25 1 4\n"), std::string::npos) << stepped.out;
    const std::vector<std::string> reversed(bare.rbegin(), bare.rend());
    const Result rev = run("merge " + join(reversed) + " --ev-step 2 -o " + quote(dir.file("r.hdr")));
    EXPECT_NE(rev.out.find(": 4 1 0.25\n"), std::string::npos) << rev.out;
    EXPECT_EQ(radianceData(dir.file("s.hdr")), radianceData(dir.file("r.hdr")));
    // The response gamma reaches the merge.
    ASSERT_EQ(run("merge -q " + join(bare) + " --ev-step 2 --gamma 1 -o " + quote(dir.file("g.hdr"))).code, 0);
    EXPECT_NE(radianceData(dir.file("s.hdr")), radianceData(dir.file("g.hdr")));
    // A PNG keeps Exif in its eXIf chunk, and the library reads it from there.
    const auto png = bracket(dir, "png", "--format png");
    const Result exif = run("merge " + join(png) + " -o " + quote(dir.file("p.hdr")));
    EXPECT_NE(exif.out.find("exposures (from Exif)"), std::string::npos) << exif.out;
}

TEST_F(Cli, EveryFrameFormatAndDepthMerges) {
    TempDir dir;
    for (const char* options : {"--format jpg", "--format png --bits 16", "--format tif", "--format tif --bits 16",
                                "--format psd", "--format psd --bits 16"}) {
        SCOPED_TRACE(options);
        const std::string name = std::string("f") + std::to_string(std::hash<std::string>{}(options) % 100000);
        const auto frames = bracket(dir, name, options);
        ASSERT_EQ(frames.size(), 3u);
        const Result info = run("info --json " + quote(frames[0]));
        ASSERT_EQ(info.code, 0) << info.err;
        const bool sixteen = std::string(options).find("16") != std::string::npos;
        EXPECT_NE(info.out.find(sixteen ? "\"bits\": 16" : "\"bits\": 8"), std::string::npos) << info.out;
        EXPECT_NE(info.out.find("\"width\": 96, \"height\": 64"), std::string::npos) << info.out;
        const Result m = run("merge " + join(frames) + " -o " + quote(dir.file(name + ".hdr")) + " --preview " +
                             quote(dir.file(name + ".png")));
        ASSERT_EQ(m.code, 0) << m.err;
        EXPECT_NE(m.out.find("exposures (from Exif)"), std::string::npos) << m.out;
        EXPECT_NE(m.out.find(sixteen ? "(16-bit)" : "(8-bit)"), std::string::npos) << m.out;
        const Result back = run("info " + quote(dir.file(name + ".hdr")));
        EXPECT_NE(back.out.find("width        96\nheight       64"), std::string::npos) << back.out;
    }
}

TEST_F(Cli, StripWritingGivesTheSameScanlines) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "");
    ASSERT_EQ(run("merge -q " + join(frames) + " -o " + quote(dir.file("whole.hdr"))).code, 0);
    const Result strips = run("merge " + join(frames) + " --strip-rows 7 -o " + quote(dir.file("strips.hdr")));
    ASSERT_EQ(strips.code, 0) << strips.err;
    EXPECT_NE(strips.out.find("in strips"), std::string::npos);
    EXPECT_EQ(radianceData(dir.file("whole.hdr")), radianceData(dir.file("strips.hdr")));
    EXPECT_EQ(radianceHeader(dir.file("strips.hdr")).find("CAMERA="), std::string::npos);
}

TEST_F(Cli, FuseIsTheSameInMemoryOnDiskAndOnAnyThreadCount) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "--frames 4 --ev-step 1.5");
    ASSERT_EQ(run("fuse -q " + join(frames) + " -j 1 -o " + quote(dir.file("one.tif"))).code, 0);
    ASSERT_EQ(run("fuse -q " + join(frames) + " -j 3 -o " + quote(dir.file("three.tif"))).code, 0);
    fs::create_directory(dir.file("scratch"));
    const Result disk = run("fuse " + join(frames) + " --disk --scratch " + quote(dir.file("scratch")) + " -o " +
                            quote(dir.file("disk.tif")));
    ASSERT_EQ(disk.code, 0) << disk.err;
    EXPECT_NE(disk.out.find("disk mode"), std::string::npos) << disk.out;
    EXPECT_EQ(entries(dir.file("scratch")), 0u);  // scratch files removed
    const std::string one = readText(dir.file("one.tif"));
    EXPECT_EQ(one, readText(dir.file("three.tif")));
    EXPECT_EQ(one, readText(dir.file("disk.tif")));
    // The settings reach the fusion: a black clip changes the picture.
    ASSERT_EQ(run("fuse -q " + join(frames) + " --black-clip 5 -o " + quote(dir.file("clip.tif"))).code, 0);
    EXPECT_NE(one, readText(dir.file("clip.tif")));
}

TEST_F(Cli, FuseOutputsKeepTheFirstFramesMetadata) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "--format tif --bits 16");
    for (const char* out : {"o.tif", "o.png", "o.jpg"}) {
        SCOPED_TRACE(out);
        const std::string bits = std::string(out) == "o.jpg" ? "8" : "16";
        const Result r = run("fuse " + join(frames) + " --bits " + bits + " -o " + quote(dir.file(out)));
        ASSERT_EQ(r.code, 0) << r.err;
        const Result info = run("info --json " + quote(dir.file(out)));
        ASSERT_EQ(info.code, 0) << info.err;
        EXPECT_NE(info.out.find("\"bits\": " + bits), std::string::npos) << info.out;
        EXPECT_NE(info.out.find("\"camera\": \"olhdr synthetic camera\""), std::string::npos) << info.out;
        EXPECT_NE(info.out.find("\"icc_profile\": \"sRGB\""), std::string::npos) << info.out;
        EXPECT_NE(info.out.find("\"latitude\": 48.8584"), std::string::npos) << info.out;
        // IPTC travels in the TIFF only (the PNG and JPEG writers here carry Exif and ICC).
        if (std::string(out) == "o.tif") {
            EXPECT_NE(info.out.find("\"keywords\": [\"olhdr\", \"synthetic bracket\"]"), std::string::npos)
                << info.out;
        }
    }
}

TEST_F(Cli, BadInputsFailWithOneLineAndLeaveNothing) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "");
    const auto big = bracket(dir, "big", "--size 100x64");
    const auto deep = bracket(dir, "deep", "--format png --bits 16");
    oltest::writeText(dir.file("notes.txt"), "not an image\n");
    oltest::writeText(dir.file("fake.jpg"), "\xFF\xD8\xFF but nothing more");
    fs::create_directory(dir.file("out"));
    const std::string hdr = " -o " + quote(dir.file("out/x.hdr"));
    const std::string tif = " -o " + quote(dir.file("out/x.tif"));
    struct Case {
        std::string args;
        std::string mention;
    };
    const std::vector<Case> cases = {
        {"merge " + join(frames) + quote(dir.file("missing.jpg")) + hdr, "missing.jpg: no such file"},
        {"merge " + join(frames) + quote(dir.file("notes.txt")) + hdr, "notes.txt: not an image"},
        {"merge " + join(frames) + quote(dir.file("fake.jpg")) + hdr, "fake.jpg: "},
        {"merge " + join(frames) + quote(dir.file("f")) + hdr, "is a folder"},
        {"merge " + quote(frames[0]) + " " + quote(big[1]) + hdr, big[1] + ": is 100x64, but"},
        {"fuse " + quote(frames[0]) + " " + quote(deep[1]) + tif, deep[1] + ": has 16-bit samples"},
        {"fuse " + join(frames) + quote(dir.file("out/x.hdr")) + tif, "is a Radiance picture"},
        {"info " + quote(dir.file("notes.txt")), "notes.txt"},
    };
    oltest::writeText(dir.file("out/x.hdr"), "#?RADIANCE\n");  // for the Radiance-as-frame case
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        expectCleanFailure(run(c.args), 2, c.mention);
    }
    fs::remove(dir.file("out/x.hdr"));
    EXPECT_EQ(entries(dir.file("out")), 0u);
}

TEST_F(Cli, DamagedFilesOfEveryFormatNeverCrash) {
    TempDir dir;
    std::vector<std::string> sources;
    for (const char* format : {"jpg", "png", "tif", "psd"}) {
        const auto f = bracket(dir, format, std::string("--frames 2 --format ") + format);
        sources.push_back(f[0]);
    }
    const auto jpg = bracket(dir, "pair", "--frames 2");
    ASSERT_EQ(run("merge -q " + join(jpg) + " -o " + quote(dir.file("x.hdr"))).code, 0);
    sources.push_back(dir.file("x.hdr"));
    int n = 0;
    for (const auto& src : sources) {
        const std::vector<std::uint8_t> good = oltest::readFile(src);
        std::vector<std::vector<std::uint8_t>> damaged;
        for (double cut : {0.02, 0.3, 0.7, 0.99}) damaged.emplace_back(good.begin(), good.begin() + cut * good.size());
        for (std::size_t at : {std::size_t(4), std::size_t(12), std::size_t(20), good.size() / 2}) {
            auto bad = good;
            for (std::size_t i = at; i < std::min(at + 8, bad.size()); ++i) bad[i] ^= 0xA5;
            damaged.push_back(bad);
        }
        for (const auto& bytes : damaged) {
            const std::string name = dir.file("bad" + std::to_string(n++) + fs::path(src).extension().string());
            oltest::writeFile(name, bytes);
            for (const std::string& cmd : std::vector<std::string>{"info ", "merge -q --ev-step 1 -o " + quote(dir.file("o.hdr")) + " " + quote(src) + " "}) {
                const Result r = run(cmd + quote(name));
                EXPECT_TRUE(r.code == 0 || r.code == 2) << name << " " << r.code << " " << r.err;
                if (r.code == 2) {
                    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
                }
            }
        }
    }
}

TEST_F(Cli, UnwritableOutputsFailBeforeWorkAndLeaveNothing) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "");
    expectCleanFailure(run("merge " + join(frames) + " -o " + quote(dir.file("nowhere/x.hdr"))), 3, "does not exist");
    fs::create_directory(dir.file("taken.tif"));
    expectCleanFailure(run("fuse " + join(frames) + " -o " + quote(dir.file("taken.tif"))), 3, "is a folder");
    expectCleanFailure(run("merge " + join(frames) + " -o " + quote(dir.file("x.hdr")) + " --preview " +
                           quote(dir.file("nowhere/p.png"))),
                       3, "p.png");
    EXPECT_FALSE(fs::exists(dir.file("x.hdr")));
    if (geteuid() != 0) {
        fs::create_directory(dir.file("ro"));
        fs::permissions(dir.file("ro"), fs::perms::owner_read | fs::perms::owner_exec);
        expectCleanFailure(run("fuse " + join(frames) + " -o " + quote(dir.file("ro/x.tif"))), 3, "cannot write");
        fs::permissions(dir.file("ro"), fs::perms::owner_all);
    }
}

TEST_F(Cli, InterruptRemovesPartialOutputsAndScratchFiles) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "--size 1600x1200 --format tif");
    fs::create_directory(dir.file("out"));
    fs::create_directory(dir.file("scratch"));
    std::string status;
    oltest::runCommand("(" + quote(kProgram) + " fuse -q --disk --scratch " + quote(dir.file("scratch")) + " " +
                           join(frames) + " -o " + quote(dir.file("out/x.tif")) + " 2>" + quote(dir.file("err")) +
                           " & pid=$!; sleep 0.4; kill -INT $pid; wait $pid; echo $?)",
                       &status);
    // Stopped midway (130), or done already on a fast machine (0): either
    // way no temporary file and no scratch file stays.
    EXPECT_TRUE(status == "130\n" || status == "0\n") << status;
    EXPECT_EQ(entries(dir.file("scratch")), 0u);
    for (const auto& e : fs::directory_iterator(dir.file("out"))) EXPECT_EQ(e.path().filename(), "x.tif");
    if (status == "130\n") {
        EXPECT_EQ(entries(dir.file("out")), 0u);
        // Said to the user even from inside the library call, whose own
        // printing is silenced (a slow build may still be reading frames).
        const std::string err = readText(dir.file("err"));
        EXPECT_TRUE(err == "olhdr: interrupted, partial output removed\n" ||
                    err == "olhdr: interrupted before any output was written\n")
            << err;
    }
}

TEST_F(Cli, CommandLineMistakesAreUsageErrors) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "");
    const std::string out = " -o " + quote(dir.file("x.tif"));
    expectCleanFailure(run("frobnicate"), 1, "unknown command");
    expectCleanFailure(run("merge " + join(frames)), 1, "-o OUT.hdr");
    expectCleanFailure(run("merge -o " + quote(dir.file("x.hdr"))), 1, "no frames");
    expectCleanFailure(run("merge " + quote(frames[0]) + " -o " + quote(dir.file("x.hdr"))), 1, "one frame given");
    expectCleanFailure(run("fuse " + quote(frames[0]) + out), 1, "one frame given");
    expectCleanFailure(run("merge " + join(frames) + " -o " + quote(dir.file("x.exr"))), 1, ".hdr");
    expectCleanFailure(run("fuse " + join(frames) + out + " --bits 12"), 1, "--bits");
    expectCleanFailure(run("fuse " + join(frames) + " -o " + quote(dir.file("x.jpg")) + " --bits 16"), 1, "8-bit");
    expectCleanFailure(run("fuse " + join(frames) + out + " --white-clip 60"), 1, "--white-clip");
    expectCleanFailure(run("fuse " + join(frames) + out + " --threads two"), 1, "--threads");
    expectCleanFailure(run("fuse " + join(frames) + out + " --colour"), 1, "unknown option --colour");
    expectCleanFailure(run("bracket --format gif -o " + quote(dir.file("g"))), 1, "--format");
    EXPECT_EQ(run("").code, 1);
    EXPECT_FALSE(fs::exists(dir.file("x.tif")));
}

// Handheld brackets with known displacements come back with exactly those
// shifts, cropped or kept; a moving square is marked, and a deghosted fusion
// shows it once where the plain one blends it away.
TEST_F(Cli, AlignAndDeghostOnHandheldAndMovingBrackets) {
    TempDir dir;
    struct Case {
        const char* command;
        const char* bracketOptions;
        const char* options;
        const char* expected;  // a line of the output
    };
    const Case cases[] = {
        {"fuse", "--frames 3 --format png --shift 0,0:-3,2:5,-4", "--align",
         "  aligned: shifts (right,down) against frame 1: +0,+0 -3,+2 +5,-4; cropped to 472x314\n"},
        {"merge", "--frames 5 --bits 16 --format tif --shift 0,0:2,2:-2,1:1,-3:3,0", "--align --keep-size",
         "  aligned: shifts (right,down) against frame 1: +0,+0 +2,+2 -2,+1 +1,-3 +3,+0; size kept at 480x320\n"},
        {"ghosts", "--frames 4 --shift 0,0:-4,3:3,0:1,-2", "--align",
         "  aligned: shifts (right,down) against frame 1: +0,+0 -4,+3 +3,+0 +1,-2; cropped to 473x315\n"},
        {"merge", "--frames 3 --format png", "--align --deghost --consistency",
         "  aligned: shifts (right,down) against frame 1: +0,+0 +0,+0 +0,+0; cropped to 480x320\n"},
    };
    int row = 0;
    for (const Case& c : cases) {
        const std::string name = "s" + std::to_string(row++);
        const auto frames = bracket(dir, name, std::string("--size 480x320 --ev-step 1 ") + c.bracketOptions);
        const std::string out = dir.file(name + (c.command == std::string("fuse") ? ".tif"
                                                 : c.command == std::string("merge") ? ".hdr" : ".png"));
        const Result r = run(std::string(c.command) + " " + join(frames) + c.options + " -o " + quote(out));
        EXPECT_EQ(r.code, 0) << c.command << " " << c.bracketOptions << ": " << r.err;
        EXPECT_NE(r.out.find(c.expected), std::string::npos) << c.bracketOptions << "\n" << r.out;
        EXPECT_TRUE(fs::exists(out));
    }

    // 96x64 frames, square 12 pixels a side in a different place in each.
    const auto moving = bracket(dir, "m", "--moving --format png");
    const Result g = run("ghosts " + join(moving) + " -o " + quote(dir.file("g.png")));
    EXPECT_EQ(g.code, 0) << g.err;
    EXPECT_NE(g.out.find("of pixels marked (threshold 20), filled from frame 2"), std::string::npos) << g.out;
    EXPECT_EQ(g.out.find("ghosts: 0.0%"), std::string::npos) << g.out;
    auto redPixels = [&](const std::string& options) {
        const std::string out = dir.file("fused.tif");
        const Result r = run("fuse -q " + join(moving) + options + " -o " + quote(out));
        EXPECT_EQ(r.code, 0) << r.err;
        // The TIFF writer puts its one uncompressed strip right after the header.
        const std::vector<std::uint8_t> b = oltest::readFile(out);
        int red = 0;
        for (std::size_t i = 8; i + 2 < 8 + 96 * 64 * 3 && i + 2 < b.size(); i += 3)
            red += b[i] > 150 && b[i + 1] < 90 && b[i + 2] < 90;
        return red;
    };
    const int once = redPixels(" --deghost");
    EXPECT_GE(once, 144 * 8 / 10);
    EXPECT_LE(once, 144 * 12 / 10);
    EXPECT_LT(redPixels(""), 144 / 2);
}

TEST_F(Cli, AlignAndDeghostRefuseBadStacksWithOneLine) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "");
    const auto big = bracket(dir, "big", "--size 100x64");
    const std::string out = " -o " + quote(dir.file("x.tif"));
    expectCleanFailure(run("fuse " + quote(frames[0]) + " --align --deghost" + out), 1, "one frame given");
    expectCleanFailure(run("ghosts " + quote(frames[0]) + " -o " + quote(dir.file("g.png"))), 1, "one frame given");
    expectCleanFailure(run("fuse " + quote(frames[0]) + " " + quote(big[1]) + " --align" + out), 2, big[1]);
    expectCleanFailure(run("ghosts " + quote(frames[0]) + " " + quote(big[1]) + " -o " + quote(dir.file("g.png"))), 2,
                       big[1]);
    expectCleanFailure(run("merge " + join(frames) + " --keep-size -o " + quote(dir.file("x.hdr"))), 1, "--align");
    expectCleanFailure(run("fuse " + join(frames) + " --ghost-threshold 5" + out), 1, "--deghost");
    EXPECT_EQ(entries(dir.path()), 2u);
}

TEST_F(Cli, EveryCommandHasHelp) {
    for (const char* cmd : {"merge", "fuse", "info", "demo", "bracket", "ghosts"}) {
        const Result r = run(std::string(cmd) + " --help");
        EXPECT_EQ(r.code, 0) << cmd;
        EXPECT_EQ(r.out.rfind(std::string("usage: olhdr ") + cmd, 0), 0u) << r.out;
        EXPECT_EQ(run(std::string("help ") + cmd).out, r.out);
    }
    const Result main = run("--help");
    EXPECT_EQ(main.code, 0);
    EXPECT_NE(main.out.find("exit codes:"), std::string::npos);
}

TEST_F(Cli, InfoJsonIsOneArrayEvenWithLibraryMessages) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "");
    // A JPEG whose APP1 is not Exif makes the library print a message on
    // stdout; the listing must stay clean JSON.
    std::vector<std::uint8_t> bytes = oltest::readFile(frames[0]);
    const std::vector<std::uint8_t> app1 = {0xFF, 0xE1, 0x00, 0x08, 'N', 'o', 't', 'E', 'x', 'f'};
    bytes.insert(bytes.begin() + 2, app1.begin(), app1.end());
    oltest::writeFile(dir.file("odd.jpg"), bytes);
    const Result r = run("info --json " + quote(dir.file("odd.jpg")) + " " + quote(frames[1]));
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out.rfind("[\n  {\"file\": ", 0), 0u) << r.out;
    EXPECT_EQ(r.out.substr(r.out.size() - 4), "}\n]\n") << r.out;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 4) << r.out;
    EXPECT_EQ(r.err, "");
}

TEST_F(Cli, InfoJsonKeepsUtf8AndEscapesOtherBytes) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "--frames 1");
    const std::vector<std::uint8_t> original = oltest::readFile(frames[0]);
    const std::string model = "olhdr synthetic camera";
    auto patched = [&](const std::string& replacement) {
        std::string bytes(original.begin(), original.end());
        const auto at = bytes.find(model);
        EXPECT_NE(at, std::string::npos);
        bytes.replace(at, model.size(), replacement);  // same length: offsets stay valid
        return std::vector<std::uint8_t>(bytes.begin(), bytes.end());
    };
    oltest::writeFile(dir.file("utf8.jpg"), patched("ol\xC3\xA9r synthetic camera"));
    oltest::writeFile(dir.file("latin1.jpg"), patched("olh\xE9r \"synthetic\\cam"));
    const Result r = run("info --json " + quote(dir.file("utf8.jpg")) + " " + quote(dir.file("latin1.jpg")));
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("\"camera\": \"ol\xC3\xA9r synthetic camera\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"camera\": \"olh\\u00e9r \\\"synthetic\\\\cam\""), std::string::npos) << r.out;
}

TEST_F(Cli, AnOutputThatIsAnInputIsRefusedBeforeAnyWork) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "");
    fs::create_symlink(frames[1], dir.file("link.jpg"));
    fs::create_hard_link(frames[2], dir.file("hard.jpg"));
    const std::string other = dir.file("f/../f/./") + fs::path(frames[0]).filename().string();
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"fuse " + join(frames) + "-o " + quote(frames[0]), frames[0]},
        {"fuse " + join(frames) + "-o " + quote(other), other},
        {"fuse " + join(frames) + "-o " + quote(dir.file("link.jpg")), "link.jpg"},
        {"fuse " + join(frames) + "-o " + quote(dir.file("hard.jpg")), "hard.jpg"},
        {"merge " + join(frames) + "-o " + quote(dir.file("x.hdr")) + " --preview " + quote(frames[2]), frames[2]},
    };
    std::vector<std::string> before;
    for (const auto& f : frames) before.push_back(readText(f));
    for (const auto& [args, mention] : cases) {
        SCOPED_TRACE(args);
        expectCleanFailure(run(args), 1, mention);
    }
    for (std::size_t k = 0; k < frames.size(); ++k) EXPECT_EQ(readText(frames[k]), before[k]);
    EXPECT_EQ(entries(dir.file("f")), 3u);
    EXPECT_FALSE(fs::exists(dir.file("x.hdr")));
}

TEST_F(Cli, ExposureTimesFromTheUserAndNotesOnInferredOnes) {
    TempDir dir;
    const auto bare = bracket(dir, "bare", "--no-metadata --format png");  // 1/240, 1/60, 1/15 s
    const std::string times = "1/240,1/60,1/15";
    oltest::writeText(dir.file("named.txt"), "# name and time\n" + fs::path(bare[2]).filename().string() +
                                                 " 1/15\nframe-1.png 1/240s\n" + bare[1] + " 1/60\nother.png 1\n");
    oltest::writeText(dir.file("bare.txt"), "1/240\n1/60\n0.0667\n");
    oltest::writeText(dir.file("short.txt"), "frame-1.png 1/240\n");
    const std::string hdr = " -o " + quote(dir.file("x.hdr"));
    struct Case {
        std::string args;
        int code;
        std::string out;  // in stdout
        std::string err;  // in stderr ("" for none)
    };
    const std::vector<Case> cases = {
        {join(bare) + "--times " + times, 0, "exposures (from --times): 0.1344 0.5376 2.151\n", ""},
        {join(bare) + "--times-file " + quote(dir.file("named.txt")), 0, "from " + dir.file("named.txt") + "): 0.1344 0.5376 2.151\n", ""},
        {join(bare) + "--times-file " + quote(dir.file("bare.txt")), 0, "0.1344 0.5376 2.15", ""},
        {join(bare), 0, "inferred from brightness", "note: the frames carry no exposure times"},
        {quote(bare[1]) + " " + quote(bare[0]) + " " + quote(bare[2]) + " --ev-step 2", 0, "",
         "note: frames reordered by brightness (darkest first): frame-1.png, frame-2.png, frame-3.png\n"},
        {join(bare) + "--times 1/15,1/60,1/240", 0, "", "warning: frame-2.png has 2.00 stop more exposure than frame-3.png but is darker"},
        {join(bare) + "--times 1/240,1/60", 1, "", "2 times for 3 frames"},
        {join(bare) + "--times 1/240,fast,1/15", 1, "", "'fast' is not an exposure time"},
        {join(bare) + "--times-file " + quote(dir.file("short.txt")), 2, "", "has no time for " + bare[1]},
        {join(bare) + "--times " + times + " --ev-step 2", 1, "", "not both"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const Result r = run("merge " + c.args + hdr);
        EXPECT_EQ(r.code, c.code) << r.err;
        EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        if (c.err.empty()) EXPECT_EQ(r.err, "");
    }
    // The same times from Exif and from the command line give the same picture.
    const auto tagged = bracket(dir, "tagged", "--format png");
    ASSERT_EQ(run("merge -q " + join(tagged) + " -o " + quote(dir.file("exif.hdr"))).code, 0);
    ASSERT_EQ(run("merge -q " + join(bare) + " --times " + times + " -o " + quote(dir.file("given.hdr"))).code, 0);
    EXPECT_EQ(radianceData(dir.file("exif.hdr")), radianceData(dir.file("given.hdr")));
}

TEST_F(Cli, MergeTurnsFramesUprightByTheirOrientation) {
    TempDir dir;
    const auto upright = bracket(dir, "o1", "--format png");
    ASSERT_EQ(run("merge -q " + join(upright) + " -o " + quote(dir.file("o1.hdr"))).code, 0);
    const std::string expected = radianceData(dir.file("o1.hdr"));
    for (int o = 2; o <= 8; ++o) {
        SCOPED_TRACE(o);
        const std::string name = "o" + std::to_string(o);
        // Frames stored as a camera held that way writes them.
        const auto frames = bracket(dir, name, "--format png --orientation " + std::to_string(o));
        const Result r = run("merge " + join(frames) + " -o " + quote(dir.file(name + ".hdr")) + " --preview " +
                             quote(dir.file(name + ".jpg")));
        ASSERT_EQ(r.code, 0) << r.err;
        EXPECT_NE(r.out.find("wrote " + dir.file(name + ".hdr") + ": 96x64 "), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("  turned upright: Exif orientation " + std::to_string(o) + ", "), std::string::npos);
        EXPECT_EQ(radianceData(dir.file(name + ".hdr")), expected);
        const Result info = run("info --json " + quote(dir.file(name + ".jpg")) + " " + quote(frames[0]));
        EXPECT_NE(info.out.find("\"width\": 96, \"height\": 64"), std::string::npos) << info.out;
        EXPECT_NE(info.out.find("\"orientation\": 1"), std::string::npos) << info.out;  // the preview
        EXPECT_NE(info.out.find("\"orientation\": " + std::to_string(o)), std::string::npos) << info.out;
    }
}

TEST_F(Cli, PreviewsCarryTheFramesProfileAndExif) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "");
    for (const char* tone : {"photographic", "linear"})
        for (const char* ext : {"png", "jpg"}) {
            const std::string p = dir.file(std::string(tone) + "." + ext);
            SCOPED_TRACE(p);
            const Result r = run("merge " + join(frames) + " -o " + quote(dir.file("x.hdr")) + " --preview " +
                                 quote(p) + " --preview-tone " + tone);
            ASSERT_EQ(r.code, 0) << r.err;
            EXPECT_NE(r.out.find("wrote " + p + ": preview, "), std::string::npos) << r.out;
            const Result info = run("info --json " + quote(p));
            for (const char* field : {"\"camera\": \"olhdr synthetic camera\"", "\"icc_profile\": \"sRGB\"",
                                      "\"iso\": 100", "\"latitude\": 48.8584"})
                EXPECT_NE(info.out.find(field), std::string::npos) << field << " in " << info.out;
        }
    expectCleanFailure(run("merge " + join(frames) + " -o " + quote(dir.file("x.hdr")) + " --preview-tone filmic"), 1,
                       "--preview-tone");
}

TEST_F(Cli, SmallerThingsAUserTripsOver) {
    TempDir dir;
    const auto frames = bracket(dir, "f", "");
    const auto psd = bracket(dir, "psd", "--format psd --frames 2");
    oltest::writeText(dir.file("notes.txt"), "not an image\n");
    // A frame given twice: a warning, and the work goes on.
    const Result twice = run("fuse " + join(frames) + quote(frames[0]) + " -o " + quote(dir.file("t.jpg")));
    EXPECT_EQ(twice.code, 0);
    EXPECT_EQ(twice.err, "olhdr fuse: warning: " + frames[0] + " is given twice\n");
    EXPECT_NE(twice.out.find("fused from 4 frames"), std::string::npos) << twice.out;
    // info reports every file: the good ones listed, each bad one on stderr.
    const Result info = run("info " + quote(frames[0]) + " " + quote(dir.file("notes.txt")) + " " +
                            quote(dir.file("gone.jpg")) + " " + quote(psd[0]));
    EXPECT_EQ(info.code, 2);
    EXPECT_EQ(std::count(info.err.begin(), info.err.end(), '\n'), 2) << info.err;
    EXPECT_NE(info.err.find("gone.jpg: no such file"), std::string::npos) << info.err;
    EXPECT_NE(info.out.find("file         " + frames[0]), std::string::npos) << info.out;
    // PSD frames carry the Exif the bracket's help promises.
    EXPECT_NE(info.out.find("file         " + psd[0]), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("camera       olhdr synthetic camera"), std::string::npos) << info.out;
}

TEST_F(Cli, DemoTellsHowToCallOlhdr) {
    TempDir dir;
    const std::string tools = fs::path(kProgram).parent_path().string();
    for (const std::string& path : {std::string("/usr/bin:/bin"), tools + ":/usr/bin:/bin"}) {
        SCOPED_TRACE(path);
        std::string out;
        ASSERT_EQ(oltest::runCommand("PATH=" + quote(path) + " " + quote(kProgram) + " demo --size 64x48 -o " +
                                         quote(dir.file("d")) + " 2>/dev/null",
                                     &out),
                  0);
        const std::string me = path.rfind(tools, 0) == 0 ? "olhdr" : fs::canonical(kProgram).string();
        EXPECT_NE(out.find("\n  " + me + " merge "), std::string::npos) << out;
    }
}
