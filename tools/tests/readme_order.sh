#!/usr/bin/env bash
# The README's two commands in order, configure steps only: a build folder
# configured as scripts/demo.sh does, then as scripts/test.sh does, must have
# its tests on and listed. (The full run, from a fresh clone, is done by
# hand before a release; this catches an option that sticks in the cache.)
#   readme_order.sh SOURCE-DIR SCRATCH-DIR
set -euo pipefail
src=$1
work=$2
rm -rf "$work"
mkdir -p "$work"
source "$src/scripts/options.sh"
# Leftovers of a developer's own configure that the test command must undo.
cmake -S "$src" -B "$work" -DCMAKE_BUILD_TYPE=Release -DOL_SUBSYSTEMS="frame;radiance" \
  -DOL_TEST_GLOB="frame_test.cpp" -DOL_BUILD_TESTS=OFF > "$work/0.log" 2>&1
cmake -S "$src" -B "$work" "${demo_opts[@]}" > "$work/1.log" 2>&1
cmake -S "$src" -B "$work" "${release_test_opts[@]}" > "$work/2.log" 2>&1
fail() { echo "readme_order: $*"; exit 1; }
grep -q "^OL_BUILD_TESTS:BOOL=ON$" "$work/CMakeCache.txt" || fail "tests stay off after the demo"
grep -q "^OL_SUBSYSTEMS:STRING=frame;radiance;merge" "$work/CMakeCache.txt" || fail "a reduced subsystem list stays"
for t in cli_commands_test cli_interop_test fusion_interop_test olhdr_parts_test; do
  grep -rq "$t" "$work/tests/CTestTestfile.cmake" "$work/tools/CTestTestfile.cmake" 2>/dev/null || fail "$t is not registered"
done
rm -rf "$work"
echo "readme_order: tests on and registered after the demo's configure"
