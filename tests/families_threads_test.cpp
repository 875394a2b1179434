// Many families called at once: 8 threads each run every call below, in an
// order of their own, on their own buffers and files, for 50 rounds; every
// result must be byte-identical to the same call made alone. Carries the
// "threads" label, so it also runs under ThreadSanitizer.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "support/records.hpp"
#include "support/stacks.hpp"
#include "support/testsupport.hpp"

namespace {

using Bytes = std::vector<std::uint8_t>;

// Fifty rounds take about a minute under ThreadSanitizer on a busy machine;
// ten rounds there still meet every call with every other (the order of
// each thread turns), the release build runs all fifty.
#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#else
constexpr bool kThreadSanitizer = false;
#endif

template <class T>
void append(Bytes& out, const T* p, std::size_t n) {
    const std::size_t at = out.size();
    out.resize(at + n * sizeof(T));
    std::memcpy(out.data() + at, p, n * sizeof(T));
}

struct Call {
    const char* name;
    // dir: a folder of this thread's own; returns everything the call produced.
    std::function<Bytes(const std::string& dir)> run;
};

std::vector<Call> calls() {
    static const Bytes rgbe = [] {
        Bytes b = oltest::randomBytes(4u * 32 * 24, 3);
        for (std::size_t i = 3; i < b.size(); i += 4) b[i] = static_cast<std::uint8_t>(122 + b[i] % 12);
        return b;
    }();
    static const Bytes stack8 = fustest::makeStack(3, 40, 30, 3, 8, 5);  // a bracket, 2 stops apart
    static const fustest::Job fusionJob = [] {
        fustest::Job j = fustest::sized(23, 17);
        j.nbProc = 2;
        return j;
    }();
    static const Bytes fusionStack = fusionJob.stack();
    return {
        {"merge previews",
         [](const std::string&) {
             Bytes out(3u * 32 * 24 + 64, 0), small(4u * 18, 0);
             rgbe_rep(32, 24, 3 * 32, 10.0f, rgbe.data(), out.data());
             hdr_rep8(6, 4, 3, 2, 9, 10.0f, rgbe.data(), small.data());
             out.insert(out.end(), small.begin(), small.end());
             return out;
         }},
        {"radiance write and read",
         [](const std::string& dir) {
             ExifRecord e = oltest::records::emptyExif();
             const std::string p = dir + "/pic.hdr";
             Bytes out(4u * 32 * 24, 0);
             int dims[7] = {0, 0, 0, 0, 0, 0, 0};
             float prim[8];
             out.push_back(static_cast<std::uint8_t>(ol_io_rgbe_write(p.c_str(), 32, 24, &e, nullptr, "sRGB", rgbe.data())));
             out.push_back(static_cast<std::uint8_t>(rgbe_dim(p.c_str(), prim, dims)));
             decomp2(p.c_str(), dims, out.data(), nullptr);
             Bytes file = oltest::readFile(p);
             out.insert(out.end(), file.begin(), file.end());
             return out;
         }},
        {"fusion on disk with two workers",
         [](const std::string& dir) {
             fustest::Job j = fusionJob.onDisk(dir);
             Bytes out(1, static_cast<std::uint8_t>(j.go(fusionStack)));
             const Bytes o = j.output();
             out.insert(out.end(), o.begin(), o.end());
             return out;
         }},
        {"metadata write and read",
         [](const std::string& dir) {
             ExifRecord e = oltest::records::emptyExif();
             e.iso = 200;
             tif_info info = oltest::records::makeInfo(8, 6, 3, 8);
             const std::string p = dir + "/meta.tif";
             const float tm[15] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
             const int r = buf2tifOld(stack8.data(), &info, 24, nullptr, &e, nullptr, 0, nullptr, 1, tm, p.c_str());
             Bytes out = oltest::readFile(p);
             append(out, &r, 1);
             ExifRecord back;
             GpsRecord gps;
             std::memset(&back, 0, sizeof back);
             std::memset(&gps, 0, sizeof gps);
             const int g = get_exif_data(p.c_str(), 0, &back, &gps);
             append(out, &g, 1);
             append(out, &back, 1);
             append(out, &gps, 1);
             return out;
         }},
        {"psd",
         [](const std::string&) {
             const std::string p = std::string(OL_SOURCE_DIR) + "/fuzz/corpus/psd_reader_fuzz/psd8rle.psd";
             PsdInfo info{};
             Bytes out;
             const int r = getPsdInfo(p.c_str(), &info);
             append(out, &r, 1);
             if (r > 0 && info.width > 0 && info.height > 0 && info.width * info.height < 4096) {
                 Bytes px(16u * info.width * info.height, 0);
                 const int l = load_psd(1, p.c_str(), &info, 4 * info.width, px.data());
                 append(out, &l, 1);
                 out.insert(out.end(), px.begin(), px.end());
             }
             return out;
         }},
        {"align",
         [](const std::string&) {
             Bytes block = stack8;
             int dims[2] = {0, -7};
             const int r = align(3, 40, 30, 3, 8, dims, block.data());
             append(block, &r, 1);
             append(block, dims, 2);
             return block;
         }},
        {"ghost detection",
         [](const std::string&) {
             Bytes img = stack8, mask(150, 0);
             std::vector<float> dt{0.5f, 1.0f, 2.0f};
             float seuil = 10.0f;
             const int r = ol_ghost_detect(&seuil, 3, 40, 30, 3, 8, 0.0f, dt.data(), img.data(), mask.data());
             append(mask, &r, 1);
             return mask;
         }},
        {"operators",
         [](const std::string&) {
             std::vector<std::uint16_t> src(40u * 30 * 3);
             for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<std::uint16_t>(stack8[i] * 257);
             Bytes dst(src.size(), 0);
             const int r = comp16(4, 40, 30, 120, 3, src.data(), dst.data());
             append(dst, &r, 1);
             return dst;
         }},
        {"imageops",
         [](const std::string&) {
             std::vector<std::int32_t> hist(256, 0);
             histlum(40, 30, 120, 3, 8, stack8.data(), hist.data());
             Bytes rot(40u * 30 * 3, 0);
             rot_ldr(90, 8, 40, 30, 120, 3, 90, stack8.data(), rot.data());
             append(rot, hist.data(), hist.size());
             return rot;
         }},
        {"response",
         [](const std::string&) {
             std::vector<float> curve(256, 0.0f), ex{1, 4, 16};
             const int r = calc_courbe(3, 40, 30, 8, 3, ex.data(), stack8.data(), curve.data());
             Bytes out;
             append(out, &r, 1);
             append(out, curve.data(), curve.size());
             return out;
         }},
        {"merges",
         [](const std::string&) {
             Bytes out;
             for (int k = 0; k < 3; ++k) {
                 std::vector<float> lut(256, 0.0f), dt{0.5f, 1.0f, 2.0f};
                 float stats[3] = {0, 0, 0};
                 Bytes rgbe(4u * 40 * 30, 0);
                 const int r = k == 0 ? ol_hdr_merge(0, 3, 40, 30, 3, 8, 0, lut.data(), -1, dt.data(), stack8.data(),
                                                     stats, rgbe.data())
                             : k == 1 ? calc_hdr(1, 3, 40, 30, 3, 8, 0, lut.data(), 0.5f, dt.data(), stack8.data(),
                                                 stats, rgbe.data())
                                      : hdr_unghost(1, 2, 3, 40, 30, 3, 8, 0, lut.data(), 0.5f, dt.data(),
                                                    stack8.data(), stats, rgbe.data());
                 append(out, &r, 1);
                 append(out, stats, 3);
                 append(out, lut.data(), lut.size());
                 append(out, dt.data(), dt.size());
                 out.insert(out.end(), rgbe.begin(), rgbe.end());
             }
             return out;
         }},
        {"fusion in memory with two workers",
         [](const std::string&) {
             fustest::Job j = fusionJob;
             Bytes out(1, static_cast<std::uint8_t>(j.go(fusionStack)));
             const Bytes o = j.output();
             out.insert(out.end(), o.begin(), o.end());
             return out;
         }},
        {"combine",
         [](const std::string&) {
             Bytes a(40u * 30 * 3, 0), b(a.size(), 0);
             const int r = ol_combi_2images(0, 0, 1, 40, 30, 120, 0, 8, 8, 3, stack8.data(), a.data());
             const int i = ol_combi_intensive(1, 2, 0.0f, 0.0f, 3, 40, 30, 120, 0, 3, 8, 8, stack8.data(), b.data());
             append(a, &r, 1);
             append(a, &i, 1);
             a.insert(a.end(), b.begin(), b.end());
             return a;
         }},
        {"more operators",
         [](const std::string&) {
             Bytes img(stack8.begin(), stack8.begin() + 40 * 30 * 3), sharp(img.size(), 0), ball(2 * img.size(), 0),
                 mean(img.size(), 0), scratch(2u * 40 * 30, 0), images = stack8;
             const int r[] = {lumcontr(0.5f, 10, 8, 40, 30, 120, 3, img.data()),
                              sharpen(1.0f, 40, 30, 120, 3, img.data(), sharp.data()),
                              hsauto(3, 40, 30, 120, 0, 8, 8, 3, scratch.data(), images.data(), mean.data())};
             remap_ldr(1, 8, 40, 30, 120, 240, 3, img.data(), ball.data());
             for (const Bytes* b : {&sharp, &ball, &mean}) img.insert(img.end(), b->begin(), b->end());
             append(img, r, 3);
             return img;
         }},
        {"conversions and resizing",
         [](const std::string& dir) {
             std::vector<float> lut(256);
             for (int i = 0; i < 256; ++i) lut[i] = static_cast<float>(i) / 64.0f;
             Bytes rgbe(4u * 40 * 30, 0), back(rgbe.size(), 0), small(20u * 15 * 3, 0);
             float stats[3] = {0, 0, 0};
             const std::string p = dir + "/float.tif";
             const int r[] = {convert_to_rgbe(8, 40, 30, 3, 120, 0, lut.data(), stack8.data(), rgbe.data()),
                              fp_save(p.c_str(), 40, 30, rgbe.data()), fp2rgbe(p.c_str(), 40, 30, stats, back.data()),
                              retaille(40, 30, 120, 20, 15, 60, 3, stack8.data(), small.data())};
             for (const Bytes* b : {&back, &small}) rgbe.insert(rgbe.end(), b->begin(), b->end());
             append(rgbe, r, 4);
             append(rgbe, stats, 3);
             return rgbe;
         }},
        {"icc",
         [](const std::string&) {
             const std::string p = std::string(OL_SOURCE_DIR) + "/fuzz/corpus/icc_fuzz/srgb.icc";
             Bytes prof(1 << 16, 0);
             char name[256] = {};
             float gamma = 0.0f;
             const int n = extract_profile(p.c_str(), prof.data());
             const int r[] = {n, get_profile_name(n, prof.data(), name), trc_from_profile(prof.data(), n, &gamma)};
             append(prof, r, 3);
             append(prof, name, sizeof name);
             append(prof, &gamma, 1);
             return prof;
         }},
    };
}

TEST(FamiliesThreads, ConcurrentCallsMatchSerialCalls) {
    const std::vector<Call> list = calls();
    oltest::TempDir dir;
    std::vector<Bytes> want;
    {
        const std::string d = dir.file("serial");
        oltest::fs::create_directories(d);
        for (const Call& c : list) want.push_back(c.run(d));
    }
    constexpr int kThreads = 8;
    const int kRounds = kThreadSanitizer ? 10 : 50;
    std::vector<std::vector<std::string>> bad(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::string name = "t";
            name += std::to_string(t);
            const std::string d = dir.file(name);
            oltest::fs::create_directories(d);
            for (int round = 0; round < kRounds; ++round)
                for (std::size_t k = 0; k < list.size(); ++k) {
                    const std::size_t i = (k + static_cast<std::size_t>(t) * 3 + static_cast<std::size_t>(round)) % list.size();
                    if (list[i].run(d) != want[i]) bad[t].push_back(list[i].name);
                }
        });
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t)
        for (const auto& name : bad[t]) ADD_FAILURE() << "thread " << t << ": " << name << " differs";
}

}  // namespace
