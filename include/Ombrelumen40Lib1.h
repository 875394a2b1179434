/*
 * Ombrelumen40Lib1 - image engine for high dynamic range photography.
 *
 * A flat C interface: every function runs to completion on the caller's
 * thread, holds no state between calls and writes its result into buffers
 * that the caller owns and sized. Results are 32-bit ints: above 0 is success
 * (usually the number of rows done), 0 means there was nothing to do, and a
 * negative value is a failure code of the function's family:
 *
 *   file families:   -1 open/seek/write failed or no line could be read,
 *                    -2 short read or write, or a required header is missing,
 *                    -3 content of the wrong kind (size mismatch, bad byte order),
 *                    -4 no memory (for the Radiance decoders also a row header
 *                       whose width field differs), -5/-6 bad run-length data,
 *                    -200 and below: the Radiance preview reader's own codes.
 *   fusion code:     -1 missing input, -2 refused depth combination or failed
 *                    write, -3 failed seek or read, -4 no memory.
 *
 * Image buffers:
 *   ldr image    interleaved 8 or 16-bit samples (16-bit little-endian words),
 *                spp samples a pixel, top row first; a rowStride counts samples.
 *                Colour roles by position: first 0, middle (spp-1)/2, last spp-1.
 *   photo block  N ldr images of one size, one after the other in one buffer.
 *   rgbe planes  the radiance image: each row is 4*width bytes, all red
 *                mantissas, then green, blue and exponents. A byte decodes as
 *                mantissa * 2^(E-128) (0 when E is 0), i.e. 256 times the value
 *                that was encoded; stats arrays use the same units.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef OMBRELUMEN40LIB1_H
#define OMBRELUMEN40LIB1_H

#include <stdint.h>

#if defined(_WIN32)
#  if defined(OL_BUILDING_LIBRARY)
#    define OL_API __declspec(dllexport)
#  else
#    define OL_API
#  endif
#else
#  define OL_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Shared records                                                            */

/* Photographic values passed between the metadata readers and the writers.
 * A value of 0 is a missing value and every writer leaves it out. `camera`
 * and `date` have no terminator when they are full. */
typedef struct ExifRecord {
    int32_t exposureNum;     /* exposure time numerator, seconds */
    int32_t exposureDen;     /* exposure time denominator */
    int32_t apertureNum;     /* F-number numerator */
    int32_t apertureDen;     /* F-number denominator */
    int32_t reserved0;
    int32_t iso;             /* ISO speed */
    int32_t descriptionMark; /* 2 when the exposure came from an image description */
    int32_t colorSpace;      /* -1 unknown, 0 sRGB, 1 Adobe RGB, 2 ProPhoto RGB */
    int32_t reserved1[2];
    int32_t focalNum;        /* focal length, millimetres */
    int32_t focalDen;
    int32_t focal35;         /* focal length in 35 mm terms */
    int32_t planeResNum;     /* focal plane X resolution */
    int32_t planeResDen;
    int32_t planeResUnit;
    int32_t thumbOffset;     /* file offset and length of the embedded thumbnail */
    int32_t thumbLen;
    int32_t iptcOffset;      /* file offset and length of the IPTC block */
    int32_t iptcLen;
    int32_t orientation;     /* TIFF orientation */
    int32_t xmpOffset;       /* value of tag 700, relative to the TIFF base */
    int32_t xmpLen;          /* count of tag 700 */
    char camera[64];         /* camera model */
    char date[20];           /* capture date */
} ExifRecord;

/* GPS values. Each rational is a numerator and a denominator; it counts as
 * present when both are at least 1. */
typedef struct GpsRecord {
    uint32_t latitude[6];    /* degrees, minutes, seconds: num, den each */
    uint32_t longitude[6];
    uint32_t altitude[2];
    uint32_t timestamp[6];   /* hours, minutes, seconds */
    char lat_ref;
    char long_ref;
    char alt_ref;
    char reserved;
    char datestamp[11];
} GpsRecord;

/* ------------------------------------------------------------------------ */
/* Buffer and folder utilities                                               */

OL_API int save_buffer(const char* path, const void* buf, int size);
OL_API int load_buffer(const char* path, void* buf, int size);
OL_API int extractbuf(int index, int length, const void* src, void* dst);
OL_API int loadbuf(int index, int length, const void* src, void* dst);
OL_API int vkmemcpyint(void* dst, int dstOffset, const void* src, int srcOffset, int length);
OL_API int loadrows(int stripIndex, int width, int rows, int rowStride, int spp, int bps,
                    const void* src, void* dst);
OL_API int load16to8(int stripIndex, int width, int rows, int rowStride, int spp,
                     const void* src, void* dst);
OL_API int from16to8(int unused1, int rows, int unused2, int rowBytes, void* buf);
OL_API int from16to8copy(int unused1, int rows, int unused2, int rowBytes,
                         const void* src, void* dst);
OL_API int bgr2rgb(int width, int height, int rowStride, int spp, int bps, void* buf);
OL_API int renverse(int height, int rowBytes, int unused, void* buf);
OL_API int ol_makefolder(const char* parent, const char* name);
OL_API int ol_checkfolder(const char* path);
OL_API int ol_deletef(const char* path);

/* ------------------------------------------------------------------------ */
/* RGBE pixel conversion                                                     */

OL_API int convert_to_rgbe(int bps, int width, int height, int spp, int rowStride, int swapped,
                           const float* lut, const void* src, unsigned char* rgbe);
/* stats: minimum, maximum and mean luminance, each times 256. */
OL_API int fp2rgbe(const char* path, int width, int height, float* stats, unsigned char* rgbe);
OL_API int fp_save(const char* path, int width, int height, const unsigned char* rgbe);

/* ------------------------------------------------------------------------ */
/* Radiance pictures                                                         */

/* rgbeDims: width, height, fileSize, three unused ints, hasPrimaries (set it
 * to 0 before the call). primaries: eight floats, rx ry gx gy bx by wx wy. */
OL_API int rgbe_dim(const char* path, float* primaries, int* rgbeDims);
OL_API int decomp_rle(const char* path, const int* rgbeDims, unsigned char* rgbe);
OL_API int decomp2(const char* path, const int* rgbeDims, unsigned char* rgbe, void* unused);
OL_API int ol_io_read_preview_rgbe(int width, int height, int previewWidth, int previewHeight,
                                   const char* path, unsigned char* preview);
OL_API int extract_rgbe_exif(const char* path, ExifRecord* exif);

OL_API int ol_io_rgbe_write(const char* path, int width, int height, const ExifRecord* exif,
                            const void* unused, const char* profileName,
                            const unsigned char* rgbe);
OL_API int ol_write_strip_rgbe(const char* path, int stripIndex, int rowsPerStrip, int width,
                               int height, const void* unused, const unsigned char* rgbe);

/* ------------------------------------------------------------------------ */
/* Exposure estimation, merging and previews                                 */

/* data: seven floats a frame (time num, den, f-number num, den, override in
 * thousandths of a stop, ISO, unused); the first n floats receive exposures. */
OL_API int get_ev(int n, float* data);
OL_API int guess_ev(int mode, int n, float evStep, int* moyBuf, float* deltaT);
OL_API int fClassementCroissant(int n, const float* values, int* ordre);

/* lut: 2^bps floats, filled here. stats: min, max, mean luminance times 256. */
OL_API int ol_hdr_merge(int mode, int nPhotos, int width, int height, int spp, int bps,
                        int gammaGiven, float* lut, float evStep, float* deltaT,
                        const void* photos, float* stats, unsigned char* rgbe);

/* Merges with exposures scaled so that the median becomes 2*midValue; deltaT
 * comes back holding the reciprocals of the scaled exposures. mode 0: first
 * sample blue. lut: 256 floats, 65536 for bps 16. calc_hdr reads its
 * consistency switch from rgbe[0] before writing (0 off, 2 threshold 0.8,
 * other 1.0); mode 2 skips the marker pass. hdr_unghost: variant 2 measures
 * the spread of luminance, any other value per channel. Both read samples 0,
 * 1 and 2 of a pixel: spp 2 (like a size or frame count below 1) returns 0
 * with nothing touched. */
OL_API int calc_hdr(int mode, int nPhotos, int width, int height, int spp, int bps, int curveMode,
                    float* lut, float midValue, float* deltaT, const void* photos, float* stats,
                    unsigned char* rgbe);
OL_API int hdr_unghost(int mode, int variant, int nPhotos, int width, int height, int spp, int bps,
                       int curveMode, float* lut, float midValue, float* deltaT, const void* photos,
                       float* stats, unsigned char* rgbe);

/* Previews: three bytes a pixel, blue, green, red. */
OL_API int rgbe_rep(int width, int height, int dstStride, float mean,
                    const unsigned char* rgbe, unsigned char* dst);
OL_API int hdr_rep8(int width, int height, int outWidth, int outHeight, int dstStride,
                    float mean, const unsigned char* rgbe, unsigned char* dst);
OL_API int hdr_display(int width, int height, int bps, int x, int y, int windowWidth,
                       int windowHeight, float* info, const void* src, unsigned char* dst);

/* ------------------------------------------------------------------------ */
/* Camera response                                                           */

/* The stack: n frames of width*height*spp packed samples, one after the
 * other; expo: one exposure a frame, larger being brighter. curve: 256 floats;
 * entries 0..2 receive pow(200, gamma), 1.0 and the count of agreeing sample
 * pairs, entries 37..199 the linear values found. Returns gamma * 1000, -1
 * when the stack has too few usable samples, -4 when no work memory. */
OL_API int calc_courbe(int n, int width, int height, int bps, int spp, const float* expo,
                       const uint8_t* images, float* curve);
/* 256 entries of scale * i^(gamma1000/1000), entry 0 = entry 1. Returns 256. */
OL_API int gen_courbe(int gamma1000, float scale, float* curve);
/* n entries running up to n-1: a straight line if linear > 0, else a 2.2
 * curve. Returns n, or 1 (table untouched) if n < 2. */
OL_API int camcurve(int linear, int n, float* curve);
/* The gamma of an ICC profile's first r/g/b tone curve, 2.2 if none. Returns
 * the position after the tag found (0 for a profile of 12 bytes or fewer, the
 * count of positions scanned when no tag is found), or, when the header's
 * size differs from size, that size negated (itself if below 1), leaving
 * gamma unwritten. */
OL_API int trc_from_profile(const uint8_t* profile, int size, float* gamma);
/* Brightness scores of n images (image i at i*height*rowStride samples), from
 * the median level of each. Returns (width*height) >> 1. */
OL_API int moy_images(int n, int width, int height, int rowStride, int spp, int bps,
                      const uint8_t* images, int* out);
/* Mean level of a grid of samples of one image; 0 for a bps other than 8, 16. */
OL_API int moy_image(int width, int height, int rowStride, int spp, int bps, const uint8_t* image);
/* Index of the middle image in descending order of values (each 0..255). */
OL_API int mid_im(int n, const int* values);

/* ------------------------------------------------------------------------ */
/* Tone and projection operators                                             */

/* Slider positions to parameters and back: scale, pow(., power), scale, and
 * a rounding that adds 1 only for a fraction strictly above 0.5. */
OL_API int slider2param(int slider, double power);
OL_API int param2slider(float param, double power);
OL_API int clipvar(int slider, double power);
OL_API int fclipvar(float slider, double power);

/* Mirror ball to latitude-longitude panorama, twice as wide as the source and
 * as high. mode: 0 nearest, 1 bilinear, 2 Spline16, other values write
 * nothing. remap_ldr writes the first three samples of each target pixel;
 * strides count samples. */
OL_API void remap_ldr(int mode, int bps, int width, int height, int srcRowStride, int dstRowStride,
                      int spp, const void* src, void* dst);
OL_API void remap_hdr(int mode, int width, int height, const uint8_t* src, uint8_t* dst);

/* 16 to 8 bits under a blurred luminance mask; dst also holds the mask
 * during the run. Results: height (comp16) or y0 + ch (comp16qv), -4 when
 * the work buffer can't be allocated. */
OL_API int comp16(int strength, int width, int height, int rowStride, int spp, const uint16_t* src,
                  uint8_t* dst);
OL_API int comp16qv(int strength, int x0, int y0, int cw, int ch, int srcRowStride, int dstRowStride,
                    int spp, const uint16_t* src, uint8_t* dst);

/* Contrast curve in place; brightness on the 8-bit scale. */
OL_API int lumcontr(float contrast, int brightness, int bps, int width, int height, int rowStride,
                    int spp, void* pixels);
/* Stack of n 8-bit images ranked by brightness: order brightest first, stops
 * by rank relative to the middle rank. Returns stops[n-1]. */
OL_API int rankvig(int n, int width, int height, int rowStride, int spp, const uint8_t* images,
                   int* order, int* stops);
/* Mean of a packed stack of n images. */
OL_API int moyenne(int n, int width, int height, int rowStride, int swap, int spp, int bpsIn, int bpsOut,
                   const void* images, void* dst);
/* Mean of a stack with shadows opened and highlights held. scratch: 2*w*h
 * bytes, or NULL to use (and overwrite) the start of images. */
OL_API int hsauto(int n, int width, int height, int rowStride, int swap, int bpsIn, int bpsOut, int spp,
                  uint8_t* scratch, void* images, void* dst);

/* 3 x 3 Laplacian sharpening into a separate target. sharpen keeps flat
 * areas flat at the rim, sharp16 leaves missing neighbours out. */
OL_API int sharpen(float amount, int width, int height, int rowStride, int spp, const uint8_t* src,
                   uint8_t* dst);
OL_API int sharp16(float amount, int width, int height, int rowStride, int spp, const uint16_t* src,
                   uint16_t* dst);

/* ------------------------------------------------------------------------ */
/* Image combination                                                         */

/* Two images of a packed stack (image i at i*width*height*spp samples) in one
 * blend: a mask of the darker image's levels, box-blurred (20 columns by 21
 * rows), takes the darker image where it is bright and the brighter one
 * elsewhere. dst holds the mask during the run. Returns height, 0 when there
 * is nothing to do or an argument is refused, -4 when the work buffer can't
 * be allocated (dst then holds the unblurred mask). A 16-bit source writes
 * 16-bit samples whatever bpsOut says (the mask spacing follows bpsOut). */
OL_API int ol_combi_2images(int unused, int ia, int ib, int width, int height, int rowStride, int swap,
                            int bpsIn, int bpsOut, int spp, const void* images, void* dst);
/* Weighted mean of n packed images, each weighted by the bilateral window sum
 * (radius, samples every step pixels) of its distance from mid-grey. power:
 * integer part 0 uses 1e6 / (sum + 1), else (sum + 1)^-(2^(power/10)).
 * saturation: integer part 0 leaves colours, else S times 1 + saturation/10.
 * Returns height, 0 when height or n is below 1 or an argument is refused
 * (step or radius below 1, depths other than 8 and 16), -4 when a work table
 * can't be allocated. Single-threaded and slow: n*w*h*(2r/step+1)^2 samples. */
OL_API int ol_combi_intensive(int step, int radius, float power, float saturation, int n, int width, int height,
                              int rowStride, int swap, int spp, int bpsIn, int bpsOut, const void* images,
                              void* dst);

/* ------------------------------------------------------------------------ */
/* Exposure fusion                                                           */

/* Threads and scratch files of ol_fusion. The three files are created with
 * "wb+" and never deleted by the library. */
typedef struct FusionFiles {
    int32_t nbProc;             /* worker threads for the weight stage */
    int32_t readFromDisk;       /* non-zero asks for disk mode */
    const char* nameSource;
    const char* namePoids;
    const char* namePyramPoids;
} FusionFiles;

/* Progress callback: a fraction from 0 to 1 and a cancel word the callee may
 * set (it is asked for and ignored: a fusion cannot be cancelled). */
typedef void (*OlProgressFn)(float fraction, int32_t* cancel);

OL_API int pyram_len(int width, int height);
OL_API int downsample_decimate(int srcWidth, int srcHeight, int dstWidth, int dstHeight,
                               int srcSpp, int dstSpp, int srcBits, int dstBits,
                               const void* src, void* dst);
OL_API int ol_downsample(int srcWidth, int srcHeight, int srcStride, int dstWidth,
                         int dstHeight, int dstStride, int spp, int bits,
                         const void* src, void* dst);
OL_API int ol_fusion(FusionFiles* files, OlProgressFn progress, float* fusionParams,
                     int nbPhotos, int width, int height, int outStride, int outSwap,
                     int channels, int bspIn, int bspOut, int bitDepthPoids,
                     int bitDepthFusion, int lenPyram, int wrapX, float unusedScale,
                     float* exposureTimes, void* images, int* indexFixedExpo,
                     unsigned char* ghostMask, void* outFloat, void* work);

/* ------------------------------------------------------------------------ */
/* Image operations: resampling, crop and rotate, histograms, previews       */
/*
 * Calls that no well-formed host makes get one defined answer: spp below 1,
 * a negative stride, or a destination stride shorter than the row written
 * writes nothing and returns 0; an angle other than 90 or 270 writes nothing
 * and returns 0; the part of a crop past an edge the function knows is not
 * copied. Counters are 32-bit and wrap.
 */

/* Nearest-neighbour resizing to 8 bits. dst rows are outStride bytes. */
OL_API int zoom_cm(float step, int unused, int srcHeight, int srcStride, int outWidth,
                   int outHeight, int outStride, int spp, int bps, const float* matrix,
                   const void* src, unsigned char* dst);
OL_API int zoom2(float step, int unused, int srcHeight, int srcStride, int outWidth,
                 int outHeight, int outStride, int spp, int bps, const void* src,
                 unsigned char* dst);
OL_API int retaille(int srcWidth, int srcHeight, int srcStride, int outWidth, int outHeight,
                    int outStride, int spp, const unsigned char* src, unsigned char* dst);

OL_API int crop_ldr(int bps, int srcStride, int cropWidth, int cropHeight, int dstStride,
                    int spp, int left, int top, const void* src, void* dst);
OL_API int crop_hdr(int srcWidth, int cropWidth, int cropHeight, int left, int top,
                    const unsigned char* src, unsigned char* dst);
/* angle 90 turns clockwise, 270 anticlockwise; dst is height x width. */
OL_API int rot_ldr(int angle, int bps, int width, int height, int srcStride, int spp,
                   int dstStride, const void* src, void* dst);
OL_API int rot_hdr(int angle, int width, int height, const unsigned char* src,
                   unsigned char* dst);
/* bps 8, 16, or 32 for rgbe planes; rows tightly packed. */
OL_API int ol_rotate(int angle, int width, int height, int spp, int bps, const void* src,
                     void* dst);

/* Histograms add to counters the caller cleared. */
OL_API int histcolors(int width, int height, int rowStride, int spp, int bps, const void* data,
                      int32_t* hist2, int32_t* hist1, int32_t* hist0);
OL_API int histlum(int width, int height, int rowStride, int spp, int bps, const void* data,
                   int32_t* hist);
/* range: smallest and largest luminance; hist: 512 counters. */
OL_API int hist16(uint32_t width, uint32_t height, uint32_t rowStride, int spp,
                  const uint16_t* data, float* range, int32_t* hist);
/* range: the axis in stats units; hist: 512 counters. */
OL_API int getHisto32(int width, int height, const unsigned char* rgbe, const float* range,
                      int32_t* hist);
/* mode 32: logarithmic axis, 16: linear. info: ten floats, the first two in
 * are the percentiles wanted. Returns the total count. */
OL_API int hist32info(const float* range, int mode, const int32_t* hist, float* info);

/* bps 1 (bit mask), 8, 16 or 32 (rgbe planes). */
OL_API int extract_basepreview(int bps, int width, int height, int spp, int rowStride,
                               int outWidth, int outHeight, int to8, const void* src,
                               void* unused, void* dst);
OL_API int extract_crop(int nbPhotos, int width, int height, int spp, int rowStride, int bps,
                        int outWidth, int outHeight, int posX, int posY, const void* src,
                        void* dst);
/* Ghost detection                                                           */

/* Sets a bit in ghostMask (one plane of width * height bits, first pixel in
 * the highest bit; nothing is cleared) wherever the photos disagree because
 * something moved. settings[0], truncated, is the threshold. evStep above
 * -0.5 has the exposures worked out here and written to deltaT; otherwise
 * deltaT (one relative exposure per photo) is used as given. images: photos
 * of bps 8 or 16 one after the other, as for ol_fusion. Returns a
 * non-negative value on success, -1 missing input, -2 a bps other than 8 or
 * 16, -4 no memory. */
OL_API int ol_ghost_detect(float* settings, int nbPhotos, int width, int height, int channels,
                           int bps, float evStep, float* deltaT, void* images,
                           unsigned char* ghostMask);
/* Alignment                                                                 */

/* Brings nimages frames of one photo block into register by whole-pixel
 * translation: width x height pixels of `samples` (3 or 4) samples, `bits` 8
 * or 16 (16-bit little-endian words); samples 0-2 are the colour. On entry
 * dims[0] == 1 keeps the frame size (uncovered margins white), any other
 * value crops to the rectangle common to all frames. On return the block
 * holds the shifted frames packed at the new size, any fourth sample 0, and
 * dims holds the new width and height. Returns the spread of the
 * displacements, (maxX - minX) + (maxY - minY), so 0 when nothing moved; -4
 * when memory runs out (block and dims untouched). Fewer than 2 frames,
 * negative sizes, fewer than 3 samples or a null pointer: 0, nothing touched. */
OL_API int align(int nimages, int width, int height, int samples, int bits, int* dims,
                 void* images);

/* ------------------------------------------------------------------------ */
/* PSD and bitmap files                                                      */

typedef struct PsdInfo {
    int32_t width;
    int32_t height;
    int32_t bps;
    int32_t channels;
    int32_t resH;        /* whole part of the horizontal resolution */
    int32_t resV;
    int32_t lProfil;     /* ICC profile length */
    int32_t dataStart;   /* start of the layer and mask section */
    int32_t exifStart;   /* file position of the data of resource 1058 */
    int32_t reserved;
    int32_t lengthBits;  /* set by the caller: 64 for the large-document form */
} PsdInfo;

OL_API int getPsdInfo(const char* path, PsdInfo* info);
OL_API int psd_profile(const char* path, unsigned char* dest);
OL_API int load_psd(int order, const char* path, PsdInfo* info, int rowStride, void* dest);
/* dims: width, height, samples. */
OL_API int olbmp_dim(const char* path, int* dims);

/* ------------------------------------------------------------------------ */
/* Metadata                                                                  */

/* fileType: 1 JPEG, 2 PSD, anything else TIFF. */
OL_API int get_exif_data(const char* path, int fileType, ExifRecord* exif, GpsRecord* gps);
OL_API int read_iptc(const char* path, int len, int offset, unsigned char* dest);
OL_API int constant_exif(ExifRecord* kept, const ExifRecord* other);

/* Measures what write_exif_buf needs for these records: the counts and data
 * lengths of the Exif and GPS directories, the Model and date text lengths
 * with their terminators (0 for an empty text, field size + 1 for a full
 * one), and 11 if a GPS date exists (else 0). Results go to the seven
 * pointers in the order Exif count, Exif data length, GPS count, GPS data
 * length, model length, date length, GPS date length; the arguments of
 * write_exif_buf take them in that order. A null record counts as empty.
 * Returns the GPS tag count plus the Exif tag count. */
OL_API int get_exif_count(const ExifRecord* exif, int* exifCount, int* exifLen,
                          const GpsRecord* gps, int* gpsCount, int* gpsLen,
                          int* modelLen, int* datetimeLen, int* gpsDatestampLen);
/* XMP packet of tone-mapping settings. write 0 only measures (out unused);
 * otherwise the packet is written to out, with no terminator. tmMethod 1
 * (Details Enhancer) reads tmParams[0..14], 2 (Tone Compressor) reads
 * indices 0-4, 12 and 13; any other method gives the packet without method
 * lines. Returns the text length in bytes, the same in both modes. */
OL_API int embed_xmp(int write, char* out, int tmMethod, const float* tmParams);
/* Exif block for a JPEG APP1 segment; out must be zeroed and large enough. */
OL_API int write_exif_buf(int exifCount, int exifLen, int gpsCount, int gpsLen, int modelLen,
                          int datetimeLen, int gpsDatestampLen, int orientation,
                          const ExifRecord* exif, const GpsRecord* gps, unsigned char* out);
OL_API int add_iptc_keyword(int iptc_len, const unsigned char* iptc, int keyword_len,
                            const unsigned char* keyword, unsigned char* out);

/* ------------------------------------------------------------------------ */
/* TIFF output                                                               */

typedef struct tif_info {
    int32_t width;
    int32_t height;
    int32_t samples;     /* samples a pixel in data: 1, 2, 3 or 4 */
    int32_t bits;        /* 8 or 16 */
    int32_t dpi;
    int32_t reserved0;
    int32_t lProfil;     /* ICC profile length, 0 for none */
    int32_t mode;        /* how pixels are taken from data */
    int32_t reserved1[2];
    int32_t orientation;
} tif_info;

OL_API int buf2tifOld(const void* data, const tif_info* info, int stride,
                      const unsigned char* profile, const ExifRecord* exif,
                      const GpsRecord* gps, int iptc_len, const unsigned char* iptc,
                      int tmMethod, const float* tmParams, const char* filename);

/* ------------------------------------------------------------------------ */
/* ICC profiles                                                              */

OL_API int extract_profile(const char* path, unsigned char* buffer);
/* name: a 32-byte field owned by the caller. */
OL_API int get_profile_name(int size, const unsigned char* profile, char* name);

#ifdef __cplusplus
}
#endif

#endif /* OMBRELUMEN40LIB1_H */
