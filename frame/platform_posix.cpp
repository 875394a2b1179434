// Platform services on POSIX systems (see frame/platform.hpp).
#if !defined(_WIN32)

#include <sys/stat.h>
#include <unistd.h>

#include "frame/platform.hpp"

namespace ol::platform {

int changeDirectory(const char* path) noexcept { return chdir(path); }

bool makeDirectory(const char* name) noexcept { return mkdir(name, 0777) == 0; }

bool pathExists(const char* path) noexcept {
    struct stat st;
    return stat(path, &st) == 0;
}

bool deleteFile(const char* path) noexcept { return unlink(path) == 0; }

// POSIX makes no difference between text and binary streams.
std::FILE* openFile(const char* path, const char* mode) noexcept { return std::fopen(path, mode); }

bool seekTo(std::FILE* f, std::int64_t offset) noexcept {
    return fseeko(f, static_cast<off_t>(offset), SEEK_SET) == 0;
}

std::int64_t tellAt(std::FILE* f) noexcept { return std::ftell(f); }

}  // namespace ol::platform

#endif  // !_WIN32
