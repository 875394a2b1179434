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

// Bands [0, bands) of `rows`; bands [0, onThreads) start on threads of
// their own, the calling thread runs `side` (if any) and then the rest.
void runSplit(int bands, int onThreads, int rows, void (*fn)(void*, int, int, int), void* ctx,
              void (*side)(void*), void* sideCtx) noexcept {
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
    for (int t = 0; t < onThreads; ++t)
        started[t] = pthread_create(&handle[t], nullptr, bandThread, &band[t]) == 0;
    if (side != nullptr) side(sideCtx);
    for (int t = 0; t < bands; ++t)
        if (!started[t]) bandThread(&band[t]);
    for (int t = 0; t < onThreads; ++t)
        if (started[t]) pthread_join(handle[t], nullptr);
}

int bandsFor(int threads, int rows) noexcept {
    int bands = threads < kMaxBands ? threads : kMaxBands;
    return bands > rows ? rows : bands;
}

}  // namespace

void runBandsRaw(int threads, int rows, std::size_t workPerRow, void (*fn)(void*, int, int, int),
                 void* ctx) noexcept {
    if (rows <= 0) return;
    const int bands = bandsFor(threads, rows);
    if (bands <= 1 || workPerRow * static_cast<std::size_t>(rows) < kMinSplit) {
        fn(ctx, 0, 0, rows);
        return;
    }
    runSplit(bands, bands - 1, rows, fn, ctx, nullptr, nullptr);
}

void runBandsBesideRaw(int threads, int rows, void (*fn)(void*, int, int, int), void* ctx,
                       void (*side)(void*), void* sideCtx) noexcept {
    if (rows <= 0) {
        side(sideCtx);
        return;
    }
    const int bands = bandsFor(threads < 1 ? 1 : threads, rows);
    runSplit(bands, bands, rows, fn, ctx, side, sideCtx);
}

}  // namespace ol
