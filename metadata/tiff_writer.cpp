// Baseline TIFF output with metadata: little-endian, uncompressed, one strip.
//
// The file goes out in three sequential writes and never seeks: the 8-byte
// header, the pixels directly behind it, and one prepared block holding the
// IFD and everything it points to (bits array, Model text, resolutions, ICC
// profile, XMP packet, IPTC block, Exif IFD, GPS IFD). All offsets are thus
// computed before the first byte is written.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/bytes.hpp"
#include "frame/file.hpp"
#include "frame/trace.hpp"
#include "metadata/exif_ifd.hpp"

namespace ol {
namespace {

// Output staged through a fixed buffer, so that the pixel paths that pick
// bytes one sample or one pixel at a time make one fwrite per chunk.
class ChunkWriter {
public:
    explicit ChunkWriter(std::FILE* f) noexcept : f_(f) {}
    void put(const std::uint8_t* p, std::size_t n) noexcept {
        if (n > sizeof buf_ - used_) flush();
        if (n > sizeof buf_) {
            ok_ = ok_ && writeExact(f_, p, n);
            return;
        }
        std::memcpy(buf_ + used_, p, n);
        used_ += n;
    }
    void byte(std::uint8_t b) noexcept {
        if (used_ == sizeof buf_) flush();
        buf_[used_++] = b;
    }
    bool finish() noexcept {
        flush();
        return ok_;
    }

private:
    void flush() noexcept {
        if (used_ > 0) ok_ = ok_ && writeExact(f_, buf_, used_);
        used_ = 0;
    }
    std::FILE* f_;
    std::uint8_t buf_[1 << 16];
    std::size_t used_ = 0;
    bool ok_ = true;
};

struct PixelJob {
    const std::uint8_t* data;
    int width;
    int height;
    int samples;
    int sppOut;
    int bytesPerSample;
    int stride;  // bytes between row starts
    int pad;     // stride / bytes per sample - samples * width
    int mode;
};

// Writes the pixels as `mode` says; false when a write failed.
bool writePixels(std::FILE* f, const PixelJob& j) noexcept {
    // Without a positive row there is nothing to take from any row; stepping
    // the read position over such rows is skipped altogether.
    if (j.width <= 0 || j.samples <= 0 || j.height <= 0) return true;
    const std::ptrdiff_t rowSamples = static_cast<std::ptrdiff_t>(j.samples) * j.width;
    if (j.mode == 0 && j.samples == j.sppOut) {
        const std::size_t rowBytes =
            rowSamples > 0 ? static_cast<std::size_t>(rowSamples) * static_cast<std::size_t>(j.bytesPerSample) : 0;
        for (int r = 0; r < j.height; ++r) {
            if (rowBytes == 0) break;
            const std::uint8_t* row = j.data + static_cast<std::ptrdiff_t>(r) * j.stride;
            if (!writeExact(f, row, rowBytes)) return false;
        }
        return true;
    }
    if (j.mode == 0) {
        // Drops the extra sample of a 2 or 4-sample pixel. The read position
        // steps `samples` bytes a pixel and `pad` bytes a row, which fits
        // 8-bit data only; 16-bit pixels overlap their neighbours, as they
        // always have with this path.
        ChunkWriter w(f);
        const std::size_t pixelBytes =
            j.sppOut > 0 ? static_cast<std::size_t>(j.sppOut) * static_cast<std::size_t>(j.bytesPerSample) : 0;
        const std::uint8_t* p = j.data;
        for (int r = 0; r < j.height; ++r) {
            for (int c = 0; c < j.width; ++c) {
                if constexpr (traceFiles) {
                    if (r % 800 == 0 && c % 1000 == 0) std::fprintf(stdout, "%d,%d", r, c);
                }
                w.put(p, pixelBytes);
                p += j.samples;
            }
            p += j.pad;
        }
        return w.finish();
    }
    if (j.mode == 1) {
        // 16-bit little-endian input, 8-bit file: the high byte of each sample.
        ChunkWriter w(f);
        const std::uint8_t* p = j.data;
        for (int r = 0; r < j.height; ++r) {
            for (std::ptrdiff_t i = 0; i < rowSamples; ++i) w.byte(p[2 * i + 1]);
            p += 2 * (rowSamples + j.pad);
        }
        return w.finish();
    }
    return true;  // any other mode writes no pixels
}

inline int atLeast0(int v) noexcept { return v > 0 ? v : 0; }

}  // namespace
}  // namespace ol

extern "C" {

OL_API int buf2tifOld(const void* data, const tif_info* info, int stride,
                      const unsigned char* profile, const ExifRecord* exif,
                      const GpsRecord* gps, int iptc_len, const unsigned char* iptc,
                      int tmMethod, const float* tmParams, const char* filename) {
    using namespace ol;
    if (!info) return -1;
    File file = openFile(filename, "wb");
    if (!file) return -1;
    std::FILE* f = file.get();

    const int width = info->width;
    const int height = info->height;
    const int samples = info->samples;
    const int bits = info->bits;
    const int sppOut = samples == 4 ? 3 : (samples == 2 ? 1 : samples);
    const int orientation = (info->orientation < 1 || info->orientation > 8) ? 1 : info->orientation;
    const int bytesPerSample = bits >> 3;

    const ExifCensus census = takeExifCensus(exif, gps);
    const int exifCount = census.exifCount;
    const int gpsCount = census.gpsCount;
    const int modelLen = census.modelLen;
    const int datetimeLen = census.datetimeLen;
    const int countResult = census.exifCount + census.gpsCount;
    const int gpsIfdLen = 12 * gpsCount + 6;
    const int gpsTotalLen = gpsCount == 0 ? 0 : gpsIfdLen + census.gpsLen;
    const int exifBlockLen = exifCount == 0 ? 0 : census.exifLen + 12 * exifCount + 6;
    if constexpr (traceFiles) {
        std::fprintf(stdout, "buf2tif - retour get_exif_count: %d\n", countResult);
        std::fprintf(stdout, "buf2tif - gpsIfdLen: %d  gpsTotalLen: %d\n", gpsIfdLen, gpsTotalLen);
    }

    // Only an RGB profile suits the file; a longer profile of another colour
    // space (CMYK, grey) is dropped. Short ones are taken unexamined.
    int lProfil = profile ? atLeast0(info->lProfil) : 0;
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - lProfil: %d\n", lProfil);
    if (lProfil > 20 && !(profile[16] == 'R' && profile[17] == 'G' && profile[18] == 'B')) lProfil = 0;
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - lProfil2: %d\n", lProfil);

    const int iptcLen = iptc ? atLeast0(iptc_len) : 0;
    const int iptcPadded = (iptcLen + 3) & ~3;

    const int entries = 13 + (modelLen > 0) + (lProfil > 0) + (tmMethod > 0) + (iptcLen > 0) +
                        (exifCount > 0) + (gpsCount > 0);
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - tmMethod: %d\n", tmMethod);
    int xmpLen = 0;
    if (tmMethod > 0) {
        xmpLen = embed_xmp(0, nullptr, tmMethod, tmParams) + 1;
        if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - retour embed_xmp: %d\n", countResult);
    }

    // Sizes and offsets. Offsets are 32-bit in the file: they wrap, as the
    // image byte count does, instead of overflowing.
    const std::uint32_t imageBytes = static_cast<std::uint32_t>(bytesPerSample) *
                                     static_cast<std::uint32_t>(samples) *
                                     static_cast<std::uint32_t>(width) * static_cast<std::uint32_t>(height);
    const std::uint32_t ifddebut = 8u + imageBytes;
    const int bitsLen = sppOut > 1 ? 2 * sppOut : 0;
    const int ifdLen = 2 + 12 * entries;
    const long long total = static_cast<long long>(ifdLen) + xmpLen + modelLen + gpsTotalLen +
                            exifBlockLen + iptcPadded + bitsLen + lProfil + 20;
    const int ifdtotal = static_cast<int>(total);
    const int ifdexif = ifdtotal - census.exifLen - gpsTotalLen;
    const int ifdgps = ifdtotal - census.gpsLen;
    if constexpr (traceFiles)
        std::fprintf(stdout, "buf2tif - ifdtotal: %d  ifdexif: %d  ifdgps: %d ifddebut: %d\n", ifdtotal,
                     ifdexif, ifdgps, static_cast<int>(ifddebut));

    // Positions inside the metadata block, which lands at file offset ifddebut.
    const std::size_t bitsAt = static_cast<std::size_t>(ifdLen) + 4;
    const std::size_t modelAt = bitsAt + static_cast<std::size_t>(bitsLen);
    const std::size_t xresAt = modelAt + static_cast<std::size_t>(modelLen);
    const std::size_t yresAt = xresAt + 8;
    const std::size_t iccAt = yresAt + 8;
    const std::size_t xmpAt = iccAt + static_cast<std::size_t>(lProfil);
    const std::size_t iptcAt = xmpAt + static_cast<std::size_t>(xmpLen);
    const std::size_t exifAt = iptcAt + static_cast<std::size_t>(iptcPadded);
    const std::size_t gpsAt = exifAt + static_cast<std::size_t>(exifBlockLen);
    const auto fileOffset = [&](std::size_t at) { return ifddebut + static_cast<std::uint32_t>(at); };

    // Header.
    std::uint8_t header[8] = {'I', 'I', 0, 0, 0, 0, 0, 0};
    putU16LE(header + 2, 42);
    putU32LE(header + 4, ifddebut);
    // Each stage is flushed so that a failed write is reported by the stage
    // that made it, not discovered later when the file is closed.
    if (!writeExact(f, header, sizeof header) || std::fflush(f) != 0) return -2;

    // Pixels.
    if constexpr (traceFiles) std::fprintf(stdout, "avant data write\n");
    // A bits value below 8 has no bytes per sample: nothing can be taken from
    // the rows, so the row padding is taken as 0 rather than divided by zero.
    const int pad = bytesPerSample > 0 ? stride / bytesPerSample - samples * width : 0;
    const PixelJob job{static_cast<const std::uint8_t*>(data), width, height, samples, sppOut,
                       bytesPerSample, stride, pad, info->mode};
    if (data && !writePixels(f, job)) return -3;
    if (std::fflush(f) != 0) return -3;

    // The metadata block.
    if constexpr (traceFiles) std::fprintf(stdout, "TIME_LEN: %d  GPS0_LEN: %d  sizeofint: %d\n", 20, 20, 4);
    if (total > 0x3FFFFFFF) return -1;
    Owned<std::uint8_t> owned(static_cast<std::uint8_t*>(allocateZeroed(2 * static_cast<std::size_t>(ifdtotal), 1)));
    if (!owned) return -1;
    std::uint8_t* b = owned.get();
    const PaddedTexts texts(exif, gps);

    putU16LE(b, static_cast<std::uint32_t>(entries));
    std::uint8_t* e = b + 2;
    // Appends one entry; SHORT values sit inline, others take the value field.
    const auto add = [&](std::uint16_t tag, std::uint16_t type, std::uint32_t count, std::uint32_t value) {
        putEntry(e, tag, type, count, value);
        e += 12;
    };
    const auto addShort = [&](std::uint16_t tag, std::uint32_t value) {
        putShortEntry(e, tag, value);
        e += 12;
    };
    const auto u32 = [](int v) { return static_cast<std::uint32_t>(v); };
    addShort(tag::kImageWidth, u32(width));
    addShort(tag::kImageLength, u32(height));
    if (sppOut == 1) {
        putEntry(e, tag::kBitsPerSample, kTiffShort, 1, 0);
        putU16LE(e + 8, u32(bits));
        e += 12;
    } else {
        add(tag::kBitsPerSample, kTiffShort, u32(sppOut), fileOffset(bitsAt));
    }
    addShort(tag::kCompression, 1);
    addShort(tag::kPhotometric, sppOut == 1 ? 1 : 2);
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - modelLen: %d  \n", modelLen);
    if (modelLen > 0) add(tag::kModel, kTiffAscii, u32(modelLen), fileOffset(modelAt));
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - apres model\n");
    add(tag::kStripOffsets, kTiffLong, 1, 8);
    addShort(tag::kOrientation, u32(orientation));
    addShort(tag::kSamplesPerPixel, u32(sppOut));
    addShort(tag::kRowsPerStrip, u32(height));
    add(tag::kStripByteCounts, kTiffLong, 1, imageBytes);
    // PlanarConfiguration stands before the resolutions, and the XMP packet
    // behind the ICC profile: files written by earlier versions have this
    // order and it is kept.
    addShort(tag::kPlanarConfig, 1);
    add(tag::kXResolution, kTiffRational, 1, fileOffset(xresAt));
    add(tag::kYResolution, kTiffRational, 1, fileOffset(yresAt));
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - lProfil: %d  \n", lProfil);
    if (lProfil > 0) add(tag::kIccProfile, kTiffUndefined, u32(lProfil), fileOffset(iccAt));
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - tmMethod2: %d  \n", tmMethod);
    if (tmMethod > 0) add(tag::kXmp, kTiffByte, u32(xmpLen), fileOffset(xmpAt));
    if constexpr (traceFiles)
        std::fprintf(stdout, "buf2tif - iptc_len: %d  ifd: %d\n", iptcLen, static_cast<int>(e - b));
    if (iptcLen > 0) add(tag::kIptc, kTiffLong, u32(iptcPadded / 4), fileOffset(iptcAt));
    if constexpr (traceFiles)
        std::fprintf(stdout, "buf2tif - exif_count: %d  ifd: %d\n", exifCount, static_cast<int>(e - b));
    if (exifCount > 0) add(tag::kExifIfd, kTiffLong, 1, fileOffset(exifAt));
    if constexpr (traceFiles)
        std::fprintf(stdout, "buf2tif - gpsCount: %d  ifd: %d\n", gpsCount, static_cast<int>(e - b));
    if (gpsCount > 0) add(tag::kGpsIfd, kTiffLong, 1, fileOffset(gpsAt));
    // Next-IFD pointer: stays 0.

    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - sppOut: %d  \n", sppOut);
    if (sppOut == 3)
        for (int i = 0; i < 3; ++i) putU16LE(b + bitsAt + 2 * i, static_cast<std::uint32_t>(bits));
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - modelLen2: %d  \n", modelLen);
    if (modelLen > 0) std::memcpy(b + modelAt, texts.camera, static_cast<std::size_t>(modelLen));
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - dpi: %d  \n", info->dpi);
    const std::uint32_t res = static_cast<std::uint32_t>(info->dpi) * 1000u;
    putU32LE(b + xresAt, res);
    putU32LE(b + xresAt + 4, 1000);
    putU32LE(b + yresAt, res);
    putU32LE(b + yresAt + 4, 1000);
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - lProfil3: %d  \n", lProfil);
    if (lProfil > 0) std::memcpy(b + iccAt, profile, static_cast<std::size_t>(lProfil));
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - tmMethod3: %d  \n", tmMethod);
    if (tmMethod > 0) {
        // The packet is written in place; its place is one byte longer than
        // the text, and what the text leaves is filled with spaces.
        const int written = embed_xmp(1, reinterpret_cast<char*>(b + xmpAt), tmMethod, tmParams);
        if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - retour embed_xmp: %d  \n", written);
        std::memset(b + xmpAt + written, ' ', static_cast<std::size_t>(xmpLen - written));
    }
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - iptc_len2: %d  \n", iptcLen);
    if (iptcLen > 0) std::memcpy(b + iptcAt, iptc, static_cast<std::size_t>(iptcLen));
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - exifCount: %d  \n", exifCount);
    if (exifCount > 0) putExifIfd(b, exifAt, ifddebut, exifCount, exif, texts, datetimeLen, IfdFlavor::Tiff);
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - gpsCount: %d  \n", gpsCount);
    // The GPS date takes as many bytes as the Exif date text has; this pairing
    // of the two lengths is how the files have always been written.
    if (gpsCount > 0)
        putGpsIfd(b, gpsAt, ifddebut, gpsCount, gps, texts, datetimeLen, census.gpsDateLen, IfdFlavor::Tiff);

    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - avant fwrite metadata: %d\n", ifdtotal);
    const std::size_t items = std::fwrite(b, static_cast<std::size_t>(ifdtotal), 1, f);
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - apres fwrite metadata: %d\n", static_cast<int>(items));
    if (items != 1 || std::fflush(f) != 0) return -12;
    file.reset();
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - apres fclose\n");
    owned.reset();
    if constexpr (traceFiles) std::fprintf(stdout, "buf2tif - apres free ifdbuf\n");
    return ifdtotal;
}

}  // extern "C"
