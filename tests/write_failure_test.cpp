// Every writer given a device that accepts nothing (/dev/full) returns its
// failure code, never a success: a write small enough to stay in the stream's
// buffer fails only when the file is closed, so both a tiny and a large call
// of each writer are made.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <vector>

#include "Ombrelumen40Lib1.h"

namespace {

struct Writer {
    const char* name;
    int code;  // the failure code the writer gives
    std::function<int(const char* path, int w, int h, const unsigned char* px)> call;
};

TEST(WriteFailure, FullDeviceGivesTheFailureCode) {
    if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
    ExifRecord exif;
    std::memset(&exif, 0, sizeof exif);
    const Writer writers[] = {
        {"ol_io_rgbe_write", -1,
         [&](const char* p, int w, int h, const unsigned char* px) {
             return ol_io_rgbe_write(p, w, h, &exif, nullptr, "sRGB", px);
         }},
        {"ol_write_strip_rgbe first strip", -1,
         [](const char* p, int w, int h, const unsigned char* px) {
             return ol_write_strip_rgbe(p, 0, h, w, h, nullptr, px);
         }},
        {"ol_write_strip_rgbe later strip", -1,
         [](const char* p, int w, int h, const unsigned char* px) {
             return ol_write_strip_rgbe(p, 1, h, w, 2 * h, nullptr, px);
         }},
        {"fp_save", -2, [](const char* p, int w, int h, const unsigned char* px) { return fp_save(p, w, h, px); }},
        {"buf2tifOld", -2,
         [&](const char* p, int w, int h, const unsigned char* px) {
             tif_info info;
             std::memset(&info, 0, sizeof info);
             info.width = w;
             info.height = h;
             info.samples = 3;
             info.bits = 8;
             info.dpi = 300;
             return buf2tifOld(px, &info, 3 * w, nullptr, &exif, nullptr, 0, nullptr, 0, nullptr, p);
         }},
        {"save_buffer", -1,
         [](const char* p, int w, int h, const unsigned char* px) { return save_buffer(p, px, 4 * w * h); }},
    };
    for (const auto& wr : writers) {
        for (const int side : {1, 300}) {
            SCOPED_TRACE(std::string(wr.name) + " " + std::to_string(side) + "x" + std::to_string(side));
            std::vector<unsigned char> px(4u * side * side, 0x80);
            for (std::size_t i = 3; i < px.size(); i += 4) px[i] = 128;
            EXPECT_EQ(wr.call("/dev/full", side, side, px.data()), wr.code);
        }
    }
}

}  // namespace
