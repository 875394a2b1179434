// Radiance reading: the size query, the two decoders, the preview reader and
// the header values, as tables of crafted files and the codes they get.
#include <cstring>

#include "support/radiance.hpp"

using namespace radtest;

namespace {

const std::string kHead = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n";

// A picture coded as literal packets, each row 4 + 4 * (width + packets)
// bytes long. 64x80: 264 bytes a row, 21120 in all, large enough for the
// preview reader; 600x300: 727200 bytes, larger than the in-memory decoder's
// 512 KiB read window.
struct Crafted {
    int w, h;
    Bytes planes = photoPlanes(w, h, 11);
    Bytes file = radianceFile(kHead + resolution(w, h), literalRows(planes, w, h));
    std::size_t rowOffset(int y) const {
        return kHead.size() + resolution(w, h).size() + static_cast<std::size_t>(y) * (4 + 4 * (w + (w + 126) / 127));
    }
};

// The preview read plainly from decoded planes into `out`: the source rows in
// turn, each stored when it is the one output row j wants, j then raised.
Bytes previewOf(const Bytes& planes, int w, int h, int pw, int ph, Bytes out) {
    if (pw <= 0 || ph <= 0) return out;
    const float xr = static_cast<float>(w) / static_cast<float>(pw), yr = static_cast<float>(h) / static_cast<float>(ph);
    for (int y = 0, j = 0; y < h && j < ph; ++y) {
        if (y != static_cast<int>(static_cast<float>(j) * yr)) continue;
        for (int c = 0; c < 4; ++c)
            for (int i = 0; i < pw; ++i)
                out[(static_cast<std::size_t>(j) * 4 + c) * pw + i] =
                    planes[(static_cast<std::size_t>(y) * 4 + c) * w + static_cast<int>(static_cast<float>(i) * xr)];
        ++j;
    }
    return out;
}

}  // namespace

// Files and the codes each decoder gives with the caller's size and file
// size: crafted pictures with one byte changed or cut (faults in the last
// rows of the large one are reached after the in-memory decoder's read window
// has slid), files of special forms, previews of several sizes. Decoded files
// give their pixels, previews the plain reading of their decoded planes.
TEST(RadianceReader, FilesAndTheirCodes) {
    oltest::TempDir dir;
    const int W = 64, H = 80, L = 299, any = 999;  // L: the last row of the large file
    const Crafted small{W, H}, large{600, L + 1};
    // The crafted file with byte `at` of row `row` set to `value`, or cut there (-1).
    const auto damaged = [](const Crafted& c, int row, int at, int value) {
        Bytes f = c.file;
        if (value < 0) f.resize(c.rowOffset(row) + at);
        else f[c.rowOffset(row) + at] = static_cast<std::uint8_t>(value);
        return f;
    };
    const std::string noRes = kHead, cut = kHead + "-Y 1 +X 1\x02\x02";
    const Bytes flat200 = oltest::fixture("radiance/read_flat_2_2_200_40x20.hdr");
    Bytes preview2 = radianceFile("#?RADIANCE\n" + resolution(4, 4), Bytes(16640 - 11 - 10, 7)), preview1 = preview2;
    preview1.pop_back();
    struct Row {
        const char* what;
        Bytes file;
        int w, h, size;               // the caller's; size -1: the file's own
        int rle, stream, preview;     // `any`: not checked
        Bytes pixels = {};            // interleaved, when the decoders give them
        int pw = -1, ph = -1;         // the preview's size; -1: the picture's
        long failAt = 0;              // the allocation made to fail, 0: none
    };
    const Bytes flat = radianceFile(kHead + resolution(W, H), Bytes(4u * W * H, 100));
    const Bytes flatSmall = radianceFile(kHead + resolution(W, H), interleave(small.planes, W, H));
    const Row rows[] = {
        {"intact", small.file, W, H, -1, H, H, H + 1, interleave(small.planes, W, H)},
        {"intact, large", large.file, 600, L + 1, -1, L + 1, L + 1, L + 2, interleave(large.planes, 600, L + 1)},
        // Previews by nearest neighbour, in run-length and in flat form.
        {"a preview of 32x40", small.file, W, H, -1, H, any, H + 1, {}, 32, 40},
        {"a preview of 20x30", small.file, W, H, -1, H, any, H + 1, {}, 20, 30},
        {"a preview of 7x3", small.file, W, H, -1, H, any, H + 1, {}, 7, 3},
        {"a preview of 1x1", small.file, W, H, -1, H, any, H + 1, {}, 1, 1},
        {"a flat preview of 10x10", flatSmall, W, H, -1, H, any, H + 1, {}, 10, 10},
        {"a flat preview of the same size", flatSmall, W, H, -1, H, any, H + 1},
        // Twice as tall: output rows 0 and 1 both want source row 0, which is
        // decoded once, so only output row 0 is stored and the file runs out.
        {"a preview twice as tall", small.file, W, H, -1, H, any, H, {}, W, 2 * H},
        {"a preview of no size stores nothing and reads the whole file", small.file, W, H, -1, H, any, H, {}, 0, 0},
        {"first two bytes of later rows are not checked", damaged(small, 1, 0, 9), W, H, -1, H, H, H + 1},
        {"height differs from the caller's", small.file, W, H - 1, -1, -3, -3, -200},
        {"width differs from the caller's", small.file, W + 1, H, -1, -3, -3, -200},
        {"width field of a later row header differs", damaged(small, 1, 3, W - 1), W, H, -1, -4, -4, -4},
        {"width field of a row header differs, large", damaged(large, L - 1, 3, 7), 600, L + 1, -1, -4, -4, -4},
        // The in-memory decoder does not look at it but the width field is off.
        {"third byte of a later row header is 128 or more", damaged(small, 1, 2, 0x80), W, H, -1, -4, -6, -201},
        {"a run would pass the end of the row", damaged(small, 1, 4 + 65, 128 + 65), W, H, -1, -5, -5, -202},  // green
        {"a run would pass the end of the row, large", damaged(large, L, 4 + 4 * 128, 255), 600, L + 1, -1, -5, -5, -202},
        {"an empty literal", damaged(small, 2, 4, 0), W, H, -1, -6, -6, -202},
        {"an empty literal, large", damaged(large, L, 4, 0), 600, L + 1, -1, -6, -6, -202},
        {"a literal that would pass the end of the row", damaged(small, 2, 4, 65), W, H, -1, -6, -6, -202},
        {"end of file inside a row", damaged(small, H - 1, 100, -1), W, H, -1, -2, -1, -1},
        {"end of file inside a row, large", damaged(large, L, 1000, -1), 600, L + 1, -1, -2, -1, -1},
        {"end of file at a row header", damaged(small, H - 1, 2, -1), W, H, -1, -2, -2, -1},
        // The in-memory read falls short; the streaming decoder's budget is 100.
        {"a file size larger than the file", small.file, W, H, static_cast<int>(small.file.size()) + 1, -2, H, any},
        {"no resolution line, large budget", radianceFile(noRes, {}), 4, 4, 100000, -2, -2, any},
        {"no resolution line within the budget", radianceFile(noRes, {}), 4, 4, 300, -2, -3, any},
        {"no resolution line, small file size", radianceFile(noRes, {}), 4, 4, 35, -3, -3, any},
        {"under 4 bytes behind the resolution line", radianceFile(cut, {}), 1, 1, static_cast<int>(kHead.size()) + 12, -2, -3, any},
        {"the same with a budget", radianceFile(cut, {}), 1, 1, 1000, -2, -2, any},
        // Only the first row decides the form; a third byte of 128 or more keeps it flat.
        {"flat pixels starting 2, 2 are taken for run-length", oltest::fixture("radiance/read_flat_2_2_5_40x20.hdr"), 40, 20, -1, -4, -4, any},
        {"flat pixels starting 2, 2, 200", flat200, 40, 20, -1, 20, 20, any, Bytes(flat200.end() - 4 * 40 * 20, flat200.end())},
        // The in-memory decoder passes over one blank line; the streaming one
        // takes the data right after the resolution line, as flat pixels.
        {"a blank line after the resolution line", oltest::fixture("radiance/read_blank_line_20x60.hdr"), 20, 60, -1, 60, -2, any,
         Bytes(4u * 20 * 60, 130)},
        {"16640 bytes: a preview budget of 2", preview2, 4, 4, -1, any, any, 5, {}, 2, 2},
        {"below 16640 bytes: no preview", preview1, 4, 4, -1, any, any, -1, {}, 2, 2},
        {"the resolution line beyond a budget of 2", radianceFile("#?RADIANCE\n\n" + resolution(4, 4), Bytes(16640, 7)), 4, 4, -1,
         any, any, -200, {}, 2, 2},
        // No width in flat form: no column to take, the rows are counted; nothing stored.
        {"no width", radianceFile("#?RADIANCE\n" + resolution(0, 2), Bytes(16640, 7)), 0, 2, -1, any, any, 3, {}, 4, 2},
        {"a file that does not open", {}, W, H, 30000, -1, -1, -1, {}, 8, 8},
        // The run-length path's allocations fail in turn in frame_alloc_sweep_test.
        {"flat form, the first allocation fails", flat, W, H, -1, any, -4, -4, {}, 16, 16, 1},
        {"flat form, the row buffer fails", flat, W, H, -1, any, -4, -4, {}, 16, 16, 2},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        const std::string path = dir.file(r.file.empty() ? "absent.hdr" : "f.hdr");
        if (!r.file.empty()) oltest::writeFile(path, r.file);
        const int pw = r.pw < 0 ? r.w : r.pw, ph = r.ph < 0 ? r.h : r.ph;
        Bytes a(4u * r.w * r.h, 0xEE), b(a.size(), 0xEE), p(4u * pw * ph + 4, 0xEE);
        const auto failing = [&](auto call) {
            oltest::FailAllocation f(r.failAt);
            return call();
        };
        if (r.rle != any) { EXPECT_EQ(failing([&] { return decodeRle(path, r.w, r.h, a, r.size); }), r.rle); }
        if (r.stream != any) { EXPECT_EQ(failing([&] { return decodeStream(path, r.w, r.h, b, r.size); }), r.stream); }
        if (r.preview != any) {
            EXPECT_EQ(failing([&] { return ol_io_read_preview_rgbe(r.w, r.h, pw, ph, path.c_str(), p.data()); }), r.preview);
        }
        if (!r.pixels.empty()) { EXPECT_EQ(interleave(a, r.w, r.h), r.pixels); }
        if (!r.pixels.empty() && r.stream == r.h) { EXPECT_EQ(a, b); }
        if (r.rle == r.h && r.preview >= 0 && r.preview != any) { EXPECT_EQ(p, previewOf(a, r.w, r.h, pw, ph, Bytes(p.size(), 0xEE))); }
        if (r.w == 0) { EXPECT_EQ(p, Bytes(p.size(), 0xEE)); }
    }
}

// The header through the size query and the values: line budgets, the
// resolution line, the fractions and the colour space, as rows.
TEST(RadianceHeader, SizeAndValues) {
    oltest::TempDir dir;
    const std::string path = dir.file("f.hdr");
    float prim[8];
    int dims[7] = {};
    const std::string tail = "-Y 5 +X 7\n" + std::string(13000, 'z');
    struct Row {
        std::string text;
        int size, width, height;  // rgbe_dim
        int values;               // extract_rgbe_exif
        std::string camera = "kept";  // as stored, from a record holding "kept"
        std::array<int, 7> fractions = {3, 0, 0, 0, 0, 0, 0};  // from a record holding exposureNum 3
        int colorSpace = -1;
    };
    const Row rows[] = {
        {"#?RADIANCE\n\n-Y 1 +X 1\n\x80\x80\x80\x80", -3, 0, 0, 2},  // under 128 bytes: no line to read
        {"-Y 2 +X 3\n" + std::string(128 - 10, 'x'), 0, 3, 2, 0},       // 128 bytes: one line
        {"-Y 0 +X 3\n" + std::string(200, 'x'), -3, 0, 0, 0},           // zero numbers are no size
        {std::string(99, '\n') + tail, 99, 7, 5, 99},  // at most 100 lines however large the file
        {std::string(100, '\n') + tail, -3, 0, 0, 100},
        {std::string(127 * 3, 'L') + "\n" + tail, 4, 7, 5, 4},  // a long line: reads of 127
        // A camera cut at 64 bytes; 100/0.004f is 24999.998 in float arithmetic;
        // 35MM_EQUIV and FOCAL_PLANE_XRESOLUTION are not read back.
        {"#?RADIANCE\nCAMERA=" + std::string(70, 'K') + "\nCAPDATE=2019:12:31 23:59:59\n"
         "ICC_PROFILE=Adobe RGB (1998)\nSHUTTER=0.004000\nAPERTURE=2.80\nISO=400\n"
         "FOCAL_LENGTH=18.50\n35MM_EQUIV=28\nFOCAL_PLANE_XRESOLUTION=1.00\n"
         "FORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 1\n\x80\x80\x80\x80",
         -3, 0, 0, 12, std::string(64, 'K'), {100, 24999, 280, 100, 1850, 100, 400}, 1},
        // Values of 0 or below are dropped; an empty camera is not stored.
        {"#?RADIANCE\nCAMERA=\nSHUTTER=0\nAPERTURE=-2\nFOCAL_LENGTH=1\nICC_PROFILE=ProPhoto RGB v4\n-Y 1 +X 1\n", -3, 0, 0, 6,
         "kept", {3, 0, 0, 0, 100, 100, 0}, 2},
        // The colour space is matched by the start of the name only.
        {"ICC_PROFILE=sRGB IEC61966-2.1\n-Y 1 +X 1\n", -3, 0, 0, 1, "kept", {3, 0, 0, 0, 0, 0, 0}, 0},
        {"ICC_PROFILE=Display P3\n-Y 1 +X 1\n", -3, 0, 0, 1},
        {"ICC_PROFILE=adobe rgb\n-Y 1 +X 1\n", -3, 0, 0, 1},
        {std::string(120, '\n'), -3, 0, 0, 100},  // no resolution line in the first 100
        {"#?RADIANCE\nISO=5\n", -3, 0, 0, -1, "kept", {3, 0, 0, 0, 0, 0, 5}},  // the file ends before
        // 1/60 as the writer prints it comes back as 100/6000 (5999 in float).
        {"SHUTTER=0.016667\n-Y 1 +X 1\n", -3, 0, 0, 1, "kept", {100, 5999, 0, 0, 0, 0, 0}},
        {"", -1, 0, 0, -1},  // no file
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text.substr(0, 30));
        const std::string p = r.text.empty() ? dir.file("absent.hdr") : path;
        if (!r.text.empty()) oltest::writeText(path, r.text);
        std::fill(dims, dims + 3, 0);
        EXPECT_EQ(rgbe_dim(p.c_str(), prim, dims), r.size);
        EXPECT_EQ((std::array<int, 3>{dims[0], dims[1], dims[2]}),
                  (std::array<int, 3>{r.width, r.height, r.size < 0 ? 0 : static_cast<int>(r.text.size())}));
        ExifRecord e = emptyExif();
        std::strcpy(e.camera, "kept");
        e.exposureNum = 3;
        e.focal35 = 11;
        EXPECT_EQ(extract_rgbe_exif(p.c_str(), &e), r.values);
        EXPECT_EQ(std::string(e.camera, strnlen(e.camera, 64)), r.camera);
        EXPECT_EQ((std::array<int, 7>{e.exposureNum, e.exposureDen, e.apertureNum, e.apertureDen, e.focalNum, e.focalDen, e.iso}),
                  r.fractions);
        EXPECT_EQ(e.colorSpace, r.colorSpace);
        EXPECT_EQ(e.focal35 + e.planeResNum, 11) << "not read back";
    }
    // Primaries are returned when the line has all eight numbers; otherwise
    // zeros, and the flag left as the caller put it.
    const std::string rest = "\n-Y 5 +X 7\n" + std::string(400, 'z');
    for (auto [line, flag, first] : {std::tuple{" 0.3127 0.329", 32, 0.64f}, {" 0.3127", 5, 0.0f}}) {
        oltest::writeText(path, "#?RADIANCE\nPRIMARIES= 0.64 0.33 0.3 0.6 0.15 0.06" + std::string(line) + rest);
        dims[6] = 5;
        std::fill(prim, prim + 8, 9.0f);
        EXPECT_EQ(rgbe_dim(path.c_str(), prim, dims), 2);
        EXPECT_EQ(dims[6], flag);
        EXPECT_FLOAT_EQ(prim[0], first);
    }
}
