// Radiance writing: the packet rules of the run-length coder, the choice of
// scanline form, the header lines and their conditions, strips, failures.
#include <cstring>
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

Bytes encode(const Bytes& b) {
    Bytes out(2 * b.size() + 2);
    out.resize(encodeComponent(b.data(), static_cast<int>(b.size()), out.data()));
    return out;
}

std::vector<int> packetLengths(const Bytes& b) {
    const Bytes enc = encode(b);
    const Packets p = parsePackets(enc.data(), enc.size(), static_cast<int>(b.size()));
    EXPECT_EQ(p.consumed, enc.size());
    EXPECT_EQ(p.bytes, b);
    return p.lengths;
}

}  // namespace

TEST(RadianceCoder, RunOfFourStaysLiteralRunOfFiveBecomesRun) {
    EXPECT_EQ(packetLengths({7, 9, 9, 9, 9, 3}), (std::vector<int>{6}));
    EXPECT_EQ(packetLengths({7, 9, 9, 9, 9, 9, 3}), (std::vector<int>{1, -5, 1}));
    EXPECT_EQ(packetLengths({9, 9, 9, 9}), (std::vector<int>{4}));
    EXPECT_EQ(packetLengths({9, 9, 9, 9, 9}), (std::vector<int>{-5}));
    // Two short runs absorbed one after the other into one literal.
    EXPECT_EQ(packetLengths({1, 1, 2, 2, 2, 3, 4, 4, 4, 4, 5}), (std::vector<int>{11}));
}

TEST(RadianceCoder, LongRunsSplitAt127) {
    EXPECT_EQ(packetLengths(Bytes(300, 42)), (std::vector<int>{-127, -127, -46}));
    const Bytes enc = encode(Bytes(300, 42));
    EXPECT_EQ(enc, (Bytes{255, 42, 255, 42, 128 + 46, 42}));
    // A run that would leave a remainder of 1 to 4 still takes all it can.
    EXPECT_EQ(packetLengths(Bytes(129, 1)), (std::vector<int>{-127, 2}));
}

TEST(RadianceCoder, LiteralNeverHolds128Bytes) {
    Bytes b(128);
    for (int i = 0; i < 128; ++i) b[i] = static_cast<std::uint8_t>(i);
    // The last byte gets a packet of its own when the pending one is full.
    EXPECT_EQ(packetLengths(b), (std::vector<int>{127, 1}));
    b.push_back(0);
    EXPECT_EQ(packetLengths(b), (std::vector<int>{127, 2}));
    // A full literal followed by a short run: the run's bytes go on.
    Bytes c(127);
    for (int i = 0; i < 127; ++i) c[i] = static_cast<std::uint8_t>(i * 2 + 1);
    c.insert(c.end(), {0, 0, 0});
    EXPECT_EQ(packetLengths(c), (std::vector<int>{127, 3}));
}

TEST(RadianceCoder, TailByteJoinsThePendingLiteralOrStandsAlone) {
    EXPECT_EQ(packetLengths({5, 5, 5, 5, 5, 5, 8}), (std::vector<int>{-6, 1}));
    EXPECT_EQ(packetLengths({1, 2, 3}), (std::vector<int>{3}));
    EXPECT_EQ(packetLengths({4}), (std::vector<int>{1}));
    EXPECT_EQ(packetLengths({1, 2, 3, 3, 3}), (std::vector<int>{5}));
    EXPECT_EQ(packetLengths({1, 2, 3, 3, 3, 3, 3}), (std::vector<int>{2, -5}));
}

TEST(RadianceCoder, MatchesThePlainRulesOnVariedRows) {
    std::mt19937 rng(7);
    for (int width = 1; width <= 1500; width += (width < 300 ? 1 : 37)) {
        for (int kind = 0; kind < 5; ++kind) {
            int left = 0;
            std::uint8_t value = 0;
            Bytes b(static_cast<std::size_t>(width));
            for (int i = 0; i < width; ++i) {
                switch (kind) {
                    case 0: b[i] = static_cast<std::uint8_t>(rng()); break;
                    case 1: b[i] = static_cast<std::uint8_t>(rng() % 3); break;          // many short runs
                    case 2: b[i] = static_cast<std::uint8_t>((i / (1 + rng() % 9)) & 1); break;
                    case 3: b[i] = static_cast<std::uint8_t>(i / 40 + (rng() % 8 == 0)); break;
                    default:  // stretches of 1 to 200 equal bytes, across the 127 limits
                        if (left == 0) {
                            left = 1 + static_cast<int>(rng() % (rng() % 2 ? 6 : 200));
                            value = static_cast<std::uint8_t>(value + 1 + rng() % 2);
                        }
                        b[i] = value;
                        --left;
                        break;
                }
            }
            const Bytes enc = encode(b);
            ASSERT_EQ(enc, referenceEncode(b)) << "width " << width << " kind " << kind;
            ASSERT_LE(enc.size(), 2u * width);
            const Packets p = parsePackets(enc.data(), enc.size(), width);
            ASSERT_EQ(p.bytes, b);
            for (int n : p.lengths) ASSERT_TRUE(n != 0 && n >= -127 && n <= 127);
        }
    }
}

namespace {

std::string headerOf(const std::string& path) {
    const Bytes f = oltest::readFile(path);
    return std::string(f.begin(), f.begin() + static_cast<long>(dataOffset(f)));
}

}  // namespace

TEST(RadianceWriter, FullHeaderInItsOrder) {
    oltest::TempDir dir;
    ExifRecord e = shotExif(1, 250, 28, 10, 200, 50, 1);
    e.focal35 = 75;
    e.planeResNum = 3000;
    e.planeResDen = 7;
    e.planeResUnit = 2;
    std::strcpy(e.camera, "Camera X100");
    std::strcpy(e.date, "2021:05:06 07:08:09");
    const Bytes px = photoPlanes(3, 2, 1);
    const std::string path = dir.file("a.hdr");
    ASSERT_EQ(ol_io_rgbe_write(path.c_str(), 3, 2, &e, nullptr, "sRGB IEC61966-2.1", px.data()), 2);
    EXPECT_EQ(headerOf(path),
              "#?RADIANCE\nCAMERA=Camera X100\nCAPDATE=2021:05:06 07:08:09\n"
              "ICC_PROFILE=sRGB IEC61966-2.1\nSHUTTER=0.004000\nAPERTURE=2.80\nISO=200\n"
              "FOCAL_LENGTH=50.00\n35MM_EQUIV=75\nFOCAL_PLANE_XRESOLUTION=428.57\n"
              "FOCAL_PLANE_RESOLUTIONUNIT=2\nGenerated with Ombrelumen Pro 4.0 for Windows\n"
              "FORMAT=32-bit_rle_rgbe\n\n-Y 2 +X 3\n");
}

TEST(RadianceWriter, OptionalLinesAndTheirConditions) {
    oltest::TempDir dir;
    const Bytes px = photoPlanes(2, 1, 2);
    const auto headerFor = [&](const ExifRecord& e, const char* profile) {
        const std::string path = dir.file("b.hdr");
        EXPECT_EQ(ol_io_rgbe_write(path.c_str(), 2, 1, &e, nullptr, profile, px.data()), 1);
        return headerOf(path);
    };
    const std::string tail =
        "Generated with Ombrelumen Pro 4.0 for Windows\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 2\n";

    // Nothing present: a denominator of 0 or a negative value is missing.
    EXPECT_EQ(headerFor(shotExif(1, 0, 0, 10, -5, -3, -1), ""), "#?RADIANCE\n" + tail);

    // A camera of the full 64 bytes has no terminator; the date's own line
    // feed ends its line; a profile name whose first byte is above 127 is
    // left out.
    ExifRecord e = emptyExif();
    std::memset(e.camera, 'C', 64);
    std::memcpy(e.date, "2020:01:02 03:04:05\n", 20);
    EXPECT_EQ(headerFor(e, "\xC3\xA9sRGB"),
              "#?RADIANCE\nCAMERA=" + std::string(64, 'C') + "\nCAPDATE=2020:01:02 03:04:05\n" + tail);

    // A date of the full 20 bytes with no line feed; the profile name stops
    // after 32 characters.
    e = emptyExif();
    std::memset(e.date, 'D', 20);
    EXPECT_EQ(headerFor(e, std::string(40, 'p').c_str()),
              "#?RADIANCE\nCAPDATE=" + std::string(20, 'D') + "\nICC_PROFILE=" + std::string(32, 'p') + "\n" + tail);

    // The line feed stands after the date's terminator: the whole field is
    // searched, so the line gets no line feed of its own.
    e = emptyExif();
    std::memcpy(e.date, "2020:01:02\0\n", 12);
    EXPECT_EQ(headerFor(e, ""), "#?RADIANCE\nCAPDATE=2020:01:02" + tail);
}

TEST(RadianceWriter, HeightZeroWritesTheHeaderOnly) {
    oltest::TempDir dir;
    const std::string path = dir.file("z.hdr");
    ExifRecord e = emptyExif();
    const std::uint8_t px[4] = {0, 0, 0, 0};
    EXPECT_EQ(ol_io_rgbe_write(path.c_str(), 5, 0, &e, nullptr, "", px), 0);
    const Bytes f = oltest::readFile(path);
    EXPECT_EQ(std::string(f.begin(), f.end()),
              "#?RADIANCE\nGenerated with Ombrelumen Pro 4.0 for Windows\nFORMAT=32-bit_rle_rgbe\n\n-Y 0 +X 5\n");
}

TEST(RadianceWriter, Width32767IsRunLengthAnd32768Flat) {
    oltest::TempDir dir;
    ExifRecord e = emptyExif();
    for (int width : {32767, 32768}) {
        const Bytes px = photoPlanes(width, 2, 3);
        const std::string path = dir.file("w.hdr");
        ASSERT_EQ(ol_io_rgbe_write(path.c_str(), width, 2, &e, nullptr, "", px.data()), 2);
        const Bytes f = oltest::readFile(path);
        const std::size_t off = dataOffset(f);
        if (width == 32767) {
            EXPECT_EQ(Bytes(f.begin() + off, f.begin() + off + 4), (Bytes{2, 2, 0x7F, 0xFF}));
            EXPECT_LT(f.size() - off, px.size());
        } else {
            ASSERT_EQ(f.size() - off, px.size());
            // Interleaved R, G, B, E.
            for (int x : {0, 1, 32767}) {
                for (int c = 0; c < 4; ++c)
                    EXPECT_EQ(f[off + 4 * x + c], px[static_cast<std::size_t>(c) * width + x]);
            }
            EXPECT_EQ(f[off + 4 * width], px[4 * static_cast<std::size_t>(width)]);  // row 1, red
        }
        int dims[7] = {};
        float prim[8];
        ASSERT_GE(rgbe_dim(path.c_str(), prim, dims), 0);
        Bytes a(px.size()), b(px.size());
        EXPECT_EQ(decodeRle(path, dims[0], dims[1], a, dims[2]), 2);
        EXPECT_EQ(decodeStream(path, dims[0], dims[1], b, dims[2]), 2);
        EXPECT_EQ(a, px);
        EXPECT_EQ(b, px);
    }
}

TEST(RadianceWriter, StripsGiveTheSamePixelsWithTheShortHeader) {
    oltest::TempDir dir;
    const int width = 37, height = 10, rowsPerStrip = 4;
    const Bytes px = photoPlanes(width, height, 4);
    ExifRecord e = emptyExif();
    std::strcpy(e.camera, "ignored by strips");
    const std::string whole = dir.file("whole.hdr"), strips = dir.file("strips.hdr");
    ASSERT_EQ(ol_io_rgbe_write(whole.c_str(), width, height, &e, nullptr, "sRGB", px.data()), height);
    const std::size_t stripBytes = 4u * width * rowsPerStrip;
    EXPECT_EQ(ol_write_strip_rgbe(strips.c_str(), 0, rowsPerStrip, width, height, nullptr, px.data()), 4);
    EXPECT_EQ(ol_write_strip_rgbe(strips.c_str(), 1, rowsPerStrip, width, height, nullptr,
                                  px.data() + stripBytes), 4);
    // The last strip: only the two remaining rows.
    EXPECT_EQ(ol_write_strip_rgbe(strips.c_str(), 2, rowsPerStrip, width, height, nullptr,
                                  px.data() + 2 * stripBytes), 2);
    const Bytes a = oltest::readFile(whole), b = oltest::readFile(strips);
    const std::string stripHead = "#?RADIANCE\n# Generated by Ombrelumen Pro v4.0\nFORMAT=32-bit_rle_rgbe\n\n";
    EXPECT_EQ(headerOf(strips), stripHead + "-Y 10 +X 37\n");
    EXPECT_EQ(Bytes(a.begin() + static_cast<long>(dataOffset(a)), a.end()),
              Bytes(b.begin() + static_cast<long>(dataOffset(b)), b.end()));

    // Index 0 starts the file again.
    EXPECT_EQ(ol_write_strip_rgbe(strips.c_str(), 0, 3, width, 3, nullptr, px.data()), 3);
    EXPECT_EQ(headerOf(strips), stripHead + "-Y 3 +X 37\n");
}

TEST(RadianceWriter, FailuresAndTheirCodes) {
    oltest::TempDir dir;
    ExifRecord e = emptyExif();
    const Bytes px = photoPlanes(16, 2, 5);
    EXPECT_EQ(ol_io_rgbe_write(dir.file("no/such/dir.hdr").c_str(), 16, 2, &e, nullptr, "", px.data()), -1);
    EXPECT_EQ(ol_write_strip_rgbe(dir.file("no/such/dir.hdr").c_str(), 0, 2, 16, 2, nullptr, px.data()), -1);
    EXPECT_EQ(ol_write_strip_rgbe(dir.file("absent.hdr").c_str(), 1, 2, 16, 4, nullptr, px.data()), 2)
        << "a later strip appends, creating the file if needed";

    // The work buffer: -4 for both forms, and nothing leaks (checked in the
    // sanitizer build).
    const std::string m = dir.file("m.hdr");
    const Bytes wide = photoPlanes(40000, 1, 6);
    const auto firstAllocationFails = [](auto call) {
        oltest::FailAllocation fail(1);
        return call();
    };
    EXPECT_EQ(firstAllocationFails([&] { return ol_io_rgbe_write(m.c_str(), 16, 2, &e, nullptr, "", px.data()); }), -4);
    EXPECT_EQ(firstAllocationFails([&] { return ol_write_strip_rgbe(m.c_str(), 0, 2, 16, 2, nullptr, px.data()); }), -4);
    EXPECT_EQ(firstAllocationFails([&] { return ol_io_rgbe_write(m.c_str(), 40000, 1, &e, nullptr, "", wide.data()); }),
              -4);
    EXPECT_EQ(oltest::countAllocations([&] {
                  ol_io_rgbe_write(dir.file("c.hdr").c_str(), 16, 2, &e, nullptr, "", px.data());
              }),
              1);

    // A device that takes nothing: a failed flat row write is -2 with the
    // message, whichever writer; a failed run-length write is -1.
    if (oltest::fs::exists("/dev/full")) {
        oltest::CaptureFd out(1);
        EXPECT_EQ(ol_io_rgbe_write("/dev/full", 40000, 1, &e, nullptr, "", wide.data()), -2);
        EXPECT_EQ(ol_write_strip_rgbe("/dev/full", 0, 1, 40000, 1, nullptr, wide.data()), -2);
        const Bytes big = photoPlanes(2000, 40, 7);
        EXPECT_EQ(ol_io_rgbe_write("/dev/full", 2000, 40, &e, nullptr, "", big.data()), -1);
        EXPECT_EQ(out.finish(), "ol_io_rgbe_write uncompressed failed on line 0\n"
                                "ol_io_rgbe_write uncompressed failed on line 0\n");
    }
}
