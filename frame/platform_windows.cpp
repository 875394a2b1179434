// Platform services on Windows (see frame/platform.hpp). Paths are narrow
// strings in the process's code page, with drive letters and either slash;
// the C runtime's functions accept both separators.
#if defined(_WIN32)

#include <direct.h>
#include <io.h>
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <cstring>

#include "frame/platform.hpp"

namespace ol::platform {

int changeDirectory(const char* path) noexcept { return _chdir(path); }

bool makeDirectory(const char* name) noexcept { return _mkdir(name) == 0; }

// GetFileAttributesA, not _stat: _stat refuses a folder written with a
// trailing separator ("C:\\photos\\") and a bare drive letter with one ("C:").
bool pathExists(const char* path) noexcept { return GetFileAttributesA(path) != INVALID_FILE_ATTRIBUTES; }

// Like unlink(), this removes files only; a folder is a failure.
bool deleteFile(const char* path) noexcept { return _unlink(path) == 0; }

// The runtime opens in text mode unless the mode says 'b' (or the process's
// default mode was changed), so 'b' is added when a mode lacks it.
std::FILE* openFile(const char* path, const char* mode) noexcept {
    if (std::strchr(mode, 'b')) return std::fopen(path, mode);
    char binary[8];
    const std::size_t n = std::strlen(mode);
    if (n + 2 > sizeof binary) return nullptr;
    std::memcpy(binary, mode, n);
    binary[n] = 'b';
    binary[n + 1] = '\0';
    return std::fopen(path, binary);
}

bool seekTo(std::FILE* f, std::int64_t offset) noexcept { return _fseeki64(f, offset, SEEK_SET) == 0; }

std::int64_t tellAt(std::FILE* f) noexcept { return _ftelli64(f); }

}  // namespace ol::platform

#endif  // _WIN32
