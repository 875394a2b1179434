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

/* Floats as their bits and as text (the bits are what is compared). */
static void printFloats(const char* what, const float* v, int n) {
    printf("%s:", what);
    for (int i = 0; i < n; ++i) {
        uint32_t u;
        memcpy(&u, &v[i], 4);
        printf(" %08x(%.9g)", (unsigned)u, v[i]);
    }
    printf("\n");
}

/* Bytes as hex: the records the readers filled. */
static void printHex(const char* what, const void* p, size_t size) {
    printf("%s:", what);
    for (size_t i = 0; i < size; ++i) printf("%02x", ((const uint8_t*)p)[i]);
    printf("\n");
}

static void dump(const char* name, const void* buf, size_t size) {
    if (save_buffer(at(name), buf, (int)size) != (int)size) {
        printf("FAILED to save %s\n", name);
        ++gFailures;
    }
}

/* A call's result, printed; unless `want` is ANY it must be that on every
 * platform. */
enum { ANY = -999999 };
static void show(const char* what, int got, int want) {
    printf("%s = %d\n", what, got);
    if (want != ANY && got != want) {
        printf("FAILED: %s gave %d, expected %d\n", what, got, want);
        ++gFailures;
    }
}

/* A call that filled a buffer: its result printed, the buffer kept as `name`
 * and cleared for the next call. */
static void shown(const char* name, int got, void* buf, size_t size) {
    show(name, got, ANY);
    dump(name, buf, size);
    memset(buf, 0, size);
}

/* ------------------------------------------------------------------------ */
/* The bracket: a scene of radiance levels seen at three exposures two stops
 * apart through a gamma of 2 (an integer square root), in 8 and 16 bits,
 * from integers only. */

static unsigned isqrt(unsigned long long v) { /* Newton's steps down to the floor of the root */
    unsigned long long r = v, next = (v + 1) / 2;
    while (next < r) {
        r = next;
        next = (r + v / r) / 2;
    }
    return (unsigned)r;
}

static void makeFrames(uint8_t* p8, uint16_t* p16) {
    for (int f = 0; f < N; ++f)
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x)
                for (int c = 0; c < SPP; ++c) {
                    const size_t i = (((size_t)f * H + y) * W + x) * SPP + c;
                    unsigned v = (unsigned)(x * 37 + y * 11 + c * 23) % 251u + 1u;
                    if (x > W / 2 && y < H / 3) v = v * 3u + 200u; /* a bright window */
                    v <<= 2 * f;                                   /* times 1, 4, 16 */
                    if (v > 4095u) v = 4095u;
                    p8[i] = (uint8_t)isqrt(16ull * v);
                    p16[i] = (uint16_t)isqrt(1048576ull * v);
                }
}

static void fillExif(ExifRecord* exif, GpsRecord* gps) {
    static const uint32_t lat[6] = {48, 1, 51, 1, 3024, 100}, lon[6] = {2, 1, 17, 1, 4020, 100};
    memset(exif, 0, sizeof *exif);
    memset(gps, 0, sizeof *gps);
    exif->exposureNum = 1, exif->exposureDen = 60, exif->apertureNum = 8, exif->apertureDen = 1, exif->iso = 100;
    exif->focalNum = 35, exif->focalDen = 1, exif->focal35 = 50, exif->orientation = 1;
    strcpy(exif->camera, "Cross-platform camera");
    memcpy(exif->date, "2026:06:21 12:00:00", 19);
    memcpy(gps->latitude, lat, sizeof lat);
    memcpy(gps->longitude, lon, sizeof lon);
    gps->altitude[0] = 35, gps->altitude[1] = 1, gps->lat_ref = 'N', gps->long_ref = 'E';
    memcpy(gps->datestamp, "2026:06:21", 10);
}

/* Exif (and GPS) read back from a file, printed as hex. */
static void readRecords(const char* what, const char* file, int fileType, ExifRecord* exif) {
    GpsRecord gps;
    memset(exif, 0, sizeof *exif);
    memset(&gps, 0, sizeof gps);
    char name[64];
    show(what, fileType < 0 ? extract_rgbe_exif(at(file), exif) : get_exif_data(at(file), fileType, exif, &gps), ANY);
    snprintf(name, sizeof name, "%s exif", what);
    printHex(name, exif, sizeof *exif);
    snprintf(name, sizeof name, "%s gps", what);
    if (fileType >= 0) printHex(name, &gps, sizeof gps);
}

/* ------------------------------------------------------------------------ */

static void radianceRoad(const uint8_t* p8, const uint16_t* p16, uint8_t* rgbe) {
    float ev[7 * N] = {1, 60, 8, 1, 0, 100, 0, 1, 15, 8, 1, 0, 100, 0, 1, 4, 8, 1, 0, 100, 0};
    static float lut[65536];
    float stats[3], deltaT[N] = {0, 0, 0}, primaries[8] = {0};
    const size_t planes = (size_t)4 * W * H;
    uint8_t* buf = calloc(planes, 1);
    ExifRecord exif;
    GpsRecord gps;
    int dims[8] = {0};

    show("get_ev", get_ev(N, ev), ANY);
    printFloats("exposures", ev, N);
    /* 8-bit frames with Exif exposures; 16-bit frames, exposures from a two-stop step. */
    show("ol_hdr_merge 8-bit", ol_hdr_merge(0, N, W, H, SPP, 8, 0, lut, -1.0f, ev, p8, stats, rgbe), H);
    printFloats("stats 8-bit", stats, 3);
    dump("merge8.rgbe", rgbe, planes);
    shown("merge16.rgbe", ol_hdr_merge(0, N, W, H, SPP, 16, 0, lut, 2.0f, deltaT, p16, stats, buf), buf, planes);
    printFloats("stats 16-bit", stats, 3);
    printFloats("exposures 16-bit", deltaT, N);
    /* Previews of the 8-bit merge at the 16-bit one's mean. */
    shown("rgbe_rep.bgr", rgbe_rep(W, H, 3 * W, stats[2], rgbe, buf), buf, (size_t)3 * W * H);
    shown("hdr_rep8.bgr", hdr_rep8(W, H, W / 2, H / 2, 3 * (W / 2), stats[2], rgbe, buf), buf, (size_t)3 * W * H);

    /* Writers: whole, and strip by strip (the last strip short); then the readers. */
    fillExif(&exif, &gps);
    show("ol_io_rgbe_write", ol_io_rgbe_write(at("merge.hdr"), W, H, &exif, NULL, "sRGB", rgbe), H);
    for (int s = 0; s * 20 < H; ++s)
        show("ol_write_strip_rgbe", ol_write_strip_rgbe(at("strips.hdr"), s, 20, W, H, NULL, rgbe + (size_t)s * 20 * 4 * W), ANY);
    show("rgbe_dim", rgbe_dim(at("merge.hdr"), primaries, dims), ANY);
    printf("dims: %d %d %d %d\n", dims[0], dims[1], dims[2], dims[7]);
    show("decomp_rle", decomp_rle(at("merge.hdr"), dims, buf), H);
    show("decomp_rle same planes", memcmp(buf, rgbe, planes) == 0, 1);
    memset(buf, 0, planes);
    shown("decomp2.rgbe", decomp2(at("strips.hdr"), dims, buf, NULL), buf, planes);
    shown("preview_reader.bin", ol_io_read_preview_rgbe(W, H, W / 3, H / 3, at("merge.hdr"), buf), buf, planes);
    readRecords("extract_rgbe_exif", "merge.hdr", -1, &exif);

    /* Single photograph through a response table, float TIFF both ways, and
     * the camera response from the bracket. */
    show("gen_courbe", gen_courbe(2200, 1.0f, lut), ANY);
    dump("gen_courbe.f32", lut, 256 * sizeof(float));
    shown("convert.rgbe", convert_to_rgbe(8, W, H, SPP, W * SPP, 0, lut, p8 + (size_t)W * H * SPP, buf), buf, planes);
    show("fp_save", fp_save(at("float.tif"), W, H, rgbe), H);
    const int fp = fp2rgbe(at("float.tif"), W, H, stats, buf);
    printFloats("fp2rgbe stats", stats, 3);
    shown("fp2rgbe.rgbe", fp, buf, planes);
    float curve[256] = {0}, expo[N] = {1.0f, 4.0f, 16.0f};
    shown("calc_courbe.f32", calc_courbe(N, W, H, 8, SPP, expo, p8, curve), curve, sizeof curve);
    free(buf);
}

/* ------------------------------------------------------------------------ */

static int gProgressCalls;
static void progress(float fraction, int32_t* cancel) {
    (void)fraction, (void)cancel;
    ++gProgressCalls;
}

/* One fusion of a copy of the photos (disk mode may use their memory as a
 * buffer), its result printed and its output kept as NAME.out. */
static void fuse(const char* name, const void* photos, int bpsIn, int bpsOut, int threads, int disk,
                 uint16_t* work, int len) {
    float params[7] = {1.0f, 1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f}, times[N] = {1 / 60.f, 1 / 15.f, 1 / 4.f};
    int fixed[N] = {-1, -1, -1};
    char files[4][64];
    const char* kinds[4] = {"source", "poids", "pyram", "out"};
    for (int k = 0; k < 4; ++k) snprintf(files[k], sizeof files[k], "%s.%s", name, kinds[k]);
    /* at() keeps eight paths, enough for these three. */
    FusionFiles ff = {threads, disk, disk ? at(files[0]) : NULL, disk ? at(files[1]) : NULL, disk ? at(files[2]) : NULL};
    const size_t bytes = (size_t)N * W * H * SPP * (bpsIn / 8);
    void* copy = malloc(bytes);
    memcpy(copy, photos, bytes);
    memset(work, 0, (size_t)len * 3 * 2);
    gProgressCalls = 0;
    fprintf(stderr, "-- %s\n", name);
    const int r = ol_fusion(&ff, progress, params, N, W, H, W * SPP, 0, SPP, bpsIn, bpsOut, 16, 16, len, 0, 1.0f, times,
                            copy, fixed, NULL, NULL, work);
    fflush(stderr);
    printf("ol_fusion %s = %d (progress called %d times)\n", name, r, gProgressCalls);
    free(copy);
    dump(files[3], work, (size_t)W * H * SPP * (bpsOut / 8));
}

static void fusionRoad(const uint8_t* p8, const uint16_t* p16) {
    const int len = pyram_len(W, H);
    show("pyram_len", len, ANY);
    uint16_t* work = malloc((size_t)len * 3 * 2);
    fuse("fusion-mem-1", p8, 8, 16, 1, 0, work, len);
    fuse("fusion-mem-3", p8, 8, 16, 3, 0, work, len);
    fuse("fusion-disk-1", p8, 8, 16, 1, 1, work, len);
    fuse("fusion-disk-3", p8, 8, 16, 3, 1, work, len);
    fuse("fusion16-mem-2", p16, 16, 8, 2, 0, work, len);

    /* The 16-bit result to a TIFF with every kind of metadata, the 8-bit one
     * with the other tone-mapping method; the metadata read back. */
    ExifRecord exif;
    GpsRecord gps;
    fillExif(&exif, &gps);
    uint8_t iptc[256], iptc2[256], iptcBack[256] = {0};
    const int l1 = add_iptc_keyword(0, NULL, 14, (const unsigned char*)"cross platform", iptc);
    const int l2 = add_iptc_keyword(l1, iptc, 7, (const unsigned char*)"bracket", iptc2);
    printf("add_iptc_keyword = %d %d\n", l1, l2);
    dump("iptc.bin", iptc2, (size_t)(l2 > 0 ? l2 : 0));
    float tm[15];
    for (int i = 0; i < 15; ++i) tm[i] = 0.125f * (float)i - 0.5f;
    tif_info info;
    memset(&info, 0, sizeof info);
    info.width = W, info.height = H, info.samples = SPP, info.bits = 16, info.dpi = 300, info.orientation = 1;
    fuse("fusion-final", p8, 8, 16, 2, 0, work, len);
    show("buf2tifOld 16-bit", buf2tifOld(work, &info, W * SPP * 2, NULL, &exif, &gps, l2, iptc2, 1, tm, at("fused16.tif")) > 0, 1);
    fuse("fusion-final8", p8, 8, 8, 2, 0, work, len);
    info.bits = 8;
    show("buf2tifOld 8-bit", buf2tifOld(work, &info, W * SPP, NULL, &exif, NULL, 0, NULL, 2, tm, at("fused8.tif")) > 0, 1);
    free(work);
    readRecords("get_exif_data tif", "fused16.tif", 0, &exif);
    if (exif.iptcLen > 0 && exif.iptcLen <= (int)sizeof iptcBack)
        show("read_iptc", read_iptc(at("fused16.tif"), exif.iptcLen, exif.iptcOffset, iptcBack), ANY);
    dump("iptc_back.bin", iptcBack, sizeof iptcBack);
}

/* ------------------------------------------------------------------------ */

static void metadataWriters(void) {
    ExifRecord exif;
    GpsRecord gps;
    fillExif(&exif, &gps);
    int c[7];
    show("get_exif_count", get_exif_count(&exif, &c[0], &c[1], &gps, &c[2], &c[3], &c[4], &c[5], &c[6]), ANY);
    printf("counts: %d %d %d %d %d %d %d\n", c[0], c[1], c[2], c[3], c[4], c[5], c[6]);
    /* The block in a JPEG's APP1 segment, behind its 12 bytes of markers. */
    static uint8_t jpeg[65536] = {0xFF, 0xD8, 0xFF, 0xE1, 0, 0, 'E', 'x', 'i', 'f', 0, 0};
    const int n = write_exif_buf(c[0], c[1], c[2], c[3], c[4], c[5], c[6], 1, &exif, &gps, jpeg + 12);
    show("write_exif_buf", n, ANY);
    if (n <= 0 || n > 65000) {
        ++gFailures;
        return;
    }
    dump("exif.bin", jpeg + 12, (size_t)n);
    jpeg[4] = (uint8_t)((n + 8) >> 8), jpeg[5] = (uint8_t)(n + 8);
    jpeg[12 + n] = 0xFF, jpeg[13 + n] = 0xD9;
    dump("meta.jpg", jpeg, (size_t)n + 14);
    readRecords("get_exif_data jpg", "meta.jpg", 1, &exif);

    float tm[15];
    for (int i = 0; i < 15; ++i) tm[i] = 0.25f * (float)i;
    for (int method = 0; method <= 2; ++method) {
        char xmp[8192], name[32];
        const int len = embed_xmp(0, NULL, method, tm);
        snprintf(name, sizeof name, "xmp%d.txt", method);
        show(name, len, ANY);
        if (len > 0 && len <= (int)sizeof xmp) {
            embed_xmp(1, xmp, method, tm);
            dump(name, xmp, (size_t)len);
        }
    }
}

/* ------------------------------------------------------------------------ */
/* A flat RGB PSD written here (raw planes, resolution and ICC resources), in
 * 8 and 16 bits, read through the library. */

static void psdRoad(const uint8_t* p8, const uint16_t* p16) {
    /* Big-endian fields: version 1, 3 channels, H x W, depth (patched),
     * RGB; no colour data; resources 1005 (300 and 240 dpi) and 1039 (the
     * profile); no layers; raw planes. */
    static const uint8_t head[] = {
        '8', 'B', 'P', 'S', 0, 1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, H, 0, 0, 0, W, 0, 8, 0, 3, 0, 0, 0, 0,
        0, 0, 0, 60, '8', 'B', 'I', 'M', 0x03, 0xED, 0, 0, 0, 0, 0, 16, 1, 0x2C, 0, 0, 0, 1, 0, 1, 0, 0xF0, 0, 0, 0, 1, 0, 1,
        '8', 'B', 'I', 'M', 0x04, 0x0F, 0, 0, 0, 0, 0, 20, 'f', 'a', 'k', 'e', ' ', 'i', 'c', 'c', ' ', 'p', 'r', 'o',
        'f', 'i', 'l', 'e', ' ', '2', '0', 0, 0, 0, 0, 0, 0, 0};
    for (int bps = 8; bps <= 16; bps += 8) {
        const size_t plane = (size_t)W * H * (bps / 8);
        uint8_t* f = calloc(sizeof head + 3 * plane, 1);
        memcpy(f, head, sizeof head);
        f[23] = (uint8_t)bps;
        size_t k = sizeof head;
        for (int c = 0; c < 3; ++c)
            for (size_t i = 0; i < (size_t)W * H; ++i) {
                if (bps == 16) f[k++] = (uint8_t)(p16[i * 3 + c] >> 8);
                f[k++] = bps == 8 ? p8[i * 3 + c] : (uint8_t)p16[i * 3 + c];
            }
        char name[32];
        snprintf(name, sizeof name, "input%d.psd", bps);
        dump(name, f, k);
        free(f);

        PsdInfo info;
        memset(&info, 0, sizeof info);
        show("getPsdInfo", getPsdInfo(at(name), &info), ANY);
        printHex("info", &info, sizeof info);
        uint8_t prof[64] = {0}, *pixels = calloc(3 * plane, 1);
        show("psd_profile", psd_profile(at(name), prof), ANY);
        show("psd_profile bytes", memcmp(prof, head + 74, 20) == 0, 1);
        show("load_psd", load_psd(1, at(name), &info, W * 3, pixels), H);
        show("load_psd pixels", memcmp(pixels, bps == 8 ? (const void*)p8 : (const void*)p16, 3 * plane) == 0, 1);
        free(pixels);
    }
}

/* ------------------------------------------------------------------------ */
/* Folder services. The current directory changes here, so this comes last. */

static void folders(void) {
    char path[1100];
    unsigned char bytes[4] = {1, 2, 3, 4};
    snprintf(path, sizeof path, "%s/", gDir);
    show("ol_checkfolder dir", ol_checkfolder(gDir), 0);
    show("ol_checkfolder dir with separator", ol_checkfolder(path), 0);
    show("ol_checkfolder missing", ol_checkfolder(at("missing")), -1);
    show("ol_makefolder", ol_makefolder(gDir, "sub"), 0);
    show("ol_makefolder existing", ol_makefolder(gDir, "sub"), -1);
    show("ol_makefolder missing parent", ol_makefolder(at("missing"), "sub") != 0, 1);
    show("ol_checkfolder relative", ol_checkfolder("sub"), 0);
    show("save_buffer relative", save_buffer("sub/bytes.bin", bytes, 4), 4);
    show("ol_deletef", ol_deletef(at("sub/bytes.bin")), 0);
    show("ol_deletef again", ol_deletef(at("sub/bytes.bin")), -1);
    show("ol_deletef folder", ol_deletef(at("sub")), -1);
    show("save_buffer kept", save_buffer("sub/kept.bin", bytes, 4), 4);
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
