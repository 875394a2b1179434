/* A fixed run through the library whose every output must be the same bytes
 * on every platform: both roads on a generated bracket, every Radiance, float
 * TIFF, TIFF, Exif/IPTC/XMP and PSD path, the fusion on one and several
 * threads in memory and disk mode, and the folder services. Built from this
 * one source for Linux and for Windows; scripts/windows_check.sh runs both
 * and compares their folders byte for byte.
 *
 *   ol_crosscheck FOLDER
 *
 * FOLDER must exist and be empty. Everything goes into it: the files the
 * library wrote, raw dumps of the buffers it filled, and stdout.txt /
 * stderr.txt with every line printed (by this program and by the library).
 * Nothing printed depends on the folder's name, and the frames are made with
 * integer arithmetic only, so the inputs are the same bytes everywhere. */
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Ombrelumen40Lib1.h"

enum { W = 131, H = 77, N = 3, SPP = 3 };

static const char* gDir;
static int gFailures;

static const char* at(const char* name) {
    static char paths[8][1024];
    static int next;
    char* p = paths[next++ & 7];
    snprintf(p, sizeof paths[0], "%s/%s", gDir, name);
    return p;
}

static unsigned bitsOf(float f) {
    uint32_t u;
    memcpy(&u, &f, 4);
    return u;
}

/* A float as its bits and as text (the bits are what is compared). */
static void printFloats(const char* what, const float* v, int n) {
    printf("%s:", what);
    for (int i = 0; i < n; ++i) printf(" %08x(%.9g)", bitsOf(v[i]), v[i]);
    printf("\n");
}

static void dump(const char* name, const void* buf, size_t size) {
    if (save_buffer(at(name), buf, (int)size) != (int)size) {
        printf("FAILED to save %s\n", name);
        ++gFailures;
    }
}

/* A result that must hold on every platform; the value is printed anyway. */
static void expect(const char* what, int got, int want) {
    printf("%s = %d\n", what, got);
    if (got != want) {
        printf("FAILED: %s gave %d, expected %d\n", what, got, want);
        ++gFailures;
    }
}

/* ------------------------------------------------------------------------ */
/* The bracket: a scene of radiance levels seen at three exposures two stops
 * apart through a gamma of 2 (an integer square root), in 8 and 16 bits,
 * from integers only. */

static unsigned level(int x, int y, int c) {
    unsigned v = (unsigned)(x * 37 + y * 11 + c * 23) % 251u + 1u;
    if (x > W / 2 && y < H / 3) v = v * 3u + 200u; /* a bright window */
    return v;
}

static unsigned isqrt(unsigned long long v) {
    unsigned long long r = 0, bit = 1ull << 62;
    while (bit > v) bit >>= 2;
    while (bit) {
        if (v >= r + bit) {
            v -= r + bit;
            r = (r >> 1) + bit;
        } else {
            r >>= 1;
        }
        bit >>= 2;
    }
    return (unsigned)r;
}

static void makeFrames(uint8_t* p8, uint16_t* p16) {
    static const unsigned mult[N] = {1, 4, 16};
    for (int f = 0; f < N; ++f)
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x)
                for (int c = 0; c < SPP; ++c) {
                    const size_t i = (((size_t)f * H + y) * W + x) * SPP + c;
                    unsigned lin = level(x, y, c) * mult[f];
                    if (lin > 4095u) lin = 4095u;
                    p8[i] = (uint8_t)isqrt(16ull * lin);
                    p16[i] = (uint16_t)isqrt(1048576ull * lin);
                }
}

static void fillExif(ExifRecord* exif, GpsRecord* gps) {
    memset(exif, 0, sizeof *exif);
    memset(gps, 0, sizeof *gps);
    exif->exposureNum = 1; exif->exposureDen = 60;
    exif->apertureNum = 8; exif->apertureDen = 1;
    exif->iso = 100;
    exif->focalNum = 35; exif->focalDen = 1; exif->focal35 = 50;
    exif->orientation = 1;
    strcpy(exif->camera, "Cross-platform camera");
    memcpy(exif->date, "2026:06:21 12:00:00", 19);
    static const uint32_t lat[6] = {48, 1, 51, 1, 3024, 100}, lon[6] = {2, 1, 17, 1, 4020, 100};
    memcpy(gps->latitude, lat, sizeof lat);
    memcpy(gps->longitude, lon, sizeof lon);
    gps->altitude[0] = 35; gps->altitude[1] = 1;
    gps->lat_ref = 'N'; gps->long_ref = 'E';
    memcpy(gps->datestamp, "2026:06:21", 10);
}

static void printHex(const char* what, const char* record, const void* p, size_t size) {
    printf("%s %s:", what, record);
    for (size_t i = 0; i < size; ++i) printf("%02x", ((const uint8_t*)p)[i]);
    printf("\n");
}

static void printRecords(const char* what, const ExifRecord* exif, const GpsRecord* gps) {
    printHex(what, "exif", exif, sizeof *exif);
    if (gps) printHex(what, "gps", gps, sizeof *gps);
}

/* ------------------------------------------------------------------------ */

static void radianceRoad(const uint8_t* p8, const uint16_t* p16, uint8_t* rgbe) {
    float ev[7 * N] = {1, 60, 8, 1, 0, 100, 0, 1, 15, 8, 1, 0, 100, 0, 1, 4, 8, 1, 0, 100, 0};
    static float lut[65536];
    float stats[3], deltaT[N];
    ExifRecord exif, back;
    GpsRecord gps;
    const size_t planes = (size_t)4 * W * H;

    printf("get_ev = %d\n", get_ev(N, ev));
    printFloats("exposures", ev, N);

    /* 8-bit frames with Exif exposures. */
    expect("ol_hdr_merge 8-bit", ol_hdr_merge(0, N, W, H, SPP, 8, 0, lut, -1.0f, ev, p8, stats, rgbe), H);
    printFloats("stats 8-bit", stats, 3);
    dump("merge8.rgbe", rgbe, planes);

    /* 16-bit frames, exposures guessed from a two-stop step. */
    uint8_t* rgbe16 = malloc(planes);
    deltaT[0] = deltaT[1] = deltaT[2] = 0.0f;
    printf("ol_hdr_merge 16-bit = %d\n", ol_hdr_merge(0, N, W, H, SPP, 16, 0, lut, 2.0f, deltaT, p16, stats, rgbe16));
    printFloats("stats 16-bit", stats, 3);
    printFloats("exposures 16-bit", deltaT, N);
    dump("merge16.rgbe", rgbe16, planes);
    free(rgbe16);

    /* Previews. */
    uint8_t* preview = calloc((size_t)3 * W * H, 1);
    printf("rgbe_rep = %d\n", rgbe_rep(W, H, 3 * W, stats[2], rgbe, preview));
    dump("rgbe_rep.bgr", preview, (size_t)3 * W * H);
    memset(preview, 0, (size_t)3 * W * H);
    printf("hdr_rep8 = %d\n", hdr_rep8(W, H, W / 2, H / 2, 3 * (W / 2), stats[2], rgbe, preview));
    dump("hdr_rep8.bgr", preview, (size_t)3 * W * H);
    free(preview);

    /* Writers: whole, and strip by strip (the last strip short). */
    fillExif(&exif, &gps);
    expect("ol_io_rgbe_write", ol_io_rgbe_write(at("merge.hdr"), W, H, &exif, NULL, "sRGB", rgbe), H);
    const int rows = 20;
    for (int s = 0; s * rows < H; ++s) {
        printf("ol_write_strip_rgbe %d = %d\n", s,
               ol_write_strip_rgbe(at("strips.hdr"), s, rows, W, H, NULL, rgbe + (size_t)s * rows * 4 * W));
    }

    /* Readers. */
    int dims[8] = {0};
    float primaries[8] = {0};
    printf("rgbe_dim = %d\n", rgbe_dim(at("merge.hdr"), primaries, dims));
    printf("dims: %d %d %d %d\n", dims[0], dims[1], dims[2], dims[7]);
    uint8_t* read = calloc(planes, 1);
    expect("decomp_rle", decomp_rle(at("merge.hdr"), dims, read), H);
    expect("decomp_rle same planes", memcmp(read, rgbe, planes) == 0, 1);
    memset(read, 0, planes);
    printf("decomp2 strips.hdr = %d\n", decomp2(at("strips.hdr"), dims, read, NULL));
    dump("decomp2.rgbe", read, planes);
    memset(read, 0, planes);
    printf("ol_io_read_preview_rgbe = %d\n", ol_io_read_preview_rgbe(W, H, W / 3, H / 3, at("merge.hdr"), read));
    dump("preview_reader.bin", read, planes);
    free(read);
    memset(&back, 0, sizeof back);
    printf("extract_rgbe_exif = %d\n", extract_rgbe_exif(at("merge.hdr"), &back));
    printRecords("extract_rgbe_exif", &back, NULL);

    /* Single photograph through a response table, and float TIFF both ways. */
    printf("gen_courbe = %d\n", gen_courbe(2200, 1.0f, lut));
    dump("gen_courbe.f32", lut, 256 * sizeof(float));
    uint8_t* single = calloc(planes, 1);
    printf("convert_to_rgbe = %d\n", convert_to_rgbe(8, W, H, SPP, W * SPP, 0, lut, p8 + (size_t)W * H * SPP, single));
    dump("convert.rgbe", single, planes);
    expect("fp_save", fp_save(at("float.tif"), W, H, rgbe), H);
    memset(single, 0, planes);
    printf("fp2rgbe = %d\n", fp2rgbe(at("float.tif"), W, H, stats, single));
    printFloats("fp2rgbe stats", stats, 3);
    dump("fp2rgbe.rgbe", single, planes);
    free(single);

    /* Camera response from the bracket. */
    float curve[256] = {0}, expo[N] = {1.0f, 4.0f, 16.0f};
    printf("calc_courbe = %d\n", calc_courbe(N, W, H, 8, SPP, expo, p8, curve));
    dump("calc_courbe.f32", curve, sizeof curve);
}

/* ------------------------------------------------------------------------ */

static int gProgressCalls;
static void progress(float fraction, int32_t* cancel) {
    (void)fraction;
    (void)cancel;
    ++gProgressCalls;
}

static void fuse(const char* name, const void* photos, int bpsIn, int bpsOut, int threads, int disk,
                 uint16_t* work, int len) {
    float params[7] = {1.0f, 1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    float times[N] = {1 / 60.f, 1 / 15.f, 1 / 4.f};
    int fixed[N] = {-1, -1, -1};
    char src[64], poids[64], pyr[64];
    snprintf(src, sizeof src, "%s.source", name);
    snprintf(poids, sizeof poids, "%s.poids", name);
    snprintf(pyr, sizeof pyr, "%s.pyram", name);
    FusionFiles files = {threads, disk, NULL, NULL, NULL};
    if (disk) {
        /* Copies: at() keeps eight paths, enough for these three. */
        files.nameSource = at(src);
        files.namePoids = at(poids);
        files.namePyramPoids = at(pyr);
    }
    memset(work, 0, (size_t)len * 3 * 2);
    gProgressCalls = 0;
    /* Disk mode may use the photos' memory as a buffer: fuse a copy. */
    const size_t bytes = (size_t)N * W * H * SPP * (bpsIn / 8);
    void* copy = malloc(bytes);
    memcpy(copy, photos, bytes);
    fprintf(stderr, "-- %s\n", name);
    const int r = ol_fusion(&files, progress, params, N, W, H, W * SPP, 0, SPP, bpsIn, bpsOut, 16, 16, len, 0,
                            1.0f, times, copy, fixed, NULL, NULL, work);
    fflush(stderr);
    printf("ol_fusion %s = %d (progress called %d times)\n", name, r, gProgressCalls);
    free(copy);
    char out[64];
    snprintf(out, sizeof out, "%s.out", name);
    dump(out, work, (size_t)W * H * SPP * (bpsOut / 8));
}

static void fusionRoad(const uint8_t* p8, const uint16_t* p16) {
    const int len = pyram_len(W, H);
    printf("pyram_len = %d\n", len);
    uint16_t* work = malloc((size_t)len * 3 * 2);
    fuse("fusion-mem-1", p8, 8, 16, 1, 0, work, len);
    fuse("fusion-mem-3", p8, 8, 16, 3, 0, work, len);
    fuse("fusion-disk-1", p8, 8, 16, 1, 1, work, len);
    fuse("fusion-disk-3", p8, 8, 16, 3, 1, work, len);
    fuse("fusion16-mem-2", p16, 16, 8, 2, 0, work, len);

    /* The 16-bit result to a TIFF with every kind of metadata. */
    fuse("fusion-final", p8, 8, 16, 2, 0, work, len);
    ExifRecord exif;
    GpsRecord gps;
    fillExif(&exif, &gps);
    uint8_t iptc[256], iptc2[256];
    const char* k1 = "cross platform";
    const char* k2 = "bracket";
    const int l1 = add_iptc_keyword(0, NULL, (int)strlen(k1), (const unsigned char*)k1, iptc);
    const int l2 = add_iptc_keyword(l1, iptc, (int)strlen(k2), (const unsigned char*)k2, iptc2);
    printf("add_iptc_keyword = %d %d\n", l1, l2);
    dump("iptc.bin", iptc2, (size_t)(l2 > 0 ? l2 : 0));
    float tm[15];
    for (int i = 0; i < 15; ++i) tm[i] = 0.125f * (float)i - 0.5f;
    tif_info info;
    memset(&info, 0, sizeof info);
    info.width = W; info.height = H; info.samples = SPP; info.bits = 16; info.dpi = 300; info.orientation = 1;
    expect("buf2tifOld 16-bit", buf2tifOld(work, &info, W * SPP * 2, NULL, &exif, &gps, l2, iptc2, 1, tm, at("fused16.tif")) > 0, 1);

    /* The 8-bit result with the other tone-mapping method. */
    fuse("fusion-final8", p8, 8, 8, 2, 0, work, len);
    info.bits = 8;
    expect("buf2tifOld 8-bit", buf2tifOld(work, &info, W * SPP, NULL, &exif, NULL, 0, NULL, 2, tm, at("fused8.tif")) > 0, 1);
    free(work);

    /* Metadata read back from the TIFF. */
    ExifRecord rexif;
    GpsRecord rgps;
    memset(&rexif, 0, sizeof rexif);
    memset(&rgps, 0, sizeof rgps);
    printf("get_exif_data tif = %d\n", get_exif_data(at("fused16.tif"), 0, &rexif, &rgps));
    printRecords("get_exif_data tif", &rexif, &rgps);
    uint8_t iptcBack[256] = {0};
    if (rexif.iptcLen > 0 && rexif.iptcLen <= (int)sizeof iptcBack)
        printf("read_iptc = %d\n", read_iptc(at("fused16.tif"), rexif.iptcLen, rexif.iptcOffset, iptcBack));
    dump("iptc_back.bin", iptcBack, sizeof iptcBack);
}

/* ------------------------------------------------------------------------ */

static void metadataWriters(void) {
    ExifRecord exif;
    GpsRecord gps;
    fillExif(&exif, &gps);
    int c[7];
    printf("get_exif_count = %d\n", get_exif_count(&exif, &c[0], &c[1], &gps, &c[2], &c[3], &c[4], &c[5], &c[6]));
    printf("counts: %d %d %d %d %d %d %d\n", c[0], c[1], c[2], c[3], c[4], c[5], c[6]);
    static uint8_t block[65536];
    const int n = write_exif_buf(c[0], c[1], c[2], c[3], c[4], c[5], c[6], 1, &exif, &gps, block);
    printf("write_exif_buf = %d\n", n);
    if (n <= 0 || n > 65000) {
        ++gFailures;
        return;
    }
    dump("exif.bin", block, (size_t)n);

    float tm[15];
    for (int i = 0; i < 15; ++i) tm[i] = 0.25f * (float)i;
    for (int method = 0; method <= 2; ++method) {
        char xmp[8192];
        const int len = embed_xmp(0, NULL, method, tm);
        printf("embed_xmp %d = %d\n", method, len);
        if (len > 0 && len <= (int)sizeof xmp) {
            embed_xmp(1, xmp, method, tm);
            char name[32];
            snprintf(name, sizeof name, "xmp%d.txt", method);
            dump(name, xmp, (size_t)len);
        }
    }

    /* A JPEG carrying the block in APP1, read back. */
    const size_t seg = (size_t)n + 2 + 6;
    uint8_t* jpeg = calloc(seg + 16, 1);
    size_t k = 0;
    jpeg[k++] = 0xFF; jpeg[k++] = 0xD8; jpeg[k++] = 0xFF; jpeg[k++] = 0xE1;
    jpeg[k++] = (uint8_t)(seg >> 8); jpeg[k++] = (uint8_t)seg;
    memcpy(jpeg + k, "Exif\0\0", 6); k += 6;
    memcpy(jpeg + k, block, (size_t)n); k += (size_t)n;
    jpeg[k++] = 0xFF; jpeg[k++] = 0xD9;
    dump("meta.jpg", jpeg, k);
    free(jpeg);
    ExifRecord rexif;
    GpsRecord rgps;
    memset(&rexif, 0, sizeof rexif);
    memset(&rgps, 0, sizeof rgps);
    printf("get_exif_data jpg = %d\n", get_exif_data(at("meta.jpg"), 1, &rexif, &rgps));
    printRecords("get_exif_data jpg", &rexif, &rgps);
}

/* ------------------------------------------------------------------------ */
/* A flat RGB PSD written here (raw planes, resolution and ICC resources), in
 * 8 and 16 bits, read through the library. */

static size_t put16(uint8_t* p, unsigned v) { p[0] = (uint8_t)(v >> 8); p[1] = (uint8_t)v; return 2; }
static size_t put32(uint8_t* p, uint32_t v) { put16(p, v >> 16); put16(p + 2, v & 0xFFFF); return 4; }

static void psdRoad(const uint8_t* p8, const uint16_t* p16) {
    static const uint8_t profile[20] = "fake icc profile 20";
    for (int bps = 8; bps <= 16; bps += 8) {
        const size_t plane = (size_t)W * H * (bps / 8);
        uint8_t* f = calloc(256 + 3 * plane, 1);
        size_t k = 0;
        memcpy(f, "8BPS", 4); k = 4;
        k += put16(f + k, 1);
        k += 6;
        k += put16(f + k, 3);
        k += put32(f + k, H);
        k += put32(f + k, W);
        k += put16(f + k, (unsigned)bps);
        k += put16(f + k, 3);
        k += put32(f + k, 0); /* colour mode data */
        const size_t resLen = 12 + 16 + 12 + sizeof profile;
        k += put32(f + k, (uint32_t)resLen);
        memcpy(f + k, "8BIM", 4); k += 4;
        k += put16(f + k, 1005); k += 2; k += put32(f + k, 16);
        k += put32(f + k, 300u << 16); k += put16(f + k, 1); k += put16(f + k, 1);
        k += put32(f + k, 240u << 16); k += put16(f + k, 1); k += put16(f + k, 1);
        memcpy(f + k, "8BIM", 4); k += 4;
        k += put16(f + k, 1039); k += 2; k += put32(f + k, sizeof profile);
        memcpy(f + k, profile, sizeof profile); k += sizeof profile;
        k += put32(f + k, 0); /* layers and masks */
        k += put16(f + k, 0); /* raw */
        for (int c = 0; c < 3; ++c)
            for (size_t i = 0; i < (size_t)W * H; ++i) {
                if (bps == 8) f[k++] = p8[i * 3 + c];
                else k += put16(f + k, p16[i * 3 + c]);
            }
        char name[32];
        snprintf(name, sizeof name, "input%d.psd", bps);
        dump(name, f, k);
        free(f);

        PsdInfo info;
        memset(&info, 0, sizeof info);
        printf("getPsdInfo %d = %d\n", bps, getPsdInfo(at(name), &info));
        printf("info: %d %d %d %d %d %d %d %d %d\n", info.width, info.height, info.bps, info.channels, info.resH,
               info.resV, info.lProfil, info.dataStart, info.exifStart);
        uint8_t prof[64] = {0};
        printf("psd_profile = %d\n", psd_profile(at(name), prof));
        expect("psd_profile bytes", memcmp(prof, profile, sizeof profile) == 0, 1);
        uint8_t* pixels = calloc(3 * plane, 1);
        expect("load_psd", load_psd(1, at(name), &info, W * 3, pixels), H);
        expect("load_psd pixels", memcmp(pixels, bps == 8 ? (const void*)p8 : (const void*)p16, 3 * plane) == 0, 1);
        free(pixels);
    }
}

/* ------------------------------------------------------------------------ */
/* Folder services. The current directory changes here, so this comes last. */

static void folders(void) {
    char path[1100];
    expect("ol_checkfolder dir", ol_checkfolder(gDir), 0);
    snprintf(path, sizeof path, "%s/", gDir);
    expect("ol_checkfolder dir with separator", ol_checkfolder(path), 0);
    expect("ol_checkfolder missing", ol_checkfolder(at("missing")), -1);
    expect("ol_makefolder", ol_makefolder(gDir, "sub"), 0);
    expect("ol_makefolder existing", ol_makefolder(gDir, "sub"), -1);
    expect("ol_makefolder missing parent", ol_makefolder(at("missing"), "sub") != 0, 1);
    expect("ol_checkfolder relative", ol_checkfolder("sub"), 0);
    unsigned char bytes[4] = {1, 2, 3, 4};
    expect("save_buffer relative", save_buffer("sub/bytes.bin", bytes, 4), 4);
    expect("ol_deletef", ol_deletef(at("sub/bytes.bin")), 0);
    expect("ol_deletef again", ol_deletef(at("sub/bytes.bin")), -1);
    expect("ol_deletef folder", ol_deletef(at("sub")), -1);
    expect("save_buffer kept", save_buffer("sub/kept.bin", bytes, 4), 4);
}

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: ol_crosscheck FOLDER\n");
        return 2;
    }
    gDir = argv[1];
    /* Binary streams: printed lines end in a line feed on every platform. */
    if (!freopen(at("stdout.txt"), "wb", stdout) || !freopen(at("stderr.txt"), "wb", stderr)) return 3;

    const size_t n = (size_t)N * W * H * SPP;
    uint8_t* p8 = malloc(n);
    uint16_t* p16 = malloc(n * 2);
    uint8_t* rgbe = malloc((size_t)4 * W * H);
    makeFrames(p8, p16);
    dump("frames8.bin", p8, n);
    dump("frames16.bin", p16, n * 2);

    radianceRoad(p8, p16, rgbe);
    fusionRoad(p8, p16);
    metadataWriters();
    psdRoad(p8, p16);
    folders();

    printf("failures: %d\n", gFailures);
    free(rgbe);
    free(p16);
    free(p8);
    return gFailures ? 1 : 0;
}
