// Every exported family called once on small fixed inputs, one row a call:
// the threads test makes these calls at once and compares them with the same
// calls made alone, the allocation sweep makes them with their allocations
// failing in turn.
#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "support/records.hpp"
#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace oltest::families {

using Bytes = std::vector<std::uint8_t>;
constexpr std::uint8_t kSentinel = 0xEE;  // what output buffers hold before a call
constexpr int kNotSwept = 1;              // the row is left out of the allocation sweep

template <class T>
void append(Bytes& out, const T* p, std::size_t n) {
    const std::size_t at = out.size();
    out.resize(at + n * sizeof(T));
    std::memcpy(out.data() + at, p, n * sizeof(T));
}
// Appends the file a call wrote; returns the call's result.
inline int withFile(Bytes& out, const std::string& path, int result) {
    const Bytes f = readFile(path);
    out.insert(out.end(), f.begin(), f.end());
    return result;
}
inline bool sentinelOnly(const Bytes& b) { return b == Bytes(b.size(), kSentinel); }
// `out` as n bytes of the sentinel, for a call to fill.
inline unsigned char* sized(Bytes& out, std::size_t n) {
    out.assign(n, kSentinel);
    return out.data();
}
template <class T>
T* sizedAs(Bytes& out, std::size_t n) {
    return reinterpret_cast<T*>(sized(out, n * sizeof(T)));
}

struct Call {
    const char* name;
    int allocCode;  // the family's code when an allocation fails, or kNotSwept
    // Makes the call with `dir` as its own folder. `out` arrives empty and
    // leaves with everything produced: output buffers, files written.
    std::function<int(const std::string& dir, Bytes& out)> run;
    // After a failed allocation: the outputs are as they were (null: not required).
    std::function<bool(const Bytes& out)> untouched = nullptr;
    std::vector<long> absorbed = {};  // allocations whose failure the call works around
    bool concurrent = true;           // also made by the threads test
};

// The rows; `inputs` is a folder for the Radiance picture the readers read.
inline std::vector<Call> calls(const std::string& inputs) {
    constexpr int W = 64, H = 80, w = 40, h = 30;  // the picture; the bracket
    static const Bytes rgbe = [] {  // exponents near 128
        Bytes b = randomBytes(4u * W * H, 7);
        for (std::size_t i = 3; i < b.size(); i += 4) b[i] = static_cast<std::uint8_t>(124 + b[i] % 8);
        return b;
    }();
    static const Bytes stack = fustest::makeStack(3, w, h, 3, 8, 5);  // 2 stops apart
    static const Bytes photo16 = fustest::makeStack(1, w, h, 3, 16, 5);  // one photo at 16 bits
    static const auto* stack16 = reinterpret_cast<const std::uint16_t*>(photo16.data());
    static const std::string src = OL_SOURCE_DIR, psd8 = src + "/fuzz/corpus/psd_reader_fuzz/psd8rle.psd",
                             psd32 = src + "/fuzz/corpus/psd_reader_fuzz/psd32.psd";
    static const fustest::Job fusion = fustest::sized(23, 17);
    static const Bytes fusionStack = fusion.stack();
    static ExifRecord exif = records::emptyExif();
    const std::string pic = inputs + "/in.hdr";
    static int dims[7] = {0, 0, 0, 0, 0, 0, 0};
    static PsdInfo info8{}, info32{};
    float primaries[8];
    if (ol_io_rgbe_write(pic.c_str(), W, H, &exif, nullptr, "sRGB", rgbe.data()) != H ||
        rgbe_dim(pic.c_str(), primaries, dims) < 0 || getPsdInfo(psd8.c_str(), &info8) <= 0 ||
        getPsdInfo(psd32.c_str(), &info32) <= 0)
        ADD_FAILURE() << "the inputs of the family calls";
    const auto merge = [](int kind) {
        return [kind](const std::string&, Bytes& out) {
            unsigned char* d = sized(out, 4u * w * h);
            d[0] = 0;  // calc_hdr's consistency switch: off
            std::vector<float> lut(256, 0.0f), dt{0.5f, 1.0f, 2.0f};
            float stats[3] = {0, 0, 0};
            const int r = kind == 0   ? ol_hdr_merge(0, 3, w, h, 3, 8, 0, lut.data(), -1, dt.data(), stack.data(), stats, d)
                          : kind == 1 ? calc_hdr(1, 3, w, h, 3, 8, 0, lut.data(), 0.5f, dt.data(), stack.data(), stats, d)
                                      : hdr_unghost(1, 2, 3, w, h, 3, 8, 0, lut.data(), 0.5f, dt.data(), stack.data(), stats, d);
            append(out, stats, 3);
            append(out, lut.data(), lut.size());
            append(out, dt.data(), dt.size());
            return r;
        };
    };
    const auto loadPsd = [](const std::string& path, const PsdInfo& info) {
        return [p = &path, i = &info](const std::string&, Bytes& o) {
            PsdInfo copy = *i;
            return load_psd(1, p->c_str(), &copy, 4 * i->width, sized(o, 16u * i->width * i->height));
        };
    };
    const auto fuse = [](int nbProc, bool disk) {
        return [nbProc, disk](const std::string& dir, Bytes& out) {
            fustest::Job j = disk ? fusion.onDisk(dir) : fusion;
            j.nbProc = nbProc;
            const int r = j.go(fusionStack);
            out = j.output();
            return r;
        };
    };
    return {
        {"rgbe_rep", -4, [](auto&, Bytes& o) { return rgbe_rep(32, 24, 3 * 32, 10.0f, rgbe.data(), sized(o, 3u * 32 * 24)); },
         sentinelOnly},
        {"hdr_rep8", -4, [](auto&, Bytes& o) { return hdr_rep8(6, 4, 3, 2, 9, 10.0f, rgbe.data(), sized(o, 4u * 18)); },
         sentinelOnly},
        {"calc_courbe", -4,
         [](auto&, Bytes& o) {
             const float ex[3] = {1, 4, 16};
             return calc_courbe(3, w, h, 8, 3, ex, stack.data(), sizedAs<float>(o, 256));
         },
         sentinelOnly},
        {"comp16", -4, [](auto&, Bytes& o) { return comp16(4, w, h, 3 * w, 3, stack16, sized(o, w * h * 3u)); }},
        {"comp16qv", -4,
         [](auto&, Bytes& o) { return comp16qv(0, 0, 0, 20, 4, 3 * w, 60, 3, stack16, sized(o, 4u * 60)); }},
        {"ol_io_rgbe_write", -4,
         [](const std::string& d, Bytes& o) {
             return withFile(o, d + "/out.hdr", ol_io_rgbe_write((d + "/out.hdr").c_str(), 32, 24, &exif, nullptr, "sRGB", rgbe.data()));
         }},
        {"ol_write_strip_rgbe", -4,
         [](const std::string& d, Bytes& o) {
             return withFile(o, d + "/strip.hdr", ol_write_strip_rgbe((d + "/strip.hdr").c_str(), 0, 24, 32, 24, nullptr, rgbe.data()));
         }},
        {"decomp_rle", -4, [pic](auto&, Bytes& o) { return decomp_rle(pic.c_str(), dims, sized(o, 4u * W * H)); }},
        {"decomp2", -4, [pic](auto&, Bytes& o) { return decomp2(pic.c_str(), dims, sized(o, 4u * W * H), nullptr); }},
        {"ol_io_read_preview_rgbe", -4,
         [pic](auto&, Bytes& o) { return ol_io_read_preview_rgbe(W, H, 8, 4, pic.c_str(), sized(o, 4u * 8 * 4)); }},
        {"ol_downsample", -4,
         [](auto&, Bytes& o) { return ol_downsample(2, 2, 0, 2, 2, 0, 0, 32, rgbe.data(), sized(o, 4u * 2 * 2)); }},
        {"buf2tifOld", -1,
         [](const std::string& d, Bytes& o) {
             ExifRecord e = records::emptyExif();
             e.iso = 200;
             tif_info t = records::makeInfo(8, 6, 3, 8);
             const float tm[15] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
             return withFile(o, d + "/o.tif", buf2tifOld(stack.data(), &t, 24, nullptr, &e, nullptr, 0, nullptr, 1, tm, (d + "/o.tif").c_str()));
         }},
        {"load_psd", -4, loadPsd(psd8, info8)},
        {"load_psd 32 bits", -1, loadPsd(psd32, info32)},
        {"ol_hdr_merge", -4, merge(0)},
        {"calc_hdr", -4, merge(1)},
        {"hdr_unghost", -4, merge(2)},
        {"ol_ghost_detect", -4,
         [](auto&, Bytes& o) {
             Bytes img = stack;
             float seuil = 10.0f, dt[3] = {0.5f, 1.0f, 2.0f};
             return ol_ghost_detect(&seuil, 3, w, h, 3, 8, 0.0f, dt, img.data(), sized(o, 2u * w * h * 3 / 8));
         }},
        {"align", -4,
         [](auto&, Bytes& o) {
             o = stack;
             int shifts[2] = {0, -7};
             const int r = align(3, w, h, 3, 8, shifts, o.data());
             append(o, shifts, 2);
             return r;
         }},
        // Without the worker records the calling thread computes the weights
        // (the threads test makes the call with its workers below).
        {"ol_fusion", -4, fuse(0, false), nullptr, {9, 10}, false},
        {"ol_fusion on two workers", kNotSwept, fuse(2, false)},
        {"ol_fusion on disk", kNotSwept, fuse(2, true)},
        {"ol_combi_2images", -4,
         [](auto&, Bytes& o) { return ol_combi_2images(0, 0, 1, w, h, 3 * w, 0, 8, 8, 3, stack.data(), sized(o, 3u * w * h)); }},
        {"ol_combi_intensive", -4,
         [](auto&, Bytes& o) {
             return ol_combi_intensive(1, 2, 0.0f, 0.0f, 3, w, h, 3 * w, 0, 3, 8, 8, stack.data(), sized(o, 3u * w * h));
         }},
        {"lumcontr", -4,
         [](auto&, Bytes& o) {
             o.assign(stack.begin(), stack.begin() + 2 * w * h * 3);  // 16-bit samples
             return lumcontr(0.5f, 10, 16, w, h, 3 * w, 3, o.data());
         },
         [](const Bytes& o) { return std::equal(o.begin(), o.end(), stack.begin()); }},
        {"rankvig", 0,
         [](auto&, Bytes& o) {
             // Its result is the last photo's stop: random photos keep it from going below 0.
             static const Bytes photos = randomBytes(stack.size(), 9);
             int* order = sizedAs<int>(o, 6);
             return rankvig(3, w, h, 3 * w, 3, photos.data(), order, order + 3);
         },
         sentinelOnly},
        {"more operators", kNotSwept,
         [](auto&, Bytes& o) {
             Bytes img(stack.begin(), stack.begin() + w * h * 3), images = stack, scratch(2u * w * h, 0);
             const std::size_t n = img.size();  // layout of o: sharpened, mean, ball (2n), turned, histogram
             unsigned char* p = sized(o, 5 * n + 1024);
             const int r[] = {sharpen(1.0f, w, h, 3 * w, 3, img.data(), p),
                              hsauto(3, w, h, 3 * w, 0, 8, 8, 3, scratch.data(), images.data(), p + n),
                              rot_ldr(90, 8, w, h, 3 * w, 3, 90, stack.data(), p + 4 * n),
                              histlum(w, h, 3 * w, 3, 8, stack.data(), reinterpret_cast<std::int32_t*>(p + 5 * n))};
             remap_ldr(1, 8, w, h, 3 * w, 6 * w, 3, img.data(), p + 2 * n);
             append(o, r, 4);
             return 0;
         }},
        {"conversions and resizing", kNotSwept,
         [](const std::string& d, Bytes& o) {
             std::vector<float> lut(256);
             for (int i = 0; i < 256; ++i) lut[i] = static_cast<float>(i) / 64.0f;
             float stats[3] = {0, 0, 0};
             unsigned char* conv = sized(o, 4u * w * h * 2 + 20u * 15 * 3);
             const std::string p = d + "/float.tif";
             const int r[] = {convert_to_rgbe(8, w, h, 3, 3 * w, 0, lut.data(), stack.data(), conv),
                              fp_save(p.c_str(), w, h, conv), fp2rgbe(p.c_str(), w, h, stats, conv + 4 * w * h),
                              retaille(w, h, 3 * w, 20, 15, 60, 3, stack.data(), conv + 8 * w * h)};
             append(o, r, 4);
             append(o, stats, 3);
             return 0;
         }},
        {"headers and profiles", kNotSwept,
         [](auto&, Bytes& o) {
             ExifRecord e = records::emptyExif();
             GpsRecord g = records::emptyGps();
             PsdInfo info{};
             char name[256] = {};
             float gamma = 0.0f;
             unsigned char* prof = sized(o, 1 << 16);
             const int n = extract_profile((src + "/fuzz/corpus/icc_fuzz/srgb.icc").c_str(), prof);
             const int r[] = {n, get_profile_name(n, prof, name), trc_from_profile(prof, n, &gamma),
                              get_exif_data((src + "/tests/fixtures/seeds/tiff_ii.tif").c_str(), 0, &e, &g),
                              getPsdInfo(psd8.c_str(), &info)};
             append(o, r, 5);
             append(o, name, sizeof name);
             append(o, &gamma, 1);
             append(o, &e, 1);
             append(o, &g, 1);
             append(o, &info, 1);
             return 0;
         }},
    };
}

}  // namespace oltest::families
