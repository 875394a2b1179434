#!/usr/bin/env bash
# First command of the README: installs what is needed, builds the library and
# the command-line host in release mode, and runs the bundled demonstration
# (a generated bracketed scene merged to a Radiance file and fused to a TIFF).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release -DOL_BUILD_TESTS=OFF -DOL_BUILD_BENCH=OFF > /dev/null
cmake --build --preset release -j"$(nproc)" > build/release-build.log 2>&1 || { tail -40 build/release-build.log; exit 1; }
exec build/release/tools/olhdr demo --out "${1:-olhdr-demo}"
