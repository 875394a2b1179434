// olhdr response: the camera's response exponent, estimated from a bracket or
// read from an ICC profile, with its table as CSV and its curve as a plot.
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>

#include "args.hpp"
#include "commands.hpp"
#include "library.hpp"
#include "outfile.hpp"
#include "picture_write.hpp"
#include "progress.hpp"
#include "quiet.hpp"

namespace olhdr {

const char* const kResponseHelp =
    "usage: olhdr response FRAME FRAME... [--csv FILE] [--plot FILE.png] [options]\n"
    "       olhdr response --profile FILE\n"
    "\n"
    "Estimates the camera's response exponent (gamma) from bracketed exposures of\n"
    "one scene: pixels seen at two exposures must agree once linearised. The\n"
    "exposures come from --times or --times-file, else from each frame's Exif.\n"
    "With --profile, reads the exponent of the first tone curve of an ICC profile\n"
    "(a .icc/.icm file, or the profile embedded in a JPEG, PNG, TIFF or PSD).\n"
    "`olhdr merge --response auto` merges with the estimated exponent.\n"
    "\n"
    "options:\n"
    "      --csv FILE         write the table: level, value (0..1), and the value\n"
    "                         measured at that level where the frames gave one\n"
    "      --plot FILE.png    draw the curve and the measured values\n"
    "      --times LIST       exposure times in seconds, one a frame (overrides Exif)\n"
    "      --times-file FILE  lines 'NAME TIME', one a frame (overrides Exif)\n"
    "      --profile FILE     read the exponent from an ICC profile instead\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

int estimateResponse(const FrameSet& frames, const std::vector<float>& deltaT, std::vector<float>& curve,
                     bool verbose) {
    curve.assign(256, std::numeric_limits<float>::quiet_NaN());
    int r;
    {
        LibraryOutput quiet(verbose);
        r = calc_courbe(frames.count(), frames.width, frames.height, frames.bps, 3, deltaT.data(),
                        frames.block.data(), curve.data());
    }
    if (r == -4) throw Failure(kExitProcessing, "out of memory while estimating the response");
    if (r <= 0)
        throw Failure(kExitInput, "the frames hold too few levels seen at two exposures to estimate a response "
                                  "(frames of one exposure, or all black or all white?)");
    return r;
}

namespace {

std::vector<std::uint8_t> readWhole(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) throw Failure(kExitInput, path + ": no such file");
    if (S_ISDIR(st.st_mode)) throw Failure(kExitInput, path + ": is a folder, not a profile");
    if (st.st_size > (64 << 20)) throw Failure(kExitInput, path + ": too large for an ICC profile");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure(kExitInput, path + ": cannot open");
    std::vector<std::uint8_t> b(static_cast<std::size_t>(st.st_size));
    in.read(reinterpret_cast<char*>(b.data()), static_cast<std::streamsize>(b.size()));
    if (static_cast<std::size_t>(in.gcount()) != b.size()) throw Failure(kExitInput, path + ": cannot read");
    return b;
}

std::uint32_t be32(const std::vector<std::uint8_t>& b, std::size_t at) {
    return at + 4 <= b.size() ? (std::uint32_t(b[at]) << 24 | std::uint32_t(b[at + 1]) << 16 |
                                 std::uint32_t(b[at + 2]) << 8 | b[at + 3])
                              : 0;
}

// Why the exponent is 2.2 by default when it is: the library takes a single
// exponent ('curv' with one entry) from an r, g or b tone curve only.
std::string defaultReason(const std::vector<std::uint8_t>& b) {
    const std::uint32_t tags = be32(b, 128);
    bool grey = false;
    for (std::uint32_t i = 0; i < tags && i < 4096; ++i) {
        const std::size_t at = 132 + 12 * static_cast<std::size_t>(i);
        if (at + 12 > b.size()) break;
        const std::string sig(reinterpret_cast<const char*>(&b[at]), 4);
        if (sig == "kTRC") grey = true;
        if (sig != "rTRC" && sig != "gTRC" && sig != "bTRC") continue;
        const std::size_t off = be32(b, at + 4);  // 64-bit: off + 12 cannot wrap
        const bool single = off + 12 <= b.size() && std::memcmp(&b[off], "curv", 4) == 0 && be32(b, off + 8) == 1;
        return single ? "" : "; its tone curve is a table or a formula, not one exponent: 2.2 assumed";
    }
    return grey ? "; a grey profile's curve is not read: 2.2 assumed" : "; no tone curve in the profile, 2.2 assumed";
}

int fromProfile(const std::string& path, const Common& common) {
    const FileKind kind = sniff(path);
    std::vector<std::uint8_t> icc;
    std::string where;
    if (kind == FileKind::Missing || kind == FileKind::Directory || kind == FileKind::Unknown) {
        icc = readWhole(path);
        if (icc.size() < 40 || std::memcmp(icc.data() + 36, "acsp", 4) != 0)
            throw Failure(kExitInput, path + ": not an ICC profile, nor an image with one");
        where = "ICC profile";
    } else if (kind == FileKind::Radiance) {
        throw Failure(kExitInput, path + ": a Radiance picture holds no ICC profile");
    } else {
        const Frame frame = loadFrame(path, common.verbose);
        icc = frame.meta.icc.empty() ? frame.image.icc : frame.meta.icc;
        if (icc.empty()) throw Failure(kExitInput, path + ": the image has no embedded ICC profile");
        where = std::string("profile embedded in the ") + kindName(kind);
    }
    float gamma = 0;
    int r;
    {
        LibraryOutput quiet(common.verbose);
        r = trc_from_profile(icc.data(), static_cast<int>(icc.size()), &gamma);
    }
    if (r < 0 || icc.size() <= 12)
        throw Failure(kExitInput, path + ": damaged ICC profile (its header gives " + std::to_string(-r) +
                                      " bytes, there are " + std::to_string(icc.size()) + ")");
    const std::string name = profileName(icc);
    char line[512];
    std::snprintf(line, sizeof line, "%s: gamma %.4g (%s%s%s)%s", path.c_str(), gamma, where.c_str(),
                  name.empty() ? "" : " '", name.empty() ? "" : (name + "'").c_str(),
                  defaultReason(icc).c_str());
    report(common, line);
    return kExitOk;
}

void writeCsv(const std::string& target, const std::vector<float>& lut, const std::vector<float>& measured) {
    writeAtomically(target, [&](const std::string& temp) {
        std::FILE* f = std::fopen(temp.c_str(), "wb");
        if (!f) throw Failure(kExitOutput, target + ": cannot create the file");
        std::fprintf(f, "level,value,measured\n");
        for (int i = 0; i < 256; ++i) {
            std::fprintf(f, "%d,%.6g,", i, lut[i]);
            if (std::isfinite(measured[i])) std::fprintf(f, "%.6g", measured[i]);
            std::fprintf(f, "\n");
        }
        if (std::fclose(f) != 0) throw Failure(kExitOutput, target + ": the file was cut short (is the disk full?)");
    });
}

// 256 x 256 plot: level across, linear value up; the curve in black, the
// measured values in red, a grid every 32 levels.
Image plot(const std::vector<float>& lut, const std::vector<float>& measured) {
    Image img;
    img.width = img.height = 256;
    img.spp = 3;
    img.bps = 8;
    img.pixels.assign(img.byteCount(), 255);
    auto put = [&](int x, int y, std::uint8_t r, std::uint8_t g, std::uint8_t b) {
        if (x < 0 || x > 255 || y < 0 || y > 255) return;
        std::uint8_t* p = &img.pixels[(static_cast<std::size_t>(255 - y) * 256 + x) * 3];
        p[0] = r, p[1] = g, p[2] = b;
    };
    for (int i = 0; i < 256; i += 32)
        for (int j = 0; j < 256; ++j) put(i, j, 220, 220, 220), put(j, i, 220, 220, 220);
    auto level = [](float v) { return static_cast<int>(std::lround(std::min(1.0f, std::max(0.0f, v)) * 255)); };
    for (int i = 0; i < 256; ++i)
        if (std::isfinite(measured[i]))
            for (int d = -1; d <= 1; ++d) put(i + d, level(measured[i]), 220, 0, 0), put(i, level(measured[i]) + d, 220, 0, 0);
    for (int i = 1; i < 256; ++i) {
        const int a = level(lut[i - 1]), b = level(lut[i]);
        for (int y = std::min(a, b); y <= std::max(a, b); ++y) put(i, y, 0, 0, 0);
    }
    return img;
}

}  // namespace

int cmdResponse(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"csv", 0, true}, {"plot", 0, true}, {"profile", 0, true},
                           {"times", 0, true}, {"times-file", 0, true}});
    if (printHelpIfAsked(args, kResponseHelp)) return kExitOk;
    const Common common = commonOptions(args);
    if (args.has("profile")) {
        if (!args.positional().empty() || args.has("csv") || args.has("plot"))
            throw Failure(kExitUsage, "--profile reads one profile: give no frames, --csv or --plot with it");
        return fromProfile(*args.value("profile"), common);
    }
    const auto& paths = args.positional();
    if (paths.size() < 2)
        throw Failure(kExitUsage, "the response is estimated from two or more exposures (or give --profile FILE)");
    const std::string csv = args.text("csv", ""), png = args.text("plot", "");
    if (!png.empty() && extensionOf(png) != "png") throw Failure(kExitUsage, png + ": the plot is a .png file");
    std::vector<std::string> outs;
    for (const auto& o : {csv, png})
        if (!o.empty()) checkWritable(o), outs.push_back(o);
    refuseInputsAsOutputs(outs, paths);
    const GivenTimes times = givenTimes(args, paths);

    Progress progress(!common.quiet, 2);
    progress.stage("reading frames", 0.7);
    const FrameSet frames = loadFrameSet(paths, common.verbose, progress);
    const Exposures exposures = frameExposures(frames, 0, times.seconds, times.source, common.verbose);
    if (exposures.inferred)
        throw Failure(kExitInput, "the frames carry no Exif exposure times: give them with --times or --times-file");
    for (const auto& line : exposures.warnings) warn(line);
    progress.stage("estimating", 0.3);
    std::vector<float> curve;
    const int g1000 = estimateResponse(frames, exposures.deltaT, curve, common.verbose);
    progress.finish();

    // The table runs from 0 to 1 over the levels; the measured values are in
    // units of level^gamma, put on the same scale.
    const double gamma = g1000 / 1000.0;
    const float scale = static_cast<float>(1.0 / std::pow(255.0, gamma));
    std::vector<float> lut(256), measured(256, std::numeric_limits<float>::quiet_NaN());
    gen_courbe(g1000, scale, lut.data());
    for (int i = 37; i < 200; ++i)
        if (std::isfinite(curve[i])) measured[i] = curve[i] * scale;
    if (!csv.empty()) writeCsv(csv, lut, measured);
    if (!png.empty())
        writeAtomically(png, [&](const std::string& temp) { writePng(temp, plot(lut, measured), {}, {}); });

    char line[512];
    std::snprintf(line, sizeof line, "response gamma %.3f from %s (%d-bit), exposures (%s); %.0f sample pairs agree",
                  gamma, counted(frames.count(), "frame").c_str(), frames.bps, exposures.source.c_str(), curve[2]);
    report(common, line);
    if (!csv.empty()) report(common, "wrote " + csv + ": 256 levels, value 0..1 and the measured values");
    if (!png.empty()) report(common, "wrote " + png + ": 256x256 plot of the curve");
    return kExitOk;
}

}  // namespace olhdr
