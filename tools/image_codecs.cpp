// Decoders and encoders on the system's image libraries. Every failure is
// turned into one line that names the file; libjpeg and libpng report errors
// through longjmp, which never crosses a C++ object with a destructor here:
// the buffers live outside the setjmp frames.
#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include <jpeglib.h>
#include <jerror.h>
#include <png.h>
#include <tiffio.h>

#include "cli.hpp"
#include "image.hpp"

namespace olhdr {

namespace {

[[noreturn]] void badInput(const std::string& path, const std::string& why) {
    throw Failure(kExitInput, path + ": " + why);
}
[[noreturn]] void badOutput(const std::string& path, const std::string& why) {
    throw Failure(kExitOutput, path + ": " + why);
}

struct FileCloser {
    void operator()(std::FILE* f) const {
        if (f) std::fclose(f);
    }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

FilePtr openOrFail(const std::string& path) {
    FilePtr f(std::fopen(path.c_str(), "rb"));
    if (!f) badInput(path, std::string("cannot open: ") + std::strerror(errno));
    return f;
}

// Guards against sizes whose buffers could not exist.
void checkSize(const std::string& path, long w, long h) {
    if (w < 1 || h < 1) badInput(path, "image has no pixels");
    if (w > 65535 * 4 || h > 65535 * 4 || static_cast<double>(w) * h > 1.2e9)
        badInput(path, "image of " + std::to_string(w) + "x" + std::to_string(h) + " is too large");
}

}  // namespace

FileKind sniff(const std::string& path) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) return FileKind::Directory;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return FileKind::Missing;
    unsigned char b[8] = {};
    const std::size_t n = std::fread(b, 1, sizeof b, f);
    std::fclose(f);
    if (n >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF) return FileKind::Jpeg;
    if (n >= 8 && std::memcmp(b, "\x89PNG\r\n\x1a\n", 8) == 0) return FileKind::Png;
    if (n >= 4 && ((b[0] == 'I' && b[1] == 'I' && (b[2] == 42 || b[2] == 43) && b[3] == 0) ||
                   (b[0] == 'M' && b[1] == 'M' && b[2] == 0 && (b[3] == 42 || b[3] == 43))))
        return FileKind::Tiff;
    if (n >= 4 && std::memcmp(b, "8BPS", 4) == 0) return FileKind::Psd;
    if (n >= 2 && b[0] == '#' && b[1] == '?') return FileKind::Radiance;
    return FileKind::Unknown;
}

const char* kindName(FileKind kind) {
    switch (kind) {
        case FileKind::Jpeg: return "JPEG";
        case FileKind::Png: return "PNG";
        case FileKind::Tiff: return "TIFF";
        case FileKind::Psd: return "PSD";
        case FileKind::Radiance: return "Radiance";
        case FileKind::Missing: return "missing";
        case FileKind::Directory: return "directory";
        default: return "unknown";
    }
}

// ---------------------------------------------------------------------------
// JPEG

namespace {
struct JpegError {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
    bool truncated;
};

void jpegErrorExit(j_common_ptr cinfo) {
    auto* err = reinterpret_cast<JpegError*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}
void jpegSilence(j_common_ptr, int) {}
// libjpeg only warns about data that ends early and pads the picture with
// grey; a frame cut short is damaged input here.
void jpegNoteTruncation(j_common_ptr cinfo, int level) {
    if (level < 0 && cinfo->err->msg_code == JWRN_JPEG_EOF)
        reinterpret_cast<JpegError*>(cinfo->err)->truncated = true;
}
}  // namespace

Image readJpeg(const std::string& path) {
    FilePtr file = openOrFail(path);
    Image img;
    img.spp = 3;
    img.bps = 8;
    jpeg_decompress_struct cinfo;
    JpegError err;
    std::memset(&cinfo, 0, sizeof cinfo);
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = jpegErrorExit;
    err.mgr.emit_message = jpegNoteTruncation;
    err.message[0] = 0;
    err.truncated = false;
    JOCTET* icc = nullptr;
    unsigned iccLen = 0;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&cinfo);
        badInput(path, std::string("not a readable JPEG file (") + err.message + ")");
    }
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, file.get());
    jpeg_save_markers(&cinfo, JPEG_APP0 + 2, 0xFFFF);
    jpeg_read_header(&cinfo, TRUE);
    checkSize(path, cinfo.image_width, cinfo.image_height);
    if (cinfo.num_components != 1 && cinfo.num_components != 3)
        badInput(path, "CMYK and other non-RGB JPEG files are not supported");
    cinfo.out_color_space = JCS_RGB;
    if (jpeg_read_icc_profile(&cinfo, &icc, &iccLen) && icc) {
        img.icc.assign(icc, icc + iccLen);
        std::free(icc);
        icc = nullptr;
    }
    jpeg_start_decompress(&cinfo);
    img.width = static_cast<int>(cinfo.output_width);
    img.height = static_cast<int>(cinfo.output_height);
    img.pixels.resize(img.byteCount());
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = img.pixels.data() + img.rowBytes() * cinfo.output_scanline;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    if (err.truncated) badInput(path, "damaged JPEG file (the data ends early)");
    return img;
}

void writeJpeg(const std::string& path, const Image& image, int quality,
               const std::vector<std::uint8_t>& exifTiff, const std::vector<std::uint8_t>& icc) {
    const Image img8 = image.bps == 8 ? image : to8Bit(image);
    if (img8.spp != 3 && img8.spp != 1) badOutput(path, "JPEG needs 1 or 3 samples a pixel");
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) badOutput(path, std::string("cannot create: ") + std::strerror(errno));
    FilePtr file(f);
    jpeg_compress_struct cinfo;
    JpegError err;
    std::memset(&cinfo, 0, sizeof cinfo);
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = jpegErrorExit;
    err.mgr.emit_message = jpegSilence;
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&cinfo);
        badOutput(path, std::string("JPEG encoding failed (") + err.message + ")");
    }
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, file.get());
    cinfo.image_width = static_cast<JDIMENSION>(img8.width);
    cinfo.image_height = static_cast<JDIMENSION>(img8.height);
    cinfo.input_components = img8.spp;
    cinfo.in_color_space = img8.spp == 3 ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    if (!exifTiff.empty() && exifTiff.size() + 6 <= 65533) {
        std::vector<std::uint8_t> app1 = {'E', 'x', 'i', 'f', 0, 0};
        app1.insert(app1.end(), exifTiff.begin(), exifTiff.end());
        jpeg_write_marker(&cinfo, JPEG_APP0 + 1, app1.data(), static_cast<unsigned>(app1.size()));
    }
    if (!icc.empty()) jpeg_write_icc_profile(&cinfo, icc.data(), static_cast<unsigned>(icc.size()));
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(img8.pixels.data() + img8.rowBytes() * cinfo.next_scanline);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    if (std::fflush(file.get()) != 0 || std::ferror(file.get()))
        badOutput(path, std::string("write failed: ") + std::strerror(errno));
    std::FILE* raw = file.release();
    if (std::fclose(raw) != 0) badOutput(path, std::string("write failed: ") + std::strerror(errno));
}

// ---------------------------------------------------------------------------
// PNG

namespace {
struct PngJump {
    std::jmp_buf jump;
    char message[200];
};
void pngError(png_structp png, png_const_charp msg) {
    auto* j = static_cast<PngJump*>(png_get_error_ptr(png));
    std::snprintf(j->message, sizeof j->message, "%s", msg);
    std::longjmp(j->jump, 1);
}
void pngWarning(png_structp, png_const_charp) {}
}  // namespace

Image readPng(const std::string& path) {
    FilePtr file = openOrFail(path);
    Image img;
    PngJump j;
    j.message[0] = 0;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &j, pngError, pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        png_destroy_read_struct(&png, &info, nullptr);
        throw Failure(kExitProcessing, path + ": out of memory");
    }
    std::vector<png_bytep> rows;
    if (setjmp(j.jump)) {
        png_destroy_read_struct(&png, &info, nullptr);
        badInput(path, std::string("not a readable PNG file (") + j.message + ")");
    }
    png_init_io(png, file.get());
    png_read_info(png, info);
    png_uint_32 w = 0, h = 0;
    int depth = 0, colour = 0;
    png_get_IHDR(png, info, &w, &h, &depth, &colour, nullptr, nullptr, nullptr);
    checkSize(path, static_cast<long>(w), static_cast<long>(h));
    png_charp name = nullptr;
    int compression = 0;
    png_bytep profile = nullptr;
    png_uint_32 profileLen = 0;
    if (png_get_iCCP(png, info, &name, &compression, &profile, &profileLen) && profile)
        img.icc.assign(profile, profile + profileLen);
    png_uint_32 exifLen = 0;
    png_bytep exif = nullptr;
    if (png_get_eXIf_1(png, info, &exifLen, &exif) && exif && exifLen > 0)
        img.exifTiff.assign(exif, exif + exifLen);
    if (colour == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
    if (depth < 8) png_set_expand_gray_1_2_4_to_8(png);
    if (colour & PNG_COLOR_MASK_ALPHA) png_set_strip_alpha(png);
    if (colour == PNG_COLOR_TYPE_GRAY || colour == PNG_COLOR_TYPE_GRAY_ALPHA) png_set_gray_to_rgb(png);
    if (depth == 16) png_set_swap(png);  // little-endian words, as the library wants
    png_read_update_info(png, info);
    img.width = static_cast<int>(w);
    img.height = static_cast<int>(h);
    img.bps = depth == 16 ? 16 : 8;
    img.spp = 3;
    if (png_get_rowbytes(png, info) != img.rowBytes()) badInput(path, "unexpected PNG layout");
    img.pixels.resize(img.byteCount());
    rows.resize(img.height);
    for (int y = 0; y < img.height; ++y) rows[y] = img.pixels.data() + img.rowBytes() * y;
    png_read_image(png, rows.data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return img;
}

void writePng(const std::string& path, const Image& image,
              const std::vector<std::uint8_t>& exifTiff, const std::vector<std::uint8_t>& icc) {
    if (image.spp != 3 && image.spp != 1) badOutput(path, "PNG needs 1 or 3 samples a pixel");
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) badOutput(path, std::string("cannot create: ") + std::strerror(errno));
    FilePtr file(f);
    PngJump j;
    j.message[0] = 0;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &j, pngError, pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        png_destroy_write_struct(&png, &info);
        throw Failure(kExitProcessing, path + ": out of memory");
    }
    std::vector<png_bytep> rows(image.height);
    if (setjmp(j.jump)) {
        png_destroy_write_struct(&png, &info);
        badOutput(path, std::string("PNG encoding failed (") + j.message + ")");
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width), static_cast<png_uint_32>(image.height),
                 image.bps, image.spp == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, 6);
#if defined(PNG_SKIP_sRGB_CHECK_PROFILE) && defined(PNG_SET_OPTION_SUPPORTED)
    // Cameras' sRGB profiles that libpng knows as slightly off are kept as
    // they came, not refused.
    png_set_option(png, PNG_SKIP_sRGB_CHECK_PROFILE, PNG_OPTION_ON);
#endif
    if (!icc.empty())
        png_set_iCCP(png, info, "ICC profile", PNG_COMPRESSION_TYPE_BASE, icc.data(),
                     static_cast<png_uint_32>(icc.size()));
    if (!exifTiff.empty())
        png_set_eXIf_1(png, info, static_cast<png_uint_32>(exifTiff.size()),
                       const_cast<png_bytep>(exifTiff.data()));
    png_write_info(png, info);
    if (image.bps == 16) png_set_swap(png);
    for (int y = 0; y < image.height; ++y)
        rows[y] = const_cast<png_bytep>(image.pixels.data() + image.rowBytes() * y);
    png_write_image(png, rows.data());
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    if (std::fflush(file.get()) != 0 || std::ferror(file.get()))
        badOutput(path, std::string("write failed: ") + std::strerror(errno));
    std::FILE* raw = file.release();
    if (std::fclose(raw) != 0) badOutput(path, std::string("write failed: ") + std::strerror(errno));
}

// ---------------------------------------------------------------------------
// TIFF

namespace {
thread_local std::string tiffMessage;
void tiffError(const char* module, const char* fmt, va_list ap) {
    char buf[300];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    if (tiffMessage.empty()) tiffMessage = buf;
    (void)module;
}
void tiffWarning(const char*, const char*, va_list) {}
struct TiffCloser {
    void operator()(TIFF* t) const {
        if (t) TIFFClose(t);
    }
};
}  // namespace

Image readTiff(const std::string& path) {
    TIFFSetErrorHandler(tiffError);
    TIFFSetWarningHandler(tiffWarning);
    tiffMessage.clear();
    {
        FilePtr probe = openOrFail(path);  // a clear message for a missing file
    }
    std::unique_ptr<TIFF, TiffCloser> tif(TIFFOpen(path.c_str(), "r"));
    if (!tif) badInput(path, "not a readable TIFF file (" + tiffMessage + ")");
    uint32_t w = 0, h = 0;
    uint16_t spp = 1, bps = 1, planar = PLANARCONFIG_CONTIG, photometric = PHOTOMETRIC_RGB,
             format = SAMPLEFORMAT_UINT;
    TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &h);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLEFORMAT, &format);
    if (!TIFFGetField(tif.get(), TIFFTAG_PHOTOMETRIC, &photometric))
        photometric = spp >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    checkSize(path, w, h);
    if (format == SAMPLEFORMAT_IEEEFP) badInput(path, "a floating-point TIFF is not an exposure frame");
    if (bps != 8 && bps != 16)
        badInput(path, std::to_string(bps) + "-bit TIFF samples are not supported (8 or 16 only)");
    if (photometric != PHOTOMETRIC_RGB && photometric != PHOTOMETRIC_MINISBLACK)
        badInput(path, "only RGB and greyscale TIFF files are supported");
    if (spp < 1 || spp > 8) badInput(path, "unsupported number of samples a pixel");
    uint32_t iccLen = 0;
    void* iccData = nullptr;
    Image raw;
    if (TIFFGetField(tif.get(), TIFFTAG_ICCPROFILE, &iccLen, &iccData) && iccData && iccLen > 0) {
        const auto* p = static_cast<const std::uint8_t*>(iccData);
        raw.icc.assign(p, p + iccLen);
    }
    raw.width = static_cast<int>(w);
    raw.height = static_cast<int>(h);
    raw.spp = spp;
    raw.bps = bps;
    raw.pixels.resize(raw.byteCount());
    const std::size_t bytesPerSample = bps / 8;
    if (TIFFIsTiled(tif.get())) {
        uint32_t tw = 0, th = 0;
        TIFFGetField(tif.get(), TIFFTAG_TILEWIDTH, &tw);
        TIFFGetField(tif.get(), TIFFTAG_TILELENGTH, &th);
        if (tw == 0 || th == 0) badInput(path, "bad tile size");
        if (planar != PLANARCONFIG_CONTIG) badInput(path, "separate-plane tiled TIFF is not supported");
        std::vector<std::uint8_t> tile(TIFFTileSize(tif.get()));
        for (uint32_t ty = 0; ty < h; ty += th)
            for (uint32_t tx = 0; tx < w; tx += tw) {
                if (TIFFReadTile(tif.get(), tile.data(), tx, ty, 0, 0) < 0)
                    badInput(path, "damaged TIFF tile (" + tiffMessage + ")");
                const std::size_t px = spp * bytesPerSample;
                for (uint32_t y = 0; y < th && ty + y < h; ++y) {
                    const uint32_t cols = std::min(tw, w - tx);
                    std::memcpy(raw.pixels.data() + (ty + y) * raw.rowBytes() + tx * px,
                                tile.data() + y * tw * px, cols * px);
                }
            }
    } else if (planar == PLANARCONFIG_CONTIG) {
        if (static_cast<std::size_t>(TIFFScanlineSize(tif.get())) < raw.rowBytes())
            badInput(path, "unexpected TIFF row size");
        std::vector<std::uint8_t> line(TIFFScanlineSize(tif.get()));
        for (uint32_t y = 0; y < h; ++y) {
            if (TIFFReadScanline(tif.get(), line.data(), y, 0) < 0)
                badInput(path, "damaged TIFF data at row " + std::to_string(y) + " (" + tiffMessage + ")");
            std::memcpy(raw.pixels.data() + y * raw.rowBytes(), line.data(), raw.rowBytes());
        }
    } else {
        std::vector<std::uint8_t> line(TIFFScanlineSize(tif.get()));
        if (line.size() < w * bytesPerSample) badInput(path, "unexpected TIFF row size");
        for (uint16_t s = 0; s < spp; ++s)
            for (uint32_t y = 0; y < h; ++y) {
                if (TIFFReadScanline(tif.get(), line.data(), y, s) < 0)
                    badInput(path, "damaged TIFF data at row " + std::to_string(y));
                for (uint32_t x = 0; x < w; ++x)
                    std::memcpy(raw.pixels.data() + y * raw.rowBytes() + (x * spp + s) * bytesPerSample,
                                line.data() + x * bytesPerSample, bytesPerSample);
            }
    }
    // libtiff hands 16-bit samples in the machine's order, little-endian on
    // the machines this program is built for, whatever the file's order.
    return toRgb(raw);
}

// ---------------------------------------------------------------------------

Image toRgb(const Image& src) {
    if (src.spp == 3) return src;
    Image out;
    out.width = src.width;
    out.height = src.height;
    out.bps = src.bps;
    out.spp = 3;
    out.icc = src.icc;
    out.pixels.resize(out.byteCount());
    const std::size_t bs = src.bps / 8;
    const std::size_t n = static_cast<std::size_t>(src.width) * src.height;
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint8_t* p = src.pixels.data() + i * src.spp * bs;
        std::uint8_t* q = out.pixels.data() + i * 3 * bs;
        for (int c = 0; c < 3; ++c) {
            // Grey (1 or 2 samples) is spread; extra samples beyond RGB are dropped.
            const int from = src.spp < 3 ? 0 : c;
            std::memcpy(q + c * bs, p + from * bs, bs);
        }
    }
    return out;
}

Image to8Bit(const Image& src) {
    if (src.bps == 8) return src;
    Image out = src;
    out.bps = 8;
    out.pixels.resize(src.byteCount() / 2);
    for (std::size_t i = 0; i < out.pixels.size(); ++i) out.pixels[i] = src.pixels[2 * i + 1];
    return out;
}

}  // namespace olhdr
