// The Exif census of a record pair and the free-standing Exif block that a
// host embeds in a file of its own (a JPEG APP1 segment, behind "Exif\0\0").
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/bytes.hpp"
#include "frame/trace.hpp"
#include "metadata/exif_ifd.hpp"

extern "C" {

OL_API int get_exif_count(const ExifRecord* exif, int* exifCount, int* exifLen, const GpsRecord* gps,
                          int* gpsCount, int* gpsLen, int* modelLen, int* datetimeLen,
                          int* gpsDatestampLen) {
    const ol::ExifCensus c = ol::takeExifCensus(exif, gps);
    if (exifCount) *exifCount = c.exifCount;
    if (exifLen) *exifLen = c.exifLen;
    if (gpsCount) *gpsCount = c.gpsCount;
    if (gpsLen) *gpsLen = c.gpsLen;
    if (modelLen) *modelLen = c.modelLen;
    if (datetimeLen) *datetimeLen = c.datetimeLen;
    if (gpsDatestampLen) *gpsDatestampLen = c.gpsDateLen;
    return c.gpsCount + c.exifCount;
}

OL_API int write_exif_buf(int exifCount, int exifLen, int gpsCount, int gpsLen, int modelLen,
                          int datetimeLen, int gpsDatestampLen, int orientation,
                          const ExifRecord* exif, const GpsRecord* gps, unsigned char* out) {
    const bool hasModel = modelLen > 0;
    const bool hasExif = exifCount > 0 && exif != nullptr;
    const bool hasGps = gpsCount > 0 && gps != nullptr;
    if (!hasModel && !hasExif && !hasGps) return -1;
    if (orientation < 1 || orientation > 8) orientation = 1;

    const int n = 1 + hasModel + hasExif + hasGps;
    const int model = hasModel ? modelLen : 0;
    const int e = hasExif ? exifLen + 12 * exifCount + 6 : 0;
    const int g = hasGps ? gpsLen + 12 * gpsCount + 6 : 0;
    const int modelAt = 14 + 12 * n;
    const int exifAt = modelAt + model;
    const int gpsAt = exifAt + e;
    const int total = gpsAt + g;

    const ol::PaddedTexts texts(exif, gps);
    std::uint8_t* p = out;
    p[0] = 'I';
    p[1] = 'I';
    ol::putU16LE(p + 2, 42);
    ol::putU32LE(p + 4, 8);
    ol::putU16LE(p + 8, static_cast<std::uint32_t>(n));
    std::uint8_t* entry = p + 10;
    if (hasModel) {
        ol::putEntry(entry, ol::tag::kModel, ol::kTiffAscii, static_cast<std::uint32_t>(modelLen),
                     static_cast<std::uint32_t>(modelAt));
        entry += 12;
    }
    ol::putShortEntry(entry, ol::tag::kOrientation, static_cast<std::uint32_t>(orientation));
    entry += 12;
    if (hasExif) {
        ol::putEntry(entry, ol::tag::kExifIfd, ol::kTiffLong, 1, static_cast<std::uint32_t>(exifAt));
        entry += 12;
    }
    if (hasGps) {
        ol::putEntry(entry, ol::tag::kGpsIfd, ol::kTiffLong, 1, static_cast<std::uint32_t>(gpsAt));
        entry += 12;
    }
    // The next-IFD pointer stays 0 (out is zeroed by the caller).

    std::size_t posit = static_cast<std::size_t>(exifAt);
    if (hasModel) {
        // The padded copy holds 65 bytes; a larger stated length leaves zeros.
        const int copy = modelLen < 65 ? modelLen : 65;
        std::memcpy(p + modelAt, texts.camera, static_cast<std::size_t>(copy));
    }
    if (hasExif)
        posit = ol::putExifIfd(p, static_cast<std::size_t>(exifAt), 0, exifCount, exif, texts,
                               datetimeLen, ol::IfdFlavor::ExifBlock);
    if (hasGps)
        posit = ol::putGpsIfd(p, static_cast<std::size_t>(gpsAt), 0, gpsCount, gps, texts, 11,
                              gpsDatestampLen, ol::IfdFlavor::ExifBlock);
    if constexpr (ol::traceFiles)
        std::fprintf(stdout, "write_exif_buf ifdtotal: %d   positIfd:%d\n", total, static_cast<int>(posit));
    return total;
}

}  // extern "C"
