// Timing of the response estimate and the brightness scores on synthetic
// bracketed stacks: 8-bit, three samples a pixel, frames two stops apart,
// photographed with a 2.2 exponent.
//
//   response_bench [--reps N] [--sizes 3000x2000,6000x4000] [--frames 3,5]
//
// Prints medians over N runs, from the wall clock and the thread's CPU time:
// calc_courbe and moy_image read a grid of at most 2500 points per frame, so
// their time should not grow with the picture; moy_images reads every pixel.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace {

std::vector<int> parseList(const char* s, char sep = ',') {
    std::vector<int> v;
    while (*s) {
        v.push_back(std::atoi(s));
        while (*s && *s != sep && *s != ',') ++s;
        if (*s) ++s;
    }
    return v;
}

// A scene of 16 stops (diagonal ramp with a ripple), quantised to 4096 steps
// and taken through one level table per frame.
std::vector<std::uint8_t> makeStack(int n, int width, int height, const std::vector<float>& expo) {
    const std::size_t frame = static_cast<std::size_t>(width) * height * 3;
    std::vector<std::uint8_t> out(frame * n);
    std::vector<std::uint8_t> table(static_cast<std::size_t>(n) * 4096);
    for (int k = 0; k < n; ++k)
        for (int s = 0; s < 4096; ++s) {
            const double v = 255.0 * std::pow(std::exp2(-16.0 + 16.0 * s / 4096) * expo[k] / expo[n - 1], 1.0 / 2.2);
            table[k * 4096 + s] = static_cast<std::uint8_t>(std::clamp(v, 0.0, 255.0));
        }
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int base = static_cast<int>(4095.0 * (0.5 * x / width + 0.5 * y / height));
            const int ripple = static_cast<int>(200.0 * std::sin(x * 0.01) * std::sin(y * 0.013));
            const std::size_t at = (static_cast<std::size_t>(y) * width + x) * 3;
            for (int c = 0; c < 3; ++c) {
                const int s = std::clamp(base + ripple + (c - 1) * 60, 0, 4095);
                for (int k = 0; k < n; ++k) out[k * frame + at + c] = table[k * 4096 + s];
            }
        }
    return out;
}

double cpuNowMs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec * 1e-6;
}

struct Median {
    double wallMs, cpuMs;
};

template <class F>
Median time(int reps, F&& call) {
    std::vector<double> wall, cpu;
    for (int r = 0; r < reps; ++r) {
        const double c0 = cpuNowMs();
        const auto t0 = std::chrono::steady_clock::now();
        call();
        const auto t1 = std::chrono::steady_clock::now();
        cpu.push_back(cpuNowMs() - c0);
        wall.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    std::sort(wall.begin(), wall.end());
    std::sort(cpu.begin(), cpu.end());
    return {wall[wall.size() / 2], cpu[cpu.size() / 2]};
}

}  // namespace

int main(int argc, char** argv) {
    int reps = 31;
    std::vector<int> frames = {3, 5};
    std::vector<std::pair<int, int>> sizes = {{3000, 2000}, {6000, 4000}};
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--reps") reps = std::atoi(argv[i + 1]);
        else if (a == "--frames") frames = parseList(argv[i + 1]);
        else if (a == "--sizes") {
            const std::vector<int> v = parseList(argv[i + 1], 'x');
            sizes.clear();
            for (std::size_t k = 0; k + 1 < v.size(); k += 2) sizes.push_back({v[k], v[k + 1]});
        }
    }
    std::printf("8 bits, spp 3, frames two stops apart, median of %d runs, 1 thread\n", reps);
    std::printf("%-10s %-7s %-11s %8s %10s %10s %14s\n", "size", "frames", "call", "result", "wall us",
                "cpu us", "cpu ns/pixel");
    for (const auto& [width, height] : sizes)
        for (int n : frames) {
            std::vector<float> expo(n);
            for (int k = 0; k < n; ++k) expo[k] = std::exp2(2.0f * k);
            const auto stack = makeStack(n, width, height, expo);
            const double pixels = static_cast<double>(width) * height * n;
            std::vector<float> curve(256);
            std::vector<int> scores(n);
            int result = 0;
            auto row = [&](const char* name, const Median& m) {
                std::printf("%-10s %-7d %-11s %8d %10.1f %10.1f %14.4f\n",
                            (std::to_string(width) + "x" + std::to_string(height)).c_str(), n, name, result,
                            m.wallMs * 1e3, m.cpuMs * 1e3, m.cpuMs * 1e6 / pixels);
                std::fflush(stdout);
            };
            row("calc_courbe", time(reps, [&] {
                    result = calc_courbe(n, width, height, 8, 3, expo.data(), stack.data(), curve.data());
                }));
            row("moy_image", time(reps, [&] {
                    result = 0;
                    for (int k = 0; k < n; ++k)
                        result += moy_image(width, height, width * 3, 3, 8,
                                            stack.data() + static_cast<std::size_t>(k) * width * height * 3);
                }));
            row("moy_images", time(std::max(1, reps / 6), [&] {
                    result = moy_images(n, width, height, width * 3, 3, 8, stack.data(), scores.data());
                }));
        }
    return 0;
}
