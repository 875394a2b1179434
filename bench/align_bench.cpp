// Timing of align on synthetic brackets: 3 and 5 frames of 3000x2000 and
// 6000x4000, 8 and 16 bits, three samples a pixel, frames two stops apart
// and moved by known amounts (so that every level of the search has work).
//
//   align_bench [--benchmark_repetitions=5 --benchmark_report_aggregates_only=true]
//
// align rewrites its block in place, so each iteration starts from a fresh
// copy made with the timer paused. One thread: align runs on the caller's.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace {

const int kShifts[7][2] = {{0, 0}, {7, -9}, {-12, 4}, {20, 15}, {-5, -18}, {3, 11}, {-9, 2}};

// Random boxes on a soft gradient, seen through windows moved by kShifts, at
// exposures two stops apart with a 2.2 gamma.
std::vector<std::uint8_t> makeStack(int n, int width, int height, int bits) {
    const int m = 64, W = width + 2 * m, H = height + 2 * m;
    std::vector<float> scene(static_cast<std::size_t>(W) * H);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) scene[static_cast<std::size_t>(y) * W + x] = 0.05f + 0.2f * x / W + 0.1f * y / H;
    std::mt19937 rng(7);
    for (int b = 0; b < 400; ++b) {
        const int x0 = rng() % W, y0 = rng() % H, bw = 8 + rng() % (W / 8), bh = 8 + rng() % (H / 8);
        const float v = (rng() % 1000) / 1000.0f;
        for (int y = y0; y < std::min(H, y0 + bh); ++y)
            std::fill_n(&scene[static_cast<std::size_t>(y) * W + x0], std::min(W, x0 + bw) - x0, v);
    }
    const std::size_t bytes = bits / 8, frame = static_cast<std::size_t>(width) * height * 3 * bytes;
    std::vector<std::uint8_t> out(frame * n);
    const double top = bits == 8 ? 255.0 : 65535.0;
    for (int k = 0; k < n; ++k) {
        const double gain = std::exp2(2 * (k - n / 2));
        std::vector<std::uint16_t> curve(1001);  // the gamma at a thousandth's steps
        for (int i = 0; i <= 1000; ++i) curve[i] = static_cast<std::uint16_t>(top * std::pow(std::min(1.0, i / 1000.0 * gain), 1 / 2.2));
        for (int y = 0; y < height; ++y) {
            const float* row = &scene[static_cast<std::size_t>(y + m + kShifts[k][1]) * W + m + kShifts[k][0]];
            std::uint8_t* o = out.data() + k * frame + static_cast<std::size_t>(y) * width * 3 * bytes;
            for (int x = 0; x < width; ++x) {
                const float c[3] = {row[x] * 0.9f, row[x], row[x] * 0.8f};
                for (int i = 0; i < 3; ++i) {
                    const unsigned v = curve[static_cast<int>(c[i] * 1000)];
                    o[(3 * x + i) * bytes] = static_cast<std::uint8_t>(v);
                    if (bytes == 2) o[(3 * x + i) * 2 + 1] = static_cast<std::uint8_t>(v >> 8);
                }
            }
        }
    }
    return out;
}

void BM_align(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0)), width = static_cast<int>(state.range(1)),
              height = static_cast<int>(state.range(2)), bits = static_cast<int>(state.range(3));
    const std::vector<std::uint8_t> stack = makeStack(n, width, height, bits);
    std::vector<std::uint8_t> work(stack.size());
    int rc = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(work.data(), stack.data(), stack.size());
        int dims[2] = {0, 0};
        state.ResumeTiming();
        rc = align(n, width, height, 3, bits, dims, work.data());
        benchmark::DoNotOptimize(rc);
    }
    state.counters["spread"] = rc;
}

}  // namespace

BENCHMARK(BM_align)
    ->ArgNames({"frames", "width", "height", "bits"})
    ->ArgsProduct({{3, 5}, {3000}, {2000}, {8, 16}})
    ->ArgsProduct({{3, 5}, {6000}, {4000}, {8, 16}})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

BENCHMARK_MAIN();
