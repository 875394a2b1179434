#!/usr/bin/env bash
# Installs a built tree into a scratch prefix, then builds a C consumer
# against it twice: through find_package() and through pkg-config.
set -euo pipefail
build=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" > "$work/install.log"
here=$(cd "$(dirname "$0")" && pwd)

cmake -S "$here/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" > "$work/configure.log"
cmake --build "$work/consumer" > "$work/build.log"
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer/consumer"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
cc -std=c99 -Wall -Werror $(pkg-config --cflags Ombrelumen40Lib1) "$here/consumer/consumer.c" \
   $(pkg-config --libs Ombrelumen40Lib1) -o "$work/consumer-pc"
LD_LIBRARY_PATH="$work/prefix/lib" "$work/consumer-pc"

# Only the C interface is visible from the shared library.
if nm -D --defined-only "$work/prefix/lib/libOmbrelumen40Lib1.so" | awk '{print $3}' | grep -E '^_Z' ; then
  echo "C++ symbols leak from the shared library" >&2
  exit 1
fi
echo "install_and_consume: ok"
