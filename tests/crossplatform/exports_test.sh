#!/usr/bin/env bash
# The DLL exports exactly the functions the public header declares with
# OL_API, and nothing else (no C++ symbol, no runtime symbol).
#   exports_test.sh Ombrelumen40Lib1.dll include/Ombrelumen40Lib1.h
set -euo pipefail
dll=$1 header=$2
objdump=${OBJDUMP:-x86_64-w64-mingw32-objdump}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT

# Names from the header: comments and preprocessor lines dropped, then the
# identifier before the '(' of every declaration that starts with OL_API.
perl -0777 -ne 's{/\*.*?\*/}{}gs; s{//[^\n]*}{}g; s{^\s*#[^\n]*}{}gm;
  while (/\bOL_API\b([^;{]*?)\b([A-Za-z_]\w*)\s*\(/g) { print "$2\n" }' "$header" | sort > "$tmp/header"
# Names from the DLL's export table.
"$objdump" -p "$dll" | awk '/^\[Ordinal\/Name Pointer\] Table/ {t = 1; next}
  t && /^[ \t]*\[ *[0-9]+\]/ {print $NF; next} t {t = 0}' | sort > "$tmp/dll"

status=0
if [ ! -s "$tmp/header" ]; then echo "no OL_API declaration found in $header"; status=1; fi
if ! diff -u "$tmp/header" "$tmp/dll" > "$tmp/diff"; then
  echo "export table differs from the header (- header only, + DLL only):"
  grep '^[-+][^-+]' "$tmp/diff"; status=1
fi
if grep -E '^_Z|::|@' "$tmp/dll"; then echo "C++ or decorated names exported (above)"; status=1; fi
# Only system DLLs imported: no libgcc, libstdc++ or winpthread DLL.
imports=$("$objdump" -p "$dll" | awk '/DLL Name:/ {print $3}' | sort -u)
for d in $imports; do
  case "${d,,}" in
    kernel32.dll|msvcrt.dll|user32.dll|advapi32.dll|ucrtbase.dll|api-ms-win-*) ;;
    *) echo "imports non-system DLL $d"; status=1 ;;
  esac
done
echo "exports: $(wc -l < "$tmp/dll") names (header: $(wc -l < "$tmp/header")); imports: $(echo $imports)"
exit $status
