#!/usr/bin/env bash
# Deliberate faults: applies each fault below to a scratch copy of the sources,
# rebuilds, runs the tests of the subsystem it touches and reports whether the
# suite catches it. A fault that no longer applies (the line moved) is reported
# as "stale" so that the list gets updated with the code.
#   bash scripts/mutants.sh            all faults
#   bash scripts/mutants.sh M2 M4      some of them
# Scratch folder: $OL_MUTANTS_DIR (default /tmp/ol-mutants); the first run
# builds it whole, later runs rebuild incrementally.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$PWD
scratch=${OL_MUTANTS_DIR:-/tmp/ol-mutants}
jobs=${OL_JOBS:-2}

# id | file | sed expression | test programs to run (globs in build/tests) | what the fault is
faults=(
  "M1|merge/merge_tables.hpp|s/if (i > saturation) {/if (i >= saturation) {/|merge_* roundtrip_test trace_test|merge weight table: '>' made '>=' at the saturation level"
  "M2|merge/hdr_merge.cpp|s/^    replaceMarkers(width/    if (0) replaceMarkers(width/|merge_* roundtrip_test trace_test|merge: the marker pass (burnt-out and dead-dark pixels) skipped"
  "M3|merge/hdr_merge.cpp|s/const float x = (curT - minT)/const double x = (curT - minT)/|merge_* roundtrip_test trace_test|merge: the exposure position x made double (saturation and noise levels)"
  "M4|fusion/reconstruct.cpp|s/if (t > top) t = top;/if (t > top) t = t \& top;/|fusion_* trace_test|fusion output: the clamp to 255/65535 made a wrap"
  "M5|radiance/rle.cpp|s/const int n = r - pos < 127 ? r - pos : 127;/const int n = r - pos < 128 ? r - pos : 128;/|radiance_* roundtrip_test trace_test crashers_test|RLE writer: literals of 128 bytes instead of at most 127"
  "M6|metadata/exif_ifd.hpp|s/return num >= 1 \&\& den >= 1; }/return num >= 0 \&\& den >= 1; }/|meta*_test roundtrip_test trace_test crashers_test|Exif writer: a rational with numerator 0 counted as present"
)

want=("$@")
mkdir -p "$scratch"
rm -rf "$scratch/src" && mkdir -p "$scratch/src"
# A copy that keeps the files' times, so the scratch build stays incremental.
tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$scratch/src" -xpf -
if [ ! -f "$scratch/build/CMakeCache.txt" ]; then
  cmake -S "$scratch/src" -B "$scratch/build" -DCMAKE_BUILD_TYPE=Release -DOL_BUILD_BENCH=OFF > "$scratch/configure.log" 2>&1 \
    || { cat "$scratch/configure.log"; exit 1; }
fi
build() { cmake --build "$scratch/build" -j"$jobs" > "$scratch/build.log" 2>&1; }
build || { echo "the unchanged sources do not build"; tail -30 "$scratch/build.log"; exit 1; }

missed=0
for f in "${faults[@]}"; do
  IFS='|' read -r id file expr tests what <<< "$f"
  if [ ${#want[@]} -gt 0 ] && [[ ! " ${want[*]} " == *" $id "* ]]; then continue; fi
  sed -i -e "$expr" "$scratch/src/$file"
  if cmp -s "$root/$file" "$scratch/src/$file"; then
    echo "$id stale   $what"; continue
  fi
  if ! build; then
    result="no-build"
  else
    failing=0; ran=0; : > "$scratch/$id.log"
    for g in $tests; do
      for t in "$scratch"/build/tests/$g; do
        [ -x "$t" ] || continue
        ran=$((ran + 1))
        (cd "$scratch/build/tests" && timeout 900 "$t" --gtest_brief=1) >> "$scratch/$id.log" 2>&1 || failing=$((failing + 1))
      done
    done
    if [ "$ran" = 0 ]; then result="no tests ran"; missed=$((missed + 1))
    elif [ "$failing" = 0 ]; then result="MISSED ($ran programs)"; missed=$((missed + 1))
    else result="caught ($failing of $ran programs fail)"; fi
  fi
  cp "$root/$file" "$scratch/src/$file"
  echo "$id $result   $what"
done
build > /dev/null 2>&1
exit $missed
