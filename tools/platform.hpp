// The host services olhdr needs from the operating system beyond standard
// C++: terminals, file descriptors, interrupts, scratch names and the path of
// the running program. One implementation per platform: platform_posix.cpp
// and platform_windows.cpp; everything else in tools/ is shared.
#pragma once

#include <cstddef>
#include <string>

namespace olhdr::platform {

// Called first in main: on Windows, standard output and error in binary mode,
// so that printed lines end in "\n" as on Linux. Nothing to do elsewhere.
void initialise();

bool isTerminal(int fd);
// Width of the terminal on fd in columns, 0 when unknown.
int terminalColumns(int fd);

// Raw descriptor calls (usable from an interrupt handler).
long writeFd(int fd, const void* data, std::size_t size);
int dupFd(int fd);
int dup2Fd(int from, int to);
int closeFd(int fd);
// A descriptor on the null device, opened for writing; -1 on failure.
int openNullDevice();

int processId();
// 0 when the file or the empty folder is gone (usable from an interrupt handler).
int removeFile(const char* path);
int removeFolder(const char* path);
// Moves `from` onto `to`, replacing an existing `to`; 0 on success.
int replaceFile(const char* from, const char* to);
[[noreturn]] void exitNow(int code);
// `handler` runs on an interrupt from the terminal or a termination request.
void onInterrupt(void (*handler)(int));

// Folder for scratch files: $TMPDIR or /tmp on POSIX, the system's on Windows.
std::string tempFolder();
// Creates a new folder or file from a name ending in XXXXXX, which is
// replaced in place; false (errno set) when none can be made. The file is
// created empty and closed.
bool makeTempFolder(std::string& name);
bool makeTempFile(std::string& name);

// Full path of the running program, "" when unknown.
std::string selfPath();
// The file name a program called `stem` has ("olhdr", "olhdr.exe"), and the
// separator of the PATH list.
std::string programFile(const std::string& stem);
char pathListSeparator();
bool isExecutable(const std::string& path);
// Whether new files can be made in the folder `dir`.
bool canWriteIn(const std::string& dir);

}  // namespace olhdr::platform
