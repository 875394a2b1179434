#!/bin/sh
# load_psd against ImageMagick decoding the same PSD composites (8-bit
# PackBits and 16-bit raw, 3000x2000), each to raw RGB samples in memory.
# Usage: bench/compare_psd.sh [build-dir]   (needs convert and hyperfine)
set -e
BUILD=${1:-build/release}
DIR=$(mktemp -d)
trap 'rm -rf "$DIR"' EXIT
convert -size 3000x2000 gradient:red-blue -swirl 120 -alpha off "$DIR/src.png"
convert "$DIR/src.png" -depth 8 -compress RLE "$DIR/rle8.psd"
convert "$DIR/src.png" -depth 16 -compress None "$DIR/raw16.psd"
for f in rle8 raw16; do
  depth=8; [ $f = raw16 ] && depth=16
  echo "== $f: ImageMagick (convert to rgb, output discarded)"
  hyperfine -N -w 2 -r 9 --export-json "$DIR/$f.json" "convert $DIR/$f.psd[0] -depth $depth rgb:/dev/null" | grep -E "Time|Range"
  echo "== $f: load_psd (median of 9)"
  METAREAD_PSD="$DIR/$f.psd" "$BUILD/bench/metaread_bench" --benchmark_filter=LoadPsdFile \
    --benchmark_repetitions=9 --benchmark_report_aggregates_only=true | grep median
done
