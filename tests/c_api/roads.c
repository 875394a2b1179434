/* The library's two roads driven from C, as the README shows them:
 *   frames -> ol_hdr_merge -> Radiance file + preview -> read back
 *   frames -> ol_fusion -> 16-bit TIFF with metadata
 * Run with a folder to write into. Built as pedantic C99 against the shared
 * library: the public header compiles as C and the shared records keep the
 * sizes the C++ side gives them. */
#include <stdio.h>
#include <stdlib.h>
#include <math.h>
#include <string.h>

#include "Ombrelumen40Lib1.h"

enum { W = 320, H = 200, N = 3, SPP = 3 };

/* A synthetic bracket: a horizontal ramp of radiance seen at three exposures
 * two stops apart through a gamma of 2.2. */
static void make_frames(unsigned char* photos) {
    static const float exposure[N] = {0.25f, 1.0f, 4.0f};
    for (int f = 0; f < N; ++f)
        for (int y = 0; y < H; ++y)
            for (int x = 0; x < W; ++x)
                for (int c = 0; c < SPP; ++c) {
                    float v = (0.01f + 2.0f * x / W) * (0.6f + 0.2f * c) * exposure[f];
                    unsigned char* p = photos + ((size_t)f * H * W + (size_t)y * W + x) * SPP + c;
                    *p = v >= 1.0f ? 255 : (unsigned char)(255.0 * pow(v, 1 / 2.2));
                }
}

static int merge_road(const char* dir, const unsigned char* photos) {
    /* Exposures from Exif values: 1/60, 1/15 and 1/4 s at f/8, ISO 100. */
    float ev[7 * N] = {1, 60, 8, 1, 0, 100, 0,  1, 15, 8, 1, 0, 100, 0,  1, 4, 8, 1, 0, 100, 0};
    float lut[256], stats[3];
    unsigned char* rgbe = malloc(4 * W * H);
    unsigned char* preview = malloc(3 * W * H);
    char path[1024];
    ExifRecord exif;
    int dims[8] = {0};
    float primaries[8];

    get_ev(N, ev); /* ev[0..N-1] now hold the exposures */
    if (ol_hdr_merge(0, N, W, H, SPP, 8, 0, lut, -1.0f, ev, photos, stats, rgbe) != H) return 1;
    rgbe_rep(W, H, 3 * W, stats[2], rgbe, preview); /* BGR bytes, mean shown at 128 */

    memset(&exif, 0, sizeof exif);
    exif.apertureNum = 8; exif.apertureDen = 1; exif.iso = 100;
    strcpy(exif.camera, "Example camera");
    snprintf(path, sizeof path, "%s/road.hdr", dir);
    if (ol_io_rgbe_write(path, W, H, &exif, NULL, "sRGB", rgbe) != H) return 2;

    /* Reading back: size first, then the planes. */
    if (rgbe_dim(path, primaries, dims) < 0 || dims[0] != W || dims[1] != H) return 3;
    unsigned char* back = malloc(4 * (size_t)dims[0] * dims[1]);
    if (decomp_rle(path, dims, back) != H || memcmp(back, rgbe, 4 * W * H) != 0) return 4;
    printf("merge road: %s, luminance %g..%g, mean %g\n", path, stats[0], stats[1], stats[2]);
    free(back); free(preview); free(rgbe);
    return 0;
}

static int fusion_road(const char* dir, unsigned char* photos) {
    int len = pyram_len(W, H);
    unsigned short* work = malloc((size_t)len * SPP * 2); /* pyramid, then the result */
    float params[7] = {0, 0, 0, 0, 0, 0, 0};
    float times[N] = {1 / 60.f, 1 / 15.f, 1 / 4.f};
    int fixed[N] = {-1, -1, -1}; /* no ghost masks */
    FusionFiles files = {2, 0, NULL, NULL, NULL}; /* two threads, memory mode */
    tif_info info;
    ExifRecord exif;
    GpsRecord gps;
    char path[1024];

    int r = ol_fusion(&files, NULL, params, N, W, H, W * SPP, 0, SPP, 8, 16, 16, 16, len, 0, 1.0f,
                      times, photos, fixed, NULL, NULL, work);
    if (r < 0) return 10;

    memset(&info, 0, sizeof info);
    info.width = W; info.height = H; info.samples = SPP; info.bits = 16; info.dpi = 300;
    info.orientation = 1;
    memset(&exif, 0, sizeof exif);
    memset(&gps, 0, sizeof gps);
    strcpy(exif.camera, "Example camera");
    snprintf(path, sizeof path, "%s/road-fused.tif", dir);
    if (buf2tifOld(work, &info, W * SPP * 2, NULL, &exif, &gps, 0, NULL, 0, NULL, path) <= 0) return 11;
    printf("fusion road: %s\n", path);
    free(work);
    return 0;
}

int main(int argc, char** argv) {
    const char* dir = argc > 1 ? argv[1] : ".";
    unsigned char* photos = malloc((size_t)N * W * H * SPP);
    int r = sizeof(ExifRecord) != 23 * 4 + 84 || sizeof(GpsRecord) != 80 + 4 + 11 + 1 ? 20 : 0;
    make_frames(photos);
    if (r == 0) r = merge_road(dir, photos);
    if (r == 0) r = fusion_road(dir, photos); /* the fusion may overwrite nothing in memory mode */
    free(photos);
    if (r) fprintf(stderr, "roads: failed at step %d\n", r);
    return r;
}
