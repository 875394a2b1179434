// Timing of the single-image operators on photo-like images of 3000x2000 and
// 6000x4000, three samples a pixel:
//
//   operators_bench [--reps N] [--only NAME] [--large-only | --small-only]
//
// Prints, for each operator and size, the median over N runs of the whole
// call in ms and in ms per megapixel, from the thread's CPU time (steadier
// than the wall clock on a shared machine). The remaps count their output
// pixels (twice the source's). Everything runs on the caller's thread.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace {

double cpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec * 1e-6;
}

// A smooth scene with a wide range and some noise, as 16-bit samples.
std::vector<std::uint16_t> makeImage(int w, int h) {
    std::vector<std::uint16_t> img(static_cast<std::size_t>(w) * h * 3);
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> noise(-600, 600);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double base = 0.5 + 0.45 * std::sin(x * 0.004 + 0.002 * y) * std::cos(y * 0.003);
            for (int c = 0; c < 3; ++c) {
                const int v = static_cast<int>(65535.0 * base * (0.8 + 0.1 * c)) + noise(rng);
                img[(static_cast<std::size_t>(y) * w + x) * 3 + c] = static_cast<std::uint16_t>(std::clamp(v, 0, 65535));
            }
        }
    return img;
}

struct Result {
    std::string name;
    int w, h;
    double ms, msPerMp;
};

Result timeIt(const std::string& name, int w, int h, double megapixels, int reps, const std::function<void()>& f) {
    std::vector<double> t;
    f();  // warm-up: page faults of the target and the tables
    for (int r = 0; r < reps; ++r) {
        const double t0 = cpuMs();
        f();
        t.push_back(cpuMs() - t0);
    }
    std::sort(t.begin(), t.end());
    const double med = t[t.size() / 2];
    return {name, w, h, med, med / megapixels};
}

}  // namespace

int main(int argc, char** argv) {
    int reps = 5;
    std::string only;
    bool small = true, large = true;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--reps") && i + 1 < argc) reps = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--only") && i + 1 < argc) only = argv[++i];
        else if (!std::strcmp(argv[i], "--large-only")) small = false;
        else if (!std::strcmp(argv[i], "--small-only")) large = false;
    }
    std::vector<std::pair<int, int>> sizes;
    if (small) sizes.push_back({3000, 2000});
    if (large) sizes.push_back({6000, 4000});
    std::printf("%-12s %-10s %10s %10s\n", "operator", "size", "median ms", "ms/MP");
    for (auto [w, h] : sizes) {
        const std::size_t n = static_cast<std::size_t>(w) * h * 3;
        const double mp = w * 1e-6 * h;
        const auto img16 = makeImage(w, h);
        std::vector<std::uint8_t> img8(n);
        for (std::size_t i = 0; i < n; ++i) img8[i] = static_cast<std::uint8_t>(img16[i] >> 8);
        std::vector<std::uint8_t> out8(n), stack8(3 * n), scratch(2 * static_cast<std::size_t>(w) * h);
        std::vector<std::uint16_t> out16(n);
        for (int k = 0; k < 3; ++k)
            for (std::size_t i = 0; i < n; ++i)
                stack8[k * n + i] = static_cast<std::uint8_t>(std::clamp(img8[i] * (k + 1) / 2, 0, 255));
        std::vector<Result> res;
        auto want = [&](const char* name) { return only.empty() || only == name; };
        const int stride = w * 3;
        if (want("comp16"))
            res.push_back(timeIt("comp16", w, h, mp, reps, [&] { comp16(30, w, h, stride, 3, img16.data(), out8.data()); }));
        if (want("hsauto"))
            res.push_back(timeIt("hsauto", w, h, mp, reps, [&] {
                hsauto(3, w, h, stride, 0, 8, 8, 3, scratch.data(), stack8.data(), out8.data());
            }));
        if (want("moyenne"))
            res.push_back(timeIt("moyenne", w, h, mp, reps,
                                 [&] { moyenne(3, w, h, stride, 0, 3, 8, 8, stack8.data(), out8.data()); }));
        if (want("lumcontr")) {
            res.push_back(timeIt("lumcontr8", w, h, mp, reps, [&] { lumcontr(0.3f, 5, 8, w, h, stride, 3, out8.data()); }));
            out16 = img16;
            res.push_back(timeIt("lumcontr16", w, h, mp, reps, [&] { lumcontr(0.3f, 5, 16, w, h, stride, 3, out16.data()); }));
        }
        if (want("sharpen")) {
            res.push_back(timeIt("sharpen", w, h, mp, reps, [&] { sharpen(0.6f, w, h, stride, 3, img8.data(), out8.data()); }));
            res.push_back(timeIt("sharp16", w, h, mp, reps, [&] { sharp16(0.6f, w, h, stride, 3, img16.data(), out16.data()); }));
        }
        if (want("remap")) {
            // Output pixels: 2w x h.
            std::vector<std::uint8_t> pano8(2 * n);
            for (int mode : {0, 1, 2}) {
                const std::string name = "remap_ldr" + std::to_string(mode);
                res.push_back(timeIt(name, w, h, 2 * mp, std::max(1, reps / 2), [&] {
                    remap_ldr(mode, 8, w, h, stride, 2 * stride, 3, img8.data(), pano8.data());
                }));
            }
            std::vector<std::uint8_t> planes(4 * static_cast<std::size_t>(w) * h), pano(8 * static_cast<std::size_t>(w) * h);
            for (std::size_t i = 0; i < planes.size(); ++i) planes[i] = static_cast<std::uint8_t>(img8[i % n] | 1);
            for (int mode : {0, 1, 2}) {
                const std::string name = "remap_hdr" + std::to_string(mode);
                res.push_back(timeIt(name, w, h, 2 * mp, std::max(1, reps / 2),
                                     [&] { remap_hdr(mode, w, h, planes.data(), pano.data()); }));
            }
        }
        for (const auto& r : res) {
            std::printf("%-12s %5dx%-5d %10.2f %10.3f\n", r.name.c_str(), r.w, r.h, r.ms, r.msPerMp);
            std::fflush(stdout);
        }
    }
    return 0;
}
