#!/usr/bin/env bash
# Size of the tests against the code they guard: C/C++ lines of tests/, fuzz/
# and tools/tests/ against every other C/C++ file of the repository (build
# folders left out). A line counts unless it is blank or starts with a comment
# marker (//, /* or the * of a block comment). Prints both counts and the ratio;
# with --files, also each test file's count, largest first.
set -euo pipefail
cd "$(dirname "$0")/.."
count() { xargs -r cat | grep -v '^[[:space:]]*$' | grep -cvE '^[[:space:]]*(//|/\*|\*)' || true; }
files() { git ls-files -co --exclude-standard -- '*.c' '*.h' '*.cpp' '*.hpp' '*.cc' | grep -v '^build' ; }
is_test='^(tests|fuzz|tools/tests)/'
tests=$(files | grep -E "$is_test" | count)
rest=$(files | grep -vE "$is_test" | count)
if [[ "${1:-}" == --files ]]; then
  files | grep -E "$is_test" | while read -r f; do echo "$(echo "$f" | count) $f"; done | sort -rn
fi
awk -v t="$tests" -v r="$rest" 'BEGIN { printf "tests %d  rest %d  ratio %.3f  (tests are %.1f%% of all)\n", t, r, t / r, 100 * t / (t + r) }'
