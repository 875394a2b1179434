// What olhdr writes, opened by independent programs: exiftool, tiffinfo,
// ImageMagick's identify and OpenCV. Each test skips when its tool is absent.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "support/testsupport.hpp"

namespace fs = std::filesystem;

namespace {

const std::string kProgram = std::string(OL_TOOLS_DIR) + "/olhdr";

std::string sh(const std::string& command, int* code = nullptr) {
    std::string out;
    const int c = oltest::runCommand(command + " 2>/dev/null", &out);
    if (code) *code = c;
    return out;
}

// A demo run at a small size, shared by the tests of this file.
class CliInterop : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!fs::exists(kProgram)) return;
        dir_ = new oltest::TempDir();
        ok_ = oltest::runOlhdr("demo -q --size 300x200 -o '" + dir_->file("demo") + "'").code == 0 &&
              oltest::runOlhdr("fuse -q " + frames() + "--bits 16 -o '" + file("fused16.png") + "'").code == 0;
        const std::string listing = "info --json '" + file("scene-fused.tif") + "' '" + file("scene.hdr") + "'";
        oltest::writeText(file("info.json"), oltest::runOlhdr(listing).out);
    }
    static void TearDownTestSuite() { delete dir_; }
    void SetUp() override {
        if (!fs::exists(kProgram)) GTEST_SKIP() << "olhdr not built";
        ASSERT_TRUE(ok_) << "the demo run failed";
    }
    static std::string file(const std::string& name) { return dir_->file("demo/" + name); }
    static std::string frames() {
        std::string s;
        for (const char* f : {"frame-1.jpg", "frame-2.jpg", "frame-3.jpg"})
            s += oltest::shellQuote(file("frames/") + f) + " ";
        return s;
    }

    static inline oltest::TempDir* dir_ = nullptr;
    static inline bool ok_ = false;
};

}  // namespace

// Each outside program on what olhdr wrote: the checks and what they must
// print are data in tests/interop/olhdr.txt.
TEST_F(CliInterop, OutsideProgramsReadEveryOutput) {
    const std::map<std::string, std::string> commands = {
        {"size", "identify -format '%m %w %h\\n'"},
        {"depth", "identify -format '%m %w %h %z\\n'"},
        {"tiffinfo", "tiffinfo"},
        {"json", oltest::systemPython() + " -c \"import json,sys; d=json.load(open(sys.argv[1])); print(len(d), "
                                          "d[0]['width'], d[0]['bits'], d[0]['iso'], d[1]['format'], d[1]['bits'], "
                                          "d[0]['gps']['latitude'])\""},
        {"exif", "exiftool -n -s -s -s -Model -ExposureTime -FNumber -ISO -FocalLength -DateTimeOriginal "
                 "-GPSLatitudeRef -GPSLatitude -Keywords -ProfileDescription"}};
    std::ifstream in(OL_SOURCE_DIR "/tests/interop/olhdr.txt");
    std::string check, name, mode, want;
    auto compare = [&] {
        const std::string command = check.empty() ? "" : commands.at(check);
        if (command.empty() || !oltest::haveProgram(command.substr(0, command.find(' ')))) return;
        const std::string out = sh(command + " '" + file(name) + "'");
        std::istringstream lines(want);
        for (std::string line; mode == "part" && std::getline(lines, line);)
            EXPECT_NE(out.find(line), std::string::npos) << check << " " << name << ": " << line << " in\n" << out;
        if (mode != "part") {
            EXPECT_EQ(out, want) << check << " " << name;
        }
    };
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("@ ", 0) == 0) {
            compare();
            check = name = mode = want = "";
            std::istringstream(line.substr(2)) >> check >> name >> mode;
        } else if (line.rfind('#', 0) != 0) {
            want += line + "\n";
        }
    }
    compare();
}

// OpenCV decodes the merged picture as relative radiance: the lit window and
// the sunlit ground keep the scene's ratio between them (about 6 : 0.35),
// which no single frame holds; and the photographic preview follows the
// operator of tools/README.md on the picture as OpenCV decodes it.
TEST_F(CliInterop, OpenCvReadsTheRadiancePictureAndItsPreviewFollowsTheOperator) {
    if (!oltest::havePythonModule("cv2")) GTEST_SKIP() << "no OpenCV";
    const std::string png = file("tone.png");
    oltest::runOlhdr("merge -q " + frames() + "-o '" + file("tone.hdr") + "' --preview '" + png + "'");
    const std::string script =
        "import cv2, numpy as np\n"
        "h = cv2.imread('" + file("scene.hdr") + "', cv2.IMREAD_ANYDEPTH | cv2.IMREAD_COLOR)\n"
        "assert h is not None and h.shape == (200, 300, 3) and np.isfinite(h).all() and (h > 0).all()\n"
        "win = h[78:86, 74:82].mean(axis=(0,1))[::-1]\n"
        "ground = h[150:160, 200:240].mean(axis=(0,1))[::-1]\n"
        "h = cv2.imread('" + file("tone.hdr") + "', cv2.IMREAD_ANYDEPTH | cv2.IMREAD_COLOR)[..., ::-1]\n"
        "lw = h @ np.array([0.2126, 0.7152, 0.0722], np.float32)\n"
        "key = np.exp(np.log(lw[lw > 0]).mean())\n"
        "l = 0.18 * lw / key\n"
        "v = np.minimum(1, h * (l / (1 + l) / np.maximum(lw, 1e-30))[..., None])\n"
        "s = np.where(v <= 0.0031308, 12.92 * v, 1.055 * v ** (1 / 2.4) - 0.055) * 255\n"
        "p = cv2.imread('" + png + "')[..., ::-1].astype(float)\n"
        "d = np.abs(p - s)\n"
        "print('%.1f %.2f %.2f %.0f' % (win[0] / ground[0], d.mean(), np.percentile(d, 99.9), p.mean()))\n";
    std::ofstream(file("check.py")) << script;
    int code = 0;
    const std::string out = sh(oltest::systemPython() + " '" + file("check.py") + "'", &code);
    ASSERT_EQ(code, 0) << out;
    double ratio = 0, mean = 0, p999 = 0, level = 0;
    std::istringstream(out) >> ratio >> mean >> p999 >> level;
    EXPECT_GT(ratio, 8.0) << out;
    EXPECT_LT(ratio, 40.0) << out;
    // OpenCV decodes a mantissa m as m + 0.5: a level apart at most.
    EXPECT_LT(mean, 0.6) << out;
    EXPECT_LE(p999, 2.0) << out;
    EXPECT_GT(level, 60) << out;  // a scene, not black with a bright window
}

TEST_F(CliInterop, ImageMagickTurnsTaggedFramesAsOlhdrStoresThem) {
    if (!oltest::haveProgram("convert")) GTEST_SKIP() << "no ImageMagick";
    // The bracket's camera-form frames, turned by an independent reader,
    // are the upright frames: the tags mean what the merge takes them to mean.
    std::string upright;
    for (int o = 1; o <= 8; ++o) {  // 1: stored upright, the reference
        const std::string dir = file("o") + std::to_string(o);
        oltest::runOlhdr("bracket -q --frames 1 --size 48x32 --format tif --orientation " + std::to_string(o) + " -o " +
                         oltest::shellQuote(dir));
        const std::string frame = oltest::shellQuote(dir + "/frame-1.tif");
        const std::string turned = sh("convert " + frame + " -auto-orient -depth 8 rgb:- 2>/dev/null | md5sum");
        if (o == 1) upright = turned;
        EXPECT_EQ(turned, upright) << o;
    }
    ASSERT_EQ(upright.find("d41d8cd98f00b204e9800998ecf8427e"), std::string::npos) << "convert read nothing";
}

TEST_F(CliInterop, MergeAgreesWithOpenCvsCalibratedDebevecOnRealBrackets) {
    OL_REQUIRE_TESTDATA();
    if (!oltest::havePythonModule("cv2")) GTEST_SKIP() << "no OpenCV";
    const fs::path sets = oltest::testdataDir() / "brackets";
    // The memorial scans put black at about 16: without --black-level the
    // merge takes it for light (correlation 0.42).
    for (const auto& [frames, options] :
         {std::pair{"memorial_debevec_png/*.png", "--times 32,8,2,1/2,1/8,1/32,1/128,1/512 --black-level 16"},
          {"samsung_ex2f_campus/*.JPG", "--times 1/10,1/20,1/45,1/90,1/180,1/350,1/750,1/1500"}}) {
        if (!fs::exists(sets / fs::path(frames).parent_path())) continue;
        int code = 0;
        const std::string out = sh(oltest::systemPython() + " '" OL_SOURCE_DIR "/tools/tests/hdr_agreement.py' '" +
                                       kProgram + "' " + (sets / frames).string() + " " + options,
                                   &code);
        ASSERT_EQ(code, 0) << frames;
        EXPECT_GE(std::stod(out), 0.98) << frames << ": " << out;
    }
}
