// Timing of the two single-pass blends:
//
//   combine_bench [--reps N] [--quick]
//
// ol_combi_2images on two 6000x4000 frames (8 and 16 bits), and
// ol_combi_intensive on 3 frames of 3000x2000 (8 bits) for a few windows.
// Prints the median over N runs of the thread's CPU time (steadier than the
// wall clock on a shared machine), in ms and in ns per window sample for the
// intensive blend. Everything runs on the caller's thread.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <random>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace {

double cpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec * 1e-6;
}

// A bracket of n frames of one smooth scene with noise, each a stop apart.
template <class T>
std::vector<T> makeStack(int n, int w, int h) {
    const int top = sizeof(T) == 1 ? 255 : 65535;
    std::vector<T> img(static_cast<std::size_t>(n) * w * h * 3);
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> noise(-top / 60, top / 60);
    std::size_t i = 0;
    for (int k = 0; k < n; ++k)
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const double base = 0.3 + 0.28 * std::sin(x * 0.004 + 0.002 * y) * std::cos(y * 0.003);
                for (int c = 0; c < 3; ++c) {
                    const int v = static_cast<int>(top * std::min(1.0, base * (0.8 + 0.1 * c) * std::pow(2.0, k - 1))) + noise(rng);
                    img[i++] = static_cast<T>(std::clamp(v, 0, top));
                }
            }
    return img;
}

double median(int reps, const std::function<void()>& f) {
    std::vector<double> t;
    f();  // warm-up: page faults of the target
    for (int r = 0; r < reps; ++r) {
        const double t0 = cpuMs();
        f();
        t.push_back(cpuMs() - t0);
    }
    std::sort(t.begin(), t.end());
    return t[t.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    int reps = 5;
    bool quick = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--reps") && i + 1 < argc) reps = std::atoi(argv[++i]);
        if (!std::strcmp(argv[i], "--quick")) quick = true;
    }
    {
        const int w = 6000, h = 4000;
        auto s8 = makeStack<std::uint8_t>(2, w, h);
        std::vector<std::uint8_t> d8(s8.size() / 2);
        const double a = median(reps, [&] { ol_combi_2images(0, 0, 1, w, h, w * 3, 0, 8, 8, 3, s8.data(), d8.data()); });
        std::printf("ol_combi_2images   6000x4000  8->8   %8.1f ms  %5.2f ns/pixel\n", a, a * 1e6 / (double(w) * h));
        auto s16 = makeStack<std::uint16_t>(2, w, h);
        std::vector<std::uint16_t> d16(s16.size() / 2);
        const double b = median(reps, [&] { ol_combi_2images(0, 0, 1, w, h, w * 3, 0, 16, 16, 3, s16.data(), d16.data()); });
        std::printf("ol_combi_2images   6000x4000 16->16  %8.1f ms  %5.2f ns/pixel\n", b, b * 1e6 / (double(w) * h));
    }
    {
        const int w = 3000, h = 2000, n = 3;
        auto s8 = makeStack<std::uint8_t>(n, w, h);
        std::vector<std::uint8_t> d8(static_cast<std::size_t>(w) * h * 3);
        const struct { int step, r; float power, sat; } cfg[] = {{2, 8, 0.0f, 0.0f}, {1, 4, 0.0f, 0.0f}, {1, 10, 0.0f, 0.0f}, {2, 8, 5.0f, 3.0f}};
        for (const auto& c : cfg) {
            if (quick && c.r == 10) continue;
            const double m = median(reps, [&] {
                ol_combi_intensive(c.step, c.r, c.power, c.sat, n, w, h, w * 3, 0, 3, 8, 8, s8.data(), d8.data());
            });
            const double side = 2 * c.r / c.step + 1, samples = side * side * n * double(w) * h;
            std::printf("ol_combi_intensive 3x3000x2000 step %d r %2d power %.0f sat %.0f  %8.1f ms  %5.3f ns/window sample\n",
                        c.step, c.r, c.power, c.sat, m, m * 1e6 / samples);
        }
    }
    return 0;
}
