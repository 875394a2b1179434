#!/usr/bin/env bash
# Runs the cross-platform check into a fresh folder:
#   run_check.sh PROGRAM FOLDER [EMULATOR...]
# Under an emulator (wine) the folder is handed over as a Windows path with
# a drive letter and backslashes.
set -euo pipefail
prog=$1 out=$2; shift 2
rm -rf "$out"; mkdir -p "$out"
out=$(cd "$out" && pwd)
arg=$out
if [ $# -gt 0 ]; then
  export WINEDEBUG=${WINEDEBUG:--all}
  arg=$(winepath -w "$out" 2>/dev/null)
fi
if ! "$@" "$prog" "$arg"; then
  echo "ol_crosscheck failed; its lines:"; cat "$out/stdout.txt" "$out/stderr.txt" 2>/dev/null | grep -v '^ ' | tail -40
  exit 1
fi
