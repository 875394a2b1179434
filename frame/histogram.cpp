#include "frame/histogram.hpp"

namespace ol {

int levelPassing(const std::int64_t* histo, std::int64_t limit) noexcept {
    std::int64_t sum = 0;
    for (int k = 0; k < 256; ++k) {
        sum += histo[k];
        if (sum > limit) return k;
    }
    return 256;
}

int brightnessKey(const std::int64_t* histo, std::int64_t pixels, int* median) noexcept {
    const int level = levelPassing(histo, static_cast<std::int64_t>(0.5 * static_cast<double>(pixels)));
    if (median) *median = level;
    if (level < 5) return levelPassing(histo, static_cast<std::int64_t>(0.95 * static_cast<double>(pixels)));
    return level << 8;
}

void orderByFallingKey(int n, const int* key, int* work, int* order) noexcept {
    constexpr int kTaken = -999999;
    for (int p = 0; p < n; ++p) work[p] = key[p];
    int best = 0;
    for (int i = 0; i < n; ++i) {
        int bestValue = kTaken;
        for (int q = 0; q < n; ++q)
            if (work[q] > bestValue) {
                bestValue = work[q];
                best = q;
            }
        order[i] = best;
        work[best] = kTaken;
    }
    for (int p = 0; p < n; ++p) work[p] = 0;
    for (int i = 0; i < n; ++i) {
        if (work[order[i]]) order[i] = -1;
        else work[order[i]] = 1;
    }
    int next = 0;
    for (int i = 0; i < n; ++i) {
        if (order[i] >= 0) continue;
        while (next < n && work[next]) ++next;
        order[i] = next;
        work[next] = 1;
    }
}

}  // namespace ol
