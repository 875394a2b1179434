// Writing one picture by its name's extension, keeping its metadata.
#include "picture_write.hpp"

#include "commands.hpp"
#include "outfile.hpp"
#include "quiet.hpp"

namespace olhdr {

void checkPictureName(const std::string& target, int bits) {
    const std::string ext = extensionOf(target);
    const bool jpeg = ext == "jpg" || ext == "jpeg";
    if (ext != "tif" && ext != "tiff" && ext != "png" && !jpeg)
        throw Failure(kExitUsage, target + ": the output is a .tif, .png or .jpg file");
    if (jpeg && bits != 8)
        throw Failure(kExitUsage, target + ": a JPEG holds 8-bit samples; name a .tif or .png for 16 bits");
}

std::string writePicture(const std::string& target, const Image& image, const Metadata& meta,
                         int orientation, const Common& common) {
    const std::string ext = extensionOf(target);
    const bool tiff = ext == "tif" || ext == "tiff";
    const bool png = ext == "png";
    writeAtomically(target, [&](const std::string& temp) {
        if (tiff) {
            tif_info info{};
            info.width = image.width;
            info.height = image.height;
            info.samples = image.spp;
            info.bits = image.bps;
            info.dpi = 300;
            info.lProfil = static_cast<int32_t>(meta.icc.size());
            info.mode = 0;
            info.orientation = orientation;
            const float tmParams[16] = {};
            int t;
            {
                LibraryOutput quiet(common.verbose);
                t = buf2tifOld(image.pixels.data(), &info, static_cast<int>(image.rowBytes()),
                               meta.icc.empty() ? nullptr : meta.icc.data(), &meta.exif, &meta.gps,
                               static_cast<int>(meta.iptc.size()), meta.iptc.empty() ? nullptr : meta.iptc.data(),
                               0, tmParams, temp.c_str());
            }
            if (t < 0) throw Failure(kExitOutput, target + ": " + writeFailure(t));
            return;
        }
        std::vector<std::uint8_t> block;
        {
            LibraryOutput quiet(common.verbose);
            block = exifBlock(meta.exif, meta.gps, orientation);
        }
        if (png)
            writePng(temp, image, block, meta.icc);
        else
            writeJpeg(temp, image, 92, block, meta.icc);
    });
    return tiff ? "TIFF" : png ? "PNG" : "JPEG";
}

void finishPicture(Image& image, int compress, float contrast, float sharpenAmount, bool verbose) {
    const int w = image.width, h = image.height, stride = w * image.spp;
    LibraryOutput quiet(verbose);
    if (compress >= 0 && image.bps == 16) {
        std::vector<std::uint8_t> dst(static_cast<std::size_t>(w) * h * image.spp);
        const int r = comp16(compress, w, h, stride, image.spp,
                             reinterpret_cast<const std::uint16_t*>(image.pixels.data()), dst.data());
        if (r == -4) throw Failure(kExitProcessing, "out of memory while compressing to 8 bits");
        image.pixels.swap(dst);
        image.bps = 8;
    }
    if (contrast != 0.0f) lumcontr(contrast, 0, image.bps, w, h, stride, image.spp, image.pixels.data());
    if (sharpenAmount != 0.0f) {
        std::vector<std::uint8_t> dst(image.pixels.size());
        if (image.bps == 8)
            sharpen(sharpenAmount, w, h, stride, image.spp, image.pixels.data(), dst.data());
        else
            sharp16(sharpenAmount, w, h, stride, image.spp, reinterpret_cast<const std::uint16_t*>(image.pixels.data()),
                    reinterpret_cast<std::uint16_t*>(dst.data()));
        image.pixels.swap(dst);
    }
}

}  // namespace olhdr
