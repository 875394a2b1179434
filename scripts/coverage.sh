#!/usr/bin/env bash
# Line coverage of the library by the test suite, in one command:
#   bash scripts/coverage.sh          (build folder build/coverage, -j2)
# Builds everything with --coverage at -O0, runs ctest (tests whose outside
# programs or data are missing skip themselves), then prints the line coverage
# of the library folders (frame, radiance, merge, fusion, metadata, ... ; the
# host programs, tests and benchmarks are not counted). Needs lcov.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=build/coverage
jobs=${OL_JOBS:-2}
# Always a fresh folder: counter files left by an earlier build of changed
# sources make the run print "Merge mismatch" and lose those counts.
rm -rf "$dir"
mkdir -p build
command -v lcov > /dev/null || { echo "lcov is missing (apt-get install -y lcov)"; exit 1; }
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DOL_BUILD_BENCH=OFF \
  -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage > "$dir.configure.log" 2>&1 \
  || { cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j"$jobs" > "$dir.build.log" 2>&1 || { tail -40 "$dir.build.log"; exit 1; }
find "$dir" -name '*.gcda' -delete
ctest --test-dir "$dir" -j"$jobs" ${OL_CTEST_ARGS:-} > "$dir.ctest.log" 2>&1 || { tail -30 "$dir.ctest.log"; echo "(tests failed; coverage below is of the run as it went)"; }
lcov --quiet --capture --directory "$dir" --output-file "$dir/all.info" --ignore-errors gcov,source 2> /dev/null
dirs=$(sed -n 's/^set(OL_SUBSYSTEMS \(.*\)$/\1/p' CMakeLists.txt | sed 's/CACHE.*//')
pats=(); for d in $dirs; do pats+=("$PWD/$d/*"); done
lcov --quiet --extract "$dir/all.info" "${pats[@]}" --output-file "$dir/library.info" 2> /dev/null
lcov --summary "$dir/library.info" 2>&1 | grep -E 'lines|functions'
