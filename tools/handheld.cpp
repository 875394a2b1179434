#include "handheld.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cli.hpp"

namespace olhdr {

std::vector<SceneFrame> renderHandheld(const BracketSpec& spec, const Handheld& handheld) {
    int margin = 0;
    for (const auto& [dx, dy] : handheld.shifts) margin = std::max({margin, std::abs(dx), std::abs(dy)});
    BracketSpec big = spec;
    big.width = spec.width + 2 * margin;
    big.height = spec.height + 2 * margin;
    std::vector<SceneFrame> frames = renderBracket(big);
    const int bytes = spec.bits / 8;
    const std::size_t px = static_cast<std::size_t>(3) * bytes;
    for (std::size_t k = 0; k < frames.size(); ++k) {
        SceneFrame& f = frames[k];
        const auto [dx, dy] = k < handheld.shifts.size() ? handheld.shifts[k] : std::pair<int, int>{0, 0};
        Image out = f.image;
        out.width = spec.width;
        out.height = spec.height;
        out.pixels.assign(out.byteCount(), 0);
        // Content moved right by dx: output x shows scene column x - dx.
        for (int y = 0; y < spec.height; ++y)
            std::memcpy(out.pixels.data() + y * out.rowBytes(),
                        f.image.pixels.data() + (y + margin - dy) * f.image.rowBytes() + (margin - dx) * px,
                        out.rowBytes());
        if (handheld.moving) {
            // A square a fifth of the height across, one and a half sides
            // further right in each frame, in one solid colour whatever the
            // exposure: no exposure ratio explains it.
            const int side = std::max(2, spec.height / 5);
            const int x0 = side / 2 + static_cast<int>(k) * (side * 3 / 2), y0 = spec.height / 2;
            const unsigned colour[3] = {220, 30, 30};
            for (int y = y0; y < std::min(spec.height, y0 + side); ++y)
                for (int x = x0; x < std::min(spec.width, x0 + side); ++x)
                    for (int c = 0; c < 3; ++c) {
                        std::uint8_t* p = out.pixels.data() + y * out.rowBytes() + x * px + c * bytes;
                        if (bytes == 1)
                            p[0] = static_cast<std::uint8_t>(colour[c]);
                        else
                            p[0] = p[1] = static_cast<std::uint8_t>(colour[c]);
                    }
        }
        f.image = std::move(out);
    }
    return frames;
}

std::vector<std::pair<int, int>> parseShifts(const std::string& text, int frames) {
    std::vector<std::pair<int, int>> shifts;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find(':', start), text.size());
        const std::string item = text.substr(start, end - start);
        int dx = 0, dy = 0;
        char tail = 0;
        if (std::sscanf(item.c_str(), "%d,%d%c", &dx, &dy, &tail) != 2 || std::abs(dx) > 1000 || std::abs(dy) > 1000)
            throw Failure(kExitUsage, "option --shift: 'X,Y' a frame, separated by ':' (e.g. 0,0:3,-2)");
        shifts.emplace_back(dx, dy);
        start = end + 1;
    }
    if (static_cast<int>(shifts.size()) > frames)
        throw Failure(kExitUsage, "option --shift: more shifts than frames");
    return shifts;
}

}  // namespace olhdr
