// Exposure estimation: exposures from Exif values (get_ev), from a fixed step
// or from the mean levels of the frames (guess_ev), and the order of frames by
// exposure (fClassementCroissant).
#include "merge/exposure.hpp"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/numeric.hpp"

namespace ol {
namespace {

// Knots of the slope factor: level on the 16-bit scale (level/256 in
// 0, 8, 14, 60, 90, 125, 160, 190, 255) and the factor there.
constexpr int kKnotLevel[9] = {0, 8 * 256, 14 * 256, 60 * 256, 90 * 256,
                               125 * 256, 160 * 256, 190 * 256, 255 * 256};
constexpr float kKnotFactor[9] = {1.1f, 1.2f, 1.3f, 1.5f, 1.8f, 2.3f, 3.3f, 4.7f, 6.0f};

// Work arrays of the exported wrappers: on the stack for small counts,
// otherwise on the heap. A failed heap allocation leaves `data` null.
class Scratch {
public:
    explicit Scratch(std::size_t words) noexcept {
        if (words <= kLocal) {
            data_ = local_;
        } else {
            heap_ = makeOwned<std::int32_t>(words);
            data_ = heap_.get();
        }
    }
    void* data() const noexcept { return data_; }

private:
    static constexpr std::size_t kLocal = 256;
    std::int32_t local_[kLocal];
    Owned<std::int32_t> heap_;
    std::int32_t* data_ = nullptr;
};

// Value that marks a slot as taken in the brightest-first ranking of means.
constexpr int kTakenMean = -1000000;
// Value that marks a slot as taken in the exposure ranking.
constexpr float kTakenValue = -1e8f;

}  // namespace

float knotValue(const int* levels, const float* values, int knots, long level) noexcept {
    if (level < 0 || level > levels[knots - 1]) return 0.0f;
    if (level == levels[knots - 1]) return values[knots - 1];
    int j = 0;
    while (level >= levels[j + 1]) ++j;
    // Same float arithmetic as the table expansion: slope and intercept of
    // the segment, then i*a + b.
    const float a = (values[j + 1] - values[j]) / static_cast<float>(levels[j + 1] - levels[j]);
    const float b = values[j] - static_cast<float>(levels[j]) * a;
    return static_cast<float>(level) * a + b;
}

void fillKnotTable(const int* levels, const float* values, int knots, float* table) noexcept {
    for (int i = 0; i < 65536; ++i) table[i] = 0.0f;
    for (int j = 0; j + 1 < knots; ++j) {
        const float a = (values[j + 1] - values[j]) / static_cast<float>(levels[j + 1] - levels[j]);
        const float b = values[j] - static_cast<float>(levels[j]) * a;
        for (int i = levels[j]; i < levels[j + 1]; ++i) table[i] = static_cast<float>(i) * a + b;
    }
    table[levels[knots - 1]] = values[knots - 1];
}

float guessEvFactor(long level) noexcept { return knotValue(kKnotLevel, kKnotFactor, 9, level); }

void repairDuplicateRanks(int n, int* list, int* seen) noexcept {
    int repeats = 0;
    for (int i = 1; i < n; ++i)
        if (list[i] == list[i - 1]) ++repeats;
    if (repeats == 0) return;
    std::memset(seen, 0, sizeof(int) * static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        if (list[i] >= 0 && list[i] < n) seen[list[i]] = 1;
    int nextMissing = 0;
    int previous = list[0];
    for (int i = 1; i < n; ++i) {
        const int current = list[i];
        if (current == previous) {
            while (nextMissing < n && seen[nextMissing]) ++nextMissing;
            if (nextMissing < n) list[i] = nextMissing++;
        }
        previous = current;
    }
}

int guessEvCore(int mode, int n, float evStep, int* moyBuf, float* deltaT, void* scratch) noexcept {
    if (n < 1) return 0;
    int* rang = static_cast<int*>(scratch);
    int* work = rang + n;
    float* E = reinterpret_cast<float*>(work + n);
    const int half = n / 2;

    // Brightest first; ties go to the lowest frame number.
    for (int i = 0; i < n; ++i) work[i] = moyBuf[i];
    int winner = 0;
    for (int i = 0; i < n; ++i) {
        int best = -1;
        int found = -1;
        for (int k = 0; k < n; ++k) {
            if (work[k] > best && work[k] > -999999) {
                best = work[k];
                found = k;
            }
        }
        if (found >= 0) {
            winner = found;
            work[found] = kTakenMean;
        }
        rang[i] = winner;
    }
    repairDuplicateRanks(n, rang, work);

    if (evStep > 0.0f) {
        for (int i = 0; i < n; ++i)
            deltaT[rang[i]] = static_cast<float>(
                std::pow(2.0, static_cast<double>(static_cast<float>(half - i) * evStep)));
        return n;
    }

    for (int i = 0; i < n; ++i)
        if (moyBuf[i] < 1) moyBuf[i] = 1;
    // v[i], the float mean of rank i, reuses the work array.
    float* v = reinterpret_cast<float*>(work);
    for (int i = 0; i < n; ++i) v[i] = static_cast<float>(moyBuf[rang[i]]);

    const double invLn2 = 1.0 / std::log(2.0);
    E[half] = 0.0f;
    for (int i = half + 1; i < n; ++i) {
        const float ratio = v[i - 1] / v[i];
        const long level = truncToInt((v[i] + v[i - 1]) / 2.0f);
        E[i] = static_cast<float>(static_cast<double>(E[i - 1]) -
                                  std::log(static_cast<double>(ratio)) * invLn2 *
                                      static_cast<double>(guessEvFactor(level)));
    }
    for (int i = half - 1; i >= 0; --i) {
        const float ratio = v[i + 1] / v[i];
        const long level = truncToInt((v[i] + v[i + 1]) / 2.0f);
        E[i] = static_cast<float>(static_cast<double>(E[i + 1]) -
                                  std::log(static_cast<double>(ratio)) * invLn2 *
                                      static_cast<double>(guessEvFactor(level)));
    }

    if (mode == 0) {
        for (int i = 0; i < n; ++i)
            deltaT[rang[i]] = static_cast<float>(std::pow(2.0, static_cast<double>(E[i])));
        return n;
    }
    // Stop offsets by rank, rounded half away from zero.
    for (int i = 0; i < n; ++i) {
        const int whole = truncToInt(E[i]);
        const float fraction = E[i] - static_cast<float>(whole);
        int rounded = whole;
        if (!(std::fabs(fraction) < 0.5f)) rounded += fraction > 0.0f ? 1 : -1;
        deltaT[i] = static_cast<float>(rounded);
        moyBuf[i] = rang[i];
    }
    return n;
}

int classementCroissantCore(int n, const float* values, int* ordre, void* scratch) noexcept {
    if (n < 1) return 0;
    float* work = static_cast<float*>(scratch);
    int* list = reinterpret_cast<int*>(work + n);
    int* seen = list + n;
    for (int i = 0; i < n; ++i) work[i] = values[i];
    int winner = 0;
    for (int i = 0; i < n; ++i) {
        float best = kTakenValue;
        int found = -1;
        for (int k = 0; k < n; ++k) {
            if (static_cast<double>(work[k]) > -99999999.0 && work[k] > best) {
                best = work[k];
                found = k;
            }
        }
        if (found >= 0) {
            winner = found;
            work[found] = kTakenValue;
        }
        list[i] = winner;
    }
    repairDuplicateRanks(n, list, seen);
    for (int i = 0; i < n; ++i) ordre[i] = list[n - 1 - i];
    return n;
}

}  // namespace ol

extern "C" {

int get_ev(int n, float* data) {
    // The result of frame k goes to data[k], which lies in the record of
    // frame k/7, already read: writing in place equals copying after the loop.
    for (int k = 0; k < n; ++k) {
        const float* r = data + 7 * static_cast<std::size_t>(k);
        const int num = ol::truncToInt(r[0]);
        const int den = ol::truncToInt(r[1]);
        const int fnum = ol::truncToInt(r[2]);
        const int fden = ol::truncToInt(r[3]);
        const int override = ol::truncToInt(r[4]);
        const int iso = ol::truncToInt(r[5]);
        const float t = den != 0 ? static_cast<float>(num) / static_cast<float>(den) : 0.0f;
        float ev;
        if (num == 0 && den == 0) {
            ev = static_cast<float>(std::pow(2.0, override * 0.001));
        } else {
            const float N = (fnum != 0 && fden != 0)
                                ? static_cast<float>(fnum) / static_cast<float>(fden)
                                : 8.0f;
            const float S = iso != 0 ? static_cast<float>(iso) : 100.0f;
            // All in float, in this order: t by S, by the constant, over N squared.
            ev = t * S * 20.64516f / (N * N);
        }
        data[k] = ev;
    }
    return 1;
}

int guess_ev(int mode, int n, float evStep, int* moyBuf, float* deltaT) {
    if (n < 1) return 0;
    ol::Scratch scratch(static_cast<std::size_t>(n) * ol::kGuessEvScratchPerFrame);
    if (!scratch.data()) return 0;
    return ol::guessEvCore(mode, n, evStep, moyBuf, deltaT, scratch.data());
}

int fClassementCroissant(int n, const float* values, int* ordre) {
    if (n < 1) return 0;
    ol::Scratch scratch(static_cast<std::size_t>(n) * ol::kClassementScratchPerFrame);
    if (!scratch.data()) return 0;
    return ol::classementCroissantCore(n, values, ordre, scratch.data());
}

}  // extern "C"
