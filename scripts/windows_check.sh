#!/usr/bin/env bash
# The Windows stage of the tests: builds the static codecs of olhdr.exe
# (scripts/windows_deps.sh, once), cross-builds the `windows` preset
# (Ombrelumen40Lib1.dll and olhdr.exe with mingw-w64), checks the DLL's export
# table against the header and what both import, then runs the C test
# programs and the cross-platform check under wine in a throwaway prefix and
# compares the check's folder with the one the Linux build writes, byte for
# byte; last, olhdr demo, info, merge and fuse on both platforms, outputs
# compared the same way. Where wine cannot start, the wine part is skipped
# with a message and the script still succeeds.
#   scripts/windows_check.sh               (from anywhere; installs what it needs)
#   scripts/windows_check.sh --build-only  the DLL and olhdr.exe, no check
set -euo pipefail
cd "$(dirname "$0")/.."
started=$(date +%s)
jobs=$(nproc)
bash scripts/setup.sh --windows
mkdir -p build
say() { echo "windows: $*"; }

say "codecs for olhdr.exe"
bash scripts/windows_deps.sh

say "building the windows preset"
cmake --preset windows > build/windows.configure.log 2>&1 || { cat build/windows.configure.log; exit 1; }
cmake --build --preset windows -j"$jobs" > build/windows.log 2>&1 || { tail -60 build/windows.log; exit 1; }
ls build/windows/bin/*.dll build/windows/bin/*.exe | sed 's/^/  /'
[ "${1:-}" = --build-only ] && exit 0

status=0
say "export table"
bash tests/crossplatform/exports_test.sh build/windows/bin/Ombrelumen40Lib1.dll include/Ombrelumen40Lib1.h || status=1
# olhdr.exe: the codecs and runtimes linked in, so only system DLLs and ours.
exe=build/windows/bin/olhdr.exe
if [ -f "$exe" ]; then
  imports=$(x86_64-w64-mingw32-objdump -p "$exe" | awk '/DLL Name:/ {print $3}' | sort -u)
  for d in $imports; do
    case "${d,,}" in
      kernel32.dll|msvcrt.dll|ombrelumen40lib1.dll) ;;
      *) say "olhdr.exe imports non-system DLL $d"; status=1 ;;
    esac
  done
  say "olhdr.exe: $(stat -c %s "$exe") bytes, imports $(echo $imports);" \
      "the DLL: $(stat -c %s build/windows/bin/Ombrelumen40Lib1.dll) bytes"
else
  say "olhdr.exe was not built (see build/windows.configure.log)"; status=1
fi

# The same check and olhdr built natively (only their targets, in the release tree).
if [ ! -f build/release/CMakeCache.txt ]; then
  cmake --preset release > build/release.configure.log 2>&1 || { cat build/release.configure.log; exit 1; }
fi
cmake --build build/release --target ol_crosscheck olhdr -j"$jobs" > build/release.crosscheck.log 2>&1 ||
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
say "olhdr demo, info, merge and fuse, on Linux and under wine"
bash tests/crossplatform/olhdr_compare.sh build/release/tools/olhdr "$exe" build/olhdr-compare || status=1

say "stage took $(( $(date +%s) - started ))s"
exit $status
