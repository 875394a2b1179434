// Host services on Linux and other POSIX systems (see platform.hpp).
#include "platform.hpp"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

namespace olhdr::platform {

void initialise() {}

bool isTerminal(int fd) { return isatty(fd) == 1; }

int terminalColumns(int fd) {
    winsize ws{};
    return ioctl(fd, TIOCGWINSZ, &ws) == 0 ? ws.ws_col : 0;
}

long writeFd(int fd, const void* data, std::size_t size) { return static_cast<long>(write(fd, data, size)); }
int dupFd(int fd) { return dup(fd); }
int dup2Fd(int from, int to) { return dup2(from, to); }
int closeFd(int fd) { return close(fd); }
int openNullDevice() { return open("/dev/null", O_WRONLY); }

int processId() { return static_cast<int>(getpid()); }
int removeFile(const char* path) { return unlink(path); }
int removeFolder(const char* path) { return rmdir(path); }
int replaceFile(const char* from, const char* to) { return std::rename(from, to); }
void exitNow(int code) { _exit(code); }

void onInterrupt(void (*handler)(int)) {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    // A file grown past the size limit (ulimit -f) then fails its write with
    // EFBIG and takes the failure road, temporary removed, instead of ending
    // the program with the partial file left behind.
    signal(SIGXFSZ, SIG_IGN);
}

std::string tempFolder() {
    const char* t = std::getenv("TMPDIR");
    return t && *t ? t : "/tmp";
}

bool makeTempFolder(std::string& name) { return mkdtemp(name.data()) != nullptr; }

bool makeTempFile(std::string& name) {
    const int fd = mkstemp(name.data());
    if (fd < 0) return false;
    close(fd);
    return true;
}

std::string selfPath() {
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string() : self.string();
}

std::string programFile(const std::string& stem) { return stem; }
char pathListSeparator() { return ':'; }
bool isExecutable(const std::string& path) { return access(path.c_str(), X_OK) == 0; }
bool canWriteIn(const std::string& dir) { return access(dir.c_str(), W_OK | X_OK) == 0; }

}  // namespace olhdr::platform
