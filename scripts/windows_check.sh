#!/usr/bin/env bash
# The Windows stage of the tests: cross-builds the `windows` preset
# (Ombrelumen40Lib1.dll with mingw-w64), checks the DLL's export table against
# the header, then runs the C test programs and the cross-platform check under
# wine in a throwaway prefix and compares the check's folder with the one the
# Linux build writes, byte for byte. Where wine cannot start, the wine part is
# skipped with a message and the script still succeeds.
#   scripts/windows_check.sh          (from anywhere; installs what it needs)
set -euo pipefail
cd "$(dirname "$0")/.."
started=$(date +%s)
jobs=$(nproc)
bash scripts/setup.sh --windows
mkdir -p build
say() { echo "windows: $*"; }

say "building the windows preset"
cmake --preset windows > build/windows.configure.log 2>&1 || { cat build/windows.configure.log; exit 1; }
cmake --build --preset windows -j"$jobs" > build/windows.log 2>&1 || { tail -60 build/windows.log; exit 1; }
ls build/windows/bin/*.dll build/windows/bin/*.exe | sed 's/^/  /'

status=0
say "export table"
bash tests/crossplatform/exports_test.sh build/windows/bin/Ombrelumen40Lib1.dll include/Ombrelumen40Lib1.h || status=1

# The same check built natively (only its target, in the release tree).
if [ ! -f build/release/CMakeCache.txt ]; then
  cmake --preset release > build/release.configure.log 2>&1 || { cat build/release.configure.log; exit 1; }
fi
cmake --build build/release --target ol_crosscheck -j"$jobs" > build/release.crosscheck.log 2>&1 ||
  { tail -40 build/release.crosscheck.log; exit 1; }

prefix=$(mktemp -d "${TMPDIR:-/tmp}/ol-wine.XXXXXX")
cleanup() { WINEPREFIX=$prefix wineserver -k > /dev/null 2>&1 || true; rm -rf "$prefix"; }
trap cleanup EXIT
export WINEPREFIX=$prefix WINEDEBUG=-all WINEARCH=win64 WINEDLLOVERRIDES="mscoree,mshtml="
boot=$(date +%s)
if ! command -v wine > /dev/null || ! timeout 300 wineboot -i > build/windows.wineboot.log 2>&1 ||
   ! timeout 60 wine cmd /c exit 0 > /dev/null 2>&1; then
  say "SKIPPED the wine part: wine cannot start here (see build/windows.wineboot.log);"
  say "the DLL was built and its export table checked, nothing ran on Windows"
  exit $status
fi
say "wine prefix made and started in $(( $(date +%s) - boot ))s"

say "C programs and the cross-platform check under wine"
ctest --preset windows || status=1

say "the cross-platform check, native"
bash tests/crossplatform/run_check.sh build/release/tests/crossplatform/ol_crosscheck build/crosscheck-linux || status=1
win=build/windows/tests/crossplatform/check-out
lin=build/crosscheck-linux
if diff -rq "$lin" "$win" > build/windows.diff 2>&1; then
  say "the $(ls "$lin" | wc -l) outputs of the check (files and printed lines) are identical on Linux and Windows"
else
  say "outputs that differ between Linux and Windows:"; cat build/windows.diff; status=1
fi
say "stage took $(( $(date +%s) - started ))s"
exit $status
