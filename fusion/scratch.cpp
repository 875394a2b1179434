#include "fusion/scratch.hpp"

#include "fusion/bands.hpp"

#if !defined(_WIN32)
#include <unistd.h>

#include <cerrno>
#endif

namespace ol {
#if !defined(_WIN32)
namespace {

// A piece under this many bytes is not worth a thread of its own.
constexpr std::size_t kMinPiece = std::size_t(1) << 20;

bool preadWhole(int fd, unsigned char* dst, std::size_t bytes, std::int64_t off) noexcept {
    while (bytes > 0) {
        const ssize_t got = ::pread(fd, dst, bytes, static_cast<off_t>(off));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        dst += got;
        bytes -= static_cast<std::size_t>(got);
        off += got;
    }
    return true;
}

}  // namespace
#endif

int readScratchBands(std::FILE* f, std::int64_t off, void* dst, std::size_t bytes, int threads) noexcept {
    if (off < 0 || off + static_cast<std::int64_t>(bytes) > INT32_MAX) return 0;
    if (std::fseek(f, static_cast<long>(off), SEEK_SET) != 0) return -1;
#if defined(_WIN32)
    (void)threads;  // no positioned reads there: one read
    return std::fread(dst, 1, bytes, f) == bytes ? 1 : 0;
#else
    const int fd = fileno(f);
    std::size_t pieces = bytes / kMinPiece;
    if (pieces > static_cast<std::size_t>(threads)) pieces = static_cast<std::size_t>(threads);
    if (pieces > static_cast<std::size_t>(kMaxBands)) pieces = kMaxBands;
    if (fd < 0 || pieces <= 1) return std::fread(dst, 1, bytes, f) == bytes ? 1 : 0;
    // Pieces of whole 4 KiB pages; the last one takes the rest.
    const std::size_t per = bytes / pieces / 4096 * 4096;
    auto* d = static_cast<unsigned char*>(dst);
    bool whole[kMaxBands] = {};
    runBandsIndexed(static_cast<int>(pieces), static_cast<int>(pieces), kMinPiece, [&](int, int first, int count) {
        for (int k = first; k < first + count; ++k) {
            const std::size_t at = static_cast<std::size_t>(k) * per;
            const std::size_t n = k + 1 == static_cast<int>(pieces) ? bytes - at : per;
            whole[k] = preadWhole(fd, d + at, n, off + static_cast<std::int64_t>(at));
        }
    });
    for (std::size_t k = 0; k < pieces; ++k)
        if (!whole[k]) return 0;
    return 1;
#endif
}

}  // namespace ol
