// Timing of the image operations on a 6000x4000 picture: three 8-bit
// samples a pixel, the same in 16 bits, and rgbe planes. Each benchmark
// times one call; the destination is allocated and touched once before.
//
//   imageops_bench [--benchmark_repetitions=5 --benchmark_report_aggregates_only=true]
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace {

constexpr int W = 6000, H = 4000, OW = 1920, OH = 1280;

// A photo-like picture: smooth gradients with noise, so that histograms
// spread over many bins and rows differ.
const std::vector<std::uint8_t>& photo8() {
    static const std::vector<std::uint8_t> img = [] {
        std::vector<std::uint8_t> v(static_cast<std::size_t>(W) * H * 3);
        std::mt19937 rng(7);
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x)
                for (int c = 0; c < 3; ++c)
                    v[(static_cast<std::size_t>(y) * W + x) * 3 + c] =
                        static_cast<std::uint8_t>((x * 255 / W + y * 128 / H + c * 40 + (rng() & 15)) & 255);
        return v;
    }();
    return img;
}

const std::vector<std::uint16_t>& photo16() {
    static const std::vector<std::uint16_t> img = [] {
        const auto& p = photo8();
        std::vector<std::uint16_t> v(p.size());
        for (std::size_t i = 0; i < p.size(); ++i) v[i] = static_cast<std::uint16_t>(p[i] * 257 + (i & 255));
        return v;
    }();
    return img;
}

// rgbe planes of a picture spanning about 16 stops.
const std::vector<std::uint8_t>& planes() {
    static const std::vector<std::uint8_t> img = [] {
        std::vector<std::uint8_t> v(static_cast<std::size_t>(W) * H * 4);
        std::mt19937 rng(9);
        for (int y = 0; y < H; ++y) {
            std::uint8_t* row = v.data() + static_cast<std::size_t>(y) * 4 * W;
            for (int x = 0; x < W; ++x) {
                for (int c = 0; c < 3; ++c) row[c * W + x] = static_cast<std::uint8_t>(128 + (rng() & 127));
                row[3 * W + x] = static_cast<std::uint8_t>(120 + x * 16 / W);
            }
        }
        return v;
    }();
    return img;
}

template <class T>
std::vector<T> out(std::size_t n) {
    return std::vector<T>(n, T(1));
}

void BM_zoom2(benchmark::State& s) {
    const auto& src = photo8();
    auto dst = out<std::uint8_t>(static_cast<std::size_t>(OW) * OH * 3);
    const float step = static_cast<float>(W) / OW;
    for (auto _ : s) benchmark::DoNotOptimize(zoom2(step, 0, H, W * 3, OW, OH, OW * 3, 3, 8, src.data(), dst.data()));
}
void BM_zoom2_16(benchmark::State& s) {
    const auto& src = photo16();
    auto dst = out<std::uint8_t>(static_cast<std::size_t>(OW) * OH * 3);
    const float step = static_cast<float>(W) / OW;
    for (auto _ : s) benchmark::DoNotOptimize(zoom2(step, 0, H, W * 3, OW, OH, OW * 3, 3, 16, src.data(), dst.data()));
}
void BM_zoom_cm_matrix(benchmark::State& s) {
    const auto& src = photo8();
    auto dst = out<std::uint8_t>(static_cast<std::size_t>(OW) * OH * 3);
    const float m[9] = {0.9f, 0.05f, 0.05f, 0.1f, 0.8f, 0.1f, 0.02f, 0.08f, 0.9f};
    const float step = static_cast<float>(W) / OW;
    for (auto _ : s) benchmark::DoNotOptimize(zoom_cm(step, 0, H, W * 3, OW, OH, OW * 3, 3, 8, m, src.data(), dst.data()));
}
void BM_retaille(benchmark::State& s) {
    const auto& src = photo8();
    auto dst = out<std::uint8_t>(static_cast<std::size_t>(OW) * OH * 3);
    for (auto _ : s) benchmark::DoNotOptimize(retaille(W, H, W * 3, OW, OH, OW * 3, 3, src.data(), dst.data()));
}
void BM_rot_ldr(benchmark::State& s) {
    const auto& src = photo8();
    auto dst = out<std::uint8_t>(src.size());
    const int angle = static_cast<int>(s.range(0));
    for (auto _ : s) benchmark::DoNotOptimize(rot_ldr(angle, 8, W, H, W * 3, 3, H * 3, src.data(), dst.data()));
}
void BM_rot_ldr_16(benchmark::State& s) {
    const auto& src = photo16();
    auto dst = out<std::uint16_t>(src.size());
    for (auto _ : s) benchmark::DoNotOptimize(rot_ldr(90, 16, W, H, W * 3, 3, H * 3, src.data(), dst.data()));
}
void BM_rot_hdr(benchmark::State& s) {
    const auto& src = planes();
    auto dst = out<std::uint8_t>(src.size());
    const int angle = static_cast<int>(s.range(0));
    for (auto _ : s) benchmark::DoNotOptimize(rot_hdr(angle, W, H, src.data(), dst.data()));
}
void BM_crop_ldr(benchmark::State& s) {
    const auto& src = photo8();
    auto dst = out<std::uint8_t>(static_cast<std::size_t>(W / 2) * (H / 2) * 3);
    for (auto _ : s)
        benchmark::DoNotOptimize(crop_ldr(8, W * 3, W / 2, H / 2, W / 2 * 3, 3, W / 4, H / 4, src.data(), dst.data()));
}
void BM_crop_hdr(benchmark::State& s) {
    const auto& src = planes();
    auto dst = out<std::uint8_t>(static_cast<std::size_t>(W / 2) * (H / 2) * 4);
    for (auto _ : s) benchmark::DoNotOptimize(crop_hdr(W, W / 2, H / 2, W / 4, H / 4, src.data(), dst.data()));
}
void BM_histcolors(benchmark::State& s) {
    const auto& src = photo8();
    std::vector<int32_t> h0(256), h1(256), h2(256);
    for (auto _ : s) benchmark::DoNotOptimize(histcolors(W, H, W * 3, 3, 8, src.data(), h2.data(), h1.data(), h0.data()));
}
void BM_histlum(benchmark::State& s) {
    const auto& src = photo8();
    std::vector<int32_t> h(256);
    for (auto _ : s) benchmark::DoNotOptimize(histlum(W, H, W * 3, 3, 8, src.data(), h.data()));
}
void BM_hist16(benchmark::State& s) {
    const auto& src = photo16();
    std::vector<int32_t> h(512);
    float range[2];
    for (auto _ : s) benchmark::DoNotOptimize(hist16(W, H, W * 3, 3, src.data(), range, h.data()));
}
void BM_getHisto32(benchmark::State& s) {
    const auto& src = planes();
    std::vector<int32_t> h(512);
    const float range[2] = {1.0f, 1.0e6f};
    for (auto _ : s) benchmark::DoNotOptimize(getHisto32(W, H, src.data(), range, h.data()));
}
void BM_hist32info(benchmark::State& s) {
    std::vector<int32_t> h(512);
    for (int i = 0; i < 512; ++i) h[i] = (i * 7919) % 1000;
    const float range[2] = {1.0f, 1.0e6f};
    for (auto _ : s) {
        float info[10] = {1.0f, 99.0f};
        benchmark::DoNotOptimize(hist32info(range, 32, h.data(), info));
    }
}
void BM_extract_basepreview(benchmark::State& s) {
    const auto& src = photo8();
    auto dst = out<std::uint8_t>(static_cast<std::size_t>(W / 4) * (H / 4) * 3);
    for (auto _ : s)
        benchmark::DoNotOptimize(extract_basepreview(8, W, H, 3, W * 3, W / 4, H / 4, 0, src.data(), nullptr, dst.data()));
}
void BM_extract_basepreview_rgbe(benchmark::State& s) {
    const auto& src = planes();
    auto dst = out<std::uint8_t>(static_cast<std::size_t>(W / 4) * (H / 4) * 4);
    for (auto _ : s)
        benchmark::DoNotOptimize(extract_basepreview(32, W, H, 1, W, W / 4, H / 4, 0, src.data(), nullptr, dst.data()));
}

}  // namespace

BENCHMARK(BM_zoom2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_zoom2_16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_zoom_cm_matrix)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_retaille)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_rot_ldr)->Arg(90)->Arg(270)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_rot_ldr_16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_rot_hdr)->Arg(90)->Arg(270)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_crop_ldr)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_crop_hdr)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_histcolors)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_histlum)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_hist16)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_getHisto32)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_hist32info)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_extract_basepreview)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_extract_basepreview_rgbe)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
