// The exposure fusion driver: weights, then for each photo (last first) its
// weight pyramid and its Laplacian blend into the fused pyramid, then the
// collapse into the output. Memory mode keeps everything in buffers; disk
// mode moves the source, the weight planes and the weight pyramid to three
// scratch files named by the caller and reuses `images` twice.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Ombrelumen40Lib1.h"
#include "frame/alloc.hpp"
#include "frame/file.hpp"
#include "frame/numeric.hpp"
#include "frame/trace.hpp"
#include "fusion/bands.hpp"
#include "fusion/photo_stats.hpp"
#include "fusion/pyramid.hpp"
#include "fusion/scratch.hpp"
#include "fusion/stages.hpp"

namespace ol {

int fusion_progress(OlProgressFn progress, float fraction) noexcept {
    if (progress == nullptr) return 1;
    std::int32_t cancel = 0;
    try {
        progress(fraction, &cancel);
    } catch (...) {
        return 0;  // an exception out of the callback counts as cancel
    }
    return cancel == 0 ? 1 : 0;
}

namespace {

// The size of the block buffer of disk mode: a few dozen rows of every photo
// of a large stack, so that each block makes a band per thread.
constexpr std::size_t kBlockBytes = std::size_t(4) << 20;
std::size_t blockBytesWanted = kBlockBytes;  // see testing::setScratchBlockBytes

// A job on a helper thread while the calling thread does something else;
// finish() joins it, or runs it there when its thread would not start.
template <class F>
class Beside {
public:
    Beside(F& f, bool wanted) noexcept : f_(f), wanted_(wanted) {
        started_ = wanted && pthread_create(&thread_, nullptr, &Beside::entry, this) == 0;
    }
    void finish() noexcept {
        if (started_) pthread_join(thread_, nullptr);
        else if (wanted_) f_();
        started_ = wanted_ = false;
    }
    ~Beside() { finish(); }
    Beside(const Beside&) = delete;
    Beside& operator=(const Beside&) = delete;

private:
    static void* entry(void* self) {
        static_cast<Beside*>(self)->f_();
        return nullptr;
    }
    F& f_;
    bool wanted_, started_ = false;
    pthread_t thread_{};
};

// Writes each page of a buffer once with the byte it holds: its first-touch
// fault is taken here, and no byte changes. Pieces of 2 MiB go to whichever
// thread asks next, so two threads can share the job.
class PageToucher {
public:
    PageToucher(void* p, std::size_t bytes) noexcept : b_(static_cast<unsigned char*>(p)), bytes_(bytes) {}
    void run() noexcept {
        constexpr std::size_t piece = std::size_t(2) << 20;
        for (std::size_t at = next_.fetch_add(piece); at < bytes_; at = next_.fetch_add(piece)) {
            unsigned char* b = b_ + at;
            const std::size_t end = bytes_ - at < piece ? bytes_ - at : piece;
            // One read-modify-write a page: its fault is a write fault that
            // maps a fresh page at once, where a read and then a write would
            // fault twice and copy from the shared zero page, flushing the
            // other threads' address translations each time.
            for (std::size_t i = 0; i < end; i += 4096)
                std::atomic_ref<unsigned char>(b[i]).fetch_or(0, std::memory_order_relaxed);
        }
    }

private:
    unsigned char* b_;
    std::size_t bytes_;
    std::atomic<std::size_t> next_{0};
};

// Level 0 of `work` from photo `photo`: 16-bit samples on a 15-bit scale.
void toPipeline(const void* src, int bspIn, std::size_t n, std::uint16_t* dst) noexcept {
    if (bspIn == 8) {
        const auto* s = static_cast<const std::uint8_t*>(src);
        for (std::size_t i = 0; i < n; ++i) dst[i] = static_cast<std::uint16_t>(s[i] << 7);
    } else if (bspIn == 16) {
        const auto* s = static_cast<const std::uint16_t*>(src);
        for (std::size_t i = 0; i < n; ++i) dst[i] = static_cast<std::uint16_t>(s[i] >> 1);
    }
}

int fusionRun(FusionFiles* files, OlProgressFn progress, float* fusionParams, int nbPhotos,
              int width, int height, int outStride, int outSwap, int channels, int bspIn,
              int bspOut, int bitDepthPoids, int bitDepthFusion, int lenPyram, int wrapX,
              float unusedScale, float* exposureTimes, void* images, int* indexFixedExpo,
              unsigned char* ghostMask, void* outFloat, void* work) noexcept {
    int nbProc = files ? files->nbProc : 0;
    // Every stage splits its rows into bands on the host's threads, in both
    // modes (the results do not depend on it). The weight stage's slice
    // workers follow nbProc as the disk mode sets it; disk mode weighs its
    // rows block by block on the same threads instead.
    const int threads = nbProc > 1 ? nbProc : 1;
    if constexpr (traceProbe)
        std::fprintf(stderr,
                     "ol_fusion:  %d photos  %d x %d  lenPyram: %d  bspIn: %d  out: %d     bitDepthPoids: %d   bitDepthFusion: %d  nbProc: %d\n",
                     nbPhotos, width, height, lenPyram, bspIn, bspOut, bitDepthPoids, bitDepthFusion,
                     nbProc);
    if constexpr (traceFlow)
        for (int i = 0; i < nbPhotos - 1; ++i)
            std::fprintf(stderr, "exposureTimes%d:  %1.4f\n", i, static_cast<double>(exposureTimes[i]));

    const float start = bitDepthFusion == 32 ? 0.1f : 0.3f;
    bool disk = false;
    if (bspIn == 32) {
        if (bspOut != 32 || bitDepthFusion != 32) return -2;
        // The diagnostic bound of a float stack; no pixel depends on it.
        float minExpo = 1.0f;
        for (int i = 0; i < nbPhotos - 1; ++i)
            if (exposureTimes[i] < minExpo) minExpo = exposureTimes[i];
        float scaleToMax7 = 32768.0f;
        if (minExpo > 0.0f)
            scaleToMax7 = static_cast<float>(std::pow(static_cast<double>(minExpo), static_cast<double>(0.45454547f)) * 32768.0);
        if constexpr (traceStats)
            std::fprintf(stderr, "minExpo: %1.4f  scaleToMax7:  %1.2f\n", static_cast<double>(minExpo),
                         static_cast<double>(scaleToMax7));
        bitDepthFusion = 16;
    } else {
        disk = files && files->readFromDisk != 0 && files->nameSource && files->namePoids &&
               files->namePyramPoids && (nbPhotos >= 3 || bspIn >= 16);
    }

    const std::size_t pixels = static_cast<std::size_t>(width > 0 ? width : 0) * static_cast<std::size_t>(height > 0 ? height : 0);
    const std::size_t inBytes = static_cast<std::size_t>(bspIn / 8);
    const std::size_t wBytes = static_cast<std::size_t>(bitDepthPoids / 8);
    const std::size_t fBytes = static_cast<std::size_t>(bitDepthFusion / 8);
    const std::size_t lenPyr = static_cast<std::size_t>(lenPyram > 0 ? lenPyram : 0);
    const std::size_t photos = static_cast<std::size_t>(nbPhotos > 0 ? nbPhotos : 0);

    // The levels of step 9. A lenPyram below what they take (pyram_len gives
    // at least that) would send every pyramid past its buffer: such a call
    // is refused as missing input, before anything is allocated.
    int nivo = pyramidReductions(width, height);
    if (bspOut == 32 && nivo > 5) --nivo;
    if (static_cast<std::int64_t>(lenPyr) < pyramidPixels(width, height, (nivo > 0 ? nivo : 0) + 1)) return -1;

    // A float fused pyramid from 8 or 16-bit photos reads the 16-bit
    // pipeline samples as floats, and its photo pyramid needs four bytes a
    // sample where the caller's `work` has two. That combination is accepted
    // without giving an image; it runs on a float pyramid of its own, so that
    // nothing beyond `work` is touched.
    Owned<float> floatWork;
    void* pipeline = work;
    if (bitDepthFusion == 32 && bspIn != 32) {
        floatWork = makeOwnedZeroed<float>(lenPyr * static_cast<std::size_t>(channels > 0 ? channels : 1));
        if (!floatWork) return -4;
        pipeline = floatWork.get();
    }

    // Disk mode reuses `images` for the weight planes and the fused pyramid,
    // `work` for the weight pyramid and the row buffer for rows of weights.
    // Where one of them would not fit in the size the caller was asked for,
    // the call runs in memory instead of writing past the buffer.
    if (disk) {
        const std::size_t ch = static_cast<std::size_t>(channels);
        const std::size_t imagesBytes = photos * pixels * ch * inBytes;
        const std::size_t workBytes = lenPyr * ch * (floatWork ? 4 : 2);
        const std::size_t rowBytes = photos * static_cast<std::size_t>(width) * ch * inBytes;
        disk = photos * pixels * wBytes <= imagesBytes && wBytes * ch * lenPyr <= imagesBytes &&
               lenPyr * ch * fBytes <= imagesBytes && lenPyr * wBytes <= workBytes &&
               pixels * wBytes <= workBytes && static_cast<std::size_t>(width) * wBytes <= rowBytes;
    }

    // Scratch files; a failed open falls back to memory. Every path out of
    // this function closes what it opened and frees what it took (the
    // caller's files and buffers keep the content the steps gave them).
    File fpSource, fpPoids, fpPyramPoids;
    if (disk) {
        fpSource = openFile(files->nameSource, "wb+");
        if (fpSource) fpPoids = openFile(files->namePoids, "wb+");
        if (fpPoids) fpPyramPoids = openFile(files->namePyramPoids, "wb+");
        if (!fpSource || !fpPoids || !fpPyramPoids) {
            // Memory mode after all, with the caller's threads.
            disk = false;
            fpSource.reset();
            fpPoids.reset();
            fpPyramPoids.reset();
        } else {
            // Disk mode has no slice workers for the weights (its blocks of
            // rows are banded instead); this stays so even if the source
            // dump below falls back to memory.
            nbProc = 0;
        }
    }
    Owned<int> statsAside;
    int* statsOut = nullptr;  // the five result arrays in statsAside
    int statsResult = 0;
    Owned<unsigned char> rowBuffer;
    // Disk mode reads its scratch files by blocks of rows into `block` where
    // they are read row by row through the row buffer: fewer, larger reads,
    // and rows that the stages can split among the threads. It holds at
    // least one row of every photo; without it the rows are read one by one.
    Owned<unsigned char> block;
    std::size_t blockBytes = 0;
    if (disk) {
        const std::size_t rowBufferBytes = photos * static_cast<std::size_t>(width) * channels * inBytes;
        rowBuffer = makeOwnedZeroed<unsigned char>(rowBufferBytes);
        if (!rowBuffer) return -4;
        if (blockBytesWanted > 0) {
            blockBytes = rowBufferBytes > blockBytesWanted ? rowBufferBytes : blockBytesWanted;
            block = makeOwned<unsigned char>(blockBytes);
            if (!block) blockBytes = 0;
        }
        const std::size_t count = photos * pixels * channels;
        // The copy takes a while on the calling thread; beside it, on the
        // host's other threads, helpers count the brightness statistics
        // (they read the photos only) and touch the pages of the buffer that
        // takes the weight pyramid, so that the stages after the weights
        // meet no first-touch page faults there. The calling thread joins
        // both jobs once its copy is done. The tallies of the statistics
        // share the allocation of their results.
        const int takers = threads < 8 ? threads : 8;  // more gain nothing on a copy this short
        const std::size_t tallyWords = StatsShare::tallyWords(nbPhotos, takers);
        if (threads > 1) statsAside = makeOwned<int>(2 * tallyWords + 5 * (photos > 0 ? photos : 1));
        if (statsAside) statsOut = statsAside.get() + 2 * tallyWords;
        auto* tally = reinterpret_cast<std::int64_t*>(statsAside.get());
        StatsShare share(nbPhotos, width, height, channels, bspIn, images, tally, statsAside ? takers : 0);
        PageToucher toucher(pipeline, lenPyr * static_cast<std::size_t>(channels) * (floatWork ? 4 : 2));
        auto aside = [&] {
            runBandsIndexed(takers - 1, takers - 1, std::size_t(1) << 20,
                            [&](int band, int, int) { share.take(band); });
            toucher.run();
        };
        Beside<decltype(aside)> helper(aside, statsAside != nullptr);
        const std::size_t written = std::fwrite(images, inBytes, count, fpSource.get());
        if (statsAside) {
            toucher.run();
            share.take(takers - 1);
        }
        helper.finish();
        if (statsOut)
            statsResult = share.finish(statsOut, statsOut + photos, statsOut + 2 * photos, statsOut + 3 * photos,
                                       statsOut + 4 * photos);
        if constexpr (traceFlow)
            std::fprintf(stderr, "retour dump: %d     readFromDisk: %d\n", static_cast<int>(written),
                         files->readFromDisk);
        if (written != count) {
            fpSource.reset();
            fpPoids.reset();
            fpPyramPoids.reset();
            rowBuffer.reset();
            block.reset();
            blockBytes = 0;
            disk = false;
        }
    }

    // Weight planes. In memory the pyramid area starts where the last plane
    // stands, so every weight pyramid is built in the tail of `poids`.
    Owned<unsigned char> poidsOwned;
    unsigned char* poids;
    if (disk) {
        poids = static_cast<unsigned char*>(images);
    } else {
        const std::size_t planes = photos > 0 ? photos - 1 : 0;
        std::size_t elements = planes * pixels + lenPyr;
        if (photos == 0) elements = lenPyr > pixels ? lenPyr - pixels : 0;
        poidsOwned = makeOwnedZeroed<unsigned char>(elements * wBytes);
        if (!poidsOwned) return -4;
        poids = poidsOwned.get();
    }
    DiskRows diskRows;
    diskRows.threads = threads;
    diskRows.block = block.get();
    diskRows.blockBytes = blockBytes;
    diskRows.fpPoids = fpPoids.get();
    diskRows.stats = statsOut;
    diskRows.statsResult = statsResult;
    const int r1 = adjust1(nbProc, fusionParams, nbPhotos, width, height, channels, bspIn,
                           bitDepthPoids, bspOut == 32, unusedScale, exposureTimes, disk,
                           fpSource.get(), rowBuffer.get(), images, indexFixedExpo, ghostMask, work,
                           poids, disk ? &diskRows : nullptr);
    if constexpr (traceFlow) std::fprintf(stderr, "retour adjust1: %d\n", r1);
    if (r1 < 0) return r1;
    fusion_progress(progress, start);

    if (disk) {
        // The weight stage may have written the planes already, block by
        // block; else (or after a failed write there) they go in one write
        // from the start of the file.
        const std::size_t count = pixels * photos;
        std::size_t written = count;
        if (!diskRows.poidsWritten) {
            std::fseek(fpPoids.get(), 0, SEEK_SET);
            written = std::fwrite(poids, wBytes, count, fpPoids.get());
        }
        if constexpr (traceFlow) std::fprintf(stderr, "retour dump poids: %d\n", static_cast<int>(written));
        if (written != count) return -2;
    }

    const std::int64_t biasedPixels = pyramidPixels(width, height, nivo > 0 ? nivo : 0);

    Owned<unsigned char> fusedOwned;
    void* fused;
    unsigned char* weightArea;  // level 0 of the weight pyramid
    if (disk) {
        fused = images;
        weightArea = static_cast<unsigned char*>(pipeline);
        // The count is formed with the weight depth, not the fusion depth:
        // with 8-bit weights only the front of a 16-bit fused pyramid is
        // cleared, and its low-pass level keeps what `images` held there.
        // Bytes that the bias of a 16-bit pyramid fills next are left to it.
        const std::size_t clearBytes = wBytes * static_cast<std::size_t>(channels) * lenPyr;
        std::size_t biasBytes = 0;
        if (bitDepthFusion == 16) biasBytes = static_cast<std::size_t>(biasedPixels) * channels * 2;
        if (biasBytes < clearBytes)
            std::memset(static_cast<unsigned char*>(fused) + biasBytes, 0, clearBytes - biasBytes);
    } else {
        fusedOwned = makeOwnedZeroed<unsigned char>(lenPyr * static_cast<std::size_t>(channels) * fBytes);
        if (!fusedOwned) return -4;
        fused = fusedOwned.get();
        weightArea = poids + (photos > 0 ? photos - 1 : 0) * pixels * wBytes;
    }
    if (bitDepthFusion == 16) {
        auto* f16 = static_cast<std::uint16_t*>(fused);
        const std::size_t n = static_cast<std::size_t>(biasedPixels) * channels;
        constexpr std::size_t block = std::size_t(1) << 16;
        const int blocks = static_cast<int>((n + block - 1) / block);
        runBands(threads, blocks, block, [&](int first, int count) {
            const std::size_t end = std::min(n, static_cast<std::size_t>(first + count) * block);
            for (std::size_t i = static_cast<std::size_t>(first) * block; i < end; ++i) f16[i] = 32767;
        });
    }

    const float span = 1.0f - (start + 0.2f);
    const std::size_t rowSamples = static_cast<std::size_t>(width) * channels;
    auto* work16 = static_cast<std::uint16_t*>(pipeline);
    for (int i = nbPhotos - 1; i >= 0; --i) {
        if constexpr (traceProbe)
            std::fprintf(stderr, "------------- Pyramide laplace et Blending image %d ------------------\n", i);
        // Weight plane i to level 0 of the weight pyramid. From the file
        // side by side where the offsets allow; else, or when a piece fell
        // short, in one read that meets the fault with its own code and line.
        if (disk) {
            const std::int64_t planeOff = static_cast<std::int64_t>(i) * static_cast<std::int64_t>(pixels * wBytes);
            const int inBands = readScratchBands(fpPoids.get(), planeOff, weightArea, pixels * wBytes, threads);
            if (inBands < 0) return -3;
            if (inBands == 0) {
                if (!seekScratch(fpPoids.get(), planeOff)) return -3;
                const std::size_t got = std::fread(weightArea, wBytes, pixels, fpPoids.get());
                if (got != pixels) {
                    if constexpr (traceFlow)
                        std::fprintf(stderr, "could not read fpPoids - returned %d instead of %d\n",
                                     static_cast<int>(got), static_cast<int>(pixels));
                    return -3;
                }
            }
        } else {
            unsigned char* plane = poids + static_cast<std::size_t>(i) * pixels * wBytes;
            if (plane != weightArea) std::memmove(weightArea, plane, pixels * wBytes);
        }
        const int r21 = adjust21(nivo, width, height, bitDepthPoids, wrapX, weightArea, threads);
        if constexpr (traceFlow) std::fprintf(stderr, "retour adjust21: %d\n", r21);
        if (r21 < 0) return r21;
        if (disk) {
            if (!seekScratch(fpPyramPoids.get(), 0)) return -3;
            const std::size_t written = std::fwrite(weightArea, wBytes, lenPyr, fpPyramPoids.get());
            if constexpr (traceFlow)
                std::fprintf(stderr, "retour dump pyramPoids: %d\n", static_cast<int>(written));
            if (written != lenPyr) return -2;
            // The blend seeks before it reads, and that seek would flush what
            // is still buffered; a flush that fails here is that failed seek.
            if (std::fflush(fpPyramPoids.get()) != 0) return -3;
        }
        // The photo to level 0 of work (in disk mode over the weight pyramid,
        // which now lives only in its file).
        if (disk) {
            // Blocks of rows first, converted in bands; the rows no block
            // holds one by one.
            const std::size_t rowBytes = rowSamples * inBytes;
            const std::size_t perBlock = rowBytes > 0 ? blockBytes / rowBytes : 0;
            const int blockRows = perBlock < static_cast<std::size_t>(height) ? static_cast<int>(perBlock) : height;
            int y0 = 0;
            for (; blockRows > 0 && y0 < height; y0 += blockRows) {
                const int n = height - y0 < blockRows ? height - y0 : blockRows;
                const std::int64_t off = (static_cast<std::int64_t>(i) * height + y0) * static_cast<std::int64_t>(rowBytes);
                const int got =
                    readScratchBands(fpSource.get(), off, block.get(), static_cast<std::size_t>(n) * rowBytes, threads);
                if (got < 0) return -3;
                if (got == 0) break;
                runBands(threads, n, rowSamples, [&](int first, int count) {
                    toPipeline(block.get() + static_cast<std::size_t>(first) * rowBytes, bspIn,
                               static_cast<std::size_t>(count) * rowSamples,
                               work16 + static_cast<std::size_t>(y0 + first) * rowSamples);
                });
            }
            for (int y = y0; y < height; ++y) {
                const std::int64_t off = (static_cast<std::int64_t>(i) * height + y) *
                                         static_cast<std::int64_t>(rowSamples * inBytes);
                if (!seekScratch(fpSource.get(), off)) return -3;
                const std::size_t got = std::fread(rowBuffer.get(), inBytes, rowSamples, fpSource.get());
                if (got != rowSamples) {
                    if constexpr (traceFlow)
                        std::fprintf(stderr, "could not read fpSource - returned %d instead of %d  at  %d\n",
                                     static_cast<int>(got), static_cast<int>(rowSamples), y);
                    return -3;
                }
                toPipeline(rowBuffer.get(), bspIn, rowSamples, work16 + static_cast<std::size_t>(y) * rowSamples);
            }
        } else {
            const unsigned char* photo =
                static_cast<const unsigned char*>(images) + static_cast<std::size_t>(i) * pixels * channels * inBytes;
            const std::size_t rowBytes = rowSamples * inBytes;
            runBands(threads, height, rowSamples, [&](int first, int count) {
                toPipeline(photo + static_cast<std::size_t>(first) * rowBytes, bspIn,
                           static_cast<std::size_t>(count) * rowSamples,
                           work16 + static_cast<std::size_t>(first) * rowSamples);
            });
        }
        const int r22 = fusion22(nivo, width, height, channels, bspOut, bitDepthFusion, bitDepthPoids, wrapX,
                                 disk ? nullptr : weightArea, fpPyramPoids.get(), rowBuffer.get(), pipeline, fused,
                                 threads, block.get(), blockBytes);
        if (r22 < 0) return r22;
        const int k = nbPhotos - i;
        fusion_progress(progress, start + span * static_cast<float>(k) / static_cast<float>(nbPhotos));
    }
    fpSource.reset();
    fpPoids.reset();
    fpPyramPoids.reset();
    rowBuffer.reset();
    block.reset();
    poidsOwned.reset();

    const int r3 = fusion3(fusionParams, nivo, width, height, channels, bspOut, bitDepthFusion, outStride,
                           outSwap, wrapX, fused, outFloat, work, threads);
    if constexpr (traceProbe) std::fprintf(stderr, "retour fusion3 %d \n", r3);
    fusion_progress(progress, 0.95f);
    return r3;
}

}  // namespace

namespace testing {
void setScratchBlockBytes(std::size_t bytes) noexcept { blockBytesWanted = bytes; }
void resetScratchBlockBytes() noexcept { blockBytesWanted = kBlockBytes; }
}  // namespace testing

}  // namespace ol

extern "C" {

int ol_fusion(FusionFiles* files, OlProgressFn progress, float* fusionParams, int nbPhotos,
              int width, int height, int outStride, int outSwap, int channels, int bspIn,
              int bspOut, int bitDepthPoids, int bitDepthFusion, int lenPyram, int wrapX,
              float unusedScale, float* exposureTimes, void* images, int* indexFixedExpo,
              unsigned char* ghostMask, void* outFloat, void* work) {
    return ol::fusionRun(files, progress, fusionParams, nbPhotos, width, height, outStride, outSwap,
                         channels, bspIn, bspOut, bitDepthPoids, bitDepthFusion, lenPyram, wrapX,
                         unusedScale, exposureTimes, images, indexFixedExpo, ghostMask, outFloat, work);
}

}  // extern "C"
