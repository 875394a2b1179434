#include "align_frames.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "quiet.hpp"

namespace olhdr {

namespace {

// Rows of each original frame kept for finding where the library put it: all
// rows of a frame up to 256 high, else 256 rows spread evenly, so the copy
// stays small (the block itself can be hundreds of megabytes).
struct KeptRows {
    std::vector<int> rows;           // row numbers in the original frame
    std::vector<std::uint8_t> data;  // those rows of every frame, frame after frame
};

KeptRows keepRows(const FrameSet& frames) {
    KeptRows kept;
    const int h = frames.height, n = frames.count();
    const int count = std::min(h, 256);
    for (int i = 0; i < count; ++i) kept.rows.push_back(static_cast<int>(static_cast<long long>(i) * h / count));
    const std::size_t rowBytes = frames.frameBytes() / std::max(1, h);
    kept.data.resize(rowBytes * kept.rows.size() * n);
    std::uint8_t* to = kept.data.data();
    for (int k = 0; k < n; ++k)
        for (int r : kept.rows) {
            std::memcpy(to, frames.block.data() + frames.frameBytes() * k + rowBytes * r, rowBytes);
            to += rowBytes;
        }
    return kept;
}

// The offset (X, Y) at which the aligned frame `out` (w2 x h2) shows the
// original frame (w wide, its kept rows in `in`): out(x, y) == in(x + X,
// y + Y) in the three colour samples wherever in(x + X, y + Y) exists. The
// library keeps the offsets to itself; its result bounds them (X + Y <=
// spread), so the few candidates are tried, cheapest rejection first: a grid
// of about 64 points a side over the whole frame (a clipped sky matches every
// candidate, so the points must not stay in one area), then the kept rows
// whole.
std::pair<int, int> findOffset(const KeptRows& kept, const std::uint8_t* in, const std::uint8_t* out, int w,
                               int w2, int h2, int bytes, int spread) {
    const std::size_t px = static_cast<std::size_t>(3) * bytes;
    auto same = [&](int X, int Y, std::size_t rowStep, int step) {
        for (std::size_t i = 0; i < kept.rows.size(); i += rowStep) {
            const int y = kept.rows[i] - Y;
            if (y < 0 || y >= h2) continue;
            for (int x = 0; x < w2 && x + X < w; x += step)
                if (std::memcmp(out + (static_cast<std::size_t>(y) * w2 + x) * px,
                                in + (i * w + x + X) * px, px) != 0)
                    return false;
        }
        return true;
    };
    const int coarse = std::max(1, w2 / 64);
    for (int sum = 0; sum <= spread; ++sum)
        for (int X = 0; X <= sum; ++X)
            if (same(X, sum - X, 4, coarse) && same(X, sum - X, 1, 1)) return {X, sum - X};
    return {0, 0};
}

}  // namespace

std::vector<std::pair<int, int>> alignFrames(FrameSet& frames, bool keepSize, bool verbose) {
    const int n = frames.count(), w = frames.width, h = frames.height;
    const KeptRows kept = keepRows(frames);
    int dims[2] = {keepSize ? 1 : 0, 0};
    int spread;
    {
        LibraryOutput quiet(verbose);
        spread = align(n, w, h, 3, frames.bps, dims, frames.block.data());
    }
    if (spread == -4) throw Failure(kExitProcessing, "out of memory while aligning the frames");
    if (spread < 0) throw Failure(kExitProcessing, "the alignment failed (code " + std::to_string(spread) + ")");
    if (n < 2) return std::vector<std::pair<int, int>>(n, {0, 0});
    frames.width = dims[0];
    frames.height = dims[1];
    frames.block.resize(frames.frameBytes() * n);
    const int bytes = frames.bps / 8;
    std::vector<std::pair<int, int>> offsets(n);
    for (int k = 0; k < n; ++k)
        offsets[k] = findOffset(kept, kept.data.data() + kept.rows.size() * w * 3 * bytes * k,
                                frames.block.data() + frames.frameBytes() * k, w, dims[0], dims[1], bytes, spread);
    // Output frame k shows its original at offset X_k; the scene stands still
    // in the output, so X_k - X_0 is how far frame k's content was moved.
    std::vector<std::pair<int, int>> shifts(n);
    for (int k = 0; k < n; ++k)
        shifts[k] = {offsets[k].first - offsets[0].first, offsets[k].second - offsets[0].second};
    return shifts;
}

std::string alignedLine(const std::vector<std::pair<int, int>>& shifts, const FrameSet& frames, bool keepSize) {
    std::string s = "aligned: shifts (right,down) against frame 1:";
    char buf[48];
    for (const auto& [x, y] : shifts) {
        std::snprintf(buf, sizeof buf, " %+d,%+d", x, y);
        s += buf;
    }
    std::snprintf(buf, sizeof buf, "; %s %dx%d", keepSize ? "size kept at" : "cropped to", frames.width,
                  frames.height);
    return s + buf;
}

std::vector<std::uint8_t> detectGhosts(const FrameSet& frames, const std::vector<float>& deltaT, int threshold,
                                       bool verbose) {
    const std::size_t pixels = static_cast<std::size_t>(frames.width) * frames.height;
    std::vector<std::uint8_t> mask((pixels + 7) / 8 + 1, 0);
    std::vector<float> dt = deltaT;
    float settings[1] = {static_cast<float>(threshold)};
    int r;
    {
        // The detection always prints its sizes and levels on stderr.
        LibraryOutput quiet(verbose);
        r = ol_ghost_detect(settings, frames.count(), frames.width, frames.height, 3, frames.bps, -1.0f, dt.data(),
                            const_cast<std::uint8_t*>(frames.block.data()), mask.data());
    }
    if (r == -4) throw Failure(kExitProcessing, "out of memory while looking for moving objects");
    if (r < 0) throw Failure(kExitProcessing, "the ghost detection failed (code " + std::to_string(r) + ")");
    return mask;
}

bool ghostBit(const std::vector<std::uint8_t>& mask, std::size_t pixel) {
    return (mask[pixel >> 3] >> (7 - (pixel & 7))) & 1;
}

double markedShare(const std::vector<std::uint8_t>& mask, int width, int height) {
    const std::size_t pixels = static_cast<std::size_t>(width) * height;
    if (pixels == 0) return 0;
    std::size_t marked = 0;
    for (std::size_t i = 0; i < pixels; ++i) marked += ghostBit(mask, i);
    return static_cast<double>(marked) / static_cast<double>(pixels);
}

int middleExposure(const std::vector<float>& deltaT) {
    std::vector<int> order(deltaT.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return deltaT[a] < deltaT[b]; });
    return order.empty() ? 0 : order[(order.size() - 1) / 2];
}

std::string ghostLine(double share, int threshold, int fill) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "ghosts: %.1f%% of pixels marked (threshold %d), filled from frame %d",
                  share * 100.0, threshold, fill + 1);
    return buf;
}

}  // namespace olhdr
