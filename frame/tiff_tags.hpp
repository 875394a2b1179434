// The TIFF, Exif and GPS tag numbers and TIFF field types that the library
// reads and writes, in one table: the Exif reader, the Exif block and TIFF
// writers, the float TIFF of the Radiance family, their tests and benchmarks
// all name a tag from here, never by its number.
#pragma once

#include <cstdint>

namespace ol {

namespace tag {
// IFD0 (baseline TIFF)
inline constexpr std::uint16_t kImageWidth = 256;
inline constexpr std::uint16_t kImageLength = 257;
inline constexpr std::uint16_t kBitsPerSample = 258;
inline constexpr std::uint16_t kCompression = 259;
inline constexpr std::uint16_t kPhotometric = 262;
inline constexpr std::uint16_t kImageDescription = 270;
inline constexpr std::uint16_t kModel = 272;
inline constexpr std::uint16_t kStripOffsets = 273;
inline constexpr std::uint16_t kOrientation = 274;
inline constexpr std::uint16_t kSamplesPerPixel = 277;
inline constexpr std::uint16_t kRowsPerStrip = 278;
inline constexpr std::uint16_t kStripByteCounts = 279;
inline constexpr std::uint16_t kXResolution = 282;
inline constexpr std::uint16_t kYResolution = 283;
inline constexpr std::uint16_t kPlanarConfig = 284;
inline constexpr std::uint16_t kSampleFormat = 339;
inline constexpr std::uint16_t kThumbOffset = 513;   // JPEGInterchangeFormat
inline constexpr std::uint16_t kThumbLength = 514;   // JPEGInterchangeFormatLength
inline constexpr std::uint16_t kXmp = 700;
inline constexpr std::uint16_t kIptc = 33723;
inline constexpr std::uint16_t kPhotoshop = 34377;
inline constexpr std::uint16_t kExifIfd = 34665;
inline constexpr std::uint16_t kIccProfile = 34675;
inline constexpr std::uint16_t kGpsIfd = 34853;
// Exif IFD
inline constexpr std::uint16_t kExposureTime = 33434;
inline constexpr std::uint16_t kFNumber = 33437;
inline constexpr std::uint16_t kIso = 34855;
inline constexpr std::uint16_t kDateTimeOriginal = 36867;
inline constexpr std::uint16_t kShutterSpeed = 37377;
inline constexpr std::uint16_t kAperture = 37378;
inline constexpr std::uint16_t kMaxAperture = 37381;
inline constexpr std::uint16_t kFocalLength = 37386;
inline constexpr std::uint16_t kPlaneXRes = 41486;
inline constexpr std::uint16_t kPlaneResUnit = 41488;
inline constexpr std::uint16_t kExposureIndex = 41493;
inline constexpr std::uint16_t kFocal35 = 41989;
// GPS IFD
inline constexpr std::uint16_t kGpsVersion = 0;
inline constexpr std::uint16_t kGpsLatRef = 1;
inline constexpr std::uint16_t kGpsLat = 2;
inline constexpr std::uint16_t kGpsLongRef = 3;
inline constexpr std::uint16_t kGpsLong = 4;
inline constexpr std::uint16_t kGpsAltRef = 5;
inline constexpr std::uint16_t kGpsAlt = 6;
inline constexpr std::uint16_t kGpsTime = 7;
inline constexpr std::uint16_t kGpsDate = 29;
}  // namespace tag

// TIFF field types.
enum TiffType : std::uint16_t {
    kTiffByte = 1,
    kTiffAscii = 2,
    kTiffShort = 3,
    kTiffLong = 4,
    kTiffRational = 5,
    kTiffUndefined = 7,
    kTiffSRational = 10,
};

}  // namespace ol
