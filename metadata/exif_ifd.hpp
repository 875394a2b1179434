// Building blocks shared by the Exif block writer and the TIFF writer: the
// tag census of an ExifRecord/GpsRecord pair, little-endian IFD entries, and
// the Exif and GPS IFDs with their data areas.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/tiff_tags.hpp"

namespace ol {

// Which tags the records give and how many data bytes those tags need.
struct ExifCensus {
    int exifCount = 0;    // Exif IFD entries
    int exifLen = 0;      // bytes of the Exif data area
    int gpsCount = 0;     // GPS IFD entries, GPSVersionID included
    int gpsLen = 0;       // bytes of the GPS data area
    int modelLen = 0;     // camera text with its terminator, 0 when empty
    int datetimeLen = 0;  // date text with its terminator, 0 when empty
    int gpsDateLen = 0;   // 11 when a GPS date exists, else 0
};

// A null record counts as one with every value missing.
ExifCensus takeExifCensus(const ExifRecord* exif, const GpsRecord* gps) noexcept;

// The fixed text fields copied into zeroed buffers one byte longer than the
// field, so that a full field (which has no terminator) reads as a string.
struct PaddedTexts {
    char camera[65];
    char date[21];
    char datestamp[12];
    PaddedTexts(const ExifRecord* exif, const GpsRecord* gps) noexcept;
};

// A rational counts as present when both its parts are at least 1.
inline bool rationalPresent(std::int32_t num, std::int32_t den) noexcept { return num >= 1 && den >= 1; }
inline bool rationalPresent(std::uint32_t num, std::uint32_t den) noexcept { return num >= 1 && den >= 1; }
// GPS references count when they are at least 1 read as signed bytes.
inline bool refPresent(char c) noexcept { return static_cast<signed char>(c) >= 1; }

// One 12-byte IFD entry with a 32-bit value or offset.
void putEntry(std::uint8_t* p, std::uint16_t tag, std::uint16_t type, std::uint32_t count,
              std::uint32_t value) noexcept;
// One entry whose value is a SHORT stored inline (the other two bytes untouched).
void putShortEntry(std::uint8_t* p, std::uint16_t tag, std::uint32_t value) noexcept;

// Which writer is calling: the two differ in how much of the GPS date they
// copy and in their diagnostic lines.
enum class IfdFlavor { ExifBlock, Tiff };

// Writes the Exif IFD (16-bit count, entries, next-IFD pointer 0, data area)
// at out + pos. Offsets stored in the entries are `base` + position in `out`.
// `count` is the entry count to state; entries follow the record's values.
// Returns the position behind the data area.
std::size_t putExifIfd(std::uint8_t* out, std::size_t pos, std::uint32_t base, int count,
                       const ExifRecord* exif, const PaddedTexts& texts, int datetimeLen,
                       IfdFlavor flavor) noexcept;

// Writes the GPS IFD the same way. `dateCopyLen` is how many bytes of the
// 11-byte date place receive the date (the rest stays zero).
std::size_t putGpsIfd(std::uint8_t* out, std::size_t pos, std::uint32_t base, int count,
                      const GpsRecord* gps, const PaddedTexts& texts, int dateCopyLen,
                      int gpsDateLen, IfdFlavor flavor) noexcept;

}  // namespace ol
