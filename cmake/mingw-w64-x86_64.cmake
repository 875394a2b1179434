# Cross-building for 64-bit Windows with Debian's mingw-w64 in the posix
# thread model (g++-mingw-w64-x86-64-posix), so that the fusion's POSIX
# threads run on winpthreads.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(OL_MINGW_TRIPLE x86_64-w64-mingw32)

set(CMAKE_C_COMPILER   ${OL_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${OL_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER  ${OL_MINGW_TRIPLE}-windres)

# The system's mingw-w64 files, then the static codecs olhdr.exe links, built
# by scripts/windows_deps.sh (zlib is Debian's libz-mingw-w64-dev; its
# static archive, not the import library of its DLL).
get_filename_component(_ol_source ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
set(OL_WINDOWS_DEPS ${_ol_source}/build/windows-deps CACHE PATH "Static codecs for olhdr.exe")
set(CMAKE_FIND_ROOT_PATH /usr/${OL_MINGW_TRIPLE} ${OL_WINDOWS_DEPS})
set(ZLIB_LIBRARY /usr/${OL_MINGW_TRIPLE}/lib/libz.a CACHE FILEPATH "")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The runtime's C99 printf family everywhere (C sources included), so that
# printed numbers read as on Linux and not as the system msvcrt formats them.
set(CMAKE_C_FLAGS_INIT   "-D__USE_MINGW_ANSI_STDIO=1")
set(CMAKE_CXX_FLAGS_INIT "-D__USE_MINGW_ANSI_STDIO=1")

# libgcc, libstdc++ and winpthreads linked in statically: the DLL and the
# programs import only system DLLs.
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_EXE_LINKER_FLAGS_INIT    "-static -static-libgcc -static-libstdc++")

# Programs built here run under wine on the build machine.
set(CMAKE_CROSSCOMPILING_EMULATOR wine)
