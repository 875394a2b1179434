// olhdr panorama: a mirror-ball picture to a latitude-longitude panorama
// twice as wide as the ball picture and as high (remap_ldr / remap_hdr).
#include <cstdio>

#include "args.hpp"
#include "commands.hpp"
#include "library.hpp"
#include "outfile.hpp"
#include "picture_write.hpp"
#include "quiet.hpp"

namespace olhdr {

const char* const kPanoramaHelp =
    "usage: olhdr panorama BALL -o OUT [--mode nearest|bilinear|spline16]\n"
    "\n"
    "Turns a photograph of a mirrored sphere into a latitude-longitude panorama\n"
    "for image-based lighting. The sphere must fill the picture: its rim touches\n"
    "the four edges (crop it so first). The panorama is twice as wide as the\n"
    "picture and as high. A Radiance picture gives a Radiance panorama; an 8 or\n"
    "16-bit JPEG, PNG, TIFF or PSD gives a picture of the same depth.\n"
    "\n"
    "options:\n"
    "  -o, --out FILE    .hdr for a Radiance ball; .tif, .png or .jpg otherwise\n"
    "      --mode M      nearest, bilinear or spline16 (default bilinear)\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

int cmdPanorama(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"out", 'o', true}, {"mode", 0, true}});
    if (printHelpIfAsked(args, kPanoramaHelp)) return kExitOk;
    const Common common = commonOptions(args);
    const std::string modeName = args.text("mode", "bilinear");
    const int mode = modeName == "nearest" ? 0 : modeName == "bilinear" ? 1 : modeName == "spline16" ? 2 : -1;
    if (mode < 0) throw Failure(kExitUsage, "option --mode: nearest, bilinear or spline16");
    if (args.positional().size() != 1) throw Failure(kExitUsage, "give one mirror-ball picture (olhdr panorama --help)");
    const std::string in = args.positional()[0], out = args.text("out", "");
    if (out.empty()) throw Failure(kExitUsage, "no output given: -o OUT");
    const std::string ext = extensionOf(out);
    const bool radianceOut = ext == "hdr" || ext == "pic" || ext == "rgbe";
    const bool radianceIn = sniff(in) == FileKind::Radiance;
    if (radianceIn && !radianceOut)
        throw Failure(kExitUsage, out + ": a Radiance ball gives a Radiance panorama (.hdr)");
    if (!radianceIn && radianceOut)
        throw Failure(kExitUsage, out + ": an 8 or 16-bit ball gives a .tif, .png or .jpg panorama");
    checkWritable(out);
    refuseInputsAsOutputs({out}, {in});

    int w = 0, h = 0, bits = 32;
    std::string format = "Radiance";
    if (radianceIn) {
        const RadianceFile info = readRadianceHeader(in, common.verbose);
        w = info.width, h = info.height;
        if (w > (1 << 29) / h) throw Failure(kExitInput, in + ": too large for a panorama");
        const std::vector<std::uint8_t> src = readRadiancePixels(in, info, common.verbose);
        std::vector<std::uint8_t> dst(static_cast<std::size_t>(w) * 2 * h * 4);
        {
            LibraryOutput quiet(common.verbose);
            remap_hdr(mode, w, h, src.data(), dst.data());
        }
        ExifRecord exif = info.exif;
        writeAtomically(out, [&](const std::string& temp) {
            int r;
            {
                LibraryOutput quiet(common.verbose);
                r = ol_io_rgbe_write(temp.c_str(), 2 * w, h, &exif, nullptr, "", dst.data());
            }
            if (r == -4) throw Failure(kExitProcessing, out + ": out of memory while writing");
            if (r != h) throw Failure(kExitOutput, out + ": " + writeFailure(r));
        });
    } else {
        Frame f = loadFrame(in, common.verbose);
        w = f.image.width, h = f.image.height, bits = f.image.bps;
        checkPictureName(out, bits);
        Image dst;
        dst.width = 2 * w;
        dst.height = h;
        dst.spp = 3;
        dst.bps = bits;
        dst.pixels.assign(dst.byteCount(), 0);
        {
            LibraryOutput quiet(common.verbose);
            remap_ldr(mode, bits, w, h, w * 3, 2 * w * 3, 3, f.image.pixels.data(), dst.pixels.data());
        }
        format = std::to_string(bits) + "-bit " + writePicture(out, dst, f.meta, 1, common);
    }
    if (w != h) warn(in + " is " + std::to_string(w) + "x" + std::to_string(h) +
                     ": the ball is taken to fill it, an ellipse here; crop it square");
    char line[512];
    std::snprintf(line, sizeof line, "wrote %s: %dx%d %s panorama from a %dx%d mirror ball (%s)", out.c_str(),
                  2 * w, h, format.c_str(), w, h, modeName.c_str());
    report(common, line);
    return kExitOk;
}

}  // namespace olhdr
