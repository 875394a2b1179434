// Host services on Windows (see platform.hpp). Paths are the narrow strings
// the rest of the program uses, in the system's code page.
#include "platform.hpp"

#include <direct.h>
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <windows.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>

namespace olhdr::platform {

void initialise() {
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}

bool isTerminal(int fd) { return _isatty(fd) != 0; }

int terminalColumns(int fd) {
    const HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(fd));
    CONSOLE_SCREEN_BUFFER_INFO info;
    if (h == INVALID_HANDLE_VALUE || !GetConsoleScreenBufferInfo(h, &info)) return 0;
    return info.srWindow.Right - info.srWindow.Left + 1;
}

long writeFd(int fd, const void* data, std::size_t size) {
    return _write(fd, data, static_cast<unsigned>(size));
}
int dupFd(int fd) { return _dup(fd); }
int dup2Fd(int from, int to) { return _dup2(from, to); }
int closeFd(int fd) { return _close(fd); }
int openNullDevice() { return _open("NUL", _O_WRONLY | _O_BINARY); }

int processId() { return _getpid(); }
int removeFile(const char* path) { return _unlink(path); }
int removeFolder(const char* path) { return _rmdir(path); }

// The C library's rename refuses an existing target on Windows. A failure
// sets errno, for the caller's message, from the system's error.
int replaceFile(const char* from, const char* to) {
    if (MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) return 0;
    switch (GetLastError()) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND: errno = ENOENT; break;
        case ERROR_ACCESS_DENIED:
        case ERROR_SHARING_VIOLATION: errno = EACCES; break;
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL: errno = ENOSPC; break;
        default: errno = EIO;
    }
    return -1;
}

void exitNow(int code) { _exit(code); }

void onInterrupt(void (*handler)(int)) {
    std::signal(SIGINT, handler);
    std::signal(SIGTERM, handler);
    std::signal(SIGBREAK, handler);
}

// TMP, TEMP or the profile's folder, as the system says; TMPDIR is left out
// (under wine it may hold a Unix path).
std::string tempFolder() {
    std::error_code ec;
    const auto p = std::filesystem::temp_directory_path(ec);
    return ec ? std::string(".") : p.string();
}

namespace {
// Replaces the trailing XXXXXX of `name` with random letters and digits until
// `make` succeeds or fails for another reason than an existing name.
template <typename Make>
bool makeUnique(std::string& name, Make make) {
    const std::size_t n = name.size();
    if (n < 6 || name.compare(n - 6, 6, "XXXXXX") != 0) {
        errno = EINVAL;
        return false;
    }
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device seed;
    std::mt19937 pick(seed() ^ static_cast<unsigned>(_getpid()));
    for (int attempt = 0; attempt < 100; ++attempt) {
        for (std::size_t i = n - 6; i < n; ++i) name[i] = kChars[pick() % 36];
        if (make(name.c_str())) return true;
        if (errno != EEXIST) return false;
    }
    return false;
}
}  // namespace

bool makeTempFolder(std::string& name) {
    return makeUnique(name, [](const char* p) { return _mkdir(p) == 0; });
}

bool makeTempFile(std::string& name) {
    return makeUnique(name, [](const char* p) {
        const int fd = _open(p, _O_CREAT | _O_EXCL | _O_WRONLY | _O_BINARY, 0600);
        if (fd < 0) return false;
        _close(fd);
        return true;
    });
}

std::string selfPath() {
    wchar_t buf[32768];
    const DWORD n = GetModuleFileNameW(nullptr, buf, sizeof buf / sizeof buf[0]);
    if (n == 0 || n >= sizeof buf / sizeof buf[0]) return {};
    return std::filesystem::path(std::wstring(buf, n)).string();
}

std::string programFile(const std::string& stem) { return stem + ".exe"; }
char pathListSeparator() { return ';'; }

bool isExecutable(const std::string& path) {
    const DWORD a = GetFileAttributesA(path.c_str());
    return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

bool canWriteIn(const std::string& dir) {
    const DWORD a = GetFileAttributesA(dir.c_str());
    if (a == INVALID_FILE_ATTRIBUTES || !(a & FILE_ATTRIBUTE_DIRECTORY)) {
        errno = ENOENT;
        return false;
    }
    return true;
}

}  // namespace olhdr::platform
