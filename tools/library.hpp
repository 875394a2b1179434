// Everything the program asks of the library: reading frames and metadata,
// Radiance pictures, and the Exif block of PNG and JPEG outputs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "image.hpp"

namespace olhdr {

struct Metadata {
    bool hasExif = false;  // the library found Exif data in the file
    ExifRecord exif{};
    GpsRecord gps{};
    std::vector<std::uint8_t> iptc;  // IPTC block, empty when none
    std::vector<std::uint8_t> icc;   // ICC profile, empty when none
    std::string profileName;         // short name of the profile, as the library reads it

    bool hasExposure() const { return exif.exposureNum > 0 && exif.exposureDen > 0; }
};

struct Frame {
    std::string path;
    FileKind kind = FileKind::Unknown;
    Image image;  // always 3 samples a pixel
    Metadata meta;
};

// Decodes a frame (JPEG, PNG, 8/16-bit TIFF on the system's libraries; PSD
// through the library) and reads its metadata through the library. Throws
// Failure(kExitInput) with the file's name.
Frame loadFrame(const std::string& path, bool verbose);

// Metadata of a file of a known kind (Radiance files: only Exif values).
Metadata readMetadata(const std::string& path, FileKind kind, const Image* decoded, bool verbose);

// Size and Exif values of a Radiance picture, and its pixels as rgbe planes.
struct RadianceFile {
    int width = 0;
    int height = 0;
    ExifRecord exif{};
    bool hasPrimaries = false;
    float primaries[8] = {};
};
RadianceFile readRadianceHeader(const std::string& path, bool verbose);
std::vector<std::uint8_t> readRadiancePixels(const std::string& path, const RadianceFile& info,
                                             bool verbose);

// PSD size without reading pixels.
struct PsdSummary {
    PsdInfo info{};
    int depth = 0;
};
PsdSummary readPsdSummary(const std::string& path, bool verbose);

// The Exif block for a JPEG APP1 segment or a PNG eXIf chunk; empty when the
// records hold nothing to write.
std::vector<std::uint8_t> exifBlock(const ExifRecord& exif, const GpsRecord& gps, int orientation);

// Short name of an ICC profile ("sRGB", "Adobe RGB", ... or its description).
std::string profileName(const std::vector<std::uint8_t>& icc);

// Keywords (dataset 2:25) of an IPTC block.
std::vector<std::string> iptcKeywords(const std::vector<std::uint8_t>& iptc);

// Text of a fixed-width record field that may lack its terminator.
std::string fieldText(const char* field, std::size_t size);

// "1/250", "2.5", or "" for a missing rational.
std::string rationalText(int num, int den, bool asFraction);

}  // namespace olhdr

namespace olhdr {

class Progress;

// Frames of one size and depth in one photo block, as the merge and the
// fusion take them.
struct FrameSet {
    int width = 0;
    int height = 0;
    int bps = 0;
    std::vector<std::string> paths;
    std::vector<Metadata> meta;
    std::vector<int> means;  // mean luminance level of each frame, 0..65280
    std::vector<std::uint8_t> block;

    int count() const { return static_cast<int>(paths.size()); }
    std::size_t frameBytes() const {
        return static_cast<std::size_t>(width) * height * 3 * (bps / 8);
    }
};

// Loads the frames one by one into the block. A frame whose size or depth
// differs from the first fails with kExitInput naming it.
FrameSet loadFrameSet(const std::vector<std::string>& paths, bool verbose, Progress& progress);

// Takes a black level off every sample: `level` (on the 8-bit scale, 257
// times that for 16-bit frames) becomes 0 and the range is stretched back to
// full scale. Film scans and some converters put black well above 0, which
// the merge would take for light.
void applyBlackLevel(FrameSet& frames, double level);

// The green level (8-bit scale) under which 2% of the darkest frame's
// pixels above 0 lie: well above 0 it hints at a black level.
int shadowFloor(const FrameSet& frames);

// Exposure of each frame (larger is brighter): from --ev-step when given,
// else from the times the user gave (`times`, one per frame, seconds; with
// each frame's Exif aperture and ISO when it has them), else from Exif when
// every frame has an exposure time, else inferred from the frames'
// brightness. `source` says which; `notes` and `warnings` are for stderr:
// inferred exposures, frames taken in another order than given, and
// exposures that disagree with the frames' brightness.
struct Exposures {
    std::vector<float> deltaT;
    std::string source;
    bool inferred = false;
    std::vector<std::string> notes;
    std::vector<std::string> warnings;
};
Exposures frameExposures(const FrameSet& frames, double evStep, const std::vector<double>& times,
                         const std::string& timesSource, bool verbose);

// What all frames share: the first frame's record with the values that
// differ between frames blanked.
ExifRecord sharedExif(const FrameSet& frames);

}  // namespace olhdr
