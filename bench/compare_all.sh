#!/usr/bin/env bash
# Every comparison with an outside program in one go, then the ratios:
#   the fusion against enfuse          (bench/compare_fusion.sh, with a profile)
#   the merge against OpenCV's Debevec (bench/compare_merge.py)
#   Radiance files against vips and ImageMagick (bench/compare_radiance.sh)
#
#   bench/compare_all.sh [BUILD_DIR]     (default build/release: a Release
#                                         build with OL_BUILD_TOOLS=ON and
#                                         OL_BUILD_BENCH=ON)
#
# Each script's own table is printed as it runs; the lines starting with
# "RATIO" (and any "HASH FAILURE") are gathered at the end. The run fails
# when one of the scripts fails, a changed output hash included.
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-build/release}" && pwd)
log=$(mktemp /tmp/olcompare-all-XXXXXX)
trap 'rm -f "$log"' EXIT
failed=()

run() {
  local name=$1; shift
  echo "=== $name: $*"
  if ! "$@" 2>&1 | tee -a "$log"; then failed+=("$name"); fi
  echo
}

echo "machine: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)"
run fusion "$here/compare_fusion.sh" "$build" --profile
run merge /usr/bin/python3 "$here/compare_merge.py" --lib "$build/libOmbrelumen40Lib1.so"
run radiance "$here/compare_radiance.sh" "$build/bench/radiance_bench"

echo "=== ratios (load average now $(cut -d' ' -f1-3 /proc/loadavg))"
grep -E '^(RATIO|HASH FAILURE)' "$log" || echo "(no RATIO lines)"
if [ ${#failed[@]} -gt 0 ]; then
  echo "failed: ${failed[*]}"
  exit 1
fi
