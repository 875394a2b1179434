// Weight maps of exposure fusion: one plane per photo whose values add up to
// the full scale of the weight depth at every pixel. The measure is how near
// each channel lies to mid-grey, through a per-photo curve, sharpened by one
// global curve; ghost masks force one photo per pixel. The rows are split
// among worker threads, each writing only its own rows of every plane.
#include <pthread.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "frame/alloc.hpp"
#include "frame/numeric.hpp"
#include "frame/trace.hpp"
#include "fusion/bands.hpp"
#include "fusion/photo_stats.hpp"
#include "fusion/scratch.hpp"
#include "fusion/stages.hpp"

namespace ol {
namespace {

// The fixed probe pixels, x,y, counted from the first row of a slice.
inline bool isProbePixel(int x, int y) noexcept {
    return (x == 250 && (y == 342 || y == 343 || y == 344)) ||
           (y == 305 && (x == 250 || x == 260));
}
inline bool isSampledPixel(int x, int y) noexcept { return x % 100 == 0 && y % 100 == 0; }

inline bool maskBit(const unsigned char* mask, std::uint64_t i) noexcept {
    return (mask[i >> 3] & (0x80u >> (i & 7))) != 0;
}

// Weight of photo p at one pixel before normalisation: the curve of its
// three samples, through the sharpening table and the photo's factor.
struct PixelWeight {
    int c0, c1, c2;
    float fval;
    std::int32_t idx;
    float w;
};

// Where a pass finds its samples and puts its weights. The samples of photo
// p, row y, lie in `images` (memory), in the row buffer (disk mode, one row
// of every photo at a time) or in `block` (disk mode, `blockRows` rows of
// every photo from row `blockFirst`, photo after photo).
struct WeightJob {
    int nbPhotos, width, height, channels, bspIn, bitDepthPoids;
    const float* fvalCurve;
    const float* sharpen;
    const float* photoFactor;
    bool disk;
    std::FILE* fpSource;
    unsigned char* rowBuffer;
    const unsigned char* images;
    bool removeGhost;
    const int* notMerged;
    const unsigned char* ghostMask;
    void* poids;
    const float* scaled;  // 8-bit samples: the curves times the three coefficients
    const unsigned char* block;
    int blockFirst, blockRows;
};

// S: sample type (void for samples that are not read), W: weight element.
//
// A row at a time: the raw weights of every photo over the row, then the
// ghost overrides, then the normalisation over the photos in straight loops.
// `scratch` holds nbPhotos + 2 rows of floats.
template <class S, class W>
struct RowWeights {
    static constexpr bool readsSamples = !std::is_void_v<S>;
    const WeightJob& j;
    int levels, o1, o2, sampleBytes;
    std::size_t planePixels, photoSamples, rowSamples, rowBytes;

    explicit RowWeights(const WeightJob& job) noexcept
        : j(job), levels(job.bspIn == 8 ? 256 : 65536), o1((job.channels - 1) / 2), o2(job.channels - 1),
          sampleBytes(job.bspIn / 8), planePixels(static_cast<std::size_t>(job.width) * job.height),
          photoSamples(planePixels * job.channels), rowSamples(static_cast<std::size_t>(job.width) * job.channels),
          rowBytes(rowSamples * static_cast<std::size_t>(job.bspIn / 8)) {}

    const unsigned char* rowOf(int p, int y) const noexcept {
        if (!j.disk) return j.images + (p * photoSamples + static_cast<std::size_t>(y) * rowSamples) * sampleBytes;
        if (j.block)
            return j.block + (static_cast<std::size_t>(p) * j.blockRows + static_cast<std::size_t>(y - j.blockFirst)) * rowBytes;
        return j.rowBuffer + p * rowBytes;
    }

    // Disk mode, row by row: row y of every photo into the row buffer.
    int readRow(int y) const noexcept {
        for (int p = 0; p < j.nbPhotos; ++p) {
            const std::int64_t off =
                (static_cast<std::int64_t>(p) * j.height + y) * static_cast<std::int64_t>(rowSamples) * sampleBytes;
            if (!seekScratch(j.fpSource, off)) return -3;
            const std::size_t got = std::fread(j.rowBuffer + p * rowBytes, sampleBytes, rowSamples, j.fpSource);
            if (got != rowSamples) {
                if constexpr (traceFlow)
                    std::fprintf(stderr, "could not read fpSource - returned %d instead of %d  at  %d\n",
                                 static_cast<int>(got), static_cast<int>(rowSamples), y);
                return -3;
            }
        }
        return 0;
    }

    // No sample is read at other depths: fval stays at 0 there.
    PixelWeight weighOne(int p, const unsigned char* row, int x) const noexcept {
        PixelWeight r{0, 0, 0, 0.0f, 0, 0.0f};
        if constexpr (readsSamples) {
            const S* smp = reinterpret_cast<const S*>(row) + static_cast<std::size_t>(x) * j.channels;
            r.c0 = smp[0];
            r.c1 = smp[o1];
            r.c2 = smp[o2];
            if constexpr (sizeof(S) == 1) {
                // The three products, taken from tables of this photo.
                const float* t = j.scaled + static_cast<std::size_t>(p) * 768;
                r.fval = t[r.c1] + t[256 + r.c0];
                r.fval = r.fval + t[512 + r.c2];
            } else {
                const float* curve = j.fvalCurve + static_cast<std::size_t>(p) * levels;
                r.fval = 45875.2f * curve[r.c1] + 13107.2f * curve[r.c0];
                r.fval = r.fval + 6553.6f * curve[r.c2];
            }
        }
        r.idx = truncToInt(r.fval);
        if (r.idx > 65535) r.idx = 65535;
        if (r.idx < 0) r.idx = 0;
        r.w = j.sharpen[r.idx];
        if (j.photoFactor[p] > 0.0f) r.w *= j.photoFactor[p];
        return r;
    }

    int ghostPhoto(std::size_t pix) const noexcept {
        for (int p = 0; p < j.nbPhotos; ++p)
            if (j.notMerged[p] >= 0 &&
                maskBit(j.ghostMask, static_cast<std::uint64_t>(j.notMerged[p]) * planePixels + pix))
                return p;
        return -1;
    }

    // The printed pixels of row y, in the order of a pixel-by-pixel walk: the
    // photos up to a ghost-forced one, each with its raw weight.
    void printRow(int y) const noexcept {
        if constexpr (traceProbe != 0 || traceMerge != 0) {
            const std::size_t rowStart = static_cast<std::size_t>(y) * j.width;
            // Only columns 250 and 260 hold probe pixels; the sampling behind
            // traceMerge needs every column.
            const int xFirst = traceMerge != 0 ? 0 : 250;
            const int xLast = traceMerge != 0 ? j.width - 1 : (j.width - 1 < 260 ? j.width - 1 : 260);
            for (int x = xFirst; x <= xLast; ++x) {
                if (!((traceProbe != 0 && isProbePixel(x, y)) || (traceMerge != 0 && isSampledPixel(x, y)))) continue;
                const int forced = j.removeGhost ? ghostPhoto(rowStart + x) : -1;
                for (int p = 0; p < j.nbPhotos; ++p) {
                    if (p == forced) {
                        if constexpr (traceMerge)
                            if (isSampledPixel(x, y))
                                std::fprintf(stderr, "*** ghostMask for photo%d  at  %d,%d\n", p, x, y);
                        break;
                    }
                    const PixelWeight r = weighOne(p, rowOf(p, y), x);
                    const float* curve = j.fvalCurve + static_cast<std::size_t>(p) * levels;
                    // The probe reads the samples as bytes, whatever the depth:
                    // byte k stands for sample k of an 8-bit stack. In disk mode
                    // they are bytes of one row of every photo, one photo after
                    // the other.
                    unsigned char b[3];
                    const int offs[3] = {0, o1, o2};
                    for (int k = 0; k < 3; ++k) {
                        if (j.disk) {
                            const std::size_t at = static_cast<std::size_t>(p) * rowSamples +
                                                   static_cast<std::size_t>(x) * j.channels + offs[k];
                            b[k] = rowOf(static_cast<int>(at / rowBytes), y)[at % rowBytes];
                        } else {
                            b[k] = j.images[p * photoSamples + (rowStart + x) * j.channels + offs[k]];
                        }
                    }
                    std::fprintf(stderr,
                                 "photo%d  %d %d %d   %1.2f %1.2f %1.2f  fval: %1.2f -> %d  poids: %1.2f    %d,%d\n",
                                 p, b[0], b[1], b[2], static_cast<double>(curve[r.c0]),
                                 static_cast<double>(curve[r.c1]), static_cast<double>(curve[r.c2]),
                                 static_cast<double>(r.fval), r.idx, static_cast<double>(r.w), x, y);
                }
            }
        }
    }

    // The weights of row y into every plane; pixels without weight count in
    // cntZero.
    void weighRow(int y, float* scratch, int& cntZero) const noexcept {
        const int width = j.width, nbPhotos = j.nbPhotos;
        float* sum = scratch + static_cast<std::size_t>(nbPhotos) * width;
        float* scale = sum + width;
        W* plane0 = static_cast<W*>(j.poids);
        const std::size_t rowStart = static_cast<std::size_t>(y) * width;
        // Raw weights, photo by photo.
        for (int p = 0; p < nbPhotos; ++p) {
            const unsigned char* row = rowOf(p, y);
            float* wrow = scratch + static_cast<std::size_t>(p) * width;
            if constexpr (std::is_same_v<S, std::uint8_t>) {
                const float* t = j.scaled + static_cast<std::size_t>(p) * 768;
                const float factor = j.photoFactor[p];
                const bool useFactor = factor > 0.0f;
                for (int x = 0; x < width; ++x) {
                    const unsigned char* smp = row + static_cast<std::size_t>(x) * j.channels;
                    float fval = t[smp[o1]] + t[256 + smp[0]];
                    fval = fval + t[512 + smp[o2]];
                    // fval lies in 0 .. 65536: the conversion is exact.
                    std::int32_t idx = static_cast<std::int32_t>(fval);
                    idx = idx > 65535 ? 65535 : idx;
                    float w = j.sharpen[idx];
                    if (useFactor) w *= factor;
                    wrow[x] = w;
                }
            } else {
                for (int x = 0; x < width; ++x) wrow[x] = weighOne(p, row, x).w;
            }
        }
        // Ghost masks: the first photo in index order whose plane has the
        // pixel's bit set takes the pixel alone.
        if (j.removeGhost) {
            for (int x = 0; x < width; ++x) {
                const int forced = ghostPhoto(rowStart + x);
                if (forced < 0) continue;
                for (int q = 0; q < nbPhotos; ++q) scratch[static_cast<std::size_t>(q) * width + x] = 0.0f;
                scratch[static_cast<std::size_t>(forced) * width + x] = 1.0f;
            }
        }
        // Sums over the photos, in photo order.
        for (int x = 0; x < width; ++x) sum[x] = 0.0f;
        for (int p = 0; p < nbPhotos; ++p) {
            const float* wrow = scratch + static_cast<std::size_t>(p) * width;
            for (int x = 0; x < width; ++x) sum[x] += wrow[x];
        }
        for (int x = 0; x < width; ++x) cntZero += sum[x] > 0.0f ? 0 : 1;
        if constexpr (sizeof(W) == 4) {
            for (int p = 0; p < nbPhotos; ++p) {
                const float* wrow = scratch + static_cast<std::size_t>(p) * width;
                W* out = plane0 + p * planePixels + rowStart;
                for (int x = 0; x < width; ++x) out[x] = sum[x] > 0.0f ? wrow[x] / sum[x] : 0.0f;
            }
        } else {
            // A pixel without weight gets the scale 0 and so stores 0.
            const float full = static_cast<float>(1 << j.bitDepthPoids);
            const std::int32_t top = (1 << j.bitDepthPoids) - 1;
            for (int x = 0; x < width; ++x) scale[x] = sum[x] > 0.0f ? full / sum[x] : 0.0f;
            for (int p = 0; p < nbPhotos; ++p) {
                const float* wrow = scratch + static_cast<std::size_t>(p) * width;
                W* out = plane0 + p * planePixels + rowStart;
                for (int x = 0; x < width; ++x) {
                    const float v = wrow[x] * scale[x];
                    // v lies in 0 .. 2^bitDepthPoids, or is a NaN when an
                    // infinite weight met a scale of 0; a NaN stores 0, as
                    // its conversion to an integer would after the clamp.
                    const float vc = v >= 0.0f ? (v < 65536.0f ? v : 65536.0f) : -1.0f;
                    std::int32_t t = static_cast<std::int32_t>(vc);
                    t += (vc - static_cast<float>(t) > 0.5f) ? 1 : 0;
                    t = t < 0 ? 0 : t;
                    t = t > top ? top : t;
                    out[x] = static_cast<W>(t);
                }
            }
        }
    }
};

// Rows [y0, rows) one after the other (in disk mode each read from the file
// first). 0 or -3.
template <class S, class W>
int weighRows(const WeightJob& job, int y0, int rows, float* scratch, int& cntZero) noexcept {
    const RowWeights<S, W> rw(job);
    for (int y = y0; y < rows; ++y) {
        if (job.disk) {
            const int r = rw.readRow(y);
            if (r < 0) return r;
        }
        rw.printRow(y);
        rw.weighRow(y, scratch, cntZero);
    }
    return 0;
}

// Disk mode by blocks: blocks of rows of every photo are read in one go per
// photo on the calling thread, their printed pixels are printed there in row
// order, then the rows are weighed in bands. The rows land in the planes
// exactly as row by row (the whole image is one slice, so mask bits count
// from the first pixel), and the pixel counts add up. A block that cannot be
// read whole, or offsets past what the file positions address, hand the rest
// to the row-by-row reads, which give the failure its own code and line; so
// do a block buffer smaller than one row of every photo and a failed
// allocation of the bands' scratch rows.
//
// With the weight file, the calling thread writes the weights of the block
// before while the bands weigh the next one (each plane's rows at their
// place: the planes lie in the file as in `poids`). A write that fails ends
// these writes; the driver then writes the planes whole, as without them.
template <class S, class W>
int weighBlocks(WeightJob job, DiskRows& dr, float* scratch, int& cntZero) noexcept {
    const RowWeights<S, W> rw(job);
    const std::size_t setBytes = rw.rowBytes * static_cast<std::size_t>(job.nbPhotos);
    const int bands = dr.threads < 1 ? 1 : (dr.threads < kMaxBands ? dr.threads : kMaxBands);
    const std::size_t scratchFloats = (static_cast<std::size_t>(job.nbPhotos) + 2) * job.width;
    if (setBytes == 0 || dr.blockBytes < setBytes) return weighRows<S, W>(job, 0, job.height, scratch, cntZero);
    Owned<float> bandScratch;
    if (bands > 1) {
        bandScratch = makeOwned<float>(scratchFloats * static_cast<std::size_t>(bands));
        if (!bandScratch) return weighRows<S, W>(job, 0, job.height, scratch, cntZero);
    }
    const std::size_t perBlock = dr.blockBytes / setBytes;
    const int blockRows = perBlock < static_cast<std::size_t>(job.height) ? static_cast<int>(perBlock) : job.height;
    const std::int64_t fileBytes = static_cast<std::int64_t>(rw.photoSamples) * rw.sampleBytes * job.nbPhotos;
    const std::size_t wBytes = sizeof(W);
    const std::int64_t poidsBytes = static_cast<std::int64_t>(rw.planePixels) * job.nbPhotos * static_cast<std::int64_t>(wBytes);
    bool writing = dr.fpPoids != nullptr && poidsBytes <= INT32_MAX;
    int written = 0;  // rows of every plane in the weight file
    // Rows [written, y) of every plane to the weight file.
    auto writeRows = [&](int y) {
        for (int p = 0; p < job.nbPhotos && writing && y > written; ++p) {
            const std::size_t first = p * rw.planePixels + static_cast<std::size_t>(written) * job.width;
            const std::size_t count = static_cast<std::size_t>(y - written) * job.width;
            writing = seekScratch(dr.fpPoids, static_cast<std::int64_t>(first * wBytes)) &&
                      std::fwrite(static_cast<const unsigned char*>(job.poids) + first * wBytes, wBytes, count,
                                  dr.fpPoids) == count;
        }
        written = y;
    };
    int counts[kMaxBands] = {};
    int y0 = 0;
    for (; y0 < job.height && fileBytes <= INT32_MAX; y0 += blockRows) {
        const int n = job.height - y0 < blockRows ? job.height - y0 : blockRows;
        int got = 1;
        for (int p = 0; p < job.nbPhotos && got > 0; ++p) {
            const std::int64_t off =
                (static_cast<std::int64_t>(p) * job.height + y0) * static_cast<std::int64_t>(rw.rowBytes);
            got = readScratchBlock(job.fpSource, off, dr.block + static_cast<std::size_t>(p) * blockRows * rw.rowBytes,
                                   static_cast<std::size_t>(n) * rw.rowBytes);
        }
        if (got < 0) return -3;
        if (got == 0) break;
        job.block = dr.block;
        job.blockFirst = y0;
        job.blockRows = blockRows;
        const RowWeights<S, W> bw(job);
        for (int y = y0; y < y0 + n; ++y) bw.printRow(y);
        auto weigh = [&](int band, int first, int count) {
            float* s = bands > 1 ? bandScratch.get() + scratchFloats * static_cast<std::size_t>(band) : scratch;
            for (int y = y0 + first; y < y0 + first + count; ++y) bw.weighRow(y, s, counts[band]);
        };
        if (writing && y0 > written)
            runBandsBeside(bands, n, weigh, [&] { writeRows(y0); });
        else
            runBandsIndexed(bands, n, setBytes, weigh);
    }
    for (int b = 0; b < bands; ++b) cntZero += counts[b];
    job.block = nullptr;
    const int r = weighRows<S, W>(job, y0, job.height, scratch, cntZero);
    if (r == 0 && writing) {
        writeRows(job.height);
        dr.poidsWritten = writing && std::fflush(dr.fpPoids) == 0;
    }
    return r;
}

// Every row of the pass: in disk mode by blocks when a block buffer is
// given, else row after row. 1 when the weight depth is none of 8, 16 and
// 32 (nothing is written).
template <class S, class W>
int weighAll(const WeightJob& job, int rows, DiskRows* dr, float* scratch, int& cntZero) noexcept {
    if (job.disk && dr != nullptr && dr->block != nullptr && rows == job.height)
        return weighBlocks<S, W>(job, *dr, scratch, cntZero);
    return weighRows<S, W>(job, 0, rows, scratch, cntZero);
}

template <class S>
int weighAllFor(const WeightJob& job, int rows, DiskRows* dr, float* scratch, int& cntZero) noexcept {
    if (job.bitDepthPoids == 8) return weighAll<S, std::uint8_t>(job, rows, dr, scratch, cntZero);
    if (job.bitDepthPoids == 16) return weighAll<S, std::uint16_t>(job, rows, dr, scratch, cntZero);
    if (job.bitDepthPoids == 32) return weighAll<S, float>(job, rows, dr, scratch, cntZero);
    return 1;
}

// The worker record of one thread.
struct Worker {
    int width, height, channels, bspIn, bitDepthPoids, nbPhotos;
    const int* indexFixedExpo;
    const float* fvalCurve;
    const float* sharpen;
    const float* photoFactor;
    const void* images;
    void* poids;
    const unsigned char* ghostMask;
    int threadIndex, threadCount, result;
};

struct Slice {
    int first, rows;
    const void* images;
    void* poids;
    const unsigned char* ghostMask;
};

// Rows of thread t: height / count each, the rest to the last thread. The
// mask view moves by whole bytes, (first * width) >> 3, and the bit index
// restarts at 0 in the slice: a slice whose first pixel is not on a byte
// boundary reads the mask displaced by up to 7 pixels. All threads must use
// this same view, or one and several threads would disagree.
Slice sliceOf(const Worker& w) noexcept {
    const int rowsPer = w.height / w.threadCount;
    Slice s{};
    s.first = w.threadIndex * rowsPer;
    s.rows = w.threadIndex == w.threadCount - 1 ? w.height - s.first : rowsPer;
    const std::size_t firstPixel = static_cast<std::size_t>(s.first) * w.width;
    s.images = static_cast<const unsigned char*>(w.images) + firstPixel * w.channels * (w.bspIn / 8);
    s.poids = static_cast<unsigned char*>(w.poids) + firstPixel * (w.bitDepthPoids / 8);
    s.ghostMask = w.ghostMask ? w.ghostMask + (firstPixel >> 3) : nullptr;
    return s;
}

void* aj1b_thread(void* arg) {
    Worker& w = *static_cast<Worker*>(arg);
    const Slice s = sliceOf(w);
    w.result = aj1b_orig(w.nbPhotos, w.width, s.rows, w.height, w.channels, w.bspIn, w.bitDepthPoids,
                         w.fvalCurve, w.sharpen, w.photoFactor, 0, nullptr, nullptr, s.images,
                         w.indexFixedExpo, s.ghostMask, s.poids);
    return nullptr;  // the same as pthread_exit(nullptr)
}

}  // namespace

int aj1b_orig(int nbPhotos, int width, int rows, int height, int channels, int bspIn,
              int bitDepthPoids, const float* fvalCurve, const float* sharpen,
              const float* photoFactor, int disk, std::FILE* fpSource, void* rowBuffer,
              const void* images, const int* indexFixedExpo, const unsigned char* ghostMask,
              void* poids, DiskRows* diskRows) noexcept {
    const bool removeGhost = indexFixedExpo[0] >= 0 && ghostMask != nullptr;
    const std::size_t n = nbPhotos > 0 ? static_cast<std::size_t>(nbPhotos) : 1;
    Owned<int> notMerged = makeOwned<int>(n);
    // The weight scratch (a row per photo, and two more), and for 8-bit
    // samples the curves of each photo times the three channel coefficients
    // (256 entries each).
    const std::size_t rowsBytes = (n + 2) * static_cast<std::size_t>(width > 0 ? width : 0);
    const std::size_t tables = bspIn == 8 ? 768 * n : 0;
    Owned<float> weight = makeOwnedZeroed<float>(rowsBytes + tables);
    if (!notMerged || !weight) return -4;
    float* scaled = weight.get() + rowsBytes;
    for (int p = 0; p < nbPhotos && tables; ++p) {
        const float* curve = fvalCurve + static_cast<std::size_t>(p) * 256;
        float* t = scaled + static_cast<std::size_t>(p) * 768;
        for (int k = 0; k < 256; ++k) {
            t[k] = 45875.2f * curve[k];
            t[256 + k] = 13107.2f * curve[k];
            t[512 + k] = 6553.6f * curve[k];
        }
    }
    // indexPhotoNotMerged[p]: the mask plane that fixes photo p, or -1.
    for (int p = 0; p < nbPhotos; ++p) {
        notMerged[p] = -1;
        if (!removeGhost) continue;
        for (int j = 0; j < nbPhotos; ++j)
            if (indexFixedExpo[j] == p) {
                notMerged[p] = j;
                break;
            }
    }
    if constexpr (traceWeights) {
        for (int p = 0; p < nbPhotos; ++p)
            std::fprintf(stderr, "%d  indexFixedExpo: %d   indexPhotoNotMerged: %d\n", p,
                         indexFixedExpo[p], notMerged[p]);
        std::fprintf(stderr, "aj1b_orig %d photos %d x %d   bps: %d    removeGhost: %d\n", nbPhotos,
                     width, rows, bspIn, removeGhost ? 1 : 0);
    }
    const WeightJob job{nbPhotos, width, height, channels, bspIn, bitDepthPoids, fvalCurve, sharpen, photoFactor,
                        disk != 0, fpSource, static_cast<unsigned char*>(rowBuffer),
                        static_cast<const unsigned char*>(images), removeGhost, notMerged.get(), ghostMask, poids,
                        scaled, nullptr, 0, 0};
    int cntZero = 0;
    int r;
    if (bspIn == 8) r = weighAllFor<std::uint8_t>(job, rows, diskRows, weight.get(), cntZero);
    else if (bspIn == 16) r = weighAllFor<std::uint16_t>(job, rows, diskRows, weight.get(), cntZero);
    else r = weighAllFor<void>(job, rows, diskRows, weight.get(), cntZero);
    if (r > 0) return 0;  // a weight depth that writes nothing
    if constexpr (traceWeights)
        if (r == 0) std::fprintf(stderr, " cntZero: %d\n", cntZero);
    return r;
}

int adjust1(int nbProc, const float* fusionParams, int nbPhotos, int width, int height,
            int channels, int bspIn, int bitDepthPoids, int outIsFloat, float unusedScale,
            const float* exposureTimes, int disk, std::FILE* fpSource, void* rowBuffer,
            const void* images, const int* indexFixedExpo, const unsigned char* ghostMask,
            void* work, void* poids, DiskRows* diskRows) noexcept {
    const float p0 = fusionParams[0];
    float photoBias = fusionParams[1];
    const float highlightCut = fusionParams[2];
    const float power = static_cast<float>(
        p0 < 0.0f ? std::pow(2.0, static_cast<double>(p0) / 10.0 + 0.5)
                  : std::pow(2.0, static_cast<double>(p0) / 5.0 + 0.5));

    const int levels = bspIn == 8 ? 256 : 65536;
    const int mid = bspIn == 8 ? 128 : 32768;
    const std::size_t n = nbPhotos > 0 ? static_cast<std::size_t>(nbPhotos) : 1;
    Owned<float> curves = makeOwned<float>(static_cast<std::size_t>(levels) * n);
    Owned<int> percNoisy = makeOwnedZeroed<int>(n);
    Owned<int> percSat = makeOwnedZeroed<int>(n);
    Owned<int> surexNivo = makeOwnedZeroed<int>(n);
    Owned<int> medianLevel = makeOwnedZeroed<int>(n);
    Owned<int> photoOrder = makeOwnedZeroed<int>(n);
    Owned<float> photoFactor = makeOwnedZeroed<float>(n);
    if (!curves || !percNoisy || !percSat || !surexNivo || !medianLevel || !photoOrder ||
        !photoFactor)
        return -4;

    int statsResult;
    if (diskRows != nullptr && diskRows->stats != nullptr) {
        int* into[5] = {percNoisy.get(), percSat.get(), surexNivo.get(), medianLevel.get(), photoOrder.get()};
        for (int k = 0; k < 5; ++k) std::memcpy(into[k], diskRows->stats + k * n, n * sizeof(int));
        statsResult = diskRows->statsResult;
    } else {
        statsResult = photo_stats(nbPhotos, width, height, channels, bspIn, images, percNoisy.get(), percSat.get(),
                                  surexNivo.get(), medianLevel.get(), photoOrder.get(),
                                  nbProc > 1 ? nbProc : (diskRows ? diskRows->threads : 1));
    }
    if (statsResult < 0) photoBias = 0.0f;
    if constexpr (traceProbe)
        for (int p = 0; p < nbPhotos; ++p)
            std::fprintf(stderr, "photo%d -  perc noisy: %d   sat: %d      surexNivo: %d\n", p,
                         percNoisy[p], percSat[p], surexNivo[p]);

    // The highlight curve's shape carries over to a photo missing from the
    // order (only when the statistics failed); before any photo it is the
    // shape of a stack without saturation.
    const float c = highlightCut;
    float powerLow = 2.0f;
    float powerHigh = static_cast<float>(static_cast<double>(c) + 1.0);
    float multHigh = static_cast<float>(1.0 / std::pow(0.640625, static_cast<double>(powerHigh)));
    const float pixels = static_cast<float>(static_cast<std::int64_t>(width) * height);
    const int half = nbPhotos >> 1;
    for (int i = 0; i < nbPhotos; ++i) {
        float* row = curves.get() + static_cast<std::size_t>(i) * levels;
        int place = -1;
        for (int j = 0; j < nbPhotos; ++j)
            if (photoOrder[j] == i) {
                place = j;
                break;
            }
        if (c > 0.0f) {
            if (place >= 0) {
                const float r = static_cast<float>(surexNivo[i]) / pixels;
                const double cd = c;
                powerHigh = static_cast<float>(r < 0.2 ? cd + 1.0 : (cd - 1.0) * 0.5 + 2.0);
                if (r < 0.05)
                    powerLow = 2.0f;
                else if (r > 0.2)
                    powerLow = static_cast<float>(cd + 1.0);
                else
                    powerLow = static_cast<float>(((cd - 1.0) / 0.15) * r - ((cd - 1.0) * 0.05) / 0.15 + 2.0);
                multHigh = static_cast<float>(1.0 / std::pow(0.640625, static_cast<double>(powerHigh)));
            }
            for (int k = 0; k < levels; ++k) {
                double e;
                if (k < mid)
                    e = 1.0 - std::pow(1.0 - 2.0 * k / levels, static_cast<double>(powerLow));
                else
                    e = 1.0 - static_cast<double>(multHigh) *
                                  std::pow(2.0 * k / levels - 1.0, static_cast<double>(powerHigh));
                row[k] = e > 0.0 ? static_cast<float>(e) : 0.0f;
            }
            if constexpr (traceWeights)
                std::fprintf(stderr, " mult : %1.0f  %1.0f   puissance: %1.0f  %1.0f\n", 1.0,
                             static_cast<double>(multHigh), static_cast<double>(powerLow),
                             static_cast<double>(powerHigh));
        } else {
            // Mid-grey bell: a Gaussian of standard deviation 0.2 of the range.
            for (int k = 0; k < levels; ++k) {
                const float v = static_cast<float>(k - mid) / static_cast<float>(levels);
                row[k] = static_cast<float>(std::exp(-12.5 * v * v));
            }
        }
        if (truncToInt(photoBias) == 0) {
            photoFactor[i] = 0.0f;
        } else {
            // One photo makes half 0: the quotient is then a float NaN or
            // infinity, and a NaN factor counts as no factor.
            const int j = place >= 0 ? place : 0;
            const float q = static_cast<float>(half - j) / static_cast<float>(half);
            const float f = static_cast<float>(
                std::pow(2.0, static_cast<double>(q * photoBias) * 0.25));
            float factor = f * f;
            if (factor < 0.1f) factor = 0.1f;
            photoFactor[i] = factor;
        }
    }

    // The global sharpening curve, indexed by fval.
    float sharpen[65536];
    for (int k = 0; k < 65536; ++k) {
        if (outIsFloat) {
            sharpen[k] = static_cast<float>(k) / 65536.0f;
        } else {
            double base = 1.0 - k / 65536.0;
            if (base < 0.0) base = 0.0;
            sharpen[k] = static_cast<float>(std::pow(base + 0.000001, -static_cast<double>(power)));
        }
    }

    if (nbProc <= 1) {
        return aj1b_orig(nbPhotos, width, height, height, channels, bspIn, bitDepthPoids,
                         curves.get(), sharpen, photoFactor.get(), disk, fpSource, rowBuffer,
                         images, indexFixedExpo, ghostMask, poids, disk ? diskRows : nullptr);
    }

    Owned<Worker> workers = makeOwnedZeroed<Worker>(static_cast<std::size_t>(nbProc));
    Owned<pthread_t> handles = makeOwnedZeroed<pthread_t>(static_cast<std::size_t>(nbProc));
    if (!workers || !handles)  // no room for the records: the calling thread does it all
        return aj1b_orig(nbPhotos, width, height, height, channels, bspIn, bitDepthPoids,
                         curves.get(), sharpen, photoFactor.get(), 0, nullptr, nullptr, images,
                         indexFixedExpo, ghostMask, poids);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    int started = 0;
    bool failed = false;
    for (int t = 0; t < nbProc; ++t) {
        Worker& w = workers[t];
        w = Worker{width, height, channels, bspIn, bitDepthPoids, nbPhotos, indexFixedExpo,
                   curves.get(), sharpen, photoFactor.get(), images, poids, ghostMask, t, nbProc, 0};
        if (pthread_create(&handles[t], &attr, aj1b_thread, &w) != 0) {
            failed = true;
            break;
        }
        ++started;
    }
    int result = 0;
    if (failed) {
        // A thread that would not start: the calling thread computes the
        // whole image. The threads already running are joined first, so
        // that no element is written by two threads at once; their rows come
        // out the same either way.
        for (int t = 0; t < started; ++t) pthread_join(handles[t], nullptr);
        result = aj1b_orig(nbPhotos, width, height, height, channels, bspIn, bitDepthPoids,
                           curves.get(), sharpen, photoFactor.get(), 0, nullptr, nullptr, images,
                           indexFixedExpo, ghostMask, poids);
        if (result == 0) result = workers[nbProc - 1].result;
    } else {
        for (int t = 0; t < nbProc; ++t) pthread_join(handles[t], nullptr);
        // The stage's result is that of the last slice only.
        result = workers[nbProc - 1].result;
    }
    pthread_attr_destroy(&attr);
    return result;
}

}  // namespace ol
