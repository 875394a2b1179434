// olhdr ghosts: where the frames disagree because something moved, drawn in
// red over a dimmed picture of the frame that would fill those regions.
#include <cstdio>

#include "align_frames.hpp"
#include "args.hpp"
#include "commands.hpp"
#include "library.hpp"
#include "outfile.hpp"
#include "progress.hpp"

namespace olhdr {

const char* const kGhostsHelp =
    "usage: olhdr ghosts FRAME FRAME... -o MASK.png [options]\n"
    "\n"
    "Finds the regions where the frames disagree because something moved (as\n"
    "`fuse --deghost` does) and writes them in red over a dimmed copy of the\n"
    "middle exposure, the frame that fills them in a deghosted fusion.\n"
    "\n"
    "options:\n"
    "  -o, --out FILE         the PNG to write (required)\n"
    "      --ghost-threshold T how far a frame may stray from its neighbour's\n"
    "                         prediction, on the 8-bit scale (default 20)\n"
    "      --align            align the frames first, as merge and fuse do\n"
    "      --keep-size        with --align: keep the frame size\n"
    "      --times LIST       exposure times in seconds, one a frame (overrides Exif)\n"
    "      --times-file FILE  lines 'NAME TIME', one a frame (overrides Exif)\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

int cmdGhosts(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"out", 'o', true}, {"ghost-threshold", 0, true},
                           {"align", 0, false}, {"keep-size", 0, false}, {"times", 0, true},
                           {"times-file", 0, true}});
    if (printHelpIfAsked(args, kGhostsHelp)) return kExitOk;
    const Common common = commonOptions(args);
    const std::vector<std::string> paths = args.positional();
    const std::string out = args.text("out", "");
    const int threshold = args.integer("ghost-threshold", kGhostThreshold, 0, 765);
    const bool alignFirst = args.has("align"), keepSize = args.has("keep-size");
    if (keepSize && !alignFirst) throw Failure(kExitUsage, "--keep-size goes with --align");
    requireFramesAndOutput(args, "ghosts", "MASK.png");
    if (extensionOf(out) != "png") throw Failure(kExitUsage, out + ": the mask is written as a .png file");
    const GivenTimes times = givenTimes(args, paths);
    checkWritable(out);
    refuseInputsAsOutputs({out}, paths);

    Progress progress(!common.quiet, 2);
    progress.stage("reading frames", 0.6);
    FrameSet frames = loadFrameSet(paths, common.verbose, progress);
    std::vector<std::pair<int, int>> shifts;
    if (alignFirst) {
        progress.stage("aligning", 0.2);
        shifts = alignFrames(frames, keepSize, common.verbose);
    }
    const Exposures exposures = frameExposures(frames, 0, times.seconds, times.source, common.verbose);
    for (const auto& line : exposures.warnings) warn(line);
    progress.stage("detecting", 0.2);
    const std::vector<std::uint8_t> mask = detectGhosts(frames, exposures.deltaT, threshold, common.verbose);
    const int fill = middleExposure(exposures.deltaT);

    Image img;
    img.width = frames.width;
    img.height = frames.height;
    img.spp = 3;
    img.bps = 8;
    img.pixels.resize(img.byteCount());
    const std::size_t pixels = static_cast<std::size_t>(img.width) * img.height;
    const std::size_t step = frames.bps / 8;
    const std::uint8_t* src = frames.block.data() + frames.frameBytes() * fill;
    for (std::size_t i = 0; i < pixels; ++i) {
        const bool ghost = ghostBit(mask, i);
        for (int c = 0; c < 3; ++c) {
            // The high byte of a 16-bit sample (little-endian words).
            const int v = src[(i * 3 + c) * step + step - 1];
            const int dim = v * 3 / 10;
            img.pixels[i * 3 + c] = static_cast<std::uint8_t>(ghost ? (c == 0 ? 128 + dim : dim / 2) : dim);
        }
    }
    writeAtomically(out, [&](const std::string& temp) { writePng(temp, img, {}, {}); });
    progress.finish();
    report(common, "wrote " + out + ": " + std::to_string(img.width) + "x" + std::to_string(img.height) +
                       " PNG, marked regions in red over frame " + std::to_string(fill + 1) + " dimmed");
    if (alignFirst) report(common, "  " + alignedLine(shifts, frames, keepSize));
    report(common, "  " + ghostLine(markedShare(mask, img.width, img.height), threshold, fill));
    return kExitOk;
}

}  // namespace olhdr
