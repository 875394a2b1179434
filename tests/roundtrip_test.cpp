// The first road end to end, through the public interface only: a bracketed
// stack merged into rgbe planes, written as a Radiance file (whole and in
// strips), and read back by every reader, which must give the same planes.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "support/testsupport.hpp"

namespace {

struct Stack {
    int width, height, spp, bps, frames;
    std::vector<std::uint8_t> bytes;
};

// A scene of smooth gradients and texture, rendered at exposures a stop and a
// half apart through a gamma response, quantised to the sample depth.
Stack makeStack(int width, int height, int spp, int bps, int frames, std::uint32_t seed) {
    Stack s{width, height, spp, bps, frames, {}};
    const int bytesPerSample = bps / 8;
    const std::size_t frameSamples = static_cast<std::size_t>(width) * height * spp;
    s.bytes.resize(frameSamples * frames * bytesPerSample);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> noise(0.9f, 1.1f);
    std::vector<float> radiance(static_cast<std::size_t>(width) * height * 3);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) {
                const float base = 0.02f + 4.0f * (static_cast<float>(x) / width) *
                                               (static_cast<float>(y + 1) / height);
                radiance[(static_cast<std::size_t>(y) * width + x) * 3 + c] =
                    base * (0.7f + 0.15f * c) * noise(rng);
            }
    const float maxLevel = bps == 8 ? 255.0f : 65535.0f;
    for (int f = 0; f < frames; ++f) {
        const float exposure = std::pow(2.0f, 1.5f * (f - frames / 2));
        for (std::size_t p = 0; p < static_cast<std::size_t>(width) * height; ++p)
            for (int c = 0; c < spp; ++c) {
                const float v = std::min(1.0f, radiance[p * 3 + (c % 3)] * exposure);
                const auto level = static_cast<std::uint32_t>(std::pow(v, 1.0f / 2.2f) * maxLevel);
                const std::size_t i = frameSamples * f + p * spp + c;
                if (bps == 8)
                    s.bytes[i] = static_cast<std::uint8_t>(level);
                else {
                    s.bytes[2 * i] = static_cast<std::uint8_t>(level);
                    s.bytes[2 * i + 1] = static_cast<std::uint8_t>(level >> 8);
                }
            }
    }
    return s;
}

std::vector<std::uint8_t> merge(const Stack& s, float stats[3]) {
    std::vector<float> lut(s.bps == 8 ? 256 : 65536);
    std::vector<float> deltaT(s.frames);
    std::vector<std::uint8_t> rgbe(4u * s.width * s.height);
    EXPECT_EQ(ol_hdr_merge(0, s.frames, s.width, s.height, s.spp, s.bps, 0, lut.data(), 1.5f,
                           deltaT.data(), s.bytes.data(), stats, rgbe.data()),
              s.height);
    return rgbe;
}

struct ReadBack {
    std::vector<std::uint8_t> rle, streamed;
    int dims[8];
};

ReadBack readAll(const std::string& path, int width, int height) {
    ReadBack r{};
    float primaries[8];
    std::memset(r.dims, 0, sizeof r.dims);
    EXPECT_GT(rgbe_dim(path.c_str(), primaries, r.dims), 0);
    EXPECT_EQ(r.dims[0], width);
    EXPECT_EQ(r.dims[1], height);
    r.rle.assign(4u * width * height, 0xCD);
    r.streamed.assign(4u * width * height, 0xCD);
    EXPECT_EQ(decomp_rle(path.c_str(), r.dims, r.rle.data()), height);
    EXPECT_EQ(decomp2(path.c_str(), r.dims, r.streamed.data(), nullptr), height);
    return r;
}

}  // namespace

TEST(RoundTrip, MergeWriteReadGivesTheSamePlanes) {
    oltest::TempDir dir;
    for (int bps : {8, 16}) {
        for (int spp : {3, 4}) {
            SCOPED_TRACE("bps " + std::to_string(bps) + " spp " + std::to_string(spp));
            const Stack s = makeStack(157, 90, spp, bps, 3, 7u + bps + spp);
            float stats[3];
            const std::vector<std::uint8_t> planes = merge(s, stats);
            EXPECT_GT(stats[1], stats[0]);
            EXPECT_GT(stats[2], 0.0f);

            ExifRecord exif{};
            exif.exposureNum = 1;
            exif.exposureDen = 125;
            exif.iso = 200;
            std::strcpy(exif.camera, "Test Camera");
            const std::string path = dir.file("merged.hdr");
            ASSERT_EQ(ol_io_rgbe_write(path.c_str(), s.width, s.height, &exif, nullptr, "sRGB",
                                       planes.data()),
                      s.height);
            const ReadBack back = readAll(path, s.width, s.height);
            EXPECT_EQ(back.rle, planes);
            EXPECT_EQ(back.streamed, planes);

            ExifRecord meta{};
            EXPECT_GT(extract_rgbe_exif(path.c_str(), &meta), 0);
            EXPECT_STREQ(meta.camera, "Test Camera");
            EXPECT_EQ(meta.iso, 200);
            EXPECT_EQ(meta.colorSpace, 0);
        }
    }
}

TEST(RoundTrip, StripWritingGivesTheSamePixelsAsWholeWriting) {
    oltest::TempDir dir;
    const Stack s = makeStack(64, 37, 3, 8, 5, 99);
    float stats[3];
    const std::vector<std::uint8_t> planes = merge(s, stats);
    const std::string path = dir.file("strips.hdr");
    const int rowsPerStrip = 10;
    int written = 0;
    for (int strip = 0; strip * rowsPerStrip < s.height; ++strip) {
        const std::size_t offset = 4u * s.width * rowsPerStrip * strip;
        const int rows = ol_write_strip_rgbe(path.c_str(), strip, rowsPerStrip, s.width, s.height,
                                             nullptr, planes.data() + offset);
        ASSERT_GT(rows, 0);
        written += rows;
    }
    EXPECT_EQ(written, s.height);
    const ReadBack back = readAll(path, s.width, s.height);
    EXPECT_EQ(back.rle, planes);
    EXPECT_EQ(back.streamed, planes);
}

TEST(RoundTrip, PreviewReaderGivesTheDecimatedPlanes) {
    oltest::TempDir dir;
    // Large enough for the preview reader's line budget (16640 bytes and more).
    const Stack s = makeStack(300, 200, 3, 8, 3, 5);
    float stats[3];
    const std::vector<std::uint8_t> planes = merge(s, stats);
    const std::string path = dir.file("preview.hdr");
    const ExifRecord noMetadata{};
    ASSERT_EQ(ol_io_rgbe_write(path.c_str(), s.width, s.height, &noMetadata, nullptr, "",
                               planes.data()),
              s.height);
    const int pw = 75, ph = 40;
    std::vector<std::uint8_t> preview(4u * pw * ph, 0xCD);
    EXPECT_EQ(ol_io_read_preview_rgbe(s.width, s.height, pw, ph, path.c_str(), preview.data()),
              s.height + 1);
    const float xRatio = static_cast<float>(s.width) / pw;
    const float yRatio = static_cast<float>(s.height) / ph;
    for (int j = 0; j < ph; ++j) {
        const int sy = static_cast<int>(j * yRatio);
        for (int i = 0; i < pw; ++i) {
            const int sx = static_cast<int>(i * xRatio);
            for (int plane = 0; plane < 4; ++plane)
                ASSERT_EQ(preview[4u * pw * j + plane * pw + i],
                          planes[4u * s.width * sy + plane * s.width + sx])
                    << "at " << i << "," << j << " plane " << plane;
        }
    }
}

TEST(RoundTrip, FloatTiffCarriesTheDecodedValues) {
    oltest::TempDir dir;
    const Stack s = makeStack(40, 30, 3, 16, 3, 11);
    float stats[3];
    const std::vector<std::uint8_t> planes = merge(s, stats);
    const std::string path = dir.file("float.tif");
    ASSERT_EQ(fp_save(path.c_str(), s.width, s.height, planes.data()), s.height);
    std::vector<std::uint8_t> back(planes.size());
    float backStats[3];
    ASSERT_EQ(fp2rgbe(path.c_str(), s.width, s.height, backStats, back.data()), s.height);
    // The file holds decoded values (256 times the encoded ones): re-encoding
    // gives the same mantissas with the exponent raised by 8.
    for (int y = 0; y < s.height; ++y)
        for (int x = 0; x < s.width; ++x) {
            const std::size_t row = 4u * s.width * y;
            const std::uint8_t e = planes[row + 3u * s.width + x];
            if (e == 0) continue;
            for (int c = 0; c < 3; ++c)
                ASSERT_EQ(back[row + c * s.width + x], planes[row + c * s.width + x]);
            ASSERT_EQ(back[row + 3u * s.width + x], e + 8);
        }
}
