// Radiance writing and reading speed on a 6000x4000 picture with photo-like
// content (smooth gradients with noise), in nanoseconds a pixel and MB/s of
// rgbe planes. A plain timed runner: each step runs several times and the
// medians of the wall time and of the process's CPU time (user and system:
// the file reads are system time) are reported, with a hash of each step's
// output (the written file, the decoded planes) to check that a change keeps
// the bytes.
//
//   radiance_bench [folder] [runs]     writes folder/radiance_bench.hdr
//   radiance_bench --make FILE         only writes the picture (for the
//                                      comparison script)
//   radiance_bench --read FILE         reads FILE once with decomp2 (a whole
//                                      process, to time beside programs)
//   radiance_bench --copy IN OUT       reads IN with decomp2 and writes OUT
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "frame/rgbe.hpp"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;

std::vector<unsigned char> photoPlanes() {
    std::vector<unsigned char> p(4u * kWidth * kHeight);
    std::uint32_t s = 12345;
    for (int y = 0; y < kHeight; ++y) {
        const ol::RgbeRow row = ol::rgbeRow(p.data(), kWidth, y);
        for (int x = 0; x < kWidth; ++x) {
            s = s * 1664525u + 1013904223u;
            const float noise = 1.0f + 0.02f * (static_cast<float>(s >> 8) / 16777216.0f - 0.5f);
            const float fx = static_cast<float>(x) / kWidth, fy = static_cast<float>(y) / kHeight;
            // Sky-like gradient to a bright area and a dark foreground.
            const float base = std::exp2(6.0f * (1.0f - fy) - 2.0f + 2.0f * std::sin(3.0f * fx));
            ol::storeRgbe(row, x,
                          ol::encodeRgbe(base * (0.8f + 0.2f * fx) * noise, base * 0.9f * noise,
                                         base * (1.0f - 0.3f * fx) * noise, ol::RgbeForm::Clamped));
        }
    }
    return p;
}

double seconds(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

double cpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

struct Timing {
    double wall, cpu;
};

// Medians of the wall and CPU times; `prepare` runs untimed before each run.
template <class P, class F>
Timing median(int runs, P&& prepare, F&& f) {
    std::vector<double> t, c;
    for (int i = 0; i < runs; ++i) {
        prepare();
        const double c0 = cpuSeconds();
        const auto a = std::chrono::steady_clock::now();
        if (!f()) return {-1.0, -1.0};
        t.push_back(seconds(a, std::chrono::steady_clock::now()));
        c.push_back(cpuSeconds() - c0);
    }
    std::sort(t.begin(), t.end());
    std::sort(c.begin(), c.end());
    return {t[t.size() / 2], c[c.size() / 2]};
}

// FNV-1a, 64 bits.
std::uint64_t hashBytes(const unsigned char* p, std::size_t n) {
    std::uint64_t h = 1469598103934665603ull;
    for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

std::uint64_t hashFile(const std::string& path) {
    std::vector<unsigned char> b;
    if (std::FILE* f = std::fopen(path.c_str(), "rb")) {
        unsigned char buf[65536];
        std::size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) b.insert(b.end(), buf, buf + n);
        std::fclose(f);
    }
    return hashBytes(b.data(), b.size());
}

void report(const char* what, Timing t, std::uint64_t hash) {
    const double pixels = static_cast<double>(kWidth) * kHeight;
    std::printf("%-18s median %8.1f ms  %6.2f ns/pixel  %8.1f MB/s  cpu %8.1f ms  hash %016llx\n", what,
                t.wall * 1e3, t.wall * 1e9 / pixels, 4.0 * pixels / t.wall / 1e6, t.cpu * 1e3,
                static_cast<unsigned long long>(hash));
}

}  // namespace

int main(int argc, char** argv) {
    ExifRecord exif;
    std::memset(&exif, 0, sizeof exif);
    if (argc >= 3 && (std::string(argv[1]) == "--read" || std::string(argv[1]) == "--copy")) {
        float prim[8];
        int dims[7] = {0, 0, 0, 0, 0, 0, 0};
        if (rgbe_dim(argv[2], prim, dims) < 0) return 1;
        std::vector<unsigned char> planes(4u * static_cast<std::size_t>(dims[0]) * dims[1]);
        if (decomp2(argv[2], dims, planes.data(), nullptr) != dims[1]) return 1;
        if (argc >= 4 && std::string(argv[1]) == "--copy")
            return ol_io_rgbe_write(argv[3], dims[0], dims[1], &exif, nullptr, "", planes.data()) == dims[1] ? 0 : 1;
        return 0;
    }
    if (argc >= 3 && std::string(argv[1]) == "--make") {
        const auto planes = photoPlanes();
        return ol_io_rgbe_write(argv[2], kWidth, kHeight, &exif, nullptr, "", planes.data()) == kHeight ? 0 : 1;
    }
    const std::string dir = argc >= 2 ? argv[1] : "/tmp";
    const int runs = argc >= 3 ? std::atoi(argv[2]) : 5;
    const std::string path = dir + "/radiance_bench.hdr";
    const auto planes = photoPlanes();
    std::vector<unsigned char> out(planes.size());

    // Each write makes a new file, as the comparison does for the programs
    // (rewriting a large file in place costs the file system extra work).
    const auto unlinkOut = [&] { std::remove(path.c_str()); };
    const auto nothing = [] {};
    const Timing w = median(runs, unlinkOut, [&] {
        return ol_io_rgbe_write(path.c_str(), kWidth, kHeight, &exif, nullptr, "", planes.data()) == kHeight;
    });
    float prim[8];
    int dims[7] = {0, 0, 0, 0, 0, 0, 0};
    if (rgbe_dim(path.c_str(), prim, dims) < 0) return 1;
    const std::uint64_t fileHash = hashFile(path);
    const Timing r1 = median(runs, nothing, [&] { return decomp_rle(path.c_str(), dims, out.data()) == kHeight; });
    const bool same1 = out == planes;
    const std::uint64_t h1 = hashBytes(out.data(), out.size());
    std::fill(out.begin(), out.end(), 0);
    const Timing r2 = median(runs, nothing, [&] { return decomp2(path.c_str(), dims, out.data(), nullptr) == kHeight; });
    const bool same2 = out == planes;
    const std::uint64_t h2 = hashBytes(out.data(), out.size());
    std::vector<unsigned char> prev(4u * 600 * 400);
    const Timing r3 = median(runs, nothing, [&] {
        return ol_io_read_preview_rgbe(kWidth, kHeight, 600, 400, path.c_str(), prev.data()) == kHeight + 1;
    });

    std::printf("%dx%d, file %d bytes (%.1f%% of the planes), %d runs\n", kWidth, kHeight, dims[2],
                100.0 * dims[2] / static_cast<double>(planes.size()), runs);
    report("ol_io_rgbe_write", w, fileHash);
    report("decomp_rle", r1, h1);
    report("decomp2", r2, h2);
    report("preview 600x400", r3, hashBytes(prev.data(), prev.size()));
    if (!same1 || !same2) {
        std::printf("decoded planes differ from the written ones\n");
        return 1;
    }
    return 0;
}
