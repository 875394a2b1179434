// Internal pieces of the metadata reader (Exif, GPS, Photoshop blocks).
#pragma once

#include <cstddef>
#include <cstdint>

#include "Ombrelumen40Lib1.h"
#include "frame/read_stream.hpp"

namespace ol {

// The working record of one get_exif_data call: the values as found, before
// they become the rationals of ExifRecord.
struct RawExif {
    std::int32_t mark;
    float exposure;
    float fnumber;
    std::int32_t iso;
    std::int32_t unused;
    float focal;
    std::int32_t focal35;
    float planeRes;
    std::int32_t planeResUnit;
    char camera[65];
    char date[24];
    std::int32_t thumbWidth, thumbHeight, thumbRowBytes;
    std::int32_t thumbLen, thumbOffset, orientation, iptcLen, iptcOffset;
    char lat_ref;
    std::uint32_t latitude[6];
    char long_ref;
    std::uint32_t longitude[6];
    char alt_ref;
    std::uint32_t altitude[2];
    std::uint32_t timestamp[6];
    char datestamp[12];
    std::int32_t xmpLen, xmpOffset;

    // Work left for this call. A damaged file can make every entry of a
    // 65535-entry IFD point back at a large IFD or block, which would take
    // hours to walk; no real file comes near these limits.
    std::int64_t entriesLeft;
    std::int64_t blockBytesLeft;
};

inline constexpr std::int64_t kMaxIfdEntriesPerCall = 1 << 18;
inline constexpr std::int64_t kMaxBlockBytesPerCall = std::int64_t{1} << 28;

// What the caller asked the file to be read as.
enum MetaFileType : int { kMetaTiff = 0, kMetaJpeg = 1, kMetaPsd = 2 };

// Fills `raw` from the file (cleared first). Never fails: a damaged file
// leaves what was read until the damage.
void scanMeta(const char* path, int fileType, RawExif& raw) noexcept;

// The TIFF walk from `base` (the TIFF header): up to three IFDs of the main
// chain, with the Exif and GPS sub-IFDs.
void walkTiff(ReadStream& s, std::int64_t base, int fileType, RawExif& raw) noexcept;

// Scans `count` bytes at the current position for Photoshop "8BIM" blocks:
// the IPTC block (0x0404) and the thumbnail (0x040C).
void read8bim(ReadStream& s, std::int64_t count, RawExif& raw) noexcept;

// Shooting data carried as a comma-separated image description.
void parseDescription(const char* text, std::size_t length, RawExif& raw) noexcept;

// A positive float as a rational with two decimals of scale: t >= 1 gives
// trunc(t*100)/100, 0 < t < 1 gives 100/trunc(100/t). Returns false (and
// leaves num/den alone) for t <= 0.
bool floatToRational(float t, std::int32_t& num, std::int32_t& den) noexcept;

void exifFromRaw(const RawExif& raw, ExifRecord* exif, GpsRecord* gps) noexcept;

}  // namespace ol
