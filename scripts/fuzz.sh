#!/usr/bin/env bash
# Long fuzzing runs that keep their progress:
#   scripts/fuzz.sh --minutes N [TARGET...]     (default: every fuzz/*_fuzz.cpp)
# Builds the libFuzzer targets (preset "fuzz": clang, ASan + UBSan), then for
# each target:
#   - seeds a temporary corpus with fuzz/corpus/<target> plus the files of its
#     kind in /work/shared/testdata (or $OL_TESTDATA), copied at run time and
#     never committed (files above 256 KiB are left out: they only slow it);
#   - runs it for N minutes on one worker;
#   - merges what the run found into fuzz/corpus/<target> (-merge=1, keeping
#     only inputs that add coverage);
#   - copies any crash, leak or timeout into tests/crashers/<family>/, where
#     the test command replays it, with a one-line note in that folder's
#     README.md. Targets whose input starts with call arguments (iptc,
#     rgbe_preview, psd_info) save the file part; the note keeps the prefix.
# Prints one summary line per target: executions, coverage, corpus size, and
# appends it as a row to fuzz/RUNS.md (with the CPU seconds the run got).
# The fuzzers run under `nice -n ${OL_NICE:-15}`: the machine is shared.
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=
targets=()
while [ $# -gt 0 ]; do
  case $1 in
    --minutes) minutes=$2; shift 2 ;;
    -h|--help) sed -n 2,18p "$0"; exit 0 ;;
    *) targets+=("$1"); shift ;;
  esac
done
# (0 would be libFuzzer's "no limit")
[[ "$minutes" =~ ^[1-9][0-9]*$ ]] || { echo "usage: $0 --minutes N [TARGET...]  (N >= 1)" >&2; exit 2; }
if [ ${#targets[@]} -eq 0 ]; then
  for f in fuzz/*_fuzz.cpp; do targets+=("$(basename "$f" .cpp)"); done
fi
testdata=${OL_TESTDATA:-/work/shared/testdata}
jobs=${OL_JOBS:-2}
keep_bytes=${OL_FUZZ_KEEP_BYTES:-8192}
niceness=${OL_NICE:-15}

# Shared-data patterns of each target (paths under $testdata) and the bytes
# of call arguments the target reads before the file.
seeds_of() {
  case $1 in
    rgbe_reader_fuzz|rgbe_exif_fuzz|rgbe_decoders_fuzz|rgbe_preview_fuzz) echo "hdr/*.hdr hdr/*.pic" ;;
    float_tiff_fuzz) echo "floattiff/*.tif floattiff/*.tiff" ;;
    exif_reader_fuzz) echo "exif/*.jpg exif/*.JPG exif/*.tif exif/*.psd psd/*.psd" ;;
    psd_reader_fuzz|psd_info_fuzz) echo "psd/*.psd psd/*.psb" ;;
    icc_fuzz|icc_profile_fuzz|trc_profile_fuzz) echo "icc/*.icc icc/*.icm" ;;
    bmp_fuzz) echo "exif/*.bmp" ;;
    host_info_fuzz) echo "exif/*.jpg exif/*.tif exif/*.tiff psd/*.psd hdr/*.hdr floattiff/*.tif" ;;
    *) echo "" ;;
  esac
}
prefix_of() {  # hex bytes put before a shared file
  case $1 in
    rgbe_preview_fuzz) echo '\xff\xff' ;;
    psd_info_fuzz) echo '\x00' ;;
    *) echo '' ;;
  esac
}
prefix_len() {
  case $1 in iptc_fuzz) echo 6 ;; rgbe_preview_fuzz) echo 2 ;; psd_info_fuzz) echo 1 ;; *) echo 0 ;; esac
}
flags_of() {  # the host prints a line for every refused file: keep it quiet
  case $1 in host_info_fuzz) echo "-close_fd_mask=3" ;; *) echo "" ;; esac
}
family_of() {
  case $1 in
    rgbe_*|float_tiff_fuzz) echo radiance ;;
    metawrite_fuzz) echo metawrite ;;
    host_info_fuzz) echo host ;;
    *) echo metadata ;;
  esac
}

# drop_copies DIR SHARED...: removes from DIR every file of which more than
# half the bytes lie in runs of 32 or more bytes found in a SHARED file.
drop_copies() {
  python3 - "$@" <<'PY'
import os, sys
folder, shared = sys.argv[1], sys.argv[2:]
W = 32
windows = set()
for p in shared:
    b = open(p, 'rb').read()
    windows.update(b[i:i + W] for i in range(0, len(b) - W + 1, 16))
for name in os.listdir(folder):
    path = os.path.join(folder, name)
    b = open(path, 'rb').read()
    covered = bytearray(len(b))
    for i in range(len(b) - W + 1):
        if b[i:i + W] in windows:
            covered[i:i + W] = b'\x01' * W
    if b and sum(covered) * 2 > len(b):
        os.remove(path)
PY
}

# OL_FUZZ_NO_BUILD=1 runs the targets as they are built (for a run while
# another target of the tree is still being built).
if [ "${OL_FUZZ_NO_BUILD:-0}" != 1 ]; then
  cmake --preset fuzz > build/fuzz.configure.log 2>&1 || { cat build/fuzz.configure.log; exit 1; }
  cmake --build build/fuzz -j"$jobs" --target "${targets[@]}" > build/fuzz.log 2>&1 || { tail -40 build/fuzz.log; exit 1; }
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
work=$(mktemp -d /tmp/olfuzz-run.XXXXXX)
trap 'rm -rf "$work"' EXIT
status=0
for t in "${targets[@]}"; do
  bin=build/fuzz/fuzz/$t
  [ -x "$bin" ] || { echo "$t: no such target" >&2; status=1; continue; }
  kept=fuzz/corpus/$t
  mkdir -p "$kept"
  run=$work/$t; mkdir -p "$run/corpus" "$run/artifacts"
  cp "$kept"/. "$run/corpus/" -r 2>/dev/null || true
  pre=$(prefix_of "$t")
  n=0
  if [ -d "$testdata" ]; then
    for pat in $(seeds_of "$t"); do
      for f in "$testdata"/$pat; do
        [ -f "$f" ] && [ "$(stat -c %s "$f")" -le 262144 ] || continue
        { printf "$pre"; cat "$f"; } > "$run/corpus/shared_$n"; n=$((n + 1))
      done
    done
  fi
  echo "=== $t: $minutes min, $(ls "$run/corpus" | wc -l) seeds ($n from shared data)"
  set +e
  TIMEFORMAT='%U %S'
  { time nice -n "$niceness" "$bin" -max_total_time=$((minutes * 60)) -max_len=262144 -timeout=10 \
      -rss_limit_mb=2048 -print_final_stats=1 $(flags_of "$t") -artifact_prefix="$run/artifacts/" \
      "$run/corpus" > "$run/log" 2>&1; } 2> "$run/cpu"
  rc=$?
  set -e
  cpu=$(awk '{printf "%d", $1 + $2}' "$run/cpu" 2>/dev/null || echo "?")
  # New paths go back into the kept corpus, minimised against what it holds.
  # The shared files stay out of it (they are only ever copied in at run time),
  # and so do inputs above $keep_bytes (mostly mutated shared files): the kept
  # corpus stays small enough to commit.
  mkdir -p "$run/found"
  for f in "$run/corpus"/*; do
    case $(basename "$f") in shared_*) continue ;; esac
    [ -e "$kept/$(basename "$f")" ] || [ "$(stat -c %s "$f")" -gt "$keep_bytes" ] || cp "$f" "$run/found/"
  done
  # Nor do inputs that are mostly a shared file's bytes: a mutant one byte
  # away from a shared file would be a copy of it.
  drop_copies "$run/found" "$run/corpus"/shared_* 2>/dev/null || true
  before=$(ls "$kept" | wc -l)
  nice -n "$niceness" "$bin" -merge=1 -max_len=262144 -timeout=10 $(flags_of "$t") "$kept" "$run/found" \
    > "$run/merge.log" 2>&1 || true
  after=$(ls "$kept" | wc -l)
  execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$run/log" | grep -o '[0-9]*$' || true)
  cov=$(grep -E '^#[0-9]+' "$run/log" | tail -1 | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
  echo "$t: executions ${execs:-?}, ${cov:-cov ?}, CPU ${cpu}s, kept corpus $before -> $after files, exit $rc"
  cf=$(echo "${cov:-cov ? ft ?}" | awk '{print $2 "/" $4}')
  echo "| $(date -u +%F) | $t | $minutes | $cpu | ${execs:-?} | $cf | $after | $rc |" >> fuzz/RUNS.md
  fam=tests/crashers/$(family_of "$t"); mkdir -p "$fam"
  skip=$(prefix_len "$t")
  for a in "$run/artifacts"/*; do
    [ -f "$a" ] || continue
    kind=$(basename "$a" | cut -d- -f1)  # crash, leak, timeout, oom, slow-unit
    [ "$kind" = slow ] && continue
    name=${t%_fuzz}_${kind}_$(sha1sum "$a" | cut -c1-10).bin
    tail -c +$((skip + 1)) "$a" > "$fam/$name"
    why=$(grep -m1 -E 'ERROR: |runtime error|SUMMARY' "$run/log" | sed 's/^==[0-9]*==//' | cut -c1-160)
    prefix=$(head -c "$skip" "$a" | od -An -tx1 | tr -d ' \n')
    echo "- $name: $kind from $t on $(date -u +%F)${prefix:+ (argument bytes $prefix)}: $why" >> "$fam/README.md"
    echo "$t: $kind saved as $fam/$name"
    status=1
  done
  [ $rc -eq 0 ] || { tail -30 "$run/log"; status=1; }
done
exit $status
