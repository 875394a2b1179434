// Tag census and IFD building shared by write_exif_buf and buf2tifOld.
#include "metadata/exif_ifd.hpp"

#include <cstdio>
#include <cstring>

#include "frame/bytes.hpp"
#include "frame/trace.hpp"

namespace ol {

namespace {

// Length of a text in a fixed field, up to the first zero, plus the
// terminator; 0 for an empty text. A full field gives its size plus 1.
int fieldTextLen(const char* field, std::size_t size) noexcept {
    std::size_t n = 0;
    while (n < size && field[n] != 0) ++n;
    return n == 0 ? 0 : static_cast<int>(n) + 1;
}

void putRational(std::uint8_t* p, std::uint32_t num, std::uint32_t den) noexcept {
    putU32LE(p, num);
    putU32LE(p + 4, den);
}

void putRationals(std::uint8_t* p, const std::uint32_t* words, int n) noexcept {
    for (int i = 0; i < 2 * n; ++i) putU32LE(p + 4 * i, words[i]);
}

// Two-byte ASCII item stored inline: the character and a zero.
void putRefEntry(std::uint8_t* p, std::uint16_t tag, char ref) noexcept {
    putEntry(p, tag, kTiffAscii, 2, 0);
    p[8] = static_cast<std::uint8_t>(ref);
    p[9] = 0;
}

}  // namespace

ExifCensus takeExifCensus(const ExifRecord* exif, const GpsRecord* gps) noexcept {
    ExifCensus c;
    if (exif) {
        if (rationalPresent(exif->exposureNum, exif->exposureDen)) {
            ++c.exifCount;
            c.exifLen += 8;
        }
        if (rationalPresent(exif->apertureNum, exif->apertureDen)) {
            ++c.exifCount;
            c.exifLen += 8;
        }
        if (exif->iso >= 1) ++c.exifCount;
        if (rationalPresent(exif->focalNum, exif->focalDen)) {
            ++c.exifCount;
            c.exifLen += 8;
        }
        c.datetimeLen = fieldTextLen(exif->date, sizeof exif->date);
        if (c.datetimeLen > 0) {
            ++c.exifCount;
            c.exifLen += c.datetimeLen;
        }
        c.modelLen = fieldTextLen(exif->camera, sizeof exif->camera);
    }
    if (gps) {
        // A rational tag is present when its first numerator and denominator
        // are; its data takes `bytes` in the GPS data area.
        const auto rationalTag = [&c](const std::uint32_t* r, int bytes) {
            if (!rationalPresent(r[0], r[1])) return;
            ++c.gpsCount;
            c.gpsLen += bytes;
        };
        rationalTag(gps->latitude, 24);
        rationalTag(gps->longitude, 24);
        rationalTag(gps->altitude, 8);
        rationalTag(gps->timestamp, 24);
        if (refPresent(gps->lat_ref)) ++c.gpsCount;
        if (refPresent(gps->long_ref)) ++c.gpsCount;
        if (refPresent(gps->alt_ref)) ++c.gpsCount;
        if (gps->datestamp[0] != 0) {
            ++c.gpsCount;
            c.gpsLen += 11;
            c.gpsDateLen = 11;
        }
        if (c.gpsCount >= 1) ++c.gpsCount;  // GPSVersionID
    }
    if constexpr (traceFiles) {
        std::fprintf(stdout, "get_exif_count - modelLen=%d  datetimeLen=%d \n", c.modelLen,
                     c.datetimeLen);
        std::fprintf(stdout, "get_exif_count - gpsCount: %d  im: %d gpsDateLen: %d  gpsDataLen: %d \n",
                     c.gpsCount, c.exifCount, c.gpsDateLen, c.gpsLen);
    }
    return c;
}

PaddedTexts::PaddedTexts(const ExifRecord* exif, const GpsRecord* gps) noexcept {
    std::memset(this, 0, sizeof *this);
    if (exif) {
        std::memcpy(camera, exif->camera, sizeof exif->camera);
        std::memcpy(date, exif->date, sizeof exif->date);
    }
    if (gps) std::memcpy(datestamp, gps->datestamp, sizeof gps->datestamp);
}

void putEntry(std::uint8_t* p, std::uint16_t tag, std::uint16_t type, std::uint32_t count,
              std::uint32_t value) noexcept {
    putU16LE(p, tag);
    putU16LE(p + 2, type);
    putU32LE(p + 4, count);
    putU32LE(p + 8, value);
}

void putShortEntry(std::uint8_t* p, std::uint16_t tag, std::uint32_t value) noexcept {
    putU16LE(p, tag);
    putU16LE(p + 2, kTiffShort);
    putU32LE(p + 4, 1);
    putU16LE(p + 8, value);
}

std::size_t putExifIfd(std::uint8_t* out, std::size_t pos, std::uint32_t base, int count,
                       const ExifRecord* exif, const PaddedTexts& texts, int datetimeLen,
                       IfdFlavor flavor) noexcept {
    const bool tiff = flavor == IfdFlavor::Tiff;
    const int n = count > 0 ? count : 0;
    putU16LE(out + pos, static_cast<std::uint32_t>(count));
    std::uint8_t* entry = out + pos + 2;
    // Entries and the next-IFD pointer (left 0) come first, then the data.
    std::size_t data = pos + 2 + 12 * static_cast<std::size_t>(n) + 4;
    const auto offsetOf = [&](std::size_t at) { return base + static_cast<std::uint32_t>(at); };
    const int dateLen = datetimeLen > 0 ? datetimeLen : 0;
    const int dateCopy = dateLen < static_cast<int>(sizeof texts.date) ? dateLen : static_cast<int>(sizeof texts.date);

    // Entries, each taking its place in the data area in the same order.
    std::size_t cursor = data;
    if (rationalPresent(exif->exposureNum, exif->exposureDen)) {
        putEntry(entry, tag::kExposureTime, kTiffRational, 1, offsetOf(cursor));
        entry += 12;
        cursor += 8;
    }
    if (rationalPresent(exif->apertureNum, exif->apertureDen)) {
        putEntry(entry, tag::kFNumber, kTiffRational, 1, offsetOf(cursor));
        entry += 12;
        cursor += 8;
    }
    if constexpr (traceFiles) {
        if (tiff) std::fprintf(stdout, "buf2tif - iso: %d  \n", exif->iso);
    }
    if (exif->iso > 0) {
        putShortEntry(entry, tag::kIso, static_cast<std::uint32_t>(exif->iso));
        entry += 12;
    }
    if constexpr (traceFiles) {
        if (tiff) std::fprintf(stdout, "buf2tif - datetimeLen: %d  \n", datetimeLen);
    }
    if (datetimeLen > 0) {
        putEntry(entry, tag::kDateTimeOriginal, kTiffAscii, static_cast<std::uint32_t>(datetimeLen), offsetOf(cursor));
        entry += 12;
        cursor += static_cast<std::size_t>(dateLen);
    }
    if (rationalPresent(exif->focalNum, exif->focalDen)) {
        putEntry(entry, tag::kFocalLength, kTiffRational, 1, offsetOf(cursor));
        entry += 12;
        cursor += 8;
    }

    // The data area.
    if (rationalPresent(exif->exposureNum, exif->exposureDen)) {
        putRational(out + data, static_cast<std::uint32_t>(exif->exposureNum),
                    static_cast<std::uint32_t>(exif->exposureDen));
        data += 8;
    }
    if (rationalPresent(exif->apertureNum, exif->apertureDen)) {
        putRational(out + data, static_cast<std::uint32_t>(exif->apertureNum),
                    static_cast<std::uint32_t>(exif->apertureDen));
        data += 8;
    }
    if constexpr (traceFiles) {
        if (tiff) std::fprintf(stdout, "buf2tif - datetimeLen2: %d  \n", datetimeLen);
    }
    if (datetimeLen > 0) {
        // A date length beyond the padded copy (only from inconsistent
        // arguments) leaves the rest of its place zero.
        std::memcpy(out + data, texts.date, static_cast<std::size_t>(dateCopy));
        data += static_cast<std::size_t>(dateLen);
    }
    if (rationalPresent(exif->focalNum, exif->focalDen)) {
        putRational(out + data, static_cast<std::uint32_t>(exif->focalNum),
                    static_cast<std::uint32_t>(exif->focalDen));
        data += 8;
    }
    return data;
}

std::size_t putGpsIfd(std::uint8_t* out, std::size_t pos, std::uint32_t base, int count,
                      const GpsRecord* gps, const PaddedTexts& texts, int dateCopyLen,
                      int gpsDateLen, IfdFlavor flavor) noexcept {
    const bool tiff = flavor == IfdFlavor::Tiff;
    const int n = count > 0 ? count : 0;
    putU16LE(out + pos, static_cast<std::uint32_t>(count));
    std::uint8_t* entry = out + pos + 2;
    std::size_t data = pos + 2 + 12 * static_cast<std::size_t>(n) + 4;
    const auto offsetOf = [&](std::size_t at) { return base + static_cast<std::uint32_t>(at); };

    const bool lat = rationalPresent(gps->latitude[0], gps->latitude[1]);
    const bool lon = rationalPresent(gps->longitude[0], gps->longitude[1]);
    const bool alt = rationalPresent(gps->altitude[0], gps->altitude[1]);
    const bool time = rationalPresent(gps->timestamp[0], gps->timestamp[1]);
    const bool date = gps->datestamp[0] != 0;

    // GPSVersionID 2.2.0.0, inline.
    putEntry(entry, tag::kGpsVersion, kTiffByte, 4, 0);
    entry[8] = 2;
    entry[9] = 2;
    entry += 12;

    std::size_t cursor = data;
    // A reference entry (inline) and the entry of its `count` rationals (in
    // the data area) behind it, each value announced on the trace first.
    const auto refAndRationals = [&](std::uint16_t refTag, const char* refName, char ref, const char* valueName,
                                     std::uint32_t first, bool present, std::uint32_t count) {
        if constexpr (traceFiles) {
            if (tiff) std::fprintf(stdout, "buf2tif - %s: %d  \n", refName, ref);
        }
        if (refPresent(ref)) {
            putRefEntry(entry, refTag, ref);
            entry += 12;
        }
        if constexpr (traceFiles) {
            if (tiff) std::fprintf(stdout, "buf2tif - %s: %d  \n", valueName, static_cast<int>(first));
        }
        if (present) {
            putEntry(entry, static_cast<std::uint16_t>(refTag + 1), kTiffRational, count, offsetOf(cursor));
            entry += 12;
            cursor += 8 * static_cast<std::size_t>(count);
        }
    };
    refAndRationals(tag::kGpsLatRef, "lat_ref", gps->lat_ref, "latitude", gps->latitude[0], lat, 3);
    refAndRationals(tag::kGpsLongRef, "long_ref", gps->long_ref, "longitude", gps->longitude[0], lon, 3);
    // GPSAltitudeRef is written as a two-byte ASCII item like the other
    // references, not as the BYTE that the Exif standard gives it; readers
    // of the files this writer has always produced expect it so.
    refAndRationals(tag::kGpsAltRef, "alt_ref", gps->alt_ref, "altitude", gps->altitude[0], alt, 1);
    if constexpr (traceFiles) {
        if (tiff) std::fprintf(stdout, "buf2tif - timestamp: %d  \n", static_cast<int>(gps->timestamp[0]));
    }
    if (time) {
        putEntry(entry, tag::kGpsTime, kTiffRational, 3, offsetOf(cursor));
        entry += 12;
        cursor += 24;
    }
    if constexpr (traceFiles) {
        if (tiff) std::fprintf(stdout, "buf2tif - datestamp: %d  %d\n", gps->datestamp[0], dateCopyLen);
    }
    if (date) {
        putEntry(entry, tag::kGpsDate, kTiffAscii, 11, offsetOf(cursor));
        entry += 12;
        cursor += 11;
    }

    // The data area: latitude, longitude, altitude, timestamp, date.
    const auto putData = [&](bool present, const std::uint32_t* words, int count, const char* name) {
        if (!present) return;
        if constexpr (traceFiles) {
            if (tiff) std::fprintf(stdout, "buf2tif - ecriture %s\n", name);
        }
        putRationals(out + data, words, count);
        data += 8 * static_cast<std::size_t>(count);
    };
    if constexpr (traceFiles) {
        if (lat && !tiff)
            for (int i = 0; i < 6; ++i) std::fprintf(stdout, "gpsBuf[%d]: %d \n", i, static_cast<int>(gps->latitude[i]));
    }
    putData(lat, gps->latitude, 3, "lat");
    putData(lon, gps->longitude, 3, "long");
    putData(alt, gps->altitude, 1, "alt");
    putData(time, gps->timestamp, 3, "time");
    if constexpr (traceFiles) {
        if (!tiff) std::fprintf(stdout, "write_exif_buf gpsDatestampLen %d \n", gpsDateLen);
    }
    if (date) {
        if constexpr (traceFiles) {
            if (tiff) std::fprintf(stdout, "buf2tif - ecriture date\n");
        }
        int copy = dateCopyLen < 0 ? 0 : dateCopyLen;
        if (copy > 11) copy = 11;
        std::memcpy(out + data, texts.datestamp, static_cast<std::size_t>(copy));
        data += 11;
    }
    return data;
}

}  // namespace ol
