// Named failure codes, one group per family. The numbers are the contract of
// the public header (its table at the top); these names only say in the code
// which of them a return means. A function whose codes follow a ladder of its
// own (the ICC extraction, the TIFF writer's stages) names them next to it.
#pragma once

namespace ol::status {

// File families: the Radiance, float TIFF, PSD, BMP, IPTC and metadata files.
inline constexpr int kOpen = -1;         // open, seek or write failed; no line could be read
inline constexpr int kShort = -2;        // short read or write; a required header is missing
inline constexpr int kContent = -3;      // content of the wrong kind
inline constexpr int kNoMemory = -4;     // no memory
inline constexpr int kRowWidth = -4;     // Radiance decoders: a row header of another width
inline constexpr int kRunOverrun = -5;   // run-length: a run past the end of the row
inline constexpr int kBadLiteral = -6;   // run-length: an empty or overlong literal, a width of 32768 up

// The Radiance preview reader's own codes.
inline constexpr int kPreviewSize = -200;     // the file's size differs from the one given
inline constexpr int kPreviewRowHeader = -201;  // a row header with a width of 32768 up
inline constexpr int kPreviewRun = -202;      // a run or literal past the end of the row

// Fusion and ghost code.
inline constexpr int kMissingInput = -1;
inline constexpr int kRefused = -2;      // refused depth combination or failed write
inline constexpr int kSeekRead = -3;     // failed seek or read
inline constexpr int kFusionNoMemory = -4;

}  // namespace ol::status
