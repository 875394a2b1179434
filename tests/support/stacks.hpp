// Synthetic bracketed stacks, a photo block for the merges, and a wrapper
// around ol_fusion for the fusion tests.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace fustest {

// A photo block: n frames of w x h pixels of spp samples of bps bits, frame k
// from sample k*w*h*spp, 16-bit samples little-endian.
struct Photos {
    int n, w, h, spp, bps;
    std::vector<std::uint8_t> bytes;
    Photos(int n_, int w_, int h_, int spp_, int bps_)
        : n(n_), w(w_), h(h_), spp(spp_), bps(bps_), bytes(static_cast<std::size_t>(n_) * w_ * h_ * spp_ * bps_ / 8) {}
    std::size_t px() const { return static_cast<std::size_t>(w) * h; }
    std::size_t at(int k, std::size_t i) const { return (k * px() * spp + i) * (bps / 8); }
    unsigned get(int k, std::size_t i) const {
        return bps == 16 ? bytes[at(k, i)] | bytes[at(k, i) + 1] << 8 : bytes[at(k, i)];
    }
    void set(int k, std::size_t i, unsigned v) {
        for (int b = 0; b < bps / 8; ++b) bytes[at(k, i) + b] = static_cast<std::uint8_t>(v >> 8 * b);
    }
};

// A bracketed stack of one smooth scene with some texture: photo p is the
// scene times 4^(p - (n-1)/2), clipped. Samples are 8 or 16 bits.
inline std::vector<std::uint8_t> makeStack(int n, int w, int h, int ch, int bps, unsigned seed = 1) {
    Photos stack(n, w, h, ch, bps);
    std::uint32_t s = seed * 2654435761u + 12345u;
    for (int p = 0; p < n; ++p) {
        const double gain = std::pow(4.0, p - (n - 1) / 2.0);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < ch; ++c) {
                    s = s * 1664525u + 1013904223u;
                    const double scene = 0.02 + 0.5 * (x + 0.5) / w * (y + 1.0) / h +
                                         0.1 * std::sin(0.7 * x + 1.3 * c) * std::cos(0.5 * y) +
                                         0.02 * ((s >> 24) / 255.0);
                    const double v = std::clamp(scene * gain, 0.0, 1.0);
                    const std::size_t i = (static_cast<std::size_t>(y) * w + x) * ch + c;
                    stack.set(p, i, static_cast<unsigned>(v * (bps == 8 ? 255.0 : 65535.0)));
                }
    }
    return stack.bytes;
}

// Flat photos of w x h pixels and `ch` 8-bit channels, one photo a level.
inline std::vector<std::uint8_t> flatStack(int w, int h, std::initializer_list<int> levels, int ch = 3) {
    std::vector<std::uint8_t> bytes;
    for (int level : levels) bytes.insert(bytes.end(), static_cast<std::size_t>(w) * h * ch, level);
    return bytes;
}

// A scene of smooth radiance photographed at each exposure of `dt` through a
// 2.2 gamma, with noise, clipped: every frame has dark and burnt-out areas.
// 3% of the pixels are black in every frame, and 8% of the samples are pure
// noise that disagrees between frames.
inline Photos bracketScene(int n, int w, int h, int spp, int bps, const std::vector<float>& dt, unsigned seed) {
    Photos s(n, w, h, spp, bps);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0, 1);
    const double top = bps == 8 ? 255 : 65535;
    for (std::size_t p = 0; p < s.px(); ++p) {
        const double base = std::exp(-7 + 10.0 * (p % w + p / w * 0.7) / (w + h * 0.7));
        const bool black = u(rng) > 0.97;
        for (int c = 0; c < spp; ++c) {
            const double r = base * (0.3 + 1.4 * u(rng));
            const bool wild = u(rng) < 0.08;
            for (int k = 0; k < n; ++k) {
                const double v = black ? 0
                                 : wild ? u(rng) * (top + 1)
                                        : top * std::pow(r * dt[k], 1 / 2.2) + (u(rng) - 0.5) * top / 40;
                s.set(k, p * spp + c, static_cast<unsigned>(std::clamp(v, 0.0, top)));
            }
        }
    }
    return s;
}

struct Job {
    int n = 3, w = 23, h = 17, ch = 3;
    int bspIn = 8, bspOut = 8, bdp = 16, bdf = 16;
    int nbProc = 0, disk = 0, wrapX = 0, outSwap = 0;
    int lenPyram = 0;   // 0: pyram_len(w, h); the work buffer is always that size
    float params[7] = {0, 0, 0, 0, 0, 0, 0};
    std::vector<int> fixedExpo;          // empty: {-1, ...}
    std::vector<unsigned char> mask;     // empty: null
    std::string dir;                     // scratch folder for disk mode
    std::string nameSource, namePoids, namePyramPoids;  // override names
    OlProgressFn progress = nullptr;
    unsigned char workFill = 0;

    int status = 0;
    std::vector<std::uint8_t> images;  // after the call
    std::vector<std::uint8_t> work;    // after the call

    // The synthetic stack of this job's count, size, channels and depth.
    std::vector<std::uint8_t> stack(unsigned seed = 1) const { return makeStack(n, w, h, ch, bspIn, seed); }

    // The same job in disk mode with its scratch files in `folder`.
    Job onDisk(const std::string& folder) const {
        Job j = *this;
        j.disk = 1;
        j.dir = folder;
        return j;
    }

    // Whether the photos buffer still holds `source` after the call (memory
    // mode leaves it alone; disk mode reuses it).
    bool photosKept(const std::vector<std::uint8_t>& source) const {
        return std::equal(source.begin(), source.end(), images.begin());
    }

    std::vector<std::uint8_t> output() const {
        return std::vector<std::uint8_t>(work.begin(), work.begin() + static_cast<std::ptrdiff_t>(h) * w * ch * (bspOut / 8));
    }

    int go(const std::vector<std::uint8_t>& source) {
        // Exactly the sizes the caller is asked for, so that the sanitizer
        // builds see any access beyond them.
        images = source;
        const int len = pyram_len(w, h);
        work.assign(static_cast<std::size_t>(len) * ch * 2, workFill);
        std::vector<int> fixed = fixedExpo;
        fixed.resize(std::max(n, 1), -1);
        std::vector<float> expo(std::max(n, 1), 1.0f);
        const auto name = [&](const std::string& given, const char* file) { return given.empty() && !dir.empty() ? dir + file : given; };
        const std::string s = name(nameSource, "/source.tmp"), p = name(namePoids, "/poids.tmp"), q = name(namePyramPoids, "/pyram.tmp");
        FusionFiles files{nbProc, disk, s.empty() ? nullptr : s.c_str(), p.empty() ? nullptr : p.c_str(),
                          q.empty() ? nullptr : q.c_str()};
        float prm[7];
        std::memcpy(prm, params, sizeof prm);
        status = ol_fusion(&files, progress, prm, n, w, h, w * ch, outSwap, ch, bspIn,
                           bspOut, bdp, bdf, lenPyram ? lenPyram : len, wrapX, 1.0f, expo.data(), images.data(), fixed.data(),
                           mask.empty() ? nullptr : mask.data(), nullptr, work.data());
        return status;
    }
};

// A job of w x h pixels, `ch` channels and `n` photos, other settings at
// their defaults.
inline Job sized(int w, int h, int ch = 3, int n = 3) {
    Job j;
    j.w = w, j.h = h, j.ch = ch, j.n = n;
    return j;
}

// Sets bit `pixel` of plane `plane` in a mask of `planes` planes.
inline void setMaskBit(std::vector<unsigned char>& mask, int w, int h, int plane, std::size_t pixel) {
    const std::size_t i = static_cast<std::size_t>(plane) * w * h + pixel;
    const std::size_t bytes = (static_cast<std::size_t>(plane + 1) * w * h + 7) / 8;
    if (mask.size() < bytes) mask.resize(bytes, 0);
    mask[i >> 3] |= static_cast<unsigned char>(0x80u >> (i & 7));
}

}  // namespace fustest
