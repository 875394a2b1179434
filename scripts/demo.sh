#!/usr/bin/env bash
# First command of the README: installs what is needed, builds the library and
# the command-line host in release mode, and runs the bundled demonstration
# (a generated bracketed scene merged to a Radiance file and fused to a TIFF).
# It ends by saying where olhdr is and how to call it by its bare name.
#   bash scripts/demo.sh [OUTPUT-FOLDER]      (default ./olhdr-demo, ignored by git)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
bash scripts/setup.sh
mkdir -p build
# The demonstration needs no test programs; scripts/test.sh turns them back on
# in the same folder, so the library objects built here are reused there.
source scripts/options.sh
cmake --preset release "${demo_opts[@]}" > build/release.configure.log 2>&1 \
  || { cat build/release.configure.log; exit 1; }
echo "demo: building olhdr (log in build/release-build.log)"
cmake --build --preset release --target olhdr -j"$(nproc)" > build/release-build.log 2>&1 \
  || { tail -40 build/release-build.log; exit 1; }
bin="$root/build/release/tools"
"$bin/olhdr" demo --out "${1:-olhdr-demo}"
echo
if [ "$(command -v olhdr || true)" = "$bin/olhdr" ]; then
  echo "olhdr is $bin/olhdr (already on your PATH)"
else
  echo "olhdr is $bin/olhdr; to call it as plain 'olhdr' in this shell:"
  echo "  export PATH=\"$bin:\$PATH\""
fi
