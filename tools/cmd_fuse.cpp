// olhdr fuse: frames to a displayable image by exposure fusion.
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "align_frames.hpp"
#include "args.hpp"
#include "commands.hpp"
#include "library.hpp"
#include "image.hpp"
#include "outfile.hpp"
#include "platform.hpp"
#include "progress.hpp"
#include "quiet.hpp"
#include "picture_write.hpp"
#include "roads.hpp"

namespace olhdr {

const char* const kFuseHelp =
    "usage: olhdr fuse FRAME FRAME... -o OUT.tif [options]\n"
    "\n"
    "Blends bracketed exposures into one displayable image through weighted\n"
    "multiresolution pyramids, without a radiance picture between. The output\n"
    "keeps the first frame's ICC profile, GPS and IPTC data, and the Exif values\n"
    "all frames share. TIFF and PNG outputs may have 8 or 16-bit samples, JPEG 8.\n"
    "\n"
    "options:\n"
    "  -o, --out FILE         .tif/.tiff, .png or .jpg/.jpeg (required)\n"
    "  -b, --bits 8|16        output depth (default 8)\n"
    "      --strength S       weight sharpness, -10..10 (default 0)\n"
    "      --bias B           preference for brighter (B>0) or darker frames (default 0)\n"
    "      --highlight-cut C  above 0, gives no weight to the brightest samples (default 0)\n"
    "      --saturation S     colour saturation change, -10..10 (default 0)\n"
    "      --white-clip P     percent of the range cut at the top (default 0)\n"
    "      --black-clip P     percent of the range cut at the bottom (default 0)\n"
    "      --midtone M        midtone brightness, -20..20 (default 0)\n"
    "      --times LIST       exposure times in seconds, one a frame in the order\n"
    "                         given: 1/1000,1/250,1/60 (overrides Exif)\n"
    "      --times-file FILE  lines 'NAME TIME', one a frame (overrides Exif)\n"
    "  -j, --threads N        threads of the fusion (default: all cores)\n"
    "      --disk             keep the source, weights and weight pyramid in\n"
    "                         scratch files instead of memory (large stacks)\n"
    "      --scratch DIR      folder for those files (default $TMPDIR or /tmp);\n"
    "                         they are removed afterwards\n"
    "      --quality Q        JPEG quality 1..100 (default 92)\n"
    "      --dpi N            resolution written in a TIFF (default 300)\n"
    "      --method M         pyramid (the default): weighted Laplacian pyramids;\n"
    "                         two: a one-pass blend of the darkest and the\n"
    "                         brightest frame as `olhdr rank` orders them (by the\n"
    "                         mean level of the pixels that are neither pure black\n"
    "                         nor pure white, so a mostly clipped frame can rank\n"
    "                         below a shorter exposure): highlights from the dark\n"
    "                         one under a blurred mask of its levels, the rest\n"
    "                         from the bright one;\n"
    "                         intensive: a one-pass weighted mean of all frames,\n"
    "                         each weighted by how far its surroundings lie from\n"
    "                         mid-grey (a window of radius max(W,H)/100 sampled\n"
    "                         every radius/4 pixels; slow). --strength and\n"
    "                         --saturation steer it too; the other weight options,\n"
    "                         --times, --disk and --deghost are for the pyramid\n"
    "      --crop X,Y,W,H     keep only this rectangle of the output (pixels)\n"
    "      --rotate DEG       turn the output 90, 180 or 270 degrees clockwise\n"
    "                         (after the crop; the Exif orientation is kept)\n"
    "      --compress S       fuse at 16 bits and bring the result to 8 bits under\n"
    "                         a luminance mask, shadows lifted (as `olhdr compress`)\n"
    "      --contrast C       S-shaped contrast curve on the output, 0..0.95\n"
    "      --sharpen AMOUNT   3x3 Laplacian sharpening of the output, -1..4\n"
    "                         (negative softens)\n"
    "      --align            bring handheld frames into register first (whole-\n"
    "                         pixel shifts); the image is cropped to the part\n"
    "                         all frames cover\n"
    "      --keep-size        with --align: keep the frame size (uncovered\n"
    "                         margins are white)\n"
    "      --deghost          find where frames disagree because something moved\n"
    "                         and fill those regions from the middle exposure\n"
    "                         alone (for an even count the darker middle one)\n"
    "      --ghost-threshold T with --deghost: how far a frame may stray from\n"
    "                         its neighbour's prediction, on the 8-bit scale\n"
    "                         (default 20; lower marks more)\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

int cmdFuse(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"out", 'o', true}, {"bits", 'b', true},
                           {"strength", 0, true}, {"bias", 0, true}, {"highlight-cut", 0, true},
                           {"saturation", 0, true}, {"white-clip", 0, true}, {"black-clip", 0, true},
                           {"midtone", 0, true}, {"threads", 'j', true}, {"disk", 0, false},
                           {"scratch", 0, true}, {"quality", 0, true}, {"dpi", 0, true},
                           {"times", 0, true}, {"times-file", 0, true},
                           {"crop", 0, true}, {"rotate", 0, true}, {"method", 0, true},
                           {"compress", 0, true}, {"contrast", 0, true}, {"sharpen", 0, true},
                           {"align", 0, false}, {"deghost", 0, false}, {"keep-size", 0, false},
                           {"ghost-threshold", 0, true}});
    if (printHelpIfAsked(args, kFuseHelp)) return kExitOk;
    const Common common = commonOptions(args);
    FuseRequest req;
    req.frames = args.positional();
    req.out = args.text("out", "");
    req.bits = args.integer("bits", 8, 8, 16);
    if (req.bits != 8 && req.bits != 16) throw Failure(kExitUsage, "option --bits: 8 or 16");
    req.params[0] = static_cast<float>(args.number("strength", 0, -10, 10));
    req.params[1] = static_cast<float>(args.number("bias", 0, -10, 10));
    req.params[2] = static_cast<float>(args.number("highlight-cut", 0, 0, 10));
    req.params[3] = static_cast<float>(args.number("saturation", 0, -10, 10));
    req.params[4] = static_cast<float>(args.number("white-clip", 0, 0, 49));
    req.params[5] = static_cast<float>(args.number("black-clip", 0, 0, 49));
    req.params[6] = static_cast<float>(args.number("midtone", 0, -20, 20));
    req.threads = args.integer("threads", 0, 1, 256);
    req.disk = args.has("disk");
    req.scratch = args.text("scratch", "");
    req.quality = args.integer("quality", 92, 1, 100);
    req.dpi = args.integer("dpi", 300, 1, 100000);
    req.transform = parseTransform(args);
    req.method = args.text("method", "pyramid");
    if (req.method != "pyramid" && req.method != "two" && req.method != "intensive")
        throw Failure(kExitUsage, "option --method: pyramid, two or intensive, not '" + req.method + "'");
    if (req.method != "pyramid") {
        for (const char* o : {"bias", "highlight-cut", "white-clip", "black-clip", "midtone", "threads", "disk", "scratch",
                              "deghost", "times", "times-file"})
            if (args.has(o)) throw Failure(kExitUsage, std::string("--") + o + " goes with --method pyramid");
        if (req.method == "two" && (args.has("strength") || args.has("saturation")))
            throw Failure(kExitUsage, "--method two takes neither --strength nor --saturation");
    }
    req.compress = args.integer("compress", -1, 0, 100);
    req.contrast = static_cast<float>(args.number("contrast", 0, 0, 0.95));
    req.sharpen = static_cast<float>(args.number("sharpen", 0, -1, 4));
    if (req.compress >= 0 && args.has("bits") && req.bits != 8)
        throw Failure(kExitUsage, "--compress makes an 8-bit output: leave out --bits 16");
    req.align = args.has("align");
    req.keepSize = args.has("keep-size");
    req.deghost = args.has("deghost");
    req.ghostThreshold = args.integer("ghost-threshold", kGhostThreshold, 0, 765);
    if (req.keepSize && !req.align) throw Failure(kExitUsage, "--keep-size goes with --align");
    if (args.has("ghost-threshold") && !req.deghost) throw Failure(kExitUsage, "--ghost-threshold goes with --deghost");
    requireFramesAndOutput(args, "fuse", "OUT.tif");
    const GivenTimes times = givenTimes(args, req.frames);
    req.times = times.seconds;
    req.timesSource = times.source;
    Progress progress(!common.quiet, 2);
    runFuse(req, common, progress);
    return kExitOk;
}

namespace {

// A scratch folder for the disk mode, removed with its files at the end.
class ScratchFolder {
public:
    explicit ScratchFolder(const std::string& parent) {
        std::string base = parent;
        if (base.empty()) base = platform::tempFolder();
        std::string templ = (std::filesystem::path(base) / "olhdr-fuse-XXXXXX").string();
        if (!platform::makeTempFolder(templ))
            throw Failure(kExitOutput, base + ": cannot make a scratch folder: " + std::strerror(errno));
        path_ = templ;
        slots_.push_back(registerCleanup(path_, true));
    }
    ~ScratchFolder() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
        for (int s : slots_) unregisterCleanup(s);
    }
    std::string file(const char* name) {
        const std::string f = (std::filesystem::path(path_) / name).string();
        slots_.push_back(registerCleanup(f, false));
        return f;
    }

private:
    std::string path_;
    std::vector<int> slots_;
};

void fusionProgress(float fraction, int32_t* cancel) {
    (void)cancel;  // a fusion cannot be cancelled
    if (Progress::current) Progress::current->update(fraction);
}

// The one-pass blends of --method two and intensive, into a packed RGB image
// of `bits` bits. `how` receives the words of the report line.
Image blendFrames(const FuseRequest& req, const FrameSet& frames, int bits, bool verbose, std::string& how) {
    const int w = frames.width, h = frames.height, n = frames.count();
    // Both blends write 16-bit samples for 16-bit frames, whatever the output
    // depth asks (16-bit input with 8-bit output would saturate in the
    // intensive blend): blend at 16 and keep the top bytes afterwards.
    Image out;
    out.width = w;
    out.height = h;
    out.spp = 3;
    out.bps = frames.bps == 16 ? 16 : bits;
    out.pixels.resize(out.byteCount());
    int r;
    if (req.method == "two") {
        // The darkest and the brightest frame as rankvig orders them (it
        // takes 8-bit levels: 16-bit frames by their top bytes).
        std::vector<std::uint8_t> levels;
        const std::uint8_t* block8 = frames.block.data();
        if (frames.bps == 16) {
            levels.resize(frames.block.size() / 2);
            for (std::size_t i = 0; i < levels.size(); ++i) levels[i] = frames.block[2 * i + 1];
            block8 = levels.data();
        }
        std::vector<int> order(n), stops(n);
        LibraryOutput quiet(verbose);
        rankvig(n, w, h, w * 3, 3, block8, order.data(), stops.data());
        const int dark = order[n - 1], bright = order[0];
        levels = {};
        r = ol_combi_2images(0, dark, bright, w, h, w * 3, 0, frames.bps, out.bps, 3, frames.block.data(),
                             out.pixels.data());
        how = "two-image blend of " + std::filesystem::path(frames.paths[dark]).filename().string() + " (dark) and " +
              std::filesystem::path(frames.paths[bright]).filename().string() + " (bright)";
    } else {
        // A window of about a hundredth of the picture, 2 radius / step + 1
        // samples a side (9 for large pictures).
        const int radius = std::max(1, std::max(w, h) / 100), step = std::max(1, radius / 4);
        LibraryOutput quiet(verbose);
        r = ol_combi_intensive(step, radius, req.params[0], req.params[3], n, w, h, w * 3, 0, 3, frames.bps, out.bps,
                               frames.block.data(), out.pixels.data());
        how = "intensive blend, radius " + std::to_string(radius) + " step " + std::to_string(step);
    }
    if (r == -4) throw Failure(kExitProcessing, "out of memory while blending");
    if (r < 0) throw Failure(kExitProcessing, "the blend failed (code " + std::to_string(r) + ")");
    if (out.bps != bits) out = to8Bit(out);
    return out;
}

}  // namespace

void runFuse(const FuseRequest& req, const Common& common, Progress& progress) {
    const std::string ext = extensionOf(req.out);
    const bool tiff = ext == "tif" || ext == "tiff";
    const bool png = ext == "png";
    const bool jpeg = ext == "jpg" || ext == "jpeg";
    if (!tiff && !png && !jpeg) throw Failure(kExitUsage, req.out + ": the output is a .tif, .png or .jpg file");
    if (jpeg && req.bits != 8) throw Failure(kExitUsage, "a JPEG output has 8-bit samples (--bits 8)");
    checkWritable(req.out);
    refuseInputsAsOutputs({req.out}, req.frames);

    progress.stage("reading frames", 0.25);
    FrameSet frames = loadFrameSet(req.frames, common.verbose, progress);
    std::vector<std::pair<int, int>> shifts;
    if (req.align) {
        progress.stage("aligning", 0.1);
        shifts = alignFrames(frames, req.keepSize, common.verbose);
    }
    req.transform.check(frames.width, frames.height);  // on the aligned size, before the long work
    const int w = frames.width, h = frames.height, n = frames.count();
    if (tiff && (w > 65535 || h > 65535))
        throw Failure(kExitUsage, req.out + ": a TIFF output is limited to 65535 pixels a side; use .png");
    // Fewer than 4 pixels a side leave the pyramid without levels, and the
    // fusion writes nothing.
    if (std::min(w, h) < 4) throw Failure(kExitInput, req.frames[0] + ": frames need at least 4 pixels a side to fuse");
    const int fusedBits = req.compress >= 0 ? 16 : req.bits;
    Image out;
    std::string how;  // the report's words on the method
    double ghostShare = 0;
    int ghostFrame = -1;
    if (req.method != "pyramid") {
        progress.stage("blending", 0.6);
        out = blendFrames(req, frames, fusedBits, common.verbose, how);
        progress.update(1.0);
    } else {
        const Exposures exposures = frameExposures(frames, 0, req.times, req.timesSource, common.verbose);
        for (const auto& line : exposures.warnings) warn(line);

        progress.stage("fusing", 0.6);
        const int lenPyram = pyram_len(w, h);
        if (lenPyram < w * h) throw Failure(kExitProcessing, "image too large to fuse");
        // Left uninitialised: the fusion writes every sample it reads, and a
        // cleared 180 MB buffer (6000x4000) costs a pass over fresh pages.
        std::unique_ptr<std::uint16_t[]> work = std::make_unique_for_overwrite<std::uint16_t[]>(static_cast<std::size_t>(lenPyram) * 3);
        // With --deghost one mask plane: its regions take the middle exposure
        // alone (indexFixedExpo[0] names the frame that fills plane 0).
        std::vector<int> indexFixedExpo(n, -1);
        std::vector<std::uint8_t> ghostMask;
        if (req.deghost) {
            ghostMask = detectGhosts(frames, exposures.deltaT, req.ghostThreshold, common.verbose);
            ghostShare = markedShare(ghostMask, w, h);
            indexFixedExpo[0] = middleExposure(exposures.deltaT);
        }
        std::vector<float> exposureTimes = exposures.deltaT;
        float params[7];
        std::memcpy(params, req.params, sizeof params);
        const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
        std::unique_ptr<ScratchFolder> scratch;
        std::string nameSource, namePoids, namePyram;
        FusionFiles files{};
        files.nbProc = req.threads > 0 ? req.threads : static_cast<int>(cores);
        if (req.disk) {
        scratch = std::make_unique<ScratchFolder>(req.scratch);
        nameSource = scratch->file("source.raw");
        namePoids = scratch->file("weights.raw");
        namePyram = scratch->file("weight-pyramid.raw");
        files.readFromDisk = 1;
        files.nameSource = nameSource.c_str();
        files.namePoids = namePoids.c_str();
        files.namePyramPoids = namePyram.c_str();
        }
        int r;
        {
        LibraryOutput quiet(common.verbose);
        r = ol_fusion(&files, fusionProgress, params, n, w, h, w * 3, 0, 3, frames.bps, fusedBits, 16, 16,
                      lenPyram, 0, 1.0f, exposureTimes.data(), frames.block.data(), indexFixedExpo.data(),
                      req.deghost ? ghostMask.data() : nullptr, nullptr, work.get());
        }
        scratch.reset();
        // The library keeps small stacks of 8-bit frames in memory even when asked.
        const bool diskUsed = req.disk && (n >= 3 || frames.bps >= 16);
        if (r == -4) throw Failure(kExitProcessing, "out of memory while fusing (try --disk)");
        if (r == -2 || r == -3)
        throw Failure(kExitOutput, std::string("the fusion's scratch files could not be ") +
                                       (r == -2 ? "written" : "read back") + " in " +
                                       (req.scratch.empty() ? std::string("the temporary folder") : req.scratch) +
                                       " (is the disk full?)");
        if (r < 0) throw Failure(kExitProcessing, "the fusion failed (code " + std::to_string(r) + ")");
        progress.update(1.0);
        out.width = w;
        out.height = h;
        out.spp = 3;
        out.bps = fusedBits;
        out.pixels.resize(out.byteCount());
        std::memcpy(out.pixels.data(), work.get(), out.byteCount());
        // Both modes run the fusion on the host's threads (disk mode weighs
        // its rows by blocks, in bands, while the previous block is written).
        how = std::string(diskUsed ? "disk" : "memory") + " mode, " + counted(files.nbProc, "thread");
        ghostFrame = indexFixedExpo[0];
    }

    progress.stage("writing", 0.15);
    finishPicture(out, req.compress, req.contrast, req.sharpen, common.verbose);
    transformImage(req.transform, out);
    const Metadata& first = frames.meta[0];
    ExifRecord exif = sharedExif(frames);
    GpsRecord gps = first.gps;
    const int orientation = exif.orientation >= 1 && exif.orientation <= 8 ? exif.orientation : 1;
    writeAtomically(req.out, [&](const std::string& temp) {
        if (tiff) {
            tif_info info{};
            info.width = out.width;
            info.height = out.height;
            info.samples = 3;
            info.bits = req.bits;
            info.dpi = req.dpi;
            info.lProfil = static_cast<int32_t>(first.icc.size());
            info.mode = 0;
            info.orientation = orientation;
            const float tmParams[16] = {};
            int t;
            {
                LibraryOutput quiet(common.verbose);
                t = buf2tifOld(out.pixels.data(), &info, static_cast<int>(out.rowBytes()),
                               first.icc.empty() ? nullptr : first.icc.data(), &exif, &gps,
                               static_cast<int>(first.iptc.size()), first.iptc.empty() ? nullptr : first.iptc.data(),
                               0, tmParams, temp.c_str());
            }
            if (t < 0) throw Failure(kExitOutput, req.out + ": " + writeFailure(t));
            return;
        }
        std::vector<std::uint8_t> block;
        {
            LibraryOutput quiet(common.verbose);
            block = exifBlock(exif, gps, orientation);
        }
        if (png)
            writePng(temp, out, block, first.icc);
        else
            writeJpeg(temp, out, req.quality, block, first.icc);
    });
    progress.finish();

    char line[512];
    std::snprintf(line, sizeof line, "wrote %s: %dx%d %d-bit %s fused from %s (%s)", req.out.c_str(), out.width,
                  out.height, req.bits, tiff ? "TIFF" : png ? "PNG" : "JPEG", counted(n, "frame").c_str(), how.c_str());
    report(common, line);
    if (req.transform.any()) report(common, "  " + req.transform.text());
    std::string finish;
    if (req.compress >= 0) finish += ", fused at 16 bits and compressed (strength " + std::to_string(req.compress) + ")";
    if (req.contrast != 0.0f || req.sharpen != 0.0f) {
        std::snprintf(line, sizeof line, "%s%.3g", req.contrast != 0.0f ? ", contrast " : ", sharpened ",
                      req.contrast != 0.0f ? req.contrast : req.sharpen);
        finish += line;
        if (req.contrast != 0.0f && req.sharpen != 0.0f) {
            std::snprintf(line, sizeof line, ", sharpened %.3g", req.sharpen);
            finish += line;
        }
    }
    if (!finish.empty()) report(common, "  finished:" + finish.substr(1));
    if (req.align) report(common, "  " + alignedLine(shifts, frames, req.keepSize));
    if (req.deghost) report(common, "  " + ghostLine(ghostShare, req.ghostThreshold, ghostFrame));
    std::string kept;
    if (!first.icc.empty()) kept += " ICC profile" + (first.profileName.empty() ? "" : " '" + first.profileName + "'");
    if (exif.camera[0] || exif.date[0] || exif.exposureNum > 0 || exif.iso > 0 || exif.focalNum > 0) kept += " Exif";
    if (gps.lat_ref || gps.latitude[0]) kept += " GPS";
    if (!first.iptc.empty()) kept += " IPTC";
    if (!kept.empty()) report(common, "  kept:" + kept);
}

}  // namespace olhdr
