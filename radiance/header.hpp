// Radiance header text: the line budget, the resolution line, and header
// lines read the way every reader here reads them (fgets with 128 bytes, so a
// longer line counts as several lines).
#pragma once

#include <cstdio>

namespace ol::radiance {

inline constexpr int kLineBytes = 128;

// Lines the size query and the streaming decoder read at most: fileSize/128,
// or 100 once the file holds 12801 bytes or more.
inline long headerLineBudget(long fileSize) noexcept {
    if (fileSize >= 12801) return 100;
    return fileSize / kLineBytes;
}

// Lines the preview reader reads at most; below 2 it refuses the file.
inline long previewLineBudget(long fileSize) noexcept { return fileSize / kLineBytes - 128; }

// True when the text scans as "-Y %d +X %d" with both numbers.
bool scanResolution(const char* text, int* height, int* width) noexcept;

// Reads header lines until the resolution line, at most `budget` of them.
// Returns 1 with the numbers when found, 0 when the budget ran out, and -1
// when a line could not be read.
int findResolutionLine(std::FILE* f, long budget, int* height, int* width) noexcept;

}  // namespace ol::radiance
