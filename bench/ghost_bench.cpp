// Timing of ol_ghost_detect on synthetic bracketed stacks with moving
// objects: 3 frames, three samples a pixel, frames one stop apart, exposures
// given (no guess).
//
//   ghost_bench [--sizes 3000x2000,6000x4000] [--frames 3] [--bps 8,16] [--reps N]
//
// Prints the median over N runs of the whole call, in ms and ms per
// megapixel (of one frame), from the wall clock and from the thread's CPU
// time (steadier on a shared machine), and the share of pixels marked. One
// thread: the detection runs on the caller's thread.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace {

std::vector<std::string> split(const char* s) {
    std::vector<std::string> v;
    std::string cur;
    for (; *s; ++s) {
        if (*s == ',') {
            v.push_back(cur);
            cur.clear();
        } else {
            cur += *s;
        }
    }
    if (!cur.empty()) v.push_back(cur);
    return v;
}

// A lit scene (a falloff with texture and noise) photographed at exposures
// 2^(k - (n-1)/2) through gamma 2.2, with a bright disc that moves across
// the frame from one exposure to the next.
std::vector<std::uint8_t> makeStack(int n, int w, int h, int bps, std::vector<float>& dt) {
    dt.resize(n);
    for (int k = 0; k < n; ++k) dt[k] = std::ldexp(1.0f, k - (n - 1) / 2);
    std::vector<std::uint16_t> gamma(4097);
    for (int i = 0; i <= 4096; ++i) gamma[i] = static_cast<std::uint16_t>(std::pow(i / 4096.0, 1 / 2.2) * 65535.0);
    const std::size_t frame = static_cast<std::size_t>(w) * h * 3;
    std::vector<std::uint8_t> img(frame * n * (bps / 8));
    std::uint32_t s = 12345u;
    const float r = h / 8.0f;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float fx = float(x) / w, fy = float(y) / h;
            const float light = 0.05f + 0.3f * fx * (0.5f + fy);
            for (int c = 0; c < 3; ++c) {
                s = s * 1664525u + 1013904223u;
                const float base = light * (0.8f + 0.15f * std::sin(0.05f * x + c) * std::cos(0.031f * y)) +
                                   0.01f * float(s >> 24) / 255.0f;
                const std::size_t i = (static_cast<std::size_t>(y) * w + x) * 3 + c;
                for (int k = 0; k < n; ++k) {
                    const float cx = w * (0.2f + 0.6f * k / std::max(n - 1, 1)), cy = h * 0.5f;
                    const bool disc = (x - cx) * (x - cx) + (y - cy) * (y - cy) < r * r;
                    float e = (disc ? 0.35f : base) * dt[k] * 0.5f;
                    e = e > 1.0f ? 1.0f : e;
                    const std::uint16_t v = gamma[static_cast<int>(e * 4096.0f)];
                    if (bps == 8)
                        img[k * frame + i] = static_cast<std::uint8_t>(v >> 8);
                    else
                        std::memcpy(&img[2 * (k * frame + i)], &v, 2);
                }
            }
        }
    return img;
}

double cpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const std::size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> sizes = {"3000x2000", "6000x4000"};
    std::vector<std::string> depths = {"8"};
    int frames = 3, reps = 7;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--sizes") sizes = split(argv[i + 1]);
        else if (a == "--frames") frames = std::atoi(argv[i + 1]);
        else if (a == "--bps") depths = split(argv[i + 1]);
        else if (a == "--reps") reps = std::atoi(argv[i + 1]);
    }
    std::printf("ol_ghost_detect, %d frames, spp 3, threshold 10, exposures given, median of %d runs, 1 thread\n",
                frames, reps);
    std::printf("%-10s %4s %10s %10s %12s %12s %8s\n", "size", "bps", "wall ms", "cpu ms", "wall ms/MP", "cpu ms/MP",
                "marked");
    for (const std::string& size : sizes) {
        const int w = std::atoi(size.c_str()), h = std::atoi(size.c_str() + size.find('x') + 1);
        for (const std::string& d : depths) {
            const int bps = std::atoi(d.c_str());
            std::vector<float> dt;
            std::vector<std::uint8_t> img = makeStack(frames, w, h, bps, dt);
            const std::size_t pixels = static_cast<std::size_t>(w) * h;
            std::vector<unsigned char> mask((pixels + 7) / 8);
            std::vector<double> wall, cpu;
            long marked = 0;
            for (int r = 0; r < reps; ++r) {
                std::fill(mask.begin(), mask.end(), 0);
                float settings[1] = {10.0f};
                const double c0 = cpuSeconds();
                const auto t0 = std::chrono::steady_clock::now();
                const int rc = ol_ghost_detect(settings, frames, w, h, 3, bps, -1.0f, dt.data(), img.data(), mask.data());
                const auto t1 = std::chrono::steady_clock::now();
                cpu.push_back(cpuSeconds() - c0);
                wall.push_back(std::chrono::duration<double>(t1 - t0).count());
                if (rc < 0) {
                    std::fprintf(stderr, "ol_ghost_detect failed: %d\n", rc);
                    return 1;
                }
            }
            for (unsigned char b : mask) marked += __builtin_popcount(b);
            const double mp = pixels / 1e6;
            std::printf("%-10s %4d %10.1f %10.1f %12.2f %12.2f %7.2f%%\n", size.c_str(), bps, median(wall) * 1e3,
                        median(cpu) * 1e3, median(wall) * 1e3 / mp, median(cpu) * 1e3 / mp,
                        100.0 * marked / double(pixels));
        }
    }
    return 0;
}
