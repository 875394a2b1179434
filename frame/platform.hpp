// The few services whose code differs between POSIX systems and Windows:
// the current directory, folders, file existence and deletion, and opening a
// file. Each platform's code is in one file (platform_posix.cpp,
// platform_windows.cpp); everything else in the library calls these.
#pragma once

#include <cstdint>
#include <cstdio>

namespace ol::platform {

// Makes `path` the process's current directory: 0, or the non-zero result of
// the system call when it fails.
int changeDirectory(const char* path) noexcept;
// Creates the folder `name` (relative to the current directory or absolute):
// true when it was created, false otherwise (an existing folder included).
bool makeDirectory(const char* name) noexcept;
// True when the path names an existing file or folder.
bool pathExists(const char* path) noexcept;
// Deletes the file: true on success.
bool deleteFile(const char* path) noexcept;
// fopen() for the library's files, always in binary mode (a text-mode open
// would translate line ends and stop reading at a 0x1A byte on Windows).
std::FILE* openFile(const char* path, const char* mode) noexcept;
// Absolute seek to a 64-bit offset (the C long is 32 bits on Windows).
bool seekTo(std::FILE* f, std::int64_t offset) noexcept;
// Position in the file, -1 on failure (64-bit on every platform).
std::int64_t tellAt(std::FILE* f) noexcept;

}  // namespace ol::platform
