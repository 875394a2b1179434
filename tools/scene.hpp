// A synthetic bracketed scene, rendered in code: a sky gradient with a bright
// sun disc, a lit facade with dark shadowed windows, textured ground and a row
// of colour patches. Each frame is the same radiance seen through a
// camera-like response at one exposure time, with a little noise, quantised
// to 8 or 16 bits. The program's demonstration and the tests use it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image.hpp"

namespace olhdr {

struct BracketSpec {
    int width = 1200;
    int height = 800;
    int frames = 3;
    double evStep = 2.0;       // stops between neighbouring frames
    int bits = 8;              // 8 or 16
    unsigned seed = 1;         // noise pattern
};

struct SceneFrame {
    Image image;
    int exposureNum = 0;       // exposure time as written into Exif
    int exposureDen = 0;
    double ev = 0;             // stops relative to the middle frame
};

// Frames from the darkest to the brightest. Exposure times are those a camera
// would show (1/250, 1/60, 1/15 s for three frames two stops apart), and the
// rendering uses exactly those times.
std::vector<SceneFrame> renderBracket(const BracketSpec& spec);

// Radiance of the scene at a pixel, linear RGB (for tests: brightest and
// darkest parts and their ratio).
void sceneRadiance(int width, int height, int x, int y, float rgb[3]);

// A small display ICC profile (gamma 2.2, sRGB primaries) whose description
// reads "sRGB gamma 2.2 (olhdr synthetic)", embedded in generated frames.
std::vector<std::uint8_t> syntheticProfile();

}  // namespace olhdr
