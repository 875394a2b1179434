// The olhdr program run as a user runs it: generated brackets in, files out,
// exit codes and one-line errors checked, and no partial output left behind
// when something goes wrong.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <tuple>

#include "support/radiance.hpp"
#include "support/testsupport.hpp"

namespace fs = std::filesystem;

namespace {

const std::string kProgram = std::string(OL_TOOLS_DIR) + "/olhdr";

using Result = oltest::HostRun;
std::string quote(const std::string& s) { return oltest::shellQuote(s); }

Result run(const std::string& args) { return oltest::runOlhdr(args); }

std::string join(const std::vector<std::string>& files) {
    std::string s;
    for (const auto& f : files) s += quote(f) + " ";
    return s;
}

std::size_t entries(const std::string& dir) {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

class Cli : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(kProgram)) GTEST_SKIP() << "olhdr not built";
    }
    oltest::TempDir dir;
    std::map<std::string, std::vector<std::string>> sets;  // brackets by name

    // Generates a bracket of 96x64 frames into folder `name`.
    std::vector<std::string>& bracket(const std::string& name, const std::string& options) {
        const std::string folder = dir.file(name);
        const Result r = run("bracket -q --size 96x64 -o " + quote(folder) + " " + options);
        EXPECT_EQ(r.code, 0) << r.err;
        std::vector<std::string>& files = sets[name];
        for (const auto& e : fs::directory_iterator(folder)) files.push_back(e.path().string());
        std::sort(files.begin(), files.end());
        return files;
    }
    // Text with "{set}" (every frame of a bracket), "{setK}" (frame K) and
    // "%name" (a file of the scratch folder) filled in; quoted for the shell
    // or as plain paths.
    std::string expand(const std::string& text, bool shell) {
        static const std::regex token(R"(\{([a-z]+)(\d?)\}|%([\w./-]+))");
        std::string out;
        auto pos = text.cbegin();
        for (std::sregex_iterator it(text.begin(), text.end(), token), end; it != end; ++it) {
            const std::smatch& m = *it;
            out.append(pos, m[0].first);
            pos = m[0].second;
            const std::string path = m[3].matched ? dir.file(m[3].str())
                                     : m[2].length() ? sets.at(m[1].str()).at(std::stoi(m[2].str()))
                                                     : "";
            if (!m[3].matched && !m[2].length()) out += join(sets.at(m[1].str()));
            else out += shell ? quote(path) : path;
        }
        return out.append(pos, text.cend());
    }
};

}  // namespace

// Every command as a row. What each returns and prints on both streams, with
// the scratch folder shown as %, is compared whole with the kept transcript
// tests/fixtures/olhdr/commands.txt (OL_WRITE_FIXTURES=1 rewrites it: review
// the diff). A failing command names the program on stderr and writes
// nothing into out/, which stays empty. Files the rows wrote are then
// compared: Radiance pictures by their scanlines, others whole.
TEST_F(Cli, CommandsAsRows) {
    bracket("f", "");
    bracket("big", "--size 100x64");
    bracket("deep", "--format png --bits 16");
    bracket("bare", "--no-metadata --format png");  // 1/240, 1/60, 1/15 s
    bracket("png", "--format png");
    bracket("four", "--frames 4 --ev-step 1.5");
    bracket("tif", "--format tif");
    bracket("tifd", "--format tif --bits 16");
    bracket("psd", "--format psd");
    bracket("psdd", "--format psd --bits 16");
    oltest::writeText(dir.file("notes.txt"), "not an image\n");
    oltest::writeText(dir.file("fake.jpg"), "\xFF\xD8\xFF but nothing more");
    oltest::writeText(dir.file("in.hdr"), "#?RADIANCE\n");
    oltest::writeText(dir.file("named.txt"), "# name and time\nframe-3.png 1/15\nframe-1.png 1/240s\n" +
                                                 sets["bare"][1] + " 1/60\nother.png 1\n");
    oltest::writeText(dir.file("bare.txt"), "1/240\n1/60\n0.0667\n");
    oltest::writeText(dir.file("short.txt"), "frame-1.png 1/240\n");
    oltest::writeText(dir.file("bad.icc"), "short");
    oltest::writeText(dir.file("text.tif"), std::string("II*\0 this is not really a TIFF", 30));
    for (const std::string set : {"f", "png"}) {  // cut in half
        const std::string whole = oltest::readText(sets[set][0]);
        oltest::writeText(dir.file("half" + fs::path(sets[set][0]).extension().string()),
                          whole.substr(0, whole.size() / 2));
    }
    fs::copy_file(sets["png"][0], dir.file("really-png.jpg"));
    fs::create_directory(dir.file("out"));
    fs::create_directory(dir.file("taken.tif"));
    fs::create_directory(dir.file("scratch"));
    fs::create_symlink(sets["f"][1], dir.file("link.jpg"));
    fs::create_hard_link(sets["f"][2], dir.file("hard.jpg"));
    std::vector<std::string> before;
    for (const auto& f : sets["f"]) before.push_back(oltest::readText(f));
    const std::string jpeg = before[0], model = "olhdr synthetic camera";
    oltest::writeText(dir.file("odd.jpg"),
                      jpeg.substr(0, 2) + std::string("\xFF\xE1\x00\x08NotExf", 10) + jpeg.substr(2));
    for (const auto& [name, camera] :
         {std::pair{"utf8.jpg", "ol\xC3\xA9r synthetic camera"}, {"latin1.jpg", "olh\xE9r \"synthetic\\cam"}})
        oltest::writeText(dir.file(name), std::string(jpeg).replace(jpeg.find(model), model.size(), camera));

    const std::string times = "--times 1/240,1/60,1/15";
    std::vector<std::string> rows = {
        // Damaged or unfit inputs.
        "merge {f}%missing.jpg -o %out/x.hdr", "merge {f}%notes.txt -o %out/x.hdr", "merge {f}%fake.jpg -o %out/x.hdr",
        "merge {f0} %half.jpg -o %out/x.hdr", "merge {png0} %half.png -o %out/x.hdr",
        "merge {f0} %text.tif -o %out/x.hdr", "info %really-png.jpg", "merge {f}%f -o %out/x.hdr",
        "merge {f0} {big1} -o %out/x.hdr", "fuse {f0} {deep1} -o %out/x.tif", "fuse {f}%in.hdr -o %out/x.tif",
        "info %notes.txt",
        // Outputs that cannot be written, checked before any work.
        "merge {f}-o %out/nowhere/x.hdr", "fuse {f}-o %taken.tif",
        "merge {f}-o %out/x.hdr --preview %out/nowhere/p.png",
        // An output that is an input, by any name.
        "fuse {f}-o {f0}", "fuse {f}-o %f/../f/./frame-1.jpg", "fuse {f}-o %link.jpg", "fuse {f}-o %hard.jpg",
        "merge {f}-o %out/x.hdr --preview {f2}",
        // Mistakes on the command line.
        "", "frobnicate", "merge {f}", "merge -o %out/x.hdr", "merge {f0} -o %out/x.hdr", "merge {f}-o %out/x.exr",
        "fuse {f}-o %out/x.tif --bits 12", "fuse {f}-o %out/x.jpg --bits 16", "fuse {f}-o %out/x.tif --white-clip 60",
        "fuse {f}-o %out/x.tif --colour", "bracket --format gif -o %out/g",
        "merge {f}-o %out/x.hdr --preview-tone filmic", "fuse {f0} --align --deghost -o %out/x.tif",
        "ghosts {f0} -o %out/g.png", "fuse {f0} {big1} --align -o %out/x.tif", "ghosts {f0} {big1} -o %out/g.png",
        "merge {f}--keep-size -o %out/x.hdr", "fuse {f}--ghost-threshold 5 -o %out/x.tif",
        // Exposure times: from the user, a step, Exif or the brightness.
        "merge {bare}" + times + " -o %t1.hdr", "merge {bare}--times-file %named.txt -o %t2.hdr",
        "merge {bare}--times-file %bare.txt -o %t3.hdr", "merge {bare}-o %t4.hdr",
        "merge {bare1} {bare0} {bare2} --ev-step 2 -o %t5.hdr", "merge {bare}--times 1/15,1/60,1/240 -o %t6.hdr",
        "merge {bare}--times 1/240,1/60 -o %out/x.hdr", "merge {bare}--times 1/240,fast,1/15 -o %out/x.hdr",
        "merge {bare}--times-file %short.txt -o %out/x.hdr", "merge {bare}" + times + " --ev-step 2 -o %out/x.hdr",
        // Two stops apart: exposures by brightness, whatever the order given.
        "merge {bare}--ev-step 2 -o %s.hdr", "merge {bare2} {bare1} {bare0} --ev-step 2 -o %r.hdr",
        "merge -q {bare}--ev-step 2 --gamma 1 -o %g.hdr", "merge -q {bare}" + times + " -o %given.hdr",
        // A PNG keeps Exif in its eXIf chunk, and the library reads it there.
        "merge {png}-o %exif.hdr",
        // Strips, threads, disk mode and settings.
        "merge -q {f}-o %whole.hdr", "merge -q {f2} {f0} {f1} -o %shuffled.hdr",
        "merge {f}--strip-rows 7 -o %strips.hdr", "fuse -q {four}-j 1 -o %one.tif", "fuse -q {four}-j 3 -o %three.tif",
        "fuse {four}--disk --scratch %scratch -j 2 -o %disk.tif", "fuse -q {four}--black-clip 5 -o %clip.tif",
        "fuse {f}{f0} -j 2 -o %t.jpg",
        // info reports every file: the good ones listed (PSD frames carry the
        // Exif the bracket's help promises), each bad one on stderr.
        "info {f0} %notes.txt %gone.jpg {psd0}",
        // A JPEG whose APP1 is not Exif makes the library print on stdout: the
        // listing stays clean JSON. A camera name in UTF-8 stays, other bytes
        // are escaped (same length: offsets stay valid).
        "info --json %odd.jpg {f1}", "info --json %utf8.jpg %latin1.jpg",
        // Values the frames share stay in the header; the exposure time
        // differs and is left out. Strips carry no metadata.
        "info %whole.hdr", "info %strips.hdr", "--help",
        // The single-image commands and the finishing options of merge and fuse.
        "merge -q {f}--crop 0,0,8,8 -o %tiny.hdr", "merge {f}-o %out/x.hdr --crop 87,0,10,10",
        "fuse {f}-o %out/x.png --crop 0,60,96,5", "fuse {f}-o %out/x.png --crop -1,0,5,5",
        "merge {f}-o %out/x.hdr --rotate 45", "fuse {f}-o %out/x.png --method two --deghost",
        "fuse {f}-o %out/x.png --method blend", "preview %none.jpg -o %out/x.jpg", "histogram %none.hdr --json",
        // The reader takes one header line per 128 bytes of file: too few for an 8x8 picture.
        "preview %tiny.hdr -o %out/x.jpg", "preview {png0} -o %out/x.jpg --max-size 0", "compress {f0} -o %out/x.png",
        "compress %none.tif -o %out/x.png", "compress {f0} -o %out/x.png --strength 101",
        "panorama %none.hdr -o %out/x.png", "panorama {f0} -o %out/x.hdr", "panorama {f0} -o %out/x.png --mode cubic",
        "response {f0}", "response --profile %bad.icc", "response {f0} {f0} --times 1/100,1/100", "rank {f}%none.jpg",
        "fuse {f}--sharpen nan -o %out/x.png", "merge {f}--response manual -o %out/x.hdr",
        // The generator's camera is a 2.2 curve with a soft shoulder.
        "response {f}--csv %r.csv --plot %r.png", "response --profile {f0}", "merge {f}--response auto -o %auto.hdr",
        "compress {deep0} -o %c.png --strength 10", "rank {deep}", "panorama {deep0} -o %p.tif --mode spline16",
        "panorama %whole.hdr -o %p.hdr", "fuse {deep}--compress 20 --contrast 0.3 --sharpen 0.5 -j 2 -o %f.jpg",
        // The one-pass blends, 16-bit frames to 8 bits and 8 to 16. The third
        // frame is mostly white, and its other pixels rank it below the second.
        "fuse {deep}--method two --rotate 90 -o %two.png",
        "fuse {f}--method intensive --bits 16 --crop 0,0,90,60 -o %int.tif",
        "info %r.png %c.png %p.tif %p.hdr %f.jpg %two.png %int.tif"};
    for (const std::string cmd : {"merge", "fuse", "info", "demo", "bracket", "ghosts"}) {
        rows.push_back(cmd + " --help");
        EXPECT_EQ(run(cmd + " --help").out, run("help " + cmd).out) << cmd;
    }
    // Handheld brackets with known displacements come back with exactly those
    // shifts, cropped or kept.
    const std::string hand = "--size 480x320 --ev-step 1 ";
    bracket("sa", hand + "--frames 3 --format png --shift 0,0:-3,2:5,-4");
    bracket("sb", hand + "--frames 5 --bits 16 --format tif --shift 0,0:2,2:-2,1:1,-3:3,0");
    bracket("sc", hand + "--frames 4 --shift 0,0:-4,3:3,0:1,-2");
    bracket("sd", hand + "--frames 3 --format png");
    rows.insert(rows.end(), {"fuse {sa}--align -j 2 -o %sa.tif", "merge {sb}--align --keep-size -o %sb.hdr",
                             "ghosts {sc}--align -o %sc.png", "merge {sd}--align --deghost --consistency -o %sd.hdr"});
    std::vector<std::tuple<std::string, std::string, bool>> pairs;
    for (int o = 2; o <= 8; ++o) {  // frames stored as a camera held that way writes them
        const std::string set = std::string("o") + static_cast<char>('a' + o);
        bracket(set, "--format png --orientation " + std::to_string(o));
        rows.push_back("merge {" + set + "}-o %" + set + ".hdr --preview %" + set + ".jpg");
        rows.push_back("info --json %" + set + ".jpg {" + set + "0}");
        pairs.emplace_back("png.hdr", set + ".hdr", true);
    }
    // Frames of every format and depth are read; outputs of every format
    // carry the frames' metadata (IPTC in the TIFF only: the PNG and JPEG
    // writers here carry Exif and ICC), previews of both tones too.
    for (const std::string set : {"f", "png", "deep", "tif", "tifd", "psd", "psdd"})
        rows.insert(rows.end(),
                    {"info --json {" + set + "0}", "merge {" + set + "}-o %" + set + ".hdr --preview %" + set + ".png",
                     "info %" + set + ".hdr"});
    for (const std::string out : {"o.tif", "o.png", "o.jpg"})
        rows.insert(rows.end(), {"fuse -q {tifd}--bits " + std::string(out == "o.jpg" ? "8" : "16") + " -o %" + out,
                                 "info --json %" + out});
    for (const std::string p : {"photographic.png", "photographic.jpg", "linear.png", "linear.jpg"})
        rows.insert(rows.end(), {"merge {f}-o %x.hdr --preview %" + p + " --preview-tone " + p.substr(0, p.find('.')),
                                 "info --json %" + p});
    std::string transcript;
    for (const std::string& row : rows) {
        const std::string args = expand(row, true);
        const Result r = run(args);
        transcript += "$ olhdr " + row + " -> " + std::to_string(r.code) + "\n" + r.out;
        if (!r.err.empty()) transcript += "### stderr\n" + r.err;
        EXPECT_TRUE(r.code == 0 || row.empty() || r.err.rfind("olhdr ", 0) == 0) << args << "\n" << r.err;
    }
    for (std::size_t at; (at = transcript.find(dir.path().string())) != std::string::npos;)
        transcript.replace(at, dir.path().string().size(), "%");
    const std::string kept = OL_SOURCE_DIR "/tests/fixtures/olhdr/commands.txt";
    if (std::getenv("OL_WRITE_FIXTURES")) oltest::writeText(kept, transcript);
    EXPECT_EQ(transcript, oltest::readText(kept));
    // The estimated exponent is what the merge used: the same picture as --gamma.
    std::smatch gamma;
    ASSERT_TRUE(std::regex_search(transcript, gamma, std::regex("response gamma ([0-9.]+)")));
    const std::string given = "merge -q " + join(sets["f"]) + "--gamma " + gamma[1].str() + " -o ";
    EXPECT_EQ(run(given + quote(dir.file("given2.hdr"))).code, 0);
    pairs.emplace_back("auto.hdr", "given2.hdr", true);
    const std::string csv = oltest::readText(dir.file("r.csv"));  // the response table runs from 0 to 1
    EXPECT_EQ(csv.rfind("level,value,measured\n0,", 0), 0u);
    EXPECT_NE(csv.find("\n255,1,"), std::string::npos);
    if (geteuid() != 0) {  // a folder without write permission (root writes anyway)
        fs::create_directory(dir.file("ro"));
        fs::permissions(dir.file("ro"), fs::perms::owner_read | fs::perms::owner_exec);
        const Result r = run("fuse " + join(sets["f"]) + "-o " + quote(dir.file("ro/x.tif")));
        EXPECT_EQ(r.code, 3);
        EXPECT_NE(r.err.find("cannot write"), std::string::npos) << r.err;
        fs::permissions(dir.file("ro"), fs::perms::owner_all);
    }
    for (const char* n : {"sa.tif", "sb.hdr", "sc.png", "sd.hdr"}) EXPECT_TRUE(fs::exists(dir.file(n))) << n;
    EXPECT_EQ(entries(dir.file("out")), 0u);
    EXPECT_EQ(entries(dir.file("scratch")), 0u);  // disk mode removes its scratch files
    EXPECT_EQ(entries(dir.file("f")), 3u);
    for (std::size_t k = 0; k < before.size(); ++k) EXPECT_EQ(oltest::readText(sets["f"][k]), before[k]);

    pairs.insert(pairs.end(), {
        {"s.hdr", "r.hdr", true},      {"s.hdr", "g.hdr", false},  // the response gamma reaches the merge
        {"exif.hdr", "given.hdr", true}, {"whole.hdr", "strips.hdr", true}, {"whole.hdr", "shuffled.hdr", true},
        {"one.tif", "three.tif", true},  {"one.tif", "disk.tif", true},
        {"one.tif", "clip.tif", false},  // the settings reach the fusion
    });
    for (const auto& [a, b, same] : pairs) {
        const bool hdr = fs::path(a).extension() == ".hdr";
        auto content = [&](const std::string& n) {
            const std::vector<std::uint8_t> b = oltest::readFile(dir.file(n));
            return std::vector<std::uint8_t>(b.begin() + (hdr ? radtest::dataOffset(b) : 0), b.end());
        };
        EXPECT_EQ(content(a) == content(b), same) << a << " " << b;
    }
}

TEST_F(Cli, DemoWritesEveryFileItListsAndTellsHowToCallOlhdr) {
    const Result r = run("demo --size 240x160 --out " + quote(dir.file("demo")));
    ASSERT_EQ(r.code, 0) << r.err;
    int listed = 0;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("wrote ", 0) != 0) continue;
        const std::string path = line.substr(6, line.find_first_of(": (", 6) - 6);
        EXPECT_TRUE(fs::is_regular_file(path)) << line;
        ++listed;
    }
    EXPECT_EQ(listed, 7);  // three frames, picture, preview, fused TIFF and JPEG
    // Nothing but the listed files and the frames folder.
    EXPECT_EQ(entries(dir.file("demo")), 5u);
    EXPECT_EQ(entries(dir.file("demo/frames")), 3u);
    // The command it suggests: plain "olhdr" when found on PATH, the full path otherwise.
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

TEST_F(Cli, DamagedFilesOfEveryFormatNeverCrash) {
    std::vector<std::string> sources;
    for (const char* format : {"jpg", "png", "tif", "psd"})
        sources.push_back(bracket(format, std::string("--frames 2 --format ") + format)[0]);
    ASSERT_EQ(run("merge -q " + join(sets["jpg"]) + " -o " + quote(dir.file("x.hdr"))).code, 0);
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
            for (const std::string& cmd : {std::string("info "), "merge -q --ev-step 1 -o " + quote(dir.file("o.hdr")) + " " + quote(src) + " "}) {
                const Result r = run(cmd + quote(name));  // accepted, or refused in one line
                EXPECT_TRUE(r.code == 0 || (r.code == 2 && std::count(r.err.begin(), r.err.end(), '\n') == 1))
                    << name << " " << r.code << " " << r.err;
            }
        }
    }
}

TEST_F(Cli, InterruptRemovesPartialOutputsAndScratchFiles) {
    const auto frames = bracket("f", "--size 1600x1200 --format tif");
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
        const std::string err = oltest::readText(dir.file("err"));
        EXPECT_TRUE(err == "olhdr: interrupted, partial output removed\n" ||
                    err == "olhdr: interrupted before any output was written\n")
            << err;
    }
}

// A moving square is marked, and a deghosted fusion shows it once where the
// plain one blends it away.
TEST_F(Cli, DeghostOnMovingBrackets) {
    // 96x64 frames, square 12 pixels a side in a different place in each.
    const auto moving = bracket("m", "--moving --format png");
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
