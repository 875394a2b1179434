#include "scene.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "cli.hpp"

namespace olhdr {

namespace {

// Smooth value noise from an integer hash, in 0..1.
std::uint32_t hash3(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
    std::uint32_t h = x * 0x8da6b343u ^ y * 0xd8163841u ^ z * 0xcb1ab31fu;
    h ^= h >> 13;
    h *= 0x5bd1e995u;
    h ^= h >> 15;
    return h;
}
float lattice(int x, int y, std::uint32_t seed) {
    return static_cast<float>(hash3(static_cast<std::uint32_t>(x), static_cast<std::uint32_t>(y), seed) &
                              0xFFFF) /
           65535.0f;
}
float valueNoise(float x, float y, std::uint32_t seed) {
    const int ix = static_cast<int>(std::floor(x)), iy = static_cast<int>(std::floor(y));
    const float fx = x - ix, fy = y - iy;
    const float sx = fx * fx * (3 - 2 * fx), sy = fy * fy * (3 - 2 * fy);
    const float a = lattice(ix, iy, seed), b = lattice(ix + 1, iy, seed);
    const float c = lattice(ix, iy + 1, seed), d = lattice(ix + 1, iy + 1, seed);
    return (a + (b - a) * sx) + ((c + (d - c) * sx) - (a + (b - a) * sx)) * sy;
}
float fractal(float x, float y, std::uint32_t seed) {
    float sum = 0, amp = 0.5f;
    for (int o = 0; o < 4; ++o) {
        sum += amp * valueNoise(x, y, seed + o);
        x *= 2.03f;
        y *= 2.03f;
        amp *= 0.5f;
    }
    return sum / 0.9375f;
}

// Camera response: a gamma curve with a soft shoulder, the shape of an
// ordinary JPEG rendering.
float response(float v) {
    if (v <= 0) return 0;
    const float shoulder = v / (1.0f + 0.08f * v);
    return std::min(1.0f, std::pow(shoulder * 1.08f, 1.0f / 2.2f));
}

}  // namespace

void sceneRadiance(int width, int height, int x, int y, float rgb[3]) {
    const float s = static_cast<float>(std::min(width, height));
    const float u = (x + 0.5f) / width, v = (y + 0.5f) / height;
    const float px = (x + 0.5f) / s, py = (y + 0.5f) / s;
    const float horizon = 0.58f;
    float r, g, b;
    if (v < horizon) {
        // Sky: deep blue overhead, pale near the horizon, with soft clouds.
        const float t = v / horizon;
        r = 0.9f + 2.6f * t;
        g = 1.6f + 2.4f * t;
        b = 4.2f + 1.3f * t;
        const float cloud = std::max(0.0f, fractal(px * 4, py * 9, 11) - 0.55f) * 3.0f;
        r += cloud * 3.0f;
        g += cloud * 3.0f;
        b += cloud * 2.2f;
        // Sun disc and its glow.
        const float dx = u - 0.74f, dy = (v - 0.18f) * height / width;
        const float d = std::sqrt(dx * dx + dy * dy) * width / s;
        const float radius = 0.035f;
        if (d < radius) {
            r = 900.0f;
            g = 860.0f;
            b = 760.0f;
        } else {
            const float glow = 60.0f * std::exp(-(d - radius) * 22.0f);
            r += glow;
            g += glow * 0.92f;
            b += glow * 0.75f;
        }
    } else {
        // Ground: textured earth and grass, lit by the sun.
        const float n = fractal(px * 30, py * 30, 23);
        const float fine = valueNoise(px * 160, py * 160, 31);
        const float light = 0.55f + 0.5f * (v - horizon);
        r = light * (0.35f + 0.4f * n) * (0.8f + 0.4f * fine);
        g = light * (0.45f + 0.35f * n) * (0.8f + 0.4f * fine);
        b = light * (0.18f + 0.2f * n) * (0.8f + 0.4f * fine);
    }
    // A facade on the left, in its own shadow: bricks and dark windows, one lit.
    if (u > 0.06f && u < 0.38f && v > 0.22f && v < 0.86f) {
        const float bx = px * 40, by = py * 80;
        const bool mortar = std::fmod(by, 1.0f) < 0.12f ||
                            std::fmod(bx + (static_cast<int>(by) % 2) * 0.5f, 1.0f) < 0.06f;
        const float brick = mortar ? 0.06f : 0.09f + 0.05f * valueNoise(bx, by, 41);
        r = brick * 1.3f;
        g = brick * 0.8f;
        b = brick * 0.6f;
        const float wu = (u - 0.06f) / 0.32f * 4, wv = (v - 0.22f) / 0.64f * 5;
        const float fu = wu - std::floor(wu), fv = wv - std::floor(wv);
        if (fu > 0.25f && fu < 0.75f && fv > 0.2f && fv < 0.75f) {
            const bool lit = static_cast<int>(wu) == 2 && static_cast<int>(wv) == 1;
            const float dark = 0.008f + 0.01f * valueNoise(px * 90, py * 90, 53);
            r = lit ? 6.0f : dark;
            g = lit ? 4.2f : dark;
            b = lit ? 1.8f : dark * 1.4f;
        }
    }
    // Colour patches along the bottom, under the same light as the ground.
    if (v > 0.88f && v < 0.96f && u > 0.45f && u < 0.95f) {
        static const float patch[6][3] = {{0.40f, 0.10f, 0.08f}, {0.12f, 0.35f, 0.10f},
                                          {0.08f, 0.12f, 0.42f}, {0.45f, 0.40f, 0.08f},
                                          {0.18f, 0.18f, 0.18f}, {0.85f, 0.85f, 0.85f}};
        const int i = std::min(5, static_cast<int>((u - 0.45f) / 0.5f * 6));
        const float fu = (u - 0.45f) / 0.5f * 6 - i;
        if (fu > 0.08f && fu < 0.92f) {
            r = patch[i][0];
            g = patch[i][1];
            b = patch[i][2];
        }
    }
    rgb[0] = r;
    rgb[1] = g;
    rgb[2] = b;
}

std::vector<SceneFrame> renderBracket(const BracketSpec& spec) {
    if (spec.frames < 1 || spec.width < 8 || spec.height < 8 || (spec.bits != 8 && spec.bits != 16))
        throw Failure(kExitUsage, "bracket: bad frame count, size or depth");
    // The radiance is computed once and shared by all frames.
    const std::size_t n = static_cast<std::size_t>(spec.width) * spec.height;
    std::vector<float> radiance(n * 3);
    for (int y = 0; y < spec.height; ++y)
        for (int x = 0; x < spec.width; ++x)
            sceneRadiance(spec.width, spec.height, x, y, &radiance[(static_cast<std::size_t>(y) * spec.width + x) * 3]);

    std::vector<SceneFrame> frames;
    const double mid = (spec.frames - 1) / 2.0;
    const double t0 = 1.0 / 60.0;  // exposure of the middle frame
    const float maxLevel = spec.bits == 8 ? 255.0f : 65535.0f;
    for (int k = 0; k < spec.frames; ++k) {
        SceneFrame f;
        f.ev = spec.evStep * (k - mid);
        // Exposure time as a camera shows it: 1/N below a second, N/10 above.
        const double t = t0 * std::pow(2.0, f.ev);
        if (t < 1.0) {
            f.exposureNum = 1;
            f.exposureDen = static_cast<int>(std::lround(1.0 / t));
        } else {
            f.exposureNum = static_cast<int>(std::lround(t * 10));
            f.exposureDen = 10;
        }
        const float gain = static_cast<float>(0.16 * (static_cast<double>(f.exposureNum) / f.exposureDen) / t0);
        Image& img = f.image;
        img.width = spec.width;
        img.height = spec.height;
        img.spp = 3;
        img.bps = spec.bits;
        img.icc = syntheticProfile();
        img.pixels.resize(img.byteCount());
        for (std::size_t i = 0; i < n * 3; ++i) {
            const float lin = radiance[i] * gain;
            // Noise: a photon-like part growing with the signal, and a floor.
            const float u = (static_cast<float>(hash3(static_cast<std::uint32_t>(i), k, spec.seed) & 0xFFFF) /
                             65535.0f) - 0.5f;
            const float noisy = std::max(0.0f, lin + u * (0.002f + 0.01f * std::sqrt(std::max(lin, 0.0f))));
            const float level = response(noisy) * maxLevel + 0.5f;
            const unsigned q = static_cast<unsigned>(std::min(level, maxLevel));
            if (spec.bits == 8) {
                img.pixels[i] = static_cast<std::uint8_t>(q);
            } else {
                img.pixels[2 * i] = static_cast<std::uint8_t>(q & 0xFF);
                img.pixels[2 * i + 1] = static_cast<std::uint8_t>(q >> 8);
            }
        }
        frames.push_back(std::move(f));
    }
    return frames;
}

// ---------------------------------------------------------------------------
// ICC profile, version 2, display class, RGB data and XYZ connection space.

namespace {
void put32(std::vector<std::uint8_t>& b, std::size_t at, std::uint32_t v) {
    b[at] = v >> 24;
    b[at + 1] = (v >> 16) & 0xFF;
    b[at + 2] = (v >> 8) & 0xFF;
    b[at + 3] = v & 0xFF;
}
void append32(std::vector<std::uint8_t>& b, std::uint32_t v) {
    b.resize(b.size() + 4);
    put32(b, b.size() - 4, v);
}
void appendText(std::vector<std::uint8_t>& b, const char* s) { b.insert(b.end(), s, s + std::strlen(s)); }
std::uint32_t s15(double v) { return static_cast<std::uint32_t>(static_cast<std::int32_t>(std::lround(v * 65536))); }
std::vector<std::uint8_t> xyzTag(double x, double y, double z) {
    std::vector<std::uint8_t> t;
    appendText(t, "XYZ ");
    append32(t, 0);
    append32(t, s15(x));
    append32(t, s15(y));
    append32(t, s15(z));
    return t;
}
}  // namespace

std::vector<std::uint8_t> syntheticProfile() {
    const char* description = "sRGB gamma 2.2 (olhdr synthetic)";
    std::vector<std::pair<const char*, std::vector<std::uint8_t>>> tags;
    {
        std::vector<std::uint8_t> t;
        appendText(t, "desc");
        append32(t, 0);
        append32(t, static_cast<std::uint32_t>(std::strlen(description) + 1));
        appendText(t, description);
        t.push_back(0);
        t.resize(t.size() + 4 + 4 + 2 + 1 + 67, 0);  // empty Unicode and ScriptCode parts
        tags.push_back({"desc", t});
    }
    {
        std::vector<std::uint8_t> t;
        appendText(t, "text");
        append32(t, 0);
        appendText(t, "No copyright, generated data");
        t.push_back(0);
        tags.push_back({"cprt", t});
    }
    tags.push_back({"wtpt", xyzTag(0.9642, 1.0, 0.8249)});
    tags.push_back({"rXYZ", xyzTag(0.4361, 0.2225, 0.0139)});
    tags.push_back({"gXYZ", xyzTag(0.3851, 0.7169, 0.0971)});
    tags.push_back({"bXYZ", xyzTag(0.1431, 0.0606, 0.7141)});
    std::vector<std::uint8_t> curve;
    appendText(curve, "curv");
    append32(curve, 0);
    append32(curve, 1);
    curve.push_back(2);     // gamma 2.2 as u8Fixed8
    curve.push_back(0x33);
    curve.resize(curve.size() + 2, 0);
    tags.push_back({"rTRC", curve});
    tags.push_back({"gTRC", curve});
    tags.push_back({"bTRC", curve});

    std::vector<std::uint8_t> p(128, 0);
    append32(p, static_cast<std::uint32_t>(tags.size()));
    std::size_t offset = 128 + 4 + 12 * tags.size();
    std::vector<std::uint8_t> data;
    for (auto& [sig, bytes] : tags) {
        appendText(p, sig);
        append32(p, static_cast<std::uint32_t>(offset + data.size()));
        append32(p, static_cast<std::uint32_t>(bytes.size()));
        data.insert(data.end(), bytes.begin(), bytes.end());
        while (data.size() % 4) data.push_back(0);
    }
    p.insert(p.end(), data.begin(), data.end());
    put32(p, 0, static_cast<std::uint32_t>(p.size()));
    std::memcpy(&p[8], "\x02\x10\x00\x00", 4);  // version 2.1
    std::memcpy(&p[12], "mntr", 4);
    std::memcpy(&p[16], "RGB ", 4);
    std::memcpy(&p[20], "XYZ ", 4);
    std::memcpy(&p[36], "acsp", 4);
    put32(p, 68, s15(0.9642));  // D50 illuminant
    put32(p, 72, s15(1.0));
    put32(p, 76, s15(0.8249));
    return p;
}

}  // namespace olhdr
