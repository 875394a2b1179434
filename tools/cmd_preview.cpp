// olhdr preview: a screen-size picture of any input, made by the library's
// nearest-neighbour resampling (photos) and its decimated preview of rgbe
// planes followed by the host's photographic tone mapping (Radiance).
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "args.hpp"
#include "commands.hpp"
#include "outfile.hpp"
#include "picture.hpp"
#include "quiet.hpp"
#include "tonemap.hpp"

namespace olhdr {

const char* const kPreviewHelp =
    "usage: olhdr preview IN -o OUT.jpg|png [--max-size N]\n"
    "\n"
    "Writes a preview of IN (JPEG, PNG, TIFF, PSD or Radiance) that fits in N x N\n"
    "pixels, keeping the proportions; a smaller picture keeps its size. Photos are\n"
    "resampled nearest-neighbour (no smoothing) to 8 bits. A Radiance picture is\n"
    "first decimated to the halving level just above the size, tone mapped as\n"
    "merge's photographic preview, then resampled.\n"
    "\n"
    "options:\n"
    "  -o, --out FILE      the JPEG or PNG to write (required)\n"
    "      --max-size N    the longer side at most N pixels (default 1024)\n"
    "      --quality Q     JPEG quality (default 90)\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

namespace {

// The size that fits in maxSize x maxSize with the proportions of w x h.
void fitSize(int w, int h, int maxSize, int& ow, int& oh) {
    if (w <= maxSize && h <= maxSize) {
        ow = w;
        oh = h;
        return;
    }
    const double scale = static_cast<double>(maxSize) / std::max(w, h);
    ow = std::clamp(static_cast<int>(std::lround(w * scale)), 1, maxSize);
    oh = std::clamp(static_cast<int>(std::lround(h * scale)), 1, maxSize);
}

// 8-bit red-first pixels of w x h resized to ow x oh by the library.
Image resample8(const Image& src, int ow, int oh) {
    Image out;
    out.width = ow;
    out.height = oh;
    out.spp = 3;
    out.bps = 8;
    out.pixels.resize(out.byteCount());
    int r;
    if (src.bps == 8) {
        r = retaille(src.width, src.height, src.width * 3, ow, oh, ow * 3, 3, src.pixels.data(), out.pixels.data());
    } else {
        // zoom2 walks both axes with one step; the longer side sets it, so
        // the last column read stays inside the row.
        const float step = src.width >= src.height ? static_cast<float>(src.width) / static_cast<float>(ow)
                                                   : static_cast<float>(src.height) / static_cast<float>(oh);
        r = zoom2(step, 0, src.height, src.width * 3, ow, oh, ow * 3, 3, 16, src.pixels.data(), out.pixels.data());
    }
    if (r != oh) throw Failure(kExitProcessing, "the resampling failed (code " + std::to_string(r) + ")");
    return out;
}

// Rgbe planes decimated by the library to the smallest halving level that
// is still at least maxSize on its longer side (or the source itself).
std::vector<std::uint8_t> decimate(const std::vector<std::uint8_t>& planes, int& w, int& h, int maxSize,
                                   bool verbose) {
    const int levels = static_cast<int>(std::log((static_cast<double>(w) + h) * 0.5) / std::log(2.0));
    int lw = w, lh = h, bw = w, bh = h;
    for (int k = 0; k < levels && lw > 3 && lh > 3; ++k) {
        lw = (lw + 1) / 2;
        lh = (lh + 1) / 2;
        if (std::max(lw, lh) < maxSize || lw < 5 || lh < 5) break;
        bw = lw;
        bh = lh;
    }
    if (bw == w && bh == h) return planes;
    std::vector<std::uint8_t> out(static_cast<std::size_t>(bw) * bh * 4);
    int r;
    {
        LibraryOutput quiet(verbose);
        r = extract_basepreview(32, w, h, 4, w * 4, bw, bh, 0, planes.data(), nullptr, out.data());
    }
    if (r != bh) throw Failure(kExitProcessing, "the decimated preview failed (code " + std::to_string(r) + ")");
    w = bw;
    h = bh;
    return out;
}

}  // namespace

int cmdPreview(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"out", 'o', true}, {"max-size", 0, true}, {"quality", 0, true}});
    if (printHelpIfAsked(args, kPreviewHelp)) return kExitOk;
    const Common common = commonOptions(args);
    const int maxSize = args.integer("max-size", 1024, 1, 65535);
    const int quality = args.integer("quality", 90, 1, 100);
    if (args.positional().empty()) throw Failure(kExitUsage, "no input given (olhdr preview --help)");
    if (args.positional().size() > 1) throw Failure(kExitUsage, "one input at a time");
    const std::string in = args.positional()[0];
    const std::string out = args.text("out", "");
    if (out.empty()) throw Failure(kExitUsage, "no output given: -o OUT.jpg");
    const std::string ext = extensionOf(out);
    if (ext != "jpg" && ext != "jpeg" && ext != "png")
        throw Failure(kExitUsage, out + ": a preview is a .jpg or .png file");
    checkWritable(out);
    refuseInputsAsOutputs({out}, {in});

    const Picture pic = loadPicture(in, common.verbose);
    int ow, oh;
    fitSize(pic.width, pic.height, maxSize, ow, oh);
    Image img;
    if (pic.radiance()) {
        int w = pic.width, h = pic.height;
        const std::vector<std::uint8_t> small = decimate(pic.rgbe, w, h, maxSize, common.verbose);
        img = photographicPreview(small, w, h);
        if (w != ow || h != oh) img = resample8(img, ow, oh);
    } else {
        img = resample8(pic.photo, ow, oh);
    }
    writeAtomically(out, [&](const std::string& temp) {
        if (ext == "png")
            writePng(temp, img, {}, pic.meta.icc);
        else
            writeJpeg(temp, img, quality, {}, pic.meta.icc);
    });
    report(common, "wrote " + out + ": " + std::to_string(ow) + "x" + std::to_string(oh) + " preview of " + in +
                       " (" + pictureText(pic) + ")");
    return kExitOk;
}

}  // namespace olhdr
