// Timing of the merges on synthetic bracketed stacks: 3 and 5 frames, 8 and
// 16 bits, three samples a pixel, frames two stops apart. ol_hdr_merge, then
// calc_hdr (consistency test on) and hdr_unghost (per-channel spread) on the
// same frames.
//
//   merge_bench [--width W] [--height H] [--reps N] [--frames 3,5] [--bps 8,16]
//               [--merges hdr,calc,calc0,unghost,unghost2]
//
// Prints the median over N runs of the whole call, in ms, ns per pixel and
// ns per pixel and frame, from the wall clock and from the thread's CPU time
// (the latter is steadier on a shared machine), and a hash of the output
// (planes and statistics) to check that a change keeps the bytes. One thread:
// the merge runs on the caller's thread.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <ctime>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace {

std::vector<int> parseList(const char* s) {
    std::vector<int> v;
    while (*s) {
        v.push_back(std::atoi(s));
        while (*s && *s != ',') ++s;
        if (*s == ',') ++s;
    }
    return v;
}

// A scene with a wide range: a horizontal ramp of 14 stops, a vertical
// modulation and noise, photographed with a 2.2 gamma at each exposure.
std::vector<std::uint8_t> makeStack(int n, int width, int height, int bps, const std::vector<float>& dt) {
    const std::size_t frame = static_cast<std::size_t>(width) * height * 3;
    const std::size_t bytesPer = bps / 8;
    std::vector<std::uint8_t> out(frame * n * bytesPer);
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> noise(-0.01f, 0.01f);
    const double top = bps == 8 ? 255.0 : 65535.0;
    std::vector<float> row(static_cast<std::size_t>(width) * 3);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const double stops = -10.0 + 14.0 * x / width + 2.0 * std::sin(y * 0.01 + x * 0.003);
            const double base = std::exp2(stops);
            row[3 * x] = static_cast<float>(base * 0.8);
            row[3 * x + 1] = static_cast<float>(base);
            row[3 * x + 2] = static_cast<float>(base * 1.2);
        }
        for (int k = 0; k < n; ++k) {
            const std::size_t at = (k * frame + static_cast<std::size_t>(y) * width * 3);
            for (int i = 0; i < width * 3; ++i) {
                double v = top * (std::pow(row[i] * dt[k], 1.0 / 2.2) + noise(rng));
                v = std::clamp(v, 0.0, top);
                const auto s = static_cast<std::uint32_t>(v);
                if (bps == 8) {
                    out[at + i] = static_cast<std::uint8_t>(s);
                } else {
                    out[2 * (at + i)] = static_cast<std::uint8_t>(s & 0xFF);
                    out[2 * (at + i) + 1] = static_cast<std::uint8_t>(s >> 8);
                }
            }
        }
    }
    return out;
}

// FNV-1a, 64 bits.
std::uint64_t hashBytes(const void* data, std::size_t n, std::uint64_t h = 1469598103934665603ull) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

}  // namespace

int main(int argc, char** argv) {
    int width = 3000, height = 2000, reps = 7;
    std::vector<int> frames = {3, 5}, depths = {8, 16};
    std::string merges = "hdr,calc,unghost";
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--width") width = std::atoi(argv[i + 1]);
        else if (a == "--height") height = std::atoi(argv[i + 1]);
        else if (a == "--reps") reps = std::atoi(argv[i + 1]);
        else if (a == "--frames") frames = parseList(argv[i + 1]);
        else if (a == "--bps") depths = parseList(argv[i + 1]);
        else if (a == "--merges") merges = argv[i + 1];
    }
    std::printf("merges %dx%d, spp 3, median of %d runs, 1 thread\n", width, height, reps);
    std::printf("%-12s %-7s %-4s %10s %12s %18s %10s %18s %16s\n", "merge", "frames", "bps", "wall ms", "ns/pixel",
                "ns/pixel/frame", "cpu ms", "cpu ns/pixel/frame", "hash");
    const double pixels = static_cast<double>(width) * height;
    // Each merge by name: calc0 is calc_hdr with the consistency test off,
    // unghost2 hdr_unghost on the spread of luminance.
    std::vector<std::string> names;
    for (std::size_t at = 0; at <= merges.size();) {
        const std::size_t end = std::min(merges.find(',', at), merges.size());
        names.push_back(merges.substr(at, end - at));
        at = end + 1;
    }
    auto cpuNow = [] {
        timespec ts;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return ts.tv_sec * 1e3 + ts.tv_nsec * 1e-6;
    };
    for (int bps : depths)
        for (int n : frames) {
            std::vector<float> dt(n);
            for (int k = 0; k < n; ++k) dt[k] = std::exp2(2.0f * (k - n / 2));
            const auto stack = makeStack(n, width, height, bps, dt);
            std::vector<float> lut(static_cast<std::size_t>(1) << bps);
            std::vector<std::uint8_t> rgbe(4 * static_cast<std::size_t>(width) * height);
            float stats[3];
            for (const std::string& name : names) {
                std::vector<double> ms, cpu;
                for (int r = 0; r < reps; ++r) {
                    std::vector<float> d = dt;
                    rgbe[0] = name == "calc0" ? 0 : 1;  // calc_hdr's consistency switch
                    const double c0 = cpuNow();
                    const auto t0 = std::chrono::steady_clock::now();
                    int rc;
                    if (name == "calc" || name == "calc0")
                        rc = calc_hdr(1, n, width, height, 3, bps, 0, lut.data(), 0.5f, d.data(), stack.data(),
                                      stats, rgbe.data());
                    else if (name == "unghost" || name == "unghost2")
                        rc = hdr_unghost(1, name == "unghost" ? 1 : 2, n, width, height, 3, bps, 0, lut.data(),
                                         0.5f, d.data(), stack.data(), stats, rgbe.data());
                    else
                        rc = ol_hdr_merge(0, n, width, height, 3, bps, 0, lut.data(), -1.0f, d.data(),
                                          stack.data(), stats, rgbe.data());
                    const auto t1 = std::chrono::steady_clock::now();
                    cpu.push_back(cpuNow() - c0);
                    if (rc != height) {
                        std::fprintf(stderr, "%s failed: %d\n", name.c_str(), rc);
                        return 1;
                    }
                    ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
                }
                std::sort(ms.begin(), ms.end());
                std::sort(cpu.begin(), cpu.end());
                const double med = ms[ms.size() / 2], medCpu = cpu[cpu.size() / 2];
                const std::uint64_t hash = hashBytes(stats, sizeof stats, hashBytes(rgbe.data(), rgbe.size()));
                std::printf("%-12s %-7d %-4d %10.1f %12.2f %18.2f %10.1f %18.2f %016llx\n", name.c_str(), n, bps, med,
                            med * 1e6 / pixels, med * 1e6 / (pixels * n), medCpu, medCpu * 1e6 / (pixels * n),
                            static_cast<unsigned long long>(hash));
                std::fflush(stdout);
            }
        }
    return 0;
}
