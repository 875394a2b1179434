#!/usr/bin/env bash
# Second command of the README, and what CI runs: installs the build and test
# dependencies, then builds and runs every test in three configurations:
#   release  all tests, the interoperability tests with independent programs included
#   asan     AddressSanitizer + UndefinedBehaviorSanitizer (leaks included)
#   tsan     ThreadSanitizer over the threaded code (tests labelled "threads")
# and finally builds the libFuzzer targets and runs each one briefly.
# Set OL_FUZZ_SECONDS=0 to skip fuzzing.
# Each configure sets every option it relies on, so whatever configured a
# build folder before (scripts/demo.sh, a developer's own cmake call) cannot
# leave tests out; and a stage whose ctest finds no test fails.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh --tests
jobs=$(nproc)
fuzz_seconds=${OL_FUZZ_SECONDS:-20}
status=0

step() { echo; echo "=== $*"; }

build() {  # preset, extra cmake arguments...
  local preset=$1; shift
  cmake --preset "$preset" "$@" > "build/$preset.configure.log" 2>&1 || { cat "build/$preset.configure.log"; return 1; }
  cmake --build --preset "$preset" -j"$jobs" > "build/$preset.log" 2>&1 || { tail -60 "build/$preset.log"; return 1; }
}
mkdir -p build


# What every test configuration needs, whatever the cache holds.
source scripts/options.sh
ctest_opts=(--no-tests=error -j"$jobs")

step "release build and tests"
build release "${release_test_opts[@]}"
ctest --preset release "${ctest_opts[@]}" || status=1
# The interoperability tests are part of this stage: none found is a failure.
ctest --preset release -N -L interop | grep -Eq "Total Tests: [1-9]" || { echo "no interop test found"; status=1; }

step "AddressSanitizer + UndefinedBehaviorSanitizer build and tests"
build asan "${test_opts[@]}" -DOL_BUILD_TOOLS=ON
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --preset asan "${ctest_opts[@]}" -LE interop || status=1

step "ThreadSanitizer build and threaded tests"
build tsan -DOL_BUILD_TESTS=ON -DOL_TEST_GLOB="fusion*_test.cpp;*_threads_test.cpp" -UOL_SUBSYSTEMS -UOL_TRACE_DEFINES
TSAN_OPTIONS=halt_on_error=1 ctest --preset tsan "${ctest_opts[@]}" || status=1

if [ "$fuzz_seconds" != "0" ]; then
  step "fuzz targets, ${fuzz_seconds}s each"
  build fuzz
  for f in build/fuzz/fuzz/*_fuzz; do
    [ -x "$f" ] || continue
    name=$(basename "$f")
    corpus=fuzz/corpus/$name
    work=$(mktemp -d)
    [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/
    if "$f" -max_total_time="$fuzz_seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=0 \
         "$work" > "build/fuzz/$name.log" 2>&1; then
      echo "$name: ok ($(grep -c . "build/fuzz/$name.log") log lines)"
    else
      echo "$name: FAILED"; tail -40 "build/fuzz/$name.log"; status=1
    fi
    rm -rf "$work"
  done
fi

echo
if [ $status -eq 0 ]; then echo "all test stages passed"; else echo "some test stage failed"; fi
exit $status
