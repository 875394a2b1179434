// Exposure fusion timing: wall time, ns per pixel and photo, and peak memory
// of ol_fusion on 8-bit photos (16-bit weights and fusion, default settings,
// nbProc 2), in memory and in disk mode.
//
//   fusion_bench                       3 and 5 frames of 3000x2000, memory and disk,
//                                      each case in a child process
//   fusion_bench --large               the same with 6000x4000 as well
//   fusion_bench --case W H N MODE [REPS] [frame.ppm ...]
//                                      one case in this process (MODE mem or disk);
//                                      frames are read from binary PPM files when given
//   fusion_bench --write W H N DIR     writes the synthetic frames as DIR/frame<k>.ppm
//   fusion_bench --out FILE ...        (with --case) writes the fused image as PPM
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace {

// A bracketed scene: smooth light falloff, a bright window, edges and
// texture, photographed at exposures 4^(k - (n-1)/2), gamma 2.2. Written
// straight into `img` (n frames of w x h RGB) without a scene buffer.
void synthStack(int w, int h, int n, std::uint8_t* img) {
    std::vector<float> gains(n);
    for (int k = 0; k < n; ++k) gains[k] = std::pow(4.0f, k - (n - 1) / 2.0f);
    std::vector<std::uint8_t> gamma(4097);
    for (int i = 0; i <= 4096; ++i) gamma[i] = static_cast<std::uint8_t>(std::pow(i / 4096.0f, 1.0f / 2.2f) * 255.0f);
    const std::size_t frame = static_cast<std::size_t>(w) * h * 3;
    std::uint32_t s = 12345u;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float fx = float(x) / w, fy = float(y) / h;
            const float light = 0.03f + 1.2f * fx * fx * (0.3f + fy);
            const bool window = fx > 0.6f && fx < 0.85f && fy > 0.15f && fy < 0.5f;
            for (int c = 0; c < 3; ++c) {
                s = s * 1664525u + 1013904223u;
                float v = light * (0.6f + 0.3f * std::sin(0.05f * x + c) * std::cos(0.031f * y)) +
                          0.01f * float(s >> 24) / 255.0f;
                if (window) v *= 6.0f;
                const std::size_t i = (static_cast<std::size_t>(y) * w + x) * 3 + c;
                for (int k = 0; k < n; ++k) {
                    float e = v * gains[k];
                    e = e > 1.0f ? 1.0f : e;
                    img[k * frame + i] = gamma[static_cast<int>(e * 4096.0f)];
                }
            }
        }
}

bool writePpm(const std::string& path, int w, int h, const std::uint8_t* rgb) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    std::fprintf(f, "P6\n%d %d\n255\n", w, h);
    const std::size_t n = static_cast<std::size_t>(w) * h * 3;
    const bool ok = std::fwrite(rgb, 1, n, f) == n;
    std::fclose(f);
    return ok;
}

bool readPpm(const std::string& path, int w, int h, std::uint8_t* rgb) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    int fw = 0, fh = 0, maxv = 0;
    const bool ok = std::fscanf(f, "P6 %d %d %d", &fw, &fh, &maxv) == 3 && std::fgetc(f) != EOF && fw == w &&
                    fh == h && maxv == 255 &&
                    std::fread(rgb, 1, static_cast<std::size_t>(w) * h * 3, f) == static_cast<std::size_t>(w) * h * 3;
    std::fclose(f);
    return ok;
}

long peakKiB() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_maxrss;
}

void silenceStderr() {
    // ol_fusion prints its fixed lines to standard error.
    if (std::FILE* f = std::freopen("/dev/null", "w", stderr)) (void)f;
}

int runCase(int w, int h, int n, bool disk, int reps, char** frames, int nFrames, const char* outPath) {
    // Only the photos and `work` are held: disk mode overwrites the photos,
    // so they are loaded again before every repetition, outside the timing.
    std::vector<std::uint8_t> images(static_cast<std::size_t>(n) * w * h * 3);
    auto load = [&]() {
        if (nFrames < n) {
            synthStack(w, h, n, images.data());
            return true;
        }
        for (int k = 0; k < n; ++k)
            if (!readPpm(frames[k], w, h, images.data() + static_cast<std::size_t>(k) * w * h * 3)) {
                std::fprintf(stdout, "cannot read %s\n", frames[k]);
                return false;
            }
        return true;
    };
    const int len = pyram_len(w, h);
    std::vector<std::uint16_t> work(static_cast<std::size_t>(len) * 3);
    char dir[] = "/tmp/olfusionbench-XXXXXX";
    if (!mkdtemp(dir)) return 1;
    const std::string s = std::string(dir) + "/source", p = std::string(dir) + "/poids",
                      q = std::string(dir) + "/pyram";
    FusionFiles files{2, disk ? 1 : 0, s.c_str(), p.c_str(), q.c_str()};
    float params[7] = {0, 0, 0, 0, 0, 0, 0};
    std::vector<float> expo(n, 1.0f);
    std::vector<int> fixed(n, -1);
    silenceStderr();
    std::vector<double> times;
    for (int r = 0; r < reps; ++r) {
        if (!load()) return 1;
        const auto t0 = std::chrono::steady_clock::now();
        const int status = ol_fusion(&files, nullptr, params, n, w, h, w * 3, 0, 3, 8, 8, 16, 16, len, 0, 1.0f,
                                     expo.data(), images.data(), fixed.data(), nullptr, nullptr, work.data());
        const auto t1 = std::chrono::steady_clock::now();
        if (status < 0) {
            std::fprintf(stdout, "ol_fusion failed: %d\n", status);
            return 1;
        }
        times.push_back(std::chrono::duration<double>(t1 - t0).count());
    }
    std::remove(s.c_str());
    std::remove(p.c_str());
    std::remove(q.c_str());
    rmdir(dir);
    if (outPath) writePpm(outPath, w, h, reinterpret_cast<const std::uint8_t*>(work.data()));
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2];
    std::printf("%-5s %dx%d x%d  median %.3f s  (min %.3f, %d runs)  %.2f ns/pixel/photo  peak %.1f MiB\n",
                disk ? "disk" : "mem", w, h, n, median, times.front(), reps,
                median * 1e9 / (double(w) * h * n), peakKiB() / 1024.0);
    std::fflush(stdout);
    return 0;
}

int childCase(const char* self, int w, int h, int n, const char* mode, int reps) {
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string ws = std::to_string(w), hs = std::to_string(h), ns = std::to_string(n),
                          rs = std::to_string(reps);
        execl(self, self, "--case", ws.c_str(), hs.c_str(), ns.c_str(), mode, rs.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 6 && std::strcmp(argv[1], "--write") == 0) {
        const int w = std::atoi(argv[2]), h = std::atoi(argv[3]), n = std::atoi(argv[4]);
        std::vector<std::uint8_t> stack(static_cast<std::size_t>(n) * w * h * 3);
        synthStack(w, h, n, stack.data());
        for (int k = 0; k < n; ++k) {
            const std::string path = std::string(argv[5]) + "/frame" + std::to_string(k) + ".ppm";
            if (!writePpm(path, w, h, stack.data() + static_cast<std::size_t>(k) * w * h * 3)) return 1;
        }
        return 0;
    }
    const char* outPath = nullptr;
    if (argc >= 3 && std::strcmp(argv[1], "--out") == 0) {
        outPath = argv[2];
        argv += 2;
        argc -= 2;
    }
    if (argc >= 6 && std::strcmp(argv[1], "--case") == 0) {
        const int reps = argc >= 7 ? std::atoi(argv[6]) : 3;
        return runCase(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]),
                       std::strcmp(argv[5], "disk") == 0, reps < 1 ? 1 : reps, argv + 7,
                       argc > 7 ? argc - 7 : 0, outPath);
    }
    const bool large = argc >= 2 && std::strcmp(argv[1], "--large") == 0;
    int failures = 0;
    struct Size { int w, h, reps; };
    std::vector<Size> sizes = {{3000, 2000, 5}};
    if (large) sizes.push_back({6000, 4000, 1});
    for (const Size& s : sizes)
        for (int n : {3, 5})
            for (const char* mode : {"mem", "disk"}) failures += childCase(argv[0], s.w, s.h, n, mode, s.reps) != 0;
    return failures ? 1 : 0;
}
