// Block reading from a file, for decoders that take a file byte after byte
// in order (the streaming Radiance decoders).
//
// The decoders are specified byte by byte through the buffered file
// interface; reading blocks of the file into a stack buffer gives the same
// bytes in the same order, and the same end-of-file point, at a fraction of
// the cost of one stdio call a byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace ol {

class ByteSource {
public:
    explicit ByteSource(std::FILE* f) noexcept : f_(f) {}
    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;

    // Next byte, or -1 at the end of the file.
    int get() noexcept {
        if (pos_ == end_ && !refill()) return -1;
        return buf_[pos_++];
    }

    // Copies up to n bytes; returns how many were there.
    std::size_t read(std::uint8_t* out, std::size_t n) noexcept {
        std::size_t done = 0;
        while (done < n) {
            if (pos_ == end_ && !refill()) break;
            std::size_t k = end_ - pos_;
            if (k > n - done) k = n - done;
            std::memcpy(out + done, buf_ + pos_, k);
            pos_ += k;
            done += k;
        }
        return done;
    }

    // Passes over up to n bytes; returns how many were there.
    std::size_t skip(std::size_t n) noexcept {
        std::size_t done = 0;
        while (done < n) {
            if (pos_ == end_ && !refill()) break;
            std::size_t k = end_ - pos_;
            if (k > n - done) k = n - done;
            pos_ += k;
            done += k;
        }
        return done;
    }

    // Bytes that can be taken without another file read.
    std::size_t buffered() const noexcept { return end_ - pos_; }
    const std::uint8_t* peek() const noexcept { return buf_ + pos_; }
    void advance(std::size_t n) noexcept { pos_ += n; }

private:
    bool refill() noexcept {
        if (atEnd_) return false;
        const std::size_t n = std::fread(buf_, 1, sizeof buf_, f_);
        pos_ = 0;
        end_ = n;
        if (n < sizeof buf_) atEnd_ = true;
        return n > 0;
    }

    std::FILE* f_;
    std::size_t pos_ = 0;
    std::size_t end_ = 0;
    bool atEnd_ = false;
    std::uint8_t buf_[32768];
};

}  // namespace ol
