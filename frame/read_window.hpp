// A bounded read window over the start of a file, for decoders that work on
// pointer ranges in memory (the in-memory Radiance decoder) but should not
// hold the whole file: the first `limit` bytes are read in order, and fill(n)
// makes n contiguous bytes available at p, moving what is left of the buffer
// to its start before reading on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace ol {

// The first `limit` bytes of a file, read in order into a buffer of
// `capacity` bytes: [p, end) is what has been read and not yet passed over.
struct ReadWindow {
    std::FILE* f;
    std::uint8_t* buf;
    std::size_t capacity;
    std::size_t left;  // bytes of the limit not read yet
    const std::uint8_t* p;
    const std::uint8_t* end;
    bool shortRead = false;

    ReadWindow(std::FILE* file, std::uint8_t* b, std::size_t cap, std::size_t limit) noexcept
        : f(file), buf(b), capacity(cap), left(limit), p(b), end(b) {}

    // The file ended before the limit.
    bool cut() const noexcept { return shortRead; }

    // Makes n bytes available from p (at most the capacity): false when the
    // data ends first.
    bool fill(std::size_t n) noexcept {
        if (static_cast<std::size_t>(end - p) >= n) return true;
        if (left == 0 || shortRead) return false;
        const std::size_t kept = static_cast<std::size_t>(end - p);
        std::memmove(buf, p, kept);
        std::size_t want = capacity - kept;
        if (want > left) want = left;
        const std::size_t got = std::fread(buf + kept, 1, want, f);
        left -= got;
        if (got < want) shortRead = true;
        p = buf;
        end = buf + kept + got;
        return static_cast<std::size_t>(end - p) >= n;
    }

    // First byte c from p on, reading on as needed (what lies before it is
    // passed over); null when the data ends without one.
    const std::uint8_t* find(std::uint8_t c) noexcept {
        for (;;) {
            if (const void* q = std::memchr(p, c, static_cast<std::size_t>(end - p)))
                return static_cast<const std::uint8_t*>(q);
            p = end;
            if (!fill(1)) return nullptr;
        }
    }
    void take(const std::uint8_t* q) noexcept { p = q; }
};

}  // namespace ol
