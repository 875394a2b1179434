// Writes that fail. Every writer, given a device that accepts nothing
// (/dev/full), a file size limit that stops it after its first bytes, a
// folder that is gone, a name that is a folder, or a file removed between two
// strips, returns its failure code, never a success (the fusion's scratch
// files, which fall back to memory when they cannot be opened, are tried in
// fusion_driver_test). A write small
// enough to stay in the stream's buffer fails only when the file is closed, so
// each fault is tried with a tiny and a larger picture (the size limit with
// the larger one only: a tiny file fits under it). The host then reports such
// a failure in one line and leaves no file behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

#include "Ombrelumen40Lib1.h"
#include "support/records.hpp"
#include "support/testsupport.hpp"

namespace {

enum Fault { FullDevice, SizeLimit, FolderGone, NameIsFolder, StripFileGone };

// The path a writer gets for a fault.
std::string faultyPath(Fault fault, const oltest::TempDir& dir) {
    if (fault == FullDevice) return "/dev/full";
    if (fault == FolderGone) return dir.file("gone") + "/out";
    if (fault == NameIsFolder) oltest::fs::create_directories(dir.file("out"));
    return dir.file("out");
}

// Runs `call` with files limited to `bytes` (no limit when negative): a write
// past it gives EFBIG (SIGXFSZ is ignored so that the process goes on).
template <class F>
int underSizeLimit(long bytes, F call) {
    if (bytes < 0) return call();
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    rlimit limited = saved;
    limited.rlim_cur = static_cast<rlim_t>(bytes);
    const auto oldHandler = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limited);
    const int result = call();
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, oldHandler);
    return result;
}

struct Writer {
    const char* name;
    int codes[4];  // by fault: full device, size limit, folder gone, name is a folder
    std::function<int(const char* path, int side, const unsigned char* px)> call;
};

TEST(WriteFailure, EveryWriterGivesItsFailureCode) {
    ExifRecord exif = oltest::records::emptyExif();
    const Writer writers[] = {
        {"ol_io_rgbe_write", {-1, -1, -1, -1},
         [&](const char* p, int s, const unsigned char* px) {
             return ol_io_rgbe_write(p, s, s, &exif, nullptr, "sRGB", px);
         }},
        {"ol_write_strip_rgbe", {-1, -1, -1, -1},
         [](const char* p, int s, const unsigned char* px) { return ol_write_strip_rgbe(p, 0, s, s, s, nullptr, px); }},
        {"fp_save", {-2, -2, -2, -2}, [](const char* p, int s, const unsigned char* px) { return fp_save(p, s, s, px); }},
        {"buf2tifOld", {-2, -3, -1, -1},
         [&](const char* p, int s, const unsigned char* px) {
             tif_info info = oltest::records::makeInfo(s, s, 3, 8);
             return buf2tifOld(px, &info, 3 * s, nullptr, &exif, nullptr, 0, nullptr, 0, nullptr, p);
         }},
        {"save_buffer", {-1, -1, -1, -1}, [](const char* p, int s, const unsigned char* px) { return save_buffer(p, px, 4 * s * s); }},
    };
    const bool haveFull = access("/dev/full", W_OK) == 0;
    for (const auto& wr : writers)
        for (const Fault fault : {FullDevice, SizeLimit, FolderGone, NameIsFolder, StripFileGone})
            for (const int side : {1, 300}) {
                if ((fault == FullDevice && !haveFull) || (fault == SizeLimit && side == 1)) continue;
                SCOPED_TRACE(std::string(wr.name) + " fault " + std::to_string(fault) + " side " + std::to_string(side));
                oltest::TempDir dir;
                std::vector<unsigned char> px(4u * side * side, 0x80);
                const std::string path = faultyPath(fault, dir);
                if (fault == StripFileGone) {
                    // The first strip is written, then the file is replaced
                    // by a folder: the second strip cannot append.
                    if (std::strcmp(wr.name, "ol_write_strip_rgbe") != 0) continue;
                    ASSERT_EQ(ol_write_strip_rgbe(path.c_str(), 0, side, side, 2 * side, nullptr, px.data()), side);
                    ASSERT_EQ(unlink(path.c_str()), 0);
                    oltest::fs::create_directories(path);
                    EXPECT_EQ(ol_write_strip_rgbe(path.c_str(), 1, side, side, 2 * side, nullptr, px.data()), -1);
                    continue;
                }
                const int rc = underSizeLimit(fault == SizeLimit ? 200 : -1,
                                              [&] { return wr.call(path.c_str(), side, px.data()); });
                EXPECT_EQ(rc, wr.codes[fault]);
            }
}

// The TIFF writer's later stages, each leaving its partial file: a size limit
// at the header's end fails the pixels (-3), one inside the metadata block
// fails the block (-12), and the block's allocation fails behind the pixels
// (-1).
TEST(WriteFailure, TiffStagesLeaveTheirPartialFile) {
    oltest::TempDir dir;
    const std::vector<unsigned char> px(4 * 4 * 3, 7);
    const tif_info info = oltest::records::makeInfo(4, 4, 3, 8);
    const ExifRecord ex = oltest::records::fullExif();
    const struct {
        long limit, failAllocation;
        int code;
    } rows[] = {{8, 0, -3}, {8 + 48 + 10, 0, -12}, {-1, 1, -1}};
    for (const auto& r : rows) {
        const std::string path = dir.file(std::to_string(r.code) + ".tif");
        EXPECT_EQ(underSizeLimit(r.limit, [&] {
                      oltest::FailAllocation fail(r.failAllocation);
                      return buf2tifOld(px.data(), &info, 12, nullptr, &ex, nullptr, 0, nullptr, 0, nullptr,
                                        path.c_str());
                  }),
                  r.code);
        EXPECT_EQ(oltest::readFile(path).size(), r.limit >= 0 ? static_cast<std::size_t>(r.limit) : 8u + 48u);
    }
}

// The host: a full device and a size limit hit in the middle of a file each
// end in one line on stderr, exit code 3 and no file left (neither the output
// nor its temporary; a missing folder is a row of cli_commands_test).
TEST(WriteFailure, HostReportsItAndLeavesNothing) {
    const std::string olhdr = std::string(OL_TOOLS_DIR) + "/olhdr";
    if (access(olhdr.c_str(), X_OK) != 0) GTEST_SKIP() << "olhdr not built";
    oltest::TempDir dir;
    const std::string frames = dir.file("frames");
    ASSERT_EQ(oltest::runOlhdr("bracket -q --size 64x48 --frames 2 --format png -o " + oltest::shellQuote(frames)).code, 0);
    const std::string in = oltest::shellQuote(frames + "/frame-1.png") + " " + oltest::shellQuote(frames + "/frame-2.png");
    const std::string out = dir.file("out");
    // Through a link: a rename onto it would put a regular file in its place.
    const bool haveFull = access("/dev/full", W_OK) == 0 && symlink("/dev/full", dir.file("full.hdr").c_str()) == 0;
    const std::pair<const char*, std::string> cases[] = {  // what, arguments
        {"merge to a full device", "merge -q " + in + " -o " + oltest::shellQuote(dir.file("full.hdr"))},
        {"merge past the size limit", "merge -q " + in + " -o " + out + "/m.hdr"},
        {"fuse past the size limit", "fuse -q " + in + " -o " + out + "/f.tif"},
        {"bracket as PSD past the size limit", "bracket -q --size 64x48 --frames 2 --format psd -o " + out},
        {"bracket as JPEG past the size limit", "bracket -q --size 64x48 --frames 2 --format jpg -o " + out},
        {"bracket as TIFF past the size limit", "bracket -q --size 64x48 --frames 2 --format tif -o " + out},
    };
    for (const auto& [what, args] : cases) {
        if (what == cases[0].first && !haveFull) continue;
        SCOPED_TRACE(what);
        oltest::fs::remove_all(out);
        oltest::fs::create_directories(out);
        const bool limit = std::string(what).find("limit") != std::string::npos;
        const std::string err = dir.file("err");
        const int code = oltest::runCommand(std::string("(") + (limit ? "ulimit -f 1; " : "") +
                                            oltest::shellQuote(olhdr) + " " + args + ") 2>" + oltest::shellQuote(err));
        const std::string text = oltest::readText(err);
        EXPECT_EQ(code, 3) << text;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
        EXPECT_TRUE(oltest::fs::is_empty(out));
    }
}

}  // namespace
