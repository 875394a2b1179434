// Radiance writing: the packet rules of the run-length coder, the choice of
// scanline form, the header lines and their conditions, strips, failures.
#include <cstring>
#include <functional>
#include <random>

#include "radiance/rle.hpp"
#include "support/radiance.hpp"

using namespace radtest;
using ol::radiance::encodeComponent;

namespace {

// The packet rules written out plainly, round by round, as an oracle for the
// coder (which scans faster but must give the same bytes).
Bytes referenceEncode(const Bytes& b) {
    const int width = static_cast<int>(b.size());
    Bytes out;
    auto literal = [&](int pos, int n) {
        out.push_back(static_cast<std::uint8_t>(n));
        out.insert(out.end(), b.begin() + pos, b.begin() + pos + n);
    };
    int pos = 0, lit = 0;
    while (pos < width) {
        int run = 1;
        while (pos + lit + 1 < width && lit < 127 && b[pos + lit] != b[pos + lit + 1]) ++lit;
        if (pos + lit + 1 < width) {
            while (run < 127 && pos + lit + run < width && b[pos + lit + run - 1] == b[pos + lit + run]) ++run;
            if (run > 4) {
                if (lit > 0) {
                    literal(pos, lit);
                    pos += lit;
                }
                out.push_back(static_cast<std::uint8_t>(run + 128));
                out.push_back(b[pos]);
                pos += run;
                lit = 0;
                continue;
            }
            if (run >= 2) lit = std::min(lit + run, 127);
        } else if (lit < 127) {
            ++lit;
        }
        if (pos + lit < width && lit < 127) continue;
        literal(pos, lit);
        pos += lit;
        lit = 0;
    }
    return out;
}

// Encodes a component, checks the bytes against the plain rules and that the
// packets, within 2*width bytes, decode to the input; returns the packet
// lengths, a run negative.
std::vector<int> packetLengths(const Bytes& b) {
    Bytes enc(2 * b.size() + 2);
    enc.resize(encodeComponent(b.data(), static_cast<int>(b.size()), enc.data()));
    EXPECT_EQ(enc, referenceEncode(b));
    EXPECT_LE(enc.size(), 2 * b.size());
    const Packets p = parsePackets(enc.data(), enc.size(), static_cast<int>(b.size()));
    EXPECT_EQ(p.consumed, enc.size());
    EXPECT_EQ(p.bytes, b);
    return p.lengths;
}

}  // namespace

// The coder's special runs: packet lengths, a run negative.
TEST(RadianceCoder, SpecialRuns) {
    Bytes count128(128), full127(127);
    for (int i = 0; i < 128; ++i) count128[i] = static_cast<std::uint8_t>(i);
    for (int i = 0; i < 127; ++i) full127[i] = static_cast<std::uint8_t>(i * 2 + 1);
    Bytes count129 = count128, fullThenRun = full127;
    count129.push_back(0);
    fullThenRun.insert(fullThenRun.end(), {0, 0, 0});
    const std::pair<Bytes, std::vector<int>> rows[] = {
        {{7, 9, 9, 9, 9, 3}, {6}},  // a run of four stays literal
        {{7, 9, 9, 9, 9, 9, 3}, {1, -5, 1}},  // a run of five becomes a run
        {{9, 9, 9, 9}, {4}},
        {{9, 9, 9, 9, 9}, {-5}},
        {{1, 1, 2, 2, 2, 3, 4, 4, 4, 4, 5}, {11}},  // short runs absorbed one after the other
        {Bytes(300, 42), {-127, -127, -46}},         // long runs split at 127
        {Bytes(129, 1), {-127, 2}},                  // a run leaving 1 to 4 still takes all it can
        {count128, {127, 1}},                        // a literal never holds 128 bytes
        {count129, {127, 2}},
        {fullThenRun, {127, 3}},  // a full literal followed by a short run: the run's bytes go on
        {{5, 5, 5, 5, 5, 5, 8}, {-6, 1}},  // the tail byte joins the pending literal or stands alone
        {{1, 2, 3}, {3}},
        {{4}, {1}},
        {{1, 2, 3, 3, 3}, {5}},
        {{1, 2, 3, 3, 3, 3, 3}, {2, -5}},
    };
    for (const auto& [in, lengths] : rows) EXPECT_EQ(packetLengths(in), lengths) << in.size() << " bytes";
}

TEST(RadianceCoder, MatchesThePlainRulesOnVariedRows) {
    std::mt19937 rng(7);
    int left = 0;
    std::uint8_t value = 0;
    const std::function<std::uint8_t(int)> kinds[] = {
        [&](int) { return static_cast<std::uint8_t>(rng()); },
        [&](int) { return static_cast<std::uint8_t>(rng() % 3); },  // many short runs
        [&](int i) { return static_cast<std::uint8_t>((i / (1 + rng() % 9)) & 1); },
        [&](int i) { return static_cast<std::uint8_t>(i / 40 + (rng() % 8 == 0)); },
        [&](int) {  // stretches of 1 to 200 equal bytes, across the 127 limits
            if (left-- == 0) left = static_cast<int>(rng() % (rng() % 2 ? 6 : 200)), value += 1 + rng() % 2;
            return value;
        }};
    for (int width = 1; width <= 1500; width += (width < 300 ? 1 : 37))
        for (const auto& kind : kinds) {
            Bytes b(static_cast<std::size_t>(width));
            for (int i = 0; i < width; ++i) b[i] = kind(i);
            for (int n : packetLengths(b)) ASSERT_TRUE(n != 0 && n >= -127 && n <= 127) << "width " << width;
            ASSERT_FALSE(HasFailure()) << "width " << width;
        }
}

// The header lines, their order and conditions, as rows; the strip writer's
// short header and its last strip of the remaining rows, written over the
// file of the row before.
TEST(RadianceWriter, HeaderLines) {
    oltest::TempDir dir;
    ExifRecord full = shotExif(1, 250, 28, 10, 200, 50, 1);
    full.focal35 = 75, full.planeResNum = 3000, full.planeResDen = 7, full.planeResUnit = 2;
    std::strcpy(full.camera, "Camera X100");
    std::strcpy(full.date, "2021:05:06 07:08:09");
    // A camera of the full 64 bytes has no terminator; the date's own line
    // feed ends its line.
    ExifRecord fullCamera = emptyExif(), fullDate = emptyExif(), feedAfterEnd = emptyExif();
    std::memset(fullCamera.camera, 'C', 64);
    std::memcpy(fullCamera.date, "2020:01:02 03:04:05\n", 20);
    std::memset(fullDate.date, 'D', 20);  // no line feed
    // The whole field is searched for a line feed: one behind the
    // terminator leaves the line without its own.
    std::memcpy(feedAfterEnd.date, "2020:01:02\0\n", 12);
    struct Row { ExifRecord e; std::string profile; int width, height; const char* fixture; int rowsPerStrip = 0; };
    const Row rows[] = {
        {full, "sRGB IEC61966-2.1", 3, 2, "every_line.hdr"},
        {shotExif(1, 0, 0, 10, -5, -3, -1), "", 2, 1, "missing_values.hdr"},
        {fullCamera, "\xC3\xA9sRGB", 2, 1, "full_camera.hdr"},
        {fullDate, std::string(40, 'p'), 2, 1, "full_date_long_profile.hdr"},
        {feedAfterEnd, "", 2, 1, "date_feed_after_end.hdr"},
        {emptyExif(), "", 5, 0, "no_rows.hdr"},
        {emptyExif(), "", 2, 3, "strips.hdr", 2},
    };
    const Bytes px = photoPlanes(3, 2, 1);
    for (const Row& r : rows) {
        const std::string path = dir.file("h.hdr");
        int written = 0;
        for (int s = 0; r.rowsPerStrip && s * r.rowsPerStrip < r.height; ++s)
            written += ol_write_strip_rgbe(path.c_str(), s, r.rowsPerStrip, r.width, r.height, nullptr,
                                           px.data() + 4u * r.width * r.rowsPerStrip * s);
        if (!r.rowsPerStrip) written = ol_io_rgbe_write(path.c_str(), r.width, r.height, &r.e, nullptr, r.profile.c_str(), px.data());
        EXPECT_EQ(written, r.height) << r.fixture;
        EXPECT_TRUE(oltest::matchesFixture(std::string("radiance/") + r.fixture, oltest::readFile(path)));
    }
}

// (Both forms are read back in roundtrip_test.)
TEST(RadianceWriter, Width32767IsRunLengthAnd32768Flat) {
    oltest::TempDir dir;
    const ExifRecord e = emptyExif();
    const Bytes px = photoPlanes(32768, 2, 3);
    for (int width : {32767, 32768}) {
        const std::string path = dir.file("w.hdr");
        ASSERT_EQ(ol_io_rgbe_write(path.c_str(), width, 2, &e, nullptr, "", px.data()), 2);
        const Bytes f = oltest::readFile(path), want = width == 32767 ? Bytes{2, 2, 0x7F, 0xFF} : interleave(px, width, 2);
        const std::size_t at = std::string(f.begin(), f.end()).find(resolution(width, 2)) + resolution(width, 2).size();
        EXPECT_EQ(Bytes(f.begin() + static_cast<long>(at), f.begin() + static_cast<long>(at + want.size())), want);
        EXPECT_EQ(f.size() == at + want.size(), width == 32768);
    }
}

// The RLE writers' allocation and write failures are swept in
// frame_alloc_sweep_test and write_failure_test; here the flat form's.
TEST(RadianceWriter, FailuresAndTheirCodes) {
    oltest::TempDir dir;
    const ExifRecord e = emptyExif();
    const Bytes px = photoPlanes(16, 2, 5), wide = photoPlanes(40000, 1, 6);
    EXPECT_EQ(ol_write_strip_rgbe(dir.file("absent.hdr").c_str(), 1, 2, 16, 4, nullptr, px.data()), 2)
        << "a later strip appends, creating the file if needed";
    {
        oltest::FailAllocation fail(1);  // the row buffer; nothing leaks (checked in the sanitizer build)
        EXPECT_EQ(ol_io_rgbe_write(dir.file("m.hdr").c_str(), 40000, 1, &e, nullptr, "", wide.data()), -4);
    }
    // A device that takes nothing: a failed flat row write is -2 with the
    // message, whichever writer.
    if (oltest::fs::exists("/dev/full")) {
        oltest::CaptureFd out(1);
        EXPECT_EQ(ol_io_rgbe_write("/dev/full", 40000, 1, &e, nullptr, "", wide.data()), -2);
        EXPECT_EQ(ol_write_strip_rgbe("/dev/full", 0, 1, 40000, 1, nullptr, wide.data()), -2);
        EXPECT_EQ(out.finish(), "ol_io_rgbe_write uncompressed failed on line 0\n"
                                "ol_io_rgbe_write uncompressed failed on line 0\n");
    }
}
