#!/usr/bin/env bash
# Size of the tests against the code they guard: non-blank, non-comment C/C++
# lines of tests/, fuzz/ and tools/tests/ against every other C/C++ file of the
# repository (build folders left out). Prints both counts and the ratio.
set -euo pipefail
cd "$(dirname "$0")/.."
count() {  # files on stdin -> code lines (// and /* */ comments, blank lines dropped)
  xargs -r cat | sed -e 's#//.*$##' | awk '
    { line = $0; out = "";
      while (length(line) > 0) {
        if (in_c) { i = index(line, "*/"); if (i == 0) { line = "" } else { line = substr(line, i + 2); in_c = 0 } }
        else { i = index(line, "/*"); if (i == 0) { out = out line; line = "" }
               else { out = out substr(line, 1, i - 1); line = substr(line, i + 2); in_c = 1 } } }
      if (out ~ /[^ \t\r]/) n++ }
    END { print n + 0 }'
}
files() { git ls-files -co --exclude-standard -- '*.c' '*.h' '*.cpp' '*.hpp' '*.cc' | grep -v '^build' ; }
tests=$(files | grep -E '^(tests|fuzz|tools/tests)/' | count)
rest=$(files | grep -vE '^(tests|fuzz|tools/tests)/' | count)
awk -v t="$tests" -v r="$rest" 'BEGIN { printf "tests %d  rest %d  ratio %.3f  (tests are %.1f%% of all)\n", t, r, t / r, 100 * t / (t + r) }'
