// The two roads from frames to a result, shared by their commands and by the
// demonstration.
#pragma once

#include <string>
#include <vector>

#include "cli.hpp"
#include "transform.hpp"

namespace olhdr {

class Progress;

struct MergeRequest {
    std::vector<std::string> frames;
    std::string out;          // Radiance picture
    std::string preview;      // PNG or JPEG, empty for none
    double evStep = 0;        // above 0: frames this many stops apart
    double gamma = 0;         // above 0: response gamma of the frames
    int stripRows = 0;        // above 0: write in strips of this many rows
    std::vector<double> times;  // seconds, one a frame; empty: Exif or inferred
    std::string timesSource;    // "from --times", "from LIST"
    std::string previewTone = "photographic";  // or "linear"
    double blackLevel = 0;      // 8-bit scale; above 0: taken off every sample
    Transform transform;        // --crop, --rotate of the picture and preview
    bool responseAuto = false;  // gamma estimated from the frames (--response auto)
    bool align = false;         // frames brought into register first
    bool keepSize = false;      // with align: keep the size (white margins)
    bool deghost = false;       // hdr_unghost instead of the plain merge
    bool consistency = false;   // with deghost: calc_hdr instead
};

struct FuseRequest {
    std::vector<std::string> frames;
    std::string out;          // TIFF, PNG or JPEG
    int bits = 8;             // output depth (TIFF and PNG: 8 or 16)
    float params[7] = {0, 0, 0, 0, 0, 0, 0};
    int threads = 0;          // 0: the machine's cores
    bool disk = false;        // scratch files instead of memory
    std::string scratch;      // folder for them, empty for the system's
    int quality = 92;         // JPEG quality
    int dpi = 300;
    std::vector<double> times;  // seconds, one a frame; empty: Exif or inferred
    std::string timesSource;
    Transform transform;        // --crop, --rotate of the output
    int compress = -1;        // >= 0: fused at 16 bits, brought to 8 by comp16 at this strength
    float contrast = 0;       // lumcontr's curve strength on the output, 0 for none
    float sharpen = 0;        // Laplacian sharpening amount on the output, 0 for none
    bool align = false;         // frames brought into register first
    bool keepSize = false;      // with align: keep the size (white margins)
    bool deghost = false;       // ghost masks filled from one frame
    int ghostThreshold = 20;    // ol_ghost_detect's threshold, 8-bit scale
    std::string method = "pyramid";  // pyramid, two (ol_combi_2images) or intensive (ol_combi_intensive)
};

void runMerge(const MergeRequest& req, const Common& common, Progress& progress);
void runFuse(const FuseRequest& req, const Common& common, Progress& progress);

}  // namespace olhdr
