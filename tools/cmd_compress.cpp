// olhdr compress: a 16-bit picture to 8 bits under the library's luminance
// mask compressor (comp16), its shadows lifted.
#include <cstdio>

#include "args.hpp"
#include "commands.hpp"
#include "library.hpp"
#include "outfile.hpp"
#include "picture_write.hpp"
#include "quiet.hpp"

namespace olhdr {

const char* const kCompressHelp =
    "usage: olhdr compress IN16 -o OUT8 [--strength S]\n"
    "\n"
    "Brings a 16-bit TIFF, PNG or PSD to 8 bits. Each sample blends its plain top\n"
    "byte with a power curve of its full value, the blend following a blurred\n"
    "luminance mask: dark surroundings take the curve (shadows lifted), bright\n"
    "ones keep the top byte. The output keeps the ICC profile and Exif.\n"
    "\n"
    "options:\n"
    "  -o, --out FILE    .tif, .png or .jpg (8-bit; required)\n"
    "      --strength S  0..100 (default 0): the curve's exponent is 0.5 + S/100,\n"
    "                    so 0 lifts the shadows most (square root) and 50 not at all\n"
    "  -q, --quiet  -v, --verbose  -h, --help\n";

int cmdCompress(const std::vector<std::string>& argv) {
    const Args args(argv, {OLHDR_COMMON_OPTIONS, {"out", 'o', true}, {"strength", 0, true}});
    if (printHelpIfAsked(args, kCompressHelp)) return kExitOk;
    const Common common = commonOptions(args);
    const int strength = args.integer("strength", 0, 0, 100);
    if (args.positional().size() != 1) throw Failure(kExitUsage, "give one 16-bit picture (olhdr compress --help)");
    const std::string in = args.positional()[0], out = args.text("out", "");
    if (out.empty()) throw Failure(kExitUsage, "no output given: -o OUT.tif");
    checkPictureName(out, 8);
    checkWritable(out);
    refuseInputsAsOutputs({out}, {in});

    Frame f = loadFrame(in, common.verbose);
    if (f.image.bps != 16)
        throw Failure(kExitInput, in + ": has " + std::to_string(f.image.bps) +
                                      "-bit samples; compress takes a 16-bit TIFF, PNG or PSD");
    const int w = f.image.width, h = f.image.height;
    Image dst;
    dst.width = w;
    dst.height = h;
    dst.spp = 3;
    dst.bps = 8;
    dst.pixels.resize(dst.byteCount());
    int r;
    {
        LibraryOutput quiet(common.verbose);
        r = comp16(strength, w, h, w * 3, 3, reinterpret_cast<const std::uint16_t*>(f.image.pixels.data()),
                   dst.pixels.data());
    }
    if (r == -4) throw Failure(kExitProcessing, "out of memory while compressing");
    if (r != h) throw Failure(kExitProcessing, "the compression failed (code " + std::to_string(r) + ")");
    const int orientation = f.meta.exif.orientation >= 1 && f.meta.exif.orientation <= 8 ? f.meta.exif.orientation : 1;
    const std::string format = writePicture(out, dst, f.meta, orientation, common);
    char line[512];
    std::snprintf(line, sizeof line, "wrote %s: %dx%d 8-bit %s from 16 bits, strength %d", out.c_str(), w, h,
                  format.c_str(), strength);
    report(common, line);
    return kExitOk;
}

}  // namespace olhdr
