// olhdr merge: frames to a Radiance picture, with a preview.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "align_frames.hpp"
#include "args.hpp"
#include "commands.hpp"
#include "library.hpp"
#include "roads.hpp"
#include "outfile.hpp"
#include "progress.hpp"
#include "orient.hpp"
#include "quiet.hpp"
#include "tonemap.hpp"

namespace olhdr {

const char* const kMergeHelp =
    "usage: olhdr merge FRAME FRAME... -o OUT.hdr [options]\n"
    "\n"
    "Merges bracketed exposures of one scene into a Radiance RGBE picture. The\n"
    "exposure of each frame comes from --times or --times-file, else from its\n"
    "Exif exposure time, aperture and ISO; when a frame has none, from --ev-step,\n"
    "or else it is inferred from the frames' brightness (said on stderr). Values\n"
    "all frames share (camera, date, focal length, and exposure settings when\n"
    "equal) go into the picture's header. Frames with an Exif orientation are\n"
    "turned upright in the picture and the preview.\n"
    "\n"
    "options:\n"
    "  -o, --out FILE        the Radiance picture to write (required)\n"
    "      --preview FILE    also write a PNG or JPEG preview, with the frames'\n"
    "                        ICC profile and Exif\n"
    "      --preview-tone T  photographic (default): global tone mapping,\n"
    "                        L/(1+L) on luminance scaled to the scene's key;\n"
    "                        linear: exposed at the mean luminance, clipped\n"
    "      --times LIST      exposure times in seconds, one a frame in the order\n"
    "                        given: 1/1000,1/250,1/60 (overrides Exif)\n"
    "      --times-file FILE lines 'NAME TIME', one a frame (overrides Exif)\n"
    "      --ev-step STOPS   the frames are STOPS apart (overrides Exif)\n"
    "      --black-level L   the frames' black sits at level L of 255 (film scans):\n"
    "                        it is taken off before the merge\n"
    "      --gamma G         response gamma of the frames (default 2.2)\n"
    "      --response auto   estimate the response gamma from the frames\n"
    "                        (as `olhdr response` does) and merge with it\n"
    "      --strip-rows N    write the picture N rows at a time (default: only\n"
    "                        pictures above 64 megapixels, 256 rows; the strip\n"
    "                        form carries no metadata lines)\n"
    "      --crop X,Y,W,H    keep only this rectangle (pixels, upright picture)\n"
    "      --rotate DEG      turn the picture 90, 180 or 270 degrees clockwise\n"
    "                        (after the crop)\n"
    "      --align           bring handheld frames into register first (whole-\n"
    "                        pixel shifts); the picture is cropped to the part\n"
    "                        all frames cover\n"
    "      --keep-size       with --align: keep the frame size (uncovered margins\n"
    "                        are white)\n"
    "      --deghost         where frames disagree because something moved, blend\n"
    "                        toward the middle exposure instead of the mean\n"
    "      --consistency     with --deghost: a pixel that does not change between\n"
    "                        frames as a still scene would becomes the plain mean\n"
    "                        of the frames (a softer cure)\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

int cmdMerge(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"out", 'o', true}, {"preview", 0, true},
                           {"ev-step", 0, true}, {"gamma", 0, true}, {"strip-rows", 0, true},
                           {"times", 0, true}, {"times-file", 0, true}, {"preview-tone", 0, true}, {"black-level", 0, true},
                           {"response", 0, true}, {"crop", 0, true}, {"rotate", 0, true},
                           {"align", 0, false}, {"deghost", 0, false}, {"keep-size", 0, false},
                           {"consistency", 0, false}});
    if (printHelpIfAsked(args, kMergeHelp)) return kExitOk;
    const Common common = commonOptions(args);
    MergeRequest req;
    req.frames = args.positional();
    req.out = args.text("out", "");
    req.preview = args.text("preview", "");
    req.evStep = args.number("ev-step", 0, 0.01, 10);
    req.gamma = args.number("gamma", 0, 0.1, 10);
    req.stripRows = args.integer("strip-rows", 0, 1, 1 << 20);
    req.previewTone = args.text("preview-tone", "photographic");
    req.blackLevel = args.number("black-level", 0, 0, 128);
    req.transform = parseTransform(args);
    if (req.previewTone != "photographic" && req.previewTone != "linear")
        throw Failure(kExitUsage, "option --preview-tone: photographic or linear");
    if (args.has("response")) {
        if (args.text("response", "") != "auto") throw Failure(kExitUsage, "option --response: auto");
        if (req.gamma > 0) throw Failure(kExitUsage, "give either --gamma or --response auto, not both");
        req.responseAuto = true;
    }
    req.align = args.has("align");
    req.keepSize = args.has("keep-size");
    req.deghost = args.has("deghost");
    req.consistency = args.has("consistency");
    if (req.keepSize && !req.align) throw Failure(kExitUsage, "--keep-size goes with --align");
    if (req.consistency && !req.deghost) throw Failure(kExitUsage, "--consistency goes with --deghost");
    requireFramesAndOutput(args, "merge", "OUT.hdr");
    if (req.evStep > 0 && (args.has("times") || args.has("times-file")))
        throw Failure(kExitUsage, "give either exposure times or --ev-step, not both");
    const GivenTimes times = givenTimes(args, req.frames);
    req.times = times.seconds;
    req.timesSource = times.source;
    Progress progress(!common.quiet, 2);
    runMerge(req, common, progress);
    return kExitOk;
}

}  // namespace olhdr

namespace olhdr {

namespace {
constexpr double kStripPixels = 64.0 * 1024 * 1024;

std::string exposureList(const FrameSet& frames, const Exposures& e) {
    std::string s;
    for (int k = 0; k < frames.count(); ++k) {
        char buf[48];
        std::snprintf(buf, sizeof buf, "%s%.4g", k ? " " : "", e.deltaT[k]);
        s += buf;
    }
    return s;
}

void writeRadiance(const std::string& target, int width, int height, const ExifRecord& exif,
                   const std::string& profile, const std::vector<std::uint8_t>& rgbe, int stripRows,
                   const Common& common, Progress& progress) {
    writeAtomically(target, [&](const std::string& temp) {
        if (stripRows <= 0) {
            int r;
            {
                LibraryOutput quiet(common.verbose);
                r = ol_io_rgbe_write(temp.c_str(), width, height, &exif, nullptr, profile.c_str(),
                                     rgbe.data());
            }
            if (r == -4) throw Failure(kExitProcessing, target + ": out of memory while writing");
            if (r != height) throw Failure(kExitOutput, target + ": " + writeFailure(r));
            return;
        }
        const std::size_t rowBytes = static_cast<std::size_t>(width) * 4;
        const int strips = (height + stripRows - 1) / stripRows;
        for (int s = 0; s < strips; ++s) {
            progress.update(static_cast<double>(s) / strips);
            int r;
            {
                LibraryOutput quiet(common.verbose);
                r = ol_write_strip_rgbe(temp.c_str(), s, stripRows, width, height, nullptr,
                                        rgbe.data() + rowBytes * stripRows * s);
            }
            const int expected = std::min(stripRows, height - s * stripRows);
            if (r != expected)
                throw Failure(kExitOutput, target + ": " + writeFailure(r) + " (rows from " +
                                               std::to_string(s * stripRows) + ")");
        }
    });
}

// Returns what the preview carries besides pixels (", ICC profile, Exif").
std::string writePreview(const std::string& target, int width, int height, float mean, const std::string& tone,
                         const std::vector<std::uint8_t>& rgbe, const FrameSet& frames, const ExifRecord& exif,
                         const Common& common) {
    Image img;
    if (tone == "linear") {
        img.width = width;
        img.height = height;
        img.spp = 3;
        img.bps = 8;
        img.pixels.resize(img.byteCount());
        int r;
        {
            LibraryOutput quiet(common.verbose);
            r = rgbe_rep(width, height, width * 3, mean, rgbe.data(), img.pixels.data());
        }
        if (r != height) throw Failure(kExitProcessing, "the preview could not be made (code " + std::to_string(r) + ")");
        // The preview is blue, green, red; the encoders take red first.
        for (std::size_t i = 0; i + 2 < img.pixels.size(); i += 3) std::swap(img.pixels[i], img.pixels[i + 2]);
    } else {
        img = photographicPreview(rgbe, width, height);
    }
    // The pixels are upright already: the preview's Exif says so.
    std::vector<std::uint8_t> block;
    {
        LibraryOutput quiet(common.verbose);
        block = exifBlock(exif, frames.meta[0].gps, 1);
    }
    const std::vector<std::uint8_t>& icc = frames.meta[0].icc;
    const std::string ext = extensionOf(target);
    writeAtomically(target, [&](const std::string& temp) {
        if (ext == "jpg" || ext == "jpeg")
            writeJpeg(temp, img, 90, block, icc);
        else
            writePng(temp, img, block, icc);
    });
    return std::string(icc.empty() ? "" : ", ICC profile") + (block.empty() ? "" : ", Exif");
}
}  // namespace

void runMerge(const MergeRequest& req, const Common& common, Progress& progress) {
    const std::string ext = extensionOf(req.out);
    if (ext != "hdr" && ext != "pic" && ext != "rgbe")
        throw Failure(kExitUsage, req.out + ": a Radiance picture is named .hdr, .pic or .rgbe");
    if (!req.preview.empty()) {
        const std::string pext = extensionOf(req.preview);
        if (pext != "png" && pext != "jpg" && pext != "jpeg")
            throw Failure(kExitUsage, req.preview + ": a preview is a .png or .jpg file");
        checkWritable(req.preview);
    }
    checkWritable(req.out);
    refuseInputsAsOutputs(req.preview.empty() ? std::vector<std::string>{req.out}
                                              : std::vector<std::string>{req.out, req.preview},
                          req.frames);

    progress.stage("reading frames", 0.3);
    FrameSet frames = loadFrameSet(req.frames, common.verbose, progress);
    applyBlackLevel(frames, req.blackLevel);
    if (req.blackLevel <= 0) {
        // The merge takes any level above its dark threshold for light; in
        // the shortest exposure that light is multiplied many times.
        const int floor = shadowFloor(frames);
        if (floor >= 12)
            warn("the darkest frame has almost nothing below level " + std::to_string(floor) +
                 " of 255; if black sits there (a film scan), give --black-level " + std::to_string(floor));
    }
    // Aligned on the photo block, before the exposures are measured on it.
    std::vector<std::pair<int, int>> shifts;
    if (req.align) {
        progress.stage("aligning", 0.1);
        shifts = alignFrames(frames, req.keepSize, common.verbose);
    }
    {
        // The crop is in the upright, aligned picture: orientations 5 to 8 swap the sides.
        const int o = frames.meta[0].exif.orientation;
        const bool swap = o >= 5 && o <= 8;
        req.transform.check(swap ? frames.height : frames.width, swap ? frames.width : frames.height);
    }
    const Exposures exposures = frameExposures(frames, req.evStep, req.times, req.timesSource, common.verbose);
    for (const auto& line : exposures.notes) note(common, line);
    for (const auto& line : exposures.warnings) warn(line);

    progress.stage("merging", 0.45);
    const int w = frames.width, h = frames.height, n = frames.count();
    std::vector<float> lut(static_cast<std::size_t>(1) << frames.bps);
    std::vector<float> deltaT = exposures.deltaT;
    double gamma = req.gamma;
    if (req.responseAuto) {
        // The merge builds its table from the exponent in lut[0], the same
        // curve as gen_courbe's over the levels; the table itself is refilled.
        std::vector<float> curve;
        const int g1000 = estimateResponse(frames, deltaT, curve, common.verbose);
        gamma = g1000 / 1000.0;
        gen_courbe(g1000, static_cast<float>(1.0 / std::pow(256.0, gamma)), lut.data());
        char text[96];
        std::snprintf(text, sizeof text, "response gamma %.3f estimated from the frames", gamma);
        note(common, text);
    }
    if (gamma > 0) lut[0] = static_cast<float>(gamma);
    float stats[3] = {0, 0, 0};
    std::vector<std::uint8_t> rgbe(static_cast<std::size_t>(w) * h * 4);
    int r;
    {
        LibraryOutput quiet(common.verbose);
        // The movement-resisting merges take red first (mode 1) and scale
        // the median exposure to 2 * 0.5.
        if (req.deghost && req.consistency) {
            rgbe[0] = 1;  // consistency test on, threshold 1.0
            r = calc_hdr(1, n, w, h, 3, frames.bps, gamma > 0 ? 1 : 0, lut.data(), 0.5f, deltaT.data(),
                         frames.block.data(), stats, rgbe.data());
        } else if (req.deghost) {
            r = hdr_unghost(1, 1, n, w, h, 3, frames.bps, gamma > 0 ? 1 : 0, lut.data(), 0.5f, deltaT.data(),
                            frames.block.data(), stats, rgbe.data());
        } else {
            r = ol_hdr_merge(0, n, w, h, 3, frames.bps, gamma > 0 ? 1 : 0, lut.data(), -1.0f, deltaT.data(),
                             frames.block.data(), stats, rgbe.data());
        }
    }
    if (r == -4) throw Failure(kExitProcessing, "out of memory while merging");
    if (r != h) throw Failure(kExitProcessing, "the merge failed (code " + std::to_string(r) + ")");
    progress.update(1.0);

    progress.stage("writing", 0.25);
    ExifRecord exif = sharedExif(frames);
    const std::string profile = frames.meta[0].profileName;
    // A Radiance picture has no orientation tag: the pixels are turned
    // upright here, by the frames' common orientation.
    const int firstOrientation = frames.meta[0].exif.orientation;
    const int orientation = exif.orientation >= 2 && exif.orientation <= 8 ? exif.orientation : 1;
    if (firstOrientation >= 2 && firstOrientation <= 8 && orientation == 1)
        warn("the frames differ in their Exif orientation; the picture is left as stored");
    int ow = w, oh = h;
    if (orientation == 3 || orientation == 6 || orientation == 8) {
        // Plain turns go through the library's quarter turns; the mirrored
        // orientations stay with the host's own remapping.
        Transform turn;
        turn.rotate = orientation == 3 ? 180 : orientation == 6 ? 90 : 270;
        transformRgbe(turn, rgbe, ow, oh);
    } else if (orientation != 1) {
        rgbe = orientRgbePlanes(rgbe, ow, oh, orientation);
    }
    exif.orientation = 1;
    transformRgbe(req.transform, rgbe, ow, oh);
    int stripRows = req.stripRows;
    if (stripRows <= 0 && static_cast<double>(ow) * oh > kStripPixels) stripRows = 256;
    writeRadiance(req.out, ow, oh, exif, profile, rgbe, stripRows, common, progress);
    std::string previewKeeps;
    if (!req.preview.empty())
        previewKeeps = writePreview(req.preview, ow, oh, stats[2], req.previewTone, rgbe, frames, exif, common);
    progress.finish();

    char line[768];
    std::snprintf(line, sizeof line, "wrote %s: %dx%d Radiance picture from %s (%d-bit), exposures (%s): %s",
                  req.out.c_str(), ow, oh, counted(n, "frame").c_str(), frames.bps, exposures.source.c_str(),
                  exposureList(frames, exposures).c_str());
    report(common, line);
    if (req.transform.any()) report(common, "  " + req.transform.text());
    if (req.align) report(common, "  " + alignedLine(shifts, frames, req.keepSize));
    if (req.deghost) {
        // The share is what the ghost detection marks on the same frames; the
        // merge itself works pixel by pixel without a mask.
        const auto mask = detectGhosts(frames, exposures.deltaT, kGhostThreshold, common.verbose);
        char buf[256];
        std::snprintf(buf, sizeof buf, "  deghosted: %s; the ghost detection marks %.1f%% of pixels",
                      req.consistency ? "inconsistent pixels taken as the plain mean of the frames"
                                      : "disagreeing pixels blended toward the middle exposure",
                      markedShare(mask, w, h) * 100.0);
        report(common, buf);
    }
    if (orientation != 1)
        report(common, "  turned upright: Exif orientation " + std::to_string(orientation) + ", " +
                           orientationText(orientation));
    std::snprintf(line, sizeof line, "  luminance min %.4g  max %.4g  mean %.4g (in decoded RGBE units)%s", stats[0],
                  stats[1], stats[2], stripRows > 0 ? "; written in strips, without metadata lines" : "");
    report(common, line);
    if (!req.preview.empty())
        report(common, "wrote " + req.preview + ": preview, " +
                           (req.previewTone == "linear" ? std::string("linear at the mean luminance")
                                                        : std::string("photographic tone mapping")) +
                           previewKeeps);
}

}  // namespace olhdr
