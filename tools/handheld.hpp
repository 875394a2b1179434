// Frames for trying alignment and ghost removal: the synthetic bracket as a
// handheld camera takes it (each frame displaced by whole pixels) and with
// an object that moves between frames.
#pragma once

#include <utility>
#include <vector>

#include "scene.hpp"

namespace olhdr {

struct Handheld {
    std::vector<std::pair<int, int>> shifts;  // (right, down) a frame; missing ones 0
    bool moving = false;  // a red square that moves right from frame to frame
};

// The bracket of `spec`, with frame k's content displaced right by
// shifts[k].first and down by shifts[k].second pixels.
std::vector<SceneFrame> renderHandheld(const BracketSpec& spec, const Handheld& handheld);

// "3,-2:0,0:1,1" -> shifts; throws Failure(kExitUsage) on a bad list.
std::vector<std::pair<int, int>> parseShifts(const std::string& text, int frames);

}  // namespace olhdr
