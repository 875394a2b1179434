#include "transform.hpp"

#include <cstdio>

#include "Ombrelumen40Lib1.h"
#include "args.hpp"

namespace olhdr {

Transform parseTransform(const Args& args) {
    Transform t;
    if (const auto crop = args.value("crop")) {
        long v[4];
        char tail = 0;
        if (std::sscanf(crop->c_str(), "%ld,%ld,%ld,%ld%c", &v[0], &v[1], &v[2], &v[3], &tail) != 4 ||
            v[0] < 0 || v[1] < 0 || v[2] < 1 || v[3] < 1 || v[0] > 1000000 || v[1] > 1000000 ||
            v[2] > 1000000 || v[3] > 1000000)
            throw Failure(kExitUsage, "option --crop: X,Y,W,H in pixels (X, Y from 0; W, H at least 1), not '" +
                                          *crop + "'");
        t.crop = true;
        t.x = static_cast<int>(v[0]);
        t.y = static_cast<int>(v[1]);
        t.w = static_cast<int>(v[2]);
        t.h = static_cast<int>(v[3]);
    }
    if (const auto rot = args.value("rotate")) {
        if (*rot == "90") t.rotate = 90;
        else if (*rot == "180") t.rotate = 180;
        else if (*rot == "270") t.rotate = 270;
        else if (*rot != "0")
            throw Failure(kExitUsage, "option --rotate: 90, 180 or 270 (degrees clockwise), not '" + *rot + "'");
    }
    return t;
}

void Transform::check(int width, int height) const {
    if (!crop) return;
    if (x + w > width || y + h > height)
        throw Failure(kExitUsage, "--crop " + std::to_string(x) + "," + std::to_string(y) + "," + std::to_string(w) +
                                      "," + std::to_string(h) + " does not lie inside the " + std::to_string(width) +
                                      "x" + std::to_string(height) + " picture");
}

std::string Transform::text() const {
    std::string s;
    if (crop)
        s = "cropped to " + std::to_string(w) + "x" + std::to_string(h) + " at " + std::to_string(x) + "," +
            std::to_string(y);
    if (rotate) s += std::string(s.empty() ? "" : ", ") + "rotated " + std::to_string(rotate) + " degrees clockwise";
    return s;
}

namespace {
// The library's turns: 90 clockwise, 270 anticlockwise; 180 is two of 90.
int quarterTurns(int rotate) { return rotate == 270 ? -1 : rotate / 90; }
}  // namespace

void transformImage(const Transform& t, Image& img) {
    const int bytes = img.bps / 8;
    if (t.crop) {
        t.check(img.width, img.height);
        std::vector<std::uint8_t> out(static_cast<std::size_t>(t.w) * t.h * img.spp * bytes);
        crop_ldr(img.bps, img.width * img.spp, t.w, t.h, t.w * img.spp, img.spp, t.x, t.y, img.pixels.data(),
                 out.data());
        img.pixels.swap(out);
        img.width = t.w;
        img.height = t.h;
    }
    const int turns = quarterTurns(t.rotate);
    for (int k = 0; k < (turns < 0 ? 1 : turns); ++k) {
        std::vector<std::uint8_t> out(img.pixels.size());
        rot_ldr(turns < 0 ? 270 : 90, img.bps, img.width, img.height, img.width * img.spp, img.spp,
                img.height * img.spp, img.pixels.data(), out.data());
        img.pixels.swap(out);
        std::swap(img.width, img.height);
    }
}

void transformRgbe(const Transform& t, std::vector<std::uint8_t>& planes, int& w, int& h) {
    if (t.crop) {
        t.check(w, h);
        std::vector<std::uint8_t> out(static_cast<std::size_t>(t.w) * t.h * 4);
        // crop_hdr finds row `top` by the source row length itself.
        crop_hdr(w, t.w, t.h, t.x, t.y, planes.data(), out.data());
        planes.swap(out);
        w = t.w;
        h = t.h;
    }
    const int turns = quarterTurns(t.rotate);
    for (int k = 0; k < (turns < 0 ? 1 : turns); ++k) {
        std::vector<std::uint8_t> out(planes.size());
        rot_hdr(turns < 0 ? 270 : 90, w, h, planes.data(), out.data());
        planes.swap(out);
        std::swap(w, h);
    }
}

}  // namespace olhdr
