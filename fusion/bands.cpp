#include "fusion/bands.hpp"

#include <pthread.h>

namespace ol {
namespace {

// Below this many samples a job runs on the calling thread alone. Kept low:
// a thread costs some tens of microseconds, and a whole 6000x4000 fusion
// starts about a hundred; small images still take the banded paths.
constexpr std::size_t kMinSplit = 256;

struct Band {
    void (*fn)(void*, int, int, int);
    void* ctx;
    int index, first, count;
};

void* bandThread(void* arg) {
    const Band& b = *static_cast<const Band*>(arg);
    b.fn(b.ctx, b.index, b.first, b.count);
    return nullptr;
}

}  // namespace

void runBandsRaw(int threads, int rows, std::size_t workPerRow, void (*fn)(void*, int, int, int),
                 void* ctx) noexcept {
    if (rows <= 0) return;
    int bands = threads < kMaxBands ? threads : kMaxBands;
    if (bands > rows) bands = rows;
    if (bands <= 1 || workPerRow * static_cast<std::size_t>(rows) < kMinSplit) {
        fn(ctx, 0, 0, rows);
        return;
    }
    Band band[kMaxBands];
    pthread_t handle[kMaxBands];
    bool started[kMaxBands] = {};
    const int per = rows / bands, extra = rows % bands;
    int first = 0;
    for (int t = 0; t < bands; ++t) {
        const int count = per + (t < extra ? 1 : 0);
        band[t] = Band{fn, ctx, t, first, count};
        first += count;
    }
    for (int t = 0; t + 1 < bands; ++t)
        started[t] = pthread_create(&handle[t], nullptr, bandThread, &band[t]) == 0;
    for (int t = 0; t < bands; ++t)
        if (!started[t]) bandThread(&band[t]);
    for (int t = 0; t + 1 < bands; ++t)
        if (started[t]) pthread_join(handle[t], nullptr);
}

}  // namespace ol
