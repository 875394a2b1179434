// Diagnostic switches.
//
// Nine process-wide switches gate nearly all diagnostic printing; they stand
// at 0 and nothing in the library changes them. They are build-time settings:
// define OL_TRACE_ALL=1 (or one OL_TRACE_<NAME>=1) when compiling the library
// to turn lines on. A disabled line costs nothing, as every use is behind
// `if constexpr`. The tenth switch, traceProbe, stands at 1 and belongs to the
// fusion code, so a plain build prints the fusion lines that always print.
#pragma once

#ifndef OL_TRACE_ALL
#define OL_TRACE_ALL 0
#endif
#ifndef OL_TRACE_FILES
#define OL_TRACE_FILES OL_TRACE_ALL
#endif
#ifndef OL_TRACE_PREVIEW
#define OL_TRACE_PREVIEW OL_TRACE_ALL
#endif
#ifndef OL_TRACE_MERGE
#define OL_TRACE_MERGE OL_TRACE_ALL
#endif
#ifndef OL_TRACE_FLOW
#define OL_TRACE_FLOW OL_TRACE_ALL
#endif
#ifndef OL_TRACE_STATS
#define OL_TRACE_STATS OL_TRACE_ALL
#endif
#ifndef OL_TRACE_BLEND
#define OL_TRACE_BLEND OL_TRACE_ALL
#endif
#ifndef OL_TRACE_CROP
#define OL_TRACE_CROP OL_TRACE_ALL
#endif
#ifndef OL_TRACE_WEIGHTS
#define OL_TRACE_WEIGHTS OL_TRACE_ALL
#endif
#ifndef OL_TRACE_LEVELS
#define OL_TRACE_LEVELS OL_TRACE_ALL
#endif
#ifndef OL_TRACE_PROBE
#define OL_TRACE_PROBE 1
#endif

namespace ol {

// Radiance decoders, older merges, moyenne, align, Exif/TIFF writing, JPEG metadata parser.
inline constexpr int traceFiles = OL_TRACE_FILES;
// extract_basepreview, extract_crop, fusion blending, JPEG metadata scan.
inline constexpr int tracePreview = OL_TRACE_PREVIEW;
// ol_hdr_merge, fusion weight maps.
inline constexpr int traceMerge = OL_TRACE_MERGE;
// PSD reading, strip writer, ol_fusion, ghost detection, Gaussian pyramid.
inline constexpr int traceFlow = OL_TRACE_FLOW;
// Strip writer, ol_fusion, ghost detection, pyramid, blending and reconstruction.
inline constexpr int traceStats = OL_TRACE_STATS;
// ol_fusion, Laplacian blending driver.
inline constexpr int traceBlend = OL_TRACE_BLEND;
// extract_crop, fusion weight driver.
inline constexpr int traceCrop = OL_TRACE_CROP;
// Fusion weight maps.
inline constexpr int traceWeights = OL_TRACE_WEIGHTS;
// Laplacian blending driver.
inline constexpr int traceLevels = OL_TRACE_LEVELS;
// Fusion lines that print in every build.
inline constexpr int traceProbe = OL_TRACE_PROBE;

}  // namespace ol
