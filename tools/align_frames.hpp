// Alignment and ghost detection of a frame set through the library, as the
// merge, the fusion and `olhdr ghosts` use them.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "cli.hpp"
#include "library.hpp"

namespace olhdr {

// Brings the frames into register (library `align`). The frame set takes the
// new size (the rectangle common to all frames, or the old size with white
// margins when keepSize). Returns each frame's displacement against the
// first frame, (right, down) in pixels, and prints nothing.
std::vector<std::pair<int, int>> alignFrames(FrameSet& frames, bool keepSize, bool verbose);

// "aligned: shifts against frame 1: 0,0 +3,-2 ...; cropped to 90x60"
std::string alignedLine(const std::vector<std::pair<int, int>>& shifts, const FrameSet& frames, bool keepSize);

// The ghost mask of the frames (library `ol_ghost_detect`): one bit a pixel,
// first pixel in the highest bit. deltaT: the exposure of each frame.
std::vector<std::uint8_t> detectGhosts(const FrameSet& frames, const std::vector<float>& deltaT, int threshold,
                                       bool verbose);
bool ghostBit(const std::vector<std::uint8_t>& mask, std::size_t pixel);
// Share of pixels marked, 0..1.
double markedShare(const std::vector<std::uint8_t>& mask, int width, int height);

// The frame that fills the marked regions: the middle exposure (for an even
// count, the darker of the two middle ones), so that highlights and shadows
// of the region are as little clipped as one frame allows.
int middleExposure(const std::vector<float>& deltaT);

// "ghosts: 3.2% of pixels marked (threshold 20), filled from frame 2"
std::string ghostLine(double share, int threshold, int fill);

// Default threshold of --ghost-threshold: on the 8-bit scale, about a steady
// error of 13 levels in every channel.
constexpr int kGhostThreshold = 20;

}  // namespace olhdr
